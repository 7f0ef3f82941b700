// The zarn command-line tool run as a user runs it, on small real data: a few
// satellites for one day, and navigation files damaged the ways real ones are.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "support/test_support.hpp"
#include "zarn/host/ephemeris.hpp"
#include "zarn/host/rinex_nav.hpp"

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
  void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }

  struct Result {
    int status;
    std::string out, err;
  };
  Result run(std::string const& arguments) {
    int const raw = std::system((zarn::test::toolPath() + " " + arguments + " >'" + dir_ + "/stdout' 2>'" +
                                 dir_ + "/stderr' </dev/null")
                                    .c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, zarn::test::readFile(dir_ + "/stdout"),
            zarn::test::readFile(dir_ + "/stderr")};
  }
  static void expectHas(std::string const& text, std::vector<std::string> const& needles) {
    for (std::string const& n : needles) EXPECT_NE(text.find(n), std::string::npos) << n << "\n" << text;
  }
  std::string file(std::string const& name) const { return dir_ + "/" + name; }

  std::string dir_;
};

}  // namespace

TEST_F(ToolTest, HelpUsageAndUnreadableFiles) {
  std::ofstream(file("garbage.16n")) << "this is not a navigation file\n";
  struct Case {
    std::string args;
    int status;
    char const* out;
    std::string err;
  };
  for (Case const& c : {
           Case{"--help", 0, "evaluate", ""},
           Case{"predict --help", 0, "--fit-end TIME", ""},
           Case{"evaluate --help", 0, "--truth FILE...", ""},
           Case{"predict --nav x.rnx --sp3 y.sp3 --out z", 2, "", "either --nav FILE... or --sp3 FILE..."},
           Case{"predict --nav x.rnx --systems R,E --out z", 2, "", "--systems takes G, R and/or C, not 'E'"},
           Case{"predict --nav '" + file("missing.16n") + "' --out '" + file("p.rnx") + "'", 1, "",
                "missing.16n"},
           Case{"evaluate --predicted '" + file("garbage.16n") + "' --truth '" + file("garbage.16n") + "'", 1,
                "", "garbage.16n"},
       }) {
    Result const r = run(c.args);
    EXPECT_EQ(r.status, c.status) << c.args;
    expectHas(r.out, {c.out});
    expectHas(r.err, {c.err});
  }
  EXPECT_EQ(access(file("p.rnx").c_str(), F_OK), -1) << "nothing written";
  for (char const* args : {"", "forecast", "predict --nav x.rnx --out z --days 15",
                           "predict --nav x.rnx --out z --fit-end yesterday", "evaluate --predicted p.rnx"}) {
    EXPECT_EQ(run(args).status, 2) << args;
  }
}

// A satellite with an unhealthy last record is skipped with one line, copied
// records are cleaned silently; the others are predicted.
TEST_F(ToolTest, DamagedNavigationFileSkipsSatellitesWithAReason) {
  ZARN_SHARED_FILE_OR_SKIP(nav, "data/2016-251_252_smartloc/brdc2510.16n");
  // G03's last record says the satellite is unhealthy; G05's records all come twice.
  std::vector<zarn::core::GpsEphemeris> records;
  std::size_t lastG03 = 0;
  for (zh::GpsNavRecord const& rec : zh::readRinexNav(nav).gps) {
    int const prn = rec.eph.svId;
    if (prn == 3) lastG03 = records.size();
    records.insert(records.end(), prn == 5 ? 2 : (prn == 1 || prn == 3 ? 1 : 0), rec.eph);
  }
  records.at(lastG03).health = 63;
  zh::NavWriteOptions options;
  options.date = "20240101 000000 UTC";
  std::ofstream(file("damaged.16n")) << zh::formatRinexNav(options, records, {});

  Result const r = run("predict --nav '" + file("damaged.16n") +
                       "' --fit-end 2016-09-08T00:00:00 --days 0.25 --out '" + file("p.rnx") + "'");
  EXPECT_EQ(r.status, 0) << r.err;
  expectHas(r.err, {"G03: skipped: unhealthy at the fit end (health 63"});
  EXPECT_EQ(r.err.find("G05"), std::string::npos) << "exact copies need no remark: " << r.err;
  std::vector<int> sats;
  for (auto const& rec : zh::readRinexNav(file("p.rnx")).gps) sats.push_back(rec.eph.svId);
  sats.erase(std::unique(sats.begin(), sats.end()), sats.end());
  EXPECT_EQ(sats, (std::vector<int>{1, 5}));
}

// Predict a few GPS and GLONASS satellites one day ahead and evaluate them
// against the next day's precise orbits and broadcast ephemerides.
TEST_F(ToolTest, PredictThenEvaluate) {
  ZARN_SHARED_FILE_OR_SKIP(nav, "data/2016-251_252_smartloc/brdc2510.16n");
  ZARN_SHARED_FILE_OR_SKIP(glonass, "data/2016-251_252_smartloc/brdc2510.16g");
  ZARN_SHARED_FILE_OR_SKIP(sp3, "data/2016-251_252_smartloc/gbm19134.sp3");
  ZARN_SHARED_FILE_OR_SKIP(nextNav, "data/2016-251_252_smartloc/brdc2520.16n");
  ZARN_SHARED_FILE_OR_SKIP(otherDay, "data/2016-158_smartloc/gbm19001.sp3");
  Result r = run("predict --nav '" + nav + "' '" + glonass +
                 "' --satellites G01,G10,G21,G30,R01,R11 --days 1 --check --out '" + file("p.rnx") + "'");
  ASSERT_EQ(r.status, 0) << r.err;
  expectHas(r.out,
            {"fit end 2016-09-08 00:00:00 GPST", "\nR01  fit 2016-09-07 00:15:17 .. 2016-09-07 23:45:17",
             "\nR11  fit ", "wrote 52 GPS, 96 GLONASS and 0 BeiDou ephemerides of 6 satellites"});

  zh::NavData const predicted = zh::readRinexNav(file("p.rnx"));
  EXPECT_EQ(predicted.header.system, 'M');
  EXPECT_EQ(zh::formatGpsTime(predicted.header.fitEnd), "2016-09-08 00:00:00");
  // The records themselves are checked where the pipeline makes them.
  EXPECT_EQ(std::make_tuple(predicted.gps.size(), predicted.glonass.size()), std::make_tuple(52u, 96u));

  r = run("evaluate --predicted '" + file("p.rnx") + "' --truth '" + sp3 + "' '" + nextNav + "' --csv '" +
          file("errors.csv") + "' --json '" + file("summary.json") + "'");
  ASSERT_EQ(r.status, 0) << r.err;
  expectHas(r.out, {"truth: SP3", "truth: broadcast"});
  std::string const json = zarn::test::readFile(file("summary.json"));
  expectHas(json, {"\"truth\": \"SP3\", \"system\": \"GPS\", \"day\": 1, \"satellites\": 4",
                   "\"truth\": \"SP3\", \"system\": \"GLO\", \"day\": 1, \"satellites\": 2"});
  std::string const csv = zarn::test::readFile(file("errors.csv"));
  EXPECT_EQ(csv.rfind("truth,satellite,group,toe,time,age_h,error_3d_m", 0), 0u);
  EXPECT_GT(std::count(csv.begin(), csv.end(), '\n'), 4 * 13 * 40);

  // The same prediction against a day it does not reach.
  r = run("evaluate --predicted '" + file("p.rnx") + "' --truth '" + otherDay + "'");
  EXPECT_EQ(r.status, 1);
  expectHas(r.err, {"and the SP3 truth (2016-06-06 00:00:00 .. 2016-06-06 23:55:00) do not overlap in time"});
}
