#pragma once
// Component: a node with a periodic life and an HTML rendering of itself for
// the web interface. A component that polls has a "poll" child whose "rate"
// field (in hertz) sets how often poll() runs on the component's context.
#include <memory>
#include <mutex>
#include <string>

#include "core/context.hpp"
#include "core/node.hpp"

class Component : public Node {
 public:
  // Rates of periodic work (poll, pulse): above 0 up to 1000 Hz. Zero would
  // stop the work for good, a higher rate would only spin a core.
  static constexpr FieldRange kPollRange{0.0, 1000.0, true};

  explicit Component(const VTree& config);
  ~Component() override;

  // A custom element for the web page naming the node's path and type.
  virtual std::string render_html() const;

  // Periodic work; runs on the component's context.
  virtual void poll() {}

  void start() override;
  void stop(StopStage stage) override;

  // The poll rate in hertz; 0 when the component does not poll.
  double poll_rate() const;

 protected:
  // Creates "poll/rate" from the configuration (default `rate_hz`).
  void enable_poll(const VTree& config, double rate_hz);

 private:
  struct PollState;
  void schedule_poll();

  std::unique_ptr<PollState> poll_;  // only for components that poll
};
