// Clock error and user range error of the evaluation: the datum removed per
// truth, constellation and epoch, the error weighted as SISRE studies weight
// it, and the precise clocks interpolated between their epochs.
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>
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
  s.truth = truth, s.sat = zh::SatelliteId{system, prn}, s.t = t, s.hasClock = true;
  s.svType = system == 'C' ? zarn::support::MEO : zarn::support::UNDEFINED_SAT_TYPE;
  s.radial = radial, s.along = along, s.cross = cross, s.clockDifference = clockDifference;
  return s;
}

}  // namespace

// BeiDou MEO weights of Montenbruck et al. (2015), Table 4: radial 0.98,
// along- and cross-track 1/54 on the squares.
TEST(ClockEvaluation, DatumRemovedPerEpochAndUreByHand) {
  // The mean of C at 600 s is (5 + 1 + 3) / 3 = 3; C11 alone at 900 s has no datum and no clock; G at
  // the same epoch and another truth have their own datums.
  std::vector<zh::ErrorSample> s = {sample('C', 11, 600.0, 5.0, 2.0, 5.4, 0.0),
                                    sample('C', 12, 600.0, 1.0, -1.0, 0.0, 0.0),
                                    sample('C', 14, 600.0, 3.0, 0.0, 0.0, 5.4),
                                    sample('C', 11, 900.0, 7.0, 0.5, 0.0, 0.0),
                                    sample('G', 1, 600.0, 100.0, 0.0, 0.0, 0.0),
                                    sample('G', 2, 600.0, 104.0, 0.0, 0.0, 0.0),
                                    sample('C', 12, 600.0, 50.0, 0.0, 0.0, 0.0, "broadcast"),
                                    sample('C', 14, 600.0, 40.0, 0.0, 0.0, 0.0, "broadcast")};
  zh::removeClockDatum(s);
  // C11: clock 2, radial 0.98 * 2 - 2 = -0.04, along 5.4^2 / 54 = 0.54.
  // C12: clock -2, radial -0.98 + 2 = 1.02. C14: clock 0, cross 5.4^2 / 54 = 0.54.
  double const clock[] = {2.0, -2.0, 0.0, 0.0, -2.0, 2.0, 5.0, -5.0};
  double const ure[] = {std::sqrt(0.04 * 0.04 + 0.54), 1.02, std::sqrt(0.54)};
  for (int k = 0; k < 8; ++k)
    EXPECT_TRUE((k == 3 ? !s[k].hasClock : std::fabs(s[k].clock - clock[k]) < 1e-12) &&
                (k >= 3 || std::fabs(s[k].ure - ure[k]) < 1e-12))
        << k << " " << s[k].clock << " " << s[k].ure;

  // The summary: RMS clock over the samples with a clock; the URE median.
  std::vector<zh::SummaryRow> const rows = zh::summarize({s[0], s[1], s[2], s[3]});
  ASSERT_FALSE(rows.empty());
  EXPECT_EQ(std::make_tuple(rows[0].group, rows[0].samples, rows[0].clockSamples),
            std::make_tuple("BDS", 4u, 3u));
  EXPECT_TRUE(std::fabs(rows[0].rmsClock - std::sqrt(8.0 / 3.0)) < 1e-12 &&
              std::fabs(rows[0].medianUre - ure[0]) < 1e-12)
      << rows[0].rmsClock << " " << rows[0].medianUre;
}

TEST(ClockEvaluation, PreciseClocksAreLinearBetweenTheirEpochs) {
  ZARN_SHARED_FILE_OR_SKIP(path, "data/2016-251_252_smartloc/gbm19133.sp3");
  zh::Sp3Data const data = zh::readSp3(path);
  ASSERT_GE(data.epochs.size(), 3u);
  // G01 at the second and third epochs, read from the file's lines.
  auto clockOf = [&](std::size_t epoch) {
    for (zh::Sp3Entry const& e : data.epochs[epoch].entries)
      if (e.system == 'G' && e.prn == 1) return e.clock;
    return std::nan("");
  };
  double const t1 = data.epochs[1].time, t2 = data.epochs[2].time, c1 = clockOf(1), c2 = clockOf(2);
  ASSERT_TRUE(std::isfinite(c1) && std::isfinite(c2));
  zh::Sp3Orbit const orbit({data});
  zh::SatelliteId const g01{'G', 1};
  EXPECT_DOUBLE_EQ(orbit.interpolatedClock(g01, t1), c1);
  EXPECT_NEAR(orbit.interpolatedClock(g01, t1 + 0.25 * (t2 - t1)), 0.75 * c1 + 0.25 * c2, 1e-18);
  // Before the first epoch, and C01 that has no clocks in this file (999999.999999).
  EXPECT_TRUE(std::isnan(orbit.interpolatedClock(g01, data.epochs.front().time - 1.0)) &&
              std::isnan(orbit.interpolatedClock(zh::SatelliteId{'C', 1}, t1 + 10.0)));

  double seconds = 0;
  EXPECT_TRUE(zh::Sp3Truth({data}).clock(g01, 0.5 * (t1 + t2), seconds));
  EXPECT_NEAR(seconds, 0.5 * (c1 + c2), 1e-18);
}
