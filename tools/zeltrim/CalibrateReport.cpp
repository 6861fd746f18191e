// zeltrim calibrate --report (see CalibrateReport.h).
#include "tools/zeltrim/CalibrateReport.h"

#include <cstdio>
#include <ctime>

#include "tools/zeltrim/Commands.h"
#include "tools/zeltrim/Thumbnail.h"

namespace {

// Thumbnails this wide at most: enough to see the board behind the residuals.
constexpr int kThumbnailSide = 320;

std::string BaseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string Pixels(double v) {
  char text[40];
  std::snprintf(text, sizeof(text), "%.4f px", v);
  return text;
}

std::string Now() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  char text[40] = "";
  if (localtime_r(&now, &local)) std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M", &local);
  return text;
}

}  // namespace

bool GatherCalibrateReport(ModuleHost& host, const CameraCalibration& r, const std::vector<Point3>& model,
                           const std::vector<std::vector<Point3>>& views, const CalibrateReportSource& s,
                           CalibrationReportData* d, TaskError* error) {
  // The calibrated camera keeps the pose of the last view only. A second camera, fitted
  // to the same data, has the same intrinsics; a fit in mode 2 keeps them and computes
  // the pose of the one view it is given, so each view gets the camera it was fitted with.
  CameraCalibration poses;
  if (!CalibrateCamera(host, model, views, s.width, s.height, s.mode, &poses, error)) return false;
  SmartPtr<ISimpleCollection> modelPoints = MakeCollection(host, model);
  if (!modelPoints) return TaskFail(error, "the host has no point collections", 1, E_FAIL);

  d->title = "Camera calibration: " + BaseName(s.source.empty() ? std::string("sample") : s.source);
  d->date = Now();
  d->width = s.width;
  d->height = s.height;
  size_t points = 0;
  for (const std::vector<Point3>& v : views) points += v.size();
  d->facts = {{"source", s.source},
              {"points", std::to_string(model.size()) + " a view, " + std::to_string(points) + " in all"},
              {"standard error, all points", Pixels(r.sd)},
              {"largest error, last view", Pixels(r.max)},
              {"camera", "Camera3DTrinsic, closed-form plane-based calibration (mode " + std::to_string(s.mode) + ")"}};
  ReportColumn module{"module", {{"fx", r.fx, NAN, "px"}, {"fy", r.fy, NAN, "px"}, {"skew", r.skew, NAN, "px"},
                                 {"cx", r.cx, NAN, "px"}, {"cy", r.cy, NAN, "px"}, {"k1", r.k1, NAN, ""},
                                 {"k2", r.k2, NAN, ""}}};
  d->columns.push_back(module);
  d->errorNote = "As the calibration logs them, rounded to 0.01 px: the distance between each measured point and "
                 "the projection of its model point by the view's camera, without distortion; the standard error "
                 "is the root mean square with N - 1 in the divisor.";
  d->distortion.push_back({"module (last view)", {r.k1, r.k2}, r.cx, r.cy, s.width / 2.0, s.height / 2.0});
  d->distortionNote = "The module estimates k1 and k2 on the last view only and does not apply them: the "
                      "residuals above are those of the camera without distortion.";

  SmartPtr<ITransformBestFit> fit = QueryAs<ITransformBestFit>(poses.camera);
  for (size_t k = 0; k < views.size(); ++k) {
    ReportView view;
    view.name = k < s.files.size() ? BaseName(s.files[k]) : "view " + std::to_string(k + 1);
    for (const ViewFigures& f : r.views)
      if (f.view == static_cast<int>(k)) view.sd = f.sd, view.max = f.max;
    SmartPtr<ISimpleCollection> image = MakeCollection(host, views[k]);
    if (!image) return TaskFail(error, "the host has no point collections", 1, E_FAIL);
    const HRESULT hr = fit->BestFit(image, modelPoints, 2);
    if (hr < 0) return TaskFail(error, "the pose of " + view.name + " could not be computed for the report", 1, hr);
    for (size_t i = 0; i < model.size(); ++i) {
      double x = model[i].x, y = model[i].y, z = model[i].z;
      poses.camera->Convert(&x, &y, &z);
      view.measured.push_back({views[k][i].x, views[k][i].y});
      view.projected.push_back({x, y});
    }
    if (s.photographs && k < s.files.size()) {
      view.photograph = s.files[k];
      std::string problem;
      view.thumbnail = JpegThumbnail(s.files[k], kThumbnailSide, &problem);
    }
    d->views.push_back(std::move(view));
  }
  return true;
}

int WriteCalibrateReport(ModuleHost& host, const CameraCalibration& calibration, const std::vector<Point3>& model,
                         const std::vector<std::vector<Point3>>& views, const CalibrateReportSource& source,
                         const std::string& path, const ReportColumn* refinedColumn,
                         const RadialModel* refinedCurve) {
  CalibrationReportData data;
  TaskError failure;
  if (!GatherCalibrateReport(host, calibration, model, views, source, &data, &failure))
    return Fail(failure.message, failure.status);
  if (refinedColumn) data.columns.push_back(*refinedColumn);
  if (refinedCurve) data.distortion.push_back(*refinedCurve);
  std::string error;
  if (!WriteCalibrationReport(data, path, &error)) return Fail(error);
  return 0;
}
