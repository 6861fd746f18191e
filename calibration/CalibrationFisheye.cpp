#include "calibration/CalibrationFisheye.h"

#include <math.h>  // sincos

#include <climits>
#include <cmath>

#include "frame/StringRefs.h"
#include "persist/ParametricImpl.h"
#include "persist/XmlElements.h"

const tagREFString CCalibrationFisheye::m_ObjectName = {18, L"CalibrationFisheye"};

namespace {

typedef ICALIBRATIONInfoImpl<CCalibrationFisheye, ICalibrationInfo> InfoBlock;

constexpr double kDegreesToRadians = 0.017453292519943295;
constexpr double kPi = 3.141592653589793;
// Rays beyond the lens's half field land this many times further out (polynomial branch).
constexpr double kBeyondFieldPush = 10.0;

// A new host string holding the text of `view` (empty for an empty view); null without a host.
SmartPtr<ICreatableString> HostString(const CREFString& view) {
  SmartPtr<ICreatableString> text;
  text.Attach(CREFString::CreateString());
  if (text && view.Length() > 0 && view.Text()) text->SetString(view.Length(), view.Text());
  return text;
}

// A double truncated toward zero, held inside the int range (NaN gives 0).
int Truncated(double value) {
  if (std::isnan(value)) return 0;
  if (value >= static_cast<double>(INT_MAX)) return INT_MAX;
  if (value <= static_cast<double>(INT_MIN)) return INT_MIN;
  return static_cast<int>(value);
}

// Rounded to an even number toward zero; below 1 it becomes `fallback`.
int EvenSize(int size, int fallback) {
  const int even = size / 2 * 2;
  return even < 1 ? fallback : even;
}

}  // namespace

CCalibrationFisheye::CCalibrationFisheye() {
  put_CALIBName(NewString(L"Fisheye"));
  put_CALIBType(NewString(L"Fisheye Correction"));
}

HRESULT CCalibrationFisheye::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  ICalibrationFisheye* main = this;
  if (QueryRoute(iid, IID_IUnknown, static_cast<CObject<CCalibrationFisheye>*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
      QueryRoute(iid, IID_IDataPersist, static_cast<IDataPersist*>(this), object) ||
      QueryRoute(iid, IID_ICalibrationInfo, static_cast<ICalibrationInfo*>(this), object) ||
      QueryRoute(iid, IID_ICalibration, static_cast<ICalibration*>(main), object) ||
      QueryRoute(iid, IID_ICalibrationFisheye, main, object) ||
      QueryRoute(iid, IID_ITransformBestFit, static_cast<ITransformBestFit*>(this), object) ||
      QueryRoute(iid, IID_ITransformFitErrors, static_cast<ITransformFitErrors*>(this), object) ||
      QueryRoute(iid, IID_IUIPropertyPageSpecify, static_cast<IUIPropertyPageSpecify*>(this), object) ||
      QueryRoute(iid, IID_IParametricObject, static_cast<IParametricObject*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CCalibrationFisheye::Convert(double*, double*, double*) { return S_OK; }

HRESULT CCalibrationFisheye::Revert(double* x, double* y, double*) {
  if (!x || !y) return S_OK;  // nothing to map; the result is S_OK whatever the point
  const double W = PerspectiveImageWidth;
  const double H = PerspectiveImageHeight;
  const double a = *x / W;
  const double b = (H - 1 - *y) / H;  // rows turned over: the last row is b = 0
  const double X = a * ViewAxisX[0] + ViewOrigin[0] + b * ViewAxisY[0];
  const double Y = a * ViewAxisX[1] + ViewOrigin[1] + b * ViewAxisY[1];
  const double Z = a * ViewAxisX[2] + ViewOrigin[2] + b * ViewAxisY[2];
  const double phi = std::atan2(Z, X);
  const double rho = std::sqrt(X * X + Z * Z);
  const double theta = std::atan2(rho, Y);  // angle from the optical axis
  double r;
  if (fUseKorrection) {
    r = (((theta * k4 + k3) * theta + k2) * theta + k1) * theta;
    if (theta > HalfFOV) r *= kBeyondFieldPush;
  } else {
    r = theta / HalfFOV;
  }
  double sinPhi, cosPhi;
  sincos(phi, &sinPhi, &cosPhi);
  *x = r * FisheyeRadiusX * cosPhi + FisheyeCenterX;
  *y = r * FisheyeRadiusY * sinPhi + FisheyeCenterY;
  return S_OK;
}

HRESULT CCalibrationFisheye::BestFit(ISimpleCollection*, ISimpleCollection*, int) { return E_FAIL; }

HRESULT CCalibrationFisheye::GetFitErrors(double*, double*, double*) { return E_FAIL; }

HRESULT CCalibrationFisheye::Reset() {
  if (FisheyeFOV > 360) FisheyeFOV = 360;
  if (PerspectiveFOV > 170) PerspectiveFOV = 170;
  PerspectiveImageWidth = EvenSize(PerspectiveImageWidth, 800);
  PerspectiveImageHeight = EvenSize(PerspectiveImageHeight, 600);
  if (FisheyeCenterX <= 0) FisheyeCenterX = FisheyeImageWidth / 2;
  if (FisheyeCenterY <= 0) FisheyeCenterY = FisheyeImageHeight / 2;
  // Both checks look at a radius and mend a centre; the radii stay as they are.
  if (FisheyeRadiusX <= 0) FisheyeCenterX = FisheyeImageWidth / 2;
  if (FisheyeRadiusY <= 0) FisheyeCenterY = FisheyeCenterX;
  HalfFOV = 0.5 * FisheyeFOV * kDegreesToRadians;
  RadiusRatio = FisheyeRadiusY / FisheyeRadiusX;
  const double t = std::tan(kPi * PerspectiveFOV / 180 * 0.5);
  const double h = PerspectiveImageHeight * t / PerspectiveImageWidth;
  ViewOrigin[0] = -t;
  ViewOrigin[1] = 1;
  ViewOrigin[2] = h;
  ViewAxisX[0] = 2 * t;
  ViewAxisX[1] = 0;
  ViewAxisX[2] = 0;
  ViewAxisY[0] = 0;
  ViewAxisY[1] = 0;
  ViewAxisY[2] = -2 * h;
  return S_OK;
}

HRESULT CCalibrationFisheye::GetParameters(INamedCollection** parameters, int) {
  if (!parameters) return E_POINTER;
  *parameters = nullptr;
  SmartPtr<IParametersCreatable> list;
  list.Attach(BASEObject::CreateParameters());
  if (!list) return E_FAIL;
  AddDoubleParameter(list, L"FisheyeFOV", FisheyeFOV);
  AddDoubleParameter(list, L"FisheyeCenterX", FisheyeCenterX);
  AddDoubleParameter(list, L"FisheyeCenterY", FisheyeCenterY);
  AddDoubleParameter(list, L"FisheyeRadiusX", FisheyeRadiusX);
  AddDoubleParameter(list, L"FisheyeRadiusY", FisheyeRadiusY);
  AddIntegerParameter(list, L"FisheyeImageWidth", FisheyeImageWidth);
  AddIntegerParameter(list, L"FisheyeImageHeight", FisheyeImageHeight);
  AddIntegerParameter(list, L"fUseKorrection", fUseKorrection);
  AddDoubleParameter(list, L"k1", k1);
  AddDoubleParameter(list, L"k2", k2);
  AddDoubleParameter(list, L"k3", k3);
  AddDoubleParameter(list, L"k4", k4);
  AddIntegerParameter(list, L"PerspectiveImageWidth", PerspectiveImageWidth);
  AddIntegerParameter(list, L"PerspectiveImageHeight", PerspectiveImageHeight);
  AddDoubleParameter(list, L"PerspectiveFOV", PerspectiveFOV);
  *parameters = list.Detach();
  return S_OK;
}

HRESULT CCalibrationFisheye::SetParameters(INamedCollection* parameters) {
  SmartPtr<IParameters> params = QueryAs<IParameters>(parameters);
  FisheyeFOV = PARAMDbl(params, L"FisheyeFOV", FisheyeFOV);
  FisheyeCenterX = PARAMDbl(params, L"FisheyeCenterX", FisheyeCenterX);
  FisheyeCenterY = PARAMDbl(params, L"FisheyeCenterY", FisheyeCenterY);
  // Without the radius names the radii take the centre's coordinates.
  FisheyeRadiusX = PARAMDbl(params, L"FisheyeRadiusX", FisheyeCenterX);
  FisheyeRadiusY = PARAMDbl(params, L"FisheyeRadiusY", FisheyeCenterY);
  FisheyeImageWidth = PARAMInt(params, L"FisheyeImageWidth", FisheyeImageWidth);
  FisheyeImageHeight = PARAMInt(params, L"FisheyeImageHeight", FisheyeImageHeight);
  fUseKorrection = PARAMInt(params, L"fUseKorrection", fUseKorrection);
  k1 = PARAMDbl(params, L"k1", k1);
  k2 = PARAMDbl(params, L"k2", k2);
  k3 = PARAMDbl(params, L"k3", k3);
  k4 = PARAMDbl(params, L"k4", k4);
  PerspectiveImageWidth = PARAMInt(params, L"PerspectiveImageWidth", PerspectiveImageWidth);
  PerspectiveImageHeight = PARAMInt(params, L"PerspectiveImageHeight", PerspectiveImageHeight);
  // Offered as a double, read as an integer: a fraction is lost.
  PerspectiveFOV = PARAMInt(params, L"PerspectiveFOV", Truncated(PerspectiveFOV));
  Reset();
  return S_OK;
}

HRESULT CCalibrationFisheye::GetPages(int, INamedCollection** pages, IUnknown**) {
  if (!pages) return E_POINTER;
  *pages = nullptr;
  SmartPtr<ISuperCollection> list;
  list.Attach(CREFString::CreateCollection());
  if (!list) return E_FAIL;
  AddPage(list, nullptr, L"UIPropPages.UIParametricObjectPropPage", NewString(L"CalibrationFisheye"));
  AddPage(list, L"", L"Zeltrim.CalibrationInfoPropPage");
  *pages = list.Detach();
  return S_OK;
}

HRESULT CCalibrationFisheye::PersistSave(IDataStream* stream, int flags) {
  if (!stream) return E_FAIL;
  SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream);
  SmartPtr<IXMLStream> xml;
  if (!folder) xml = QueryAs<IXMLStream>(stream);
  if (!folder && !xml) return E_FAIL;
  SmartPtr<INamedCollection> params;
  GetParameters(params.Out(), 0);
  if (SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(params)) persist->Save(stream, flags | PERSIST_COMPACT);
  if (folder) {
    SmartPtr<IDataStream> info;
    folder->CreateSubStream(NewString(L"Info"), 0, info.Out());
    if (info) InfoBlock::Save(info, 0);
    return S_OK;
  }
  xml->OpenTag(NewString(L"Info"), 0, 0);
  InfoBlock::Save(xml, 0);
  xml->CloseTag();
  return E_FAIL;  // all is written; this form reports failure all the same
}

HRESULT CCalibrationFisheye::PersistLoad(IDataStream* stream, int) {
  if (!stream) return E_FAIL;
  if (SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream)) {
    SmartPtr<IParametersCreatable> params;
    params.Attach(BASEObject::CreateParameters());
    if (SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(params)) persist->Load(stream, 0);
    SetParameters(params);
    SmartPtr<IDataStream> info;
    folder->OpenSubStream(NewString(L"Info"), 0, info.Out());
    if (info) InfoBlock::Load(info, 0);
    return S_OK;
  }
  SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream);
  if (!xml) return E_FAIL;
  SmartPtr<IParametersCreatable> params;
  params.Attach(BASEObject::CreateParameters());
  ForEachXmlElement(xml, [&](const CREFString& name, IUnknown* content) {
    if (IsTag(name, L"Info")) {
      if (SmartPtr<IDataStream> part = QueryAs<IDataStream>(content)) InfoBlock::Load(part, 0);
      return;
    }
    if (!params) return;
    // The element's text as a new host string; an element with children gives an empty one.
    SmartPtr<IString> element = QueryAs<IString>(content);
    SmartPtr<ICreatableString> key = HostString(name), text = HostString(ViewOf(element));
    if (key && text) params->Add(key, text, nullptr, 0);
  });
  SetParameters(params);
  return S_OK;
}
