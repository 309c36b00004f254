#pragma once
// Accessors for memory that another processor writes: the PRU subsystem's
// registers and RAM, the packet region. Every access is one aligned 32-bit
// load or store, never split, merged or elided by the compiler.
//
// read32/write32 are volatile accesses for registers. load_acquire32 and
// store_release32 are the same single 32-bit accesses with ordering: plain
// reads that follow an acquire load see everything the writer stored before
// its release store of that word (on ARMv7 a load followed by a barrier).
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace device_memory {

inline uint32_t read32(const uint8_t* base, size_t offset) {
  return *reinterpret_cast<const volatile uint32_t*>(base + offset);
}

inline void write32(uint8_t* base, size_t offset, uint32_t value) {
  *reinterpret_cast<volatile uint32_t*>(base + offset) = value;
}

inline uint32_t load_acquire32(const uint8_t* base, size_t offset) {
  auto* word = reinterpret_cast<uint32_t*>(const_cast<uint8_t*>(base + offset));
  return std::atomic_ref<uint32_t>(*word).load(std::memory_order_acquire);
}

inline void store_release32(uint8_t* base, size_t offset, uint32_t value) {
  auto* word = reinterpret_cast<uint32_t*>(base + offset);
  std::atomic_ref<uint32_t>(*word).store(value, std::memory_order_release);
}

}  // namespace device_memory
