#pragma once
// ClientProtocol: what a WebSocket client may ask of the tree and what it is
// sent back; the part of a WebSocket session that knows nothing of sockets.
//
// A client message is a JSON object {"event": name, "data": any}; the handler
// registered for the event runs with the raw text of "data". Events:
//   "subscribe"   {"<field path>": mode, ...}: watch these fields. A mode of
//                 "history" reports every change, anything else the latest.
//   "set"         {"<field path>": value, ...}: each member is one write
//                 through the write path (a node's path takes an object). A
//                 refused member is answered with
//                 {"event":"set_refused","data":{"path":p,"reason":r}}.
//   "unsubscribe" {"<field path>": any, ...}: stop watching these fields.
// Each member is handled on its own, so one bad path does not stop the rest.
// Bad input is logged (at most kLoggedProblems lines per client) and
// otherwise ignored; apart from refused sets the client gets no error reply.
//
// A push pass writes {"event": "update","data":{ then, for every subscription
// whose field changed, "<path>":[[value,stamp],...], and closes with "}}".
// It visits the subscriptions its trigger queued, in the order they were
// made, for at most kPassBudgetSeconds; those it did not reach come first in
// the next pass.
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json_fwd.hpp>

#include "core/field.hpp"
#include "web/push_trigger.hpp"
#include "web/subscription.hpp"
#include "web/web_caller.hpp"

class ClientProtocol {
 public:
  static constexpr std::string_view kUpdateOpening = R"({"event": "update","data":{)";
  static constexpr size_t kPushBufferReserve = 32768;
  // A pass stops walking after this much time; the rest waits for the next.
  static constexpr double kPassBudgetSeconds = 0.5;
  // A pass that takes longer is logged as slow.
  static constexpr double kSlowPassSeconds = 0.1;
  static constexpr size_t kLoggedProblems = 100;
  // Replies waiting beyond this many are dropped (the log has them all).
  static constexpr size_t kMaxWaitingReplies = 64;

  using Handler = std::function<void(std::string_view data)>;
  // Who the client is at this moment (asked on every set).
  using CallerOf = std::function<WebCaller()>;

  struct PassResult {
    bool wrote = false;     // at least one member: `out` is to be sent
    bool complete = true;   // every queued subscription was visited
    double seconds = 0;
  };

  ClientProtocol(Vertex& tree, std::shared_ptr<PushTrigger> trigger, size_t max_subscriptions, CallerOf caller);

  // Parses one client message and runs its event's handler.
  void handle_message(std::string_view text);
  // One push pass into `out` (cleared first). A waiting reply goes first,
  // alone, and leaves the pass incomplete so the updates follow.
  PassResult write_push(std::string& out);


  size_t subscription_count() const { return subscriptions_.size(); }

 private:
  void subscribe(std::string_view data);
  void set(std::string_view data);
  void unsubscribe(std::string_view data);
  // Runs `f` for each member of an event's data (an object whose member
  // names are field paths) that names a field; logs the others as "WebSocket
  // client tried to <verb> unknown field '<path>'".
  void for_each_field(std::string_view data, std::string_view event, std::string_view verb,
                      const std::function<void(FieldBase&, const nlohmann::json&)>& f);
  // Problems in what a client sent, logged up to kLoggedProblems times.
  template <class... Args>
  void problem(fmt::format_string<Args...> format, Args&&... args);

  Vertex& tree_;
  std::shared_ptr<PushTrigger> trigger_;
  size_t max_subscriptions_;
  CallerOf caller_;
  std::unordered_map<std::string, Handler> handlers_;
  // Sorted by number, which grows with each subscription, so the order they
  // were made. A flat array, not a tree: a pass looks up every queued
  // number, and walking a tree's scattered nodes cost most of the pass.
  struct Numbered {
    uint64_t id;
    std::unique_ptr<Subscription> subscription;
  };
  std::vector<Numbered> subscriptions_;
  std::unordered_map<const FieldBase*, Subscription*> by_field_;
  uint64_t next_id_ = 1;
  std::vector<uint64_t> queued_;  // taken from the trigger, not yet visited
  size_t problems_ = 0;
  std::vector<std::string> replies_;  // waiting to be sent, oldest first
};
