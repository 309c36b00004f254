#pragma once
// VirtualCircuit: one client's TCP connection to the Channel Access server.
// It reads messages (header, then payload), answers them in order, and sends
// monitor updates as their fields change.
//
// All its work runs on the server's context thread. Field changes reach it
// from the tree's threads as a list of due monitors (each at most once) and
// one posted flush. Output goes out one write at a time; while more than the
// high-water mark waits, due monitors stay due and are sent, with the value
// they then have, when the client has read. A write that stays in flight
// longer than the send time-out drops the circuit; while answers pile up
// beyond four high-water marks, the circuit reads no more requests. A message
// that is malformed, too large or of an unknown command closes the circuit,
// and only this one.
//
// A put is checked here, then handed to a writer thread of the service: the
// write path may wait for a busy node's context, and that wait holds neither
// this thread nor other circuits. Until the put's answer comes back the
// circuit handles no further request of its own (it stops reading), so its
// requests stay in order: a get after a put sees the put's value, and puts on
// one channel apply one after another. Monitors keep flowing meanwhile.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include <boost/asio/ip/tcp.hpp>

#include "core/role.hpp"
#include "core/write_path.hpp"
#include "epics/ca_message.hpp"
#include "epics/channel.hpp"
#include "epics/dbr.hpp"

class CaService;

class VirtualCircuit : public std::enable_shared_from_this<VirtualCircuit> {
 public:
  VirtualCircuit(boost::asio::ip::tcp::socket socket, CaService& service);
  ~VirtualCircuit();

  // Sends the server's version and starts reading.
  void start();
  void close(std::string_view why);

  // The role map changed: answers every channel's access rights anew.
  void refresh_rights();
  // True when a write has been in flight longer than `limit`.
  bool stalled(std::chrono::steady_clock::duration limit) const;

 private:
  void do_read();
  void on_read(const boost::system::error_code& ec, size_t n);
  // Handles every whole message in the input; false closes the circuit.
  bool handle_input();
  bool handle(const ca::Header& h, std::string_view payload);

  void create_channel(const ca::Header& h, std::string_view payload);
  void clear_channel(const ca::Header& h);
  void read_notify(const ca::Header& h);
  void write(const ca::Header& h, std::string_view payload, bool notify);
  // The put's answer, back on the context thread; handles the requests that
  // waited for it.
  void finish_write(const ca::Header& h, uint32_t cid, bool notify, const WriteAnswer& answer);
  void answer_write(const ca::Header& h, uint32_t cid, bool notify, uint32_t status, std::string_view reason);
  // Requests are read while no put is under way and answers do not pile up.
  bool may_read() const;
  void add_event(const ca::Header& h, std::string_view payload);
  void cancel_event(const ca::Header& h);
  void send_error(const ca::Header& request, uint32_t cid, uint32_t status, std::string_view message);
  void set_identity(const ca::Header& h, std::string_view payload);

  // Marks a monitor due (any thread).
  void queue_monitor(uint32_t id);
  // Sends the due monitors (context thread).
  void flush_monitors();
  // The monitor's update, when its mask lets this change through.
  void send_update(Monitor& monitor, bool initial);
  // Has value_ moved from what the monitor last reported by its channel's
  // deadband or more?
  bool beyond_deadband(const Monitor& monitor, const PvDirectory::Entry& entry) const;

  // Appends the reply carrying value_ in the reply's type and count.
  void append_value(ca::Header reply, const Channel& channel);

  void do_write();
  void on_write(const boost::system::error_code& ec, size_t n);

  Channel* channel(uint32_t sid);

  boost::asio::ip::tcp::socket socket_;
  CaService& service_;
  std::string address_;
  std::string host_;
  std::string user_;
  std::string who_;  // "user@host (address)", for the write log
  std::optional<Role> role_;
  bool closed_ = false;
  bool events_off_ = false;
  bool reading_paused_ = false;  // answers pile up, or a put is under way
  bool put_pending_ = false;     // a writer thread has this circuit's put

  std::vector<char> chunk_;
  std::string input_;
  std::string output_;
  std::string writing_;
  // Used again for every value sent, so that sending allocates nothing.
  dbr::PvValue value_;
  std::string payload_;
  std::chrono::steady_clock::time_point write_started_{};

  uint32_t next_sid_ = 1;
  std::unordered_map<uint32_t, Channel> channels_;
  std::unordered_map<uint32_t, Monitor*> monitors_;  // by subscription id

  // Due monitors, filled from the tree's threads.
  std::mutex due_mutex_;
  std::vector<uint32_t> due_;
  std::atomic<bool> flush_posted_{false};
};
