#include "devices/i2c_slave.hpp"

#include "devices/i2c_bus.hpp"

ZEL_REGISTER_NODE("i2c_slave", I2CSlave);

I2CSlave::I2CSlave(const VTree& config)
    : Component(config), address_(add_setting<ValueField<unsigned int>>(config, "address")), faults_(*this) {
  address_.set_readonly(true);
  address_.attributes_for_update().detail = "The chip's 7-bit slave address.";
  if (address_.get() > 0x7F)
    throw ConfigError(config.path() + ": address " + std::to_string(address_.get()) + " is not a 7-bit address");
}

void I2CSlave::init() {
  if (!bus()) report_build_failure(path(), type(), "not beneath an i2c_bus");
}

// The tree does not change once built, so the first answer holds.
I2CBus* I2CSlave::bus() const {
  if (auto* known = bus_.load(std::memory_order_acquire)) return known;
  I2CBus* found = nullptr;
  for (Vertex* v = parent(); v && !found; v = v->parent()) found = dynamic_cast<I2CBus*>(v);
  bus_.store(found, std::memory_order_release);
  return found;
}

bool I2CSlave::write(const uint8_t* bytes, std::size_t length, bool stop) {
  auto* b = bus();
  return b && b->send(address(), bytes, length, stop);
}

bool I2CSlave::read(uint8_t* buffer, std::size_t length, bool stop) {
  auto* b = bus();
  return b && b->receive(address(), buffer, length, stop);
}

bool I2CSlave::write_register(uint8_t reg, uint8_t value) { return write({reg, value}, true); }

bool I2CSlave::read_register(uint8_t reg, uint8_t& value) {
  auto lock = exclusive();
  return write({reg}, false) && read(&value, 1, true);
}
