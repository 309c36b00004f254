#pragma once
// Named events with listeners that may come and go at run time from any
// thread. An emitter that nobody listens to costs one pointer and one atomic
// load per emit; listeners are called in the order they were added, on the
// emitting thread, from a snapshot (a listener may remove itself, and one
// removed while an emit is under way may still be called by that emit).
//
// Cost: on() and off() are O(log n) whatever the number of listeners (an
// ordered map keyed by the rising id). An emit copies the listener list into
// a snapshot only when the list changed since the last emit; that copy costs
// less than calling the listeners it holds, so a field that thousands of
// clients watch never pays more per change than the calls themselves.
// Removing a listener drops the snapshot at once, so nothing the listener
// holds outlives off() beyond emits already running.
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
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
    auto entry = std::make_shared<const Entry>(Entry{event, std::move(listener)});
    std::shared_ptr<const Snapshot> stale;
    std::lock_guard lock(t.mutex);
    auto id = t.next_id++;
    t.entries.emplace_hint(t.entries.end(), id, std::move(entry));
    stale = std::move(t.snapshot);
    return id;
  }

  void off(ListenerId id) {
    auto* t = table_.load(std::memory_order_acquire);
    if (!t) return;
    // Released after the lock: the listener's captures may be large.
    std::shared_ptr<const Entry> removed;
    std::shared_ptr<const Snapshot> stale;
    std::lock_guard lock(t->mutex);
    auto found = t->entries.find(id);
    if (found == t->entries.end()) return;
    removed = std::move(found->second);
    t->entries.erase(found);
    stale = std::move(t->snapshot);
  }

 protected:
  void emit(Events event) const {
    auto* t = table_.load(std::memory_order_acquire);
    if (!t) return;
    std::shared_ptr<const Snapshot> snapshot;
    {
      std::lock_guard lock(t->mutex);
      if (!t->snapshot) t->snapshot = t->take_snapshot();
      snapshot = t->snapshot;
    }
    for (const auto& entry : *snapshot)
      if (entry->event == event) entry->listener();
  }

 private:
  struct Entry {
    Events event;
    Listener listener;
  };
  using Snapshot = std::vector<std::shared_ptr<const Entry>>;
  struct Table {
    std::mutex mutex;  // guards the members below
    ListenerId next_id = 1;
    std::map<ListenerId, std::shared_ptr<const Entry>> entries;
    std::shared_ptr<const Snapshot> snapshot;  // null once entries changed

    std::shared_ptr<const Snapshot> take_snapshot() const {
      auto list = std::make_shared<Snapshot>();
      list->reserve(entries.size());
      for (const auto& [id, entry] : entries) list->push_back(entry);
      return list;
    }
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
