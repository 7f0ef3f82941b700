// RINEX navigation reader and writer, and the calendar arithmetic under them.
// Oracles: the per-file counts of the data set's SOURCES.md, values worked out
// by hand from the file text, and ERFA's calendar and leap-second tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <limits>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include <erfa.h>

#include "support/test_support.hpp"
#include "zarn/host/gnss_time.hpp"
#include "zarn/host/rinex_nav.hpp"
#include "zarn/support/time_conversion.hpp"

namespace zh = zarn::host;
namespace zc = zarn::core;
namespace zt = zarn::test;

namespace {

auto tocTie(zc::Toc const& t) {
  return std::make_tuple(t.first, t.second, t.third);
}

auto gpsTie(zc::GpsEphemeris const& e) {
  return std::make_tuple(e.flags, e.svId, e.iodc, tocTie(e.toe), e.uraIndex, e.health, e.iode, e.sqrtA, e.e,
                         e.i0, e.omega0, e.omega, e.m0, e.deltaN, e.omegaDot, e.iDot, e.cuc, e.cus, e.crc,
                         e.crs, e.cic, e.cis, tocTie(e.toc), e.af0, e.af1, e.af2, e.tgd);
}

auto beidouTie(zc::BeidouEphemeris const& e) {
  return std::make_tuple(e.flags, e.svId, e.aodc, tocTie(e.toe), e.uraIndex, e.health, e.aode, e.sqrtA, e.e,
                         e.i0, e.omega0, e.omega, e.m0, e.deltaN, e.omegaDot, e.iDot, e.cuc, e.cus, e.crc,
                         e.crs, e.cic, e.cis, e.iodc, tocTie(e.toc), e.a0, e.a1, e.a2, e.tgd1, e.tgd2);
}

}  // namespace

// ---- calendar arithmetic ----------------------------------------------------

TEST(GnssTime, CivilDaysAgreeWithErfa) {
  constexpr double kMjdOf1970 = 40587.0;
  for (int year = 1899; year <= 2101; ++year) {
    for (int month = 1; month <= 12; ++month) {
      for (int day : {1, 28, zh::daysInMonth(year, month)}) {
        double djm0 = 0, djm = 0;
        ASSERT_EQ(eraCal2jd(year, month, day, &djm0, &djm), 0);
        std::int64_t const days = zh::daysFromCivil(year, month, day);
        ASSERT_EQ(static_cast<double>(days), djm - kMjdOf1970) << year << "-" << month << "-" << day;
        int y = 0, m = 0, d = 0;
        zh::civilFromDays(days, y, m, d);
        ASSERT_EQ(std::make_tuple(y, m, d), std::make_tuple(year, month, day));
      }
    }
  }
}

TEST(GnssTime, GlonassTocCountsMoscowDaysFromThePeriodStart) {
  std::pair<zh::CalendarTime, zc::Toc> const cases[] = {
      // 21:00 UTC is midnight in Moscow: the day and, at a year end, the period change.
      {{2016, 12, 31, 21, 0, 0.0}, {5, 366, 0}},
      {{2019, 12, 31, 21, 0, 0.0}, {6, 0, 0}},
      {{2019, 12, 31, 20, 59, 59.0}, {5, 366 + 365 + 365 + 364, 86399}},
      {{1996, 1, 1, 0, 0, 0.0}, {0, 0, 10800}},
  };
  for (auto const& c : cases) {
    zc::Toc toc;
    ASSERT_TRUE(zh::glonassTocFromUtc(c.first, toc));
    EXPECT_EQ(tocTie(toc), tocTie(c.second)) << c.first.year << "-" << c.first.month << "-" << c.first.day;
  }
  zc::Toc toc;
  EXPECT_FALSE(zh::glonassTocFromUtc({1995, 12, 31, 20, 0, 0.0}, toc));
}

TEST(GnssTime, CalendarSecondsAndLeapSeconds) {
  // 2019-04-07 started GPS week 2048; BDT week 0 began 2006-01-01, GPS week 1356 plus 14 s.
  EXPECT_EQ(zh::gpsSecondsFromCalendar({2019, 4, 7, 0, 0, 0.0}), 2048 * zh::kSecondsPerWeek);
  EXPECT_EQ(zh::bdtSecondsFromCalendar({2006, 1, 1, 0, 0, 0.0}), 0.0);
  EXPECT_EQ(zh::kBdtEpochInGpsSeconds, 1356 * zh::kSecondsPerWeek + 14.0);
  zh::CalendarTime const c =
      zh::calendarFromGpsSeconds(zh::gpsSecondsFromCalendar({2016, 2, 29, 23, 59, 44.5}));
  EXPECT_EQ(std::make_tuple(c.year, c.month, c.day, c.hour, c.minute, c.second),
            std::make_tuple(2016, 2, 29, 23, 59, 44.5));
  // GPS-UTC agrees with ERFA's TAI-UTC - 19 s, and with the host's table the
  // library's leap count agrees with it; the 2017 step falls on the first second of the day.
  std::vector<zarn::support::LeapInfo> const table = zh::leapSecondTable();
  ASSERT_EQ(table.size(), 1u);
  for (std::int64_t day = zh::daysFromCivil(1980, 1, 6); day < zh::daysFromCivil(2026, 1, 1); day += 5) {
    for (int second : {0, 86399}) {
      zh::CalendarTime utc{0, 0, 0, second / 3600, second / 60 % 60, second % 60 * 1.0};
      zh::civilFromDays(day, utc.year, utc.month, utc.day);
      double taiMinusUtc = 0;
      ASSERT_GE(eraDat(utc.year, utc.month, utc.day, 0.0, &taiMinusUtc), 0);
      ASSERT_EQ(std::make_tuple(zh::gpsMinusUtc(utc),
                                zarn::support::leapSeconds(zh::gpsSecondsFromCalendar(utc), false, table)),
                std::make_tuple(taiMinusUtc - 19.0, taiMinusUtc - 19.0))
          << utc.year << "-" << utc.month << "-" << utc.day << " " << second;
    }
  }
}

// ---- reading the sample files -------------------------------------------------

TEST(RinexNav, EveryFileMatchesItsSourceCounts) {
  ZARN_SHARED_FILE_OR_SKIP(sources, "data/SOURCES.md");
  int checked = 0;
  for (auto const& row : zt::sourceRows()) {
    if (row.second.rfind("RINEX nav", 0) != 0 || !zt::sampleReadable(row.first, zh::gzipSupported()))
      continue;
    SCOPED_TRACE(row.first);
    std::map<char, std::pair<int, int>> const expected = zt::letterCounts(row.second);
    zh::NavData const d = zh::readRinexNav(row.first);
    std::map<char, std::pair<int, int>> found;
    for (auto const& r : d.stats.records) found[r.first] = {r.second, d.stats.satellites.at(r.first)};
    EXPECT_EQ(found, expected);
    EXPECT_EQ(d.stats.skippedMalformed, 0) << (d.stats.warnings.empty() ? "" : d.stats.warnings[0]);
    // Every GPS, GLONASS and BeiDou record is converted unless its message type is not LNAV, D1/D2 or FDMA.
    std::map<char, int> converted{{'G', static_cast<int>(d.gps.size())},
                                  {'R', static_cast<int>(d.glonass.size())},
                                  {'C', static_cast<int>(d.beidou.size())}};
    for (auto const& kind : d.stats.skippedByKind)
      if (kind.first.size() > 2) converted[kind.first[0]] += kind.second;
    for (char system : {'G', 'R', 'C'})
      EXPECT_EQ(converted[system], expected.count(system) ? expected.at(system).first : 0) << system;
    ++checked;
  }
  EXPECT_GT(checked, 0);
}

TEST(RinexNav, HandCheckedRecords) {
  ZARN_SHARED_FILE_OR_SKIP(gpsPath, "data/2016-251_252_smartloc/brdc2510.16n");
  ZARN_SHARED_FILE_OR_SKIP(mixed, "data/2016-158_smartloc/BRDC00WRD_U_20161580000_01D_MN.rnx");
  ZARN_SHARED_FILE_OR_SKIP(glonass, "data/2016-251_252_smartloc/brdc2510.16g");
  zh::NavData const d = zh::readRinexNav(gpsPath);
  ASSERT_FALSE(d.gps.empty());
  zh::GpsNavRecord const& r = d.gps.front();
  EXPECT_EQ(std::make_tuple(r.line, d.header.leapSeconds, r.raw.sqrtA),
            std::make_tuple(9, 17, 0.515370059395e4));
  // 2016-09-07 00:00 GPST is week 1913 = 1024 + 889, second 259200; URA index 0 is 2.0 m.
  zc::GpsEphemeris e;
  e.svId = 1, e.toe = e.toc = zc::Toc{1, 889, 259200}, e.iodc = 71, e.iode = 71, e.uraIndex = 0;
  e.sqrtA = 2702023377u, e.e = 50330158u, e.i0 = 659722593, e.omega0 = 1534438970, e.omega = 371831259;
  e.m0 = -439496445, e.deltaN = 13254, e.omegaDot = -23108, e.iDot = 636, e.cuc = -100, e.cus = 2975;
  e.crc = 8791, e.crs = -209, e.cic = 42, e.cis = 17, e.af0 = 70969, e.af1 = 12, e.tgd = 11;
  EXPECT_EQ(gpsTie(r.eph), gpsTie(e));

  zh::NavData const m = zh::readRinexNav(mixed);
  auto c01 = std::find_if(m.beidou.begin(), m.beidou.end(),
                          [](zh::BeidouNavRecord const& r) { return r.eph.svId == 1; });
  ASSERT_NE(c01, m.beidou.end());
  zc::BeidouEphemeris const& b = c01->eph;
  // 2016-06-06 16:00 BDT: BDT week 544, Monday 16:00 = 144000 s.
  EXPECT_EQ(std::make_tuple(c01->line, tocTie(b.toc), tocTie(b.toe), c01->raw.toc),
            std::make_tuple(3461, tocTie(zc::Toc{0, 544, 144000}), tocTie(zc::Toc{0, 544, 144000}),
                            zh::gpsSecondsFromCalendar({2016, 6, 6, 16, 0, 14.0})));
  EXPECT_EQ(
      std::make_tuple(b.sqrtA, b.i0, b.omega0, b.crs, b.cuc, b.a0, b.a1, b.a2, b.tgd1, b.tgd2, b.aode),
      std::make_tuple(3404479481u, 74517078, 849741167, 45534, 50562, -1893429, 45648, 0, 142, -104, 1));

  zh::NavData const g = zh::readRinexNav(glonass);
  ASSERT_FALSE(g.glonass.empty());
  zh::GlonassNavRecord const& n = g.glonass.front();
  // 2016-09-07 00:00 UTC is 03:00 in Moscow: day 250 of the period 2016-2019, tb 12.
  EXPECT_EQ(std::make_tuple(tocTie(n.eph.time), n.eph.svId, n.eph.tb, n.eph.frequencyNumber, n.eph.age),
            std::make_tuple(tocTie(zc::Toc{5, 250, 10800}), 14, 12, -7, 0));
  EXPECT_EQ(std::make_tuple(n.eph.x, n.eph.y, n.eph.z, n.eph.vx, n.eph.vz, n.eph.tauN, n.eph.gammaN),
            std::make_tuple(43276811, -29191668, 3680275, -353739, 3757030, -398136, 6));
  EXPECT_EQ(n.raw.toc, zh::gpsSecondsFromCalendar({2016, 9, 7, 0, 0, 17.0}));
}

TEST(RinexNav, Version4KeepsMessageTypesAndCountsOtherRecords) {
  ZARN_SHARED_FILE_OR_SKIP(path, "data/2023-071_073/BRD400DLR_S_20230710000_01D_MN.rnx.gz");
  if (!zh::gzipSupported()) GTEST_SKIP() << "built without zlib";
  zh::NavData const d = zh::readRinexNav(path);
  // Counted with grep on the "> STO|EOP|ION" and "> EPH" heads of the file.
  std::map<std::string, int> const skipped{{"STO", 126},    {"EOP", 32},     {"ION", 130},
                                           {"G CNAV", 334}, {"C CNV1", 634}, {"C CNV2", 926}};
  for (auto const& kind : skipped) EXPECT_EQ(d.stats.skippedByKind.at(kind.first), kind.second) << kind.first;
  ASSERT_FALSE(d.glonass.empty());
  // 168 D2 records; R01 00:15: the fifth line's L1/L2 delay 8.381903171539e-09 s is 9 * 2^-30 s.
  auto const isD2 = [](auto const& r) { return r.messageType == "D2"; };
  EXPECT_EQ(std::make_tuple(std::count_if(d.beidou.begin(), d.beidou.end(), isD2),
                            d.glonass.front().eph.deltaTauN, d.glonass.front().raw.urai),
            std::make_tuple(168, 9, 2.0));
}

// ---- writing --------------------------------------------------------------------

// Real records' round trip is the fuzzer's; here every field sits at the end of
// its range (13 significant digits must carry 32-bit words) and the header
// carries the options.
TEST(RinexNavWriter, ExtremeFieldValuesAndHeaderOptionsSurviveTheRoundTrip) {
  using I16 = std::numeric_limits<std::int16_t>;
  using I32 = std::numeric_limits<std::int32_t>;
  using U32 = std::numeric_limits<std::uint32_t>;
  zc::GpsEphemeris g;
  g.svId = 32, g.iodc = 1023, g.toe = g.toc = zc::Toc{2, 1023, 604784}, g.uraIndex = 15, g.health = 63;
  g.iode = 255, g.sqrtA = U32::max(), g.e = U32::max() - 1, g.i0 = I32::min(), g.omega0 = I32::max();
  g.omega = -1, g.m0 = I32::max() - 1, g.deltaN = I16::min(), g.omegaDot = -8388608, g.iDot = 8191;
  g.cuc = g.cis = I16::max(), g.cus = g.cic = I16::min(), g.crc = -32767, g.crs = 32767;
  g.af0 = -2097152, g.af1 = -32768, g.af2 = -128, g.tgd = 127;
  zc::BeidouEphemeris b;
  b.svId = 63, b.toe = b.toc = zc::Toc{0, 8191, 604792}, b.aodc = b.iodc = 31, b.aode = 31;
  b.uraIndex = 14, b.health = 1, b.sqrtA = 1, b.e = U32::max(), b.i0 = b.omega0 = b.omega = b.m0 = I32::min();
  b.cuc = b.cus = b.cic = b.cis = -131072, b.crc = b.crs = 131071;
  b.a0 = -8388608, b.a1 = 2097151, b.a2 = -1024, b.tgd1 = -512, b.tgd2 = 511;
  zh::NavWriteOptions options;
  options.date = "20240101 000000 UTC", options.hasFitEnd = true, options.leapSeconds = 17;
  options.fitEnd = zh::gpsSecondsFromCalendar({2016, 9, 7, 23, 59, 44.0});
  std::string const path = testing::TempDir() + "/extreme.rnx";
  zh::writeRinexNav(path, options, {g}, {b});
  zh::NavData const back = zh::readRinexNav(path);
  std::remove(path.c_str());
  EXPECT_EQ(std::make_tuple(back.header.version, back.header.system, back.header.hasFitEnd,
                            back.header.fitEnd, back.header.leapSeconds, back.stats.skippedMalformed),
            std::make_tuple(3.04, 'M', true, options.fitEnd, 17, 0));
  ASSERT_TRUE(back.gps.size() == 1 && back.beidou.size() == 1);
  EXPECT_EQ(gpsTie(back.gps[0].eph), gpsTie(g));
  EXPECT_EQ(beidouTie(back.beidou[0].eph), beidouTie(b));
  g.uraIndex = 16;
  EXPECT_THROW(zh::formatRinexNav(zh::NavWriteOptions{}, {g}, {}), std::invalid_argument);
}

// ---- bad input ------------------------------------------------------------------

namespace {

std::string const kV3Header =
    "     3.04           N: GNSS NAV DATA    M: MIXED            RINEX VERSION / TYPE\n"
    "                                                            END OF HEADER\n";

}  // namespace

TEST(RinexNavBadInput, BrokenFilesGiveAClearError) {
  std::tuple<std::string, int, std::string> const cases[] = {
      {"", 0, "empty file"},
      {"hello\n", 1, "not a RINEX file"},
      {"     3.04           O                   M                   RINEX VERSION / TYPE\n", 1,
       "not a navigation file"},
      {"     1.00           N                                       RINEX VERSION / TYPE\n", 1,
       "unsupported RINEX version"},
      {"     2.10           N: GPS NAV DATA                         RINEX VERSION / TYPE\n"
       "                                                            COMMENT\n",
       2, "no END OF HEADER"}};
  for (auto const& [text, line, reason] : cases) {
    try {
      zh::parseRinexNav(text, "bad.rnx");
      ADD_FAILURE() << "no error for: " << reason;
    } catch (zh::FormatError const& e) {
      // The message starts with "<name>:<line>: " and gives the reason.
      std::string const prefix = line > 0 ? "bad.rnx:" + std::to_string(line) + ": " : "bad.rnx: ";
      EXPECT_TRUE(e.line() == line && std::string(e.what()).rfind(prefix, 0) == 0 &&
                  std::string(e.what()).find(reason) != std::string::npos)
          << e.what();
    }
  }
  EXPECT_THROW(zh::readRinexNav("/nonexistent/brdc0010.22n"), zh::FormatError);
}

TEST(RinexNavBadInput, DamagedGzipIsAClearError) {
  ZARN_SHARED_FILE_OR_SKIP(path, "data/nav_only_multiday/NYA100NOR_S_20241240000_01D_CN.rnx.gz");
  std::string const bytes = zt::readFile(path), cut = testing::TempDir() + "/cut.rnx.gz";
  std::ofstream(cut, std::ios::binary) << bytes.substr(0, bytes.size() / 2);
  try {
    zh::readRinexNav(cut);
    ADD_FAILURE() << "no error";
  } catch (zh::FormatError const& e) {
    EXPECT_NE(std::string(e.what()).find(cut), std::string::npos);
    EXPECT_NE(e.reason().find(zh::gzipSupported() ? "truncated" : "zlib"), std::string::npos) << e.what();
  }
  std::remove(cut.c_str());
}

TEST(RinexNavBadInput, BadRecordsAreSkippedWithTheirLine) {
  std::string const gps =
      "G05 2020 05 18 00 00 00-1.063747331500E-04-9.094947017729E-13 0.000000000000E+00\n"
      "     5.600000000000E+01-1.071875000000E+02 4.286606215920E-09 2.594413009133E+00\n"
      "    -5.563348531723E-06 6.048537185416E-03 3.052130341530E-06 5.153704671860E+03\n"
      "     8.640000000000E+04 1.303851604462E-08-1.054044664090E+00-1.415610313416E-07\n"
      "     9.638003152600E-01 2.830625000000E+02 7.096128398000E-01-8.314632633269E-09\n"
      "    -2.432244490790E-10 1.000000000000E+00 2.106000000000E+03 0.000000000000E+00\n"
      "     2.000000000000E+00 0.000000000000E+00-1.117587089539E-08 5.600000000000E+01\n"
      "     7.921800000000E+04 4.000000000000E+00\n";
  std::string garbled = gps;
  garbled.replace(garbled.find("2.594413009133E+00"), 5, "2.5x4");
  std::string const unknownSystem = "X" + gps.substr(1);
  std::string huge = gps;  // sqrtA beyond 32 bits
  huge.replace(huge.find("5.153704671860E+03"), 18, "5.153704671860E+09");
  zh::NavData const d =
      zh::parseRinexNav(kV3Header + gps + garbled + unknownSystem + huge + gps.substr(0, 200), "bad.rnx");
  EXPECT_EQ(std::make_tuple(d.gps.size(), d.stats.skippedMalformed), std::make_tuple(std::size_t{1}, 4));
  ASSERT_EQ(d.stats.warnings.size(), 4u);
  char const* const expected[] = {
      "bad.rnx:12: bad number '2.5x4413009133E+00'", "bad.rnx:19: unknown satellite system 'X'",
      "bad.rnx:27: sqrtA out of range", "bad.rnx:37: record ends after 3 of 8 lines"};
  for (int i = 0; i < 4; ++i) EXPECT_EQ(d.stats.warnings[i].rfind(expected[i], 0), 0u) << d.stats.warnings[i];
}
