// xmllint (libxml2) as an outside judge of the XML that the host writes and accepts.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

inline bool HaveXmllint() { return std::system("xmllint --version >/dev/null 2>&1") == 0; }

// xmllint's verdict on bytes as they stand (a UTF-8 document, say).
inline bool XmllintAcceptsBytes(const std::string& bytes) {
  const std::string path = "./xmllint_judge_" + std::to_string(getpid()) + ".xml";
  std::ofstream(path, std::ios::binary) << bytes;
  const bool ok = std::system(("xmllint --noout " + path + " 2>/dev/null").c_str()) == 0;
  std::remove(path.c_str());
  return ok;
}

// xmllint's verdict on a text written as 16-bit little-endian text after a byte order mark
// (the text's own leading U+FEFF serves as that mark).
inline bool XmllintAccepts(const std::wstring& text) {
  std::string bytes;
  const auto unit = [&bytes](uint32_t u) {
    bytes += static_cast<char>(u & 0xFF);
    bytes += static_cast<char>(u >> 8);
  };
  if (text.empty() || text[0] != L'\xFEFF') unit(0xFEFF);
  for (wchar_t c : text) {
    const uint32_t v = static_cast<uint32_t>(c);
    if (v > 0xFFFF) {
      unit(0xD800 + ((v - 0x10000) >> 10));
      unit(0xDC00 + ((v - 0x10000) & 0x3FF));
    } else {
      unit(v);
    }
  }
  const std::string path = "./xmllint_judge_" + std::to_string(getpid()) + ".xml";
  std::ofstream(path, std::ios::binary) << bytes;
  const bool ok = std::system(("xmllint --noout " + path + " 2>/dev/null").c_str()) == 0;
  std::remove(path.c_str());
  return ok;
}
