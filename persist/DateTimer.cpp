#include "persist/DateTimer.h"

#include <climits>
#include <cmath>
#include <cstdint>

#include "frame/Conversions.h"
#include "frame/Object.h"
#include "persist/FileArchiveImpl.h"

namespace {

bool IsLeapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int MonthLength(int month, int year) {
  static const int kLengths[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (month == 2 && IsLeapYear(year)) return 29;
  return kLengths[month - 1];
}

const wchar_t* const kMonthNames[12] = {L"Jan", L"Feb", L"Mar", L"Apr", L"May", L"Jun",
                                        L"Jul", L"Aug", L"Sep", L"Oct", L"Nov", L"Dec"};
const wchar_t* const kDayNames[7] = {L"Sun", L"Mon", L"Tue", L"Wed", L"Thu", L"Fri", L"Sat"};

// Field names in the order of the XML form.
const wchar_t* const kXmlKeys[7] = {L"WeekDay", L"Day", L"Month", L"Year", L"Hour", L"Minute", L"Second"};

// A host string for a literal key; released by the holder.
SmartPtr<IString> Key(const wchar_t* text) {
  SmartPtr<IString> key;
  key.Attach(ISCreate(text));
  return key;
}

// The text of a number as the stream forms write it: a variant converted by ISCreate.
SmartPtr<IString> IntegerText(int value) {
  SmartPtr<IString> text;
  SmartPtr<IVariant> variant;
  variant.Attach(CREFString::CreateVariant());
  if (!variant) return text;
  variant->put_Integer(value);
  text.Attach(ISCreate(variant.get()));
  return text;
}

SmartPtr<IString> DoubleText(double value) {
  SmartPtr<IString> text;
  SmartPtr<IVariant> variant;
  variant.Attach(CREFString::CreateVariant());
  if (!variant) return text;
  variant->put_Double(value);
  text.Attach(ISCreate(variant.get()));
  return text;
}

}  // namespace

void CDateTimer::FromTm(const struct tm& broken) {
  Day = static_cast<short>(broken.tm_mday);
  Month = static_cast<short>(broken.tm_mon + 1);
  Year = static_cast<short>(broken.tm_year + 1900);
  Hour = static_cast<short>(broken.tm_hour);
  Minute = static_cast<short>(broken.tm_min);
  Second = static_cast<float>(broken.tm_sec);
}

HRESULT CDateTimer::Reset() {
  m_Time = time(nullptr);
  struct tm broken;
  if (!localtime_r(&m_Time, &broken)) return S_OK;
  FromTm(broken);
  WeekDay = static_cast<short>(broken.tm_wday + 1);
  return S_OK;
}

HRESULT CDateTimer::SetLinuxTime(long seconds) {
  m_Time = static_cast<time_t>(seconds);
  struct tm broken;
  if (!localtime_r(&m_Time, &broken)) return S_OK;  // out of the range localtime handles
  FromTm(broken);
  return S_OK;
}

HRESULT CDateTimer::SetLinuxTime(struct statx_timestamp* stamp) {
  Day = 1;
  Month = 1;
  Year = 1970;
  Hour = 0;
  Minute = 0;
  Second = 0.0f;
  if (!stamp) return S_OK;

  // The day count is an int; stamps beyond its range are held at its ends.
  double seconds = static_cast<double>(stamp->tv_sec);
  const double limit = static_cast<double>(INT_MAX) * 86400.0;
  if (seconds > limit) seconds = limit;
  if (seconds < -limit) seconds = -limit;
  int days = static_cast<int>(std::floor(seconds / 86400.0));
  double rest = seconds - static_cast<double>(days) * 86400.0;
  const int hour = static_cast<int>(rest / 3600.0);
  rest -= hour * 3600.0;
  const int minute = static_cast<int>(rest / 60.0);
  rest -= minute * 60.0;

  // The length taken off is that of the year stepped into (see the header).
  int year = 1970;
  int length = 365;
  while (!(length > days)) {
    ++year;
    length = IsLeapYear(year) ? 366 : 365;
    days -= length;
  }

  const int d = days + 1;
  int month = 1;
  int before = 0;
  while (month < 12 && before + MonthLength(month, year) < d) {
    before += MonthLength(month, year);
    ++month;
  }

  Year = static_cast<short>(year);
  Month = static_cast<short>(month);
  Day = static_cast<short>(d - before);
  Hour = static_cast<short>(hour);
  Minute = static_cast<short>(minute);
  Second = static_cast<float>(rest);
  Second = static_cast<float>(Second + stamp->tv_nsec / 1e9);
  return S_OK;
}

int CDateTimer::GetDayOfWeek(short day, short month, short year) {
  static const int t[12] = {0, 3, 2, 5, 0, 3, 5, 1, 4, 6, 2, 4};
  if (month < 1 || month > 12) return -1;
  int y = year;
  if (month < 3) y -= 1;
  return (y + y / 4 - y / 100 + y / 400 + t[month - 1] + day) % 7;
}

IString* CDateTimer::GetString(int format) {
  if (format == 0) format = 6;
  wchar_t buffer[256];
  buffer[0] = L'\0';
  const double second = Second;

  if (format & DATETIME_FILENAME) {
    _swprintf(buffer, 256, L"%d%02d%02d_%d%d%02.0f", Year, Month, Day, Hour, Minute, second);
    return ISCreate(buffer);
  }
  if (format & DATETIME_HTTP) {
    WeekDay = static_cast<short>(GetDayOfWeek(Day, Month, Year) + 1);
    const wchar_t* dayName = (WeekDay >= 1 && WeekDay <= 7) ? kDayNames[WeekDay - 1] : L"???";
    // A month outside the table has no name; the text shows what a formatter shows for null.
    const wchar_t* monthName = (Month >= 1 && Month <= 12) ? kMonthNames[Month - 1] : L"(null)";
    _swprintf(buffer, 256, L"%ls, %d-%ls-%d %d:%d:%0.0f GMT", dayName, Day, monthName, Year, Hour, Minute,
              second);
    return ISCreate(buffer);
  }

  int used = 0;
  auto append = [&](int written) {
    if (written > 0) used += written;
  };
  if (format & DATETIME_YMD)
    append(_swprintf(buffer + used, 256 - used, L"%d-%02d-%02d ", Year, Month, Day));
  else if (format & DATETIME_DMY)
    append(_swprintf(buffer + used, 256 - used, L"%02d-%02d-%d ", Day, Month, Year));
  if (format & DATETIME_TIME_TENTHS)
    append(_swprintf(buffer + used, 256 - used, L" %d:%d:%0.1f", Hour, Minute, second));
  if (format & DATETIME_TIME)
    append(_swprintf(buffer + used, 256 - used, L" %d:%d:%0.0f", Hour, Minute, second));
  if (format & DATETIME_ZONE) append(_swprintf(buffer + used, 256 - used, L" (GMT %+d)", 0));
  buffer[used] = L'\0';
  return ISCreate(buffer);
}

HRESULT CDateTimer::Save(IDataStream* stream, int) {
  if (IsZero()) return S_FALSE;
  if (!stream) return S_OK;

  SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream);
  if (xml) {
    SmartPtr<IString> tag = Key(L"DATETIME");
    xml->OpenTag(tag, 0, 0);
    const short values[6] = {WeekDay, Day, Month, Year, Hour, Minute};
    for (int i = 0; i < 6; ++i) {
      SmartPtr<IString> name = Key(kXmlKeys[i]);
      SmartPtr<IString> text = IntegerText(values[i]);
      xml->WriteValue(name, 0, text, 0);
    }
    SmartPtr<IString> name = Key(kXmlKeys[6]);
    SmartPtr<IString> text = DoubleText(Second);
    xml->WriteValue(name, 0, text, 0);
    xml->CloseTag();
    return S_OK;
  }

  SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream);
  if (folder) {
    short* const fields[5] = {&Day, &Month, &Year, &Hour, &Minute};
    for (int i = 0; i < 5; ++i) {
      SmartPtr<IString> name = Key(kXmlKeys[i + 1]);
      folder->WriteData(name, fields[i], 2, 0);
    }
    if (Second != 0.0f) {
      SmartPtr<IString> name = Key(L"Second");
      folder->WriteData(name, &Second, 4, 0);
    }
  }
  return S_OK;
}

HRESULT CDateTimer::Load(IDataStream* stream, int) {
  if (!stream) return S_OK;

  SmartPtr<IXMLStream> xml = QueryAs<IXMLStream>(stream);
  if (xml) {
    CREFString text(stream);  // the whole text, searched afresh for each name
    short* const fields[6] = {&WeekDay, &Day, &Month, &Year, &Hour, &Minute};
    for (int i = 0; i < 7; ++i) {
      CREFString tag(kXmlKeys[i], static_cast<int>(std::wcslen(kXmlKeys[i])));
      CREFString attributes, value;
      if (XMLGetTAGGED(text, tag, attributes, value, 0) != S_OK) continue;
      if (i < 6)
        *fields[i] = static_cast<short>(_IS2Integer(value, 10));
      else
        Second = static_cast<float>(_IS2Double(value));
    }
  }

  SmartPtr<IFolderStream> folder = QueryAs<IFolderStream>(stream);
  if (folder) {
    short* const fields[5] = {&Day, &Month, &Year, &Hour, &Minute};
    for (int i = 0; i < 5; ++i) {
      SmartPtr<IString> name = Key(kXmlKeys[i + 1]);
      short value = 0;
      if (folder->ReadData(name, &value, 2, 0) >= 0) *fields[i] = value;
    }
    SmartPtr<IString> name = Key(L"Second");
    float value = 0.0f;
    if (folder->ReadData(name, &value, 4, 0) >= 0) Second = value;
  }
  return S_OK;
}
