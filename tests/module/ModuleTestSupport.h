// Helpers shared by the module tests: host strings, point collections, parameter lists,
// scratch files and files saved or loaded through an object's IFileArchive.
#pragma once

#include <unistd.h>

#include <cmath>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/module/ModuleFixture.h"

struct P {
  double x, y, z;
};

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

// The count of a collection (simple or named); -1 for null.
template <class C>
int Count(C* c) {
  int n = -1;
  if (c) c->get_Count(&n);
  return n;
}
template <class C>
int Count(const SmartPtr<C>& c) {
  return Count(c.get());
}

// A host parameter collection built item by item (numbers or texts).
struct ParameterList {
  SmartPtr<IParametersCreatable> list = LoadedModule::Get().CreateHost<IParametersCreatable>(L"ParametersCreatable");
  ParameterList& Number(const wchar_t* name, double value) {
    SmartPtr<IVariant> v = LoadedModule::Get().CreateHost<IVariant>(L"Variant");
    v->put_Double(value);
    list->Add(Str(name), v, nullptr, 0);
    return *this;
  }
  ParameterList& Textual(const wchar_t* name, const wchar_t* text) {
    SmartPtr<IVariant> v = LoadedModule::Get().CreateHost<IVariant>(L"Variant");
    v->put_String(Str(text));
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

// A scratch file name in /tmp, unique to this process.
inline std::string TempPath(const std::string& name) {
  return "/tmp/zeltrim_module_" + std::to_string(getpid()) + "_" + name;
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
