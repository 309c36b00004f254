#pragma once
// I2CTransport: one I2C adapter as the bus layer meets it. A transfer is one
// transaction: a start, the messages in order joined by repeated starts, one
// stop at the end. Implementations: i2c-dev (std/i2c_dev) and the simulated
// bus of chip models.
#include <cstdint>
#include <optional>
#include <span>
#include <string>

struct I2CMessage {
  uint8_t address = 0;   // 7-bit slave address
  bool read = false;     // from the slave to the master
  uint8_t* data = nullptr;
  uint16_t length = 0;
};

class I2CTransport {
 public:
  virtual ~I2CTransport() = default;

  // True when the adapter is open and transfers may be tried.
  virtual bool is_open() const = 0;
  // One transaction; false when any message is not acknowledged or the
  // adapter fails. Read messages fill their buffers.
  virtual bool transfer(std::span<I2CMessage> messages) = 0;
  // Asks for a bus clock; false when the adapter runs at another speed
  // (`actual` then holds what it reports, if it reports anything).
  virtual bool set_speed(uint32_t hz, std::optional<uint32_t>& actual) = 0;
  // Frees a bus that a slave holds; true when the adapter is usable after.
  virtual bool recover() = 0;
  // How a log line names the adapter ("/dev/i2c-1", "sim").
  virtual std::string describe() const = 0;
};
