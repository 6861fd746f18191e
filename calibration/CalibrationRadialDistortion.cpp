#include "calibration/CalibrationRadialDistortion.h"

#include <array>
#include <cmath>
#include <new>
#include <vector>

#include "frame/Components.h"
#include "frame/StringRefs.h"
#include "numeric/MatrixLevenbergMarquardt.h"
#include "persist/XmlElements.h"

#define ZELTRIM_EXPORT extern "C" __attribute__((visibility("default")))

const tagREFString CCalibrationDistortionRadial::m_ObjectName = {27, L"CalibrationDistortionRadial"};

namespace {

typedef ICALIBRATIONInfoImpl<CCalibrationDistortionRadial, ICalibrationInfo> InfoBlock;

CCalibrationDistortionRadial* Self(const void* data) {
  return static_cast<CCalibrationDistortionRadial*>(const_cast<void*>(data));
}

// The number of points of a line set (0 for an item that is no collection).
int SetCount(ISimpleCollection* lines, int i, SmartPtr<ISimpleCollection>* set) {
  SmartPtr<IUnknown> item;
  int count = 0;
  if (lines->get_Item(i, item.Out()) < 0 || !item) return 0;
  *set = QueryAs<ISimpleCollection>(item);
  if (!*set || (*set)->get_Count(&count) < 0 || count < 0) return 0;
  return count;
}

}  // namespace

// The minimiser's callbacks: `data` is the object. *info is never changed, so no run is
// stopped from here.
ZELTRIM_EXPORT void CalibrationDistortionRadial_LevenbergMarquardt_Evaluatek1k2(const double* par, int m_dat,
                                                                              const void* data, double* fvec, int*) {
  if (!data || !fvec) return;
  Self(data)->LevenbergMarquardt_Evaluate(Self(data)->FitMask(), par, m_dat, fvec);
}

ZELTRIM_EXPORT void CalibrationDistortionRadial_LevenbergMarquardt_EvaluateAspect(const double* par, int m_dat,
                                                                                const void* data, double* fvec, int*) {
  if (!data || !fvec) return;
  Self(data)->LevenbergMarquardt_Evaluate(RADIAL_FIT_ASPECT, par, m_dat, fvec);
}

// Fits the centre alone; nothing in the module passes it to the minimiser.
ZELTRIM_EXPORT void CalibrationDistortionRadial_LevenbergMarquardt_EvaluateCenter(const double* par, int m_dat,
                                                                                const void* data, double* fvec, int*) {
  if (!data || !fvec) return;
  Self(data)->LevenbergMarquardt_Evaluate(RADIAL_FIT_CENTRE, par, m_dat, fvec);
}

CCalibrationDistortionRadial::CCalibrationDistortionRadial() {
  put_CALIBName(NewString(L"Distortion"));
  put_CALIBType(NewString(L"Radial Distortion"));
}

CCalibrationDistortionRadial::~CCalibrationDistortionRadial() {
  if (Lines) Lines->Release();
}

HRESULT CCalibrationDistortionRadial::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  ICalibrationDistortionRadial* main = this;
  if (QueryRoute(iid, IID_IUnknown, static_cast<CObject<CCalibrationDistortionRadial>*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
      QueryRoute(iid, IID_IDataPersist, static_cast<IDataPersist*>(this), object) ||
      QueryRoute(iid, IID_ICalibrationInfo, static_cast<ICalibrationInfo*>(this), object) ||
      QueryRoute(iid, IID_ICalibration, static_cast<ICalibration*>(main), object) ||
      QueryRoute(iid, IID_ICalibrationDistortionRadial, main, object) ||
      QueryRoute(iid, IID_ICalibrationDistortion, static_cast<ICalibrationDistortion*>(main), object) ||
      QueryRoute(iid, IID_ITransformBestFit, static_cast<ITransformBestFit*>(this), object) ||
      QueryRoute(iid, IID_ITransformFitErrors, static_cast<ITransformFitErrors*>(this), object) ||
      QueryRoute(iid, IID_IUIPropertyPageSpecify, static_cast<IUIPropertyPageSpecify*>(this), object) ||
      QueryRoute(iid, IID_IParametricObject, static_cast<IParametricObject*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

double CCalibrationDistortionRadial::Side() const {
  return static_cast<double>(ImageWidth < ImageHeight ? ImageWidth : ImageHeight);
}

double CCalibrationDistortionRadial::Polynomial(double u, double v) const {
  const double r2 = u * u + v * v;
  const double r = std::sqrt(r2);
  const double r4 = r2 * r2;
  return r4 * k4 + ((r2 * k2 + (r * k1 + k0)) + r * r2 * k3);
}

HRESULT CCalibrationDistortionRadial::Convert(double* x, double* y, double*) {
  if (!x || !y) return E_POINTER;
  const double N = Side();
  // s divides going in and is not put back going out.
  const double u = (*x / N - x0) / s;
  const double v = 1 - *y / N - y0;
  const double f = Polynomial(u, v);
  *x = (u * f + x0) * N;
  *y = (1 - (v * f + y0)) * N;
  return S_OK;
}

HRESULT CCalibrationDistortionRadial::Revert(double* x, double* y, double*) {
  if (!x || !y) return E_POINTER;
  const double N = Side();
  const double u = (*x / N - x0) * s;
  const double v = 1 - *y / N - y0;
  if (InverseMethod != 0) {
    // First order: divide by f at the corrected radius.
    const double f = Polynomial(u, v);
    *x = (u / f + x0) * N;
    *y = (1 - (v / f + y0)) * N;
    return S_OK;
  }
  // The model taken as r' = r + k2 r^3 whatever the other terms, its root in closed form.
  if (k2 == 0) return S_OK;
  const double R = std::sqrt(u * u + v * v);
  const double a = 1 / k2;
  const double p = -3 * a;
  const double q = -a * R * 27;
  const double d = q * q - 4 * (p * p * p);
  if (d < 0) return E_FAIL;
  // A negative base gives a not-a-number, as does a point at the centre (R = 0).
  const double c = std::pow((q + std::sqrt(d)) * 0.5, 0.333333333333);
  const double g = (p / c + c) / -3 / R;
  *x = (u * g + x0) * N;
  *y = (1 - (v * g + y0)) * N;
  return S_OK;
}

HRESULT CCalibrationDistortionRadial::Fit(ISimpleCollection*, ISimpleCollection*, int, int) { return E_NOTIMPL; }

HRESULT CCalibrationDistortionRadial::Reset() {
  k0 = 1, k1 = k2 = k3 = k4 = 0;
  x0 = y0 = 0.5;
  s = 1;
  UpperError = LowerError = SDError = 0;
  return S_OK;
}

HRESULT CCalibrationDistortionRadial::SetNormalizationImageSize(unsigned int width, unsigned int height) {
  ImageWidth = width;
  ImageHeight = height;
  return S_OK;
}

void CCalibrationDistortionRadial::LevenbergMarquardt_Evaluate(short mask, const double* par, int m_dat, double* fvec) {
  if (par) {
    // The vector holds what the run asked for; a bit beyond it (bit 64 during the main
    // run, when FitFlags has it) leaves its field as it is instead of reading past the end.
    int i = 0;
    const auto next = [&](double keep) { return (m_ParCount < 0 || i < m_ParCount) ? par[i++] : keep; };
    if (mask & (RADIAL_FIT_K1 | RADIAL_FIT_K2 | RADIAL_FIT_K3 | RADIAL_FIT_K4)) {
      k1 = (mask & RADIAL_FIT_K1) ? next(k1) : 0;
      k2 = (mask & RADIAL_FIT_K2) ? next(k2) : 0;
      k3 = (mask & RADIAL_FIT_K3) ? next(k3) : 0;
      k4 = (mask & RADIAL_FIT_K4) ? next(k4) : 0;
    }
    // Without bit 16 every run puts k0 back to 1.
    k0 = (mask & RADIAL_K0_BALANCED) ? 1 - (k1 + k2 + k3 + k4) : 1.0;
    if (mask & RADIAL_FIT_CENTRE) {
      x0 = next(x0);
      y0 = next(y0);
      if (x0 < 0 || x0 > 1) x0 = 0.5;
      if (y0 < 0 || y0 > 1) y0 = 0.5;
    }
    if (mask & RADIAL_FIT_ASPECT) s = next(s);
  }
  if (!Lines || !fvec) return;
  const double N = Side();
  int sets = 0, index = 0;
  if (Lines->get_Count(&sets) < 0) return;
  for (int l = 0; l < sets && index < m_dat; ++l) {
    SmartPtr<ISimpleCollection> set;
    const int count = SetCount(Lines, l, &set);
    if (count == 0) continue;
    SmartPtr<ILineSegment> line;
    line.Attach(GEOObject::CreateLine());
    SmartPtr<IPointsCollection> corrected;
    corrected.Attach(GEOObject::CreatePointsCollection());
    SmartPtr<IGeometricFitting> fitting = QueryAs<IGeometricFitting>(line);
    SmartPtr<IDblVector> distances;
    if (fitting && corrected) {
      for (int i = 0; i < count; ++i) {
        double p[3] = {0, 0, 0};
        ReadPoint(set, i, p);
        Convert(&p[0], &p[1], &p[2]);
        corrected->AddPoint(p[0], p[1], 0);
      }
      if (fitting->Fit(corrected) >= 0) fitting->GetResiduals(corrected, distances.Out());
    }
    // A set whose line could not be fitted (a single point) counts as straight.
    for (int i = 0; i < count && index < m_dat; ++i) {
      double distance = 0;
      if (distances && distances->get_Item(i, &distance) < 0) distance = 0;
      fvec[index++] = par ? distance / N : distance;
    }
  }
  while (index < m_dat) fvec[index++] = 0;
}

void CCalibrationDistortionRadial::Statistics(int m) {
  std::vector<double> fvec;
  try {
    fvec.assign(static_cast<size_t>(m), 0.0);
  } catch (const std::bad_alloc&) {
    return;
  }
  LevenbergMarquardt_Evaluate(-1, nullptr, m, fvec.data());
  double sum2 = 0, sumAbs = 0;
  LowerError = UpperError = 0;
  for (double r : fvec) {
    if (r < LowerError) LowerError = r;
    if (r > UpperError) UpperError = r;
    sum2 += r * r;
    sumAbs += std::fabs(r);
  }
  // The mean is taken of the absolute values.
  SDError = std::sqrt((sum2 - sumAbs * sumAbs / m) / (m - 1));
}

HRESULT CCalibrationDistortionRadial::StraightLinesNeedtoBeStraight(ISimpleCollection* lines, int flags) {
  if (lines) lines->AddRef();
  if (Lines) Lines->Release();
  Lines = lines;
  int m = 0, sets = 0;
  if (Lines && Lines->get_Count(&sets) >= 0)
    for (int l = 0; l < sets; ++l) {
      SmartPtr<ISimpleCollection> set;
      m += SetCount(Lines, l, &set);
    }

  if (flags & RADIAL_MEASURE_ONLY) {
    UpperError = LowerError = SDError = 0;
    if (m > 0) Statistics(m);
    return S_OK;
  }

  k0 = 1, k1 = k2 = k3 = k4 = 0;
  x0 = y0 = 0.5;
  s = 1;
  FitFlags = flags;
  UpperError = LowerError = SDError = 0;

  // The parameter vector by the bits, with its first guesses.
  double par[6];
  int n = 0;
  for (int bit : {RADIAL_FIT_K1, RADIAL_FIT_K2, RADIAL_FIT_K3, RADIAL_FIT_K4})
    if (flags & bit) par[n++] = 0;
  if (flags & RADIAL_FIT_CENTRE) par[n++] = 0.5, par[n++] = 0.5;

  CMatrixLevenbergMarquardt minimiser;
  lm_status_struct status{0, 0, 0};
  m_ParCount = n;
  minimiser.lmmin(n, par, m, this, &CalibrationDistortionRadial_LevenbergMarquardt_Evaluatek1k2, &status);

  // Read back by the same bits; the centre as it stands, without the evaluation's clamp.
  int i = 0;
  k1 = (flags & RADIAL_FIT_K1) ? par[i++] : 0;
  k2 = (flags & RADIAL_FIT_K2) ? par[i++] : 0;
  k3 = (flags & RADIAL_FIT_K3) ? par[i++] : 0;
  k4 = (flags & RADIAL_FIT_K4) ? par[i++] : 0;
  k0 = (flags & RADIAL_K0_BALANCED) ? 1 - (k1 + k2 + k3 + k4) : 1;
  if (flags & RADIAL_FIT_CENTRE) x0 = par[i++], y0 = par[i++];

  if (flags & RADIAL_FIT_ASPECT) {
    // This run's mask is 64 alone, so it also puts k0 back to 1. A refused result leaves
    // s at the last value tried. The test is on |s| - 1, not on the distance from 1.
    par[0] = 1;
    status = lm_status_struct{0, 0, 0};
    m_ParCount = 1;
    minimiser.lmmin(1, par, m, this, &CalibrationDistortionRadial_LevenbergMarquardt_EvaluateAspect, &status);
    if (status.info < 4 && std::fabs(par[0]) - 1 < 0.25) s = par[0];
  }

  m_ParCount = -1;
  if (m > 0) Statistics(m);
  return S_OK;
}

HRESULT CCalibrationDistortionRadial::BestFit(ISimpleCollection* source, ISimpleCollection*, int flags) {
  return StraightLinesNeedtoBeStraight(source, flags);
}

HRESULT CCalibrationDistortionRadial::GetFitErrors(double* lower, double* upper, double* sd) {
  if (lower) *lower = LowerError;
  if (upper) *upper = UpperError;
  if (sd) *sd = SDError;
  return S_OK;
}

HRESULT CCalibrationDistortionRadial::GetFitErrors(ISimpleCollection* source, IUnknown* target, double* a, double* b,
                                                   double* c) {
  if (!source) return E_POINTER;
  SmartPtr<ISimpleCollection> targets = QueryAs<ISimpleCollection>(target);
  if (!targets) return E_NOINTERFACE;
  int ns = 0, nt = 0;
  HRESULT hr = source->get_Count(&ns);
  if (hr < 0) return hr;
  hr = targets->get_Count(&nt);
  if (hr < 0) return hr;
  const int n = ns < nt ? ns : nt;
  double sum = 0, largest = 0;
  for (int i = 0; i < n; ++i) {
    double p[3] = {0, 0, 0}, t[3] = {0, 0, 0};
    ReadPoint(source, i, p);
    ReadPoint(targets, i, t);
    Convert(&p[0], &p[1], &p[2]);
    const double d2 = (p[0] - t[0]) * (p[0] - t[0]) + (p[1] - t[1]) * (p[1] - t[1]);
    sum += d2;
    if (d2 > largest) largest = d2;
  }
  const double deviation = n > 1 ? std::sqrt(sum / (n - 1)) : 0;
  const double worst = n >= 1 ? std::sqrt(largest) : 0;
  if (a) *a = worst;
  if (b) *b = worst;
  if (c) *c = deviation;
  SetCalibrationTime();
  return S_OK;
}

HRESULT CCalibrationDistortionRadial::GetMatrix(double** matrix, int* rows, int* columns) {
  if (matrix) *matrix = nullptr;
  if (rows) *rows = 1;
  if (columns) *columns = 0;
  return S_OK;
}

HRESULT CCalibrationDistortionRadial::MaintainSize(ILinearCalibration** out) {
  if (out) *out = nullptr;
  const double W = ImageWidth, H = ImageHeight;
  const double halfW = ImageWidth / 2, halfH = ImageHeight / 2;
  const double probes[8][2] = {{0, 0}, {0, halfH}, {0, H}, {halfW, 0}, {halfW, H}, {W, 0}, {W, halfH}, {W, H}};
  double minX = W, minY = H, maxX = 0, maxY = 0;
  for (const auto& probe : probes) {
    double p[3] = {probe[0], probe[1], 0};
    Convert(&p[0], &p[1], &p[2]);
    if (p[0] < minX) minX = p[0];
    if (p[1] < minY) minY = p[1];
    if (p[0] > maxX) maxX = p[0];
    if (p[1] > maxY) maxY = p[1];
    Revert(&p[0], &p[1], &p[2]);  // its result is not used
  }
  SmartPtr<ILinearCalibration> correction = CreateHostObject<ILinearCalibration>(L"LinearCalibration");
  if (!correction) return E_FAIL;
  correction->AddStep(STEP_TRANSLATE, 0, -minX, -minY, 0);
  correction->AddStep(STEP_SCALE, 1, W / (maxX - minX), H / (maxY - minY), 1);
  if (out) *out = correction.Detach();
  return S_OK;
}

HRESULT CCalibrationDistortionRadial::GetParameters(INamedCollection** parameters, int) {
  if (!parameters) return E_POINTER;
  *parameters = nullptr;
  SmartPtr<IParametersCreatable> list;
  list.Attach(BASEObject::CreateParameters());
  if (!list) return E_FAIL;
  const struct {
    const wchar_t* name;
    double value;
  } coefficients[] = {{L"k0", k0}, {L"k1", k1}, {L"k2", k2}, {L"k3", k3}, {L"k4", k4},
                      {L"x0", x0}, {L"y0", y0}, {L"s", s}};
  for (const auto& c : coefficients) AddDoubleParameter(list, c.name, c.value);
  AddIntegerParameter(list, L"ImageWidth", static_cast<int>(ImageWidth));
  AddIntegerParameter(list, L"ImageHeight", static_cast<int>(ImageHeight));
  AddIntegerParameter(list, L"InverseMethod", InverseMethod);
  AddDoubleParameter(list, L"SDError", SDError);
  AddDoubleParameter(list, L"MaxError", UpperError);
  *parameters = list.Detach();
  return S_OK;
}

HRESULT CCalibrationDistortionRadial::SetParameters(INamedCollection* parameters) {
  SmartPtr<IParameters> params = QueryAs<IParameters>(parameters);
  double* const values[] = {&k0, &k1, &k2, &k3, &k4, &x0, &y0, &s};
  const wchar_t* const names[] = {L"k0", L"k1", L"k2", L"k3", L"k4", L"x0", L"y0", L"s"};
  for (int i = 0; i < 8; ++i) *values[i] = PARAMDbl(params, names[i], *values[i]);
  ImageWidth = static_cast<unsigned int>(PARAMInt(params, L"ImageWidth", static_cast<int>(ImageWidth)));
  ImageHeight = static_cast<unsigned int>(PARAMInt(params, L"ImageHeight", static_cast<int>(ImageHeight)));
  InverseMethod = PARAMInt(params, L"InverseMethod", InverseMethod);
  return S_OK;
}

HRESULT CCalibrationDistortionRadial::GetPages(int, INamedCollection** pages, IUnknown**) {
  if (!pages) return E_POINTER;
  *pages = nullptr;
  SmartPtr<ISuperCollection> list;
  list.Attach(CREFString::CreateCollection());
  if (!list) return E_FAIL;
  AddPage(list, nullptr, L"UIPropPages.UIParametricObjectPropPage", NewString(m_ObjectName.m_Text));
  AddPage(list, L"", L"Zeltrim.CalibrationInfoPropPage");
  *pages = list.Detach();
  return S_OK;
}

std::array<CCalibrationDistortionRadial::StoredValue, 14> CCalibrationDistortionRadial::StoredValues(int* width,
                                                                                                  int* height) {
  return {{{L"k0", &k0, FOLDER_DOUBLE},
           {L"k1", &k1, FOLDER_DOUBLE},
           {L"k2", &k2, FOLDER_DOUBLE},
           {L"k3", &k3, FOLDER_DOUBLE},
           {L"k4", &k4, FOLDER_DOUBLE},
           {L"cx", &x0, FOLDER_DOUBLE},
           {L"cy", &y0, FOLDER_DOUBLE},
           {L"s", &s, FOLDER_DOUBLE},
           {L"ImageWidth", width, FOLDER_INT32},
           {L"ImageHeight", height, FOLDER_INT32},
           {L"UpperError", &UpperError, FOLDER_DOUBLE},
           {L"LowerError", &LowerError, FOLDER_DOUBLE},
           {L"SDError", &SDError, FOLDER_DOUBLE},
           {L"InverseMethod", &InverseMethod, FOLDER_INT32}}};
}

HRESULT CCalibrationDistortionRadial::PersistSave(IDataStream* stream, int) {
  if (!stream) return E_FAIL;
  int width = static_cast<int>(ImageWidth), height = static_cast<int>(ImageHeight);
  const auto values = StoredValues(&width, &height);
  if (SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream)) {
    for (const StoredValue& v : values) folder->WriteValue(NewString(v.key), v.value, v.type);
    SmartPtr<IDataStream> info;
    folder->CreateSubStream(NewString(L"Info"), 0, info.Out());
    if (info) InfoBlock::Save(info, 0);
    return S_OK;
  }
  SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream);
  if (!xml) return E_FAIL;
  for (const StoredValue& v : values) {
    SmartPtr<IString> text;
    if (v.type == FOLDER_DOUBLE)
      text.Attach(ISCreate(*static_cast<double*>(v.value), -1));
    else
      text.Attach(ISCreate(*static_cast<int*>(v.value)));
    xml->WriteValue(NewString(v.key), 0, text, 0);
  }
  xml->OpenTag(NewString(L"Info"), 0, 0);
  InfoBlock::Save(xml, 0);
  xml->CloseTag();
  // Everything is written, and the XML form still reports E_FAIL.
  return E_FAIL;
}

HRESULT CCalibrationDistortionRadial::PersistLoad(IDataStream* stream, int) {
  if (!stream) return E_FAIL;
  if (SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream)) {
    int width = static_cast<int>(ImageWidth), height = static_cast<int>(ImageHeight);
    const auto values = StoredValues(&width, &height);
    for (const StoredValue& v : values) folder->ReadValue(NewString(v.key), v.value, v.type);
    ImageWidth = static_cast<unsigned int>(width);
    ImageHeight = static_cast<unsigned int>(height);
    SmartPtr<IDataStream> info;
    folder->OpenSubStream(NewString(L"Info"), 0, info.Out());
    if (info) InfoBlock::Load(info, 0);
    return S_OK;
  }
  SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream);
  if (!xml) return E_FAIL;
  double* const doubles[] = {&k0, &k1, &k2, &k3, &k4, &x0, &y0, &s, &UpperError, &SDError};
  const wchar_t* const doubleNames[] = {L"k0", L"k1", L"k2", L"k3", L"k4", L"cx", L"cy", L"s", L"UpperError", L"SDError"};
  ForEachXmlElement(xml, [&](const CREFString& name, IUnknown* content) {
    const CREFString value = ViewOf(QueryAs<IString>(content));
    for (int i = 0; i < 10; ++i)
      if (IsTag(name, doubleNames[i])) {
        *doubles[i] = _IS2Double(value);
        return;
      }
    // "LowerError" is written but not read back.
    if (IsTag(name, L"ImageWidth"))
      ImageWidth = static_cast<unsigned int>(_IS2Integer(value, 10));
    else if (IsTag(name, L"ImageHeight"))
      ImageHeight = static_cast<unsigned int>(_IS2Integer(value, 10));
    else if (IsTag(name, L"InverseMethod"))
      InverseMethod = static_cast<int>(_IS2Double(value));
    else if (IsTag(name, L"Info")) {
      if (SmartPtr<IDataStream> part = QueryAs<IDataStream>(content)) InfoBlock::Load(part, 0);
    }
  });
  // The walk ends when no element is left, and that reports E_FAIL with all values read.
  return E_FAIL;
}
