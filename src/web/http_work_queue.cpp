#include "web/http_work_queue.hpp"

#include "core/log.hpp"

bool HttpWorkQueue::push(Response&& response) {
  bytes_ += response.body().size();
  items.push_back(std::move(response));
  return items.size() == 1;
}

bool HttpWorkQueue::pop_written() {
  // A completed write always has its reply queued.
  if (items.empty()) {
    ZEL_ERROR("HttpWorkQueue write completed with no reply queued: !items.empty() does not hold");
    return false;
  }
  bool was_full = full();
  bytes_ -= items.front().body().size();
  items.pop_front();
  return was_full;
}
