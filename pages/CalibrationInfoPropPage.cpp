#include "pages/CalibrationInfoPropPage.h"

#include "frame/Components.h"
#include "frame/Conversions.h"
#include "frame/StringRefs.h"
#include "persist/DateTimer.h"

const tagREFString CCalibrationInfoPropPage::m_ObjectName = {23, L"CalibrationInfoPropPage"};

CCalibrationInfoPropPage::~CCalibrationInfoPropPage() {
  ReleaseField(m_Info);
  ReleaseField(m_Parameters);
  ReleaseField(m_Collection);
  ReleaseField(m_SlidePage);
}

HRESULT CCalibrationInfoPropPage::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CCalibrationInfoPropPage>*>(this)), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
      QueryRoute(iid, IID_IUIPropertyPage, static_cast<IUIPropertyPage*>(this), object) ||
      QueryRoute(iid, IID_IRenderableObject, static_cast<IRenderableObject*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CCalibrationInfoPropPage::FinalConstruct() {
  void* page = nullptr;
  if (CreateObject(L"UIParametersSlidePropPage", IID_IUIPropertyPage, &page) < 0 || !page) return E_FAIL;
  m_SlidePage = static_cast<IUIPropertyPage*>(page);
  return 0;
}

HRESULT CCalibrationInfoPropPage::Initialize(ISimpleCollection* objects, IUnknown*, int, IUnknown* host) {
  ReleaseField(m_Info);
  int count = 0;
  if (objects && objects->get_Count(&count) >= 0) {
    for (int i = 0; i < count && !m_Info; ++i) {
      SmartPtr<IUnknown> item;
      if (objects->get_Item(i, item.Out()) < 0) continue;
      m_Info = QueryAs<ICalibrationInfo>(item).Detach();
    }
  }
  ReleaseField(m_Collection);
  ReleaseField(m_Parameters);
  m_Collection = BASEObject::CreateSimpleCollection();
  m_Parameters = BASEObject::CreateParameters();
  if (!m_Collection || !m_Parameters || !m_SlidePage) return E_FAIL;

  SmartPtr<IString> device, name, type, units, description, date;
  if (m_Info) {
    SmartPtr<IUnknown> deviceObject;
    m_Info->get_CALIBDevice(deviceObject.Out());
    device = QueryAs<IString>(deviceObject);
    m_Info->get_CALIBName(name.Out());
    m_Info->get_CALIBType(type.Out());
    m_Info->get_CALIBUnitsText(units.Out());
    m_Info->get_CALIBDescription(description.Out());
    CDateTimer time;
    m_Info->GetCalibrationTime(&time.Day, &time.Month, &time.Year, &time.Hour, &time.Minute);
    date.Attach(time.GetString(0));
  }
  const struct {
    const wchar_t* name;
    int flags;
    IString* value;
  } entries[] = {
      {L"Device", 0x40006, device.get()},     {L"Name", 6, name.get()},
      {L"Type", 0x40006, type.get()},         {L"Units", 6, units.get()},
      {L"Description", 6, description.get()}, {L"Date", 6, date.get()},
  };
  for (const auto& entry : entries) {
    SmartPtr<IString> value(entry.value);
    if (!value) value.Attach(ISCreate(L""));
    m_Parameters->Add(NewString(entry.name), value, nullptr, entry.flags);
  }
  m_Collection->Add(m_Parameters);
  return m_SlidePage->Initialize(m_Collection, NewString(L"CalibrationInfo"), 3, host);
}

void CCalibrationInfoPropPage::WriteBack(const wchar_t* entry, HRESULT (ICalibrationInfo::*store)(IString*)) {
  int index = -1;
  if (m_Parameters->get_Index(NewString(entry), &index) < 0 || index < 0) return;
  SmartPtr<IUnknown> item;
  if (m_Parameters->get_Item(index, item.Out()) < 0) return;
  SmartPtr<IString> text = QueryAs<IString>(item);
  if (!text) {
    // A value held in a variant: its text.
    if (SmartPtr<IVariant> variant = QueryAs<IVariant>(item)) text.Attach(ISCreate(variant.get()));
  }
  if (text) (m_Info->*store)(text);
}

HRESULT CCalibrationInfoPropPage::Apply(IUnknown*) {
  int state = 0;
  if (m_SlidePage) {
    state = m_SlidePage->GetState();
    m_SlidePage->Apply(static_cast<IUIPropertyPage*>(this));
  }
  if (m_Info && m_Parameters && (state & 1)) {
    WriteBack(L"Units", &ICalibrationInfo::put_CALIBUnitsText);
    WriteBack(L"Description", &ICalibrationInfo::put_CALIBDescription);
    WriteBack(L"Name", &ICalibrationInfo::put_CALIBName);
  }
  m_PageState = 6;
  return 0;
}

HRESULT CCalibrationInfoPropPage::Close() {
  ReleaseField(m_Collection);
  ReleaseField(m_Parameters);
  return m_SlidePage ? m_SlidePage->Close() : S_OK;
}

int CCalibrationInfoPropPage::GetState() { return m_SlidePage ? m_SlidePage->GetState() : 0; }

HRESULT CCalibrationInfoPropPage::Render(UbuntuCanvas* canvas, CANVASRect* rect, IUnknown* context, int flags) {
  SmartPtr<IRenderableObject> renderable = QueryAs<IRenderableObject>(m_SlidePage);
  if (!renderable) return E_NOINTERFACE;
  return renderable->Render(canvas, rect, context, flags);
}
