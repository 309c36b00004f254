#pragma once
// WebShared: what the sessions of one web server share: the tree, the request
// router over the document root, who may do what (WebAccess), the limits,
// and the bookkeeping of live
// sessions. The server cuts every WebSocket session's push trigger when it
// stops, so no tree thread posts into a server that is going away.
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "core/field.hpp"
#include "web/document_root.hpp"
#include "web/http_router.hpp"
#include "web/push_trigger.hpp"
#include "web/web_access.hpp"

class Root;

struct WebLimits {
  size_t http_body_max = 1u << 20;        // a request body above this gets 413
  size_t http_header_max = 16u << 10;     // request headers above this get 431
  size_t http_pipeline_max = 8;           // replies queued before reading pauses
  std::chrono::seconds http_timeout{30};  // to read a request or write a reply
  size_t websocket_message_max = 1u << 20;  // a bigger message closes the connection (1009)
  std::chrono::seconds websocket_idle_timeout{60};  // pinged at half, closed when silent
  std::chrono::milliseconds push_interval{10};      // the shortest time between two pushes
  size_t subscriptions_max = 100000;      // per WebSocket session
};

class WebShared {
 public:
  struct Counters {
    ValueField<unsigned int>* http_sessions = nullptr;
    ValueField<unsigned int>* websocket_sessions = nullptr;
  };

  WebShared(Root& root, std::string document_dir, WebLimits limits, Counters counters,
            std::shared_ptr<WebAccess> access);

  Root& root() const { return root_; }
  WebAccess& access() const { return *access_; }
  const HttpRouter& router() const { return router_; }
  const WebLimits& limits() const { return limits_; }

  // Session bookkeeping, from any thread.
  void http_opened();
  void http_closed();
  // Registers a WebSocket session's trigger; cuts it at once when the
  // server is stopping. Returns the registration to close.
  uint64_t websocket_opened(std::shared_ptr<PushTrigger> trigger);
  void websocket_closed(uint64_t registration);

  // No session is woken by a field change after this returns.
  void cut_all_triggers();

 private:
  void publish(ValueField<unsigned int>* field, size_t count);

  Root& root_;
  std::shared_ptr<WebAccess> access_;
  DocumentRoot documents_;
  HttpRouter router_;
  WebLimits limits_;
  Counters counters_;
  std::mutex mutex_;  // guards the members below
  size_t http_count_ = 0;
  std::unordered_map<uint64_t, std::shared_ptr<PushTrigger>> websockets_;
  uint64_t next_registration_ = 1;
  bool stopping_ = false;
};
