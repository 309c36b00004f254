#pragma once
// I2CBus ("i2c_bus"): one I2C adapter and the chips on it (its child nodes).
// Configuration: `device`, the adapter ("/dev/i2c-1"; "/dev/i2cN" is read as
// "/dev/i2c-N"; by default the board's first adapter), or the name of another
// back end such as "sim"; `speed`, the bus clock in hertz (default 100000).
//
// Every request is checked the same way whatever the back end, in this
// order: an adapter that is not open fails (a send logs "FD", a receive fails
// quietly); more than 64 bytes fail with "I2C messages can not be greater
// than 64"; a null buffer fails with "Null pointer passed as I2C buffer".
//
// A send with `stop` false is held and goes out with the next request to the
// same address as one transaction, joined by a repeated start: a register
// pointer written without stop and a receive after it reach the chip as one
// combined transfer. A receive always transfers at once (its data is needed);
// the transaction then ends with a stop whatever its `stop` says.
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/component.hpp"
#include "std/i2c_transport.hpp"

class I2CBus : public Component {
 public:
  static constexpr std::size_t kMaxMessage = 64;
  // Sends without stop held for one address before further ones are refused.
  static constexpr std::size_t kMaxHeld = 8;

  explicit I2CBus(const VTree& config);
  ~I2CBus() override;

  // Opens `device` (again); false when it cannot be opened.
  bool open();
  bool set_speed(uint32_t hz);
  bool send(uint8_t address, const uint8_t* bytes, std::size_t length, bool stop);
  bool send_byte(uint8_t address, uint8_t byte);
  bool receive(uint8_t address, uint8_t* buffer, std::size_t length, bool stop);
  bool receive_byte(uint8_t address, uint8_t& out);
  // The request without data: asks the adapter to free a bus that a slave
  // holds. Only tried on an open adapter.
  bool recover();

  bool is_open() const;
  std::string device() const { return device_.get(); }
  void start() override;

  // Back ends other than i2c-dev, by `device` name. A back end may add nodes
  // beneath the bus (the simulation's controls); `config` is the bus's own.
  using Backend = std::function<std::unique_ptr<I2CTransport>(I2CBus& bus, const VTree& config)>;
  static void register_backend(const std::string& device, Backend backend);

 private:
  static bool request_fits(std::size_t length, const void* buffer);
  bool transfer_locked(uint8_t address, I2CMessage last);
  void log_not_open();

  ValueField<std::string>& device_;
  ValueField<unsigned int>& speed_;
  ValueField<bool>& open_;
  VTree config_;

  mutable std::mutex mutex_;  // guards the transport and the held sends
  std::unique_ptr<I2CTransport> transport_;
  std::map<uint8_t, std::vector<std::vector<uint8_t>>> held_;  // sends without stop, by address
  uint64_t fd_logged_ns_ = 0;
  unsigned fd_suppressed_ = 0;
};
