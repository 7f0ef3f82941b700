// Reference orbits and error statistics of the evaluation. Oracles: tabulated
// SP3 positions and velocities, and the accuracy of real broadcast ephemerides
// against precise orbits (about a metre for GPS, Montenbruck et al., GPS
// Solutions 19, 2015).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "support/test_support.hpp"
#include "zarn/host/ephemeris.hpp"
#include "zarn/host/evaluation.hpp"
#include "zarn/host/rinex_nav.hpp"
#include "zarn/host/sp3.hpp"
#include "zarn/host/sp3_orbit.hpp"

namespace zh = zarn::host;
namespace zs = zarn::support;

namespace {

double norm3(double const* a, zs::Vec const& b) {
  return std::sqrt((a[0] - b(0)) * (a[0] - b(0)) + (a[1] - b(1)) * (a[1] - b(1)) +
                   (a[2] - b(2)) * (a[2] - b(2)));
}

}  // namespace

// Interpolation checked against epochs the interpolator did not see: every
// other epoch of a 5-minute file is dropped and recovered from the rest.
TEST(Sp3OrbitTest, RecoversLeftOutEpochsAndTabulatedVelocities) {
  ZARN_SHARED_FILE_OR_SKIP(path, "data/2016-251_252_smartloc/gbm19133.sp3");
  zh::Sp3Data full = zh::readSp3(path);
  zh::Sp3Data thinned = full;
  thinned.epochs.clear();
  for (std::size_t i = 0; i < full.epochs.size(); i += 2) thinned.epochs.push_back(full.epochs[i]);
  zh::Sp3Orbit const orbit({thinned});
  double worst = 0.0;
  int compared = 0;
  zs::Vec pos(3);
  for (std::size_t i = 1; i + 1 < full.epochs.size(); i += 2) {
    for (zh::Sp3Entry const& e : full.epochs[i].entries) {
      if (e.system != 'G' && e.system != 'C') continue;
      if (!orbit.state({e.system, e.prn}, full.epochs[i].time, pos)) continue;
      worst = std::max(worst, norm3(e.position, pos));
      ++compared;
    }
  }
  EXPECT_TRUE(compared > 5000 && worst < 0.05) << worst;  // m, a ninth-degree polynomial over 10-minute nodes
  EXPECT_FALSE(orbit.state({'G', 1}, full.epochs.back().time + 600.0, pos)) << "no extrapolation";

  // SP3-a with velocities: the derivative of the interpolating polynomial.
  ZARN_SHARED_FILE_OR_SKIP(withVelocity, "data/2015-200_gpstk/test_input_sp3_nav_2015_200.sp3");
  zh::Sp3Data const nga = zh::readSp3(withVelocity);
  zh::Sp3Orbit const ngaOrbit({nga});
  zs::Vec vel(3);
  double worstVelocity = 0.0;
  for (std::size_t i = 20; i < nga.epochs.size(); i += 37) {
    for (zh::Sp3Entry const& e : nga.epochs[i].entries) {
      ASSERT_TRUE(e.hasVelocity);
      if (!ngaOrbit.state({'G', e.prn}, nga.epochs[i].time, pos, &vel)) continue;
      worstVelocity = std::max(worstVelocity, norm3(e.velocity, vel));
    }
  }
  EXPECT_LT(worstVelocity, 1e-3);  // m/s
}

TEST(Sp3OrbitTest, TellsBeidouOrbitTypesApart) {
  ZARN_SHARED_FILE_OR_SKIP(path, "data/2016-251_252_smartloc/gbm19133.sp3");
  zh::Sp3Orbit const orbit({zh::readSp3(path)});
  // BDS-2: C01-C05 geostationary, C06-C10 inclined geosynchronous, C11-C14 medium orbits.
  EXPECT_EQ(std::make_tuple(orbit.svType({'C', 1}), orbit.svType({'C', 8}), orbit.svType({'C', 11}),
                            orbit.svType({'G', 11})),
            std::make_tuple(zs::GEO, zs::IGSO, zs::MEO, zs::UNDEFINED_SAT_TYPE));
}

// The real broadcast ephemerides of a day, treated as predictions of age zero,
// must show the known broadcast accuracy against the precise orbits, once both
// refer to the antenna phase centre.
TEST(EvaluationTest, BroadcastEphemeridesAgainstPreciseOrbitsShowBroadcastAccuracy) {
  ZARN_SHARED_FILE_OR_SKIP(navPath, "data/2016-251_252_smartloc/brdc2520.16n");
  ZARN_SHARED_FILE_OR_SKIP(sp3Path, "data/2016-251_252_smartloc/gbm19134.sp3");
  zh::NavData const nav = zh::readRinexNav(navPath);
  std::vector<zh::PredictedEphemeris> broadcast;
  for (zh::PredictedEphemeris p : zh::predictedEphemerides(nav, 1.0)) {
    if (p.ephemeris.health != 0) continue;
    p.validFrom = p.ephemeris.toe - 3600.0, p.validTo = p.ephemeris.toe + 3600.0;  // the hour either side
    broadcast.push_back(p);
  }
  zh::Sp3Truth const truth({zh::readSp3(sp3Path)});
  zh::EvaluationResult const r = zh::evaluatePredictions(broadcast, truth.start(), truth, 900.0);
  ASSERT_GT(r.samples.size(), 3000u);
  std::vector<zh::SummaryRow> const rows = zh::summarize(r.samples);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(std::make_tuple(rows[0].group, rows[0].day), std::make_tuple("GPS", 1));
  EXPECT_TRUE(rows[0].satellites >= 28u && rows[0].median < 2.0 && rows[0].p95 < 4.0) << rows[0].median;
  EXPECT_LT(rows[0].rmsRadial, 0.8);  // a centre-of-mass truth would show the metre-level antenna offsets
  EXPECT_LT(rows[0].rmsSisre, 1.0);
  double meanRadial = 0.0;
  for (zh::ErrorSample const& s : r.samples) meanRadial += s.radial;
  EXPECT_LT(std::fabs(meanRadial / static_cast<double>(r.samples.size())), 0.7);
}

TEST(EvaluationTest, BroadcastTruthLeavesOutTheCorruptRecord) {
  ZARN_SHARED_FILE_OR_SKIP(navPath, "data/2016-158_smartloc/brdc1580.16n");
  ZARN_SHARED_FILE_OR_SKIP(sp3Path, "data/2016-158_smartloc/gbm19001.sp3");
  zh::BroadcastTruth const broadcast({zh::readRinexNav(navPath)});
  bool reported = false;
  for (std::string const& note : broadcast.notes()) reported = reported || note.find("G14: record at") == 0;
  EXPECT_TRUE(reported);
  // At the corrupt record's own toe the truth must still be G14's orbit.
  zh::Sp3Orbit const sp3({zh::readSp3(sp3Path)});
  double toe = 0.0;
  ASSERT_TRUE(zh::parseGpsTime("2016-06-06T04:30:08", toe));
  zs::Vec a(3), b(3);
  ASSERT_TRUE(broadcast.position({'G', 14}, toe, a));
  ASSERT_TRUE(sp3.state({'G', 14}, toe, b));
  EXPECT_LT(zs::distance(a, b), 5.0);
}

TEST(EvaluationTest, StatisticsPerDayAndOrbitType) {
  EXPECT_DOUBLE_EQ(zh::quantile({5, 1, 4, 2, 3}, 0.5), 3.0);
  EXPECT_DOUBLE_EQ(zh::quantile({5, 1, 4, 2, 3}, 0.95), 4.8);  // 1 + 0.95 * 4 = position 3.8
  EXPECT_DOUBLE_EQ(zh::quantile({}, 0.5), 0.0);

  std::vector<zh::ErrorSample> samples;
  auto add = [&](char system, zs::BeidouSvType type, double age, double error) {
    zh::ErrorSample s;
    s.truth = "SP3", s.sat = {system, 1}, s.svType = type, s.age = age, s.error = s.radial = s.sisre = error;
    samples.push_back(s);
  };
  add('G', zs::UNDEFINED_SAT_TYPE, -600.0, 1.0);  // before the fit end: day 1
  add('G', zs::UNDEFINED_SAT_TYPE, 86399.0, 3.0);
  add('G', zs::UNDEFINED_SAT_TYPE, 86400.0, 10.0);  // day 2 begins
  add('C', zs::GEO, 100.0, 4.0);
  add('C', zs::MEO, 100.0, 2.0);
  std::vector<zh::SummaryRow> const rows = zh::summarize(samples);
  ASSERT_EQ(rows.size(), 5u);
  EXPECT_EQ(std::make_tuple(rows[0].group, rows[0].day, rows[0].samples, rows[1].day, rows[2].group,
                            rows[2].samples, rows[3].group, rows[4].group),
            std::make_tuple("GPS", 1, 2u, 2, "BDS", 2u, "BDS-MEO", "BDS-GEO"));
  EXPECT_DOUBLE_EQ(rows[0].median, 2.0);
  EXPECT_DOUBLE_EQ(rows[0].rmsRadial, std::sqrt(5.0));

  std::string const json = zh::summaryJson(rows, 0.0);
  EXPECT_TRUE(json.find("\"system\": \"BDS-GEO\"") != std::string::npos &&
              json.find("\"median3d\": 2.0000") != std::string::npos)
      << json;
}
