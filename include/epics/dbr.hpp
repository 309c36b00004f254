#pragma once
// DBR encoding: a process variable's value, with its alarm, time stamp and
// display data, written in any of the 35 database request types a client may
// ask for (DBR_STRING ... DBR_CTRL_DOUBLE), converting between the seven
// element types as Channel Access servers do; and a written value read back
// into the tree's value text.
//
// Type codes: element type (0 STRING, 1 SHORT, 2 FLOAT, 3 ENUM, 4 CHAR,
// 5 LONG, 6 DOUBLE) plus 7 times the form (0 plain, 1 STS, 2 TIME, 3 GR,
// 4 CTRL). Structures are laid out as the protocol's C structures, big-endian,
// with their padding.
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace dbr {

enum Element : uint16_t { String = 0, Short = 1, Float = 2, Enum = 3, Char = 4, Long = 5, Double = 6 };
enum Form : uint16_t { Plain = 0, Sts = 1, Time = 2, Gr = 3, Ctrl = 4 };
constexpr uint16_t kLastType = 34;  // DBR_CTRL_DOUBLE
constexpr size_t kStringSize = 40;  // a DBR_STRING element, NUL included
constexpr size_t kEnumStrings = 16;
constexpr size_t kEnumStringSize = 26;
constexpr size_t kUnitsSize = 8;

inline Element element_of(uint16_t type) { return static_cast<Element>(type % 7); }
inline Form form_of(uint16_t type) { return static_cast<Form>(type / 7); }

enum AlarmSeverity : int16_t { NoAlarm = 0, Minor = 1, Major = 2, Invalid = 3 };
enum AlarmStatus : int16_t { StatusNone = 0, StatusState = 7, StatusUdf = 17 };

// A value as served: numbers or texts (one per element), the alarm, the
// stamp and what GR and CTRL requests carry.
struct PvValue {
  bool text = false;  // elements are texts (STRING native type)
  std::vector<double> numbers;
  std::vector<std::string> texts;
  int16_t status = StatusNone;
  int16_t severity = NoAlarm;
  uint64_t stamp_ns = 0;  // Unix nanoseconds; 0 when never assigned
  std::string units;
  int16_t precision = 0;
  double display_low = 0, display_high = 0;
  double control_low = 0, control_high = 0;
  double alarm_low = std::numeric_limits<double>::quiet_NaN(), warning_low = alarm_low;
  double warning_high = alarm_low, alarm_high = alarm_low;
  std::vector<std::string> states;  // an ENUM's state strings

  size_t count() const { return text ? texts.size() : numbers.size(); }
  // Back to a value without elements, keeping the memory for the next one.
  void clear();
};

// Appends the payload (unpadded) of `type` with `count` elements (0: as many
// as the value has). False, appending nothing, for a type beyond
// DBR_CTRL_DOUBLE.
bool encode(uint16_t type, uint32_t count, const PvValue& value, std::string& out);

// What a client wrote, as plain elements of `type` (0 to 6) in `payload`.
struct Written {
  bool text = false;
  std::vector<double> numbers;
  std::vector<std::string> texts;
};
std::optional<Written> decode(uint16_t type, uint32_t count, std::string_view payload);

// The size of one element of a plain type.
size_t element_size(Element element);

}  // namespace dbr
