#include "host/collections/SimpleCollection.h"

#include "host/common/PeerModule.h"

ZELTRIM_PEER_OBJECT(L"SimpleCollection", CSimpleCollection);

const tagREFString CSimpleCollection::m_ObjectName = {16, L"SimpleCollection"};

CSimpleCollection::~CSimpleCollection() { Clear(); }

HRESULT CSimpleCollection::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CSimpleCollection>*>(this)), object) ||
      QueryRoute(iid, IID_ISimpleCollection, static_cast<ISimpleCollection*>(this), object) ||
      QueryRoute(iid, IID_ICreatableSimpleCollection, static_cast<ICreatableSimpleCollection*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CSimpleCollection::get_Count(int* count) {
  if (!count) return E_POINTER;
  *count = static_cast<int>(m_Items.size());
  return S_OK;
}

HRESULT CSimpleCollection::get_Item(int index, IUnknown** item) {
  if (!item) return E_POINTER;
  *item = nullptr;
  if (!Valid(index)) return E_INVALIDARG;
  *item = m_Items[static_cast<size_t>(index)];
  (*item)->AddRef();
  return S_OK;
}

HRESULT CSimpleCollection::Add(IUnknown* item) {
  if (!item) return E_POINTER;
  item->AddRef();
  m_Items.push_back(item);
  return S_OK;
}

HRESULT CSimpleCollection::Clear() {
  // Released after the list is emptied, so an item that reaches back in sees it empty.
  std::vector<IUnknown*> items;
  items.swap(m_Items);
  for (IUnknown* item : items) item->Release();
  return S_OK;
}

HRESULT CSimpleCollection::put_Item(int index, IUnknown* item) {
  if (!item) return E_POINTER;
  if (!Valid(index)) return E_INVALIDARG;
  item->AddRef();
  IUnknown* old = m_Items[static_cast<size_t>(index)];
  m_Items[static_cast<size_t>(index)] = item;
  old->Release();
  return S_OK;
}

HRESULT CSimpleCollection::Remove(int index) {
  if (!Valid(index)) return E_INVALIDARG;
  IUnknown* old = m_Items[static_cast<size_t>(index)];
  m_Items.erase(m_Items.begin() + index);
  old->Release();
  return S_OK;
}
