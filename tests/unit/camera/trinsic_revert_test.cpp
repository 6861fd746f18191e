// Revert of the planar-target camera, which stands on no interface the module answers,
// on the class itself.
#include <gtest/gtest.h>

#include <cmath>

#include "camera/Camera3DTrinsic.h"

namespace {

constexpr double kBackToPixel = 1e-9;

TEST(Camera3DTrinsicRevert, GivesAPointOfTheRayThatConvertTakesBackToThePixel) {
  CCamera3DTrinsic camera;
  double* a = nullptr;
  double* e = nullptr;
  camera.GetMatrix(1, &a, nullptr, nullptr);
  camera.GetMatrix(2, &e, nullptr, nullptr);
  const double intrinsic[9] = {800, 0, 0, 0.5, 790, 0, 320, 240, 1};
  for (int i = 0; i < 9; ++i) a[i] = intrinsic[i];
  // A quarter turn about z and a move away from the camera.
  e[0] = 0, e[1] = 1, e[4] = -1, e[5] = 0;
  e[12] = -3, e[13] = -2, e[14] = 20;
  camera.GetMatrix(9, nullptr, nullptr, nullptr);
  const double pixels[3][2] = {{320, 240}, {5, 470}, {639, 1}};
  for (const auto& pixel : pixels) {
    double x = pixel[0], y = pixel[1], z = 1e6;  // the input z is ignored
    ASSERT_EQ(camera.Revert(&x, &y, &z), S_OK);
    camera.Convert(&x, &y, &z);
    EXPECT_NEAR(x, pixel[0], kBackToPixel);
    EXPECT_NEAR(y, pixel[1], kBackToPixel);
  }
}

TEST(Camera3DTrinsicRevert, AZeroCameraGivesNotANumberAndSucceeds) {
  CCamera3DTrinsic camera;
  double x = 1, y = 2, z = 3;
  EXPECT_EQ(camera.Revert(&x, &y, &z), S_OK);
  EXPECT_TRUE(std::isnan(x) && std::isnan(y) && std::isnan(z));
}

}  // namespace
