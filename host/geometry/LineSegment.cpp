// "LineSegment": a straight line in the x, y plane, fitted to points by total least
// squares (the line that minimises the sum of squared perpendicular distances), with
// ends at the outermost projections of the points.
#include <cmath>
#include <new>
#include <vector>

#include "host/common/PeerModule.h"

namespace {

struct XYZ {
  double x, y, z;
};

// Reads every item of the collection as a point; E_INVALIDARG if one is not a point.
HRESULT ReadPoints(IPointsCollection* points, std::vector<XYZ>* out) {
  int count = 0;
  HRESULT hr = points->get_Count(&count);
  if (FAILED(hr)) return hr;
  if (count < 0) return E_FAIL;
  out->clear();
  for (int i = 0; i < count; ++i) {
    SmartPtr<IUnknown> item;
    hr = points->get_Item(i, item.Out());
    if (FAILED(hr)) return hr;
    SmartPtr<IPoint> point = QueryAs<IPoint>(item);
    if (!point) return E_INVALIDARG;
    XYZ p{0.0, 0.0, 0.0};
    hr = point->GetXYZ(&p.x, &p.y, &p.z);
    if (FAILED(hr)) return hr;
    try {
      out->push_back(p);
    } catch (const std::bad_alloc&) {
      return E_FAIL;
    }
  }
  return S_OK;
}

}  // namespace

class CLineSegment : public CObject<CLineSegment>,
                     public ILineSegment,
                     public IGeometricFitting,
                     public IObjectInfoImpl<CLineSegment> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CLineSegment>*>(this)), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
        QueryRoute(iid, IID_ILineSegment, static_cast<ILineSegment*>(this), object) ||
        QueryRoute(iid, IID_IGeometricFitting, static_cast<IGeometricFitting*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }

  HRESULT GetEnds(double* x0, double* y0, double* z0, double* x1, double* y1, double* z1) override {
    if (!x0 || !y0 || !z0 || !x1 || !y1 || !z1) return E_POINTER;
    *x0 = m_Start.x, *y0 = m_Start.y, *z0 = m_Start.z;
    *x1 = m_End.x, *y1 = m_End.y, *z1 = m_End.z;
    return S_OK;
  }

  // The line runs from the first end toward the second; ends that coincide in x, y (or
  // are not finite) give no line and are refused.
  HRESULT SetEnds(double x0, double y0, double z0, double x1, double y1, double z1) override {
    const double dx = x1 - x0, dy = y1 - y0;
    const double length = std::hypot(dx, dy);
    if (!(length > 0.0) || !std::isfinite(length) || !std::isfinite(z0) || !std::isfinite(z1))
      return E_INVALIDARG;
    m_Start = {x0, y0, z0};
    m_End = {x1, y1, z1};
    m_OriginX = x0, m_OriginY = y0;
    m_DirX = dx / length, m_DirY = dy / length;
    m_HasLine = true;
    return S_OK;
  }

  HRESULT Reserved_IGF0() override { return E_NOTIMPL; }
  HRESULT Reserved_IGF1() override { return E_NOTIMPL; }

  // Centroid c and centred sums Sxx, Sxy, Syy; the direction is the principal axis at
  // angle 0.5 atan2(2 Sxy, Sxx - Syy), turned to point from the first point toward the
  // last. Fewer than two points, non-finite coordinates: E_INVALIDARG; all points on one
  // spot: E_FAIL. On failure the line stays as it was.
  HRESULT Fit(IPointsCollection* points) override {
    if (!points) return E_POINTER;
    std::vector<XYZ> p;
    HRESULT hr = ReadPoints(points, &p);
    if (FAILED(hr)) return hr;
    if (p.size() < 2) return E_INVALIDARG;
    const double n = static_cast<double>(p.size());
    double mx = 0.0, my = 0.0, mz = 0.0;
    for (const XYZ& q : p) {
      if (!std::isfinite(q.x) || !std::isfinite(q.y) || !std::isfinite(q.z)) return E_INVALIDARG;
      mx += q.x, my += q.y, mz += q.z;
    }
    mx /= n, my /= n, mz /= n;
    double sxx = 0.0, sxy = 0.0, syy = 0.0;
    for (const XYZ& q : p) {
      const double u = q.x - mx, v = q.y - my;
      sxx += u * u, sxy += u * v, syy += v * v;
    }
    if (!(sxx + syy > 0.0) || !std::isfinite(sxx + syy)) return E_FAIL;
    const double angle = 0.5 * std::atan2(2.0 * sxy, sxx - syy);
    double dx = std::cos(angle), dy = std::sin(angle);
    if (dx * (p.back().x - p.front().x) + dy * (p.back().y - p.front().y) < 0.0) dx = -dx, dy = -dy;
    double lowest = 0.0, highest = 0.0;
    for (size_t i = 0; i < p.size(); ++i) {
      const double t = (p[i].x - mx) * dx + (p[i].y - my) * dy;
      if (i == 0 || t < lowest) lowest = t;
      if (i == 0 || t > highest) highest = t;
    }
    m_OriginX = mx, m_OriginY = my;
    m_DirX = dx, m_DirY = dy;
    m_Start = {mx + lowest * dx, my + lowest * dy, mz};
    m_End = {mx + highest * dx, my + highest * dy, mz};
    m_HasLine = true;
    return S_OK;
  }

  // Signed perpendicular distance in x, y of each point from the line, positive on the
  // left of the direction (counter-clockwise side), into a new "DblBuffer".
  HRESULT GetResiduals(IPointsCollection* points, IDblVector** residuals) override {
    if (!residuals) return E_POINTER;
    *residuals = nullptr;
    if (!points) return E_POINTER;
    if (!m_HasLine) return E_FAIL;
    std::vector<XYZ> p;
    HRESULT hr = ReadPoints(points, &p);
    if (FAILED(hr)) return hr;
    SmartPtr<IDblVector> vector = PeerCreate<IDblVector>(L"DblBuffer");
    if (!vector) return E_FAIL;
    vector->Resize(static_cast<int>(p.size()));
    for (const XYZ& q : p) {
      const double distance = (q.y - m_OriginY) * m_DirX - (q.x - m_OriginX) * m_DirY;
      hr = vector->put_Value(-1, distance);
      if (FAILED(hr)) return hr;
    }
    *residuals = vector.Detach();
    return S_OK;
  }

 private:
  XYZ m_Start{0.0, 0.0, 0.0};
  XYZ m_End{0.0, 0.0, 0.0};
  // The line itself: a point on it and the unit direction.
  double m_OriginX = 0.0, m_OriginY = 0.0;
  double m_DirX = 1.0, m_DirY = 0.0;
  bool m_HasLine = false;
};

ZELTRIM_PEER_OBJECT(L"LineSegment", CLineSegment);

const tagREFString CLineSegment::m_ObjectName = {11, L"LineSegment"};
