// QL factorisation of a small dense matrix by Householder reflections.
#pragma once

class CMatrixHouseHolder {
 public:
  // a (m_Rows x m_Cols, row-major) = Q L with Q orthogonal (m_Rows x m_Rows) and L zero
  // above its diagonal (m_Rows x m_Cols). The caller sets the sizes, allocates m_Q and
  // m_L (and the unused m_Spare) before the call and frees them. The signs are chosen
  // so that L[0][0] is not negative. Rows a reflector never reaches keep the input's
  // values; columns from m_Rows on are left as they are. a is unchanged.
  void DecompositionQL(double* a);

  double* m_Q = nullptr;
  double* m_Spare = nullptr;  // allocated and freed by callers, read by nobody
  double* m_L = nullptr;
  int m_Cols = 0;
  int m_Rows = 0;
};
