// libFuzzer target: the point, model and line files that zeltrim reads, and the numbers
// typed on its command line. The rest of the input is one file, read as a point file
// (any count, exactly x y, exactly x y z), a lines file (sets of x y), rows of numbers
// as triangulate reads them, and command-line arguments. A read that succeeds holds only
// finite numbers; a refusal always says why.
#include <cmath>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "tools/zeltrim/PointText.h"

namespace {

void Finite(const Point3& p) {
  if (!std::isfinite(p.x) || !std::isfinite(p.y) || !std::isfinite(p.z)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 8192) return 0;
  const std::string text(reinterpret_cast<const char*>(data), size);

  for (int numbers : {0, 2, 3}) {
    std::istringstream in(text);
    std::vector<Point3> points;
    std::string error;
    if (ReadPoints(in, &points, &error, numbers)) {
      for (const Point3& p : points) Finite(p);
      if (numbers == 2)
        for (const Point3& p : points)
          if (p.z != 0) __builtin_trap();
    } else if (error.empty()) {
      __builtin_trap();
    }
  }

  {
    std::istringstream in(text);
    std::vector<std::vector<Point3>> sets;
    std::string error;
    if (ReadPointSets(in, "lines", 3, &sets, &error)) {
      if (sets.empty()) __builtin_trap();
      for (const auto& set : sets) {
        if (set.size() < 3) __builtin_trap();
        for (const Point3& p : set) Finite(p);
      }
    } else if (error.empty()) {
      __builtin_trap();
    }
  }

  // Rows of numbers and the arguments: one line each.
  std::istringstream lines(text);
  std::string line;
  std::vector<std::string> arguments;
  while (std::getline(lines, line)) {
    std::vector<double> values;
    if (ParseNumberList(line, &values))
      for (double v : values)
        if (!std::isfinite(v)) __builtin_trap();
    double three[3];
    if (ParseNumbers(line, 3, three))
      for (double v : three)
        if (!std::isfinite(v)) __builtin_trap();
    Point3 p;
    std::string error;
    if (ParsePoint(line, &p, &error)) {
      Finite(p);
      if (FormatPoint(p).empty()) __builtin_trap();
    } else if (error.empty() || error.size() > 200) {  // a quote in a message is cut short
      __builtin_trap();
    }
    arguments.push_back(line);
  }
  std::vector<Point3> points;
  std::string error;
  if (!ParsePoints(arguments, &points, &error) && error.empty()) __builtin_trap();
  return 0;
}
