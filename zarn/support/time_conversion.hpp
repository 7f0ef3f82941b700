// GNSS time scales: broadcast time records (Toc), continuous seconds, packed
// day/second words, Modified Julian Date and leap seconds.
//
// Continuous time in the library is GPS seconds: seconds since the GPS epoch,
// 1980-01-06 00:00:00 GPS time, in a double. BeiDou seconds count from
// 2006-01-01 00:00:00 BDT (BDS-SIS-ICD-B1I); GLONASS seconds from
// 1996-01-01 00:00:00 Moscow time (UTC(SU) + 3 h) and contain no leap seconds
// (GLONASS ICD edition 5.1).
//
// The packed day/second word ("Slp word") holds the day count since the
// constellation's epoch in bits 31..17 and the seconds of that day in bits
// 16..0.
//
// Toc layouts (zarn/core/records.hpp): GPS {1024-week cycles, week in cycle,
// seconds of week}; BeiDou {8192-week cycles, week, seconds of week}; GLONASS
// {four-year period since 1996, day in period, seconds of day}.
#ifndef ZARN_SUPPORT_TIME_CONVERSION_HPP
#define ZARN_SUPPORT_TIME_CONVERSION_HPP

#include <cstdint>
#include <vector>

#include "zarn/core/records.hpp"
#include "zarn/support/export.hpp"

namespace zarn {
namespace support {

constexpr std::uint32_t SECONDS_PER_DAY = 86400;
constexpr std::uint32_t SECONDS_PER_WEEK = 604800;
constexpr std::uint32_t GPS_CYCLE_SECONDS = 619315200;           // 1024 weeks
constexpr std::uint64_t BEIDOU_CYCLE_SECONDS = 4954521600ULL;    // 8192 weeks
constexpr std::uint32_t GLONASS_PERIOD_SECONDS = 126144000;      // 1460 days, leap days excluded
constexpr std::uint32_t GLONASS_MAX_PERIOD_SECONDS = 126230400;  // 1461 days
constexpr double GLONASS_EPOCH_GPS_SECONDS = 504478800.0;        // 1995-12-31 21:00:00 UTC
constexpr double BEIDOU_GPS_OFFSET_SECONDS = 820108814.0;        // 1356 weeks + 14 s
constexpr std::uint32_t GPS_EPOCH_MJD = 44244;                   // 1980-01-06
constexpr int BUILTIN_LEAP_SECOND_COUNT = 17;                    // 1981-06-30 .. 2015-06-30

// Modified Julian Date split into whole days and the fraction of the day.
struct Mjd {
  unsigned day = 0;
  double fraction = 0.0;
};

// ---- GPS ------------------------------------------------------------------

// GPS Toc -> GPS seconds.
ZARN_EXPORT double gpsToGpsSecs(core::Toc const& toc);
// GPS seconds -> GPS Toc, seconds of week rounded to the nearest second
// (half away from zero). Negative and non-finite times give {0, 0, 0}.
ZARN_EXPORT core::Toc gpsSecsToGps(double t);
// GPS Toc (third below 604800, full week below 4681) -> Slp word.
ZARN_EXPORT unsigned gpsToSlp(core::Toc const& toc);
// Slp word -> GPS Toc.
ZARN_EXPORT core::Toc slpToGps(unsigned word);

// ---- BeiDou ---------------------------------------------------------------

// BeiDou Toc -> BeiDou seconds.
ZARN_EXPORT double beidouToSecs(core::Toc const& toc);
// BeiDou seconds -> BeiDou Toc, seconds of week rounded half away from zero.
// Times <= 0 and non-finite times give {0, 0, 0}.
ZARN_EXPORT core::Toc secsToBeidou(double t);
// BeiDou seconds <-> GPS seconds (BDT runs 14 s behind GPS time).
ZARN_EXPORT double beidouSecsToGpsSecs(double t);
ZARN_EXPORT double gpsSecsToBeidouSecs(double t);
// BeiDou Toc -> Slp word (days since 2006-01-01).
ZARN_EXPORT unsigned beidouToSlp(core::Toc const& toc);
// Slp word -> BeiDou Toc; first is always 0 and the week is not wrapped.
ZARN_EXPORT core::Toc slpToBeidou(unsigned word);

// ---- GLONASS --------------------------------------------------------------

// GLONASS Toc -> GLONASS seconds (Moscow time since 1996-01-01).
ZARN_EXPORT double glonassToSecs(core::Toc const& toc);
// GLONASS seconds (truncated to whole seconds) -> GLONASS Toc. Times <= 0
// and non-finite times give {0, 0, 0}.
ZARN_EXPORT core::Toc secsToGlonass(double t);
// GLONASS Toc -> Slp word (days since 1996-01-01, seconds of day).
ZARN_EXPORT unsigned glonassToSlp(core::Toc const& toc);
// Slp word -> GLONASS Toc; word 0 gives {0, 0, 0}.
ZARN_EXPORT core::Toc slpToGlonass(unsigned word);

// GPS seconds -> GLONASS seconds, removing GPS-UTC from the built-in table
// extended by `table`.
ZARN_EXPORT double gpsSecsToGlonassSecs(double t, std::vector<LeapInfo> const& table);
// GLONASS seconds -> GPS seconds, adding GPS-UTC at the UTC instant.
ZARN_EXPORT double glonassSecsToGpsSecs(double t, std::vector<LeapInfo> const& table);
// GPS Toc <-> GLONASS Toc through continuous seconds.
ZARN_EXPORT core::Toc gpsToGlonass(core::Toc const& toc, std::vector<LeapInfo> const& table);
ZARN_EXPORT core::Toc glonassToGps(core::Toc const& toc, std::vector<LeapInfo> const& table);

// ---- Modified Julian Date ---------------------------------------------------

// GPS Toc -> MJD on the GPS time scale.
ZARN_EXPORT Mjd gpsToMJD(core::Toc const& toc);
// GPS seconds -> MJD on the GPS time scale (whole seconds for the day count).
ZARN_EXPORT Mjd gpsSecsToMJD(double t);

// ---- leap seconds -----------------------------------------------------------

// GPS-UTC in whole seconds at time t. t is GPS seconds when gpsTime is true,
// otherwise the GPS-second count of the UTC instant (no leap seconds). Uses
// the 17 built-in leap seconds up to 2015-06-30, then the entries of `table`
// (any order) that are later than those.
ZARN_EXPORT int leapSeconds(double t, bool gpsTime, std::vector<LeapInfo> const& table);

// Records that GPS-UTC becomes `leapSeconds` after `gpsTime` (a GPS Toc of
// 23:59:59 UTC, as GPS seconds without leap seconds). Replaces the value of an
// entry at the same time, or appends a new entry. Returns false and logs under
// "TimeConversion" when the time is not one second before midnight.
ZARN_EXPORT bool updateLeapSeconds(core::Toc const& gpsTime, signed char leapSeconds,
                                   std::vector<LeapInfo>& table);

// ---- nominal ephemeris epochs -----------------------------------------------

// t (s) moved to the nearest nominal reference epoch of the constellation's
// broadcast ephemerides: GPS the even two-hour boundary, GLONASS quarter past
// or quarter to the hour, BeiDou the full hour; halves round up. The shift is
// computed on t rounded to whole seconds and added to t, so fractions stay.
// Other types return t.
ZARN_EXPORT double getAdjustedTime(core::GnssType type, double t);

}  // namespace support
}  // namespace zarn

#endif
