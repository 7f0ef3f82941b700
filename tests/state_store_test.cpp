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
#include <ostream>
#include <string>
#include <vector>

#include "support/test_support.hpp"
#include "zarn/host/rinex_nav.hpp"
#include "zarn/host/state_store.hpp"
#include "zarn/support/encryption.hpp"

namespace zh = zarn::host;
namespace zs = zarn::support;
namespace zc = zarn::core;

namespace {

constexpr double kDay = 86400.0;  // s

class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/zarn_state_test_XXXXXX";
    char* made = mkdtemp(pattern);
    path_ = made != nullptr ? made : "";
  }
  ~TempDir() {
    if (!path_.empty()) std::system(("rm -rf '" + path_ + "'").c_str());
  }
  std::string const& path() const { return path_; }
  std::string file(std::string const& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

void writeBytes(std::string const& path, std::string const& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
}

bool exists(std::string const& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

std::map<zh::SatelliteId, std::vector<zh::Ephemeris>> records(std::vector<std::string> const& files) {
  std::vector<zh::NavData> navs;
  for (std::string const& f : files) navs.push_back(zh::readRinexNav(f));
  return zh::collectEphemerides(navs);
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

std::string serialized(zs::ClockFilter const& f) {
  zs::BinaryData out;
  EXPECT_TRUE(f.serialize(out));
  return std::string(out.begin(), out.end());
}

// The clock filters of two stores are the same filters, byte for byte.
void expectSameClocks(zh::StateStore const& a, zh::StateStore const& b) {
  ASSERT_EQ(a.clockFilters().size(), b.clockFilters().size());
  for (auto const& entry : a.clockFilters()) {
    auto it = b.clockFilters().find(entry.first);
    ASSERT_NE(it, b.clockFilters().end()) << zh::toString(entry.first);
    EXPECT_EQ(serialized(entry.second), serialized(it->second)) << zh::toString(entry.first);
  }
}

std::string const kDataDir = "data/2016-251_252_smartloc/";

}  // namespace

TEST(StateStore, EveryPartSurvivesASaveAndASecondRunContinuesWhereOneLongRunWouldBe) {
  ZARN_SHARED_FILE_OR_SKIP(day1, kDataDir + "brdc2510.16n");
  ZARN_SHARED_FILE_OR_SKIP(day2, kDataDir + "brdc2520.16n");
  TempDir dir;
  std::string const stateDir = dir.file("state");
  double end1 = 0;
  ASSERT_TRUE(zh::parseGpsTime("2016-09-08T00:00:00", end1));
  double const end2 = end1 + kDay;
  auto const first = records({day1});
  auto const second = records({day2});
  zs::Srp const srp{{1.2345, -0.5}};
  zh::SatelliteId const g05{'G', 5};

  zh::StateStore run1(stateDir);
  std::string error;
  ASSERT_TRUE(run1.load(error)) << error;  // creates the directory
  EXPECT_TRUE(run1.problems().empty());
  EXPECT_GT(run1.feedClocks(first, end1), 300u);
  ASSERT_TRUE(run1.feedPole(prediction(end1, {1, 2, 3, 4, 5, 6, 7}, 4)));
  run1.recordPrediction(prediction(end1, {1, 2, 3, 4, 5, 6, 7}, 4));
  ASSERT_TRUE(run1.setSrp(g05, zs::UNDEFINED_SAT_TYPE, end1, srp));
  ASSERT_TRUE(run1.save(error)) << error;
  EXPECT_FALSE(exists(stateDir + "/clock-filters.dat.tmp"));

  zh::StateStore run2(stateDir);
  ASSERT_TRUE(run2.load(error)) << error;
  EXPECT_TRUE(run2.problems().empty()) << run2.problems().front();
  expectSameClocks(run1, run2);
  EXPECT_EQ(run1.poleFilter(), run2.poleFilter());
  EXPECT_NEAR(run2.aprioriPole().yp, 0.380 * 4.84813681109536e-6, 1e-12);
  // Radiation pressure is stored in 16 bits over 0..3 and -3..3.
  zs::AssistanceData const stored = run2.assistance(g05, zs::UNDEFINED_SAT_TYPE, end1);
  EXPECT_NEAR(stored.srp[0], srp[0], 3.0 / 65535);
  EXPECT_NEAR(stored.srp[1], srp[1], 6.0 / 65535);
  EXPECT_EQ(run2.assistanceFile(zc::GPS).count(), 6u);  // the predicted satellites, not the skipped one
  for (unsigned short sv = 1; sv <= 8; ++sv) {
    zc::GnssState s1{}, s2{};
    zc::Toc t1, t2;
    run1.analyzer().gnssState(s1, zc::GPS, sv);
    run2.analyzer().gnssState(s2, zc::GPS, sv);
    run1.analyzer().suggestedInitTime(t1, zc::GPS, sv);
    run2.analyzer().suggestedInitTime(t2, zc::GPS, sv);
    EXPECT_EQ(s1, s2) << sv;
    EXPECT_EQ(t1, t2) << sv;
  }
  zc::GnssState g04{};
  run2.analyzer().gnssState(g04, zc::GPS, 4);
  EXPECT_EQ(g04, zc::BAD);

  // Nothing is fed twice; the second day continues the filters exactly as
  // one run over both days does.
  EXPECT_EQ(run2.feedClocks(first, end1), 0u);
  EXPECT_GT(run2.feedClocks(second, end2), 0u);
  std::map<zh::SatelliteId, std::vector<zh::Ephemeris>> both = first;
  for (auto const& entry : second)
    both[entry.first].insert(both[entry.first].end(), entry.second.begin(), entry.second.end());
  zh::StateStore once(dir.file("once"));
  once.feedClocks(both, end2);
  expectSameClocks(once, run2);
}

// A state file spoilt in the ways files get spoilt.
struct Fault {
  char const* file;
  char const* how;
  std::function<std::string(std::string const&)> spoil;
  char const* reason;  // a word of the one-line report
};

void PrintTo(Fault const& f, std::ostream* os) {
  *os << f.file << ", " << f.how;
}

class StateFaults : public ::testing::TestWithParam<Fault> {};

std::string wrongKey(std::string const& good) {
  zs::BinaryData const in(good.begin(), good.end());
  zs::BinaryData plain, other;
  EXPECT_TRUE(zs::decrypt(in, plain));
  char const key[] = "another build's key 24b";
  EXPECT_TRUE(zs::tripleDesEncrypt(plain, key, other));
  return std::string(other.begin(), other.end());
}
std::string flipMiddle(std::string s) {
  s[s.size() / 2] = static_cast<char>(s[s.size() / 2] ^ 0x5a);
  return s;
}
std::string cut(std::string const& s, std::size_t bytes) {
  return s.substr(0, s.size() - bytes);
}
std::string foreign(std::string const&) {
  return "%PDF-1.4\n%\xe2\xe3\xcf\xd3\n1 0 obj << /Type /Catalog /Pages 2 0 R >> endobj\n";
}

TEST_P(StateFaults, AreReportedKeptAsBadAndTheRunGoesOnFromDefaults) {
  Fault const& fault = GetParam();
  ZARN_SHARED_FILE_OR_SKIP(day1, kDataDir + "brdc2510.16n");
  TempDir dir;
  double end1 = 0;
  ASSERT_TRUE(zh::parseGpsTime("2016-09-08T00:00:00", end1));
  std::string error;
  {
    zh::StateStore good(dir.path());
    ASSERT_TRUE(good.load(error));
    good.feedClocks(records({day1}), end1);
    good.feedPole(prediction(end1, {1, 2, 3}, 0));
    good.recordPrediction(prediction(end1, {1, 2, 3}, 0));
    ASSERT_TRUE(good.save(error)) << error;
  }
  std::string const path = dir.file(fault.file);
  std::string const spoilt = fault.spoil(zarn::test::readFile(path));
  writeBytes(path, spoilt);

  zh::StateStore store(dir.path());
  ASSERT_TRUE(store.load(error)) << error;
  ASSERT_EQ(store.problems().size(), 1u);
  std::string const& line = store.problems().front();
  EXPECT_EQ(line.find(std::string(fault.file) + ": "), 0u) << line;
  EXPECT_NE(line.find(fault.reason), std::string::npos) << line;
  EXPECT_NE(line.find("kept as " + std::string(fault.file) + ".bad"), std::string::npos) << line;
  EXPECT_EQ(line.find('\n'), std::string::npos);
  EXPECT_FALSE(exists(path));
  EXPECT_EQ(zarn::test::readFile(path + ".bad"), spoilt);

  // The spoilt part is at its defaults, the others as saved.
  std::string const name = fault.file;
  zc::GnssState state{};
  store.analyzer().gnssState(state, zc::GPS, 1);
  EXPECT_EQ(store.clockFilters().empty(), name == "clock-filters.dat");
  EXPECT_EQ(store.poleFilter().initialized(), name != "pole-filter.dat");
  EXPECT_EQ(state == 0, name == "constellation-analyzer.dat");
  EXPECT_EQ(store.assistanceFile(zc::GPS).count() == 0, name == "assistance-gps.dat");

  // The run goes on and writes a good file; the same fault again keeps both spoilt copies.
  ASSERT_TRUE(store.save(error)) << error;
  ASSERT_TRUE(exists(path));
  writeBytes(path, spoilt);
  zh::StateStore again(dir.path());
  ASSERT_TRUE(again.load(error));
  ASSERT_EQ(again.problems().size(), 1u);
  EXPECT_EQ(zarn::test::readFile(path + ".bad"), spoilt);
  EXPECT_EQ(zarn::test::readFile(path + ".bad.1"), spoilt);
}

INSTANTIATE_TEST_SUITE_P(
    EveryFile, StateFaults,
    ::testing::Values(Fault{"assistance-gps.dat", "wrong key", wrongKey, "wrong key"},
                      Fault{"assistance-gps.dat", "damaged", flipMiddle, "damaged"},
                      Fault{"assistance-gps.dat", "truncated mid-block",
                            [](std::string const& s) { return cut(s, 3); }, "truncated"},
                      Fault{"assistance-gps.dat", "truncated by a block",
                            [](std::string const& s) { return cut(s, 8); }, "damaged"},
                      Fault{"assistance-gps.dat", "foreign", foreign, "another program"},
                      Fault{"clock-filters.dat", "damaged", flipMiddle, "checksum"},
                      Fault{"clock-filters.dat", "truncated",
                            [](std::string const& s) { return cut(s, 100); }, "truncated"},
                      Fault{"clock-filters.dat", "foreign", foreign, "not a zarn state file"},
                      Fault{"pole-filter.dat", "damaged", flipMiddle, "checksum"},
                      Fault{"pole-filter.dat", "truncated to its header",
                            [](std::string const& s) { return s.substr(0, 12); }, "truncated"},
                      Fault{"pole-filter.dat", "empty", [](std::string const&) { return std::string(); },
                            "not a zarn state file"},
                      Fault{"constellation-analyzer.dat", "damaged", flipMiddle, "checksum"},
                      Fault{"constellation-analyzer.dat", "another part file",
                            [](std::string const&) {
                              TempDir other;
                              zh::StateStore s(other.path());
                              std::string e;
                              s.load(e);
                              s.save(e);
                              return zarn::test::readFile(other.file("pole-filter.dat"));
                            },
                            "another part"}));

// A write that fails at any point (disk full mid-write, temporary not creatable)
// names the temporary and leaves the file in place whole.
TEST(StateStore, AFailedWriteLeavesTheOldFileWhole) {
  std::pair<char const*, bool (*)(std::string const&)> const ways[] = {
      {"full",
       [](std::string const& tmp) {
         return access("/dev/full", W_OK) == 0 && symlink("/dev/full", tmp.c_str()) == 0;
       }},
      {"unwritable", [](std::string const& tmp) { return mkdir(tmp.c_str(), 0755) == 0; }}};
  for (auto const& way : ways) {
    TempDir dir;
    std::string const path = dir.file("pole-filter.dat"), old = "the previous state, whole";
    writeBytes(path, old);
    if (!way.second(path + ".tmp")) continue;  // cannot be arranged here
    std::string error;
    EXPECT_FALSE(zh::writeFileAtomically(path, zs::BinaryData(4096, 0x42), error)) << way.first;
    EXPECT_NE(error.find(path + ".tmp"), std::string::npos) << error;
    EXPECT_EQ(zarn::test::readFile(path), old) << way.first;
  }
  // Through the store: the error names the file it could not write.
  TempDir dir;
  std::string error;
  zh::StateStore store(dir.path());
  ASSERT_TRUE(store.load(error));
  ASSERT_TRUE(store.save(error)) << error;
  std::string const pole = dir.file("pole-filter.dat");
  std::string const old = zarn::test::readFile(pole);
  store.feedPole(prediction(1e9, {1, 2, 3}, 0));
  ASSERT_EQ(mkdir((pole + ".tmp").c_str(), 0755), 0);
  EXPECT_FALSE(store.save(error));
  EXPECT_NE(error.find("pole-filter.dat.tmp"), std::string::npos) << error;
  EXPECT_EQ(zarn::test::readFile(pole), old);
}

TEST(StateStore, InspectingChangesNothing) {
  TempDir dir;
  std::string error;
  zh::StateStore missing(dir.file("absent"));
  EXPECT_FALSE(missing.load(error, true));
  EXPECT_FALSE(exists(dir.file("absent")));
  writeBytes(dir.file("pole-filter.dat"), "not a state file");
  zh::StateStore store(dir.path());
  ASSERT_TRUE(store.load(error, true));
  ASSERT_EQ(store.problems().size(), 1u);
  EXPECT_TRUE(exists(dir.file("pole-filter.dat")));
  EXPECT_FALSE(exists(dir.file("pole-filter.dat.bad")));
}

// ---- the tool ----

namespace {

struct ToolRun {
  int status = -1;
  std::string out, err;
};

ToolRun runTool(TempDir const& dir, std::string const& arguments) {
  std::string const cmd = zarn::test::toolPath() + " " + arguments + " >'" + dir.file("stdout") + "' 2>'" +
                          dir.file("stderr") + "' </dev/null";
  int const raw = std::system(cmd.c_str());
  ToolRun r;
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  r.out = zarn::test::readFile(dir.file("stdout"));
  r.err = zarn::test::readFile(dir.file("stderr"));
  return r;
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
  ToolRun r = runTool(dir, "predict --nav " + day1 + " --out " + dir.file("a.rnx") + common);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("state: saved to"), std::string::npos) << r.out;

  // A damaged pole file: the problem goes to stderr, the next day still runs.
  std::string const pole = dir.file("state/pole-filter.dat");
  writeBytes(pole, flipMiddle(zarn::test::readFile(pole)));
  r = runTool(dir, "predict --nav " + day2 + " --out " + dir.file("b.rnx") + common);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("zarn predict: state: pole-filter.dat: damaged (checksum mismatch); kept as "
                       "pole-filter.dat.bad"),
            std::string::npos)
      << r.err;
  r = runTool(dir, "status --json --at 2016-09-09T00:00 --state " + dir.file("state"));
  ASSERT_EQ(r.status, 0) << r.err;
  for (char const* expected : {"\"name\": \"G05\"", "\"name\": \"G12\"", "\"clockFilter\": \"converging\"",
                               "\"stored\": true", "\"suggestedInit\": \"2016-09-16 00:00:00\""})
    EXPECT_NE(r.out.find(expected), std::string::npos) << expected << "\n" << r.out;
  r = runTool(dir, "status --state " + dir.file("missing"));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("no state directory"), std::string::npos) << r.err;
}
