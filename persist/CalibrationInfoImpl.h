// The descriptive block every calibration carries: name, type, description, device, time
// of calibration and unit of length, with its stream forms.
//
// Stream forms, written inside the class's own Save and read inside its Load:
//  - folder stream: strings "CalibName", "CalibType", "CalibDesc", "CalibUnitsText", 4 bytes
//    "CalibUnits", then the time stamp's keys. Load replaces the four strings with new
//    empty strings before reading, so missing keys leave empty strings, not null.
//  - XML: elements "CalibName", "CalibDesc" and "Time" (holding the DATETIME element, empty
//    for a zero time). Save returns E_FAIL after writing all of it; callers ignore that.
//    Load reads back "CalibName" only: type, units, description and time do not come back
//    through XML.
//
// The class T that also implements IDataPersist overrides Save/Load of both interfaces
// with one function; it calls ICALIBRATIONInfoImpl<T, I>::Save/Load by qualified name.
#pragma once

#include <cwctype>

#include "frame/Conversions.h"
#include "frame/Object.h"
#include "persist/DateTimer.h"

template <class T, class I = ICalibrationInfo>
class ICALIBRATIONInfoImpl : public I {
 public:
  // Row: unit converted from; column: unit converted to (codes 1 to 7). A value is
  // multiplied by the entry. Several entries are not the true ratio (1 -> 5, 1 -> 6,
  // 1 -> 7, 2 -> 5, 3 -> 6, 5 -> 1, 5 -> 2, 5 -> 3, 5 -> 4, 6 -> 4, 6 -> 7 among them);
  // stored values were converted with exactly this table, so it stays as it is.
  static constexpr double Conversions[7][7] = {
      {1.0, 0.001, 1e-06, 1e-09, 393.70078740157476, 39.37007874015748, 472.4409448818898},
      {1000.0, 1.0, 0.001, 1e-06, 39.37007874015748, 0.03937007874015748, 0.0032808398950131237},
      {1000000.0, 1000.0, 1.0, 0.001, 39370.078740157485, 39.37007874015748, 3.280839895013124},
      {1000000000.0, 1000000.0, 1000.0, 1.0, 39370078.740157485, 39370.078740157485, 3280.8398950131236},
      {25.4, 25400.0, 3.937007874015748e-08, 3.937007874015748e-11, 1.0, 0.001, 8.333333333333333e-05},
      {25400.0, 25.4, 0.0254, 1.0, 0.001, 1.0, 0.0},
      {304800.0, 304.79999999999995, 0.03048, 3.048e-05, 12000.0, 12.0, 1.0},
  };

  ICALIBRATIONInfoImpl() : m_CALIBName(ISCreate(L"Calibration")), m_CALIBType(ISCreate(L"Linear")) {}
  ICALIBRATIONInfoImpl(const ICALIBRATIONInfoImpl&) = delete;
  ICALIBRATIONInfoImpl& operator=(const ICALIBRATIONInfoImpl&) = delete;
  ~ICALIBRATIONInfoImpl() {
    Clear(m_CALIBUnitsText);
    Clear(m_CALIBDescription);
    Clear(m_CALIBType);
    Clear(m_CALIBName);
    Clear(m_Spare);
    Clear(m_CALIBDevice);
  }

  // A null field gives S_OK and null.
  HRESULT get_CALIBDevice(IUnknown** device) override {
    if (!device) return E_POINTER;
    *device = m_CALIBDevice;
    if (m_CALIBDevice) m_CALIBDevice->AddRef();
    return S_OK;
  }
  HRESULT put_CALIBDevice(IUnknown* device) override { return InfoStore(m_CALIBDevice, device); }

  // A null field gives E_FAIL.
  HRESULT get_CALIBName(IString** name) override { return HandOutRequired(m_CALIBName, name); }
  HRESULT put_CALIBName(IString* name) override { return InfoStore(m_CALIBName, name); }
  HRESULT get_CALIBType(IString** type) override { return HandOutRequired(m_CALIBType, type); }
  HRESULT put_CALIBType(IString* type) override { return InfoStore(m_CALIBType, type); }

  // A null place does nothing and succeeds.
  HRESULT get_CALIBUnits(int* units) override {
    if (units) *units = m_CALIBUnits;
    return S_OK;
  }
  HRESULT put_CALIBUnits(int units) override {
    m_CALIBUnits = units;
    return S_OK;
  }

  // A null field gives S_OK and null.
  HRESULT get_CALIBUnitsText(IString** text) override {
    if (!text) return E_POINTER;
    *text = m_CALIBUnitsText;
    if (m_CALIBUnitsText) m_CALIBUnitsText->AddRef();
    return S_OK;
  }
  HRESULT put_CALIBUnitsText(IString* text) override { return InfoStore(m_CALIBUnitsText, text); }

  // A null field gives E_FAIL.
  HRESULT get_CALIBDescription(IString** text) override { return HandOutRequired(m_CALIBDescription, text); }
  HRESULT put_CALIBDescription(IString* text) override { return InfoStore(m_CALIBDescription, text); }

  // Seconds are not reported.
  HRESULT GetCalibrationTime(short* day, short* month, short* year, short* hour, short* minute) override {
    if (day) *day = m_CALIBTime.Day;
    if (month) *month = m_CALIBTime.Month;
    if (year) *year = m_CALIBTime.Year;
    if (hour) *hour = m_CALIBTime.Hour;
    if (minute) *minute = m_CALIBTime.Minute;
    return S_OK;
  }

  // Now, in local time; the classes call it after a successful fit.
  HRESULT SetCalibrationTime() override { return m_CALIBTime.Reset(); }

  // Codes outside 1 to 7 leave the value as it is; never an error.
  HRESULT CALIBUnitsConvert(int from, double value, int to, double* result) override {
    if (!result) return S_OK;
    *result = value;
    if (from >= 1 && from <= 7 && to >= 1 && to <= 7) *result = value * Conversions[from - 1][to - 1];
    return S_OK;
  }

  HRESULT Save(IDataStream* stream, int) override {
    if (!stream) return E_FAIL;
    SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream);
    if (folder) {
      folder->WriteString(Key(L"CalibName"), m_CALIBName);
      folder->WriteString(Key(L"CalibType"), m_CALIBType);
      folder->WriteString(Key(L"CalibDesc"), m_CALIBDescription);
      folder->WriteString(Key(L"CalibUnitsText"), m_CALIBUnitsText);
      folder->WriteData(Key(L"CalibUnits"), &m_CALIBUnits, 4, 0);
      m_CALIBTime.Save(stream, 0);
      return S_OK;
    }
    SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream);
    if (xml) {
      xml->WriteValue(Key(L"CalibName"), 0, m_CALIBName, 0);
      xml->WriteValue(Key(L"CalibDesc"), 0, m_CALIBDescription, 0);
      xml->OpenTag(Key(L"Time"), 0, 0);
      m_CALIBTime.Save(stream, 0);
      xml->CloseTag();
      return E_FAIL;  // everything is written; this form always reports failure
    }
    return E_FAIL;
  }

  HRESULT Load(IDataStream* stream, int) override {
    if (!stream) return E_FAIL;
    SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream);
    if (folder) {
      IString** const fields[4] = {&m_CALIBName, &m_CALIBType, &m_CALIBDescription, &m_CALIBUnitsText};
      const wchar_t* const keys[4] = {L"CalibName", L"CalibType", L"CalibDesc", L"CalibUnitsText"};
      for (int i = 0; i < 4; ++i) {
        IString* fresh = CREFString::CreateString();
        Clear(*fields[i]);
        *fields[i] = fresh;
        if (fresh) folder->ReadString(Key(keys[i]), fresh);
      }
      int units = 0;
      if (folder->ReadData(Key(L"CalibUnits"), &units, 4, 0) >= 0) m_CALIBUnits = units;
      m_CALIBTime.Load(stream, 0);
      return S_OK;
    }
    SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream);
    if (!xml) return E_FAIL;
    tagREFString tag{0, nullptr};
    while (xml->NextTag(&tag) >= 0) {
      tagREFString found{0, nullptr};
      SmartPtr<IUnknown> content;
      const bool isName = IsCalibName(tag);
      if (xml->ReadElement(tag.m_Length, tag.m_Text, &found, content.Out(), 0) < 0 || !isName) continue;
      SmartPtr<IString> text = QueryAs<IString>(content);
      const wchar_t* p = nullptr;
      int n = 0;
      if (text) text->GetString(&p, &n);
      ICreatableString* name = CREFString::CreateString();
      if (name && p && n > 0) name->SetString(n, p);
      Clear(m_CALIBName);
      m_CALIBName = name;
    }
    return S_OK;
  }

 protected:
  IUnknown* m_CALIBDevice = nullptr;  // the classes store a string here
  IUnknown* m_Spare = nullptr;        // read by nothing; released at destruction
  IString* m_CALIBName = nullptr;
  IString* m_CALIBType = nullptr;
  IString* m_CALIBDescription = nullptr;
  CDateTimer m_CALIBTime;  // zero: never calibrated
  int m_CALIBUnits = 0;    // see ICalibrationInfo for the codes
  IString* m_CALIBUnitsText = nullptr;

  // Takes the new reference before dropping the old, so storing the held value is safe.
  template <class P>
  static HRESULT InfoStore(P*& field, P* value) {
    if (value) value->AddRef();
    P* old = field;
    field = value;
    if (old) old->Release();
    return S_OK;
  }

 private:
  template <class P>
  static void Clear(P*& field) {
    P* old = field;
    field = nullptr;
    if (old) old->Release();
  }

  static HRESULT HandOutRequired(IString* field, IString** out) {
    if (!out) return E_POINTER;
    *out = field;
    if (!field) return E_FAIL;
    field->AddRef();
    return S_OK;
  }

  // A key string that lives until the end of the full expression that made it.
  struct KeyString {
    explicit KeyString(const wchar_t* text) : m_String(ISCreate(text)) {}
    ~KeyString() {
      if (m_String) m_String->Release();
    }
    KeyString(const KeyString&) = delete;
    KeyString& operator=(const KeyString&) = delete;
    operator IString*() const { return m_String; }
    IString* m_String;
  };
  static KeyString Key(const wchar_t* text) { return KeyString(text); }

  static bool IsCalibName(const tagREFString& tag) {
    static const wchar_t kName[] = L"CalibName";
    if (tag.m_Length != 9 || !tag.m_Text) return false;
    for (int i = 0; i < 9; ++i)
      if (std::towlower(static_cast<wint_t>(tag.m_Text[i])) != std::towlower(static_cast<wint_t>(kName[i])))
        return false;
    return true;
  }
};
