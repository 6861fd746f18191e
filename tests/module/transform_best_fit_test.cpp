// Best-fit transforms through the loaded module: every route of the fit against
// transforms built by hand; exact data must come back to rounding. Files, streams,
// interfaces, references and bad input: the property suite.
#include <random>

#include "tests/module/PropertySuite.h"

namespace {

constexpr double kExact = 1e-9;  // exact data, fitted by closed forms or least squares
constexpr double kNoiseSigma = 0.05;

SmartPtr<IHomogeneousTransform> NewFit() {
  return LoadedModule::Get().Create<IHomogeneousTransform>(L"TransformBestFit");
}

HRESULT Fit(IHomogeneousTransform* t, const std::vector<P>& source, const std::vector<P>& target, int method) {
  return QueryAs<ITransformBestFit>(t)->BestFit(Points(source), Points(target), method);
}

P Apply(IHomogeneousTransform* t, P p) {
  t->Convert(&p.x, &p.y, &p.z);
  return p;
}

void ExpectNear(const P& a, const P& b, double tolerance) {
  EXPECT_NEAR(a.x, b.x, tolerance);
  EXPECT_NEAR(a.y, b.y, tolerance);
  EXPECT_NEAR(a.z, b.z, tolerance);
}

// A rotation about z by `angle` then about x by `tilt`, as a column-vector matrix R:
// target = k R source + offset.
struct Motion {
  double r[9];
  double k = 1;
  P offset{0, 0, 0};
  Motion(double angle, double tilt, double scale, P move) : k(scale), offset(move) {
    const double c = std::cos(angle), s = std::sin(angle), ct = std::cos(tilt), st = std::sin(tilt);
    const double m[9] = {c, -s, 0, ct * s, ct * c, -st, st * s, st * c, ct};  // Rx(tilt) Rz(angle)
    for (int i = 0; i < 9; ++i) r[i] = m[i];
  }
  P operator()(const P& p) const {
    return {k * (r[0] * p.x + r[1] * p.y + r[2] * p.z) + offset.x, k * (r[3] * p.x + r[4] * p.y + r[5] * p.z) + offset.y,
            k * (r[6] * p.x + r[7] * p.y + r[8] * p.z) + offset.z};
  }
};

const std::vector<P> kCloud = {{0, 0, 0}, {4, 1, 0.5}, {1, 5, -1}, {-2, 3, 2}, {3, -2, 1.5}, {2, 2, -2}};

std::vector<P> Map(const std::vector<P>& points, const Motion& m) {
  std::vector<P> out;
  for (const P& p : points) out.push_back(m(p));
  return out;
}

// The cloud moved rigidly, with seeded noise: a fit with non-zero errors.
std::vector<P> NoisyMotion() {
  std::vector<P> target = Map(kCloud, Motion(0.3, 0.2, 1.0, {1, 2, 3}));
  std::mt19937 random(7);
  std::normal_distribution<double> noise(0.0, kNoiseSigma);
  for (P& p : target) p = {p.x + noise(random), p.y + noise(random), p.z + noise(random)};
  return target;
}

const std::vector<P> kNone, kSame(6, P{2, 2, 0}), kTilted = {{0, 0, 0}, {1, 0, 1}, {0, 1, 0}, {2, 3, 2}, {1, 1, 1}, {3, 0, 3}},
                            kLine = {{0, 0, 0}, {1, 1, 0}, {2, 2, 0}, {3, 3, 0}, {5, 5, 0}, {7, 7, 0}};

const property::ClassTraits kTransformBestFit{
    .name = L"TransformBestFit",
    .routes = {{&IID_IObjectInfo}, {&IID_ITransformBestFit}, {&IID_ITransformFitErrors}, {&IID_IHomogeneousTransform},
               {&IID_ITransform, &IID_IHomogeneousTransform}, {&IID_IDataPersist}, {&IID_IFileArchive},
               {&IID_IParametricObject}, {&IID_IUIPropertyPageSpecify}},
    .prepare = [](IUnknown* o) { QueryAs<ITransformBestFit>(o)->BestFit(Points(kCloud), Points(NoisyMotion()), 0); },
    // XML holds the mean error and the matrix with six decimals, and its Save reports
    // E_FAIL after writing them.
    .forms = {{.xml = true, .extension = "xml", .save = E_FAIL, .tolerance = 1e-5,
               .lost = {"errors.max", "errors.sd", "param.MaxError", "param.SDError"}},
              {.xml = false, .extension = "tCal"}},
    .filter = L"Calibration (*.cal)|*.cal|All Files (*.*)|*.*||",
    .setParametersIgnored = true,
    .fit = [](IUnknown* o, ISimpleCollection* s, ISimpleCollection* t) {
      return QueryAs<ITransformBestFit>(o)->BestFit(s, t, 0);
    },
    .badFits = {{"null collections", nullptr, nullptr, E_POINTER},
                {"empty sets", &kNone, &kNone, E_INVALIDARG},
                {"an empty target", &kCloud, &kNone, E_INVALIDARG},
                {"one flat point repeated: singular normal equations", &kSame, &kCloud, E_FAIL},
                {"collinear flat points", &kLine, &kCloud, E_FAIL},
                {"a tilted plane in the affine route", &kTilted, &kCloud, E_FAIL}},
};
ZELTRIM_PROPERTY_CLASS(kTransformBestFit);

TEST(TransformBestFit, OnePairGivesTheTranslationBetweenThem) {
  auto t = NewFit();
  ASSERT_EQ(Fit(t, {{1, 2, 3}}, {{4, 0, -1}}, 0), S_OK);
  ExpectNear(Apply(t, {10, 20, 30}), {13, 18, 26}, kExact);
  double mean = -1;
  QueryAs<ITransformFitErrors>(t)->GetFitErrors(&mean, nullptr, nullptr);
  EXPECT_EQ(mean, 0.0);  // no errors in this route
}

TEST(TransformBestFit, TwoPairsGiveARotationPinnedAtTheFirstPoint) {
  // Source direction +x, target direction +y, lengths 2 and 6.
  const std::vector<P> source = {{1, 1, 0}, {3, 1, 0}}, target = {{10, 0, 0}, {10, 6, 0}};
  auto rigid = NewFit();
  ASSERT_EQ(Fit(rigid, source, target, 1), S_OK);
  ExpectNear(Apply(rigid, {1, 1, 0}), {10, 0, 0}, kExact);
  ExpectNear(Apply(rigid, {3, 1, 0}), {10, 2, 0}, kExact);  // rotated, not stretched
  auto scaled = NewFit();
  ASSERT_EQ(Fit(scaled, source, target, 2), S_OK);
  ExpectNear(Apply(scaled, {3, 1, 0}), {10, 6, 0}, kExact);
  // Method 3 does not scale in this route although it does in the covariance route.
  auto three = NewFit();
  ASSERT_EQ(Fit(three, source, target, 3), S_OK);
  ExpectNear(Apply(three, {3, 1, 0}), {10, 2, 0}, kExact);
  // Equal directions: a pure translation.
  auto parallel = NewFit();
  ASSERT_EQ(Fit(parallel, source, {{0, 0, 5}, {2, 0, 5}}, 1), S_OK);
  ExpectNear(Apply(parallel, {7, -3, 1}), {6, -4, 6}, kExact);
}

TEST(TransformBestFit, EigenvectorFormRecoversARigidMotion) {
  const Motion motion(0.4, -0.3, 1.0, {5, -7, 2});
  const std::vector<P> target = Map(kCloud, motion);
  for (int method : {3, 4}) {  // scaled forms with a true scale of 1
    auto t = NewFit();
    ASSERT_EQ(Fit(t, kCloud, target, method), S_OK);
    for (size_t i = 0; i < kCloud.size(); ++i) ExpectNear(Apply(t, kCloud[i]), target[i], kExact);
    double mean = -1, max = -1, sd = -1;
    QueryAs<ITransformFitErrors>(t)->GetFitErrors(&mean, &max, &sd);
    EXPECT_NEAR(mean, 0, kExact);
    EXPECT_NEAR(max, 0, kExact);
  }
}

TEST(TransformBestFit, SingularValueFormStoresTheOppositeRotation) {
  const Motion motion(0.4, -0.3, 1.0, {0, 0, 0});
  const std::vector<P> target = Map(kCloud, motion);
  auto svd = NewFit(), eigen = NewFit();
  ASSERT_EQ(Fit(svd, kCloud, target, 1), S_OK);
  ASSERT_EQ(Fit(eigen, kCloud, target, 3), S_OK);
  double *a = nullptr, *b = nullptr;
  svd->GetMatrix(&a, nullptr, nullptr);
  eigen->GetMatrix(&b, nullptr, nullptr);
  // The eigenvector form stores R-transposed (row vectors), the other form R.
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      EXPECT_NEAR(b[4 * i + j], motion.r[3 * j + i], kExact);
      EXPECT_NEAR(a[4 * i + j], motion.r[3 * i + j], kExact);
    }
  // Method 17 reads only the low four bits: the same fit as method 1.
  auto seventeen = NewFit();
  ASSERT_EQ(Fit(seventeen, kCloud, target, 17), S_OK);
  double* c = nullptr;
  seventeen->GetMatrix(&c, nullptr, nullptr);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(c[i], a[i]);
}

TEST(TransformBestFit, ScaledCovarianceFitKeepsTheTargetMeanDividedByTheScale) {
  const Motion motion(0.25, 0.1, 2.0, {6, 8, -4});
  const std::vector<P> target = Map(kCloud, motion);
  auto t = NewFit();
  ASSERT_EQ(Fit(t, kCloud, target, 4), S_OK);
  P ms{0, 0, 0}, mt{0, 0, 0};
  for (size_t i = 0; i < kCloud.size(); ++i) {
    ms = {ms.x + kCloud[i].x / kCloud.size(), ms.y + kCloud[i].y / kCloud.size(), ms.z + kCloud[i].z / kCloud.size()};
    mt = {mt.x + target[i].x / target.size(), mt.y + target[i].y / target.size(), mt.z + target[i].z / target.size()};
  }
  ExpectNear(Apply(t, ms), {mt.x / 2, mt.y / 2, mt.z / 2}, kExact);
  // Differences are scaled and rotated correctly all the same.
  const P a = Apply(t, kCloud[1]), b = Apply(t, kCloud[0]);
  ExpectNear({a.x - b.x, a.y - b.y, a.z - b.z},
             {target[1].x - target[0].x, target[1].y - target[0].y, target[1].z - target[0].z}, kExact);
}

TEST(TransformBestFit, NonFlatSourceTakesTheAffineRoute) {
  // target = source A + t, a general affine map (row vectors).
  const double a[9] = {1.2, 0.3, -0.1, -0.4, 0.9, 0.2, 0.05, -0.2, 1.1};
  std::vector<P> target;
  for (const P& p : kCloud)
    target.push_back({p.x * a[0] + p.y * a[3] + p.z * a[6] + 3, p.x * a[1] + p.y * a[4] + p.z * a[7] - 1,
                      p.x * a[2] + p.y * a[5] + p.z * a[8] + 0.5});
  auto t = NewFit();
  ASSERT_EQ(Fit(t, kCloud, target, 0), S_OK);
  const P probe{7, -3, 2};
  ExpectNear(Apply(t, probe), {probe.x * a[0] + probe.y * a[3] + probe.z * a[6] + 3,
                               probe.x * a[1] + probe.y * a[4] + probe.z * a[7] - 1,
                               probe.x * a[2] + probe.y * a[5] + probe.z * a[8] + 0.5},
             1e-8);
}

// A plane homography: X = (h0 x + h1 y + h2) / (h6 x + h7 y + 1), Y likewise.
P Perspective(const P& p) {
  const double w = 0.001 * p.x - 0.002 * p.y + 1;
  return {(1.1 * p.x + 0.2 * p.y + 5) / w, (-0.1 * p.x + 0.9 * p.y - 3) / w, 0};
}

TEST(TransformBestFit, FlatSourceTakesThePlanarProjectiveRoute) {
  std::vector<P> source, target;
  for (int i = 0; i < 5; ++i)
    for (int j = 0; j < 4; ++j) {
      source.push_back({i * 40.0, j * 30.0, 0});
      target.push_back(Perspective(source.back()));
    }
  auto t = NewFit();
  ASSERT_EQ(Fit(t, source, target, 0), S_OK);
  const P probe = Apply(t, {55, 17, 0});
  ExpectNear({probe.x, probe.y, 0}, Perspective({55, 17, 0}), 1e-7);
  // z passes through, divided by the homogeneous term.
  const P lifted = Apply(t, {55, 17, 2});
  EXPECT_NEAR(lifted.z, 2 / (0.001 * 55 - 0.002 * 17 + 1), 1e-9);

  // Method 256 is method 0 without the fit errors.
  auto quiet = NewFit();
  std::vector<P> noisy = target;
  noisy[3].x += 0.5;
  ASSERT_EQ(Fit(quiet, source, noisy, 256), S_OK);
  double mean = -1;
  QueryAs<ITransformFitErrors>(quiet)->GetFitErrors(&mean, nullptr, nullptr);
  EXPECT_EQ(mean, 0.0);
  auto loud = NewFit();
  ASSERT_EQ(Fit(loud, source, noisy, 0), S_OK);
  QueryAs<ITransformFitErrors>(loud)->GetFitErrors(&mean, nullptr, nullptr);
  EXPECT_GT(mean, 0.0);
  double *q = nullptr, *l = nullptr;
  quiet->GetMatrix(&q, nullptr, nullptr);
  loud->GetMatrix(&l, nullptr, nullptr);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(q[i], l[i]);
}

TEST(TransformBestFit, FitErrorsMatchResidualsComputedIndependently) {
  const std::vector<P> target = NoisyMotion();
  auto t = NewFit();
  ASSERT_EQ(Fit(t, kCloud, target, 0), S_OK);  // affine
  std::vector<double> r;
  for (size_t i = 0; i < kCloud.size(); ++i) {
    const P c = Apply(t, kCloud[i]);
    r.push_back(std::sqrt((c.x - target[i].x) * (c.x - target[i].x) + (c.y - target[i].y) * (c.y - target[i].y) +
                          (c.z - target[i].z) * (c.z - target[i].z)));
  }
  double sum = 0, max = 0;
  for (double v : r) sum += v, max = std::max(max, v);
  const double mean = sum / r.size();
  double var = 0;
  for (double v : r) var += (v - mean) * (v - mean);
  const double sd = std::sqrt(var / (r.size() - 1));
  double e = 0, m = 0, s = 0;
  QueryAs<ITransformFitErrors>(t)->GetFitErrors(&e, &m, &s);
  EXPECT_NEAR(e, mean, 1e-12);
  EXPECT_NEAR(m, max, 1e-12);
  EXPECT_NEAR(s, sd, 1e-9);
  EXPECT_GT(e, 0.0);
  EXPECT_LT(e, 4 * kNoiseSigma);
}

TEST(TransformBestFit, CoincidentPairsInTheTwoPointRouteGiveAPureTranslation) {
  auto t = NewFit();
  ASSERT_EQ(Fit(t, {{1, 1, 1}, {1, 1, 1}}, {{2, 2, 2}, {2, 2, 2}}, 1), S_OK);
  ExpectNear(Apply(t, {0, 0, 0}), {1, 1, 1}, kExact);
}

}  // namespace
