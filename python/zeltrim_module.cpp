// The Python extension "zeltrim": Zeltrim.so driven through the reference host, with
// NumPy arrays in and out.
//
// The module reaches its peers at "./_binlinux/<name>.so" from the working folder at the
// moment a peer is first needed, so every call into it runs in the folder that holds
// _binlinux/ and returns to the caller's folder afterwards. The working folder belongs to
// the process, so those calls are serialised by one lock; the GIL is released meanwhile.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "frame/ModuleObjects.h"
#include "host/client/CalibrationFile.h"
#include "host/client/ModuleHost.h"
#include "tools/zeltrim/Tasks.h"

#include "ZeltrimHome.h"  // generated: kInstalledHomeFromExtension

namespace py = pybind11;

namespace {

// ---------------------------------------------------------------- errors

// A failure with zeltrim's result code, exit status and message; raised in Python as
// zeltrim.InputError (status 2: refused input) or zeltrim.Error (status 1: the module).
struct Failure {
  HRESULT code;
  int status;
  std::string message;
};

[[noreturn]] void Raise(const TaskError& e) { throw Failure{e.code, e.status, e.message}; }
[[noreturn]] void BadInput(const std::string& message) { throw Failure{E_INVALIDARG, 2, message}; }
[[noreturn]] void ModuleFailed(const std::string& message, HRESULT code = E_FAIL) { throw Failure{code, 1, message}; }

PyObject* g_Error = nullptr;
PyObject* g_InputError = nullptr;

std::string Hex(HRESULT hr) {
  char code[16];
  std::snprintf(code, sizeof(code), "0x%08X", static_cast<unsigned>(hr));
  return code;
}

// ---------------------------------------------------------------- the module host

std::recursive_mutex g_Mutex;
// Never deleted: objects Python frees at interpreter exit still call into the module.
ModuleHost* g_Host = nullptr;
std::string g_Home;
std::atomic<long> g_Live{0};

// One call into the module: holds the lock and runs in the module's folder, then returns
// to the caller's folder and drops whatever the module logged (a calibration takes its
// lines before). Make it after releasing the GIL.
class InModule {
 public:
  InModule() : m_Lock(g_Mutex) {
    m_Saved = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (m_Saved < 0 || chdir(g_Home.c_str()) != 0) {
      if (m_Saved >= 0) close(m_Saved);
      throw Failure{E_FAIL, 1, "cannot enter the module's folder " + g_Home + " and come back"};
    }
  }
  ~InModule() {
    if (g_Host) g_Host->Log().Take();
    if (fchdir(m_Saved) != 0) std::perror("zeltrim: cannot return to the working folder");
    close(m_Saved);
  }
  InModule(const InModule&) = delete;
  InModule& operator=(const InModule&) = delete;
  ModuleHost& host() { return *g_Host; }

 private:
  std::lock_guard<std::recursive_mutex> m_Lock;
  int m_Saved = -1;
};

bool HoldsModule(const std::string& folder) {
  struct stat info;
  return !folder.empty() && stat((folder + "/_binlinux/Zeltrim.so").c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

std::string RealFolder(const std::string& path) {
  char* real = realpath(path.c_str(), nullptr);
  if (!real) return std::string();
  std::string out(real);
  std::free(real);
  return out;
}

// The folder holding _binlinux/: $ZELTRIM_HOME, else beside this file as installed, else
// as built (<build>/python/ next to <build>/_binlinux/).
std::string FindHome() {
  if (const char* env = std::getenv("ZELTRIM_HOME"); env && *env) {
    if (!HoldsModule(env)) throw std::runtime_error(std::string("ZELTRIM_HOME=") + env + " holds no _binlinux/Zeltrim.so");
    return RealFolder(env);
  }
  Dl_info info{};
  if (!dladdr(reinterpret_cast<void*>(&FindHome), &info) || !info.dli_fname)
    throw std::runtime_error("cannot find the extension's own file");
  std::string self = RealFolder(info.dli_fname);
  const std::string folder = self.substr(0, self.rfind('/'));
  for (const std::string& candidate : {folder + "/" + kInstalledHomeFromExtension, folder + "/.."})
    if (HoldsModule(candidate)) return RealFolder(candidate);
  throw std::runtime_error("no _binlinux/Zeltrim.so in " + folder + "/" + kInstalledHomeFromExtension + " or " +
                           folder + "/.. (set ZELTRIM_HOME to the folder that holds _binlinux/)");
}

void LoadModule() {
  g_Home = FindHome();
  auto* host = new ModuleHost();
  std::string problem;
  {
    std::lock_guard<std::recursive_mutex> lock(g_Mutex);
    const int saved = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (saved < 0) throw std::runtime_error("cannot keep the working folder while loading the module");
    if (!host->Load(g_Home)) problem = host->Error();
    host->Log().Keep();  // lines go to whoever asks for them, never to standard error
    if (fchdir(saved) != 0) problem = "cannot return to the working folder";
    close(saved);
  }
  if (!problem.empty()) throw std::runtime_error("cannot load the module from " + g_Home + ": " + problem);
  g_Host = host;
}

// ---------------------------------------------------------------- points in and out

struct Points {
  py::array_t<double, py::array::c_style> array;
  size_t rows = 0;
  int columns = 0;
};

std::string ShapeText(const py::array& a) {
  std::string out = "(";
  for (py::ssize_t i = 0; i < a.ndim(); ++i) out += (i ? ", " : "") + std::to_string(a.shape(i));
  return out + (a.ndim() == 1 ? ",)" : ")");
}

// An (N, 2) or (N, 3) array of finite real numbers (`columns` 2 or 3 alone, or 0 for
// either), as C-ordered doubles; anything else is refused before the module sees it.
Points CheckPoints(py::handle object, const std::string& what, int columns = 0) {
  const std::string wanted = columns ? "(N, " + std::to_string(columns) + ")" : "(N, 2) or (N, 3)";
  if (object.is_none()) BadInput(what + " is None; expected an " + wanted + " array of numbers");
  py::array a;
  try {
    a = py::array::ensure(object);
  } catch (const py::error_already_set&) {
  }
  if (!a) BadInput(what + " is not an array of numbers; expected an " + wanted + " array");
  const char kind = a.dtype().kind();
  if (kind != 'f' && kind != 'i' && kind != 'u')
    BadInput(what + " has dtype " + std::string(py::str(a.dtype())) + "; expected real numbers (float or integer)");
  if (a.ndim() != 2 || (columns ? a.shape(1) != columns : (a.shape(1) != 2 && a.shape(1) != 3)))
    BadInput(what + " has shape " + ShapeText(a) + "; expected " + wanted);
  if (a.shape(0) == 0) BadInput(what + " holds no points");
  Points p;
  p.array = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(a);
  if (!p.array) BadInput(what + " cannot be read as double-precision numbers");
  p.rows = static_cast<size_t>(a.shape(0));
  p.columns = static_cast<int>(a.shape(1));
  const double* v = p.array.data();
  for (size_t i = 0; i < p.rows * p.columns; ++i)
    if (!std::isfinite(v[i]))
      BadInput(what + " row " + std::to_string(i / p.columns) + " holds a value that is not finite (" +
               std::to_string(v[i]) + ")");
  return p;
}

std::vector<Point3> ToPoints(const Points& p) {
  std::vector<Point3> out(p.rows);
  const double* v = p.array.data();
  for (size_t i = 0; i < p.rows; ++i) {
    out[i].x = v[i * p.columns];
    out[i].y = v[i * p.columns + 1];
    out[i].z = p.columns == 3 ? v[i * p.columns + 2] : 0.0;
  }
  return out;
}

// A matrix held by columns (`stride` doubles a column) as a rows x cols array.
py::array_t<double> Matrix(const double* m, int rows, int cols, int stride) {
  py::array_t<double> out({rows, cols});
  auto w = out.mutable_unchecked<2>();
  for (int r = 0; r < rows; ++r)
    for (int c = 0; c < cols; ++c) w(r, c) = m ? m[stride * c + r] : NAN;
  return out;
}

std::string Absolute(py::handle path) {
  return py::module_::import("os").attr("path").attr("abspath")(py::module_::import("os").attr("fspath")(path)).cast<std::string>();
}

std::string Narrow(const std::wstring& text) {
  std::string out;
  for (wchar_t c : text) out += (c >= 32 && c < 127) ? static_cast<char>(c) : '?';
  return out;
}

// ---------------------------------------------------------------- objects

// Any object of the module: a calibration that converts points, or a camera.
class Calibration {
 public:
  Calibration(SmartPtr<IUnknown> object, std::wstring kind) : m_Object(std::move(object)), m_Kind(std::move(kind)) {
    ++g_Live;
  }
  // Released under the lock (with the GIL held: whoever holds the lock never waits for
  // the GIL); releasing loads no peer, so the working folder stays.
  virtual ~Calibration() {
    {
      std::lock_guard<std::recursive_mutex> lock(g_Mutex);
      m_Object = SmartPtr<IUnknown>();
    }
    --g_Live;
  }
  Calibration(const Calibration&) = delete;
  Calibration& operator=(const Calibration&) = delete;

  IUnknown* object() const { return m_Object.get(); }
  std::string kind() const { return Narrow(m_Kind); }

  std::string name() const {
    py::gil_scoped_release release;
    InModule in;
    SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(m_Object);
    SmartPtr<IString> text;
    const wchar_t* p = nullptr;
    int n = 0;
    if (!info || info->get_CALIBName(text.Out()) < 0 || !text || text->GetString(&p, &n) < 0 || !p || n <= 0)
      return std::string();
    return Narrow(std::wstring(p, static_cast<size_t>(n)));
  }

  py::dict parameters() const {
    std::vector<NamedValue> values;
    {
      py::gil_scoped_release release;
      InModule in;
      values = ReadParameters(m_Object);
    }
    py::dict out;
    for (const NamedValue& v : values) {
      if (v.kind == NamedValue::kInteger)
        out[py::str(v.name)] = v.integer;
      else if (v.kind == NamedValue::kDouble)
        out[py::str(v.name)] = v.number;
      else
        out[py::str(v.name)] = v.text;
    }
    return out;
  }

  py::array_t<double> map(py::handle points, bool revert) const {
    const Points in = CheckPoints(points, "points");
    py::array_t<double> out({static_cast<py::ssize_t>(in.rows), static_cast<py::ssize_t>(in.columns)});
    const double* src = in.array.data();
    double* dst = out.mutable_data();
    const size_t rows = in.rows;
    const int cols = in.columns;
    HRESULT failed = S_OK;
    size_t row = 0;
    {
      py::gil_scoped_release release;
      InModule module;
      SmartPtr<ICalibration> calibration = QueryAs<ICalibration>(m_Object);
      if (!calibration) {
        failed = E_NOINTERFACE;
      } else {
        for (; row < rows; ++row) {
          const double* s = src + row * cols;
          double x = s[0], y = s[1], z = cols == 3 ? s[2] : 0.0;
          const HRESULT hr = revert ? calibration->Revert(&x, &y, &z) : calibration->Convert(&x, &y, &z);
          if (hr < 0) {
            failed = hr;
            break;
          }
          double* d = dst + row * cols;
          d[0] = x;
          d[1] = y;
          if (cols == 3) d[2] = z;
        }
      }
    }
    if (failed == E_NOINTERFACE)
      BadInput(kind() + " does not convert points (for a camera use project)");
    if (failed < 0) {
      const double* s = src + row * cols;
      Point3 p;
      p.x = s[0], p.y = s[1], p.z = cols == 3 ? s[2] : 0.0;
      ModuleFailed(std::string(revert ? "Revert" : "Convert") + " of " + FormatPoint(p) + " failed (result " +
                       Hex(failed) + ") at row " + std::to_string(row),
                   failed);
    }
    return out;
  }

  void save(py::handle path) const {
    const std::string file = Absolute(path);
    const std::string problem = client::SavePathProblem(file);
    if (!problem.empty()) BadInput("cannot save " + file + ": " + problem);
    if (m_Kind == L"Camera3DTransform") {
      const std::string transform = TransformSaveProblem(file);
      if (!transform.empty()) BadInput("cannot save " + file + ": " + transform);
    }
    std::string error;
    {
      py::gil_scoped_release release;
      InModule in;
      if (in.host().Archive(m_Object, file, true) < 0) error = in.host().Error();
    }
    if (!error.empty()) ModuleFailed("cannot save " + file + ": " + error);
  }

 private:
  SmartPtr<IUnknown> m_Object;
  std::wstring m_Kind;
};

// A camera: Camera3DTrinsic (calibrated: intrinsics, pose, per-view figures) or
// Camera3DTransform (resected: the camera matrix only).
class Camera : public Calibration {
 public:
  Camera(SmartPtr<IUnknown> object, std::wstring kind) : Calibration(std::move(object), std::move(kind)) {}

  // Reads the figures of the camera (the module's own lock is held by the caller).
  void read(ModuleHost& host) {
    SmartPtr<ICamera3DTrinsic> trinsic = QueryAs<ICamera3DTrinsic>(object());
    SmartPtr<ICamera3DTransform> transform = QueryAs<ICamera3DTransform>(object());
    trinsic_ = trinsic;
    if (trinsic) {
      CameraCalibration figures;
      ReadCameraFigures(host, trinsic, &figures);
      set(figures);
    } else if (transform) {
      double* p = nullptr;
      transform->GetMatrix(&p, nullptr, nullptr);
      if (p) combined_.assign(p, p + 12);
      double a = 0;
      if (SmartPtr<ITransformFitErrors> errors = QueryAs<ITransformFitErrors>(object()))
        errors->GetFitErrors(&a, &max_, &sd_);
    }
  }
  void set(const CameraCalibration& f) {
    fx_ = f.fx, fy_ = f.fy, skew_ = f.skew, cx_ = f.cx, cy_ = f.cy, k1_ = f.k1, k2_ = f.k2, max_ = f.max, sd_ = f.sd;
    if (f.intrinsic) intrinsic_.assign(f.intrinsic, f.intrinsic + 9);
    if (f.extrinsic) extrinsic_.assign(f.extrinsic, f.extrinsic + 16);
    if (f.combined) combined_.assign(f.combined, f.combined + 12);
    views_ = f.views;
  }

  py::object figure(double Camera::*member) const {
    return trinsic_ ? py::object(py::float_(this->*member)) : py::object(py::none());
  }
  double max_error() const { return max_; }
  double sd_error() const { return sd_; }
  py::list views() const {
    py::list out;
    for (const ViewFigures& v : views_) {
      py::dict d;
      d["view"] = v.view;
      d["max_error"] = v.max;
      d["sd_error"] = v.sd;
      out.append(d);
    }
    return out;
  }
  py::object intrinsic() const { return intrinsic_.empty() ? py::object(py::none()) : Matrix(intrinsic_.data(), 3, 3, 3); }
  py::object extrinsic() const { return extrinsic_.empty() ? py::object(py::none()) : Matrix(extrinsic_.data(), 4, 4, 4); }
  py::object combined() const { return combined_.empty() ? py::object(py::none()) : Matrix(combined_.data(), 3, 4, 3); }

  py::array_t<double> project(py::handle points) const {
    const Points in = CheckPoints(points, "points");
    const std::vector<Point3> world = ToPoints(in);
    py::array_t<double> out({static_cast<py::ssize_t>(in.rows), static_cast<py::ssize_t>(2)});
    double* dst = out.mutable_data();
    long bad = -1;
    bool inPlane = false;
    {
      py::gil_scoped_release release;
      InModule module;
      SmartPtr<ICamera3DTransform> camera = QueryAs<ICamera3DTransform>(object());
      for (size_t i = 0; camera && i < world.size(); ++i) {
        if (InPrincipalPlane(camera, world[i])) {
          bad = static_cast<long>(i), inPlane = true;
          break;
        }
        double x = world[i].x, y = world[i].y, z = world[i].z;
        camera->Convert(&x, &y, &z);
        if (!std::isfinite(x) || !std::isfinite(y)) {
          bad = static_cast<long>(i);
          break;
        }
        dst[2 * i] = x;
        dst[2 * i + 1] = y;
      }
    }
    if (bad >= 0) {
      const Point3& p = world[bad];
      if (inPlane)
        BadInput("the world point " + FormatPoint(p) + " (row " + std::to_string(bad) +
                 ") has no image: it lies in the camera's principal plane (depth 0)");
      ModuleFailed("the camera gives no finite point for " + FormatPoint(p) + " (row " + std::to_string(bad) + ")");
    }
    return out;
  }

  ICamera3DTransform* transform() const { return QueryAs<ICamera3DTransform>(object()).get(); }

  double fx_ = NAN, fy_ = NAN, skew_ = NAN, cx_ = NAN, cy_ = NAN, k1_ = NAN, k2_ = NAN;

 private:
  bool trinsic_ = false;
  double max_ = NAN, sd_ = NAN;
  std::vector<double> intrinsic_, extrinsic_, combined_;
  std::vector<ViewFigures> views_;
};

std::unique_ptr<Calibration> Wrap(SmartPtr<IUnknown> object, const std::wstring& kind, ModuleHost& host) {
  if (QueryAs<ICamera3DTransform>(object)) {
    auto camera = std::make_unique<Camera>(object, kind);
    camera->read(host);
    return camera;
  }
  return std::make_unique<Calibration>(object, kind);
}

// ---------------------------------------------------------------- functions

py::dict Objects() {
  std::vector<bool> provided(kModuleObjectCount);
  {
    py::gil_scoped_release release;
    InModule in;
    for (int i = 0; i < kModuleObjectCount; ++i) provided[i] = in.host().Provides(kModuleObjects[i].name);
  }
  py::dict out;
  for (int i = 0; i < kModuleObjectCount; ++i) out[py::str(Narrow(kModuleObjects[i].name))] = bool(provided[i]);
  return out;
}

std::unique_ptr<Camera> Calibrate(py::handle model, py::handle views, std::pair<int, int> size, int mode) {
  const std::vector<Point3> modelPoints = ToPoints(CheckPoints(model, "model"));
  if (views.is_none() || !py::isinstance<py::sequence>(views) || py::isinstance<py::str>(views))
    BadInput("views must be a list of (N, 2) arrays, one per view");
  std::vector<std::vector<Point3>> viewPoints;
  const py::sequence list = py::reinterpret_borrow<py::sequence>(views);
  for (size_t k = 0; k < list.size(); ++k)
    viewPoints.push_back(ToPoints(CheckPoints(list[k], "view " + std::to_string(k + 1), 2)));
  std::unique_ptr<Camera> camera;
  CameraCalibration figures;
  TaskError error;
  bool ok;
  {
    py::gil_scoped_release release;
    InModule in;
    ok = CalibrateCamera(in.host(), modelPoints, viewPoints, size.first, size.second, mode, &figures, &error);
    if (ok) {
      camera = std::make_unique<Camera>(SmartPtr<IUnknown>(figures.camera.get()), L"Camera3DTrinsic");
      camera->read(in.host());
      camera->set(figures);
    }
  }
  if (!ok) Raise(error);
  return camera;
}

std::unique_ptr<Camera> Resect(py::handle image, py::handle world) {
  const std::vector<Point3> imagePoints = ToPoints(CheckPoints(image, "image_points", 2));
  const std::vector<Point3> worldPoints = ToPoints(CheckPoints(world, "world_points", 3));
  std::unique_ptr<Camera> camera;
  TaskError error;
  {
    py::gil_scoped_release release;
    InModule in;
    SmartPtr<ICamera3DTransform> fitted;
    if (ResectCamera(in.host(), imagePoints, worldPoints, &fitted, &error)) {
      camera = std::make_unique<Camera>(SmartPtr<IUnknown>(fitted.get()), L"Camera3DTransform");
      camera->read(in.host());
    }
  }
  if (!camera) Raise(error);
  return camera;
}

std::unique_ptr<Calibration> Fit(py::handle source, py::handle target, int method) {
  const std::vector<Point3> a = ToPoints(CheckPoints(source, "source"));
  const std::vector<Point3> b = ToPoints(CheckPoints(target, "target"));
  std::unique_ptr<Calibration> out;
  TaskError error;
  {
    py::gil_scoped_release release;
    InModule in;
    SmartPtr<ICalibrationBestFit> fitted;
    if (FitPoints(in.host(), a, b, method, &fitted, &error))
      out = std::make_unique<Calibration>(SmartPtr<IUnknown>(fitted.get()), L"CalibrationBestFit");
  }
  if (!out) Raise(error);
  return out;
}

py::array_t<double> Triangulate(py::list cameras, py::handle points) {
  if (cameras.size() < 2)
    BadInput("triangulate needs at least two cameras (got " + std::to_string(cameras.size()) + ")");
  std::vector<Camera*> held;
  std::vector<py::object> keep;  // the cameras stay alive while the GIL is released
  for (size_t k = 0; k < cameras.size(); ++k) {
    keep.push_back(cameras[k]);
    if (!py::isinstance<Camera>(cameras[k])) BadInput("cameras[" + std::to_string(k) + "] is not a zeltrim camera");
    held.push_back(cameras[k].cast<Camera*>());
  }
  if (points.is_none() || !py::isinstance<py::sequence>(points))
    BadInput("points must be a list of (N, 2) arrays, one per camera");
  const py::sequence list = py::reinterpret_borrow<py::sequence>(points);
  if (list.size() != held.size())
    BadInput("points holds " + std::to_string(list.size()) + " arrays for " + std::to_string(held.size()) + " cameras");
  std::vector<std::vector<Point3>> image;
  for (size_t k = 0; k < list.size(); ++k) {
    image.push_back(ToPoints(CheckPoints(list[k], "points[" + std::to_string(k) + "]", 2)));
    if (image[k].size() != image[0].size())
      BadInput("points[" + std::to_string(k) + "] holds " + std::to_string(image[k].size()) + " points, points[0] " +
               std::to_string(image[0].size()));
  }
  const size_t n = image[0].size();
  py::array_t<double> out({static_cast<py::ssize_t>(n), static_cast<py::ssize_t>(3)});
  double* dst = out.mutable_data();
  TaskError error;
  bool failed = false;
  size_t row = 0;
  {
    py::gil_scoped_release release;
    InModule in;
    SmartPtr<ICamera3DCalibration> collection = in.host().Create<ICamera3DCalibration>(L"Camera3DCalibration");
    if (!collection) {
      failed = true;
      TaskFail(&error, "Camera3DCalibration: " + in.host().Error(), 1, E_FAIL);
    }
    std::vector<ICamera3DTransform*> rays;
    for (size_t k = 0; !failed && k < held.size(); ++k) {
      ICamera3DTransform* camera = held[k]->transform();
      if (!camera || collection->Add(camera) < 0) {
        failed = true;
        TaskFail(&error, "the module did not take camera " + std::to_string(k), 1, E_FAIL);
      }
      rays.push_back(camera);
    }
    std::vector<Point3> line(held.size());
    for (; !failed && row < n; ++row) {
      for (size_t k = 0; k < held.size(); ++k) line[k] = image[k][row];
      const Triangulated result = TriangulatePoint(in.host(), collection, rays, line, dst + 3 * row, &error);
      if (result == Triangulated::kDegenerate) dst[3 * row] = dst[3 * row + 1] = dst[3 * row + 2] = NAN;
      failed = result == Triangulated::kFailed;
    }
    collection = SmartPtr<ICamera3DCalibration>();
  }
  if (failed) {
    error.message = "row " + std::to_string(row - 1) + ": " + error.message;
    Raise(error);
  }
  return out;
}

std::unique_ptr<Calibration> Load(py::handle path) {
  const std::string file = Absolute(path);
  std::string problem;
  std::unique_ptr<Calibration> out;
  {
    py::gil_scoped_release release;
    InModule in;
    SmartPtr<IUnknown> object;
    std::wstring name;
    problem = LoadCalibrationFile(in.host(), file, &object, &name);
    if (problem.empty()) out = Wrap(object, name, in.host());
  }
  if (!out) BadInput("cannot load " + file + ": " + problem);
  return out;
}

}  // namespace

PYBIND11_MODULE(zeltrim, m) {
  m.doc() =
      "Zeltrim.so from Python: camera calibration, best-fit and loaded calibrations that convert\n"
      "NumPy arrays of points. Errors raise zeltrim.Error (the module failed) or zeltrim.InputError\n"
      "(input refused before it reached the module); both carry .code (the result code), .status\n"
      "(zeltrim's exit status) and .message (the line zeltrim prints).";

  g_Error = PyErr_NewException("zeltrim.Error", PyExc_RuntimeError, nullptr);
  py::object bases = py::make_tuple(py::handle(g_Error), py::handle(PyExc_ValueError));
  g_InputError = PyErr_NewException("zeltrim.InputError", bases.ptr(), nullptr);
  m.attr("Error") = py::handle(g_Error);
  m.attr("InputError") = py::handle(g_InputError);
  m.attr("E_FAIL") = static_cast<unsigned>(E_FAIL);
  m.attr("E_INVALIDARG") = static_cast<unsigned>(E_INVALIDARG);
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const Failure& f) {
      PyObject* type = f.status == 2 ? g_InputError : g_Error;
      py::object error = py::reinterpret_steal<py::object>(PyObject_CallFunction(type, "s", f.message.c_str()));
      if (!error) return;
      error.attr("code") = static_cast<unsigned>(f.code);
      error.attr("status") = f.status;
      error.attr("message") = f.message;
      PyErr_SetObject(type, error.ptr());
    }
  });

  try {
    LoadModule();
  } catch (const std::exception& e) {
    throw py::import_error(e.what());
  }
  m.attr("home") = g_Home;

  py::class_<Calibration>(m, "Calibration",
                          "An object of the module: a calibration that converts points, or a camera.")
      .def_property_readonly("kind", &Calibration::kind, "The module's class name, e.g. 'CalibrationBestFit'.")
      .def_property_readonly("name", &Calibration::name, "The name in the calibration's info block ('' when none).")
      .def_property_readonly("parameters", &Calibration::parameters,
                             "The object's named parameters as a dict (numbers, whole numbers and texts).")
      .def(
          "convert", [](const Calibration& c, py::handle points) { return c.map(points, false); }, py::arg("points"),
          "Converts an (N, 2) or (N, 3) array of points in one call; returns an array of the same shape\n"
          "(z is 0 going in for (N, 2), and dropped coming out).")
      .def(
          "revert", [](const Calibration& c, py::handle points) { return c.map(points, true); }, py::arg("points"),
          "Undoes convert on an (N, 2) or (N, 3) array; returns an array of the same shape.")
      .def("save", &Calibration::save, py::arg("path"),
           "Saves the object; the extension picks the form: .xml XML, .t... (e.g. .tCAL) folder stream,\n"
           "any other the text form. A relative path is taken from the working folder.")
      .def("__repr__", [](const Calibration& c) { return "<zeltrim." + c.kind() + ">"; });

  py::class_<Camera, Calibration>(m, "Camera",
                                  "A camera: Camera3DTrinsic (calibrate, intrinsics and pose) or Camera3DTransform\n"
                                  "(resect, the camera matrix only). Intrinsic figures are None for the latter.")
      .def_property_readonly("fx", [](const Camera& c) { return c.figure(&Camera::fx_); }, "Focal length in x, pixels.")
      .def_property_readonly("fy", [](const Camera& c) { return c.figure(&Camera::fy_); }, "Focal length in y, pixels.")
      .def_property_readonly("skew", [](const Camera& c) { return c.figure(&Camera::skew_); }, "Skew, pixels.")
      .def_property_readonly("cx", [](const Camera& c) { return c.figure(&Camera::cx_); }, "Principal point x, pixels.")
      .def_property_readonly("cy", [](const Camera& c) { return c.figure(&Camera::cy_); }, "Principal point y, pixels.")
      .def_property_readonly("k1", [](const Camera& c) { return c.figure(&Camera::k1_); },
                             "First radial coefficient, estimated on the last view, not applied.")
      .def_property_readonly("k2", [](const Camera& c) { return c.figure(&Camera::k2_); },
                             "Second radial coefficient, estimated on the last view, not applied.")
      .def_property_readonly("max_error", &Camera::max_error,
                             "Largest reprojection error in pixels (for a calibration: of the last view only).")
      .def_property_readonly("sd_error", &Camera::sd_error,
                             "Standard reprojection error in pixels over all points, N - 1 in the divisor.")
      .def_property_readonly("views", &Camera::views,
                             "Per view, as the calibration logs them: dicts of view, max_error, sd_error\n"
                             "(empty for a loaded or resected camera).")
      .def_property_readonly("intrinsic", &Camera::intrinsic, "The intrinsics A, 3 x 3 (None without them).")
      .def_property_readonly("extrinsic", &Camera::extrinsic,
                             "The pose of the last view, model to camera, 4 x 4 (None without it).")
      .def_property_readonly("combined", &Camera::combined, "The camera matrix P, 3 x 4: image ~ P [X Y Z 1].")
      .def("project", &Camera::project, py::arg("points"),
           "Carries an (N, 3) (or (N, 2), z = 0) array of world points to an (N, 2) array of image points.");

  m.def("objects", &Objects,
        "The objects the module creates by name, as zeltrim objects lists them: {name: provided}.");
  m.def("calibrate", &Calibrate, py::arg("model"), py::arg("views"), py::arg("image_size") = std::make_pair(640, 480),
        py::arg("mode") = 1,
        "Calibrates a pinhole camera (Camera3DTrinsic) from views of a flat target.\n"
        "model: (N, 2) or (N, 3) target points; views: a list of (N, 2) image point arrays, row i\n"
        "matching row i of the model; image_size: (width, height) in pixels; mode 1 hands the views\n"
        "over as one collection, 0 as one collection per view (3 views at least). Returns a Camera.");
  m.def("resect", &Resect, py::arg("image_points"), py::arg("world_points"),
        "Fits a projective camera (Camera3DTransform) to (N, 2) image points and their (N, 3) world\n"
        "points (6 to 16383 pairs, not all in one plane). Returns a Camera.");
  m.def("fit", &Fit, py::arg("source"), py::arg("target"), py::arg("method") = 0,
        "Fits a best-fit calibration (CalibrationBestFit) from source to target points, (N, 2) or\n"
        "(N, 3) each. method: 0 affine (plane homography for a flat source), 1 rigid, 2 rigid with\n"
        "scale, 3 and 4 the eigenvector forms. Returns a Calibration.");
  m.def("triangulate", &Triangulate, py::arg("cameras"), py::arg("points"),
        "The world points that two or more cameras see: cameras a list of Camera, points a list of\n"
        "(N, 2) image point arrays, one per camera. Returns an (N, 3) array; a row whose rays fix no\n"
        "single point is NaN.");
  m.def("load", &Load, py::arg("path"),
        "Loads any calibration file of the module (.xml or a folder stream such as .tCAL) and returns\n"
        "a Camera for cameras, else a Calibration.");
  m.def("_live_objects", []() { return g_Live.load(); }, "How many module objects Python holds (for tests).");
}
