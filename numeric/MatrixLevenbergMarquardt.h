// Levenberg-Marquardt minimisation of a sum of squares with a forward-difference
// Jacobian: damped Gauss-Newton steps in a trust region, QR with column pivoting.
//
// The object is the control record. Every caller of the module uses the values the
// constructor sets; a run never changes them. All matrices here are stored by columns:
// element (i, j) of an m-row matrix at j * m + i; ipvt holds zero-based column numbers.
#pragma once

// Machine constants of IEEE 754 double precision.
constexpr double LM_MACHEP = 2.220446049250313e-16;        // 2^-52
constexpr double LM_DWARF = 2.2250738585072014e-308;       // smallest normal number
constexpr double LM_SQRT_DWARF = 1.4916681462400413e-154;  // 2^-511
constexpr double LM_SQRT_GIANT = 1.3407807929942596e154;   // sqrt of the largest number
constexpr double LM_USERTOL = 30 * LM_MACHEP;               // 6.661338147750939e-15

// Filled by a run; callers zero it first.
struct lm_status_struct {
  double fnorm;  // norm of the residuals left in the residual array
  int nfev;      // evaluations made
  int info;      // end code, see LMInfo
};

// End codes in lm_status_struct::info.
enum LMInfo {
  LM_INFO_EXACT = 0,             // residual norm at or below LM_DWARF
  LM_INFO_FTOL = 1,              // relative reduction of the sum of squares <= ftol
  LM_INFO_XTOL = 2,              // trust region <= xtol * |x|
  LM_INFO_FTOL_XTOL = 3,         // both
  LM_INFO_GTOL = 4,              // residual orthogonal to the Jacobian columns
  LM_INFO_MAXFEV = 5,            // evaluation budget used up
  LM_INFO_FTOL_TOO_SMALL = 6,
  LM_INFO_XTOL_TOO_SMALL = 7,
  LM_INFO_GTOL_TOO_SMALL = 8,
  LM_INFO_NO_MEMORY = 9,
  LM_INFO_IMPROPER_INPUT = 10,   // the evaluation function never ran
  LM_INFO_USER_STOP = 11,        // the evaluation function set *info < 0
};

// Writes m_dat residuals at `par` into fvec. `par` may be the caller's array (first
// evaluation and differencing, one element changed for the moment) or a work array:
// read it, never keep it. *info arrives as 0; set it negative to stop the run.
typedef void (*lm_evaluate_ftype)(const double* par, int m_dat, const void* data, double* fvec,
                                  int* info);

class CMatrixLevenbergMarquardt {
 public:
  double ftol = LM_USERTOL;     // stop: relative reduction of the sum of squares
  double xtol = LM_USERTOL;     // stop: relative step size
  double gtol = LM_USERTOL;     // stop: cosine between residual and Jacobian columns
  double epsilon = LM_USERTOL;  // relative error of the residuals; sets the difference step
  double stepbound = 100.0;     // factor of the first trust-region radius
  int maxcall = 100;            // budget: maxcall * (n + 1) evaluations
  int scale_diag = 1;           // scale parameters by the Jacobian column norms
  int printflags = 0;           // progress printing bits (lm_printout_std)

  // The entry point: `par` holds the first guess and receives the best parameters.
  void lmmin(int n_par, double* par, int m_dat, const void* data, lm_evaluate_ftype evaluate,
             lm_status_struct* status);

  // The iteration. Allocates nothing; fjac is m x n, wa4 and fvec m, the rest n.
  static void lm_lmdif(int m, int n, double* x, double* fvec, double ftol, double xtol,
                       double gtol, int maxfev, double epsfcn, double* diag, int mode,
                       double factor, int* info, int* nfev, double* fjac, int* ipvt, double* qtf,
                       double* wa1, double* wa2, double* wa3, double* wa4,
                       lm_evaluate_ftype evaluate, int printflags, const void* data);

  // Damping parameter `par` and step x for the trust region `delta`, given the pivoted
  // QR factor r (upper triangle, column stride ldr) and Q^T b. Solves the damped system
  // by Givens rotations; on return the strict lower triangle of r and sdiag hold its
  // triangular factor, xdi holds diag * x.
  static void lm_lmpar(int n, double* r, int ldr, int* ipvt, double* diag, double* qtb,
                       double delta, double* par, double* x, double* sdiag, double* aux,
                       double* xdi);

  // Householder QR of the m x n matrix a, with column pivoting when `pivot` is set.
  // a receives the Householder vectors below and on the diagonal and R above it;
  // rdiag the diagonal of R, acnorm the column norms of the input.
  static void lm_qrfac(int m, int n, double* a, int pivot, int* ipvt, double* rdiag,
                       double* acnorm, double* wa);

  // Euclidean norm without destructive overflow or underflow. n < 1 gives 0.
  static double lm_enorm(int n, const double* x);

  // Progress on standard output by bits: 1 the stage, 2 parameters and norm,
  // 8 (or 4 at the end, iflag -1) the residuals. iflag: 0 start, 1 differencing,
  // 2 trial step, -1 end.
  static void lm_printout_std(int n_par, const double* par, int m_dat, const void* data,
                              const double* fvec, int printflags, int iflag, int iter, int nfev);
};
