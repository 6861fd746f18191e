#include "geometry/TransformInterrogate.h"

#include <cmath>

const tagREFString CTransformInterrogate::m_ObjectName = {20, L"TransformInterrogate"};

namespace {

const double kPi = 3.14159265358979323846;

// The live 4 x 4 matrix of a transform, or null.
double* MatrixOf(IHomogeneousTransform* t) {
  double* m = nullptr;
  int rows = 0, columns = 0;
  if (t->GetMatrix(&m, &rows, &columns) < 0 || !m || rows < 4 || columns < 4) return nullptr;
  return m;
}

void Put(double* out, double value) {
  if (out) *out = value;
}

// atan2 folded into [-pi/2, pi/2]: the quadrant is lost on purpose.
double Folded(double y, double x) {
  double angle = std::atan2(y, x);
  if (angle > kPi / 2) angle -= kPi;
  if (angle < -kPi / 2) angle += kPi;
  return angle;
}

}  // namespace

HRESULT CTransformInterrogate::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (QueryRoute(iid, IID_IUnknown, static_cast<CObject<CTransformInterrogate>*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
      QueryRoute(iid, IID_ITransformInterrogate, static_cast<ITransformInterrogate*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CTransformInterrogate::GetEulerAngles(IHomogeneousTransform* t, short convention, double* a, double* b,
                                              double* c) {
  if (!t) return E_INVALIDARG;
  const double* m = MatrixOf(t);
  if (!m) return E_FAIL;
  double ra = 0, rb = 0, rc = 0;
  if (convention == 2) {
    // Not guarded: |m[9]| = 1 divides by zero and gives non-finite angles.
    rb = std::asin(m[9]);
    const double k = std::sqrt(1 - m[9] * m[9]);
    rc = std::asin(-m[8] / k);
    ra = std::asin(-m[1] / k);
  } else if (m[2] == 1.0) {
    rb = std::atan2(-m[4], -m[8]);
    rc = kPi / 2;
    ra = 0;
  } else if (m[2] == -1.0) {
    rb = std::atan2(m[4], m[8]);
    rc = -kPi / 2;
    ra = 0;
  } else {
    const double s = std::asin(m[2]);
    rb = std::fabs(s) > std::fabs(kPi - s) ? kPi - s : -s;
    rc = Folded(m[6], m[10]);
    ra = Folded(m[1], m[0]);
  }
  Put(a, ra);
  Put(b, rb);
  Put(c, rc);
  return S_OK;
}

HRESULT CTransformInterrogate::GetTranslation(IHomogeneousTransform* t, double* x, double* y, double* z) {
  if (!t) return E_INVALIDARG;
  const double* m = MatrixOf(t);
  if (!m) return E_FAIL;
  Put(x, m[12]);
  Put(y, m[13]);
  Put(z, m[14]);
  return S_OK;
}

HRESULT CTransformInterrogate::GetScale(IHomogeneousTransform* t, double* x, double* y, double* z) {
  if (!t) return E_INVALIDARG;
  const double* m = MatrixOf(t);
  if (!m) return E_FAIL;
  Put(x, std::sqrt(m[0] * m[0] + m[1] * m[1] + m[2] * m[2]));
  Put(y, std::sqrt(m[4] * m[4] + m[5] * m[5] + m[6] * m[6]));
  Put(z, std::sqrt(m[8] * m[8] + m[9] * m[9] + m[10] * m[10]));
  return S_OK;
}
