// Base types of the component frame: result codes, interface identifiers, the string
// view that crosses interfaces, and the IUnknown root every interface starts with.
#pragma once

#include <cstdint>
#include <cstring>

typedef int32_t HRESULT;

constexpr HRESULT S_OK = 0;
constexpr HRESULT S_FALSE = 1;
constexpr HRESULT E_NOTIMPL = static_cast<HRESULT>(0x80004001u);
constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002u);
constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003u);
constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005u);
constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057u);
// Returned by the file name helpers when the host has no registry object.
constexpr HRESULT E_NOREGISTRY = static_cast<HRESULT>(0x80040010u);

inline bool SUCCEEDED(HRESULT hr) { return hr >= 0; }
inline bool FAILED(HRESULT hr) { return hr < 0; }

// 16 bytes, derived from the interface name (never stored in a file).
struct IID {
  uint8_t bytes[16];
};

inline bool operator==(const IID& a, const IID& b) {
  // Compared as four 32-bit words, as QueryInterface does.
  uint32_t wa[4], wb[4];
  std::memcpy(wa, a.bytes, 16);
  std::memcpy(wb, b.bytes, 16);
  return wa[0] == wb[0] && wa[1] == wb[1] && wa[2] == wb[2] && wa[3] == wb[3];
}
inline bool operator!=(const IID& a, const IID& b) { return !(a == b); }

// Identifier of an interface name. Letters count 1..26 regardless of case, '0'..'4' are
// 28..32, everything else 27. Codes are packed 5 bits apiece, least significant bit first,
// into 16-bit little-endian words; the sixth bit of '4' (32) spills into the next field.
// Only the first 25 characters count.
constexpr IID __IIDOfc(const char* name) {
  IID id{};
  if (!name) return id;
  int bit = 0;
  int byte = 0;
  for (int i = 0; i < 25 && name[i] != '\0'; ++i) {
    const char c = name[i];
    unsigned code = 27;
    if (c >= 'A' && c <= 'Z') code = static_cast<unsigned>(c - 'A' + 1);
    else if (c >= 'a' && c <= 'z') code = static_cast<unsigned>(c - 'a' + 1);
    else if (c >= '0' && c <= '4') code = static_cast<unsigned>(c - '0' + 28);
    const unsigned word = code << bit;
    id.bytes[byte] = static_cast<uint8_t>(id.bytes[byte] | (word & 0xFF));
    if (byte + 1 < 16) id.bytes[byte + 1] = static_cast<uint8_t>(id.bytes[byte + 1] | ((word >> 8) & 0xFF));
    bit += 5;
    if (bit > 7) {
      ++byte;
      bit -= 8;
    }
  }
  return id;
}

// A non-owning view of wide text: signed 32-bit length in characters, then the pointer.
// The text is not necessarily terminated. Passed by value across interfaces.
struct tagREFString {
  int32_t m_Length;
  const wchar_t* m_Text;
};

// Declares IID_<Name> (constant-initialised, so it is valid before any code of the
// module runs) and opens the interface struct, with Iid() for the query helpers.
#define ZELTRIM_INTERFACE(Name, Base)                          \
  inline constexpr IID IID_##Name = __IIDOfc(#Name);           \
  struct Name : Base {                                         \
    static const IID& Iid() { return IID_##Name; }

#define ZELTRIM_INTERFACE_END };

inline constexpr IID IID_IUnknown = __IIDOfc("IUnknown");
struct IUnknown {
  static const IID& Iid() { return IID_IUnknown; }
  virtual HRESULT QueryInterface(const IID& iid, void** object) = 0;
  virtual int AddRef() = 0;   // returns the new count
  virtual int Release() = 0;  // returns the new count; 0 when the object is gone
 protected:
  ~IUnknown() = default;
};
