#include "web/web_shared.hpp"

#include "core/root.hpp"

WebShared::WebShared(Root& root, std::string document_dir, WebLimits limits, Counters counters,
                     std::shared_ptr<WebAccess> access)
    : root_(root), access_(std::move(access)), documents_(std::move(document_dir)),
      router_(root, documents_, *access_), limits_(limits), counters_(counters),
      gate_(std::make_shared<ConnectionGate>(limits.connections_max, limits.connections_per_address_max)),
      breaches_(limits.breach_log_interval) {}

// Counts are published under the lock, so the last one set is the true one;
// the fields' listeners only post work and never come back here.
void WebShared::publish(ValueField<unsigned int>* field, size_t count) {
  if (field) field->set(static_cast<unsigned int>(count));
}

void WebShared::http_opened() {
  std::lock_guard lock(mutex_);
  publish(counters_.http_sessions, ++http_count_);
}

// While the server stops, closes are counted but not published: thousands
// of sessions going at once would each set the field and wake its watchers.
void WebShared::http_closed() {
  std::lock_guard lock(mutex_);
  --http_count_;
  if (!stopping_) publish(counters_.http_sessions, http_count_);
}

uint64_t WebShared::websocket_opened(std::shared_ptr<PushTrigger> trigger) {
  std::lock_guard lock(mutex_);
  if (stopping_) {
    trigger->cut();
    return 0;
  }
  uint64_t registration = next_registration_++;
  websockets_.emplace(registration, std::move(trigger));
  publish(counters_.websocket_sessions, websockets_.size());
  return registration;
}

void WebShared::websocket_closed(uint64_t registration) {
  std::lock_guard lock(mutex_);
  if (websockets_.erase(registration) && !stopping_) publish(counters_.websocket_sessions, websockets_.size());
}

void WebShared::cut_all_triggers() {
  std::lock_guard lock(mutex_);
  stopping_ = true;
  for (auto& [registration, trigger] : websockets_) trigger->cut();
}
