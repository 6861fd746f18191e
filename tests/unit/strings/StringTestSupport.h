// Helpers shared by the string and conversion tests.
#pragma once

#include <string>

#include "frame/Conversions.h"
#include "frame/Object.h"

namespace strings_test {

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

inline CREFString View(const std::wstring& text) {
  return CREFString(text.c_str(), static_cast<int>(text.size()));
}

// A host variant holding a string.
inline SmartPtr<IVariant> StringVariant(const wchar_t* text) {
  SmartPtr<IVariant> variant;
  variant.Attach(CREFString::CreateVariant());
  IString* s = ISCreate(text);
  variant->put_String(s);
  s->Release();
  return variant;
}

inline SmartPtr<IVariant> IntegerVariant(int value) {
  SmartPtr<IVariant> variant;
  variant.Attach(CREFString::CreateVariant());
  variant->put_Integer(value);
  return variant;
}

inline SmartPtr<IVariant> DoubleVariant(double value) {
  SmartPtr<IVariant> variant;
  variant.Attach(CREFString::CreateVariant());
  variant->put_Double(value);
  return variant;
}

}  // namespace strings_test
