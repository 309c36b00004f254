#pragma once
// A channel of a virtual circuit: one process variable a client connected
// to, its access rights, and its monitors.
//
// A Monitor follows its field (and the interlock that gives the field's
// alarm) from the thread that changes it. A change only marks the monitor as
// due, once until the circuit has sent it; the circuit reads the value when
// it sends. So a circuit never holds more than one update per monitor, the
// newest, and a change never waits for the network.
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>

#include "core/field_subscription.hpp"
#include "epics/pv_directory.hpp"

struct Monitor {
  // Shared with the field listeners, which may run after the monitor is gone.
  struct Due {
    std::atomic<bool> queued{false};
  };

  uint32_t id = 0;
  uint32_t sid = 0;
  uint16_t type = 0;
  uint32_t count = 0;
  uint16_t mask = 0;
  // What was last sent, to tell value changes from alarm changes.
  uint64_t sent_stamp = 0;
  int16_t sent_severity = -1;
  int16_t sent_status = -1;
  // The value last reported as a value change, for the deadband.
  double reported_value = 0;
  std::shared_ptr<Due> due = std::make_shared<Due>();
  FieldSubscription value_listener;
  FieldSubscription alarm_listener;
};

struct Channel {
  const PvDirectory::Entry* entry = nullptr;
  uint32_t cid = 0;
  uint32_t rights = 0;
  std::unordered_map<uint32_t, std::unique_ptr<Monitor>> monitors;
};
