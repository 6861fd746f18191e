// libFuzzer target: FileArchiveLoad's text recognition and decoding (16-bit, strict and
// lenient UTF-8, byte for byte) on arbitrary file contents, then XMLGetTAGGED walking the
// decoded text. The first input byte picks the mode and a read limit.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "persist/FileArchiveImpl.h"

namespace {

const std::string& ScratchPath() {
  static const std::string path = "/tmp/zeltrim_fuzz_archive_" + std::to_string(getpid()) + ".bin";
  return path;
}

void Walk(const wchar_t* text, unsigned long size) {
  // The element helpers take int lengths; keep to what the decoder can return.
  const int length = size > 0x7FFFFFFFul ? 0x7FFFFFFF : static_cast<int>(size);
  for (const wchar_t* tag : {L"a", L"?xml", L"DATETIME"}) {
    CREFString view(text, length);
    CREFString tagView(tag, static_cast<int>(std::wcslen(tag)));
    for (int guard = 0; guard < 1000; ++guard) {
      CREFString attributes, value;
      if (XMLGetTAGGED(view, tagView, attributes, value, 1) != S_OK) break;
      // Every view stays inside the text.
      if (value.m_Length < 0 || value.m_Text < text || value.m_Text + value.m_Length > text + length ||
          view.m_Length < 0 || view.m_Text + view.m_Length != text + length)
        __builtin_trap();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const uint8_t control = data[0];
  FILE* file = std::fopen(ScratchPath().c_str(), "wb");
  if (!file) return 0;
  if (size > 1) std::fwrite(data + 1, 1, size - 1, file);
  std::fclose(file);

  std::wstring name(ScratchPath().begin(), ScratchPath().end());
  const tagREFString ref{static_cast<int32_t>(name.size()), name.c_str()};
  const short wide = static_cast<short>(control % 3);
  const int maxBytes = (control & 0x80) ? (control >> 3) & 0x0F : 0;

  void* buffer = nullptr;
  unsigned long length = 0;
  const HRESULT hr = FileArchiveLoad(ref, &buffer, &length, wide, maxBytes);
  if (hr >= 0) {
    if (!buffer) __builtin_trap();
    if (wide) {
      const wchar_t* text = static_cast<const wchar_t*>(buffer);
      // Every result is terminated: at `length - 1` for 16-bit text (whose buffer ends
      // there), else at `length`.
      const bool terminated = (length > 0 && text[length - 1] == L'\0') || text[length] == L'\0';
      if (!terminated) __builtin_trap();
      Walk(text, length);
    } else if (static_cast<const char*>(buffer)[length] != '\0') {
      __builtin_trap();
    }
  }
  FileArchiveFree(buffer, wide);
  return 0;
}
