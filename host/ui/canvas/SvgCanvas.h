// A canvas that records what is drawn on it as an SVG 1.1 document, for command-line
// hosts and tests. The document is UTF-8, one element a line, numbers as plain decimal
// integers (no locale is consulted).
#pragma once

#include <string>
#include <vector>

#include "host/ui/canvas/Canvas.h"

class SvgCanvas : public UbuntuCanvas {
 public:
  // The picture's size in pixels; negative sizes count as 0.
  SvgCanvas(int width, int height);

  void FillRect(const CANVASRect& rect, uint32_t colour) override;
  void FrameRect(const CANVASRect& rect, uint32_t colour) override;
  void Line(int x0, int y0, int x1, int y1, uint32_t colour) override;
  void Text(const CANVASRect& rect, const wchar_t* text, int length, const CanvasTextStyle& style) override;
  void PushClip(const CANVASRect& rect) override;
  void PopClip() override;

  // The whole document; clips still open are closed in it.
  std::string Document() const;
  // Writes Document() to a file; false when the file cannot be written.
  bool WriteFile(const std::string& path) const;

  // Text as it stands in an SVG element: UTF-8, with & < > " ' as entity references, and
  // characters XML 1.0 cannot carry (controls other than tab and line ends, surrogates,
  // U+FFFE, U+FFFF, values above U+10FFFF) as U+FFFD.
  static std::string EscapeText(const wchar_t* text, size_t length);

 private:
  void Indent();

  int m_Width, m_Height;
  std::string m_Body;
  int m_OpenClips = 0;
  int m_NextClipId = 1;
};
