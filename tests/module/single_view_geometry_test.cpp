// Decompose and CalcLine of "SingleViewGeometry" on synthetic cameras of known K, R and
// centre (P = K [R | -R C]), against values worked out by hand or rebuilt in the test.
#include "tests/module/CameraTestSupport.h"

namespace {

using camera_test::CameraOf;
using camera_test::View;

// Centres and matrix entries of cameras about 10 units away with focal lengths near 800.
constexpr double kRounding = 1e-9;
// Reprojected pixels of the recomposed camera.
constexpr double kPixel = 1e-6;

const property::ClassTraits kSingleView{
    .name = L"SingleViewGeometry",
    .routes = {{&IID_IObjectInfo}, {&IID_ISingleViewGeometry}},
};
ZELTRIM_PROPERTY_CLASS(kSingleView);

SmartPtr<ISingleViewGeometry> Geometry() {
  return LoadedModule::Get().Create<ISingleViewGeometry>(L"SingleViewGeometry");
}

typedef double M3[3][3];
typedef double M4[16];

// P = K [R | -R C] by rows.
void Camera(const M3& k, const M3& r, const P& centre, double (&p)[3][4]) {
  const double c[3] = {centre.x, centre.y, centre.z};
  for (int i = 0; i < 3; ++i) {
    double kr[3] = {0, 0, 0};
    for (int j = 0; j < 3; ++j)
      for (int m = 0; m < 3; ++m) kr[j] += k[i][m] * r[m][j];
    for (int j = 0; j < 3; ++j) p[i][j] = kr[j];
    p[i][3] = -(kr[0] * c[0] + kr[1] * c[1] + kr[2] * c[2]);
  }
}

// The forward or reverse matrix of a homogeneous calibration (NaN when it has none).
std::vector<double> MatrixOf(ICalibration* calibration, bool forward) {
  std::vector<double> m(16, NAN);
  SmartPtr<IHomogeneousCalibration> h = QueryAs<IHomogeneousCalibration>(calibration);
  SmartPtr<ITransform> t;
  if (!h || (forward ? h->GetForwardTransform(t.Out()) : h->GetReverseTransform(t.Out())) < 0) return m;
  double* live = nullptr;
  if (SmartPtr<IHomogeneousTransform> ht = QueryAs<IHomogeneousTransform>(t)) ht->GetMatrix(&live, nullptr, nullptr);
  if (live) m.assign(live, live + 16);
  return m;
}

void ExpectMatrix(const std::vector<double>& got, const std::vector<double>& want, double tolerance,
                  const char* what) {
  SCOPED_TRACE(what);
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < got.size(); ++i) EXPECT_NEAR(got[i], want[i], tolerance) << "entry " << i;
}

// Identity with (x, y, z) in row 3.
std::vector<double> Translation(double x, double y, double z) {
  return {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, x, y, z, 1};
}

// What Decompose hands back, read out of the new objects.
struct Parts {
  HRESULT result = E_FAIL;
  SmartPtr<ICamera3DTrinsic> camera;
  SmartPtr<IPoint> location;
  SmartPtr<ICalibration> translation, rotation;
  M3 k{}, r{};     // the camera's intrinsic matrix and the rotation of its pose
  double t[3]{};   // the translation of its pose
  P centre{NAN, NAN, NAN};
};

Parts Decomposed(ICamera3DTransform* camera) {
  Parts parts;
  parts.result = Geometry()->Decompose(camera, parts.camera.Out(), parts.location.Out(), parts.translation.Out(),
                                       parts.rotation.Out());
  if (parts.location) parts.location->GetXYZ(&parts.centre.x, &parts.centre.y, &parts.centre.z);
  double *a = nullptr, *e = nullptr;
  if (!parts.camera || parts.camera->GetMatrix(1, &a, nullptr, nullptr) < 0 ||
      parts.camera->GetMatrix(2, &e, nullptr, nullptr) < 0 || !a || !e)
    return parts;
  // Both are held by columns: a[3c + r] is K[r][c], e[4c + r] is the pose's row r, column c.
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) parts.k[i][j] = a[3 * j + i], parts.r[i][j] = e[4 * j + i];
    parts.t[i] = e[12 + i];
  }
  return parts;
}

// ---------------------------------------------------------------- Decompose

// R = I, C = (1, -2, -10), K with skew. Worked by hand: every Householder step of the QL
// factorisation reflects one axis, the final L[0][0] < 0 flips Q and L, and Q alone is
// flipped back. So L is K exactly, while Q (and the pose's rotation) is -I: a rotation
// of determinant -1 whose camera K [-I | C] is -P, the same camera up to scale.
TEST(SingleViewGeometry, DecomposeOfAnUnrotatedCameraGivesKAndMinusTheIdentity) {
  const M3 k = {{800, 0.5, 320}, {0, 780, 240}, {0, 0, 1}}, identity = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  const P centre{1, -2, -10};
  double p[3][4];
  Camera(k, identity, centre, p);
  const Parts parts = Decomposed(CameraOf(L"Camera3DTransform", p));
  ASSERT_EQ(parts.result, S_OK);
  ASSERT_TRUE(parts.camera && parts.location && parts.translation && parts.rotation);
  ExpectNear(parts.centre, centre, kRounding);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      EXPECT_NEAR(parts.k[i][j], k[i][j], kRounding) << "K " << i << j;
      EXPECT_NEAR(parts.r[i][j], -identity[i][j], kRounding) << "R " << i << j;
    }
  // t = -R C = C.
  ExpectNear({parts.t[0], parts.t[1], parts.t[2]}, centre, kRounding);
  ExpectMatrix(MatrixOf(parts.translation, true), Translation(-1, 2, 10), kRounding, "translation forward");
  ExpectMatrix(MatrixOf(parts.translation, false), Translation(1, -2, -10), kRounding, "translation reverse");
  const std::vector<double> minusI = {-1, 0, 0, 0, 0, -1, 0, 0, 0, 0, -1, 0, 0, 0, 0, 1};
  ExpectMatrix(MatrixOf(parts.rotation, true), minusI, kRounding, "rotation forward");
  ExpectMatrix(MatrixOf(parts.rotation, false), minusI, kRounding, "rotation reverse");
  // The recomposed camera is P scaled to P[2][3] = 1 (P[2][3] = 10 here).
  double* rebuilt = nullptr;
  parts.camera->GetMatrix(0, &rebuilt, nullptr, nullptr);
  for (int row = 0; row < 3; ++row)
    for (int col = 0; col < 4; ++col) EXPECT_NEAR(rebuilt[3 * col + row], p[row][col] / 10, kRounding);
}

// A turned camera with skew and an overall scale of 3. The factorisation K' R' of the
// 3 x 3 part is unique up to the signs of the axes: K' = K S and R' = +-S R with
// S = diag(s0, s1, 1), the signs read off K' itself.
TEST(SingleViewGeometry, DecomposeGivesBackKRAndCentreUpToTheSignsOfTheAxes) {
  const View view(0.2, -0.3, 0.1, 0.3, -0.2, 10.0, 3.0);
  P truth{0, 0, 0};  // -R^T t
  for (int m = 0; m < 3; ++m) {
    truth.x -= view.r[m][0] * view.t[m];
    truth.y -= view.r[m][1] * view.t[m];
    truth.z -= view.r[m][2] * view.t[m];
  }
  const Parts parts = Decomposed(CameraOf(L"Camera3DTransform", view.p));
  ASSERT_EQ(parts.result, S_OK);
  ASSERT_TRUE(parts.camera && parts.location && parts.translation && parts.rotation);
  ExpectNear(parts.centre, truth, kRounding);

  const double s[3] = {parts.k[0][0] < 0 ? -1.0 : 1.0, parts.k[1][1] < 0 ? -1.0 : 1.0, 1.0};
  const double sign = parts.r[2][2] * view.r[2][2] < 0 ? -1.0 : 1.0;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      EXPECT_NEAR(parts.k[i][j], view.k[i][j] * s[j], kRounding) << "K " << i << j;
      EXPECT_NEAR(parts.r[i][j], sign * s[i] * view.r[i][j], kRounding) << "R " << i << j;
    }
  // The pose takes the centre to the origin: t = -R' C.
  for (int i = 0; i < 3; ++i)
    EXPECT_NEAR(parts.t[i], -(parts.r[i][0] * truth.x + parts.r[i][1] * truth.y + parts.r[i][2] * truth.z),
                kRounding);

  // For row vectors the rotation's forward matrix is R' transposed, its reverse R'.
  std::vector<double> forward = Translation(0, 0, 0), reverse = Translation(0, 0, 0);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) forward[4 * i + j] = parts.r[j][i], reverse[4 * i + j] = parts.r[i][j];
  ExpectMatrix(MatrixOf(parts.rotation, true), forward, kRounding, "rotation forward");
  ExpectMatrix(MatrixOf(parts.rotation, false), reverse, kRounding, "rotation reverse");
  ExpectNear(Converted(parts.translation, truth), {0, 0, 0}, kRounding);
  ExpectNear(Reverted(parts.translation, {0, 0, 0}), truth, kRounding);

  // The recomposed camera sees the world as the original does.
  for (const P& w : {P{0, 0, 0}, P{1.5, -1, 2}, P{-2, 0.5, -1}})
    ExpectNear(Converted(parts.camera, w), view.Image(w), kPixel);
}

// An affine camera: the last row of P is (0, 0, 0, 1), so P c = 0 only for c = (0, 0, +-1, 0),
// and a fourth component of 0 leaves the unit vector as the decomposition gives it.
TEST(SingleViewGeometry, DecomposeKeepsACentreAtInfinityUnscaled) {
  const double p[3][4] = {{2, 0, 0, 5}, {0, 3, 0, 7}, {0, 0, 0, 1}};
  const Parts parts = Decomposed(CameraOf(L"Camera3DTransform", p));
  ASSERT_EQ(parts.result, S_OK);
  ASSERT_TRUE(parts.location);
  EXPECT_NEAR(parts.centre.x, 0, kRounding);
  EXPECT_NEAR(parts.centre.y, 0, kRounding);
  EXPECT_NEAR(std::fabs(parts.centre.z), 1, kRounding);
}

TEST(SingleViewGeometry, DecomposeSkipsNullOutputsAndEachNewObjectHasOneReference) {
  const View view;
  SmartPtr<ICamera3DTransform> camera = CameraOf(L"Camera3DTransform", view.p);
  SmartPtr<ISingleViewGeometry> geometry = Geometry();
  EXPECT_EQ(geometry->Decompose(camera, nullptr, nullptr, nullptr, nullptr), S_OK);
  // A Camera3DTrinsic is a camera too; only the point is asked for here.
  SmartPtr<IPoint> location;
  EXPECT_EQ(geometry->Decompose(camera_test::TrinsicCamera(view), nullptr, location.Out(), nullptr, nullptr), S_OK);
  ASSERT_TRUE(location);
  EXPECT_EQ(RefCount(location), 1);
  const Parts parts = Decomposed(camera);
  ASSERT_TRUE(parts.camera && parts.translation && parts.rotation);
  EXPECT_EQ(RefCount(parts.camera), 1);
  EXPECT_EQ(RefCount(parts.translation), 1);
  EXPECT_EQ(RefCount(parts.rotation), 1);
  EXPECT_EQ(camera_test::NameOf(parts.camera), L"Camera3DTrinsic");
  EXPECT_EQ(camera_test::NameOf(parts.rotation), L"HomogeneousCalibration");
}

TEST(SingleViewGeometry, DecomposeOfANullOrAllZeroCameraDoesNotCrash) {
  SmartPtr<IPoint> location;
  EXPECT_EQ(Geometry()->Decompose(nullptr, nullptr, location.Out(), nullptr, nullptr), E_POINTER);
  EXPECT_FALSE(location);
  // Nothing to normalise: the result still stands, with whatever the kernels gave.
  const double zero[3][4] = {};
  const Parts parts = Decomposed(CameraOf(L"Camera3DTransform", zero));
  EXPECT_EQ(parts.result, S_OK);
  EXPECT_TRUE(parts.camera && parts.location && parts.translation && parts.rotation);
}

// ---------------------------------------------------------------- CalcLine

// Images of A, B and C = A + s (B - A) under P; the ends from CalcLine (NaN when unset).
struct Line {
  P a, b, c;
  double ac, cb;
};
Line Seen(const double (&p)[3][4], const P& A, const P& B, double s) {
  View camera;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 4; ++j) camera.p[i][j] = p[i][j];
  const P C{A.x + s * (B.x - A.x), A.y + s * (B.y - A.y), A.z + s * (B.z - A.z)};
  const double length = std::sqrt((B.x - A.x) * (B.x - A.x) + (B.y - A.y) * (B.y - A.y) + (B.z - A.z) * (B.z - A.z));
  return {camera.Image(A), camera.Image(B), camera.Image(C), s * length, (1 - s) * length};
}
struct Ends {
  HRESULT result = E_FAIL;
  P first{NAN, NAN, NAN}, second{NAN, NAN, NAN};
};
Ends CalcLine(const double (&p)[3][4], const Line& line, Ends ends = Ends()) {
  SmartPtr<ICamera3DTrinsic> camera = CameraOf<ICamera3DTrinsic>(L"Camera3DTrinsic", p);
  ends.result = Geometry()->CalcLine(camera, line.a.x, line.a.y, line.c.x, line.c.y, line.b.x, line.b.y, line.ac,
                                     line.cb, &ends.first.x, &ends.first.y, &ends.first.z, &ends.second.x,
                                     &ends.second.y, &ends.second.z);
  return ends;
}

// A camera at the origin looking down z, P = K [I | 0]. For a segment at one depth Z the
// image of C divides ab as C divides AB, so lambda = -1, V = a - b, and
// |K^-1 (a - b, 0)| = |AB| / Z: both ends come back exactly.
TEST(SingleViewGeometry, CalcLineRecoversASegmentParallelToTheImage) {
  const double p[3][4] = {{800, 0, 320, 0}, {0, 800, 240, 0}, {0, 0, 1, 0}};
  const P A{-0.5, 0.2, 5}, B{0.7, -0.4, 5};
  const Ends ends = CalcLine(p, Seen(p, A, B, 0.25));
  ASSERT_EQ(ends.result, S_OK);
  ExpectNear(ends.first, A, kRounding);
  ExpectNear(ends.second, B, kRounding);
}

// With the image points taken as (x, y, 0) a tilted segment comes back on the right lines
// of sight with the right ratio of depths, lambda = -Zb / Za, but scaled:
// V = f (A_xy - B_xy) / Za, so z1 = |AB| Za / |A_xy - B_xy| instead of Za.
TEST(SingleViewGeometry, CalcLineScalesATiltedSegmentByItsSlope) {
  const double f = 500;
  const double p[3][4] = {{f, 0, 0, 0}, {0, f, 0, 0}, {0, 0, 1, 0}};
  const P A{0.2, 0.1, 4}, B{-0.3, 0.2, 6};
  const Line line = Seen(p, A, B, 0.4);
  const Ends ends = CalcLine(p, line);
  ASSERT_EQ(ends.result, S_OK);
  const double across = std::hypot(A.x - B.x, A.y - B.y);
  const double z1 = (line.ac + line.cb) * A.z / across, z2 = z1 * B.z / A.z;
  ExpectNear(ends.first, {z1 * line.a.x / f, z1 * line.a.y / f, z1}, kRounding);
  ExpectNear(ends.second, {z2 * line.b.x / f, z2 * line.b.y / f, z2}, kRounding);
}

// Image points on a line through the image origin: a x b = 0, so lambda = 0 / 0 and
// everything after it is not a number; the result is still S_OK.
TEST(SingleViewGeometry, CalcLineThroughTheImageOriginDividesByZero) {
  const double p[3][4] = {{800, 0, 320, 0}, {0, 800, 240, 0}, {0, 0, 1, 0}};
  const Line line{{10, 20, 0}, {30, 60, 0}, {20, 40, 0}, 1, 1};
  const Ends ends = CalcLine(p, line);
  EXPECT_EQ(ends.result, S_OK);
  for (double v : {ends.first.x, ends.first.y, ends.first.z, ends.second.x, ends.second.y, ends.second.z})
    EXPECT_TRUE(std::isnan(v)) << v;
}

// A camera at the origin looking along world x (P rows (px, f, 0, 0), (py, 0, f, 0),
// (1, 0, 0, 0)): the line of sight of an image point on row py is level, so z fixes no
// point on it, and the 2 x 2 solve (determinant (py - v) f) leaves x and y as they were.
TEST(SingleViewGeometry, CalcLineLeavesXYOfAnEndWhoseLineOfSightIsLevel) {
  const double f = 600, px = 320, py = 240;
  const double p[3][4] = {{px, f, 0, 0}, {py, 0, f, 0}, {1, 0, 0, 0}};
  const Line line{{px + 100, py, 0}, {px - 50, py + 80, 0}, {px + 25, py + 40, 0}, 1, 1};
  Ends preset;
  preset.first = {-7, -8, -9};
  const Ends ends = CalcLine(p, line, preset);
  ASSERT_EQ(ends.result, S_OK);
  EXPECT_EQ(ends.first.x, -7);
  EXPECT_EQ(ends.first.y, -8);
  EXPECT_TRUE(std::isfinite(ends.first.z) && ends.first.z != -9) << ends.first.z;
  // The other end is solved, on its line of sight: it projects back to b.
  View camera;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 4; ++j) camera.p[i][j] = p[i][j];
  ExpectNear(camera.Image(ends.second), {line.b.x, line.b.y, 0}, kPixel);
}

TEST(SingleViewGeometry, CalcLineWithANullCameraIsRefused) {
  double v[6] = {1, 2, 3, 4, 5, 6};
  EXPECT_EQ(Geometry()->CalcLine(nullptr, 0, 0, 1, 1, 2, 2, 1, 1, &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]),
            E_POINTER);
  EXPECT_EQ(v[0], 1);
  EXPECT_EQ(v[5], 6);
}

}  // namespace
