#pragma once
// Alarms: the root's "alarms", the journal of every interlock's trips,
// warnings and returns to OK (AlarmJournal), kept in the data root across
// restarts and acknowledged by operators through the web server.
//
// It is a child of the root, not of the interlock manager: an instrument has
// one journal, and a manager may also be placed in a subtree.
//
// Fields (read-only state values, so pages subscribe to them like any other):
//   sequence        the journal's last change number: moves with every new
//                   entry and every acknowledgement
//   unacknowledged  how many entries wait for an operator
// Setting: keep (entries kept, default 10,000, 1 to 50,000).
//
// It watches the interlocks the root's manager gathered. A change of an
// interlock's published state becomes an entry: error "trip", warning
// "warning", OK after either "ok"; the first OK an interlock publishes is no
// change. Its listeners are added after every node's init, so the permits
// above an interlock act on a trip before the journal hears of it; what runs
// on the chain's thread is a text and a queued entry, the file is written on
// the journal's own thread.
#include <memory>
#include <string>
#include <vector>

#include "core/alarm_journal.hpp"
#include "core/node.hpp"

class InterlockIO;

class Alarms : public Node {
 public:
  explicit Alarms(const VTree& config);
  ~Alarms() override;

  void init() override;
  void restore() override;
  void start() override;
  void stop(StopStage stage) override;

  AlarmJournal& journal() { return *journal_; }

  ValueField<unsigned long long>& sequence() const { return sequence_; }
  ValueField<unsigned long long>& unacknowledged() const { return unacknowledged_; }

  // Journals `interlock`'s state changes from now on.
  void watch(InterlockIO& interlock);

 private:
  struct Watched;
  void note(Watched& watched);
  void publish(AlarmJournal::Counts counts);

  ValueField<unsigned long long>& sequence_;
  ValueField<unsigned long long>& unacknowledged_;
  ValueField<double>& keep_;
  std::unique_ptr<AlarmJournal> journal_;
  std::vector<std::unique_ptr<Watched>> watched_;
};
