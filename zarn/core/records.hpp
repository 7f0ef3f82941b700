// Core records and enumerations exchanged between libzarn_support and the
// rest of the receiver software. Plain value records: copyable, compared
// field by field, zero-filled by default construction.
//
// Broadcast records hold the integers of the navigation message with their
// broadcast scaling (IS-GPS-200 20.3.3, BDS-SIS-ICD-B1I 5.2, GLONASS ICD 4.4);
// the conversion code applies the scale factors. Field order is the byte
// order of the serialized form and must not change.
#ifndef ZARN_CORE_RECORDS_HPP
#define ZARN_CORE_RECORDS_HPP

#include <cstdint>
#include <tuple>
#include <vector>

#include "zarn/support/export.hpp"

namespace zarn {
namespace core {

using BinaryData = std::vector<unsigned char>;

enum GnssType : std::uint32_t { GPS = 1, GLONASS = 2, BEIDOU = 3, GALILEO = 4 };

enum Status : std::uint32_t {
  OK = 1,
  GENERAL_ERROR = 2,
  OUT_OF_MEMORY = 3,
  UNINITIALIZED = 4,
  PREDICTION_DISABLED = 5,
  MAXIMUM_PREDICTION_LENGTH_EXCEEDED = 6,
  INVALID_GLONASS_CHANNEL = 7,
  INVALID_GNSS_TYPE = 8,
  INVALID_SVID_NUMBER = 9,
  INVALID_TIME = 10,
  UNHEALTHY_SV = 11,
  ECLIPSED_SV = 12,
  SV_IN_OUTAGE = 13,
  PREDICTION_ERROR_OUT_OF_BOUNDS = 14,
  UNSUPPORTED_VERSION = 15,
  CORRUPTED_DATA = 16,
  MISSING_INITIALIZATION_PARAMETERS = 18
};

enum GnssState : std::uint32_t { GOOD = 1, INTERMEDIATE = 2, BAD = 3 };

// Broadcast time. GPS: (1024-week cycles, week in cycle, seconds of week);
// BeiDou: (8192-week cycles, week, seconds of week); GLONASS: (four-year
// period since 1996, day in period, seconds of day in Moscow time).
struct Toc {
  std::uint32_t first = 0;
  std::uint32_t second = 0;
  std::uint32_t third = 0;
};

inline bool operator==(Toc const& a, Toc const& b) {
  return a.first == b.first && a.second == b.second && a.third == b.third;
}
inline bool operator!=(Toc const& a, Toc const& b) {
  return !(a == b);
}
// Lexicographic order on (first, second, third); outage tests rely on it.
inline bool operator<(Toc const& a, Toc const& b) {
  return std::tie(a.first, a.second, a.third) < std::tie(b.first, b.second, b.third);
}
inline bool operator<=(Toc const& a, Toc const& b) {
  return !(b < a);
}
inline bool operator>(Toc const& a, Toc const& b) {
  return b < a;
}
inline bool operator>=(Toc const& a, Toc const& b) {
  return !(a < b);
}

// Every broadcast record starts with these two words. `flags` is a host word
// passed through unchanged; `svId` is the satellite number.
#define ZARN_RECORD_HEAD   \
  std::uint32_t flags = 0; \
  std::uint16_t svId = 0

// GPS LNAV ephemeris and clock (IS-GPS-200 Tables 20-I and 20-III).
struct GpsEphemeris {
  ZARN_RECORD_HEAD;
  std::int16_t iodc = 0;
  Toc toe;
  std::int8_t uraIndex = 0;
  std::int8_t health = 0;
  std::uint8_t iode = 0;
  std::uint32_t sqrtA = 0;    // 2^-19 m^1/2
  std::uint32_t e = 0;        // 2^-33
  std::int32_t i0 = 0;        // 2^-31 semicircles
  std::int32_t omega0 = 0;    // 2^-31 semicircles
  std::int32_t omega = 0;     // 2^-31 semicircles
  std::int32_t m0 = 0;        // 2^-31 semicircles
  std::int16_t deltaN = 0;    // 2^-43 semicircles/s
  std::int32_t omegaDot = 0;  // 2^-43 semicircles/s
  std::int16_t iDot = 0;      // 2^-43 semicircles/s
  std::int16_t cuc = 0;       // 2^-29 rad
  std::int16_t cus = 0;       // 2^-29 rad
  std::int16_t crc = 0;       // 2^-5 m
  std::int16_t crs = 0;       // 2^-5 m
  std::int16_t cic = 0;       // 2^-29 rad
  std::int16_t cis = 0;       // 2^-29 rad
  Toc toc;
  std::int32_t af0 = 0;  // 2^-31 s
  std::int16_t af1 = 0;  // 2^-43 s/s
  std::int8_t af2 = 0;   // 2^-55 s/s^2
  std::int8_t tgd = 0;   // 2^-31 s
};

// BeiDou D1/D2 ephemeris and clock (BDS-SIS-ICD-B1I 5.2.4).
struct BeidouEphemeris {
  ZARN_RECORD_HEAD;
  std::int16_t aodc = 0;
  Toc toe;
  std::int8_t uraIndex = 0;
  std::int8_t health = 0;
  std::uint8_t aode = 0;
  std::uint32_t sqrtA = 0;    // 2^-19 m^1/2
  std::uint32_t e = 0;        // 2^-33
  std::int32_t i0 = 0;        // 2^-31 semicircles
  std::int32_t omega0 = 0;    // 2^-31 semicircles
  std::int32_t omega = 0;     // 2^-31 semicircles
  std::int32_t m0 = 0;        // 2^-31 semicircles
  std::int16_t deltaN = 0;    // 2^-43 semicircles/s
  std::int32_t omegaDot = 0;  // 2^-43 semicircles/s
  std::int16_t iDot = 0;      // 2^-43 semicircles/s
  std::int32_t cuc = 0;       // 2^-31 rad
  std::int32_t cus = 0;       // 2^-31 rad
  std::int32_t crc = 0;       // 2^-6 m
  std::int32_t crs = 0;       // 2^-6 m
  std::int32_t cic = 0;       // 2^-31 rad
  std::int32_t cis = 0;       // 2^-31 rad
  std::uint8_t iodc = 0;
  Toc toc;
  std::int32_t a0 = 0;    // 2^-33 s
  std::int32_t a1 = 0;    // 2^-50 s/s
  std::int16_t a2 = 0;    // 2^-66 s/s^2
  std::int16_t tgd1 = 0;  // 0.1 ns
  std::int16_t tgd2 = 0;  // 0.1 ns
};

// GLONASS immediate data (GLONASS ICD 4.4, strings 1-4), in PZ-90.
struct GlonassEphemeris {
  ZARN_RECORD_HEAD;
  std::int16_t tb = 0;              // index of the 15-minute interval of the day
  Toc time;                         // reference time tb, GLONASS Toc
  std::int8_t frequencyNumber = 0;  // channel k, -7..6
  std::int8_t health = 0;           // Bn
  std::int8_t age = 0;              // En, days
  std::int32_t x = 0;               // 2^-11 km
  std::int32_t y = 0;
  std::int32_t z = 0;
  std::int32_t vx = 0;  // 2^-20 km/s
  std::int32_t vy = 0;
  std::int32_t vz = 0;
  std::int8_t ax = 0;  // 2^-30 km/s^2
  std::int8_t ay = 0;
  std::int8_t az = 0;
  std::int32_t tauN = 0;      // 2^-30 s
  std::int16_t gammaN = 0;    // 2^-40
  std::int8_t deltaTauN = 0;  // 2^-30 s
};

// GPS almanac (IS-GPS-200 Table 20-VI).
struct GpsAlmanac {
  ZARN_RECORD_HEAD;
  Toc toa;                // reference time, GPS Toc; seconds of week a multiple of 2^12 s
  std::uint16_t wna = 0;  // broadcast week, modulo 256; used when toa carries no week
  std::uint16_t health = 0;
  std::uint16_t e = 0;        // 2^-21
  std::int16_t deltaI = 0;    // 2^-19 semicircles
  std::int16_t omegaDot = 0;  // 2^-38 semicircles/s
  std::uint32_t sqrtA = 0;    // 2^-11 m^1/2
  std::int32_t omega0 = 0;    // 2^-23 semicircles
  std::int32_t omega = 0;     // 2^-23 semicircles
  std::int32_t m0 = 0;        // 2^-23 semicircles
  std::int16_t af0 = 0;       // 2^-20 s
  std::int16_t af1 = 0;       // 2^-38 s/s
};

// GLONASS non-immediate data (GLONASS ICD 4.5, strings 5-15).
struct GlonassAlmanac {
  ZARN_RECORD_HEAD;
  Toc time;                         // GLONASS Toc of the almanac day: four-year period (N4 - 1), day, seconds
  std::uint16_t na = 0;             // NA, almanac day in the four-year period, 1-based; 0: use time.second
  std::uint16_t health = 0;         // Cn
  std::int8_t frequencyNumber = 0;  // Hn
  std::int32_t lambda = 0;          // 2^-20 semicircles
  std::uint32_t tLambda = 0;        // 2^-5 s
  std::int32_t deltaI = 0;          // 2^-20 semicircles
  std::int32_t deltaT = 0;          // 2^-9 s
  std::int8_t deltaTDot = 0;        // 2^-14 s/orbit^2
  std::uint32_t epsilon = 0;        // 2^-20
  std::int32_t omega = 0;           // 2^-15 semicircles
  std::int16_t tau = 0;             // 2^-18 s
};

// BeiDou almanac (BDS-SIS-ICD-B1I 5.2.4.15).
struct BeidouAlmanac {
  ZARN_RECORD_HEAD;
  Toc toa;                // reference time, BeiDou Toc; seconds of week a multiple of 2^12 s
  std::uint16_t wna = 0;  // broadcast week, modulo 256; used when toa carries no week
  std::uint16_t health = 0;
  std::uint32_t sqrtA = 0;    // 2^-11 m^1/2
  std::int16_t deltaI = 0;    // 2^-19 semicircles
  std::int32_t omegaDot = 0;  // 2^-38 semicircles/s
  std::uint32_t e = 0;        // 2^-21
  std::int32_t omega0 = 0;    // 2^-23 semicircles
  std::int32_t omega = 0;     // 2^-23 semicircles
  std::int32_t m0 = 0;        // 2^-23 semicircles
  std::int16_t a0 = 0;        // 2^-20 s
  std::int16_t a1 = 0;        // 2^-38 s/s
};

#undef ZARN_RECORD_HEAD

ZARN_EXPORT bool operator==(GpsEphemeris const& a, GpsEphemeris const& b);
ZARN_EXPORT bool operator==(BeidouEphemeris const& a, BeidouEphemeris const& b);
ZARN_EXPORT bool operator==(GlonassEphemeris const& a, GlonassEphemeris const& b);
ZARN_EXPORT bool operator==(GpsAlmanac const& a, GpsAlmanac const& b);
ZARN_EXPORT bool operator==(GlonassAlmanac const& a, GlonassAlmanac const& b);
ZARN_EXPORT bool operator==(BeidouAlmanac const& a, BeidouAlmanac const& b);
inline bool operator!=(GpsEphemeris const& a, GpsEphemeris const& b) {
  return !(a == b);
}
inline bool operator!=(BeidouEphemeris const& a, BeidouEphemeris const& b) {
  return !(a == b);
}
inline bool operator!=(GlonassEphemeris const& a, GlonassEphemeris const& b) {
  return !(a == b);
}
inline bool operator!=(GpsAlmanac const& a, GpsAlmanac const& b) {
  return !(a == b);
}
inline bool operator!=(GlonassAlmanac const& a, GlonassAlmanac const& b) {
  return !(a == b);
}
inline bool operator!=(BeidouAlmanac const& a, BeidouAlmanac const& b) {
  return !(a == b);
}

}  // namespace core

namespace support {

// One entry of the caller's leap-second table: `time` is the GPS-second count
// (without leap seconds) of 23:59:59 on the day before the leap second;
// `leapSeconds` is GPS-UTC after it.
struct LeapInfo {
  std::uint64_t time = 0;
  std::int8_t leapSeconds = 0;
};

inline bool operator==(LeapInfo const& a, LeapInfo const& b) {
  return a.time == b.time && a.leapSeconds == b.leapSeconds;
}

using core::BinaryData;

}  // namespace support
}  // namespace zarn

#endif
