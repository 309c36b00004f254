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
// client; 0 pushes every change at once, at most 1000).
// Fields for clients: "port", "http_sessions", "websocket_sessions".
//
// It listens from start() to stop0, which closes every connection; the
// sessions are gone before the tree is.
#include <memory>

#include "core/component.hpp"

class WebServer : public Component {
 public:
  explicit WebServer(const VTree& config);
  ~WebServer() override;

  void start() override;
  void stop(StopStage stage) override;

  // The port being listened on; 0 when not listening.
  uint16_t port() const;

 private:
  struct Running;
  void shut_down();

  ValueField<int>& port_;
  ValueField<std::string>& address_;
  ValueField<int>& threads_;
  ValueField<double>& push_spacing_;
  ValueField<unsigned int>& http_sessions_;
  ValueField<unsigned int>& websocket_sessions_;
  std::unique_ptr<Running> running_;
};
