#include <cstdio>

#include "host/client/CalibrationFile.h"
#include "tools/zeltrim/Cameras.h"
#include "tools/zeltrim/HostText.h"
#include "tools/zeltrim/Commands.h"

const char* const kShowHelp =
    "usage: zeltrim show FILE\n"
    "Shows a calibration file of the module (.xml, or a folder stream such as .tCAL): the\n"
    "object it holds, its info block (name, type, device, description, units, time), its\n"
    "named parameters and, for fitted calibrations, its matrices and fit errors. For a\n"
    "camera (Camera3DTransform, Camera3DTrinsic): the camera matrix P by rows, the camera\n"
    "centre and the reprojection errors in pixels; for a Camera3DTrinsic also the\n"
    "intrinsics A, the pose of the last view and the normalisation image size. For a\n"
    "CalibrationPolynomial: its grid size, order, kind of curve and fit errors.\n";

namespace {

const char* UnitName(int code) {
  static const char* const names[] = {"none", "micrometre", "millimetre", "metre", "kilometre",
                                      "thousandth of an inch", "inch", "foot"};
  return code >= 0 && code <= 7 ? names[code] : "unknown";
}

void ShowInfo(ICalibrationInfo* info) {
  SmartPtr<IString> s;
  if (info->get_CALIBName(s.Out()) >= 0) std::printf("name: %s\n", Narrow(TextOf(s)).c_str());
  if (info->get_CALIBType(s.Out()) >= 0) std::printf("type: %s\n", Narrow(TextOf(s)).c_str());
  SmartPtr<IUnknown> device;
  info->get_CALIBDevice(device.Out());
  if (SmartPtr<IString> text = QueryAs<IString>(device)) std::printf("device: %s\n", Narrow(TextOf(text)).c_str());
  if (info->get_CALIBDescription(s.Out()) >= 0) std::printf("description: %s\n", Narrow(TextOf(s)).c_str());
  int units = 0;
  info->get_CALIBUnits(&units);
  info->get_CALIBUnitsText(s.Out());
  std::printf("units: %d (%s)%s%s\n", units, UnitName(units), s ? " " : "", s ? Narrow(TextOf(s)).c_str() : "");
  short day = 0, month = 0, year = 0, hour = 0, minute = 0;
  info->GetCalibrationTime(&day, &month, &year, &hour, &minute);
  if (year == 0)
    std::printf("time: never calibrated\n");
  else
    std::printf("time: %04d-%02d-%02d %02d:%02d\n", year, month, day, hour, minute);
}

void ShowParameters(IParametricObject* parametric) {
  const std::vector<NamedValue> values = ReadParameters(parametric);
  if (values.empty()) return;
  std::printf("parameters:\n");
  for (const NamedValue& v : values) {
    if (v.kind == NamedValue::kInteger)
      std::printf("  %-16s %d\n", v.name.c_str(), v.integer);
    else if (v.kind == NamedValue::kDouble)
      std::printf("  %-16s %.10g\n", v.name.c_str(), v.number);
    else
      std::printf("  %-16s %s\n", v.name.c_str(), v.text.c_str());
  }
}

void ShowMatrix(const char* title, ITransform* transform) {
  SmartPtr<IHomogeneousTransform> h = QueryAs<IHomogeneousTransform>(transform);
  double* m = nullptr;
  if (!h || h->GetMatrix(&m, nullptr, nullptr) < 0 || !m) return;
  std::printf("%s:\n", title);
  for (int r = 0; r < 4; ++r)
    std::printf("  %14.8g %14.8g %14.8g %14.8g\n", m[4 * r], m[4 * r + 1], m[4 * r + 2], m[4 * r + 3]);
}

}  // namespace

int RunShow(CommandContext& context) {
  if (context.args.size() != 1) return Fail("show needs one FILE");
  const std::string path = AbsolutePath(context.args[0], context.startDir);
  SmartPtr<IUnknown> instance;
  std::wstring object;
  const std::string problem = LoadCalibrationFile(*context.host, path, &instance, &object);
  if (!problem.empty()) return Fail("cannot show " + path + ": " + problem);
  std::printf("file: %s\nobject: %s\n", path.c_str(), Narrow(object).c_str());
  if (SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(instance)) ShowInfo(info);
  if (SmartPtr<IParametricObject> parametric = QueryAs<IParametricObject>(instance)) ShowParameters(parametric);
  if (ShowCamera(instance)) return 0;
  if (ShowPolynomial(*context.host, instance, path)) return 0;
  if (SmartPtr<IHomogeneousCalibration> calibration = QueryAs<IHomogeneousCalibration>(instance)) {
    SmartPtr<ITransform> t;
    calibration->GetForwardTransform(t.Out());
    ShowMatrix("forward matrix", t);
    calibration->GetReverseTransform(t.Out());
    ShowMatrix("reverse matrix", t);
  } else if (SmartPtr<IHomogeneousTransform> transform = QueryAs<IHomogeneousTransform>(instance)) {
    ShowMatrix("matrix", transform);
  }
  ShowCameraPlane(instance);
  if (SmartPtr<ITransformFitErrors> errors = QueryAs<ITransformFitErrors>(instance)) {
    double a = 0, b = 0, sd = 0;
    // Not every class is fitted: a failing GetFitErrors has nothing to say.
    if (errors->GetFitErrors(&a, &b, &sd) < 0) return 0;
    if (QueryAs<ICalibrationDistortionRadial>(instance))
      std::printf("residuals from the lines: from %.6g to %.6g px, standard deviation %.6g px\n", a, b, sd);
    else
      std::printf("fit errors: mean %.6g  largest %.6g  standard deviation %.6g\n", a, b, sd);
  }
  return 0;
}
