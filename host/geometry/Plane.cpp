// "Plane": the plane a X + b Y + c Z + d = 0, kept with a unit normal (a, b, c).
#include <algorithm>
#include <cmath>

#include "host/common/PeerModule.h"

class CPlane : public CObject<CPlane>, public IPlane, public IObjectInfoImpl<CPlane> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CPlane>*>(this)), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
        QueryRoute(iid, IID_IPlane, static_cast<IPlane*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }

  HRESULT GetCoefficients(double* a, double* b, double* c, double* d) override {
    if (!a || !b || !c || !d) return E_POINTER;
    *a = m_A;
    *b = m_B;
    *c = m_C;
    *d = m_D;
    return S_OK;
  }

  // Divides all four by the length of (a, b, c). A zero or non-finite normal, a
  // non-finite d, or a d that overflows when scaled is refused; the plane then stays.
  HRESULT SetCoefficients(double a, double b, double c, double d) override {
    if (!std::isfinite(a) || !std::isfinite(b) || !std::isfinite(c) || !std::isfinite(d)) return E_INVALIDARG;
    // Scaled by the largest component first, so huge or tiny normals neither overflow
    // nor underflow when squared.
    const double largest = std::max({std::fabs(a), std::fabs(b), std::fabs(c)});
    if (largest == 0.0) return E_INVALIDARG;
    const double sa = a / largest, sb = b / largest, sc = c / largest;
    const double scaledLength = std::sqrt(sa * sa + sb * sb + sc * sc);  // 1 .. sqrt(3)
    const double scaledD = d / largest / scaledLength;
    if (!std::isfinite(scaledD)) return E_INVALIDARG;  // a tiny normal with a large d
    m_A = sa / scaledLength;
    m_B = sb / scaledLength;
    m_C = sc / scaledLength;
    m_D = scaledD;
    return S_OK;
  }

 private:
  // The plane Z = 0.
  double m_A = 0.0, m_B = 0.0, m_C = 1.0, m_D = 0.0;
};

ZELTRIM_PEER_OBJECT(L"Plane", CPlane);

const tagREFString CPlane::m_ObjectName = {5, L"Plane"};
