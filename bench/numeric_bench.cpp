// Speed of the numerical kernels on the sizes the module uses, each against an
// independent library on the same input when that library is present:
//   svdcmp            vs LAPACK dgesvd (thin U, full V)
//   CLSCholeski       vs LAPACK dgels (QR least squares)
//   lmmin             vs cminpack lmdif (same tolerances, budget and step factor)
// Pairs are named <kernel>/<case>/ours and <kernel>/<case>/<library>; the table at the
// end gives library time / our time (above 1: we are faster).
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "bench/RatioReporter.h"
#include "numeric/CholeskiLeastSquares.h"
#include "numeric/MatrixLevenbergMarquardt.h"
#include "numeric/MatrixSVD.h"
#include "tests/unit/numeric/MinpackProblems.h"

#ifdef ZELTRIM_HAVE_LAPACKE
#include <lapacke.h>
#endif
#ifdef ZELTRIM_HAVE_CMINPACK
#include <cminpack.h>
#endif

namespace {

std::vector<double> Random(size_t count, unsigned seed, double lo = -1.0, double hi = 1.0) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> d(lo, hi);
  std::vector<double> v(count);
  for (double& x : v) x = d(rng);
  return v;
}

// Row-major m x n to column-major, for LAPACK's native layout.
std::vector<double> ColumnMajor(const std::vector<double>& a, int m, int n) {
  std::vector<double> c(a.size());
  for (int i = 0; i < m; ++i)
    for (int j = 0; j < n; ++j) c[static_cast<size_t>(j) * m + i] = a[static_cast<size_t>(i) * n + j];
  return c;
}

// ------------------------------------------------------------------ SVD

void SvdOurs(benchmark::State& state, int m, int n) {
  const std::vector<double> a = Random(static_cast<size_t>(m) * n, 7);
  std::vector<double> u(a.size()), w(n), v(static_cast<size_t>(n) * n);
  CMatrixSVD svd;
  for (auto _ : state) {
    u = a;
    benchmark::DoNotOptimize(svd.svdcmp(u.data(), m, n, w.data(), v.data()));
    benchmark::ClobberMemory();
  }
}

#ifdef ZELTRIM_HAVE_LAPACKE
void SvdLapack(benchmark::State& state, int m, int n) {
  const std::vector<double> a = ColumnMajor(Random(static_cast<size_t>(m) * n, 7), m, n);
  const int k = m < n ? m : n;
  std::vector<double> work_a(a.size()), s(k), u(static_cast<size_t>(m) * k), vt(static_cast<size_t>(n) * n);
  double query = 0.0;
  work_a = a;
  LAPACKE_dgesvd_work(LAPACK_COL_MAJOR, 'S', 'A', m, n, work_a.data(), m, s.data(), u.data(), m, vt.data(), n,
                      &query, -1);
  std::vector<double> work(static_cast<size_t>(query));
  for (auto _ : state) {
    work_a = a;
    benchmark::DoNotOptimize(LAPACKE_dgesvd_work(LAPACK_COL_MAJOR, 'S', 'A', m, n, work_a.data(), m, s.data(),
                                                 u.data(), m, vt.data(), n, work.data(),
                                                 static_cast<int>(work.size())));
    benchmark::ClobberMemory();
  }
}
#endif

// ------------------------------------------------------------------ least squares

void CholeskiOurs(benchmark::State& state, int n, int m) {
  const std::vector<double> a = Random(static_cast<size_t>(m) * n, 11);
  const std::vector<double> b = Random(m, 12);
  std::vector<double> x(n);
  CholeskiLeastSquares solver;
  for (auto _ : state) {
    benchmark::DoNotOptimize(solver.CLSCholeski(const_cast<double*>(a.data()), const_cast<double*>(b.data()),
                                                x.data(), static_cast<short>(n), static_cast<short>(m)));
    benchmark::ClobberMemory();
  }
}

#ifdef ZELTRIM_HAVE_LAPACKE
void CholeskiLapack(benchmark::State& state, int n, int m) {
  const std::vector<double> a = ColumnMajor(Random(static_cast<size_t>(m) * n, 11), m, n);
  const std::vector<double> b = Random(m, 12);
  std::vector<double> wa(a.size()), wb(b.size());
  double query = 0.0;
  wa = a;
  wb = b;
  LAPACKE_dgels_work(LAPACK_COL_MAJOR, 'N', m, n, 1, wa.data(), m, wb.data(), m, &query, -1);
  std::vector<double> work(static_cast<size_t>(query));
  for (auto _ : state) {
    wa = a;
    wb = b;
    benchmark::DoNotOptimize(LAPACKE_dgels_work(LAPACK_COL_MAJOR, 'N', m, n, 1, wa.data(), m, wb.data(), m,
                                                work.data(), static_cast<int>(work.size())));
    benchmark::ClobberMemory();
  }
}
#endif

// ------------------------------------------------------------------ Levenberg-Marquardt

// Homography refinement: 9 parameters, 2 residuals per point (as the camera fit does).
struct HomographyData {
  std::vector<double> model, image;  // x, y pairs
  std::vector<double> start;
  int points = 0;
};

HomographyData MakeHomography(int points) {
  HomographyData d;
  d.points = points;
  const double h[9] = {1.2, 0.1, 30.0, -0.05, 0.9, 12.0, 1e-4, -2e-4, 1.0};
  std::vector<double> xy = Random(2 * static_cast<size_t>(points), 3, 0.0, 100.0);
  std::vector<double> noise = Random(2 * static_cast<size_t>(points), 4, -0.3, 0.3);
  for (int i = 0; i < points; ++i) {
    const double x = xy[2 * i], y = xy[2 * i + 1];
    const double w = h[6] * x + h[7] * y + h[8];
    d.model.push_back(x);
    d.model.push_back(y);
    d.image.push_back((h[0] * x + h[1] * y + h[2]) / w + noise[2 * i]);
    d.image.push_back((h[3] * x + h[4] * y + h[5]) / w + noise[2 * i + 1]);
  }
  d.start = {1.15, 0.12, 28.0, -0.04, 0.95, 13.0, 0.5e-4, -1e-4, 1.0};
  return d;
}

void HomographyResiduals(const double* h, int m, const void* data, double* f, int*) {
  const HomographyData* d = static_cast<const HomographyData*>(data);
  for (int i = 0; i < m / 2; ++i) {
    const double x = d->model[2 * i], y = d->model[2 * i + 1];
    const double w = h[6] * x + h[7] * y + h[8];
    f[2 * i] = (h[0] * x + h[1] * y + h[2]) / w - d->image[2 * i];
    f[2 * i + 1] = (h[3] * x + h[4] * y + h[5]) / w - d->image[2 * i + 1];
  }
}

struct LmCase {
  int n, m;
  std::vector<double> start;
  lm_evaluate_ftype evaluate;
  const void* data;
};

void LmOurs(benchmark::State& state, LmCase c) {
  lm_status_struct status{0.0, 0, 0};
  std::vector<double> x;
  for (auto _ : state) {
    x = c.start;
    status = {0.0, 0, 0};
    CMatrixLevenbergMarquardt().lmmin(c.n, x.data(), c.m, c.data, c.evaluate, &status);
    benchmark::DoNotOptimize(x.data());
  }
  state.counters["nfev"] = status.nfev;
  state.counters["info"] = status.info;
  state.counters["fnorm"] = status.fnorm;
}

#ifdef ZELTRIM_HAVE_CMINPACK
int CminpackAdapter(void* p, int m, int, const double* x, double* fvec, int) {
  const LmCase* c = static_cast<const LmCase*>(p);
  int info = 0;
  c->evaluate(x, m, c->data, fvec, &info);
  return 0;
}

void LmCminpack(benchmark::State& state, LmCase c) {
  const int n = c.n, m = c.m;
  std::vector<double> x, fvec(m), diag(n), fjac(static_cast<size_t>(m) * n), qtf(n), wa1(n), wa2(n), wa3(n),
      wa4(m);
  std::vector<int> ipvt(n);
  int nfev = 0, info = 0;
  for (auto _ : state) {
    x = c.start;
    info = lmdif(CminpackAdapter, &c, m, n, x.data(), fvec.data(), LM_USERTOL, LM_USERTOL, LM_USERTOL,
                 100 * (n + 1), LM_USERTOL, diag.data(), 1, 100.0, 0, &nfev, fjac.data(), m, ipvt.data(),
                 qtf.data(), wa1.data(), wa2.data(), wa3.data(), wa4.data());
    benchmark::DoNotOptimize(x.data());
  }
  double ss = 0.0;
  for (double v : fvec) ss += v * v;
  state.counters["nfev"] = nfev;
  state.counters["info"] = info;
  state.counters["fnorm"] = std::sqrt(ss);
}
#endif

void RegisterAll() {
  const int svdShapes[][2] = {{3, 4}, {3, 3}, {4, 4}, {9, 9}, {40, 9}, {2000, 9}};
  for (const auto& s : svdShapes) {
    const std::string stem = "svdcmp/" + std::to_string(s[0]) + "x" + std::to_string(s[1]);
    benchmark::RegisterBenchmark((stem + "/ours").c_str(), SvdOurs, s[0], s[1]);
#ifdef ZELTRIM_HAVE_LAPACKE
    benchmark::RegisterBenchmark((stem + "/lapack").c_str(), SvdLapack, s[0], s[1]);
#endif
  }

  const int lsShapes[][2] = {{3, 20}, {8, 40}, {11, 200}, {11, 2000}};  // unknowns, equations
  for (const auto& s : lsShapes) {
    const std::string stem = "CLSCholeski/" + std::to_string(s[1]) + "x" + std::to_string(s[0]);
    benchmark::RegisterBenchmark((stem + "/ours").c_str(), CholeskiOurs, s[0], s[1]);
#ifdef ZELTRIM_HAVE_LAPACKE
    benchmark::RegisterBenchmark((stem + "/lapack").c_str(), CholeskiLapack, s[0], s[1]);
#endif
  }

  static HomographyData h100 = MakeHomography(100);
  static HomographyData h1000 = MakeHomography(1000);
  std::vector<std::pair<std::string, LmCase>> cases = {
      {"homography/100", {9, 200, h100.start, HomographyResiduals, &h100}},
      {"homography/1000", {9, 2000, h1000.start, HomographyResiduals, &h1000}},
  };
  for (const minpack_problems::Problem& p : minpack_problems::All()) {
    const std::string name = p.name;
    if (name == "Osborne1" || name == "KowalikOsborne" || name == "Bard")
      cases.push_back({name, {p.n, p.m, p.start, p.evaluate, nullptr}});
  }
  for (const auto& [name, c] : cases) {
    benchmark::RegisterBenchmark(("lmmin/" + name + "/ours").c_str(), LmOurs, c);
#ifdef ZELTRIM_HAVE_CMINPACK
    benchmark::RegisterBenchmark(("lmmin/" + name + "/cminpack").c_str(), LmCminpack, c);
#endif
  }
}

}  // namespace

int main(int argc, char** argv) {
  RegisterAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter({"lapack", "cminpack"});
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
