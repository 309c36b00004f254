#pragma once
// Watcher: watches files for changes and reports them on its own thread
// (it is a Context, thread "watcher").
//
// A watched file's own events are reported with the file's path. Because a
// new file renamed over the old path (or written under its name after the old
// one was removed) is an event of the folder, not of the file, the folder is
// watched as well, and its moved-to, close-after-write and create events for
// the file's name (a link made anew is only a create) are reported with the
// file's path too, if the mask asks for them.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "core/context.hpp"

class Watcher : public Context {
 public:
  struct Event {
    std::string path;
    uint32_t mask;  // inotify bits (see std/inotify.hpp)
  };
  using Handler = std::function<void(const Event&)>;

  Watcher();
  ~Watcher() override;

  // Before start(): watches `path` (made absolute) for the events in
  // `mask`. Logs and returns false when the file cannot be watched.
  bool add(const std::string& path, uint32_t mask);
  // Before start(): `handler` runs on the watcher's thread for each event.
  void connect(Handler handler);

  // Starts the thread and the reading of events.
  void start();
  // Removes every watch and closes the notification descriptor; no event
  // follows. On the watcher's own thread (from a handler) or after stop().
  void remove_all();
  // Stops the thread and joins it. Idempotent.
  void stop();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
