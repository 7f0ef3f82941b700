#include "zarn/support/assistance_data.hpp"

#include <cmath>
#include <stdexcept>

#include "apc_offset.hpp"
#include "force_model/third_body.hpp"
#include "tables/assistance_default_table.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/log.hpp"
#include "zarn/support/math.hpp"
#include "zarn/support/utility.hpp"

namespace zarn {
namespace support {

AssistanceData makeZeroAssistanceData() {
  AssistanceData data;
  data.gnssType = static_cast<core::GnssType>(0);
  data.svId = 0;
  data.svFlags = 0;
  data.maxPredictionLength = 0;
  data.srp.fill(0.0);
  data.antPhase.fill(0.0);
  data.errorParams.fill(0.0);
  data.clockModelParams.fill(0.0);
  data.outages.clear();
  return data;
}

namespace {

void copyRow(tables::DefaultAssistanceRow const& row, AssistanceData& data) {
  data.maxPredictionLength = row.maxPredictionLength;
  for (int i = 0; i < 2; ++i) data.srp[i] = row.srp[i];
  for (int i = 0; i < 3; ++i) {
    data.antPhase[i] = row.antPhase[i];
    data.errorParams[i] = row.errorParams[i];
  }
}

// Nominal yaw-steering body axes: z towards the Earth's centre, y along
// z x (Sun direction), x completing the right-handed set on the Sun's side
// (Montenbruck et al. 2015, Adv. Space Res. 56(6), 1015-1029). The
// Sun is the force model's series Sun in the Earth-rotating frame of date; no
// check of the degenerate alignment.
void cross3(double const (&a)[3], double const (&b)[3], double (&out)[3]) {
  out[0] = a[1] * b[2] - a[2] * b[1];
  out[1] = a[2] * b[0] - a[0] * b[2];
  out[2] = a[0] * b[1] - a[1] * b[0];
}

void normalise(double (&a)[3]) {
  double const n = std::sqrt(a[0] * a[0] + a[1] * a[1] + a[2] * a[2]);
  for (double& c : a) c /= n;
}

void moveAlongBodyAxes(double const (&position)[3], double x, double y, double z,
                       double const (&sunOfDate)[3], double (&out)[3]) {
  double eS[3], eZ[3], eY[3], eX[3];
  for (int i = 0; i < 3; ++i) {
    eS[i] = sunOfDate[i] - position[i];
    eZ[i] = -position[i];
  }
  normalise(eS);
  normalise(eZ);
  cross3(eZ, eS, eY);
  normalise(eY);
  cross3(eY, eZ, eX);
  normalise(eX);
  for (int i = 0; i < 3; ++i) out[i] = position[i] + x * eX[i] + y * eY[i] + z * eZ[i];
}

Vec moveAlongBodyAxes(Vec const& position, double x, double y, double z, double const (&sunOfDate)[3]) {
  double const p[3] = {position(0), position(1), position(2)};
  double moved[3];
  moveAlongBodyAxes(p, x, y, z, sunOfDate, moved);
  Vec result(3);
  for (int i = 0; i < 3; ++i) result(i) = moved[i];
  return result;
}

// The Sun in the Earth-rotating frame of date of t, without the Moon that
// sunMoonOfDate also gives.
void sunOfDate(double t, int leapSeconds, double (&sun)[3]) {
  double j2000[3];
  forces::sunJ2000(t, j2000);
  Mat const m = icrsToInt0(t, 0.0, leapSeconds);
  for (int i = 0; i < 3; ++i) sun[i] = m(i, 0) * j2000[0] + m(i, 1) * j2000[1] + m(i, 2) * j2000[2];
}

}  // namespace

AssistanceData AssistanceDataFile::defaultAssistance(core::GnssType type, unsigned short svId) {
  AssistanceData data = makeZeroAssistanceData();
  if (!validSvId(type, svId)) return data;
  data.gnssType = type;
  data.svId = svId;
  data.svFlags = 0;
  unsigned const i = svId - 1u;
  switch (type) {
    case core::GPS:
      copyRow(tables::kGpsDefaultAssistance[i], data);
      for (int k = 0; k < 4; ++k) data.clockModelParams[k] = tables::kGpsDefaultClock[i][k];
      break;
    case core::BEIDOU:
      copyRow(tables::kBeidouDefaultAssistance[i], data);
      for (int k = 0; k < 4; ++k) data.clockModelParams[k] = tables::kBeidouDefaultClock[i][k];
      break;
    case core::GLONASS:
      copyRow(tables::kGlonassDefaultAssistance[i], data);
      // GLONASS keeps time, offset and drift in c0, c4, c5.
      data.clockModelParams[0] = tables::kGlonassDefaultClock[i][0];
      data.clockModelParams[4] = tables::kGlonassDefaultClock[i][1];
      data.clockModelParams[5] = tables::kGlonassDefaultClock[i][2];
      break;
    default:
      break;
  }
  return data;
}

Vec addApcOffset(Vec const& position, AntennaPhase const& antPhase, double t, int leapSeconds) {
  if (position.size() != 3) ZARN_THROW(std::invalid_argument("addApcOffset: invalid size pos"));
  double sun[3];
  sunOfDate(t, leapSeconds, sun);
  return moveAlongBodyAxes(position, antPhase[0], antPhase[1], antPhase[2], sun);
}

Vec addApcOffsetInFrame(Vec const& position, AntennaPhase const& antPhase, double t, Mat const& icrsToDate) {
  if (position.size() != 3) ZARN_THROW(std::invalid_argument("addApcOffset: invalid size pos"));
  // As sunMoonOfDate turns the Sun, with the rotation given.
  double sunJ2000[3], sun[3];
  forces::sunJ2000(t, sunJ2000);
  for (int i = 0; i < 3; ++i)
    sun[i] = icrsToDate(i, 0) * sunJ2000[0] + icrsToDate(i, 1) * sunJ2000[1] + icrsToDate(i, 2) * sunJ2000[2];
  return moveAlongBodyAxes(position, antPhase[0], antPhase[1], antPhase[2], sun);
}

void addApcOffsetWithSun(double const (&position)[3], AntennaPhase const& antPhase,
                         double const (&sunOfDate)[3], double (&out)[3]) {
  moveAlongBodyAxes(position, antPhase[0], antPhase[1], antPhase[2], sunOfDate, out);
}

Vec removeApcOffset(Vec const& position, AntennaPhase const& antPhase, double t, int leapSeconds) {
  if (position.size() != 3)
    ZARN_THROW(std::invalid_argument("removeApcOffset: Position vector is not 3 dimensional."));
  double sun[3];
  sunOfDate(t, leapSeconds, sun);
  return moveAlongBodyAxes(position, -antPhase[0], -antPhase[1], -antPhase[2], sun);
}

}  // namespace support
}  // namespace zarn
