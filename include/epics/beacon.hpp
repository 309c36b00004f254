#pragma once
// Beacon: the server's announcement that it is up, sent to the repeater port
// of each configured address, first after 20 ms and then at twice the last
// interval up to 15 s. Clients that see a new beacon (a server restarted)
// search again for the names they miss.
#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include <boost/asio/ip/udp.hpp>
#include <boost/asio/steady_timer.hpp>

class Beacon : public std::enable_shared_from_this<Beacon> {
 public:
  static constexpr std::chrono::milliseconds kFirstInterval{20};
  static constexpr std::chrono::seconds kLongestInterval{15};

  Beacon(boost::asio::io_context& io, std::vector<boost::asio::ip::udp::endpoint> targets, uint16_t server_port);
  void start();
  void stop();

 private:
  void send();

  boost::asio::ip::udp::socket socket_;
  boost::asio::steady_timer timer_;
  std::vector<boost::asio::ip::udp::endpoint> targets_;
  uint16_t server_port_;
  uint32_t sequence_ = 0;
  std::chrono::milliseconds interval_ = kFirstInterval;
  bool stopped_ = false;
};
