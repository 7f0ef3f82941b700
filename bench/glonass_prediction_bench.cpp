// One GLONASS satellite predicted seven days ahead from a broadcast state:
// the start from one and from two broadcast states, the Gauss-Jackson
// propagation with a GLONASS ephemeris every 30 minutes, and the whole chain
// (compare BM_Satellite7DaysEndToEnd for a GPS satellite); the pipeline's
// broadcast states and screening of a day of records.
#include <benchmark/benchmark.h>

#include <exception>
#include <string>
#include <vector>

#include "zarn/host/ephemeris.hpp"
#include "zarn/host/glonass_pipeline.hpp"
#include "zarn/host/gnss_time.hpp"
#include "zarn/host/rinex_nav.hpp"
#include "zarn/host/screening.hpp"

#include "zarn/support/assistance_data.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/ephemeris_conversion.hpp"
#include "zarn/support/force_model.hpp"
#include "zarn/support/prediction.hpp"
#include "zarn/support/time_conversion.hpp"

namespace zc = zarn::core;
namespace zs = zarn::support;
namespace zh = zarn::host;
using zs::Vec;

namespace {

constexpr double step = 900.0;      // s, GLONASS Gauss-Jackson step
constexpr double spacing = 1800.0;  // s between predicted ephemerides
constexpr double days = 7.0;
constexpr int records = static_cast<int>(days * 86400.0 / spacing);

struct Setup {
  // The first record of R01 in brdc2510.16g (2016-09-07 00:15 UTC).
  zc::GlonassEphemeris e;
  bool found = false;
  double t = 0.0;  // GPS seconds
  int leap = 0;
  zs::AssistanceData data = zs::AssistanceDataFile::defaultAssistance(zc::GLONASS, 1);
  Vec r = Vec(3), v = Vec(3);

  Setup() {
    try {
      for (zh::GlonassNavRecord const& record :
           zh::readRinexNav(std::string(ZARN_SHARED_DIR) + "/data/2016-251_252_smartloc/brdc2510.16g")
               .glonass) {
        if (record.eph.svId != 1) continue;
        e = record.eph;
        found = true;
        break;
      }
    } catch (std::exception const&) {
      found = false;
    }
    t = zs::gpsToGpsSecs(zs::glonassToGps(e.time, {}));
    leap = zs::leapSeconds(t, true, {});
    zs::glonassEphemerisToEcef(e, t, r, v, {});
  }

  bool start(zs::ForceModel& model, int degree) const {
    model.setNumberOfGeopotentialCoefficients(degree);
    Vec ri(3), vi(3);
    return zs::estimateInitialStateGlonass(data, t, leap, r, v, zs::Eop{}, model, ri, vi);
  }

  // Ephemerides every 30 minutes; returns those produced.
  int predict(zs::ForceModel& model) const {
    Vec ri(3), vi(3);
    int good = 0;
    for (int k = 1; k <= records; ++k) {
      zc::GlonassEphemeris out;
      double const t1 = t + k * spacing;
      if (zs::propagateSatellite(t1 - spacing, t1, step, ri, vi, model, out, ri, vi) <= 0) break;
      ++good;
    }
    return good;
  }
};

void BM_GlonassStartOneState(benchmark::State& state) {
  Setup const s;
  if (!s.found) return state.SkipWithError("brdc2510.16g not found");
  zs::ForceModel model;
  for (auto _ : state) benchmark::DoNotOptimize(s.start(model, 8));
}
BENCHMARK(BM_GlonassStartOneState)->Unit(benchmark::kMillisecond);

// Two states six hours apart, the newer first; the older one is a record of
// the force-model orbit itself.
void BM_GlonassStartTwoStates(benchmark::State& state) {
  Setup s;
  if (!s.found) return state.SkipWithError("brdc2510.16g not found");
  zs::ForceModel model;
  s.start(model, 8);
  zc::GlonassEphemeris later;
  Vec ri(3), vi(3), r2(3), v2(3);
  double const t2 = s.t + 6 * 3600.0;
  zs::propagateSatellite(s.t, t2, step, ri, vi, model, later, ri, vi);
  zs::glonassEphemerisToEcef(later, t2, r2, v2, {});
  bool ok = false;
  for (auto _ : state) {
    ok = zs::estimateInitialStateGlonass(s.data, t2, s.leap, r2, v2, s.t, s.leap, s.r, s.v, zs::Eop{}, model,
                                         ri, vi);
    benchmark::DoNotOptimize(ok);
  }
  state.counters["converged"] = ok ? 1 : 0;
}
BENCHMARK(BM_GlonassStartTwoStates)->Unit(benchmark::kMillisecond);

void BM_GlonassPropagate7Days(benchmark::State& state) {
  Setup const s;
  if (!s.found) return state.SkipWithError("brdc2510.16g not found");
  zs::ForceModel model;
  s.start(model, static_cast<int>(state.range(0)));
  zs::BinaryData start;
  model.serialize(start);
  int good = 0;
  for (auto _ : state) {
    unsigned position = 0;
    model.deserialize(start, position);
    good = s.predict(model);
  }
  state.counters["ephemerides"] = good;
}
BENCHMARK(BM_GlonassPropagate7Days)->Arg(8)->Arg(16)->Unit(benchmark::kMillisecond);

void BM_GlonassSatellite7DaysEndToEnd(benchmark::State& state) {
  Setup const s;
  if (!s.found) return state.SkipWithError("brdc2510.16g not found");
  zs::ForceModel model;
  int good = 0;
  for (auto _ : state) {
    s.start(model, static_cast<int>(state.range(0)));
    good = s.predict(model);
  }
  state.counters["ephemerides"] = good;
}
BENCHMARK(BM_GlonassSatellite7DaysEndToEnd)->Arg(8)->Arg(16)->Unit(benchmark::kMillisecond);

// The broadcast state a quarter of an hour before the record's time, as the
// pipeline samples it: argument 1 the receivers' one-second integration
// (glonassEphemerisToEcef), 0 the pipeline's own (glonassBroadcastState).
void BM_GlonassBroadcastStateQuarterHour(benchmark::State& state) {
  Setup const s;
  if (!s.found) return state.SkipWithError("brdc2510.16g not found");
  std::vector<zs::LeapInfo> const leaps = zh::leapSecondTable();
  double const t = s.t - 900.0;
  Vec p(3), v(3);
  for (auto _ : state) {
    if (state.range(0) != 0) {
      zs::glonassEphemerisToEcef(s.e, t, p, v, leaps);
    } else {
      zh::glonassBroadcastState(s.e, t, p, v);
    }
    benchmark::DoNotOptimize(p);
  }
}
BENCHMARK(BM_GlonassBroadcastStateQuarterHour)->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);

// Screening of R01's day of records (48), which compares neighbours.
void BM_GlonassScreeningOneDay(benchmark::State& state) {
  std::vector<zh::Ephemeris> records;
  try {
    records = zh::collectEphemerides({zh::readRinexNav(std::string(ZARN_SHARED_DIR) +
                                                       "/data/2016-251_252_smartloc/brdc2510.16g")})
                  .at({'R', 1});
  } catch (std::exception const&) {
    return state.SkipWithError("brdc2510.16g not found");
  }
  zh::ScreeningOptions const options = zh::screeningOptionsFor('R');
  std::size_t kept = 0;
  for (auto _ : state) kept = zh::screenEphemerides(records, options).kept.size();
  state.counters["records"] = static_cast<double>(records.size());
  state.counters["kept"] = static_cast<double>(kept);
}
BENCHMARK(BM_GlonassScreeningOneDay)->Unit(benchmark::kMicrosecond);

}  // namespace
