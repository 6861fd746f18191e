// The checks every class of the module shares (property_suite_test.cpp) read what is
// particular to a class from its ClassTraits. A class joins with one line in its own test
// file, after its traits:  ZELTRIM_PROPERTY_CLASS(kMyClassTraits);
// Fields left at their defaults mean "the class has no such thing" (no file forms, no fit
// to feed bad input, ...). Where a contract gives an odd result (a load that reports
// E_FAIL after restoring everything, a form that drops a field), the traits say so.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/module/ModuleTestSupport.h"

namespace property {

// An interface the class answers; `sameAs` names another whose pointer it shares.
struct Route {
  const IID* iid;
  const IID* sameAs = nullptr;
};

// A stream form, tried through IFileArchive with a real file (the first letter of
// `extension` picks the form) and through IDataPersist on a host stream of the same kind.
struct Form {
  bool xml;                  // XML text, else a folder stream
  const char* extension;
  HRESULT save = S_OK;       // IDataPersist::Save and Load on that stream
  HRESULT load = S_OK;
  double tolerance = 0;      // numbers after the round trip (text forms keep a few decimals)
  // Snapshot keys (prefixes) that the form does not carry: after a load they keep the
  // values of a new object. "info." is the info block, "errors." the fit errors.
  std::vector<std::string> lost = {};
  // Keys (prefixes) whose values the form neither carries nor resets, so not compared:
  // a conversion through one part that comes back and one that does not.
  std::vector<std::string> changed = {};
};

// Bad input to the class's fit and the result its contract gives (null: no collection).
struct FitCase {
  const char* label;
  const std::vector<P>* source;
  const std::vector<P>* target;
  HRESULT expected;
};

// An entry of GetPages: title, page name and the text of the third item ("" for none).
struct Page {
  const wchar_t* title;
  const wchar_t* page;
  const wchar_t* third;
};

struct ClassTraits {
  const wchar_t* name;
  std::vector<Route> routes;  // every interface answered after IUnknown, in the class's order
  // Puts a new object in a state unlike its defaults (hand-set numbers, a fit).
  std::function<void(IUnknown*)> prepare = [](IUnknown*) {};
  std::vector<Form> forms = {};
  const wchar_t* filter = nullptr;  // text of IFileArchive::get_Filter; null: E_FAIL
  // An extension that names no form: refused and no file, or (the cameras) the
  // write-only text form.
  bool unnamedFormWritesText = false;
  // The first bytes of that text form: 16-bit text after its mark, unless a class says.
  const char* unnamedFormBegins = "\xFF\xFE";
  // IDataPersist on a null stream and on a plain data stream: Save, then Load.
  HRESULT nullStream[2] = {E_FAIL, E_FAIL};
  HRESULT otherStream[2] = {E_FAIL, E_FAIL};
  bool setParametersIgnored = false;              // SetParameters does nothing by contract
  std::vector<std::wstring> parametersNotReadBack = {};  // written by GetParameters, not read by SetParameters
  double revertTolerance = 0;  // Revert(Convert(p)) comes back to p within this
  // Revert is no inverse of Convert (a one-way mapping, a first-order inverse): the
  // class's own tests hold what each does.
  bool convertRevertIsNoRoundTrip = false;
  // GetFitErrors of ITransformFitErrors is a stub with this result (no fit to report).
  HRESULT fitErrorsResult = S_OK;
  std::function<HRESULT(IUnknown*, ISimpleCollection*, ISimpleCollection*)> fit = nullptr;
  std::vector<FitCase> badFits = {};
  std::vector<Page> pages = {};  // empty: not checked here
};

inline std::vector<const ClassTraits*>& Registry() {
  static std::vector<const ClassTraits*> classes;
  return classes;
}

struct Registration {
  explicit Registration(const ClassTraits& traits) { Registry().push_back(&traits); }
};

// The object's IDataPersist on a host stream, wrapped in its element as a file has it.
inline SmartPtr<IDataStream> SavedStream(IUnknown* object, const Form& form, HRESULT* saved, std::vector<char>* image) {
  LoadedModule& m = LoadedModule::Get();
  SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(object);
  void* data = nullptr;
  unsigned long size = 0;
  if (form.xml) {
    SmartPtr<IXMLStreamEx> out = m.CreateHost<IXMLStreamEx>(L"XMLStreamEx");
    out->Attach(nullptr, 0, 0);
    out->BeginObject(object, 0, 0);
    *saved = persist->Save(out, 0);
    out->CloseTag();
    out->GetBuffer(&data, &size);
    image->assign(static_cast<char*>(data), static_cast<char*>(data) + size);
    SmartPtr<IXMLStream> in = m.CreateHost<IXMLStream>(L"XMLStream");
    in->Attach(image->data(), static_cast<unsigned long>(image->size()), 0);
    tagREFString tag{0, nullptr};
    SmartPtr<IUnknown> content;
    if (in->NextTag(&tag) < 0 || in->ReadElement(tag.m_Length, tag.m_Text, nullptr, content.Out(), 0) < 0) return {};
    return QueryAs<IDataStream>(content);
  }
  SmartPtr<IDataStream> out = m.CreateHost<IDataStream>(L"FolderStream");
  out->Open(nullptr, 1000, 1);
  *saved = persist->Save(out, 0);
  out->GetBuffer(&data, &size);
  image->assign(static_cast<char*>(data), static_cast<char*>(data) + size);
  SmartPtr<IDataStream> in = m.CreateHost<IDataStream>(L"FolderStream");
  if (in->Open(image->data(), static_cast<unsigned long>(image->size()), 0) < 0) return {};
  return in;
}

}  // namespace property

#define ZELTRIM_PROPERTY_CLASS(traits) static const property::Registration traits##Joins(traits)
