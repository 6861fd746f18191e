#include "host/geometry/Point.h"

#include <new>

#include "host/common/PeerModule.h"

ZELTRIM_PEER_OBJECT(L"Point", CPoint);
ZELTRIM_PEER_OBJECT(L"PointsCollection", CPointsCollection);

const tagREFString CPoint::m_ObjectName = {5, L"Point"};
const tagREFString CPointsCollection::m_ObjectName = {16, L"PointsCollection"};

// ---------------------------------------------------------------- CPoint

CPoint* CPoint::Create(double x, double y, double z) {
  CPoint* point = new CPoint();
  point->m_X = x;
  point->m_Y = y;
  point->m_Z = z;
  return point;
}

HRESULT CPoint::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CPoint>*>(this)), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
      QueryRoute(iid, IID_IPoint, static_cast<IPoint*>(this), object) ||
      QueryRoute(iid, IID_ITransformableObject, static_cast<ITransformableObject*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CPoint::GetXYZ(double* x, double* y, double* z) {
  if (!x || !y || !z) return E_POINTER;
  *x = m_X;
  *y = m_Y;
  *z = m_Z;
  return S_OK;
}

HRESULT CPoint::SetXYZ(double x, double y, double z) {
  m_X = x;
  m_Y = y;
  m_Z = z;
  return S_OK;
}

HRESULT CPoint::Transform(IHomogeneousTransform* transform) {
  if (!transform) return E_POINTER;
  double x = m_X, y = m_Y, z = m_Z;
  const HRESULT hr = transform->Convert(&x, &y, &z);
  if (FAILED(hr)) return hr;
  m_X = x;
  m_Y = y;
  m_Z = z;
  return S_OK;
}

// ---------------------------------------------------------------- CPointsCollection

CPointsCollection::~CPointsCollection() { Clear(); }

HRESULT CPointsCollection::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CPointsCollection>*>(this)), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
      QueryRoute(iid, IID_IPointsCollection, static_cast<IPointsCollection*>(this), object) ||
      QueryRoute(iid, IID_ISimpleCollection, static_cast<ISimpleCollection*>(this), object) ||
      QueryRoute(iid, IID_ITransformableObject, static_cast<ITransformableObject*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CPointsCollection::get_Count(int* count) {
  if (!count) return E_POINTER;
  *count = static_cast<int>(m_Points.size());
  return S_OK;
}

HRESULT CPointsCollection::get_Item(int index, IUnknown** item) {
  if (!item) return E_POINTER;
  *item = nullptr;
  if (index < 0 || static_cast<size_t>(index) >= m_Points.size()) return E_INVALIDARG;
  m_Points[index]->AddRef();
  *item = m_Points[index];
  return S_OK;
}

HRESULT CPointsCollection::Add(IUnknown* point) {
  if (!point) return E_POINTER;
  void* asked = nullptr;
  if (FAILED(point->QueryInterface(IID_IPoint, &asked)) || !asked) return E_INVALIDARG;
  // The query's reference is the collection's.
  try {
    m_Points.push_back(static_cast<IPoint*>(asked));
  } catch (const std::bad_alloc&) {
    static_cast<IPoint*>(asked)->Release();
    return E_FAIL;
  }
  return S_OK;
}

HRESULT CPointsCollection::Clear() {
  // Detach first, so a point whose release reaches back here sees an empty list.
  std::vector<IPoint*> old;
  old.swap(m_Points);
  for (IPoint* point : old) point->Release();
  return S_OK;
}

HRESULT CPointsCollection::AddPoint(double x, double y, double z) {
  CPoint* point = nullptr;
  try {
    point = CPoint::Create(x, y, z);
    m_Points.push_back(static_cast<IPoint*>(point));
  } catch (const std::bad_alloc&) {
    if (point) point->Release();
    return E_FAIL;
  }
  return S_OK;
}

HRESULT CPointsCollection::Transform(IHomogeneousTransform* transform) {
  if (!transform) return E_POINTER;
  for (IPoint* point : m_Points) {
    double x = 0.0, y = 0.0, z = 0.0;
    HRESULT hr = point->GetXYZ(&x, &y, &z);
    if (SUCCEEDED(hr)) hr = transform->Convert(&x, &y, &z);
    if (SUCCEEDED(hr)) hr = point->SetXYZ(x, y, z);
    if (FAILED(hr)) return hr;
  }
  return S_OK;
}
