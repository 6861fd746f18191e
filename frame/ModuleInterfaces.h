// Interfaces that the module's objects implement. Slot order is binding.
#pragma once

#include "frame/HostInterfaces.h"

ZELTRIM_INTERFACE(IObjectInfo, IUnknown)
  // The integer is ignored; the text stays owned by the module.
  virtual HRESULT GetName(int, tagREFString* name) = 0;
ZELTRIM_INTERFACE_END

// Save/Load options (bit masks).
enum PersistOptions {
  PERSIST_CSV_NAME_VALUE = 0x10000,
  PERSIST_COMPACT = 0x800000,
  PERSIST_REPLACE = 0x1000000,
  PERSIST_LOAD_INTO_EXISTING = 0x2000000,
};

ZELTRIM_INTERFACE(IDataPersist, IUnknown)
  // The stream is asked for IFolderStream and IXMLStream; the form found is written.
  virtual HRESULT Save(IDataStream* stream, int options) = 0;
  virtual HRESULT Load(IDataStream* stream, int options) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IParametricObject, IUnknown)
  virtual HRESULT GetParameters(INamedCollection** parameters, int options) = 0;
  virtual HRESULT SetParameters(INamedCollection* parameters) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IUIPropertyPageSpecify, IUnknown)
  virtual HRESULT GetPages(int, INamedCollection** pages, IUnknown** object) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IFileArchive, IUnknown)
  virtual HRESULT get_Filename(IString** name) = 0;
  virtual HRESULT put_Filename(IString* name) = 0;
  virtual HRESULT get_Filter(IString** filter, short) = 0;
  virtual HRESULT get_Name(IString** name) = 0;
  virtual HRESULT Load() = 0;
  virtual HRESULT Save() = 0;
  virtual HRESULT Control(int code, int value) = 0;
  virtual HRESULT Inquire(int code, int* value) = 0;
  virtual HRESULT Unload() = 0;
  virtual HRESULT SaveFolderStream() = 0;
  virtual HRESULT LoadFolderStream() = 0;
ZELTRIM_INTERFACE_END

// Unit codes of a calibration: 1 micrometre, 2 millimetre, 3 metre, 4 kilometre,
// 5 thousandth of an inch, 6 inch, 7 foot.
ZELTRIM_INTERFACE(ICalibrationInfo, IUnknown)
  virtual HRESULT get_CALIBDevice(IUnknown** device) = 0;
  virtual HRESULT put_CALIBDevice(IUnknown* device) = 0;
  virtual HRESULT get_CALIBName(IString** name) = 0;
  virtual HRESULT put_CALIBName(IString* name) = 0;
  virtual HRESULT get_CALIBType(IString** type) = 0;
  virtual HRESULT put_CALIBType(IString* type) = 0;
  virtual HRESULT get_CALIBUnits(int* units) = 0;
  virtual HRESULT put_CALIBUnits(int units) = 0;
  virtual HRESULT get_CALIBUnitsText(IString** text) = 0;
  virtual HRESULT put_CALIBUnitsText(IString* text) = 0;
  virtual HRESULT get_CALIBDescription(IString** text) = 0;
  virtual HRESULT put_CALIBDescription(IString* text) = 0;
  virtual HRESULT GetCalibrationTime(short* day, short* month, short* year, short* hour, short* minute) = 0;
  virtual HRESULT SetCalibrationTime() = 0;
  virtual HRESULT CALIBUnitsConvert(int from, double value, int to, double* result) = 0;
  virtual HRESULT Save(IDataStream* stream, int options) = 0;
  virtual HRESULT Load(IDataStream* stream, int options) = 0;
ZELTRIM_INTERFACE_END

// ---------------------------------------------------------------- transforms

ZELTRIM_INTERFACE(IHomogeneousTransform, ITransform)
  // Borrowed pointer to the live matrix (row-major; points are row vectors).
  virtual HRESULT GetMatrix(double** matrix, int* rows, int* columns) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(ICamera3DTransform, ITransform)
  virtual HRESULT SolveMatrix(double* matrix, double, double) = 0;
  // The 3 x 4 camera matrix, held by columns, reported as 4 rows of 3.
  virtual HRESULT GetMatrix(double** matrix, int* rows, int* columns) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(ICamera3DTrinsic, ICamera3DTransform)
  virtual HRESULT GetMatrix(int id, double** matrix, int* rows, int* columns) = 0;
  virtual HRESULT SetNormalizationImageSize(int width, int height) = 0;
  virtual HRESULT GetNormalizationImageSize(int* width, int* height) = 0;
  using ICamera3DTransform::GetMatrix;
ZELTRIM_INTERFACE_END

// ---------------------------------------------------------------- calibrations

ZELTRIM_INTERFACE(ICalibration, IUnknown)
  virtual HRESULT Convert(double* x, double* y, double* z) = 0;
  // Undoes Convert.
  virtual HRESULT Revert(double* x, double* y, double* z) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IHomogeneousCalibration, ICalibration)
  virtual HRESULT GetForwardTransform(ITransform** transform) = 0;
  virtual HRESULT GetReverseTransform(ITransform** transform) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(ICalibrationBestFit, IHomogeneousCalibration)
  virtual HRESULT BestFit(ISimpleCollection* source, ISimpleCollection* target, int method) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(ICalibrationDistortion, ICalibration)
  virtual HRESULT Fit(ISimpleCollection* source, ISimpleCollection* target, int, int) = 0;
  virtual HRESULT Reset() = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(ICalibrationPolynomial, ICalibrationDistortion)
  virtual HRESULT get_Order(int* order) = 0;
  virtual HRESULT put_Order(int order) = 0;
ZELTRIM_INTERFACE_END

// Flags of StraightLinesNeedtoBeStraight (and of ITransformBestFit::BestFit on the same model).
enum RadialFitFlags {
  RADIAL_FIT_K1 = 1,
  RADIAL_FIT_K2 = 2,
  RADIAL_FIT_K3 = 4,
  RADIAL_FIT_K4 = 8,
  RADIAL_K0_BALANCED = 16,  // k0 = 1 - (k1 + k2 + k3 + k4) instead of 1
  RADIAL_FIT_CENTRE = 32,
  RADIAL_FIT_ASPECT = 64,   // a separate fit of s after the main one
  RADIAL_MEASURE_ONLY = 256,  // no fit: the residuals of the present coefficients
};

ZELTRIM_INTERFACE(ICalibrationDistortionRadial, ICalibrationDistortion)
  virtual HRESULT StraightLinesNeedtoBeStraight(ISimpleCollection* lines, int) = 0;
  virtual HRESULT SetNormalizationImageSize(unsigned int width, unsigned int height) = 0;
  virtual HRESULT MaintainSize(ILinearCalibration** calibration) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(ICalibrationFisheye, ICalibration)
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(ICameraLinearCalibration, ICalibration)
  virtual HRESULT SetOrigin(double x, double y, double z) = 0;
  virtual HRESULT GetOrigin(double* x, double* y, double* z) = 0;
  virtual HRESULT SetScale(double x, double y, double z) = 0;
  virtual HRESULT GetScale(double* x, double* y, double* z) = 0;
  virtual HRESULT SetRoll(double roll) = 0;
  virtual HRESULT SetPitch(double pitch) = 0;
  virtual HRESULT SetYaw(double yaw) = 0;
  virtual HRESULT GetRoll(double* roll) = 0;
  virtual HRESULT GetPitch(double* pitch) = 0;
  virtual HRESULT GetYaw(double* yaw) = 0;
  virtual HRESULT SetCameraOrigin(double x, double y) = 0;
  virtual HRESULT GetCameraOrigin(double* x, double* y) = 0;
  virtual HRESULT SetCameraRoll(double roll) = 0;
  virtual HRESULT GetCameraRoll(double* roll) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(ICamera3DCalibrationPlane, ICalibration)
  virtual HRESULT get_Plane(IUnknown** plane) = 0;
  virtual HRESULT put_Plane(IUnknown* plane) = 0;
  virtual HRESULT SetReverseTransform(ICamera3DTransform* camera) = 0;
  virtual HRESULT GetReverseTransform(ITransform** camera) = 0;
  virtual HRESULT BestFit(ISimpleCollection* source, ISimpleCollection* target, int method) = 0;
  virtual HRESULT GetFitErrors(double* mean, double* largest, double* deviation) = 0;
  virtual HRESULT UsePseudoInverse(short use) = 0;
  virtual HRESULT IsUsingPseudoInverse() = 0;
ZELTRIM_INTERFACE_END

// ---------------------------------------------------------------- fitting

ZELTRIM_INTERFACE(ITransformBestFit, IUnknown)
  // Both collections hold IPoint items; the method's meaning is the class's own.
  virtual HRESULT BestFit(ISimpleCollection* source, ISimpleCollection* target, int method) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(ITransformFitErrors, IUnknown)
  virtual HRESULT GetFitErrors(double* a, double* b, double* c) = 0;
ZELTRIM_INTERFACE_END

// One interface holds all fit-and-filter operations.
ZELTRIM_INTERFACE(IFitAndFilter, IUnknown)
  virtual HRESULT GetFitMethod(int* method, int* maxIterations, double* allowableError) = 0;
  virtual HRESULT SetFitMethod(int method, int maxIterations, double allowableError) = 0;
  virtual HRESULT SetMinNbPoints(int count) = 0;
  virtual HRESULT BestFit(IUnknown* calibration, ISimpleCollection* source, ISimpleCollection* target,
                          ISimpleCollection** keptSource, ISimpleCollection** keptTarget) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(ICalibrationFitAndFilter, IFitAndFilter)
ZELTRIM_INTERFACE_END

// ---------------------------------------------------------------- collections

ZELTRIM_INTERFACE(ICalibrationsCollection, IParametersCreatable)
ZELTRIM_INTERFACE_END

// The calibrations collection's three slots stand on the class, not on an interface: they
// are the class's own operations, right behind the seven of CObject in the table of the
// pointer it hands out for IUnknown. A host reaches them through that pointer with this
// layout. get_: E_INVALIDARG for a null place, E_FAIL for an empty slot; put_: stores a
// reference, null empties the slot. Only a collection's IUnknown pointer may be cast to it.
struct CalibrationsCollectionSlots : IUnknown {
  virtual HRESULT FinalConstruct() = 0;
  virtual void FinalRelease() = 0;
  virtual void Lock() = 0;
  virtual void Unlock() = 0;
  virtual HRESULT get_Location(ICalibration** out) = 0;
  virtual HRESULT put_Location(ICalibration* calibration) = 0;
  virtual HRESULT get_ActiveLens(ICalibration** out) = 0;
  virtual HRESULT put_ActiveLens(ICalibration* calibration) = 0;
  virtual HRESULT get_ActiveAlignment(ICalibration** out) = 0;
  virtual HRESULT put_ActiveAlignment(ICalibration* calibration) = 0;

 protected:
  ~CalibrationsCollectionSlots() = default;
};

// The slots by number, through any interface pointer of a collection (they are reached
// from the one it hands out for IUnknown). The object is not a
// CalibrationsCollectionSlots in C++'s sense (the struct only describes its table), so the
// sanitizer's dynamic-type check, which would call the cast wrong, is off for these calls.
enum CollectionSlot { SLOT_ACTIVE_LENS = 0, SLOT_ACTIVE_ALIGNMENT = 1, SLOT_LOCATION = 2 };

__attribute__((no_sanitize("vptr"))) inline HRESULT GetCollectionSlot(IUnknown* collection, int slot,
                                                                       ICalibration** out) {
  void* unknown = nullptr;
  if (!collection || collection->QueryInterface(IID_IUnknown, &unknown) < 0 || !unknown) return E_POINTER;
  CalibrationsCollectionSlots* slots = static_cast<CalibrationsCollectionSlots*>(static_cast<IUnknown*>(unknown));
  slots->Release();  // the caller's reference keeps the object
  switch (slot) {
    case SLOT_ACTIVE_LENS: return slots->get_ActiveLens(out);
    case SLOT_ACTIVE_ALIGNMENT: return slots->get_ActiveAlignment(out);
    case SLOT_LOCATION: return slots->get_Location(out);
    default: return E_INVALIDARG;
  }
}

__attribute__((no_sanitize("vptr"))) inline HRESULT PutCollectionSlot(IUnknown* collection, int slot,
                                                                       ICalibration* calibration) {
  void* unknown = nullptr;
  if (!collection || collection->QueryInterface(IID_IUnknown, &unknown) < 0 || !unknown) return E_POINTER;
  CalibrationsCollectionSlots* slots = static_cast<CalibrationsCollectionSlots*>(static_cast<IUnknown*>(unknown));
  slots->Release();  // the caller's reference keeps the object
  switch (slot) {
    case SLOT_ACTIVE_LENS: return slots->put_ActiveLens(calibration);
    case SLOT_ACTIVE_ALIGNMENT: return slots->put_ActiveAlignment(calibration);
    case SLOT_LOCATION: return slots->put_Location(calibration);
    default: return E_INVALIDARG;
  }
}

ZELTRIM_INTERFACE(ICamera3DCalibration, ICreatableSimpleCollection)
  // One image point per camera, in the cameras' order; *result the 3D point they see.
  virtual HRESULT Convert(ISimpleCollection* imagePoints, IPoint** result) = 0;
ZELTRIM_INTERFACE_END

// The operations a typed collection of the module (ISimpleCollectionImpl) has behind
// those of its interface I, in slot order. They stand on no interface of their own and
// have no identifier: a host reaches them through the pointer of I the object hands out.
// Item is the interface the items are held by.
template <class I, class Item>
struct ITypedCollection : I {
  using I::Add;
  using I::put_Item;
  virtual HRESULT CollectionLock() = 0;
  virtual HRESULT CollectionUnlock() = 0;
  virtual HRESULT put_Item(int index, Item* item) = 0;
  // The index of the first item that is this very pointer.
  virtual HRESULT get_Index(Item* item, int* index) = 0;
  virtual HRESULT Add(Item* item) = 0;
  virtual HRESULT SimpleCollectionClear() = 0;
  // The items in order: XML, an element for each item that has IDataPersist; folder
  // stream, one unnamed object entry each.
  virtual HRESULT Save_DataStream(IDataStream* stream, int flags) = 0;
  // Appends the items a stream holds. The last argument is not read.
  virtual HRESULT Load_DataStream(IDataStream* stream, int flags, int) = 0;
};

// "Camera3DCalibration" as a host holds it: the interface and the collection's own slots.
typedef ITypedCollection<ICamera3DCalibration, ICamera3DTransform> ICamera3DCalibrationCollection;

// ---------------------------------------------------------------- queries and views

ZELTRIM_INTERFACE(ITransformInterrogate, IUnknown)
  virtual HRESULT GetEulerAngles(IHomogeneousTransform* transform, short convention, double* a, double* b, double* c) = 0;
  virtual HRESULT GetTranslation(IHomogeneousTransform* transform, double* x, double* y, double* z) = 0;
  virtual HRESULT GetScale(IHomogeneousTransform* transform, double* x, double* y, double* z) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(ITransformResidualErrors, IUnknown)
  virtual HRESULT GetResidualErrorPoints(ITransform* transform, ISimpleCollection* source,
                                         ISimpleCollection* target, ISimpleCollection** residuals) = 0;
  virtual HRESULT GetResidualErrorVector(ITransform* transform, ISimpleCollection* source,
                                         ISimpleCollection* target, IDblVector** residuals) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(ISingleViewGeometry, IUnknown)
  // Image points a, c, b (c between the ends a and b), the world distances a-c and c-b,
  // then the two 3D ends.
  virtual HRESULT CalcLine(ICamera3DTrinsic* camera, double ax, double ay, double cx, double cy, double bx,
                           double by, double distanceAC, double distanceCB, double* x1, double* y1, double* z1,
                           double* x2, double* y2, double* z2) = 0;
  virtual HRESULT Decompose(ICamera3DTransform* camera, ICamera3DTrinsic** intrinsic, IPoint** location,
                            ICalibration** translation, ICalibration** rotation) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IMultiViewGeometry, IUnknown)
  virtual HRESULT SetCalibrations(ISimpleCollection* calibrations) = 0;
  virtual HRESULT CalcPose(int mode) = 0;
  virtual HRESULT GetMatrix(int id, double** matrix, int* rows, int* columns) = 0;
  virtual HRESULT GetLocation(int kind, int index, IUnknown** location) = 0;
  virtual HRESULT CalibStereo(ISimpleCollection* first, ISimpleCollection* second) = 0;
ZELTRIM_INTERFACE_END
