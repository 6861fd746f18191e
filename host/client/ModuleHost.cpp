#include "host/client/ModuleHost.h"

#include "host/client/CalibrationFile.h"
#include "frame/ModuleLoader.h"

#include <limits.h>
#include <unistd.h>

#include <cstdlib>
#include <cwchar>

namespace {

tagREFString Ref(const wchar_t* text) { return tagREFString{static_cast<int32_t>(std::wcslen(text)), text}; }

}  // namespace

bool ModuleHost::Load(const std::string& installDir) {
  if (chdir(installDir.c_str()) != 0) {
    m_Error = "cannot enter the installation folder " + installDir;
    return false;
  }
  ModuleEntryPoints collections;
  if (!ModuleOpen("./_binlinux/CollectionsEx.so", &collections, &m_Error)) {
    m_Error = "cannot load ./_binlinux/CollectionsEx.so: " + m_Error;
    return false;
  }
  void* creator = nullptr;
  if (!collections.create || collections.create(Ref(L"GlobalComponentCollection"), &creator) < 0 || !creator) {
    m_Error = "CollectionsEx.so has no GlobalComponentCollection";
    return false;
  }
  IID iid = IID_IComponentCollection;
  void* components = nullptr;
  if (reinterpret_cast<CreatorFn>(creator)(nullptr, &iid, &components) < 0 || !components) {
    m_Error = "cannot create the global component collection";
    return false;
  }
  m_Components.Attach(static_cast<IComponentCollection*>(components));
  m_Components->RegisterInstance(14, L"EventLogGlobal", &m_Log);

  ModuleEntryPoints module;
  if (!ModuleOpen("./_binlinux/Zeltrim.so", &module, &m_Error)) {
    m_Error = "cannot load ./_binlinux/Zeltrim.so: " + m_Error;
    return false;
  }
  m_CreateFunction = module.create;
  if (!module.initialize || !m_CreateFunction) {
    m_Error = "Zeltrim.so lacks its entry points";
    return false;
  }
  module.initialize(nullptr, m_Components.get());
  return true;
}

ModuleHost::~ModuleHost() {
  if (m_Components) m_Components->RegisterInstance(14, L"EventLogGlobal", nullptr);
}

bool ModuleHost::Provides(const wchar_t* name) {
  void* creator = nullptr;
  return m_CreateFunction && m_CreateFunction(Ref(name), &creator) == S_OK && creator;
}

bool ModuleHost::CreateRaw(const wchar_t* name, const IID& iid, void** object) {
  *object = nullptr;
  void* creator = nullptr;
  if (!m_CreateFunction || m_CreateFunction(Ref(name), &creator) != S_OK || !creator) {
    m_Error = "this build of Zeltrim.so does not provide the object";
    return false;
  }
  IID asked = iid;
  if (reinterpret_cast<CreatorFn>(creator)(nullptr, &asked, object) < 0 || !*object) {
    m_Error = "the object could not be created";
    return false;
  }
  return true;
}

std::string ExecutableFolder() {
  char path[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
  if (n <= 0) return ".";
  path[n] = '\0';
  std::string folder(path);
  const size_t slash = folder.rfind('/');
  return slash == std::string::npos ? "." : (slash == 0 ? "/" : folder.substr(0, slash));
}

std::string AbsolutePath(const std::string& path, const std::string& startDir) {
  if (path.empty() || path == "-" || path[0] == '/') return path;
  return startDir + "/" + path;
}

SmartPtr<IString> ModuleHost::NewString(const std::string& text) {
  SmartPtr<ICreatableString> s = CreateHost<ICreatableString>(L"CreatableString");
  if (!s) return SmartPtr<IString>();
  std::wstring wide(text.size() + 1, L'\0');
  const size_t n = std::mbstowcs(&wide[0], text.c_str(), wide.size());
  if (n == static_cast<size_t>(-1))
    wide.assign(text.begin(), text.end());
  else
    wide.resize(n);
  s->SetString(static_cast<int>(wide.size()), wide.c_str());
  return SmartPtr<IString>(s.get());
}

HRESULT ModuleHost::Archive(IUnknown* object, const std::string& path, bool save) {
  const client::FileReport report = save ? client::SaveFile(m_Components.get(), object, path)
                                         : client::LoadFile(m_Components.get(), object, path);
  if (report.ok) return S_OK;
  m_Error = report.problem;
  return E_FAIL;
}
