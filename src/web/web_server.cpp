#include "web/web_server.hpp"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <thread>

#include <boost/asio/ip/address.hpp>
#include <boost/asio/post.hpp>

#include "core/context.hpp"
#include "core/log.hpp"
#include "core/root.hpp"
#include "std/free_memory.hpp"
#include "std/paths.hpp"
#include "std/process_limits.hpp"
#include "web/tls_context.hpp"
#include "web/web_listener.hpp"
#include "web/web_access.hpp"
#include "web/web_shared.hpp"

ZEL_REGISTER_NODE("web_server", WebServer);

namespace net = boost::asio;

struct WebServer::Running {
  std::shared_ptr<WebShared> shared;
  // Each network thread is a context with its own io_context; connections
  // are spread over them and stay on one.
  std::vector<std::unique_ptr<Context>> contexts;
  std::shared_ptr<WebListener> listener;
  std::shared_ptr<WebListener> tls_listener;  // HTTPS, when configured and usable
};

namespace {

// Milliseconds; 0 paces pushes by the socket alone.
constexpr FieldRange kPushSpacingRange{0.0, 1000.0};
constexpr FieldRange kThreadsRange{1.0, 64.0};
// Seconds a login session lasts unused (up to a year).
constexpr int kDefaultSessionTimeout = 1800;
constexpr FieldRange kSessionTimeoutRange{1.0, 365.0 * 24 * 3600};
// Byte sizes and counts of WebLimits.
constexpr FieldRange kLimitRange{1.0, static_cast<double>(std::numeric_limits<int>::max())};
const WebLimits kDefaultLimits;
constexpr auto kFreeMemoryCheck = std::chrono::seconds(2);

int default_threads() {
  return static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1u, 4u));
}

template <class T>
ValueField<T>& client_field(Node& node, std::string name) {
  auto& field = node.add<ValueField<T>>(std::move(name));
  field.set_readonly(true);
  return field;
}

}  // namespace

WebServer::WebServer(const VTree& config)
    : Component(config),
      port_(add_setting<ValueField<int>>(config, "port")),
      address_(add_setting<ValueField<std::string>>(config, "address")),
      threads_(add_setting<ValueField<int>>(config, "threads")),
      push_spacing_(add_setting<ValueField<double>>(config, "push_spacing")),
      websocket_compression_(add_setting<ValueField<bool>>(config, "websocket_compression")),
      anonymous_write_(add_setting<ValueField<bool>>(config, "anonymous_write")),
      allowed_hosts_(add_setting<ValueField<std::string>>(config, "allowed_hosts")),
      allowed_origins_(add_setting<ValueField<std::string>>(config, "allowed_origins")),
      session_timeout_(add_setting<ValueField<int>>(config, "session_timeout")),
      tls_port_(add_setting<ValueField<int>>(config, "tls_port")),
      tls_certificate_(add_setting<ValueField<std::string>>(config, "tls_certificate")),
      tls_key_(add_setting<ValueField<std::string>>(config, "tls_key")),
      http_sessions_(client_field<unsigned int>(*this, "http_sessions")),
      websocket_sessions_(client_field<unsigned int>(*this, "websocket_sessions")) {
  describe("Web Server", "Services HTTP and WebSocket requests for the system.", "applications");
  set_default("hidden", false);
  for (FieldBase* setting : std::initializer_list<FieldBase*>{&port_, &address_, &threads_, &push_spacing_,
                                                              &websocket_compression_, &anonymous_write_, &allowed_hosts_,
                                                              &allowed_origins_, &session_timeout_, &tls_port_,
                                                              &tls_certificate_, &tls_key_})
    setting->set_readonly(true);
  push_spacing_.attributes_for_update().units = "ms";
  if (!session_timeout_.assigned()) session_timeout_.set(kDefaultSessionTimeout);
  restrict_setting(config, session_timeout_, kSessionTimeoutRange, kDefaultSessionTimeout);
  if (!address_.assigned()) address_.set("0.0.0.0");
  if (!tls_certificate_.assigned()) tls_certificate_.set("tls.crt");
  if (!tls_key_.assigned()) tls_key_.set("tls.key");
  if (!threads_.assigned()) threads_.set(default_threads());
  restrict_setting(config, threads_, kThreadsRange, default_threads());
  double default_spacing_ms = std::chrono::duration<double, std::milli>(WebLimits::kDefaultPushSpacing).count();
  if (!push_spacing_.assigned()) push_spacing_.set(default_spacing_ms);
  restrict_setting(config, push_spacing_, kPushSpacingRange, default_spacing_ms);
  for (auto [name, member] : {std::pair{"http_body_max", &WebLimits::http_body_max},
                              {"http_header_max", &WebLimits::http_header_max},
                              {"http_buffer_max", &WebLimits::http_buffer_max},
                              {"http_pipeline_max", &WebLimits::http_pipeline_max},
                              {"http_output_max", &WebLimits::http_output_max},
                              {"http_output_total_max", &WebLimits::http_output_total_max},
                              {"socket_send_buffer", &WebLimits::socket_send_buffer},
                              {"websocket_message_max", &WebLimits::websocket_message_max},
                              {"subscriptions_max", &WebLimits::subscriptions_max},
                              {"connections_max", &WebLimits::connections_max},
                              {"connections_per_address_max", &WebLimits::connections_per_address_max}}) {
    auto& field = add_setting<ValueField<int>>(config, name);
    field.set_readonly(true);
    auto fallback = static_cast<int>(kDefaultLimits.*member);
    if (!field.assigned()) field.set(fallback);
    restrict_setting(config, field, kLimitRange, fallback);
    limit_settings_.push_back({member, &field});
  }
}

WebLimits WebServer::limits() {
  WebLimits limits;
  limits.push_spacing = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::duration<double, std::milli>(push_spacing_.get()));
  limits.websocket_compression = websocket_compression_.get();
  for (auto& setting : limit_settings_) limits.*setting.member = static_cast<size_t>(setting.field->get());
  return limits;
}


WebServer::~WebServer() { shut_down(); }

uint16_t WebServer::port() const { return running_ && running_->listener ? running_->listener->port() : 0; }

WebAccess& WebServer::access() const { return running_->shared->access(); }

void WebServer::start() {
  Component::start();
  if (running_) return;
  int port = port_.assigned() ? port_.get() : Paths::port();
  if (port < 0 || port > 65535) {
    ZEL_ERROR("Web port {} is out of range; the web server does not listen", port);
    return;
  }
  boost::system::error_code ec;
  auto address = net::ip::make_address(address_.get(), ec);
  if (ec) {
    ZEL_ERROR("Web address '{}' is not an IP address; the web server does not listen", address_.get());
    return;
  }
  raise_open_file_limit();

  auto running = std::make_unique<Running>();
  auto access = make_access();
  std::string first_password;
  access->users().load(&first_password);
  running->shared = std::make_shared<WebShared>(*root(), Paths::web_dir(), limits(),
                                                WebShared::Counters{&http_sessions_, &websocket_sessions_}, access);
  int threads = threads_.get();
  std::vector<net::io_context*> ios;
  for (int i = 0; i < threads; ++i) {
    running->contexts.push_back(std::make_unique<Context>(fmt::format("{}/{}", name(), i)));
    ios.push_back(&running->contexts.back()->io());
  }
  running->listener = std::make_shared<WebListener>(*ios.front(), ios, running->shared);
  if (auto failure = running->listener->open({address, static_cast<uint16_t>(port)}); !failure.empty()) {
    // An instrument without its page cannot be operated: stop rather than run on.
    ZEL_ERROR("Web server cannot listen on port {} ({}); the program stops", port, failure);
    if (auto* tree = root()) tree->fail_start();
    return;
  }
  port_.set(running->listener->port());
  ZEL_INFO("Web server listening on port {}", port_.get());
  if (tls_port_.assigned() && listen_tls(*running, ios, address)) access->set_https_port(tls_port_.get());
  // Buffers of clients that have gone go back to the system within seconds.
  map_large_blocks_apart();
  running->contexts.front()->every(kFreeMemoryCheck, [gate = running->shared->gate_ptr(), seen = size_t{0}]() mutable {
    if (gate->closed() == seen) return;
    seen = gate->closed();
    give_back_free_memory();
  });
  if (!first_password.empty()) announce_first_start(first_password);
  for (auto& context : running->contexts) context->start_context();
  net::post(*ios.front(), [listener = running->listener] { listener->run(); });
  if (running->tls_listener) net::post(*ios.front(), [listener = running->tls_listener] { listener->run(); });
  running_ = std::move(running);
}

bool WebServer::listen_tls(Running& running, const std::vector<net::io_context*>& ios, const net::ip::address& address) {
  auto in_config = [](const std::string& name) { return name.starts_with('/') ? name : Paths::config_dir() + name; };
  int port = tls_port_.get();
  std::string error;
  auto context = port < 0 || port > 65535 ? nullptr
               : TlsContext::load(in_config(tls_certificate_.get()), in_config(tls_key_.get()), error);
  if (!context) {
    if (error.empty()) error = fmt::format("the port {} is out of range", port);
    ZEL_ERROR("HTTPS is off: {}. Plain HTTP answers the loopback only. 'zel --make-tls-pair' makes a self-signed pair",
              error);
    return false;
  }
  auto listener = std::make_shared<WebListener>(*ios.front(), ios, running.shared, [context](WebSocketTcp&& socket) {
    return context->channel(std::move(socket));
  });
  if (auto failure = listener->open({address, static_cast<uint16_t>(port)}); !failure.empty()) {
    ZEL_ERROR("HTTPS is off: port {} cannot be listened on ({}). Plain HTTP answers the loopback only", port, failure);
    return false;
  }
  tls_port_.set(listener->port());
  ZEL_INFO("HTTPS listening on port {}", tls_port_.get());
  running.tls_listener = std::move(listener);
  return true;
}

std::shared_ptr<WebAccess> WebServer::make_access() const {
  WebAccessSettings settings;
  settings.anonymous_write = anonymous_write_.get();
  settings.allowed_hosts = OriginPolicy::list(allowed_hosts_.get());
  settings.allowed_origins = OriginPolicy::list(allowed_origins_.get());
  settings.session_idle = std::chrono::seconds(session_timeout_.get());
  settings.tls = tls_port_.assigned();
  return std::make_shared<WebAccess>(Paths::config_dir() + "users", std::move(settings));
}

// The password goes to the console only: the log is readable by every
// client of the page, the console only by whoever started the program.
void WebServer::announce_first_start(const std::string& password) const {
  auto host = address_.get() == "0.0.0.0" || address_.get() == "::" ? std::string("localhost") : address_.get();
  auto url = fmt::format("http://{}:{}/", host, port_.get());
  auto banner = fmt::format(
      "\nFirst start: the user 'admin' was created with the password '{}'.\n"
      "Log in at {} and keep the password; it is not shown again.\n\n",
      password, url);
  std::fwrite(banner.data(), 1, banner.size(), stdout);
  std::fflush(stdout);
  ZEL_EVENT("First start: the user 'admin' was created; its password is shown once on the console. Log in at {}",
            url);
}

void WebServer::stop(StopStage stage) {
  Component::stop(stage);
  if (stage == StopStage::Stop0) shut_down();
}

void WebServer::shut_down() {
  if (!running_) return;
  // No tree thread may post into the threads about to go.
  running_->shared->cut_all_triggers();
  for (auto& context : running_->contexts) context->stop_context();
  running_->listener->close();
  running_->listener.reset();
  if (running_->tls_listener) running_->tls_listener->close();
  running_->tls_listener.reset();
  // Destroying the io_contexts destroys the sessions waiting in them.
  running_->contexts.clear();
  running_.reset();
}
