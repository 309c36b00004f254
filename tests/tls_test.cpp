// HTTPS and WSS: a real TLS client over 127.0.0.1 that trusts only the pair
// the program made, the Secure cookie, plain HTTP kept for the loopback, and
// a certificate that cannot be used.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/host_name_verification.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <nlohmann/json.hpp>

#include "core/io/io.hpp"
#include "core/root.hpp"
#include "formats/format_xml.hpp"
#include "log_capture.hpp"
#include "std/paths.hpp"
#include "std/tls_pair.hpp"
#include "tree_access.hpp"
#include "wait_until.hpp"
#include "web/tls_context.hpp"
#include "web/web_access.hpp"
#include "web/web_server.hpp"
#include "web_client.hpp"
#include "zel_process.hpp"

namespace {

namespace ssl = boost::asio::ssl;
using namespace web_client;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

// A client that trusts the one certificate and checks it names `host`.
struct TlsClient {
  TlsClient(const std::string& certificate, const std::string& host = "localhost") {
    context.load_verify_file(certificate);
    context.set_verify_mode(ssl::verify_peer);
    context.set_verify_callback(ssl::host_name_verification(host));
  }
  std::unique_ptr<TlsStream> connect(uint16_t port) {
    auto stream = std::make_unique<TlsStream>(io, context);
    beast::get_lowest_layer(*stream).connect(local(port));
    stream->handshake(ssl::stream_base::client);
    return stream;
  }
  http::response<http::string_body> request(uint16_t port, http::verb method, const std::string& target,
                                            const std::string& body = {}, const std::string& cookie = {}) {
    auto stream = connect(port);
    http::request<http::string_body> req{method, target, 11};
    req.set(http::field::host, "localhost:" + std::to_string(port));
    if (!cookie.empty()) req.set(http::field::cookie, cookie);
    req.body() = body;
    req.prepare_payload();
    http::write(*stream, req);
    beast::flat_buffer buffer;
    http::response<http::string_body> res;
    http::read(*stream, buffer, res);
    return res;
  }
  net::io_context io;
  ssl::context context{ssl::context::tls_client};
};

class WebServerTls : public ::testing::Test {
 protected:
  void start() {
    Paths::set_data_root(dir.path().string());
    root = FormatXML::instance().build(R"(<root><web_server type="web_server" port="0" tls_port="0"/>
                                          <x type="analog_io" value="1"/></root>)");
    root->initialize();
    plain_port = at<WebServer>(*root, "web_server").port();
    tls_port = static_cast<uint16_t>(at<ValueField<int>>(*root, "web_server/tls_port").get());
  }
  void TearDown() override { root.reset(); }

  TempDir dir;
  std::unique_ptr<Root> root;
  uint16_t plain_port = 0, tls_port = 0;
};

}  // namespace

TEST_F(WebServerTls, ServesHttpsAndWssWithThePairTheProgramMadeAndKeepsPlainHttpForTheLoopback) {
  // The command line makes the pair once and never overwrites it.
  std::vector<std::string> make{"--data-root", dir.path().string(), "--make-tls-pair"};
  EXPECT_EQ(ZelProcess::exit_code(ZelProcess(ZEL_BINARY, make).wait_exit(std::chrono::seconds(20))), 0);
  ZelProcess again(ZEL_BINARY, make);
  EXPECT_EQ(ZelProcess::exit_code(again.wait_exit(std::chrono::seconds(20))), 1);
  EXPECT_NE(again.error_text().find("tls.crt exists; remove it first"), std::string::npos) << again.error_text();
  struct stat info {};
  ASSERT_EQ(::stat((dir / "config/tls.key").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u) << "only its owner reads the key";

  LogCapture log;
  start();
  ASSERT_NE(tls_port, 0);
  EXPECT_TRUE(log.contains(fmt::format("HTTPS listening on port {}", tls_port)));
  std::string error;
  auto& access = at<WebServer>(*root, "web_server").access();
  ASSERT_TRUE(access.users().set_user("olga", "right horse", Role::Operator, error)) << error;

  TlsClient client(dir / "config/tls.crt");
  auto page = client.request(tls_port, http::verb::get, "/io/x/value");
  EXPECT_EQ(page.result_int(), 200u);
  EXPECT_EQ(page.body(), "1");
  {  // A connection the client asks to close ends with TLS's close_notify, not a cut.
    auto stream = client.connect(tls_port);
    http::request<http::string_body> req{http::verb::get, "/io/x/value", 11};
    req.set(http::field::host, fmt::format("localhost:{}", tls_port));
    req.set(http::field::connection, "close");
    http::write(*stream, req);
    beast::flat_buffer buffer;
    http::response<http::string_body> res;
    http::read(*stream, buffer, res);
    std::array<char, 16> more{};
    beast::error_code ec;
    stream->read_some(net::buffer(more), ec);
    EXPECT_EQ(ec, net::error::eof) << ec.message();
  }
  auto login = client.request(tls_port, http::verb::post, "/api/login", R"({"user":"olga","password":"right horse"})");
  ASSERT_EQ(login.result_int(), 200u) << login.body();
  std::string set_cookie(login[http::field::set_cookie]);
  EXPECT_NE(set_cookie.find("; Secure"), std::string::npos) << set_cookie;
  auto cookie = set_cookie.substr(0, set_cookie.find(';'));

  // WSS: the upgrade carries the session; a set is made as the user, a push comes back.
  {
    websocket::stream<TlsStream> ws(client.io, client.context);
    beast::get_lowest_layer(ws).connect(local(tls_port));
    ws.next_layer().handshake(ssl::stream_base::client);
    ws.set_option(websocket::stream_base::decorator([&](websocket::request_type& req) {
      req.set(http::field::cookie, cookie);
      req.set(http::field::origin, fmt::format("https://localhost:{}", tls_port));
    }));
    ws.handshake(fmt::format("localhost:{}", tls_port), "/");
    ws.text(true);
    ws.write(net::buffer(std::string(R"({"event":"subscribe","data":{"x/value":"latest"}})")));
    ws.write(net::buffer(std::string(R"({"event":"set","data":{"x/value":5}})")));
    beast::flat_buffer buffer;
    std::string pushes;
    while (pushes.find("[[5,") == std::string::npos) {  // the sample, not a digit of a stamp
      ws.read(buffer);
      pushes += beast::buffers_to_string(buffer.data());
      buffer.consume(buffer.size());
    }
    ws.close(websocket::close_code::normal);
  }
  EXPECT_EQ(at<FieldBase>(*root, "x/value").json(), "5");
  EXPECT_TRUE(wait_until([&] { return log.contains("olga (operator) 127.0.0.1:"); })) << "the WSS set is the user's";

  // Only the one certificate is trusted, and only for the names it carries.
  TlsClient wrong_name(dir / "config/tls.crt", "example.org");
  EXPECT_THROW(wrong_name.connect(tls_port), boost::system::system_error);
  // Plain HTTP still answers the loopback, without a Secure cookie.
  EXPECT_EQ(get(plain_port, "/io/x/value").body, "5");
}

TEST_F(WebServerTls, AnUnusablePairLeavesHttpsOffWithAClearLineAndPlainHttpOnTheLoopback) {
  dir.write("config/tls.crt", "-----BEGIN CERTIFICATE-----\nnot one\n-----END CERTIFICATE-----\n");
  dir.write("config/tls.key", "no key");
  LogCapture log;
  start();
  EXPECT_TRUE(log.contains(fmt::format("HTTPS is off: the certificate {} cannot be used", dir / "config/tls.crt")))
      << (log.texts().empty() ? "" : log.texts().back());
  EXPECT_FALSE(log.contains("HTTPS listening"));
  EXPECT_EQ(get(plain_port, "/io/x/value").status, 200u);

  // The other ways a pair fails, each named in the line.
  std::string error;
  EXPECT_FALSE(TlsContext::load(dir / "none.crt", dir / "none.key", error));
  EXPECT_EQ(error, fmt::format("the certificate {} cannot be read (No such file or directory)", dir / "none.crt"));
  ASSERT_TRUE(TlsPair::make_self_signed(dir / "a/tls.crt", dir / "a/tls.key", error)) << error;
  ASSERT_TRUE(TlsPair::make_self_signed(dir / "b/tls.crt", dir / "b/tls.key", error)) << error;
  EXPECT_TRUE(TlsContext::load(dir / "a/tls.crt", dir / "a/tls.key", error));
  EXPECT_FALSE(TlsContext::load(dir / "a/tls.crt", dir / "b/tls.key", error));
  EXPECT_TRUE(error.starts_with(fmt::format("the key {} cannot be used with the certificate", dir / "b/tls.key")))
      << error;
}
