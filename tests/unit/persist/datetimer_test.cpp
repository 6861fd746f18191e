// Time stamps: the hand-made universal-time breakdown (with its leap-year stepping), the
// text forms and both stream forms.
#include <gtest/gtest.h>

#include <ctime>

#include "persist/DateTimer.h"
#include "tests/unit/persist/PersistTestSupport.h"

using namespace persist_test;

namespace {

constexpr long kDay = 86400;

CDateTimer FromStamp(long long seconds, unsigned nanoseconds = 0) {
  struct statx_timestamp stamp {};
  stamp.tv_sec = seconds;
  stamp.tv_nsec = nanoseconds;
  CDateTimer timer;
  timer.WeekDay = 9;  // left alone by this form
  timer.SetLinuxTime(&stamp);
  return timer;
}

CDateTimer Make(short year, short month, short day, short hour, short minute, float second) {
  CDateTimer t;
  t.Year = year;
  t.Month = month;
  t.Day = day;
  t.Hour = hour;
  t.Minute = minute;
  t.Second = second;
  return t;
}

bool IsLeap(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

}  // namespace

TEST(DateTimerStamp, EpochIsFirstOfJanuary1970) {
  const CDateTimer t = FromStamp(0);
  EXPECT_EQ(t.Year, 1970);
  EXPECT_EQ(t.Month, 1);
  EXPECT_EQ(t.Day, 1);
  EXPECT_EQ(t.Hour, 0);
  EXPECT_EQ(t.Minute, 0);
  EXPECT_EQ(t.Second, 0.0f);
  EXPECT_EQ(t.WeekDay, 9);
}

TEST(DateTimerStamp, FirstOfJanuaryOfALeapYearIsDayZero) {
  const CDateTimer t = FromStamp(63072000);  // 1972-01-01
  EXPECT_EQ(t.Year, 1972);
  EXPECT_EQ(t.Month, 1);
  EXPECT_EQ(t.Day, 0);
}

TEST(DateTimerStamp, YearAfterALeapYearStartsOneDayLate) {
  const CDateTimer jan1 = FromStamp(94694400);  // 1973-01-01
  EXPECT_EQ(jan1.Year, 1972);
  EXPECT_EQ(jan1.Month, 12);
  EXPECT_EQ(jan1.Day, 31);
  const CDateTimer jan2 = FromStamp(94694400 + kDay);
  EXPECT_EQ(jan2.Year, 1973);
  EXPECT_EQ(jan2.Month, 1);
  EXPECT_EQ(jan2.Day, 2);
}

TEST(DateTimerStamp, TimeOfDayAndNanoseconds) {
  const CDateTimer t = FromStamp(94694400 + 13 * 3600 + 7 * 60 + 42, 250000000);
  EXPECT_EQ(t.Hour, 13);
  EXPECT_EQ(t.Minute, 7);
  EXPECT_FLOAT_EQ(t.Second, 42.25f);
}

// Against the C library's universal time: equal outside leap years, one day early within
// a leap year and on January 1 of the year after (January 1 of the leap year being day 0).
TEST(DateTimerStamp, AgreesWithGmtimeExceptForTheLeapYearShift) {
  // Up to 2104, past 2100, a year divisible by 4 that is not a leap year.
  for (long long s = 0; s < 4230000000LL; s += 86400LL * 5 + 3607) {
    const time_t now = static_cast<time_t>(s);
    struct tm g;
    ASSERT_NE(gmtime_r(&now, &g), nullptr);
    const int year = g.tm_year + 1900;
    int eYear = year, eMonth = g.tm_mon + 1, eDay = g.tm_mday;
    const bool janFirst = eMonth == 1 && eDay == 1;
    if (IsLeap(year) && janFirst) {
      eDay = 0;
    } else if (IsLeap(year) || (IsLeap(year - 1) && janFirst)) {
      const time_t before = now - kDay;
      struct tm p;
      gmtime_r(&before, &p);
      eYear = p.tm_year + 1900;
      eMonth = p.tm_mon + 1;
      eDay = p.tm_mday;
    }
    const CDateTimer t = FromStamp(s);
    ASSERT_EQ(t.Year, eYear) << s;
    ASSERT_EQ(t.Month, eMonth) << s;
    ASSERT_EQ(t.Day, eDay) << s;
    ASSERT_EQ(t.Hour, g.tm_hour) << s;
    ASSERT_EQ(t.Minute, g.tm_min) << s;
    ASSERT_EQ(t.Second, static_cast<float>(g.tm_sec)) << s;
  }
}

TEST(DateTimerStamp, ExtremeStampsStayInRange) {
  // No trap, and the time of day is still a time of day.
  for (long long s : {-9223372036854775807LL, 9223372036854775807LL, -1LL}) {
    const CDateTimer t = FromStamp(s, 999999999u);
    EXPECT_GE(t.Hour, 0);
    EXPECT_LT(t.Hour, 24);
    EXPECT_GE(t.Minute, 0);
    EXPECT_LT(t.Minute, 60);
  }
  CDateTimer t;
  EXPECT_EQ(t.SetLinuxTime(static_cast<struct statx_timestamp*>(nullptr)), S_OK);
}

TEST(DateTimerLocal, SecondsCountUsesLocalTimeAndKeepsWeekDay) {
  const char* oldZone = std::getenv("TZ");
  const std::string saved = oldZone ? oldZone : "";
  setenv("TZ", "UTC0", 1);
  tzset();
  CDateTimer t;
  t.WeekDay = 3;
  t.SetLinuxTime(365L * kDay + 3 * 3600 + 4 * 60 + 5);  // 1971-01-01 03:04:05
  EXPECT_EQ(t.Year, 1971);
  EXPECT_EQ(t.Month, 1);
  EXPECT_EQ(t.Day, 1);
  EXPECT_EQ(t.Hour, 3);
  EXPECT_EQ(t.Minute, 4);
  EXPECT_EQ(t.Second, 5.0f);
  EXPECT_EQ(t.WeekDay, 3);
  setenv("TZ", "EST5", 1);
  tzset();
  t.SetLinuxTime(365L * kDay + 3 * 3600);
  EXPECT_EQ(t.Year, 1970);
  EXPECT_EQ(t.Day, 31);
  EXPECT_EQ(t.Hour, 22);
  if (oldZone)
    setenv("TZ", saved.c_str(), 1);
  else
    unsetenv("TZ");
  tzset();
}

TEST(DateTimerLocal, ResetSetsAConsistentWeekDay) {
  CDateTimer t;
  t.Reset();
  EXPECT_GE(t.Year, 2024);
  EXPECT_GE(t.Month, 1);
  EXPECT_LE(t.Month, 12);
  EXPECT_EQ(t.WeekDay, CDateTimer::GetDayOfWeek(t.Day, t.Month, t.Year) + 1);
  EXPECT_EQ(t.Second, static_cast<float>(static_cast<int>(t.Second)));
}

TEST(DateTimerDayOfWeek, KnownDates) {
  EXPECT_EQ(CDateTimer::GetDayOfWeek(1, 1, 1970), 4);   // Thursday
  EXPECT_EQ(CDateTimer::GetDayOfWeek(1, 1, 2000), 6);   // Saturday
  EXPECT_EQ(CDateTimer::GetDayOfWeek(29, 2, 2024), 4);  // Thursday
  EXPECT_EQ(CDateTimer::GetDayOfWeek(1, 3, 2100), 1);   // Monday
  EXPECT_EQ(CDateTimer::GetDayOfWeek(4, 3, 2021), 4);
  EXPECT_EQ(CDateTimer::GetDayOfWeek(1, 0, 2021), -1);
  EXPECT_EQ(CDateTimer::GetDayOfWeek(1, 13, 2021), -1);
}

TEST(DateTimerText, DefaultFormat) {
  EXPECT_EQ(Take(CDateTimer().GetString(0)), L"0-00-00  0:0:0.0");
  CDateTimer t = Make(2021, 3, 4, 7, 5, 9.0f);
  EXPECT_EQ(Take(t.GetString(0)), L"2021-03-04  7:5:9.0");
  EXPECT_EQ(Take(t.GetString(6)), L"2021-03-04  7:5:9.0");
}

TEST(DateTimerText, PartsInTheirOrder) {
  CDateTimer t = Make(2021, 3, 4, 17, 45, 9.96f);
  EXPECT_EQ(Take(t.GetString(0x1)), L"04-03-2021 ");
  EXPECT_EQ(Take(t.GetString(0x3)), L"2021-03-04 ");  // year first wins
  EXPECT_EQ(Take(t.GetString(0x4)), L" 17:45:10.0");
  EXPECT_EQ(Take(t.GetString(0x8)), L" 17:45:10");
  EXPECT_EQ(Take(t.GetString(0x10)), L" (GMT +0)");
  EXPECT_EQ(Take(t.GetString(0x1F)), L"2021-03-04  17:45:10.0 17:45:10 (GMT +0)");
  EXPECT_EQ(Take(t.GetString(0x40)), L"");
}

TEST(DateTimerText, FileNameForm) {
  CDateTimer t = Make(2021, 3, 4, 7, 5, 9.0f);
  EXPECT_EQ(Take(t.GetString(0x100)), L"20210304_7509");
  EXPECT_EQ(Take(t.GetString(0x100 | 0x200 | 0x2)), L"20210304_7509");
}

TEST(DateTimerText, InternetFormSetsTheWeekDay) {
  CDateTimer t = Make(2021, 3, 4, 7, 5, 9.0f);
  EXPECT_EQ(Take(t.GetString(0x200 | 0x1)), L"Thu, 4-Mar-2021 7:5:9 GMT");
  EXPECT_EQ(t.WeekDay, 5);
  CDateTimer sunday = Make(2021, 3, 7, 23, 59, 59.4f);
  EXPECT_EQ(Take(sunday.GetString(0x200)), L"Sun, 7-Mar-2021 23:59:59 GMT");
  EXPECT_EQ(sunday.WeekDay, 1);
}

TEST(DateTimerText, InternetFormWithoutAMonthDoesNotReadOutsideTheTables) {
  CDateTimer t = Make(2021, 0, 4, 7, 5, 9.0f);
  EXPECT_EQ(Take(t.GetString(0x200)), L"???, 4-(null)-2021 7:5:9 GMT");
}

TEST(DateTimerXml, SavesOneElementWithEveryField) {
  SmartPtr<IXMLStreamEx> xml = XmlStream(nullptr);
  ASSERT_TRUE(xml);
  CDateTimer t = Make(2021, 3, 4, 7, 5, 9.5f);
  t.WeekDay = 5;
  EXPECT_EQ(t.Save(xml, 0), S_OK);
  const std::wstring text = StreamText(xml.get());
  CREFString view(text.c_str(), static_cast<int>(text.size()));
  const wchar_t* names[] = {L"DATETIME", L"WeekDay", L"Day", L"Month", L"Year", L"Hour", L"Minute", L"Second"};
  const wchar_t* values[] = {nullptr, L"5", L"4", L"3", L"2021", L"7", L"5", L"9.5"};
  size_t last = 0;
  for (int i = 0; i < 8; ++i) {
    CREFString tag(names[i], static_cast<int>(std::wcslen(names[i]))), attributes, value;
    ASSERT_EQ(XMLGetTAGGED(view, tag, attributes, value, 0), S_OK) << names[i];
    if (values[i]) {
      EXPECT_EQ(ViewText(value), values[i]) << names[i];
    }
    const size_t at = static_cast<size_t>(value.m_Text - text.c_str());
    EXPECT_GE(at, last) << "order at " << names[i];
    last = at;
  }
}

TEST(DateTimerXml, ZeroDateWritesNothing) {
  SmartPtr<IXMLStreamEx> xml = XmlStream(nullptr);
  ASSERT_TRUE(xml);
  CDateTimer t;
  t.Hour = 5;  // only the date counts
  EXPECT_EQ(t.Save(xml, 0), S_FALSE);
  EXPECT_EQ(StreamText(xml.get()), L"");
}

TEST(DateTimerXml, RoundTrip) {
  SmartPtr<IXMLStreamEx> xml = XmlStream(nullptr);
  ASSERT_TRUE(xml);
  CDateTimer t = Make(1999, 12, 31, 23, 59, 58.125f);
  t.WeekDay = 6;
  t.Save(xml, 0);
  const std::wstring text = StreamText(xml.get());
  SmartPtr<IXMLStreamEx> in = XmlStream(text.c_str());
  CDateTimer back;
  EXPECT_EQ(back.Load(in, 0), S_OK);
  EXPECT_EQ(back.Year, 1999);
  EXPECT_EQ(back.Month, 12);
  EXPECT_EQ(back.Day, 31);
  EXPECT_EQ(back.Hour, 23);
  EXPECT_EQ(back.Minute, 59);
  EXPECT_EQ(back.Second, 58.125f);
  EXPECT_EQ(back.WeekDay, 6);
}

TEST(DateTimerXml, LoadSearchesTheWholeTextByName) {
  // The first "Day" anywhere wins; prefixes and '#' read as numbers do; absent names keep.
  SmartPtr<IXMLStreamEx> in = XmlStream(
      L"<r><Other><Day>3</Day></Other><DATETIME><Day>9</Day><Month>#0C</Month>"
      L"<Year>+2020</Year><Second>#10</Second></DATETIME></r>");
  ASSERT_TRUE(in);
  CDateTimer t = Make(1, 1, 1, 11, 12, 0.0f);
  t.WeekDay = 2;
  EXPECT_EQ(t.Load(in, 0), S_OK);
  EXPECT_EQ(t.Day, 3);
  EXPECT_EQ(t.Month, 12);
  EXPECT_EQ(t.Year, 2020);
  EXPECT_EQ(t.Second, 16.0f);
  EXPECT_EQ(t.Hour, 11);
  EXPECT_EQ(t.Minute, 12);
  EXPECT_EQ(t.WeekDay, 2);
}

TEST(DateTimerXml, NullStreamIsNotAnError) {
  CDateTimer t = Make(2000, 1, 2, 3, 4, 5.0f);
  EXPECT_EQ(t.Load(nullptr, 0), S_OK);
  EXPECT_EQ(t.Save(nullptr, 0), S_OK);
  EXPECT_EQ(t.Day, 2);
}

TEST(DateTimerFolder, TwoBytesPerFieldAndNoZeroSecond) {
  SmartPtr<IFolderStream> folder = FolderStream();
  ASSERT_TRUE(folder);
  CDateTimer t = Make(2021, 3, 4, 7, 5, 0.0f);
  t.WeekDay = 5;
  EXPECT_EQ(t.Save(folder, 0), S_OK);
  const wchar_t* keys[] = {L"Day", L"Month", L"Year", L"Hour", L"Minute"};
  const short expected[] = {4, 3, 2021, 7, 5};
  for (int i = 0; i < 5; ++i) {
    int type = 0, size = 0;
    ASSERT_EQ(folder->GetEntryInfo(Str(keys[i]), &type, &size), S_OK) << keys[i];
    EXPECT_EQ(size, 2);
    short value = 0;
    folder->ReadData(Str(keys[i]), &value, 2, 0);
    EXPECT_EQ(value, expected[i]);
  }
  EXPECT_LT(folder->GetEntryInfo(Str(L"Second"), nullptr, nullptr), 0);
  EXPECT_LT(folder->GetEntryInfo(Str(L"WeekDay"), nullptr, nullptr), 0);

  CDateTimer back;
  back.Second = 7.5f;
  EXPECT_EQ(back.Load(folder, 0), S_OK);
  EXPECT_EQ(back.Year, 2021);
  EXPECT_EQ(back.Day, 4);
  EXPECT_EQ(back.Minute, 5);
  EXPECT_EQ(back.Second, 7.5f);  // no key: kept
  EXPECT_EQ(back.WeekDay, 0);
}

TEST(DateTimerFolder, ZeroDateWritesNothing) {
  SmartPtr<IFolderStream> folder = FolderStream();
  ASSERT_TRUE(folder);
  EXPECT_EQ(CDateTimer().Save(folder, 0), S_FALSE);
  SmartPtr<INamedCollection> entries = QueryAs<INamedCollection>(folder.get());
  ASSERT_TRUE(entries);
  int count = -1;
  entries->get_Count(&count);
  EXPECT_EQ(count, 0);
}
