// RINEX navigation reader and writer, and the calendar arithmetic under them.
// Oracles: the per-file counts of the data set's SOURCES.md, values worked out
// by hand from the file text, and ERFA's calendar and leap-second tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#ifdef ZARN_HAVE_ERFA
#include <erfa.h>
#endif

#include "support/test_support.hpp"
#include "zarn/host/gnss_time.hpp"
#include "zarn/host/rinex_nav.hpp"
#include "zarn/support/time_conversion.hpp"

namespace zh = zarn::host;
namespace zc = zarn::core;

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

auto glonassTie(zc::GlonassEphemeris const& e) {
  return std::make_tuple(e.flags, e.svId, e.tb, tocTie(e.time), e.frequencyNumber, e.health, e.age, e.x, e.y,
                         e.z, e.vx, e.vy, e.vz, e.ax, e.ay, e.az, e.tauN, e.gammaN, e.deltaTauN);
}

std::string readAll(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// One navigation row of SOURCES.md: "G:422eph/32sv" per system.
struct NavSource {
  std::string path;
  std::map<char, std::pair<int, int>> counts;
};

// (path, content) of every file row of the data set's SOURCES.md tables.
std::vector<std::pair<std::string, std::string>> sourceRows() {
  std::vector<std::pair<std::string, std::string>> rows;
  std::istringstream in(readAll(zarn::test::sharedDir() + "/data/SOURCES.md"));
  std::string dir;
  std::string line;
  auto trimmed = [](std::string s) {
    s.erase(0, s.find_first_not_of(' '));
    s.erase(s.find_last_not_of(' ') + 1);
    return s;
  };
  while (std::getline(in, line)) {
    if (line.rfind("### `", 0) == 0) dir = line.substr(5, line.find("/`") - 5);
    if (line.rfind("| ", 0) != 0 || dir.empty()) continue;
    std::vector<std::string> cells;
    std::istringstream row(line);
    for (std::string cell; std::getline(row, cell, '|');) cells.push_back(trimmed(cell));
    if (cells.size() < 6 || cells[1] == "file") continue;
    rows.emplace_back(zarn::test::sharedDir() + "/data/" + dir + "/" + cells[1], cells[4]);
  }
  return rows;
}

// The numbers of every "X:123" (and "X:123eph/45sv") in `text`, by letter.
std::map<char, std::pair<int, int>> letterCounts(std::string const& text) {
  std::map<char, std::pair<int, int>> out;
  for (std::size_t i = 0; i + 2 < text.size(); ++i) {
    if (text[i] < 'A' || text[i] > 'Z' || text[i + 1] != ':' ||
        !std::isdigit(static_cast<unsigned char>(text[i + 2]))) {
      continue;
    }
    std::size_t end = 0;
    int const first = std::stoi(text.substr(i + 2), &end);
    int second = 0;
    std::size_t const next = i + 2 + end;
    if (text.compare(next, 4, "eph/") == 0) second = std::stoi(text.substr(next + 4));
    out[text[i]] = {first, second};
  }
  return out;
}

std::vector<NavSource> navSources() {
  std::vector<NavSource> rows;
  for (auto const& row : sourceRows()) {
    if (row.second.rfind("RINEX nav", 0) == 0) rows.push_back(NavSource{row.first, letterCounts(row.second)});
  }
  return rows;
}

bool isGzip(std::string const& path) {
  return path.size() > 3 && path.substr(path.size() - 3) == ".gz";
}

}  // namespace

// ---- calendar arithmetic ----------------------------------------------------

#ifdef ZARN_HAVE_ERFA
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

TEST(GnssTime, LeapSecondsAgreeWithErfa) {
  constexpr double kTaiMinusGps = 19.0;
  for (std::int64_t day = zh::daysFromCivil(1980, 1, 6); day < zh::daysFromCivil(2026, 1, 1); day += 5) {
    zh::CalendarTime c;
    zh::civilFromDays(day, c.year, c.month, c.day);
    double taiMinusUtc = 0;
    ASSERT_GE(eraDat(c.year, c.month, c.day, 0.0, &taiMinusUtc), 0);
    ASSERT_EQ(zh::gpsMinusUtc(c), taiMinusUtc - kTaiMinusGps) << c.year << "-" << c.month << "-" << c.day;
  }
  // The step falls on the first second of the new day.
  zh::CalendarTime before{2016, 12, 31, 23, 59, 59.0};
  zh::CalendarTime after{2017, 1, 1, 0, 0, 0.0};
  EXPECT_EQ(zh::gpsMinusUtc(before), 17);
  EXPECT_EQ(zh::gpsMinusUtc(after), 18);
}

TEST(GnssTime, GlonassTocCountsMoscowDaysFromThePeriodStart) {
  struct Case {
    zh::CalendarTime utc;
    zc::Toc expected;
  };
  auto mjd = [](int y, int m, int d) {
    double djm0 = 0, djm = 0;
    eraCal2jd(y, m, d, &djm0, &djm);
    return static_cast<std::uint32_t>(djm);
  };
  Case const cases[] = {
      // 21:00 UTC is midnight in Moscow: the day and, at a year end, the period change.
      {{2016, 12, 31, 21, 0, 0.0}, {5, mjd(2017, 1, 1) - mjd(2016, 1, 1), 0}},
      {{2019, 12, 31, 21, 0, 0.0}, {6, 0, 0}},
      {{2019, 12, 31, 20, 59, 59.0}, {5, mjd(2019, 12, 31) - mjd(2016, 1, 1), 86399}},
      {{2016, 2, 29, 12, 0, 0.0}, {5, 59, 54000}},
      {{1996, 1, 1, 0, 0, 0.0}, {0, 0, 10800}},
  };
  for (Case const& c : cases) {
    zc::Toc toc;
    ASSERT_TRUE(zh::glonassTocFromUtc(c.utc, toc));
    EXPECT_EQ(tocTie(toc), tocTie(c.expected)) << c.utc.year << "-" << c.utc.month << "-" << c.utc.day;
  }
  zc::Toc toc;
  EXPECT_FALSE(zh::glonassTocFromUtc({1995, 12, 31, 20, 0, 0.0}, toc));
}
#endif

TEST(GnssTime, CalendarSecondsAndTheLibraryLeapTable) {
  // 2019-04-07 started GPS week 2048; BDT week 0 began 2006-01-01, GPS week 1356 plus 14 s.
  EXPECT_EQ(zh::gpsSecondsFromCalendar({2019, 4, 7, 0, 0, 0.0}), 2048 * zh::kSecondsPerWeek);
  EXPECT_EQ(zh::bdtSecondsFromCalendar({2006, 1, 1, 0, 0, 0.0}), 0.0);
  EXPECT_EQ(zh::kBdtEpochInGpsSeconds, 1356 * zh::kSecondsPerWeek + 14.0);
  zh::CalendarTime const c =
      zh::calendarFromGpsSeconds(zh::gpsSecondsFromCalendar({2016, 2, 29, 23, 59, 44.5}));
  EXPECT_EQ(std::make_tuple(c.year, c.month, c.day, c.hour, c.minute, c.second),
            std::make_tuple(2016, 2, 29, 23, 59, 44.5));
  // With the host's table the library's leap count agrees with the host's, 2017 step included.
  std::vector<zarn::support::LeapInfo> const table = zh::leapSecondTable();
  ASSERT_EQ(table.size(), 1u);
  for (std::int64_t day = zh::daysFromCivil(1980, 1, 6); day < zh::daysFromCivil(2026, 1, 1); day += 7) {
    for (double second : {0.0, 86399.0}) {
      zh::CalendarTime utc;
      zh::civilFromDays(day, utc.year, utc.month, utc.day);
      utc.hour = static_cast<int>(second / 3600);
      utc.minute = static_cast<int>(second / 60) % 60;
      utc.second = std::fmod(second, 60.0);
      ASSERT_EQ(zarn::support::leapSeconds(zh::gpsSecondsFromCalendar(utc), false, table),
                zh::gpsMinusUtc(utc))
          << utc.year << "-" << utc.month << "-" << utc.day << " " << second;
    }
  }
}

// ---- reading the sample files -------------------------------------------------

TEST(RinexNav, EveryFileMatchesItsSourceCounts) {
  ZARN_SHARED_FILE_OR_SKIP(sources, "data/SOURCES.md");
  int checked = 0;
  for (NavSource const& source : navSources()) {
    if (!zarn::test::fileExists(source.path)) {
      std::printf("[  SKIP    ] absent: %s\n", source.path.c_str());
      continue;
    }
    if (isGzip(source.path) && !zh::gzipSupported()) {
      std::printf("[  SKIP    ] built without zlib: %s\n", source.path.c_str());
      continue;
    }
    SCOPED_TRACE(source.path);
    zh::NavData const d = zh::readRinexNav(source.path);
    std::map<char, std::pair<int, int>> found;
    for (auto const& r : d.stats.records) found[r.first] = {r.second, d.stats.satellites.at(r.first)};
    EXPECT_EQ(found, source.counts);
    EXPECT_EQ(d.stats.skippedMalformed, 0) << (d.stats.warnings.empty() ? "" : d.stats.warnings[0]);
    // Every GPS, GLONASS and BeiDou record is converted unless its message type is not LNAV, D1/D2 or FDMA.
    std::map<char, int> converted{{'G', static_cast<int>(d.gps.size())},
                                  {'R', static_cast<int>(d.glonass.size())},
                                  {'C', static_cast<int>(d.beidou.size())}};
    for (auto const& kind : d.stats.skippedByKind) {
      if (kind.first.size() > 2) converted[kind.first[0]] += kind.second;
    }
    for (char system : {'G', 'R', 'C'}) {
      EXPECT_EQ(converted[system], source.counts.count(system) ? source.counts.at(system).first : 0)
          << system;
    }
    ++checked;
  }
  EXPECT_GT(checked, 0);
  std::printf("checked %d navigation files\n", checked);
}

TEST(RinexNav, HandCheckedGpsRecord) {
  ZARN_SHARED_FILE_OR_SKIP(path, "data/2016-251_252_smartloc/brdc2510.16n");
  zh::NavData const d = zh::readRinexNav(path);
  ASSERT_FALSE(d.gps.empty());
  zh::GpsNavRecord const& r = d.gps.front();
  EXPECT_EQ(r.line, 9);
  EXPECT_EQ(d.header.leapSeconds, 17);
  EXPECT_EQ(r.raw.sqrtA, 0.515370059395e4);
  EXPECT_EQ(r.raw.crs, -6.53125);
  // 2016-09-07 00:00 GPST is week 1913 = 1024 + 889, second 259200.
  zc::GpsEphemeris expected;
  expected.svId = 1;
  expected.toe = expected.toc = zc::Toc{1, 889, 259200};
  expected.iodc = 71;
  expected.iode = 71;
  expected.uraIndex = 0;  // 2.0 m
  expected.sqrtA = 2702023377u;
  expected.e = 50330158u;
  expected.i0 = 659722593;
  expected.omega0 = 1534438970;
  expected.omega = 371831259;
  expected.m0 = -439496445;
  expected.deltaN = 13254;
  expected.omegaDot = -23108;
  expected.iDot = 636;
  expected.cuc = -100;
  expected.cus = 2975;
  expected.crc = 8791;
  expected.crs = -209;
  expected.cic = 42;
  expected.cis = 17;
  expected.af0 = 70969;
  expected.af1 = 12;
  expected.tgd = 11;
  EXPECT_EQ(gpsTie(r.eph), gpsTie(expected));
}

TEST(RinexNav, HandCheckedBeidouAndGlonassRecords) {
  ZARN_SHARED_FILE_OR_SKIP(mixed, "data/2016-158_smartloc/BRDC00WRD_U_20161580000_01D_MN.rnx");
  ZARN_SHARED_FILE_OR_SKIP(glonass, "data/2016-251_252_smartloc/brdc2510.16g");
  zh::NavData const m = zh::readRinexNav(mixed);
  auto c01 = std::find_if(m.beidou.begin(), m.beidou.end(),
                          [](zh::BeidouNavRecord const& r) { return r.eph.svId == 1; });
  ASSERT_NE(c01, m.beidou.end());
  EXPECT_EQ(c01->line, 3461);
  zc::BeidouEphemeris const& b = c01->eph;
  // 2016-06-06 16:00 BDT: BDT week 544, Monday 16:00 = 144000 s.
  EXPECT_EQ(tocTie(b.toc), tocTie(zc::Toc{0, 544, 144000}));
  EXPECT_EQ(tocTie(b.toe), tocTie(zc::Toc{0, 544, 144000}));
  EXPECT_EQ(std::make_tuple(b.sqrtA, b.i0, b.omega0, b.crs, b.cuc, b.a0, b.a1, b.a2, b.tgd1, b.tgd2),
            std::make_tuple(3404479481u, 74517078, 849741167, 45534, 50562, -1893429, 45648, 0, 142, -104));
  EXPECT_EQ(std::make_tuple(b.aode, b.aodc, b.iodc, b.health, b.uraIndex), std::make_tuple(1, 0, 0, 0, 0));
  EXPECT_EQ(c01->raw.toc, zh::gpsSecondsFromCalendar({2016, 6, 6, 16, 0, 14.0}));

  zh::NavData const g = zh::readRinexNav(glonass);
  ASSERT_FALSE(g.glonass.empty());
  zh::GlonassNavRecord const& r = g.glonass.front();
  // 2016-09-07 00:00 UTC is 03:00 in Moscow: day 250 of the period 2016-2019, tb 12.
  EXPECT_EQ(tocTie(r.eph.time), tocTie(zc::Toc{5, 250, 10800}));
  EXPECT_EQ(std::make_tuple(r.eph.svId, r.eph.tb, r.eph.frequencyNumber, r.eph.health, r.eph.age),
            std::make_tuple(14, 12, -7, 0, 0));
  EXPECT_EQ(std::make_tuple(r.eph.x, r.eph.y, r.eph.z, r.eph.vx, r.eph.vz, r.eph.tauN, r.eph.gammaN),
            std::make_tuple(43276811, -29191668, 3680275, -353739, 3757030, -398136, 6));
  EXPECT_EQ(r.raw.toc, zh::gpsSecondsFromCalendar({2016, 9, 7, 0, 0, 17.0}));
}

TEST(RinexNav, Version4KeepsMessageTypesAndCountsOtherRecords) {
  ZARN_SHARED_FILE_OR_SKIP(path, "data/2023-071_073/BRD400DLR_S_20230710000_01D_MN.rnx.gz");
  if (!zh::gzipSupported()) GTEST_SKIP() << "built without zlib";
  zh::NavData const d = zh::readRinexNav(path);
  // Counted with grep on the "> STO|EOP|ION" and "> EPH" heads of the file.
  EXPECT_EQ(d.stats.skippedByKind.at("STO"), 126);
  EXPECT_EQ(d.stats.skippedByKind.at("EOP"), 32);
  EXPECT_EQ(d.stats.skippedByKind.at("ION"), 130);
  EXPECT_EQ(d.stats.skippedByKind.at("G CNAV"), 334);
  EXPECT_EQ(d.stats.skippedByKind.at("C CNV1"), 634);
  EXPECT_EQ(d.stats.skippedByKind.at("C CNV2"), 926);
  EXPECT_EQ(
      std::count_if(d.beidou.begin(), d.beidou.end(), [](auto const& r) { return r.messageType == "D2"; }),
      168);
  // R01 00:15: the fifth line's L1/L2 delay 8.381903171539e-09 s is 9 * 2^-30 s.
  ASSERT_FALSE(d.glonass.empty());
  EXPECT_EQ(d.glonass.front().eph.deltaTauN, 9);
  EXPECT_EQ(d.glonass.front().raw.urai, 2.0);
}

// ---- writing --------------------------------------------------------------------

TEST(RinexNavWriter, RealRecordsSurviveTheRoundTrip) {
  ZARN_SHARED_FILE_OR_SKIP(gpsPath, "data/2016-251_252_smartloc/brdc2510.16n");
  ZARN_SHARED_FILE_OR_SKIP(mixedPath, "data/2016-158_smartloc/BRDC00WRD_U_20161580000_01D_MN.rnx");
  std::vector<zc::GpsEphemeris> gps;
  std::vector<zc::BeidouEphemeris> beidou;
  for (auto const& r : zh::readRinexNav(gpsPath).gps) gps.push_back(r.eph);
  zh::NavData const mixed = zh::readRinexNav(mixedPath);
  for (auto const& r : mixed.gps) gps.push_back(r.eph);
  for (auto const& r : mixed.beidou) beidou.push_back(r.eph);

  zh::NavWriteOptions options;
  options.date = "20240101 000000 UTC";
  options.hasFitEnd = true;
  options.fitEnd = zh::gpsSecondsFromCalendar({2016, 9, 7, 23, 59, 44.0});
  options.leapSeconds = 17;
  std::string const path = testing::TempDir() + "/round_trip.rnx";
  zh::writeRinexNav(path, options, gps, beidou);
  zh::NavData const back = zh::readRinexNav(path);

  EXPECT_EQ(back.header.version, 3.04);
  EXPECT_EQ(back.header.system, 'M');
  EXPECT_TRUE(back.header.hasFitEnd);
  EXPECT_EQ(back.header.fitEnd, options.fitEnd);
  EXPECT_EQ(back.header.leapSeconds, 17);
  EXPECT_EQ(back.stats.skippedMalformed, 0);
  ASSERT_EQ(back.gps.size(), gps.size());
  ASSERT_EQ(back.beidou.size(), beidou.size());
  for (std::size_t i = 0; i < gps.size(); ++i) ASSERT_EQ(gpsTie(back.gps[i].eph), gpsTie(gps[i])) << i;
  for (std::size_t i = 0; i < beidou.size(); ++i)
    ASSERT_EQ(beidouTie(back.beidou[i].eph), beidouTie(beidou[i])) << i;
  std::remove(path.c_str());
}

TEST(RinexNavWriter, ExtremeFieldValuesSurviveTheRoundTrip) {
  // Every field at the end of its range: 13 significant digits must carry 32-bit words.
  zc::GpsEphemeris g;
  g.svId = 32;
  g.iodc = 1023;
  g.toe = zc::Toc{2, 1023, 604784};
  g.toc = zc::Toc{2, 1023, 604784};
  g.uraIndex = 15;
  g.health = 63;
  g.iode = 255;
  g.sqrtA = std::numeric_limits<std::uint32_t>::max();
  g.e = std::numeric_limits<std::uint32_t>::max() - 1;
  g.i0 = std::numeric_limits<std::int32_t>::min();
  g.omega0 = std::numeric_limits<std::int32_t>::max();
  g.omega = -1;
  g.m0 = std::numeric_limits<std::int32_t>::max() - 1;
  g.deltaN = std::numeric_limits<std::int16_t>::min();
  g.omegaDot = -8388608;
  g.iDot = 8191;
  g.cuc = g.cis = std::numeric_limits<std::int16_t>::max();
  g.cus = g.cic = std::numeric_limits<std::int16_t>::min();
  g.crc = -32767;
  g.crs = 32767;
  g.af0 = -2097152;
  g.af1 = -32768;
  g.af2 = -128;
  g.tgd = 127;
  zc::BeidouEphemeris b;
  b.svId = 63;
  b.toe = b.toc = zc::Toc{0, 8191, 604792};
  b.aodc = b.iodc = 31;
  b.aode = 31;
  b.uraIndex = 14;
  b.health = 1;
  b.sqrtA = 1;
  b.e = std::numeric_limits<std::uint32_t>::max();
  b.i0 = b.omega0 = b.omega = b.m0 = std::numeric_limits<std::int32_t>::min();
  b.cuc = b.cus = b.cic = b.cis = -131072;
  b.crc = b.crs = 131071;
  b.a0 = -8388608;
  b.a1 = 2097151;
  b.a2 = -1024;
  b.tgd1 = -512;
  b.tgd2 = 511;
  zh::NavData const back =
      zh::parseRinexNav(zh::formatRinexNav(zh::NavWriteOptions{}, {g}, {b}), "extreme.rnx");
  ASSERT_EQ(back.gps.size(), 1u);
  ASSERT_EQ(back.beidou.size(), 1u);
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

// Expects a FormatError whose message starts with "<name>:<line>: " and mentions `reason`.
void expectFormatError(std::string const& text, int line, std::string const& reason) {
  try {
    zh::parseRinexNav(text, "bad.rnx");
    ADD_FAILURE() << "no error for: " << reason;
  } catch (zh::FormatError const& e) {
    EXPECT_EQ(e.line(), line) << e.what();
    std::string const prefix = line > 0 ? "bad.rnx:" + std::to_string(line) + ": " : "bad.rnx: ";
    EXPECT_EQ(std::string(e.what()).rfind(prefix, 0), 0u) << e.what();
    EXPECT_NE(std::string(e.what()).find(reason), std::string::npos) << e.what();
  }
}

}  // namespace

TEST(RinexNavBadInput, BrokenFilesGiveAClearError) {
  expectFormatError("", 0, "empty file");
  expectFormatError("\n  \n", 0, "empty file");
  expectFormatError("hello\n", 1, "not a RINEX file");
  expectFormatError("     3.04           O                   M                   RINEX VERSION / TYPE\n", 1,
                    "not a navigation file");
  expectFormatError("     1.00           N                                       RINEX VERSION / TYPE\n", 1,
                    "unsupported RINEX version");
  expectFormatError(
      "     2.10           N: GPS NAV DATA                         RINEX VERSION / TYPE\n"
      "                                                            COMMENT\n",
      2, "no END OF HEADER");
  EXPECT_THROW(zh::readRinexNav("/nonexistent/brdc0010.22n"), zh::FormatError);
}

TEST(RinexNavBadInput, DamagedGzipIsAClearError) {
  ZARN_SHARED_FILE_OR_SKIP(path, "data/nav_only_multiday/NYA100NOR_S_20241240000_01D_CN.rnx.gz");
  std::string const bytes = readAll(path);
  std::string const cut = testing::TempDir() + "/cut.rnx.gz";
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
  std::string unknownSystem = gps;
  unknownSystem[0] = 'X';
  std::string huge = gps;  // sqrtA beyond 32 bits
  huge.replace(huge.find("5.153704671860E+03"), 18, "5.153704671860E+09");
  zh::NavData const d =
      zh::parseRinexNav(kV3Header + gps + garbled + unknownSystem + huge + gps.substr(0, 200), "bad.rnx");
  EXPECT_EQ(d.gps.size(), 1u);
  EXPECT_EQ(d.stats.skippedMalformed, 4);
  ASSERT_EQ(d.stats.warnings.size(), 4u);
  EXPECT_EQ(d.stats.warnings[0].rfind("bad.rnx:12: bad number '2.5x4413009133E+00'", 0), 0u)
      << d.stats.warnings[0];
  EXPECT_EQ(d.stats.warnings[1].rfind("bad.rnx:19: unknown satellite system 'X'", 0), 0u)
      << d.stats.warnings[1];
  EXPECT_EQ(d.stats.warnings[2].rfind("bad.rnx:27: sqrtA out of range", 0), 0u) << d.stats.warnings[2];
  EXPECT_EQ(d.stats.warnings[3].rfind("bad.rnx:37: record ends after 3 of 8 lines", 0), 0u)
      << d.stats.warnings[3];
}

namespace {

// What a record must keep when text after it is cut away: its broadcast words
// and the last required value of its last line (the GPS transmission time, the
// BeiDou AODC, the GLONASS age); the GLONASS delay of the optional fifth line is left out.
auto gpsKept(zh::GpsNavRecord const& r) {
  return std::make_tuple(gpsTie(r.eph), r.raw.transmissionTime);
}
auto beidouKept(zh::BeidouNavRecord const& r) {
  return std::make_tuple(beidouTie(r.eph), r.raw.transmissionTime);
}
auto glonassKept(zh::GlonassNavRecord const& r) {
  zc::GlonassEphemeris e = r.eph;
  e.deltaTauN = 0;
  return glonassTie(e);
}

struct Original {
  std::map<int, decltype(gpsKept(zh::GpsNavRecord{}))> gps;
  std::map<int, decltype(glonassKept(zh::GlonassNavRecord{}))> glonass;
  std::map<int, decltype(beidouKept(zh::BeidouNavRecord{}))> beidou;
};

Original byLine(zh::NavData const& d) {
  Original o;
  for (auto const& r : d.gps) o.gps[r.line] = gpsKept(r);
  for (auto const& r : d.glonass) o.glonass[r.line] = glonassKept(r);
  for (auto const& r : d.beidou) o.beidou[r.line] = beidouKept(r);
  return o;
}

// Every record read from damaged text is either the original record of that
// line or one whose lines were touched; records far from the damage are all there.
// With `onlyCut` the damage only removed text: every record read at all must
// then be the original one.
void expectUndamagedRecordsIntact(Original const& original, zh::NavData const& d,
                                  std::set<int> const& damaged, int reach, bool onlyCut = false) {
  auto near = [&](int line) {
    auto it = damaged.lower_bound(line - reach);
    return it != damaged.end() && *it <= line + reach;
  };
  Original const got = byLine(d);
  auto check = [&](auto const& originals, auto const& found, bool strict) {
    for (auto const& entry : found) {
      auto it = originals.find(entry.first);
      if (strict || !near(entry.first)) {
        ASSERT_NE(it, originals.end()) << "record at line " << entry.first;
        EXPECT_EQ(entry.second, it->second) << "record at line " << entry.first;
      }
    }
    for (auto const& entry : originals) {
      if (!near(entry.first)) {
        EXPECT_EQ(found.count(entry.first), 1u) << "lost record at line " << entry.first;
      }
    }
  };
  check(original.gps, got.gps, onlyCut);
  check(original.glonass, got.glonass, onlyCut);
  check(original.beidou, got.beidou, onlyCut);
  EXPECT_EQ(d.stats.converted, static_cast<int>(d.gps.size() + d.glonass.size() + d.beidou.size()));
  EXPECT_EQ(d.stats.warnings.size(), std::min<std::size_t>(d.stats.warningCount, zh::kMaxWarnings));
}

int lineOf0(std::string const& text, std::size_t pos) {
  return static_cast<int>(std::count(text.begin(), text.begin() + pos, '\n')) + 1;
}

std::string firstLines(std::string const& text, int count) {
  std::size_t pos = 0;
  for (int i = 0; i < count && pos != std::string::npos; ++i) pos = text.find('\n', pos + 1);
  return pos == std::string::npos ? text : text.substr(0, pos + 1);
}

}  // namespace

TEST(RinexNavBadInput, TruncatedAndMutatedFilesGiveErrorsOrPartialResults) {
  ZARN_SHARED_FILE_OR_SKIP(v2, "data/2016-251_252_smartloc/brdc2510.16n");
  ZARN_SHARED_FILE_OR_SKIP(v2g, "data/2016-251_252_smartloc/brdc2510.16g");
  ZARN_SHARED_FILE_OR_SKIP(v3, "data/2016-158_smartloc/BRDC00WRD_U_20161580000_01D_MN.rnx");
  ZARN_SHARED_FILE_OR_SKIP(v4, "data/2023-071_073/BRD400DLR_S_20230710000_01D_MN.rnx.gz");
  std::vector<std::string> texts = {firstLines(readAll(v2), 600), firstLines(readAll(v2g), 600),
                                    firstLines(readAll(v3), 600)};
  // RINEX 4 lines 3000 onwards hold BeiDou, GLONASS and GPS records.
  if (zh::gzipSupported()) {
    std::string const all = zh::readTextFile(v4);
    std::size_t const body = all.find('\n', all.find("END OF HEADER")) + 1;
    std::size_t from = body;
    for (int i = 0; i < 3000; ++i) from = all.find('\n', from) + 1;
    from = all.find("\n>", from) + 1;
    texts.push_back(all.substr(0, body) + firstLines(all.substr(from), 900));
  }
  std::mt19937 random(20240501u);
  for (std::string const& text : texts) {
    zh::NavData const clean = zh::parseRinexNav(text, "fuzz.rnx");
    ASSERT_GT(clean.stats.converted, 20);
    ASSERT_LE(clean.stats.skippedMalformed, 1);  // the slice may cut its last record
    Original const original = byLine(clean);
    int const lineCount = static_cast<int>(std::count(text.begin(), text.end(), '\n'));
    int const headerLines = lineOf0(text, text.find("END OF HEADER"));
    auto lineOf = [&](std::size_t pos) {
      return static_cast<int>(std::count(text.begin(), text.begin() + pos, '\n')) + 1;
    };

    // Truncation anywhere: an error in the header, otherwise every record before the cut.
    for (int k = 0; k < 150; ++k) {
      std::size_t const cut = std::uniform_int_distribution<std::size_t>(0, text.size())(random);
      try {
        zh::NavData const d = zh::parseRinexNav(text.substr(0, cut), "fuzz.rnx");
        std::set<int> damaged;
        for (int l = lineOf(cut); l <= lineCount + 1; ++l) damaged.insert(l);
        expectUndamagedRecordsIntact(original, d, damaged, 10, true);
      } catch (zh::FormatError const& e) {
        EXPECT_EQ(std::string(e.what()).rfind("fuzz.rnx", 0), 0u);
        EXPECT_LT(cut, text.find("END OF HEADER") + 13) << e.what();
      }
    }
    // Byte mutations that keep the line structure: only nearby records may change.
    char const alphabet[] = " 0123456789-+.DEeGRCX>\t\x01\xff";
    for (int k = 0; k < 150; ++k) {
      std::string mutated = text;
      std::set<int> damaged;
      for (int n = 0; n < 3; ++n) {
        std::size_t const pos = std::uniform_int_distribution<std::size_t>(0, text.size() - 1)(random);
        if (mutated[pos] == '\n') continue;
        mutated[pos] = alphabet[std::uniform_int_distribution<std::size_t>(0, sizeof(alphabet) - 2)(random)];
        damaged.insert(lineOf(pos));
      }
      try {
        zh::NavData const d = zh::parseRinexNav(mutated, "fuzz.rnx");
        // A damaged header may change how the whole body reads.
        if (!damaged.empty() && *damaged.begin() > headerLines) {
          expectUndamagedRecordsIntact(original, d, damaged, 10);
        }
      } catch (zh::FormatError const& e) {
        EXPECT_EQ(std::string(e.what()).rfind("fuzz.rnx", 0), 0u);
        EXPECT_GT(e.line(), 0) << e.what();
      }
    }
    // Lines dropped or doubled: no line numbers to compare, but a clean outcome.
    for (int k = 0; k < 60; ++k) {
      std::string mutated = text;
      std::size_t const pos =
          mutated.find('\n', std::uniform_int_distribution<std::size_t>(0, text.size() - 1)(random));
      if (pos == std::string::npos) continue;
      std::size_t const next = mutated.find('\n', pos + 1);
      std::string const line =
          mutated.substr(pos + 1, next == std::string::npos ? std::string::npos : next - pos);
      if (k % 2) {
        mutated.insert(pos + 1, line);
      } else {
        mutated.erase(pos + 1, line.size());
      }
      try {
        zh::NavData const d = zh::parseRinexNav(mutated, "fuzz.rnx");
        EXPECT_LE(d.stats.converted, clean.stats.converted + 1);
        EXPECT_EQ(d.stats.converted, static_cast<int>(d.gps.size() + d.glonass.size() + d.beidou.size()));
      } catch (zh::FormatError const& e) {
        EXPECT_EQ(std::string(e.what()).rfind("fuzz.rnx", 0), 0u);
      }
    }
  }
}
