// zeltrim triangulate: the 3D point that several calibrated cameras see, through the
// module's "Camera3DCalibration".
#include <sys/stat.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>

#include "host/client/CalibrationFile.h"
#include "tools/zeltrim/Commands.h"
#include "tools/zeltrim/HostText.h"

const char* const kTriangulateHelp =
    "usage: zeltrim triangulate CAMERA_FILE... [--points FILE]\n"
    "Triangulates: each line of the points (FILE, or standard input) holds one image point\n"
    "per camera, in the order of the camera files, \"u1 v1 u2 v2 ...\" in pixels (blanks or\n"
    "commas between numbers; blank lines and '#' lines are skipped). For each line it prints\n"
    "the world point \"X Y Z\" where the two planes through each camera's viewing ray meet\n"
    "in the least-squares sense. A line whose rays fix no single point (the module finds\n"
    "the planes degenerate, or the rays are parallel to rounding, as with one camera\n"
    "twice) is printed as \"degenerate (line N)\" instead, and the exit status is then 1.\n"
    "CAMERA_FILE: a calibrated camera, at least two of them: a Camera3DTrinsic (.xml or a\n"
    "folder stream such as .tCAL, as 'zeltrim calibrate --save' writes it) or a\n"
    "Camera3DTransform (folder stream only: its XML form holds no matrix).\n"
    "Options:\n"
    "  --points FILE   read the image points from FILE instead of standard input\n";

namespace {

// A camera file loaded into a new object of the class it holds; an empty camera and a
// message when the file is not a camera the collection can use. *status is 2 for a bad
// file, 1 when the module fails on a good one.
SmartPtr<ICamera3DTransform> LoadCamera(ModuleHost& host, const std::string& path, std::string* error, int* status) {
  *status = 2;
  const client::FileReport found = client::CheckFile(path, std::wstring());
  if (!found.ok) return *error = "cannot load " + path + ": " + found.problem, SmartPtr<ICamera3DTransform>();
  const std::wstring& name = found.objectName;
  if (name != L"Camera3DTransform" && name != L"Camera3DTrinsic")
    return *error = path + " holds a " + Narrow(name) + ", not a camera (Camera3DTransform or Camera3DTrinsic)",
           SmartPtr<ICamera3DTransform>();
  if (name == L"Camera3DTransform" && client::FormOfPath(path) == client::FileForm::kXML)
    return *error = path + " holds a Camera3DTransform in XML, which keeps no matrix (save it as a folder stream)",
           SmartPtr<ICamera3DTransform>();
  SmartPtr<ICamera3DTransform> camera = host.Create<ICamera3DTransform>(name.c_str());
  if (!camera) {
    *status = 1;
    return *error = Narrow(name) + ": " + host.Error(), SmartPtr<ICamera3DTransform>();
  }
  const client::FileReport loaded = client::LoadFile(host.Components(), camera, path);
  if (!loaded.ok) return *error = "cannot load " + path + ": " + loaded.problem, SmartPtr<ICamera3DTransform>();
  return camera;
}

std::string Format(double x, double y, double z) {
  char buffer[160];
  std::snprintf(buffer, sizeof(buffer), "%.10g %.10g %.10g", x, y, z);
  return buffer;
}

}  // namespace

int RunTriangulate(CommandContext& context) {
  ModuleHost& host = *context.host;
  std::vector<std::string> files;
  std::string pointsFile;
  const std::vector<std::string>& args = context.args;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--points") {
      if (i + 1 >= args.size()) return Fail("--points needs a file name");
      pointsFile = AbsolutePath(args[++i], context.startDir);
    } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
      return Fail("unknown option " + a);
    } else {
      files.push_back(AbsolutePath(a, context.startDir));
    }
  }
  if (files.size() < 2)
    return Fail("triangulate needs at least two CAMERA_FILEs (got " + std::to_string(files.size()) + ")");

  SmartPtr<ICamera3DCalibration> cameras = host.Create<ICamera3DCalibration>(L"Camera3DCalibration");
  if (!cameras) return Fail("Camera3DCalibration: " + host.Error(), 1);
  std::vector<ICamera3DTransform*> rays;  // held by the collection
  for (const std::string& file : files) {
    std::string error;
    int status = 2;
    SmartPtr<ICamera3DTransform> camera = LoadCamera(host, file, &error, &status);
    if (!camera) return Fail(error, status);
    if (cameras->Add(camera) < 0) return Fail("the module did not take the camera of " + file, 1);
    rays.push_back(camera.get());
  }

  std::ifstream file;
  if (!pointsFile.empty()) {
    struct stat info;
    if (stat(pointsFile.c_str(), &info) == 0 && !S_ISREG(info.st_mode))
      return Fail(pointsFile + " is not a regular file of points");
    file.open(pointsFile);
    if (!file) return Fail("cannot read " + pointsFile);
  }
  std::istream& in = pointsFile.empty() ? std::cin : file;
  const size_t wanted = 2 * files.size();
  std::string line;
  int number = 0, degenerate = 0;
  while (std::getline(in, line)) {
    ++number;
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#') continue;
    std::vector<double> values;
    if (!ParseNumberList(line, &values)) return Fail("line " + std::to_string(number) + ": not a number");
    if (values.size() != wanted)
      return Fail("line " + std::to_string(number) + ": expected " + std::to_string(wanted) + " numbers (u v for each of " +
                  std::to_string(files.size()) + " cameras), got " + std::to_string(values.size()));
    std::vector<Point3> image(files.size());
    for (size_t k = 0; k < files.size(); ++k) image[k].x = values[2 * k], image[k].y = values[2 * k + 1];
    double world[3] = {0, 0, 0};
    TaskError failure;
    const Triangulated result = TriangulatePoint(host, cameras, rays, image, world, &failure);
    if (result == Triangulated::kDegenerate) {
      std::printf("degenerate (line %d)\n", number);
      ++degenerate;
      continue;
    }
    if (result == Triangulated::kFailed) return Fail("line " + std::to_string(number) + ": " + failure.message, failure.status);
    const double x = world[0], y = world[1], z = world[2];
    std::printf("%s\n", Format(x, y, z).c_str());
  }
  if (in.bad()) return Fail("cannot read the points", 2);
  if (degenerate > 0) {
    std::fflush(stdout);
    return Fail(std::to_string(degenerate) + " line(s) whose rays fix no single point", 1);
  }
  return 0;
}
