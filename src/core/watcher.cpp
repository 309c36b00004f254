#include "core/watcher.hpp"

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>

#include "core/log.hpp"
#include "std/inotify.hpp"

namespace {

// The events a folder can tell about one of its entries being replaced: a
// symbolic link made anew under the name is a create and nothing more.
constexpr uint32_t kReplacementEvents = inotify::kMovedTo | inotify::kCloseWrite | inotify::kCreate;

struct Target {
  std::string path;
  uint32_t mask;
};

}  // namespace

struct Watcher::Impl {
  explicit Impl(boost::asio::io_context& io) : descriptor(io) {}

  void read() {
    descriptor.async_read_some(boost::asio::buffer(buffer), [this](const boost::system::error_code& ec, size_t n) {
      if (ec) return;  // closed by remove_all(), or the context stopped
      inotify::for_each_event(buffer.data(), n, [this](const inotify::Event& e) { dispatch(e); });
      if (descriptor.is_open()) read();
    });
  }

  void dispatch(const inotify::Event& e) {
    // A handler may have closed the descriptor: its events end with it.
    if (!descriptor.is_open()) return;
    std::vector<Event> events;
    if (auto file = files.find(e.watch); file != files.end()) {
      if (e.mask & file->second.mask) events.push_back({file->second.path, e.mask});
    }
    if (auto folder = folders.find(e.watch); folder != folders.end()) {
      for (auto& target : folder->second)
        if (e.name == std::filesystem::path(target.path).filename().native() && (e.mask & target.mask))
          events.push_back({target.path, e.mask & target.mask});
    }
    for (auto& event : events)
      for (auto& handler : handlers) handler(event);
  }

  std::array<char, 16 * 1024> buffer{};
  boost::asio::posix::stream_descriptor descriptor;
  std::map<int, Target> files;                 // watch of a file -> the file
  std::map<int, std::vector<Target>> folders;  // watch of a folder -> files in it
  std::vector<Handler> handlers;
};

Watcher::Watcher() : Context("watcher"), impl_(std::make_unique<Impl>(io())) {}

Watcher::~Watcher() {
  stop();
  remove_all();
}

bool Watcher::add(const std::string& path, uint32_t mask) {
  if (!impl_->descriptor.is_open()) {
    int fd = inotify::open();
    if (fd < 0) {
      ZEL_ERROR("Watcher can't open inotify: {}", std::strerror(errno));
      return false;
    }
    impl_->descriptor.assign(fd);
  }
  int fd = impl_->descriptor.native_handle();
  auto file = std::filesystem::absolute(path).lexically_normal();
  int watch = inotify::add_watch(fd, file.string(), mask);
  if (watch < 0) {
    ZEL_ERROR("Watcher can't watch {}: {}", file.string(), std::strerror(errno));
    return false;
  }
  impl_->files[watch] = {file.string(), mask};
  if (uint32_t folder_mask = mask & kReplacementEvents) {
    int folder = inotify::add_watch(fd, file.parent_path().string(), kReplacementEvents);
    if (folder < 0) ZEL_WARN("Watcher can't watch the folder of {}: {}", file.string(), std::strerror(errno));
    else impl_->folders[folder].push_back({file.string(), folder_mask});
  }
  return true;
}

void Watcher::connect(Handler handler) { impl_->handlers.push_back(std::move(handler)); }

void Watcher::start() {
  start_context();
  boost::asio::post(io(), [impl = impl_.get()] {
    if (impl->descriptor.is_open()) impl->read();
  });
}

void Watcher::remove_all() {
  if (!impl_->descriptor.is_open()) return;
  int fd = impl_->descriptor.native_handle();
  for (auto& [watch, target] : impl_->files) inotify::remove_watch(fd, watch);
  for (auto& [watch, targets] : impl_->folders) inotify::remove_watch(fd, watch);
  impl_->files.clear();
  impl_->folders.clear();
  boost::system::error_code ignored;
  impl_->descriptor.close(ignored);
}

void Watcher::stop() { stop_context(); }
