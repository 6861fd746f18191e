// "CalibrationDistortionRadial": radial lens distortion as a polynomial in the radius
// about a distortion centre, in coordinates normalised by the smaller image side (N):
//   f(r) = k0 + k1 r + k2 r^2 + k3 r^3 + k4 r^4,  r^2 = u^2 + v^2,
//   u = (x / N - x0) / s,  v = 1 - y / N - y0   (image y turned over).
// Convert takes distorted pixels to corrected ones; Revert is a first-order inverse (or,
// with InverseMethod 0, the closed-form root of r' = r + k2 r^3), so a round trip does
// not give the point back exactly.
//
// It is fitted without target coordinates: StraightLinesNeedtoBeStraight takes sets of
// image points that lie on straight lines in the world and moves the coefficients until,
// corrected, each set is straight again (host "LineSegment" fits and point distances as
// residuals). A fit hands its data to the minimiser through the object's own fields, so
// it is not reentrant, and a Convert from another thread during a fit sees trial values.
#pragma once

#include <array>

#include "frame/Object.h"
#include "persist/CalibrationInfoImpl.h"
#include "persist/ParametricImpl.h"
#include "persist/PersistRoute.h"

class CCalibrationDistortionRadial
    : public CObject<CCalibrationDistortionRadial>,
      public IObjectInfoImpl<CCalibrationDistortionRadial>,
      public ICalibrationDistortionRadial,
      public ITransformFitErrors,
      public ITransformBestFit,
      public IDataPersistRoute<CCalibrationDistortionRadial>,
      public ICALIBRATIONInfoImpl<CCalibrationDistortionRadial, ICalibrationInfo>,
      public IParametricImpl<CCalibrationDistortionRadial>,
      public IUIPropertyPageSpecify {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  CCalibrationDistortionRadial();
  ~CCalibrationDistortionRadial();
  HRESULT QueryInterface(const IID& iid, void** object) override;

  // ICalibrationDistortionRadial. Convert and Revert never touch z; Convert always
  // succeeds, Revert fails (point unchanged) only for a negative discriminant of the
  // closed form.
  HRESULT Convert(double* x, double* y, double* z) override;
  HRESULT Revert(double* x, double* y, double* z) override;
  // Not implemented: this model is fitted from straight lines.
  HRESULT Fit(ISimpleCollection*, ISimpleCollection*, int, int) override;
  // The coefficients, centre, aspect and errors; InverseMethod, the image size, the
  // flags and the lines stay.
  HRESULT Reset() override;
  HRESULT StraightLinesNeedtoBeStraight(ISimpleCollection* lines, int flags) override;
  HRESULT SetNormalizationImageSize(unsigned int width, unsigned int height) override;
  // A host "LinearCalibration" that maps the corrected image back onto W x H pixels.
  HRESULT MaintainSize(ILinearCalibration** out) override;

  // ITransformBestFit: the source sets are the lines; the target is ignored.
  HRESULT BestFit(ISimpleCollection* source, ISimpleCollection* target, int flags) override;
  // ITransformFitErrors: lower, upper, standard deviation of the last fit's residuals.
  HRESULT GetFitErrors(double* lower, double* upper, double* sd) override;
  // Corrected source points against target points: sd and largest distance. Stamps the
  // calibration time.
  HRESULT GetFitErrors(ISimpleCollection* source, IUnknown* target, double* a, double* b, double* c);
  // The model has no matrix: null, 1 and 0.
  HRESULT GetMatrix(double** matrix, int* rows, int* columns);

  HRESULT GetParameters(INamedCollection** parameters, int) override;
  HRESULT SetParameters(INamedCollection* parameters) override;
  HRESULT GetPages(int, INamedCollection** pages, IUnknown**) override;
  HRESULT PersistSave(IDataStream* stream, int flags);
  HRESULT PersistLoad(IDataStream* stream, int flags);

  // The residual function of the fit: unpacks `par` by the bits of `mask` (when `par` is
  // not null), then writes the signed distance of every corrected line point from its
  // set's fitted line into fvec (at most m_dat values): in pixels without `par`,
  // divided by N with it.
  void LevenbergMarquardt_Evaluate(short mask, const double* par, int m_dat, double* fvec);
  // The flags of the last fit as the evaluation's mask: the low 16 bits.
  short FitMask() const { return static_cast<short>(FitFlags); }

 private:
  // The smaller image side as a double.
  double Side() const;
  // f at the radius of (u, v).
  double Polynomial(double u, double v) const;
  // The stored values in their order, the sizes through the caller's ints (the fields are
  // unsigned); the centre is stored as "cx", "cy".
  struct StoredValue {
    const wchar_t* key;
    void* value;
    int type;
  };
  std::array<StoredValue, 14> StoredValues(int* width, int* height);
  // Sets the lower, upper and standard-deviation figures from the residuals in pixels.
  void Statistics(int m);

  ISimpleCollection* Lines = nullptr;
  double k0 = 1, k1 = 0, k2 = 0, k3 = 0, k4 = 0;
  double x0 = 0.5, y0 = 0.5;
  double s = 1;
  int InverseMethod = 1;
  unsigned int ImageWidth = 1000, ImageHeight = 1000;
  int FitFlags = 0;  // read as 16 bits where it becomes a mask
  double UpperError = 0, LowerError = 0, SDError = 0;
  // During a fit, the length of the minimiser's parameter vector; -1 (no bound) when a
  // host calls the model functions itself with a vector of its own.
  int m_ParCount = -1;
};
