// Plausibility checks on broadcast parameters and satellite states before they
// leave the library.
//
// The ephemeris checks scale every element back to the integer the navigation
// message would carry (value / LSB, rounded half away from zero) and test it
// against the width of that message field. The coordinate checks test orbit
// radius and speed. Every check only reports: it returns false and logs one
// level-4 line under "Validation" per violation; nothing aborts.
#ifndef ZARN_SUPPORT_VALIDATION_HPP
#define ZARN_SUPPORT_VALIDATION_HPP

#include "zarn/support/export.hpp"
#include "zarn/support/math.hpp"
#include "zarn/support/utility.hpp"

namespace zarn {
namespace support {

// Keplerian validation vector, 17 elements:
//   0 sqrtA (m^1/2), 1 e, 2 i0, 3 Omega0, 4 omega, 5 M0 (rad), 6 deltaN,
//   7 iDot, 8 OmegaDot (rad/s), 9 cuc, 10 cus (rad), 11 crc, 12 crs (m),
//   13 cic, 14 cis (rad), 15 toe as GPS seconds of week, 16 full GPS week.
// Elements 0-14 are tested against the IS-GPS-200 LNAV field widths; toe must
// be a multiple of 16 s inside the week.
ZARN_EXPORT bool validGpsEphemeris(Vec const& kepler);

// Same layout, reference time still on the GPS scale. Harmonic terms use the
// 18-bit BDS-SIS-ICD-B1I fields (2^-31 rad, 2^-6 m); toe, taken to BeiDou
// time, must be a multiple of 8 s inside the BeiDou week.
ZARN_EXPORT bool validBeidouEphemeris(Vec const& kepler);

// GLONASS clock terms: tau (s), gamma (dimensionless), deltaTau (s).
ZARN_EXPORT bool validGlonassEphemeris(double tau, double gamma, double deltaTau);

// GLONASS state in the units of the GLONASS ICD: position in km, velocity in
// km/s, luni-solar acceleration in km/s^2 (3 elements each).
ZARN_EXPORT bool validGlonassEphemeris(Vec const& rSat, Vec const& vSat, Vec const& aSat);

// Radius and speed checks on a satellite state (m, m/s, Earth-centred). With
// ecef the velocity is Earth-fixed and is made inertial by adding w x r,
// w = 7.2921158553e-5 rad/s about z, before the speed is tested.
//   GPS:      21000 km <= |r| <= 31000 km, 3700 <= |v| <= 4000 m/s
//   GLONASS:  21000 km <= |r| <= 31000 km, 3800 <= |v| <= 4100 m/s
//   BeiDou MEO:       23000 km < |r| < 33000 km, 3700 <= |v| <= 3800 m/s
//   BeiDou IGSO, GEO: 38000 km < |r| < 47000 km, 3000 <= |v| <= 3100 m/s
//   BeiDou of any other type: always false.
// A NaN element, or a vector that is not 3 long, fails the check.
ZARN_EXPORT bool validGpsSatCoordinates(Vec const& rSat, Vec const& vSat, bool ecef);
ZARN_EXPORT bool validGlonassSatCoordinates(Vec const& rSat, Vec const& vSat, bool ecef);
ZARN_EXPORT bool validBeidouSatCoordinates(Vec const& rSat, Vec const& vSat, BeidouSvType svType, bool ecef);

}  // namespace support
}  // namespace zarn

#endif
