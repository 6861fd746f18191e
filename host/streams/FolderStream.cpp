#include "host/streams/FolderStream.h"

#include <cstring>
#include <new>

#include "host/common/HostString.h"
#include "host/common/PeerModule.h"
#include "host/streams/DataStream.h"
#include "host/streams/StreamCommon.h"

ZELTRIM_PEER_OBJECT(L"FolderStream", CFolderStream);

using namespace folder_codec;

namespace {

std::wstring NumberText(const CFolderStream::Entry& e) {
  wchar_t buffer[64];
  if (e.type == TYPE_INT32)
    std::swprintf(buffer, 64, L"%d", e.integer);
  else
    std::swprintf(buffer, 64, L"%.17g", e.number);
  return buffer;
}

IDataStream* AsDataStream(CFolderStream* folder) {
  return static_cast<IDataStream*>(static_cast<IFolderStream*>(folder));
}

}  // namespace

// ------------------------------------------------------------------ file image

bool CFolderStream::Export(const std::vector<Entry>& entries, std::vector<folder_codec::Entry>* out) {
  out->clear();
  out->reserve(entries.size());
  for (const Entry& e : entries) {
    out->push_back(e);  // the codec part; `children` is empty here
    if (e.type == TYPE_FOLDER || e.type == TYPE_OBJECT) {
      if (!e.folder || !Export(e.folder->m_Entries, &out->back().children)) return false;
    }
  }
  return true;
}

bool CFolderStream::Adopt(std::vector<folder_codec::Entry>* decoded, int depth, std::vector<Entry>* out) {
  out->clear();
  out->reserve(decoded->size());
  for (folder_codec::Entry& d : *decoded) {
    std::vector<folder_codec::Entry> children;
    children.swap(d.children);
    out->emplace_back();
    Entry& e = out->back();
    static_cast<folder_codec::Entry&>(e) = std::move(d);
    if (e.type == TYPE_FOLDER || e.type == TYPE_OBJECT) {
      CFolderStream* child = new (std::nothrow) CFolderStream();
      if (!child) return false;
      e.folder.Attach(child);
      child->m_Depth = depth + 1;
      if (!Adopt(&children, depth + 1, &child->m_Entries)) return false;
    }
  }
  return true;
}

bool CFolderStream::SaveImage(std::vector<uint8_t>* image) const {
  try {
    std::vector<folder_codec::Entry> tree;
    if (Export(m_Entries, &tree) && Encode(tree, m_Depth, image)) return true;
  } catch (...) {
  }
  image->clear();  // never a partial image
  return false;
}

bool CFolderStream::LoadImage(const uint8_t* image, size_t size) {
  std::vector<Entry> entries;
  try {
    std::vector<folder_codec::Entry> tree;
    if (!Decode(image, size, m_Depth, &tree) || !Adopt(&tree, m_Depth, &entries)) return false;
  } catch (...) {
    return false;
  }
  m_Entries.swap(entries);
  m_Image.clear();
  m_ImagePosition = 0;
  return true;
}

// ------------------------------------------------------------------ the object

HRESULT CFolderStream::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CFolderStream>*>(this)), object) ||
      QueryRoute(iid, IID_IDataStream, static_cast<IDataStream*>(this), object) ||
      QueryRoute(iid, IID_IFolderStream, static_cast<IFolderStream*>(this), object) ||
      QueryRoute(iid, IID_IFileArchive, static_cast<IFileArchive*>(this), object) ||
      QueryRoute(iid, IID_INamedCollection, static_cast<INamedCollection*>(this), object) ||
      QueryRoute(iid, IID_ISimpleCollection, static_cast<ISimpleCollection*>(this), object) ||
      QueryRoute(iid, IID_IString, static_cast<IString*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CFolderStream::GetName(int, tagREFString* name) {
  if (!name) return E_POINTER;
  *name = tagREFString{12, L"FolderStream"};
  return S_OK;
}

CFolderStream* CFolderStream::NewChild() const {
  if (m_Depth >= kMaxDepth) return nullptr;
  CFolderStream* child = new (std::nothrow) CFolderStream();
  if (child) child->m_Depth = m_Depth + 1;
  return child;
}

int CFolderStream::Find(IUnknown* key) const {
  const streams::StreamKey k = streams::KeyOf(key);
  if (!k.valid) return -1;
  if (k.isIndex) return k.index >= 0 && k.index < static_cast<int>(m_Entries.size()) ? k.index : -1;
  for (size_t i = 0; i < m_Entries.size(); ++i)
    if (m_Entries[i].name == k.name) return static_cast<int>(i);
  return -1;
}

// The entry a write goes to: the existing one of that key, reset, or a new one.
CFolderStream::Entry* CFolderStream::Place(IUnknown* key, HRESULT* hr) {
  *hr = S_OK;
  m_Image.clear();
  m_ImagePosition = 0;
  const streams::StreamKey k = streams::KeyOf(key);
  int index = -1;
  std::wstring name;
  if (!key) {
    for (int n = 1;; ++n) {  // first unused "Item<n>"
      name = L"Item" + std::to_wstring(n);
      bool used = false;
      for (const Entry& e : m_Entries) used = used || e.name == name;
      if (!used) break;
    }
  } else if (!k.valid) {
    *hr = E_INVALIDARG;
    return nullptr;
  } else if (k.isIndex) {
    index = Find(key);
    if (index < 0) {
      *hr = E_INVALIDARG;
      return nullptr;
    }
  } else {
    if (k.name.size() > kMaxNameChars) {
      *hr = E_INVALIDARG;
      return nullptr;
    }
    name = k.name;
    for (size_t i = 0; i < m_Entries.size(); ++i)
      if (m_Entries[i].name == name) index = static_cast<int>(i);
  }
  if (index >= 0) {
    Entry& e = m_Entries[index];
    name = e.name;
    e = Entry();
    e.name = name;
    return &e;
  }
  try {
    m_Entries.emplace_back();
  } catch (...) {
    *hr = E_FAIL;
    return nullptr;
  }
  m_Entries.back().name = name;
  return &m_Entries.back();
}

HRESULT CFolderStream::Open(void* buffer, unsigned long size, int) {
  if (!buffer) {
    m_Entries.clear();
    m_Image.clear();
    m_ImagePosition = 0;
    return S_OK;
  }
  return LoadImage(static_cast<const uint8_t*>(buffer), size) ? S_OK : E_FAIL;
}

HRESULT CFolderStream::Read(void* data, int bytes, int* read) {
  if (read) *read = 0;
  if (bytes < 0) return E_INVALIDARG;
  if (bytes > 0 && !data) return E_POINTER;
  if (m_Image.empty() && !SaveImage(&m_Image)) return E_FAIL;
  // A change of the tree drops the image and starts reading again from its beginning.
  if (m_ImagePosition > m_Image.size()) m_ImagePosition = m_Image.size();
  size_t n = static_cast<size_t>(bytes);
  if (n > m_Image.size() - m_ImagePosition) n = m_Image.size() - m_ImagePosition;
  if (n) std::memcpy(data, m_Image.data() + m_ImagePosition, n);
  m_ImagePosition += n;
  if (read) *read = static_cast<int>(n);
  return n == static_cast<size_t>(bytes) ? S_OK : S_FALSE;
}

HRESULT CFolderStream::Seek(long bytes, int origin, int) {
  if (m_Image.empty() && !SaveImage(&m_Image)) return E_FAIL;
  long long base = 0;
  if (origin == STREAM_CURRENT) base = static_cast<long long>(m_ImagePosition);
  else if (origin == STREAM_END) base = static_cast<long long>(m_Image.size());
  else if (origin != STREAM_BEGIN) return E_INVALIDARG;
  const long long target = base + bytes;
  if (target < 0 || target > static_cast<long long>(m_Image.size())) return E_INVALIDARG;
  m_ImagePosition = static_cast<size_t>(target);
  return S_OK;
}

HRESULT CFolderStream::GetBuffer(void** data, unsigned long* size) {
  if (!data) return E_POINTER;
  *data = nullptr;
  if (!SaveImage(&m_Image)) return E_FAIL;
  m_ImagePosition = 0;
  *data = m_Image.data();
  if (size) *size = static_cast<unsigned long>(m_Image.size());
  return S_OK;
}

HRESULT CFolderStream::GetPosition(unsigned long* position) {
  if (!position) return E_POINTER;
  *position = static_cast<unsigned long>(m_ImagePosition);
  return S_OK;
}

HRESULT CFolderStream::CreateSubStream(IString* name, int, IDataStream** out) {
  if (!out) return E_POINTER;
  *out = nullptr;
  CFolderStream* child = NewChild();
  if (!child) return E_FAIL;
  HRESULT hr;
  Entry* e = Place(name, &hr);
  if (!e) {
    child->Release();
    return hr;
  }
  e->type = TYPE_FOLDER;
  e->folder.Attach(child);
  child->AddRef();
  *out = AsDataStream(child);
  return S_OK;
}

HRESULT CFolderStream::RemoveEntry(IString* name) {
  const int index = Find(name);
  if (index < 0) return E_FAIL;
  m_Entries.erase(m_Entries.begin() + index);
  m_Image.clear();
  m_ImagePosition = 0;
  return S_OK;
}

HRESULT CFolderStream::WriteData(IString* name, const void* data, int size, int) {
  if (size < 0 || static_cast<size_t>(size) > kMaxFileBytes) return E_INVALIDARG;
  if (size > 0 && !data) return E_POINTER;
  std::vector<uint8_t> bytes;
  try {
    const uint8_t* p = static_cast<const uint8_t*>(data);
    if (size > 0) bytes.assign(p, p + size);
  } catch (...) {
    return E_FAIL;
  }
  HRESULT hr;
  Entry* e = Place(name, &hr);
  if (!e) return hr;
  e->type = TYPE_DATA;
  e->data.swap(bytes);
  return S_OK;
}

HRESULT CFolderStream::WriteString(IString* name, IString* value) {
  Entry staged;
  staged.type = TYPE_STRING;
  if (value) {
    SmartPtr<IVariant> variant = QueryAs<IVariant>(value);
    if (variant && !variant->IsString() && variant->get_Type() == VARIANT_INTEGER) {
      staged.type = TYPE_INT32;
      staged.integer = variant->get_Integer();
    } else if (variant && !variant->IsString() && variant->get_Type() == VARIANT_DOUBLE) {
      staged.type = TYPE_DOUBLE;
      staged.number = variant->get_Double();
    } else if (!streams::TextOf(value, &staged.text)) {
      return E_INVALIDARG;
    }
  }
  HRESULT hr;
  Entry* e = Place(name, &hr);
  if (!e) return hr;
  staged.name = e->name;
  *e = std::move(staged);
  return S_OK;
}

HRESULT CFolderStream::WriteObject(IString* name, IUnknown* object, int options) {
  if (!object) return E_POINTER;
  SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(object);
  if (!persist) {
    // A string held as an object (a text member of a parameter collection) has no stream
    // form of its own: it is kept as a string key, which ReadString gives back.
    if (SmartPtr<IString> text = QueryAs<IString>(object)) return WriteString(name, text);
    return E_INVALIDARG;
  }
  CFolderStream* child = NewChild();
  if (!child) return E_FAIL;
  SmartPtr<CFolderStream> holder;
  holder.Attach(child);
  const HRESULT saved = persist->Save(AsDataStream(child), options);
  if (saved < 0) return saved;
  HRESULT hr;
  Entry* e = Place(name, &hr);
  if (!e) return hr;
  e->type = TYPE_OBJECT;
  e->text = streams::ObjectNameOf(object);
  e->folder = child;
  return S_OK;
}

HRESULT CFolderStream::WriteValue(IString* name, void* value, int type) {
  if (!value) return E_POINTER;
  if (type != FOLDER_INT32 && type != FOLDER_DOUBLE) return E_INVALIDARG;
  HRESULT hr;
  Entry* e = Place(name, &hr);
  if (!e) return hr;
  if (type == FOLDER_INT32) {
    e->type = TYPE_INT32;
    std::memcpy(&e->integer, value, 4);
  } else {
    e->type = TYPE_DOUBLE;
    std::memcpy(&e->number, value, 8);
  }
  return S_OK;
}

HRESULT CFolderStream::GetEntryInfo(IString* name, int* type, int* size) {
  const int index = Find(name);
  if (index < 0) return E_FAIL;
  const Entry& e = m_Entries[index];
  if (type) *type = e.type;
  if (size) {
    switch (e.type) {
      case TYPE_DATA: *size = static_cast<int>(e.data.size()); break;
      case TYPE_STRING: *size = static_cast<int>(e.text.size() * 4); break;
      case TYPE_INT32: *size = 4; break;
      case TYPE_DOUBLE: *size = 8; break;
      default: *size = e.folder ? static_cast<int>(e.folder->m_Entries.size()) : 0;
    }
  }
  return S_OK;
}

HRESULT CFolderStream::ReadData(IString* name, void* data, int size, int) {
  if (!data) return E_POINTER;
  const int index = Find(name);
  if (index < 0) return E_FAIL;
  const Entry& e = m_Entries[index];
  // A block of another size is not taken at all: nothing is partly read.
  if (e.type == TYPE_DATA && e.data.size() == static_cast<size_t>(size)) {
    if (size > 0) std::memcpy(data, e.data.data(), e.data.size());
    return S_OK;
  }
  if (e.type == TYPE_INT32 && size == 4) {
    std::memcpy(data, &e.integer, 4);
    return S_OK;
  }
  if (e.type == TYPE_DOUBLE && size == 8) {
    std::memcpy(data, &e.number, 8);
    return S_OK;
  }
  return E_FAIL;
}

HRESULT CFolderStream::ReadString(IString* name, IString* out) {
  if (!out) return E_POINTER;
  const int index = Find(name);
  if (index < 0) return E_FAIL;
  const Entry& e = m_Entries[index];
  if (e.type != TYPE_STRING && e.type != TYPE_INT32 && e.type != TYPE_DOUBLE) return E_FAIL;
  if (SmartPtr<ICreatableString> text = QueryAs<ICreatableString>(out)) {
    const std::wstring value = e.type == TYPE_STRING ? e.text : NumberText(e);
    return text->SetString(static_cast<int>(value.size()), value.c_str());
  }
  if (SmartPtr<IVariant> variant = QueryAs<IVariant>(out)) {
    if (e.type == TYPE_INT32) return variant->put_Integer(e.integer);
    if (e.type == TYPE_DOUBLE) return variant->put_Double(e.number);
    SmartPtr<CHostString> text;
    text.Attach(CHostString::Create(e.text));
    return variant->put_String(text.get());
  }
  return E_INVALIDARG;
}

HRESULT CFolderStream::OpenSubStream(IString* name, int, IDataStream** out) {
  if (!out) return E_POINTER;
  *out = nullptr;
  const int index = Find(name);
  if (index < 0) return E_FAIL;
  const Entry& e = m_Entries[index];
  if (!e.folder) return E_FAIL;
  e.folder->AddRef();
  *out = AsDataStream(e.folder.get());
  return S_OK;
}

HRESULT CFolderStream::ReadObject(IString* name, void** out, int options) {
  if (!out) return E_POINTER;
  const int index = Find(name);
  if (index < 0) return E_FAIL;
  const Entry& e = m_Entries[index];
  if (e.type == TYPE_STRING && !*out) {
    // A string that WriteObject kept as a key comes back as a string object.
    SmartPtr<ICreatableString> text = PeerCreate<ICreatableString>(L"CreatableString");
    if (!text || text->SetString(static_cast<int>(e.text.size()), e.text.c_str()) < 0) return E_FAIL;
    *out = static_cast<IUnknown*>(text.Detach());
    return S_OK;
  }
  if (!e.folder) return E_FAIL;
  SmartPtr<CFolderStream> content(e.folder.get());  // kept alive while the object loads
  IUnknown* existing = static_cast<IUnknown*>(*out);
  if (existing) {
    SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(existing);
    if (!persist) return E_NOINTERFACE;
    const HRESULT hr = persist->Load(AsDataStream(content.get()), options);
    return hr < 0 ? hr : S_OK;
  }
  if (e.type == TYPE_FOLDER || e.text.empty()) {
    // A plain sub-stream (or an object without a name): the stream itself.
    content->AddRef();
    *out = static_cast<IUnknown*>(static_cast<IFolderStream*>(content.get()));
    return S_OK;
  }
  SmartPtr<IDataPersist> persist = PeerCreate<IDataPersist>(e.text.c_str());
  if (!persist) return E_FAIL;
  const HRESULT hr = persist->Load(AsDataStream(content.get()), options);
  if (hr < 0) return hr;
  void* unknown = nullptr;
  if (persist->QueryInterface(IID_IUnknown, &unknown) < 0 || !unknown) return E_FAIL;
  *out = unknown;
  return S_OK;
}

HRESULT CFolderStream::ReadValue(IString* name, void* value, int type) {
  if (!value) return E_POINTER;
  const int index = Find(name);
  if (index < 0) return E_FAIL;
  const Entry& e = m_Entries[index];
  if (type == FOLDER_INT32) {
    if (e.type == TYPE_INT32) std::memcpy(value, &e.integer, 4);
    else if (e.type == TYPE_DATA && e.data.size() == 4) std::memcpy(value, e.data.data(), 4);
    else return E_FAIL;
    return S_OK;
  }
  if (type == FOLDER_DOUBLE) {
    if (e.type == TYPE_DOUBLE) {
      std::memcpy(value, &e.number, 8);
    } else if (e.type == TYPE_INT32) {
      const double widened = e.integer;
      std::memcpy(value, &widened, 8);
    } else if (e.type == TYPE_DATA && e.data.size() == 8) {
      std::memcpy(value, e.data.data(), 8);
    } else {
      return E_FAIL;
    }
    return S_OK;
  }
  return E_INVALIDARG;
}

// ------------------------------------------------------------------ INamedCollection

HRESULT CFolderStream::get_Count(int* count) {
  if (!count) return E_POINTER;
  *count = static_cast<int>(m_Entries.size());
  return S_OK;
}

HRESULT CFolderStream::get_Item(int index, IUnknown** item) {
  if (!item) return E_POINTER;
  *item = nullptr;
  if (index < 0 || index >= static_cast<int>(m_Entries.size())) return E_INVALIDARG;
  const Entry& e = m_Entries[index];
  if (e.folder) {
    e.folder->AddRef();
    *item = static_cast<IUnknown*>(static_cast<IFolderStream*>(e.folder.get()));
    return S_OK;
  }
  if (e.type == TYPE_DATA) {
    CByteStream* data = new (std::nothrow) CByteStream(CByteStream::KIND_DATA);
    if (!data) return E_FAIL;
    if (data->Open(const_cast<uint8_t*>(e.data.data()), static_cast<unsigned long>(e.data.size()), 0) < 0) {
      data->Release();
      return E_FAIL;
    }
    *item = static_cast<IUnknown*>(static_cast<IDataStream*>(data));
    return S_OK;
  }
  *item = static_cast<IUnknown*>(static_cast<IString*>(
      CHostString::Create(e.type == TYPE_STRING ? e.text : NumberText(e))));
  return S_OK;
}

HRESULT CFolderStream::get_Index(IUnknown* key, int* index) {
  if (!index) return E_POINTER;
  *index = Find(key);
  return *index < 0 ? E_FAIL : S_OK;
}

HRESULT CFolderStream::get_ItemName(int index, IString** name) {
  if (!name) return E_POINTER;
  *name = nullptr;
  if (index < 0 || index >= static_cast<int>(m_Entries.size())) return E_INVALIDARG;
  *name = CHostString::Create(m_Entries[index].name);
  return S_OK;
}

HRESULT CFolderStream::Rename(int index, IString* name) {
  if (index < 0 || index >= static_cast<int>(m_Entries.size())) return E_INVALIDARG;
  std::wstring text;
  if (!streams::TextOf(name, &text) || text.size() > kMaxNameChars) return E_INVALIDARG;
  for (size_t i = 0; i < m_Entries.size(); ++i)
    if (static_cast<int>(i) != index && m_Entries[i].name == text) return E_FAIL;
  m_Entries[index].name = text;
  m_Image.clear();
  m_ImagePosition = 0;
  return S_OK;
}

HRESULT CFolderStream::CollectionLock() {
  ++m_LockCount;
  return S_OK;
}

HRESULT CFolderStream::CollectionUnlock() {
  if (m_LockCount == 0) return S_FALSE;
  --m_LockCount;
  return S_OK;
}

// ------------------------------------------------------------------ listing

void CFolderStream::Dump(std::wstring* out, int indent) const {
  for (const Entry& e : m_Entries) {
    out->append(static_cast<size_t>(indent) * 2, L' ');
    *out += e.name;
    switch (e.type) {
      case TYPE_DATA: *out += L": data[" + std::to_wstring(e.data.size()) + L"]\n"; break;
      case TYPE_STRING: *out += L": string = " + e.text + L"\n"; break;
      case TYPE_INT32: *out += L": int32 = " + NumberText(e) + L"\n"; break;
      case TYPE_DOUBLE: *out += L": double = " + NumberText(e) + L"\n"; break;
      case TYPE_OBJECT: *out += L": object " + e.text + L"\n"; break;
      default: *out += L": folder\n";
    }
    if (e.folder) e.folder->Dump(out, indent + 1);
  }
}

HRESULT CFolderStream::GetString(const wchar_t** text, int* length) {
  try {
    m_Listing.clear();
    Dump(&m_Listing, 0);
  } catch (...) {
    m_Listing.clear();
    return E_FAIL;
  }
  if (text) *text = m_Listing.c_str();
  if (length) *length = static_cast<int>(m_Listing.size());
  return S_OK;
}
