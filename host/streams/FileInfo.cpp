// "FileInfo": the "Info" entry of folder stream files. It holds a description and the
// version of the writer's layout ("Version", 1). Folder form: WriteString "Description",
// WriteValue "Version" (32-bit); XML form: elements of the same names.
#include <cwchar>
#include <string>

#include "frame/Object.h"
#include "host/common/HostString.h"
#include "host/common/PeerModule.h"
#include "host/streams/StreamCommon.h"

class CFileInfo : public CObject<CFileInfo>, public IFileInfo, public IDataPersist, public IObjectInfoImpl<CFileInfo> {
 public:
  static const tagREFString m_ObjectName;
  static constexpr int kVersion = 1;
  ZELTRIM_OBJECT_REFCOUNT

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CFileInfo>*>(this)), object) ||
        QueryRoute(iid, IID_IFileInfo, static_cast<IFileInfo*>(this), object) ||
        QueryRoute(iid, IID_IDataPersist, static_cast<IDataPersist*>(this), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }

  HRESULT get_Description(IString** text) override {
    if (!text) return E_POINTER;
    *text = CHostString::Create(m_Description);
    return S_OK;
  }
  HRESULT put_Description(IString* text) override {
    std::wstring value;
    if (text && !streams::TextOf(text, &value)) return E_INVALIDARG;
    m_Description = value;
    return S_OK;
  }

  HRESULT Save(IDataStream* stream, int) override {
    if (!stream) return E_POINTER;
    SmartPtr<CHostString> description;
    description.Attach(CHostString::Create(m_Description));
    SmartPtr<CHostString> descriptionKey, versionKey;
    descriptionKey.Attach(CHostString::Create(L"Description"));
    versionKey.Attach(CHostString::Create(L"Version"));
    if (SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream)) {
      int version = m_Version;
      HRESULT hr = folder->WriteString(descriptionKey.get(), description.get());
      if (hr >= 0) hr = folder->WriteValue(versionKey.get(), &version, FOLDER_INT32);
      return hr;
    }
    if (SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream)) {
      SmartPtr<CHostString> version;
      version.Attach(CHostString::Create(std::to_wstring(m_Version)));
      HRESULT hr = xml->WriteValue(descriptionKey.get(), 0, description.get(), 0);
      if (hr >= 0) hr = xml->WriteValue(versionKey.get(), 0, version.get(), 0);
      return hr;
    }
    return E_FAIL;
  }

  HRESULT Load(IDataStream* stream, int) override {
    if (!stream) return E_POINTER;
    if (SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream)) {
      SmartPtr<CHostString> key, text;
      key.Attach(CHostString::Create(L"Description"));
      text.Attach(CHostString::Create(L""));
      if (folder->ReadString(key.get(), text.get()) >= 0) m_Description = text->Value();
      key.Attach(CHostString::Create(L"Version"));
      int version = 0;
      if (folder->ReadValue(key.get(), &version, FOLDER_INT32) >= 0) m_Version = version;
      return S_OK;
    }
    if (SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream)) {
      tagREFString tag{0, nullptr};
      while (xml->NextTag(&tag) >= 0) {
        const std::wstring name(tag.m_Text, static_cast<size_t>(tag.m_Length));
        SmartPtr<IUnknown> content;
        if (xml->ReadElement(tag.m_Length, tag.m_Text, nullptr, content.Out(), 0) < 0) break;
        std::wstring value;
        streams::TextOf(content.get(), &value);
        if (name == L"Description") m_Description = value;
        else if (name == L"Version") m_Version = static_cast<int>(std::wcstol(value.c_str(), nullptr, 10));
      }
      return S_OK;
    }
    return E_FAIL;
  }

 private:
  std::wstring m_Description;
  int m_Version = kVersion;
};

const tagREFString CFileInfo::m_ObjectName = {8, L"FileInfo"};
ZELTRIM_PEER_OBJECT(L"FileInfo", CFileInfo);
