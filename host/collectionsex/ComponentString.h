// "ComponentString": the descriptor of one component (object name, module name) that
// can create the object by loading its module.
#pragma once

#include <map>
#include <string>

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
  void SetField(int field, const std::wstring& text) { m_Fields[field] = text; }

 private:
  std::map<int, std::wstring> m_Fields;
};

// Loads "./_binlinux/<module>.so", hands it the global collection, and returns the
// creator of `object`, or null (with a message on standard output when the module is
// missing).
typedef HRESULT (*HostCreator)(void* outer, IID* iid, void** object);
HostCreator HostModuleCreator(const std::wstring& module, const std::wstring& object);
