#include "numeric/MatrixLevenbergMarquardt.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "tests/unit/numeric/MinpackProblems.h"

#ifdef ZELTRIM_HAVE_CMINPACK
#include <cminpack.h>
#endif

namespace {

using minpack_problems::Problem;

// The published minima carry six significant digits.
const double kPublishedRelTol = 1e-5;
// A sum of squares this small counts as the exact minimum 0.
const double kZeroSumOfSquares = 1e-20;
// Agreement of our final sum of squares with the independent implementation.
const double kSecondOpinionRelTol = 1e-6;

bool MatchesMinimum(double ss, double published) {
  if (published == 0.0) return ss < kZeroSumOfSquares;
  return std::fabs(ss - published) <= kPublishedRelTol * published;
}

struct LmRun {
  std::vector<double> x;
  lm_status_struct status;
};

LmRun Minimise(const Problem& p) {
  LmRun run{p.start, {0.0, 0, 0}};
  CMatrixLevenbergMarquardt lm;
  lm.maxcall = p.maxcall;
  lm.lmmin(p.n, run.x.data(), p.m, nullptr, p.evaluate, &run.status);
  return run;
}

TEST(LevenbergMarquardt, ReachesThePublishedMinimaOfStandardProblems) {
  for (const Problem& p : minpack_problems::All()) {
    SCOPED_TRACE(p.name);
    LmRun run = Minimise(p);
    const double ss = run.status.fnorm * run.status.fnorm;
    EXPECT_TRUE(MatchesMinimum(ss, p.minimum) || (p.alternative >= 0 && MatchesMinimum(ss, p.alternative)))
        << "sum of squares " << ss << " info " << run.status.info;
    // A regular stop: a convergence test (0 to 4) or the tolerances being below what
    // double precision resolves (6 to 8); never the budget on these problems.
    EXPECT_TRUE(run.status.info <= 4 || (run.status.info >= 6 && run.status.info <= 8)) << run.status.info;
    EXPECT_LT(run.status.nfev, p.maxcall * (p.n + 1));
    // fnorm is the norm of the residuals at the parameters handed back.
    std::vector<double> f(p.m);
    int info = 0;
    p.evaluate(run.x.data(), p.m, nullptr, f.data(), &info);
    double s = 0.0;
    for (double v : f) s += v * v;
    EXPECT_NEAR(std::sqrt(s), run.status.fnorm, 1e-12 * (1.0 + run.status.fnorm));
  }
}

#ifdef ZELTRIM_HAVE_CMINPACK
int MinpackAdapter(void* p, int m, int, const double* x, double* fvec, int) {
  int info = 0;
  static_cast<const Problem*>(p)->evaluate(x, m, nullptr, fvec, &info);
  return 0;
}

TEST(LevenbergMarquardt, AgreesWithIndependentLmdif) {
  for (const Problem& p : minpack_problems::All()) {
    SCOPED_TRACE(p.name);
    LmRun run = Minimise(p);
    std::vector<double> x = p.start, fvec(p.m), diag(p.n), fjac(p.m * p.n), qtf(p.n), wa1(p.n),
                        wa2(p.n), wa3(p.n), wa4(p.m);
    std::vector<int> ipvt(p.n);
    int nfev = 0;
    Problem copy = p;
    lmdif(MinpackAdapter, &copy, p.m, p.n, x.data(), fvec.data(), LM_USERTOL, LM_USERTOL, LM_USERTOL,
          p.maxcall * (p.n + 1), LM_USERTOL, diag.data(), 1, 100.0, 0, &nfev, fjac.data(), p.m, ipvt.data(),
          qtf.data(), wa1.data(), wa2.data(), wa3.data(), wa4.data());
    double ref = 0.0;
    for (double v : fvec) ref += v * v;
    const double ours = run.status.fnorm * run.status.fnorm;
    if (ref < kZeroSumOfSquares)
      EXPECT_LT(ours, kZeroSumOfSquares);
    else
      EXPECT_NEAR(ours, ref, kSecondOpinionRelTol * ref);
  }
}
#endif

// Evaluation function state for the contract tests below.
struct Probe {
  int calls = 0;
  int stopAt = -1;  // the call that asks to stop
  std::vector<std::vector<double>> seen;
};

void LineResiduals(const double* x, int m, const void* data, double* f, int* info) {
  Probe* probe = const_cast<Probe*>(static_cast<const Probe*>(data));
  ++probe->calls;
  probe->seen.emplace_back(x, x + 2);
  // y = x0 + x1 t through (0, 1), (1, 3), (2, 4): not exact, minimum at (7/6, 3/2).
  const double y[3] = {1.0, 3.0, 4.0};
  for (int i = 0; i < m; ++i) f[i] = x[0] + x[1] * i - y[i];
  if (probe->calls == probe->stopAt) *info = -1;
}

TEST(LevenbergMarquardt, EvaluationFunctionStopsTheRun) {
  for (int k : {1, 2, 3, 4, 7}) {
    SCOPED_TRACE(k);
    Probe probe;
    probe.stopAt = k;
    double x[2] = {0.5, 0.25};
    lm_status_struct st{0.0, 0, 0};
    CMatrixLevenbergMarquardt().lmmin(2, x, 3, &probe, LineResiduals, &st);
    EXPECT_EQ(st.info, LM_INFO_USER_STOP);
    EXPECT_EQ(st.nfev, k);
    EXPECT_EQ(probe.calls, k);
    if (k <= 3) {  // stopped before any step was taken: the first guess stays
      EXPECT_EQ(x[0], 0.5);
      EXPECT_EQ(x[1], 0.25);
    }
  }
}

TEST(LevenbergMarquardt, ImproperInputNeverEvaluates) {
  auto improper = [](CMatrixLevenbergMarquardt lm, int n, double* x, int m) {
    Probe probe;
    lm_status_struct st{0.0, 0, 0};
    lm.lmmin(n, x, m, &probe, LineResiduals, &st);
    EXPECT_EQ(probe.calls + st.nfev, 0);
    return st.info;
  };
  CMatrixLevenbergMarquardt fine, negative, noBudget, noStep;
  negative.ftol = -1.0;
  noBudget.maxcall = 0;
  noStep.stepbound = 0.0;
  double x[2] = {1.0, 2.0};
  EXPECT_EQ(improper(fine, 2, x, 1), LM_INFO_IMPROPER_INPUT);  // fewer residuals than parameters
  EXPECT_EQ(improper(fine, 0, x, 3), LM_INFO_IMPROPER_INPUT);
  EXPECT_EQ(improper(fine, -2, x, -3), LM_INFO_IMPROPER_INPUT);
  EXPECT_EQ(improper(fine, 2, nullptr, 3), LM_INFO_IMPROPER_INPUT);
  for (const CMatrixLevenbergMarquardt& lm : {negative, noBudget, noStep})
    EXPECT_EQ(improper(lm, 2, x, 3), LM_INFO_IMPROPER_INPUT);
  EXPECT_EQ(x[0], 1.0);
  EXPECT_EQ(x[1], 2.0);
}

TEST(LevenbergMarquardt, ExactFitAtTheStartEndsAfterOneEvaluation) {
  Probe probe;
  double x[2] = {1.0, 2.0};
  auto zero = [](const double*, int m, const void* data, double* f, int*) {
    ++const_cast<Probe*>(static_cast<const Probe*>(data))->calls;
    for (int i = 0; i < m; ++i) f[i] = 0.0;
  };
  lm_status_struct st{0.0, 0, 0};
  CMatrixLevenbergMarquardt().lmmin(2, x, 3, &probe, zero, &st);
  EXPECT_EQ(st.info, LM_INFO_EXACT);
  EXPECT_EQ(st.nfev, 1);
  EXPECT_EQ(probe.calls, 1);
  EXPECT_EQ(st.fnorm, 0.0);
  EXPECT_EQ(x[0], 1.0);
  EXPECT_EQ(x[1], 2.0);
}

// exp(x) has no minimiser: every step improves by the same factor and no tolerance is
// ever met, so only the budget ends the run.
void Exponential(const double* x, int m, const void*, double* f, int*) {
  for (int i = 0; i < m; ++i) f[i] = std::exp(x[0]);
}

TEST(LevenbergMarquardt, EvaluationBudgetIsMaxcallTimesNPlusOne) {
  double x = 0.0;
  lm_status_struct st{0.0, 0, 0};
  CMatrixLevenbergMarquardt().lmmin(1, &x, 1, nullptr, Exponential, &st);
  EXPECT_EQ(st.info, LM_INFO_MAXFEV);
  // The budget is checked after each trial step, so it may be passed by up to n.
  EXPECT_GE(st.nfev, 200);
  EXPECT_LE(st.nfev, 201);
  EXPECT_LT(x, -50.0);

  // Budgets too small for every standard problem: a rejected trial step moves where the
  // checks fall, and on some runs one falls on the budget exactly, which ends the run.
  for (const Problem& p : minpack_problems::All())
    for (int maxcall : {1, 2, 3, 5}) {
      SCOPED_TRACE(testing::Message() << p.name << ", maxcall " << maxcall);
      CMatrixLevenbergMarquardt lm;
      lm.maxcall = maxcall;
      std::vector<double> start = p.start;
      lm_status_struct s{0.0, 0, 0};
      lm.lmmin(p.n, start.data(), p.m, nullptr, p.evaluate, &s);
      EXPECT_EQ(s.info, LM_INFO_MAXFEV);
      EXPECT_GE(s.nfev, maxcall * (p.n + 1));
      EXPECT_LE(s.nfev, maxcall * (p.n + 1) + p.n);
    }
}

struct StepRecorder {
  std::vector<double> steps;  // x[j] - x0[j] seen while differencing
};

void Recorder(const double* x, int m, const void* data, double* f, int*) {
  auto* rec = const_cast<StepRecorder*>(static_cast<const StepRecorder*>(data));
  rec->steps.push_back(x[0]);
  rec->steps.push_back(x[1]);
  f[0] = x[0] - 3.0;  // x1 has no effect at all
  f[1] = x[0] + 1.0;
  for (int i = 2; i < m; ++i) f[i] = 0.0;
}

TEST(LevenbergMarquardt, DifferenceStepAndParameterWithoutEffect) {
  // Through lm_lmdif directly, to see diag.
  const int m = 2, n = 2;
  double x[2] = {0.0, 2.0};
  double fvec[2], diag[2], fjac[4], qtf[2], wa1[2], wa2[2], wa3[2], wa4[2];
  int ipvt[2];
  int info = 0, nfev = 0;
  StepRecorder rec;
  CMatrixLevenbergMarquardt::lm_lmdif(m, n, x, fvec, LM_USERTOL, LM_USERTOL, LM_USERTOL, 300, LM_USERTOL,
                                      diag, 1, 100.0, &info, &nfev, fjac, ipvt, qtf, wa1, wa2, wa3, wa4,
                                      Recorder, 0, &rec);
  const double eps = std::sqrt(LM_USERTOL);
  ASSERT_GE(rec.steps.size(), 6u);
  // Call 2 perturbs x0 = 0 by eps^2, call 3 perturbs x1 = 2 by 2 eps.
  EXPECT_EQ(rec.steps[2], eps * eps);
  EXPECT_EQ(rec.steps[3], 2.0);
  EXPECT_EQ(rec.steps[4], 0.0);
  EXPECT_EQ(rec.steps[5], 2.0 + eps * 2.0);
  EXPECT_EQ(diag[1], 1.0);  // zero Jacobian column: scale 1
  EXPECT_EQ(x[1], 2.0);     // and the parameter stays where it was
  EXPECT_NEAR(x[0], 1.0, 1e-9);
}

TEST(LevenbergMarquardt, EnormAvoidsOverflowAndUnderflow) {
  const double big[3] = {3e200, 4e200, 0.0};
  EXPECT_NEAR(CMatrixLevenbergMarquardt::lm_enorm(3, big), 5e200, 1e186);
  const double small[2] = {3e-200, 4e-200};
  EXPECT_NEAR(CMatrixLevenbergMarquardt::lm_enorm(2, small), 5e-200, 1e-214);
  const double mixed[3] = {1e-170, 3.0, 4.0};
  EXPECT_EQ(CMatrixLevenbergMarquardt::lm_enorm(3, mixed), 5.0);
  const double giant[2] = {1e300, 1.0};
  EXPECT_EQ(CMatrixLevenbergMarquardt::lm_enorm(2, giant), 1e300);
  EXPECT_EQ(CMatrixLevenbergMarquardt::lm_enorm(0, big), 0.0);
  EXPECT_EQ(CMatrixLevenbergMarquardt::lm_enorm(-1, big), 0.0);
}

TEST(LevenbergMarquardt, EnormRescalesTheSumByTheSquareOfTheRatio) {
  // A new largest (or smallest-class) component rescales the running sum by the
  // square of the ratio of the old to the new maximum: s * (r * r), not (s * r) * r.
  // Ascending components take that path at every element. The expected norms are
  // those of cminpack's enorm, whose scaled sums are formed the same way; the two
  // groupings differ in the last bit on these vectors.
  const double large[3] = {1.2708509499854167e+154, 1.4496515903545634e+154,
                           2.5705426844142921e+154};
  EXPECT_EQ(CMatrixLevenbergMarquardt::lm_enorm(3, large), 3.2131357834508315e+154);
  const double tiny[3] = {1.4770128700695918e-160, 2.2625220534763259e-160,
                          2.8526633506151782e-160};
  EXPECT_EQ(CMatrixLevenbergMarquardt::lm_enorm(3, tiny), 3.9291552848877015e-160);
#ifdef ZELTRIM_HAVE_CMINPACK
  // Both classes agree bit for bit with the independent implementation on random
  // ascending vectors (all components in the same class for both programs).
  std::mt19937_64 random(20240611);
  std::uniform_real_distribution<double> growth(1.0, 2.0);
  for (int trial = 0; trial < 2000; ++trial) {
    double v[4];
    v[0] = (trial % 2 ? 1e154 : 1e-160) * growth(random);
    for (int i = 1; i < 4; ++i) v[i] = v[i - 1] * growth(random);
    ASSERT_EQ(CMatrixLevenbergMarquardt::lm_enorm(4, v), __cminpack_func__(enorm)(4, v))
        << "trial " << trial;
  }
#endif
}

TEST(LevenbergMarquardt, QrFactorReproducesThePivotedMatrix) {
  // A P = Q R: |R e_j| equals the norm of the pivoted column, and rdiag is ordered
  // by column pivoting on this well-conditioned example.
  const int m = 4, n = 3;
  double a[12] = {1, 2, 3, 4, /* col 1 */ 10, 0, 0, 1, /* col 2 */ 0, 1, 0, 0};
  double original[12];
  for (int i = 0; i < 12; ++i) original[i] = a[i];
  int ipvt[3];
  double rdiag[3], acnorm[3], wa[3];
  CMatrixLevenbergMarquardt::lm_qrfac(m, n, a, 1, ipvt, rdiag, acnorm, wa);
  EXPECT_EQ(ipvt[0], 1);  // the largest column first
  for (int j = 0; j < n; ++j) {
    double col = 0.0;
    for (int i = 0; i < m; ++i) col += original[j * m + i] * original[j * m + i];
    EXPECT_NEAR(acnorm[j], std::sqrt(col), 1e-12);
  }
  // Column j of R: a[i, j] above the diagonal, rdiag[j] on it.
  for (int j = 0; j < n; ++j) {
    double r = rdiag[j] * rdiag[j];
    for (int i = 0; i < j; ++i) r += a[j * m + i] * a[j * m + i];
    EXPECT_NEAR(std::sqrt(r), acnorm[ipvt[j]], 1e-12);
  }
}

}  // namespace
