// The calibration report page built from hand-made data: well-formed, complete, the
// numbers drawn as given, text escaped, nothing fetched from outside.
#include "tools/zeltrim/CalibrationReport.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>

namespace {

// Three views of a 3-point target on a 640 x 480 image; view 2's errors are unknown.
CalibrationReportData Sample() {
  CalibrationReportData d;
  d.title = "Bench <A&B> \"cam\"";
  d.date = "2024-01-02 03:04";
  d.width = 640;
  d.height = 480;
  d.facts = {{"source", "folder 'x' & <y>"}};
  d.columns = {{"module", {{"fx", 550.5, NAN, "px"}, {"fy", 552.9, NAN, "px"}, {"k1", 0.07, NAN, ""}}}};
  d.errorNote = "sd with N - 1";
  const double sds[] = {0.5, NAN, 2.0};
  const double maxes[] = {1.0, NAN, 3.5};
  for (int k = 0; k < 3; ++k) {
    ReportView v;
    v.name = "view0" + std::to_string(k + 1) + ".txt";
    v.sd = sds[k];
    v.max = maxes[k];
    v.measured = {{100, 100}, {300, 200}, {500, 400}};
    v.projected = {{101, 100}, {300, 198}, {500.5, 400}};
    d.views.push_back(v);
  }
  d.distortion = {{"module", {0.07, -0.15}, 352.9, 237.6, 320, 240}};
  return d;
}

int Count(const std::string& text, const std::string& what) {
  int n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++n;
  return n;
}

bool HaveXmllint() { return std::system("command -v xmllint >/dev/null 2>&1") == 0; }

std::string TempFile(const std::string& name) {
  return ::testing::TempDir() + "/" + std::to_string(getpid()) + "_" + name;
}

// A fake JPEG payload: the page only carries the bytes, it never decodes them.
std::string FakeJpeg() { return std::string("\xFF\xD8\xFF\xE0<&>\"'\x00\x01", 11); }

TEST(CalibrationReport, IsWellFormedXml) {
  if (!HaveXmllint()) GTEST_SKIP() << "xmllint not installed (libxml2-utils)";
  CalibrationReportData d = Sample();
  d.views[0].thumbnail = FakeJpeg();
  d.views[0].photograph = "/photos/left01.jpg";
  d.columns.push_back({"refined", {{"fx", 551.0, 0.4, "px"}, {"k3", 0.01, 0.002, ""}}});
  const std::string path = TempFile("report.html");
  std::string error;
  ASSERT_TRUE(WriteCalibrationReport(d, path, &error)) << error;
  EXPECT_EQ(std::system(("xmllint --noout '" + path + "' 2>&1").c_str()), 0);
  std::remove(path.c_str());
}

TEST(CalibrationReport, OneResidualPicturePerViewWithItsVectors) {
  CalibrationReportData d = Sample();
  d.residualScale = 10;
  d.views[1].projected[1] = {NAN, NAN};  // a point without a projection draws no line
  const std::string page = CalibrationReportHtml(d);
  EXPECT_EQ(Count(page, "<svg class=\"residuals\""), 3);
  for (int k = 1; k <= 3; ++k) EXPECT_EQ(Count(page, "id=\"view-" + std::to_string(k) + "\""), 1);
  EXPECT_EQ(Count(page, "view-4"), 0);
  // Each line runs from the measured point toward the projection, 10 times the residual.
  EXPECT_EQ(Count(page, "M100 100l10 0M300 200l0 -20M500 400l5 0\""), 2);
  EXPECT_EQ(Count(page, "M100 100l10 0M500 400l5 0\""), 1);
  EXPECT_NE(page.find("(&#215; 10)"), std::string::npos);
  // Every view's name is on the page, and the frame is the image's.
  for (const ReportView& v : d.views) EXPECT_NE(page.find(v.name), std::string::npos);
  EXPECT_EQ(Count(page, "viewBox=\"0 0 640 480\""), 4);  // three views and the coverage
}

TEST(CalibrationReport, BarsOnePerViewAndProportional) {
  CalibrationReportData d = Sample();
  d.views.push_back(d.views[0]);
  d.views.back().sd = 1.25;
  const std::string page = CalibrationReportHtml(d);
  const std::regex bar("<rect class=\"bar\"[^>]* height=\"([0-9.]+)\"");
  std::vector<double> heights;
  for (auto it = std::sregex_iterator(page.begin(), page.end(), bar); it != std::sregex_iterator(); ++it)
    heights.push_back(std::stod((*it)[1]));
  ASSERT_EQ(heights.size(), d.views.size());
  EXPECT_EQ(heights[1], 0.0);  // unknown error: no bar
  const double perPixel = heights[0] / d.views[0].sd;
  EXPECT_GT(perPixel, 0);
  EXPECT_NEAR(heights[2], perPixel * 2.0, 1e-3);
  EXPECT_NEAR(heights[3], perPixel * 1.25, 1e-3);
  // The axis holds the largest error (3.5, a max mark) inside the 200-unit plot.
  EXPECT_LE(perPixel * 3.5, 200 + 1e-9);
  EXPECT_GE(perPixel * 3.5, 100);
  EXPECT_EQ(Count(page, "<line class=\"max\""), 3);
}

TEST(CalibrationReport, EscapesAllText) {
  CalibrationReportData d = Sample();
  d.views[2].name = "a<b>&\"c\"'.txt";
  d.views[2].photograph = "/tmp/<img src=x>.jpg";
  d.columns[0].heading = "<module>";
  d.distortion[0].label = "k & <k>";
  const std::string page = CalibrationReportHtml(d);
  for (const char* raw : {"<A&B>", "'x' & <y>", "a<b>", "<img", "<module>", "k & <k>", "\"cam\""})
    EXPECT_EQ(page.find(raw), std::string::npos) << raw;
  EXPECT_NE(page.find("Bench &lt;A&amp;B&gt; &quot;cam&quot;"), std::string::npos);
  EXPECT_NE(page.find("a&lt;b&gt;&amp;&quot;c&quot;&#39;.txt"), std::string::npos);
  EXPECT_NE(page.find("&lt;img src=x&gt;.jpg"), std::string::npos);

  EXPECT_EQ(EscapeText("caf\xC3\xA9 \xE2\x82\xAC"), "caf\xC3\xA9 \xE2\x82\xAC");  // UTF-8 kept
  EXPECT_EQ(EscapeText("a\xFF" "b"), "a\xEF\xBF\xBD" "b");                        // not UTF-8
  EXPECT_EQ(EscapeText("\xC0\xAF"), "\xEF\xBF\xBD\xEF\xBF\xBD");                 // overlong
  EXPECT_EQ(EscapeText("\xED\xA0\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");  // surrogate
  EXPECT_EQ(EscapeText("\xE2\x82"), "\xEF\xBF\xBD\xEF\xBF\xBD");                  // cut short
  EXPECT_EQ(EscapeText(std::string("a\x01\x1B\tb\n\0c", 8)), "a\tb\nc");          // controls dropped
}

TEST(CalibrationReport, FetchesNothing) {
  CalibrationReportData d = Sample();
  d.views[0].thumbnail = FakeJpeg();
  d.views[2].thumbnail = FakeJpeg();
  const std::string page = CalibrationReportHtml(d);
  for (const char* banned : {"http", "<script", "url(", "@import", "<link"})
    EXPECT_EQ(page.find(banned), std::string::npos) << banned;
  const std::regex reference("(src|href)=\"([^\"]*)\"");
  int references = 0;
  for (auto it = std::sregex_iterator(page.begin(), page.end(), reference); it != std::sregex_iterator(); ++it) {
    EXPECT_EQ((*it)[2].str().rfind("data:image/jpeg;base64,", 0), 0u) << (*it)[0];
    ++references;
  }
  EXPECT_EQ(references, 2);
  EXPECT_NE(page.find("base64," + Base64(FakeJpeg()) + "\""), std::string::npos);
}

TEST(CalibrationReport, IntrinsicsColumnsMatchedByName) {
  CalibrationReportData d = Sample();
  std::string page = CalibrationReportHtml(d);
  EXPECT_EQ(page.find("&#177;"), std::string::npos);  // no standard deviations given
  EXPECT_NE(page.find("<td class=\"name\">fx</td><td>550.500</td>"), std::string::npos);
  d.columns.push_back({"refined", {{"k3", 0.01, 0.002, ""}, {"fx", 551.25, 0.375, "px"}}});
  page = CalibrationReportHtml(d);
  EXPECT_NE(page.find("<th>module</th><th>refined</th>"), std::string::npos);
  EXPECT_NE(page.find("<td class=\"name\">fx</td><td>550.500</td><td>551.250 &#177; 0.375</td>"), std::string::npos);
  // fy only in the module's column, k3 only in the refined one.
  EXPECT_NE(page.find("<td class=\"name\">fy</td><td>552.900</td><td>&#8212;</td>"), std::string::npos);
  EXPECT_NE(page.find("<td class=\"name\">k3</td><td>&#8212;</td><td>0.0100 &#177; 0.0020</td>"), std::string::npos);
}

TEST(CalibrationReport, RadialDisplacementFollowsTheNormalisation) {
  // The module's camera: r^2 = (2 du / W)^2 + (2 dv / H)^2 on a 640 x 480 image.
  const RadialModel m{"m", {0.1, -0.05}, 320, 240, 320, 240};
  // At the edge across (du = W/2) and down (dv = H/2) r = 1: the displacement is the
  // distance times k1 + k2.
  EXPECT_NEAR(RadialDisplacement(m, 320, 0), 320 * 0.05, 1e-12);
  EXPECT_NEAR(RadialDisplacement(m, 0, -240), 240 * 0.05, 1e-12);
  // Halfway across: r^2 = 1/4.
  EXPECT_NEAR(RadialDisplacement(m, -160, 0), 160 * (0.1 / 4 - 0.05 / 16), 1e-12);
  EXPECT_EQ(RadialDisplacement(m, 0, 0), 0.0);
  // The curve section names what it plots; without usable coefficients it says so.
  CalibrationReportData d = Sample();
  std::string page = CalibrationReportHtml(d);
  EXPECT_EQ(Count(page, "<path class=\"curve\""), 3);
  EXPECT_NE(page.find("distance from the centre (pixels)"), std::string::npos);
  d.distortion[0].k = {NAN, 0.1};
  page = CalibrationReportHtml(d);
  EXPECT_EQ(Count(page, "<path class=\"curve\""), 0);
  EXPECT_NE(page.find("No distortion coefficients"), std::string::npos);
}

TEST(CalibrationReport, ResidualScaleChosenFromTheLargestResidual) {
  CalibrationReportData d = Sample();
  // Largest residual 2 px on an 800 px diagonal: 800 / 15 / 2 = 26.7, rounded down to 20.
  EXPECT_EQ(ChooseResidualScale(d), 20);
  d.views = {};
  EXPECT_EQ(ChooseResidualScale(d), 1);
}

TEST(CalibrationReport, NumbersIndependentOfLocale) {
  // A locale with a decimal comma must not reach the coordinates.
  if (!std::setlocale(LC_NUMERIC, "de_DE.UTF-8") && !std::setlocale(LC_NUMERIC, "fr_FR.UTF-8"))
    GTEST_SKIP() << "no locale with a decimal comma installed";
  const std::string page = CalibrationReportHtml(Sample());
  std::setlocale(LC_NUMERIC, "C");
  EXPECT_NE(page.find("<td class=\"name\">fx</td><td>550.500</td>"), std::string::npos);
  EXPECT_EQ(page.find("550,5"), std::string::npos);
}

TEST(CalibrationReport, Base64AndPaths) {
  EXPECT_EQ(Base64(""), "");
  EXPECT_EQ(Base64("f"), "Zg==");
  EXPECT_EQ(Base64("fo"), "Zm8=");
  EXPECT_EQ(Base64("foo"), "Zm9v");
  EXPECT_EQ(Base64("foobar"), "Zm9vYmFy");
  EXPECT_EQ(Base64(std::string("\xFF\xFE\x00", 3)), "//4A");

  std::string error;
  EXPECT_FALSE(WriteCalibrationReport(Sample(), "/nonexistent-folder/r.html", &error));
  EXPECT_NE(error.find("does not exist"), std::string::npos);
  EXPECT_NE(ReportPathProblem(::testing::TempDir()).find("it is a folder"), std::string::npos);
  EXPECT_EQ(ReportPathProblem(TempFile("fresh.html")), "");
}

}  // namespace
