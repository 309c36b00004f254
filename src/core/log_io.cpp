#include "core/log_io.hpp"

#include <cstdio>

#include "core/node_factory.hpp"

ZEL_REGISTER_NODE("log_io", LogIO);

namespace {

std::string csv_quote(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"') out.push_back('"');
    out.push_back(c);
  }
  out.push_back('"');
  return out;
}

}  // namespace

LogIO::LogIO(const VTree& config)
    : IO<std::string>(config), csv_path_(add_setting<ValueField<std::string>>(config, "persistant_csv_path")) {
  set_default("readonly", true);
  set_default("icon", std::string("document"));
  set_default("alias", std::string("log"));
  set_default("label", std::string("Log"));
  sink_ = Log::add_sink([this](const LogRecord& record) { append(record); });
}

LogIO::~LogIO() {
  if (sink_) Log::remove_sink(sink_);
}

void LogIO::stop(StopStage stage) {
  // The log keeps recording through the first stages, so shutdown shows up.
  if (stage == StopStage::Stop3 && sink_) {
    Log::remove_sink(sink_);
    sink_ = 0;
  }
}

void LogIO::append(const LogRecord& record) {
  {
    std::lock_guard lock(mutex_);
    records_.push_back({++sequence_, record});
    if (records_.size() > kKeptRecords) records_.pop_front();
  }
  auto line = Log::format_line(record);
  auto path = csv_path_.get();
  if (!path.empty()) {
    if (FILE* f = std::fopen(path.c_str(), "a")) {
      auto row = fmt::format("{},{},{},{},{}\n", record.stamp, to_string(record.level), record.source, record.line,
                             csv_quote(record.text));
      std::fwrite(row.data(), 1, row.size(), f);
      std::fclose(f);
    }
  }
  set(line);
}

std::vector<LogIO::Entry> LogIO::records_after(uint64_t after) const {
  std::lock_guard lock(mutex_);
  std::vector<Entry> out;
  for (auto& e : records_)
    if (e.sequence > after) out.push_back(e);
  return out;
}

uint64_t LogIO::last_sequence() const {
  std::lock_guard lock(mutex_);
  return sequence_;
}
