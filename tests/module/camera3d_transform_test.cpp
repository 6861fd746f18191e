// The projective camera through the loaded module: a synthetic camera with known truth,
// the point counts that decide between no solve, a direct solve and a refinement, its
// errors, the exported model function and its write-only text form. Interfaces, files,
// references and bad fits: the property suite.
#include <cmath>

#include "tests/module/CameraTestSupport.h"

namespace {

constexpr double kExactPixels = 1e-9;      // reprojection of exact data after the fit
constexpr double kExactRelative = 1e-9;    // matrix entries of exact data, relative to the largest
constexpr double kSameSolveRelative = 1e-7;  // two least-squares solves of one noisy system
constexpr double kNoisePixels = 0.5;

using namespace camera_test;

// The bench camera scaled so that p11 = 1.
const View kTruth(0.2, -0.3, 0.1, 0.3, -0.2, 10.0, 0.1);

void Scene(int count, std::vector<P>* image, std::vector<P>* world, double noise = 0, unsigned seed = 7) {
  camera_test::Scene(kTruth, count, image, world, noise, seed);
}

SmartPtr<ICamera3DTransform> NewCamera() { return LoadedModule::Get().Create<ICamera3DTransform>(L"Camera3DTransform"); }

HRESULT Fit(ICamera3DTransform* camera, const std::vector<P>& image, const std::vector<P>& world) {
  return QueryAs<ITransformBestFit>(camera)->BestFit(Points(image), Points(world), 0);
}

// P by rows from the matrix held by columns.
std::vector<double> Rows(ICamera3DTransform* camera) {
  double* m = nullptr;
  camera->GetMatrix(&m, nullptr, nullptr);
  std::vector<double> rows(12);
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) rows[4 * r + c] = m[3 * c + r];
  return rows;
}

double SquaredDistance(const std::vector<double>& p, const P& u, const P& w) {
  const double d = p[8] * w.x + p[9] * w.y + p[10] * w.z + p[11];
  const double du = u.x - (p[0] * w.x + p[1] * w.y + p[2] * w.z + p[3]) / d;
  const double dv = u.y - (p[4] * w.x + p[5] * w.y + p[6] * w.z + p[7]) / d;
  return du * du + dv * dv;
}

// The direct solution with p11 = 1: normal equations of the two rows per point, solved
// by Gaussian elimination with partial pivoting.
std::vector<double> LinearSolution(const std::vector<P>& image, const std::vector<P>& world) {
  double n[11][12] = {};
  for (size_t i = 0; i < world.size(); ++i) {
    const P& w = world[i];
    const double rows[2][12] = {{w.x, w.y, w.z, 1, 0, 0, 0, 0, -image[i].x * w.x, -image[i].x * w.y, -image[i].x * w.z, image[i].x},
                                {0, 0, 0, 0, w.x, w.y, w.z, 1, -image[i].y * w.x, -image[i].y * w.y, -image[i].y * w.z, image[i].y}};
    for (const auto& row : rows)
      for (int a = 0; a < 11; ++a)
        for (int b = 0; b < 12; ++b) n[a][b] += row[a] * row[b];
  }
  for (int c = 0; c < 11; ++c) {
    int best = c;
    for (int r = c + 1; r < 11; ++r)
      if (std::fabs(n[r][c]) > std::fabs(n[best][c])) best = r;
    std::swap(n[c], n[best]);
    for (int r = 0; r < 11; ++r)
      if (r != c) {
        const double f = n[r][c] / n[c][c];
        for (int b = c; b < 12; ++b) n[r][b] -= f * n[c][b];
      }
  }
  std::vector<double> p(12, 1.0);
  for (int c = 0; c < 11; ++c) p[c] = n[c][11] / n[c][c];
  return p;
}

double Largest(const std::vector<double>& v) {
  double m = 0;
  for (double x : v) m = std::max(m, std::fabs(x));
  return m;
}

TEST(Camera3DTransform, ExactPointsGiveTheCameraBackAndReprojectToRounding) {
  std::vector<P> image, world;
  Scene(30, &image, &world);
  SmartPtr<ICamera3DTransform> camera = NewCamera();
  ASSERT_EQ(Fit(camera, image, world), S_OK);
  const std::vector<double> p = Rows(camera);
  // The refinement moves all twelve entries, the scale included: compare after p11 = 1.
  for (int i = 0; i < 12; ++i)
    EXPECT_NEAR(p[i] / p[11], kTruth.p[i / 4][i % 4], kExactRelative * Largest(p)) << "p" << i;
  EXPECT_LT(ErrorsOf(camera).error, kExactPixels);
  EXPECT_LT(ErrorsOf(camera).sd, kExactPixels);
  const P w{0.7, -1.1, 0.4};
  P probe = w;
  ASSERT_EQ(camera->Convert(&probe.x, &probe.y, &probe.z), S_OK);
  ExpectNear(probe, kTruth.Image(w), kExactPixels);  // z becomes 0
}

TEST(Camera3DTransform, NoisyPointsGiveErrorsThatFollowTheNoise) {
  std::vector<P> image, world;
  Scene(200, &image, &world, kNoisePixels, 11);
  SmartPtr<ICamera3DTransform> camera = NewCamera();
  ASSERT_EQ(Fit(camera, image, world), S_OK);
  // Root mean square of a 2D error of kNoisePixels per axis: sqrt(2) kNoisePixels, less
  // the little the twelve parameters absorb; the largest of 200 lies some deviations out.
  const auto [error2, error, sd] = ErrorsOf(camera);
  EXPECT_NEAR(sd, std::sqrt(2.0) * kNoisePixels, 0.15 * kNoisePixels);
  EXPECT_GT(error, 2.0 * kNoisePixels);
  EXPECT_LT(error, 5.0 * kNoisePixels);
  EXPECT_EQ(error2, error) << "the first output is the largest distance again";
  // The figures are those of the fitted matrix, recomputed here: the largest distance, and
  // the root of the sum of squares over N - 1.
  const std::vector<double> p = Rows(camera);
  double sum = 0, largest = 0;
  for (size_t i = 0; i < world.size(); ++i) {
    const double q = SquaredDistance(p, image[i], world[i]);
    sum += q;
    largest = std::max(largest, q);
  }
  EXPECT_NEAR(error, std::sqrt(largest), 1e-12);
  EXPECT_NEAR(sd, std::sqrt(sum / (world.size() - 1)), 1e-12);
  EXPECT_DOUBLE_EQ(Parameter(camera, L"MaxError"), error);
  EXPECT_DOUBLE_EQ(Parameter(camera, L"SDError"), sd);
}

// Below twelve points the minimiser refuses and the direct solution stands; from twelve on
// all twelve entries are refined on the squared distances, so the sum of their squares
// (fourth powers of distances) is at a minimum where the direct solution is not.
TEST(Camera3DTransform, ElevenPointsKeepTheDirectSolutionAndTwelveAreRefinedOnFourthPowers) {
  for (int count : {11, 12, 40}) {
    SCOPED_TRACE(count);
    std::vector<P> image, world;
    Scene(count, &image, &world, 2.0, 3);
    SmartPtr<ICamera3DTransform> camera = NewCamera();
    ASSERT_EQ(Fit(camera, image, world), S_OK);
    const std::vector<double> fitted = Rows(camera), direct = LinearSolution(image, world);
    double gap = 0;
    for (int i = 0; i < 12; ++i) gap = std::max(gap, std::fabs(fitted[i] - direct[i]));
    if (count < 12) {
      EXPECT_LT(gap, kSameSolveRelative * Largest(direct));
      continue;
    }
    EXPECT_GT(gap, 1e-4 * Largest(direct)) << "refined";
    auto fourth = [&](const std::vector<double>& p) {
      double s = 0;
      for (size_t i = 0; i < world.size(); ++i) s += std::pow(SquaredDistance(p, image[i], world[i]), 2);
      return s;
    };
    const double at = fourth(fitted);
    EXPECT_LT(at, fourth(direct));
    for (int i = 0; i < 12; ++i)
      for (double step : {-1e-3, 1e-3}) {
        std::vector<double> moved = fitted;
        moved[i] += step * std::max(std::fabs(fitted[i]), 1e-3);
        EXPECT_GE(fourth(moved), at * (1 - 1e-9)) << "a step along p" << i << " lowers the sum";
      }
  }
}

TEST(Camera3DTransform, SixPointsSufficeFiveOrCoplanarOnesAreSingular) {
  for (int count : {6, 8}) {
    std::vector<P> image, world;
    Scene(count, &image, &world);
    SmartPtr<ICamera3DTransform> camera = NewCamera();
    ASSERT_EQ(Fit(camera, image, world), S_OK) << count;
    const std::vector<double> p = Rows(camera);
    for (int i = 0; i < 12; ++i) EXPECT_NEAR(p[i], kTruth.p[i / 4][i % 4], 1e-6 * Largest(p)) << count << " p" << i;
  }
  // All world points in the plane Z = 0: the Z columns of the design are zero.
  std::vector<P> image, world;
  for (int i = 0; i < 5; ++i)
    for (int j = 0; j < 4; ++j) {
      world.push_back({i * 0.5 - 1, j * 0.5 - 1, 0});
      image.push_back(kTruth.Image(world.back()));
    }
  EXPECT_EQ(Fit(NewCamera(), image, world), E_FAIL);
}

// With no points the solve is skipped: E_POINTER, the matrix holds only p11 = 1, and the
// errors are zero. One point leaves the solve singular with the same matrix, so the error
// is the point's distance from (0, 0), and one distance has no deviation.
TEST(Camera3DTransform, NoPointsOrOnePointLeaveTheMatrixOfP11Alone) {
  const std::vector<P> none, one = {{3, 4, 0}}, oneWorld = {{1, 2, 3}};
  SmartPtr<ICamera3DTransform> camera = NewCamera();
  EXPECT_EQ(Fit(camera, none, none), E_POINTER);
  std::vector<double> expected(12, 0.0);
  expected[11] = 1.0;
  EXPECT_EQ(Rows(camera), expected);
  auto errors = [&camera] {
    const FitErrors e = ErrorsOf(camera);
    return std::vector<double>{e.error2, e.error, e.sd};
  };
  EXPECT_EQ(errors(), std::vector<double>({0, 0, 0}));
  EXPECT_EQ(Fit(camera, one, oneWorld), E_FAIL);
  EXPECT_EQ(Rows(camera), expected);
  EXPECT_EQ(errors(), std::vector<double>({5, 5, 0}));
}

TEST(Camera3DTransform, SurplusImagePointsAreIgnoredInTheFitAndTheErrors) {
  std::vector<P> image, world;
  Scene(20, &image, &world, kNoisePixels, 5);
  SmartPtr<ICamera3DTransform> plain = NewCamera(), longer = NewCamera();
  ASSERT_EQ(Fit(plain, image, world), S_OK);
  std::vector<P> more = image;
  more.push_back({1e4, -1e4, 0});
  more.push_back({-5e3, 7e3, 0});
  ASSERT_EQ(Fit(longer, more, world), S_OK);
  EXPECT_EQ(Rows(plain), Rows(longer));
  for (IUnknown* camera : {plain.get(), longer.get()}) {
    EXPECT_EQ(ErrorsOf(camera).error, ErrorsOf(plain).error);
    EXPECT_EQ(ErrorsOf(camera).sd, ErrorsOf(plain).sd);
  }
}

// The two rows of SolveMatrix are planes through the viewing ray: every world point that
// the camera sees at (u, v) lies on both.
TEST(Camera3DTransform, SolveMatrixGivesTwoPlanesThroughTheViewingRay) {
  std::vector<P> image, world;
  Scene(20, &image, &world);
  SmartPtr<ICamera3DTransform> camera = NewCamera();
  ASSERT_EQ(Fit(camera, image, world), S_OK);
  for (const P& w : {P{0.5, 0.2, -0.3}, P{-1.5, 1, 1.8}}) {
    P u = w;
    camera->Convert(&u.x, &u.y, &u.z);
    double planes[8];
    ASSERT_EQ(camera->SolveMatrix(planes, u.x, u.y), S_OK);
    for (int row = 0; row < 2; ++row) {
      const double* a = planes + 4 * row;
      const double scale = std::fabs(a[0]) + std::fabs(a[1]) + std::fabs(a[2]) + std::fabs(a[3]);
      EXPECT_NEAR(a[0] * w.x + a[1] * w.y + a[2] * w.z + a[3], 0.0, 1e-12 * scale) << "row " << row;
    }
  }
}

// The model function is exported by name and takes the object as its data pointer. Called
// by a host after the fit, it reads the fit's points from the object's collections.
TEST(Camera3DTransform, ExportedModelFunctionGivesSquaredDistancesOfTheFittedPoints) {
  const Evaluate evaluate = ModelFunction("CCamera3DTransform_LevenbergMarquardt_Evaluate");
  ASSERT_NE(evaluate, nullptr);
  std::vector<P> image, world;
  Scene(15, &image, &world, kNoisePixels, 9);
  SmartPtr<ICamera3DTransform> camera = NewCamera();
  ASSERT_EQ(Fit(camera, image, world), S_OK);
  SmartPtr<IUnknown> self = QueryAs<IUnknown>(camera);
  double* columns = nullptr;
  camera->GetMatrix(&columns, nullptr, nullptr);
  std::vector<double> residuals(15, -1.0);
  int info = 0;
  evaluate(columns, 15, self.get(), residuals.data(), &info);
  const std::vector<double> p = Rows(camera);
  for (int i = 0; i < 15; ++i) EXPECT_NEAR(residuals[i], SquaredDistance(p, image[i], world[i]), 1e-9) << i;
  EXPECT_EQ(info, 0);
}

// Four lines, each three consecutive doubles of the memory (a column of P), as 16-bit
// text after the mark; the form cannot be read back.
TEST(Camera3DTransform, TextFileHoldsTheColumnsOfPAndDoesNotLoad) {
  SmartPtr<ICamera3DTransform> camera = NewCamera();
  double* m = nullptr;
  camera->GetMatrix(&m, nullptr, nullptr);
  for (int i = 0; i < 12; ++i) m[i] = i + 1 + (i == 4 ? 0.123456789 : 0) - (i == 7 ? 20 : 0);
  const std::string expected =
      "1.00000000,2.00000000,3.00000000\r\n4.00000000,5.12345679,6.00000000\r\n"
      "7.00000000,-12.00000000,9.00000000\r\n10.00000000,11.00000000,12.00000000\r\n";
  std::string utf16 = "\xFF\xFE";
  for (char ch : expected) utf16 += std::string{ch, '\0'};
  const std::string path = TempPath("camera.csv");
  ASSERT_EQ(Archive(camera, path, true), S_OK);
  EXPECT_TRUE(ReadBytes(path) == utf16);
  SmartPtr<ICamera3DTransform> other = NewCamera();
  EXPECT_EQ(Archive(other, path, false), E_FAIL);
  EXPECT_EQ(Rows(other), std::vector<double>(12, 0.0));
  std::remove(path.c_str());
}

TEST(Camera3DTransform, ANewCameraConvertsToNotANumber) {
  SmartPtr<ICamera3DTransform> camera = NewCamera();
  P p{1, 2, 3};
  EXPECT_EQ(camera->Convert(&p.x, &p.y, &p.z), S_OK);
  EXPECT_TRUE(std::isnan(p.x) && std::isnan(p.y));
}

// ------------------------------------------------------------------ the shared checks

void Prepare(IUnknown* object) {
  std::vector<P> image, world;
  Scene(20, &image, &world, kNoisePixels, 13);
  Fit(QueryAs<ICamera3DTransform>(object), image, world);
}

const std::vector<P> kNone, kFive = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {1, 1, 1}};

const property::ClassTraits kTransformTraits{
    .name = L"Camera3DTransform",
    // ICalibrationInfo is a base, and still not answered.
    .routes = {{&IID_IObjectInfo}, {&IID_ICamera3DTransform}, {&IID_ITransform, &IID_ICamera3DTransform},
               {&IID_IDataPersist}, {&IID_IFileArchive}, {&IID_ITransformBestFit}, {&IID_ITransformFitErrors},
               {&IID_IParametricObject}, {&IID_IUIPropertyPageSpecify}},
    .prepare = Prepare,
    // The folder form does not store the first of the three errors. XML gets the text
    // form inside its element, which does not read back.
    .forms = {{.xml = false, .extension = "tCAL", .lost = {"errors.mean"}},
              {.xml = true, .extension = "xml", .load = E_FAIL, .lost = {"convert", "matrix", "errors", "param", "info"}}},
    .filter = L"Calibration (*.csv)|*.csv|All Files (*.*)|*.*||",
    .unnamedFormWritesText = true,
    .nullStream = {S_OK, E_FAIL},
    .otherStream = {S_OK, E_FAIL},
    .setParametersIgnored = true,
    .fit = [](IUnknown* o, ISimpleCollection* image, ISimpleCollection* world) {
      return QueryAs<ITransformBestFit>(o)->BestFit(image, world, 0);
    },
    .badFits = {{"null collections are refused", nullptr, nullptr, E_FAIL},
                {"no world points are refused", &kFive, nullptr, E_FAIL},
                {"no points leave nothing to solve", &kNone, &kNone, E_POINTER},
                {"five points leave the normal matrix singular", &kFive, &kFive, E_FAIL}},
    .pages = {{L"", L"CalibrationInfoPropPage", L""},
              {L"", L"UIParametricObjectPropPage", L"Camera3DTransform"},
              {L"", L"CalibrationMatrixPropPage", L"Camera3DTransform"},
              {L"", L"UIFileArchivePropPage", L""}},
};
ZELTRIM_PROPERTY_CLASS(kTransformTraits);

}  // namespace
