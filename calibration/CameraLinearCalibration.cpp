#include "calibration/CameraLinearCalibration.h"

#include "frame/Components.h"
#include "frame/StringRefs.h"

const tagREFString CCameraLinearCalibration::m_ObjectName = {23, L"CameraLinearCalibration"};

namespace {

ILinearTransform* NewLinearTransform() {
  void* transform = nullptr;
  if (CreateObject(L"LinearTransform", IID_ILinearTransform, &transform) < 0) return nullptr;
  return static_cast<ILinearTransform*>(transform);
}

HRESULT HandOutChain(ILinearTransform* transform, ITransform** out) {
  if (!out) return E_INVALIDARG;
  *out = transform;
  if (!transform) return E_FAIL;
  transform->AddRef();
  return S_OK;
}

}  // namespace

CCameraLinearCalibration::CCameraLinearCalibration() {
  // Both chains start empty; CreateTransform runs on the first change.
  ForwardTransform = NewLinearTransform();
  ReverseTransform = NewLinearTransform();
  put_CALIBDevice(NewString(L"Camera"));
  put_CALIBName(NewString(L"Linear"));
  put_CALIBType(NewString(L"2D Cam"));
  put_CALIBDescription(NewString(L"2D Linear"));
}

CCameraLinearCalibration::~CCameraLinearCalibration() {
  if (ForwardTransform) ForwardTransform->Release();
  if (ReverseTransform) ReverseTransform->Release();
}

HRESULT CCameraLinearCalibration::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  ICameraLinearCalibration* main = this;
  if (QueryRoute(iid, IID_IUnknown, static_cast<CObject<CCameraLinearCalibration>*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
      QueryRoute(iid, IID_ICameraLinearCalibration, main, object) ||
      QueryRoute(iid, IID_ICalibration, static_cast<ICalibration*>(main), object) ||
      QueryRoute(iid, IID_IFileArchive, static_cast<IFileArchive*>(this), object) ||
      QueryRoute(iid, IID_ICalibrationInfo, static_cast<ICalibrationInfo*>(this), object) ||
      QueryRoute(iid, IID_IDataPersist, static_cast<IDataPersist*>(this), object) ||
      QueryRoute(iid, IID_IParametricObject, static_cast<IParametricObject*>(this), object) ||
      QueryRoute(iid, IID_IUIPropertyPageSpecify, static_cast<IUIPropertyPageSpecify*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CCameraLinearCalibration::Convert(double* x, double* y, double* z) {
  if (!ForwardTransform) return E_FAIL;
  return ForwardTransform->Convert(x, y, z);
}

HRESULT CCameraLinearCalibration::Revert(double* x, double* y, double* z) {
  if (!ReverseTransform) return E_FAIL;
  return ReverseTransform->Convert(x, y, z);
}

HRESULT CCameraLinearCalibration::SetOrigin(double x, double y, double z) {
  TranslateX = x;
  TranslateY = y;
  TranslateZ = z;
  CreateTransform();
  return S_OK;
}

HRESULT CCameraLinearCalibration::GetOrigin(double* x, double* y, double* z) {
  *x = TranslateX;
  *y = TranslateY;
  *z = TranslateZ;
  return S_OK;
}

HRESULT CCameraLinearCalibration::SetScale(double x, double y, double z) {
  ScaleX = x == 0.0 ? 1.0 : x;
  ScaleY = y == 0.0 ? 1.0 : y;
  ScaleZ = z == 0.0 ? 1.0 : z;
  CreateTransform();
  return S_OK;
}

HRESULT CCameraLinearCalibration::GetScale(double* x, double* y, double* z) {
  *x = ScaleX;
  *y = ScaleY;
  *z = ScaleZ;
  return S_OK;
}

HRESULT CCameraLinearCalibration::SetRoll(double roll) {
  Roll = roll;
  CreateTransform();
  return S_OK;
}

HRESULT CCameraLinearCalibration::SetPitch(double pitch) {
  Pitch = pitch;
  CreateTransform();
  return S_OK;
}

HRESULT CCameraLinearCalibration::SetYaw(double yaw) {
  Yaw = yaw;
  CreateTransform();
  return S_OK;
}

HRESULT CCameraLinearCalibration::GetRoll(double* roll) {
  *roll = Roll;
  return S_OK;
}

HRESULT CCameraLinearCalibration::GetPitch(double* pitch) {
  *pitch = Pitch;
  return S_OK;
}

HRESULT CCameraLinearCalibration::GetYaw(double* yaw) {
  *yaw = Yaw;
  return S_OK;
}

HRESULT CCameraLinearCalibration::SetCameraOrigin(double x, double y) {
  CameraOriginX = x;
  CameraOriginY = y;
  CreateTransform();
  return S_OK;
}

HRESULT CCameraLinearCalibration::GetCameraOrigin(double* x, double* y) {
  *x = CameraOriginX;
  *y = CameraOriginY;
  return S_OK;
}

HRESULT CCameraLinearCalibration::SetCameraRoll(double roll) {
  CameraRoll = roll;
  CreateTransform();
  return S_OK;
}

HRESULT CCameraLinearCalibration::GetCameraRoll(double* roll) {
  if (roll) *roll = CameraRoll;
  return S_OK;
}

HRESULT CCameraLinearCalibration::GetForwardTransform(ITransform** out) { return HandOutChain(ForwardTransform, out); }

HRESULT CCameraLinearCalibration::GetReverseTransform(ITransform** out) { return HandOutChain(ReverseTransform, out); }

void CCameraLinearCalibration::CreateTransform() {
  // Without a host transform there is no chain to build (the object was created
  // without a "LinearTransform" peer); Convert and Revert then report E_FAIL.
  if (ForwardTransform) {
    ILinearTransform* f = ForwardTransform;
    f->Reset();
    f->AddStep(STEP_TRANSLATE, 0, -CameraOriginX, -CameraOriginY, 0.0);
    f->AddStep(STEP_ROLL, 0, CameraRoll, 0.0, 0.0);
    f->AddStep(STEP_SCALE, 0, ScaleX, ScaleY, ScaleZ);
    f->AddStep(STEP_TRANSLATE, 0, TranslateX, TranslateY, TranslateZ);
    f->AddStep(STEP_ROLL, 0, Roll, 0.0, 0.0);
    f->AddStep(STEP_PITCH, 0, Pitch, 0.0, 0.0);
    f->AddStep(STEP_YAW, 1, Yaw, 0.0, 0.0);
  }
  if (ReverseTransform) {
    ILinearTransform* r = ReverseTransform;
    r->Reset();
    r->AddStep(STEP_YAW, 0, -Yaw, 0.0, 0.0);
    r->AddStep(STEP_PITCH, 0, -Pitch, 0.0, 0.0);
    r->AddStep(STEP_ROLL, 0, -Roll, 0.0, 0.0);
    r->AddStep(STEP_TRANSLATE, 0, -TranslateX, -TranslateY, -TranslateZ);
    r->AddStep(STEP_SCALE, 0, 1.0 / ScaleX, 1.0 / ScaleY, 1.0 / ScaleZ);
    r->AddStep(STEP_ROLL, 0, -CameraRoll, 0.0, 0.0);
    r->AddStep(STEP_TRANSLATE, 1, CameraOriginX, CameraOriginY, 0.0);
  }
}

namespace {

typedef ICALIBRATIONInfoImpl<CCameraLinearCalibration, ICalibrationInfo> InfoBlock;

}  // namespace

HRESULT CCameraLinearCalibration::put_CALIBUnits(int units) {
  const int current = m_CALIBUnits;
  CALIBUnitsConvert(current, ScaleX, units, &ScaleX);
  CALIBUnitsConvert(current, ScaleY, units, &ScaleY);
  CALIBUnitsConvert(current, ScaleZ, units, &ScaleZ);
  InfoBlock::put_CALIBUnits(units);
  CreateTransform();
  return S_OK;
}

std::array<CCameraLinearCalibration::NamedValue, 14> CCameraLinearCalibration::Named() {
  return {{{L"Roll", &Roll},
           {L"Pitch", &Pitch},
           {L"Yaw", &Yaw},
           {L"ScaleX", &ScaleX},
           {L"ScaleY", &ScaleY},
           {L"ScaleZ", &ScaleZ},
           {L"TranslateX", &TranslateX},
           {L"TranslateY", &TranslateY},
           {L"TranslateZ", &TranslateZ},
           {L"CameraRoll", &CameraRoll},
           {L"CameraOriginX", &CameraOriginX},
           {L"CameraOriginY", &CameraOriginY},
           {L"CameraScaleX", &CameraScaleX},
           {L"CameraScaleY", &CameraScaleY}}};
}

HRESULT CCameraLinearCalibration::GetParameters(INamedCollection** parameters, int) {
  if (!parameters) return E_POINTER;
  *parameters = nullptr;
  SmartPtr<IParametersCreatable> list;
  list.Attach(BASEObject::CreateParameters());
  if (!list) return E_FAIL;
  for (const NamedValue& item : Named()) AddDoubleParameter(list, item.name, *item.value);
  *parameters = list.Detach();
  return S_OK;
}

HRESULT CCameraLinearCalibration::SetParameters(INamedCollection* parameters) {
  for (const NamedValue& item : Named()) PARAMDouble(parameters, item.name, item.value);
  CreateTransform();
  return S_OK;
}

HRESULT CCameraLinearCalibration::GetPages(int level, INamedCollection** pages, IUnknown**) {
  if (!pages) return E_POINTER;
  *pages = nullptr;
  SmartPtr<ISuperCollection> list;
  list.Attach(CREFString::CreateCollection());
  if (!list) return E_FAIL;
  AddPage(list, L"Calibration", L"UIPropPages.UIParametricObjectPropPage", NewString(L"CameraLinearCalibration"));
  AddPage(list, nullptr, L"Zeltrim.CalibrationInfoPropPage");
  if (level > 1) AddPage(list, L"", L"UIPropPages.UIFileArchivePropPage");
  *pages = list.Detach();
  return S_OK;
}

HRESULT CCameraLinearCalibration::PersistSave(IDataStream* stream, int flags) {
  if (!stream) return S_OK;
  SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream);
  if (!folder && !QueryAs<IXMLStream>(stream)) return S_OK;
  SmartPtr<INamedCollection> parameters;
  GetParameters(parameters.Out(), 0);
  if (SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(parameters)) persist->Save(stream, flags);
  if (folder) {
    SmartPtr<IDataStream> info;
    folder->CreateSubStream(NewString(L"Info"), 0, info.Out());
    if (info) InfoBlock::Save(info, 0);
  }
  return S_OK;
}

HRESULT CCameraLinearCalibration::PersistLoad(IDataStream* stream, int) {
  if (!stream) return E_FAIL;
  SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream);
  if (!folder && !QueryAs<IXMLStream>(stream)) return E_FAIL;
  SmartPtr<IParametersCreatable> parameters;
  parameters.Attach(BASEObject::CreateParameters());
  if (SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(parameters)) persist->Load(stream, 0);
  SetParameters(parameters);
  if (folder) {
    SmartPtr<IDataStream> info;
    folder->OpenSubStream(NewString(L"Info"), 0, info.Out());
    if (info) InfoBlock::Load(info, 0);
    CreateTransform();
  }
  return S_OK;
}
