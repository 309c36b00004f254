#pragma once
// The channels over one concrete stream type. Included only where a stream
// type is instantiated: web_channel.cpp (plain TCP) and tls_context.cpp (TLS).
// What differs between the two, starting the connection and whether it is
// secure, is left to the final class of each.
#include <boost/beast/core/stream_traits.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/beast/websocket/stream.hpp>

#include "web/web_channel.hpp"

template <class Stream>
class WebsocketChannelOver final : public WebsocketChannel {
 public:
  explicit WebsocketChannelOver(Stream&& stream) : ws_(std::move(stream)) {}

  WebExecutor get_executor() override { return ws_.get_executor(); }
  void set_option(const boost::beast::websocket::stream_base::timeout& timeouts) override { ws_.set_option(timeouts); }
  void set_option(const boost::beast::websocket::permessage_deflate& deflate) override { ws_.set_option(deflate); }
  void set_option(boost::beast::websocket::stream_base::decorator decorator) override {
    ws_.set_option(std::move(decorator));
  }
  void read_message_max(std::size_t bytes) override { ws_.read_message_max(bytes); }
  void text(bool on) override { ws_.text(on); }
  void async_accept(const Request& request, std::function<void(boost::beast::error_code)> done) override {
    ws_.async_accept(request, std::move(done));
  }
  void async_read(boost::beast::flat_buffer& buffer, Completion done) override {
    ws_.async_read(buffer, std::move(done));
  }
  void async_write(boost::asio::const_buffer data, Completion done) override {
    ws_.async_write(data, std::move(done));
  }

 private:
  boost::beast::websocket::stream<Stream> ws_;
};

template <class Stream>
class HttpChannelOver : public HttpChannel {
 public:
  template <class... Args>
  explicit HttpChannelOver(Args&&... args) : stream_(std::forward<Args>(args)...) {}

  WebExecutor get_executor() override { return stream_.get_executor(); }
  WebSocketTcp& socket() override { return boost::beast::get_lowest_layer(stream_).socket(); }
  void async_read_header(boost::beast::flat_buffer& buffer, Parser& parser, Completion done) override {
    boost::beast::http::async_read_header(stream_, buffer, parser, std::move(done));
  }
  void async_read(boost::beast::flat_buffer& buffer, Parser& parser, Completion done) override {
    boost::beast::http::async_read(stream_, buffer, parser, std::move(done));
  }
  void async_write(Response& response, Completion done) override {
    boost::beast::http::async_write(stream_, response, std::move(done));
  }
  void expires_after(std::chrono::steady_clock::duration time) override {
    boost::beast::get_lowest_layer(stream_).expires_after(time);
  }
  void expires_never() override { boost::beast::get_lowest_layer(stream_).expires_never(); }
  std::unique_ptr<WebsocketChannel> to_websocket() override {
    return std::make_unique<WebsocketChannelOver<Stream>>(std::move(stream_));
  }

 protected:
  Stream stream_;
};
