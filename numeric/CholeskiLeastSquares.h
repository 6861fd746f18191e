// Linear least squares min |A x - b| by the normal equations, factorised as L D L^T
// without square roots. A mix-in base of the camera and transform models; it holds
// buffers only for the duration of one solve.
#pragma once

#include "frame/Unknown.h"

class CholeskiLeastSquares {
 public:
  CholeskiLeastSquares() = default;
  ~CholeskiLeastSquares() { CLSFree(); }
  CholeskiLeastSquares(const CholeskiLeastSquares&) = delete;
  CholeskiLeastSquares& operator=(const CholeskiLeastSquares&) = delete;

  // a: m rows of n columns, row-major; b: m entries; x receives n entries.
  // Counts are 16-bit: unknowns first, equations second. Callers pass wider counts
  // truncated, so 2 * 20000 points arrives negative and is refused.
  // E_POINTER: a null array or a count below 1 (nothing changes).
  // E_FAIL: a pivot of magnitude below FLT_MIN (x then partly unwritten).
  HRESULT CLSCholeski(double* a, double* b, double* x, short n, short m);

  // Releases the buffers of a solve, if any. Always S_OK.
  HRESULT CLSFree();

 protected:
  short n = 0;  // unknowns of the current solve; 0: no buffers held
  short m = 0;  // equations of the current solve
  double* normal = nullptr;           // n x n: upper = A^T A, strict lower = unit L
  double* rhs = nullptr;              // n: A^T b
  double* inverseDiagonal = nullptr;  // n: 1 / D
};
