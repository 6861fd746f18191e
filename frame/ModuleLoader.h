// Loading a module of the framework by path: the one way the module (MODULECreateFunction)
// and the reference host's component collection reach a peer. Modules are never unloaded:
// handles are not closed.
#pragma once

#include <string>

#include "frame/ModuleInterfaces.h"

typedef HRESULT (*CREATORFUNCTION)(void* outer, IID* iid, void** object);
typedef HRESULT (*CREATEFUNCTION)(tagREFString name, void** creator);
typedef HRESULT (*INITIALIZEMODULE)(void* reserved, IComponentCollection* components);

// "./_binlinux/<module>.so", relative to the working folder; the name's wide characters
// go through wcstombs (a name it cannot convert leaves the name part empty).
std::string ModulePath(tagREFString module);

// The exported entry points of a module; either may be null when the module lacks it.
struct ModuleEntryPoints {
  CREATEFUNCTION create = nullptr;
  INITIALIZEMODULE initialize = nullptr;
};

// Opens the module at `path` (RTLD_NOW) and looks up its entry points. False when the
// loader refuses it; `error` then holds the loader's message.
bool ModuleOpen(const std::string& path, ModuleEntryPoints* entry, std::string* error);

// A peer's creator of `object`: opens the module (on failure, prints "Module not
// available <path>, error <message>" on standard output), hands `global` to its
// InitializeModule when both exist, then asks its CreateFunction and returns what that
// left (the result code is not looked at). Null when the module cannot be loaded or has
// no CreateFunction.
CREATORFUNCTION ModuleCreator(const std::string& path, IComponentCollection* global, tagREFString object);
