#include "numeric/MatrixLevenbergMarquardt.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <new>

namespace {

inline double Min(double a, double b) { return a < b ? a : b; }
inline double Max(double a, double b) { return a > b ? a : b; }

// Difference step when epsfcn is at or below the machine resolution: sqrt(LM_MACHEP).
const double kDefaultStep = 1.4901161193847656e-08;

// Calls the evaluation function with *info cleared first.
inline void Evaluate(lm_evaluate_ftype evaluate, const double* x, int m, const void* data,
                     double* fvec, int* info) {
  *info = 0;
  evaluate(x, m, data, fvec, info);
}

}  // namespace

void CMatrixLevenbergMarquardt::lmmin(int n_par, double* par, int m_dat, const void* data,
                                      lm_evaluate_ftype evaluate, lm_status_struct* status) {
  if (!status) return;
  if (!par || !evaluate) {
    status->info = LM_INFO_IMPROPER_INPUT;
    return;
  }
  // Negative counts allocate nothing here; lm_lmdif refuses them with code 10.
  const int n = n_par > 0 ? n_par : 0;
  const int m = m_dat > 0 ? m_dat : 0;
  // The Jacobian size is an int; a product that does not fit counts as a failed
  // allocation rather than a short buffer.
  const int64_t jacobian = static_cast<int64_t>(n) * m;

  // Value-initialised so that a refused run reads a defined residual array.
  double* fvec = new (std::nothrow) double[m]();
  double* diag = fvec ? new (std::nothrow) double[n]() : nullptr;
  double* qtf = diag ? new (std::nothrow) double[n] : nullptr;
  double* fjac = (qtf && jacobian <= INT32_MAX)
                     ? new (std::nothrow) double[static_cast<size_t>(jacobian)]
                     : nullptr;
  double* wa1 = fjac ? new (std::nothrow) double[n] : nullptr;
  double* wa2 = wa1 ? new (std::nothrow) double[n] : nullptr;
  double* wa3 = wa2 ? new (std::nothrow) double[n] : nullptr;
  double* wa4 = wa3 ? new (std::nothrow) double[m]() : nullptr;  // a residual a model leaves unwritten reads 0
  int* ipvt = wa4 ? new (std::nothrow) int[n] : nullptr;

  if (ipvt) {
    if (!scale_diag)
      for (int j = 0; j < n; ++j) diag[j] = 1.0;

    // (n + 1) * maxcall, held to the int range.
    int64_t budget = (static_cast<int64_t>(n_par) + 1) * maxcall;
    if (budget > INT32_MAX) budget = INT32_MAX;
    if (budget < INT32_MIN) budget = INT32_MIN;
    status->info = 0;
    lm_lmdif(m_dat, n_par, par, fvec, ftol, xtol, gtol, static_cast<int>(budget), epsilon, diag,
             scale_diag ? 1 : 2, stepbound, &status->info, &status->nfev, fjac, ipvt, qtf, wa1,
             wa2, wa3, wa4, evaluate, printflags, data);

    if (printflags) lm_printout_std(n_par, par, m_dat, data, fvec, printflags, -1, 0, status->nfev);
    status->fnorm = lm_enorm(m_dat, fvec);
    if (status->info < 0) status->info = LM_INFO_USER_STOP;
  } else {
    status->info = LM_INFO_NO_MEMORY;
  }

  delete[] fvec;
  delete[] diag;
  delete[] qtf;
  delete[] fjac;
  delete[] wa1;
  delete[] wa2;
  delete[] wa3;
  delete[] wa4;
  delete[] ipvt;
}

void CMatrixLevenbergMarquardt::lm_lmdif(int m, int n, double* x, double* fvec, double ftol,
                                         double xtol, double gtol, int maxfev, double epsfcn,
                                         double* diag, int mode, double factor, int* info,
                                         int* nfev, double* fjac, int* ipvt, double* qtf,
                                         double* wa1, double* wa2, double* wa3, double* wa4,
                                         lm_evaluate_ftype evaluate, int printflags,
                                         const void* data) {
  static const double p1 = 0.1;
  static const double p0001 = 1.0e-4;

  double par = 0.0;  // damping parameter, kept across outer iterations
  int iter = 0;      // successful steps
  double delta = 0.0;
  double xnorm = 0.0;

  *nfev = 0;
  const double eps = epsfcn > LM_MACHEP ? std::sqrt(epsfcn) : kDefaultStep;

  // Improper input: code 10 and no evaluation.
  if (n <= 0 || m < n || ftol < 0.0 || xtol < 0.0 || gtol < 0.0 || maxfev <= 0 ||
      factor <= 0.0) {
    *info = LM_INFO_IMPROPER_INPUT;
    return;
  }
  if (mode == 2) {
    for (int j = 0; j < n; ++j) {
      if (diag[j] <= 0.0) {
        *info = LM_INFO_IMPROPER_INPUT;
        return;
      }
    }
  }

  Evaluate(evaluate, x, m, data, fvec, info);
  ++*nfev;
  if (printflags) lm_printout_std(n, x, m, data, fvec, printflags, 0, 0, *nfev);
  if (*info < 0) return;
  double fnorm = lm_enorm(m, fvec);
  if (fnorm <= LM_DWARF) {
    *info = LM_INFO_EXACT;
    return;
  }

  for (;;) {  // outer loop: one Jacobian per pass
    for (int j = 0; j < n; ++j) {
      const double temp = x[j];
      const double step = Max(eps * eps, eps * std::fabs(temp));
      x[j] = temp + step;
      Evaluate(evaluate, x, m, data, wa4, info);
      ++*nfev;
      if (printflags) lm_printout_std(n, x, m, data, wa4, printflags, 1, iter, *nfev);
      if (*info < 0) {
        x[j] = temp;  // leave the last accepted parameters behind
        return;
      }
      double* column = fjac + static_cast<size_t>(j) * m;
      for (int i = 0; i < m; ++i) column[i] = (wa4[i] - fvec[i]) / step;
      x[j] = temp;
    }

    lm_qrfac(m, n, fjac, 1, ipvt, wa1, wa2, wa3);

    if (iter == 0) {
      if (mode != 2) {
        for (int j = 0; j < n; ++j) {
          diag[j] = wa2[j];
          if (wa2[j] == 0.0) diag[j] = 1.0;
        }
      }
      for (int j = 0; j < n; ++j) wa3[j] = diag[j] * x[j];
      xnorm = lm_enorm(n, wa3);
      delta = factor * xnorm;
      if (delta == 0.0) delta = factor;
    } else if (mode != 2) {
      for (int j = 0; j < n; ++j) diag[j] = Max(diag[j], wa2[j]);
    }

    // Q^T fvec into qtf; R's diagonal back into fjac.
    for (int i = 0; i < m; ++i) wa4[i] = fvec[i];
    for (int j = 0; j < n; ++j) {
      double* column = fjac + static_cast<size_t>(j) * m;
      if (column[j] != 0.0) {
        double sum = 0.0;
        for (int i = j; i < m; ++i) sum += column[i] * wa4[i];
        const double temp = -sum / column[j];
        for (int i = j; i < m; ++i) wa4[i] += column[i] * temp;
      }
      column[j] = wa1[j];
      qtf[j] = wa4[j];
    }

    // Scaled gradient measure.
    double gnorm = 0.0;
    for (int j = 0; j < n; ++j) {
      const double norm = wa2[ipvt[j]];
      if (norm == 0.0) continue;
      const double* column = fjac + static_cast<size_t>(j) * m;
      double sum = 0.0;
      for (int i = 0; i <= j; ++i) sum += column[i] * qtf[i];
      gnorm = Max(gnorm, std::fabs(sum / norm / fnorm));
    }
    if (gnorm <= gtol) {
      *info = LM_INFO_GTOL;
      return;
    }

    double ratio = 0.0;
    do {  // inner loop: shrink the trust region until a step is taken
      lm_lmpar(n, fjac, m, ipvt, diag, qtf, delta, &par, wa1, wa2, wa4, wa3);
      for (int j = 0; j < n; ++j) wa2[j] = x[j] - wa1[j];
      const double pnorm = lm_enorm(n, wa3);
      if (*nfev <= n + 1) delta = Min(delta, pnorm);  // first step only

      Evaluate(evaluate, wa2, m, data, wa4, info);
      ++*nfev;
      if (printflags) lm_printout_std(n, wa2, m, data, wa4, printflags, 2, iter, *nfev);
      if (*info < 0) return;
      const double fnorm1 = lm_enorm(m, wa4);

      const double actred = (p1 * fnorm1 < fnorm) ? 1.0 - (fnorm1 / fnorm) * (fnorm1 / fnorm) : -1.0;

      // Predicted reduction from R times the permuted step.
      for (int j = 0; j < n; ++j) {
        wa3[j] = 0.0;
        const double temp = wa1[ipvt[j]];
        const double* column = fjac + static_cast<size_t>(j) * m;
        for (int i = 0; i <= j; ++i) wa3[i] -= column[i] * temp;
      }
      const double temp1 = lm_enorm(n, wa3) / fnorm;
      const double temp2 = std::sqrt(par) * pnorm / fnorm;
      const double prered = temp1 * temp1 + 2.0 * temp2 * temp2;
      const double dirder = -(temp1 * temp1 + temp2 * temp2);
      ratio = prered != 0.0 ? actred / prered : 0.0;

      if (ratio <= 0.25) {
        double temp = actred >= 0.0 ? 0.5 : 0.5 * dirder / (dirder + 0.5 * actred);
        if (p1 * fnorm1 >= fnorm || temp < p1) temp = p1;
        delta = temp * Min(delta, pnorm / p1);
        par /= temp;
      } else if (par == 0.0 || ratio >= 0.75) {
        delta = 2.0 * pnorm;
        par *= 0.5;
      }

      if (ratio >= p0001) {
        for (int j = 0; j < n; ++j) {
          x[j] = wa2[j];
          wa2[j] = diag[j] * x[j];
        }
        for (int i = 0; i < m; ++i) fvec[i] = wa4[i];
        xnorm = lm_enorm(n, wa2);
        fnorm = fnorm1;
        ++iter;
      }

      if (fnorm <= LM_DWARF) {
        *info = LM_INFO_EXACT;
        return;
      }

      *info = 0;
      if (std::fabs(actred) <= ftol && prered <= ftol && 0.5 * ratio <= 1.0) *info = 1;
      if (delta <= xtol * xnorm) *info += 2;
      if (*info != 0) return;

      // Later tests override earlier ones.
      if (*nfev >= maxfev) *info = LM_INFO_MAXFEV;
      if (std::fabs(actred) <= LM_MACHEP && prered <= LM_MACHEP && 0.5 * ratio <= 1.0)
        *info = LM_INFO_FTOL_TOO_SMALL;
      if (delta <= LM_MACHEP * xnorm) *info = LM_INFO_XTOL_TOO_SMALL;
      if (gnorm <= LM_MACHEP) *info = LM_INFO_GTOL_TOO_SMALL;
      if (*info != 0) return;
    } while (ratio < p0001);
  }
}

void CMatrixLevenbergMarquardt::lm_lmpar(int n, double* r, int ldr, int* ipvt, double* diag,
                                         double* qtb, double delta, double* par, double* x,
                                         double* sdiag, double* aux, double* xdi) {
  static const double p1 = 0.1;
  const size_t ld = static_cast<size_t>(ldr);
  auto R = [r, ld](int i, int j) -> double& { return r[static_cast<size_t>(j) * ld + i]; };

  // Gauss-Newton direction; a rank-deficient R gives a least-squares solution.
  int nsing = n;
  for (int j = 0; j < n; ++j) {
    aux[j] = qtb[j];
    if (R(j, j) == 0.0 && nsing == n) nsing = j;
    if (nsing < n) aux[j] = 0.0;
  }
  for (int j = nsing - 1; j >= 0; --j) {
    aux[j] /= R(j, j);
    const double temp = aux[j];
    for (int i = 0; i < j; ++i) aux[i] -= R(i, j) * temp;
  }
  for (int j = 0; j < n; ++j) x[ipvt[j]] = aux[j];

  for (int j = 0; j < n; ++j) xdi[j] = diag[j] * x[j];
  double dxnorm = lm_enorm(n, xdi);
  double fp = dxnorm - delta;
  if (fp <= p1 * delta) {
    *par = 0.0;
    return;
  }

  // Lower bound parl of the Newton iteration, when R has full rank.
  double parl = 0.0;
  if (nsing >= n) {
    for (int j = 0; j < n; ++j) aux[j] = diag[ipvt[j]] * xdi[ipvt[j]] / dxnorm;
    for (int j = 0; j < n; ++j) {
      double sum = 0.0;
      for (int i = 0; i < j; ++i) sum += R(i, j) * aux[i];
      aux[j] = (aux[j] - sum) / R(j, j);
    }
    const double temp = lm_enorm(n, aux);
    parl = fp / delta / temp / temp;
  }

  // Upper bound paru.
  for (int j = 0; j < n; ++j) {
    double sum = 0.0;
    for (int i = 0; i <= j; ++i) sum += R(i, j) * qtb[i];
    aux[j] = sum / diag[ipvt[j]];
  }
  const double gnorm = lm_enorm(n, aux);
  double paru = gnorm / delta;
  if (paru == 0.0) paru = LM_DWARF / Min(delta, p1);

  *par = Max(*par, parl);
  *par = Min(*par, paru);
  if (*par == 0.0) *par = gnorm / dxnorm;

  for (int iter = 0;; ++iter) {
    if (*par == 0.0) *par = Max(LM_DWARF, 0.001 * paru);
    const double sq = std::sqrt(*par);
    for (int j = 0; j < n; ++j) aux[j] = sq * diag[j];

    // QR solve of [R; sqrt(par) D] x = [Q^T b; 0] by Givens rotations. The strict
    // lower triangle of r receives the transposed factor S, sdiag its diagonal.
    for (int j = 0; j < n; ++j) {
      for (int i = j; i < n; ++i) R(i, j) = R(j, i);
      x[j] = R(j, j);
      xdi[j] = qtb[j];
    }
    for (int j = 0; j < n; ++j) {
      const double dj = aux[ipvt[j]];
      if (dj != 0.0) {
        for (int k = j; k < n; ++k) sdiag[k] = 0.0;
        sdiag[j] = dj;
        double qtbpj = 0.0;
        for (int k = j; k < n; ++k) {
          if (sdiag[k] == 0.0) continue;
          double& rkk = R(k, k);
          double sin, cos;
          if (std::fabs(sdiag[k]) > std::fabs(rkk)) {
            const double cotan = rkk / sdiag[k];
            sin = 1.0 / std::sqrt(1.0 + cotan * cotan);
            cos = sin * cotan;
          } else {
            const double tan = sdiag[k] / rkk;
            cos = 1.0 / std::sqrt(1.0 + tan * tan);
            sin = cos * tan;
          }
          rkk = cos * rkk + sin * sdiag[k];
          const double temp = cos * xdi[k] + sin * qtbpj;
          qtbpj = -sin * xdi[k] + cos * qtbpj;
          xdi[k] = temp;
          for (int i = k + 1; i < n; ++i) {
            double& rik = R(i, k);
            const double t = cos * rik + sin * sdiag[i];
            sdiag[i] = -sin * rik + cos * sdiag[i];
            rik = t;
          }
        }
      }
      sdiag[j] = R(j, j);
      R(j, j) = x[j];
    }
    int nsolve = n;
    for (int j = 0; j < n; ++j) {
      if (sdiag[j] == 0.0 && nsolve == n) nsolve = j;
      if (nsolve < n) xdi[j] = 0.0;
    }
    for (int j = nsolve - 1; j >= 0; --j) {
      double sum = 0.0;
      for (int i = j + 1; i < nsolve; ++i) sum += R(i, j) * xdi[i];
      xdi[j] = (xdi[j] - sum) / sdiag[j];
    }
    for (int j = 0; j < n; ++j) x[ipvt[j]] = xdi[j];

    for (int j = 0; j < n; ++j) xdi[j] = diag[j] * x[j];
    dxnorm = lm_enorm(n, xdi);
    const double fp_old = fp;
    fp = dxnorm - delta;

    if (std::fabs(fp) <= p1 * delta || (parl == 0.0 && fp <= fp_old && fp_old < 0.0) ||
        iter == 10)
      break;

    // Newton correction.
    for (int j = 0; j < n; ++j) aux[j] = diag[ipvt[j]] * xdi[ipvt[j]] / dxnorm;
    for (int j = 0; j < n; ++j) {
      aux[j] /= sdiag[j];
      const double temp = aux[j];
      for (int i = j + 1; i < n; ++i) aux[i] -= R(i, j) * temp;
    }
    const double temp = lm_enorm(n, aux);
    const double parc = fp / delta / temp / temp;

    if (fp > 0.0)
      parl = Max(parl, *par);
    else if (fp < 0.0)
      paru = Min(paru, *par);
    *par = Max(parl, *par + parc);
  }
}

void CMatrixLevenbergMarquardt::lm_qrfac(int m, int n, double* a, int pivot, int* ipvt,
                                         double* rdiag, double* acnorm, double* wa) {
  const size_t M = static_cast<size_t>(m > 0 ? m : 0);
  for (int j = 0; j < n; ++j) {
    acnorm[j] = lm_enorm(m, a + j * M);
    rdiag[j] = acnorm[j];
    wa[j] = rdiag[j];
    if (pivot) ipvt[j] = j;
  }

  const int minmn = m < n ? m : n;
  for (int j = 0; j < minmn; ++j) {
    double* aj = a + j * M;
    if (pivot) {
      int kmax = j;
      for (int k = j + 1; k < n; ++k)
        if (rdiag[k] > rdiag[kmax]) kmax = k;
      if (kmax != j) {
        double* ak = a + kmax * M;
        for (size_t i = 0; i < M; ++i) {
          const double t = aj[i];
          aj[i] = ak[i];
          ak[i] = t;
        }
        rdiag[kmax] = rdiag[j];
        wa[kmax] = wa[j];
        const int t = ipvt[j];
        ipvt[j] = ipvt[kmax];
        ipvt[kmax] = t;
      }
    }

    // Householder reflection that zeroes column j below the diagonal.
    double ajnorm = lm_enorm(m - j, aj + j);
    if (ajnorm == 0.0) {
      rdiag[j] = 0.0;
      continue;
    }
    if (aj[j] < 0.0) ajnorm = -ajnorm;
    for (int i = j; i < m; ++i) aj[i] /= ajnorm;
    aj[j] += 1.0;

    for (int k = j + 1; k < n; ++k) {
      double* ak = a + k * M;
      double sum = 0.0;
      for (int i = j; i < m; ++i) sum += aj[i] * ak[i];
      const double temp = sum / aj[j];
      for (int i = j; i < m; ++i) ak[i] -= temp * aj[i];
      if (pivot && rdiag[k] != 0.0) {
        double t = ak[j] / rdiag[k];
        rdiag[k] *= std::sqrt(Max(0.0, 1.0 - t * t));
        t = rdiag[k] / wa[k];
        if (0.05 * t * t <= LM_MACHEP) {
          rdiag[k] = lm_enorm(m - j - 1, ak + j + 1);
          wa[k] = rdiag[k];
        }
      }
    }
    rdiag[j] = -ajnorm;
  }
}

double CMatrixLevenbergMarquardt::lm_enorm(int n, const double* x) {
  if (n < 1 || !x) return 0.0;
  double s1 = 0.0, s2 = 0.0, s3 = 0.0, x1max = 0.0, x3max = 0.0;
  const double agiant = LM_SQRT_GIANT / n;

  for (int i = 0; i < n; ++i) {
    const double xabs = std::fabs(x[i]);
    if (xabs > LM_SQRT_DWARF && xabs < agiant) {
      s2 += xabs * xabs;
    } else if (xabs > LM_SQRT_DWARF) {
      // large components, scaled by the running maximum
      if (xabs > x1max) {
        const double temp = x1max / xabs;
        s1 = 1.0 + s1 * (temp * temp);  // the square first, then the scaling
        x1max = xabs;
      } else {
        const double temp = xabs / x1max;
        s1 += temp * temp;
      }
    } else {
      // small components (and NaN)
      if (xabs > x3max) {
        const double temp = x3max / xabs;
        s3 = 1.0 + s3 * (temp * temp);
        x3max = xabs;
      } else if (xabs != 0.0) {
        const double temp = xabs / x3max;
        s3 += temp * temp;
      }
    }
  }

  if (s1 != 0.0) return x1max * std::sqrt(s1 + s2 / x1max / x1max);
  if (s2 != 0.0) {
    if (s2 >= x3max) return std::sqrt(s2 * (1.0 + x3max / s2 * x3max * s3));
    return std::sqrt(x3max * (s2 / x3max + x3max * s3));
  }
  return x3max * std::sqrt(s3);
}

void CMatrixLevenbergMarquardt::lm_printout_std(int n_par, const double* par, int m_dat,
                                                const void* /*data*/, const double* fvec,
                                                int printflags, int iflag, int iter, int nfev) {
  if (!printflags) return;

  if (printflags & 1) {
    if (iflag == 2)
      std::printf("trying step in gradient direction  ");
    else if (iflag == 1)
      std::printf("determining gradient (iteration %2d)", iter);
    else if (iflag == 0)
      std::printf("starting minimization              ");
    else if (iflag == -1)
      std::printf("terminated after %3d evaluations   ", nfev);
  }
  if (printflags & 2) {
    std::printf("  par: ");
    for (int i = 0; i < n_par; ++i) std::printf(" %18.11g", par[i]);
    std::printf(" => norm: %18.11g", lm_enorm(m_dat, fvec));
  }
  if (printflags & 3) std::printf("\n");
  if ((printflags & 8) || ((printflags & 4) && iflag == -1)) {
    std::printf("  residuals:\n");
    for (int i = 0; i < m_dat; ++i) std::printf("    fvec[%2d]=%12g\n", i, fvec[i]);
  }
}
