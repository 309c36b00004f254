#include "std/report.hpp"

#include <atomic>
#include <cstdio>

namespace {

void to_standard_error(ReportLevel, std::string_view source, int line, std::string text) {
  std::fprintf(stderr, "%.*s:%d %s\n", static_cast<int>(source.size()), source.data(), line, text.c_str());
}

std::atomic<ReportSink> sink{to_standard_error};

}  // namespace

void set_report_sink(ReportSink new_sink) { sink.store(new_sink ? new_sink : to_standard_error); }

void report(ReportLevel level, std::string_view source, int line, std::string text) {
  sink.load()(level, source, line, std::move(text));
}
