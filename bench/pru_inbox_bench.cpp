// The PRU packet inbox: read throughput with checksum checking against a
// plain memcpy of the same bytes, the latency from a packet's `tail` update
// to its delivery at the default poll rate, and the CPU an idle poll costs.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "core/context.hpp"
#include "pru/device_memory.hpp"
#include "pru/inbox_layout.hpp"
#include "pru/packet_inbox.hpp"
#include "sim/pru/inbox_memory.hpp"

#include "process_cpu.hpp"

namespace {

namespace il = inbox_layout;

using Inbox = InboxMemory;

// As many packets of `size` bytes as fit one read (the cap, or the region).
size_t batch_for(size_t size) { return std::min<size_t>(PacketInbox::kMaxBatch, il::kRegionBytes / size - 1); }

void BM_PruInboxRead(benchmark::State& state) {
  size_t size = static_cast<size_t>(state.range(0));
  size_t packets = batch_for(size);
  Inbox m;
  std::vector<uint8_t> payload(size - 12, 0x5A);
  for (size_t i = 0; i < packets; ++i) m.writer.write(payload, PacketWriter::Fault::None, false);
  uint32_t last = m.writer.last();
  uint64_t bytes = 0;
  for (auto _ : state) {
    // Every iteration reads the whole batch again as new.
    device_memory::write32(m.header_bytes(), il::kTail, il::kNoPacket);
    m.inbox.enable();
    device_memory::write32(m.header_bytes(), il::kTail, last);
    m.inbox.read([&](const PacketView& p) { bytes += p.size(); });
  }
  if (m.inbox.faults() != 0) state.SkipWithError("inbox faults");
  benchmark::DoNotOptimize(bytes);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * packets));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * packets * size));
}
BENCHMARK(BM_PruInboxRead)->Arg(64)->Arg(1036)->Unit(benchmark::kMicrosecond);

// The same bytes in one plain memcpy out of the region.
void BM_PruRegionMemcpy(benchmark::State& state) {
  size_t size = static_cast<size_t>(state.range(0));
  size_t total = batch_for(size) * size;
  Inbox m;
  std::memset(m.region_bytes(), 0x5A, total);
  std::vector<uint8_t> out(total);
  for (auto _ : state) {
    std::memcpy(out.data(), m.region_bytes(), total);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * batch_for(size)));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * total));
}
BENCHMARK(BM_PruRegionMemcpy)->Arg(64)->Arg(1036)->Unit(benchmark::kMicrosecond);

uint64_t steady_ns() {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch()).count());
}

// A firmware thread writes packets stamped with the time of their `tail`
// update, at random gaps of 0.2 to 3 ms; the host polls the inbox on a
// context at `rate` Hz, as the subsystem node does, and notes each delay.
void BM_PruInboxLatency(benchmark::State& state) {
  double rate = static_cast<double>(state.range(0));
  constexpr int kPackets = 2000;
  Inbox m;
  m.inbox.enable();
  std::vector<double> delays_us;
  delays_us.reserve(kPackets);
  Context host("pru_bench");
  host.start_context();
  std::atomic<int> seen{0};
  host.every(std::chrono::nanoseconds(static_cast<int64_t>(1e9 / rate)), [&] {
    m.inbox.read([&](const PacketView& p) {
      uint64_t sent;
      std::memcpy(&sent, p.payload().data(), 8);
      delays_us.push_back(static_cast<double>(steady_ns() - sent) / 1e3);
      seen.fetch_add(1, std::memory_order_relaxed);
    });
  });
  for (auto _ : state) {
    std::mt19937 random(3);
    std::uniform_int_distribution<int> gap_us(200, 3000);
    for (int i = 0; i < kPackets; ++i) {
      std::this_thread::sleep_for(std::chrono::microseconds(gap_us(random)));
      uint64_t now = steady_ns();
      m.writer.write({reinterpret_cast<const uint8_t*>(&now), 8});
    }
    while (seen.load() < kPackets) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  host.stop_context();
  std::sort(delays_us.begin(), delays_us.end());
  auto at = [&](double q) { return delays_us[static_cast<size_t>(q * static_cast<double>(delays_us.size() - 1))]; };
  state.counters["p50_us"] = at(0.50);
  state.counters["p90_us"] = at(0.90);
  state.counters["p99_us"] = at(0.99);
  state.counters["max_us"] = delays_us.back();
}
BENCHMARK(BM_PruInboxLatency)->Arg(1000)->Arg(2000)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// The CPU the poll costs while no packet comes: process CPU time over wall
// time, with the bench's own thread asleep.
void BM_PruIdlePollCpu(benchmark::State& state) {
  double rate = static_cast<double>(state.range(0));
  Inbox m;
  m.inbox.enable();
  Context host("pru_bench");
  host.start_context();
  uint64_t polls = 0;
  host.every(std::chrono::nanoseconds(static_cast<int64_t>(1e9 / rate)),
             [&] { polls += m.inbox.read([](const PacketView&) {}) + 1; });
  double cpu = 0, wall = 0;
  for (auto _ : state) {
    double c0 = process_cpu_seconds();
    auto w0 = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(3));
    cpu += process_cpu_seconds() - c0;
    wall += std::chrono::duration<double>(std::chrono::steady_clock::now() - w0).count();
  }
  host.stop_context();
  state.counters["cpu_percent_of_one_core"] = 100.0 * cpu / wall;
  state.counters["polls_per_s"] = static_cast<double>(polls) / wall;
}
BENCHMARK(BM_PruIdlePollCpu)->Arg(2000)->Arg(1000)->Arg(500)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
