// What TLS costs the web server, side by side with plain TCP, the server in
// this process on 127.0.0.1: a small GET on a kept-alive connection, a new
// connection for one GET (the handshake), and a WebSocket round trip (a set
// sent, its push received). Argument 0 is plain, 1 is TLS.
#include <benchmark/benchmark.h>

#include <boost/asio/ssl/context.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include "../tests/web_client.hpp"
#include "../tests/zel_process.hpp"
#include "core/root.hpp"
#include "formats/format_xml.hpp"
#include "std/paths.hpp"
#include "std/tls_pair.hpp"
#include "web/web_server.hpp"

namespace {

namespace ssl = boost::asio::ssl;
using namespace web_client;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

// One server with both ports, made once for every run.
struct Server {
  Server() {
    Paths::set_data_root(dir.path().string());
    std::string error;
    if (!TlsPair::make_self_signed(dir / "config/tls.crt", dir / "config/tls.key", error)) throw std::runtime_error(error);
    root = FormatXML::instance().build(R"(<root><web_server type="web_server" port="0" tls_port="0"
        anonymous_write="true" push_spacing="0"/><x type="analog_io" value="1"/></root>)");
    root->initialize();
    auto& server = dynamic_cast<WebServer&>(*root->find_path("web_server"));
    plain = server.port();
    tls = static_cast<uint16_t>(dynamic_cast<ValueField<int>&>(*root->find_path("web_server/tls_port")).get());
    client.load_verify_file(dir / "config/tls.crt");
    client.set_verify_mode(ssl::verify_peer);
  }
  TempDir dir;
  std::unique_ptr<Root> root;
  uint16_t plain = 0, tls = 0;
  ssl::context client{ssl::context::tls_client};
};

Server& server() {
  static Server instance;
  return instance;
}

// Runs `body` with a connected stream of the kind `secure` names.
template <class Body>
void with_stream(net::io_context& io, bool secure, Body body) {
  auto& s = server();
  if (secure) {
    TlsStream stream(io, s.client);
    beast::get_lowest_layer(stream).connect(local(s.tls));
    beast::get_lowest_layer(stream).socket().set_option(tcp::no_delay(true));
    stream.handshake(ssl::stream_base::client);
    body(stream);
  } else {
    beast::tcp_stream stream(io);
    stream.connect(local(s.plain));
    stream.socket().set_option(tcp::no_delay(true));
    body(stream);
  }
}

template <class Stream>
void get_once(Stream& stream, beast::flat_buffer& buffer) {
  http::request<http::empty_body> request{http::verb::get, "/io/x/value", 11};
  request.set(http::field::host, "localhost");
  http::write(stream, request);
  http::response<http::string_body> response;
  http::read(stream, buffer, response);
  if (response.result_int() != 200) throw std::runtime_error("GET failed");
}

void BM_SmallGetKeptAlive(benchmark::State& state) {
  net::io_context io;
  with_stream(io, state.range(0), [&](auto& stream) {
    beast::flat_buffer buffer;
    for (auto _ : state) get_once(stream, buffer);
  });
  state.SetLabel(state.range(0) ? "TLS" : "plain");
}
BENCHMARK(BM_SmallGetKeptAlive)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_NewConnectionAndGet(benchmark::State& state) {
  net::io_context io;
  for (auto _ : state) {
    with_stream(io, state.range(0), [&](auto& stream) {
      beast::flat_buffer buffer;
      get_once(stream, buffer);
    });
  }
  state.SetLabel(state.range(0) ? "TLS" : "plain");
}
BENCHMARK(BM_NewConnectionAndGet)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond)->UseRealTime();

// A set sent over the WebSocket, then the push of the new value.
void BM_WebSocketSetAndPush(benchmark::State& state) {
  net::io_context io;
  with_stream(io, state.range(0), [&](auto& stream) {
    websocket::stream<std::remove_reference_t<decltype(stream)>&> ws(stream);
    ws.handshake("localhost", "/");
    ws.text(true);
    beast::flat_buffer buffer;
    ws.write(net::buffer(std::string(R"({"event":"subscribe","data":{"x/value":"latest"}})")));
    ws.read(buffer);  // the value it has
    static int value = 1;  // the value x has: every set below changes it, in every run
    for (auto _ : state) {
      ws.write(net::buffer(fmt::format(R"({{"event":"set","data":{{"x/value":{}}}}})", ++value)));
      buffer.consume(buffer.size());
      ws.read(buffer);
    }
  });
  state.SetLabel(state.range(0) ? "TLS" : "plain");
}
BENCHMARK(BM_WebSocketSetAndPush)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
