#pragma once
// AlarmRequests: the alarm journal (AlarmJournal) over HTTP.
//
//   GET  /api/alarms?after=N&limit=M  {"last":<seq>,"unacknowledged":K,"alarms":[..]}:
//                                     the newest M (default 200, at most
//                                     10,000) alarms whose number or
//                                     acknowledgement came after sequence N,
//                                     newest first; each
//                                     {"id","time","path","kind","text",
//                                     "acknowledged_by","acknowledged_at"},
//                                     stamps as strings of nanoseconds
//   POST /api/alarms/<id>/ack         acknowledges one alarm
//   POST /api/alarms/ack-all          acknowledges every alarm not yet acknowledged
//
// An acknowledgement is a change like a write: it must come from the
// instrument's own page (OriginPolicy), needs the operator role (401 without
// a login, 403 below operator, the reason in X-Zel-Error), and is logged with
// who and from where. It answers {"status":"success"} once it is on disk; an
// alarm already acknowledged keeps its first acknowledgement.
#include "web/http_router.hpp"

class AlarmJournal;
class WebAccess;

class AlarmRequests {
 public:
  static constexpr long kDefaultLimit = 200;

  // The answer for a target beneath "/api/alarms".
  static HttpReply answer(const HttpRequestView& request, AlarmJournal& journal, WebAccess& access);

 private:
  static HttpReply list(std::string_view target, const AlarmJournal& journal);
  static HttpReply acknowledge(const HttpRequestView& request, AlarmJournal& journal, WebAccess& access);
};
