// Time stamp of a calibration: a broken-down date and time with its text and stream forms.
#pragma once

#include <sys/stat.h>  // struct statx_timestamp: signed 64-bit seconds, unsigned 32-bit nanoseconds

#include <ctime>

#include "frame/HostInterfaces.h"

// Plain record; all zero in Day, Month and Year means "no time set".
struct tagDATETIME {
  short Day;      // day of the month
  short Month;    // 1 to 12
  short Year;     // full year
  short Hour;     // 0 to 23
  short Minute;   // 0 to 59
  float Second;   // seconds with their fraction
  short WeekDay;  // 1 Sunday to 7 Saturday, 0 unknown
};

// GetString format bits.
enum DateTimeFormat {
  DATETIME_DMY = 0x1,          // "%02d-%02d-%d " day, month, year (when 0x2 is clear)
  DATETIME_YMD = 0x2,          // "%d-%02d-%02d " year, month, day
  DATETIME_TIME_TENTHS = 0x4,  // " %d:%d:%0.1f"
  DATETIME_TIME = 0x8,         // " %d:%d:%0.0f"
  DATETIME_ZONE = 0x10,        // " (GMT +0)"
  DATETIME_FILENAME = 0x100,   // "%d%02d%02d_%d%d%02.0f", alone
  DATETIME_HTTP = 0x200,       // "Sun, 4-Mar-2021 7:5:9 GMT", alone; sets WeekDay
};

class CDateTimer : public tagDATETIME {
 public:
  CDateTimer() : tagDATETIME{0, 0, 0, 0, 0, 0.0f, 0} {}
  CDateTimer(const CDateTimer&) = default;
  CDateTimer& operator=(const CDateTimer&) = default;

  // Now, in local time, all fields including WeekDay.
  virtual HRESULT Reset();
  // A count of seconds since 1970, in local time; WeekDay is left alone.
  virtual HRESULT SetLinuxTime(long seconds);
  // A file time stamp, in universal time, computed field by field; WeekDay is left alone.
  // Within a leap year the day comes out one less than the true one, and January 1 of the
  // year after reads as December 31 of the leap year (the year length subtracted is that
  // of the year stepped into). Kept so because stored stamps were made that way.
  virtual HRESULT SetLinuxTime(struct statx_timestamp* stamp);
  // XML stream: a DATETIME element; folder stream: keys Day..Minute (2 bytes each) and
  // Second (4-byte float, only when non-zero). A zero date writes nothing (S_FALSE).
  virtual HRESULT Save(IDataStream* stream, int options);
  // XML: each field from the first element of its name anywhere in the stream's text;
  // folder: the keys written by Save. Missing values leave their fields.
  virtual HRESULT Load(IDataStream* stream, int options);

  // A new host string with one reference; format 0 means 6 (DATETIME_YMD | DATETIME_TIME_TENTHS).
  IString* GetString(int format);
  // 0 Sunday to 6 Saturday; -1 for a month outside 1 to 12 (the table has no row for it).
  static int GetDayOfWeek(short day, short month, short year);

  bool IsZero() const { return Day == 0 && Month == 0 && Year == 0; }

 protected:
  time_t m_Time = 0;  // scratch of Reset and SetLinuxTime(long)

 private:
  void FromTm(const struct tm& broken);
};
