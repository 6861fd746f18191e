#include "calibration/CameraLinearCalibration.h"

#include "frame/Components.h"

const tagREFString CCameraLinearCalibration::m_ObjectName = {23, L"CameraLinearCalibration"};

namespace {

ILinearTransform* NewLinearTransform() {
  void* transform = nullptr;
  if (CreateObject(L"LinearTransform", IID_ILinearTransform, &transform) < 0) return nullptr;
  return static_cast<ILinearTransform*>(transform);
}

HRESULT HandOut(ILinearTransform* transform, ITransform** out) {
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
      QueryRoute(iid, IID_ICalibration, static_cast<ICalibration*>(main), object))
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

HRESULT CCameraLinearCalibration::GetForwardTransform(ITransform** out) { return HandOut(ForwardTransform, out); }

HRESULT CCameraLinearCalibration::GetReverseTransform(ITransform** out) { return HandOut(ReverseTransform, out); }

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
