#pragma once
// WebAccess: who a web client is and what it may ask. It joins the users
// file (Users), the logged-in browsers (Sessions), the login rate limit
// (LoginLimiter) and the same-origin rule (OriginPolicy), and answers the
// requests about them:
//
//   POST   /api/login   {"user":..,"password":..}  -> {"user":..,"role":..}
//                       and the cookie "zel_session" (HttpOnly,
//                       SameSite=Strict, Secure under TLS); 401 when wrong,
//                       429 after too many failures from the address
//   POST   /api/logout  ends the session, clears the cookie
//   GET    /api/session {"user": name or null,"role":..,"anonymous_write":..}
//   GET    /api/users, /api/tokens             lists (admin)
//   POST   /api/users   {"name","password","role"} adds or changes a user (admin)
//   DELETE /api/users/<name>                   removes a user (admin)
//   POST   /api/tokens  {"name","role"} -> {"name","role","token"}: the token
//                       is shown this once (admin)
//   DELETE /api/tokens/<name>                  revokes a token (admin)
//
// A caller is named by the session cookie or by "Authorization: Bearer
// <token>"; without either it is anonymous, which reads only, unless the
// server's "anonymous_write" setting lets anonymous clients write as
// operators. Every state-changing request must pass the OriginPolicy first;
// a refusal is answered 403 and logged.
//
// With TLS configured, plain HTTP is for the loopback: a plain request from
// any other address is sent to the same target over HTTPS (308), or refused
// (403) while HTTPS is not listening. Under TLS the session cookie is "Secure".
#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "web/http_router.hpp"
#include "web/login_limiter.hpp"
#include "web/origin_policy.hpp"
#include "web/sessions.hpp"
#include "web/users.hpp"
#include "web/web_caller.hpp"

struct WebAccessSettings {
  bool anonymous_write = false;
  std::vector<std::string> allowed_hosts{};
  std::vector<std::string> allowed_origins{};
  std::chrono::seconds session_idle{1800};
  bool tls = false;  // HTTPS is configured: plain HTTP is for the loopback
};

class WebAccess {
 public:
  static constexpr std::string_view kCookie = "zel_session";

  WebAccess(std::string users_file, WebAccessSettings settings);

  Users& users() { return users_; }
  Sessions& sessions() { return sessions_; }
  const WebAccessSettings& settings() const { return settings_; }

  // Who sends a request with these headers, looked up anew on each call (a
  // WebSocket does so on every set, so a logout or an expiry takes effect).
  WebCaller caller_of(std::string_view cookie, std::string_view authorization, std::string_view client);
  WebCaller caller_of(const HttpRequestView& request) {
    return caller_of(request.cookie, request.authorization, request.client);
  }
  // A 403 reply (logged) for a state-changing request from a foreign page or
  // through a foreign host name; nothing when it may go on.
  std::optional<HttpReply> refuse_foreign(const HttpRequestView& request) const;
  // The redirection (or refusal) of a plain request from beyond the
  // loopback under TLS; nothing when it may go on.
  std::optional<HttpReply> refuse_plain(const HttpRequestView& request) const;
  // The port HTTPS listens on, once it does; set before the first request.
  void set_https_port(uint16_t port) { https_port_ = port; }
  // The answer to a request for the targets above; nothing for other targets.
  std::optional<HttpReply> answer(const HttpRequestView& request);

  // The session id a Cookie header carries, or empty.
  static std::string_view session_id(std::string_view cookie);
  // The address of a client text ("10.0.0.7:5000" -> "10.0.0.7",
  // "[::1]:80" -> "::1"): logins are limited per address, not per connection.
  static std::string_view address_of(std::string_view client);
  // The token of an "Authorization: Bearer <token>" header, or empty.
  static std::string_view bearer_token(std::string_view authorization);

 private:
  HttpReply login(const HttpRequestView& request);
  HttpReply logout(const HttpRequestView& request);
  HttpReply session(const HttpRequestView& request);
  HttpReply manage_users(const HttpRequestView& request, std::string_view name, const WebCaller& admin);
  HttpReply manage_tokens(const HttpRequestView& request, std::string_view name, const WebCaller& admin);
  std::string cookie(std::string_view id, bool clear, bool secure) const;

  WebAccessSettings settings_;
  Users users_;
  Sessions sessions_;
  LoginLimiter limiter_;
  OriginPolicy origins_;
  uint16_t https_port_ = 0;
};
