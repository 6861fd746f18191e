// A minimal host: loads Zeltrim.so and its peers from an installation, creates a hand-set
// linear calibration by name, converts one point and prints it.
#include <cstdio>

#include "host/client/ModuleHost.h"

#ifndef ZELTRIM_MODULE_DIR
#error "build with -DZELTRIM_MODULE_DIR=\"<prefix>/lib/zeltrim\" (find_package or pkg-config give it)"
#endif

int main() {
  // Load changes to the folder that holds _binlinux/ (peers are found relative to the
  // working folder), then loads the global component collection and the module.
  ModuleHost host;
  if (!host.Load(ZELTRIM_MODULE_DIR)) {
    std::fprintf(stderr, "minimal-host: %s\n", host.Error().c_str());
    return 1;
  }

  SmartPtr<ICameraLinearCalibration> calibration =
      host.Create<ICameraLinearCalibration>(L"CameraLinearCalibration");
  if (!calibration) {
    std::fprintf(stderr, "minimal-host: CameraLinearCalibration: %s\n", host.Error().c_str());
    return 1;
  }
  // Camera units to world units: scale by 2, then move the origin to (10, 20, 0).
  calibration->SetScale(2, 2, 1);
  calibration->SetOrigin(10, 20, 0);

  double x = 3, y = 4, z = 0;
  if (calibration->Convert(&x, &y, &z) < 0) {
    std::fprintf(stderr, "minimal-host: Convert failed\n");
    return 1;
  }
  std::printf("(3, 4, 0) -> (%g, %g, %g)\n", x, y, z);
  return 0;  // the calibration is released before the host that made it
}
