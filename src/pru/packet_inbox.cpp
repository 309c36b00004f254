#include "pru/packet_inbox.hpp"

#include <algorithm>
#include <cstring>

#include "core/log.hpp"
#include "pru/device_memory.hpp"
#include "pru/inbox_layout.hpp"

using device_memory::load_acquire32;
using device_memory::read32;
using device_memory::write32;
namespace layout = inbox_layout;


PacketInbox::PacketInbox(uint8_t* header, uint8_t* region, size_t region_size, uint64_t region_physical)
    : header_(header), region_(region), region_size_(region_size), region_physical_(region_physical) {
  if (header_) read_index_ = read32(header_, layout::kTail);
}

void PacketInbox::enable() {
  std::lock_guard lock(mutex_);
  if (!mapped()) return;
  write32(header_, layout::kRegionBase, static_cast<uint32_t>(region_physical_));
  write32(header_, layout::kRegionSize, static_cast<uint32_t>(region_size_));
  read_index_ = load_acquire32(header_, layout::kTail);
  write32(header_, layout::kEnable, 1);
}

void PacketInbox::disable() {
  std::lock_guard lock(mutex_);
  if (header_) write32(header_, layout::kEnable, 0);
}

bool PacketInbox::enabled() const {
  std::lock_guard lock(mutex_);
  return header_ && read32(header_, layout::kEnable) != 0;
}

bool PacketInbox::take(uint32_t offset) {
  if (offset % 4 != 0 || offset > region_size_ - pru_packet::kHeaderSize) {
    ZEL_ERROR("Unexpected packet offset {:#x}", offset);
    return false;
  }
  // The size word may be under rewrite by the firmware (a region that wrapped
  // past the host): one volatile 32-bit read, and the size is checked before
  // it is used for anything.
  uint32_t size = read32(region_, offset + pru_packet::kSizeOffset) & 0xFFFFu;
  if (size > pru_packet::kMaxSize || size < pru_packet::kHeaderSize || offset + size > region_size_) {
    ZEL_ERROR("Unexpected data size {}", size);
    return false;
  }
  if (bytes_used_ + size > bytes_capacity_) {
    size_t capacity = std::max<size_t>(2 * bytes_capacity_, 64 * 1024);
    auto bigger = std::make_unique_for_overwrite<uint8_t[]>(capacity);
    if (bytes_used_) std::memcpy(bigger.get(), bytes_.get(), bytes_used_);
    bytes_ = std::move(bigger);
    bytes_capacity_ = capacity;
  }
  // The checksum is taken of the words as they are copied: what is
  // delivered is exactly what was verified, whatever the firmware does to
  // the region meanwhile.
  uint8_t* copy = bytes_.get() + bytes_used_;
  uint16_t computed = pru_packet::copy_and_checksum(copy, region_ + offset, size);
  PacketView view({copy, size});
  // The walk goes from newer to older packets, against the direction the
  // caches prefetch in. The firmware writes packets one after another, and
  // neighbours tend to have the same size: fetch the bytes a few packets
  // back while this one is handled.
  constexpr size_t kPrefetchPackets = 8;
  if (offset >= kPrefetchPackets * size)
    for (size_t line = 0; line < size; line += 64) __builtin_prefetch(region_ + offset - kPrefetchPackets * size + line);
  if (computed != view.stored_checksum()) {
    ZEL_ERROR("Failed checksum {:x} != {:x}", computed, view.stored_checksum());
    return false;
  }
  batch_.push_back({bytes_used_, size});
  bytes_used_ += size;
  return true;
}

size_t PacketInbox::read(const Consumer& consumer) {
  std::lock_guard lock(mutex_);
  if (!mapped() || read32(header_, layout::kEnable) == 0) return 0;
  // Acquire: every packet the firmware finished before storing this tail is
  // visible to the plain reads below.
  uint32_t tail = load_acquire32(header_, layout::kTail);
  if (tail == read_index_) return 0;

  batch_.clear();
  bytes_used_ = 0;
  uint32_t at = tail;
  // kNoPacket ends the chain too: the firmware restarted since the last read.
  while (at != layout::kNoPacket) {
    if (!take(at)) {
      ++faults_;
      return 0;
    }
    uint32_t previous = PacketView({bytes_.get() + batch_.back().at, batch_.back().size}).previous();
    if (previous == read_index_) break;
    if (batch_.size() >= kMaxBatch || bytes_used_ >= region_size_) {
      ++capped_;
      break;
    }
    at = previous;
  }
  read_index_ = tail;

  for (auto it = batch_.rbegin(); it != batch_.rend(); ++it)
    consumer(PacketView({bytes_.get() + it->at, it->size}));
  delivered_ += batch_.size();
  return batch_.size();
}
