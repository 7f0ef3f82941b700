#include "zarn/host/gnss_time.hpp"

#include <cmath>

#include "zarn/support/time_conversion.hpp"

namespace zarn {
namespace host {

namespace {

// Days from 1970-01-01 to the GPS epoch 1980-01-06 and to the BDT epoch 2006-01-01.
constexpr std::int64_t kGpsEpochDays = 3657;
constexpr std::int64_t kBdtEpochDays = 13149;

// First UTC day (year, month) of each GPS - UTC step, IERS Bulletin C; the
// value after the step is the entry's index + 1.
struct LeapStep {
  int year;
  int month;
};
constexpr LeapStep kLeapSteps[] = {{1981, 7}, {1982, 7}, {1983, 7}, {1985, 7}, {1988, 1}, {1990, 1},
                                   {1991, 1}, {1992, 7}, {1993, 7}, {1994, 7}, {1996, 1}, {1997, 7},
                                   {1999, 1}, {2006, 1}, {2009, 1}, {2012, 7}, {2015, 7}, {2017, 1}};

double secondsOfDay(CalendarTime const& c) {
  return c.hour * 3600.0 + c.minute * 60.0 + c.second;
}

CalendarTime calendarFromDaySeconds(std::int64_t epochDays, double seconds) {
  double const days = std::floor(seconds / kSecondsPerDay);
  double rest = seconds - days * kSecondsPerDay;
  CalendarTime c;
  civilFromDays(epochDays + static_cast<std::int64_t>(days), c.year, c.month, c.day);
  c.hour = static_cast<int>(rest / 3600.0);
  rest -= c.hour * 3600.0;
  c.minute = static_cast<int>(rest / 60.0);
  c.second = rest - c.minute * 60.0;
  return c;
}

// The inverse: seconds of c since the day `epochDays` began.
double daySecondsFromCalendar(std::int64_t epochDays, CalendarTime const& c) {
  return static_cast<double>(daysFromCivil(c.year, c.month, c.day) - epochDays) * kSecondsPerDay +
         secondsOfDay(c);
}

}  // namespace

// H. Hinnant's civil-from-days algorithms (proleptic Gregorian, 400-year eras).
std::int64_t daysFromCivil(int year, int month, int day) {
  std::int64_t const y = static_cast<std::int64_t>(year) - (month <= 2 ? 1 : 0);
  std::int64_t const era = (y >= 0 ? y : y - 399) / 400;
  std::int64_t const yoe = y - era * 400;
  std::int64_t const doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  std::int64_t const doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

void civilFromDays(std::int64_t days, int& year, int& month, int& day) {
  std::int64_t const z = days + 719468;
  std::int64_t const era = (z >= 0 ? z : z - 146096) / 146097;
  std::int64_t const doe = z - era * 146097;
  std::int64_t const yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  std::int64_t const doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  std::int64_t const mp = (5 * doy + 2) / 153;
  day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  year = static_cast<int>(yoe + era * 400 + (month <= 2 ? 1 : 0));
}

int daysInMonth(int year, int month) {
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (month < 1 || month > 12) return 0;
  bool const leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return kDays[month - 1] + (month == 2 && leap ? 1 : 0);
}

bool validCalendar(CalendarTime const& c) {
  return c.month >= 1 && c.month <= 12 && c.day >= 1 && c.day <= daysInMonth(c.year, c.month) &&
         c.hour >= 0 && c.hour <= 23 && c.minute >= 0 && c.minute <= 59 && c.second >= 0.0 && c.second < 61.0;
}

double gpsSecondsFromCalendar(CalendarTime const& c) {
  return daySecondsFromCalendar(kGpsEpochDays, c);
}

CalendarTime calendarFromGpsSeconds(double gpsSeconds) {
  return calendarFromDaySeconds(kGpsEpochDays, gpsSeconds);
}

double bdtSecondsFromCalendar(CalendarTime const& c) {
  return daySecondsFromCalendar(kBdtEpochDays, c);
}

CalendarTime calendarFromBdtSeconds(double bdtSeconds) {
  return calendarFromDaySeconds(kBdtEpochDays, bdtSeconds);
}

int gpsMinusUtc(CalendarTime const& utc) {
  std::int64_t const day = daysFromCivil(utc.year, utc.month, utc.day);
  int count = 0;
  for (LeapStep const& step : kLeapSteps) {
    if (day < daysFromCivil(step.year, step.month, 1)) break;
    ++count;
  }
  return count;
}

double gpsSecondsFromUtc(CalendarTime const& utc) {
  return gpsSecondsFromCalendar(utc) + gpsMinusUtc(utc);
}

bool glonassTocFromUtc(CalendarTime const& utc, core::Toc& toc) {
  // GLONASS seconds: the UTC calendar count since 1995-12-31 21:00 UTC, that is
  // Moscow time since 1996-01-01, with no leap seconds.
  double const seconds = std::round(gpsSecondsFromCalendar(utc) - support::GLONASS_EPOCH_GPS_SECONDS);
  if (seconds < 0.0) return false;
  toc = support::secsToGlonass(seconds);
  return true;
}

std::vector<support::LeapInfo> leapSecondTable() {
  std::vector<support::LeapInfo> table;
  int count = 0;
  for (LeapStep const& step : kLeapSteps) {
    ++count;
    if (count <= support::BUILTIN_LEAP_SECOND_COUNT) continue;
    // The last second of the day before the step, counted without leap seconds.
    double const last =
        static_cast<double>(daysFromCivil(step.year, step.month, 1) - kGpsEpochDays) * kSecondsPerDay - 1.0;
    table.push_back(support::LeapInfo{static_cast<std::uint64_t>(last), static_cast<std::int8_t>(count)});
  }
  return table;
}

}  // namespace host
}  // namespace zarn
