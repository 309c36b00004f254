#include "core/fault_record.hpp"

#include <algorithm>

#include "core/node.hpp"

FaultRecord::FaultRecord(Node& owner) : owner_(owner), field_(owner.add<ValueField<std::string>>("fault")) {
  field_.set_readonly(true);
  field_.attributes_for_update().label = "Fault";
  field_.attributes_for_update().detail = "The hardware operations that failed last time they ran; empty when all answer.";
  field_.set("");
}

bool FaultRecord::report(bool ok, std::string_view message, std::string_view operation, std::string_view source,
                         int line) {
  std::lock_guard lock(mutex_);
  auto found = std::find_if(faults_.begin(), faults_.end(), [&](const Fault& f) { return f.operation == operation; });
  if (ok) {
    if (found == faults_.end()) return true;
    Log::write(LogLevel::Info, source, line, fmt::format("{} answers again: {}", owner_.path(), operation));
    faults_.erase(found);
    publish();
    return true;
  }
  if (found != faults_.end()) return false;  // raised already: logged once, not on every poll
  std::string text = fmt::format("{}: {} ({}:{})", message, operation, source, line);
  Log::write(LogLevel::Error, source, line, fmt::format("Error: {} {} on {}", message, operation, owner_.path()));
  faults_.push_back({std::string(operation), std::move(text)});
  publish();
  return false;
}

bool FaultRecord::raised() const {
  std::lock_guard lock(mutex_);
  return !faults_.empty();
}

std::vector<std::string> FaultRecord::active() const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> out;
  for (auto& f : faults_) out.push_back(f.text);
  return out;
}

void FaultRecord::publish() {
  std::string text;
  for (auto& f : faults_) text += (text.empty() ? "" : "; ") + f.text;
  field_.set(text);
}
