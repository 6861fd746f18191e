#include <cstdio>

#include "tools/zeltrim/Commands.h"

const char* const kObjectsHelp =
    "usage: zeltrim objects\n"
    "Lists the objects Zeltrim.so can create by name, and whether this build provides each.\n";

namespace {

const wchar_t* const kCreatableObjects[] = {
    L"CalibrationBestFit",      L"CalibrationDistortionRadial", L"CalibrationFitAndFilter",
    L"CalibrationFisheye",      L"CalibrationInfoPropPage",     L"CalibrationMatrixPropPage",
    L"CalibrationPolynomial",   L"CalibrationsCollection",      L"Camera3DCalibration",
    L"Camera3DCalibrationPlane", L"Camera3DTransform",          L"Camera3DTrinsic",
    L"CameraLinearCalibration", L"SingleViewGeometry",          L"MultiViewGeometry",
    L"TransformBestFit",        L"TransformInterrogate",        L"TransformResidualErrors",
};

}  // namespace

int RunObjects(CommandContext& context) {
  if (!context.args.empty()) return Fail("objects takes no arguments");
  int provided = 0;
  for (const wchar_t* name : kCreatableObjects) {
    const bool here = context.host->Provides(name);
    provided += here ? 1 : 0;
    std::printf("%-28ls %s\n", name, here ? "provided" : "not in this build");
  }
  std::printf("%d of %zu objects provided\n", provided, sizeof(kCreatableObjects) / sizeof(kCreatableObjects[0]));
  return 0;
}
