// zeltrim calibrate: a Camera3DTrinsic calibrated from the views of a flat target.
#include <dirent.h>
#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <fstream>
#include <map>
#include <set>

#include "tools/zeltrim/BoardDetection.h"
#include "tools/zeltrim/CalibrateReport.h"
#include "tools/zeltrim/CommandCalibrateRefine.h"
#include "tools/zeltrim/Commands.h"

const char* const kCalibrateHelp =
    "usage: zeltrim calibrate [FOLDER | --model FILE VIEW... | --images GLOB... --board COLSxROWS] [options]\n"
    "Calibrates a pinhole camera (Camera3DTrinsic) from several views of a flat target and\n"
    "prints the intrinsics, the distortion estimate, each view's errors, the overall errors\n"
    "and the pose of the last view. FOLDER holds model.txt (the target's points, \"X Y\" a\n"
    "line) and view01.txt, view02.txt, ... (the image points in pixels, line i matching line\n"
    "i of the model). Without FOLDER, --model or --images it runs on the bundled sample.\n"
    "Options:\n"
    "  --model FILE VIEW...  the model file and the view files, in order, instead of FOLDER\n"
    "  --images GLOB...      photographs of a chessboard instead of point files: file names or\n"
    "                        patterns (quoted patterns are expanded here, each one sorted by\n"
    "                        name). The inner corners are found in each photograph to a\n"
    "                        fraction of a pixel; photographs without the board are listed and\n"
    "                        skipped, and at least 3 must show it. The image size is the\n"
    "                        photographs' own (they must all have the same). Needs OpenCV.\n"
    "  --board COLSxROWS     with --images: the board's inner corners across and down, e.g.\n"
    "                        9x6 for a board of 10 x 7 squares (required); a size one short\n"
    "                        of the board's may be found as a part of it\n"
    "  --square SIZE         with --images: the side of one square in the units wanted for the\n"
    "                        poses (default 1)\n"
    "  --subpix-window N     with --images: corners are refined over a (2N+1) x (2N+1) pixel\n"
    "                        area (default 11); a smaller N (e.g. 7) keeps the outer corners\n"
    "                        of small squares off the board's border\n"
    "  --points-out DIR      with --images: write the corners found as DIR/model.txt and\n"
    "                        DIR/view01.txt, ... (the FOLDER format; view files already there\n"
    "                        are replaced) and DIR/images.txt (which photograph each view is)\n"
    "  --image-size WxH      the size of the images in pixels (default 640x480; not with\n"
    "                        --images)\n"
    "  --mode 0|1            how the views reach the module: 1 one collection, view after\n"
    "                        view (default); 0 one collection per view (3 views at least)\n"
    "  --save FILE           save the camera: .xml XML, .t... (e.g. .tCAL) folder stream,\n"
    "                        any other extension (e.g. .csv) the camera's text report\n"
    "  --json                print the results as one JSON object\n"
    "  --report FILE         also write a self-contained HTML report: intrinsics, each view's\n"
    "                        errors and residuals (over its photograph with --images), the\n"
    "                        coverage of the image and the radial distortion curve\n"
    "  --refine              then refine the intrinsics, a lens model and every view's pose\n"
    "                        together (needs Ceres Solver) and print the refined values beside\n"
    "                        the module's, with standard deviations, the RMS error overall and\n"
    "                        per view and how the solver stopped; --save keeps the refined camera\n"
    "  --lens MODEL          with --refine: pinhole, radial2 (k1 k2), radial3 (k1 k2 k3) or full\n"
    "                        (k1 k2 p1 p2 k3, the default)\n"
    "  --refine-skew         with --refine: refine the skew too (by default it is held at 0)\n";

namespace {

// Fewer views leave the closed-form intrinsics (with skew) undetermined.
constexpr int kMinViews = 3;

struct CalibrateSettings {
  std::string model, save, source;
  std::vector<std::string> views;  // point files, or with --images the photographs used
  int width = 640, height = 480, mode = 1;
  bool json = false;
  // Photographs instead of point files.
  bool images = false;
  std::vector<std::string> patterns;
  BoardSettings board;
  double square = 1.0;
  std::string pointsOut;
  std::string report;  // --report FILE
};

std::string BaseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool ParseImageSize(const std::string& text, int* width, int* height) {
  const size_t x = text.find('x');
  if (x == std::string::npos) return false;
  char* end = nullptr;
  const long w = std::strtol(text.c_str(), &end, 10);
  if (end != text.c_str() + x) return false;
  const long h = std::strtol(text.c_str() + x + 1, &end, 10);
  if (*end != '\0' || end == text.c_str() + x + 1 || w < 1 || h < 1 || w > 1000000 || h > 1000000) return false;
  *width = static_cast<int>(w);
  *height = static_cast<int>(h);
  return true;
}

// The view files of a folder, view01.txt to viewNN.txt without a gap.
bool FolderViews(const std::string& folder, std::vector<std::string>* views, std::string* error) {
  DIR* dir = opendir(folder.c_str());
  if (!dir) return *error = "cannot read the folder " + folder, false;
  std::map<int, std::string> found;
  while (dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    int number = 0;
    char tail[8] = "";
    if (name.size() > 8 && name.compare(0, 4, "view") == 0 &&
        std::sscanf(name.c_str(), "view%d.%7s", &number, tail) == 2 && std::string(tail) == "txt" && number > 0)
      found[number] = name;
  }
  closedir(dir);
  if (found.empty()) return *error = "no viewNN.txt files in " + folder, false;
  int expected = 1;
  for (const auto& view : found) {
    if (view.first != expected) {
      char name[32];
      std::snprintf(name, sizeof(name), "view%02d.txt", expected);
      return *error = folder + ": " + name + " is missing (views are numbered from 01 without gaps)", false;
    }
    views->push_back(folder + "/" + view.second);
    ++expected;
  }
  return true;
}

bool ParseSettings(const CommandContext& context, CalibrateSettings* s, std::string* error) {
  const std::vector<std::string>& args = context.args;
  std::vector<std::string> plain;
  bool modelGiven = false, sizeGiven = false;
  std::vector<std::string> photoOptions;  // options that only go with --images
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    const bool hasValue = i + 1 < args.size();
    if (a == "--images") {
      if (!BoardDetectionAvailable())
        return *error = "this zeltrim was built without OpenCV, so --images cannot read photographs", false;
      s->images = true;
    } else if (a == "--board") {
      photoOptions.push_back(a);
      if (!hasValue || !ParseBoardSize(args[++i], &s->board))
        return *error = "--board needs COLSxROWS inner corners, 3 to 1000 each, e.g. 9x6", false;
    } else if (a == "--square") {
      photoOptions.push_back(a);
      char* end = nullptr;
      const char* text = hasValue ? args[++i].c_str() : "";
      s->square = std::strtod(text, &end);
      if (end == text || *end != '\0' || !std::isfinite(s->square) || s->square <= 0)
        return *error = "--square needs a positive number", false;
    } else if (a == "--subpix-window") {
      photoOptions.push_back(a);
      char* end = nullptr;
      const char* text = hasValue ? args[++i].c_str() : "";
      const long n = std::strtol(text, &end, 10);
      if (end == text || *end != '\0' || n < 1 || n > 100)
        return *error = "--subpix-window needs a whole number of pixels from 1 to 100", false;
      s->board.subpixHalfWindow = static_cast<int>(n);
    } else if (a == "--points-out") {
      photoOptions.push_back(a);
      if (!hasValue) return *error = "--points-out needs a folder", false;
      s->pointsOut = AbsolutePath(args[++i], context.startDir);
    } else if (a == "--report") {
      if (!hasValue) return *error = "--report needs a file name", false;
      s->report = AbsolutePath(args[++i], context.startDir);
      const std::string problem = ReportPathProblem(s->report);
      if (!problem.empty()) return *error = "cannot write the report " + s->report + ": " + problem, false;
    } else if (a == "--json") {
      s->json = true;
    } else if (a == "--model") {
      if (!hasValue) return *error = "--model needs a file name", false;
      s->model = AbsolutePath(args[++i], context.startDir);
      modelGiven = true;
    } else if (a == "--image-size") {
      if (!hasValue || !ParseImageSize(args[++i], &s->width, &s->height))
        return *error = "--image-size needs WIDTHxHEIGHT in whole pixels, e.g. 640x480", false;
      sizeGiven = true;
    } else if (a == "--mode") {
      if (!hasValue || (args[i + 1] != "0" && args[i + 1] != "1")) return *error = "--mode needs 0 or 1", false;
      s->mode = args[++i] == "0" ? 0 : 1;
    } else if (a == "--save") {
      if (!hasValue) return *error = "--save needs a file name", false;
      s->save = AbsolutePath(args[++i], context.startDir);
    } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
      return *error = "unknown option " + a, false;
    } else {
      plain.push_back(a);
    }
  }
  if (s->images) {
    if (modelGiven) return *error = "--images and --model do not go together", false;
    if (sizeGiven) return *error = "--image-size does not go with --images: the photographs give the size", false;
    if (plain.empty()) return *error = "--images needs at least one photograph or pattern", false;
    if (s->board.columns == 0) return *error = "--images needs --board COLSxROWS, e.g. 9x6", false;
    s->patterns = plain;
    for (const std::string& p : plain) s->source += (s->source.empty() ? "" : " ") + p;
    return true;
  }
  if (!photoOptions.empty()) return *error = photoOptions[0] + " goes with --images", false;
  for (std::string& p : plain) p = AbsolutePath(p, context.startDir);
  if (modelGiven) {
    if (plain.empty()) return *error = "--model needs at least one VIEW file after it", false;
    s->views = plain;
    s->source = s->model;
    return true;
  }
  if (plain.size() > 1) return *error = "calibrate takes one FOLDER (or --model FILE VIEW...)", false;
  const std::string folder = plain.empty() ? context.sampleDir : plain[0];
  s->source = folder;
  s->model = folder + "/model.txt";
  return FolderViews(folder, &s->views, error);
}

bool ReadFile(const std::string& path, std::vector<Point3>* points, std::string* error) {
  std::ifstream in(path);
  if (!in) return *error = "cannot read " + path, false;
  std::string why;
  if (!ReadPoints(in, points, &why)) return *error = path + ", " + why, false;
  return true;
}

std::string Number(double v) {
  if (!std::isfinite(v)) return "null";
  char text[40];
  std::snprintf(text, sizeof(text), "%.10g", v);
  return text;
}

// Rows of a matrix held by columns with `stride` doubles a column.
std::string JsonRows(const double* m, int rows, int cols, int stride) {
  std::string out = "[";
  for (int r = 0; r < rows; ++r) {
    out += r ? ", [" : "[";
    for (int c = 0; c < cols; ++c) out += (c ? ", " : "") + Number(m[stride * c + r]);
    out += "]";
  }
  return out + "]";
}

std::string JsonText(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    if (static_cast<unsigned char>(c) < 0x20) continue;
    out += c;
  }
  return out + "\"";
}

void PrintJson(const CalibrateSettings& s, const CameraCalibration& r, size_t points, const std::string& more) {
  std::printf("{\"source\": %s, \"image_width\": %d, \"image_height\": %d, \"points_per_view\": %zu,\n",
              JsonText(s.source).c_str(), s.width, s.height, points);
  std::printf(" \"fx\": %s, \"fy\": %s, \"skew\": %s, \"cx\": %s, \"cy\": %s,\n", Number(r.fx).c_str(),
              Number(r.fy).c_str(), Number(r.skew).c_str(), Number(r.cx).c_str(), Number(r.cy).c_str());
  std::printf(" \"k1\": %s, \"k2\": %s, \"distortion_applied\": false,\n", Number(r.k1).c_str(), Number(r.k2).c_str());
  std::printf(" \"max_error\": %s, \"sd_error\": %s,\n \"views\": [", Number(r.max).c_str(), Number(r.sd).c_str());
  for (size_t i = 0; i < r.views.size(); ++i) {
    const std::string file = i < s.views.size() ? BaseName(s.views[i]) : "";
    std::printf("%s{\"view\": %d, \"file\": %s, \"max_error\": %s, \"sd_error\": %s}", i ? ",\n   " : "",
                r.views[i].view, JsonText(file).c_str(), Number(r.views[i].max).c_str(), Number(r.views[i].sd).c_str());
  }
  std::printf("],\n \"intrinsic\": %s,\n \"extrinsic\": %s,\n \"combined\": %s%s}\n",
              JsonRows(r.intrinsic, 3, 3, 3).c_str(), JsonRows(r.extrinsic, 4, 4, 4).c_str(),
              JsonRows(r.combined, 3, 4, 3).c_str(), more.c_str());
}

void PrintText(const CalibrateSettings& s, const CameraCalibration& r, size_t points) {
  std::printf("Camera3DTrinsic from %zu views of %zu points, image %d x %d (%s)\n\n", s.views.size(), points, s.width,
              s.height, s.source.c_str());
  std::printf("Intrinsics (pixels)\n  fx    %12.4f\n  fy    %12.4f\n  skew  %12.4f\n  cx    %12.4f\n  cy    %12.4f\n\n",
              r.fx, r.fy, r.skew, r.cx, r.cy);
  std::printf("Radial distortion, estimated on the last view and NOT applied by the camera\n");
  std::printf("  k1    %12.6f\n  k2    %12.6f\n\n", r.k1, r.k2);
  std::printf("Views: reprojection errors in pixels, as the calibration logs them\n");
  std::printf("  view  file              max      sd\n");
  for (const ViewFigures& v : r.views) {
    const std::string file = v.view >= 0 && static_cast<size_t>(v.view) < s.views.size() ? BaseName(s.views[v.view]) : "";
    std::printf("  %4d  %-14s %7.2f %7.2f\n", v.view, file.c_str(), v.max, v.sd);
  }
  std::printf("\nOverall (pixels)\n");
  std::printf("  max error  %10.4f   the largest error of the LAST view only\n", r.max);
  std::printf("  sd error   %10.4f   root mean square over all %zu points, N - 1 in the divisor\n\n", r.sd,
              points * s.views.size());
  std::printf("Pose of the last view (%s), model to camera: X_cam = R X + t\n", BaseName(s.views.back()).c_str());
  const double* e = r.extrinsic;
  for (int row = 0; row < 3; ++row)
    std::printf("  %s  %11.6f %11.6f %11.6f   %12.6f\n", row == 0 ? "R | t" : "     ", e[row], e[4 + row], e[8 + row],
                e[12 + row]);
}

// Glob's special characters in a literal prefix (the start folder) escaped.
std::string GlobEscape(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '*' || c == '?' || c == '[' || c == '\\') out += '\\';
    out += c;
  }
  return out;
}

// Each pattern's files, sorted by name, in the order of the patterns; a file named twice
// is used once. A name without wildcards stands for itself, so a missing file is reported
// when it is read.
bool ExpandPatterns(const CalibrateSettings& s, const std::string& startDir, std::vector<std::string>* files,
                    std::string* error) {
  std::set<std::string> seen;
  for (const std::string& pattern : s.patterns) {
    const std::string full = pattern[0] == '/' ? pattern : GlobEscape(startDir) + "/" + pattern;
    std::vector<std::string> matches;
    if (pattern.find_first_of("*?[") == std::string::npos) {
      matches.push_back(AbsolutePath(pattern, startDir));
    } else {
      glob_t found{};
      const int status = glob(full.c_str(), 0, nullptr, &found);
      if (status == 0)
        for (size_t i = 0; i < found.gl_pathc; ++i) matches.push_back(found.gl_pathv[i]);
      globfree(&found);
      if (status == GLOB_NOMATCH) return *error = "no file matches " + pattern, false;
      if (status != 0) return *error = "cannot expand " + pattern, false;
    }
    for (const std::string& m : matches)
      if (seen.insert(m).second) files->push_back(m);
  }
  return true;
}

// The view files of a previous run are removed first, so that the folder reads back as
// exactly these views.
bool PreparePointsFolder(const std::string& folder, std::string* error) {
  struct stat info {};
  if (stat(folder.c_str(), &info) != 0) {
    if (mkdir(folder.c_str(), 0777) != 0) return *error = "cannot create the folder " + folder, false;
    return true;
  }
  if (!S_ISDIR(info.st_mode)) return *error = folder + " is not a folder", false;
  if (access(folder.c_str(), W_OK) != 0) return *error = "cannot write in " + folder, false;
  std::vector<std::string> old;
  if (DIR* dir = opendir(folder.c_str())) {
    while (dirent* entry = readdir(dir)) {
      int number = 0;
      char tail[8] = "";
      if (std::sscanf(entry->d_name, "view%d.%7s", &number, tail) == 2 && std::string(tail) == "txt")
        old.push_back(folder + "/" + entry->d_name);
    }
    closedir(dir);
  }
  for (const std::string& path : old)
    if (std::remove(path.c_str()) != 0) return *error = "cannot replace " + path, false;
  return true;
}

bool WritePointFile(const std::string& path, const std::vector<Point3>& points, std::string* error) {
  std::ofstream out(path);
  for (const Point3& p : points) out << ExactNumber(p.x) << ' ' << ExactNumber(p.y) << '\n';
  out.close();
  if (!out) return *error = "cannot write " + path, false;
  return true;
}

bool WritePointsFolder(const CalibrateSettings& s, const std::vector<Point3>& model,
                       const std::vector<std::vector<Point3>>& views, std::string* error) {
  if (!WritePointFile(s.pointsOut + "/model.txt", model, error)) return false;
  std::ofstream list(s.pointsOut + "/images.txt");
  for (size_t k = 0; k < views.size(); ++k) {
    char name[32];
    std::snprintf(name, sizeof(name), "view%02zu.txt", k + 1);
    if (!WritePointFile(s.pointsOut + "/" + name, views[k], error)) return false;
    list << name << ' ' << s.views[k] << '\n';
  }
  list.close();
  if (!list) return *error = "cannot write " + s.pointsOut + "/images.txt", false;
  return true;
}

// The board's corners in every photograph: the model, one view per photograph that shows
// the board (their names in s->views) and the image size. Returns 0, or the exit status
// after the one-line error.
int DetectViews(const std::string& startDir, CalibrateSettings* s, std::vector<Point3>* model,
                std::vector<std::vector<Point3>>* views) {
  std::string error;
  std::vector<std::string> files;
  if (!ExpandPatterns(*s, startDir, &files, &error)) return Fail(error);
  if (!s->pointsOut.empty() && !PreparePointsFolder(s->pointsOut, &error)) return Fail(error);
  const std::string board = std::to_string(s->board.columns) + "x" + std::to_string(s->board.rows);
  std::string sizeFrom, missed;
  int misses = 0;
  for (const std::string& file : files) {
    const BoardView found = DetectBoardInFile(file, s->board);
    if (found.status != BoardStatus::kFound && found.status != BoardStatus::kNoBoard) return Fail(found.problem);
    if (sizeFrom.empty()) {
      s->width = found.width;
      s->height = found.height;
      sizeFrom = file;
    } else if (found.width != s->width || found.height != s->height) {
      return Fail(file + " is " + std::to_string(found.width) + " x " + std::to_string(found.height) + " pixels, " +
                  BaseName(sizeFrom) + " " + std::to_string(s->width) + " x " + std::to_string(s->height) +
                  "; the photographs must all have one size");
    }
    if (found.status == BoardStatus::kNoBoard) {
      missed += (misses++ ? ", " : "") + BaseName(file);
      continue;
    }
    std::vector<Point3> points;
    points.reserve(found.corners.size());
    for (const BoardCorner& c : found.corners) points.push_back({c.x, c.y, 0});
    views->push_back(std::move(points));
    s->views.push_back(file);
  }
  const std::string of = " of " + std::to_string(files.size()) + " photograph" + (files.size() == 1 ? "" : "s");
  if (views->size() < static_cast<size_t>(kMinViews))
    return Fail("a " + board + " board was found in " + std::to_string(views->size()) + of +
                (misses ? " (not in " + missed + ")" : "") + "; the calibration needs at least " +
                std::to_string(kMinViews));
  if (misses) std::fprintf(stderr, "zeltrim: no %s board in %d%s, skipped: %s\n", board.c_str(), misses, of.c_str(),
                           missed.c_str());
  for (const BoardCorner& c : BoardModel(s->board, s->square)) model->push_back({c.x, c.y, 0});
  if (!s->pointsOut.empty() && !WritePointsFolder(*s, *model, *views, &error)) return Fail(error);
  return 0;
}

// The model and the views from the point files.
int ReadViews(const CalibrateSettings& s, std::vector<Point3>* model, std::vector<std::vector<Point3>>* views) {
  std::string error;
  if (!ReadFile(s.model, model, &error)) return Fail(error);
  if (model->size() < 4)
    return Fail(s.model + " holds " + std::to_string(model->size()) + " point(s); a flat target needs at least 4");
  views->resize(s.views.size());
  for (size_t k = 0; k < s.views.size(); ++k) {
    if (!ReadFile(s.views[k], &(*views)[k], &error)) return Fail(error);
    if ((*views)[k].size() != model->size())
      return Fail(s.views[k] + " holds " + std::to_string((*views)[k].size()) + " points, the model " +
                  std::to_string(model->size()));
  }
  return 0;
}

}  // namespace

int RunCalibrate(CommandContext& context) {
  CalibrateSettings s;
  std::string error;
  RefineOptions refineOptions;
  if (!TakeRefineOptions(&context.args, &refineOptions, &error) || !ParseSettings(context, &s, &error))
    return Fail(error);
  if (const int status = CheckSavePath(s.save)) return status;
  std::vector<Point3> model;
  std::vector<std::vector<Point3>> views;
  if (const int status = s.images ? DetectViews(context.startDir, &s, &model, &views) : ReadViews(s, &model, &views))
    return status;
  if (s.mode == 0 && views.size() < 3) return Fail("--mode 0 needs at least 3 views");

  ModuleHost& host = *context.host;
  CameraCalibration r;
  TaskError failure;
  if (!CalibrateCamera(host, model, views, s.width, s.height, s.mode, &r, &failure))
    return Fail(failure.message, failure.status);
  ICamera3DTrinsic* camera = r.camera.get();
  RefineOutcome refined;
  if (refineOptions.enabled) {
    const int status =
        RunRefinement(host, model, views, s.views, s.width, s.height, r, refineOptions, !s.save.empty(), &refined);
    if (status) return status;
    if (refined.camera) camera = refined.camera.get();
  }

  if (!s.save.empty() && host.Archive(camera, s.save, true) < 0)
    return Fail("cannot save " + s.save + ": " + host.Error(), 1);
  if (s.json)
    PrintJson(s, r, model.size(), refined.json);
  else
    PrintText(s, r, model.size());
  if (!s.json) std::printf("%s", refined.text.c_str());
  if (!s.save.empty() && !s.json) std::printf("\nsaved %s\n", s.save.c_str());
  if (!refined.saveNote.empty() && !s.json) std::printf("  %s\n", refined.saveNote.c_str());
  if (!s.pointsOut.empty() && !s.json)
    std::printf("\npoints of %zu views written to %s\n", views.size(), s.pointsOut.c_str());
  if (!s.report.empty()) {
    const CalibrateReportSource from{s.source, s.views, s.images, s.width, s.height, s.mode};
    const bool withRefined = refined.refined;
    if (const int status = WriteCalibrateReport(host, r, model, views, from, s.report,
                                                withRefined ? &refined.reportColumn : nullptr,
                                                withRefined ? &refined.reportCurve : nullptr))
      return status;
    if (!s.json) std::printf("\nreport written to %s\n", s.report.c_str());
  }
  return 0;
}
