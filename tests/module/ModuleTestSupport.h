// The module tests' fixture and helpers: Zeltrim.so loaded through the dynamic loader with
// the reference host, from the build folder that holds _binlinux/, as a framework host does
// (one load per test process); host strings, point collections, parameter lists, scratch
// files and files saved or loaded through an object's IFileArchive.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cwchar>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "frame/ModuleObjects.h"
#include "frame/Object.h"

typedef HRESULT (*CreateFunctionFn)(tagREFString, void**);
typedef HRESULT (*InitializeModuleFn)(void*, IComponentCollection*);
typedef HRESULT (*CreatorFn)(void*, IID*, void**);

// The module's creatable object names, in the order its factory tests them, read from
// its object table (names only: the classes are not linked here).
#define ZELTRIM_FIXTURE_NAME_(Name, ...) ZELTRIM_OBJECT_TEXT(Name),
inline const wchar_t* const kCreatableObjectNames[] = {
    ZELTRIM_MODULE_OBJECTS(ZELTRIM_FIXTURE_NAME_, ZELTRIM_FIXTURE_NAME_)};

inline tagREFString Ref(const wchar_t* text) { return tagREFString{static_cast<int32_t>(std::wcslen(text)), text}; }

struct LoadedModule {
  void* module = nullptr;
  CreateFunctionFn createFunction = nullptr;
  InitializeModuleFn initializeModule = nullptr;
  IComponentCollection* components = nullptr;  // one reference held for the process

  static LoadedModule& Get() {
    static LoadedModule loaded;
    if (!loaded.module) loaded.Load();
    return loaded;
  }

  void Load() {
    void* peer = dlopen("./_binlinux/CollectionsEx.so", RTLD_NOW);
    ASSERT_NE(peer, nullptr) << dlerror();
    auto peerCreate = reinterpret_cast<CreateFunctionFn>(dlsym(peer, "CreateFunction"));
    ASSERT_NE(peerCreate, nullptr);
    void* creator = nullptr;
    ASSERT_EQ(peerCreate(Ref(L"GlobalComponentCollection"), &creator), S_OK);
    IID iid = IID_IComponentCollection;
    void* collection = nullptr;
    ASSERT_EQ(reinterpret_cast<CreatorFn>(creator)(nullptr, &iid, &collection), S_OK);
    components = static_cast<IComponentCollection*>(collection);

    module = dlopen("./_binlinux/Zeltrim.so", RTLD_NOW);
    ASSERT_NE(module, nullptr) << dlerror();
    createFunction = reinterpret_cast<CreateFunctionFn>(dlsym(module, "CreateFunction"));
    initializeModule = reinterpret_cast<InitializeModuleFn>(dlsym(module, "InitializeModule"));
    ASSERT_NE(createFunction, nullptr);
    ASSERT_NE(initializeModule, nullptr);
    ASSERT_EQ(initializeModule(nullptr, components), 0);
  }

  // A module object by name, queried for I; null when it cannot be made.
  template <class I>
  SmartPtr<I> Create(const wchar_t* name) {
    SmartPtr<I> result;
    void* creator = nullptr;
    if (createFunction(Ref(name), &creator) != S_OK) return result;
    IID iid = I::Iid();
    void* object = nullptr;
    if (reinterpret_cast<CreatorFn>(creator)(nullptr, &iid, &object) == S_OK) result.Attach(static_cast<I*>(object));
    return result;
  }

  // A host object through the global collection.
  template <class I>
  SmartPtr<I> CreateHost(const wchar_t* name) {
    SmartPtr<I> result;
    void* object = nullptr;
    const IID& iid = I::Iid();
    if (components->CreateComponent(static_cast<int>(std::wcslen(name)), name, &iid, &object) == S_OK)
      result.Attach(static_cast<I*>(object));
    return result;
  }
};

// Current reference count of an object, read by an AddRef/Release pair.
inline int RefCount(IUnknown* object) {
  object->AddRef();
  return object->Release();
}

struct P {
  double x, y, z;
};

inline void ExpectNear(const P& got, const P& want, double tolerance) {
  EXPECT_NEAR(got.x, want.x, tolerance);
  EXPECT_NEAR(got.y, want.y, tolerance);
  EXPECT_NEAR(got.z, want.z, tolerance);
}

// `p` through the Convert (or Revert) of a calibration or transform (a pointer or a SmartPtr).
template <class T>
P Converted(const T& t, P p) {
  t->Convert(&p.x, &p.y, &p.z);
  return p;
}
template <class T>
P Reverted(const T& t, P p) {
  t->Revert(&p.x, &p.y, &p.z);
  return p;
}

// The first output of GetFitErrors: the mean error of a fit.
inline double MeanError(IUnknown* fitted) {
  double mean = -1;
  QueryAs<ITransformFitErrors>(fitted)->GetFitErrors(&mean, nullptr, nullptr);
  return mean;
}

inline SmartPtr<IString> Str(const std::wstring& text) {
  SmartPtr<ICreatableString> s = LoadedModule::Get().CreateHost<ICreatableString>(L"CreatableString");
  s->SetString(static_cast<int>(text.size()), text.c_str());
  return SmartPtr<IString>(s.get());
}

inline std::wstring Text(IUnknown* object) {
  SmartPtr<IString> s = QueryAs<IString>(object);
  const wchar_t* p = nullptr;
  int n = 0;
  if (!s || s->GetString(&p, &n) < 0 || !p) return L"";
  return std::wstring(p, static_cast<size_t>(n));
}

// A host points collection holding `points`; null for null.
inline SmartPtr<ISimpleCollection> Points(const std::vector<P>* points) {
  if (!points) return SmartPtr<ISimpleCollection>();
  SmartPtr<IPointsCollection> c = LoadedModule::Get().CreateHost<IPointsCollection>(L"PointsCollection");
  for (const P& p : *points) c->AddPoint(p.x, p.y, p.z);
  return SmartPtr<ISimpleCollection>(c.get());
}
inline SmartPtr<ISimpleCollection> Points(const std::vector<P>& points) { return Points(&points); }

inline P PointAt(ISimpleCollection* c, int i) {
  P p{NAN, NAN, NAN};
  SmartPtr<IUnknown> item;
  if (c && c->get_Item(i, item.Out()) >= 0)
    if (SmartPtr<IPoint> point = QueryAs<IPoint>(item)) point->GetXYZ(&p.x, &p.y, &p.z);
  return p;
}

// The count of a collection or vector (a pointer or a SmartPtr); -1 for null.
template <class C>
int Count(const C& c) {
  int n = -1;
  if (c) c->get_Count(&n);
  return n;
}

inline std::vector<double> Values(IDblVector* v) {
  std::vector<double> values(static_cast<size_t>(std::max(Count(v), 0)));
  for (size_t i = 0; i < values.size(); ++i) v->get_Item(static_cast<int>(i), &values[i]);
  return values;
}

// A host parameter collection built item by item (numbers or texts).
struct ParameterList {
  SmartPtr<IParametersCreatable> list = LoadedModule::Get().CreateHost<IParametersCreatable>(L"ParametersCreatable");
  ParameterList& Number(const wchar_t* name, double value) {
    return Add(name, [&](IVariant* v) { v->put_Double(value); });
  }
  ParameterList& Textual(const wchar_t* name, const wchar_t* text) {
    return Add(name, [&](IVariant* v) { v->put_String(Str(text)); });
  }
  template <class Set>
  ParameterList& Add(const wchar_t* name, Set set) {
    SmartPtr<IVariant> v = LoadedModule::Get().CreateHost<IVariant>(L"Variant");
    set(v.get());
    list->Add(Str(name), v, nullptr, 0);
    return *this;
  }
};

// The named parameter of an object as a double (NaN when absent).
inline double Parameter(IUnknown* object, const wchar_t* name) {
  SmartPtr<INamedCollection> params;
  QueryAs<IParametricObject>(object)->GetParameters(params.Out(), 0);
  int index = -1;
  if (!params || params->get_Index(Str(name), &index) < 0) return NAN;
  SmartPtr<IUnknown> item;
  params->get_Item(index, item.Out());
  SmartPtr<IVariant> v = QueryAs<IVariant>(item);
  return v ? v->get_Double() : NAN;
}

// A scratch file name unique to this process, in memory (/dev/shm) where the machine has it.
inline std::string TempPath(const std::string& name) {
  static const std::string folder = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  return folder + "/zeltrim_module_" + std::to_string(getpid()) + "_" + name;
}

inline std::string ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Save or Load through the object's IFileArchive, under `path`.
inline HRESULT Archive(IUnknown* object, const std::string& path, bool save) {
  SmartPtr<IFileArchive> archive = QueryAs<IFileArchive>(object);
  if (!archive) return E_NOINTERFACE;
  archive->put_Filename(Str(std::wstring(path.begin(), path.end())));
  return save ? archive->Save() : archive->Load();
}

// The values of a transform's live matrix: 16 of a homogeneous transform, 12 of a camera.
inline std::vector<double> MatrixOf(IUnknown* transform) {
  double* m = nullptr;
  if (SmartPtr<IHomogeneousTransform> h = QueryAs<IHomogeneousTransform>(transform))
    return h->GetMatrix(&m, nullptr, nullptr) >= 0 && m ? std::vector<double>(m, m + 16) : std::vector<double>();
  if (SmartPtr<ICamera3DTransform> c = QueryAs<ICamera3DTransform>(transform))
    return c->GetMatrix(&m, nullptr, nullptr) >= 0 && m ? std::vector<double>(m, m + 12) : std::vector<double>();
  return {};
}

// A plane homography with perspective, and a 5 x 4 grid of points with their images.
inline P Homography(const P& p) {
  const double w = 0.0005 * p.x + 0.001 * p.y + 1;
  return {(2.0 * p.x + 0.1 * p.y + 30) / w, (-0.2 * p.x + 1.8 * p.y + 12) / w, 0};
}
inline void Grid(std::vector<P>* source, std::vector<P>* target, P (*map)(const P&) = Homography) {
  for (int i = 0; i < 5; ++i)
    for (int j = 0; j < 4; ++j) {
      source->push_back({i * 25.0, j * 20.0, 0});
      target->push_back(map(source->back()));
    }
}

inline SmartPtr<ICalibrationBestFit> NewCalibration() {
  return LoadedModule::Get().Create<ICalibrationBestFit>(L"CalibrationBestFit");
}
