#pragma once
// NameSearch: the server's UDP port, where clients look for process
// variables by name. Each datagram may carry several searches (after a
// version message); the names this server has are answered in one reply
// datagram to the sender, naming the server's TCP port. Names it does not
// have go unanswered, as broadcast searches must. A search costs one lookup
// in a hash map on the server's own thread, so a flood of searches slows
// the searchers down, not the tree.
#include <array>
#include <cstdint>
#include <memory>

#include <boost/asio/ip/udp.hpp>

class CaService;

class NameSearch : public std::enable_shared_from_this<NameSearch> {
 public:
  NameSearch(boost::asio::ip::udp::socket socket, CaService& service);
  void start();
  void close();

  uint64_t answered() const { return answered_; }

 private:
  void do_receive();
  void on_receive(const boost::system::error_code& ec, size_t n);

  boost::asio::ip::udp::socket socket_;
  CaService& service_;
  std::array<char, 16 * 1024> datagram_{};
  boost::asio::ip::udp::endpoint sender_;
  uint64_t answered_ = 0;
};
