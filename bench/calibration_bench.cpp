// The calibration fit: the least-squares fit alone and the model's whole fit
// (points read from their IOs, results written), and the evaluation of the
// active polynomial that every calibrated reading costs.
#include <benchmark/benchmark.h>

#include "core/io/calibration_poly.hpp"
#include "core/io/poly_fit.hpp"

namespace {

const std::vector<double> kX{-3, -1.5, 0, 0.5, 2, 4, 7};

std::vector<double> cubic_of(const std::vector<double>& x) {
  std::vector<double> y;
  for (double v : x) y.push_back(0.5 - 1.25 * v + 0.75 * v * v + 0.125 * v * v * v + 0.001 * v * v * v * v);
  return y;
}

void BM_PolyFitSevenPoints(benchmark::State& state) {
  auto y = cubic_of(kX);
  auto order = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(poly_fit(kX, y, order));
}
BENCHMARK(BM_PolyFitSevenPoints)->Arg(1)->Arg(3);

void BM_CalibrationModelFitCubic(benchmark::State& state) {
  VTree config("cal");
  config.set("order", "cubic");
  auto cal = NodeFactory::make<CalibrationPoly>(config);
  auto& model = cal->model();
  auto y = cubic_of(kX);
  for (int i = 0; i < 7; ++i) {
    model.point(i).measured().set(kX[i]);
    model.point(i).expected().set(y[i]);
  }
  for (auto _ : state) benchmark::DoNotOptimize(model.fit());
}
BENCHMARK(BM_CalibrationModelFitCubic);

void BM_CalibrationEvaluate(benchmark::State& state) {
  auto cal = NodeFactory::make<CalibrationPoly>(VTree("cal"));
  double x = 0.0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(cal->evaluate(x));
    x += 0.5;
  }
}
BENCHMARK(BM_CalibrationEvaluate);

}  // namespace
