// Stereo geometry on synthetic rigs of known K, R and t: the re-framings of CalcPose, the
// centres, epipoles and image centres it derives, F against exact correspondences, and
// CalibStereo on exact and noisy pairs. Every expected value is worked out here from the
// rig itself (the View of each camera), not read back from the object.
//
// F, E, G and the auxiliary matrices are reached only as host "HomogeneousCalibration"
// objects; the tests that read them skip while the host has none.
#include <random>

#include "tests/module/CameraTestSupport.h"

namespace {

using camera_test::TrinsicCamera;
using camera_test::View;

constexpr double kRounding = 1e-9;
constexpr double kPixel = 1e-6;

const property::ClassTraits kMultiView{
    .name = L"MultiViewGeometry",
    .routes = {{&IID_IMultiViewGeometry}},
};
ZELTRIM_PROPERTY_CLASS(kMultiView);

// A rig: the first camera as in the camera tests, the second turned and moved.
const View kLeft(0.2, -0.3, 0.1, 0.3, -0.2, 10.0);
const View kRight(0.25, -0.1, 0.05, -1.7, -0.1, 10.4);

struct Matrix3 {
  double m[3][3];
};

Matrix3 Times(const double (&a)[3][3], const double (&b)[3][3], bool transposeB = false) {
  Matrix3 c{};
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      for (int k = 0; k < 3; ++k) c.m[i][j] += a[i][k] * (transposeB ? b[j][k] : b[k][j]);
  return c;
}

// The camera centre -R^T t of a view.
P CentreOf(const View& v) {
  double c[3];
  for (int i = 0; i < 3; ++i) c[i] = -(v.r[0][i] * v.t[0] + v.r[1][i] * v.t[1] + v.r[2][i] * v.t[2]);
  return {c[0], c[1], c[2]};
}

double Distance(const P& a, const P& b) {
  return std::sqrt((a.x - b.x) * (a.x - b.x) + (a.y - b.y) * (a.y - b.y) + (a.z - b.z) * (a.z - b.z));
}

// X2 = X1 rel for first-camera coordinates X1: rotation (R2 R1^T)^T on top, row 3 the
// translation t2 - R2 R1^T t1.
std::vector<double> RelativePose(const View& from, const View& to) {
  const Matrix3 r = Times(to.r, from.r, true);
  std::vector<double> rel(16, 0.0);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) rel[4 * i + j] = r.m[j][i];
  for (int i = 0; i < 3; ++i)
    rel[12 + i] = to.t[i] - (r.m[i][0] * from.t[0] + r.m[i][1] * from.t[1] + r.m[i][2] * from.t[2]);
  rel[15] = 1.0;
  return rel;
}

struct Rig {
  SmartPtr<ICamera3DTrinsic> left = QueryAs<ICamera3DTrinsic>(TrinsicCamera(kLeft));
  SmartPtr<ICamera3DTrinsic> right = QueryAs<ICamera3DTrinsic>(TrinsicCamera(kRight));
  SmartPtr<IMultiViewGeometry> geometry = LoadedModule::Get().Create<IMultiViewGeometry>(L"MultiViewGeometry");
  ParameterList list;

  Rig(const View& a = kLeft, const View& b = kRight)
      : left(QueryAs<ICamera3DTrinsic>(TrinsicCamera(a))), right(QueryAs<ICamera3DTrinsic>(TrinsicCamera(b))) {
    Add(L"left", left);
    Add(L"right", right);
    geometry->SetCalibrations(list.list);
  }
  void Add(const wchar_t* name, IUnknown* item) { list.list->Add(Str(name), item, nullptr, 0); }
  static double* Extrinsic(ICamera3DTrinsic* camera) {
    double* e = nullptr;
    camera->GetMatrix(2, &e, nullptr, nullptr);
    return e;
  }
  std::vector<double> Pose() {
    double* m = nullptr;
    geometry->GetMatrix(1, &m, nullptr, nullptr);
    return std::vector<double>(m, m + 16);
  }
  // Origin of a camera's location vector (kind 7).
  P Location(int index) {
    SmartPtr<IUnknown> item;
    P p{NAN, NAN, NAN};
    if (geometry->GetLocation(7, index, item.Out()) == S_OK)
      if (SmartPtr<IPointVector> v = QueryAs<IPointVector>(item)) v->get_Origin(&p.x, &p.y, &p.z);
    return p;
  }
  P Located(int kind, int index) {
    SmartPtr<IUnknown> item;
    P p{NAN, NAN, NAN};
    if (geometry->GetLocation(kind, index, item.Out()) == S_OK)
      if (SmartPtr<IPoint> point = QueryAs<IPoint>(item)) point->GetXYZ(&p.x, &p.y, &p.z);
    return p;
  }
};

void ExpectMatrixNear(const std::vector<double>& got, const std::vector<double>& want, double tolerance) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < got.size(); ++i) EXPECT_NEAR(got[i], want[i], tolerance) << "element " << i;
}

std::vector<double> Identity4() { return {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}; }

// The forward matrix of a kind-2-to-6 location; empty (and the test skipped) while the
// host has no "HomogeneousCalibration".
std::vector<double> ForwardOf(IMultiViewGeometry* geometry, int kind) {
  SmartPtr<IUnknown> out;
  if (geometry->GetLocation(kind, 0, out.Out()) != S_OK) return {};
  SmartPtr<ITransform> forward;
  QueryAs<IHomogeneousCalibration>(out)->GetForwardTransform(forward.Out());
  double* m = nullptr;
  QueryAs<IHomogeneousTransform>(forward)->GetMatrix(&m, nullptr, nullptr);
  return std::vector<double>(m, m + 16);
}

// The 3 x 3 matrix embedded at rows and columns 0, 1, 3 of a forward matrix.
std::vector<double> Embedded(const std::vector<double>& forward) {
  static const int at[3] = {0, 1, 3};
  std::vector<double> m(9);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) m[3 * i + j] = forward[4 * at[i] + at[j]];
  return m;
}

// Distance in pixels of q from the epipolar line p F of p.
double EpipolarDistance(const std::vector<double>& f, const P& p, const P& q) {
  double l[3];
  for (int j = 0; j < 3; ++j) l[j] = p.x * f[j] + p.y * f[3 + j] + f[6 + j];
  return std::fabs(l[0] * q.x + l[1] * q.y + l[2]) / std::sqrt(l[0] * l[0] + l[1] * l[1]);
}

// Corresponding image points of `count` world points seen by both views, each image with
// Gaussian noise of `noise` pixels per axis.
void Pairs(const View& a, const View& b, int count, std::vector<P>* first, std::vector<P>* second, double noise = 0,
           unsigned seed = 11) {
  std::vector<P> world;
  camera_test::Scene(a, count, first, &world, noise, seed);
  std::mt19937 random(seed + 1);
  std::normal_distribution<double> pixel(0.0, 1.0);
  for (const P& w : world) {
    P u = b.Image(w);
    if (noise > 0) u.x += noise * pixel(random), u.y += noise * pixel(random);
    second->push_back(u);
  }
}

// ------------------------------------------------------------------ cameras and CalcPose

TEST(MultiViewGeometry, FewerThanTwoCamerasFailsAndChangesNothing) {
  SmartPtr<IMultiViewGeometry> geometry = LoadedModule::Get().Create<IMultiViewGeometry>(L"MultiViewGeometry");
  EXPECT_EQ(geometry->SetCalibrations(nullptr), S_OK);
  EXPECT_EQ(geometry->CalcPose(0), E_FAIL);
  // A plain list answers no INamedCollection: no cameras at all.
  SmartPtr<ICreatableSimpleCollection> plain = LoadedModule::Get().CreateHost<ICreatableSimpleCollection>(L"SimpleCollection");
  plain->Add(TrinsicCamera(kLeft));
  plain->Add(TrinsicCamera(kRight));
  EXPECT_EQ(geometry->SetCalibrations(plain), S_OK);
  EXPECT_EQ(geometry->CalcPose(0), E_FAIL);

  ParameterList one;
  SmartPtr<ICamera3DTransform> only = TrinsicCamera(kLeft);
  one.list->Add(Str(L"only"), only, nullptr, 0);
  geometry->SetCalibrations(one.list);
  EXPECT_EQ(geometry->CalcPose(0), E_FAIL);
  double* e = nullptr;
  QueryAs<ICamera3DTrinsic>(only)->GetMatrix(2, &e, nullptr, nullptr);
  EXPECT_EQ(e[12], kLeft.t[0]) << "the only camera keeps its pose";
  double* rel = nullptr;
  geometry->GetMatrix(1, &rel, nullptr, nullptr);
  ExpectMatrixNear(std::vector<double>(rel, rel + 16), {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 0);
}

TEST(MultiViewGeometry, ModeZeroPutsTheFirstCameraAtTheOriginAndKeepsTheRelativePose) {
  Rig rig;
  ASSERT_EQ(rig.geometry->CalcPose(0), S_OK);
  const std::vector<double> want = RelativePose(kLeft, kRight);
  ExpectMatrixNear(std::vector<double>(Rig::Extrinsic(rig.left), Rig::Extrinsic(rig.left) + 16), Identity4(), 0);
  ExpectMatrixNear(rig.Pose(), want, kRounding);
  ExpectMatrixNear(std::vector<double>(Rig::Extrinsic(rig.right), Rig::Extrinsic(rig.right) + 16), want, kRounding);
  ExpectNear(rig.Location(0), {0, 0, 0}, kRounding);
  // The second camera's centre in the first camera's frame: R1 (C2 - C1).
  const P c1 = CentreOf(kLeft), c2 = CentreOf(kRight);
  const P d{c2.x - c1.x, c2.y - c1.y, c2.z - c1.z};
  const P inFirst{kLeft.r[0][0] * d.x + kLeft.r[0][1] * d.y + kLeft.r[0][2] * d.z,
                  kLeft.r[1][0] * d.x + kLeft.r[1][1] * d.y + kLeft.r[1][2] * d.z,
                  kLeft.r[2][0] * d.x + kLeft.r[2][1] * d.y + kLeft.r[2][2] * d.z};
  ExpectNear(rig.Location(1), inFirst, 1e-8);

  ASSERT_EQ(rig.geometry->CalcPose(0), S_OK);
  ExpectMatrixNear(rig.Pose(), want, kRounding);
  ExpectMatrixNear(std::vector<double>(Rig::Extrinsic(rig.left), Rig::Extrinsic(rig.left) + 16), Identity4(), 0);
}

TEST(MultiViewGeometry, ModeOnePutsTheSecondCameraAtTheOrigin) {
  Rig rig;
  ASSERT_EQ(rig.geometry->CalcPose(1), S_OK);
  const std::vector<double> want = RelativePose(kRight, kLeft);
  ExpectMatrixNear(std::vector<double>(Rig::Extrinsic(rig.right), Rig::Extrinsic(rig.right) + 16), Identity4(), 0);
  ExpectMatrixNear(rig.Pose(), want, kRounding);
  ExpectMatrixNear(std::vector<double>(Rig::Extrinsic(rig.left), Rig::Extrinsic(rig.left) + 16), want, kRounding);
  ExpectNear(rig.Location(1), {0, 0, 0}, kRounding);
}

TEST(MultiViewGeometry, NegativeModesLeaveTheCamerasAndReportTheRelativePose) {
  Rig rig;
  const std::vector<double> before(Rig::Extrinsic(rig.left), Rig::Extrinsic(rig.left) + 16);
  ASSERT_EQ(rig.geometry->CalcPose(-1), S_OK);
  ExpectMatrixNear(std::vector<double>(Rig::Extrinsic(rig.left), Rig::Extrinsic(rig.left) + 16), before, 0);
  ExpectMatrixNear(rig.Pose(), RelativePose(kLeft, kRight), kRounding);
  ExpectNear(rig.Location(0), CentreOf(kLeft), 1e-8);
  ExpectNear(rig.Location(1), CentreOf(kRight), 1e-8);
}

TEST(MultiViewGeometry, MidpointFrameCentresAParallelRigSymmetrically) {
  // Both cameras share one rotation: the half translation lands the midpoint at the origin.
  const View a(0.1, 0.2, -0.1, 0.5, 0.0, 9.0), b(0.1, 0.2, -0.1, -1.5, 0.3, 9.2);
  Rig rig(a, b);
  ASSERT_EQ(rig.geometry->CalcPose(2), S_OK);
  const P c1 = rig.Location(0), c2 = rig.Location(1);
  ExpectNear({c1.x + c2.x, c1.y + c2.y, c1.z + c2.z}, {0, 0, 0}, 1e-8);
  EXPECT_NEAR(Distance(c1, c2), Distance(CentreOf(a), CentreOf(b)), 1e-8);
  ExpectMatrixNear(rig.Pose(), RelativePose(a, b), kRounding);
}

TEST(MultiViewGeometry, BaselineFramePutsBothCentresOnTheXAxisAboutTheOrigin) {
  Rig rig;
  ASSERT_EQ(rig.geometry->CalcPose(3), S_OK);
  const P c1 = rig.Location(0), c2 = rig.Location(1);
  const double half = Distance(CentreOf(kLeft), CentreOf(kRight)) / 2;
  // The baseline points from the centre of smaller x to the other, and x goes along it.
  const double side = CentreOf(kLeft).x > CentreOf(kRight).x ? 1.0 : -1.0;
  ExpectNear(c1, {side * half, 0, 0}, 1e-8);
  ExpectNear(c2, {-side * half, 0, 0}, 1e-8);
  // The cameras moved rigidly: their relation is unchanged.
  ExpectMatrixNear(rig.Pose(), RelativePose(kLeft, kRight), kRounding);
}

TEST(MultiViewGeometry, EpipolesAndImageCentresAreTheImagesOfCentreAndAxis) {
  for (int mode : {-1, 0, 1, 2, 3}) {
    SCOPED_TRACE(mode);
    Rig rig;
    ASSERT_EQ(rig.geometry->CalcPose(mode), S_OK);
    // Image points do not depend on the frame: the other camera's centre through the rig's P.
    const P e1 = kLeft.Image(CentreOf(kRight)), e2 = kRight.Image(CentreOf(kLeft));
    ExpectNear(rig.Located(9, 0), {e1.x, e1.y, 0}, 1e-6);
    ExpectNear(rig.Located(9, 1), {e2.x, e2.y, 0}, 1e-6);
    // A point far along the viewing axis images at the principal point (K[0][2], K[1][2]).
    ExpectNear(rig.Located(8, 0), {kLeft.k[0][2], kLeft.k[1][2], 0}, 1e-6);
    ExpectNear(rig.Located(8, 1), {kRight.k[0][2], kRight.k[1][2], 0}, 1e-6);
  }
}

TEST(MultiViewGeometry, ItemsThatAreNoCameraAreSkippedAndAPlaneStandsForItsCamera) {
  SmartPtr<IMultiViewGeometry> geometry = LoadedModule::Get().Create<IMultiViewGeometry>(L"MultiViewGeometry");
  ParameterList list;
  SmartPtr<ICamera3DCalibrationPlane> plane =
      LoadedModule::Get().Create<ICamera3DCalibrationPlane>(L"Camera3DCalibrationPlane");
  SmartPtr<ICamera3DTransform> behind = TrinsicCamera(kLeft), right = TrinsicCamera(kRight);
  ASSERT_EQ(plane->SetReverseTransform(behind), S_OK);
  list.Number(L"a number", 4.0);
  list.list->Add(Str(L"plane"), plane, nullptr, 0);
  list.list->Add(Str(L"point"), LoadedModule::Get().CreateHost<IPoint>(L"Point"), nullptr, 0);
  list.list->Add(Str(L"projective only"), camera_test::TransformCamera(kLeft), nullptr, 0);
  list.list->Add(Str(L"right"), right, nullptr, 0);
  ASSERT_EQ(geometry->SetCalibrations(list.list), S_OK);
  ASSERT_EQ(geometry->CalcPose(0), S_OK);
  double* e = nullptr;
  QueryAs<ICamera3DTrinsic>(behind)->GetMatrix(2, &e, nullptr, nullptr);
  ExpectMatrixNear(std::vector<double>(e, e + 16), Identity4(), 0);
  SmartPtr<IUnknown> item;
  EXPECT_EQ(geometry->GetLocation(9, 1, item.Out()), S_OK);
  EXPECT_EQ(geometry->GetLocation(9, 2, item.Out()), E_FAIL) << "two cameras counted of five items";
}

// ------------------------------------------------------------------ GetMatrix, GetLocation

TEST(MultiViewGeometry, GetMatrixHandsOutTheRelativePoseOnlyAsFourRowsOfThree) {
  Rig rig;
  double* m = nullptr;
  int rows = 0, cols = 0;
  ASSERT_EQ(rig.geometry->GetMatrix(1, &m, &rows, &cols), S_OK);
  EXPECT_EQ(rows, 4);
  EXPECT_EQ(cols, 3);
  for (int id : {0, 2, 3, 4, 9, -1}) EXPECT_EQ(rig.geometry->GetMatrix(id, &m, &rows, &cols), E_FAIL) << id;
}

TEST(MultiViewGeometry, LocationsByKindAndTheirIndexRules) {
  Rig rig;
  ASSERT_EQ(rig.geometry->CalcPose(0), S_OK);
  SmartPtr<IUnknown> out;
  for (int kind : {0, -1, 10, 11}) EXPECT_EQ(rig.geometry->GetLocation(kind, 0, out.Out()), E_FAIL) << kind;

  const struct {
    int kind;
    const wchar_t* first;
    const wchar_t* second;
  } lists[] = {{7, L"CameraLocation#1", L"CameraLocation#2"},
               {8, L"ImageCenter#1", L"ImageCenter#2"},
               {9, L"Epipolar#1", L"Epipolar#2"}};
  for (const auto& l : lists) {
    SCOPED_TRACE(l.kind);
    ASSERT_EQ(rig.geometry->GetLocation(l.kind, -1, out.Out()), S_OK);
    SmartPtr<INamedCollection> named = QueryAs<INamedCollection>(out);
    ASSERT_TRUE(named);
    ASSERT_EQ(Count(named), 2);
    SmartPtr<IString> name;
    named->get_ItemName(0, name.Out());
    EXPECT_TRUE(Text(name) == l.first);
    named->get_ItemName(1, name.Out());
    EXPECT_TRUE(Text(name) == l.second);
    SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(out);
    tagREFString object{0, nullptr};
    ASSERT_TRUE(info && info->GetName(0, &object) == S_OK);
    EXPECT_EQ(std::wstring(object.m_Text, object.m_Length), L"GeometryCollection");
    EXPECT_EQ(rig.geometry->GetLocation(l.kind, 1, out.Out()), S_OK);
  }
  EXPECT_EQ(rig.geometry->GetLocation(9, 2, out.Out()), E_FAIL);
  EXPECT_NE(rig.geometry->GetLocation(7, 2, out.Out()), S_OK) << "no third location";

  ASSERT_EQ(rig.geometry->GetLocation(1, 0, out.Out()), S_OK);
  double* m = nullptr;
  QueryAs<IHomogeneousTransform>(out)->GetMatrix(&m, nullptr, nullptr);
  ExpectMatrixNear(std::vector<double>(m, m + 16), RelativePose(kLeft, kRight), kRounding);
  EXPECT_EQ(rig.geometry->GetLocation(1, 0, nullptr), E_POINTER);
}

TEST(MultiViewGeometry, AuxiliaryMatricesOfANewObjectAndTheirReverse) {
  SmartPtr<IMultiViewGeometry> geometry = LoadedModule::Get().Create<IMultiViewGeometry>(L"MultiViewGeometry");
  for (int kind : {5, 6}) {
    SCOPED_TRACE(kind);
    SmartPtr<IUnknown> out;
    ASSERT_EQ(geometry->GetLocation(kind, 0, out.Out()), S_OK);
    SmartPtr<IHomogeneousCalibration> calibration = QueryAs<IHomogeneousCalibration>(out);
    SmartPtr<ITransform> forward, reverse;
    calibration->GetForwardTransform(forward.Out());
    calibration->GetReverseTransform(reverse.Out());
    double *f = nullptr, *r = nullptr;
    QueryAs<IHomogeneousTransform>(forward)->GetMatrix(&f, nullptr, nullptr);
    QueryAs<IHomogeneousTransform>(reverse)->GetMatrix(&r, nullptr, nullptr);
    ExpectMatrixNear(std::vector<double>(f, f + 16), {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 0);
    // diag(0, 0, 0, 1) = I diag(w) I^T; columns of V with w exactly 0 stay undivided, so
    // the "pseudo-inverse" is V U^T = I, not diag(0, 0, 0, 1).
    ExpectMatrixNear(std::vector<double>(r, r + 16), Identity4(), 0);
  }
}

TEST(MultiViewGeometry, FundamentalMatrixHoldsForExactCorrespondencesInEveryMode) {
  std::vector<P> first, second;
  Pairs(kLeft, kRight, 30, &first, &second);
  for (int mode : {-1, 0, 1, 2, 3}) {
    SCOPED_TRACE(mode);
    Rig rig;
    ASSERT_EQ(rig.geometry->CalcPose(mode), S_OK);
    const std::vector<double> forward = ForwardOf(rig.geometry, 3);
    ASSERT_EQ(forward.size(), 16u);
    EXPECT_EQ(forward[10], 0.0) << "z drops out";
    const std::vector<double> f = Embedded(forward);
    EXPECT_EQ(f[8], 1.0);
    for (size_t i = 0; i < first.size(); ++i) EXPECT_LT(EpipolarDistance(f, first[i], second[i]), kPixel) << i;
    // The first epipole is the left null vector of F: e1 F = 0.
    const P e1 = kLeft.Image(CentreOf(kRight));
    for (int j = 0; j < 3; ++j) EXPECT_NEAR(e1.x * f[j] + e1.y * f[3 + j] + f[6 + j], 0.0, 1e-9) << j;
  }
}

TEST(MultiViewGeometry, EssentialMatrixIsTheFundamentalOneInCameraCoordinates) {
  Rig rig;
  ASSERT_EQ(rig.geometry->CalcPose(0), S_OK);
  const std::vector<double> e = Embedded(ForwardOf(rig.geometry, 2));
  // With y = K^-1 x in each camera: y1 E y2^T = 0 for the rig's own relative pose.
  // E is proportional to [t]x-like form built here from the rig: for X1 in the first
  // camera's frame, X2 = X1 R^T + t with R = R2 R1^T; normalised points y = X / z.
  const Matrix3 r = Times(kRight.r, kLeft.r, true);
  std::mt19937 random(3);
  std::uniform_real_distribution<double> box(-1.0, 1.0);
  for (int i = 0; i < 10; ++i) {
    const double x1[3] = {box(random), box(random), 5 + box(random)};
    double x2[3];
    for (int k = 0; k < 3; ++k)
      x2[k] = r.m[k][0] * x1[0] + r.m[k][1] * x1[1] + r.m[k][2] * x1[2] + (kRight.t[k] -
              (r.m[k][0] * kLeft.t[0] + r.m[k][1] * kLeft.t[1] + r.m[k][2] * kLeft.t[2]));
    const P y1{x1[0] / x1[2], x1[1] / x1[2], 1}, y2{x2[0] / x2[2], x2[1] / x2[2], 1};
    double l[3];
    for (int j = 0; j < 3; ++j) l[j] = y1.x * e[j] + y1.y * e[3 + j] + e[6 + j];
    EXPECT_NEAR((l[0] * y2.x + l[1] * y2.y + l[2]) / std::sqrt(l[0] * l[0] + l[1] * l[1]), 0.0, 1e-9) << i;
  }
}

// ------------------------------------------------------------------ CalibStereo

TEST(MultiViewGeometry, CalibStereoOnExactPairsGivesAnExactFundamentalMatrix) {
  std::vector<P> first, second;
  Pairs(kLeft, kRight, 40, &first, &second);
  SmartPtr<IMultiViewGeometry> geometry = LoadedModule::Get().Create<IMultiViewGeometry>(L"MultiViewGeometry");
  ASSERT_EQ(geometry->CalibStereo(Points(first), Points(second)), S_OK);
  const std::vector<double> f = Embedded(ForwardOf(geometry, 3));
  EXPECT_EQ(f[8], 1.0);
  for (size_t i = 0; i < first.size(); ++i) EXPECT_LT(EpipolarDistance(f, first[i], second[i]), 1e-4) << i;
  // No cameras: E stays the zero-but-last matrix of a new object.
  ExpectMatrixNear(Embedded(ForwardOf(geometry, 2)), {0, 0, 0, 0, 0, 0, 0, 0, 1}, 0);
}

TEST(MultiViewGeometry, CalibStereoOnNoisyPairsLeavesResidualsOfTheNoise) {
  const double noise = 0.5;
  std::vector<P> first, second;
  Pairs(kLeft, kRight, 200, &first, &second, noise);
  SmartPtr<IMultiViewGeometry> geometry = LoadedModule::Get().Create<IMultiViewGeometry>(L"MultiViewGeometry");
  ASSERT_EQ(geometry->CalibStereo(Points(first), Points(second)), S_OK);
  const std::vector<double> f = Embedded(ForwardOf(geometry, 3));
  double sum = 0;
  for (size_t i = 0; i < first.size(); ++i) {
    const double d = EpipolarDistance(f, first[i], second[i]);
    sum += d * d;
  }
  // Each point's distance from its line carries the noise of both images across the line,
  // about noise * sqrt(2) per pair at the true F; a fit cannot do much better or worse.
  const double rms = std::sqrt(sum / first.size());
  EXPECT_GT(rms, 0.2 * noise);
  EXPECT_LT(rms, 2.0 * noise * std::sqrt(2.0));
}

// Gaussian elimination with partial pivoting for the 8 x 8 system a f = b.
std::vector<double> Solve8(std::vector<std::vector<double>> a, std::vector<double> b) {
  const int n = 8;
  for (int c = 0; c < n; ++c) {
    int pivot = c;
    for (int r = c + 1; r < n; ++r)
      if (std::fabs(a[r][c]) > std::fabs(a[pivot][c])) pivot = r;
    std::swap(a[c], a[pivot]);
    std::swap(b[c], b[pivot]);
    for (int r = c + 1; r < n; ++r) {
      const double k = a[r][c] / a[c][c];
      for (int j = c; j < n; ++j) a[r][j] -= k * a[c][j];
      b[r] -= k * b[c];
    }
  }
  std::vector<double> x(n);
  for (int r = n - 1; r >= 0; --r) {
    double s = b[r];
    for (int j = r + 1; j < n; ++j) s -= a[r][j] * x[j];
    x[r] = s / a[r][r];
  }
  return x;
}

TEST(MultiViewGeometry, EightNoisyPairsGiveTheLinearEstimateUnrefined) {
  std::vector<P> first, second;
  Pairs(kLeft, kRight, 8, &first, &second, 1.0);
  // The eight equations p F q^T = 0 with F[2][2] = 1 fix F.
  std::vector<std::vector<double>> a;
  std::vector<double> b;
  for (size_t i = 0; i < 8; ++i) {
    const P& p = first[i];
    const P& q = second[i];
    a.push_back({p.x * q.x, p.x * q.y, p.x, p.y * q.x, p.y * q.y, p.y, q.x, q.y});
    b.push_back(-1.0);
  }
  std::vector<double> want = Solve8(a, b);
  want.push_back(1.0);
  SmartPtr<IMultiViewGeometry> geometry = LoadedModule::Get().Create<IMultiViewGeometry>(L"MultiViewGeometry");
  ASSERT_EQ(geometry->CalibStereo(Points(first), Points(second)), S_OK);
  const std::vector<double> f = Embedded(ForwardOf(geometry, 3));
  for (int k = 0; k < 9; ++k) EXPECT_NEAR(f[k], want[k], 1e-7 * (1 + std::fabs(want[k]))) << k;
}

TEST(MultiViewGeometry, CalibStereoEpipolesAreMiddleEigenvectorsOfTheSymmetricReading) {
  std::vector<P> first, second;
  Pairs(kLeft, kRight, 40, &first, &second, 0.3);
  SmartPtr<IMultiViewGeometry> geometry = LoadedModule::Get().Create<IMultiViewGeometry>(L"MultiViewGeometry");
  ASSERT_EQ(geometry->CalibStereo(Points(first), Points(second)), S_OK);
  const std::vector<double> f = Embedded(ForwardOf(geometry, 3));
  // Without cameras the epipoles are read from their collection (kind 9 refuses an index
  // not below the camera count, here 0).
  SmartPtr<IUnknown> list;
  ASSERT_EQ(geometry->GetLocation(9, -1, list.Out()), S_OK);
  SmartPtr<ISimpleCollection> epipoles = QueryAs<ISimpleCollection>(list);
  ASSERT_EQ(Count(epipoles), 2);
  SmartPtr<IUnknown> item;
  EXPECT_EQ(geometry->GetLocation(9, 0, item.Out()), E_FAIL);
  for (int image = 0; image < 2; ++image) {
    SCOPED_TRACE(image);
    // The symmetric matrix of the upper triangle (of F, then of F^T).
    double s[3][3];
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) {
        const int lo = std::min(i, j), hi = std::max(i, j);
        s[i][j] = image == 0 ? f[3 * lo + hi] : f[3 * hi + lo];
      }
    const P e = PointAt(epipoles, image);
    EXPECT_EQ(e.z, 0.0);
    const double v[3] = {e.x, e.y, 1.0};
    double sv[3];
    for (int i = 0; i < 3; ++i) sv[i] = s[i][0] * v[0] + s[i][1] * v[1] + s[i][2] * v[2];
    // S v = lambda v, and lambda lies between the other two eigenvalues: the trace and
    // determinant give their sum and product, so (lambda - a)(lambda - b) <= 0.
    const double lambda = sv[2];
    for (int i = 0; i < 2; ++i) EXPECT_NEAR(sv[i], lambda * v[i], 1e-6 * (1 + std::fabs(sv[i]))) << i;
    const double trace = s[0][0] + s[1][1] + s[2][2];
    const double det = s[0][0] * (s[1][1] * s[2][2] - s[1][2] * s[2][1]) -
                       s[0][1] * (s[1][0] * s[2][2] - s[1][2] * s[2][0]) +
                       s[0][2] * (s[1][0] * s[2][1] - s[1][1] * s[2][0]);
    const double sum = trace - lambda, product = det / lambda;
    EXPECT_LE(lambda * lambda - sum * lambda + product, 1e-9 * (1 + lambda * lambda));
  }
}

TEST(MultiViewGeometry, CalibStereoWithoutCamerasFactorsTheUntouchedEssentialMatrix) {
  std::vector<P> first, second;
  Pairs(kLeft, kRight, 20, &first, &second);
  SmartPtr<IMultiViewGeometry> geometry = LoadedModule::Get().Create<IMultiViewGeometry>(L"MultiViewGeometry");
  ASSERT_EQ(geometry->CalibStereo(Points(first), Points(second)), S_OK);
  // E = diag(0, 0, 1): its singular vectors are the axes up to sign, so the factored R is
  // a signed permutation (orthonormal, entries 0 and +-1) and T = Up W D Up^T has a single
  // unit entry off the diagonal: the translation is half a unit along one axis.
  double* m = nullptr;
  geometry->GetMatrix(1, &m, nullptr, nullptr);
  int units = 0;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      EXPECT_TRUE(m[4 * i + j] == 0 || std::fabs(m[4 * i + j]) == 1) << i << j;
      units += m[4 * i + j] != 0;
    }
  EXPECT_EQ(units, 3);
  EXPECT_EQ(std::fabs(m[12]) + std::fabs(m[13]) + std::fabs(m[14]), 0.5);
  EXPECT_EQ(m[3] + m[7] + m[11], 0.0);
  EXPECT_EQ(m[15], 1.0);
  SmartPtr<IUnknown> epipoles;
  ASSERT_EQ(geometry->GetLocation(9, -1, epipoles.Out()), S_OK);
  EXPECT_EQ(Count(QueryAs<ISimpleCollection>(epipoles)), 2);
}

TEST(MultiViewGeometry, CalibStereoWithCamerasFactorsARotation) {
  std::vector<P> first, second;
  Pairs(kLeft, kRight, 30, &first, &second);
  Rig rig;
  ASSERT_EQ(rig.geometry->CalibStereo(Points(first), Points(second)), S_OK);
  const std::vector<double> pose = rig.Pose();
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      double dot = 0;
      for (int k = 0; k < 3; ++k) dot += pose[4 * i + k] * pose[4 * j + k];
      EXPECT_NEAR(dot, i == j ? 1.0 : 0.0, 1e-9) << i << j;
    }
  EXPECT_EQ(pose[15], 1.0);
  EXPECT_NE(pose[12] * pose[12] + pose[13] * pose[13] + pose[14] * pose[14], 0.0);
}

TEST(MultiViewGeometry, CalibStereoUsesTheShorterSetAndSkipsItemsThatAreNoPoint) {
  std::vector<P> first, second;
  Pairs(kLeft, kRight, 25, &first, &second, 0.2);
  const auto run = [](ISimpleCollection* a, ISimpleCollection* b) {
    Rig rig;
    EXPECT_EQ(rig.geometry->CalibStereo(a, b), S_OK);
    std::vector<double> out = rig.Pose();
    for (int k = 0; k < 2; ++k) {
      const P e = rig.Located(9, k);
      out.insert(out.end(), {e.x, e.y, e.z});
    }
    return out;
  };
  const std::vector<double> base = run(Points(first), Points(second));
  std::vector<P> longer = second;
  longer.push_back({1, 2, 0});
  longer.push_back({3, 4, 0});
  ExpectMatrixNear(run(Points(first), Points(longer)), base, 0);

  // An item that is no point in the middle of the first set: that pair drops out, as if
  // it were not there.
  std::vector<P> fewer1 = first, fewer2 = second;
  fewer1.erase(fewer1.begin() + 10);
  fewer2.erase(fewer2.begin() + 10);
  SmartPtr<ICreatableSimpleCollection> mixed = LoadedModule::Get().CreateHost<ICreatableSimpleCollection>(L"SimpleCollection");
  SmartPtr<ISimpleCollection> points = Points(first);
  for (int i = 0; i < Count(points); ++i) {
    SmartPtr<IUnknown> item;
    points->get_Item(i, item.Out());
    if (i == 10) item = SmartPtr<IUnknown>(Str(L"no point").get());
    mixed->Add(item);
  }
  ExpectMatrixNear(run(mixed, Points(second)), run(Points(fewer1), Points(fewer2)), 1e-6);

  // Nothing at all, or a null set: still result 0.
  Rig rig;
  EXPECT_EQ(rig.geometry->CalibStereo(nullptr, Points(second)), S_OK);
  EXPECT_EQ(rig.geometry->CalibStereo(Points(std::vector<P>{}), Points(std::vector<P>{})), S_OK);
}

}  // namespace
