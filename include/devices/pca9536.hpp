#pragma once
// PCA9536 ("pca9536"): a 4-bit I/O expander with registers: 0 input port,
// 1 output port, 2 polarity inversion, 3 configuration (1 = input). Each poll
// reads the pins into `input` and writes `output` and `direction`.
#include "devices/i2c_slave.hpp"

class PCA9536 : public I2CSlave {
 public:
  static constexpr uint8_t kInput = 0, kOutput = 1, kPolarity = 2, kConfiguration = 3;

  explicit PCA9536(const VTree& config);

  void poll() override;

  ValueField<unsigned char>& input() const { return input_; }
  ValueField<unsigned char>& output() const { return output_; }
  ValueField<unsigned char>& direction() const { return direction_; }

 private:
  ValueField<unsigned char>& input_;
  ValueField<unsigned char>& output_;
  ValueField<unsigned char>& direction_;
};
