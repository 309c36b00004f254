#pragma once
// The inbox header, 200 bytes into the subsystem's shared RAM (subsystem
// offset 0x100C8), as host and firmware share it. All words are 32-bit,
// little-endian, naturally aligned:
//
//   +0   tail          firmware: region offset of the newest complete packet,
//                      stored after the packet's bytes (kNoPacket before the first)
//   +4   enable        host: non-zero while the host accepts packets
//   +8   region_base   host: physical address of the packet region (low 32 bits)
//   +12  region_size   host: size of the packet region in bytes (0x800000)
//   +16  build         firmware: its build number
//   +20  dropped       firmware: packets it discarded while the inbox was disabled
//
// The host writes region_base and region_size before it sets enable; the
// firmware writes nothing into the region while enable is zero.
//
// Packets in the region: each starts on a 4-byte boundary right after the
// previous one; a packet that would not fit before the region's end starts at
// offset 0 instead. Its previous-packet word holds the offset of the packet
// before it (kNoPacket for the first after a reset).
#include <cstddef>
#include <cstdint>

#include "pru/subsystem_layout.hpp"

namespace inbox_layout {

inline constexpr size_t kHeaderInSharedRam = 200;
inline constexpr size_t kHeaderOffset = pru_layout::kSharedRam + kHeaderInSharedRam;
inline constexpr size_t kTail = 0;
inline constexpr size_t kEnable = 4;
inline constexpr size_t kRegionBase = 8;
inline constexpr size_t kRegionSize = 12;
inline constexpr size_t kBuild = 16;
inline constexpr size_t kDropped = 20;
inline constexpr size_t kHeaderSize = 24;

inline constexpr size_t kRegionBytes = 0x800000;  // 8 MiB
inline constexpr uint32_t kNoPacket = 0xFFFFFFFF;

}  // namespace inbox_layout
