#pragma once
// PRUSampleIO ("pru_sample_io"): an analog input sampled by PRU firmware. It
// takes the packets of its "stream" from the PRUICSS it sits beneath (float
// samples, little-endian) and shows the newest sample in its analog child
// "value" and the newest packet's samples as "waveform".
#include <span>

#include "core/component.hpp"
#include "core/io/io.hpp"

class PRUSampleIO : public Component {
 public:
  explicit PRUSampleIO(const VTree& config);

  void init() override;
  // One packet's samples, as the subsystem hands them over.
  void receive(std::span<const uint8_t> data);

  AnalogIO& value() const { return value_; }

 private:
  ValueField<unsigned int>& stream_;
  ValueField<std::vector<double>>& waveform_;
  ValueField<unsigned long long>& packets_;
  AnalogIO& value_;
  unsigned long long received_ = 0;
};
