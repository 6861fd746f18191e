#include "host/ui/canvas/SvgCanvas.h"

#include <cstdio>

namespace {

std::string Number(int64_t value) { return std::to_string(value); }

std::string Colour(uint32_t rgb) {
  static const char kHex[] = "0123456789abcdef";
  std::string text = "#";
  for (int shift = 20; shift >= 0; shift -= 4) text += kHex[(rgb >> shift) & 0xF];
  return text;
}

// x, y, width and height attributes; negative sizes become 0 (SVG refuses them).
std::string Box(const CANVASRect& r) {
  return "x=\"" + Number(r.x) + "\" y=\"" + Number(r.y) + "\" width=\"" + Number(r.width > 0 ? r.width : 0) +
         "\" height=\"" + Number(r.height > 0 ? r.height : 0) + "\"";
}

bool XmlChar(uint32_t c) {
  return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) || (c >= 0xE000 && c <= 0xFFFD) ||
         (c >= 0x10000 && c <= 0x10FFFF);
}

void AppendUtf8(std::string* out, uint32_t c) {
  if (c < 0x80) {
    *out += static_cast<char>(c);
  } else if (c < 0x800) {
    *out += static_cast<char>(0xC0 | (c >> 6));
    *out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    *out += static_cast<char>(0xE0 | (c >> 12));
    *out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    *out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    *out += static_cast<char>(0xF0 | (c >> 18));
    *out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    *out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    *out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

}  // namespace

SvgCanvas::SvgCanvas(int width, int height) : m_Width(width > 0 ? width : 0), m_Height(height > 0 ? height : 0) {}

std::string SvgCanvas::EscapeText(const wchar_t* text, size_t length) {
  std::string out;
  if (!text) return out;
  out.reserve(length);
  for (size_t i = 0; i < length; ++i) {
    const uint32_t c = static_cast<uint32_t>(text[i]);
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&apos;"; break;
      // A parser turns a raw carriage return into a line feed; a reference keeps it.
      case '\r': out += "&#13;"; break;
      default: AppendUtf8(&out, XmlChar(c) ? c : 0xFFFD);
    }
  }
  return out;
}

void SvgCanvas::Indent() { m_Body.append(static_cast<size_t>(2 + 2 * m_OpenClips), ' '); }

void SvgCanvas::FillRect(const CANVASRect& rect, uint32_t colour) {
  Indent();
  m_Body += "<rect " + Box(rect) + " fill=\"" + Colour(colour) + "\"/>\n";
}

void SvgCanvas::FrameRect(const CANVASRect& rect, uint32_t colour) {
  Indent();
  m_Body += "<rect " + Box(rect) + " fill=\"none\" stroke=\"" + Colour(colour) + "\" stroke-width=\"1\"/>\n";
}

void SvgCanvas::Line(int x0, int y0, int x1, int y1, uint32_t colour) {
  Indent();
  m_Body += "<line x1=\"" + Number(x0) + "\" y1=\"" + Number(y0) + "\" x2=\"" + Number(x1) + "\" y2=\"" +
            Number(y1) + "\" stroke=\"" + Colour(colour) + "\" stroke-width=\"1\"/>\n";
}

void SvgCanvas::Text(const CANVASRect& rect, const wchar_t* text, int length, const CanvasTextStyle& style) {
  const size_t count = (text && length > 0) ? static_cast<size_t>(length) : 0;
  Indent();
  // xml:space keeps leading and repeated blanks, which right-aligned numbers rely on.
  m_Body += "<text x=\"" + Number(int64_t{rect.x} + kCanvasTextInset) + "\" y=\"" +
            Number(CanvasTextBaseline(rect, style)) + "\" font-family=\"sans-serif\" font-size=\"" +
            Number(style.size > 0 ? style.size : 0) + "\" fill=\"" + Colour(style.colour) + "\"" +
            (style.bold ? " font-weight=\"bold\"" : "") + " xml:space=\"preserve\">" + EscapeText(text, count) +
            "</text>\n";
}

void SvgCanvas::PushClip(const CANVASRect& rect) {
  const std::string id = "clip" + Number(m_NextClipId++);
  Indent();
  m_Body += "<clipPath id=\"" + id + "\"><rect " + Box(rect) + "/></clipPath>\n";
  Indent();
  m_Body += "<g clip-path=\"url(#" + id + ")\">\n";
  ++m_OpenClips;
}

void SvgCanvas::PopClip() {
  if (m_OpenClips == 0) return;
  --m_OpenClips;
  Indent();
  m_Body += "</g>\n";
}

std::string SvgCanvas::Document() const {
  std::string doc =
      "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"no\"?>\n"
      "<svg xmlns=\"http://www.w3.org/2000/svg\" version=\"1.1\" width=\"" +
      Number(m_Width) + "\" height=\"" + Number(m_Height) + "\" viewBox=\"0 0 " + Number(m_Width) + " " +
      Number(m_Height) + "\">\n";
  doc += m_Body;
  for (int open = m_OpenClips; open > 0; --open) {
    doc.append(static_cast<size_t>(2 * open), ' ');
    doc += "</g>\n";
  }
  doc += "</svg>\n";
  return doc;
}

bool SvgCanvas::WriteFile(const std::string& path) const {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) return false;
  const std::string doc = Document();
  const bool written = std::fwrite(doc.data(), 1, doc.size(), file) == doc.size();
  return std::fclose(file) == 0 && written;
}
