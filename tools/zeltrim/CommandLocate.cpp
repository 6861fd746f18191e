// zeltrim locate: image points to world points on a plane, through a saved camera held by
// a Camera3DCalibrationPlane. Also what `zeltrim show` prints of that class.
#include <cmath>
#include <cstdio>
#include <iostream>

#include "host/client/CalibrationFile.h"
#include "tools/zeltrim/Commands.h"
#include "tools/zeltrim/HostText.h"

const char* const kLocateHelp =
    "usage: zeltrim locate CAMERA_FILE --plane A,B,C,D [options] [POINT ...]\n"
    "Turns image points into the world points where their viewing rays meet the plane\n"
    "A X + B Y + C Z + D = 0, through the camera saved in CAMERA_FILE (a Camera3DTransform\n"
    "or a Camera3DTrinsic, .xml or .t..., as 'zeltrim calibrate --save' writes it). POINT is\n"
    "x,y in pixels (a third number is ignored); without points, lines of \"x y\" are read\n"
    "from standard input ('#' lines and blank lines skipped), unless --save is given.\n"
    "Options:\n"
    "  --plane A,B,C,D   the plane; (A, B, C) must not be zero. Not needed with\n"
    "                    --pseudo-inverse\n"
    "  --negate 0|1      1 (default): the located point; 0: the module's raw solution,\n"
    "                    which is that point mirrored through the origin\n"
    "  --pseudo-inverse  a Camera3DTrinsic only: the ray's point at the fixed height\n"
    "                    Z = -0.001 (Z = 0.001 with --negate 0), whatever the plane\n"
    "  --save FILE       save the camera and the plane as a Camera3DCalibrationPlane:\n"
    "                    .t... folder stream (keeps both), .xml (keeps the plane only),\n"
    "                    any other extension the text report\n";

namespace {

struct LocateSettings {
  std::string camera, save;
  double plane[4] = {0, 0, 0, 0};
  bool planeGiven = false, pseudoInverse = false;
  int negate = 1;
  std::vector<std::string> points;
};

bool ParseSettings(const CommandContext& context, LocateSettings* s, std::string* error) {
  const std::vector<std::string>& args = context.args;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    const bool hasValue = i + 1 < args.size();
    if (a == "--pseudo-inverse") {
      s->pseudoInverse = true;
    } else if (a == "--plane") {
      if (!hasValue || !ParseNumbers(args[i + 1], 4, s->plane)) return *error = "--plane needs A,B,C,D", false;
      if (s->plane[0] == 0 && s->plane[1] == 0 && s->plane[2] == 0)
        return *error = "--plane needs a normal: A, B and C are all 0", false;
      s->planeGiven = true;
      ++i;
    } else if (a == "--negate") {
      if (!hasValue || (args[i + 1] != "0" && args[i + 1] != "1")) return *error = "--negate needs 0 or 1", false;
      s->negate = args[++i] == "1";
    } else if (a == "--save") {
      if (!hasValue) return *error = "--save needs a file name", false;
      s->save = AbsolutePath(args[++i], context.startDir);
    } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
      return *error = "unknown option " + a, false;
    } else if (s->camera.empty()) {
      s->camera = AbsolutePath(a, context.startDir);
    } else {
      s->points.push_back(a);
    }
  }
  if (s->camera.empty()) return *error = "locate needs a CAMERA_FILE", false;
  if (!s->planeGiven && !s->pseudoInverse) return *error = "locate needs --plane A,B,C,D", false;
  return true;
}

bool IsCameraClass(const std::wstring& name) { return name == L"Camera3DTransform" || name == L"Camera3DTrinsic"; }

// A plane calibration's parameters: "Negate" is the one that locate sets.
HRESULT SetNegate(ModuleHost& host, IParametricObject* object, int negate) {
  SmartPtr<IParametersCreatable> list = host.CreateHost<IParametersCreatable>(L"ParametersCreatable");
  SmartPtr<IVariant> value = host.CreateHost<IVariant>(L"Variant");
  if (!list || !value || !object) return E_FAIL;
  value->put_Integer(negate);
  list->Add(host.NewString("Negate"), value, nullptr, 0);
  return object->SetParameters(list);
}

}  // namespace

int RunLocate(CommandContext& context) {
  LocateSettings s;
  std::string error;
  if (!ParseSettings(context, &s, &error)) return Fail(error);
  if (const int status = CheckSavePath(s.save)) return status;
  std::vector<Point3> points;
  if (!ParsePoints(s.points, &points, &error)) return Fail(error);

  // The camera: a file of either camera class, holding a matrix.
  ModuleHost& host = *context.host;
  const client::FileReport found = client::CheckFile(s.camera, std::wstring());
  if (!found.ok) return Fail("cannot read the camera " + s.camera + ": " + found.problem);
  if (!IsCameraClass(found.objectName))
    return Fail(s.camera + " holds a " + Narrow(found.objectName) + ", not a camera (Camera3DTransform or Camera3DTrinsic)");
  SmartPtr<ICamera3DTransform> camera = host.Create<ICamera3DTransform>(found.objectName.c_str());
  if (!camera) return Fail(Narrow(found.objectName) + ": " + host.Error(), 1);
  if (host.Archive(camera, s.camera, false) < 0) return Fail("cannot load " + s.camera + ": " + host.Error(), 1);
  double* matrix = nullptr;
  camera->GetMatrix(&matrix, nullptr, nullptr);
  bool empty = true;
  for (int i = 0; matrix && i < 12; ++i) empty = empty && matrix[i] == 0.0;
  if (empty) return Fail(s.camera + " holds no camera matrix (a Camera3DTransform keeps it in a .t... file only)");

  SmartPtr<ICamera3DCalibrationPlane> located =
      host.Create<ICamera3DCalibrationPlane>(L"Camera3DCalibrationPlane");
  if (!located) return Fail("Camera3DCalibrationPlane: " + host.Error(), 1);
  located->SetReverseTransform(camera);
  if (s.planeGiven) {
    IUnknown* held = nullptr;  // borrowed
    located->get_Plane(&held);
    SmartPtr<IPlane> plane = QueryAs<IPlane>(held);
    if (!plane) return Fail("the calibration holds no plane (is the Geometry peer module installed?)", 1);
    // The module meets the plane with the sign of D reversed: hand it -D, so that the
    // points land on the plane as the user wrote it.
    if (plane->SetCoefficients(s.plane[0], s.plane[1], s.plane[2], -s.plane[3]) < 0)
      return Fail("--plane A,B,C,D is out of range");
  }
  if (SetNegate(host, QueryAs<IParametricObject>(located), s.negate) < 0)
    return Fail("cannot set Negate (is the Collections peer module installed?)", 1);
  if (s.pseudoInverse && located->UsePseudoInverse(1) < 0)
    return Fail("--pseudo-inverse needs a Camera3DTrinsic; " + s.camera + " holds a " + Narrow(found.objectName));

  if (!s.save.empty()) {
    if (host.Archive(located, s.save, true) < 0) return Fail("cannot save " + s.save + ": " + host.Error(), 1);
    std::fprintf(stderr, "saved %s\n", s.save.c_str());
    if (client::FormOfPath(s.save) == client::FileForm::kXML)
      std::fprintf(stderr, "note: the XML form keeps the plane, not the camera; a .t... file keeps both\n");
  }
  if (s.points.empty() && s.save.empty() && !ReadPoints(std::cin, &points, &error))
    return Fail("standard input, " + error);

  for (Point3 p : points) {
    if (located->Convert(&p.x, &p.y, &p.z) < 0) return Fail("the module could not locate a point", 1);
    p.x += 0.0, p.y += 0.0, p.z += 0.0;  // the negation leaves -0 where the solution is 0
    std::printf("%s\n", FormatPoint(p).c_str());
  }
  return 0;
}

void ShowCameraPlane(IUnknown* object) {
  SmartPtr<ICamera3DCalibrationPlane> located = QueryAs<ICamera3DCalibrationPlane>(object);
  if (!located) return;
  SmartPtr<ITransform> transform;
  located->GetReverseTransform(transform.Out());
  SmartPtr<ICamera3DTransform> camera = QueryAs<ICamera3DTransform>(transform);
  double* m = nullptr;
  if (camera && camera->GetMatrix(&m, nullptr, nullptr) >= 0 && m) {
    SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(camera);
    tagREFString name{0, nullptr};
    if (info) info->GetName(0, &name);
    std::printf("camera: %s\n", name.m_Text ? Narrow(std::wstring(name.m_Text, name.m_Length)).c_str() : "?");
    std::printf("camera matrix P (world to image):\n");
    for (int r = 0; r < 3; ++r)  // held by columns: row r, column c at 3 c + r
      std::printf("  %14.8g %14.8g %14.8g %14.8g\n", m[r], m[3 + r], m[6 + r], m[9 + r]);
  }
  IUnknown* held = nullptr;  // borrowed
  located->get_Plane(&held);
  if (SmartPtr<IPlane> plane = QueryAs<IPlane>(held)) {
    double a = 0, b = 0, c = 0, d = 0;
    plane->GetCoefficients(&a, &b, &c, &d);
    std::printf("plane (a, b, c, d): %.10g %.10g %.10g %.10g (points located on a X + b Y + c Z = d)\n", a, b, c, d);
  }
}
