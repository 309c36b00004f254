#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/log.hpp"
#include "core/log_throttle.hpp"

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

namespace {
constexpr std::chrono::seconds kWindow{10};
std::chrono::nanoseconds at(double seconds) {
  return std::chrono::nanoseconds(static_cast<int64_t>((1000.0 + seconds) * 1e9));
}
}  // namespace

TEST(LogThrottle, APlaceWritesItsBurstPerWindowThenOneSummaryOfTheRest) {
  LogThrottle throttle(kWindow, 3);
  std::vector<LogThrottle::Summary> due;
  int written = 0;
  for (int i = 0; i < 100; ++i) written += throttle.admit("src/a", 7, at(i * 0.01), due);
  EXPECT_EQ(written, 3);
  EXPECT_TRUE(due.empty()) << "the summary waits for the window's end";
  EXPECT_TRUE(throttle.admit("src/a", 7, at(10.5), due));
  ASSERT_EQ(due.size(), 1u);
  EXPECT_EQ(due[0].source, "src/a");
  EXPECT_EQ(due[0].line, 7);
  EXPECT_EQ(due[0].suppressed, 97u);
}

TEST(LogThrottle, PlacesAreCountedApartAndAQuietOneIsSummarisedWithAnotherPlacesRecord) {
  LogThrottle throttle(kWindow, 1);
  std::vector<LogThrottle::Summary> due;
  EXPECT_TRUE(throttle.admit("src/a", 1, at(0), due));
  EXPECT_FALSE(throttle.admit("src/a", 1, at(1), due));
  EXPECT_TRUE(throttle.admit("src/a", 2, at(1), due)) << "another line is another kind";
  EXPECT_TRUE(throttle.admit("src/b", 1, at(1), due));
  EXPECT_TRUE(due.empty());
  // "src/a":1 falls silent; a record from elsewhere after its window brings its summary.
  EXPECT_TRUE(throttle.admit("src/c", 1, at(20), due));
  ASSERT_EQ(due.size(), 1u);
  EXPECT_EQ(due[0].source, "src/a");
  EXPECT_EQ(due[0].suppressed, 1u);
  due.clear();
  EXPECT_TRUE(throttle.admit("src/a", 1, at(21), due)) << "a new window writes again";
  EXPECT_TRUE(due.empty()) << "a summary is given once";
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
