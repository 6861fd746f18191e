// CMultiViewGeometry: the cameras, CalcPose and what it derives, the locations.
#include "geometry/MultiViewGeometry.h"

#include <cmath>
#include <cstring>

#include "frame/Components.h"
#include "frame/Conversions.h"
#include "numeric/MatrixSVD.h"
#include "numeric/MatrixUtils.h"

const tagREFString CMultiViewGeometry::m_ObjectName = {17, L"MultiViewGeometry"};

using multiview::kEpsilon;

namespace multiview {

void Normalize3(double* m) {
  if (std::fabs(m[8]) > kEpsilon) {
    for (int i = 0; i < 8; ++i) m[i] /= m[8];
    m[8] = 1.0;
  }
}

bool PointXY(ISimpleCollection* points, int i, double* x, double* y) {
  if (!points) return false;
  SmartPtr<IUnknown> item;
  if (points->get_Item(i, item.Out()) < 0) return false;
  SmartPtr<IPoint> point = QueryAs<IPoint>(item);
  if (!point) return false;
  double z = 0.0;
  return point->GetXYZ(x, y, &z) >= 0;
}

int CountOf(ISimpleCollection* c) {
  int n = 0;
  if (!c || c->get_Count(&n) < 0 || n < 0) return 0;
  return n;
}

}  // namespace multiview

namespace {

void Identity4(double* m) {
  for (int i = 0; i < 16; ++i) m[i] = (i % 5 == 0) ? 1.0 : 0.0;
}

// c = a b for 4 x 4 matrices (c may not alias).
void Multiply4(const double* a, const double* b, double* c) {
  CMatrixUtils().Multiply(const_cast<double*>(a), const_cast<double*>(b), c, 4, 4, 4);
}

// A camera matrix by id, copied (zeros when the camera hands out nothing).
void CameraMatrix(ICamera3DTrinsic* camera, int id, double* out, int count) {
  double* m = nullptr;
  camera->GetMatrix(id, &m, nullptr, nullptr);
  if (m)
    std::memcpy(out, m, sizeof(double) * static_cast<size_t>(count));
  else
    std::memset(out, 0, sizeof(double) * static_cast<size_t>(count));
}

// The live extrinsic matrix of a camera (never null for a Camera3DTrinsic).
double* Extrinsic(ICamera3DTrinsic* camera) {
  double* m = nullptr;
  camera->GetMatrix(2, &m, nullptr, nullptr);
  return m;
}

void Recompose(ICamera3DTrinsic* camera) { camera->GetMatrix(9, nullptr, nullptr, nullptr); }

// The centre of a camera: the right singular vector of P (3 x 4) with the smallest
// singular value, divided by its fourth element under the guard.
void Centre(ICamera3DTrinsic* camera, double* c) {
  double pt[12], p[12], w[4] = {0, 0, 0, 0}, v[16] = {};
  CameraMatrix(camera, 0, pt, 12);
  for (int r = 0; r < 3; ++r)
    for (int col = 0; col < 4; ++col) p[4 * r + col] = pt[3 * col + r];
  CMatrixSVD().svdcmp(p, 3, 4, w, v);
  int best = 0;
  for (int k = 1; k < 4; ++k)
    if (w[k] < w[best]) best = k;
  for (int k = 0; k < 4; ++k) c[k] = v[4 * k + best];
  if (std::fabs(c[3]) > kEpsilon)
    for (int k = 0; k < 4; ++k) c[k] /= c[3];
}

// The null vector of P (3 x 4) by SolveAx0, divided by its fourth element under the guard.
void NullVector(ICamera3DTrinsic* camera, double* c) {
  double pt[12], p[12];
  CameraMatrix(camera, 0, pt, 12);
  for (int r = 0; r < 3; ++r)
    for (int col = 0; col < 4; ++col) p[4 * r + col] = pt[3 * col + r];
  CMatrixSVD().SolveAx0(p, 3, 4, c);
  if (std::fabs(c[3]) > kEpsilon)
    for (int k = 0; k < 4; ++k) c[k] /= c[3];
}

// The image of homogeneous world point x (1 x 4) under a camera's projection (4 x 3),
// divided by its third element under the guard.
void Project(const double* x, ICamera3DTrinsic* camera, double* e) {
  double pt[12];
  CameraMatrix(camera, 0, pt, 12);
  CMatrixUtils().Multiply(const_cast<double*>(x), pt, e, 1, 4, 3);
  if (std::fabs(e[2]) > kEpsilon)
    for (int k = 0; k < 3; ++k) e[k] /= e[2];
}

// A new host point at the camera's image of point t along a vector, added to `list`
// under label text#number.
void AddImagePoint(IParametersCreatable* list, const wchar_t* text, int number, IPointVector* vector, double t,
                   ICamera3DTrinsic* camera) {
  double x = 0.0, y = 0.0, z = 0.0;
  vector->PointAt(&x, &y, &z, t);
  camera->Convert(&x, &y, &z);
  SmartPtr<IPoint> point;
  point.Attach(GEOObject::CreatePoint());
  if (!point || !list) return;
  point->SetXYZ(x, y, z);
  SmartPtr<IString> name;
  name.Attach(ISLabel(text, number, L'#', 1));
  list->Add(name, point, nullptr, 0);
}

// Moves a vector by a 4 x 4 matrix through the host transform `t`.
void TransformVector(IPointVector* vector, IHomogeneousTransform* t, const double* matrix) {
  double* m = nullptr;
  t->GetMatrix(&m, nullptr, nullptr);
  if (!m) return;
  std::memcpy(m, matrix, 16 * sizeof(double));
  if (SmartPtr<ITransformableObject> movable = QueryAs<ITransformableObject>(vector)) movable->Transform(t);
}

}  // namespace

HRESULT CMultiViewGeometry::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (QueryRoute(iid, IID_IUnknown, static_cast<CObject<CMultiViewGeometry>*>(this), object) ||
      QueryRoute(iid, IID_IMultiViewGeometry, static_cast<IMultiViewGeometry*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CMultiViewGeometry::FinalConstruct() {
  // A host without "GeometryCollection" leaves them null; every use checks.
  m_Locations = CreateHostObject<IParametersCreatable>(L"GeometryCollection");
  m_ImageCenters = CreateHostObject<IParametersCreatable>(L"GeometryCollection");
  m_Epipoles = CreateHostObject<IParametersCreatable>(L"GeometryCollection");
  m_RelativePose[15] = m_A[15] = m_B[15] = 1.0;
  m_F[8] = m_G[8] = m_E[8] = 1.0;
  return S_OK;
}

SmartPtr<ICamera3DTrinsic> CMultiViewGeometry::CameraOf(IUnknown* item) {
  if (SmartPtr<ICamera3DCalibrationPlane> plane = QueryAs<ICamera3DCalibrationPlane>(item)) {
    SmartPtr<ITransform> reverse;
    plane->GetReverseTransform(reverse.Out());
    return QueryAs<ICamera3DTrinsic>(reverse);
  }
  return QueryAs<ICamera3DTrinsic>(item);
}

HRESULT CMultiViewGeometry::SetCalibrations(ISimpleCollection* calibrations) {
  m_Calibrations = QueryAs<INamedCollection>(calibrations);
  m_CameraCount = 0;
  if (!m_Calibrations) return S_OK;
  const int count = multiview::CountOf(m_Calibrations);
  for (int i = 0; i < count; ++i) {
    SmartPtr<IUnknown> item;
    if (m_Calibrations->get_Item(i, item.Out()) >= 0 && CameraOf(item)) ++m_CameraCount;
  }
  return S_OK;
}

ICamera3DTrinsic* CMultiViewGeometry::GetCalibration(int index) {
  if (index >= m_CameraCount || index < 0 || !m_Calibrations) return nullptr;
  const int count = multiview::CountOf(m_Calibrations);
  int found = 0;
  for (int i = 0; i < count; ++i) {
    SmartPtr<IUnknown> item;
    if (m_Calibrations->get_Item(i, item.Out()) < 0) continue;
    SmartPtr<ICamera3DTrinsic> camera = CameraOf(item);
    if (!camera) continue;
    if (found++ == index) return camera.Detach();
  }
  return nullptr;
}

HRESULT CMultiViewGeometry::CalcPose(int mode) {
  SmartPtr<ICamera3DTrinsic> cam1, cam2;
  cam1.Attach(GetCalibration(0));
  cam2.Attach(GetCalibration(1));
  if (!cam1 || !cam2) return E_FAIL;
  SmartPtr<IPointVector> v1, v2;
  v1.Attach(GEOObject::CreatePointVector());
  v2.Attach(GEOObject::CreatePointVector());
  SmartPtr<IHomogeneousTransform> t = CreateHostObject<IHomogeneousTransform>(L"HomogeneousTransform");
  if (!v1 || !v2 || !t) return E_FAIL;

  double* e1 = Extrinsic(cam1);
  double* e2 = Extrinsic(cam2);
  if (!e1 || !e2) return E_FAIL;
  double inverse[16];
  CMatrixUtils utils;
  if (mode == 0) {
    CameraMatrix(cam1, 3, inverse, 16);
    Multiply4(inverse, e2, m_RelativePose);
    Identity4(e1);
    std::memcpy(e2, m_RelativePose, sizeof(m_RelativePose));
    Recompose(cam1);
    Recompose(cam2);
  } else if (mode == 1) {
    CameraMatrix(cam2, 3, inverse, 16);
    Multiply4(inverse, e1, m_RelativePose);
    Identity4(e2);
    std::memcpy(e1, m_RelativePose, sizeof(m_RelativePose));
    Recompose(cam1);
    Recompose(cam2);
  } else if (mode == 2) {
    // Midpoint frame: the viewing axes' bisector becomes the rotation of both cameras,
    // and half the relative translation the offset.
    CameraMatrix(cam1, 3, inverse, 16);
    Multiply4(inverse, e2, m_RelativePose);
    CameraMatrix(cam2, 3, inverse, 16);
    double back[16];
    Multiply4(inverse, e1, back);
    TransformVector(v2, t, back);
    double d[3] = {0.0, 0.0, 0.0};
    v2->get_Direction(&d[0], &d[1], &d[2], 1.0);
    double b[3] = {0.0 + d[0], 0.0 + d[1], 1.0 + d[2]};
    const double length = std::sqrt(b[0] * b[0] + b[1] * b[1] + b[2] * b[2]);
    if (length > kEpsilon)
      for (double& value : b) value /= length;
    double axis[3] = {0.0, 0.0, 1.0};
    double mid[16];
    Identity4(mid);
    utils.SetHomogeneousRotation(mid, axis, b);
    for (int k = 0; k < 3; ++k) mid[12 + k] = -0.5 * m_RelativePose[12 + k];
    std::memcpy(e1, mid, sizeof(mid));
    Multiply4(mid, m_RelativePose, e2);
    v2->put_Origin(0.0, 0.0, 0.0);
    v2->put_Direction(0.0, 0.0, 1.0);
    Recompose(cam1);
    Recompose(cam2);
  } else if (mode > 2) {
    // Baseline frame: the midpoint of the centres at the origin, the baseline along x.
    double c1[4] = {0, 0, 0, 0}, c2[4] = {0, 0, 0, 0};
    NullVector(cam1, c1);
    NullVector(cam2, c2);
    double b[3];
    for (int k = 0; k < 3; ++k) b[k] = c1[0] > c2[0] ? c1[k] - c2[k] : c2[k] - c1[k];
    double x[3] = {1.0, 0.0, 0.0};
    double r[16], rt[16], move[16], n[16], out[16];
    Identity4(r);
    utils.SetHomogeneousRotation(r, b, x);
    for (int i = 0; i < 4; ++i)
      for (int j = 0; j < 4; ++j) rt[4 * i + j] = r[4 * j + i];
    Identity4(move);
    for (int k = 0; k < 3; ++k) move[12 + k] = (c1[k] + c2[k]) * 0.5;
    Multiply4(rt, move, n);
    Multiply4(n, e1, out);
    std::memcpy(e1, out, sizeof(out));
    Multiply4(n, e2, out);
    std::memcpy(e2, out, sizeof(out));
    Recompose(cam1);
    Recompose(cam2);
    CameraMatrix(cam1, 3, inverse, 16);
    Multiply4(inverse, e2, m_RelativePose);
  } else {
    CameraMatrix(cam1, 3, inverse, 16);
    Multiply4(inverse, e2, m_RelativePose);
  }
  CommonPart(cam1, cam2, v1, v2, t);
  return S_OK;
}

void CMultiViewGeometry::CommonPart(ICamera3DTrinsic* cam1, ICamera3DTrinsic* cam2, IPointVector* v1,
                                    IPointVector* v2, IHomogeneousTransform* t) {
  CMatrixUtils utils;
  double c1[4], c2[4];
  Centre(cam1, c1);
  Centre(cam2, c2);
  double e1[3], e2[3];
  Project(c2, cam1, e1);
  Project(c1, cam2, e2);

  for (IParametersCreatable* list : {m_Locations.get(), m_ImageCenters.get(), m_Epipoles.get()})
    if (list) list->RemoveAll();

  // Each vector starts at its camera's origin looking along +z, then goes to the world.
  IPointVector* vectors[2] = {v1, v2};
  ICamera3DTrinsic* cameras[2] = {cam1, cam2};
  for (int k = 0; k < 2; ++k) {
    vectors[k]->put_Origin(0.0, 0.0, 0.0);
    vectors[k]->put_Direction(0.0, 0.0, 1.0);
    if (m_Locations) {
      SmartPtr<IString> name;
      name.Attach(ISLabel(L"CameraLocation", k + 1, L'#', 1));
      m_Locations->Add(name, vectors[k], nullptr, 0);
    }
  }
  for (int k = 0; k < 2; ++k) {
    double inverse[16];
    CameraMatrix(cameras[k], 3, inverse, 16);
    TransformVector(vectors[k], t, inverse);
  }
  AddImagePoint(m_ImageCenters, L"ImageCenter", 1, v1, 1e6, cam1);
  AddImagePoint(m_Epipoles, L"Epipolar", 1, v2, 0.0, cam1);
  AddImagePoint(m_ImageCenters, L"ImageCenter", 2, v2, 1e6, cam2);
  AddImagePoint(m_Epipoles, L"Epipolar", 2, v1, 0.0, cam2);

  // G maps an image point of the first camera through its pseudo-inverse into the second.
  double pinv[12], p2[12];
  CameraMatrix(cam1, 4, pinv, 12);
  CameraMatrix(cam2, 0, p2, 12);
  utils.Multiply(pinv, p2, m_G, 3, 4, 3);
  multiview::Normalize3(m_G);

  // F = G [e2]x: p F is the epipolar line of p in the second image.
  double s[9] = {0.0, e2[2], -e2[1], -e2[2], 0.0, e2[0], e2[1], -e2[0], 0.0};
  utils.Multiply(m_G, s, m_F, 3, 3, 3);
  multiview::Normalize3(m_F);

  double k1[9], k2[9], k2t[9], kf[9];
  CameraMatrix(cam1, 1, k1, 9);
  CameraMatrix(cam2, 1, k2, 9);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) k2t[3 * i + j] = k2[3 * j + i];
  utils.Multiply(k1, m_F, kf, 3, 3, 3);
  utils.Multiply(kf, k2t, m_E, 3, 3, 3);
  multiview::Normalize3(m_E);
}

HRESULT CMultiViewGeometry::GetMatrix(int id, double** data, int* rows, int* cols) {
  if (id != 1) return E_FAIL;
  if (data) *data = m_RelativePose;
  if (rows) *rows = 4;
  if (cols) *cols = 3;
  return S_OK;
}

HRESULT CMultiViewGeometry::NewCalibration(const double* forward, const double* reverse, IUnknown** out) {
  SmartPtr<IHomogeneousCalibration> calibration =
      CreateHostObject<IHomogeneousCalibration>(L"HomogeneousCalibration");
  if (!calibration) return E_FAIL;
  SmartPtr<ITransform> f, r;
  calibration->GetForwardTransform(f.Out());
  calibration->GetReverseTransform(r.Out());
  SmartPtr<IHomogeneousTransform> hf = QueryAs<IHomogeneousTransform>(f), hr = QueryAs<IHomogeneousTransform>(r);
  double *mf = nullptr, *mr = nullptr;
  if (hf) hf->GetMatrix(&mf, nullptr, nullptr);
  if (hr) hr->GetMatrix(&mr, nullptr, nullptr);
  if (!mf || !mr) return E_FAIL;
  std::memcpy(mf, forward, 16 * sizeof(double));
  std::memcpy(mr, reverse, 16 * sizeof(double));
  *out = SmartPtr<IUnknown>(calibration.get()).Detach();
  return S_OK;
}

HRESULT CMultiViewGeometry::GetLocation(int kind, int index, IUnknown** out) {
  if (kind > 9 || kind < 1) return E_FAIL;
  if (!out) return E_POINTER;
  *out = nullptr;
  if (kind == 1) {
    SmartPtr<IHomogeneousTransform> t = CreateHostObject<IHomogeneousTransform>(L"HomogeneousTransform");
    double* m = nullptr;
    if (t) t->GetMatrix(&m, nullptr, nullptr);
    if (!m) return E_FAIL;
    std::memcpy(m, m_RelativePose, sizeof(m_RelativePose));
    *out = SmartPtr<IUnknown>(t.get()).Detach();
    return S_OK;
  }
  if (kind <= 4) {
    // The 3 x 3 matrix on rows and columns 0, 1 and 3, its transpose in the reverse; the
    // z row and column are zero, so w carries the third homogeneous coordinate.
    const double* m = kind == 2 ? m_E : kind == 3 ? m_F : m_G;
    static const int kAt[3] = {0, 1, 3};
    double forward[16] = {}, reverse[16] = {};
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) {
        forward[4 * kAt[i] + kAt[j]] = m[3 * i + j];
        reverse[4 * kAt[i] + kAt[j]] = m[3 * j + i];
      }
    return NewCalibration(forward, reverse, out);
  }
  if (kind <= 6) {
    // Reverse V diag(1/w) U^T, a column of V left undivided where w is exactly 0.
    const double* m = kind == 5 ? m_A : m_B;
    double u[16], w[4] = {0, 0, 0, 0}, v[16] = {}, reverse[16];
    std::memcpy(u, m, sizeof(u));
    CMatrixSVD().svdcmp(u, 4, 4, w, v);
    for (int k = 0; k < 4; ++k)
      if (w[k] != 0.0)
        for (int i = 0; i < 4; ++i) v[4 * i + k] /= w[k];
    for (int i = 0; i < 4; ++i)
      for (int j = 0; j < 4; ++j) {
        double sum = 0.0;
        for (int k = 0; k < 4; ++k) sum += v[4 * i + k] * u[4 * j + k];
        reverse[4 * i + j] = sum;
      }
    return NewCalibration(m, reverse, out);
  }
  IParametersCreatable* list = kind == 7 ? m_Locations.get() : kind == 8 ? m_ImageCenters.get() : m_Epipoles.get();
  if (!list) return E_FAIL;
  if (index < 0) {
    *out = SmartPtr<IUnknown>(list).Detach();
    return S_OK;
  }
  if (kind == 9 && index >= m_CameraCount) return E_FAIL;
  return list->get_Item(index, out);
}

HRESULT CMultiViewGeometry::GetFitErrors(double* matrix, ISimpleCollection* first, ISimpleCollection* second,
                                         double* a, double* b, double* c) {
  const int count1 = multiview::CountOf(first), count2 = multiview::CountOf(second);
  const int n = count1 < count2 ? count1 : count2;
  double sum = 0.0, largest = 0.0;
  for (int i = 0; i < n && matrix; ++i) {
    double x1 = 0, y1 = 0, x2 = 0, y2 = 0;
    if (!multiview::PointXY(first, i, &x1, &y1) || !multiview::PointXY(second, i, &x2, &y2)) continue;
    const double* m = matrix;
    const double r = (x1 * m[0] + y1 * m[3] + m[6]) * x2 + (x1 * m[1] + y1 * m[4] + m[7]) * y2 +
                     (x1 * m[2] + y1 * m[5] + m[8]);
    sum += r * r;
    if (r > largest) largest = r;
  }
  const double deviation = n > 1 ? std::sqrt(sum / (n - 1)) : 0.0;
  if (c) *c = n < 1 ? 0.0 : deviation;
  if (a) *a = n < 1 ? 0.0 : std::sqrt(largest);
  if (b) *b = n < 1 ? 0.0 : std::sqrt(largest);
  return S_OK;
}
