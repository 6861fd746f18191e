// ICalibration::Convert of CalibrationBestFit through the loaded module on 1,000,000
// points, the figure bench/python_convert_bench.py sets the Python extension against: the
// same plane homography (fitted from the same 10 x 10 grid) converting points row by row.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "bench/BenchModule.h"
#include "tools/zeltrim/Tasks.h"

namespace {

// The grid and its image under a known homography; python_convert_bench.py builds the same.
void GridPairs(std::vector<Point3>* source, std::vector<Point3>* target) {
  for (int i = 0; i < 10; ++i)
    for (int j = 0; j < 10; ++j) {
      const double x = 100.0 * i - 450, y = 100.0 * j - 450;
      const double w = 1e-4 * x - 2e-4 * y + 1;
      source->push_back({x, y, 0});
      target->push_back({(1.1 * x + 0.2 * y + 30) / w, (-0.1 * x + 0.9 * y - 20) / w, 0});
    }
}

void ConvertMillion(benchmark::State& state) {
  std::vector<Point3> source, target;
  GridPairs(&source, &target);
  SmartPtr<ICalibrationBestFit> fitted;
  TaskError error;
  if (!FitPoints(Host(), source, target, 0, &fitted, &error)) {
    state.SkipWithError(error.message.c_str());
    return;
  }
  SmartPtr<ICalibration> calibration = QueryAs<ICalibration>(fitted);
  const size_t n = 1000000;
  std::vector<double> points(2 * n), out(2 * n);
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> coordinate(-500, 500);
  for (double& v : points) v = coordinate(rng);
  for (auto _ : state) {
    // As the extension does: read (x, y), convert with z = 0, write (x, y) to another array.
    for (size_t i = 0; i < n; ++i) {
      double x = points[2 * i], y = points[2 * i + 1], z = 0;
      calibration->Convert(&x, &y, &z);
      out[2 * i] = x;
      out[2 * i + 1] = y;
    }
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n));
}

}  // namespace

BENCHMARK(ConvertMillion)->Name("convert/1000000/module")->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
