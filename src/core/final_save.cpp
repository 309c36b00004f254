#include "core/final_save.hpp"

#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "core/log.hpp"

namespace {

struct Savers {
  std::mutex mutex;  // held while savers run and while the list changes
  std::vector<std::pair<const void*, FinalSave::Saver>> list;
};

Savers& savers() {
  static Savers* s = new Savers;  // never destroyed: a stop may run during exit
  return *s;
}

}  // namespace

void FinalSave::arm(const void* owner, Saver saver) {
  auto& s = savers();
  std::lock_guard lock(s.mutex);
  std::erase_if(s.list, [owner](const auto& entry) { return entry.first == owner; });
  s.list.emplace_back(owner, std::move(saver));
}

void FinalSave::disarm(const void* owner) {
  auto& s = savers();
  std::lock_guard lock(s.mutex);
  std::erase_if(s.list, [owner](const auto& entry) { return entry.first == owner; });
}

// A plain mutex tried every millisecond rather than a timed one: the stop
// path is rare, and the timed lock's clock-based wait is one the thread
// sanitizer cannot follow, so it would call every later unlock a fault.
bool FinalSave::run(std::chrono::milliseconds limit) {
  auto& s = savers();
  std::unique_lock lock(s.mutex, std::defer_lock);
  const auto give_up = std::chrono::steady_clock::now() + limit;
  while (!lock.try_lock()) {
    if (std::chrono::steady_clock::now() >= give_up) {
      ZEL_ERROR("Final save did not get its turn within {} ms", limit.count());
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  for (auto& [owner, saver] : s.list) saver();
  return true;
}
