// Eigenvalues and eigenvectors of a small symmetric matrix by cyclic Jacobi rotations.
#pragma once

class CMatrixEigenVectors {
 public:
  CMatrixEigenVectors() = default;
  ~CMatrixEigenVectors();
  CMatrixEigenVectors(const CMatrixEigenVectors&) = delete;
  CMatrixEigenVectors& operator=(const CMatrixEigenVectors&) = delete;

  // a: n x n symmetric, row stride 3 whatever n is (the routine serves n = 1 to 3; larger
  // n does nothing). The strict upper triangle of a is destroyed, the diagonal kept.
  // Eigenvalues land unsorted in m_EigenValues, eigenvector j in column j of
  // m_EigenVectors (row i, column j at 3 i + j). Always 0, also when the 50 sweeps run out.
  int Jacobi(double* a, int n);

  double* m_EigenVectors = nullptr;  // owned, array-new
  double* m_EigenValues = nullptr;   // owned, array-new
  int m_Capacity = 0;                // the n of the last call
};
