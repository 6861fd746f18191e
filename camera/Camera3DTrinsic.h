// "Camera3DTrinsic": a pinhole camera that knows its parts, the intrinsic matrix A, the
// pose [R t] and their product P = A [R t], calibrated from views of a flat target
// (one homography per view, a linear solve for the image of the absolute conic, closed
// forms for A and for the pose of each view, a radial distortion estimate per view).
//
// Storage: every matrix is a plain array held by columns. A 3 x 4 matrix is twelve
// doubles, three of column 0, then three of column 1, ...; GetMatrix reports that memory
// as 4 rows of 3. The pose is 4 x 4 by columns: r1 at 0..2, r2 at 4..6, r3 at 8..10,
// t at 12..14, index 15 is 1.
//
// Units: A, P and every error are in pixels. The calibration itself works in normalised
// image units, xn = (x - W/2) 2/W and yn = (y - H/2) 2/H (W, H: the normalisation image
// size, to be set before BestFit), with K the intrinsics there and A = U K.
//
// After a fit the object holds the shared intrinsics and the pose, product, distortion
// and maximum error of the LAST view; the standard error is taken over all points.
// The distortion coefficients are estimated and stored, never applied.
//
// A fit hands its data to the minimiser's model function through the object, so one
// object fits on one thread at a time.
#pragma once

#include <array>
#include <vector>

#include "frame/Object.h"
#include "persist/CalibrationInfoImpl.h"
#include "persist/FileArchiveImpl.h"
#include "persist/PersistRoute.h"

class CCamera3DTrinsic : public CObject<CCamera3DTrinsic>,
                         public IObjectInfoImpl<CCamera3DTrinsic>,
                         public ICamera3DTrinsic,
                         public IFileArchiveImpl<CCamera3DTrinsic, IFileArchive>,
                         public ICALIBRATIONInfoImpl<CCamera3DTrinsic, ICalibrationInfo>,
                         public IUIPropertyPageSpecify,
                         public IDataPersistRoute<CCamera3DTrinsic>,
                         public ITransformBestFit,
                         public ITransformFitErrors,
                         public ICalibration,
                         public IParametricObject {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  CCamera3DTrinsic();
  ~CCamera3DTrinsic();
  // Answers neither ICalibration nor ICalibrationInfo, though both bases are present.
  HRESULT QueryInterface(const IID& iid, void** object) override;

  // image: the views' image points; model: the target's points (Z ignored).
  // mode 0: image is a collection of per-view collections (3 views at least); 1: one flat
  // collection, view after view; 2: as 1, but the intrinsics are kept and only the poses
  // computed; above 2: nothing is fitted; negative: E_INVALIDARG.
  HRESULT BestFit(ISimpleCollection* image, ISimpleCollection* model, int mode) override;
  // The camera matrix P, 4 rows of 3 (as GetMatrix(0, ...)).
  HRESULT GetMatrix(double** data, int* rows, int* cols) override;
  // By id: 0, 8 and unknown ids P; 1 A; 2 pose; 3 inverse pose; 4 pseudo-inverse of P
  // (3 rows of 4, row-major); 5 inverse of K; 6 K^-T K^-1; 7 inverse of A; 9 rebuild P and
  // the scalars from A and the pose (outputs untouched); 1111 inverse of K as it stands.
  // Every pointer is borrowed and stays valid while the object lives.
  HRESULT GetMatrix(int id, double** data, int* rows, int* cols) override;
  // W and H of the normalisation, stored as given; nothing is recomputed.
  HRESULT SetNormalizationImageSize(int width, int height) override;
  // E_POINTER, with nothing written, unless both outputs are given.
  HRESULT GetNormalizationImageSize(int* width, int* height) override;
  // Two rows of four: the planes through the viewing ray of image point (u, v).
  HRESULT SolveMatrix(double* out, double u, double v) override;
  // (error2, error, sdError): the last view's maximum twice, the overall standard error.
  HRESULT GetFitErrors(double* error2, double* error, double* sdError) override;
  HRESULT Save() override;
  HRESULT Load() override;
  // World to image with P; z becomes 0. No distortion, no guard against w = 0.
  HRESULT Convert(double* x, double* y, double* z) override;
  // Image to world: the point of the viewing ray that the pseudo-inverse picks (one
  // decomposition per call). The input z is ignored.
  HRESULT Revert(double* x, double* y, double* z) override;
  HRESULT GetPages(int, INamedCollection** pages, IUnknown**) override;
  HRESULT PersistSave(IDataStream* stream, int options);
  HRESULT PersistLoad(IDataStream* stream, int options);
  HRESULT GetParameters(INamedCollection** parameters, int) override;
  HRESULT SetParameters(INamedCollection*) override { return S_OK; }

  // The calibration's working parts.
  static double VectorNormalize(double* v, int n);
  HRESULT CalcHomography(ISimpleCollection* image, int start, ISimpleCollection* model, double* h);
  HRESULT LevenbergMarquardt_Homography(double* h, ISimpleCollection* image, int start, ISimpleCollection* model);
  static void CalcB_GetVector(const double* h, double* v, int i, int j);
  HRESULT CalcB(int views, const double* h, double* b);
  HRESULT CalcZhangIntrinsic(const double* b, double* unused);
  HRESULT CalcZhangExtrinsic(const double* h);
  HRESULT CalcDistortion(ISimpleCollection* image, int start, ISimpleCollection* model);
  HRESULT GetFitErrors(ISimpleCollection* image, int start, ISimpleCollection* model, short accumulate,
                       double* error2, double* error, double* sdError);
  void Log(IString* text, int flags);

  // The residuals of one homography refinement: one squared distance per point, in
  // normalised image units. Reached through the exported model function.
  void EvaluateHomography(const double* p, int m, double* residuals);

 private:
  // The fifteen values of the folder form, in their order, with their sizes.
  struct StoredValue {
    const wchar_t* key;
    void* data;
    int bytes;
  };
  std::array<StoredValue, 15> StoredValues();
  void Normalize(double x, double y, double* xn, double* yn) const;
  void LogLine(const wchar_t* format, ...);
  void WriteReport(IDataStream* stream);

  double m_Skew = 0.0;
  double m_fSx = 1.0;
  double m_fSy = 1.0;
  double m_CenterX = 320.0;
  double m_CenterY = 240.0;
  double m_Distortion1 = 0.0;
  double m_Distortion2 = 0.0;
  double m_Intrinsic[12] = {};
  double m_Extrinsic[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  double m_ExtrinsicInverse[16] = {};
  double m_Combined[12] = {};
  double m_PseudoInverse[12] = {};
  double m_IntrinsicNormalized[9] = {};
  double m_IntrinsicNormalizedInverse[9] = {};
  double m_AbsoluteConic[9] = {};
  double m_IntrinsicInverse[9] = {};  // id 7's own buffer, so its pointer outlives the call
  int m_CombinedChanged = 0;
  int m_NormalizedInverseValid = 0;
  double m_SumDistance = 0.0;
  double m_SumSquares = 0.0;
  double m_MaxDistance = 0.0;
  double m_PointCount = 0.0;
  double m_Error = 0.0;
  double m_Error2 = 0.0;
  double m_SDError = 0.0;
  int m_NormalizeImageWidth = 640;
  int m_NormalizeImageHeight = 480;
  ISimpleCollection* m_LMImagePoints = nullptr;
  ISimpleCollection* m_LMModelPoints = nullptr;
  int m_LMStart = 0;
  // The points of the view being refined, read once per refinement: image (x, y) then
  // model (X, Y) for each point. The model function computes from these exactly what
  // it would from the collections.
  std::vector<double> m_LMPoints;
};
