// Shared by the persistence tests: a probe class built from the templates, host stream
// helpers, and scratch files.
#pragma once

#include "tests/unit/TestText.h"
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "frame/Components.h"
#include "frame/Conversions.h"
#include "persist/CalibrationInfoImpl.h"
#include "persist/FileArchiveImpl.h"

namespace persist_test {

using test_text::Take;
using test_text::ViewText;

inline std::wstring Trimmed(const std::wstring& text) {
  const size_t begin = text.find_first_not_of(L" \t\r\n");
  if (begin == std::wstring::npos) return std::wstring();
  return text.substr(begin, text.find_last_not_of(L" \t\r\n") - begin + 1);
}

inline SmartPtr<IString> Str(const wchar_t* text) {
  SmartPtr<IString> s;
  s.Attach(ISCreate(text));
  return s;
}

// The whole text of a stream, through its IString.
inline std::wstring StreamText(IUnknown* stream) {
  SmartPtr<IString> text = QueryAs<IString>(stream);
  if (!text) return L"<no text>";
  text->AddRef();
  return Take(text.get());
}

// A host XML stream over `text` (read), or empty for writing when `text` is null.
inline SmartPtr<IXMLStreamEx> XmlStream(const wchar_t* text) {
  SmartPtr<IXMLStreamEx> xml = CreateHostObject<IXMLStreamEx>(L"XMLStreamEx");
  if (!xml) return xml;
  if (text)
    xml->Attach(const_cast<wchar_t*>(text), std::wcslen(text) * sizeof(wchar_t), 0);
  else
    xml->Attach(nullptr, 0, 0);
  return xml;
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
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f) {
      std::fwrite(bytes.data(), 1, bytes.size(), f);
      std::fclose(f);
    }
    return path;
  }
  const std::string& Path() const { return m_Path; }

 private:
  std::string m_Path;
  std::vector<std::string> m_Files;
};

inline std::string ReadBytes(const std::string& path) {
  std::string bytes;
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return "<missing>";
  char chunk[4096];
  size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, f)) > 0) bytes.append(chunk, got);
  std::fclose(f);
  return bytes;
}

inline std::wstring Wide(const std::string& ascii) { return std::wstring(ascii.begin(), ascii.end()); }

// Points ZELTRIM_REGISTRY at a settings file for the life of the object.
class RegistryFile {
 public:
  RegistryFile(ScratchFolder& folder, const std::string& text) {
    const char* old = std::getenv("ZELTRIM_REGISTRY");
    m_HadOld = old != nullptr;
    if (old) m_Old = old;
    setenv("ZELTRIM_REGISTRY", folder.Write("zeltrim.ini", text).c_str(), 1);
  }
  ~RegistryFile() {
    if (m_HadOld)
      setenv("ZELTRIM_REGISTRY", m_Old.c_str(), 1);
    else
      unsetenv("ZELTRIM_REGISTRY");
  }
  RegistryFile(const RegistryFile&) = delete;
  RegistryFile& operator=(const RegistryFile&) = delete;

 private:
  bool m_HadOld = false;
  std::string m_Old;
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

  // A new probe with one reference.
  static CPersistProbe* Create() {
    CPersistProbe* probe = new CPersistProbe();
    probe->m_RefCount = 1;
    return probe;
  }

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
    ++m_Saves;
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

  void SetFilter(const wchar_t* text) {
    SmartPtr<IString> filter = Str(text);
    ArchiveStore(m_Filter, filter.get());
  }
  CDateTimer& Time() { return m_CALIBTime; }
  IFileArchive* Archive() { return this; }
  ICalibrationInfo* Info() { return this; }

  int m_Saves = 0;
  int m_Loads = 0;
  int m_LastLoadOptions = -1;
};

inline const tagREFString CPersistProbe::m_ObjectName = {12, L"PersistProbe"};

// Owns one reference to a new probe.
struct Probe {
  Probe() : p(CPersistProbe::Create()) {}
  ~Probe() { p->Release(); }
  Probe(const Probe&) = delete;
  Probe& operator=(const Probe&) = delete;
  CPersistProbe* operator->() const { return p; }
  CPersistProbe* p;
};

}  // namespace persist_test
