#pragma once
// Users: who may log in to the instrument and with which role, and the API
// tokens that scripts present instead of a password. All of it lives in the
// users file, "<data root>/config/users": a JSON file with no ".json" ending,
// so that no store can ever name it, outside the document root, so that it
// is never served, and readable by its owner only (mode 0600).
//
//   {"users":[{"name":"admin","role":"admin","hash":"$argon2id$..."}],
//    "tokens":[{"name":"backup","role":"operator","digest":"<hex>"}]}
//
// A password is kept as its Argon2id hash, a token as a digest: the file
// never holds a secret that works by itself. A token is shown once, when an
// admin issues it, and works until it is revoked.
//
// Without a users file the first start creates one with the user "admin"
// and a random password, which the caller shows once. A users file that
// cannot be read lets nobody log in (and is left as it is) rather than
// falling back to an open instrument.
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/role.hpp"

class Users {
 public:
  struct Identity {
    std::string name;
    Role role;
  };

  explicit Users(std::string file);

  // Reads the users file, or creates it when there is none; then
  // `created_password` holds the new admin's password. False when the file
  // is there but unusable (logged).
  bool load(std::string* created_password = nullptr);
  const std::string& file() const { return file_; }

  // The user when name and password match (slow on purpose: PasswordHash).
  std::optional<Identity> check_password(std::string_view name, std::string_view password) const;
  // The token's name and role when it is a valid, unrevoked token.
  std::optional<Identity> check_token(std::string_view token) const;

  // Adds a user or changes one's password and role; an empty password
  // keeps an existing user's own. False with `error` for a bad name, a new
  // user without a password, the last admin's role taken away, or a file
  // that cannot be written.
  bool set_user(std::string_view name, std::string_view password, Role role, std::string& error);
  // Removes a user; the last admin cannot be removed.
  bool remove_user(std::string_view name, std::string& error);
  // A new token under a new name; the token text, or nothing with `error`.
  std::optional<std::string> issue_token(std::string_view name, Role role, std::string& error);
  bool revoke_token(std::string_view name, std::string& error);
  // Names and roles only: no secret leaves this class.
  std::vector<Identity> tokens() const;
  std::vector<Identity> users() const;

  // Names of users and tokens: 1 to 64 letters, digits, '_', '-' or '.'.
  static bool valid_name(std::string_view name);

 private:
  struct User {
    std::string name;
    Role role;
    std::string hash;
  };
  struct Token {
    std::string name;
    Role role;
    std::string digest;
  };
  // Writes the file from the members; call with the lock held.
  bool save(std::string& error) const;
  bool parse(const std::string& text, std::string& error);

  std::string file_;
  mutable std::mutex mutex_;  // guards the members below
  std::vector<User> users_;
  std::vector<Token> tokens_;
};
