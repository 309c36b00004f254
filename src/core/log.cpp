#include "core/log.hpp"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iterator>
#include <mutex>
#include <vector>

#include "core/clock.hpp"
#include "core/log_throttle.hpp"
#include "std/report.hpp"
#include "std/utc_calendar.hpp"

namespace {

struct LogState {
  std::mutex mutex;
  std::vector<std::pair<Log::SinkId, Log::Sink>> sinks;
  Log::SinkId next_id = 1;
  std::atomic<bool> to_stderr{true};
  std::atomic<int> max_level{static_cast<int>(LogLevel::Info)};
  // 20 records of one place per 10 s, then one summary: the log keeps its
  // worth under a flood of bad requests.
  LogThrottle throttle{std::chrono::seconds(10), 20};
};

LogState& state() {
  static LogState* s = new LogState;  // never destroyed: logging works during exit
  return *s;
}

thread_local bool in_sink = false;

// A record is one line: control characters in its text (which may carry what
// a client sent) are written as escapes, so no text can end a line and forge
// the next one.
void escape_controls(std::string& text) {
  auto is_control = [](unsigned char c) { return c < 0x20 || c == 0x7f; };
  if (std::none_of(text.begin(), text.end(), [&](char c) { return is_control(c); })) return;
  std::string out;
  out.reserve(text.size() + 16);
  for (char ch : text) {
    auto c = static_cast<unsigned char>(ch);
    if (!is_control(c)) out.push_back(ch);
    else if (c == '\n') out.append("\\n");
    else if (c == '\r') out.append("\\r");
    else if (c == '\t') out.append("\\t");
    else fmt::format_to(std::back_inserter(out), "\\x{:02x}", c);
  }
  text = std::move(out);
}

}  // namespace

std::string_view to_string(LogLevel level) {
  switch (level) {
    case LogLevel::Event: return "event";
    case LogLevel::Error: return "error";
    case LogLevel::Warning: return "warning";
    case LogLevel::Info: return "info";
    case LogLevel::Debug: return "debug";
  }
  return "?";
}

std::string Log::format_line(const LogRecord& r) {
  auto t = utc_calendar(r.stamp);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z {} {}:{} {}", t.year, t.month, t.day, t.hour,
                     t.minute, t.second, t.millisecond, to_string(r.level), r.source, r.line, r.text);
}

namespace {

void deliver(LogState& s, LogRecord& record) {
  if (s.to_stderr.load(std::memory_order_relaxed)) {
    auto out = Log::format_line(record);
    out.push_back('\n');
    // One write per record keeps lines whole when several threads log.
    [[maybe_unused]] auto n = ::write(STDERR_FILENO, out.data(), out.size());
  }
  if (in_sink) return;  // a sink that logs must not recurse into itself
  std::lock_guard lock(s.mutex);
  in_sink = true;
  for (auto& [id, sink] : s.sinks) sink(record);
  in_sink = false;
}

// The operating-system layer's lines join the log like any other.
void write_report(ReportLevel level, std::string_view source, int line, std::string text) {
  switch (level) {
    case ReportLevel::Error: Log::write(LogLevel::Error, source, line, "Error: " + text); return;
    case ReportLevel::Warning: Log::write(LogLevel::Warning, source, line, std::move(text)); return;
    case ReportLevel::Info: Log::write(LogLevel::Info, source, line, std::move(text)); return;
    case ReportLevel::Debug: Log::write(LogLevel::Debug, source, line, std::move(text)); return;
  }
}

[[maybe_unused]] const bool reports_logged = (set_report_sink(write_report), true);

}  // namespace

void Log::write(LogLevel level, std::string_view source, int line, std::string text) {
  auto& s = state();
  if (static_cast<int>(level) > s.max_level.load(std::memory_order_relaxed)) return;
  uint64_t stamp = Clock::wall_ns();
  std::vector<LogThrottle::Summary> due;
  bool admitted = level == LogLevel::Event ||
                  s.throttle.admit(source, line, std::chrono::steady_clock::now().time_since_epoch(), due);
  for (auto& summary : due) {
    LogRecord note{LogLevel::Warning, summary.source, summary.line,
                   fmt::format("{} more records like this were not written", summary.suppressed), stamp};
    deliver(s, note);
  }
  if (!admitted) return;
  escape_controls(text);
  LogRecord record{level, source, line, std::move(text), stamp};
  deliver(s, record);
}

Log::SinkId Log::add_sink(Sink sink) {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  auto id = s.next_id++;
  s.sinks.emplace_back(id, std::move(sink));
  return id;
}

void Log::remove_sink(SinkId id) {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  std::erase_if(s.sinks, [id](auto& entry) { return entry.first == id; });
}

void Log::set_stderr(bool enabled) { state().to_stderr = enabled; }
void Log::forget_floods() { state().throttle.forget(); }
void Log::set_level(LogLevel max_level) { state().max_level = static_cast<int>(max_level); }
