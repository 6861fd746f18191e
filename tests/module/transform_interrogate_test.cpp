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

// The Euler angles a, b and c of a matrix, as x, y and z.
P EulerAngles(const Matrix& matrix, short convention) {
  P angles{9, 9, 9};
  EXPECT_EQ(Ask()->GetEulerAngles(matrix.t, convention, &angles.x, &angles.y, &angles.z), S_OK);
  return angles;
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
  for (const auto& k : cases) {
    SCOPED_TRACE(k.label);
    ExpectNear(EulerAngles(k.matrix, 0), {k.a, k.b, k.c}, kRounding);
  }
}

TEST(TransformInterrogate, ConventionTwoReadsTheThirdRow) {
  // b = asin(m[9]); with k = sqrt(1 - m[9]^2): c = asin(-m[8] / k), a = asin(-m[1] / k).
  const double k = std::sqrt(0.75);
  ExpectNear(EulerAngles({{9, 0.5}, {8, -0.3 * k}, {1, 0.2 * k}}, 2), {std::asin(-0.2), kPi / 6, std::asin(0.3)},
             kRounding);
}

TEST(TransformInterrogate, ConventionTwoAtAQuarterTurnDividesByZeroAsStated) {
  const P angles = EulerAngles({{9, 1}, {8, 0.5}}, 2);
  EXPECT_NEAR(angles.y, kPi / 2, kRounding);
  EXPECT_TRUE(std::isnan(angles.x));
  EXPECT_TRUE(std::isnan(angles.z));
}

TEST(TransformInterrogate, ScaleIsTheLengthOfEachRowAndIgnoresTheProjectiveColumn) {
  // Rows (1, 2, 2 | 7), (0, 3, 4), (0, 0, 1): lengths 3, 5 and 1; the columns would give
  // 1, sqrt 13 and sqrt 21.
  const Matrix matrix{{1, 2}, {2, 2}, {3, 7}, {5, 3}, {6, 4}, {12, 4}, {13, -5}, {14, 6}};
  P scale{0, 0, 0}, move{0, 0, 0};
  ASSERT_EQ(Ask()->GetScale(matrix.t, &scale.x, &scale.y, &scale.z), S_OK);
  ExpectNear(scale, {3, 5, 1}, kRounding);
  ASSERT_EQ(Ask()->GetTranslation(matrix.t, &move.x, &move.y, &move.z), S_OK);
  ExpectNear(move, {4, -5, 6}, 0.0);
}

TEST(TransformInterrogate, NullTransformIsInvalid) {
  SmartPtr<ITransformInterrogate> ask = Ask();
  double v = 0;
  EXPECT_EQ(ask->GetEulerAngles(nullptr, 0, &v, &v, &v), E_INVALIDARG);
  EXPECT_EQ(ask->GetTranslation(nullptr, &v, &v, &v), E_INVALIDARG);
  EXPECT_EQ(ask->GetScale(nullptr, &v, &v, &v), E_INVALIDARG);
}

}  // namespace
