#pragma once
// Lines the operating-system layer has for the program's log. This layer lies
// below the tree and its log and does not name them: the log installs itself
// as the sink, and until it has, lines go to standard error.
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "std/source_name.hpp"

enum class ReportLevel { Error, Warning, Info, Debug };
using ReportSink = void (*)(ReportLevel level, std::string_view source, int line, std::string text);

void set_report_sink(ReportSink sink);
// `source` must outlive the program (source_name() of __FILE__ does).
void report(ReportLevel level, std::string_view source, int line, std::string text);

#define ZEL_REPORT(level, ...) \
  ::report(::ReportLevel::level, ::source_name(__FILE__), __LINE__, ::fmt::format(__VA_ARGS__))
