// Clock error and user range error of the evaluation: the datum removed per
// truth, constellation and epoch, the error weighted as SISRE studies weight
// it, and the precise clocks interpolated between their epochs.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "support/test_support.hpp"
#include "zarn/host/evaluation.hpp"
#include "zarn/host/sp3.hpp"
#include "zarn/host/sp3_orbit.hpp"

namespace zh = zarn::host;

namespace {

zh::ErrorSample sample(char system, int prn, double t, double clockDifference, double radial, double along,
                       double cross, char const* truth = "SP3") {
  zh::ErrorSample s;
  s.truth = truth;
  s.sat = zh::SatelliteId{system, prn};
  s.svType = system == 'C' ? zarn::support::MEO : zarn::support::UNDEFINED_SAT_TYPE;
  s.t = t;
  s.radial = radial;
  s.along = along;
  s.cross = cross;
  s.hasClock = true;
  s.clockDifference = clockDifference;
  return s;
}

}  // namespace

// BeiDou MEO weights of Montenbruck et al. (2015), Table 4: radial 0.98,
// along- and cross-track 1/54 on the squares.
TEST(ClockEvaluation, DatumRemovedPerEpochAndUreByHand) {
  std::vector<zh::ErrorSample> s = {
      sample('C', 11, 600.0, 5.0, 2.0, 5.4, 0.0),   // mean of C at 600 s: (5 + 1 + 3) / 3 = 3
      sample('C', 12, 600.0, 1.0, -1.0, 0.0, 0.0),  //
      sample('C', 14, 600.0, 3.0, 0.0, 0.0, 5.4),   //
      sample('C', 11, 900.0, 7.0, 0.5, 0.0, 0.0),   // alone at 900 s: no datum, no clock
      sample('G', 1, 600.0, 100.0, 0.0, 0.0, 0.0),  // another constellation at the same epoch
      sample('G', 2, 600.0, 104.0, 0.0, 0.0, 0.0),
      sample('C', 12, 600.0, 50.0, 0.0, 0.0, 0.0, "broadcast"),  // another truth
      sample('C', 14, 600.0, 40.0, 0.0, 0.0, 0.0, "broadcast"),
  };
  s[1].hasClock = true;
  zh::removeClockDatum(s);
  // C11: clock 2, radial 0.98 * 2 - 2 = -0.04, along 5.4^2 / 54 = 0.54.
  EXPECT_NEAR(s[0].clock, 2.0, 1e-12);
  EXPECT_NEAR(s[0].ure, std::sqrt(0.04 * 0.04 + 0.54), 1e-12);
  // C12: clock -2, radial -0.98 + 2 = 1.02.
  EXPECT_NEAR(s[1].clock, -2.0, 1e-12);
  EXPECT_NEAR(s[1].ure, 1.02, 1e-12);
  // C14: clock 0, cross 5.4^2 / 54 = 0.54.
  EXPECT_NEAR(s[2].clock, 0.0, 1e-12);
  EXPECT_NEAR(s[2].ure, std::sqrt(0.54), 1e-12);
  EXPECT_FALSE(s[3].hasClock);
  EXPECT_NEAR(s[4].clock, -2.0, 1e-12);
  EXPECT_NEAR(s[5].clock, 2.0, 1e-12);
  EXPECT_NEAR(s[6].clock, 5.0, 1e-12);
  EXPECT_NEAR(s[7].clock, -5.0, 1e-12);

  // The summary: RMS clock over the samples with a clock; the URE median.
  std::vector<zh::SummaryRow> const rows = zh::summarize({s[0], s[1], s[2], s[3]});
  ASSERT_FALSE(rows.empty());
  EXPECT_EQ(rows[0].group, "BDS");
  EXPECT_EQ(rows[0].samples, 4u);
  EXPECT_EQ(rows[0].clockSamples, 3u);
  EXPECT_NEAR(rows[0].rmsClock, std::sqrt(8.0 / 3.0), 1e-12);
  EXPECT_NEAR(rows[0].medianUre, std::sqrt(0.04 * 0.04 + 0.54), 1e-12);
}

TEST(ClockEvaluation, PreciseClocksAreLinearBetweenTheirEpochs) {
  ZARN_SHARED_FILE_OR_SKIP(path, "data/2016-251_252_smartloc/gbm19133.sp3");
  zh::Sp3Data const data = zh::readSp3(path);
  ASSERT_GE(data.epochs.size(), 3u);
  // G01 at the second and third epochs, read from the file's lines.
  auto clockOf = [&](std::size_t epoch, char system, int prn) {
    for (zh::Sp3Entry const& e : data.epochs[epoch].entries)
      if (e.system == system && e.prn == prn) return e.clock;
    return std::nan("");
  };
  double const t1 = data.epochs[1].time, t2 = data.epochs[2].time;
  double const c1 = clockOf(1, 'G', 1), c2 = clockOf(2, 'G', 1);
  ASSERT_TRUE(std::isfinite(c1) && std::isfinite(c2));
  zh::Sp3Orbit const orbit({data});
  zh::SatelliteId const g01{'G', 1};
  EXPECT_DOUBLE_EQ(orbit.interpolatedClock(g01, t1), c1);
  EXPECT_NEAR(orbit.interpolatedClock(g01, t1 + 0.25 * (t2 - t1)), 0.75 * c1 + 0.25 * c2, 1e-18);
  EXPECT_TRUE(std::isnan(orbit.interpolatedClock(g01, data.epochs.front().time - 1.0)));
  // C01 has no clocks in this file (999999.999999).
  EXPECT_TRUE(std::isnan(orbit.interpolatedClock(zh::SatelliteId{'C', 1}, t1 + 10.0)));

  zh::Sp3Truth const truth({data});
  double seconds = 0;
  ASSERT_TRUE(truth.clock(g01, 0.5 * (t1 + t2), seconds));
  EXPECT_NEAR(seconds, 0.5 * (c1 + c2), 1e-18);
}
