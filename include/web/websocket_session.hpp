#pragma once
// WebsocketSession: one upgraded connection (permessage-deflate when the
// server offers it). It reads client messages into its ClientProtocol and
// pushes the changes of the fields the client watches. All of it runs on the
// connection's strand.
//
// Pushes: a field change anywhere asks, through the session's PushTrigger,
// for the next push round of the session's network thread (PushRounds, which
// keeps the server's push spacing). One write is in flight at a time; what
// changes meanwhile goes in the next write, made as soon as this one
// completes (push spacing 0: paced by the socket) or by asking for the next
// round (a spacing above 0). The pass reads the fields' latest values, so a
// slow client never builds a backlog: what it misses are intermediate values
// of a field that changed again before the client took the previous push
// (history subscriptions keep the last 64).
#include <chrono>
#include <memory>
#include <string>

#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

#include "web/client_protocol.hpp"
#include "web/connection_gate.hpp"
#include "web/web_channel.hpp"

class PushRounds;
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

  // `slot`: the connection's place among those the server admits, taken
  // over from the HTTP session that upgraded it.
  WebsocketSession(std::unique_ptr<WebsocketChannel> channel, std::shared_ptr<WebShared> shared,
                   Credentials credentials, ConnectionGate::Slot slot = {});
  ~WebsocketSession();

  // Completes the upgrade that `request` asked for; on the connection's strand.
  void run(Request request);
  // A push round of its network thread has come (PushRounds).
  void on_round();

 private:
  void on_accept(boost::beast::error_code ec);
  void do_read();
  void on_read(boost::beast::error_code ec, size_t bytes);
  void push_in_strand();
  void ask_for_round();
  void push();
  void on_write(boost::beast::error_code ec, size_t bytes);
  void end();

  std::unique_ptr<WebsocketChannel> ws_;  // plain or TLS
  boost::beast::flat_buffer buffer_;
  std::shared_ptr<WebShared> shared_;
  std::shared_ptr<PushTrigger> trigger_;
  Credentials credentials_;
  ClientProtocol protocol_;
  uint64_t registration_ = 0;
  ConnectionGate::Slot slot_;

  PushRounds& rounds_;
  std::string out_;               // the push being written
  bool writing_ = false;          // a push is in flight
  bool push_wanted_ = false;      // a round came while writing: ask again when done
  bool ended_ = false;
};
