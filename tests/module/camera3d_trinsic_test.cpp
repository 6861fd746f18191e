// The planar-target camera calibration through the loaded module: synthetic cameras with
// known truth, the quirks that change its numbers, its failures, its stored forms and the
// real chessboard sets.
#include <cmath>
#include <cstdio>
#include <cwchar>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "tests/module/CameraTestSupport.h"

#ifdef ZELTRIM_HAVE_OPENCV
#include <opencv2/calib3d.hpp>
#endif

namespace {

using namespace camera_test;

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

// One camera (fx 820, fy 790, skew 1.5, centre (331, 247)) seeing a 9 x 6 grid of unit
// pitch in five poses.
const double kIntrinsics[3][3] = {{820, 1.5, 331}, {0, 790, 247}, {0, 0, 1}};

std::vector<View> FiveViews() {
  const double angles[5][3] = {{0.3, -0.2, 0.05}, {-0.25, 0.3, -0.1}, {0.1, 0.4, 0.2}, {-0.35, -0.15, 0.3}, {0.2, 0.1, -0.25}};
  const double moves[5][3] = {{-4, -2.5, 18}, {-3.5, -3, 20}, {-5, -2, 17}, {-4.2, -2.2, 21}, {-3.8, -2.8, 19}};
  std::vector<View> views;
  for (int k = 0; k < 5; ++k)
    views.emplace_back(angles[k][0], angles[k][1], angles[k][2], moves[k][0], moves[k][1], moves[k][2], 1.0, kIntrinsics);
  return views;
}

std::vector<P> Board() {
  std::vector<P> model;
  for (int y = 0; y < 6; ++y)
    for (int x = 0; x < 9; ++x) model.push_back({double(x), double(y), 0.0});
  return model;
}

// The image points of every view, one behind the other.
std::vector<P> AllViews(const std::vector<View>& views, const std::vector<P>& model) {
  std::vector<P> image;
  for (const View& v : views)
    for (const P& w : model) image.push_back(v.Image(w));
  return image;
}

SmartPtr<ICamera3DTrinsic> NewCamera() { return LoadedModule::Get().Create<ICamera3DTrinsic>(L"Camera3DTrinsic"); }

HRESULT Fit(ICamera3DTrinsic* camera, ISimpleCollection* image, ISimpleCollection* model, int mode) {
  return QueryAs<ITransformBestFit>(camera)->BestFit(image, model, mode);
}
HRESULT Fit(ICamera3DTrinsic* camera, const std::vector<P>& image, const std::vector<P>& model, int mode) {
  return Fit(camera, Points(image), Points(model), mode);
}

std::vector<double> Matrix(ICamera3DTrinsic* camera, int id) {
  double* data = nullptr;
  int rows = 0, cols = 0;
  camera->GetMatrix(id, &data, &rows, &cols);
  return std::vector<double>(data, data + rows * cols);
}

// Image of a model point by the camera's own P (read through GetMatrix(0)).
P ByMatrix(const std::vector<double>& p, const P& w) {
  double r[3];
  for (int i = 0; i < 3; ++i) r[i] = w.x * p[i] + w.y * p[3 + i] + w.z * p[6 + i] + p[9 + i];
  return {r[0] / r[2], r[1] / r[2], 0.0};
}

// The event log a host registers; it keeps every line it is given.
class LineLog : public IUILineDisplayable {
 public:
  LineLog() { LoadedModule::Get().components->RegisterInstance(14, L"EventLogGlobal", this); }
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

void ExpectIntrinsics(ICamera3DTrinsic* camera, double relative) {
  const std::vector<double> a = Matrix(camera, 1);
  for (int i = 0; i < 12; ++i) EXPECT_NEAR(a[i], i < 9 ? kIntrinsics[i % 3][i / 3] : 0.0, relative * 1000.0) << "A entry " << i;
  const double(&k)[3][3] = kIntrinsics;
  EXPECT_NEAR(Parameter(camera, L"fSx"), k[0][0], relative * k[0][0]);
  EXPECT_NEAR(Parameter(camera, L"fSy"), k[1][1], relative * k[1][1]);
  EXPECT_NEAR(Parameter(camera, L"Skew"), k[0][1], relative * k[0][0]);
  EXPECT_NEAR(Parameter(camera, L"CenterX"), k[0][2], relative * k[0][2]);
  EXPECT_NEAR(Parameter(camera, L"CenterY"), k[1][2], relative * k[1][2]);
}

void ExpectPose(ICamera3DTrinsic* camera, const View& view, double relative) {
  const std::vector<double> e = Matrix(camera, 2);
  for (int c = 0; c < 3; ++c)
    for (int r = 0; r < 3; ++r) EXPECT_NEAR(e[4 * c + r], view.r[r][c], relative) << c << r;
  for (int r = 0; r < 3; ++r) EXPECT_NEAR(e[12 + r], view.t[r], relative * 20.0);
  EXPECT_EQ(e[3], 0.0);
  EXPECT_EQ(e[15], 1.0);
}

// ------------------------------------------------------------------ exact and noisy data

TEST(Camera3DTrinsic, ExactViewsGiveIntrinsicsAndLastPoseBackInFlatAndCollectionModes) {
  const std::vector<View> views = FiveViews();
  const std::vector<P> model = Board();
  SmartPtr<ICreatableSimpleCollection> perView = LoadedModule::Get().CreateHost<ICreatableSimpleCollection>(L"SimpleCollection");
  for (const View& v : views) perView->Add(Points(AllViews({v}, model)));
  for (int mode : {1, 0}) {
    SCOPED_TRACE(mode);
    SmartPtr<ICamera3DTrinsic> camera = NewCamera();
    ASSERT_EQ(Fit(camera, mode == 1 ? Points(AllViews(views, model)) : SmartPtr<ISimpleCollection>(perView.get()),
                  Points(model), mode),
              S_OK);
    ExpectIntrinsics(camera, kExactRelative);
    ExpectPose(camera, views[4], kExactRelative);
    EXPECT_LT(ErrorsOf(camera).error, kExactPixels);
    EXPECT_LT(ErrorsOf(camera).sd, kExactPixels);
    // The combined matrix is A [R t] scaled to P[2][3] = 1, and Convert uses it.
    EXPECT_NEAR(Matrix(camera, 0)[11], 1.0, 1e-15);
    for (const P& w : {model[0], model[40]}) {
      P u = w;
      camera->Convert(&u.x, &u.y, &u.z);
      ExpectNear(u, views[4].Image(w), kExactPixels);
      EXPECT_EQ(u.z, 0.0);
    }
  }
}

TEST(Camera3DTrinsic, SeededNoiseGivesErrorsOfTheNoisesSize) {
  const std::vector<P> model = Board();
  std::vector<P> image = AllViews(FiveViews(), model);
  const double sigma = 0.25;
  std::mt19937 random(20240611);
  std::normal_distribution<double> noise(0.0, sigma);
  for (P& p : image) p.x += noise(random), p.y += noise(random);
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  ASSERT_EQ(Fit(camera, image, model, 1), S_OK);
  // A 2D distance of two independent N(0, sigma) parts has an RMS of sigma sqrt(2); the
  // per-view pose and shared intrinsics soak up part of it, errors of the closed form
  // (no joint refinement) add some.
  const double rms = sigma * std::sqrt(2.0);
  const FitErrors e = ErrorsOf(camera);
  EXPECT_GT(e.sd, 0.5 * rms);
  EXPECT_LT(e.sd, 3.0 * rms);
  EXPECT_LT(e.error, 6.0 * rms);
  EXPECT_NEAR(Parameter(camera, L"fSx"), kIntrinsics[0][0], 0.03 * kIntrinsics[0][0]);
  EXPECT_NEAR(Parameter(camera, L"CenterX"), kIntrinsics[0][2], 15.0);
}

// ------------------------------------------------------------------ quirks of the figures

TEST(Camera3DTrinsic, MaxErrorIsTheLastViewsOddlyAndSdErrorCoversAllPointsWithNMinusOne) {
  const std::vector<P> model = Board();
  std::vector<P> image = AllViews(FiveViews(), model);
  std::mt19937 random(7);
  std::normal_distribution<double> noise(0.0, 0.2);
  for (P& p : image) p.x += noise(random), p.y += noise(random);
  image[10].x += 6.0;  // the worst point of all, in view 0
  LineLog log;
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  ASSERT_EQ(Fit(camera, image, model, 1), S_OK);
  const FitErrors fitted = ErrorsOf(camera);
  const std::vector<double> a = Matrix(camera, 1);

  // Each view's residuals by its own P (mode 2 keeps A and computes one view's pose),
  // computed here from the points.
  const size_t n = model.size();
  double squares = 0, worst = 0, lastMax = 0;
  for (size_t k = 0; k < 5; ++k) {
    const std::vector<P> view(image.begin() + static_cast<long>(k * n), image.begin() + static_cast<long>((k + 1) * n));
    EXPECT_EQ(Fit(camera, view, model, 2), S_OK);
    const std::vector<double> p = Matrix(camera, 0);
    double viewMax = 0;
    for (size_t i = 0; i < n; ++i) {
      const P u = ByMatrix(p, model[i]);
      const double q = (u.x - view[i].x) * (u.x - view[i].x) + (u.y - view[i].y) * (u.y - view[i].y);
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
  // Mode 2 kept the intrinsics of the mode 1 fit, also when given views enough to solve them.
  EXPECT_EQ(Fit(camera, std::vector<P>(image.begin(), image.begin() + static_cast<long>(3 * n)), model, 2), S_OK);
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
  const std::vector<P> model = Board();
  std::vector<P> image = AllViews(FiveViews(), model);
  const double k1 = -0.08, k2 = 0.02;
  for (P& p : image) {
    const double du = p.x - kIntrinsics[0][2], dv = p.y - kIntrinsics[1][2];
    const double r2 = std::pow(2 * du / kWidth, 2) + std::pow(2 * dv / kHeight, 2);
    const double f = k1 * r2 + k2 * r2 * r2;
    p.x += du * f, p.y += dv * f;
  }
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  ASSERT_EQ(Fit(camera, image, model, 1), S_OK);
  const std::vector<double> p = Matrix(camera, 0);
  const double cx = Parameter(camera, L"CenterX"), cy = Parameter(camera, L"CenterY");
  // The least-squares coefficients of the last view, by 2 x 2 normal equations here.
  double n11 = 0, n12 = 0, n22 = 0, b1 = 0, b2 = 0;
  const size_t n = model.size();
  for (size_t i = 0; i < n; ++i) {
    const P u = ByMatrix(p, model[i]);
    const P& seen = image[4 * n + i];
    const double d[2] = {u.x - cx, u.y - cy}, o[2] = {seen.x - cx, seen.y - cy};
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
  for (const P& w : model) {
    P u = w;
    camera->Convert(&u.x, &u.y, &u.z);
    EXPECT_EQ(u.x, ByMatrix(p, w).x);
    EXPECT_EQ(u.y, ByMatrix(p, w).y);
  }
}

TEST(Camera3DTrinsic, ModeThreeChangesOnlyDistortionErrorsAndSums) {
  const std::vector<P> model = Board();
  std::vector<P> image = AllViews(FiveViews(), model);
  image[3].x += 0.5;
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  ASSERT_EQ(Fit(camera, image, model, 1), S_OK);
  const std::vector<std::vector<double>> before = {Matrix(camera, 0), Matrix(camera, 1), Matrix(camera, 2)};
  LineLog log;
  EXPECT_EQ(Fit(camera, image, model, 3), S_OK);
  EXPECT_EQ((std::vector<std::vector<double>>{Matrix(camera, 0), Matrix(camera, 1), Matrix(camera, 2)}), before);
  EXPECT_EQ(Parameter(camera, L"fSx"), before[1][0]);
  EXPECT_EQ(Parameter(camera, L"DistortionK1(NotUsed)"), 0.0);
  EXPECT_EQ(Parameter(camera, L"DistortionK2(NotUsed)"), 0.0);
  const FitErrors e = ErrorsOf(camera);
  EXPECT_EQ((std::vector<double>{e.error2, e.error, e.sd}), (std::vector<double>{-1.0, -1.0, 0.0}));
  EXPECT_TRUE(log.lines.empty());
}

TEST(Camera3DTrinsic, TwoAndAHalfViewsOfPointsGiveTwoViews) {
  const std::vector<View> views = FiveViews();
  const std::vector<P> model = Board(), all = AllViews(views, model);
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  ASSERT_EQ(Fit(camera, all, model, 1), S_OK);
  // Views 2, 3 and half of 4: the pose is that of view 3, the half view is ignored.
  const size_t n = model.size();
  const std::vector<P> partial(all.begin() + 2 * n, all.begin() + 4 * n + n / 2);
  EXPECT_EQ(Fit(camera, partial, model, 2), S_OK);
  ExpectPose(camera, views[3], kExactRelative);
  LineLog log;
  EXPECT_EQ(Fit(camera, partial, model, 1), S_OK);
  ASSERT_EQ(log.lines.size(), 3u);
  EXPECT_EQ(log.lines[1].substr(0, 11), L"FitError 1 ");
}

// ------------------------------------------------------------------ failures

TEST(Camera3DTrinsic, RefusedInputsLeaveTheObjectOrMarkTheErrorsUnknown) {
  const std::vector<P> model = Board(), all = AllViews(FiveViews(), model);
  SmartPtr<ISimpleCollection> image = Points(all), grid = Points(model);
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  ASSERT_EQ(Fit(camera, image, grid, 1), S_OK);
  const double good = ErrorsOf(camera).error;

  // Refused before anything changes.
  EXPECT_EQ(Fit(camera, nullptr, grid, 1), E_INVALIDARG);
  EXPECT_EQ(Fit(camera, image, nullptr, 1), E_INVALIDARG);
  for (const std::vector<P>& bad : {std::vector<P>(), std::vector<P>{{1, 2, 0}}, std::vector<P>{{0, 0, 0}, {1, 0, 0}, {2, 0, 0}}})
    EXPECT_EQ(Fit(camera, image, Points(bad), 1), E_INVALIDARG);
  EXPECT_EQ(Fit(camera, image, grid, -1), E_INVALIDARG);
  EXPECT_EQ(ErrorsOf(camera).error, good);

  // Refused after the errors are marked unknown.
  EXPECT_EQ(Fit(camera, Points(std::vector<P>()), grid, 1), E_FAIL);
  EXPECT_EQ(ErrorsOf(camera).error, -1.0);
  EXPECT_EQ(Parameter(camera, L"DistortionK1(NotUsed)"), 0.0);
  SmartPtr<ICreatableSimpleCollection> two = LoadedModule::Get().CreateHost<ICreatableSimpleCollection>(L"SimpleCollection");
  two->Add(image);
  two->Add(image);
  EXPECT_EQ(Fit(camera, two, grid, 0), E_FAIL);  // collection mode needs three views
  two->Add(grid);
  two->Add(LoadedModule::Get().CreateHost<IVariant>(L"Variant"));
  EXPECT_EQ(Fit(camera, two, grid, 0), E_INVALIDARG);  // a view that is no collection
  const std::vector<P> fewer(all.begin(), all.begin() + 20);
  EXPECT_EQ(Fit(camera, fewer, model, 1), E_INVALIDARG);  // fewer image than model points
  EXPECT_EQ(ErrorsOf(camera).error2, -1.0);
}

TEST(Camera3DTrinsic, DegenerateTargetsAndViewsFailInTheSolver) {
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  // A diagonal line has extent in X and Y, and no homography.
  std::vector<P> line, lineImage;
  for (int i = 0; i < 12; ++i) line.push_back({double(i), 0.5 * i, 0}), lineImage.push_back({100.0 + 7 * i, 90.0 + 3 * i, 0});
  EXPECT_EQ(Fit(camera, lineImage, line, 1), E_FAIL);
  // Three points are fewer than a homography needs.
  EXPECT_EQ(Fit(camera, {{1, 1, 0}, {5, 2, 0}, {3, 4, 0}}, {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, 1), E_FAIL);
  // A view whose points all sit on the image centre, where the normalised coordinates
  // are zero and two unknowns drop out.
  const std::vector<P> model = Board();
  EXPECT_EQ(Fit(camera, std::vector<P>(model.size(), {320, 240, 0}), model, 1), E_FAIL);
  EXPECT_EQ(ErrorsOf(camera).error, -1.0);
}

// ------------------------------------------------------------------ matrices and conversions

TEST(Camera3DTrinsic, MatrixIdsGiveLivePointersAndRebuildAsTheirRulesSay) {
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  double *p0 = nullptr, *p8 = nullptr, *p = nullptr;
  camera->GetMatrix(0, &p0, nullptr, nullptr);
  camera->GetMatrix(8, &p8, nullptr, nullptr);
  camera->GetMatrix(&p, nullptr, nullptr);
  EXPECT_EQ(p0, p8);
  EXPECT_EQ(p0, p);
  EXPECT_EQ(Matrix(camera, 1111), std::vector<double>(9, 0.0));  // nothing computed yet

  // A hand-set camera written through the live pointers, then rebuilt by id 9.
  const double intrinsics[3][3] = {{500, 2, 300}, {0, 400, 200}, {0, 0, 1}};
  camera = QueryAs<ICamera3DTrinsic>(TrinsicCamera(View(0.2, -0.1, 0.3, 1, -2, 10, 1.0, intrinsics)));
  EXPECT_EQ(Parameter(camera, L"fSx"), 500.0);
  EXPECT_EQ(Parameter(camera, L"Skew"), 2.0);
  EXPECT_EQ(Parameter(camera, L"CenterY"), 200.0);

  // Id 3: R^T and -R^T t, so pose times inverse is the identity; id 7: A^-1 in a buffer
  // of its own that outlives the call.
  const std::vector<double> e = Matrix(camera, 2), a = Matrix(camera, 1), inv = Matrix(camera, 3);
  double* ai = nullptr;
  camera->GetMatrix(7, &ai, nullptr, nullptr);
  camera->GetMatrix(0, nullptr, nullptr, nullptr);
  for (int n : {4, 3}) {
    const std::vector<double>& m = n == 4 ? e : a;
    const double* mi = n == 4 ? inv.data() : ai;
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) {
        double sum = 0;
        for (int k = 0; k < n; ++k) sum += m[n * k + i] * mi[n * j + k];
        EXPECT_NEAR(sum, i == j ? 1.0 : 0.0, 1e-12) << n << ": " << i << j;
      }
  }
  // Id 4, the pseudo-inverse (3 rows of 4): (u, v, 1) times it is a point of the viewing
  // ray, which Convert takes back to the pixel, and which lies on both SolveMatrix planes.
  double* pinv = nullptr;
  camera->GetMatrix(4, &pinv, nullptr, nullptr);
  for (const P& pixel : {P{320, 240, 0}, P{17, 455, 0}}) {
    double w[4];
    for (int i = 0; i < 4; ++i) w[i] = pixel.x * pinv[i] + pixel.y * pinv[4 + i] + pinv[8 + i];
    const P ray = {w[0] / w[3], w[1] / w[3], w[2] / w[3]};
    P u = ray;
    camera->Convert(&u.x, &u.y, &u.z);
    ExpectNear(u, pixel, 1e-9);
    double planes[8];
    camera->SolveMatrix(planes, pixel.x, pixel.y);
    EXPECT_NEAR(planes[0] * ray.x + planes[1] * ray.y + planes[2] * ray.z + planes[3], 0.0, 1e-9);
    EXPECT_NEAR(planes[4] * ray.x + planes[5] * ray.y + planes[6] * ray.z + planes[7], 0.0, 1e-9);
  }
}

TEST(Camera3DTrinsic, NormalisedInverseIsComputedOnceAndTheConicIsItsGram) {
  const std::vector<P> model = Board();
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  ASSERT_EQ(Fit(camera, AllViews(FiveViews(), model), model, 1), S_OK);
  double* kinv = nullptr;
  camera->GetMatrix(5, &kinv, nullptr, nullptr);
  // K = U^-1 A from the truth, by columns: U = rows (W/2, 0, W/2), (0, H/2, H/2), (0, 0, 1).
  const double(&t)[3][3] = kIntrinsics;
  const double k[9] = {t[0][0] * 2 / kWidth, 0, 0, t[0][1] * 2 / kWidth, t[1][1] * 2 / kHeight, 0,
                       (t[0][2] - kWidth / 2.0) * 2 / kWidth, (t[1][2] - kHeight / 2.0) * 2 / kHeight, 1};
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

TEST(Camera3DTrinsic, NormalisationSizeIsStoredAsGivenAndItsGetterRefusesAMissingOutput) {
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  int w = -7, h = -7;
  EXPECT_EQ(camera->SetNormalizationImageSize(1024, 768), S_OK);
  EXPECT_EQ(camera->GetNormalizationImageSize(nullptr, &h), E_POINTER);
  EXPECT_EQ(camera->GetNormalizationImageSize(&w, nullptr), E_POINTER);
  EXPECT_EQ(w + h, -14);  // nothing written
  EXPECT_EQ(camera->GetNormalizationImageSize(&w, &h), S_OK);
  EXPECT_EQ(w * 10000 + h, 10240768);
}

// ------------------------------------------------------------------ stored forms

SmartPtr<ICamera3DTrinsic> FittedCamera() {
  const std::vector<P> model = Board();
  std::vector<P> image = AllViews(FiveViews(), model);
  for (size_t i = 0; i < image.size(); ++i) image[i].x += (i % 7) * 0.05;  // errors and distortion not zero
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  camera->SetNormalizationImageSize(kWidth, kHeight);
  EXPECT_EQ(Fit(camera, image, model, 1), S_OK);
  return camera;
}

// What the forms may carry beyond the property suite's snapshot: A, the pose, the
// scalars and the normalisation size.
std::vector<std::vector<double>> State(ICamera3DTrinsic* camera) {
  std::vector<std::vector<double>> s = {Matrix(camera, 0), Matrix(camera, 1), Matrix(camera, 2), {}};
  for (const wchar_t* name : {L"fSx", L"fSy", L"Skew", L"CenterX", L"CenterY", L"DistortionK1(NotUsed)",
                              L"DistortionK2(NotUsed)", L"SDError", L"MaxError"})
    s[3].push_back(Parameter(camera, name));
  int w = 0, h = 0;
  camera->GetNormalizationImageSize(&w, &h);
  s[3].insert(s[3].end(), {double(w), double(h)});
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

TEST(Camera3DTrinsicFiles, XmlLosesTheDistortionAndKeepsThePreviousK) {
  SmartPtr<ICamera3DTrinsic> camera = FittedCamera();
  SmartPtr<IXMLStreamEx> out = LoadedModule::Get().CreateHost<IXMLStreamEx>(L"XMLStreamEx");
  out->Attach(nullptr, 0, 0);
  out->BeginObject(camera, 0, 0);
  ASSERT_EQ(QueryAs<IDataPersist>(camera)->Save(out, 0), S_OK);
  out->CloseTag();
  const std::wstring xml = Text(out);
  EXPECT_EQ(xml.find(L"Distortion"), std::wstring::npos);
  EXPECT_NE(xml.find(L"<Transform>"), std::wstring::npos);

  SmartPtr<ICamera3DTrinsic> back = NewCamera();
  const std::vector<double> freshK = Matrix(back, 5);  // zeros: nothing to invert yet
  SmartPtr<IDataStream> in = ElementContent(xml);
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
  SmartPtr<IDataStream> in = ElementContent(
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
}

TEST(Camera3DTrinsicFiles, TextReportIsByteForByteWithItsOddHeadingsAndNoDistortionLine) {
  // A small camera set through the live pointers.
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  double *a = nullptr, *e = nullptr, *kinv = nullptr;
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
  // In a file: the mark FF FE, then 16-bit characters.
  const std::string path = TempPath("camera.csv");
  ASSERT_EQ(Archive(camera, path, true), S_OK);
  std::string expected = "\xFF\xFE";
  for (wchar_t c : want) expected += static_cast<char>(c), expected += '\0';
  EXPECT_EQ(ReadBytes(path), expected);
  EXPECT_EQ(Archive(camera, path, false), E_FAIL);  // the report does not read back
  std::remove(path.c_str());
  EXPECT_EQ(Archive(camera, "/nonexistent-folder/camera.csv", true), E_FAIL);
}

// ------------------------------------------------------------------ real chessboard sets

std::vector<P> ReadPointFile(const std::string& path) {
  std::vector<P> points;
  std::ifstream in(path);
  double x, y;
  while (in >> x >> y) points.push_back({x, y, 0.0});
  return points;
}

struct DataSet {
  std::vector<P> model, image;
  int views = 0;
};

DataSet ReadSet(const std::string& folder) {
  DataSet set;
  set.model = ReadPointFile(folder + "/model.txt");
  for (int k = 1; k < 100; ++k) {
    char name[32];
    std::snprintf(name, sizeof(name), "/view%02d.txt", k);
    const std::vector<P> view = ReadPointFile(folder + name);
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
    ASSERT_EQ(Fit(camera, set.image, set.model, 1), S_OK) << s.name;
    const double fx = Parameter(camera, L"fSx"), fy = Parameter(camera, L"fSy");
    EXPECT_GT(fx, 0.3 * s.width) << s.name;
    EXPECT_LT(fx, 5.0 * s.width) << s.name;
    EXPECT_NEAR(fy / fx, 1.0, 0.1) << s.name;  // square pixels, give or take
    EXPECT_GT(Parameter(camera, L"CenterX"), 0.0) << s.name;
    EXPECT_LT(Parameter(camera, L"CenterX"), s.width) << s.name;
    EXPECT_GT(Parameter(camera, L"CenterY"), 0.0) << s.name;
    EXPECT_LT(Parameter(camera, L"CenterY"), s.height) << s.name;
    const FitErrors e = ErrorsOf(camera);
    EXPECT_LT(e.sd, kRealSdPixels) << s.name;
    EXPECT_LT(e.error, kRealMaxPixels) << s.name;
  }
  if (found == 0) GTEST_SKIP() << "no data sets under " << kSharedData;
}

TEST(Camera3DTrinsicRealData, BundledSampleAgreesWithAnIndependentCalibration) {
  const DataSet set = ReadSet(ZELTRIM_SOURCE_DIR "/data/opencv-left-w7");
  if (set.views == 0) GTEST_SKIP() << "no bundled sample";
  SmartPtr<ICamera3DTrinsic> camera = NewCamera();
  ASSERT_EQ(Fit(camera, set.image, set.model, 1), S_OK);
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
      objects.back().emplace_back(float(set.model[i].x), float(set.model[i].y), 0.0f);
      corners.back().emplace_back(float(set.image[k * n + i].x), float(set.image[k * n + i].y));
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
  const std::vector<P> model = Board();
  std::vector<P> image = AllViews(FiveViews(), model);
  for (size_t i = 0; i < image.size(); ++i) image[i].y += (i % 5) * 0.04;
  Fit(QueryAs<ICamera3DTrinsic>(object), image, model, 1);
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
