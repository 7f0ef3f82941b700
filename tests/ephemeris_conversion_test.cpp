// Broadcast ephemerides and almanacs to Earth-fixed states.
#include "zarn/support/ephemeris_conversion.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/broadcast_helpers.hpp"
#include "support/test_support.hpp"
#include "support/vectors.hpp"
#include "zarn/support/time_conversion.hpp"
#include "zarn/support/validation.hpp"

namespace zc = zarn::core;
namespace zs = zarn::support;
using zs::Vec;

namespace {

double const icdPi = 3.1415926535898;
double const week = 604800.0;
double const bdsOffset = 820108814.0;  // BeiDou seconds + offset = GPS seconds

using zarn::test::almanacOf;
using zarn::test::keplerOf;
using zarn::test::positionOf;
using zarn::test::vec3;
using zarn::test::velocityByDifferences;

// GPS PRN 1 from brdc2510.16n: toe 2016-09-07 00:00 GPS (week 1913, 259200 s).
zc::GpsEphemeris gpsPrn1() {
  zc::GpsEphemeris e;
  e.svId = 1, e.toe = zc::Toc{1, 1913 - 1024, 259200}, e.sqrtA = 2702023377u, e.e = 50330158u;
  e.i0 = 659722593, e.omega0 = 1534438970, e.omega = 371831259, e.m0 = -439496445, e.deltaN = 13254;
  e.omegaDot = -23108, e.iDot = 636, e.cuc = -100, e.cus = 2975, e.crc = 8791, e.crs = -209, e.cic = 42;
  e.cis = 17;
  return e;
}
double const prn1Toe = 1913 * week + 259200.0;

Vec prn1Kepler() {
  return keplerOf(gpsPrn1(), std::ldexp(1.0, -29), std::ldexp(1.0, -5));
}

Vec gpsPosition(zc::GpsEphemeris const& e, double t) {
  return positionOf([&](double s, Vec& p, Vec& v) { zs::gpsEphemerisToEcef(e, s, p, v); })(t);
}

}  // namespace

TEST(KeplerianEphemeris, RecordScalingTimeScalesAndVelocity) {
  zc::GpsEphemeris const gps = gpsPrn1();
  Vec const kepler = prn1Kepler();
  Vec eph(16);
  eph(0) = prn1Toe;
  for (unsigned i = 0; i < 15; ++i) eph(i + 1) = kepler(i);

  // BeiDou record of the same orbit: 2^-31 rad and 2^-6 m harmonics, toe on BDT.
  zc::BeidouEphemeris bds;
  bds.toe = zs::secsToBeidou(prn1Toe - bdsOffset), bds.sqrtA = gps.sqrtA, bds.e = gps.e, bds.i0 = gps.i0;
  bds.omega0 = gps.omega0, bds.omega = gps.omega, bds.m0 = gps.m0, bds.deltaN = gps.deltaN;
  bds.omegaDot = gps.omegaDot, bds.iDot = gps.iDot, bds.cuc = 4 * gps.cuc, bds.cus = 4 * gps.cus;
  bds.crc = 2 * gps.crc, bds.crs = 2 * gps.crs, bds.cic = 4 * gps.cic, bds.cis = 4 * gps.cis;

  for (double dt : {-7200.0, 0.0, 3000.0, 5000.0}) {
    double const t = prn1Toe + dt;
    Vec p1(3), v1(3), p2(3), v2(3), p3(3), v3(3);
    zs::gpsEphemerisToEcef(gps, t, p1, v1);
    zs::gpsEphemerisToEcef(kepler, gps.toe, t, p2, v2);
    zs::keplerianEphemerisToEcef(zc::GPS, eph, t, p3, v3);
    EXPECT_TRUE(norm_inf(p1 - p3) < 1e-6 && norm_inf(p2 - p3) < 1e-6 && norm_inf(v1 - v3) < 1e-9) << dt;
    // The velocity is the derivative of the position.
    Vec const fd = velocityByDifferences([&](double s) { return gpsPosition(gps, s); }, t, 1.0);
    EXPECT_LT(norm_inf(v1 - fd), 1e-6) << dt;

    // BeiDou entries take GPS seconds and evaluate at the BDT equivalent.
    Vec bdsEph = eph;
    bdsEph(0) = prn1Toe - bdsOffset;
    zs::beidouEphemerisToEcef(bds, t, p1, v1);
    zs::beidouEphemerisToEcef(kepler, bds.toe, t, p2, v2);
    zs::keplerianEphemerisToEcef(zc::BEIDOU, bdsEph, t - bdsOffset, p3, v3);
    EXPECT_TRUE(norm_inf(p1 - p3) < 1e-6 && norm_inf(p2 - p3) < 1e-6 && norm_inf(v1 - v3) < 1e-9) << dt;
  }
  // A week later the orbit is not folded back to the reference week.
  EXPECT_GT(norm_2(gpsPosition(gps, prn1Toe + week) - gpsPosition(gps, prn1Toe)), 1e6);
}

TEST(KeplerianEphemeris, GeostationaryModelRotatesPositionOnly) {
  // A circular orbit inclined 5 deg in the GEO model frame, node at 180 deg and
  // mean motion equal to the Earth rate, is geostationary on the equator.
  double const gm = 3.986004418e14, earthRate = 7.292115e-5, tilt = 5.0 * icdPi / 180.0;
  double const a = std::cbrt(gm / (earthRate * earthRate));
  double const toe = 557 * week + 3600.0, u0 = 0.7;
  Vec eph(16, 0.0);
  eph(0) = toe, eph(1) = std::sqrt(a), eph(3) = tilt, eph(4) = icdPi + earthRate * std::fmod(toe, week),
  eph(6) = u0;
  auto const position =
      positionOf([&](double t, Vec& p, Vec& v) { zs::keplerianEphemerisToEcef(zc::BEIDOU, eph, t, p, v); });
  Vec const fixed = vec3(a * std::cos(u0 + icdPi), a * std::sin(u0 + icdPi), 0.0);
  for (double dt : {-3600.0, 0.0, 1800.0}) EXPECT_LT(norm_inf(position(toe + dt) - fixed), 1e-4) << dt;

  // The velocity is that of the unrotated frame P = Rx(-5)^T Rz(wE tk)^T r,
  // taken relative to axes turning at wE about that frame's z axis.
  auto modelFrame = [&](double t) {
    Vec const r = position(t);
    double const th = earthRate * (t - toe), c = std::cos(th), s = std::sin(th);
    double const x = c * r(0) - s * r(1), y = s * r(0) + c * r(1), z = r(2);
    double const ct = std::cos(tilt), st = std::sin(tilt);  // Rx(-5 deg)^T = Rx(5 deg)
    return vec3(x, ct * y + st * z, -st * y + ct * z);
  };
  double const t = toe + 900.0;
  Vec p(3), v(3);
  zs::keplerianEphemerisToEcef(zc::BEIDOU, eph, t, p, v);
  Vec const q = modelFrame(t);
  Vec expected = velocityByDifferences(modelFrame, t, 1.0);
  expected(0) += earthRate * q(1), expected(1) -= earthRate * q(0);
  EXPECT_LT(norm_inf(v - expected), 1e-6);
  EXPECT_GT(norm_2(v), 100.0);  // not the (zero) Earth-fixed velocity
}

// GEO below 0.5 rad inclination, then IGSO above and MEO below sqrt(3.5e7 m) = 5916.0798 m^1/2,
// which lies between 3101729637 and 3101729638 times 2^-19.
TEST(BeidouSvType, ClassifiedFromInclinationThenAxis) {
  std::tuple<double, std::uint32_t, zs::BeidouSvType> const cases[] = {{0.49, 4000u << 19, zs::GEO},
                                                                       {0.51, 4000u << 19, zs::MEO},
                                                                       {0.51, 3101729637u, zs::MEO},
                                                                       {0.51, 3101729638u, zs::IGSO},
                                                                       {-0.51, 3101729638u, zs::IGSO}};
  for (auto const& [inclination, sqrtA, type] : cases) {
    zc::BeidouEphemeris e;
    e.i0 = static_cast<std::int32_t>(inclination / (icdPi * std::ldexp(1.0, -31))), e.sqrtA = sqrtA;
    EXPECT_EQ(zs::getBeidouSvType(e), type) << inclination << " " << sqrtA;
  }
}

TEST(KeplerianAlmanac, AgreesWithEphemerisAndDifferentiates) {
  double toa = 0.0;
  zc::GpsAlmanac alm = almanacOf(prn1Kepler(), prn1Toe, 3.986005e14, toa);
  alm.toa = zs::gpsSecsToGps(toa);
  for (double h : {-4.0, 0.0, 2.0, 6.0}) {
    double const t = prn1Toe + 3600.0 * h;
    Vec p(3), v(3), pOnly(3);
    zs::gpsAlmanacToEcef(alm, t, p, v);
    zs::almanacToEcef(alm, t, pOnly);
    EXPECT_TRUE(norm_2(p - gpsPosition(gpsPrn1(), t)) < 2000.0 && norm_inf(p - pOnly) == 0.0) << h;
    auto const position = positionOf([&](double s, Vec& q, Vec&) { zs::almanacToEcef(alm, s, q); });
    EXPECT_LT(norm_inf(v - velocityByDifferences(position, t, 1.0)), 1e-6);
  }

  // Only the broadcast 8-bit week: resolved to the week nearest t.
  zc::GpsAlmanac weekOnly = alm;
  weekOnly.toa = zc::Toc{0, 0, alm.toa.third}, weekOnly.wna = 1913 % 256;
  Vec p1(3), p2(3);
  zs::almanacToEcef(alm, prn1Toe + 86400.0, p1);
  zs::almanacToEcef(weekOnly, prn1Toe + 86400.0, p2);
  EXPECT_EQ(norm_inf(p1 - p2), 0.0);
}

TEST(KeplerianAlmanac, ReferenceInclinationByOrbitType) {
  Vec alm(8);
  double const values[8] = {86400.0, 6493.4, 0.001, 1.0, 0.5, 2.0, 0.02, -7e-9};
  for (unsigned i = 0; i < 8; ++i) alm(i) = values[i];
  Vec shifted = alm;
  shifted(6) = alm(6) - 0.3 * icdPi;
  Vec p1(3), v1(3), p2(3), v2(3);
  // BeiDou GEO measures deltaI from the equator, every other case from 54 deg.
  zs::keplerianAlmanacToEcef(zc::BEIDOU, alm, 90000.0, p1, v1, zs::GEO);
  zs::keplerianAlmanacToEcef(zc::BEIDOU, shifted, 90000.0, p2, v2, zs::IGSO);
  EXPECT_LT(norm_inf(p1 - p2), 1e-6);
  zs::keplerianAlmanacToEcef(zc::GPS, alm, 90000.0, p1, v1, zs::GEO);
  zs::keplerianAlmanacToEcef(zc::GPS, alm, 90000.0, p2, v2, zs::MEO);
  EXPECT_EQ(norm_inf(p1 - p2), 0.0);
}

namespace {

// GLONASS R01 from brdc2510.16g, tb 00:15 and 00:45 UTC on 2016-09-07
// (03:15 and 03:45 Moscow time, day 250 of the 2016-2019 period).
zc::GlonassEphemeris glonassR01(bool second) {
  zc::GlonassEphemeris e;
  e.svId = 1, e.time = zc::Toc{5, 250, second ? 13500u : 11700u};
  std::int32_t const s[2][9] = {{30108669, 29161854, -31189192, -1969394, -955730, -2792230, 2, 1, 2},
                                {21920773, 25973794, -39673404, -2659049, -818500, -2002983, 1, 0, 2}};
  std::int32_t const* v = s[second ? 1 : 0];
  e.x = v[0], e.y = v[1], e.z = v[2], e.vx = v[3], e.vy = v[4], e.vz = v[5];
  e.ax = static_cast<std::int8_t>(v[6]), e.ay = static_cast<std::int8_t>(v[7]),
  e.az = static_cast<std::int8_t>(v[8]);
  return e;
}

void glonassState(zc::GlonassEphemeris const& e, double t, Vec& p, Vec& v) {
  zs::glonassEphemerisToEcef(e, t, p, v, {});
}

}  // namespace

TEST(GlonassEphemeris, IntegratesToTheNextBroadcastState) {
  zc::GlonassEphemeris const first = glonassR01(false), next = glonassR01(true);
  double const t0 = zs::glonassSecsToGpsSecs(zs::glonassToSecs(first.time), {});
  Vec p(3), v(3), pNext(3), vNext(3);
  glonassState(first, t0, p, v);
  EXPECT_TRUE(p(2) == -31189192 * 1000.0 / 2048 && v(0) == -1969394 * 1000.0 / 1048576);
  Vec p0 = p;
  glonassState(first, t0 + 0.4, p, v);
  EXPECT_EQ(norm_inf(p - p0), 0.0);  // rounds to zero steps
  glonassState(first, t0 - 0.6, p, v);
  EXPECT_GT(norm_inf(p - p0), 1.0);

  // Thirty minutes ahead the integration meets the next broadcast state.
  glonassState(first, t0 + 1800.0, p, v);
  glonassState(next, t0 + 1800.0, pNext, vNext);
  EXPECT_TRUE(norm_2(p - pNext) < 10.0 && norm_2(v - vNext) < 0.01) << norm_2(p - pNext);
}

TEST(GlonassAlmanac, IcdWorkedExample) {
  // GLONASS CDMA ICD (2016) Appendix M example in the edition 5.1 form
  // (integers of the FDMA almanac fields), evaluated on day 1453 at 51300 s.
  zc::GlonassAlmanac a;
  a.time = zc::Toc{5, 0, 0}, a.na = 1452, a.lambda = -308247, a.tLambda = 1074292, a.deltaT = -1359862;
  a.deltaTDot = 1, a.epsilon = 454, a.omega = 18962, a.deltaI = 10350;
  double const t = zs::glonassSecsToGpsSecs(zs::glonassToSecs(zc::Toc{5, 1452, 51300}), {});
  Vec p(3), v(3);
  zs::glonassAlmanacToEcef(a, t, p, v, {});
  EXPECT_LT(norm_2(p - vec3(10697116.4874360654, 21058292.4241863210, -9635679.33963303405)), 1e-3);
  EXPECT_LT(norm_2(v - vec3(-686.100809921691084, -1136.54864124521881, -3249.98587740305799)), 1e-5);

  // The day may come from the Toc instead of na.
  a.na = 0, a.time.second = 1451;
  Vec p2(3), v2(3);
  zs::glonassAlmanacToEcef(a, t, p2, v2, {});
  EXPECT_EQ(norm_inf(p - p2), 0.0);
}

TEST(EphemerisConversionDeathTest, PreconditionTexts) {
  Vec p(3), v(3), bad(2), eph(16, 0.0), alm(8, 0.0), kepler(15, 0.0);
  std::pair<std::function<void()>, char const*> const cases[] = {
      {[&] { zs::keplerianEphemerisToEcef(zc::GPS, kepler, 0.0, p, v); },
       "keplerianEphemerisToEcef: ephemeris does not contain 16 elements."},
      {[&] { zs::keplerianEphemerisToEcef(zc::GPS, eph, 0.0, bad, v); },
       "keplerianEphemerisToEcef: pos does not contain 3 elements."},
      {[&] { zs::keplerianEphemerisToEcef(zc::GPS, eph, 0.0, p, bad); },
       "keplerianEphemerisToEcef: vel does not contain 3 elements."},
      {[&] { zs::keplerianEphemerisToEcef(zc::GLONASS, eph, 0.0, p, v); },
       "keplerianEphemerisToEcef: unsupported GNSS."},
      {[&] { zs::keplerianAlmanacToEcef(zc::GPS, eph, 0.0, p, v, zs::MEO); },
       "keplerianAlmanacToEcef: almanac does not contain 8 elements."},
      {[&] { zs::keplerianAlmanacToEcef(zc::GPS, alm, 0.0, bad, v, zs::MEO); },
       "keplerianAlmanacToEcef: pos does not contain 3 elements."},
      {[&] { zs::keplerianAlmanacToEcef(zc::GPS, alm, 0.0, p, bad, zs::MEO); },
       "keplerianAlmanacToEcef: vel does not contain 3 elements."},
      {[&] { zs::keplerianAlmanacToEcef(zc::GLONASS, alm, 0.0, p, v, zs::MEO); },
       "keplerianAlmanacToEcef: unsupported GNSS."},
      {[&] { zs::gpsEphemerisToEcef(eph, zc::Toc{}, 0.0, p, v); },
       "gpsEphemerisToEcef: kepler does not contain 15 elements."},
      {[&] { zs::beidouEphemerisToEcef(eph, zc::Toc{}, 0.0, p, v); },
       "beidouEphemerisToEcef: kepler does not contain 15 elements."},
      {[&] { zs::glonassEphemerisToEcef(zc::GlonassEphemeris{}, 0.0, bad, v, {}); },
       "glonassEphemerisToEcef: Either coordinate or velocity vector is not three dimensional."},
      {[&] { zs::glonassAlmanacToEcef(zc::GlonassAlmanac{}, 0.0, p, bad, {}); },
       "glonassAlmanacToEcef: Either coordinate or velocity vector is not three dimensional."}};
  for (auto const& c : cases)
    EXPECT_DEATH(c.first(), zarn::test::fatalArgument(c.second, "libs/support/src/ephemeris_conversion"));
}
