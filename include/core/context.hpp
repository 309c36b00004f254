#pragma once
// Context: an execution context, one thread with its own work queue. Jobs
// posted to it run one after another on that thread, periodic jobs at a fixed
// rate. A job that throws is logged and the context goes on.
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace boost::asio {
class io_context;
}

class Context {
 public:
  using Job = std::function<void()>;
  using TimerId = uint64_t;

  explicit Context(std::string thread_name);
  virtual ~Context();
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  // Starts the thread; jobs posted before run once it is up. Idempotent.
  void start_context();
  // Stops the loop and joins the thread; pending jobs are dropped. Idempotent;
  // must not be called from the context's own thread.
  void stop_context();
  bool running() const;
  // True on this context's own thread.
  bool in_context() const;

  void post(Job job);
  // Runs `job` every `period`, first after one period. Late runs are not
  // caught up: a run that overruns its period skips the missed ones.
  TimerId every(std::chrono::nanoseconds period, Job job);
  // Runs `job` once, `delay` from now. Cancelled like a periodic job.
  TimerId after(std::chrono::nanoseconds delay, Job job);
  void cancel(TimerId id);
  void cancel_all();

  const std::string& thread_name() const;
  boost::asio::io_context& io();

 private:
  TimerId schedule(std::chrono::nanoseconds first, std::chrono::nanoseconds period, Job job);

  struct Impl;
  std::unique_ptr<Impl> impl_;
};
