#pragma once
// StoreManager: the admin's "store_manager". Settings that must survive a
// restart live in named stores, one file each, Paths::store_file(name), which
// maps the tree path of each member to its value text (layout: StoreText).
//
// Members: at init the whole tree is walked in order; a field joins the store
// named by its attributes' `store`, an IO node the store named by its "store"
// attribute (its value field is what is kept). A name outside the two store
// lists is logged and not kept.
//
// Loading (restore phase, before anything starts): each store's file is read
// and applied member by member through the vertex's own JSON read; unknown
// paths are skipped silently. A file that is not a JSON object is logged with
// its path and the parser's message and renamed "<file>.bad-<UTC time>"; the
// defaults stay and the store is written anew soon. A store no member uses is
// not loaded at all: nothing could ever rewrite its file, so applying it at
// every start would keep bringing back stale values.
//
// Saving: the whole file anew through AtomicFile (a crash leaves the old or
// the new file); members never assigned are left out; a store without members
// writes nothing. Settings stores are written within "save_delay" seconds of a
// member's change, all changes of that time in one write; the hour-meter store
// every "hourmeter_period" seconds (0 turns a timer off; both are read at
// start); every store at "service_button"; changed stores at shutdown (stop2).
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/ctx_comp.hpp"

class StoreManager : public CtxComp {
 public:
  // Fixed before the program starts: the settings stores, in order, and the
  // list of its own that holds the hour meter.
  static const std::vector<std::string>& settings_stores();
  static const std::vector<std::string>& hourmeter_stores();

  explicit StoreManager(const VTree& config);
  ~StoreManager() override;

  void init() override;     // collects the members
  void restore() override;  // load_all()
  void start() override;    // starts the thread and the save timers
  void stop(StopStage stage) override;  // stop0: timers off; stop2: flush()

  // Loads every store, settings stores first. "Failed to initialize root"
  // when the tree has no root.
  void load_all();
  void load(const std::string& store);

  // Writes the store's file now. False when it has no members (nothing is
  // written) or the write failed (logged; retried at the next save).
  bool save(const std::string& store);
  // Writes every store of the hour-meter list, in order.
  void write_listed_stores();
  // Writes every store with changes not yet saved.
  void flush();
  // The `service` action: writes every store that has members, now.
  void service();

  // The members' paths in joining order (empty for an unknown store).
  std::vector<std::string> member_paths(const std::string& store) const;
  // The text a save would write now (empty when the store has no members).
  std::string text(const std::string& store) const;

  ValueField<double>& save_delay() const { return save_delay_; }
  ValueField<double>& hourmeter_period() const { return hourmeter_period_; }
  // Store files written since start-up.
  ValueField<unsigned long long>& writes() const { return writes_; }

 private:
  bool second_ = false;  // another manager came first in the tree: this one does nothing
  struct Member {
    std::string path;
    FieldBase* value;  // the field itself, or an IO's value field
  };
  struct Store {
    Store(std::string name, bool settings) : name(std::move(name)), settings(settings) {}
    std::string name;
    bool settings;  // written on change; else on the hour-meter period
    std::vector<Member> members;
    // Set by the members' listeners; shared so that a listener never outlives it.
    std::shared_ptr<std::atomic<bool>> changed = std::make_shared<std::atomic<bool>>(false);
    size_t last_size = 0;
    std::string last_error;  // the same failure is logged once
  };

  Store* find_store(const std::string& name);
  const Store* find_store(const std::string& name) const;
  void join(const std::string& store, std::string path, FieldBase* value);
  // Applies the file; true when the file needs rewriting (it was malformed or
  // held a value that does not convert).
  bool apply_file(Root& root, Store& store);
  void keep_malformed_file_aside(const std::string& file);
  std::string render(const Store& store) const;
  bool save(Store& store);
  void save_changed(bool settings);
  void every_seconds(double seconds, Job job);

  ValueField<double>& save_delay_;
  ValueField<double>& hourmeter_period_;
  ValueField<unsigned long long>& writes_;
  std::vector<Store> stores_;  // one per listed name, made once
  mutable std::mutex saving_;  // one save at a time, so files never go back in time
};
