#include "tools/zeltrim/Tasks.h"
#include "tools/zeltrim/HostText.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <cwchar>

#include "host/client/CalibrationFile.h"

namespace {

std::string Hex(HRESULT hr) {
  char code[16];
  std::snprintf(code, sizeof(code), "0x%08X", static_cast<unsigned>(hr));
  return code;
}

// "FitError k max, sd", one line per view as the module logs them.
std::vector<ViewFigures> ViewsFromLog(const std::vector<std::wstring>& lines) {
  std::vector<ViewFigures> views;
  for (const std::wstring& line : lines) {
    ViewFigures f;
    if (std::swscanf(line.c_str(), L"FitError %d %lf, %lf", &f.view, &f.max, &f.sd) == 3) views.push_back(f);
  }
  return views;
}

// Eleven unknowns, two equations a pair.
constexpr size_t kFewestPairs = 6;
// The module hands the 2N rows of its linear solve to the solver as a 16-bit count.
constexpr size_t kMostPairs = 16383;
// World points that stand out of their best plane by less than this share of their
// extent count as coplanar (the measure resolves about 1e-8).
constexpr double kFlat = 1e-6;
// World points whose depth (the third entry of P [X Y Z 1]) is below this share of the
// sum of its terms' sizes lie in the principal plane to rounding: they have no image.
constexpr double kNoDepth = 1e-12;

// How far the points stand out of their best plane: the square root of the smallest over
// the largest eigenvalue of their scatter about the mean (symmetric 3 x 3, eigenvalues by
// the trigonometric formula). 0 for points in one plane, on one line or all one point;
// 1 for points spread alike in every direction.
double Thickness(const std::vector<Point3>& points) {
  double mean[3] = {0, 0, 0};
  for (const Point3& p : points) mean[0] += p.x, mean[1] += p.y, mean[2] += p.z;
  for (double& m : mean) m /= static_cast<double>(points.size());
  double xx = 0, yy = 0, zz = 0, xy = 0, xz = 0, yz = 0;
  for (const Point3& p : points) {
    const double x = p.x - mean[0], y = p.y - mean[1], z = p.z - mean[2];
    xx += x * x, yy += y * y, zz += z * z, xy += x * y, xz += x * z, yz += y * z;
  }
  const double q = (xx + yy + zz) / 3.0;
  const double off = xy * xy + xz * xz + yz * yz;
  const double p2 = (xx - q) * (xx - q) + (yy - q) * (yy - q) + (zz - q) * (zz - q) + 2.0 * off;
  if (!(p2 > 0)) return q > 0 ? 1.0 : 0.0;
  const double p = std::sqrt(p2 / 6.0);
  const double b00 = (xx - q) / p, b11 = (yy - q) / p, b22 = (zz - q) / p;
  const double b01 = xy / p, b02 = xz / p, b12 = yz / p;
  const double det = b00 * (b11 * b22 - b12 * b12) - b01 * (b01 * b22 - b12 * b02) + b02 * (b01 * b12 - b11 * b02);
  const double r = std::fmax(-1.0, std::fmin(1.0, det / 2.0));
  const double phi = std::acos(r) / 3.0;
  const double largest = q + 2.0 * p * std::cos(phi);
  const double smallest = q + 2.0 * p * std::cos(phi + 2.0 * 3.14159265358979323846 / 3.0);
  if (!(largest > 0)) return 0.0;
  return std::sqrt(std::fmax(0.0, smallest) / largest);
}

// Determinant of a 4 x 4 matrix by elimination with partial pivoting.
double Determinant4(const double* m) {
  double a[16];
  for (int i = 0; i < 16; ++i) a[i] = m[i];
  double det = 1;
  for (int c = 0; c < 4; ++c) {
    int pivot = c;
    for (int r = c + 1; r < 4; ++r)
      if (std::fabs(a[4 * r + c]) > std::fabs(a[4 * pivot + c])) pivot = r;
    if (a[4 * pivot + c] == 0) return 0;
    if (pivot != c) {
      for (int k = 0; k < 4; ++k) std::swap(a[4 * c + k], a[4 * pivot + k]);
      det = -det;
    }
    det *= a[4 * c + c];
    for (int r = c + 1; r < 4; ++r) {
      const double f = a[4 * r + c] / a[4 * c + c];
      for (int k = c; k < 4; ++k) a[4 * r + k] -= f * a[4 * c + k];
    }
  }
  return det;
}

// Rays that are parallel to rounding fix no point, though the module's solve may find a
// pivot that rounding left above its tolerance and answer with a meaningless point.
constexpr double kParallelSine = 1e-9;

// Whether two of the cameras' viewing rays of these image points cross at an angle: each
// ray's direction is the cross product of the normals of the camera's two planes.
bool RaysCross(const std::vector<ICamera3DTransform*>& cameras, const std::vector<Point3>& image) {
  std::vector<std::array<double, 3>> directions;
  for (size_t k = 0; k < cameras.size(); ++k) {
    double planes[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    cameras[k]->SolveMatrix(planes, image[k].x, image[k].y);
    const double* a = planes;
    const double* b = planes + 4;
    directions.push_back({a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]});
  }
  for (size_t i = 0; i < directions.size(); ++i)
    for (size_t j = i + 1; j < directions.size(); ++j) {
      const std::array<double, 3>& p = directions[i];
      const std::array<double, 3>& q = directions[j];
      const double cross[3] = {p[1] * q[2] - p[2] * q[1], p[2] * q[0] - p[0] * q[2], p[0] * q[1] - p[1] * q[0]};
      const double lengths = std::sqrt((p[0] * p[0] + p[1] * p[1] + p[2] * p[2]) * (q[0] * q[0] + q[1] * q[1] + q[2] * q[2]));
      const double sine = std::sqrt(cross[0] * cross[0] + cross[1] * cross[1] + cross[2] * cross[2]);
      if (lengths > 0 && sine > kParallelSine * lengths) return true;
    }
  return false;
}

}  // namespace

bool TaskFail(TaskError* error, const std::string& message, int status, HRESULT code) {
  error->code = code;
  error->status = status;
  error->message = message;
  return false;
}

SmartPtr<ISimpleCollection> MakeCollection(ModuleHost& host, const std::vector<Point3>& points) {
  SmartPtr<IPointsCollection> collection;
  void* p = nullptr;
  const IID& iid = IID_IPointsCollection;
  if (host.Components()->CreateComponent(16, L"PointsCollection", &iid, &p) >= 0 && p)
    collection.Attach(static_cast<IPointsCollection*>(p));
  if (!collection) return SmartPtr<ISimpleCollection>();
  for (const Point3& pt : points) collection->AddPoint(pt.x, pt.y, pt.z);
  return SmartPtr<ISimpleCollection>(collection.get());
}

std::string LoadCalibrationFile(ModuleHost& host, const std::string& path, SmartPtr<IUnknown>* object,
                                std::wstring* objectName) {
  const client::FileReport found = client::CheckFile(path, std::wstring());
  if (!found.ok) return found.problem;
  *objectName = found.objectName;
  if (found.objectName == L"Camera3DTransform" && client::FormOfPath(path) == client::FileForm::kXML)
    return "a Camera3DTransform's XML file holds its write-only text form";
  void* p = nullptr;
  if (!host.CreateRaw(found.objectName.c_str(), IID_IUnknown, &p)) return Narrow(found.objectName) + ": " + host.Error();
  object->Attach(static_cast<IUnknown*>(p));
  if (host.Archive(*object, path, false) < 0) return host.Error();
  return std::string();
}

std::string TransformSaveProblem(const std::string& path) {
  if (client::FormOfPath(path) != client::FileForm::kXML) return std::string();
  return "a Camera3DTransform's XML file would hold its write-only text form and would not load back; "
         "use .tCAM (folder stream) or .csv (text form)";
}

std::vector<NamedValue> ReadParameters(IUnknown* object) {
  std::vector<NamedValue> values;
  SmartPtr<IParametricObject> parametric = QueryAs<IParametricObject>(object);
  SmartPtr<INamedCollection> params;
  if (!parametric || parametric->GetParameters(params.Out(), 0) < 0 || !params) return values;
  int count = 0;
  params->get_Count(&count);
  for (int i = 0; i < count; ++i) {
    NamedValue value;
    SmartPtr<IString> name;
    params->get_ItemName(i, name.Out());
    value.name = Narrow(TextOf(name));
    SmartPtr<IUnknown> item;
    params->get_Item(i, item.Out());
    if (SmartPtr<IVariant> v = QueryAs<IVariant>(item)) {
      if (v->get_Type() == VARIANT_INTEGER) {
        value.kind = NamedValue::kInteger;
        value.integer = v->get_Integer();
      } else {
        value.number = v->get_Double();
      }
    } else if (SmartPtr<IString> text = QueryAs<IString>(item)) {
      value.kind = NamedValue::kText;
      value.text = Narrow(TextOf(text));
    } else {
      continue;
    }
    values.push_back(value);
  }
  return values;
}

double NamedParameter(ModuleHost& host, INamedCollection* params, const char* name) {
  int index = -1;
  SmartPtr<IUnknown> item;
  if (!params || params->get_Index(host.NewString(name), &index) < 0 || params->get_Item(index, item.Out()) < 0)
    return NAN;
  SmartPtr<IVariant> value = QueryAs<IVariant>(item);
  return value ? value->get_Double() : NAN;
}

void ReadCameraFigures(ModuleHost& host, ICamera3DTrinsic* camera, CameraCalibration* r) {
  SmartPtr<INamedCollection> params;
  if (SmartPtr<IParametricObject> parametric = QueryAs<IParametricObject>(camera))
    parametric->GetParameters(params.Out(), 0);
  r->fx = NamedParameter(host, params, "fSx");
  r->fy = NamedParameter(host, params, "fSy");
  r->skew = NamedParameter(host, params, "Skew");
  r->cx = NamedParameter(host, params, "CenterX");
  r->cy = NamedParameter(host, params, "CenterY");
  r->k1 = NamedParameter(host, params, "DistortionK1(NotUsed)");
  r->k2 = NamedParameter(host, params, "DistortionK2(NotUsed)");
  double error2 = 0;
  if (SmartPtr<ITransformFitErrors> errors = QueryAs<ITransformFitErrors>(camera))
    errors->GetFitErrors(&error2, &r->max, &r->sd);
  double* m = nullptr;
  camera->GetMatrix(1, &m, nullptr, nullptr);
  r->intrinsic = m;
  camera->GetMatrix(2, &m, nullptr, nullptr);
  r->extrinsic = m;
  camera->GetMatrix(0, &m, nullptr, nullptr);
  r->combined = m;
}

bool CalibrateCamera(ModuleHost& host, const std::vector<Point3>& model, const std::vector<std::vector<Point3>>& views,
                     int width, int height, int mode, CameraCalibration* r, TaskError* error) {
  if (model.size() < 4)
    return TaskFail(error, "the model holds " + std::to_string(model.size()) + " point(s); a flat target needs at least 4");
  if (views.empty()) return TaskFail(error, "the calibration needs at least one view");
  for (size_t k = 0; k < views.size(); ++k)
    if (views[k].size() != model.size())
      return TaskFail(error, "view " + std::to_string(k + 1) + " holds " + std::to_string(views[k].size()) +
                                 " points, the model " + std::to_string(model.size()));
  if (mode != 0 && mode != 1) return TaskFail(error, "the mode must be 0 or 1");
  if (mode == 0 && views.size() < 3) return TaskFail(error, "--mode 0 needs at least 3 views");
  if (width < 1 || height < 1 || width > 1000000 || height > 1000000)
    return TaskFail(error, "--image-size needs WIDTHxHEIGHT in whole pixels, e.g. 640x480");

  SmartPtr<ICamera3DTrinsic> camera = host.Create<ICamera3DTrinsic>(L"Camera3DTrinsic");
  if (!camera) return TaskFail(error, "Camera3DTrinsic: " + host.Error(), 1, E_FAIL);
  camera->SetNormalizationImageSize(width, height);
  SmartPtr<ISimpleCollection> modelPoints = MakeCollection(host, model);
  SmartPtr<ISimpleCollection> image;
  if (mode == 0) {
    SmartPtr<ICreatableSimpleCollection> perView = host.CreateHost<ICreatableSimpleCollection>(L"SimpleCollection");
    if (perView)
      for (const std::vector<Point3>& view : views) perView->Add(MakeCollection(host, view));
    image = perView.get();
  } else {
    std::vector<Point3> all;
    for (const std::vector<Point3>& view : views) all.insert(all.end(), view.begin(), view.end());
    image = MakeCollection(host, all);
  }
  if (!modelPoints || !image) return TaskFail(error, "the host has no point collections", 1, E_FAIL);

  host.Log().Keep();
  host.Log().Take();  // lines of earlier work are not this calibration's
  const HRESULT hr = QueryAs<ITransformBestFit>(camera)->BestFit(image, modelPoints, mode);
  if (hr < 0) {
    host.Log().Take();
    return TaskFail(error,
                    "the calibration failed with " + Hex(hr) +
                        (hr == E_INVALIDARG ? " (the model has no extent in X or in Y)" : " (a degenerate target or view)"),
                    1, hr);
  }
  r->camera = camera;
  ReadCameraFigures(host, camera, r);
  r->views = ViewsFromLog(host.Log().Take());
  return true;
}

bool ResectCamera(ModuleHost& host, const std::vector<Point3>& image, const std::vector<Point3>& world,
                  SmartPtr<ICamera3DTransform>* out, TaskError* error) {
  const size_t n = image.size();
  if (n != world.size())
    return TaskFail(error, "the point sets differ in length: " + std::to_string(n) + " image and " +
                               std::to_string(world.size()) + " world points");
  if (n < kFewestPairs)
    return TaskFail(error, "a projective camera needs at least 6 point pairs (11 unknowns, two equations a pair), "
                           "the files hold " + std::to_string(n));
  if (n > kMostPairs)
    return TaskFail(error, "at most 16383 point pairs (the module counts the 2N rows of its linear solve in 16 bits), "
                           "the files hold " + std::to_string(n));
  if (Thickness(world) < kFlat)
    return TaskFail(error, "the world points lie in one plane (to a millionth of their extent); a projective camera "
                           "needs points spread in depth (views of a flat target: use calibrate)");

  SmartPtr<ICamera3DTransform> camera = host.Create<ICamera3DTransform>(L"Camera3DTransform");
  if (!camera) return TaskFail(error, "Camera3DTransform: " + host.Error(), 1, E_FAIL);
  SmartPtr<ISimpleCollection> imagePoints = MakeCollection(host, image), worldPoints = MakeCollection(host, world);
  if (!imagePoints || !worldPoints) return TaskFail(error, "the host cannot make point collections", 1, E_FAIL);
  const HRESULT hr = QueryAs<ITransformBestFit>(camera)->BestFit(imagePoints, worldPoints, 0);
  if (hr < 0)
    return TaskFail(error,
                    "the fit failed with " + Hex(hr) +
                        (hr == E_FAIL ? ": its linear solve is singular, so these points determine no camera (are "
                                        "the image points all alike?)"
                                      : ""),
                    1, hr);
  double* p = nullptr;
  camera->GetMatrix(&p, nullptr, nullptr);
  bool finite = p != nullptr;
  for (int i = 0; finite && i < 12; ++i) finite = std::isfinite(p[i]);
  if (!finite) return TaskFail(error, "the fit gave a camera matrix that is not finite", 1, E_FAIL);
  *out = camera;
  return true;
}

bool InPrincipalPlane(ICamera3DTransform* camera, const Point3& x) {
  double* p = nullptr;
  if (camera->GetMatrix(&p, nullptr, nullptr) < 0 || !p) return true;
  const double terms[4] = {p[2] * x.x, p[5] * x.y, p[8] * x.z, p[11]};
  const double w = terms[0] + terms[1] + terms[2] + terms[3];
  const double size = std::fabs(terms[0]) + std::fabs(terms[1]) + std::fabs(terms[2]) + std::fabs(terms[3]);
  return !(std::fabs(w) > kNoDepth * size);
}

bool ReadFit(ICalibrationBestFit* calibration, FitFigures* f, TaskError* error) {
  SmartPtr<ITransform> forward;
  calibration->GetForwardTransform(forward.Out());
  SmartPtr<IHomogeneousTransform> matrix = QueryAs<IHomogeneousTransform>(forward);
  double* m = nullptr;
  if (!matrix || matrix->GetMatrix(&m, nullptr, nullptr) < 0 || !m)
    return TaskFail(error, "the fit gave no matrix", 1, E_FAIL);
  f->matrix = m;
  if (SmartPtr<ITransformFitErrors> errors = QueryAs<ITransformFitErrors>(calibration))
    errors->GetFitErrors(&f->mean, &f->largest, &f->sd);
  // A singular or non-finite matrix means the points did not determine the transform.
  const double det = Determinant4(m);
  if (!std::isfinite(det) || std::fabs(det) < 1e-300 || !std::isfinite(f->mean + f->largest + f->sd))
    return TaskFail(error, "the fit is degenerate (the points do not determine the transform)", 1, E_FAIL);
  return true;
}

bool FitPoints(ModuleHost& host, const std::vector<Point3>& source, const std::vector<Point3>& target, int method,
               SmartPtr<ICalibrationBestFit>* out, TaskError* error) {
  // The fit reads the low four bits of the method; 5 to 15 fit as 0 does.
  if (method < 0 || method > 4) return TaskFail(error, "--method must be 0 to 4 (5 to 15 would fit as method 0 does)");
  if (source.size() != target.size())
    return TaskFail(error, "the point sets differ in length: " + std::to_string(source.size()) + " and " +
                               std::to_string(target.size()) + " points");
  if (source.size() < 2)
    return TaskFail(error, "a fit needs at least 2 point pairs, the files hold " + std::to_string(source.size()));
  SmartPtr<ICalibrationBestFit> calibration = host.Create<ICalibrationBestFit>(L"CalibrationBestFit");
  if (!calibration) return TaskFail(error, "CalibrationBestFit: " + host.Error(), 1, E_FAIL);
  SmartPtr<ISimpleCollection> a = MakeCollection(host, source), b = MakeCollection(host, target);
  if (!a || !b) return TaskFail(error, "the host cannot make point collections", 1, E_FAIL);
  const HRESULT hr = calibration->BestFit(a, b, method);
  if (hr < 0) return TaskFail(error, "the fit failed with " + Hex(hr), 1, hr);
  FitFigures figures;
  if (!ReadFit(calibration, &figures, error)) return false;
  *out = calibration;
  return true;
}

Triangulated TriangulatePoint(ModuleHost& host, ICamera3DCalibration* cameras,
                              const std::vector<ICamera3DTransform*>& rays, const std::vector<Point3>& image,
                              double* world, TaskError* error) {
  SmartPtr<ISimpleCollection> points = MakeCollection(host, image);
  if (!points) return TaskFail(error, "the host has no point collections", 1, E_FAIL), Triangulated::kFailed;
  SmartPtr<IPoint> point;
  const HRESULT hr = cameras->Convert(points, point.Out());
  // On E_FAIL the module still hands out a point: the last image point, not a solution.
  if (hr == E_FAIL || (hr >= 0 && !RaysCross(rays, image))) return Triangulated::kDegenerate;
  if (hr < 0 || !point || point->GetXYZ(&world[0], &world[1], &world[2]) < 0) {
    TaskFail(error, "the module could not triangulate (result " + Hex(hr) + ")", 1, hr < 0 ? hr : E_FAIL);
    return Triangulated::kFailed;
  }
  return Triangulated::kPoint;
}
