// The module work that zeltrim's commands and the Python extension share. Each task runs
// through a loaded ModuleHost, prints nothing, and reports a failure as the module's
// result code, zeltrim's exit status and the one line zeltrim prints for it.
#pragma once

#include <string>
#include <vector>

#include "host/client/ModuleHost.h"
#include "tools/zeltrim/PointText.h"

struct TaskError {
  HRESULT code = S_OK;  // the module's result, or E_INVALIDARG for input refused before it
  int status = 0;       // zeltrim's exit status: 1 the module failed, 2 bad input
  std::string message;  // the line after "zeltrim: "
};

// Fills *error and returns false.
bool TaskFail(TaskError* error, const std::string& message, int status = 2, HRESULT code = E_INVALIDARG);

// A host "PointsCollection" holding the points (null when the host has none).
SmartPtr<ISimpleCollection> MakeCollection(ModuleHost& host, const std::vector<Point3>& points);

// Loads any calibration file of the module into a new object of the class it names;
// an empty text when it worked, else what is wrong (one line, without the path).
std::string LoadCalibrationFile(ModuleHost& host, const std::string& path, SmartPtr<IUnknown>* object,
                                std::wstring* objectName);

// Why a Camera3DTransform cannot be saved to `path`, before any work: an XML name (.x...),
// whose file the module writes but cannot read back. Empty when it can.
std::string TransformSaveProblem(const std::string& path);

// One named parameter of an IParametricObject: a whole number, a number or a text.
struct NamedValue {
  enum Kind { kInteger, kDouble, kText } kind = kDouble;
  std::string name;
  int integer = 0;
  double number = 0;
  std::string text;
};

// The object's named parameters in their order (none when it has no IParametricObject).
std::vector<NamedValue> ReadParameters(IUnknown* object);

// ---------------------------------------------------------------- camera calibration

// "FitError k max, sd" as the calibration logs it for view k.
struct ViewFigures {
  int view = -1;
  double max = 0, sd = 0;
};

struct CameraCalibration {
  SmartPtr<ICamera3DTrinsic> camera;
  double fx = 0, fy = 0, skew = 0, cx = 0, cy = 0, k1 = 0, k2 = 0;
  double max = 0, sd = 0;  // the last view's largest error; the standard error over all points
  // Borrowed from the camera, by columns: A 3 x 3 (stride 3), pose 4 x 4, P 3 x 4 (stride 3).
  const double* intrinsic = nullptr;
  const double* extrinsic = nullptr;
  const double* combined = nullptr;
  std::vector<ViewFigures> views;
};

// A Camera3DTrinsic calibrated from views of a flat target (each view's points matching
// the model's line by line). Mode 1 hands the views over as one collection, view after
// view; mode 0 as one collection per view (3 views at least).
bool CalibrateCamera(ModuleHost& host, const std::vector<Point3>& model, const std::vector<std::vector<Point3>>& views,
                     int width, int height, int mode, CameraCalibration* result, TaskError* error);

// The figures of a Camera3DTrinsic that was calibrated or loaded (no view figures).
void ReadCameraFigures(ModuleHost& host, ICamera3DTrinsic* camera, CameraCalibration* result);

// The camera's parameters by name, NaN for a missing one.
double NamedParameter(ModuleHost& host, INamedCollection* parameters, const char* name);

// ---------------------------------------------------------------- projective camera

// A Camera3DTransform fitted to image points and their world points (not all in one
// plane): 6 to 16383 pairs.
bool ResectCamera(ModuleHost& host, const std::vector<Point3>& image, const std::vector<Point3>& world,
                  SmartPtr<ICamera3DTransform>* camera, TaskError* error);

// Whether world point x lies in the camera's principal plane (depth 0: no image).
bool InPrincipalPlane(ICamera3DTransform* camera, const Point3& x);

// ---------------------------------------------------------------- best fit

struct FitFigures {
  const double* matrix = nullptr;  // the forward 4 x 4, borrowed from the calibration
  double mean = 0, largest = 0, sd = 0;
};

// Reads the fitted forward matrix and errors; false when the fit is degenerate.
bool ReadFit(ICalibrationBestFit* calibration, FitFigures* figures, TaskError* error);

// A CalibrationBestFit fitted from source to target points by method 0 to 4.
bool FitPoints(ModuleHost& host, const std::vector<Point3>& source, const std::vector<Point3>& target, int method,
               SmartPtr<ICalibrationBestFit>* calibration, TaskError* error);

// ---------------------------------------------------------------- triangulation

enum class Triangulated { kPoint, kDegenerate, kFailed };

// The world point that the cameras of `cameras` (in `rays`, the same order) see at one
// image point each. kDegenerate when the rays fix no single point; kFailed (with *error)
// when the module fails.
Triangulated TriangulatePoint(ModuleHost& host, ICamera3DCalibration* cameras,
                              const std::vector<ICamera3DTransform*>& rays, const std::vector<Point3>& image,
                              double* world, TaskError* error);
