// Speed of Camera3DCalibrationPlane::Convert per point, through the loaded module as a host
// calls it: the plane route with either camera class, the fixed-height pseudo-inverse
// route, and a singular system (a plane that holds the ray), which takes a decomposition.
// Each case counts the heap allocations per point (operator new is replaced in this
// binary, and the module's calls reach it; the benchmark's own few show as a fraction
// near 0). Where Eigen is present, the same 3 x 3 system of the plane route is built and
// solved with it in this binary, and the ratio closes the output. Runs from the build folder, where _binlinux/ holds the module and its peers.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <new>
#include <vector>

#include "bench/RatioReporter.h"
#include "bench/BenchModule.h"
#include "bench/CountedAllocations.h"

#ifdef ZELTRIM_HAVE_EIGEN
#include <Eigen/Dense>
#endif

namespace {

// Image points over the picture, cycled through by every case.
const std::vector<double>& ImagePoints() {
  static const std::vector<double> points = [] {
    std::vector<double> xy;
    for (int i = 0; i < 16; ++i)
      for (int j = 0; j < 16; ++j) xy.push_back(20.0 + 37.5 * i), xy.push_back(15.0 + 28.0 * j);
    return xy;
  }();
  return points;
}

const double kPlane[4] = {0.1, -0.05, 1.0, 0.3};

SmartPtr<ICamera3DCalibrationPlane> Locator(const wchar_t* cameraClass, const double (&p)[3][4]) {
  SmartPtr<ICamera3DTransform> camera = Host().Create<ICamera3DTransform>(cameraClass);
  SmartPtr<ICamera3DCalibrationPlane> o = Host().Create<ICamera3DCalibrationPlane>(L"Camera3DCalibrationPlane");
  if (!camera || !o) return SmartPtr<ICamera3DCalibrationPlane>();
  double* m = nullptr;
  camera->GetMatrix(&m, nullptr, nullptr);
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) m[3 * c + r] = p[r][c];
  o->SetReverseTransform(camera);
  IUnknown* plane = nullptr;
  o->get_Plane(&plane);
  if (SmartPtr<IPlane> held = QueryAs<IPlane>(plane)) held->SetCoefficients(kPlane[0], kPlane[1], kPlane[2], kPlane[3]);
  return o;
}

void Run(benchmark::State& state, ICamera3DCalibrationPlane* o, const std::vector<double>& xy) {
  if (!o) {
    state.SkipWithError("the module or its peers are missing");
    return;
  }
  size_t i = 0;
  const long before = gAllocations.load();
  for (auto _ : state) {
    double x = xy[i], y = xy[i + 1], z = 0.0;
    o->Convert(&x, &y, &z);
    benchmark::DoNotOptimize(x);
    benchmark::DoNotOptimize(y);
    benchmark::DoNotOptimize(z);
    i = i + 2 < xy.size() ? i + 2 : 0;
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["allocs_per_point"] =
      static_cast<double>(gAllocations.load() - before) / static_cast<double>(state.iterations());
}

void PlaneRoute(benchmark::State& state, const wchar_t* cameraClass) {
  SmartPtr<ICamera3DCalibrationPlane> o = Locator(cameraClass, BenchCamera().p);
  Run(state, o, ImagePoints());
}

void PseudoInverseRoute(benchmark::State& state) {
  SmartPtr<ICamera3DCalibrationPlane> o = Locator(L"Camera3DTrinsic", BenchCamera().p);
  if (o) o->UsePseudoInverse(1);
  Run(state, o, ImagePoints());
}

// x = (X - 2) / (Z + 5), y = (Y - 3) / (Z + 5): the plane X = 2 holds the ray of (0, 0).
void SingularSystem(benchmark::State& state) {
  const double p[3][4] = {{1, 0, 0, -2}, {0, 1, 0, -3}, {0, 0, 1, 5}};
  SmartPtr<ICamera3DCalibrationPlane> o = Locator(L"Camera3DTransform", p);
  IUnknown* plane = nullptr;
  if (o) o->get_Plane(&plane);
  if (SmartPtr<IPlane> held = QueryAs<IPlane>(plane)) held->SetCoefficients(1, 0, 0, 2);
  Run(state, o, std::vector<double>{0.0, 0.0});
}

#ifdef ZELTRIM_HAVE_EIGEN
// The plane route's system, built the same way and solved through Eigen's fixed-size
// inverse (cofactors, as the module's adjugate).
void PlaneRouteEigen(benchmark::State& state) {
  const BenchCamera camera;
  const std::vector<double>& xy = ImagePoints();
  const double length = std::sqrt(kPlane[0] * kPlane[0] + kPlane[1] * kPlane[1] + kPlane[2] * kPlane[2]);
  size_t i = 0;
  for (auto _ : state) {
    const double u = xy[i], v = xy[i + 1];
    Eigen::Matrix3d m;
    Eigen::Vector3d r;
    for (int c = 0; c < 3; ++c) {
      m(0, c) = camera.p[0][c] - u * camera.p[2][c];
      m(1, c) = camera.p[1][c] - v * camera.p[2][c];
      m(2, c) = kPlane[c] / length;
    }
    r << camera.p[0][3] - u * camera.p[2][3], camera.p[1][3] - v * camera.p[2][3], -kPlane[3] / length;
    const Eigen::Vector3d solution = -(m.inverse() * r);
    benchmark::DoNotOptimize(solution);
    i = i + 2 < xy.size() ? i + 2 : 0;
  }
  state.SetItemsProcessed(state.iterations());
}
#endif

}  // namespace

int main(int argc, char** argv) {
  benchmark::RegisterBenchmark("Convert/plane_route/ours", PlaneRoute, L"Camera3DTransform");
  benchmark::RegisterBenchmark("Convert/plane_route_trinsic_camera", PlaneRoute, L"Camera3DTrinsic");
  benchmark::RegisterBenchmark("Convert/pseudo_inverse_route", PseudoInverseRoute);
  benchmark::RegisterBenchmark("Convert/singular_system", SingularSystem);
#ifdef ZELTRIM_HAVE_EIGEN
  benchmark::RegisterBenchmark("Convert/plane_route/eigen", PlaneRouteEigen);
#endif
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter({"eigen"});
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
