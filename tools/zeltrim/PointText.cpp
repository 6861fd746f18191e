#include "tools/zeltrim/PointText.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace {

// Splits on blanks and commas and converts each field; false on any bad field.
bool Numbers(const std::string& text, std::vector<double>* values) {
  values->clear();
  size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == ',' || text[i] == '\r')) ++i;
    if (i >= text.size()) break;
    size_t end = i;
    while (end < text.size() && text[end] != ' ' && text[end] != '\t' && text[end] != ',' && text[end] != '\r') ++end;
    const std::string field = text.substr(i, end - i);
    char* stop = nullptr;
    errno = 0;
    const double v = std::strtod(field.c_str(), &stop);
    if (stop == field.c_str() || *stop != '\0' || errno == ERANGE || !std::isfinite(v)) return false;
    values->push_back(v);
    i = end;
  }
  return true;
}

// Text quoted in a message: at most kMaxQuoted characters, anything unprintable as '?'.
constexpr size_t kMaxQuoted = 40;

std::string Quoted(const std::string& text) {
  std::string out = "'";
  for (size_t i = 0; i < text.size() && i < kMaxQuoted; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    out += c >= 32 && c < 127 ? static_cast<char>(c) : '?';
  }
  out += "'";
  if (text.size() > kMaxQuoted) out += " (cut; " + std::to_string(text.size()) + " characters)";
  return out;
}

}  // namespace

bool ParsePoint(const std::string& text, Point3* point, std::string* error, int numbers) {
  std::vector<double> v;
  if (!Numbers(text, &v)) {
    *error = "not a number in " + Quoted(text);
    return false;
  }
  if (v.size() < 2 || v.size() > 3) {
    *error = "expected x y or x y z, got " + Quoted(text);
    return false;
  }
  if (numbers != 0 && v.size() != static_cast<size_t>(numbers)) {
    *error = std::string(numbers == 2 ? "expected x y" : "expected x y z") + ", got " + Quoted(text);
    return false;
  }
  point->x = v[0];
  point->y = v[1];
  point->z = v.size() == 3 ? v[2] : 0.0;
  return true;
}

bool ParsePoints(const std::vector<std::string>& texts, std::vector<Point3>* points, std::string* error) {
  for (const std::string& text : texts) {
    Point3 p;
    if (!ParsePoint(text, &p, error)) return false;
    points->push_back(p);
  }
  return true;
}

bool ReadPoints(std::istream& in, std::vector<Point3>* points, std::string* error, int numbers) {
  std::string line;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#') continue;
    Point3 p;
    std::string why;
    if (!ParsePoint(line, &p, &why, numbers)) {
      *error = "line " + std::to_string(number) + ": " + why;
      return false;
    }
    points->push_back(p);
  }
  return true;
}

bool ReadPointSets(std::istream& in, const std::string& name, size_t fewest, std::vector<std::vector<Point3>>* sets,
                   std::string* error) {
  std::string text;
  std::vector<Point3> set;
  size_t lineNumber = 0, setStart = 0;
  const auto close = [&]() {
    if (set.empty()) return true;
    if (set.size() < fewest)
      return *error = name + ", line " + std::to_string(setStart) + ": a set of " + std::to_string(set.size()) +
                      " point" + (set.size() == 1 ? "" : "s") + "; a straight line needs 3 or more to show a bend",
             false;
    sets->push_back(set);
    set.clear();
    return true;
  };
  while (std::getline(in, text)) {
    ++lineNumber;
    const size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) {
      if (!close()) return false;
      continue;
    }
    if (text[first] == '#') continue;
    Point3 p;
    std::string why;
    if (!ParsePoint(text, &p, &why, 2)) return *error = name + ", line " + std::to_string(lineNumber) + ": " + why, false;
    if (set.empty()) setStart = lineNumber;
    set.push_back(p);
  }
  if (in.bad()) return *error = "cannot read " + name, false;
  if (!close()) return false;
  if (sets->empty()) return *error = name + " holds no point sets", false;
  return true;
}

bool ParseNumberList(const std::string& text, std::vector<double>* values) { return Numbers(text, values); }

bool ParseNumbers(const std::string& text, int count, double* values) {
  std::vector<double> v;
  if (!Numbers(text, &v) || static_cast<int>(v.size()) != count) return false;
  for (int i = 0; i < count; ++i) values[i] = v[static_cast<size_t>(i)];
  return true;
}

std::string FormatPoint(const Point3& p) {
  char buffer[128];
  std::snprintf(buffer, sizeof(buffer), "%.10g %.10g %.10g", p.x, p.y, p.z);
  return buffer;
}
