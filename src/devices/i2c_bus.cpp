#include "devices/i2c_bus.hpp"

#include <array>

#include "core/clock.hpp"
#include "core/log.hpp"
#include "std/i2c_dev.hpp"

ZEL_REGISTER_NODE("i2c_bus", I2CBus);

namespace {

std::map<std::string, I2CBus::Backend>& backends() {
  static std::map<std::string, I2CBus::Backend> map;
  return map;
}

// A missing adapter fails every poll of every chip on it: "FD" is logged at
// most once in this interval, with a count of the ones left out.
constexpr uint64_t kNotOpenLogInterval_ns = 10'000'000'000ull;

}  // namespace

void I2CBus::register_backend(const std::string& device, Backend backend) { backends()[device] = std::move(backend); }

I2CBus::I2CBus(const VTree& config)
    : Component(config),
      device_(add_setting<ValueField<std::string>>(config, "device")),
      speed_(add_setting<ValueField<unsigned int>>(config, "speed")),
      open_(add<ValueField<bool>>("open")),
      config_(config) {
  describe("I2C Bus", "Inter-Integrated Circuit used to communicate to one or more I²C devices.", "search-around");
  if (!device_.assigned()) device_.set(I2CDev::first_adapter());
  if (!speed_.assigned()) speed_.set(100000);
  speed_.attributes_for_update().units = "Hz";
  open_.set_readonly(true);
  open_.attributes_for_update().detail = "Whether the adapter is open.";
  add<ButtonField>("recover", "Free the bus", [this] { recover(); }).attributes_for_update().detail =
      "Asks the adapter to free a bus that a slave holds.";
  open();
}

I2CBus::~I2CBus() = default;

bool I2CBus::open() {
  std::string device = device_.get();
  std::unique_ptr<I2CTransport> transport;
  std::string why;
  if (auto backend = backends().find(device); backend != backends().end()) {
    transport = backend->second(*this, config_);
  } else {
    auto dev = std::make_unique<I2CDev>(I2CDev::device_path(device));
    why = dev->error();
    transport = std::move(dev);
  }
  bool ok = transport && transport->is_open();
  if (!ok) ZEL_ERROR("Unable to open I2C device {}: {}", device, why.empty() ? "no such back end" : why);
  {
    std::lock_guard lock(mutex_);
    transport_ = std::move(transport);
    held_.clear();
  }
  open_.set(ok);
  return ok;
}

bool I2CBus::is_open() const {
  std::lock_guard lock(mutex_);
  return transport_ && transport_->is_open();
}

void I2CBus::start() {
  if (is_open()) set_speed(speed_.get());
  Component::start();
}

bool I2CBus::set_speed(uint32_t hz) {
  std::optional<uint32_t> actual;
  bool ok;
  std::string name;
  {
    std::lock_guard lock(mutex_);
    ok = transport_ && transport_->is_open() && transport_->set_speed(hz, actual);
    name = transport_ ? transport_->describe() : device_.get();
  }
  if (!ok) {
    ZEL_ERROR("{} Failed to set I2C bus speed", name);
    if (actual) ZEL_INFO("{} runs at {} Hz, set by the device tree; {} Hz was asked for", name, *actual, hz);
  }
  return ok;
}

void I2CBus::log_not_open() {
  uint64_t now = Clock::steady_ns();
  if (fd_logged_ns_ && now - fd_logged_ns_ < kNotOpenLogInterval_ns) {
    ++fd_suppressed_;
    return;
  }
  if (fd_suppressed_) ZEL_INFO("{} more 'FD' errors on {} were not logged", fd_suppressed_, device_.get());
  fd_logged_ns_ = now;
  fd_suppressed_ = 0;
  ZEL_ERROR("FD");
}

// The checks that follow the adapter's, the same for sends and receives.
bool I2CBus::request_fits(std::size_t length, const void* buffer) {
  if (length > kMaxMessage) {
    ZEL_ERROR("I2C messages can not be greater than 64");
    return false;
  }
  if (!buffer) {
    ZEL_ERROR("Null pointer passed as I2C buffer");
    return false;
  }
  return true;
}

bool I2CBus::send(uint8_t address, const uint8_t* bytes, std::size_t length, bool stop) {
  std::lock_guard lock(mutex_);
  if (!transport_ || !transport_->is_open()) {
    log_not_open();
    return false;
  }
  if (!request_fits(length, bytes)) return false;
  if (!stop) {
    auto& held = held_[address];
    if (held.size() >= kMaxHeld) {
      ZEL_ERROR("{} sends without stop to {} wait for a transfer; this one is refused", held.size(), address);
      return false;
    }
    held.emplace_back(bytes, bytes + length);
    return true;
  }
  // A transport only reads the bytes of a write message.
  return transfer_locked(address, {address, false, const_cast<uint8_t*>(bytes), static_cast<uint16_t>(length)});
}

bool I2CBus::receive(uint8_t address, uint8_t* buffer, std::size_t length, bool stop) {
  std::lock_guard lock(mutex_);
  if (!transport_ || !transport_->is_open()) return false;
  if (!request_fits(length, buffer)) return false;
  return transfer_locked(address, {address, true, buffer, static_cast<uint16_t>(length)});
}

bool I2CBus::send_byte(uint8_t address, uint8_t byte) { return send(address, &byte, 1, true); }

bool I2CBus::receive_byte(uint8_t address, uint8_t& out) { return receive(address, &out, 1, true); }

// The held sends to `address`, then `last`, as one transaction.
bool I2CBus::transfer_locked(uint8_t address, I2CMessage last) {
  std::array<I2CMessage, kMaxHeld + 1> messages;
  std::size_t count = 0;
  auto held = held_.find(address);
  if (held != held_.end())
    for (auto& bytes : held->second) messages[count++] = {address, false, bytes.data(), static_cast<uint16_t>(bytes.size())};
  messages[count++] = last;
  bool ok = transport_->transfer({messages.data(), count});
  if (held != held_.end()) held->second.clear();  // kept: the next held send reuses it
  return ok;
}

bool I2CBus::recover() {
  std::lock_guard lock(mutex_);
  if (!transport_ || !transport_->is_open()) return false;
  held_.clear();
  return transport_->recover();
}
