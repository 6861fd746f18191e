// "UIParametersSlidePropPage": the generic page that shows a parameter list as rows of
// "Name | Value" and lets a host edit the values by name.
//
// The list is the first item of the collection given to Initialize that answers
// IParameters. Entries flagged 0x40000 are read-only: drawn grey on a grey ground, and
// refused by SetValue. An edit replaces the entry's value with a new string and sets bit 0
// of the state; Apply clears it (its caller reads GetState first and writes back when the
// bit was set), Cancel puts back the values held before the first edit and clears it.
//
// Layout in a rectangle {x, y, width, height}: one row per entry, the line height high
// (20 pixels, or what the host's page collection gives for code 6), from the top; the name
// column is the left 2/5 of the width (integer division), the value column the rest. Rows
// that start below the rectangle are not drawn.
#include <cwchar>
#include <map>
#include <string>

#include "host/common/HostString.h"
#include "host/common/PeerModule.h"
#include "host/ui/RenderStyle.h"

namespace {

constexpr int kReadOnlyFlag = 0x40000;
// State bits: 0 edited since Initialize, Apply or Cancel; 1 open (holds a list).
constexpr int kStateEdited = 1;
constexpr int kStateOpen = 2;
constexpr int kDefaultLineHeight = 20;
constexpr int kMaxLineHeight = 4096;
constexpr int kEditorTextStyle = 4;
constexpr int kDefaultEditorInfo = 6;
// Longest name or value text SetValue takes, in characters.
constexpr int kMaxTextLength = 1 << 20;

int Clamp(int64_t value) {
  return value < INT32_MIN ? INT32_MIN : value > INT32_MAX ? INT32_MAX : static_cast<int>(value);
}

// The text of a list value: a string, a variant's string, number or string object.
std::wstring ValueText(IUnknown* value) {
  if (SmartPtr<IString> text = QueryAs<IString>(value)) return HostText(text);
  SmartPtr<IVariant> variant = QueryAs<IVariant>(value);
  if (!variant) return std::wstring();
  if (variant->IsString()) {
    SmartPtr<IString> text;
    variant->get_String(text.Out());
    return HostText(text);
  }
  if (variant->get_Type() == VARIANT_INTEGER) return std::to_wstring(variant->get_Integer());
  if (variant->get_Type() == VARIANT_DOUBLE) {
    wchar_t buffer[64];
    if (std::swprintf(buffer, 64, L"%.15g", variant->get_Double()) < 0) return std::wstring();
    return buffer;
  }
  if (variant->IsObject()) {
    SmartPtr<IUnknown> object;
    variant->get_Object(object.Out());
    if (SmartPtr<IString> text = QueryAs<IString>(object)) return HostText(text);
  }
  return std::wstring();
}

}  // namespace

class CUIParametersSlidePropPage : public CObject<CUIParametersSlidePropPage>,
                                   public IUIPropertyPage,
                                   public IRenderableObject,
                                   public IUIParametersSlideEdit,
                                   public IObjectInfoImpl<CUIParametersSlidePropPage> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown,
                   static_cast<IUnknown*>(static_cast<CObject<CUIParametersSlidePropPage>*>(this)), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
        QueryRoute(iid, IID_IUIPropertyPage, static_cast<IUIPropertyPage*>(this), object) ||
        QueryRoute(iid, IID_IRenderableObject, static_cast<IRenderableObject*>(this), object) ||
        QueryRoute(iid, IID_IUIParametersSlideEdit, static_cast<IUIParametersSlideEdit*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }

  // Keeps `objects` and its parameter list; `title` answering IString gives the title;
  // `host` answering IUIPropertyPageCollection gives the line height and the text style
  // of its default editor (code 6). `mode` is kept and not read. What an earlier Initialize
  // held is released first. A null collection is E_POINTER, one without a list
  // E_INVALIDARG; both leave the page closed.
  HRESULT Initialize(ISimpleCollection* objects, IUnknown* title, int mode, IUnknown* host) override {
    Close();
    if (!objects) return E_POINTER;
    int count = 0;
    if (objects->get_Count(&count) < 0) count = 0;
    for (int i = 0; i < count && !m_List; ++i) {
      SmartPtr<IUnknown> item;
      if (objects->get_Item(i, item.Out()) >= 0) m_List = QueryAs<IParameters>(item);
    }
    if (!m_List) return E_INVALIDARG;
    m_Objects = objects;
    m_Mode = mode;
    if (SmartPtr<IString> text = QueryAs<IString>(title)) {
      m_Title = HostText(text);
      m_HasTitle = true;
    }
    if (SmartPtr<IUIPropertyPageCollection> pages = QueryAs<IUIPropertyPageCollection>(host)) {
      // The frame routes edits to the page it shows: this one, now.
      pages->put_ShownPage(static_cast<IUIPropertyPage*>(this));
      SmartPtr<IUnknown> editor;
      int height = 0;
      if (pages->GetInfo(kDefaultEditorInfo, editor.Out(), &height) >= 0) {
        if (height > 0 && height <= kMaxLineHeight) m_LineHeight = height;
        if (SmartPtr<IUIParamEdit> edit = QueryAs<IUIParamEdit>(editor)) {
          SmartPtr<IUnknown> style;
          if (edit->GetObject(kEditorTextStyle, style.Out()) >= 0) m_TextStyle = StyleOf(style, m_TextStyle);
        }
      }
    }
    m_State = kStateOpen;
    return S_OK;
  }

  // Accepts the edits: bit 0 of the state is cleared. The context is not read.
  HRESULT Apply(IUnknown*) override {
    if (!m_List) return E_FAIL;
    m_Originals.clear();
    m_State &= ~kStateEdited;
    return S_OK;
  }

  HRESULT Close() override {
    m_Originals.clear();
    m_List.Clear();
    m_Objects.Clear();
    m_Title.clear();
    m_HasTitle = false;
    m_Mode = 0;
    m_LineHeight = kDefaultLineHeight;
    m_TextStyle = CanvasTextStyle();
    m_State = 0;
    return S_OK;
  }

  int GetState() override { return m_State; }

  // The page has no help text.
  HRESULT GetHelp(IString** text) override {
    if (!text) return E_POINTER;
    *text = nullptr;
    return E_FAIL;
  }

  // Puts back every value edited since Initialize or Apply and clears bit 0.
  HRESULT Cancel() override {
    if (!m_List) return E_FAIL;
    HRESULT result = S_OK;
    std::map<int, SmartPtr<IUnknown>> originals;
    originals.swap(m_Originals);
    for (auto& original : originals) {
      const HRESULT hr = m_List->put_Item(original.first, original.second);
      if (hr < 0 && result >= 0) result = hr;
    }
    m_State &= ~kStateEdited;
    return result;
  }

  // The text given to Initialize; E_FAIL without one.
  HRESULT GetTitle(IString** text) override {
    if (!text) return E_POINTER;
    *text = nullptr;
    if (!m_HasTitle) return E_FAIL;
    *text = CHostString::Create(m_Title);
    return S_OK;
  }

  HRESULT Render(UbuntuCanvas* canvas, CANVASRect* rect, IUnknown*, int) override {
    if (!canvas || !rect) return E_POINTER;
    if (!m_List) return E_FAIL;
    if (rect->width <= 0 || rect->height <= 0) return S_OK;
    try {
      DrawRows(canvas, *rect);
    } catch (...) {
      return E_FAIL;
    }
    return S_OK;
  }

  HRESULT GetValue(int nameLength, const wchar_t* name, IString** value) override {
    if (!value) return E_POINTER;
    *value = nullptr;
    int index = -1;
    const HRESULT found = Find(nameLength, name, &index);
    if (found < 0) return found;
    SmartPtr<IUnknown> item;
    m_List->get_Item(index, item.Out());
    *value = CHostString::Create(ValueText(item));
    return S_OK;
  }

  HRESULT SetValue(int nameLength, const wchar_t* name, int textLength, const wchar_t* text) override {
    if (textLength < 0 || textLength > kMaxTextLength) return E_INVALIDARG;
    if (textLength > 0 && !text) return E_POINTER;
    int index = -1;
    const HRESULT found = Find(nameLength, name, &index);
    if (found < 0) return found;
    int flags = 0;
    if (m_List->get_ItemFlags(index, &flags) < 0) return E_FAIL;
    if (flags & kReadOnlyFlag) return E_ACCESSDENIED;
    if (m_Originals.find(index) == m_Originals.end()) {
      SmartPtr<IUnknown> original;
      m_List->get_Item(index, original.Out());
      m_Originals[index] = original;
    }
    SmartPtr<IUnknown> value;
    value.Attach(static_cast<ICreatableString*>(CHostString::Create(text, textLength)));
    const HRESULT hr = m_List->put_Item(index, value);
    if (hr < 0) return hr;
    m_State |= kStateEdited;
    return S_OK;
  }

 private:
  // The index of the entry of that name, as the list's get_Index finds it.
  HRESULT Find(int nameLength, const wchar_t* name, int* index) {
    if (!m_List) return E_FAIL;
    if (nameLength < 0 || nameLength > kMaxTextLength) return E_INVALIDARG;
    if (nameLength > 0 && !name) return E_POINTER;
    if (nameLength == 0) return E_FAIL;
    SmartPtr<IString> key;
    key.Attach(CHostString::Create(name, nameLength));
    int count = 0;
    m_List->get_Count(&count);
    if (m_List->get_Index(key, index) < 0 || *index < 0 || *index >= count) return E_FAIL;
    return S_OK;
  }

  void DrawRows(UbuntuCanvas* canvas, const CANVASRect& rect) {
    int count = 0;
    m_List->get_Count(&count);
    const int nameWidth = Clamp(int64_t{rect.width} * 2 / 5);
    const int divider = Clamp(int64_t{rect.x} + nameWidth);
    const int right = Clamp(int64_t{rect.x} + rect.width);
    int drawn = 0;
    for (int i = 0; i < count; ++i) {
      const int64_t top = int64_t{rect.y} + int64_t{i} * m_LineHeight;
      if (top >= int64_t{rect.y} + rect.height) break;
      SmartPtr<IString> name;
      SmartPtr<IUnknown> value;
      int flags = 0;
      m_List->get_ItemName(i, name.Out());
      m_List->get_Item(i, value.Out());
      m_List->get_ItemFlags(i, &flags);
      const bool readOnly = (flags & kReadOnlyFlag) != 0;
      const CANVASRect row{rect.x, Clamp(top), rect.width, m_LineHeight};
      const CANVASRect nameCell{rect.x, row.y, nameWidth, m_LineHeight};
      const CANVASRect valueCell{divider, row.y, right - divider, m_LineHeight};
      CanvasTextStyle style = m_TextStyle;
      if (readOnly) {
        canvas->FillRect(row, kCanvasReadOnlyFill);
        style.colour = kCanvasReadOnlyText;
      }
      DrawCell(canvas, nameCell, HostText(name), style);
      DrawCell(canvas, valueCell, ValueText(value), style);
      canvas->Line(rect.x, Clamp(top + m_LineHeight), right, Clamp(top + m_LineHeight), kCanvasGridLine);
      ++drawn;
    }
    const int bottom = Clamp(int64_t{rect.y} + int64_t{drawn} * m_LineHeight);
    canvas->Line(rect.x, rect.y, right, rect.y, kCanvasGridLine);
    canvas->Line(divider, rect.y, divider, bottom, kCanvasGridLine);
  }

  static void DrawCell(UbuntuCanvas* canvas, const CANVASRect& cell, const std::wstring& text,
                       const CanvasTextStyle& style) {
    canvas->PushClip(cell);
    canvas->Text(cell, text.data(), static_cast<int>(text.size()), style);
    canvas->PopClip();
  }

  SmartPtr<ISimpleCollection> m_Objects;
  SmartPtr<IParameters> m_List;
  std::wstring m_Title;
  bool m_HasTitle = false;
  int m_Mode = 0;
  int m_State = 0;
  int m_LineHeight = kDefaultLineHeight;
  CanvasTextStyle m_TextStyle;
  // Values as they were before the first edit of each entry since Initialize or Apply.
  std::map<int, SmartPtr<IUnknown>> m_Originals;
};

ZELTRIM_PEER_OBJECT(L"UIParametersSlidePropPage", CUIParametersSlidePropPage);

const tagREFString CUIParametersSlidePropPage::m_ObjectName = {25, L"UIParametersSlidePropPage"};
