#include "numeric/MatrixVariance.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "tests/unit/numeric/NumericTestSupport.h"

using numeric_test::AxisRotation;
using numeric_test::Balanced;
using numeric_test::HostPoints;
using numeric_test::Product;
using numeric_test::RandomMatrix;
using numeric_test::Transpose;

namespace {

const double kTol = 1e-12;

TEST(Variance, MeansOfPointSets) {
  SmartPtr<IPointsCollection> points = HostPoints({1, 2, 3, 3, 2, 1, 2, 8, -1});
  CMatrixVariance v;
  double out[3];
  v.CalcMean(points, out);
  EXPECT_NEAR(out[0], 2.0, kTol);
  EXPECT_NEAR(out[1], 4.0, kTol);
  EXPECT_NEAR(out[2], 1.0, kTol);
  v.CalcMean(points, nullptr);  // into the first mean of the record
  EXPECT_NEAR(v.m_Mean1[1], 4.0, kTol);
  EXPECT_TRUE(Balanced(points));

  SmartPtr<IPointsCollection> empty = HostPoints({});
  v.CalcMean(empty, out);
  EXPECT_EQ(out[0], 0.0);
  EXPECT_EQ(out[1], 0.0);
  EXPECT_EQ(out[2], 0.0);
}

TEST(Variance, CovarianceOfARotatedScaledTranslatedSet) {
  const int n = 25;
  std::vector<double> first = RandomMatrix(n, 3, 9, -10, 10);
  std::vector<double> r = AxisRotation(1, -2, 0.5, 0.7);
  const double scale = 2.5, shift[3] = {4, -1, 7};
  // second_i = scale * R first_i + shift (column vectors)
  std::vector<double> second = Product(first, Transpose(r, 3, 3), n, 3, 3);
  for (int i = 0; i < n; ++i)
    for (int c = 0; c < 3; ++c) second[i * 3 + c] = scale * second[i * 3 + c] + shift[c];

  SmartPtr<IPointsCollection> p1 = HostPoints(first), p2 = HostPoints(second);
  CMatrixVariance v;
  ASSERT_EQ(v.CreateCoVariance(p1, p2), 0);
  EXPECT_TRUE(Balanced(p1));
  EXPECT_TRUE(Balanced(p2));

  // Independent: mean, centred first set S, covariance = scale R (S^T S / n).
  double mean[3] = {0, 0, 0};
  for (int i = 0; i < n; ++i)
    for (int c = 0; c < 3; ++c) mean[c] += first[i * 3 + c] / n;
  std::vector<double> s = first;
  for (int i = 0; i < n; ++i)
    for (int c = 0; c < 3; ++c) s[i * 3 + c] -= mean[c];
  std::vector<double> sts = Product(Transpose(s, n, 3), s, 3, n, 3);
  std::vector<double> expected = Product(r, sts, 3, 3, 3);
  for (int i = 0; i < 9; ++i) EXPECT_NEAR(v.m_Covariance[i], scale * expected[i] / n, 1e-9);
  for (int c = 0; c < 3; ++c) {
    EXPECT_NEAR(v.m_Mean1[c], mean[c], 1e-12);
    double rm = 0.0;
    for (int k = 0; k < 3; ++k) rm += r[c * 3 + k] * mean[k];
    EXPECT_NEAR(v.m_Mean2[c], scale * rm + shift[c], 1e-11);
  }
  EXPECT_NEAR(v.m_Scale, scale, 1e-12);
}

TEST(Variance, UnequalLengthsUseEverySetForItsMeanAndTheShorterForTheSum) {
  SmartPtr<IPointsCollection> p1 = HostPoints({0, 0, 0, 2, 0, 0, 0, 2, 0, 100, 100, 100});  // 4 points
  SmartPtr<IPointsCollection> p2 = HostPoints({1, 1, 1, 3, 1, 1, 1, 3, 1});                  // 3 points
  CMatrixVariance v;
  ASSERT_EQ(v.CreateCoVariance(p1, p2), 0);
  EXPECT_NEAR(v.m_Mean1[0], 25.5, kTol);  // all four points
  EXPECT_NEAR(v.m_Mean2[0], 5.0 / 3.0, kTol);
  // Hand-worked entry (0, 0): sum over the three pairs of t0 * s0, divided by 3.
  const double s0[3] = {-25.5, -23.5, -25.5}, t0[3] = {-2.0 / 3, 4.0 / 3, -2.0 / 3};
  double c00 = 0.0;
  for (int i = 0; i < 3; ++i) c00 += t0[i] * s0[i];
  EXPECT_NEAR(v.m_Covariance[0], c00 / 3.0, 1e-12);
}

TEST(Variance, FewerThanThreePairsFailAndKeepTheRecord) {
  SmartPtr<IPointsCollection> p1 = HostPoints({0, 0, 0, 1, 1, 1}), p2 = HostPoints({1, 0, 0, 0, 1, 0, 0, 0, 1});
  CMatrixVariance v;
  v.m_Scale = 42.0;
  v.m_Covariance[4] = -3.0;
  v.m_Mean2[2] = 8.0;
  EXPECT_EQ(v.CreateCoVariance(p1, p2), E_FAIL);
  EXPECT_EQ(v.CreateCoVariance(nullptr, p2), E_FAIL);
  EXPECT_EQ(v.m_Scale, 42.0);
  EXPECT_EQ(v.m_Covariance[4], -3.0);
  EXPECT_EQ(v.m_Mean2[2], 8.0);
}

}  // namespace
