// "TransformInterrogate": reads translation, scale and Euler angles out of a homogeneous
// matrix (row-major, row-vector convention: translation in m[12..14]).
#pragma once

#include "frame/Object.h"

class CTransformInterrogate : public CObject<CTransformInterrogate>,
                              public IObjectInfoImpl<CTransformInterrogate>,
                              public ITransformInterrogate {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;
  HRESULT QueryInterface(const IID& iid, void** object) override;

  // Radians. Convention 2 reads the angles from m[9], m[8], m[1]; any other convention
  // from m[2], m[6]/m[10], m[1]/m[0], folding a and c into [-pi/2, pi/2].
  HRESULT GetEulerAngles(IHomogeneousTransform* t, short convention, double* a, double* b, double* c) override;
  HRESULT GetTranslation(IHomogeneousTransform* t, double* x, double* y, double* z) override;
  // Lengths of the first three elements of rows 0, 1 and 2.
  HRESULT GetScale(IHomogeneousTransform* t, double* x, double* y, double* z) override;
};
