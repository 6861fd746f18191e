// The viewing line and the height estimate of the projective camera, which stand on no
// interface the module answers, on the class itself.
#include <gtest/gtest.h>

#include <array>
#include <cmath>

#include "camera/Camera3DTransform.h"

namespace {

constexpr double kRounding = 1e-9;

// Sets P (given by rows) into the camera's matrix, held by columns.
void SetRows(CCamera3DTransform* camera, const double (&p)[3][4]) {
  double* m = nullptr;
  camera->GetMatrix(&m, nullptr, nullptr);
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) m[3 * c + r] = p[r][c];
}

// A camera turned 30 degrees about z, moved by t, focal length 500, centre (320, 240):
// P = K [R | t], its centre -R^T t.
TEST(Camera3DTransformLine, EveryPointAlongTheLineFromTheCentreProjectsToThePixel) {
  const double c = std::cos(M_PI / 6), s = std::sin(M_PI / 6);
  const double r[3][3] = {{c, -s, 0}, {s, c, 0}, {0, 0, 1}}, t[3] = {0.5, -1, 8};
  const double k[3][3] = {{500, 0, 320}, {0, 500, 240}, {0, 0, 1}};
  double p[3][4];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 4; ++j) {
      p[i][j] = 0;
      for (int m = 0; m < 3; ++m) p[i][j] += k[i][m] * (j < 3 ? r[m][j] : t[m]);
    }
  double centre[3];
  for (int j = 0; j < 3; ++j) centre[j] = -(r[0][j] * t[0] + r[1][j] * t[1] + r[2][j] * t[2]);
  CCamera3DTransform camera;
  SetRows(&camera, p);
  for (const auto& pixel : {std::array<double, 2>{100, 50}, std::array<double, 2>{600, 400}}) {
    double direction[3] = {0, 0, 0};
    ASSERT_EQ(camera.SolveLine(direction, nullptr, pixel[0], pixel[1], 0.0), S_OK);
    for (double along : {1.0, -3.0, 10.0}) {
      double x = centre[0] + along * direction[0], y = centre[1] + along * direction[1],
             z = centre[2] + along * direction[2];
      camera.Convert(&x, &y, &z);
      EXPECT_NEAR(x, pixel[0], kRounding * 1e3);
      EXPECT_NEAR(y, pixel[1], kRounding * 1e3);
    }
  }
}

// A camera at the origin looking along z with focal length f: the ray of (u, v) runs from
// the origin along (f u, f v, f^2), and two points `distance` apart at depth z are
// distance f / z pixels apart, so z = f distance / |pixel difference|. The other root of
// the quadratic is -z.
TEST(Camera3DTransformLine, PlanarZOfACameraAtTheOriginIsTheLargerRootOfTheSeparation) {
  const double f = 400;
  const double p[3][4] = {{f, 0, 0, 0}, {0, f, 0, 0}, {0, 0, 1, 0}};
  CCamera3DTransform camera;
  SetRows(&camera, p);
  double direction[3], point[3] = {9, 9, 9};
  ASSERT_EQ(camera.SolveLine(direction, point, 3, -4, 0.0), S_OK);
  EXPECT_NEAR(direction[0], f * 3, kRounding);
  EXPECT_NEAR(direction[1], f * -4, kRounding);
  EXPECT_NEAR(direction[2], f * f, kRounding);
  EXPECT_EQ(point[0], 0.0);
  EXPECT_EQ(point[1], 0.0);
  EXPECT_EQ(point[2], 0.0);
  double z = -1;
  ASSERT_EQ(camera.EstimatePlanarZ(10, 20, 40, 60, 2.5, &z), S_OK);
  EXPECT_NEAR(z, f * 2.5 / 50.0, kRounding);
}

}  // namespace
