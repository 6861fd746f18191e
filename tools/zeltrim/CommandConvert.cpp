#include <cstdio>
#include <iostream>

#include "tools/zeltrim/Commands.h"
#include "tools/zeltrim/PointText.h"

const char* const kConvertHelp =
    "usage: zeltrim convert FILE [--revert] [POINT ...]\n"
    "Loads a saved calibration that converts points (any file of the module whose object\n"
    "answers ICalibration: linear, best-fit, polynomial grid, radial, fisheye, camera with\n"
    "plane) and converts each POINT (x,y or x,y,z), or with --revert reverts it. Without\n"
    "points, lines of \"x y [z]\" are read from standard input ('#' lines and blank lines\n"
    "skipped). One converted point is printed a line.\n"
    "What the directions mean is the class's own: a radial model converts distorted pixels\n"
    "to corrected ones; a fisheye model only reverts (perspective pixels to fisheye pixels).\n";

int RunConvert(CommandContext& context) {
  std::string file;
  bool revert = false;
  std::vector<std::string> texts;
  for (const std::string& a : context.args) {
    if (a == "--revert")
      revert = true;
    else if (a.size() > 1 && a[0] == '-' && a[1] == '-')
      return Fail("unknown option " + a);
    else if (file.empty())
      file = AbsolutePath(a, context.startDir);
    else
      texts.push_back(a);
  }
  if (file.empty()) return Fail("convert needs a calibration FILE");
  std::vector<Point3> points;
  std::string error;
  if (!ParsePoints(texts, &points, &error)) return Fail(error);

  SmartPtr<IUnknown> object;
  std::wstring name;
  const std::string problem = LoadCalibrationFile(*context.host, file, &object, &name);
  if (!problem.empty()) return Fail("cannot load " + file + ": " + problem);
  SmartPtr<ICalibration> calibration = QueryAs<ICalibration>(object);
  if (!calibration)
    return Fail(std::string(name.begin(), name.end()) + " does not convert points (for a camera use zeltrim project)");
  if (texts.empty() && !ReadPoints(std::cin, &points, &error)) return Fail("standard input, " + error);

  for (Point3 p : points) {
    const HRESULT hr = revert ? calibration->Revert(&p.x, &p.y, &p.z) : calibration->Convert(&p.x, &p.y, &p.z);
    if (hr < 0) {
      std::fprintf(stderr, "zeltrim: %s of %s failed (result 0x%08X)\n", revert ? "Revert" : "Convert",
                   FormatPoint(p).c_str(), static_cast<unsigned>(hr));
      return 1;
    }
    std::printf("%s\n", FormatPoint(p).c_str());
  }
  return 0;
}
