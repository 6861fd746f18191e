// "SimpleCollection": an ordered list of objects, each held with a counted reference.
#pragma once

#include <vector>

#include "frame/Object.h"

class CSimpleCollection : public CObject<CSimpleCollection>,
                          public ICreatableSimpleCollection,
                          public IObjectInfoImpl<CSimpleCollection> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;
  ~CSimpleCollection();
  HRESULT QueryInterface(const IID& iid, void** object) override;

  HRESULT get_Count(int* count) override;
  // The item with a reference for the caller; E_INVALIDARG outside 0..count-1.
  HRESULT get_Item(int index, IUnknown** item) override;
  // Appends; the collection takes its own reference. A null item is refused.
  HRESULT Add(IUnknown* item) override;
  HRESULT Clear() override;
  // Replaces the item at an existing index.
  HRESULT put_Item(int index, IUnknown* item) override;
  HRESULT Remove(int index) override;

 private:
  bool Valid(int index) const { return index >= 0 && static_cast<size_t>(index) < m_Items.size(); }
  std::vector<IUnknown*> m_Items;
};
