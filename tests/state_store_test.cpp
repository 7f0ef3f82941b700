// The state kept between runs: every part survives a save and a load, a
// second run continues exactly where a single longer run would be, files that
// do not load are kept aside untouched while the run goes on from defaults,
// and a failed write never damages the file already in place.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "support/test_support.hpp"
#include "zarn/host/rinex_nav.hpp"
#include "zarn/host/state_store.hpp"
#include "zarn/support/encryption.hpp"

namespace zh = zarn::host;
namespace zs = zarn::support;
namespace zc = zarn::core;

namespace {

constexpr double kDay = 86400.0;        // s
constexpr double kEnd1 = 1157328000.0;  // 2016-09-08 00:00 GPST: week 1913, Thursday; s

// A scratch directory removed with everything in it.
struct TempDir {
  char pattern[28] = "/tmp/zarn_state_test_XXXXXX";
  std::string const dir = mkdtemp(pattern) != nullptr ? pattern : "/nonexistent";
  ~TempDir() { std::system(("rm -rf '" + dir + "'").c_str()); }
  std::string file(std::string const& name) const { return dir + "/" + name; }
};

void writeBytes(std::string const& path, std::string const& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

bool exists(std::string const& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

std::map<zh::SatelliteId, std::vector<zh::Ephemeris>> records(std::string const& file) {
  return zh::collectEphemerides({zh::readRinexNav(file)});
}

// A prediction as predictConstellation reports it: every satellite predicted
// with its pole, one skipped as unhealthy.
zh::ConstellationPrediction prediction(double fitEnd, std::vector<int> const& prns, int unhealthy) {
  zh::ConstellationPrediction p;
  p.fitEnd = fitEnd;
  for (int prn : prns) {
    zh::SatellitePrediction s;
    s.sat = zh::SatelliteId{'G', prn};
    if (prn == unhealthy) {
      s.skipReason = "unhealthy at the fit end (health 63 in the record of toe 2016-09-07 22:00:00)";
    } else {
      s.samples = 97;
      s.pole = zs::Eop{(0.230 + 0.001 * (prn % 5)) * 4.84813681109536e-6, 0.380 * 4.84813681109536e-6};
      s.predicted.resize(12);
    }
    p.satellites.push_back(s);
  }
  return p;
}

// A store's clock filters in their byte form, by satellite.
std::map<std::string, std::string> clocks(zh::StateStore const& store) {
  std::map<std::string, std::string> out;
  for (auto const& entry : store.clockFilters()) {
    zs::BinaryData bytes;
    EXPECT_TRUE(entry.second.serialize(bytes));
    out[zh::toString(entry.first)].assign(bytes.begin(), bytes.end());
  }
  return out;
}

std::string const kDataDir = "data/2016-251_252_smartloc/";

}  // namespace

TEST(StateStore, EveryPartSurvivesASaveAndASecondRunContinuesWhereOneLongRunWouldBe) {
  ZARN_SHARED_FILE_OR_SKIP(day1, kDataDir + "brdc2510.16n");
  ZARN_SHARED_FILE_OR_SKIP(day2, kDataDir + "brdc2520.16n");
  TempDir dir;
  std::string error, stateDir = dir.file("state");
  EXPECT_FALSE(zh::StateStore(stateDir).load(error, true));  // inspecting creates nothing
  EXPECT_FALSE(exists(stateDir));
  auto const first = records(day1), second = records(day2);
  zs::Srp const srp{{1.2345, -0.5}};

  zh::StateStore run1(stateDir);
  ASSERT_TRUE(run1.load(error) && run1.problems().empty()) << error;  // creates the directory
  EXPECT_GT(run1.feedClocks(first, kEnd1), 300u);
  zh::ConstellationPrediction const predicted = prediction(kEnd1, {1, 2, 3, 4, 5, 6, 7}, 4);
  run1.recordPrediction(predicted);
  ASSERT_TRUE(run1.feedPole(predicted) &&
              run1.setSrp(zh::SatelliteId{'G', 5}, zs::UNDEFINED_SAT_TYPE, kEnd1, srp));
  ASSERT_TRUE(run1.save(error) && !exists(stateDir + "/clock-filters.dat.tmp")) << error;

  zh::StateStore run2(stateDir);
  ASSERT_TRUE(run2.load(error) && run2.problems().empty()) << error;
  EXPECT_TRUE(clocks(run1) == clocks(run2) && run1.poleFilter() == run2.poleFilter());
  EXPECT_NEAR(run2.aprioriPole().yp, 0.380 * 4.84813681109536e-6, 1e-12);
  // Radiation pressure is stored in 16 bits over 0..3 and -3..3.
  zs::AssistanceData const stored = run2.assistance(zh::SatelliteId{'G', 5}, zs::UNDEFINED_SAT_TYPE, kEnd1);
  for (int k = 0; k < 2; ++k) EXPECT_NEAR(stored.srp[k], srp[k], (3.0 + 3 * k) / 65535);
  EXPECT_EQ(run2.assistanceFile(zc::GPS).count(), 6u);  // the predicted satellites, not the skipped one
  zc::GnssState g04{};
  run2.analyzer().gnssState(g04, zc::GPS, 4);
  EXPECT_EQ(g04, zc::BAD);  // recorded as skipped before the save

  // Nothing is fed twice; the second day continues the filters exactly as
  // one run over both days does.
  EXPECT_TRUE(run2.feedClocks(first, kEnd1) == 0u && run2.feedClocks(second, kEnd1 + kDay) > 0u);
  std::map<zh::SatelliteId, std::vector<zh::Ephemeris>> both = first;
  for (auto const& entry : second)
    both[entry.first].insert(both[entry.first].end(), entry.second.begin(), entry.second.end());
  zh::StateStore once(dir.file("once"));
  once.feedClocks(both, kEnd1 + kDay);
  EXPECT_EQ(clocks(once), clocks(run2));
}

namespace {

std::string wrongKey(std::string const& good) {
  zs::BinaryData plain, other;
  EXPECT_TRUE(zs::decrypt(zs::BinaryData(good.begin(), good.end()), plain));
  EXPECT_TRUE(zs::tripleDesEncrypt(plain, "another build's key 24b", other));
  return std::string(other.begin(), other.end());
}
std::string flipMiddle(std::string const& s) {
  return s.substr(0, s.size() / 2) + static_cast<char>(s[s.size() / 2] ^ 0x5a) + s.substr(s.size() / 2 + 1);
}
std::string foreign(std::string const&) {
  return "%PDF-1.4\n%\xe2\xe3\xcf\xd3\n1 0 obj << /Type /Catalog /Pages 2 0 R >> endobj\n";
}
std::string otherPart(std::string const&) {
  TempDir other;
  zh::StateStore s(other.dir);
  std::string e;
  s.load(e), s.save(e);
  return zarn::test::readFile(other.file("pole-filter.dat"));
}

}  // namespace

// A state file spoilt in the ways files get spoilt is reported, kept as .bad,
// and the run goes on from that part's defaults. One row per distinct report:
// a damaged or foreign container reads like a wrong key or a truncated one.
TEST(StateStore, SpoiltFilesAreReportedKeptAsBadAndTheRunGoesOnFromDefaults) {
  ZARN_SHARED_FILE_OR_SKIP(day1, kDataDir + "brdc2510.16n");
  std::tuple<std::string, std::string (*)(std::string const&), char const*> const faults[] = {
      {"assistance-gps.dat", wrongKey, "wrong key"},
      {"assistance-gps.dat", [](std::string const& s) { return s.substr(0, s.size() - 3); }, "truncated"},
      {"clock-filters.dat", [](std::string const& s) { return s.substr(0, 12); }, "truncated"},
      {"clock-filters.dat", foreign, "not a zarn state file"},
      {"pole-filter.dat", flipMiddle, "checksum"},
      {"constellation-analyzer.dat", otherPart, "another part"}};
  for (auto const& [name, spoil, reason] : faults) {
    SCOPED_TRACE(name + " " + reason);
    TempDir dir;
    std::string error;
    {
      zh::StateStore good(dir.dir);
      ASSERT_TRUE(good.load(error));
      good.feedClocks(records(day1), kEnd1);
      good.feedPole(prediction(kEnd1, {1, 2, 3}, 0)), good.recordPrediction(prediction(kEnd1, {1, 2, 3}, 0));
      ASSERT_TRUE(good.save(error)) << error;
    }
    std::string const path = dir.file(name), spoilt = spoil(zarn::test::readFile(path));
    writeBytes(path, spoilt);
    // Inspecting reports the fault and changes nothing.
    zh::StateStore inspect(dir.dir);
    EXPECT_TRUE(inspect.load(error, true) && inspect.problems().size() == 1u && exists(path) &&
                !exists(path + ".bad"));

    zh::StateStore store(dir.dir);
    ASSERT_TRUE(store.load(error) && store.problems().size() == 1u) << error;
    std::string const& line = store.problems().front();
    EXPECT_TRUE(line.rfind(name + ": ", 0) == 0 && line.find(reason) != std::string::npos &&
                line.find("kept as " + name + ".bad") != std::string::npos &&
                line.find('\n') == std::string::npos)
        << line;
    EXPECT_TRUE(!exists(path) && zarn::test::readFile(path + ".bad") == spoilt);
    zc::GnssState state{};
    store.analyzer().gnssState(state, zc::GPS, 1);
    EXPECT_EQ(std::make_tuple(store.clockFilters().empty(), !store.poleFilter().initialized(), state == 0,
                              store.assistanceFile(zc::GPS).count() == 0),
              std::make_tuple(name == "clock-filters.dat", name == "pole-filter.dat",
                              name == "constellation-analyzer.dat", name == "assistance-gps.dat"));

    // The run goes on and writes a good file; the same fault again keeps both spoilt copies.
    ASSERT_TRUE(store.save(error)) << error;
    writeBytes(path, spoilt);
    zh::StateStore again(dir.dir);
    ASSERT_TRUE(again.load(error) && again.problems().size() == 1u);
    EXPECT_EQ(zarn::test::readFile(path + ".bad.1"), spoilt);
  }
}

// A write that fails at any point (disk full mid-write, temporary not creatable)
// names the temporary and leaves the file in place whole.
TEST(StateStore, AFailedWriteLeavesTheOldFileWhole) {
  bool (*const ways[])(std::string const&) = {
      [](std::string const& tmp) {
        return access("/dev/full", W_OK) == 0 && !symlink("/dev/full", tmp.c_str());
      },
      [](std::string const& tmp) { return mkdir(tmp.c_str(), 0755) == 0; }};
  for (auto const& arrange : ways) {
    TempDir dir;
    std::string const path = dir.file("pole-filter.dat"), old = "the previous state, whole";
    writeBytes(path, old);
    if (!arrange(path + ".tmp")) continue;  // cannot be arranged here
    std::string error;
    EXPECT_FALSE(zh::writeFileAtomically(path, zs::BinaryData(4096, 0x42), error));
    EXPECT_NE(error.find(path + ".tmp"), std::string::npos) << error;
    EXPECT_EQ(zarn::test::readFile(path), old) << error;
  }
}

// ---- the tool ----

namespace {

// Runs the tool and returns its standard output; its standard error is left in `dir`.
std::string runTool(TempDir const& dir, std::string const& arguments, int status = 0) {
  int const raw = std::system((zarn::test::toolPath() + " " + arguments + " >'" + dir.file("stdout") +
                               "' 2>'" + dir.file("stderr") + "' </dev/null")
                                  .c_str());
  EXPECT_EQ(WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, status) << zarn::test::readFile(dir.file("stderr"));
  return zarn::test::readFile(dir.file("stdout"));
}

}  // namespace

TEST(StateTool, PredictKeepsStateAcrossDaysAndStatusShowsIt) {
  ZARN_SHARED_FILE_OR_SKIP(day1, kDataDir + "brdc2510.16n");
  ZARN_SHARED_FILE_OR_SKIP(day2, kDataDir + "brdc2520.16n");
  if (access(zarn::test::toolPath().c_str(), X_OK) != 0)
    GTEST_SKIP() << "tool not built: " << zarn::test::toolPath();
  TempDir dir;
  std::string const common =
      " --systems G --satellites G05,G12 --days 1 --jobs 1 --state " + dir.file("state");
  runTool(dir, "predict --nav " + day1 + " --out " + dir.file("a.rnx") + common);
  std::string out = runTool(dir, "predict --nav " + day2 + " --out " + dir.file("b.rnx") + common);
  EXPECT_NE(out.find("state: saved to"), std::string::npos) << out;
  out = runTool(dir, "status --json --at 2016-09-09T00:00 --state " + dir.file("state"));
  for (char const* expected : {"\"name\": \"G05\"", "\"name\": \"G12\"", "\"clockFilter\": \"converging\"",
                               "\"stored\": true", "\"suggestedInit\": \"2016-09-16 00:00:00\""})
    EXPECT_NE(out.find(expected), std::string::npos) << expected << "\n" << out;
  runTool(dir, "status --state " + dir.file("missing"), 1);
  EXPECT_NE(zarn::test::readFile(dir.file("stderr")).find("no state directory"), std::string::npos);
}
