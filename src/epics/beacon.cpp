#include "epics/beacon.hpp"

#include <algorithm>
#include <string>

#include <boost/asio/socket_base.hpp>

#include "core/log.hpp"
#include "epics/ca_message.hpp"

namespace net = boost::asio;

Beacon::Beacon(net::io_context& io, std::vector<net::ip::udp::endpoint> targets, uint16_t server_port)
    : socket_(io), timer_(io), targets_(std::move(targets)), server_port_(server_port) {
  boost::system::error_code ec;
  socket_.open(net::ip::udp::v4(), ec);
  if (!ec) socket_.set_option(net::socket_base::broadcast(true), ec);
  if (ec) ZEL_ERROR("EPICS beacons cannot be sent: {}", ec.message());
}

void Beacon::start() {
  timer_.expires_after(interval_);
  timer_.async_wait([self = shared_from_this()](auto ec) {
    if (!ec && !self->stopped_) self->send();
  });
}

void Beacon::stop() {
  stopped_ = true;
  timer_.cancel();
  boost::system::error_code ec;
  socket_.close(ec);
}

void Beacon::send() {
  // The address word stays 0: receivers take the sender's address.
  std::string message;
  ca::append_message(message, {ca::kBeacon, 0, ca::kMinorVersion, server_port_, sequence_++, 0});
  for (auto& target : targets_) {
    boost::system::error_code ignored;
    socket_.send_to(net::buffer(message), target, 0, ignored);
  }
  interval_ = std::min<std::chrono::milliseconds>(interval_ * 2, kLongestInterval);
  start();
}
