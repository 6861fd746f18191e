// The ordered collection of named parameters, IParametersImpl<T, I>: holding, finding,
// sorting, renaming and locking its items. Its CSV, XML and folder stream forms are
// defined in ParametersCsv.h, ParametersXml.h and ParametersFolder.h; include
// persist/ParametersImpl.h, which brings all four, to instantiate the template.
//
// Each item is a separately allocated PARAMETEROBJECT holding a name, a value (always
// stored as a variant), an optional descriptor and flags; the collection keeps an array of
// pointers to them, so sorting and removal move pointers only. Every reference in an item
// is owned by the item.
//
// T is the concrete class (a CObject<T>): CollectionLock/CollectionUnlock call its
// Lock/Unlock, which are no-ops unless T supplies a real lock. That lock is not recursive,
// so a caller holding CollectionLock must use the ...NOLOCK forms.
#pragma once

#include <cstdlib>
#include <cwchar>
#include <string>
#include <utility>

#include "frame/Conversions.h"
#include "frame/Object.h"

struct PARAMETEROBJECT {
  IString* Name;
  IUnknown* Item;  // a variant in practice
  IUnknown* Descriptor;
  int Flags;
};

// Item flags read by the stream forms.
enum ParameterFlags {
  PARAM_FILENAME = 0x6,            // the value is a file name
  PARAM_RELATIVE = 0x30,           // the file name may be stored relative to the install path
  PARAM_EDITOR_ONLY = 0x40,        // descriptor only needed by the editor
  PARAM_UNDER_INSTALL = 0x100,     // the file name lies under the install path
  PARAM_COMPACT_DROP = 0x40000,    // compact saving drops the descriptor (XML) or the item (folder)
  PARAM_NOT_IN_FOLDER = 0x4000000, // never written to a folder stream
  PARAM_NOT_IN_XML = 0x8000000,    // flag bit never written to XML
  PARAM_COLOUR = 0x23,             // a colour, written as one hex text in compact XML
};

// Helpers shared by every instance of the template.
namespace params_detail {

// Text of a string (empty for null); the copy is terminated.
inline std::wstring Text(IString* s) {
  const wchar_t* p = nullptr;
  int n = 0;
  if (!s || s->GetString(&p, &n) < 0 || !p || n <= 0) return std::wstring();
  return std::wstring(p, static_cast<size_t>(n));
}

// A new host string from a view that need not be terminated.
inline IString* FromView(tagREFString view) {
  if (!view.m_Text || view.m_Length <= 0) return ISCreate(static_cast<const wchar_t*>(nullptr));
  const std::wstring copy(view.m_Text, static_cast<size_t>(view.m_Length));
  return ISCreate(copy.c_str());
}

// Equal lengths, characters equal with only 'A'..'Z' folded to lower case.
inline bool AsciiEqualNoCase(const wchar_t* a, const wchar_t* b, int n) {
  for (int i = 0; i < n; ++i) {
    wchar_t x = a[i], y = b[i];
    if (x >= L'A' && x <= L'Z') x = static_cast<wchar_t>(x - L'A' + L'a');
    if (y >= L'A' && y <= L'Z') y = static_cast<wchar_t>(y - L'A' + L'a');
    if (x != y) return false;
  }
  return true;
}

// Identity of an object: its IUnknown pointer (the pointer itself when it has none).
inline IUnknown* Identity(IUnknown* object, SmartPtr<IUnknown>& holder) {
  if (!object) return nullptr;
  holder = QueryAs<IUnknown>(object);
  return holder ? holder.get() : object;
}

inline bool SameObject(IUnknown* a, IUnknown* b) {
  SmartPtr<IUnknown> ha, hb;
  IUnknown* ia = Identity(a, ha);
  return ia && ia == Identity(b, hb);
}

// Shared by the stream forms.

// "Item%d" with a 1-based number, for items without a usable name.
inline IString* ItemLabel(int index) {
  wchar_t text[256];
  _swprintf(text, 256, L"Item%d", index + 1);
  return ISCreate(text);
}

// The value as text: the string, the number (as few decimals as needed), the name of
// the object, or an empty text. One reference for the caller.
inline IString* ValueText(IVariant* v) {
  if (v) {
    if (v->IsString()) {
      IString* s = nullptr;
      if (v->get_String(&s) >= 0 && s) return s;
    } else if (v->get_Type() != VARIANT_OBJECT) {
      return ISCreate(v, static_cast<short>(-1));
    } else if (v->IsObject()) {
      SmartPtr<IUnknown> object;
      if (v->get_Object(object.Out()) >= 0 && object) {
        SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(object);
        tagREFString name{0, nullptr};
        if (info && info->GetName(0, &name) >= 0) return FromView(name);
      }
    }
  }
  return ISCreate(static_cast<const wchar_t*>(nullptr));
}

// Low four bits 3 or 5, and 6 too where `withSix` (the XML form).
inline bool LowKindDropped(int flags, bool withSix) {
  const int kind = flags & 0xF;
  return kind == 3 || kind == 5 || (withSix && kind == 6);
}

}  // namespace params_detail

template <class T, class I>
class IParametersImpl : public I {
 public:
  IParametersImpl() = default;
  IParametersImpl(const IParametersImpl&) = delete;
  IParametersImpl& operator=(const IParametersImpl&) = delete;
  // Not virtual, as the object's own destructor (see CObject).
  ~IParametersImpl() {
    for (int i = 0; i < m_Count; ++i) FreeItem(m_Items[i]);
    delete[] m_Items;
  }

  // ------------------------------------------------------------ ISimpleCollection

  HRESULT get_Count(int* count) override {
    if (!count) return E_POINTER;
    *count = CountNow();
    return S_OK;
  }

  HRESULT get_Item(int index, IUnknown** item) override {
    CollectionLock();
    const HRESULT hr = get_ItemNOLOCK(index, item);
    CollectionUnlock();
    return hr;
  }

  // ------------------------------------------------------------ INamedCollection

  HRESULT get_Index(IUnknown* key, int* index) override {
    CollectionLock();
    const HRESULT hr = get_IndexNOLOCK(key, index);
    CollectionUnlock();
    return hr;
  }

  HRESULT get_ItemName(int index, IString** name) override {
    CollectionLock();
    const HRESULT hr = get_ItemNameNOLOCK(index, name);
    CollectionUnlock();
    return hr;
  }

  HRESULT Rename(int index, IString* name) override {
    if (!ValidIndex(index)) return E_INVALIDARG;
    CollectionLock();
    if (name) name->AddRef();
    IString* old = m_Items[index]->Name;
    m_Items[index]->Name = name;
    if (old) old->Release();
    CollectionUnlock();
    return S_OK;
  }

  HRESULT CollectionLock() override {
    static_cast<T*>(this)->Lock();
    __atomic_store_n(&m_Locked, 1, __ATOMIC_RELAXED);
    return S_OK;
  }

  HRESULT CollectionUnlock() override {
    // The flag is cleared after the unlock, so another thread may be setting it at the
    // same moment: an atomic store keeps that a plain race of values, not of memory.
    static_cast<T*>(this)->Unlock();
    __atomic_store_n(&m_Locked, 0, __ATOMIC_RELAXED);
    return S_OK;
  }

  int IsCollectionLocked() override { return __atomic_load_n(&m_Locked, __ATOMIC_RELAXED); }

  // ------------------------------------------------------------ IParameters

  HRESULT Iterate(int index, IString** name, IVariant** value, IUnknown** descriptor, int* flags) override {
    if (!ValidIndex(index)) return E_INVALIDARG;
    CollectionLock();
    PARAMETEROBJECT* item = m_Items[index];
    if (value) ItemVariantNOLOCK(item, value);
    if (descriptor && item->Descriptor) {
      item->Descriptor->AddRef();
      *descriptor = item->Descriptor;
    }
    if (flags) *flags = item->Flags;
    if (name) get_ItemNameNOLOCK(index, name);
    CollectionUnlock();
    return S_OK;
  }

  HRESULT get_ItemVariant(int index, IVariant** value) override {
    if (!ValidIndex(index)) return E_INVALIDARG;
    if (!value) return E_POINTER;
    CollectionLock();
    const HRESULT hr = ItemVariantNOLOCK(m_Items[index], value);
    CollectionUnlock();
    return hr;
  }

  HRESULT put_Item(int index, IUnknown* item) override {
    if (!ValidIndex(index)) return E_INVALIDARG;
    CollectionLock();
    const HRESULT hr = put_ItemNOLOCK(index, item);
    CollectionUnlock();
    return hr;
  }

  HRESULT get_ItemDescriptor(int index, IUnknown** descriptor) override {
    if (!ValidIndex(index)) return E_INVALIDARG;
    if (!descriptor) return E_POINTER;
    CollectionLock();
    IUnknown* d = m_Items[index]->Descriptor;
    if (d) d->AddRef();
    *descriptor = d;
    CollectionUnlock();
    return d ? S_OK : E_FAIL;
  }

  HRESULT put_ItemDescriptor(int index, IUnknown* descriptor) override {
    if (!ValidIndex(index)) return E_INVALIDARG;
    CollectionLock();
    SetDescriptor(m_Items[index], descriptor);
    CollectionUnlock();
    return S_OK;
  }

  HRESULT get_ItemFlags(int index, int* flags) override {
    if (!ValidIndex(index)) return E_INVALIDARG;
    if (!flags) return E_POINTER;
    *flags = m_Items[index]->Flags;
    return S_OK;
  }

  HRESULT put_ItemFlags(int index, int flags) override {
    if (!ValidIndex(index)) return E_INVALIDARG;
    m_Items[index]->Flags = flags;
    return S_OK;
  }

  // Returns the index of the key, or -1 when it is not found (then nothing is written).
  // options bit 0: the value of an IInputParameter descriptor wins; bit 1: a variant
  // value is unpacked to its object, or else its string.
  int Get(IUnknown* key, IUnknown** value, IUnknown** descriptor, int* flags, int options) override {
    CollectionLock();
    int index = -1;
    // A numeric key is taken without a range test; an index with no item behind it is
    // reported as not found rather than read.
    if (get_IndexNOLOCK(key, &index) < 0 || !ValidIndex(index)) {
      CollectionUnlock();
      return -1;
    }
    PARAMETEROBJECT* item = m_Items[index];
    SmartPtr<IUnknown> result;
    if (options & 1)
      getParameter(item, result.Out());
    else
      result = item->Item;
    if (options & 2) {
      SmartPtr<IVariant> variant = QueryAs<IVariant>(result);
      if (variant) {
        if (variant->IsObject()) {
          SmartPtr<IUnknown> object;
          variant->get_Object(object.Out());
          result = object.get();
        } else if (variant->IsString()) {
          SmartPtr<IString> text;
          variant->get_String(text.Out());
          result = text.get();
        }
      }
    }
    if (value) *value = result.Detach();
    if (descriptor) {
      if (item->Descriptor) item->Descriptor->AddRef();
      *descriptor = item->Descriptor;
    }
    if (flags) *flags = item->Flags;
    CollectionUnlock();
    return index;
  }

  HRESULT Add(IString* name, IUnknown* item, IUnknown* descriptor, int flags) override {
    CollectionLock();
    const HRESULT hr = AddNOLOCK(name, item, descriptor, flags);
    CollectionUnlock();
    return hr;
  }

  HRESULT Remove(int index) override {
    if (!ValidIndex(index)) return E_INVALIDARG;
    CollectionLock();
    FreeItem(m_Items[index]);
    for (int i = index; i + 1 < m_Count; ++i) m_Items[i] = m_Items[i + 1];
    __atomic_store_n(&m_Count, m_Count - 1, __ATOMIC_RELAXED);
    m_Items[m_Count] = nullptr;
    CollectionUnlock();
    return S_OK;
  }

  HRESULT RemoveAll() override {
    CollectionLock();
    for (int i = 0; i < m_Count; ++i) {
      FreeItem(m_Items[i]);
      m_Items[i] = nullptr;
    }
    __atomic_store_n(&m_Count, 0, __ATOMIC_RELAXED);
    CollectionUnlock();
    return S_OK;
  }

  // Each source value goes in wrapped in a new variant (one level deeper); items of the
  // same name are overwritten with value, descriptor and flags, others stay.
  HRESULT Copy(IParameters* source) override {
    if (!source) return S_OK;
    int count = 0;
    source->get_Count(&count);
    for (int i = 0; i < count; ++i) {
      SmartPtr<IString> name;
      SmartPtr<IVariant> value;
      SmartPtr<IUnknown> descriptor;
      int flags = 0;
      source->Iterate(i, name.Out(), value.Out(), descriptor.Out(), &flags);
      SmartPtr<IVariant> nested;
      nested.Attach(CREFString::CreateVariant());
      if (nested) nested->put_Object(value.get());
      Set(name.get(), nested.get(), descriptor.get(), flags, 3);
    }
    return S_OK;
  }

  // By name with wcscmp (case-sensitive, not stable); options bit 1 reverses the order.
  HRESULT Sort(int options) override {
    CollectionLock();
    if (m_Count > 1) std::qsort(m_Items, static_cast<size_t>(m_Count), sizeof(PARAMETEROBJECT*), PARAMETERSCompareByName);
    if (options & 2)
      for (int i = 0; i < m_Count / 2; ++i) std::swap(*m_Items[i], *m_Items[m_Count - 1 - i]);
    CollectionUnlock();
    return S_OK;
  }

  // Found: the value is replaced; a descriptor replaces the old one, a null one clears it
  // with options bit 0; flags are replaced when non-zero or with options bit 1.
  // Not found: a string key (or the text of a variant key) names a new item.
  HRESULT Set(IUnknown* key, IUnknown* item, IUnknown* descriptor, int flags, short options) override {
    CollectionLock();
    HRESULT hr;
    int index = -1;
    if (get_IndexNOLOCK(key, &index) < 0) {
      SmartPtr<IString> name = QueryAs<IString>(key);
      SmartPtr<IVariant> variant = name ? SmartPtr<IVariant>() : QueryAs<IVariant>(key);
      if (variant) name.Attach(ISCreate(variant.get()));
      hr = (name || variant) ? AddNOLOCK(name.get(), item, descriptor, flags) : E_FAIL;
    } else if (!ValidIndex(index)) {
      hr = E_INVALIDARG;
    } else {
      put_ItemNOLOCK(index, item);
      if (descriptor || (options & 1)) SetDescriptor(m_Items[index], descriptor);
      if (flags != 0 || (options & 2)) m_Items[index]->Flags = flags;
      hr = S_OK;
    }
    CollectionUnlock();
    return hr;
  }

  // Capacity grows by 10. The value is stored as a variant: a variant item as it is,
  // anything else wrapped in a new one (a null item as a new empty string).
  HRESULT AddNOLOCK(IString* name, IUnknown* item, IUnknown* descriptor, int flags) override {
    if (m_Count >= m_Capacity) {
      const int capacity = m_Capacity + 10;
      PARAMETEROBJECT** items = new PARAMETEROBJECT*[capacity]();
      for (int i = 0; i < m_Count; ++i) items[i] = m_Items[i];
      delete[] m_Items;
      m_Items = items;
      m_Capacity = capacity;
    }
    PARAMETEROBJECT* entry = new PARAMETEROBJECT{name, WrapValue(item, true), descriptor, flags};
    if (name) name->AddRef();
    if (descriptor) descriptor->AddRef();
    m_Items[m_Count] = entry;
    __atomic_store_n(&m_Count, m_Count + 1, __ATOMIC_RELAXED);
    return S_OK;
  }

  // The value, with a variant holding an object or a string unpacked to it.
  HRESULT get_ItemNOLOCK(int index, IUnknown** item) override {
    if (!ValidIndex(index)) return E_INVALIDARG;
    if (!item) return E_POINTER;
    *item = nullptr;
    SmartPtr<IUnknown> value;
    const HRESULT hr = getParameter(m_Items[index], value.Out());
    if (hr < 0) return hr;
    SmartPtr<IVariant> variant = QueryAs<IVariant>(value);
    if (variant && variant->IsObject()) {
      variant->get_Object(item);
    } else if (variant && variant->IsString()) {
      IString* text = nullptr;
      variant->get_String(&text);
      *item = text;
    } else {
      *item = value.Detach();
    }
    return hr;
  }

  HRESULT put_ItemNOLOCK(int index, IUnknown* item) override {
    if (!ValidIndex(index)) return E_INVALIDARG;
    IUnknown* old = m_Items[index]->Item;
    m_Items[index]->Item = WrapValue(item, false);
    if (old) old->Release();
    return S_OK;
  }

  HRESULT get_ItemNameNOLOCK(int index, IString** name) override {
    if (!ValidIndex(index)) return E_INVALIDARG;
    if (!name) return E_POINTER;
    IString* n = m_Items[index]->Name;
    *name = n;
    if (!n) return E_FAIL;
    n->AddRef();
    return S_OK;
  }

  // ------------------------------------------------------------ IParametersCreatable

  // The stream forms; each is described where it is defined.
  HRESULT Params_SaveCSV(IDataStream* stream, int options) override;           // ParametersCsv.h
  HRESULT Params_SaveXML(IDataStream* stream, int options) override;           // ParametersXml.h
  HRESULT Params_LoadXML(IDataStream* stream, int options, int) override;      // ParametersXml.h
  HRESULT Params_SaveFolderStream(IDataStream* stream, int options) override;  // ParametersFolder.h
  HRESULT Params_LoadFolderStream(IDataStream* stream, int options) override;  // ParametersFolder.h
  HRESULT Params_SaveXMLUnk(IDataStream* stream, int options) override;        // ParametersXml.h
  HRESULT Params_LoadXMLUnk(IDataStream* stream, int options) override;        // ParametersXml.h

  // The value of an item: an IInputParameter descriptor that gives one wins (S_FALSE);
  // else the stored value (S_OK), E_FAIL when there is none.
  HRESULT getParameter(PARAMETEROBJECT* item, IUnknown** value) override {
    if (!item || !value) return E_POINTER;
    *value = nullptr;
    SmartPtr<IInputParameter> input = QueryAs<IInputParameter>(item->Descriptor);
    if (input) {
      IUnknown* given = nullptr;
      if (input->get_Value(&given) >= 0) {
        *value = given;
        return S_FALSE;
      }
      if (given) given->Release();
    }
    if (!item->Item) return E_FAIL;
    item->Item->AddRef();
    *value = item->Item;
    return S_OK;
  }

  // ------------------------------------------------------------ non-virtual

  // key: a string (names compared with 'A'..'Z' folded only), a variant holding a number
  // (taken as the index, without a range test), a string or an object, or an object
  // (matched by identity against values, then descriptors).
  HRESULT get_IndexNOLOCK(IUnknown* key, int* index) {
    using namespace params_detail;
    if (!index) return E_POINTER;
    SmartPtr<IString> text = QueryAs<IString>(key);
    SmartPtr<IVariant> variant = QueryAs<IVariant>(key);
    SmartPtr<IUnknown> object;
    if (variant) {
      if (variant->get_Type() != VARIANT_OBJECT) {
        *index = variant->get_Integer();
        return S_OK;
      }
      if (!text) {
        if (variant->IsString())
          variant->get_String(text.Out());
        else if (variant->IsObject())
          variant->get_Object(object.Out());
      }
    } else if (!text) {
      object = key;
    }

    if (text) {
      const wchar_t* wanted = nullptr;
      int length = 0;
      if (text->GetString(&wanted, &length) < 0 || !wanted || length <= 0 || m_Count == 0) {
        *index = -1;
        return E_FAIL;
      }
      for (int i = 0; i < m_Count; ++i) {
        const wchar_t* have = nullptr;
        int n = 0;
        IString* name = m_Items[i]->Name;
        if (!name || name->GetString(&have, &n) < 0 || !have || n != length) continue;
        if (AsciiEqualNoCase(have, wanted, length)) {
          *index = i;
          return S_OK;
        }
      }
      *index = -1;
      return E_FAIL;
    }

    if (!object) return E_FAIL;
    for (int i = 0; i < m_Count; ++i) {
      SmartPtr<IVariant> held = QueryAs<IVariant>(m_Items[i]->Item);
      SmartPtr<IUnknown> heldObject;
      if (held && held->get_Object(heldObject.Out()) >= 0 && SameObject(heldObject, object)) {
        *index = i;
        return S_OK;
      }
    }
    for (int i = 0; i < m_Count; ++i) {
      if (SameObject(m_Items[i]->Descriptor, object)) {
        *index = i;
        return S_OK;
      }
    }
    return E_FAIL;
  }

  static int PARAMETERSCompareByName(const void* a, const void* b) {
    const PARAMETEROBJECT* pa = *static_cast<PARAMETEROBJECT* const*>(a);
    const PARAMETEROBJECT* pb = *static_cast<PARAMETEROBJECT* const*>(b);
    return std::wcscmp(NameText(pa), NameText(pb));
  }

  PARAMETEROBJECT** m_Items = nullptr;
  int m_Count = 0;
  int m_Capacity = 0;
  int m_Locked = 0;

 protected:
  // The count as read outside the lock (get_Count and the index tests that come before
  // it): every change of m_Count is an atomic store under the lock, so such a read sees
  // one value or the other, never a torn one.
  int CountNow() const { return __atomic_load_n(&m_Count, __ATOMIC_RELAXED); }
  bool ValidIndex(int index) const { return index >= 0 && index < CountNow(); }

  // Parts of the stream forms that a host collection reuses (ParametersXml.h and
  // ParametersFolder.h).
  HRESULT LoadXMLElements(IDataStream* stream, int options, bool addMissing);
  void LoadFolderEntry(IFolderStream* folder, IString* name, IUnknown* entry, int index);

 private:
  static const wchar_t* NameText(const PARAMETEROBJECT* item) {
    const wchar_t* text = nullptr;
    int n = 0;
    if (!item || !item->Name || item->Name->GetString(&text, &n) < 0 || !text) return L"";
    return text;
  }

  static void FreeItem(PARAMETEROBJECT* item) {
    if (!item) return;
    if (item->Name) item->Name->Release();
    if (item->Item) item->Item->Release();
    if (item->Descriptor) item->Descriptor->Release();
    delete item;
  }

  static void SetDescriptor(PARAMETEROBJECT* item, IUnknown* descriptor) {
    if (descriptor) descriptor->AddRef();
    IUnknown* old = item->Descriptor;
    item->Descriptor = descriptor;
    if (old) old->Release();
  }

  // The stored form of a value: a variant as it is, anything else inside a new variant;
  // a null item as a new empty string (when adding) or a null object. One reference.
  static IUnknown* WrapValue(IUnknown* item, bool emptyStringForNull) {
    SmartPtr<IVariant> variant = QueryAs<IVariant>(item);
    if (!variant) {
      variant.Attach(CREFString::CreateVariant());
      if (variant) {
        if (!item && emptyStringForNull) {
          SmartPtr<IString> empty;
          empty.Attach(ISCreate(static_cast<const wchar_t*>(nullptr)));
          variant->put_Object(empty.get());
        } else {
          variant->put_Object(item);
        }
      }
    }
    return variant.Detach();
  }

  HRESULT ItemVariantNOLOCK(PARAMETEROBJECT* item, IVariant** out) {
    *out = nullptr;
    SmartPtr<IUnknown> value;
    const HRESULT hr = getParameter(item, value.Out());
    if (hr < 0) return hr;
    SmartPtr<IVariant> variant = QueryAs<IVariant>(value);
    if (!variant) {
      variant.Attach(CREFString::CreateVariant());
      if (variant) variant->put_Object(value.get());
    }
    *out = variant.Detach();
    return hr;
  }

  void LoadXMLItem(IUnknown* content, int index);  // ParametersXml.h
};
