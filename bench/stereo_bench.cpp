// Speed of the module's "MultiViewGeometry", loaded as a host loads it: CalcPose on a
// pair of Camera3DTrinsic cameras (mode 0, which re-frames them every call), and
// CalibStereo on 50, 500 and 5,000 pixel pairs held in host point collections made
// beforehand (the linear estimate, the minimiser refinement, epipoles and pose; no
// cameras, so no essential-matrix stage). Where OpenCV is present, findFundamentalMat
// with the eight-point method (no RANSAC) runs on the same pairs and the ratios close
// the output. Runs from the build folder, where _binlinux/ holds the module and peers.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <random>
#include <vector>

#include "bench/RatioReporter.h"
#include "bench/BenchModule.h"

#ifdef ZELTRIM_HAVE_OPENCV
#include <opencv2/calib3d.hpp>
#endif

namespace {

// Two views of one rig by rows: P = K [R | t], R a turn about y.
struct View {
  double p[3][4];
  double k[3][3] = {{800, 0, 320}, {0, 780, 240}, {0, 0, 1}};
  double r[3][3];
  double t[3];
  View(double angle, double tx) : r{{std::cos(angle), 0, std::sin(angle)}, {0, 1, 0}, {-std::sin(angle), 0, std::cos(angle)}},
                                  t{tx, 0.1, 10.0} {
    for (int a = 0; a < 3; ++a)
      for (int b = 0; b < 4; ++b) {
        double sum = 0;
        for (int m = 0; m < 3; ++m) sum += k[a][m] * (b < 3 ? r[m][b] : t[m]);
        p[a][b] = sum;
      }
  }
  void Image(const double* w, double* u, double* v) const {
    const double d = p[2][0] * w[0] + p[2][1] * w[1] + p[2][2] * w[2] + p[2][3];
    *u = (p[0][0] * w[0] + p[0][1] * w[1] + p[0][2] * w[2] + p[0][3]) / d;
    *v = (p[1][0] * w[0] + p[1][1] * w[1] + p[1][2] * w[2] + p[1][3]) / d;
  }
};
const View kLeft(0.05, 0.5), kRight(-0.1, -1.5);

// n pairs of images of points in a box, with 0.3 pixels of noise.
struct Pairs {
  std::vector<double> left, right;  // u, v per pair
  SmartPtr<ISimpleCollection> first, second;
};

Pairs& PairsOf(int n) {
  static std::map<int, Pairs> cache;
  auto it = cache.find(n);
  if (it != cache.end()) return it->second;
  Pairs& pairs = cache[n];
  std::mt19937 random(17);
  std::uniform_real_distribution<double> box(-2.0, 2.0);
  std::normal_distribution<double> noise(0.0, 0.3);
  SmartPtr<IPointsCollection> a = Host().CreateHost<IPointsCollection>(L"PointsCollection");
  SmartPtr<IPointsCollection> b = Host().CreateHost<IPointsCollection>(L"PointsCollection");
  for (int i = 0; i < n; ++i) {
    const double w[3] = {box(random), box(random), box(random)};
    double u1, v1, u2, v2;
    kLeft.Image(w, &u1, &v1);
    kRight.Image(w, &u2, &v2);
    u1 += noise(random), v1 += noise(random), u2 += noise(random), v2 += noise(random);
    pairs.left.insert(pairs.left.end(), {u1, v1});
    pairs.right.insert(pairs.right.end(), {u2, v2});
    if (a && b) a->AddPoint(u1, v1, 0), b->AddPoint(u2, v2, 0);
  }
  pairs.first = SmartPtr<ISimpleCollection>(a.get());
  pairs.second = SmartPtr<ISimpleCollection>(b.get());
  return pairs;
}

// A Camera3DTrinsic holding K and [R | t] of a view.
SmartPtr<ICamera3DTrinsic> Camera(const View& view) {
  SmartPtr<ICamera3DTrinsic> camera = Host().Create<ICamera3DTrinsic>(L"Camera3DTrinsic");
  if (!camera) return camera;
  double *a = nullptr, *e = nullptr;
  camera->GetMatrix(1, &a, nullptr, nullptr);
  camera->GetMatrix(2, &e, nullptr, nullptr);
  for (int c = 0; c < 3; ++c)
    for (int r = 0; r < 3; ++r) a[3 * c + r] = view.k[r][c], e[4 * c + r] = view.r[r][c];
  for (int r = 0; r < 3; ++r) e[12 + r] = view.t[r];
  camera->GetMatrix(9, nullptr, nullptr, nullptr);
  return camera;
}

void CalcPose(benchmark::State& state) {
  SmartPtr<IMultiViewGeometry> geometry = Host().Create<IMultiViewGeometry>(L"MultiViewGeometry");
  SmartPtr<IParametersCreatable> list = Host().CreateHost<IParametersCreatable>(L"ParametersCreatable");
  SmartPtr<ICamera3DTrinsic> left = Camera(kLeft), right = Camera(kRight);
  SmartPtr<IString> name = Host().NewString("camera");
  if (!geometry || !list || !left || !right) {
    state.SkipWithError("no module or no host");
    return;
  }
  list->Add(name, left, nullptr, 0);
  list->Add(name, right, nullptr, 0);
  geometry->SetCalibrations(list);
  for (auto _ : state) benchmark::DoNotOptimize(geometry->CalcPose(0));
}

void Ours(benchmark::State& state, int n) {
  Pairs& pairs = PairsOf(n);
  SmartPtr<IMultiViewGeometry> geometry = Host().Create<IMultiViewGeometry>(L"MultiViewGeometry");
  if (!geometry || !pairs.first) {
    state.SkipWithError("no module or no host");
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(geometry->CalibStereo(pairs.first, pairs.second));
  state.SetItemsProcessed(state.iterations() * n);
}

#ifdef ZELTRIM_HAVE_OPENCV
void OpenCV(benchmark::State& state, int n) {
  Pairs& pairs = PairsOf(n);
  const cv::Mat left(n, 2, CV_64F, pairs.left.data()), right(n, 2, CV_64F, pairs.right.data());
  double sum = 0;
  for (auto _ : state) {
    const cv::Mat f = cv::findFundamentalMat(left, right, cv::FM_8POINT);
    sum += f.at<double>(0, 0);
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations() * n);
}
#endif

void Register() {
  benchmark::RegisterBenchmark("CalcPose/mode:0", CalcPose)->Unit(benchmark::kMicrosecond);
  for (int n : {50, 500, 5000}) {
    const std::string stem = "Fundamental/pairs:" + std::to_string(n);
    benchmark::RegisterBenchmark((stem + "/ours").c_str(), [n](benchmark::State& s) { Ours(s, n); })
        ->Unit(benchmark::kMicrosecond);
#ifdef ZELTRIM_HAVE_OPENCV
    benchmark::RegisterBenchmark((stem + "/opencv_8point").c_str(), [n](benchmark::State& s) { OpenCV(s, n); })
        ->Unit(benchmark::kMicrosecond);
#endif
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (!Host().Components()) {
    std::fprintf(stderr, "stereo_bench: %s\n", Host().Error().c_str());
    return 1;
  }
  Register();
  RatioReporter reporter({"opencv_8point"});
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
