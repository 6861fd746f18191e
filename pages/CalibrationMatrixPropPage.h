// "CalibrationMatrixPropPage": a read-only grid of the numbers of the matrix of the object
// under edit, drawn by the host's "UIGrid" with one "PMText" per cell.
//
// What is shown: the first object that is a calibration; only if none, the first
// homogeneous transform; only if none, the first matrix. A calibration shows its forward
// transform's matrix when it is homogeneous, and a camera on a plane shows its camera's
// (the reverse transform's) matrix. The numbers are read by rows as the source reports
// them, each printed as "% *.*f" with width 12 and precision 6.
//
// Selecting a cell activates it and tells the listeners (_IUIRefreshEvent) outside the
// lock; selecting the same cell again does nothing.
#pragma once

#include "frame/Object.h"
#include "pages/PropertyPageImpl.h"

class CCalibrationMatrixPropPage
    : public CObject<CCalibrationMatrixPropPage>,
      public IObjectInfoImpl<CCalibrationMatrixPropPage>,
      public IUIMouseInput,
      public IUIKeyboardInput,
      public IRenderableObject,
      public IUIPropertyPageImpl<CCalibrationMatrixPropPage, IUIPropertyPage>,
      public IEventSourceImpl<CCalibrationMatrixPropPage, &IID__IUIRefreshEvent>,
      public _IUIParamEditNotification {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  CCalibrationMatrixPropPage() = default;
  ~CCalibrationMatrixPropPage();
  HRESULT QueryInterface(const IID& iid, void** object) override;

  // The grid is for viewing: input and Apply do nothing and return 0.
  HRESULT Pointer(int x, int y, int buttons, int flags) override;
  // Draws the grid in the grid rectangle of SetRects, with flags | 2. Result 0.
  HRESULT Render(UbuntuCanvas* canvas, CANVASRect* rect, IUnknown* context, int flags) override;
  HRESULT KeyPressed(int key, int flags) override;
  HRESULT SetFocus(int focus) override;
  // E_FAIL for null objects. `host` may offer the page collection (code 6: the default
  // editor, whose style the cells take, and the line height).
  HRESULT Initialize(ISimpleCollection* objects, IUnknown* a, int b, IUnknown* host) override;
  HRESULT Apply(IUnknown* context) override;
  HRESULT Close() override;
  // An edit (an IUIParamEdit item) sets the state to 23; listeners are told either way.
  HRESULT ParamChanged(IUnknown* item) override;
  HRESULT ParamSelected(IUnknown* item) override;

  // Rectangles are x, y, width, height; h is the line height. The heading runs along the
  // top from x + 79, the row labels down the left, the grid below the heading.
  void SetRects(CANVASRect* client, CCANVASRect* grid, CCANVASRect* left, CCANVASRect* top);

 private:
  void FillGrid();
  void FireRefresh();

  ICalibration* m_Calibration = nullptr;
  IHomogeneousTransform* m_Transform = nullptr;
  IMatrix* m_Matrix = nullptr;
  ISimpleCollection* m_Objects = nullptr;
  IUIGrid* m_Grid = nullptr;
  IUnknown* m_Selected = nullptr;
  IUnknown* m_DefaultEditor = nullptr;
  int m_LineHeight = 0;
};
