// "XMLStream" and "XMLStreamEx": one class that writes and reads XML text held as wide
// characters (4 bytes each; byte counts at the interface are characters times 4). The
// text work itself (checking, scanning, escaping) is in host/streams/XMLText.h.
//
// Writing: Attach(null, 0, 0) starts an empty text. OpenTag, BeginObject (element named
// after the object's IObjectInfo name) and WriteValue open elements, CloseTag closes the
// last one. Child elements go on their own line, indented two blanks a level; element
// text is never padded. Text is escaped (XMLAppendEscaped) and element names are made
// valid (XMLElementName). Write appends raw markup outside any element (the prologue) and
// escaped text inside one.
//
// Reading: Attach(text, bytes, 0) copies the text and checks that it is one well-formed
// document (XMLCheckDocument), after joining surrogate pairs and dropping terminators
// counted in at its end. A byte count that is not whole characters, a lone surrogate or a
// document that is not well formed is refused with E_FAIL, and every read of the stream
// then fails until the next Attach: no object receives part of a damaged file.
// NextTag finds the next element at this level, reports its name as a view into the
// stream's text and steps over it; a processing instruction ("<?...?>") is reported as its
// text from the '?' to the closing '>' and is not stepped over: the caller seeks over it,
// or the next NextTag does. ReadElement returns the element last reported by NextTag when
// its tag matches (any case), else it searches forward at this level. The content comes
// back as a new stream: XML when the element has child elements, otherwise its text with
// references decoded (such a text stream reports no elements). Views stay valid until the
// stream's text changes. A content stream stands for its element: ReadNamedObject of the
// element's own tag, when no child element has that tag, makes the object from the
// content itself (how a collection reads the items it wrote with BeginObject).
#pragma once

#include <string>
#include <vector>

#include "frame/Object.h"
#include "host/streams/XMLText.h"

class CXMLStream : public CObject<CXMLStream>, public IXMLStreamEx, public IString, public IObjectInfo {
 public:
  explicit CXMLStream(bool extended = true) : m_Extended(extended) {}

  ZELTRIM_OBJECT_REFCOUNT
  HRESULT QueryInterface(const IID& iid, void** object) override;

  // IDataStream
  HRESULT Open(void* text, unsigned long bytes, int writable) override;
  HRESULT Read(void* data, int bytes, int* read) override;
  HRESULT Seek(long bytes, int origin, int) override;
  HRESULT GetBuffer(void** data, unsigned long* bytes) override;
  HRESULT GetPosition(unsigned long* position) override;
  HRESULT Write(const void* text, int bytes, int) override;

  // IXMLStream
  HRESULT get_Depth(int* depth) override;
  HRESULT OpenTag(IString* name, int, int) override;
  HRESULT BeginObject(IUnknown* object, int, int) override;
  HRESULT WriteValue(IString* name, int, IString* value, int) override;
  HRESULT CloseTag() override;
  HRESULT NextTag(tagREFString* name) override;
  HRESULT ReadElement(int length, const wchar_t* tag, tagREFString* name, IUnknown** content, int) override;
  HRESULT ReadObject(IUnknown** object) override;
  HRESULT ReadNamedObject(int length, const wchar_t* tag, IUnknown** object) override;
  HRESULT ReadValue(int length, const wchar_t* tag, IString** value) override;
  HRESULT get_Text(IString** text) override;
  HRESULT Reserved_IXS2() override { return E_NOTIMPL; }
  HRESULT Reserved_IXS3() override { return E_NOTIMPL; }
  HRESULT Reserved_IXS4() override { return E_NOTIMPL; }
  HRESULT SetOptions(int mask, int options) override;

  // IString: the whole text.
  HRESULT GetString(const wchar_t** text, int* length) override;

  // IObjectInfo
  HRESULT GetName(int, tagREFString* name) override;

  int Options() const { return m_Options; }

  using Element = XMLElementSpan;

 private:
  enum ItemKind { ITEM_ELEMENT, ITEM_INSTRUCTION, ITEM_END, ITEM_ERROR };
  ItemKind NextItem(size_t from, Element* element, size_t* instructionEnd) const;
  HRESULT FindElement(int length, const wchar_t* tag, Element* element);
  HRESULT MakeContent(const Element& element, CXMLStream** content) const;
  HRESULT CreateAndLoad(const Element& element, IUnknown** object);
  // Creates the object named m_ElementName of `content` and loads it from `content`,
  // whose reference this takes over.
  HRESULT LoadNew(CXMLStream* content, IUnknown** object);
  void OpenElement(const std::wstring& name);
  void StartChild();
  void ResetReading();

  std::wstring m_Text;
  size_t m_Position = 0;  // read position, characters
  bool m_Extended;
  bool m_TextOnly = false;  // content of an element without children: no elements
  bool m_Refused = false;   // the attached text was refused: reads fail
  std::wstring m_ElementName;  // a content stream: the tag of the element it is the content of
  int m_Options = 0;
  std::vector<std::wstring> m_OpenNames;
  std::vector<bool> m_HadChild;
  bool m_HasPending = false;  // element reported by NextTag, not yet read
  Element m_Pending;
  bool m_HasInstruction = false;  // instruction reported by NextTag, not yet passed
  size_t m_InstructionStart = 0, m_InstructionEnd = 0;
};

HRESULT CreateXMLStreamObject(void* outer, IID* iid, void** object);
HRESULT CreateXMLStreamExObject(void* outer, IID* iid, void** object);
