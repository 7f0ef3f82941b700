// Least significant bits of the broadcast fields held by the core records and
// the URA table, shared by the RINEX reader and writer.
#ifndef ZARN_HOST_SRC_BROADCAST_SCALING_HPP
#define ZARN_HOST_SRC_BROADCAST_SCALING_HPP

#include <cmath>

namespace zarn {
namespace host {
namespace detail {

// pi of IS-GPS-200 20.3.3.4.3 and BDS-SIS-ICD-B1I 5.2.4, for semicircles.
constexpr double kIcdPi = 3.1415926535898;

// 2^n, exact for the exponents used here.
constexpr double pow2(int n) {
  return n == 0 ? 1.0 : (n > 0 ? 2.0 * pow2(n - 1) : 0.5 * pow2(n + 1));
}

// GPS LNAV (IS-GPS-200 Tables 20-I and 20-III).
constexpr double kGpsSqrtALsb = pow2(-19);               // m^1/2
constexpr double kGpsELsb = pow2(-33);                   // dimensionless
constexpr double kSemicircle31Lsb = pow2(-31) * kIcdPi;  // rad
constexpr double kSemicircle43Lsb = pow2(-43) * kIcdPi;  // rad/s
constexpr double kGpsHarmonicAngleLsb = pow2(-29);       // rad
constexpr double kGpsHarmonicRadiusLsb = pow2(-5);       // m
constexpr double kGpsAf0Lsb = pow2(-31);                 // s
constexpr double kGpsAf1Lsb = pow2(-43);                 // s/s
constexpr double kGpsAf2Lsb = pow2(-55);                 // s/s^2
constexpr double kGpsTgdLsb = pow2(-31);                 // s

// BeiDou D1/D2 (BDS-SIS-ICD-B1I 5.2.4); orbit angles as for GPS.
constexpr double kBdsHarmonicAngleLsb = pow2(-31);  // rad
constexpr double kBdsHarmonicRadiusLsb = pow2(-6);  // m
constexpr double kBdsA0Lsb = pow2(-33);             // s
constexpr double kBdsA1Lsb = pow2(-50);             // s/s
constexpr double kBdsA2Lsb = pow2(-66);             // s/s^2
constexpr double kBdsTgdLsb = 1e-10;                // s (0.1 ns)

// GLONASS immediate data (GLONASS ICD 4.4), in the file's km units.
constexpr double kGloPositionLsb = pow2(-11);      // km
constexpr double kGloVelocityLsb = pow2(-20);      // km/s
constexpr double kGloAccelerationLsb = pow2(-30);  // km/s^2
constexpr double kGloTauLsb = pow2(-30);           // s
constexpr double kGloGammaLsb = pow2(-40);         // dimensionless
constexpr double kGloTbSeconds = 900.0;            // tb counts 15-minute intervals

// Upper bounds of URA indices 0..14 in metres (IS-GPS-200 20.3.3.3.1.3; the
// BeiDou interface document uses the same table). Index 15: no accuracy prediction.
constexpr double kUraUpperBound[15] = {2.4,  3.4,   4.85,  6.85,  9.65,   13.65,  24.0,  48.0,
                                       96.0, 192.0, 384.0, 768.0, 1536.0, 3072.0, 6144.0};
constexpr int kUraNoPrediction = 15;
// Written for index 15: any value above the last bound reads back as 15.
constexpr double kUraNoPredictionMetres = 8192.0;

inline int uraIndexFromMetres(double metres) {
  for (int i = 0; i < kUraNoPrediction; ++i) {
    if (std::fabs(metres) <= kUraUpperBound[i]) return i;
  }
  return kUraNoPrediction;
}

}  // namespace detail
}  // namespace host
}  // namespace zarn

#endif
