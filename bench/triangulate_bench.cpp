// Speed of triangulation through the module's "Camera3DCalibration", loaded as a host
// loads it: one Convert per world point, with 2, 4 and 16 cameras, the image points held
// in host point collections made beforehand (the result point is made by the host on
// every call, as the contract has it). Where OpenCV is present, triangulatePoints runs on
// the same two-camera data in this binary, one point a call and all points in one call,
// and the ratios close the output.
// Runs from the build folder, where _binlinux/ holds the module and its peers.
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

constexpr int kPoints = 256;  // world points per benchmark iteration


// n cameras on an arc around the origin, ten units away, each P = K [R | t] by rows,
// R a turn about y; and kPoints world points in a box around the origin with their exact
// images in every camera.
struct Rig {
  std::vector<std::vector<double>> cameras;  // 12 values each, by rows
  std::vector<std::vector<double>> images;   // per point: u, v of every camera
  SmartPtr<ICamera3DCalibration> collection;
  std::vector<SmartPtr<ISimpleCollection>> points;
};

Rig MakeRig(int n) {
  Rig rig;
  const double k[3][3] = {{800, 0, 320}, {0, 800, 240}, {0, 0, 1}};
  for (int j = 0; j < n; ++j) {
    const double angle = -0.6 + 1.2 * j / (n - 1);
    const double r[3][3] = {{std::cos(angle), 0, std::sin(angle)}, {0, 1, 0}, {-std::sin(angle), 0, std::cos(angle)}};
    const double t[3] = {0.1 * j, -0.05 * j, 10.0};
    std::vector<double> p(12);
    for (int a = 0; a < 3; ++a)
      for (int b = 0; b < 4; ++b) {
        double sum = 0;
        for (int m = 0; m < 3; ++m) sum += k[a][m] * (b < 3 ? r[m][b] : t[m]);
        p[4 * a + b] = sum;
      }
    rig.cameras.push_back(p);
  }
  std::mt19937 random(5);
  std::uniform_real_distribution<double> box(-1.0, 1.0);
  for (int i = 0; i < kPoints; ++i) {
    const double w[3] = {box(random), box(random), box(random)};
    std::vector<double> image;
    for (const std::vector<double>& p : rig.cameras) {
      const double d = p[8] * w[0] + p[9] * w[1] + p[10] * w[2] + p[11];
      image.push_back((p[0] * w[0] + p[1] * w[1] + p[2] * w[2] + p[3]) / d);
      image.push_back((p[4] * w[0] + p[5] * w[1] + p[6] * w[2] + p[7]) / d);
    }
    rig.images.push_back(image);
  }
  ModuleHost& host = Host();
  rig.collection = host.Create<ICamera3DCalibration>(L"Camera3DCalibration");
  if (!rig.collection) return rig;
  for (const std::vector<double>& p : rig.cameras) {
    SmartPtr<ICamera3DTransform> camera = host.Create<ICamera3DTransform>(L"Camera3DTransform");
    double* m = nullptr;
    camera->GetMatrix(&m, nullptr, nullptr);
    for (int a = 0; a < 3; ++a)
      for (int b = 0; b < 4; ++b) m[3 * b + a] = p[4 * a + b];
    rig.collection->Add(camera);
  }
  for (const std::vector<double>& image : rig.images) {
    SmartPtr<IPointsCollection> c = host.CreateHost<IPointsCollection>(L"PointsCollection");
    for (size_t j = 0; j + 1 < image.size(); j += 2) c->AddPoint(image[j], image[j + 1], 0.0);
    rig.points.push_back(SmartPtr<ISimpleCollection>(c.get()));
  }
  return rig;
}

Rig& RigOf(int n) {
  static std::map<int, Rig> rigs;
  auto it = rigs.find(n);
  if (it == rigs.end()) it = rigs.emplace(n, MakeRig(n)).first;
  return it->second;
}

void Ours(benchmark::State& state, int n) {
  Rig& rig = RigOf(n);
  if (!rig.collection || rig.points.size() != static_cast<size_t>(kPoints)) {
    state.SkipWithError("no module, no host or no points");
    return;
  }
  double sum = 0;
  for (auto _ : state) {
    for (ISimpleCollection* points : rig.points) {
      IPoint* point = nullptr;
      rig.collection->Convert(points, &point);
      double x = 0, y = 0, z = 0;
      point->GetXYZ(&x, &y, &z);
      sum += x;
      point->Release();
    }
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations() * kPoints);
  state.counters["cameras"] = n;
}

#ifdef ZELTRIM_HAVE_OPENCV
// The two cameras of the two-camera rig, and every point's image in each.
struct OpenCVPair {
  cv::Mat p1, p2, image1, image2;
  OpenCVPair() {
    Rig& rig = RigOf(2);
    p1 = cv::Mat(3, 4, CV_64F, rig.cameras[0].data()).clone();
    p2 = cv::Mat(3, 4, CV_64F, rig.cameras[1].data()).clone();
    image1 = cv::Mat(2, kPoints, CV_64F);
    image2 = cv::Mat(2, kPoints, CV_64F);
    for (int i = 0; i < kPoints; ++i) {
      image1.at<double>(0, i) = rig.images[i][0], image1.at<double>(1, i) = rig.images[i][1];
      image2.at<double>(0, i) = rig.images[i][2], image2.at<double>(1, i) = rig.images[i][3];
    }
  }
};

void OpenCVPerPoint(benchmark::State& state) {
  static OpenCVPair pair;
  double sum = 0;
  for (auto _ : state) {
    for (int i = 0; i < kPoints; ++i) {
      cv::Mat world;
      cv::triangulatePoints(pair.p1, pair.p2, pair.image1.col(i), pair.image2.col(i), world);
      sum += world.at<double>(0) / world.at<double>(3);
    }
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations() * kPoints);
}

void OpenCVBatch(benchmark::State& state) {
  static OpenCVPair pair;
  double sum = 0;
  for (auto _ : state) {
    cv::Mat world;
    cv::triangulatePoints(pair.p1, pair.p2, pair.image1, pair.image2, world);
    sum += world.at<double>(0, 0) / world.at<double>(3, 0);
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations() * kPoints);
}
#endif

void Register() {
  for (int n : {2, 4, 16}) {
    const std::string stem = "Triangulate" + std::to_string(kPoints) + "/cameras:" + std::to_string(n);
    benchmark::RegisterBenchmark((stem + "/ours").c_str(), [n](benchmark::State& s) { Ours(s, n); })
        ->Unit(benchmark::kMicrosecond);
  }
#ifdef ZELTRIM_HAVE_OPENCV
  const std::string stem = "Triangulate" + std::to_string(kPoints) + "/cameras:2";
  benchmark::RegisterBenchmark((stem + "/opencv_one_point_a_call").c_str(), OpenCVPerPoint)
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark((stem + "/opencv_all_points_in_one_call").c_str(), OpenCVBatch)
      ->Unit(benchmark::kMicrosecond);
#endif
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (!Host().Components()) {
    std::fprintf(stderr, "triangulate_bench: %s\n", Host().Error().c_str());
    return 1;
  }
  Register();
  RatioReporter reporter({"opencv_one_point_a_call", "opencv_all_points_in_one_call"});
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
