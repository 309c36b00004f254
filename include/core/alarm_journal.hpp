#pragma once
// AlarmJournal: the instrument's record of interlock trips, warnings and
// returns to OK, each acknowledged by an operator (who and when), kept in a
// JSON-lines file across restarts.
//
// Numbers. One sequence counts every change of the journal: an entry takes
// the next number as its id, an acknowledgement takes the next number too
// (kept as the entry's `changed`). A reader that remembers the last number
// asks for what changed after it.
//
// Threads. record() runs on the thread whose event changed an interlock (the
// safety chain's own): it only queues the entry under a lock of its own and
// wakes the writer thread. Numbering, the file, the log line and the change
// listener all run on the writer. Readers and acknowledgements (web threads)
// take the journal's lock; an acknowledgement returns once its line is on
// disk. Without a started writer, flush() and acknowledgements do the
// writer's work on the calling thread.
//
// File. One JSON object a line, times in nanoseconds since the epoch as
// decimal strings:
//   {"seq":7,"time":"..","path":"chamber/hv/vacuum","kind":"trip","text":".."}   an entry
//   {"seq":9,"ack":7,"by":"olga","at":".."}         one entry acknowledged
//   {"seq":12,"ack_upto":11,"by":"olga","at":".."}  every entry up to 11 not yet acknowledged
//   {"seq":40}                                       the sequence reached (heads a rewritten file)
// An entry line of a rewritten file also carries "by", "at" and "changed".
// Each batch is appended with one write() and flushed with fdatasync(), so a
// power cut loses at most the lines not yet written and never an earlier
// one. On load a malformed line (a torn last one) is logged and skipped and
// the file is rewritten whole (AtomicFile). The journal keeps the newest
// `keep` entries; once the file holds half as many lines again as that it is
// rewritten with those alone.
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "std/append_file.hpp"

enum class AlarmKind : uint8_t { Trip, Warning, Ok };
// "trip", "warning", "ok".
std::string_view to_string(AlarmKind kind);
std::optional<AlarmKind> alarm_kind_named(std::string_view name);

struct AlarmEntry {
  uint64_t id = 0;
  uint64_t time = 0;  // the interlock's change, nanoseconds since the epoch
  std::string path;   // the interlock
  AlarmKind kind = AlarmKind::Trip;
  std::string text;   // the condition in words
  std::string acknowledged_by;
  uint64_t acknowledged_at = 0;  // 0: not acknowledged
  uint64_t changed = 0;          // the sequence number of its last change

  bool acknowledged() const { return acknowledged_at != 0; }
};

class AlarmJournal {
 public:
  static constexpr size_t kDefaultKeep = 10000;
  // The file grows to 1.5 times this many lines before it is compacted; at a
  // few hundred bytes a line that stays below AtomicFile's read limit.
  static constexpr size_t kMaxKeep = 20000;

  struct Counts {
    uint64_t sequence = 0;
    size_t unacknowledged = 0;
  };
  struct Page {
    uint64_t last = 0;
    size_t unacknowledged = 0;
    std::vector<AlarmEntry> alarms;  // newest first
  };
  enum class AckResult { Done, AlreadyAcknowledged, NotFound };

  AlarmJournal(std::string file, size_t keep);
  ~AlarmJournal();
  AlarmJournal(const AlarmJournal&) = delete;
  AlarmJournal& operator=(const AlarmJournal&) = delete;

  // Reads the file (once, before start): malformed lines are logged and
  // skipped, and the file is rewritten when any was, or when it held more
  // than `keep` entries.
  void load();
  // The writer thread; stop() writes what is queued and ends it.
  void start();
  void stop();

  // Queues a new entry; cheap, never touches the file.
  void record(uint64_t time, std::string path, AlarmKind kind, std::string text);

  // Acknowledges one entry or every entry not yet acknowledged, in the name
  // of `who` at `at`; returns once the acknowledgement is written.
  AckResult acknowledge(uint64_t id, std::string_view who, uint64_t at);
  size_t acknowledge_all(std::string_view who, uint64_t at);

  // The newest `limit` entries whose number or acknowledgement came after
  // sequence number `after`.
  Page list(uint64_t after, size_t limit) const;
  Counts counts() const;
  std::optional<AlarmEntry> entry(uint64_t id) const;

  // Called on the writer thread after each batch it wrote (set before start).
  void on_change(std::function<void(Counts)> listener) { listener_ = std::move(listener); }
  // Returns once everything queued before the call is written.
  void flush();

  const std::string& file() const { return file_; }

 private:
  struct Queued {
    AlarmEntry entry;  // a new entry, when `line` is empty
    std::string line;  // an acknowledgement's line
  };

  uint64_t enqueue(Queued item);
  void wait_written(uint64_t ticket);
  // Takes the queue and writes it: the writer's work.
  void drain();
  void writer_loop();
  void append(const std::string& lines);  // io_mutex_ held
  void rewrite();  // io_mutex_ held
  // Drops the oldest entries beyond `keep_`; mutex_ held.
  void trim();
  // Entry by id; mutex_ held.
  AlarmEntry* find(uint64_t id);
  const AlarmEntry* find(uint64_t id) const;
  // Applies one line of the file; false when it is malformed. mutex_ held.
  bool apply_line(std::string_view line);
  void mark_acknowledged(AlarmEntry& entry, std::string_view who, uint64_t at, uint64_t seq);

  const std::string file_;
  const size_t keep_;
  std::function<void(Counts)> listener_;

  mutable std::mutex mutex_;  // guards the entries and numbers below
  std::deque<AlarmEntry> entries_;  // ascending ids
  uint64_t sequence_ = 0;
  size_t unacknowledged_ = 0;
  size_t file_lines_ = 0;

  std::mutex queue_mutex_;  // guards the queue and tickets below; record() takes only this one
  std::condition_variable queue_ready_;
  std::condition_variable written_;
  std::vector<Queued> queue_;
  uint64_t queued_ticket_ = 0;
  uint64_t written_ticket_ = 0;
  bool stopping_ = false;
  bool running_ = false;

  std::mutex io_mutex_;  // one drain at a time; guards out_
  AppendFile out_;
  std::thread writer_;
};
