#pragma once
// InboxMemory: an inbox header and an 8 MiB packet region in process memory,
// the firmware's writer and the host's inbox over them: the inbox without a
// subsystem, for tests and benchmarks of the read algorithm.
#include <cstdint>
#include <vector>

#include "pru/inbox_layout.hpp"
#include "pru/packet_inbox.hpp"
#include "sim/pru/packet_writer.hpp"

struct InboxMemory {
  static constexpr uint64_t kRegionPhysical = 0x9F800000;

  std::vector<uint32_t> header = std::vector<uint32_t>(inbox_layout::kHeaderSize / 4);
  std::vector<uint32_t> region = std::vector<uint32_t>(inbox_layout::kRegionBytes / 4);
  uint8_t* header_bytes() { return reinterpret_cast<uint8_t*>(header.data()); }
  uint8_t* region_bytes() { return reinterpret_cast<uint8_t*>(region.data()); }
  PacketWriter writer{header_bytes(), region_bytes(), inbox_layout::kRegionBytes};
  PacketInbox inbox{header_bytes(), region_bytes(), inbox_layout::kRegionBytes, kRegionPhysical};
};
