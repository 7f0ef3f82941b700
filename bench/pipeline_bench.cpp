// The host prediction pipeline: one GPS satellite split by stage (estimation,
// seven days of propagation and of conversion to Earth-fixed antenna
// positions, fit and encoding of the 85 two-hourly windows),
// the same satellite end to end, and the whole GPS constellation of a day of
// broadcast ephemerides predicted seven days ahead on one thread, also with
// the UT1-rate pass; one GLONASS satellite end to end (336 half-hourly
// records) beside the GPS one.
#include <benchmark/benchmark.h>

#include <cmath>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "zarn/host/ephemeris.hpp"
#include "zarn/host/gnss_time.hpp"
#include "zarn/host/pipeline.hpp"
#include "zarn/host/rinex_nav.hpp"
#include "zarn/host/screening.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/ephemeris_conversion.hpp"
#include "zarn/support/force_model.hpp"
#include "zarn/support/prediction.hpp"

namespace zh = zarn::host;
namespace zs = zarn::support;

namespace {

constexpr char const* kNavFile = "/data/2016-251_252_smartloc/brdc2510.16n";
// GPS, GLONASS, Galileo and BeiDou-2/3 of 2023-03-12.
constexpr char const* kMixedNavFile = "/data/2023-071_073/BRD400DLR_S_20230710000_01D_MN.rnx.gz";
constexpr char const* kMixedFitEnd = "2023-03-13T00:00:00";
constexpr int kSatellite = 12;
constexpr double kDays = 7.0;
constexpr double kGpsSpacing = 7200.0;  // s: GPS reference times on even hours

struct Data {
  bool ok = false;
  std::map<zh::SatelliteId, std::vector<zh::Ephemeris>> records;
  zh::PipelineOptions options;
};

Data const& data() {
  static Data const d = [] {
    Data d;
    try {
      d.records = zh::collectEphemerides({zh::readRinexNav(std::string(ZARN_SHARED_DIR) + kNavFile)});
      zh::parseGpsTime("2016-09-08T00:00:00", d.options.fitEnd);
      d.options.days = kDays;
      d.ok = true;
    } catch (std::exception const&) {
    }
    return d;
  }();
  return d;
}

// The stages of one satellite as the pipeline runs them, on the pipeline's grid.
class Stages {
 public:
  explicit Stages(zh::PipelineOptions const& o) : o_(o) {
    std::vector<zh::Ephemeris> const& all = data().records.at({'G', kSatellite});
    kept_ = zh::screenEphemerides(all, zh::screeningOptionsFor('G')).kept;
    apc_ = zh::satelliteAssistance({'G', kSatellite}, zs::UNDEFINED_SAT_TYPE, o.fitEnd);
    std::size_t const n = static_cast<std::size_t>(o.fitSpan / o.sampleStep) + 1;
    times_.resize(n);
    positions_.resize(n, 3);
    velocities_ = zs::Mat(n, 3, 0.0);
    zs::Vec p(3), v(3);
    for (std::size_t k = 0; k < n; ++k) {
      double const t = o.fitEnd - static_cast<double>(n - 1 - k) * o.sampleStep;
      zh::Ephemeris const* best = &kept_.front();
      for (zh::Ephemeris const& e : kept_) {
        if (std::fabs(e.toe - t) < std::fabs(best->toe - t)) best = &e;
      }
      zh::ephemerisState(*best, t, p, v);
      p = zs::removeApcOffset(p, apc_.antPhase, t, zh::leapSecondsAt(t));
      times_(k) = t;
      for (std::size_t c = 0; c < 3; ++c) {
        positions_(k, c) = p(c);
        if (k == 0) velocities_(k, c) = v(c);
      }
    }
  }

  void configure(zs::ForceModel& model) const {
    int const leap = zh::leapSecondsAt(o_.fitEnd);
    model.setLeapInfo(zh::leapSecondTable());
    model.setAssistanceData(apc_);
    model.setNumberOfGeopotentialCoefficients(o_.geopotentialDegree);
    model.setInertialFrameInfo(zs::makeInertialFrameInfo(times_(0), 0.0, leap));
    model.setEopInfo(zs::makeEopInfo(zs::Eop{}));
  }
  zs::InitialStateEstimate estimate(zs::ForceModel& model) const {
    return zs::estimateInitialState(times_, positions_, velocities_, zs::Eop{}, model, true,
                                    zs::UNDEFINED_SAT_TYPE);
  }
  zs::BatchEstimate estimateBatch(zs::ForceModel& model) const {
    return zs::estimateInitialStateBatch(times_, positions_, velocities_, zs::Eop{}, true, o_.srpSigma, model,
                                         true);
  }
  // The fit of the UT1-rate pass: the rate free. The prediction after it
  // moves this estimate to the median rate (holdUt1Rate).
  zs::BatchEstimate estimateRate(zs::ForceModel& model) const {
    return zs::estimateInitialStateBatch(times_, positions_, velocities_, zs::Eop{}, true, o_.srpSigma, true,
                                         0.0, model, true);
  }
  double start() const { return times_(times_.size() / 2); }

 private:
  zh::PipelineOptions o_;
  std::vector<zh::Ephemeris> kept_;
  zs::AssistanceData apc_;
  zs::Vec times_;
  zs::Mat positions_, velocities_;
};

// One estimator on the satellite's samples, from a fresh model each time.
template <typename Estimator>
void runEstimator(benchmark::State& state, Estimator estimator) {
  if (!data().ok) return state.SkipWithError("shared data not found");
  Stages const stages(data().options);
  for (auto _ : state) {
    zs::ForceModel model;
    stages.configure(model);
    benchmark::DoNotOptimize(estimator(stages, model));
  }
}

void BM_PipelineStageEstimate(benchmark::State& state) {
  runEstimator(state, [](Stages const& s, zs::ForceModel& m) { return s.estimate(m); });
}
BENCHMARK(BM_PipelineStageEstimate)->Unit(benchmark::kMillisecond);

// The batch fit of orbit, radiation pressure and pole that the pipeline uses instead.
void BM_PipelineStageEstimateBatch(benchmark::State& state) {
  runEstimator(state, [](Stages const& s, zs::ForceModel& m) { return s.estimateBatch(m); });
}
BENCHMARK(BM_PipelineStageEstimateBatch)->Unit(benchmark::kMillisecond);

// The same as the UT1-rate pass runs it.
void BM_PipelineStageEstimateRatePass(benchmark::State& state) {
  runEstimator(state, [](Stages const& s, zs::ForceModel& m) { return s.estimateRate(m); });
}
BENCHMARK(BM_PipelineStageEstimateRatePass)->Unit(benchmark::kMillisecond);

// Seven days of Gauss-Jackson steps from the estimated state.
void BM_PipelineStagePropagate7Days(benchmark::State& state) {
  if (!data().ok) return state.SkipWithError("shared data not found");
  zh::PipelineOptions const& o = data().options;
  Stages const stages(o);
  zs::ForceModel model;
  stages.configure(model);
  stages.estimate(model);
  zs::BinaryData bytes;
  model.serialize(bytes);
  unsigned const steps = static_cast<unsigned>((o.fitEnd - stages.start()) / o.sampleStep +
                                               kDays * zh::kSecondsPerDay / o.sampleStep);
  for (auto _ : state) {
    state.PauseTiming();
    zs::ForceModel copy;
    unsigned int position = 0;
    if (!copy.deserialize(bytes, position)) return state.SkipWithError("the force model does not read back");
    zs::Mat R(3, 1), V(3, 1);
    zs::OdeFunGj8 ode(copy);
    state.ResumeTiming();
    benchmark::DoNotOptimize(copy.getGj8Integrator().gj8Propagate(ode, R, V, steps));
  }
}
BENCHMARK(BM_PipelineStagePropagate7Days)->Unit(benchmark::kMillisecond);

// Seven days of integration steps turned from the integrator's frame into
// Earth-fixed antenna positions in one call, as the pipeline converts them
// before taking its windows (the output stage before the fit).
void BM_PipelineStageEarthFixed7Days(benchmark::State& state) {
  if (!data().ok) return state.SkipWithError("shared data not found");
  zh::PipelineOptions const& o = data().options;
  zs::ForceModel model;  // the frames and the antenna offset, no orbit needed
  Stages(o).configure(model);
  std::size_t const n = static_cast<std::size_t>(kDays * zh::kSecondsPerDay / o.sampleStep) + 1;
  zs::Mat r(3, n), v(3, n);
  zs::Vec t(n);
  for (std::size_t i = 0; i < n; ++i) {
    double const angle = 1.46e-4 * o.sampleStep * static_cast<double>(i);
    r(0, i) = 26.56e6 * std::cos(angle);
    r(1, i) = 26.56e6 * std::sin(angle);
    r(2, i) = 0.0;
    v(0, i) = -3874.0 * std::sin(angle);
    v(1, i) = 3874.0 * std::cos(angle);
    v(2, i) = 0.0;
    t(i) = o.fitEnd + static_cast<double>(i) * o.sampleStep;
  }
  int const leap = zh::leapSecondsAt(o.fitEnd);
  for (auto _ : state) {
    zs::Mat rw(r), vw(v);
    zs::int0StatesToItrs(model, t, leap, true, rw, vw);
    benchmark::DoNotOptimize(rw.data().begin());
  }
  state.counters["epochs"] = static_cast<double>(n);
}
BENCHMARK(BM_PipelineStageEarthFixed7Days)->Unit(benchmark::kMillisecond);

// Fit and encoding of every two-hourly window of seven days, from stored Earth-fixed states.
void BM_PipelineStageFitAndEncode7Days(benchmark::State& state) {
  if (!data().ok) return state.SkipWithError("shared data not found");
  zh::PipelineOptions const& o = data().options;
  Stages const stages(o);
  zs::ForceModel model;
  stages.configure(model);
  stages.estimate(model);
  int const n = o.gpsWindowSamples;
  unsigned const steps = static_cast<unsigned>((o.fitEnd - stages.start()) / o.sampleStep +
                                               kDays * zh::kSecondsPerDay / o.sampleStep + n);
  zs::Mat R(3, steps), V(3, steps);
  zs::OdeFunGj8 ode(model);
  model.getGj8Integrator().gj8Propagate(ode, R, V, steps);
  int const leap = zh::leapSecondsAt(o.fitEnd);
  std::vector<zs::Mat> windowsR, windowsV;
  std::vector<zs::Vec> windowsT;
  for (double toe = o.fitEnd; toe <= o.fitEnd + kDays * zh::kSecondsPerDay; toe += kGpsSpacing) {
    zs::Mat wr(3, static_cast<std::size_t>(n)), wv(3, static_cast<std::size_t>(n));
    zs::Vec wt(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) {
      double const t = toe - (n / 2 - 1) * o.sampleStep + i * o.sampleStep;
      std::size_t const col = static_cast<std::size_t>((t - stages.start()) / o.sampleStep) - 1;
      boost::numeric::ublas::column(wr, static_cast<std::size_t>(i)) = boost::numeric::ublas::column(R, col);
      boost::numeric::ublas::column(wv, static_cast<std::size_t>(i)) = boost::numeric::ublas::column(V, col);
      wt(static_cast<std::size_t>(i)) = t;
    }
    zs::int0StatesToItrs(model, wt, leap, true, wr, wv);
    windowsR.push_back(wr);
    windowsV.push_back(wv);
    windowsT.push_back(wt);
  }
  // Each fit starts from the previous window's elements, as the pipeline's do.
  for (auto _ : state) {
    zs::Vec previous;
    for (std::size_t w = 0; w < windowsR.size(); ++w) {
      zs::Vec kepler(17);
      zarn::core::GpsEphemeris eph;
      zs::satelliteStatesToKeplerian(zarn::core::GPS, windowsR[w], windowsV[w], windowsT[w], previous,
                                     kepler);
      benchmark::DoNotOptimize(zs::keplerianToGpsEphemeris(kepler, eph));
      previous = kepler;
    }
  }
  state.counters["windows"] = static_cast<double>(windowsR.size());
}
BENCHMARK(BM_PipelineStageFitAndEncode7Days)->Unit(benchmark::kMillisecond);

void BM_PipelineOneSatellite7Days(benchmark::State& state) {
  if (!data().ok) return state.SkipWithError("shared data not found");
  std::vector<zh::Ephemeris> const& records = data().records.at({'G', kSatellite});
  for (auto _ : state) {
    zh::SatellitePrediction const p = zh::predictFromBroadcast(records, data().options);
    if (p.predicted.empty()) return state.SkipWithError(("no prediction: " + p.skipReason).c_str());
    benchmark::DoNotOptimize(p);
  }
}
BENCHMARK(BM_PipelineOneSatellite7Days)->Unit(benchmark::kMillisecond);

// Every GPS satellite of the file, one after the other on this thread; with
// argument 0 the filter and the block defaults instead of the batch fit.
void BM_PipelineGpsConstellation7Days(benchmark::State& state) {
  if (!data().ok) return state.SkipWithError("shared data not found");
  zh::PipelineOptions options = data().options;
  options.estimateSrp = state.range(0) != 0;
  std::size_t satellites = 0, ephemerides = 0;
  for (auto _ : state) {
    satellites = ephemerides = 0;
    for (auto const& entry : data().records) {
      if (entry.first.system != 'G') continue;
      zh::SatellitePrediction const p = zh::predictFromBroadcast(entry.second, options);
      satellites += p.predicted.empty() ? 0 : 1;
      ephemerides += p.predicted.size();
    }
  }
  state.counters["satellites"] = static_cast<double>(satellites);
  state.counters["ephemerides"] = static_cast<double>(ephemerides);
}
BENCHMARK(BM_PipelineGpsConstellation7Days)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->Iterations(3);

// GLONASS R01 of the same day: filter start, seven days of half-hourly records.
void BM_PipelineOneGlonassSatellite7Days(benchmark::State& state) {
  static std::vector<zh::Ephemeris> const records = [] {
    try {
      return zh::collectEphemerides({zh::readRinexNav(std::string(ZARN_SHARED_DIR) +
                                                      "/data/2016-251_252_smartloc/brdc2510.16g")})
          .at({'R', 1});
    } catch (std::exception const&) {
      return std::vector<zh::Ephemeris>();
    }
  }();
  if (!data().ok || records.empty()) return state.SkipWithError("shared data not found");
  std::size_t ephemerides = 0;
  for (auto _ : state) {
    zh::SatellitePrediction const p = zh::predictFromBroadcast(records, data().options);
    if (p.predicted.empty()) return state.SkipWithError(("no prediction: " + p.skipReason).c_str());
    ephemerides = p.predicted.size();
    benchmark::DoNotOptimize(p);
  }
  state.counters["ephemerides"] = static_cast<double>(ephemerides);
}
BENCHMARK(BM_PipelineOneGlonassSatellite7Days)->Unit(benchmark::kMillisecond);

// The same through predictConstellation on one thread, as the tool runs it:
// with argument 1 the UT1 rate is estimated first (a batch fit per satellite
// more), with 0 it is held.
void BM_PipelineGpsConstellationUt1Rate7Days(benchmark::State& state) {
  if (!data().ok) return state.SkipWithError("shared data not found");
  zh::ConstellationOptions options;
  options.pipeline = data().options;
  options.pipeline.estimateUt1Rate = state.range(0) != 0;
  options.fitEndGiven = true;
  options.systems = {'G'};
  options.threads = 1;
  std::size_t ephemerides = 0;
  for (auto _ : state) {
    ephemerides = 0;
    for (zh::SatellitePrediction const& p : zh::predictConstellation(data().records, options).satellites)
      ephemerides += p.predicted.size();
  }
  state.counters["ephemerides"] = static_cast<double>(ephemerides);
}
BENCHMARK(BM_PipelineGpsConstellationUt1Rate7Days)
    ->Arg(1)
    ->Arg(0)
    ->MeasureProcessCPUTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);

// Every GPS and BeiDou satellite (and any other system the pipeline
// predicts) of one day of mixed broadcast ephemerides, seven days ahead on one
// thread: the whole-constellation figure, with the CPU time per satellite.
std::map<zh::SatelliteId, std::vector<zh::Ephemeris>> const& mixedRecords() {
  static std::map<zh::SatelliteId, std::vector<zh::Ephemeris>> const records = [] {
    try {
      return zh::collectEphemerides({zh::readRinexNav(std::string(ZARN_SHARED_DIR) + kMixedNavFile)});
    } catch (std::exception const&) {
      return std::map<zh::SatelliteId, std::vector<zh::Ephemeris>>{};
    }
  }();
  return records;
}

void BM_PipelineAllConstellations7Days(benchmark::State& state) {
  std::map<zh::SatelliteId, std::vector<zh::Ephemeris>> const& records = mixedRecords();
  if (records.empty()) return state.SkipWithError("shared data not found");
  zh::PipelineOptions options;
  zh::parseGpsTime(kMixedFitEnd, options.fitEnd);
  options.days = kDays;
  std::map<char, std::size_t> satellites;
  std::map<char, double> afterEstimation;  // CPU seconds from the estimate to the last record
  std::size_t ephemerides = 0;
  for (auto _ : state) {
    satellites.clear();
    afterEstimation.clear();
    ephemerides = 0;
    for (auto const& entry : records) {
      zh::SatellitePrediction const p = zh::predictFromBroadcast(entry.second, options);
      if (!p.predicted.empty()) ++satellites[entry.first.system];
      afterEstimation[entry.first.system] += p.propagateSeconds;
      ephemerides += p.predicted.size();
    }
  }
  std::size_t total = 0;
  for (auto const& s : satellites) {
    state.counters[std::string("satellites_") + s.first] = static_cast<double>(s.second);
    // ms of CPU per satellite for propagation, conversion, fit and encoding.
    if (s.second > 0)
      state.counters[std::string("after_estimation_ms_") + s.first] =
          1e3 * afterEstimation[s.first] / static_cast<double>(s.second);
    total += s.second;
  }
  state.counters["ephemerides"] = static_cast<double>(ephemerides);
  // Seconds of CPU per satellite and iteration.
  state.counters["per_satellite"] =
      benchmark::Counter(static_cast<double>(total),
                         benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_PipelineAllConstellations7Days)->Unit(benchmark::kMillisecond)->Iterations(2);

// The same day through predictConstellation on one thread, as the tool runs
// it: the UT1-rate pass over the GPS and BeiDou MEO satellites first, then
// every satellite with the median rate held, the BeiDou GEO and IGSO last.
void BM_PipelineAllConstellationsAsTool7Days(benchmark::State& state) {
  std::map<zh::SatelliteId, std::vector<zh::Ephemeris>> const& records = mixedRecords();
  if (records.empty()) return state.SkipWithError("shared data not found");
  zh::ConstellationOptions options;
  zh::parseGpsTime(kMixedFitEnd, options.pipeline.fitEnd);
  options.pipeline.days = kDays;
  options.fitEndGiven = true;
  options.threads = 1;
  std::size_t ephemerides = 0, satellites = 0, rates = 0;
  // CPU seconds per system: the estimate, and from it to the last record, of
  // the final predictions; the CPU time less their sum ("inside_ms") is the
  // UT1-rate pass and the screening and sampling of the records.
  std::map<char, double> estimation, after;
  std::map<char, std::size_t> count;
  double inside = 0.0;
  for (auto _ : state) {
    zh::ConstellationPrediction const c = zh::predictConstellation(records, options);
    ephemerides = satellites = 0;
    rates = c.ut1RateEstimates;
    for (zh::SatellitePrediction const& p : c.satellites) {
      ephemerides += p.predicted.size();
      satellites += p.predicted.empty() ? 0 : 1;
      estimation[p.sat.system] += p.estimateSeconds;
      after[p.sat.system] += p.propagateSeconds;
      count[p.sat.system] += 1;
      inside += p.estimateSeconds + p.propagateSeconds;
    }
  }
  for (auto const& n : count) {
    double const per = 1e3 / static_cast<double>(n.second);  // ms per satellite and iteration
    state.counters[std::string("estimate_ms_") + n.first] = estimation[n.first] * per;
    state.counters[std::string("after_estimation_ms_") + n.first] = after[n.first] * per;
  }
  state.counters["inside_ms"] = 1e3 * inside / static_cast<double>(state.iterations());
  state.counters["ephemerides"] = static_cast<double>(ephemerides);
  state.counters["satellites"] = static_cast<double>(satellites);
  state.counters["rate_estimates"] = static_cast<double>(rates);
}
BENCHMARK(BM_PipelineAllConstellationsAsTool7Days)
    ->MeasureProcessCPUTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2);

}  // namespace
