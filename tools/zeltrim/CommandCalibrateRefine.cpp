#include "tools/zeltrim/CommandCalibrateRefine.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "tools/zeltrim/Commands.h"

#ifdef ZELTRIM_HAVE_CERES
#include "host/refine/CameraRefinement.h"
#endif

bool TakeRefineOptions(std::vector<std::string>* args, RefineOptions* options, std::string* error) {
  std::vector<std::string> rest;
  std::string without;  // an option given without --refine
  for (size_t i = 0; i < args->size(); ++i) {
    const std::string& a = (*args)[i];
    if (a == "--refine") {
      options->enabled = true;
    } else if (a == "--lens") {
      without = a;
      const std::string name = i + 1 < args->size() ? (*args)[++i] : "";
      if (name != "pinhole" && name != "radial2" && name != "radial3" && name != "full")
        return *error = "--lens needs pinhole, radial2, radial3 or full", false;
      options->lens = name;
    } else if (a == "--refine-skew") {
      without = a;
      options->refineSkew = true;
    } else {
      rest.push_back(a);
    }
  }
  if (!options->enabled && !without.empty()) return *error = without + " goes with --refine", false;
#ifndef ZELTRIM_HAVE_CERES
  if (options->enabled) return *error = "this zeltrim was built without Ceres Solver, so --refine cannot run", false;
#endif
  args->swap(rest);
  return true;
}

#ifndef ZELTRIM_HAVE_CERES

int RunRefinement(ModuleHost&, const std::vector<Point3>&, const std::vector<std::vector<Point3>>&,
                  const std::vector<std::string>&, int, int, const CameraCalibration&, const RefineOptions&, bool,
                  RefineOutcome*) {
  return Fail("this zeltrim was built without Ceres Solver, so --refine cannot run");
}

#else

namespace {

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  char text[512];
  va_list list;
  va_start(list, format);
  std::vsnprintf(text, sizeof(text), format, list);
  va_end(list);
  return text;
}

std::string JsonNumber(double v) { return std::isfinite(v) ? Format("%.10g", v) : "null"; }

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    if (static_cast<unsigned char>(c) >= 0x20) out += c;
  }
  return out + "\"";
}

const char* const kKeys[] = {"fx", "fy", "cx", "cy", "skew", "k1", "k2", "p1", "p2", "k3"};

std::vector<double> Values(const refine::Intrinsics& c) {
  return {c.fx, c.fy, c.cx, c.cy, c.skew, c.k1, c.k2, c.p1, c.p2, c.k3};
}

std::string JsonObject(const refine::Intrinsics& c) {
  const std::vector<double> v = Values(c);
  std::string out = "{";
  for (size_t i = 0; i < v.size(); ++i) out += (i ? ", \"" : "\"") + std::string(kKeys[i]) + "\": " + JsonNumber(v[i]);
  return out + "}";
}

std::string BaseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string Report(const CameraCalibration& module, const refine::RefinementResult& r, const RefineOptions& options,
                   const std::vector<std::string>& viewNames, size_t points) {
  std::string out = Format("\nRefinement: intrinsics, lens (%s) and the poses of all %zu views together, by Ceres Solver\n",
                           options.lens.c_str(), r.poses.size());
  out += options.refineSkew ? "  skew refined from the module's value\n" : "  skew held at 0\n";
  out += "  k1, k2 start from 0: the module's are of another model (normalised by the image size, not applied)\n";
  out += "  parameter        module         refined     std dev\n";
  const std::vector<double> refined = Values(r.camera), deviation = Values(r.stddev);
  const double moduleValues[] = {module.fx, module.fy, module.cx, module.cy, module.skew, module.k1, module.k2};
  for (size_t i = 0; i < refined.size(); ++i) {
    const std::string was = i < 7 ? Format("%14.6f%s", moduleValues[i], i >= 5 ? "*" : " ") : Format("%14s ", "-");
    const std::string sd = std::isfinite(deviation[i]) ? Format("%12.6f", deviation[i]) : Format("%12s", "fixed");
    out += Format("  %-6s %s %15.6f %s\n", kKeys[i], was.c_str(), refined[i], sd.c_str());
  }
  out += "  (* the module's own radial terms, in its model; they do not compare with the refined ones)\n";
  if (!r.covarianceOk) out += "  the covariance is singular at the solution: no standard deviations\n";
  out += Format("\nReprojection error (pixels): module %.4f (standard error, N - 1), refined RMS %.6f over %zu points\n",
                module.sd, r.rms, points * r.poses.size());
  out += Format("  noise estimate sigma = sqrt(SSE / (2N - %d parameters)) = %.6f px per coordinate\n", r.parameters,
                r.sigma);
  out += "  view  file              module sd   refined RMS\n";
  for (size_t v = 0; v < r.viewRms.size(); ++v) {
    const double sd = v < module.views.size() ? module.views[v].sd : NAN;
    const std::string file = v < viewNames.size() ? BaseName(viewNames[v]) : "";
    out += Format("  %4zu  %-14s %11.2f %13.6f\n", v, file.c_str(), sd, r.viewRms[v]);
  }
  out += Format("\nSolver: %d iterations, %s: %s\n", r.iterations, r.termination.c_str(), r.message.c_str());
  return out;
}

std::string Json(const refine::RefinementResult& r, const RefineOptions& options) {
  std::string out = ",\n \"refined\": " + JsonObject(r.camera);
  out.pop_back();  // the closing brace: more keys follow
  out += ", \"rms\": " + JsonNumber(r.rms) + ", \"per_view_rms\": [";
  for (size_t v = 0; v < r.viewRms.size(); ++v) out += (v ? ", " : "") + JsonNumber(r.viewRms[v]);
  out += "],\n  \"stddev\": " + JsonObject(r.stddev);
  out += ",\n  \"lens\": " + JsonString(options.lens) + ", \"skew_refined\": " + (options.refineSkew ? "true" : "false");
  out += ", \"sigma\": " + JsonNumber(r.sigma) + ", \"parameters\": " + std::to_string(r.parameters);
  out += ", \"iterations\": " + std::to_string(r.iterations) + ", \"converged\": " + (r.converged ? "true" : "false");
  out += ", \"termination\": " + JsonString(r.termination) + ", \"message\": " + JsonString(r.message);
  out += ",\n  \"poses\": [";
  for (size_t v = 0; v < r.poses.size(); ++v) {
    const refine::Pose& p = r.poses[v];
    out += v ? ",\n   {\"R\": [" : "{\"R\": [";
    for (int row = 0; row < 3; ++row)
      out += (row ? ", [" : "[") + JsonNumber(p.rotation[3 * row]) + ", " + JsonNumber(p.rotation[3 * row + 1]) + ", " +
             JsonNumber(p.rotation[3 * row + 2]) + "]";
    out += "], \"t\": [" + JsonNumber(p.translation[0]) + ", " + JsonNumber(p.translation[1]) + ", " +
           JsonNumber(p.translation[2]) + "]}";
  }
  return out + "]}";
}

// A Camera3DTrinsic holding the refined camera and the last view's pose: the module's
// camera saved to a folder stream in memory, its values replaced, loaded into a new
// object (the class has no setters; its folder form holds every value it keeps).
SmartPtr<ICamera3DTrinsic> RefinedCamera(ModuleHost& host, const CameraCalibration& module,
                                         const refine::RefinementResult& r, const std::vector<Point3>& model,
                                         const std::vector<std::vector<Point3>>& views, int width, int height,
                                         std::string* note, std::string* error) {
  SmartPtr<IFolderStream> stream = host.CreateHost<IFolderStream>(L"FolderStream");
  SmartPtr<IDataPersist> source = QueryAs<IDataPersist>(module.camera);
  SmartPtr<ICamera3DTrinsic> camera = host.Create<ICamera3DTrinsic>(L"Camera3DTrinsic");
  SmartPtr<IDataPersist> target = QueryAs<IDataPersist>(camera);
  if (!stream || !source || !target || stream->Open(nullptr, 0, 1) < 0 || source->Save(stream, 0) < 0)
    return *error = "the host cannot hold the camera in a folder stream", SmartPtr<ICamera3DTrinsic>();
  const refine::Intrinsics& c = r.camera;
  const refine::Pose& pose = r.poses.back();
  // A by columns (3 x 4, last column zero); K = U^-1 A in the module's normalised units;
  // the pose 4 x 4 by columns; P = A [R t] by columns, scaled so that P[2][3] = 1.
  const double a[3][3] = {{c.fx, c.skew, c.cx}, {0, c.fy, c.cy}, {0, 0, 1}};
  double intrinsic[12] = {}, normalized[9], extrinsic[16] = {}, combined[12];
  const double unnormalise[3][3] = {{2.0 / width, 0, -1}, {0, 2.0 / height, -1}, {0, 0, 1}};
  for (int col = 0; col < 3; ++col)
    for (int row = 0; row < 3; ++row) {
      intrinsic[3 * col + row] = a[row][col];
      normalized[3 * col + row] = 0;
      for (int k = 0; k < 3; ++k) normalized[3 * col + row] += unnormalise[row][k] * a[k][col];
    }
  for (int row = 0; row < 3; ++row) {
    for (int col = 0; col < 3; ++col) extrinsic[4 * col + row] = pose.rotation[3 * row + col];
    extrinsic[12 + row] = pose.translation[row];
  }
  extrinsic[15] = 1;
  for (int col = 0; col < 4; ++col)
    for (int row = 0; row < 3; ++row) {
      combined[3 * col + row] = 0;
      for (int k = 0; k < 3; ++k) combined[3 * col + row] += a[row][k] * extrinsic[4 * col + k];
    }
  if (std::fabs(combined[11]) > 2.220446049250313e-16) {
    const double scale = 1.0 / combined[11];
    for (double& p : combined) p *= scale;
  }
  double k1 = 0, k2 = 0;
  refine::ImageRadialTerms(c, width, height, &k1, &k2);
  // The class's error figures for this camera as the class projects (through P, without
  // a lens): the last view's largest distance, the standard error over all points (N - 1).
  refine::Intrinsics pinhole = c;
  pinhole.k1 = pinhole.k2 = pinhole.p1 = pinhole.p2 = pinhole.k3 = 0;
  double largest = 0, sum = 0;
  size_t count = 0;
  for (size_t v = 0; v < views.size(); ++v)
    for (size_t i = 0; i < model.size(); ++i) {
      refine::Point2d p;
      refine::ProjectPoint(pinhole, r.poses[v], model[i].x, model[i].y, &p);
      const double d2 = (p.x - views[v][i].x) * (p.x - views[v][i].x) + (p.y - views[v][i].y) * (p.y - views[v][i].y);
      sum += d2;
      ++count;
      if (v + 1 == views.size()) largest = std::max(largest, std::sqrt(d2));
    }
  const double sd = count > 1 ? std::sqrt(sum / static_cast<double>(count - 1)) : 0;
  const struct {
    const char* key;
    const double* data;
    int bytes;
  } entries[] = {{"fSx", &c.fx, 8},          {"fSy", &c.fy, 8},          {"Skew", &c.skew, 8},
                 {"CenterX", &c.cx, 8},      {"CenterY", &c.cy, 8},      {"Distortion1", &k1, 8},
                 {"Distortion2", &k2, 8},    {"Error", &largest, 8},     {"SDError", &sd, 8},
                 {"Transform", combined, 96}, {"Intrinsic", intrinsic, 96}, {"IntrinsicNormalized", normalized, 72},
                 {"Extrinsic", extrinsic, 128}};
  for (const auto& e : entries)
    if (stream->WriteData(host.NewString(e.key), e.data, e.bytes, 0) < 0)
      return *error = std::string("the host cannot write ") + e.key + " to a folder stream", SmartPtr<ICamera3DTrinsic>();
  if (target->Load(stream, 0) < 0)
    return *error = "the module cannot load the refined camera", SmartPtr<ICamera3DTrinsic>();
  *note = Format(
      "the saved Camera3DTrinsic holds the refined fx, fy, cx, cy, skew and the pose of the last view; a folder "
      "stream (.t...) also holds k1, k2 as the nearest terms of the class's own radial model (%.6f, %.6f), the XML "
      "and text forms do not; p1, p2 and k3 cannot be held; the class applies no lens distortion when it projects, so its "
      "error figures are those of the refined camera without its lens (%.4f px standard error)",
      k1, k2, sd);
  return camera;
}

}  // namespace

int RunRefinement(ModuleHost& host, const std::vector<Point3>& model, const std::vector<std::vector<Point3>>& views,
                  const std::vector<std::string>& viewNames, int width, int height, const CameraCalibration& module,
                  const RefineOptions& options, bool makeCamera, RefineOutcome* outcome) {
  refine::RefinementInput input;
  if (!refine::ParseLensModel(options.lens, &input.lens)) return Fail("--lens needs pinhole, radial2, radial3 or full");
  for (const Point3& p : model) input.model.push_back({p.x, p.y});
  for (const std::vector<Point3>& view : views) {
    input.views.emplace_back();
    for (const Point3& p : view) input.views.back().push_back({p.x, p.y});
  }
  // The module keeps only the last view's pose, so every view's pose starts from its
  // homography and the module's intrinsic matrix (the module's own closed form).
  input.initial.fx = module.fx;
  input.initial.fy = module.fy;
  input.initial.cx = module.cx;
  input.initial.cy = module.cy;
  input.initial.skew = options.refineSkew ? module.skew : 0.0;
  input.refineSkew = options.refineSkew;
  std::string error;
  refine::Intrinsics withSkew = input.initial;
  withSkew.skew = module.skew;
  if (!refine::PosesFromHomographies(input.model, input.views, withSkew, &input.poses, &error))
    return Fail("--refine: " + error, 1);
  refine::RefinementResult result;
  if (!refine::RefineCamera(input, &result, &error)) return Fail("--refine: " + error, 1);
  outcome->text = Report(module, result, options, viewNames, model.size());
  outcome->json = Json(result, options);
  // For the report: a held term has no deviation (NaN), and its value stays in the table.
  const refine::Intrinsics& c = result.camera;
  const refine::Intrinsics& sd = result.stddev;
  outcome->refined = true;
  outcome->reportColumn = {"refined (" + options.lens + ")",
                           {{"fx", c.fx, sd.fx, "px"}, {"fy", c.fy, sd.fy, "px"}, {"skew", c.skew, sd.skew, "px"},
                            {"cx", c.cx, sd.cx, "px"}, {"cy", c.cy, sd.cy, "px"}, {"k1", c.k1, sd.k1, ""},
                            {"k2", c.k2, sd.k2, ""}, {"p1", c.p1, sd.p1, ""}, {"p2", c.p2, sd.p2, ""},
                            {"k3", c.k3, sd.k3, ""}, {"rms", result.rms, NAN, "px"}}};
  // The refined radial terms act on coordinates divided by the focal lengths.
  outcome->reportCurve = {"refined (" + options.lens + ")", {c.k1, c.k2, c.k3}, c.cx, c.cy, c.fx, c.fy};
  if (makeCamera) {
    outcome->camera = RefinedCamera(host, module, result, model, views, width, height, &outcome->saveNote, &error);
    if (!outcome->camera) return Fail("--refine: " + error, 1);
  }
  return 0;
}

#endif
