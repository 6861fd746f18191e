// Text styles of the user-interface module: the IPMRenderStyle operations over one
// CanvasTextStyle, shared by the style object ("PMRenderStyle") and the text cell
// ("PMText"), which carries its own style.
#pragma once

#include "frame/Object.h"
#include "host/ui/canvas/Canvas.h"

// Font sizes a style accepts, in pixels.
constexpr int kMinFontSize = 1;
constexpr int kMaxFontSize = 1000;

// Reads size, colour and weight through the style's operations; false when one fails or
// is out of range (then *out is untouched).
inline bool ReadStyle(IPMRenderStyle* style, CanvasTextStyle* out) {
  int size = 0, bold = 0;
  unsigned int colour = 0;
  if (!style || style->get_FontSize(&size) < 0 || style->get_Colour(&colour) < 0 || style->get_Bold(&bold) < 0)
    return false;
  if (size < kMinFontSize || size > kMaxFontSize || colour > 0xFFFFFFu) return false;
  out->size = size;
  out->colour = colour;
  out->bold = bold != 0;
  return true;
}

template <class T>
class IPMRenderStyleImpl : public IPMRenderStyle {
 public:
  HRESULT get_FontSize(int* pixels) override {
    if (!pixels) return E_POINTER;
    *pixels = m_Style.size;
    return S_OK;
  }
  HRESULT put_FontSize(int pixels) override {
    if (pixels < kMinFontSize || pixels > kMaxFontSize) return E_INVALIDARG;
    m_Style.size = pixels;
    return S_OK;
  }
  HRESULT get_Colour(unsigned int* rgb) override {
    if (!rgb) return E_POINTER;
    *rgb = m_Style.colour;
    return S_OK;
  }
  // Bits above the 24 of red, green and blue are refused.
  HRESULT put_Colour(unsigned int rgb) override {
    if (rgb > 0xFFFFFFu) return E_INVALIDARG;
    m_Style.colour = rgb;
    return S_OK;
  }
  HRESULT get_Bold(int* bold) override {
    if (!bold) return E_POINTER;
    *bold = m_Style.bold ? 1 : 0;
    return S_OK;
  }
  HRESULT put_Bold(int bold) override {
    m_Style.bold = bold != 0;
    return S_OK;
  }

#define ZELTRIM_STYLE_RESERVED(n) \
  HRESULT Reserved_IPMRS##n() override { return E_NOTIMPL; }
  ZELTRIM_STYLE_RESERVED(6) ZELTRIM_STYLE_RESERVED(7) ZELTRIM_STYLE_RESERVED(8) ZELTRIM_STYLE_RESERVED(9)
  ZELTRIM_STYLE_RESERVED(10) ZELTRIM_STYLE_RESERVED(11) ZELTRIM_STYLE_RESERVED(12) ZELTRIM_STYLE_RESERVED(13)
  ZELTRIM_STYLE_RESERVED(14) ZELTRIM_STYLE_RESERVED(15) ZELTRIM_STYLE_RESERVED(16) ZELTRIM_STYLE_RESERVED(17)
  ZELTRIM_STYLE_RESERVED(18) ZELTRIM_STYLE_RESERVED(19) ZELTRIM_STYLE_RESERVED(20) ZELTRIM_STYLE_RESERVED(21)
  ZELTRIM_STYLE_RESERVED(22) ZELTRIM_STYLE_RESERVED(23) ZELTRIM_STYLE_RESERVED(24) ZELTRIM_STYLE_RESERVED(25)
  ZELTRIM_STYLE_RESERVED(26) ZELTRIM_STYLE_RESERVED(27) ZELTRIM_STYLE_RESERVED(28) ZELTRIM_STYLE_RESERVED(29)
  ZELTRIM_STYLE_RESERVED(30) ZELTRIM_STYLE_RESERVED(31) ZELTRIM_STYLE_RESERVED(32) ZELTRIM_STYLE_RESERVED(33)
#undef ZELTRIM_STYLE_RESERVED

  // Takes over size, colour and weight from any object that answers IPMRenderStyle,
  // through its operations (so a style of another class serves as well). A null source is
  // E_POINTER, one without IPMRenderStyle E_INVALIDARG; a source whose values are out of
  // range changes nothing and gives E_INVALIDARG.
  HRESULT CopyStyle(IUnknown* source) override {
    if (!source) return E_POINTER;
    SmartPtr<IPMRenderStyle> style = QueryAs<IPMRenderStyle>(source);
    return ReadStyle(style, &m_Style) ? S_OK : E_INVALIDARG;
  }

  const CanvasTextStyle& Style() const { return m_Style; }

 protected:
  CanvasTextStyle m_Style;
};

// "PMRenderStyle": a style and nothing else; the default parameter editor hands one out.
class CPMRenderStyle : public CObject<CPMRenderStyle>,
                       public IPMRenderStyleImpl<CPMRenderStyle>,
                       public IObjectInfoImpl<CPMRenderStyle> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;
  HRESULT QueryInterface(const IID& iid, void** object) override;
};

// The style of any object that answers IPMRenderStyle; `fallback` when it has none or
// gives values out of range.
CanvasTextStyle StyleOf(IUnknown* object, const CanvasTextStyle& fallback);
