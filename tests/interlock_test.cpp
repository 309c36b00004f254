// Interlocks, permits, permit commands and the interlock manager.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <future>
#include <limits>
#include <optional>
#include <random>
#include <thread>

#include "core/context.hpp"
#include "core/io/digital_interlock_io.hpp"
#include "core/io/interlock_manager.hpp"
#include "core/io/pending_trip_poller.hpp"
#include "core/io/permit_command_io.hpp"
#include "core/io/range_interlock_io.hpp"
#include "core/io/tolerance_interlock_io.hpp"
#include "core/root.hpp"
#include "core/write_path.hpp"
#include "log_capture.hpp"
#include "std/paths.hpp"
#include "temp_dir.hpp"
#include "test_tree.hpp"
#include "tree_access.hpp"
#include "wait_until.hpp"

namespace {

constexpr const char* kPermitSource = "src/core/io/permit_command_io";

std::vector<std::string> revocations(const LogCapture& log) {
  std::vector<std::string> out;
  for (auto& e : log.entries())
    if (e.source == kPermitSource && e.level == LogLevel::Event) out.push_back(e.text);
  return out;
}

// ---------------------------------------------------------------------------
// An independent transcription of the interlock evaluation, the three
// conditions, the permit and the permit command, driven by the same events
// as the real chain.

struct ModelLock {
  enum Kind { Range, Tolerance, Digital } kind = Range;
  std::string name;
  std::optional<double> lower_limit, upper_limit, lower_warning, upper_warning;
  std::optional<double> minimum, tolerance_limit, tolerance_warning;
  int polarity = 1;
  std::optional<double> duration;
  bool enabled = true;
  bool latching = false;
  // The watched values (range and digital use `first`).
  std::optional<double> first, second;
  std::optional<int> condition;
  uint64_t condition_since = 0;
  std::optional<int> state;

  int code() const {
    switch (kind) {
      case Range: {
        if (!first) return 0;
        double x = *first;
        if (!std::isfinite(x)) return 1;  // a failed sensor
        if (lower_limit && x < *lower_limit) return 1;
        if (upper_limit && x > *upper_limit) return 1;
        if (lower_warning && x < *lower_warning) return 2;
        if (upper_warning && x > *upper_warning) return 2;
        return 0;
      }
      case Tolerance: {
        double reference = first.value_or(0.0);
        double deviation = std::fabs(second.value_or(0.0) - reference);
        if (!std::isfinite(reference) || !std::isfinite(deviation)) return 1;
        if (minimum && !(std::fabs(reference) > *minimum)) return 0;
        if (tolerance_limit && deviation > std::fabs(reference * *tolerance_limit / 100)) return 1;
        if (!tolerance_warning) return 0;
        return deviation > std::fabs(reference * *tolerance_warning / 100) ? 2 : 0;
      }
      case Digital:
        if (!first) return 0;
        return (polarity != 0) == (*first != 0.0) ? 1 : 0;
    }
    return 0;
  }

  // Returns whether the state was assigned (listeners called).
  bool assign(int v) {
    bool notify = !state || *state != v;
    state = v;
    return notify;
  }

  bool evaluate(uint64_t now) {
    if (!enabled) return assign(0);
    int k = condition.value_or(0);
    int v = k;
    if (k == 1) {
      bool held_long_enough = !duration || static_cast<double>(now - condition_since) / 1e9 > *duration;
      if (!held_long_enough) {
        if (latching) return false;
        return assign(0);
      }
    }
    if (latching && (v == 0 || (state && *state != 0))) return false;
    return assign(v);
  }
};

struct Model {
  std::vector<ModelLock> locks;
  std::optional<bool> permit, user, gate, output;
  std::vector<std::string> logs;
  uint64_t now = 0;

  void permit_command() {
    bool granted = true;
    for (auto& l : locks)
      if (l.state == 1) granted = false;
    permit = granted;
    if (!output) return;
    if (!user) user = *output;
    output = granted && *user && !gate.value_or(false);
    if (!granted && *user) {
      user = false;
      std::string names;
      for (auto& l : locks)
        if (l.state == 1) names += (names.empty() ? ": " : ", ") + l.name;
      logs.push_back("machine permit permit revoked" + names);
    }
  }
  void lock_event(ModelLock& l) {
    if (l.evaluate(now)) permit_command();
  }
  void input_changed(ModelLock& l) {
    int k = l.code();
    if (!l.condition || *l.condition != k) {
      l.condition = k;
      l.condition_since = now;
    }
    lock_event(l);
  }
  // Sets a bool the permit command listens to; reacts when it notifies.
  void command(std::optional<bool>& target, bool v) {
    if (target && *target == v) return;
    target = v;
    permit_command();
  }
};

// The real chain: machine / permit (a PermitCommandIO) / lock0..lockN, each
// lock watching IOs of its own; the output outside the permit.
struct Chain {
  std::vector<std::unique_ptr<AnalogIO>> analogs;
  std::vector<std::unique_ptr<DigitalIO>> digitals;
  DigitalIO output{VTree("output")};
  // A manager of its own subtree: its enable_all reaches every lock.
  std::unique_ptr<InterlockManager> machine = std::make_unique<InterlockManager>(VTree("machine"));
  PermitCommandIO* permit = nullptr;
  std::vector<InterlockIO*> locks;
  // Per lock, the IOs its model values `first` and `second` mirror.
  std::vector<std::pair<IOBase*, IOBase*>> inputs;
};

// Keeps the thousands of revocation lines off the test output.
struct QuietStderr {
  QuietStderr() { Log::set_stderr(false); }
  ~QuietStderr() { Log::set_stderr(true); }
};

std::string text(double v) { return x2x::to_json(v); }

void configure_random_lock(std::mt19937& random, ModelLock& m, VTree& config) {
  auto chance = [&](double p) { return std::bernoulli_distribution(p)(random); };
  auto pick = [&](std::initializer_list<double> values) {
    return *(values.begin() + std::uniform_int_distribution<size_t>(0, values.size() - 1)(random));
  };
  auto maybe = [&](const char* key, std::optional<double>& slot, std::initializer_list<double> values) {
    if (!chance(0.5)) return;
    slot = pick(values);
    config.set(key, text(*slot));
  };
  m.kind = static_cast<ModelLock::Kind>(std::uniform_int_distribution<int>(0, 2)(random));
  switch (m.kind) {
    case ModelLock::Range:
      maybe("lower_limit", m.lower_limit, {-2, -1, 0.5});
      maybe("upper_limit", m.upper_limit, {1, 2});
      maybe("lower_warning", m.lower_warning, {-1, 0});
      maybe("upper_warning", m.upper_warning, {0, 1});
      break;
    case ModelLock::Tolerance:
      maybe("minimum", m.minimum, {0, 20});
      maybe("tolerance_limit", m.tolerance_limit, {10, 20});
      maybe("tolerance_warning", m.tolerance_warning, {5, 10});
      break;
    case ModelLock::Digital:
      m.polarity = chance(0.5) ? 1 : 0;
      config.set("polarity", std::to_string(m.polarity));
      break;
  }
  maybe("error_time_duration", m.duration, {0, 0.5, 1, 2});
  m.enabled = chance(0.8);
  m.latching = chance(0.3);
  config.set("enabled", m.enabled ? "true" : "false");
  config.set("latching", m.latching ? "true" : "false");
}

void build_chain(Chain& chain, std::mt19937& random, Model& model, size_t lock_count) {
  chain.permit = &chain.machine->add<PermitCommandIO>(VTree("permit"), chain.output);
  for (size_t i = 0; i < lock_count; ++i) {
    ModelLock m;
    m.name = "lock" + std::to_string(i);
    VTree config(m.name);
    configure_random_lock(random, m, config);
    std::unique_ptr<InterlockIO> lock;
    auto analog = [&] { return chain.analogs.emplace_back(std::make_unique<AnalogIO>(VTree("a"))).get(); };
    if (m.kind == ModelLock::Range) {
      auto* x = analog();
      lock = std::make_unique<RangeInterlockIO>(config, *x);
      chain.inputs.emplace_back(x, nullptr);
    } else if (m.kind == ModelLock::Tolerance) {
      auto* reference = analog();
      auto* value = analog();
      lock = std::make_unique<ToleranceInterlockIO>(config, *reference, *value);
      chain.inputs.emplace_back(reference, value);
    } else {
      auto* d = chain.digitals.emplace_back(std::make_unique<DigitalIO>(VTree("d"))).get();
      lock = std::make_unique<DigitalInterlockIO>(config, *d);
      chain.inputs.emplace_back(d, nullptr);
    }
    chain.locks.push_back(&chain.permit->adopt(std::move(lock)));
    model.locks.push_back(m);
  }
  chain.permit->init();
  chain.machine->init();
}

// Sets an input IO and its model mirror; the model reacts only when the IO
// notifies (a change, or the first assignment).
void set_input(Chain& chain, Model& model, size_t i, bool second, double v) {
  IOBase* io = second ? chain.inputs[i].second : chain.inputs[i].first;
  if (dynamic_cast<DigitalIO*>(io)) v = v != 0.0 ? 1.0 : 0.0;
  auto& slot = second ? model.locks[i].second : model.locks[i].first;
  bool notifies = !slot || *slot != v;
  slot = v;
  if (auto* a = dynamic_cast<AnalogIO*>(io)) a->set(v);
  else static_cast<DigitalIO*>(io)->set(v != 0.0);
  if (notifies) model.input_changed(model.locks[i]);
}

void expect_same(const Chain& chain, const Model& model, const LogCapture& log) {
  for (size_t i = 0; i < chain.locks.size(); ++i) {
    auto& real = *chain.locks[i];
    auto& m = model.locks[i];
    ASSERT_EQ(real.assigned(), m.state.has_value()) << m.name;
    if (m.state) {
      ASSERT_EQ(real.get(), *m.state) << m.name;
      ASSERT_EQ(real.is_error(), *m.state == 1);
      ASSERT_EQ(real.color(), *m.state == 0 ? "green" : *m.state == 2 ? "orange" : "red") << m.name;
    }
  }
  auto same = [](const auto& field, const std::optional<bool>& expected, const char* what) {
    ASSERT_EQ(field.assigned(), expected.has_value()) << what;
    if (expected) {
      ASSERT_EQ(field.get(), *expected) << what;
    }
  };
  same(chain.permit->value(), model.permit, "permit");
  same(chain.permit->user_command(), model.user, "user_command");
  same(chain.output.value(), model.output, "output");
  ASSERT_EQ(revocations(log), model.logs);
}

}  // namespace

// This pins the permit command as well: a running output adopted as the
// command, the gate holding the output off, a revocation withdrawing the
// command with its log line, a returning permit leaving the output off.
TEST(InterlockChain, FollowsTheAlgorithmOverRandomSequences) {
  LogCapture log;
  QuietStderr quiet;
  constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
  constexpr double kInf = std::numeric_limits<double>::infinity();
  const double analog_values[] = {-3, -2, -1.5, -1, 0, 1, 1.5, 2, 3, 10, 45, 50, 55, 55.1, 60, -50, kNaN, kInf, -kInf};
  const double seconds[] = {0.25, 0.5, 1, 2};
  for (unsigned seed = 1; seed <= 300; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    ManualClockScope time;
    log.clear();
    Model model;
    model.now = Clock::steady_ns();
    Chain chain;
    build_chain(chain, random, model, std::uniform_int_distribution<size_t>(1, 4)(random));
    PendingTripPoller poller(chain.locks);
    auto index = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(random); };
    auto coin = [&] { return std::bernoulli_distribution(0.5)(random); };
    auto set_flag = [&](DigitalIO& io, bool& flag, bool v, size_t i) {
      io.set(v);
      if (flag == v) return;
      flag = v;
      model.lock_event(model.locks[i]);
    };
    auto command = [&](Field<bool>& field, std::optional<bool>& slot, bool v) {
      field.set(v);
      model.command(slot, v);
    };
    for (int step = 0; step < 200; ++step) {
      size_t i = index(chain.locks.size());
      switch (index(12)) {
        case 0:
        case 1:
        case 2: {
          bool second = chain.inputs[i].second && coin();
          set_input(chain, model, i, second, analog_values[index(std::size(analog_values))]);
          break;
        }
        case 3:
          set_flag(chain.locks[i]->enabled(), model.locks[i].enabled, index(5) != 0, i);
          break;
        case 4:
          set_flag(chain.locks[i]->latching(), model.locks[i].latching, index(3) == 0, i);
          break;
        case 5: {
          double s = seconds[index(std::size(seconds))];
          time.clock.advance(s);
          model.now += static_cast<uint64_t>(s * 1e9);
          break;
        }
        case 6:
          poller.poll();
          // The poll re-evaluates the interlocks whose error waits out a duration.
          for (auto& l : model.locks)
            if (l.enabled && l.condition == 1 && l.duration) model.lock_event(l);
          break;
        case 7:
          command(chain.permit->user_command(), model.user, index(4) != 0);
          break;
        case 8:
          command(chain.permit->gate_command(), model.gate, index(4) == 0);
          break;
        case 9:
          command(chain.output.value(), model.output, coin());
          break;
        case 10:  // the start of the tree publishes the state from the inputs as they are
          chain.locks[i]->start();
          model.input_changed(model.locks[i]);
          break;
        case 11: {  // "Enable All" from outside assigns every lock each time, changed or not
          bool v = index(4) != 0;
          ASSERT_TRUE(WritePath::write_at(chain.machine->enable_all(), {}, v ? "true" : "false").ok());
          for (size_t k = 0; k < model.locks.size(); ++k) {
            if (model.locks[k].enabled == v) continue;
            model.locks[k].enabled = v;
            model.lock_event(model.locks[k]);
          }
          break;
        }
      }
      SCOPED_TRACE("step " + std::to_string(step));
      expect_same(chain, model, log);
      if (::testing::Test::HasFatalFailure()) return;
    }
  }
}

namespace {

// Runs `job` on the node's context (where its events belong) and waits.
void on_context(Node& node, std::function<void()> job) {
  std::promise<void> done;
  node.context()->post([&] {
    job();
    done.set_value();
  });
  done.get_future().wait();
}

}  // namespace

// The delay is measured on the steady clock, and an error that outlasts it
// trips with no further input, on the interlock's own context, by the timer
// its pending error armed: the manager's poll is slowed to once in 1000 s.
TEST(Interlock, PendingErrorTripsWhenItsDelayEndsWithoutFurtherInput) {
  auto root = build_tree(R"(<root>
      <rig type="ctx_comp">
        <x type="analog_io" value="0"/>
        <lock type="range_interlock_io" input="rig/x" upper_limit="1" error_time_duration="0.3"/>
      </rig>
    </root>)");
  root->initialize();
  auto& lock = at<RangeInterlockIO>(*root, "rig/lock");
  auto& manager = at<InterlockManager>(*root, "interlocks");
  ASSERT_TRUE(WritePath::write(*root, {{WriteSource::Http, "tester", Role::Expert}, "interlocks/poll/rate", "0.001"}).ok());
  ASSERT_TRUE(wait_until([&] { return lock.is_ok(); }));

  auto set_at = std::chrono::steady_clock::now();
  bool shows_ok = false;
  bool pending = false;
  uint64_t trips_at = 0, condition_at = 0;
  on_context(lock, [&] {
    at<AnalogIO>(*root, "rig/x").set(5);
    shows_ok = lock.is_ok();  // a pending error shows OK
    pending = lock.pending();
    trips_at = lock.trip_time().get();  // ... and when it will trip
    condition_at = lock.condition_stamp();
  });
  EXPECT_TRUE(shows_ok);
  EXPECT_TRUE(pending);
  EXPECT_EQ(trips_at, condition_at + 300000000u);
  ASSERT_TRUE(wait_until([&] { return lock.is_error(); }));
  EXPECT_EQ(lock.trip_time().get(), 0u) << "tripped: nothing pending";
  double delay = std::chrono::duration<double>(std::chrono::steady_clock::now() - set_at).count();
  EXPECT_GT(delay, 0.3);
  EXPECT_LT(delay, 0.3 + 0.5) << "slack for a loaded machine, not a poll period";
  EXPECT_TRUE(wait_until([&] { return manager.summary().get() == "error"; }));
  EXPECT_EQ(manager.summary().color(), "red");
}

TEST(InterlockManager, EnableAllAndSummaryFollowEveryInterlock) {
  std::string xml = "<root><x type=\"analog_io\" value=\"5\"/>";
  for (int i = 0; i < 6; ++i)
    xml += "<lock" + std::to_string(i) + " type=\"range_interlock_io\" input=\"x\" " +
           (i % 2 ? "upper_warning=\"1\"" : "upper_limit=\"1\"") + " enabled=\"false\"/>";
  auto root = build_tree(xml + "</root>");
  root->initialize();
  auto& manager = at<InterlockManager>(*root, "interlocks");
  ASSERT_EQ(manager.interlocks().size(), 6u);
  auto update = [&] { on_context(manager, [&] { manager.update_summary(); }); };
  update();
  EXPECT_EQ(manager.summary().get(), "ok");
  EXPECT_EQ(manager.summary().color(), "green");
  EXPECT_EQ(manager.message().get(), "All interlocks OK.");

  on_context(manager, [&] { manager.enable_all().set(true); });
  for (auto* lock : manager.interlocks()) EXPECT_TRUE(lock->enabled().get());
  EXPECT_TRUE(manager.interlocks()[0]->is_error());
  EXPECT_TRUE(manager.interlocks()[1]->is_warning());
  update();
  EXPECT_EQ(manager.summary().get(), "error");
  EXPECT_EQ(manager.summary().color(), "red");
  EXPECT_EQ(manager.message().get(), "3 in error, first lock0; 3 in warning, first lock1.");

  for (int i = 0; i < 6; i += 2) on_context(manager, [&] { manager.interlocks()[i]->enabled().set(false); });
  update();
  EXPECT_EQ(manager.summary().get(), "warning");
  EXPECT_EQ(manager.summary().color(), "orange");

  on_context(manager, [&] { manager.enable_all().set(false); });
  for (auto* lock : manager.interlocks()) EXPECT_TRUE(lock->is_ok());
  EXPECT_TRUE(wait_until([&] { return manager.message().get() == "All interlocks OK."; }));
}

// The root's manager gathers interlocks configured anywhere; a manager placed
// in a subtree gathers its own.
TEST(InterlockManager, RootManagerCollectsTheWholeTreeInTreeOrder) {
  auto root = build_tree(R"(<root>
      <interlocks><early type="interlock_io"/></interlocks>
      <a type="component"><p type="permit_io"><one type="interlock_io"/></p></a>
      <b type="component">
        <local type="interlock_manager"/>
        <two type="interlock_io"/>
        <c type="component"><three type="interlock_io"/></c>
      </b>
    </root>)");
  root->initialize();
  auto paths = [](const InterlockManager& m) {
    std::vector<std::string> out;
    for (auto* l : m.interlocks()) out.push_back(l->path());
    return out;
  };
  EXPECT_EQ(paths(at<InterlockManager>(*root, "interlocks")),
            (std::vector<std::string>{"interlocks/early", "a/p/one", "b/two", "b/c/three"}));
  EXPECT_TRUE(at<InterlockManager>(*root, "interlocks").manages_whole_tree());
  EXPECT_FALSE(at<InterlockManager>(*root, "b/local").manages_whole_tree());
  EXPECT_TRUE(paths(at<InterlockManager>(*root, "b/local")).empty());
}

TEST(InterlockManager, ReportCsvListsInterlocksWithRfc4180Quoting) {
  auto root = build_tree(R"(<root>
      <pump type="component" label="Pump, main">
        <hot type="interlock_io" label="Too &quot;hot&quot;" detail="line one&#10;line two"/>
        <cold type="interlock_io" label="Cold"/>
      </pump>
    </root>)");
  root->initialize();
  auto& manager = at<InterlockManager>(*root, "interlocks");
  auto& button = dynamic_cast<ButtonField&>(*manager.field("generate_report_csv"));
  EXPECT_EQ(button.attributes()->label, "Generate");
  std::string file = Paths::data_root() + "/reports/interlock_report.csv";
  on_context(manager, [&] { button.press(); });
  EXPECT_EQ(file_text(file),
            "Path,Parent,Label,Detail\r\n"
            "pump/hot,pump,\"Too \"\"hot\"\"\",\"line one\nline two\"\r\n"
            "pump/cold,pump,Cold,A generic interlock.\r\n");

  std::filesystem::remove_all(Paths::data_root() + "/reports");
  std::ofstream(Paths::data_root() + "/reports") << "a file where the folder belongs";
  LogCapture log;
  EXPECT_FALSE(manager.generate_report_csv());
  ASSERT_EQ(log.entries().size(), 1u);
  EXPECT_TRUE(log.entries()[0].text.starts_with("Error: Can't create the reports folder '" + Paths::data_root() + "/reports'"));
}

TEST(InterlockManager, ReportOfNoInterlocksIsTheHeaderAndTheSummaryOk) {
  auto root = build_tree("<root/>");
  root->initialize();
  auto& manager = at<InterlockManager>(*root, "interlocks");
  EXPECT_EQ(manager.summary().get(), "ok");
  ASSERT_TRUE(manager.generate_report_csv());
  EXPECT_EQ(file_text(Paths::data_root() + "/reports/interlock_report.csv"), "Path,Parent,Label,Detail\r\n");
}

TEST(SafetyChainConfiguration, ExampleTripsRevokesAndWaitsForANewCommand) {
  auto root = build_tree(file_text(std::string(ZEL_SOURCE_DIR) + "/examples/safety_chain.xml"));
  root->initialize();
  auto& pressure = at<AnalogIO>(*root, "chamber/pressure");
  auto& hv = at<DigitalIO>(*root, "chamber/hv_enable");
  auto& permit = at<PermitCommandIO>(*root, "chamber/hv_permit");
  auto& vacuum = at<RangeInterlockIO>(*root, "chamber/hv_permit/vacuum");
  EXPECT_EQ(vacuum.enabled().store(), "interlocks");
  EXPECT_EQ(vacuum.error_time_duration().get(), 2.0);
  LogCapture log;
  on_context(permit, [&] { permit.user_command().set(true); });
  EXPECT_TRUE(hv.get());

  on_context(vacuum, [&] {
    vacuum.error_time_duration().set(0.05);
    pressure.set(1e-3);
  });
  ASSERT_TRUE(wait_until([&] { return !hv.get(); }));
  on_context(permit, [] {});  // the trip's evaluation has run to its end
  EXPECT_TRUE(vacuum.is_error());
  EXPECT_FALSE(permit.user_command().get());
  EXPECT_EQ(revocations(log), std::vector<std::string>{"chamber hv_permit permit revoked: vacuum"});

  on_context(vacuum, [&] { pressure.set(1e-6); });
  EXPECT_TRUE(permit.get());
  EXPECT_FALSE(hv.get());
}

TEST(SafetyChainConfiguration, EveryVariantFindsItsIOsByPath) {
  auto root = build_tree(R"(<root>
      <io type="component">
        <door type="digital_io" value="true"/>
        <set type="analog_io" value="50"/>
        <read type="analog_io" value="50"/>
        <lamp type="digital_io" value="true"/>
      </io>
      <run type="permit_command_io" output="io/lamp">
        <door_open type="digital_interlock_io" input="io/door" polarity="0"/>
        <current type="tolerance_interlock_io" reference="io/set" input="io/read" tolerance_limit="10"
                 tolerance_warning="5"/>
      </run>
    </root>)");
  ASSERT_EQ(root->children().size(), 12u);
  root->initialize();
  auto& door = at<DigitalInterlockIO>(*root, "run/door_open");
  auto& current = at<ToleranceInterlockIO>(*root, "run/current");
  auto& lamp = at<DigitalIO>(*root, "io/lamp");
  auto& permit = at<PermitCommandIO>(*root, "run");
  EXPECT_TRUE(door.is_ok());
  EXPECT_TRUE(current.is_ok());
  EXPECT_TRUE(lamp.get());
  on_context(permit, [&] { at<AnalogIO>(*root, "io/read").set(53); });
  EXPECT_TRUE(current.is_warning());
  EXPECT_TRUE(lamp.get());
  on_context(permit, [&] { at<DigitalIO>(*root, "io/door").set(false); });
  EXPECT_TRUE(door.is_error());
  EXPECT_FALSE(lamp.get());
}

// A missing path setting drops the element like any construction failure; a
// path that resolves to nothing, or to the wrong kind of IO, is reported when
// the tree is complete and keeps the interlock tripped so its permit stays
// revoked.
TEST(SafetyChainConfiguration, BadPathsAreBuildErrorsThatKeepTheChainTripped) {
  Root::reset_configuration_errors();
  LogCapture log;
  auto root = build_tree(R"(<root>
      <x type="analog_io" value="0"/>
      <d type="digital_io" value="true"/>
      <run type="permit_command_io" output="x">
        <typo type="range_interlock_io" input="nowhere/x" upper_limit="1"/>
      </run>
      <other type="permit_io">
        <kind type="range_interlock_io" input="d" upper_limit="1"/>
        <fine type="range_interlock_io" input="x" upper_limit="1"/>
      </other>
      <missing type="digital_interlock_io"/>
    </root>)");
  EXPECT_EQ(root->find_path("missing"), nullptr);
  root->initialize();
  EXPECT_EQ(Root::configuration_errors(), 4u);
  EXPECT_TRUE(log.contains("Error: Failed to build 'missing' (digital_interlock_io): 'missing' needs the setting "
                           "'input': the path of an IO"));
  EXPECT_TRUE(log.contains("Error: Failed to build 'run' (PermitCommandIO): 'run' setting 'output': 'x' is not an "
                           "IO with a bool value"));
  EXPECT_TRUE(log.contains("Error: Failed to build 'run/typo' (RangeInterlockIO): 'run/typo' setting 'input': no "
                           "node at 'nowhere/x'"));
  EXPECT_TRUE(log.contains("Error: Failed to build 'other/kind' (RangeInterlockIO): 'other/kind' setting 'input': "
                           "'d' is not an IO with a double value"));
  EXPECT_TRUE(at<InterlockIO>(*root, "run/typo").is_error());
  EXPECT_TRUE(at<InterlockIO>(*root, "other/kind").is_error());
  EXPECT_TRUE(at<InterlockIO>(*root, "other/fine").is_ok());
  EXPECT_FALSE(at<PermitIO>(*root, "other").get());
  EXPECT_FALSE(at<PermitCommandIO>(*root, "run").get());
  EXPECT_EQ(at<PermitCommandIO>(*root, "run").output(), nullptr);
}
