// "ASCIIStream": Transform(source, target, 0) writes the source's wide text into the
// target as 8-bit text. The encoding is UTF-8, so ASCII text comes out byte for byte;
// values that are not Unicode scalars become U+FFFD. The source's text is its IString
// when it has one, else its buffer read as 4-byte characters. A "DataStream" is read by
// its buffer: its IString shows single bytes, while the module writes wide text into it.
#include <new>
#include <string>

#include "frame/Object.h"
#include "host/common/PeerModule.h"
#include "host/streams/StreamCommon.h"

class CAsciiStream : public CObject<CAsciiStream>, public IStreamTransform, public IObjectInfoImpl<CAsciiStream> {
 public:
  static const tagREFString m_ObjectName;
  ZELTRIM_OBJECT_REFCOUNT

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CAsciiStream>*>(this)), object) ||
        QueryRoute(iid, IID_IStreamTransform, static_cast<IStreamTransform*>(this), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }

  HRESULT Transform(IDataStream* source, IDataStream* target, int) override {
    if (!source || !target) return E_POINTER;
    const wchar_t* text = nullptr;
    size_t length = 0;
    SmartPtr<IString> asText;
    if (streams::ObjectNameOf(source) != L"DataStream") asText = QueryAs<IString>(source);
    if (asText) {
      int n = 0;
      if (asText->GetString(&text, &n) < 0) return E_FAIL;
      length = n > 0 && text ? static_cast<size_t>(n) : 0;
    } else {
      void* data = nullptr;
      unsigned long bytes = 0;
      if (source->GetBuffer(&data, &bytes) < 0) return E_FAIL;
      text = static_cast<const wchar_t*>(data);
      length = data ? bytes / sizeof(wchar_t) : 0;
    }
    std::string utf8;
    try {
      utf8 = streams::ToUtf8(text, length);
    } catch (...) {
      return E_FAIL;
    }
    if (utf8.size() > 0x7FFFFFFF) return E_FAIL;
    return target->Write(utf8.data(), static_cast<int>(utf8.size()), 0);
  }
};

const tagREFString CAsciiStream::m_ObjectName = {11, L"ASCIIStream"};
ZELTRIM_PEER_OBJECT(L"ASCIIStream", CAsciiStream);
