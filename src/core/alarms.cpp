#include "core/alarms.hpp"

#include "core/io/interlock_manager.hpp"
#include "core/node_factory.hpp"
#include "core/root.hpp"
#include "std/paths.hpp"

ZEL_REGISTER_NODE("alarms", Alarms);

struct Alarms::Watched {
  InterlockIO* interlock;
  std::string path;
  int last = -1;  // the state last journaled; -1 before the first
};

Alarms::Alarms(const VTree& config)
    : Node(config),
      sequence_(add<ValueField<unsigned long long>>("sequence")),
      unacknowledged_(add<ValueField<unsigned long long>>("unacknowledged")),
      keep_(add_setting<ValueField<double>>(config, "keep")) {
  describe("Alarms", "The journal of interlock trips, warnings and returns to OK.", "bell");
  set_default("hidden", true);
  sequence_.set_readonly(true);
  unacknowledged_.set_readonly(true);
  keep_.set_readonly(true);  // the journal takes it once, when it is made
  sequence_.attributes_for_update().detail = "The number of the journal's last change (entry or acknowledgement).";
  unacknowledged_.attributes_for_update().detail = "Alarms no operator has acknowledged yet.";
  if (!keep_.assigned()) keep_.set(static_cast<double>(AlarmJournal::kDefaultKeep));
  restrict_setting(config, keep_, {1.0, static_cast<double>(AlarmJournal::kMaxKeep)},
                   static_cast<double>(AlarmJournal::kDefaultKeep));
  keep_.attributes_for_update().detail = "How many alarms the journal keeps; older ones are dropped.";
  journal_ = std::make_unique<AlarmJournal>(Paths::alarm_journal_file(), static_cast<size_t>(keep_.get()));
  journal_->on_change([this](AlarmJournal::Counts counts) { publish(counts); });
}

Alarms::~Alarms() = default;

void Alarms::init() {
  journal_->load();
  publish(journal_->counts());
}

void Alarms::restore() {
  auto* root = dynamic_cast<Root*>(parent());
  auto* manager = root ? dynamic_cast<InterlockManager*>(root->find_path("interlocks")) : nullptr;
  if (!manager) return;
  for (auto* interlock : manager->interlocks()) watch(*interlock);
}

void Alarms::watch(InterlockIO& interlock) {
  watched_.push_back(std::make_unique<Watched>(Watched{&interlock, interlock.path()}));
  Watched* watched = watched_.back().get();
  if (interlock.assigned()) watched->last = interlock.get();
  interlock.on_change([this, watched] { note(*watched); });
}

void Alarms::note(Watched& watched) {
  int state = watched.interlock->get();
  bool first = watched.last < 0;
  if (state == watched.last || (first && state == InterlockIO::Ok)) {
    watched.last = state;
    return;
  }
  watched.last = state;
  AlarmKind kind = state == InterlockIO::Ok ? AlarmKind::Ok
                   : state == InterlockIO::Warning ? AlarmKind::Warning
                                                   : AlarmKind::Trip;
  journal_->record(watched.interlock->value().stamp(), watched.path, kind, watched.interlock->describe_condition());
}

void Alarms::start() {
  journal_->start();
}

void Alarms::stop(StopStage stage) {
  // The contexts have stopped: nothing records any more, what is queued is written.
  if (stage == StopStage::Stop2) journal_->stop();
}

void Alarms::publish(AlarmJournal::Counts counts) {
  unacknowledged_.set(counts.unacknowledged);
  sequence_.set(counts.sequence);
}
