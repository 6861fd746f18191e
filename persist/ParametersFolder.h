// The folder stream form of the parameter collection: a plain key per item that holds
// only a value, a sub-stream per item with flags, a descriptor or an object.
#pragma once

#include "persist/FileName.h"
#include "persist/ParametersCollection.h"

namespace params_detail {

// A variant holds an object proper (not a string, which a host may also hold as object).
inline bool HoldsObject(IVariant* v) { return v && v->IsObject() && !v->IsString(); }

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

// The text to store for a file name value, or null to store the value as it is.
// May set PARAM_UNDER_INSTALL in *flags.
inline IString* StoredFileName(IVariant* variant, int* flags) {
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
    const std::wstring path = Text(install);
    if (!path.empty() &&
        CREFString(RefOf(Text(file).c_str())).CompareI(RefOf(path.c_str()), 1) >= 0)
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
inline void RestoreFileName(IVariant* value, int flags, bool replacing) {
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
    RepairSeparators(held);
    // A variant that hands out copies keeps the repaired text too.
    if (held) value->put_String(held);
  }
}

}  // namespace params_detail

// On a folder stream: an item with a value only is a plain key; anything else is a
// sub-stream with "Value" (or "Unknown" for an object), "Flags" and "Descriptor".
template <class T, class I>
HRESULT IParametersImpl<T, I>::Params_SaveFolderStream(IDataStream* stream, int options) {
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
template <class T, class I>
HRESULT IParametersImpl<T, I>::Params_LoadFolderStream(IDataStream* stream, int options) {
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

// One entry of a folder stream into item `index`, or into a new item when index is -1.
template <class T, class I>
void IParametersImpl<T, I>::LoadFolderEntry(IFolderStream* folder, IString* name, IUnknown* entry, int index) {
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
