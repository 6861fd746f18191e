// Speed of the planar-target camera calibration (Camera3DTrinsic, loaded through the
// dynamic loader as a host loads it) on the bundled sample (13 views of 54 corners) and
// on synthetic sets, of Revert per point, and of the projective camera's fit
// (Camera3DTransform) on 12, 100 and 1000 points. Where OpenCV is present, calibrateCamera
// runs on the same points in this binary, once with the pinhole model alone and once
// with its default flags, and the ratios close the output.
// Runs from the build folder, where _binlinux/ holds the module and its peers.
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "bench/RatioReporter.h"
#include "camera/Camera3DTrinsic.h"

#ifdef ZELTRIM_HAVE_OPENCV
#include <opencv2/calib3d.hpp>
#endif

namespace {

typedef HRESULT (*CreateFn)(tagREFString, void**);
typedef HRESULT (*InitFn)(void*, IComponentCollection*);
typedef HRESULT (*CreatorFn)(void*, IID*, void**);

tagREFString Ref(const wchar_t* text) { return tagREFString{static_cast<int32_t>(std::wcslen(text)), text}; }

// The module and the global collection, loaded once as a framework host does. Not the
// host library's ModuleHost: that registers an "EventLogGlobal", and the calibration would
// then format and hand over its log lines inside the timed loop.
struct Host {
  CreateFn create = nullptr;
  IComponentCollection* components = nullptr;
  bool ok = false;

  static Host& Get() {
    static Host host;
    return host;
  }
  Host() {
    void* peer = dlopen("./_binlinux/CollectionsEx.so", RTLD_NOW);
    void* module = dlopen("./_binlinux/Zeltrim.so", RTLD_NOW);
    if (!peer || !module) return;
    void* creator = nullptr;
    auto peerCreate = reinterpret_cast<CreateFn>(dlsym(peer, "CreateFunction"));
    if (!peerCreate || peerCreate(Ref(L"GlobalComponentCollection"), &creator) != S_OK) return;
    IID iid = IID_IComponentCollection;
    void* collection = nullptr;
    reinterpret_cast<CreatorFn>(creator)(nullptr, &iid, &collection);
    components = static_cast<IComponentCollection*>(collection);
    create = reinterpret_cast<CreateFn>(dlsym(module, "CreateFunction"));
    auto init = reinterpret_cast<InitFn>(dlsym(module, "InitializeModule"));
    ok = components && create && init && init(nullptr, components) == 0;
  }

  template <class I>
  SmartPtr<I> Module(const wchar_t* name) {
    SmartPtr<I> result;
    void* creator = nullptr;
    void* object = nullptr;
    IID iid = I::Iid();
    if (ok && create(Ref(name), &creator) == S_OK && reinterpret_cast<CreatorFn>(creator)(nullptr, &iid, &object) == S_OK)
      result.Attach(static_cast<I*>(object));
    return result;
  }
  // Points from pairs (x, y) or, with `dimensions` 3, triples (x, y, z).
  SmartPtr<IPointsCollection> Points(const std::vector<double>& values, size_t dimensions = 2) {
    SmartPtr<IPointsCollection> c;
    void* p = nullptr;
    const IID& iid = IID_IPointsCollection;
    if (ok && components->CreateComponent(16, L"PointsCollection", &iid, &p) == S_OK) c.Attach(static_cast<IPointsCollection*>(p));
    if (c)
      for (size_t i = 0; i + dimensions <= values.size(); i += dimensions)
        c->AddPoint(values[i], values[i + 1], dimensions == 3 ? values[i + 2] : 0.0);
    return c;
  }
};

// Views of a flat target: model (X, Y) pairs and the image (x, y) pairs of every view.
struct Views {
  std::vector<double> model, image;
  int views = 0, points = 0, width = 640, height = 480;
  SmartPtr<IPointsCollection> modelPoints, imagePoints;
};

void Read(const std::string& path, std::vector<double>* xy) {
  std::ifstream in(path);
  double x, y;
  while (in >> x >> y) xy->insert(xy->end(), {x, y});
}

Views Sample() {
  Views v;
  const std::string folder = ZELTRIM_SOURCE_DIR "/data/opencv-left-w7";
  Read(folder + "/model.txt", &v.model);
  for (int k = 1;; ++k) {
    char name[32];
    std::snprintf(name, sizeof(name), "/view%02d.txt", k);
    const size_t before = v.image.size();
    Read(folder + name, &v.image);
    if (v.image.size() == before) break;
    ++v.views;
  }
  v.points = static_cast<int>(v.model.size() / 2);
  return v;
}

// A square grid of `points` corners seen from `views` poses by an 800-pixel camera, with
// seeded noise of 0.1 pixel.
Views Synthetic(int views, int points) {
  Views v;
  const int side = static_cast<int>(std::lround(std::sqrt(points)));
  for (int y = 0; y < side; ++y)
    for (int x = 0; x < side; ++x) v.model.insert(v.model.end(), {double(x), double(y)});
  std::mt19937 rng(42u + views * 1000u + points);
  std::uniform_real_distribution<double> angle(-0.4, 0.4);
  std::normal_distribution<double> noise(0.0, 0.1);
  for (int k = 0; k < views; ++k) {
    const double a = angle(rng), b = angle(rng), c = angle(rng);
    const double ca = std::cos(a), sa = std::sin(a), cb = std::cos(b), sb = std::sin(b), cc = std::cos(c), sc = std::sin(c);
    const double r[3][3] = {{cc * cb, cc * sb * sa - sc * ca, cc * sb * ca + sc * sa},
                            {sc * cb, sc * sb * sa + cc * ca, sc * sb * ca - cc * sa},
                            {-sb, cb * sa, cb * ca}};
    const double t[3] = {-(side - 1) / 2.0, -(side - 1) / 2.0, 2.2 * side};
    for (size_t i = 0; i + 1 < v.model.size(); i += 2) {
      double p[3];
      for (int j = 0; j < 3; ++j) p[j] = r[j][0] * v.model[i] + r[j][1] * v.model[i + 1] + t[j];
      v.image.insert(v.image.end(), {800 * p[0] / p[2] + 320 + noise(rng), 800 * p[1] / p[2] + 240 + noise(rng)});
    }
  }
  v.views = views;
  v.points = side * side;
  return v;
}

Views& Cached(const std::string& key, Views (*make)()) {
  static std::map<std::string, Views> cache;
  auto it = cache.find(key);
  if (it == cache.end()) {
    it = cache.emplace(key, make()).first;
    it->second.modelPoints = Host::Get().Points(it->second.model);
    it->second.imagePoints = Host::Get().Points(it->second.image);
  }
  return it->second;
}

Views& Set(int views, int points) {
  static std::map<std::pair<int, int>, Views> cache;
  auto it = cache.find({views, points});
  if (it == cache.end()) {
    it = cache.emplace(std::make_pair(views, points), Synthetic(views, points)).first;
    it->second.modelPoints = Host::Get().Points(it->second.model);
    it->second.imagePoints = Host::Get().Points(it->second.image);
  }
  return it->second;
}

void CalibrateOurs(benchmark::State& state, Views& v) {
  SmartPtr<ICamera3DTrinsic> camera = Host::Get().Module<ICamera3DTrinsic>(L"Camera3DTrinsic");
  SmartPtr<ITransformBestFit> fit = QueryAs<ITransformBestFit>(camera);
  if (!fit || !v.imagePoints) {
    state.SkipWithError("no module or no data");
    return;
  }
  camera->SetNormalizationImageSize(v.width, v.height);
  for (auto _ : state) {
    const HRESULT hr = fit->BestFit(v.imagePoints, v.modelPoints, 1);
    benchmark::DoNotOptimize(hr);
  }
  double sd = 0;
  QueryAs<ITransformFitErrors>(camera)->GetFitErrors(nullptr, nullptr, &sd);
  state.counters["sd_px"] = sd;
  state.SetItemsProcessed(state.iterations() * v.views * v.points);
}

#ifdef ZELTRIM_HAVE_OPENCV
void CalibrateOpenCV(benchmark::State& state, Views& v, int flags) {
  std::vector<std::vector<cv::Point3f>> objects(static_cast<size_t>(v.views));
  std::vector<std::vector<cv::Point2f>> corners(static_cast<size_t>(v.views));
  for (int k = 0; k < v.views; ++k)
    for (int i = 0; i < v.points; ++i) {
      objects[k].emplace_back(float(v.model[2 * i]), float(v.model[2 * i + 1]), 0.0f);
      corners[k].emplace_back(float(v.image[2 * (k * v.points + i)]), float(v.image[2 * (k * v.points + i) + 1]));
    }
  double rms = 0;
  for (auto _ : state) {
    cv::Mat camera, distortion;
    std::vector<cv::Mat> rotations, translations;
    rms = cv::calibrateCamera(objects, corners, cv::Size(v.width, v.height), camera, distortion, rotations,
                              translations, flags);
    benchmark::DoNotOptimize(rms);
  }
  state.counters["rms_px"] = rms;
  state.SetItemsProcessed(state.iterations() * v.views * v.points);
}
const int kPinholeOnly = cv::CALIB_FIX_K1 | cv::CALIB_FIX_K2 | cv::CALIB_FIX_K3 | cv::CALIB_ZERO_TANGENT_DIST;
#endif

// Revert, one decomposition per call, on the class itself (it stands on no interface the
// module answers).
void RevertPerPoint(benchmark::State& state) {
  CCamera3DTrinsic camera;
  double* a = nullptr;
  double* e = nullptr;
  camera.GetMatrix(1, &a, nullptr, nullptr);
  camera.GetMatrix(2, &e, nullptr, nullptr);
  const double intrinsic[9] = {800, 0, 0, 0.5, 790, 0, 320, 240, 1};
  for (int i = 0; i < 9; ++i) a[i] = intrinsic[i];
  e[12] = -3, e[13] = -2, e[14] = 20;
  camera.GetMatrix(9, nullptr, nullptr, nullptr);
  double u = 100;
  for (auto _ : state) {
    double x = u, y = 200, z = 0;
    camera.Revert(&x, &y, &z);
    benchmark::DoNotOptimize(x);
    u = u < 600 ? u + 1 : 100;
  }
  state.SetItemsProcessed(state.iterations());
}

// The projective camera's fit: `points` world points in a box seen by an 800-pixel
// camera, with seeded noise of 0.1 pixel. Twelve points or more are refined.
void ResectOurs(benchmark::State& state) {
  const int points = static_cast<int>(state.range(0));
  std::mt19937 rng(7u + points);
  std::uniform_real_distribution<double> box(-1.0, 1.0);
  std::normal_distribution<double> noise(0.0, 0.1);
  std::vector<double> world, image;
  for (int i = 0; i < points; ++i) {
    const double x = box(rng), y = box(rng), z = box(rng);
    world.insert(world.end(), {x, y, z});
    const double w = 0.1 * x + 0.05 * y + z + 6;
    image.insert(image.end(), {(800 * x + 10 * y + 320 * z + 1900) / w + noise(rng),
                               (-20 * x + 790 * y + 240 * z + 1400) / w + noise(rng)});
  }
  SmartPtr<IPointsCollection> worldPoints = Host::Get().Points(world, 3), imagePoints = Host::Get().Points(image);
  SmartPtr<ICamera3DTransform> camera = Host::Get().Module<ICamera3DTransform>(L"Camera3DTransform");
  SmartPtr<ITransformBestFit> fit = QueryAs<ITransformBestFit>(camera);
  if (!fit || !worldPoints) {
    state.SkipWithError("no module");
    return;
  }
  for (auto _ : state) {
    const HRESULT hr = fit->BestFit(imagePoints, worldPoints, 0);
    benchmark::DoNotOptimize(hr);
  }
  double sd = 0;
  QueryAs<ITransformFitErrors>(camera)->GetFitErrors(nullptr, nullptr, &sd);
  state.counters["sd_px"] = sd;
  state.SetItemsProcessed(state.iterations() * points);
}

void Register() {
  struct Case {
    std::string name;
    Views* views;
  };
  std::vector<Case> cases = {{"Calibrate/sample_13x54", &Cached("sample", &Sample)},
                             {"Calibrate/synthetic_30x100", &Set(30, 100)}};
  for (const Case& c : cases) {
    Views* v = c.views;
    benchmark::RegisterBenchmark((c.name + "/ours").c_str(), [v](benchmark::State& s) { CalibrateOurs(s, *v); })
        ->Unit(benchmark::kMillisecond);
#ifdef ZELTRIM_HAVE_OPENCV
    benchmark::RegisterBenchmark((c.name + "/opencv_pinhole").c_str(),
                                 [v](benchmark::State& s) { CalibrateOpenCV(s, *v, kPinholeOnly); })
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark((c.name + "/opencv_default").c_str(),
                                 [v](benchmark::State& s) { CalibrateOpenCV(s, *v, 0); })
        ->Unit(benchmark::kMillisecond);
#endif
  }
  // How the cost grows: views at 100 points, points at 10 views.
  for (const auto& [views, points] : std::vector<std::pair<int, int>>{{5, 100}, {10, 100}, {20, 100}, {40, 100}, {10, 25}, {10, 400}, {10, 1600}}) {
    Views* v = &Set(views, points);
    const std::string name = "Scaling/views:" + std::to_string(views) + "/points:" + std::to_string(v->points);
    benchmark::RegisterBenchmark(name.c_str(), [v](benchmark::State& s) { CalibrateOurs(s, *v); })
        ->Unit(benchmark::kMillisecond);
  }
  benchmark::RegisterBenchmark("Revert/per_point", RevertPerPoint);
  benchmark::RegisterBenchmark("Resect/points", ResectOurs)->Arg(12)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (!Host::Get().ok) {
    std::fprintf(stderr, "calibrate_bench: run it from the build folder (needs _binlinux/)\n");
    return 1;
  }
  Register();
  RatioReporter reporter({"opencv_pinhole", "opencv_default"});
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
