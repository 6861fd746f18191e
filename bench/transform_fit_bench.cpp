// Speed of the best-fit transform: every fitting route on 100, 1,000 and 10,000 point
// pairs, and Convert on 1,000,000 points through the interface. Where OpenCV is present
// the planar projective fit runs against findHomography (method 0, plain least squares,
// no RANSAC) and Convert against perspectiveTransform, on the same data in this binary.
// Runs from the build folder, where _binlinux/ holds the peers that make the points.
#include <benchmark/benchmark.h>

#include <cmath>
#include <map>
#include <random>
#include <vector>

#include "bench/RatioReporter.h"
#include "frame/Components.h"
#include "geometry/TransformBestFit.h"

#ifdef ZELTRIM_HAVE_OPENCV
#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#endif

namespace {

struct PairSet {
  std::vector<double> source, target;  // x, y, z triples
  SmartPtr<ISimpleCollection> sourcePoints, targetPoints;
};

SmartPtr<ISimpleCollection> Collection(const std::vector<double>& xyz) {
  SmartPtr<IPointsCollection> c;
  c.Attach(GEOObject::CreatePointsCollection());
  if (!c) return SmartPtr<ISimpleCollection>();
  for (size_t i = 0; i + 2 < xyz.size(); i += 3) c->AddPoint(xyz[i], xyz[i + 1], xyz[i + 2]);
  return SmartPtr<ISimpleCollection>(c.get());
}

// Pairs related by a route's own model, with a little noise so the fits do real work.
PairSet MakePairs(int n, bool flat, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> coordinate(-500, 500);
  std::normal_distribution<double> noise(0, 0.05);
  PairSet set;
  const double c = std::cos(0.3), s = std::sin(0.3);
  for (int i = 0; i < n; ++i) {
    const double x = coordinate(rng), y = coordinate(rng), z = flat ? 0.0 : coordinate(rng) * 0.2;
    set.source.insert(set.source.end(), {x, y, z});
    double tx, ty, tz;
    if (flat) {  // a plane homography
      const double w = 1e-4 * x - 2e-4 * y + 1;
      tx = (1.1 * x + 0.2 * y + 30) / w, ty = (-0.1 * x + 0.9 * y - 20) / w, tz = 0;
    } else {  // a rotation with scale and translation
      tx = 1.5 * (c * x - s * y) + 10, ty = 1.5 * (s * x + c * y) - 5, tz = 1.5 * z + 2;
    }
    set.target.insert(set.target.end(), {tx + noise(rng), ty + noise(rng), tz + noise(rng)});
  }
  set.sourcePoints = Collection(set.source);
  set.targetPoints = Collection(set.target);
  return set;
}

const PairSet& Pairs(int n, bool flat) {
  static std::map<std::pair<int, bool>, PairSet> cache;
  auto it = cache.find({n, flat});
  if (it == cache.end()) it = cache.emplace(std::make_pair(n, flat), MakePairs(n, flat, 1234u + n)).first;
  return it->second;
}

SmartPtr<ITransformBestFit> NewFit() {
  void* p = nullptr;
  IID iid = IID_ITransformBestFit;
  CObject<CTransformBestFit>::_CreateInstance(nullptr, &iid, &p);
  SmartPtr<ITransformBestFit> fit;
  fit.Attach(static_cast<ITransformBestFit*>(p));
  return fit;
}

// method: the route; 0x100 leaves the fit errors out so the fit alone is timed.
void FitOurs(benchmark::State& state, int method, bool flat, int n) {
  const PairSet& set = Pairs(n, flat);
  SmartPtr<ITransformBestFit> fit = NewFit();
  for (auto _ : state) benchmark::DoNotOptimize(fit->BestFit(set.sourcePoints, set.targetPoints, method | 0x100));
  state.SetItemsProcessed(state.iterations() * n);
}

void Convert(benchmark::State& state, int n) {
  const PairSet& set = Pairs(1000, true);
  SmartPtr<ITransformBestFit> fit = NewFit();
  fit->BestFit(set.sourcePoints, set.targetPoints, 0x100);
  SmartPtr<ITransform> transform = QueryAs<ITransform>(fit);
  std::vector<double> points(static_cast<size_t>(n) * 3);
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> coordinate(-500, 500);
  for (double& v : points) v = coordinate(rng);
  // Convert works in place, as the interface has it: each round converts a fresh copy,
  // and the copy is not timed.
  std::vector<double> work(points.size());
  for (auto _ : state) {
    state.PauseTiming();
    work = points;
    state.ResumeTiming();
    for (size_t i = 0; i < work.size(); i += 3) transform->Convert(&work[i], &work[i + 1], &work[i + 2]);
    benchmark::DoNotOptimize(work.data());
  }
  state.SetItemsProcessed(state.iterations() * n);
}

#ifdef ZELTRIM_HAVE_OPENCV
void FitOpenCv(benchmark::State& state, int n) {
  const PairSet& set = Pairs(n, true);
  std::vector<cv::Point2d> src, dst;
  for (size_t i = 0; i + 2 < set.source.size(); i += 3) {
    src.emplace_back(set.source[i], set.source[i + 1]);
    dst.emplace_back(set.target[i], set.target[i + 1]);
  }
  for (auto _ : state) benchmark::DoNotOptimize(cv::findHomography(src, dst, 0));
  state.SetItemsProcessed(state.iterations() * n);
}

void ConvertOpenCv(benchmark::State& state, int n) {
  const PairSet& set = Pairs(1000, true);
  std::vector<cv::Point2d> src, dst;
  for (size_t i = 0; i + 2 < set.source.size(); i += 3) {
    src.emplace_back(set.source[i], set.source[i + 1]);
    dst.emplace_back(set.target[i], set.target[i + 1]);
  }
  const cv::Mat h = cv::findHomography(src, dst, 0);
  std::vector<cv::Point3d> points(static_cast<size_t>(n));
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> coordinate(-500, 500);
  for (cv::Point3d& p : points) p = cv::Point3d(coordinate(rng), coordinate(rng), coordinate(rng));
  // The same 4 x 4 projective map as ours, for 3D points: perspectiveTransform divides too.
  cv::Mat m = cv::Mat::eye(4, 4, CV_64F);
  const int rc[3] = {0, 1, 3};
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c) m.at<double>(rc[r], rc[c]) = h.at<double>(r, c);
  std::vector<cv::Point3d> out(points.size());
  for (auto _ : state) {
    cv::perspectiveTransform(points, out, m);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations() * n);
}
#endif

void RegisterAll() {
  struct Route {
    const char* name;
    int method;
    bool flat;
  } routes[] = {{"covariance_svd", 1, false},
                {"covariance_eigen", 3, false},
                {"affine3d", 0, false},
                {"projective", 0, true}};
  for (const Route& r : routes)
    for (int n : {100, 1000, 10000}) {
      const std::string stem = std::string("fit/") + r.name + "/" + std::to_string(n);
      benchmark::RegisterBenchmark((stem + "/ours").c_str(), FitOurs, r.method, r.flat, n)
          ->Unit(benchmark::kMicrosecond);
#ifdef ZELTRIM_HAVE_OPENCV
      if (r.flat) benchmark::RegisterBenchmark((stem + "/opencv").c_str(), FitOpenCv, n)->Unit(benchmark::kMicrosecond);
#endif
    }
  benchmark::RegisterBenchmark("fit/two_point/2/ours", FitOurs, 1, false, 2)->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("convert/1000000/ours", Convert, 1000000)->Unit(benchmark::kMillisecond);
#ifdef ZELTRIM_HAVE_OPENCV
  benchmark::RegisterBenchmark("convert/1000000/opencv", ConvertOpenCv, 1000000)->Unit(benchmark::kMillisecond);
#endif
}

}  // namespace

int main(int argc, char** argv) {
  RegisterAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter({"opencv"});
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
