// The module's creatable objects: the one table that CreateFunction, `zeltrim objects`,
// the module tests and the host's component table all read.
//
// Rows are in the order CreateFunction tests them. A row is either
//   BUILT(Name, Class)  object "Name", made by Class (CObject<Class>::_CreateInstance), or
//   NOT_BUILT(Name)     a name the module answers with E_FAIL until its class exists.
// Making a class creatable is changing its row from NOT_BUILT to BUILT (and letting
// frame/ModuleEntry.cpp see the class's header).
//
// This header includes nothing and names the classes only inside the macro, so a reader
// that needs the names (kModuleObjects) does not depend on the classes.
#pragma once

#define ZELTRIM_MODULE_OBJECTS(BUILT, NOT_BUILT)          \
  BUILT(CalibrationBestFit, CCalibrationBestFit)          \
  BUILT(CalibrationDistortionRadial, CCalibrationDistortionRadial) \
  BUILT(CalibrationFitAndFilter, CCalibrationFitAndFilter) \
  BUILT(CalibrationFisheye, CCalibrationFisheye)          \
  BUILT(CalibrationInfoPropPage, CCalibrationInfoPropPage) \
  BUILT(CalibrationMatrixPropPage, CCalibrationMatrixPropPage) \
  BUILT(CalibrationPolynomial, CCalibrationPolynomial)    \
  BUILT(CalibrationsCollection, CCalibrationsCollection) \
  BUILT(Camera3DCalibration, CCamera3DCalibration)        \
  BUILT(Camera3DCalibrationPlane, CCamera3DCalibrationPlane) \
  BUILT(Camera3DTransform, CCamera3DTransform)            \
  BUILT(Camera3DTrinsic, CCamera3DTrinsic)                \
  BUILT(CameraLinearCalibration, CCameraLinearCalibration) \
  BUILT(SingleViewGeometry, CSingleViewGeometry)          \
  BUILT(MultiViewGeometry, CMultiViewGeometry)            \
  BUILT(TransformBestFit, CTransformBestFit)              \
  BUILT(TransformInterrogate, CTransformInterrogate)      \
  BUILT(TransformResidualErrors, CTransformResidualErrors)

// The wide text of a row's name.
#define ZELTRIM_WIDE_(text) L##text
#define ZELTRIM_OBJECT_TEXT(Name) ZELTRIM_WIDE_(#Name)

struct ModuleObjectRow {
  const wchar_t* name;
  int length;  // in characters, without the terminator
  bool built;
};

#define ZELTRIM_OBJECT_ROW_(Name, built) \
  {ZELTRIM_OBJECT_TEXT(Name), static_cast<int>(sizeof(ZELTRIM_OBJECT_TEXT(Name)) / sizeof(wchar_t)) - 1, built},
#define ZELTRIM_OBJECT_ROW_BUILT_(Name, Class) ZELTRIM_OBJECT_ROW_(Name, true)
#define ZELTRIM_OBJECT_ROW_NOT_BUILT_(Name) ZELTRIM_OBJECT_ROW_(Name, false)

// Every row's name and whether this build has its class, in factory order.
inline constexpr ModuleObjectRow kModuleObjects[] = {
    ZELTRIM_MODULE_OBJECTS(ZELTRIM_OBJECT_ROW_BUILT_, ZELTRIM_OBJECT_ROW_NOT_BUILT_)};
inline constexpr int kModuleObjectCount = static_cast<int>(sizeof(kModuleObjects) / sizeof(kModuleObjects[0]));
