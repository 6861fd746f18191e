// "Camera3DTransform": the plain projective camera, one 3 x 4 matrix P that carries a
// world point (X, Y, Z) to an image point (u, v), fitted from corresponding image and
// world points by a direct linear solve (p11 fixed to 1) and a Levenberg-Marquardt
// refinement of all twelve entries.
//
// Storage: P is held by columns. Element 3c + r is row r, column c, so the twelve doubles
// run p0 p4 p8, p1 p5 p9, p2 p6 p10, p3 p7 p11; GetMatrix reports that memory as 4 rows
// of 3 (a row of the report is a column of P).
//
// Errors are reprojection distances in image units. The fit keeps counted references to
// its two point collections: the minimiser's model function reads them through the object,
// so one object fits on one thread at a time.
#pragma once

#include <vector>

#include "frame/Object.h"
#include "numeric/CholeskiLeastSquares.h"
#include "persist/CalibrationInfoImpl.h"
#include "persist/FileArchiveImpl.h"
#include "persist/PersistRoute.h"

class CCamera3DTransform : public CObject<CCamera3DTransform>,
                           public IObjectInfoImpl<CCamera3DTransform>,
                           public ICamera3DTransform,
                           public IFileArchiveImpl<CCamera3DTransform, IFileArchive>,
                           public ICALIBRATIONInfoImpl<CCamera3DTransform, ICalibrationInfo>,
                           public ITransformFitErrors,
                           public ITransformBestFit,
                           public IUIPropertyPageSpecify,
                           public IDataPersistRoute<CCamera3DTransform>,
                           public IParametricObject,
                           private CholeskiLeastSquares {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  CCamera3DTransform();
  ~CCamera3DTransform();
  // Does not answer ICalibrationInfo, though the info block is a base.
  HRESULT QueryInterface(const IID& iid, void** object) override;

  // The viewing line of image point (u, v): the direction is the cross product of the
  // normals of the two planes of SolveMatrix; `point` (may be null) gets a point worked
  // out from the same plane coefficients, with z = 0. `w` is not read.
  virtual HRESULT SolveLine(double* direction, double* point, double u, double v, double w);
  // Two image points known to lie `distance` apart at one height: *z is the larger root of
  // the quadratic in z, 0.0 when it has no real root.
  virtual HRESULT EstimatePlanarZ(double u1, double v1, double u2, double v2, double distance, double* z);
  // Reprojection errors of world points against image points, over the shorter set:
  // error2 and error the largest distance (one value twice), sdError the root of the sum
  // of squares over N - 1. Stamps the calibration time.
  virtual HRESULT GetFitErrors(ISimpleCollection* world, IUnknown* image, double* error2, double* error,
                               double* sdError);
  // The stored (error2, error, sdError) of the last fit or load.
  HRESULT GetFitErrors(double* error2, double* error, double* sdError) override;
  // image: (u, v) points; world: (X, Y, Z) points; the flags are not read. Six points give
  // a direct solution, twelve or more are refined. Coplanar world points make the linear
  // solve singular (E_FAIL); the later stages still run.
  HRESULT BestFit(ISimpleCollection* image, ISimpleCollection* world, int flags) override;
  HRESULT GetPages(int, INamedCollection** pages, IUnknown**) override;
  // Two rows of four: the planes P[0] - u P[2] and P[1] - v P[2] through the viewing ray.
  HRESULT SolveMatrix(double* out, double u, double v) override;
  HRESULT GetMatrix(double** data, int* rows, int* cols) override;
  // World to image; z becomes 0. The division is not guarded.
  HRESULT Convert(double* x, double* y, double* z) override;
  // By extension: 'x' XML, 't' folder stream, anything else the four-line text form.
  HRESULT Save() override;
  HRESULT Load() override;
  // Folder stream: the matrix, errors, file name and info block. Any other stream gets
  // the text form (one column of P a line), which cannot be read back.
  HRESULT PersistSave(IDataStream* stream, int options);
  HRESULT PersistLoad(IDataStream* stream, int options);
  // "SDError" and "MaxError", read only.
  HRESULT GetParameters(INamedCollection** parameters, int) override;
  HRESULT SetParameters(INamedCollection*) override { return S_OK; }

  // The minimiser's residuals: one squared reprojection distance per point, with the
  // twelve entries of `p` in the column order of the matrix.
  void EvaluateResiduals(const double* p, int m, double* residuals);

 private:
  double m_Matrix[12] = {};
  double m_Error = 0.0;
  double m_Error2 = 0.0;
  double m_SDError = 0.0;
  SmartPtr<ISimpleCollection> m_SrcPoints;
  SmartPtr<ISimpleCollection> m_TargetPoints;
  // During a refinement only: u, v, X, Y, Z of each point, read once from the collections
  // so the model function need not walk them on every evaluation. It computes the same
  // numbers either way.
  std::vector<double> m_LMPoints;
};
