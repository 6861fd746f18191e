#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "tools/zeltrim/Commands.h"
#include "tools/zeltrim/PointText.h"

const char* const kLensRadialHelp =
    "usage: zeltrim lens radial LINES_FILE [options]\n"
    "Fits a radial lens distortion model from image points that lie on straight lines in the\n"
    "world; no target coordinates are needed. LINES_FILE holds one point a line, \"x y\"\n"
    "(pixels), the points of one straight line together, sets separated by blank lines;\n"
    "'#' lines are skipped. Each set needs 3 points or more. Prints the residuals of the\n"
    "points from their lines before and after the fit, the coefficients k0..k4 of\n"
    "f(r) = k0 + k1 r + ... + k4 r^4 (r normalised by the smaller image side), the centre and\n"
    "the aspect factor. The saved model corrects points with 'zeltrim convert FILE'.\n"
    "Options:\n"
    "  --image-size WxH  the image's size in pixels (default: the points' extent, rounded up)\n"
    "  --flags N         what to fit, the sum of: 1 k1, 2 k2, 4 k3, 8 k4, 16 k0 = 1 - (k1+..+k4),\n"
    "                    32 the centre, 64 the x aspect after the main fit, 256 no fit (measure\n"
    "                    the default model only); default 35 (k1, k2 and the centre)\n"
    "  --save FILE       save the model: .xml XML, .t... (e.g. .tRad) folder stream\n";

namespace {

constexpr int kKnownFlags = 1 | 2 | 4 | 8 | 16 | 32 | 64 | 256;
constexpr int kDefaultFlags = 1 | 2 | 32;
// Two points are always on a line; a bend shows from three.
constexpr size_t kFewestPerSet = 3;

struct RadialSettings {
  std::string lines, save;
  int flags = kDefaultFlags;
  unsigned width = 0, height = 0;
};

bool ParseSettings(const CommandContext& context, RadialSettings* s, std::string* error) {
  const std::vector<std::string>& args = context.args;
  std::vector<std::string> files;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    const bool hasValue = i + 1 < args.size();
    if (a == "--flags") {
      char* end = nullptr;
      const std::string v = hasValue ? args[++i] : "";
      const long flags = std::strtol(v.c_str(), &end, 0);
      if (v.empty() || *end != '\0' || flags < 0 || (flags & ~kKnownFlags))
        return *error = "--flags needs a sum of 1, 2, 4, 8, 16, 32, 64 and 256", false;
      s->flags = static_cast<int>(flags);
    } else if (a == "--image-size") {
      const std::string v = hasValue ? args[++i] : "";
      char* end = nullptr;
      const long w = std::strtol(v.c_str(), &end, 10);
      const long h = (*end == 'x' || *end == 'X') ? std::strtol(end + 1, &end, 10) : 0;
      if (v.empty() || *end != '\0' || w < 1 || h < 1 || w > 1000000 || h > 1000000)
        return *error = "--image-size needs WxH, two whole numbers of pixels (e.g. 1920x1080)", false;
      s->width = static_cast<unsigned>(w), s->height = static_cast<unsigned>(h);
    } else if (a == "--save") {
      if (!hasValue) return *error = "--save needs a file name", false;
      s->save = AbsolutePath(args[++i], context.startDir);
    } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
      return *error = "unknown option " + a, false;
    } else {
      files.push_back(AbsolutePath(a, context.startDir));
    }
  }
  if (files.size() != 1) return *error = "lens radial needs one LINES_FILE", false;
  s->lines = files[0];
  return true;
}

// The point sets of a lines file: blank lines end a set, '#' lines are skipped.
bool ReadLineSets(const std::string& path, std::vector<std::vector<Point3>>* sets, std::string* error) {
  struct stat info;
  if (stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) return *error = path + " is not a file", false;
  std::ifstream in(path);
  if (!in) return *error = "cannot read " + path, false;
  return ReadPointSets(in, path, kFewestPerSet, sets, error);
}

void PrintResiduals(const char* when, ICalibrationDistortionRadial* model) {
  double lower = 0, upper = 0, sd = 0;
  QueryAs<ITransformFitErrors>(model)->GetFitErrors(&lower, &upper, &sd);
  std::printf("%-7s residuals from the lines: standard deviation %.6g px, from %.6g to %.6g px\n", when, sd, lower,
              upper);
}

double Parameter(ModuleHost& host, IParametricObject* object, const char* name) {
  SmartPtr<INamedCollection> params;
  object->GetParameters(params.Out(), 0);
  SmartPtr<IParameters> list = QueryAs<IParameters>(params);
  SmartPtr<IVariant> value;
  int index = -1;
  if (!list || list->get_Index(host.NewString(name), &index) < 0 || list->get_ItemVariant(index, value.Out()) < 0 || !value)
    return NAN;
  return value->get_Double();
}

}  // namespace

int RunLensRadial(CommandContext& context) {
  RadialSettings s;
  std::string error;
  if (!ParseSettings(context, &s, &error)) return Fail(error);
  if (const int status = CheckSavePath(s.save)) return status;
  std::vector<std::vector<Point3>> sets;
  if (!ReadLineSets(s.lines, &sets, &error)) return Fail(error);
  size_t points = 0;
  double maxX = 0, maxY = 0;
  for (const auto& set : sets)
    for (const Point3& p : set) {
      ++points;
      maxX = std::max(maxX, p.x), maxY = std::max(maxY, p.y);
    }
  if (s.width == 0) {
    s.width = static_cast<unsigned>(std::ceil(maxX)) + 1;
    s.height = static_cast<unsigned>(std::ceil(maxY)) + 1;
  }

  ModuleHost& host = *context.host;
  SmartPtr<ICreatableSimpleCollection> lines = host.CreateHost<ICreatableSimpleCollection>(L"SimpleCollection");
  if (!lines) return Fail("the host cannot make collections", 1);
  for (const auto& set : sets) lines->Add(MakeCollection(host, set));
  SmartPtr<ICalibrationDistortionRadial> before = host.Create<ICalibrationDistortionRadial>(L"CalibrationDistortionRadial");
  SmartPtr<ICalibrationDistortionRadial> model = host.Create<ICalibrationDistortionRadial>(L"CalibrationDistortionRadial");
  if (!before || !model) return Fail("CalibrationDistortionRadial: " + host.Error(), 1);

  const unsigned side = std::min(s.width, s.height);
  std::printf("CalibrationDistortionRadial: %zu lines, %zu points, image %ux%u (normalised by %u px), flags %d\n",
              sets.size(), points, s.width, s.height, side, s.flags);
  before->SetNormalizationImageSize(s.width, s.height);
  before->StraightLinesNeedtoBeStraight(lines, RADIAL_MEASURE_ONLY);
  PrintResiduals("before:", before);
  model->SetNormalizationImageSize(s.width, s.height);
  model->StraightLinesNeedtoBeStraight(lines, s.flags);
  PrintResiduals("after:", model);

  SmartPtr<IParametricObject> params = QueryAs<IParametricObject>(model);
  std::printf("f(r) = k0 + k1 r + k2 r^2 + k3 r^3 + k4 r^4\n");
  for (const char* k : {"k0", "k1", "k2", "k3", "k4"}) std::printf("  %s %.10g\n", k, Parameter(host, params, k));
  const double x0 = Parameter(host, params, "x0"), y0 = Parameter(host, params, "y0");
  // The model's y runs upward from the bottom of a side x side square.
  std::printf("centre: %.6g, %.6g normalised (pixel %.2f, %.2f)\n", x0, y0, x0 * side, (1 - y0) * side);
  std::printf("aspect s: %.10g\n", Parameter(host, params, "s"));

  if (!s.save.empty()) {
    if (host.Archive(model, s.save, true) < 0) return Fail("cannot save " + s.save + ": " + host.Error(), 1);
    std::fprintf(stderr, "saved %s\n", s.save.c_str());
  }
  return 0;
}
