// Per-satellite model parameters that prediction needs beyond the broadcast
// ephemeris: radiation-pressure coefficients, antenna phase-centre offset,
// prediction-error and clock models, and outage periods.
#ifndef ZARN_SUPPORT_ASSISTANCE_DATA_HPP
#define ZARN_SUPPORT_ASSISTANCE_DATA_HPP

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "zarn/core/records.hpp"
#include "zarn/support/export.hpp"

namespace zarn {
namespace support {

// Solar-radiation-pressure coefficients (scale, y-bias).
struct Srp : std::array<double, 2> {};
// Antenna phase-centre offset x, y, z in the yaw-steering body frame, metres.
struct AntennaPhase : std::array<double, 3> {};
// Prediction-error model p0 t^2 + p1 t + p2.
struct PredictionErrorParams : std::array<double, 3> {};
// Clock model c0..c5.
struct ClockModelParams : std::array<double, 6> {};

struct TocPeriod {
  core::Toc start;
  core::Toc stop;
  std::string label;
};

inline bool operator==(TocPeriod const& a, TocPeriod const& b) {
  return a.start == b.start && a.stop == b.stop && a.label == b.label;
}

struct AssistanceData {
  core::GnssType gnssType = static_cast<core::GnssType>(0);
  std::uint16_t svId = 0;
  std::uint32_t svFlags = 0;
  std::uint16_t maxPredictionLength = 0;
  Srp srp{};
  AntennaPhase antPhase{};
  PredictionErrorParams errorParams{};
  ClockModelParams clockModelParams{};
  std::vector<TocPeriod> outages;
};

inline bool operator==(AssistanceData const& a, AssistanceData const& b) {
  return a.gnssType == b.gnssType && a.svId == b.svId && a.svFlags == b.svFlags &&
         a.maxPredictionLength == b.maxPredictionLength && a.srp == b.srp && a.antPhase == b.antPhase &&
         a.errorParams == b.errorParams && a.clockModelParams == b.clockModelParams && a.outages == b.outages;
}
inline bool operator!=(AssistanceData const& a, AssistanceData const& b) { return !(a == b); }

// Every number zero, no outages.
ZARN_EXPORT AssistanceData makeZeroAssistanceData();

}  // namespace support
}  // namespace zarn

#endif
