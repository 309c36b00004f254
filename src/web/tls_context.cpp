// Every instantiation of OpenSSL streams lives here, compiled once, apart
// from the plain sessions; so does Asio's own SSL code (the build compiles
// Asio separately, src/web/asio_beast_library.cpp).
#include "web/tls_context.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/impl/src.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <fmt/format.h>

#include "web/web_channel_impl.hpp"

namespace ssl = boost::asio::ssl;
using TlsStream = boost::beast::ssl_stream<WebTcpStream>;

struct TlsContext::Impl {
  ssl::context context{ssl::context::tls_server};
};

namespace {

class TlsHttpChannel final : public HttpChannelOver<TlsStream> {
 public:
  TlsHttpChannel(WebSocketTcp&& socket, std::shared_ptr<TlsContext> owner, ssl::context& context)
      : HttpChannelOver(std::move(socket), context), owner_(std::move(owner)) {}
  bool secure() const override { return true; }
  void async_start(Completion done) override {
    stream_.async_handshake(ssl::stream_base::server,
                            [this, done = std::move(done)](boost::beast::error_code ec) {
                              shaken_hands_ = !ec;
                              done(ec, 0);
                            });
  }
  void async_finish(std::function<void()> done) override {
    if (!shaken_hands_) return done();
    boost::beast::get_lowest_layer(stream_).expires_after(kCloseNotifyWait);
    stream_.async_shutdown([done = std::move(done)](boost::beast::error_code) { done(); });
  }

 private:
  // How long a closing connection waits for the client's close_notify.
  static constexpr auto kCloseNotifyWait = std::chrono::seconds(2);
  std::shared_ptr<TlsContext> owner_;  // the context outlives its handshakes
  bool shaken_hands_ = false;
};

}  // namespace

TlsContext::TlsContext(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
TlsContext::~TlsContext() = default;

std::shared_ptr<TlsContext> TlsContext::load(const std::string& certificate_file, const std::string& key_file,
                                             std::string& error) {
  // OpenSSL names a missing file only as an error of its own library.
  for (auto [what, file] : {std::pair{"certificate", &certificate_file}, {"key", &key_file}})
    if (::access(file->c_str(), R_OK) != 0) {
      error = fmt::format("the {} {} cannot be read ({})", what, *file, std::strerror(errno));
      return nullptr;
    }
  auto impl = std::make_unique<Impl>();
  auto& context = impl->context;
  boost::system::error_code ec;
  context.set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 | ssl::context::no_sslv3 |
                          ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1 | ssl::context::single_dh_use,
                      ec);
  if (!ec) context.use_certificate_chain_file(certificate_file, ec);
  if (ec) {
    error = fmt::format("the certificate {} cannot be used ({})", certificate_file, ec.message());
    return nullptr;
  }
  context.use_private_key_file(key_file, ssl::context::pem, ec);
  if (ec) {
    error = fmt::format("the key {} cannot be used with the certificate {} ({})", key_file, certificate_file,
                        ec.message());
    return nullptr;
  }
  return std::shared_ptr<TlsContext>(new TlsContext(std::move(impl)));
}

std::unique_ptr<HttpChannel> TlsContext::channel(WebSocketTcp&& socket) {
  return std::make_unique<TlsHttpChannel>(std::move(socket), shared_from_this(), impl_->context);
}
