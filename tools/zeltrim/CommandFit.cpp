#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "tools/zeltrim/Commands.h"
#include "tools/zeltrim/PointText.h"

const char* const kFitHelp =
    "usage: zeltrim fit SOURCE TARGET [options]\n"
    "Fits a best-fit calibration from the points of SOURCE to those of TARGET (one point\n"
    "per line, \"x y\" or \"x y z\"; '#' lines and blank lines skipped; line i of one file\n"
    "pairs with line i of the other) and prints the forward matrix, the fit errors, and the\n"
    "translation, scale and Euler angles read out of the matrix.\n"
    "Options:\n"
    "  --method N          fit method, 0 to 4: 0 affine, or plane homography for a flat\n"
    "                      source (default); 1 rigid; 2 rigid with scale; 3, 4 the\n"
    "                      eigenvector forms\n"
    "  --filter            drop outlying pairs by fit and filter, and list them\n"
    "  --allowable E       mean error that ends the filter (default 5)\n"
    "  --max-iterations N  fit rounds of the filter at most, 1 or more (default 10)\n"
    "  --min-points N      the filter keeps at least this many pairs, 2 or more (default 4)\n"
    "  --save FILE         save the calibration; the extension picks the form:\n"
    "                      .csv text matrices, .xml XML, .t... (e.g. .tCAL) folder stream\n";

namespace {

// The fit reads the low four bits of the method; 5 to 15 fit as 0 does, so only the
// named methods are offered.
constexpr int kLastMethod = 4;
// A fit and filter round needs a fit, and a fit needs two pairs.
constexpr int kFewestPoints = 2;

struct FitSettings {
  std::string source, target, save;
  int method = 0;
  bool filter = false;
  double allowable = 5.0;
  int maxIterations = 10;
  int minPoints = 4;
};

bool ParseInt(const std::string& text, int* value) {
  char* end = nullptr;
  const long v = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || v < -1000000 || v > 1000000) return false;
  *value = static_cast<int>(v);
  return true;
}

bool ParseSettings(const CommandContext& context, FitSettings* s, std::string* error) {
  const std::vector<std::string>& args = context.args;
  std::vector<std::string> files;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    const bool hasValue = i + 1 < args.size();
    if (a == "--filter") {
      s->filter = true;
    } else if (a == "--method") {
      if (!hasValue || !ParseInt(args[++i], &s->method)) return *error = "--method needs a whole number", false;
    } else if (a == "--max-iterations") {
      if (!hasValue || !ParseInt(args[++i], &s->maxIterations))
        return *error = "--max-iterations needs a whole number", false;
    } else if (a == "--min-points") {
      if (!hasValue || !ParseInt(args[++i], &s->minPoints)) return *error = "--min-points needs a whole number", false;
    } else if (a == "--allowable") {
      if (!hasValue || !ParseNumbers(args[++i], 1, &s->allowable)) return *error = "--allowable needs a number", false;
    } else if (a == "--save") {
      if (!hasValue) return *error = "--save needs a file name", false;
      s->save = AbsolutePath(args[++i], context.startDir);
    } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
      return *error = "unknown option " + a, false;
    } else {
      files.push_back(AbsolutePath(a, context.startDir));
    }
  }
  if (s->method < 0 || s->method > kLastMethod)
    return *error = "--method must be 0 to 4 (5 to 15 would fit as method 0 does)", false;
  if (s->maxIterations < 1) return *error = "--max-iterations must be 1 or more (0 would fit nothing)", false;
  if (s->minPoints < kFewestPoints) return *error = "--min-points must be 2 or more (a fit needs two pairs)", false;
  if (files.size() != 2) return *error = "fit needs a SOURCE and a TARGET point file", false;
  s->source = files[0];
  s->target = files[1];
  return true;
}

SmartPtr<IUnknown> Item(ISimpleCollection* c, int i) {
  SmartPtr<IUnknown> item;
  c->get_Item(i, item.Out());
  return QueryAs<IUnknown>(item);
}

}  // namespace

bool ReadPointFile(const std::string& path, std::vector<Point3>* points, std::string* error, int numbers) {
  struct stat info;
  if (stat(path.c_str(), &info) == 0) {
    if (S_ISDIR(info.st_mode)) return *error = path + " is a folder, not a point file", false;
    if (S_ISCHR(info.st_mode) || S_ISBLK(info.st_mode)) return *error = path + " is a device, not a point file", false;
  }
  std::ifstream in(path);
  if (!in) return *error = "cannot read " + path, false;
  std::string why;
  if (!ReadPoints(in, points, &why, numbers)) return *error = path + ", " + why, false;
  if (in.bad()) return *error = "cannot read " + path, false;
  if (points->empty()) return *error = path + " holds no points", false;
  return true;
}

bool ReadPointPairFiles(const std::string& sourcePath, const std::string& targetPath, std::vector<Point3>* source,
                        std::vector<Point3>* target, std::string* error) {
  if (!ReadPointFile(sourcePath, source, error) || !ReadPointFile(targetPath, target, error)) return false;
  if (source->size() == target->size()) return true;
  *error = "the point files differ in length: " + std::to_string(source->size()) + " and " +
           std::to_string(target->size()) + " points";
  return false;
}

int RunFit(CommandContext& context) {
  FitSettings s;
  std::string error;
  if (!ParseSettings(context, &s, &error)) return Fail(error);
  if (const int status = CheckSavePath(s.save)) return status;
  std::vector<Point3> source, target;
  if (!ReadPointPairFiles(s.source, s.target, &source, &target, &error)) return Fail(error);
  if (source.size() < 2) return Fail("a fit needs at least 2 point pairs, the files hold " + std::to_string(source.size()));

  ModuleHost& host = *context.host;
  SmartPtr<ICalibrationBestFit> calibration = host.Create<ICalibrationBestFit>(L"CalibrationBestFit");
  if (!calibration) return Fail("CalibrationBestFit: " + host.Error(), 1);
  SmartPtr<ISimpleCollection> a = MakeCollection(host, source), b = MakeCollection(host, target);
  if (!a || !b) return Fail("the host cannot make point collections", 1);

  std::printf("CalibrationBestFit: %zu point pairs, method %d\n", source.size(), s.method);
  size_t fittedPairs = source.size();  // pairs of the last fit; 0 when the filter does not say
  if (s.filter) {
    SmartPtr<ICalibrationFitAndFilter> filter = host.Create<ICalibrationFitAndFilter>(L"CalibrationFitAndFilter");
    if (!filter) return Fail("CalibrationFitAndFilter: " + host.Error(), 1);
    filter->SetFitMethod(s.method, s.maxIterations, s.allowable);
    filter->SetMinNbPoints(s.minPoints);
    SmartPtr<ISimpleCollection> keptA, keptB;
    const HRESULT hr = filter->BestFit(calibration, a, b, keptA.Out(), keptB.Out());
    if (hr < 0) return Fail("fit and filter failed", 1);
    std::printf("filter: %s\n", hr == S_OK ? "accepted" : "not accepted (mean error above --allowable)");
    if (keptA) {
      int kept = 0;
      keptA->get_Count(&kept);
      fittedPairs = static_cast<size_t>(kept);
      std::printf("kept %d of %zu pairs; dropped:", kept, source.size());
      int next = 0, dropped = 0;
      for (int i = 0; i < static_cast<int>(source.size()); ++i) {
        if (next < kept && Item(keptA, next).get() == Item(a, i).get()) {
          ++next;
          continue;
        }
        std::printf(" %d", i + 1);
        ++dropped;
      }
      std::printf("%s\n", dropped ? "  (line numbers among the points)" : " none");
    } else {
      fittedPairs = 0;
      std::printf("the filter would go below --min-points; the calibration holds its last fit\n");
    }
  } else {
    calibration->BestFit(a, b, s.method);
  }

  FitFigures fit;
  TaskError failure;
  if (!ReadFit(calibration, &fit, &failure)) return Fail(failure.message, failure.status);
  const double* m = fit.matrix;
  const double mean = fit.mean, largest = fit.largest, sd = fit.sd;
  SmartPtr<ITransform> forward;
  calibration->GetForwardTransform(forward.Out());
  SmartPtr<IHomogeneousTransform> matrix = QueryAs<IHomogeneousTransform>(forward);

  std::printf("forward matrix (a point is the row [x y z 1] times the matrix):\n");
  for (int r = 0; r < 4; ++r)
    std::printf("  %14.8g %14.8g %14.8g %14.8g\n", m[4 * r], m[4 * r + 1], m[4 * r + 2], m[4 * r + 3]);
  std::printf("errors (target units): mean %.6g  largest %.6g  standard deviation %.6g\n", mean, largest, sd);
  if (fittedPairs == 2)
    std::printf("note: a fit of two pairs computes no errors (these 0s are not measured) and maps the second "
                "pair exactly only with --method 2 or 4\n");

  if (SmartPtr<ITransformInterrogate> ask = host.Create<ITransformInterrogate>(L"TransformInterrogate")) {
    double x = 0, y = 0, z = 0;
    ask->GetTranslation(matrix, &x, &y, &z);
    std::printf("translation: %.8g %.8g %.8g\n", x, y, z);
    ask->GetScale(matrix, &x, &y, &z);
    std::printf("scale: %.8g %.8g %.8g\n", x, y, z);
    ask->GetEulerAngles(matrix, 0, &x, &y, &z);
    const double degrees = 180.0 / 3.14159265358979323846;
    std::printf("euler angles (degrees): %.6g %.6g %.6g\n", x * degrees, y * degrees, z * degrees);
  }
  if (!s.save.empty()) {
    if (host.Archive(calibration, s.save, true) < 0) return Fail("cannot save " + s.save + ": " + host.Error(), 1);
    std::printf("saved %s\n", s.save.c_str());
  }
  return 0;
}
