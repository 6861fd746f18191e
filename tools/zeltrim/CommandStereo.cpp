// zeltrim stereo: the geometry of a calibrated camera pair, or the epipolar geometry of
// corresponding image points, through the module's "MultiViewGeometry".
#include <cmath>
#include <cstdio>

#include "tools/zeltrim/Commands.h"
#include "tools/zeltrim/HostText.h"

const char* const kStereoHelp =
    "usage: zeltrim stereo LEFT_CAMERA RIGHT_CAMERA [--mode N]\n"
    "       zeltrim stereo --points LEFT_POINTS RIGHT_POINTS\n"
    "With two cameras: moves them into a common frame and prints the relative pose\n"
    "(4 x 4, row vectors: a point of the left camera's frame times it gives the point in\n"
    "the right camera's frame), the baseline length, each camera's location (centre and\n"
    "viewing axis), the epipoles (pixels), and the fundamental and essential matrices F\n"
    "and E (p F q^T = 0 for a left pixel p = (x, y, 1) and its right pixel q).\n"
    "CAMERA: a Camera3DTrinsic file (as 'zeltrim calibrate --save' writes it) or a\n"
    "Camera3DCalibrationPlane holding one. Both cameras must share one world frame, as two\n"
    "cameras calibrated on the same board poses do (each keeps its last view's pose).\n"
    "With --points: estimates F from corresponding pixels (line i of each file, \"x y\"),\n"
    "eight pairs at least for a unique F, and prints F, both epipoles and the distance of\n"
    "each right pixel from its epipolar line (mean, RMS and largest, pixels).\n"
    "Options:\n"
    "  --mode N   0 the left camera at the origin (default), 1 the right, 2 midway,\n"
    "             3 the baseline along x about its midpoint, -1 the cameras as loaded\n";

namespace {

void PrintMatrix(const char* title, const double* m, int rows, int cols) {
  std::printf("%s:\n", title);
  for (int r = 0; r < rows; ++r) {
    std::printf(" ");
    for (int c = 0; c < cols; ++c) std::printf(" %.10g", m[cols * r + c]);
    std::printf("\n");
  }
}

// The 3 x 3 matrix of a location of kind 2 to 4 (rows and columns 0, 1, 3 of its forward
// matrix); false when the host cannot make "HomogeneousCalibration".
bool Matrix3Of(IMultiViewGeometry* geometry, int kind, double* m) {
  SmartPtr<IUnknown> out;
  if (geometry->GetLocation(kind, 0, out.Out()) != S_OK) return false;
  SmartPtr<IHomogeneousCalibration> calibration = QueryAs<IHomogeneousCalibration>(out);
  SmartPtr<ITransform> forward;
  if (!calibration || calibration->GetForwardTransform(forward.Out()) < 0) return false;
  SmartPtr<IHomogeneousTransform> t = QueryAs<IHomogeneousTransform>(forward);
  double* f = nullptr;
  if (!t || t->GetMatrix(&f, nullptr, nullptr) < 0 || !f) return false;
  static const int at[3] = {0, 1, 3};
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) m[3 * i + j] = f[4 * at[i] + at[j]];
  return true;
}

void PrintMatrixOrNote(IMultiViewGeometry* geometry, int kind, const char* title) {
  double m[9];
  if (Matrix3Of(geometry, kind, m))
    PrintMatrix(title, m, 3, 3);
  else
    std::printf("%s: not available (the host has no \"HomogeneousCalibration\")\n", title);
}

// Every item of a location collection (kind 7, 8 or 9), by name.
void PrintLocations(IMultiViewGeometry* geometry, int kind) {
  SmartPtr<IUnknown> out;
  if (geometry->GetLocation(kind, -1, out.Out()) != S_OK) return;
  SmartPtr<INamedCollection> list = QueryAs<INamedCollection>(out);
  int count = 0;
  if (list) list->get_Count(&count);
  for (int i = 0; i < count; ++i) {
    SmartPtr<IUnknown> item;
    SmartPtr<IString> name;
    list->get_Item(i, item.Out());
    list->get_ItemName(i, name.Out());
    const wchar_t* text = nullptr;
    int length = 0;
    if (name) name->GetString(&text, &length);
    const std::string label = text ? Narrow(std::wstring(text, static_cast<size_t>(length))) : "?";
    double x = 0, y = 0, z = 0;
    if (SmartPtr<IPointVector> v = QueryAs<IPointVector>(item)) {
      double dx = 0, dy = 0, dz = 0;
      v->get_Origin(&x, &y, &z);
      v->get_Direction(&dx, &dy, &dz, 1.0);
      std::printf("%s: centre %.10g %.10g %.10g  axis %.10g %.10g %.10g\n", label.c_str(), x, y, z, dx, dy, dz);
    } else if (SmartPtr<IPoint> p = QueryAs<IPoint>(item)) {
      p->GetXYZ(&x, &y, &z);
      std::printf("%s: %.10g %.10g\n", label.c_str(), x, y);
    }
  }
}

// A camera file as the geometry takes it: a Camera3DTrinsic or a plane holding one.
SmartPtr<IUnknown> LoadCamera(ModuleHost& host, const std::string& path, std::string* error) {
  SmartPtr<IUnknown> object;
  std::wstring name;
  const std::string problem = LoadCalibrationFile(host, path, &object, &name);
  if (!problem.empty()) return *error = "cannot load " + path + ": " + problem, SmartPtr<IUnknown>();
  if (name != L"Camera3DTrinsic" && name != L"Camera3DCalibrationPlane")
    return *error = path + " holds a " + Narrow(name) + ", not a Camera3DTrinsic or Camera3DCalibrationPlane",
           SmartPtr<IUnknown>();
  return object;
}

int RunCameras(CommandContext& context, const std::vector<std::string>& files, int mode) {
  ModuleHost& host = *context.host;
  SmartPtr<IParametersCreatable> list = host.CreateHost<IParametersCreatable>(L"ParametersCreatable");
  SmartPtr<IMultiViewGeometry> geometry = host.Create<IMultiViewGeometry>(L"MultiViewGeometry");
  if (!list || !geometry) return Fail("MultiViewGeometry: " + host.Error(), 1);
  const wchar_t* names[2] = {L"left", L"right"};
  for (size_t k = 0; k < 2; ++k) {
    std::string error;
    SmartPtr<IUnknown> camera = LoadCamera(host, AbsolutePath(files[k], context.startDir), &error);
    if (!camera) return Fail(error);
    SmartPtr<ICreatableString> name = host.CreateHost<ICreatableString>(L"CreatableString");
    if (name) name->SetString(static_cast<int>(std::wcslen(names[k])), names[k]);
    list->Add(SmartPtr<IString>(name.get()), camera, nullptr, 0);
  }
  geometry->SetCalibrations(list);
  if (geometry->CalcPose(mode) != S_OK)
    return Fail("the module found fewer than two cameras (a plane calibration without a Camera3DTrinsic)", 1);
  double* pose = nullptr;
  geometry->GetMatrix(1, &pose, nullptr, nullptr);
  std::printf("mode: %d\n", mode);
  PrintMatrix("relative pose (left to right)", pose, 4, 4);
  // The pose is rigid: the right centre lies at -t R^T in the left frame, |t| away.
  std::printf("baseline: %.10g\n", std::sqrt(pose[12] * pose[12] + pose[13] * pose[13] + pose[14] * pose[14]));
  PrintLocations(geometry, 7);
  PrintLocations(geometry, 8);
  PrintLocations(geometry, 9);
  PrintMatrixOrNote(geometry, 3, "F");
  PrintMatrixOrNote(geometry, 2, "E");
  return 0;
}

int RunPoints(CommandContext& context, const std::vector<std::string>& files) {
  ModuleHost& host = *context.host;
  std::vector<Point3> left, right;
  std::string error;
  const std::string leftPath = AbsolutePath(files[0], context.startDir);
  const std::string rightPath = AbsolutePath(files[1], context.startDir);
  if (!ReadPointFile(leftPath, &left, &error)) return Fail(error);
  if (!ReadPointFile(rightPath, &right, &error)) return Fail(error);
  if (left.size() != right.size())
    return Fail("the point files differ in length (" + std::to_string(left.size()) + " and " +
                std::to_string(right.size()) + " points)");
  SmartPtr<IMultiViewGeometry> geometry = host.Create<IMultiViewGeometry>(L"MultiViewGeometry");
  if (!geometry) return Fail("MultiViewGeometry: " + host.Error(), 1);
  SmartPtr<ISimpleCollection> first = MakeCollection(host, left), second = MakeCollection(host, right);
  if (!first || !second) return Fail("the host has no PointsCollection", 1);
  geometry->CalibStereo(first, second);
  std::printf("pairs: %zu%s\n", left.size(), left.size() < 9 ? " (fewer than nine: the linear estimate)" : "");
  double f[9];
  const bool haveF = Matrix3Of(geometry, 3, f);
  if (haveF)
    PrintMatrix("F", f, 3, 3);
  else
    std::printf("F: not available (the host has no \"HomogeneousCalibration\")\n");
  PrintLocations(geometry, 9);
  if (!haveF) return 0;
  double sum = 0, squares = 0, largest = 0;
  for (size_t i = 0; i < left.size(); ++i) {
    double l[3];
    for (int j = 0; j < 3; ++j) l[j] = left[i].x * f[j] + left[i].y * f[3 + j] + f[6 + j];
    const double norm = std::sqrt(l[0] * l[0] + l[1] * l[1]);
    const double d = norm > 0 ? std::fabs(l[0] * right[i].x + l[1] * right[i].y + l[2]) / norm : 0.0;
    sum += d, squares += d * d;
    if (d > largest) largest = d;
  }
  const double n = static_cast<double>(left.size());
  std::printf("epipolar distance (pixels): mean %.6g  rms %.6g  largest %.6g\n", sum / n, std::sqrt(squares / n),
              largest);
  return 0;
}

}  // namespace

int RunStereo(CommandContext& context) {
  std::vector<std::string> files;
  bool points = false;
  int mode = 0;
  const std::vector<std::string>& args = context.args;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--points") {
      points = true;
    } else if (a == "--mode") {
      if (i + 1 >= args.size()) return Fail("--mode needs a number");
      const std::string& text = args[++i];
      char* end = nullptr;
      const long value = std::strtol(text.c_str(), &end, 10);
      if (text.empty() || *end != '\0' || value < -1000 || value > 1000) return Fail("--mode: not a whole number: " + text);
      mode = static_cast<int>(value);
    } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
      return Fail("unknown option " + a);
    } else {
      files.push_back(a);
    }
  }
  if (files.size() != 2)
    return Fail(std::string("stereo needs two ") + (points ? "point files" : "camera files") + " (got " +
                std::to_string(files.size()) + ")");
  return points ? RunPoints(context, files) : RunCameras(context, files, mode);
}
