#include "sim/fiber/fiber_simulation.hpp"

#include <algorithm>
#include <sstream>

#include "core/log.hpp"
#include "sim/pru/pru_simulation.hpp"

ZEL_REGISTER_NODE("fiber_simulation", FiberSimulation);

namespace {

std::vector<uint8_t> addresses_of(const std::string& text) {
  std::istringstream in(text);
  std::vector<uint8_t> out;
  unsigned a;
  while (in >> a)
    if (a <= 31) out.push_back(static_cast<uint8_t>(a));
  return out;
}

}  // namespace

FiberSimulation::FiberSimulation(const VTree& config)
    : Component(config),
      simulation_(add_setting<ValueField<std::string>>(config, "simulation")),
      modules_(add_setting<ValueField<std::string>>(config, "modules")),
      unplugged_(add_setting<ValueField<std::string>>(config, "unplugged")),
      loopback_(add_setting<ValueField<bool>>(config, "loopback")),
      replies_(add<ValueField<unsigned long long>>("replies")) {
  describe("Fiber loop simulation", "Simulated modules on the fiber loop of a simulated PRU, with faults on request.",
           "chip");
  if (!simulation_.assigned()) simulation_.set("pru_simulation");
  if (!modules_.assigned()) modules_.set("1 2 3");
  if (!unplugged_.assigned()) unplugged_.set("");
  simulation_.set_readonly(true);
  modules_.set_readonly(true);
  unplugged_.attributes_for_update().detail = "Addresses of the modules pulled off the loop, e.g. \"2\".";
  replies_.set(0);
  replies_.set_readonly(true);
  model_ = std::make_shared<LoopModel>(addresses_of(modules_.get()), addresses_of(config.get_or<std::string>("foreign", "")));
  unplugged_.listen([this] { apply_unplugged(); });
  apply_unplugged();
  if (!loopback_.assigned()) loopback_.set(false);
  loopback_.attributes_for_update().detail = "A loopback plug in place of the modules.";
  loopback_.listen([this] { model_->set_loopback(loopback_.get()); });
  model_->set_loopback(loopback_.get());
  using F = LoopModel::Fault;
  add<ButtonField>("bad_checksum_button", "Bad checksum", [this] { model_->inject(F::BadChecksum); });
  add<ButtonField>("status_error_button", "Status 0x40", [this] { model_->inject(F::StatusError); });
  add<ButtonField>("status_warning_button", "Status 0x04", [this] { model_->inject(F::StatusWarning); });
  add<ButtonField>("short_reply_button", "Short reply", [this] { model_->inject(F::ShortReply); });
  add<ButtonField>("noise_button", "Line noise", [this] { model_->add_noise(); });
  enable_poll(config, 2.0);
}

void FiberSimulation::apply_unplugged() {
  auto pulled = addresses_of(unplugged_.get());
  for (uint8_t a = 0; a <= 31; ++a)
    model_->set_plugged(a, std::find(pulled.begin(), pulled.end(), a) == pulled.end());
}

void FiberSimulation::init() {
  const Vertex* top = this;
  while (top->parent()) top = top->parent();
  auto* simulation = dynamic_cast<PRUSimulation*>(top->find(simulation_.get()));
  if (!simulation) {
    report_build_failure(path(), type(), "'simulation' names no pru_simulation");
    return;
  }
  simulation->model().set_fiber_firmware(
      [model = model_](int core, uint8_t* memory, PacketWriter& writer) { model->step(core, memory, writer); });
}

void FiberSimulation::poll() { replies_.set(model_->replies()); }
