#pragma once
// FiberSlave: one module on a fiber loop, a child of its FiberLoop. It
// identifies and connects its module, initiates it, keeps it alive with fast
// messages and raises `disconnect_interlock` when it is lost.
//
// State machine (docs/fiber.md has the table): "disconnected" -> identify ->
// "identify" -> connect -> "connect" -> "initiate" (power_off first after a
// loss) -> "waiting" (orange) -> "running" (green). A module that stops
// answering goes back to "disconnected", counted in `disconnect_count`.
// The disconnect interlock's condition is an error in every state but
// "running": a module that is not talking is not safe.
//
// Slow messages wait in a queue; one is on the loop at a time, sent again up
// to the loop's `repeat` times when its reply does not come. Replies are
// checked in steps (checksum, size, status, length, validator) and bad ones
// logged and dropped, never thrown.
#include <atomic>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <string>

#include "core/component.hpp"
#include "core/io/interlock_io.hpp"
#include "fiber/high_level_fiber_message.hpp"
#include "fiber/low_level_fiber_message.hpp"

class FiberLoop;

class FiberSlave : public Component {
 public:
  // Timing of the exchange, in seconds.
  static constexpr double kFastPeriod = 0.1;     // fast messages no more often than this
  static constexpr double kReplyTimeout = 0.05;  // a slow message is sent again after this
  static constexpr double kLossTimeout = 0.2;    // no fast reply for this long: lost
  static constexpr double kRetryPeriod = 0.5;    // identify attempts while disconnected
  static constexpr double kStatusPeriod = 1.0;   // the periodic slow message (error code)
  static constexpr double kHandshakeTimeout = 1.0;  // identify, connect or waiting for this long: start over

  explicit FiberSlave(const VTree& config);

  void init() override;
  void start() override;
  void poll() override;

  // A frame from the loop carrying this slave's address.
  void receive(const LowLevelFiberMessage& frame);

  // Queues a command; the reply, when it comes, is checked and handed to
  // `validator` as a `Reply` record. `urgent` puts it at the front.
  template <class Reply, class Command>
  void transmitHighLevelMessage(const Command& command, std::function<bool(const Reply&)> validator,
                                bool urgent = false);

  void getErrorCode();
  void identify();
  void connect();
  void initiate();
  void sendFastMessage();

  uint8_t address() const { return static_cast<uint8_t>(address_.get()); }
  std::string state() const { return state_.get(); }
  InterlockIO& disconnect_interlock() const { return disconnect_interlock_; }
  unsigned long long disconnect_count() const { return disconnect_count_.get(); }
  unsigned long long slow_message_received() const { return slow_message_received_.get(); }
  unsigned long long fast_message_count() const { return fast_replies_.load(std::memory_order_relaxed); }

 protected:
  // The fast exchange of a slave type: the output block sent, and the input
  // block of a fast reply (the reply's payload, after status and length).
  virtual std::vector<uint8_t> fast_output() { return std::vector<uint8_t>(io_output_length_.get(), 0); }
  virtual void fast_input(const uint8_t* payload, size_t length) {}
  // Whether fast messages are due at all (the slave type's condition).
  virtual bool fast_condition() const { return state_.get() == "running"; }
  // The board id a slave type drives; 0 takes any. A module of another
  // type is not connected unless `developer_board` is set.
  virtual unsigned expected_board_id() const { return 0; }

 private:
  struct Pending {
    LowLevelFiberMessage message;
    std::function<bool(const LowLevelFiberMessage&)> on_reply;
    unsigned sends = 0;
    uint64_t sent_ns = 0;
  };

  void enqueue(Pending pending, bool urgent);
  void send_front(uint64_t now);
  void service_queue(uint64_t now);
  void set_state(const std::string& state, const char* color);
  void lose(const char* why);
  void receive_fast(const LowLevelFiberMessage& frame);
  // Steps 1..3 of reply handling; false when the reply is rejected.
  bool check_reply(const LowLevelFiberMessage& frame);
  template <class Reply>
  bool handle_reply(const LowLevelFiberMessage& frame, const std::function<bool(const Reply&)>& validator);
  void dump(const LowLevelFiberMessage& frame) const;
  void unexpected_length(const LowLevelFiberMessage& frame, size_t reply_size) const;

  FiberLoop* loop_ = nullptr;
  ValueField<bool>& developer_board_;
  Node& interlocks_;
  ValueField<std::string>& state_;
  InterlockIO& disconnect_interlock_;
  ValueField<unsigned int>& address_;
  ValueField<unsigned int>& status_;
  ValueField<std::string>& build_;
  ValueField<std::string>& archive_;
  ValueField<unsigned int>& board_id_;
  ValueField<unsigned int>& hardware_version_;
  ValueField<unsigned int>& pic_major_version_;
  ValueField<unsigned int>& pic_minor_version_;
  ValueField<std::string>& pic_letter_version_;
  ValueField<unsigned int>& fpga_major_version_;
  ValueField<unsigned int>& fpga_minor_version_;
  ValueField<unsigned int>& fpga_build_version_;
  ValueField<unsigned int>& io_input_length_;
  ValueField<unsigned int>& io_output_length_;
  ValueField<unsigned long long>& slow_message_sent_;
  ValueField<unsigned long long>& slow_message_received_;
  ValueField<unsigned int>& message_queue_size_;
  ValueField<unsigned long long>& disconnect_count_;
  ValueField<double>& fast_message_time_;
  Field<std::string>* color_ = nullptr;

  std::deque<Pending> queue_;
  uint64_t last_fast_sent_ns_ = 0;
  uint64_t last_fast_reply_ns_ = 0;
  uint64_t last_identify_ns_ = 0;
  uint64_t state_since_ns_ = 0;
  uint64_t last_status_ns_ = 0;
  std::atomic<uint64_t> fast_replies_{0};  // read by other threads
  bool lost_before_ = false;
};

template <class Reply>
bool FiberSlave::handle_reply(const LowLevelFiberMessage& frame, const std::function<bool(const Reply&)>& validator) {
  if (!check_reply(frame)) return false;
  uint8_t length = frame.data[1];
  bool ok = false;
  // The record is read only when the frame holds it whole (with its checksum):
  // a length byte that claims more than came is not trusted.
  if ((sizeof(Reply) == 2 || length >= sizeof(Reply) - 2) && frame.data.size() >= sizeof(Reply) + 2) {
    Reply reply;
    std::memcpy(&reply, frame.data.data(), sizeof(Reply));
    ok = validator(reply);
  }
  if (ok) {
    slow_message_received_.set(slow_message_received_.get() + 1);
  } else {
    unexpected_length(frame, sizeof(Reply));
  }
  return true;
}

template <class Reply, class Command>
void FiberSlave::transmitHighLevelMessage(const Command& command, std::function<bool(const Reply&)> validator,
                                          bool urgent) {
  Pending p;
  p.message.address = address();
  p.message.data = command_bytes(command);
  p.on_reply = [this, validator = std::move(validator)](const LowLevelFiberMessage& frame) {
    return handle_reply<Reply>(frame, validator);
  };
  slow_message_sent_.set(slow_message_sent_.get() + 1);
  enqueue(std::move(p), urgent);
}
