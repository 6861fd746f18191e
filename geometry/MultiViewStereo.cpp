// CMultiViewGeometry::CalibStereo: epipolar geometry from corresponding image points.
//
// F is the eight-point linear estimate on raw pixels (no conditioning), refined by the
// minimiser on the squared algebraic errors. With two cameras set, E = K1 F K2^T. The
// epipoles are eigenvectors of F read as a symmetric matrix (Jacobi sees only one
// triangle), and the pose is factored from E without any choice among the four
// solutions: what the steps give stands, as for every caller of this object.
#include <cmath>
#include <cstring>
#include <new>
#include <vector>

#include "frame/Components.h"
#include "frame/Conversions.h"
#include "geometry/MultiViewGeometry.h"
#include "numeric/MatrixEigenVectors.h"
#include "numeric/MatrixLevenbergMarquardt.h"
#include "numeric/MatrixSVD.h"
#include "numeric/MatrixUtils.h"

#define ZELTRIM_EXPORT extern "C" __attribute__((visibility("default")))

using multiview::kEpsilon;

ZELTRIM_EXPORT void CMultiViewGeometry_LevenbergMarquardt_Evaluate(const double* par, int m, const void* data,
                                                                  double* fvec, int*) {
  if (!par || !data || !fvec) return;
  static_cast<const CMultiViewGeometry*>(data)->EvaluateResiduals(par, m, fvec);
}

namespace {

// The design row of one pair for p F q^T = 0, F by rows.
void DesignRow(double x1, double y1, double x2, double y2, double* row) {
  row[0] = x1 * x2, row[1] = x1 * y2, row[2] = x1;
  row[3] = y1 * x2, row[4] = y1 * y2, row[5] = y1;
  row[6] = x2, row[7] = y2, row[8] = 1.0;
}

// (x, y, 1) times a 3 x 3 matrix, divided by its third element under the guard.
void TimesMatrix(double x, double y, const double* m, double* out) {
  for (int j = 0; j < 3; ++j) out[j] = x * m[j] + y * m[3 + j] + m[6 + j];
  if (std::fabs(out[2]) > kEpsilon) {
    out[0] /= out[2];
    out[1] /= out[2];
    out[2] /= out[2];
  }
}

// The eigenvector of the middle eigenvalue of `m` read as symmetric (upper triangle),
// eigenvalues sorted descending by selection (of equals the last wins), divided by its
// z under the guard.
void MiddleEigenvector(const double* m, double* e) {
  double work[9];
  std::memcpy(work, m, sizeof(work));
  CMatrixEigenVectors eigen;
  eigen.Jacobi(work, 3);
  double* d = eigen.m_EigenValues;
  double* v = eigen.m_EigenVectors;
  for (int i = 0; i < 3; ++i) {
    int best = i;
    for (int j = i + 1; j < 3; ++j)
      if (d[j] >= d[best]) best = j;
    if (best == i) continue;
    std::swap(d[i], d[best]);
    for (int r = 0; r < 3; ++r) std::swap(v[3 * r + i], v[3 * r + best]);
  }
  for (int r = 0; r < 3; ++r) e[r] = v[3 * r + 1];
  if (std::fabs(e[2]) > kEpsilon) {
    e[0] /= e[2];
    e[1] /= e[2];
    e[2] = 1.0;
  }
}

void AddEpipole(IParametersCreatable* list, const double* e, int number) {
  SmartPtr<IPoint> point;
  point.Attach(GEOObject::CreatePoint());
  if (!point || !list) return;
  point->SetXYZ(e[0], e[1], 0.0);
  SmartPtr<IString> name;
  name.Attach(ISLabel(L"Epipolar", number, L'#', 1));
  list->Add(name, point, nullptr, 0);
}

void Refine(double* matrix, int n, const CMultiViewGeometry* object) {
  CMatrixLevenbergMarquardt minimiser;  // the control values every caller uses
  lm_status_struct status{};
  minimiser.lmmin(9, matrix, n, object, &CMultiViewGeometry_LevenbergMarquardt_Evaluate, &status);
}

}  // namespace

void CMultiViewGeometry::SetPointSets(ISimpleCollection* first, ISimpleCollection* second) {
  m_First = first;
  m_Second = second;
  const int count1 = multiview::CountOf(first), count2 = multiview::CountOf(second);
  const int n = count1 < count2 ? count1 : count2;
  m_Pairs.assign(5 * static_cast<size_t>(n), 0.0);
  for (int i = 0; i < n; ++i) {
    double* pair = &m_Pairs[5 * static_cast<size_t>(i)];
    if (multiview::PointXY(first, i, &pair[0], &pair[1]) && multiview::PointXY(second, i, &pair[2], &pair[3]))
      pair[4] = 1.0;
  }
}

void CMultiViewGeometry::EvaluateResiduals(const double* par, int m, double* fvec) const {
  const int held = static_cast<int>(m_Pairs.size() / 5);
  for (int i = 0; i < m && i < held; ++i) {
    const double* pair = &m_Pairs[5 * static_cast<size_t>(i)];
    if (pair[4] == 0.0) continue;
    double r[3];
    for (int j = 0; j < 3; ++j) r[j] = pair[0] * par[j] + pair[1] * par[3 + j] + par[6 + j];
    const double v = pair[2] * r[0] + pair[3] * r[1] + r[2];
    fvec[i] = v * v;
  }
}

HRESULT CMultiViewGeometry::CalibStereo(ISimpleCollection* first, ISimpleCollection* second) {
  CMatrixUtils utils;
  CMatrixSVD svd;
  const int count1 = multiview::CountOf(first), count2 = multiview::CountOf(second);
  const int n = count1 < count2 ? count1 : count2;
  try {
    // Linear estimate; a pair that is no point leaves a zero row at the end.
    std::vector<double> design(9 * static_cast<size_t>(n) + 9, 0.0);
    int row = 0;
    for (int i = 0; i < n; ++i) {
      double x1, y1, x2, y2;
      if (!multiview::PointXY(first, i, &x1, &y1) || !multiview::PointXY(second, i, &x2, &y2)) continue;
      DesignRow(x1, y1, x2, y2, &design[9 * static_cast<size_t>(row++)]);
    }
    svd.SolveAx0(design.data(), n, 9, m_F);
    multiview::Normalize3(m_F);

    SetPointSets(first, second);
    Refine(m_F, n, this);  // fewer than nine pairs: refused, F stays linear
    multiview::Normalize3(m_F);
    GetFitErrors(m_F, first, second, nullptr, nullptr, nullptr);

    SmartPtr<ICamera3DTrinsic> cam1, cam2;
    cam1.Attach(GetCalibration(0));
    cam2.Attach(GetCalibration(1));
    if (cam1 && cam2) {
      double k1[9], k2[9], k2t[9], kf[9], e[9];
      double* a = nullptr;
      cam1->GetMatrix(1, &a, nullptr, nullptr);
      if (a) std::memcpy(k1, a, sizeof(k1)); else std::memset(k1, 0, sizeof(k1));
      a = nullptr;
      cam2->GetMatrix(1, &a, nullptr, nullptr);
      if (a) std::memcpy(k2, a, sizeof(k2)); else std::memset(k2, 0, sizeof(k2));
      // A singular intrinsic matrix has the zero matrix as its inverse here.
      double inverse1[9] = {}, inverse2[9] = {};
      utils.Inverse3(k1, inverse1);
      utils.Inverse3(k2, inverse2);
      for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) k2t[3 * i + j] = k2[3 * j + i];
      utils.Multiply(k1, m_F, kf, 3, 3, 3);
      utils.Multiply(kf, k2t, e, 3, 3, 3);
      multiview::Normalize3(e);
      std::memcpy(m_E, e, sizeof(e));

      // The pairs in normalised camera coordinates, and E estimated from them alone.
      SmartPtr<IPointsCollection> normal1, normal2;
      normal1.Attach(GEOObject::CreatePointsCollection());
      normal2.Attach(GEOObject::CreatePointsCollection());
      if (normal1 && normal2) {
        std::fill(design.begin(), design.end(), 0.0);
        row = 0;
        for (int i = 0; i < n; ++i) {
          double x1, y1, x2, y2, p[3], q[3];
          if (!multiview::PointXY(first, i, &x1, &y1) || !multiview::PointXY(second, i, &x2, &y2)) continue;
          TimesMatrix(x1, y1, inverse1, p);
          TimesMatrix(x2, y2, inverse2, q);
          normal1->AddPoint(p[0], p[1], 0.0);
          normal2->AddPoint(q[0], q[1], 0.0);
          DesignRow(p[0], p[1], q[0], q[1], &design[9 * static_cast<size_t>(row++)]);
        }
        double e2[9];
        svd.SolveAx0(design.data(), n, 9, e2);
        multiview::Normalize3(e2);
        SetPointSets(normal1, normal2);
        Refine(e2, n, this);
        multiview::Normalize3(e2);
        GetFitErrors(m_E, m_First, m_Second, nullptr, nullptr, nullptr);
        GetFitErrors(e2, m_First, m_Second, nullptr, nullptr, nullptr);
      }
    }

    // Epipoles of both images.
    double epipole[3], ft[9];
    if (m_Epipoles) m_Epipoles->RemoveAll();
    MiddleEigenvector(m_F, epipole);
    AddEpipole(m_Epipoles, epipole, 1);
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) ft[3 * i + j] = m_F[3 * j + i];
    MiddleEigenvector(ft, epipole);
    AddEpipole(m_Epipoles, epipole, 2);

    // Rotation and translation from E: the singular values come unsorted, so both the
    // value order and the factors' elements are reversed, and reversed back at the end.
    static const double kW[9] = {0, -1, 0, 1, 0, 0, 0, 0, 1};
    static const double kWt[9] = {0, 1, 0, -1, 0, 0, 0, 0, 1};
    double u[9], w[3] = {0, 0, 0}, v[9] = {};
    std::memcpy(u, m_E, sizeof(u));
    svd.svdcmp(u, 3, 3, w, v);
    double d[9] = {w[2], 0, 0, 0, w[1], 0, 0, 0, w[0]};
    double up[9], vp[9], upt[9], vpt[9];
    for (int k = 0; k < 9; ++k) up[k] = u[8 - k], vp[k] = v[8 - k];
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) upt[3 * i + j] = up[3 * j + i], vpt[3 * i + j] = vp[3 * j + i];
    double uw[9], uwd[9], t[9], uwt[9], r[9];
    utils.Multiply(up, const_cast<double*>(kW), uw, 3, 3, 3);
    utils.Multiply(uw, d, uwd, 3, 3, 3);
    utils.Multiply(uwd, upt, t, 3, 3, 3);
    utils.Multiply(up, const_cast<double*>(kWt), uwt, 3, 3, 3);
    utils.Multiply(uwt, vpt, r, 3, 3, 3);
    double tr[9], rr[9];
    for (int k = 0; k < 9; ++k) tr[k] = t[8 - k], rr[k] = r[8 - k];
    std::memset(m_RelativePose, 0, sizeof(m_RelativePose));
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) m_RelativePose[4 * i + j] = rr[3 * i + j];
    m_RelativePose[15] = 1.0;
    m_RelativePose[12] = (tr[5] - tr[7]) * 0.5;
    m_RelativePose[13] = (tr[2] - tr[6]) * 0.5;
    m_RelativePose[14] = (tr[1] - tr[3]) * 0.5;
  } catch (const std::bad_alloc&) {
    // Out of memory: the fields keep what was done before.
  }
  return S_OK;
}
