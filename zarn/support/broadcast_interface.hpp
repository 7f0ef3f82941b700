// The broadcast navigation messages as the library reads and writes them: the
// scale factor (LSB) and width of every ephemeris, clock and almanac field of
// GPS LNAV, BeiDou D1/D2 and GLONASS, the URA tables, the Earth constants of
// each constellation's user algorithms, and the conversions between a field's
// transmitted integer and its physical value.
//
// Sources: IS-GPS-200 (Rev. D to N) Tables 20-I, 20-III, 20-IV, 20-VI;
// BDS-SIS-ICD-B1I-3.0 (2019) 5.2.4 (D1/D2 ephemeris, clock and almanac
// parameters; unchanged since v1.0); GLONASS ICD Edition 5.1 (2008) 4.4
// (immediate data), 4.5 (almanac), 3.1.3 and Appendix A.3.1; Galileo OS SIS
// ICD 5.1.1. Physical value = transmitted integer * LSB; angles are
// broadcast in semicircles and become radians through the pi each document
// defines.
#ifndef ZARN_SUPPORT_BROADCAST_INTERFACE_HPP
#define ZARN_SUPPORT_BROADCAST_INTERFACE_HPP

#include <array>
#include <cmath>
#include <cstdint>
#include <limits>

#include "zarn/core/records.hpp"

namespace zarn {
namespace support {
namespace broadcast {

// 2^n, exact for every exponent used here.
constexpr double pow2(int n) {
  return n == 0 ? 1.0 : (n > 0 ? 2.0 * pow2(n - 1) : 0.5 * pow2(n + 1));
}

// One field of a navigation message: value = integer * lsb.
struct Field {
  double lsb;     // unit of the physical value (given beside each field) per count
  int bits;       // transmitted width
  bool isSigned;  // two's complement; unsigned otherwise

  constexpr std::int64_t lowest() const { return isSigned ? -(std::int64_t{1} << (bits - 1)) : 0; }
  constexpr std::int64_t highest() const {
    return isSigned ? (std::int64_t{1} << (bits - 1)) - 1 : (std::int64_t{1} << bits) - 1;
  }
};

constexpr Field signedField(double lsb, int bits) {
  return {lsb, bits, true};
}
constexpr Field unsignedField(double lsb, int bits) {
  return {lsb, bits, false};
}

// The transmitted integer of a value: value / lsb rounded half away from zero
// (floor(x + 0.5), ceil(x - 0.5)). Values beyond the 64-bit range saturate and
// NaN gives the minimum, so that they fail every range test.
inline std::int64_t encode(double value, double lsb) {
  double const x = value / lsb;
  double const r = x >= 0.0 ? std::floor(x + 0.5) : std::ceil(x - 0.5);
  constexpr double kLimit = 9.2e18;
  if (std::isnan(r) || r <= -kLimit) return std::numeric_limits<std::int64_t>::min();
  if (r >= kLimit) return std::numeric_limits<std::int64_t>::max();
  return static_cast<std::int64_t>(r);
}
inline std::int64_t encode(double value, Field const& field) {
  return encode(value, field.lsb);
}
inline bool fits(std::int64_t count, Field const& field) {
  return count >= field.lowest() && count <= field.highest();
}
constexpr double decode(std::int64_t count, Field const& field) {
  return static_cast<double>(count) * field.lsb;
}

// ---- GPS LNAV (IS-GPS-200) --------------------------------------------------

// pi of IS-GPS-200 20.3.3.4.3 and BDS-SIS-ICD-B1I 5.2.4.12 for semicircles.
constexpr double kIcdPi = 3.1415926535898;
constexpr double kSemicircle31 = kIcdPi * pow2(-31);  // rad
constexpr double kSemicircle43 = kIcdPi * pow2(-43);  // rad/s

// Ephemeris, Table 20-III.
constexpr Field kGpsToe = unsignedField(16.0, 16);                // s
constexpr Field kGpsSqrtA = unsignedField(pow2(-19), 32);         // m^1/2
constexpr Field kGpsEccentricity = unsignedField(pow2(-33), 32);  // dimensionless
constexpr Field kGpsAngle = signedField(kSemicircle31, 32);       // i0, Omega0, omega, M0: rad
constexpr Field kGpsDeltaN = signedField(kSemicircle43, 16);      // rad/s
constexpr Field kGpsIDot = signedField(kSemicircle43, 14);        // rad/s
constexpr Field kGpsOmegaDot = signedField(kSemicircle43, 24);    // rad/s
constexpr Field kGpsHarmonicAngle = signedField(pow2(-29), 16);   // cuc, cus, cic, cis: rad
constexpr Field kGpsHarmonicRadius = signedField(pow2(-5), 16);   // crc, crs: m
// Clock, Table 20-I.
constexpr Field kGpsToc = unsignedField(16.0, 16);     // s
constexpr Field kGpsAf0 = signedField(pow2(-31), 22);  // s
constexpr Field kGpsAf1 = signedField(pow2(-43), 16);  // s/s
constexpr Field kGpsAf2 = signedField(pow2(-55), 8);   // s/s^2
constexpr Field kGpsTgd = signedField(pow2(-31), 8);   // s
// Almanac, Table 20-VI.
constexpr Field kGpsAlmanacToa = unsignedField(4096.0, 8);        // s
constexpr Field kGpsAlmanacSqrtA = unsignedField(pow2(-11), 24);  // m^1/2
constexpr Field kGpsAlmanacEccentricity = unsignedField(pow2(-21), 16);
constexpr Field kGpsAlmanacAngle = signedField(kIcdPi * pow2(-23), 24);     // Omega0, omega, M0: rad
constexpr Field kGpsAlmanacDeltaI = signedField(kIcdPi * pow2(-19), 16);    // rad, from 0.3 semicircle
constexpr Field kGpsAlmanacOmegaDot = signedField(kIcdPi * pow2(-38), 16);  // rad/s
constexpr Field kGpsAlmanacAf0 = signedField(pow2(-20), 11);                // s
constexpr Field kGpsAlmanacAf1 = signedField(pow2(-38), 11);                // s/s

// ---- BeiDou D1/D2 (BDS-SIS-ICD-B1I 5.2.4) -------------------------------------

// Ephemeris: the GPS layout but for 8 s toe steps and 18-bit harmonic terms.
constexpr Field kBeidouToe = unsignedField(8.0, 17);          // s of BeiDou time
constexpr Field kBeidouSqrtA = unsignedField(pow2(-19), 32);  // m^1/2
constexpr Field kBeidouEccentricity = unsignedField(pow2(-33), 32);
constexpr Field kBeidouAngle = signedField(kSemicircle31, 32);      // i0, Omega0, omega, M0: rad
constexpr Field kBeidouDeltaN = signedField(kSemicircle43, 16);     // rad/s
constexpr Field kBeidouIDot = signedField(kSemicircle43, 14);       // rad/s
constexpr Field kBeidouOmegaDot = signedField(kSemicircle43, 24);   // rad/s
constexpr Field kBeidouHarmonicAngle = signedField(pow2(-31), 18);  // rad
constexpr Field kBeidouHarmonicRadius = signedField(pow2(-6), 18);  // m
// Clock.
constexpr Field kBeidouToc = unsignedField(8.0, 17);     // s of BeiDou time
constexpr Field kBeidouA0 = signedField(pow2(-33), 24);  // s
constexpr Field kBeidouA1 = signedField(pow2(-50), 22);  // s/s
constexpr Field kBeidouA2 = signedField(pow2(-66), 11);  // s/s^2
constexpr Field kBeidouTgd = signedField(1e-10, 10);     // s (0.1 ns); TGD1 and TGD2
// Almanac.
constexpr Field kBeidouAlmanacToa = unsignedField(4096.0, 8);        // s
constexpr Field kBeidouAlmanacSqrtA = unsignedField(pow2(-11), 24);  // m^1/2
constexpr Field kBeidouAlmanacEccentricity = unsignedField(pow2(-21), 17);
constexpr Field kBeidouAlmanacAngle = signedField(kIcdPi * pow2(-23), 24);     // Omega0, omega, M0: rad
constexpr Field kBeidouAlmanacDeltaI = signedField(kIcdPi * pow2(-19), 16);    // rad
constexpr Field kBeidouAlmanacOmegaDot = signedField(kIcdPi * pow2(-38), 17);  // rad/s
constexpr Field kBeidouAlmanacA0 = signedField(pow2(-20), 11);                 // s
constexpr Field kBeidouAlmanacA1 = signedField(pow2(-38), 11);                 // s/s

// BeiDou GEO user algorithm (5.2.4.12): the position is rotated by Rx(-5 deg).
constexpr double kBeidouGeoTilt = -0.08726646259971647;  // rad

// ---- GLONASS (GLONASS ICD Edition 5.1) -----------------------------------------
//
// GLONASS words are sign-magnitude, one count short of lowest() at the
// negative end; the library's range checks accept the two's-complement range
// of each width. Units are those of the ICD and of the core records.

// Immediate data, 4.4.
constexpr Field kGlonassPosition = signedField(pow2(-11), 27);     // km
constexpr Field kGlonassVelocity = signedField(pow2(-20), 24);     // km/s
constexpr Field kGlonassAcceleration = signedField(pow2(-30), 5);  // km/s^2
constexpr Field kGlonassTau = signedField(pow2(-30), 22);          // s
constexpr Field kGlonassGamma = signedField(pow2(-40), 11);        // dimensionless
constexpr Field kGlonassDeltaTau = signedField(pow2(-30), 5);      // s
constexpr Field kGlonassTb = unsignedField(900.0, 7);              // s: 15-minute intervals of the day
constexpr Field kGlonassAge = unsignedField(1.0, 5);               // days (E_n)
constexpr Field kGlonassAccuracyIndex = unsignedField(1.0, 4);     // F_T
// Almanac, 4.5; angles in semicircles (kGlonassPi).
constexpr Field kGlonassTauC = signedField(pow2(-31), 32);             // s
constexpr Field kGlonassTauGps = signedField(pow2(-30), 22);           // s
constexpr Field kGlonassAlmanacLambda = signedField(pow2(-20), 21);    // semicircle
constexpr Field kGlonassAlmanacTLambda = unsignedField(pow2(-5), 21);  // s
constexpr Field kGlonassAlmanacDeltaI = signedField(pow2(-20), 18);    // semicircle, from 63 deg
constexpr Field kGlonassAlmanacDeltaT = signedField(pow2(-9), 22);     // s/orbit
constexpr Field kGlonassAlmanacDeltaTDot = signedField(pow2(-14), 7);  // s/orbit^2
constexpr Field kGlonassAlmanacEccentricity = unsignedField(pow2(-20), 15);
constexpr Field kGlonassAlmanacOmega = signedField(pow2(-15), 16);  // semicircle
constexpr Field kGlonassAlmanacTau = signedField(pow2(-18), 10);    // s

// pi of the GLONASS almanac algorithm (A.3.1.3) for semicircles.
constexpr double kGlonassPi = 3.14159265358979;

// ---- Earth constants of the user algorithms ------------------------------------

// GM (m^3/s^2) and Earth rotation rate (rad/s) of a Keplerian user algorithm.
struct KeplerConstants {
  double gm;
  double earthRate;
};

// IS-GPS-200 20.3.3.4.3, Table 20-IV.
constexpr KeplerConstants kGpsKepler{3.986005e14, 7.2921151467e-5};
// BDS-SIS-ICD-B1I 3.2 (CGCS2000) and 5.2.4.12.
constexpr KeplerConstants kBeidouKepler{3.986004418e14, 7.292115e-5};
// Galileo OS SIS ICD 5.1.1.
constexpr KeplerConstants kGalileoKepler{3.986004418e14, 7.2921151467e-5};

// Constants of the GPS, BeiDou or Galileo user algorithm; null for any other type.
constexpr KeplerConstants const* keplerConstants(core::GnssType gnss) {
  return gnss == core::GPS       ? &kGpsKepler
         : gnss == core::BEIDOU  ? &kBeidouKepler
         : gnss == core::GALILEO ? &kGalileoKepler
                                 : nullptr;
}

// How this library evaluates the Keplerian user algorithm, in the model and
// in the fit alike: Kepler's equation by this many fixed-point passes from
// E = M, without a tolerance test; and a corrected inclination at or below
// the limit selects the BeiDou GEO branch, whatever the constellation.
constexpr int kKeplerPasses = 6;
constexpr double kGeoInclinationLimit = 0.5;  // rad

// PZ-90 of the GLONASS equations of motion (A.3.1.2) in the rounded values of
// the earlier editions, which the immediate-data integration keeps: GM
// 398600.44 km^3/s^2 and J2 1082625.7e-9 (Edition 5.1: 398600.4418 and
// 1082625.75e-9).
constexpr double kGlonassGm = 3.9860044e14;  // m^3/s^2
constexpr double kGlonassJ2 = 1082625.7e-9;  // dimensionless
// PZ-90.02 of the almanac algorithm (3.1.3, A.3.1.3).
constexpr double kGlonassAlmanacGm = 398600.4418e9;  // m^3/s^2
constexpr double kGlonassAlmanacJ2 = 1082625.75e-9;  // dimensionless
// Both: equatorial radius and rotation rate.
constexpr double kGlonassEarthRadius = 6378136.0;  // m
constexpr double kGlonassEarthRate = 7.292115e-5;  // rad/s

// ---- URA ---------------------------------------------------------------------

// Upper accuracy bounds (m) of URA indices 0..14; index 15 means no accuracy
// prediction. GPS URA (IS-GPS-200 20.3.3.3.1.3), used by BeiDou's URAI and
// every other constellation, and GLONASS F_T (GLONASS ICD 4.4, word F_T).
constexpr int kUraIndexCount = 15;
constexpr int kUraNoPrediction = 15;
constexpr double kGpsUraMeters[kUraIndexCount] = {2.4,  3.4,   4.85,  6.85,  9.65,   13.65,  24.0,  48.0,
                                                  96.0, 192.0, 384.0, 768.0, 1536.0, 3072.0, 6144.0};
constexpr double kGlonassUraMeters[kUraIndexCount] = {1.0,  2.0,  2.5,  4.0,  5.0,   7.0,   10.0, 12.0,
                                                      14.0, 16.0, 32.0, 64.0, 128.0, 256.0, 512.0};

// ---- Record conversions ----------------------------------------------------------

// The 15 orbit elements of a GPS or BeiDou ephemeris in the order of the
// kepler vector (ephemeris_conversion.hpp): sqrtA (m^1/2), e, i0, Omega0,
// omega, M0 (rad), deltaN, iDot, OmegaDot (rad/s), cuc, cus (rad), crc, crs
// (m), cic, cis (rad).
constexpr unsigned kKeplerSize = 15;
using KeplerElements = std::array<double, kKeplerSize>;

// The field of each kepler element.
constexpr Field kGpsOrbit[kKeplerSize] = {
    kGpsSqrtA,         kGpsEccentricity,   kGpsAngle,          kGpsAngle,         kGpsAngle,
    kGpsAngle,         kGpsDeltaN,         kGpsIDot,           kGpsOmegaDot,      kGpsHarmonicAngle,
    kGpsHarmonicAngle, kGpsHarmonicRadius, kGpsHarmonicRadius, kGpsHarmonicAngle, kGpsHarmonicAngle};
constexpr Field kBeidouOrbit[kKeplerSize] = {
    kBeidouSqrtA,          kBeidouEccentricity,  kBeidouAngle,         kBeidouAngle,
    kBeidouAngle,          kBeidouAngle,         kBeidouDeltaN,        kBeidouIDot,
    kBeidouOmegaDot,       kBeidouHarmonicAngle, kBeidouHarmonicAngle, kBeidouHarmonicRadius,
    kBeidouHarmonicRadius, kBeidouHarmonicAngle, kBeidouHarmonicAngle};

using OrbitFields = Field[kKeplerSize];
constexpr OrbitFields const& orbitFields(core::GpsEphemeris const&) {
  return kGpsOrbit;
}
constexpr OrbitFields const& orbitFields(core::BeidouEphemeris const&) {
  return kBeidouOrbit;
}

// Orbit elements of a GPS or BeiDou record.
template <typename Record>
KeplerElements decodeOrbit(Record const& e) {
  OrbitFields const& f = orbitFields(e);
  return {decode(e.sqrtA, f[0]),    decode(e.e, f[1]),    decode(e.i0, f[2]),     decode(e.omega0, f[3]),
          decode(e.omega, f[4]),    decode(e.m0, f[5]),   decode(e.deltaN, f[6]), decode(e.iDot, f[7]),
          decode(e.omegaDot, f[8]), decode(e.cuc, f[9]),  decode(e.cus, f[10]),   decode(e.crc, f[11]),
          decode(e.crs, f[12]),     decode(e.cic, f[13]), decode(e.cis, f[14])};
}

// The elements into the orbit fields of a GPS or BeiDou record, each encoded
// and narrowed to its record member: out-of-range values wrap, and it is for
// the caller's range check to refuse them.
template <typename Record>
void encodeOrbit(KeplerElements const& k, Record& e) {
  OrbitFields const& f = orbitFields(e);
  e.sqrtA = static_cast<decltype(e.sqrtA)>(encode(k[0], f[0]));
  e.e = static_cast<decltype(e.e)>(encode(k[1], f[1]));
  e.i0 = static_cast<decltype(e.i0)>(encode(k[2], f[2]));
  e.omega0 = static_cast<decltype(e.omega0)>(encode(k[3], f[3]));
  e.omega = static_cast<decltype(e.omega)>(encode(k[4], f[4]));
  e.m0 = static_cast<decltype(e.m0)>(encode(k[5], f[5]));
  e.deltaN = static_cast<decltype(e.deltaN)>(encode(k[6], f[6]));
  e.iDot = static_cast<decltype(e.iDot)>(encode(k[7], f[7]));
  e.omegaDot = static_cast<decltype(e.omegaDot)>(encode(k[8], f[8]));
  e.cuc = static_cast<decltype(e.cuc)>(encode(k[9], f[9]));
  e.cus = static_cast<decltype(e.cus)>(encode(k[10], f[10]));
  e.crc = static_cast<decltype(e.crc)>(encode(k[11], f[11]));
  e.crs = static_cast<decltype(e.crs)>(encode(k[12], f[12]));
  e.cic = static_cast<decltype(e.cic)>(encode(k[13], f[13]));
  e.cis = static_cast<decltype(e.cis)>(encode(k[14], f[14]));
}

// Clock polynomial at toc: offset (s), drift (s/s), drift rate (s/s^2).
struct ClockTerms {
  double a0 = 0.0, a1 = 0.0, a2 = 0.0;
};

inline ClockTerms decodeClock(core::GpsEphemeris const& e) {
  return {decode(e.af0, kGpsAf0), decode(e.af1, kGpsAf1), decode(e.af2, kGpsAf2)};
}
inline ClockTerms decodeClock(core::BeidouEphemeris const& e) {
  return {decode(e.a0, kBeidouA0), decode(e.a1, kBeidouA1), decode(e.a2, kBeidouA2)};
}

// The clock terms into the three words; false, with the words unchanged, when
// a term does not fit its field.
template <typename A0, typename A1, typename A2>
bool encodeClockWords(ClockTerms const& c, Field const (&f)[3], A0& a0, A1& a1, A2& a2) {
  std::int64_t const w0 = encode(c.a0, f[0]), w1 = encode(c.a1, f[1]), w2 = encode(c.a2, f[2]);
  if (!fits(w0, f[0]) || !fits(w1, f[1]) || !fits(w2, f[2])) return false;
  a0 = static_cast<A0>(w0);
  a1 = static_cast<A1>(w1);
  a2 = static_cast<A2>(w2);
  return true;
}

// The clock terms into the record; false, with the record unchanged, when a
// term does not fit its field.
inline bool encodeClock(ClockTerms const& c, core::GpsEphemeris& e) {
  Field const fields[3] = {kGpsAf0, kGpsAf1, kGpsAf2};
  return encodeClockWords(c, fields, e.af0, e.af1, e.af2);
}
inline bool encodeClock(ClockTerms const& c, core::BeidouEphemeris& e) {
  Field const fields[3] = {kBeidouA0, kBeidouA1, kBeidouA2};
  return encodeClockWords(c, fields, e.a0, e.a1, e.a2);
}

}  // namespace broadcast
}  // namespace support
}  // namespace zarn

#endif
