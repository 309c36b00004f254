#include "web/alarm_requests.hpp"

#include <charconv>

#include <nlohmann/json.hpp>

#include "core/alarm_journal.hpp"
#include "core/clock.hpp"
#include "core/log.hpp"
#include "web/web_access.hpp"

namespace {

constexpr std::string_view kPrefix = "/api/alarms";

// "/api/alarms/17/ack" -> 17; nothing for anything else.
std::optional<uint64_t> acknowledged_id(std::string_view rest) {
  if (!rest.ends_with("/ack")) return std::nullopt;
  auto digits = rest.substr(0, rest.size() - 4);
  uint64_t id = 0;
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), id);
  if (digits.empty() || ec != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
  return id;
}

nlohmann::json stamp_or_null(uint64_t stamp) { return stamp ? nlohmann::json(std::to_string(stamp)) : nlohmann::json(); }

}  // namespace

HttpReply AlarmRequests::answer(const HttpRequestView& request, AlarmJournal& journal, WebAccess& access) {
  auto path = request.target.substr(0, request.target.find('?'));
  bool read = request.method == "GET" || request.method == "HEAD";
  if (path == kPrefix && read) return list(request.target, journal);
  if (path != kPrefix && request.method == "POST") return acknowledge(request, journal, access);
  if (path != kPrefix && read) return text_reply(404, HttpRouter::kFileNotFound);
  ZEL_ERROR("HTTP method {} is not allowed for '{}'", request.method.substr(0, 20), request.target.substr(0, 200));
  auto reply = text_reply(405, "Method not allowed");
  reply.allow = path == kPrefix ? "GET, HEAD" : "POST";
  return reply;
}

HttpReply AlarmRequests::list(std::string_view target, const AlarmJournal& journal) {
  auto after = static_cast<uint64_t>(std::max(0L, query_number(target, "after", 0)));
  auto limit = static_cast<size_t>(std::clamp(query_number(target, "limit", kDefaultLimit), 1L, 10000L));
  auto page = journal.list(after, limit);
  nlohmann::json alarms = nlohmann::json::array();
  for (auto& entry : page.alarms) {
    alarms.push_back({{"id", entry.id},
                      {"time", std::to_string(entry.time)},
                      {"path", entry.path},
                      {"kind", to_string(entry.kind)},
                      {"text", entry.text},
                      {"acknowledged_by", entry.acknowledged() ? nlohmann::json(entry.acknowledged_by) : nlohmann::json()},
                      {"acknowledged_at", stamp_or_null(entry.acknowledged_at)}});
  }
  nlohmann::json out{{"last", page.last}, {"unacknowledged", page.unacknowledged}, {"alarms", std::move(alarms)}};
  HttpReply reply;
  reply.content_type = "application/json";
  reply.body = out.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  return reply;
}

HttpReply AlarmRequests::acknowledge(const HttpRequestView& request, AlarmJournal& journal, WebAccess& access) {
  if (auto refused = access.refuse_foreign(request)) return std::move(*refused);
  auto path = request.target.substr(0, request.target.find('?'));
  auto rest = path.substr(kPrefix.size() + 1);
  auto id = acknowledged_id(rest);
  if (!id && rest != "ack-all") return failed_reply(404, "No such alarm request.");
  auto caller = access.caller_of(request);
  if (!at_least(caller.role, Role::Operator)) {
    std::string reason = caller.role == Role::Anonymous
                             ? "log in to acknowledge alarms (it needs the role operator)"
                             : fmt::format("acknowledging alarms needs the role operator, more than {}",
                                           to_string(caller.role));
    ZEL_ERROR("User can't acknowledge alarms http {}: {}", caller.label, reason);
    return failed_reply(caller.role == Role::Anonymous ? 401 : 403, std::move(reason));
  }
  auto now = Clock::wall_ns();
  if (!id) {
    auto count = journal.acknowledge_all(caller.name, now);
    ZEL_INFO("User http {} acknowledged all alarms ({})", caller.label, count);
  } else {
    switch (journal.acknowledge(*id, caller.name, now)) {
      case AlarmJournal::AckResult::NotFound: return failed_reply(404, fmt::format("There is no alarm {}.", *id));
      case AlarmJournal::AckResult::AlreadyAcknowledged: break;
      case AlarmJournal::AckResult::Done: {
        auto entry = journal.entry(*id);
        ZEL_INFO("User http {} acknowledged alarm {} ({} of '{}')", caller.label, *id,
                 entry ? to_string(entry->kind) : "?", entry ? entry->path : "?");
        break;
      }
    }
  }
  HttpReply reply;
  reply.content_type = "application/json";
  reply.body = HttpRouter::kSuccess;
  return reply;
}
