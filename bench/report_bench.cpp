// Speed of building the calibration report page (zeltrim calibrate --report) for 13 views
// of a 9 x 6 board (54 points each) on a 640 x 480 image: without photographs, and with a
// 16 KB JPEG thumbnail a view embedded as base64 (the size --images makes). Writing the
// file is left out; the page is built in memory.
#include <benchmark/benchmark.h>

#include <cmath>
#include <string>

#include "tools/zeltrim/CalibrationReport.h"

namespace {

CalibrationReportData Data(bool thumbnails) {
  CalibrationReportData d;
  d.title = "Camera calibration: opencv-left-w7";
  d.date = "2024-01-01 00:00";
  d.width = 640;
  d.height = 480;
  d.facts = {{"source", "data/opencv-left-w7"}, {"points", "54 a view, 702 in all"}};
  d.columns = {{"module", {{"fx", 550.5, NAN, "px"}, {"fy", 552.9, NAN, "px"}, {"skew", 0.8, NAN, "px"},
                           {"cx", 352.9, NAN, "px"}, {"cy", 237.6, NAN, "px"}, {"k1", 0.076, NAN, ""},
                           {"k2", -0.149, NAN, ""}}}};
  d.distortion = {{"module (last view)", {0.076, -0.149}, 352.9, 237.6, 320, 240}};
  for (int k = 0; k < 13; ++k) {
    ReportView v;
    v.name = "view" + std::to_string(k + 1) + ".txt";
    v.sd = 1 + 0.3 * k;
    v.max = 2 + 0.5 * k;
    // A board turned a little more in each view, residuals of a few pixels.
    const double turn = 0.05 * k, c = std::cos(turn), s = std::sin(turn);
    for (int i = 0; i < 54; ++i) {
      const double x = 30.0 * (i % 9 - 4), y = 30.0 * (i / 9 - 2.5);
      const ReportPoint m{320 + c * x - s * y, 240 + s * x + c * y};
      v.measured.push_back(m);
      v.projected.push_back({m.x + 2 * std::sin(i + k), m.y + 2 * std::cos(i * 3 + k)});
    }
    if (thumbnails) {
      v.photograph = "data/opencv-images/left" + std::to_string(k + 1) + ".jpg";
      v.thumbnail.resize(16 * 1024);
      for (size_t b = 0; b < v.thumbnail.size(); ++b) v.thumbnail[b] = static_cast<char>((b * 131 + k) & 0xFF);
    }
    d.views.push_back(v);
  }
  return d;
}

void Report(benchmark::State& state) {
  const CalibrationReportData data = Data(state.range(0) != 0);
  size_t bytes = 0;
  for (auto _ : state) {
    const std::string page = CalibrationReportHtml(data);
    bytes = page.size();
    benchmark::DoNotOptimize(page.data());
  }
  state.counters["page_bytes"] = static_cast<double>(bytes);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
}
BENCHMARK(Report)->ArgName("thumbnails")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
