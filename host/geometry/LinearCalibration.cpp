// "LinearCalibration": a chain of linear steps (host/geometry/LinearChain.h) that converts
// forward in the order the steps were added and reverts by undoing them, last first.
#include "host/common/PeerModule.h"
#include "host/geometry/LinearChain.h"

class CLinearCalibration : public CObject<CLinearCalibration>,
                           public ILinearCalibration,
                           public IObjectInfoImpl<CLinearCalibration> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CLinearCalibration>*>(this)), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
        QueryRoute(iid, IID_ILinearCalibration, static_cast<ILinearCalibration*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }

  HRESULT Convert(double* x, double* y, double* z) override {
    if (!x || !y || !z) return E_POINTER;
    double p[3] = {*x, *y, *z};
    m_Chain.Apply(&p[0], &p[1], &p[2]);
    *x = p[0], *y = p[1], *z = p[2];
    return S_OK;
  }

  // A chain with a zero scale has no inverse: E_FAIL, the point unchanged.
  HRESULT Revert(double* x, double* y, double* z) override {
    if (!x || !y || !z) return E_POINTER;
    double p[3] = {*x, *y, *z};
    if (!m_Chain.Undo(&p[0], &p[1], &p[2])) return E_FAIL;
    *x = p[0], *y = p[1], *z = p[2];
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

  HRESULT Reserved_ILC4() override { return E_NOTIMPL; }

  // `last` marks the end of the caller's chain; the chain is every step since Reset.
  HRESULT AddStep(int kind, int, double a, double b, double c) override { return m_Chain.Add(kind, a, b, c); }

 private:
  linear_chain::Chain m_Chain;
};

ZELTRIM_PEER_OBJECT(L"LinearCalibration", CLinearCalibration);

const tagREFString CLinearCalibration::m_ObjectName = {17, L"LinearCalibration"};
