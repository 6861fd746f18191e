// The README's main command, `zeltrim fit data/opencv-left/view01.txt data/opencv-left/model.txt`,
// run as a user runs it; its figures are checked against a plane homography fitted here
// independently (the same eight unknowns, solved by QR instead of normal equations).
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Relative tolerances: the printed figures keep 8 (matrix) and 6 (errors, angles)
// significant digits, and the two solutions agree to about 2e-8.
constexpr double kMatrixDigits = 1e-7;
constexpr double kReportDigits = 1e-5;
constexpr double kPi = 3.14159265358979323846;

std::vector<Eigen::Vector2d> ReadPoints(const std::string& path) {
  std::vector<Eigen::Vector2d> points;
  std::ifstream in(path);
  double x, y;
  while (in >> x >> y) points.emplace_back(x, y);
  return points;
}

std::string Output(const std::string& command) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return out;
  char buffer[512];
  while (std::fgets(buffer, sizeof buffer, pipe)) out += buffer;
  EXPECT_EQ(pclose(pipe), 0) << out;
  return out;
}

// The first `count` numbers that follow `label` in the output.
std::vector<double> Figures(const std::string& output, const std::string& label, int count) {
  std::vector<double> values;
  const size_t at = output.find(label);
  if (at == std::string::npos) return values;
  std::istringstream rest(output.substr(at + label.size()));
  std::string word;
  while (static_cast<int>(values.size()) < count && rest >> word) {
    char* end = nullptr;
    const double v = std::strtod(word.c_str(), &end);
    if (*end == '\0') values.push_back(v);
  }
  return values;
}

void ExpectRelative(double got, double want, double digits, const std::string& what) {
  EXPECT_NEAR(got, want, digits * std::fabs(want)) << what;
}

TEST(MainCommand, FigureForFigureAsAnIndependentHomographyFit) {
  const std::string data = std::string(ZELTRIM_SOURCE_DIR) + "/data/opencv-left/";
  const std::vector<Eigen::Vector2d> image = ReadPoints(data + "view01.txt"), board = ReadPoints(data + "model.txt");
  ASSERT_EQ(image.size(), 54u);
  ASSERT_EQ(board.size(), 54u);

  // X = (h0 x + h1 y + h2) / w, Y = (h3 x + h4 y + h5) / w, w = h6 x + h7 y + 1.
  const int n = static_cast<int>(image.size());
  Eigen::MatrixXd a = Eigen::MatrixXd::Zero(2 * n, 8);
  Eigen::VectorXd b(2 * n);
  for (int i = 0; i < n; ++i) {
    const double x = image[i].x(), y = image[i].y(), X = board[i].x(), Y = board[i].y();
    a.row(2 * i) << x, y, 1, 0, 0, 0, -x * X, -y * X;
    a.row(2 * i + 1) << 0, 0, 0, x, y, 1, -x * Y, -y * Y;
    b(2 * i) = X;
    b(2 * i + 1) = Y;
  }
  const Eigen::VectorXd h = a.colPivHouseholderQr().solve(b);
  Eigen::Matrix3d H;
  H << h(0), h(1), h(2), h(3), h(4), h(5), h(6), h(7), 1;

  std::vector<double> residuals;
  for (int i = 0; i < n; ++i) {
    const Eigen::Vector3d p = H * Eigen::Vector3d(image[i].x(), image[i].y(), 1);
    residuals.push_back((p.head<2>() / p(2) - board[i]).norm());
  }
  double sum = 0, largest = 0, squares = 0;
  for (double r : residuals) sum += r, largest = std::max(largest, r);
  const double mean = sum / n;
  for (double r : residuals) squares += (r - mean) * (r - mean);

  const std::string output = Output("cd " + std::string(ZELTRIM_SOURCE_DIR) + " && " + ZELTRIM_BINARY +
                                 " fit data/opencv-left/view01.txt data/opencv-left/model.txt");
  ASSERT_NE(output.find("54 point pairs, method 0"), std::string::npos) << output;
  // The printed matrix is for row vectors: the homography transposed, z passed through.
  const double m[16] = {h(0), h(3), 0, h(6), h(1), h(4), 0, h(7), 0, 0, 1, 0, h(2), h(5), 0, 1};
  const std::vector<double> printed = Figures(output, "times the matrix):", 16);
  ASSERT_EQ(printed.size(), 16u) << output;
  for (int i = 0; i < 16; ++i) ExpectRelative(printed[i], m[i], kMatrixDigits, "matrix entry " + std::to_string(i));

  const std::vector<double> errors = Figures(output, "errors (target units):", 3);
  ASSERT_EQ(errors.size(), 3u) << output;
  ExpectRelative(errors[0], mean, kReportDigits, "mean error");
  ExpectRelative(errors[1], largest, kReportDigits, "largest error");
  ExpectRelative(errors[2], std::sqrt(squares / (n - 1)), kReportDigits, "standard deviation");

  const std::vector<double> translation = Figures(output, "translation:", 3), scale = Figures(output, "scale:", 3),
                            angles = Figures(output, "euler angles (degrees):", 3);
  ASSERT_EQ(translation.size() + scale.size() + angles.size(), 9u) << output;
  ExpectRelative(translation[0], h(2), kMatrixDigits, "translation x");
  ExpectRelative(translation[1], h(5), kMatrixDigits, "translation y");
  // Scale: the length of each row of the printed matrix; the angle: that of its first row.
  ExpectRelative(scale[0], std::hypot(h(0), h(3)), kMatrixDigits, "scale x");
  ExpectRelative(scale[1], std::hypot(h(1), h(4)), kMatrixDigits, "scale y");
  EXPECT_EQ(scale[2], 1.0);
  ExpectRelative(angles[0], std::atan2(h(3), h(0)) * 180 / kPi, kReportDigits, "first angle");
  EXPECT_EQ(angles[1], 0.0);
  EXPECT_EQ(angles[2], 0.0);
}

}  // namespace
