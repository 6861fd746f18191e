#include "numeric/CholeskiLeastSquares.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "tests/unit/numeric/NumericTestSupport.h"

#ifdef ZELTRIM_HAVE_LAPACKE
#include <lapacke.h>
#endif

using numeric_test::RandomMatrix;

namespace {

const double kAgreementTol = 1e-9;
const double kGradientTol = 1e-12;  // the normal equations' residual, relative to their terms

// x is the least-squares solution: the gradient A^T (A x - b) vanishes, to rounding of
// its terms.
void ExpectLeastSquares(const std::vector<double>& a, const std::vector<double>& b, const std::vector<double>& x,
                        int m, int n) {
  for (int j = 0; j < n; ++j) {
    double gradient = 0.0, scale = 0.0;
    for (int i = 0; i < m; ++i) {
      double residual = -b[i], size = std::fabs(b[i]);
      for (int k = 0; k < n; ++k) residual += a[i * n + k] * x[k], size += std::fabs(a[i * n + k] * x[k]);
      gradient += a[i * n + j] * residual;
      scale += std::fabs(a[i * n + j]) * size;
    }
    EXPECT_LE(std::fabs(gradient), kGradientTol * scale) << n << " x " << m << ", unknown " << j;
  }
}

// Exposes the fields of the base, as the model classes that inherit it see them.
struct Solver : CholeskiLeastSquares {
  bool Empty() const { return n == 0 && m == 0 && !normal && !rhs && !inverseDiagonal; }
};

TEST(CholeskiLeastSquares, SolvesOverdeterminedSystemsToTheirLeastSquaresPoint) {
  const int sizes[][2] = {{2, 3}, {8, 16}, {11, 40}, {9, 200}, {3, 3}};
  unsigned seed = 11;
  for (const auto& s : sizes) {
    const int n = s[0], m = s[1];
    std::vector<double> a = RandomMatrix(m, n, ++seed);
    std::vector<double> b = RandomMatrix(m, 1, ++seed);
    std::vector<double> x(n, 0.0);
    Solver solver;
    ASSERT_EQ(solver.CLSCholeski(a.data(), b.data(), x.data(), static_cast<short>(n), static_cast<short>(m)), S_OK);
    EXPECT_TRUE(solver.Empty()) << "buffers released after the solve";
    ExpectLeastSquares(a, b, x, m, n);

#ifdef ZELTRIM_HAVE_LAPACKE
    std::vector<double> la = a, lb = b;
    ASSERT_EQ(LAPACKE_dgels(LAPACK_ROW_MAJOR, 'N', m, n, 1, la.data(), n, lb.data(), 1), 0);
    for (int j = 0; j < n; ++j) EXPECT_NEAR(x[j], lb[j], kAgreementTol) << "LAPACK " << n << " x " << m;
#endif
  }
}

TEST(CholeskiLeastSquares, HandWorkedLineFit) {
  // y = 2 x + 1 through four exact points, unknowns (slope, intercept).
  double a[8] = {0, 1, 1, 1, 2, 1, 3, 1};
  double b[4] = {1, 3, 5, 7};
  double x[2] = {0, 0};
  CholeskiLeastSquares solver;
  ASSERT_EQ(solver.CLSCholeski(a, b, x, 2, 4), S_OK);
  EXPECT_NEAR(x[0], 2.0, 1e-13);
  EXPECT_NEAR(x[1], 1.0, 1e-13);
}

TEST(CholeskiLeastSquares, SubstitutionsSubtractTheWholeSum) {
  // Square triangular system A x = b, exactly solvable:
  //   x0           + e x2 = 1
  //          x1    + e x2 = 1      with e = 2^-53,
  //                  x2   = 1
  // so x = (1 - e, 1 - e, 1). A^T A and A^T b are formed exactly except N22 = 1 + 2e^2,
  // which rounds to 1 and leaves the factor L = A^T, D = I exact. The third forward
  // step is rhs2 - (L20 x0 + L21 x1) = (1 + 2e) - 2e = 1 exactly; subtracting the
  // two products one at a time would round 1 + e to 1 and end at 1 - e instead.
  const double e = std::ldexp(1.0, -53);
  double a[9] = {1, 0, e, 0, 1, e, 0, 0, 1};
  double b[3] = {1, 1, 1};
  double x[3] = {0, 0, 0};
  CholeskiLeastSquares solver;
  ASSERT_EQ(solver.CLSCholeski(a, b, x, 3, 3), S_OK);
  EXPECT_EQ(x[2], 1.0);
  EXPECT_EQ(x[1], 1.0 - e);
  EXPECT_EQ(x[0], 1.0 - e);
}

TEST(CholeskiLeastSquares, VanishingPivotFails) {
  Solver solver;
  double x[3] = {5, 5, 5};
  // Third column = first + second: exactly singular normal matrix.
  double dependent[12] = {1, 2, 3, 2, 1, 3, 0, 1, 1, 4, 0, 4};
  double b[4] = {1, 2, 3, 4};
  EXPECT_EQ(solver.CLSCholeski(dependent, b, x, 3, 4), E_FAIL);
  EXPECT_TRUE(solver.Empty());

  // More unknowns than equations, integer data: the last pivot is exactly zero.
  double wide[6] = {1, 0, 1, 0, 1, 1};
  EXPECT_EQ(solver.CLSCholeski(wide, b, x, 3, 2), E_FAIL);
  EXPECT_TRUE(solver.Empty());

  // A solve after a failure works again.
  double a[4] = {2, 0, 0, 4};
  double rhs[2] = {2, 2};
  ASSERT_EQ(solver.CLSCholeski(a, rhs, x, 2, 2), S_OK);
  EXPECT_EQ(x[0], 1.0);
  EXPECT_EQ(x[1], 0.5);
}

// Only pivots within FLT_MIN of zero count as vanishing: a rank-deficient system whose
// last pivot rounds to a small negative number is solved, into whatever that gives.
TEST(CholeskiLeastSquares, PivotRoundedBelowZeroIsNotRefused) {
  // Six rows (1, 0.7): the second column is the first times 0.7, and the pivot
  // sum(x^2) - sum(x) * (sum(x) / 6) comes out a few units of rounding below zero.
  double a[12], b[6], x[2] = {0, 0};
  double sum = 0, squares = 0;
  for (int r = 0; r < 6; ++r) {
    a[2 * r] = 1.0, a[2 * r + 1] = 0.7, b[r] = 1.0;
    sum += 0.7;
    squares += 0.7 * 0.7;
  }
  const double pivot = squares - sum * (sum * (1.0 / 6.0));
  ASSERT_LT(pivot, -1e-20) << "the data no longer rounds the pivot below zero";
  Solver solver;
  EXPECT_EQ(solver.CLSCholeski(a, b, x, 2, 6), S_OK);
}

TEST(CholeskiLeastSquares, BadArgumentsAndSixteenBitCounts) {
  Solver solver;
  double a[4] = {1, 0, 0, 1}, b[2] = {1, 1}, x[2] = {7, 7};
  EXPECT_EQ(solver.CLSCholeski(nullptr, b, x, 2, 2), E_POINTER);
  EXPECT_EQ(solver.CLSCholeski(a, nullptr, x, 2, 2), E_POINTER);
  EXPECT_EQ(solver.CLSCholeski(a, b, nullptr, 2, 2), E_POINTER);
  EXPECT_EQ(solver.CLSCholeski(a, b, x, 0, 2), E_POINTER);
  EXPECT_EQ(solver.CLSCholeski(a, b, x, 2, 0), E_POINTER);
  // 2 * 20000 equations arrive through the 16-bit count as a negative number.
  const int equations = 2 * 20000;
  EXPECT_EQ(solver.CLSCholeski(a, b, x, 2, static_cast<short>(equations)), E_POINTER);
  EXPECT_EQ(x[0], 7.0);
  EXPECT_EQ(x[1], 7.0);
  EXPECT_TRUE(solver.Empty());
  EXPECT_EQ(solver.CLSFree(), S_OK);  // harmless when empty
}

TEST(CholeskiLeastSquares, LargestSixteenBitEquationCount) {
  // 32767 equations is the largest count a 16-bit field holds: y = 3 - x sampled densely.
  const int m = 32767;
  std::vector<double> a(2 * m), b(m);
  for (int i = 0; i < m; ++i) {
    const double t = i / 1000.0;
    a[2 * i] = t;
    a[2 * i + 1] = 1.0;
    b[i] = 3.0 - t;
  }
  double x[2];
  CholeskiLeastSquares solver;
  ASSERT_EQ(solver.CLSCholeski(a.data(), b.data(), x, 2, static_cast<short>(m)), S_OK);
  EXPECT_NEAR(x[0], -1.0, 1e-9);
  EXPECT_NEAR(x[1], 3.0, 1e-9);
}

}  // namespace
