// Joint refinement of a pinhole camera calibrated from views of a flat target: the
// intrinsics, a lens model and every view's pose are adjusted together to minimise the
// reprojection error over all points (Levenberg-Marquardt, Ceres Solver). A host calls it
// with what a closed-form calibration gave; nothing here touches the module.
//
// The camera: a model point (X, Y, 0) goes to the camera frame by X_cam = R X + t, to
// normalised coordinates x = X_cam / Z_cam, y = Y_cam / Z_cam, through the lens
//   r2 = x^2 + y^2,  radial = 1 + k1 r2 + k2 r2^2 + k3 r2^3
//   x_d = x radial + 2 p1 x y + p2 (r2 + 2 x^2)
//   y_d = y radial + p1 (r2 + 2 y^2) + 2 p2 x y
// and to pixels by u = fx x_d + skew y_d + cx, v = fy y_d + cy.
#pragma once

#include <array>
#include <string>
#include <vector>

namespace refine {

struct Point2d {
  double x = 0, y = 0;
};

// Which lens terms are refined; the others stay at 0.
enum class LensModel {
  kPinhole,  // none
  kRadial2,  // k1, k2
  kRadial3,  // k1, k2, k3
  kFull,     // k1, k2, p1, p2, k3
};

// "pinhole", "radial2", "radial3", "full"; false for any other name.
bool ParseLensModel(const std::string& name, LensModel* model);
const char* LensModelName(LensModel model);

struct Intrinsics {
  double fx = 0, fy = 0, cx = 0, cy = 0, skew = 0;
  double k1 = 0, k2 = 0, p1 = 0, p2 = 0, k3 = 0;
};

// Model to camera: X_cam = R X + t, R by rows.
struct Pose {
  std::array<double, 9> rotation{1, 0, 0, 0, 1, 0, 0, 0, 1};
  std::array<double, 3> translation{0, 0, 0};
};

// The pixel of model point (X, Y, 0) seen by `camera` from `pose`; false behind the camera
// (Z_cam not positive).
bool ProjectPoint(const Intrinsics& camera, const Pose& pose, double X, double Y, Point2d* pixel);

// Each view's pose from its homography (a normalised direct linear solve) and the
// intrinsic matrix of `camera` (its lens terms are ignored), as the closed-form
// calibration computes it: the rotation made orthonormal, the target in front of the
// camera. False, with a one-line *error, for a view whose points determine no homography.
bool PosesFromHomographies(const std::vector<Point2d>& model, const std::vector<std::vector<Point2d>>& views,
                           const Intrinsics& camera, std::vector<Pose>* poses, std::string* error);

struct RefinementInput {
  std::vector<Point2d> model;               // the target's points, Z = 0
  std::vector<std::vector<Point2d>> views;  // pixels, point i of a view matching model point i
  Intrinsics initial;                       // starting values; lens terms outside the model are set to 0
  std::vector<Pose> poses;                  // starting pose of each view
  LensModel lens = LensModel::kFull;
  bool refineSkew = false;  // false: skew fixed at initial.skew
  int maxIterations = 100;
  bool computeCovariance = true;  // false: no standard deviations (stddev all NaN)
};

struct RefinementResult {
  Intrinsics camera;
  std::vector<Pose> poses;
  double rms = 0;               // root mean square of the point distances (pixels), over all points
  std::vector<double> viewRms;  // the same, view by view
  double sigma = 0;             // sqrt(SSE / (2N - parameters)): one coordinate's noise estimate
  int parameters = 0;           // the number of refined parameters, poses included
  // Standard deviations: sigma times the root of the covariance's diagonal at the
  // solution. NaN for a parameter held fixed, and for all when the covariance cannot be
  // computed (covarianceOk false).
  Intrinsics stddev;
  std::vector<std::array<double, 6>> poseStddev;  // rotation vector (radians), then t
  bool covarianceOk = false;
  int iterations = 0;
  bool converged = false;   // the solver met a tolerance
  std::string termination;  // the solver's termination type, e.g. CONVERGENCE
  std::string message;      // and its explanation
};

// Refines `input`. False, with a one-line *error, for input it cannot work on (sizes that
// do not match, too few points for the parameters, non-finite or non-positive focal
// lengths, a start behind the camera) or when the solver fails outright.
bool RefineCamera(const RefinementInput& input, RefinementResult* result, std::string* error);

// The two radial terms of the closed-form calibration's own distortion model that come
// closest, by least squares over a grid of the image, to the radial part (k1, k2, k3) of
// `camera`. That model displaces a pixel (u, v) by (du, dv) (k1' r2 + k2' r2^2) with
// du = u - cx, dv = v - cy and r2 = (2 du / width)^2 + (2 dv / height)^2.
void ImageRadialTerms(const Intrinsics& camera, int width, int height, double* k1, double* k2);

}  // namespace refine
