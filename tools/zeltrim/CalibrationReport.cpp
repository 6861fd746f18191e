// The calibration report page (see CalibrationReport.h).
#include "tools/zeltrim/CalibrationReport.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <set>

namespace {

// Numbers go through to_chars: the page must not depend on the user's locale (a decimal
// comma would break every SVG coordinate).
std::string Fixed(double v, int decimals) {
  if (!std::isfinite(v)) return "&#8212;";
  char text[64];
  const std::to_chars_result r = std::to_chars(text, text + sizeof(text), v, std::chars_format::fixed, decimals);
  std::string out(text, r.ptr);
  if (out == "-0" || out.find_first_not_of("-0.") == std::string::npos) out = out.substr(out[0] == '-' ? 1 : 0);
  return out;
}

// A coordinate: two decimals, trailing zeros dropped.
std::string Coord(double v) {
  std::string s = Fixed(std::isfinite(v) ? v : 0.0, 2);
  if (s.find('.') != std::string::npos) {
    while (s.back() == '0') s.pop_back();
    if (s.back() == '.') s.pop_back();
  }
  return s;
}

// A tick label or table value with as many decimals as `step` needs.
int DecimalsFor(double step) {
  int decimals = 0;
  while (decimals < 8 && std::fabs(step * std::pow(10.0, decimals) - std::round(step * std::pow(10.0, decimals))) > 1e-6)
    ++decimals;
  return decimals;
}

// 1, 2 or 5 times a power of ten: the largest not above `v` (down) or the smallest not
// below it (up).
double Nice(double v, bool up) {
  if (!(v > 0) || !std::isfinite(v)) return 1;
  const double power = std::pow(10.0, std::floor(std::log10(v)));
  const double steps[] = {1, 2, 5, 10};
  if (up) {
    for (double s : steps)
      if (s * power >= v * (1 - 1e-12)) return s * power;
    return 10 * power;
  }
  double best = power;
  for (double s : steps)
    if (s * power <= v * (1 + 1e-12)) best = s * power;
  return best;
}

struct Axis {
  double low = 0, high = 1, step = 1;
};

// An axis from 0 (or below, for negative values) that holds [low, high] in about five steps.
Axis MakeAxis(double low, double high) {
  low = std::min(low, 0.0);
  high = std::max(high, 0.0);
  if (!(high > low)) high = low + 1;
  Axis a;
  a.step = Nice((high - low) / 5, true);
  a.low = std::floor(low / a.step + 1e-9) * a.step;
  a.high = std::ceil(high / a.step - 1e-9) * a.step;
  if (a.high <= a.low) a.high = a.low + a.step;
  return a;
}

const char* const kStyle =
    "body{font-family:sans-serif;margin:1.5em;color:#222;background:#fff;max-width:1200px}"
    "h1{margin-bottom:0}h2{border-bottom:1px solid #ccc;padding-bottom:2px;margin-top:1.6em}"
    ".date{color:#666;margin-top:.2em}"
    "table{border-collapse:collapse}td,th{padding:3px 10px;border-bottom:1px solid #e4e4e4;text-align:right}"
    "th{background:#f2f2f2}td.name,th.name{text-align:left}.facts td{text-align:left}"
    ".note{color:#555;font-size:90%;max-width:60em}"
    ".views{display:flex;flex-wrap:wrap;gap:12px}"
    "figure{margin:0}figure.view{width:310px}figcaption{font-size:85%;margin-top:2px;word-break:break-all}"
    "svg text{font-family:sans-serif}"
    "svg.residuals,svg.coverage{width:100%;height:auto;background:#fafafa}"
    "svg.coverage{max-width:640px}svg.bars,svg.distortion{max-width:100%;height:auto}"
    ".frame{fill:none;stroke:#888}.bar{fill:#4a7bb7}.max{stroke:#c0392b;stroke-width:2}"
    ".res{stroke:#d62728;fill:none}.pt{fill:#1f4e9a}.cell{fill:#cfe3cf}.grid{stroke:#ddd;fill:none}"
    ".axis{stroke:#444;fill:none}.tick{font-size:11px;fill:#444}.label{font-size:12px;fill:#222}"
    ".gridline{stroke:#e4e4e4}.beyond{fill:#000;fill-opacity:.06}.curve{fill:none;stroke-width:2}";

const char* const kCurveColours[] = {"#1f77b4", "#d62728", "#2ca02c", "#9467bd", "#ff7f0e", "#8c564b"};

// A view's colour in the coverage picture: hues spread round the circle.
std::string ViewColour(size_t k, size_t n) {
  const int hue = static_cast<int>((360.0 * static_cast<double>(k)) / static_cast<double>(std::max<size_t>(n, 1)));
  return "hsl(" + std::to_string(hue) + ",70%,42%)";
}

// The image size the pictures are drawn in: the data's, or the points' extent without one.
void FrameSize(const CalibrationReportData& d, double* w, double* h) {
  *w = d.width, *h = d.height;
  if (*w > 0 && *h > 0) return;
  double mx = 1, my = 1;
  for (const ReportView& v : d.views)
    for (const ReportPoint& p : v.measured)
      if (std::isfinite(p.x) && std::isfinite(p.y)) mx = std::max(mx, p.x), my = std::max(my, p.y);
  *w = std::ceil(mx), *h = std::ceil(my);
}

bool Finite(const ReportPoint& p) { return std::isfinite(p.x) && std::isfinite(p.y); }

void Summary(const CalibrationReportData& d, std::string& out) {
  out += "<section id=\"summary\"><h2>Summary</h2><table class=\"facts\">";
  out += "<tr><td>image</td><td>" + std::to_string(d.width) + " &#215; " + std::to_string(d.height) +
         " pixels</td></tr>";
  out += "<tr><td>views</td><td>" + std::to_string(d.views.size()) + "</td></tr>";
  for (const auto& fact : d.facts) out += "<tr><td>" + EscapeText(fact.first) + "</td><td>" + EscapeText(fact.second) + "</td></tr>";
  out += "</table></section>\n";
}

std::string ValueText(const ReportValue& v) {
  const int decimals = std::fabs(v.value) < 0.01 && v.value != 0 ? 6 : std::fabs(v.value) < 10 ? 4 : 3;
  std::string text = Fixed(v.value, decimals);
  if (std::isfinite(v.stddev)) text += " &#177; " + Fixed(v.stddev, decimals);
  return text;
}

void Intrinsics(const CalibrationReportData& d, std::string& out) {
  out += "<section id=\"intrinsics\"><h2>Intrinsics</h2>";
  if (d.columns.empty()) {
    out += "<p class=\"note\">No values.</p></section>\n";
    return;
  }
  // Rows in order of first appearance over the columns.
  std::vector<std::string> names, units;
  for (const ReportColumn& c : d.columns)
    for (const ReportValue& v : c.values)
      if (std::find(names.begin(), names.end(), v.name) == names.end()) names.push_back(v.name), units.push_back(v.unit);
  out += "<table class=\"intrinsics\"><tr><th class=\"name\">parameter</th>";
  for (const ReportColumn& c : d.columns) out += "<th>" + EscapeText(c.heading) + "</th>";
  out += "<th class=\"name\">unit</th></tr>";
  for (size_t i = 0; i < names.size(); ++i) {
    out += "<tr><td class=\"name\">" + EscapeText(names[i]) + "</td>";
    for (const ReportColumn& c : d.columns) {
      auto it = std::find_if(c.values.begin(), c.values.end(), [&](const ReportValue& v) { return v.name == names[i]; });
      out += "<td>" + (it == c.values.end() ? std::string("&#8212;") : ValueText(*it)) + "</td>";
    }
    out += "<td class=\"name\">" + EscapeText(units[i]) + "</td></tr>";
  }
  out += "</table></section>\n";
}

// Bars of the views' standard errors, with a red mark at each view's largest error.
void ErrorBars(const CalibrationReportData& d, std::string& out) {
  out += "<section id=\"errors\"><h2>Reprojection error per view</h2>";
  const size_t n = d.views.size();
  double top = 0;
  for (const ReportView& v : d.views) {
    if (std::isfinite(v.sd)) top = std::max(top, v.sd);
    if (std::isfinite(v.max)) top = std::max(top, v.max);
  }
  const Axis axis = MakeAxis(0, top);
  const double left = 50, right = 10, above = 10, below = 30, plotH = 200;
  const double slot = std::max(12.0, std::min(40.0, 760.0 / std::max<size_t>(n, 1)));
  const double width = left + right + slot * static_cast<double>(n), height = above + plotH + below;
  auto y = [&](double v) { return above + plotH - (v - axis.low) / (axis.high - axis.low) * plotH; };
  out += "<svg class=\"bars\" width=\"" + Coord(width) + "\" height=\"" + Coord(height) + "\" viewBox=\"0 0 " +
         Coord(width) + " " + Coord(height) + "\" role=\"img\">";
  const int decimals = DecimalsFor(axis.step);
  for (double t = axis.low; t <= axis.high + axis.step * 1e-6; t += axis.step) {
    out += "<line class=\"gridline\" x1=\"" + Coord(left) + "\" x2=\"" + Coord(width - right) + "\" y1=\"" + Coord(y(t)) +
           "\" y2=\"" + Coord(y(t)) + "\"/><text class=\"tick\" x=\"" + Coord(left - 4) + "\" y=\"" + Coord(y(t) + 4) +
           "\" text-anchor=\"end\">" + Fixed(t, decimals) + "</text>";
  }
  for (size_t k = 0; k < n; ++k) {
    const ReportView& v = d.views[k];
    const double x = left + slot * static_cast<double>(k);
    const double sd = std::isfinite(v.sd) ? std::max(v.sd, 0.0) : 0.0;
    const double h = sd / (axis.high - axis.low) * plotH;
    out += "<rect class=\"bar\" x=\"" + Coord(x + slot * 0.15) + "\" y=\"" + Coord(above + plotH - h) + "\" width=\"" +
           Coord(slot * 0.7) + "\" height=\"" + Fixed(h, 4) + "\"><title>" + EscapeText(v.name) + ": standard error " +
           Fixed(v.sd, 3) + " px, largest " + Fixed(v.max, 3) + " px</title></rect>";
    if (std::isfinite(v.max))
      out += "<line class=\"max\" x1=\"" + Coord(x + slot * 0.1) + "\" x2=\"" + Coord(x + slot * 0.9) + "\" y1=\"" +
             Coord(y(v.max)) + "\" y2=\"" + Coord(y(v.max)) + "\"/>";
    out += "<text class=\"tick\" x=\"" + Coord(x + slot / 2) + "\" y=\"" + Coord(above + plotH + 14) +
           "\" text-anchor=\"middle\">" + std::to_string(k + 1) + "</text>";
  }
  out += "<path class=\"axis\" d=\"M" + Coord(left) + " " + Coord(above) + "V" + Coord(above + plotH) + "H" +
         Coord(width - right) + "\"/>";
  out += "<text class=\"label\" x=\"" + Coord(left + (width - left - right) / 2) + "\" y=\"" + Coord(height - 2) +
         "\" text-anchor=\"middle\">view</text></svg>";
  out += "<p class=\"note\">Bars: each view's standard error in pixels; red marks: its largest error. " +
         EscapeText(d.errorNote) + "</p></section>\n";
}

// Each view's residuals on its image frame, over its photograph when there is one.
void Residuals(const CalibrationReportData& d, double scale, std::string& out) {
  double w = 0, h = 0;
  FrameSize(d, &w, &h);
  const double unit = std::max(w, h) / 400;
  const std::string box = "0 0 " + Coord(w) + " " + Coord(h);
  out += "<section id=\"residuals\"><h2>Residuals per view (&#215; " + Fixed(scale, DecimalsFor(scale)) + ")</h2>";
  out += "<p class=\"note\">Blue dots: the measured image points. Red lines: from each measured point toward the "
         "point the calibrated camera projects the model point to, the residual drawn &#215; " +
         Fixed(scale, DecimalsFor(scale)) + ". The frame is the whole image.</p><div class=\"views\">";
  for (size_t k = 0; k < d.views.size(); ++k) {
    const ReportView& v = d.views[k];
    out += "<figure class=\"view\" id=\"view-" + std::to_string(k + 1) + "\"><svg class=\"residuals\" viewBox=\"" + box +
           "\" preserveAspectRatio=\"xMidYMid meet\" role=\"img\">";
    if (!v.thumbnail.empty())
      out += "<image x=\"0\" y=\"0\" width=\"" + Coord(w) + "\" height=\"" + Coord(h) +
             "\" preserveAspectRatio=\"none\" opacity=\"0.75\" href=\"data:image/jpeg;base64," + Base64(v.thumbnail) +
             "\"/>";
    out += "<rect class=\"frame\" x=\"0\" y=\"0\" width=\"" + Coord(w) + "\" height=\"" + Coord(h) +
           "\" stroke-width=\"" + Coord(unit) + "\"/>";
    std::string lines, dots;
    const size_t count = std::min(v.measured.size(), v.projected.size());
    for (size_t i = 0; i < v.measured.size(); ++i) {
      const ReportPoint& m = v.measured[i];
      if (!Finite(m)) continue;
      dots += "<circle cx=\"" + Coord(m.x) + "\" cy=\"" + Coord(m.y) + "\" r=\"" + Coord(1.5 * unit) + "\"/>";
      if (i < count && Finite(v.projected[i]))
        lines += "M" + Coord(m.x) + " " + Coord(m.y) + "l" + Coord((v.projected[i].x - m.x) * scale) + " " +
                 Coord((v.projected[i].y - m.y) * scale);
    }
    if (!lines.empty()) out += "<path class=\"res\" stroke-width=\"" + Coord(unit) + "\" d=\"" + lines + "\"/>";
    out += "<g class=\"pt\">" + dots + "</g></svg><figcaption><b>" + std::to_string(k + 1) + ".</b> " +
           EscapeText(v.name) + " &#8212; sd " + Fixed(v.sd, 2) + " px, max " + Fixed(v.max, 2) + " px";
    if (!v.photograph.empty()) out += "<br/>" + EscapeText(v.photograph);
    out += "</figcaption></figure>\n";
  }
  out += "</div></section>\n";
}

// All views' measured points on one frame, over an 8-column grid whose cells with a point
// are shaded.
void Coverage(const CalibrationReportData& d, std::string& out) {
  double w = 0, h = 0;
  FrameSize(d, &w, &h);
  const double unit = std::max(w, h) / 400;
  const int cols = 8, rows = std::max(1, static_cast<int>(std::lround(8 * h / w)));
  std::vector<char> hit(static_cast<size_t>(cols * rows), 0);
  std::string dots;
  for (size_t k = 0; k < d.views.size(); ++k) {
    dots += "<g fill=\"" + ViewColour(k, d.views.size()) + "\">";
    for (const ReportPoint& p : d.views[k].measured) {
      if (!Finite(p)) continue;
      dots += "<circle cx=\"" + Coord(p.x) + "\" cy=\"" + Coord(p.y) + "\" r=\"" + Coord(1.6 * unit) + "\"/>";
      const int c = static_cast<int>(std::floor(p.x / w * cols)), r = static_cast<int>(std::floor(p.y / h * rows));
      if (c >= 0 && c < cols && r >= 0 && r < rows) hit[static_cast<size_t>(r * cols + c)] = 1;
    }
    dots += "</g>";
  }
  out += "<section id=\"coverage\"><h2>Coverage of the image</h2><svg class=\"coverage\" viewBox=\"0 0 " + Coord(w) +
         " " + Coord(h) + "\" role=\"img\">";
  int covered = 0;
  std::string grid;
  for (int r = 0; r < rows; ++r)
    for (int c = 0; c < cols; ++c) {
      const double x0 = w * c / cols, y0 = h * r / rows;
      if (hit[static_cast<size_t>(r * cols + c)]) {
        ++covered;
        out += "<rect class=\"cell\" x=\"" + Coord(x0) + "\" y=\"" + Coord(y0) + "\" width=\"" + Coord(w / cols) +
               "\" height=\"" + Coord(h / rows) + "\"/>";
      }
    }
  for (int c = 1; c < cols; ++c) grid += "M" + Coord(w * c / cols) + " 0V" + Coord(h);
  for (int r = 1; r < rows; ++r) grid += "M0 " + Coord(h * r / rows) + "H" + Coord(w);
  out += "<path class=\"grid\" stroke-width=\"" + Coord(unit / 2) + "\" d=\"" + grid + "\"/>";
  out += "<rect class=\"frame\" x=\"0\" y=\"0\" width=\"" + Coord(w) + "\" height=\"" + Coord(h) + "\" stroke-width=\"" +
         Coord(unit) + "\"/>" + dots + "</svg>";
  out += "<p class=\"note\">The measured points of all " + std::to_string(d.views.size()) +
         " views, one colour a view. Shaded: the cells of a " + std::to_string(cols) + " &#215; " +
         std::to_string(rows) + " grid that hold a point (" + std::to_string(covered) + " of " +
         std::to_string(cols * rows) + "). Distortion is best determined where the corners and edges are covered.</p>"
         "</section>\n";
}

// Radial displacement in pixels against the distance from the centre in pixels, along
// three directions: the normalisation may differ across and down, so the curves differ.
void Distortion(const CalibrationReportData& d, std::string& out) {
  out += "<section id=\"distortion\"><h2>Radial distortion</h2>";
  std::vector<const RadialModel*> models;
  for (const RadialModel& m : d.distortion) {
    bool usable = m.scaleX > 0 && m.scaleY > 0 && std::isfinite(m.cx) && std::isfinite(m.cy) && !m.k.empty();
    for (double k : m.k) usable = usable && std::isfinite(k);
    if (usable) models.push_back(&m);
  }
  if (models.empty()) {
    out += "<p class=\"note\">No distortion coefficients. " + EscapeText(d.distortionNote) + "</p></section>\n";
    return;
  }
  double w = 0, h = 0;
  FrameSize(d, &w, &h);
  struct Curve {
    std::vector<std::pair<double, double>> points;
    size_t model;
    int kind;  // 0 across, 1 down, 2 toward the farthest corner
  };
  std::vector<Curve> curves;
  double rhoMax = 0, lo = 0, hi = 0;
  for (size_t m = 0; m < models.size(); ++m) {
    const RadialModel& model = *models[m];
    const double ax = std::max(model.cx, w - model.cx), ay = std::max(model.cy, h - model.cy);
    const double ends[3][2] = {{ax, 0}, {0, ay}, {ax, ay}};
    for (int kind = 0; kind < 3; ++kind) {
      Curve c{{}, m, kind};
      const double length = std::hypot(ends[kind][0], ends[kind][1]);
      if (!(length > 0)) continue;
      for (int i = 0; i <= 100; ++i) {
        const double t = i / 100.0;
        const double disp = RadialDisplacement(model, ends[kind][0] * t, ends[kind][1] * t);
        if (!std::isfinite(disp)) continue;
        c.points.push_back({length * t, disp});
        lo = std::min(lo, disp), hi = std::max(hi, disp);
      }
      rhoMax = std::max(rhoMax, length);
      curves.push_back(c);
    }
  }
  // How far the measured points reach from the first model's centre: beyond, the curve
  // is extrapolated.
  double reach = 0;
  for (const ReportView& v : d.views)
    for (const ReportPoint& p : v.measured)
      if (Finite(p)) reach = std::max(reach, std::hypot(p.x - models[0]->cx, p.y - models[0]->cy));
  const Axis xa = MakeAxis(0, rhoMax), ya = MakeAxis(lo, hi);
  const double left = 60, right = 20, above = 10, plotW = 520, plotH = 260, below = 40;
  const double width = left + plotW + right, height = above + plotH + below;
  auto X = [&](double v) { return left + (v - xa.low) / (xa.high - xa.low) * plotW; };
  auto Y = [&](double v) { return above + plotH - (v - ya.low) / (ya.high - ya.low) * plotH; };
  out += "<svg class=\"distortion\" width=\"" + Coord(width) + "\" height=\"" + Coord(height) + "\" viewBox=\"0 0 " +
         Coord(width) + " " + Coord(height) + "\" role=\"img\">";
  const int xd = DecimalsFor(xa.step), yd = DecimalsFor(ya.step);
  for (double t = xa.low; t <= xa.high + xa.step * 1e-6; t += xa.step)
    out += "<line class=\"gridline\" x1=\"" + Coord(X(t)) + "\" x2=\"" + Coord(X(t)) + "\" y1=\"" + Coord(above) +
           "\" y2=\"" + Coord(above + plotH) + "\"/><text class=\"tick\" x=\"" + Coord(X(t)) + "\" y=\"" +
           Coord(above + plotH + 14) + "\" text-anchor=\"middle\">" + Fixed(t, xd) + "</text>";
  for (double t = ya.low; t <= ya.high + ya.step * 1e-6; t += ya.step)
    out += "<line class=\"gridline\" x1=\"" + Coord(left) + "\" x2=\"" + Coord(left + plotW) + "\" y1=\"" + Coord(Y(t)) +
           "\" y2=\"" + Coord(Y(t)) + "\"/><text class=\"tick\" x=\"" + Coord(left - 4) + "\" y=\"" + Coord(Y(t) + 4) +
           "\" text-anchor=\"end\">" + Fixed(t, yd) + "</text>";
  out += "<line class=\"axis\" x1=\"" + Coord(left) + "\" x2=\"" + Coord(left + plotW) + "\" y1=\"" + Coord(Y(0)) +
         "\" y2=\"" + Coord(Y(0)) + "\"/>";
  if (reach > 0 && reach < xa.high)
    out += "<rect class=\"beyond\" x=\"" + Coord(X(reach)) + "\" y=\"" + Coord(above) + "\" width=\"" +
           Coord(X(xa.high) - X(reach)) + "\" height=\"" + Coord(plotH) + "\"/><text class=\"tick\" x=\"" +
           Coord(X(reach) + 4) + "\" y=\"" + Coord(above + 12) + "\">no points beyond</text>";
  const char* const dashes[] = {"", " stroke-dasharray=\"8 4\"", " stroke-dasharray=\"2 3\""};
  for (const Curve& c : curves) {
    std::string d_;
    for (const auto& p : c.points) d_ += (d_.empty() ? "M" : "L") + Coord(X(p.first)) + " " + Coord(Y(p.second));
    out += "<path class=\"curve\" stroke=\"" + std::string(kCurveColours[c.model % 6]) + "\"" + dashes[c.kind] +
           " d=\"" + d_ + "\"/>";
  }
  out += "<path class=\"axis\" d=\"M" + Coord(left) + " " + Coord(above) + "V" + Coord(above + plotH) + "H" +
         Coord(left + plotW) + "\"/>";
  out += "<text class=\"label\" x=\"" + Coord(left + plotW / 2) + "\" y=\"" + Coord(height - 4) +
         "\" text-anchor=\"middle\">distance from the centre (pixels)</text>";
  out += "<text class=\"label\" transform=\"rotate(-90)\" x=\"" + Coord(-(above + plotH / 2)) +
         "\" y=\"14\" text-anchor=\"middle\">outward displacement (pixels)</text></svg>";
  out += "<table class=\"legend\"><tr><th class=\"name\">curve</th><th class=\"name\">centre (px)</th>"
         "<th class=\"name\">coefficients</th><th class=\"name\">r normalised by (px)</th></tr>";
  for (size_t m = 0; m < models.size(); ++m) {
    std::string ks;
    for (size_t i = 0; i < models[m]->k.size(); ++i)
      ks += (i ? ", k" : "k") + std::to_string(i + 1) + " = " + Fixed(models[m]->k[i], 6);
    out += "<tr><td class=\"name\"><span style=\"color:" + std::string(kCurveColours[m % 6]) + "\">&#9632;</span> " +
           EscapeText(models[m]->label) + "</td><td class=\"name\">" + Fixed(models[m]->cx, 2) + ", " +
           Fixed(models[m]->cy, 2) + "</td><td class=\"name\">" + ks + "</td><td class=\"name\">" +
           Fixed(models[m]->scaleX, 2) + " across, " + Fixed(models[m]->scaleY, 2) + " down</td></tr>";
  }
  out += "</table><p class=\"note\">How far the lens model moves an image point outward (negative: inward) against "
         "its distance in pixels from the centre, to the image's edge: solid across (horizontally), dashed down "
         "(vertically), dotted toward the farthest image corner. The displacement of a point at (du, dv) pixels from "
         "the centre is its distance times k1 r&#178; + k2 r&#8308; + &#8230;, with r&#178; = (du/sx)&#178; + "
         "(dv/sy)&#178; and sx, sy the normalisation in the table; where sx and sy differ, equal distances across "
         "and down give different r, so the curves differ. The grey band lies beyond the measured point farthest "
         "from the centre: there the curve is extrapolated. " +
         EscapeText(d.distortionNote) + "</p></section>\n";
}

}  // namespace

double RadialDisplacement(const RadialModel& m, double du, double dv) {
  const double r2 = (du / m.scaleX) * (du / m.scaleX) + (dv / m.scaleY) * (dv / m.scaleY);
  double poly = 0, power = r2;
  for (double k : m.k) poly += k * power, power *= r2;
  return std::sqrt(du * du + dv * dv) * poly;
}

double ChooseResidualScale(const CalibrationReportData& data) {
  double largest = 0;
  for (const ReportView& v : data.views)
    for (size_t i = 0; i < std::min(v.measured.size(), v.projected.size()); ++i)
      if (Finite(v.measured[i]) && Finite(v.projected[i]))
        largest = std::max(largest, std::hypot(v.projected[i].x - v.measured[i].x, v.projected[i].y - v.measured[i].y));
  double w = 0, h = 0;
  FrameSize(data, &w, &h);
  if (!(largest > 0)) return 1;
  return std::max(1.0, Nice(std::hypot(w, h) / 15 / largest, false));
}

std::string CalibrationReportHtml(const CalibrationReportData& d) {
  const double scale = d.residualScale > 0 && std::isfinite(d.residualScale) ? d.residualScale : ChooseResidualScale(d);
  std::string out;
  size_t points = 0;
  for (const ReportView& v : d.views) points += v.measured.size() + v.thumbnail.size() / 80;
  out.reserve(16384 + points * 120);
  out += "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"/><title>" + EscapeText(d.title) +
         "</title><style>" + kStyle + "</style></head>\n<body>\n<h1>" + EscapeText(d.title) + "</h1>";
  if (!d.date.empty()) out += "<p class=\"date\">" + EscapeText(d.date) + "</p>";
  out += "\n";
  Summary(d, out);
  Intrinsics(d, out);
  ErrorBars(d, out);
  Residuals(d, scale, out);
  Coverage(d, out);
  Distortion(d, out);
  out += "</body></html>\n";
  return out;
}

std::string ReportPathProblem(const std::string& path) {
  if (path.empty()) return "no file name";
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  struct stat info {};
  if (stat(folder.c_str(), &info) != 0) return "the folder " + folder + " does not exist";
  if (!S_ISDIR(info.st_mode)) return folder + " is not a folder";
  if (access(folder.c_str(), W_OK | X_OK) != 0) return "the folder " + folder + " is not writable";
  if (stat(path.c_str(), &info) == 0) {
    if (S_ISDIR(info.st_mode)) return "it is a folder";
    if (!S_ISREG(info.st_mode)) return "it is not a regular file";
  }
  return std::string();
}

bool WriteCalibrationReport(const CalibrationReportData& data, const std::string& path, std::string* error) {
  const std::string problem = ReportPathProblem(path);
  if (!problem.empty()) return *error = "cannot write the report " + path + ": " + problem, false;
  const std::string page = CalibrationReportHtml(data);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(page.data(), static_cast<std::streamsize>(page.size()));
  out.close();
  if (!out) return *error = "cannot write the report " + path, false;
  return true;
}

std::string EscapeText(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  const auto* s = reinterpret_cast<const unsigned char*>(text.data());
  const size_t n = text.size();
  for (size_t i = 0; i < n;) {
    const unsigned char c = s[i];
    if (c < 0x80) {
      switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&#39;"; break;
        default:
          if (c >= 0x20 || c == '\t' || c == '\n') out += static_cast<char>(c);
      }
      ++i;
      continue;
    }
    // A well-formed UTF-8 sequence of 2 to 4 bytes (no overlongs, surrogates or values
    // above U+10FFFF) is copied; anything else becomes U+FFFD, one byte at a time.
    size_t len = c >= 0xC2 && c <= 0xDF ? 2 : c >= 0xE0 && c <= 0xEF ? 3 : c >= 0xF0 && c <= 0xF4 ? 4 : 0;
    bool ok = len > 0 && i + len <= n;
    for (size_t j = 1; ok && j < len; ++j) ok = (s[i + j] & 0xC0) == 0x80;
    if (ok && len == 3) ok = !(c == 0xE0 && s[i + 1] < 0xA0) && !(c == 0xED && s[i + 1] >= 0xA0);
    if (ok && len == 4) ok = !(c == 0xF0 && s[i + 1] < 0x90) && !(c == 0xF4 && s[i + 1] >= 0x90);
    // U+FFFE and U+FFFF are not XML characters either.
    if (ok && len == 3 && c == 0xEF && s[i + 1] == 0xBF && s[i + 2] >= 0xBE) ok = false;
    if (ok) {
      out.append(text, i, len);
      i += len;
    } else {
      out += "\xEF\xBF\xBD";
      ++i;
    }
  }
  return out;
}

std::string Base64(const std::string& bytes) {
  static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  const auto* s = reinterpret_cast<const unsigned char*>(bytes.data());
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const unsigned v = (s[i] << 16) | (s[i + 1] << 8) | s[i + 2];
    out += kAlphabet[v >> 18], out += kAlphabet[(v >> 12) & 63], out += kAlphabet[(v >> 6) & 63], out += kAlphabet[v & 63];
  }
  if (i + 1 == bytes.size()) {
    const unsigned v = s[i] << 16;
    out += kAlphabet[v >> 18], out += kAlphabet[(v >> 12) & 63], out += "==";
  } else if (i + 2 == bytes.size()) {
    const unsigned v = (s[i] << 16) | (s[i + 1] << 8);
    out += kAlphabet[v >> 18], out += kAlphabet[(v >> 12) & 63], out += kAlphabet[(v >> 6) & 63], out += '=';
  }
  return out;
}
