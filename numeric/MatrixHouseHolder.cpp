#include "numeric/MatrixHouseHolder.h"

#include <cmath>
#include <cstddef>
#include <vector>

namespace {
const double kEpsilon = 2.220446049250313e-16;
}

void CMatrixHouseHolder::DecompositionQL(double* a) {
  const int rows = m_Rows;
  const int cols = m_Cols;
  if (!a || !m_Q || !m_L || rows < 1 || cols < 1) return;
  const size_t R = static_cast<size_t>(rows);
  const size_t C = static_cast<size_t>(cols);
  double* Q = m_Q;
  double* L = m_L;

  std::vector<double> x(R), u(R), P(R * R), work(R * (C > R ? C : R));
  for (size_t i = 0; i < R; ++i)
    for (size_t j = 0; j < R; ++j) Q[i * R + j] = i == j ? 1.0 : 0.0;
  for (size_t i = 0; i < R * C; ++i) L[i] = a[i];

  for (int kk = cols - 1; kk >= 0; --kk) {
    const size_t k = static_cast<size_t>(kk);
    if (k >= R) continue;  // no diagonal position in this column
    double sum = 0.0;
    for (size_t i = 0; i <= k; ++i) {
      x[i] = L[i * C + k];
      sum += x[i] * x[i];
    }
    double norm = std::sqrt(sum);
    if (x[k] < 0.0) norm = -norm;
    for (size_t i = 0; i < R; ++i) u[i] = i <= k ? x[i] : 0.0;
    u[k] = x[k] + norm;
    double length = 0.0;
    for (size_t i = 0; i <= k; ++i) length += u[i] * u[i];
    length = std::sqrt(length);
    if (length < kEpsilon) continue;
    for (size_t i = 0; i <= k; ++i) u[i] /= length;

    // P = I - 2 u u^T; L = P L; Q = Q P.
    for (size_t i = 0; i < R; ++i)
      for (size_t j = 0; j < R; ++j) P[i * R + j] = (i == j ? 1.0 : 0.0) - 2.0 * u[i] * u[j];
    for (size_t i = 0; i < R; ++i)
      for (size_t j = 0; j < C; ++j) {
        double s = 0.0;
        for (size_t t = 0; t < R; ++t) s += P[i * R + t] * L[t * C + j];
        work[i * C + j] = s;
      }
    for (size_t i = 0; i < R * C; ++i) L[i] = work[i];
    for (size_t i = 0; i < R; ++i)
      for (size_t j = 0; j < R; ++j) {
        double s = 0.0;
        for (size_t t = 0; t < R; ++t) s += Q[i * R + t] * P[t * R + j];
        work[i * R + j] = s;
      }
    for (size_t i = 0; i < R * R; ++i) Q[i] = work[i];
  }

  if (L[0] < 0.0) {
    for (size_t i = 0; i < R * R; ++i) Q[i] = -Q[i];
    for (size_t i = 0; i < R * C; ++i) L[i] = -L[i];
  }
}
