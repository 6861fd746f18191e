// The default parameter editor ("UIParamEdit") and the page collection
// ("UIPropertyPageCollection") that a host passes to a page's Initialize. Pages ask the
// collection for code 6 and get the editor, whose object 4 is the text style they draw
// with, and the line height.
#include "host/common/PeerModule.h"
#include "host/ui/RenderStyle.h"

namespace {

// GetObject code of the editor's text style; GetInfo code of the default editor.
constexpr int kEditorTextStyle = 4;
constexpr int kDefaultEditorInfo = 6;
constexpr int kDefaultLineHeight = 20;

}  // namespace

class CUIParamEdit : public CObject<CUIParamEdit>, public IUIParamEdit, public IObjectInfoImpl<CUIParamEdit> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  // The text style, a "PMRenderStyle" of 12 pixels, black, regular weight.
  HRESULT FinalConstruct() override {
    void* style = nullptr;
    IID iid = IID_IUnknown;
    if (CObject<CPMRenderStyle>::_CreateInstance(nullptr, &iid, &style) != S_OK || !style) return E_FAIL;
    m_Style.Attach(static_cast<IUnknown*>(style));
    return S_OK;
  }

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CUIParamEdit>*>(this)), object) ||
        QueryRoute(iid, IID_IUIParamEdit, static_cast<IUIParamEdit*>(this), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }

  // Code 4: the editor's own text style (shared, not a copy), with a reference.
  HRESULT GetObject(int code, IUnknown** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (code != kEditorTextStyle) return E_INVALIDARG;
    *object = m_Style.get();
    (*object)->AddRef();
    return S_OK;
  }

 private:
  SmartPtr<IUnknown> m_Style;
};

ZELTRIM_PEER_OBJECT(L"UIParamEdit", CUIParamEdit);

const tagREFString CUIParamEdit::m_ObjectName = {11, L"UIParamEdit"};

class CUIPropertyPageCollection : public CObject<CUIPropertyPageCollection>,
                                  public IUIPropertyPageCollection,
                                  public IObjectInfoImpl<CUIPropertyPageCollection> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  HRESULT FinalConstruct() override {
    void* editor = nullptr;
    IID iid = IID_IUnknown;
    if (CObject<CUIParamEdit>::_CreateInstance(nullptr, &iid, &editor) != S_OK || !editor) return E_FAIL;
    m_Editor.Attach(static_cast<IUnknown*>(editor));
    return S_OK;
  }

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown,
                   static_cast<IUnknown*>(static_cast<CObject<CUIPropertyPageCollection>*>(this)), object) ||
        QueryRoute(iid, IID_IUIPropertyPageCollection, static_cast<IUIPropertyPageCollection*>(this), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }

  HRESULT put_ShownPage(IUnknown* page) override {
    m_Shown = page;
    return S_OK;
  }
  // E_FAIL when no page has been shown.
  HRESULT get_ShownPage(IUnknown** page) override {
    if (!page) return E_POINTER;
    *page = m_Shown.get();
    if (!*page) return E_FAIL;
    (*page)->AddRef();
    return S_OK;
  }
  HRESULT Reserved_IUPC2() override { return E_NOTIMPL; }
  HRESULT Reserved_IUPC3() override { return E_NOTIMPL; }
  HRESULT Reserved_IUPC4() override { return E_NOTIMPL; }
  HRESULT Reserved_IUPC5() override { return E_NOTIMPL; }
  HRESULT Reserved_IUPC6() override { return E_NOTIMPL; }
  HRESULT Reserved_IUPC7() override { return E_NOTIMPL; }
  HRESULT Reserved_IUPC8() override { return E_NOTIMPL; }

  // Code 6: the default editor (one per collection, with a reference) and the line height
  // in pixels. Either place may be null, not both.
  HRESULT GetInfo(int code, IUnknown** out, int* value) override {
    if (!out && !value) return E_POINTER;
    if (out) *out = nullptr;
    if (code != kDefaultEditorInfo) return E_INVALIDARG;
    if (out) {
      *out = m_Editor.get();
      (*out)->AddRef();
    }
    if (value) *value = kDefaultLineHeight;
    return S_OK;
  }

 private:
  SmartPtr<IUnknown> m_Editor;
  SmartPtr<IUnknown> m_Shown;
};

ZELTRIM_PEER_OBJECT(L"UIPropertyPageCollection", CUIPropertyPageCollection);

const tagREFString CUIPropertyPageCollection::m_ObjectName = {24, L"UIPropertyPageCollection"};
