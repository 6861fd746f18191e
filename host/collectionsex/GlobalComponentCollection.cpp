#include "host/collectionsex/GlobalComponentCollection.h"

#include "host/collectionsex/ComponentString.h"
#include "host/collectionsex/ComponentTable.h"
#include "host/common/HostString.h"
#include "host/common/PeerModule.h"

namespace {

HRESULT CreateGlobalCollection(void*, IID* iid, void** object) {
  if (!iid || !object) return E_POINTER;
  *object = nullptr;
  CGlobalComponentCollection* global = CGlobalComponentCollection::Instance();
  const HRESULT hr = global->QueryInterface(*iid, object);
  global->Release();
  return hr;
}

}  // namespace

ZELTRIM_PEER_CREATOR(L"GlobalComponentCollection", GlobalComponentCollection, CreateGlobalCollection);

const tagREFString CGlobalComponentCollection::m_ObjectName = {25, L"GlobalComponentCollection"};

CGlobalComponentCollection::CGlobalComponentCollection() {
  for (int i = 0; i < kComponentTableSize; ++i) m_Entries.push_back({kComponentTable[i].object, kComponentTable[i].module});
}

CGlobalComponentCollection* CGlobalComponentCollection::Instance() {
  // Released at process exit; modules are never unloaded, so its code stays mapped.
  static SmartPtr<CGlobalComponentCollection> instance;
  if (!instance) {
    CGlobalComponentCollection* created = new CGlobalComponentCollection();
    instance.Attach(created);
  }
  instance->AddRef();
  return instance.get();
}

HRESULT CGlobalComponentCollection::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CGlobalComponentCollection>*>(this)), object) ||
      QueryRoute(iid, IID_IComponentCollection, static_cast<IComponentCollection*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

int CGlobalComponentCollection::Find(const std::wstring& object) const {
  for (size_t i = 0; i < m_Entries.size(); ++i)
    if (m_Entries[i].object == object) return static_cast<int>(i);
  return -1;
}

HRESULT CGlobalComponentCollection::get_Count(int* count) {
  if (!count) return E_POINTER;
  *count = static_cast<int>(m_Entries.size());
  return S_OK;
}

HRESULT CGlobalComponentCollection::get_Item(int index, IUnknown** component) {
  if (!component) return E_POINTER;
  *component = nullptr;
  if (index < 0 || index >= static_cast<int>(m_Entries.size())) return E_INVALIDARG;
  CComponentString* descriptor = new CComponentString();
  descriptor->SetField(COMPONENT_OBJECT, m_Entries[index].object);
  descriptor->SetField(COMPONENT_MODULE, m_Entries[index].module);
  *component = static_cast<IComponentString*>(descriptor);
  return S_OK;
}

HRESULT CGlobalComponentCollection::get_Index(IString* name, int* index) {
  if (!index) return E_POINTER;
  *index = -1;
  const int found = Find(HostText(name));
  if (found < 0) return E_FAIL;
  *index = found;
  return S_OK;
}

HRESULT CGlobalComponentCollection::Register(int objectLength, const wchar_t* object, int moduleLength,
                                             const wchar_t* module) {
  if (!object || objectLength <= 0 || !module || moduleLength <= 0) return E_INVALIDARG;
  const std::wstring name(object, static_cast<size_t>(objectLength));
  const std::wstring where(module, static_cast<size_t>(moduleLength));
  const int found = Find(name);
  if (found >= 0)
    m_Entries[found].module = where;
  else
    m_Entries.push_back({name, where});
  return S_OK;
}

HRESULT CGlobalComponentCollection::Unregister(int objectLength, const wchar_t* object) {
  if (!object || objectLength <= 0) return E_INVALIDARG;
  const int found = Find(std::wstring(object, static_cast<size_t>(objectLength)));
  if (found < 0) return E_FAIL;
  m_Entries.erase(m_Entries.begin() + found);
  return S_OK;
}

HRESULT CGlobalComponentCollection::get_ModuleOf(int objectLength, const wchar_t* object, IString** module) {
  if (!module) return E_POINTER;
  *module = nullptr;
  if (!object || objectLength <= 0) return E_INVALIDARG;
  const int found = Find(std::wstring(object, static_cast<size_t>(objectLength)));
  if (found < 0) return E_FAIL;
  *module = CHostString::Create(m_Entries[found].module);
  return S_OK;
}

HRESULT CGlobalComponentCollection::RegisterInstance(int objectLength, const wchar_t* object, IUnknown* instance) {
  if (!object || objectLength <= 0) return E_INVALIDARG;
  const std::wstring name(object, static_cast<size_t>(objectLength));
  for (size_t i = 0; i < m_Instances.size(); ++i) {
    if (m_Instances[i].object != name) continue;
    if (instance)
      m_Instances[i].instance = instance;
    else
      m_Instances.erase(m_Instances.begin() + static_cast<long>(i));
    return S_OK;
  }
  if (!instance) return S_FALSE;
  m_Instances.push_back({name, SmartPtr<IUnknown>(instance)});
  return S_OK;
}

HRESULT CGlobalComponentCollection::CreateComponent(int length, const wchar_t* name, const IID* iid, void** out) {
  if (!out) return E_POINTER;
  *out = nullptr;
  if (!name || length <= 0) return E_INVALIDARG;
  const std::wstring wanted(name, static_cast<size_t>(length));
  if (iid)
    for (const RegisteredInstance& registered : m_Instances)
      if (registered.object == wanted) return registered.instance->QueryInterface(*iid, out);
  const int found = Find(wanted);
  if (found < 0) return E_FAIL;
  if (!iid) return get_Item(found, reinterpret_cast<IUnknown**>(out));
  CREATORFUNCTION creator = HostModuleCreator(m_Entries[found].module, m_Entries[found].object);
  if (!creator) return E_FAIL;
  IID asked = *iid;
  return creator(nullptr, &asked, out);
}
