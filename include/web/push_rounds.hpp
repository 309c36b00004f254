#pragma once
// PushRounds: the push cadence of one network thread (one per io_context).
// A WebSocket session with something to push asks for a round; a round runs
// the push pass of every session that asked. So a change that many sessions
// watch wakes the thread once, not once per session, and one timer serves
// them all instead of one per session.
//
// A round starts at once when the previous one is at least `spacing` ago,
// else when it will be: no session pushes more often than that, and a change
// waits at most `spacing` plus the time the rounds before it take. With a
// spacing of 0 every request runs a round at once and the sessions' sockets
// set the pace. A session whose write has not completed (a stalled client)
// does nothing in a round and pushes once the write completes, so it holds
// up nobody.
//
// Any thread may ask; rounds run on the io_context's thread. The sessions
// are held weakly: one that ended meanwhile is skipped.
#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

class WebsocketSession;

class PushRounds : public boost::asio::io_context::service {
 public:
  using Clock = std::chrono::steady_clock;

  static inline boost::asio::io_context::id id;
  explicit PushRounds(boost::asio::io_context& io);

  // Any thread: `session` takes part in the next round, which begins at
  // most `spacing` after the previous one began.
  void request(std::weak_ptr<WebsocketSession> session, std::chrono::microseconds spacing);

 private:
  void shutdown() override;
  void run();

  boost::asio::io_context& io_;
  boost::asio::steady_timer timer_;  // the io_context's thread only
  std::vector<std::weak_ptr<WebsocketSession>> round_;  // the one running; its thread only
  std::mutex mutex_;                 // guards the members below
  std::vector<std::weak_ptr<WebsocketSession>> waiting_;
  bool scheduled_ = false;
  bool stopped_ = false;
  Clock::time_point last_round_{};
};
