#pragma once
// CaService: what the parts of a Channel Access server share: the process
// variables, the access rules, the limits, and the circuits that are open.
// Everything here runs on the server's own context thread; only the counters
// are read from elsewhere, and the puts, which run on a few writer threads of
// their own (a write may wait for a busy node, and must not hold the
// server's thread meanwhile).
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>

#include <boost/asio/thread_pool.hpp>

#include "core/role.hpp"
#include "epics/access_map.hpp"
#include "epics/pv_directory.hpp"

class VirtualCircuit;
class FieldBase;

struct CaLimits {
  size_t message_max = 4 * 1024 * 1024;   // one message's payload, bytes
  size_t channels_max = 100000;           // per circuit
  size_t monitors_max = 100000;           // per circuit
  size_t circuits_max = 256;
  size_t output_high_water = 1024 * 1024;  // bytes queued before monitors wait
  std::chrono::seconds send_timeout{10};   // a write that long in flight drops the circuit
};

class CaService {
 public:
  CaService(PvDirectory directory, AccessMap access, CaLimits limits, uint16_t port)
      : directory_(std::move(directory)), access_(std::move(access)), limits_(limits), port_(port) {}

  const PvDirectory& directory() const { return directory_; }
  const CaLimits& limits() const { return limits_; }
  uint16_t port() const { return port_; }

  // The access rights bits (read 1, write 2) of a client on a variable.
  uint32_t rights(const PvDirectory::Entry& entry, std::optional<Role> role) const;
  std::optional<Role> role_of(std::string_view address, std::string_view host, std::string_view user) const {
    return access_.role_of(address, host, user);
  }

  // Re-reads the access rules; on a change every circuit answers its
  // channels' rights anew.
  void reload_access();
  // Drops circuits whose client stopped reading.
  void drop_stalled();

  bool admit(const std::shared_ptr<VirtualCircuit>& circuit);
  void forget(VirtualCircuit* circuit);
  size_t circuit_count() const { return circuits_.size(); }
  // Closes every circuit (the server stops).
  void close_all();

  // Runs `put` on a writer thread. The writers are joined when the service
  // goes, a put under way ending first.
  void hand_off(std::function<void()> put);

 private:
  PvDirectory directory_;
  AccessMap access_;
  CaLimits limits_;
  uint16_t port_;
  std::unordered_set<std::shared_ptr<VirtualCircuit>> circuits_;
  // Two: a put waiting for one busy node leaves puts to the others going.
  boost::asio::thread_pool writers_{2};
};
