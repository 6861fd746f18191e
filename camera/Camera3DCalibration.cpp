// CCamera3DCalibration: the collection of cameras and its triangulation.
#include "camera/Camera3DCalibration.h"

#include <new>
#include <vector>

#include "frame/Components.h"
#include "persist/ParametricImpl.h"

const tagREFString CCamera3DCalibration::m_ObjectName = {19, L"Camera3DCalibration"};

CCamera3DCalibration::~CCamera3DCalibration() { CLSFree(); }

HRESULT CCamera3DCalibration::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  ICamera3DCalibration* main = this;
  if (QueryRoute(iid, IID_IUnknown, static_cast<CObject<CCamera3DCalibration>*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
      QueryRoute(iid, IID_ICamera3DCalibration, main, object) ||
      QueryRoute(iid, IID_ICreatableSimpleCollection, static_cast<ICreatableSimpleCollection*>(main), object) ||
      QueryRoute(iid, IID_ISimpleCollection, static_cast<ISimpleCollection*>(main), object) ||
      QueryRoute(iid, IID_IUIPropertyPageSpecify, static_cast<IUIPropertyPageSpecify*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CCamera3DCalibration::Convert(ISimpleCollection* points, IPoint** result) {
  if (!points) return E_INVALIDARG;
  int count = 0;
  points->get_Count(&count);
  const int n = count < m_Count ? count : m_Count;
  if (n < 2) return E_INVALIDARG;
  if (!result) return E_POINTER;
  try {
    // Two equations a row of three unknowns (X, Y, Z) per camera:
    // a0 X + a1 Y + a2 Z = -a3 and b0 X + b1 Y + b2 Z = -b3.
    const size_t rows = 2 * static_cast<size_t>(n);
    std::vector<double> design(rows * 3), right(rows);
    // Image point i is read into `cell`, and the solve writes (X, Y, Z) into the same
    // cells: a failed solve leaves the last image point there. `planes` keeps the rows
    // of the last camera whose point was read, so an item that is no point repeats them.
    double cell[3] = {0.0, 0.0, 0.0};
    double planes[8] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0};
    for (int i = 0; i < n; ++i) {
      SmartPtr<IUnknown> item;
      points->get_Item(i, item.Out());
      if (SmartPtr<IPoint> point = QueryAs<IPoint>(item)) {
        point->GetXYZ(&cell[0], &cell[1], &cell[2]);
        m_Items[i]->SolveMatrix(planes, cell[0], cell[1]);
      }
      double* a = &design[6 * static_cast<size_t>(i)];
      a[0] = planes[0], a[1] = planes[1], a[2] = planes[2];
      a[3] = planes[4], a[4] = planes[5], a[5] = planes[6];
      right[2 * static_cast<size_t>(i)] = -planes[3];
      right[2 * static_cast<size_t>(i) + 1] = -planes[7];
    }
    // The equation count goes to the solver as a signed 16-bit value.
    const HRESULT hr = CLSCholeski(design.data(), right.data(), cell, 3, static_cast<short>(rows));
    SmartPtr<IPoint> point;
    point.Attach(GEOObject::CreatePoint());
    if (!point) return E_FAIL;
    point->SetXYZ(cell[0], cell[1], cell[2]);
    *result = point.Detach();
    return hr;
  } catch (const std::bad_alloc&) {
    return E_FAIL;
  }
}

HRESULT CCamera3DCalibration::GetPages(int, INamedCollection** pages, IUnknown**) {
  if (!pages) return E_POINTER;
  *pages = nullptr;
  SmartPtr<ISuperCollection> list;
  list.Attach(CREFString::CreateCollection());
  if (!list) return E_FAIL;
  AddPage(list, m_ObjectName.m_Text, L"Zeltrim.CalibrationInfoPropPage");
  *pages = list.Detach();
  return S_OK;
}

HRESULT CCamera3DCalibration::Clear() { return SimpleCollectionClear(); }

HRESULT CCamera3DCalibration::Add(IUnknown* item) {
  SmartPtr<ICamera3DTransform> camera = QueryAs<ICamera3DTransform>(item);
  if (!camera) return E_POINTER;
  CollectionLock();
  const HRESULT hr = Add(camera.get());
  CollectionUnlock();
  return hr;
}

HRESULT CCamera3DCalibration::put_Item(int index, IUnknown* item) {
  SmartPtr<ICamera3DTransform> camera = QueryAs<ICamera3DTransform>(item);
  if (!camera) return E_FAIL;
  return put_Item(index, camera.get());
}
