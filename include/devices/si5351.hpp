#pragma once
// SI5351 ("si5351"): the programmable clock generator. Output 0 is programmed
// for the frequency in `clock` ("5000" .. "100000" Hz) from PLL A at 16 times
// the 25 MHz crystal. The initialisation (a 500 ms sleep, then the register
// sequence) runs on the node's own thread, so the sleep stalls nothing else;
// it runs at start, on "initialize" and whenever `clock` changes. The status
// test writes its text to `alarm` on "test" and at the poll rate (default
// 1 Hz; 0 stops it).
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <cstdint>
#include <string>
#include <string_view>

#include "core/choice_field.hpp"
#include "core/context.hpp"
#include "devices/i2c_slave.hpp"

class SI5351 : public I2CSlave, public Context {
 public:
  // Output divider code and MultiSynth 0's P1 bytes for one selection.
  struct Parameters {
    uint8_t r_code;
    uint8_t p1_high;
    uint8_t p1_middle;
    uint8_t p1_low;
  };
  // A selection not in the table gets the "25000" entry.
  static Parameters parameters(std::string_view selection);

  explicit SI5351(const VTree& config);
  ~SI5351() override;

  void start() override;
  void stop(StopStage stage) override;
  void poll() override { test(); }

  // The whole sequence for `selection`; false at the first failed transfer.
  // Call on the node's own context (it sleeps).
  bool initialize(std::string_view selection);
  // Reads the status register and writes the result text to `alarm`.
  std::string test();
  // How many initialisations have finished (passed or failed).
  unsigned initializations() const { return initializations_.load(); }

  ChoiceField& clock() const { return clock_; }
  ValueField<std::string>& alarm() const { return alarm_; }

 private:
  void schedule_initialize();
  bool write_reg(uint8_t reg, uint8_t value);
  bool read_reg(uint8_t reg, uint8_t& value);

  ChoiceField& clock_;
  ValueField<std::string>& alarm_;
  std::atomic<bool> started_{false};
  // The sleep before programming ends early only when the node stops.
  std::mutex sleep_mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;  // guarded by sleep_mutex_
  std::atomic<unsigned> initializations_{0};
};
