#include "host/common/HostString.h"

#include <cstdint>

HRESULT CHostString::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CHostString>*>(this)), object) ||
      QueryRoute(iid, IID_IString, static_cast<IString*>(this), object) ||
      QueryRoute(iid, IID_ICreatableString, static_cast<ICreatableString*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CHostString::GetString(const wchar_t** text, int* length) {
  if (text) *text = m_Text.c_str();
  if (length) *length = static_cast<int>(m_Text.size());
  return S_OK;
}

HRESULT CHostString::SetString(int length, const wchar_t* text) {
  if (!text || length <= 0) {
    m_Text.clear();
    return S_OK;
  }
  m_Text.assign(text, static_cast<size_t>(length));
  return S_OK;
}

HRESULT CHostString::Append(int length, const wchar_t* text) {
  if (text && length > 0) m_Text.append(text, static_cast<size_t>(length));
  return S_OK;
}

CHostString* CHostString::Create(const wchar_t* text, int length) {
  CHostString* s = new CHostString();
  if (text) s->SetString(length < 0 ? static_cast<int>(std::wcslen(text)) : length, text);
  return s;
}

std::wstring HostText(IString* text) {
  if (!text) return std::wstring();
  const wchar_t* p = nullptr;
  int n = 0;
  if (text->GetString(&p, &n) < 0 || !p || n <= 0) return std::wstring();
  return std::wstring(p, static_cast<size_t>(n));
}

std::string HostUtf8(const wchar_t* text, size_t length) {
  std::string out;
  out.reserve(length);
  for (size_t i = 0; i < length; ++i) {
    uint32_t c = static_cast<uint32_t>(text[i]);
    if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) c = 0xFFFD;
    if (c < 0x80) {
      out.push_back(static_cast<char>(c));
    } else if (c < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (c >> 6)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (c >> 12)));
      out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (c >> 18)));
      out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
  }
  return out;
}
