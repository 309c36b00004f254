#pragma once
// WebsocketSession: one upgraded connection (permessage-deflate enabled). It
// reads client messages into its ClientProtocol and pushes the changes of
// the fields the client watches. All of it runs on the connection's strand.
//
// Pushes: a field change anywhere wakes the session through its PushTrigger;
// a push pass then runs at once, or when kPushInterval has passed since the
// last push, whichever is later. One write is in flight at a time; changes
// that arrive meanwhile are collected by the next pass, which reads the
// fields' latest values. So a slow client never builds a backlog: what it
// misses are intermediate values of a field that changed again before the
// client took the previous push (history subscriptions keep the last 64).
#include <chrono>
#include <memory>
#include <string>

#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/websocket/stream.hpp>

#include "web/client_protocol.hpp"
#include "web/web_stream.hpp"

class WebShared;

class WebsocketSession : public std::enable_shared_from_this<WebsocketSession> {
 public:
  using Request = boost::beast::http::request<boost::beast::http::string_body>;
  // What the upgrade request said about its sender; looked up again on every
  // set, so a logout, an expiry or a revoked token takes effect at once.
  struct Credentials {
    std::string cookie;
    std::string authorization;
    std::string from;
  };

  WebsocketSession(WebSocketTcp&& socket, std::shared_ptr<WebShared> shared, Credentials credentials);
  ~WebsocketSession();

  // Completes the upgrade that `request` asked for; on the connection's strand.
  void run(Request request);

 private:
  void on_accept(boost::beast::error_code ec);
  void do_read();
  void on_read(boost::beast::error_code ec, size_t bytes);
  void on_wake();
  void on_push_timer(boost::beast::error_code ec);
  void push();
  void on_write(boost::beast::error_code ec, size_t bytes);
  void end();

  boost::beast::websocket::stream<WebTcpStream> ws_;
  boost::beast::flat_buffer buffer_;
  std::shared_ptr<WebShared> shared_;
  std::shared_ptr<PushTrigger> trigger_;
  Credentials credentials_;
  ClientProtocol protocol_;
  uint64_t registration_ = 0;

  std::string out_;               // the push being written
  bool writing_ = false;          // a push is in flight
  bool push_wanted_ = false;      // another pass is due when the write completes
  bool ended_ = false;
  boost::asio::steady_timer push_timer_;
  bool timer_armed_ = false;
  std::chrono::steady_clock::time_point last_push_{};
};
