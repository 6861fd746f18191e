// ISimpleCollectionImpl<T, I, Item>: an ordered collection of counted Item references
// behind interface I (an ICreatableSimpleCollection), with the typed operations of
// ITypedCollection and its two stream forms. The class T writes what depends on it: the
// IUnknown forms of Add, Clear and put_Item, and I's own operations.
//
// Storage: a plain array of m_Capacity slots, m_Count in use. A full array grows by
// m_Growth slots, and m_Growth doubles while the capacity stays below 0xfffff, so the
// capacities run 10, 30, 70, 150, ... and then grow linearly. Clearing keeps the array.
//
// Locking: CollectionLock/CollectionUnlock take T's Lock/Unlock only when m_Locking is
// set, which nothing here does; the collection is for one thread at a time.
#pragma once

#include <climits>
#include <new>

#include "frame/Components.h"
#include "frame/Object.h"
#include "frame/RefString.h"

template <class T, class I, class Item>
class ISimpleCollectionImpl : public ITypedCollection<I, Item> {
 public:
  using ITypedCollection<I, Item>::Add;
  using ITypedCollection<I, Item>::put_Item;

  ISimpleCollectionImpl() = default;
  ISimpleCollectionImpl(const ISimpleCollectionImpl&) = delete;
  ISimpleCollectionImpl& operator=(const ISimpleCollectionImpl&) = delete;
  ~ISimpleCollectionImpl() {
    SimpleCollectionClear();
    delete[] m_Items;
  }

  HRESULT get_Count(int* count) override {
    if (!count) return E_POINTER;
    *count = m_Count;
    return S_OK;
  }

  // The item with a reference for the caller, as IUnknown.
  HRESULT get_Item(int index, IUnknown** item) override {
    if (!item) return E_POINTER;
    CollectionLock();
    HRESULT hr = E_INVALIDARG;
    if (index >= 0 && index < m_Count) {
      m_Items[index]->AddRef();
      *item = m_Items[index];
      hr = S_OK;
    }
    CollectionUnlock();
    return hr;
  }

  HRESULT Remove(int index) override {
    if (index < 0 || index >= m_Count) return E_INVALIDARG;
    Item* gone = m_Items[index];
    for (int i = index; i + 1 < m_Count; ++i) m_Items[i] = m_Items[i + 1];
    m_Items[--m_Count] = nullptr;
    gone->Release();
    return S_OK;
  }

  HRESULT CollectionLock() override {
    if (m_Locking) static_cast<T*>(this)->Lock();
    return S_OK;
  }
  HRESULT CollectionUnlock() override {
    if (m_Locking) static_cast<T*>(this)->Unlock();
    return S_OK;
  }

  // The new item's reference is taken before the old one goes, so storing the item a
  // slot already holds is safe.
  HRESULT put_Item(int index, Item* item) override {
    if (index < 0 || index >= m_Count) return E_INVALIDARG;
    if (!item) return E_POINTER;
    item->AddRef();
    Item* old = m_Items[index];
    m_Items[index] = item;
    old->Release();
    return S_OK;
  }

  HRESULT get_Index(Item* item, int* index) override {
    if (!index) return E_POINTER;
    for (int i = 0; i < m_Count; ++i)
      if (m_Items[i] == item) {
        *index = i;
        return S_OK;
      }
    return E_FAIL;
  }

  HRESULT Add(Item* item) override {
    if (!item) return E_POINTER;
    if (m_Count >= m_Capacity) {
      const long long capacity = static_cast<long long>(m_Capacity) + m_Growth;
      if (capacity > INT_MAX) return E_FAIL;
      Item** grown = new (std::nothrow) Item*[static_cast<size_t>(capacity)]();
      if (!grown) return E_FAIL;
      for (int i = 0; i < m_Count; ++i) grown[i] = m_Items[i];
      delete[] m_Items;
      m_Items = grown;
      m_Capacity = static_cast<int>(capacity);
      if (m_Capacity < 0xfffff) m_Growth *= 2;
    }
    item->AddRef();
    m_Items[m_Count++] = item;
    return S_OK;
  }

  HRESULT SimpleCollectionClear() override {
    // Emptied first, so an item whose release reaches back into the collection sees it
    // consistent.
    while (m_Count > 0) {
      Item* gone = m_Items[--m_Count];
      m_Items[m_Count] = nullptr;
      gone->Release();
    }
    return S_OK;
  }

  HRESULT Save_DataStream(IDataStream* stream, int flags) override {
    if (SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream)) {
      for (int i = 0; i < m_Count; ++i) {
        SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(m_Items[i]);
        if (!persist) continue;
        xml->BeginObject(persist, 0, 0);
        persist->Save(stream, flags);
        xml->CloseTag();
      }
    } else if (SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream)) {
      for (int i = 0; i < m_Count; ++i) folder->WriteObject(nullptr, m_Items[i], 0);
    }
    return S_OK;
  }

  HRESULT Load_DataStream(IDataStream* stream, int flags, int) override {
    if (SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream)) {
      if (flags & PERSIST_REPLACE) SimpleCollectionClear();
      // Each element's content creates the object named by the element.
      tagREFString tag{0, nullptr};
      while (xml->NextTag(&tag) >= 0) {
        tagREFString name{0, nullptr};
        SmartPtr<IUnknown> content;
        if (xml->ReadElement(tag.m_Length, tag.m_Text, &name, content.Out(), 0) < 0) continue;
        SmartPtr<IXMLStream> element = QueryAs<IXMLStream>(content);
        SmartPtr<IUnknown> object;
        if (!element || element->ReadNamedObject(name.m_Length, name.m_Text, object.Out()) < 0) continue;
        AddIfItem(object);
      }
      return S_OK;
    }
    SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream);
    if (!folder) return E_FAIL;
    // The entries are read by index; the stream answers as a named collection too.
    SmartPtr<INamedCollection> entries = QueryAs<INamedCollection>(stream);
    for (int i = 0; i < INT_MAX; ++i) {
      SmartPtr<IVariant> key;
      key.Attach(CREFString::CreateVariant());
      if (!key) break;
      key->put_Integer(i);
      void* read = nullptr;
      // A variant stands in the place of the entry's name; the stream only queries it.
      if (folder->ReadObject(reinterpret_cast<IString*>(key.get()), &read, 0) < 0 || !read) break;
      SmartPtr<IUnknown> object;
      object.Attach(static_cast<IUnknown*>(read));
      AddIfItem(object);
    }
    return S_OK;
  }

 protected:
  // Objects without Item are passed over.
  void AddIfItem(IUnknown* object) {
    if (SmartPtr<Item> item = QueryAs<Item>(object)) Add(item.get());
  }

  int m_Count = 0;     // items in use
  int m_Capacity = 0;  // slots allocated
  int m_Locking = 0;   // non-zero: CollectionLock/CollectionUnlock take the object's lock
  int m_Growth = 10;   // slots added by the next growth
  Item** m_Items = nullptr;  // owned references, m_Count of m_Capacity slots used
};
