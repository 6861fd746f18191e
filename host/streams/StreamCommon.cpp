#include "host/streams/StreamCommon.h"

#include <cwchar>

#include "frame/Object.h"

namespace streams {

StreamKey KeyOf(IUnknown* key) {
  StreamKey result;
  if (!key) return result;
  if (SmartPtr<IString> text = QueryAs<IString>(key)) {
    const wchar_t* p = nullptr;
    int n = 0;
    if (text->GetString(&p, &n) < 0) return result;
    if (p && n > 0) result.name.assign(p, static_cast<size_t>(n));
    result.valid = true;
    return result;
  }
  if (SmartPtr<IVariant> variant = QueryAs<IVariant>(key)) {
    if (variant->IsString()) {
      SmartPtr<IString> text;
      if (variant->get_String(text.Out()) >= 0 && text) {
        const wchar_t* p = nullptr;
        int n = 0;
        if (text->GetString(&p, &n) >= 0 && p && n > 0) result.name.assign(p, static_cast<size_t>(n));
      }
      result.valid = true;
      return result;
    }
    if (variant->get_Type() == VARIANT_INTEGER) {
      result.valid = true;
      result.isIndex = true;
      result.index = variant->get_Integer();
    }
  }
  return result;
}

bool TextOf(IUnknown* value, std::wstring* text) {
  text->clear();
  if (!value) return false;
  if (SmartPtr<IString> s = QueryAs<IString>(value)) {
    const wchar_t* p = nullptr;
    int n = 0;
    if (s->GetString(&p, &n) < 0) return false;
    if (p && n > 0) text->assign(p, static_cast<size_t>(n));
    return true;
  }
  if (SmartPtr<IVariant> v = QueryAs<IVariant>(value)) {
    if (v->IsString()) {
      SmartPtr<IString> s;
      if (v->get_String(s.Out()) >= 0 && s) return TextOf(s.get(), text);
      return true;
    }
    wchar_t buffer[64];
    const short type = v->get_Type();
    if (type == VARIANT_INTEGER) {
      std::swprintf(buffer, 64, L"%d", v->get_Integer());
    } else if (type == VARIANT_DOUBLE) {
      std::swprintf(buffer, 64, L"%.17g", v->get_Double());
    } else {
      return false;
    }
    text->assign(buffer);
    return true;
  }
  return false;
}


bool SameNameNoCase(const wchar_t* a, size_t aLength, const wchar_t* b, size_t bLength) {
  if (aLength != bLength) return false;
  for (size_t i = 0; i < aLength; ++i) {
    wchar_t x = a[i], y = b[i];
    if (x >= L'A' && x <= L'Z') x = static_cast<wchar_t>(x - L'A' + L'a');
    if (y >= L'A' && y <= L'Z') y = static_cast<wchar_t>(y - L'A' + L'a');
    if (x != y) return false;
  }
  return true;
}

std::wstring ObjectNameOf(IUnknown* object) {
  SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(object);
  if (!info) return std::wstring();
  tagREFString name{0, nullptr};
  if (info->GetName(0, &name) < 0 || !name.m_Text || name.m_Length <= 0) return std::wstring();
  return std::wstring(name.m_Text, static_cast<size_t>(name.m_Length));
}

}  // namespace streams
