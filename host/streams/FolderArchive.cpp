// The folder stream's IFileArchive side: its file name, and the whole tree saved to and
// loaded from that file in one piece.
#include "host/streams/FolderStream.h"

#include <cstdio>

#include "host/common/HostString.h"
#include "host/streams/StreamCommon.h"

HRESULT CFolderStream::get_Filename(IString** name) {
  if (!name) return E_POINTER;
  *name = nullptr;
  if (m_Filename.empty()) return E_FAIL;
  *name = CHostString::Create(m_Filename);
  return S_OK;
}

HRESULT CFolderStream::put_Filename(IString* name) {
  std::wstring text;
  if (name && !streams::TextOf(name, &text)) return E_INVALIDARG;
  m_Filename = text;
  m_Controls[0] = 1;
  m_Controls[1] = 0;
  return S_OK;
}

HRESULT CFolderStream::get_Filter(IString** filter, short) {
  if (!filter) return E_POINTER;
  *filter = CHostString::Create(L"Folder stream (*.t*)|*.t*|All Files (*.*)|*.*||");
  return S_OK;
}

HRESULT CFolderStream::get_Name(IString** name) {
  if (!name) return E_POINTER;
  *name = nullptr;
  if (m_Filename.empty()) return E_FAIL;
  const size_t slash = m_Filename.find_last_of(L'/');
  std::wstring base = slash == std::wstring::npos ? m_Filename : m_Filename.substr(slash + 1);
  const size_t dot = base.find_last_of(L'.');
  if (dot != std::wstring::npos && dot > 0) base.resize(dot);
  *name = CHostString::Create(base);
  return S_OK;
}

HRESULT CFolderStream::Load() {
  if (m_Filename.empty()) return E_FAIL;
  const std::string path = streams::ToUtf8(m_Filename.data(), m_Filename.size());
  FILE* file = std::fopen(path.c_str(), "rb");
  if (!file) return E_FAIL;
  std::vector<uint8_t> image;
  bool ok = std::fseek(file, 0, SEEK_END) == 0;
  const long size = ok ? std::ftell(file) : -1;
  ok = ok && size >= 0 && static_cast<unsigned long>(size) <= folder_codec::kMaxFileBytes && std::fseek(file, 0, SEEK_SET) == 0;
  if (ok) {
    try {
      image.resize(static_cast<size_t>(size));
    } catch (...) {
      ok = false;
    }
  }
  ok = ok && (image.empty() || std::fread(image.data(), 1, image.size(), file) == image.size());
  std::fclose(file);
  if (!ok || !LoadImage(image.data(), image.size())) return E_FAIL;
  m_Controls[0] = 0;
  m_Controls[1] = 1;
  return S_OK;
}

HRESULT CFolderStream::Save() {
  if (m_Filename.empty()) return E_FAIL;
  std::vector<uint8_t> image;
  if (!SaveImage(&image)) return E_FAIL;
  const std::string path = streams::ToUtf8(m_Filename.data(), m_Filename.size());
  FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) return E_FAIL;
  const bool written = std::fwrite(image.data(), 1, image.size(), file) == image.size();
  const bool closed = std::fclose(file) == 0;
  if (!written || !closed) return E_FAIL;
  m_Controls[0] = 0;
  m_Controls[1] = 1;
  return S_OK;
}

HRESULT CFolderStream::Control(int code, int value) {
  if (code < 0 || code > 4) return E_INVALIDARG;
  m_Controls[code] = value;
  return S_OK;
}

HRESULT CFolderStream::Inquire(int code, int* value) {
  if (!value) return E_POINTER;
  if (code < 0 || code > 4) return E_INVALIDARG;
  *value = m_Controls[code];
  return S_OK;
}

HRESULT CFolderStream::Unload() {
  m_Entries.clear();
  m_Image.clear();
  m_ImagePosition = 0;
  return S_OK;
}
