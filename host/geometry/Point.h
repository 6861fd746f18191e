// "Point": one point in space, and "PointsCollection": a list of shared points.
#pragma once

#include <vector>

#include "frame/Object.h"

class CPoint : public CObject<CPoint>,
               public IPoint,
               public ITransformableObject,
               public IObjectInfoImpl<CPoint> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;
  HRESULT QueryInterface(const IID& iid, void** object) override;

  HRESULT GetXYZ(double* x, double* y, double* z) override;
  HRESULT SetXYZ(double x, double y, double z) override;
  // Moves the point through the transform; on failure the point stays.
  HRESULT Transform(IHomogeneousTransform* transform) override;

  // A new point with one reference.
  static CPoint* Create(double x, double y, double z);

 private:
  double m_X = 0.0;
  double m_Y = 0.0;
  double m_Z = 0.0;
};

// Items are held as IPoint references; Add shares the caller's point, it does not copy it.
class CPointsCollection : public CObject<CPointsCollection>,
                          public IPointsCollection,
                          public ITransformableObject,
                          public IObjectInfoImpl<CPointsCollection> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;
  ~CPointsCollection();
  HRESULT QueryInterface(const IID& iid, void** object) override;

  HRESULT get_Count(int* count) override;
  HRESULT get_Item(int index, IUnknown** item) override;
  HRESULT Add(IUnknown* point) override;
  HRESULT Clear() override;
  HRESULT AddPoint(double x, double y, double z) override;
  // Moves every item through the transform; stops at the first failure.
  HRESULT Transform(IHomogeneousTransform* transform) override;

 private:
  std::vector<IPoint*> m_Points;
};
