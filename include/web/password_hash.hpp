#pragma once
// PasswordHash: passwords kept as libsodium's Argon2id hash strings, and the
// random secrets of sessions and API tokens.
//
// The cost is tuned so that one check takes 50-250 ms on the instrument's
// class of processor (about 75 ms on a development PC): slow enough that
// guessing from a stolen users file is expensive, fast enough for a login.
// Logins are also rate-limited per client address (LoginLimiter).
#include <cstddef>
#include <string>
#include <string_view>

class PasswordHash {
 public:
  static constexpr unsigned long long kOpsLimit = 8;
  static constexpr size_t kMemLimit = 32u << 20;

  // The hash string ("$argon2id$v=19$m=...") of `password`; empty when the
  // library cannot allocate the memory it needs.
  static std::string make(std::string_view password);
  // Whether `password` matches `hash`; a hash that is not one is no match.
  static bool verify(std::string_view hash, std::string_view password);
  // Takes as long as a verify that fails, so an unknown user name answers
  // in the same time as a wrong password.
  static void verify_nothing(std::string_view password);

  // `bytes` random bytes as lower-case hex.
  static std::string random_hex(size_t bytes);
  // A password people can type: `length` letters and digits without the
  // look-alikes (0/O, 1/l/I).
  static std::string random_password(size_t length = 16);
  // A short digest (hex) of a high-entropy secret such as an API token,
  // which needs no slow hash to be kept safely.
  static std::string digest(std::string_view secret);
  // Compares two texts in a time that does not depend on where they differ.
  static bool equal(std::string_view a, std::string_view b);
};
