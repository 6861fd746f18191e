// "XMLStream" and "XMLStreamEx": one class that writes and reads XML text held as wide
// characters (4 bytes each; byte counts at the interface are characters times 4).
//
// Writing: Attach(null, 0, 0) starts an empty text. OpenTag, BeginObject (element named
// after the object's IObjectInfo name) and WriteValue open elements, CloseTag closes the
// last one. Child elements go on their own line, indented two blanks a level; element
// text is never padded. Text is escaped (& < > " ' and carriage return as references),
// characters that XML 1.0 cannot carry become U+FFFD, and element names are made valid
// (other characters become '_'). Write appends raw markup outside any element (the
// prologue) and escaped text inside one.
//
// Reading: Attach(text, bytes, 0) copies the text. NextTag finds the next element at
// this level, reports its name as a view into the stream's text and steps over it; a
// processing instruction ("<?...?>") is reported as its text from the '?' to the closing
// '>' and is not stepped over: the caller seeks over it, or the next NextTag does.
// ReadElement returns the element last reported by NextTag when its tag matches (any
// case), else it searches forward at this level. The content comes back as a new stream:
// XML when the element has child elements, otherwise its text with references decoded
// (such a text stream reports no elements). Views stay valid until the stream's text
// changes. Malformed text gives E_FAIL; nesting is bounded by kMaxDepth.
#pragma once

#include <string>
#include <vector>

#include "frame/Object.h"

class CXMLStream : public CObject<CXMLStream>, public IXMLStreamEx, public IString, public IObjectInfo {
 public:
  static constexpr size_t kMaxDepth = 256;

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

  // Where one element lies in the text (offsets in characters).
  struct Element {
    size_t start = 0, nameStart = 0, nameLength = 0;
    size_t contentStart = 0, contentEnd = 0, end = 0;
    bool hasChildren = false;
  };

 private:
  enum ItemKind { ITEM_ELEMENT, ITEM_INSTRUCTION, ITEM_END, ITEM_ERROR };
  ItemKind NextItem(size_t from, Element* element, size_t* instructionEnd) const;
  HRESULT FindElement(int length, const wchar_t* tag, Element* element);
  HRESULT MakeContent(const Element& element, CXMLStream** content) const;
  HRESULT CreateAndLoad(const Element& element, IUnknown** object);
  void OpenElement(const std::wstring& name);
  void StartChild();
  void AppendEscaped(const wchar_t* text, size_t length);
  void ResetReading();

  std::wstring m_Text;
  size_t m_Position = 0;  // read position, characters
  bool m_Extended;
  bool m_TextOnly = false;  // content of an element without children: no elements
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

// Scans the element whose '<' is at `start`; false when it is not well formed.
bool XMLScanElement(const std::wstring& text, size_t start, CXMLStream::Element* element);
// The text of element content: references decoded, CDATA unwrapped, comments dropped.
std::wstring XMLUnescape(const wchar_t* text, size_t length);
// A valid XML element name made from any text.
std::wstring XMLElementName(const std::wstring& name);
