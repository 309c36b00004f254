#pragma once
// WebShared: what the sessions of one web server share: the tree, the request
// router over the document root, who may do what (WebAccess), the limits,
// and the bookkeeping of live
// sessions. The server cuts every WebSocket session's push trigger when it
// stops, so no tree thread posts into a server that is going away.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "core/field.hpp"
#include "web/breach_log.hpp"
#include "web/connection_gate.hpp"
#include "web/document_root.hpp"
#include "web/http_router.hpp"
#include "web/push_trigger.hpp"
#include "web/web_access.hpp"

class Root;

// Everything a client can make the server hold is capped here; the web
// server node's settings of the same names override the defaults.
struct WebLimits {
  // The shortest time between two pushes to a session; at 0 a session pushes
  // as soon as its previous write is done (idle.md, "Push cadence").
  static constexpr std::chrono::microseconds kDefaultPushSpacing{1000};

  size_t http_body_max = 1u << 20;        // a request body above this gets 413
  size_t http_header_max = 16u << 10;     // request line and headers above this get 431
  // The bytes of one request not yet parsed: a chunk size line with its
  // extensions, or trailers, that outgrow it get 431.
  size_t http_buffer_max = 64u << 10;
  size_t http_pipeline_max = 8;           // replies queued before reading pauses
  size_t http_output_max = 256u << 10;    // reply bytes queued before reading pauses
  // Reply bytes queued on all connections together: a reply that would go
  // beyond gets 503 and its connection is closed.
  size_t http_output_total_max = 64u << 20;
  // The kernel's send buffer of a connection (it doubles the figure); left
  // to grow on its own, a client that does not read holds megabytes there.
  size_t socket_send_buffer = 128u << 10;
  std::chrono::seconds http_timeout{30};  // to read a request or write a reply
  size_t websocket_message_max = 1u << 20;  // a bigger message closes the connection (1009)
  std::chrono::seconds websocket_idle_timeout{60};  // pinged at half, closed when silent
  std::chrono::microseconds push_spacing = kDefaultPushSpacing;  // the shortest time between two pushes
  // permessage-deflate offered to WebSocket clients: off by default, since
  // for the short pushes it costs more CPU on both ends than it saves bytes.
  bool websocket_compression = false;
  size_t subscriptions_max = 2000;        // per WebSocket session
  size_t connections_max = 4096;          // HTTP and WebSocket together; more get 503
  size_t connections_per_address_max = 512;
  std::chrono::seconds breach_log_interval{60};  // one line per limit, client and interval
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
  ConnectionGate& gate() const { return *gate_; }
  std::shared_ptr<ConnectionGate> gate_ptr() const { return gate_; }
  // A client ran into a limit: logged once per limit, address and interval.
  void breach(std::string_view limit, const std::string& address, std::string_view what) {
    breaches_.report(limit, address, what);
  }

  // Reply bytes queued on all connections, from any thread. The check and
  // the count are apart: threads racing past the check overshoot by a reply.
  bool room_for_output(size_t bytes) const {
    return output_queued_.load(std::memory_order_relaxed) + bytes <= limits_.http_output_total_max;
  }
  void output_queued(size_t bytes) { output_queued_.fetch_add(bytes, std::memory_order_relaxed); }
  void output_gone(size_t bytes) { output_queued_.fetch_sub(bytes, std::memory_order_relaxed); }

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
  std::shared_ptr<ConnectionGate> gate_;
  BreachLog breaches_;
  std::atomic<size_t> output_queued_{0};
  std::mutex mutex_;  // guards the members below
  size_t http_count_ = 0;
  std::unordered_map<uint64_t, std::shared_ptr<PushTrigger>> websockets_;
  uint64_t next_registration_ = 1;
  bool stopping_ = false;
};
