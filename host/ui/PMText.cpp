// "PMText": one line of text in a cell, with its own style. The matrix page fills a grid
// with these; a grid renders each in its cell rectangle.
#include <string>

#include "host/common/HostString.h"
#include "host/common/PeerModule.h"
#include "host/ui/RenderStyle.h"

namespace {

// Longest text a cell takes, in characters.
constexpr int kMaxTextLength = 1 << 20;

}  // namespace

class CPMText : public CObject<CPMText>,
                public IPMText,
                public IPMRenderStyleImpl<CPMText>,
                public IRenderableObject,
                public IActivatableObject,
                public IObjectInfoImpl<CPMText> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CPMText>*>(this)), object) ||
        QueryRoute(iid, IID_IPMText, static_cast<IPMText*>(this), object) ||
        QueryRoute(iid, IID_IPMRenderStyle, static_cast<IPMRenderStyle*>(this), object) ||
        QueryRoute(iid, IID_IRenderableObject, static_cast<IRenderableObject*>(this), object) ||
        QueryRoute(iid, IID_IActivatableObject, static_cast<IActivatableObject*>(this), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }

  // A new string with the text.
  HRESULT GetText(IString** text) override {
    if (!text) return E_POINTER;
    *text = CHostString::Create(m_Text);
    return *text ? S_OK : E_FAIL;
  }

  // Keeps exactly `length` characters, terminators included; nothing past them is read.
  HRESULT SetText(int length, const wchar_t* text) override {
    if (length < 0 || length > kMaxTextLength) return E_INVALIDARG;
    if (length > 0 && !text) return E_POINTER;
    try {
      m_Text.assign(text ? text : L"", static_cast<size_t>(length));
    } catch (...) {
      return E_FAIL;
    }
    return S_OK;
  }

  // An active cell (a selected one) is drawn on a highlight.
  HRESULT Activate(int active) override {
    m_Active = active != 0;
    return S_OK;
  }

  // Draws the text in the rectangle, clipped to it. Context and flags are not read.
  HRESULT Render(UbuntuCanvas* canvas, CANVASRect* rect, IUnknown*, int) override {
    if (!canvas || !rect) return E_POINTER;
    try {
      canvas->PushClip(*rect);
      if (m_Active) canvas->FillRect(*rect, kCanvasActiveFill);
      canvas->Text(*rect, m_Text.data(), static_cast<int>(m_Text.size()), m_Style);
      canvas->PopClip();
    } catch (...) {
      return E_FAIL;
    }
    return S_OK;
  }

 private:
  std::wstring m_Text;
  bool m_Active = false;
};

ZELTRIM_PEER_OBJECT(L"PMText", CPMText);

const tagREFString CPMText::m_ObjectName = {6, L"PMText"};
