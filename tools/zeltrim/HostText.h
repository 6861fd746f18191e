// Text of host strings for the command line: the wide text of a string object, and wide
// text made printable ASCII for messages ('?' for anything else).
#pragma once

#include <string>

#include "frame/HostInterfaces.h"

// The string's text; empty for null, an empty string or one that will not give its text.
inline std::wstring TextOf(IString* text) {
  const wchar_t* p = nullptr;
  int n = 0;
  if (!text || text->GetString(&p, &n) < 0 || !p || n <= 0) return std::wstring();
  return std::wstring(p, static_cast<size_t>(n));
}

inline std::string Narrow(const std::wstring& text) {
  std::string out;
  for (wchar_t c : text) out += (c >= 32 && c < 127) ? static_cast<char>(c) : '?';
  return out;
}
