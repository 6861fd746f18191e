// Speed of the joint refinement (host/refine) as `calibrate --refine` runs it: the poses
// from the homographies, the refinement of the full lens model and the covariance, on the
// bundled sample (13 views of 54 corners) starting from the module's calibration, and on
// synthetic sets of 13, 50 and 200 views to show how the cost grows with the views. Where
// OpenCV is present, calibrateCamera with its default flags (the same lens model) runs on
// the same points in this binary, and the ratio closes the output. Each run reports the
// RMS error it reached. Runs from the build folder, where _binlinux/ holds the module.
#include <benchmark/benchmark.h>

#include <cmath>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "bench/RatioReporter.h"
#include "host/client/ModuleHost.h"
#include "host/refine/CameraRefinement.h"
#include "tools/zeltrim/Tasks.h"

#ifdef ZELTRIM_HAVE_OPENCV
#include <opencv2/calib3d.hpp>
#endif

namespace {

struct Problem {
  std::vector<refine::Point2d> model;
  std::vector<std::vector<refine::Point2d>> views;
  refine::Intrinsics start;  // what the closed form gave
  bool ok = false;
};

// The bundled sample and the module's calibration of it.
const Problem& Sample() {
  static Problem p = [] {
    Problem s;
    const std::string folder = std::string(ZELTRIM_SOURCE_DIR) + "/data/opencv-left-w7";
    std::vector<Point3> model;
    std::vector<std::vector<Point3>> views;
    std::ifstream in(folder + "/model.txt");
    std::string error;
    if (!ReadPoints(in, &model, &error)) return s;
    for (int k = 1; k <= 13; ++k) {
      char name[32];
      std::snprintf(name, sizeof name, "/view%02d.txt", k);
      std::ifstream file(folder + name);
      views.emplace_back();
      if (!ReadPoints(file, &views.back(), &error)) return s;
    }
    static ModuleHost host;
    CameraCalibration r;
    TaskError failure;
    if (!host.Load(ZELTRIM_BINARY_DIR) || !CalibrateCamera(host, model, views, 640, 480, 1, &r, &failure)) return s;
    for (const Point3& m : model) s.model.push_back({m.x, m.y});
    for (const auto& v : views) {
      s.views.emplace_back();
      for (const Point3& q : v) s.views.back().push_back({q.x, q.y});
    }
    s.start.fx = r.fx, s.start.fy = r.fy, s.start.cx = r.cx, s.start.cy = r.cy, s.start.skew = r.skew;
    s.ok = true;
    return s;
  }();
  return p;
}

// A 9 x 6 board seen from `count` poses by a camera like the sample's, with 0.2 px noise;
// the start is 3 % and 8 px off.
Problem Synthetic(int count) {
  Problem s;
  refine::Intrinsics truth;
  truth.fx = 540, truth.fy = 545, truth.cx = 330, truth.cy = 245, truth.k1 = -0.28, truth.k2 = 0.1;
  truth.p1 = 1e-3, truth.p2 = -5e-4, truth.k3 = -0.02;
  for (int row = 0; row < 6; ++row)
    for (int col = 0; col < 9; ++col) s.model.push_back({double(col), double(row)});
  std::mt19937 random(7);
  std::normal_distribution<double> noise(0, 0.2);
  for (int k = 0; k < count; ++k) {
    const double a = 2.4 * k, angle = 0.25 + 0.175 * (k % 3);
    const double ax = std::cos(a), ay = std::sin(a), az = 0.3, n = std::sqrt(ax * ax + ay * ay + az * az);
    const double x = ax / n, y = ay / n, z = az / n, c = std::cos(angle), sn = std::sin(angle), t = 1 - c;
    refine::Pose pose;
    pose.rotation = {t * x * x + c,      t * x * y - sn * z, t * x * z + sn * y, t * x * y + sn * z, t * y * y + c,
                     t * y * z - sn * x, t * x * z - sn * y, t * y * z + sn * x, t * z * z + c};
    pose.translation = {-7.0 + 3 * (k % 4), -5.0 + 2.5 * (k % 3), 11.0 + 2 * (k % 3)};
    s.views.emplace_back();
    for (const refine::Point2d& m : s.model) {
      refine::Point2d p;
      refine::ProjectPoint(truth, pose, m.x, m.y, &p);
      s.views.back().push_back({p.x + noise(random), p.y + noise(random)});
    }
  }
  s.start = truth;
  s.start.fx *= 1.03, s.start.fy *= 0.97, s.start.cx += 8, s.start.cy -= 8;
  s.start.k1 = s.start.k2 = s.start.p1 = s.start.p2 = s.start.k3 = 0;
  s.ok = true;
  return s;
}

void Refine(benchmark::State& state, const Problem& p, bool covariance) {
  if (!p.ok) return state.SkipWithError("no data (the sample or the module is missing)");
  refine::RefinementResult r;
  for (auto _ : state) {
    refine::RefinementInput in;
    in.model = p.model;
    in.views = p.views;
    in.initial = p.start;
    in.initial.skew = 0;
    in.lens = refine::LensModel::kFull;
    in.computeCovariance = covariance;
    std::string error;
    if (!refine::PosesFromHomographies(p.model, p.views, p.start, &in.poses, &error) ||
        !refine::RefineCamera(in, &r, &error))
      return state.SkipWithError(error.c_str());
    benchmark::ClobberMemory();
  }
  state.counters["rms"] = r.rms;
  state.counters["steps"] = r.iterations;
}

#ifdef ZELTRIM_HAVE_OPENCV
void OpenCv(benchmark::State& state, const Problem& p) {
  if (!p.ok) return state.SkipWithError("no data (the sample or the module is missing)");
  std::vector<std::vector<cv::Point3f>> objects(p.views.size());
  std::vector<std::vector<cv::Point2f>> images(p.views.size());
  for (size_t v = 0; v < p.views.size(); ++v) {
    for (const refine::Point2d& m : p.model) objects[v].emplace_back(float(m.x), float(m.y), 0.f);
    for (const refine::Point2d& q : p.views[v]) images[v].emplace_back(float(q.x), float(q.y));
  }
  double rms = 0;
  for (auto _ : state) {
    cv::Mat k, d;
    std::vector<cv::Mat> rvecs, tvecs;
    rms = cv::calibrateCamera(objects, images, cv::Size(640, 480), k, d, rvecs, tvecs);
    benchmark::ClobberMemory();
  }
  state.counters["rms"] = rms;
}
#endif

void BM_SampleOurs(benchmark::State& state) { Refine(state, Sample(), true); }
void BM_SampleNoCovariance(benchmark::State& state) { Refine(state, Sample(), false); }
void BM_SyntheticViews(benchmark::State& state) {
  static std::map<int, Problem> problems;
  const int views = static_cast<int>(state.range(0));
  if (!problems.count(views)) problems[views] = Synthetic(views);
  Refine(state, problems[views], true);
}
BENCHMARK(BM_SampleOurs)->Name("refine_w7_full/ours")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SampleNoCovariance)->Name("refine_w7_full_no_covariance")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SyntheticViews)->Name("refine_synthetic_views")->Arg(13)->Arg(50)->Arg(200)->Unit(benchmark::kMillisecond);
#ifdef ZELTRIM_HAVE_OPENCV
void BM_SampleOpenCv(benchmark::State& state) { OpenCv(state, Sample()); }
BENCHMARK(BM_SampleOpenCv)->Name("refine_w7_full/opencv")->Unit(benchmark::kMillisecond);
#endif

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter({"opencv"});
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
