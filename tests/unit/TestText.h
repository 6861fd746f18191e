// Text helpers shared by the unit tests: host strings and views as std::wstring.
#pragma once

#include <string>

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

}  // namespace test_text
