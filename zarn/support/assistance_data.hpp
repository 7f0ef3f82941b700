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
#include "zarn/support/math.hpp"

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
inline bool operator!=(AssistanceData const& a, AssistanceData const& b) {
  return !(a == b);
}

// Every number zero, no outages.
ZARN_EXPORT AssistanceData makeZeroAssistanceData();

// The per-constellation store of assistance records.
class ZARN_EXPORT AssistanceDataFile {
 public:
  // Built-in parameters of a satellite without stored data: GPS 1-32, GLONASS
  // 1-24, BeiDou 1-14 (phase-centre offsets, radiation-pressure scale, error
  // model and prediction limit of the satellite flying that number; no clock
  // model, no outages). An invalid number gives the zero record; a valid
  // Galileo number the zero record with gnssType and svId set.
  static AssistanceData defaultAssistance(core::GnssType type, unsigned short svId);
};

// Moves a satellite position (m, size 3, Earth-rotating frame of date at GPS
// time t) from the centre of mass to the antenna phase centre. The offset is
// given in the body frame of nominal yaw steering: z towards the Earth's
// centre, y along z x (Sun - satellite), x completing the triad (towards the
// sunlit side). leapSeconds = GPS - UTC, for the Earth rotation. Undefined
// when Sun, satellite and Earth are aligned.
ZARN_EXPORT Vec addApcOffset(Vec const& position, AntennaPhase const& antPhase, double t, int leapSeconds);
// The inverse move: antenna phase centre to centre of mass.
ZARN_EXPORT Vec removeApcOffset(Vec const& position, AntennaPhase const& antPhase, double t, int leapSeconds);

}  // namespace support
}  // namespace zarn

#endif
