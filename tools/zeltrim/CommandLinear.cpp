#include <cstdio>
#include <iostream>

#include "tools/zeltrim/Commands.h"
#include "tools/zeltrim/PointText.h"

const char* const kLinearHelp =
    "usage: zeltrim linear [options] [POINT ...]\n"
    "Converts camera points to world points with a hand-set linear calibration\n"
    "(or back, with --revert). POINT is x,y or x,y,z; without points, lines of\n"
    "\"x y [z]\" are read from standard input ('#' lines and blank lines skipped).\n"
    "Options (angles in degrees):\n"
    "  --camera-origin X,Y   origin of the camera plane\n"
    "  --camera-roll A       rotation of the camera plane about its origin\n"
    "  --scale SX,SY,SZ      camera units to world units (0 counts as 1)\n"
    "  --origin X,Y,Z        translation of the scaled camera plane\n"
    "  --roll A, --pitch A, --yaw A   rotation into the world, applied last\n"
    "  --revert              world points to camera points\n";

namespace {

struct LinearSettings {
  double cameraOrigin[2] = {0, 0};
  double cameraRoll = 0;
  double scale[3] = {1, 1, 1};
  double origin[3] = {0, 0, 0};
  double roll = 0, pitch = 0, yaw = 0;
  bool revert = false;
  std::vector<std::string> points;
};

bool ParseSettings(const std::vector<std::string>& args, LinearSettings* s, std::string* error) {
  struct Option {
    const char* name;
    int count;
    double* values;
    const char* form;
  };
  const Option options[] = {
      {"--camera-origin", 2, s->cameraOrigin, "X,Y"}, {"--camera-roll", 1, &s->cameraRoll, "an angle"},
      {"--scale", 3, s->scale, "SX,SY,SZ"},            {"--origin", 3, s->origin, "X,Y,Z"},
      {"--roll", 1, &s->roll, "an angle"},             {"--pitch", 1, &s->pitch, "an angle"},
      {"--yaw", 1, &s->yaw, "an angle"},
  };
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--revert") {
      s->revert = true;
      continue;
    }
    const Option* option = nullptr;
    for (const Option& o : options)
      if (a == o.name) option = &o;
    if (option) {
      if (i + 1 >= args.size() || !ParseNumbers(args[i + 1], option->count, option->values)) {
        *error = a + " needs " + option->form;
        return false;
      }
      ++i;
    } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
      *error = "unknown option " + a;
      return false;
    } else {
      s->points.push_back(a);
    }
  }
  return true;
}

}  // namespace

int RunLinear(CommandContext& context) {
  LinearSettings s;
  std::string error;
  if (!ParseSettings(context.args, &s, &error)) return Fail(error);

  std::vector<Point3> points;
  for (const std::string& text : s.points) {
    Point3 p;
    if (!ParsePoint(text, &p, &error)) return Fail(error);
    points.push_back(p);
  }
  if (s.points.empty() && !ReadPoints(std::cin, &points, &error)) return Fail("standard input, " + error);

  SmartPtr<ICameraLinearCalibration> calibration =
      context.host->Create<ICameraLinearCalibration>(L"CameraLinearCalibration");
  if (!calibration) return Fail("CameraLinearCalibration: " + context.host->Error(), 1);
  calibration->SetCameraOrigin(s.cameraOrigin[0], s.cameraOrigin[1]);
  calibration->SetCameraRoll(s.cameraRoll);
  calibration->SetScale(s.scale[0], s.scale[1], s.scale[2]);
  calibration->SetOrigin(s.origin[0], s.origin[1], s.origin[2]);
  calibration->SetRoll(s.roll);
  calibration->SetPitch(s.pitch);
  calibration->SetYaw(s.yaw);

  for (Point3 p : points) {
    const HRESULT hr = s.revert ? calibration->Revert(&p.x, &p.y, &p.z) : calibration->Convert(&p.x, &p.y, &p.z);
    if (hr < 0) return Fail("conversion failed (is the Geometry peer module installed?)", 1);
    std::printf("%s\n", FormatPoint(p).c_str());
  }
  return 0;
}
