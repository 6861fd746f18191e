// "TransformBestFit": a 4 x 4 homogeneous transform that fits itself to two
// corresponding point sets, then converts points.
//
// Matrix: 16 doubles, row-major; a point is the row vector (x, y, z, 1) multiplied from
// the left, translation in row 3, the result divided by its fourth component.
//
// Method (low four bits): 1, 2 covariance fit by singular values (2 scaled); 3, 4 by
// eigenvectors (3, 4 scaled); anything else the 3D affine least squares, or the planar
// projective one when every source z is the same. One pair gives a translation, two
// pairs a rotation (scaled for 2 and 4). 0x100 skips the fit errors.
#pragma once

#include "frame/Object.h"
#include "numeric/CholeskiLeastSquares.h"
#include "persist/FileArchiveImpl.h"

class CTransformBestFit : public CObject<CTransformBestFit>,
                          public IObjectInfoImpl<CTransformBestFit>,
                          public IHomogeneousTransform,
                          public ITransformBestFit,
                          public ITransformFitErrors,
                          public IFileArchiveImpl<CTransformBestFit, IFileArchive>,
                          public IUIPropertyPageSpecify,
                          public IDataPersist,
                          public IParametricObject,
                          public CholeskiLeastSquares {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  CTransformBestFit();
  HRESULT QueryInterface(const IID& iid, void** object) override;

  // Computes mean, largest and standard deviation of the residuals anew.
  virtual HRESULT GetFitErrors(ISimpleCollection* source, ISimpleCollection* target, double* mean, double* max,
                               double* sd);
  HRESULT GetFitErrors(double* mean, double* max, double* sd) override;
  HRESULT BestFit(ISimpleCollection* source, ISimpleCollection* target, int method) override;
  HRESULT GetMatrix(double** data, int* rows, int* columns) override;
  HRESULT Convert(double* x, double* y, double* z) override;
  HRESULT GetPages(int, INamedCollection** pages, IUnknown**) override;
  HRESULT Save(IDataStream* stream, int options) override;
  HRESULT Load(IDataStream* stream, int options) override;
  HRESULT GetParameters(INamedCollection** parameters, int) override;
  HRESULT SetParameters(INamedCollection*) override { return S_OK; }

  double Error = 0;     // mean residual
  double MaxError = 0;  // largest residual
  double SDError = 0;   // standard deviation of the residuals
  double m_Matrix[16];

 private:
  HRESULT FitTwoPoints(ISimpleCollection* source, ISimpleCollection* target, int method);
  HRESULT FitTranslation(ISimpleCollection* source, ISimpleCollection* target);
  HRESULT FitAffine(ISimpleCollection* source, ISimpleCollection* target, int n, int method);
  HRESULT FitProjective(ISimpleCollection* source, ISimpleCollection* target, int n, int method);
  HRESULT FitCovariance(ISimpleCollection* source, ISimpleCollection* target, int method, bool flat);
  void UpdateFitErrors(ISimpleCollection* source, ISimpleCollection* target, int method);
};
