// Helpers shared by the numeric kernel tests: seeded random matrices, small dense
// products, and test-local host objects (points and a point collection).
#pragma once

#include <cmath>
#include <deque>
#include <random>
#include <vector>

#include "frame/HostInterfaces.h"

namespace numeric_test {

inline std::vector<double> RandomMatrix(int rows, int cols, unsigned seed, double lo = -1.0,
                                        double hi = 1.0) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> dist(lo, hi);
  std::vector<double> m(static_cast<size_t>(rows) * cols);
  for (double& x : m) x = dist(rng);
  return m;
}

// Row-major product, written independently of the kernels under test.
inline std::vector<double> Product(const std::vector<double>& a, const std::vector<double>& b,
                                   int rows, int inner, int cols) {
  std::vector<double> c(static_cast<size_t>(rows) * cols, 0.0);
  for (int r = 0; r < rows; ++r)
    for (int k = 0; k < inner; ++k)
      for (int j = 0; j < cols; ++j) c[r * cols + j] += a[r * inner + k] * b[k * cols + j];
  return c;
}

inline std::vector<double> Transpose(const std::vector<double>& a, int rows, int cols) {
  std::vector<double> t(a.size());
  for (int r = 0; r < rows; ++r)
    for (int c = 0; c < cols; ++c) t[c * rows + r] = a[r * cols + c];
  return t;
}

inline double MaxAbsDiff(const std::vector<double>& a, const std::vector<double>& b) {
  double d = 0.0;
  for (size_t i = 0; i < a.size(); ++i) d = std::fmax(d, std::fabs(a[i] - b[i]));
  return d;
}

// Rotation about a unit axis by angle (right-handed, column-vector convention).
inline std::vector<double> AxisRotation(double ax, double ay, double az, double angle) {
  const double n = std::sqrt(ax * ax + ay * ay + az * az);
  ax /= n;
  ay /= n;
  az /= n;
  const double c = std::cos(angle), s = std::sin(angle), k = 1.0 - c;
  return {k * ax * ax + c,      k * ax * ay - s * az, k * ax * az + s * ay,
          k * ax * ay + s * az, k * ay * ay + c,      k * ay * az - s * ax,
          k * ax * az - s * ay, k * ay * az + s * ax, k * az * az + c};
}

// Reference counting shared by the test-local objects; they live on the stack and the
// tests check that every reference handed out comes back.
template <class I>
class LocalObject : public I {
 public:
  int AddRef() override { return ++refs_; }
  int Release() override { return --refs_; }
  int Refs() const { return refs_; }

 protected:
  int refs_ = 1;
};

class LocalPoint : public LocalObject<IPoint> {
 public:
  LocalPoint(double x, double y, double z) : x_(x), y_(y), z_(z) {}
  HRESULT QueryInterface(const IID& iid, void** out) override {
    if (iid == IID_IUnknown || iid == IID_IPoint) {
      *out = static_cast<IPoint*>(this);
      AddRef();
      return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
  }
  HRESULT GetXYZ(double* x, double* y, double* z) override {
    *x = x_;
    *y = y_;
    *z = z_;
    return S_OK;
  }
  HRESULT SetXYZ(double x, double y, double z) override {
    x_ = x;
    y_ = y;
    z_ = z;
    return S_OK;
  }

 private:
  double x_, y_, z_;
};

class LocalPoints : public LocalObject<ISimpleCollection> {
 public:
  explicit LocalPoints(const std::vector<double>& xyz) {
    for (size_t i = 0; i + 2 < xyz.size(); i += 3) points_.emplace_back(xyz[i], xyz[i + 1], xyz[i + 2]);
  }
  HRESULT QueryInterface(const IID& iid, void** out) override {
    if (iid == IID_IUnknown || iid == IID_ISimpleCollection) {
      *out = static_cast<ISimpleCollection*>(this);
      AddRef();
      return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
  }
  HRESULT get_Count(int* count) override {
    *count = static_cast<int>(points_.size());
    return S_OK;
  }
  HRESULT get_Item(int index, IUnknown** item) override {
    if (index < 0 || index >= static_cast<int>(points_.size())) return E_INVALIDARG;
    *item = &points_[static_cast<size_t>(index)];
    (*item)->AddRef();
    return S_OK;
  }
  // Every point handed out has been released again.
  bool Balanced() const {
    for (const LocalPoint& p : points_)
      if (p.Refs() != 1) return false;
    return true;
  }

 private:
  std::deque<LocalPoint> points_;  // stable addresses
};

}  // namespace numeric_test
