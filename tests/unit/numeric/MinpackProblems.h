// Standard least-squares test problems (More, Garbow and Hillstrom, ACM TOMS 7, 1981)
// with their published starting points and minima, in the evaluation form of the
// minimiser. Shared by the tests and the benchmarks.
#pragma once

#include <cmath>
#include <vector>

namespace minpack_problems {

struct Problem {
  const char* name;
  int n;
  int m;
  std::vector<double> start;
  // Published sum of squares at the minimum the standard start leads to; a second
  // accepted value where the problem has another local minimum (or -1).
  double minimum;
  double alternative;
  void (*evaluate)(const double* x, int m, const void* data, double* f, int* info);
  // Evaluation budget factor that the problem needs: Meyer's valley takes far more than
  // the module's standard 100 (n + 1).
  int maxcall = 100;
};

inline void Rosenbrock(const double* x, int, const void*, double* f, int*) {
  f[0] = 10.0 * (x[1] - x[0] * x[0]);
  f[1] = 1.0 - x[0];
}

inline void FreudensteinRoth(const double* x, int, const void*, double* f, int*) {
  f[0] = -13.0 + x[0] + ((5.0 - x[1]) * x[1] - 2.0) * x[1];
  f[1] = -29.0 + x[0] + ((x[1] + 1.0) * x[1] - 14.0) * x[1];
}

inline void BrownBadlyScaled(const double* x, int, const void*, double* f, int*) {
  f[0] = x[0] - 1e6;
  f[1] = x[1] - 2e-6;
  f[2] = x[0] * x[1] - 2.0;
}

inline void Beale(const double* x, int, const void*, double* f, int*) {
  const double y[3] = {1.5, 2.25, 2.625};
  for (int i = 0; i < 3; ++i) f[i] = y[i] - x[0] * (1.0 - std::pow(x[1], i + 1));
}

inline void JennrichSampson(const double* x, int m, const void*, double* f, int*) {
  for (int i = 1; i <= m; ++i) f[i - 1] = 2.0 + 2.0 * i - (std::exp(i * x[0]) + std::exp(i * x[1]));
}

inline void HelicalValley(const double* x, int, const void*, double* f, int*) {
  const double pi = 3.14159265358979323846;
  double theta = std::atan(x[1] / x[0]) / (2.0 * pi);
  if (x[0] < 0.0) theta += 0.5;
  f[0] = 10.0 * (x[2] - 10.0 * theta);
  f[1] = 10.0 * (std::sqrt(x[0] * x[0] + x[1] * x[1]) - 1.0);
  f[2] = x[2];
}

inline void Bard(const double* x, int, const void*, double* f, int*) {
  const double y[15] = {0.14, 0.18, 0.22, 0.25, 0.29, 0.32, 0.35, 0.39,
                        0.37, 0.58, 0.73, 0.96, 1.34, 2.10, 4.39};
  for (int i = 1; i <= 15; ++i) {
    const double u = i, v = 16 - i, w = u < v ? u : v;
    f[i - 1] = y[i - 1] - (x[0] + u / (x[1] * v + x[2] * w));
  }
}

inline void Meyer(const double* x, int, const void*, double* f, int*) {
  const double y[16] = {34780, 28610, 23650, 19630, 16370, 13720, 11540, 9744,
                        8261,  7030,  6005,  5147,  4427,  3820,  3307,  2872};
  for (int i = 1; i <= 16; ++i) {
    const double t = 45.0 + 5.0 * i;
    f[i - 1] = x[0] * std::exp(x[1] / (t + x[2])) - y[i - 1];
  }
}

inline void Box3D(const double* x, int m, const void*, double* f, int*) {
  for (int i = 1; i <= m; ++i) {
    const double t = 0.1 * i;
    f[i - 1] = std::exp(-t * x[0]) - std::exp(-t * x[1]) - x[2] * (std::exp(-t) - std::exp(-10.0 * t));
  }
}

inline void PowellSingular(const double* x, int, const void*, double* f, int*) {
  f[0] = x[0] + 10.0 * x[1];
  f[1] = std::sqrt(5.0) * (x[2] - x[3]);
  f[2] = (x[1] - 2.0 * x[2]) * (x[1] - 2.0 * x[2]);
  f[3] = std::sqrt(10.0) * (x[0] - x[3]) * (x[0] - x[3]);
}

inline void Wood(const double* x, int, const void*, double* f, int*) {
  f[0] = 10.0 * (x[1] - x[0] * x[0]);
  f[1] = 1.0 - x[0];
  f[2] = std::sqrt(90.0) * (x[3] - x[2] * x[2]);
  f[3] = 1.0 - x[2];
  f[4] = std::sqrt(10.0) * (x[1] + x[3] - 2.0);
  f[5] = (x[1] - x[3]) / std::sqrt(10.0);
}

inline void KowalikOsborne(const double* x, int, const void*, double* f, int*) {
  const double y[11] = {0.1957, 0.1947, 0.1735, 0.1600, 0.0844, 0.0627,
                        0.0456, 0.0342, 0.0323, 0.0235, 0.0246};
  const double u[11] = {4.0, 2.0, 1.0, 0.5, 0.25, 0.167, 0.125, 0.1, 0.0833, 0.0714, 0.0625};
  for (int i = 0; i < 11; ++i)
    f[i] = y[i] - x[0] * (u[i] * u[i] + u[i] * x[1]) / (u[i] * u[i] + u[i] * x[2] + x[3]);
}

inline void Osborne1(const double* x, int, const void*, double* f, int*) {
  const double y[33] = {0.844, 0.908, 0.932, 0.936, 0.925, 0.908, 0.881, 0.850, 0.818,
                        0.784, 0.751, 0.718, 0.685, 0.658, 0.628, 0.603, 0.580, 0.558,
                        0.538, 0.522, 0.506, 0.490, 0.478, 0.467, 0.457, 0.448, 0.438,
                        0.431, 0.424, 0.420, 0.414, 0.411, 0.406};
  for (int i = 0; i < 33; ++i) {
    const double t = 10.0 * i;
    f[i] = y[i] - (x[0] + x[1] * std::exp(-t * x[3]) + x[2] * std::exp(-t * x[4]));
  }
}

inline std::vector<Problem> All() {
  return {
      {"Rosenbrock", 2, 2, {-1.2, 1.0}, 0.0, -1, Rosenbrock},
      {"FreudensteinRoth", 2, 2, {0.5, -2.0}, 48.9842, 0.0, FreudensteinRoth},
      {"BrownBadlyScaled", 2, 3, {1.0, 1.0}, 0.0, -1, BrownBadlyScaled},
      {"Beale", 2, 3, {1.0, 1.0}, 0.0, -1, Beale},
      {"JennrichSampson", 2, 10, {0.3, 0.4}, 124.362, -1, JennrichSampson},
      {"HelicalValley", 3, 3, {-1.0, 0.0, 0.0}, 0.0, -1, HelicalValley},
      {"Bard", 3, 15, {1.0, 1.0, 1.0}, 8.21487e-3, 17.4286, Bard},
      {"Meyer", 3, 16, {0.02, 4000.0, 250.0}, 87.9458, -1, Meyer, 2000},
      {"Box3D", 3, 10, {0.0, 10.0, 20.0}, 0.0, -1, Box3D},
      {"PowellSingular", 4, 4, {3.0, -1.0, 0.0, 1.0}, 0.0, -1, PowellSingular},
      {"Wood", 4, 6, {-3.0, -1.0, -3.0, -1.0}, 0.0, -1, Wood},
      {"KowalikOsborne", 4, 11, {0.25, 0.39, 0.415, 0.39}, 3.07505e-4, -1, KowalikOsborne},
      {"Osborne1", 5, 33, {0.5, 1.5, -1.0, 0.01, 0.02}, 5.46489e-5, -1, Osborne1},
  };
}

}  // namespace minpack_problems
