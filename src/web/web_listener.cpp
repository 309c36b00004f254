#include "web/web_listener.hpp"

#include <boost/asio/strand.hpp>
#include <boost/beast/core/bind_handler.hpp>

#include "core/log.hpp"
#include "web/http_session.hpp"
#include "web/web_shared.hpp"

namespace net = boost::asio;
namespace beast = boost::beast;
using net::ip::tcp;

namespace {
constexpr auto kRetryAfterFailedAccept = std::chrono::milliseconds(100);

// The answer to a connection beyond the limits, written without waiting: a
// client that does not read it just gets the close.
constexpr std::string_view kBusyAnswer =
    "HTTP/1.1 503 Service Unavailable\r\nServer: ZEL\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";

std::string address_of(const WebSocketTcp& socket) {
  beast::error_code ec;
  auto endpoint = socket.remote_endpoint(ec);
  return ec ? std::string("?") : endpoint.address().to_string();
}
}  // namespace

WebListener::WebListener(net::io_context& io, std::vector<net::io_context*> session_ios, std::shared_ptr<WebShared> shared,
                         ChannelMaker make_channel)
    : acceptor_(io),
      session_ios_(std::move(session_ios)),
      retry_(io),
      shared_(std::move(shared)),
      make_channel_(std::move(make_channel)) {}

std::string WebListener::open(const tcp::endpoint& endpoint) {
  beast::error_code ec;
  acceptor_.open(endpoint.protocol(), ec);
  if (ec) return "open: " + ec.message();
  // An in-place restart binds again at once, past the old connections' TIME_WAIT.
  acceptor_.set_option(net::socket_base::reuse_address(true), ec);
  if (ec) return "set_option: " + ec.message();
  acceptor_.bind(endpoint, ec);
  if (ec) return "bind: " + ec.message();
  acceptor_.listen(net::socket_base::max_listen_connections, ec);
  if (ec) return "listen: " + ec.message();
  return {};
}

uint16_t WebListener::port() const {
  beast::error_code ec;
  auto endpoint = acceptor_.local_endpoint(ec);
  return ec ? 0 : endpoint.port();
}

void WebListener::run() { do_accept(); }

void WebListener::close() {
  beast::error_code ec;
  retry_.cancel();
  acceptor_.close(ec);
}

void WebListener::do_accept() {
  auto& io = *session_ios_[next_io_++ % session_ios_.size()];
  acceptor_.async_accept(net::make_strand(io), beast::bind_front_handler(&WebListener::on_accept, shared_from_this()));
}

void WebListener::on_accept(beast::error_code ec, WebSocketTcp socket) {
  if (ec == net::error::operation_aborted || !acceptor_.is_open()) return;
  if (ec) {
    ZEL_ERROR("async_accept {}", ec.message());
    retry_.expires_after(kRetryAfterFailedAccept);
    retry_.async_wait([self = shared_from_this()](beast::error_code wait_ec) {
      if (!wait_ec) self->do_accept();
    });
    return;
  }
  auto address = address_of(socket);
  ConnectionGate::Refusal refusal;
  auto slot = shared_->gate().admit(address, refusal);
  if (!slot) {
    shared_->breach(refusal == ConnectionGate::Refusal::Total ? "connections" : "connections_per_address", address,
                    refusal == ConnectionGate::Refusal::Total
                        ? fmt::format("refused, {} connections are open", shared_->limits().connections_max)
                        : fmt::format("refused, {} connections from this address are open",
                                      shared_->limits().connections_per_address_max));
    socket.non_blocking(true, ec);
    socket.write_some(net::buffer(kBusyAnswer), ec);
    socket.close(ec);
    return do_accept();
  }
  // Pushes are small and must not wait for more data to fill a segment.
  socket.set_option(tcp::no_delay(true), ec);
  socket.set_option(net::socket_base::send_buffer_size(static_cast<int>(shared_->limits().socket_send_buffer)), ec);
  std::make_shared<HTTPSession>(make_channel_(std::move(socket)), shared_, std::move(slot), std::move(address))->run();
  do_accept();
}
