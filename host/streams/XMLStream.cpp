#include "host/streams/XMLStream.h"

#include <cstring>
#include <new>

#include "host/common/HostString.h"
#include "host/common/PeerModule.h"
#include "host/streams/StreamCommon.h"

namespace {

HRESULT CreateXML(bool extended, IID* iid, void** object) {
  if (!iid || !object) return E_POINTER;
  *object = nullptr;
  CXMLStream* stream = new (std::nothrow) CXMLStream(extended);
  if (!stream) return E_FAIL;
  const HRESULT hr = stream->QueryInterface(*iid, object);
  stream->Release();
  return hr;
}

bool StartsWith(const std::wstring& text, size_t at, const wchar_t* prefix) {
  const size_t n = std::wcslen(prefix);
  return at <= text.size() && text.size() - at >= n && text.compare(at, n, prefix) == 0;
}

bool IsSpace(wchar_t c) { return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n'; }

bool IsNameEnd(wchar_t c) {
  return IsSpace(c) || c == L'/' || c == L'>' || c == L'<' || c == L'=' || c == L'"' || c == L'\'' || c == 0;
}

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

// Past a comment, CDATA section, instruction or declaration at `at`; npos if unterminated.
// Returns `at` itself when none starts there.
size_t SkipSpecial(const std::wstring& text, size_t at) {
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

bool NameStartChar(uint32_t c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || (c >= 0xC0 && c <= 0xD6) ||
         (c >= 0xD8 && c <= 0xF6) || (c >= 0xF8 && c <= 0x2FF) || (c >= 0x370 && c <= 0x37D) ||
         (c >= 0x37F && c <= 0x1FFF) || (c >= 0x200C && c <= 0x200D) || (c >= 0x2070 && c <= 0x218F) ||
         (c >= 0x2C00 && c <= 0x2FEF) || (c >= 0x3001 && c <= 0xD7FF) || (c >= 0xF900 && c <= 0xFDCF) ||
         (c >= 0xFDF0 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0xEFFFF);
}

bool NameChar(uint32_t c) {
  return NameStartChar(c) || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == 0xB7 ||
         (c >= 0x300 && c <= 0x36F) || (c >= 0x203F && c <= 0x2040);
}

bool XmlChar(uint32_t c) {
  return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) || (c >= 0xE000 && c <= 0xFFFD) ||
         (c >= 0x10000 && c <= 0x10FFFF);
}

}  // namespace

HRESULT CreateXMLStreamObject(void*, IID* iid, void** object) { return CreateXML(false, iid, object); }
HRESULT CreateXMLStreamExObject(void*, IID* iid, void** object) { return CreateXML(true, iid, object); }

ZELTRIM_PEER_CREATOR(L"XMLStream", XMLStream, CreateXMLStreamObject);
ZELTRIM_PEER_CREATOR(L"XMLStreamEx", XMLStreamEx, CreateXMLStreamExObject);

// ------------------------------------------------------------------ free helpers

std::wstring XMLElementName(const std::wstring& name) {
  std::wstring out;
  out.reserve(name.size() + 1);
  for (size_t i = 0; i < name.size(); ++i) {
    const uint32_t c = static_cast<uint32_t>(name[i]);
    if (i == 0 && !NameStartChar(c)) {
      out.push_back(L'_');
      if (NameChar(c)) out.push_back(name[i]);  // a leading digit is kept after the '_'
      continue;
    }
    out.push_back(NameChar(c) ? name[i] : L'_');
  }
  if (out.empty()) out = L"_";
  return out;
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
      const size_t past = SkipSpecial(in, i);
      if (past != i && past != std::wstring::npos) {
        i = past;  // comments and instructions are not text
        continue;
      }
    } else if (c == L'&') {
      const size_t semi = in.find(L';', i + 1);
      if (semi != std::wstring::npos && semi - i <= 12) {
        const std::wstring ref = in.substr(i + 1, semi - i - 1);
        uint32_t value = 0;
        bool known = true;
        if (ref == L"amp") value = '&';
        else if (ref == L"lt") value = '<';
        else if (ref == L"gt") value = '>';
        else if (ref == L"quot") value = '"';
        else if (ref == L"apos") value = '\'';
        else if (ref.size() >= 2 && ref[0] == L'#') {
          const bool hex = ref[1] == L'x' || ref[1] == L'X';
          const size_t first = hex ? 2 : 1;
          known = ref.size() > first;
          for (size_t k = first; k < ref.size() && known; ++k) {
            const wchar_t d = ref[k];
            uint32_t digit;
            if (d >= L'0' && d <= L'9') digit = static_cast<uint32_t>(d - L'0');
            else if (hex && d >= L'a' && d <= L'f') digit = static_cast<uint32_t>(d - L'a' + 10);
            else if (hex && d >= L'A' && d <= L'F') digit = static_cast<uint32_t>(d - L'A' + 10);
            else {
              known = false;
              break;
            }
            value = value * (hex ? 16 : 10) + digit;
            if (value > 0x10FFFF) known = false;
          }
          if (value == 0) known = false;
        } else {
          known = false;
        }
        if (known) {
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

bool XMLScanElement(const std::wstring& text, size_t start, CXMLStream::Element* element) {
  const size_t n = text.size();
  if (start >= n || text[start] != L'<') return false;
  CXMLStream::Element e;
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
    const size_t past = SkipSpecial(text, r);
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
      if (open.size() >= CXMLStream::kMaxDepth) return false;
      open.emplace_back(nameStart, nameLength);
    }
    p = q;
  }
}

// ------------------------------------------------------------------ the object

HRESULT CXMLStream::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CXMLStream>*>(this)), object) ||
      QueryRoute(iid, IID_IDataStream, static_cast<IDataStream*>(this), object) ||
      QueryRoute(iid, IID_IXMLStream, static_cast<IXMLStream*>(this), object) ||
      QueryRoute(iid, IID_IXMLStreamEx, static_cast<IXMLStreamEx*>(this), object) ||
      QueryRoute(iid, IID_IString, static_cast<IString*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CXMLStream::GetName(int, tagREFString* name) {
  if (!name) return E_POINTER;
  *name = m_Extended ? tagREFString{11, L"XMLStreamEx"} : tagREFString{9, L"XMLStream"};
  return S_OK;
}

void CXMLStream::ResetReading() {
  m_HasPending = false;
  m_HasInstruction = false;
}

HRESULT CXMLStream::Open(void* text, unsigned long bytes, int) {
  try {
    m_Text.clear();
    m_Position = 0;
    m_TextOnly = false;
    m_OpenNames.clear();
    m_HadChild.clear();
    ResetReading();
    if (text) {
      size_t chars = bytes / sizeof(wchar_t);
      const wchar_t* p = static_cast<const wchar_t*>(text);
      while (chars > 0 && p[chars - 1] == L'\0') --chars;  // a terminator counted in
      m_Text.assign(p, chars);
    }
  } catch (...) {
    m_Text.clear();
    return E_FAIL;
  }
  return S_OK;
}

HRESULT CXMLStream::Read(void* data, int bytes, int* read) {
  if (read) *read = 0;
  if (bytes < 0) return E_INVALIDARG;
  if (bytes > 0 && !data) return E_POINTER;
  size_t chars = static_cast<size_t>(bytes) / sizeof(wchar_t);
  const size_t left = m_Text.size() - m_Position;
  if (chars > left) chars = left;
  if (chars) std::memcpy(data, m_Text.data() + m_Position, chars * sizeof(wchar_t));
  m_Position += chars;
  ResetReading();
  if (read) *read = static_cast<int>(chars * sizeof(wchar_t));
  return chars * sizeof(wchar_t) == static_cast<size_t>(bytes) ? S_OK : S_FALSE;
}

HRESULT CXMLStream::Seek(long bytes, int origin, int) {
  if (bytes % static_cast<long>(sizeof(wchar_t)) != 0) return E_INVALIDARG;
  long long base = 0;
  if (origin == STREAM_CURRENT) base = static_cast<long long>(m_Position);
  else if (origin == STREAM_END) base = static_cast<long long>(m_Text.size());
  else if (origin != STREAM_BEGIN) return E_INVALIDARG;
  const long long target = base + bytes / static_cast<long>(sizeof(wchar_t));
  if (target < 0 || target > static_cast<long long>(m_Text.size())) return E_INVALIDARG;
  m_Position = static_cast<size_t>(target);
  m_HasPending = false;  // an instruction stays known, so that NextTag can pass it
  return S_OK;
}

HRESULT CXMLStream::GetBuffer(void** data, unsigned long* bytes) {
  if (!data) return E_POINTER;
  *data = const_cast<wchar_t*>(m_Text.c_str());
  if (bytes) *bytes = static_cast<unsigned long>(m_Text.size() * sizeof(wchar_t));
  return S_OK;
}

HRESULT CXMLStream::GetPosition(unsigned long* position) {
  if (!position) return E_POINTER;
  *position = static_cast<unsigned long>(m_Position * sizeof(wchar_t));
  return S_OK;
}

void CXMLStream::AppendEscaped(const wchar_t* text, size_t length) {
  for (size_t i = 0; i < length; ++i) {
    const wchar_t c = text[i];
    switch (c) {
      case L'&': m_Text += L"&amp;"; break;
      case L'<': m_Text += L"&lt;"; break;
      case L'>': m_Text += L"&gt;"; break;
      case L'"': m_Text += L"&quot;"; break;
      case L'\'': m_Text += L"&apos;"; break;
      case L'\r': m_Text += L"&#13;"; break;  // a parser would turn a bare CR into LF
      default: m_Text.push_back(XmlChar(static_cast<uint32_t>(c)) ? c : L'\xFFFD');
    }
  }
}

HRESULT CXMLStream::Write(const void* text, int bytes, int) {
  if (bytes < 0) return E_INVALIDARG;
  const size_t chars = static_cast<size_t>(bytes) / sizeof(wchar_t);
  if (chars == 0) return S_OK;
  if (!text) return E_POINTER;
  try {
    ResetReading();
    const wchar_t* p = static_cast<const wchar_t*>(text);
    if (m_OpenNames.empty())
      m_Text.append(p, chars);  // markup outside the elements: the prologue
    else
      AppendEscaped(p, chars);
  } catch (...) {
    return E_FAIL;
  }
  return S_OK;
}

HRESULT CXMLStream::get_Depth(int* depth) {
  if (!depth) return E_POINTER;
  *depth = static_cast<int>(m_OpenNames.size());
  return S_OK;
}

void CXMLStream::StartChild() {
  if (m_OpenNames.empty()) return;
  m_HadChild.back() = true;
  m_Text += L"\r\n";
  m_Text.append(2 * m_OpenNames.size(), L' ');
}

void CXMLStream::OpenElement(const std::wstring& name) {
  ResetReading();
  StartChild();
  const std::wstring valid = XMLElementName(name);
  m_Text += L'<';
  m_Text += valid;
  m_Text += L'>';
  m_OpenNames.push_back(valid);
  m_HadChild.push_back(false);
}

HRESULT CXMLStream::OpenTag(IString* name, int, int) {
  std::wstring text;
  if (!streams::TextOf(name, &text)) return E_INVALIDARG;
  try {
    OpenElement(text);
  } catch (...) {
    return E_FAIL;
  }
  return S_OK;
}

HRESULT CXMLStream::BeginObject(IUnknown* object, int, int) {
  if (!object) return E_POINTER;
  std::wstring name = streams::ObjectNameOf(object);
  const bool named = !name.empty();
  if (!named) name = L"Object";
  try {
    OpenElement(name);
  } catch (...) {
    return E_FAIL;
  }
  return named ? S_OK : S_FALSE;
}

HRESULT CXMLStream::WriteValue(IString* name, int, IString* value, int) {
  std::wstring tag, text;
  if (!streams::TextOf(name, &tag)) return E_INVALIDARG;
  streams::TextOf(value, &text);  // no value: an empty element
  try {
    StartChild();
    const std::wstring valid = XMLElementName(tag);
    m_Text += L'<';
    m_Text += valid;
    m_Text += L'>';
    AppendEscaped(text.data(), text.size());
    m_Text += L"</";
    m_Text += valid;
    m_Text += L'>';
  } catch (...) {
    return E_FAIL;
  }
  return S_OK;
}

HRESULT CXMLStream::CloseTag() {
  if (m_OpenNames.empty()) return E_FAIL;
  try {
    ResetReading();
    if (m_HadChild.back()) {
      m_Text += L"\r\n";
      m_Text.append(2 * (m_OpenNames.size() - 1), L' ');
    }
    m_Text += L"</";
    m_Text += m_OpenNames.back();
    m_Text += L'>';
  } catch (...) {
    return E_FAIL;
  }
  m_OpenNames.pop_back();
  m_HadChild.pop_back();
  return S_OK;
}

CXMLStream::ItemKind CXMLStream::NextItem(size_t from, Element* element, size_t* instructionEnd) const {
  size_t p = from;
  while (true) {
    const size_t r = m_Text.find(L'<', p);
    if (r == std::wstring::npos) return ITEM_END;
    if (StartsWith(m_Text, r, L"<?")) {
      const size_t close = m_Text.find(L"?>", r + 2);
      if (close == std::wstring::npos) return ITEM_ERROR;
      element->start = r;
      *instructionEnd = close + 2;
      return ITEM_INSTRUCTION;
    }
    const size_t past = SkipSpecial(m_Text, r);
    if (past == std::wstring::npos) return ITEM_ERROR;
    if (past != r) {
      p = past;
      continue;
    }
    if (StartsWith(m_Text, r, L"</")) return ITEM_END;  // the enclosing element closes
    return XMLScanElement(m_Text, r, element) ? ITEM_ELEMENT : ITEM_ERROR;
  }
}

HRESULT CXMLStream::NextTag(tagREFString* name) {
  if (!name) return E_POINTER;
  name->m_Length = 0;
  name->m_Text = nullptr;
  m_HasPending = false;
  if (m_TextOnly) return E_FAIL;
  if (m_HasInstruction && m_Position == m_InstructionStart) m_Position = m_InstructionEnd;
  m_HasInstruction = false;
  Element e;
  size_t instructionEnd = 0;
  switch (NextItem(m_Position, &e, &instructionEnd)) {
    case ITEM_INSTRUCTION:
      // Reported from its '?' to its '>'; the caller seeks over that many characters.
      m_Position = e.start + 1;
      m_HasInstruction = true;
      m_InstructionStart = m_Position;
      m_InstructionEnd = instructionEnd;
      name->m_Text = m_Text.c_str() + m_Position;
      name->m_Length = static_cast<int32_t>(instructionEnd - m_Position);
      return S_OK;
    case ITEM_ELEMENT:
      m_Pending = e;
      m_HasPending = true;
      m_Position = e.end;
      name->m_Text = m_Text.c_str() + e.nameStart;
      name->m_Length = static_cast<int32_t>(e.nameLength);
      return S_OK;
    case ITEM_END:
      return E_FAIL;
    default:
      return E_FAIL;
  }
}

HRESULT CXMLStream::FindElement(int length, const wchar_t* tag, Element* element) {
  const bool anyTag = !tag || length <= 0;
  const size_t tagLength = anyTag ? 0 : static_cast<size_t>(length);
  if (m_HasPending) {
    m_HasPending = false;
    if (anyTag || streams::SameNameNoCase(m_Text.c_str() + m_Pending.nameStart, m_Pending.nameLength, tag, tagLength)) {
      *element = m_Pending;
      return S_OK;
    }
  }
  if (m_TextOnly) return E_FAIL;
  size_t p = m_Position;
  if (m_HasInstruction && p == m_InstructionStart) p = m_InstructionEnd;
  while (true) {
    Element e;
    size_t instructionEnd = 0;
    const ItemKind kind = NextItem(p, &e, &instructionEnd);
    if (kind == ITEM_INSTRUCTION) {
      p = instructionEnd;
      continue;
    }
    if (kind != ITEM_ELEMENT) return E_FAIL;
    p = e.end;
    if (anyTag || streams::SameNameNoCase(m_Text.c_str() + e.nameStart, e.nameLength, tag, tagLength)) {
      m_Position = p;
      m_HasInstruction = false;
      *element = e;
      return S_OK;
    }
  }
}

HRESULT CXMLStream::MakeContent(const Element& e, CXMLStream** content) const {
  *content = nullptr;
  CXMLStream* stream = new (std::nothrow) CXMLStream(m_Extended);
  if (!stream) return E_FAIL;
  try {
    const wchar_t* raw = m_Text.c_str() + e.contentStart;
    const size_t length = e.contentEnd - e.contentStart;
    if (e.hasChildren) {
      stream->m_Text.assign(raw, length);
    } else {
      stream->m_Text = XMLUnescape(raw, length);
      stream->m_TextOnly = true;
    }
  } catch (...) {
    stream->Release();
    return E_FAIL;
  }
  stream->m_Options = m_Options;
  *content = stream;
  return S_OK;
}

HRESULT CXMLStream::ReadElement(int length, const wchar_t* tag, tagREFString* name, IUnknown** content, int) {
  if (content) *content = nullptr;
  if (name) {
    name->m_Length = 0;
    name->m_Text = nullptr;
  }
  Element e;
  const HRESULT hr = FindElement(length, tag, &e);
  if (hr < 0) return hr;
  if (name) {
    name->m_Text = m_Text.c_str() + e.nameStart;
    name->m_Length = static_cast<int32_t>(e.nameLength);
  }
  if (content) {
    CXMLStream* stream = nullptr;
    if (MakeContent(e, &stream) < 0) return E_FAIL;
    *content = static_cast<IUnknown*>(static_cast<IXMLStreamEx*>(stream));
  }
  return S_OK;
}

HRESULT CXMLStream::CreateAndLoad(const Element& e, IUnknown** object) {
  const std::wstring name(m_Text, e.nameStart, e.nameLength);
  SmartPtr<IDataPersist> persist = PeerCreate<IDataPersist>(name.c_str());
  if (!persist) return E_FAIL;
  CXMLStream* content = nullptr;
  if (MakeContent(e, &content) < 0) return E_FAIL;
  // The object's own verdict on its content is its concern: some objects report failure
  // from an XML load that did all its work, so the object is handed out regardless.
  persist->Load(static_cast<IXMLStreamEx*>(content), 0);
  content->Release();
  void* unknown = nullptr;
  if (persist->QueryInterface(IID_IUnknown, &unknown) < 0 || !unknown) return E_FAIL;
  *object = static_cast<IUnknown*>(unknown);
  return S_OK;
}

HRESULT CXMLStream::ReadObject(IUnknown** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  Element e;
  const HRESULT hr = FindElement(0, nullptr, &e);
  if (hr < 0) return hr;
  return CreateAndLoad(e, object);
}

HRESULT CXMLStream::ReadNamedObject(int length, const wchar_t* tag, IUnknown** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  Element e;
  const HRESULT hr = FindElement(length, tag, &e);
  if (hr < 0) return hr;
  return CreateAndLoad(e, object);
}

HRESULT CXMLStream::ReadValue(int length, const wchar_t* tag, IString** value) {
  if (!value) return E_POINTER;
  *value = nullptr;
  Element e;
  const HRESULT hr = FindElement(length, tag, &e);
  if (hr < 0) return hr;
  *value = CHostString::Create(XMLUnescape(m_Text.c_str() + e.contentStart, e.contentEnd - e.contentStart));
  return S_OK;
}

HRESULT CXMLStream::get_Text(IString** text) {
  if (!text) return E_POINTER;
  *text = CHostString::Create(m_Text);
  return S_OK;
}

HRESULT CXMLStream::SetOptions(int mask, int options) {
  m_Options = (m_Options & ~mask) | (options & mask);
  return S_OK;
}

HRESULT CXMLStream::GetString(const wchar_t** text, int* length) {
  if (text) *text = m_Text.c_str();
  if (length) *length = static_cast<int>(m_Text.size());
  return S_OK;
}
