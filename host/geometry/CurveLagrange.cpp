// "CurveLagrange": the interpolating polynomial through all its samples (degree one less
// than their number), evaluated in the first barycentric form on abscissae scaled to
// [-1, 1]. host/README.md, section "Curves", has the mathematics and its choices.
#include <cmath>
#include <vector>

#include "host/common/PeerModule.h"
#include "host/geometry/Curve.h"

class CCurveLagrange : public CObject<CCurveLagrange>,
                       public ICurve,
                       public IPolynomial,
                       public IDataPersist,
                       public IObjectInfoImpl<CCurveLagrange> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CCurveLagrange>*>(this)), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
        QueryRoute(iid, IID_ICurve, static_cast<ICurve*>(this), object) ||
        QueryRoute(iid, IID_IPolynomial, static_cast<IPolynomial*>(this), object) ||
        QueryRoute(iid, IID_IDataPersist, static_cast<IDataPersist*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }

  // At least one sample (one gives a constant). On failure the curve stays as it was.
  HRESULT Fit(IPointsCollection* points) override {
    std::vector<curve::Sample> samples;
    const HRESULT hr = curve::ReadSamples(points, &samples);
    if (FAILED(hr)) return hr;
    if (samples.empty()) return E_INVALIDARG;
    Build(&samples);
    return S_OK;
  }

  // p(x) = l(t) sum_j w_j y_j / (t - t_j), l(t) = prod_j (t - t_j), t the scaled x; at a
  // sample's own x its y exactly. No samples yet: E_FAIL and *y untouched.
  HRESULT Evaluate(double x, double* y) override {
    if (!y) return E_POINTER;
    if (m_Samples.empty()) return E_FAIL;
    const double t = (x - m_Centre) / m_HalfWidth;
    double product = 1.0, sum = 0.0;
    for (size_t j = 0; j < m_Samples.size(); ++j) {
      const double d = t - m_T[j];
      if (d == 0.0) {
        *y = m_Samples[j].y;
        return S_OK;
      }
      product *= d;
      sum += m_Weights[j] * m_Samples[j].y / d;
    }
    *y = product * sum;
    return S_OK;
  }

  // The samples; no order (the degree follows from their number).
  HRESULT Save(IDataStream* stream, int) override { return curve::SaveSamples(stream, m_Samples, nullptr); }

  HRESULT Load(IDataStream* stream, int) override {
    std::vector<curve::Sample> samples;
    const HRESULT hr = curve::LoadSamples(stream, &samples, nullptr);
    if (FAILED(hr)) return hr;
    Build(&samples);
    return S_OK;
  }

 private:
  // Takes prepared samples (sorted, one per x, at least one).
  void Build(std::vector<curve::Sample>* samples) {
    m_Samples.swap(*samples);
    const double low = m_Samples.front().x, high = m_Samples.back().x;
    m_Centre = 0.5 * low + 0.5 * high;  // no overflow for far-apart ends
    m_HalfWidth = 0.5 * high - 0.5 * low;
    if (!(m_HalfWidth > 0.0)) m_HalfWidth = 1.0;  // one sample
    m_T.resize(m_Samples.size());
    m_Weights.assign(m_Samples.size(), 1.0);
    for (size_t j = 0; j < m_Samples.size(); ++j) m_T[j] = (m_Samples[j].x - m_Centre) / m_HalfWidth;
    for (size_t j = 0; j < m_Samples.size(); ++j) {
      double product = 1.0;
      for (size_t k = 0; k < m_Samples.size(); ++k)
        if (k != j) product *= m_T[j] - m_T[k];
      m_Weights[j] = 1.0 / product;
    }
  }

  std::vector<curve::Sample> m_Samples;
  std::vector<double> m_T;        // scaled abscissae (x - centre) / half width
  std::vector<double> m_Weights;  // w_j = 1 / prod_{k != j} (t_j - t_k)
  double m_Centre = 0.0, m_HalfWidth = 1.0;
};

ZELTRIM_PEER_OBJECT(L"CurveLagrange", CCurveLagrange);

const tagREFString CCurveLagrange::m_ObjectName = {13, L"CurveLagrange"};
