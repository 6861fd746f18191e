// Photograph thumbnails for reports (see Thumbnail.h).
#include "tools/zeltrim/Thumbnail.h"

#include <algorithm>
#include <vector>

#ifdef ZELTRIM_HAVE_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#endif

bool ThumbnailsAvailable() {
#ifdef ZELTRIM_HAVE_OPENCV
  return true;
#else
  return false;
#endif
}

std::string JpegThumbnail(const std::string& path, int maxSide, std::string* problem) {
#ifdef ZELTRIM_HAVE_OPENCV
  if (maxSide < 1) return *problem = "the thumbnail size must be at least 1 pixel", std::string();
  try {
    const cv::Mat picture = cv::imread(path, cv::IMREAD_COLOR);
    if (picture.empty()) return *problem = path + " is not an image this build can read", std::string();
    cv::Mat small = picture;
    const int longer = std::max(picture.cols, picture.rows);
    if (longer > maxSide) {
      const double f = static_cast<double>(maxSide) / longer;
      // Area averaging: the scaled-down picture does not alias the board's squares.
      cv::resize(picture, small, cv::Size(), f, f, cv::INTER_AREA);
    }
    std::vector<unsigned char> bytes;
    if (!cv::imencode(".jpg", small, bytes, {cv::IMWRITE_JPEG_QUALITY, 80}))
      return *problem = "cannot encode a thumbnail of " + path, std::string();
    return std::string(bytes.begin(), bytes.end());
  } catch (const cv::Exception& e) {
    return *problem = path + ": " + e.err, std::string();
  }
#else
  (void)path;
  (void)maxSide;
  *problem = "this zeltrim was built without OpenCV, so it makes no thumbnails";
  return std::string();
#endif
}
