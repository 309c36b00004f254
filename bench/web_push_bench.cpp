// Change-to-client latency of WebSocket pushes: N clients on 127.0.0.1, each
// subscribed to the same M fields; the benchmark sets one field every P
// milliseconds (round robin) to the steady-clock time of the set, and every
// client measures, per pushed sample, how long ago that was. The server's
// push spacing and its compression are parameters, so cadences compare side
// by side in one run, with the server's CPU time per delivered sample (the
// process's CPU time less the clients' reading thread, so the setting thread
// counts as the server's) and the clients' own per sample.
#include <benchmark/benchmark.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <deque>
#include <filesystem>
#include <thread>

#include <nlohmann/json.hpp>

#include "../tests/web_client.hpp"
#include "core/clock.hpp"
#include "core/io/io.hpp"
#include "core/log.hpp"
#include "core/root.hpp"
#include "formats/format_xml.hpp"
#include "std/paths.hpp"
#include "std/process_limits.hpp"
#include "web/web_server.hpp"
#include "web/web_shared.hpp"

namespace {

namespace wc = web_client;

double steady_ms() { return static_cast<double>(Clock::steady_ns()) / 1e6; }

double cpu_seconds(clockid_t clock) {
  timespec t{};
  ::clock_gettime(clock, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

double percentile(std::vector<double>& sorted, double p) {
  if (sorted.empty()) return 0;
  auto index = static_cast<size_t>(p * static_cast<double>(sorted.size() - 1));
  return sorted[index];
}

// Reads every client's pushes on one thread and keeps the latencies.
class LatencyReaders {
 public:
  LatencyReaders(uint16_t port, int clients, const std::string& subscribe) {
    for (int i = 0; i < clients; ++i) {
      clients_.push_back(std::make_unique<wc::WebSocketClient>(io_, port));
      clients_.back()->send(subscribe);
      buffers_.emplace_back();
    }
    for (size_t i = 0; i < clients_.size(); ++i) arm(i);
    thread_ = std::thread([this] { io_.run(); });
  }
  ~LatencyReaders() {
    io_.stop();
    thread_.join();
  }
  // Samples of values set from now on count.
  void start_measuring() {
    since_ms_ = steady_ms();
    client_cpu_start_ = reader_cpu_seconds();
    cpu_start_ = cpu_seconds(CLOCK_PROCESS_CPUTIME_ID) - client_cpu_start_;
  }
  std::vector<double> stop_and_take() {
    double reader = reader_cpu_seconds();
    server_cpu_ = cpu_seconds(CLOCK_PROCESS_CPUTIME_ID) - reader - cpu_start_;
    client_cpu_ = reader - client_cpu_start_;
    io_.stop();
    thread_.join();
    thread_ = std::thread([] {});
    return std::move(latencies_);
  }
  // CPU seconds of everything but the clients between start and stop.
  double server_cpu() const { return server_cpu_; }
  // CPU seconds of the clients' reading thread between start and stop.
  double client_cpu() const { return client_cpu_; }

 private:
  void arm(size_t i) {
    clients_[i]->stream().async_read(buffers_[i], [this, i](wc::beast::error_code ec, size_t) {
      if (ec) return;
      double now = steady_ms();
      auto data = buffers_[i].cdata();
      record(std::string_view(static_cast<const char*>(data.data()), data.size()), now);
      buffers_[i].consume(buffers_[i].size());
      arm(i);
    });
  }

  double reader_cpu_seconds() {
    clockid_t clock;
    return ::pthread_getcpuclockid(thread_.native_handle(), &clock) == 0 ? cpu_seconds(clock) : 0.0;
  }

  // Every sample "[[value," of a push; the value is the set's time. A scan,
  // not a JSON parser, so that the clients' own work disturbs little.
  void record(std::string_view push, double now) {
    for (size_t at = push.find("[["); at != std::string_view::npos; at = push.find("[[", at + 2)) {
      double value = 0;
      auto begin = push.data() + at + 2;
      if (std::from_chars(begin, push.data() + push.size(), value).ec != std::errc()) continue;
      double set_at = value / 1e6;
      if (since_ms_ > 0 && set_at >= since_ms_) latencies_.push_back(now - set_at);
    }
  }

  wc::net::io_context io_;
  std::vector<std::unique_ptr<wc::WebSocketClient>> clients_;
  std::deque<wc::beast::flat_buffer> buffers_;
  std::vector<double> latencies_;
  std::atomic<double> since_ms_{0};
  double cpu_start_ = 0;
  double server_cpu_ = 0;
  double client_cpu_start_ = 0;
  double client_cpu_ = 0;
  std::thread thread_;
};

void BM_WebPushLatency(benchmark::State& state) {
  const int clients = static_cast<int>(state.range(0));
  const int fields = static_cast<int>(state.range(1));
  const auto period = std::chrono::milliseconds(state.range(2));
  const auto spacing_ms = static_cast<double>(state.range(3)) / 1000.0;
  const bool compression = state.range(4) != 0;
  raise_open_file_limit();
  Log::set_level(LogLevel::Warning);
  std::string dir_pattern = (std::filesystem::temp_directory_path() / "zel-bench-XXXXXX").string();
  std::string dir = mkdtemp(dir_pattern.data());
  Paths::set_data_root(dir);

  std::string xml = R"(<root><web_server type="web_server" port="0" push_spacing=")" + std::to_string(spacing_ms) +
                    R"(" websocket_compression=")" +
                    (compression ? "true" : "false") + R"(" connections_per_address_max="2000"/><f type="component">)";
  for (int i = 0; i < fields; ++i) xml += "<v" + std::to_string(i) + R"( type="analog_io" value="0"/>)";
  xml += "</f></root>";
  auto root = FormatXML::instance().build(xml);
  root->initialize();
  auto port = static_cast<WebServer*>(root->find_path("web_server"))->port();
  std::vector<AnalogIO*> ios;
  nlohmann::json members;
  for (int i = 0; i < fields; ++i) {
    ios.push_back(static_cast<AnalogIO*>(root->find_path("f/v" + std::to_string(i))));
    members["f/v" + std::to_string(i) + "/value"] = 1;
  }
  nlohmann::json subscribe{{"event", "subscribe"}, {"data", members}};

  {
    LatencyReaders readers(port, clients, subscribe.dump());
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // first pushes, current values
    readers.start_measuring();
    size_t next = 0;
    auto tick = std::chrono::steady_clock::now();
    for (auto _ : state) {
      ios[next++ % ios.size()]->set(static_cast<double>(Clock::steady_ns()));
      tick += period;
      std::this_thread::sleep_until(tick);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the last pushes
    auto latencies = readers.stop_and_take();
    std::sort(latencies.begin(), latencies.end());
    state.counters["p50_ms"] = percentile(latencies, 0.50);
    state.counters["p99_ms"] = percentile(latencies, 0.99);
    state.counters["max_ms"] = latencies.empty() ? 0 : latencies.back();
    state.counters["samples"] = static_cast<double>(latencies.size());
    double samples = std::max<double>(1, static_cast<double>(latencies.size()));
    state.counters["cpu_us_per_sample"] = readers.server_cpu() * 1e6 / samples;
    state.counters["client_us_per_sample"] = readers.client_cpu() * 1e6 / samples;
  }
  root.reset();
  std::filesystem::remove_all(dir);
  Log::set_level(LogLevel::Info);
}
// Arguments: clients, fields, milliseconds between two sets, push spacing in
// microseconds, whether the server offers permessage-deflate (the clients
// always ask for it, as browsers do). 10 ms with compression is the earlier
// cadence and 2 ms with compression the default after it: the comparison
// runs; 0 is pacing by the socket alone.
// 100 clients x 100 fields, a change every millisecond (each field at 10 Hz): 3 s.
BENCHMARK(BM_WebPushLatency)
    ->ArgNames({"clients", "fields", "period_ms", "spacing_us", "compression"})
    ->Args({100, 100, 1, 10000, 1})
    ->Args({100, 100, 1, 2000, 1})
    ->Args({100, 100, 1, 10000, 0})
    ->Args({100, 100, 1, 2000, 0})
    ->Args({100, 100, 1, WebLimits::kDefaultPushSpacing.count(), 0})
    ->Args({100, 100, 1, 0, 0})
    ->Iterations(3000)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
// 1000 clients on one field changing at 5 Hz: 3 s.
BENCHMARK(BM_WebPushLatency)
    ->ArgNames({"clients", "fields", "period_ms", "spacing_us", "compression"})
    ->Args({1000, 1, 200, 10000, 1})
    ->Args({1000, 1, 200, WebLimits::kDefaultPushSpacing.count(), 0})
    ->Iterations(15)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// The floor under any server's push: one bare non-blocking send() of a
// one-sample frame (61 bytes, about what a push of one sample is) to each of
// N clients on 127.0.0.1 every millisecond, nothing else, while one thread
// reads every client through epoll, as the latency benchmark's clients do.
// Reports the sending thread's CPU per send: on loopback it includes the
// receive side of TCP and waking the reader, which the kernel runs in the
// sender's system call. At one sample per push this is the least a sample
// can cost a server on this machine.
class LoopbackPairs {
 public:
  explicit LoopbackPairs(int count) {
    int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    ::bind(listener, reinterpret_cast<sockaddr*>(&address), length);
    ::listen(listener, count);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    epoll_ = ::epoll_create1(0);
    int on = 1;
    for (int i = 0; i < count; ++i) {
      int client = ::socket(AF_INET, SOCK_STREAM, 0);
      ::connect(client, reinterpret_cast<sockaddr*>(&address), length);
      int server = ::accept(listener, nullptr, nullptr);
      ::setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
      ::fcntl(server, F_SETFL, O_NONBLOCK);
      ::fcntl(client, F_SETFL, O_NONBLOCK);
      epoll_event event{EPOLLIN, {.fd = client}};
      ::epoll_ctl(epoll_, EPOLL_CTL_ADD, client, &event);
      senders_.push_back(server);
      readers_.push_back(client);
    }
    ::close(listener);
    reader_ = std::thread([this] { read_all(); });
  }
  ~LoopbackPairs() {
    stop_ = true;
    reader_.join();
    for (int fd : senders_) ::close(fd);
    for (int fd : readers_) ::close(fd);
    ::close(epoll_);
  }
  const std::vector<int>& senders() const { return senders_; }

 private:
  void read_all() {
    std::array<epoll_event, 64> events{};
    std::array<char, 4096> buffer{};
    while (!stop_) {
      int ready = ::epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), 50);
      for (int i = 0; i < ready; ++i)
        while (::recv(events[static_cast<size_t>(i)].data.fd, buffer.data(), buffer.size(), 0) > 0) {
        }
    }
  }

  int epoll_ = -1;
  std::vector<int> senders_;
  std::vector<int> readers_;
  std::atomic<bool> stop_{false};
  std::thread reader_;
};

void BM_LoopbackSendFloor(benchmark::State& state) {
  const int clients = static_cast<int>(state.range(0));
  raise_open_file_limit();
  LoopbackPairs pairs(clients);
  // A WebSocket text frame of one sample: 2 header bytes, then the push.
  std::string push = R"({"event": "update","data":{"f/v7/value":[[1.5e12,1764100000]]}})";
  std::string frame{'\x81', static_cast<char>(push.size())};
  frame += push;
  auto tick = std::chrono::steady_clock::now();
  double cpu_start = cpu_seconds(CLOCK_THREAD_CPUTIME_ID);
  int64_t sends = 0;
  for (auto _ : state) {
    for (int fd : pairs.senders())
      if (::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL) > 0) ++sends;
    tick += std::chrono::milliseconds(1);
    std::this_thread::sleep_until(tick);
  }
  double cpu = cpu_seconds(CLOCK_THREAD_CPUTIME_ID) - cpu_start;
  state.counters["cpu_us_per_send"] = cpu * 1e6 / static_cast<double>(std::max<int64_t>(1, sends));
}
// 100 clients, one send each every millisecond, as a push of one sample: 3 s.
BENCHMARK(BM_LoopbackSendFloor)
    ->ArgName("clients")
    ->Arg(100)
    ->Iterations(3000)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
