#include "geometry/TransformResidualErrors.h"

#include <cmath>

#include "frame/Components.h"
#include "frame/StringRefs.h"

const tagREFString CTransformResidualErrors::m_ObjectName = {23, L"TransformResidualErrors"};

HRESULT CTransformResidualErrors::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (QueryRoute(iid, IID_IUnknown, static_cast<CObject<CTransformResidualErrors>*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
      QueryRoute(iid, IID_ITransformResidualErrors, static_cast<ITransformResidualErrors*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CTransformResidualErrors::GetResidualErrorPoints(ITransform* t, ISimpleCollection* source,
                                                         ISimpleCollection* target, ISimpleCollection** out) {
  if (!source || !target) return E_INVALIDARG;
  if (!out) return E_POINTER;
  *out = nullptr;
  int sourceCount = 0, targetCount = 0;
  if (source->get_Count(&sourceCount) < 0 || target->get_Count(&targetCount) < 0) return E_FAIL;
  const int n = sourceCount < targetCount ? sourceCount : targetCount;

  SmartPtr<IPointsCollection> differences;
  differences.Attach(GEOObject::CreatePointsCollection());
  if (!differences) return E_FAIL;
  for (int i = 0; i < n; ++i) {
    double s[3] = {0, 0, 0}, g[3] = {0, 0, 0};
    ReadPoint(source, i, s);
    ReadPoint(target, i, g);
    if (t) t->Convert(&s[0], &s[1], &s[2]);
    differences->AddPoint(s[0] - g[0], s[1] - g[1], s[2] - g[2]);
  }
  *out = differences.Detach();  // IPointsCollection is an ISimpleCollection
  return S_OK;
}

HRESULT CTransformResidualErrors::GetResidualErrorVector(ITransform* t, ISimpleCollection* source,
                                                         ISimpleCollection* target, IDblVector** out) {
  if (!out) return E_POINTER;
  *out = nullptr;
  SmartPtr<ISimpleCollection> differences;
  const HRESULT hr = GetResidualErrorPoints(t, source, target, differences.Out());
  if (hr < 0) return hr;
  SmartPtr<IDblVector> lengths;
  lengths.Attach(BASEObject::CreateDBLBuffer());
  if (!lengths) return E_FAIL;
  int count = 0;
  differences->get_Count(&count);
  lengths->Resize(count);
  for (int i = 0; i < count; ++i) {
    double d[3] = {0, 0, 0};
    ReadPoint(differences, i, d);
    lengths->put_Value(-1, std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]));
  }
  *out = lengths.Detach();
  return S_OK;
}
