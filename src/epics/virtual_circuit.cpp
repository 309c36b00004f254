#include "epics/virtual_circuit.hpp"

#include <cmath>

#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <fmt/format.h>

#include "core/io/interlock_io.hpp"
#include "core/log.hpp"
#include "epics/ca_service.hpp"
#include "epics/dbr.hpp"

namespace net = boost::asio;

namespace {

constexpr size_t kReadChunk = 64 * 1024;
// Above this many elements a request is refused rather than allocated.
constexpr uint32_t kCountMax = 1 << 20;
// Reading stops while this many high-water marks of answers wait.
constexpr size_t kReadPauseFactor = 4;

uint32_t write_status(const WriteAnswer& answer) {
  switch (answer.status) {
    case WriteStatus::Done: return ca::kNormal;
    case WriteStatus::ReadOnly: case WriteStatus::Denied: return ca::kNoWriteAccess;
    default: return ca::kPutFail;
  }
}

}  // namespace

VirtualCircuit::VirtualCircuit(net::ip::tcp::socket socket, CaService& service)
    : socket_(std::move(socket)), service_(service), chunk_(kReadChunk) {
  boost::system::error_code ec;
  auto remote = socket_.remote_endpoint(ec);
  address_ = ec ? std::string("?") : remote.address().to_string();
  socket_.set_option(net::ip::tcp::no_delay(true), ec);
  role_ = service_.role_of(address_, "", "");
  who_ = address_;
}

VirtualCircuit::~VirtualCircuit() = default;

void VirtualCircuit::start() {
  ca::append_message(output_, {ca::kVersion, 0, 0, ca::kMinorVersion, 0, 0});
  do_write();
  do_read();
}

void VirtualCircuit::close(std::string_view why) {
  if (closed_) return;
  closed_ = true;
  auto keep = shared_from_this();  // the service lets go of it below
  if (!why.empty()) ZEL_INFO("EPICS circuit from {} closed: {}", who_, why);
  boost::system::error_code ec;
  socket_.shutdown(net::ip::tcp::socket::shutdown_both, ec);
  socket_.close(ec);
  // Listeners first: no change may queue this circuit any more.
  monitors_.clear();
  channels_.clear();
  service_.forget(this);
}

bool VirtualCircuit::stalled(std::chrono::steady_clock::duration limit) const {
  return !closed_ && !writing_.empty() && std::chrono::steady_clock::now() - write_started_ > limit;
}

// ---- Input -----------------------------------------------------------------

void VirtualCircuit::do_read() {
  socket_.async_read_some(net::buffer(chunk_), [self = shared_from_this()](auto ec, size_t n) { self->on_read(ec, n); });
}

void VirtualCircuit::on_read(const boost::system::error_code& ec, size_t n) {
  if (closed_) return;
  if (ec) return close(ec == net::error::eof ? "" : ec.message());
  input_.append(chunk_.data(), n);
  if (!handle_input()) return;
  // A client that asks faster than it reads waits until it has read.
  if (!may_read()) {
    reading_paused_ = true;
    return;
  }
  do_read();
}

bool VirtualCircuit::may_read() const {
  return !put_pending_ && output_.size() <= kReadPauseFactor * service_.limits().output_high_water;
}

bool VirtualCircuit::handle_input() {
  size_t at = 0;
  while (!closed_ && !put_pending_) {
    std::string_view rest(input_.data() + at, input_.size() - at);
    auto parsed = ca::parse_header(rest);
    if (!parsed) break;
    if (parsed->header.payload_size > service_.limits().message_max) {
      close(fmt::format("a message of {} bytes is more than the {} allowed", parsed->header.payload_size,
                        service_.limits().message_max));
      return false;
    }
    size_t whole = parsed->size + parsed->header.payload_size;
    if (rest.size() < whole) break;
    if (!handle(parsed->header, rest.substr(parsed->size, parsed->header.payload_size))) {
      close(fmt::format("malformed message (command {})", parsed->header.command));
      return false;
    }
    at += whole;
  }
  if (closed_) return false;
  input_.erase(0, at);
  do_write();
  return true;
}

bool VirtualCircuit::handle(const ca::Header& h, std::string_view payload) {
  switch (h.command) {
    case ca::kVersion: return true;
    case ca::kEcho: ca::append_message(output_, {ca::kEcho}); return true;
    case ca::kClientName: case ca::kHostName: set_identity(h, payload); return true;
    case ca::kCreateChannel: create_channel(h, payload); return true;
    case ca::kClearChannel: clear_channel(h); return true;
    case ca::kReadNotify: read_notify(h); return true;
    case ca::kWrite: write(h, payload, false); return true;
    case ca::kWriteNotify: write(h, payload, true); return true;
    case ca::kEventAdd: add_event(h, payload); return true;
    case ca::kEventCancel: cancel_event(h); return true;
    case ca::kReadSync: ca::append_message(output_, {ca::kReadSync}); return true;
    case ca::kEventsOff: events_off_ = true; return true;
    case ca::kEventsOn:
      events_off_ = false;
      flush_monitors();
      return true;
    case ca::kSearch: return true;  // searches belong on UDP
    default: return false;
  }
}

Channel* VirtualCircuit::channel(uint32_t sid) {
  auto it = channels_.find(sid);
  return it == channels_.end() ? nullptr : &it->second;
}

void VirtualCircuit::set_identity(const ca::Header& h, std::string_view payload) {
  std::string text(ca::payload_text(payload).substr(0, 256));
  (h.command == ca::kHostName ? host_ : user_) = std::move(text);
  who_ = fmt::format("{}@{} ({})", user_, host_, address_);
  role_ = service_.role_of(address_, host_, user_);
  refresh_rights();
}

void VirtualCircuit::refresh_rights() {
  role_ = service_.role_of(address_, host_, user_);
  for (auto& [sid, ch] : channels_) {
    uint32_t rights = service_.rights(*ch.entry, role_);
    if (rights == ch.rights) continue;
    ch.rights = rights;
    ca::append_message(output_, {ca::kAccessRights, 0, 0, 0, ch.cid, rights});
  }
  do_write();
}

void VirtualCircuit::create_channel(const ca::Header& h, std::string_view payload) {
  auto name = ca::payload_text(payload);
  const auto* entry = service_.directory().find(name);
  if (!entry || channels_.size() >= service_.limits().channels_max) {
    if (entry) ZEL_ERROR("EPICS client {} has {} channels, the most one circuit may open", who_, channels_.size());
    ca::append_message(output_, {ca::kCreateChannelFailed, 0, 0, 0, h.parameter1, 0});
    return;
  }
  uint32_t sid = next_sid_++;
  auto& ch = channels_[sid];
  ch.entry = entry;
  ch.cid = h.parameter1;
  ch.rights = service_.rights(*entry, role_);
  ca::append_message(output_, {ca::kAccessRights, 0, 0, 0, ch.cid, ch.rights});
  ca::append_message(output_, {ca::kCreateChannel, 0, entry->native_type(), entry->count(), ch.cid, sid});
}

void VirtualCircuit::clear_channel(const ca::Header& h) {
  auto* ch = channel(h.parameter1);
  if (!ch) return send_error(h, h.parameter2, ca::kBadChannel, "no such channel");
  for (auto& [id, monitor] : ch->monitors) monitors_.erase(id);
  channels_.erase(h.parameter1);
  ca::append_message(output_, {ca::kClearChannel, 0, 0, 0, h.parameter1, h.parameter2});
}

void VirtualCircuit::read_notify(const ca::Header& h) {
  auto* ch = channel(h.parameter1);
  if (!ch) return send_error(h, 0, ca::kBadChannel, "no such channel");
  ca::Header reply{ca::kReadNotify, 0, h.data_type, h.data_count, ca::kNormal, h.parameter2};
  if (h.data_count > kCountMax) {
    reply.parameter1 = ca::kBadCount;
    return ca::append_message(output_, reply);
  }
  ch->entry->read(value_, dbr::form_of(h.data_type) >= dbr::Gr);
  append_value(reply, *ch);
}

void VirtualCircuit::append_value(ca::Header reply, const Channel& ch) {
  if (!(ch.rights & ca::kReadAccess)) {
    reply.parameter1 = ca::kNoReadAccess;
    value_.clear();
  }
  payload_.clear();
  if (!dbr::encode(reply.data_type, reply.data_count, value_, payload_)) {
    reply.parameter1 = ca::kBadType;
    return ca::append_message(output_, reply);
  }
  if (reply.data_count == 0) reply.data_count = static_cast<uint32_t>(std::max<size_t>(value_.count(), 1));
  ca::append_message(output_, reply, payload_);
}

void VirtualCircuit::write(const ca::Header& h, std::string_view payload, bool notify) {
  auto* ch = channel(h.parameter1);
  if (!ch) return answer_write(h, 0, notify, ca::kBadChannel, "no such channel");
  auto written = dbr::decode(h.data_type, h.data_count, payload);
  if (!written)
    return answer_write(h, ch->cid, notify, h.data_type > dbr::Double ? ca::kBadType : ca::kBadCount,
                        "the value does not decode");
  auto text = ch->entry->value_text(*written);
  if (!text) return answer_write(h, ch->cid, notify, ca::kPutFail, "the value does not convert");
  // The write path decides, logs and applies, as for every writer, on a
  // writer thread; the answer comes back here.
  put_pending_ = true;
  service_.hand_off([weak = weak_from_this(), executor = socket_.get_executor(), field = ch->entry->field,
                     who = who_, role = role_.value_or(Role::Anonymous), text = std::move(*text), h,
                     cid = ch->cid, notify] {
    auto answer = WritePath::write_at(*field, {WriteSource::Epics, who, role}, text);
    net::post(executor, [weak, h, cid, notify, answer = std::move(answer)] {
      if (auto self = weak.lock()) self->finish_write(h, cid, notify, answer);
    });
  });
}

void VirtualCircuit::finish_write(const ca::Header& h, uint32_t cid, bool notify, const WriteAnswer& answer) {
  if (closed_) return;
  put_pending_ = false;
  answer_write(h, cid, notify, write_status(answer), answer.reason);
  if (!handle_input()) return;
  if (reading_paused_ && may_read()) {
    reading_paused_ = false;
    do_read();
  }
}

void VirtualCircuit::answer_write(const ca::Header& h, uint32_t cid, bool notify, uint32_t status,
                                  std::string_view reason) {
  if (notify)
    ca::append_message(output_, {ca::kWriteNotify, 0, h.data_type, h.data_count, status, h.parameter2});
  else if (status != ca::kNormal)
    send_error(h, cid, status, reason);
}

void VirtualCircuit::send_error(const ca::Header& request, uint32_t cid, uint32_t status, std::string_view message) {
  std::string payload;
  ca::Header copy = request;
  copy.payload_size = std::min<uint32_t>(request.payload_size, 0xFFFE);
  copy.data_count = std::min<uint32_t>(request.data_count, 0xFFFF);
  ca::append_header(payload, copy);
  payload.append(message.substr(0, 255));
  payload.push_back('\0');
  ca::append_message(output_, {ca::kError, 0, 0, 0, cid, status}, payload);
}

// ---- Monitors --------------------------------------------------------------

void VirtualCircuit::add_event(const ca::Header& h, std::string_view payload) {
  auto* ch = channel(h.parameter1);
  if (!ch) return send_error(h, 0, ca::kBadChannel, "no such channel");
  if (h.data_type > dbr::kLastType || h.data_count > kCountMax) {
    return ca::append_message(output_, {ca::kEventAdd, 0, h.data_type, h.data_count,
                                        h.data_type > dbr::kLastType ? ca::kBadType : ca::kBadCount, h.parameter2});
  }
  if (monitors_.size() >= service_.limits().monitors_max || monitors_.count(h.parameter2)) {
    return send_error(h, ch->cid, ca::kBadCount, "too many monitors");
  }
  auto monitor = std::make_unique<Monitor>();
  monitor->id = h.parameter2;
  monitor->sid = h.parameter1;
  monitor->type = h.data_type;
  monitor->count = h.data_count;
  monitor->mask = payload.size() >= 14 ? ca::get16(payload.data() + 12) : (ca::kMaskValue | ca::kMaskAlarm);
  std::weak_ptr<VirtualCircuit> weak = weak_from_this();
  auto listen = [weak, id = monitor->id, due = monitor->due] {
    if (due->queued.exchange(true, std::memory_order_acq_rel)) return;
    if (auto self = weak.lock()) self->queue_monitor(id);
  };
  monitor->value_listener = FieldSubscription(*ch->entry->field, listen);
  if (ch->entry->alarm && ch->entry->alarm->value_field() != ch->entry->field)
    monitor->alarm_listener = FieldSubscription(*ch->entry->alarm->value_field(), listen);
  auto& ref = *monitor;
  monitors_[ref.id] = &ref;
  ch->monitors[ref.id] = std::move(monitor);
  send_update(ref, true);
}

void VirtualCircuit::cancel_event(const ca::Header& h) {
  auto* ch = channel(h.parameter1);
  if (!ch) return send_error(h, 0, ca::kBadChannel, "no such channel");
  monitors_.erase(h.parameter2);
  ch->monitors.erase(h.parameter2);
  ca::append_message(output_, {ca::kEventAdd, 0, h.data_type, h.data_count, h.parameter1, h.parameter2});
}

void VirtualCircuit::queue_monitor(uint32_t id) {
  {
    std::lock_guard lock(due_mutex_);
    due_.push_back(id);
  }
  if (flush_posted_.exchange(true, std::memory_order_acq_rel)) return;
  net::post(socket_.get_executor(), [self = shared_from_this()] {
    self->flush_posted_.store(false, std::memory_order_release);
    self->flush_monitors();
  });
}

void VirtualCircuit::flush_monitors() {
  if (closed_ || events_off_ || output_.size() > service_.limits().output_high_water) return;
  std::vector<uint32_t> due;
  {
    std::lock_guard lock(due_mutex_);
    due.swap(due_);
  }
  for (uint32_t id : due) {
    auto it = monitors_.find(id);
    if (it == monitors_.end()) continue;
    // Cleared before the value is read: a change from here on queues it again.
    it->second->due->queued.store(false, std::memory_order_release);
    send_update(*it->second, false);
  }
  do_write();
}

bool VirtualCircuit::beyond_deadband(const Monitor& monitor, const PvDirectory::Entry& entry) const {
  if (entry.deadband <= 0 || value_.numbers.empty()) return true;
  double now = value_.numbers.front();
  // A value that becomes or stops being a number is always a change.
  if (!std::isfinite(now) || !std::isfinite(monitor.reported_value)) return true;
  return std::fabs(now - monitor.reported_value) >= entry.deadband;
}

void VirtualCircuit::send_update(Monitor& monitor, bool initial) {
  auto* ch = channel(monitor.sid);
  if (!ch) return;
  ch->entry->read(value_, dbr::form_of(monitor.type) >= dbr::Gr);
  bool value_changed = value_.stamp_ns != monitor.sent_stamp && beyond_deadband(monitor, *ch->entry);
  bool alarm_changed = value_.severity != monitor.sent_severity || value_.status != monitor.sent_status;
  bool wanted = initial || (value_changed && (monitor.mask & (ca::kMaskValue | ca::kMaskLog))) ||
                (alarm_changed && (monitor.mask & ca::kMaskAlarm));
  if (!wanted) return;
  if (initial || value_changed) {
    monitor.sent_stamp = value_.stamp_ns;
    if (!value_.numbers.empty()) monitor.reported_value = value_.numbers.front();
  }
  monitor.sent_severity = value_.severity;
  monitor.sent_status = value_.status;
  append_value({ca::kEventAdd, 0, monitor.type, monitor.count, ca::kNormal, monitor.id}, *ch);
}

// ---- Output ----------------------------------------------------------------

void VirtualCircuit::do_write() {
  if (closed_ || !writing_.empty() || output_.empty()) return;
  writing_.swap(output_);
  write_started_ = std::chrono::steady_clock::now();
  net::async_write(socket_, net::buffer(writing_),
                   [self = shared_from_this()](auto ec, size_t n) { self->on_write(ec, n); });
}

void VirtualCircuit::on_write(const boost::system::error_code& ec, size_t) {
  if (closed_) return;
  if (ec) return close(ec.message());
  writing_.clear();
  // Monitors held back while the client was behind go out now.
  bool held_back = false;
  {
    std::lock_guard lock(due_mutex_);
    held_back = !due_.empty();
  }
  if (held_back) flush_monitors();
  do_write();
  if (reading_paused_ && !put_pending_ && output_.size() <= service_.limits().output_high_water) {
    reading_paused_ = false;
    do_read();
  }
}
