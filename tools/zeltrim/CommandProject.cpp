// zeltrim project and unproject: points through a saved camera of either class.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "tools/zeltrim/Cameras.h"
#include "tools/zeltrim/Commands.h"

const char* const kProjectHelp =
    "usage: zeltrim project FILE [POINT ...]\n"
    "Carries world points to image points (pixels) through a saved camera: a\n"
    "Camera3DTransform (resect --save, .t...) or a Camera3DTrinsic (calibrate --save,\n"
    ".t... or .xml; its distortion is not applied). POINT is X,Y,Z (X,Y means Z = 0);\n"
    "without points, lines of \"X Y [Z]\" are read from standard input ('#' lines and\n"
    "blank lines skipped). Prints \"u v\" a line. A point in the camera's principal plane\n"
    "(depth 0) has no image and ends the command with an error.\n";

const char* const kUnprojectHelp =
    "usage: zeltrim unproject FILE [--ray | --at-z Z] [POINT ...]\n"
    "Carries image points (pixels) back into the world through a saved camera (as for\n"
    "project). POINT is u,v (a third number is ignored); without points, lines of \"u v\"\n"
    "are read from standard input. What a line of output holds:\n"
    "  Camera3DTrinsic: \"X Y Z\", the point of the pixel's viewing ray that the camera's\n"
    "    Revert gives (the pseudo-inverse of P applied to (u, v, 1)); project takes it\n"
    "    back to the pixel.\n"
    "  Camera3DTransform: the class has no Revert, so the viewing ray: \"X Y Z DX DY DZ\",\n"
    "    the camera centre, then the unit direction toward the scene (positive depth),\n"
    "    from the two planes through the ray (SolveMatrix).\n"
    "Options:\n"
    "  --ray     the viewing ray, as above, for a Camera3DTrinsic too\n"
    "  --at-z Z  \"X Y Z\", the point of the ray at height Z (world units), for either class\n";

namespace {

struct PointSettings {
  std::string file;
  std::vector<std::string> points;
  bool ray = false;
  bool atZ = false;
  double z = 0.0;
};

bool ParseSettings(const CommandContext& context, bool unproject, PointSettings* s, std::string* error) {
  const std::vector<std::string>& args = context.args;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (unproject && a == "--ray") {
      s->ray = true;
    } else if (unproject && a == "--at-z") {
      if (i + 1 >= args.size() || !ParseNumbers(args[i + 1], 1, &s->z)) return *error = "--at-z needs a number", false;
      s->atZ = true;
      ++i;
    } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
      return *error = "unknown option " + a, false;
    } else if (s->file.empty()) {
      s->file = AbsolutePath(a, context.startDir);
    } else {
      s->points.push_back(a);
    }
  }
  if (s->file.empty()) return *error = std::string(unproject ? "unproject" : "project") + " needs a camera FILE", false;
  if (s->ray && s->atZ) return *error = "--ray and --at-z exclude each other", false;
  return true;
}

std::string Numbers(const double* v, int count) {
  std::string out;
  char text[40];
  for (int i = 0; i < count; ++i) {
    std::snprintf(text, sizeof(text), "%s%.10g", i ? " " : "", v[i]);
    out += text;
  }
  return out;
}

bool Finite(const double* v, int count) {
  for (int i = 0; i < count; ++i)
    if (!std::isfinite(v[i])) return false;
  return true;
}

int Run(CommandContext& context, bool unproject) {
  PointSettings s;
  std::string error;
  if (!ParseSettings(context, unproject, &s, &error)) return Fail(error);
  std::vector<Point3> points;
  if (!ParsePoints(s.points, &points, &error)) return Fail(error);
  Camera camera;
  if (const int status = LoadCamera(*context.host, s.file, &camera)) return status;
  if (s.points.empty() && !ReadPoints(std::cin, &points, &error)) return Fail("standard input, " + error);

  const bool ray = unproject && !s.atZ && (s.ray || !camera.trinsic);
  if (ray && !s.ray)
    std::fprintf(stderr, "note: a Camera3DTransform has no Revert; each line is the viewing ray: the camera centre "
                         "X Y Z, then the unit direction DX DY DZ (--at-z Z gives points)\n");
  for (const Point3& p : points) {
    double out[6] = {p.x, p.y, p.z, 0, 0, 0};
    int count = 3;
    if (!unproject) {
      camera.camera->Convert(&out[0], &out[1], &out[2]);
      count = 2;
      if (InPrincipalPlane(camera.camera, p))
        return Fail("the world point " + Numbers(&p.x, 1) + " " + Numbers(&p.y, 1) + " " + Numbers(&p.z, 1) +
                    " has no image: it lies in the camera's principal plane (depth 0)");
    } else if (ray) {
      count = 6;
      if (!ViewingRay(camera.camera, p.x, p.y, out, out + 3))
        return Fail("the camera has no centre (the left 3 x 3 of its matrix is singular), so no viewing ray");
    } else if (s.atZ) {
      if (!PointAtHeight(camera.camera, p.x, p.y, s.z, out))
        return Fail("the viewing ray of " + Numbers(&p.x, 1) + " " + Numbers(&p.y, 1) + " runs parallel to the plane Z = " +
                    Numbers(&s.z, 1));
    } else {
      RevertPoint(camera.trinsic, p.x, p.y, out);
    }
    if (!Finite(out, count)) return Fail("the camera gives no finite point for " + Numbers(&p.x, 1) + " " + Numbers(&p.y, 1));
    std::printf("%s\n", Numbers(out, count).c_str());
  }
  return 0;
}

}  // namespace

int RunProject(CommandContext& context) { return Run(context, false); }

int RunUnproject(CommandContext& context) { return Run(context, true); }
