#pragma once
// WebListener: accepts TCP connections for the web server and starts an
// HTTPSession for each, over the channel its ChannelMaker makes (plain TCP
// unless told otherwise), on a strand of one of the server's threads (taken in
// turn). A set-up failure is answered with the step that failed and why
// ("bind: Address already in use"); accept failures are logged with
// "async_accept ";
// after a failed accept it waits a moment before the next, so a shortage of
// descriptors does not spin.
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/error.hpp>

#include "web/web_channel.hpp"

class WebShared;

class WebListener : public std::enable_shared_from_this<WebListener> {
 public:
  using ChannelMaker = std::function<std::unique_ptr<HttpChannel>(WebSocketTcp&&)>;

  WebListener(boost::asio::io_context& io, std::vector<boost::asio::io_context*> session_ios,
              std::shared_ptr<WebShared> shared, ChannelMaker make_channel = plain_http_channel);

  // Opens, binds and listens; empty when listening, else what failed.
  std::string open(const boost::asio::ip::tcp::endpoint& endpoint);
  uint16_t port() const;
  // Starts accepting; call on the listener's own thread.
  void run();
  // Call on the listener's thread, or once that thread has stopped.
  void close();

 private:
  void do_accept();
  void on_accept(boost::beast::error_code ec, WebSocketTcp socket);

  boost::asio::ip::tcp::acceptor acceptor_;
  std::vector<boost::asio::io_context*> session_ios_;
  size_t next_io_ = 0;
  boost::asio::steady_timer retry_;
  std::shared_ptr<WebShared> shared_;
  ChannelMaker make_channel_;
};
