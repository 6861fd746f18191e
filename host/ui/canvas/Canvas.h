// The host's drawing surface. Pages and widgets receive a UbuntuCanvas* through
// IRenderableObject::Render and draw on it; the module only passes the pointer along.
//
// Coordinates are whole pixels, origin at the top left, x to the right and y downward.
// A rectangle is CANVASRect {x, y, width, height}; one with a width or height of zero or
// less covers nothing. Colours are 0xRRGGBB.
//
// The canvas is a plain C++ class, not a counted interface: whoever creates it owns it and
// keeps it alive across the Render call. Its operations do not fail; a null text is drawn
// as no text.
#pragma once

#include <cstdint>

#include "frame/HostInterfaces.h"

// How text is drawn: size of the font in pixels (its em height), colour, weight.
struct CanvasTextStyle {
  int size = 12;
  uint32_t colour = 0x000000;
  bool bold = false;
};

// Colours the reference widgets use.
constexpr uint32_t kCanvasBlack = 0x000000;
constexpr uint32_t kCanvasGridLine = 0xC0C0C0;
constexpr uint32_t kCanvasReadOnlyText = 0x808080;
constexpr uint32_t kCanvasReadOnlyFill = 0xF0F0F0;
constexpr uint32_t kCanvasActiveFill = 0xCCE0FF;

// Left inset of text within its rectangle, in pixels.
constexpr int kCanvasTextInset = 3;

struct UbuntuCanvas {
  virtual ~UbuntuCanvas() = default;

  // Fills the rectangle.
  virtual void FillRect(const CANVASRect& rect, uint32_t colour) = 0;
  // Draws the outline of the rectangle, one pixel wide.
  virtual void FrameRect(const CANVASRect& rect, uint32_t colour) = 0;
  // A line one pixel wide from (x0, y0) to (x1, y1).
  virtual void Line(int x0, int y0, int x1, int y1, uint32_t colour) = 0;
  // `length` characters of `text` (exactly those; no terminator is looked for), on one
  // line, starting kCanvasTextInset pixels right of the rectangle's left edge and centred
  // vertically: the baseline stands at y + (height + 7 * size / 10) / 2, integer division,
  // 0.7 em being the height of capitals. The text is not clipped unless a clip is set.
  virtual void Text(const CANVASRect& rect, const wchar_t* text, int length, const CanvasTextStyle& style) = 0;
  // Restricts drawing to the rectangle (within any clip already set) until PopClip.
  virtual void PushClip(const CANVASRect& rect) = 0;
  // Drops the clip set last; without one it does nothing.
  virtual void PopClip() = 0;
};

// The baseline of text drawn in `rect`, as Text places it.
// Worked in 64 bits, so no rectangle or size overflows it.
inline int64_t CanvasTextBaseline(const CANVASRect& rect, const CanvasTextStyle& style) {
  return int64_t{rect.y} + (int64_t{rect.height} + 7 * int64_t{style.size} / 10) / 2;
}
