// Shared by the persistence tests: a probe class built from the templates, host stream
// helpers, and scratch files.
#pragma once

#include "tests/unit/TestText.h"
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include "frame/Components.h"
#include "frame/Conversions.h"
#include "persist/CalibrationInfoImpl.h"
#include "persist/FileArchiveImpl.h"

namespace persist_test {

using test_text::Str;
using test_text::Take;
using test_text::ViewText;

// The whole text of a stream, through its IString.
inline std::wstring StreamText(IUnknown* stream) { return test_text::TextOf(stream); }

// XML text without its line ends and indentation, for comparing with one line.
inline std::wstring Flat(const std::wstring& text) { return std::regex_replace(text, std::wregex(L"\r\n *"), L""); }

// A host XML stream, empty for writing.
inline SmartPtr<IXMLStreamEx> XmlStream() {
  SmartPtr<IXMLStreamEx> xml = CreateHostObject<IXMLStreamEx>(L"XMLStreamEx");
  if (xml) xml->Attach(nullptr, 0, 0);
  return xml;
}

// A host XML stream over `text` (kept alive by the caller), at the content of its one
// top-level element.
inline SmartPtr<IDataStream> XmlContent(const std::wstring& text) {
  SmartPtr<IXMLStream> reader = CreateHostObject<IXMLStream>(L"XMLStream");
  if (!reader) return SmartPtr<IDataStream>();
  reader->Attach(const_cast<wchar_t*>(text.c_str()), static_cast<unsigned long>(text.size() * sizeof(wchar_t)), 0);
  tagREFString tag{0, nullptr}, name{0, nullptr};
  SmartPtr<IUnknown> content;
  if (reader->NextTag(&tag) < 0 || reader->ReadElement(tag.m_Length, tag.m_Text, &name, content.Out(), 0) < 0)
    return SmartPtr<IDataStream>();
  return QueryAs<IDataStream>(content);
}

inline SmartPtr<IFolderStream> FolderStream() {
  SmartPtr<IFolderStream> folder = CreateHostObject<IFolderStream>(L"FolderStream");
  if (folder) folder->Open(nullptr, 1000, 1);
  return folder;
}

// A scratch folder under /tmp, removed with its files at the end of the test.
class ScratchFolder {
 public:
  ScratchFolder() {
    char pattern[] = "/tmp/zeltrim_persist_XXXXXX";
    const char* made = mkdtemp(pattern);
    m_Path = made ? made : "/tmp";
  }
  ~ScratchFolder() {
    for (const std::string& file : m_Files) std::remove(file.c_str());
    rmdir(m_Path.c_str());
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  // A path in the folder, removed later; `name` is UTF-8.
  std::string File(const std::string& name) {
    m_Files.push_back(m_Path + "/" + name);
    return m_Files.back();
  }
  std::string Write(const std::string& name, const std::string& bytes) {
    const std::string path = File(name);
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }
  const std::string& Path() const { return m_Path; }

 private:
  std::string m_Path;
  std::vector<std::string> m_Files;
};

inline std::string ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return "<missing>";
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline std::wstring Wide(const std::string& ascii) { return std::wstring(ascii.begin(), ascii.end()); }

// Points ZELTRIM_REGISTRY at a settings file for the life of the object.
struct RegistryFile {
  RegistryFile(ScratchFolder& folder, const std::string& text) {
    setenv("ZELTRIM_REGISTRY", folder.Write("zeltrim.ini", text).c_str(), 1);
  }
  ~RegistryFile() { unsetenv("ZELTRIM_REGISTRY"); }
};

// A calibration-like object made of the templates: the info block is its whole content.
class CPersistProbe : public CObject<CPersistProbe>,
                      public IObjectInfoImpl<CPersistProbe>,
                      public ICALIBRATIONInfoImpl<CPersistProbe>,
                      public IFileArchiveImpl<CPersistProbe>,
                      public IDataPersist {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<CObject<CPersistProbe>*>(this), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
        QueryRoute(iid, IID_ICalibrationInfo, static_cast<ICalibrationInfo*>(this), object) ||
        QueryRoute(iid, IID_IFileArchive, static_cast<IFileArchive*>(this), object) ||
        QueryRoute(iid, IID_IDataPersist, static_cast<IDataPersist*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }

  // One implementation behind IDataPersist and ICalibrationInfo.
  HRESULT Save(IDataStream* stream, int options) override {
    return ICALIBRATIONInfoImpl<CPersistProbe>::Save(stream, options);
  }
  HRESULT Load(IDataStream* stream, int options) override {
    ++m_Loads;
    m_LastLoadOptions = options;
    return ICALIBRATIONInfoImpl<CPersistProbe>::Load(stream, options);
  }
  // IFileArchive's Save/Load are hidden by the two above; reach them by name.
  HRESULT SaveFile() { return IFileArchiveImpl<CPersistProbe>::Save(); }
  HRESULT LoadFile() { return IFileArchiveImpl<CPersistProbe>::Load(); }

  CDateTimer& Time() { return m_CALIBTime; }
  IFileArchive* Archive() { return this; }
  ICalibrationInfo* Info() { return this; }
  std::wstring Name() {
    IString* text = nullptr;
    get_CALIBName(&text);
    return Take(text);
  }

  int m_Loads = 0;
  int m_LastLoadOptions = -1;
};

inline const tagREFString CPersistProbe::m_ObjectName = {12, L"PersistProbe"};

// Owns one reference to a new probe.
struct Probe {
  Probe() : p(new CPersistProbe()) {}  // born with one reference
  ~Probe() { p->Release(); }
  Probe(const Probe&) = delete;
  Probe& operator=(const Probe&) = delete;
  CPersistProbe* operator->() const { return p; }
  CPersistProbe* p;
};

}  // namespace persist_test
