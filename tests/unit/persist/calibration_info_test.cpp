// The calibration info block: defaults, null rules, unit conversion and both stream forms.
#include <gtest/gtest.h>

#include "tests/unit/persist/PersistTestSupport.h"

using namespace persist_test;

namespace {

// Name, type, description and units text: each in quotes, "null" for success with none,
// "fail" for a failure.
std::wstring Texts(ICalibrationInfo* info) {
  std::wstring all;
  for (auto get : {&ICalibrationInfo::get_CALIBName, &ICalibrationInfo::get_CALIBType,
                   &ICalibrationInfo::get_CALIBDescription, &ICalibrationInfo::get_CALIBUnitsText}) {
    IString* text = nullptr;
    const HRESULT hr = (info->*get)(&text);
    all += hr < 0 ? L"fail " : text ? L"\"" + Take(text) + L"\" " : L"null ";
  }
  return all;
}

double Convert(ICalibrationInfo* info, int from, double value, int to) {
  double result = -12345.0;
  EXPECT_EQ(info->CALIBUnitsConvert(from, value, to, &result), S_OK);
  return result;
}

}  // namespace

TEST(CalibrationInfoFields, NameAndTypeHaveDefaultsAndOtherNullFieldsFollowTheirOwnRules) {
  Probe probe;
  ICalibrationInfo* info = probe->Info();
  // Description and name: a null field is a failure; device and units text: success with null.
  EXPECT_EQ(Texts(info), L"\"Calibration\" \"Linear\" fail null ");
  IString* text = reinterpret_cast<IString*>(0x1);
  EXPECT_EQ(info->get_CALIBDescription(&text), E_FAIL);
  EXPECT_EQ(text, nullptr);
  IUnknown* device = reinterpret_cast<IUnknown*>(0x1);
  EXPECT_EQ(info->get_CALIBDevice(&device), S_OK);
  EXPECT_EQ(device, nullptr);
  EXPECT_EQ(info->put_CALIBName(nullptr), S_OK);
  EXPECT_EQ(Texts(info), L"fail \"Linear\" fail null ");
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
  EXPECT_EQ(Texts(info), L"\"Left camera\" \"Linear\" \"before\" null ");
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
  EXPECT_EQ(Texts(info), L"\"\" \"\" \"\" \"\" ");
  int units = 0;
  info->get_CALIBUnits(&units);
  EXPECT_EQ(units, 3);
}
