// Arithmetic on a 3 x 4 camera matrix P held by columns (twelve doubles, p[3 * c + r] is
// row r of column c), shared by the camera classes.
#pragma once

// u and v of world point (X, Y, Z) under P.
inline void CameraProject(const double* p, double X, double Y, double Z, double* u, double* v) {
  const double w = p[2] * X + p[5] * Y + p[8] * Z + p[11];
  *u = (p[0] * X + p[3] * Y + p[6] * Z + p[9]) / w;
  *v = (p[1] * X + p[4] * Y + p[7] * Z + p[10]) / w;
}

// The two planes through the viewing ray of pixel (u, v): out[0..3] is row 0 of P minus u
// times row 2, out[4..7] row 1 minus v times row 2.
inline void CameraRayPlanes(const double* p, double u, double v, double* out) {
  for (int i = 0; i < 4; ++i) {
    out[i] = p[3 * i] - u * p[3 * i + 2];
    out[4 + i] = p[3 * i + 1] - v * p[3 * i + 2];
  }
}
