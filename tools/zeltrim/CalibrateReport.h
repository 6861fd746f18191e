// zeltrim calibrate --report: the figures of a finished calibration gathered through the
// module into a CalibrationReportData, and the page written.
#pragma once

#include <string>
#include <vector>

#include "host/client/ModuleHost.h"
#include "tools/zeltrim/CalibrationReport.h"
#include "tools/zeltrim/Tasks.h"

struct CalibrateReportSource {
  std::string source;                    // what was calibrated (a folder, files, patterns)
  std::vector<std::string> files;        // one a view: its point file or photograph
  bool photographs = false;              // files are photographs: embed thumbnails
  int width = 0, height = 0, mode = 1;   // as the calibration ran
};

// The report's data: the calibration's figures, and for each view the model projected by
// that view's camera (the module's pose of the view with the calibrated intrinsics).
bool GatherCalibrateReport(ModuleHost& host, const CameraCalibration& calibration, const std::vector<Point3>& model,
                           const std::vector<std::vector<Point3>>& views, const CalibrateReportSource& source,
                           CalibrationReportData* data, TaskError* error);

// Gathers and writes the report to `path`; a refinement's column and curve, when given,
// stand beside the module's. Returns 0, or the exit status after the one-line error.
int WriteCalibrateReport(ModuleHost& host, const CameraCalibration& calibration, const std::vector<Point3>& model,
                         const std::vector<std::vector<Point3>>& views, const CalibrateReportSource& source,
                         const std::string& path, const ReportColumn* refinedColumn = nullptr,
                         const RadialModel* refinedCurve = nullptr);
