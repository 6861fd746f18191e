// Small JPEG copies of photographs, to embed in a report. The work is OpenCV's; a build
// without OpenCV keeps this interface and makes no thumbnails.
#pragma once

#include <string>

// True when this build can make thumbnails (it was built with OpenCV).
bool ThumbnailsAvailable();

// The picture at `path`, scaled down (never up) to fit `maxSide` pixels on its longer
// side, as JPEG bytes. Empty, with a one-line *problem, when it cannot be read or encoded.
std::string JpegThumbnail(const std::string& path, int maxSide, std::string* problem);
