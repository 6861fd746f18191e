// "MultiViewGeometry": the geometry of a stereo pair. The first two usable cameras of a
// collection (a Camera3DTrinsic, or a Camera3DCalibrationPlane standing for the camera
// behind it) are moved into a common frame by CalcPose, which then derives their centres,
// epipoles, locations and the matrices G, F and E; CalibStereo (MultiViewStereo.cpp)
// estimates F, E, the epipoles and a relative pose from corresponding image points.
//
// Conventions: every matrix here is row-major, points are row vectors multiplied from the
// left. A camera's matrices are read as the memory GetMatrix hands out: the projection as
// 4 rows of 3 (P transposed), the intrinsics' leading 3 x 3 as K = A transposed, the
// extrinsic as the 4 x 4 row-vector form [R^T 0; t^T 1]. The epipolar constraint is
// p F q^T = 0, p = (x1, y1, 1) of the first image, q = (x2, y2, 1) of the second.
// rel maps first-camera coordinates to second-camera coordinates: X2 = X1 rel.
//
// CalcPose writes into the cameras (their extrinsics and projections); the object keeps
// references to them through the collection it was given. One call at a time: the
// minimiser's model function reads the object's point sets.
#pragma once

#include <vector>

#include "frame/Object.h"

class CMultiViewGeometry : public CObject<CMultiViewGeometry>,
                           public IObjectInfoImpl<CMultiViewGeometry>,
                           public IMultiViewGeometry {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  // IUnknown and IMultiViewGeometry only: IObjectInfo is not reachable.
  HRESULT QueryInterface(const IID& iid, void** object) override;
  // The three geometry collections, and every matrix zero but its last element.
  HRESULT FinalConstruct() override;

  // Keeps the argument's INamedCollection (null if it has none) and counts its cameras.
  HRESULT SetCalibrations(ISimpleCollection* calibrations) override;
  // Mode 0: first camera at the origin; 1: the second; 2: midway between them; above 2:
  // the baseline along x about its midpoint; negative: the cameras stay. E_FAIL with
  // fewer than two cameras, nothing changed.
  HRESULT CalcPose(int mode) override;
  // Id 1 only: the relative pose, 16 doubles reported as 4 rows of 3. Outputs optional.
  HRESULT GetMatrix(int id, double** data, int* rows, int* cols) override;
  // 1 the relative pose as a new HomogeneousTransform; 2, 3, 4 E, F, G and 5, 6 the
  // auxiliary matrices as new HomogeneousCalibrations; 7, 8, 9 the camera locations,
  // image centres and epipoles: the collection for a negative index, else its item.
  HRESULT GetLocation(int kind, int index, IUnknown** out) override;
  // Result 0 always; see MultiViewStereo.cpp.
  HRESULT CalibStereo(ISimpleCollection* first, ISimpleCollection* second) override;

  // The index-th usable camera with a reference for the caller, or null.
  ICamera3DTrinsic* GetCalibration(int index);
  // Algebraic epipolar error of `matrix` over the pairs: c the standard error, a and b
  // both the square root of the largest (signed, from 0) error. Outputs optional.
  HRESULT GetFitErrors(double* matrix, ISimpleCollection* first, ISimpleCollection* second, double* a, double* b,
                       double* c);
  // The minimiser's residuals: the squared algebraic error of pair i under `par`; a
  // missing pair leaves its residual as it was.
  void EvaluateResiduals(const double* par, int m, double* fvec) const;

 private:
  // The camera an item stands for (a plane calibration for its reverse transform).
  static SmartPtr<ICamera3DTrinsic> CameraOf(IUnknown* item);
  // Replaces the point sets and reads their pairs once for the model function.
  void SetPointSets(ISimpleCollection* first, ISimpleCollection* second);
  void CommonPart(ICamera3DTrinsic* cam1, ICamera3DTrinsic* cam2, IPointVector* v1, IPointVector* v2,
                  IHomogeneousTransform* t);
  // A new HomogeneousCalibration with these forward and reverse matrices.
  HRESULT NewCalibration(const double* forward, const double* reverse, IUnknown** out);

  SmartPtr<INamedCollection> m_Calibrations;
  int m_CameraCount = 0;
  SmartPtr<IParametersCreatable> m_Locations;
  SmartPtr<IParametersCreatable> m_ImageCenters;
  SmartPtr<IParametersCreatable> m_Epipoles;
  double m_RelativePose[16] = {};
  double m_F[9] = {};
  double m_G[9] = {};
  double m_E[9] = {};
  double m_A[16] = {};
  double m_B[16] = {};
  SmartPtr<ISimpleCollection> m_First;
  SmartPtr<ISimpleCollection> m_Second;
  // Per pair of the point sets: x1, y1, x2, y2 and 1 when both items are points.
  std::vector<double> m_Pairs;
};

// Helpers shared by the two units of the class.
namespace multiview {
constexpr double kEpsilon = 2.220446049250313e-16;
// Divides the first eight elements by m[8] and sets it to 1, when |m[8]| exceeds the guard.
void Normalize3(double* m);
// The x and y of item i of a collection, when it is a point.
bool PointXY(ISimpleCollection* points, int i, double* x, double* y);
int CountOf(ISimpleCollection* c);
}  // namespace multiview
