// "Camera3DCalibration": an ordered collection of cameras (ICamera3DTransform items, so
// Camera3DTransform and Camera3DTrinsic alike) that triangulates. Given image point i of
// camera i, each camera gives the two world planes through its viewing ray (SolveMatrix),
// and Convert answers with the least-squares meeting point of all the planes, unweighted:
// every plane counts with the scale its camera's matrix gives it.
//
// Convert's pitfall: when the planes do not fix one point (parallel rays, one camera
// twice) the result is E_FAIL and a point is handed out all the same, holding the last
// image point read (the solve writes into the cells the image points were read into).
// Callers test the result before they trust the point.
//
// Not thread-safe: Convert uses the object's Choleski fields.
#pragma once

#include "frame/Object.h"
#include "numeric/CholeskiLeastSquares.h"
#include "persist/SimpleCollectionImpl.h"

class CCamera3DCalibration
    : public CObject<CCamera3DCalibration>,
      public IObjectInfoImpl<CCamera3DCalibration>,
      public ISimpleCollectionImpl<CCamera3DCalibration, ICamera3DCalibration, ICamera3DTransform>,
      public IUIPropertyPageSpecify,
      private CholeskiLeastSquares {
  typedef ISimpleCollectionImpl<CCamera3DCalibration, ICamera3DCalibration, ICamera3DTransform> Collection;

 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  CCamera3DCalibration() = default;
  ~CCamera3DCalibration();
  HRESULT QueryInterface(const IID& iid, void** object) override;

  // points: image points (u, v, any), point i for camera i; the shorter of points and
  // cameras counts. Fewer than two: E_INVALIDARG, *result untouched. Otherwise *result
  // gets a new host point with a reference: S_OK, or E_FAIL for degenerate planes.
  HRESULT Convert(ISimpleCollection* points, IPoint** result) override;
  // One page: the calibration info page, titled with the object's name.
  HRESULT GetPages(int, INamedCollection** pages, IUnknown**) override;
  // Releases every camera; the capacity stays.
  HRESULT Clear() override;
  // The item's ICamera3DTransform is stored; an item without it gives E_POINTER.
  HRESULT Add(IUnknown* item) override;
  // An item without ICamera3DTransform gives E_FAIL, an index out of range E_INVALIDARG.
  HRESULT put_Item(int index, IUnknown* item) override;
  using Collection::Add;
  using Collection::put_Item;
};
