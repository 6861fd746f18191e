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

}  // namespace

HRESULT CreateXMLStreamObject(void*, IID* iid, void** object) { return CreateXML(false, iid, object); }
HRESULT CreateXMLStreamExObject(void*, IID* iid, void** object) { return CreateXML(true, iid, object); }

ZELTRIM_PEER_CREATOR(L"XMLStream", XMLStream, CreateXMLStreamObject);
ZELTRIM_PEER_CREATOR(L"XMLStreamEx", XMLStreamEx, CreateXMLStreamExObject);

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
  m_Text.clear();
  m_Position = 0;
  m_TextOnly = false;
  m_Refused = false;
  m_ElementName.clear();
  m_OpenNames.clear();
  m_HadChild.clear();
  ResetReading();
  if (!text) return S_OK;
  try {
    if (bytes % sizeof(wchar_t) != 0) {
      m_Refused = true;  // a character cut short
      return E_FAIL;
    }
    size_t chars = bytes / sizeof(wchar_t);
    const wchar_t* p = static_cast<const wchar_t*>(text);
    while (chars > 0 && p[chars - 1] == L'\0') --chars;  // a terminator counted in
    m_Text.assign(p, chars);
    if (m_Text.empty()) return S_OK;
    size_t at = 0;
    if (!XMLJoinSurrogates(&m_Text, &at) || !XMLCheckDocument(m_Text).wellFormed) {
      m_Text.clear();
      m_Refused = true;
      return E_FAIL;
    }
    if (m_Text[0] == L'\xFEFF') m_Text.erase(0, 1);
  } catch (...) {
    m_Text.clear();
    m_Refused = true;
    return E_FAIL;
  }
  return S_OK;
}

HRESULT CXMLStream::Read(void* data, int bytes, int* read) {
  if (read) *read = 0;
  if (m_Refused) return E_FAIL;
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
      XMLAppendEscaped(p, chars, &m_Text);
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
    XMLAppendEscaped(text.data(), text.size(), &m_Text);
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
    if (m_Text.compare(r, 2, L"<?") == 0) {
      const size_t close = m_Text.find(L"?>", r + 2);
      if (close == std::wstring::npos) return ITEM_ERROR;
      element->start = r;
      *instructionEnd = close + 2;
      return ITEM_INSTRUCTION;
    }
    const size_t past = XMLSkipSpecial(m_Text, r);
    if (past == std::wstring::npos) return ITEM_ERROR;
    if (past != r) {
      p = past;
      continue;
    }
    if (m_Text.compare(r, 2, L"</") == 0) return ITEM_END;  // the enclosing element closes
    return XMLScanElement(m_Text, r, element) ? ITEM_ELEMENT : ITEM_ERROR;
  }
}

HRESULT CXMLStream::NextTag(tagREFString* name) {
  if (!name) return E_POINTER;
  name->m_Length = 0;
  name->m_Text = nullptr;
  m_HasPending = false;
  if (m_TextOnly || m_Refused) return E_FAIL;
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
  if (m_TextOnly || m_Refused) return E_FAIL;
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
  stream->m_ElementName.assign(m_Text, e.nameStart, e.nameLength);
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
  CXMLStream* content = nullptr;
  if (MakeContent(e, &content) < 0) return E_FAIL;
  return LoadNew(content, object);
}

HRESULT CXMLStream::LoadNew(CXMLStream* content, IUnknown** object) {
  SmartPtr<IDataPersist> persist = PeerCreate<IDataPersist>(content->m_ElementName.c_str());
  if (!persist) {
    content->Release();
    return E_FAIL;
  }
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
  if (hr >= 0) return CreateAndLoad(e, object);
  // The content of an element stands for that element: asked for the element's own tag
  // and holding no child of that name, it makes the object from its whole self.
  if (m_Refused || m_ElementName.empty() || !tag || length <= 0 ||
      !streams::SameNameNoCase(m_ElementName.data(), m_ElementName.size(), tag, static_cast<size_t>(length)))
    return hr;
  CXMLStream* copy = new (std::nothrow) CXMLStream(m_Extended);
  if (!copy) return E_FAIL;
  try {
    copy->m_Text = m_Text;
    copy->m_ElementName = m_ElementName;
  } catch (...) {
    copy->Release();
    return E_FAIL;
  }
  copy->m_TextOnly = m_TextOnly;
  copy->m_Options = m_Options;
  return LoadNew(copy, object);
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
