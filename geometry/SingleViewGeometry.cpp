#include "geometry/SingleViewGeometry.h"

#include <cmath>

#include "frame/Components.h"
#include "numeric/MatrixHouseHolder.h"
#include "numeric/MatrixSVD.h"
#include "numeric/MatrixUtils.h"

const tagREFString CSingleViewGeometry::m_ObjectName = {18, L"SingleViewGeometry"};

namespace {

const double kEpsilon = 2.220446049250313e-16;

// 4 x 4 identity with (x, y, z) in row 3: a translation for row vectors.
void Translation(double* t, double x, double y, double z) {
  for (int i = 0; i < 16; ++i) t[i] = (i % 5 == 0) ? 1.0 : 0.0;
  t[12] = x;
  t[13] = y;
  t[14] = z;
}

// The live 4 x 4 matrix behind one of a homogeneous calibration's transforms, or null.
double* LiveMatrix(IHomogeneousCalibration* calibration, bool forward) {
  SmartPtr<ITransform> transform;
  const HRESULT hr = forward ? calibration->GetForwardTransform(transform.Out())
                             : calibration->GetReverseTransform(transform.Out());
  if (hr < 0 || !transform) return nullptr;
  SmartPtr<IHomogeneousTransform> homogeneous = QueryAs<IHomogeneousTransform>(transform);
  double* m = nullptr;
  int rows = 0, columns = 0;
  if (!homogeneous || homogeneous->GetMatrix(&m, &rows, &columns) < 0 || rows != 4 || columns != 4) return nullptr;
  // The pointer stays valid after the references go: the calibration holds the transform.
  return m;
}

// A new "HomogeneousCalibration" whose forward and reverse matrices are the given 4 x 4
// ones; null when the host cannot make one that lends both.
ICalibration* NewHomogeneousCalibration(const double* forward, const double* reverse) {
  SmartPtr<IHomogeneousCalibration> calibration = CreateHostObject<IHomogeneousCalibration>(L"HomogeneousCalibration");
  if (!calibration) return nullptr;
  double* f = LiveMatrix(calibration, true);
  double* r = LiveMatrix(calibration, false);
  if (!f || !r) return nullptr;
  for (int i = 0; i < 16; ++i) f[i] = forward[i];
  for (int i = 0; i < 16; ++i) r[i] = reverse[i];
  return calibration.Detach();
}

// Copies the rows x columns of `from` (row-major, `fromColumns` wide) that fit into a live
// camera matrix reported as rows x columns.
void CopyInto(double* to, int rows, int columns, const double* from, int fromRows, int fromColumns) {
  for (int i = 0; i < rows && i < fromRows; ++i)
    for (int j = 0; j < columns && j < fromColumns; ++j) to[i * columns + j] = from[i * fromColumns + j];
}

// A new "Camera3DTrinsic" with intrinsic matrix L (4 x 3) and extrinsic matrix E (4 x 4)
// written through its live matrices, and its camera matrix rebuilt from them.
ICamera3DTrinsic* NewCamera(const double* L, const double* E) {
  SmartPtr<ICamera3DTrinsic> camera = CreateHostObject<ICamera3DTrinsic>(L"Camera3DTrinsic");
  if (!camera) return nullptr;
  double* a = nullptr;
  int rows = 0, columns = 0;
  if (camera->GetMatrix(1, &a, &rows, &columns) >= 0 && a) CopyInto(a, rows, columns, L, 4, 3);
  double* e = nullptr;
  if (camera->GetMatrix(2, &e, &rows, &columns) >= 0 && e) CopyInto(e, rows, columns, E, 4, 4);
  camera->GetMatrix(9, nullptr, nullptr, nullptr);
  return camera.Detach();
}

void Put(double* out, double value) {
  if (out) *out = value;
}

}  // namespace

HRESULT CSingleViewGeometry::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (QueryRoute(iid, IID_IUnknown, static_cast<CObject<CSingleViewGeometry>*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
      QueryRoute(iid, IID_ISingleViewGeometry, static_cast<ISingleViewGeometry*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CSingleViewGeometry::Decompose(ICamera3DTransform* camera, ICamera3DTrinsic** intrinsic, IPoint** location,
                                       ICalibration** translation, ICalibration** rotation) {
  if (!camera) return E_POINTER;
  double* P = nullptr;
  int r = 0, k = 0;
  if (camera->GetMatrix(&P, &r, &k) < 0 || !P || r != 4 || k != 3) return E_FAIL;

  // The centre: the null vector of A = P transposed (3 x 4), from the smallest singular
  // value (the lowest index on a tie). A failed decomposition is not looked at.
  double A[12], w[4], V[16];
  for (int i = 0; i < k; ++i)
    for (int j = 0; j < r; ++j) A[i * r + j] = P[j * k + i];
  CMatrixSVD().svdcmp(A, k, r, w, V);
  int smallest = 0;
  for (int i = 1; i < r; ++i)
    if (w[i] < w[smallest]) smallest = i;
  double c[4];
  for (int i = 0; i < 4; ++i) c[i] = V[i * r + smallest];
  if (std::fabs(c[3]) > kEpsilon) {
    c[0] /= c[3];
    c[1] /= c[3];
    c[2] /= c[3];
    c[3] = 1.0;
  }

  // B = T(c) P: P with its last row replaced by the image of the centre (zero up to rounding).
  CMatrixUtils utils;
  double T[16], B[12];
  Translation(T, c[0], c[1], c[2]);
  utils.Multiply(T, P, B, 4, 4, 3);

  // B = Q L: for row vectors, rotate by Q, then map by L.
  double Q[16], L[12], spare[16];
  CMatrixHouseHolder householder;
  householder.m_Rows = 4;
  householder.m_Cols = 3;
  householder.m_Q = Q;
  householder.m_Spare = spare;
  householder.m_L = L;
  householder.DecompositionQL(B);
  // Undo the factorisation's whole-matrix sign flip for Q only; L keeps it.
  if (std::fabs(Q[15]) > kEpsilon) {
    for (int i = 0; i < 15; ++i) Q[i] /= Q[15];
    Q[15] = 1.0;
  }
  if (std::fabs(L[8]) > kEpsilon) {
    for (int i = 0; i < 8; ++i) L[i] /= L[8];
    L[8] = 1.0;
  }

  double back[16], E[16];
  Translation(back, -c[0], -c[1], -c[2]);
  utils.Multiply(back, Q, E, 4, 4, 4);

  if (location) {
    *location = GEOObject::CreatePoint();
    if (*location) (*location)->SetXYZ(c[0], c[1], c[2]);
  }
  if (intrinsic) *intrinsic = NewCamera(L, E);
  if (translation) *translation = NewHomogeneousCalibration(back, T);
  if (rotation) {
    double Qt[16];
    for (int i = 0; i < 4; ++i)
      for (int j = 0; j < 4; ++j) Qt[i * 4 + j] = Q[j * 4 + i];
    *rotation = NewHomogeneousCalibration(Q, Qt);
  }
  return S_OK;
}

HRESULT CSingleViewGeometry::CalcLine(ICamera3DTrinsic* camera, double ax, double ay, double cx, double cy, double bx,
                                      double by, double distanceAC, double distanceCB, double* x1, double* y1,
                                      double* z1, double* x2, double* y2, double* z2) {
  if (!camera) return E_POINTER;
  // The image points as (x, y, 0): the third coordinate is zero on purpose.
  const double a[3] = {ax, ay, 0.0}, c[3] = {cx, cy, 0.0}, b[3] = {bx, by, 0.0};
  auto cross = [](const double* u, const double* v, double* out) {
    out[0] = u[1] * v[2] - u[2] * v[1];
    out[1] = u[2] * v[0] - u[0] * v[2];
    out[2] = u[0] * v[1] - u[1] * v[0];
  };
  auto dot = [](const double* u, const double* v) { return u[0] * v[0] + u[1] * v[1] + u[2] * v[2]; };
  double L1[3], L2[3], L3[3];
  cross(a, c, L1);
  cross(b, c, L2);
  cross(a, b, L3);
  const double n = dot(L1, L3) * distanceCB;
  const double d = dot(L2, L3) * distanceAC;
  const double lambda = n / d;
  const double V[3] = {a[0] + lambda * b[0], a[1] + lambda * b[1], a[2] + lambda * b[2]};

  // G = M M-transposed of the 3 x 4 pseudo-inverse M (row-major).
  double* M = nullptr;
  int rows = 0, columns = 0;
  if (camera->GetMatrix(4, &M, &rows, &columns) < 0 || !M || rows != 3 || columns != 4) return E_FAIL;
  double G[9];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      G[i * 3 + j] = M[i * 4] * M[j * 4] + M[i * 4 + 1] * M[j * 4 + 1] + M[i * 4 + 2] * M[j * 4 + 2] +
                     M[i * 4 + 3] * M[j * 4 + 3];
  double VG[3];
  for (int j = 0; j < 3; ++j) VG[j] = V[0] * G[j] + V[1] * G[3 + j] + V[2] * G[6 + j];
  const double Z1 = (distanceAC + distanceCB) / std::sqrt(dot(VG, V));
  const double Z2 = -(n / d) * Z1;

  // Each end on the line of sight of its image point, at its height z: the two planes
  // A x + B y + C z + D = 0 and E x + F y + G2 z + H = 0 solved for x and y.
  auto solve = [camera](double u, double v, double z, double* x, double* y) {
    double s[8];
    if (camera->SolveMatrix(s, u, v) < 0) return;
    const double A = s[0], B = s[1], C = s[2], D = s[3], E = s[4], F = s[5], G2 = s[6], H = s[7];
    const double c1 = C * z + D, c2 = G2 * z + H;
    const double den = E * B - F * A;
    if (std::fabs(den) >= kEpsilon) Put(y, -(E * c1 - A * c2) / den);
    const double den2 = F * A - E * B;
    if (std::fabs(den2) >= kEpsilon) Put(x, -(F * c1 - B * c2) / den2);
  };
  solve(ax, ay, Z1, x1, y1);
  Put(z1, Z1);
  solve(bx, by, Z2, x2, y2);
  Put(z2, Z2);
  return S_OK;
}

HRESULT CSingleViewGeometry::CalcPlane(ICamera3DTransform*, ISimpleCollection*, ISimpleCollection*,
                                       ISimpleCollection**, IPlane**) {
  return S_OK;
}
