// "HomogeneousCalibration": a calibration made of two homogeneous transforms, one for each
// direction. Convert goes through the forward matrix, Revert through the reverse one; the
// two are independent (nothing keeps the reverse the inverse of the forward), so whoever
// writes one through GetMatrix writes the other too. Both are the identity when created.
#include <new>

#include "host/geometry/HomogeneousTransform.h"

class CHomogeneousCalibration : public CObject<CHomogeneousCalibration>,
                                public IHomogeneousCalibration,
                                public IObjectInfoImpl<CHomogeneousCalibration> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  // Throws std::bad_alloc when a transform cannot be made; the creator catches it.
  CHomogeneousCalibration() : m_Forward(new CHomogeneousTransform()) {
    try {
      m_Reverse = new CHomogeneousTransform();
    } catch (...) {
      m_Forward->Release();
      throw;
    }
  }
  ~CHomogeneousCalibration() {
    m_Forward->Release();
    m_Reverse->Release();
  }

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CHomogeneousCalibration>*>(this)),
                   object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
        QueryRoute(iid, IID_IHomogeneousCalibration, static_cast<IHomogeneousCalibration*>(this), object) ||
        QueryRoute(iid, IID_ICalibration, static_cast<ICalibration*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }

  // As the transform converts: a fourth component of exactly 0 gives E_FAIL, point kept.
  HRESULT Convert(double* x, double* y, double* z) override { return m_Forward->Convert(x, y, z); }
  HRESULT Revert(double* x, double* y, double* z) override { return m_Reverse->Convert(x, y, z); }

  // The transform itself (answering IHomogeneousTransform), with a reference for the
  // caller: its GetMatrix lends the live matrix of this calibration.
  HRESULT GetForwardTransform(ITransform** transform) override { return HandOut(m_Forward, transform); }
  HRESULT GetReverseTransform(ITransform** transform) override { return HandOut(m_Reverse, transform); }

 private:
  static HRESULT HandOut(CHomogeneousTransform* from, ITransform** transform) {
    if (!transform) return E_POINTER;
    *transform = static_cast<ITransform*>(from);
    from->AddRef();
    return S_OK;
  }

  CHomogeneousTransform* m_Forward;
  CHomogeneousTransform* m_Reverse = nullptr;
};

ZELTRIM_PEER_OBJECT(L"HomogeneousCalibration", CHomogeneousCalibration);

const tagREFString CHomogeneousCalibration::m_ObjectName = {22, L"HomogeneousCalibration"};
