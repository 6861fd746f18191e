// Small dense-matrix helpers on plain row-major double arrays, and the text form of a
// matrix used in files and property pages. Stateless: any instance serves.
#pragma once

#include "frame/HostInterfaces.h"

class CMatrixUtils {
 public:
  // Inverse of a 3 x 3 matrix by cofactors. When |det| < DBL_EPSILON `dst` is left
  // exactly as it was (no result code): prepare it if you need to notice. No aliasing.
  void Inverse3(double* src, double* dst);

  // c (rows x cols) = a (rows x inner) * b (inner x cols). Each entry is summed in
  // ascending inner order from 0. rows < 1 writes nothing; inner < 1 zeroes c.
  // c must not alias a or b.
  void Multiply(double* a, double* b, double* c, int rows, int inner, int cols);

  // 4 x 4 rotation taking direction `from` onto `to` for row vectors (v * matrix).
  // Both directions are normalised in place. Returns 0 done, 1 parallel or opposite
  // (matrix = identity; opposite is NOT a half turn), -1 a zero-length direction
  // (matrix untouched).
  int SetHomogeneousRotation(double* matrix, double* from, double* to);

  // The text form: every element "%f", ", " between the elements of a row, a line feed
  // after each row. A new host string with one reference for the caller (null when the
  // host cannot make strings).
  IString* toString(double* m, int rows, int cols);

  // Appends the text form to an existing string; the work of toString.
  static void AppendText(ICreatableString* text, const double* m, int rows, int cols);

  // Reads rows * cols numbers, row by row, from the text form (or hand-written decimal
  // text, "#hex" tokens too). No exponent form; a trailing comma is ignored. Elements
  // beyond the end of the text keep their values. Always S_OK.
  HRESULT fromString(tagREFString text, double* m, int rows, int cols);
};
