// Fuzzes the XML stream reader: any text, walked element by element as the module walks
// it (prologue instructions passed with Seek, every element read and its content walked).
// The stream accepts exactly the texts XMLCheckDocument finds well formed, a refused one
// yields nothing, and any text escaped into an element is well formed and comes back.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "host/streams/XMLStream.h"
#include "host/streams/XMLText.h"

namespace {

int g_Steps = 0;  // bounds the work of one input

void Walk(IXMLStream* stream, int depth) {
  tagREFString tag{0, nullptr};
  while (g_Steps++ < 20000 && stream->NextTag(&tag) >= 0) {
    if (tag.m_Length <= 0 || !tag.m_Text) __builtin_trap();  // success must give a name
    if (tag.m_Text[0] == L'?') {
      stream->Seek(tag.m_Length * 4, 1, 0);
      continue;
    }
    IUnknown* content = nullptr;
    if (stream->ReadElement(tag.m_Length, tag.m_Text, nullptr, &content, 0) < 0) break;
    void* inner = nullptr;
    if (content->QueryInterface(IID_IXMLStream, &inner) >= 0 && inner) {
      if (depth < 40) Walk(static_cast<IXMLStream*>(inner), depth + 1);
      static_cast<IXMLStream*>(inner)->Release();
    }
    content->Release();
  }
}

// What Attach checks: the text without trailing terminators, surrogate pairs joined.
bool WellFormed(std::wstring text) {
  while (!text.empty() && text.back() == L'\0') text.pop_back();
  if (text.empty()) return true;  // an empty text is an empty stream, not a document
  return XMLJoinSurrogates(&text, nullptr) && XMLCheckDocument(text).wellFormed;
}

void CheckEscaping(const std::wstring& text) {
  std::wstring escaped;
  XMLAppendEscaped(text.data(), text.size(), &escaped);
  if (!XMLCheckDocument(L"<a>" + escaped + L"</a>").wellFormed) __builtin_trap();
  std::wstring expected = text;
  for (wchar_t& c : expected)
    if (!XMLIsChar(static_cast<uint32_t>(c))) c = L'\xFFFD';
  if (XMLUnescape(escaped.data(), escaped.size()) != expected) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  // First byte: 0 reads the rest as 4-byte characters, otherwise each byte is a character
  // (which reaches markup far more often).
  std::wstring text;
  if (data[0] == 0) {
    text.resize((size - 1) / sizeof(wchar_t));
    if (!text.empty()) std::memcpy(&text[0], data + 1, text.size() * sizeof(wchar_t));
  } else {
    text.assign(data + 1, data + size);
  }
  CheckEscaping(text);
  CXMLStream* stream = new CXMLStream(true);
  const HRESULT attached =
      stream->Attach(text.empty() ? nullptr : &text[0], static_cast<unsigned long>(text.size() * sizeof(wchar_t)), 0);
  if ((attached >= 0) != WellFormed(text)) __builtin_trap();
  g_Steps = 0;
  Walk(stream, 0);
  tagREFString tag{0, nullptr};
  if (attached < 0 && stream->NextTag(&tag) >= 0) __builtin_trap();  // a refused text yields nothing
  // Searching by a tag and creating objects (no global collection: creation fails).
  stream->Seek(0, 0, 0);
  IUnknown* object = nullptr;
  stream->ReadNamedObject(1, L"a", &object);
  if (object) object->Release();
  stream->Release();
  return 0;
}
