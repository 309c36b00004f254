#include "core/root.hpp"

#include "core/admin_manager.hpp"
#include "core/alarms.hpp"
#include "core/clock.hpp"
#include "core/iframe.hpp"
#include "core/io/interlock_manager.hpp"
#include "core/io/io.hpp"
#include "core/io_server.hpp"
#include "core/log.hpp"
#include "core/write_path.hpp"
#include "core/log_io.hpp"
#include "core/peers.hpp"
#include "core/pulse.hpp"
#include "core/upnp.hpp"

ZEL_REGISTER_NODE("root", Root);

namespace {
std::atomic<Root*> current_root{nullptr};
std::atomic<unsigned> configuration_error_count{0};
}  // namespace

Root::Root(const VTree& config) : Component(config) {
  log_ = &add_node<LogIO>(config, "log");
  add_node<Pulse>(config, "pulse");
  async_ = &add_node<Service>(config, "async");
  add_node<InterlockManager>(config, "interlocks");
  alarms_ = &add_node<Alarms>(config, "alarms");
  add_node<AdminManager>(config, "admin");
  add_node<IOServer>(config, "io_server");
  add_node<IFrame>(config, "iframe");
  add_node<Peers>(config, "peers");
  add_node<UPnP>(config, "upnp");
  current_root = this;
}

Root::~Root() {
  stop_all();
  Root* self = this;
  current_root.compare_exchange_strong(self, nullptr);
}

Root* Root::instance() { return current_root.load(); }

void Root::initialize() {
  if (initialized_) return;
  initialized_ = true;
  {
    std::lock_guard lock(start_mutex_);
    starting_ = true;
  }
  // Writes from outside wait while this runs; they go on however it ends.
  struct EndOfStart {
    const Root& root;
    ~EndOfStart() {
      {
        std::lock_guard lock(root.start_mutex_);
        root.starting_ = false;
      }
      root.start_done_.notify_all();
    }
  } end_of_start{*this};
  index_tree();
  visit([](Vertex& v) {
    if (auto* node = dynamic_cast<Node*>(&v)) node->init();
  });
  visit([](Vertex& v) {
    if (auto* node = dynamic_cast<Node*>(&v)) node->restore();
  });
  visit([](Vertex& v) {
    if (auto* node = dynamic_cast<Node*>(&v)) node->start();
  });
}

bool Root::wait_started(std::chrono::milliseconds limit) const {
  if (!starting_.load(std::memory_order_acquire)) return true;
  std::unique_lock lock(start_mutex_);
  return start_done_.wait_for(lock, limit, [this] { return !starting_; });
}

void Root::stop_all() {
  if (stopped_) return;
  stopped_ = true;
  for (int stage = 0; stage < 4; ++stage) {
    auto start = Clock::steady_ns();
    stop_tree(static_cast<StopStage>(stage));
    ZEL_INFO("stop{} took {:.3f} ms", stage, static_cast<double>(Clock::steady_ns() - start) / 1e6);
  }
}

void Root::set_field_as_user(std::string_view user, std::string_view path, std::string_view value) {
  WritePath::write(*this, {{WriteSource::Local, user}, path, value});
}

void Root::count_configuration_error() { ++configuration_error_count; }
unsigned Root::configuration_errors() { return configuration_error_count.load(); }
void Root::reset_configuration_errors() { configuration_error_count = 0; }
