// The column updates and rotations of tall matrices are independent per row, so SIMD
// gives exactly the scalar results (sums are never reordered: no fast-math). GCC's
// default -O2 cost model declines most of these loops; the cheap model takes them.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC optimize("vect-cost-model=cheap")
#endif

#include "numeric/MatrixSVD.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {
inline double Sign(double a, double b) { return b >= 0.0 ? std::fabs(a) : -std::fabs(a); }
inline double Max(double a, double b) { return a > b ? a : b; }

// Element (i, j) of the m x n working copy of U, row-major or column-major. Tall
// matrices are worked on by columns, where the Householder updates and the rotations
// run over contiguous memory; every arithmetic operation and its order stay the same.
template <bool kByColumns>
struct Layout {
  double* p;
  size_t m, n;
  double& operator()(int i, int j) const {
    return kByColumns ? p[static_cast<size_t>(j) * m + i] : p[static_cast<size_t>(i) * n + j];
  }
};

template <bool kByColumns>
int Decompose(double* a, int m, int n, double* w, double* v) {
  const size_t N = static_cast<size_t>(n);
  const Layout<kByColumns> A{a, static_cast<size_t>(m), N};
  auto V = [v, N](int i, int j) -> double& { return v[static_cast<size_t>(i) * N + j]; };

  double* rv1 = new double[N]();
  double anorm = 0.0, g = 0.0, scale = 0.0;
  int l = 0;

  // Householder reduction to bidiagonal form: w the diagonal, rv1 the superdiagonal.
  for (int i = 0; i < n; ++i) {
    l = i + 1;
    rv1[i] = scale * g;
    g = 0.0;
    double s = 0.0;
    scale = 0.0;
    if (i < m) {
      for (int k = i; k < m; ++k) scale += std::fabs(A(k, i));
      if (scale != 0.0) {
        for (int k = i; k < m; ++k) {
          A(k, i) /= scale;
          s += A(k, i) * A(k, i);
        }
        double f = A(i, i);
        g = -Sign(std::sqrt(s), f);
        const double h = f * g - s;
        A(i, i) = f - g;
        for (int j = l; j < n; ++j) {
          s = 0.0;
          for (int k = i; k < m; ++k) s += A(k, i) * A(k, j);
          f = s / h;
          for (int k = i; k < m; ++k) A(k, j) += f * A(k, i);
        }
        for (int k = i; k < m; ++k) A(k, i) *= scale;
      }
    }
    w[i] = scale * g;
    g = 0.0;
    s = 0.0;
    scale = 0.0;
    if (i < m && i != n - 1) {
      for (int k = l; k < n; ++k) scale += std::fabs(A(i, k));
      if (scale != 0.0) {
        for (int k = l; k < n; ++k) {
          A(i, k) /= scale;
          s += A(i, k) * A(i, k);
        }
        const double f = A(i, l);
        g = -Sign(std::sqrt(s), f);
        const double h = f * g - s;
        A(i, l) = f - g;
        for (int k = l; k < n; ++k) rv1[k] = A(i, k) / h;
        for (int j = l; j < m; ++j) {
          s = 0.0;
          for (int k = l; k < n; ++k) s += A(j, k) * A(i, k);
          for (int k = l; k < n; ++k) A(j, k) += s * rv1[k];
        }
        for (int k = l; k < n; ++k) A(i, k) *= scale;
      }
    }
    anorm = Max(anorm, std::fabs(w[i]) + std::fabs(rv1[i]));
  }

  // Accumulation of the right-hand transformations.
  for (int i = n - 1; i >= 0; --i) {
    if (i < n - 1) {
      if (g != 0.0) {
        // Two divisions, so that a tiny A(i, l) cannot underflow the quotient.
        for (int j = l; j < n; ++j) V(j, i) = (A(i, j) / A(i, l)) / g;
        for (int j = l; j < n; ++j) {
          double s = 0.0;
          for (int k = l; k < n; ++k) s += A(i, k) * V(k, j);
          for (int k = l; k < n; ++k) V(k, j) += s * V(k, i);
        }
      }
      for (int j = l; j < n; ++j) V(i, j) = V(j, i) = 0.0;
    }
    V(i, i) = 1.0;
    g = rv1[i];
    l = i;
  }

  // Accumulation of the left-hand transformations.
  for (int i = (m < n ? m : n) - 1; i >= 0; --i) {
    l = i + 1;
    g = w[i];
    for (int j = l; j < n; ++j) A(i, j) = 0.0;
    if (g != 0.0) {
      g = 1.0 / g;
      for (int j = l; j < n; ++j) {
        double s = 0.0;
        for (int k = l; k < m; ++k) s += A(k, i) * A(k, j);
        const double f = (s / A(i, i)) * g;
        for (int k = i; k < m; ++k) A(k, j) += f * A(k, i);
      }
      for (int j = i; j < m; ++j) A(j, i) *= g;
    } else {
      for (int j = i; j < m; ++j) A(j, i) = 0.0;
    }
    ++A(i, i);
  }

  // Diagonalisation of the bidiagonal form by implicit-shift QR, from the last value.
  for (int k = n - 1; k >= 0; --k) {
    for (int its = 30; its >= 1; --its) {
      bool cancel = true;
      int nm = 0;
      for (l = k; l >= 0; --l) {
        nm = l - 1;
        // rv1[0] is always 0, so l = 0 stops here; the explicit test keeps a NaN anorm
        // from reaching w[-1].
        if (l == 0 || std::fabs(rv1[l]) + anorm == anorm) {
          cancel = false;
          break;
        }
        if (std::fabs(w[nm]) + anorm == anorm) break;
      }
      if (cancel) {
        // w[nm] is negligible: rotate rv1[l] away.
        double c = 0.0, s = 1.0;
        for (int i = l; i <= k; ++i) {
          const double f = s * rv1[i];
          rv1[i] = c * rv1[i];
          if (std::fabs(f) + anorm == anorm) break;
          g = w[i];
          double h = std::sqrt(f * f + g * g);
          w[i] = h;
          h = 1.0 / h;
          c = g * h;
          s = -f * h;
          for (int j = 0; j < m; ++j) {
            const double y = A(j, nm);
            const double z = A(j, i);
            A(j, nm) = y * c + z * s;
            A(j, i) = z * c - y * s;
          }
        }
      }
      double z = w[k];
      if (l == k) {  // converged
        if (z < 0.0) {
          w[k] = -z;
          for (int j = 0; j < n; ++j) V(j, k) = -V(j, k);
        }
        break;
      }
      if (its == 1) {
        delete[] rv1;
        return E_FAIL;
      }
      // Shift from the bottom 2 x 2 minor.
      double x = w[l];
      nm = k - 1;
      double y = w[nm];
      g = rv1[nm];
      double h = rv1[k];
      double f = ((y - z) * (y + z) + (g - h) * (g + h)) / (2.0 * h * y);
      g = std::sqrt(f * f + 1.0 * 1.0);
      f = ((x - z) * (x + z) + h * ((y / (f + Sign(g, f))) - h)) / x;
      // Next QR transformation.
      double c = 1.0, s = 1.0;
      for (int j = l; j <= nm; ++j) {
        const int i = j + 1;
        g = rv1[i];
        y = w[i];
        h = s * g;
        g = c * g;
        z = std::sqrt(f * f + h * h);
        rv1[j] = z;
        c = f / z;
        s = h / z;
        f = x * c + g * s;
        g = g * c - x * s;
        h = y * s;
        y *= c;
        for (int jj = 0; jj < n; ++jj) {
          x = V(jj, j);
          z = V(jj, i);
          V(jj, j) = x * c + z * s;
          V(jj, i) = z * c - x * s;
        }
        z = std::sqrt(f * f + h * h);
        w[j] = z;
        if (z != 0.0) {
          z = 1.0 / z;
          c = f * z;
          s = h * z;
        }
        f = c * g + s * y;
        x = c * y - s * g;
        for (int jj = 0; jj < m; ++jj) {
          y = A(jj, j);
          z = A(jj, i);
          A(jj, j) = y * c + z * s;
          A(jj, i) = z * c - y * s;
        }
      }
      rv1[l] = 0.0;
      rv1[k] = f;
      w[k] = x;
    }
  }
  delete[] rv1;
  return 0;
}

// Working by columns pays for the two copies from about this many elements on.
const size_t kColumnLayoutFrom = 256;

}  // namespace

int CMatrixSVD::svdcmp(double* a, int m, int n, double* w, double* v) {
  if (!a || !w || !v || m < 1 || n < 1) return E_FAIL;
  const size_t M = static_cast<size_t>(m), N = static_cast<size_t>(n);
  if (M * N < kColumnLayoutFrom || m <= n) return Decompose<false>(a, m, n, w, v);
  double* columns = new double[M * N];
  for (size_t i = 0; i < M; ++i)
    for (size_t j = 0; j < N; ++j) columns[j * M + i] = a[i * N + j];
  const int result = Decompose<true>(columns, m, n, w, v);
  // Also after a failure: the caller sees the part-way transformed U either way.
  for (size_t i = 0; i < M; ++i)
    for (size_t j = 0; j < N; ++j) a[i * N + j] = columns[j * M + i];
  delete[] columns;
  return result;
}

void CMatrixSVD::SolveAx0(double* a, int m, int n, double* x) {
  if (n < 1 || !x) return;
  const size_t N = static_cast<size_t>(n);
  const size_t M = static_cast<size_t>(m > 0 ? m : 0);
  double* work = static_cast<double*>(std::calloc(M * N + 1, sizeof(double)));
  double* w = static_cast<double*>(std::calloc(N, sizeof(double)));
  double* v = static_cast<double*>(std::calloc(N * N, sizeof(double)));
  if (work && w && v) {
    if (a) std::memcpy(work, a, M * N * sizeof(double));
    svdcmp(work, m, n, w, v);  // the result is not needed: a failure leaves usable values
    size_t best = 0;
    for (size_t j = 1; j < N; ++j)
      if (w[j] < w[best]) best = j;
    for (size_t j = 0; j < N; ++j) x[j] = v[j * N + best];
  }
  std::free(work);
  std::free(w);
  std::free(v);
}
