// Chessboard corners in photographs (see BoardDetection.h).
#include "tools/zeltrim/BoardDetection.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#ifdef ZELTRIM_HAVE_OPENCV
#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#include <opencv2/core/utils/logger.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

const char* const kNoOpenCV = "this zeltrim was built without OpenCV, so it cannot read photographs";

bool ParseCount(const char* begin, const char* end, int* value) {
  int v = 0;
  const std::from_chars_result r = std::from_chars(begin, end, v);
  if (r.ec != std::errc() || r.ptr != end || v < 3 || v > 1000) return false;
  *value = v;
  return true;
}

#ifdef ZELTRIM_HAVE_OPENCV
BoardView Detect(const cv::Mat& grey, const BoardSettings& settings) {
  BoardView view;
  view.width = grey.cols;
  view.height = grey.rows;
  const cv::Size pattern(settings.columns, settings.rows);
  std::vector<cv::Point2f> corners;
  // The detector's defaults: an adaptive threshold on an equalised picture.
  if (!cv::findChessboardCorners(grey, pattern, corners,
                                 cv::CALIB_CB_ADAPTIVE_THRESH | cv::CALIB_CB_NORMALIZE_IMAGE)) {
    view.status = BoardStatus::kNoBoard;
    view.problem = "no " + std::to_string(settings.columns) + "x" + std::to_string(settings.rows) + " board found";
    return view;
  }
  const int n = settings.subpixHalfWindow;
  cv::cornerSubPix(grey, corners, cv::Size(n, n), cv::Size(-1, -1),
                   cv::TermCriteria(cv::TermCriteria::EPS + cv::TermCriteria::COUNT, settings.maxIterations,
                                    settings.epsilon));
  view.corners.reserve(corners.size());
  for (const cv::Point2f& c : corners) view.corners.push_back({c.x, c.y});
  view.status = BoardStatus::kFound;
  return view;
}

BoardView Refuse(BoardStatus status, const std::string& problem) {
  BoardView view;
  view.status = status;
  view.problem = problem;
  return view;
}

#endif

}  // namespace

// Settings the detector would trip over (an assertion thrown as an exception) are
// refused before it runs.
std::string SettingsProblem(const BoardSettings& s) {
  if (s.columns < 3 || s.rows < 3 || s.columns > 1000 || s.rows > 1000)
    return "the board needs 3 to 1000 inner corners a side";
  if (s.subpixHalfWindow < 1 || s.subpixHalfWindow > 1000) return "the sub-pixel window must be 1 to 1000";
  if (s.maxIterations < 1 || !(s.epsilon >= 0)) return "bad sub-pixel stopping criteria";
  return "";
}

bool BoardDetectionAvailable() {
#ifdef ZELTRIM_HAVE_OPENCV
  return true;
#else
  return false;
#endif
}

bool ParseBoardSize(const std::string& text, BoardSettings* settings) {
  const size_t x = text.find('x');
  if (x == std::string::npos) return false;
  int columns = 0, rows = 0;
  if (!ParseCount(text.data(), text.data() + x, &columns) ||
      !ParseCount(text.data() + x + 1, text.data() + text.size(), &rows))
    return false;
  settings->columns = columns;
  settings->rows = rows;
  return true;
}

BoardView DetectBoardInFile(const std::string& path, const BoardSettings& settings) {
#ifdef ZELTRIM_HAVE_OPENCV
  const std::string problem = SettingsProblem(settings);
  if (!problem.empty()) return Refuse(BoardStatus::kBadSettings, problem);
  // The reason a file cannot be opened is ours to give, in one line; the decoder's own
  // warnings on standard error are silenced.
  if (std::FILE* f = std::fopen(path.c_str(), "rb"))
    std::fclose(f);
  else
    return Refuse(BoardStatus::kUnreadable, "cannot open " + path + ": " + std::strerror(errno));
  static const bool quiet = (cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_ERROR), true);
  (void)quiet;
  try {
    const cv::Mat grey = cv::imread(path, cv::IMREAD_GRAYSCALE);
    if (grey.empty()) return Refuse(BoardStatus::kUnreadable, path + " is not an image this build can read");
    BoardView view = Detect(grey, settings);
    if (view.status != BoardStatus::kFound) view.problem += " in " + path;
    return view;
  } catch (const cv::Exception& e) {
    return Refuse(BoardStatus::kUnreadable, path + ": " + e.err);
  }
#else
  (void)path;
  (void)settings;
  BoardView view;
  view.problem = kNoOpenCV;
  return view;
#endif
}

BoardView DetectBoardInPixels(const std::uint8_t* pixels, int width, int height, int stride,
                              const BoardSettings& settings) {
#ifdef ZELTRIM_HAVE_OPENCV
  const std::string problem = SettingsProblem(settings);
  if (!problem.empty()) return Refuse(BoardStatus::kBadSettings, problem);
  if (!pixels || width < 1 || height < 1 || stride < width)
    return Refuse(BoardStatus::kUnreadable, "no picture: empty or inconsistent pixel buffer");
  try {
    // A view of the caller's pixels; nothing is copied or written.
    const cv::Mat grey(height, width, CV_8UC1, const_cast<std::uint8_t*>(pixels), static_cast<size_t>(stride));
    return Detect(grey, settings);
  } catch (const cv::Exception& e) {
    return Refuse(BoardStatus::kUnreadable, e.err);
  }
#else
  (void)pixels;
  (void)width;
  (void)height;
  (void)stride;
  (void)settings;
  BoardView view;
  view.problem = kNoOpenCV;
  return view;
#endif
}

std::vector<BoardCorner> BoardModel(const BoardSettings& settings, double square) {
  std::vector<BoardCorner> model;
  if (settings.columns < 1 || settings.rows < 1) return model;
  model.reserve(static_cast<size_t>(settings.columns) * static_cast<size_t>(settings.rows));
  for (int y = 0; y < settings.rows; ++y)
    for (int x = 0; x < settings.columns; ++x) model.push_back({x * square, y * square});
  return model;
}

std::string ExactNumber(double value) {
  char text[40];
  const std::to_chars_result r = std::to_chars(text, text + sizeof(text), value);
  return std::string(text, r.ptr);
}
