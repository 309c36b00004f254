#pragma once
// The byte streams under the web server's sessions, plain TCP or TLS, behind
// one small interface each: HttpChannel for an HTTP connection, and
// WebsocketChannel for the same connection once it has switched protocols.
// The sessions (HTTPSession, WebsocketSession) are written once against
// these; each operation is one virtual call in front of Beast's own composed
// operation on the concrete stream, so the plain path keeps its speed.
// The plain channels are made here (web_channel.cpp), the TLS ones by
// TlsContext (tls_context.cpp), so only that file compiles OpenSSL's stream.
//
// Every call runs on the connection's strand, the executor of the channel.
#include <functional>
#include <memory>

#include <boost/asio/buffer.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/websocket/option.hpp>
#include <boost/beast/websocket/stream_base.hpp>

#include "web/web_stream.hpp"

// The completion of a session's read or write: a member function called on
// the session, which the pending operation keeps alive.
template <class Session>
struct SessionCompletion {
  using Member = void (Session::*)(boost::beast::error_code, std::size_t);
  std::shared_ptr<Session> session;
  Member member;
  void operator()(boost::beast::error_code ec, std::size_t bytes) const { ((*session).*member)(ec, bytes); }
};

class HTTPSession;
class WebsocketSession;

class WebsocketChannel {
 public:
  using Request = boost::beast::http::request<boost::beast::http::string_body>;
  using Completion = SessionCompletion<WebsocketSession>;

  virtual ~WebsocketChannel() = default;
  virtual WebExecutor get_executor() = 0;
  virtual void set_option(const boost::beast::websocket::stream_base::timeout& timeouts) = 0;
  virtual void set_option(const boost::beast::websocket::permessage_deflate& deflate) = 0;
  virtual void set_option(boost::beast::websocket::stream_base::decorator decorator) = 0;
  virtual void read_message_max(std::size_t bytes) = 0;
  virtual void text(bool on) = 0;
  virtual void async_accept(const Request& request, std::function<void(boost::beast::error_code)> done) = 0;
  virtual void async_read(boost::beast::flat_buffer& buffer, Completion done) = 0;
  virtual void async_write(boost::asio::const_buffer data, Completion done) = 0;
};

class HttpChannel {
 public:
  using Parser = boost::beast::http::request_parser<boost::beast::http::string_body>;
  using Response = boost::beast::http::response<boost::beast::http::string_body>;
  using Completion = SessionCompletion<HTTPSession>;

  virtual ~HttpChannel() = default;
  // Over TLS: the connection is encrypted (cookies get Secure, the page's
  // origin is "https://").
  virtual bool secure() const = 0;
  virtual WebExecutor get_executor() = 0;
  // The TCP socket beneath (addresses, shutdown).
  virtual WebSocketTcp& socket() = 0;
  // Completes once the connection may carry requests: at once for plain
  // TCP, after the handshake for TLS.
  virtual void async_start(Completion done) = 0;
  virtual void async_read_header(boost::beast::flat_buffer& buffer, Parser& parser, Completion done) = 0;
  virtual void async_read(boost::beast::flat_buffer& buffer, Parser& parser, Completion done) = 0;
  virtual void async_write(Response& response, Completion done) = 0;
  virtual void expires_after(std::chrono::steady_clock::duration time) = 0;
  virtual void expires_never() = 0;
  // Ends the connection's own protocol before its socket closes: over TLS a
  // close_notify, so the client can tell the end from a cut (waited for at
  // most a couple of seconds); for plain TCP nothing. Calls `done` either way.
  virtual void async_finish(std::function<void()> done) = 0;
  // Hands the connection over for the WebSocket protocol; this channel is
  // of no further use.
  virtual std::unique_ptr<WebsocketChannel> to_websocket() = 0;
};

std::unique_ptr<HttpChannel> plain_http_channel(WebSocketTcp&& socket);
