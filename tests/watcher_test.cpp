#include "core/watcher.hpp"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

#include "std/inotify.hpp"
#include "zel_process.hpp"

using namespace std::chrono_literals;

namespace {

// A watcher on one file, as the application watches its program file, that
// keeps the events it reports.
class WatchedFile {
 public:
  explicit WatchedFile(const TempDir& dir, bool remove_on_event = false) : path(dir / "program") {
    dir.write("program", "old");
    EXPECT_TRUE(watcher.add(path, 0x9C8));
    watcher.connect([this, remove_on_event](const Watcher::Event& e) {
      std::lock_guard lock(mutex_);
      events_.push_back(e);
      if (remove_on_event) watcher.remove_all();
      changed_.notify_all();
    });
    watcher.start();
  }

  // The events once there are `count` of them, or those seen by `limit`.
  std::vector<Watcher::Event> wait_for(size_t count, std::chrono::milliseconds limit = 5s) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, limit, [&] { return events_.size() >= count; });
    return events_;
  }

  std::string path;
  Watcher watcher;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Watcher::Event> events_;
};

}  // namespace

TEST(Watcher, ReplacementsOfTheFileAreReportedWithItsPathAndOtherFilesNot) {
  TempDir dir;
  WatchedFile file(dir);
  dir.write("other", "x");
  std::filesystem::rename(dir / "other", dir / "another");
  dir.write("program.log", "x");

  // The file watch follows the file itself: moved away.
  std::filesystem::rename(file.path, dir / "program.old");
  auto events = file.wait_for(1);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].path, file.path);
  EXPECT_TRUE(events[0].mask & inotify::kMoveSelf);

  // The folder watch follows the name: a new file renamed to it ...
  dir.write("program.new", "new");
  std::filesystem::rename(dir / "program.new", file.path);
  events = file.wait_for(2);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[1].path, file.path);
  EXPECT_TRUE(events[1].mask & inotify::kMovedTo);

  // ... or written under it after the old one was removed ...
  std::filesystem::remove(file.path);
  dir.write("program", "newer");
  events = file.wait_for(4);
  ASSERT_EQ(events.size(), 4u);
  EXPECT_EQ(events[2].path, file.path);
  EXPECT_TRUE(events[2].mask & inotify::kCreate);
  EXPECT_TRUE(events[3].mask & inotify::kCloseWrite);

  // ... or a link made anew under it.
  std::filesystem::remove(file.path);
  std::filesystem::create_symlink(dir / "program.old", file.path);
  events = file.wait_for(5);
  ASSERT_EQ(events.size(), 5u);
  EXPECT_EQ(events[4].path, file.path);
  EXPECT_TRUE(events[4].mask & inotify::kCreate);
}

TEST(Watcher, RemovingTheWatchesFromAHandlerEndsTheEvents) {
  TempDir dir;
  WatchedFile file(dir, true);
  for (const char* text : {"new", "newer"}) {
    dir.write("program.new", text);
    std::filesystem::rename(dir / "program.new", file.path);
  }
  EXPECT_EQ(file.wait_for(1).size(), 1u);
  EXPECT_EQ(file.wait_for(2, 300ms).size(), 1u);
  file.watcher.stop();
}
