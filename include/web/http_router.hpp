#pragma once
// HttpRouter: the answer to every plain HTTP request, independent of sockets.
//
//   GET  /io/<path>[.json | /index.json]   the vertex or field as JSON, the same
//                                          text as the file system's files
//   PUT  /io/<path>[.json]   (or POST)      one write through the write path: a
//                                          field (or an IO's value) from the
//                                          body's value text, a node from an
//                                          object of its members; answers
//                                          {"status":"success"} or
//                                          {"status":"failed"} with the reason in
//                                          the header X-Zel-Error
//   GET  /api/tree[/<path>]?depth=N        the tree described for pages
//   GET  /api/interlocks                   the interlock overview
//   GET  /api/log?after=N&limit=M          log records after sequence number N
//   /api/alarms...                         the alarm journal: AlarmRequests
//   GET  /reports/<file>                   a report the instrument wrote
//                                          (<data root>/reports), to download
//   /api/login, /api/logout, /api/session, /api/users, /api/tokens: WebAccess
//   GET  anything else                     a file of the document root
// HEAD is answered like GET without the body. Other methods get 405 with
// Allow. Under TLS, plain HTTP answers the loopback only
// (WebAccess::refuse_plain). A write (PUT or POST) must come from the instrument's own page
// (OriginPolicy) and is made as the caller the request's session cookie or
// token names (anonymous without one).
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "web/document_root.hpp"
#include "web/recent_texts.hpp"

class Root;
class WebAccess;

struct HttpRequestView {
  std::string_view method{};  // "GET", "PUT", ...
  std::string_view target{};  // as sent: "/io/pulse/count.json?x=1"
  std::string_view body{};
  std::string_view client{};  // the peer's address and port, for the log
  // Headers that say who asks and from which page (empty when not sent).
  std::string_view host{};
  std::string_view origin{};
  std::string_view cookie{};
  std::string_view authorization{};
  bool secure = false;  // it came over TLS
};

struct HttpReply {
  unsigned status = 200;
  std::string_view content_type = "text/plain";
  std::string_view cache_control = "no-store";
  std::string body;
  std::string error;       // sent as X-Zel-Error when not empty
  std::string_view allow;  // sent as Allow (with 405) when not empty
  std::string set_cookie;  // sent as Set-Cookie when not empty
  std::string location;    // sent as Location (with a redirection) when not empty
};

// The number after "name=" in the target's query, or `fallback`.
long query_number(std::string_view target, std::string_view name, long fallback);

// Replies the API's handlers share: plain text, JSON, and {"status":"failed"}
// with the reason in words (sent as X-Zel-Error).
HttpReply text_reply(unsigned status, std::string_view text);
HttpReply json_reply(unsigned status, std::string body, std::string error = {});
HttpReply failed_reply(unsigned status, std::string reason);

class HttpRouter {
 public:
  static constexpr std::string_view kSuccess = R"({"status":"success"})";
  static constexpr std::string_view kFailed = R"({"status":"failed"})";
  static constexpr std::string_view kFileNotFound = "File not found";
  static constexpr int kDefaultLogLimit = 200;

  HttpRouter(Root& root, const DocumentRoot& documents, WebAccess& access);

  HttpReply answer(const HttpRequestView& request) const;

 private:
  HttpReply read_tree(std::string_view target) const;
  HttpReply set_field(const HttpRequestView& request) const;
  HttpReply describe_tree(std::string_view target) const;
  HttpReply interlocks() const;
  HttpReply log_records(std::string_view target) const;
  static HttpReply document(const DocumentRoot& files, std::string_view target);

  Root& root_;
  const DocumentRoot& documents_;
  DocumentRoot reports_;  // the data root's reports, confined like the pages
  // Tree descriptions, kept for kTreeDescriptionAge: a client that asks for
  // the whole tree a thousand times a second costs five descriptions.
  static constexpr std::chrono::milliseconds kTreeDescriptionAge{200};
  mutable RecentTexts tree_descriptions_{kTreeDescriptionAge, 64};
  WebAccess& access_;
};
