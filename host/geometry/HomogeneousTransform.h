// "HomogeneousTransform": a 4 x 4 matrix, row-major, that converts a point as the row
// vector (x, y, z, 1) multiplied from the left, the result divided by its fourth component.
// Declared here so that "HomogeneousCalibration" can hold two of them.
#pragma once

#include "host/common/PeerModule.h"

class CHomogeneousTransform : public CObject<CHomogeneousTransform>,
                              public IHomogeneousTransform,
                              public IObjectInfoImpl<CHomogeneousTransform> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CHomogeneousTransform>*>(this)), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
        QueryRoute(iid, IID_IHomogeneousTransform, static_cast<IHomogeneousTransform*>(this), object) ||
        QueryRoute(iid, IID_ITransform, static_cast<ITransform*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }

  // A point whose fourth component comes out zero has no image: E_FAIL, point unchanged.
  HRESULT Convert(double* x, double* y, double* z) override {
    if (!x || !y || !z) return E_POINTER;
    const double* m = m_Matrix;
    double out[4];
    for (int j = 0; j < 4; ++j) out[j] = *x * m[j] + *y * m[4 + j] + *z * m[8 + j] + m[12 + j];
    if (out[3] == 0.0) return E_FAIL;
    *x = out[0] / out[3];
    *y = out[1] / out[3];
    *z = out[2] / out[3];
    return S_OK;
  }

  // Borrowed pointer to the live matrix; callers may write through it. Outputs optional.
  HRESULT GetMatrix(double** matrix, int* rows, int* columns) override {
    if (matrix) *matrix = m_Matrix;
    if (rows) *rows = 4;
    if (columns) *columns = 4;
    return S_OK;
  }

 private:
  double m_Matrix[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
};
