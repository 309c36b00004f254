// What it costs to subscribe and unsubscribe one listener of a field that
// already has 10, 1,000 or 100,000 listeners, and to notify a field with one
// listener. CopyOnWriteListeners is the scheme the emitter used before (every
// on() and off() copies the whole list), kept here as the comparison.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "core/event_emitter.hpp"

namespace {

enum class Event { Changed };

class Emitter : public EventEmitter<Event> {
 public:
  void changed() const { emit(Event::Changed); }
};

class CopyOnWriteListeners {
 public:
  using Entries = std::vector<std::pair<uint64_t, std::function<void()>>>;

  uint64_t on(std::function<void()> listener) {
    std::lock_guard lock(mutex_);
    auto next = std::make_shared<Entries>(*entries_);
    next->emplace_back(next_id_, std::move(listener));
    entries_ = std::move(next);
    return next_id_++;
  }
  void off(uint64_t id) {
    std::lock_guard lock(mutex_);
    auto next = std::make_shared<Entries>(*entries_);
    std::erase_if(*next, [id](const auto& entry) { return entry.first == id; });
    entries_ = std::move(next);
  }

 private:
  std::mutex mutex_;
  uint64_t next_id_ = 1;
  std::shared_ptr<const Entries> entries_ = std::make_shared<Entries>();
};

// Each iteration subscribes one listener and unsubscribes the oldest one, so
// the count stays at state.range(0) and both ends of the list are exercised.
template <class Listeners>
void subscribe_unsubscribe(benchmark::State& state, Listeners& listeners) {
  std::vector<uint64_t> ids;
  for (int64_t i = 0; i < state.range(0); ++i) ids.push_back(listeners.on([] {}));
  size_t oldest = 0;
  for (auto _ : state) {
    ids.push_back(listeners.on([] {}));
    listeners.off(ids[oldest++]);
  }
  state.counters["listeners"] = static_cast<double>(state.range(0));
}

void BM_SubscribeUnsubscribe_Emitter(benchmark::State& state) {
  Emitter emitter;
  struct Adapter {
    Emitter& e;
    uint64_t on(std::function<void()> f) { return e.on(Event::Changed, std::move(f)); }
    void off(uint64_t id) { e.off(id); }
  } adapter{emitter};
  subscribe_unsubscribe(state, adapter);
}
BENCHMARK(BM_SubscribeUnsubscribe_Emitter)->Arg(10)->Arg(1000)->Arg(100000);

void BM_SubscribeUnsubscribe_CopyOnWriteBefore(benchmark::State& state) {
  CopyOnWriteListeners listeners;
  subscribe_unsubscribe(state, listeners);
}
BENCHMARK(BM_SubscribeUnsubscribe_CopyOnWriteBefore)->Arg(10)->Arg(1000)->Arg(100000);

void BM_EmitToOneListener(benchmark::State& state) {
  Emitter emitter;
  uint64_t calls = 0;
  emitter.on(Event::Changed, [&] { ++calls; });
  for (auto _ : state) emitter.changed();
  benchmark::DoNotOptimize(calls);
}
BENCHMARK(BM_EmitToOneListener);

// A field that 1,000 clients watch while one of them comes and goes between
// two changes: the snapshot is taken again, once per change.
void BM_EmitAfterChurn1000(benchmark::State& state) {
  Emitter emitter;
  for (int i = 0; i < 1000; ++i) emitter.on(Event::Changed, [] {});
  for (auto _ : state) {
    auto id = emitter.on(Event::Changed, [] {});
    emitter.changed();
    emitter.off(id);
  }
}
BENCHMARK(BM_EmitAfterChurn1000);

}  // namespace
