#include "persist/FileArchiveImpl.h"

#include "frame/StringRefs.h"

#include <cstdint>
#include <cstdio>
#include <new>
#include <string>

namespace {

// Files are read whole into memory; anything larger is refused rather than allocated.
constexpr unsigned long kMaxFileBytes = 256ul << 20;

// UTF-8 file name in a buffer of 256 bytes, at most 254 used; a character that does not
// fit ends the name. The limits 2047 and 65535 are one below the usual ones on purpose.
void NameToUTF8(tagREFString name, char out[256]) {
  int used = 0;
  for (int i = 0; name.m_Text && i < name.m_Length; ++i) {
    const uint32_t c = static_cast<uint32_t>(name.m_Text[i]);
    const int need = c < 128 ? 1 : c < 2047 ? 2 : c < 65535 ? 3 : 4;
    if (used + need > 254) break;
    unsigned char* p = reinterpret_cast<unsigned char*>(out + used);
    switch (need) {
      case 1:
        p[0] = static_cast<unsigned char>(c);
        break;
      case 2:
        p[0] = static_cast<unsigned char>(0xC0 | ((c >> 6) & 0x1F));
        p[1] = static_cast<unsigned char>(0x80 | (c & 0x3F));
        break;
      case 3:
        p[0] = static_cast<unsigned char>(0xE0 | ((c >> 12) & 0x0F));
        p[1] = static_cast<unsigned char>(0x80 | ((c >> 6) & 0x3F));
        p[2] = static_cast<unsigned char>(0x80 | (c & 0x3F));
        break;
      default:
        p[0] = static_cast<unsigned char>(0xF0 | ((c >> 18) & 0x07));
        p[1] = static_cast<unsigned char>(0x80 | ((c >> 12) & 0x3F));
        p[2] = static_cast<unsigned char>(0x80 | ((c >> 6) & 0x3F));
        p[3] = static_cast<unsigned char>(0x80 | (c & 0x3F));
        break;
    }
    used += need;
  }
  out[used] = '\0';
}

bool IsContinuation(unsigned char b) { return (b & 0xC0) == 0x80; }

// Strict UTF-8: no overlong forms, no surrogates, nothing above 0x10FFFF, no stray
// continuation bytes. A 4-byte form needs five bytes left, its own four and one more.
bool IsStrictUTF8(const unsigned char* b, unsigned long n) {
  unsigned long i = 0;
  while (i < n) {
    const unsigned char lead = b[i];
    const unsigned long left = n - i;
    if (lead < 0x80) {
      i += 1;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
      if (left < 2 || !IsContinuation(b[i + 1])) return false;
      i += 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      if (left < 3) return false;
      const unsigned char second = b[i + 1];
      const unsigned char low = lead == 0xE0 ? 0xA0 : 0x80;
      const unsigned char high = lead == 0xED ? 0x9F : 0xBF;
      if (second < low || second > high || !IsContinuation(b[i + 2])) return false;
      i += 3;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      if (left < 5) return false;
      const unsigned char second = b[i + 1];
      const unsigned char low = lead == 0xF0 ? 0x90 : 0x80;
      const unsigned char high = lead == 0xF4 ? 0x8F : 0xBF;
      if (second < low || second > high || !IsContinuation(b[i + 2]) || !IsContinuation(b[i + 3])) return false;
      i += 4;
    } else {
      return false;
    }
  }
  return true;
}

bool LooksSixteenBit(const unsigned char* b, unsigned long n) {
  if (n < 2) return true;
  for (unsigned long i = 0; i < 9 && i + 1 < n; ++i)
    if ((b[i] == 0xFE && b[i + 1] == 0xFF) || (b[i] == 0xFF && b[i + 1] == 0xFE)) return true;
  // Odd places past the end of a short file read the zero padding.
  return b[1] == 0 && b[3] == 0 && b[5] == 0 && b[7] == 0;
}

}  // namespace

HRESULT FileArchiveLoad(tagREFString name, void** data, unsigned long* size, short wide, int maxBytes) {
  if (!data || !size) return E_FAIL;
  char path[256];
  NameToUTF8(name, path);
  FILE* file = std::fopen(path, "rb");
  if (!file) {
    std::fprintf(stderr, "file open err:\n%s\n", path);
    return E_FAIL;
  }
  long end = -1;
  if (std::fseek(file, 0, SEEK_END) == 0) end = std::ftell(file);
  if (end <= 0 || static_cast<unsigned long>(end) > kMaxFileBytes || std::fseek(file, 0, SEEK_SET) != 0) {
    std::fclose(file);
    return E_FAIL;
  }
  unsigned long want = static_cast<unsigned long>(end);
  if (maxBytes > 0 && want > static_cast<unsigned long>(maxBytes)) want = static_cast<unsigned long>(maxBytes);

  // Ten bytes beyond the text, all zero: the recognition below may look at them.
  unsigned char* bytes = new (std::nothrow) unsigned char[want + 10]();
  if (!bytes) {
    std::fclose(file);
    return E_FAIL;
  }
  const unsigned long n = static_cast<unsigned long>(std::fread(bytes, 1, want, file));
  std::fclose(file);
  if (n == 0) {
    delete[] bytes;
    return E_FAIL;
  }
  bytes[n] = 0;

  if (wide == 0) {
    *data = bytes;
    *size = n;
    return S_OK;
  }

  if (LooksSixteenBit(bytes, n)) {
    // Unit 0 is taken for the byte order mark, whatever it holds.
    const unsigned long units = n / 2;
    wchar_t* text = new (std::nothrow) wchar_t[units > 0 ? units : 1];
    if (!text) {
      delete[] bytes;
      return E_FAIL;
    }
    for (unsigned long i = 1; i < units; ++i)
      text[i - 1] = static_cast<wchar_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8));
    text[units > 0 ? units - 1 : 0] = L'\0';
    delete[] bytes;
    *data = text;
    *size = units;
    return S_OK;
  }

  if (wide >= 2 && !IsStrictUTF8(bytes, n)) {
    wchar_t* text = new (std::nothrow) wchar_t[n + 1];
    if (!text) {
      delete[] bytes;
      return E_FAIL;
    }
    for (unsigned long i = 0; i < n; ++i) text[i] = static_cast<wchar_t>(bytes[i]);
    text[n] = L'\0';
    delete[] bytes;
    *data = text;
    *size = n;
    return S_OK;
  }

  wchar_t* text = new (std::nothrow) wchar_t[n + 10];
  if (!text) {
    delete[] bytes;
    return E_FAIL;
  }
  unsigned long count = 0;
  unsigned long at = 0;
  while (at < n) {
    int used = 0;
    const unsigned long left = n - at;
    text[count++] = UTF8Decode(bytes + at, left > 0x7FFFFFFFul ? 0x7FFFFFFF : static_cast<int>(left), &used);
    at += used > 0 ? static_cast<unsigned long>(used) : 1;
  }
  text[count] = L'\0';
  delete[] bytes;
  *data = text;
  *size = count;
  return S_FALSE;
}

void FileArchiveFree(void* data, short wide) {
  if (!data) return;
  if (wide)
    delete[] static_cast<wchar_t*>(data);
  else
    delete[] static_cast<unsigned char*>(data);
}

HRESULT FileArchiveSave(tagREFString name, unsigned char* data, unsigned long bytes, short wide, short append) {
  char path[256];
  NameToUTF8(name, path);
  FILE* file = std::fopen(path, append ? "ab" : "wb");
  if (!file) return E_FAIL;

  size_t written = 0;
  if (wide == 0) {
    if (data && bytes > 0) written = std::fwrite(data, 1, bytes, file);
  } else {
    if (!append) {
      const unsigned char mark[2] = {0xFF, 0xFE};
      std::fwrite(mark, 1, 2, file);
    }
    const unsigned long units = data ? bytes / 4 : 0;
    if (units > 0) {
      std::string out(units * 2, '\0');
      for (unsigned long i = 0; i < units; ++i) {
        uint32_t c = 0;
        std::memcpy(&c, data + 4 * i, 4);
        out[2 * i] = static_cast<char>(c & 0xFF);
        out[2 * i + 1] = static_cast<char>((c >> 8) & 0xFF);
      }
      written = std::fwrite(out.data(), 2, units, file);
    }
  }
  std::fclose(file);
  return written > 0 ? S_OK : E_FAIL;
}

namespace {

// Plain search of `pattern` in `text`. After a partial match the search goes back one
// character (it looks again at the character that broke the match) and starts over.
// Returns the index of the match, or -1.
int FindPattern(const wchar_t* text, int length, const std::wstring& pattern) {
  const int p = static_cast<int>(pattern.size());
  if (p == 0) return -1;
  int matched = 0;
  for (int i = 0; i < length; ++i) {
    if (text[i] == pattern[static_cast<size_t>(matched)]) {
      if (++matched == p) return i - p + 1;
    } else if (matched > 0) {
      matched = 0;
      --i;
    }
  }
  return -1;
}

}  // namespace

HRESULT XMLGetTAGGED(CREFString& text, CREFString& tag, CREFString& attributes, CREFString& value, short advance) {
  int nameLength = 0;
  while (nameLength < tag.m_Length && tag.m_Text) {
    const wchar_t c = tag.m_Text[nameLength];
    if (c == L'\r' || c == L' ' || c == L'>') break;
    ++nameLength;
  }
  if (text.m_Length <= 0 || !text.m_Text || nameLength == 0) {
    value = text;
    return E_FAIL;
  }
  std::wstring opening = L"<";
  opening.append(tag.m_Text, static_cast<size_t>(nameLength));
  std::wstring closing = L"</";
  closing.append(tag.m_Text, static_cast<size_t>(nameLength));
  closing += L">";

  const int at = FindPattern(text.m_Text, text.m_Length, opening);
  if (at < 0) {
    value = text;
    return E_FAIL;
  }
  const int start = at + static_cast<int>(opening.size());
  value = CREFString(text.m_Text + start, text.m_Length - start);
  attributes = value;
  for (int i = 0; i < value.m_Length; ++i) {
    if (value.m_Text[i] != L'>') continue;
    attributes = CREFString(value.m_Text, i);
    for (const wchar_t trailing : {L'>', L'?', L'/'})
      if (attributes.m_Length > 0 && attributes.m_Text[attributes.m_Length - 1] == trailing) --attributes.m_Length;
    value = CREFString(value.m_Text + i + 1, value.m_Length - i - 1);
    break;
  }

  const int close = FindPattern(value.m_Text, value.m_Length, closing);
  const wchar_t* const valueStart = value.m_Text;
  if (close >= 0)
    value.m_Length = close;
  else
    value.m_Length = 0;

  if (advance) {
    const wchar_t* next = close >= 0 ? valueStart + close + closing.size() : valueStart;
    const int consumed = static_cast<int>(next - text.m_Text);
    text = CREFString(next, text.m_Length - consumed);
  }
  return S_OK;
}

namespace archive_detail {

IString* NewString(const wchar_t* text, int length) {
  ICreatableString* s = CREFString::CreateString();
  if (s && text && length > 0) s->SetString(length, text);
  return s;
}

CREFString View(IString* text) { return ViewOf(text); }

CREFString Extension(const CREFString& name) {
  for (int i = name.m_Length - 1; i > 0; --i)
    if (name.m_Text[i] == L'.') return CREFString(name.m_Text + i + 1, name.m_Length - i - 1);
  return name;
}

IString* AbsoluteFromInstall(IString* name) {
  const CREFString view = View(name);
  if (view.m_Length <= 2 || view.m_Text[0] != L'.' || (view.m_Text[1] != L'/' && view.m_Text[1] != L'\\'))
    return nullptr;
  IString* installPath = nullptr;
  FILENAMEGetInstallPath(&installPath);
  const CREFString path = View(installPath);
  std::wstring text(path.m_Text ? path.m_Text : L"", static_cast<size_t>(path.m_Length));
  if (installPath) installPath->Release();
  text += L"/";
  text.append(view.m_Text + 2, static_cast<size_t>(view.m_Length - 2));
  for (wchar_t& c : text)
    if (c == L'\\') c = L'/';
  return NewString(text.c_str(), static_cast<int>(text.size()));
}

HRESULT ShortName(IString* filename, int withFolder, IString** name) {
  if (!name) return E_FAIL;
  const CREFString full = View(filename);
  if (full.m_Length <= 0) return E_FAIL;
  int last = -1;
  for (int i = full.m_Length - 1; i >= 0; --i)
    if (full.m_Text[i] == L'/') {
      last = i;
      break;
    }
  int start = last + 1;
  if (withFolder) {
    // The folder before the last '/' is kept; with none, j counts as 0 and the first
    // character of the path is dropped.
    int before = 0;
    for (int i = last - 1; i >= 0; --i)
      if (full.m_Text[i] == L'/') {
        before = i;
        break;
      }
    start = before + 1;
  }
  if (start > full.m_Length) start = full.m_Length;
  CREFString result(full.m_Text + start, full.m_Length - start);
  for (int i = result.m_Length - 1; i > 0; --i)
    if (result.m_Text[i] == L'.') {
      result.m_Length = i;
      break;
    }
  *name = NewString(result.m_Text, result.m_Length);
  return *name ? S_OK : E_FAIL;
}

HRESULT WriteWide(IDataStream* stream, const wchar_t* text) {
  return stream->Write(text, static_cast<int>(std::wcslen(text) * sizeof(wchar_t)), 0);
}

}  // namespace archive_detail
