#pragma once
// System log: records carry a level, the source file (path from the repository
// root without extension) and a line. Records go to every registered sink:
// standard error always, the tree's "log" node once the root exists.
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "std/source_name.hpp"

enum class LogLevel : int {
  Event = 0,    // operator-relevant events (permit revoked, ...): always shown
  Error = 1,    // text begins with "Error: "
  Warning = 2,
  Info = 3,
  Debug = 4,
};

std::string_view to_string(LogLevel level);

struct LogRecord {
  LogLevel level;
  std::string_view source;  // e.g. "src/core/node_factory"
  int line;
  std::string text;         // errors already carry the "Error: " prefix
  uint64_t stamp;           // wall-clock nanoseconds since the epoch
};


class Log {
 public:
  using Sink = std::function<void(const LogRecord&)>;
  using SinkId = uint64_t;

  static void write(LogLevel level, std::string_view source, int line, std::string text);

  // Sinks are called under the log's lock, one record at a time, in order.
  static SinkId add_sink(Sink sink);
  static void remove_sink(SinkId id);

  // Standard error output (on by default); tests that check stderr keep it.
  static void set_stderr(bool enabled);
  // Every place may write its burst again (a capture that pins texts starts
  // with no flood held against it).
  static void forget_floods();
  // Records below this level of detail are dropped (default Info).
  static void set_level(LogLevel max_level);
  static std::string format_line(const LogRecord& record);
};

#define ZEL_LOG_AT(level, ...) \
  ::Log::write(level, ::source_name(__FILE__), __LINE__, ::fmt::format(__VA_ARGS__))
#define ZEL_EVENT(...) ZEL_LOG_AT(::LogLevel::Event, __VA_ARGS__)
#define ZEL_ERROR(...) \
  ::Log::write(::LogLevel::Error, ::source_name(__FILE__), __LINE__, "Error: " + ::fmt::format(__VA_ARGS__))
#define ZEL_WARN(...) ZEL_LOG_AT(::LogLevel::Warning, __VA_ARGS__)
#define ZEL_INFO(...) ZEL_LOG_AT(::LogLevel::Info, __VA_ARGS__)
#define ZEL_DEBUG(...) ZEL_LOG_AT(::LogLevel::Debug, __VA_ARGS__)
