#pragma once
// A self-signed certificate and its private key for a first try of HTTPS:
// an ECDSA P-256 key, the certificate valid for 825 days for "localhost",
// the machine's host name (also with ".local"), 127.0.0.1 and ::1. Browsers
// warn about it until it is trusted or replaced by one a known authority
// signed (docs/users.md).
#include <string>

namespace TlsPair {

// Writes both files in PEM, the key readable by its owner only (0600).
// Existing files are never overwritten: false, with `error` in words for
// the console, when either exists or a step fails.
bool make_self_signed(const std::string& certificate_file, const std::string& key_file, std::string& error);

}  // namespace TlsPair
