#pragma once
// PvDirectory: the process variables a Channel Access server offers, one per
// field of the tree below its top, found by name.
//
// Names: the prefix, then the field's path with ":" between the path's
// elements. The value field of an IO is named after the IO itself
// ("ZEL:channels:temperature", not "...:temperature:value"); other fields
// keep their own name ("ZEL:web_server:port"). A string field is also served
// as a CHAR array under its name followed by "$", for texts longer than a
// DBR_STRING's 39 characters.
//
// Native types: double, float and unsigned 32/64-bit values DBR_DOUBLE;
// other integers DBR_LONG; booleans and buttons DBR_ENUM with the states
// "false" and "true"; strings DBR_STRING; vectors arrays of these.
//
// Alarms: an interlock's state (OK, error, warning) gives NO_ALARM, MAJOR or
// MINOR with the status STATE, and so does the value of the IO a range
// interlock watches, which also carries that interlock's limits as its alarm
// limits. A value never assigned, or not finite, is INVALID with the status
// UDF.
//
// The directory is built once the tree is complete and does not change.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "epics/dbr.hpp"

class FieldBase;
class Vertex;
class InterlockIO;
class RangeInterlockIO;

class PvDirectory {
 public:
  enum class Kind : uint8_t { Number, Integer, Bool, Button, Text, LongText, NumberArray, BoolArray, TextArray };

  struct Entry {
    std::string name;
    FieldBase* field = nullptr;
    Kind kind = Kind::Number;
    // The interlock whose state is this value's alarm (its own, or the one
    // that watches this IO); null for none.
    const InterlockIO* alarm = nullptr;
    const RangeInterlockIO* limits = nullptr;
    // From the attributes, which do not change once the tree runs.
    std::string units;
    int16_t precision = 0;
    // A scalar number's value monitors report only changes this large or
    // larger (the owner's "deadband" attribute); 0 reports every change.
    double deadband = 0;

    uint16_t native_type() const;
    // The element count now (at least 1).
    uint32_t count() const;
    // The value as served, with alarm and stamp, and with the display data
    // (units, precision, limits, states) when `display`; into `out`, whose
    // memory is used again.
    void read(dbr::PvValue& out, bool display) const;
    dbr::PvValue read() const {
      dbr::PvValue v;
      read(v, true);
      return v;
    }
    // The value text of a written value, for the write path; nothing when it
    // cannot be one (a text for a number converts or not in the write path).
    std::optional<std::string> value_text(const dbr::Written& written) const;
  };

  PvDirectory(Vertex& top, std::string prefix);

  const Entry* find(std::string_view name) const;
  size_t size() const { return entries_.size(); }
  const std::vector<Entry>& entries() const { return entries_; }

  // CHAR arrays of long strings are this long at most.
  static constexpr uint32_t kLongTextMax = 4096;

 private:
  std::vector<Entry> entries_;
  std::unordered_map<std::string_view, size_t> by_name_;
};
