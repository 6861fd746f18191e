// "CalibrationInfoPropPage": shows the calibration info block of the object under edit as
// a parameter list on the host's generic slide page ("UIParametersSlidePropPage"), and
// writes the editable entries back.
//
// The list holds six string entries: "Device" and "Type" read-only (flag 0x40000), "Name",
// "Units", "Description" and "Date" editable as far as the slide page goes; Apply writes
// back "Units", "Description" and "Name" only, and only when the slide page's state has
// bit 0 (edited) set. Objects without calibration info give six empty entries and Apply
// writes nothing.
//
// Creation fails (E_FAIL) when the host has no slide page: the page is that page's feeder.
#pragma once

#include "frame/Object.h"
#include "pages/PropertyPageImpl.h"

class CCalibrationInfoPropPage : public CObject<CCalibrationInfoPropPage>,
                                 public IObjectInfoImpl<CCalibrationInfoPropPage>,
                                 public IUIPropertyPageImpl<CCalibrationInfoPropPage, IUIPropertyPage>,
                                 public IRenderableObject {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  CCalibrationInfoPropPage() = default;
  ~CCalibrationInfoPropPage();
  HRESULT QueryInterface(const IID& iid, void** object) override;

  // Makes the slide page through the global components.
  HRESULT FinalConstruct() override;

  // Takes the first object with calibration info, fills the list and hands it to the slide
  // page with the title "CalibrationInfo" and 3; its result is the result.
  HRESULT Initialize(ISimpleCollection* objects, IUnknown* a, int b, IUnknown* host) override;
  // Reads the slide page's state, lets it apply, then writes back the three editable
  // entries when its bit 0 was set. Always 0; the page state becomes 6.
  HRESULT Apply(IUnknown* context) override;
  HRESULT Close() override;
  // The slide page's state (the page's own state field is written by Apply only).
  int GetState() override;
  HRESULT Render(UbuntuCanvas* canvas, CANVASRect* rect, IUnknown* context, int flags) override;

 private:
  void WriteBack(const wchar_t* entry, HRESULT (ICalibrationInfo::*store)(IString*));

  IUIPropertyPage* m_SlidePage = nullptr;
  ICreatableSimpleCollection* m_Collection = nullptr;
  IParametersCreatable* m_Parameters = nullptr;
  ICalibrationInfo* m_Info = nullptr;
};
