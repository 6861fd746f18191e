// Loads Zeltrim.so through the dynamic loader with the reference host, from the build
// folder that holds _binlinux/, as a framework host does. One load per test process.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cwchar>

#include "frame/ModuleObjects.h"
#include "frame/Object.h"

typedef HRESULT (*CreateFunctionFn)(tagREFString, void**);
typedef HRESULT (*InitializeModuleFn)(void*, IComponentCollection*);
typedef HRESULT (*CreatorFn)(void*, IID*, void**);

// The module's creatable object names, in the order its factory tests them, read from
// its object table (names only: the classes are not linked here).
#define ZELTRIM_FIXTURE_BUILT_(Name, Class) ZELTRIM_OBJECT_TEXT(Name),
#define ZELTRIM_FIXTURE_NOT_BUILT_(Name) ZELTRIM_OBJECT_TEXT(Name),
inline const wchar_t* const kCreatableObjectNames[] = {
    ZELTRIM_MODULE_OBJECTS(ZELTRIM_FIXTURE_BUILT_, ZELTRIM_FIXTURE_NOT_BUILT_)};

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
