#include "web/push_rounds.hpp"

#include <boost/asio/post.hpp>

#include "web/websocket_session.hpp"

PushRounds::PushRounds(boost::asio::io_context& io) : service(io), io_(io), timer_(io) {}

void PushRounds::request(std::weak_ptr<WebsocketSession> session, std::chrono::microseconds spacing) {
  std::lock_guard lock(mutex_);
  if (stopped_) return;
  waiting_.push_back(std::move(session));
  if (scheduled_) return;
  scheduled_ = true;
  auto due = last_round_ + spacing;
  if (Clock::now() >= due) {
    boost::asio::post(io_, [this] { run(); });
    return;
  }
  boost::asio::post(io_, [this, due] {
    timer_.expires_at(due);
    timer_.async_wait([this](const boost::system::error_code& ec) {
      if (!ec) run();
    });
  });
}

void PushRounds::run() {
  {
    std::lock_guard lock(mutex_);
    scheduled_ = false;
    last_round_ = Clock::now();
    round_.swap(waiting_);
  }
  for (auto& weak : round_)
    if (auto session = weak.lock()) session->on_round();
  round_.clear();
}

void PushRounds::shutdown() {
  std::lock_guard lock(mutex_);
  stopped_ = true;
  waiting_.clear();
}
