// Synthetic data for the radial distortion model: straight lines in the corrected image,
// bent by a known model into the points a camera would have seen. The bending inverts the
// model's Convert by solving rho = r f(r) for r along each point's ray, so it is
// independent of the module's own Revert (which is only a first-order inverse).
#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

namespace radial_lines {

struct Model {
  double k1 = 0, k2 = 0;
  double x0 = 0.5, y0 = 0.5;  // centre, normalised
  double s = 1;               // aspect of x
  double side = 1000;         // normalisation: the smaller image side in pixels
};

struct Pixel {
  double x, y;
};

// The distorted pixel whose correction by `m` is the pixel (X, Y).
inline Pixel Bend(const Model& m, double X, double Y) {
  const double uc = X / m.side - m.x0, vc = 1 - Y / m.side - m.y0;
  const double rho = std::hypot(uc, vc);
  double r = rho;  // Newton on r + k1 r^2 + k2 r^3 = rho, from r = rho
  for (int i = 0; i < 60 && rho > 0; ++i) {
    const double g = r + m.k1 * r * r + m.k2 * r * r * r - rho;
    const double dg = 1 + 2 * m.k1 * r + 3 * m.k2 * r * r;
    r -= g / dg;
  }
  const double scale = rho > 0 ? r / rho : 1;
  const double u = uc * scale, v = vc * scale;
  return {(u * m.s + m.x0) * m.side, (1 - v - m.y0) * m.side};
}

// `lines` straight lines across a side x side image (half of them near-horizontal, half
// near-vertical, spread from edge to edge), `points` points each, bent by `m`.
inline std::vector<std::vector<Pixel>> BentLines(const Model& m, int lines, int points) {
  std::vector<std::vector<Pixel>> sets;
  for (int l = 0; l < lines; ++l) {
    const bool horizontal = l % 2 == 0;
    const double offset = m.side * (0.08 + 0.84 * (l / 2) / std::max(1, (lines - 1) / 2));
    const double tilt = 0.03 * ((l % 3) - 1);
    std::vector<Pixel> set;
    for (int i = 0; i < points; ++i) {
      const double t = m.side * (0.05 + 0.9 * i / (points - 1));
      const double across = offset + tilt * (t - m.side / 2);
      set.push_back(horizontal ? Bend(m, t, across) : Bend(m, across, t));
    }
    sets.push_back(set);
  }
  return sets;
}

}  // namespace radial_lines
