#include "host/streams/XMLText.h"

#include <cstdio>
#include <cwchar>
#include <utility>
#include <vector>

namespace {

bool StartsWith(const std::wstring& text, size_t at, const wchar_t* prefix) {
  const size_t n = std::wcslen(prefix);
  return at <= text.size() && text.size() - at >= n && text.compare(at, n, prefix) == 0;
}

bool IsSpace(wchar_t c) { return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n'; }

bool IsNameEnd(wchar_t c) {
  return IsSpace(c) || c == L'/' || c == L'>' || c == L'<' || c == L'=' || c == L'"' || c == L'\'' || c == 0;
}

bool IsHighSurrogate(uint32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsLowSurrogate(uint32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

// Index just past the '>' that ends a tag whose attributes start at `p`; npos if none.
size_t ScanTagEnd(const std::wstring& text, size_t p, bool* selfClosing) {
  const size_t n = text.size();
  while (p < n) {
    const wchar_t c = text[p];
    if (c == L'"' || c == L'\'') {
      const size_t close = text.find(c, p + 1);
      if (close == std::wstring::npos) return close;
      p = close + 1;
      continue;
    }
    if (c == L'>') {
      *selfClosing = p > 0 && text[p - 1] == L'/';
      return p + 1;
    }
    if (c == L'<') return std::wstring::npos;
    ++p;
  }
  return std::wstring::npos;
}

// The value of a reference "&...;" whose '&' is at `at` and ';' at `semi`; 0 when it is
// none of the predefined entities nor a character reference in range.
uint32_t ReferenceValue(const std::wstring& text, size_t at, size_t semi) {
  const std::wstring ref = text.substr(at + 1, semi - at - 1);
  if (ref == L"amp") return '&';
  if (ref == L"lt") return '<';
  if (ref == L"gt") return '>';
  if (ref == L"quot") return '"';
  if (ref == L"apos") return '\'';
  if (ref.size() < 2 || ref[0] != L'#') return 0;
  const bool hex = ref[1] == L'x';
  const size_t first = hex ? 2 : 1;
  if (ref.size() <= first) return 0;
  uint32_t value = 0;
  for (size_t k = first; k < ref.size(); ++k) {
    const wchar_t d = ref[k];
    uint32_t digit;
    if (d >= L'0' && d <= L'9') digit = static_cast<uint32_t>(d - L'0');
    else if (hex && d >= L'a' && d <= L'f') digit = static_cast<uint32_t>(d - L'a' + 10);
    else if (hex && d >= L'A' && d <= L'F') digit = static_cast<uint32_t>(d - L'A' + 10);
    else return 0;
    value = value * (hex ? 16 : 10) + digit;
    if (value > 0x10FFFF) return 0;
  }
  return value;
}

// The longest reference text looked at ("&#x10FFFF;" and the entity names fit easily).
constexpr size_t kMaxReferenceLength = 12;

// One pass over a document. Each Parse... step starts at m_At and moves it past what it
// read, or records the first problem and returns false.
class DocumentChecker {
 public:
  explicit DocumentChecker(const std::wstring& text) : m_Text(text), m_Size(text.size()) {}

  XMLDocumentCheck Run() {
    XMLDocumentCheck result;
    result.wellFormed = ParseDocument(&result.root);
    if (!result.wellFormed) {
      result.at = m_FailAt;
      result.line = XMLLineOf(m_Text, m_FailAt);
      result.problem = m_Problem;
    }
    return result;
  }

 private:
  bool Fail(size_t at, const std::string& problem) {
    m_FailAt = at;
    m_Problem = problem;
    return false;
  }

  bool At(const wchar_t* prefix) const { return StartsWith(m_Text, m_At, prefix); }
  wchar_t Char() const { return m_At < m_Size ? m_Text[m_At] : L'\0'; }

  bool SkipSpace() {
    const size_t from = m_At;
    while (m_At < m_Size && IsSpace(m_Text[m_At])) ++m_At;
    return m_At > from;
  }

  static bool NameStart(uint32_t c) { return XMLIsNameStartChar(c) || c == ':'; }
  static bool NameChar(uint32_t c) { return XMLIsNameChar(c) || c == ':'; }

  bool ParseName(size_t* start, size_t* length) {
    *start = m_At;
    if (m_At >= m_Size || !NameStart(static_cast<uint32_t>(m_Text[m_At]))) return false;
    ++m_At;
    while (m_At < m_Size && NameChar(static_cast<uint32_t>(m_Text[m_At]))) ++m_At;
    *length = m_At - *start;
    return true;
  }

  bool ParseDocument(XMLElementSpan* root) {
    for (size_t i = 0; i < m_Size; ++i) {
      const uint32_t c = static_cast<uint32_t>(m_Text[i]);
      if (i == 0 && c == 0xFFFE) return Fail(0, "a byte order mark of the wrong byte order");
      if (!XMLIsChar(c)) {
        char why[64];
        std::snprintf(why, sizeof(why), "a character XML does not allow (U+%04X)", static_cast<unsigned>(c));
        return Fail(i, why);
      }
    }
    m_At = 0;
    if (Char() == 0xFEFF) ++m_At;
    if (At(L"<?xml") && (m_At + 5 >= m_Size || !NameChar(static_cast<uint32_t>(m_Text[m_At + 5])))) {
      if (!ParseDeclaration()) return false;
    }
    bool haveDoctype = false;
    while (true) {
      SkipSpace();
      if (m_At >= m_Size) return Fail(m_At, "no root element");
      if (At(L"<!--")) {
        if (!ParseComment()) return false;
      } else if (At(L"<?")) {
        if (!ParseInstruction()) return false;
      } else if (At(L"<!DOCTYPE")) {
        if (haveDoctype) return Fail(m_At, "a second document type declaration");
        if (!ParseDoctype()) return false;
        haveDoctype = true;
      } else if (Char() == L'<') {
        break;
      } else {
        return Fail(m_At, "text before the root element");
      }
    }
    root->start = m_At;
    if (!ParseElement(root)) return false;
    while (true) {
      SkipSpace();
      if (m_At >= m_Size) return true;
      if (At(L"<!--")) {
        if (!ParseComment()) return false;
      } else if (At(L"<?")) {
        if (!ParseInstruction()) return false;
      } else if (Char() == L'<') {
        return Fail(m_At, "a second element after the root element");
      } else {
        return Fail(m_At, "text after the root element");
      }
    }
  }

  // "<?xml" version, then optional encoding and standalone, in that order.
  bool ParseDeclaration() {
    const size_t start = m_At;
    m_At += 5;
    const char* const bad = "a bad XML declaration";
    struct Pseudo {
      const wchar_t* name;
      bool required;
    } const attributes[] = {{L"version", true}, {L"encoding", false}, {L"standalone", false}};
    for (const Pseudo& a : attributes) {
      const size_t before = m_At;
      const bool spaced = SkipSpace();
      if (!spaced || !At(a.name)) {
        if (a.required) return Fail(start, bad);
        m_At = before;
        continue;
      }
      m_At += std::wcslen(a.name);
      SkipSpace();
      if (Char() != L'=') return Fail(start, bad);
      ++m_At;
      SkipSpace();
      const wchar_t quote = Char();
      if (quote != L'"' && quote != L'\'') return Fail(start, bad);
      const size_t close = m_Text.find(quote, m_At + 1);
      if (close == std::wstring::npos) return Fail(start, bad);
      const std::wstring value = m_Text.substr(m_At + 1, close - m_At - 1);
      if (!PseudoValueOk(a.name, value)) return Fail(start, bad);
      m_At = close + 1;
    }
    SkipSpace();
    if (!At(L"?>")) return Fail(start, bad);
    m_At += 2;
    return true;
  }

  static bool PseudoValueOk(const std::wstring& name, const std::wstring& value) {
    if (name == L"version") {
      if (value.size() < 3 || value.compare(0, 2, L"1.") != 0) return false;
      for (size_t i = 2; i < value.size(); ++i)
        if (value[i] < L'0' || value[i] > L'9') return false;
      return true;
    }
    if (name == L"standalone") return value == L"yes" || value == L"no";
    if (value.empty()) return false;
    for (size_t i = 0; i < value.size(); ++i) {
      const wchar_t c = value[i];
      const bool letter = (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z');
      const bool more = (c >= L'0' && c <= L'9') || c == L'.' || c == L'_' || c == L'-';
      if (!letter && !(i > 0 && more)) return false;
    }
    return true;
  }

  bool ParseComment() {
    const size_t start = m_At;
    const size_t dashes = m_Text.find(L"--", m_At + 4);
    if (dashes == std::wstring::npos) return Fail(start, "a comment that is not closed");
    if (dashes + 2 >= m_Size || m_Text[dashes + 2] != L'>') return Fail(dashes, "\"--\" inside a comment");
    m_At = dashes + 3;
    return true;
  }

  bool ParseInstruction() {
    const size_t start = m_At;
    m_At += 2;
    size_t nameStart = 0, nameLength = 0;
    if (!ParseName(&nameStart, &nameLength)) return Fail(start, "a processing instruction without a name");
    const std::wstring target = m_Text.substr(nameStart, nameLength);
    if (target.size() == 3 && (target[0] == L'x' || target[0] == L'X') && (target[1] == L'm' || target[1] == L'M') &&
        (target[2] == L'l' || target[2] == L'L'))
      return Fail(start, "an XML declaration that is not at the start");
    const size_t close = m_Text.find(L"?>", m_At);
    if (close == std::wstring::npos) return Fail(start, "a processing instruction that is not closed");
    if (close != m_At && !IsSpace(m_Text[m_At])) return Fail(m_At, "a bad processing instruction");
    m_At = close + 2;
    return true;
  }

  // "<!DOCTYPE name ...>" with quoted literals; an internal subset is not read.
  bool ParseDoctype() {
    const size_t start = m_At;
    m_At += 9;
    size_t nameStart = 0, nameLength = 0;
    if (!SkipSpace() || !ParseName(&nameStart, &nameLength)) return Fail(start, "a bad document type declaration");
    while (m_At < m_Size) {
      const wchar_t c = m_Text[m_At];
      if (c == L'"' || c == L'\'') {
        const size_t close = m_Text.find(c, m_At + 1);
        if (close == std::wstring::npos) break;
        m_At = close + 1;
        continue;
      }
      if (c == L'[') return Fail(m_At, "a document type with an internal subset");
      if (c == L'<') break;
      ++m_At;
      if (c == L'>') return true;
    }
    return Fail(start, "a document type declaration that is not closed");
  }

  // A reference at m_At ('&'); its value must be a character XML allows.
  bool ParseReference() {
    const size_t start = m_At;
    const size_t semi = m_Text.find(L';', start + 1);
    if (semi == std::wstring::npos || semi - start > kMaxReferenceLength)
      return Fail(start, "an '&' that starts no reference");
    const uint32_t value = ReferenceValue(m_Text, start, semi);
    if (value == 0 || !XMLIsChar(value)) return Fail(start, "an unknown or invalid reference");
    m_At = semi + 1;
    return true;
  }

  // Attributes of a start tag after its name, up to and past '>' or "/>".
  bool ParseAttributes(bool* empty) {
    std::vector<std::pair<size_t, size_t>> names;
    while (true) {
      const bool spaced = SkipSpace();
      if (At(L"/>")) {
        m_At += 2;
        *empty = true;
        return true;
      }
      if (Char() == L'>') {
        ++m_At;
        *empty = false;
        return true;
      }
      if (m_At >= m_Size) return Fail(m_At, "a start tag that is not closed");
      size_t nameStart = 0, nameLength = 0;
      if (!spaced || !ParseName(&nameStart, &nameLength)) return Fail(m_At, "a bad attribute");
      for (const auto& other : names)
        if (other.second == nameLength && m_Text.compare(other.first, nameLength, m_Text, nameStart, nameLength) == 0)
          return Fail(nameStart, "an attribute given twice");
      names.emplace_back(nameStart, nameLength);
      SkipSpace();
      if (Char() != L'=') return Fail(m_At, "an attribute without a value");
      ++m_At;
      SkipSpace();
      const wchar_t quote = Char();
      if (quote != L'"' && quote != L'\'') return Fail(m_At, "an attribute value without quotes");
      ++m_At;
      while (true) {
        if (m_At >= m_Size) return Fail(nameStart, "an attribute value that is not closed");
        const wchar_t c = m_Text[m_At];
        if (c == quote) break;
        if (c == L'<') return Fail(m_At, "a '<' in an attribute value");
        if (c == L'&') {
          if (!ParseReference()) return false;
        } else {
          ++m_At;
        }
      }
      ++m_At;
    }
  }

  // The element at m_At ('<') with everything inside it, without recursion.
  bool ParseElement(XMLElementSpan* root) {
    std::vector<std::pair<size_t, size_t>> open;  // name start, name length
    while (true) {
      // A start tag at m_At.
      const size_t tagStart = m_At;
      ++m_At;
      size_t nameStart = 0, nameLength = 0;
      if (!ParseName(&nameStart, &nameLength)) return Fail(tagStart, "a bad element name");
      bool empty = false;
      if (!ParseAttributes(&empty)) return false;
      if (open.empty()) {
        root->nameStart = nameStart;
        root->nameLength = nameLength;
        root->contentStart = m_At;
      } else {
        root->hasChildren = true;
      }
      if (empty) {
        if (open.empty()) {
          root->contentEnd = root->end = m_At;
          return true;
        }
      } else {
        if (open.size() >= kXMLMaxDepth) return Fail(tagStart, "elements nested too deep");
        open.emplace_back(nameStart, nameLength);
      }
      // Content up to the next start tag, or the end of every open element.
      while (true) {
        if (m_At >= m_Size) {
          const std::wstring name = m_Text.substr(open.back().first, open.back().second);
          return Fail(m_Size, "element <" + Narrow(name) + "> is not closed");
        }
        const wchar_t c = m_Text[m_At];
        if (c == L'&') {
          if (!ParseReference()) return false;
          continue;
        }
        if (c == L']' && At(L"]]>")) return Fail(m_At, "\"]]>\" in text");
        if (c != L'<') {
          ++m_At;
          continue;
        }
        if (At(L"</")) {
          const size_t endStart = m_At;
          m_At += 2;
          size_t endName = 0, endLength = 0;
          if (!ParseName(&endName, &endLength)) return Fail(endStart, "a bad end tag");
          SkipSpace();
          if (Char() != L'>') return Fail(endStart, "a bad end tag");
          ++m_At;
          const auto& top = open.back();
          if (endLength != top.second || m_Text.compare(endName, endLength, m_Text, top.first, top.second) != 0)
            return Fail(endStart, "end tag </" + Narrow(m_Text.substr(endName, endLength)) + "> does not close <" +
                                      Narrow(m_Text.substr(top.first, top.second)) + ">");
          open.pop_back();
          if (open.empty()) {
            root->contentEnd = endStart;
            root->end = m_At;
            return true;
          }
        } else if (At(L"<!--")) {
          if (!ParseComment()) return false;
        } else if (At(L"<![CDATA[")) {
          const size_t close = m_Text.find(L"]]>", m_At + 9);
          if (close == std::wstring::npos) return Fail(m_At, "a CDATA section that is not closed");
          m_At = close + 3;
        } else if (At(L"<?")) {
          if (!ParseInstruction()) return false;
        } else if (At(L"<!")) {
          return Fail(m_At, "a declaration inside an element");
        } else {
          break;  // a child's start tag
        }
      }
    }
  }

  // Element names in messages: printable ASCII kept, anything else as '?', at most 40.
  static std::string Narrow(const std::wstring& text) {
    std::string out;
    for (size_t i = 0; i < text.size() && i < 40; ++i)
      out += text[i] >= 32 && text[i] < 127 ? static_cast<char>(text[i]) : '?';
    if (text.size() > 40) out += "...";
    return out;
  }

  const std::wstring& m_Text;
  const size_t m_Size;
  size_t m_At = 0;
  size_t m_FailAt = 0;
  std::string m_Problem;
};

}  // namespace

bool XMLIsNameStartChar(uint32_t c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || (c >= 0xC0 && c <= 0xD6) ||
         (c >= 0xD8 && c <= 0xF6) || (c >= 0xF8 && c <= 0x2FF) || (c >= 0x370 && c <= 0x37D) ||
         (c >= 0x37F && c <= 0x1FFF) || (c >= 0x200C && c <= 0x200D) || (c >= 0x2070 && c <= 0x218F) ||
         (c >= 0x2C00 && c <= 0x2FEF) || (c >= 0x3001 && c <= 0xD7FF) || (c >= 0xF900 && c <= 0xFDCF) ||
         (c >= 0xFDF0 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0xEFFFF);
}

bool XMLIsNameChar(uint32_t c) {
  return XMLIsNameStartChar(c) || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == 0xB7 ||
         (c >= 0x300 && c <= 0x36F) || (c >= 0x203F && c <= 0x2040);
}

bool XMLIsChar(uint32_t c) {
  return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) || (c >= 0xE000 && c <= 0xFFFD) ||
         (c >= 0x10000 && c <= 0x10FFFF);
}

bool XMLJoinSurrogates(std::wstring* text, size_t* at) {
  std::wstring& t = *text;
  size_t out = 0;
  for (size_t i = 0; i < t.size(); ++i) {
    const uint32_t c = static_cast<uint32_t>(t[i]);
    if (IsHighSurrogate(c) && i + 1 < t.size() && IsLowSurrogate(static_cast<uint32_t>(t[i + 1]))) {
      const uint32_t low = static_cast<uint32_t>(t[i + 1]);
      t[out++] = static_cast<wchar_t>(0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00));
      ++i;
      continue;
    }
    if (IsHighSurrogate(c) || IsLowSurrogate(c)) {
      if (at) *at = out;
      t.resize(out);
      return false;
    }
    t[out++] = t[i];
  }
  t.resize(out);
  return true;
}

XMLDocumentCheck XMLCheckDocument(const std::wstring& text) { return DocumentChecker(text).Run(); }

size_t XMLLineOf(const std::wstring& text, size_t at) {
  size_t line = 1;
  for (size_t i = 0; i < at && i < text.size(); ++i)
    if (text[i] == L'\n' || (text[i] == L'\r' && (i + 1 >= text.size() || text[i + 1] != L'\n'))) ++line;
  return line;
}

size_t XMLSkipSpecial(const std::wstring& text, size_t at) {
  size_t close;
  if (StartsWith(text, at, L"<!--")) {
    close = text.find(L"-->", at + 4);
    return close == std::wstring::npos ? close : close + 3;
  }
  if (StartsWith(text, at, L"<![CDATA[")) {
    close = text.find(L"]]>", at + 9);
    return close == std::wstring::npos ? close : close + 3;
  }
  if (StartsWith(text, at, L"<?")) {
    close = text.find(L"?>", at + 2);
    return close == std::wstring::npos ? close : close + 2;
  }
  if (StartsWith(text, at, L"<!")) {
    close = text.find(L'>', at + 2);
    return close == std::wstring::npos ? close : close + 1;
  }
  return at;
}

bool XMLScanElement(const std::wstring& text, size_t start, XMLElementSpan* element) {
  const size_t n = text.size();
  if (start >= n || text[start] != L'<') return false;
  XMLElementSpan e;
  e.start = start;
  size_t p = start + 1;
  e.nameStart = p;
  while (p < n && !IsNameEnd(text[p])) ++p;
  e.nameLength = p - e.nameStart;
  if (e.nameLength == 0) return false;
  bool selfClosing = false;
  p = ScanTagEnd(text, p, &selfClosing);
  if (p == std::wstring::npos) return false;
  if (selfClosing) {
    e.contentStart = e.contentEnd = e.end = p;
    *element = e;
    return true;
  }
  e.contentStart = p;
  // Open elements as (name start, name length); closing tags must match them.
  std::vector<std::pair<size_t, size_t>> open;
  open.emplace_back(e.nameStart, e.nameLength);
  while (true) {
    const size_t r = text.find(L'<', p);
    if (r == std::wstring::npos) return false;
    const size_t past = XMLSkipSpecial(text, r);
    if (past == std::wstring::npos) return false;
    if (past != r) {
      p = past;
      continue;
    }
    if (StartsWith(text, r, L"</")) {
      size_t q = r + 2;
      const size_t nameStart = q;
      while (q < n && !IsNameEnd(text[q])) ++q;
      const size_t nameLength = q - nameStart;
      while (q < n && IsSpace(text[q])) ++q;
      if (q >= n || text[q] != L'>') return false;
      const auto& top = open.back();
      if (nameLength != top.second || text.compare(nameStart, nameLength, text, top.first, top.second) != 0)
        return false;
      open.pop_back();
      p = q + 1;
      if (open.empty()) {
        e.contentEnd = r;
        e.end = p;
        *element = e;
        return true;
      }
      continue;
    }
    size_t q = r + 1;
    const size_t nameStart = q;
    while (q < n && !IsNameEnd(text[q])) ++q;
    const size_t nameLength = q - nameStart;
    if (nameLength == 0) return false;
    bool childClosing = false;
    q = ScanTagEnd(text, q, &childClosing);
    if (q == std::wstring::npos) return false;
    e.hasChildren = true;
    if (!childClosing) {
      if (open.size() >= kXMLMaxDepth) return false;
      open.emplace_back(nameStart, nameLength);
    }
    p = q;
  }
}

std::wstring XMLUnescape(const wchar_t* text, size_t length) {
  const std::wstring in(text, length);
  std::wstring out;
  out.reserve(length);
  size_t i = 0;
  while (i < length) {
    const wchar_t c = in[i];
    if (c == L'<') {
      if (StartsWith(in, i, L"<![CDATA[")) {
        const size_t close = in.find(L"]]>", i + 9);
        const size_t stop = close == std::wstring::npos ? length : close;
        out.append(in, i + 9, stop - (i + 9));
        i = close == std::wstring::npos ? length : close + 3;
        continue;
      }
      const size_t past = XMLSkipSpecial(in, i);
      if (past != i && past != std::wstring::npos) {
        i = past;  // comments and instructions are not text
        continue;
      }
    } else if (c == L'&') {
      const size_t semi = in.find(L';', i + 1);
      if (semi != std::wstring::npos && semi - i <= kMaxReferenceLength) {
        const uint32_t value = ReferenceValue(in, i, semi);
        if (value != 0) {
          out.push_back(static_cast<wchar_t>(value));
          i = semi + 1;
          continue;
        }
      }
    }
    out.push_back(c);  // anything unrecognised stays as it is
    ++i;
  }
  return out;
}

void XMLAppendEscaped(const wchar_t* text, size_t length, std::wstring* out) {
  for (size_t i = 0; i < length; ++i) {
    const wchar_t c = text[i];
    const uint32_t value = static_cast<uint32_t>(c);
    switch (c) {
      case L'&': *out += L"&amp;"; break;
      case L'<': *out += L"&lt;"; break;
      case L'>': *out += L"&gt;"; break;
      case L'"': *out += L"&quot;"; break;
      case L'\'': *out += L"&apos;"; break;
      case L'\r': *out += L"&#13;"; break;
      default:
        if (!XMLIsChar(value)) {
          out->push_back(L'\xFFFD');
        } else if (value > 0xFFFF) {
          wchar_t reference[16];
          std::swprintf(reference, 16, L"&#x%X;", static_cast<unsigned>(value));
          *out += reference;
        } else {
          out->push_back(c);
        }
    }
  }
}

std::wstring XMLElementName(const std::wstring& name) {
  std::wstring out;
  out.reserve(name.size() + 1);
  for (size_t i = 0; i < name.size(); ++i) {
    const uint32_t c = static_cast<uint32_t>(name[i]);
    const bool inPlane = c <= 0xFFFF;
    if (i == 0 && !(inPlane && XMLIsNameStartChar(c))) {
      out.push_back(L'_');
      if (inPlane && XMLIsNameChar(c)) out.push_back(name[i]);  // a leading digit is kept after the '_'
      continue;
    }
    out.push_back(inPlane && XMLIsNameChar(c) ? name[i] : L'_');
  }
  if (out.empty()) out = L"_";
  return out;
}
