// "DataStream" and "CSVStream": a growing block of memory with a position.
//
// Both hold bytes. They differ only in what QueryInterface(IString) shows: a data stream
// shows each byte as one character (Latin-1), a CSV stream holds wide text of 4-byte
// characters and shows it as such (the byte count divided by 4, a trailing partial
// character left out).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "frame/Object.h"

class CByteStream : public CObject<CByteStream>, public ICSVStream, public IString, public IObjectInfo {
 public:
  enum Kind { KIND_DATA, KIND_CSV };
  explicit CByteStream(Kind kind = KIND_DATA) : m_Kind(kind) {}

  ZELTRIM_OBJECT_REFCOUNT
  HRESULT QueryInterface(const IID& iid, void** object) override;

  // IDataStream
  HRESULT Open(void* buffer, unsigned long size, int writable) override;
  HRESULT Read(void* data, int bytes, int* read) override;
  HRESULT Seek(long bytes, int origin, int) override;
  HRESULT GetBuffer(void** data, unsigned long* size) override;
  HRESULT GetPosition(unsigned long* position) override;
  HRESULT Write(const void* data, int bytes, int) override;

  // IString
  HRESULT GetString(const wchar_t** text, int* length) override;

  // IObjectInfo
  HRESULT GetName(int, tagREFString* name) override;

  // Largest stream held in memory; writes beyond it fail.
  static constexpr size_t kMaxBytes = size_t(1) << 30;

  const std::vector<uint8_t>& Bytes() const { return m_Bytes; }

 private:
  Kind m_Kind;
  std::vector<uint8_t> m_Bytes;
  size_t m_Position = 0;
  bool m_Writable = true;
  std::wstring m_TextView;  // backing store of the last GetString
};

// Creators for the two object names (a CSV stream is the same class in its text kind).
HRESULT CreateDataStreamObject(void* outer, IID* iid, void** object);
HRESULT CreateCSVStreamObject(void* outer, IID* iid, void** object);
