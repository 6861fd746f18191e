#include "host/streams/DataStream.h"

#include <cstring>
#include <new>

#include "host/common/PeerModule.h"

namespace {

HRESULT CreateByteStream(CByteStream::Kind kind, IID* iid, void** object) {
  if (!iid || !object) return E_POINTER;
  *object = nullptr;
  CByteStream* stream = new (std::nothrow) CByteStream(kind);
  if (!stream) return E_FAIL;
  const HRESULT hr = stream->QueryInterface(*iid, object);
  stream->Release();
  return hr;
}

}  // namespace

HRESULT CreateDataStreamObject(void*, IID* iid, void** object) {
  return CreateByteStream(CByteStream::KIND_DATA, iid, object);
}
HRESULT CreateCSVStreamObject(void*, IID* iid, void** object) {
  return CreateByteStream(CByteStream::KIND_CSV, iid, object);
}

ZELTRIM_PEER_CREATOR(L"DataStream", DataStream, CreateDataStreamObject);
ZELTRIM_PEER_CREATOR(L"CSVStream", CSVStream, CreateCSVStreamObject);

HRESULT CByteStream::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CByteStream>*>(this)), object) ||
      QueryRoute(iid, IID_IDataStream, static_cast<IDataStream*>(this), object) ||
      (m_Kind == KIND_CSV && QueryRoute(iid, IID_ICSVStream, static_cast<ICSVStream*>(this), object)) ||
      QueryRoute(iid, IID_IString, static_cast<IString*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CByteStream::Open(void* buffer, unsigned long size, int writable) {
  try {
    m_Bytes.clear();
    m_Position = 0;
    m_Writable = writable != 0;
    if (buffer) {
      if (size > kMaxBytes) return E_INVALIDARG;
      const uint8_t* p = static_cast<const uint8_t*>(buffer);
      m_Bytes.assign(p, p + size);  // a copy: the caller frees its buffer
    } else if (writable) {
      m_Bytes.reserve(size < 65536 ? size : 65536);
    }
  } catch (...) {
    m_Bytes.clear();
    return E_FAIL;
  }
  return S_OK;
}

HRESULT CByteStream::Read(void* data, int bytes, int* read) {
  if (read) *read = 0;
  if (bytes < 0) return E_INVALIDARG;
  if (bytes > 0 && !data) return E_POINTER;
  const size_t left = m_Bytes.size() - m_Position;
  const size_t n = static_cast<size_t>(bytes) < left ? static_cast<size_t>(bytes) : left;
  if (n) std::memcpy(data, m_Bytes.data() + m_Position, n);
  m_Position += n;
  if (read) *read = static_cast<int>(n);
  return n == static_cast<size_t>(bytes) ? S_OK : S_FALSE;
}

HRESULT CByteStream::Seek(long bytes, int origin, int) {
  long long base = 0;
  if (origin == STREAM_CURRENT) base = static_cast<long long>(m_Position);
  else if (origin == STREAM_END) base = static_cast<long long>(m_Bytes.size());
  else if (origin != STREAM_BEGIN) return E_INVALIDARG;
  const long long target = base + static_cast<long long>(bytes);
  if (target < 0 || target > static_cast<long long>(m_Bytes.size())) return E_INVALIDARG;
  m_Position = static_cast<size_t>(target);
  return S_OK;
}

HRESULT CByteStream::GetBuffer(void** data, unsigned long* size) {
  if (!data) return E_POINTER;
  *data = m_Bytes.empty() ? nullptr : m_Bytes.data();
  if (size) *size = static_cast<unsigned long>(m_Bytes.size());
  return S_OK;
}

HRESULT CByteStream::GetPosition(unsigned long* position) {
  if (!position) return E_POINTER;
  *position = static_cast<unsigned long>(m_Position);
  return S_OK;
}

HRESULT CByteStream::Write(const void* data, int bytes, int) {
  if (!m_Writable) return E_FAIL;
  if (bytes < 0) return E_INVALIDARG;
  if (bytes == 0) return S_OK;
  if (!data) return E_POINTER;
  const size_t n = static_cast<size_t>(bytes);
  if (m_Position + n > kMaxBytes) return E_FAIL;
  try {
    if (m_Position + n > m_Bytes.size()) m_Bytes.resize(m_Position + n);
  } catch (...) {
    return E_FAIL;
  }
  std::memmove(m_Bytes.data() + m_Position, data, n);
  m_Position += n;
  return S_OK;
}

HRESULT CByteStream::GetString(const wchar_t** text, int* length) {
  try {
    if (m_Kind == KIND_CSV) {
      const size_t chars = m_Bytes.size() / sizeof(wchar_t);
      m_TextView.assign(chars, L'\0');
      if (chars) std::memcpy(&m_TextView[0], m_Bytes.data(), chars * sizeof(wchar_t));
    } else {
      m_TextView.assign(m_Bytes.begin(), m_Bytes.end());
    }
  } catch (...) {
    m_TextView.clear();
    return E_FAIL;
  }
  if (text) *text = m_TextView.c_str();
  if (length) *length = static_cast<int>(m_TextView.size());
  return S_OK;
}

HRESULT CByteStream::GetName(int, tagREFString* name) {
  if (!name) return E_POINTER;
  *name = m_Kind == KIND_CSV ? tagREFString{9, L"CSVStream"} : tagREFString{10, L"DataStream"};
  return S_OK;
}
