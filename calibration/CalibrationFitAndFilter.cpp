#include "calibration/CalibrationFitAndFilter.h"

#include <cmath>

const tagREFString CCalibrationFitAndFilter::m_ObjectName = {23, L"CalibrationFitAndFilter"};

HRESULT CCalibrationToTransform::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (iid == IID_ITransform || iid == IID_IUnknown) {
    *object = static_cast<ITransform*>(this);
    return S_OK;
  }
  return E_NOINTERFACE;
}

HRESULT CCalibrationToTransform::Convert(double* x, double* y, double* z) {
  if (!m_Calibration) return E_INVALIDARG;
  return m_Forward ? m_Calibration->Convert(x, y, z) : m_Calibration->Revert(x, y, z);
}

HRESULT CCalibrationFitAndFilter::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  ICalibrationFitAndFilter* main = this;
  if (QueryRoute(iid, IID_IUnknown, static_cast<CObject<CCalibrationFitAndFilter>*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
      QueryRoute(iid, IID_ICalibrationFitAndFilter, main, object) ||
      QueryRoute(iid, IID_IFitAndFilter, static_cast<IFitAndFilter*>(main), object) ||
      QueryRoute(iid, IID_IParametricObject, static_cast<IParametricObject*>(this), object) ||
      QueryRoute(iid, IID_IUIPropertyPageSpecify, static_cast<IUIPropertyPageSpecify*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CCalibrationFitAndFilter::GetFitMethod(int* method, int* maxIterations, double* allowableError) {
  if (method) *method = FitMethod;
  if (maxIterations) *maxIterations = MaxIterations;
  if (allowableError) *allowableError = AllowableError;
  return S_OK;
}

HRESULT CCalibrationFitAndFilter::SetFitMethod(int method, int maxIterations, double allowableError) {
  FitMethod = method;
  MaxIterations = maxIterations;
  AllowableError = allowableError;
  return S_OK;
}

HRESULT CCalibrationFitAndFilter::SetMinNbPoints(int count) {
  MinNumberPoints = count;
  return S_OK;
}

namespace {

void HandOver(ISimpleCollection* a, ISimpleCollection* b, ISimpleCollection** outA, ISimpleCollection** outB) {
  if (outA) {
    *outA = a;
    if (a) a->AddRef();
  }
  if (outB) {
    *outB = b;
    if (b) b->AddRef();
  }
}

}  // namespace

HRESULT CCalibrationFitAndFilter::BestFit(IUnknown* calibration, ISimpleCollection* source, ISimpleCollection* target,
                                          ISimpleCollection** keptSource, ISimpleCollection** keptTarget) {
  SmartPtr<ICalibrationBestFit> fit = QueryAs<ICalibrationBestFit>(calibration);
  if (!fit) return E_FAIL;
  SmartPtr<ISimpleCollection> a = QueryAs<ISimpleCollection>(source);
  SmartPtr<ISimpleCollection> b = QueryAs<ISimpleCollection>(target);
  SmartPtr<ITransformResidualErrors> residuals = CreateHostObject<ITransformResidualErrors>(L"TransformResidualErrors");

  CCalibrationToTransform adapter(fit);
  for (int round = 0; round < MaxIterations; ++round) {
    fit->BestFit(a, b, FitMethod);

    adapter.m_Forward = 1;
    SmartPtr<IDblVector> vector;
    if (residuals) residuals->GetResidualErrorVector(&adapter, a, b, vector.Out());
    int n = 0;
    if (vector) vector->get_Count(&n);
    double largest = 0, sum = 0;
    for (int i = 0; i < n; ++i) {
      double v = 0;
      vector->get_Item(i, &v);
      if (i == 0 || v > largest) largest = v;
      sum += v;
    }
    const double mean = n > 0 ? sum / n : 0.0;

    if (AllowableError >= mean) {
      HandOver(a, b, keptSource, keptTarget);
      return S_OK;
    }
    if (round == MaxIterations - 1) break;

    int count = 0;
    if (a) a->get_Count(&count);
    if (MinNumberPoints >= count) return S_FALSE;  // out collections not written

    // Pairs at or above the cut go: at least the worst one, unless the cut stands at
    // the allowable error.
    const double cut = AllowableError > 0.9 * largest ? AllowableError : 0.9 * largest;
    SmartPtr<IPointsCollection> keptA, keptB;
    keptA.Attach(GEOObject::CreatePointsCollection());
    keptB.Attach(GEOObject::CreatePointsCollection());
    if (!keptA || !keptB) break;
    for (int i = 0; i < count; ++i) {
      double v = 0;
      if (vector && i < n) vector->get_Item(i, &v);
      if (!(std::fabs(v) < cut)) continue;
      SmartPtr<IUnknown> itemA, itemB;
      a->get_Item(i, itemA.Out());
      if (b) b->get_Item(i, itemB.Out());
      keptA->Add(itemA);
      keptB->Add(itemB);
    }
    int kept = 0;
    keptA->get_Count(&kept);
    if (kept < MinNumberPoints) break;
    a = QueryAs<ISimpleCollection>(keptA);
    b = QueryAs<ISimpleCollection>(keptB);
  }
  HandOver(a, b, keptSource, keptTarget);
  return S_FALSE;
}

HRESULT CCalibrationFitAndFilter::GetPages(int, INamedCollection** pages, IUnknown**) {
  if (!pages) return E_POINTER;
  *pages = nullptr;
  SmartPtr<ISuperCollection> list;
  list.Attach(CREFString::CreateCollection());
  if (!list) return E_FAIL;
  AddPage(list, nullptr, L"UIPropPages.UIParametricObjectPropPage", NewString(L"CalibrationFitAndFilter"));
  *pages = list.Detach();
  return S_OK;
}

HRESULT CCalibrationFitAndFilter::GetParameters(INamedCollection** parameters, int) {
  if (!parameters) return E_POINTER;
  *parameters = nullptr;
  SmartPtr<IParametersCreatable> list;
  list.Attach(BASEObject::CreateParameters());
  if (!list) return E_FAIL;
  AddIntegerParameter(list, L"FitMethod", FitMethod);
  AddIntegerParameter(list, L"MaxIterations", MaxIterations);
  AddIntegerParameter(list, L"MinNumberPoints", MinNumberPoints);
  AddDoubleParameter(list, L"AllowableError", AllowableError);
  *parameters = list.Detach();
  return S_OK;
}

HRESULT CCalibrationFitAndFilter::SetParameters(INamedCollection* parameters) {
  PARAMInteger(parameters, L"FitMethod", &FitMethod);
  PARAMInteger(parameters, L"MaxIterations", &MaxIterations);
  PARAMInteger(parameters, L"MinNumberPoints", &MinNumberPoints);
  PARAMDouble(parameters, L"MaxAllowableError", &AllowableError);
  return S_OK;
}
