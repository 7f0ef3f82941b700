// Round-trip harnesses of the free byte codecs, one registration per type.
// Seeds are encodings of records taken from real broadcast files where there
// are any, otherwise of typical values.
#include <cmath>
#include <limits>

#include "harness.hpp"
#include "seed_data.hpp"
#include "zarn/support/assistance_data.hpp"
#include "zarn/support/coordinate_conversion.hpp"

namespace zarn {
namespace fuzz {
namespace {

using core::BeidouAlmanac;
using core::BeidouEphemeris;
using core::GlonassAlmanac;
using core::GlonassEphemeris;
using core::GpsAlmanac;
using core::GpsEphemeris;
using support::AssistanceData;
using support::Eop;
using support::EopInfo;
using support::InertialFrameInfo;
using support::LeapInfo;
using support::Mat;
using support::PredictorEvent;
using support::TocPeriod;

// Almanacs are not in navigation files; these carry the orbit of a real
// ephemeris at almanac resolution.
template <class Almanac, class Ephemeris, class Fill>
std::vector<Almanac> almanacsOf(std::vector<Ephemeris> const& ephemerides, Fill fill) {
  std::vector<Almanac> out;
  for (Ephemeris const& e : ephemerides) {
    Almanac a;
    a.svId = e.svId;
    fill(e, a);
    out.push_back(a);
  }
  return out;
}

std::vector<GpsAlmanac> gpsAlmanacs() {
  return almanacsOf<GpsAlmanac>(realGps(), [](GpsEphemeris const& e, GpsAlmanac& a) {
    a.toa = e.toe;
    a.wna = static_cast<std::uint16_t>(e.toe.second % 256);
    a.e = static_cast<std::uint16_t>(e.e >> 12);
    a.sqrtA = e.sqrtA >> 8;
    a.omega0 = e.omega0 >> 8;
    a.omega = e.omega >> 8;
    a.m0 = e.m0 >> 8;
  });
}

std::vector<BeidouAlmanac> beidouAlmanacs() {
  return almanacsOf<BeidouAlmanac>(realBeidou(), [](BeidouEphemeris const& e, BeidouAlmanac& a) {
    a.toa = e.toe;
    a.sqrtA = e.sqrtA >> 8;
  });
}

std::vector<GlonassAlmanac> glonassAlmanacs() {
  return almanacsOf<GlonassAlmanac>(realGlonass(), [](GlonassEphemeris const& e, GlonassAlmanac& a) {
    a.time = e.time;
    a.na = static_cast<std::uint16_t>(e.time.second);
    a.frequencyNumber = e.frequencyNumber;
    a.tau = static_cast<std::int16_t>(e.tauN >> 12);
  });
}

std::vector<double> doubles() {
  return {0.0,
          -0.0,
          1.0,
          -2.5,
          26560e3,
          3.986004418e14,
          std::numeric_limits<double>::denorm_min(),
          std::numeric_limits<double>::max(),
          std::numeric_limits<double>::infinity(),
          std::numeric_limits<double>::quiet_NaN()};
}

std::vector<Mat> matrices() {
  return {support::makeEopInfo(Eop{1e-6, 2e-6}).matrix, Mat(0, 0), Mat(1, 2, 0.5)};
}

std::vector<Eop> eops() {
  return {Eop{}, Eop{0.12 * 4.84813681109536e-6, 0.35 * 4.84813681109536e-6}};
}

std::vector<EopInfo> eopInfos() {
  std::vector<EopInfo> out;
  for (Eop const& e : eops()) out.push_back(support::makeEopInfo(e));
  return out;
}

std::vector<InertialFrameInfo> frameInfos() {
  constexpr double kTRef = 1157328000.0;  // 2016-09-08 00:00 GPS
  return {support::makeInertialFrameInfo(kTRef, -0.3, 17), InertialFrameInfo{}};
}

std::vector<PredictorEvent> events() {
  return {PredictorEvent{1157328000.0, 1, core::OK}, PredictorEvent{1157414400.0, 3, core::INVALID_TIME}};
}

std::vector<LeapInfo> leaps() {
  return {LeapInfo{1025136017, 17}, LeapInfo{1167264018, 18}};
}

std::vector<TocPeriod> periods() {
  return {TocPeriod{core::Toc{1, 889, 345600}, core::Toc{1, 890, 0}, "maneuver"}, TocPeriod{}};
}

std::vector<AssistanceData> assistance() {
  std::vector<AssistanceData> out = {support::makeZeroAssistanceData()};
  for (unsigned short sv : {1, 5, 24})
    out.push_back(support::AssistanceDataFile::defaultAssistance(core::GPS, sv));
  out.push_back(support::AssistanceDataFile::defaultAssistance(core::GLONASS, 7));
  out.push_back(support::AssistanceDataFile::defaultAssistance(core::BEIDOU, 3));
  out.back().outages = periods();
  return out;
}

std::vector<std::string> strings() {
  return {"", "G05", std::string("a\0b", 3)};
}

template <class T>
std::vector<std::vector<T>> listsOf(std::vector<T> const& values) {
  return {std::vector<T>{}, values};
}

// Registers the round trip of T; the rest is a function returning seed values.
#define ZARN_FUZZ_CODEC(name, T, ...)                                                       \
  ZARN_FUZZ_HARNESS(                                                                        \
      "codec_" name, [](std::uint8_t const* d, std::size_t n) { codecRoundTrip<T>(d, n); }, \
      []() { return codecSeeds<T>((__VA_ARGS__)()); })

ZARN_FUZZ_CODEC("gps_ephemeris", GpsEphemeris, realGps);
ZARN_FUZZ_CODEC("beidou_ephemeris", BeidouEphemeris, realBeidou);
ZARN_FUZZ_CODEC("glonass_ephemeris", GlonassEphemeris, realGlonass);
ZARN_FUZZ_CODEC("gps_almanac", GpsAlmanac, gpsAlmanacs);
ZARN_FUZZ_CODEC("beidou_almanac", BeidouAlmanac, beidouAlmanacs);
ZARN_FUZZ_CODEC("glonass_almanac", GlonassAlmanac, glonassAlmanacs);
ZARN_FUZZ_CODEC("assistance_data", AssistanceData, assistance);
ZARN_FUZZ_CODEC("toc_period", TocPeriod, periods);
ZARN_FUZZ_CODEC("toc", core::Toc, [] { return std::vector<core::Toc>{core::Toc{1, 889, 345600}}; });
ZARN_FUZZ_CODEC("srp", support::Srp, [] { return std::vector<support::Srp>{assistance()[1].srp}; });
ZARN_FUZZ_CODEC("antenna_phase", support::AntennaPhase,
                [] { return std::vector<support::AntennaPhase>{assistance()[1].antPhase}; });
ZARN_FUZZ_CODEC("prediction_error_params", support::PredictionErrorParams,
                [] { return std::vector<support::PredictionErrorParams>{assistance()[1].errorParams}; });
ZARN_FUZZ_CODEC("clock_model_params", support::ClockModelParams,
                [] { return std::vector<support::ClockModelParams>{assistance()[1].clockModelParams}; });
ZARN_FUZZ_CODEC("eop", Eop, eops);
ZARN_FUZZ_CODEC("eop_info", EopInfo, eopInfos);
ZARN_FUZZ_CODEC("inertial_frame_info", InertialFrameInfo, frameInfos);
ZARN_FUZZ_CODEC("predictor_event", PredictorEvent, events);
ZARN_FUZZ_CODEC("double", double, doubles);
ZARN_FUZZ_CODEC("matrix", Mat, matrices);
ZARN_FUZZ_CODEC("string", std::string, strings);
ZARN_FUZZ_CODEC("gps_ephemeris_vector", std::vector<GpsEphemeris>, [] { return listsOf(realGps()); });
ZARN_FUZZ_CODEC("leap_info_vector", std::vector<LeapInfo>, [] { return listsOf(leaps()); });
ZARN_FUZZ_CODEC("string_vector", std::vector<std::string>, [] { return listsOf(strings()); });

}  // namespace
}  // namespace fuzz
}  // namespace zarn
