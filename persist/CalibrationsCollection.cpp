#include "persist/CalibrationsCollection.h"

#include "frame/StringRefs.h"
#include "persist/ParametricImpl.h"

const tagREFString CCalibrationsCollection::m_ObjectName = {22, L"CalibrationsCollection"};

namespace {

// The calibration info of an item: its own, or that of the object a variant holds.
SmartPtr<ICalibrationInfo> InfoOf(IUnknown* item) {
  SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(item);
  if (info) return info;
  SmartPtr<IVariant> variant = QueryAs<IVariant>(item);
  if (variant && variant->IsObject()) {
    SmartPtr<IUnknown> held;
    if (variant->get_Object(held.Out()) >= 0) info = QueryAs<ICalibrationInfo>(held);
  }
  return info;
}

HRESULT HandOutSlot(ICalibration* slot, ICalibration** out) {
  if (!out) return E_INVALIDARG;
  *out = slot;
  if (!slot) return E_FAIL;
  slot->AddRef();
  return S_OK;
}

HRESULT StoreSlot(ICalibration*& slot, ICalibration* calibration) {
  if (calibration) calibration->AddRef();
  ICalibration* old = slot;
  slot = calibration;
  if (old) old->Release();
  return S_OK;
}

// A stored value as AddNOLOCK makes it: a variant as it is, anything else in a new
// variant, a null item as an empty string. One reference.
IUnknown* StoredValue(IUnknown* item) {
  SmartPtr<IVariant> variant = QueryAs<IVariant>(item);
  if (!variant) {
    variant.Attach(CREFString::CreateVariant());
    if (variant) {
      SmartPtr<IString> empty;
      if (!item) empty.Attach(ISCreate(static_cast<const wchar_t*>(nullptr)));
      variant->put_Object(item ? item : empty.get());
    }
  }
  return variant.Detach();
}

bool IsEmpty(IString* text) {
  const wchar_t* p = nullptr;
  int n = 0;
  return !text || text->GetString(&p, &n) < 0 || !p || n <= 0;
}

// The file name as stored: relative to the install path where it can be.
SmartPtr<IString> StoredFilename(IString* filename) {
  SmartPtr<IString> install, relative;
  FILENAMEGetInstallPath(install.Out());
  if (FILENAMECreateRelative(install, filename, relative.Out()) < 0 || !relative) relative = filename;
  return relative;
}

}  // namespace

CCalibrationsCollection::~CCalibrationsCollection() {
  StoreSlot(m_ActiveLens, nullptr);
  StoreSlot(m_Location, nullptr);
  StoreSlot(m_ActiveAlignment, nullptr);
}

HRESULT CCalibrationsCollection::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  ICalibrationsCollection* family = static_cast<ICalibrationsCollection*>(this);
  if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CCalibrationsCollection>*>(this)), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
      QueryRoute(iid, IID_IDataPersist, static_cast<IDataPersist*>(this), object) ||
      QueryRoute(iid, IID_ICalibrationsCollection, family, object) ||
      QueryRoute(iid, IID_IFileArchive, static_cast<IFileArchive*>(this), object) ||
      QueryRoute(iid, IID_INamedCollection, static_cast<INamedCollection*>(family), object) ||
      QueryRoute(iid, IID_ISimpleCollection, static_cast<ISimpleCollection*>(family), object) ||
      QueryRoute(iid, IID_IParameters, static_cast<IParameters*>(family), object) ||
      QueryRoute(iid, IID_IParametersCreatable, static_cast<IParametersCreatable*>(family), object) ||
      QueryRoute(iid, IID_IUIPropertyPageSpecify, static_cast<IUIPropertyPageSpecify*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

// ---------------------------------------------------------------- slots

HRESULT CCalibrationsCollection::get_Location(ICalibration** out) { return HandOutSlot(m_Location, out); }
HRESULT CCalibrationsCollection::put_Location(ICalibration* c) { return StoreSlot(m_Location, c); }
HRESULT CCalibrationsCollection::get_ActiveLens(ICalibration** out) { return HandOutSlot(m_ActiveLens, out); }
HRESULT CCalibrationsCollection::put_ActiveLens(ICalibration* c) { return StoreSlot(m_ActiveLens, c); }
HRESULT CCalibrationsCollection::get_ActiveAlignment(ICalibration** out) { return HandOutSlot(m_ActiveAlignment, out); }
HRESULT CCalibrationsCollection::put_ActiveAlignment(ICalibration* c) { return StoreSlot(m_ActiveAlignment, c); }

HRESULT CCalibrationsCollection::GetPages(int, INamedCollection** pages, IUnknown**) {
  if (!pages) return E_POINTER;
  *pages = nullptr;
  SmartPtr<ISuperCollection> list;
  list.Attach(CREFString::CreateCollection());
  if (!list) return E_FAIL;
  AddPage(list, L"Calibratons", L"UIPropPages.NamedCollectionPropPage", NewString(L"Calibration"), 495);
  AddPage(list, L"", L"UIFileArchivePropPage");
  *pages = list.Detach();
  return S_OK;
}

// ---------------------------------------------------------------- naming twist

HRESULT CCalibrationsCollection::get_ItemNameNOLOCK(int index, IString** name) {
  SmartPtr<IUnknown> item;
  const HRESULT hr = get_ItemNOLOCK(index, item.Out());
  if (hr < 0) return hr;
  if (SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(item)) return info->get_CALIBName(name);
  return Parameters::get_ItemNameNOLOCK(index, name);
}

HRESULT CCalibrationsCollection::Rename(int index, IString* name) {
  SmartPtr<IUnknown> item;
  const HRESULT hr = get_Item(index, item.Out());
  if (hr < 0) return hr;
  if (SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(item)) return info->put_CALIBName(name);
  return Parameters::Rename(index, name);
}

HRESULT CCalibrationsCollection::AddNOLOCK(IString* name, IUnknown* item, IUnknown* descriptor, int flags) {
  if (SmartPtr<ICalibrationInfo> info = InfoOf(item)) info->put_CALIBName(name);
  return Parameters::AddNOLOCK(name, item, descriptor, flags);
}

HRESULT CCalibrationsCollection::put_ItemNOLOCK(int index, IUnknown* item) {
  if (SmartPtr<ICalibrationInfo> info = InfoOf(item)) {
    // The replacement takes over its place's name (with a bad index: none).
    SmartPtr<IString> name;
    get_ItemNameNOLOCK(index, name.Out());
    info->put_CALIBName(name);
  }
  if (!ValidIndex(index)) return E_INVALIDARG;
  IUnknown* old = m_Items[index]->Item;
  m_Items[index]->Item = StoredValue(item);
  if (old) old->Release();
  return S_OK;
}

HRESULT CCalibrationsCollection::Sort(int) {
  CollectionLock();
  for (int i = 0; i < m_Count; ++i) {
    SmartPtr<IUnknown> item;
    if (get_ItemNOLOCK(i, item.Out()) < 0) continue;
    SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(item);
    IString* name = nullptr;
    if (!info || info->get_CALIBName(&name) < 0 || !name) continue;
    IString* old = m_Items[i]->Name;
    m_Items[i]->Name = name;
    if (old) old->Release();
  }
  CollectionUnlock();
  return Parameters::Sort(1);
}

// ---------------------------------------------------------------- persistence

HRESULT CCalibrationsCollection::Save(IDataStream* stream, int flags) {
  if (!stream) return E_FAIL;
  if (SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream)) {
    if (!IsEmpty(m_Filename)) folder->WriteString(NewString(L"Filename"), StoredFilename(m_Filename));
    return Params_SaveFolderStream(stream, flags);
  }
  if (SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream)) {
    if (!IsEmpty(m_Filename)) xml->WriteValue(NewString(L"Filename"), 0, StoredFilename(m_Filename), 0);
    return Params_SaveXMLUnk(xml, flags);
  }
  return E_FAIL;
}

HRESULT CCalibrationsCollection::Load(IDataStream* stream, int flags) {
  if (!stream) return E_FAIL;
  if (SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream)) {
    SmartPtr<IString> name;
    name.Attach(CREFString::CreateString());
    if (name && folder->ReadString(NewString(L"Filename"), name) >= 0) StoreFilename(name);
    const HRESULT hr = Params_LoadFolderStream(stream, flags | PERSIST_REPLACE);
    RemoveFilenameMember();
    return hr;
  }
  SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream);
  if (!xml) return E_FAIL;
  // Peek at the first element: a "Filename" is taken, anything else is left to the members.
  unsigned long start = 0;
  const bool rewind = xml->GetPosition(&start) >= 0;
  tagREFString tag{0, nullptr};
  bool taken = false;
  if (xml->NextTag(&tag) >= 0 && CREFString(tag).CompareI(RefOf(L"Filename"), 0) == S_OK) {
    SmartPtr<IUnknown> content;
    if (params_detail::ReadContent(xml, tag, content)) {
      SmartPtr<IString> holder;
      const CREFString text = params_detail::ContentText(content, holder);
      SmartPtr<IString> relative;
      relative.Attach(params_detail::FromView(text));
      StoreFilename(relative);
      taken = true;
    }
  }
  if (!taken && rewind) xml->Seek(static_cast<long>(start), STREAM_BEGIN, 0);
  if (!m_Filename) ArchiveStore(m_Filename, NewString(L""));
  const HRESULT hr = Params_LoadXMLUnk(xml, flags | PERSIST_REPLACE);
  RemoveFilenameMember();
  return hr;
}

void CCalibrationsCollection::StoreFilename(IString* relative) {
  SmartPtr<IString> install, absolute;
  FILENAMEGetInstallPath(install.Out());
  if (FILENAMECreateAbsolute(install, relative, absolute.Out()) < 0 || !absolute) absolute = relative;
  ArchiveStore(m_Filename, absolute);
}

void CCalibrationsCollection::RemoveFilenameMember() {
  int index = -1;
  if (get_Index(NewString(L"Filename"), &index) >= 0) Remove(index);
}
