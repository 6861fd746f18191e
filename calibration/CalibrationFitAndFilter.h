// "CalibrationFitAndFilter": fits a calibration that can fit itself, drops the pairs with
// the largest residuals and fits again, until the mean residual is acceptable. No
// sampling: the same input always gives the same result.
#pragma once

#include "frame/Object.h"
#include "persist/ParametricImpl.h"

class CCalibrationFitAndFilter : public CObject<CCalibrationFitAndFilter>,
                                 public IObjectInfoImpl<CCalibrationFitAndFilter>,
                                 public ICalibrationFitAndFilter,
                                 public IDataPersistParametricImpl<CCalibrationFitAndFilter>,
                                 public IParametricImpl<CCalibrationFitAndFilter>,
                                 public IUIPropertyPageSpecify {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;
  HRESULT QueryInterface(const IID& iid, void** object) override;

  HRESULT GetFitMethod(int* method, int* maxIterations, double* allowableError) override;
  HRESULT SetFitMethod(int method, int maxIterations, double allowableError) override;
  HRESULT SetMinNbPoints(int count) override;
  // S_OK: accepted, the out collections hold the pairs kept. S_FALSE: not accepted; the
  // out collections hold the last pairs, or are left alone when the filter would go
  // below MinNumberPoints before filtering. E_FAIL: no calibration that fits itself.
  HRESULT BestFit(IUnknown* calibration, ISimpleCollection* source, ISimpleCollection* target,
                  ISimpleCollection** keptSource, ISimpleCollection** keptTarget) override;
  HRESULT GetPages(int, INamedCollection** pages, IUnknown**) override;
  // "FitMethod", "MaxIterations", "MinNumberPoints", "AllowableError".
  HRESULT GetParameters(INamedCollection** parameters, int) override;
  // Reads the double back under "MaxAllowableError", so a saved AllowableError does not
  // return through Load.
  HRESULT SetParameters(INamedCollection* parameters) override;

  int FitMethod = 6;
  int MaxIterations = 10;
  int MinNumberPoints = 4;
  double AllowableError = 5.0;
};

// Lets a calibration stand where an ITransform is expected: Convert runs the calibration's
// Convert (flag set) or Revert. Lives on the stack, so it counts no references.
class CCalibrationToTransform : public ITransform {
 public:
  explicit CCalibrationToTransform(ICalibration* calibration) : m_Calibration(calibration) {}
  HRESULT QueryInterface(const IID& iid, void** object) override;
  int AddRef() override { return 2; }
  int Release() override { return 1; }
  HRESULT Convert(double* x, double* y, double* z) override;

  SmartPtr<ICalibration> m_Calibration;
  int m_Forward = 0;
};
