// The calibration of CCamera3DTrinsic: homographies, the conic of the intrinsics, the
// closed forms for A and the pose, the distortion estimate and the fit errors.
#include <cmath>
#include <cstdarg>
#include <cstring>
#include <vector>

#include "camera/Camera3DTrinsic.h"
#include "frame/Components.h"
#include "frame/StringRefs.h"
#include "numeric/CholeskiLeastSquares.h"
#include "numeric/MatrixLevenbergMarquardt.h"
#include "numeric/MatrixSVD.h"
#include "numeric/MatrixUtils.h"

#define ZELTRIM_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

const double kEpsilon = 2.220446049250313e-16;
const int kLogFlags = 0x10000000;

// Reads point i as (x, y, z); false when the item is missing or no point.
bool PointAt(ISimpleCollection* points, int i, double* xyz) { return ReadPoint(points, i, xyz); }

// C = A B for 3 x 3 matrices held by columns (entry (r, c) at 3c + r), each entry summed
// over k from 0 to 2.
void MultiplyByColumns(const double* a, const double* b, double* c) {
  for (int col = 0; col < 3; ++col)
    for (int r = 0; r < 3; ++r) {
      double sum = 0.0;
      for (int k = 0; k < 3; ++k) sum += a[3 * k + r] * b[3 * col + k];
      c[3 * col + r] = sum;
    }
}

}  // namespace

ZELTRIM_EXPORT void CCamera3DTrinsic_LevenbergMarquardt_Evaluate(const double* p, int m, const void* self,
                                                                 double* residuals, int*) {
  if (!self || !p || !residuals) return;
  static_cast<CCamera3DTrinsic*>(const_cast<void*>(self))->EvaluateHomography(p, m, residuals);
}

double CCamera3DTrinsic::VectorNormalize(double* v, int n) {
  if (n < 1 || !v) return 0.0;
  double sum = 0.0;
  for (int i = 0; i < n; ++i) sum += v[i] * v[i];
  const double length = std::sqrt(sum);
  if (length > kEpsilon)
    for (int i = 0; i < n; ++i) v[i] /= length;
  return length;
}

void CCamera3DTrinsic::Normalize(double x, double y, double* xn, double* yn) const {
  const double w = m_NormalizeImageWidth, h = m_NormalizeImageHeight;
  // (x - W/2) 2/W, left to right.
  *xn = (x - w / 2.0) * 2.0 / w;
  *yn = (y - h / 2.0) * 2.0 / h;
}

HRESULT CCamera3DTrinsic::BestFit(ISimpleCollection* image, ISimpleCollection* model, int mode) {
  if (!image || !model) return E_INVALIDARG;
  // A negative mode would reach the conic with no views.
  if (mode < 0) return E_INVALIDARG;
  int n = 0;
  if (model->get_Count(&n) < 0 || n <= 0) return E_INVALIDARG;

  // The model's bounding box; a target without extent in X or Y is refused untouched.
  std::vector<double> raw(static_cast<size_t>(n) * 3);
  for (int i = 0; i < n; ++i)
    if (!PointAt(model, i, &raw[3 * static_cast<size_t>(i)])) return E_INVALIDARG;
  double minX = raw[0], maxX = raw[0], minY = raw[1], maxY = raw[1];
  for (int i = 1; i < n; ++i) {
    const double x = raw[3 * static_cast<size_t>(i)], y = raw[3 * static_cast<size_t>(i) + 1];
    if (x < minX) minX = x;
    if (x > maxX) maxX = x;
    if (y < minY) minY = y;
    if (y > maxY) maxY = y;
  }
  const double dx = maxX - minX, dy = maxY - minY;
  if (dx == 0.0 || dy == 0.0) return E_INVALIDARG;

  // The model mapped onto [-1, 1] in both directions, and Q, the same step as a matrix
  // for row vectors (X, Y, 1).
  SmartPtr<IPointsCollection> normalized;
  normalized.Attach(GEOObject::CreatePointsCollection());
  if (!normalized) return E_FAIL;
  const double cx = (minX + maxX) / 2.0, cy = (minY + maxY) / 2.0;
  for (int i = 0; i < n; ++i) {
    const double* p = &raw[3 * static_cast<size_t>(i)];
    normalized->AddPoint((p[0] - cx) * 2.0 / dx, (p[1] - cy) * 2.0 / dy, p[2]);
  }
  double q[9] = {2.0 / dx, 0.0, 0.0, 0.0, 2.0 / dy, 0.0, -cx * 2.0 / dx, -cy * 2.0 / dy, 1.0};

  m_Distortion1 = m_Distortion2 = 0.0;
  m_Error = m_Error2 = m_SDError = -1.0;

  // One homography per view, from the raw model to normalised image coordinates.
  int views = 0;
  std::vector<double> homographies;
  std::vector<SmartPtr<ISimpleCollection>> inner;
  CMatrixUtils utils;
  if (mode == 0) {
    if (image->get_Count(&views) < 0 || views < 3) return E_FAIL;
    homographies.assign(static_cast<size_t>(views) * 9, 0.0);
    for (int k = 0; k < views; ++k) {
      SmartPtr<IUnknown> item;
      image->get_Item(k, item.Out());
      SmartPtr<ISimpleCollection> points = QueryAs<ISimpleCollection>(item);
      if (!points) return E_INVALIDARG;
      inner.push_back(points);
      double* h = &homographies[9 * static_cast<size_t>(k)];
      CalcHomography(points, 0, normalized, h);
      LevenbergMarquardt_Homography(h, points, 0, normalized);
      const double scale = 1.0 / h[8];
      for (int i = 0; i < 9; ++i) h[i] *= scale;
      double product[9];
      utils.Multiply(q, h, product, 3, 3, 3);
      const double again = 1.0 / product[8];
      for (int i = 0; i < 9; ++i) h[i] = product[i] * again;
    }
  } else if (mode <= 2) {
    int count = 0;
    const HRESULT hr = image->get_Count(&count);
    if (hr < 0) return hr;
    if (count < n) n = count;
    if (n <= 0) return E_FAIL;
    views = count / n;
    homographies.assign(static_cast<size_t>(views) * 9, 0.0);
    for (int k = 0; k < views; ++k) {
      double* h = &homographies[9 * static_cast<size_t>(k)];
      const HRESULT solved = CalcHomography(image, k * n, normalized, h);
      if (solved < 0) return solved;
      LevenbergMarquardt_Homography(h, image, k * n, normalized);
      const double scale = 1.0 / h[8];
      for (int i = 0; i < 9; ++i) h[i] *= scale;
      double product[9];
      utils.Multiply(q, h, product, 3, 3, 3);
      std::memcpy(h, product, sizeof(product));
    }
  }

  if (mode < 2) {
    double b[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};
    CalcB(views, homographies.data(), b);
    // A degenerate conic keeps the previous intrinsics.
    CalcZhangIntrinsic(b, nullptr);
    m_NormalizedInverseValid = 0;
  }

  m_SDError = 0.0;
  double largest = 0.0, squares = 0.0, distances = 0.0, points = 0.0;
  for (int k = 0; k < views; ++k) {
    m_Distortion1 = m_Distortion2 = 0.0;
    const HRESULT hr = CalcZhangExtrinsic(&homographies[9 * static_cast<size_t>(k)]);
    if (hr < 0) return hr;
    GetMatrix(9, nullptr, nullptr, nullptr);
    ISimpleCollection* viewImage = mode == 0 ? inner[static_cast<size_t>(k)].get() : image;
    const int start = mode == 0 ? 0 : k * n;
    GetFitErrors(viewImage, start, model, 0, &m_Error2, &m_Error, &m_SDError);
    if (m_MaxDistance > largest) largest = m_MaxDistance;
    squares += m_SumSquares;
    distances += m_SumDistance;
    points += m_PointCount;
    if (mode < 2) {
      LogLine(L"FitError %d %0.2f, %0.2f", k, m_Error, m_SDError);
      CalcDistortion(viewImage, start, model);
    }
  }
  m_MaxDistance = largest;
  m_SumSquares = squares;
  m_SumDistance = distances;
  m_PointCount = points;
  // The standard error covers every point; the maximum stays the last view's.
  if (m_PointCount > 1) m_SDError = std::sqrt(m_SumSquares / (m_PointCount - 1));
  if (mode < 2) LogLine(L"Overall Error  %0.2f, %0.2f", m_Error, m_SDError);
  return S_OK;
}

HRESULT CCamera3DTrinsic::CalcHomography(ISimpleCollection* image, int start, ISimpleCollection* model, double* h) {
  if (!image || !model || !h) return E_INVALIDARG;
  int imageCount = 0, modelCount = 0;
  HRESULT hr = image->get_Count(&imageCount);
  if (hr < 0) return hr;
  hr = model->get_Count(&modelCount);
  if (hr < 0) return hr;
  if (imageCount < modelCount) return E_INVALIDARG;
  const int count = modelCount;

  const size_t rows = static_cast<size_t>(count) * 2;
  std::vector<double> design(rows * 8, 0.0), right(rows, 0.0);
  for (int i = 0; i < count; ++i) {
    double p[3] = {0, 0, 0}, m[3] = {0, 0, 0};
    if (!PointAt(image, start + i, p)) return E_FAIL;
    PointAt(model, i, m);
    double xn = 0, yn = 0;
    Normalize(p[0], p[1], &xn, &yn);
    const double X = m[0], Y = m[1];
    double* r0 = &design[static_cast<size_t>(i) * 16];
    double* r1 = r0 + 8;
    r0[0] = X, r0[1] = Y, r0[2] = 1.0, r0[6] = -X * xn, r0[7] = -Y * xn;
    r1[3] = X, r1[4] = Y, r1[5] = 1.0, r1[6] = -X * yn, r1[7] = -Y * yn;
    right[static_cast<size_t>(i) * 2] = xn;
    right[static_cast<size_t>(i) * 2 + 1] = yn;
  }
  double x[8] = {0, 0, 0, 0, 0, 0, 0, 0};
  CholeskiLeastSquares solver;
  // The row count passes as a signed 16-bit value, as the solver takes it.
  hr = solver.CLSCholeski(design.data(), right.data(), x, 8, static_cast<short>(rows));
  // Rows (h0 h1 h2), (h3 h4 h5), (h6 h7 1), stored by columns, on failure too.
  h[0] = x[0], h[3] = x[1], h[6] = x[2];
  h[1] = x[3], h[4] = x[4], h[7] = x[5];
  h[2] = x[6], h[5] = x[7], h[8] = 1.0;
  return hr;
}

HRESULT CCamera3DTrinsic::LevenbergMarquardt_Homography(double* h, ISimpleCollection* image, int start,
                                                        ISimpleCollection* model) {
  if (!h || !image || !model) return E_INVALIDARG;
  int imageCount = 0, modelCount = 0;
  HRESULT hr = image->get_Count(&imageCount);
  if (hr < 0) return hr;
  hr = model->get_Count(&modelCount);
  if (hr < 0) return hr;
  const int m = imageCount < modelCount ? imageCount : modelCount;

  image->AddRef();
  model->AddRef();
  m_LMImagePoints = image;
  m_LMModelPoints = model;
  m_LMStart = start;
  // The view's points, read once: the model function makes the same numbers from them
  // as from the collections.
  m_LMPoints.assign(static_cast<size_t>(m > 0 ? m : 0) * 4, 0.0);
  for (int i = 0; i < m; ++i) {
    double p[3] = {0, 0, 0}, q[3] = {0, 0, 0};
    PointAt(image, start + i, p);
    PointAt(model, i, q);
    double* out = &m_LMPoints[4 * static_cast<size_t>(i)];
    Normalize(p[0], p[1], &out[0], &out[1]);
    out[2] = q[0];
    out[3] = q[1];
  }

  CMatrixLevenbergMarquardt minimiser;
  lm_status_struct status{};
  minimiser.lmmin(9, h, m, this, &CCamera3DTrinsic_LevenbergMarquardt_Evaluate, &status);

  m_LMPoints.clear();
  m_LMImagePoints = nullptr;
  m_LMModelPoints = nullptr;
  image->Release();
  model->Release();
  return S_OK;
}

void CCamera3DTrinsic::EvaluateHomography(const double* p, int m, double* residuals) {
  const bool cached = m_LMPoints.size() >= static_cast<size_t>(m > 0 ? m : 0) * 4;
  for (int i = 0; i < m; ++i) {
    double xn = 0, yn = 0, X = 0, Y = 0;
    if (cached) {
      const double* point = &m_LMPoints[4 * static_cast<size_t>(i)];
      xn = point[0], yn = point[1], X = point[2], Y = point[3];
    } else {
      double a[3] = {0, 0, 0}, b[3] = {0, 0, 0};
      PointAt(m_LMImagePoints, m_LMStart + i, a);
      PointAt(m_LMModelPoints, i, b);
      Normalize(a[0], a[1], &xn, &yn);
      X = b[0], Y = b[1];
    }
    const double a = X * p[0] + Y * p[3] + p[6];
    const double b = X * p[1] + Y * p[4] + p[7];
    const double c = X * p[2] + Y * p[5] + p[8];
    const double ex = xn - a / c, ey = yn - b / c;
    residuals[i] = ex * ex + ey * ey;
  }
}

void CCamera3DTrinsic::CalcB_GetVector(const double* h, double* v, int i, int j) {
  const double* hi = h + 3 * i;
  const double* hj = h + 3 * j;
  v[0] = hi[0] * hj[0];
  v[1] = hi[0] * hj[1] + hi[1] * hj[0];
  v[2] = hi[1] * hj[1];
  v[3] = hi[2] * hj[0] + hi[0] * hj[2];
  v[4] = hi[2] * hj[1] + hi[1] * hj[2];
  v[5] = hi[2] * hj[2];
}

HRESULT CCamera3DTrinsic::CalcB(int views, const double* h, double* b) {
  if (views < 1 || !h || !b) return E_FAIL;
  const int rows = 2 * views;
  std::vector<double> a(static_cast<size_t>(rows) * 6);
  for (int k = 0; k < views; ++k) {
    const double* hk = h + 9 * static_cast<size_t>(k);
    double* first = &a[static_cast<size_t>(k) * 12];
    double* second = first + 6;
    double v00[6], v11[6];
    CalcB_GetVector(hk, first, 0, 1);
    CalcB_GetVector(hk, v00, 0, 0);
    CalcB_GetVector(hk, v11, 1, 1);
    for (int i = 0; i < 6; ++i) second[i] = v00[i] - v11[i];
    VectorNormalize(first, 6);
    VectorNormalize(second, 6);
  }
  // The right singular vector of the least singular value (the first of equal ones).
  // The design's second solve by the normal equations fed nothing and is left out.
  double w[6] = {0, 0, 0, 0, 0, 0}, v[36] = {};
  CMatrixSVD().svdcmp(a.data(), rows, 6, w, v);
  int least = 0;
  for (int i = 1; i < 6; ++i)
    if (w[i] < w[least]) least = i;
  double x[6];
  for (int r = 0; r < 6; ++r) x[r] = v[6 * r + least];
  const double out[9] = {x[0], x[1], x[3], x[1], x[2], x[4], x[3], x[4], x[5]};
  std::memcpy(b, out, sizeof(out));
  return S_OK;
}

HRESULT CCamera3DTrinsic::CalcZhangIntrinsic(const double* b, double*) {
  m_Skew = 0.0;
  m_fSx = 1.0;
  m_fSy = 1.0;
  m_CenterX = 500.0;
  m_CenterY = 500.0;
  if (!b) return E_FAIL;
  const double B11 = b[0], B12 = b[1], B13 = b[2], B22 = b[4], B23 = b[5], B33 = b[8];
  const double d = B11 * B22 - B12 * B12;
  if (std::fabs(d) < kEpsilon || std::fabs(B11) < kEpsilon) return E_FAIL;
  // Normalised units; the absolute values keep the roots real for a B of either sign.
  const double v0 = (B12 * B13 - B11 * B23) / d;
  const double lambda = B33 - (B13 * B13 + v0 * (B12 * B13 - B11 * B23)) / B11;
  const double alpha = std::sqrt(std::fabs(lambda / B11));
  const double beta = std::sqrt(std::fabs(lambda * B11 / d));
  const double gamma = -B12 * (alpha * alpha) * beta / lambda;
  const double u0 = gamma * v0 / beta - B13 * (alpha * alpha) / lambda;
  const double k[9] = {alpha, 0.0, 0.0, gamma, beta, 0.0, u0, v0, 1.0};
  std::memcpy(m_IntrinsicNormalized, k, sizeof(k));
  const double w = m_NormalizeImageWidth, h = m_NormalizeImageHeight;
  const double u[9] = {w / 2.0, 0.0, 0.0, 0.0, h / 2.0, 0.0, w / 2.0, h / 2.0, 1.0};
  MultiplyByColumns(u, k, m_Intrinsic);
  m_fSx = m_Intrinsic[0];
  m_Skew = m_Intrinsic[3];
  m_fSy = m_Intrinsic[4];
  m_CenterX = m_Intrinsic[6];
  m_CenterY = m_Intrinsic[7];
  return S_OK;
}

HRESULT CCamera3DTrinsic::CalcZhangExtrinsic(const double* h) {
  if (!h) return E_FAIL;
  const double w = m_NormalizeImageWidth, ht = m_NormalizeImageHeight;
  const double u[9] = {w / 2.0, 0.0, 0.0, 0.0, ht / 2.0, 0.0, w / 2.0, ht / 2.0, 1.0};
  double g[9];
  MultiplyByColumns(u, h, g);
  // A singular A leaves the inverse all zero, which no inverse can be.
  double inverse[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};
  CMatrixUtils().Inverse3(m_Intrinsic, inverse);
  bool singular = true;
  for (double value : inverse)
    if (value != 0.0) singular = false;
  if (singular) return E_FAIL;
  double m[9];
  MultiplyByColumns(inverse, g, m);

  double r1[3] = {m[0], m[1], m[2]}, r2[3] = {m[3], m[4], m[5]}, t[3] = {m[6], m[7], m[8]};
  const double s = VectorNormalize(r1, 3);
  for (double& c : r2) c /= s;
  const double r3[3] = {r1[1] * r2[2] - r1[2] * r2[1], r1[2] * r2[0] - r1[0] * r2[2], r1[0] * r2[1] - r1[1] * r2[0]};
  if (std::fabs(s) > kEpsilon) {
    const double inv = 1.0 / s;
    for (double& c : t) c *= inv;
  }
  const double pose[16] = {r1[0], r1[1], r1[2], 0.0, r2[0], r2[1], r2[2], 0.0,
                           r3[0], r3[1], r3[2], 0.0, t[0],  t[1],  t[2],  1.0};
  std::memcpy(m_Extrinsic, pose, sizeof(pose));

  // The nearest rotation to the rows r1, r2, r3: U V^T of their decomposition.
  double a[9] = {r1[0], r1[1], r1[2], r2[0], r2[1], r2[2], r3[0], r3[1], r3[2]};
  double sv[3], v[9];
  const int hr = CMatrixSVD().svdcmp(a, 3, 3, sv, v);
  if (hr != 0) return hr;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      double sum = 0.0;
      for (int k = 0; k < 3; ++k) sum += a[3 * i + k] * v[3 * j + k];
      m_Extrinsic[4 * i + j] = sum;
    }
  return S_OK;
}

HRESULT CCamera3DTrinsic::CalcDistortion(ISimpleCollection* image, int start, ISimpleCollection* model) {
  if (!image || !model) return E_FAIL;
  int imageCount = 0, modelCount = 0;
  HRESULT hr = image->get_Count(&imageCount);
  if (hr < 0) return hr;
  hr = model->get_Count(&modelCount);
  if (hr < 0) return hr;
  const int count = imageCount < modelCount ? imageCount : modelCount;
  m_Distortion1 = m_Distortion2 = 0.0;
  if (count < 1) return E_POINTER;
  const double fx = 2.0 / m_NormalizeImageWidth, fy = 2.0 / m_NormalizeImageHeight;
  const size_t rows = static_cast<size_t>(count) * 2;
  std::vector<double> design(rows * 2, 0.0), right(rows, 0.0);
  for (int i = 0; i < count; ++i) {
    double p[3] = {0, 0, 0}, img[3] = {0, 0, 0};
    PointAt(model, i, p);
    PointAt(image, start + i, img);
    Convert(&p[0], &p[1], &p[2]);
    const double du = p[0] - m_CenterX, dv = p[1] - m_CenterY;
    const double r2 = du * du * (fx * fx) + dv * dv * (fy * fy);
    const double r4 = r2 * r2;
    double* row = &design[static_cast<size_t>(i) * 4];
    row[0] = du * r2, row[1] = du * r4;
    row[2] = dv * r2, row[3] = dv * r4;
    right[static_cast<size_t>(i) * 2] = (img[0] - m_CenterX) - du;
    right[static_cast<size_t>(i) * 2 + 1] = (img[1] - m_CenterY) - dv;
  }
  double k[2] = {0.0, 0.0};
  CholeskiLeastSquares solver;
  hr = solver.CLSCholeski(design.data(), right.data(), k, 2, static_cast<short>(rows));
  m_Distortion1 = k[0];
  m_Distortion2 = k[1];
  return hr;
}

HRESULT CCamera3DTrinsic::GetFitErrors(ISimpleCollection* image, int start, ISimpleCollection* model,
                                       short accumulate, double* error2, double* error, double* sdError) {
  if (!image || !model) return E_FAIL;
  int imageCount = 0, modelCount = 0;
  HRESULT hr = image->get_Count(&imageCount);
  if (hr < 0) return hr;
  hr = model->get_Count(&modelCount);
  if (hr < 0) return hr;
  const int count = imageCount < modelCount ? imageCount : modelCount;
  if (!accumulate) m_SumSquares = m_SumDistance = m_MaxDistance = m_PointCount = 0.0;
  for (int i = 0; i < count; ++i) {
    double p[3] = {0, 0, 0}, img[3] = {0, 0, 0};
    PointAt(model, i, p);
    PointAt(image, start + i, img);
    Convert(&p[0], &p[1], &p[2]);
    const double q = (p[0] - img[0]) * (p[0] - img[0]) + (p[1] - img[1]) * (p[1] - img[1]);
    m_SumSquares += q;
    const double distance = std::sqrt(q);
    m_SumDistance += distance;
    if (distance > m_MaxDistance) m_MaxDistance = distance;
  }
  m_PointCount += count;
  if (sdError) *sdError = m_PointCount > 1 ? std::sqrt(m_SumSquares / (m_PointCount - 1)) : 0.0;
  if (error) *error = m_MaxDistance;
  if (error2) *error2 = m_MaxDistance;
  SetCalibrationTime();
  return S_OK;
}

void CCamera3DTrinsic::Log(IString* text, int flags) {
  SmartPtr<IUILineDisplayable> log = CreateHostObject<IUILineDisplayable>(L"EventLogGlobal");
  if (!log) return;
  log->AddLine(NewString(m_ObjectName.m_Text), text, flags);
}

void CCamera3DTrinsic::LogLine(const wchar_t* format, ...) {
  wchar_t line[256];
  va_list args;
  va_start(args, format);
  const int n = std::vswprintf(line, 256, format, args);
  va_end(args);
  if (n < 0) return;
  Log(NewString(line), kLogFlags);
}
