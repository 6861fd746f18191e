// A camera calibration as one self-contained HTML page for a person to read: the
// intrinsics table, a bar chart of the views' errors, each view's residuals drawn on the
// image frame (over a thumbnail of its photograph when there is one), the coverage of the
// image by all views' points and the radial distortion curve. Inline SVG and CSS only: no
// scripts, nothing fetched. The page is also well-formed XML (XHTML-compatible syntax).
//
// The input is plain data, so the page can be built without the module; zeltrim fills it
// from a calibration (CalibrateReport.h).
#pragma once

#include <cmath>
#include <string>
#include <vector>

struct ReportPoint {
  double x = 0, y = 0;  // pixels: x to the right, y down
};

// One row of a column of the intrinsics table.
struct ReportValue {
  std::string name;       // "fx", "k1", ...
  double value = NAN;
  double stddev = NAN;    // NaN when the method gives none
  std::string unit;       // "px", "" for a pure number
};

// One column of the intrinsics table: the module's values, or another method's (e.g. a
// refinement with standard deviations). Rows are matched across columns by name.
struct ReportColumn {
  std::string heading;
  std::vector<ReportValue> values;
};

// Radial displacement about a centre: a point at (du, dv) pixels from (cx, cy) moves
// outward by (du, dv) (k[0] r^2 + k[1] r^4 + ...), with r^2 = (du/scaleX)^2 + (dv/scaleY)^2.
// The module's camera uses scaleX = W/2, scaleY = H/2; a focal-length normalisation uses
// fx, fy.
struct RadialModel {
  std::string label;       // what the curve is, e.g. "module (last view)"
  std::vector<double> k;   // k1, k2, ...
  double cx = 0, cy = 0;
  double scaleX = 1, scaleY = 1;
};

struct ReportView {
  std::string name;        // shown as the view's caption
  std::string photograph;  // the photograph's path, empty when none
  std::string thumbnail;   // a JPEG of the photograph (bytes), empty when none
  double sd = NAN;         // standard error of the view, pixels (NaN: unknown)
  double max = NAN;        // largest error of the view, pixels (NaN: unknown)
  // Image point i as measured and as the calibrated camera projects model point i.
  std::vector<ReportPoint> measured, projected;
};

struct CalibrationReportData {
  std::string title = "Camera calibration";
  std::string date;                       // as it should read
  int width = 0, height = 0;              // image size, pixels
  // Lines of the summary: label and text, in order (source, overall errors, ...).
  std::vector<std::pair<std::string, std::string>> facts;
  std::vector<ReportColumn> columns;      // the first is the module's
  std::string errorNote;                  // how the views' errors are defined
  std::vector<ReportView> views;
  std::vector<RadialModel> distortion;    // curves to draw; none: the section says so
  std::string distortionNote;             // e.g. "estimated on the last view, not applied"
  double residualScale = 0;               // magnification of the residuals; 0: chosen here
};

// How far the model moves the point at (du, dv) pixels from its centre outward, in pixels
// (negative: inward). The distortion curve plots this against hypot(du, dv).
double RadialDisplacement(const RadialModel& model, double du, double dv);

// The magnification used when residualScale is 0: the largest residual drawn at about a
// fifteenth of the image diagonal, rounded down to 1, 2 or 5 times a power of ten.
double ChooseResidualScale(const CalibrationReportData& data);

// The page.
std::string CalibrationReportHtml(const CalibrationReportData& data);

// Why `path` cannot take the report (missing or unwritable folder, a folder by that name);
// empty when it can.
std::string ReportPathProblem(const std::string& path);

// Writes the page to `path`; false with a one-line reason.
bool WriteCalibrationReport(const CalibrationReportData& data, const std::string& path, std::string* error);

// Text for HTML and XML: & < > " ' escaped, bytes that are not UTF-8 replaced by U+FFFD,
// control characters other than tab and newline dropped.
std::string EscapeText(const std::string& text);

// Standard base64 of bytes, for data: URIs.
std::string Base64(const std::string& bytes);
