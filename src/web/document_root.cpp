#include "web/document_root.hpp"

#include <array>
#include <utility>

#include "core/log.hpp"

namespace {

constexpr std::string_view kNoStore = "no-store";
constexpr std::string_view kCacheable = "public max-age=600";

constexpr std::array<std::pair<std::string_view, std::string_view>, 17> kContentTypes{{
    {"html", "text/html"},
    {"htm", "text/html"},
    {"js", "text/javascript"},
    {"mjs", "text/javascript"},
    {"css", "text/css"},
    {"json", "application/json"},
    {"txt", "text/plain"},
    {"csv", "text/csv"},
    {"svg", "image/svg+xml"},
    {"png", "image/png"},
    {"jpg", "image/jpeg"},
    {"jpeg", "image/jpeg"},
    {"gif", "image/gif"},
    {"ico", "image/x-icon"},
    {"woff2", "font/woff2"},
    {"woff", "font/woff"},
    {"wasm", "application/wasm"},
}};

std::string_view extension(std::string_view path) {
  auto slash = path.rfind('/');
  auto name = slash == std::string_view::npos ? path : path.substr(slash + 1);
  auto dot = name.rfind('.');
  return dot == std::string_view::npos ? std::string_view{} : name.substr(dot + 1);
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Percent-decoding; empty optional for a broken escape or an encoded NUL.
std::optional<std::string> percent_decode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '%') {
      if (i + 2 >= text.size()) return std::nullopt;
      int high = hex_digit(text[i + 1]), low = hex_digit(text[i + 2]);
      if (high < 0 || low < 0) return std::nullopt;
      c = static_cast<char>(high * 16 + low);
      i += 2;
    }
    if (c == '\0') return std::nullopt;
    out.push_back(c);
  }
  return out;
}

// Targets are shown in the log cut to a readable length.
std::string shown(std::string_view target) { return std::string(target.substr(0, 200)); }

}  // namespace

DocumentRoot::DocumentRoot(std::string dir) : files_(std::move(dir)) {}

std::optional<std::string> DocumentRoot::relative_path(std::string_view target) {
  auto query = target.find_first_of("?#");
  if (query != std::string_view::npos) target = target.substr(0, query);
  if (!target.starts_with('/')) return std::nullopt;  // absolute-form and authority-form targets
  auto decoded = percent_decode(target);
  if (!decoded) return std::nullopt;
  std::string relative;
  std::string_view rest = *decoded;
  while (!rest.empty()) {
    auto slash = rest.find('/');
    auto segment = rest.substr(0, slash);
    rest = slash == std::string_view::npos ? std::string_view{} : rest.substr(slash + 1);
    if (segment.empty() || segment == ".") continue;
    if (segment == "..") return std::nullopt;
    if (!relative.empty()) relative.push_back('/');
    relative.append(segment);
  }
  return relative;
}

std::string_view DocumentRoot::content_type(std::string_view path) {
  auto ext = extension(path);
  for (auto& [known, type] : kContentTypes)
    if (ext == known) return type;
  return "application/octet-stream";
}

std::string_view DocumentRoot::cache_control(std::string_view path) {
  auto ext = extension(path);
  return ext == "html" || ext == "htm" || ext == "json" || ext.empty() ? kNoStore : kCacheable;
}

DocumentRoot::Result DocumentRoot::find(std::string_view target, Document& out) const {
  auto relative = relative_path(target);
  if (!relative) {
    ZEL_ERROR("Refused HTTP target '{}': it leaves the document root", shown(target));
    return Result::Refused;
  }
  if (relative->empty()) *relative = "index.html";
  if (from_memory(*relative, out)) return Result::Found;
  Kept kept;
  auto result = read(*relative, out, kept);
  if (result == Result::NotFound && extension(*relative).empty()) result = read(*relative + ".html", out, kept);
  if (result == Result::Refused)
    ZEL_ERROR("Refused HTTP target '{}': it resolves outside the document root", shown(target));
  if (result == Result::Found && out.content.size() <= kKeptFileSize) keep(*relative, std::move(kept));
  return result;
}

bool DocumentRoot::from_memory(const std::string& relative, Document& out) const {
  Kept kept;
  {
    std::lock_guard lock(kept_mutex_);
    auto found = kept_.find(relative);
    if (found == kept_.end()) return false;
    kept = found->second;
  }
  ConfinedDirectory::Identity now;
  if (!files_.identify(kept.path, now) || now != kept.identity) return false;
  out.content = *kept.content;
  out.content_type = content_type(kept.path);
  out.cache_control = cache_control(kept.path);
  return true;
}

void DocumentRoot::keep(const std::string& relative, Kept kept) const {
  std::lock_guard lock(kept_mutex_);
  if (kept_.size() >= kKeptFiles) kept_.clear();
  kept_.insert_or_assign(relative, std::move(kept));
}

DocumentRoot::Result DocumentRoot::read(const std::string& relative, Document& out, Kept& kept) const {
  std::string path = relative;
  auto status = files_.read(path, out.content, kMaxFileSize, &kept.identity);
  if (status == ConfinedDirectory::Status::IsDirectory) {
    path += "/index.html";
    status = files_.read(path, out.content, kMaxFileSize, &kept.identity);
  }
  switch (status) {
    case ConfinedDirectory::Status::Read:
      out.content_type = content_type(path);
      out.cache_control = cache_control(path);
      kept.path = path;
      kept.content = std::make_shared<const std::string>(out.content);
      return Result::Found;
    case ConfinedDirectory::Status::Outside:
      return Result::Refused;
    default:
      return Result::NotFound;
  }
}
