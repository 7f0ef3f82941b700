// SP3 reader. Oracles: the per-file counts of the data set's SOURCES.md, each
// file's own "##" line (GPS week and seconds of its first epoch), values read
// off the file text, and the physics of the orbits (radius, velocity against
// the derivative of the positions).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "support/test_support.hpp"
#include "zarn/host/sp3.hpp"
#include "zarn/support/time_conversion.hpp"

namespace zh = zarn::host;
namespace zt = zarn::test;

TEST(Sp3, EveryFileMatchesItsSourceAndItsOwnHeader) {
  ZARN_SHARED_FILE_OR_SKIP(sources, "data/SOURCES.md");
  int checked = 0;
  for (auto const& row : zt::sourceRows()) {
    std::string const& c = row.second;  // "SP3-c (P) GFZ; 288 epochs ...; sats G:31, R:22"
    if (c.rfind("SP3-", 0) != 0 || c.size() < 9 || !zt::sampleReadable(row.first, zh::gzipSupported()))
      continue;
    SCOPED_TRACE(row.first);
    std::size_t const epochs = c.find(" epochs"), count = c.rfind("; ", epochs) + 2;
    std::map<char, int> satellites;
    for (auto const& entry : zt::letterCounts(c.substr(c.find("sats "))))
      satellites[entry.first] = entry.second.first;
    zh::Sp3Data const d = zh::readSp3(row.first);
    EXPECT_EQ(std::make_tuple(d.header.version, d.header.posVel, static_cast<int>(d.epochs.size()),
                              d.stats.satellites),
              std::make_tuple(c[4], c[7], std::stoi(c.substr(count, epochs - count)), satellites));
    EXPECT_EQ(d.stats.skippedMalformed + d.stats.skippedUnknown, 0)
        << (d.stats.warnings.empty() ? std::string() : d.stats.warnings.front());
    ASSERT_FALSE(d.epochs.empty());
    // The "##" line states the GPS week and second of the start epoch and the spacing
    // (trimmed files start later, on the same grid).
    double const start = zh::gpsSecondsFromCalendar(d.header.start);
    zarn::core::Toc const first = zarn::support::gpsSecsToGps(start);
    EXPECT_EQ(std::make_tuple(first.first * 1024 + first.second, first.third,
                              std::fmod(d.epochs.front().time - start, d.header.interval)),
              std::make_tuple(static_cast<unsigned>(d.header.gpsWeek), d.header.secondsOfWeek, 0.0));
    for (std::size_t i = 1; i < d.epochs.size(); ++i)
      ASSERT_EQ(d.epochs[i].time - d.epochs[i - 1].time, d.header.interval) << "epoch " << i;
    // Every position is a GNSS orbit: from the perigee of the eccentric Galileo pair (17300 km)
    // to the apogee of QZSS (45300 km).
    for (zh::Sp3Epoch const& epoch : d.epochs) {
      for (zh::Sp3Entry const& e : epoch.entries) {
        double const r = std::hypot(e.position[0], e.position[1], e.position[2]);
        ASSERT_TRUE(r > 1.7e7 && r < 4.6e7) << e.system << e.prn << " r=" << r;
      }
    }
    ++checked;
  }
  EXPECT_GT(checked, 0);
}

TEST(Sp3, HandCheckedValuesAndUnits) {
  ZARN_SHARED_FILE_OR_SKIP(path, "data/2016-251_252_smartloc/gbm19133.sp3");
  zh::Sp3Data const d = zh::readSp3(path);
  EXPECT_EQ(std::make_tuple(d.header.timeSystem, d.header.fileType, d.header.satellites.size(),
                            d.header.satellites.front()),
            std::make_tuple("GPS", 'M', 81u, "C01"));
  ASSERT_GE(d.epochs.front().entries.size(), 2u);
  zh::Sp3Entry const& c01 = d.epochs.front().entries[0];
  EXPECT_EQ(std::make_tuple(c01.system, c01.prn, c01.line, c01.position[0], c01.position[2]),
            std::make_tuple('C', 1, 24, -32265857.252, 928793.735));
  EXPECT_TRUE(std::isnan(c01.clock));  // 999999.999999
  EXPECT_DOUBLE_EQ(d.epochs.front().entries[1].clock, 910.055755e-6);
  EXPECT_EQ(d.epochs.front().time, zh::gpsSecondsFromCalendar({2016, 9, 7, 0, 0, 0.0}));
  std::vector<zh::Sp3Sample> const track = zh::satelliteTrack(d, 'G', 1);
  EXPECT_EQ(track.size(), 288u);
  EXPECT_TRUE(std::is_sorted(track.begin(), track.end(),
                             [](zh::Sp3Sample const& a, zh::Sp3Sample const& b) { return a.time < b.time; }));
}

TEST(Sp3, VersionAVelocitiesInMetresPerSecond) {
  ZARN_SHARED_FILE_OR_SKIP(path, "data/2015-200_gpstk/test_input_sp3_nav_2015_200.sp3");
  zh::Sp3Data const d = zh::readSp3(path);
  EXPECT_EQ(d.header.version, 'a');
  zh::Sp3Entry const& g1 = d.epochs.front().entries.front();
  EXPECT_EQ(std::make_tuple(g1.system, g1.prn, g1.hasVelocity), std::make_tuple('G', 1, true));
  EXPECT_DOUBLE_EQ(g1.velocity[0], -1665.8679468);  // -16658.679468 dm/s
  EXPECT_DOUBLE_EQ(g1.clockRate, 0.005752e-10);
}

namespace {

std::string syntheticSp3(std::string const& timeSystem) {
  return "#dP2020  1  1  0  0  0.00000000       1 ORBIT IGS20 FIT  TST\n"
         "## 2086 259200.00000000   900.00000000 58849 0.0000000000000\n"
         "+    2   G01G02  0  0  0  0  0  0  0  0  0  0  0  0  0  0  0\n"
         "%c M  cc " +
         timeSystem +
         " ccc cccc cccc cccc cccc ccccc ccccc ccccc ccccc\n"
         "*  2020  1  1  0  0  0.00000000\n"
         "PG01  10000.000000  20000.000000  15000.000000    100.000000\n"
         "PG02      0.000000      0.000000      0.000000 999999.999999\n"
         "EOF\n";
}

}  // namespace

TEST(Sp3, EpochsFollowTheFileTimeSystem) {
  double const calendar = zh::gpsSecondsFromCalendar({2020, 1, 1, 0, 0, 0.0});
  std::pair<char const*, double> const cases[] = {{"GPS", 0.0},   {"GAL", 0.0},  {"BDT", 14.0},
                                                  {"TAI", -19.0}, {"UTC", 18.0}, {"GLO", 18.0 - 10800.0}};
  for (auto const& c : cases) {
    zh::Sp3Data const d = zh::parseSp3(syntheticSp3(c.first), "t.sp3");
    ASSERT_EQ(d.epochs.size(), 1u) << c.first;
    EXPECT_EQ(d.epochs[0].time - calendar, c.second) << c.first;
    EXPECT_TRUE(d.stats.absentPositions == 1 && d.epochs[0].entries.size() == 1u);
  }
  // 2017-01-01 03:00 GLONASS time is 2017-01-01 00:00 UTC, after the 2016 leap second.
  std::string glo = syntheticSp3("GLO");
  glo.replace(glo.find("*  2020  1  1  0"), 16, "*  2017  1  1  3");
  EXPECT_EQ(zh::parseSp3(glo, "t.sp3").epochs.at(0).time,
            zh::gpsSecondsFromCalendar({2017, 1, 1, 0, 0, 18.0}));
}

TEST(Sp3BadInput, BrokenFilesGiveAClearError) {
  auto expectError = [](std::string const& text, int line, std::string const& reason) {
    try {
      zh::parseSp3(text, "bad.sp3");
      ADD_FAILURE() << "no error for: " << reason;
    } catch (zh::FormatError const& e) {
      EXPECT_TRUE(e.line() == line && std::string(e.what()).rfind("bad.sp3", 0) == 0 &&
                  e.reason().find(reason) != std::string::npos)
          << e.what();
    }
  };
  std::string const good = syntheticSp3("GPS");
  expectError("", 0, "empty file");
  expectError("     2.10           N: GPS NAV DATA                         RINEX VERSION / TYPE\n", 1,
              "not an SP3");
  expectError(good.substr(0, good.find("##")), 2, "missing the second header line");
  std::string badFirst = good;
  badFirst.replace(3, 4, "20x0");
  expectError(badFirst, 1, "bad first header line");
  expectError(syntheticSp3("XYZ"), 4, "unsupported time system 'XYZ'");
  EXPECT_THROW(zh::readSp3("/nonexistent/file.sp3"), zh::FormatError);
}
