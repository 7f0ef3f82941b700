// The constellation analyzer's rules at their edges: the healthy ratios 0.6875
// and 0.5, the minimum satellite counts, the half-period suggestion with its
// outages, the upper median of a constellation, and the six-hour rule after a
// short GLONASS initialisation. Expected Tocs are worked out by hand from GPS
// weeks (cycle 1 = weeks 1024-2047).
#include "zarn/support/constellation_analyzer.hpp"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "zarn/support/serialization.hpp"
#include "zarn/support/time_conversion.hpp"

using namespace zarn::support;
namespace core = zarn::core;
using core::BEIDOU;
using core::GLONASS;
using core::GPS;
using core::Toc;

constexpr double kWeek = 604800.0;
// GPS week 1900 (cycle 1, week 876), 06:00: on a two-hour boundary.
constexpr double kT = 1900 * kWeek + 21600;

// n satellites from svId 1 with a full initialisation at t and a prediction;
// the first `healthy` predicted with `status`, the rest failed.
ConstellationAnalyzer constellation(core::GnssType gnss, int n, int healthy, core::Status status = core::OK) {
  ConstellationAnalyzer a;
  for (int sv = 1; sv <= n; ++sv) {
    a.recordEvent(gnss, sv, PredictorEvent{kT, 2, core::OK});
    a.recordEvent(gnss, sv, PredictorEvent{kT + 60, 3, sv <= healthy ? status : core::GENERAL_ERROR});
  }
  return a;
}

core::GnssState stateOf(ConstellationAnalyzer const& a, core::GnssType gnss, unsigned short sv) {
  core::GnssState s{};
  EXPECT_EQ(a.gnssState(s, gnss, sv), core::OK);
  return s;
}

Toc suggested(ConstellationAnalyzer const& a, core::GnssType gnss, unsigned short sv) {
  Toc t{9, 9, 9};
  EXPECT_EQ(a.suggestedInitTime(t, gnss, sv), core::OK);
  return t;
}

TEST(ConstellationAnalyzer, HealthyRatioEdges) {
  // Rows: satellites, healthy, then prediction disabled (counted as healthy), state.
  std::tuple<int, int, int, core::GnssState> const cases[] = {
      {16, 11, 0, core::GOOD},         // 0.6875
      {16, 8, 0, core::INTERMEDIATE},  // 0.5
      {16, 7, 0, core::BAD},           // 0.4375
      {16, 9, 2, core::GOOD},          // prediction disabled counts as healthy
  };
  for (auto const& [n, ok, disabled, expected] : cases) {
    ConstellationAnalyzer a = constellation(GPS, n, ok);
    for (int sv = ok + 1; sv <= ok + disabled; ++sv)
      a.recordEvent(GPS, sv, PredictorEvent{kT + 60, 3, core::PREDICTION_DISABLED});
    EXPECT_EQ(stateOf(a, GPS, 0), expected) << ok << "+" << disabled << " of " << n;
  }
  ConstellationAnalyzer a = constellation(GPS, 3, 1);
  a.recordEvent(GPS, 2, PredictorEvent{kT, 3, core::PREDICTION_DISABLED});
  // Per satellite: disabled alone (sv 2) is BAD.
  for (unsigned short sv : {1, 2, 3}) EXPECT_EQ(stateOf(a, GPS, sv), sv == 1 ? core::GOOD : core::BAD) << sv;
  EXPECT_EQ(stateOf(a, BEIDOU, 0), 0u);
}

TEST(ConstellationAnalyzer, SingleSatelliteSuggestionsByHand) {
  // kT + 7 days = week 1901 (cycle 1, week 877) 06:00.
  ConstellationAnalyzer a;
  a.recordEvent(GPS, 3, PredictorEvent{kT, 2, core::OK});
  EXPECT_EQ(suggested(a, GPS, 3), (Toc{1, 877, 21600}));
  // An off-boundary start moves to the nearest even two hours: 06:01:40 + 7 d -> 06:00.
  a.recordEvent(GPS, 4, PredictorEvent{kT + 100, 2, core::OK});
  EXPECT_EQ(suggested(a, GPS, 4), (Toc{1, 877, 21600}));
  // 48 hours of allowed prediction: half of it, 1 day.
  AssistanceData data = makeZeroAssistanceData();
  data.maxPredictionLength = 48;
  a.updateAssistanceData(GPS, {{3, data}});
  EXPECT_EQ(suggested(a, GPS, 3), (Toc{1, 876, 108000}));
  // A failed initialisation or prediction asks for the earliest time.
  a.recordEvent(GPS, 3, PredictorEvent{kT + 10, 3, core::GENERAL_ERROR});
  EXPECT_TRUE(suggested(a, GPS, 3) == (Toc{0, 0, 0}) &&
              suggested(a, GPS, 9) == (Toc{0, 0, 0}));  // 9: no events
  // BeiDou: 3 days, rounded to the full hour of GPS seconds, then told in
  // BeiDou weeks (GPS week - 1356) and BDT (14 s behind GPS time).
  a.recordEvent(BEIDOU, 2, PredictorEvent{kT + 14, 2, core::OK});
  EXPECT_EQ(suggested(a, BEIDOU, 2), (Toc{0, 544, 21600 + 129600 - 14}));
}

TEST(ConstellationAnalyzer, OutagesMoveTheSuggestionToTheirEnd) {
  Toc const s{1, 877, 21600};  // the plain suggestion of kT
  Toc const later{1, 877, 36000};
  Toc const latest{1, 877, 50400};
  std::tuple<char const*, std::vector<TocPeriod>, Toc> const cases[] = {
      {"starts at it", {{s, later, ""}}, later},
      {"ends at it", {{Toc{1, 877, 7200}, s, ""}}, s},
      {"starts a second after", {{Toc{1, 877, 21601}, latest, ""}}, s},
      {"chained in order", {{s, later, ""}, {later, latest, ""}}, latest},
      {"chained out of order", {{later, latest, ""}, {s, later, ""}}, later},
      {"off-boundary end is rounded", {{s, Toc{1, 877, 30000}, ""}}, Toc{1, 877, 28800}},
  };
  for (auto const& [name, outages, expected] : cases) {
    ConstellationAnalyzer a;
    a.recordEvent(GPS, 3, PredictorEvent{kT, 2, core::OK});
    AssistanceData data = makeZeroAssistanceData();
    data.outages = outages;
    a.updateAssistanceData(GPS, {{3, data}});
    EXPECT_EQ(suggested(a, GPS, 3), expected) << name;
  }
}

TEST(ConstellationAnalyzer, ConstellationTakesTheUpperMedianFromTheMinimumCount) {
  // Satellite k starts (17 - k) * 2 h after kT, so the sorted suggestions are
  // kT + 7 d + j * 2 h, j = 1..n; the upper median of 16 is j = 9.
  auto build = [](int n) {
    ConstellationAnalyzer a;
    for (int sv = 1; sv <= n; ++sv)
      a.recordEvent(GPS, sv, PredictorEvent{kT + (17 - sv) * 7200.0, 2, core::OK});
    return a;
  };
  EXPECT_EQ(suggested(build(16), GPS, 0), (Toc{1, 877, 21600 + 9 * 7200}));
  EXPECT_EQ(suggested(build(15), GPS, 0), (Toc{0, 0, 0}));  // below 16 satellites
  // Failed satellites contribute no time but count towards the minimum.
  ConstellationAnalyzer mixed = build(16);
  for (int sv = 1; sv <= 16; ++sv)
    mixed.recordEvent(GPS, sv, PredictorEvent{kT, 3, sv <= 2 ? core::OK : core::UNHEALTHY_SV});
  EXPECT_EQ(suggested(mixed, GPS, 0), (Toc{1, 877, 21600 + 16 * 7200}));
  for (int sv = 1; sv <= 2; ++sv) mixed.recordEvent(GPS, sv, PredictorEvent{kT, 3, core::GENERAL_ERROR});
  EXPECT_EQ(suggested(mixed, GPS, 0), (Toc{0, 0, 0}));  // none gave a time
  // BeiDou needs 7, GLONASS 12.
  EXPECT_EQ(suggested(constellation(BEIDOU, 6, 6), BEIDOU, 0), (Toc{0, 0, 0}));
  EXPECT_NE(suggested(constellation(BEIDOU, 7, 7), BEIDOU, 0), (Toc{0, 0, 0}));
  EXPECT_EQ(suggested(constellation(GLONASS, 11, 11), GLONASS, 0), (Toc{0, 0, 0}));
  EXPECT_NE(suggested(constellation(GLONASS, 12, 12), GLONASS, 0), (Toc{0, 0, 0}));
}

TEST(ConstellationAnalyzer, ShortGlonassInitialisationLastsADay) {
  auto const glonassTocToGps = [](Toc const& t) { return gpsToGpsSecs(glonassToGps(t, {})); };
  // Start at a quarter past the hour so that the suggestion needs no rounding.
  double const t = 1900 * kWeek + 900;
  AssistanceData data = makeZeroAssistanceData();
  data.maxPredictionLength = 100;  // hours; a short start overrides it
  for (int type : {1, 2}) {
    ConstellationAnalyzer a;
    a.updateAssistanceData(GLONASS, {{7, data}});
    a.recordEvent(GLONASS, 7, PredictorEvent{t, type, core::OK});
    double const expected = t + (type == 1 ? 43200 : 180000);
    EXPECT_EQ(glonassTocToGps(suggested(a, GLONASS, 7)), expected) << type;
  }

  // Six hours after a short start it should run again; never after a full one.
  // Rows: initialisation type, now in GPS seconds (0 for no time), expected.
  std::tuple<int, double, bool> const cases[] = {
      {1, 0, true},          {1, t + 21599, false},     {1, t + 21600, true}, {2, 0, false},
      {2, t + 21600, false}, {2, t + kWeek - 1, false}, {2, t + kWeek, true}};
  for (auto const& [type, now, expected] : cases) {
    ConstellationAnalyzer a;
    a.recordEvent(GLONASS, 7, PredictorEvent{t, type, core::OK});
    Toc const toc = now == 0 ? Toc{} : gpsToGlonass(gpsSecsToGps(now), {});
    EXPECT_EQ(a.shouldInit(GLONASS, 7, toc), expected) << type << " at " << now - t;
  }
}

TEST(ConstellationAnalyzer, ShouldInitRules) {
  Toc const zero{}, beforeAll{1, 877, 21599}, atFirst{1, 877, 21600};
  ConstellationAnalyzer disabled = constellation(GPS, 16, 16);
  disabled.recordEvent(GPS, 1, PredictorEvent{kT + 60, 3, core::PREDICTION_DISABLED});
  std::tuple<char const*, ConstellationAnalyzer, unsigned short, Toc, bool> const cases[] = {
      {"no events", ConstellationAnalyzer{}, 0, zero, true},
      {"15 of 20 healthy: below the count", constellation(GPS, 20, 15), 0, zero, true},
      {"16 of 24 healthy: below the ratio", constellation(GPS, 24, 16), 0, zero, true},
      {"healthy before every suggestion", constellation(GPS, 16, 16), 0, beforeAll, false},
      {"healthy at a suggestion", constellation(GPS, 16, 16), 0, atFirst, true},
      {"healthy satellite, no time", constellation(GPS, 16, 16), 4, zero, false},
      {"healthy satellite at its time", constellation(GPS, 16, 16), 4, atFirst, true},
      {"failed satellite", constellation(GPS, 16, 3), 4, zero, true},
      {"unknown satellite", constellation(GPS, 16, 16), 30, zero, true},
      {"prediction disabled", disabled, 1, zero, false},
      {"BeiDou 7 of 7", constellation(BEIDOU, 7, 7), 0, zero, false},
  };
  for (auto const& [name, analyzer, sv, now, expected] : cases) {
    core::GnssType const gnss = std::string(name).rfind("BeiDou", 0) == 0 ? BEIDOU : GPS;
    EXPECT_EQ(analyzer.shouldInit(gnss, sv, now), expected) << name;
  }
}

// Found by fuzzing: a key listed twice used to be merged, so the analyzer
// read fewer records than the bytes held and wrote back a shorter form.
TEST(ConstellationAnalyzer, FormWithARepeatedKeyIsRefused) {
  struct Case {
    char const* what;
    std::vector<unsigned int> constellations;  // of the latest-event map
    std::vector<unsigned short> satellites;    // under each constellation
  };
  Case const cases[] = {
      {"distinct keys", {GPS, BEIDOU}, {3, 5}},
      {"a constellation twice", {GPS, GPS}, {3, 5}},
      {"a satellite twice", {GPS}, {5, 5}},
  };
  for (Case const& c : cases) {
    BinaryData bytes;
    unsigned int count = 0;
    serialize(0u, bytes, count);  // no assistance data
    serialize(0u, bytes, count);  // no initialisations
    serialize(static_cast<unsigned int>(c.constellations.size()), bytes, count);
    for (unsigned int gnss : c.constellations) {
      serialize(gnss, bytes, count);
      serialize(static_cast<unsigned int>(c.satellites.size()), bytes, count);
      for (unsigned short sv : c.satellites) {
        serialize(sv, bytes, count);
        serialize(PredictorEvent{kT, 3, core::OK}, bytes, count);
      }
    }
    bool const distinct = std::string(c.what) == "distinct keys";
    ConstellationAnalyzer const before = constellation(GLONASS, 2, 1);
    ConstellationAnalyzer target = before;
    unsigned int position = 0;
    EXPECT_EQ(target.deserialize(bytes, position), distinct) << c.what;
    EXPECT_EQ(position, distinct ? bytes.size() : 0u) << c.what;
    BinaryData again;
    if (distinct) {
      EXPECT_TRUE(target.serialize(again) && again == bytes) << c.what;
    } else {
      EXPECT_TRUE(target == before) << c.what;
    }
  }
}
