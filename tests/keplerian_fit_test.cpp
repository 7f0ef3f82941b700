// Fit of broadcast Keplerian elements to Earth-fixed states and their encoding.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <tuple>
#include <utility>

#include "support/broadcast_records.hpp"
#include "support/keplerian_fit_check.hpp"
#include "support/test_support.hpp"
#include "zarn/support/ephemeris_conversion.hpp"
#include "zarn/support/time_conversion.hpp"

namespace zc = zarn::core;
namespace zs = zarn::support;
namespace zt = zarn::test;
using zs::Mat;
using zs::Vec;
using zt::fit;
using zt::sample;
using zt::Samples;
using zt::toeGps;

namespace {

double const week = 604800.0;
char const fitSource[] = "libs/support/src/keplerian_fit";
// LSBs of IS-GPS-200 Table 20-III, written out here.
double const rateLsb = 3.1415926535898 * std::ldexp(1.0, -43);  // deltaN, iDot, OmegaDot: rad/s
double const gpsRadiusLsb = 1.0 / 32.0;                         // crc, crs: m

}  // namespace

TEST(KeplerianFit, ReferenceTime) {
  zc::GpsEphemeris const g = zt::gpsG02();
  double const gpsWeekStart = 1913 * week;
  Vec kepler;
  // Middle sample at 100008 s of week: the nearest multiple of 16 s, halves up.
  fit(zc::GPS, sample(g, gpsWeekStart + 100008.0 - 600.0, 300.0, 5), kepler);
  EXPECT_EQ(std::make_tuple(kepler(15), kepler(16)), std::make_tuple(100016.0, 1913.0));

  // Sample ceil(N/2): the third of five, the second of four.
  fit(zc::GPS, sample(g, gpsWeekStart + 100000.0, 400.0, 5), kepler);
  EXPECT_EQ(kepler(15), 100800.0);
  EXPECT_FALSE(fit(zc::GPS, sample(g, gpsWeekStart + 100000.0, 400.0, 4), kepler));  // 12 equations
  EXPECT_TRUE(kepler.size() == 17u && kepler(15) == 100400.0);

  // BeiDou rounds to 8 s of BeiDou time (100004 -> 100008 BDT) and reports
  // the result on the GPS scale: 14 s later, GPS week = BeiDou week + 1356.
  double const bdtMid = zs::beidouToSecs(zc::Toc{0, 544, 100004});
  fit(zc::BEIDOU, sample(zt::beidouC14(), zs::beidouSecsToGpsSecs(bdtMid) - 600.0, 300.0, 5), kepler);
  EXPECT_EQ(std::make_tuple(kepler(15), kepler(16)), std::make_tuple(100022.0, 1900.0));
}

// A fit started from the elements of the window two hours earlier, carried
// to the new toe (here across the end of the GPS week, where Omega0 takes the
// Earth's turn over the week): it reproduces the record's positions as the
// fit from the middle state does, without falling back to that start.
TEST(KeplerianFit, StartFromAnEarlierWindow) {
  zc::GpsEphemeris const g = zt::gpsG02();
  double const t0 = 1914 * week - 3.0 * 3600.0;
  Samples const first = sample(g, t0, 900.0, 16), second = sample(g, t0 + 7200.0, 900.0, 16);
  Vec earlier, cold, warm;
  ASSERT_TRUE(fit(zc::GPS, first, earlier));
  ASSERT_TRUE(fit(zc::GPS, second, cold));
  ASSERT_LT(earlier(16), cold(16));  // the two toes lie in different weeks
  bool ok = false;
  std::string const log = zt::capturedStderr(
      [&] { ok = zs::satelliteStatesToKeplerian(zc::GPS, second.r, second.v, second.t, earlier, warm); });
  EXPECT_TRUE(ok);
  EXPECT_EQ(log.find("no fit from the given start"), std::string::npos) << log;
  double const toe = warm(16) * week + warm(15);
  Vec fCold, fWarm;
  ASSERT_EQ(zs::optfun(zc::GPS, subrange(cold, 0, 15), second.t, second.r, toe, fCold), 0);
  ASSERT_EQ(zs::optfun(zc::GPS, subrange(warm, 0, 15), second.t, second.r, toe, fWarm), 0);
  EXPECT_LT(norm_inf(fWarm), 1e-3);
  EXPECT_LT(norm_inf(fWarm - fCold), 1e-3);
}

// That optfun's model is the broadcast one (GPS, BeiDou MEO, IGSO and GEO) is
// checked by fitting every record of real navigation files (real_data_test).
TEST(KeplerianFit, OptfunLayoutAndFailures) {
  zc::GpsEphemeris const g = zt::gpsG02();
  double const toe = toeGps(g);
  Samples s = sample(g, toe - 3600.0, 300.0, 25);
  Vec kepler;
  ASSERT_TRUE(fit(zc::GPS, s, kepler));
  Vec const elements = subrange(kepler, 0, 15);
  for (unsigned j = 0; j < 3; ++j) s.r(j, 3) -= j + 1.0;  // sample 3 moved by (-1, -2, -3) m
  Vec f;
  ASSERT_TRUE(zs::optfun(zc::GPS, elements, s.t, s.r, toe, f) == 0 && f.size() == 75u);
  for (unsigned i = 6; i < 15; ++i) EXPECT_NEAR(f(i), i / 3 == 3 ? i % 3 + 1.0 : 0.0, 0.02) << i;

  // One position 100 m off: the fit reports failure but still writes the vector.
  s.r(1, 20) += 100.0;
  EXPECT_TRUE(!fit(zc::GPS, s, kepler) && kepler.size() == 17u);

  Vec hyperbola(elements);
  hyperbola(1) = 1.5;
  std::tuple<int, int, int, int> const codes{// braces evaluate in order
                                             zs::optfun(zc::GPS, Vec(14, 0.0), s.t, s.r, toe, f),
                                             zs::optfun(zc::GPS, elements, s.t, Mat(2, 25), toe, f),
                                             zs::optfun(zc::GLONASS, elements, s.t, s.r, toe, f),
                                             zs::optfun(zc::GPS, hyperbola, s.t, s.r, toe, f)};
  EXPECT_EQ(codes, std::make_tuple(1, 2, 3, 4));
  EXPECT_TRUE(std::isnan(f(0)));  // left by the hyperbola
}

TEST(KeplerianEncoding, WordsAndVerdict) {
  // deltaN and OmegaDot halves go away from zero; crs -3.49 LSB; sqrtA 5153.6 * 2^19 = 2701970636.8.
  Vec k(17, 0.0);
  k(0) = 5153.6, k(1) = 0.01, k(2) = 0.96, k(6) = 2.5 * rateLsb, k(8) = -2.5 * rateLsb;
  k(12) = -3.49 * gpsRadiusLsb, k(15) = 259200.0, k(16) = 1913.0;
  zc::GpsEphemeris g;
  g.af0 = 123;  // fields outside the orbit are kept
  EXPECT_TRUE(zs::keplerianToGpsEphemeris(k, g));
  EXPECT_EQ(std::make_tuple(g.deltaN, g.omegaDot, g.crs, g.sqrtA, g.af0),
            std::make_tuple(3, -3, -3, 2701970637u, 123));
  EXPECT_TRUE(g.toe == (zc::Toc{1, 889, 259200}));

  // The record is written even when the verdict is false.
  k(7) = 8192 * rateLsb;  // iDot has 14 bits
  EXPECT_TRUE(!zs::keplerianToGpsEphemeris(k, g) && g.iDot == 8192);

  // BeiDou harmonics have 2^-6 m words; the record's toe is BeiDou time.
  k(7) = 0.0, k(11) = 1.0, k(15) = 162014.0, k(16) = 1900.0;  // crc 1 m
  zc::BeidouEphemeris c;
  EXPECT_TRUE(zs::keplerianToBeidouEphemeris(k, c) && c.crc == 64 && c.toe == (zc::Toc{0, 544, 162000}));
}

// The BeiDou fit reports with the GPS texts.
TEST(KeplerianFitDeathTest, SizeTexts) {
  Samples const s = sample(zt::gpsG02(), 1913 * week + 259200.0, 300.0, 5);
  Vec kepler;
  zc::GpsEphemeris g;
  zc::BeidouEphemeris b;
  std::pair<std::function<void()>, char const*> const cases[] = {
      {[&] { zs::satelliteStatesToKeplerian(zc::GPS, Mat(3, 6), s.v, s.t, kepler); },
       "satelliteStatesToGpsEphemeris: invalid size rSat"},
      {[&] { zs::satelliteStatesToKeplerian(zc::BEIDOU, s.r, Mat(2, 5), s.t, kepler); },
       "satelliteStatesToGpsEphemeris: invalid size vSat"},
      {[&] { zs::satelliteStatesToKeplerian(zc::GLONASS, s.r, s.v, s.t, kepler); },
       "satelliteStatesToKeplerian: unsupported GNSS"},
      {[&] { zs::keplerianToGpsEphemeris(Vec(16), g); },
       "keplerianToGpsEphemeris: invalid size keplerian vector"},
      {[&] { zs::keplerianToBeidouEphemeris(Vec(16), b); },
       "keplerianToBeidouEphemeris: invalid size keplerian vector"}};
  for (auto const& c : cases) EXPECT_DEATH(c.first(), zt::fatalArgument(c.second, fitSource));
}
