// zeltrim resect: a projective camera (Camera3DTransform) fitted to image points and
// their world points.
#include <cmath>
#include <cstdio>

#include "tools/zeltrim/Cameras.h"
#include "tools/zeltrim/Commands.h"

const char* const kResectHelp =
    "usage: zeltrim resect IMAGE_POINTS WORLD_POINTS [--save FILE]\n"
    "Fits a projective camera (Camera3DTransform: one 3 x 4 matrix P, image ~ P [X Y Z 1])\n"
    "to image points (\"x y\" a line, in pixels) and their world points (\"x y z\" a line),\n"
    "line i of one file pairing with line i of the other ('#' lines and blank lines\n"
    "skipped). The world points must not all lie in one plane. 6 to 11 pairs: P is the\n"
    "direct linear solve (p11 = 1); 12 or more: that solve refined by Levenberg-Marquardt\n"
    "on the squared reprojection distances. Prints P by rows, which fit ran, the largest\n"
    "and the standard reprojection error in pixels, and the camera centre.\n"
    "Options:\n"
    "  --save FILE  save the camera: .t... (e.g. .tCAM) folder stream, which project,\n"
    "               unproject and show read; any other extension (e.g. .csv) the\n"
    "               write-only text form, four lines, each one column of P. XML (.x...)\n"
    "               is refused: this class's XML file holds the text form and does not\n"
    "               load back.\n";

// The module refines from this many pairs on.
constexpr size_t kRefinedPairs = 12;

int RunResect(CommandContext& context) {
  std::vector<std::string> files;
  std::string save;
  const std::vector<std::string>& args = context.args;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--save") {
      if (i + 1 >= args.size()) return Fail("--save needs a file name");
      save = AbsolutePath(args[++i], context.startDir);
    } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
      return Fail("unknown option " + a);
    } else {
      files.push_back(AbsolutePath(a, context.startDir));
    }
  }
  if (files.size() != 2) return Fail("resect needs an IMAGE_POINTS and a WORLD_POINTS file");
  if (const int status = CheckSavePath(save)) return status;
  const std::string saveProblem = save.empty() ? std::string() : TransformSaveProblem(save);
  if (!saveProblem.empty()) return Fail("cannot save " + save + ": " + saveProblem);

  std::vector<Point3> image, world;
  std::string error;
  if (!ReadPointFile(files[0], &image, &error, 2) || !ReadPointFile(files[1], &world, &error, 3)) return Fail(error);
  const size_t n = image.size();
  if (n != world.size())
    return Fail("the point files differ in length: " + std::to_string(n) + " image and " +
                std::to_string(world.size()) + " world points");
  ModuleHost& host = *context.host;
  SmartPtr<ICamera3DTransform> camera;
  TaskError failure;
  if (!ResectCamera(host, image, world, &camera, &failure)) return Fail(failure.message, failure.status);
  double* p = nullptr;
  camera->GetMatrix(&p, nullptr, nullptr);

  std::printf("Camera3DTransform from %zu point pairs\n", n);
  std::printf("camera matrix P (image ~ P [X Y Z 1]), by rows:\n");
  PrintCameraMatrix(p);
  if (n >= kRefinedPairs)
    std::printf("fit: direct linear solve (p11 = 1), then refined by Levenberg-Marquardt over all 12 entries "
                "(12 pairs or more)\n");
  else
    std::printf("fit: direct linear solve only (p11 = 1); 6 to 11 pairs are not refined, 12 or more are\n");
  PrintReprojectionErrors(camera, false);
  double centre[3], direction[3];
  if (ViewingRay(camera, 0.0, 0.0, centre, direction))
    std::printf("camera centre (world): %.10g %.10g %.10g\n", centre[0], centre[1], centre[2]);
  if (!save.empty()) {
    if (host.Archive(camera, save, true) < 0) return Fail("cannot save " + save + ": " + host.Error(), 1);
    std::printf("saved %s\n", save.c_str());
  }
  return 0;
}
