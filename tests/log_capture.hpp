#pragma once
// Collects log records while alive, for tests that pin log texts.
#include <mutex>
#include <string>
#include <vector>

#include "core/log.hpp"

class LogCapture {
 public:
  LogCapture() {
    Log::forget_floods();
    id_ = Log::add_sink([this](const LogRecord& r) {
      std::lock_guard lock(mutex_);
      records_.push_back({r.level, std::string(r.source), r.line, r.text});
    });
  }
  ~LogCapture() { Log::remove_sink(id_); }

  struct Entry {
    LogLevel level;
    std::string source;
    int line;
    std::string text;
  };

  std::vector<Entry> entries() const {
    std::lock_guard lock(mutex_);
    return records_;
  }
  std::vector<std::string> texts() const {
    std::vector<std::string> out;
    for (auto& e : entries()) out.push_back(e.text);
    return out;
  }
  bool contains(const std::string& part) const {
    for (auto& t : texts())
      if (t.find(part) != std::string::npos) return true;
    return false;
  }
  bool has_line(const std::string& text) const {
    for (auto& t : texts())
      if (t == text) return true;
    return false;
  }
  void clear() {
    std::lock_guard lock(mutex_);
    records_.clear();
  }

 private:
  Log::SinkId id_;
  mutable std::mutex mutex_;
  std::vector<Entry> records_;
};
