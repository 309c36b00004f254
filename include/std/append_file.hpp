#pragma once
// AppendFile: a file that only grows by whole records. Each append() is one
// write() at the end (O_APPEND), retried until all of it is written, then
// flushed to disk (fdatasync), so a power cut may cut the last record short
// but never touches what an earlier append() returned from.
#include <string>
#include <string_view>

class AppendFile {
 public:
  AppendFile() = default;
  ~AppendFile();
  AppendFile(const AppendFile&) = delete;
  AppendFile& operator=(const AppendFile&) = delete;

  // Opens (creating the file and its folder when missing). False with `error`.
  bool open(const std::string& path, std::string& error);
  void close();
  bool is_open() const { return fd_ >= 0; }

  // Appends `text` and flushes it to disk. False with `error`.
  bool append(std::string_view text, std::string& error);

 private:
  int fd_ = -1;
  std::string path_;
};
