#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "core/component.hpp"
#include "core/context.hpp"
#include "core/pulse.hpp"
#include "core/root.hpp"
#include "formats/format_xml.hpp"
#include "log_capture.hpp"
#include "wait_until.hpp"

namespace {

// Records its init, start, polls and stop stages.
class Recorder : public Component {
 public:
  explicit Recorder(const VTree& config) : Component(config) { enable_poll(config, 0); }
  void init() override { events.push_back("init " + name()); }
  void start() override {
    events.push_back("start " + name());
    Component::start();
  }
  void poll() override { ++polls; }
  void stop(StopStage stage) override {
    events.push_back("stop" + std::to_string(static_cast<int>(stage)) + " " + name());
    Component::stop(stage);
  }
  static inline std::vector<std::string> events;
  std::atomic<int> polls{0};
};
ZEL_REGISTER_NODE("recorder", Recorder);

}  // namespace

TEST(Lifecycle, InitThenStartInTreeOrderAndTheFourStopStagesInOrder) {
  Recorder::events.clear();
  LogCapture log;
  {
    auto root = FormatXML::instance().build(
        R"(<root><a type="recorder"><b type="recorder"/></a><c type="recorder"/></root>)");
    root->initialize();
  }
  EXPECT_EQ(Recorder::events, (std::vector<std::string>{
                                  "init a", "init b", "init c", "start a", "start b", "start c",
                                  "stop0 a", "stop0 b", "stop0 c", "stop1 a", "stop1 b", "stop1 c",
                                  "stop2 a", "stop2 b", "stop2 c", "stop3 a", "stop3 b", "stop3 c"}));
  int timed = 0;
  for (auto& t : log.texts())
    if (t.starts_with("stop") && t.find(" took ") != std::string::npos) ++timed;
  EXPECT_EQ(timed, 4);
}

TEST(Lifecycle, PollRunsOnTheContextAtItsRateAndEndsAtStop) {
  auto root = FormatXML::instance().build(R"(<root><r type="recorder"><poll rate="200"/></r></root>)");
  root->initialize();
  auto& r = static_cast<Recorder&>(*root->find_path("r"));
  EXPECT_TRUE(wait_until([&] { return r.polls >= 3; }));
  root->stop_all();
  int after_stop = r.polls;
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(r.polls, after_stop);
}

TEST(Lifecycle, PollRatesOutOfRangeAreRefusedAndAZeroPeriodNeverSpinsAContext) {
  LogCapture log;
  auto root = FormatXML::instance().build(
      R"(<root><still type="recorder"><poll rate="0"/></still><fast type="recorder"><poll rate="1e12"/></fast></root>)");
  root->initialize();
  auto& still = static_cast<Recorder&>(*root->find_path("still"));
  auto& fast = static_cast<Recorder&>(*root->find_path("fast"));
  // Beneath the settings, the context itself clamps a period that would spin.
  Context context("spin_guard");
  auto began = std::chrono::steady_clock::now();
  context.start_context();
  std::atomic<int> runs{0};
  context.every(std::chrono::nanoseconds(0), [&] { ++runs; });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  context.stop_context();
  auto lasted = std::chrono::steady_clock::now() - began;
  root->stop_all();
  EXPECT_TRUE(log.contains("Setting 'rate' of 'still/poll' refused: 0 is out of range"));
  EXPECT_TRUE(log.contains("Setting 'rate' of 'fast/poll' refused: 1e12 is out of range"));
  EXPECT_EQ(still.polls, 0);
  EXPECT_EQ(fast.polls, 0);
  // At the shortest period, 100 us, the time it ran (about 200 ms, longer on
  // a busy machine) holds at most one run per period; a spinning thread
  // makes millions.
  EXPECT_GT(runs, 0);
  EXPECT_LE(runs, lasted / std::chrono::microseconds(100) + 1);
  EXPECT_TRUE(log.contains("a period of 0 ns is out of range; the job runs every 100000 ns"));
}

TEST(Lifecycle, PulseCountsAtItsRate) {
  auto root = FormatXML::instance().build(R"(<root><pulse rate="100"/></root>)");
  root->initialize();
  auto& pulse = static_cast<Pulse&>(*root->find_path("pulse"));
  EXPECT_TRUE(wait_until([&] { return pulse.count().get() >= 3; }));
}
