// Independent objects driven from several threads at once: each thread fits, converts,
// saves and loads its own calibrations, sharing only the loaded module and its peers.
// The CI runs this under ThreadSanitizer.
#include <thread>

#include "tests/module/CameraTestSupport.h"

namespace {

using camera_test::Scene;
using camera_test::View;

// A best-fit plane calibration and a projective camera fitted on data of its own (the
// thread's number moves the camera), each checked against its truth, then through a saved
// folder stream into a new object of its class. Returns the number of failed checks.
int FitConvertAndReload(int thread) {
  LoadedModule& m = LoadedModule::Get();
  int failures = 0;
  auto expectNear = [&](double got, double want, double tolerance) {
    if (!(std::fabs(got - want) <= tolerance)) ++failures;
  };

  std::vector<P> source, target;
  Grid(&source, &target);
  SmartPtr<ICalibrationBestFit> plane = NewCalibration();
  if (plane->BestFit(Points(source), Points(target), 0) < 0) ++failures;
  const P probe{30.0 + thread, 40, 0};
  const P mapped = Converted(plane, probe), truth = Homography(probe);
  expectNear(mapped.x, truth.x, 1e-6);
  expectNear(mapped.y, truth.y, 1e-6);

  const View view(0.1 * thread, -0.2, 0.05, 0.3, -0.2, 10.0 + thread);
  std::vector<P> image, world;
  Scene(view, 40, &image, &world, 0, 11u + static_cast<unsigned>(thread));
  SmartPtr<ITransformBestFit> camera = m.Create<ITransformBestFit>(L"Camera3DTransform");
  if (camera->BestFit(Points(image), Points(world), 0) < 0) ++failures;
  SmartPtr<ICamera3DTransform> projective = QueryAs<ICamera3DTransform>(camera);
  for (int i = 0; i < 5; ++i) {
    const P u = Converted(projective, world[i]);
    expectNear(u.x, image[i].x, 1e-6);
    expectNear(u.y, image[i].y, 1e-6);
  }

  for (IUnknown* object : {static_cast<IUnknown*>(plane.get()), static_cast<IUnknown*>(camera.get())}) {
    SmartPtr<IDataStream> folder = m.CreateHost<IDataStream>(L"FolderStream");
    folder->Open(nullptr, 1000, 1);
    if (QueryAs<IDataPersist>(object)->Save(folder, 0) < 0) ++failures;
    const wchar_t* name = object == static_cast<IUnknown*>(plane.get()) ? L"CalibrationBestFit" : L"Camera3DTransform";
    SmartPtr<IDataPersist> copy = m.Create<IDataPersist>(name);
    if (copy->Load(folder, 0) < 0) ++failures;
    // A plane calibration converts as ICalibration, a camera as ITransform.
    auto convert = [&](IUnknown* converter) {
      if (SmartPtr<ICalibration> c = QueryAs<ICalibration>(converter)) return Converted(c, probe);
      if (SmartPtr<ITransform> t = QueryAs<ITransform>(converter)) return Converted(t, probe);
      ++failures;
      return P{};
    };
    const P a = convert(object), b = convert(copy);
    expectNear(b.x, a.x, 1e-9 * (1 + std::fabs(a.x)));
    expectNear(b.y, a.y, 1e-9 * (1 + std::fabs(a.y)));
  }
  return failures;
}

TEST(IndependentObjects, FitConvertAndReloadFromSeveralThreads) {
  // Once alone first: the module fills its caches of host creators without a lock, by
  // design, and the peers are loaded on first use.
  ASSERT_EQ(FitConvertAndReload(0), 0);
  constexpr int kThreads = 4, kRounds = 3;
  std::vector<int> failures(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t, &failures] {
      for (int round = 0; round < kRounds; ++round) failures[t] += FitConvertAndReload(t + 1);
    });
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(failures[t], 0) << "thread " << t;
}

}  // namespace
