// GLONASS in the host pipeline on real data. Oracles: the epoch lines of
// brdc1580.16g as printed in the file (states stamped 17 s late and extra
// uploads off the 30-minute grid), the values of real broadcast records as
// the files print them, SP3 precise orbits of the predicted day and the
// GLONASS field widths of validGlonassEphemeris; ERFA's sidereal time for the
// Earth's rotation.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "support/test_support.hpp"
#include "zarn/host/ephemeris.hpp"
#include "zarn/host/evaluation.hpp"
#include "zarn/host/glonass_pipeline.hpp"
#include "zarn/host/pipeline.hpp"
#include "zarn/host/rinex_nav.hpp"
#include "zarn/host/screening.hpp"
#include "zarn/host/sp3.hpp"
#include "zarn/support/ephemeris_conversion.hpp"
#include "zarn/support/utility.hpp"

#include <erfa.h>

namespace zh = zarn::host;
namespace zc = zarn::core;

namespace {

constexpr char const* kDay251 = "data/2016-251_252_smartloc/brdc2510.16g";
constexpr char const* kSp3Day252 = "data/2016-251_252_smartloc/gbm19134.sp3";

struct Errors {
  double median = 0, max = 0, meanRadial = 0;
  std::size_t samples = 0;
};

// Errors of the predicted GLONASS records against SP3, 15 minutes either side of each.
Errors againstSp3(zh::SatellitePrediction const& p, std::string const& sp3, double fitEnd) {
  zh::Sp3Truth const truth({zh::readSp3(sp3)});
  std::vector<zh::PredictedEphemeris> list;
  for (zh::Ephemeris const& e : p.predicted) list.push_back({e, e.toe - 900.0, e.toe + 900.0});
  zh::EvaluationResult const r = zh::evaluatePredictions(list, fitEnd, truth, 300.0);
  Errors out;
  std::vector<double> errors;
  for (zh::ErrorSample const& s : r.samples) {
    errors.push_back(s.error);
    out.meanRadial += s.radial;
  }
  out.samples = errors.size();
  if (errors.empty()) return out;
  out.median = zh::quantile(errors, 0.5);
  out.max = *std::max_element(errors.begin(), errors.end());
  out.meanRadial /= static_cast<double>(errors.size());
  return out;
}

}  // namespace

TEST(GlonassScreening, LeavesOutTheLateAndOffGridRecordsOfBrdc1580) {
  ZARN_SHARED_FILE_OR_SKIP(path, "data/2016-158_smartloc/brdc1580.16g");
  // Epoch lines of the file that are not at hh:15:00 or hh:45:00 (grep of the file).
  std::set<std::string> const expected = {"brdc1580.16g:2436", "brdc1580.16g:2440", "brdc1580.16g:2444",
                                          "brdc1580.16g:2448", "brdc1580.16g:2452", "brdc1580.16g:2456",
                                          "brdc1580.16g:2940", "brdc1580.16g:3232"};
  std::set<std::string> found;
  int offGrid = 0, kept = 0;
  for (auto const& entry : zh::collectEphemerides({zh::readRinexNav(path)})) {
    ASSERT_EQ(entry.first.system, 'R');
    zh::ScreeningResult const r = zh::screenEphemerides(entry.second, zh::screeningOptionsFor('R'));
    offGrid += r.offGrid;
    kept += static_cast<int>(r.kept.size());
    EXPECT_EQ(r.disagreeing, 0) << zh::toString(entry.first);
    for (std::string const& note : r.notes) {
      std::size_t const at = note.find("brdc1580.16g:");
      if (at == std::string::npos) continue;
      found.insert(note.substr(at, note.find(' ', at) - at));
      EXPECT_EQ(note.compare(0, 3, zh::toString(entry.first)), 0) << note;
    }
    for (zh::Ephemeris const& e : r.kept) {
      // What is kept lies on the grid: 15 or 45 minutes past a UTC hour.
      double const utc = std::fmod(e.toe - zh::leapSecondsAt(e.toe), 1800.0);
      EXPECT_EQ(utc, 900.0) << e.origin;
    }
  }
  EXPECT_EQ(offGrid, 8);
  EXPECT_EQ(found, expected);
  EXPECT_GT(kept, 24 * 40);
}

TEST(GlonassRinex, RealRecordsReadBackIdenticalAndAsTheFilePrintsThem) {
  ZARN_SHARED_FILE_OR_SKIP(day251, kDay251);
  ZARN_SHARED_FILE_OR_SKIP(day158, "data/2016-158_smartloc/brdc1580.16g");
  std::vector<zh::GlonassNavRecord> original;
  for (std::string const& f : {day251, day158})
    for (zh::GlonassNavRecord const& r : zh::readRinexNav(f).glonass) original.push_back(r);
  ASSERT_GT(original.size(), 2000u);
  std::vector<zc::GlonassEphemeris> records;
  for (zh::GlonassNavRecord const& r : original) records.push_back(r.eph);
  zh::NavWriteOptions options;
  options.date = "20240101 000000 UTC";
  zh::NavData const back = zh::parseRinexNav(zh::formatRinexNav(options, {}, {}, records), "glonass.rnx");
  EXPECT_TRUE(back.header.system == 'R' && back.stats.skippedMalformed == 0);
  ASSERT_EQ(back.glonass.size(), records.size());
  for (std::size_t i = 0; i < records.size(); ++i) {
    ASSERT_TRUE(back.glonass[i].eph == records[i]) << original[i].line;
    // The values written are those the source file printed, to within half an LSB.
    zh::GlonassNavRaw const& a = original[i].raw;
    zh::GlonassNavRaw const& b = back.glonass[i].raw;
    // clang-format off
    double const fields[][3] = {  // was, is, half an LSB
        {a.x, b.x, 0x1p-12}, {a.y, b.y, 0x1p-12}, {a.z, b.z, 0x1p-12}, {a.vx, b.vx, 0x1p-21}, {a.vy, b.vy, 0x1p-21},
        {a.vz, b.vz, 0x1p-21}, {a.ax, b.ax, 0x1p-31}, {a.minusTauN, b.minusTauN, 0x1p-31},
        {a.gammaN, b.gammaN, 0x1p-41}, {a.health, b.health, 0.0}, {a.frequencyNumber, b.frequencyNumber, 0.0}};
    // clang-format on
    for (auto const& f : fields) ASSERT_LE(std::fabs(f[0] - f[1]), f[2] * 1.000001) << original[i].line;
    ASSERT_EQ(a.toc, b.toc) << original[i].line;
  }
}

TEST(GlonassPipeline, BroadcastPredictionOfOneSatelliteAgainstSp3) {
  ZARN_SHARED_FILE_OR_SKIP(nav, kDay251);
  ZARN_SHARED_FILE_OR_SKIP(sp3, kSp3Day252);
  zh::PipelineOptions o;
  double fitEnd = 0;
  ASSERT_TRUE(zh::parseGpsTime("2016-09-08T00:00:00", fitEnd));
  o.fitEnd = fitEnd;
  o.days = 1.0;
  std::vector<zh::Ephemeris> const records = zh::collectEphemerides({zh::readRinexNav(nav)}).at({'R', 1});
  zh::SatellitePrediction const p = zh::predictFromBroadcast(records, o);
  ASSERT_TRUE(p.skipReason.empty()) << p.skipReason;
  ASSERT_EQ(p.predicted.size(), 48u);  // 00:15 .. 23:45 UTC
  EXPECT_TRUE(p.sampleRms < 10.0 && p.rejected == 0) << p.sampleRms;
  int const leap = zh::leapSecondsAt(fitEnd);
  for (std::size_t i = 0; i < p.predicted.size(); ++i) {
    zh::Ephemeris const& e = p.predicted[i];
    EXPECT_TRUE(e.toe == fitEnd + leap + 900.0 + 1800.0 * static_cast<double>(i) && zh::passesValidation(e) &&
                e.glonass.svId == 1 && e.glonass.frequencyNumber == records.back().glonass.frequencyNumber &&
                e.glonass.tb == static_cast<int>(e.glonass.time.third / 900))
        << i;
  }
  // The clock continues the broadcast one: tauN within a microsecond of the last broadcast value.
  EXPECT_LT(std::fabs(p.predicted.front().glonass.tauN - records.back().glonass.tauN) * 0x1p-30, 1e-6);

  Errors const withOffset = againstSp3(p, sp3, fitEnd);
  ASSERT_GT(withOffset.samples, 200u);
  EXPECT_TRUE(withOffset.median < 10.0 && withOffset.max < 30.0)
      << withOffset.median << " " << withOffset.max;

  EXPECT_LT(std::fabs(withOffset.meanRadial), 1.0);

  // Broadcast states refer to the antenna, about 2 m below the centre of
  // mass: an orbit fitted to them as if they were the centre of mass moves at
  // the wrong height's speed and drifts along track (with the radiation
  // pressure held: estimated, it takes up part of that).
  zh::PipelineOptions held = o;
  held.estimateSrp = false;
  zh::PipelineOptions noOffset = held;
  noOffset.antennaOffset = false;
  Errors const heldWith = againstSp3(zh::predictFromBroadcast(records, held), sp3, fitEnd);
  Errors const without = againstSp3(zh::predictFromBroadcast(records, noOffset), sp3, fitEnd);
  EXPECT_GT(without.median, heldWith.median + 5.0) << heldWith.median;
}

TEST(GlonassPipeline, SlotsFollowTheUtcQuarterPastAndQuarterToGrid) {
  double fitEnd = 0;
  ASSERT_TRUE(zh::parseGpsTime("2016-09-08T00:00:00", fitEnd));
  // Fit end, days, GPS-UTC, first slot, slots.
  std::tuple<double, double, int, double, std::size_t> const cases[] = {
      {fitEnd, 1.0, 17, fitEnd + 917.0, 48},          // 00:15 UTC is 00:15:17 GPS
      {fitEnd + 917.0, 1.0, 17, fitEnd + 917.0, 49},  // a fit end on a slot takes it
      {fitEnd + 918.0, 0.5, 18, fitEnd + 918.0, 25},
      {fitEnd - 100.0, 7.0, 17, fitEnd + 917.0, 336},
  };
  for (auto const& [end, days, leap, first, count] : cases) {
    std::vector<double> const slots = zh::glonassSlots(end, days, leap);
    ASSERT_FALSE(slots.empty());
    EXPECT_EQ(std::make_tuple(slots.front(), slots.size()), std::make_tuple(first, count)) << end;
    for (double t : slots) EXPECT_EQ(std::fmod(t - leap, 1800.0), 900.0);
  }
}

// The pipeline's broadcast states against the receivers' one-second
// integration, record by record, over the span each record is trusted for.
TEST(GlonassPipeline, BroadcastStatesMatchTheOneSecondIntegration) {
  ZARN_SHARED_FILE_OR_SKIP(nav, kDay251);
  std::vector<zarn::support::LeapInfo> const leaps = zh::leapSecondTable();
  double const offsets[] = {-960.0, -900.0, -451.0, -17.0, 0.0, 1.0, 450.0, 900.0, 960.0};
  // Largest step, position and velocity tolerance (m, m/s): the receivers'
  // step, the pipeline's for samples and its step for comparing neighbours.
  std::tuple<double, double, double> const steps[] = {
      {1.0, 1e-6, 1e-9}, {30.0, 1e-4, 1e-7}, {60.0, 1e-3, 1e-6}};
  std::size_t compared = 0;
  for (auto const& entry : zh::collectEphemerides({zh::readRinexNav(nav)})) {
    if (entry.first.system != 'R') continue;
    for (std::size_t i = 0; i < entry.second.size(); i += 7) {
      zh::Ephemeris const& e = entry.second[i];
      for (double dt : offsets) {
        zarn::support::Vec p(3), v(3), q(3), w(3);
        zarn::support::glonassEphemerisToEcef(e.glonass, e.toe + dt, p, v, leaps);
        for (auto const& [step, positionTolerance, velocityTolerance] : steps) {
          zh::glonassBroadcastState(e.glonass, e.toe + dt, q, w, step);
          EXPECT_LT(zarn::support::distance(p, q), positionTolerance) << e.origin << " " << dt << " " << step;
          EXPECT_LT(zarn::support::distance(v, w), velocityTolerance) << e.origin << " " << dt << " " << step;
          ++compared;
        }
      }
    }
  }
  EXPECT_GT(compared, 2000u);
}

TEST(GlonassPipeline, PreciseOrbitPredictionCarriesTheSp3ClockAsTauN) {
  ZARN_SHARED_FILE_OR_SKIP(day1, "data/sp3_2019-097_106_wum/WUM0MGXFIN_20190970000_01D_15M_ORB.SP3");
  ZARN_SHARED_FILE_OR_SKIP(day2, "data/sp3_2019-097_106_wum/WUM0MGXFIN_20190980000_01D_15M_ORB.SP3");
  zh::Sp3Orbit const fit({zh::readSp3(day1)});
  zh::Sp3Orbit const next({zh::readSp3(day2)});
  zh::PipelineOptions o;
  ASSERT_TRUE(zh::parseGpsTime("2019-04-07T23:45:00", o.fitEnd));
  o.days = 1.0;
  zh::SatelliteId const sat{'R', 7};
  zh::SatellitePrediction const p = zh::predictFromSp3(fit, sat, o);
  ASSERT_TRUE(p.skipReason.empty()) << p.skipReason;
  EXPECT_TRUE(p.sampleRms < 3.0 && p.rejected == 0) << p.sampleRms;
  ASSERT_GE(p.predicted.size(), 47u);
  Errors const e = againstSp3(p, day2, o.fitEnd);
  EXPECT_TRUE(e.median < 10.0 && e.max < 30.0) << e.median << " " << e.max;
  // The satellite clock is -tauN + gammaN (t - tb): compare at the tabulated epochs it meets.
  int compared = 0;
  for (zh::Ephemeris const& r : p.predicted) {
    double const t = std::round(r.toe / 900.0) * 900.0;
    double const clock = next.clock(sat, t);
    if (!std::isfinite(clock)) continue;
    double const predicted = -r.glonass.tauN * 0x1p-30 + r.glonass.gammaN * 0x1p-40 * (t - r.toe);
    EXPECT_NEAR(predicted, clock, 50e-9) << zh::formatGpsTime(t);
    ++compared;
  }
  EXPECT_GT(compared, 40);
}

// A drifting UT1 turns the Earth by the extra sidereal angle between the two
// UT1 values of an epoch. The start from the newest broadcast state sees no
// drift at its own epoch, so the records of a drifting prediction are those
// of a uniform one turned by that angle about the pole, up to their rounding
// to the ICD position unit (one unit per axis between two records); the scale
// fitted over all day-7 records pins the shift to centimetres.
TEST(GlonassPipeline, Ut1RateTurnsTheRecordsByTheExtraSiderealAngle) {
  ZARN_SHARED_FILE_OR_SKIP(nav, kDay251);
  constexpr double kUnit = 0x1p-11 * 1000.0;  // m: position unit, GLONASS ICD table 4.5
  constexpr double kRate = -1.27e-8;          // s/s: days 1.1 ms long
  constexpr double kMjdOfGpsEpoch = 44244.0;  // 1980-01-06
  zh::PipelineOptions o;
  double fitEnd = 0;
  ASSERT_TRUE(zh::parseGpsTime("2016-09-08T00:00:00", fitEnd));
  o.fitEnd = fitEnd;
  o.days = 7.0;
  o.glonassStart = zh::GlonassStart::oneState;
  zh::PipelineOptions drifting = o;
  drifting.ut1Rate = kRate;
  int const leap = zh::leapSecondsAt(fitEnd);
  double product = 0, expected2 = 0, shift = 0;
  std::size_t compared = 0;
  for (auto const& [sat, records] : zh::collectEphemerides({zh::readRinexNav(nav)})) {
    if (sat.system != 'R') continue;
    zh::SatellitePrediction const uniform = zh::predictFromBroadcast(records, o);
    zh::SatellitePrediction const turned = zh::predictFromBroadcast(records, drifting);
    if (!uniform.skipReason.empty()) continue;
    ASSERT_EQ(uniform.predicted.size(), turned.predicted.size()) << zh::toString(sat);
    ASSERT_LT(std::fabs(uniform.fitEnd - fitEnd), 3600.0);  // the start: the newest state's epoch
    for (std::size_t i = 0; i < uniform.predicted.size(); ++i) {
      zc::GlonassEphemeris const& a = uniform.predicted[i].glonass;
      zc::GlonassEphemeris const& b = turned.predicted[i].glonass;
      double const t = uniform.predicted[i].toe;
      ASSERT_EQ(t, turned.predicted[i].toe);
      if (t - fitEnd <= 6.0 * 86400.0) continue;
      double const mjd = kMjdOfGpsEpoch + (t - leap) / 86400.0;
      double const drift = kRate * (t - uniform.fitEnd) / 86400.0;  // days of UT1
      double const angle = eraAnpm(eraGmst82(2400000.5, mjd + drift) - eraGmst82(2400000.5, mjd));
      double rz[3][3], q[3] = {a.x * kUnit, a.y * kUnit, a.z * kUnit}, turnedQ[3];
      eraIr(rz);
      eraRz(angle, rz);
      eraRxp(rz, q, turnedQ);
      double const measured[3] = {(b.x - a.x) * kUnit, (b.y - a.y) * kUnit, (b.z - a.z) * kUnit};
      for (int k = 0; k < 3; ++k) {
        double const wanted = turnedQ[k] - q[k];
        EXPECT_LE(std::fabs(measured[k] - wanted), kUnit + 1e-3) << zh::toString(sat) << " " << i << " " << k;
        product += measured[k] * wanted;
        expected2 += wanted * wanted;
      }
      shift +=
          std::sqrt((turnedQ[0] - q[0]) * (turnedQ[0] - q[0]) + (turnedQ[1] - q[1]) * (turnedQ[1] - q[1]));
      ++compared;
    }
  }
  ASSERT_GT(compared, 500u);
  shift /= static_cast<double>(compared);
  EXPECT_GT(shift, 8.0);  // m: a week of 1.1 ms days at GLONASS height
  EXPECT_LT(std::fabs(product / expected2 - 1.0) * shift, 0.03) << product / expected2 << " " << shift;
}

// Precise orbits follow the Earth as it turns: fitted with the UT1 drift of
// their days (1.1 ms too long, as the GPS satellites of the same files give
// it) they fit the orbit far better than under a uniform rotation, which over
// a day leaves a 2 m turn about the pole, in the batch fit and the filter.
TEST(GlonassPipeline, PreciseOrbitsFitBetterWithTheUt1Drift) {
  ZARN_SHARED_FILE_OR_SKIP(day, "data/sp3_2019-097_106_wum/WUM0MGXFIN_20190970000_01D_15M_ORB.SP3");
  zh::Sp3Orbit const fit({zh::readSp3(day)});
  for (bool const batch : {true, false}) {
    for (int const prn : {3, 7, 14}) {
      zh::PipelineOptions o;
      ASSERT_TRUE(zh::parseGpsTime("2019-04-07T23:45:00", o.fitEnd));
      o.days = 0.1;
      o.estimateSrp = batch;
      zh::PipelineOptions drifting = o;
      drifting.ut1Rate = -1.1e-3 / 86400.0;
      zh::SatellitePrediction const uniform = zh::predictFromSp3(fit, {'R', prn}, o);
      zh::SatellitePrediction const turned = zh::predictFromSp3(fit, {'R', prn}, drifting);
      ASSERT_TRUE(uniform.skipReason.empty() && turned.skipReason.empty()) << prn;
      EXPECT_EQ(turned.srpEstimated, batch) << prn;
      EXPECT_LT(turned.sampleRms, 0.5 * uniform.sampleRms) << prn << " " << batch;
    }
  }
}
