// "LinearTransform": a chain of translate, scale and rotation steps applied in the order
// they were added (host/geometry/LinearChain.h).
#include "host/common/PeerModule.h"
#include "host/geometry/LinearChain.h"

class CLinearTransform : public CObject<CLinearTransform>,
                         public ILinearTransform,
                         public IObjectInfoImpl<CLinearTransform> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CLinearTransform>*>(this)), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
        QueryRoute(iid, IID_ILinearTransform, static_cast<ILinearTransform*>(this), object) ||
        QueryRoute(iid, IID_ITransform, static_cast<ITransform*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }

  HRESULT Convert(double* x, double* y, double* z) override {
    if (!x || !y || !z) return E_POINTER;
    double px = *x, py = *y, pz = *z;
    m_Chain.Apply(&px, &py, &pz);
    *x = px;
    *y = py;
    *z = pz;
    return S_OK;
  }

  HRESULT get_StepCount(int* count) override {
    if (!count) return E_POINTER;
    *count = m_Chain.Count();
    return S_OK;
  }

  HRESULT Reset() override {
    m_Chain.Clear();
    return S_OK;
  }

  // `last` marks the end of a chain for the caller's bookkeeping; the chain itself is
  // whatever has been added since the last Reset.
  HRESULT AddStep(int kind, int, double a, double b, double c) override { return m_Chain.Add(kind, a, b, c); }

 private:
  linear_chain::Chain m_Chain;
};

ZELTRIM_PEER_OBJECT(L"LinearTransform", CLinearTransform);

const tagREFString CLinearTransform::m_ObjectName = {15, L"LinearTransform"};
