#include "host/refine/CameraRefinement.h"

#include <ceres/ceres.h>
#include <ceres/rotation.h>

#include <Eigen/Dense>
#include <cmath>
#include <limits>
#include <memory>

namespace refine {

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Parameter blocks: the intrinsics [fx, fy, cx, cy, skew], the lens [k1, k2, p1, p2, k3]
// and one pose per view [rotation vector, t].
constexpr int kIntrinsics = 5, kLens = 5, kPose = 6;

template <typename T>
void Project(const T* intrinsics, const T* lens, const T* pose, double X, double Y, T* u, T* v) {
  const T point[3] = {T(X), T(Y), T(0)};
  T p[3];
  ceres::AngleAxisRotatePoint(pose, point, p);
  p[0] += pose[3];
  p[1] += pose[4];
  p[2] += pose[5];
  const T x = p[0] / p[2], y = p[1] / p[2];
  const T r2 = x * x + y * y;
  const T radial = T(1) + r2 * (lens[0] + r2 * (lens[1] + r2 * lens[4]));
  const T xd = x * radial + T(2) * lens[2] * x * y + lens[3] * (r2 + T(2) * x * x);
  const T yd = y * radial + lens[2] * (r2 + T(2) * y * y) + T(2) * lens[3] * x * y;
  *u = intrinsics[0] * xd + intrinsics[4] * yd + intrinsics[2];
  *v = intrinsics[1] * yd + intrinsics[3];
}

// The residuals of one view: two per point, the projection minus the observed pixel.
// One block a view keeps the problem's bookkeeping small; the pose is its only own block.
struct ViewResiduals {
  const std::vector<Point2d>* model;
  const std::vector<Point2d>* image;
  template <typename T>
  bool operator()(const T* intrinsics, const T* lens, const T* pose, T* residuals) const {
    for (size_t i = 0; i < model->size(); ++i) {
      T u, v;
      Project(intrinsics, lens, pose, (*model)[i].x, (*model)[i].y, &u, &v);
      residuals[2 * i] = u - (*image)[i].x;
      residuals[2 * i + 1] = v - (*image)[i].y;
    }
    return true;
  }
};

void ToBlocks(const Intrinsics& c, double* intrinsics, double* lens) {
  const double a[kIntrinsics] = {c.fx, c.fy, c.cx, c.cy, c.skew}, b[kLens] = {c.k1, c.k2, c.p1, c.p2, c.k3};
  std::copy(a, a + kIntrinsics, intrinsics);
  std::copy(b, b + kLens, lens);
}

Intrinsics FromBlocks(const double* a, const double* b) {
  Intrinsics c;
  c.fx = a[0], c.fy = a[1], c.cx = a[2], c.cy = a[3], c.skew = a[4];
  c.k1 = b[0], c.k2 = b[1], c.p1 = b[2], c.p2 = b[3], c.k3 = b[4];
  return c;
}

void PoseToBlock(const Pose& pose, double* block) {
  ceres::RotationMatrixToAngleAxis(ceres::RowMajorAdapter3x3(pose.rotation.data()), block);
  for (int i = 0; i < 3; ++i) block[3 + i] = pose.translation[i];
}

Pose BlockToPose(const double* block) {
  Pose pose;
  ceres::AngleAxisToRotationMatrix(block, ceres::RowMajorAdapter3x3(pose.rotation.data()));
  for (int i = 0; i < 3; ++i) pose.translation[i] = block[3 + i];
  return pose;
}

// Which lens terms the model refines, in the order of the lens block.
std::vector<int> FixedLensTerms(LensModel model) {
  switch (model) {
    case LensModel::kPinhole: return {0, 1, 2, 3, 4};
    case LensModel::kRadial2: return {2, 3, 4};
    case LensModel::kRadial3: return {2, 3};
    case LensModel::kFull: return {};
  }
  return {0, 1, 2, 3, 4};
}

bool Finite(const Intrinsics& c) {
  for (double v : {c.fx, c.fy, c.cx, c.cy, c.skew, c.k1, c.k2, c.p1, c.p2, c.k3})
    if (!std::isfinite(v)) return false;
  return true;
}

// The homography of one view, model (X, Y, 1) to pixels, by the direct linear solve on
// coordinates centred and scaled to a mean distance of sqrt(2).
bool Homography(const std::vector<Point2d>& model, const std::vector<Point2d>& image, Eigen::Matrix3d* h) {
  auto conditioner = [](const std::vector<Point2d>& points) {
    Eigen::Vector2d mean(0, 0);
    for (const Point2d& p : points) mean += Eigen::Vector2d(p.x, p.y);
    mean /= static_cast<double>(points.size());
    double spread = 0;
    for (const Point2d& p : points) spread += (Eigen::Vector2d(p.x, p.y) - mean).norm();
    spread /= static_cast<double>(points.size());
    const double s = spread > 0 ? std::sqrt(2.0) / spread : 1.0;
    Eigen::Matrix3d t;
    t << s, 0, -s * mean.x(), 0, s, -s * mean.y(), 0, 0, 1;
    return t;
  };
  const Eigen::Matrix3d tm = conditioner(model), ti = conditioner(image);
  const int n = static_cast<int>(model.size());
  Eigen::MatrixXd a(2 * n, 9);
  for (int i = 0; i < n; ++i) {
    const Eigen::Vector3d m = tm * Eigen::Vector3d(model[i].x, model[i].y, 1);
    const Eigen::Vector3d p = ti * Eigen::Vector3d(image[i].x, image[i].y, 1);
    a.row(2 * i) << m.x(), m.y(), 1, 0, 0, 0, -p.x() * m.x(), -p.x() * m.y(), -p.x();
    a.row(2 * i + 1) << 0, 0, 0, m.x(), m.y(), 1, -p.y() * m.x(), -p.y() * m.y(), -p.y();
  }
  Eigen::JacobiSVD<Eigen::MatrixXd> svd(a, Eigen::ComputeFullV);
  const Eigen::VectorXd s = svd.singularValues();
  // A null space of more than one dimension: the points do not fix the homography.
  if (!(s(7) > 1e-9 * s(0))) return false;
  const Eigen::VectorXd x = svd.matrixV().col(8);
  Eigen::Matrix3d hn;
  hn << x(0), x(1), x(2), x(3), x(4), x(5), x(6), x(7), x(8);
  *h = ti.inverse() * hn * tm;
  return h->allFinite();
}

}  // namespace

bool ParseLensModel(const std::string& name, LensModel* model) {
  for (LensModel m : {LensModel::kPinhole, LensModel::kRadial2, LensModel::kRadial3, LensModel::kFull})
    if (name == LensModelName(m)) return *model = m, true;
  return false;
}

const char* LensModelName(LensModel model) {
  switch (model) {
    case LensModel::kPinhole: return "pinhole";
    case LensModel::kRadial2: return "radial2";
    case LensModel::kRadial3: return "radial3";
    case LensModel::kFull: return "full";
  }
  return "?";
}

bool ProjectPoint(const Intrinsics& camera, const Pose& pose, double X, double Y, Point2d* pixel) {
  double a[kIntrinsics], b[kLens], p[kPose];
  ToBlocks(camera, a, b);
  PoseToBlock(pose, p);
  const double* r = pose.rotation.data();
  if (!(r[6] * X + r[7] * Y + pose.translation[2] > 0)) return false;
  Project(a, b, p, X, Y, &pixel->x, &pixel->y);
  return true;
}

bool PosesFromHomographies(const std::vector<Point2d>& model, const std::vector<std::vector<Point2d>>& views,
                           const Intrinsics& camera, std::vector<Pose>* poses, std::string* error) {
  Eigen::Matrix3d k;
  k << camera.fx, camera.skew, camera.cx, 0, camera.fy, camera.cy, 0, 0, 1;
  if (!k.allFinite() || !(std::fabs(camera.fx) > 0) || !(std::fabs(camera.fy) > 0))
    return *error = "the intrinsic matrix is singular or not finite", false;
  if (model.size() < 4) return *error = "a flat target needs at least 4 points", false;
  const Eigen::Matrix3d kInverse = k.inverse();
  poses->clear();
  for (size_t v = 0; v < views.size(); ++v) {
    Eigen::Matrix3d h;
    if (views[v].size() != model.size() || !Homography(model, views[v], &h))
      return *error = "view " + std::to_string(v + 1) + ": its points determine no homography", false;
    const Eigen::Matrix3d m = kInverse * h;
    double scale = 1.0 / m.col(0).norm();
    // The target lies in front of the camera: positive depth of the model's origin.
    if (m(2, 2) < 0) scale = -scale;
    Eigen::Matrix3d r;
    r.col(0) = scale * m.col(0);
    r.col(1) = scale * m.col(1);
    r.col(2) = r.col(0).cross(r.col(1));
    Eigen::JacobiSVD<Eigen::Matrix3d> svd(r, Eigen::ComputeFullU | Eigen::ComputeFullV);
    r = svd.matrixU() * svd.matrixV().transpose();
    if (r.determinant() < 0) r = -r;  // cannot happen for a proper r1 x r2; kept as a guard
    const Eigen::Vector3d t = scale * m.col(2);
    Pose pose;
    for (int row = 0; row < 3; ++row) {
      for (int col = 0; col < 3; ++col) pose.rotation[3 * row + col] = r(row, col);
      pose.translation[row] = t(row);
    }
    if (!r.allFinite() || !t.allFinite())
      return *error = "view " + std::to_string(v + 1) + ": its pose is not finite", false;
    poses->push_back(pose);
  }
  return true;
}

bool RefineCamera(const RefinementInput& input, RefinementResult* result, std::string* error) {
  const size_t views = input.views.size(), points = input.model.size();
  if (views == 0) return *error = "the refinement needs at least one view", false;
  if (input.poses.size() != views)
    return *error = std::to_string(input.poses.size()) + " poses for " + std::to_string(views) + " views", false;
  for (size_t v = 0; v < views; ++v)
    if (input.views[v].size() != points)
      return *error = "view " + std::to_string(v + 1) + " holds " + std::to_string(input.views[v].size()) +
                      " points, the model " + std::to_string(points),
             false;
  if (!Finite(input.initial) || !(input.initial.fx > 0) || !(input.initial.fy > 0))
    return *error = "the starting intrinsics must be finite with positive focal lengths", false;
  for (const Point2d& p : input.model)
    if (!std::isfinite(p.x) || !std::isfinite(p.y)) return *error = "a model point is not finite", false;
  for (const auto& view : input.views)
    for (const Point2d& p : view)
      if (!std::isfinite(p.x) || !std::isfinite(p.y)) return *error = "an image point is not finite", false;
  if (input.maxIterations < 1) return *error = "the iteration limit must be at least 1", false;

  const std::vector<int> fixedLens = FixedLensTerms(input.lens);
  const int freeIntrinsics = input.refineSkew ? 5 : 4, freeLens = kLens - static_cast<int>(fixedLens.size());
  const int parameters = freeIntrinsics + freeLens + kPose * static_cast<int>(views);
  const long residuals = 2L * static_cast<long>(points * views);
  if (residuals <= parameters)
    return *error = std::to_string(points * views) + " points give " + std::to_string(residuals) +
                    " equations, not more than the " + std::to_string(parameters) + " parameters",
           false;

  double intrinsics[kIntrinsics], lens[kLens];
  ToBlocks(input.initial, intrinsics, lens);
  for (int i : fixedLens) lens[i] = 0;
  std::vector<double> poseBlocks(kPose * views);
  for (size_t v = 0; v < views; ++v) {
    for (size_t i = 0; i < points; ++i) {
      const Pose& pose = input.poses[v];
      const double* r = pose.rotation.data();
      const double z = r[6] * input.model[i].x + r[7] * input.model[i].y + pose.translation[2];
      if (!(z > 0)) return *error = "view " + std::to_string(v + 1) + ": the starting pose puts the target behind the camera", false;
    }
    PoseToBlock(input.poses[v], &poseBlocks[kPose * v]);
  }

  ceres::Problem problem;
  for (size_t v = 0; v < views; ++v) {
    auto* cost = new ceres::AutoDiffCostFunction<ViewResiduals, ceres::DYNAMIC, kIntrinsics, kLens, kPose>(
        new ViewResiduals{&input.model, &input.views[v]}, static_cast<int>(2 * points));
    problem.AddResidualBlock(cost, nullptr, intrinsics, lens, &poseBlocks[kPose * v]);
  }
  if (!input.refineSkew) problem.SetManifold(intrinsics, new ceres::SubsetManifold(kIntrinsics, {4}));
  if (fixedLens.size() == static_cast<size_t>(kLens))
    problem.SetParameterBlockConstant(lens);
  else if (!fixedLens.empty())
    problem.SetManifold(lens, new ceres::SubsetManifold(kLens, fixedLens));

  // The poses are eliminated first (Schur complement): each touches one view only.
  ceres::Solver::Options options;
  options.linear_solver_type = ceres::DENSE_SCHUR;
  auto ordering = std::make_shared<ceres::ParameterBlockOrdering>();
  for (size_t v = 0; v < views; ++v) ordering->AddElementToGroup(&poseBlocks[kPose * v], 0);
  ordering->AddElementToGroup(intrinsics, 1);
  ordering->AddElementToGroup(lens, 1);
  options.linear_solver_ordering = ordering;
  options.max_num_iterations = input.maxIterations;
  options.function_tolerance = 1e-15;
  options.gradient_tolerance = 1e-15;
  options.parameter_tolerance = 1e-14;
  options.num_threads = 1;
  options.logging_type = ceres::SILENT;
  ceres::Solver::Summary summary;
  ceres::Solve(options, &problem, &summary);
  if (summary.termination_type == ceres::FAILURE || !summary.IsSolutionUsable())
    return *error = "the solver failed: " + summary.message, false;

  RefinementResult& out = *result;
  out = RefinementResult();
  out.camera = FromBlocks(intrinsics, lens);
  out.parameters = parameters;
  out.iterations = summary.num_successful_steps + summary.num_unsuccessful_steps;
  out.converged = summary.termination_type == ceres::CONVERGENCE;
  out.termination = ceres::TerminationTypeToString(summary.termination_type);
  out.message = summary.message;

  double sse = 0;
  for (size_t v = 0; v < views; ++v) {
    const double* pose = &poseBlocks[kPose * v];
    out.poses.push_back(BlockToPose(pose));
    double viewSse = 0;
    for (size_t i = 0; i < points; ++i) {
      double u, w;
      Project(intrinsics, lens, pose, input.model[i].x, input.model[i].y, &u, &w);
      viewSse += (u - input.views[v][i].x) * (u - input.views[v][i].x) + (w - input.views[v][i].y) * (w - input.views[v][i].y);
    }
    out.viewRms.push_back(std::sqrt(viewSse / static_cast<double>(points)));
    sse += viewSse;
  }
  out.rms = std::sqrt(sse / static_cast<double>(points * views));
  out.sigma = std::sqrt(sse / static_cast<double>(residuals - parameters));

  // Standard deviations from the covariance at the solution, (J^T J)^-1 scaled by sigma^2.
  Intrinsics nan;
  nan.fx = nan.fy = nan.cx = nan.cy = nan.skew = nan.k1 = nan.k2 = nan.p1 = nan.p2 = nan.k3 = kNaN;
  out.stddev = nan;
  out.poseStddev.assign(views, {kNaN, kNaN, kNaN, kNaN, kNaN, kNaN});
  ceres::Covariance::Options covarianceOptions;
  covarianceOptions.num_threads = 1;
  ceres::Covariance covariance(covarianceOptions);
  std::vector<std::pair<const double*, const double*>> blocks = {{intrinsics, intrinsics}};
  if (freeLens > 0) blocks.push_back({lens, lens});
  for (size_t v = 0; v < views; ++v) blocks.push_back({&poseBlocks[kPose * v], &poseBlocks[kPose * v]});
  if (input.computeCovariance && covariance.Compute(blocks, &problem)) {
    out.covarianceOk = true;
    const double s2 = out.sigma * out.sigma;
    auto deviation = [s2](double variance) { return std::sqrt(std::max(0.0, variance) * s2); };
    double ci[kIntrinsics * kIntrinsics], cl[kLens * kLens], cp[kPose * kPose];
    covariance.GetCovarianceBlock(intrinsics, intrinsics, ci);
    double sdi[kIntrinsics], sdl[kLens];
    for (int i = 0; i < kIntrinsics; ++i) sdi[i] = deviation(ci[i * kIntrinsics + i]);
    if (!input.refineSkew) sdi[4] = kNaN;
    std::fill(sdl, sdl + kLens, kNaN);
    if (freeLens > 0) {
      covariance.GetCovarianceBlock(lens, lens, cl);
      for (int i = 0; i < kLens; ++i) sdl[i] = deviation(cl[i * kLens + i]);
      for (int i : fixedLens) sdl[i] = kNaN;
    }
    out.stddev = FromBlocks(sdi, sdl);
    for (size_t v = 0; v < views; ++v) {
      covariance.GetCovarianceBlock(&poseBlocks[kPose * v], &poseBlocks[kPose * v], cp);
      for (int i = 0; i < kPose; ++i) out.poseStddev[v][i] = deviation(cp[i * kPose + i]);
    }
  }
  return true;
}

void ImageRadialTerms(const Intrinsics& camera, int width, int height, double* k1, double* k2) {
  // Weighted least squares of |d| (delta - k1' rm2 - k2' rm2^2) over a grid of pixels,
  // delta being the refined lens's radial factor: the two models displace a pixel along
  // the same direction (du, dv), by |d| times their factors.
  Eigen::Matrix2d normal = Eigen::Matrix2d::Zero();
  Eigen::Vector2d right = Eigen::Vector2d::Zero();
  const int steps = 32;
  for (int i = 0; i <= steps; ++i) {
    for (int j = 0; j <= steps; ++j) {
      const double du = width * static_cast<double>(i) / steps - camera.cx;
      const double dv = height * static_cast<double>(j) / steps - camera.cy;
      const double y = dv / camera.fy, x = (du - camera.skew * y) / camera.fx;
      const double r2 = x * x + y * y;
      const double delta = r2 * (camera.k1 + r2 * (camera.k2 + r2 * camera.k3));
      const double rm2 = (2 * du / width) * (2 * du / width) + (2 * dv / height) * (2 * dv / height);
      const double weight = du * du + dv * dv;
      const Eigen::Vector2d basis(rm2, rm2 * rm2);
      normal += weight * basis * basis.transpose();
      right += weight * delta * basis;
    }
  }
  const Eigen::Vector2d k = normal.ldlt().solve(right);
  *k1 = k(0);
  *k2 = k(1);
}

}  // namespace refine
