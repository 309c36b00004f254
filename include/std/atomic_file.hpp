#pragma once
// AtomicFile: whole-file reads, and whole-file replacement that a crash or a
// power cut at any moment leaves with either the old content or the new one,
// never a mix or a torn file.
//
// A replacement writes "<path>.tmp" in the same folder, flushes it to disk,
// renames it over `path` and flushes the folder, so the rename itself is on
// disk when write() returns. A crash leaves at most a stale "<path>.tmp"
// behind, which the next write to that path overwrites. Writes within the
// process are serialised, so two writers of one path never share a temporary.
#include <string>
#include <string_view>

class AtomicFile {
 public:
  enum class ReadResult { Ok, Missing, Failed };

  // The most read() takes in: the files it reads are small settings files.
  static constexpr size_t kMaxReadSize = 16 * 1024 * 1024;

  // Reads the whole file into `content`. Missing when it does not exist;
  // Failed (with `error`) when it exists but cannot be read, and when it is
  // not a regular file or holds more than kMaxReadSize bytes: a FIFO would
  // block the reader for ever and a device such as /dev/zero never ends.
  // A symbolic link to a regular file is read.
  static ReadResult read(const std::string& path, std::string& content, std::string& error);

  // Replaces the file's content as described above, creating its folder when
  // missing. On failure returns false with `error`; the old file is untouched
  // unless only the final flush of the folder failed.
  static bool write(const std::string& path, std::string_view content, std::string& error);

  // Renames a file within its folder (to keep a bad file aside). False with
  // `error` on failure.
  static bool rename(const std::string& from, const std::string& to, std::string& error);

  // The name of the temporary that write() uses for `path`.
  static std::string temporary_for(const std::string& path) { return path + ".tmp"; }
};
