// The module's two camera classes as zeltrim loads, prints and questions them:
// "Camera3DTransform" (a projective camera fitted by `resect`) and "Camera3DTrinsic"
// (intrinsics and pose, fitted by `calibrate`).
//
// Storage: both hold the 3 x 4 camera matrix P by columns: element 3c + r is row r,
// column c, and GetMatrix reports that memory as 4 rows of 3. Everything here takes P in
// that memory order and prints it by rows, as P is written on paper.
//
// Frames: world points (X, Y, Z) in the units of the world points of the fit; image
// points (u, v) in pixels; the image of a world point is (P [X Y Z 1]) divided by its
// third entry.
#pragma once

#include <string>

#include "host/client/ModuleHost.h"
#include "tools/zeltrim/Tasks.h"

struct Camera {
  SmartPtr<ICamera3DTransform> camera;  // either class
  SmartPtr<ICamera3DTrinsic> trinsic;   // null for a Camera3DTransform
};

extern const wchar_t* const kTransformClass;  // "Camera3DTransform"
extern const wchar_t* const kTrinsicClass;    // "Camera3DTrinsic"

// Loads a saved camera of either class through the checked host load. Returns 0, or the
// exit status after printing the one-line error (2 for a file that is missing, damaged,
// of another class or of a form the class cannot read back, or holds a zero or
// non-finite camera matrix; 1 when the module fails).
int LoadCamera(ModuleHost& host, const std::string& path, Camera* camera);

// P (twelve doubles by columns) by rows, three lines, each indented by two blanks.
void PrintCameraMatrix(const double* columns);

// The viewing ray of image point (u, v) from the two planes of SolveMatrix:
// `direction` is their normals' cross product scaled to length 1, which points from the
// camera centre toward the points in front of the camera (positive depth); `centre` is
// the camera centre, the point where those planes meet the principal plane (the third
// row of P). False when P's left 3 x 3 is singular: no finite centre.
bool ViewingRay(ICamera3DTransform* camera, double u, double v, double* centre, double* direction);

// The world point of image point (u, v) at height z, from the two planes of SolveMatrix.
// False when the ray runs parallel to the plane Z = z.
bool PointAtHeight(ICamera3DTransform* camera, double u, double v, double z, double* world);

// The point of Camera3DTrinsic::Revert: the pseudo-inverse of P (GetMatrix id 4) applied
// to (u, v, 1), made inhomogeneous. Revert stands on no interface the module answers, so
// its formula is applied here to the matrix it uses, as a host has to.
void RevertPoint(ICamera3DTrinsic* camera, double u, double v, double* world);

// The largest and the standard reprojection error of the last fit (or as loaded), with
// what each means; for a Camera3DTrinsic the largest is the last view's.
void PrintReprojectionErrors(ICamera3DTransform* camera, bool trinsic);

// For `show`: when `object` is one of the two cameras, prints its matrices (for a
// Camera3DTrinsic the intrinsics and the pose too), centre and reprojection errors, and
// returns true.
bool ShowCamera(IUnknown* object);
