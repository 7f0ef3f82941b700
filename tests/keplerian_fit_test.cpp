// Fit of broadcast Keplerian elements to Earth-fixed states and their encoding.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "support/broadcast_records.hpp"
#include "support/test_support.hpp"
#include "zarn/host/rinex_nav.hpp"
#include "zarn/support/ephemeris_conversion.hpp"
#include "zarn/support/time_conversion.hpp"

namespace zc = zarn::core;
namespace zs = zarn::support;
namespace zt = zarn::test;
using zs::Mat;
using zs::Vec;

namespace {

double const week = 604800.0;
double const pi = 3.14159265358979323846;
char const fitSource[] = "libs/support/src/keplerian_fit";
// LSBs of IS-GPS-200 Table 20-III, written out here.
double const rateLsb = 3.1415926535898 * std::ldexp(1.0, -43);  // deltaN, iDot, OmegaDot: rad/s
double const gpsRadiusLsb = 1.0 / 32.0;                         // crc, crs: m

struct Samples {
  Mat r, v;
  Vec t;
};

// n states of a record at t0 + k step (GPS seconds), one per column.
template <typename Record>
Samples sample(Record const& e, double t0, double step, unsigned n) {
  Samples s{Mat(3, n), Mat(3, n), Vec(n)};
  Vec p(3), v(3);
  for (unsigned k = 0; k < n; ++k) {
    s.t(k) = t0 + k * step;
    zt::position(e, s.t(k), p, v);
    column(s.r, k) = p;
    column(s.v, k) = v;
  }
  return s;
}

bool fit(zc::GnssType gnss, Samples const& s, Vec& kepler) {
  return zs::satelliteStatesToKeplerian(gnss, s.r, s.v, s.t, kepler);
}

// Largest distance (m) between the positions of two records at the times.
template <typename Record>
double largestDistance(Record const& a, Record const& b, Vec const& t) {
  Vec pa(3), pb(3), v(3);
  double d = 0.0;
  for (double tk : t) {
    zt::position(a, tk, pa, v);
    zt::position(b, tk, pb, v);
    d = std::fmax(d, norm_2(pa - pb));
  }
  return d;
}

// Largest difference of the orbit words, in units of their last bit. Only the
// sum of omega and M0 counts: for small e the positions fix the argument of
// latitude but split it between perigee and anomaly only to 1 cm / (a e).
template <typename Record>
std::int64_t largestWordDifference(Record const& a, Record const& b) {
  zt::Words const wa = zt::words(a), wb = zt::words(b);
  std::int64_t d = std::llabs(wa.w[4] + wa.w[5] - wb.w[4] - wb.w[5]);
  for (int k = 0; k < 15; ++k) {
    if (k != 4 && k != 5) d = std::max<std::int64_t>(d, std::llabs(wa.w[k] - wb.w[k]));
  }
  return d;
}

template <typename Record>
double toeGps(Record const& e);
template <>
double toeGps(zc::GpsEphemeris const& e) {
  return zs::gpsToGpsSecs(e.toe);
}
template <>
double toeGps(zc::BeidouEphemeris const& e) {
  return zs::beidouSecsToGpsSecs(zs::beidouToSecs(e.toe));
}

bool encode(Vec const& kepler, zc::GpsEphemeris& e) {
  return zs::keplerianToGpsEphemeris(kepler, e);
}
bool encode(Vec const& kepler, zc::BeidouEphemeris& e) {
  return zs::keplerianToBeidouEphemeris(kepler, e);
}

// Fits four hours of positions centred on the record's toe and encodes them.
template <typename Record>
void expectRecovered(zc::GnssType gnss, Record const& truth, std::int64_t wordTolerance, double metres,
                     char const* name) {
  Samples const s = sample(truth, toeGps(truth) - 7200.0, 300.0, 49);
  Vec kepler;
  ASSERT_TRUE(fit(gnss, s, kepler)) << name;
  ASSERT_EQ(kepler.size(), 17u);
  for (int k : {2, 3, 4, 5}) {  // signed angle words
    EXPECT_GE(kepler(k), -pi) << name << " " << k;
    EXPECT_LT(kepler(k), pi) << name << " " << k;
  }
  Record fitted;
  EXPECT_TRUE(encode(kepler, fitted)) << name;
  EXPECT_TRUE(fitted.toe == truth.toe) << name;
  if (wordTolerance >= 0) {
    EXPECT_LE(largestWordDifference(fitted, truth), wordTolerance) << name;
  }
  EXPECT_LT(largestDistance(fitted, truth, s.t), metres) << name;
}

}  // namespace

TEST(KeplerianFit, ReferenceTime) {
  zc::GpsEphemeris const g = zt::gpsG02();
  double const gpsWeekStart = 1913 * week;
  Vec kepler;
  // Middle sample at 100008 s of week: the nearest multiple of 16 s, halves up.
  fit(zc::GPS, sample(g, gpsWeekStart + 100008.0 - 600.0, 300.0, 5), kepler);
  EXPECT_EQ(kepler(15), 100016.0);
  EXPECT_EQ(kepler(16), 1913.0);

  // Sample ceil(N/2): the third of five, the second of four.
  fit(zc::GPS, sample(g, gpsWeekStart + 100000.0, 400.0, 5), kepler);
  EXPECT_EQ(kepler(15), 100800.0);
  EXPECT_FALSE(fit(zc::GPS, sample(g, gpsWeekStart + 100000.0, 400.0, 4), kepler));  // 12 equations
  ASSERT_EQ(kepler.size(), 17u);
  EXPECT_EQ(kepler(15), 100400.0);

  // BeiDou rounds to 8 s of BeiDou time (100004 -> 100008 BDT) and reports
  // the result on the GPS scale: 14 s later, GPS week = BeiDou week + 1356.
  double const bdtMid = zs::beidouToSecs(zc::Toc{0, 544, 100004});
  fit(zc::BEIDOU, sample(zt::beidouC14(), zs::beidouSecsToGpsSecs(bdtMid) - 600.0, 300.0, 5), kepler);
  EXPECT_EQ(kepler(15), 100022.0);
  EXPECT_EQ(kepler(16), 1900.0);
}

TEST(KeplerianFit, OptfunLayoutAndFailures) {
  zc::GpsEphemeris const g = zt::gpsG02();
  double const toe = toeGps(g);
  Samples s = sample(g, toe - 3600.0, 300.0, 25);
  Vec kepler;
  ASSERT_TRUE(fit(zc::GPS, s, kepler));
  Vec const elements = subrange(kepler, 0, 15);
  for (unsigned j = 0; j < 3; ++j) s.r(j, 3) -= j + 1.0;  // sample 3 moved by (-1, -2, -3) m
  Vec f;
  ASSERT_EQ(zs::optfun(zc::GPS, elements, s.t, s.r, toe, f), 0);
  ASSERT_EQ(f.size(), 75u);
  for (unsigned i = 6; i < 15; ++i) EXPECT_NEAR(f(i), i / 3 == 3 ? i % 3 + 1.0 : 0.0, 0.02) << i;

  // One position 100 m off: the fit reports failure but still writes the vector.
  s.r(1, 20) += 100.0;
  EXPECT_FALSE(fit(zc::GPS, s, kepler));
  EXPECT_EQ(kepler.size(), 17u);

  EXPECT_EQ(zs::optfun(zc::GPS, Vec(14, 0.0), s.t, s.r, toe, f), 1);
  EXPECT_EQ(zs::optfun(zc::GPS, elements, s.t, Mat(2, 25), toe, f), 2);
  EXPECT_EQ(zs::optfun(zc::GLONASS, elements, s.t, s.r, toe, f), 3);
  Vec hyperbola(elements);
  hyperbola(1) = 1.5;
  EXPECT_EQ(zs::optfun(zc::GPS, hyperbola, s.t, s.r, toe, f), 4);
  EXPECT_TRUE(std::isnan(f(0)));
}

TEST(KeplerianEncoding, WordsAndVerdict) {
  Vec k(17, 0.0);
  k(0) = 5153.6;
  k(1) = 0.01;
  k(2) = 0.96;
  k(6) = 2.5 * rateLsb;          // deltaN: halves away from zero
  k(8) = -2.5 * rateLsb;         // OmegaDot
  k(12) = -3.49 * gpsRadiusLsb;  // crs
  k(15) = 259200.0;
  k(16) = 1913.0;
  zc::GpsEphemeris g;
  g.af0 = 123;
  EXPECT_TRUE(zs::keplerianToGpsEphemeris(k, g));
  EXPECT_EQ(g.deltaN, 3);
  EXPECT_EQ(g.omegaDot, -3);
  EXPECT_EQ(g.crs, -3);
  EXPECT_EQ(g.sqrtA, 2701970637u);  // 5153.6 * 2^19 = 2701970636.8
  EXPECT_TRUE(g.toe == (zc::Toc{1, 889, 259200}));
  EXPECT_EQ(g.af0, 123);  // fields outside the orbit are kept

  // The record is written even when the verdict is false.
  k(7) = 8192 * rateLsb;  // iDot has 14 bits
  EXPECT_FALSE(zs::keplerianToGpsEphemeris(k, g));
  EXPECT_EQ(g.iDot, 8192);

  // BeiDou harmonics have 2^-6 m words; the record's toe is BeiDou time.
  k(7) = 0.0;
  k(11) = 1.0;  // crc
  k(15) = 162014.0;
  k(16) = 1900.0;
  zc::BeidouEphemeris c;
  EXPECT_TRUE(zs::keplerianToBeidouEphemeris(k, c));
  EXPECT_EQ(c.crc, 64);
  EXPECT_TRUE(c.toe == (zc::Toc{0, 544, 162000}));
}

TEST(KeplerianFitDeathTest, SizeTexts) {
  Samples const s = sample(zt::gpsG02(), 1913 * week + 259200.0, 300.0, 5);
  Vec kepler;
  auto const fatal = [](char const* text) { return zt::fatalArgument(text, fitSource); };
  EXPECT_DEATH(zs::satelliteStatesToKeplerian(zc::GPS, Mat(3, 6), s.v, s.t, kepler),
               fatal("satelliteStatesToGpsEphemeris: invalid size rSat"));
  // The BeiDou fit reports with the same texts.
  EXPECT_DEATH(zs::satelliteStatesToKeplerian(zc::BEIDOU, s.r, Mat(2, 5), s.t, kepler),
               fatal("satelliteStatesToGpsEphemeris: invalid size vSat"));
  EXPECT_DEATH(zs::satelliteStatesToKeplerian(zc::GLONASS, s.r, s.v, s.t, kepler),
               fatal("satelliteStatesToKeplerian: unsupported GNSS"));
  zc::GpsEphemeris g;
  zc::BeidouEphemeris b;
  EXPECT_DEATH(zs::keplerianToGpsEphemeris(Vec(16), g),
               fatal("keplerianToGpsEphemeris: invalid size keplerian vector"));
  EXPECT_DEATH(zs::keplerianToBeidouEphemeris(Vec(16), b),
               fatal("keplerianToBeidouEphemeris: invalid size keplerian vector"));
}

// Every GPS record of a daily file and every BeiDou record of a mixed file are
// fitted back to the same words. A GEO orbit is nearly circular (e = 2.6e-4):
// its perigee and mean anomaly trade against e and the radius terms at the
// centimetre level, so only its positions are compared. The iteration stops at 1 cm, which at IGSO height
// leaves e free by up to ten of its 2^-33 LSBs (5 cm along the radius).
TEST(KeplerianFit, RecoversEveryRecordOfNavigationFiles) {
  ZARN_SHARED_FILE_OR_SKIP(gpsFile, "data/2016-251_252_smartloc/brdc2510.16n");
  ZARN_SHARED_FILE_OR_SKIP(mixedFile, "data/2016-158_smartloc/BRDC00WRD_U_20161580000_01D_MN.rnx");
  for (auto const& r : zarn::host::readRinexNav(gpsFile).gps) {
    expectRecovered(zc::GPS, r.eph, 2, 0.05, ("GPS line " + std::to_string(r.line)).c_str());
  }
  // At the 42,164 km radius of GEO and IGSO orbits half a last bit moves the orbit by 3 cm for each angle
  // word and by up to 5 cm at the ends of the four-hour arc for each rate word, so the rounding of the
  // words alone shifts it by several centimetres. Where the 1 cm stop leaves the fit, and so which way each
  // word rounds, depends on the last bits of the arithmetic: one IGSO record lands at 3.8 cm with separate
  // multiplies and adds, at 6.0 cm with the fused multiply-adds aarch64 compilers emit.
  for (auto const& r : zarn::host::readRinexNav(mixedFile).beidou) {
    zs::BeidouSvType const type = zs::getBeidouSvType(r.eph);
    double const metres = type == zs::GEO ? 0.15 : (type == zs::IGSO ? 0.10 : 0.05);
    expectRecovered(zc::BEIDOU, r.eph, type == zs::GEO ? -1 : 10, metres,
                    ("BeiDou line " + std::to_string(r.line)).c_str());
  }
}
