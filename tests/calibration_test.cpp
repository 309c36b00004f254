// Calibration polynomials: the least-squares fit, the measurement model and
// its buttons on a channel, the active calibration and its store.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>

#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

#include "core/write_path.hpp"
#include "core/io/calibration_poly.hpp"
#include "core/io/poly_fit.hpp"
#include "core/root.hpp"
#include "log_capture.hpp"
#include "std/paths.hpp"
#include "temp_dir.hpp"
#include "test_tree.hpp"
#include "tree_access.hpp"
#include "wait_until.hpp"

namespace {

using Model = CalibrationPoly::Model;

std::vector<double> values_of(const PolyIO<4>& poly) {
  auto v = poly.values();
  return {v.begin(), v.end()};
}

// Points (x[i], f(x[i])): measured x, expected f(x).
template <class F>
void set_points(Model& model, const std::vector<double>& x, F f) {
  for (int i = 0; i < Model::points(); ++i) {
    model.point(i).measured().set(x[i]);
    model.point(i).expected().set(f(x[i]));
  }
}

}  // namespace

TEST(PolyFit, RefusesMismatchedOrEmptyInputButNotASingularSystem) {
  auto error_of = [](std::vector<double> x, std::vector<double> y) -> std::string {
    try {
      poly_fit(x, y, 1);
    } catch (const std::runtime_error& e) {
      return e.what();
    }
    return "no error";
  };
  EXPECT_EQ(error_of({1, 2, 3}, {1, 2}), "The size of x & y arrays are different");
  EXPECT_EQ(error_of({}, {}), "The size of x or y arrays is 0");
  // All x equal: a zero pivot, answered with a non-finite gain, not an error.
  std::vector<double> x{2, 2, 2}, y{1, 2, 3};
  auto c = poly_fit(x, y, 1);
  ASSERT_EQ(c.size(), 2u);
  EXPECT_FALSE(std::isfinite(c[1]));
}

TEST(PolyFit, SignedPivotKeepsThePointCountOverALargeNegativeSum) {
  // Column 0 holds the point count 7 and the sum of x, -3465. The signed
  // comparison keeps the count as pivot and recovers the line exactly;
  // pivoting on the largest magnitude gives an offset of -2.9999999999978497.
  std::vector<double> x{-683, -611, -536, -525, -452, -343, -315};
  std::vector<double> y;
  for (double v : x) y.push_back(-3 - 3 * v);
  EXPECT_EQ(poly_fit(x, y, 1), (std::vector<double>{-3, -3}));
}

TEST(PolyFit, AgreesWithNumpyPolyfitOnWellConditionedData) {
  std::mt19937_64 random(20240611);
  std::uniform_real_distribution<double> position(-2.0, 3.0), magnitude(0.5, 2.0), noise(-0.01, 0.01);
  std::vector<std::vector<double>> ours;
  std::string sets;  // a Python list of (order, x, y)
  for (int set = 0; set < 30; ++set) {
    std::size_t order = 1 + set % 3;
    std::vector<double> c(order + 1), x(7), y(7);
    for (auto& k : c) k = magnitude(random) * (random() % 2 ? 1 : -1);
    for (int i = 0; i < 7; ++i) {
      x[i] = position(random);
      y[i] = noise(random);
      for (std::size_t k = 0; k <= order; ++k) y[i] += c[k] * std::pow(x[i], k);
    }
    ours.push_back(poly_fit(x, y, order));
    sets += fmt::format("({},[{}],[{}]),", order, fmt::join(x, ","), fmt::join(y, ","));
  }
  std::string script = "import numpy\nfor n, x, y in [" + sets +
                       "]:\n    print(*(repr(float(c)) for c in numpy.polyfit(x, y, n)[::-1]))\n";
  // Debian's interpreter, the one python3-numpy installs for.
  FILE* pipe = popen(("/usr/bin/python3 -c '" + script + "'").c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  for (std::size_t set = 0; set < ours.size(); ++set) {
    for (std::size_t k = 0; k < ours[set].size(); ++k) {
      double reference = NAN;
      ASSERT_EQ(fscanf(pipe, "%lf", &reference), 1) << "set " << set;
      EXPECT_LE(std::abs(ours[set][k] - reference), 1e-9 * std::abs(reference)) << "set " << set << " c" << k;
    }
  }
  EXPECT_EQ(pclose(pipe), 0);
}

TEST(CalibrationModel, FitsTheLineAndAnExactCubicFromItsPoints) {
  auto root = build_tree(R"(<root><cal type="calibration_poly"/></root>)");
  root->initialize();
  auto& model = at<CalibrationPoly>(*root, "cal").model();
  set_points(model, {-3, -1, 0, 0.5, 2, 4, 7}, [](double x) { return 2 * x + 1; });
  EXPECT_FALSE(model.fit_failed().get());
  EXPECT_EQ(values_of(model.fit_results()), (std::vector<double>{1, 2, 0, 0}));

  ASSERT_TRUE(WritePath::write_at(model.order(), {}, R"("cubic")").ok());
  set_points(model, {-3, -1, 0, 0.5, 2, 4, 7}, [](double x) { return 0.5 - 1.25 * x + 0.75 * x * x + 0.125 * x * x * x; });
  auto c = values_of(model.fit_results());
  std::vector<double> exact{0.5, -1.25, 0.75, 0.125};
  for (int k = 0; k < 4; ++k) EXPECT_NEAR(c[k], exact[k], 1e-9 * std::abs(exact[k])) << "c" << k;
}

TEST(CalibrationModel, UnmeasuredPointFailsTheFitAndKeepsEarlierResults) {
  auto root = build_tree(R"(<root><cal type="calibration_poly"/></root>)");
  root->initialize();
  auto& model = at<CalibrationPoly>(*root, "cal").model();
  EXPECT_TRUE(model.fit_failed().get());  // nothing measured yet
  std::vector<double> earlier{5, 6, 7, 8};
  for (int k = 0; k < 4; ++k) model.fit_results()[k].set(earlier[k]);

  for (int i = 0; i < Model::points(); ++i) {
    model.point(i).expected().set(i);
    if (i != 3) model.point(i).measured().set(i);
  }
  EXPECT_FALSE(model.fit());
  EXPECT_TRUE(model.fit_failed().get());
  EXPECT_EQ(model.color(), "red");
  EXPECT_EQ(values_of(model.fit_results()), earlier);

  model.point(3).measured().set(3);  // the last value in: the fit follows at once
  EXPECT_FALSE(model.fit_failed().get());
  EXPECT_EQ(model.color(), "green");
  EXPECT_EQ(values_of(model.fit_results()), (std::vector<double>{0, 1, 0, 0}));
}

TEST(CalibrationModel, FitModeOffersItsChoicesAndRefusesOthers) {
  auto root = build_tree(R"(<root><cal type="calibration_poly" order="quad"/></root>)");
  auto& order = at<CalibrationPoly>(*root, "cal").model().order();
  EXPECT_EQ(order.get(), "quad");
  EXPECT_EQ(at<CalibrationPoly>(*root, "cal").model().fit_order(), 2u);
  EXPECT_EQ(order.attributes()->label, "Fit Mode");
  using Choices = ChoiceField::Choices;
  EXPECT_EQ(order.attributes()->choices, (Choices{{"linear", "Linear"}, {"quad", "Quadratic"}, {"cubic", "Cubic"}}));

  LogCapture log;
  EXPECT_EQ(WritePath::write_at(order, {}, R"("quintic")").status, WriteStatus::BadValue);
  EXPECT_FALSE(order.read_json(R"("Linear")"));  // a label is not a value
  EXPECT_EQ(order.get(), "quad");
  EXPECT_TRUE(log.contains(R"("quintic" is not one of its choices)"));

  Root::reset_configuration_errors();
  auto bad = build_tree(R"(<root><cal type="calibration_poly" order="quartic"/></root>)");
  EXPECT_EQ(bad->find_path("cal"), nullptr);
  EXPECT_EQ(Root::configuration_errors(), 1u);
  EXPECT_TRUE(log.contains("'order'") && log.contains("'quartic'"));
}

TEST(CalibrationButtons, CollectCopiesTheReadingAndCommandDrivesTheOutput) {
  auto root = build_tree(R"(<root>
      <adc type="analog_io"/><dac type="analog_io"/>
      <in type="calibration_poly" channel="adc"/>
      <out type="calibration_poly" channel="adc" output="dac"/>
      <lost type="calibration_poly" channel="nowhere"/>
    </root>)");
  LogCapture log;
  root->initialize();
  EXPECT_TRUE(log.contains("Error: Calibration channel 'nowhere' not found for lost"));
  auto& adc = at<AnalogIO>(*root, "adc");
  auto& dac = at<AnalogIO>(*root, "dac");

  root->set_field_as_user("op", "in/poly_model/model/p0/collect_button", "true");
  ASSERT_TRUE(wait_until([&] { return log.contains("Error: Channel adc has no reading to collect for in/poly_model"); }));
  EXPECT_FALSE(at<AnalogIO>(*root, "in/poly_model/model/p0/measured").assigned());

  adc.set(0.731);
  root->set_field_as_user("op", "in/poly_model/model/p0/collect_button", "true");
  auto& measured = at<AnalogIO>(*root, "in/poly_model/model/p0/measured");
  ASSERT_TRUE(wait_until([&] { return measured.assigned(); }));
  EXPECT_EQ(measured.get(), 0.731);

  root->set_field_as_user("op", "out/poly_model/model/p2/expected", "2.5");
  root->set_field_as_user("op", "out/poly_model/model/p2/command_button", "true");
  ASSERT_TRUE(wait_until([&] { return dac.get() == 2.5; }));

  log.clear();
  root->set_field_as_user("op", "in/poly_model/model/p2/command_button", "true");
  ASSERT_TRUE(wait_until([&] { return log.contains("Error: No output attached to in/poly_model"); }));
}

TEST(CalibrationButtons, CollectAllStepsTheOutputThroughEveryPointAndTheCopiedFitFollowsTheChannel) {
  std::string points;
  for (int i = 0; i < 7; ++i) points += fmt::format(R"(<p{0}><expected value="{0}"/></p{0}>)", i);
  auto root = build_tree(R"(<root><adc type="analog_io"/><dac type="analog_io"/>
      <cal type="calibration_poly" channel="adc" output="dac" settle_time="0.005">
        <poly_model><model>)" + points + R"(</model></poly_model></cal></root>)");
  auto& adc = at<AnalogIO>(*root, "adc");
  auto& dac = at<AnalogIO>(*root, "dac");
  std::vector<double> commanded;
  dac.on_change([&] {  // the hardware: read-back = command / 2 - 0.25
    commanded.push_back(dac.get());
    adc.set(dac.get() / 2 - 0.25);
  });
  root->initialize();
  auto& cal = at<CalibrationPoly>(*root, "cal");
  auto& model = cal.model();

  root->set_field_as_user("op", "cal/poly_model/collect_all_button", "true");
  ASSERT_TRUE(wait_until([&] { return !model.measuring() && !model.fit_failed().get(); }));
  EXPECT_EQ(commanded, (std::vector<double>{0, 1, 2, 3, 4, 5, 6}));
  for (int i = 0; i < 7; ++i) EXPECT_EQ(model.point(i).measured().get(), i / 2.0 - 0.25) << i;
  auto fit = values_of(model.fit_results());
  EXPECT_NEAR(fit[0], 0.5, 1e-12);
  EXPECT_NEAR(fit[1], 2.0, 1e-12);

  EXPECT_EQ(cal.calibrated().get(), cal.evaluate(adc.get()));  // the identity so far
  EXPECT_EQ(cal.calibrated().get(), adc.get());
  root->set_field_as_user("op", "cal/copy_fit_button", "true");
  ASSERT_TRUE(wait_until([&] { return cal[1].get() != 1.0; }));
  EXPECT_EQ(values_of(cal), fit);
  adc.set(1.25);
  EXPECT_NEAR(cal.calibrated().get(), 3.0, 1e-12);
}

TEST(CalibrationPoly, CopyFitAsksFirstAndRefusesMissingOrNonFiniteResults) {
  auto root = build_tree(R"(<root><adc type="analog_io" value="2"/><cal type="calibration_poly" channel="adc"/></root>)");
  root->initialize();
  auto& cal = at<CalibrationPoly>(*root, "cal");
  auto& button = at<ButtonField>(*root, "cal/copy_fit_button");
  ASSERT_NE(button.attributes(), nullptr);
  EXPECT_EQ(button.attributes()->label, "Copy Fit Results to Active Calibration");
  EXPECT_EQ(button.attributes()->detail, "Coppies the fit results into the active calibration settings");
  EXPECT_TRUE(button.attributes()->confirm);
  EXPECT_EQ(cal.extra_attribute("confirm"), "true");
  EXPECT_NE(cal.render_html().find(">Calibrate<"), std::string::npos);

  LogCapture log;
  EXPECT_FALSE(cal.copy_fit());
  EXPECT_TRUE(log.contains("Error: No fit results to copy for cal"));
  set_points(cal.model(), {3, 3, 3, 3, 3, 3, 3}, [](double x) { return x; });  // a zero pivot
  EXPECT_TRUE(cal.model().fit_failed().get()) << "a solution that is not finite is a failed fit";
  EXPECT_EQ(cal.model().color(), "red");
  EXPECT_FALSE(cal.copy_fit());
  EXPECT_TRUE(log.contains("Error: Fit results of cal are not finite; the active calibration is kept"));
  EXPECT_EQ(values_of(cal), (std::vector<double>{0, 1, 0, 0}));
  EXPECT_EQ(cal.calibrated().get(), 2.0);
}

TEST(CalibrationStore, CopiedFitSurvivesARestartThroughTheCalibrationStore) {
  TempDir dir;
  Paths::set_data_root(dir.path().string());
  std::filesystem::create_directories(Paths::config_dir());
  const std::string xml = R"(<root><adc type="analog_io"/><cal type="calibration_poly" channel="adc" order="quad"/></root>)";
  std::vector<double> copied;
  {
    auto root = build_tree(xml);
    root->initialize();
    auto& cal = at<CalibrationPoly>(*root, "cal");
    set_points(cal.model(), {-2, -1, 0, 1, 2, 3, 5}, [](double x) { return 1 + 0.5 * x - 0.25 * x * x; });
    ASSERT_TRUE(cal.copy_fit());
    copied = values_of(cal);
  }  // the store manager writes pending changes at shutdown
  auto stored = nlohmann::json::parse(std::ifstream(Paths::store_file("calibration")));
  EXPECT_EQ(stored.size(), 4u + 14u + 1u);  // the coefficients, the points and the fit mode
  EXPECT_EQ(stored["cal/gain"], copied[1]);
  EXPECT_EQ(stored["cal/poly_model/order"], "quad");
  EXPECT_EQ(stored["cal/poly_model/model/p6/measured"], 5.0);
  EXPECT_FALSE(stored.contains("cal/poly_model/fit_results/gain"));

  // The stored fit mode wins over the configured one.
  auto root = build_tree(R"(<root><adc type="analog_io"/><cal type="calibration_poly" channel="adc" order="linear"/></root>)");
  root->initialize();
  auto& cal = at<CalibrationPoly>(*root, "cal");
  EXPECT_EQ(values_of(cal), copied);
  EXPECT_EQ(cal.model().order().get(), "quad");
  EXPECT_EQ(values_of(cal.model().fit_results()), copied);  // the restored points fit again
  at<AnalogIO>(*root, "adc").set(2);
  EXPECT_EQ(cal.calibrated().get(), cal.evaluate(2));
  EXPECT_NEAR(cal.calibrated().get(), 1.0, 1e-12);
}
