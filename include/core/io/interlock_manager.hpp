#pragma once
// InterlockManager: one place where interlocks are summarised, switched on or
// off together and written out as a CSV report.
//
// Its interlocks are collected once, at init, in tree order. The root's
// manager (the root's "interlocks") gathers every interlock of the tree,
// wherever it was configured or built; a manager placed elsewhere gathers
// those of its own subtree.
//
// The root's manager also re-evaluates pending interlocks on their own
// contexts at each poll (default 10 Hz, "poll/rate", above 0 up to 1000 Hz),
// a second guard beside each interlock's own trip timer.
//
// The summary follows the interlocks' states: any in error gives "error"
// ("red"), else any in warning "warning" ("orange"), else "ok" ("green"); the
// message reads "All interlocks OK." or counts what is not OK and names the
// first. Every state change brings an update, run on the manager's context
// (changes that come while one waits share it).
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "core/component.hpp"
#include "core/io/interlock_io.hpp"

class PendingTripPoller;

class InterlockManager : public Component {
 public:
  static constexpr double kDefaultPollHz = 10.0;

  explicit InterlockManager(const VTree& config);
  ~InterlockManager() override;

  void init() override;
  void start() override;
  void poll() override;

  // The collected interlocks, in tree order (not owned).
  const std::vector<InterlockIO*>& interlocks() const { return interlocks_; }
  // True for the root's manager, which watches the whole tree.
  bool manages_whole_tree() const;

  StateIO<std::string>& summary() const { return summary_; }
  StringIO& message() const { return message_; }
  // Writing it assigns its value to every collected interlock's `enabled`,
  // in collection order.
  DigitalIO& enable_all() const { return enable_all_; }

  // Walks the interlocks and rewrites summary, colour and message when the
  // summary's text changes.
  void update_summary();

  // The report: a header row "Path", "Parent", "Label", "Detail", then one
  // row per interlock in tree order (its path, its parent's path, its label,
  // its detail).
  std::string report_csv() const;
  // Writes the report as "<reports dir>/interlock_report.csv" (creating the
  // folder when missing). Failures are logged; returns whether it wrote.
  bool generate_report_csv();

 private:
  // A state changed: the summary follows, on the manager's context.
  void follow_states();

  StateIO<std::string>& summary_;
  StringIO& message_;
  DigitalIO& enable_all_;
  std::vector<InterlockIO*> interlocks_;
  std::unique_ptr<PendingTripPoller> trips_;  // the root's manager only, from start
  std::atomic<bool> summary_stale_{true};
};
