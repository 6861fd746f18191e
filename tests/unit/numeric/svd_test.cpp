#include "numeric/MatrixSVD.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "tests/unit/numeric/NumericTestSupport.h"

#ifdef ZELTRIM_HAVE_LAPACKE
#include <lapacke.h>
#endif

using numeric_test::MaxAbsDiff;
using numeric_test::Product;
using numeric_test::RandomMatrix;
using numeric_test::Transpose;

namespace {

const double kReconstructTol = 1e-12;
const double kOrthoTol = 1e-12;

struct Decomposition {
  std::vector<double> u, w, v;
  int code;
};

Decomposition Decompose(const std::vector<double>& a, int m, int n) {
  Decomposition d{a, std::vector<double>(n), std::vector<double>(static_cast<size_t>(n) * n), 0};
  d.code = CMatrixSVD().svdcmp(d.u.data(), m, n, d.w.data(), d.v.data());
  return d;
}

std::vector<double> Reconstruct(const Decomposition& d, int m, int n) {
  std::vector<double> uw = d.u;
  for (int i = 0; i < m; ++i)
    for (int j = 0; j < n; ++j) uw[i * n + j] *= d.w[j];
  return Product(uw, Transpose(d.v, n, n), m, n, n);
}

std::vector<double> IdentityOf(int n) {
  std::vector<double> id(static_cast<size_t>(n) * n, 0.0);
  for (int i = 0; i < n; ++i) id[i * n + i] = 1.0;
  return id;
}

TEST(Svd, DecomposesTheShapesTheModuleUses) {
  // 3x3, 3x4 (m < n), 4x3, 4x4, 2k x 6 and 2n x 9 design matrices.
  const int shapes[][2] = {{3, 3}, {3, 4}, {4, 3}, {4, 4}, {12, 6}, {40, 6}, {18, 9}, {200, 9}, {9, 9}};
  unsigned seed = 1000;
  for (const auto& s : shapes) {
    const int m = s[0], n = s[1];
    for (int rep = 0; rep < 5; ++rep) {
      SCOPED_TRACE(testing::Message() << m << " x " << n << " #" << rep);
      std::vector<double> a = RandomMatrix(m, n, ++seed, -10.0, 10.0);
      Decomposition d = Decompose(a, m, n);
      ASSERT_EQ(d.code, 0);
      const double scale = *std::max_element(d.w.begin(), d.w.end());
      EXPECT_LT(MaxAbsDiff(Reconstruct(d, m, n), a), kReconstructTol * scale);
      for (double x : d.w) EXPECT_GE(x, 0.0);
      // V orthogonal.
      EXPECT_LT(MaxAbsDiff(Product(Transpose(d.v, n, n), d.v, n, n, n), IdentityOf(n)), kOrthoTol);
      // Columns of U orthonormal where the singular value is not zero; with m < n the
      // surplus columns are zero.
      std::vector<double> utu = Product(Transpose(d.u, m, n), d.u, n, m, n);
      int zeros = 0;
      for (int i = 0; i < n; ++i) {
        if (d.w[i] < 1e-12 * scale) {
          ++zeros;
          continue;
        }
        for (int j = 0; j < n; ++j) {
          if (d.w[j] < 1e-12 * scale) continue;
          EXPECT_NEAR(utu[i * n + j], i == j ? 1.0 : 0.0, kOrthoTol);
        }
      }
      EXPECT_EQ(zeros, std::max(0, n - m));

#ifdef ZELTRIM_HAVE_LAPACKE
      std::vector<double> la = a, s_ref(std::min(m, n)), superb(std::min(m, n));
      ASSERT_EQ(LAPACKE_dgesvd(LAPACK_ROW_MAJOR, 'N', 'N', m, n, la.data(), n, s_ref.data(), nullptr, 1,
                               nullptr, 1, superb.data()),
                0);
      std::vector<double> ours = d.w;
      std::sort(ours.begin(), ours.end(), std::greater<double>());
      for (size_t i = 0; i < s_ref.size(); ++i) EXPECT_NEAR(ours[i], s_ref[i], 1e-12 * scale) << i;
      for (size_t i = s_ref.size(); i < ours.size(); ++i) EXPECT_LT(ours[i], 1e-12 * scale);
#endif
    }
  }
}

TEST(Svd, HandWorkedAndRankDeficientInputs) {
  // diag(3, -2): singular values 3 and 2, the sign moved into V.
  Decomposition d = Decompose({3, 0, 0, -2}, 2, 2);
  ASSERT_EQ(d.code, 0);
  std::vector<double> w = d.w;
  std::sort(w.begin(), w.end());
  EXPECT_NEAR(w[0], 2.0, 1e-15);
  EXPECT_NEAR(w[1], 3.0, 1e-15);

  // Rank one: outer product (1, 2, 2) (2, 1, 2) / 3 has the single value 3.
  std::vector<double> r1 = {2, 1, 2, 4, 2, 4, 4, 2, 4};
  for (double& x : r1) x /= 3.0;
  Decomposition e = Decompose(r1, 3, 3);
  ASSERT_EQ(e.code, 0);
  std::sort(e.w.begin(), e.w.end());
  EXPECT_NEAR(e.w[2], 3.0, 1e-14);
  EXPECT_NEAR(e.w[1], 0.0, 1e-14);
  EXPECT_NEAR(e.w[0], 0.0, 1e-14);

  Decomposition z = Decompose(std::vector<double>(12, 0.0), 4, 3);  // all zero
  ASSERT_EQ(z.code, 0);
  for (double x : z.w) EXPECT_EQ(x, 0.0);
  EXPECT_EQ(MaxAbsDiff(z.v, IdentityOf(3)), 0.0);
}

TEST(Svd, NonConvergenceAndBadArguments) {
  std::vector<double> a = RandomMatrix(4, 4, 5);
  a[5] = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(Decompose(a, 4, 4).code, E_FAIL);
  a[5] = std::numeric_limits<double>::infinity();
  EXPECT_EQ(Decompose(a, 4, 4).code, E_FAIL);

  CMatrixSVD svd;
  double m[4] = {1, 2, 3, 4}, w[2], v[4];
  EXPECT_EQ(svd.svdcmp(nullptr, 2, 2, w, v), E_FAIL);
  EXPECT_EQ(svd.svdcmp(m, 2, 2, nullptr, v), E_FAIL);
  EXPECT_EQ(svd.svdcmp(m, 2, 2, w, nullptr), E_FAIL);
  EXPECT_EQ(svd.svdcmp(m, 0, 2, w, v), E_FAIL);
  EXPECT_EQ(svd.svdcmp(m, 2, 0, w, v), E_FAIL);
}

TEST(SvdSolveAx0, FindsTheUnitNullVectorAndLeavesTheInputAlone) {
  // Rows orthogonal to (1, -2, 3, 0.5) / |.|, plus noise-free extra rows: 8 x 4.
  const double null[4] = {1, -2, 3, 0.5};
  std::vector<double> a = RandomMatrix(8, 4, 31);
  for (int r = 0; r < 8; ++r) {
    double dot = 0.0, nn = 0.0;
    for (int c = 0; c < 4; ++c) {
      dot += a[r * 4 + c] * null[c];
      nn += null[c] * null[c];
    }
    for (int c = 0; c < 4; ++c) a[r * 4 + c] -= dot / nn * null[c];
  }
  const std::vector<double> before = a;
  double x[4];
  CMatrixSVD().SolveAx0(a.data(), 8, 4, x);
  EXPECT_EQ(a, before);
  const double len = std::sqrt(1 + 4 + 9 + 0.25);
  const double sign = x[0] > 0 ? 1.0 : -1.0;
  for (int c = 0; c < 4; ++c) EXPECT_NEAR(x[c], sign * null[c] / len, 1e-12);
}

TEST(SvdSolveAx0, TiesKeepTheLowestIndex) {
  // Zero matrix: every value is 0, so column 0 of V (the identity) is chosen.
  double zeros[9] = {0};
  double x[3] = {9, 9, 9};
  CMatrixSVD().SolveAx0(zeros, 3, 3, x);
  EXPECT_EQ(std::fabs(x[0]), 1.0);
  EXPECT_EQ(x[1], 0.0);
  EXPECT_EQ(x[2], 0.0);

  // diag(2, 1, 1): the two smallest are equal and exact; index 1 wins over index 2.
  double d[9] = {2, 0, 0, 0, 1, 0, 0, 0, 1};
  CMatrixSVD().SolveAx0(d, 3, 3, x);
  EXPECT_EQ(x[0], 0.0);
  EXPECT_EQ(std::fabs(x[1]), 1.0);
  EXPECT_EQ(x[2], 0.0);

  double untouched[2] = {5, 6};
  CMatrixSVD().SolveAx0(d, 3, 0, untouched);
  EXPECT_EQ(untouched[0], 5.0);
}

}  // namespace
