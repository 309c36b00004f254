#include "web/client_protocol.hpp"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "core/clock.hpp"
#include "core/log.hpp"
#include "core/write_path.hpp"
#include "core/x2x.hpp"

namespace {

// Client texts are shown in the log cut to a readable length.
std::string shown(std::string_view text) {
  constexpr size_t kShown = 120;
  if (text.size() <= kShown) return std::string(text);
  return std::string(text.substr(0, kShown)) + "...";
}

// Orders the numbered subscriptions against a number sought.
constexpr auto kNumberBelow = [](const auto& numbered, uint64_t wanted) { return numbered.id < wanted; };

FieldBase* field_at(Vertex& tree, const std::string& path) {
  Vertex* v = tree.find(path);
  return v && v->is_field() ? static_cast<FieldBase*>(v) : nullptr;
}

}  // namespace

ClientProtocol::ClientProtocol(Vertex& tree, std::shared_ptr<PushTrigger> trigger, size_t max_subscriptions,
                               CallerOf caller)
    : tree_(tree), trigger_(std::move(trigger)), max_subscriptions_(max_subscriptions), caller_(std::move(caller)) {
  handlers_.emplace("subscribe", [this](std::string_view data) { subscribe(data); });
  handlers_.emplace("set", [this](std::string_view data) { set(data); });
  handlers_.emplace("unsubscribe", [this](std::string_view data) { unsubscribe(data); });
}

template <class... Args>
void ClientProtocol::problem(fmt::format_string<Args...> format, Args&&... args) {
  ++problems_;
  if (problems_ < kLoggedProblems) {
    ZEL_ERROR("{}", fmt::format(format, std::forward<Args>(args)...));
  } else if (problems_ == kLoggedProblems) {
    ZEL_ERROR("{} (further problems of this WebSocket client are not logged)",
              fmt::format(format, std::forward<Args>(args)...));
  }
}

void ClientProtocol::handle_message(std::string_view text) {
  // The library parses any depth but writes "data" out again by recursion.
  if (!x2x::json_depth_within(text)) {
    problem("WebSocket message nested deeper than {} levels: {}", x2x::kMaxJsonDepth, shown(text));
    return;
  }
  auto message = nlohmann::json::parse(text.begin(), text.end(), nullptr, false);
  if (message.is_discarded()) {
    problem("Malformed WebSocket message: {}", shown(text));
    return;
  }
  if (!message.is_object()) {
    problem("WebSocket message is not an object: {}", shown(text));
    return;
  }
  auto event = message.find("event");
  if (event == message.end() || !event->is_string()) {
    problem("WebSocket message without an event name: {}", shown(text));
    return;
  }
  const auto& name = event->get_ref<const std::string&>();
  auto handler = handlers_.find(name);
  if (handler == handlers_.end()) {
    problem("Unknown WebSocket event '{}'", shown(name));
    return;
  }
  auto data = message.find("data");
  std::string data_text = data == message.end() ? "null" : data->dump();
  try {
    handler->second(data_text);
  } catch (const std::exception& e) {
    ZEL_ERROR("WebSocket event '{}' failed: {}", name, e.what());
  }
}

void ClientProtocol::for_each_field(std::string_view data, std::string_view event, std::string_view verb,
                                    const std::function<void(FieldBase&, const nlohmann::json&)>& f) {
  auto members = nlohmann::json::parse(data.begin(), data.end(), nullptr, false);
  if (!members.is_object()) {
    problem("WebSocket '{}' data is not an object: {}", event, shown(data));
    return;
  }
  for (auto& [path, value] : members.items()) {
    if (FieldBase* field = field_at(tree_, path)) f(*field, value);
    else problem("WebSocket client tried to {} unknown field '{}'", verb, shown(path));
  }
}

void ClientProtocol::subscribe(std::string_view data) {
  for_each_field(data, "subscribe", "subscribe to", [this](FieldBase& field, const nlohmann::json& mode) {
    if (auto known = by_field_.find(&field); known != by_field_.end()) {
      known->second->report_again();
      return;
    }
    if (subscriptions_.size() >= max_subscriptions_) {
      problem("WebSocket client has {} subscriptions, the most allowed; '{}' is not watched", max_subscriptions_,
              field.path());
      return;
    }
    auto kind = mode.is_string() && mode.get_ref<const std::string&>() == "history" ? Subscription::Mode::History
                                                                                   : Subscription::Mode::Latest;
    auto id = next_id_++;
    auto subscription = std::make_unique<Subscription>(id, field, kind, trigger_);
    by_field_.emplace(&field, subscription.get());
    subscriptions_.push_back({id, std::move(subscription)});
  });
}

void ClientProtocol::set(std::string_view data) {
  auto members = nlohmann::json::parse(data.begin(), data.end(), nullptr, false);
  if (!members.is_object()) {
    problem("WebSocket '{}' data is not an object: {}", "set", shown(data));
    return;
  }
  // Asked anew for every message: a logout or a revoked token counts at once.
  auto web = caller_();
  auto caller = web.for_write(WriteSource::WebSocket);
  for (auto& [path, value] : members.items()) {
    auto answer = WritePath::write(tree_, {caller, path, value.dump()});
    if (answer.ok()) continue;
    if (replies_.size() >= kMaxWaitingReplies) continue;
    nlohmann::json reply{{"event", "set_refused"}, {"data", {{"path", path}, {"reason", answer.reason}}}};
    replies_.push_back(reply.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    trigger_->wake();
  }
}

void ClientProtocol::unsubscribe(std::string_view data) {
  for_each_field(data, "unsubscribe", "unsubscribe from", [this](FieldBase& field, const nlohmann::json&) {
    auto known = by_field_.find(&field);
    if (known == by_field_.end()) {
      problem("WebSocket client tried to unsubscribe from unknown field '{}'", field.path());
      return;
    }
    auto id = known->second->id();
    by_field_.erase(known);
    auto at = std::lower_bound(subscriptions_.begin(), subscriptions_.end(), id, kNumberBelow);
    subscriptions_.erase(at);
  });
}

ClientProtocol::PassResult ClientProtocol::write_push(std::string& out) {
  PassResult result;
  out.clear();
  if (!replies_.empty()) {
    out = std::move(replies_.front());
    replies_.erase(replies_.begin());
    result.wrote = true;
    result.complete = false;
    return result;
  }
  out.append(kUpdateOpening);
  trigger_->take(queued_);
  std::sort(queued_.begin(), queued_.end());
  queued_.erase(std::unique(queued_.begin(), queued_.end()), queued_.end());
  auto start = Clock::steady_ns();
  size_t visited = 0;
  nlohmann::ordered_json lost;  // history subscriptions that dropped samples
  // Both sorted by number: each lookup starts where the last one ended.
  auto from = subscriptions_.begin();
  for (; visited < queued_.size(); ++visited) {
    if (Clock::seconds_since(start) >= kPassBudgetSeconds) {
      result.complete = false;
      break;
    }
    auto id = queued_[visited];
    from = std::lower_bound(from, subscriptions_.end(), id, kNumberBelow);
    if (from == subscriptions_.end() || from->id != id) continue;  // unsubscribed meanwhile
    auto& subscription = *from->subscription;
    if (!subscription.due()) continue;
    if (result.wrote) out.push_back(',');
    result.wrote = true;
    subscription.write_report(out);
    if (auto dropped = subscription.dropped()) lost[subscription.field().path()] = dropped;
  }
  queued_.erase(queued_.begin(), queued_.begin() + static_cast<std::ptrdiff_t>(visited));
  out.append("}}");
  // Told right after the update whose samples follow the gap.
  if (lost.is_object()) {
    nlohmann::ordered_json notice{{"event", "history_dropped"}, {"data", std::move(lost)}};
    replies_.push_back(notice.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
    result.complete = false;
  }
  result.seconds = Clock::seconds_since(start);
  if (result.seconds > kSlowPassSeconds) ZEL_WARN("Slow WebSocket response time: {} seconds", result.seconds);
  return result;
}
