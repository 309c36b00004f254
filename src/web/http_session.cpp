#include "web/http_session.hpp"

#include <boost/asio/dispatch.hpp>
#include <boost/beast/core/bind_handler.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/beast/websocket/rfc6455.hpp>

#include "core/log.hpp"
#include "web/http_router.hpp"
#include "web/web_shared.hpp"
#include "web/websocket_session.hpp"

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;

namespace {

bool is_http_parse_error(const beast::error_code& ec) {
  return ec.category() == http::make_error_code(http::error::bad_target).category();
}

HttpWorkQueue::Response make_response(unsigned version, bool keep_alive, HttpReply&& reply, bool head) {
  HttpWorkQueue::Response response{static_cast<http::status>(reply.status), version};
  response.set(http::field::server, "ZEL");
  response.set(http::field::content_type, reply.content_type);
  response.set(http::field::cache_control, reply.cache_control);
  if (!reply.error.empty()) response.set("X-Zel-Error", reply.error);
  if (!reply.allow.empty()) response.set(http::field::allow, reply.allow);
  if (!reply.set_cookie.empty()) response.set(http::field::set_cookie, reply.set_cookie);
  if (!reply.location.empty()) response.set(http::field::location, reply.location);
  response.keep_alive(keep_alive);
  response.content_length(reply.body.size());
  // A reply to HEAD announces the length of the body it leaves out.
  if (!head) response.body() = std::move(reply.body);
  return response;
}

}  // namespace

HTTPSession::HTTPSession(std::unique_ptr<HttpChannel> channel, std::shared_ptr<WebShared> shared,
                         ConnectionGate::Slot slot, std::string address)
    : channel_(std::move(channel)),
      buffer_(shared->limits().http_buffer_max),
      shared_(std::move(shared)),
      queue_(shared_->limits().http_pipeline_max, shared_->limits().http_output_max),
      slot_(std::move(slot)),
      address_(std::move(address)) {
  beast::error_code ec;
  auto remote = channel_->socket().remote_endpoint(ec);
  auto peer = remote.address();
  client_ = ec ? std::string("an unknown address")
          : peer.is_v6() ? fmt::format("[{}]:{}", peer.to_string(), remote.port())
                         : fmt::format("{}:{}", peer.to_string(), remote.port());
  shared_->http_opened();
}

HTTPSession::~HTTPSession() {
  shared_->output_gone(queue_.bytes());
  shared_->http_closed();
}

void HTTPSession::run() {
  channel_->expires_after(shared_->limits().http_timeout);
  channel_->async_start(completion(&HTTPSession::on_start));
}

void HTTPSession::on_start(beast::error_code ec, size_t) {
  // A client that refuses the certificate or speaks no TLS just goes.
  if (ec) return do_close();
  do_read();
}

HttpChannel::Completion HTTPSession::completion(HttpChannel::Completion::Member member) {
  return {shared_from_this(), member};
}

void HTTPSession::do_read() {
  parser_.emplace();
  parser_->body_limit(shared_->limits().http_body_max);
  parser_->header_limit(static_cast<std::uint32_t>(shared_->limits().http_header_max));
  channel_->expires_after(shared_->limits().http_timeout);
  reading_ = true;
  channel_->async_read_header(buffer_, *parser_, completion(&HTTPSession::on_header));
}

void HTTPSession::on_header(beast::error_code ec, size_t bytes) {
  if (ec || parser_->is_done()) return on_read(ec, bytes);
  // A client that asks first (curl does for bodies over 1 KiB) waits for the
  // interim answer before it sends the body; a body too large was refused
  // with the header already.
  if (beast::iequals(parser_->get()[http::field::expect], "100-continue"))
    queue_reply(HttpWorkQueue::Response{http::status::continue_, parser_->get().version()});
  channel_->async_read(buffer_, *parser_, completion(&HTTPSession::on_read));
}

void HTTPSession::on_read(beast::error_code ec, size_t) {
  reading_ = false;
  if (ec == http::error::body_limit) return refuse_breach(413, "body", "Request body too large");
  if (ec == http::error::header_limit) return refuse_breach(431, "header", "Request header too large");
  // Bytes that could not be parsed within the buffer: a chunk size line
  // with endless extensions, or endless trailers.
  if (ec == http::error::buffer_overflow) return refuse_breach(431, "buffer", "Request header too large");
  if (ec && is_http_parse_error(ec) && ec != http::error::end_of_stream && ec != http::error::partial_message) {
    ZEL_ERROR("Bad HTTP request: {}", ec.message());
    return refuse(400, "Bad request");
  }
  if (ec) return do_close();  // the peer went away or timed out

  auto& request = parser_->get();
  if (beast::websocket::is_upgrade(request)) {
    // The connection changes protocol only once every reply before it is on
    // the wire; until then nothing more is read.
    upgrade_waiting_ = true;
    if (queue_.empty()) upgrade();
    return;
  }
  auto reply = shared_->router().answer(view_of(request));
  if (!shared_->room_for_output(reply.body.size())) return refuse_breach(503, "output", "Server busy");
  queue_reply(make_response(request.version(), request.keep_alive(), std::move(reply),
                            request.method() == http::verb::head));
  if (!queue_.full()) do_read();
}

void HTTPSession::upgrade() {
  upgrade_waiting_ = false;
  auto& request = parser_->get();
  // A page of another site must not drive the live protocol with the
  // browser's credentials, nor read it through a rebound host name.
  // Under TLS a plain WebSocket from beyond the loopback is refused: browsers
  // follow no redirection of an upgrade.
  if (auto refused = shared_->access().refuse_plain(view_of(request)))
    return refuse(403, "Plain WebSocket answers the loopback only; use wss://");
  if (auto refused = shared_->access().refuse_foreign(view_of(request))) return refuse(403, refused->error);
  WebsocketSession::Credentials credentials{std::string(request[http::field::cookie]),
                                            std::string(request[http::field::authorization]), client_};
  channel_->expires_never();
  std::make_shared<WebsocketSession>(channel_->to_websocket(), shared_, std::move(credentials), std::move(slot_))
      ->run(parser_->release());
}

HttpRequestView HTTPSession::view_of(const Request& request) const {
  return {request.method_string(),
          request.target(),
          request.body(),
          client_,
          request[http::field::host],
          request[http::field::origin],
          request[http::field::cookie],
          request[http::field::authorization],
          channel_->secure()};
}

void HTTPSession::refuse(unsigned status, std::string_view text) {
  closing_ = true;
  HttpReply reply;
  reply.status = status;
  reply.body = text;
  queue_reply(make_response(11, false, std::move(reply), false));
}

void HTTPSession::refuse_breach(unsigned status, std::string_view limit, std::string_view text) {
  shared_->breach(limit, address_, fmt::format("{} ({}), answered {}", text, limit, status));
  refuse(status, text);
}

void HTTPSession::queue_reply(HttpWorkQueue::Response&& response) {
  shared_->output_queued(response.body().size());
  if (queue_.push(std::move(response))) do_write();
}

void HTTPSession::do_write() {
  channel_->expires_after(shared_->limits().http_timeout);
  channel_->async_write(queue_.front(), completion(&HTTPSession::on_write));
}

void HTTPSession::on_write(beast::error_code ec, size_t) {
  if (ec) {
    ZEL_ERROR("write {}", ec.message());
    return do_close();
  }
  bool close = !queue_.empty() && queue_.front().need_eof();
  if (!queue_.empty()) shared_->output_gone(queue_.front().body().size());
  bool was_full = queue_.pop_written();
  if (close) return do_close();
  if (!queue_.empty()) do_write();
  else if (upgrade_waiting_) return upgrade();
  // An interim answer may have filled the queue while the body is still read.
  if (was_full && !closing_ && !reading_ && !upgrade_waiting_) do_read();
}

void HTTPSession::do_close() {
  // A read or write still out may fail once the end has begun: one end.
  if (ending_) return;
  ending_ = true;
  channel_->async_finish([self = shared_from_this()] { self->close_socket(); });
}

void HTTPSession::close_socket() {
  beast::error_code ec;
  channel_->socket().shutdown(net::ip::tcp::socket::shutdown_send, ec);
  channel_->socket().close(ec);
}
