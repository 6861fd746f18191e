// Speed of SingleViewGeometry::Decompose per camera, through the loaded module as a host
// calls it: with the outputs that carry K, R and the centre (a new Camera3DTrinsic and a
// new Point), with every output (two HomogeneousCalibrations more), and with none (the
// arithmetic alone: one 3 x 4 SVD and one 4 x 3 QL). Where OpenCV is present, its
// decomposeProjectionMatrix splits the same matrix into K, R and the homogeneous centre
// in this binary, and the ratio closes the output. Runs from the build folder, where
// _binlinux/ holds the module and its peers.
#include <benchmark/benchmark.h>

#include <cmath>

#include "bench/RatioReporter.h"
#include "bench/BenchModule.h"

#ifdef ZELTRIM_HAVE_OPENCV
#include <opencv2/calib3d.hpp>
#endif

namespace {

// A Camera3DTransform holding the camera, its matrix written by columns.
SmartPtr<ICamera3DTransform> ModuleCamera() {
  SmartPtr<ICamera3DTransform> camera = Host().Create<ICamera3DTransform>(L"Camera3DTransform");
  double* m = nullptr;
  if (camera) camera->GetMatrix(&m, nullptr, nullptr);
  const BenchCamera truth;
  for (int r = 0; m && r < 3; ++r)
    for (int c = 0; c < 4; ++c) m[3 * c + r] = truth.p[r][c];
  return camera;
}

enum Outputs { kNone, kCameraAndCentre, kAll };

void Decompose(benchmark::State& state, Outputs outputs) {
  SmartPtr<ISingleViewGeometry> geometry = Host().Create<ISingleViewGeometry>(L"SingleViewGeometry");
  SmartPtr<ICamera3DTransform> camera = ModuleCamera();
  if (!geometry || !camera) {
    state.SkipWithError(("the module did not load: " + Host().Error()).c_str());
    return;
  }
  for (auto _ : state) {
    SmartPtr<ICamera3DTrinsic> intrinsic;
    SmartPtr<IPoint> location;
    SmartPtr<ICalibration> translation, rotation;
    geometry->Decompose(camera, outputs == kNone ? nullptr : intrinsic.Out(),
                        outputs == kNone ? nullptr : location.Out(), outputs == kAll ? translation.Out() : nullptr,
                        outputs == kAll ? rotation.Out() : nullptr);
    benchmark::DoNotOptimize(intrinsic.get());
    benchmark::DoNotOptimize(location.get());
  }
  state.SetItemsProcessed(state.iterations());
}

#ifdef ZELTRIM_HAVE_OPENCV
void DecomposeOpenCV(benchmark::State& state) {
  const BenchCamera truth;
  cv::Mat p(3, 4, CV_64F);
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) p.at<double>(r, c) = truth.p[r][c];
  cv::Mat k, r, centre;
  for (auto _ : state) {
    cv::decomposeProjectionMatrix(p, k, r, centre);
    benchmark::DoNotOptimize(k.data);
    benchmark::DoNotOptimize(centre.data);
  }
  state.SetItemsProcessed(state.iterations());
}
#endif

}  // namespace

int main(int argc, char** argv) {
  benchmark::RegisterBenchmark("Decompose/camera_and_centre/ours", Decompose, kCameraAndCentre);
  benchmark::RegisterBenchmark("Decompose/every_output", Decompose, kAll);
  benchmark::RegisterBenchmark("Decompose/no_output", Decompose, kNone);
#ifdef ZELTRIM_HAVE_OPENCV
  benchmark::RegisterBenchmark("Decompose/camera_and_centre/opencv", DecomposeOpenCV);
#endif
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter({"opencv"});
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
