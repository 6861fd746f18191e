// "CameraLinearCalibration": a hand-set chain of linear steps from camera coordinates
// to world coordinates and back. It fits nothing; every change rebuilds both chains,
// held by two host "LinearTransform" objects. Its fourteen numbers are also its named
// parameters, which is all its stream forms hold (plus the info block in folder streams).
#pragma once

#include <array>

#include "frame/Object.h"
#include "persist/CalibrationInfoImpl.h"
#include "persist/FileArchiveImpl.h"
#include "persist/ParametricImpl.h"
#include "persist/PersistRoute.h"

class CCameraLinearCalibration : public CObject<CCameraLinearCalibration>,
                                 public IObjectInfoImpl<CCameraLinearCalibration>,
                                 public ICameraLinearCalibration,
                                 public IFileArchiveImpl<CCameraLinearCalibration, IFileArchive>,
                                 public ICALIBRATIONInfoImpl<CCameraLinearCalibration, ICalibrationInfo>,
                                 public IParametricImpl<CCameraLinearCalibration>,
                                 public IDataPersistRoute<CCameraLinearCalibration>,
                                 public IUIPropertyPageSpecify {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  CCameraLinearCalibration();
  ~CCameraLinearCalibration();
  HRESULT QueryInterface(const IID& iid, void** object) override;

  // ICameraLinearCalibration (and ICalibration on the same route).
  HRESULT Convert(double* x, double* y, double* z) override;
  HRESULT Revert(double* x, double* y, double* z) override;
  HRESULT SetOrigin(double x, double y, double z) override;
  HRESULT GetOrigin(double* x, double* y, double* z) override;
  // A zero scale is stored as 1.
  HRESULT SetScale(double x, double y, double z) override;
  HRESULT GetScale(double* x, double* y, double* z) override;
  HRESULT SetRoll(double roll) override;
  HRESULT SetPitch(double pitch) override;
  HRESULT SetYaw(double yaw) override;
  HRESULT GetRoll(double* roll) override;
  HRESULT GetPitch(double* pitch) override;
  HRESULT GetYaw(double* yaw) override;
  HRESULT SetCameraOrigin(double x, double y) override;
  HRESULT GetCameraOrigin(double* x, double* y) override;
  HRESULT SetCameraRoll(double roll) override;
  HRESULT GetCameraRoll(double* roll) override;

  // Only the three scales follow a change of units; translations keep their numbers.
  HRESULT put_CALIBUnits(int units) override;
  HRESULT GetParameters(INamedCollection** parameters, int) override;
  // Missing or unreadable names keep their values; no zero-scale rule here.
  HRESULT SetParameters(INamedCollection* parameters) override;
  HRESULT GetPages(int level, INamedCollection** pages, IUnknown**) override;
  // The parameters on an XML or folder stream, and the info block in folder streams.
  HRESULT PersistSave(IDataStream* stream, int flags);
  HRESULT PersistLoad(IDataStream* stream, int flags);

  HRESULT GetForwardTransform(ITransform** out);
  HRESULT GetReverseTransform(ITransform** out);
  // Rebuilds both chains from the fields (forward: camera origin, camera roll, scale,
  // translation, roll, pitch, yaw; reverse: the same undone from the end).
  void CreateTransform();

 protected:
  struct NamedValue {
    const wchar_t* name;
    double* value;
  };
  // The named parameters, in their order.
  std::array<NamedValue, 14> Named();

  ILinearTransform* ForwardTransform = nullptr;
  ILinearTransform* ReverseTransform = nullptr;
  double CameraRoll = 0;
  double CameraOriginX = 0, CameraOriginY = 0;
  // Stored and persisted only; no part of either chain.
  double CameraScaleX = 1, CameraScaleY = 1;
  double Roll = 0, Pitch = 0, Yaw = 0;
  double ScaleX = 1, ScaleY = 1, ScaleZ = 1;
  double TranslateX = 0, TranslateY = 0, TranslateZ = 0;
};
