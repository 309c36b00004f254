// The web server under load, as the real program on 127.0.0.1: memory per
// idle WebSocket session and per subscription, the time a stop takes with
// 0, 1,000 and 5,000 clients connected, and a well-behaved client's p99
// under each attack next to the same client with no attack.
#include <benchmark/benchmark.h>

#include "../tests/hostile_clients.hpp"
#include "std/process_limits.hpp"

namespace {

using namespace hostile_clients;
using namespace std::chrono_literals;
namespace wc = web_client;

constexpr const char* kRoomForMany = R"(connections_max="12000" connections_per_address_max="12000")";

std::vector<std::unique_ptr<wc::WebSocketClient>> websocket_clients(wc::net::io_context& io, uint16_t port, int n,
                                                                    const std::string& subscribe = {}) {
  std::vector<std::unique_ptr<wc::WebSocketClient>> clients;
  for (int i = 0; i < n; ++i) {
    clients.push_back(std::make_unique<wc::WebSocketClient>(io, port));
    if (!subscribe.empty()) clients.back()->send(subscribe);
  }
  return clients;
}

// SIGTERM to exit, with range(0) WebSocket clients subscribed to "x".
void BM_StopWithClients(benchmark::State& state) {
  raise_open_file_limit();
  for (auto _ : state) {
    LoadedServer server(kRoomForMany);
    wc::net::io_context io;
    auto clients = websocket_clients(io, server.port, static_cast<int>(state.range(0)),
                                     R"({"event":"subscribe","data":{"x/value":"history"}})");
    std::this_thread::sleep_for(500ms);
    auto begin = std::chrono::steady_clock::now();
    server.zel->signal(SIGTERM);
    auto status = server.zel->wait_exit(20s);
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    state.SetIterationTime(took.count());
    state.counters["exit_code"] = ZelProcess::exit_code(status);
  }
}
BENCHMARK(BM_StopWithClients)
    ->Arg(0)
    ->Arg(1000)
    ->Arg(5000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// Resident memory per idle WebSocket session (deflate offered, as browsers
// do), then per history subscription: 200 sessions watching 500 fields each.
void BM_MemoryPerSessionAndSubscription(benchmark::State& state) {
  raise_open_file_limit();
  constexpr int kSessions = 2000, kWatching = 200, kFields = 500;
  std::string subscribe = R"({"event":"subscribe","data":{)";
  for (int i = 0; i < kFields; ++i) subscribe += (i ? "," : "") + ("\"n" + std::to_string(i) + "/value\":\"history\"");
  subscribe += "}}";
  for (auto _ : state) {
    LoadedServer server(kRoomForMany, 0, kFields);
    pid_t pid = server.zel->pid();
    wc::net::io_context io;
    std::this_thread::sleep_for(1s);
    long idle = resident_kib(pid);
    auto sessions = websocket_clients(io, server.port, kSessions);
    std::this_thread::sleep_for(1s);
    long with_sessions = resident_kib(pid);
    auto watching = websocket_clients(io, server.port, kWatching, subscribe);
    std::this_thread::sleep_for(2s);
    long with_subscriptions = resident_kib(pid);
    state.counters["KiB_per_session"] = static_cast<double>(with_sessions - idle) / kSessions;
    double subscription_kib = static_cast<double>(with_subscriptions - with_sessions) -
                              static_cast<double>(with_sessions - idle) / kSessions * kWatching;
    state.counters["bytes_per_subscription"] = subscription_kib * 1024 / (kWatching * kFields);
  }
}
BENCHMARK(BM_MemoryPerSessionAndSubscription)->Iterations(1)->Unit(benchmark::kMillisecond);

enum Attack { kNone, kEndlessChunks, kPipelinesNeverRead, kDeepTreeReads, kRefusedWrites, kIdleConnections };

// A good client reading "x" every 20 ms for 3 s while the attack runs.
void BM_GoodClientP99UnderAttack(benchmark::State& state) {
  raise_open_file_limit();
  auto attack = static_cast<Attack>(state.range(0));
  for (auto _ : state) {
    LoadedServer server("", attack == kPipelinesNeverRead ? 1u << 20 : 0, attack == kDeepTreeReads ? 300 : 0);
    long idle = resident_kib(server.zel->pid());
    long peak = idle;
    GoodClient good(server.port);
    auto watch_memory = [&] { peak = std::max(peak, resident_kib(server.zel->pid())); };
    auto run_for = [&](std::chrono::seconds seconds) {
      for (auto end = std::chrono::steady_clock::now() + seconds; std::chrono::steady_clock::now() < end;) {
        watch_memory();
        std::this_thread::sleep_for(100ms);
      }
    };
    switch (attack) {
      case kNone: run_for(3s); break;
      case kEndlessChunks: {
        std::thread flooding([&] { floods(server.port, endless_chunk_heads(), 8, 256u << 20); });
        run_for(3s);
        flooding.join();
        break;
      }
      case kPipelinesNeverRead: {
        auto hogs = pipelines_never_read(server.port, 200, 32, "/io/big");
        run_for(3s);
        break;
      }
      case kDeepTreeReads: {
        Hammer readers(server.port, 4, "/api/tree?depth=64");
        run_for(3s);
        break;
      }
      case kRefusedWrites: {
        Hammer writers(server.port, 4, "/io/no/such/field", wc::http::verb::put, "1");
        run_for(3s);
        break;
      }
      case kIdleConnections: {
        std::vector<std::unique_ptr<wc::RawConnection>> held;
        for (int i = 0; i < 500; ++i) held.push_back(std::make_unique<wc::RawConnection>(server.port));
        run_for(3s);
        break;
      }
    }
    state.counters["p99_ms"] = static_cast<double>(good.p99().count());
    state.counters["peak_rss_MiB_above_idle"] = static_cast<double>(peak - idle) / 1024;
    state.counters["log_lines"] = static_cast<double>(ZelProcess::occurrences(server.zel->error_text(), "\n"));
  }
}
BENCHMARK(BM_GoodClientP99UnderAttack)
    ->ArgName("attack")
    ->DenseRange(kNone, kIdleConnections)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
