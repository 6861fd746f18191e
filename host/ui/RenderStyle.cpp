#include "host/ui/RenderStyle.h"

#include "host/common/PeerModule.h"

ZELTRIM_PEER_OBJECT(L"PMRenderStyle", CPMRenderStyle);

const tagREFString CPMRenderStyle::m_ObjectName = {13, L"PMRenderStyle"};

HRESULT CPMRenderStyle::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CPMRenderStyle>*>(this)), object) ||
      QueryRoute(iid, IID_IPMRenderStyle, static_cast<IPMRenderStyle*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

CanvasTextStyle StyleOf(IUnknown* object, const CanvasTextStyle& fallback) {
  CanvasTextStyle result = fallback;
  SmartPtr<IPMRenderStyle> style = QueryAs<IPMRenderStyle>(object);
  if (!ReadStyle(style, &result)) return fallback;
  return result;
}
