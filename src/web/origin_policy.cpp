#include "web/origin_policy.hpp"

#include <unistd.h>

#include <algorithm>

#include <boost/asio/ip/address.hpp>
#include <boost/beast/core/string.hpp>
#include <fmt/format.h>

namespace {

bool same_text(std::string_view a, std::string_view b) { return boost::beast::iequals(a, b); }

bool listed(const std::vector<std::string>& list, std::string_view text) {
  return std::any_of(list.begin(), list.end(), [&](const std::string& item) { return same_text(item, text); });
}

bool is_ip_address(std::string_view name) {
  boost::system::error_code ec;
  boost::asio::ip::make_address(std::string(name), ec);
  return !ec;
}

}  // namespace

OriginPolicy::OriginPolicy(std::vector<std::string> allowed_hosts, std::vector<std::string> allowed_origins)
    : allowed_hosts_(std::move(allowed_hosts)), allowed_origins_(std::move(allowed_origins)) {
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) == 0) machine_name_ = name;
}

std::vector<std::string> OriginPolicy::list(std::string_view text) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start < text.size()) {
    auto end = text.find_first_of(", ", start);
    if (end == std::string_view::npos) end = text.size();
    if (end > start) out.emplace_back(text.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

std::string_view OriginPolicy::host_name(std::string_view host) {
  if (host.starts_with('[')) {
    auto close = host.find(']');
    return close == std::string_view::npos ? host : host.substr(1, close - 1);
  }
  auto colon = host.rfind(':');
  // More than one colon without brackets is no host:port form; leave it.
  if (colon != std::string_view::npos && host.find(':') == colon) return host.substr(0, colon);
  return host;
}

bool OriginPolicy::host_allowed(std::string_view host) const {
  if (host.empty()) return true;
  auto name = host_name(host);
  if (is_ip_address(name) || same_text(name, "localhost") || listed(allowed_hosts_, name) || listed(allowed_hosts_, host))
    return true;
  if (machine_name_.empty()) return false;
  return same_text(name, machine_name_) || same_text(name, machine_name_ + ".local");
}

bool OriginPolicy::origin_allowed(std::string_view origin, std::string_view host, bool secure) const {
  if (origin.empty()) return true;
  if (listed(allowed_origins_, origin)) return true;
  if (host.empty()) return false;
  return same_text(origin, fmt::format("{}://{}", secure ? "https" : "http", host));
}

bool OriginPolicy::allows(std::string_view host, std::string_view origin, bool secure, std::string& why) const {
  if (!host_allowed(host)) {
    why = fmt::format("the host '{}' is not a name of this instrument", host.substr(0, 100));
    return false;
  }
  if (!origin_allowed(origin, host, secure)) {
    why = fmt::format("the page of '{}' is not this instrument's own", origin.substr(0, 100));
    return false;
  }
  return true;
}
