#include "host/collections/DblBuffer.h"

#include <new>

#include "host/common/PeerModule.h"

ZELTRIM_PEER_OBJECT(L"DblBuffer", CDblBuffer);

const tagREFString CDblBuffer::m_ObjectName = {9, L"DblBuffer"};

namespace {
// Room reserved up front at most; a larger size still works, the vector grows as needed.
constexpr int kMaxReserve = 1 << 22;
}  // namespace

HRESULT CDblBuffer::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CDblBuffer>*>(this)), object) ||
      QueryRoute(iid, IID_IDblVector, static_cast<IDblVector*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CDblBuffer::get_Count(int* count) {
  if (!count) return E_POINTER;
  *count = static_cast<int>(m_Values.size());
  return S_OK;
}

HRESULT CDblBuffer::Resize(int size) {
  if (size < 0) return E_INVALIDARG;
  try {
    m_Values.reserve(static_cast<size_t>(size < kMaxReserve ? size : kMaxReserve));
  } catch (const std::bad_alloc&) {
    return E_FAIL;
  }
  return S_OK;
}

HRESULT CDblBuffer::get_Item(int index, double* value) {
  if (!value) return E_POINTER;
  if (index < 0 || static_cast<size_t>(index) >= m_Values.size()) return E_INVALIDARG;
  *value = m_Values[static_cast<size_t>(index)];
  return S_OK;
}

HRESULT CDblBuffer::put_Value(int index, double value) {
  if (index == -1) {
    try {
      m_Values.push_back(value);
    } catch (const std::bad_alloc&) {
      return E_FAIL;
    }
    return S_OK;
  }
  if (index < 0 || static_cast<size_t>(index) >= m_Values.size()) return E_INVALIDARG;
  m_Values[static_cast<size_t>(index)] = value;
  return S_OK;
}
