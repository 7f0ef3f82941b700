#include "zarn/support/validation.hpp"

#include <boost/numeric/ublas/io.hpp>
#include <cinttypes>
#include <cmath>
#include <cstdint>
#include <iomanip>
#include <limits>
#include <sstream>
#include <string>

#include "zarn/support/broadcast_interface.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/ephemeris_conversion.hpp"
#include "zarn/support/log.hpp"
#include "zarn/support/time_conversion.hpp"

namespace zarn {
namespace support {
namespace {

namespace bc = broadcast;

char const kTag[] = "Validation";

constexpr unsigned kKeplerSize = 17;
constexpr unsigned kToeIndex = 15;
constexpr unsigned kWeekIndex = 16;
constexpr std::int64_t kSecondsPerWeek = 604800;
constexpr unsigned kWeeksPerGpsCycle = 1024;

// A message field under the name the range messages give it.
struct NamedField {
  char const* name;
  bc::Field field;
};

char const* const kKeplerNames[bc::kKeplerSize] = {"sqrtA", "eccentricity", "i0",   "omega0",   "omega",
                                                   "m0",    "deltaN",       "iDot", "omegaDot", "cuc",
                                                   "cus",   "crc",          "crs",  "cic",      "cis"};

constexpr NamedField kGlonassClockFields[] = {
    {"tau", bc::kGlonassTau},
    {"gamma", bc::kGlonassGamma},
    {"deltaTau", bc::kGlonassDeltaTau},
};

constexpr NamedField kGlonassStateFields[] = {
    {"x", bc::kGlonassPosition},        {"y", bc::kGlonassPosition},
    {"z", bc::kGlonassPosition},        {"xVel", bc::kGlonassVelocity},
    {"yVel", bc::kGlonassVelocity},     {"zVel", bc::kGlonassVelocity},
    {"xAcc", bc::kGlonassAcceleration}, {"yAcc", bc::kGlonassAcceleration},
    {"zAcc", bc::kGlonassAcceleration},
};

// Tests one field; a failure logs "<prefix>: <name>=<value>, scaled=<integer>".
bool inRange(NamedField const& f, double value, char const* prefix) {
  std::int64_t const s = bc::encode(value, f.field);
  if (bc::fits(s, f.field)) return true;
  log::printFormatted(log::ERROR, kTag, "%s: %s=%.15e, scaled=%" PRId64, prefix, f.name, value, s);
  return false;
}

// Truncation toward zero into an int, saturating outside its range.
int truncatedInt(double value) {
  if (std::isnan(value)) return std::numeric_limits<int>::min();
  if (value >= static_cast<double>(std::numeric_limits<int>::max())) return std::numeric_limits<int>::max();
  if (value <= static_cast<double>(std::numeric_limits<int>::min())) return std::numeric_limits<int>::min();
  return static_cast<int>(value);
}

std::uint32_t truncatedUint(double value) {
  if (!(value > 0.0)) return 0;
  if (value >= 4294967295.0) return std::numeric_limits<std::uint32_t>::max();
  return static_cast<std::uint32_t>(value);
}

std::string format(Vec const& v, int digits) {
  std::ostringstream out;
  out << std::setprecision(digits) << v;
  return out.str();
}

// The four messages of one coordinate check.
struct CoordinateMessages {
  char const* position;
  char const* velocity;
  char const* radius;
  char const* speed;
};

CoordinateMessages const kGpsMessages{
    "validGpsSatCoordinates: invalid satellite position: rSat=%s",
    "validGpsSatCoordinates: invalid satellite velocity: vSat=%s",
    "validGpsSatCoordinates: invalid satellite position: rSat=%s ==> r=%g",
    "validGpsSatCoordinates: invalid satellite velocity: vSat=%s ==> v=%g, ecef=%d"};
CoordinateMessages const kGlonassMessages{
    "validGlonassSatCoordinates: invalid satellite position: rSat=%s",
    "validGlonassSatCoordinates: invalid satellite velocity: vSat=%s",
    "validGlonassSatCoordinates: invalid satellite position: rSat=%s ==> r=%g",
    "validGlonassSatCoordinates: invalid satellite velocity: vSat=%s ==> v=%g, ecef=%d"};
// The BeiDou texts carry the orbit type; their formats differ and are used directly.
CoordinateMessages const kBeidouMessages{"validBeidouSatCoordinates: invalid satellite position: rSat=%s",
                                         "validBeidouSatCoordinates: invalid satellite velocity: vSat=%s",
                                         nullptr, nullptr};

bool coordinatesAreNumbers(Vec const& rSat, Vec const& vSat, CoordinateMessages const& m) {
  if (rSat.size() != 3 || isnan(rSat)) {
    log::printFormatted(log::ERROR, kTag, m.position, format(rSat, 15).c_str());
    return false;
  }
  if (vSat.size() != 3 || isnan(vSat)) {
    log::printFormatted(log::ERROR, kTag, m.velocity, format(vSat, 15).c_str());
    return false;
  }
  return true;
}

// The Earth-fixed velocity is made inertial with the rate of Greenwich sidereal
// time (rotation plus precession in right ascension, Vallado 2013 3.5),
// deliberately not one of the broadcast rates.
double inertialSpeed(Vec const& rSat, Vec const& vSat, bool ecef) {
  Vec v = vSat;
  if (ecef) {
    v(0) -= earthRotationRate * rSat(1);
    v(1) += earthRotationRate * rSat(0);
  }
  return norm_2(v);
}

struct Bounds {
  double rMin, rMax;
  bool open;  // radius bounds exclusive
  double vMin, vMax;
};

constexpr Bounds kGpsBounds{21000000.0, 31000000.0, false, 3700.0, 4000.0};             // m, m/s
constexpr Bounds kGlonassBounds{21000000.0, 31000000.0, false, 3800.0, 4100.0};         // m, m/s
constexpr Bounds kBeidouMeoBounds{23000000.0, 33000000.0, true, 3700.0, 3800.0};        // m, m/s
constexpr Bounds kBeidouHighOrbitBounds{38000000.0, 47000000.0, true, 3000.0, 3100.0};  // m, m/s

bool radiusInBounds(double r, Bounds const& b) {
  return b.open ? (r > b.rMin && r < b.rMax) : (r >= b.rMin && r <= b.rMax);
}
bool speedInBounds(double v, Bounds const& b) {
  return v >= b.vMin && v <= b.vMax;
}

bool validCoordinates(Vec const& rSat, Vec const& vSat, bool ecef, Bounds const& b,
                      CoordinateMessages const& m) {
  if (!coordinatesAreNumbers(rSat, vSat, m)) return false;
  double const r = norm_2(rSat);
  if (!radiusInBounds(r, b)) {
    log::printFormatted(log::ERROR, kTag, m.radius, format(rSat, 15).c_str(), r);
    return false;
  }
  double const v = inertialSpeed(rSat, vSat, ecef);
  if (!speedInBounds(v, b)) {
    log::printFormatted(log::ERROR, kTag, m.speed, format(vSat, 15).c_str(), v, ecef ? 1 : 0);
    return false;
  }
  return true;
}

}  // namespace

namespace {

// Size, field ranges and reference time of a 17-element Kepler vector, logged
// under `function`. `toeOf` gives the record's seconds of week, a multiple of
// the LSB of the toe field.
bool validKepler(Vec const& kepler, char const* function, bc::OrbitFields const& fields,
                 bc::Field const& toeField, int (*toeOf)(Vec const&)) {
  std::int64_t const toeStep = static_cast<std::int64_t>(toeField.lsb);
  if (kepler.size() != kKeplerSize) {
    log::printFormatted(log::ERROR, kTag, "%s: invalid number of keplerian elements: %s", function,
                        format(kepler, 6).c_str());
    return false;
  }
  std::string const prefix = std::string(function) + ": keplerian element out of range";
  bool ok = true;
  for (unsigned k = 0; k < bc::kKeplerSize; ++k) {
    ok = inRange(NamedField{kKeplerNames[k], fields[k]}, kepler(k), prefix.c_str()) && ok;
  }
  int const toe = toeOf(kepler);
  if (toe % toeStep != 0) {
    log::printFormatted(log::ERROR, kTag, "%s: invalid toe %d (not multiple of %d)", function, toe,
                        static_cast<int>(toeStep));
    ok = false;
  }
  std::int64_t const step = toe / toeStep;
  if (step < 0 || step >= kSecondsPerWeek / toeStep) {
    log::printFormatted(log::ERROR, kTag, "%s: invalid keplerian element toe=%d", function, toe);
    return false;
  }
  return ok;
}

int gpsToe(Vec const& kepler) {
  return truncatedInt(kepler(kToeIndex));
}

// The reference time arrives on the GPS scale; the field is BeiDou seconds of week.
int beidouToe(Vec const& kepler) {
  std::uint32_t const week = truncatedUint(kepler(kWeekIndex));
  core::Toc const gpsToe{week / kWeeksPerGpsCycle, week % kWeeksPerGpsCycle,
                         truncatedUint(kepler(kToeIndex))};
  return static_cast<int>(secsToBeidou(gpsSecsToBeidouSecs(gpsToGpsSecs(gpsToe))).third);
}

}  // namespace

bool validGpsEphemeris(Vec const& kepler) {
  return validKepler(kepler, "validGpsEphemeris", bc::kGpsOrbit, bc::kGpsToe, gpsToe);
}

bool validBeidouEphemeris(Vec const& kepler) {
  return validKepler(kepler, "validBeidouEphemeris", bc::kBeidouOrbit, bc::kBeidouToe, beidouToe);
}

bool validGlonassEphemeris(double tau, double gamma, double deltaTau) {
  char const prefix[] = "validGlonassEphemeris: ephemeris element out of range";
  bool ok = inRange(kGlonassClockFields[0], tau, prefix);
  ok = inRange(kGlonassClockFields[1], gamma, prefix) && ok;
  ok = inRange(kGlonassClockFields[2], deltaTau, prefix) && ok;
  return ok;
}

bool validGlonassEphemeris(Vec const& rSat, Vec const& vSat, Vec const& aSat) {
  if (rSat.size() != 3 || vSat.size() != 3 || aSat.size() != 3) {
    log::printFormatted(
        log::ERROR, kTag,
        "validGlonassEphemeris: invalid number of elements: rSat size %d, vSat size %d, aSat size %d",
        static_cast<int>(rSat.size()), static_cast<int>(vSat.size()), static_cast<int>(aSat.size()));
    return false;
  }
  Vec const* const vectors[] = {&rSat, &vSat, &aSat};
  bool ok = true;
  for (unsigned k = 0; k < 9; ++k) {
    ok = inRange(kGlonassStateFields[k], (*vectors[k / 3])(k % 3),
                 "validGlonassEphemeris: ephemeris element out of range") &&
         ok;
  }
  return ok;
}

bool validGpsSatCoordinates(Vec const& rSat, Vec const& vSat, bool ecef) {
  return validCoordinates(rSat, vSat, ecef, kGpsBounds, kGpsMessages);
}

bool validGlonassSatCoordinates(Vec const& rSat, Vec const& vSat, bool ecef) {
  return validCoordinates(rSat, vSat, ecef, kGlonassBounds, kGlonassMessages);
}

bool validBeidouSatCoordinates(Vec const& rSat, Vec const& vSat, BeidouSvType svType, bool ecef) {
  if (!coordinatesAreNumbers(rSat, vSat, kBeidouMessages)) return false;
  bool const known =
      svType == BeidouSvType::GEO || svType == BeidouSvType::IGSO || svType == BeidouSvType::MEO;
  Bounds const& b = svType == BeidouSvType::MEO ? kBeidouMeoBounds : kBeidouHighOrbitBounds;
  double const r = norm_2(rSat);
  if (!known || !radiusInBounds(r, b)) {
    log::printFormatted(
        log::ERROR, kTag,
        "validBeidouSatCoordinates: invalid satellite position: rSat=%s ==> r=%g, beidouSvType %d",
        format(rSat, 15).c_str(), r, static_cast<int>(svType));
    return false;
  }
  double const v = inertialSpeed(rSat, vSat, ecef);
  if (!speedInBounds(v, b)) {
    log::printFormatted(
        log::ERROR, kTag,
        "validBeidouSatCoordinates: invalid satellite velocity: vSat=%s ==> v=%g, beidouSvType=%d, ecef=%d",
        format(vSat, 15).c_str(), v, static_cast<int>(svType), ecef ? 1 : 0);
    return false;
  }
  return true;
}

}  // namespace support
}  // namespace zarn
