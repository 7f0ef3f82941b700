// The zarn command-line tool run as a user runs it, on small real data: a few
// satellites for one day, and navigation files damaged the ways real ones are.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_support.hpp"
#include "zarn/host/ephemeris.hpp"
#include "zarn/host/rinex_nav.hpp"
#include "zarn/support/validation.hpp"

namespace zh = zarn::host;

namespace {

class ToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/zarn_tool_test_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    if (access(zarn::test::toolPath().c_str(), X_OK) != 0)
      GTEST_SKIP() << "tool not built: " << zarn::test::toolPath();
  }
  void TearDown() override {
    if (!dir_.empty()) std::system(("rm -rf '" + dir_ + "'").c_str());
  }

  struct Result {
    int status = -1;
    std::string out, err;
  };
  Result run(std::string const& arguments) {
    Result r;
    std::string const cmd = zarn::test::toolPath() + " " + arguments + " >'" + dir_ + "/stdout' 2>'" + dir_ +
                            "/stderr' </dev/null";
    int const raw = std::system(cmd.c_str());
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    r.out = zarn::test::readFile(dir_ + "/stdout");
    r.err = zarn::test::readFile(dir_ + "/stderr");
    return r;
  }
  std::string file(std::string const& name) const { return dir_ + "/" + name; }

  std::string dir_;
};

// RINEX 2 navigation text: the header, then eight-line records.
struct Rinex2Nav {
  std::string header;
  std::vector<std::vector<std::string>> records;
};

Rinex2Nav splitRinex2(std::string const& text) {
  Rinex2Nav nav;
  std::istringstream in(text);
  std::string line;
  bool body = false;
  while (std::getline(in, line)) {
    if (!body) {
      nav.header += line + "\n";
      body = line.find("END OF HEADER") != std::string::npos;
      continue;
    }
    if (line.size() > 3 && line.compare(0, 3, "   ") != 0) nav.records.push_back({});
    if (!nav.records.empty()) nav.records.back().push_back(line);
  }
  return nav;
}

int prnOf(std::vector<std::string> const& record) {
  return std::atoi(record.front().substr(0, 2).c_str());
}

}  // namespace

TEST_F(ToolTest, HelpOnEveryCommandAndUsageErrors) {
  Result r = run("--help");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("predict"), std::string::npos);
  EXPECT_NE(r.out.find("evaluate"), std::string::npos);
  r = run("predict --help");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("--fit-end TIME"), std::string::npos);
  r = run("evaluate --help");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("--truth FILE..."), std::string::npos);

  EXPECT_EQ(run("").status, 2);
  EXPECT_EQ(run("forecast").status, 2);
  r = run("predict --nav x.rnx --sp3 y.sp3 --out z");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("either --nav FILE... or --sp3 FILE..."), std::string::npos) << r.err;
  EXPECT_EQ(run("predict --nav x.rnx --out z --days 15").status, 2);
  EXPECT_EQ(run("predict --nav x.rnx --out z --fit-end yesterday").status, 2);
  EXPECT_EQ(run("evaluate --predicted p.rnx").status, 2);
}

TEST_F(ToolTest, UnreadableFilesAreClearErrors) {
  Result r = run("predict --nav '" + file("missing.16n") + "' --out '" + file("p.rnx") + "'");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("missing.16n"), std::string::npos) << r.err;
  EXPECT_EQ(access(file("p.rnx").c_str(), F_OK), -1) << "nothing written";

  std::ofstream(file("garbage.16n")) << "this is not a navigation file\n";
  r = run("evaluate --predicted '" + file("garbage.16n") + "' --truth '" + file("garbage.16n") + "'");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("garbage.16n"), std::string::npos) << r.err;
}

TEST_F(ToolTest, CorruptRecordIsLeftOutWithAMessage) {
  ZARN_SHARED_FILE_OR_SKIP(nav, "data/2016-158_smartloc/brdc1580.16n");
  Result const r =
      run("predict --nav '" + nav + "' --satellites G14 --fit-end 2016-06-07T00:00:00 --days 0.25 --out '" +
          file("g14.rnx") + "'");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("G14: record at brdc1580.16n:793 (toe 2016-06-06 04:30:08, sqrtA 6493.0) left out"),
            std::string::npos)
      << r.err;
  zh::NavData const predicted = zh::readRinexNav(file("g14.rnx"));
  EXPECT_EQ(predicted.gps.size(), 4u);  // 00:00 .. 06:00
  for (auto const& rec : predicted.gps) EXPECT_LT(std::fabs(rec.raw.sqrtA - 5153.7), 5.0);
}

// Satellites with too few records, an unhealthy last record or copied records
// are skipped or cleaned with one line each; the others are predicted.
TEST_F(ToolTest, DamagedNavigationFileSkipsSatellitesWithAReason) {
  ZARN_SHARED_FILE_OR_SKIP(nav, "data/2016-251_252_smartloc/brdc2510.16n");
  Rinex2Nav const in = splitRinex2(zarn::test::readFile(nav));
  ASSERT_GT(in.records.size(), 300u);
  std::string out = in.header;
  int g02 = 0;
  std::vector<std::string> lastG03;
  for (std::vector<std::string> const& rec : in.records) {
    int const prn = prnOf(rec);
    if (prn == 2 && ++g02 > 2) continue;  // G02: two records only
    if (prn != 1 && prn != 2 && prn != 3 && prn != 5) continue;
    for (std::string const& line : rec) out += line + "\n";
    if (prn == 5) {
      for (std::string const& line : rec) out += line + "\n";  // G05: every record twice
    }
    if (prn == 3) lastG03 = rec;
  }
  // G03: a last record that says the satellite is unhealthy (health in line 7, second field).
  ASSERT_EQ(lastG03.size(), 8u);
  lastG03[6].replace(22, 19, " 0.630000000000D+02");
  for (std::string const& line : lastG03) out += line + "\n";
  std::ofstream(file("damaged.16n")) << out;

  Result const r = run("predict --nav '" + file("damaged.16n") +
                       "' --fit-end 2016-09-08T00:00:00 --days 0.25 --out '" + file("p.rnx") + "'");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("G02: skipped: only 2 usable ephemerides up to the fit end (need 3)"),
            std::string::npos)
      << r.err;
  EXPECT_NE(r.err.find("G03: skipped: unhealthy at the fit end (health 63"), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("G05"), std::string::npos) << "exact copies need no remark: " << r.err;
  zh::NavData const predicted = zh::readRinexNav(file("p.rnx"));
  std::vector<int> sats;
  for (auto const& rec : predicted.gps) {
    if (sats.empty() || sats.back() != rec.eph.svId) sats.push_back(rec.eph.svId);
  }
  EXPECT_EQ(sats, (std::vector<int>{1, 5}));
}

// Predict a few satellites one day ahead and evaluate them against the next
// day's precise orbits and broadcast ephemerides.
TEST_F(ToolTest, PredictThenEvaluate) {
  ZARN_SHARED_FILE_OR_SKIP(nav, "data/2016-251_252_smartloc/brdc2510.16n");
  ZARN_SHARED_FILE_OR_SKIP(sp3, "data/2016-251_252_smartloc/gbm19134.sp3");
  ZARN_SHARED_FILE_OR_SKIP(nextNav, "data/2016-251_252_smartloc/brdc2520.16n");
  Result r = run("predict --nav '" + nav + "' --satellites G01,G10,G21,G30 --days 1 --check --out '" +
                 file("p.rnx") + "'");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("fit end 2016-09-08 00:00:00 GPST"), std::string::npos) << r.out;

  zh::NavData const predicted = zh::readRinexNav(file("p.rnx"));
  EXPECT_TRUE(predicted.header.hasFitEnd);
  EXPECT_EQ(zh::formatGpsTime(predicted.header.fitEnd), "2016-09-08 00:00:00");
  EXPECT_EQ(predicted.gps.size(), 4u * 13u);
  for (auto const& rec : predicted.gps) {
    zh::Ephemeris const e = zh::fromGps(rec.eph);
    EXPECT_EQ(std::fmod(e.toe, 7200.0), 0.0);
    EXPECT_EQ(rec.raw.health, 0.0);
  }

  r = run("evaluate --predicted '" + file("p.rnx") + "' --truth '" + sp3 + "' '" + nextNav + "' --csv '" +
          file("errors.csv") + "' --json '" + file("summary.json") + "'");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("truth: SP3"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("truth: broadcast"), std::string::npos) << r.out;
  std::string const json = zarn::test::readFile(file("summary.json"));
  EXPECT_NE(json.find("\"truth\": \"SP3\", \"system\": \"GPS\", \"day\": 1, \"satellites\": 4"),
            std::string::npos)
      << json;
  std::string const csv = zarn::test::readFile(file("errors.csv"));
  EXPECT_EQ(csv.rfind("truth,satellite,group,toe,time,age_h,error_3d_m", 0), 0u);
  EXPECT_GT(std::count(csv.begin(), csv.end(), '\n'), 4 * 13 * 40);

  // The same prediction against a day it does not reach.
  ZARN_SHARED_FILE_OR_SKIP(otherDay, "data/2016-158_smartloc/gbm19001.sp3");
  r = run("evaluate --predicted '" + file("p.rnx") + "' --truth '" + otherDay + "'");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(
      r.err.find("and the SP3 truth (2016-06-06 00:00:00 .. 2016-06-06 23:55:00) do not overlap in time"),
      std::string::npos)
      << r.err;
}

TEST_F(ToolTest, GlonassIsPredictedWrittenAndEvaluatedByDefault) {
  ZARN_SHARED_FILE_OR_SKIP(gps, "data/2016-251_252_smartloc/brdc2510.16n");
  ZARN_SHARED_FILE_OR_SKIP(glonass, "data/2016-251_252_smartloc/brdc2510.16g");
  ZARN_SHARED_FILE_OR_SKIP(sp3, "data/2016-251_252_smartloc/gbm19134.sp3");
  Result r = run("predict --nav '" + gps + "' '" + glonass + "' --satellites G01,R01,R11 --days 1 --out '" +
                 file("p.rnx") + "'");
  ASSERT_EQ(r.status, 0) << r.err;
  for (char const* line : {"\nR01  fit 2016-09-07 00:15:17 .. 2016-09-07 23:45:17", "\nR11  fit ",
                           "wrote 13 GPS, 96 GLONASS and 0 BeiDou ephemerides of 3 satellites"}) {
    EXPECT_NE(r.out.find(line), std::string::npos) << line << "\n" << r.out;
  }
  zh::NavData const predicted = zh::readRinexNav(file("p.rnx"));
  ASSERT_EQ(predicted.glonass.size(), 96u);
  EXPECT_EQ(predicted.header.system, 'M');
  for (auto const& rec : predicted.glonass) {
    EXPECT_TRUE(zh::passesValidation(zh::fromGlonass(rec.eph)));
    EXPECT_EQ(rec.raw.health, 0.0);
    EXPECT_EQ(rec.raw.tocCalendar.minute % 30, 15);
  }

  r = run("evaluate --predicted '" + file("p.rnx") + "' --truth '" + sp3 + "' --json '" + file("s.json") +
          "'");
  ASSERT_EQ(r.status, 0) << r.err;
  std::string const json = zarn::test::readFile(file("s.json"));
  EXPECT_NE(json.find("\"truth\": \"SP3\", \"system\": \"GLO\", \"day\": 1, \"satellites\": 2"),
            std::string::npos)
      << json;

  r = run("predict --nav '" + glonass + "' --systems R,E --out '" + file("q.rnx") + "'");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("--systems takes G, R and/or C, not 'E'"), std::string::npos) << r.err;
}
