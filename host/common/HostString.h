// The host's string object ("CreatableString"): owns a terminated wide text. Strings are
// values, not named objects: they do not answer IObjectInfo, so a string that a variant
// holds as an object reads back as text rather than as an object name.
#pragma once

#include <string>

#include "frame/Object.h"

class CHostString : public CObject<CHostString>, public ICreatableString {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  HRESULT QueryInterface(const IID& iid, void** object) override;

  HRESULT GetString(const wchar_t** text, int* length) override;
  HRESULT SetString(int length, const wchar_t* text) override;
  HRESULT Append(int length, const wchar_t* text) override;

  // A new string with one reference.
  static CHostString* Create(const wchar_t* text, int length = -1);
  static CHostString* Create(const std::wstring& text) {
    return Create(text.c_str(), static_cast<int>(text.size()));
  }

  const std::wstring& Value() const { return m_Text; }

 private:
  std::wstring m_Text;
};

// The text of any IString as a std::wstring (empty for null).
std::wstring HostText(IString* text);

// UTF-8 of wide text; values that are not Unicode scalars become U+FFFD.
std::string HostUtf8(const wchar_t* text, size_t length);
inline std::string HostUtf8(const std::wstring& text) { return HostUtf8(text.data(), text.size()); }
