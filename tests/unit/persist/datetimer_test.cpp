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

CDateTimer Make(short year, short month, short day, short hour, short minute, float second, short weekDay = 0) {
  CDateTimer t;
  static_cast<tagDATETIME&>(t) = tagDATETIME{day, month, year, hour, minute, second, weekDay};
  return t;
}

// Every field, the week day included.
std::wstring Fields(const CDateTimer& t) {
  return std::to_wstring(t.Year) + L"-" + std::to_wstring(t.Month) + L"-" + std::to_wstring(t.Day) + L" " +
         std::to_wstring(t.Hour) + L":" + std::to_wstring(t.Minute) + L":" + std::to_wstring(t.Second) + L" w" +
         std::to_wstring(t.WeekDay);
}

bool IsLeap(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

}  // namespace

TEST(DateTimerStamp, WithinALeapYearAndOnTheNextNewYearTheDayIsOneEarly) {
  EXPECT_EQ(Fields(FromStamp(63072000)), Fields(Make(1972, 1, 0, 0, 0, 0, 9)));          // 1972-01-01
  EXPECT_EQ(Fields(FromStamp(94694400)), Fields(Make(1972, 12, 31, 0, 0, 0, 9)));        // 1973-01-01
  EXPECT_EQ(Fields(FromStamp(94694400 + kDay)), Fields(Make(1973, 1, 2, 0, 0, 0, 9)));  // 1973-01-02
  // The nanoseconds go into the second.
  EXPECT_EQ(Fields(FromStamp(94694400 + 13 * 3600 + 7 * 60 + 42, 250000000)), Fields(Make(1972, 12, 31, 13, 7, 42.25f, 9)));
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
    ASSERT_EQ(Fields(t), Fields(Make(eYear, eMonth, eDay, g.tm_hour, g.tm_min, g.tm_sec, 9))) << s;
  }
}

TEST(DateTimerStamp, ExtremeStampsStayInRange) {
  for (long long s : {-9223372036854775807LL, 9223372036854775807LL, -1LL}) {
    const CDateTimer t = FromStamp(s, 999999999u);
    EXPECT_TRUE(t.Hour >= 0 && t.Hour < 24 && t.Minute >= 0 && t.Minute < 60) << s;
  }
  CDateTimer t;
  EXPECT_EQ(t.SetLinuxTime(static_cast<struct statx_timestamp*>(nullptr)), S_OK);
}

TEST(DateTimerLocal, SecondsCountUsesLocalTimeAndKeepsWeekDay) {
  const char* oldZone = std::getenv("TZ");
  const std::string saved = oldZone ? oldZone : "";
  CDateTimer t;
  t.WeekDay = 3;
  setenv("TZ", "EST5", 1);
  tzset();
  t.SetLinuxTime(365L * kDay + 3 * 3600 + 4 * 60 + 5);  // 1971-01-01 03:04:05 universal time
  EXPECT_EQ(Fields(t), Fields(Make(1970, 12, 31, 22, 4, 5, 3)));
  if (oldZone)
    setenv("TZ", saved.c_str(), 1);
  else
    unsetenv("TZ");
  tzset();
}

TEST(DateTimerDayOfWeek, KnownDatesAndMonthsOutsideTheTable) {
  EXPECT_EQ(CDateTimer::GetDayOfWeek(1, 1, 1970), 4);   // Thursday
  EXPECT_EQ(CDateTimer::GetDayOfWeek(1, 1, 2000), 6);   // Saturday
  EXPECT_EQ(CDateTimer::GetDayOfWeek(29, 2, 2024), 4);  // Thursday
  EXPECT_EQ(CDateTimer::GetDayOfWeek(1, 3, 2100), 1);   // Monday
  EXPECT_EQ(CDateTimer::GetDayOfWeek(1, 0, 2021), -1);
  EXPECT_EQ(CDateTimer::GetDayOfWeek(1, 13, 2021), -1);
}

TEST(DateTimerText, EachFormatBitAddsItsPartInItsOrder) {
  const CDateTimer t = Make(2021, 3, 4, 17, 45, 9.96f);
  const CDateTimer early = Make(2021, 3, 4, 7, 5, 9.0f);
  const struct {
    CDateTimer timer;
    int format;
    const wchar_t* text;
  } cases[] = {
      {CDateTimer(), 0, L"0-00-00  0:0:0.0"},
      {early, 0, L"2021-03-04  7:5:9.0"},  // 0 means 6
      {t, 0x1, L"04-03-2021 "},
      {t, 0x3, L"2021-03-04 "},  // year first wins
      {t, 0x4, L" 17:45:10.0"},
      {t, 0x8, L" 17:45:10"},
      {t, 0x10, L" (GMT +0)"},
      {t, 0x1F, L"2021-03-04  17:45:10.0 17:45:10 (GMT +0)"},
      {t, 0x40, L""},
      {early, 0x100 | 0x200 | 0x2, L"20210304_7509"},  // the file name form alone
      {early, 0x200 | 0x1, L"Thu, 4-Mar-2021 7:5:9 GMT"},  // the internet form alone
      {Make(2021, 3, 7, 23, 59, 59.4f), 0x200, L"Sun, 7-Mar-2021 23:59:59 GMT"},
      {Make(2021, 0, 4, 7, 5, 9.0f), 0x200, L"???, 4-(null)-2021 7:5:9 GMT"},  // not read outside the tables
  };
  for (const auto& c : cases) {
    CDateTimer timer = c.timer;
    EXPECT_EQ(Take(timer.GetString(c.format)), c.text) << c.format;
  }
}

TEST(DateTimerText, TheInternetFormSetsTheWeekDay) {
  CDateTimer t = Make(2021, 3, 7, 7, 5, 9.0f);
  Take(t.GetString(0x200));
  EXPECT_EQ(t.WeekDay, 1);
}

TEST(DateTimerXml, SavesOneElementWithEveryFieldInOrderAndReadsItBack) {
  SmartPtr<IXMLStreamEx> xml = XmlStream();
  ASSERT_TRUE(xml);
  const CDateTimer saved = Make(1999, 12, 31, 23, 59, 58.125f, 6);
  EXPECT_EQ(CDateTimer(saved).Save(xml, 0), S_OK);
  const std::wstring text = StreamText(xml.get());
  EXPECT_EQ(Flat(text),
            L"<DATETIME><WeekDay>6</WeekDay><Day>31</Day><Month>12</Month><Year>1999</Year><Hour>23</Hour>"
            L"<Minute>59</Minute><Second>58.125</Second></DATETIME>");
  CDateTimer back;
  EXPECT_EQ(back.Load(XmlContent(L"<r>" + text + L"</r>"), 0), S_OK);
  EXPECT_EQ(Fields(back), Fields(saved));
}

TEST(DateTimerXml, LoadTakesTheFirstElementOfEachNameAnywhereAndKeepsAbsentFields) {
  // Prefixes and '#' read as numbers do.
  CDateTimer t = Make(1, 1, 1, 11, 12, 0.0f, 2);
  EXPECT_EQ(t.Load(XmlContent(L"<r><Other><Day>3</Day></Other><DATETIME><Day>9</Day><Month>#0C</Month>"
                              L"<Year>+2020</Year><Second>#10</Second></DATETIME></r>"),
                   0),
            S_OK);
  EXPECT_EQ(Fields(t), Fields(Make(2020, 12, 3, 11, 12, 16.0f, 2)));
}

TEST(DateTimerStreams, AZeroDateWritesNothing) {
  CDateTimer zero;
  zero.Hour = 5;  // only the date counts
  SmartPtr<IXMLStreamEx> xml = XmlStream();
  SmartPtr<IFolderStream> folder = FolderStream();
  ASSERT_TRUE(xml && folder);
  EXPECT_EQ(zero.Save(xml, 0), S_FALSE);
  EXPECT_EQ(StreamText(xml.get()), L"");
  EXPECT_EQ(zero.Save(folder, 0), S_FALSE);
  EXPECT_EQ(StreamText(folder.get()), L"");
}

TEST(DateTimerFolder, TwoBytesPerFieldNoWeekDayAndNoZeroSecond) {
  SmartPtr<IFolderStream> folder = FolderStream();
  ASSERT_TRUE(folder);
  EXPECT_EQ(Make(2021, 3, 4, 7, 5, 0.0f, 5).Save(folder, 0), S_OK);
  EXPECT_EQ(StreamText(folder.get()), L"Day: data[2]\nMonth: data[2]\nYear: data[2]\nHour: data[2]\nMinute: data[2]\n");
  CDateTimer back;
  back.Second = 7.5f;  // no key: kept
  EXPECT_EQ(back.Load(folder, 0), S_OK);
  EXPECT_EQ(Fields(back), Fields(Make(2021, 3, 4, 7, 5, 7.5f)));
  CDateTimer withSecond = Make(2021, 3, 4, 7, 5, 1.5f);
  EXPECT_EQ(withSecond.Save(folder, 0), S_OK);
  EXPECT_EQ(back.Load(folder, 0), S_OK);
  EXPECT_EQ(back.Second, 1.5f);
}
