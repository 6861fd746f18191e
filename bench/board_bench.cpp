// Speed of finding a chessboard's corners in one photograph (the corner search, then the
// sub-pixel refinement), as `zeltrim calibrate --images` does it: from the JPEG file
// (decoding included) and from grey pixels already in memory, over the 13 bundled left
// photographs in turn (9 x 6 inner corners, 640 x 480), with the 11 and the 7 pixel
// windows; and the cost of a photograph where the search finds no board and gives up.
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <string>
#include <vector>

#include "tools/zeltrim/BoardDetection.h"

namespace {

const char* const kNumbers[] = {"01", "02", "03", "04", "05", "06", "07", "08", "09", "11", "12", "13", "14"};

std::vector<std::string> Photos() {
  std::vector<std::string> paths;
  for (const char* n : kNumbers) paths.push_back(std::string(ZELTRIM_SOURCE_DIR) + "/data/opencv-images/left" + n + ".jpg");
  return paths;
}

BoardSettings Board(int halfWindow) {
  BoardSettings s;
  s.columns = 9;
  s.rows = 6;
  s.subpixHalfWindow = halfWindow;
  return s;
}

void FromFile(benchmark::State& state) {
  const std::vector<std::string> photos = Photos();
  const BoardSettings board = Board(static_cast<int>(state.range(0)));
  size_t k = 0;
  for (auto _ : state) {
    const BoardView view = DetectBoardInFile(photos[k++ % photos.size()], board);
    if (view.status != BoardStatus::kFound) {
      state.SkipWithError(view.problem.c_str());
      return;
    }
    benchmark::DoNotOptimize(view.corners.data());
  }
  state.SetItemsProcessed(state.iterations());
}

void FromPixels(benchmark::State& state) {
  std::vector<cv::Mat> pictures;
  for (const std::string& path : Photos()) pictures.push_back(cv::imread(path, cv::IMREAD_GRAYSCALE));
  const BoardSettings board = Board(static_cast<int>(state.range(0)));
  size_t k = 0;
  for (auto _ : state) {
    const cv::Mat& grey = pictures[k++ % pictures.size()];
    if (grey.empty()) {
      state.SkipWithError("a bundled photograph did not read");
      return;
    }
    const BoardView view = DetectBoardInPixels(grey.data, grey.cols, grey.rows, static_cast<int>(grey.step), board);
    benchmark::DoNotOptimize(view.corners.data());
  }
  state.SetItemsProcessed(state.iterations());
}

// The bundled photographs searched for a 10 x 7 board they do not show: the cost of a
// photograph that is reported and skipped.
void WrongBoard(benchmark::State& state) {
  std::vector<cv::Mat> pictures;
  for (const std::string& path : Photos()) pictures.push_back(cv::imread(path, cv::IMREAD_GRAYSCALE));
  BoardSettings board = Board(11);
  board.columns = 10;
  board.rows = 7;
  size_t k = 0;
  for (auto _ : state) {
    const cv::Mat& grey = pictures[k++ % pictures.size()];
    const BoardView view = DetectBoardInPixels(grey.data, grey.cols, grey.rows, static_cast<int>(grey.step), board);
    if (view.status != BoardStatus::kNoBoard) {
      state.SkipWithError("a 10 x 7 board was found");
      return;
    }
  }
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(FromFile)->Arg(11)->Arg(7)->Unit(benchmark::kMillisecond);
BENCHMARK(FromPixels)->Arg(11)->Arg(7)->Unit(benchmark::kMillisecond);
BENCHMARK(WrongBoard)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
