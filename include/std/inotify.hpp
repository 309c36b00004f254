#pragma once
// inotify: the kernel's file-change notifications. The mask bits are
// inotify's own (0x9C8 = close-after-write, moved-from, moved-to, create,
// move-self).
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace inotify {

constexpr uint32_t kCloseWrite = 0x8;
constexpr uint32_t kMovedFrom = 0x40;
constexpr uint32_t kMovedTo = 0x80;
constexpr uint32_t kCreate = 0x100;
constexpr uint32_t kMoveSelf = 0x800;
constexpr uint32_t kIgnored = 0x8000;  // the watch is gone

// A new notification descriptor, non-blocking and close-on-exec; -1 on failure.
int open();
// The watch descriptor of `path` under `fd`; -1 on failure (errno set).
int add_watch(int fd, const std::string& path, uint32_t mask);
void remove_watch(int fd, int watch);

struct Event {
  int watch;
  uint32_t mask;
  std::string_view name;  // the entry's name for a folder watch, else empty
};
// Calls `f` for each whole event in `data` (as read from the descriptor).
void for_each_event(const char* data, size_t size, const std::function<void(const Event&)>& f);

}  // namespace inotify
