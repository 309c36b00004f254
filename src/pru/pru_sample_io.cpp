#include "pru/pru_sample_io.hpp"

#include <cstring>

#include "core/log.hpp"
#include "pru/pruicss.hpp"

ZEL_REGISTER_NODE("pru_sample_io", PRUSampleIO);

PRUSampleIO::PRUSampleIO(const VTree& config)
    : Component(config),
      stream_(add_setting<ValueField<unsigned int>>(config, "stream")),
      waveform_(add<ValueField<std::vector<double>>>("waveform")),
      packets_(add<ValueField<unsigned long long>>("packets")),
      value_(add_node<AnalogIO>(config, "value")) {
  describe("PRU samples", "An analog input sampled by the PRU firmware.", "pulse");
  if (!stream_.assigned()) stream_.set(1);
  stream_.set_readonly(true);
  waveform_.set_readonly(true);
  waveform_.attributes_for_update().units = units();
  packets_.set(0);
  packets_.set_readonly(true);
  if (!units().empty()) value_.set_default("units", units());
  value_.set_default("readonly", true);
}

void PRUSampleIO::init() {
  auto* subsystem = dynamic_cast<PRUICSS*>(parent());
  if (!subsystem) {
    report_build_failure(path(), type(), "a pru_sample_io belongs beneath a pru_icss");
    return;
  }
  subsystem->subscribe(static_cast<uint16_t>(stream_.get()), [this](std::span<const uint8_t> data) { receive(data); });
}

void PRUSampleIO::receive(std::span<const uint8_t> data) {
  size_t count = data.size() / sizeof(float);
  if (count == 0) return;
  std::vector<double> samples(count);
  for (size_t i = 0; i < count; ++i) {
    float s;
    std::memcpy(&s, data.data() + i * sizeof(float), sizeof s);
    samples[i] = s;
  }
  value_.set(samples.back());
  waveform_.set(std::move(samples));
  packets_.set(++received_);
}
