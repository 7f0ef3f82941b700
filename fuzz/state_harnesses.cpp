// Round-trip harnesses of the stateful classes' serialize()/deserialize().
// Each starts from a realistic primed state, so that "a refused input leaves
// the object unchanged" compares against something other than defaults.
//
// A new class with the same members needs one registration: a function that
// builds its primed state and ZARN_FUZZ_STATE(name, Class, primer).
#include <cmath>
#include <map>

#include "harness.hpp"
#include "zarn/support/assistance_data.hpp"
#include "zarn/support/clock_filter.hpp"
#include "zarn/support/constellation_analyzer.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/eop_filter.hpp"
#include "zarn/support/ephemeris_cache.hpp"
#include "zarn/support/force_model.hpp"
#include "zarn/support/gamma_estimator.hpp"
#include "zarn/support/numerical_integration.hpp"

namespace zarn {
namespace fuzz {
namespace {

constexpr double kGm = 3.986004418e14;    // m^3/s^2, WGS 84
constexpr double kTRef = 1157328000.0;    // 2016-09-08 00:00 GPS seconds
constexpr int kLeapSeconds = 17;          // s, GPS - UTC in 2016
constexpr double kStep = 300.0;           // s
constexpr unsigned int kPrimeSteps = 12;  // beyond the start-up

struct TwoBody : support::OdeFunction2 {
  void operator()(support::Vec const& y, support::Vec& ddy, double) override {
    double const r = norm_2(y);
    ddy = -kGm / (r * r * r) * y;
  }
};

// A GPS orbit (radius 26560 km, circular, inclined) integrated a few steps.
void primeIntegrator(support::Gj8Integrator& integrator) {
  constexpr double kRadius = 26560e3;  // m
  double const speed = std::sqrt(kGm / kRadius);
  support::Vec r(3, 0.0);
  support::Vec v(3, 0.0);
  r(0) = kRadius;
  v(1) = speed * 0.5;
  v(2) = speed * 0.866;
  TwoBody f;
  ZARN_FUZZ_CHECK(integrator.gj8Init(f, r, v, kTRef, kStep) == 0);
  support::Mat R(3, 1);
  support::Mat V(3, 1);
  ZARN_FUZZ_CHECK(integrator.gj8Propagate(f, R, V, kPrimeSteps) == kPrimeSteps);
}

BinaryData primedIntegrator() {
  support::Gj8Integrator integrator;
  primeIntegrator(integrator);
  return encodeState(integrator);
}

BinaryData primedForceModel() {
  support::ForceModel model;
  model.setAssistanceData(support::AssistanceDataFile::defaultAssistance(core::GPS, 5));
  model.setLeapInfo({support::LeapInfo{1025136017, 17}, support::LeapInfo{1167264018, 18}});
  constexpr double kArcsecond = 4.84813681109536e-6;  // rad
  model.setEopInfo(support::makeEopInfo(support::Eop{0.12 * kArcsecond, 0.35 * kArcsecond}));
  model.setInertialFrameInfo(support::makeInertialFrameInfo(kTRef, -0.3, kLeapSeconds));
  model.setNumberOfGeopotentialCoefficients(12);
  primeIntegrator(model.getGj8Integrator());
  return encodeState(model);
}

// A GPS clock (bias, drift, drift rate) followed through a day of uploads.
BinaryData primedClockFilter() {
  support::Vec clock(3);
  clock(0) = 2.1e-4;
  clock(1) = -3.4e-12;
  clock(2) = 0.0;
  support::ClockFilter filter(core::GPS, kTRef, clock, false);
  constexpr double kUpload = 7200.0;  // s
  for (int k = 1; k <= 6; ++k) {
    clock(0) += clock(1) * kUpload + 1e-10 * (k % 3);
    filter.update(kTRef + k * kUpload, clock);
  }
  return encodeState(filter);
}

BinaryData primedGammaEstimator() {
  constexpr double kDay = 86400.0;  // s
  support::GammaEstimator estimator(-1.2e-5, 9.1e-13, kTRef);
  estimator.update(-1.2e-5 - 2 * kDay * 9.1e-13, 9.0e-13, kTRef + 2 * kDay);
  estimator.update(-1.2e-5 - 15 * kDay * 9.1e-13, 9.2e-13, kTRef + 15 * kDay);
  return encodeState(estimator);
}

// Daily pole estimates (arcsec) with a 2 mas standard deviation.
BinaryData primedEopFilter() {
  constexpr double kDay = 86400.0;  // s
  support::EopFilter filter;
  filter.initialize(support::Eop{0.12, 0.41}, kTRef);
  support::Mat R(2, 2, 0.0);
  R(0, 0) = R(1, 1) = 4e-6;
  for (int k = 1; k <= 4; ++k) filter(support::Eop{0.12 + 0.001 * k, 0.41 - 0.002 * k}, R, kTRef + k * kDay);
  return encodeState(filter);
}

constexpr unsigned int kCacheCapacity = 8;
constexpr double kCacheDelta = 60.0;  // s

support::EphemerisCache makeCache() {
  return support::EphemerisCache(kCacheCapacity, kCacheDelta);
}

// GLONASS records every 30 minutes (tb steps), positions of a real orbit.
BinaryData primedEphemerisCache() {
  support::EphemerisCache cache = makeCache();
  constexpr unsigned int kHalfHour = 1800;  // s
  for (unsigned int k = 0; k < 5; ++k) {
    core::GlonassEphemeris e;
    e.svId = 7;
    e.tb = static_cast<std::int16_t>(2 * k + 1);
    e.time = core::Toc{5, 1000, (k + 1) * kHalfHour - 900};
    e.frequencyNumber = 5;
    constexpr double kUnitsPerKm = 2048.0;  // 2^11
    e.x = static_cast<std::int32_t>((-14950.7 + 10.0 * k) * kUnitsPerKm);
    e.y = static_cast<std::int32_t>((8035.2 - 7.0 * k) * kUnitsPerKm);
    e.z = static_cast<std::int32_t>((19862.1 + 3.0 * k) * kUnitsPerKm);
    cache.insert(e);
  }
  return encodeState(cache);
}

BinaryData primedConstellationAnalyzer() {
  support::ConstellationAnalyzer analyzer;
  std::map<unsigned short, support::AssistanceData> gps;
  for (unsigned short sv : {3, 5, 24}) {
    gps[sv] = support::AssistanceDataFile::defaultAssistance(core::GPS, sv);
    analyzer.recordEvent(core::GPS, sv, support::PredictorEvent{kTRef, 2, core::OK});
    analyzer.recordEvent(core::GPS, sv,
                         support::PredictorEvent{kTRef + 60, 3, sv == 24 ? core::GENERAL_ERROR : core::OK});
  }
  analyzer.updateAssistanceData(core::GPS, gps);
  analyzer.updateAssistanceData(core::BEIDOU,
                                {{3, support::AssistanceDataFile::defaultAssistance(core::BEIDOU, 3)}});
  analyzer.recordEvent(core::BEIDOU, 3, support::PredictorEvent{kTRef, 1, core::OK});
  return encodeState(analyzer);
}

template <class T, T (*make)(), BinaryData (*primer)()>
void runState(std::uint8_t const* data, std::size_t size) {
  static BinaryData const primed = primer();
  stateRoundTrip<T, make>(primed, data, size);
}

template <BinaryData (*primer)()>
std::vector<std::string> stateSeeds() {
  return {asString(primer())};
}

#define ZARN_FUZZ_STATE_MADE(name, T, make, primer) \
  ZARN_FUZZ_HARNESS("state_" name, (runState<T, make, primer>), stateSeeds<primer>)
#define ZARN_FUZZ_STATE(name, T, primer) ZARN_FUZZ_STATE_MADE(name, T, makeDefault<T>, primer)

ZARN_FUZZ_STATE("gj8_integrator", support::Gj8Integrator, primedIntegrator);
ZARN_FUZZ_STATE("force_model", support::ForceModel, primedForceModel);
ZARN_FUZZ_STATE("clock_filter", support::ClockFilter, primedClockFilter);
ZARN_FUZZ_STATE("gamma_estimator", support::GammaEstimator, primedGammaEstimator);
ZARN_FUZZ_STATE("eop_filter", support::EopFilter, primedEopFilter);
ZARN_FUZZ_STATE_MADE("ephemeris_cache", support::EphemerisCache, makeCache, primedEphemerisCache);
ZARN_FUZZ_STATE("constellation_analyzer", support::ConstellationAnalyzer, primedConstellationAnalyzer);

}  // namespace
}  // namespace fuzz
}  // namespace zarn
