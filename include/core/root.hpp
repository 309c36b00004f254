#pragma once
// Root: the top of the system tree, made from the whole configuration. Besides
// what the configuration lists it always owns "log", "pulse", "async",
// "interlocks", "alarms", "admin", "io_server", "iframe", "peers" and "upnp".
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string_view>

#include "core/component.hpp"
#include "core/ctx_comp.hpp"

class Alarms;
class LogIO;

class Root : public Component {
 public:
  explicit Root(const VTree& config);
  // Runs the staged stop if it has not run, then destroys the tree.
  ~Root() override;

  // Root initialisation, once: indexes the tree, then init(), restore() and
  // start() on every node in tree order, each phase over the whole tree
  // before the next.
  void initialize();
  // Waits while initialize() is running; false if it still runs after
  // `limit`. Servers start listening before the nodes after them have
  // started: a write from outside waits for this, so no write runs against
  // a node still in its start().
  bool wait_started(std::chrono::milliseconds limit) const;
  // The staged stop ("stop0" .. "stop3"), once; each stage timed and logged.
  void stop_all();

  // The vertex (node or field) at a path such as "pulse/rate"; null if none.
  Vertex* find_path(std::string_view path) const { return find(path); }

  // A logged-in user's set of a field, or of an IO's value field, by path.
  // Failures are logged; nothing is returned.
  void set_field_as_user(std::string_view user, std::string_view path, std::string_view value);

  Service& async() const { return *async_; }
  LogIO& log() const { return *log_; }
  Alarms& alarms() const { return *alarms_; }

  // The root of the running system (the most recently made one), or null.
  static Root* instance();

  // A part without which the instrument must not run (the web server that
  // cannot listen) says so in its start(); the program then stops in order
  // and exits with a failure status. The reason is logged by the caller.
  void fail_start() { start_failed_ = true; }
  bool start_failed() const { return start_failed_.load(); }

  // Configuration elements that could not be built since the last reset.
  static void count_configuration_error();
  static unsigned configuration_errors();
  static void reset_configuration_errors();

 private:
  Service* async_ = nullptr;
  LogIO* log_ = nullptr;
  Alarms* alarms_ = nullptr;
  bool initialized_ = false;
  mutable std::mutex start_mutex_;
  mutable std::condition_variable start_done_;
  // Written under start_mutex_; read without it on every outside write, which
  // only takes the lock while the tree is still starting.
  mutable std::atomic<bool> starting_{false};
  bool stopped_ = false;
  std::atomic<bool> start_failed_{false};
};
