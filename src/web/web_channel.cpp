#include "web/web_channel.hpp"

#include <boost/asio/dispatch.hpp>

#include "web/web_channel_impl.hpp"

namespace {

class PlainHttpChannel final : public HttpChannelOver<WebTcpStream> {
 public:
  using HttpChannelOver::HttpChannelOver;
  bool secure() const override { return false; }
  void async_start(Completion done) override {
    boost::asio::dispatch(stream_.get_executor(), [done = std::move(done)] { done({}, 0); });
  }
  void async_finish(std::function<void()> done) override { done(); }
};

}  // namespace

std::unique_ptr<HttpChannel> plain_http_channel(WebSocketTcp&& socket) {
  return std::make_unique<PlainHttpChannel>(std::move(socket));
}
