// Means of two point sets and their cross-covariance, the first step of fitting a
// rotation between them. Points are read through the host's collections.
#pragma once

#include "frame/HostInterfaces.h"

class CMatrixVariance {
 public:
  // Mean of the x, y, z of every item (each an IPoint). out null: into m_Mean1.
  // An empty or null collection gives zeros.
  void CalcMean(ISimpleCollection* points, double* out);

  // n = the smaller count; below 3: E_FAIL and nothing changes. Otherwise fills both
  // means (each over all points of its own set), the covariance
  // C(r, c) = mean over i < n of (second_i - mean2)[r] * (first_i - mean1)[c], and
  // m_Scale = sum |second_i - mean2| / sum |first_i - mean1|. 0 on success.
  // At most the first 32767 pairs take part (the index is 16 bits wide).
  HRESULT CreateCoVariance(ISimpleCollection* first, ISimpleCollection* second);

  double m_Mean1[3] = {0.0, 0.0, 0.0};
  double m_Mean2[3] = {0.0, 0.0, 0.0};
  double m_Scale = 1.0;
  double m_Covariance[9] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0};
};
