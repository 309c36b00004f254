#include "web/web_access.hpp"

#include <boost/asio/ip/address.hpp>
#include <nlohmann/json.hpp>

#include "core/log.hpp"

namespace {

HttpReply not_allowed(std::string_view allow) {
  auto reply = failed_reply(405, "Method not allowed");
  reply.allow = allow;
  return reply;
}

// "/api/users/bob" under "/api/users" -> "bob"; "" for the collection itself;
// nothing for other targets.
std::optional<std::string_view> below(std::string_view target, std::string_view prefix) {
  target = target.substr(0, target.find('?'));
  if (!target.starts_with(prefix)) return std::nullopt;
  auto rest = target.substr(prefix.size());
  if (rest.empty()) return rest;
  if (rest.front() != '/') return std::nullopt;
  return rest.substr(1);
}

std::string text_member(const nlohmann::json& body, const char* key) {
  auto found = body.find(key);
  return found != body.end() && found->is_string() ? found->get<std::string>() : std::string();
}

nlohmann::json parse_object(std::string_view body) {
  auto json = nlohmann::json::parse(body.begin(), body.end(), nullptr, false);
  return json.is_object() ? json : nlohmann::json::object();
}

// [{"name":..,"role":..},...]
std::string names_and_roles(const std::vector<Users::Identity>& list) {
  auto out = nlohmann::json::array();
  for (auto& item : list) out.push_back({{"name", item.name}, {"role", to_string(item.role)}});
  return out.dump();
}

bool is_write(std::string_view method) { return method != "GET" && method != "HEAD"; }

// 127.0.0.0/8 and ::1, also as an IPv4-mapped IPv6 address.
bool is_loopback(std::string_view address) {
  boost::system::error_code ec;
  auto parsed = boost::asio::ip::make_address(std::string(address), ec);
  if (ec) return false;
  if (parsed.is_v6() && parsed.to_v6().is_v4_mapped())
    return boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, parsed.to_v6()).is_loopback();
  return parsed.is_loopback();
}

}  // namespace

WebAccess::WebAccess(std::string users_file, WebAccessSettings settings)
    : settings_(std::move(settings)),
      users_(std::move(users_file)),
      sessions_(settings_.session_idle),
      origins_(settings_.allowed_hosts, settings_.allowed_origins) {}

std::string_view WebAccess::session_id(std::string_view cookie) {
  while (!cookie.empty()) {
    auto end = cookie.find(';');
    auto pair = cookie.substr(0, end);
    while (pair.starts_with(' ')) pair.remove_prefix(1);
    if (pair.starts_with(kCookie) && pair.size() > kCookie.size() && pair[kCookie.size()] == '=')
      return pair.substr(kCookie.size() + 1);
    if (end == std::string_view::npos) break;
    cookie.remove_prefix(end + 1);
  }
  return {};
}

std::string_view WebAccess::address_of(std::string_view client) {
  if (client.starts_with('[')) return client.substr(1, client.find(']') - 1);
  auto colon = client.rfind(':');
  return colon == std::string_view::npos ? client : client.substr(0, colon);
}

std::string_view WebAccess::bearer_token(std::string_view authorization) {
  constexpr std::string_view kBearer = "Bearer ";
  return authorization.starts_with(kBearer) ? authorization.substr(kBearer.size()) : std::string_view{};
}

WebCaller WebAccess::caller_of(std::string_view cookie, std::string_view authorization, std::string_view client) {
  if (auto id = session_id(cookie); !id.empty())
    if (auto session = sessions_.use(id)) return WebCaller::of(session->role, session->user, std::string(client));
  if (auto token = bearer_token(authorization); !token.empty())
    if (auto identity = users_.check_token(token))
      return WebCaller::of(identity->role, "token " + identity->name, std::string(client));
  return WebCaller::of(settings_.anonymous_write ? Role::Operator : Role::Anonymous, "anonymous", std::string(client));
}

std::optional<HttpReply> WebAccess::refuse_foreign(const HttpRequestView& request) const {
  std::string why;
  if (origins_.allows(request.host, request.origin, request.secure, why)) return std::nullopt;
  ZEL_ERROR("Cross-origin {} of '{}' from {} refused: {}", request.method.substr(0, 20), request.target.substr(0, 200),
            request.client, why);
  return failed_reply(403, "Cross-origin request refused: " + why + ".");
}

std::optional<HttpReply> WebAccess::refuse_plain(const HttpRequestView& request) const {
  if (!settings_.tls || request.secure || is_loopback(address_of(request.client))) return std::nullopt;
  if (!https_port_ || request.host.empty() || !origins_.host_allowed(request.host))
    return failed_reply(403, "Plain HTTP answers the loopback only; this instrument wants HTTPS.");
  auto name = OriginPolicy::host_name(request.host);
  bool v6 = name.find(':') != std::string_view::npos;
  HttpReply reply = json_reply(308, "");
  reply.location = fmt::format("https://{}{}{}:{}{}", v6 ? "[" : "", name, v6 ? "]" : "", https_port_,
                               request.target.starts_with('/') ? request.target : std::string_view("/"));
  return reply;
}

std::optional<HttpReply> WebAccess::answer(const HttpRequestView& request) {
  auto target = request.target;
  std::optional<std::string_view> users = below(target, "/api/users");
  std::optional<std::string_view> tokens = below(target, "/api/tokens");
  bool login = below(target, "/api/login") == std::string_view{};
  bool logout = below(target, "/api/logout") == std::string_view{};
  bool session = below(target, "/api/session") == std::string_view{};
  if (!users && !tokens && !login && !logout && !session) return std::nullopt;

  if (is_write(request.method))
    if (auto refused = refuse_foreign(request)) return refused;
  if (login) return request.method == "POST" ? this->login(request) : not_allowed("POST");
  if (logout) return request.method == "POST" ? this->logout(request) : not_allowed("POST");
  if (session) return request.method == "GET" || request.method == "HEAD" ? this->session(request) : not_allowed("GET, HEAD");

  auto caller = caller_of(request);
  if (caller.role != Role::Admin) {
    ZEL_ERROR("{} from {} asked for '{}' without being an admin", caller.name, caller.client, target.substr(0, 200));
    return failed_reply(caller.role == Role::Anonymous ? 401 : 403, "Only an admin manages users and tokens.");
  }
  return users ? manage_users(request, *users, caller) : manage_tokens(request, *tokens, caller);
}

std::string WebAccess::cookie(std::string_view id, bool clear, bool secure) const {
  return fmt::format("{}={}; Path=/; HttpOnly; SameSite=Strict{}{}", kCookie, id, secure ? "; Secure" : "",
                     clear ? "; Max-Age=0" : "");
}

HttpReply WebAccess::login(const HttpRequestView& request) {
  auto from = request.client;
  auto address = address_of(from);
  if (!limiter_.may_try(address)) {
    ZEL_ERROR("Login from {} refused: too many failed tries, wait a minute", from);
    return failed_reply(429, "Too many failed logins from this address; try again in a minute.");
  }
  auto body = parse_object(request.body);
  auto name = text_member(body, "user");
  auto identity = users_.check_password(name, text_member(body, "password"));
  if (!identity) {
    limiter_.failed(address);
    ZEL_ERROR("Login of '{}' from {} refused: wrong user name or password", name.substr(0, 64), from);
    return failed_reply(401, "Wrong user name or password.");
  }
  limiter_.succeeded(address);
  auto reply = json_reply(200, nlohmann::json{{"user", identity->name}, {"role", to_string(identity->role)}}.dump());
  reply.set_cookie = cookie(sessions_.open(identity->name, identity->role), false, request.secure);
  ZEL_INFO("User '{}' ({}) logged in from {}", identity->name, to_string(identity->role), from);
  return reply;
}

HttpReply WebAccess::logout(const HttpRequestView& request) {
  auto id = session_id(request.cookie);
  if (auto session = sessions_.use(id)) ZEL_INFO("User '{}' logged out from {}", session->user, request.client);
  sessions_.close(id);
  auto reply = json_reply(200, std::string(HttpRouter::kSuccess));
  reply.set_cookie = cookie("", true, request.secure);
  return reply;
}

HttpReply WebAccess::session(const HttpRequestView& request) {
  auto caller = caller_of(request);
  bool anonymous = caller.name == "anonymous";
  nlohmann::json out{{"user", anonymous ? nlohmann::json() : nlohmann::json(caller.name)},
                     {"role", to_string(anonymous ? Role::Anonymous : caller.role)},
                     {"anonymous_write", settings_.anonymous_write}};
  return json_reply(200, out.dump());
}

HttpReply WebAccess::manage_users(const HttpRequestView& request, std::string_view name, const WebCaller& admin) {
  std::string error;
  if (name.empty() && (request.method == "GET" || request.method == "HEAD"))
    return json_reply(200, names_and_roles(users_.users()));
  if (name.empty() && request.method == "POST") {
    auto body = parse_object(request.body);
    auto user = text_member(body, "name");
    auto role = role_named(text_member(body, "role"));
    if (!role || !users_.set_user(user, text_member(body, "password"), *role, error))
      return failed_reply(400, error.empty() ? "A user needs a name, a password and a role." : error);
    sessions_.close_user(user);  // a changed role takes effect at the next login
    ZEL_INFO("Admin '{}' from {} set user '{}' ({})", admin.name, admin.client, user, to_string(*role));
    return json_reply(200, std::string(HttpRouter::kSuccess));
  }
  if (!name.empty() && request.method == "DELETE") {
    if (!users_.remove_user(name, error)) return failed_reply(400, error);
    sessions_.close_user(name);
    ZEL_INFO("Admin '{}' from {} removed user '{}'", admin.name, admin.client, name);
    return json_reply(200, std::string(HttpRouter::kSuccess));
  }
  return not_allowed(name.empty() ? "GET, HEAD, POST" : "DELETE");
}

HttpReply WebAccess::manage_tokens(const HttpRequestView& request, std::string_view name, const WebCaller& admin) {
  std::string error;
  if (name.empty() && (request.method == "GET" || request.method == "HEAD"))
    return json_reply(200, names_and_roles(users_.tokens()));
  if (name.empty() && request.method == "POST") {
    auto body = parse_object(request.body);
    auto token_name = text_member(body, "name");
    auto role = role_named(text_member(body, "role"));
    auto token = role ? users_.issue_token(token_name, *role, error) : std::nullopt;
    if (!token) return failed_reply(400, error.empty() ? "A token needs a name and a role." : error);
    ZEL_INFO("Admin '{}' from {} issued token '{}' ({})", admin.name, admin.client, token_name, to_string(*role));
    return json_reply(200, nlohmann::json{{"name", token_name}, {"role", to_string(*role)}, {"token", *token}}.dump());
  }
  if (!name.empty() && request.method == "DELETE") {
    if (!users_.revoke_token(name, error)) return failed_reply(404, error);
    ZEL_INFO("Admin '{}' from {} revoked token '{}'", admin.name, admin.client, name);
    return json_reply(200, std::string(HttpRouter::kSuccess));
  }
  return not_allowed(name.empty() ? "GET, HEAD, POST" : "DELETE");
}
