#pragma once
// Channel Access messages: the 16-byte header every message starts with (all
// fields big-endian), its extended form for payloads of 64 KiB and more, the
// command numbers and the status codes this server answers with.
//
// A header is: command, payload size, data type, data count, parameter 1,
// parameter 2. A payload size of 0xFFFF with a count of 0 announces the
// extended header: two more 32-bit words carry the real size and count.
// Payloads are padded to a multiple of 8 bytes.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ca {

// The protocol's minor version (4.13).
constexpr uint16_t kMinorVersion = 13;
constexpr uint16_t kDefaultServerPort = 5064;
constexpr uint16_t kDefaultRepeaterPort = 5065;
// Seconds between the Unix epoch and the EPICS epoch (1990-01-01 UTC).
constexpr uint64_t kEpicsEpochOffset = 631152000;

enum Command : uint16_t {
  kVersion = 0,
  kEventAdd = 1,
  kEventCancel = 2,
  kWrite = 4,
  kSearch = 6,
  kEventsOff = 8,
  kEventsOn = 9,
  kReadSync = 10,
  kError = 11,
  kClearChannel = 12,
  kBeacon = 13,
  kNotFound = 14,
  kReadNotify = 15,
  kRepeaterConfirm = 17,
  kCreateChannel = 18,
  kWriteNotify = 19,
  kClientName = 20,
  kHostName = 21,
  kAccessRights = 22,
  kEcho = 23,
  kCreateChannelFailed = 26,
  kServerDisconnect = 27,
};

// Search reply flags (a search's data type).
constexpr uint16_t kDoReply = 10;
constexpr uint16_t kDontReply = 5;

// Status codes (message number << 3 | severity).
enum Status : uint32_t {
  kNormal = 1,
  kBadType = 114,
  kPutFail = 160,
  kBadCount = 176,
  kNoReadAccess = 368,
  kNoWriteAccess = 376,
  kBadChannel = 410,
};

// Access rights bits.
constexpr uint32_t kReadAccess = 1;
constexpr uint32_t kWriteAccess = 2;

// Event masks of a monitor.
constexpr uint16_t kMaskValue = 1;
constexpr uint16_t kMaskLog = 2;
constexpr uint16_t kMaskAlarm = 4;
constexpr uint16_t kMaskProperty = 8;

struct Header {
  uint16_t command = 0;
  uint32_t payload_size = 0;
  uint16_t data_type = 0;
  uint32_t data_count = 0;
  uint32_t parameter1 = 0;
  uint32_t parameter2 = 0;
};

constexpr size_t kHeaderSize = 16;
constexpr size_t kExtendedHeaderSize = 24;

// The header at the start of `bytes`, and how many bytes it takes; nothing
// while `bytes` does not hold a whole header yet.
struct ParsedHeader {
  Header header;
  size_t size;
};
std::optional<ParsedHeader> parse_header(std::string_view bytes);

// Appends a header (extended when the size or count need it). The payload
// that follows must already be padded to `payload_size`.
void append_header(std::string& out, const Header& header);
// Appends a whole message: header and `payload` padded with zeros to 8.
void append_message(std::string& out, Header header, std::string_view payload = {});

inline size_t padded8(size_t n) { return (n + 7) & ~size_t{7}; }

// A name or string carried in a payload: the bytes up to the first NUL.
std::string_view payload_text(std::string_view payload);

// Big-endian appenders and readers.
void put16(std::string& out, uint16_t v);
void put32(std::string& out, uint32_t v);
uint16_t get16(const char* p);
uint32_t get32(const char* p);

}  // namespace ca
