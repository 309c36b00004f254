#pragma once
// The Linux i2c-dev adapter ("/dev/i2c-N") as an I2CTransport: each transfer
// is one I2C_RDWR ioctl, so its messages are joined by repeated starts and the
// adapter sends a single stop at the end. The bus clock is set by the device
// tree; set_speed only compares with the "clock-frequency" the adapter's
// device-tree node reports.
#include <string>
#include <string_view>

#include "std/i2c_transport.hpp"

class I2CDev : public I2CTransport {
 public:
  // Opens `path` read-write and checks that it is an I2C adapter with plain
  // I2C transfers; otherwise is_open() is false and `error()` says why.
  explicit I2CDev(std::string path);
  ~I2CDev() override;

  bool is_open() const override { return fd_ >= 0; }
  bool transfer(std::span<I2CMessage> messages) override;
  bool set_speed(uint32_t hz, std::optional<uint32_t>& actual) override;
  bool recover() override;
  std::string describe() const override { return path_; }

  int descriptor() const { return fd_; }
  const std::string& error() const { return error_; }

  // "/dev/i2c0" -> "/dev/i2c-0"; other names stay as they are.
  static std::string device_path(std::string_view configured);
  // The board's first i2c-dev adapter, or "/dev/i2c-0" when there is none.
  static std::string first_adapter();

 private:
  std::string path_;
  std::string error_;
  int fd_ = -1;
};
