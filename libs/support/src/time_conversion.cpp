#include "zarn/support/time_conversion.hpp"

#include <cmath>
#include <cstddef>
#include <cstdint>

#include "zarn/support/log.hpp"

namespace zarn {
namespace support {
namespace {

using core::Toc;

constexpr std::uint32_t DAYS_PER_WEEK = 7;
constexpr std::uint32_t GPS_WEEKS_PER_CYCLE = 1024;
constexpr std::uint32_t BEIDOU_WEEKS_PER_CYCLE = 8192;
constexpr std::uint32_t GLONASS_DAYS_PER_PERIOD = 1460;  // without leap days
constexpr std::uint32_t GLONASS_YEARS_PER_PERIOD = 4;
constexpr std::uint32_t GLONASS_FIRST_YEAR = 1996;
constexpr unsigned SLP_DAY_SHIFT = 17;
constexpr unsigned SLP_SECONDS_MASK = 0x1FFFF;

// Days from 1970-01-01 to the proleptic Gregorian date y-m-d (H. Hinnant,
// "chrono-Compatible Low-Level Date Algorithms", days_from_civil).
constexpr std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2 ? 1 : 0;
  std::int64_t const era = (y >= 0 ? y : y - 399) / 400;
  std::int64_t const yoe = y - era * 400;
  std::int64_t const doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  std::int64_t const doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

// GPS-second count, without leap seconds, of 23:59:59 on y-m-d.
constexpr std::uint64_t lastSecondOf(std::int64_t y, unsigned m, unsigned d) {
  return static_cast<std::uint64_t>(daysFromCivil(y, m, d) - daysFromCivil(1980, 1, 6)) * SECONDS_PER_DAY +
         SECONDS_PER_DAY - 1;
}

// Days before the leap seconds since the GPS epoch (IERS Bulletin C); GPS-UTC
// is k seconds after entry k (counted from 1).
constexpr std::uint64_t BUILTIN_LEAPS[BUILTIN_LEAP_SECOND_COUNT] = {
    lastSecondOf(1981, 6, 30),  lastSecondOf(1982, 6, 30),  lastSecondOf(1983, 6, 30),
    lastSecondOf(1985, 6, 30),  lastSecondOf(1987, 12, 31), lastSecondOf(1989, 12, 31),
    lastSecondOf(1990, 12, 31), lastSecondOf(1992, 6, 30),  lastSecondOf(1993, 6, 30),
    lastSecondOf(1994, 6, 30),  lastSecondOf(1995, 12, 31), lastSecondOf(1997, 6, 30),
    lastSecondOf(1998, 12, 31), lastSecondOf(2005, 12, 31), lastSecondOf(2008, 12, 31),
    lastSecondOf(2012, 6, 30),  lastSecondOf(2015, 6, 30)};
static_assert(BUILTIN_LEAPS[0] == 46828799, "first built-in leap second");
static_assert(BUILTIN_LEAPS[BUILTIN_LEAP_SECOND_COUNT - 1] == 1119743999, "last built-in leap second");

// Gregorian leap years before year y (from year 1).
constexpr std::int64_t leapYearsBefore(std::int64_t y) {
  return y > 1 ? (y - 1) / 4 - (y - 1) / 100 + (y - 1) / 400 : 0;
}

// Gregorian leap years in [a, b).
constexpr std::int64_t leapYearsIn(std::int64_t a, std::int64_t b) {
  return leapYearsBefore(b) - leapYearsBefore(a);
}

// Leap days in the GLONASS periods before period n.
std::uint64_t glonassLeapDaysBefore(std::uint64_t n) {
  return static_cast<std::uint64_t>(
      leapYearsIn(GLONASS_FIRST_YEAR, GLONASS_FIRST_YEAR + GLONASS_YEARS_PER_PERIOD * n));
}

// GLONASS seconds at the start of four-year period n.
std::uint64_t glonassPeriodStart(std::uint64_t n) {
  return n * GLONASS_PERIOD_SECONDS + SECONDS_PER_DAY * glonassLeapDaysBefore(n);
}

unsigned packSlp(std::uint32_t days, std::uint32_t secondsOfDay) {
  return days << SLP_DAY_SHIFT | secondsOfDay;
}

// Week, cycle and rounded seconds of week of a non-negative time.
Toc splitWeeks(double t, double cycle) {
  Toc toc;
  double const first = std::floor(t / cycle);
  double const second = std::floor(std::fmod(t, cycle) / SECONDS_PER_WEEK);
  toc.first = static_cast<std::uint32_t>(first);
  toc.second = static_cast<std::uint32_t>(second);
  toc.third = static_cast<std::uint32_t>(std::round(t - (second * SECONDS_PER_WEEK + first * cycle)));
  return toc;
}

// Continuous seconds of a week-counting Toc (cycle, week, seconds of week).
double weekTocToSecs(Toc const& toc, double cycleSeconds) {
  return static_cast<double>(toc.second) * SECONDS_PER_WEEK + static_cast<double>(toc.first) * cycleSeconds +
         toc.third;
}

unsigned weekTocToSlp(Toc const& toc, std::uint32_t weeksPerCycle) {
  std::uint32_t const days =
      DAYS_PER_WEEK * (toc.second + weeksPerCycle * toc.first) + toc.third / SECONDS_PER_DAY;
  return packSlp(days, toc.third % SECONDS_PER_DAY);
}

// The SLP day count holds at most 2^15 days, fewer than a BeiDou cycle of weeks.
Toc slpToWeekToc(unsigned word, std::uint32_t weeksPerCycle) {
  std::uint32_t const days = word >> SLP_DAY_SHIFT;
  std::uint32_t const week = days / DAYS_PER_WEEK;
  Toc toc;
  toc.first = week / weeksPerCycle;
  toc.second = week % weeksPerCycle;
  toc.third = (word & SLP_SECONDS_MASK) + (days % DAYS_PER_WEEK) * SECONDS_PER_DAY;
  return toc;
}

}  // namespace

double gpsToGpsSecs(Toc const& toc) {
  return weekTocToSecs(toc, GPS_CYCLE_SECONDS);
}

Toc gpsSecsToGps(double t) {
  if (!(t >= 0.0) || !std::isfinite(t)) return Toc{};
  return splitWeeks(t, GPS_CYCLE_SECONDS);
}

unsigned gpsToSlp(Toc const& toc) {
  return weekTocToSlp(toc, GPS_WEEKS_PER_CYCLE);
}

Toc slpToGps(unsigned word) {
  return slpToWeekToc(word, GPS_WEEKS_PER_CYCLE);
}

double beidouToSecs(Toc const& toc) {
  return weekTocToSecs(toc, static_cast<double>(BEIDOU_CYCLE_SECONDS));
}

Toc secsToBeidou(double t) {
  if (!(t > 0.0) || !std::isfinite(t)) return Toc{};
  return splitWeeks(t, static_cast<double>(BEIDOU_CYCLE_SECONDS));
}

double beidouSecsToGpsSecs(double t) {
  return t + BEIDOU_GPS_OFFSET_SECONDS;
}

double gpsSecsToBeidouSecs(double t) {
  return t - BEIDOU_GPS_OFFSET_SECONDS;
}

unsigned beidouToSlp(Toc const& toc) {
  return weekTocToSlp(toc, BEIDOU_WEEKS_PER_CYCLE);
}

Toc slpToBeidou(unsigned word) {
  return slpToWeekToc(word, BEIDOU_WEEKS_PER_CYCLE);
}

double glonassToSecs(Toc const& toc) {
  return static_cast<double>(glonassPeriodStart(toc.first)) +
         static_cast<double>(toc.second) * SECONDS_PER_DAY + toc.third;
}

Toc secsToGlonass(double t) {
  if (!(t > 0.0) || !std::isfinite(t)) return Toc{};
  auto const s = static_cast<std::uint64_t>(t);
  // Step by whole maximal periods; a period is at most 1461 days long, so the
  // estimate never overshoots. A 1460-day period (one holding a century year
  // that is not a leap year) can leave the remainder at exactly its length.
  std::uint64_t n = 0;
  std::uint64_t rest = s;
  while (rest != 0) {
    std::uint64_t const q = rest / GLONASS_MAX_PERIOD_SECONDS;
    if (q == 0) {
      if (glonassPeriodStart(n + 1) == s) ++n;
      break;
    }
    n += q;
    rest = s - glonassPeriodStart(n);
  }
  rest = s - glonassPeriodStart(n);
  Toc toc;
  toc.first = static_cast<std::uint32_t>(n);
  toc.second = static_cast<std::uint32_t>(rest / SECONDS_PER_DAY);
  toc.third = static_cast<std::uint32_t>(rest % SECONDS_PER_DAY);
  return toc;
}

unsigned glonassToSlp(Toc const& toc) {
  auto const days = static_cast<std::uint32_t>(toc.first * GLONASS_DAYS_PER_PERIOD +
                                               glonassLeapDaysBefore(toc.first) + toc.second);
  return packSlp(days, toc.third);
}

Toc slpToGlonass(unsigned word) {
  if (word == 0) return Toc{};
  std::uint32_t days = word >> SLP_DAY_SHIFT;
  std::uint32_t n = 0;
  std::int64_t year = GLONASS_FIRST_YEAR + GLONASS_YEARS_PER_PERIOD;  // end of period n
  while (days > 0) {
    auto const length = static_cast<std::uint32_t>(GLONASS_DAYS_PER_PERIOD +
                                                   leapYearsIn(year - GLONASS_YEARS_PER_PERIOD, year));
    if (length > days) break;
    days -= length;
    ++n;
    year += GLONASS_YEARS_PER_PERIOD;
  }
  Toc toc;
  toc.first = n;
  toc.second = days;
  toc.third = word & SLP_SECONDS_MASK;
  return toc;
}

double gpsSecsToGlonassSecs(double t, std::vector<LeapInfo> const& table) {
  return t - leapSeconds(t, true, table) - GLONASS_EPOCH_GPS_SECONDS;
}

double glonassSecsToGpsSecs(double t, std::vector<LeapInfo> const& table) {
  double const utc = t + GLONASS_EPOCH_GPS_SECONDS;
  return utc + leapSeconds(utc, false, table);
}

Toc gpsToGlonass(Toc const& toc, std::vector<LeapInfo> const& table) {
  return secsToGlonass(gpsSecsToGlonassSecs(gpsToGpsSecs(toc), table));
}

Toc glonassToGps(Toc const& toc, std::vector<LeapInfo> const& table) {
  return gpsSecsToGps(glonassSecsToGpsSecs(glonassToSecs(toc), table));
}

Mjd gpsToMJD(Toc const& toc) {
  Mjd mjd;
  mjd.day = toc.third / SECONDS_PER_DAY + GPS_EPOCH_MJD +
            DAYS_PER_WEEK * (toc.second + GPS_WEEKS_PER_CYCLE * toc.first);
  mjd.fraction = std::fmod(static_cast<double>(toc.third), SECONDS_PER_DAY) / SECONDS_PER_DAY;
  return mjd;
}

Mjd gpsSecsToMJD(double t) {
  Mjd mjd;
  mjd.day = static_cast<unsigned>(static_cast<std::int64_t>(t) / SECONDS_PER_DAY + GPS_EPOCH_MJD);
  mjd.fraction = std::fmod(t, SECONDS_PER_DAY) / SECONDS_PER_DAY;
  return mjd;
}

int leapSeconds(double t, bool gpsTime, std::vector<LeapInfo> const& table) {
  // On the GPS scale an instant is compared after adding the offset that
  // holds before it, so the boundary falls on the same physical second.
  for (int k = 0; k < BUILTIN_LEAP_SECOND_COUNT; ++k) {
    if (t <= static_cast<double>(BUILTIN_LEAPS[k] + (gpsTime ? k : 0))) return k;
  }
  if (table.empty()) return BUILTIN_LEAP_SECOND_COUNT;

  // Walk the entries in (time, position) order, the order of a stable sort,
  // by selection: tables hold a handful of entries and this path runs per
  // sample, so no sorted copy is allocated.
  std::uint64_t const lastBuiltin = BUILTIN_LEAPS[BUILTIN_LEAP_SECOND_COUNT - 1];
  std::size_t const n = table.size();
  int count = BUILTIN_LEAP_SECOND_COUNT;
  std::size_t previous = n;  // none yet
  for (std::size_t step = 0; step < n; ++step) {
    std::size_t next = n;
    for (std::size_t i = 0; i < n; ++i) {
      bool const afterPrevious = previous == n || table[i].time > table[previous].time ||
                                 (table[i].time == table[previous].time && i > previous);
      bool const beforeNext =
          next == n || table[i].time < table[next].time || (table[i].time == table[next].time && i < next);
      if (afterPrevious && beforeNext) next = i;
    }
    previous = next;
    LeapInfo const& entry = table[next];
    if (entry.time <= lastBuiltin) continue;
    double const boundary = static_cast<double>(entry.time) + (gpsTime ? count : 0);
    if (t <= boundary) break;
    count = entry.leapSeconds;
  }
  return count;
}

bool updateLeapSeconds(Toc const& gpsTime, signed char leapSeconds, std::vector<LeapInfo>& table) {
  auto const time = static_cast<std::uint64_t>(gpsToGpsSecs(gpsTime));
  if ((time + 1) % SECONDS_PER_DAY != 0) {
    log::printFormatted(log::ERROR, "TimeConversion",
                        "updateLeapSeconds: given time %llu is not midnight minus one second",
                        static_cast<unsigned long long>(time));
    return false;
  }
  for (LeapInfo& entry : table) {
    if (entry.time == time) {
      entry.leapSeconds = leapSeconds;
      return true;
    }
  }
  LeapInfo entry;
  entry.time = time;
  entry.leapSeconds = leapSeconds;
  table.push_back(entry);
  return true;
}

double getAdjustedTime(core::GnssType type, double t) {
  // Nominal reference epochs: GPS toe every two hours (IS-GPS-200 20.3.4.5),
  // GLONASS tb at the centre of 30-minute intervals (GLONASS ICD), BeiDou
  // hourly. Whole seconds as 64-bit so that the remainder is defined for any
  // finite t; within the 32-bit range the result is the same.
  constexpr std::int64_t TWO_HOURS = 7200;  // s
  constexpr std::int64_t HOUR = 3600;       // s
  constexpr std::int64_t HALF_HOUR = 1800;  // s
  constexpr std::int64_t QUARTER = 900;     // s
  constexpr double WHOLE_LIMIT = 9.0e18;    // s, inside the 64-bit range
  if (!(std::fabs(t) < WHOLE_LIMIT)) return t;
  auto const whole = static_cast<std::int64_t>(std::round(t));
  switch (type) {
    case core::GPS: {
      std::int64_t const r = whole % TWO_HOURS;
      if (r == 0) return t;
      return t + static_cast<double>(r < HOUR ? -r : TWO_HOURS - r);
    }
    case core::GLONASS: {
      std::int64_t const r = whole % HOUR;
      if (r == QUARTER || r == HOUR - QUARTER) return t;
      return t + static_cast<double>(r < HALF_HOUR ? QUARTER - r : HOUR - QUARTER - r);
    }
    case core::BEIDOU: {
      std::int64_t const r = whole % HOUR;
      if (r == 0) return t;
      return t + static_cast<double>(r < HALF_HOUR ? -r : HOUR - r);
    }
    default:
      return t;
  }
}

}  // namespace support
}  // namespace zarn
