#include "web/http_router.hpp"

#include <charconv>

#include <nlohmann/json.hpp>

#include "core/alarms.hpp"
#include "core/log.hpp"
#include "core/log_io.hpp"
#include "core/root.hpp"
#include "web/alarm_requests.hpp"
#include "web/document_root.hpp"
#include "core/write_path.hpp"
#include "std/paths.hpp"
#include "web/field_access.hpp"
#include "web/tree_description.hpp"
#include "web/web_access.hpp"

namespace {

constexpr std::string_view kJson = "application/json";

bool has_prefix_segment(std::string_view target, std::string_view prefix) {
  if (!target.starts_with(prefix)) return false;
  auto rest = target.substr(prefix.size());
  return rest.empty() || rest.front() == '/' || rest.front() == '?';
}

}  // namespace

long query_number(std::string_view target, std::string_view name, long fallback) {
  auto query = target.find('?');
  if (query == std::string_view::npos) return fallback;
  auto rest = target.substr(query + 1);
  while (!rest.empty()) {
    auto amp = rest.find('&');
    auto pair = rest.substr(0, amp);
    rest = amp == std::string_view::npos ? std::string_view{} : rest.substr(amp + 1);
    if (pair.starts_with(name) && pair.size() > name.size() && pair[name.size()] == '=') {
      long value = fallback;
      auto digits = pair.substr(name.size() + 1);
      auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
      return ec == std::errc() && end == digits.data() + digits.size() ? value : fallback;
    }
  }
  return fallback;
}

namespace {

// The tree path a target names below `prefix`: "/io/a/b.json", "/io/a/b/index.json"
// and "/io/a/b" all name "a/b". Empty optional for a malformed target.
std::optional<std::string> tree_path(std::string_view target, std::string_view prefix) {
  std::string rest(target.substr(prefix.size()));
  if (rest.empty() || rest.front() != '/') rest.insert(0, "/");
  auto relative = DocumentRoot::relative_path(rest);
  if (!relative) return std::nullopt;
  std::string path = std::move(*relative);
  if (path == "index.json") return std::string();
  if (path.ends_with("/index.json")) path.resize(path.size() - std::string_view("/index.json").size());
  else if (path.ends_with(".json")) path.resize(path.size() - std::string_view(".json").size());
  return path;
}

HttpReply not_found() { return text_reply(404, HttpRouter::kFileNotFound); }

}  // namespace

HttpRouter::HttpRouter(Root& root, const DocumentRoot& documents, WebAccess& access)
    : root_(root), documents_(documents), reports_(Paths::reports_dir()), access_(access) {}

HttpReply HttpRouter::answer(const HttpRequestView& request) const {
  auto target = request.target;
  bool read = request.method == "GET" || request.method == "HEAD";
  bool write = request.method == "PUT" || request.method == "POST";
  std::string_view allow = "GET, HEAD";
  if (auto refused = access_.refuse_plain(request)) return std::move(*refused);
  if (auto reply = access_.answer(request)) return std::move(*reply);
  if (has_prefix_segment(target, "/api/alarms")) return AlarmRequests::answer(request, root_.alarms().journal(), access_);
  if (has_prefix_segment(target, "/io")) {
    if (read) return read_tree(target);
    if (write) {
      if (auto refused = access_.refuse_foreign(request)) return std::move(*refused);
      return set_field(request);
    }
    allow = "GET, HEAD, PUT, POST";
  } else if (read) {
    if (has_prefix_segment(target, "/api/tree")) return describe_tree(target);
    if (has_prefix_segment(target, "/api/interlocks")) return interlocks();
    if (has_prefix_segment(target, "/api/log")) return log_records(target);
    if (has_prefix_segment(target, "/api")) return not_found();
    if (has_prefix_segment(target, "/reports")) return document(reports_, target.substr(std::string_view("/reports").size()));
    return document(documents_, target);
  }
  ZEL_ERROR("HTTP method {} is not allowed for '{}'", request.method.substr(0, 20), target.substr(0, 200));
  auto reply = text_reply(405, "Method not allowed");
  reply.allow = allow;
  return reply;
}

HttpReply HttpRouter::read_tree(std::string_view target) const {
  auto path = tree_path(target, "/io");
  Vertex* vertex = path ? root_.find_path(*path) : nullptr;
  if (!vertex) return not_found();
  return json_reply(200, vertex->json());
}

HttpReply HttpRouter::set_field(const HttpRequestView& request) const {
  HttpReply reply = json_reply(200, std::string(kFailed));
  auto path = tree_path(request.target, "/io");
  if (!path) {
    reply.status = 400;
    reply.error = "The target names no field.";
    return reply;
  }
  auto caller = access_.caller_of(request);
  auto answer = WritePath::write(root_, {caller.for_write(WriteSource::Http), *path, request.body});
  if (answer.ok()) {
    reply.body = kSuccess;
    return reply;
  }
  // Refused for want of a login: 401 tells a script to log in first.
  bool login_wanted = answer.status == WriteStatus::Denied && caller.role == Role::Anonymous;
  reply.status = login_wanted ? 401 : answer.http_status();
  reply.error = std::move(answer.reason);
  return reply;
}

HttpReply HttpRouter::describe_tree(std::string_view target) const {
  auto path = tree_path(target, "/api/tree");
  Vertex* vertex = path ? root_.find_path(*path) : nullptr;
  if (!vertex) return not_found();
  int depth = static_cast<int>(std::clamp(query_number(target, "depth", 1), 0L, 64L));
  return json_reply(200, tree_descriptions_.get(fmt::format("{}?{}", *path, depth),
                                           [&] { return TreeDescription::of(*vertex, depth); }));
}

HttpReply HttpRouter::interlocks() const { return json_reply(200, TreeDescription::interlocks(root_)); }

HttpReply HttpRouter::log_records(std::string_view target) const {
  auto after = static_cast<uint64_t>(std::max(0L, query_number(target, "after", 0)));
  auto limit = static_cast<size_t>(std::clamp(query_number(target, "limit", kDefaultLogLimit), 1L, 10000L));
  auto entries = root_.log().records_after(after);
  size_t skip = entries.size() > limit ? entries.size() - limit : 0;
  nlohmann::json records = nlohmann::json::array();
  for (size_t i = skip; i < entries.size(); ++i) {
    auto& [sequence, record] = entries[i];
    records.push_back({{"seq", sequence},
                       {"level", to_string(record.level)},
                       {"source", record.source},
                       {"line", record.line},
                       {"text", record.text},
                       {"stamp", record.stamp}});
  }
  nlohmann::json out{{"last", root_.log().last_sequence()}, {"records", std::move(records)}};
  return json_reply(200, out.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

HttpReply HttpRouter::document(const DocumentRoot& files, std::string_view target) {
  DocumentRoot::Document file;
  switch (files.find(target, file)) {
    case DocumentRoot::Result::Found: {
      HttpReply reply;
      reply.content_type = file.content_type;
      reply.cache_control = file.cache_control;
      reply.body = std::move(file.content);
      return reply;
    }
    case DocumentRoot::Result::Refused:
    case DocumentRoot::Result::NotFound:
      break;
  }
  return not_found();
}

HttpReply text_reply(unsigned status, std::string_view text) {
  HttpReply reply;
  reply.status = status;
  reply.body = text;
  return reply;
}

HttpReply json_reply(unsigned status, std::string body, std::string error) {
  HttpReply reply;
  reply.status = status;
  reply.content_type = kJson;
  reply.body = std::move(body);
  reply.error = std::move(error);
  return reply;
}

HttpReply failed_reply(unsigned status, std::string reason) {
  return json_reply(status, std::string(HttpRouter::kFailed), std::move(reason));
}
