#include "std/tls_pair.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include <fmt/format.h>
#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

namespace {

constexpr long kValidDays = 825;  // the longest browsers accept for a server certificate

template <class T, void (*Free)(T*)>
struct Freer {
  void operator()(T* p) const { Free(p); }
};
using Key = std::unique_ptr<EVP_PKEY, Freer<EVP_PKEY, EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Freer<X509, X509_free>>;
using Bio = std::unique_ptr<BIO, Freer<BIO, BIO_free_all>>;
using Extension = std::unique_ptr<X509_EXTENSION, Freer<X509_EXTENSION, X509_EXTENSION_free>>;

std::string openssl_error(std::string_view step) {
  char text[256] = "unknown error";
  if (auto code = ERR_get_error()) ERR_error_string_n(code, text, sizeof text);
  ERR_clear_error();
  return fmt::format("{}: {}", step, text);
}

std::string host_name() {
  char name[256] = {};
  return ::gethostname(name, sizeof name - 1) == 0 ? std::string(name) : std::string();
}

bool add_extension(X509* certificate, int nid, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  Extension extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
  return extension && X509_add_ext(certificate, extension.get(), -1) == 1;
}

// The certificate for `key`, signed by itself.
Certificate self_signed(EVP_PKEY* key, std::string& error) {
  Certificate certificate(X509_new());
  unsigned char serial[16];
  if (!certificate || RAND_bytes(serial, sizeof serial) != 1) {
    error = openssl_error("certificate");
    return nullptr;
  }
  serial[0] &= 0x7f;  // a positive number
  std::unique_ptr<BIGNUM, Freer<BIGNUM, BN_free>> number(BN_bin2bn(serial, sizeof serial, nullptr));
  auto host = host_name();
  auto common_name = host.empty() ? std::string("localhost") : host;
  std::string names = "DNS:localhost,IP:127.0.0.1,IP:::1";
  if (!host.empty() && host != "localhost") names += fmt::format(",DNS:{},DNS:{}.local", host, host);
  X509_NAME* subject = X509_get_subject_name(certificate.get());
  bool ok = X509_set_version(certificate.get(), 2) == 1 && number &&
            BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate.get())) &&
            X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600) &&
            X509_gmtime_adj(X509_getm_notAfter(certificate.get()), kValidDays * 24 * 3600) &&
            X509_set_pubkey(certificate.get(), key) == 1 &&
            X509_NAME_add_entry_by_txt(subject, "O", MBSTRING_ASC,
                                       reinterpret_cast<const unsigned char*>("ZEL self-signed"), -1, -1, 0) == 1 &&
            X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC,
                                       reinterpret_cast<const unsigned char*>(common_name.c_str()), -1, -1, 0) == 1 &&
            X509_set_issuer_name(certificate.get(), subject) == 1 &&
            add_extension(certificate.get(), NID_subject_alt_name, names) &&
            add_extension(certificate.get(), NID_basic_constraints, "critical,CA:FALSE") &&
            add_extension(certificate.get(), NID_key_usage, "critical,digitalSignature") &&
            add_extension(certificate.get(), NID_ext_key_usage, "serverAuth") &&
            X509_sign(certificate.get(), key, EVP_sha256()) > 0;
  if (!ok) {
    error = openssl_error("certificate");
    return nullptr;
  }
  return certificate;
}

// Creates `path` with `mode`, never over an existing file, and lets `write`
// fill it through a BIO.
template <class Write>
bool write_new_file(const std::string& path, mode_t mode, Write write, std::string& error) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd < 0) {
    error = fmt::format("{}: {}", path, std::strerror(errno));
    return false;
  }
  Bio bio(BIO_new_fd(fd, BIO_CLOSE));
  if (!bio || write(bio.get()) != 1 || BIO_flush(bio.get()) != 1 || ::fsync(fd) != 0) {
    error = openssl_error(path);
    bio.reset();
    ::unlink(path.c_str());
    return false;
  }
  return true;
}

}  // namespace

bool TlsPair::make_self_signed(const std::string& certificate_file, const std::string& key_file, std::string& error) {
  struct stat info {};
  for (auto* file : {&certificate_file, &key_file})
    if (::stat(file->c_str(), &info) == 0) {
      error = fmt::format("{} exists; remove it first to make a new pair", *file);
      return false;
    }
  Key key(EVP_EC_gen("P-256"));
  if (!key) {
    error = openssl_error("key");
    return false;
  }
  auto certificate = self_signed(key.get(), error);
  if (!certificate) return false;
  if (!write_new_file(key_file, 0600, [&](BIO* bio) {
        return PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
      }, error))
    return false;
  if (!write_new_file(certificate_file, 0644, [&](BIO* bio) { return PEM_write_bio_X509(bio, certificate.get()); },
                      error)) {
    ::unlink(key_file.c_str());
    return false;
  }
  return true;
}
