#include "std/inotify.hpp"

#include <sys/inotify.h>

#include <cstring>

static_assert(inotify::kCloseWrite == IN_CLOSE_WRITE && inotify::kMovedFrom == IN_MOVED_FROM &&
              inotify::kMovedTo == IN_MOVED_TO && inotify::kCreate == IN_CREATE &&
              inotify::kMoveSelf == IN_MOVE_SELF && inotify::kIgnored == IN_IGNORED);

namespace inotify {

int open() { return ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC); }

int add_watch(int fd, const std::string& path, uint32_t mask) { return ::inotify_add_watch(fd, path.c_str(), mask); }

void remove_watch(int fd, int watch) { ::inotify_rm_watch(fd, watch); }

void for_each_event(const char* data, size_t size, const std::function<void(const Event&)>& f) {
  size_t offset = 0;
  while (offset + sizeof(inotify_event) <= size) {
    inotify_event header;
    std::memcpy(&header, data + offset, sizeof header);
    size_t whole = sizeof(inotify_event) + header.len;
    if (offset + whole > size) break;
    const char* name = data + offset + sizeof(inotify_event);
    f({header.wd, header.mask, std::string_view(name, header.len ? ::strnlen(name, header.len) : 0)});
    offset += whole;
  }
}

}  // namespace inotify
