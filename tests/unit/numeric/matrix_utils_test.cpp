#include "numeric/MatrixUtils.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "frame/Object.h"
#include "frame/RefString.h"
#include "tests/unit/TestText.h"
#include "tests/unit/numeric/NumericTestSupport.h"

using numeric_test::MaxAbsDiff;
using numeric_test::Product;
using numeric_test::RandomMatrix;
using test_text::TextOf;
using test_text::View;

namespace {

const double kRoundingTol = 1e-12;
const double kSixDecimals = 5e-7;  // "%f" keeps six decimals

std::vector<double> Identity3() { return {1, 0, 0, 0, 1, 0, 0, 0, 1}; }

// The text form that AppendText gives a matrix, through a host string.
std::wstring TextForm(const double* m, int rows, int cols) {
  SmartPtr<ICreatableString> text;
  text.Attach(CREFString::CreateString());
  CMatrixUtils::AppendText(text, m, rows, cols);
  return TextOf(text);
}

TEST(MatrixUtilsInverse3, ProductWithInputIsIdentity) {
  CMatrixUtils u;
  for (unsigned seed = 1; seed <= 20; ++seed) {
    std::vector<double> a = RandomMatrix(3, 3, seed);
    std::vector<double> inv(9, 0.0);
    u.Inverse3(a.data(), inv.data());
    EXPECT_LT(MaxAbsDiff(Product(a, inv, 3, 3, 3), Identity3()), 1e-9) << "seed " << seed;
    EXPECT_LT(MaxAbsDiff(Product(inv, a, 3, 3, 3), Identity3()), 1e-9) << "seed " << seed;
  }
}

TEST(MatrixUtilsInverse3, HandWorkedDiagonalAndShear) {
  CMatrixUtils u;
  double a[9] = {2, 0, 0, 0, 4, 0, 0, 0, 8}, shear[9] = {1, 2, 0, 0, 1, 0, 0, 0, 1}, inv[9];
  u.Inverse3(a, inv);
  EXPECT_EQ(std::vector<double>(inv, inv + 9), (std::vector<double>{0.5, 0, 0, 0, 0.25, 0, 0, 0, 0.125}));
  u.Inverse3(shear, inv);  // inverse: -2 in the same place
  EXPECT_EQ(std::vector<double>(inv, inv + 9), (std::vector<double>{1, -2, 0, 0, 1, 0, 0, 0, 1}));
}

TEST(MatrixUtilsInverse3, SingularOrTinyDeterminantLeavesTargetAlone) {
  CMatrixUtils u;
  double singular[9] = {1, 2, 3, 2, 4, 6, 0, 1, 1};  // row 1 = 2 * row 0
  double tiny[9] = {1e-6, 0, 0, 0, 1e-6, 0, 0, 0, 1e-6};  // det 1e-18, below DBL_EPSILON
  for (double* m : {singular, tiny}) {
    double dst[9];
    for (int i = 0; i < 9; ++i) dst[i] = 42.0 + i;
    u.Inverse3(m, dst);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(dst[i], 42.0 + i);
  }
}

TEST(MatrixUtilsMultiply, MatchesIndependentProductForModuleShapes) {
  CMatrixUtils u;
  const int shapes[][3] = {{3, 3, 3}, {3, 4, 4}, {4, 4, 3}, {1, 9, 1}, {2, 5, 7}};
  unsigned seed = 100;
  for (const auto& s : shapes) {
    std::vector<double> a = RandomMatrix(s[0], s[1], ++seed);
    std::vector<double> b = RandomMatrix(s[1], s[2], ++seed);
    std::vector<double> c(static_cast<size_t>(s[0]) * s[2], 99.0);
    u.Multiply(a.data(), b.data(), c.data(), s[0], s[1], s[2]);
    EXPECT_LT(MaxAbsDiff(c, Product(a, b, s[0], s[1], s[2])), kRoundingTol);
  }
}

TEST(MatrixUtilsMultiply, NoRowsWriteNothingAndNoInnerDimensionWritesZeros) {
  CMatrixUtils u;
  double a[4] = {1, 2, 3, 4}, b[4] = {5, 6, 7, 8}, c[4] = {9, 9, 9, 9};
  u.Multiply(a, b, c, 0, 2, 2);
  EXPECT_EQ(std::vector<double>(c, c + 4), std::vector<double>(4, 9.0));
  u.Multiply(a, b, c, 2, 0, 2);
  EXPECT_EQ(std::vector<double>(c, c + 4), std::vector<double>(4, 0.0));
}

// Row vector times the 4 x 4 matrix, as the transforms of the module apply it.
std::vector<double> RowTimes(const double* v, const double* m) {
  std::vector<double> r(3, 0.0);
  for (int c = 0; c < 3; ++c)
    for (int k = 0; k < 3; ++k) r[c] += v[k] * m[k * 4 + c];
  return r;
}

TEST(MatrixUtilsSetHomogeneousRotation, CarriesFromOntoTo) {
  CMatrixUtils u;
  for (unsigned seed = 1; seed <= 20; ++seed) {
    std::vector<double> d = RandomMatrix(2, 3, seed, -3.0, 3.0);
    double from[3] = {d[0], d[1], d[2]}, to[3] = {d[3], d[4], d[5]};
    double m[16];
    ASSERT_EQ(u.SetHomogeneousRotation(m, from, to), 0);
    // Both directions come back normalised.
    EXPECT_NEAR(std::sqrt(from[0] * from[0] + from[1] * from[1] + from[2] * from[2]), 1.0, kRoundingTol);
    EXPECT_NEAR(std::sqrt(to[0] * to[0] + to[1] * to[1] + to[2] * to[2]), 1.0, kRoundingTol);
    std::vector<double> image = RowTimes(from, m);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(image[c], to[c], 1e-9) << "seed " << seed;
    // A rotation: orthonormal 3 x 3 block, determinant +1, homogeneous row and column.
    std::vector<double> r = {m[0], m[1], m[2], m[4], m[5], m[6], m[8], m[9], m[10]};
    EXPECT_LT(MaxAbsDiff(Product(r, numeric_test::Transpose(r, 3, 3), 3, 3, 3), Identity3()), 1e-12);
    const double det = r[0] * (r[4] * r[8] - r[5] * r[7]) - r[1] * (r[3] * r[8] - r[5] * r[6]) +
                       r[2] * (r[3] * r[7] - r[4] * r[6]);
    EXPECT_NEAR(det, 1.0, 1e-12);
    EXPECT_EQ((std::vector<double>{m[3], m[7], m[11], m[12], m[13], m[14], m[15]}),
              (std::vector<double>{0, 0, 0, 0, 0, 0, 1}));
  }
}

TEST(MatrixUtilsSetHomogeneousRotation, ParallelAndOppositeGiveIdentityAndOne) {
  CMatrixUtils u;
  double same1[3] = {1, 2, 3}, same2[3] = {2, 4, 6};
  double opp1[3] = {0, 0, 5}, opp2[3] = {0, 0, -1};
  for (auto pair : {std::make_pair(same1, same2), std::make_pair(opp1, opp2)}) {
    double m[16];
    for (double& x : m) x = 7.0;
    EXPECT_EQ(u.SetHomogeneousRotation(m, pair.first, pair.second), 1);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(m[i], i % 5 == 0 ? 1.0 : 0.0);
  }
}

TEST(MatrixUtilsSetHomogeneousRotation, ZeroDirectionLeavesMatrixAlone) {
  CMatrixUtils u;
  double zero[3] = {0, 0, 0}, dir[3] = {1, 0, 0};
  double m[16];
  for (double& x : m) x = 7.0;
  EXPECT_EQ(u.SetHomogeneousRotation(m, zero, dir), -1);
  EXPECT_EQ(u.SetHomogeneousRotation(m, dir, zero), -1);
  for (double x : m) EXPECT_EQ(x, 7.0);
}

TEST(MatrixUtilsText, RoundTripThroughTheTextForm) {
  CMatrixUtils u;
  const int shapes[][2] = {{2, 2}, {4, 3}, {4, 4}, {1, 6}};
  unsigned seed = 7;
  for (const auto& s : shapes) {
    std::vector<double> m = RandomMatrix(s[0], s[1], ++seed, -1000.0, 1000.0);
    std::vector<double> back(m.size(), -1.0);
    EXPECT_EQ(u.fromString(View(TextForm(m.data(), s[0], s[1])), back.data(), s[0], s[1]), S_OK);
    EXPECT_LT(MaxAbsDiff(m, back), kSixDecimals);
  }
}

TEST(MatrixUtilsText, ParserCases) {
  CMatrixUtils u;
  auto parse = [&](const std::wstring& s, int count) {
    std::vector<double> m(static_cast<size_t>(count), 77.0);
    EXPECT_EQ(u.fromString(View(s), m.data(), 1, count), S_OK);
    return m;
  };
  // A lone plus sign and a lone hash sign read as 0.
  EXPECT_EQ(parse(L"#ff -.5 + # #7fffffff #aBc", 6), (std::vector<double>{255, -0.5, 0, 0, 2147483647.0, 2748}));
  // No exponent, a glued comma, a second point, junk after the digits.
  EXPECT_EQ(parse(L"1.5e3 2.25, 3..5 -7x9 12", 5), (std::vector<double>{1.5, 2.25, 3, -7, 12}));
  EXPECT_EQ(parse(L"1\t2\r\n3\v4\f5", 5), (std::vector<double>{1, 2, 3, 4, 5}));  // every separator of the set
  // Fewer tokens than elements: the rest keep their values.
  EXPECT_EQ(parse(L"  4 5 ", 4), (std::vector<double>{4, 5, 77, 77}));
  // The remains of a byte-order mark are skipped.
  EXPECT_EQ(parse(std::wstring{wchar_t(239), wchar_t(254)} + L"6.5 7", 2), (std::vector<double>{6.5, 7}));
}

TEST(MatrixUtilsText, EmptyOrNullTextLeavesMatrixAlone) {
  CMatrixUtils u;
  double m[2] = {3.0, 4.0};
  EXPECT_EQ(u.fromString(tagREFString{0, nullptr}, m, 1, 2), S_OK);
  EXPECT_EQ(u.fromString(tagREFString{-5, L"1 2"}, m, 1, 2), S_OK);
  EXPECT_EQ(m[0], 3.0);
  EXPECT_EQ(m[1], 4.0);
  EXPECT_EQ(u.fromString(View(L"1 2"), nullptr, 1, 2), S_OK);
}

TEST(MatrixUtilsText, ToStringMakesAHostStringTheParserReadsBack) {
  CMatrixUtils u;
  double m[6] = {1.5, -2.0, 0.25, 100.0, 3.125, -0.5};
  SmartPtr<IString> text;
  text.Attach(u.toString(m, 2, 3));
  const std::wstring s = TextOf(text);
  EXPECT_EQ(s, L"1.500000, -2.000000, 0.250000\n100.000000, 3.125000, -0.500000\n");
  double back[6] = {0};
  u.fromString(View(s), back, 2, 3);
  EXPECT_EQ(std::vector<double>(back, back + 6), std::vector<double>(m, m + 6));
  text.Attach(u.toString(m, 0, 3));
  EXPECT_EQ(TextOf(text), L"");
}

}  // namespace
