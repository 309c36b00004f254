// I2C: the bus layer's request checks over the simulated adapter and over
// i2c-dev, and each chip driver against its register-level model.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <set>

#include <fmt/format.h>

#include "core/root.hpp"
#include "devices/eeprom.hpp"
#include "devices/ft5x26.hpp"
#include "devices/i2c_bus.hpp"
#include "devices/id_screen.hpp"
#include "devices/oled64.hpp"
#include "devices/pca9536.hpp"
#include "devices/pcf8574.hpp"
#include "devices/si5351.hpp"
#include "devices/us2066.hpp"
#include "formats/format_xml.hpp"
#include "log_capture.hpp"
#include "sim/i2c/i2c_simulation.hpp"
#include "sim/i2c/sim_eeprom.hpp"
#include "sim/i2c/sim_ft5x26.hpp"
#include "sim/i2c/sim_port_expanders.hpp"
#include "sim/i2c/sim_si5351.hpp"
#include "sim/i2c/sim_us2066.hpp"
#include "std/i2c_dev.hpp"
#include "tree_access.hpp"
#include "wait_until.hpp"

namespace {

// Every chip at its address on a simulated bus; polls off unless a test starts the tree.
constexpr const char* kBoard = R"(<root label="Test Bench">
  <bus type="i2c_bus" device="sim">
    <eeprom type="eeprom" address="80"/>
    <port type="pcf8574" address="32" command="240"><poll rate="50"/></port>
    <leds type="pca9536" address="65" direction="12" output="3"><poll rate="50"/></leds>
    <clock type="si5351" address="96"><poll rate="0"/></clock>
    <display type="us2066" address="60" lines="4" row_0="First" row_3="Last"><poll rate="50"/></display>
    <id type="id_screen" address="61"><poll rate="50"/></id>
    <graphic type="oled64" address="62"><poll rate="0"/></graphic>
    <touch type="ft5x26" address="56"><poll rate="50"/></touch>
  </bus>
</root>)";

struct Board {
  std::unique_ptr<Root> root = FormatXML::instance().build(kBoard);
  SimBus& sim = at<I2CSimulation>(*root, "bus/simulation").bus();
  I2CBus& bus = at<I2CBus>(*root, "bus");

  template <class Driver>
  Driver& chip(const std::string& name) { return at<Driver>(*root, "bus/" + name); }
  template <class Model>
  Model& model(uint8_t address) {
    auto* m = sim.chip_as<Model>(address);
    if (!m) throw std::runtime_error("no model at that address");
    return *m;
  }
  void set(const std::string& path, const std::string& value) { root->set_field_as_user("test", path, value); }
  ~Board() {
    if (root) root->stop_all();
  }
};

// ---- The bus layer -------------------------------------------------------

TEST(I2CBus, MessagesUpTo64BytesPassAndLongerOnesFailBeforeAnyTransfer) {
  Board board;
  LogCapture log;
  std::vector<uint8_t> bytes(65, 0x40);
  auto before = board.sim.transactions();
  EXPECT_TRUE(board.bus.send(60, bytes.data(), 64, true));
  uint8_t buffer[65];
  EXPECT_TRUE(board.bus.receive(60, buffer, 64, true));
  EXPECT_EQ(board.sim.transactions(), before + 2);
  EXPECT_FALSE(board.bus.send(60, bytes.data(), 65, true));
  EXPECT_FALSE(board.bus.receive(60, buffer, 65, true));
  EXPECT_EQ(board.sim.transactions(), before + 2);
  EXPECT_EQ(log.entries().size(), 2u);
  EXPECT_TRUE(log.has_line("Error: I2C messages can not be greater than 64"));
  EXPECT_FALSE(board.bus.send(60, nullptr, 4, true));
  EXPECT_FALSE(board.bus.receive(60, nullptr, 4, true));
  EXPECT_TRUE(log.has_line("Error: Null pointer passed as I2C buffer"));
  EXPECT_EQ(board.sim.transactions(), before + 2);
  EXPECT_EQ(log.entries().front().source, "src/devices/i2c_bus");
}

TEST(I2CBus, RegisterReadReachesTheChipAsOneCombinedTransaction) {
  Board board;
  auto& clock = board.chip<SI5351>("clock");
  board.model<SimSI5351>(96).set_reg(45, 0x36);
  auto before = board.sim.transactions();
  uint8_t value = 0;
  ASSERT_TRUE(clock.read_register(45, value));
  EXPECT_EQ(value, 0x36);
  EXPECT_EQ(board.sim.transactions(), before + 1);
  auto shape = board.sim.last_transaction();
  ASSERT_EQ(shape.size(), 2u);
  EXPECT_FALSE(shape[0].read);
  EXPECT_EQ(shape[0].length, 1);
  EXPECT_TRUE(shape[1].read);
  EXPECT_EQ(shape[0].address, 96);
  EXPECT_EQ(shape[1].address, 96);
}

TEST(I2CBus, BusThatCouldNotBeOpenedFailsEveryRequestSendsLoggingFD) {
  LogCapture log;
  auto root = FormatXML::instance().build(R"(<root><bus type="i2c_bus" device="/nonexistent/i2c-7">
    <port type="pcf8574" address="32"/></bus></root>)");
  ASSERT_TRUE(root);
  auto& bus = at<I2CBus>(*root, "bus");
  EXPECT_FALSE(bus.is_open());
  EXPECT_TRUE(log.contains("Error: Unable to open I2C device /nonexistent/i2c-7"));
  log.clear();
  uint8_t byte = 0;
  std::vector<uint8_t> long_message(65);
  EXPECT_FALSE(bus.receive(32, &byte, 1, true));
  EXPECT_TRUE(log.texts().empty()) << "a receive fails quietly";
  EXPECT_FALSE(bus.send(32, long_message.data(), 65, true));  // the descriptor is checked first
  EXPECT_EQ(log.texts(), std::vector<std::string>{"Error: FD"});
  EXPECT_FALSE(bus.send_byte(32, 1));
  EXPECT_FALSE(bus.receive_byte(32, byte));
  EXPECT_FALSE(bus.recover());
  EXPECT_FALSE(bus.set_speed(100000));
  EXPECT_EQ(log.texts().size(), 2u) << "FD is not repeated within its interval";
  EXPECT_TRUE(log.contains("Failed to set I2C bus speed"));
  auto& port = at<PCF8574>(*root, "bus/port");
  port.poll();
  EXPECT_TRUE(port.faults().raised());
}

TEST(I2CDev, OpenFailsForAMissingDeviceAndForAFileThatIsNoAdapter) {
  I2CDev missing("/dev/i2c-nonexistent-99");
  EXPECT_FALSE(missing.is_open());
  EXPECT_EQ(missing.error(), "No such file or directory");
  I2CDev not_adapter("/dev/null");
  EXPECT_FALSE(not_adapter.is_open());
  EXPECT_TRUE(not_adapter.error().starts_with("not an I2C adapter")) << not_adapter.error();
  uint8_t byte = 0;
  I2CMessage message{0x20, true, &byte, 1};
  EXPECT_FALSE(not_adapter.transfer({&message, 1}));
  EXPECT_EQ(I2CDev::device_path("/dev/i2c0"), "/dev/i2c-0");
  EXPECT_EQ(I2CDev::device_path("/dev/i2c12"), "/dev/i2c-12");
  EXPECT_EQ(I2CDev::device_path("/dev/i2c-1"), "/dev/i2c-1");
  EXPECT_TRUE(I2CDev::first_adapter().starts_with("/dev/i2c-"));
}

// ---- SI5351 --------------------------------------------------------------

// The initialisation as the chip must see it, step by step.
std::vector<std::string> expected_si5351_sequence(int r_code, int high, int middle, int low) {
  std::vector<std::string> s{"R3", "W3=255", "R3", "W16=128", "R16"};
  for (int reg = 17; reg <= 23; ++reg) s.push_back(fmt::format("W{}=128", reg));
  s.push_back("W183=192");
  for (auto [reg, v] : {std::pair{26, 0}, {27, 1}, {28, 0}, {29, 6}, {30, 0}, {31, 0}, {32, 0}, {33, 0}})
    s.push_back(fmt::format("W{}={}", reg, v));
  s.push_back("W177=160");
  for (auto [reg, v] : {std::pair{42, 0}, {43, 1}, {44, high}, {45, middle}, {46, low}, {47, 0}, {48, 0}, {49, 0}})
    s.push_back(fmt::format("W{}={}", reg, v));
  s.push_back("W16=79");
  s.push_back("R44");
  s.push_back(fmt::format("W44={}", r_code | high));
  s.push_back("R44");
  s.push_back("W3=0");
  return s;
}

std::vector<std::string> seen(const SimRegisterChip& chip) {
  std::vector<std::string> out;
  for (auto& a : chip.trace()) out.push_back(a.read ? fmt::format("R{}", a.reg) : fmt::format("W{}={}", a.reg, a.value));
  return out;
}

TEST(SI5351, EachSelectionProgramsTheTableAndAnUnknownOneProgramsTwentyFiveKilohertz) {
  Board board;
  auto& clock = board.chip<SI5351>("clock");
  auto& model = board.model<SimSI5351>(96);
  struct Case {
    std::string selection;
    int r_code, high, middle, low;
    double hz;
  };
  for (const Case& c : {Case{"5000", 0x70, 1, 54, 128, 5000}, Case{"10000", 0x70, 0, 154, 0, 25e6 * 16 / (312 * 128)},
                        Case{"25000", 0x70, 0, 60, 128, 25000}, Case{"50000", 0x60, 0, 60, 128, 50000},
                        Case{"100000", 0x50, 0, 60, 128, 100000}, Case{"12345", 0x70, 0, 60, 128, 25000}}) {
    model.clear_trace();
    ASSERT_TRUE(clock.initialize(c.selection)) << c.selection;
    EXPECT_EQ(seen(model), expected_si5351_sequence(c.r_code, c.high, c.middle, c.low)) << c.selection;
    EXPECT_NEAR(model.output_hz(), c.hz, 0.01) << c.selection;
    EXPECT_EQ(clock.test(), "Passed");
  }
}

TEST(SI5351, StatusTestWritesEachConditionsTextToAlarm) {
  Board board;
  auto& clock = board.chip<SI5351>("clock");
  auto& model = board.model<SimSI5351>(96);
  EXPECT_EQ(clock.test(), "Device in initialization state still");
  ASSERT_TRUE(wait_until([&] { return clock.test() != "Device in initialization state still"; }));
  EXPECT_EQ(clock.alarm().get(), "PLLA loss of lock status, reference clock failure") << "PLL A not set up yet";
  ASSERT_TRUE(clock.initialize("25000"));
  EXPECT_EQ(clock.test(), "Passed");
  model.pll_b_unlocked = true;
  model.reference_lost = true;
  EXPECT_EQ(clock.test(), "PLLB loss of lock status, reference clock failure");
  model.pll_b_unlocked = false;
  EXPECT_EQ(clock.test(), "PLLA loss of lock status, reference clock failure");
  board.set("bus/simulation/clock/answering", "false");
  EXPECT_EQ(clock.test(), "Unable to receive device status over I2C");
  EXPECT_EQ(clock.alarm().get(), "Unable to receive device status over I2C");
  EXPECT_FALSE(clock.initialize("25000"));
}

TEST(SI5351, InitialisationSleepsOnItsOwnThreadAndFollowsClockSelection) {
  Board board;
  board.root->initialize();
  auto& clock = board.chip<SI5351>("clock");
  auto& model = board.model<SimSI5351>(96);
  ASSERT_TRUE(wait_until([&] { return clock.initializations() == 1; }));
  EXPECT_NEAR(model.output_hz(), 25000, 0.01);
  at<ButtonField>(*board.root, "bus/clock/clock_100kHz").press();
  ASSERT_TRUE(wait_until([&] { return clock.initializations() == 2; }));
  EXPECT_EQ(clock.clock().get(), "100000");
  EXPECT_NEAR(model.output_hz(), 100000, 0.01);
  EXPECT_NEAR(at<ValueField<double>>(*board.root, "bus/simulation/clock/output_hz").get(), 100000, 0.01);
}

// ---- EEPROM --------------------------------------------------------------

TEST(EEPROM, SelfTestPassesCountingExactlyOneRepairEachRun) {
  Board board;
  auto& eeprom = board.chip<EEPROM>("eeprom");
  EXPECT_EQ(eeprom.test_read_write(), "");
  EXPECT_EQ(eeprom.repairs().get(), 1u);
  EXPECT_EQ(eeprom.test_read_write(), "");
  EXPECT_EQ(eeprom.repairs().get(), 2u);
  board.set("bus/simulation/eeprom/answering", "false");
  EXPECT_EQ(eeprom.test_read_write(), "Write failed");
}

TEST(EEPROM, OneCorruptedCopyIsRepairedOnceAndNothingGoodLeftCannotBeRecovered) {
  Board board;
  auto& eeprom = board.chip<EEPROM>("eeprom");
  auto& chip = board.model<SimEEPROM>(80);
  struct Record {
    double a;
    uint32_t b[9];
  } written{3.25, {1, 2, 3, 4, 5, 6, 7, 8, 9}}, back{};
  constexpr uint16_t address = 90;  // across page boundaries
  ASSERT_TRUE(eeprom.redundantWrite(address, written));
  chip.poke(address + EEPROM::kBank + 17, chip.peek(address + EEPROM::kBank + 17) ^ 0x04);
  ASSERT_TRUE(eeprom.redundantReadRepair(address, back));
  EXPECT_EQ(eeprom.repairs().get(), 1u);
  EXPECT_EQ(std::memcmp(&back, &written, sizeof back), 0);
  for (int i = 0; i < int(sizeof(Record) + 4); ++i)
    ASSERT_EQ(chip.peek(address + EEPROM::kBank + i), chip.peek(address + i)) << "copy 1 restored, byte " << i;
  ASSERT_TRUE(eeprom.redundantReadRepair(address, back));
  EXPECT_EQ(eeprom.repairs().get(), 1u) << "a sound record needs no repair";

  LogCapture log;
  board.set("bus/simulation/eeprom/corrupt", "true");  // damaged on the way, sound on the chip
  auto writes = chip.page_writes();
  EXPECT_FALSE(eeprom.redundantReadRepair(address, back));
  EXPECT_EQ(chip.page_writes(), writes) << "nothing damaged in transit is written back";
  board.set("bus/simulation/eeprom/corrupt", "false");
  ASSERT_TRUE(eeprom.redundantReadRepair(address, back));

  for (int copy = 0; copy < EEPROM::kCopies; ++copy) chip.poke(address + copy * EEPROM::kBank + 3, 0xEE);
  EXPECT_FALSE(eeprom.redundantReadRepair(address, back));
  EXPECT_TRUE(log.has_line("Error: Unable to recover data"));
  EXPECT_EQ(eeprom.repairs().get(), 1u);
}

TEST(EEPROM, WriteContextGoesToTheChipWhenSetAndComesBackAtStart) {
  Board board;
  board.root->initialize();
  auto& eeprom = board.chip<EEPROM>("eeprom");
  board.set("bus/eeprom/write_context", "\"rack 4, slot 2\"");
  std::string back;
  ASSERT_TRUE(wait_until([&] {
    return eeprom.redundantReadRepairString<256>(EEPROM::kContextAddress, back) && back == "rack 4, slot 2";
  }));
  ASSERT_TRUE(eeprom.redundantWriteString<256>(EEPROM::kContextAddress, "written elsewhere"));
  eeprom.start();  // as at the next start: the chip's text wins over the configured one
  EXPECT_EQ(eeprom.write_context().get(), "written elsewhere");
}

// ---- Faults, ports, displays, touch ----------------------------------------

TEST(ChipFaults, ChipThatStopsAnsweringRaisesItsFaultKeepsPollingAndClearsWhenBack) {
  Board board;
  LogCapture log;
  board.root->initialize();
  auto& port = board.chip<PCF8574>("port");
  auto& model = board.model<SimPCF8574>(32);
  model.pull_low = 0x30;
  ASSERT_TRUE(wait_until([&] { return port.state().get() == 0xC0; })) << "latch 0xF0, pins 4 and 5 pulled low";
  EXPECT_EQ(model.latch(), 0xF0);
  board.set("bus/simulation/port/answering", "false");
  ASSERT_TRUE(wait_until([&] { return port.faults().active().size() == 2; }));
  EXPECT_TRUE(port.faults().field().get().starts_with("I2C read failure: readState() (src/devices/pcf8574:"));
  EXPECT_NE(port.faults().field().get().find("I2C write failure: sendCommand()"), std::string::npos);
  bool logged_by_driver = false;
  for (auto& e : log.entries())
    if (e.source == "src/devices/pcf8574" && e.text.starts_with("Error: I2C read failure readState()")) logged_by_driver = true;
  EXPECT_TRUE(logged_by_driver);
  auto polled = board.sim.transactions();
  ASSERT_TRUE(wait_until([&] { return board.sim.transactions() > polled + 10; })) << "still polling";
  model.pull_low = 0;
  board.set("bus/simulation/port/answering", "true");
  ASSERT_TRUE(wait_until([&] { return !port.faults().raised(); }));
  EXPECT_EQ(port.faults().field().get(), "");
  ASSERT_TRUE(wait_until([&] { return port.state().get() == 0xF0; }));
  EXPECT_EQ(at<ChipTest>(*board.root, "bus/port/read_write").run(), "Passed");
}

TEST(ChipFaults, StuckBusFailsEveryChipUntilTheBusRecovers) {
  Board board;
  auto& port = board.chip<PCF8574>("port");
  auto& touch = board.chip<FT5X26>("touch");
  board.set("bus/simulation/stuck", "true");
  port.poll();
  touch.poll();
  EXPECT_TRUE(port.faults().raised());
  EXPECT_TRUE(touch.faults().raised());
  at<ButtonField>(*board.root, "bus/recover").press();
  EXPECT_FALSE(at<ValueField<bool>>(*board.root, "bus/simulation/stuck").get());
  port.poll();
  touch.poll();
  EXPECT_FALSE(port.faults().raised());
  EXPECT_FALSE(touch.faults().raised());
}

TEST(ChipFaults, DisplayLinkFaultNamesTheHeaderAndTheScreenComesBackSetUp) {
  Board board;
  board.root->initialize();
  auto& display = board.chip<US2066>("display");
  auto& glass = board.model<SimUS2066>(60);
  ASSERT_TRUE(wait_until([&] { return display.initalized().get(); }));
  EXPECT_EQ(glass.lines(), 4);
  EXPECT_EQ(glass.row(0), fmt::format("{:<20}", "First"));
  EXPECT_EQ(glass.row(3), fmt::format("{:<20}", "Last"));
  board.set("bus/display/row_1", "\"Second\"");
  ASSERT_TRUE(wait_until([&] { return glass.row(1) == fmt::format("{:<20}", "Second"); }));
  board.set("bus/simulation/display/answering", "false");
  ASSERT_TRUE(wait_until([&] { return !display.initalized().get(); }));
  EXPECT_TRUE(display.faults().field().get().starts_with("I2C write failure: send({0x08}) (include/devices/us2066:"));
  board.set("bus/display/upsidedown", "true");
  board.set("bus/simulation/display/answering", "true");
  ASSERT_TRUE(wait_until([&] { return display.initalized().get() && glass.flipped(); }));
  EXPECT_EQ(glass.row(1), fmt::format("{:<20}", "Second"));
  EXPECT_EQ(display.faults().field().get(), "");
}

TEST(Displays, IdentificationScreenShowsNameAddressAndVersion) {
  Board board;
  board.root->initialize();
  auto& glass = board.model<SimUS2066>(61);
  ASSERT_TRUE(wait_until([&] { return glass.row(0).starts_with("Name Test Bench"); }));
  EXPECT_TRUE(glass.row(1).starts_with("IP ")) << glass.row(1);
  EXPECT_TRUE(glass.row(2).starts_with("Vers ")) << glass.row(2);
  EXPECT_EQ(board.chip<IDScreen>("id").lines(), 3u);
}

TEST(Displays, OLED64RefusesAnImageOfTheWrongSizeAndDrawsText) {
  Board board;
  LogCapture log;
  auto& graphic = board.chip<OLED64>("graphic");
  auto& glass = board.model<SimUS2066>(62);
  auto before = board.sim.transactions();
  EXPECT_FALSE(graphic.draw({63, 64, std::vector<uint8_t>(63 * 64, 1)}));
  EXPECT_FALSE(graphic.draw({64, 64, std::vector<uint8_t>(10, 1)}));
  EXPECT_EQ(board.sim.transactions(), before);
  EXPECT_TRUE(log.has_line("Error: Image size must be 64x64 pixels"));
  OLED64::Image image{64, 64, std::vector<uint8_t>(64 * 64, 0)};
  image.pixels[5 * 64 + 9] = 1;
  image.pixels[63 * 64 + 63] = 1;
  ASSERT_TRUE(graphic.draw(image));
  EXPECT_TRUE(glass.pixel(9, 5));
  EXPECT_TRUE(glass.pixel(63, 63));
  EXPECT_FALSE(glass.pixel(8, 5));
  // "1" drawn at twice its size: the glyph's middle column at x 3..4 lit down its height.
  ASSERT_TRUE(graphic.draw(OLED64::render_text("1")));
  EXPECT_TRUE(glass.pixel(3, 1));
  EXPECT_TRUE(glass.pixel(4, 9));
  EXPECT_FALSE(glass.pixel(1, 1));
}

TEST(Ports, PCA9536DrivesOutputsAndReadsInputs) {
  Board board;
  board.root->initialize();
  auto& leds = board.chip<PCA9536>("leds");
  auto& model = board.model<SimPCA9536>(65);
  model.pull_low = 0x04;  // an input pulled low
  ASSERT_TRUE(wait_until([&] { return leds.input().get() == 0x0B; }));  // outputs 0..1 high, input 2 low, input 3 high
  EXPECT_EQ(model.pins(), 0x0B);
}

TEST(Touch, FT5X26ReportsTheInjectedTouchPoint) {
  Board board;
  board.root->initialize();
  auto& touch = board.chip<FT5X26>("touch");
  auto& panel = board.model<SimFT5X26>(56);
  panel.touch(1234, 567);
  ASSERT_TRUE(wait_until([&] { return touch.touches().get() == 1 && touch.x().get() == 1234; }));
  EXPECT_EQ(touch.y().get(), 567u);
  panel.release();
  ASSERT_TRUE(wait_until([&] { return touch.touches().get() == 0; }));
}

// ---- The demo board ------------------------------------------------------

TEST(DemoBoard, DemoCarriesEveryChipOnASimulatedBusAndEachAnswers) {
  std::ifstream in(std::string(ZEL_SOURCE_DIR) + "/examples/demo.xml");
  std::string xml((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  Root::reset_configuration_errors();
  auto root = FormatXML::instance().build(xml);
  ASSERT_TRUE(root);
  EXPECT_EQ(Root::configuration_errors(), 0u);
  std::set<std::string> types;
  for (auto& child : at<I2CBus>(*root, "board_i2c").children()) {
    auto* chip = dynamic_cast<I2CSlave*>(child.get());
    if (!chip) continue;
    types.insert(chip->type());
    if (auto* eeprom = dynamic_cast<EEPROM*>(chip)) EXPECT_EQ(eeprom->test_read_write(), "");
    else chip->poll();
    EXPECT_FALSE(chip->faults().raised()) << chip->path() << ": " << chip->faults().field().get();
  }
  EXPECT_EQ(types, (std::set<std::string>{"EEPROM", "FT5X26", "IDScreen", "OLED64", "PCA9536", "PCF8574", "SI5351",
                                          "US2066"}));
}

}  // namespace
