#pragma once
// AvocetSlave ("avocet_slave"): an IO module on a fiber loop with four analog
// inputs ("analog_0".."analog_3", float32 in the module's units) and four
// digital inputs ("digital_0".."digital_3"), all read from its fast replies,
// and four digital outputs ("output_0".."output_3") sent in its fast
// messages. Board id kBoardId.
//
// Fast message payload: one byte, the outputs in bits 0..3. Fast reply
// payload (17 bytes): the four analog inputs, then the digital inputs in
// bits 0..3 of one byte. A reply shorter than that leaves the values as
// they are.
#include <array>

#include "core/io/io.hpp"
#include "fiber/fiber_slave.hpp"

class AvocetSlave : public FiberSlave {
 public:
  static constexpr uint16_t kBoardId = 0x0A7C;
  static constexpr size_t kInputBytes = 17;
  static constexpr size_t kOutputBytes = 1;

  explicit AvocetSlave(const VTree& config);

  AnalogIO& analog(size_t i) const { return *analog_[i]; }
  DigitalIO& digital(size_t i) const { return *digital_[i]; }
  DigitalIO& output(size_t i) const { return *output_[i]; }

 protected:
  std::vector<uint8_t> fast_output() override;
  void fast_input(const uint8_t* payload, size_t length) override;
  unsigned expected_board_id() const override { return kBoardId; }

 private:
  std::array<AnalogIO*, 4> analog_{};
  std::array<DigitalIO*, 4> digital_{};
  std::array<DigitalIO*, 4> output_{};
};
