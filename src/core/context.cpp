#include "core/context.hpp"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <thread>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include "core/log.hpp"

struct Context::Impl {
  explicit Impl(std::string name) : name(std::move(name)), guard(boost::asio::make_work_guard(io)) {}

  void run_job(const Job& job) {
    try {
      job();
    } catch (const std::exception& e) {
      ZEL_ERROR("Unhandled exception in context {}: {}", name, e.what());
    } catch (...) {
      ZEL_ERROR("Unhandled exception in context {}", name);
    }
  }

  struct Periodic {
    Periodic(boost::asio::io_context& io, std::chrono::nanoseconds period, Job job)
        : timer(io), period(period), job(std::move(job)) {}
    boost::asio::steady_timer timer;
    std::chrono::nanoseconds period;  // zero: runs once
    Job job;
    std::atomic<bool> cancelled{false};
  };

  void forget(TimerId id) {
    std::lock_guard lock(mutex);
    timers.erase(id);
  }

  void arm(TimerId id, std::shared_ptr<Periodic> p) {
    p->timer.async_wait([this, id, p](const boost::system::error_code& ec) {
      if (ec || p->cancelled) return;
      if (p->period.count() == 0) {
        forget(id);
        run_job(p->job);
        return;
      }
      run_job(p->job);
      if (p->cancelled) return;
      auto next = p->timer.expiry() + p->period;
      auto now = std::chrono::steady_clock::now();
      if (next < now) next = now + p->period;
      p->timer.expires_at(next);
      arm(id, p);
    });
  }

  std::string name;
  boost::asio::io_context io;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard;
  std::thread thread;
  std::atomic<bool> running{false};
  std::atomic<std::thread::id> thread_id{};
  std::mutex mutex;  // guards timers and next_id
  std::map<TimerId, std::shared_ptr<Periodic>> timers;
  TimerId next_id = 1;
};

Context::Context(std::string thread_name) : impl_(std::make_unique<Impl>(std::move(thread_name))) {}

Context::~Context() { stop_context(); }

void Context::start_context() {
  if (impl_->thread.joinable()) return;
  impl_->running = true;
  impl_->thread = std::thread([impl = impl_.get()] {
    impl->thread_id = std::this_thread::get_id();
    auto short_name = impl->name.substr(0, 15);  // the kernel keeps 15 characters
    pthread_setname_np(pthread_self(), short_name.c_str());
    for (;;) {
      try {
        impl->io.run();
        break;
      } catch (const std::exception& e) {
        ZEL_ERROR("Unhandled exception in context {}: {}", impl->name, e.what());
      }
    }
  });
}

void Context::stop_context() {
  if (!impl_->thread.joinable()) {
    impl_->running = false;
    return;
  }
  if (in_context()) {
    ZEL_ERROR("Context {} asked to stop itself", impl_->name);
    return;
  }
  cancel_all();
  impl_->running = false;
  impl_->guard.reset();
  impl_->io.stop();
  impl_->thread.join();
  impl_->thread_id = std::thread::id{};
}

bool Context::running() const { return impl_->running.load(); }

bool Context::in_context() const { return impl_->thread_id.load() == std::this_thread::get_id(); }

void Context::post(Job job) {
  boost::asio::post(impl_->io, [impl = impl_.get(), job = std::move(job)] { impl->run_job(job); });
}

Context::TimerId Context::every(std::chrono::nanoseconds period, Job job) {
  // A period of zero would be a one-shot timer: the shortest period is 1 ns.
  return schedule(period, std::max(period, std::chrono::nanoseconds(1)), std::move(job));
}

Context::TimerId Context::after(std::chrono::nanoseconds delay, Job job) {
  return schedule(delay, std::chrono::nanoseconds(0), std::move(job));
}

Context::TimerId Context::schedule(std::chrono::nanoseconds first, std::chrono::nanoseconds period, Job job) {
  auto p = std::make_shared<Impl::Periodic>(impl_->io, period, std::move(job));
  p->timer.expires_after(first);
  TimerId id;
  {
    std::lock_guard lock(impl_->mutex);
    id = impl_->next_id++;
    impl_->timers.emplace(id, p);
  }
  // Timers are armed on the context's own thread: asio objects are not
  // thread-safe.
  boost::asio::post(impl_->io, [impl = impl_.get(), id, p] {
    if (!p->cancelled) impl->arm(id, p);
  });
  return id;
}

void Context::cancel(TimerId id) {
  std::shared_ptr<Impl::Periodic> p;
  {
    std::lock_guard lock(impl_->mutex);
    auto it = impl_->timers.find(id);
    if (it == impl_->timers.end()) return;
    p = it->second;
    impl_->timers.erase(it);
  }
  p->cancelled = true;
  boost::asio::post(impl_->io, [p] { p->timer.cancel(); });
}

void Context::cancel_all() {
  std::map<TimerId, std::shared_ptr<Impl::Periodic>> timers;
  {
    std::lock_guard lock(impl_->mutex);
    timers.swap(impl_->timers);
  }
  for (auto& [id, p] : timers) {
    p->cancelled = true;
    // An init-capture: clang before 16 cannot capture a structured binding.
    boost::asio::post(impl_->io, [p = p] { p->timer.cancel(); });
  }
}

const std::string& Context::thread_name() const { return impl_->name; }
boost::asio::io_context& Context::io() { return impl_->io; }
