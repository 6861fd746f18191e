// Synthetic cameras of known truth shared by the camera tests: P = s K [R | t], its images
// of world points, cameras of either class holding it, and the helpers the camera tests
// have in common (fit errors, object names, XML element content, model functions).
#pragma once

#include <dlfcn.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "tests/module/PropertySuite.h"

namespace camera_test {

// P = scale K [R | t] by rows, R = Rz(c) Ry(b) Rx(a); the camera centre is -R^T t. The
// default is a camera 10 units from the origin, looking at it.
struct View {
  double k[3][3] = {{800, 0.5, 320}, {0, 780, 240}, {0, 0, 1}};
  double r[3][3];
  double t[3];
  double p[3][4];
  explicit View(double a = 0.2, double b = -0.3, double c = 0.1, double tx = 0.3, double ty = -0.2, double tz = 10.0,
                double scale = 1.0, const double (*intrinsics)[3] = nullptr)
      : t{tx, ty, tz} {
    if (intrinsics)
      for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) k[i][j] = intrinsics[i][j];
    const double ca = std::cos(a), sa = std::sin(a), cb = std::cos(b), sb = std::sin(b), cc = std::cos(c),
                 sc = std::sin(c);
    const double rot[3][3] = {{cc * cb, cc * sb * sa - sc * ca, cc * sb * ca + sc * sa},
                              {sc * cb, sc * sb * sa + cc * ca, sc * sb * ca - cc * sa},
                              {-sb, cb * sa, cb * ca}};
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 4; ++j) {
        if (j < 3) r[i][j] = rot[i][j];
        double sum = 0;
        for (int m = 0; m < 3; ++m) sum += k[i][m] * (j < 3 ? rot[m][j] : t[m]);
        p[i][j] = scale * sum;
      }
  }
  P Image(const P& w) const {
    const double d = p[2][0] * w.x + p[2][1] * w.y + p[2][2] * w.z + p[2][3];
    return {(p[0][0] * w.x + p[0][1] * w.y + p[0][2] * w.z + p[0][3]) / d,
            (p[1][0] * w.x + p[1][1] * w.y + p[1][2] * w.z + p[1][3]) / d, 0};
  }
};

// A camera of class `name` with P written by columns into its live matrix (a
// Camera3DTrinsic keeps the parts of a new one).
template <class I = ICamera3DTransform>
SmartPtr<I> CameraOf(const wchar_t* name, const double (&p)[3][4]) {
  SmartPtr<I> camera = LoadedModule::Get().Create<I>(name);
  double* m = nullptr;
  SmartPtr<ICamera3DTransform>(camera.get())->GetMatrix(&m, nullptr, nullptr);
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) m[3 * c + r] = p[r][c];
  return camera;
}
inline SmartPtr<ICamera3DTransform> TransformCamera(const View& v) { return CameraOf(L"Camera3DTransform", v.p); }

// A Camera3DTrinsic that knows its parts: K and the pose written through ids 1 and 2,
// P rebuilt from them (id 9).
inline SmartPtr<ICamera3DTransform> TrinsicCamera(const View& v) {
  SmartPtr<ICamera3DTrinsic> camera = LoadedModule::Get().Create<ICamera3DTrinsic>(L"Camera3DTrinsic");
  double *a = nullptr, *e = nullptr;
  camera->GetMatrix(1, &a, nullptr, nullptr);
  camera->GetMatrix(2, &e, nullptr, nullptr);
  for (int c = 0; c < 3; ++c)
    for (int r = 0; r < 3; ++r) a[3 * c + r] = v.k[r][c], e[4 * c + r] = v.r[r][c];
  for (int r = 0; r < 3; ++r) e[12 + r] = v.t[r];
  camera->GetMatrix(9, nullptr, nullptr, nullptr);
  return SmartPtr<ICamera3DTransform>(camera.get());
}

// `count` world points in a box of side 4 about the origin and their images by `camera`,
// with Gaussian noise of `noise` pixels per axis.
inline void Scene(const View& camera, int count, std::vector<P>* image, std::vector<P>* world, double noise = 0,
                  unsigned seed = 7) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> box(-2.0, 2.0);
  std::normal_distribution<double> pixel(0.0, 1.0);
  for (int i = 0; i < count; ++i) {
    world->push_back({box(random), box(random), box(random)});
    P u = camera.Image(world->back());
    if (noise > 0) u.x += noise * pixel(random), u.y += noise * pixel(random);
    image->push_back(u);
  }
}

// GetFitErrors's three outputs in their order.
struct FitErrors {
  double error2 = -1, error = -1, sd = -1;
};
inline FitErrors ErrorsOf(IUnknown* object) {
  FitErrors e;
  QueryAs<ITransformFitErrors>(object)->GetFitErrors(&e.error2, &e.error, &e.sd);
  return e;
}

inline std::wstring NameOf(IUnknown* object) {
  tagREFString name{0, nullptr};
  SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(object);
  if (!info || info->GetName(0, &name) < 0) return L"";
  return std::wstring(name.m_Text, static_cast<size_t>(name.m_Length));
}

// The content of the first element of an XML document, as a file's load hands it over.
inline SmartPtr<IDataStream> ElementContent(const std::wstring& document) {
  SmartPtr<IXMLStream> in = LoadedModule::Get().CreateHost<IXMLStream>(L"XMLStream");
  tagREFString tag{0, nullptr};
  SmartPtr<IUnknown> content;
  if (in->Attach(const_cast<wchar_t*>(document.data()), static_cast<unsigned long>(document.size() * sizeof(wchar_t)),
                 0) < 0 ||
      in->NextTag(&tag) < 0 || in->ReadElement(tag.m_Length, tag.m_Text, nullptr, content.Out(), 0) < 0)
    return {};
  return QueryAs<IDataStream>(content);
}

// The model function a class exports for the minimiser, by its symbol.
typedef void (*Evaluate)(const double*, int, const void*, double*, int*);
inline Evaluate ModelFunction(const char* symbol) {
  return reinterpret_cast<Evaluate>(dlsym(LoadedModule::Get().module, symbol));
}

}  // namespace camera_test
