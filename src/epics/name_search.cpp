#include "epics/name_search.hpp"

#include <string>

#include "epics/ca_message.hpp"
#include "epics/ca_service.hpp"

namespace net = boost::asio;

namespace {
// Replies are cut into datagrams no larger than this, below a typical MTU.
constexpr size_t kReplyDatagramMax = 1400;
constexpr uint32_t kUseSenderAddress = 0xFFFFFFFF;
}  // namespace

NameSearch::NameSearch(net::ip::udp::socket socket, CaService& service)
    : socket_(std::move(socket)), service_(service) {}

void NameSearch::start() { do_receive(); }

void NameSearch::close() {
  boost::system::error_code ec;
  socket_.close(ec);
}

void NameSearch::do_receive() {
  socket_.async_receive_from(net::buffer(datagram_), sender_,
                             [self = shared_from_this()](auto ec, size_t n) { self->on_receive(ec, n); });
}

void NameSearch::on_receive(const boost::system::error_code& ec, size_t n) {
  if (ec == net::error::operation_aborted || !socket_.is_open()) return;
  std::string reply;
  auto send = [&] {
    if (reply.empty()) return;
    boost::system::error_code ignored;
    socket_.send_to(net::buffer(reply), sender_, 0, ignored);
    reply.clear();
  };
  std::string_view rest(datagram_.data(), ec ? 0 : n);
  while (auto parsed = ca::parse_header(rest)) {
    size_t whole = parsed->size + parsed->header.payload_size;
    if (whole > rest.size()) break;  // a truncated datagram: the rest is dropped
    const auto& h = parsed->header;
    if (h.command == ca::kSearch && service_.directory().find(ca::payload_text(rest.substr(parsed->size, h.payload_size)))) {
      if (reply.size() + 2 * ca::kHeaderSize + 8 > kReplyDatagramMax) send();
      if (reply.empty()) ca::append_message(reply, {ca::kVersion, 0, 0, ca::kMinorVersion, 0, 0});
      std::string version;
      ca::put16(version, ca::kMinorVersion);
      ca::append_message(reply, {ca::kSearch, 0, service_.port(), 0, kUseSenderAddress, h.parameter1}, version);
      ++answered_;
    }
    rest.remove_prefix(whole);
  }
  send();
  do_receive();
}
