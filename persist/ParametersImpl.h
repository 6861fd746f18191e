// The ordered collection of named parameters (IParametersImpl<T, I>) and its stream forms.
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
#include "persist/FileName.h"

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

// "Item%d" with a 1-based number, for items without a usable name.
inline IString* ItemLabel(int index) {
  wchar_t text[256];
  _swprintf(text, 256, L"Item%d", index + 1);
  return ISCreate(text);
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

// A variant holds an object proper (not a string, which a host may also hold as object).
inline bool HoldsObject(IVariant* v) { return v && v->IsObject() && !v->IsString(); }

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

// Whole text of a stream object (through its IString); `holder` keeps the text alive.
inline CREFString ContentText(IUnknown* content, SmartPtr<IString>& holder) {
  holder = QueryAs<IString>(content);
  const wchar_t* p = nullptr;
  int n = 0;
  if (!holder || holder->GetString(&p, &n) < 0 || !p || n < 0) return CREFString();
  return CREFString(p, n);
}

inline bool TagIs(const tagREFString& tag, const wchar_t* word) {
  return CREFString(tag).CompareI(RefOf(word), 0) == S_OK;
}

// Folder streams fill or write "an existing string or variant": a variant is handed over
// in the IString* place and the stream queries it for what it is.
inline IString* AsStringPlace(IUnknown* value) { return reinterpret_cast<IString*>(value); }

// Changes every '\\' to '/' in the text held by the string, in place.
inline void RepairSeparators(IString* s) {
  const wchar_t* p = nullptr;
  int n = 0;
  if (!s || s->GetString(&p, &n) < 0 || !p) return;
  wchar_t* text = const_cast<wchar_t*>(p);
  for (int i = 0; i < n; ++i)
    if (text[i] == L'\\') text[i] = L'/';
}

// Reads the element the stream is at and gives its content; false when it cannot.
inline bool ReadContent(IXMLStream* xml, const tagREFString& tag, SmartPtr<IUnknown>& content) {
  tagREFString name{0, nullptr};
  return xml->ReadElement(tag.m_Length, tag.m_Text, &name, content.Out(), 0) >= 0;
}

}  // namespace params_detail

template <class T, class I>
class IParametersImpl : public I {
 public:
  IParametersImpl() = default;
  IParametersImpl(const IParametersImpl&) = delete;
  IParametersImpl& operator=(const IParametersImpl&) = delete;
  virtual ~IParametersImpl() {
    for (int i = 0; i < m_Count; ++i) FreeItem(m_Items[i]);
    delete[] m_Items;
  }

  // ------------------------------------------------------------ ISimpleCollection

  HRESULT get_Count(int* count) override {
    if (!count) return E_POINTER;
    *count = m_Count;
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
    m_Locked = 1;
    return S_OK;
  }

  HRESULT CollectionUnlock() override {
    static_cast<T*>(this)->Unlock();
    m_Locked = 0;
    return S_OK;
  }

  int IsCollectionLocked() override { return m_Locked; }

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
    --m_Count;
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
    m_Count = 0;
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
    m_Items[m_Count++] = entry;
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

  // Comma-separated values on a CSV stream. The byte counts handed to Write are twice the
  // character counts (2 for a separator), so only half of each text's bytes go out.
  HRESULT Params_SaveCSV(IDataStream* stream, int options) override {
    using namespace params_detail;
    SmartPtr<ICSVStream> csv = QueryAs<ICSVStream>(stream);
    if (!csv) return S_OK;
    // Two bytes a character, though a character takes four.
    auto writeHalf = [stream](IString* text) {
      const std::wstring chars = Text(text);
      stream->Write(chars.c_str(), static_cast<int>(chars.size()) * 2, 0);
    };
    const int count = m_Count;
    for (int i = 0; i < count; ++i) {
      int flags = 0;
      this->get_ItemFlags(i, &flags);
      if ((options & PERSIST_COMPACT) && (flags & PARAM_COMPACT_DROP)) continue;
      if (i > 0) stream->Write(L",", 2, 0);
      if (options & PERSIST_CSV_NAME_VALUE) {
        SmartPtr<IString> name;
        this->get_ItemName(i, name.Out());
        writeHalf(name);
        stream->Write(L"=", 2, 0);
      }
      SmartPtr<IVariant> value;
      this->get_ItemVariant(i, value.Out());
      SmartPtr<IString> valueText;
      valueText.Attach(ValueText(value));
      writeHalf(valueText);
    }
    return S_OK;
  }

  // One element per item: <name>value</name> when there is neither descriptor nor flags,
  // else <name><Value>..</Value><Flags>#..</Flags><descriptor object/></name>.
  HRESULT Params_SaveXML(IDataStream* stream, int options) override {
    using namespace params_detail;
    SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream);
    if (!xml) return S_OK;
    const int count = m_Count;
    for (int i = 0; i < count; ++i) {
      SmartPtr<IString> name;
      SmartPtr<IVariant> value;
      SmartPtr<IUnknown> descriptor;
      int flags = 0;
      // An element needs a name: an item without one is passed over.
      if (this->get_ItemName(i, name.Out()) < 0 || !name) continue;
      this->get_ItemVariant(i, value.Out());
      this->get_ItemDescriptor(i, descriptor.Out());
      this->get_ItemFlags(i, &flags);
      // The descriptor counts only as far as it can be saved.
      SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(descriptor);
      flags &= ~PARAM_NOT_IN_XML;

      const bool numeric = value && value->get_Type() != VARIANT_OBJECT;
      if (options & PERSIST_COMPACT) {
        if (flags & PARAM_EDITOR_ONLY) {
          flags &= ~PARAM_EDITOR_ONLY;
          persist.Clear();
        }
        if (flags & PARAM_COMPACT_DROP) {
          const bool had = persist.get() != nullptr;
          persist.Clear();
          if (!had && LowKindDropped(flags, true)) flags = 0;
        }
        if (flags == PARAM_COLOUR && !persist && numeric) {
          // Stored as 0xBBGGRR, written as #RRGGBB.
          const unsigned v = static_cast<unsigned>(value->get_Integer());
          const unsigned swapped = (v & 0xFF00FF00u) | ((v & 0xFFu) << 16) | ((v >> 16) & 0xFFu);
          SmartPtr<IString> hex;
          hex.Attach(ISCreateHex(swapped));
          xml->WriteValue(name, 0, hex, 0);
          continue;
        }
        if (LowKindDropped(flags, true) || flags == 9) flags = 0;
      }

      if (!persist && flags == 0) {
        SmartPtr<IString> text;
        text.Attach(value ? ISCreate(value.get()) : ISCreate(static_cast<const wchar_t*>(nullptr)));
        xml->WriteValue(name, 0, text, 0);
        continue;
      }
      xml->OpenTag(name, 0, 0);
      SmartPtr<IString> tag, text;
      tag.Attach(ISCreate(L"Value"));
      text.Attach(ValueText(value));
      xml->WriteValue(tag, 0, text, 0);
      if (flags != 0) {
        tag.Attach(ISCreate(L"Flags"));
        text.Attach(ISCreateHex(static_cast<unsigned>(flags)));
        xml->WriteValue(tag, 0, text, 0);
      }
      if (persist) {
        xml->BeginObject(persist.get(), 0, 0);
        persist->Save(stream, options);
        xml->CloseTag();
      }
      xml->CloseTag();
    }
    return S_OK;
  }

  // Replacing (0x1000000): every element becomes a new item whose value is its text.
  // Merging: elements whose names are not in the collection are passed over; the others
  // update value, flags and descriptor.
  HRESULT Params_LoadXML(IDataStream* stream, int options, int) override {
    return LoadXMLElements(stream, options, false);
  }

  // On a folder stream: an item with a value only is a plain key; anything else is a
  // sub-stream with "Value" (or "Unknown" for an object), "Flags" and "Descriptor".
  HRESULT Params_SaveFolderStream(IDataStream* stream, int options) override {
    using namespace params_detail;
    SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream);
    if (!folder) return S_OK;
    IUnknown* self = static_cast<IUnknown*>(static_cast<I*>(this));
    const int count = m_Count;
    for (int i = 0; i < count; ++i) {
      SmartPtr<IString> name;
      SmartPtr<IVariant> variant;
      SmartPtr<IUnknown> descriptor;
      int flags = 0;
      get_ItemNameNOLOCK(i, name.Out());
      if (Text(name).empty()) name.Attach(ItemLabel(i));
      this->get_ItemVariant(i, variant.Out());
      this->get_ItemDescriptor(i, descriptor.Out());
      this->get_ItemFlags(i, &flags);

      bool full;
      if (!(options & PERSIST_COMPACT)) {
        if (flags & PARAM_NOT_IN_FOLDER) continue;
        full = flags != 0 || descriptor;
      } else {
        if ((flags & 0xF0) == PARAM_EDITOR_ONLY) {
          if (!QueryAs<IInputParameter>(descriptor)) descriptor.Clear();
          if (!descriptor) flags = 0;
        }
        if (LowKindDropped(flags, false) || flags == 9) flags = 0;
        if (descriptor ? (flags & PARAM_NOT_IN_FOLDER) != 0
                       : (flags & (PARAM_COMPACT_DROP | PARAM_NOT_IN_FOLDER)) != 0)
          continue;
        full = flags != 0 || descriptor;
      }
      const bool object = HoldsObject(variant);
      if (!full && !object) {
        folder->WriteString(name, AsStringPlace(variant.get()));
        continue;
      }

      SmartPtr<IDataStream> subStream;
      if (folder->CreateSubStream(name, 0, subStream.Out()) < 0) continue;
      SmartPtr<IFolderStream> sub = QueryAs<IFolderStream>(subStream);
      if (!sub) continue;

      // A file name value may be stored mapped or relative to the install path.
      SmartPtr<IString> fileName;
      if ((flags & PARAM_FILENAME) && variant && variant->IsString())
        fileName.Attach(StoredFileName(variant.get(), &flags));

      SmartPtr<IString> tag;
      if (fileName) {
        tag.Attach(ISCreate(L"Value"));
        sub->WriteString(tag, fileName);
      } else if (!object) {
        tag.Attach(ISCreate(L"Value"));
        sub->WriteString(tag, AsStringPlace(variant.get()));
      } else if (!QueryAs<IInputParameter>(descriptor)) {
        SmartPtr<IUnknown> held;
        variant->get_Object(held.Out());
        if (!SameObject(held, self)) {
          tag.Attach(ISCreate(L"Unknown"));
          sub->WriteObject(tag, held, 0);
        }
      }
      if (flags != 0) {
        tag.Attach(ISCreate(L"Flags"));
        sub->WriteData(tag, &flags, 4, 0);
      }
      if (descriptor && !SameObject(descriptor, self)) {
        tag.Attach(ISCreate(L"Descriptor"));
        sub->WriteObject(tag, descriptor, 0);
      }
    }
    return S_OK;
  }

  // Merging updates the items whose names the stream holds (flags are not taken over);
  // replacing (0x1000000) builds the collection from the stream's keys.
  HRESULT Params_LoadFolderStream(IDataStream* stream, int options) override {
    using namespace params_detail;
    SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream);
    if (!folder) return S_OK;
    SmartPtr<INamedCollection> keys = QueryAs<INamedCollection>(stream);
    if (!keys) return S_OK;
    if (options & PERSIST_REPLACE) {
      RemoveAll();
      int count = 0;
      keys->get_Count(&count);
      for (int k = 0; k < count; ++k) {
        SmartPtr<IString> name;
        SmartPtr<IUnknown> entry;
        keys->get_ItemName(k, name.Out());
        keys->get_Item(k, entry.Out());
        LoadFolderEntry(folder, name, entry, -1);
      }
      return S_OK;
    }
    const int count = m_Count;
    for (int i = 0; i < count; ++i) {
      SmartPtr<IString> name;
      get_ItemNameNOLOCK(i, name.Out());
      int k = -1;
      if (!name || keys->get_Index(name, &k) < 0) continue;
      SmartPtr<IUnknown> entry;
      keys->get_Item(k, entry.Out());
      LoadFolderEntry(folder, name, entry, i);
    }
    return S_OK;
  }

  // Items that are persistent objects, each as <name><Flags/><object/><ItemDescriptor/></name>.
  HRESULT Params_SaveXMLUnk(IDataStream* stream, int options) override {
    using namespace params_detail;
    SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream);
    if (!xml) return S_OK;
    const int count = m_Count;
    for (int i = 0; i < count; ++i) {
      SmartPtr<IUnknown> item;
      int flags = 0;
      this->get_Item(i, item.Out());
      this->get_ItemFlags(i, &flags);
      SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(item);
      if (!persist) continue;
      SmartPtr<IString> name;
      this->get_ItemName(i, name.Out());
      if (Text(name).empty()) name.Attach(ItemLabel(i));
      xml->OpenTag(name, 0, 0);
      if (flags != 0) {
        SmartPtr<IString> tag, text;
        tag.Attach(ISCreate(L"Flags"));
        text.Attach(ISCreateHex(static_cast<unsigned>(flags)));
        xml->WriteValue(tag, 0, text, 0);
      }
      xml->BeginObject(persist.get(), 0, 0);
      persist->Save(stream, options);
      xml->CloseTag();
      SmartPtr<IUnknown> descriptor;
      this->get_ItemDescriptor(i, descriptor.Out());
      SmartPtr<IDataPersist> described = QueryAs<IDataPersist>(descriptor);
      if (described) {
        SmartPtr<IString> tag;
        tag.Attach(ISCreate(L"ItemDescriptor"));
        xml->OpenTag(tag, 0, 0);
        xml->BeginObject(described.get(), 0, 0);
        described->Save(stream, options);
        xml->CloseTag();
        xml->CloseTag();
      }
      xml->CloseTag();
    }
    return S_OK;
  }

  // 0x1000000 replaces the contents; 0x2000000 loads into the object already held under
  // the element's name instead of making a new one.
  HRESULT Params_LoadXMLUnk(IDataStream* stream, int options) override {
    using namespace params_detail;
    SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream);
    if (!xml) return S_OK;
    const bool replace = (options & PERSIST_REPLACE) != 0;
    if (replace) RemoveAll();
    tagREFString tag{0, nullptr};
    while (xml->NextTag(&tag) >= 0) {
      SmartPtr<IString> name;
      name.Attach(FromView(tag));
      SmartPtr<IUnknown> existing;
      if (options & PERSIST_LOAD_INTO_EXISTING) {
        int index = -1;
        if (this->get_Index(name, &index) >= 0) this->get_Item(index, existing.Out());
      }
      SmartPtr<IUnknown> content;
      if (!ReadContent(xml, tag, content)) break;

      int flags = 0;
      SmartPtr<IUnknown> descriptor;
      SmartPtr<IUnknown> value = existing;
      SmartPtr<IXMLStream> children = QueryAs<IXMLStream>(content);
      tagREFString child{0, nullptr};
      while (children && children->NextTag(&child) >= 0) {
        SmartPtr<IUnknown> childContent;
        if (TagIs(child, L"Flags")) {
          if (!ReadContent(children, child, childContent)) break;
          SmartPtr<IString> holder;
          flags = _IS2Integer(ContentText(childContent, holder), 10);
        } else if (TagIs(child, L"ItemDescriptor")) {
          if (!ReadContent(children, child, childContent)) break;
          SmartPtr<IXMLStream> inner = QueryAs<IXMLStream>(childContent);
          tagREFString objectTag{0, nullptr};
          SmartPtr<IUnknown> made;
          if (inner && inner->NextTag(&objectTag) >= 0 && inner->ReadObject(made.Out()) >= 0 && made)
            descriptor = made.get();
        } else if (!existing) {
          // NextTag has stepped over the element: a failed read leaves nothing to skip.
          SmartPtr<IUnknown> made;
          if (children->ReadNamedObject(child.m_Length, child.m_Text, made.Out()) >= 0 && made) value = made.get();
        } else {
          SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(existing);
          bool matches = persist.get() != nullptr;
          SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(existing);
          if (matches && info) {
            tagREFString objectName{0, nullptr};
            matches = info->GetName(0, &objectName) >= 0 && CREFString(objectName).CompareI(child, 0) >= 0;
          }
          if (!ReadContent(children, child, childContent)) break;
          SmartPtr<IDataStream> childStream = QueryAs<IDataStream>(childContent);
          if (matches && childStream) persist->Load(childStream, 0);
        }
      }

      if (!replace) {
        int index = -1;
        if (this->get_Index(name, &index) >= 0 && ValidIndex(index)) {
          this->put_Item(index, value);
          this->put_ItemFlags(index, flags);
          this->put_ItemDescriptor(index, descriptor);
        }
      } else if (tag.m_Length > 0 && value) {
        Set(name.get(), value.get(), descriptor.get(), flags, 0);
      }
    }
    return S_OK;
  }

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
  bool ValidIndex(int index) const { return index >= 0 && index < m_Count; }

  // The XML loader of Params_LoadXML. With addMissing (the host's own collection), an
  // element whose name is not held is added as an empty item and then loaded like a
  // known one, so that nothing the stream holds is lost.
  HRESULT LoadXMLElements(IDataStream* stream, int options, bool addMissing) {
    using namespace params_detail;
    SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream);
    if (!xml) return S_OK;
    const bool replace = (options & PERSIST_REPLACE) != 0;
    if (replace) RemoveAll();
    tagREFString tag{0, nullptr};
    while (xml->NextTag(&tag) >= 0) {
      SmartPtr<IString> name;
      name.Attach(FromView(tag));
      SmartPtr<IUnknown> content;
      if (!ReadContent(xml, tag, content)) break;
      if (replace) {
        SmartPtr<IString> holder;
        CREFString text = ContentText(content, holder);
        SmartPtr<IVariant> value;
        value.Attach(IVCreateConvert(text));
        Add(name, value, nullptr, 0);
        continue;
      }
      int index = -1;
      if (this->get_Index(name, &index) < 0 || !ValidIndex(index)) {
        if (!addMissing) continue;
        Add(name, nullptr, nullptr, 0);
        index = m_Count - 1;
      }
      LoadXMLItem(content, index);
    }
    return S_OK;
  }

  // One entry of a folder stream into item `index`, or into a new item when index is -1.
  void LoadFolderEntry(IFolderStream* folder, IString* name, IUnknown* entry, int index) {
    using namespace params_detail;
    const bool adding = index < 0;
    SmartPtr<IVariant> value;
    value.Attach(CREFString::CreateVariant());
    if (!value) return;
    SmartPtr<IFolderStream> sub = QueryAs<IFolderStream>(entry);
    if (!sub) {
      folder->ReadString(name, AsStringPlace(value.get()));
      if (adding)
        Add(name, value, nullptr, 0);
      else
        this->put_Item(index, value);
      return;
    }
    int flags = 0;
    SmartPtr<IString> tag;
    tag.Attach(ISCreate(L"Flags"));
    if (sub->ReadData(tag, &flags, 4, 0) < 0) flags = 0;
    tag.Attach(ISCreate(L"Value"));
    if (sub->ReadString(tag, AsStringPlace(value.get())) < 0) {
      tag.Attach(ISCreate(L"Unknown"));
      IUnknown* object = nullptr;
      if (sub->ReadObject(tag, reinterpret_cast<void**>(&object), 0) >= 0) value->put_Object(object);
      if (object) object->Release();
    }
    if ((flags & PARAM_FILENAME) && value->IsString()) RestoreFileName(value.get(), flags, adding);
    tag.Attach(ISCreate(L"Descriptor"));
    IUnknown* descriptor = nullptr;
    const bool described = sub->ReadObject(tag, reinterpret_cast<void**>(&descriptor), 0) >= 0;
    if (adding) {
      Add(name, value, described ? descriptor : nullptr, flags);
    } else {
      this->put_Item(index, value);
      if (described) this->put_ItemDescriptor(index, descriptor);
    }
    if (descriptor) descriptor->Release();
  }

 private:
  static const wchar_t* NameText(const PARAMETEROBJECT* item) {
    const wchar_t* text = nullptr;
    int n = 0;
    if (!item || !item->Name || item->Name->GetString(&text, &n) < 0 || !text) return L"";
    return text;
  }

  // Low four bits 3 or 5, and 6 too where `withSix` (the XML form).
  static bool LowKindDropped(int flags, bool withSix) {
    const int kind = flags & 0xF;
    return kind == 3 || kind == 5 || (withSix && kind == 6);
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

  // Children "Value", "Flags" and descriptor objects of one element, or its whole text
  // when it has no child.
  void LoadXMLItem(IUnknown* content, int index) {
    using namespace params_detail;
    SmartPtr<IXMLStream> children = QueryAs<IXMLStream>(content);
    bool anyChild = false;
    tagREFString child{0, nullptr};
    while (children && children->NextTag(&child) >= 0) {
      anyChild = true;
      SmartPtr<IUnknown> childContent;
      if (TagIs(child, L"Value")) {
        if (!ReadContent(children, child, childContent)) break;
        SmartPtr<IString> holder;
        CREFString text = ContentText(childContent, holder);
        SmartPtr<IVariant> value;
        value.Attach(IVCreateConvert(text));
        this->put_Item(index, value);
      } else if (TagIs(child, L"Flags")) {
        if (!ReadContent(children, child, childContent)) break;
        SmartPtr<IString> holder;
        this->put_ItemFlags(index, _IS2Integer(ContentText(childContent, holder), 10));
      } else {
        SmartPtr<IUnknown> made;
        if (children->ReadNamedObject(child.m_Length, child.m_Text, made.Out()) >= 0)
          this->put_ItemDescriptor(index, made);
      }
    }
    if (!anyChild) {
      SmartPtr<IString> holder;
      CREFString text = ContentText(content, holder);
      SmartPtr<IVariant> value;
      value.Attach(IVCreateConvert(text));
      this->put_Item(index, value);
    }
  }

  // The text to store for a file name value, or null to store the value as it is.
  // May set PARAM_UNDER_INSTALL in *flags.
  static IString* StoredFileName(IVariant* variant, int* flags) {
    SmartPtr<IString> file;
    variant->get_String(file.Out());
    if (!file) return nullptr;
    IString* result = nullptr;
    if (!(*flags & PARAM_RELATIVE)) {
      if (FILENAMEMap(file, &result, 0) < 0 && result) {
        result->Release();
        result = nullptr;
      }
      return result;
    }
    SmartPtr<IString> install;
    FILENAMEGetInstallPath(install.Out());
    if (!(*flags & PARAM_UNDER_INSTALL)) {
      const std::wstring path = params_detail::Text(install);
      if (!path.empty() &&
          CREFString(RefOf(params_detail::Text(file).c_str())).CompareI(RefOf(path.c_str()), 1) >= 0)
        *flags |= PARAM_UNDER_INSTALL;
    }
    if (!(*flags & PARAM_UNDER_INSTALL)) return nullptr;
    if (FILENAMECreateRelative(install, file, &result) == S_OK && result) return result;
    if (result) result->Release();
    result = nullptr;
    if (FILENAMEMap(file, &result, 0) >= 0 && result) return result;
    if (result) result->Release();
    file->AddRef();
    return file.get();
  }

  // Undoes StoredFileName on a loaded value, in the variant itself.
  static void RestoreFileName(IVariant* value, int flags, bool replacing) {
    SmartPtr<IString> stored;
    value->get_String(stored.Out());
    if (!stored) return;
    SmartPtr<IString> file;
    if (FILENAMEUnmap(stored, file.Out()) >= 0 && file) {
      value->put_String(file);
      if (!replacing || !(flags & PARAM_RELATIVE)) return;
    } else if (flags & PARAM_UNDER_INSTALL) {
      SmartPtr<IString> install, absolute;
      FILENAMEGetInstallPath(install.Out());
      if (FILENAMECreateAbsolute(install, stored, absolute.Out()) >= 0 && absolute) value->put_String(absolute);
    }
    if (flags & PARAM_RELATIVE) {
      SmartPtr<IString> held;
      value->get_String(held.Out());
      params_detail::RepairSeparators(held);
      // A variant that hands out copies keeps the repaired text too.
      if (held) value->put_String(held);
    }
  }
};
