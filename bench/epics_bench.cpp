// The EPICS server against the WebSocket protocol, side by side in one run,
// on one tree served by both (127.0.0.1, both servers in this process):
//   - connect: 10,000 channels from one client until all are connected; the
//     same names subscribed over WebSocket until all first values arrived;
//   - throughput: one client monitoring 1,000 fields while a thread sets them
//     round robin as fast as it can, updates delivered per second;
//   - latency: 100 fields at 100 Hz each, from the set to the client's
//     callback (the value is the steady-clock time of the set).
// The Channel Access client is Debian's libca, loaded at run time; the few
// functions used are declared here from the library's documented interface.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <filesystem>
#include <mutex>
#include <thread>

#include <nlohmann/json.hpp>

#include "../tests/web_client.hpp"
#include "core/clock.hpp"
#include "core/io/io.hpp"
#include "core/log.hpp"
#include "core/root.hpp"
#include "epics/epics_server.hpp"
#include "formats/format_xml.hpp"
#include "std/paths.hpp"
#include "std/process_limits.hpp"
#include "web/web_server.hpp"

namespace {

namespace wc = web_client;

// ---- libca, as its documentation gives it --------------------------------------

struct ConnectionArgs {
  void* chid;
  long op;
};
struct EventArgs {
  void* usr;
  void* chid;
  long type;
  long count;
  const void* dbr;
  int status;
};
using EventCallback = void (*)(EventArgs);
using ConnectionCallback = void (*)(ConnectionArgs);

struct LibCa {
  int (*context_create)(int preemptive);
  void (*context_destroy)();
  int (*create_channel)(const char* name, ConnectionCallback, void* user, unsigned priority, void** chid);
  int (*clear_channel)(void* chid);
  int (*pend_io)(double timeout);
  int (*flush_io)();
  int (*create_subscription)(long type, unsigned long count, void* chid, long mask, EventCallback, void* arg,
                             void** evid);

  static const LibCa* load() {
    static LibCa ca;
    static bool loaded = [] {
      void* lib = ::dlopen("libca.so.4.13.5", RTLD_NOW);
      if (!lib) return false;
      auto bind = [lib](auto& fn, const char* name) {
        fn = reinterpret_cast<std::remove_reference_t<decltype(fn)>>(::dlsym(lib, name));
        return fn != nullptr;
      };
      return bind(ca.context_create, "ca_context_create") && bind(ca.context_destroy, "ca_context_destroy") &&
             bind(ca.create_channel, "ca_create_channel") && bind(ca.clear_channel, "ca_clear_channel") &&
             bind(ca.pend_io, "ca_pend_io") && bind(ca.flush_io, "ca_flush_io") &&
             bind(ca.create_subscription, "ca_create_subscription");
    }();
    return loaded ? &ca : nullptr;
  }
};

constexpr long kDbrDouble = 6;
constexpr long kDbeValue = 1;
constexpr int kEcaNormal = 1;

double percentile(std::vector<double>& sorted, double p) {
  if (sorted.empty()) return 0;
  return sorted[static_cast<size_t>(p * static_cast<double>(sorted.size() - 1))];
}

// A tree of `fields` analog IOs under "f", served by both servers.
class Served {
 public:
  explicit Served(int fields) {
    raise_open_file_limit();
    Log::set_level(LogLevel::Warning);
    std::string pattern = (std::filesystem::temp_directory_path() / "zel-bench-XXXXXX").string();
    dir_ = ::mkdtemp(pattern.data());
    Paths::set_data_root(dir_);
    std::filesystem::create_directories(dir_ + "/config");
    std::string xml = R"(<root><web_server type="web_server" port="0" push_spacing="0" subscriptions_max="20000"/>)"
                      R"(<epics_server type="epics_server" port="0" address="127.0.0.1" prefix="B:" beacon_addresses="127.0.0.1"/>)"
                      R"(<f type="component">)";
    for (int i = 0; i < fields; ++i) xml += "<v" + std::to_string(i) + R"( type="analog_io" value="0"/>)";
    xml += "</f></root>";
    root_ = FormatXML::instance().build(xml);
    root_->initialize();
    web_port = static_cast<WebServer*>(root_->find_path("web_server"))->port();
    ca_port = static_cast<EpicsServer*>(root_->find_path("epics_server"))->port();
    for (int i = 0; i < fields; ++i) ios.push_back(static_cast<AnalogIO*>(root_->find_path("f/v" + std::to_string(i))));
  }
  ~Served() {
    root_.reset();
    std::filesystem::remove_all(dir_);
    Log::set_level(LogLevel::Info);
  }
  std::vector<std::string> pv_names() const {
    std::vector<std::string> names;
    for (size_t i = 0; i < ios.size(); ++i) names.push_back("B:f:v" + std::to_string(i));
    return names;
  }
  std::string subscribe_message() const {
    nlohmann::json members;
    for (size_t i = 0; i < ios.size(); ++i) members["f/v" + std::to_string(i) + "/value"] = 1;
    return nlohmann::json{{"event", "subscribe"}, {"data", members}}.dump();
  }

  uint16_t web_port = 0;
  uint16_t ca_port = 0;
  std::vector<AnalogIO*> ios;

 private:
  std::string dir_;
  std::unique_ptr<Root> root_;
};

// One libca context on the calling thread, pointed at the server.
class CaClient {
 public:
  explicit CaClient(uint16_t port) : ca_(LibCa::load()) {
    ::setenv("EPICS_CA_AUTO_ADDR_LIST", "NO", 1);
    ::setenv("EPICS_CA_ADDR_LIST", "127.0.0.1", 1);
    ::setenv("EPICS_CA_SERVER_PORT", std::to_string(port).c_str(), 1);
    ::setenv("EPICS_CA_MAX_ARRAY_BYTES", "100000", 1);
    if (ca_) ca_->context_create(1);
  }
  ~CaClient() {
    if (ca_) ca_->context_destroy();
  }
  const LibCa* operator->() const { return ca_; }
  explicit operator bool() const { return ca_ != nullptr; }

  // Creates the channels and waits until every one is connected.
  bool connect(const std::vector<std::string>& names) {
    chids.resize(names.size());
    for (size_t i = 0; i < names.size(); ++i) ca_->create_channel(names[i].c_str(), nullptr, nullptr, 0, &chids[i]);
    return ca_->pend_io(30.0) == kEcaNormal;
  }
  std::vector<void*> chids;

 private:
  const LibCa* ca_;
};

// Reads pushes on its own thread and hands every sample's value to `take`.
class WebReader {
 public:
  WebReader(uint16_t port, const std::string& subscribe, std::function<void(double)> take)
      : client_(io_, port, false), take_(std::move(take)) {
    client_.send(subscribe);
    arm();
    thread_ = std::thread([this] { io_.run(); });
  }
  ~WebReader() {
    io_.stop();
    thread_.join();
  }

 private:
  void arm() {
    client_.stream().async_read(buffer_, [this](wc::beast::error_code ec, size_t) {
      if (ec) return;
      auto data = buffer_.cdata();
      std::string_view push(static_cast<const char*>(data.data()), data.size());
      for (size_t at = push.find("[["); at != std::string_view::npos; at = push.find("[[", at + 2)) {
        double value = 0;
        if (std::from_chars(push.data() + at + 2, push.data() + push.size(), value).ec == std::errc()) take_(value);
      }
      buffer_.consume(buffer_.size());
      arm();
    });
  }
  wc::net::io_context io_;
  wc::WebSocketClient client_;
  wc::beast::flat_buffer buffer_;
  std::function<void(double)> take_;
  std::thread thread_;
};

// ---- Connect -------------------------------------------------------------------

void BM_ConnectChannels_Epics(benchmark::State& state) {
  Served served(static_cast<int>(state.range(0)));
  auto names = served.pv_names();
  for (auto _ : state) {
    CaClient ca(served.ca_port);
    if (!ca) return state.SkipWithError("libca.so.4.13.5 is not installed");
    auto start = std::chrono::steady_clock::now();
    if (!ca.connect(names)) return state.SkipWithError("not every channel connected");
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
}
BENCHMARK(BM_ConnectChannels_Epics)->Arg(10000)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_ConnectChannels_WebSocket(benchmark::State& state) {
  Served served(static_cast<int>(state.range(0)));
  auto subscribe = served.subscribe_message();
  for (auto _ : state) {
    std::atomic<size_t> seen{0};
    auto start = std::chrono::steady_clock::now();
    WebReader reader(served.web_port, subscribe, [&](double) { seen.fetch_add(1); });
    auto deadline = start + std::chrono::seconds(30);
    while (seen.load() < served.ios.size()) {
      if (std::chrono::steady_clock::now() > deadline) return state.SkipWithError("not every first value arrived");
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
}
BENCHMARK(BM_ConnectChannels_WebSocket)->Arg(10000)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

// ---- Throughput ----------------------------------------------------------------

// Sets the fields round robin for `duration`; returns the sets made.
uint64_t set_flat_out(std::vector<AnalogIO*>& ios, std::chrono::milliseconds duration) {
  uint64_t sets = 0;
  auto end = std::chrono::steady_clock::now() + duration;
  while (std::chrono::steady_clock::now() < end)
    for (int burst = 0; burst < 1000; ++burst, ++sets) ios[sets % ios.size()]->set(static_cast<double>(sets));
  return sets;
}

constexpr auto kThroughputRun = std::chrono::milliseconds(2000);

// After the first updates: sets flat out and counts what the client got.
void measure_throughput(benchmark::State& state, std::vector<AnalogIO*>& ios, std::atomic<uint64_t>& updates) {
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  for (auto _ : state) {
    uint64_t before = updates.load();
    uint64_t sets = set_flat_out(ios, kThroughputRun);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    double seconds = std::chrono::duration<double>(kThroughputRun).count();
    state.counters["updates_per_s"] = static_cast<double>(updates.load() - before) / seconds;
    state.counters["sets_per_s"] = static_cast<double>(sets) / seconds;
  }
}

void BM_MonitorThroughput_Epics(benchmark::State& state) {
  Served served(static_cast<int>(state.range(0)));
  CaClient ca(served.ca_port);
  if (!ca) return state.SkipWithError("libca.so.4.13.5 is not installed");
  if (!ca.connect(served.pv_names())) return state.SkipWithError("not every channel connected");
  static std::atomic<uint64_t> updates{0};
  for (void* chid : ca.chids)
    ca->create_subscription(kDbrDouble, 1, chid, kDbeValue, [](EventArgs) { updates.fetch_add(1); }, nullptr,
                            nullptr);
  ca->flush_io();
  measure_throughput(state, served.ios, updates);
}
BENCHMARK(BM_MonitorThroughput_Epics)->Arg(1000)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

void BM_MonitorThroughput_WebSocket(benchmark::State& state) {
  Served served(static_cast<int>(state.range(0)));
  std::atomic<uint64_t> updates{0};
  WebReader reader(served.web_port, served.subscribe_message(), [&](double) { updates.fetch_add(1); });
  measure_throughput(state, served.ios, updates);
}
BENCHMARK(BM_MonitorThroughput_WebSocket)->Arg(1000)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

// ---- Latency -------------------------------------------------------------------

// Latencies in ms of values that are set times, taken from any thread.
struct Latencies {
  std::mutex mutex;
  std::vector<double> ms;
  std::atomic<double> since_ns{0};
  void take(double set_ns) {
    double now = static_cast<double>(Clock::steady_ns());
    if (since_ns.load() == 0 || set_ns < since_ns.load()) return;
    std::lock_guard lock(mutex);
    ms.push_back((now - set_ns) / 1e6);
  }
  void report(benchmark::State& state) {
    std::lock_guard lock(mutex);
    std::sort(ms.begin(), ms.end());
    state.counters["p50_ms"] = percentile(ms, 0.50);
    state.counters["p99_ms"] = percentile(ms, 0.99);
    state.counters["max_ms"] = ms.empty() ? 0 : ms.back();
    state.counters["samples"] = static_cast<double>(ms.size());
  }
};

// 100 fields at 100 Hz: one set every 100 us, round robin, for 3 s.
void set_at_rate(benchmark::State& state, std::vector<AnalogIO*>& ios, Latencies& latencies) {
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  latencies.since_ns = static_cast<double>(Clock::steady_ns());
  size_t next = 0;
  auto tick = std::chrono::steady_clock::now();
  for (auto _ : state) {
    ios[next++ % ios.size()]->set(static_cast<double>(Clock::steady_ns()));
    tick += std::chrono::microseconds(100);
    std::this_thread::sleep_until(tick);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  latencies.report(state);
}

void BM_SetToCallback_Epics(benchmark::State& state) {
  Served served(100);
  CaClient ca(served.ca_port);
  if (!ca) return state.SkipWithError("libca.so.4.13.5 is not installed");
  if (!ca.connect(served.pv_names())) return state.SkipWithError("not every channel connected");
  static Latencies* latencies = nullptr;
  Latencies measured;
  latencies = &measured;
  for (void* chid : ca.chids)
    ca->create_subscription(kDbrDouble, 1, chid, kDbeValue,
                            [](EventArgs a) { latencies->take(*static_cast<const double*>(a.dbr)); }, nullptr,
                            nullptr);
  ca->flush_io();
  set_at_rate(state, served.ios, measured);
}
BENCHMARK(BM_SetToCallback_Epics)->Iterations(30000)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_SetToCallback_WebSocket(benchmark::State& state) {
  Served served(100);
  Latencies measured;
  WebReader reader(served.web_port, served.subscribe_message(), [&](double v) { measured.take(v); });
  set_at_rate(state, served.ios, measured);
}
BENCHMARK(BM_SetToCallback_WebSocket)->Iterations(30000)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
