// Helpers shared by the string and conversion tests.
#pragma once

#include "tests/unit/TestText.h"
#include <string>

#include "frame/Conversions.h"
#include "frame/Object.h"

namespace strings_test {

using test_text::Take;
using test_text::ViewText;

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
