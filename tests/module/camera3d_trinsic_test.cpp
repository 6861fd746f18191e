// The planar-target camera calibration through the loaded module: synthetic cameras with
// known truth, the quirks that change its numbers, its failures, its stored forms and the
// real chessboard sets.
#include <dirent.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <cwchar>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "tests/module/PropertySuite.h"

#ifdef ZELTRIM_HAVE_OPENCV
#include <opencv2/calib3d.hpp>
#endif

namespace {

// Exact data: the closed forms on exact homographies come back to rounding.
constexpr double kExactPixels = 1e-8;     // reprojection error of exact data, pixels
constexpr double kExactRelative = 1e-9;   // intrinsics and pose entries, relative
constexpr double kTextDecimals = 1e-6;    // matrices in XML text carry six decimals
constexpr double kTextDigits = 1e-9;      // numbers in XML text carry up to nine decimals
// P rebuilt from A (entries of some hundreds) and a pose, each rounded to six decimals.
constexpr double kRebuiltFromText = 1e-3;
constexpr int kWidth = 640, kHeight = 480;
// Real corners seen through real lenses: the pinhole closed form leaves the lens
// distortion in its errors, about 3 px on the 13-view sets and up to 9 px on 4 views.
constexpr double kRealSdPixels = 10.0;
constexpr double kRealMaxPixels = 25.0;

typedef std::array<double, 3> P3;

struct Truth {
  double fx = 820.0, fy = 790.0, skew = 1.5, cx = 331.0, cy = 247.0;
  // Pose of each view: rotation (by columns r1 r2 r3) and translation, world to camera.
  std::vector<std::array<double, 9>> rotations;
  std::vector<P3> translations;
};

std::array<double, 9> Rotation(double rx, double ry, double rz) {
  // R = Rz Ry Rx, stored by columns.
  const double cx = std::cos(rx), sx = std::sin(rx), cy = std::cos(ry), sy = std::sin(ry), cz = std::cos(rz),
               sz = std::sin(rz);
  const double r[3][3] = {{cz * cy, cz * sy * sx - sz * cx, cz * sy * cx + sz * sx},
                          {sz * cy, sz * sy * sx + cz * cx, sz * sy * cx - cz * sx},
                          {-sy, cy * sx, cy * cx}};
  std::array<double, 9> out;
  for (int c = 0; c < 3; ++c)
    for (int row = 0; row < 3; ++row) out[3 * c + row] = r[row][c];
  return out;
}

// A 9 x 6 grid of unit pitch and five views of it.
std::vector<P3> Board(int columns = 9, int rows = 6) {
  std::vector<P3> model;
  for (int y = 0; y < rows; ++y)
    for (int x = 0; x < columns; ++x) model.push_back({double(x), double(y), 0.0});
  return model;
}

Truth FiveViews() {
  Truth t;
  const double angles[5][3] = {{0.3, -0.2, 0.05}, {-0.25, 0.3, -0.1}, {0.1, 0.4, 0.2}, {-0.35, -0.15, 0.3}, {0.2, 0.1, -0.25}};
  const P3 moves[5] = {{-4, -2.5, 18}, {-3.5, -3, 20}, {-5, -2, 17}, {-4.2, -2.2, 21}, {-3.8, -2.8, 19}};
  for (int k = 0; k < 5; ++k) {
    t.rotations.push_back(Rotation(angles[k][0], angles[k][1], angles[k][2]));
    t.translations.push_back(moves[k]);
  }
  return t;
}

P3 Project(const Truth& t, int view, const P3& w) {
  const std::array<double, 9>& r = t.rotations[view];
  const P3& m = t.translations[view];
  double c[3];
  for (int i = 0; i < 3; ++i) c[i] = r[i] * w[0] + r[3 + i] * w[1] + r[6 + i] * w[2] + m[i];
  const double x = c[0] / c[2], y = c[1] / c[2];
  return {t.fx * x + t.skew * y + t.cx, t.fy * y + t.cy, 0.0};
}

SmartPtr<IPointsCollection> Cloud(const std::vector<P3>& points) {
  SmartPtr<IPointsCollection> c = LoadedModule::Get().CreateHost<IPointsCollection>(L"PointsCollection");
  for (const P3& p : points) c->AddPoint(p[0], p[1], p[2]);
  return c;
}

// The image points of every view, one behind the other.
std::vector<P3> AllViews(const Truth& t, const std::vector<P3>& model) {
  std::vector<P3> image;
  for (size_t k = 0; k < t.rotations.size(); ++k)
    for (const P3& w : model) image.push_back(Project(t, static_cast<int>(k), w));
  return image;
}

SmartPtr<ICamera3DTrinsic> NewCamera() { return LoadedModule::Get().Create<ICamera3DTrinsic>(L"Camera3DTrinsic"); }

HRESULT Fit(ICamera3DTrinsic* camera, ISimpleCollection* image, ISimpleCollection* model, int mode) {
  return QueryAs<ITransformBestFit>(camera)->BestFit(image, model, mode);
}

struct Errors {
  double error2 = 0, error = 0, sd = 0;
};
Errors ErrorsOf(ICamera3DTrinsic* camera) {
  Errors e;
  QueryAs<ITransformFitErrors>(camera)->GetFitErrors(&e.error2, &e.error, &e.sd);
  return e;
}

std::vector<double> Matrix(ICamera3DTrinsic* camera, int id) {
  double* data = nullptr;
  int rows = 0, cols = 0;
  camera->GetMatrix(id, &data, &rows, &cols);
  return std::vector<double>(data, data + rows * cols);
}

// Image of a model point by the camera's own P (read through GetMatrix(0)).
P3 ByMatrix(const std::vector<double>& p, const P3& w) {
  double r[3];
  for (int i = 0; i < 3; ++i) r[i] = w[0] * p[i] + w[1] * p[3 + i] + w[2] * p[6 + i] + p[9 + i];
  return {r[0] / r[2], r[1] / r[2], 0.0};
}

// The event log a host registers; it keeps every line it is given.
class LineLog : public IUILineDisplayable {
 public:
  LineLog() {
    LoadedModule::Get().components->RegisterInstance(14, L"EventLogGlobal", this);
  }
  ~LineLog() { LoadedModule::Get().components->RegisterInstance(14, L"EventLogGlobal", nullptr); }
  HRESULT QueryInterface(const IID& iid, void** out) override {
    if (iid != IID_IUnknown && iid != IID_IUILineDisplayable) return *out = nullptr, E_NOINTERFACE;
    *out = static_cast<IUILineDisplayable*>(this);
    AddRef();
    return S_OK;
  }
  int AddRef() override { return ++m_Refs; }
  int Release() override { return --m_Refs; }  // lives on the test's stack
  HRESULT AddLine(IString* source, IString* text, int flags) override {
    sources.push_back(Text(source));
    lines.push_back(Text(text));
    this->flags.push_back(flags);
    return S_OK;
  }
  std::vector<std::wstring> sources, lines;
  std::vector<int> flags;

 private:
  int m_Refs = 1;
};

void ExpectIntrinsics(ICamera3DTrinsic* camera, const Truth& t, double relative) {
  const std::vector<double> a = Matrix(camera, 1);
  const double want[12] = {t.fx, 0, 0, t.skew, t.fy, 0, t.cx, t.cy, 1, 0, 0, 0};
  for (int i = 0; i < 12; ++i) EXPECT_NEAR(a[i], want[i], relative * 1000.0) << "A entry " << i;
  EXPECT_NEAR(Parameter(camera, L"fSx"), t.fx, relative * t.fx);
  EXPECT_NEAR(Parameter(camera, L"fSy"), t.fy, relative * t.fy);
  EXPECT_NEAR(Parameter(camera, L"Skew"), t.skew, relative * t.fx);
  EXPECT_NEAR(Parameter(camera, L"CenterX"), t.cx, relative * t.cx);
  EXPECT_NEAR(Parameter(camera, L"CenterY"), t.cy, relative * t.cy);
}

void ExpectPose(ICamera3DTrinsic* camera, const Truth& t, int view, double relative) {
  const std::vector<double> e = Matrix(camera, 2);
  for (int c = 0; c < 3; ++c)
    for (int r = 0; r < 3; ++r) EXPECT_NEAR(e[4 * c + r], t.rotations[view][3 * c + r], relative) << c << r;
  for (int r = 0; r < 3; ++r) EXPECT_NEAR(e[12 + r], t.translations[view][r], relative * 20.0);
  EXPECT_EQ(e[3], 0.0);
  EXPECT_EQ(e[15], 1.0);
}

// ------------------------------------------------------------------ exact and noisy data

TEST(Camera3DTrinsic, ExactViewsGiveIntrinsicsAndLastPoseBackInFlatMode) {
  const Truth t = FiveViews();
  const std::vector<P3> model = Board();
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  ASSERT_EQ(Fit(camera, Cloud(AllViews(t, model)), Cloud(model), 1), S_OK);
  ExpectIntrinsics(camera, t, kExactRelative);
  ExpectPose(camera, t, 4, kExactRelative);
  const Errors e = ErrorsOf(camera);
  EXPECT_LT(e.error, kExactPixels);
  EXPECT_LT(e.sd, kExactPixels);
  // The combined matrix is A [R t] scaled to P[2][3] = 1, and Convert uses it.
  const std::vector<double> p = Matrix(camera, 0);
  EXPECT_NEAR(p[11], 1.0, 1e-15);
  for (const P3& w : {model[0], model[40]}) {
    const P3 want = Project(t, 4, w);
    double x = w[0], y = w[1], z = w[2];
    camera->Convert(&x, &y, &z);
    EXPECT_NEAR(x, want[0], kExactPixels);
    EXPECT_NEAR(y, want[1], kExactPixels);
    EXPECT_EQ(z, 0.0);
  }
}

TEST(Camera3DTrinsic, ExactViewsGiveTheSameCameraInCollectionMode) {
  const Truth t = FiveViews();
  const std::vector<P3> model = Board();
  SmartPtr<ICreatableSimpleCollection> views = LoadedModule::Get().CreateHost<ICreatableSimpleCollection>(L"SimpleCollection");
  for (size_t k = 0; k < t.rotations.size(); ++k) {
    std::vector<P3> view;
    for (const P3& w : model) view.push_back(Project(t, static_cast<int>(k), w));
    views->Add(Cloud(view));
  }
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  ASSERT_EQ(Fit(camera, views, Cloud(model), 0), S_OK);
  ExpectIntrinsics(camera, t, kExactRelative);
  ExpectPose(camera, t, 4, kExactRelative);
  EXPECT_LT(ErrorsOf(camera).error, kExactPixels);
}

TEST(Camera3DTrinsic, SeededNoiseGivesErrorsOfTheNoisesSize) {
  const Truth t = FiveViews();
  const std::vector<P3> model = Board();
  std::vector<P3> image = AllViews(t, model);
  const double sigma = 0.25;
  std::mt19937 random(20240611);
  std::normal_distribution<double> noise(0.0, sigma);
  for (P3& p : image) p[0] += noise(random), p[1] += noise(random);
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  ASSERT_EQ(Fit(camera, Cloud(image), Cloud(model), 1), S_OK);
  // A 2D distance of two independent N(0, sigma) parts has an RMS of sigma sqrt(2); the
  // per-view pose and shared intrinsics soak up part of it, errors of the closed form
  // (no joint refinement) add some.
  const double rms = sigma * std::sqrt(2.0);
  const Errors e = ErrorsOf(camera);
  EXPECT_GT(e.sd, 0.5 * rms);
  EXPECT_LT(e.sd, 3.0 * rms);
  EXPECT_LT(e.error, 6.0 * rms);
  EXPECT_NEAR(Parameter(camera, L"fSx"), t.fx, 0.03 * t.fx);
  EXPECT_NEAR(Parameter(camera, L"CenterX"), t.cx, 15.0);
}

// ------------------------------------------------------------------ quirks of the figures

// Poses of a camera fitted view by view: mode 2 keeps A and computes one view's pose.
std::vector<double> PoseOfOneView(ICamera3DTrinsic* camera, const std::vector<P3>& image, size_t view, size_t n,
                                  const std::vector<P3>& model) {
  const std::vector<P3> only(image.begin() + static_cast<long>(view * n), image.begin() + static_cast<long>((view + 1) * n));
  EXPECT_EQ(Fit(camera, Cloud(only), Cloud(model), 2), S_OK);
  return Matrix(camera, 0);
}

TEST(Camera3DTrinsic, MaxErrorIsTheLastViewsOddlyAndSdErrorCoversAllPointsWithNMinusOne) {
  const Truth t = FiveViews();
  const std::vector<P3> model = Board();
  std::vector<P3> image = AllViews(t, model);
  std::mt19937 random(7);
  std::normal_distribution<double> noise(0.0, 0.2);
  for (P3& p : image) p[0] += noise(random), p[1] += noise(random);
  image[10][0] += 6.0;  // the worst point of all, in view 0
  LineLog log;
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  ASSERT_EQ(Fit(camera, Cloud(image), Cloud(model), 1), S_OK);
  const Errors fitted = ErrorsOf(camera);
  const std::vector<double> a = Matrix(camera, 1);

  // Each view's residuals by its own P, computed here from the points.
  const size_t n = model.size();
  double squares = 0, worst = 0, lastMax = 0;
  for (size_t k = 0; k < 5; ++k) {
    const std::vector<double> p = PoseOfOneView(camera, image, k, n, model);
    double viewMax = 0;
    for (size_t i = 0; i < n; ++i) {
      const P3 u = ByMatrix(p, model[i]);
      const double q = (u[0] - image[k * n + i][0]) * (u[0] - image[k * n + i][0]) +
                       (u[1] - image[k * n + i][1]) * (u[1] - image[k * n + i][1]);
      squares += q;
      viewMax = std::max(viewMax, std::sqrt(q));
    }
    worst = std::max(worst, viewMax);
    lastMax = viewMax;
  }
  EXPECT_NEAR(fitted.error, lastMax, 1e-9);
  EXPECT_EQ(fitted.error2, fitted.error);
  EXPECT_LT(fitted.error, worst);  // the worst view's maximum is not what is reported
  EXPECT_NEAR(fitted.sd, std::sqrt(squares / (5.0 * n - 1.0)), 1e-9);
  // Mode 2 kept the intrinsics of the mode 1 fit.
  EXPECT_EQ(Matrix(camera, 1), a);
  EXPECT_EQ(Parameter(camera, L"fSx"), a[0]);

  // The log: one line per view and the overall line, with their formats and flags.
  ASSERT_EQ(log.lines.size(), 6u);  // mode 2 logs nothing
  wchar_t want[128];
  std::swprintf(want, 128, L"Overall Error  %0.2f, %0.2f", fitted.error, fitted.sd);
  EXPECT_EQ(log.lines[5], want);
  EXPECT_EQ(log.lines[0].substr(0, 11), L"FitError 0 ");
  EXPECT_EQ(log.lines[4].substr(0, 11), L"FitError 4 ");
  for (size_t i = 0; i < 6; ++i) {
    EXPECT_EQ(log.flags[i], 0x10000000);
    EXPECT_EQ(log.sources[i], L"Camera3DTrinsic");
  }
}

TEST(Camera3DTrinsic, DistortionIsEstimatedPerLastViewButConvertNeverAppliesIt) {
  const Truth t = FiveViews();
  const std::vector<P3> model = Board();
  std::vector<P3> image = AllViews(t, model);
  const double k1 = -0.08, k2 = 0.02;
  for (P3& p : image) {
    const double du = p[0] - t.cx, dv = p[1] - t.cy;
    const double r2 = std::pow(2 * du / kWidth, 2) + std::pow(2 * dv / kHeight, 2);
    const double f = k1 * r2 + k2 * r2 * r2;
    p[0] += du * f, p[1] += dv * f;
  }
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  ASSERT_EQ(Fit(camera, Cloud(image), Cloud(model), 1), S_OK);
  const std::vector<double> p = Matrix(camera, 0);
  const double cx = Parameter(camera, L"CenterX"), cy = Parameter(camera, L"CenterY");
  // The least-squares coefficients of the last view, by 2 x 2 normal equations here.
  double n11 = 0, n12 = 0, n22 = 0, b1 = 0, b2 = 0;
  const size_t n = model.size();
  for (size_t i = 0; i < n; ++i) {
    const P3 u = ByMatrix(p, model[i]);
    const P3& seen = image[4 * n + i];
    const double d[2] = {u[0] - cx, u[1] - cy}, o[2] = {seen[0] - cx, seen[1] - cy};
    const double r2 = d[0] * d[0] * (4.0 / kWidth / kWidth) + d[1] * d[1] * (4.0 / kHeight / kHeight);
    for (int j = 0; j < 2; ++j) {
      const double a1 = d[j] * r2, a2 = d[j] * r2 * r2, rhs = o[j] - d[j];
      n11 += a1 * a1, n12 += a1 * a2, n22 += a2 * a2, b1 += a1 * rhs, b2 += a2 * rhs;
    }
  }
  const double det = n11 * n22 - n12 * n12;
  const double want1 = (b1 * n22 - b2 * n12) / det, want2 = (n11 * b2 - n12 * b1) / det;
  EXPECT_NEAR(Parameter(camera, L"DistortionK1(NotUsed)"), want1, 1e-6 * std::fabs(want1));
  EXPECT_NEAR(Parameter(camera, L"DistortionK2(NotUsed)"), want2, 1e-6 * std::fabs(want2) + 1e-9);
  EXPECT_NE(want1, 0.0);
  // Convert is the pinhole P alone.
  for (const P3& w : model) {
    const P3 want = ByMatrix(p, w);
    double x = w[0], y = w[1], z = w[2];
    camera->Convert(&x, &y, &z);
    EXPECT_EQ(x, want[0]);
    EXPECT_EQ(y, want[1]);
  }
}

TEST(Camera3DTrinsic, ModeThreeChangesOnlyDistortionErrorsAndSums) {
  const Truth t = FiveViews();
  const std::vector<P3> model = Board();
  std::vector<P3> image = AllViews(t, model);
  image[3][0] += 0.5;
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  ASSERT_EQ(Fit(camera, Cloud(image), Cloud(model), 1), S_OK);
  const std::vector<double> before[3] = {Matrix(camera, 0), Matrix(camera, 1), Matrix(camera, 2)};
  const double fx = Parameter(camera, L"fSx");
  LineLog log;
  EXPECT_EQ(Fit(camera, Cloud(image), Cloud(model), 3), S_OK);
  EXPECT_EQ(Matrix(camera, 0), before[0]);
  EXPECT_EQ(Matrix(camera, 1), before[1]);
  EXPECT_EQ(Matrix(camera, 2), before[2]);
  EXPECT_EQ(Parameter(camera, L"fSx"), fx);
  EXPECT_EQ(Parameter(camera, L"DistortionK1(NotUsed)"), 0.0);
  EXPECT_EQ(Parameter(camera, L"DistortionK2(NotUsed)"), 0.0);
  const Errors e = ErrorsOf(camera);
  EXPECT_EQ(e.error, -1.0);
  EXPECT_EQ(e.error2, -1.0);
  EXPECT_EQ(e.sd, 0.0);
  EXPECT_TRUE(log.lines.empty());
}

TEST(Camera3DTrinsic, TwoAndAHalfViewsOfPointsGiveTwoViews) {
  const Truth t = FiveViews();
  const std::vector<P3> model = Board();
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  ASSERT_EQ(Fit(camera, Cloud(AllViews(t, model)), Cloud(model), 1), S_OK);
  // Views 2, 3 and half of 4: the pose is that of view 3, the half view is ignored.
  const std::vector<P3> all = AllViews(t, model);
  const size_t n = model.size();
  std::vector<P3> partial(all.begin() + 2 * n, all.begin() + 4 * n + n / 2);
  EXPECT_EQ(Fit(camera, Cloud(partial), Cloud(model), 2), S_OK);
  ExpectPose(camera, t, 3, kExactRelative);
  LineLog log;
  EXPECT_EQ(Fit(camera, Cloud(partial), Cloud(model), 1), S_OK);
  ASSERT_EQ(log.lines.size(), 3u);
  EXPECT_EQ(log.lines[1].substr(0, 11), L"FitError 1 ");
}

// ------------------------------------------------------------------ failures

TEST(Camera3DTrinsic, RefusedInputsLeaveTheObjectOrMarkTheErrorsUnknown) {
  const Truth t = FiveViews();
  const std::vector<P3> model = Board();
  SmartPtr<IPointsCollection> image = Cloud(AllViews(t, model)), grid = Cloud(model);
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  ASSERT_EQ(Fit(camera, image, grid, 1), S_OK);
  const Errors good = ErrorsOf(camera);

  // Refused before anything changes.
  EXPECT_EQ(Fit(camera, nullptr, grid, 1), E_INVALIDARG);
  EXPECT_EQ(Fit(camera, image, nullptr, 1), E_INVALIDARG);
  EXPECT_EQ(Fit(camera, image, Cloud({}), 1), E_INVALIDARG);
  EXPECT_EQ(Fit(camera, image, Cloud({{1, 2, 0}}), 1), E_INVALIDARG);                  // one point
  EXPECT_EQ(Fit(camera, image, Cloud({{0, 0, 0}, {1, 0, 0}, {2, 0, 0}}), 1), E_INVALIDARG);  // along X
  EXPECT_EQ(Fit(camera, image, grid, -1), E_INVALIDARG);
  EXPECT_EQ(ErrorsOf(camera).error, good.error);

  // Refused after the errors are marked unknown.
  EXPECT_EQ(Fit(camera, Cloud({}), grid, 1), E_FAIL);
  EXPECT_EQ(ErrorsOf(camera).error, -1.0);
  EXPECT_EQ(Parameter(camera, L"DistortionK1(NotUsed)"), 0.0);
  SmartPtr<ICreatableSimpleCollection> two = LoadedModule::Get().CreateHost<ICreatableSimpleCollection>(L"SimpleCollection");
  two->Add(image);
  two->Add(image);
  EXPECT_EQ(Fit(camera, two, grid, 0), E_FAIL);  // collection mode needs three views
  two->Add(grid);
  SmartPtr<IVariant> notPoints = LoadedModule::Get().CreateHost<IVariant>(L"Variant");
  two->Add(notPoints);
  EXPECT_EQ(Fit(camera, two, grid, 0), E_INVALIDARG);  // a view that is no collection
  const std::vector<P3> all = AllViews(t, model);
  const std::vector<P3> fewer(all.begin(), all.begin() + 20);
  EXPECT_EQ(Fit(camera, Cloud(fewer), grid, 1), E_INVALIDARG);  // fewer image than model points
  EXPECT_EQ(ErrorsOf(camera).error2, -1.0);
}

TEST(Camera3DTrinsic, DegenerateTargetsAndViewsFailInTheSolver) {
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  // A diagonal line has extent in X and Y, and no homography.
  std::vector<P3> line, lineImage;
  for (int i = 0; i < 12; ++i) line.push_back({double(i), 0.5 * i, 0}), lineImage.push_back({100.0 + 7 * i, 90.0 + 3 * i, 0});
  EXPECT_EQ(Fit(camera, Cloud(lineImage), Cloud(line), 1), E_FAIL);
  // Three points are fewer than a homography needs.
  EXPECT_EQ(Fit(camera, Cloud({{1, 1, 0}, {5, 2, 0}, {3, 4, 0}}), Cloud({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}), 1), E_FAIL);
  // A view whose points all sit on the image centre, where the normalised coordinates
  // are zero and two unknowns drop out.
  const std::vector<P3> model = Board();
  EXPECT_EQ(Fit(camera, Cloud(std::vector<P3>(model.size(), {320, 240, 0})), Cloud(model), 1), E_FAIL);
  EXPECT_EQ(ErrorsOf(camera).error, -1.0);
}

// ------------------------------------------------------------------ matrices and conversions

TEST(Camera3DTrinsic, MatrixIdsGiveLivePointersAndRebuildAsTheirRulesSay) {
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  double* p0 = nullptr;
  double* p8 = nullptr;
  int rows = 0, cols = 0;
  camera->GetMatrix(0, &p0, &rows, &cols);
  EXPECT_EQ(rows * 10 + cols, 43);
  camera->GetMatrix(8, &p8, nullptr, nullptr);
  EXPECT_EQ(p0, p8);
  camera->GetMatrix(&p8, nullptr, nullptr);
  EXPECT_EQ(p0, p8);
  EXPECT_EQ(Matrix(camera, 1111), std::vector<double>(9, 0.0));  // nothing computed yet
  EXPECT_EQ(camera->GetMatrix(9, nullptr, nullptr, nullptr), S_OK);

  // A hand-set camera written through the live pointers, then rebuilt by id 9.
  double* a = nullptr;
  double* e = nullptr;
  camera->GetMatrix(1, &a, nullptr, nullptr);
  camera->GetMatrix(2, &e, nullptr, nullptr);
  const double intrinsic[9] = {500, 0, 0, 2, 400, 0, 300, 200, 1};
  std::copy(intrinsic, intrinsic + 9, a);
  const std::array<double, 9> r = Rotation(0.2, -0.1, 0.3);
  for (int c = 0; c < 3; ++c)
    for (int i = 0; i < 3; ++i) e[4 * c + i] = r[3 * c + i];
  e[12] = 1, e[13] = -2, e[14] = 10;
  camera->GetMatrix(9, nullptr, nullptr, nullptr);
  EXPECT_EQ(Parameter(camera, L"fSx"), 500.0);
  EXPECT_EQ(Parameter(camera, L"Skew"), 2.0);
  EXPECT_EQ(Parameter(camera, L"CenterY"), 200.0);

  // Id 3: R^T and -R^T t, so pose times inverse is the identity.
  const std::vector<double> inv = Matrix(camera, 3);
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j) {
      double sum = 0;
      for (int k = 0; k < 4; ++k) sum += e[4 * k + i] * inv[4 * j + k];
      EXPECT_NEAR(sum, i == j ? 1.0 : 0.0, 1e-12);
    }
  // Id 7: A^-1 in a buffer of its own that outlives the call.
  double* ai = nullptr;
  camera->GetMatrix(7, &ai, &rows, &cols);
  EXPECT_EQ(rows * 10 + cols, 33);
  camera->GetMatrix(0, nullptr, nullptr, nullptr);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      double sum = 0;
      for (int k = 0; k < 3; ++k) sum += a[3 * k + i] * ai[3 * j + k];
      EXPECT_NEAR(sum, i == j ? 1.0 : 0.0, 1e-12);
    }
  // Id 4, the pseudo-inverse (3 rows of 4): (u, v, 1) times it is a point of the viewing
  // ray, which Convert takes back to the pixel, and which lies on both SolveMatrix planes.
  double* pinv = nullptr;
  camera->GetMatrix(4, &pinv, &rows, &cols);
  EXPECT_EQ(rows * 10 + cols, 34);
  for (const P3& pixel : {P3{320, 240, 0}, P3{17, 455, 0}}) {
    double w[4];
    for (int i = 0; i < 4; ++i) w[i] = pixel[0] * pinv[i] + pixel[1] * pinv[4 + i] + pinv[8 + i];
    double x = w[0] / w[3], y = w[1] / w[3], z = w[2] / w[3];
    const P3 ray = {x, y, z};
    camera->Convert(&x, &y, &z);
    EXPECT_NEAR(x, pixel[0], 1e-9);
    EXPECT_NEAR(y, pixel[1], 1e-9);
    double planes[8];
    camera->SolveMatrix(planes, pixel[0], pixel[1]);
    EXPECT_NEAR(planes[0] * ray[0] + planes[1] * ray[1] + planes[2] * ray[2] + planes[3], 0.0, 1e-9);
    EXPECT_NEAR(planes[4] * ray[0] + planes[5] * ray[1] + planes[6] * ray[2] + planes[7], 0.0, 1e-9);
  }
}

TEST(Camera3DTrinsic, NormalisedInverseIsComputedOnceAndTheConicIsItsGram) {
  const Truth t = FiveViews();
  const std::vector<P3> model = Board();
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  ASSERT_EQ(Fit(camera, Cloud(AllViews(t, model)), Cloud(model), 1), S_OK);
  double* kinv = nullptr;
  camera->GetMatrix(5, &kinv, nullptr, nullptr);
  // K = U^-1 A from the truth: U = rows (W/2, 0, W/2), (0, H/2, H/2), (0, 0, 1).
  const double k[9] = {t.fx * 2 / kWidth, 0, 0, t.skew * 2 / kWidth, t.fy * 2 / kHeight, 0,
                       (t.cx - kWidth / 2.0) * 2 / kWidth, (t.cy - kHeight / 2.0) * 2 / kHeight, 1};
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      double sum = 0;
      for (int m = 0; m < 3; ++m) sum += k[3 * m + i] * kinv[3 * j + m];
      EXPECT_NEAR(sum, i == j ? 1.0 : 0.0, 1e-9);
    }
  kinv[0] = 42.0;  // a second request does not recompute
  EXPECT_EQ(Matrix(camera, 5)[0], 42.0);
  EXPECT_EQ(Matrix(camera, 1111)[0], 42.0);
  // Id 6 entry (r, c): rows r and c of the inverse, read as plain arrays.
  kinv[0] = 0;
  camera->GetMatrix(5, nullptr, nullptr, nullptr);
  const std::vector<double> conic = Matrix(camera, 6);
  double n[9] = {};
  const double det = k[0] * k[4];  // upper triangular by columns: det = alpha beta
  n[0] = 1 / k[0], n[4] = 1 / k[4], n[8] = 1;
  n[3] = -k[3] / det, n[6] = (k[3] * k[7] - k[6] * k[4]) / det, n[7] = -k[7] / k[4];
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c)
      EXPECT_NEAR(conic[3 * r + c], n[3 * r] * n[3 * c] + n[3 * r + 1] * n[3 * c + 1] + n[3 * r + 2] * n[3 * c + 2],
                  1e-8);
}

// ------------------------------------------------------------------ parameters, pages, interfaces

TEST(Camera3DTrinsic, ParametersAreTenReadOnlyRowsWithABlankSeparator) {
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  SmartPtr<INamedCollection> params;
  ASSERT_EQ(QueryAs<IParametricObject>(camera)->GetParameters(params.Out(), 0), S_OK);
  SmartPtr<IParameters> list = QueryAs<IParameters>(params);
  const wchar_t* names[] = {L"fSx", L"fSy", L"Skew", L"CenterX", L"CenterY", L"DistortionK1(NotUsed)",
                            L"DistortionK2(NotUsed)", L" ", L"SDError", L"MaxError"};
  const double values[] = {1.0, 1.0, 0.0, 320.0, 240.0, 0, 0, 0, 0, 0};
  int count = 0;
  list->get_Count(&count);
  ASSERT_EQ(count, 10);
  for (int i = 0; i < 10; ++i) {
    SmartPtr<IString> name;
    list->get_ItemName(i, name.Out());
    EXPECT_EQ(Text(name), names[i]);
    int flags = 0;
    list->get_ItemFlags(i, &flags);
    EXPECT_EQ(flags, i == 7 ? 0x48003 : 0x40005);
    if (i != 7) {
      EXPECT_EQ(Parameter(camera, names[i]), values[i]);
    }
  }
  EXPECT_EQ(QueryAs<IParametricObject>(camera)->SetParameters(params), S_OK);
}

TEST(Camera3DTrinsic, NormalisationSizeIsStoredAsGivenAndItsGetterRefusesAMissingOutput) {
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  int w = 0, h = 0;
  EXPECT_EQ(camera->SetNormalizationImageSize(1024, 768), S_OK);
  EXPECT_EQ(camera->GetNormalizationImageSize(&w, &h), S_OK);
  EXPECT_EQ(w * 10000 + h, 10240768);
  w = h = -7;
  EXPECT_EQ(camera->GetNormalizationImageSize(nullptr, &h), E_POINTER);
  EXPECT_EQ(camera->GetNormalizationImageSize(&w, nullptr), E_POINTER);
  EXPECT_EQ(w + h, -14);  // nothing written
}

// ------------------------------------------------------------------ stored forms

SmartPtr<ICamera3DTrinsic> FittedCamera() {
  const Truth t = FiveViews();
  const std::vector<P3> model = Board();
  std::vector<P3> image = AllViews(t, model);
  for (size_t i = 0; i < image.size(); ++i) image[i][0] += (i % 7) * 0.05;  // errors and distortion not zero
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  camera->SetNormalizationImageSize(kWidth, kHeight);
  EXPECT_EQ(Fit(camera, Cloud(image), Cloud(model), 1), S_OK);
  return camera;
}

std::vector<std::vector<double>> State(ICamera3DTrinsic* camera) {
  std::vector<std::vector<double>> s = {Matrix(camera, 0), Matrix(camera, 1), Matrix(camera, 2)};
  std::vector<double> scalars;
  for (const wchar_t* name : {L"fSx", L"fSy", L"Skew", L"CenterX", L"CenterY", L"DistortionK1(NotUsed)",
                              L"DistortionK2(NotUsed)", L"SDError", L"MaxError"})
    scalars.push_back(Parameter(camera, name));
  int w = 0, h = 0;
  camera->GetNormalizationImageSize(&w, &h);
  scalars.push_back(w);
  scalars.push_back(h);
  s.push_back(scalars);
  return s;
}

TEST(Camera3DTrinsicFiles, FolderStreamKeepsAllFifteenValuesExactlyButNotError2) {
  SmartPtr<ICamera3DTrinsic> camera = FittedCamera();
  camera->SetNormalizationImageSize(800, 600);  // stored as set, nothing recomputed
  SmartPtr<IFolderStream> folder = LoadedModule::Get().CreateHost<IFolderStream>(L"FolderStream");
  ASSERT_EQ(QueryAs<IDataPersist>(camera)->Save(folder, 0), S_OK);
  SmartPtr<ICamera3DTrinsic> back = NewCamera();
  ASSERT_EQ(QueryAs<IDataPersist>(back)->Load(folder, 0), S_OK);
  EXPECT_EQ(State(back), State(camera));
  EXPECT_NE(Parameter(back, L"DistortionK1(NotUsed)"), 0.0);
  EXPECT_EQ(Matrix(back, 5), Matrix(camera, 5));  // K came along: same inverse
  EXPECT_EQ(ErrorsOf(back).error2, 0.0);          // a fresh object's, never stored
}

// The stream of the root element of an XML document, as a file's load hands it over.
SmartPtr<IDataStream> RootElement(const std::wstring& document) {
  SmartPtr<IXMLStream> in = LoadedModule::Get().CreateHost<IXMLStream>(L"XMLStream");
  if (in->Attach(const_cast<wchar_t*>(document.data()), static_cast<unsigned long>(document.size() * sizeof(wchar_t)),
                 0) < 0)
    return {};
  SmartPtr<IUnknown> content;
  if (in->ReadElement(0, nullptr, nullptr, content.Out(), 0) < 0) return {};
  return QueryAs<IDataStream>(content);
}

TEST(Camera3DTrinsicFiles, XmlLosesTheDistortionAndKeepsThePreviousK) {
  SmartPtr<ICamera3DTrinsic> camera = FittedCamera();
  SmartPtr<IXMLStreamEx> out = LoadedModule::Get().CreateHost<IXMLStreamEx>(L"XMLStreamEx");
  out->Attach(nullptr, 0, 0);
  out->BeginObject(camera, 0, 0);
  ASSERT_EQ(QueryAs<IDataPersist>(camera)->Save(out, 0), S_OK);
  out->CloseTag();
  void* text = nullptr;
  unsigned long bytes = 0;
  out->GetBuffer(&text, &bytes);
  const std::wstring xml(static_cast<wchar_t*>(text), bytes / sizeof(wchar_t));
  EXPECT_EQ(xml.find(L"Distortion"), std::wstring::npos);
  EXPECT_NE(xml.find(L"<Transform>"), std::wstring::npos);

  SmartPtr<ICamera3DTrinsic> back = NewCamera();
  const std::vector<double> freshK = Matrix(back, 5);  // zeros: nothing to invert yet
  SmartPtr<IDataStream> in = RootElement(xml);
  ASSERT_TRUE(in);
  ASSERT_EQ(QueryAs<IDataPersist>(back)->Load(in, 0), S_OK);
  const std::vector<std::vector<double>> a = State(camera), b = State(back);
  for (size_t m = 0; m < 3; ++m)
    for (size_t i = 0; i < a[m].size(); ++i)
      EXPECT_NEAR(b[m][i], a[m][i], m == 0 ? kRebuiltFromText : kTextDecimals) << m << " " << i;
  EXPECT_NEAR(Parameter(back, L"SDError"), Parameter(camera, L"SDError"), kTextDigits);
  EXPECT_NEAR(Parameter(back, L"MaxError"), Parameter(camera, L"MaxError"), kTextDigits);
  EXPECT_EQ(Parameter(back, L"DistortionK1(NotUsed)"), 0.0);
  EXPECT_EQ(Parameter(back, L"fSx"), Matrix(back, 1)[0]);  // read back from A, not the text
  EXPECT_EQ(Matrix(back, 5), freshK);                       // K was not part of the form
}

TEST(Camera3DTrinsicFiles, XmlScalarsAreOverwrittenFromTheIntrinsicMatrix) {
  SmartPtr<IDataStream> in = RootElement(
      L"<Camera3DTrinsic><fSx>999</fSx><Error>2.5</Error><SDError>0.75</SDError>"
      L"<Intrinsic>700, 0, 0\n1, 650, 0\n300, 200, 1\n0, 0, 0\n</Intrinsic><NormalizeImageWidth>800</NormalizeImageWidth>"
      L"</Camera3DTrinsic>");
  ASSERT_TRUE(in);
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  ASSERT_EQ(QueryAs<IDataPersist>(camera)->Load(in, 0), S_OK);
  EXPECT_EQ(Parameter(camera, L"fSx"), 700.0);
  EXPECT_EQ(Parameter(camera, L"Skew"), 1.0);
  EXPECT_EQ(Parameter(camera, L"MaxError"), 2.5);
  EXPECT_EQ(Parameter(camera, L"SDError"), 0.75);
  // P = A [I 0] with P[2][3] = 0: not rescaled.
  EXPECT_EQ(Matrix(camera, 0)[0], 700.0);
  int w = 0, h = 0;
  camera->GetNormalizationImageSize(&w, &h);
  EXPECT_EQ(w, 800);
  SmartPtr<IDataStream> plain = LoadedModule::Get().CreateHost<IDataStream>(L"DataStream");
  EXPECT_EQ(QueryAs<IDataPersist>(camera)->Load(plain, 0), E_FAIL);
  EXPECT_EQ(QueryAs<IDataPersist>(camera)->Load(nullptr, 0), E_FAIL);
}

TEST(Camera3DTrinsicFiles, TextReportIsByteForByteWithItsOddHeadingsAndNoDistortionLine) {
  // A small camera set through the live pointers.
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  double* a = nullptr;
  double* e = nullptr;
  double* kinv = nullptr;
  camera->GetMatrix(1, &a, nullptr, nullptr);
  camera->GetMatrix(2, &e, nullptr, nullptr);
  camera->GetMatrix(1111, &kinv, nullptr, nullptr);
  const double intrinsic[9] = {2, 0, 0, 0.5, 4, 0, 1, 3, 1};
  std::copy(intrinsic, intrinsic + 9, a);
  e[12] = 0.25, e[13] = -1, e[14] = 2;
  kinv[0] = 0.125, kinv[1] = -7, kinv[2] = 1e-9;
  camera->GetMatrix(9, nullptr, nullptr, nullptr);
  // P = A [I t] = rows (2, .5, 1, 2), (0, 4, 3, 2), (0, 0, 1, 2), scaled by 1/2.
  std::wstring want = L"Instrinsic\r\n2.00000000,0.00000000,0.00000000\r\n0.50000000,4.00000000,0.00000000\r\n"
                      L"1.00000000,3.00000000,1.00000000\r\n0.00000000,0.00000000,0.00000000\r\n\r\n";
  want += L"InstrinsicNormalized\r\n";
  for (int i = 0; i < 3; ++i) want += L"0.00000000,0.00000000,0.00000000\r\n";
  want += L"0.12500000,-7.00000000,0.00000000\r\n\r\n";  // the fourth line is the inverse's
  // The identity pose's first twelve doubles three at a time: no translation in sight.
  want += L"Extrinsic\r\n1.00000000,0.00000000,0.00000000\r\n0.00000000,0.00000000,1.00000000\r\n"
          L"0.00000000,0.00000000,0.00000000\r\n0.00000000,1.00000000,0.00000000\r\n\r\n";
  want += L"Combined\r\n1.00000000,0.00000000,0.00000000\r\n0.25000000,2.00000000,0.00000000\r\n"
          L"0.50000000,1.50000000,0.50000000\r\n1.00000000,1.00000000,1.00000000\r\n\r\n";
  want += L"Distortion\r\n";
  SmartPtr<IDataStream> plain = LoadedModule::Get().CreateHost<IDataStream>(L"DataStream");
  plain->Open(nullptr, 1000, 1);
  ASSERT_EQ(QueryAs<IDataPersist>(camera)->Save(plain, 0), S_OK);
  void* data = nullptr;
  unsigned long bytes = 0;
  plain->GetBuffer(&data, &bytes);
  EXPECT_EQ(std::wstring(static_cast<wchar_t*>(data), bytes / 4), want);

  // The same text in a file: the mark FF FE, then 16-bit characters.
  const std::string path = TempPath("camera.csv");
  SmartPtr<IFileArchive> archive = QueryAs<IFileArchive>(camera);
  std::wstring wide(path.begin(), path.end());
  archive->put_Filename(Str(wide.c_str()));
  ASSERT_EQ(archive->Save(), S_OK);
  std::ifstream in(path, std::ios::binary);
  const std::string file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::string expected = "\xFF\xFE";
  for (wchar_t c : want) expected += static_cast<char>(c), expected += '\0';
  EXPECT_EQ(file, expected);
  EXPECT_EQ(archive->Load(), E_FAIL);  // the report does not read back
  std::remove(path.c_str());
  archive->put_Filename(Str(L"/nonexistent-folder/camera.csv"));
  EXPECT_EQ(archive->Save(), E_FAIL);
}

// ------------------------------------------------------------------ real chessboard sets

std::vector<P3> ReadPointFile(const std::string& path) {
  std::vector<P3> points;
  std::ifstream in(path);
  double x, y;
  while (in >> x >> y) points.push_back({x, y, 0.0});
  return points;
}

struct DataSet {
  std::vector<P3> model, image;
  int views = 0;
};

DataSet ReadSet(const std::string& folder) {
  DataSet set;
  set.model = ReadPointFile(folder + "/model.txt");
  for (int k = 1; k < 100; ++k) {
    char name[32];
    std::snprintf(name, sizeof(name), "/view%02d.txt", k);
    const std::vector<P3> view = ReadPointFile(folder + name);
    if (view.empty()) break;
    set.image.insert(set.image.end(), view.begin(), view.end());
    ++set.views;
  }
  return set;
}

const char kSharedData[] = ZELTRIM_SOURCE_DIR "/../shared/data";

TEST(Camera3DTrinsicRealData, EverySetCalibratesWithPlausibleIntrinsics) {
  const struct {
    const char* name;
    int width, height;
  } sets[] = {{"opencv-left", 640, 480},      {"opencv-right", 640, 480},      {"opencv-left-w7", 640, 480},
              {"opencv-right-w7", 640, 480},  {"mrpt-stereo-left", 1024, 768}, {"mrpt-stereo-right", 1024, 768},
              {"visp-circles36", 640, 480}};
  int found = 0;
  for (const auto& s : sets) {
    const DataSet set = ReadSet(std::string(kSharedData) + "/" + s.name);
    if (set.views == 0) continue;
    ++found;
    SmartPtr<ICamera3DTrinsic> camera = NewCamera();
    camera->SetNormalizationImageSize(s.width, s.height);
    ASSERT_EQ(Fit(camera, Cloud(set.image), Cloud(set.model), 1), S_OK) << s.name;
    const double fx = Parameter(camera, L"fSx"), fy = Parameter(camera, L"fSy");
    EXPECT_GT(fx, 0.3 * s.width) << s.name;
    EXPECT_LT(fx, 5.0 * s.width) << s.name;
    EXPECT_NEAR(fy / fx, 1.0, 0.1) << s.name;  // square pixels, give or take
    EXPECT_GT(Parameter(camera, L"CenterX"), 0.0) << s.name;
    EXPECT_LT(Parameter(camera, L"CenterX"), s.width) << s.name;
    EXPECT_GT(Parameter(camera, L"CenterY"), 0.0) << s.name;
    EXPECT_LT(Parameter(camera, L"CenterY"), s.height) << s.name;
    const Errors e = ErrorsOf(camera);
    EXPECT_LT(e.sd, kRealSdPixels) << s.name;
    EXPECT_LT(e.error, kRealMaxPixels) << s.name;
  }
  if (found == 0) GTEST_SKIP() << "no data sets under " << kSharedData;
}

TEST(Camera3DTrinsicRealData, BundledSampleAgreesWithAnIndependentCalibration) {
  const DataSet set = ReadSet(ZELTRIM_SOURCE_DIR "/data/opencv-left-w7");
  if (set.views == 0) GTEST_SKIP() << "no bundled sample";
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  ASSERT_EQ(Fit(camera, Cloud(set.image), Cloud(set.model), 1), S_OK);
#ifdef ZELTRIM_HAVE_OPENCV
  // OpenCV's calibration with the pinhole model alone (no distortion terms). It refines
  // all views jointly, which the closed form here does not, so the two agree to the
  // closed form's accuracy on real corners: a few per cent in the focal lengths and
  // some pixels in the centre (the centre is the least determined part of a pinhole).
  // Measured: fx 550.5 against 554.2, cx 352.9 against 360.0.
  const double kFocalAgreement = 0.02, kCentreAgreementPixels = 10.0;
  std::vector<std::vector<cv::Point3f>> objects;
  std::vector<std::vector<cv::Point2f>> corners;
  const size_t n = set.model.size();
  for (int k = 0; k < set.views; ++k) {
    objects.emplace_back();
    corners.emplace_back();
    for (size_t i = 0; i < n; ++i) {
      objects.back().emplace_back(float(set.model[i][0]), float(set.model[i][1]), 0.0f);
      corners.back().emplace_back(float(set.image[k * n + i][0]), float(set.image[k * n + i][1]));
    }
  }
  cv::Mat k, d;
  std::vector<cv::Mat> rv, tv;
  cv::calibrateCamera(objects, corners, cv::Size(kWidth, kHeight), k, d, rv, tv,
                      cv::CALIB_FIX_K1 | cv::CALIB_FIX_K2 | cv::CALIB_FIX_K3 | cv::CALIB_ZERO_TANGENT_DIST);
  EXPECT_NEAR(Parameter(camera, L"fSx"), k.at<double>(0, 0), kFocalAgreement * k.at<double>(0, 0));
  EXPECT_NEAR(Parameter(camera, L"fSy"), k.at<double>(1, 1), kFocalAgreement * k.at<double>(1, 1));
  EXPECT_NEAR(Parameter(camera, L"CenterX"), k.at<double>(0, 2), kCentreAgreementPixels);
  EXPECT_NEAR(Parameter(camera, L"CenterY"), k.at<double>(1, 2), kCentreAgreementPixels);
#else
  GTEST_SKIP() << "OpenCV not found: no independent calibration to compare with";
#endif
}

// ------------------------------------------------------------------ the shared checks

void PrepareForSuite(IUnknown* object) {
  SmartPtr<ICamera3DTrinsic> camera = QueryAs<ICamera3DTrinsic>(object);
  const Truth t = FiveViews();
  const std::vector<P3> model = Board();
  std::vector<P3> image = AllViews(t, model);
  for (size_t i = 0; i < image.size(); ++i) image[i][1] += (i % 5) * 0.04;
  Fit(camera, Cloud(image), Cloud(model), 1);
}

const std::vector<P> kNoPoints, kOnePoint = {{1, 2, 0}}, kAlongX = {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}};

const property::ClassTraits kTrinsicTraits{
    .name = L"Camera3DTrinsic",
    // ICalibration and ICalibrationInfo are bases, and still not answered.
    .routes = {{&IID_IObjectInfo}, {&IID_IDataPersist}, {&IID_IFileArchive}, {&IID_ICamera3DTrinsic},
               {&IID_ICamera3DTransform, &IID_ICamera3DTrinsic}, {&IID_ITransform, &IID_ICamera3DTrinsic},
               {&IID_ITransformFitErrors}, {&IID_ITransformBestFit}, {&IID_IParametricObject},
               {&IID_IUIPropertyPageSpecify}},
    .prepare = PrepareForSuite,
    // The folder form keeps everything but the first of the three errors; XML loses the
    // distortion too, and P comes back rebuilt from A and the pose at six decimals.
    .forms = {{.xml = false, .extension = "tCAL", .lost = {"errors.mean"}},
              {.xml = true, .extension = "xml", .tolerance = kRebuiltFromText,
               .lost = {"errors.mean", "param.Distortion"}}},
    .filter = L"Calibration (*.csv)|*.csv|All Files (*.*)|*.*||",
    .unnamedFormWritesText = true,
    // Any stream that is neither folder nor XML gets the write-only text report.
    .nullStream = {S_OK, E_FAIL},
    .otherStream = {S_OK, E_FAIL},
    .setParametersIgnored = true,
    .fit = [](IUnknown* o, ISimpleCollection* image, ISimpleCollection* model) {
      return QueryAs<ITransformBestFit>(o)->BestFit(image, model, 1);
    },
    .badFits = {{"null collections are refused", nullptr, nullptr, E_INVALIDARG},
                {"an empty model is refused", &kOnePoint, &kNoPoints, E_INVALIDARG},
                {"a model of one point has no extent", &kOnePoint, &kOnePoint, E_INVALIDARG},
                {"a model along X has no extent in Y", &kAlongX, &kAlongX, E_INVALIDARG}},
    // Page names go bare, without the module's prefix.
    .pages = {{L"", L"UIParametricObjectPropPage", L"Camera3DTrinsic"},
              {L"", L"CalibrationMatrixPropPage", L"Camera3DTrinsic"},
              {L"", L"CalibrationInfoPropPage", L""},
              {L"", L"UIFileArchivePropPage", L""}},
};
ZELTRIM_PROPERTY_CLASS(kTrinsicTraits);

}  // namespace
