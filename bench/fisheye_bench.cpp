// Speed of the map a user builds with CalibrationFisheye: Revert for every pixel of a
// 1920 x 1080 perspective picture, through the loaded module as a host calls it, into two
// float maps (the form a resampler reads). Heap allocations per map are counted (operator
// new is replaced in this binary). Where OpenCV is present, cv::fisheye::
// initUndistortRectifyMap builds the same map for the equivalent camera in this binary:
// the linear branch is the equidistant model with no distortion, the perspective camera
// has f = W / (2 tan(FOV / 2)) and principal point (W / 2, H / 2 - 1), the fisheye camera
// f = radius / half field and principal point the fisheye centre. Its run reports the
// largest difference between the two maps; the ratio closes the output. Runs from the
// build folder, where _binlinux/ holds the module and its peers.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <new>
#include <vector>

#include "bench/RatioReporter.h"
#include "bench/BenchModule.h"
#include "bench/CountedAllocations.h"

#ifdef ZELTRIM_HAVE_OPENCV
#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#endif

namespace {

constexpr int kWidth = 1920, kHeight = 1080;
constexpr double kPerspectiveFOV = 100;  // degrees, a whole number as the object keeps it
constexpr double kFisheyeFOV = 190;      // degrees
constexpr double kCentreX = 1296, kCentreY = 972, kRadiusX = 1000, kRadiusY = 990;
constexpr double kPi = 3.141592653589793;


SmartPtr<ICalibrationFisheye> Fisheye() {
  ModuleHost& host = Host();
  SmartPtr<ICalibrationFisheye> fisheye = host.Create<ICalibrationFisheye>(L"CalibrationFisheye");
  SmartPtr<IParametersCreatable> params = host.CreateHost<IParametersCreatable>(L"ParametersCreatable");
  if (!fisheye || !params) return SmartPtr<ICalibrationFisheye>();
  const auto add = [&](const char* name, double value, bool integer) {
    SmartPtr<IVariant> v = host.CreateHost<IVariant>(L"Variant");
    integer ? v->put_Integer(static_cast<int>(value)) : v->put_Double(value);
    params->Add(host.NewString(name), v, nullptr, 0);
  };
  add("PerspectiveImageWidth", kWidth, true);
  add("PerspectiveImageHeight", kHeight, true);
  add("PerspectiveFOV", kPerspectiveFOV, false);
  add("FisheyeFOV", kFisheyeFOV, false);
  add("FisheyeCenterX", kCentreX, false);
  add("FisheyeCenterY", kCentreY, false);
  add("FisheyeRadiusX", kRadiusX, false);
  add("FisheyeRadiusY", kRadiusY, false);
  QueryAs<IParametricObject>(fisheye)->SetParameters(params);
  return fisheye;
}

// The map by the module: x and y of every pixel, row after row.
void BuildMap(ICalibrationFisheye* fisheye, float* mapX, float* mapY) {
  size_t i = 0;
  for (int v = 0; v < kHeight; ++v)
    for (int u = 0; u < kWidth; ++u, ++i) {
      double x = u, y = v, z = 0;
      fisheye->Revert(&x, &y, &z);
      mapX[i] = static_cast<float>(x);
      mapY[i] = static_cast<float>(y);
    }
}

void MapOurs(benchmark::State& state) {
  SmartPtr<ICalibrationFisheye> fisheye = Fisheye();
  if (!fisheye) {
    state.SkipWithError("the module or its peers are missing");
    return;
  }
  std::vector<float> mapX(static_cast<size_t>(kWidth) * kHeight), mapY(mapX.size());
  const long before = gAllocations.load();
  for (auto _ : state) {
    BuildMap(fisheye, mapX.data(), mapY.data());
    benchmark::DoNotOptimize(mapX.data());
    benchmark::DoNotOptimize(mapY.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
  state.counters["allocs_per_map"] =
      static_cast<double>(gAllocations.load() - before) / static_cast<double>(state.iterations());
}

#ifdef ZELTRIM_HAVE_OPENCV
void MapOpenCV(benchmark::State& state) {
  const double t = std::tan(kPi * kPerspectiveFOV / 180 * 0.5);
  const double halfField = 0.5 * kFisheyeFOV * 0.017453292519943295;
  const cv::Matx33d fisheyeCamera(kRadiusX / halfField, 0, kCentreX, 0, kRadiusY / halfField, kCentreY, 0, 0, 1);
  const cv::Matx33d perspective(kWidth / (2 * t), 0, kWidth / 2.0, 0, kWidth / (2 * t), kHeight / 2.0 - 1, 0, 0, 1);
  const cv::Vec4d noDistortion(0, 0, 0, 0);
  cv::Mat mapX(kHeight, kWidth, CV_32FC1), mapY(kHeight, kWidth, CV_32FC1);
  for (auto _ : state) {
    cv::fisheye::initUndistortRectifyMap(fisheyeCamera, noDistortion, cv::Matx33d::eye(), perspective,
                                         cv::Size(kWidth, kHeight), CV_32FC1, mapX, mapY);
    benchmark::DoNotOptimize(mapX.data);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
  // The two maps describe one camera: their largest difference, in fisheye pixels.
  if (SmartPtr<ICalibrationFisheye> fisheye = Fisheye()) {
    std::vector<float> oursX(static_cast<size_t>(kWidth) * kHeight), oursY(oursX.size());
    BuildMap(fisheye, oursX.data(), oursY.data());
    double largest = 0;
    for (int v = 0; v < kHeight; ++v)
      for (int u = 0; u < kWidth; ++u) {
        const size_t i = static_cast<size_t>(v) * kWidth + u;
        largest = std::max({largest, std::fabs(double(oursX[i]) - mapX.at<float>(v, u)),
                            std::fabs(double(oursY[i]) - mapY.at<float>(v, u))});
      }
    state.counters["largest_difference_px"] = largest;
  }
}
#endif

}  // namespace

int main(int argc, char** argv) {
  benchmark::RegisterBenchmark("FisheyeMap/1920x1080/ours", MapOurs)->Unit(benchmark::kMillisecond);
#ifdef ZELTRIM_HAVE_OPENCV
  cv::setNumThreads(1);  // both build the map on one thread
  benchmark::RegisterBenchmark("FisheyeMap/1920x1080/opencv", MapOpenCV)->Unit(benchmark::kMillisecond);
#endif
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter({"opencv"});
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
