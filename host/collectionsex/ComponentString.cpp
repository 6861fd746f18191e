#include "host/collectionsex/ComponentString.h"

#include "host/collectionsex/ComponentTable.h"
#include "host/collectionsex/GlobalComponentCollection.h"
#include "host/common/HostString.h"
#include "host/common/PeerModule.h"

#include <map>
#include <mutex>
#include <utility>

ZELTRIM_PEER_OBJECT(L"ComponentString", CComponentString);

const tagREFString CComponentString::m_ObjectName = {15, L"ComponentString"};

HRESULT CComponentString::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CComponentString>*>(this)), object) ||
      QueryRoute(iid, IID_IComponentString, static_cast<IComponentString*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CComponentString::SetFromObject(IUnknown* object) {
  if (!object) return E_POINTER;
  SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(object);
  if (!info) return E_FAIL;
  tagREFString name{0, nullptr};
  if (info->GetName(0, &name) < 0 || name.m_Length <= 0 || !name.m_Text) return E_FAIL;
  const std::wstring objectName(name.m_Text, static_cast<size_t>(name.m_Length));
  m_Fields[COMPONENT_OBJECT] = objectName;
  m_Creator = nullptr;
  for (int i = 0; i < kComponentTableSize; ++i)
    if (objectName == kComponentTable[i].object) m_Fields[COMPONENT_MODULE] = kComponentTable[i].module;
  return S_OK;
}

HRESULT CComponentString::get_Field(int field, IString** out) {
  if (!out) return E_POINTER;
  auto it = m_Fields.find(field);
  if (it == m_Fields.end()) {
    *out = nullptr;
    return E_FAIL;
  }
  *out = CHostString::Create(it->second);
  return S_OK;
}

HRESULT CComponentString::put_Field(int field, int length, const wchar_t* text) {
  m_Fields[field] = (text && length > 0) ? std::wstring(text, static_cast<size_t>(length)) : std::wstring();
  m_Creator = nullptr;
  return S_OK;
}

std::wstring CComponentString::Field(int field) const {
  auto it = m_Fields.find(field);
  return it == m_Fields.end() ? std::wstring() : it->second;
}

HRESULT CComponentString::CreateInstance(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  CREATORFUNCTION creator = m_Creator.load(std::memory_order_relaxed);
  if (!creator) {
    creator = HostModuleCreator(Field(COMPONENT_MODULE), Field(COMPONENT_OBJECT));
    if (!creator) return E_FAIL;
    m_Creator.store(creator, std::memory_order_relaxed);
  }
  IID asked = iid;
  return creator(nullptr, &asked, object);
}

CREATORFUNCTION HostModuleCreator(const std::wstring& module, const std::wstring& object) {
  if (module.empty() || object.empty()) return nullptr;
  // One creator per module and object for the life of the process: modules stay loaded and
  // the global collection is one, so a module is initialised once, not again (from
  // whichever thread) at every creation that finds its creator anew.
  static std::mutex mutex;
  static std::map<std::pair<std::wstring, std::wstring>, CREATORFUNCTION> creators;
  std::lock_guard<std::mutex> hold(mutex);
  const auto key = std::make_pair(module, object);
  const auto found = creators.find(key);
  if (found != creators.end()) return found->second;
  const tagREFString moduleName{static_cast<int32_t>(module.size()), module.c_str()};
  const tagREFString objectName{static_cast<int32_t>(object.size()), object.c_str()};
  IComponentCollection* global = CGlobalComponentCollection::Instance();
  const CREATORFUNCTION creator = ModuleCreator(ModulePath(moduleName), global, objectName);
  global->Release();
  if (creator) creators.emplace(key, creator);
  return creator;
}
