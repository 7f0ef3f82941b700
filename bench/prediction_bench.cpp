// One GPS satellite predicted seven days ahead, by stage: the initial-state
// filter, the Gauss-Jackson propagation alone, the fit and encoding of the
// windows alone, and the whole chain as a host runs it.
#include <benchmark/benchmark.h>

#include <vector>

#include "zarn/support/assistance_data.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/ephemeris_conversion.hpp"
#include "zarn/support/force_model.hpp"
#include "zarn/support/numerical_integration.hpp"
#include "zarn/support/prediction.hpp"
#include "zarn/support/time_conversion.hpp"

namespace zc = zarn::core;
namespace zs = zarn::support;
using zs::Mat;
using zs::Vec;

namespace {

namespace ublas = boost::numeric::ublas;

constexpr double step = 300.0;          // s, samples and integration
constexpr double fitSpan = 6 * 3600.0;  // s of broadcast samples for the filter
constexpr double days = 7.0;
constexpr double spacing = 7200.0;  // s between predicted ephemerides (GPS)
constexpr int window = 48;          // states per fit: four hours
constexpr int windows = static_cast<int>(days * 86400.0 / spacing);

// G02 of brdc2510.16n, toe 2016-09-07 00:00 GPST.
zc::GpsEphemeris broadcast() {
  zc::GpsEphemeris e;
  e.toe = zc::Toc{1, 1913 - 1024, 259200};
  e.sqrtA = 2701983690u;
  e.e = 136738682u;
  e.i0 = 645220091;
  e.omega0 = 1501809608;
  e.omega = -1427454651;
  e.m0 = -136637477;
  e.deltaN = 14963;
  e.iDot = 688;
  e.omegaDot = -24532;
  e.cuc = -16;
  e.cus = 2998;
  e.crc = 8618;
  e.crs = -60;
  e.cic = -34;
  e.cis = 129;
  return e;
}

struct Setup {
  zc::GpsEphemeris eph = broadcast();
  double tStart = 1913 * 604800.0 + 259200.0 - fitSpan;
  int leap = zs::leapSeconds(tStart, true, {});
  Vec times;
  Mat positions, velocities;

  Setup() {
    unsigned const n = static_cast<unsigned>(fitSpan / step) + 1;
    times.resize(n);
    positions.resize(n, 3);
    velocities.resize(n, 3);
    Vec r(3), v(3);
    for (unsigned k = 0; k < n; ++k) {
      times(k) = tStart + k * step;
      zs::gpsEphemerisToEcef(eph, times(k), r, v);
      ublas::row(positions, k) = r;
      ublas::row(velocities, k) = v;
    }
  }

  void configure(zs::ForceModel& model, int degree) const {
    model.setNumberOfGeopotentialCoefficients(degree);
    model.setInertialFrameInfo(zs::makeInertialFrameInfo(tStart, 0.0, leap));
    model.setEopInfo(zs::makeEopInfo(zs::Eop{}));
    zs::AssistanceData data = zs::makeZeroAssistanceData();
    data.srp[0] = 1.0;
    data.antPhase = zs::AntennaPhase{{0.3, 0.0, 1.1}};
    model.setAssistanceData(data);
  }

  double estimate(zs::ForceModel& model) const {
    return zs::estimateInitialState(times, positions, velocities, zs::Eop{}, model, false, zs::MEO).epoch;
  }

  // Windows every two hours; n = 1 propagates only. Returns the fits that encoded.
  int predict(zs::ForceModel& model, double tInit, int n) const {
    Vec r(3), v(3), kepler;
    double epoch = 0.0;
    double t0 = n % 2 == 0 ? tInit : tInit - step;
    double t1 = tInit + 2 * spacing;
    int good = 0;
    for (int w = 0; w < windows; ++w, t1 += spacing) {
      if (zs::propagateSatellite(zc::GPS, t0, t1, step, n, r, v, model, kepler, r, v, epoch) <= 0) break;
      if (n > 1) {
        zc::GpsEphemeris out;
        good += zs::keplerianToGpsEphemeris(kepler, out) ? 1 : 0;
      }
      t0 = t1 - step;
    }
    return good;
  }
};

void BM_Estimate(benchmark::State& state) {
  Setup const s;
  zs::ForceModel model;
  s.configure(model, static_cast<int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(s.estimate(model));
}
BENCHMARK(BM_Estimate)->Arg(8)->Arg(16)->Unit(benchmark::kMillisecond);

void BM_Propagate7Days(benchmark::State& state) {
  Setup const s;
  zs::ForceModel model;
  s.configure(model, static_cast<int>(state.range(0)));
  double const tInit = s.estimate(model);
  zs::BinaryData start;
  model.serialize(start);
  for (auto _ : state) {
    unsigned position = 0;
    model.deserialize(start, position);
    s.predict(model, tInit, 1);
  }
}
BENCHMARK(BM_Propagate7Days)->Arg(8)->Arg(16)->Unit(benchmark::kMillisecond);

// The 84 four-hour spans of Earth-fixed states that a seven-day prediction
// fits, from one Gauss-Jackson run and toEcef.
void BM_FitAndEncode7Days(benchmark::State& state) {
  Setup const s;
  zs::ForceModel model;
  s.configure(model, 8);
  double const tInit = s.estimate(model);
  unsigned const total = static_cast<unsigned>(days * 86400.0 / step) + window;
  Mat ri(3, total), vi(3, total);
  zs::OdeFunGj8 ode(model);
  model.getGj8Integrator().gj8Propagate(ode, ri, vi, total);
  Mat re(3, total), ve(3, total);
  Vec epochs(total), r(3), v(3), rItrs(3), vItrs(3);
  for (unsigned k = 0; k < total; ++k) {
    epochs(k) = tInit + (k + 1) * step;
    noalias(r) = ublas::column(ri, k);
    noalias(v) = ublas::column(vi, k);
    zs::toEcef(r, v, epochs(k), s.tStart, zs::Eop{}, 0.0, s.leap, rItrs, vItrs);
    ublas::column(re, k) = rItrs;
    ublas::column(ve, k) = vItrs;
  }
  unsigned const stride = static_cast<unsigned>(spacing / step);
  std::vector<Mat> rw, vw;
  std::vector<Vec> tw;
  for (unsigned first = 0; first + window <= total && rw.size() < windows; first += stride) {
    rw.push_back(ublas::subrange(re, 0, 3, first, first + window));
    vw.push_back(ublas::subrange(ve, 0, 3, first, first + window));
    tw.push_back(ublas::subrange(epochs, first, first + window));
  }
  Vec kepler;
  for (auto _ : state) {
    int good = 0;
    for (std::size_t w = 0; w < rw.size(); ++w) {
      zc::GpsEphemeris out;
      if (zs::satelliteStatesToKeplerian(zc::GPS, rw[w], vw[w], tw[w], kepler)) {
        good += zs::keplerianToGpsEphemeris(kepler, out) ? 1 : 0;
      }
    }
    benchmark::DoNotOptimize(good);
  }
  state.counters["windows"] = static_cast<double>(rw.size());
}
BENCHMARK(BM_FitAndEncode7Days)->Unit(benchmark::kMillisecond);

void BM_Satellite7DaysEndToEnd(benchmark::State& state) {
  Setup const s;
  zs::ForceModel model;
  s.configure(model, static_cast<int>(state.range(0)));
  int good = 0;
  for (auto _ : state) good = s.predict(model, s.estimate(model), window);
  state.counters["encoded"] = good;
}
BENCHMARK(BM_Satellite7DaysEndToEnd)->Arg(8)->Arg(16)->Unit(benchmark::kMillisecond);

}  // namespace
