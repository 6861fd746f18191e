// Helpers shared by the stream objects of the "Streams" peer module: reading text out of
// whatever the caller hands in as a name or value (a string or a variant), and UTF-8
// encoding.
#pragma once

#include "host/common/HostString.h"

#include <cstddef>
#include <cstdint>
#include <string>

#include "frame/HostInterfaces.h"
#include "frame/ModuleInterfaces.h"

namespace streams {

// A key handed in as IString*: callers may pass a string or a variant in that place, so
// the pointer is only ever asked QueryInterface (slot 0 of both). A variant holding an
// integer is an index; anything else is a name.
struct StreamKey {
  bool valid = false;
  bool isIndex = false;
  int index = -1;
  std::wstring name;
};
StreamKey KeyOf(IUnknown* key);

// The text of a string or variant (numbers as decimal text); false for neither.
bool TextOf(IUnknown* value, std::wstring* text);

// UTF-8 of wide text; values that are not Unicode scalars become U+FFFD.
inline std::string ToUtf8(const wchar_t* text, size_t length) { return HostUtf8(text, length); }

// Case-insensitive comparison of two wide views (ASCII letters folded).
bool SameNameNoCase(const wchar_t* a, size_t aLength, const wchar_t* b, size_t bLength);

// An object's own name through IObjectInfo; empty when it has none.
std::wstring ObjectNameOf(IUnknown* object);

}  // namespace streams
