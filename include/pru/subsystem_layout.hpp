#pragma once
// The PRU subsystem's memory map (AM335x PRU-ICSS; offsets from the subsystem
// base) and the register bits the host uses. Other members of the family put
// the subsystem elsewhere; the offsets inside it are the same.
#include <cstddef>
#include <cstdint>

namespace pru_layout {

inline constexpr uint64_t kDefaultBaseAddress = 0x4A300000;  // AM335x
inline constexpr size_t kDefaultRegSize = 0x40000;           // up to the end of PRU1's instruction RAM

// Memories.
inline constexpr size_t kSharedRam = 0x10000;     // 12 KiB shared by both cores and the host
inline constexpr size_t kSharedRamSize = 0x3000;
inline constexpr size_t kCoreMemorySize = 8192;   // each core's instruction and data RAM
inline constexpr size_t kDataOffset[2] = {0x00000, 0x02000};
inline constexpr size_t kInstructionOffset[2] = {0x34000, 0x38000};

// Per-core control block.
inline constexpr size_t kControlOffset[2] = {0x22000, 0x24000};
inline constexpr size_t kControl = 0x00;  // CONTROL
inline constexpr size_t kStatus = 0x04;   // STATUS: program counter in bits 15..0
inline constexpr size_t kCycle = 0x0C;    // CYCLE: cycles while enabled
inline constexpr size_t kStall = 0x10;    // STALL: cycles without an instruction fetch

inline constexpr uint32_t kControlSoftResetN = 1u << 0;  // 0 holds the core in reset
inline constexpr uint32_t kControlEnable = 1u << 1;
inline constexpr uint32_t kControlSleeping = 1u << 2;
inline constexpr uint32_t kControlCounterEnable = 1u << 3;
inline constexpr uint32_t kControlSingleStep = 1u << 8;
inline constexpr uint32_t kControlRunState = 1u << 15;   // read-only: the core is executing

inline constexpr uint32_t kControlStopped = kControlCounterEnable | kControlSleeping;  // 12
inline constexpr uint32_t kControlRun = kControlSoftResetN | kControlEnable | kControlCounterEnable;
inline constexpr uint32_t kControlHalt = kControlSoftResetN | kControlCounterEnable;

// The subsystem's configuration block and its SYSCFG register.
inline constexpr size_t kSysCfg = 0x26000 + 0x04;
inline constexpr uint32_t kSysCfgStandbyRequest = 0x10;  // STANDBY_INIT
inline constexpr uint32_t kSysCfgNoIdleNoStandby = 0x05; // idle and standby modes "no"
inline constexpr uint32_t kSysCfgMasterWait = 0x20;      // read-only SUB_MWAIT

// Firmware convention: the last word of a core's data RAM holds the length
// of its last timeslice in cycles of the 200 MHz core clock.
inline constexpr size_t kTimesliceWord = kCoreMemorySize - 4;
inline constexpr double kCoreClockHz = 200e6;

}  // namespace pru_layout
