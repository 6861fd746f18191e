// Non-owning views of wide text, with a small tokeniser that walks a view.
#pragma once

#include "frame/HostInterfaces.h"

struct ISuperCollection;

// A view into text owned by a host string (or any wide buffer). Never owns, never
// allocates; valid only as long as the text it points into.
class CREFString : public tagREFString {
 public:
  CREFString() : tagREFString{0, nullptr} {}
  CREFString(const wchar_t* text, int length) : tagREFString{length, text} {}
  explicit CREFString(const tagREFString& view) : tagREFString(view) {}
  // Takes the whole text of a stream (through its IString); empty when it has none.
  explicit CREFString(IDataStream* stream);
  explicit CREFString(IString* text);
  virtual ~CREFString() = default;
  CREFString(const CREFString&) = default;
  CREFString& operator=(const CREFString&) = default;

  // Results are HRESULTs (S_OK, S_FALSE, E_FAIL) unless said otherwise. Every result
  // view pointer may be null.
  virtual HRESULT GetLine(CREFString* line, bool advance, wchar_t separator, bool dropSeparator);
  virtual HRESULT GetLineCRLF(CREFString* line, bool dropEnd, bool advance);
  virtual HRESULT GetReverseLine(CREFString* line, wchar_t ch, bool advance, bool skip);
  virtual HRESULT GetLineRight(CREFString* tail, wchar_t ch, bool cut, bool skip, bool wholeIfNone);
  virtual HRESULT Crop(CREFString* tail, wchar_t ch, bool cut, bool skip);
  virtual HRESULT Split(CREFString* left, CREFString* right, CREFString separators, int stopAtControl);
  virtual HRESULT GetFirstWord(CREFString* word, bool advance);
  // Returns the index of the first stop character plus 1, or 0 when there is none.
  virtual int GetWord(CREFString* word, bool advance, tagREFString stops);
  virtual HRESULT Contains(tagREFString text);
  virtual HRESULT ContainsChar(tagREFString set);
  // Case-insensitive; S_OK on an exact match, S_FALSE on a prefix match.
  HRESULT CompareI(tagREFString other, short prefix) const;

  int Length() const { return m_Length; }
  const wchar_t* Text() const { return m_Text; }

  // Lazily cached creators of host strings, variants and collections. They work even
  // when no global component collection has been handed to the module.
  static ICreatableString* CreateString();
  static IVariant* CreateVariant();
  static ISuperCollection* CreateCollection();
};

// A view of a terminated literal.
inline tagREFString RefOf(const wchar_t* text) {
  return tagREFString{static_cast<int32_t>(text ? std::wcslen(text) : 0), text};
}
