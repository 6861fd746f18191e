// The calibration info block: defaults, null rules, unit conversion and both stream forms.
#include <gtest/gtest.h>

#include "tests/unit/persist/PersistTestSupport.h"

using namespace persist_test;

namespace {

double Convert(ICalibrationInfo* info, int from, double value, int to) {
  double result = -12345.0;
  EXPECT_EQ(info->CALIBUnitsConvert(from, value, to, &result), S_OK);
  return result;
}

}  // namespace

TEST(CalibrationInfoFields, DefaultsAndNullRules) {
  Probe probe;
  ICalibrationInfo* info = probe->Info();
  IString* text = nullptr;
  ASSERT_EQ(info->get_CALIBName(&text), S_OK);
  EXPECT_EQ(Take(text), L"Calibration");
  ASSERT_EQ(info->get_CALIBType(&text), S_OK);
  EXPECT_EQ(Take(text), L"Linear");

  // Description: a null field is a failure; device and units text: success with null.
  text = reinterpret_cast<IString*>(0x1);
  EXPECT_EQ(info->get_CALIBDescription(&text), E_FAIL);
  EXPECT_EQ(text, nullptr);
  IUnknown* device = reinterpret_cast<IUnknown*>(0x1);
  EXPECT_EQ(info->get_CALIBDevice(&device), S_OK);
  EXPECT_EQ(device, nullptr);
  text = reinterpret_cast<IString*>(0x1);
  EXPECT_EQ(info->get_CALIBUnitsText(&text), S_OK);
  EXPECT_EQ(text, nullptr);

  EXPECT_EQ(info->get_CALIBName(nullptr), E_POINTER);
  EXPECT_EQ(info->get_CALIBType(nullptr), E_POINTER);
  EXPECT_EQ(info->get_CALIBDescription(nullptr), E_POINTER);
  EXPECT_EQ(info->get_CALIBUnits(nullptr), S_OK);
  int units = -1;
  EXPECT_EQ(info->get_CALIBUnits(&units), S_OK);
  EXPECT_EQ(units, 0);
}

TEST(CalibrationInfoFields, PutStoresAndNullClears) {
  Probe probe;
  ICalibrationInfo* info = probe->Info();
  EXPECT_EQ(info->put_CALIBDescription(Str(L"desk")), S_OK);
  EXPECT_EQ(info->put_CALIBDevice(Str(L"Camera")), S_OK);
  EXPECT_EQ(info->put_CALIBUnits(99), S_OK);  // no range test
  IString* text = nullptr;
  ASSERT_EQ(info->get_CALIBDescription(&text), S_OK);
  EXPECT_EQ(Take(text), L"desk");
  IUnknown* device = nullptr;
  ASSERT_EQ(info->get_CALIBDevice(&device), S_OK);
  SmartPtr<IString> deviceText = QueryAs<IString>(device);
  device->Release();
  ASSERT_TRUE(deviceText);
  deviceText->AddRef();
  EXPECT_EQ(Take(deviceText.get()), L"Camera");
  int units = 0;
  info->get_CALIBUnits(&units);
  EXPECT_EQ(units, 99);

  EXPECT_EQ(info->put_CALIBName(nullptr), S_OK);
  EXPECT_EQ(info->get_CALIBName(&text), E_FAIL);
  EXPECT_EQ(info->put_CALIBDescription(nullptr), S_OK);
  EXPECT_EQ(info->get_CALIBDescription(&text), E_FAIL);
}

TEST(CalibrationInfoFields, PuttingTheHeldStringKeepsItAlive) {
  Probe probe;
  ICalibrationInfo* info = probe->Info();
  IString* held = nullptr;
  ASSERT_EQ(info->get_CALIBName(&held), S_OK);
  held->Release();  // the field's reference is now the only one
  EXPECT_EQ(info->put_CALIBName(held), S_OK);
  IString* again = nullptr;
  ASSERT_EQ(info->get_CALIBName(&again), S_OK);
  EXPECT_EQ(again, held);
  EXPECT_EQ(Take(again), L"Calibration");
}

TEST(CalibrationInfoTime, ZeroUntilSetAndSecondsNotReported) {
  Probe probe;
  ICalibrationInfo* info = probe->Info();
  short day = -1, month = -1, year = -1, hour = -1, minute = -1;
  EXPECT_EQ(info->GetCalibrationTime(&day, &month, &year, &hour, &minute), S_OK);
  EXPECT_EQ(day, 0);
  EXPECT_EQ(month, 0);
  EXPECT_EQ(year, 0);
  EXPECT_EQ(info->GetCalibrationTime(nullptr, nullptr, nullptr, nullptr, nullptr), S_OK);

  EXPECT_EQ(info->SetCalibrationTime(), S_OK);
  info->GetCalibrationTime(&day, &month, &year, nullptr, nullptr);
  EXPECT_GE(year, 2024);
  EXPECT_GE(month, 1);
  EXPECT_GE(day, 1);
  EXPECT_GE(probe->Time().WeekDay, 1);
  EXPECT_LE(probe->Time().WeekDay, 7);
}

TEST(CalibrationInfoUnits, ConversionTableAsStored) {
  Probe probe;
  ICalibrationInfo* info = probe->Info();
  EXPECT_EQ(Convert(info, 2, 1.0, 6), 0.03937007874015748);  // millimetre to inch
  EXPECT_EQ(Convert(info, 6, 1.0, 7), 0.0);                  // inch to foot: zero in the table
  EXPECT_EQ(Convert(info, 3, 2.5, 2), 2500.0);
  EXPECT_EQ(Convert(info, 7, 2.0, 2), 2.0 * 304.79999999999995);
  EXPECT_EQ(Convert(info, 1, 1.0, 6), 39.37007874015748);  // not the true ratio; kept
  EXPECT_EQ(Convert(info, 6, 3.0, 4), 3.0);                // inch to kilometre: 1.0 in the table
  for (int code = 1; code <= 7; ++code) EXPECT_EQ(Convert(info, code, 4.25, code), 4.25);
}

TEST(CalibrationInfoUnits, CodesOutsideTheTableLeaveTheValue) {
  Probe probe;
  ICalibrationInfo* info = probe->Info();
  EXPECT_EQ(Convert(info, 0, 5.0, 3), 5.0);
  EXPECT_EQ(Convert(info, 3, 5.0, 8), 5.0);
  EXPECT_EQ(Convert(info, -1, 5.0, -1), 5.0);
  EXPECT_EQ(Convert(info, 8, 5.0, 1), 5.0);
  EXPECT_EQ(info->CALIBUnitsConvert(2, 1.0, 6, nullptr), S_OK);
}

TEST(CalibrationInfoXml, SaveWritesNameDescriptionAndTimeThenFails) {
  Probe probe;
  ICalibrationInfo* info = probe->Info();
  info->put_CALIBDescription(Str(L"a < b"));
  info->put_CALIBUnitsText(Str(L"mm"));
  SmartPtr<IXMLStreamEx> xml = XmlStream(nullptr);
  ASSERT_TRUE(xml);
  EXPECT_EQ(info->Save(xml, 0), E_FAIL);
  const std::wstring text = StreamText(xml.get());
  CREFString view(text.c_str(), static_cast<int>(text.size()));
  CREFString attributes, value;
  CREFString name(L"CalibName", 9), desc(L"CalibDesc", 9), time(L"Time", 4), type(L"CalibType", 9),
      units(L"CalibUnits", 10);
  ASSERT_EQ(XMLGetTAGGED(view, name, attributes, value, 0), S_OK);
  EXPECT_EQ(ViewText(value), L"Calibration");
  ASSERT_EQ(XMLGetTAGGED(view, desc, attributes, value, 0), S_OK);
  EXPECT_EQ(ViewText(value), L"a &lt; b");  // the stream escapes
  ASSERT_EQ(XMLGetTAGGED(view, time, attributes, value, 0), S_OK);
  EXPECT_EQ(Trimmed(ViewText(value)), L"");  // zero time: empty element
  EXPECT_EQ(XMLGetTAGGED(view, type, attributes, value, 0), E_FAIL);
  EXPECT_EQ(XMLGetTAGGED(view, units, attributes, value, 0), E_FAIL);
}

TEST(CalibrationInfoXml, LoadKeepsOnlyTheName) {
  Probe probe;
  ICalibrationInfo* info = probe->Info();
  info->put_CALIBDescription(Str(L"before"));
  SmartPtr<IXMLStreamEx> in = XmlStream(
      L"<Info><CalibType>Other</CalibType><CALIBNAME>Left camera</CALIBNAME>"
      L"<CalibNameX>no</CalibNameX><CalibDesc>after</CalibDesc>"
      L"<Time><DATETIME><Year>2001</Year></DATETIME></Time></Info>");
  ASSERT_TRUE(in);
  tagREFString root{0, nullptr};
  ASSERT_GE(in->NextTag(&root), 0);
  SmartPtr<IUnknown> content;
  tagREFString found{0, nullptr};
  ASSERT_GE(in->ReadElement(root.m_Length, root.m_Text, &found, content.Out(), 0), 0);
  SmartPtr<IDataStream> inner = QueryAs<IDataStream>(content.get());
  ASSERT_TRUE(inner);
  EXPECT_EQ(info->Load(inner, 0), S_OK);

  IString* text = nullptr;
  info->get_CALIBName(&text);
  EXPECT_EQ(Take(text), L"Left camera");
  info->get_CALIBType(&text);
  EXPECT_EQ(Take(text), L"Linear");
  info->get_CALIBDescription(&text);
  EXPECT_EQ(Take(text), L"before");
  short year = -1;
  info->GetCalibrationTime(nullptr, nullptr, &year, nullptr, nullptr);
  EXPECT_EQ(year, 0);
}

TEST(CalibrationInfoFolder, SaveWritesEveryKey) {
  Probe probe;
  ICalibrationInfo* info = probe->Info();
  info->put_CALIBDescription(Str(L"desk"));
  info->put_CALIBUnitsText(Str(L"mm"));
  info->put_CALIBUnits(2);
  probe->Time().Year = 2020;
  probe->Time().Month = 2;
  probe->Time().Day = 29;
  SmartPtr<IFolderStream> folder = FolderStream();
  ASSERT_TRUE(folder);
  EXPECT_EQ(info->Save(folder, 0), S_OK);
  SmartPtr<INamedCollection> entries = QueryAs<INamedCollection>(folder.get());
  ASSERT_TRUE(entries);
  const wchar_t* expected[] = {L"CalibName", L"CalibType", L"CalibDesc", L"CalibUnitsText", L"CalibUnits",
                               L"Day",       L"Month",     L"Year",      L"Hour",           L"Minute"};
  int count = 0;
  entries->get_Count(&count);
  ASSERT_EQ(count, 10);
  for (int i = 0; i < count; ++i) {
    IString* name = nullptr;
    entries->get_ItemName(i, &name);
    EXPECT_EQ(Take(name), expected[i]);
  }
  int units = 0;
  EXPECT_EQ(folder->ReadData(Str(L"CalibUnits"), &units, 4, 0), S_OK);
  EXPECT_EQ(units, 2);
}

TEST(CalibrationInfoFolder, LoadWithoutKeysLeavesEmptyStrings) {
  Probe probe;
  ICalibrationInfo* info = probe->Info();
  info->put_CALIBUnits(3);
  SmartPtr<IFolderStream> folder = FolderStream();
  ASSERT_TRUE(folder);
  EXPECT_EQ(info->Load(folder, 0), S_OK);
  IString* text = nullptr;
  ASSERT_EQ(info->get_CALIBName(&text), S_OK);
  EXPECT_EQ(Take(text), L"");
  ASSERT_EQ(info->get_CALIBDescription(&text), S_OK);
  EXPECT_EQ(Take(text), L"");
  ASSERT_EQ(info->get_CALIBUnitsText(&text), S_OK);
  EXPECT_EQ(Take(text), L"");
  int units = 0;
  info->get_CALIBUnits(&units);
  EXPECT_EQ(units, 3);
}

TEST(CalibrationInfoStreams, NullOrUnknownStreamFails) {
  Probe probe;
  ICalibrationInfo* info = probe->Info();
  EXPECT_EQ(info->Save(nullptr, 0), E_FAIL);
  EXPECT_EQ(info->Load(nullptr, 0), E_FAIL);
  SmartPtr<IDataStream> plain = CreateHostObject<IDataStream>(L"DataStream");
  ASSERT_TRUE(plain);
  plain->Open(nullptr, 1000, 1);
  EXPECT_EQ(info->Save(plain, 0), E_FAIL);
  EXPECT_EQ(info->Load(plain, 0), E_FAIL);
}
