// "CurveSpline": order 1 the broken line through the samples, order 2 (the default) the
// natural cubic spline (second derivative 0 at both end samples); outside the samples
// both go on as the straight line with the end's value and slope. host/README.md,
// section "Curves", has the mathematics and its choices.
#include <algorithm>
#include <cmath>
#include <vector>

#include "host/common/PeerModule.h"
#include "host/geometry/Curve.h"

class CCurveSpline : public CObject<CCurveSpline>,
                     public ICurve,
                     public ICurveSpline,
                     public IPolynomial,
                     public IDataPersist,
                     public IObjectInfoImpl<CCurveSpline> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  enum { kLinear = 1, kNaturalCubic = 2 };

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CCurveSpline>*>(this)), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
        QueryRoute(iid, IID_ICurve, static_cast<ICurve*>(this), object) ||
        QueryRoute(iid, IID_ICurveSpline, static_cast<ICurveSpline*>(this), object) ||
        QueryRoute(iid, IID_IPolynomial, static_cast<IPolynomial*>(this), object) ||
        QueryRoute(iid, IID_IDataPersist, static_cast<IDataPersist*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }

  // At least two samples (after merging equal x). On failure the curve stays as it was.
  HRESULT Fit(IPointsCollection* points) override {
    std::vector<curve::Sample> samples;
    const HRESULT hr = curve::ReadSamples(points, &samples);
    if (FAILED(hr)) return hr;
    if (samples.size() < 2) return E_INVALIDARG;
    m_Samples.swap(samples);
    Build();
    return S_OK;
  }

  // ICurve and ICurveSpline share this one. No samples yet: E_FAIL, *y untouched. NaN
  // gives NaN.
  HRESULT Evaluate(double x, double* y) override {
    if (!y) return E_POINTER;
    const size_t n = m_Samples.size();
    if (n < 2) return E_FAIL;
    const curve::Sample& first = m_Samples.front();
    const curve::Sample& last = m_Samples.back();
    if (std::isnan(x)) {  // no interval holds it
      *y = x;
      return S_OK;
    }
    if (x < first.x) {
      *y = first.y + m_StartSlope * (x - first.x);
      return S_OK;
    }
    if (x > last.x) {
      *y = last.y + m_EndSlope * (x - last.x);
      return S_OK;
    }
    // The interval [x_i, x_i+1] holding x; the last one for x at the last sample.
    const auto above = std::upper_bound(m_Samples.begin(), m_Samples.end(), x,
                                        [](double v, const curve::Sample& s) { return v < s.x; });
    const size_t i = std::min(static_cast<size_t>(above - m_Samples.begin()), n - 1) - 1;
    const double h = m_Samples[i + 1].x - m_Samples[i].x;
    const double a = (m_Samples[i + 1].x - x) / h, b = (x - m_Samples[i].x) / h;
    double value = a * m_Samples[i].y + b * m_Samples[i + 1].y;
    if (m_Order == kNaturalCubic) value += ((a * a * a - a) * m_M[i] + (b * b * b - b) * m_M[i + 1]) * (h * h) / 6.0;
    *y = value;
    return S_OK;
  }

  HRESULT get_Order(int* order) override {
    if (!order) return E_POINTER;
    *order = m_Order;
    return S_OK;
  }
  HRESULT Reserved_ICS2() override { return E_NOTIMPL; }
  HRESULT Reserved_ICS3() override { return E_NOTIMPL; }

  // 1 or 2; the samples held are kept and the curve rebuilt. Any other: E_INVALIDARG.
  HRESULT put_Order(int order) override {
    if (order != kLinear && order != kNaturalCubic) return E_INVALIDARG;
    m_Order = order;
    Build();
    return S_OK;
  }

  // The order and the samples.
  HRESULT Save(IDataStream* stream, int) override { return curve::SaveSamples(stream, m_Samples, &m_Order); }

  // Needs two samples or more and, when the stream has one, an order of 1 or 2 (without
  // one the curve keeps its own: a Lagrange curve's samples load into a spline); else
  // E_FAIL and the curve stays.
  HRESULT Load(IDataStream* stream, int) override {
    std::vector<curve::Sample> samples;
    int order = m_Order;
    const HRESULT hr = curve::LoadSamples(stream, &samples, &order);
    if (FAILED(hr)) return hr;
    if ((order != kLinear && order != kNaturalCubic) || samples.size() < 2) return E_FAIL;
    m_Order = order;
    m_Samples.swap(samples);
    Build();
    return S_OK;
  }

 private:
  // Second derivatives M of the natural spline (order 2; all 0 for order 1) and the end
  // slopes. For the inner samples i = 1 .. n-2:
  //   h_{i-1} M_{i-1} + 2 (h_{i-1} + h_i) M_i + h_i M_{i+1} = 6 (d_i - d_{i-1}),
  // h_i = x_{i+1} - x_i, d_i = (y_{i+1} - y_i) / h_i, M_0 = M_{n-1} = 0: a strictly
  // diagonally dominant tridiagonal system, solved by elimination without pivoting.
  void Build() {
    const size_t n = m_Samples.size();
    m_M.assign(n, 0.0);
    if (n < 2) return;
    std::vector<double> h(n - 1), d(n - 1);
    for (size_t i = 0; i + 1 < n; ++i) {
      h[i] = m_Samples[i + 1].x - m_Samples[i].x;
      d[i] = (m_Samples[i + 1].y - m_Samples[i].y) / h[i];
    }
    if (m_Order == kNaturalCubic && n > 2) {
      // Forward sweep over the rows 1 .. n-2: diag[i] and rhs[i] after elimination.
      std::vector<double> diag(n, 0.0), rhs(n, 0.0);
      for (size_t i = 1; i + 1 < n; ++i) {
        diag[i] = 2.0 * (h[i - 1] + h[i]);
        rhs[i] = 6.0 * (d[i] - d[i - 1]);
        if (i > 1) {
          const double factor = h[i - 1] / diag[i - 1];
          diag[i] -= factor * h[i - 1];
          rhs[i] -= factor * rhs[i - 1];
        }
      }
      for (size_t i = n - 2; i >= 1; --i) m_M[i] = (rhs[i] - h[i] * m_M[i + 1]) / diag[i];
    }
    // S'(x_0) = d_0 - h_0 (2 M_0 + M_1) / 6, S'(x_{n-1}) = d_{n-2} + h_{n-2} (M_{n-2} + 2 M_{n-1}) / 6.
    m_StartSlope = d[0] - h[0] * (2.0 * m_M[0] + m_M[1]) / 6.0;
    m_EndSlope = d[n - 2] + h[n - 2] * (m_M[n - 2] + 2.0 * m_M[n - 1]) / 6.0;
  }

  int m_Order = kNaturalCubic;
  std::vector<curve::Sample> m_Samples;
  std::vector<double> m_M;  // second derivative at each sample
  double m_StartSlope = 0.0, m_EndSlope = 0.0;
};

ZELTRIM_PEER_OBJECT(L"CurveSpline", CCurveSpline);

const tagREFString CCurveSpline::m_ObjectName = {11, L"CurveSpline"};
