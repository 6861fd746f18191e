// The XML forms of the parameter collection: one element per item (Params_SaveXML,
// Params_LoadXML), and the persistent objects among the items (the ...XMLUnk pair).
#pragma once

#include "persist/ParametersCollection.h"

namespace params_detail {

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

// Reads the element the stream is at and gives its content; false when it cannot.
inline bool ReadContent(IXMLStream* xml, const tagREFString& tag, SmartPtr<IUnknown>& content) {
  tagREFString name{0, nullptr};
  return xml->ReadElement(tag.m_Length, tag.m_Text, &name, content.Out(), 0) >= 0;
}

}  // namespace params_detail

// One element per item: <name>value</name> when there is neither descriptor nor flags,
// else <name><Value>..</Value><Flags>#..</Flags><descriptor object/></name>.
template <class T, class I>
HRESULT IParametersImpl<T, I>::Params_SaveXML(IDataStream* stream, int options) {
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
template <class T, class I>
HRESULT IParametersImpl<T, I>::Params_LoadXML(IDataStream* stream, int options, int) {
  return LoadXMLElements(stream, options, false);
}

// Items that are persistent objects, each as <name><Flags/><object/><ItemDescriptor/></name>.
template <class T, class I>
HRESULT IParametersImpl<T, I>::Params_SaveXMLUnk(IDataStream* stream, int options) {
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
template <class T, class I>
HRESULT IParametersImpl<T, I>::Params_LoadXMLUnk(IDataStream* stream, int options) {
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

// The XML loader of Params_LoadXML. With addMissing (the host's own collection), an
// element whose name is not held is added as an empty item and then loaded like a
// known one, so that nothing the stream holds is lost.
template <class T, class I>
HRESULT IParametersImpl<T, I>::LoadXMLElements(IDataStream* stream, int options, bool addMissing) {
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

// Children "Value", "Flags" and descriptor objects of one element, or its whole text
// when it has no child.
template <class T, class I>
void IParametersImpl<T, I>::LoadXMLItem(IUnknown* content, int index) {
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
