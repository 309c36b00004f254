#pragma once
// A small Boost.Beast client for tests and benchmarks of the web server: plain
// HTTP exchanges and WebSocket sessions, always on 127.0.0.1.
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/beast/websocket/stream.hpp>

namespace web_client {

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace net = boost::asio;
using tcp = net::ip::tcp;
using std::chrono::milliseconds;

inline tcp::endpoint local(uint16_t port) { return {net::ip::make_address("127.0.0.1"), port}; }

struct Reply {
  unsigned status = 0;
  std::string body;
  std::string content_type;
  std::string cache_control;
  std::string error;  // X-Zel-Error
  std::string set_cookie;
};

using Headers = std::vector<std::pair<std::string, std::string>>;

// One request on a fresh connection.
inline Reply request(uint16_t port, http::verb method, const std::string& target, const std::string& body = {},
                     const Headers& headers = {}) {
  net::io_context io;
  tcp::socket socket(io);
  socket.connect(local(port));
  http::request<http::string_body> req{method, target, 11};
  req.set(http::field::host, "127.0.0.1");
  for (auto& [name, value] : headers) req.set(name, value);
  req.body() = body;
  req.prepare_payload();
  http::write(socket, req);
  beast::flat_buffer buffer;
  http::response_parser<http::string_body> parser;
  parser.skip(method == http::verb::head);
  http::read(socket, buffer, parser);
  auto& res = parser.get();
  return {res.result_int(), res.body(), std::string(res[http::field::content_type]),
          std::string(res[http::field::cache_control]), std::string(res["X-Zel-Error"]),
          std::string(res[http::field::set_cookie])};
}

inline Reply get(uint16_t port, const std::string& target) { return request(port, http::verb::get, target); }

// A plain connection for exchanges the request helpers cannot make: bytes
// sent as they are, in steps, and the server's answer read as it comes.
class RawConnection {
 public:
  explicit RawConnection(uint16_t port) : socket_(io_) { socket_.connect(local(port)); }

  void send(const std::string& bytes) { net::write(socket_, net::buffer(bytes)); }

  // Reads until what came holds `marker`, the server closes or `timeout`
  // passes; returns everything received so far (an empty marker reads to the end).
  const std::string& read_until(const std::string& marker, milliseconds timeout = milliseconds(3000)) {
    char chunk[4096];
    bool done = false;
    std::function<void()> read_more = [&] {
      socket_.async_read_some(net::buffer(chunk), [&](beast::error_code ec, size_t n) {
        received_.append(chunk, n);
        if (ec || (!marker.empty() && received_.find(marker) != std::string::npos)) done = true;
        else read_more();
      });
    };
    if (marker.empty() || received_.find(marker) == std::string::npos) {
      read_more();
      io_.restart();
      io_.run_for(timeout);
      if (!done) {
        socket_.cancel();
        io_.restart();
        io_.run();  // the cancelled read ends before its buffer goes away
      }
    }
    return received_;
  }

 private:
  net::io_context io_;
  tcp::socket socket_;
  std::string received_;
};

// Sends raw bytes and collects what the server answers until it closes the
// connection or `timeout` passes.
inline std::string raw_exchange(uint16_t port, const std::string& bytes, milliseconds timeout = milliseconds(3000)) {
  RawConnection connection(port);
  connection.send(bytes);
  return connection.read_until("", timeout);
}

class WebSocketClient {
 public:
  using Headers = std::vector<std::pair<std::string, std::string>>;

  // Connects and completes the upgrade (with `headers` added to its request);
  // offers permessage-deflate when asked.
  WebSocketClient(net::io_context& io, uint16_t port, bool deflate = true, int receive_buffer = 0,
                  Headers headers = {})
      : io_(io), ws_(io) {
    auto& socket = ws_.next_layer();
    socket.open(tcp::v4());
    if (receive_buffer) socket.set_option(net::socket_base::receive_buffer_size(receive_buffer));
    socket.connect(local(port));
    if (deflate) {
      websocket::permessage_deflate options;
      options.client_enable = true;
      ws_.set_option(options);
    }
    ws_.read_message_max(64u << 20);
    ws_.set_option(websocket::stream_base::decorator([headers](websocket::request_type& request) {
      for (auto& [name, value] : headers) request.set(name, value);
    }));
    ws_.handshake("127.0.0.1", "/");
  }

  void send(const std::string& text) {
    ws_.text(true);
    ws_.write(net::buffer(text));
  }

  // The next message, or nothing when none came within `timeout` (the
  // connection is then of no further use) or the server closed it.
  std::optional<std::string> receive(milliseconds timeout) {
    std::optional<std::string> message;
    bool done = false;
    ws_.async_read(buffer_, [&](beast::error_code ec, size_t) {
      done = true;
      last_error_ = ec;
      if (!ec) message = beast::buffers_to_string(buffer_.data());
      buffer_.consume(buffer_.size());
    });
    io_.restart();
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done && io_.run_one_until(deadline)) {
    }
    if (!done) {
      beast::error_code ec;
      ws_.next_layer().cancel(ec);
      io_.restart();
      while (!done) io_.run_one();
    }
    return message;
  }

  // Messages until one contains `text`; nothing when none does in time.
  std::optional<std::string> receive_containing(const std::string& text, milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      auto left = std::chrono::duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return std::nullopt;
      auto message = receive(left);
      if (!message) return std::nullopt;
      if (message->find(text) != std::string::npos) return message;
    }
  }

  beast::error_code last_error() const { return last_error_; }
  websocket::stream<tcp::socket>& stream() { return ws_; }

 private:
  net::io_context& io_;
  websocket::stream<tcp::socket> ws_;
  beast::flat_buffer buffer_;
  beast::error_code last_error_;
};

}  // namespace web_client
