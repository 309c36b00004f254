#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/log.hpp"

namespace {
LogRecord record_at(uint64_t stamp) { return {LogLevel::Error, "src/core/x", 12, "Error: boom", stamp}; }
}  // namespace

TEST(Log, LineCarriesTheUtcTimeToTheMillisecondThenLevelSourceAndText) {
  EXPECT_EQ(Log::format_line(record_at(1'000'000'000'123'456'789ULL)),
            "2001-09-09T01:46:40.123Z error src/core/x:12 Error: boom");
  EXPECT_EQ(Log::format_line(record_at(0)), "1970-01-01T00:00:00.000Z error src/core/x:12 Error: boom");
}

// A 32-bit time_t ends in January 2038; boards run longer than that.
TEST(Log, DatesPastTheEndOf32BitTimeAreWrittenInFull) {
  EXPECT_EQ(Log::format_line(record_at(2'214'172'799'999'000'000ULL)).substr(0, 24), "2040-02-29T23:59:59.999Z");
  EXPECT_EQ(Log::format_line(record_at(4'294'967'296'000'000'000ULL)).substr(0, 24), "2106-02-07T06:28:16.000Z");
}

// A client's text inside a record (a field path, a user name) must not end
// the record's line and start a forged one.
TEST(Log, ControlCharactersInATextAreEscapedSoARecordStaysOneLine) {
  std::vector<std::string> texts;
  auto id = Log::add_sink([&](const LogRecord& r) { texts.push_back(r.text); });
  Log::write(LogLevel::Info, "src/core/x", 1, "set 'a\n2030-01-01T00:00:00.000Z error src/core/root:1 forged\r\t\x1b[31m'");
  Log::remove_sink(id);
  ASSERT_EQ(texts.size(), 1u);
  EXPECT_EQ(texts[0], "set 'a\\n2030-01-01T00:00:00.000Z error src/core/root:1 forged\\r\\t\\x1b[31m'");
}
