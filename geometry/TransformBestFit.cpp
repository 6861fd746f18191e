#include "geometry/TransformBestFit.h"

#include <cmath>
#ifdef __SSE2__
#include <emmintrin.h>
#endif
#include <cstring>
#include <initializer_list>
#include <vector>

#include "frame/Components.h"
#include "frame/StringRefs.h"
#include "numeric/MatrixEigenVectors.h"
#include "numeric/MatrixSVD.h"
#include "numeric/MatrixUtils.h"
#include "numeric/MatrixVariance.h"
#include "persist/ParametricImpl.h"
#include "persist/XmlElements.h"

const tagREFString CTransformBestFit::m_ObjectName = {16, L"TransformBestFit"};

namespace {

const double kEpsilon = 2.220446049250313e-16;
const int kSkipFitErrors = 0x100;

void Identity(double* m) {
  std::memset(m, 0, 16 * sizeof(double));
  m[0] = m[5] = m[10] = m[15] = 1.0;
}

// T(v): the identity with v in row 3.
void Translation(double* m, const double* v) {
  Identity(m);
  m[12] = v[0];
  m[13] = v[1];
  m[14] = v[2];
}

// out = a b (a first, for row vectors).
void Product(const double* a, const double* b, double* out) {
  double r[16];
  CMatrixUtils().Multiply(const_cast<double*>(a), const_cast<double*>(b), r, 4, 4, 4);
  std::memcpy(out, r, sizeof(r));
}

// out = the product of the factors, multiplied from the left in the order given (the
// order decides the last bits of the result).
void Chain(std::initializer_list<const double*> factors, double* out) {
  Identity(out);
  bool first = true;
  for (const double* f : factors) {
    if (first)
      std::memcpy(out, f, 16 * sizeof(double));
    else
      Product(out, f, out);
    first = false;
  }
}

// T(-v).
void MinusTranslation(double* m, const double* v) {
  const double minus[3] = {-v[0], -v[1], -v[2]};
  Translation(m, minus);
}

double Length(const double* v) { return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]); }

}  // namespace

CTransformBestFit::CTransformBestFit() {
  Identity(m_Matrix);
  m_Filter = ISCreate(L"Calibration (*.cal)|*.cal|All Files (*.*)|*.*||");
}

HRESULT CTransformBestFit::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  IHomogeneousTransform* main = this;
  if (QueryRoute(iid, IID_IUnknown, static_cast<CObject<CTransformBestFit>*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
      QueryRoute(iid, IID_ITransformBestFit, static_cast<ITransformBestFit*>(this), object) ||
      QueryRoute(iid, IID_ITransformFitErrors, static_cast<ITransformFitErrors*>(this), object) ||
      QueryRoute(iid, IID_IHomogeneousTransform, main, object) ||
      QueryRoute(iid, IID_ITransform, static_cast<ITransform*>(main), object) ||
      QueryRoute(iid, IID_IDataPersist, static_cast<IDataPersist*>(this), object) ||
      QueryRoute(iid, IID_IFileArchive, static_cast<IFileArchive*>(this), object) ||
      QueryRoute(iid, IID_IParametricObject, static_cast<IParametricObject*>(this), object) ||
      QueryRoute(iid, IID_IUIPropertyPageSpecify, static_cast<IUIPropertyPageSpecify*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CTransformBestFit::Convert(double* x, double* y, double* z) {
  const double* m = m_Matrix;
#ifdef __SSE2__
  // Two columns a register: the same products, sums and divisions in the same order as
  // the scalar form below, so the results are identical to the bit.
  const __m128d vx = _mm_set1_pd(*x), vy = _mm_set1_pd(*y), vz = _mm_set1_pd(*z);
  const __m128d out01 = _mm_add_pd(
      _mm_add_pd(_mm_add_pd(_mm_mul_pd(vx, _mm_loadu_pd(m)), _mm_mul_pd(vy, _mm_loadu_pd(m + 4))),
                 _mm_mul_pd(vz, _mm_loadu_pd(m + 8))),
      _mm_loadu_pd(m + 12));
  const __m128d out23 = _mm_add_pd(
      _mm_add_pd(_mm_add_pd(_mm_mul_pd(vx, _mm_loadu_pd(m + 2)), _mm_mul_pd(vy, _mm_loadu_pd(m + 6))),
                 _mm_mul_pd(vz, _mm_loadu_pd(m + 10))),
      _mm_loadu_pd(m + 14));
  const __m128d w = _mm_unpackhi_pd(out23, out23);
  const __m128d xy = _mm_div_pd(out01, w);
  *x = _mm_cvtsd_f64(xy);
  *y = _mm_cvtsd_f64(_mm_unpackhi_pd(xy, xy));
  *z = _mm_cvtsd_f64(_mm_div_sd(out23, w));
#else
  double out[4];
  for (int j = 0; j < 4; ++j) out[j] = *x * m[j] + *y * m[4 + j] + *z * m[8 + j] + m[12 + j];
  *x = out[0] / out[3];
  *y = out[1] / out[3];
  *z = out[2] / out[3];
#endif
  return S_OK;
}

HRESULT CTransformBestFit::GetMatrix(double** data, int* rows, int* columns) {
  if (data) *data = m_Matrix;
  if (rows) *rows = 4;
  if (columns) *columns = 4;
  return S_OK;
}

HRESULT CTransformBestFit::GetFitErrors(double* mean, double* max, double* sd) {
  if (mean) *mean = Error;
  if (max) *max = MaxError;
  if (sd) *sd = SDError;
  return S_OK;
}

HRESULT CTransformBestFit::GetFitErrors(ISimpleCollection* source, ISimpleCollection* target, double* mean,
                                        double* max, double* sd) {
  double rMean = 0, rMax = 0, rSd = 0;
  SmartPtr<ITransformResidualErrors> residuals = CreateHostObject<ITransformResidualErrors>(L"TransformResidualErrors");
  SmartPtr<IDblVector> vector;
  if (residuals)
    residuals->GetResidualErrorVector(static_cast<IHomogeneousTransform*>(this), source, target, vector.Out());
  if (vector) {
    int count = 0;
    vector->get_Count(&count);
    double sum = 0, sumSquares = 0;
    for (int i = 0; i < count; ++i) {
      double v = 0;
      vector->get_Item(i, &v);
      if (i == 0 || v > rMax) rMax = v;
      sum += v;
      sumSquares += v * v;
    }
    if (count > 0) {
      rMean = sum / count;
      const double spread = sumSquares - count * rMean * rMean;
      if (count > 1 && spread > 0) rSd = std::sqrt(spread / (count - 1));
    }
  }
  if (mean) *mean = rMean;
  if (max) *max = rMax;
  if (sd) *sd = rSd;
  return S_OK;
}

void CTransformBestFit::UpdateFitErrors(ISimpleCollection* source, ISimpleCollection* target, int method) {
  if (method & kSkipFitErrors) return;
  GetFitErrors(source, target, &Error, &MaxError, &SDError);
}

HRESULT CTransformBestFit::BestFit(ISimpleCollection* source, ISimpleCollection* target, int method) {
  Error = MaxError = SDError = 0;
  Identity(m_Matrix);
  if (!source || !target) return E_POINTER;
  SmartPtr<ISimpleCollection> targets = QueryAs<ISimpleCollection>(target);
  if (!targets) return E_NOINTERFACE;
  int sourceCount = 0, targetCount = 0;
  HRESULT hr = source->get_Count(&sourceCount);
  if (hr < 0) return hr;
  hr = targets->get_Count(&targetCount);
  if (hr < 0) return hr;
  const int n = sourceCount < targetCount ? sourceCount : targetCount;
  if (n <= 0) return E_INVALIDARG;

  // Flat: every source z (up to n) equals the first one exactly.
  bool flat = true;
  double first[3] = {0, 0, 0};
  ReadPoint(source, 0, first);
  for (int i = 1; i < n && flat; ++i) {
    double p[3] = {0, 0, 0};
    ReadPoint(source, i, p);
    if (p[2] != first[2]) flat = false;
  }

  const int nibble = method & 0xF;
  if (n == 2) return FitTwoPoints(source, targets, method);
  if (n == 1) return FitTranslation(source, targets);
  if (nibble >= 1 && nibble <= 4) return FitCovariance(source, targets, method, flat);
  if (!flat) return FitAffine(source, targets, n, method);
  return FitProjective(source, targets, n, method);
}

HRESULT CTransformBestFit::FitTwoPoints(ISimpleCollection* source, ISimpleCollection* target, int method) {
  double p0[3] = {0, 0, 0}, p1[3] = {0, 0, 0}, q0[3] = {0, 0, 0}, q1[3] = {0, 0, 0};
  if (!ReadPoint(target, 0, q0)) return E_INVALIDARG;
  ReadPoint(target, 1, q1);
  ReadPoint(source, 0, p0);
  ReadPoint(source, 1, p1);
  double v[3] = {p1[0] - p0[0], p1[1] - p0[1], p1[2] - p0[2]};
  double w[3] = {q1[0] - q0[0], q1[1] - q0[1], q1[2] - q0[2]};
  const double lv = Length(v), lw = Length(w);
  if (lv > kEpsilon)
    for (double& c : v) c /= lv;
  if (lw > kEpsilon)
    for (double& c : w) c /= lw;
  // The rotation from v to w; a zero-length direction leaves the identity.
  double r[16];
  Identity(r);
  CMatrixUtils().SetHomogeneousRotation(r, v, w);
  // M = T(-p0) R [diag(|w|/|v|)] T(q0); method 3 does not scale in this route.
  double from[16], to[16], scale[16];
  MinusTranslation(from, p0);
  Translation(to, q0);
  const int nibble = method & 0xF;
  if ((nibble == 2 || nibble == 4) && lv != 0) {
    Identity(scale);
    scale[0] = scale[5] = scale[10] = lw / lv;
    Chain({from, r, scale, to}, m_Matrix);
  } else {
    Chain({from, r, to}, m_Matrix);
  }
  return S_OK;
}

HRESULT CTransformBestFit::FitTranslation(ISimpleCollection* source, ISimpleCollection* target) {
  CMatrixVariance variance;
  double ms[3], mt[3];
  variance.CalcMean(source, ms);
  variance.CalcMean(target, mt);
  double from[16], to[16];
  MinusTranslation(from, ms);
  Translation(to, mt);
  Chain({from, to}, m_Matrix);
  return S_OK;
}

HRESULT CTransformBestFit::FitAffine(ISimpleCollection* source, ISimpleCollection* target, int n, int method) {
  CMatrixVariance variance;
  double ms[3], mt[3];
  variance.CalcMean(source, ms);
  variance.CalcMean(target, mt);
  const size_t rows = static_cast<size_t>(n) * 3;
  std::vector<double> design(rows * 9, 0.0), right(rows, 0.0);
  for (int i = 0; i < n; ++i) {
    double s[3] = {0, 0, 0}, t[3] = {0, 0, 0};
    ReadPoint(source, i, s);
    ReadPoint(target, i, t);
    for (int k = 0; k < 3; ++k) {
      s[k] -= ms[k];
      t[k] -= mt[k];
    }
    for (int r = 0; r < 3; ++r) {
      double* row = &design[(static_cast<size_t>(i) * 3 + r) * 9];
      row[3 * r + 0] = s[0];
      row[3 * r + 1] = s[1];
      row[3 * r + 2] = s[2];
      right[static_cast<size_t>(i) * 3 + r] = t[r];
    }
  }
  double a[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};
  // The row count passes as a signed 16-bit value; larger sets are truncated.
  const HRESULT hr = CLSCholeski(design.data(), right.data(), a, 9, static_cast<short>(rows));
  const double b[16] = {a[0], a[3], a[6], 0, a[1], a[4], a[7], 0, a[2], a[5], a[8], 0, 0, 0, 0, 1};
  double from[16], to[16];
  MinusTranslation(from, ms);
  Translation(to, mt);
  Chain({from, b, to}, m_Matrix);
  UpdateFitErrors(source, target, method);
  return hr;
}

HRESULT CTransformBestFit::FitProjective(ISimpleCollection* source, ISimpleCollection* target, int n, int method) {
  const size_t rows = static_cast<size_t>(n) * 2;
  std::vector<double> design(rows * 8, 0.0), right(rows, 0.0);
  for (int i = 0; i < n; ++i) {
    double s[3] = {0, 0, 0}, t[3] = {0, 0, 0};
    ReadPoint(source, i, s);
    ReadPoint(target, i, t);
    const double x = s[0], y = s[1], X = t[0], Y = t[1];
    double* r0 = &design[static_cast<size_t>(i) * 2 * 8];
    double* r1 = r0 + 8;
    r0[0] = x, r0[1] = y, r0[2] = 1, r0[6] = -x * X, r0[7] = -y * X;
    r1[3] = x, r1[4] = y, r1[5] = 1, r1[6] = -x * Y, r1[7] = -y * Y;
    right[static_cast<size_t>(i) * 2] = X;
    right[static_cast<size_t>(i) * 2 + 1] = Y;
  }
  double h[8] = {0, 0, 0, 0, 0, 0, 0, 0};
  const HRESULT hr = CLSCholeski(design.data(), right.data(), h, 8, static_cast<short>(rows));
  const double m[16] = {h[0], h[3], 0, h[6], h[1], h[4], 0, h[7], 0, 0, 1, 0, h[2], h[5], 0, 1};
  std::memcpy(m_Matrix, m, sizeof(m));
  UpdateFitErrors(source, target, method);
  return hr;
}

HRESULT CTransformBestFit::FitCovariance(ISimpleCollection* source, ISimpleCollection* target, int method,
                                         bool flat) {
  std::memset(m_Matrix, 0, sizeof(m_Matrix));
  CMatrixVariance variance;
  variance.CreateCoVariance(source, target);
  const double* h = variance.m_Covariance;
  double w[9];
  CMatrixUtils utils;
  const int nibble = method & 0xF;
  if (nibble <= 2) {
    // W = V U-transposed; a reflection stays a reflection.
    double u[9], s[3], v[9];
    std::memcpy(u, h, sizeof(u));
    CMatrixSVD().svdcmp(u, 3, 3, s, v);
    double ut[9];
    for (int r = 0; r < 3; ++r)
      for (int c = 0; c < 3; ++c) ut[3 * r + c] = u[3 * c + r];
    utils.Multiply(v, ut, w, 3, 3, 3);
  } else {
    // W = H S with S = sum of f e e-transposed over the eigenpairs of H-transposed H.
    double ht[9], a[9];
    for (int r = 0; r < 3; ++r)
      for (int c = 0; c < 3; ++c) ht[3 * r + c] = h[3 * c + r];
    utils.Multiply(ht, const_cast<double*>(h), a, 3, 3, 3);
    CMatrixEigenVectors eigen;
    eigen.Jacobi(a, 3);
    double d[3], e[9];
    std::memcpy(d, eigen.m_EigenValues, sizeof(d));
    std::memcpy(e, eigen.m_EigenVectors, sizeof(e));
    // Descending by selection; of equal values the last one wins.
    for (int i = 0; i < 3; ++i) {
      int best = i;
      for (int j = i + 1; j < 3; ++j)
        if (d[best] <= d[j]) best = j;
      if (best != i) {
        std::swap(d[i], d[best]);
        for (int r = 0; r < 3; ++r) std::swap(e[3 * r + i], e[3 * r + best]);
      }
    }
    double s[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};
    for (int k = 0; k < 3; ++k) {
      double f;
      if (d[k] > 1e-6)
        f = 1.0 / std::sqrt(d[k]);
      else if (!flat)
        f = -1.0;
      else
        continue;
      for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) s[3 * r + c] += f * e[3 * r + k] * e[3 * c + k];
    }
    utils.Multiply(const_cast<double*>(h), s, w, 3, 3, 3);
    if (w[8] == 0.0) w[8] = 1.0;
  }
  // Both forms are stored transposed: block (i, j) = W(j, i).
  double b[16];
  std::memset(b, 0, sizeof(b));
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) b[4 * i + j] = w[3 * j + i];
  b[15] = 1.0;

  // M = T(-ms) D B T(mt): scale before rotation, and the target mean stays divided by
  // the scale.
  double mt[3] = {variance.m_Mean2[0], variance.m_Mean2[1], variance.m_Mean2[2]};
  double from[16], to[16];
  MinusTranslation(from, variance.m_Mean1);
  if ((method & 6) == 0) {
    Translation(to, mt);
    Chain({from, b, to}, m_Matrix);
  } else {
    const double scale = variance.m_Scale;
    for (double& c : mt) c /= scale;
    Translation(to, mt);
    double d[16];
    Identity(d);
    d[0] = d[5] = d[10] = scale;
    Chain({from, d, b, to}, m_Matrix);
  }
  UpdateFitErrors(source, target, method);
  return S_OK;
}

HRESULT CTransformBestFit::GetPages(int, INamedCollection** pages, IUnknown**) {
  if (!pages) return E_POINTER;
  *pages = nullptr;
  SmartPtr<ISuperCollection> list;
  list.Attach(CREFString::CreateCollection());
  if (!list) return E_FAIL;
  AddPage(list, L"", L"Zeltrim.CalibrationInfoPropPage");
  AddPage(list, nullptr, L"UIPropPages.UIParametricObjectPropPage", NewString(L"TransformBestFit"));
  AddPage(list, L"", L"UIPropPages.UIFileArchivePropPage");
  *pages = list.Detach();
  return S_OK;
}

HRESULT CTransformBestFit::GetParameters(INamedCollection** parameters, int) {
  if (!parameters) return E_POINTER;
  *parameters = nullptr;
  SmartPtr<IParametersCreatable> list;
  list.Attach(BASEObject::CreateParameters());
  if (!list) return E_FAIL;
  // Read-only doubles.
  AddDoubleParameter(list, L"SDError", SDError, 0x40005);
  AddDoubleParameter(list, L"Error", Error, 0x40005);
  AddDoubleParameter(list, L"MaxError", MaxError, 0x40005);
  *parameters = list.Detach();
  return S_OK;
}

HRESULT CTransformBestFit::Save(IDataStream* stream, int) {
  if (!stream) return E_FAIL;
  if (SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream)) {
    folder->WriteData(NewString(L"Transform"), m_Matrix, sizeof(m_Matrix), 0);
    folder->WriteData(NewString(L"Error"), &Error, sizeof(double), 0);
    folder->WriteData(NewString(L"MaxError"), &MaxError, sizeof(double), 0);
    folder->WriteData(NewString(L"SDError"), &SDError, sizeof(double), 0);
    folder->WriteString(NewString(L"FileName"), m_Filename);
    return S_OK;
  }
  if (SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream)) {
    SmartPtr<IString> error;
    error.Attach(ISCreate(Error, -1));
    xml->WriteValue(NewString(L"Error"), 0, error, 0);
    xml->OpenTag(NewString(L"Matrix"), 0, 0);
    SmartPtr<IString> text;
    text.Attach(CMatrixUtils().toString(m_Matrix, 4, 4));
    const CREFString view = ViewOf(text);
    xml->Write(view.Text(), view.Length() * static_cast<int>(sizeof(wchar_t)), 0);
    xml->CloseTag();
  }
  // The XML form is complete here, and yet reports E_FAIL; callers ignore it.
  return E_FAIL;
}

HRESULT CTransformBestFit::Load(IDataStream* stream, int) {
  if (!stream) return E_FAIL;
  if (SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream)) {
    folder->ReadData(NewString(L"Transform"), m_Matrix, sizeof(m_Matrix), 0);
    folder->ReadData(NewString(L"Error"), &Error, sizeof(double), 0);
    folder->ReadData(NewString(L"MaxError"), &MaxError, sizeof(double), 0);
    folder->ReadData(NewString(L"SDError"), &SDError, sizeof(double), 0);
    SmartPtr<IString> name;
    name.Attach(ISCreate(static_cast<const wchar_t*>(nullptr)));
    folder->ReadString(NewString(L"FileName"), name);
    IString* old = m_Filename;
    m_Filename = name.Detach();
    if (old) old->Release();
    return S_OK;
  }
  SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream);
  if (!xml) return E_FAIL;
  ForEachXmlElement(xml, [&](const CREFString& name, IUnknown* content) {
    SmartPtr<IString> text = QueryAs<IString>(content);
    const CREFString value = ViewOf(text);
    if (IsTag(name, L"Error"))
      CMatrixUtils().fromString(value, &Error, 1, 1);
    else if (IsTag(name, L"Matrix"))
      CMatrixUtils().fromString(value, m_Matrix, 4, 4);
  });
  return S_OK;
}
