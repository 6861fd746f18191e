// Singular value decomposition (Golub-Reinsch) of small dense row-major matrices, and
// the null vector of a homogeneous system built on it. Stateless.
#pragma once

#include "frame/Unknown.h"

class CMatrixSVD {
 public:
  // a (m x n, row-major) is overwritten with U (m x n); w receives the n singular values,
  // non-negative and NOT sorted; v receives V itself (n x n, row-major, not V^T), so that
  // input = U diag(w) V^T. m < n is allowed; then min(m, n) columns of U carry data.
  // 0 on success; E_FAIL after 30 passes without convergence for one value (a, w, v are
  // then part-way transformed) and for null arrays or sizes below 1.
  int svdcmp(double* a, int m, int n, double* w, double* v);

  // x (n entries) = the unit right singular vector of the smallest singular value: the
  // least-squares solution of a x = 0 with |x| = 1, sign as the decomposition gives it.
  // Ties keep the lowest index. a is unchanged. n < 1 writes nothing.
  void SolveAx0(double* a, int m, int n, double* x);
};
