#include "frame/Conversions.h"

#include <cmath>
#include <cstdarg>
#include <cwctype>
#include <string>
#include <vector>

#include "frame/Object.h"

namespace {

// A view with a usable pointer; a null pointer or a negative length reads as empty.
int ViewLength(const tagREFString& view) { return (view.m_Text && view.m_Length > 0) ? view.m_Length : 0; }

IString* MakeString(const wchar_t* text, int length) {
  ICreatableString* s = CREFString::CreateString();
  if (!s) return nullptr;
  if (text && length > 0) s->SetString(length, text);
  return s;
}

IString* MakeString(const wchar_t* terminated) {
  return MakeString(terminated, terminated ? static_cast<int>(std::wcslen(terminated)) : 0);
}

// Eight characters '1' and '0', highest bit first.
IString* BitPattern(unsigned int byte) {
  wchar_t text[9];
  for (int bit = 0; bit < 8; ++bit) text[bit] = (byte & (0x80u >> bit)) ? L'1' : L'0';
  text[8] = 0;
  return MakeString(text, 8);
}

// The number test shared by the variant formatter and IVCreateConvert: an optional '-'
// (only when allowSign), digits, at most one '.', and white space that ends the test once
// a digit has been seen. Returns false when the text is no number; *dot tells whether it
// had a fraction point.
bool LooksNumeric(const wchar_t* text, int length, bool* dot) {
  *dot = false;
  bool digit = false;
  int i = 0;
  if (i < length && text[i] == L'-') ++i;
  for (; i < length; ++i) {
    const wchar_t c = text[i];
    if (c >= L'0' && c <= L'9') {
      digit = true;
    } else if (c == L'.') {
      if (*dot) return false;
      *dot = true;
    } else if (std::iswspace(static_cast<wint_t>(c))) {
      if (!digit) return false;
      break;
    } else {
      return false;
    }
  }
  return true;
}

// Upper case through the C locale table, which covers the values -128 to 255; in that
// locale only 'a' to 'z' change.
int CUpper(wchar_t c) {
  if (c >= L'a' && c <= L'z') return c - L'a' + L'A';
  return static_cast<int>(c);
}

}  // namespace

// ---------------------------------------------------------------- formatting

int _swprintf(wchar_t* buffer, unsigned long size, const wchar_t* format, ...) {
  if (!buffer || size == 0 || !format) return -1;
  va_list args;
  va_start(args, format);
  const int written = std::vswprintf(buffer, size, format, args);
  va_end(args);
  // The formatter leaves a cut-off text unterminated and reports -1; the text is then
  // dropped rather than left unterminated.
  if (written < 0 || static_cast<unsigned long>(written) >= size) {
    buffer[0] = 0;
    return -1;
  }
  buffer[written] = 0;
  return written;
}

wchar_t UTF8Decode(const unsigned char* bytes, int left, int* used) {
  if (!bytes || left <= 0) {
    if (used) *used = 0;
    return 0;
  }
  const unsigned int lead = bytes[0];
  int consumed = 1;
  uint32_t value;
  if (lead < 0x80) {
    value = lead;
  } else if ((lead & 0xC0) == 0xC0 && left >= 2) {
    // One continuation byte for each set bit below the top one; the lead keeps the bits
    // below the first clear one. A sequence cut short by the end of the text stops there.
    uint32_t tail = 0;
    unsigned int mask = 0x40;
    while ((lead & mask) && consumed < left) {
      tail = (tail << 6) | (bytes[consumed] & 0x3Fu);
      ++consumed;
      mask >>= 1;
    }
    const int shift = 6 * (consumed - 1);
    const uint32_t high = lead & (mask - 1);
    value = (shift < 32 ? (high << shift) : 0u) | tail;
  } else {
    value = lead & 0x3Fu;
  }
  if (used) *used = consumed;
  return static_cast<wchar_t>(value);
}

IString* ISCreate(const wchar_t* text) { return MakeString(text); }

IString* ISCreate(const char* text, int length) {
  std::wstring decoded;
  if (text && length > 0) {
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text);
    int at = 0;
    while (at < length) {
      int used = 0;
      decoded.push_back(UTF8Decode(bytes + at, length - at, &used));
      at += used > 0 ? used : 1;
    }
  }
  return MakeString(decoded.c_str(), static_cast<int>(decoded.size()));
}

IString* ISCreate(int value) {
  wchar_t text[32];
  _swprintf(text, 32, L"%i", value);
  return MakeString(text);
}

IString* ISCreate(double value, short decimals) {
  int d = decimals;
  if (decimals < 0) {
    // As few decimals as the value needs: stop once the scaled fraction is (nearly) whole.
    d = 0;
    double scale = 1.0;
    while (true) {
      double whole = 0.0;
      const double fraction = std::modf(std::fabs(value) * scale, &whole);
      if (fraction < 1e-8 || fraction > 0.9999999) break;
      ++d;
      scale *= 10.0;
      if (d == 9) break;
    }
  }
  wchar_t format[32];
  _swprintf(format, 32, L"%%.%df", d);
  // Room for the widest double (309 digits, sign and point) and the decimals asked for.
  std::vector<wchar_t> text(static_cast<size_t>(d) + 340);
  _swprintf(text.data(), text.size(), format, value);
  return MakeString(text.data());
}

IString* ISCreateHex(unsigned int value) {
  wchar_t text[32];
  _swprintf(text, 32, value <= 0xFFFFFFu ? L"#%06X" : L"#%X", value);
  return MakeString(text);
}

IString* ISLabel(const wchar_t* prefix, int value, wchar_t separator, int width) {
  wchar_t text[256];
  _swprintf(text, 256, L"%ls%lc%0*d", prefix ? prefix : L"", static_cast<wint_t>(separator), width, value);
  return MakeString(text);
}

IString* ISCreate(IVariant* value) {
  if (!value) return nullptr;
  if (value->IsString()) {
    IString* text = nullptr;
    if (value->get_String(&text) >= 0 && text) return text;
    return MakeString(nullptr, 0);
  }
  const short type = value->get_Type();
  if (type == VARIANT_INTEGER || type == VARIANT_DOUBLE) return ISCreate(value, static_cast<short>(-1));
  // An object gives its name; no object, or one without a name, an empty string.
  IUnknown* object = nullptr;
  if (value->IsObject() && value->get_Object(&object) >= 0 && object) {
    SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(object);
    object->Release();
    tagREFString name{0, nullptr};
    if (info && info->GetName(0, &name) >= 0) return MakeString(name.m_Text, ViewLength(name));
  }
  return MakeString(nullptr, 0);
}

IString* ISCreate(IVariant* value, short decimals) {
  if (!value) return nullptr;
  if (decimals < -1) {
    const unsigned int bits = static_cast<unsigned int>(value->get_Integer());
    switch (decimals) {
      case -16:
        return ISCreateHex(bits);
      case -42:
      case -24:
        return BitPattern((bits >> 24) & 0xFF);
      case -32:
      case -23:
        return BitPattern((bits >> 16) & 0xFF);
      case -22:
        return BitPattern((bits >> 8) & 0xFF);
      default:
        return BitPattern(bits & 0xFF);
    }
  }
  short kind;
  if (value->IsString()) {
    IString* text = nullptr;
    if (value->get_String(&text) < 0 || !text) return MakeString(nullptr, 0);
    const wchar_t* chars = nullptr;
    int length = 0;
    if (text->GetString(&chars, &length) < 0 || !chars || length < 0) length = 0;
    bool dot = false;
    if (!LooksNumeric(chars, length, &dot)) return text;
    if (dot) {
      kind = VARIANT_DOUBLE;
    } else {
      if (length > 9) return text;
      kind = VARIANT_INTEGER;
    }
    text->Release();
  } else {
    kind = value->get_Type();
  }
  if (kind == VARIANT_INTEGER && decimals <= 0) return ISCreate(value->get_Integer());
  return ISCreate(value->get_Double(), decimals);
}

// ---------------------------------------------------------------- parsing

int _IS2Integer(CREFString text, int base) {
  const int length = ViewLength(text);
  if (length == 0) return 0;
  const wchar_t* p = text.m_Text;
  int i = 0;
  bool negative = false;
  if (p[0] == L'-') {
    negative = true;
    ++i;
  } else if (p[0] == L'+') {
    ++i;
  } else if (p[0] == L'#') {
    base = 16;
    ++i;
  }
  uint32_t value = 0;
  const bool letters = base >= 11 && base <= 16;
  for (; i < length; ++i) {
    const int c = CUpper(p[i]);
    uint32_t digit;
    if (c >= '0' && c <= '9') digit = static_cast<uint32_t>(c - '0');
    else if (letters && c >= 'A' && c <= 'F') digit = static_cast<uint32_t>(c - 'A' + 10);
    else break;
    value = value * static_cast<uint32_t>(base) + digit;
  }
  if (negative) value = 0u - value;
  return static_cast<int>(value);
}

double _IS2Double(CREFString text) {
  const int length = ViewLength(text);
  if (length == 0) return 0.0;
  const wchar_t* p = text.m_Text;
  int i = 0;
  if (p[0] == L'#') {
    uint64_t value = 0;
    for (i = 1; i < length; ++i) {
      const int c = CUpper(p[i]);
      uint64_t digit;
      if (c >= '0' && c <= '9') digit = static_cast<uint64_t>(c - '0');
      else if (c >= 'A' && c <= 'F') digit = static_cast<uint64_t>(c - 'A' + 10);
      else break;
      value = value * 16u + digit;
    }
    return static_cast<double>(value);
  }
  double sign = 1.0;
  if (p[0] == L'-') {
    sign = -1.0;
    ++i;
  } else if (p[0] == L'+') {
    ++i;
  }
  // Whole and fraction parts in 64-bit integers (wrapping as the hardware does).
  uint64_t whole = 0;
  uint64_t fraction = 0;
  uint64_t divisor = 1;
  bool inFraction = false;
  for (; i < length; ++i) {
    const wchar_t c = p[i];
    if (c == L'.') {
      if (inFraction) break;
      inFraction = true;
      continue;
    }
    if (c < L'0' || c > L'9') break;
    const uint64_t digit = static_cast<uint64_t>(c - L'0');
    if (!inFraction) {
      whole = whole * 10u + digit;
    } else {
      fraction = fraction * 10u + digit;
      divisor *= 10u;
      if (divisor > 999999999999999999ull) break;
    }
  }
  const double value = static_cast<double>(static_cast<int64_t>(whole)) +
                       static_cast<double>(static_cast<int64_t>(fraction)) / static_cast<double>(divisor);
  return sign * value;
}

IVariant* IVCreateConvert(CREFString& text) {
  IVariant* variant = CREFString::CreateVariant();
  if (!variant) return nullptr;
  if (!text.m_Text || text.m_Length < 0) text.m_Length = 0;
  // Leading blanks, control characters and what is left of byte order marks go.
  while (text.m_Length > 0) {
    const wchar_t c = text.m_Text[0];
    if (!(std::iswspace(static_cast<wint_t>(c)) || std::iswcntrl(static_cast<wint_t>(c)) || c == 254 || c == 239))
      break;
    ++text.m_Text;
    --text.m_Length;
  }
  bool dot = false;
  bool number = text.m_Length > 0 && LooksNumeric(text.m_Text, text.m_Length, &dot);
  if (number && !dot && text.m_Length > 9) number = false;
  if (!number) {
    IString* s = MakeString(text.m_Text, ViewLength(text));
    variant->put_String(s);
    if (s) s->Release();
  } else if (dot) {
    variant->put_Double(_IS2Double(text));
  } else {
    variant->put_Integer(_IS2Integer(text, 10));
  }
  return variant;
}
