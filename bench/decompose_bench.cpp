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
#include "host/client/ModuleHost.h"

#ifdef ZELTRIM_HAVE_OPENCV
#include <opencv2/calib3d.hpp>
#endif

namespace {

ModuleHost& Host() {
  static ModuleHost host;
  static const bool loaded = host.Load(ExecutableFolder());
  (void)loaded;
  return host;
}

// P = K [R | t] by rows, a camera 10 units from the origin, turned about all three axes.
struct Camera {
  double p[3][4];
  Camera() {
    const double k[3][3] = {{800, 0.5, 320}, {0, 780, 240}, {0, 0, 1}};
    const double a = 0.2, b = -0.3, c = 0.1;
    const double r[3][3] = {
        {std::cos(c) * std::cos(b), std::cos(c) * std::sin(b) * std::sin(a) - std::sin(c) * std::cos(a),
         std::cos(c) * std::sin(b) * std::cos(a) + std::sin(c) * std::sin(a)},
        {std::sin(c) * std::cos(b), std::sin(c) * std::sin(b) * std::sin(a) + std::cos(c) * std::cos(a),
         std::sin(c) * std::sin(b) * std::cos(a) - std::cos(c) * std::sin(a)},
        {-std::sin(b), std::cos(b) * std::sin(a), std::cos(b) * std::cos(a)}};
    const double t[3] = {0.3, -0.2, 10.0};
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 4; ++j) {
        double sum = 0;
        for (int m = 0; m < 3; ++m) sum += k[i][m] * (j < 3 ? r[m][j] : t[m]);
        p[i][j] = sum;
      }
  }
};

// A Camera3DTransform holding the camera, its matrix written by columns.
SmartPtr<ICamera3DTransform> ModuleCamera() {
  SmartPtr<ICamera3DTransform> camera = Host().Create<ICamera3DTransform>(L"Camera3DTransform");
  double* m = nullptr;
  if (camera) camera->GetMatrix(&m, nullptr, nullptr);
  const Camera truth;
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
  const Camera truth;
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
