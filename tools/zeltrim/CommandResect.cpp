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

namespace {

// Eleven unknowns, two equations a pair.
constexpr size_t kFewestPairs = 6;
// The module refines from this many pairs on.
constexpr size_t kRefinedPairs = 12;
// The module hands the 2N rows of its linear solve to the solver as a 16-bit count.
constexpr size_t kMostPairs = 16383;
// World points that stand out of their best plane by less than this share of their
// extent count as coplanar (the measure resolves about 1e-8).
constexpr double kFlat = 1e-6;

// How far the points stand out of their best plane: the square root of the smallest over
// the largest eigenvalue of their scatter about the mean (symmetric 3 x 3, eigenvalues by
// the trigonometric formula). 0 for points in one plane, on one line or all one point;
// 1 for points spread alike in every direction.
double Thickness(const std::vector<Point3>& points) {
  double mean[3] = {0, 0, 0};
  for (const Point3& p : points) mean[0] += p.x, mean[1] += p.y, mean[2] += p.z;
  for (double& m : mean) m /= static_cast<double>(points.size());
  double xx = 0, yy = 0, zz = 0, xy = 0, xz = 0, yz = 0;
  for (const Point3& p : points) {
    const double x = p.x - mean[0], y = p.y - mean[1], z = p.z - mean[2];
    xx += x * x, yy += y * y, zz += z * z, xy += x * y, xz += x * z, yz += y * z;
  }
  const double q = (xx + yy + zz) / 3.0;
  const double off = xy * xy + xz * xz + yz * yz;
  const double p2 = (xx - q) * (xx - q) + (yy - q) * (yy - q) + (zz - q) * (zz - q) + 2.0 * off;
  if (!(p2 > 0)) return q > 0 ? 1.0 : 0.0;
  const double p = std::sqrt(p2 / 6.0);
  const double b00 = (xx - q) / p, b11 = (yy - q) / p, b22 = (zz - q) / p;
  const double b01 = xy / p, b02 = xz / p, b12 = yz / p;
  const double det = b00 * (b11 * b22 - b12 * b12) - b01 * (b01 * b22 - b12 * b02) + b02 * (b01 * b12 - b11 * b02);
  const double r = std::fmax(-1.0, std::fmin(1.0, det / 2.0));
  const double phi = std::acos(r) / 3.0;
  const double largest = q + 2.0 * p * std::cos(phi);
  const double smallest = q + 2.0 * p * std::cos(phi + 2.0 * 3.14159265358979323846 / 3.0);
  if (!(largest > 0)) return 0.0;
  return std::sqrt(std::fmax(0.0, smallest) / largest);
}

}  // namespace

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
  if (n < kFewestPairs)
    return Fail("a projective camera needs at least 6 point pairs (11 unknowns, two equations a pair), the files hold " +
                std::to_string(n));
  if (n > kMostPairs)
    return Fail("at most 16383 point pairs (the module counts the 2N rows of its linear solve in 16 bits), the files "
                "hold " + std::to_string(n));
  if (Thickness(world) < kFlat)
    return Fail("the world points lie in one plane (to a millionth of their extent); a projective camera needs points "
                "spread in depth (views of a flat target: use calibrate)");

  ModuleHost& host = *context.host;
  SmartPtr<ICamera3DTransform> camera = host.Create<ICamera3DTransform>(kTransformClass);
  if (!camera) return Fail("Camera3DTransform: " + host.Error(), 1);
  SmartPtr<ISimpleCollection> imagePoints = MakeCollection(host, image), worldPoints = MakeCollection(host, world);
  if (!imagePoints || !worldPoints) return Fail("the host cannot make point collections", 1);
  const HRESULT hr = QueryAs<ITransformBestFit>(camera)->BestFit(imagePoints, worldPoints, 0);
  if (hr < 0) {
    char code[16];
    std::snprintf(code, sizeof(code), "0x%08X", static_cast<unsigned>(hr));
    return Fail(std::string("the fit failed with ") + code +
                    (hr == E_FAIL ? ": its linear solve is singular, so these points determine no camera (are "
                                    "the image points all alike?)"
                                  : ""),
                1);
  }
  double* p = nullptr;
  camera->GetMatrix(&p, nullptr, nullptr);
  bool finite = p != nullptr;
  for (int i = 0; finite && i < 12; ++i) finite = std::isfinite(p[i]);
  if (!finite) return Fail("the fit gave a camera matrix that is not finite", 1);

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
