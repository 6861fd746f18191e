#include <cstdio>
#include <iostream>

#include "tools/zeltrim/Commands.h"
#include "tools/zeltrim/PointText.h"

const char* const kLinearHelp =
    "usage: zeltrim linear [options] [POINT ...]\n"
    "Converts camera points to world points with a hand-set linear calibration\n"
    "(or back, with --revert). POINT is x,y or x,y,z; without points, lines of\n"
    "\"x y [z]\" are read from standard input ('#' lines and blank lines skipped),\n"
    "unless --save is given.\n"
    "Options (angles in degrees):\n"
    "  --load FILE           start from a saved linear calibration (.xml or .t...)\n"
    "  --camera-origin X,Y   origin of the camera plane\n"
    "  --camera-roll A       rotation of the camera plane about its origin\n"
    "  --scale SX,SY,SZ      camera units to world units (0 counts as 1)\n"
    "  --origin X,Y,Z        translation of the scaled camera plane\n"
    "  --roll A, --pitch A, --yaw A   rotation into the world, applied last\n"
    "  --units CODE          unit of the world: 1 um, 2 mm, 3 m, 4 km, 5 mil, 6 in, 7 ft;\n"
    "                        changing it converts the scales\n"
    "  --name TEXT           the calibration's name\n"
    "  --save FILE           save the calibration (.xml XML, .t... folder stream)\n"
    "  --revert              world points to camera points\n";

namespace {

// Options that are given apply in this order, after --load.
enum Setting { CAMERA_ORIGIN, CAMERA_ROLL, SCALE, ORIGIN, ROLL, PITCH, YAW, UNITS, SETTING_COUNT };

struct LinearSettings {
  double values[SETTING_COUNT][3] = {};
  bool given[SETTING_COUNT] = {};
  bool revert = false;
  std::string load, save, name;
  std::vector<std::string> points;
};

bool ParseSettings(const CommandContext& context, LinearSettings* s, std::string* error) {
  struct Option {
    const char* name;
    Setting setting;
    int count;
    const char* form;
  };
  const Option options[] = {
      {"--camera-origin", CAMERA_ORIGIN, 2, "X,Y"}, {"--camera-roll", CAMERA_ROLL, 1, "an angle"},
      {"--scale", SCALE, 3, "SX,SY,SZ"},            {"--origin", ORIGIN, 3, "X,Y,Z"},
      {"--roll", ROLL, 1, "an angle"},              {"--pitch", PITCH, 1, "an angle"},
      {"--yaw", YAW, 1, "an angle"},                {"--units", UNITS, 1, "a unit code"},
  };
  const std::vector<std::string>& args = context.args;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--revert") {
      s->revert = true;
      continue;
    }
    if (a == "--load" || a == "--save" || a == "--name") {
      if (i + 1 >= args.size()) return *error = a + " needs " + (a == "--name" ? "a text" : "a file name"), false;
      const std::string& value = args[++i];
      if (a == "--name")
        s->name = value;
      else
        (a == "--load" ? s->load : s->save) = AbsolutePath(value, context.startDir);
      continue;
    }
    const Option* option = nullptr;
    for (const Option& o : options)
      if (a == o.name) option = &o;
    if (option) {
      if (i + 1 >= args.size() || !ParseNumbers(args[i + 1], option->count, s->values[option->setting])) {
        *error = a + " needs " + option->form;
        return false;
      }
      s->given[option->setting] = true;
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

void Apply(const LinearSettings& s, ICameraLinearCalibration* c, ModuleHost& host) {
  const auto& v = s.values;
  if (s.given[CAMERA_ORIGIN]) c->SetCameraOrigin(v[CAMERA_ORIGIN][0], v[CAMERA_ORIGIN][1]);
  if (s.given[CAMERA_ROLL]) c->SetCameraRoll(v[CAMERA_ROLL][0]);
  if (s.given[SCALE]) c->SetScale(v[SCALE][0], v[SCALE][1], v[SCALE][2]);
  if (s.given[ORIGIN]) c->SetOrigin(v[ORIGIN][0], v[ORIGIN][1], v[ORIGIN][2]);
  if (s.given[ROLL]) c->SetRoll(v[ROLL][0]);
  if (s.given[PITCH]) c->SetPitch(v[PITCH][0]);
  if (s.given[YAW]) c->SetYaw(v[YAW][0]);
  SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(c);
  if (info && s.given[UNITS]) info->put_CALIBUnits(static_cast<int>(v[UNITS][0]));
  if (info && !s.name.empty()) info->put_CALIBName(host.NewString(s.name));
}

}  // namespace

int RunLinear(CommandContext& context) {
  LinearSettings s;
  std::string error;
  if (!ParseSettings(context, &s, &error)) return Fail(error);
  if (const int status = CheckSavePath(s.save)) return status;

  std::vector<Point3> points;
  if (!ParsePoints(s.points, &points, &error)) return Fail(error);
  if (s.points.empty() && s.save.empty() && !ReadPoints(std::cin, &points, &error))
    return Fail("standard input, " + error);

  SmartPtr<ICameraLinearCalibration> calibration =
      context.host->Create<ICameraLinearCalibration>(L"CameraLinearCalibration");
  if (!calibration) return Fail("CameraLinearCalibration: " + context.host->Error(), 1);
  if (!s.load.empty() && context.host->Archive(calibration, s.load, false) < 0)
    return Fail("cannot load " + s.load + ": " + context.host->Error());
  Apply(s, calibration, *context.host);
  if (!s.save.empty()) {
    if (context.host->Archive(calibration, s.save, true) < 0)
      return Fail("cannot save " + s.save + ": " + context.host->Error(), 1);
    std::fprintf(stderr, "saved %s\n", s.save.c_str());
  }

  for (Point3 p : points) {
    const HRESULT hr = s.revert ? calibration->Revert(&p.x, &p.y, &p.z) : calibration->Convert(&p.x, &p.y, &p.z);
    if (hr < 0) return Fail("conversion failed (is the Geometry peer module installed?)", 1);
    std::printf("%s\n", FormatPoint(p).c_str());
  }
  return 0;
}
