// PRU link: the packet checksum, the inbox read algorithm against a firmware
// packet writer (also a concurrent one at full speed), and the subsystem node
// over a simulated subsystem sharing only the mapped files: restart sequence,
// stuck handshake, program load, and a host process killed and replaced
// while the firmware goes on.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "core/root.hpp"
#include "formats/format_xml.hpp"
#include "log_capture.hpp"
#include "pru/device_memory.hpp"
#include "pru/inbox_layout.hpp"
#include "pru/packet_inbox.hpp"
#include "pru/pru.hpp"
#include "pru/pru_sample_io.hpp"
#include "pru/pruicss.hpp"
#include "pru/subsystem_layout.hpp"
#include "sanitizers.hpp"
#include "sim/pru/inbox_memory.hpp"
#include "sim/pru/pru_simulation.hpp"
#include "std/paths.hpp"
#include "tree_access.hpp"
#include "wait_until.hpp"
#include "web_client.hpp"
#include "zel_process.hpp"

namespace {

namespace il = inbox_layout;
namespace pl = pru_layout;

std::vector<uint8_t> words_payload(std::initializer_list<uint32_t> words) {
  std::vector<uint8_t> bytes(4 * words.size());
  std::memcpy(bytes.data(), std::data(words), bytes.size());
  return bytes;
}

// A sequence-numbered payload of `words` words whose every word follows from
// the number, so a torn or mixed-up packet shows.
std::vector<uint8_t> numbered_payload(uint32_t seq, size_t words) {
  std::vector<uint32_t> w(words);
  for (size_t k = 0; k < words; ++k) w[k] = k == 0 ? seq : seq * 2654435761u + static_cast<uint32_t>(k);
  std::vector<uint8_t> bytes(4 * words);
  std::memcpy(bytes.data(), w.data(), bytes.size());
  return bytes;
}

bool payload_consistent(std::span<const uint8_t> payload, uint32_t& seq) {
  auto expected = numbered_payload(pru_packet::word_at(payload.data()), payload.size() / 4);
  seq = pru_packet::word_at(payload.data());
  return std::equal(payload.begin(), payload.end(), expected.begin());
}

// The inbox over process memory, enabled.
struct InboxOverMemory : InboxMemory {
  InboxOverMemory() { inbox.enable(); }

  std::vector<std::vector<uint8_t>> read() {
    std::vector<std::vector<uint8_t>> payloads;
    inbox.read([&](const PacketView& p) { payloads.emplace_back(p.payload().begin(), p.payload().end()); });
    return payloads;
  }
};

}  // namespace

TEST(PruPacket, ChecksumSumsOnlyTheLowHalfOfEachPayloadWord) {
  EXPECT_EQ(pru_packet::packet_checksum(nullptr, 12), 0) << "a 12-byte packet has an empty payload";
  auto a = words_payload({0x0001FFFF, 0x12340002, 0xABCD0003});
  auto b = words_payload({0x7FFFFFFF, 0x00000002, 0x00000003});  // upper halves changed only
  EXPECT_EQ(pru_packet::checksum(a.data(), 3), 0x0004);          // 0xFFFF + 2 + 3 mod 65536
  EXPECT_EQ(pru_packet::checksum(b.data(), 3), pru_packet::checksum(a.data(), 3));
  auto c = words_payload({0x0001FFFE, 0x12340002, 0xABCD0003});
  EXPECT_NE(pru_packet::checksum(c.data(), 3), pru_packet::checksum(a.data(), 3));

  // Every payload length a packet can have, against the rule word by word.
  std::mt19937 random(7);
  std::vector<uint8_t> payload(1024);
  for (size_t words = 0; words <= 256; ++words) {
    for (auto& byte : payload) byte = static_cast<uint8_t>(random());
    uint16_t expected = 0;
    for (size_t k = 0; k < words; ++k) expected += static_cast<uint16_t>(pru_packet::word_at(&payload[4 * k]));
    ASSERT_EQ(pru_packet::checksum(payload.data(), words), expected) << words << " words";
  }
}

TEST(PruInbox, DeliversNewPacketsOldestFirstOnceAndOnlyWhileEnabled) {
  InboxOverMemory m;
  EXPECT_EQ(m.header[il::kRegionBase / 4], InboxMemory::kRegionPhysical) << "the firmware learns where the region is";
  EXPECT_EQ(m.header[il::kRegionSize / 4], il::kRegionBytes);
  EXPECT_TRUE(m.read().empty()) << "tail equal to the read index";

  for (uint32_t seq = 1; seq <= 3; ++seq) m.writer.write(numbered_payload(seq, 4));
  auto got = m.read();
  ASSERT_EQ(got.size(), 3u);
  for (uint32_t seq = 1; seq <= 3; ++seq) EXPECT_EQ(got[seq - 1], numbered_payload(seq, 4));
  EXPECT_TRUE(m.read().empty()) << "nothing is delivered twice";

  m.inbox.disable();
  EXPECT_EQ(m.header[il::kEnable / 4], 0u);
  m.writer.write(numbered_payload(4, 4));
  EXPECT_TRUE(m.read().empty());
  m.inbox.enable();  // what arrived before enabling counts as consumed
  m.writer.write({});
  got = m.read();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_TRUE(got[0].empty()) << "a 12-byte packet";

  // A firmware restart starts a new chain; the host follows it.
  m.writer.reset();
  m.writer.write(numbered_payload(9, 2));
  got = m.read();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0], numbered_payload(9, 2));
}

TEST(PruInbox, Accepts1036BytesAndDropsTheWholeBatchAt1037) {
  InboxOverMemory m;
  LogCapture log;
  m.writer.write(numbered_payload(1, (1036 - 12) / 4));
  auto got = m.read();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].size(), 1024u);

  m.writer.write(numbered_payload(2, 4));
  m.writer.write(numbered_payload(3, 4), PacketWriter::Fault::Oversized);
  EXPECT_TRUE(m.read().empty()) << "the good packet before the bad one is held back too";
  EXPECT_TRUE(log.contains("Error: Unexpected data size 1037"));
  EXPECT_EQ(m.inbox.faults(), 1u);
}

TEST(PruInbox, ChecksumFaultDropsTheBatchAndTheNextReadRetriesFromTheSamePoint) {
  InboxOverMemory m;
  LogCapture log;
  m.writer.write(numbered_payload(1, 3));
  uint32_t bad = m.writer.write(words_payload({0x00010002, 0x00030004}), PacketWriter::Fault::BadChecksum);
  m.writer.write(numbered_payload(3, 3));
  EXPECT_TRUE(m.read().empty());
  EXPECT_TRUE(log.contains("Error: Failed checksum 6 != 7")) << fmt::format("{}", fmt::join(log.texts(), "\n"));
  EXPECT_TRUE(m.read().empty()) << "still the same bad batch";

  device_memory::write32(m.region_bytes(), bad + pru_packet::kChecksumOffset, 6);  // repaired
  auto got = m.read();
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(got[0], numbered_payload(1, 3));
  EXPECT_EQ(got[2], numbered_payload(3, 3));
}

TEST(PruInbox, OneReadTakesAtMostTheCapAndDropsTheOlderBacklog) {
  InboxOverMemory m;
  constexpr uint32_t kExtra = 25;
  for (uint32_t seq = 0; seq < PacketInbox::kMaxBatch + kExtra; ++seq)
    m.writer.write(numbered_payload(seq, 1), PacketWriter::Fault::None, false);
  m.writer.publish();
  auto got = m.read();
  ASSERT_EQ(got.size(), PacketInbox::kMaxBatch);
  EXPECT_EQ(got.front(), numbered_payload(kExtra, 1)) << "the newest are kept, oldest first";
  EXPECT_EQ(got.back(), numbered_payload(PacketInbox::kMaxBatch + kExtra - 1, 1));
  EXPECT_TRUE(m.read().empty());
}

TEST(PruInbox, ConcurrentFullSpeedProducerLosesReordersAndTearsNothing) {
  InboxOverMemory m;
  constexpr uint32_t kPackets = 300000;
  constexpr uint64_t kMaxAhead = 3000;  // the host keeps up: far less than a region
  std::atomic<uint64_t> delivered{0};
  std::thread firmware([&] {
    for (uint32_t seq = 0; seq < kPackets; ++seq) {
      while (seq - delivered.load(std::memory_order_acquire) > kMaxAhead) std::this_thread::yield();
      m.writer.write(numbered_payload(seq, 1 + seq % 256));
    }
  });
  uint32_t expected = 0;
  bool consistent = true;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (expected < kPackets && std::chrono::steady_clock::now() < deadline) {
    m.inbox.read([&](const PacketView& p) {
      uint32_t seq = 0;
      if (!payload_consistent(p.payload(), seq) || seq != expected || p.payload().size() != 4 * (1 + seq % 256))
        consistent = false;
      expected = seq + 1;
      // Release: the firmware reuses a packet's bytes only after the host
      // is done with them, as the host keeping up means.
      delivered.store(expected, std::memory_order_release);
    });
  }
  firmware.join();
  EXPECT_TRUE(consistent) << "a packet torn, duplicated, lost or out of order";
  EXPECT_EQ(expected, kPackets);
  EXPECT_EQ(m.inbox.faults(), 0u);
}

// The subsystem node over the simulated subsystem, both in one tree as the
// demo runs them; they share the two mapped files and nothing else.
class PruSubsystem : public ::testing::Test {
 protected:
  void build(const std::string& sim_settings, const std::string& core1_program = "idle") {
    root_ = FormatXML::instance().build(fmt::format(
        R"(<root><sim type="pru_simulation" device="pru/s.mem" rate="500" {}/>
           <pru type="pru_icss" device="pru/s.mem"><pru0 program="sampler"/><pru1 program="{}"/>
           <wave type="pru_sample_io" stream="1"/></pru></root>)",
        sim_settings, core1_program));
    ASSERT_TRUE(root_);
    root_->initialize();
  }
  PRUICSS& pru() { return at<PRUICSS>(*root_, "pru"); }
  SubsystemModel& model() { return at<PRUSimulation>(*root_, "sim").model(); }

  std::unique_ptr<Root> root_;
};

TEST_F(PruSubsystem, RestartSequenceAsTheModelSawItEndsWithSamplesInTheTree) {
  LogCapture log;
  build("");
  auto& wave = at<PRUSampleIO>(*root_, "pru/wave");
  ASSERT_TRUE(wait_until([&] { return wave.value().assigned(); }));
  EXPECT_TRUE(pru().is_running());
  EXPECT_TRUE(log.contains("Reset PRU"));
  std::vector<std::string> expected = {"standby request", "core 0 stopped", "core 1 stopped",
                                       "standby released", "core 0 runs sampler", "core 1 runs idle",
                                       "inbox enabled"};
  // The model notices each step on its own tick; only a build that runs at
  // speed gets to look within the driver's 10 ms between them.
  if (kTimingTells) {
    EXPECT_EQ(model().trace(), expected);
  }
  auto trace = model().trace();
  EXPECT_TRUE(!trace.empty() && trace.back() == "inbox enabled");
  EXPECT_EQ(pru().core(0).state(), "running");
  EXPECT_EQ(device_memory::read32(pru().memory(), pl::kSysCfg), pl::kSysCfgNoIdleNoStandby);
  EXPECT_EQ(device_memory::read32(pru().memory(), il::kHeaderOffset + il::kBuild), SubsystemModel::kBuild);

  // Core fields follow the registers, the stop button stops the core.
  auto& pc = at<ValueField<unsigned int>>(*root_, "pru/pru1/program_counter");
  auto before = pc.get();
  ASSERT_TRUE(wait_until([&] { return pc.get() != before; }));
  at<ButtonField>(*root_, "pru/pru1/stop_button").press();
  ASSERT_TRUE(wait_until([&] { return pru().core(1).state() == "stopped"; }));
}

TEST_F(PruSubsystem, StuckHandshakeFailsTheRestartAndALaterPollSucceeds) {
  LogCapture log;
  build(R"(stuck_handshake="true")");
  auto started = std::chrono::steady_clock::now();
  ASSERT_TRUE(wait_until([&] { return log.contains("Error: PRU restart failed"); }));
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(21 * 50));
  EXPECT_FALSE(pru().is_running());
  EXPECT_EQ(pru().core(0).state(), "uninitialized") << "nothing is loaded after a failed handshake";
  for (auto& event : model().trace()) EXPECT_EQ(event.find("runs"), std::string::npos) << event;

  root_->set_field_as_user("admin", "sim/stuck_handshake", "false");
  ASSERT_TRUE(wait_until([&] { return pru().is_running(); }));
  EXPECT_EQ(pru().core(0).state(), "running");
}

TEST_F(PruSubsystem, APacketThatStaysBadRestartsTheSubsystemAndPacketsFlowAgain) {
  LogCapture log;
  build("");
  auto& wave = at<PRUSampleIO>(*root_, "pru/wave");
  ASSERT_TRUE(wait_until([&] { return wave.value().assigned(); }));
  at<ButtonField>(*root_, "sim/bad_checksum_button").press();
  ASSERT_TRUE(wait_until([&] { return log.contains("Error: PRU inbox failed 1000 reads in a row"); }));
  EXPECT_TRUE(log.contains("Error: Failed checksum"));
  auto packets = at<ValueField<unsigned long long>>(*root_, "pru/wave/packets").get();
  EXPECT_TRUE(wait_until([&] { return at<ValueField<unsigned long long>>(*root_, "pru/wave/packets").get() > packets + 5; }));
  EXPECT_GE(pru().inbox().faults(), 1000u);
}

TEST_F(PruSubsystem, AnUnmappableDeviceIsReportedAndTheNodeStaysIdle) {
  LogCapture log;
  root_ = FormatXML::instance().build(R"(<root><pru type="pru_icss" device="pru/absent.mem"/></root>)");
  ASSERT_TRUE(root_);
  root_->initialize();
  EXPECT_TRUE(log.contains("Error: PRU shared memory not mapped: open " + Paths::data_root() + "/pru/absent.mem"));
  at<ButtonField>(*root_, "pru/pru0/program_button").press();
  at<ButtonField>(*root_, "pru/restart_button").press();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // polls and button jobs run meanwhile
  EXPECT_FALSE(pru().is_running());
  EXPECT_EQ(pru().core(0).state(), "uninitialized");
  EXPECT_TRUE(pru().shared_ram().empty());
}

TEST_F(PruSubsystem, MissingOrInvalidProgramLeavesTheMemoryClearedAndTheCoreStopped) {
  LogCapture log;
  build("", "missing");
  ASSERT_TRUE(wait_until([&] { return pru().is_running(); }));
  EXPECT_TRUE(log.contains("fopen " + Paths::bin_dir() + "missing_app.bin"));
  EXPECT_TRUE(log.contains("Error: PRU 1 start running failed"));
  EXPECT_EQ(pru().core(0).state(), "running");

  // Old contents of the core's memory do not survive a reload.
  uint8_t* iram = pru().memory() + pl::kInstructionOffset[1];
  for (size_t at = 0; at < pl::kCoreMemorySize; at += 4) device_memory::write32(iram, at, 0xDEADBEEF);
  log.clear();
  pru().request_restart();
  ASSERT_TRUE(wait_until([&] { return log.contains("PRU 1 start running failed"); }));
  bool cleared = true;
  for (size_t at = 0; at < pl::kCoreMemorySize; at += 4) cleared &= device_memory::read32(iram, at) == 0;
  EXPECT_TRUE(cleared);
  EXPECT_EQ(pru().core(1).state(), "stopped");

  // A program is a name in the bin folder, never a path out of it.
  root_->set_field_as_user("admin", "pru/pru1/program", "\"../../etc/passwd\"");
  at<ButtonField>(*root_, "pru/pru1/program_button").press();
  EXPECT_TRUE(wait_until([&] { return log.contains("Error: PRU 1: invalid program name '../../etc/passwd'"); }));
  EXPECT_FALSE(log.contains("fopen " + Paths::bin_dir() + "../"));
}

// The real program as the host, the model in this process as the firmware:
// they share nothing but the two files.
TEST(PruAcrossProcesses, AKilledHostLeavesTheFirmwareWritingAndTheNextHostRestartsAndReceives) {
  TempDir dir;
  Paths::set_data_root(dir.path().string());
  SubsystemModel::install_images(Paths::bin_dir());
  std::filesystem::create_directories(dir.path() / "pru");
  SubsystemModel model({dir / "pru/s.mem", dir / "pru/s.mem.region", 200});
  ASSERT_EQ(model.error(), "");
  model.start();
  dir.write("config/system.xml", R"(<root><web_server type="web_server"/>
      <pru type="pru_icss" device="pru/s.mem"><pru0 program="sampler"/><pru1 program="idle"/>
      <wave type="pru_sample_io"/></pru></root>)");
  auto enabled = [&] {
    auto t = model.trace();
    return std::find(t.begin(), t.end(), "inbox enabled") != t.end();
  };
  {
    ZelProcess host(ZEL_BINARY, ZelProcess::arguments_for(dir));
    ASSERT_TRUE(wait_until(enabled));
    host.signal(SIGKILL);
    host.wait_exit(std::chrono::seconds(10));
  }
  auto written = model.packets_written();
  EXPECT_TRUE(wait_until([&] { return model.packets_written() > written + 20; }))
      << "the firmware writes on without a host";

  model.clear_trace();
  ZelProcess next(ZEL_BINARY, ZelProcess::arguments_for(dir));
  auto port = next.web_port();
  ASSERT_NE(port, 0);
  ASSERT_TRUE(wait_until(enabled));
  // The next host restarts the subsystem before it takes packets again. (The
  // model looks at the registers now and then, so whether it catches the
  // inbox's brief switch-off first is a matter of timing.)
  auto trace = model.trace();
  auto standby = std::find(trace.begin(), trace.end(), "standby request");
  EXPECT_LT(standby, std::find(trace.begin(), trace.end(), "inbox enabled"))
      << fmt::format("{}", fmt::join(trace, ", "));
  auto packets = [&] {
    auto reply = web_client::get(port, "/io/pru/wave/packets.json");
    return reply.status == 200 ? std::stoull(reply.body) : 0ull;
  };
  EXPECT_TRUE(wait_until([&] { return packets() > 5; })) << "the next host receives";
}
