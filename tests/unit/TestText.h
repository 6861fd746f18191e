// Helpers shared by the unit tests: host strings, views and variants as the module makes
// them, and the text of any object that answers IString.
#pragma once

#include <string>

#include "frame/Components.h"
#include "frame/Conversions.h"
#include "frame/Object.h"

namespace test_text {

// The text of a host string, which is released; "<null>" for a null string.
inline std::wstring Take(IString* text) {
  if (!text) return L"<null>";
  const wchar_t* chars = nullptr;
  int length = 0;
  text->GetString(&chars, &length);
  std::wstring result = (chars && length > 0) ? std::wstring(chars, static_cast<size_t>(length)) : std::wstring();
  text->Release();
  return result;
}

inline std::wstring ViewText(const tagREFString& view) {
  if (!view.m_Text || view.m_Length <= 0) return std::wstring();
  return std::wstring(view.m_Text, static_cast<size_t>(view.m_Length));
}

// A view of `text`, which must outlive it.
inline CREFString View(const std::wstring& text) { return CREFString(text.c_str(), static_cast<int>(text.size())); }

inline SmartPtr<IString> Str(const std::wstring& text) {
  SmartPtr<IString> s;
  s.Attach(ISCreate(text.c_str()));
  return s;
}

// The text of an object through its IString.
inline std::wstring TextOf(IUnknown* object) {
  SmartPtr<IString> s = QueryAs<IString>(object);
  if (!s) return L"<no IString>";
  s->AddRef();
  return Take(s.get());
}

// Host variants holding an integer, a double or a string.
inline SmartPtr<IVariant> Variant(int value) {
  SmartPtr<IVariant> v;
  v.Attach(CREFString::CreateVariant());
  v->put_Integer(value);
  return v;
}
inline SmartPtr<IVariant> Variant(double value) {
  SmartPtr<IVariant> v;
  v.Attach(CREFString::CreateVariant());
  v->put_Double(value);
  return v;
}
inline SmartPtr<IVariant> Variant(const wchar_t* text) {
  SmartPtr<IVariant> v;
  v.Attach(CREFString::CreateVariant());
  v->put_String(Str(text).get());
  return v;
}

}  // namespace test_text
