// "PointVector": a ray, an origin and a direction (not normalised); the point at
// parameter t is origin + t * direction.
#include "host/common/PeerModule.h"

class CPointVector : public CObject<CPointVector>,
                     public IPointVector,
                     public ITransformableObject,
                     public IObjectInfoImpl<CPointVector> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CPointVector>*>(this)), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
        QueryRoute(iid, IID_IPointVector, static_cast<IPointVector*>(this), object) ||
        QueryRoute(iid, IID_ITransformableObject, static_cast<ITransformableObject*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }

  HRESULT get_Origin(double* x, double* y, double* z) override { return Get(m_Origin, 1.0, x, y, z); }
  HRESULT put_Origin(double x, double y, double z) override { return Put(m_Origin, x, y, z); }
  HRESULT put_Direction(double x, double y, double z) override { return Put(m_Direction, x, y, z); }
  HRESULT get_Direction(double* x, double* y, double* z, double t) override { return Get(m_Direction, t, x, y, z); }

  HRESULT PointAt(double* x, double* y, double* z, double t) override {
    if (!x || !y || !z) return E_POINTER;
    *x = m_Origin[0] + t * m_Direction[0];
    *y = m_Origin[1] + t * m_Direction[1];
    *z = m_Origin[2] + t * m_Direction[2];
    return S_OK;
  }

  // The origin and the point at t = 1 go through the transform as points; the new
  // direction joins their images. On failure the vector stays as it was.
  HRESULT Transform(IHomogeneousTransform* transform) override {
    if (!transform) return E_POINTER;
    double o[3] = {m_Origin[0], m_Origin[1], m_Origin[2]};
    double e[3] = {o[0] + m_Direction[0], o[1] + m_Direction[1], o[2] + m_Direction[2]};
    HRESULT hr = transform->Convert(&o[0], &o[1], &o[2]);
    if (FAILED(hr)) return hr;
    hr = transform->Convert(&e[0], &e[1], &e[2]);
    if (FAILED(hr)) return hr;
    for (int i = 0; i < 3; ++i) {
      m_Origin[i] = o[i];
      m_Direction[i] = e[i] - o[i];
    }
    return S_OK;
  }

 private:
  static HRESULT Get(const double* v, double t, double* x, double* y, double* z) {
    if (!x || !y || !z) return E_POINTER;
    *x = t * v[0];
    *y = t * v[1];
    *z = t * v[2];
    return S_OK;
  }
  static HRESULT Put(double* v, double x, double y, double z) {
    v[0] = x;
    v[1] = y;
    v[2] = z;
    return S_OK;
  }

  // At the origin, looking along +Z.
  double m_Origin[3] = {0.0, 0.0, 0.0};
  double m_Direction[3] = {0.0, 0.0, 1.0};
};

ZELTRIM_PEER_OBJECT(L"PointVector", CPointVector);

const tagREFString CPointVector::m_ObjectName = {11, L"PointVector"};
