// Translation, scale and Euler angles read out of a homogeneous matrix (row-major, row
// vectors, m[0] .. m[15]), against hand-worked matrices in a host transform.
#include "tests/module/PropertySuite.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kRounding = 1e-12;

const property::ClassTraits kInterrogate{
    .name = L"TransformInterrogate",
    .routes = {{&IID_IObjectInfo}, {&IID_ITransformInterrogate}},
};
ZELTRIM_PROPERTY_CLASS(kInterrogate);

struct Matrix {
  SmartPtr<IHomogeneousTransform> t = LoadedModule::Get().CreateHost<IHomogeneousTransform>(L"HomogeneousTransform");
  double* m = nullptr;
  Matrix(std::initializer_list<std::pair<int, double>> entries) {
    t->GetMatrix(&m, nullptr, nullptr);
    for (const auto& [index, value] : entries) m[index] = value;
  }
};

SmartPtr<ITransformInterrogate> Ask() {
  return LoadedModule::Get().Create<ITransformInterrogate>(L"TransformInterrogate");
}

TEST(TransformInterrogate, EulerAnglesOfEachBranch) {
  const double c4 = std::cos(0.4), s4 = std::sin(0.4), c2 = std::cos(0.2), s2 = std::sin(0.2);
  const double c25 = std::cos(2.5), s25 = std::sin(2.5);
  const struct {
    const char* label;
    Matrix matrix;
    double a, b, c;
  } cases[] = {
      {"identity", {}, 0, 0, 0},
      // b = -asin(m[2]); a = atan2(m[1], m[0]); c = atan2(m[6], m[10]).
      {"general", {{0, c4}, {1, s4}, {2, std::sin(0.3)}, {6, s2}, {10, c2}}, 0.4, -0.3, 0.2},
      // Beyond a quarter turn both a and c fold back by pi, losing the quadrant.
      {"folded", {{0, c25}, {1, s25}, {6, -s25}, {10, c25}}, 2.5 - kPi, 0, kPi - 2.5},
      {"m[2] = 1", {{0, c4}, {1, s4}, {2, 1}, {4, 0.6}, {8, 0.8}}, 0, std::atan2(-0.6, -0.8), kPi / 2},
      {"m[2] = -1", {{0, c4}, {1, s4}, {2, -1}, {4, 0.6}, {8, 0.8}}, 0, std::atan2(0.6, 0.8), -kPi / 2},
  };
  SmartPtr<ITransformInterrogate> ask = Ask();
  for (const auto& k : cases) {
    double a = 9, b = 9, c = 9;
    ASSERT_EQ(ask->GetEulerAngles(k.matrix.t, 0, &a, &b, &c), S_OK) << k.label;
    EXPECT_NEAR(a, k.a, kRounding) << k.label;
    EXPECT_NEAR(b, k.b, kRounding) << k.label;
    EXPECT_NEAR(c, k.c, kRounding) << k.label;
  }
}

TEST(TransformInterrogate, ConventionTwoReadsTheThirdRow) {
  // b = asin(m[9]); with k = sqrt(1 - m[9]^2): c = asin(-m[8] / k), a = asin(-m[1] / k).
  const double k = std::sqrt(0.75);
  const Matrix matrix{{9, 0.5}, {8, -0.3 * k}, {1, 0.2 * k}};
  double a = 9, b = 9, c = 9;
  ASSERT_EQ(Ask()->GetEulerAngles(matrix.t, 2, &a, &b, &c), S_OK);
  EXPECT_NEAR(b, kPi / 6, kRounding);
  EXPECT_NEAR(c, std::asin(0.3), kRounding);
  EXPECT_NEAR(a, std::asin(-0.2), kRounding);
}

TEST(TransformInterrogate, ConventionTwoAtAQuarterTurnDividesByZeroAsStated) {
  const Matrix matrix{{9, 1}, {8, 0.5}};
  double a = 9, b = 9, c = 9;
  ASSERT_EQ(Ask()->GetEulerAngles(matrix.t, 2, &a, &b, &c), S_OK);
  EXPECT_NEAR(b, kPi / 2, kRounding);
  EXPECT_TRUE(std::isnan(a));
  EXPECT_TRUE(std::isnan(c));
}

TEST(TransformInterrogate, ScaleIsTheLengthOfEachRowAndIgnoresTheProjectiveColumn) {
  // Rows (1, 2, 2 | 7), (0, 3, 4), (0, 0, 1): lengths 3, 5 and 1; the columns would give
  // 1, sqrt 13 and sqrt 21.
  const Matrix matrix{{1, 2}, {2, 2}, {3, 7}, {5, 3}, {6, 4}, {12, 4}, {13, -5}, {14, 6}};
  SmartPtr<ITransformInterrogate> ask = Ask();
  double x = 0, y = 0, z = 0;
  ASSERT_EQ(ask->GetScale(matrix.t, &x, &y, &z), S_OK);
  EXPECT_NEAR(x, 3.0, kRounding);
  EXPECT_NEAR(y, 5.0, kRounding);
  EXPECT_NEAR(z, 1.0, kRounding);
  ASSERT_EQ(ask->GetTranslation(matrix.t, &x, &y, &z), S_OK);
  EXPECT_EQ(x, 4.0);
  EXPECT_EQ(y, -5.0);
  EXPECT_EQ(z, 6.0);
}

TEST(TransformInterrogate, NullTransformIsInvalid) {
  SmartPtr<ITransformInterrogate> ask = Ask();
  double v = 0;
  EXPECT_EQ(ask->GetEulerAngles(nullptr, 0, &v, &v, &v), E_INVALIDARG);
  EXPECT_EQ(ask->GetTranslation(nullptr, &v, &v, &v), E_INVALIDARG);
  EXPECT_EQ(ask->GetScale(nullptr, &v, &v, &v), E_INVALIDARG);
}

}  // namespace
