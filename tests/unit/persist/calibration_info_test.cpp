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

TEST(CalibrationInfoFields, NameAndTypeHaveDefaultsAndOtherNullFieldsFollowTheirOwnRules) {
  Probe probe;
  ICalibrationInfo* info = probe->Info();
  IString* text = nullptr;
  EXPECT_EQ(probe->Name(), L"Calibration");
  ASSERT_EQ(info->get_CALIBType(&text), S_OK);
  EXPECT_EQ(Take(text), L"Linear");
  // Description and name: a null field is a failure; device and units text: success with null.
  text = reinterpret_cast<IString*>(0x1);
  EXPECT_EQ(info->get_CALIBDescription(&text), E_FAIL);
  EXPECT_EQ(text, nullptr);
  IUnknown* device = reinterpret_cast<IUnknown*>(0x1);
  EXPECT_EQ(info->get_CALIBDevice(&device), S_OK);
  EXPECT_EQ(device, nullptr);
  text = reinterpret_cast<IString*>(0x1);
  EXPECT_EQ(info->get_CALIBUnitsText(&text), S_OK);
  EXPECT_EQ(text, nullptr);
  EXPECT_EQ(info->put_CALIBName(nullptr), S_OK);
  EXPECT_EQ(info->get_CALIBName(&text), E_FAIL);
}

TEST(CalibrationInfoFields, PuttingTheHeldStringKeepsItAlive) {
  Probe probe;
  ICalibrationInfo* info = probe->Info();
  IString* held = nullptr;
  ASSERT_EQ(info->get_CALIBName(&held), S_OK);
  held->Release();  // the field's reference is now the only one
  EXPECT_EQ(info->put_CALIBName(held), S_OK);
  EXPECT_EQ(probe->Name(), L"Calibration");
}

// The table is kept as stored files were converted with it, wrong entries included.
TEST(CalibrationInfoUnits, ConversionUsesTheStoredTableWrongEntriesIncluded) {
  Probe probe;
  ICalibrationInfo* info = probe->Info();
  EXPECT_EQ(Convert(info, 2, 1.0, 6), 1.0 / 25.4);  // millimetre to inch
  EXPECT_EQ(Convert(info, 3, 2.5, 2), 2500.0);      // metre to millimetre
  EXPECT_EQ(Convert(info, 7, 2.0, 2), 2.0 * 304.79999999999995);
  EXPECT_EQ(Convert(info, 6, 1.0, 7), 0.0);                // inch to foot: zero in the table
  EXPECT_EQ(Convert(info, 1, 1.0, 6), 39.37007874015748);  // not the true ratio
  EXPECT_EQ(Convert(info, 6, 3.0, 4), 3.0);                // inch to kilometre: 1.0 in the table
  for (int code = 1; code <= 7; ++code) EXPECT_EQ(Convert(info, code, 4.25, code), 4.25);
}

TEST(CalibrationInfoUnits, CodesOutsideTheTableLeaveTheValue) {
  Probe probe;
  ICalibrationInfo* info = probe->Info();
  const int codes[][2] = {{0, 3}, {3, 8}, {-1, -1}, {8, 1}};
  for (const auto& code : codes) EXPECT_EQ(Convert(info, code[0], 5.0, code[1]), 5.0);
  EXPECT_EQ(info->CALIBUnitsConvert(2, 1.0, 6, nullptr), S_OK);
}

TEST(CalibrationInfoXml, SaveWritesNameDescriptionAndTimeOnlyThenFails) {
  Probe probe;
  ICalibrationInfo* info = probe->Info();
  info->put_CALIBDescription(Str(L"a < b"));
  info->put_CALIBUnitsText(Str(L"mm"));
  SmartPtr<IXMLStreamEx> xml = XmlStream();
  ASSERT_TRUE(xml);
  EXPECT_EQ(info->Save(xml, 0), E_FAIL);
  // The stream escapes; a zero time leaves its element empty.
  EXPECT_EQ(Flat(StreamText(xml.get())), L"<CalibName>Calibration</CalibName><CalibDesc>a &lt; b</CalibDesc><Time></Time>");
}

TEST(CalibrationInfoXml, LoadKeepsOnlyTheName) {
  Probe probe;
  ICalibrationInfo* info = probe->Info();
  info->put_CALIBDescription(Str(L"before"));
  SmartPtr<IDataStream> in = XmlContent(
      L"<Info><CalibType>Other</CalibType><CALIBNAME>Left camera</CALIBNAME>"
      L"<CalibNameX>no</CalibNameX><CalibDesc>after</CalibDesc>"
      L"<Time><DATETIME><Year>2001</Year></DATETIME></Time></Info>");
  ASSERT_TRUE(in);
  EXPECT_EQ(info->Load(in, 0), S_OK);
  EXPECT_EQ(probe->Name(), L"Left camera");
  IString* text = nullptr;
  info->get_CALIBType(&text);
  EXPECT_EQ(Take(text), L"Linear");
  info->get_CALIBDescription(&text);
  EXPECT_EQ(Take(text), L"before");
  EXPECT_EQ(probe->Time().Year, 0);
}

TEST(CalibrationInfoFolder, SaveWritesEveryKeyInItsOrder) {
  Probe probe;
  ICalibrationInfo* info = probe->Info();
  info->put_CALIBDescription(Str(L"desk"));
  info->put_CALIBUnitsText(Str(L"mm"));
  info->put_CALIBUnits(2);
  probe->Time().Year = 2020;
  SmartPtr<IFolderStream> folder = FolderStream();
  ASSERT_TRUE(folder);
  EXPECT_EQ(info->Save(folder, 0), S_OK);
  EXPECT_EQ(StreamText(folder.get()),
            L"CalibName: string = Calibration\nCalibType: string = Linear\nCalibDesc: string = desk\n"
            L"CalibUnitsText: string = mm\nCalibUnits: data[4]\nDay: data[2]\nMonth: data[2]\nYear: data[2]\n"
            L"Hour: data[2]\nMinute: data[2]\n");
  int units = 0;
  EXPECT_EQ(folder->ReadData(Str(L"CalibUnits"), &units, 4, 0), S_OK);
  EXPECT_EQ(units, 2);
}

TEST(CalibrationInfoFolder, LoadWithoutKeysLeavesEmptyStringsNotNull) {
  Probe probe;
  ICalibrationInfo* info = probe->Info();
  info->put_CALIBUnits(3);
  SmartPtr<IFolderStream> folder = FolderStream();
  ASSERT_TRUE(folder);
  EXPECT_EQ(info->Load(folder, 0), S_OK);
  EXPECT_EQ(probe->Name(), L"");
  IString* text = nullptr;
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
  SmartPtr<IDataStream> plain = CreateHostObject<IDataStream>(L"DataStream");
  ASSERT_TRUE(plain);
  plain->Open(nullptr, 1000, 1);
  for (IDataStream* stream : {static_cast<IDataStream*>(nullptr), plain.get()}) {
    EXPECT_EQ(info->Save(stream, 0), E_FAIL);
    EXPECT_EQ(info->Load(stream, 0), E_FAIL);
  }
}
