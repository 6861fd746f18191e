// A file on disk for an object: the form follows the first letter of the file extension
// ('x' XML text, 't' folder stream file), and the object's own IDataPersist writes and
// reads the content. The free helpers do the byte work.
#pragma once

#include <cwctype>

#include "frame/Components.h"
#include "frame/Conversions.h"
#include "persist/FileName.h"

// Reads a whole file. The name goes to UTF-8 (at most 254 bytes). `maxBytes` non-zero
// limits the bytes read.
//  wide 0: *data is the bytes (char[], zero after the last), *size the byte count, S_OK.
//  wide != 0: *data is wchar_t[] text with a terminator:
//   - 16-bit text (a 0xFF 0xFE or 0xFE 0xFF pair in the first nine bytes, fewer than two
//     bytes, or zeros at every odd place of the first eight): little-endian units, the
//     first unit dropped as the byte order mark whether it is one or not; *size is the
//     number of units, one more than the characters. S_OK.
//   - wide >= 2 and not strict UTF-8: one character per byte, *size the bytes. S_OK.
//   - otherwise UTF-8 decoded; *size the characters. S_FALSE.
// E_FAIL for a missing or empty file. The caller frees *data with delete[] of its type
// (FileArchiveFree does that).
HRESULT FileArchiveLoad(tagREFString name, void** data, unsigned long* size, short wide, int maxBytes);
void FileArchiveFree(void* data, short wide);

// Writes bytes ("wb", or "ab" with `append`). wide != 0: `data` holds 4-byte characters,
// each written as its low 16 bits, after the mark 0xFF 0xFE unless appending. E_FAIL when
// the file cannot be opened or nothing was written (an empty wide text still leaves the mark).
HRESULT FileArchiveSave(tagREFString name, unsigned char* data, unsigned long bytes, short wide, short append);

// Finds an element by plain text search, no parser and no entity decoding. `tag`'s name
// ends at its first '\r', ' ' or '>'. On S_OK `value` is the element's text (empty for a
// self-closing or unclosed element) and `attributes` the text inside the opening tag.
// With `advance`, `text` moves past the closing tag (past the opening one when there is
// no closing tag, so a loop always moves on). Not found: `value` is `text`, E_FAIL.
// The name is matched as a prefix: "<Day" also finds "<DayName".
HRESULT XMLGetTAGGED(CREFString& text, CREFString& tag, CREFString& attributes, CREFString& value, short advance);

// Control / Inquire codes.
enum FileArchiveCode {
  ARCHIVE_MODIFIED = 0,
  ARCHIVE_CURRENT = 1,
  ARCHIVE_NAME_WITH_FOLDER = 2,
  ARCHIVE_OPTION = 3,
  ARCHIVE_ENCODING = 4,
};
// Inquire's success results: codes 0 and 1 give the first, code 4 the second.
constexpr HRESULT ARCHIVE_INQUIRE_STATE = 0x40013;
constexpr HRESULT ARCHIVE_INQUIRE_ENCODING = 0x13;

namespace archive_detail {
// Shared, non-template parts of the template.
IString* NewString(const wchar_t* text, int length);
CREFString View(IString* text);
// The text after the last '.' at an index above 0, else the whole text.
CREFString Extension(const CREFString& name);
// The put_Filename rewrite of "./x" and ".\x"; null when the name is left as it is.
IString* AbsoluteFromInstall(IString* name);
HRESULT ShortName(IString* filename, int withFolder, IString** name);
HRESULT WriteWide(IDataStream* stream, const wchar_t* text);
}  // namespace archive_detail

// T: the class (a CObject<T> answering IDataPersist, optionally IFileInfo and IObjectInfo).
// I: IFileArchive or an interface derived from it.
template <class T, class I = IFileArchive>
class IFileArchiveImpl : public I {
 public:
  IFileArchiveImpl() = default;
  IFileArchiveImpl(const IFileArchiveImpl&) = delete;
  IFileArchiveImpl& operator=(const IFileArchiveImpl&) = delete;
  ~IFileArchiveImpl() {
    if (m_Filename) m_Filename->Release();
    if (m_Filter) m_Filter->Release();
  }

  HRESULT get_Filename(IString** name) override { return HandOut(m_Filename, name); }

  HRESULT put_Filename(IString* name) override {
    SmartPtr<IString> fresh;
    fresh.Attach(archive_detail::AbsoluteFromInstall(name));
    if (fresh) name = fresh.get();

    const CREFString now = archive_detail::View(name);
    const CREFString old = archive_detail::View(m_Filename);
    const int shorter = now.m_Length < old.m_Length ? now.m_Length : old.m_Length;
    bool same = shorter > 0 && now.m_Length == old.m_Length;
    for (int i = 0; same && i < shorter; ++i)
      same = std::towlower(static_cast<wint_t>(now.m_Text[i])) == std::towlower(static_cast<wint_t>(old.m_Text[i]));
    if (!same) m_Current = 0;
    m_Modified = 1;
    ArchiveStore(m_Filename, name);
    return S_OK;
  }

  HRESULT get_Filter(IString** filter, short) override { return HandOut(m_Filter, filter); }

  HRESULT get_Name(IString** name) override {
    return archive_detail::ShortName(m_Filename, m_NameWithFolder, name);
  }

  HRESULT Load() override {
    if (!m_Filename) return E_FAIL;
    const CREFString original = archive_detail::View(m_Filename);
    SmartPtr<IString> copy;
    copy.Attach(archive_detail::NewString(original.m_Text, original.m_Length));
    const CREFString extension = archive_detail::Extension(archive_detail::View(copy));
    HRESULT hr = E_FAIL;
    if (extension.m_Length > 0) {
      const wint_t first = std::towlower(static_cast<wint_t>(extension.m_Text[0]));
      if (first == L'x')
        hr = LoadXML(0);
      else if (first == L't')
        hr = this->LoadFolderStream();
    }
    ArchiveStore(m_Filename, copy.get());
    m_Current = 1;
    m_Modified = 0;
    return hr;
  }

  HRESULT Save() override {
    const CREFString extension = archive_detail::Extension(archive_detail::View(m_Filename));
    HRESULT hr = E_FAIL;
    if (extension.m_Length > 0) {
      const wint_t first = std::towlower(static_cast<wint_t>(extension.m_Text[0]));
      if (first == L'x')
        hr = SaveXML(nullptr, 0);
      else if (first == L't')
        hr = this->SaveFolderStream();
    }
    if (hr >= 0) {
      m_Modified = 0;
      m_Current = 1;
    }
    return hr;
  }

  HRESULT Control(int code, int value) override {
    switch (code) {
      case ARCHIVE_MODIFIED: m_Modified = value; return S_OK;
      case ARCHIVE_CURRENT: m_Current = value; return S_OK;
      case ARCHIVE_NAME_WITH_FOLDER: m_NameWithFolder = value; return S_OK;
      case ARCHIVE_OPTION: m_Option = value; return S_OK;
      case ARCHIVE_ENCODING: m_Encoding = value; return S_OK;
      default: return E_INVALIDARG;
    }
  }

  HRESULT Inquire(int code, int* value) override {
    if (!value) return E_INVALIDARG;
    switch (code) {
      case ARCHIVE_MODIFIED: *value = m_Modified; return ARCHIVE_INQUIRE_STATE;
      case ARCHIVE_CURRENT: *value = m_Current; return ARCHIVE_INQUIRE_STATE;
      case ARCHIVE_NAME_WITH_FOLDER: *value = m_NameWithFolder; return S_OK;
      case ARCHIVE_OPTION: *value = m_Option; return S_OK;
      case ARCHIVE_ENCODING:
        if (m_Encoding < 0) return E_INVALIDARG;
        *value = m_Encoding;
        return ARCHIVE_INQUIRE_ENCODING;
      default: return E_INVALIDARG;
    }
  }

  HRESULT Unload() override { return E_NOTIMPL; }

  HRESULT SaveFolderStream() override {
    SmartPtr<IFolderStream> stream = CreateHostObject<IFolderStream>(L"FolderStream");
    if (!stream) return E_FAIL;
    IUnknown* self = Self();

    SmartPtr<IFileInfo> info = QueryAs<IFileInfo>(self);
    if (!info) info = CreateHostObject<IFileInfo>(L"FileInfo");
    SmartPtr<IString> infoKey;
    infoKey.Attach(ISCreate(L"Info"));
    stream->WriteObject(infoKey, info.get(), 0);

    SmartPtr<IString> objectName;
    SmartPtr<IComponentString> component = CreateHostObject<IComponentString>(L"ComponentString");
    if (component) {
      component->SetFromObject(self);
      component->get_Field(COMPONENT_OBJECT, objectName.Out());
    }
    stream->WriteObject(objectName, self, 0);

    SmartPtr<IFileArchive> file = QueryAs<IFileArchive>(stream.get());
    if (file) {
      file->put_Filename(m_Filename);
      file->Save();
    }
    return S_OK;
  }

  HRESULT LoadFolderStream() override {
    SmartPtr<IFolderStream> stream = CreateHostObject<IFolderStream>(L"FolderStream");
    if (!stream) return E_FAIL;
    IUnknown* self = Self();

    SmartPtr<IFileArchive> file = QueryAs<IFileArchive>(stream.get());
    if (!file) return E_FAIL;
    file->put_Filename(m_Filename);
    const CREFString original = archive_detail::View(m_Filename);
    SmartPtr<IString> copy;
    copy.Attach(archive_detail::NewString(original.m_Text, original.m_Length));
    const HRESULT hr = file->Load();

    // A file that did not read leaves the object as it was.
    if (hr >= 0) {
      SmartPtr<IString> objectName;
      SmartPtr<IObjectInfo> objectInfo = QueryAs<IObjectInfo>(self);
      tagREFString name{0, nullptr};
      if (objectInfo && objectInfo->GetName(0, &name) >= 0)
        objectName.Attach(archive_detail::NewString(name.m_Text, name.m_Length));
      ReadInto(stream, objectName, self);
    }

    ArchiveStore(m_Filename, copy.get());

    if (hr >= 0) {
      SmartPtr<IFileInfo> info = QueryAs<IFileInfo>(self);
      if (info) {
        SmartPtr<IString> infoKey;
        infoKey.Attach(ISCreate(L"Info"));
        ReadInto(stream, infoKey, info.get());
      }
    }
    return hr;
  }

  // XML form: two prologue lines naming the stylesheet ("generic.xsl" when none), then the
  // element of the object. m_Encoding below 1 writes 16-bit text after the mark 0xFF 0xFE
  // and returns the write's result; 1 or more writes the host's 8-bit form and returns S_OK.
  HRESULT SaveXML(IString* stylesheet, int options) {
    SmartPtr<IXMLStreamEx> xml = CreateHostObject<IXMLStreamEx>(L"XMLStreamEx");
    if (!xml) return E_FAIL;
    if (options & PERSIST_COMPACT) xml->SetOptions(-1, options);
    xml->Attach(nullptr, 0, 0);

    archive_detail::WriteWide(xml, L"<?xml version=\"1.0\"?>");
    archive_detail::WriteWide(xml, L"\r\n");
    archive_detail::WriteWide(xml, L"<?xml-stylesheet href=\"");
    const CREFString sheet = archive_detail::View(stylesheet);
    if (sheet.m_Length > 0)
      xml->Write(sheet.m_Text, sheet.m_Length * 4, 0);
    else
      archive_detail::WriteWide(xml, L"generic.xsl");
    archive_detail::WriteWide(xml, L"\" type=\"text/xsl\"?>");
    archive_detail::WriteWide(xml, L"\r\n");

    SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(Self());
    if (persist) {
      xml->BeginObject(persist.get(), 0, 0);
      persist->Save(xml.get(), 0);
      xml->CloseTag();
    }

    const tagREFString name = archive_detail::View(m_Filename);
    if (m_Encoding < 1) {
      void* data = nullptr;
      unsigned long size = 0;
      xml->GetBuffer(&data, &size);
      return FileArchiveSave(name, static_cast<unsigned char*>(data), size, 1, 0);
    }

    SmartPtr<IStreamTransform> ascii = CreateHostObject<IStreamTransform>(L"ASCIIStream");
    SmartPtr<IDataStream> bytes = CreateHostObject<IDataStream>(L"DataStream");
    if (ascii && bytes) {
      ascii->Transform(xml.get(), bytes.get(), 0);
      void* data = nullptr;
      unsigned long size = 0;
      bytes->GetBuffer(&data, &size);
      FileArchiveSave(name, static_cast<unsigned char*>(data), size, 0, 0);
    }
    return S_OK;
  }

  // Reads the file, passes the two prologue lines, and loads the first element into the
  // object with the replace bit. S_OK once the file was read, whatever the object said.
  HRESULT LoadXML(int extended) {
    if (!m_Filename) return E_FAIL;
    SmartPtr<IXMLStream> xml = CreateHostObject<IXMLStream>(extended ? L"XMLStreamEx" : L"XMLStream");
    if (!xml) return E_FAIL;
    void* text = nullptr;
    unsigned long length = 0;
    const HRESULT hr = FileArchiveLoad(archive_detail::View(m_Filename), &text, &length, 1, 0);
    if (hr < 0) return hr;
    xml->Attach(text, length * 4, 0);

    for (int i = 0; i < 2; ++i) {
      tagREFString tag{0, nullptr};
      if (xml->NextTag(&tag) >= 0 && tag.m_Length > 0 && tag.m_Text && tag.m_Text[0] == L'?')
        xml->Seek(static_cast<long>(tag.m_Length) * 4, STREAM_CURRENT, 0);
    }

    SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(Self());
    if (persist) {
      tagREFString tag{0, nullptr};
      if (xml->NextTag(&tag) >= 0) {
        tagREFString found{0, nullptr};
        SmartPtr<IUnknown> content;
        if (xml->ReadElement(tag.m_Length, tag.m_Text, &found, content.Out(), 0) >= 0 && content) {
          SmartPtr<IDataStream> data = QueryAs<IDataStream>(content);
          if (data) persist->Load(data, PERSIST_REPLACE);
        }
      }
    }
    // The stream works on the buffer: it goes first.
    persist.Clear();
    xml.Clear();
    FileArchiveFree(text, 1);
    return S_OK;
  }

 protected:
  IString* m_Filename = nullptr;
  int m_Modified = 0;
  int m_Current = 0;
  int m_NameWithFolder = 0;
  IString* m_Filter = nullptr;  // set by the class's constructor; get_Filter fails without one
  int m_Reserved = 0;
  int m_Option = 0;
  int m_Encoding = -1;

  // Takes the new reference first, then drops the old one.
  static void ArchiveStore(IString*& field, IString* value) {
    if (value) value->AddRef();
    IString* old = field;
    field = value;
    if (old) old->Release();
  }

 private:
  IUnknown* Self() { return static_cast<CObject<T>*>(static_cast<T*>(this)); }

  static HRESULT HandOut(IString* field, IString** out) {
    if (!out) return E_FAIL;
    *out = field;
    if (!field) return E_FAIL;
    field->AddRef();
    return S_OK;
  }

  // ReadObject with a place that holds `target`: the stream loads into it.
  static void ReadInto(IFolderStream* stream, IString* key, IUnknown* target) {
    void* place = target;
    stream->ReadObject(key, &place, 0);
    if (place && place != target) static_cast<IUnknown*>(place)->Release();
  }
};
