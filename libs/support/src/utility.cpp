#include "zarn/support/utility.hpp"

#include <cmath>
#include <stdexcept>

#include "zarn/support/broadcast_interface.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/log.hpp"

namespace zarn {
namespace support {
namespace {

double const* uraTable(core::GnssType type) {
  return type == core::GLONASS ? broadcast::kGlonassUraMeters : broadcast::kGpsUraMeters;
}

struct SisreWeights {
  double radial;      // w_r, multiplies the radial error
  double alongCross;  // W, multiplies the squared along- and cross-track errors
};

// Radial and along/cross weights; they follow the satellites' altitude (the
// higher the orbit, the less of the along/cross error reaches the user).
constexpr SisreWeights kGpsSisre{1.0, 1.0 / 49.0};
constexpr SisreWeights kGlonassSisre{0.98, 1.0 / 45.0};
constexpr SisreWeights kBeidouGeoIgsoSisre{0.99, 1.0 / 128.0};
constexpr SisreWeights kBeidouMeoSisre{0.98, 1.0 / 54.0};

}  // namespace

std::string toString(core::Status status) {
  switch (status) {
    case core::OK:
      return "OK";
    case core::GENERAL_ERROR:
      return "GENERAL ERROR";
    case core::OUT_OF_MEMORY:
      return "OUT OF MEMORY";
    case core::UNINITIALIZED:
      return "UNINITIALIZED";
    case core::PREDICTION_DISABLED:
      return "PREDICTION DISABLED";
    case core::MAXIMUM_PREDICTION_LENGTH_EXCEEDED:
      return "MAXIMUM PREDICTION LENGTH EXCEEDED";
    case core::INVALID_GLONASS_CHANNEL:
      return "INVALID GLONASS CHANNEL";
    case core::INVALID_GNSS_TYPE:
      return "INVALID GNSS TYPE";
    case core::INVALID_SVID_NUMBER:
      return "INVALID SVID NUMBER";
    case core::INVALID_TIME:
      return "INVALID TIME";
    case core::UNHEALTHY_SV:
      return "UNHEALTHY SV";
    case core::ECLIPSED_SV:
      return "ECLIPSED SV";
    case core::SV_IN_OUTAGE:
      return "SV IN OUTAGE";
    case core::PREDICTION_ERROR_OUT_OF_BOUNDS:
      return "PREDICTION ERROR OUT-OF-BOUNDS";
    case core::UNSUPPORTED_VERSION:
      return "UNSUPPORTED VERSION";
    case core::CORRUPTED_DATA:
      return "CORRUPTED DATA";
    case core::MISSING_INITIALIZATION_PARAMETERS:
      return "MISSING INITIALIZATION PARAMETERS";
  }
  return "UNKNOWN STATUS";
}

std::string toString(core::GnssState state) {
  switch (state) {
    case core::GOOD:
      return "GOOD";
    case core::INTERMEDIATE:
      return "INTERMEDIATE";
    case core::BAD:
      return "BAD";
  }
  return "UNKNOWN STATE";
}

std::string toString(core::GnssType type) {
  switch (type) {
    case core::GPS:
      return "GPS";
    case core::GLONASS:
      return "GLONASS";
    case core::BEIDOU:
      return "BEIDOU";
    case core::GALILEO:
      return "GALILEO";
  }
  return "UNKNOWN GNSS";
}

std::pair<std::uint16_t, std::uint16_t> getSvIdRange(core::GnssType type) {
  switch (type) {
    case core::GPS:
      return {1, 32};
    case core::GLONASS:
      return {1, 24};
    case core::BEIDOU:
      return {1, 14};
    case core::GALILEO:
      return {1, 30};
  }
  return {0, 0};
}

bool validSvId(core::GnssType type, unsigned short svId) {
  if (type < core::GPS || type > core::GALILEO) return false;
  auto const range = getSvIdRange(type);
  return range.first <= svId && svId <= range.second;
}

bool isWithinOutage(core::Toc const& t, AssistanceData const& data) {
  for (TocPeriod const& outage : data.outages) {
    if (outage.start <= t && t <= outage.stop) return true;
  }
  return false;
}

bool isWithinOutage(core::Toc const& t0, core::Toc const& t1, AssistanceData const& data) {
  for (TocPeriod const& outage : data.outages) {
    bool const startsInside = t0 <= outage.start && outage.start < t1;
    bool const stopsInside = t0 <= outage.stop && outage.stop < t1;
    bool const covers = outage.start <= t0 && outage.stop >= t1;
    if (startsInside || stopsInside || covers) return true;
  }
  return false;
}

unsigned char metersToUraIndex(double metres, core::GnssType type) {
  double const* table = uraTable(type);
  double const magnitude = std::fabs(metres);
  for (int i = 0; i < broadcast::kUraIndexCount; ++i) {
    if (magnitude <= table[i]) return static_cast<unsigned char>(i);
  }
  return static_cast<unsigned char>(broadcast::kUraNoPrediction);
}

double uraIndexToMeters(unsigned char index, core::GnssType type) {
  int const i = index < broadcast::kUraIndexCount ? index : broadcast::kUraIndexCount - 1;
  return uraTable(type)[i];
}

double distance(Vec const& a, Vec const& b) {
  if (a.size() < 3 || b.size() < 3) ZARN_THROW(std::invalid_argument("distance: invalid size"));
  double const dx = b(0) - a(0);
  double const dy = b(1) - a(1);
  double const dz = b(2) - a(2);
  return std::sqrt(dx * dx + dy * dy + dz * dz);
}

double sisreError(Vec const& rtn, double clockError, core::GnssType type, BeidouSvType svType) {
  if (rtn.size() < 3) ZARN_THROW(std::invalid_argument("sisreError: invalid size rtn"));
  SisreWeights w{};
  switch (type) {
    case core::GPS:
      w = kGpsSisre;
      break;
    case core::GLONASS:
      w = kGlonassSisre;
      break;
    case core::BEIDOU:
      w = svType == GEO || svType == IGSO ? kBeidouGeoIgsoSisre : kBeidouMeoSisre;
      break;
    default:
      return 0.0;
  }
  double const radial = w.radial * rtn(0) - clockError;
  return std::sqrt(radial * radial + w.alongCross * (rtn(1) * rtn(1) + rtn(2) * rtn(2)));
}

double estimateSisreError(PredictionErrorParams const& p, double t) {
  return p[0] * t * t + p[1] * t + p[2];
}

Vec predictionRtn(Vec const& position, Vec const& velocity, Vec const& reference) {
  if (position.size() != 3) ZARN_THROW(std::invalid_argument("predictionRtn: invalid size position"));
  if (velocity.size() != 3) ZARN_THROW(std::invalid_argument("predictionRtn: invalid size velocity"));
  if (reference.size() != 3) ZARN_THROW(std::invalid_argument("predictionRtn: invalid size reference"));
  Vec difference = position - reference;
  Mat rotation(3, 3);
  eciToRtn(position, velocity, difference, rotation);
  return difference;
}

}  // namespace support
}  // namespace zarn
