#pragma once
// ConnectionGate: how many connections the web server holds, in total and per
// client address. A connection is admitted with a Slot, which gives its place
// back when destroyed (the slot moves from the HTTP session to the WebSocket
// session that takes the connection over). Thread-safe.
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

class ConnectionGate : public std::enable_shared_from_this<ConnectionGate> {
 public:
  enum class Refusal { None, Total, PerAddress };

  class Slot {
   public:
    Slot() = default;
    Slot(Slot&& other) noexcept = default;
    Slot& operator=(Slot&& other) noexcept;
    ~Slot();
    explicit operator bool() const { return gate_ != nullptr; }

   private:
    friend class ConnectionGate;
    Slot(std::shared_ptr<ConnectionGate> gate, std::string address)
        : gate_(std::move(gate)), address_(std::move(address)) {}
    void release();
    std::shared_ptr<ConnectionGate> gate_;
    std::string address_;
  };

  ConnectionGate(size_t total_max, size_t per_address_max) : total_max_(total_max), per_address_max_(per_address_max) {}

  // A slot, or an empty one with the reason in `refusal`.
  Slot admit(const std::string& address, Refusal& refusal);
  size_t total() const;
  // How many connections have closed since the gate was made.
  size_t closed() const;

 private:
  void release(const std::string& address);

  size_t total_max_;
  size_t per_address_max_;
  mutable std::mutex mutex_;  // guards the members below
  size_t total_ = 0;
  size_t closed_ = 0;
  std::unordered_map<std::string, size_t> per_address_;
};
