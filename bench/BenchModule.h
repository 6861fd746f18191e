// What the benchmarks that drive the loaded module share: the module and its peers,
// loaded once from the build folder as a framework host loads them, and a synthetic
// camera to feed the camera classes.
#pragma once

#include <cmath>

#include "host/client/ModuleHost.h"

inline ModuleHost& Host() {
  static ModuleHost host;
  static const bool loaded = host.Load(ExecutableFolder());
  (void)loaded;
  return host;
}

// P = K [R | t] by rows, a camera 10 units from the origin, turned about all three axes.
struct BenchCamera {
  double p[3][4];
  BenchCamera() {
    const double k[3][3] = {{800, 0.5, 320}, {0, 780, 240}, {0, 0, 1}};
    const double a = 0.2, b = -0.3, c = 0.1;
    const double r[3][3] = {
        {std::cos(c) * std::cos(b), std::cos(c) * std::sin(b) * std::sin(a) - std::sin(c) * std::cos(a),
         std::cos(c) * std::sin(b) * std::cos(a) + std::sin(c) * std::sin(a)},
        {std::sin(c) * std::cos(b), std::sin(c) * std::sin(b) * std::sin(a) + std::cos(c) * std::cos(a),
         std::sin(c) * std::sin(b) * std::cos(a) - std::cos(c) * std::sin(a)},
        {-std::sin(b), std::cos(b) * std::sin(a), std::cos(b) * std::cos(a)}};
    const double t[3] = {0.3, -0.2, 10.0};
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 4; ++j) {
        double sum = 0;
        for (int m = 0; m < 3; ++m) sum += k[i][m] * (j < 3 ? r[m][j] : t[m]);
        p[i][j] = sum;
      }
  }
};
