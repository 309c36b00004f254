#include "web/users.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include <nlohmann/json.hpp>

#include "core/log.hpp"
#include "std/atomic_file.hpp"
#include "web/password_hash.hpp"

namespace {
constexpr std::string_view kFirstAdmin = "admin";
}  // namespace

Users::Users(std::string file) : file_(std::move(file)) {}

bool Users::valid_name(std::string_view name) {
  return !name.empty() && name.size() <= 64 && std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
           c == '.';
  });
}

bool Users::load(std::string* created_password) {
  std::string text, error;
  switch (AtomicFile::read(file_, text, error)) {
    case AtomicFile::ReadResult::Ok: {
      std::lock_guard lock(mutex_);
      if (parse(text, error)) return true;
      users_.clear();
      tokens_.clear();
      ZEL_ERROR("Users file {} is unusable ({}); nobody can log in until it is mended", file_, error);
      return false;
    }
    case AtomicFile::ReadResult::Failed:
      ZEL_ERROR("Users file {} cannot be read: {}; nobody can log in", file_, error);
      return false;
    case AtomicFile::ReadResult::Missing:
      break;
  }
  auto password = PasswordHash::random_password();
  if (!set_user(kFirstAdmin, password, Role::Admin, error)) {
    ZEL_ERROR("Users file {} cannot be created: {}", file_, error);
    return false;
  }
  if (created_password) *created_password = std::move(password);
  return true;
}

bool Users::parse(const std::string& text, std::string& error) {
  auto json = nlohmann::json::parse(text, nullptr, false);
  if (!json.is_object()) {
    error = "not a JSON object";
    return false;
  }
  auto list = [&](const char* key) {
    auto found = json.find(key);
    return found != json.end() && found->is_array() ? *found : nlohmann::json::array();
  };
  auto text_of = [](const nlohmann::json& item, const char* key) {
    auto found = item.find(key);
    return found != item.end() && found->is_string() ? found->get<std::string>() : std::string();
  };
  // Users and tokens alike: a valid name, a role and the text of a secret.
  auto read = [&](const char* key, const char* secret, auto add) {
    for (auto& item : list(key)) {
      auto role = role_named(text_of(item, "role"));
      auto name = text_of(item, "name");
      auto text = text_of(item, secret);
      if (!role || !valid_name(name) || text.empty()) {
        error = fmt::format("an entry of \"{}\" without a valid name, role or {}", key, secret);
        return false;
      }
      add(std::move(name), *role, std::move(text));
    }
    return true;
  };
  return read("users", "hash", [&](std::string name, Role role, std::string hash) {
           users_.push_back({std::move(name), role, std::move(hash)});
         }) &&
         read("tokens", "digest", [&](std::string name, Role role, std::string digest) {
           tokens_.push_back({std::move(name), role, std::move(digest)});
         });
}

bool Users::save(std::string& error) const {
  nlohmann::json json{{"users", nlohmann::json::array()}, {"tokens", nlohmann::json::array()}};
  for (auto& user : users_)
    json["users"].push_back({{"name", user.name}, {"role", to_string(user.role)}, {"hash", user.hash}});
  for (auto& token : tokens_)
    json["tokens"].push_back({{"name", token.name}, {"role", to_string(token.role)}, {"digest", token.digest}});
  // The temporary that becomes the file is made unreadable for others
  // before any secret is written into it (a write keeps an existing file's mode).
  auto temporary = AtomicFile::temporary_for(file_);
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(file_).parent_path(), ec);
  int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  if (fd >= 0) {
    ::fchmod(fd, 0600);
    ::close(fd);
  }
  return AtomicFile::write(file_, json.dump(1) + "\n", error);
}

std::optional<Users::Identity> Users::check_password(std::string_view name, std::string_view password) const {
  std::string hash;
  Role role = Role::Anonymous;
  {
    std::lock_guard lock(mutex_);
    for (auto& user : users_)
      if (user.name == name) {
        hash = user.hash;
        role = user.role;
      }
  }
  if (hash.empty()) {
    PasswordHash::verify_nothing(password);
    return std::nullopt;
  }
  if (!PasswordHash::verify(hash, password)) return std::nullopt;
  return Identity{std::string(name), role};
}

std::optional<Users::Identity> Users::check_token(std::string_view token) const {
  if (token.empty()) return std::nullopt;
  auto digest = PasswordHash::digest(token);
  std::lock_guard lock(mutex_);
  for (auto& t : tokens_)
    if (PasswordHash::equal(t.digest, digest)) return Identity{t.name, t.role};
  return std::nullopt;
}

bool Users::set_user(std::string_view name, std::string_view password, Role role, std::string& error) {
  if (!valid_name(name)) {
    error = "A user name is 1 to 64 letters, digits, '_', '-' or '.'.";
    return false;
  }
  if (role == Role::Anonymous) {
    error = "A user needs a password and a role.";
    return false;
  }
  auto hash = password.empty() ? std::string() : PasswordHash::make(password);  // slow: outside the lock
  if (!password.empty() && hash.empty()) {
    error = "The password could not be hashed.";
    return false;
  }
  std::lock_guard lock(mutex_);
  auto users = users_;
  auto found = std::find_if(users_.begin(), users_.end(), [&](auto& u) { return u.name == name; });
  if (hash.empty() && found == users_.end()) {
    error = "A user needs a password and a role.";
    return false;
  }
  auto admins = std::count_if(users_.begin(), users_.end(), [](auto& u) { return u.role == Role::Admin; });
  if (found != users_.end() && found->role == Role::Admin && role != Role::Admin && admins == 1) {
    error = "The last admin stays an admin.";
    return false;
  }
  if (found != users_.end()) *found = {std::string(name), role, hash.empty() ? found->hash : hash};
  else users_.push_back({std::string(name), role, hash});
  if (save(error)) return true;
  users_ = std::move(users);
  return false;
}

bool Users::remove_user(std::string_view name, std::string& error) {
  std::lock_guard lock(mutex_);
  auto found = std::find_if(users_.begin(), users_.end(), [&](auto& u) { return u.name == name; });
  if (found == users_.end()) {
    error = "There is no such user.";
    return false;
  }
  auto admins = std::count_if(users_.begin(), users_.end(), [](auto& u) { return u.role == Role::Admin; });
  if (found->role == Role::Admin && admins == 1) {
    error = "The last admin cannot be removed.";
    return false;
  }
  auto users = users_;
  users_.erase(found);
  if (save(error)) return true;
  users_ = std::move(users);
  return false;
}

std::optional<std::string> Users::issue_token(std::string_view name, Role role, std::string& error) {
  if (!valid_name(name) || role == Role::Anonymous) {
    error = "A token needs a name (1 to 64 letters, digits, '_', '-' or '.') and a role.";
    return std::nullopt;
  }
  auto token = "zel_" + PasswordHash::random_hex(32);
  std::lock_guard lock(mutex_);
  if (std::any_of(tokens_.begin(), tokens_.end(), [&](auto& t) { return t.name == name; })) {
    error = "A token of that name exists; revoke it first.";
    return std::nullopt;
  }
  tokens_.push_back({std::string(name), role, PasswordHash::digest(token)});
  if (save(error)) return token;
  tokens_.pop_back();
  return std::nullopt;
}

bool Users::revoke_token(std::string_view name, std::string& error) {
  std::lock_guard lock(mutex_);
  auto found = std::find_if(tokens_.begin(), tokens_.end(), [&](auto& t) { return t.name == name; });
  if (found == tokens_.end()) {
    error = "There is no such token.";
    return false;
  }
  auto tokens = tokens_;
  tokens_.erase(found);
  if (save(error)) return true;
  tokens_ = std::move(tokens);
  return false;
}

std::vector<Users::Identity> Users::tokens() const {
  std::lock_guard lock(mutex_);
  std::vector<Identity> out;
  for (auto& t : tokens_) out.push_back({t.name, t.role});
  return out;
}

std::vector<Users::Identity> Users::users() const {
  std::lock_guard lock(mutex_);
  std::vector<Identity> out;
  for (auto& u : users_) out.push_back({u.name, u.role});
  return out;
}
