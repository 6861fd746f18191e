#include "numeric/MatrixEigenVectors.h"

#include <cmath>

CMatrixEigenVectors::~CMatrixEigenVectors() {
  delete[] m_EigenVectors;
  delete[] m_EigenValues;
}

namespace {

const int kStride = 3;

// Entries of the eigenvector buffer for n: n * n, and at least what a stride of 3 reaches.
int VectorEntries(int n) {
  const int reach = kStride * (n - 1) + n;
  return n * n > reach ? n * n : reach;
}

inline void Rotate(double& x, double& y, double s, double tau) {
  const double g = x;
  const double h = y;
  x = g - s * (h + g * tau);
  y = h + s * (g - h * tau);
}

}  // namespace

int CMatrixEigenVectors::Jacobi(double* a, int n) {
  if (!a || n < 1 || n > kStride) return 0;

  if (m_Capacity >= n) {
    m_Capacity = n;
  } else {
    if (m_Capacity != 0) {
      delete[] m_EigenVectors;
      delete[] m_EigenValues;
    }
    m_EigenVectors = new double[VectorEntries(n)];
    m_EigenValues = new double[n];
    m_Capacity = n;
  }
  for (int i = 0; i < VectorEntries(n); ++i) m_EigenVectors[i] = 0.0;
  for (int i = 0; i < n; ++i) m_EigenValues[i] = 0.0;

  double* v = m_EigenVectors;
  double* d = m_EigenValues;
  double b[kStride];
  double z[kStride];
  for (int p = 0; p < n; ++p) {
    for (int q = 0; q < n; ++q) v[p * kStride + q] = p == q ? 1.0 : 0.0;
    b[p] = d[p] = a[p * kStride + p];
    z[p] = 0.0;
  }

  for (short sweep = 0; sweep < 50; ++sweep) {
    if (n < 2) break;
    double sm = 0.0;
    for (int p = 0; p < n - 1; ++p)
      for (int q = p + 1; q < n; ++q) sm += std::fabs(a[p * kStride + q]);
    if (sm == 0.0) break;
    const double threshold = sweep < 4 ? 0.2 * sm / (n * n) : 0.0;

    for (int p = 0; p < n - 1; ++p) {
      for (int q = p + 1; q < n; ++q) {
        double& apq = a[p * kStride + q];
        const double g = 100.0 * std::fabs(apq);
        // Negligible against both diagonal entries, judged in single precision.
        if (sweep > 4 &&
            static_cast<float>(std::fabs(d[p]) + g) == static_cast<float>(std::fabs(d[p])) &&
            static_cast<float>(std::fabs(d[q]) + g) == static_cast<float>(std::fabs(d[q]))) {
          apq = 0.0;
          continue;
        }
        if (!(std::fabs(apq) > threshold)) continue;
        double h = d[q] - d[p];
        double t;
        if (static_cast<float>(g + std::fabs(h)) == static_cast<float>(std::fabs(h))) {
          t = apq / h;
        } else {
          const double theta = 0.5 * h / apq;
          t = 1.0 / (std::fabs(theta) + std::sqrt(theta * theta + 1.0));
          if (theta < 0.0) t = -t;
        }
        const double c = 1.0 / std::sqrt(t * t + 1.0);
        const double s = t * c;
        const double tau = s / (c + 1.0);
        h = t * apq;
        z[p] -= h;
        z[q] += h;
        d[p] -= h;
        d[q] += h;
        apq = 0.0;
        for (int j = 0; j < p; ++j) Rotate(a[j * kStride + p], a[j * kStride + q], s, tau);
        for (int j = p + 1; j < q; ++j) Rotate(a[p * kStride + j], a[j * kStride + q], s, tau);
        for (int j = q + 1; j < n; ++j) Rotate(a[p * kStride + j], a[q * kStride + j], s, tau);
        for (int j = 0; j < n; ++j) Rotate(v[j * kStride + p], v[j * kStride + q], s, tau);
      }
    }
    for (int p = 0; p < n; ++p) {
      b[p] += z[p];
      d[p] = b[p];
      z[p] = 0.0;
    }
  }
  return 0;
}
