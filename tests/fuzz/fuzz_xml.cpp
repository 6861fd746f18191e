// Fuzzes the XML stream reader: any text, walked element by element as the module walks
// it (prologue instructions passed with Seek, every element read and its content walked).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "host/streams/XMLStream.h"

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
  CXMLStream* stream = new CXMLStream(true);
  stream->Attach(text.empty() ? nullptr : &text[0], static_cast<unsigned long>(text.size() * sizeof(wchar_t)), 0);
  g_Steps = 0;
  Walk(stream, 0);
  // Searching by a tag and creating objects (no global collection: creation fails).
  stream->Seek(0, 0, 0);
  IUnknown* object = nullptr;
  stream->ReadNamedObject(1, L"a", &object);
  if (object) object->Release();
  stream->Release();
  return 0;
}
