#pragma once
// LogIO: the system log as a node (the root's "log"). Its value is the latest
// record's line; it keeps the most recent records for clients, and appends
// every record to a CSV file when "persistant_csv_path" names one.
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "core/io/io.hpp"
#include "core/log.hpp"

class LogIO : public IO<std::string> {
 public:
  static constexpr size_t kKeptRecords = 1000;

  struct Entry {
    uint64_t sequence;  // 1, 2, ... in arrival order
    LogRecord record;
  };

  explicit LogIO(const VTree& config);
  ~LogIO() override;

  // Records with a sequence number above `after`, oldest first.
  std::vector<Entry> records_after(uint64_t after) const;
  uint64_t last_sequence() const;

  void stop(StopStage stage) override;

 private:
  void append(const LogRecord& record);

  ValueField<std::string>& csv_path_;
  Log::SinkId sink_ = 0;
  mutable std::mutex mutex_;
  std::deque<Entry> records_;
  uint64_t sequence_ = 0;
};
