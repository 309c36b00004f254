#pragma once
// TlsContext: the server side of HTTPS and WSS, from a certificate (chain)
// and its private key in PEM files. It makes the TLS channels of the web
// server's connections; only its own file compiles OpenSSL's streams.
// TLS 1.2 and 1.3, the library's default ciphers; no client certificates.
#include <memory>
#include <string>

#include "web/web_channel.hpp"

class TlsContext : public std::enable_shared_from_this<TlsContext> {
 public:
  // The context, or nothing with `error` (which file and why) when the files
  // cannot be read, do not hold PEM of the right kind, or do not belong together.
  static std::shared_ptr<TlsContext> load(const std::string& certificate_file, const std::string& key_file,
                                          std::string& error);
  ~TlsContext();

  // A channel that shakes hands as a TLS server before its first request.
  std::unique_ptr<HttpChannel> channel(WebSocketTcp&& socket);

 private:
  struct Impl;
  explicit TlsContext(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};
