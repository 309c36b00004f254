#include "web/websocket_session.hpp"

#include <boost/asio/dispatch.hpp>
#include <boost/beast/core/bind_handler.hpp>
#include <boost/beast/websocket/error.hpp>

#include "core/log.hpp"
#include "core/root.hpp"
#include "web/push_rounds.hpp"
#include "web/web_shared.hpp"

namespace beast = boost::beast;
namespace websocket = beast::websocket;
namespace net = boost::asio;

namespace {

// Compression, when the server offers it: small windows both ways keep a
// thousand sessions' state small (client messages are short; pushes are short
// and repetitive, so a 2 KiB window still pays), and the fastest level halves
// the cost per push. Off by default: a push of a few samples costs more to
// deflate and inflate than it saves on the wire (idle.md, "Push cadence").
websocket::permessage_deflate deflate_options(bool offered) {
  websocket::permessage_deflate options;
  options.server_enable = offered;
  options.server_max_window_bits = 11;
  options.client_max_window_bits = 11;
  options.compLevel = 1;
  return options;
}

// Disconnects are a client's business; only other failures are logged.
bool is_disconnect(const beast::error_code& ec) {
  return ec == websocket::error::closed || ec == net::error::eof || ec == net::error::connection_reset ||
         ec == net::error::broken_pipe || ec == net::error::operation_aborted || ec == beast::error::timeout ||
         ec == net::error::not_connected;
}

}  // namespace

WebsocketSession::WebsocketSession(std::unique_ptr<WebsocketChannel> channel, std::shared_ptr<WebShared> shared,
                                   Credentials credentials, ConnectionGate::Slot slot)
    : ws_(std::move(channel)),
      shared_(std::move(shared)),
      trigger_(std::make_shared<PushTrigger>()),
      credentials_(std::move(credentials)),
      protocol_(shared_->root(), trigger_, shared_->limits().subscriptions_max,
                [this] { return shared_->access().caller_of(credentials_.cookie, credentials_.authorization,
                                                            credentials_.from); }),
      slot_(std::move(slot)),
      rounds_(boost::asio::use_service<PushRounds>(ws_->get_executor().get_inner_executor().context())) {
  out_.reserve(ClientProtocol::kPushBufferReserve);
}

WebsocketSession::~WebsocketSession() {
  trigger_->cut();
  if (registration_) shared_->websocket_closed(registration_);
}

void WebsocketSession::run(Request request) {
  const auto& limits = shared_->limits();
  websocket::stream_base::timeout timeouts{};
  timeouts.handshake_timeout = std::chrono::seconds(30);
  timeouts.idle_timeout = limits.websocket_idle_timeout;
  timeouts.keep_alive_pings = true;
  ws_->set_option(timeouts);
  ws_->set_option(deflate_options(limits.websocket_compression));
  ws_->set_option(websocket::stream_base::decorator(
      [](websocket::response_type& response) { response.set(beast::http::field::server, "ZEL"); }));
  ws_->read_message_max(limits.websocket_message_max);
  ws_->async_accept(request, beast::bind_front_handler(&WebsocketSession::on_accept, shared_from_this()));
}

void WebsocketSession::on_accept(beast::error_code ec) {
  if (ec) {
    if (!is_disconnect(ec)) ZEL_ERROR("WebSocket upgrade failed: {}", ec.message());
    return;
  }
  trigger_->set_wake([weak = weak_from_this(), rounds = &rounds_, spacing = shared_->limits().push_spacing] {
    rounds->request(weak, spacing);
  });
  registration_ = shared_->websocket_opened(trigger_);
  do_read();
}

void WebsocketSession::do_read() {
  ws_->async_read(buffer_, {shared_from_this(), &WebsocketSession::on_read});
}

void WebsocketSession::on_read(beast::error_code ec, size_t) {
  if (ec == websocket::error::message_too_big) {
    ZEL_ERROR("WebSocket message of more than {} bytes refused; connection closed",
              shared_->limits().websocket_message_max);
    return end();
  }
  if (ec) {
    if (!is_disconnect(ec)) ZEL_ERROR("WebSocket read failed: {}", ec.message());
    return end();
  }
  auto data = buffer_.cdata();
  protocol_.handle_message(std::string_view(static_cast<const char*>(data.data()), data.size()));
  buffer_.consume(buffer_.size());
  do_read();
}

void WebsocketSession::on_round() {
  // Rounds run on the io_context's thread, outside the connection's strand.
  net::dispatch(ws_->get_executor(), beast::bind_front_handler(&WebsocketSession::push_in_strand, shared_from_this()));
}

void WebsocketSession::push_in_strand() {
  if (ended_) return;
  if (writing_) {
    push_wanted_ = true;
    return;
  }
  push();
}

void WebsocketSession::ask_for_round() {
  push_wanted_ = false;
  rounds_.request(weak_from_this(), shared_->limits().push_spacing);
}

void WebsocketSession::push() {
  push_wanted_ = false;
  auto pass = protocol_.write_push(out_);
  // Subscriptions the pass did not reach are visited by the next one.
  if (!pass.complete) push_wanted_ = true;
  if (!pass.wrote) {
    if (push_wanted_) ask_for_round();
    return;
  }
  writing_ = true;
  ws_->text(true);
  ws_->async_write(net::buffer(out_), {shared_from_this(), &WebsocketSession::on_write});
}

void WebsocketSession::on_write(beast::error_code ec, size_t) {
  writing_ = false;
  if (ec) {
    if (!is_disconnect(ec)) ZEL_ERROR("write {}", ec.message());
    return end();
  }
  if (!push_wanted_) return;
  // Paced by the socket: what changed while the write was out goes at once.
  if (shared_->limits().push_spacing.count() == 0) return push();
  ask_for_round();
}

void WebsocketSession::end() {
  ended_ = true;
  trigger_->cut();
}
