// zeltrim decompose: a saved camera split by the module's SingleViewGeometry into its
// location, rotation and intrinsics.
#include <cmath>
#include <cstdio>

#include "tools/zeltrim/Cameras.h"
#include "tools/zeltrim/Commands.h"

const char* const kDecomposeHelp =
    "usage: zeltrim decompose CAMERA_FILE\n"
    "Splits the camera matrix P of a saved camera (a Camera3DTransform from resect --save\n"
    "or a Camera3DTrinsic from calibrate --save) with the module's SingleViewGeometry into\n"
    "P ~ K [R | -R C] and prints:\n"
    "  location      the camera centre C in world units (a camera whose left 3 x 3 is\n"
    "                singular has its centre at infinity: the direction is printed)\n"
    "  rotation      R, world to camera (X_cam = R (X - C)), by rows, and its angles in\n"
    "                degrees for R = Rz(rz) Ry(ry) Rx(rx), each about the fixed world axes\n"
    "                (rx first), with ry in [-90, 90]\n"
    "  translation   t = -R C, the world origin in camera coordinates\n"
    "  intrinsics    K (pixels), by rows, with K[2][2] = 1: fx, skew, cx / fy, cy\n"
    "The module factorises P up to the signs of the axes (its rotation may have a\n"
    "determinant of -1); these are flipped so that K has a positive diagonal and R is a\n"
    "proper rotation, which describes the same camera (P is defined up to scale).\n";

namespace {

double Det3(const double (&m)[3][3]) {
  return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) - m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
         m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
}

const double kDegrees = 180.0 / 3.14159265358979323846;

// Rounding left by the factorisation (a 1e-14 below K's diagonal, a -0) printed as 0:
// anything below 1e-12 of the largest entry of what it belongs to.
double Clean(double v, double largest) { return std::fabs(v) <= 1e-12 * largest ? 0.0 : v; }

double Largest(const double (&m)[3][3]) {
  double largest = 0;
  for (const auto& row : m)
    for (double v : row) largest = std::fmax(largest, std::fabs(v));
  return largest;
}

void PrintRows(const double (&m)[3][3]) {
  const double largest = Largest(m);
  for (const auto& row : m)
    std::printf("  %16.10g %16.10g %16.10g\n", Clean(row[0], largest), Clean(row[1], largest), Clean(row[2], largest));
}

}  // namespace

int RunDecompose(CommandContext& context) {
  if (context.args.size() != 1) return Fail("decompose needs one CAMERA_FILE");
  const std::string path = AbsolutePath(context.args[0], context.startDir);
  Camera camera;
  if (const int status = LoadCamera(*context.host, path, &camera)) return status;

  SmartPtr<ISingleViewGeometry> geometry = context.host->Create<ISingleViewGeometry>(L"SingleViewGeometry");
  if (!geometry) return Fail("SingleViewGeometry: " + context.host->Error(), 1);
  SmartPtr<ICamera3DTrinsic> parts;
  SmartPtr<IPoint> location;
  const HRESULT hr = geometry->Decompose(camera.camera, parts.Out(), location.Out(), nullptr, nullptr);
  double *a = nullptr, *e = nullptr;
  if (hr < 0 || !parts || !location || parts->GetMatrix(1, &a, nullptr, nullptr) < 0 ||
      parts->GetMatrix(2, &e, nullptr, nullptr) < 0 || !a || !e)
    return Fail("cannot decompose " + path + ": the module gave no result", 1);

  // Both are held by columns: a[3c + r] is K[r][c], e[4c + r] the pose's row r, column c.
  double k[3][3], r[3][3];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) k[i][j] = a[3 * j + i], r[i][j] = e[4 * j + i];
  // K S and S R with S = diag(s0, s1, 1) make K's diagonal positive; -R (the camera -P)
  // makes the rotation proper.
  const double s[3] = {k[0][0] < 0 ? -1.0 : 1.0, k[1][1] < 0 ? -1.0 : 1.0, 1.0};
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) k[i][j] *= s[j], r[j][i] *= s[j];
  if (Det3(r) < 0)
    for (auto& row : r)
      for (double& v : row) v = -v;

  double c[3] = {0, 0, 0};
  location->GetXYZ(&c[0], &c[1], &c[2]);
  double centre[3], direction[3];
  const bool finite = ViewingRay(camera.camera, 0.0, 0.0, centre, direction);

  std::printf("file: %s\nobject: %s\n", path.c_str(), camera.trinsic ? "Camera3DTrinsic" : "Camera3DTransform");
  if (finite)
    std::printf("location (camera centre, world): %.10g %.10g %.10g\n", c[0], c[1], c[2]);
  else
    std::printf("location: at infinity, in direction %.10g %.10g %.10g\n", Clean(c[0], 1.0), Clean(c[1], 1.0),
                Clean(c[2], 1.0));
  std::printf("rotation R, world to camera (X_cam = R (X - C)), by rows:\n");
  PrintRows(r);
  for (auto& row : r)
    for (double& v : row) v = Clean(v, 1.0);
  // + 0.0 prints a zero angle as 0, not -0.
  const double rx = std::atan2(r[2][1], r[2][2]) * kDegrees + 0.0;
  const double ry = -std::asin(std::fmax(-1.0, std::fmin(1.0, r[2][0]))) * kDegrees + 0.0;
  const double rz = std::atan2(r[1][0], r[0][0]) * kDegrees + 0.0;
  std::printf("rotation angles (degrees), R = Rz(rz) Ry(ry) Rx(rx): rx %.10g  ry %.10g  rz %.10g\n", rx, ry, rz);
  if (finite) {
    double t[3];
    for (int i = 0; i < 3; ++i) t[i] = -(r[i][0] * c[0] + r[i][1] * c[1] + r[i][2] * c[2]);
    std::printf("translation t = -R C: %.10g %.10g %.10g\n", t[0], t[1], t[2]);
  }
  std::printf("intrinsics K (pixels), by rows:\n");
  PrintRows(k);
  const double largest = Largest(k);
  std::printf("fx %.10g  fy %.10g  skew %.10g  cx %.10g  cy %.10g\n", k[0][0], k[1][1], Clean(k[0][1], largest),
              Clean(k[0][2], largest), Clean(k[1][2], largest));
  if (!finite)
    std::printf("note: the left 3 x 3 of P is singular (an affine camera): K is singular too, and the signs of\n"
                "R's rows are not fixed by the camera\n");
  return 0;
}
