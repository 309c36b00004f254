#pragma once
// OriginPolicy: whether a state-changing request (a write, a login, a
// WebSocket upgrade) comes from the instrument's own page.
//
// Host: the name the client used must be one the instrument answers to, so
// that a page of another site cannot reach it through a name of its own that
// resolves to the instrument (DNS rebinding). Accepted: IP addresses,
// "localhost", the machine's host name (alone or with ".local"), and the
// configured list. A request without Host (HTTP/1.0 scripts) is accepted.
//
// Origin: a browser names the page that sent a request. Accepted when absent
// (scripts and tools send none), when it is the server's own origin
// ("http://", or "https://" for a request over TLS, followed by the
// request's own Host), or when it is in the configured list. Anything else, "null" included, is refused.
#include <string>
#include <string_view>
#include <vector>

class OriginPolicy {
 public:
  OriginPolicy(std::vector<std::string> allowed_hosts, std::vector<std::string> allowed_origins);

  bool host_allowed(std::string_view host) const;
  // `secure`: the request came over TLS.
  bool origin_allowed(std::string_view origin, std::string_view host, bool secure) const;
  // Both; on refusal `why` says which one, in words for the log.
  bool allows(std::string_view host, std::string_view origin, bool secure, std::string& why) const;

  // The host part of a Host value: "[::1]:80" -> "::1", "a.b:8080" -> "a.b".
  static std::string_view host_name(std::string_view host);
  // A comma- or space-separated list of a setting.
  static std::vector<std::string> list(std::string_view text);

 private:
  std::string machine_name_;
  std::vector<std::string> allowed_hosts_;
  std::vector<std::string> allowed_origins_;
};
