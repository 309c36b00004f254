#include "fiber/fiber_slave.hpp"

#include "core/clock.hpp"
#include "core/log.hpp"
#include "fiber/fiber_loop.hpp"

ZEL_REGISTER_NODE("fiber_slave", FiberSlave);

namespace {

template <class T>
ValueField<T>& shown(ValueField<T>& field, const char* label, const char* detail) {
  auto& a = field.attributes_for_update();
  if (label) a.label = label;
  if (detail) a.detail = detail;
  field.set_readonly(true);
  return field;
}

double seconds(uint64_t from, uint64_t to) { return static_cast<double>(to - from) / 1e9; }

}  // namespace

FiberSlave::FiberSlave(const VTree& config)
    : Component(config),
      developer_board_(add_setting<ValueField<bool>>(config, "developer_board")),
      interlocks_(add_node<Node>(config, "interlocks")),
      state_(add<ValueField<std::string>>("state")),
      disconnect_interlock_(interlocks_.add_node<InterlockIO>(config.child_or_empty("interlocks"), "disconnect_interlock")),
      address_(add_setting<ValueField<unsigned int>>(config, "address")),
      status_(add<ValueField<unsigned int>>("status")),
      build_(add_node<Node>(config, "config").add<ValueField<std::string>>("build")),
      archive_(add_node<Node>(config, "firmware").add<ValueField<std::string>>("archive")),
      board_id_(add<ValueField<unsigned int>>("board_id")),
      hardware_version_(add<ValueField<unsigned int>>("hardware_version")),
      pic_major_version_(add<ValueField<unsigned int>>("pic_major_version")),
      pic_minor_version_(add<ValueField<unsigned int>>("pic_minor_version")),
      pic_letter_version_(add<ValueField<std::string>>("pic_letter_version")),
      fpga_major_version_(add<ValueField<unsigned int>>("fpga_major_version")),
      fpga_minor_version_(add<ValueField<unsigned int>>("fpga_minor_version")),
      fpga_build_version_(add<ValueField<unsigned int>>("fpga_build_version")),
      io_input_length_(add<ValueField<unsigned int>>("io_input_length")),
      io_output_length_(add<ValueField<unsigned int>>("io_output_length")),
      slow_message_sent_(add<ValueField<unsigned long long>>("slow_message_sent")),
      slow_message_received_(add<ValueField<unsigned long long>>("slow_message_received")),
      message_queue_size_(add<ValueField<unsigned int>>("message_queue_size")),
      disconnect_count_(add<ValueField<unsigned long long>>("disconnect_count")),
      fast_message_time_(add<ValueField<double>>("fast_message_time")) {
  describe("Fiber slave", "A module on a fiber optic loop.", "chip");
  if (!developer_board_.assigned()) developer_board_.set(false);
  if (!address_.assigned()) address_.set(0);
  address_.set_readonly(true);
  address_.attributes_for_update().detail =
      "The address of this device on it's fiber loop. The address must be unique to the loop.";
  shown(status_, nullptr, "Status mask of the device.").set(0);
  build_.attributes_for_update().detail = "View and adjust the device's configuration.";
  archive_.attributes_for_update().detail = "View and adjust the device's firmware.";
  shown(board_id_, nullptr, "The ID number that identifies the type of device.");
  shown(hardware_version_, nullptr, "The version of hardware for this device.");
  shown(pic_major_version_, nullptr, "The major version of the PIC firmware.");
  shown(pic_minor_version_, nullptr, "The minor version of the PIC firmware.");
  shown(pic_letter_version_, nullptr, "The letter of the PIC firmware version.");
  shown(fpga_major_version_, nullptr, "The major version of the FPGA firmware.");
  shown(fpga_minor_version_, nullptr, "The minor version of the FPGA firmware.");
  shown(fpga_build_version_, nullptr, "The build version of the FPGA firmware.");
  shown(io_input_length_, nullptr, "Bytes of the module's input block.").set(0);
  shown(io_output_length_, nullptr, "Bytes of the module's output block.").set(0);
  shown(slow_message_sent_, "Message Sent", nullptr).set(0);
  shown(slow_message_received_, "Message Received", nullptr).set(0);
  shown(message_queue_size_, "Message Queue", nullptr).set(0);
  shown(disconnect_count_, "Disconnects", nullptr).set(0);
  shown(fast_message_time_, nullptr, "Round trip of the last fast message.").attributes_for_update().units = "s";
  state_.set_readonly(true);

  disconnect_interlock_.set_default("label", std::string("Disconnect"));
  disconnect_interlock_.set_default("detail", std::string("The device can not be communicated with over fiber."));
  disconnect_interlock_.set_default("action", std::string("power_off"));
  set_default("color", std::string("red"));
  color_ = dynamic_cast<Field<std::string>*>(attribute_field("color"));
  enable_poll(config, 100.0);
  set_state("disconnected", "red");
}

void FiberSlave::init() {
  loop_ = dynamic_cast<FiberLoop*>(parent());
  if (!loop_) report_build_failure(path(), type(), "a fiber slave belongs beneath a fiber_loop");
  if (address_.get() > fiber_wire::kAddressMask) {
    report_build_failure(path(), type(), "the address of a fiber slave is 0 to 31");
    loop_ = nullptr;
  }
}

void FiberSlave::start() {
  disconnect_interlock_.set_error();  // nothing is known of the module yet
  Component::start();
}

void FiberSlave::set_state(const std::string& state, const char* color) {
  if (state_.get() != state || !state_.assigned()) state_.set(state);
  if (color_ && color_->get() != color) color_->set(color);
  disconnect_interlock_.set_code(state == "running" ? InterlockIO::Ok : InterlockIO::Error);
  state_since_ns_ = Clock::steady_ns();
}

void FiberSlave::lose(const char* why) {
  ZEL_WARN("{} disconnected: {}", name(), why);
  disconnect_count_.set(disconnect_count_.get() + 1);
  lost_before_ = true;
  queue_.clear();
  message_queue_size_.set(0);
  set_state("disconnected", "red");
}

void FiberSlave::enqueue(Pending pending, bool urgent) {
  if (urgent)
    queue_.push_front(std::move(pending));
  else
    queue_.push_back(std::move(pending));
  message_queue_size_.set(static_cast<unsigned>(queue_.size()));
  if (queue_.front().sends == 0) send_front(Clock::steady_ns());
}

void FiberSlave::send_front(uint64_t now) {
  if (!loop_ || queue_.empty()) return;
  auto& p = queue_.front();
  p.sends++;
  p.sent_ns = now;
  loop_->transmit(p.message);
}

void FiberSlave::service_queue(uint64_t now) {
  if (queue_.empty()) return;
  auto& p = queue_.front();
  if (p.sends == 0) {
    send_front(now);
    return;
  }
  if (seconds(p.sent_ns, now) < kReplyTimeout) return;
  if (p.sends <= (loop_ ? loop_->repeat() : 0)) {
    send_front(now);
    return;
  }
  if (state_.get() == "running") {
    lose("no reply to a message");
    return;
  }
  queue_.pop_front();  // the handshake's own time-out sends the module back to "disconnected"
  message_queue_size_.set(static_cast<unsigned>(queue_.size()));
  send_front(now);
}

void FiberSlave::poll() {
  if (!loop_) return;
  uint64_t now = Clock::steady_ns();
  service_queue(now);
  const std::string state = state_.get();
  if (state == "disconnected") {
    if (queue_.empty() && seconds(last_identify_ns_, now) >= kRetryPeriod) {
      last_identify_ns_ = now;
      identify();
    }
  } else if (state == "initiate") {
    // After a loss the module is switched off before it starts again, so an
    // output never comes back on by itself.
    if (lost_before_) transmitHighLevelMessage<HighLevelFiberMessageReply>(
        std::vector<uint8_t>{static_cast<uint8_t>(FiberCommand::PowerOff)},
        [](const HighLevelFiberMessageReply&) { return true; });
    initiate();
    set_state("waiting", "orange");
  } else if (state == "running") {
    if (seconds(last_fast_reply_ns_, now) > kLossTimeout) {
      lose("no fast reply");
      return;
    }
    if (fast_condition() && seconds(last_fast_sent_ns_, now) >= kFastPeriod) {
      sendFastMessage();
      if (queue_.empty() && seconds(last_status_ns_, now) >= kStatusPeriod) {
        last_status_ns_ = now;
        getErrorCode();
      }
    }
  } else if (seconds(state_since_ns_, now) > kHandshakeTimeout) {
    queue_.clear();
    message_queue_size_.set(0);
    set_state("disconnected", "red");
  }
}

void FiberSlave::getErrorCode() {
  transmitHighLevelMessage<HighLevelFiberMessageReply>(std::vector<uint8_t>{static_cast<uint8_t>(FiberCommand::ErrorCode)},
                                                       [](const HighLevelFiberMessageReply&) { return true; });
}

void FiberSlave::identify() {
  transmitHighLevelMessage<FiberIdentifyReply>(
      std::vector<uint8_t>{static_cast<uint8_t>(FiberCommand::Identify)}, [this](const FiberIdentifyReply& r) {
        board_id_.set(r.board_id);
        unsigned expected = expected_board_id();
        if (expected && r.board_id != expected && !developer_board_.get()) {
          ZEL_ERROR("{} is a board {} where a board {} belongs", name(), r.board_id, expected);
          return false;
        }
        hardware_version_.set(r.hardware_version);
        pic_major_version_.set(r.pic_major_version);
        pic_minor_version_.set(r.pic_minor_version);
        pic_letter_version_.set(std::string(1, r.pic_letter_version));
        fpga_major_version_.set(r.fpga_major_version);
        fpga_minor_version_.set(r.fpga_minor_version);
        fpga_build_version_.set(r.fpga_build_version);
        io_input_length_.set(r.io_input_length);
        io_output_length_.set(r.io_output_length);
        if (state_.get() == "identify") connect();
        return true;
      });
  set_state("identify", "orange");
}

void FiberSlave::connect() {
  transmitHighLevelMessage<FiberConnectReply>(
      std::vector<uint8_t>{static_cast<uint8_t>(FiberCommand::Connect), address()}, [this](const FiberConnectReply& r) {
        if (r.address != address()) return false;
        if (state_.get() == "connect") set_state("initiate", "orange");
        return true;
      });
  set_state("connect", "orange");
}

void FiberSlave::initiate() {
  transmitHighLevelMessage<HighLevelFiberMessageReply>(
      HighLevelFiberCommandArg1<float>{static_cast<uint8_t>(FiberCommand::Initiate), static_cast<float>(kFastPeriod)},
      [this](const HighLevelFiberMessageReply& r) {
        if (state_.get() != "waiting") return true;
        last_fast_reply_ns_ = Clock::steady_ns();
        last_fast_sent_ns_ = 0;
        set_state("running", "green");
        return true;
      });
}

void FiberSlave::sendFastMessage() {
  LowLevelFiberMessage m;
  m.address = address();
  m.fast = true;
  m.data = fast_output();
  last_fast_sent_ns_ = Clock::steady_ns();
  loop_->transmit(m);
}

void FiberSlave::receive(const LowLevelFiberMessage& frame) {
  if (!frame.reply) return;  // a command on its way round the loop
  if (frame.fast) {
    receive_fast(frame);
    return;
  }
  if (queue_.empty() || queue_.front().sends == 0) return;  // nothing asked: a late duplicate
  if (!queue_.front().on_reply(frame)) return;             // rejected: sent again on time-out
  queue_.pop_front();
  message_queue_size_.set(static_cast<unsigned>(queue_.size()));
  send_front(Clock::steady_ns());
}

void FiberSlave::receive_fast(const LowLevelFiberMessage& frame) {
  if (!check_reply(frame)) return;
  uint64_t now = Clock::steady_ns();
  last_fast_reply_ns_ = now;
  fast_message_time_.set(seconds(last_fast_sent_ns_, now));
  ++fast_replies_;
  size_t available = frame.data.size() - 4;  // status, length, ..., checksum
  fast_input(frame.data.data() + 2, std::min<size_t>(frame.data[1], available));
}

bool FiberSlave::check_reply(const LowLevelFiberMessage& frame) {
  if (!frame.valid()) {
    ZEL_WARN("{} invalid message", name());
    dump(frame);
    return false;
  }
  if (frame.data.size() <= 1) {
    ZEL_WARN("{} reply without status", name());
    dump(frame);
    return false;
  }
  status_.set(frame.data[0]);
  if (frame.data[0] & kFiberStatusErrorMask) ZEL_ERROR("Error in fiber response {}", name());
  return true;
}

void FiberSlave::unexpected_length(const LowLevelFiberMessage& frame, size_t reply_size) const {
  ZEL_ERROR("Unexpected length {} {} < {} - {}", name(), frame.data[1], reply_size, 2);
  uint8_t s = frame.data[0];
  ZEL_INFO("Status flags: {} {} {}", s & 1, (s >> 1) & 1, (s >> 2) & 1);
  dump(frame);
}

void FiberSlave::dump(const LowLevelFiberMessage& frame) const {
  ZEL_INFO("{}", frame.dump_header());
  ZEL_INFO("{}", frame.dump_bytes());
}
