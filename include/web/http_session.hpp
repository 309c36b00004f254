#pragma once
// HTTPSession: one HTTP connection, plain or TLS (its HttpChannel). It reads requests (limits on header
// and body size, a time-out per read and write, "100 Continue" to a client
// that expects it), answers them through the router in order through its
// HttpWorkQueue, and hands the connection to a new WebsocketSession when a
// request asks for the upgrade, once the replies to the requests before it
// are written. Runs on the connection's strand.
#include <memory>
#include <optional>
#include <string>

#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

#include "web/connection_gate.hpp"
#include "web/http_router.hpp"
#include "web/http_work_queue.hpp"
#include "web/web_channel.hpp"

class WebShared;

class HTTPSession : public std::enable_shared_from_this<HTTPSession> {
 public:
  // `slot` is the connection's place among those the server admits; the
  // client's `address` names it in the log when it runs into a limit.
  HTTPSession(std::unique_ptr<HttpChannel> channel, std::shared_ptr<WebShared> shared, ConnectionGate::Slot slot,
              std::string address);
  ~HTTPSession();

  void run();

 private:
  // The connection may carry requests (after the TLS handshake).
  void on_start(boost::beast::error_code ec, size_t bytes);
  HttpChannel::Completion completion(HttpChannel::Completion::Member member);
  void do_read();
  // After the header: answers "Expect: 100-continue", then reads the body.
  void on_header(boost::beast::error_code ec, size_t bytes);
  void on_read(boost::beast::error_code ec, size_t bytes);
  using Request = boost::beast::http::request<boost::beast::http::string_body>;
  // Hands the connection to a WebsocketSession with the request just read,
  // when the request comes from the instrument's own page.
  void upgrade();
  HttpRequestView view_of(const Request& request) const;
  // Answers a request that could not be read whole, then closes.
  void refuse(unsigned status, std::string_view text);
  // Refuses a request that ran into `limit`, logged once per client and interval.
  void refuse_breach(unsigned status, std::string_view limit, std::string_view text);
  void queue_reply(HttpWorkQueue::Response&& response);
  void do_write();
  void on_write(boost::beast::error_code ec, size_t bytes);
  void do_close();
  void close_socket();

  std::unique_ptr<HttpChannel> channel_;
  boost::beast::flat_buffer buffer_;
  std::shared_ptr<WebShared> shared_;
  std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> parser_;
  HttpWorkQueue queue_;
  ConnectionGate::Slot slot_;
  std::string address_;
  bool closing_ = false;  // no more reads: the last reply closes the connection
  bool ending_ = false;   // the connection is being closed
  bool reading_ = false;  // a request is being read
  bool upgrade_waiting_ = false;  // an upgrade waits for the replies before it
  std::string client_;            // the peer's address and port
};
