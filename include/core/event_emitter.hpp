#pragma once
// Named events with listeners that may come and go at run time from any
// thread. An emitter that nobody listens to costs one pointer and one atomic
// load per emit; listeners are called in the order they were added, on the
// emitting thread, from a snapshot (a listener may remove itself).
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

template <class Events>
class EventEmitter {
 public:
  using Listener = std::function<void()>;
  using ListenerId = uint64_t;

  EventEmitter() = default;
  EventEmitter(const EventEmitter&) = delete;
  EventEmitter& operator=(const EventEmitter&) = delete;
  ~EventEmitter() { delete table_.load(std::memory_order_acquire); }

  ListenerId on(Events event, Listener listener) {
    auto& t = table();
    std::lock_guard lock(t.mutex);
    auto next = std::make_shared<Entries>(*t.entries.load());
    auto id = t.next_id++;
    next->push_back({id, event, std::move(listener)});
    t.entries.store(std::move(next));
    return id;
  }

  void off(ListenerId id) {
    auto* t = table_.load(std::memory_order_acquire);
    if (!t) return;
    std::lock_guard lock(t->mutex);
    auto next = std::make_shared<Entries>(*t->entries.load());
    std::erase_if(*next, [id](const Entry& e) { return e.id == id; });
    t->entries.store(std::move(next));
  }

 protected:
  void emit(Events event) const {
    auto* t = table_.load(std::memory_order_acquire);
    if (!t) return;
    auto entries = t->entries.load();
    for (const auto& entry : *entries)
      if (entry.event == event) entry.listener();
  }

 private:
  struct Entry {
    ListenerId id;
    Events event;
    Listener listener;
  };
  using Entries = std::vector<Entry>;
  struct Table {
    std::mutex mutex;
    ListenerId next_id = 1;
    std::atomic<std::shared_ptr<const Entries>> entries{std::make_shared<const Entries>()};
  };

  Table& table() {
    auto* t = table_.load(std::memory_order_acquire);
    if (t) return *t;
    auto* fresh = new Table;
    if (table_.compare_exchange_strong(t, fresh, std::memory_order_acq_rel)) return *fresh;
    delete fresh;
    return *t;
  }

  std::atomic<Table*> table_{nullptr};
};
