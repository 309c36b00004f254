#include "web/password_hash.hpp"

#include <sodium.h>

#include <stdexcept>

namespace {

// Called before every use; cheap once done, and safe from several threads.
void ready() {
  if (sodium_init() < 0) throw std::runtime_error("libsodium cannot be initialised");
}

std::string to_hex(const unsigned char* data, size_t size) {
  std::string out(size * 2 + 1, '\0');
  sodium_bin2hex(out.data(), out.size(), data, size);
  out.pop_back();
  return out;
}

}  // namespace

std::string PasswordHash::make(std::string_view password) {
  ready();
  char out[crypto_pwhash_STRBYTES];
  if (crypto_pwhash_str(out, password.data(), password.size(), kOpsLimit, kMemLimit) != 0) return {};
  return out;
}

bool PasswordHash::verify(std::string_view hash, std::string_view password) {
  ready();
  std::string text(hash);  // the library wants it terminated
  return !text.empty() && crypto_pwhash_str_verify(text.c_str(), password.data(), password.size()) == 0;
}

void PasswordHash::verify_nothing(std::string_view password) {
  static const std::string kDecoy = make("no user has this password");
  verify(kDecoy, password);
}

std::string PasswordHash::random_hex(size_t bytes) {
  ready();
  std::string raw(bytes, '\0');
  randombytes_buf(raw.data(), raw.size());
  return to_hex(reinterpret_cast<const unsigned char*>(raw.data()), raw.size());
}

std::string PasswordHash::random_password(size_t length) {
  ready();
  static constexpr std::string_view kAlphabet = "abcdefghijkmnpqrstuvwxyzABCDEFGHJKLMNPQRSTUVWXYZ23456789";
  std::string out;
  for (size_t i = 0; i < length; ++i) out.push_back(kAlphabet[randombytes_uniform(kAlphabet.size())]);
  return out;
}

std::string PasswordHash::digest(std::string_view secret) {
  ready();
  unsigned char out[crypto_generichash_BYTES];
  crypto_generichash(out, sizeof out, reinterpret_cast<const unsigned char*>(secret.data()), secret.size(), nullptr, 0);
  return to_hex(out, sizeof out);
}

bool PasswordHash::equal(std::string_view a, std::string_view b) {
  return a.size() == b.size() && sodium_memcmp(a.data(), b.data(), a.size()) == 0;
}
