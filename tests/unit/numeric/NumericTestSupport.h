// Helpers shared by the numeric kernel tests: seeded random matrices, small dense
// products, and point collections of the reference host.
#pragma once

#include <cmath>
#include <random>
#include <vector>

#include "frame/Components.h"
#include "frame/Object.h"

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

// A host points collection (the reference host's, as the module meets it) holding the
// points (x, y, z) read three values at a time.
inline SmartPtr<IPointsCollection> HostPoints(const std::vector<double>& xyz) {
  SmartPtr<IPointsCollection> points;
  points.Attach(GEOObject::CreatePointsCollection());
  for (size_t i = 0; points && i + 2 < xyz.size(); i += 3) points->AddPoint(xyz[i], xyz[i + 1], xyz[i + 2]);
  return points;
}

// Every point of the collection is held by the collection alone again: whatever read the
// points gave back each reference it took.
inline bool Balanced(ISimpleCollection* points) {
  int count = 0;
  points->get_Count(&count);
  for (int i = 0; i < count; ++i) {
    IUnknown* item = nullptr;
    if (points->get_Item(i, &item) < 0 || !item || item->Release() != 1) return false;
  }
  return true;
}

}  // namespace numeric_test
