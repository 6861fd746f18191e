#include "frame/ModuleLoader.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

std::string ModulePath(tagREFString module) {
  std::string path = "./_binlinux/";
  if (module.m_Length > 0 && module.m_Text) {
    const std::wstring name(module.m_Text, static_cast<size_t>(module.m_Length));
    std::string narrow(static_cast<size_t>(module.m_Length) * MB_CUR_MAX + 1, '\0');
    const size_t n = std::wcstombs(&narrow[0], name.c_str(), narrow.size() - 1);
    if (n != static_cast<size_t>(-1)) path.append(narrow.c_str(), n);
  }
  path += ".so";
  return path;
}

bool ModuleOpen(const std::string& path, ModuleEntryPoints* entry, std::string* error) {
  *entry = ModuleEntryPoints();
  void* handle = dlopen(path.c_str(), RTLD_NOW);
  if (!handle) {
    const char* message = dlerror();
    if (error) *error = message ? message : "";
    dlerror();  // cleared for the next caller
    return false;
  }
  entry->create = reinterpret_cast<CREATEFUNCTION>(dlsym(handle, "CreateFunction"));
  entry->initialize = reinterpret_cast<INITIALIZEMODULE>(dlsym(handle, "InitializeModule"));
  return true;
}

CREATORFUNCTION ModuleCreator(const std::string& path, IComponentCollection* global, tagREFString object) {
  ModuleEntryPoints entry;
  std::string error;
  if (!ModuleOpen(path, &entry, &error)) {
    std::printf("Module not available %s, error %s\n", path.c_str(), error.c_str());
    return nullptr;
  }
  if (!entry.create) return nullptr;
  // Every module shares the caller's collection.
  if (entry.initialize && global) entry.initialize(nullptr, global);
  void* creator = nullptr;
  entry.create(object, &creator);
  return reinterpret_cast<CREATORFUNCTION>(creator);
}
