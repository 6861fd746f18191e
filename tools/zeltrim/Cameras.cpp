#include "tools/zeltrim/Cameras.h"

#include <cmath>
#include <cstdio>

#include "host/client/CalibrationFile.h"
#include "tools/zeltrim/Commands.h"

const wchar_t* const kTransformClass = L"Camera3DTransform";
const wchar_t* const kTrinsicClass = L"Camera3DTrinsic";

namespace {

// A 3 x 3 system counts as singular when its determinant is below this share of the
// product of its rows' lengths (the largest the determinant can be).
constexpr double kSingular = 1e-12;

std::string Narrow(const std::wstring& text) {
  std::string out;
  for (wchar_t c : text) out += (c >= 32 && c < 127) ? static_cast<char>(c) : '?';
  return out;
}

void Cross(const double* a, const double* b, double* out) {
  out[0] = a[1] * b[2] - a[2] * b[1];
  out[1] = a[2] * b[0] - a[0] * b[2];
  out[2] = a[0] * b[1] - a[1] * b[0];
}

double Dot(const double* a, const double* b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

double Length(const double* a) { return std::sqrt(Dot(a, a)); }

}  // namespace

int LoadCamera(ModuleHost& host, const std::string& path, Camera* out) {
  const client::FileReport found = client::CheckFile(path, std::wstring());
  if (!found.ok) return Fail("cannot load " + path + ": " + found.problem);
  const std::wstring& name = found.objectName;
  if (name != kTransformClass && name != kTrinsicClass)
    return Fail("cannot load " + path + ": it holds a " + Narrow(name) +
                ", not a camera (Camera3DTransform or Camera3DTrinsic)");
  if (name == kTransformClass && client::FormOfPath(path) == client::FileForm::kXML)
    return Fail("cannot load " + path + ": a Camera3DTransform's XML file holds its write-only text form");
  void* p = nullptr;
  if (!host.CreateRaw(name.c_str(), IID_IUnknown, &p) || !p) return Fail(Narrow(name) + ": " + host.Error(), 1);
  SmartPtr<IUnknown> object;
  object.Attach(static_cast<IUnknown*>(p));
  if (host.Archive(object, path, false) < 0) return Fail("cannot load " + path + ": " + host.Error(), 1);
  out->camera = QueryAs<ICamera3DTransform>(object);
  out->trinsic = QueryAs<ICamera3DTrinsic>(object);
  if (!out->camera) return Fail(Narrow(name) + " answers no ICamera3DTransform", 1);
  double* matrix = nullptr;
  out->camera->GetMatrix(&matrix, nullptr, nullptr);
  bool usable = false;
  for (int i = 0; matrix && i < 12; ++i) {
    if (!std::isfinite(matrix[i])) return Fail("cannot use " + path + ": its camera matrix is not finite");
    usable = usable || matrix[i] != 0.0;
  }
  if (!usable) return Fail("cannot use " + path + ": its camera matrix is zero (the camera was never fitted)");
  return 0;
}

void PrintCameraMatrix(const double* p) {
  for (int r = 0; r < 3; ++r)
    std::printf("  %16.10g %16.10g %16.10g %16.10g\n", p[r], p[3 + r], p[6 + r], p[9 + r]);
}

bool ViewingRay(ICamera3DTransform* camera, double u, double v, double* centre, double* direction) {
  double planes[8] = {};
  double* p = nullptr;
  if (camera->SolveMatrix(planes, u, v) < 0 || camera->GetMatrix(&p, nullptr, nullptr) < 0 || !p) return false;
  // The rows of the system: the two planes through the ray, and the principal plane,
  // which holds the centre too. Its determinant is that of P's left 3 x 3, and equals
  // (a x b) . principal, so a x b points to positive depth.
  const double a[3] = {planes[0], planes[1], planes[2]};
  const double b[3] = {planes[4], planes[5], planes[6]};
  const double principal[3] = {p[2], p[5], p[8]};
  const double h[3] = {-planes[3], -planes[7], -p[11]};
  double ab[3], bp[3], pa[3];
  Cross(a, b, ab);
  Cross(b, principal, bp);
  Cross(principal, a, pa);
  const double det = Dot(a, bp);
  const double bound = Length(a) * Length(b) * Length(principal);
  if (!std::isfinite(det) || !(std::fabs(det) > kSingular * bound)) return false;
  for (int i = 0; i < 3; ++i) centre[i] = (h[0] * bp[i] + h[1] * pa[i] + h[2] * ab[i]) / det;
  const double length = Length(ab);
  for (int i = 0; i < 3; ++i) direction[i] = ab[i] / length;
  return true;
}

bool PointAtHeight(ICamera3DTransform* camera, double u, double v, double z, double* world) {
  double planes[8] = {};
  if (camera->SolveMatrix(planes, u, v) < 0) return false;
  // a0 X + a1 Y = -(a2 z + a3), b0 X + b1 Y = -(b2 z + b3).
  const double* a = planes;
  const double* b = planes + 4;
  const double det = a[0] * b[1] - a[1] * b[0];
  const double bound = std::hypot(a[0], a[1]) * std::hypot(b[0], b[1]);
  if (!std::isfinite(det) || !(std::fabs(det) > kSingular * bound)) return false;
  const double ra = -(a[2] * z + a[3]), rb = -(b[2] * z + b[3]);
  world[0] = (ra * b[1] - a[1] * rb) / det;
  world[1] = (a[0] * rb - ra * b[0]) / det;
  world[2] = z;
  return true;
}

void RevertPoint(ICamera3DTrinsic* camera, double u, double v, double* world) {
  double* m = nullptr;
  camera->GetMatrix(4, &m, nullptr, nullptr);
  double w[4] = {NAN, NAN, NAN, NAN};
  if (m)
    for (int i = 0; i < 4; ++i) w[i] = u * m[i] + v * m[4 + i] + m[8 + i];
  for (int i = 0; i < 3; ++i) world[i] = w[i] / w[3];
}

void PrintReprojectionErrors(ICamera3DTransform* camera, bool trinsic) {
  SmartPtr<ITransformFitErrors> errors = QueryAs<ITransformFitErrors>(camera);
  if (!errors) return;
  // (error2, error, sdError): the first two are one value, and a loaded camera has only
  // the second.
  double error2 = 0, largest = 0, sd = 0;
  errors->GetFitErrors(&error2, &largest, &sd);
  std::printf("reprojection errors in pixels (image point against its world point carried through P):\n");
  std::printf("  largest   %12.6g   %s\n", largest,
              trinsic ? "the worst point of the LAST view only" : "the worst point's distance");
  std::printf("  standard  %12.6g   root mean square distance over %s, N - 1 in the divisor\n", sd,
              trinsic ? "all points of all views" : "all points");
}

bool ShowCamera(IUnknown* object) {
  SmartPtr<ICamera3DTransform> camera = QueryAs<ICamera3DTransform>(object);
  if (!camera) return false;
  SmartPtr<ICamera3DTrinsic> trinsic = QueryAs<ICamera3DTrinsic>(object);
  if (trinsic) {
    double* a = nullptr;
    double* e = nullptr;
    int width = 0, height = 0;
    trinsic->GetMatrix(1, &a, nullptr, nullptr);
    trinsic->GetMatrix(2, &e, nullptr, nullptr);
    trinsic->GetNormalizationImageSize(&width, &height);
    if (a) {
      std::printf("intrinsics A (pixels), by rows:\n");
      for (int r = 0; r < 3; ++r) std::printf("  %16.10g %16.10g %16.10g\n", a[r], a[3 + r], a[6 + r]);
    }
    if (e) {
      std::printf("pose of the last view, world to camera (X_cam = R X + t), by rows of R | t:\n");
      for (int r = 0; r < 3; ++r)
        std::printf("  %16.10g %16.10g %16.10g   %16.10g\n", e[r], e[4 + r], e[8 + r], e[12 + r]);
    }
    std::printf("normalisation image size: %d x %d pixels\n", width, height);
  }
  double* p = nullptr;
  if (camera->GetMatrix(&p, nullptr, nullptr) >= 0 && p) {
    std::printf("camera matrix P (image ~ P [X Y Z 1]), by rows:\n");
    PrintCameraMatrix(p);
  }
  double centre[3], direction[3];
  if (ViewingRay(camera, 0.0, 0.0, centre, direction))
    std::printf("camera centre (world): %.10g %.10g %.10g\n", centre[0], centre[1], centre[2]);
  else
    std::printf("camera centre (world): none (the left 3 x 3 of P is singular)\n");
  PrintReprojectionErrors(camera, trinsic);
  return true;
}
