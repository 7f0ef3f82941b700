// Time scales against calendar facts: dates come from ERFA (or, without it,
// the Fliegel-Van Flandern Julian day number), GPS-UTC from ERFA's TAI-UTC
// table and the published roll-over and system epochs.
#include "zarn/support/time_conversion.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <erfa.h>

#include "support/test_support.hpp"

namespace zs = zarn::support;
using zarn::core::Toc;

namespace {

constexpr double DAY = 86400.0;
constexpr double WEEK = 604800.0;

// Modified Julian Date of a Gregorian calendar date.
long mjd(int y, int m, int d) {
  double djm0 = 0.0, djm = 0.0;
  EXPECT_EQ(eraCal2jd(y, m, d, &djm0, &djm), 0);
  return static_cast<long>(djm);
}

// GPS-second count of a UTC calendar instant, leap seconds not counted.
double utcCount(int y, int m, int d, double secondsOfDay = 0.0) {
  return (mjd(y, m, d) - mjd(1980, 1, 6)) * DAY + secondsOfDay;
}

// GLONASS seconds of a Moscow-time calendar instant.
double moscowSecs(int y, int m, int d, double secondsOfDay = 0.0) {
  return (mjd(y, m, d) - mjd(1996, 1, 1)) * DAY + secondsOfDay;
}

Toc toc(std::uint32_t a, std::uint32_t b, std::uint32_t c) {
  return Toc{a, b, c};
}

// The leap second at the end of 2016 (Bulletin C 52): GPS-UTC 18 s after it.
std::vector<zs::LeapInfo> table2016() {
  return {zs::LeapInfo{static_cast<std::uint64_t>(utcCount(2016, 12, 31, DAY - 1)), 18}};
}

}  // namespace

TEST(GpsTime, WeeksOfKnownDatesAndRollOvers) {
  EXPECT_EQ(zs::gpsSecsToGps(0.0), toc(0, 0, 0));
  // Roll-overs at 1999-08-22 and 2019-04-07 00:00 GPS time.
  EXPECT_EQ(zs::gpsSecsToGps(utcCount(1999, 8, 22)), toc(1, 0, 0));
  EXPECT_EQ(zs::gpsSecsToGps(utcCount(2019, 4, 7)), toc(2, 0, 0));
  EXPECT_EQ(zs::gpsSecsToGps(utcCount(2019, 4, 7) - 1.0), toc(1, 1023, 604799));
  EXPECT_EQ(zs::gpsSecsToGps(2100 * WEEK + 3 * DAY + 5.0), toc(2, 52, 259205));
  EXPECT_EQ(zs::gpsToGpsSecs(toc(2, 52, 259205)), 2100 * WEEK + 3 * DAY + 5.0);
  // Seconds of week round to nearest, half away from zero.
  EXPECT_EQ(zs::gpsSecsToGps(100.49).third, 100u);
  EXPECT_EQ(zs::gpsSecsToGps(100.5).third, 101u);
  EXPECT_EQ(zs::gpsSecsToGps(-0.5), toc(0, 0, 0));
}

TEST(GpsTime, SlpWordRoundTripsAndCountsDays) {
  // The ends of every field.
  for (Toc const x : {toc(0, 0, 0), toc(3, 1023, 604799), toc(1, 1023, 0), toc(2, 0, 604799)})
    EXPECT_EQ(zs::slpToGps(zs::gpsToSlp(x)), x) << x.first << " " << x.second << " " << x.third;
  unsigned const word = zs::gpsToSlp(toc(2, 0, 3 * 86400 + 77));
  EXPECT_EQ(word >> 17, static_cast<unsigned>(mjd(2019, 4, 10) - mjd(1980, 1, 6)));
  EXPECT_EQ(word & 0x1FFFFu, 77u);
}

TEST(BeidouTime, EpochIsGpsWeek1356Plus14Seconds) {
  // BDT 0 = 2006-01-01 00:00:00 UTC, when GPS-UTC was 14 s.
  double const gps = zs::beidouSecsToGpsSecs(0.0);
  EXPECT_EQ(gps, utcCount(2006, 1, 1) + 14.0);
  EXPECT_EQ(zs::gpsSecsToGps(gps), toc(1, 332, 14));
  EXPECT_EQ(zs::gpsSecsToBeidouSecs(gps), 0.0);

  double const bdt = (mjd(2020, 1, 1) - mjd(2006, 1, 1)) * DAY + 12345.0;
  Toc const b = zs::secsToBeidou(bdt);
  EXPECT_EQ(b, toc(0, 730, 3 * 86400 + 12345));  // 2020-01-01 is a Wednesday, week 730 began 2019-12-29
  EXPECT_EQ(zs::beidouToSecs(b), bdt);
  EXPECT_EQ(zs::secsToBeidou(8192 * WEEK), toc(1, 0, 0));
  EXPECT_EQ(zs::secsToBeidou(-5.0), toc(0, 0, 0));

  EXPECT_EQ(zs::beidouToSlp(b) >> 17, static_cast<unsigned>(mjd(2020, 1, 1) - mjd(2006, 1, 1)));
  EXPECT_EQ(zs::slpToBeidou(zs::beidouToSlp(b)), b);
  // Weeks are never wrapped into cycles.
  EXPECT_EQ(zs::slpToBeidou(4000u * 7u << 17), toc(0, 4000, 0));
}

TEST(GlonassTime, FourYearPeriodsAround2000And2020) {
  EXPECT_EQ(zs::secsToGlonass(moscowSecs(2000, 1, 1)), toc(1, 0, 0));
  EXPECT_EQ(zs::secsToGlonass(moscowSecs(1999, 12, 31, DAY - 1)), toc(0, 1460, 86399));
  EXPECT_EQ(zs::secsToGlonass(moscowSecs(2020, 1, 1)), toc(6, 0, 0));
  EXPECT_EQ(zs::secsToGlonass(moscowSecs(2019, 12, 31, 43200.9)), toc(5, 1460, 43200));
  EXPECT_EQ(zs::secsToGlonass(moscowSecs(2020, 3, 1, 60)), toc(6, 60, 60));
  // 2100 is no leap year: period 26 has 1460 days.
  EXPECT_EQ(zs::secsToGlonass(moscowSecs(2104, 1, 1)), toc(27, 0, 0));
  EXPECT_EQ(zs::secsToGlonass(moscowSecs(2103, 12, 31, 5)), toc(26, 1459, 5));
  EXPECT_EQ(zs::glonassToSecs(toc(27, 0, 0)), moscowSecs(2104, 1, 1));
  EXPECT_EQ(zs::secsToGlonass(0.5), toc(0, 0, 0));

  for (Toc const x : {toc(0, 0, 0), toc(21, 1459, 86399), toc(5, 1460, 86399), toc(6, 0, 1)}) {
    EXPECT_EQ(zs::secsToGlonass(zs::glonassToSecs(x)), x) << x.first << " " << x.second << " " << x.third;
    EXPECT_EQ(zs::slpToGlonass(zs::glonassToSlp(x)), x) << x.first << " " << x.second << " " << x.third;
  }
  EXPECT_EQ(zs::glonassToSlp(toc(6, 0, 9)) >> 17, static_cast<unsigned>(mjd(2020, 1, 1) - mjd(1996, 1, 1)));
  EXPECT_EQ(zs::slpToGlonass(0u), toc(0, 0, 0));
}

TEST(GlonassTime, MoscowTimeFromGpsRemovesGpsMinusUtc) {
  // 2017-01-01 00:00:00 UTC is 03:00 Moscow time, day 366 of the 2016 period.
  double const gps = utcCount(2017, 1, 1) + 18.0;
  EXPECT_EQ(zs::gpsToGlonass(zs::gpsSecsToGps(gps), table2016()), toc(5, 366, 10800));
  EXPECT_EQ(zs::gpsToGlonass(zs::gpsSecsToGps(gps), {}), toc(5, 366, 10801));
  EXPECT_EQ(zs::glonassToGps(toc(5, 366, 10800), table2016()), zs::gpsSecsToGps(gps));
  // 1999-12-31 21:00 UTC (GPS-UTC 13 s) opens the 2000 period.
  EXPECT_EQ(zs::gpsSecsToGlonassSecs(utcCount(1999, 12, 31, 75600) + 13.0, {}), moscowSecs(2000, 1, 1));
  for (double t = 1.0e8; t < 1.4e9; t += 7.77e6) {
    EXPECT_EQ(zs::glonassSecsToGpsSecs(zs::gpsSecsToGlonassSecs(t, table2016()), table2016()), t);
  }
}

TEST(LeapSeconds, The2016LeapSecondComesOnlyFromTheTable) {
  double const last = utcCount(2016, 12, 31, DAY - 1);
  EXPECT_EQ(std::make_tuple(zs::leapSeconds(last, false, table2016()),
                            zs::leapSeconds(last + 1.0, false, table2016()),
                            zs::leapSeconds(last + 17.0, true, table2016()),
                            zs::leapSeconds(last + 18.0, true, table2016()),
                            zs::leapSeconds(last + 1.0e6, true, {}), zs::leapSeconds(0.0, true, {})),
            std::make_tuple(17, 18, 17, 18, 17, 0));

  // In any order of the caller's table; entries not after the last built-in one are ignored.
  double const later = utcCount(2030, 6, 30, DAY - 1);  // hypothetical
  std::vector<zs::LeapInfo> const table{{static_cast<std::uint64_t>(later), 19},
                                        {static_cast<std::uint64_t>(utcCount(2012, 6, 30, DAY - 1)), 99},
                                        table2016()[0],
                                        {static_cast<std::uint64_t>(utcCount(2040, 12, 31, DAY - 1)), 18}};
  std::vector<std::size_t> order{0, 1, 2, 3};
  double const y2041 = utcCount(2041, 1, 1);
  std::tuple<double, bool, int> const probes[] = {
      {last, false, 17},        {last + 18.0, true, 18},  {later, false, 18},       {later + 1.0, false, 19},
      {later + 18.0, true, 18}, {later + 19.0, true, 19}, {y2041 + 18.0, true, 19}, {y2041 + 19.0, true, 18}};
  do {
    std::vector<zs::LeapInfo> shuffled;
    for (std::size_t i : order) shuffled.push_back(table[i]);
    for (auto const& [t, gps, expected] : probes) EXPECT_EQ(zs::leapSeconds(t, gps, shuffled), expected) << t;
  } while (std::next_permutation(order.begin(), order.end()));
}

// On the first second of every half year and the second before it, which
// after a leap second still carries the previous value.
TEST(LeapSeconds, AgreeWithErfaEveryHalfYear) {
  for (int y = 1980; y <= 2024; ++y)
    for (int m : {1, 7})
      for (double utc : {utcCount(y, m, 1), utcCount(y, m, 1) - 1.0}) {
        if (utc < 0.0) continue;
        int year, month, day;
        double fraction, dat;
        eraJd2cal(2400000.5 + mjd(1980, 1, 6), utc / DAY, &year, &month, &day, &fraction);
        ASSERT_GE(eraDat(year, month, day, fraction, &dat), 0);
        int const gpsUtc = static_cast<int>(dat) - 19;  // GPS time = TAI - 19 s
        EXPECT_EQ(std::make_pair(zs::leapSeconds(utc, false, table2016()),
                                 zs::leapSeconds(utc + gpsUtc, true, table2016())),
                  std::make_pair(gpsUtc, gpsUtc))
            << year << "-" << month << "-" << day << " " << fraction;
      }
}

TEST(LeapSeconds, UpdateAcceptsOnlyTheLastSecondOfADay) {
  std::vector<zs::LeapInfo> table;
  Toc const endOf2016 = zs::gpsSecsToGps(utcCount(2016, 12, 31, DAY - 1));
  ASSERT_TRUE(zs::updateLeapSeconds(endOf2016, 18, table) && table.size() == 1u);
  EXPECT_EQ(table[0], table2016()[0]);
  EXPECT_TRUE(zs::updateLeapSeconds(toc(0, 0, 86399 + 3 * 86400), 5, table));
  EXPECT_TRUE(zs::updateLeapSeconds(endOf2016, 19, table));  // replaces, no duplicate
  ASSERT_TRUE(table.size() == 2u && table[0].leapSeconds == 19);

  testing::internal::CaptureStderr();
  EXPECT_FALSE(zs::updateLeapSeconds(toc(0, 0, 86400), 20, table));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ERROR/TimeConversion: updateLeapSeconds: given time 86400 is not midnight minus one second\n");
  EXPECT_EQ(table.size(), 2u);
}

TEST(ModifiedJulianDate, FromTocAndSeconds) {
  EXPECT_EQ(zs::gpsToMJD(toc(0, 0, 0)).day, static_cast<unsigned>(mjd(1980, 1, 6)));
  zs::Mjd const a = zs::gpsToMJD(toc(2, 0, 3 * 86400 + 43200));
  EXPECT_TRUE(a.day == static_cast<unsigned>(mjd(2019, 4, 10)) && a.fraction == 0.5);
  zs::Mjd const b = zs::gpsSecsToMJD(utcCount(2019, 4, 10, 21600.75));
  EXPECT_EQ(b.day, a.day);
  EXPECT_DOUBLE_EQ(b.fraction, 21600.75 / DAY);
}

TEST(AdjustedTime, NearestNominalEpoch) {
  // GPS every 2 h, GLONASS at 15 and 45 min, BeiDou hourly; the fraction survives, no 32-bit wrap.
  using namespace zarn::core;  // NOLINT: the system names of the table
  // clang-format off
  std::tuple<GnssType, double, double> const cases[] = {
      {GPS, 3600.0, 7200.0}, {GPS, 3599.0, 0.0}, {GPS, 14400.25, 14400.25}, {GPS, 7199.25, 7200.25},
      {GPS, 1.0e6 * WEEK, 1.0e6 * WEEK}, {GLONASS, 1800.0, 2700.0}, {GLONASS, 1799.0, 900.0},
      {GLONASS, 3600.0, 4500.0}, {BEIDOU, 1800.0, 3600.0}, {BEIDOU, 1799.0, 0.0},
      {GALILEO, 1799.0, 1799.0}, {static_cast<GnssType>(0), 1799.0, 1799.0}};
  // clang-format on
  for (auto const& [type, t, expected] : cases)
    EXPECT_EQ(zs::getAdjustedTime(type, t), expected) << type << " " << t;
}
