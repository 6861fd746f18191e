#include "calibration/CalibrationPolynomial.h"

#include <cmath>
#include <cstdint>

#include "frame/StringRefs.h"

const tagREFString CCalibrationPolynomial::m_ObjectName = {21, L"CalibrationPolynomial"};

namespace {

typedef ICALIBRATIONInfoImpl<CCalibrationPolynomial, ICalibrationInfo> InfoBlock;

// The most columns or rows a stored grid may name; a larger number is a damaged file.
constexpr int kMaxGridLines = 1 << 16;

// Order 1 or 2: splines of that order; any other number: Lagrange curves.
bool SplineOrder(int order) { return order == 1 || order == 2; }

ICurve* NewCurve(int order) {
  if (!SplineOrder(order)) return CreateHostObject<ICurve>(L"CurveLagrange").Detach();
  SmartPtr<ICurve> curve = CreateHostObject<ICurve>(L"CurveSpline");
  if (SmartPtr<ICurveSpline> spline = QueryAs<ICurveSpline>(curve)) spline->put_Order(order);
  return curve.Detach();
}

void ReleaseAll(std::vector<ICurve*>* curves) {
  for (ICurve*& c : *curves)
    if (c) {
      c->Release();
      c = nullptr;
    }
  curves->clear();
}

// A curve fitted to the samples of a points collection (nothing when either is missing).
void FitCurve(ICurve* curve, IPointsCollection* samples) {
  if (SmartPtr<IPolynomial> polynomial = QueryAs<IPolynomial>(curve)) polynomial->Fit(samples);
}

// The value of a curve; false when there is none to give.
bool Value(ICurve* curve, double at, double* value) { return curve && curve->Evaluate(at, value) >= 0; }

// The name "<prefix><number>" through a wide format into 256 characters.
SmartPtr<IString> Numbered(const wchar_t* format, int number) {
  wchar_t name[256];
  _swprintf(name, 256, format, number);
  return NewString(name);
}

HRESULT ReadInt(IFolderStream* folder, const wchar_t* name, int* value) {
  return folder->ReadData(NewString(name), value, 4, 0);
}

// `count` doubles; a zero count reads an empty block.
HRESULT ReadDoubles(IFolderStream* folder, const wchar_t* name, std::vector<double>* values) {
  double none = 0;
  return folder->ReadData(NewString(name), values->empty() ? &none : values->data(),
                          static_cast<int>(values->size() * sizeof(double)), 0);
}

void WriteDoubles(IFolderStream* folder, const wchar_t* name, const std::vector<double>& values) {
  folder->WriteData(NewString(name), values.data(), static_cast<int>(values.size() * sizeof(double)), 0);
}

// Steps 2 to 4 of the lookup; `inclusive` makes the upper bound pos[i + 1] inclusive.
HRESULT ClosestIndex(const std::vector<double>& pos, int count, double value, bool inclusive, int* lower,
                     int* upper, double* fraction) {
  if (count == 0) return E_FAIL;
  if (value < pos[0]) {
    *lower = *upper = 0;
    *fraction = 0;
    return S_OK;
  }
  for (int i = 0; i < count - 1; ++i) {
    if (pos[i] < value && (inclusive ? value <= pos[i + 1] : value < pos[i + 1])) {
      *lower = i;
      *upper = i + 1;
      *fraction = (value - pos[i]) / (pos[i + 1] - pos[i]);
      return S_OK;
    }
  }
  *lower = *upper = count - 1;
  *fraction = 0;
  return S_OK;
}

}  // namespace

struct CCalibrationPolynomial::Model {
  int NbPointsX = 0, NbPointsY = 0;
  std::vector<double> YPos, YPosRevert;
  std::vector<ICurve*> CurveH, CurveRevertH;
  std::vector<double> XPos, XPosRevert;
  std::vector<ICurve*> CurveV, CurveRevertV;
  double UpperError = 0, SDError = 0;
  int Order = 5;
  ~Model() {
    for (std::vector<ICurve*>* curves : {&CurveH, &CurveRevertH, &CurveV, &CurveRevertV}) ReleaseAll(curves);
  }
};

void CCalibrationPolynomial::SwapModel(Model* other) {
  std::swap(NbPointsX, other->NbPointsX);
  std::swap(NbPointsY, other->NbPointsY);
  YPos.swap(other->YPos);
  YPosRevert.swap(other->YPosRevert);
  CurveH.swap(other->CurveH);
  CurveRevertH.swap(other->CurveRevertH);
  XPos.swap(other->XPos);
  XPosRevert.swap(other->XPosRevert);
  CurveV.swap(other->CurveV);
  CurveRevertV.swap(other->CurveRevertV);
  std::swap(UpperError, other->UpperError);
  std::swap(SDError, other->SDError);
  std::swap(Order, other->Order);
}

CCalibrationPolynomial::CCalibrationPolynomial() {
  m_Filter = ISCreate(L"Calibration (*.tCalPoly)|*.tCalPoly|All Files (*.*)|*.*||");
  put_CALIBName(NewString(L"2D Polynomial"));
  put_CALIBType(NewString(L"2D Polynomial"));
}

CCalibrationPolynomial::~CCalibrationPolynomial() { Clear(); }

HRESULT CCalibrationPolynomial::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  ICalibrationPolynomial* main = this;
  if (QueryRoute(iid, IID_IUnknown, static_cast<CObject<CCalibrationPolynomial>*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
      QueryRoute(iid, IID_ICalibrationPolynomial, main, object) ||
      QueryRoute(iid, IID_ICalibrationDistortion, static_cast<ICalibrationDistortion*>(main), object) ||
      QueryRoute(iid, IID_ICalibration, static_cast<ICalibration*>(main), object) ||
      QueryRoute(iid, IID_IFileArchive, static_cast<IFileArchive*>(this), object) ||
      QueryRoute(iid, IID_ICalibrationInfo, static_cast<ICalibrationInfo*>(this), object) ||
      QueryRoute(iid, IID_ITransformFitErrors, static_cast<ITransformFitErrors*>(this), object) ||
      QueryRoute(iid, IID_IUIPropertyPageSpecify, static_cast<IUIPropertyPageSpecify*>(this), object) ||
      QueryRoute(iid, IID_IDataPersist, static_cast<IDataPersist*>(this), object) ||
      QueryRoute(iid, IID_IParametricObject, static_cast<IParametricObject*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

void CCalibrationPolynomial::Clear() {
  for (std::vector<ICurve*>* curves : {&CurveH, &CurveRevertH, &CurveV, &CurveRevertV}) ReleaseAll(curves);
  YPos.clear();
  YPosRevert.clear();
  XPos.clear();
  XPosRevert.clear();
  NbPointsX = NbPointsY = 0;
}

HRESULT CCalibrationPolynomial::Create(int nbPointsX, int nbPointsY) {
  Clear();
  if (nbPointsX < 0 || nbPointsY < 0) return E_INVALIDARG;
  NbPointsX = nbPointsX;
  NbPointsY = nbPointsY;
  const size_t nx = static_cast<size_t>(nbPointsX), ny = static_cast<size_t>(nbPointsY);
  CurveV.assign(nx, nullptr);
  CurveRevertV.assign(nx, nullptr);
  XPos.assign(nx, 0.0);
  XPosRevert.assign(nx, 0.0);
  CurveH.assign(ny, nullptr);
  CurveRevertH.assign(ny, nullptr);
  YPos.assign(ny, 0.0);
  YPosRevert.assign(ny, 0.0);
  for (size_t j = 0; j < ny; ++j) {
    CurveH[j] = NewCurve(Order);
    CurveRevertH[j] = NewCurve(Order);
  }
  for (size_t i = 0; i < nx; ++i) {
    CurveV[i] = NewCurve(Order);
    CurveRevertV[i] = NewCurve(Order);
  }
  return S_OK;
}

HRESULT CCalibrationPolynomial::Reset() {
  Clear();
  return S_OK;
}

HRESULT CCalibrationPolynomial::get_Order(int* order) {
  if (order) *order = Order;
  return S_OK;
}

HRESULT CCalibrationPolynomial::put_Order(int order) {
  Order = order;
  return S_OK;
}

HRESULT CCalibrationPolynomial::Fit(ISimpleCollection* source, ISimpleCollection* target, int nbPointsX,
                                    int nbPointsY) {
  UpperError = LowerError = SDError = 0;
  if (!source || !target) return E_INVALIDARG;
  if (nbPointsX <= 0 || nbPointsY <= 0) return E_INVALIDARG;
  const int64_t total = static_cast<int64_t>(nbPointsX) * nbPointsY;
  if (total < 6) return E_INVALIDARG;
  int sourceCount = 0, targetCount = 0;
  if (source->get_Count(&sourceCount) < 0 || target->get_Count(&targetCount) < 0) return E_INVALIDARG;
  if (sourceCount < total || targetCount < total) return E_INVALIDARG;
  // Every point is read before anything changes, so that bad items leave the model.
  const size_t n = static_cast<size_t>(total);
  std::vector<double> src(3 * n), dst(3 * n);
  for (size_t k = 0; k < n; ++k)
    if (!ReadPoint(source, static_cast<int>(k), &src[3 * k]) || !ReadPoint(target, static_cast<int>(k), &dst[3 * k]))
      return E_INVALIDARG;

  SmartPtr<IPointsCollection> a, b;
  a.Attach(GEOObject::CreatePointsCollection());
  b.Attach(GEOObject::CreatePointsCollection());
  SetCalibrationTime();
  Create(nbPointsX, nbPointsY);
  const size_t nx = static_cast<size_t>(nbPointsX), ny = static_cast<size_t>(nbPointsY);
  const auto sx = [&](size_t i, size_t j) { return src[3 * (j * nx + i)]; };
  const auto sy = [&](size_t i, size_t j) { return src[3 * (j * nx + i) + 1]; };
  const auto tx = [&](size_t i, size_t j) { return dst[3 * (j * nx + i)]; };
  const auto ty = [&](size_t i, size_t j) { return dst[3 * (j * nx + i) + 1]; };

  for (size_t j = 0; j < ny; ++j) {  // rows: x along the row
    if (a) a->Clear();
    if (b) b->Clear();
    YPos[j] = YPosRevert[j] = 0;
    for (size_t i = 0; i < nx; ++i) {
      if (a) a->AddPoint(sx(i, j), tx(i, j), 0);
      if (b) b->AddPoint(tx(i, j), sx(i, j), 0);
      YPos[j] += sy(i, j);
      YPosRevert[j] += ty(i, j);
    }
    FitCurve(CurveH[j], a);
    FitCurve(CurveRevertH[j], b);
    YPos[j] /= nbPointsX;
    YPosRevert[j] /= nbPointsX;
  }
  for (size_t i = 0; i < nx; ++i) {  // columns: y along the column
    if (a) a->Clear();
    if (b) b->Clear();
    XPos[i] = XPosRevert[i] = 0;
    for (size_t j = 0; j < ny; ++j) {
      if (a) a->AddPoint(sy(i, j), ty(i, j), 0);
      if (b) b->AddPoint(ty(i, j), sy(i, j), 0);
      XPos[i] += sx(i, j);
      XPosRevert[i] += tx(i, j);
    }
    FitCurve(CurveV[i], a);
    FitCurve(CurveRevertV[i], b);
    XPos[i] /= nbPointsY;
    XPosRevert[i] /= nbPointsY;
  }

  double sum = 0, largest = 0;
  for (size_t k = 0; k < n; ++k) {
    double x = src[3 * k], y = src[3 * k + 1], z = 0;
    Convert(&x, &y, &z);
    const double dx = x - dst[3 * k], dy = y - dst[3 * k + 1];
    const double d2 = dx * dx + dy * dy;
    sum += d2;
    if (d2 > largest) largest = d2;
  }
  SDError = std::sqrt(sum / static_cast<double>(total - 1));
  UpperError = LowerError = std::sqrt(largest);
  return S_OK;
}

HRESULT CCalibrationPolynomial::GetClosestIndex(bool rows, double value, int* lower, int* upper, double* fraction) {
  return rows ? ClosestIndex(YPos, NbPointsY, value, false, lower, upper, fraction)
              : ClosestIndex(XPos, NbPointsX, value, false, lower, upper, fraction);
}

HRESULT CCalibrationPolynomial::GetClosestIndexRevert(bool rows, double value, int* lower, int* upper,
                                                      double* fraction) {
  return rows ? ClosestIndex(YPosRevert, NbPointsY, value, true, lower, upper, fraction)
              : ClosestIndex(XPosRevert, NbPointsX, value, true, lower, upper, fraction);
}

HRESULT CCalibrationPolynomial::Map(double* x, double* y, bool revert) {
  const double x0 = *x, y0 = *y;
  const std::vector<ICurve*>& columns = revert ? CurveRevertV : CurveV;
  const std::vector<ICurve*>& rows = revert ? CurveRevertH : CurveH;
  int lower = 0, upper = 0;
  double fraction = 0;
  HRESULT hr = revert ? GetClosestIndexRevert(false, x0, &lower, &upper, &fraction)
                      : GetClosestIndex(false, x0, &lower, &upper, &fraction);
  double a = 0, b = 0;
  if (hr >= 0 && Value(columns[lower], y0, &a) && Value(columns[upper], y0, &b)) *y = (1 - fraction) * a + fraction * b;
  hr = revert ? GetClosestIndexRevert(true, y0, &lower, &upper, &fraction)
              : GetClosestIndex(true, y0, &lower, &upper, &fraction);
  if (hr < 0) return hr;
  if (Value(rows[lower], x0, &a) && Value(rows[upper], x0, &b)) *x = (1 - fraction) * a + fraction * b;
  return S_OK;
}

HRESULT CCalibrationPolynomial::Convert(double* x, double* y, double*) {
  if (!x || !y) return E_POINTER;
  return Map(x, y, false);
}

HRESULT CCalibrationPolynomial::Revert(double* x, double* y, double*) {
  if (!x || !y) return E_POINTER;
  return Map(x, y, true);
}

HRESULT CCalibrationPolynomial::GetFitErrors(double* lower, double* upper, double* sd) {
  if (lower) *lower = LowerError;
  if (upper) *upper = UpperError;
  if (sd) *sd = SDError;
  return S_OK;
}

HRESULT CCalibrationPolynomial::GetParameters(INamedCollection** parameters, int) {
  if (!parameters) return E_POINTER;
  *parameters = nullptr;
  SmartPtr<IParametersCreatable> list;
  list.Attach(BASEObject::CreateParameters());
  if (!list) return E_FAIL;
  AddDoubleParameter(list, L"SDError", SDError);
  AddDoubleParameter(list, L"MaxError", UpperError);
  *parameters = list.Detach();
  return S_OK;
}

HRESULT CCalibrationPolynomial::SetParameters(INamedCollection*) { return S_OK; }

HRESULT CCalibrationPolynomial::GetPages(int, INamedCollection** pages, IUnknown**) {
  if (!pages) return E_POINTER;
  *pages = nullptr;
  SmartPtr<ISuperCollection> list;
  list.Attach(CREFString::CreateCollection());
  if (!list) return E_FAIL;
  AddPage(list, L"", L"Zeltrim.CalibrationInfoPropPage");
  AddPage(list, L"Fit Errors", L"UIPropPages.UIParametricObjectPropPage", NewString(L"CalibrationPolynomial"));
  AddPage(list, L"", L"UIPropPages.UIFileArchivePropPage");
  *pages = list.Detach();
  return S_OK;
}

HRESULT CCalibrationPolynomial::PersistSave(IDataStream* stream, int) {
  SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream);
  if (!folder) return E_FAIL;
  folder->WriteData(NewString(L"Order"), &Order, 4, 0);
  folder->WriteData(NewString(L"NbPointsX"), &NbPointsX, 4, 0);
  folder->WriteData(NewString(L"NbPointsY"), &NbPointsY, 4, 0);
  for (int j = 0; j < NbPointsY; ++j) {
    folder->WriteObject(Numbered(L"CurveH%d", j + 1), CurveH[j], 0);
    folder->WriteObject(Numbered(L"CurveRevertH%d", j + 1), CurveRevertH[j], 0);
  }
  for (int i = 0; i < NbPointsX; ++i) {
    folder->WriteObject(Numbered(L"CurveV%d", i + 1), CurveV[i], 0);
    folder->WriteObject(Numbered(L"CurveRevertV%d", i + 1), CurveRevertV[i], 0);
  }
  WriteDoubles(folder, L"XPos", XPos);
  WriteDoubles(folder, L"XPosRevert", XPosRevert);
  WriteDoubles(folder, L"YPos", YPos);
  WriteDoubles(folder, L"YPosRevert", YPosRevert);
  folder->WriteData(NewString(L"Error"), &UpperError, 8, 0);
  folder->WriteData(NewString(L"SDError"), &SDError, 8, 0);
  SmartPtr<IDataStream> info;
  folder->CreateSubStream(NewString(L"Info"), 0, info.Out());
  if (info) InfoBlock::Save(info, 0);
  return S_OK;
}

HRESULT CCalibrationPolynomial::PersistLoad(IDataStream* stream, int) {
  SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream);
  if (!folder) return E_FAIL;
  int order = 0, nx = 0, ny = 0;
  if (ReadInt(folder, L"Order", &order) < 0 || ReadInt(folder, L"NbPointsX", &nx) < 0 ||
      ReadInt(folder, L"NbPointsY", &ny) < 0)
    return E_FAIL;
  if (nx < 0 || ny < 0 || nx > kMaxGridLines || ny > kMaxGridLines) return E_FAIL;

  // The model in place now is set aside and comes back if anything below fails.
  Model previous;
  SwapModel(&previous);
  Order = order;
  Create(nx, ny);
  bool ok = true;
  // The stream loads each curve into the one that Create put in its place.
  for (int j = 0; ok && j < ny; ++j)
    ok = folder->ReadObject(Numbered(L"CurveH%d", j + 1), reinterpret_cast<void**>(&CurveH[j]), 0) >= 0 &&
         folder->ReadObject(Numbered(L"CurveRevertH%d", j + 1), reinterpret_cast<void**>(&CurveRevertH[j]), 0) >= 0;
  for (int i = 0; ok && i < nx; ++i)
    ok = folder->ReadObject(Numbered(L"CurveV%d", i + 1), reinterpret_cast<void**>(&CurveV[i]), 0) >= 0 &&
         folder->ReadObject(Numbered(L"CurveRevertV%d", i + 1), reinterpret_cast<void**>(&CurveRevertV[i]), 0) >= 0;
  ok = ok && ReadDoubles(folder, L"XPos", &XPos) >= 0 && ReadDoubles(folder, L"XPosRevert", &XPosRevert) >= 0 &&
       ReadDoubles(folder, L"YPos", &YPos) >= 0 && ReadDoubles(folder, L"YPosRevert", &YPosRevert) >= 0 &&
       folder->ReadData(NewString(L"Error"), &UpperError, 8, 0) >= 0 &&
       folder->ReadData(NewString(L"SDError"), &SDError, 8, 0) >= 0;
  if (!ok) {
    Clear();
    SwapModel(&previous);  // `previous` now holds the empty grid, released with it
    return E_FAIL;
  }
  SmartPtr<IDataStream> info;
  folder->OpenSubStream(NewString(L"Info"), 0, info.Out());
  if (info) InfoBlock::Load(info, 0);
  return S_OK;
}
