// `zeltrim lens polynomial SRC DST --grid CxR`: the polynomial grid correction
// ("CalibrationPolynomial") fitted to a measured grid, and what `zeltrim show` prints of
// one.
#include <cstdio>
#include <cstdlib>

#include "host/client/CalibrationFile.h"
#include "tools/zeltrim/Commands.h"

const char* const kLensPolynomialHelp =
    "usage: zeltrim lens polynomial SOURCE TARGET --grid CxR [--order N] [--save FILE]\n"
    "Fits a polynomial grid correction (CalibrationPolynomial) to a measured grid of C\n"
    "columns and R rows: SOURCE and TARGET hold one point per line (\"x y\"; '#' lines and\n"
    "blank lines skipped), C x R of them each, in row order (the first row from its first\n"
    "column to its last, then the next row). Through each row a curve gives the target x\n"
    "from the source x, through each column one gives the target y from the source y; a\n"
    "point blends the curves of its two neighbouring columns and rows. Prints the grid,\n"
    "the kind of curve and the fit errors (the largest distance of a grid point from its\n"
    "target after conversion, and the root mean square over N - 1). Grid points on the\n"
    "first or an inner line convert through the last line's curve (the module's lookup),\n"
    "so even an exact grid can show errors there.\n"
    "Options:\n"
    "  --grid CxR    columns and rows, at least 2 each and 6 points in all (e.g. 5x4)\n"
    "  --order N     the curves: 1 broken lines, 2 natural cubic splines, any other\n"
    "                number Lagrange polynomials through all points of a line (default 5)\n"
    "  --save FILE   save the correction as a folder stream (e.g. grid.tCalPoly); this\n"
    "                class has no XML form\n";

namespace {

constexpr int kFewestPoints = 6;          // the module refuses smaller grids
constexpr int kMostLines = 1 << 16;       // what a saved grid may hold, each way

struct PolynomialSettings {
  std::string source, target, save;
  int columns = 0, rows = 0;
  int order = 5;
};

bool ParseWhole(const std::string& text, int* value) {
  char* end = nullptr;
  const long v = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || v < -1000000 || v > 1000000) return false;
  *value = static_cast<int>(v);
  return true;
}

bool ParseGrid(const std::string& text, int* columns, int* rows) {
  const size_t x = text.find_first_of("xX");
  return x != std::string::npos && ParseWhole(text.substr(0, x), columns) && ParseWhole(text.substr(x + 1), rows);
}

bool ParseSettings(const CommandContext& context, PolynomialSettings* s, std::string* error) {
  const std::vector<std::string>& args = context.args;
  std::vector<std::string> files;
  bool grid = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    const bool hasValue = i + 1 < args.size();
    if (a == "--grid") {
      if (!hasValue || !ParseGrid(args[++i], &s->columns, &s->rows))
        return *error = "--grid needs COLUMNSxROWS, e.g. 5x4", false;
      grid = true;
    } else if (a == "--order") {
      if (!hasValue || !ParseWhole(args[++i], &s->order)) return *error = "--order needs a whole number", false;
    } else if (a == "--save") {
      if (!hasValue) return *error = "--save needs a file name", false;
      s->save = AbsolutePath(args[++i], context.startDir);
    } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
      return *error = "unknown option " + a, false;
    } else {
      files.push_back(AbsolutePath(a, context.startDir));
    }
  }
  if (files.size() != 2) return *error = "lens polynomial needs a SOURCE and a TARGET point file", false;
  if (!grid) return *error = "lens polynomial needs --grid COLUMNSxROWS", false;
  if (s->columns < 2 || s->rows < 2 || s->columns > kMostLines || s->rows > kMostLines)
    return *error = "--grid needs 2 to 65536 columns and rows (got " + std::to_string(s->columns) + "x" +
                    std::to_string(s->rows) + ")", false;
  if (static_cast<long long>(s->columns) * s->rows < kFewestPoints)
    return *error = "a grid needs at least 6 points (" + std::to_string(s->columns) + "x" + std::to_string(s->rows) +
                    " is " + std::to_string(s->columns * s->rows) + ")", false;
  if (!s->save.empty() && client::FormOfPath(s->save) == client::FileForm::kXML)
    return *error = "cannot save " + s->save + ": a CalibrationPolynomial has no XML form (use .tCalPoly)", false;
  s->source = files[0];
  s->target = files[1];
  return true;
}

const char* CurveKind(int order) {
  if (order == 1) return "broken lines (CurveSpline order 1)";
  if (order == 2) return "natural cubic splines (CurveSpline order 2)";
  return "Lagrange polynomials (CurveLagrange)";
}

// NbPointsX and NbPointsY as the file stores them: no interface of the class tells them.
bool StoredGrid(ModuleHost& host, const std::string& path, int* columns, int* rows) {
  SmartPtr<IFolderStream> file = host.CreateHost<IFolderStream>(L"FolderStream");
  SmartPtr<IFileArchive> archive = QueryAs<IFileArchive>(file);
  if (!archive || archive->put_Filename(host.NewString(path)) < 0 || archive->Load() < 0) return false;
  SmartPtr<IDataStream> content;
  if (file->OpenSubStream(host.NewString("CalibrationPolynomial"), 0, content.Out()) < 0) return false;
  SmartPtr<IFolderStream> grid = QueryAs<IFolderStream>(content);
  return grid && grid->ReadData(host.NewString("NbPointsX"), columns, 4, 0) >= 0 &&
         grid->ReadData(host.NewString("NbPointsY"), rows, 4, 0) >= 0;
}

}  // namespace

bool ShowPolynomial(ModuleHost& host, IUnknown* object, const std::string& path) {
  SmartPtr<ICalibrationPolynomial> polynomial = QueryAs<ICalibrationPolynomial>(object);
  if (!polynomial) return false;
  int columns = 0, rows = 0, order = 0;
  polynomial->get_Order(&order);
  if (StoredGrid(host, path, &columns, &rows)) {
    if (columns == 0 && rows == 0)
      std::printf("grid: none (never fitted)\n");
    else
      std::printf("grid: %d columns x %d rows (%d points)\n", columns, rows, columns * rows);
  }
  std::printf("order: %d, curves: %s\n", order, CurveKind(order));
  double lower = 0, largest = 0, sd = 0;
  if (SmartPtr<ITransformFitErrors> errors = QueryAs<ITransformFitErrors>(object))
    errors->GetFitErrors(&lower, &largest, &sd);
  std::printf("fit errors: largest %.6g  standard deviation %.6g\n", largest, sd);
  return true;
}

int RunLensPolynomial(CommandContext& context) {
  PolynomialSettings s;
  std::string error;
  if (!ParseSettings(context, &s, &error)) return Fail(error);
  if (const int status = CheckSavePath(s.save)) return status;
  std::vector<Point3> source, target;
  if (!ReadPointPairFiles(s.source, s.target, &source, &target, &error)) return Fail(error);
  const size_t points = static_cast<size_t>(s.columns) * static_cast<size_t>(s.rows);
  if (source.size() != points)
    return Fail("the grid " + std::to_string(s.columns) + "x" + std::to_string(s.rows) + " has " +
                std::to_string(points) + " points, the files hold " + std::to_string(source.size()));

  ModuleHost& host = *context.host;
  SmartPtr<ICalibrationPolynomial> calibration = host.Create<ICalibrationPolynomial>(L"CalibrationPolynomial");
  if (!calibration) return Fail("CalibrationPolynomial: " + host.Error(), 1);
  SmartPtr<ISimpleCollection> a = MakeCollection(host, source), b = MakeCollection(host, target);
  if (!a || !b) return Fail("the host cannot make point collections", 1);
  calibration->put_Order(s.order);
  if (calibration->Fit(a, b, s.columns, s.rows) < 0) return Fail("the fit failed", 1);

  double lower = 0, largest = 0, sd = 0;
  QueryAs<ITransformFitErrors>(calibration)->GetFitErrors(&lower, &largest, &sd);
  std::printf("CalibrationPolynomial: grid %d columns x %d rows (%zu points)\n", s.columns, s.rows, points);
  std::printf("order: %d, curves: %s\n", s.order, CurveKind(s.order));
  std::printf("fit errors (target units): largest %.6g  standard deviation %.6g\n", largest, sd);
  if (!s.save.empty()) {
    if (host.Archive(calibration, s.save, true) < 0) return Fail("cannot save " + s.save + ": " + host.Error(), 1);
    std::printf("saved %s\n", s.save.c_str());
  }
  return 0;
}
