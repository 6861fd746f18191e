// "TransformResidualErrors": how far a transform carries one point set from another,
// measured in target space.
#pragma once

#include "frame/Object.h"

class CTransformResidualErrors : public CObject<CTransformResidualErrors>,
                                 public IObjectInfoImpl<CTransformResidualErrors>,
                                 public ITransformResidualErrors {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;
  HRESULT QueryInterface(const IID& iid, void** object) override;

  // (t(source[i]) - target[i]) for i below the smaller count, as a new points collection.
  // A null transform gives the plain differences.
  HRESULT GetResidualErrorPoints(ITransform* t, ISimpleCollection* source, ISimpleCollection* target,
                                 ISimpleCollection** out) override;
  // The lengths of those differences, as a new vector of doubles.
  HRESULT GetResidualErrorVector(ITransform* t, ISimpleCollection* source, ISimpleCollection* target,
                                 IDblVector** out) override;
};
