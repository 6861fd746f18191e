// Loads Zeltrim.so the way a framework host does: the global component collection from
// the "CollectionsEx" peer, then the module's InitializeModule and CreateFunction. Part of
// the host library (zeltrim_client) that any host program links.
#pragma once

#include <cwchar>
#include <string>

#include "frame/Object.h"
#include "host/client/EventLog.h"

// A host object through a global component collection; null when the host lacks it.
template <class I>
SmartPtr<I> HostObject(IComponentCollection* components, const wchar_t* name) {
  SmartPtr<I> result;
  void* p = nullptr;
  const IID& iid = I::Iid();
  if (components && components->CreateComponent(static_cast<int>(std::wcslen(name)), name, &iid, &p) >= 0 && p)
    result.Attach(static_cast<I*>(p));
  return result;
}

class ModuleHost {
 public:
  ModuleHost() = default;
  ModuleHost(const ModuleHost&) = delete;
  ModuleHost& operator=(const ModuleHost&) = delete;
  // Withdraws the event log from the collection before it goes.
  ~ModuleHost();
  // Changes to `installDir` (the folder holding _binlinux/) and loads the module.
  // On failure, Error() says why.
  bool Load(const std::string& installDir);
  const std::string& Error() const { return m_Error; }

  // Creates a module object by name; null (and Error()) when the module lacks it.
  template <class I>
  SmartPtr<I> Create(const wchar_t* name) {
    SmartPtr<I> result;
    void* p = nullptr;
    if (CreateRaw(name, I::Iid(), &p) && p) result.Attach(static_cast<I*>(p));
    return result;
  }
  bool CreateRaw(const wchar_t* name, const IID& iid, void** object);
  // Whether the module's factory knows the name (a creator is handed out).
  bool Provides(const wchar_t* name);

  IComponentCollection* Components() const { return m_Components.get(); }
  // The "EventLogGlobal" registered with the collection by Load.
  EventLog& Log() { return m_Log; }

  // A host object through the global collection; null when the host lacks it.
  template <class I>
  SmartPtr<I> CreateHost(const wchar_t* name) {
    return HostObject<I>(m_Components.get(), name);
  }
  // A host string holding `text` (null when the host has no strings).
  SmartPtr<IString> NewString(const std::string& text);
  // Saves or loads an object through its IFileArchive under `path`, with the checks of
  // host/client/CalibrationFile.h; E_FAIL and Error() saying what is wrong when they fail.
  HRESULT Archive(IUnknown* object, const std::string& path, bool save);

 private:
  typedef HRESULT (*CreateFn)(tagREFString, void**);
  typedef HRESULT (*InitFn)(void*, IComponentCollection*);
  typedef HRESULT (*CreatorFn)(void*, IID*, void**);
  CreateFn m_CreateFunction = nullptr;
  EventLog m_Log;
  SmartPtr<IComponentCollection> m_Components;
  std::string m_Error;
};

// The folder that holds this executable (and _binlinux/ beside it).
std::string ExecutableFolder();
// An absolute form of a path given relative to the folder the user started in.
std::string AbsolutePath(const std::string& path, const std::string& startDir);
