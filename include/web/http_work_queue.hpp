#pragma once
// HttpWorkQueue: the replies of one HTTP connection waiting to be written, in
// request order, so pipelined requests are answered in turn. The front reply
// is the one being written (one write in flight); the session stops reading
// requests while the queue is full: `limit` replies, or `byte_limit` bytes of
// reply bodies (one reply is always taken, however large).
#include <deque>

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

class HttpWorkQueue {
 public:
  using Response = boost::beast::http::response<boost::beast::http::string_body>;

  HttpWorkQueue(size_t limit, size_t byte_limit) : limit_(limit), byte_limit_(byte_limit) {}

  bool full() const { return items.size() >= limit_ || bytes_ >= byte_limit_; }
  bool empty() const { return items.empty(); }
  size_t bytes() const { return bytes_; }

  // Queues a reply; true when it is the only one, so the caller starts
  // writing it (otherwise it is written when those before it are done).
  bool push(Response&& response);
  // The reply being written. Stays put while others are pushed.
  Response& front() { return items.front(); }
  // After a completed write: drops the written reply. Returns whether the
  // queue was full before, so reading may resume.
  bool pop_written();

 private:
  size_t limit_;
  size_t byte_limit_;
  size_t bytes_ = 0;  // body bytes of the queued replies
  std::deque<Response> items;
};
