#include "core/io/interlock_manager.hpp"

#include <filesystem>
#include <fstream>

#include "core/context.hpp"
#include "core/io/pending_trip_poller.hpp"
#include "core/log.hpp"
#include "core/root.hpp"
#include "formats/csv.hpp"
#include "std/paths.hpp"

ZEL_REGISTER_NODE("interlock_manager", InterlockManager);

namespace {

// Writes `text` to `file` through a temporary file and a rename, so that a
// reader never sees half a report.
bool write_whole_file(const std::string& file, const std::string& text, std::string& error) {
  std::string temporary = file + ".tmp";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.close();
    if (!out) {
      error = "can't write '" + temporary + "'";
      return false;
    }
  }
  std::error_code ec;
  std::filesystem::rename(temporary, file, ec);
  if (ec) {
    error = "can't replace '" + file + "': " + ec.message();
    return false;
  }
  return true;
}

}  // namespace

InterlockManager::InterlockManager(const VTree& config)
    : Component(config),
      summary_(add_node<StateIO<std::string>>(config, "summary")),
      message_(add_node<StringIO>(config, "message")),
      enable_all_(add_node<DigitalIO>(config, "enable_all")) {
  describe("Interlocks", "View and configure all interlocks and permits.", "lock");
  summary_.set_default("color", std::string("green"));
  message_.set_default("readonly", true);
  enable_all_.set_default("label", std::string("Enable All"));
  enable_all_.set_default("detail", std::string("Enable or disable all interlocks at once."));
  // Every write assigns, changed or not: "Enable All" after one interlock
  // was disabled by hand enables that one again.
  auto assign_all = [this] {
    bool enabled = enable_all_.get();
    for (auto* interlock : interlocks_) interlock->enabled().set(enabled);
  };
  enable_all_.on_change(assign_all);
  enable_all_.value().on_written(assign_all);
  auto& report = add<ButtonField>("generate_report_csv", "Generate", [this] { generate_report_csv(); });
  report.attributes_for_update().detail = "Generates a report of all interlocks in the form of a CSV file.";
  enable_poll(config, kDefaultPollHz);
}

InterlockManager::~InterlockManager() = default;

bool InterlockManager::manages_whole_tree() const { return dynamic_cast<const Root*>(parent()) != nullptr; }

void InterlockManager::init() {
  Vertex& scope = manages_whole_tree() ? *parent() : *this;
  scope.visit([this](Vertex& v) {
    if (auto* interlock = dynamic_cast<InterlockIO*>(&v)) interlocks_.push_back(interlock);
  });
  for (auto* interlock : interlocks_) interlock->on_change([this] { follow_states(); });
}

void InterlockManager::follow_states() {
  if (summary_stale_.exchange(true, std::memory_order_acq_rel)) return;  // an update is on its way
  Context* own = context();
  if (own && own->running() && !own->in_context()) own->post([this] { update_summary(); });
  else update_summary();
}

void InterlockManager::start() {
  if (manages_whole_tree()) trips_ = std::make_unique<PendingTripPoller>(interlocks_);
  update_summary();
  Component::start();
}

void InterlockManager::poll() {
  if (trips_) trips_->poll();
  if (summary_stale_.exchange(false, std::memory_order_relaxed)) update_summary();
}

void InterlockManager::update_summary() {
  summary_stale_.store(false, std::memory_order_relaxed);
  size_t errors = 0;
  size_t warnings = 0;
  const InterlockIO* first_error = nullptr;
  const InterlockIO* first_warning = nullptr;
  for (auto* interlock : interlocks_) {
    if (interlock->is_error()) {
      if (!errors++) first_error = interlock;
    } else if (interlock->is_warning()) {
      if (!warnings++) first_warning = interlock;
    }
  }
  const char* summary = errors ? "error" : warnings ? "warning" : "ok";
  const char* color = errors ? "red" : warnings ? "orange" : "green";
  std::string message;
  if (errors) message = fmt::format("{} in error, first {}", errors, first_error->path());
  if (warnings) message += fmt::format("{}{} in warning, first {}", errors ? "; " : "", warnings, first_warning->path());
  message = message.empty() ? "All interlocks OK." : message + ".";
  if (summary_.assigned() && summary_.get() == summary && message_.get() == message) return;
  summary_.set_attribute("color", color);
  summary_.set(summary);
  message_.set(message);
}

std::string InterlockManager::report_csv() const {
  std::string out;
  csv::append_record(out, {"Path", "Parent", "Label", "Detail"});
  for (auto* interlock : interlocks_) {
    std::string parent = interlock->parent() ? interlock->parent()->path() : std::string();
    csv::append_record(out, {interlock->path(), parent, interlock->label(), interlock->detail()});
  }
  return out;
}

bool InterlockManager::generate_report_csv() {
  const std::string folder = Paths::reports_dir();
  std::error_code ec;
  std::filesystem::create_directories(folder, ec);
  if (ec) {
    ZEL_ERROR("Can't create the reports folder '{}': {}", folder, ec.message());
    return false;
  }
  const std::string file = folder + "/interlock_report.csv";
  std::string error;
  if (!write_whole_file(file, report_csv(), error)) {
    ZEL_ERROR("Interlock report not written: {}", error);
    return false;
  }
  ZEL_INFO("Interlock report written to '{}'", file);
  return true;
}
