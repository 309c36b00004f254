#include "core/io/calibration_channel.hpp"

#include "core/io/io.hpp"
#include "core/log.hpp"
#include "core/root.hpp"

void CalibrationChannel::resolve(const std::string& input_path, const std::string& output_path) {
  if (resolved_) return;
  resolved_ = true;
  input_ = lookup(input_path, "channel");
  output_ = lookup(output_path, "output");
}

AnalogIO* CalibrationChannel::lookup(const std::string& path, const char* role) const {
  if (path.empty()) return nullptr;
  auto* root = owner_.root();
  auto* found = root ? root->find_path(path) : nullptr;
  if (!found) {
    ZEL_ERROR("Calibration {} '{}' not found for {}", role, path, owner_.path());
    return nullptr;
  }
  auto* io = dynamic_cast<AnalogIO*>(found);
  if (!io) ZEL_ERROR("Calibration {} '{}' of {} is not an AnalogIO", role, path, owner_.path());
  return io;
}

bool CalibrationChannel::read(double& raw) const {
  if (!input_) {
    ZEL_ERROR("No channel attached to {}", owner_.path());
    return false;
  }
  if (!input_->assigned()) {
    ZEL_ERROR("Channel {} has no reading to collect for {}", input_->path(), owner_.path());
    return false;
  }
  raw = input_->get();
  return true;
}

bool CalibrationChannel::command(double value) const {
  if (!output_) {
    ZEL_ERROR("No output attached to {}", owner_.path());
    return false;
  }
  output_->set(value);
  return true;
}
