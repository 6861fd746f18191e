// Finding a chessboard's inner corners in photographs, for calibrating from pictures
// instead of point files. The work is OpenCV's (findChessboardCorners, then cornerSubPix);
// a build without OpenCV keeps this interface and every call reports that it is missing.
//
// Order of the corners: as the detector returns them, row by row, `columns` corners a row.
// Corner i is the image of model point (i % columns, i / columns) of BoardModel. The
// detector picks the starting corner per photograph, so the first corner is not always at
// the same physical corner of the board; the labelling is a rotation of the board (the
// turn from the model's +X to +Y is the same in every view on a board whose sides differ
// in corner count), which is what a planar calibration needs.
//
// Pixel convention: x to the right, y down, the centre of the top-left pixel at (0, 0).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct BoardCorner {
  double x = 0, y = 0;
};

struct BoardSettings {
  int columns = 0, rows = 0;  // inner corners across and down, as "COLSxROWS"
  // Half the side of the sub-pixel search window: the corner is refined over a
  // (2 n + 1) x (2 n + 1) pixel area. 11 is the usual choice; on small squares a smaller
  // window keeps the outer row of corners off the board's border.
  int subpixHalfWindow = 11;
  int maxIterations = 30;  // sub-pixel refinement stops after this many steps
  double epsilon = 0.001;  // or when a step moves the corner less than this (pixels)
};

enum class BoardStatus {
  kFound,       // corners hold columns x rows points
  kNoBoard,     // the picture was read, no board of that size was found in it
  kUnreadable,  // no picture could be read (missing file, not an image)
  kBadSettings, // the settings cannot be used (see SettingsProblem)
  kUnavailable  // built without OpenCV
};

struct BoardView {
  BoardStatus status = BoardStatus::kUnavailable;
  int width = 0, height = 0;  // of the picture, when it was read
  std::vector<BoardCorner> corners;
  std::string problem;  // one line when status is not kFound
};

// True when this build can detect boards (it was built with OpenCV).
bool BoardDetectionAvailable();

// "COLSxROWS" into settings->columns and rows; false unless both are whole numbers from 3
// to 1000 (the detector needs three corners a side at least).
bool ParseBoardSize(const std::string& text, BoardSettings* settings);

// Why the detector cannot run with these settings (fewer than 3 corners a side, a
// window or stopping criteria below 1); empty when it can.
std::string SettingsProblem(const BoardSettings& settings);

// Reads the picture at `path` as grey levels and finds the board in it.
BoardView DetectBoardInFile(const std::string& path, const BoardSettings& settings);

// The same on 8-bit grey pixels already in memory: `height` rows of `width` pixels,
// `stride` bytes from one row to the next.
BoardView DetectBoardInPixels(const std::uint8_t* pixels, int width, int height, int stride,
                              const BoardSettings& settings);

// The board's corners as target points, row by row (X = 0 .. columns - 1 fastest, then
// Y), scaled by the square size; Z = 0.
std::vector<BoardCorner> BoardModel(const BoardSettings& settings, double square);

// A number as the shortest decimal text that reads back to the same double.
std::string ExactNumber(double value);
