// "GlobalComponentCollection": every object name the host knows, with its module. One
// instance per process; every module is handed it through InitializeModule.
#pragma once

#include <string>
#include <vector>

#include "frame/Object.h"

class CGlobalComponentCollection : public CObject<CGlobalComponentCollection>,
                                   public IComponentCollection,
                                   public IObjectInfoImpl<CGlobalComponentCollection> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;
  CGlobalComponentCollection();
  HRESULT QueryInterface(const IID& iid, void** object) override;

  HRESULT get_Count(int* count) override;
  HRESULT get_Item(int index, IUnknown** component) override;
  HRESULT get_Index(IString* name, int* index) override;
  // Adds an object name (or moves it to another module).
  HRESULT Register(int objectLength, const wchar_t* object, int moduleLength, const wchar_t* module) override;
  HRESULT Unregister(int objectLength, const wchar_t* object) override;
  HRESULT get_ModuleOf(int objectLength, const wchar_t* object, IString** module) override;
  // Instances are kept apart from the name table: get_Index and get_Item do not list
  // them, and CreateComponent finds them first (with an identifier only).
  HRESULT RegisterInstance(int objectLength, const wchar_t* object, IUnknown* instance) override;
  HRESULT Reserved_ICC4() override { return E_NOTIMPL; }
  HRESULT Reserved_ICC5() override { return E_NOTIMPL; }
  HRESULT Reserved_ICC6() override { return E_NOTIMPL; }
  HRESULT Reserved_ICC7() override { return E_NOTIMPL; }
  HRESULT Reserved_ICC8() override { return E_NOTIMPL; }
  HRESULT Reserved_ICC9() override { return E_NOTIMPL; }
  HRESULT CreateComponent(int length, const wchar_t* name, const IID* iid, void** out) override;

  // The process-wide instance, with a reference for the caller.
  static CGlobalComponentCollection* Instance();

 private:
  struct Entry {
    std::wstring object;
    std::wstring module;
  };
  int Find(const std::wstring& object) const;
  std::vector<Entry> m_Entries;
  struct RegisteredInstance {
    std::wstring object;
    SmartPtr<IUnknown> instance;
  };
  std::vector<RegisteredInstance> m_Instances;
};
