// What the two curves of the "Geometry" peer share ("CurveLagrange", "CurveSpline"): their
// samples and the stored form of those samples. The mathematics: host/README.md, section
// "Curves".
//
// A curve is its samples: (x, y) pairs sorted by rising x, each x once. Fit takes them
// from the (x, y) of the points of a collection (z is not read), sorts them and merges
// samples of one x into one sample whose y is the mean of theirs. Evaluation and the
// stored form work on that prepared list only, so a loaded curve is the saved one bit for
// bit.
#pragma once

#include <vector>

#include "frame/Object.h"

namespace curve {

struct Sample {
  double x, y;
};

// The largest number of samples a curve takes (Fit or Load); more gives E_INVALIDARG.
// Far above any grid line of a calibration, low enough that the stored block is small.
constexpr size_t kMaxSamples = 1u << 20;

// Reads, sorts and merges the samples of a collection. An item that is no point, a
// non-finite x or y, or more than kMaxSamples points: E_INVALIDARG. A null collection:
// E_POINTER. The result may be empty.
HRESULT ReadSamples(IPointsCollection* points, std::vector<Sample>* out);

// Sorts by x (stable) and merges equal x into their mean y.
void Prepare(std::vector<Sample>* samples);

// The stored form. Folder stream: int32 "Order" (when `order` is not null), then raw
// data "Samples" of 16 bytes a sample (x then y, native doubles, little-endian on every
// supported machine). XML: element "Order" (when given), then one element "Sample" per
// sample holding "x y" as "%.17g %.17g", so both forms give every bit back. Neither a
// folder nor an XML stream: E_FAIL.
HRESULT SaveSamples(IDataStream* stream, const std::vector<Sample>& samples, const int* order);

// Reads what SaveSamples wrote, into `samples` and (when `order` is not null and the
// stream has one) `*order`, and prepares the samples. A stream without an order keeps
// `*order` as it is, so that the samples of either curve load into the other. Anything
// missing or unreadable (no samples, a block of a wrong size, a number that does not
// parse, a non-finite value, an order that is not an integer, more than kMaxSamples):
// E_FAIL, and the outputs are not written.
HRESULT LoadSamples(IDataStream* stream, std::vector<Sample>* samples, int* order);

}  // namespace curve
