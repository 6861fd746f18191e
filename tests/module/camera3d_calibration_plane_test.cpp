// A camera and a plane through the loaded module: image points of known world points come
// back on the plane; the sign of the offset, "Negate", the singular system, the fixed
// height of the pseudo-inverse route and its flag; the forwarded and the stored fit; the
// plane's model function on stored views; the file forms. Interfaces, references, pages
// and the common file checks: the property suite.
#include <dlfcn.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>

#include "tests/module/PropertySuite.h"

namespace {

constexpr double kExactWorld = 1e-9;     // located points of exact data, in world units
constexpr double kExactResidual = 1e-9;  // the model function's residuals of exact data
constexpr double kRevertPixels = 1e-6;   // image -> world -> image
constexpr double kXmlWorld = 1e-5;       // through a camera whose XML form keeps six decimals

// P = K [R | t] by rows: a camera 10 units from the origin, looking at it.
struct Camera {
  double k[3][3] = {{800, 0.5, 320}, {0, 780, 240}, {0, 0, 1}};
  double r[3][3];
  double t[3] = {0.3, -0.2, 10.0};
  double p[3][4];
  Camera() {
    const double a = 0.2, b = -0.3, c = 0.1;  // R = Rz(c) Ry(b) Rx(a)
    const double rotation[3][3] = {
        {std::cos(c) * std::cos(b), std::cos(c) * std::sin(b) * std::sin(a) - std::sin(c) * std::cos(a),
         std::cos(c) * std::sin(b) * std::cos(a) + std::sin(c) * std::sin(a)},
        {std::sin(c) * std::cos(b), std::sin(c) * std::sin(b) * std::sin(a) + std::cos(c) * std::cos(a),
         std::sin(c) * std::sin(b) * std::cos(a) - std::cos(c) * std::sin(a)},
        {-std::sin(b), std::cos(b) * std::sin(a), std::cos(b) * std::cos(a)}};
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) r[i][j] = rotation[i][j];
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 4; ++j) {
        double sum = 0;
        for (int m = 0; m < 3; ++m) sum += k[i][m] * (j < 3 ? r[m][j] : t[m]);
        p[i][j] = sum;
      }
  }
  P Image(const P& w) const {
    const double d = p[2][0] * w.x + p[2][1] * w.y + p[2][2] * w.z + p[2][3];
    return {(p[0][0] * w.x + p[0][1] * w.y + p[0][2] * w.z + p[0][3]) / d,
            (p[1][0] * w.x + p[1][1] * w.y + p[1][2] * w.z + p[1][3]) / d, 0};
  }
};

// Writes P into a camera's live matrix, which is held by columns.
template <class I>
SmartPtr<I> CameraOf(const wchar_t* name, const double (&p)[3][4]) {
  SmartPtr<I> camera = LoadedModule::Get().Create<I>(name);
  double* m = nullptr;
  SmartPtr<ICamera3DTransform>(camera.get())->GetMatrix(&m, nullptr, nullptr);
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) m[3 * c + r] = p[r][c];
  return camera;
}

SmartPtr<ICamera3DCalibrationPlane> NewLocator(ICamera3DTransform* camera) {
  SmartPtr<ICamera3DCalibrationPlane> o = LoadedModule::Get().Create<ICamera3DCalibrationPlane>(L"Camera3DCalibrationPlane");
  if (o && camera) o->SetReverseTransform(camera);
  return o;
}

SmartPtr<IPlane> PlaneOf(ICamera3DCalibrationPlane* o) {
  IUnknown* held = nullptr;
  o->get_Plane(&held);
  return QueryAs<IPlane>(held);
}

void SetNegate(IUnknown* o, int negate) {
  ParameterList list;
  list.Number(L"Negate", negate);
  ASSERT_EQ(QueryAs<IParametricObject>(o)->SetParameters(list.list), S_OK);
}

P Locate(ICamera3DCalibrationPlane* o, P u, HRESULT expected = S_OK) {
  EXPECT_EQ(o->Convert(&u.x, &u.y, &u.z), expected);
  return u;
}

#define EXPECT_POINT_NEAR(a, b, tolerance) \
  do {                                     \
    EXPECT_NEAR((a).x, (b).x, tolerance);  \
    EXPECT_NEAR((a).y, (b).y, tolerance);  \
    EXPECT_NEAR((a).z, (b).z, tolerance);  \
  } while (0)

// World points on the plane n . X + d = 0 (n a unit vector), spread about its foot point.
std::vector<P> OnPlane(const double n[3], double d) {
  // Two directions in the plane: n x e and n x (n x e), e the axis least along n.
  double e[3] = {0, 0, 0};
  e[std::fabs(n[0]) < std::fabs(n[1]) ? (std::fabs(n[0]) < std::fabs(n[2]) ? 0 : 2) : (std::fabs(n[1]) < std::fabs(n[2]) ? 1 : 2)] = 1;
  const double u[3] = {n[1] * e[2] - n[2] * e[1], n[2] * e[0] - n[0] * e[2], n[0] * e[1] - n[1] * e[0]};
  const double v[3] = {n[1] * u[2] - n[2] * u[1], n[2] * u[0] - n[0] * u[2], n[0] * u[1] - n[1] * u[0]};
  std::vector<P> points;
  for (double s : {-1.5, -0.4, 0.7, 1.9})
    for (double t : {-1.2, 0.3, 1.6}) {
      P w;
      w.x = -d * n[0] + s * u[0] + t * v[0];
      w.y = -d * n[1] + s * u[1] + t * v[1];
      w.z = -d * n[2] + s * u[2] + t * v[2];
      points.push_back(w);
    }
  return points;
}

TEST(Camera3DCalibrationPlane, ImagePointsOfTheGroundPlaneComeBackToRounding) {
  const Camera truth;
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(CameraOf<ICamera3DTransform>(L"Camera3DTransform", truth.p));
  const double up[3] = {0, 0, 1};
  for (const P& w : OnPlane(up, 0.0)) {
    const P located = Locate(o, truth.Image(w));
    EXPECT_POINT_NEAR(located, w, kExactWorld);
  }
}

// The module solves its system with the first two right sides of the wrong sign and
// corrects by negating the whole point, so the point lands on n . X - d = 0: a plane is
// met with the sign of its offset reversed.
TEST(Camera3DCalibrationPlane, ATiltedPlaneIsMetWithTheSignOfItsOffsetReversed) {
  const Camera truth;
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(CameraOf<ICamera3DTransform>(L"Camera3DTransform", truth.p));
  const double length = std::sqrt(0.3 * 0.3 + 0.2 * 0.2 + 1.0);
  const double n[3] = {0.3 / length, -0.2 / length, 1.0 / length}, d = -1.5;
  const std::vector<P> world = OnPlane(n, d);
  // Given with its offset negated (and a normal of length 2), the plane gives the points back.
  ASSERT_EQ(PlaneOf(o)->SetCoefficients(2 * n[0], 2 * n[1], 2 * n[2], -2 * d), S_OK);
  for (const P& w : world) EXPECT_POINT_NEAR(Locate(o, truth.Image(w)), w, kExactWorld);
  // Given as it is, the points lie on the same rays and on n . X - d = 0.
  ASSERT_EQ(PlaneOf(o)->SetCoefficients(n[0], n[1], n[2], d), S_OK);
  for (const P& w : world) {
    const P u = truth.Image(w);
    const P located = Locate(o, u);
    EXPECT_NEAR(n[0] * located.x + n[1] * located.y + n[2] * located.z - d, 0.0, kExactWorld);
    EXPECT_POINT_NEAR(truth.Image(located), u, kRevertPixels);
  }
}

TEST(Camera3DCalibrationPlane, NegateZeroGivesTheRawSolutionMirroredThroughTheOrigin) {
  const Camera truth;
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(CameraOf<ICamera3DTransform>(L"Camera3DTransform", truth.p));
  ASSERT_EQ(PlaneOf(o)->SetCoefficients(0, 0, 1, -0.5), S_OK);  // met at Z = -0.5
  const P w{0.8, -0.6, -0.5}, u = truth.Image(w);
  EXPECT_POINT_NEAR(Locate(o, u), w, kExactWorld);
  SetNegate(o, 0);
  const P raw = Locate(o, u);
  EXPECT_POINT_NEAR(raw, (P{-w.x, -w.y, -w.z}), kExactWorld);
  EXPECT_EQ(Parameter(o, L"Negate"), 0.0);
}

// The camera x = (X - 2) / (Z + 5), y = (Y - 3) / (Z + 5): the ray of (0, 0) is the line
// X = 2, Y = 3. Planes that hold it leave the system singular.
const double kOffsetCamera[3][4] = {{1, 0, 0, -2}, {0, 1, 0, -3}, {0, 0, 1, 5}};

TEST(Camera3DCalibrationPlane, APlaneHoldingTheRayGivesTheRaysPointNearestTheOrigin) {
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(CameraOf<ICamera3DTransform>(L"Camera3DTransform", kOffsetCamera));
  // X = 2, with the offset reversed as the module meets it: (1, 0, 0, 2).
  ASSERT_EQ(PlaneOf(o)->SetCoefficients(1, 0, 0, 2), S_OK);
  EXPECT_POINT_NEAR(Locate(o, P{0, 0, 0}), (P{2, 3, 0}), kExactWorld);
  // Any plane through the ray: 3 X + 4 Y = 18, met as (3, 4, 0, 18).
  ASSERT_EQ(PlaneOf(o)->SetCoefficients(3, 4, 0, 18), S_OK);
  EXPECT_POINT_NEAR(Locate(o, P{0, 0, 0}), (P{2, 3, 0}), kExactWorld);
  // Off the singular system: the plane Z = 15, met as (0, 0, 1, 15). The ray of
  // (0.1, 0.2) reaches it at X = 2 + 0.1 * 20, Y = 3 + 0.2 * 20.
  ASSERT_EQ(PlaneOf(o)->SetCoefficients(0, 0, 1, 15), S_OK);
  EXPECT_POINT_NEAR(Locate(o, P{0.1, 0.2, 0}), (P{4, 7, 15}), kExactWorld);
}

// The system's third column is zero, so a singular value is exactly 0 and its column of V
// stays undivided: the pseudo-inverse keeps a term that a textbook one drops. For the
// plane X = 2 as given (inconsistent with the ray's X = -2 of the raw system) that term
// adds 2 sqrt(2) to |z|, with the sign the decomposition picks.
TEST(Camera3DCalibrationPlane, AZeroSingularValueLeavesItsColumnUndividedAsDeliberatelyOdd) {
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(CameraOf<ICamera3DTransform>(L"Camera3DTransform", kOffsetCamera));
  ASSERT_EQ(PlaneOf(o)->SetCoefficients(1, 0, 0, -2), S_OK);
  const P located = Locate(o, P{0, 0, 0});
  EXPECT_NEAR(located.x, 0.0, kExactWorld);  // -2 and 2 in least squares
  EXPECT_NEAR(located.y, 3.0, kExactWorld);
  EXPECT_NEAR(std::fabs(located.z), 2 * std::sqrt(2.0), kExactWorld);
}

TEST(Camera3DCalibrationPlane, PseudoInverseRouteOfATrinsicCameraTakesTheFixedHeight) {
  const Camera truth;
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(CameraOf<ICamera3DTrinsic>(L"Camera3DTrinsic", truth.p));
  EXPECT_EQ(o->IsUsingPseudoInverse(), 0);
  EXPECT_EQ(o->UsePseudoInverse(1), S_OK);
  EXPECT_EQ(o->IsUsingPseudoInverse(), 1);
  // Plane or no plane: the point of the ray at Z = -0.001, exactly.
  ASSERT_EQ(o->put_Plane(nullptr), S_OK);
  const P w{0.4, 1.1, -0.001};
  const P located = Locate(o, truth.Image(w));
  EXPECT_EQ(located.z, -0.001);
  EXPECT_POINT_NEAR(located, w, kExactWorld);
  SetNegate(o, 0);
  EXPECT_EQ(Locate(o, truth.Image(w)).z, 0.001);
  // Cleared, the plane route needs the plane it no longer has.
  EXPECT_EQ(o->UsePseudoInverse(0), S_OK);
  EXPECT_EQ(o->IsUsingPseudoInverse(), 0);
  Locate(o, truth.Image(w), E_FAIL);
}

TEST(Camera3DCalibrationPlane, PseudoInverseFlagOfAPlainCameraIsKeptButNotUsed) {
  const Camera truth;
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(CameraOf<ICamera3DTransform>(L"Camera3DTransform", truth.p));
  EXPECT_EQ(o->UsePseudoInverse(1), E_FAIL);
  EXPECT_EQ(o->IsUsingPseudoInverse(), E_FAIL);
  EXPECT_EQ(Parameter(o, L"UsePseudoInverse"), 1.0);
  const P w{0.4, 1.1, 0};
  EXPECT_POINT_NEAR(Locate(o, truth.Image(w)), w, kExactWorld);  // the plane Z = 0
  // Without a camera the flag is stored all the same.
  o->SetReverseTransform(nullptr);
  EXPECT_EQ(o->UsePseudoInverse(2), E_FAIL);
  EXPECT_EQ(o->IsUsingPseudoInverse(), E_FAIL);
  EXPECT_EQ(o->UsePseudoInverse(0), E_FAIL);
  EXPECT_EQ(o->IsUsingPseudoInverse(), 0);
}

TEST(Camera3DCalibrationPlane, WithoutACameraEverythingThatNeedsOneFails) {
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(nullptr);
  ASSERT_EQ(o->SetReverseTransform(nullptr), S_OK);
  P p{1, 2, 3};
  EXPECT_EQ(o->Convert(&p.x, &p.y, &p.z), E_FAIL);
  EXPECT_EQ(o->Revert(&p.x, &p.y, &p.z), E_FAIL);
  o->put_Plane(nullptr);
  EXPECT_EQ(o->Convert(&p.x, &p.y, &p.z), E_FAIL);
  EXPECT_EQ(p.x, 1.0);
  SmartPtr<ITransform> camera;
  EXPECT_EQ(o->GetReverseTransform(camera.Out()), E_FAIL);
  EXPECT_EQ(o->GetFitErrors(nullptr, nullptr, nullptr), E_FAIL);
  std::vector<P> points(12, P{1, 2, 3});
  EXPECT_EQ(o->BestFit(Points(points), Points(points), 0), E_FAIL);
  SmartPtr<INamedCollection> params;
  EXPECT_EQ(QueryAs<IParametricObject>(o)->GetParameters(params.Out(), 0), E_FAIL);
}

TEST(Camera3DCalibrationPlane, PlaneIsLentAndCameraIsHandedOutWithAReference) {
  SmartPtr<ICamera3DTransform> camera = LoadedModule::Get().Create<ICamera3DTransform>(L"Camera3DTransform");
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(camera);
  EXPECT_EQ(RefCount(camera), 2);
  SmartPtr<ITransform> out;
  ASSERT_EQ(o->GetReverseTransform(out.Out()), S_OK);
  EXPECT_EQ(QueryAs<IUnknown>(out).get(), QueryAs<IUnknown>(camera).get());
  EXPECT_EQ(RefCount(camera), 3);
  EXPECT_EQ(o->GetReverseTransform(nullptr), E_FAIL);

  IUnknown* held = nullptr;
  ASSERT_EQ(o->get_Plane(&held), S_OK);
  ASSERT_NE(held, nullptr);
  EXPECT_EQ(RefCount(held), 1) << "get_Plane adds no reference";
  EXPECT_EQ(o->get_Plane(nullptr), S_OK);
  // Something that is no plane leaves no plane; a plane of the caller's is shared.
  SmartPtr<IPoint> point = LoadedModule::Get().CreateHost<IPoint>(L"Point");
  EXPECT_EQ(o->put_Plane(point), S_OK);
  o->get_Plane(&held);
  EXPECT_EQ(held, nullptr);
  SmartPtr<IPlane> mine = LoadedModule::Get().CreateHost<IPlane>(L"Plane");
  EXPECT_EQ(o->put_Plane(mine), S_OK);
  o->get_Plane(&held);
  EXPECT_EQ(QueryAs<IUnknown>(held).get(), QueryAs<IUnknown>(mine).get());
  EXPECT_EQ(RefCount(mine), 2);
}

// ------------------------------------------------------------------ the fit

// `count` world points in a box and their exact images.
void Scene(int count, std::vector<P>* image, std::vector<P>* world, unsigned seed) {
  const Camera camera;
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> box(-2.0, 2.0);
  for (int i = 0; i < count; ++i) {
    world->push_back({box(random), box(random), box(random)});
    image->push_back(camera.Image(world->back()));
  }
}

TEST(Camera3DCalibrationPlane, AFitGoesToTheCameraAndItsErrorsComeBack) {
  std::vector<P> image, world;
  Scene(20, &image, &world, 5);
  SmartPtr<ICamera3DTransform> camera = LoadedModule::Get().Create<ICamera3DTransform>(L"Camera3DTransform");
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(camera);
  ASSERT_EQ(o->BestFit(Points(image), Points(world), 0), S_OK);
  const Camera truth;
  const P w{0.3, -0.7, 0};
  EXPECT_POINT_NEAR(Locate(o, truth.Image(w)), w, kExactWorld);
  double mine[3] = {-1, -1, -1}, its[3] = {-2, -2, -2};
  ASSERT_EQ(o->GetFitErrors(&mine[0], &mine[1], &mine[2]), S_OK);
  QueryAs<ITransformFitErrors>(camera)->GetFitErrors(&its[0], &its[1], &its[2]);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(mine[i], its[i]);
  short day = 0, month = 0, year = 0, hour = 0, minute = 0;
  QueryAs<ICalibrationInfo>(o)->GetCalibrationTime(&day, &month, &year, &hour, &minute);
  EXPECT_GT(year, 2000) << "a fit stamps the time";
}

TEST(Camera3DCalibrationPlane, FlagsOf153OnlyKeepTheViews) {
  std::vector<P> image, world;
  Scene(20, &image, &world, 5);
  const Camera truth;
  SmartPtr<ICamera3DTransform> camera = CameraOf<ICamera3DTransform>(L"Camera3DTransform", truth.p);
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(camera);
  const std::vector<double> before = MatrixOf(camera);
  SmartPtr<ISimpleCollection> a = Points(image), b = Points(world);
  ASSERT_EQ(o->BestFit(a, b, 153), S_OK);
  EXPECT_EQ(MatrixOf(camera), before);
  EXPECT_EQ(RefCount(a), 2);
  EXPECT_EQ(RefCount(b), 2);
  short day = 0, month = 0, year = 0, hour = 0, minute = 0;
  QueryAs<ICalibrationInfo>(o)->GetCalibrationTime(&day, &month, &year, &hour, &minute);
  EXPECT_GT(year, 2000);
  // Another call replaces them; no collection is refused.
  EXPECT_EQ(o->BestFit(nullptr, nullptr, 153), E_POINTER);
  EXPECT_EQ(RefCount(a), 1);
  EXPECT_EQ(RefCount(b), 1);
}

// ------------------------------------------------------------------ the model function

typedef void (*Evaluate)(const double*, int, const void*, double*, int*);

Evaluate PlaneModelFunction() {
  return reinterpret_cast<Evaluate>(dlsym(LoadedModule::Get().module, "CCamera3DCalibrationPlane_LevenbergMarquardt_Evaluate"));
}

// A 4 x 3 board (z = 0 in its own frame) seen in three views, each the board moved by
// `shift` and lifted to the height `height`; image points view after view.
const P kShifts[] = {{0.4, -0.3, 0}, {-0.8, 0.5, 0}, {1.1, 0.9, 0}};

void BoardViews(double height, std::vector<P>* image, std::vector<P>* model) {
  const Camera truth;
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 3; ++j) model->push_back({-0.9 + 0.6 * i, -0.5 + 0.45 * j, 0});
  for (const P& shift : kShifts)
    for (const P& m : *model) image->push_back(truth.Image({m.x + shift.x, m.y + shift.y, height}));
}

// Converted onto the right plane, a view is the board moved by the shift and the height:
// the rigid fit moves it back onto the board exactly, and the residual component applies
// the fit once more, so every residual of a view is the length of that move.
TEST(Camera3DCalibrationPlane, ModelFunctionGivesEachViewsOffsetForTheRightPlane) {
  const Evaluate evaluate = PlaneModelFunction();
  ASSERT_NE(evaluate, nullptr);
  const Camera truth;
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(CameraOf<ICamera3DTransform>(L"Camera3DTransform", truth.p));
  for (double height : {0.0, 0.7}) {
    SCOPED_TRACE(height);
    std::vector<P> image, model;
    BoardViews(height, &image, &model);
    ASSERT_EQ(o->BestFit(Points(image), Points(model), 153), S_OK);
    // The plane Z = height, as the module meets it: normal of length 2, offset as given.
    const double p[4] = {0, 0, 2, height};
    std::vector<double> residuals(image.size(), -1.0);
    int info = 7;
    evaluate(p, static_cast<int>(residuals.size()), QueryAs<IUnknown>(o).get(), residuals.data(), &info);
    EXPECT_EQ(info, 7);
    for (size_t i = 0; i < residuals.size(); ++i) {
      const P& s = kShifts[i / model.size()];
      EXPECT_NEAR(residuals[i], std::sqrt(s.x * s.x + s.y * s.y + height * height), kExactResidual) << i;
    }
    // The plane stays as set, its normal normalised and its offset as given.
    double a, b, c, d;
    PlaneOf(o)->GetCoefficients(&a, &b, &c, &d);
    EXPECT_EQ(c, 1.0);
    EXPECT_EQ(d, height);
  }
}

// Against an independent evaluation: the ray of each image point meets the plane (solved
// here by Cramer's rule), a TransformBestFit with method 1 fits each view, and its matrix
// is applied twice.
TEST(Camera3DCalibrationPlane, ModelFunctionMatchesAnIndependentEvaluationForATiltedPlane) {
  const Evaluate evaluate = PlaneModelFunction();
  ASSERT_NE(evaluate, nullptr);
  const Camera truth;
  SmartPtr<ICamera3DTrinsic> trinsic = CameraOf<ICamera3DTrinsic>(L"Camera3DTrinsic", truth.p);
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(trinsic);
  EXPECT_EQ(o->UsePseudoInverse(1), S_OK);  // cleared by the model function
  std::vector<P> image, model;
  BoardViews(0.2, &image, &model);
  ASSERT_EQ(o->BestFit(Points(image), Points(model), 153), S_OK);
  const double p[4] = {0.1, -0.05, 1.0, 0.35};
  const size_t n = model.size();
  std::vector<double> residuals(image.size() + 2, -1.0);
  evaluate(p, static_cast<int>(image.size()), QueryAs<IUnknown>(o).get(), residuals.data(), nullptr);
  EXPECT_EQ(residuals[image.size()], -1.0) << "written past the views";
  EXPECT_EQ(o->IsUsingPseudoInverse(), 0);

  const double length = std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
  const double plane[4] = {p[0] / length, p[1] / length, p[2] / length, -p[3]};  // met as n . X = d
  for (size_t view = 0; view < image.size() / n; ++view) {
    std::vector<P> converted;
    for (size_t i = 0; i < n; ++i) {
      const P& u = image[view * n + i];
      double m[3][4];
      for (int c = 0; c < 4; ++c) {
        m[0][c] = truth.p[0][c] - u.x * truth.p[2][c];
        m[1][c] = truth.p[1][c] - u.y * truth.p[2][c];
        m[2][c] = plane[c];
      }
      auto det = [&m](int x, int y, int z) {
        return m[0][x] * (m[1][y] * m[2][z] - m[1][z] * m[2][y]) - m[0][y] * (m[1][x] * m[2][z] - m[1][z] * m[2][x]) +
               m[0][z] * (m[1][x] * m[2][y] - m[1][y] * m[2][x]);
      };
      const double d = det(0, 1, 2);
      converted.push_back({-det(3, 1, 2) / d, -det(0, 3, 2) / d, -det(0, 1, 3) / d});
    }
    SmartPtr<ITransformBestFit> fit = LoadedModule::Get().Create<ITransformBestFit>(L"TransformBestFit");
    ASSERT_EQ(fit->BestFit(Points(converted), Points(model), 1), S_OK);
    const std::vector<double> M = MatrixOf(fit);
    auto apply = [&M](const P& q) {
      double out[4];
      for (int j = 0; j < 4; ++j) out[j] = q.x * M[j] + q.y * M[4 + j] + q.z * M[8 + j] + M[12 + j];
      return P{out[0] / out[3], out[1] / out[3], out[2] / out[3]};
    };
    for (size_t i = 0; i < n; ++i) {
      const P twice = apply(apply(converted[i])), g = model[i];
      const double expected = std::sqrt((twice.x - g.x) * (twice.x - g.x) + (twice.y - g.y) * (twice.y - g.y) +
                                        (twice.z - g.z) * (twice.z - g.z));
      EXPECT_NEAR(residuals[view * n + i], expected, kExactResidual) << "view " << view << " point " << i;
    }
  }
}

TEST(Camera3DCalibrationPlane, ModelFunctionWritesNothingWithoutViewsAndNothingBeyondItsCount) {
  const Evaluate evaluate = PlaneModelFunction();
  ASSERT_NE(evaluate, nullptr);
  const Camera truth;
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(CameraOf<ICamera3DTransform>(L"Camera3DTransform", truth.p));
  const double p[4] = {0, 0, 1, 0};
  std::vector<double> residuals(40, -1.0);
  evaluate(p, 40, QueryAs<IUnknown>(o).get(), residuals.data(), nullptr);
  EXPECT_EQ(residuals, std::vector<double>(40, -1.0));
  std::vector<P> image, model;
  BoardViews(0.0, &image, &model);
  ASSERT_EQ(o->BestFit(Points(image), Points(std::vector<P>()), 153), S_OK);
  evaluate(p, 40, QueryAs<IUnknown>(o).get(), residuals.data(), nullptr);
  EXPECT_EQ(residuals, std::vector<double>(40, -1.0)) << "an empty model";
  ASSERT_EQ(o->BestFit(Points(image), Points(model), 153), S_OK);
  evaluate(p, 5, QueryAs<IUnknown>(o).get(), residuals.data(), nullptr);
  EXPECT_NE(residuals[4], -1.0);
  EXPECT_EQ(residuals[5], -1.0);
}

// ------------------------------------------------------------------ files

SmartPtr<ICamera3DCalibrationPlane> Prepared(const wchar_t* cameraClass) {
  const Camera truth;
  SmartPtr<ICamera3DCalibrationPlane> o =
      NewLocator(CameraOf<ICamera3DTransform>(cameraClass, truth.p));
  PlaneOf(o)->SetCoefficients(0.2, 0.1, 1, -0.4);
  return o;
}

TEST(Camera3DCalibrationPlane, FolderFormKeepsTheCameraOfEitherClassAndThePlane) {
  for (const wchar_t* cameraClass : {L"Camera3DTransform", L"Camera3DTrinsic"}) {
    SmartPtr<ICamera3DCalibrationPlane> saved = Prepared(cameraClass), loaded = NewLocator(nullptr);
    const std::string path = TempPath("plane.tCAL");
    ASSERT_EQ(Archive(saved, path, true), S_OK);
    ASSERT_EQ(Archive(loaded, path, false), S_OK);
    SmartPtr<ITransform> camera;
    ASSERT_EQ(loaded->GetReverseTransform(camera.Out()), S_OK);
    tagREFString name{0, nullptr};
    QueryAs<IObjectInfo>(camera)->GetName(0, &name);
    EXPECT_EQ(std::wstring(name.m_Text, name.m_Length), cameraClass);
    const P u{300, 200, 0};
    EXPECT_POINT_NEAR(Locate(loaded, u), Locate(saved, u), 0.0);
    std::remove(path.c_str());
  }
}

// The cameras write their XML forms straight into the element, with no element of their
// own, so a "Transform" element yields no object and a new, empty camera takes its place.
TEST(Camera3DCalibrationPlane, XmlFormKeepsThePlaneButLosesTheCameraAsDeliberatelyOdd) {
  SmartPtr<ICamera3DCalibrationPlane> saved = Prepared(L"Camera3DTrinsic"), loaded = NewLocator(nullptr);
  const std::string path = TempPath("plane.xml");
  ASSERT_EQ(Archive(saved, path, true), S_OK);
  ASSERT_EQ(Archive(loaded, path, false), S_OK);
  double a, b, c, d, a2, b2, c2, d2;
  PlaneOf(saved)->GetCoefficients(&a, &b, &c, &d);
  PlaneOf(loaded)->GetCoefficients(&a2, &b2, &c2, &d2);
  EXPECT_EQ(std::vector<double>({a, b, c, d}), std::vector<double>({a2, b2, c2, d2}));
  SmartPtr<ITransform> camera;
  ASSERT_EQ(loaded->GetReverseTransform(camera.Out()), S_OK);
  tagREFString name{0, nullptr};
  QueryAs<IObjectInfo>(camera)->GetName(0, &name);
  EXPECT_EQ(std::wstring(name.m_Text, name.m_Length), L"Camera3DTransform");
  EXPECT_EQ(MatrixOf(camera), std::vector<double>(12, 0.0));
  std::remove(path.c_str());
}

// An element naming its object inside "Transform" is how a camera does come back by XML.
TEST(Camera3DCalibrationPlane, XmlTransformHoldingAnObjectElementLoadsThatCamera) {
  // A camera that knows its parts, since its XML form rebuilds P from them.
  const Camera truth;
  SmartPtr<ICamera3DTrinsic> trinsic = LoadedModule::Get().Create<ICamera3DTrinsic>(L"Camera3DTrinsic");
  double *a = nullptr, *e = nullptr;
  trinsic->GetMatrix(1, &a, nullptr, nullptr);
  trinsic->GetMatrix(2, &e, nullptr, nullptr);
  for (int c = 0; c < 3; ++c)
    for (int r = 0; r < 3; ++r) a[3 * c + r] = truth.k[r][c], e[4 * c + r] = truth.r[r][c];
  for (int r = 0; r < 3; ++r) e[12 + r] = truth.t[r];
  trinsic->GetMatrix(9, nullptr, nullptr, nullptr);
  SmartPtr<IXMLStreamEx> out = LoadedModule::Get().CreateHost<IXMLStreamEx>(L"XMLStreamEx");
  out->Attach(nullptr, 0, 0);
  out->OpenTag(Str(L"Camera3DCalibrationPlane"), 0, 0);
  out->OpenTag(Str(L"transform"), 0, 0);  // any case
  out->BeginObject(trinsic, 0, 0);
  QueryAs<IDataPersist>(trinsic)->Save(out, 0);
  out->CloseTag();
  out->CloseTag();
  out->WriteValue(Str(L"Filename"), 0, Str(L"/data/cam.tCAL"), 0);
  out->CloseTag();
  void* text = nullptr;
  unsigned long bytes = 0;
  out->GetBuffer(&text, &bytes);
  std::vector<char> image(static_cast<char*>(text), static_cast<char*>(text) + bytes);
  SmartPtr<IXMLStream> in = LoadedModule::Get().CreateHost<IXMLStream>(L"XMLStream");
  ASSERT_EQ(in->Attach(image.data(), static_cast<unsigned long>(image.size()), 0), S_OK);
  tagREFString tag{0, nullptr};
  SmartPtr<IUnknown> content;
  ASSERT_GE(in->NextTag(&tag), 0);
  ASSERT_GE(in->ReadElement(tag.m_Length, tag.m_Text, nullptr, content.Out(), 0), 0);

  SmartPtr<ICamera3DCalibrationPlane> loaded = NewLocator(nullptr);
  ASSERT_EQ(QueryAs<IDataPersist>(loaded)->Load(QueryAs<IDataStream>(content), 0), S_OK);
  SmartPtr<ITransform> camera;
  ASSERT_EQ(loaded->GetReverseTransform(camera.Out()), S_OK);
  ASSERT_TRUE(QueryAs<ICamera3DTrinsic>(camera));
  const P w{0.5, -0.25, 0};
  EXPECT_POINT_NEAR(Locate(loaded, truth.Image(w)), w, kXmlWorld);
  SmartPtr<IString> filename;
  QueryAs<IFileArchive>(loaded)->get_Filename(filename.Out());
  EXPECT_EQ(Text(filename), L"/data/cam.tCAL");
}

// "Filename" (not the cameras' "FileName") is stored relative to the install path of the
// registry and made absolute again on loading.
TEST(Camera3DCalibrationPlane, FolderFormStoresItsFileNameRelativeToTheInstallPath) {
  const std::string root = TempPath("install_root");
  const std::string ini = TempPath("registry.ini");
  {
    std::ofstream out(ini);
    out << "[Workspace]\nInstallPath=" << root << "/bin\n";
  }
  setenv("ZELTRIM_REGISTRY", ini.c_str(), 1);
  SmartPtr<ICamera3DCalibrationPlane> saved = Prepared(L"Camera3DTransform"), loaded = NewLocator(nullptr);
  const std::string file = root + "/data/cam.tCAL";
  QueryAs<IFileArchive>(saved)->put_Filename(Str(std::wstring(file.begin(), file.end())));
  SmartPtr<IDataStream> folder = LoadedModule::Get().CreateHost<IDataStream>(L"FolderStream");
  folder->Open(nullptr, 1000, 1);
  ASSERT_EQ(QueryAs<IDataPersist>(saved)->Save(folder, 0), S_OK);
  const std::wstring listing = Text(QueryAs<IString>(folder));
  EXPECT_NE(listing.find(L"Filename: string = ..\\data/cam.tCAL"), std::wstring::npos) << std::string(listing.begin(), listing.end());
  EXPECT_EQ(listing.find(L"FileName: string = ..\\"), std::wstring::npos);
  ASSERT_EQ(QueryAs<IDataPersist>(loaded)->Load(folder, 0), S_OK);
  SmartPtr<IString> filename;
  QueryAs<IFileArchive>(loaded)->get_Filename(filename.Out());
  EXPECT_EQ(Text(filename), std::wstring(file.begin(), file.end()));
  unsetenv("ZELTRIM_REGISTRY");
  std::remove(ini.c_str());
}

// Eight-bit text without a mark: the camera's own text form, then the plane.
TEST(Camera3DCalibrationPlane, TextReportHoldsTheCameraThenThePlane) {
  const double p[3][4] = {{1, 4, 7, 10}, {2, 5.123456789, -12, 11}, {3, 6, 9, 12}};
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(CameraOf<ICamera3DTransform>(L"Camera3DTransform", p));
  ASSERT_EQ(PlaneOf(o)->SetCoefficients(0, 3, 4, -10), S_OK);  // (0, 0.6, 0.8, -2)
  std::string expected;
  for (int c = 0; c < 4; ++c) {
    char line[200];
    std::snprintf(line, sizeof(line), "%.8f,%.8f,%.8f\r\n", p[0][c], p[1][c], p[2][c]);
    expected += line;
  }
  expected += "\r\nPlane\r\n0.00000000,0.60000000,0.80000000,-2.00000000\r\n";
  const std::string path = TempPath("plane.csv");
  ASSERT_EQ(Archive(o, path, true), S_OK);
  EXPECT_EQ(ReadBytes(path), expected);
  // Without a plane the report is the camera's alone; without a camera there is none.
  o->put_Plane(nullptr);
  ASSERT_EQ(Archive(o, path, true), S_OK);
  EXPECT_EQ(ReadBytes(path), expected.substr(0, expected.find("\r\nPlane")));
  std::remove(path.c_str());
  o->SetReverseTransform(nullptr);
  EXPECT_EQ(Archive(o, path, true), E_FAIL);
  EXPECT_EQ(ReadBytes(path), "");
}

TEST(Camera3DCalibrationPlane, ParametersAreTheCamerasThenNegateAndUsePseudoInverse) {
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(LoadedModule::Get().Create<ICamera3DTransform>(L"Camera3DTransform"));
  SmartPtr<INamedCollection> params;
  ASSERT_EQ(QueryAs<IParametricObject>(o)->GetParameters(params.Out(), 0), S_OK);
  std::wstring names;
  for (int i = 0; i < Count(params); ++i) {
    SmartPtr<IString> name;
    params->get_ItemName(i, name.Out());
    names += Text(name) + L" ";
  }
  EXPECT_EQ(names, L"SDError MaxError Negate UsePseudoInverse ");
  EXPECT_EQ(Parameter(o, L"Negate"), 1.0);
  EXPECT_EQ(Parameter(o, L"UsePseudoInverse"), 0.0);
  ParameterList list;
  list.Textual(L"UsePseudoInverse", L"3").Number(L"Negate", 0);
  EXPECT_EQ(QueryAs<IParametricObject>(o)->SetParameters(list.list), S_OK);
  EXPECT_EQ(Parameter(o, L"UsePseudoInverse"), 3.0);
  EXPECT_EQ(Parameter(o, L"Negate"), 0.0);
  EXPECT_EQ(QueryAs<IParametricObject>(o)->SetParameters(nullptr), S_OK);
  EXPECT_EQ(Parameter(o, L"Negate"), 0.0);
}

TEST(Camera3DCalibrationPlane, PagesWithoutACameraPutTheInfoPageFirst) {
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(nullptr);
  o->SetReverseTransform(nullptr);
  SmartPtr<INamedCollection> pages;
  ASSERT_EQ(QueryAs<IUIPropertyPageSpecify>(o)->GetPages(0, pages.Out(), nullptr), S_OK);
  SmartPtr<IParameters> list = QueryAs<IParameters>(pages);
  ASSERT_EQ(Count(list), 3);
  const wchar_t* const expected[3][2] = {{L"", L"Zeltrim.CalibrationInfoPropPage"},
                                         {nullptr, L"CalibrationMatrixPropPage"},
                                         {L"", L"UIPropPages.UIFileArchivePropPage"}};
  for (int i = 0; i < 3; ++i) {
    SmartPtr<IString> title;
    SmartPtr<IUnknown> page;
    list->get_ItemName(i, title.Out());
    list->get_Item(i, page.Out());
    EXPECT_EQ(title.get() == nullptr, expected[i][0] == nullptr) << "entry " << i << ": no title, or an empty one";
    EXPECT_EQ(Text(page), expected[i][1]);
  }
}

// ------------------------------------------------------------------ the shared checks

void PrepareForSuite(IUnknown* object) {
  SmartPtr<ICamera3DCalibrationPlane> o = QueryAs<ICamera3DCalibrationPlane>(object);
  std::vector<P> image, world;
  Scene(16, &image, &world, 21);
  o->BestFit(Points(image), Points(world), 0);
  PlaneOf(o)->SetCoefficients(0.2, -0.1, 1, 0.3);
  o->UsePseudoInverse(1);  // kept, though a plain camera does not use it
  QueryAs<ICalibrationInfo>(o)->put_CALIBDescription(Str(L"bench camera over the table"));
}

const std::vector<P> kNone, kFive = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {1, 1, 1}};

const property::ClassTraits kPlaneTraits{
    .name = L"Camera3DCalibrationPlane",
    .routes = {{&IID_IObjectInfo}, {&IID_IDataPersist}, {&IID_ICamera3DCalibrationPlane},
               {&IID_ICalibration, &IID_ICamera3DCalibrationPlane}, {&IID_ICalibrationInfo}, {&IID_ITransformFitErrors},
               {&IID_IParametricObject}, {&IID_IFileArchive}, {&IID_IUIPropertyPageSpecify}},
    .prepare = PrepareForSuite,
    // Neither form keeps "Negate" or "UsePseudoInverse"; the camera's folder form drops the
    // first of its errors. XML keeps only the plane: the camera comes back new, so points
    // convert through the new camera onto the old plane.
    .forms = {{.xml = false, .extension = "tCAL", .lost = {"param.UsePseudoInverse", "errors.mean"}},
              {.xml = true, .extension = "xml", .lost = {"revert", "errors", "param", "info"}, .changed = {"convert"}}},
    .filter = L"Calibration *.csv|*.csv|All Files (*.*)|*.*||",
    // The report of a new object: the zero camera's first line, 8-bit, no mark.
    .unnamedFormWritesText = true,
    .unnamedFormBegins = "0.00000000,0.00000000,0.00000000\r\n",
    .parametersNotReadBack = {L"SDError", L"MaxError"},
    .revertTolerance = kRevertPixels,
    .fit = [](IUnknown* o, ISimpleCollection* image, ISimpleCollection* world) {
      return QueryAs<ICamera3DCalibrationPlane>(o)->BestFit(image, world, 0);
    },
    // The camera's own answers, passed on.
    .badFits = {{"null collections are refused", nullptr, nullptr, E_FAIL},
                {"no points leave nothing to solve", &kNone, &kNone, E_POINTER},
                {"five points leave the normal matrix singular", &kFive, &kFive, E_FAIL}},
    .pages = {{L"", L"UIParametricObjectPropPage", L""},
              {L"", L"CalibrationMatrixPropPage", L""},
              {L"", L"Zeltrim.CalibrationInfoPropPage", L""},
              {L"", L"UIPropPages.UIFileArchivePropPage", L""}},
};
ZELTRIM_PROPERTY_CLASS(kPlaneTraits);

}  // namespace
