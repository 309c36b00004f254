#pragma once
// FaultRecord: how a driver reports hardware operations on its node. Each
// operation's result is handed over with a message ("I2C read failure"), the
// operation's text ("readState()"), the source name and the line. A failure
// raises a fault for that operation: it shows in the node's read-only "fault"
// field and is logged once, with the driver's source and line. The fault
// clears when the same operation succeeds again. Thread-safe.
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "core/field.hpp"
#include "core/log.hpp"

class Node;

class FaultRecord {
 public:
  explicit FaultRecord(Node& owner);

  // Returns `ok`, so a driver can write `if (!ZEL_FAULT(...)) return;`.
  bool report(bool ok, std::string_view message, std::string_view operation, std::string_view source, int line);

  bool raised() const;
  // Present faults, one per failing operation: "<message>: <operation> (<source>:<line>)".
  std::vector<std::string> active() const;
  ValueField<std::string>& field() const { return field_; }

 private:
  struct Fault {
    std::string operation;
    std::string text;
  };
  void publish();  // with mutex_ held

  Node& owner_;
  ValueField<std::string>& field_;
  mutable std::mutex mutex_;
  std::vector<Fault> faults_;
};

#define ZEL_FAULT(record, ok, message, operation) \
  (record).report((ok), (message), (operation), ::source_name(__FILE__), __LINE__)
