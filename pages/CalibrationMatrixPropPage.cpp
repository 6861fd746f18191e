#include "pages/CalibrationMatrixPropPage.h"

#include <cwchar>

#include "frame/Components.h"

const tagREFString CCalibrationMatrixPropPage::m_ObjectName = {25, L"CalibrationMatrixPropPage"};

namespace {

// The first item of `objects` that answers I, with a reference; null when none does.
template <class I>
I* FirstOf(ISimpleCollection* objects) {
  int count = 0;
  if (objects->get_Count(&count) < 0) return nullptr;
  for (int i = 0; i < count; ++i) {
    SmartPtr<IUnknown> item;
    if (objects->get_Item(i, item.Out()) < 0) continue;
    if (SmartPtr<I> found = QueryAs<I>(item)) return found.Detach();
  }
  return nullptr;
}

bool SameIdentity(IUnknown* a, IUnknown* b) {
  return QueryAs<IUnknown>(a).get() == QueryAs<IUnknown>(b).get();
}

}  // namespace

CCalibrationMatrixPropPage::~CCalibrationMatrixPropPage() {
  ReleaseField(m_Calibration);
  ReleaseField(m_Transform);
  ReleaseField(m_Matrix);
  ReleaseField(m_Objects);
  ReleaseField(m_Grid);
  ReleaseField(m_Selected);
  ReleaseField(m_DefaultEditor);
}

HRESULT CCalibrationMatrixPropPage::QueryInterface(const IID& iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CCalibrationMatrixPropPage>*>(this)), object) ||
      QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
      QueryRoute(iid, IID_IUIMouseInput, static_cast<IUIMouseInput*>(this), object) ||
      QueryRoute(iid, IID_IUIKeyboardInput, static_cast<IUIKeyboardInput*>(this), object) ||
      QueryRoute(iid, IID_IUIPropertyPage, static_cast<IUIPropertyPage*>(this), object) ||
      QueryRoute(iid, IID_IRenderableObject, static_cast<IRenderableObject*>(this), object) ||
      QueryRoute(iid, IID_IEventSource, static_cast<IEventSource*>(this), object) ||
      QueryRoute(iid, IID__IUIParamEditNotification, static_cast<_IUIParamEditNotification*>(this), object))
    return S_OK;
  return E_NOINTERFACE;
}

HRESULT CCalibrationMatrixPropPage::Pointer(int, int, int, int) { return 0; }
HRESULT CCalibrationMatrixPropPage::KeyPressed(int, int) { return 0; }
HRESULT CCalibrationMatrixPropPage::SetFocus(int) { return 0; }
HRESULT CCalibrationMatrixPropPage::Apply(IUnknown*) { return 0; }

void CCalibrationMatrixPropPage::SetRects(CANVASRect* client, CCANVASRect* grid, CCANVASRect* left,
                                          CCANVASRect* top) {
  const int h = m_LineHeight;
  *top = *client;
  top->height = h;
  top->x += 79;
  *left = *client;
  left->x += 5;
  left->y = top->y + h + 4;
  left->width = 70;
  left->height -= h + 5;
  *grid = *client;
  grid->x += 5;
  grid->y = top->y + h + 4;
  grid->height -= 5;
  grid->width = client->width - 9;
}

HRESULT CCalibrationMatrixPropPage::Render(UbuntuCanvas* canvas, CANVASRect* rect, IUnknown* context, int flags) {
  if (!rect) return 0;
  CCANVASRect grid, left, top;
  SetRects(rect, &grid, &left, &top);
  if (SmartPtr<IRenderableObject> renderable = QueryAs<IRenderableObject>(m_Grid))
    renderable->Render(canvas, &grid, context, flags | 2);
  return 0;
}

HRESULT CCalibrationMatrixPropPage::Initialize(ISimpleCollection* objects, IUnknown*, int, IUnknown* host) {
  if (!objects) return E_FAIL;
  if (SmartPtr<IUIPropertyPageCollection> pages = QueryAs<IUIPropertyPageCollection>(host)) {
    ReleaseField(m_DefaultEditor);
    pages->GetInfo(6, &m_DefaultEditor, &m_LineHeight);
  }
  objects->AddRef();
  ReleaseField(m_Objects);
  m_Objects = objects;

  ReleaseField(m_Calibration);
  ReleaseField(m_Transform);
  ReleaseField(m_Matrix);
  m_Calibration = FirstOf<ICalibration>(objects);
  if (!m_Calibration) m_Transform = FirstOf<IHomogeneousTransform>(objects);
  if (!m_Calibration && !m_Transform) m_Matrix = FirstOf<IMatrix>(objects);

  ReleaseField(m_Grid);
  m_Grid = UIObject::CreateUIGrid();
  if (m_Grid) {
    m_Grid->put_RowHeight(0, m_LineHeight);
    m_Grid->put_Option(130, 0);
    m_Grid->put_Option(155, 1);
    m_Grid->put_Option(66, 245);
  }
  FillGrid();
  m_PageState = 22;
  return 0;
}

void CCalibrationMatrixPropPage::FillGrid() {
  if (!m_Grid) return;
  m_Grid->Clear();

  // The sources keep the numbers they report, so each stays held until the cells are made.
  double* data = nullptr;
  int rows = 0, columns = 0;
  SmartPtr<IHomogeneousTransform> forward;
  SmartPtr<ICamera3DTransform> camera;
  if (m_Transform) {
    m_Transform->GetMatrix(&data, &rows, &columns);
  } else if (m_Matrix) {
    m_Matrix->GetMatrix(&data, &rows, &columns);
  } else if (SmartPtr<IHomogeneousCalibration> homogeneous = QueryAs<IHomogeneousCalibration>(m_Calibration)) {
    SmartPtr<ITransform> transform;
    homogeneous->GetForwardTransform(transform.Out());
    forward = QueryAs<IHomogeneousTransform>(transform);
    if (forward) forward->GetMatrix(&data, &rows, &columns);
  } else if (SmartPtr<ICamera3DCalibrationPlane> plane = QueryAs<ICamera3DCalibrationPlane>(m_Calibration)) {
    SmartPtr<ITransform> transform;
    plane->GetReverseTransform(transform.Out());
    camera = QueryAs<ICamera3DTransform>(transform);
  }
  if (!camera) camera = QueryAs<ICamera3DTransform>(m_Calibration);
  if (camera) camera->GetMatrix(&data, &rows, &columns);
  if (!data || rows <= 0 || columns <= 0) return;

  SmartPtr<IPMRenderStyle> style;
  if (SmartPtr<IUIParamEdit> editor = QueryAs<IUIParamEdit>(m_DefaultEditor)) {
    SmartPtr<IUnknown> styleObject;
    editor->GetObject(4, styleObject.Out());
    style = QueryAs<IPMRenderStyle>(styleObject);
  }

  m_Grid->put_Size(columns, rows, 1);
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < columns; ++c) {
      wchar_t text[256];
      const int length = std::swprintf(text, 256, L"% *.*f", 12, 6, data[r * columns + c]);
      SmartPtr<IPMText> cell;
      cell.Attach(UIObject::CreatePMText());
      if (!cell) continue;
      cell->SetText(length < 0 ? 0 : length, text);
      if (style) {
        if (SmartPtr<IPMRenderStyle> cellStyle = QueryAs<IPMRenderStyle>(cell)) cellStyle->CopyStyle(style);
      }
      m_Grid->put_Cell(c, r, 0, cell);
    }
  }
}

HRESULT CCalibrationMatrixPropPage::Close() {
  if (m_Grid) m_Grid->Clear();
  ReleaseField(m_Grid);
  ReleaseField(m_Objects);
  return 0;
}

HRESULT CCalibrationMatrixPropPage::ParamSelected(IUnknown* item) {
  if (!item && !m_Selected) return 0;
  if (item && m_Selected && SameIdentity(item, m_Selected)) return 0;
  if (SmartPtr<IActivatableObject> old = QueryAs<IActivatableObject>(m_Selected)) old->Activate(0);
  if (item) item->AddRef();
  ReleaseField(m_Selected);
  m_Selected = item;
  if (SmartPtr<IActivatableObject> now = QueryAs<IActivatableObject>(m_Selected)) now->Activate(1);
  FireRefresh();
  return 0;
}

HRESULT CCalibrationMatrixPropPage::ParamChanged(IUnknown* item) {
  if (QueryAs<IUIParamEdit>(item)) m_PageState = 23;
  FireRefresh();
  return 0;
}

void CCalibrationMatrixPropPage::FireRefresh() {
  // One listener at a time, each taken under the lock and told outside it, so that a
  // listener may unadvise during its call.
  SmartPtr<IUnknown> listener;
  for (int i = 0; AdviseAt(i, &listener); ++i) {
    if (SmartPtr<_IUIRefreshEvent> event = QueryAs<_IUIRefreshEvent>(listener)) event->Refresh(0, 0);
    listener = SmartPtr<IUnknown>();
  }
}
