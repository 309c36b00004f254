#include "core/alarm_journal.hpp"

#include <algorithm>
#include <charconv>
#include <filesystem>

#include <nlohmann/json.hpp>

#include "core/log.hpp"
#include "std/atomic_file.hpp"

namespace {

using Json = nlohmann::ordered_json;

// Malformed lines named one by one on load; more are only counted.
constexpr size_t kMalformedLinesNamed = 10;

std::string dumped(const Json& line) {
  return line.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string entry_line(const AlarmEntry& entry, bool with_acknowledgement) {
  Json line{{"seq", entry.id},
            {"time", std::to_string(entry.time)},
            {"path", entry.path},
            {"kind", to_string(entry.kind)},
            {"text", entry.text}};
  if (with_acknowledgement && entry.acknowledged()) {
    line["by"] = entry.acknowledged_by;
    line["at"] = std::to_string(entry.acknowledged_at);
  }
  if (with_acknowledgement && entry.changed != entry.id) line["changed"] = entry.changed;
  return dumped(line);
}

// A stamp written as a decimal string; throws like a JSON type error.
uint64_t stamp_of(const Json& value) {
  const auto& text = value.get_ref<const std::string&>();
  uint64_t stamp = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), stamp);
  if (ec != std::errc() || end != text.data() + text.size() || stamp == 0)
    throw std::invalid_argument("not a stamp");
  return stamp;
}

void log_entry(const AlarmEntry& entry) {
  switch (entry.kind) {
    case AlarmKind::Trip: ZEL_EVENT("Interlock '{}' tripped: {}", entry.path, entry.text); break;
    case AlarmKind::Warning: ZEL_EVENT("Interlock '{}' warning: {}", entry.path, entry.text); break;
    case AlarmKind::Ok: ZEL_EVENT("Interlock '{}' back to OK: {}", entry.path, entry.text); break;
  }
}

}  // namespace

std::string_view to_string(AlarmKind kind) {
  switch (kind) {
    case AlarmKind::Trip: return "trip";
    case AlarmKind::Warning: return "warning";
    case AlarmKind::Ok: return "ok";
  }
  return "trip";
}

std::optional<AlarmKind> alarm_kind_named(std::string_view name) {
  for (auto kind : {AlarmKind::Trip, AlarmKind::Warning, AlarmKind::Ok})
    if (to_string(kind) == name) return kind;
  return std::nullopt;
}

AlarmJournal::AlarmJournal(std::string file, size_t keep)
    : file_(std::move(file)), keep_(std::clamp<size_t>(keep, 1, kMaxKeep)) {}

AlarmJournal::~AlarmJournal() { stop(); }

void AlarmJournal::load() {
  std::string content;
  std::string error;
  switch (AtomicFile::read(file_, content, error)) {
    case AtomicFile::ReadResult::Missing: return;
    case AtomicFile::ReadResult::Failed: {
      // Kept for someone to look at, out of the way: numbers starting again
      // at 1 appended to it would acknowledge its old entries, and the next
      // compaction would overwrite it.
      auto aside = file_ + ".unreadable";
      std::error_code moved;
      std::filesystem::rename(file_, aside, moved);
      if (moved)
        ZEL_ERROR("Alarm journal '{}' can't be read: {}; it could not be moved aside either ({})", file_, error,
                  moved.message());
      else
        ZEL_ERROR("Alarm journal '{}' can't be read: {}; kept as '{}', a new journal begins", file_, error, aside);
      return;
    }
    case AtomicFile::ReadResult::Ok: break;
  }
  if (content.empty()) return;
  std::lock_guard io(io_mutex_);
  size_t malformed = 0;
  size_t kept_before_trim = 0;
  {
    std::lock_guard lock(mutex_);
    size_t number = 0;
    size_t lines = 0;
    std::string_view rest = content;
    while (!rest.empty()) {
      auto end = rest.find('\n');
      auto line = rest.substr(0, end);
      rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
      ++number;
      if (line.empty()) continue;
      ++lines;
      if (apply_line(line)) continue;
      if (++malformed <= kMalformedLinesNamed)
        ZEL_ERROR("Alarm journal '{}' line {} is malformed and skipped", file_, number);
    }
    if (malformed > kMalformedLinesNamed)
      ZEL_ERROR("Alarm journal '{}': {} malformed lines skipped in all", file_, malformed);
    file_lines_ = lines;
    kept_before_trim = entries_.size();
    trim();
    ZEL_INFO("Alarm journal '{}': {} alarms, {} unacknowledged", file_, entries_.size(), unacknowledged_);
  }
  bool torn = content.back() != '\n';
  if (malformed || torn || kept_before_trim > keep_) rewrite();
}

bool AlarmJournal::apply_line(std::string_view text) {
  auto line = Json::parse(text, nullptr, false);
  if (line.is_discarded() || !line.is_object()) return false;
  try {
    uint64_t seq = line.at("seq").get<uint64_t>();
    if (seq == 0) return false;
    if (line.contains("ack")) {
      auto* entry = find(line.at("ack").get<uint64_t>());
      auto who = line.at("by").get<std::string>();
      auto at = stamp_of(line.at("at"));
      if (entry && !entry->acknowledged()) mark_acknowledged(*entry, who, at, seq);
    } else if (line.contains("ack_upto")) {
      auto upto = line.at("ack_upto").get<uint64_t>();
      auto who = line.at("by").get<std::string>();
      auto at = stamp_of(line.at("at"));
      for (auto& entry : entries_)
        if (entry.id <= upto && !entry.acknowledged()) mark_acknowledged(entry, who, at, seq);
    } else if (line.contains("path")) {
      AlarmEntry entry;
      entry.id = seq;
      if (!entries_.empty() && entries_.back().id >= seq) return false;  // out of order: not ours
      entry.time = stamp_of(line.at("time"));
      entry.path = line.at("path").get<std::string>();
      auto kind = alarm_kind_named(line.at("kind").get<std::string>());
      if (!kind) return false;
      entry.kind = *kind;
      entry.text = line.at("text").get<std::string>();
      entry.changed = line.value("changed", seq);
      if (line.contains("at")) {
        entry.acknowledged_by = line.at("by").get<std::string>();
        entry.acknowledged_at = stamp_of(line.at("at"));
      }
      sequence_ = std::max(sequence_, entry.changed);
      if (!entry.acknowledged()) ++unacknowledged_;
      entries_.push_back(std::move(entry));
    } else if (line.size() != 1) {
      return false;
    }
    sequence_ = std::max(sequence_, seq);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

void AlarmJournal::start() {
  std::lock_guard lock(queue_mutex_);
  if (running_) return;
  running_ = true;
  stopping_ = false;
  writer_ = std::thread([this] { writer_loop(); });
}

void AlarmJournal::stop() {
  {
    std::lock_guard lock(queue_mutex_);
    stopping_ = true;
  }
  queue_ready_.notify_one();
  if (writer_.joinable()) writer_.join();
  {
    std::lock_guard lock(queue_mutex_);
    running_ = false;
  }
  written_.notify_all();  // a waiter whose line came too late writes it itself
  drain();  // whatever came after the writer ended
  std::lock_guard io(io_mutex_);
  out_.close();
}

void AlarmJournal::writer_loop() {
  for (;;) {
    {
      std::unique_lock lock(queue_mutex_);
      queue_ready_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
      if (queue_.empty()) return;  // stopping, and all written
    }
    drain();
  }
}

void AlarmJournal::record(uint64_t time, std::string path, AlarmKind kind, std::string text) {
  Queued item;
  item.entry.time = time;
  item.entry.path = std::move(path);
  item.entry.kind = kind;
  item.entry.text = std::move(text);
  enqueue(std::move(item));
}

uint64_t AlarmJournal::enqueue(Queued item) {
  bool wake;
  uint64_t ticket;
  {
    std::lock_guard lock(queue_mutex_);
    wake = queue_.empty();  // else the writer is already due to come
    queue_.push_back(std::move(item));
    ticket = ++queued_ticket_;
  }
  if (wake) queue_ready_.notify_one();
  return ticket;
}

void AlarmJournal::wait_written(uint64_t ticket) {
  std::unique_lock lock(queue_mutex_);
  if (!running_) {
    lock.unlock();
    drain();
    return;
  }
  written_.wait(lock, [&] { return written_ticket_ >= ticket || !running_; });
  if (written_ticket_ < ticket) {
    lock.unlock();
    drain();
  }
}

void AlarmJournal::flush() {
  uint64_t ticket;
  {
    std::lock_guard lock(queue_mutex_);
    ticket = queued_ticket_;
  }
  wait_written(ticket);
}

void AlarmJournal::drain() {
  std::lock_guard io(io_mutex_);
  std::vector<Queued> batch;
  uint64_t ticket;
  {
    std::lock_guard lock(queue_mutex_);
    batch.swap(queue_);
    ticket = queued_ticket_;
  }
  if (!batch.empty()) {
    std::string lines;
    std::vector<AlarmEntry> fresh;
    Counts counts;
    bool compact;
    {
      std::lock_guard lock(mutex_);
      for (auto& item : batch) {
        if (!item.line.empty()) {
          lines += item.line;
          continue;
        }
        auto& entry = item.entry;
        entry.id = entry.changed = ++sequence_;
        lines += entry_line(entry, false);
        fresh.push_back(entry);
        entries_.push_back(std::move(entry));
        ++unacknowledged_;
      }
      trim();
      file_lines_ += batch.size();
      compact = file_lines_ > keep_ + keep_ / 2;
      counts = {sequence_, unacknowledged_};
    }
    append(lines);
    if (compact) rewrite();
    for (auto& entry : fresh) log_entry(entry);
    if (listener_) listener_(counts);
  }
  {
    std::lock_guard lock(queue_mutex_);
    written_ticket_ = std::max(written_ticket_, ticket);
  }
  written_.notify_all();
}

void AlarmJournal::append(const std::string& lines) {
  std::string error;
  if (!out_.is_open() && !out_.open(file_, error)) {
    ZEL_ERROR("Alarm journal not written: {}", error);
    return;
  }
  if (!out_.append(lines, error)) {
    ZEL_ERROR("Alarm journal not written: {}", error);
    out_.close();  // opened again for the next batch
  }
}

void AlarmJournal::rewrite() {
  std::string text;
  size_t lines;
  {
    std::lock_guard lock(mutex_);
    text = dumped(Json{{"seq", sequence_}});
    for (auto& entry : entries_) text += entry_line(entry, true);
    lines = entries_.size() + 1;
  }
  std::string error;
  if (!AtomicFile::write(file_, text, error)) {
    ZEL_ERROR("Alarm journal '{}' not rewritten: {}", file_, error);
    return;
  }
  out_.close();  // the name now holds the new file
  std::lock_guard lock(mutex_);
  file_lines_ = lines;
}

void AlarmJournal::trim() {
  while (entries_.size() > keep_) {
    if (!entries_.front().acknowledged()) --unacknowledged_;
    entries_.pop_front();
  }
}

AlarmEntry* AlarmJournal::find(uint64_t id) {
  auto it = std::lower_bound(entries_.begin(), entries_.end(), id,
                             [](const AlarmEntry& entry, uint64_t wanted) { return entry.id < wanted; });
  return it != entries_.end() && it->id == id ? &*it : nullptr;
}

const AlarmEntry* AlarmJournal::find(uint64_t id) const { return const_cast<AlarmJournal*>(this)->find(id); }

void AlarmJournal::mark_acknowledged(AlarmEntry& entry, std::string_view who, uint64_t at, uint64_t seq) {
  entry.acknowledged_by = who;
  entry.acknowledged_at = at;
  entry.changed = seq;
  --unacknowledged_;
}

AlarmJournal::AckResult AlarmJournal::acknowledge(uint64_t id, std::string_view who, uint64_t at) {
  std::string line;
  {
    std::lock_guard lock(mutex_);
    auto* entry = find(id);
    if (!entry) return AckResult::NotFound;
    if (entry->acknowledged()) return AckResult::AlreadyAcknowledged;
    uint64_t seq = ++sequence_;
    mark_acknowledged(*entry, who, at, seq);
    line = dumped(Json{{"seq", seq}, {"ack", id}, {"by", who}, {"at", std::to_string(at)}});
  }
  wait_written(enqueue({{}, std::move(line)}));
  return AckResult::Done;
}

size_t AlarmJournal::acknowledge_all(std::string_view who, uint64_t at) {
  std::string line;
  size_t count = 0;
  {
    std::lock_guard lock(mutex_);
    if (!unacknowledged_) return 0;
    uint64_t seq = ++sequence_;
    uint64_t upto = 0;
    for (auto& entry : entries_) {
      if (entry.acknowledged()) continue;
      mark_acknowledged(entry, who, at, seq);
      upto = entry.id;
      ++count;
    }
    line = dumped(Json{{"seq", seq}, {"ack_upto", upto}, {"by", who}, {"at", std::to_string(at)}});
  }
  wait_written(enqueue({{}, std::move(line)}));
  return count;
}

AlarmJournal::Page AlarmJournal::list(uint64_t after, size_t limit) const {
  std::lock_guard lock(mutex_);
  Page page{sequence_, unacknowledged_, {}};
  for (auto it = entries_.rbegin(); it != entries_.rend() && page.alarms.size() < limit; ++it)
    if (it->changed > after) page.alarms.push_back(*it);
  return page;
}

AlarmJournal::Counts AlarmJournal::counts() const {
  std::lock_guard lock(mutex_);
  return {sequence_, unacknowledged_};
}

std::optional<AlarmEntry> AlarmJournal::entry(uint64_t id) const {
  std::lock_guard lock(mutex_);
  auto* found = find(id);
  return found ? std::optional<AlarmEntry>(*found) : std::nullopt;
}
