// "CalibrationBestFit": a plane calibration between two point sets, each direction an
// independent TransformBestFit (forward fitted source to target, reverse target to
// source), with point-set storage, calibration info, files and pages.
#pragma once

#include "frame/Object.h"
#include "persist/CalibrationInfoImpl.h"
#include "persist/FileArchiveImpl.h"
#include "persist/PersistRoute.h"

class CCalibrationBestFit : public CObject<CCalibrationBestFit>,
                            public IObjectInfoImpl<CCalibrationBestFit>,
                            public ICalibrationBestFit,
                            public IFileArchiveImpl<CCalibrationBestFit, IFileArchive>,
                            public ICALIBRATIONInfoImpl<CCalibrationBestFit, ICalibrationInfo>,
                            public ITransformFitErrors,
                            public IDataPersistRoute<CCalibrationBestFit>,
                            public IUIPropertyPageSpecify {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  CCalibrationBestFit();
  ~CCalibrationBestFit();
  HRESULT QueryInterface(const IID& iid, void** object) override;

  // The caller's out variable must already hold a non-null value (E_INVALIDARG if not).
  virtual HRESULT get_SrcPoints(ISimpleCollection** out);
  virtual HRESULT put_SrcPoints(ISimpleCollection* points);
  virtual HRESULT get_TargetPoints(ISimpleCollection** out);
  virtual HRESULT put_TargetPoints(ISimpleCollection* points);
  // The forward fit's errors.
  HRESULT GetFitErrors(double* mean, double* max, double* sd) override;
  // Fits both directions on the stored point sets; always 0.
  virtual HRESULT BestFit(int method);
  HRESULT BestFit(ISimpleCollection* source, ISimpleCollection* target, int method) override;
  HRESULT Revert(double* x, double* y, double* z) override;
  HRESULT Convert(double* x, double* y, double* z) override;
  HRESULT GetReverseTransform(ITransform** out) override;
  HRESULT GetForwardTransform(ITransform** out) override;
  HRESULT GetPages(int, INamedCollection** pages, IUnknown**) override;
  // Stream forms: CSV text (forward matrix, a lone carriage return, reverse matrix),
  // folder stream, XML (whose Load reports E_FAIL at the end of the tags).
  HRESULT PersistSave(IDataStream* stream, int flags);
  HRESULT PersistLoad(IDataStream* stream, int flags);
  // The archive's save: ".csv" (and any extension it prefixes) as 16-bit CSV text.
  HRESULT Save() override;

 private:
  IHomogeneousTransform* m_Forward = nullptr;
  IHomogeneousTransform* m_Reverse = nullptr;
  ISimpleCollection* m_Source = nullptr;
  ISimpleCollection* m_Target = nullptr;
};
