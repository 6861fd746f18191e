// The module's two exported entry points and its table of creatable objects.
#include "calibration/CalibrationBestFit.h"
#include "calibration/CalibrationFitAndFilter.h"
#include "calibration/CameraLinearCalibration.h"
#include "camera/Camera3DTrinsic.h"
#include "frame/Components.h"
#include "geometry/TransformBestFit.h"
#include "geometry/TransformInterrogate.h"
#include "geometry/TransformResidualErrors.h"

#define ZELTRIM_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

struct CreatableObject {
  const wchar_t* name;
  int length;
  CREATORFUNCTION creator;  // null while the class is not part of this build
};

// Tested in this order; names compare exactly, case included.
const CreatableObject kCreatableObjects[] = {
    {L"CalibrationBestFit", 18, &CObject<CCalibrationBestFit>::_CreateInstance},
    {L"CalibrationDistortionRadial", 27, nullptr},
    {L"CalibrationFitAndFilter", 23, &CObject<CCalibrationFitAndFilter>::_CreateInstance},
    {L"CalibrationFisheye", 18, nullptr},
    {L"CalibrationInfoPropPage", 23, nullptr},
    {L"CalibrationMatrixPropPage", 25, nullptr},
    {L"CalibrationPolynomial", 21, nullptr},
    {L"CalibrationsCollection", 22, nullptr},
    {L"Camera3DCalibration", 19, nullptr},
    {L"Camera3DCalibrationPlane", 24, nullptr},
    {L"Camera3DTransform", 17, nullptr},
    {L"Camera3DTrinsic", 15, &CObject<CCamera3DTrinsic>::_CreateInstance},
    {L"CameraLinearCalibration", 23, &CObject<CCameraLinearCalibration>::_CreateInstance},
    {L"SingleViewGeometry", 18, nullptr},
    {L"MultiViewGeometry", 17, nullptr},
    {L"TransformBestFit", 16, &CObject<CTransformBestFit>::_CreateInstance},
    {L"TransformInterrogate", 20, &CObject<CTransformInterrogate>::_CreateInstance},
    {L"TransformResidualErrors", 23, &CObject<CTransformResidualErrors>::_CreateInstance},
};

bool SameName(const CreatableObject& row, tagREFString name) {
  if (row.length != name.m_Length || name.m_Length <= 0 || !name.m_Text) return false;
  for (int i = 0; i < row.length; ++i)
    if (row.name[i] != name.m_Text[i]) return false;
  return true;
}

}  // namespace

ZELTRIM_EXPORT HRESULT CreateFunction(tagREFString name, void** creator) {
  for (const CreatableObject& row : kCreatableObjects) {
    if (!SameName(row, name)) continue;
    // A row whose class is not built yet answers like an unknown name.
    if (!row.creator || !creator) return E_FAIL;
    *creator = reinterpret_cast<void*>(row.creator);
    return S_OK;
  }
  return E_FAIL;
}

ZELTRIM_EXPORT HRESULT InitializeModule(void*, IComponentCollection* components) {
  // The new reference is taken before the old one is dropped, so handing over the
  // collection already held keeps it alive.
  gGlobalComponentCollection = components;
  return 0;
}
