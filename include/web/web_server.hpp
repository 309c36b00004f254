#pragma once
// WebServer ("web_server"): the system's HTTP and WebSocket front. It serves
// the document root (the data root's "web/") and the tree's live protocol on
// its port: the "port" setting when configured, else the program's web port;
// 0 picks a free port, which the field "port" then shows and the log names
// ("Web server listening on port N").
//
// Settings: "port", "address" (default "0.0.0.0", every interface),
// "threads" (network threads, default one per core up to 4), "push_spacing"
// (milliseconds, the shortest time between two pushes to one WebSocket
// client, 0 to 1000, default 2; 0 paces pushes by the socket alone),
// "websocket_compression" (offer permessage-deflate, default false), and the limits
// on what one client can make the server hold (WebLimits: "http_body_max",
// "http_header_max", "http_buffer_max", "http_pipeline_max",
// "http_output_max", "http_output_total_max", "socket_send_buffer", "websocket_message_max", "subscriptions_max",
// "connections_max", "connections_per_address_max"; each shows its value).
// Who may do what (WebAccess, docs/users.md): "anonymous_write" (default
// false), "allowed_hosts" and "allowed_origins" (lists, separated by commas or
// spaces), "session_timeout" (idle seconds, default 1800). All of them are
// the configuration's alone: no client can change them.
// HTTPS and WSS (docs/users.md): "tls_port" turns them on (0 picks a free
// port), from "tls_certificate" and "tls_key" (PEM files in the data root's
// "config/", default "tls.crt" and "tls.key"). Plain HTTP then answers the
// loopback only. Files that cannot be used leave HTTPS off, logged.
// Fields for clients: "port", "http_sessions", "websocket_sessions".
//
// It reads the users file ("<data root>/config/users") when it starts; on
// the first start, without one, it creates the user "admin" with a random
// password and shows both, once, on the console with the page's address.
//
// It listens from start() to stop0, which closes every connection; the
// sessions are gone before the tree is.
#include <memory>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>

#include "core/component.hpp"

struct WebLimits;
class WebAccess;

class WebServer : public Component {
 public:
  explicit WebServer(const VTree& config);
  ~WebServer() override;

  void start() override;
  void stop(StopStage stage) override;

  // The port being listened on; 0 when not listening.
  uint16_t port() const;
  // Who may do what; only while listening.
  WebAccess& access() const;

 private:
  struct Running;
  struct LimitSetting {
    size_t WebLimits::*member;
    ValueField<int>* field;
  };
  void shut_down();
  // The limits as the settings give them; unset settings show the default.
  WebLimits limits();
  // Who may do what, from the settings and the users file.
  std::shared_ptr<WebAccess> make_access() const;
  void announce_first_start(const std::string& password) const;
  // Opens the HTTPS listener when "tls_port" is set; false (logged) when it cannot.
  bool listen_tls(Running& running, const std::vector<boost::asio::io_context*>& ios,
                  const boost::asio::ip::address& address);

  ValueField<int>& port_;
  ValueField<std::string>& address_;
  ValueField<int>& threads_;
  ValueField<double>& push_spacing_;
  ValueField<bool>& websocket_compression_;
  ValueField<bool>& anonymous_write_;
  ValueField<std::string>& allowed_hosts_;
  ValueField<std::string>& allowed_origins_;
  ValueField<int>& session_timeout_;
  ValueField<int>& tls_port_;
  ValueField<std::string>& tls_certificate_;
  ValueField<std::string>& tls_key_;
  ValueField<unsigned int>& http_sessions_;
  ValueField<unsigned int>& websocket_sessions_;
  std::vector<LimitSetting> limit_settings_;
  std::unique_ptr<Running> running_;
};
