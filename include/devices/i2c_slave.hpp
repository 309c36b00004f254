#pragma once
// I2CSlave: base of every chip driver. The chip sits at its 7-bit `address`
// on the I2CBus that is its nearest ancestor; all its traffic goes through
// that bus. Drivers hand the result of each chip operation to `faults()`.
#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <mutex>

#include "core/component.hpp"
#include "core/fault_record.hpp"

class I2CBus;

class I2CSlave : public Component {
 public:
  explicit I2CSlave(const VTree& config);

  void init() override;

  uint8_t address() const { return static_cast<uint8_t>(address_.get()); }
  // The nearest I2CBus above; null when there is none.
  I2CBus* bus() const;
  FaultRecord& faults() { return faults_; }

  bool write(const uint8_t* bytes, std::size_t length, bool stop);
  bool write(std::initializer_list<uint8_t> bytes, bool stop = true) { return write(bytes.begin(), bytes.size(), stop); }
  bool read(uint8_t* buffer, std::size_t length, bool stop);
  // {register, value} with stop.
  bool write_register(uint8_t reg, uint8_t value);
  // {register} without stop, then a one-byte receive: one combined transfer.
  bool read_register(uint8_t reg, uint8_t& value);

  // Held for a sequence of transfers that must not interleave with another
  // thread's on this chip (a pointer set, then the read it is for).
  std::unique_lock<std::recursive_mutex> exclusive() { return std::unique_lock(sequence_mutex_); }

 private:
  ValueField<unsigned int>& address_;
  mutable std::atomic<I2CBus*> bus_{nullptr};
  std::recursive_mutex sequence_mutex_;

 protected:
  FaultRecord faults_;
};
