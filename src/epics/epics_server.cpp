#include "epics/epics_server.hpp"

#include <future>
#include <sstream>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/asio/post.hpp>

#include "core/context.hpp"
#include "core/log.hpp"
#include "core/root.hpp"
#include "epics/beacon.hpp"
#include "epics/ca_message.hpp"
#include "epics/ca_service.hpp"
#include "epics/name_search.hpp"
#include "epics/virtual_circuit.hpp"
#include "std/paths.hpp"

ZEL_REGISTER_NODE("epics_server", EpicsServer);

namespace net = boost::asio;

namespace {

constexpr auto kHousekeeping = std::chrono::seconds(1);
// With port 0, how often a free TCP port is tried for a free UDP twin.
constexpr int kPortAttempts = 20;
constexpr const char* kAccessFile = "epics_access";

// Accepts circuits and hands each to the service.
class CircuitListener : public std::enable_shared_from_this<CircuitListener> {
 public:
  CircuitListener(net::ip::tcp::acceptor acceptor, CaService& service)
      : acceptor_(std::move(acceptor)), service_(service) {}
  void start() { do_accept(); }
  void close() {
    boost::system::error_code ec;
    acceptor_.close(ec);
  }

 private:
  void do_accept() {
    acceptor_.async_accept([self = shared_from_this()](auto ec, net::ip::tcp::socket socket) {
      if (ec == net::error::operation_aborted || !self->acceptor_.is_open()) return;
      if (!ec) {
        auto circuit = std::make_shared<VirtualCircuit>(std::move(socket), self->service_);
        if (self->service_.admit(circuit)) circuit->start();
        else ZEL_ERROR("EPICS client refused: {} circuits are open, the most allowed", self->service_.circuit_count());
      }
      self->do_accept();
    });
  }

  net::ip::tcp::acceptor acceptor_;
  CaService& service_;
};

// A TCP acceptor and a UDP socket on one port number.
struct Sockets {
  net::ip::tcp::acceptor acceptor;
  net::ip::udp::socket udp;
};

std::optional<Sockets> open_sockets(net::io_context& io, const net::ip::address& address, uint16_t port) {
  for (int attempt = 0; attempt < (port ? 1 : kPortAttempts); ++attempt) {
    boost::system::error_code ec;
    net::ip::tcp::acceptor acceptor(io);
    net::ip::tcp::endpoint tcp_at(address, port);
    acceptor.open(tcp_at.protocol(), ec);
    if (!ec) acceptor.set_option(net::socket_base::reuse_address(true), ec);
    if (!ec) acceptor.bind(tcp_at, ec);
    if (!ec) acceptor.listen(net::socket_base::max_listen_connections, ec);
    if (ec) {
      ZEL_ERROR("EPICS server cannot listen on TCP port {}: {}", port, ec.message());
      return std::nullopt;
    }
    uint16_t chosen = acceptor.local_endpoint().port();
    net::ip::udp::socket udp(io);
    net::ip::udp::endpoint udp_at(address, chosen);
    udp.open(udp_at.protocol(), ec);
    // Several servers on one host may share the search port, as EPICS servers do.
    if (!ec) udp.set_option(net::socket_base::reuse_address(true), ec);
    if (!ec) udp.bind(udp_at, ec);
    if (!ec) return Sockets{std::move(acceptor), std::move(udp)};
    if (port) {
      ZEL_ERROR("EPICS server cannot take UDP port {}: {}", port, ec.message());
      return std::nullopt;
    }
  }
  ZEL_ERROR("EPICS server found no port free for both TCP and UDP");
  return std::nullopt;
}

std::vector<net::ip::udp::endpoint> beacon_targets(const std::string& list, uint16_t port) {
  std::vector<net::ip::udp::endpoint> targets;
  std::string text = list;
  for (char& c : text)
    if (c == ',') c = ' ';
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    boost::system::error_code ec;
    auto address = net::ip::make_address_v4(word, ec);
    if (ec) ZEL_ERROR("EPICS beacon address '{}' is not an IPv4 address; left out", word);
    else targets.emplace_back(address, port);
  }
  if (list.empty()) targets.emplace_back(net::ip::address_v4::broadcast(), port);
  return targets;
}

template <class T>
ValueField<T>& client_field(Node& node, std::string name) {
  auto& field = node.add<ValueField<T>>(std::move(name));
  field.set_readonly(true);
  return field;
}

size_t positive_or(const ValueField<int>& field, size_t fallback) {
  return field.assigned() && field.get() > 0 ? static_cast<size_t>(field.get()) : fallback;
}

}  // namespace

struct EpicsServer::Running {
  std::unique_ptr<Context> context;
  std::unique_ptr<CaService> service;
  std::shared_ptr<CircuitListener> listener;
  std::shared_ptr<NameSearch> search;
  std::shared_ptr<Beacon> beacon;
};

EpicsServer::EpicsServer(const VTree& config)
    : Component(config),
      port_(add_setting<ValueField<int>>(config, "port")),
      address_(add_setting<ValueField<std::string>>(config, "address")),
      prefix_(add_setting<ValueField<std::string>>(config, "prefix")),
      tree_(add_setting<ValueField<std::string>>(config, "tree")),
      beacon_addresses_(add_setting<ValueField<std::string>>(config, "beacon_addresses")),
      beacon_port_(add_setting<ValueField<int>>(config, "beacon_port")),
      send_timeout_(add_setting<ValueField<int>>(config, "send_timeout")),
      message_max_(add_setting<ValueField<int>>(config, "message_max")),
      channels_max_(add_setting<ValueField<int>>(config, "channels_max")),
      monitors_max_(add_setting<ValueField<int>>(config, "monitors_max")),
      circuits_max_(add_setting<ValueField<int>>(config, "circuits_max")),
      circuits_(client_field<unsigned int>(*this, "circuits")),
      process_variables_(client_field<unsigned int>(*this, "process_variables")) {
  describe("EPICS Server", "Serves the tree over EPICS Channel Access.", "share");
  for (FieldBase* setting : std::initializer_list<FieldBase*>{
           &port_, &address_, &prefix_, &tree_, &beacon_addresses_, &beacon_port_, &send_timeout_, &message_max_,
           &channels_max_, &monitors_max_, &circuits_max_})
    setting->set_readonly(true);
  if (!port_.assigned()) port_.set(ca::kDefaultServerPort);
  if (!address_.assigned()) address_.set("0.0.0.0");
  if (!prefix_.assigned()) prefix_.set("ZEL:");
  if (!beacon_port_.assigned()) beacon_port_.set(ca::kDefaultRepeaterPort);
  CaLimits defaults;
  if (!send_timeout_.assigned()) send_timeout_.set(static_cast<int>(defaults.send_timeout.count()));
}

EpicsServer::~EpicsServer() { shut_down(); }

uint16_t EpicsServer::port() const { return running_ ? running_->service->port() : 0; }

void EpicsServer::start() {
  Component::start();
  if (running_) return;
  int port = port_.get();
  if (port < 0 || port > 65535) {
    ZEL_ERROR("EPICS port {} is out of range; the EPICS server does not serve", port);
    return;
  }
  boost::system::error_code ec;
  auto address = net::ip::make_address(address_.get(), ec);
  if (ec) {
    ZEL_ERROR("EPICS address '{}' is not an IP address; the EPICS server does not serve", address_.get());
    return;
  }
  Vertex* top = root();
  if (!tree_.get().empty()) top = top ? top->find(tree_.get()) : nullptr;
  if (!top) {
    ZEL_ERROR("EPICS tree '{}' names no node; the EPICS server does not serve", tree_.get());
    return;
  }

  auto running = std::make_unique<Running>();
  running->context = std::make_unique<Context>(name());
  auto& io = running->context->io();
  auto sockets = open_sockets(io, address, static_cast<uint16_t>(port));
  if (!sockets) return;
  uint16_t chosen = sockets->acceptor.local_endpoint().port();

  CaLimits limits;
  limits.send_timeout = std::chrono::seconds(positive_or(send_timeout_, limits.send_timeout.count()));
  limits.message_max = positive_or(message_max_, limits.message_max);
  limits.channels_max = positive_or(channels_max_, limits.channels_max);
  limits.monitors_max = positive_or(monitors_max_, limits.monitors_max);
  limits.circuits_max = positive_or(circuits_max_, limits.circuits_max);
  AccessMap access(Paths::config_dir() + kAccessFile);
  access.reload();
  running->service =
      std::make_unique<CaService>(PvDirectory(*top, prefix_.get()), std::move(access), limits, chosen);
  auto& service = *running->service;
  running->listener = std::make_shared<CircuitListener>(std::move(sockets->acceptor), service);
  running->search = std::make_shared<NameSearch>(std::move(sockets->udp), service);
  running->beacon = std::make_shared<Beacon>(
      io, beacon_targets(beacon_addresses_.get(), static_cast<uint16_t>(beacon_port_.get())), chosen);

  port_.set(chosen);
  process_variables_.set(static_cast<unsigned int>(service.directory().size()));
  circuits_.set(0);
  running->context->every(kHousekeeping, [&service, &circuits = circuits_] {
    service.reload_access();
    service.drop_stalled();
    circuits.set(static_cast<unsigned int>(service.circuit_count()));
  });
  net::post(io, [r = running.get()] {
    r->listener->start();
    r->search->start();
    r->beacon->start();
  });
  running->context->start_context();
  ZEL_INFO("EPICS server listening on port {} ({} process variables)", chosen, service.directory().size());
  running_ = std::move(running);
}

void EpicsServer::stop(StopStage stage) {
  Component::stop(stage);
  if (stage == StopStage::Stop0) shut_down();
}

void EpicsServer::shut_down() {
  if (!running_) return;
  auto& r = *running_;
  // Sockets and circuits are closed on their own thread, then the thread goes.
  std::promise<void> closed;
  net::post(r.context->io(), [&r, &closed] {
    r.listener->close();
    r.search->close();
    r.beacon->stop();
    r.service->close_all();
    closed.set_value();
  });
  if (closed.get_future().wait_for(std::chrono::seconds(5)) != std::future_status::ready)
    ZEL_ERROR("EPICS server did not close its sockets in time");
  r.context->stop_context();
  r.listener.reset();
  r.search.reset();
  r.beacon.reset();
  running_.reset();
}
