#pragma once
// Typed messages of a fiber slave. A command is a literal byte list or a
// command byte with one or two arguments (little-endian); a reply is a
// packed record read from the start of a reply frame's data: the status
// byte, the payload length, then the record's own fields. Every reply record
// has a fixed size: 2 for the generic reply, 7 for the connect reply and 13
// for the identify reply.
#include <cstdint>
#include <cstring>
#include <vector>

// Command bytes every slave understands; slave types add their own from 0x20.
enum class FiberCommand : uint8_t {
  Identify = 0x01,   // -> FiberIdentifyReply
  Connect = 0x02,    // {Connect, address} -> FiberConnectReply echoing the address
  Initiate = 0x03,   // Arg1<float>: the fast-message period in seconds -> generic reply
  ErrorCode = 0x04,  // -> generic reply; the error code is the status byte
  PowerOff = 0x05,   // all outputs off -> generic reply
};

namespace fiber_detail {
template <class T>
void append(std::vector<uint8_t>& out, const T& value) {
  uint8_t raw[sizeof(T)];
  std::memcpy(raw, &value, sizeof(T));
  out.insert(out.end(), raw, raw + sizeof(T));
}
}  // namespace fiber_detail

template <class A>
struct HighLevelFiberCommandArg1 {
  uint8_t command;
  A arg;
  std::vector<uint8_t> bytes() const {
    std::vector<uint8_t> out{command};
    fiber_detail::append(out, arg);
    return out;
  }
};

template <class A, class B>
struct HighLevelFiberCommandArg2 {
  uint8_t command;
  A arg1;
  B arg2;
  std::vector<uint8_t> bytes() const {
    std::vector<uint8_t> out{command};
    fiber_detail::append(out, arg1);
    fiber_detail::append(out, arg2);
    return out;
  }
};

inline std::vector<uint8_t> command_bytes(const std::vector<uint8_t>& literal) { return literal; }
template <class C>
std::vector<uint8_t> command_bytes(const C& command) {
  return command.bytes();
}

#pragma pack(push, 1)
struct HighLevelFiberMessageReply {
  uint8_t status;
  uint8_t length;  // payload bytes after these two
};

struct FiberConnectReply : HighLevelFiberMessageReply {
  uint8_t address;
  uint32_t session;  // the module's count of connections since its power-up
};

struct FiberIdentifyReply : HighLevelFiberMessageReply {
  uint16_t board_id;
  uint8_t hardware_version;
  uint8_t pic_major_version;
  uint8_t pic_minor_version;
  char pic_letter_version;
  uint8_t fpga_major_version;
  uint8_t fpga_minor_version;
  uint8_t fpga_build_version;
  uint8_t io_input_length;
  uint8_t io_output_length;
};
#pragma pack(pop)

static_assert(sizeof(HighLevelFiberMessageReply) == 2);
static_assert(sizeof(FiberConnectReply) == 7);
static_assert(sizeof(FiberIdentifyReply) == 13);

// Reply status byte: bits 0..2 are the module's status flags; 0x44 marks an
// error reply.
inline constexpr uint8_t kFiberStatusErrorMask = 0x44;
