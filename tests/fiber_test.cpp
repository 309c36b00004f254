// Fiber loop: the frame and its checksum, the transmit ring, the receive
// side's frame rebuilding, and a loop of simulated modules behind a
// simulated PRU (they meet the driver only in the mapped memory): modules
// identify and connect, bad replies are logged and dropped, an unplugged
// module trips its interlock and revokes the permit above it.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "core/io/permit_command_io.hpp"
#include "core/root.hpp"
#include "fiber/avocet_slave.hpp"
#include "fiber/fiber_loop.hpp"
#include "fiber/frame_decoder.hpp"
#include "fiber/high_level_fiber_message.hpp"
#include "fiber/transmit_ring.hpp"
#include "formats/format_xml.hpp"
#include "log_capture.hpp"
#include "pru/device_memory.hpp"
#include "sim/fiber/fiber_simulation.hpp"
#include "tree_access.hpp"
#include "wait_until.hpp"

namespace {

namespace fl = fiber_layout;

LowLevelFiberMessage message(uint8_t address, std::vector<uint8_t> data, bool reply = false, bool fast = false) {
  LowLevelFiberMessage m;
  m.address = address;
  m.reply = reply;
  m.fast = fast;
  m.data = std::move(data);
  return m;
}

// A ring in process memory, as it lies in shared RAM.
struct RingMemory {
  std::vector<uint8_t> bytes = std::vector<uint8_t>(fl::kRingSize, 0);
  TransmitRing ring{bytes.data()};
  void set_index(uint32_t i) { device_memory::write32(bytes.data(), fl::kIndexWord, i); }
};

// The wire form of a frame as the receive stream carries it.
std::vector<uint16_t> entries_of(const LowLevelFiberMessage& m) {
  std::vector<uint16_t> out;
  m.encode([&](uint8_t b, char mark) { out.push_back(static_cast<uint16_t>(b | (mark == '+' ? fl::kDelimiterFlag : 0))); });
  return out;
}

template <class T>
T& field_of(const Node& node, const char* name) {
  auto* f = dynamic_cast<T*>(node.field(name));
  if (!f) throw std::runtime_error(std::string("no field ") + name);
  return *f;
}

}  // namespace

TEST(FiberFrame, SlowCommandToAddressThreeIsEncodedWithItsMarksAndChecksum) {
  RingMemory m;
  m.ring.write(message(3, {0x10}));
  std::string marks;
  std::vector<uint8_t> bytes;
  for (uint16_t i = 0; i < 5; ++i) {
    marks += m.ring.mark_at(i);
    bytes.push_back(m.ring.byte_at(i));
  }
  EXPECT_EQ(marks, "+;;;+");
  EXPECT_EQ(bytes, (std::vector<uint8_t>{0x43, 0x10, 0xF0, 0xFF, 0x03}));
  EXPECT_EQ(m.ring.index(), 5);
  // Reply and fast bits go into both delimiters, the opening bit only into the first.
  auto e = entries_of(message(31, {}, true, true));
  EXPECT_EQ(e.front() & 0xFF, 0xFF);
  EXPECT_EQ(e.back() & 0xFF, 0xBF);
}

TEST(FiberFrame, ValidOnlyFromFourBytesWithTheStoredTwosComplementSum) {
  auto ok = message(3, {0x10, 0x20, 0xD0, 0xFF});  // 0x30 + 0xFFD0 = 0x10000
  EXPECT_TRUE(ok.valid());
  EXPECT_EQ(ok.stored_checksum(), 0xFFD0);
  EXPECT_EQ(ok.computed_checksum(), 0xFFD0);
  EXPECT_FALSE(message(3, {0x10, 0xF0, 0xFF}).valid()) << "three bytes are too few even when they add up";
  EXPECT_FALSE(message(3, {0x00, 0x00}).valid());
  EXPECT_FALSE(message(3, {0x11, 0x20, 0xD0, 0xFF}).valid());
  // A sum over 65535 wraps.
  std::vector<uint8_t> big(300, 0xFF);
  uint16_t cs = LowLevelFiberMessage::checksum(big.data(), big.size());
  big.push_back(cs & 0xFF);
  big.push_back(cs >> 8);
  EXPECT_TRUE(message(1, big).valid());
  EXPECT_EQ(message(3, {0x10, 0xF0, 0xFF, 0x00}).dump_header(), "Address:3 Reply:0 Fast:0 Size:4 CS:255 CS:65280");
  EXPECT_EQ(message(3, {0x10, 0xF0, 0xFF}).dump_bytes(), "10 f0 ff ");
}

TEST(FiberFrame, TypedCommandsAreACommandByteAndLittleEndianArguments) {
  EXPECT_EQ((HighLevelFiberCommandArg1<float>{0x03, 0.1f}.bytes()), (std::vector<uint8_t>{0x03, 0xCD, 0xCC, 0xCC, 0x3D}));
  EXPECT_EQ((HighLevelFiberCommandArg2<uint8_t, uint8_t>{0x21, 2, 1}.bytes()), (std::vector<uint8_t>{0x21, 2, 1}));
  EXPECT_EQ((HighLevelFiberCommandArg2<uint8_t, float>{0x22, 3, 1.5f}.bytes()),
            (std::vector<uint8_t>{0x22, 3, 0x00, 0x00, 0xC0, 0x3F}));
}

TEST(FiberRing, IndexWrapsAtTheCapacityAndAnIndexBeyondItRestartsAtZeroDroppingOneByte) {
  RingMemory m;
  m.set_index(fl::kCapacity - 2);
  m.ring.write(message(3, {0x10}));
  EXPECT_EQ(m.ring.index(), 3);
  EXPECT_EQ(m.ring.byte_at(fl::kCapacity - 2), 0x43);
  EXPECT_EQ(m.ring.byte_at(fl::kCapacity - 1), 0x10);
  EXPECT_EQ(m.ring.byte_at(0), 0xF0);
  EXPECT_EQ(m.ring.byte_at(2), 0x03);
  EXPECT_EQ(m.ring.mark_at(2), '+');

  m.set_index(0xFFFF);
  m.ring.write(message(3, {0x10}));
  EXPECT_EQ(m.ring.index(), 4) << "the first byte is dropped, the other four from 0";
  EXPECT_EQ(m.ring.byte_at(0), 0x10);
  EXPECT_EQ(m.ring.byte_at(3), 0x03);
}

TEST(FiberReceive, FramesAreRebuiltAndNoiseBrokenFramesAndUartErrorsAreCounted) {
  std::vector<LowLevelFiberMessage> got;
  FrameDecoder d([&](const LowLevelFiberMessage& f) { got.push_back(f); });
  auto feed = [&](const std::vector<uint16_t>& e) { for (auto x : e) d.feed_entry(x); };

  d.feed_entry(0x43);  // an ordinary byte and a closing delimiter between frames
  d.feed_entry(0x03 | fl::kDelimiterFlag);
  feed(entries_of(message(5, {1, 2, 3}, true, true)));
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].address, 5);
  EXPECT_TRUE(got[0].reply && got[0].fast && got[0].valid());
  EXPECT_EQ(got[0].data.size(), 5u) << "payload and checksum";

  auto e = entries_of(message(6, {9}));
  e.back() = 0x07 | fl::kDelimiterFlag;  // closed with another address
  feed(e);
  auto open = entries_of(message(6, {9}));
  open.pop_back();  // never closed: the next opening breaks it
  feed(open);
  auto inner = entries_of(message(7, {8}));
  inner[1] |= fl::kOverrunFlag;  // a UART error inside a frame drops it
  feed(inner);
  d.feed_entry(fl::kNoiseFlag | fl::kBreakFlag);
  d.feed_entry(fl::kFrameErrorFlag | fl::kTimeoutFlag);
  std::vector<uint16_t> endless{0x48 | fl::kDelimiterFlag};
  endless.resize(FrameDecoder::kMaxFrame + 2, 0x11);
  feed(endless);
  feed(entries_of(message(8, {1})));

  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[1].address, 8);
  const auto& c = d.counts();
  // Two bytes between frames, one noise flag, and the three bytes after the
  // UART error that are no longer in a frame.
  EXPECT_EQ(c.noise, 6u);
  EXPECT_EQ(c.broken_frames, 4u);  // wrong close, unclosed, UART error inside, too long
  EXPECT_EQ(c.breaks, 1u);
  EXPECT_EQ(c.frame_errors, 1u);
  EXPECT_EQ(c.overruns, 1u);
  EXPECT_EQ(c.timeouts, 1u);
  EXPECT_EQ(c.frames, 2u);
}

// A loop of simulated modules behind a simulated PRU, in one tree as the
// demo runs them, beneath a permit that drives "pump". Module 3 is a board
// of another type, accepted as a developer board.
class FiberLoopOverModel : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = FormatXML::instance().build(R"(<root>
      <pru_simulation type="pru_simulation" device="pru/s.mem" rate="50"/>
      <modules type="fiber_simulation" modules="1 2 3" foreign="3"/>
      <pru type="pru_icss" device="pru/s.mem"><pru0 program="sampler"/><pru1 program="fiber"/></pru>
      <pump type="digital_io" value="false"/>
      <permit type="permit_command_io" output="pump">
        <loop type="fiber_loop" pru="pru" pru_index="1">
          <m1 type="avocet_slave" address="1"/>
          <m2 type="avocet_slave" address="2"/>
          <m3 type="avocet_slave" address="3" developer_board="true"/>
        </loop>
      </permit></root>)");
    ASSERT_TRUE(root_);
    root_->initialize();
  }
  AvocetSlave& slave(const char* name) { return at<AvocetSlave>(*root_, std::string("permit/loop/") + name); }
  bool running(const char* name) { return slave(name).state() == "running"; }
  LoopModel& model() { return at<FiberSimulation>(*root_, "modules").model(); }
  PermitCommandIO& permit() { return at<PermitCommandIO>(*root_, "permit"); }

  std::unique_ptr<Root> root_;
};

TEST_F(FiberLoopOverModel, ModulesIdentifyConnectAndTheirFastRepliesBecomeIOValues) {
  ASSERT_TRUE(wait_until([&] { return running("m1") && running("m2"); }))
      << "m1 " << slave("m1").state() << ", the modules answered " << model().replies() << " times";
  auto& m1 = slave("m1");
  EXPECT_EQ(field_of<ValueField<unsigned int>>(m1, "board_id").get(), AvocetSlave::kBoardId);
  EXPECT_EQ(field_of<ValueField<std::string>>(m1, "pic_letter_version").get(), "c");
  EXPECT_EQ(field_of<ValueField<unsigned int>>(m1, "io_input_length").get(), AvocetSlave::kInputBytes);
  EXPECT_EQ(m1.color(), "green");
  EXPECT_TRUE(m1.disconnect_interlock().is_ok());
  ASSERT_TRUE(wait_until([&] { return m1.analog(3).assigned(); }));
  double before = m1.analog(3).get();
  EXPECT_TRUE(wait_until([&] { return m1.analog(3).get() != before; })) << "the values move";
  // Fast messages keep to their period: about ten a second, never more.
  auto fast = m1.fast_message_count();
  std::this_thread::sleep_for(std::chrono::seconds(1));
  auto per_second = m1.fast_message_count() - fast;
  EXPECT_GE(per_second, 5u);
  EXPECT_LE(per_second, 11u);
}

TEST_F(FiberLoopOverModel, AnUnpluggedModuleTripsItsInterlockRevokesThePermitAndReconnectsWhenPluggedBack) {
  LogCapture log;
  ASSERT_TRUE(wait_until([&] { return running("m1") && running("m2") && permit().granted(); }));
  auto& pump = at<DigitalIO>(*root_, "pump");
  permit().context()->post([&] { permit().user_command().set(true); });  // the operator, on the tree's thread
  ASSERT_TRUE(wait_until([&] { return pump.get(); }));

  model().set_plugged(2, false);
  ASSERT_TRUE(wait_until([&] { return slave("m2").disconnect_interlock().is_error(); }, std::chrono::seconds(2)));
  EXPECT_TRUE(wait_until([&] { return !pump.get() && !permit().granted(); }));
  EXPECT_EQ(slave("m2").disconnect_count(), 1u);
  EXPECT_EQ(slave("m2").state(), "disconnected");
  EXPECT_TRUE(running("m1")) << "the other module goes on";
  EXPECT_TRUE(wait_until([&] { return log.contains("permit revoked"); })) << "logged just after the output goes off";

  model().set_plugged(2, true);
  ASSERT_TRUE(wait_until([&] { return running("m2"); }));
  EXPECT_TRUE(wait_until([&] { return permit().granted(); }));
  EXPECT_FALSE(pump.get()) << "the operator commands again";
}

TEST_F(FiberLoopOverModel, BadRepliesAreLoggedInTheirOwnWordsAndDroppedAndNoiseIsCounted) {
  ASSERT_TRUE(wait_until([&] { return running("m1") && running("m2"); }));
  auto& m1 = slave("m1");
  auto wait_log = [&](LogCapture& log, const std::string& text) {
    return wait_until([&] { return log.contains(text); }, std::chrono::seconds(3));
  };
  {
    LogCapture log;
    model().inject(LoopModel::Fault::BadChecksum);
    EXPECT_TRUE(wait_log(log, " invalid message"));
    EXPECT_TRUE(wait_log(log, " Reply:1 Fast:0 Size:"));
  }
  {
    LogCapture log;
    model().inject(LoopModel::Fault::StatusError);
    EXPECT_TRUE(wait_log(log, "Error: Error in fiber response m"));
  }
  {
    LogCapture log;
    auto received = m1.slow_message_received() + slave("m2").slow_message_received();
    model().inject(LoopModel::Fault::StatusWarning);
    EXPECT_TRUE(wait_log(log, "Error: Error in fiber response m"));
    EXPECT_TRUE(wait_until([&] { return m1.slow_message_received() + slave("m2").slow_message_received() > received; }))
        << "a reply with an error status is still validated";
  }
  {
    LogCapture log;
    // A cut identify reply: make module 1 identify again by unplugging it.
    model().set_plugged(1, false);
    ASSERT_TRUE(wait_until([&] { return m1.state() == "disconnected"; }));
    model().inject(LoopModel::Fault::ShortReply, 1);
    model().set_plugged(1, true);
    EXPECT_TRUE(wait_log(log, "Error: Unexpected length m1 0 < 13 - 2"));
    EXPECT_TRUE(wait_log(log, "Status flags: 0 0 0"));
    EXPECT_TRUE(wait_until([&] { return running("m1"); })) << "the next attempt connects";
  }
  auto& loop = at<FiberLoop>(*root_, "permit/loop");
  auto& noise_count = field_of<ValueField<unsigned long long>>(loop, "rx_noise_count");
  auto noise = noise_count.get();
  model().add_noise();
  EXPECT_TRUE(wait_until([&] { return noise_count.get() >= noise + LoopModel::kNoiseBytes + 1; }));
  EXPECT_TRUE(wait_until([&] { return field_of<ValueField<unsigned long long>>(loop, "rx_broken_frame_count").get() >= 1; }));
  EXPECT_TRUE(running("m1") && running("m2"));
}

TEST_F(FiberLoopOverModel, LoopbackTestPassesOverALoopbackPlugAndFailsOverModules) {
  auto& loop = at<FiberLoop>(*root_, "permit/loop");
  auto& press = dynamic_cast<ButtonField&>(*loop.field("loopback_test"));
  auto& result = field_of<ValueField<std::string>>(loop, "loopback_result");
  ASSERT_TRUE(wait_until([&] { return running("m1"); }));
  press.press();
  EXPECT_TRUE(wait_until([&] { return result.get() == "failed"; })) << "modules do not echo";
  at<FiberSimulation>(*root_, "modules").field("loopback")->read_json("true");
  press.press();
  EXPECT_TRUE(wait_until([&] { return result.get() == "passed"; }));
  EXPECT_TRUE(wait_until([&] { return slave("m1").state() != "running"; })) << "with the plug in, no module answers";
}

TEST_F(FiberLoopOverModel, AModuleOfAnotherTypeConnectsOnlyAsADeveloperBoard) {
  LogCapture log;
  auto& m3 = slave("m3");
  ASSERT_TRUE(wait_until([&] { return running("m3"); }));
  EXPECT_EQ(field_of<ValueField<unsigned int>>(m3, "board_id").get(), LoopModel::kForeignBoardId);
  ASSERT_TRUE(m3.field("developer_board")->read_json("false"));
  model().set_plugged(3, false);
  ASSERT_TRUE(wait_until([&] { return !running("m3"); }));
  model().set_plugged(3, true);
  EXPECT_TRUE(wait_until([&] { return log.contains("Error: m3 is a board 2817 where a board 2684 belongs"); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  EXPECT_FALSE(running("m3"));
  EXPECT_TRUE(m3.disconnect_interlock().is_error());
}

TEST(FiberLoopReceive, BytesBeyondWhatAStalledLoopHoldsAreDroppedAsOverruns) {
  auto root = FormatXML::instance().build(R"(<root><loop type="fiber_loop"/></root>)");
  ASSERT_TRUE(root);
  auto& loop = at<FiberLoop>(*root, "loop");
  // Entries of ordinary bytes outside any frame: 0x0011 each.
  auto entries = [](size_t n) {
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < n; ++i) bytes.insert(bytes.end(), {0x11, 0x00});
    return bytes;
  };
  auto noise = entries(FiberLoop::kMaxPendingBytes / 2 - 50);
  loop.receive_bytes(noise);
  loop.receive_bytes(entries(200));  // does not fit: dropped
  loop.poll();
  EXPECT_EQ(field_of<ValueField<unsigned long long>>(loop, "rx_overrun_count").get(), 200u);
  EXPECT_EQ(field_of<ValueField<unsigned long long>>(loop, "rx_noise_count").get(), noise.size() / 2);
}
