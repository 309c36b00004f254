#include "sim/pru/pru_simulation.hpp"

#include <filesystem>

#include "core/log.hpp"
#include "pru/packet_inbox.hpp"
#include "pru/pruicss.hpp"
#include "std/paths.hpp"

ZEL_REGISTER_NODE("pru_simulation", PRUSimulation);

namespace {

SubsystemModel::Options model_options(const VTree& config) {
  SubsystemModel::Options o;
  std::string device = config.get_or<std::string>("device", "pru/subsystem.mem");
  o.subsystem_path = PRUICSS::device_path(device);
  o.region_path = PRUICSS::device_path(config.get_or<std::string>("region_device", PRUICSS::default_region_device(device)));
  return o;
}

}  // namespace

PRUSimulation::PRUSimulation(const VTree& config)
    : Component(config),
      rate_(add_setting<ValueField<double>>(config, "rate")),
      stuck_handshake_(add_setting<ValueField<bool>>(config, "stuck_handshake")),
      tick_(add_setting<ValueField<double>>(config, "tick")),
      packets_written_(add<ValueField<unsigned long long>>("packets_written")) {
  describe("PRU simulation", "A simulated PRU subsystem and firmware, with faults on request.", "chip");
  if (!rate_.assigned()) rate_.set(50.0);
  if (!stuck_handshake_.assigned()) stuck_handshake_.set(false);
  rate_.attributes_for_update().units = "1/s";
  packets_written_.set(0);
  packets_written_.set_readonly(true);

  auto options = model_options(config);
  for (auto* path : {&options.subsystem_path, &options.region_path}) {
    auto folder = std::filesystem::path(*path).parent_path();
    if (!folder.empty()) std::filesystem::create_directories(folder);
  }
  options.packet_rate = rate_.get();
  // Milliseconds between two firmware steps, read at start: 0.1 ms answers
  // like hardware, 10 ms keeps an idle demo quiet.
  tick_.set_readonly(true);
  tick_.attributes_for_update().units = "ms";
  if (!(tick_.assigned() && tick_.get() >= 0.01 && tick_.get() <= 100.0)) {
    if (tick_.assigned()) ZEL_ERROR("PRU simulation: tick {} ms is outside 0.01 to 100 ms; 0.1 ms is used", tick_.get());
    tick_.set(0.1);
  }
  options.tick = std::chrono::microseconds(static_cast<int64_t>(tick_.get() * 1000.0));
  model_ = std::make_unique<SubsystemModel>(options);
  if (!model_->error().empty()) ZEL_ERROR("PRU simulation: {}", model_->error());
  SubsystemModel::install_images(Paths::bin_dir());

  rate_.listen([this] { model_->set_packet_rate(rate_.get()); });
  stuck_handshake_.listen([this] { model_->set_stuck_handshake(stuck_handshake_.get()); });
  model_->set_stuck_handshake(stuck_handshake_.get());
  add<ButtonField>("oversize_button", "Oversized packet",
                   [this] { model_->inject(PacketWriter::Fault::Oversized); });
  add<ButtonField>("bad_checksum_button", "Bad checksum",
                   [this] { model_->inject(PacketWriter::Fault::BadChecksum); });
  add<ButtonField>("burst_button", "Burst", [this] { model_->burst(PacketInbox::kMaxBatch + 500); })
      .attributes_for_update().detail = "Writes more short packets at once than the host takes in one read.";
  enable_poll(config, 2.0);
}

PRUSimulation::~PRUSimulation() { model_->stop(); }

void PRUSimulation::start() {
  model_->start();
  Component::start();
}

void PRUSimulation::stop(StopStage stage) {
  Component::stop(stage);
  if (stage == StopStage::Stop3) model_->stop();
}

void PRUSimulation::poll() { packets_written_.set(model_->packets_written()); }
