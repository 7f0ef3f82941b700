// Reference frames: axis rotations, local orbital frames, the PZ-90.02 shift
// and the terrestrial-to-inertial transformation.
//
// Frames:
//  - ICRS: the celestial frame, taken as the mean equator and equinox of J2000.
//  - Earth-rotating frame of date: true equator of date, x axis towards the
//    Greenwich meridian of date, before polar motion (the classical pseudo
//    Earth-fixed frame; IAU 1976 precession, IAU 1980 nutation, 1982 sidereal
//    time).
//  - Int0 of epoch t0: the Earth-rotating frame of date at t0, then held fixed
//    in inertial space. Orbits are integrated in it.
//  - ITRS: Earth-fixed; the Earth-rotating frame of date with the pole applied.
//
// Polar motion. The library has one polar-motion matrix,
//     W = R2(-xp) * R1(-yp),
// with R1, R2 the frame rotations of rotationMatrix and (xp, yp) the pole
// coordinates in the IERS sense (IERS Conventions 2010, sec. 5.4.1; the
// celestial intermediate pole lies at (xp, -yp) in ITRS). W maps the
// Earth-rotating frame of date to ITRS: toEcef applies W, toInt0 and
// itrsToInt0 apply its transpose, and the pole partials of initial-state
// estimation and of the force model are the derivatives of this W
// (polarMotionPartials). It equals the IERS matrix R1(-yp) R2(-xp) (s' = 0)
// to second order in the angles.
//
// Time arguments are continuous GPS seconds. UT1 is formed as
// t + (UT1 - UTC) - (GPS - UTC); the Earth rotation between two epochs
// therefore depends only on their GPS difference as long as both ends are
// evaluated with the same UT1 - UTC and leap-second count, which every
// function here that takes two epochs does.
#ifndef ZARN_SUPPORT_COORDINATE_CONVERSION_HPP
#define ZARN_SUPPORT_COORDINATE_CONVERSION_HPP

#include "zarn/support/export.hpp"
#include "zarn/support/math.hpp"

namespace zarn {
namespace support {

// Earth orientation: pole coordinates xp, yp in radians (IERS sense). UT1 - UTC
// is not part of it; it travels as a separate argument.
struct Eop {
  double xp = 0.0;
  double yp = 0.0;
};

inline bool operator==(Eop const& a, Eop const& b) {
  return a.xp == b.xp && a.yp == b.yp;
}

// Earth orientation as the force model holds it: the pole and W, the 3x3
// polar-motion matrix polarMotionMatrix(eop) (Earth-rotating frame to ITRS).
// Build it with makeEopInfo so that both stay consistent.
struct EopInfo {
  Eop eop;
  Mat matrix;
};

// The integration frame Int0: its epoch tRef (GPS seconds), the UT1 - UTC (s)
// with which it was built, and M = icrsToInt0(tRef, ut1MinusUtc, leap), the
// 3x3 matrix taking ICRS vectors into Int0. Build it with makeInertialFrameInfo;
// conversions back to ITRS take tRef and ut1MinusUtc from here and the same
// leap-second count. To first order Int0 -> ITRS at t is
// W * R3(earthRotationRate * (t - tRef)), the form the force model uses.
struct InertialFrameInfo {
  double tRef = 0.0;
  double ut1MinusUtc = 0.0;
  Mat matrix;
};

inline bool operator==(EopInfo const& a, EopInfo const& b) {
  return a.eop == b.eop && a.matrix == b.matrix;
}
inline bool operator==(InertialFrameInfo const& a, InertialFrameInfo const& b) {
  return a.tRef == b.tRef && a.ut1MinusUtc == b.ut1MinusUtc && a.matrix == b.matrix;
}

// Earth's gravitational parameter of the dynamics, m^3/s^2: the central term
// of the force model's gravity field, the two-body start-up of the
// integrators and the osculating elements below (IERS Conventions 2010 Table
// 1.1, equal to the WGS 84 value). The broadcast user algorithms keep their
// own values (broadcast_interface.hpp).
constexpr double kEarthGm = 3.986004418e14;

// ---- Elementary rotations, datum shift, local orbital frames -----------------
// Gravitational parameter of these functions: kEarthGm.

// Frame (passive) rotation about axis 1 (x), 2 (y) or 3 (z) by angle (rad): a
// positive angle turns the axes, so R3(a) * (1, 0, 0) = (cos a, -sin a, 0).
// Aborts for any other axis.
ZARN_EXPORT Mat rotationMatrix(int axis, double angle);

// Datum shift PZ-90.02 -> WGS 84 (translation by (-0.36, +0.08, +0.18) m, no
// rotation or scale) and its inverse. Position in metres, 3 elements.
ZARN_EXPORT Vec pz902ToWgs84(Vec const& position);
ZARN_EXPORT Vec wgs84ToPz902(Vec const& position);

// Classical elements of an inertial state r (m), v (m/s):
// (a [m], e, i, omega, Omega, nu), angles in [0, 2 pi) rad; the argument of
// perigee precedes the node. e below 1e-6 and i below 1e-6 rad are snapped to
// 0. Circular orbits take omega = 0 and give the argument of latitude as nu
// (the true longitude, with Omega = 0, when also equatorial); elliptic
// equatorial orbits give the longitude of perigee as omega and Omega = 0.
// a is +infinity for e = 1 exactly.
ZARN_EXPORT Vec eciToOrb(Vec const& r, Vec const& v);

// Radial-transverse-normal frame of the inertial state (r, v): A (3x3, out)
// has the rows r/|r|, n x r/|r| and n = (r x v)/|r x v|. The inertial
// 3-vector y is replaced by A * y.
ZARN_EXPORT void eciToRtn(Vec const& r, Vec const& v, Vec& y, Mat& A);

// Position of r relative to the reference orbit (rRef, vRef), in the
// radial/along-track/cross-track axes of the reference, m:
// R3(nu) R3(omega) R1(i) R3(Omega) (r - rRef) with the elements of eciToOrb.
// v is checked for size only.
ZARN_EXPORT Vec eciToRsw(Vec const& rRef, Vec const& vRef, Vec const& r, Vec const& v);

// Inertial velocity (m/s) of an offset given in the RSW axes of the reference
// orbit (rRsw in m, vRsw in m/s), including the rotation of those axes at the
// two-body rate of nu; the reference velocity is not added.
ZARN_EXPORT Vec rswToEci(Vec const& rRef, Vec const& vRef, Vec const& rRsw, Vec const& vRsw);

// ---- Terrestrial-inertial transformation -------------------------------------

// Nominal Earth rotation rate used for velocities, rad/s. No length-of-day
// correction is applied.
constexpr double earthRotationRate = 7.2921158553e-5;

// Rotation from ICRS to the Earth-rotating frame of date (no polar motion) at
// t (GPS seconds): R3(GAST) * N * P with IAU 1976 precession (Lieske et al.
// 1977), the 106-term IAU 1980 nutation (Seidelmann 1982), GMST of 1982 (Aoki
// et al. 1982) from UT1 = t + ut1MinusUtc - leapSeconds, and the equation of
// the equinoxes with the complementary terms 0.002649" sin(Omega) +
// 0.000013" cos(Omega). Precession and nutation are evaluated on the GPS time
// scale itself (TT - GPS = 51.184 s is not added); with the complementary
// terms this keeps the matrix within 1e-9 rad of the TT-based chain with the
// 1994 equation of the equinoxes. ut1MinusUtc in s, leapSeconds = GPS - UTC.
ZARN_EXPORT Mat icrsToInt0(double t, double ut1MinusUtc, int leapSeconds);

// W = R2(-xp) * R1(-yp): Earth-rotating frame of date to ITRS.
ZARN_EXPORT Mat polarMotionMatrix(Eop const& eop);
// dW/dxp and dW/dyp (3x3 each, out).
ZARN_EXPORT void polarMotionPartials(Eop const& eop, Mat& dWdxp, Mat& dWdyp);

// The force model's Earth orientation record for eop: {eop, W}.
ZARN_EXPORT EopInfo makeEopInfo(Eop const& eop);
// The Int0 record of epoch tRef: {tRef, ut1MinusUtc, icrsToInt0(tRef, ut1MinusUtc, leapSeconds)}.
ZARN_EXPORT InertialFrameInfo makeInertialFrameInfo(double tRef, double ut1MinusUtc, int leapSeconds);

// Int0 of epoch t0 to ITRS at time t (GPS seconds):
//   B = icrsToInt0(t) * icrsToInt0(t0)^T   (both with ut1MinusUtc, leapSeconds)
//   rItrs = W B rInt0,   vItrs = W (B vInt0 - w x (B rInt0)),
// w = (0, 0, earthRotationRate). One leap-second count serves both epochs, so
// the Earth rotation in B follows t - t0 even across a leap second. The
// velocity ignores the precession-nutation rate (~1e-12 rad/s). Positions m,
// velocities m/s; all four vectors have 3 elements.
ZARN_EXPORT void toEcef(Vec const& rInt0, Vec const& vInt0, double t, double t0, Eop const& eop,
                        double ut1MinusUtc, int leapSeconds, Vec& rItrs, Vec& vItrs);

// ITRS to Int0 of the state's own epoch (t = t0, so B = I): the inverse of
// toEcef at t = t0, whatever ut1MinusUtc and leap seconds that call uses:
//   rInt0 = W^T rItrs,   vInt0 = W^T vItrs + w x rInt0.
// H (8x8, out) is the Jacobian of (rInt0, vInt0, xp, yp) with respect to
// (rItrs, vItrs, xp, yp); its upper-left 3x3 block is W^T and its last two
// columns hold the pole partials. All vectors have 3 elements.
ZARN_EXPORT void toInt0(Vec const& rItrs, Vec const& vItrs, Eop const& eop, Vec& rInt0, Vec& vInt0, Mat& H);

// Many ITRS states to Int0 of epoch t0: column k of rItrs, vItrs (3 x n) is
// the state at t[k] (GPS seconds, n elements); column k of rInt0, vInt0
// (3 x n, out, sized by the caller) receives the exact inverse of toEcef with
// the same t[k], t0, eop, ut1MinusUtc and leapSeconds:
//   rInt0 = B^T W^T rItrs,   vInt0 = B^T (W^T vItrs + w x (W^T rItrs)).
ZARN_EXPORT void itrsToInt0(Mat const& rItrs, Mat const& vItrs, Vec const& t, double t0, Eop const& eop,
                            double ut1MinusUtc, int leapSeconds, Mat& rInt0, Mat& vInt0);

}  // namespace support
}  // namespace zarn

#endif
