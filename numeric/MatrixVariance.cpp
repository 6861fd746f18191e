#include "numeric/MatrixVariance.h"

#include <cmath>

namespace {

int CountOf(ISimpleCollection* points) {
  int count = 0;
  if (!points || points->get_Count(&count) < 0 || count < 0) return 0;
  return count;
}

// x, y, z of item `index`; zeros when it is missing or not a point.
void ReadPoint(ISimpleCollection* points, int index, double* xyz) {
  xyz[0] = xyz[1] = xyz[2] = 0.0;
  IUnknown* item = nullptr;
  if (points->get_Item(index, &item) < 0 || !item) return;
  IPoint* point = nullptr;
  if (item->QueryInterface(IID_IPoint, reinterpret_cast<void**>(&point)) >= 0 && point) {
    point->GetXYZ(&xyz[0], &xyz[1], &xyz[2]);
    point->Release();
  }
  item->Release();
}

}  // namespace

void CMatrixVariance::CalcMean(ISimpleCollection* points, double* out) {
  double* mean = out ? out : m_Mean1;
  const int count = CountOf(points);
  double sum[3] = {0.0, 0.0, 0.0};
  for (int i = 0; i < count; ++i) {
    double xyz[3];
    ReadPoint(points, i, xyz);
    sum[0] += xyz[0];
    sum[1] += xyz[1];
    sum[2] += xyz[2];
  }
  for (int c = 0; c < 3; ++c) mean[c] = count > 0 ? sum[c] / count : 0.0;
}

HRESULT CMatrixVariance::CreateCoVariance(ISimpleCollection* first, ISimpleCollection* second) {
  const int count1 = CountOf(first);
  const int count2 = CountOf(second);
  int n = count1 < count2 ? count1 : count2;
  if (n < 3) return E_FAIL;
  if (n > 32767) n = 32767;

  for (double& c : m_Covariance) c = 0.0;
  m_Scale = 1.0;
  CalcMean(first, m_Mean1);
  CalcMean(second, m_Mean2);

  double sumS = 0.0;
  double sumT = 0.0;
  for (short i = 0; i < n; ++i) {
    double s[3], t[3];
    ReadPoint(first, i, s);
    ReadPoint(second, i, t);
    for (int c = 0; c < 3; ++c) {
      s[c] -= m_Mean1[c];
      t[c] -= m_Mean2[c];
    }
    sumT += std::sqrt(t[0] * t[0] + t[1] * t[1] + t[2] * t[2]);
    sumS += std::sqrt(s[0] * s[0] + s[1] * s[1] + s[2] * s[2]);
    for (int r = 0; r < 3; ++r)
      for (int c = 0; c < 3; ++c) m_Covariance[r * 3 + c] += t[r] * s[c];
  }
  for (double& c : m_Covariance) c /= n;
  m_Scale = sumT / sumS;
  return 0;
}
