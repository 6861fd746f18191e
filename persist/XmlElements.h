// Reading a class's XML form element by element, as every XML Load of the module does.
#pragma once

#include "frame/StringRefs.h"

// Walks the elements of `xml` in order, handing `visit(name, content)` each element's tag
// and content (an IString for text, a stream of the children otherwise). Every element is
// consumed; one that cannot be read ends the walk.
template <class Visit>
void ForEachXmlElement(IXMLStream* xml, Visit visit) {
  tagREFString tag{0, nullptr};
  while (xml->NextTag(&tag) >= 0) {
    const CREFString name(tag);
    tagREFString found{0, nullptr};
    SmartPtr<IUnknown> content;
    if (xml->ReadElement(tag.m_Length, tag.m_Text, &found, content.Out(), 0) < 0) break;
    visit(name, content.get());
  }
}

// Whether an element's tag is `key`, compared without case.
inline bool IsTag(const CREFString& name, const wchar_t* key) { return name.CompareI(RefOf(key), 0) == S_OK; }
