#include "calibration/CalibrationBestFit.h"

#include "frame/StringRefs.h"
#include "persist/ParametricImpl.h"
#include "persist/XmlElements.h"

const tagREFString CCalibrationBestFit::m_ObjectName = {18, L"CalibrationBestFit"};

namespace {

typedef ICALIBRATIONInfoImpl<CCalibrationBestFit, ICalibrationInfo> InfoBlock;

template <class I>
void Replace(I*& field, I* value) {
  if (value) value->AddRef();
  I* old = field;
  field = value;
  if (old) old->Release();
}

HRESULT HandOutPoints(ISimpleCollection* field, ISimpleCollection** out) {
  // The out variable must hold something on entry; that inverted test is the contract.
  if (!out || !*out) return E_INVALIDARG;
  *out = field;
  if (!field) return E_FAIL;
  field->AddRef();
  return S_OK;
}

HRESULT HandOutTransform(IHomogeneousTransform* field, ITransform** out) {
  if (!out) return E_POINTER;
  *out = field;
  if (!field) return E_FAIL;
  field->AddRef();
  return S_OK;
}

// Four lines "%f,%f,%f,%f\r\n" of a 4 x 4 matrix, 4 bytes a character.
void WriteMatrixLines(IDataStream* stream, IHomogeneousTransform* transform) {
  double* m = nullptr;
  int rows = 0, columns = 0;
  if (!transform || transform->GetMatrix(&m, &rows, &columns) < 0 || !m) return;
  for (int r = 0; r < 4; ++r) {
    wchar_t line[256];
    const int n = _swprintf(line, 256, L"%f,%f,%f,%f\r\n", m[4 * r], m[4 * r + 1], m[4 * r + 2], m[4 * r + 3]);
    if (n > 0) stream->Write(line, n * 4, 0);
  }
}

}  // namespace

CCalibrationBestFit::CCalibrationBestFit() {
  m_Forward = CreateHostObject<IHomogeneousTransform>(L"TransformBestFit").Detach();
  m_Reverse = CreateHostObject<IHomogeneousTransform>(L"TransformBestFit").Detach();
  m_Filter = ISCreate(L"Matrix (*.csv)|*.csv|Cal (*.fCAL)|*.tCAL|All Files (*.*)|*.*||");
  put_CALIBDevice(NewString(L"Camera"));
  put_CALIBName(NewString(L"2D Camera"));
  put_CALIBType(NewString(L"Best Fit"));
}

CCalibrationBestFit::~CCalibrationBestFit() {
  Replace<IHomogeneousTransform>(m_Forward, nullptr);
  Replace<IHomogeneousTransform>(m_Reverse, nullptr);
  Replace<ISimpleCollection>(m_Source, nullptr);
  Replace<ISimpleCollection>(m_Target, nullptr);
}

HRESULT CCalibrationBestFit::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  ICalibrationBestFit* main = this;
  if (QueryRoute(iid, IID_IUnknown, static_cast<CObject<CCalibrationBestFit>*>(this), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
      QueryRoute(iid, IID_ICalibrationBestFit, main, object) ||
      QueryRoute(iid, IID_ICalibration, static_cast<ICalibration*>(main), object) ||
      QueryRoute(iid, IID_IHomogeneousCalibration, static_cast<IHomogeneousCalibration*>(main), object) ||
      QueryRoute(iid, IID_IFileArchive, static_cast<IFileArchive*>(this), object) ||
      QueryRoute(iid, IID_IDataPersist, static_cast<IDataPersist*>(this), object) ||
      QueryRoute(iid, IID_ICalibrationInfo, static_cast<ICalibrationInfo*>(this), object) ||
      QueryRoute(iid, IID_ITransformFitErrors, static_cast<ITransformFitErrors*>(this), object) ||
      QueryRoute(iid, IID_IUIPropertyPageSpecify, static_cast<IUIPropertyPageSpecify*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CCalibrationBestFit::get_SrcPoints(ISimpleCollection** out) { return HandOutPoints(m_Source, out); }
HRESULT CCalibrationBestFit::get_TargetPoints(ISimpleCollection** out) { return HandOutPoints(m_Target, out); }

HRESULT CCalibrationBestFit::put_SrcPoints(ISimpleCollection* points) {
  Replace(m_Source, points);
  return S_OK;
}

HRESULT CCalibrationBestFit::put_TargetPoints(ISimpleCollection* points) {
  Replace(m_Target, points);
  return S_OK;
}

HRESULT CCalibrationBestFit::GetFitErrors(double* mean, double* max, double* sd) {
  SmartPtr<ITransformFitErrors> errors = QueryAs<ITransformFitErrors>(m_Forward);
  if (!errors) return E_FAIL;
  return errors->GetFitErrors(mean, max, sd);
}

HRESULT CCalibrationBestFit::BestFit(int method) {
  SetCalibrationTime();
  // Both results are dropped: failures show in the fit errors and matrices.
  if (SmartPtr<ITransformBestFit> forward = QueryAs<ITransformBestFit>(m_Forward))
    forward->BestFit(m_Source, m_Target, method);
  if (SmartPtr<ITransformBestFit> reverse = QueryAs<ITransformBestFit>(m_Reverse))
    reverse->BestFit(m_Target, m_Source, method);
  return S_OK;
}

HRESULT CCalibrationBestFit::BestFit(ISimpleCollection* source, ISimpleCollection* target, int method) {
  put_SrcPoints(source);
  put_TargetPoints(target);
  return BestFit(method);
}

HRESULT CCalibrationBestFit::Convert(double* x, double* y, double* z) {
  if (!m_Forward) return E_FAIL;
  return m_Forward->Convert(x, y, z);
}

HRESULT CCalibrationBestFit::Revert(double* x, double* y, double* z) {
  if (!m_Reverse) return E_FAIL;
  return m_Reverse->Convert(x, y, z);
}

HRESULT CCalibrationBestFit::GetForwardTransform(ITransform** out) { return HandOutTransform(m_Forward, out); }
HRESULT CCalibrationBestFit::GetReverseTransform(ITransform** out) { return HandOutTransform(m_Reverse, out); }

HRESULT CCalibrationBestFit::GetPages(int, INamedCollection** pages, IUnknown**) {
  if (!pages) return E_POINTER;
  *pages = nullptr;
  SmartPtr<ISuperCollection> list;
  list.Attach(CREFString::CreateCollection());
  if (!list) return E_FAIL;
  AddPage(list, L"", L"Zeltrim.CalibrationInfoPropPage");
  AddPage(list, L"", L"Zeltrim.CalibrationMatrixPropPage");
  AddPage(list, L"", L"UIPropPages.UIFileArchivePropPage");
  *pages = list.Detach();
  return S_OK;
}

HRESULT CCalibrationBestFit::PersistSave(IDataStream* stream, int flags) {
  if (!stream) return E_FAIL;
  if (QueryAs<ICSVStream>(stream)) {
    WriteMatrixLines(stream, m_Forward);
    stream->Write(L"\r\n", 4, 0);  // the carriage return alone, 4 bytes
    WriteMatrixLines(stream, m_Reverse);
    return S_OK;
  }
  if (SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream)) {
    folder->WriteObject(NewString(L"ForwardTransform"), m_Forward, 0);
    folder->WriteObject(NewString(L"ReverseTransform"), m_Reverse, 0);
    SmartPtr<IDataStream> info;
    folder->CreateSubStream(NewString(L"Info"), 0, info.Out());
    if (info) InfoBlock::Save(info, 0);
    return S_OK;
  }
  SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream);
  if (!xml) return E_FAIL;
  const struct {
    const wchar_t* tag;
    IHomogeneousTransform* transform;
  } parts[] = {{L"ForwardTransform", m_Forward}, {L"ReverseTransform", m_Reverse}};
  for (const auto& part : parts) {
    SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(part.transform);
    if (!persist) continue;
    xml->OpenTag(NewString(part.tag), 0, 0);
    persist->Save(xml, flags);
    xml->CloseTag();
  }
  xml->OpenTag(NewString(L"Info"), 0, 0);
  InfoBlock::Save(xml, 0);
  xml->CloseTag();
  return S_OK;
}

HRESULT CCalibrationBestFit::PersistLoad(IDataStream* stream, int flags) {
  if (!stream) return E_FAIL;
  if (SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream)) {
    // The stream loads into the transforms held (the place is not null).
    folder->ReadObject(NewString(L"ForwardTransform"), reinterpret_cast<void**>(&m_Forward), 0);
    folder->ReadObject(NewString(L"ReverseTransform"), reinterpret_cast<void**>(&m_Reverse), 0);
    SmartPtr<IDataStream> info;
    folder->OpenSubStream(NewString(L"Info"), 0, info.Out());
    if (info) InfoBlock::Load(info, 0);
    return S_OK;
  }
  SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream);
  if (!xml) return E_FAIL;
  ForEachXmlElement(xml, [&](const CREFString& name, IUnknown* content) {
    SmartPtr<IDataStream> part = QueryAs<IDataStream>(content);
    if (!part) return;
    if (IsTag(name, L"ForwardTransform")) {
      if (SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(m_Forward)) persist->Load(part, flags);
    } else if (IsTag(name, L"ReverseTransform")) {
      if (SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(m_Reverse)) persist->Load(part, flags);
    } else if (IsTag(name, L"Info")) {
      InfoBlock::Load(part, 0);
    }
  });
  // The end of the tags is the only way out, and it reports E_FAIL.
  return E_FAIL;
}

HRESULT CCalibrationBestFit::Save() {
  // The extension: what follows the last '.', compared without case over the shorter
  // of the two lengths (so "c" and "cs" count as "csv").
  CREFString name = ViewOf(m_Filename);
  CREFString extension;
  if (name.GetLineRight(&extension, L'.', false, true, false) < 0) extension = CREFString();
  HRESULT hr = E_FAIL;
  if (extension.Length() > 0 && extension.CompareI(RefOf(L"csv"), 0) >= 0) {
    SmartPtr<ICSVStream> csv = CreateHostObject<ICSVStream>(L"CSVStream");
    if (!csv) return E_FAIL;
    csv->Setup(nullptr, 1000, 1);
    PersistSave(csv, 0);
    void* text = nullptr;
    unsigned long bytes = 0;
    csv->GetBuffer(&text, &bytes);
    // 16-bit text with its mark; a file that cannot be opened is not reported.
    FileArchiveSave(name, static_cast<unsigned char*>(text), bytes, 1, 0);
    return S_OK;
  }
  if (extension.Length() > 0 && extension.CompareI(RefOf(L"x"), 0) >= 0) hr = SaveXML(nullptr, 0);
  if (extension.Length() > 0 && extension.CompareI(RefOf(L"t"), 0) >= 0) hr = SaveFolderStream();
  if (hr >= 0) {
    m_Modified = 0;
    m_Current = 1;
  }
  return hr;
}
