// The module's two exported entry points, over the table of creatable objects
// (frame/ModuleObjects.h).
#include "calibration/CalibrationBestFit.h"
#include "calibration/CalibrationFisheye.h"
#include "calibration/CalibrationFitAndFilter.h"
#include "calibration/CalibrationRadialDistortion.h"
#include "calibration/CalibrationPolynomial.h"
#include "calibration/CameraLinearCalibration.h"
#include "camera/Camera3DCalibrationPlane.h"
#include "camera/Camera3DCalibration.h"
#include "camera/Camera3DTransform.h"
#include "camera/Camera3DTrinsic.h"
#include "frame/Components.h"
#include "frame/ModuleObjects.h"
#include "geometry/SingleViewGeometry.h"
#include "geometry/MultiViewGeometry.h"
#include "geometry/TransformBestFit.h"
#include "geometry/TransformInterrogate.h"
#include "geometry/TransformResidualErrors.h"
#include "pages/CalibrationInfoPropPage.h"
#include "pages/CalibrationMatrixPropPage.h"
#include "persist/CalibrationsCollection.h"

#define ZELTRIM_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

// The creator of each row of the object table, in its order; null where the class is not
// part of this build.
#define ZELTRIM_CREATOR_BUILT_(Name, Class) &CObject<Class>::_CreateInstance,
#define ZELTRIM_CREATOR_NOT_BUILT_(Name) nullptr,
const CREATORFUNCTION kCreators[] = {ZELTRIM_MODULE_OBJECTS(ZELTRIM_CREATOR_BUILT_, ZELTRIM_CREATOR_NOT_BUILT_)};
static_assert(sizeof(kCreators) / sizeof(kCreators[0]) == kModuleObjectCount, "one creator per object row");

// Equal lengths, then the characters one at a time, case included.
bool SameName(const ModuleObjectRow& row, tagREFString name) {
  if (row.length != name.m_Length || name.m_Length <= 0 || !name.m_Text) return false;
  for (int i = 0; i < row.length; ++i)
    if (row.name[i] != name.m_Text[i]) return false;
  return true;
}

}  // namespace

ZELTRIM_EXPORT HRESULT CreateFunction(tagREFString name, void** creator) {
  for (int i = 0; i < kModuleObjectCount; ++i) {
    if (!SameName(kModuleObjects[i], name)) continue;
    // A row whose class is not built yet answers like an unknown name.
    if (!kCreators[i] || !creator) return E_FAIL;
    *creator = reinterpret_cast<void*>(kCreators[i]);
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
