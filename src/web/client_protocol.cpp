#include "web/client_protocol.hpp"

#include <nlohmann/json.hpp>

#include "core/clock.hpp"
#include "core/log.hpp"

namespace {

// Client texts are shown in the log cut to a readable length.
std::string shown(std::string_view text) {
  constexpr size_t kShown = 120;
  if (text.size() <= kShown) return std::string(text);
  return std::string(text.substr(0, kShown)) + "...";
}

FieldBase* field_at(Vertex& tree, const std::string& path) {
  Vertex* v = tree.find(path);
  return v && v->is_field() ? static_cast<FieldBase*>(v) : nullptr;
}

}  // namespace

ClientProtocol::ClientProtocol(Vertex& tree, std::shared_ptr<PushTrigger> trigger, size_t max_subscriptions)
    : tree_(tree), trigger_(std::move(trigger)), max_subscriptions_(max_subscriptions) {
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

bool ClientProtocol::parse_members(std::string_view data, std::string_view event, nlohmann::json& members) {
  members = nlohmann::json::parse(data.begin(), data.end(), nullptr, false);
  if (members.is_object()) return true;
  problem("WebSocket '{}' data is not an object: {}", event, shown(data));
  return false;
}

void ClientProtocol::subscribe(std::string_view data) {
  nlohmann::json members;
  if (!parse_members(data, "subscribe", members)) return;
  for (auto& [path, mode] : members.items()) {
    FieldBase* field = field_at(tree_, path);
    if (!field) {
      problem("WebSocket client tried to subscribe to unknown field '{}'", shown(path));
      continue;
    }
    if (subscribed_.contains(field)) {
      for (auto& s : subscriptions_)
        if (&s->field() == field) s->report_again();
      continue;
    }
    if (subscriptions_.size() >= max_subscriptions_) {
      problem("WebSocket client has {} subscriptions, the most allowed; '{}' is not watched", max_subscriptions_,
              shown(path));
      continue;
    }
    auto kind = mode.is_string() && mode.get_ref<const std::string&>() == "history" ? Subscription::Mode::History
                                                                                   : Subscription::Mode::Latest;
    subscriptions_.push_back(std::make_unique<Subscription>(*field, kind, trigger_));
    subscribed_.insert(field);
  }
  // The next push carries the current values of the new subscriptions.
  trigger_->notify();
}

void ClientProtocol::set(std::string_view data) {
  nlohmann::json members;
  if (!parse_members(data, "set", members)) return;
  for (auto& [path, value] : members.items()) {
    FieldBase* field = field_at(tree_, path);
    if (!field) {
      problem("WebSocket client tried to set unknown field '{}'", shown(path));
      continue;
    }
    field->read_json(value.dump());
  }
}

void ClientProtocol::unsubscribe(std::string_view data) {
  nlohmann::json members;
  if (!parse_members(data, "unsubscribe", members)) return;
  for (auto& [path, ignored] : members.items()) {
    FieldBase* field = field_at(tree_, path);
    if (!field || !subscribed_.erase(field)) {
      problem("WebSocket client tried to unsubscribe from unknown field '{}'", shown(path));
      continue;
    }
    std::erase_if(subscriptions_, [field](const auto& s) { return &s->field() == field; });
  }
  cursor_ = 0;
}

ClientProtocol::PassResult ClientProtocol::write_push(std::string& out) {
  PassResult result;
  out.clear();
  out.append(kUpdateOpening);
  trigger_->rearm();
  auto start = Clock::steady_ns();
  size_t count = subscriptions_.size();
  size_t visited = 0;
  for (; visited < count; ++visited) {
    if (Clock::seconds_since(start) >= kPassBudgetSeconds) {
      result.complete = false;
      break;
    }
    auto& subscription = *subscriptions_[(cursor_ + visited) % count];
    if (!subscription.changed()) continue;
    if (result.wrote) out.push_back(',');
    result.wrote = true;
    subscription.write_report(out);
  }
  cursor_ = count ? (cursor_ + visited) % count : 0;
  out.append("}}");
  result.seconds = Clock::seconds_since(start);
  if (result.seconds > kSlowPassSeconds) ZEL_WARN("Slow WebSocket response time: {} seconds", result.seconds);
  return result;
}
