// "SingleViewGeometry": geometry on one projective camera, with no state of its own.
// Decompose splits a camera matrix into centre, rotation and intrinsic matrix; CalcLine
// recovers the two 3D ends of a segment of known length from three of its image points.
//
// Matrices follow the row-vector convention of the transforms: the camera's 3 x 4 matrix,
// held by columns, is read as the 4 x 3 row-major P with (x, y, z, 1) P = (u, v, w).
#pragma once

#include "frame/Object.h"

class CSingleViewGeometry : public CObject<CSingleViewGeometry>,
                            public IObjectInfoImpl<CSingleViewGeometry>,
                            public ISingleViewGeometry {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;
  HRESULT QueryInterface(const IID& iid, void** object) override;

  // Both ends of segment a-b, c an image point between them with world distances
  // distanceAC and distanceCB to the ends. The image points are taken as (x, y, 0), not
  // (x, y, 1): the depths come out scaled by the image geometry, not exact (deliberate).
  // A 2 x 2 solve whose determinant is below 2.2e-16 in size leaves x and y of that end as
  // the caller set them; a zero denominator elsewhere divides through (not-a-number
  // outputs). Null outputs are skipped. S_OK; E_POINTER for a null camera, E_FAIL when the
  // camera lends no pseudo-inverse.
  HRESULT CalcLine(ICamera3DTrinsic* camera, double ax, double ay, double cx, double cy, double bx, double by,
                   double distanceAC, double distanceCB, double* x1, double* y1, double* z1, double* x2, double* y2,
                   double* z2) override;
  // Not implemented: S_OK, nothing touched.
  virtual HRESULT CalcPlane(ICamera3DTransform* camera, ISimpleCollection* image, ISimpleCollection* world,
                            ISimpleCollection** result, IPlane** plane);
  // camera = T(c) Q L, with c the centre (divided by its fourth component unless that is
  // zero: a centre at infinity stays the unit null vector), Q a rotation (4 x 4, row 3 and
  // column 3 of the identity) and L the intrinsic part, normalised to L[2][2] = 1. Signs:
  // Q L may be -1 times the camera's 3 x 3 part (a rotation of determinant -1 then); the
  // recomposed camera is the same up to that scale. Each output may be null and is then
  // skipped; each new object carries one reference for the caller:
  //   intrinsic    a new "Camera3DTrinsic": intrinsic matrix L, extrinsic T(-c) Q;
  //   location     a new "Point" at c;
  //   translation  a new "HomogeneousCalibration", forward T(-c), reverse T(c);
  //   rotation     a new "HomogeneousCalibration", forward Q, reverse Q transposed.
  // An output whose object cannot be made is set to null. S_OK, whatever the camera holds
  // (a singular camera shows as unnormalised matrices); E_POINTER for a null camera,
  // E_FAIL for one that lends no 4 x 3 matrix.
  HRESULT Decompose(ICamera3DTransform* camera, ICamera3DTrinsic** intrinsic, IPoint** location,
                    ICalibration** translation, ICalibration** rotation) override;
};
