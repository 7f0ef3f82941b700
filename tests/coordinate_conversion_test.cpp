// Frame rotations, local orbital frames and the terrestrial-inertial chain.
#include "zarn/support/coordinate_conversion.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <functional>
#include <random>
#include <string>

#include "support/test_support.hpp"
#include "support/vectors.hpp"

#include <erfa.h>
#include <erfam.h>

namespace zs = zarn::support;
using zs::Mat;
using zs::Vec;

constexpr double pi = 3.14159265358979323846;
constexpr double deg = pi / 180.0;
constexpr double arcsec = deg / 3600.0;
constexpr double mu = 3.986004418e14;
constexpr double gpsJd0 = 2444244.5;  // Julian date of GPS second 0

using zarn::test::vec3;

Vec mul(Mat const& m, Vec const& v) {
  return boost::numeric::ublas::prod(m, v);
}
Mat mul(Mat const& a, Mat const& b) {
  return boost::numeric::ublas::prod(a, b);
}
Mat tr(Mat const& a) {
  return boost::numeric::ublas::trans(a);
}

// Small rotation angle between two rotation matrices, from the antisymmetric
// part of a * b^T.
double angleBetween(Mat const& a, Mat const& b) {
  Mat const d = mul(a, tr(b));
  double const x = (d(1, 2) - d(2, 1)) / 2, y = (d(2, 0) - d(0, 2)) / 2, z = (d(0, 1) - d(1, 0)) / 2;
  return std::asin(std::min(1.0, std::sqrt(x * x + y * y + z * z)));
}

// The fatal line of this module for the invalid_argument text t.
std::string fatal(std::string const& t) {
  return zarn::test::fatalArgument(t, "libs/support/src/coordinate_conversion");
}

// Two-body state of true anomaly nu (elements a, e, i, omega, Omega).
void elementState(double a, double e, double i, double w, double O, double nu, Vec& r, Vec& v) {
  double const p = a * (1 - e * e), rr = p / (1 + e * std::cos(nu)), sq = std::sqrt(mu / p);
  Mat const P = mul(mul(zs::rotationMatrix(3, -O), zs::rotationMatrix(1, -i)), zs::rotationMatrix(3, -w));
  r = mul(P, vec3(rr * std::cos(nu), rr * std::sin(nu), 0));
  v = mul(P, vec3(-sq * std::sin(nu), sq * (e + std::cos(nu)), 0));
}

// An Earth-fixed GPS-like state: 26 560 km radius, inclined 55 degrees.
void gpsLikeItrsState(Vec& r, Vec& v) {
  r = vec3(15600e3, -7540e3, 19800e3);
  v = vec3(-1250.0, 2830.0, 1900.0);
}

// ---- Elementary rotations -------------------------------------

TEST(RotationMatrix, FrameRotationsAboutEachAxisAreErfasRxRyRz) {
  for (int axis = 1; axis <= 3; ++axis) {
    double m[3][3];
    eraIr(m);
    (axis == 1 ? eraRx : axis == 2 ? eraRy : eraRz)(0.3, m);
    Mat const ours = zs::rotationMatrix(axis, 0.3);
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) EXPECT_NEAR(ours(i, j), m[i][j], 1e-16) << axis << " " << i << j;
  }
}

// ---- Orbital elements and local frames ----------------------------------------

// States built from elements with the perifocal formulas, every angle in
// both half-turns so that each quadrant branch is taken. Then the special
// branches: circular equatorial (nu is the true longitude, every other angle
// 0); e = 5e-7 at perigee is snapped to 0 and the argument of latitude
// reported; elliptic equatorial (omega is the longitude of perigee).
TEST(EciToOrb, RecoversTheElementsOfAPerifocalStateOnEveryBranch) {
  double const a = 26560e3;
  double worst = 0.0;
  for (double e : {0.01, 0.3, 0.8})
    for (double inc : {20 * deg, 100 * deg})
      for (double w : {70 * deg, 290 * deg})
        for (double O : {40 * deg, 250 * deg})
          for (double nu : {10 * deg, 135 * deg, 200 * deg, 340 * deg}) {
            Vec r, v;
            elementState(a, e, inc, w, O, nu, r, v);
            Vec const el = zs::eciToOrb(r, v);
            EXPECT_NEAR(el(0), a, 1e-5 * (1 + 10 * e));
            double const expected[6] = {a, e, inc, w, O, nu};
            for (int k = 1; k < 6; ++k) worst = std::max(worst, std::fabs(el(k) - expected[k]));
          }
  EXPECT_LT(worst, 1e-12);
  struct {
    double e, inc, w, nu;
    std::array<double, 6> expected;
    double tol;
  } const cases[] = {
      {0.0, 0.0, 0.0, 200 * deg, {a, 0, 0, 0, 0, 200 * deg}, 1e-12},
      {5e-7, 55 * deg, 300 * deg, 0.0, {a, 0, 55 * deg, 0, 0, 300 * deg}, 1e-12},
      {0.1, 0.0, 250 * deg, 30 * deg, {a, 0.1, 0, 250 * deg, 0, 30 * deg}, 1e-10},
  };
  for (auto const& c : cases) {
    Vec r, v;
    elementState(a, c.e, c.inc, c.w, 0.0, c.nu, r, v);
    Vec const el = zs::eciToOrb(r, v);
    EXPECT_NEAR(el(0), a, 1e-3) << c.e;
    for (int k = 1; k < 6; ++k) EXPECT_NEAR(el(k), c.expected[k], c.tol) << c.e << " element " << k;
  }
}

TEST(LocalFrames, RtnIsOrthonormalAndAlignedWithTheOrbitAndRswOffsetsUseIt) {
  Vec const r = vec3(6524.834e3, 6862.875e3, 6448.296e3), v = vec3(4901.327, 5533.756, -1976.341);
  Vec y = r;
  Mat A(3, 3);
  zs::eciToRtn(r, v, y, A);
  double const rn = norm_2(r);
  EXPECT_LT(norm_inf(Vec(y - vec3(rn, 0.0, 0.0))), 1e-6);
  Mat const I = boost::numeric::ublas::identity_matrix<double>(3);
  EXPECT_LT(norm_inf(Mat(mul(A, tr(A)) - I)), 1e-15);
  EXPECT_NEAR(zs::determinant(A), 1.0, 1e-15);
  // Velocity: radial rate and |h|/|r| along track, nothing out of plane.
  EXPECT_LT(norm_inf(Vec(mul(A, v) - vec3(inner_prod(r, v) / rn, norm_2(zs::cross(r, v)) / rn, 0.0))), 1e-9);
  // RSW offsets are those of the RTN axes.
  Vec const d = vec3(120.0, -450.0, 800.0);
  EXPECT_LT(norm_inf(Vec(zs::eciToRsw(r, v, Vec(r + d), vec3(1, 2, 3)) - mul(A, d))), 1e-9);
}

// Two-body state at time t after perigee (elements a, e, i, omega, Omega).
void keplerState(double a, double e, double i, double w, double O, double t, Vec& r, Vec& v) {
  double const M = std::sqrt(mu / (a * a * a)) * t;
  double E = M;
  for (int k = 0; k < 50; ++k) E -= (E - e * std::sin(E) - M) / (1 - e * std::cos(E));
  double const nu = 2 * std::atan2(std::sqrt(1 + e) * std::sin(E / 2), std::sqrt(1 - e) * std::cos(E / 2));
  elementState(a, e, i, w, O, nu, r, v);
}
TEST(LocalFrames, RswVelocityIsTheRateOfTheInertialOffset) {
  // An offset moving in the rotating RSW axes, differentiated in inertial space.
  for (double e : {0.0, 0.1}) {
    double const a = 26560e3, inc = 55 * deg, w = 40 * deg, O = 120 * deg, t = 3000.0, h = 1.0;
    Vec const rRsw = vec3(300.0, -2000.0, 700.0), vRsw = vec3(0.5, -0.2, 0.1);
    auto inertialOffset = [&](double s) {
      Vec r, v, y(3, 0.0);
      keplerState(a, e, inc, w, O, s, r, v);
      Mat A(3, 3);
      zs::eciToRtn(r, v, y, A);
      return Vec(mul(tr(A), Vec(rRsw + (s - t) * vRsw)));
    };
    Vec const fd = (inertialOffset(t + h) - inertialOffset(t - h)) / (2 * h);
    Vec rRef, vRef;
    keplerState(a, e, inc, w, O, t, rRef, vRef);
    EXPECT_LT(norm_inf(Vec(zs::rswToEci(rRef, vRef, rRsw, vRsw) - fd)), 1e-7) << "e = " << e;
  }
}

// ---- ICRS to the Earth-rotating frame of date ---------------------------------

// Two-part Julian date of GPS-scale seconds t: whole days in the first part,
// the fraction in the second, so that no resolution is lost.
void julianDate(double t, double& d1, double& d2) {
  double const days = std::floor(t / 86400.0);
  d1 = gpsJd0 + days;
  d2 = (t - days * 86400.0) / 86400.0;
}

Mat toMat(double const (&r)[3][3]) {
  Mat m(3, 3);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) m(i, j) = r[i][j];
  return m;
}

// ERFA's classical chain: Pmat76, Nut80/Obl80, Gmst82 + Eqeq94, with TT =
// GPS + 51.184 s and UT1 = UTC + dut1. With `libraryScales` TT is taken equal
// to GPS and the equation of the equinoxes uses the complementary terms
// 0.002649" sin(Omega) + 0.000013" cos(Omega).
Mat erfaIcrsToTrue(double t, double dut1, int leap, bool libraryScales) {
  double tt1, tt2, ut1, ut2;
  julianDate(t + (libraryScales ? 0.0 : 51.184), tt1, tt2);
  julianDate(t - leap + dut1, ut1, ut2);
  double rp[3][3], rn[3][3], r[3][3], dpsi, deps;
  eraPmat76(tt1, tt2, rp);
  eraNut80(tt1, tt2, &dpsi, &deps);
  double const epsa = eraObl80(tt1, tt2);
  eraNumat(epsa, dpsi, deps, rn);
  double eqeq = eraEqeq94(tt1, tt2);
  if (libraryScales) {
    double const om = eraFaom03(((tt1 - ERFA_DJ00) + tt2) / ERFA_DJC);
    eqeq = dpsi * std::cos(epsa) + (0.002649 * std::sin(om) + 0.000013 * std::cos(om)) * ERFA_DAS2R;
  }
  eraRxr(rn, rp, r);
  eraRz(eraAnp(eraGmst82(ut1, ut2) + eqeq), r);
  return toMat(r);
}

TEST(IcrsToInt0, AgreesWithTheClassicalChain1990To2035) {
  // GPS seconds of 1990-01-01 and 2036-01-01.
  double const start = 315964800.0, stop = 1767225600.0 + 16 * 86400.0;
  int const samples = 3000;
  std::mt19937_64 rng(2035);
  auto rnd = [&] { return std::uniform_real_distribution<double>(0.0, 1.0)(rng); };
  double maxFull = 0.0, maxLibrary = 0.0;
  for (int k = 0; k < samples; ++k) {
    double const t = start + (stop - start) * (k + rnd()) / samples;
    double const dut1 = 1.8 * rnd() - 0.9;
    int const leap = static_cast<int>(t / 3.2e7) % 19;  // any count: both chains take it as given
    Mat const ours = zs::icrsToInt0(t, dut1, leap);
    maxFull = std::max(maxFull, angleBetween(ours, erfaIcrsToTrue(t, dut1, leap, false)));
    maxLibrary = std::max(maxLibrary, angleBetween(ours, erfaIcrsToTrue(t, dut1, leap, true)));
  }
  EXPECT_LT(maxFull, 1e-8);
  // Precession, the nutation series and GMST agree to rounding once the two
  // deliberate convention differences are removed.
  EXPECT_LT(maxLibrary, 1e-12);
}

// ---- ITRS <-> Int0 ---------------------------------------------------------------

// ITRS states over +-1 day to Int0 and back through toEcef (checked against
// ERFA below); at t0 itrsToInt0 is toInt0.
TEST(TerrestrialInertial, ToInt0ThenToEcefReturnsTheInput) {
  int const n = 9;
  double const t0 = 1.3e9 + 100.0;
  zs::Eop const eop{0.12 * arcsec, 0.41 * arcsec};
  Mat rItrs(3, n), vItrs(3, n), rInt0(3, n), vInt0(3, n), H(8, 8);
  Vec t(n), r, v, re(3), ve(3);
  gpsLikeItrsState(r, v);
  for (int k = 0; k < n; ++k)
    t(k) = t0 + (k - 4) * 21600.0, column(rItrs, k) = r * (1.0 + 0.01 * k),
    column(vItrs, k) = v * (1.0 - 0.02 * k);
  zs::itrsToInt0(rItrs, vItrs, t, t0, eop, 0.2, 18, rInt0, vInt0);
  for (int k = 0; k < n; ++k) {
    zs::toEcef(Vec(column(rInt0, k)), Vec(column(vInt0, k)), t(k), t0, eop, 0.2, 18, re, ve);
    EXPECT_TRUE(norm_inf(Vec(re - column(rItrs, k))) < 1e-6 && norm_inf(Vec(ve - column(vItrs, k))) < 1e-9)
        << k;
  }
  zs::toInt0(Vec(column(rItrs, 4)), Vec(column(vItrs, 4)), eop, re, ve, H);
  EXPECT_TRUE(norm_inf(Vec(re - column(rInt0, 4))) < 1e-7 && norm_inf(Vec(ve - column(vInt0, 4))) < 1e-10);
}

TEST(TerrestrialInertial, ToInt0JacobianMatchesCentralDifferences) {
  Vec r, v;
  gpsLikeItrsState(r, v);
  zs::Eop const eop{0.2 * arcsec, 0.45 * arcsec};
  Vec ri(3), vi(3), x0(8);
  Mat J(8, 8);
  zs::toInt0(r, v, eop, ri, vi, J);
  // x = (r, v, xp, yp) -> (rInt0, vInt0, xp, yp)
  auto map = [](Vec const& x) {
    Vec out = x, rr(3), vv(3);
    Mat scratch(8, 8);
    zs::toInt0(subrange(x, 0, 3), subrange(x, 3, 6), zs::Eop{x(6), x(7)}, rr, vv, scratch);
    return subrange(out, 0, 3) = rr, subrange(out, 3, 6) = vv, out;
  };
  subrange(x0, 0, 3) = r, subrange(x0, 3, 6) = v, x0(6) = eop.xp, x0(7) = eop.yp;
  Mat const fd = zarn::test::centralDifferences(map, x0, {10.0, 10.0, 10.0, 0.01, 0.01, 0.01, 1e-7, 1e-7});
  // Pole entries reach |r| ~ 2.7e7 m/rad; differencing noise there is ~0.02.
  for (int j = 0; j < 8; ++j)
    for (int i = 0; i < 8; ++i)
      EXPECT_NEAR(J(i, j), fd(i, j), j >= 6 ? 0.1 : 1e-9) << "row " << i << " column " << j;
}

// rItrs = POM00 * C(t) * C(t0)^T * rInt0 with ERFA's classical C on this
// library's time scale (the pole matrices differ by xp * yp * |r| ~ 3e-5 m);
// vItrs is the rate of rItrs of a point moving uniformly in Int0, up to the
// neglected precession-nutation rate (about 1e-12 rad/s at 2.6e7 m).
TEST(TerrestrialInertial, ToEcefAgreesWithTheErfaChainAndPoleAndItsVelocityIsTheRate) {
  Vec const r0 = vec3(-12e6, 21e6, 9e6), v0 = vec3(2100.0, 900.0, -2800.0);
  double const t0 = 1.25e9, h = 0.5;
  zs::Eop const eop{0.15 * arcsec, 0.38 * arcsec};
  double rpom[3][3];
  eraPom00(eop.xp, eop.yp, 0.0, rpom);
  int const leap = 18;
  for (double t : {t0, t0 + 900.0, t0 + 7200.0, t0 + 86400.0, t0 + 3 * 86400.0}) {
    auto ecef = [&](double s, Vec& re, Vec& ve) {
      zs::toEcef(Vec(r0 + (s - t) * v0), v0, s, t0, eop, -0.25, leap, re, ve);
    };
    Vec re(3), ve(3), rp(3), rm(3), scratch(3);
    ecef(t, re, ve);
    Mat const C = mul(erfaIcrsToTrue(t, -0.25, leap, true), tr(erfaIcrsToTrue(t0, -0.25, leap, true)));
    EXPECT_LT(norm_inf(Vec(re - mul(toMat(rpom), mul(C, r0)))), 1e-4) << t - t0;
    ecef(t + h, rp, scratch), ecef(t - h, rm, scratch);
    EXPECT_LT(norm_inf(Vec(ve - (rp - rm) / (2 * h))), 1e-3) << t - t0;
  }
}

// Fatal preconditions: each call with its message and the source path.
TEST(CoordinateConversionDeathTest, FatalMessages) {
  Vec ok(3, 1.0), bad(2, 1.0), y(3, 1.0), badY(4, 1.0), t(2, 0.0), t3(3, 0.0);
  Mat A(3, 3), badA(3, 2), H(8, 8), badH(3, 3), m(3, 2, 1.0), m2(3, 3, 1.0), badRows(2, 2, 1.0);
  zs::Eop const eop;
  std::string const dim = " vector is not three dimensional.";
  // The velocity twins of the position checks share their code path.
  std::pair<std::function<void()>, std::string> const cases[] = {
      {[&] { zs::rotationMatrix(0, 0.1); }, "rotationMatrix: invalid axis"},
      {[&] { zs::pz902ToWgs84(bad); }, "pz902ToWgs: Coordinate" + dim},
      {[&] { zs::wgs84ToPz902(bad); }, "wgsToPz902: Coordinate" + dim},
      {[&] { zs::eciToOrb(bad, ok); }, "eciToOrb: Coordinate" + dim},
      {[&] { zs::eciToRtn(bad, ok, y, A); }, "eciToRtn: invalid size r"},
      {[&] { zs::eciToRtn(ok, ok, y, badA); }, "eciToRtn: invalid size A"},
      {[&] { zs::eciToRsw(bad, ok, ok, ok); }, "eciToRsw: Reference coordinate" + dim},
      {[&] { zs::eciToRsw(ok, ok, bad, ok); }, "eciToRsw: Coordinate" + dim},
      {[&] { zs::rswToEci(bad, ok, ok, ok); }, "rswToEci: Reference coordinate" + dim},
      {[&] { zs::rswToEci(ok, ok, bad, ok); }, "rswToEci: RSW coordinate" + dim},
      {[&] { zs::toEcef(bad, ok, 0, 0, eop, 0, 18, ok, ok); }, "toEcef: invalid size rInt0"},
      {[&] { zs::toEcef(ok, ok, 0, 0, eop, 0, 18, bad, ok); }, "toEcef: invalid size rItrs"},
      {[&] { zs::toInt0(bad, ok, eop, ok, ok, H); }, "toInt0: invalid size rItrs"},
      {[&] { zs::toInt0(ok, ok, eop, bad, ok, H); }, "toInt0: invalid size rInt0"},
      {[&] { zs::toInt0(ok, ok, eop, ok, ok, badH); }, "toInt0: invalid size H"},
      {[&] { zs::itrsToInt0(badRows, m, t, 0, eop, 0, 18, m, m); }, "itrsToInt0: invalid size rItrs"},
      {[&] { zs::itrsToInt0(m, m2, t, 0, eop, 0, 18, m, m); }, "itrsToInt0: rItrs and vItrs size mismatch"},
      {[&] { zs::itrsToInt0(m, m, t3, 0, eop, 0, 18, m, m); }, "itrsToInt0: invalid size t"},
      {[&] { zs::itrsToInt0(m, m, t, 0, eop, 0, 18, m2, m); }, "itrsToInt0: invalid size rInt0"},
      {[&] { zs::itrsToInt0(m, m, t, 0, eop, 0, 18, m, m2); }, "itrsToInt0: rInt0 and vInt0 size mismatch"},
  };
  for (auto const& [call, text] : cases) EXPECT_DEATH(call(), fatal(text)) << text;
}
