// SP3 reader. Oracles: the per-file counts of the data set's SOURCES.md, each
// file's own "##" line (GPS week and seconds of its first epoch), values read
// off the file text, and the physics of the orbits (radius, velocity against
// the derivative of the positions).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <random>
#include <set>
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
    EXPECT_EQ(d.header.version, c[4]);
    EXPECT_EQ(d.header.posVel, c[7]);
    EXPECT_EQ(static_cast<int>(d.epochs.size()), std::stoi(c.substr(count, epochs - count)));
    EXPECT_EQ(d.stats.satellites, satellites);
    EXPECT_EQ(d.stats.skippedMalformed + d.stats.skippedUnknown, 0)
        << (d.stats.warnings.empty() ? std::string() : d.stats.warnings.front());
    ASSERT_FALSE(d.epochs.empty());
    // The "##" line states the GPS week and second of the start epoch and the spacing
    // (trimmed files start later, on the same grid).
    double const start = zh::gpsSecondsFromCalendar(d.header.start);
    zarn::core::Toc const first = zarn::support::gpsSecsToGps(start);
    EXPECT_EQ(first.first * 1024 + first.second, static_cast<unsigned>(d.header.gpsWeek));
    EXPECT_EQ(first.third, d.header.secondsOfWeek);
    EXPECT_EQ(std::fmod(d.epochs.front().time - start, d.header.interval), 0.0);
    for (std::size_t i = 1; i < d.epochs.size(); ++i) {
      ASSERT_EQ(d.epochs[i].time - d.epochs[i - 1].time, d.header.interval) << "epoch " << i;
    }
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
  EXPECT_EQ(d.header.timeSystem, "GPS");
  EXPECT_EQ(d.header.fileType, 'M');
  EXPECT_EQ(d.header.satellites.size(), 81u);
  EXPECT_EQ(d.header.satellites.front(), "C01");
  ASSERT_GE(d.epochs.front().entries.size(), 2u);
  zh::Sp3Entry const& c01 = d.epochs.front().entries[0];
  EXPECT_EQ(std::make_tuple(c01.system, c01.prn, c01.line), std::make_tuple('C', 1, 24));
  EXPECT_EQ(c01.position[0], -32265857.252);
  EXPECT_EQ(c01.position[2], 928793.735);
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
    EXPECT_EQ(d.stats.absentPositions, 1);
    EXPECT_EQ(d.epochs[0].entries.size(), 1u);
  }
  // 2017-01-01 03:00 GLONASS time is 2017-01-01 00:00 UTC, after the 2016 leap second.
  std::string glo = syntheticSp3("GLO");
  glo.replace(glo.find("*  2020  1  1  0"), 16, "*  2017  1  1  3");
  EXPECT_EQ(zh::parseSp3(glo, "t.sp3").epochs.at(0).time,
            zh::gpsSecondsFromCalendar({2017, 1, 1, 0, 0, 18.0}));
  EXPECT_THROW(zh::parseSp3(syntheticSp3("XYZ"), "t.sp3"), zh::FormatError);
}

TEST(Sp3BadInput, BrokenFilesGiveAClearError) {
  auto expectError = [](std::string const& text, int line, std::string const& reason) {
    try {
      zh::parseSp3(text, "bad.sp3");
      ADD_FAILURE() << "no error for: " << reason;
    } catch (zh::FormatError const& e) {
      EXPECT_EQ(e.line(), line) << e.what();
      EXPECT_EQ(std::string(e.what()).rfind("bad.sp3", 0), 0u) << e.what();
      EXPECT_NE(e.reason().find(reason), std::string::npos) << e.what();
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

namespace {

// Epoch, satellite, position and clock; then velocity and clock rate (zero when absent).
using PositionKey = std::tuple<double, char, int, double, double, double, double>;
using VelocityKey = std::tuple<bool, double, double, double, double>;
using EntryKey = std::pair<PositionKey, VelocityKey>;

std::map<int, EntryKey> entriesByLine(zh::Sp3Data const& d, std::map<int, int>* epochLineOf = nullptr) {
  std::map<int, EntryKey> out;
  auto orZero = [](double x) { return std::isnan(x) ? 0.0 : x; };
  for (zh::Sp3Epoch const& epoch : d.epochs) {
    for (zh::Sp3Entry const& e : epoch.entries) {
      out[e.line] = EntryKey(
          PositionKey(epoch.time, e.system, e.prn, e.position[0], e.position[1], e.position[2],
                      orZero(e.clock)),
          VelocityKey(e.hasVelocity, e.velocity[0], e.velocity[1], e.velocity[2], orZero(e.clockRate)));
      if (epochLineOf) (*epochLineOf)[e.line] = epoch.line;
    }
  }
  return out;
}

}  // namespace

TEST(Sp3BadInput, TruncatedAndMutatedFilesGiveErrorsOrPartialResults) {
  ZARN_SHARED_FILE_OR_SKIP(velocities, "data/2015-200_gpstk/test_input_sp3_nav_2015_200.sp3");
  ZARN_SHARED_FILE_OR_SKIP(mixed, "data/2023-008_instinct/GFZ0MGXRAP_20230080000_01D_05M_ORB.SP3");
  std::mt19937 random(97u);
  for (std::string const& path : {velocities, mixed}) {
    std::string text = zt::readFile(path);
    text = text.substr(0, text.find("\n*", 40000) + 1) + "EOF\n";  // a few epochs
    std::map<int, int> epochLineOf;
    zh::Sp3Data const clean = zh::parseSp3(text, "fuzz.sp3");
    ASSERT_GT(clean.epochs.size(), 2u);
    ASSERT_EQ(clean.stats.skippedMalformed, 0);
    std::map<int, EntryKey> const original = entriesByLine(clean, &epochLineOf);
    int const headerLines = clean.epochs.front().line - 1;
    // An entry may change or vanish when damage falls between its epoch line and its velocity line.
    // With `onlyCut` (text removed, nothing changed) every entry read at all is the original,
    // though it may have lost its velocity line.
    auto compare = [&](zh::Sp3Data const& d, std::set<int> const& damaged, bool onlyCut) {
      auto affected = [&](int line) {
        auto it = damaged.lower_bound(epochLineOf.at(line));
        return it != damaged.end() && *it <= line + 1;
      };
      std::map<int, EntryKey> const found = entriesByLine(d);
      for (auto const& entry : found) {
        if (!onlyCut) break;
        auto it = original.find(entry.first);
        ASSERT_NE(it, original.end()) << "new entry at line " << entry.first;
        EXPECT_EQ(entry.second.first, it->second.first) << "entry at line " << entry.first;
        if (std::get<0>(entry.second.second)) {
          EXPECT_EQ(entry.second.second, it->second.second) << "entry at line " << entry.first;
        }
      }
      for (auto const& entry : original) {
        if (affected(entry.first)) continue;
        auto it = found.find(entry.first);
        ASSERT_NE(it, found.end()) << "lost entry at line " << entry.first;
        EXPECT_EQ(it->second, entry.second) << "entry at line " << entry.first;
      }
      EXPECT_EQ(d.stats.warnings.size(), std::min(d.stats.warningCount, 100));
    };
    for (zt::Damage const& cut : zt::truncations(text, 120, random)) {
      try {
        zh::Sp3Data const d = zh::parseSp3(cut.text, "fuzz.sp3");
        compare(d, cut.lines, true);
        EXPECT_TRUE(cut.cut >= text.size() - 4 || !d.stats.sawEof);
      } catch (zh::FormatError const& e) {
        EXPECT_EQ(std::string(e.what()).rfind("fuzz.sp3", 0), 0u);
        EXPECT_LE(zt::lineOf(text, cut.cut), headerLines) << e.what();
      }
    }
    for (zt::Damage const& m : zt::mutations(text, 120, random, " 0123456789-+.*PVGRCX\t\x01\xff")) {
      try {
        zh::Sp3Data const d = zh::parseSp3(m.text, "fuzz.sp3");
        if (!m.lines.empty() && *m.lines.begin() > headerLines) compare(d, m.lines, false);
      } catch (zh::FormatError const& e) {
        EXPECT_EQ(std::string(e.what()).rfind("fuzz.sp3", 0), 0u);
        EXPECT_LE(*m.lines.begin(), headerLines) << e.what();
      }
    }
  }
}
