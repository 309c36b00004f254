#pragma once
// EpicsServer ("epics_server"): serves the tree's fields as process
// variables over EPICS Channel Access (protocol 4.13), so that a facility's
// operator screens, archivers and alarm handlers read, write and monitor the
// instrument with no glue (docs/epics.md).
//
// Settings (the configuration's alone): "port" (TCP and UDP, default 5064;
// 0 picks a free port, which the field then shows), "address" (default
// "0.0.0.0"), "prefix" (default "ZEL:"), "tree" (the path of the subtree
// served, default the whole tree), "beacon_addresses" (where beacons go, on
// "beacon_port", default 5065; default the broadcast address), and the
// limits "send_timeout" (seconds), "message_max" (bytes), "channels_max",
// "monitors_max" (per circuit) and "circuits_max".
// Fields for clients: "circuits", "process_variables".
//
// Who may write what: the access file in the data root (AccessMap) gives
// each client a role; the fields' "permissions" say which role a write
// needs. Every write goes through the write path.
//
// It runs on a context of its own from start() to stop0.
#include <memory>

#include "core/component.hpp"

class EpicsServer : public Component {
 public:
  explicit EpicsServer(const VTree& config);
  ~EpicsServer() override;

  void start() override;
  void stop(StopStage stage) override;

  // The port being served; 0 when not serving.
  uint16_t port() const;

 private:
  struct Running;
  void shut_down();

  ValueField<int>& port_;
  ValueField<std::string>& address_;
  ValueField<std::string>& prefix_;
  ValueField<std::string>& tree_;
  ValueField<std::string>& beacon_addresses_;
  ValueField<int>& beacon_port_;
  ValueField<int>& send_timeout_;
  ValueField<int>& message_max_;
  ValueField<int>& channels_max_;
  ValueField<int>& monitors_max_;
  ValueField<int>& circuits_max_;
  ValueField<unsigned int>& circuits_;
  ValueField<unsigned int>& process_variables_;
  std::unique_ptr<Running> running_;
};
