// Broadcast ephemerides and almanacs to Earth-fixed satellite states.
//
// GPS, BeiDou (and Galileo through the generic entries) use the Keplerian
// model of IS-GPS-200 20.3.3.4.3 / BDS-SIS-ICD-B1I 5.2.4.12; GLONASS states are
// integrated with the equations of motion of the GLONASS ICD A.3.1.2, and
// GLONASS almanacs evaluated with its algorithm A.3.1.3.
//
// Continuous times are seconds on a constellation scale (GPS seconds from
// 1980-01-06, BeiDou seconds from 2006-01-01). Positions are metres and
// velocities m/s in the Earth-fixed frame of the constellation (WGS 84,
// CGCS2000, PZ-90). Output vectors must already hold 3 elements; a wrong size
// or an unsupported GnssType is a fatal precondition.
#ifndef ZARN_SUPPORT_EPHEMERIS_CONVERSION_HPP
#define ZARN_SUPPORT_EPHEMERIS_CONVERSION_HPP

#include <string>
#include <vector>

#include "zarn/core/records.hpp"
#include "zarn/support/export.hpp"
#include "zarn/support/math.hpp"
#include "zarn/support/utility.hpp"

namespace zarn {
namespace support {

// Generic Keplerian ephemeris. `ephemeris` has 16 elements:
//   0 toe (continuous seconds of the constellation scale), 1 sqrtA (m^1/2),
//   2 e, 3 i0, 4 Omega0, 5 omega, 6 M0 (rad), 7 deltaN, 8 iDot, 9 OmegaDot
//   (rad/s), 10 cuc, 11 cus (rad), 12 crc, 13 crs (m), 14 cic, 15 cis (rad).
// t is on the scale of element 0; no week folding. A corrected inclination of
// at most 0.5 rad selects the BeiDou GEO model (position rotated by
// Rz(wE tk) Rx(-5 deg)); its velocity stays in the unrotated frame of that
// model with the Earth rate in the node rate, and so is not Earth-fixed.
// GnssType GPS, BEIDOU or GALILEO.
ZARN_EXPORT void keplerianEphemerisToEcef(core::GnssType gnss, Vec const& ephemeris, double t, Vec& pos,
                                          Vec& vel);

// Broadcast records; t is continuous GPS seconds for both constellations.
ZARN_EXPORT void gpsEphemerisToEcef(core::GpsEphemeris const& eph, double t, Vec& pos, Vec& vel);
ZARN_EXPORT void beidouEphemerisToEcef(core::BeidouEphemeris const& eph, double t, Vec& pos, Vec& vel);

// 15-element kepler vector (elements 1-15 of the generic layout) with the
// reference time as a GPS or BeiDou Toc; t in continuous GPS seconds.
ZARN_EXPORT void gpsEphemerisToEcef(Vec const& kepler, core::Toc const& toe, double t, Vec& pos, Vec& vel);
ZARN_EXPORT void beidouEphemerisToEcef(Vec const& kepler, core::Toc const& toe, double t, Vec& pos, Vec& vel);

// Generic Keplerian almanac. `almanac` has 8 elements:
//   0 toa (continuous seconds), 1 sqrtA (m^1/2), 2 e, 3 Omega0, 4 omega,
//   5 M0 (rad), 6 deltaI (rad, from 0.3 semicircle; from 0 for a BeiDou GEO),
//   7 OmegaDot (rad/s).
// t is on the scale of element 0. The velocity is that of the same
// unperturbed orbit in the rotating frame.
ZARN_EXPORT void keplerianAlmanacToEcef(core::GnssType gnss, Vec const& almanac, double t, Vec& pos, Vec& vel,
                                        BeidouSvType svType);

// Almanac records; t in continuous GPS seconds. The reference time is the
// toa Toc when it carries a week (first or second non-zero); otherwise the
// broadcast 8-bit week `wna` is taken to the week nearest t.
ZARN_EXPORT void gpsAlmanacToEcef(core::GpsAlmanac const& alm, double t, Vec& pos, Vec& vel);
// Position only.
ZARN_EXPORT void almanacToEcef(core::GpsAlmanac const& alm, double t, Vec& pos);
// svType selects the reference inclination (0 for GEO, 0.3 semicircle otherwise).
ZARN_EXPORT void beidouAlmanacToEcef(core::BeidouAlmanac const& alm, double t, Vec& pos, Vec& vel,
                                     BeidouSvType svType);

// Orbit type from the broadcast record: GEO when |i0| < 0.5 rad, else MEO
// when A < 3.5e7 m, else IGSO.
ZARN_EXPORT BeidouSvType getBeidouSvType(core::BeidouEphemeris const& eph);
// "UNDEFINED SAT TYPE", "GEO", "IGSO", "MEO"; "UNKNOWN SAT TYPE" otherwise.
ZARN_EXPORT std::string toString(BeidouSvType svType);
// One level-2 line under "EphemerisConversion" with every field of the record.
ZARN_EXPORT void logBeidouEphemeris(core::BeidouEphemeris const& eph);

// GLONASS broadcast state integrated to t (continuous GPS seconds) with RK4 in
// steps of about one second (round(|t - t0|) equal steps), PZ-90 Earth-fixed.
// The record's `time` is its reference epoch on the GLONASS scale; `leaps` is
// the caller's leap-second table for the GLONASS-GPS conversion.
ZARN_EXPORT void glonassEphemerisToEcef(core::GlonassEphemeris const& eph, double t, Vec& pos, Vec& vel,
                                        std::vector<LeapInfo> const& leaps);

// GLONASS almanac (ICD A.3.1.3: mean elements with secular J2 rates, periodic
// J2 corrections, Kepler's equation) at t (continuous GPS seconds), PZ-90.
// The ascending-node epoch is day `na` (1-based) of four-year period
// `time.first` plus tLambda; when `na` is 0 the day is `time.second`.
ZARN_EXPORT void glonassAlmanacToEcef(core::GlonassAlmanac const& alm, double t, Vec& pos, Vec& vel,
                                      std::vector<LeapInfo> const& leaps);

// ---- Keplerian fit and broadcast encoding (libs/support/src/keplerian_fit.cpp) ----
//
// The 15-element kepler vector is elements 1-15 of the ephemeris layout above:
//   0 sqrtA (m^1/2), 1 e, 2 i0, 3 Omega0, 4 omega, 5 M0 (rad), 6 deltaN,
//   7 iDot, 8 OmegaDot (rad/s), 9 cuc, 10 cus (rad), 11 crc, 12 crs (m),
//   13 cic, 14 cis (rad).
// The 17-element vector appends 15 toe as GPS seconds of week and 16 the full
// GPS week, both on the GPS scale for BeiDou too (the layout of validation.hpp).

// Fits the broadcast Keplerian model to N Earth-fixed states by Gauss-Newton
// least squares on the positions. rSat, vSat: 3 x N (m, m/s, one state per
// column, ITRS); tSat: N continuous GPS seconds, increasing. The reference
// time is the middle sample (number ceil(N/2), counting from 1) rounded to the
// nearest 16 s (GPS) or 8 s of BeiDou time (BeiDou); the velocity of that
// sample only seeds the iteration (for a BeiDou orbit below 0.5 rad of
// inclination in the frame of the GEO model of keplerianEphemerisToEcef).
// kepler (out): the 17-element vector, angles i0, Omega0, omega, M0 in
// [-pi, pi) and e >= 0; it is written for any N > 0, also on failure. Returns
// true when every position residual is within 5 m at the end, also when the
// iteration ran into its limit of 40 (it then still creeps along a flat cost
// valley with a usable solution); false otherwise, and without iterating for fewer than
// 5 samples (kepler then holds the seed elements). A level-4 line under
// "EphemerisConversion" says why.
// rSat or vSat not 3 x N, or a GnssType other than GPS and BEIDOU, is fatal.
ZARN_EXPORT bool satelliteStatesToKeplerian(core::GnssType gnss, Mat const& rSat, Mat const& vSat,
                                            Vec const& tSat, Vec& kepler);
// The same starting from `start`, the 17-element result of a fit of the same
// orbit at an earlier or later reference time (the previous window of a
// prediction), carried to this toe; an empty or GEO-model start, or a fit that
// fails from it, falls back to the middle state.
ZARN_EXPORT bool satelliteStatesToKeplerian(core::GnssType gnss, Mat const& rSat, Mat const& vSat,
                                            Vec const& tSat, Vec const& start, Vec& kepler);

// Residual of the fit: the model positions of the 15-element kepler vector
// with reference time toe, minus the given positions. times: N seconds and toe
// on the constellation's own scale (GPS seconds for GPS, BeiDou seconds for
// BeiDou); states: 3 x N Earth-fixed positions (m), one per column.
// residual (out, resized to 3N): element 3k + j is axis j of sample k (m).
// Returns 0, or
//   1  kepler has not 15 elements,
//   2  states is not 3 x N,
//   3  gnss is neither GPS nor BEIDOU,
//   4  the elements are not an ellipse (sqrtA <= 0, |e| >= 1, or not finite):
//      every residual is NaN,
//   5  a residual is not finite.
// Every failure logs the inputs at level 4 under "EphemerisConversion" (x: the
// elements divided by the normalisation constants of the solve).
ZARN_EXPORT int optfun(core::GnssType gnss, Vec const& kepler, Vec const& times, Mat const& states,
                       double toe, Vec& residual);

// Encodes the 17-element vector with the broadcast LSBs (rounded half away
// from zero) into the orbit fields and toe of the record; every other field is
// left as it was. The BeiDou toe is taken to BeiDou time. Returns the verdict
// of validGpsEphemeris / validBeidouEphemeris on the same vector: the record
// is filled even when it is false. Any other size than 17 is fatal.
ZARN_EXPORT bool keplerianToGpsEphemeris(Vec const& kepler, core::GpsEphemeris& eph);
ZARN_EXPORT bool keplerianToBeidouEphemeris(Vec const& kepler, core::BeidouEphemeris& eph);

}  // namespace support
}  // namespace zarn

#endif
