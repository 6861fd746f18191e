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
#include "host/client/ModuleHost.h"

#ifdef ZELTRIM_HAVE_EIGEN
#include <Eigen/Dense>
#endif

namespace {
std::atomic<long> gAllocations{0};
}

void* operator new(std::size_t size) {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
// The replacement pair is malloc and free; the compiler cannot tell that they belong
// together through the replaced operator new.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop

namespace {

// The module and the global collection, loaded once as a framework host does.
ModuleHost& Host() {
  static ModuleHost host;
  static const bool loaded = host.Load(ExecutableFolder());
  (void)loaded;
  return host;
}

// P = K [R | t] by rows, a camera 10 units from the origin.
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
  SmartPtr<ICamera3DCalibrationPlane> o = Locator(cameraClass, Camera().p);
  Run(state, o, ImagePoints());
}

void PseudoInverseRoute(benchmark::State& state) {
  SmartPtr<ICamera3DCalibrationPlane> o = Locator(L"Camera3DTrinsic", Camera().p);
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
  const Camera camera;
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
