#include "core/store_manager.hpp"

#include <chrono>
#include <cmath>

#include <fmt/format.h>

#include "core/clock.hpp"
#include "core/io/io.hpp"
#include "core/log.hpp"
#include "core/write_path.hpp"
#include "core/root.hpp"
#include "core/store_text.hpp"
#include "std/atomic_file.hpp"
#include "std/paths.hpp"
#include "std/utc_calendar.hpp"

ZEL_REGISTER_NODE("store_manager", StoreManager);

namespace {
// Both lists exist before main runs.
const std::vector<std::string> settings_store_names{"config", "network", "calibration", "interlocks", "admin"};
const std::vector<std::string> hourmeter_store_names{"hourmeter"};

constexpr double kDefaultSaveDelay = 1.0;         // seconds from a change to its write
constexpr double kDefaultHourmeterPeriod = 60.0;  // seconds of hour-meter counting a power cut may lose

// Delays shorter than the lower bound would spin a core writing files; longer
// than a day is a setting nobody means.
ValueField<double>& seconds_setting(Node& node, const VTree& config, const char* key, double fallback,
                                    FieldRange range) {
  auto& field = node.add_setting<ValueField<double>>(config, key);
  if (!field.assigned()) field.set(fallback);
  node.restrict_setting(config, field, range, fallback);
  field.attributes_for_update().units = "s";
  return field;
}

// The field that a file entry sets: the field at `path`, or the value field
// of the IO there. Null for a path that no longer exists (a setting of a node
// that was removed: silently), and for anything else (logged).
FieldBase* field_at(Root& root, std::string_view path) {
  Vertex* v = root.find_path(path);
  if (!v) return nullptr;
  if (v->is_field()) return static_cast<FieldBase*>(v);
  if (auto* io = dynamic_cast<IOBase*>(v); io && io->value_field()) return io->value_field();
  ZEL_ERROR("Vertex is neither Field or IO '{}", path);
  return nullptr;
}

std::string utc_now_text() {
  auto t = utc_calendar(Clock::wall_ns());
  return fmt::format("{:04}{:02}{:02}-{:02}{:02}{:02}", t.year, t.month, t.day, t.hour, t.minute, t.second);
}
}  // namespace

const std::vector<std::string>& StoreManager::settings_stores() { return settings_store_names; }
const std::vector<std::string>& StoreManager::hourmeter_stores() { return hourmeter_store_names; }

StoreManager::StoreManager(const VTree& config)
    : CtxComp(config),
      save_delay_(seconds_setting(*this, config, "save_delay", kDefaultSaveDelay, {0.01, 86400.0, false, true})),
      hourmeter_period_(seconds_setting(*this, config, "hourmeter_period", kDefaultHourmeterPeriod, {0.01, 86400.0, false, true})),
      writes_(add<ValueField<unsigned long long>>("writes", 0ull)) {
  describe("Stores", "Keeps settings in store files so that they survive a restart.", "save");
  writes_.set_readonly(true);
  add<ButtonField>("service_button", "Save all stores", [this] { service(); });
  for (auto& name : settings_store_names) stores_.emplace_back(name, true);
  for (auto& name : hourmeter_store_names) stores_.emplace_back(name, false);
}

StoreManager::~StoreManager() = default;

StoreManager::Store* StoreManager::find_store(const std::string& name) {
  for (auto& store : stores_)
    if (store.name == name) return &store;
  return nullptr;
}

const StoreManager::Store* StoreManager::find_store(const std::string& name) const {
  return const_cast<StoreManager*>(this)->find_store(name);
}

void StoreManager::init() {
  Vertex* top = this;
  while (top->parent()) top = top->parent();
  // One manager keeps the stores; a second would write every store twice.
  StoreManager* first = nullptr;
  top->visit([&](Vertex& v) {
    if (!first) first = dynamic_cast<StoreManager*>(&v);
  });
  if (first != this) {
    second_ = true;
    ZEL_ERROR("A second store manager at '{}' is refused: '{}' keeps the stores", path(), first->path());
    return;
  }
  top->visit([this](Vertex& v) {
    if (v.is_field()) {
      auto& field = static_cast<FieldBase&>(v);
      if (auto* a = field.attributes(); a && !a->store.empty()) join(a->store, field.path(), &field);
    } else if (auto* io = dynamic_cast<IOBase*>(&v)) {
      auto store = io->store();
      if (!store.empty() && io->value_field()) join(store, io->path(), io->value_field());
    }
  });
}

void StoreManager::join(const std::string& name, std::string path, FieldBase* value) {
  Store* store = find_store(name);
  if (!store) {
    ZEL_ERROR("Unknown store '{}' for '{}': its value is not kept", name, path);
    return;
  }
  // Listeners run on whichever thread sets the value: they only raise a flag.
  value->listen([changed = store->changed] { changed->store(true, std::memory_order_release); });
  store->members.push_back({std::move(path), value});
}

std::vector<std::string> StoreManager::member_paths(const std::string& name) const {
  std::vector<std::string> paths;
  if (auto* store = find_store(name))
    for (auto& m : store->members) paths.push_back(m.path);
  return paths;
}

void StoreManager::restore() {
  if (!second_) load_all();
}

void StoreManager::load_all() {
  if (!root()) {
    ZEL_ERROR("Failed to initialize root");
    return;
  }
  for (auto& store : stores_) load(store.name);
}

void StoreManager::load(const std::string& name) {
  Root* top = root();
  if (!top) {
    ZEL_ERROR("Failed to initialize root");
    return;
  }
  Store* store = find_store(name);
  if (!store) {
    ZEL_ERROR("Unknown store '{}'", name);
    return;
  }
  bool rewrite = apply_file(*top, *store);
  // Loading set the members; that is no change to save.
  store->changed->store(rewrite, std::memory_order_release);
}

bool StoreManager::apply_file(Root& root, Store& store) {
  std::string file = Paths::store_file(store.name);
  std::string text, error;
  switch (AtomicFile::read(file, text, error)) {
    case AtomicFile::ReadResult::Missing:
      return false;
    case AtomicFile::ReadResult::Failed:
      ZEL_ERROR("Can't load store file: {}", error);
      return false;
    case AtomicFile::ReadResult::Ok:
      break;
  }
  if (store.members.empty()) {
    ZEL_INFO("Store '{}' has no members: '{}' is not loaded", store.name, file);
    return false;
  }
  bool rewrite = false;
  size_t next = 0;  // files come in member order: the next member is the likely one
  // A store restores through the same checks as every other write: a value
  // that is refused (read-only, a button, out of range, not converting) is
  // logged and leaves its default, and the file is rewritten without it.
  Caller caller{WriteSource::Store, store.name};
  auto apply = [&](std::string_view path, std::string_view value) {
    FieldBase* target;
    if (next < store.members.size() && store.members[next].path == path) target = store.members[next++].value;
    else target = field_at(root, path);
    if (!target) return;
    if (!WritePath::write_at(*target, caller, value).ok()) rewrite = true;
  };
  if (!StoreText::parse(text, apply, error)) {
    ZEL_ERROR("Malformed store file '{}': {}", file, error);
    keep_malformed_file_aside(file);
    return true;
  }
  return rewrite;
}

void StoreManager::keep_malformed_file_aside(const std::string& file) {
  std::string aside = file + ".bad-" + utc_now_text();
  std::string error;
  if (AtomicFile::rename(file, aside, error)) ZEL_INFO("Malformed store file kept as '{}'", aside);
  else ZEL_ERROR("Malformed store file not kept aside: {}", error);
}

std::string StoreManager::render(const Store& store) const {
  StoreText text(store.last_size);
  for (auto& m : store.members) {
    if (!m.value->assigned()) continue;  // never set: nothing worth keeping
    m.value->write_json(text.member(m.path));
  }
  return text.finish();
}

std::string StoreManager::text(const std::string& name) const {
  auto* store = find_store(name);
  if (!store || store->members.empty()) return {};
  std::lock_guard lock(saving_);
  return render(*store);
}

bool StoreManager::save(const std::string& name) {
  Store* store = find_store(name);
  if (!store) {
    ZEL_ERROR("Unknown store '{}'", name);
    return false;
  }
  return save(*store);
}

bool StoreManager::save(Store& store) {
  if (store.members.empty()) return false;
  std::lock_guard lock(saving_);
  // Cleared before the values are read: a change from now on is saved next time.
  store.changed->store(false, std::memory_order_release);
  std::string content = render(store);
  store.last_size = content.size();
  std::string error;
  if (!AtomicFile::write(Paths::store_file(store.name), content, error)) {
    store.changed->store(true, std::memory_order_release);
    if (error != store.last_error) ZEL_ERROR("Can't save store '{}': {}", store.name, error);
    store.last_error = error;
    return false;
  }
  store.last_error.clear();
  writes_.set(writes_.get() + 1);
  return true;
}

void StoreManager::save_changed(bool settings) {
  for (auto& store : stores_)
    if (store.settings == settings && store.changed->load(std::memory_order_acquire)) save(store);
}

void StoreManager::write_listed_stores() {
  for (auto& name : hourmeter_store_names) save(name);
}

void StoreManager::flush() {
  if (second_) return;
  for (auto& store : stores_)
    if (store.changed->load(std::memory_order_acquire)) save(store);
}

void StoreManager::service() {
  if (second_) return;
  for (auto& store : stores_) save(store);
}

void StoreManager::every_seconds(double seconds, Job job) {
  if (!(seconds > 0.0) || !std::isfinite(seconds)) return;
  every(std::chrono::nanoseconds(static_cast<int64_t>(seconds * 1e9)), std::move(job));
}

void StoreManager::start() {
  CtxComp::start();
  if (second_) return;
  every_seconds(save_delay_.get(), [this] { save_changed(true); });
  every_seconds(hourmeter_period_.get(), [this] { write_listed_stores(); });
}

void StoreManager::stop(StopStage stage) {
  if (stage == StopStage::Stop0) cancel_all();
  CtxComp::stop(stage);
  if (stage == StopStage::Stop2) flush();
}
