// The radial distortion model through the loaded module, as a host drives it: Convert
// per point, and the fit from straight lines (k1, k2 and the centre, the flags zeltrim
// uses by default) on lines x points of synthetic bent lines, with the cost per point so
// the growth with the number of points reads off the table. Runs from the build folder,
// where _binlinux/ holds the module and its peers.
#include <benchmark/benchmark.h>

#include <vector>

#include "bench/BenchModule.h"
#include "tests/module/RadialLines.h"

namespace {

radial_lines::Model Truth() {
  radial_lines::Model m;
  m.k1 = -0.15, m.k2 = 0.06, m.x0 = 0.52, m.y0 = 0.48;
  return m;
}

SmartPtr<ISimpleCollection> LineSets(ModuleHost& host, const std::vector<std::vector<radial_lines::Pixel>>& lines) {
  SmartPtr<ICreatableSimpleCollection> sets = host.CreateHost<ICreatableSimpleCollection>(L"SimpleCollection");
  for (const auto& line : lines) {
    SmartPtr<IPointsCollection> points = host.CreateHost<IPointsCollection>(L"PointsCollection");
    for (const auto& p : line) points->AddPoint(p.x, p.y, 0);
    sets->Add(points);
  }
  return SmartPtr<ISimpleCollection>(sets.get());
}

void BM_RadialConvert(benchmark::State& state) {
  SmartPtr<ICalibrationDistortionRadial> model =
      Host().Create<ICalibrationDistortionRadial>(L"CalibrationDistortionRadial");
  if (!model) return state.SkipWithError("the module or its peers are missing");
  model->StraightLinesNeedtoBeStraight(LineSets(Host(), radial_lines::BentLines(Truth(), 10, 20)),
                                       RADIAL_FIT_K1 | RADIAL_FIT_K2 | RADIAL_FIT_CENTRE);
  std::vector<radial_lines::Pixel> points;
  for (int i = 0; i < 1000; ++i) points.push_back({13.0 + (i * 37) % 990, 7.0 + (i * 53) % 985});
  for (auto _ : state) {
    for (const auto& p : points) {
      double x = p.x, y = p.y, z = 0;
      model->Convert(&x, &y, &z);
      benchmark::DoNotOptimize(x);
      benchmark::DoNotOptimize(y);
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(points.size()));
}
BENCHMARK(BM_RadialConvert);

// Arguments: lines, points per line. The lines are made once; each iteration fits anew.
void BM_RadialFit(benchmark::State& state) {
  const int lines = static_cast<int>(state.range(0)), points = static_cast<int>(state.range(1));
  SmartPtr<ISimpleCollection> sets = LineSets(Host(), radial_lines::BentLines(Truth(), lines, points));
  SmartPtr<ICalibrationDistortionRadial> model =
      Host().Create<ICalibrationDistortionRadial>(L"CalibrationDistortionRadial");
  if (!model) return state.SkipWithError("the module or its peers are missing");
  for (auto _ : state) model->StraightLinesNeedtoBeStraight(sets, RADIAL_FIT_K1 | RADIAL_FIT_K2 | RADIAL_FIT_CENTRE);
  double lower = 0, upper = 0, sd = 0;
  QueryAs<ITransformFitErrors>(model)->GetFitErrors(&lower, &upper, &sd);
  state.counters["residual_sd_px"] = sd;
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(lines) * points);
}
BENCHMARK(BM_RadialFit)->Args({10, 20})->Args({20, 25})->Args({30, 40})->Args({50, 50})->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
