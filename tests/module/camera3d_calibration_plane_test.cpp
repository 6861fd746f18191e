// A camera and a plane through the loaded module: image points of known world points come
// back on the plane; the sign of the offset, "Negate", the singular system, the fixed
// height of the pseudo-inverse route and its flag; the forwarded and the stored fit; the
// plane's model function on stored views; the file forms. Interfaces, references, pages
// and the common file checks: the property suite.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "tests/module/CameraTestSupport.h"

namespace {

constexpr double kExactWorld = 1e-9;     // located points of exact data, in world units
constexpr double kExactResidual = 1e-9;  // the model function's residuals of exact data
constexpr double kRevertPixels = 1e-6;   // image -> world -> image
constexpr double kXmlWorld = 1e-5;       // through a camera whose XML form keeps six decimals

using namespace camera_test;

const View kTruth;

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

std::vector<double> Coefficients(ICamera3DCalibrationPlane* o) {
  double a = NAN, b = NAN, c = NAN, d = NAN;
  PlaneOf(o)->GetCoefficients(&a, &b, &c, &d);
  return {a, b, c, d};
}

// The year of the calibration time, which a fit stamps.
short YearOf(IUnknown* o) {
  short day = 0, month = 0, year = 0, hour = 0, minute = 0;
  QueryAs<ICalibrationInfo>(o)->GetCalibrationTime(&day, &month, &year, &hour, &minute);
  return year;
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

// World points on the plane n . X + d = 0 (n[2] not 0) over a grid of X and Y.
std::vector<P> OnPlane(const double n[3], double d) {
  std::vector<P> points;
  for (double x : {-1.5, -0.4, 0.7, 1.9})
    for (double y : {-1.2, 0.3, 1.6}) points.push_back({x, y, -(d + n[0] * x + n[1] * y) / n[2]});
  return points;
}

TEST(Camera3DCalibrationPlane, ImagePointsOfTheGroundPlaneComeBackToRounding) {
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(TransformCamera(kTruth));
  const double up[3] = {0, 0, 1};
  for (const P& w : OnPlane(up, 0.0)) {
    const P located = Locate(o, kTruth.Image(w));
    ExpectNear(located, w, kExactWorld);
  }
}

// The module solves its system with the first two right sides of the wrong sign and
// corrects by negating the whole point, so the point lands on n . X - d = 0: a plane is
// met with the sign of its offset reversed.
TEST(Camera3DCalibrationPlane, ATiltedPlaneIsMetWithTheSignOfItsOffsetReversed) {
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(TransformCamera(kTruth));
  const double length = std::sqrt(0.3 * 0.3 + 0.2 * 0.2 + 1.0);
  const double n[3] = {0.3 / length, -0.2 / length, 1.0 / length}, d = -1.5;
  const std::vector<P> world = OnPlane(n, d);
  // Given with its offset negated (and a normal of length 2), the plane gives the points back.
  ASSERT_EQ(PlaneOf(o)->SetCoefficients(2 * n[0], 2 * n[1], 2 * n[2], -2 * d), S_OK);
  for (const P& w : world) ExpectNear(Locate(o, kTruth.Image(w)), w, kExactWorld);
  // Given as it is, the points lie on the same rays and on n . X - d = 0.
  ASSERT_EQ(PlaneOf(o)->SetCoefficients(n[0], n[1], n[2], d), S_OK);
  for (const P& w : world) {
    const P u = kTruth.Image(w);
    const P located = Locate(o, u);
    EXPECT_NEAR(n[0] * located.x + n[1] * located.y + n[2] * located.z - d, 0.0, kExactWorld);
    ExpectNear(kTruth.Image(located), u, kRevertPixels);
  }
}

TEST(Camera3DCalibrationPlane, NegateZeroGivesTheRawSolutionMirroredThroughTheOrigin) {
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(TransformCamera(kTruth));
  ASSERT_EQ(PlaneOf(o)->SetCoefficients(0, 0, 1, -0.5), S_OK);  // met at Z = -0.5
  const P w{0.8, -0.6, -0.5}, u = kTruth.Image(w);
  ExpectNear(Locate(o, u), w, kExactWorld);
  SetNegate(o, 0);
  const P raw = Locate(o, u);
  ExpectNear(raw, (P{-w.x, -w.y, -w.z}), kExactWorld);
  EXPECT_EQ(Parameter(o, L"Negate"), 0.0);
}

// The camera x = (X - 2) / (Z + 5), y = (Y - 3) / (Z + 5): the ray of (0, 0) is the line
// X = 2, Y = 3. Planes that hold it leave the system singular.
const double kOffsetCamera[3][4] = {{1, 0, 0, -2}, {0, 1, 0, -3}, {0, 0, 1, 5}};

TEST(Camera3DCalibrationPlane, APlaneHoldingTheRayGivesTheRaysPointNearestTheOrigin) {
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(CameraOf<ICamera3DTransform>(L"Camera3DTransform", kOffsetCamera));
  // X = 2, with the offset reversed as the module meets it: (1, 0, 0, 2).
  ASSERT_EQ(PlaneOf(o)->SetCoefficients(1, 0, 0, 2), S_OK);
  ExpectNear(Locate(o, P{0, 0, 0}), (P{2, 3, 0}), kExactWorld);
  // Any plane through the ray: 3 X + 4 Y = 18, met as (3, 4, 0, 18).
  ASSERT_EQ(PlaneOf(o)->SetCoefficients(3, 4, 0, 18), S_OK);
  ExpectNear(Locate(o, P{0, 0, 0}), (P{2, 3, 0}), kExactWorld);
  // Off the singular system: the plane Z = 15, met as (0, 0, 1, 15). The ray of
  // (0.1, 0.2) reaches it at X = 2 + 0.1 * 20, Y = 3 + 0.2 * 20.
  ASSERT_EQ(PlaneOf(o)->SetCoefficients(0, 0, 1, 15), S_OK);
  ExpectNear(Locate(o, P{0.1, 0.2, 0}), (P{4, 7, 15}), kExactWorld);
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
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(CameraOf<ICamera3DTrinsic>(L"Camera3DTrinsic", kTruth.p));
  EXPECT_EQ(o->IsUsingPseudoInverse(), 0);
  EXPECT_EQ(o->UsePseudoInverse(1), S_OK);
  EXPECT_EQ(o->IsUsingPseudoInverse(), 1);
  // Plane or no plane: the point of the ray at Z = -0.001, exactly.
  ASSERT_EQ(o->put_Plane(nullptr), S_OK);
  const P w{0.4, 1.1, -0.001};
  const P located = Locate(o, kTruth.Image(w));
  EXPECT_EQ(located.z, -0.001);
  ExpectNear(located, w, kExactWorld);
  SetNegate(o, 0);
  EXPECT_EQ(Locate(o, kTruth.Image(w)).z, 0.001);
  // Cleared, the plane route needs the plane it no longer has.
  EXPECT_EQ(o->UsePseudoInverse(0), S_OK);
  EXPECT_EQ(o->IsUsingPseudoInverse(), 0);
  Locate(o, kTruth.Image(w), E_FAIL);
}

TEST(Camera3DCalibrationPlane, PseudoInverseFlagOfAPlainCameraIsKeptButNotUsed) {
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(TransformCamera(kTruth));
  EXPECT_EQ(o->UsePseudoInverse(1), E_FAIL);
  EXPECT_EQ(o->IsUsingPseudoInverse(), E_FAIL);
  EXPECT_EQ(Parameter(o, L"UsePseudoInverse"), 1.0);
  const P w{0.4, 1.1, 0};
  ExpectNear(Locate(o, kTruth.Image(w)), w, kExactWorld);  // the plane Z = 0
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

TEST(Camera3DCalibrationPlane, AFitGoesToTheCameraAndItsErrorsComeBack) {
  std::vector<P> image, world;
  Scene(kTruth, 20, &image, &world, 0, 5);
  SmartPtr<ICamera3DTransform> camera = LoadedModule::Get().Create<ICamera3DTransform>(L"Camera3DTransform");
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(camera);
  ASSERT_EQ(o->BestFit(Points(image), Points(world), 0), S_OK);
  const P w{0.3, -0.7, 0};
  ExpectNear(Locate(o, kTruth.Image(w)), w, kExactWorld);
  const FitErrors mine = ErrorsOf(o), its = ErrorsOf(camera);
  EXPECT_EQ((std::vector<double>{mine.error2, mine.error, mine.sd}), (std::vector<double>{its.error2, its.error, its.sd}));
  EXPECT_GT(YearOf(o), 2000) << "a fit stamps the time";
}

TEST(Camera3DCalibrationPlane, FlagsOf153OnlyKeepTheViews) {
  std::vector<P> image, world;
  Scene(kTruth, 20, &image, &world, 0, 5);
  SmartPtr<ICamera3DTransform> camera = TransformCamera(kTruth);
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(camera);
  const std::vector<double> before = MatrixOf(camera);
  SmartPtr<ISimpleCollection> a = Points(image), b = Points(world);
  ASSERT_EQ(o->BestFit(a, b, 153), S_OK);
  EXPECT_EQ(MatrixOf(camera), before);
  EXPECT_EQ(RefCount(a), 2);
  EXPECT_EQ(RefCount(b), 2);
  EXPECT_GT(YearOf(o), 2000);
  // Another call replaces them; no collection is refused.
  EXPECT_EQ(o->BestFit(nullptr, nullptr, 153), E_POINTER);
  EXPECT_EQ(RefCount(a), 1);
  EXPECT_EQ(RefCount(b), 1);
}

// ------------------------------------------------------------------ the model function

Evaluate PlaneModelFunction() { return ModelFunction("CCamera3DCalibrationPlane_LevenbergMarquardt_Evaluate"); }

// A 4 x 3 board (z = 0 in its own frame) seen in three views, each the board moved by
// `shift` and lifted to the height `height`; image points view after view.
const P kShifts[] = {{0.4, -0.3, 0}, {-0.8, 0.5, 0}, {1.1, 0.9, 0}};

void BoardViews(double height, std::vector<P>* image, std::vector<P>* model) {
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 3; ++j) model->push_back({-0.9 + 0.6 * i, -0.5 + 0.45 * j, 0});
  for (const P& shift : kShifts)
    for (const P& m : *model) image->push_back(kTruth.Image({m.x + shift.x, m.y + shift.y, height}));
}

// Against an independent evaluation: the ray of each image point meets the plane (solved
// here by Cramer's rule), a TransformBestFit with method 1 fits each view, and its matrix
// is applied twice.
TEST(Camera3DCalibrationPlane, ModelFunctionMatchesAnIndependentEvaluationForATiltedPlane) {
  const Evaluate evaluate = PlaneModelFunction();
  ASSERT_NE(evaluate, nullptr);
  SmartPtr<ICamera3DTrinsic> trinsic = CameraOf<ICamera3DTrinsic>(L"Camera3DTrinsic", kTruth.p);
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(trinsic);
  EXPECT_EQ(o->UsePseudoInverse(1), S_OK);  // cleared by the model function
  std::vector<P> image, model;
  BoardViews(0.2, &image, &model);
  ASSERT_EQ(o->BestFit(Points(image), Points(model), 153), S_OK);
  const double p[4] = {0.1, -0.05, 1.0, 0.35};
  const size_t n = model.size();
  std::vector<double> residuals(image.size() + 2, -1.0);
  int info = 7;
  evaluate(p, static_cast<int>(image.size()), QueryAs<IUnknown>(o).get(), residuals.data(), &info);
  EXPECT_EQ(info, 7) << "the model function never asks to stop";
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
        m[0][c] = kTruth.p[0][c] - u.x * kTruth.p[2][c];
        m[1][c] = kTruth.p[1][c] - u.y * kTruth.p[2][c];
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
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(TransformCamera(kTruth));
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
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(CameraOf(cameraClass, kTruth.p));
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
    EXPECT_EQ(NameOf(camera), cameraClass);
    const P u{300, 200, 0};
    ExpectNear(Locate(loaded, u), Locate(saved, u), 0.0);
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
  EXPECT_EQ(Coefficients(loaded), Coefficients(saved));
  SmartPtr<ITransform> camera;
  ASSERT_EQ(loaded->GetReverseTransform(camera.Out()), S_OK);
  EXPECT_EQ(NameOf(camera), L"Camera3DTransform");
  EXPECT_EQ(MatrixOf(camera), std::vector<double>(12, 0.0));
  std::remove(path.c_str());
}

// An element naming its object inside "Transform" is how a camera does come back by XML.
TEST(Camera3DCalibrationPlane, XmlTransformHoldingAnObjectElementLoadsThatCamera) {
  // A camera that knows its parts, since its XML form rebuilds P from them.
  SmartPtr<ICamera3DTransform> trinsic = TrinsicCamera(kTruth);
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
  SmartPtr<IDataStream> content = ElementContent(Text(out));
  ASSERT_TRUE(content);
  SmartPtr<ICamera3DCalibrationPlane> loaded = NewLocator(nullptr);
  ASSERT_EQ(QueryAs<IDataPersist>(loaded)->Load(content, 0), S_OK);
  SmartPtr<ITransform> camera;
  ASSERT_EQ(loaded->GetReverseTransform(camera.Out()), S_OK);
  ASSERT_TRUE(QueryAs<ICamera3DTrinsic>(camera));
  const P w{0.5, -0.25, 0};
  ExpectNear(Locate(loaded, kTruth.Image(w)), w, kXmlWorld);
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

TEST(Camera3DCalibrationPlane, NegateStartsOnAndBothFlagsAreReadFromTheirOwnParameters) {
  SmartPtr<ICamera3DCalibrationPlane> o = NewLocator(LoadedModule::Get().Create<ICamera3DTransform>(L"Camera3DTransform"));
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
  Scene(kTruth, 16, &image, &world, 0, 21);
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
