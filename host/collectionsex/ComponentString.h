// "ComponentString": the descriptor of one component (object name, module name) that
// can create the object by loading its module.
#pragma once

#include <atomic>
#include <map>
#include <string>

#include "frame/ModuleLoader.h"
#include "frame/Object.h"

class CComponentString : public CObject<CComponentString>, public IComponentString, public IObjectInfoImpl<CComponentString> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;
  HRESULT QueryInterface(const IID& iid, void** object) override;

  HRESULT SetFromObject(IUnknown* object) override;
  HRESULT get_Field(int field, IString** out) override;
  HRESULT CreateInstance(const IID& iid, void** object) override;
  HRESULT put_Field(int field, int length, const wchar_t* text) override;

  std::wstring Field(int field) const;
  void SetField(int field, const std::wstring& text) {
    m_Fields[field] = text;
    m_Creator = nullptr;
  }

 private:
  std::map<int, std::wstring> m_Fields;
  // The creator CreateInstance found for the current fields: loading the module and
  // asking it again is the costly part of every creation. Peers stay loaded, so it stays
  // valid until a field changes.
  std::atomic<CREATORFUNCTION> m_Creator{nullptr};
};

// The creator of `object` from the module named `module`, loaded by ModuleCreator and
// handed the host's global collection; null for an empty name or when the module or
// the object is missing.
CREATORFUNCTION HostModuleCreator(const std::wstring& module, const std::wstring& object);
