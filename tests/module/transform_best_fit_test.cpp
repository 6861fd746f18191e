// Best-fit transforms through the loaded module: every route of the fit against
// transforms built by hand; exact data must come back to rounding. Files, streams,
// interfaces, references and bad input: the property suite.
#include <random>

#include "tests/module/PropertySuite.h"

namespace {

constexpr double kRounding = 1e-12;  // one sum of a few numbers
constexpr double kExact = 1e-9;    // exact data, fitted by closed forms or least squares
constexpr double kAffine = 1e-8;   // exact data through the affine route's normal equations
constexpr double kPlanar = 1e-7;   // exact data through the planar homography
constexpr double kNoiseSigma = 0.05;

SmartPtr<IHomogeneousTransform> Fitted(const std::vector<P>& source, const std::vector<P>& target, int method) {
  SmartPtr<IHomogeneousTransform> t = LoadedModule::Get().Create<IHomogeneousTransform>(L"TransformBestFit");
  EXPECT_EQ(QueryAs<ITransformBestFit>(t)->BestFit(Points(source), Points(target), method), S_OK) << method;
  return t;
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

template <class Map>
std::vector<P> Mapped(const std::vector<P>& points, const Map& map) {
  std::vector<P> out;
  for (const P& p : points) out.push_back(map(p));
  return out;
}

P Mean(const std::vector<P>& points) {
  const double n = static_cast<double>(points.size());
  P m{0, 0, 0};
  for (const P& p : points) m = {m.x + p.x / n, m.y + p.y / n, m.z + p.z / n};
  return m;
}

// The cloud moved rigidly, with seeded noise: a fit with non-zero errors.
std::vector<P> NoisyMotion() {
  std::vector<P> target = Mapped(kCloud, Motion(0.3, 0.2, 1.0, {1, 2, 3}));
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

TEST(TransformBestFit, OnePairGivesTheTranslationBetweenThemWithoutErrors) {
  auto t = Fitted({{1, 2, 3}}, {{4, 0, -1}}, 0);
  ExpectNear(Converted(t, {10, 20, 30}), {13, 18, 26}, kExact);
  EXPECT_EQ(MeanError(t), 0.0);
}

TEST(TransformBestFit, TwoPairsGiveARotationPinnedAtTheFirstPoint) {
  // Source direction +x, target direction +y, lengths 2 and 6.
  const std::vector<P> source = {{1, 1, 0}, {3, 1, 0}}, target = {{10, 0, 0}, {10, 6, 0}};
  auto rigid = Fitted(source, target, 1);
  ExpectNear(Converted(rigid, {1, 1, 0}), {10, 0, 0}, kExact);
  ExpectNear(Converted(rigid, {3, 1, 0}), {10, 2, 0}, kExact);  // rotated, not stretched
  ExpectNear(Converted(Fitted(source, target, 2), {3, 1, 0}), {10, 6, 0}, kExact);
  // Method 3 does not scale in this route although it does in the covariance route.
  ExpectNear(Converted(Fitted(source, target, 3), {3, 1, 0}), {10, 2, 0}, kExact);
  // Equal directions: a pure translation.
  ExpectNear(Converted(Fitted(source, {{0, 0, 5}, {2, 0, 5}}, 1), {7, -3, 1}), {6, -4, 6}, kExact);
  // Coincident pairs: a pure translation too.
  ExpectNear(Converted(Fitted({{1, 1, 1}, {1, 1, 1}}, {{2, 2, 2}, {2, 2, 2}}, 1), {0, 0, 0}), {1, 1, 1}, kExact);
}

TEST(TransformBestFit, EigenvectorFormRecoversARigidMotion) {
  const std::vector<P> target = Mapped(kCloud, Motion(0.4, -0.3, 1.0, {5, -7, 2}));
  for (int method : {3, 4}) {  // scaled forms with a true scale of 1
    auto t = Fitted(kCloud, target, method);
    for (size_t i = 0; i < kCloud.size(); ++i) ExpectNear(Converted(t, kCloud[i]), target[i], kExact);
    double mean = -1, max = -1;
    QueryAs<ITransformFitErrors>(t)->GetFitErrors(&mean, &max, nullptr);
    EXPECT_NEAR(mean, 0, kExact);
    EXPECT_NEAR(max, 0, kExact);
  }
}

TEST(TransformBestFit, SingularValueFormStoresTheOppositeRotation) {
  const Motion motion(0.4, -0.3, 1.0, {0, 0, 0});
  const std::vector<P> target = Mapped(kCloud, motion);
  const std::vector<double> svd = MatrixOf(Fitted(kCloud, target, 1)), eigen = MatrixOf(Fitted(kCloud, target, 3));
  // The eigenvector form stores R-transposed (row vectors), the other form R.
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      EXPECT_NEAR(eigen[4 * i + j], motion.r[3 * j + i], kExact);
      EXPECT_NEAR(svd[4 * i + j], motion.r[3 * i + j], kExact);
    }
  // Method 17 reads only the low four bits: the same fit as method 1.
  EXPECT_EQ(MatrixOf(Fitted(kCloud, target, 17)), svd);
}

TEST(TransformBestFit, ScaledCovarianceFitKeepsTheTargetMeanDividedByTheScale) {
  const std::vector<P> target = Mapped(kCloud, Motion(0.25, 0.1, 2.0, {6, 8, -4}));
  auto t = Fitted(kCloud, target, 4);
  const P mean = Mean(target);
  ExpectNear(Converted(t, Mean(kCloud)), {mean.x / 2, mean.y / 2, mean.z / 2}, kExact);
  // Differences are scaled and rotated correctly all the same.
  const P a = Converted(t, kCloud[1]), b = Converted(t, kCloud[0]);
  ExpectNear({a.x - b.x, a.y - b.y, a.z - b.z},
             {target[1].x - target[0].x, target[1].y - target[0].y, target[1].z - target[0].z}, kExact);
}

TEST(TransformBestFit, NonFlatSourceTakesTheAffineRoute) {
  const auto affine = [](const P& p) {
    return P{1.2 * p.x - 0.4 * p.y + 0.05 * p.z + 3, 0.3 * p.x + 0.9 * p.y - 0.2 * p.z - 1,
             -0.1 * p.x + 0.2 * p.y + 1.1 * p.z + 0.5};
  };
  ExpectNear(Converted(Fitted(kCloud, Mapped(kCloud, affine), 0), {7, -3, 2}), affine({7, -3, 2}), kAffine);
}

TEST(TransformBestFit, FlatSourceTakesThePlanarProjectiveRoute) {
  std::vector<P> source, target;
  Grid(&source, &target);
  auto t = Fitted(source, target, 0);
  const P probe = Converted(t, {55, 17, 0});
  ExpectNear({probe.x, probe.y, 0}, Homography({55, 17, 0}), kPlanar);
  // z passes through, divided by the homogeneous term.
  EXPECT_NEAR(Converted(t, {55, 17, 2}).z, 2 / (0.0005 * 55 + 0.001 * 17 + 1), kExact);
  // Method 256 is method 0 without the fit errors.
  target[3].x += 0.5;
  auto quiet = Fitted(source, target, 256), loud = Fitted(source, target, 0);
  EXPECT_EQ(MeanError(quiet), 0.0);
  EXPECT_GT(MeanError(loud), 0.0);
  EXPECT_EQ(MatrixOf(quiet), MatrixOf(loud));
}

TEST(TransformBestFit, FitErrorsMatchResidualsComputedIndependently) {
  const std::vector<P> target = NoisyMotion();
  auto t = Fitted(kCloud, target, 0);  // affine
  std::vector<double> r;
  double sum = 0, max = 0, var = 0;
  for (size_t i = 0; i < kCloud.size(); ++i) {
    const P c = Converted(t, kCloud[i]);
    r.push_back(std::hypot(c.x - target[i].x, c.y - target[i].y, c.z - target[i].z));
    sum += r.back(), max = std::max(max, r.back());
  }
  const double mean = sum / r.size();
  for (double v : r) var += (v - mean) * (v - mean);
  double e = 0, m = 0, s = 0;
  QueryAs<ITransformFitErrors>(t)->GetFitErrors(&e, &m, &s);
  EXPECT_NEAR(e, mean, kRounding);
  EXPECT_NEAR(m, max, kRounding);
  EXPECT_NEAR(s, std::sqrt(var / (r.size() - 1)), kExact);
  EXPECT_GT(e, 0.0);
  EXPECT_LT(e, 4 * kNoiseSigma);
}

}  // namespace
