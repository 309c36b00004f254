#include "devices/si5351.hpp"

#include <chrono>

ZEL_REGISTER_NODE("si5351", SI5351);

namespace {

struct Selection {
  const char* hz;
  const char* label;
  SI5351::Parameters parameters;
};

// Output frequency = 25 MHz x 16 / (divider x R), divider = (P1 + 512) / 128.
constexpr Selection kSelections[] = {
    {"5000", "5kHz", {0x70, 1, 54, 128}},      // R 128, divider 625
    {"10000", "10kHz", {0x70, 0, 154, 0}},     // R 128, divider 312: 10.016 kHz
    {"25000", "25kHz", {0x70, 0, 60, 128}},    // R 128, divider 125
    {"50000", "50kHz", {0x60, 0, 60, 128}},    // R 64, divider 125
    {"100000", "100kHz", {0x50, 0, 60, 128}},  // R 32, divider 125
};

ChoiceField::Choices clock_choices() {
  ChoiceField::Choices out;
  for (auto& s : kSelections) out.emplace_back(s.hz, s.label);
  return out;
}

}  // namespace

SI5351::Parameters SI5351::parameters(std::string_view selection) {
  for (auto& s : kSelections)
    if (selection == s.hz) return s.parameters;
  return kSelections[2].parameters;
}

SI5351::SI5351(const VTree& config)
    : I2CSlave(config),
      Context(config.name()),
      clock_(add<ChoiceField>("clock", clock_choices(), "25000")),
      alarm_(add<ValueField<std::string>>("alarm")) {
  describe("SI5351", "I2C programable clock generator.", "time");
  if (std::string v; config.get("clock", v)) clock_.set(v);
  clock_.attributes_for_update().detail = "The output frequency in hertz.";
  alarm_.set_readonly(true);
  alarm_.attributes_for_update().detail = "The result of the last status test.";
  for (auto& s : kSelections)
    add<ButtonField>(std::string("clock_") + s.label, s.label, [this, hz = s.hz] { clock_.set(hz); });
  add<ButtonField>("test", "Test", [this] { test(); }).attributes_for_update().detail =
      "Exercises the I2C communication link.";
  add<ButtonField>("initialize", "Initialize and start", [this] { initialize(clock_.get()); });
  clock_.listen([this] { schedule_initialize(); });
  enable_poll(config, 1);
}

SI5351::~SI5351() { stop_context(); }

void SI5351::start() {
  start_context();
  started_ = true;
  schedule_initialize();
  I2CSlave::start();
}

void SI5351::stop(StopStage stage) {
  I2CSlave::stop(stage);
  if (stage == StopStage::Stop0) {
    started_ = false;
    std::lock_guard lock(sleep_mutex_);
    stopping_ = true;
    wake_.notify_all();
  }
  if (stage == StopStage::Stop1) stop_context();
}

void SI5351::schedule_initialize() {
  if (started_) post([this] { initialize(clock_.get()); });
}

bool SI5351::write_reg(uint8_t reg, uint8_t value) {
  return ZEL_FAULT(faults_, write_register(reg, value), "I2C write failure", fmt::format("writeRegister({})", reg));
}

bool SI5351::read_reg(uint8_t reg, uint8_t& value) {
  return ZEL_FAULT(faults_, read_register(reg, value), "I2C read failure", fmt::format("readRegister({})", reg));
}

bool SI5351::initialize(std::string_view selection) {
  struct Count {
    std::atomic<unsigned>& n;
    ~Count() { ++n; }
  } count{initializations_};
  // The chip needs this long after power-up before it takes its registers.
  {
    std::unique_lock lock(sleep_mutex_);
    if (wake_.wait_for(lock, std::chrono::milliseconds(500), [this] { return stopping_; })) return false;
  }
  Parameters p = parameters(selection);
  uint8_t value = 0;
  auto write_all = [this](std::initializer_list<std::pair<uint8_t, uint8_t>> regs) {
    for (auto [reg, v] : regs)
      if (!write_reg(reg, v)) return false;
    return true;
  };
  if (!read_reg(3, value) || !write_reg(3, 0xFF) || !read_reg(3, value)) return false;  // outputs off
  if (!write_reg(16, 0x80) || !read_reg(16, value)) return false;                        // drivers down
  for (uint8_t reg = 17; reg <= 23; ++reg)
    if (!write_reg(reg, 0x80)) return false;
  if (!write_reg(183, 0xC0)) return false;  // crystal load capacitance
  // PLL A feedback: P3 = 1, P1 = 1536, P2 = 0, an integer multiplier of 16.
  if (!write_all({{26, 0}, {27, 1}, {28, 0}, {29, 6}, {30, 0}, {31, 0}, {32, 0}, {33, 0}})) return false;
  if (!write_reg(177, 0xA0)) return false;  // reset both PLLs
  if (!write_all({{42, 0}, {43, 1}, {44, p.p1_high}, {45, p.p1_middle}, {46, p.p1_low}, {47, 0}, {48, 0}, {49, 0}}))
    return false;
  if (!write_reg(16, 0x4F)) return false;  // clock 0 up: integer mode, PLL A, MultiSynth 0, 8 mA
  if (!read_reg(44, value) || !write_reg(44, static_cast<uint8_t>(p.r_code | (value & 0x0F))) || !read_reg(44, value))
    return false;
  return write_reg(3, 0);  // outputs on
}

std::string SI5351::test() {
  uint8_t status = 0;
  std::string result;
  if (!ZEL_FAULT(faults_, read_register(0, status), "I2C read failure", "readRegister(0)"))
    result = "Unable to receive device status over I2C";
  else if (status & 0x80)
    result = "Device in initialization state still";
  else if (status & 0x40)
    result = "PLLB loss of lock status, reference clock failure";
  else if (status & 0x20)
    result = "PLLA loss of lock status, reference clock failure";
  else
    result = "Passed";
  alarm_.set(result);
  return result;
}
