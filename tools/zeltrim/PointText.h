// Reading points as a user types them: "x,y[,z]" arguments, or lines of "x y [z]"
// (blanks or commas between numbers; blank lines and '#' lines are skipped).
#pragma once

#include <istream>
#include <string>
#include <vector>

struct Point3 {
  double x = 0, y = 0, z = 0;
};

// Parses one point; false (with *error set) for anything but two or three numbers, or,
// when `numbers` is 2 or 3, for any other count than that (a missing z is 0).
bool ParsePoint(const std::string& text, Point3* point, std::string* error, int numbers = 0);

// Parses every text of `texts` into `points` (appended); false with *error set on the first bad one.
bool ParsePoints(const std::vector<std::string>& texts, std::vector<Point3>* points, std::string* error);

// Reads every point of a stream; false with "line N: ..." in *error on the first bad line.
// `numbers` as for ParsePoint.
bool ReadPoints(std::istream& in, std::vector<Point3>* points, std::string* error, int numbers = 0);

// Reads sets of x y points from a stream: a blank line ends a set, '#' lines are skipped.
// False with *error set ("NAME, line N: ...", "cannot read NAME", "NAME holds no point
// sets") on a bad line, a set of fewer than `fewest` points, a read error or no set at all.
bool ReadPointSets(std::istream& in, const std::string& name, size_t fewest, std::vector<std::vector<Point3>>* sets,
                   std::string* error);

// Every number of a line, blanks or commas between them; false on a field that is no number.
bool ParseNumberList(const std::string& text, std::vector<double>* values);

// Parses "a,b[,c]" into up to `count` numbers; false unless exactly `count` are given.
bool ParseNumbers(const std::string& text, int count, double* values);

std::string FormatPoint(const Point3& p);
