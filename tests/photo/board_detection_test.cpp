// Chessboard corners found in the bundled photographs against the point sets detected
// independently from the same photographs (read in place from ../shared/data), and the
// detector's answers to pictures without a board, unreadable files and bad settings.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <ostream>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <string>
#include <vector>

#include "tools/zeltrim/BoardDetection.h"

namespace {

const std::string kPhotos = std::string(ZELTRIM_SOURCE_DIR) + "/data/opencv-images";
const std::string kShared = std::string(ZELTRIM_SOURCE_DIR) + "/../shared/data";
// The photographs behind view 01 .. 13 of the reference sets (number 10 does not exist).
const char* const kNumbers[] = {"01", "02", "03", "04", "05", "06", "07", "08", "09", "11", "12", "13", "14"};

std::vector<BoardCorner> ReadPoints(const std::string& path) {
  std::vector<BoardCorner> points;
  std::ifstream in(path);
  BoardCorner p;
  while (in >> p.x >> p.y) points.push_back(p);
  return points;
}

BoardSettings Board9x6(int halfWindow = 11) {
  BoardSettings s;
  s.columns = 9;
  s.rows = 6;
  s.subpixHalfWindow = halfWindow;
  return s;
}

// A scratch folder removed with its files at the end of the test.
struct TempDir {
  std::string path;
  std::vector<std::string> files;
  TempDir() {
    char name[] = "/tmp/board_detection_XXXXXX";
    path = mkdtemp(name) ? name : "";
  }
  std::string File(const std::string& name) {
    files.push_back(path + "/" + name);
    return files.back();
  }
  ~TempDir() {
    for (const std::string& f : files) std::remove(f.c_str());
    if (!path.empty()) rmdir(path.c_str());
  }
};

struct ReferenceSet {
  const char* folder;  // under ../shared/data
  const char* camera;  // left or right photographs
  int halfWindow;
};

void PrintTo(const ReferenceSet& set, std::ostream* out) { *out << set.folder; }

class ReferenceSets : public testing::TestWithParam<ReferenceSet> {};

// Every corner of every view in the reference order, to 0.01 px; the model is the
// reference model for a square of 1.
TEST_P(ReferenceSets, CornersMatchPointForPoint) {
  const ReferenceSet& set = GetParam();
  const std::string folder = kShared + "/" + set.folder;
  if (access((folder + "/model.txt").c_str(), R_OK) != 0) GTEST_SKIP() << folder << " is not here";
  const BoardSettings board = Board9x6(set.halfWindow);

  const std::vector<BoardCorner> model = BoardModel(board, 1.0), wantModel = ReadPoints(folder + "/model.txt");
  ASSERT_EQ(model.size(), wantModel.size());
  for (size_t i = 0; i < model.size(); ++i) {
    EXPECT_EQ(model[i].x, wantModel[i].x) << "model point " << i;
    EXPECT_EQ(model[i].y, wantModel[i].y) << "model point " << i;
  }

  double largest = 0;
  for (int k = 0; k < 13; ++k) {
    char view[32];
    std::snprintf(view, sizeof(view), "/view%02d.txt", k + 1);
    const std::vector<BoardCorner> want = ReadPoints(folder + view);
    const std::string photo = kPhotos + "/" + set.camera + kNumbers[k] + ".jpg";
    const BoardView found = DetectBoardInFile(photo, board);
    ASSERT_EQ(found.status, BoardStatus::kFound) << photo << ": " << found.problem;
    EXPECT_EQ(found.width, 640);
    EXPECT_EQ(found.height, 480);
    ASSERT_EQ(found.corners.size(), 54u) << photo;
    ASSERT_EQ(want.size(), 54u) << folder << view;
    for (size_t i = 0; i < want.size(); ++i)
      largest = std::max({largest, std::fabs(found.corners[i].x - want[i].x), std::fabs(found.corners[i].y - want[i].y)});
  }
  EXPECT_LT(largest, 0.01) << set.folder;
  RecordProperty("largest_difference_px", std::to_string(largest));
}

INSTANTIATE_TEST_SUITE_P(Photographs, ReferenceSets,
                         testing::Values(ReferenceSet{"opencv-left", "left", 11}, ReferenceSet{"opencv-left-w7", "left", 7},
                                         ReferenceSet{"opencv-right", "right", 11},
                                         ReferenceSet{"opencv-right-w7", "right", 7}),
                         [](const testing::TestParamInfo<ReferenceSet>& info) {
                           std::string name = info.param.folder;
                           for (char& c : name)
                             if (c == '-') c = '_';
                           return name;
                         });

// Pixels already in memory, rows padded beyond the picture's width, give the corners
// the file gives.
TEST(BoardDetection, PaddedPixelsGiveTheFilesCorners) {
  const std::string photo = kPhotos + "/left01.jpg";
  const cv::Mat grey = cv::imread(photo, cv::IMREAD_GRAYSCALE);
  ASSERT_FALSE(grey.empty());
  const int stride = grey.cols + 13;
  std::vector<std::uint8_t> padded(static_cast<size_t>(stride) * grey.rows, 0);
  for (int r = 0; r < grey.rows; ++r) std::copy(grey.ptr(r), grey.ptr(r) + grey.cols, &padded[static_cast<size_t>(r) * stride]);

  const BoardView fromFile = DetectBoardInFile(photo, Board9x6());
  const BoardView fromPixels = DetectBoardInPixels(padded.data(), grey.cols, grey.rows, stride, Board9x6());
  ASSERT_EQ(fromFile.status, BoardStatus::kFound);
  ASSERT_EQ(fromPixels.status, BoardStatus::kFound);
  ASSERT_EQ(fromPixels.corners.size(), fromFile.corners.size());
  for (size_t i = 0; i < fromFile.corners.size(); ++i) {
    EXPECT_EQ(fromPixels.corners[i].x, fromFile.corners[i].x) << i;
    EXPECT_EQ(fromPixels.corners[i].y, fromFile.corners[i].y) << i;
  }
}

// What cannot give corners says why, in one line, and never throws.
TEST(BoardDetection, PicturesWithoutCornersAreReported) {
  TempDir dir;
  ASSERT_FALSE(dir.path.empty());

  const std::string blank = dir.File("blank.png");
  ASSERT_TRUE(cv::imwrite(blank, cv::Mat(480, 640, CV_8UC1, cv::Scalar(255))));
  const BoardView none = DetectBoardInFile(blank, Board9x6());
  EXPECT_EQ(none.status, BoardStatus::kNoBoard);
  EXPECT_EQ(none.width, 640);
  EXPECT_EQ(none.height, 480);
  EXPECT_TRUE(none.corners.empty());
  EXPECT_NE(none.problem.find("blank.png"), std::string::npos) << none.problem;

  const std::string text = dir.File("notes.jpg");
  std::ofstream(text) << "not a picture\n";
  const BoardView junk = DetectBoardInFile(text, Board9x6());
  EXPECT_EQ(junk.status, BoardStatus::kUnreadable);
  EXPECT_EQ(junk.problem.find('\n'), std::string::npos);

  const BoardView missing = DetectBoardInFile(dir.path + "/nowhere.jpg", Board9x6());
  EXPECT_EQ(missing.status, BoardStatus::kUnreadable);
  EXPECT_NE(missing.problem.find("nowhere.jpg"), std::string::npos) << missing.problem;

  // A board larger than the one photographed is not found.
  BoardSettings larger = Board9x6();
  larger.columns = 10;
  larger.rows = 7;
  EXPECT_EQ(DetectBoardInFile(kPhotos + "/left01.jpg", larger).status, BoardStatus::kNoBoard);

  // Settings the detector cannot take are refused before it runs.
  BoardSettings noWindow = Board9x6(0);
  EXPECT_EQ(DetectBoardInFile(kPhotos + "/left01.jpg", noWindow).status, BoardStatus::kBadSettings);
  BoardSettings thin = Board9x6();
  thin.rows = 2;
  const std::uint8_t pixel[16] = {};
  EXPECT_EQ(DetectBoardInPixels(pixel, 4, 4, 4, thin).status, BoardStatus::kBadSettings);
  EXPECT_EQ(DetectBoardInPixels(pixel, 4, 4, 3, Board9x6()).status, BoardStatus::kUnreadable);
  EXPECT_EQ(DetectBoardInPixels(nullptr, 4, 4, 4, Board9x6()).status, BoardStatus::kUnreadable);
}

TEST(BoardDetection, BoardSizeText) {
  BoardSettings s;
  ASSERT_TRUE(ParseBoardSize("9x6", &s));
  EXPECT_EQ(s.columns, 9);
  EXPECT_EQ(s.rows, 6);
  ASSERT_TRUE(ParseBoardSize("1000x3", &s));
  EXPECT_EQ(s.columns, 1000);
  EXPECT_EQ(s.rows, 3);
  for (const char* bad : {"", "9", "9x", "x6", "9x6x", "9 x6", "9x6 ", "-9x6", "2x6", "9x2", "1001x6", "9.0x6", "9X6"})
    EXPECT_FALSE(ParseBoardSize(bad, &s)) << "'" << bad << "'";
  EXPECT_EQ(s.columns, 1000) << "a refused size leaves the settings alone";
}

// The points are written so that they read back to the very same numbers.
TEST(BoardDetection, NumbersReadBackExactly) {
  for (const char* text : {"256.43853759765625", "362.37518310546875", "0", "5", "-3.5", "1e-07"})
    EXPECT_EQ(ExactNumber(std::strtod(text, nullptr)), text);
  for (float f : {244.41796875f, 0.1f, 639.99994f, 1e-20f}) {
    const double d = f;
    EXPECT_EQ(std::strtod(ExactNumber(d).c_str(), nullptr), d);
  }
  const std::vector<BoardCorner> model = BoardModel(Board9x6(), 2.5);
  ASSERT_EQ(model.size(), 54u);
  EXPECT_EQ(model[9].x, 0.0);  // the second row starts again at X = 0
  EXPECT_EQ(model[9].y, 2.5);
  EXPECT_EQ(model.back().x, 20.0);
  EXPECT_EQ(model.back().y, 12.5);
}

}  // namespace
