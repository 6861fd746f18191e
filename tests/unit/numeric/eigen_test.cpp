#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "numeric/MatrixEigenVectors.h"
#include "numeric/MatrixHouseHolder.h"
#include "tests/unit/numeric/NumericTestSupport.h"

using numeric_test::AxisRotation;
using numeric_test::MaxAbsDiff;
using numeric_test::Product;
using numeric_test::RandomMatrix;
using numeric_test::Transpose;

namespace {

const double kEigenTol = 1e-12;
const double kFactorTol = 1e-13;

std::vector<double> Identity(int n) {
  std::vector<double> id(static_cast<size_t>(n) * n, 0.0);
  for (int i = 0; i < n; ++i) id[i * n + i] = 1.0;
  return id;
}

TEST(Jacobi, SymmetricMatricesWithKnownEigenpairs) {
  const double lambdas[][3] = {{1, 2, 3}, {-4, 0.5, 10}, {5, 5, 1}, {1e-3, 1, 1e3}};
  unsigned seed = 3;
  for (const auto& l : lambdas) {
    std::vector<double> axis = RandomMatrix(1, 3, ++seed);
    std::vector<double> r = AxisRotation(axis[0], axis[1], axis[2], 0.3 + seed);
    std::vector<double> dl = {l[0], 0, 0, 0, l[1], 0, 0, 0, l[2]};
    std::vector<double> a = Product(Product(r, dl, 3, 3, 3), Transpose(r, 3, 3), 3, 3, 3);
    for (int i = 0; i < 3; ++i)  // exactly symmetric input
      for (int j = 0; j < i; ++j) a[i * 3 + j] = a[j * 3 + i];
    const std::vector<double> original = a;

    CMatrixEigenVectors eig;
    EXPECT_EQ(eig.Jacobi(a.data(), 3), 0);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(a[i * 3 + i], original[i * 3 + i]);  // diagonal kept
    std::vector<double> values(eig.m_EigenValues, eig.m_EigenValues + 3);
    std::vector<double> vectors(eig.m_EigenVectors, eig.m_EigenVectors + 9);
    std::vector<double> sorted = values, expected(l, l + 3);
    std::sort(sorted.begin(), sorted.end());
    std::sort(expected.begin(), expected.end());
    const double scale = std::max(std::fabs(expected[0]), std::fabs(expected[2]));
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(sorted[i], expected[i], kEigenTol * scale);
    // A V = V diag(d), V orthogonal.
    std::vector<double> av = Product(original, vectors, 3, 3, 3);
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) EXPECT_NEAR(av[i * 3 + j], vectors[i * 3 + j] * values[j], kEigenTol * scale);
    EXPECT_LT(MaxAbsDiff(Product(Transpose(vectors, 3, 3), vectors, 3, 3, 3), Identity(3)), kEigenTol);
  }
}

TEST(Jacobi, SmallerSizesUseStrideThree) {
  CMatrixEigenVectors eig;
  double a3[9] = {2, 1, 0, 1, 2, 0, 0, 0, 7};
  eig.Jacobi(a3, 3);
  // 2 x 2 [[2, 1], [1, 2]] stored with stride 3 (the third column is junk and unread).
  double a2[5] = {2, 1, 99, 1, 2};
  eig.Jacobi(a2, 2);
  EXPECT_EQ(a2[2], 99.0);
  const double* vectors = eig.m_EigenVectors;
  const double* values = eig.m_EigenValues;
  const double lo = std::min(values[0], values[1]), hi = std::max(values[0], values[1]);
  EXPECT_NEAR(lo, 1.0, kEigenTol);
  EXPECT_NEAR(hi, 3.0, kEigenTol);
  const int k = values[0] > values[1] ? 0 : 1;  // eigenvector of 3 is (1, 1) / sqrt 2
  EXPECT_NEAR(std::fabs(vectors[0 * 3 + k]), std::sqrt(0.5), kEigenTol);
  EXPECT_NEAR(vectors[0 * 3 + k], vectors[1 * 3 + k], kEigenTol);

  // n = 1 is its own eigenvalue.
  CMatrixEigenVectors one;
  double a1[1] = {4.5};
  one.Jacobi(a1, 1);
  EXPECT_EQ(one.m_EigenValues[0], 4.5);
  EXPECT_EQ(one.m_EigenVectors[0], 1.0);
  // No matrix, or no size: nothing to do.
  CMatrixEigenVectors bad;
  EXPECT_EQ(bad.Jacobi(nullptr, 3), 0);
  EXPECT_EQ(bad.Jacobi(a3, 0), 0);
  EXPECT_EQ(bad.Jacobi(a3, 4), 0);  // beyond the stride
  EXPECT_EQ(bad.m_EigenValues, nullptr);
}

struct QL {
  std::vector<double> q, l, spare;
  CMatrixHouseHolder h;
  QL(int rows, int cols) : q(rows * rows), l(rows * cols), spare(1) {
    h.m_Q = q.data();
    h.m_L = l.data();
    h.m_Spare = spare.data();
    h.m_Rows = rows;
    h.m_Cols = cols;
  }
};

TEST(HouseholderQL, ReproducesInputWithOrthogonalQAndLowerL) {
  const int shapes[][2] = {{3, 3}, {4, 3}, {4, 4}, {3, 2}};
  unsigned seed = 50;
  for (const auto& s : shapes) {
    const int rows = s[0], cols = s[1];
    for (int rep = 0; rep < 5; ++rep) {
      SCOPED_TRACE(testing::Message() << rows << " x " << cols);
      std::vector<double> a = RandomMatrix(rows, cols, ++seed, -5, 5);
      const std::vector<double> before = a;
      QL f(rows, cols);
      f.h.DecompositionQL(a.data());
      EXPECT_EQ(a, before);
      EXPECT_LT(MaxAbsDiff(Product(f.q, f.l, rows, rows, cols), a), kFactorTol * 10);
      EXPECT_LT(MaxAbsDiff(Product(Transpose(f.q, rows, rows), f.q, rows, rows, rows), Identity(rows)),
                kFactorTol * 10);
      for (int i = 0; i < rows; ++i)
        for (int k = i + 1; k < cols; ++k) EXPECT_NEAR(f.l[i * cols + k], 0.0, kFactorTol * 10);
      EXPECT_GE(f.l[0], 0.0);
      if (rows == 4 && cols == 3) {
        // The fourth row is beyond every reflector: kept (up to the final sign).
        const double sign = f.q[15];
        EXPECT_EQ(std::fabs(sign), 1.0);
        for (int c = 0; c < 3; ++c) EXPECT_EQ(f.l[9 + c], sign * a[9 + c]);
        for (int i = 0; i < 3; ++i) {
          EXPECT_EQ(f.q[i * 4 + 3], 0.0);
          EXPECT_EQ(f.q[3 * 4 + i], 0.0);
        }
      }
    }
  }
}

TEST(HouseholderQL, ZeroColumnsAreSkipped) {
  double zero[9] = {0};
  QL f(3, 3);
  f.h.DecompositionQL(zero);
  EXPECT_EQ(f.q, Identity(3));
  EXPECT_EQ(f.l, std::vector<double>(9, 0.0));

  // Already lower triangular with a positive corner: nothing to reflect but the last
  // column's own sign handling; Q L still gives the input.
  double lower[9] = {2, 0, 0, 1, 3, 0, 4, 5, 6};
  QL g(3, 3);
  g.h.DecompositionQL(lower);
  std::vector<double> in(lower, lower + 9);
  EXPECT_LT(MaxAbsDiff(Product(g.q, g.l, 3, 3, 3), in), kFactorTol);

  QL none(3, 3);
  none.h.m_Q = nullptr;
  none.h.DecompositionQL(lower);  // no storage: nothing happens
  EXPECT_EQ(none.l, std::vector<double>(9, 0.0));
}

}  // namespace
