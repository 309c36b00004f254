#pragma once
// PacketInbox: the host's side of the firmware's packet inbox (layout in
// pru/inbox_layout.hpp and pru/packet.hpp). The firmware writes packets and
// then `tail` without any lock; the host keeps its own read index, the offset
// of the newest packet it has consumed, and on each read walks the chain of
// previous-packet links from `tail` back to it.
//
// One mutex guards the read index and the enable word: read(), enable() and
// disable() take it, so a consumer called by read() must not call them.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "pru/packet.hpp"

class PacketInbox {
 public:
  using Consumer = std::function<void(const PacketView&)>;
  static constexpr size_t kMaxBatch = 100000;

  // An inbox that is not mapped: reads deliver nothing.
  PacketInbox() = default;
  // `header` points at the inbox header in shared RAM, `region` at the
  // mapped packet region of `region_size` bytes whose physical address (as
  // the firmware must use it) is `region_physical`.
  PacketInbox(uint8_t* header, uint8_t* region, size_t region_size, uint64_t region_physical);

  bool mapped() const { return header_ && region_; }

  // Tells the firmware where the region is, takes the present `tail` as
  // consumed and sets the enable word. The firmware writes no packet while
  // the word is clear.
  void enable();
  void disable();
  bool enabled() const;

  // Delivers every packet newer than the read index, oldest first, one
  // consumer call each; returns how many. A packet of a bad size or checksum
  // drops the whole batch (logged) and leaves the read index, so the next
  // read tries the same packets again. At most kMaxBatch packets, and at most
  // one region's worth of bytes, are taken in one read: older ones are lost.
  size_t read(const Consumer& consumer);

  // Counters since construction.
  uint64_t delivered() const { return delivered_; }
  uint64_t faults() const { return faults_; }
  uint64_t backlog_dropped_reads() const { return capped_; }

 private:
  struct Entry {
    size_t at;    // position in the batch buffer
    size_t size;
  };
  // Copies the packet at `offset` into the batch; false (logged) on a fault.
  bool take(uint32_t offset);

  uint8_t* header_ = nullptr;
  uint8_t* region_ = nullptr;
  size_t region_size_ = 0;
  uint64_t region_physical_ = 0;

  mutable std::mutex mutex_;
  uint32_t read_index_ = 0;
  std::vector<Entry> batch_;
  std::unique_ptr<uint8_t[]> bytes_;  // the batch's packets, as copied
  size_t bytes_capacity_ = 0;
  size_t bytes_used_ = 0;
  std::atomic<uint64_t> delivered_{0};
  std::atomic<uint64_t> faults_{0};
  std::atomic<uint64_t> capped_{0};
};
