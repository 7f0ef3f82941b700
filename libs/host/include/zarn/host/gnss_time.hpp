// Calendar arithmetic for the file readers; the broadcast time records
// themselves come from the library's time conversions.
//
// Calendar dates are proleptic Gregorian. "Seconds on a scale" means a uniform
// count from that scale's epoch with no leap seconds: GPS seconds from
// 1980-01-06 00:00 GPS time, BeiDou (BDT) seconds from 2006-01-01 00:00 BDT.
#ifndef ZARN_HOST_GNSS_TIME_HPP
#define ZARN_HOST_GNSS_TIME_HPP

#include <cstdint>
#include <vector>

#include "zarn/core/records.hpp"

namespace zarn {
namespace host {

constexpr double kSecondsPerDay = 86400.0;
constexpr double kSecondsPerWeek = 604800.0;
constexpr int kWeeksPerGpsCycle = 1024;
// BDT = GPST - 14 s, and the BDT epoch is GPS week 1356 (BDS-SIS-ICD-B1I 4.3).
constexpr double kBdtEpochInGpsSeconds = 820108814.0;
// Moscow time = UTC + 3 h; GLONASS time runs on it (GLONASS ICD 3.3.3).
constexpr double kMoscowMinusUtc = 10800.0;

struct CalendarTime {
  int year = 1980;
  int month = 1;
  int day = 6;
  int hour = 0;
  int minute = 0;
  double second = 0.0;
};

// Days from 1970-01-01 to the given civil date (negative before).
std::int64_t daysFromCivil(int year, int month, int day);
// The civil date `days` days after 1970-01-01.
void civilFromDays(std::int64_t days, int& year, int& month, int& day);
int daysInMonth(int year, int month);
// Month 1..12, day within the month, hour 0..23, minute 0..59, second in [0, 61).
bool validCalendar(CalendarTime const& c);

// Seconds from the GPS epoch to `c`, both read on one uniform scale
// (exact for GPS time; for BDT or UTC calendars it is only a day count).
double gpsSecondsFromCalendar(CalendarTime const& c);
CalendarTime calendarFromGpsSeconds(double gpsSeconds);
// BDT seconds from the BDT epoch to the BDT calendar instant `c`, and back.
double bdtSecondsFromCalendar(CalendarTime const& c);
CalendarTime calendarFromBdtSeconds(double bdtSeconds);

// GPS - UTC in whole seconds at the UTC calendar instant `utc`, from the
// leap seconds announced in IERS Bulletin C up to the one of 2017-01-01
// (18 s); later instants keep 18 s until this table is extended.
int gpsMinusUtc(CalendarTime const& utc);
// GPS seconds of the UTC calendar instant `utc`.
double gpsSecondsFromUtc(CalendarTime const& utc);

// GLONASS Toc of a UTC calendar instant: {four-year period since 1996
// (0 = 1996-1999), day in the period from 0, seconds of the Moscow day rounded
// to the nearest second}. Returns false for instants before 1996 (Moscow time).
bool glonassTocFromUtc(CalendarTime const& utc, core::Toc& toc);

// The leap seconds after the library's built-in table (which ends with the one
// of 2015-06-30), as the caller's table of the library's time conversions.
std::vector<support::LeapInfo> leapSecondTable();

}  // namespace host
}  // namespace zarn

#endif
