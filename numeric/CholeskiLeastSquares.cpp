#include "numeric/CholeskiLeastSquares.h"

#include <cstddef>

namespace {
// Smallest normal single-precision value: pivots inside (-t, t) count as zero.
const double kPivotTolerance = 1.1754943508222875e-38;
}

HRESULT CholeskiLeastSquares::CLSFree() {
  if (n == 0) return S_OK;
  delete[] normal;
  delete[] rhs;
  delete[] inverseDiagonal;
  normal = rhs = inverseDiagonal = nullptr;
  n = 0;
  m = 0;
  return S_OK;
}

HRESULT CholeskiLeastSquares::CLSCholeski(double* a, double* b, double* x, short un, short eq) {
  if (!x || !b || !a || un < 1 || eq < 1) return E_POINTER;
  CLSFree();
  n = un;
  m = eq;
  const size_t N = static_cast<size_t>(un);
  const size_t M = static_cast<size_t>(eq);
  normal = new double[N * N]();
  rhs = new double[N]();
  inverseDiagonal = new double[N]();

  // Upper triangle of A^T A and A^T b, accumulated row by row of A. Every entry is
  // still summed over rows in ascending order.
  for (size_t r = 0; r < M; ++r) {
    const double* row = a + r * N;
    const double br = b[r];
    for (size_t j = 0; j < N; ++j) {
      const double aj = row[j];
      double* col = normal + j;
      for (size_t i = 0; i <= j; ++i) col[i * N] += aj * row[i];
      rhs[j] += aj * br;
    }
  }

  // L D L^T in place: row k of the lower triangle first receives L*D, then is scaled
  // by 1/D when the diagonal of row k is reached.
  HRESULT result = S_OK;
  for (size_t k = 0; k < N && result == S_OK; ++k) {
    double* rowk = normal + k * N;
    for (size_t t = 0; t < k; ++t) {
      const double* rowt = normal + t * N;
      double v = rowt[k];
      for (size_t i = t; i-- > 0;) v -= rowt[i] * rowk[i];
      rowk[t] = v;
    }
    double pivot = rowk[k];
    for (size_t i = k; i-- > 0;) {
      const double v = rowk[i];
      rowk[i] = v * inverseDiagonal[i];
      pivot -= v * rowk[i];
    }
    rowk[k] = pivot;
    if (pivot > -kPivotTolerance && pivot < kPivotTolerance) {
      result = E_FAIL;
      break;
    }
    inverseDiagonal[k] = 1.0 / pivot;
  }

  // Both substitutions form the sum of the products first (ascending index) and
  // subtract it once.
  if (result == S_OK) {
    for (size_t k = 0; k < N; ++k) {
      const double* rowk = normal + k * N;
      double sum = 0.0;
      for (size_t i = 0; i < k; ++i) sum += rowk[i] * x[i];
      x[k] = rhs[k] - sum;
    }
    for (size_t k = N; k-- > 0;) {
      double sum = 0.0;
      for (size_t i = k + 1; i < N; ++i) sum += normal[i * N + k] * x[i];
      x[k] = inverseDiagonal[k] * x[k] - sum;
    }
  }
  CLSFree();
  return result;
}
