#include "zarn/support/validation.hpp"

#include <boost/numeric/ublas/io.hpp>
#include <cinttypes>
#include <cmath>
#include <cstdint>
#include <iomanip>
#include <limits>
#include <sstream>
#include <string>

#include "zarn/support/ephemeris_conversion.hpp"
#include "zarn/support/log.hpp"
#include "zarn/support/time_conversion.hpp"

namespace zarn {
namespace support {
namespace {

char const tag[] = "Validation";

constexpr unsigned keplerSize = 17;
constexpr unsigned toeIndex = 15;
constexpr unsigned weekIndex = 16;
constexpr std::int64_t gpsToeStep = 16;      // s, LSB of the LNAV toe field
constexpr std::int64_t beidouToeStep = 8;    // s, LSB of the D1/D2 toe field
constexpr std::int64_t gpsToeSteps = 37800;  // toe steps per week
constexpr std::int64_t beidouToeSteps = 75600;
constexpr unsigned weeksPerGpsCycle = 1024;
// Earth rate for making an Earth-fixed velocity inertial: the rate of Greenwich
// sidereal time (rotation plus precession in right ascension, Vallado 2013 3.5),
// deliberately not one of the broadcast rates.
constexpr double earthRate = 7.2921158553e-5;  // rad/s

struct Field {
  char const* name;
  double lsb;
  std::int64_t min;
  std::int64_t max;
};

constexpr std::int64_t u32Max = 4294967295LL;
constexpr std::int64_t s32Min = -2147483648LL;
constexpr std::int64_t s32Max = 2147483647LL;
constexpr std::int64_t s16Min = -32768;
constexpr std::int64_t s16Max = 32767;
constexpr std::int64_t s14Min = -8192;
constexpr std::int64_t s14Max = 8191;
constexpr std::int64_t s24Min = -8388608;
constexpr std::int64_t s24Max = 8388607;
constexpr std::int64_t s18Min = -131072;
constexpr std::int64_t s18Max = 131071;
constexpr std::int64_t s27Min = -67108864;
constexpr std::int64_t s27Max = 67108863;
constexpr std::int64_t s22Min = -2097152;
constexpr std::int64_t s22Max = 2097151;
constexpr std::int64_t s11Min = -1024;
constexpr std::int64_t s11Max = 1023;
constexpr std::int64_t s5Min = -16;
constexpr std::int64_t s5Max = 15;

namespace bc = broadcast;

// Kepler elements 0-14 in index order; the harmonic rows differ per constellation.
Field const gpsFields[] = {
    {"sqrtA", bc::sqrtA, 0, u32Max},
    {"eccentricity", bc::eccentricity, 0, u32Max},
    {"i0", bc::angle, s32Min, s32Max},
    {"omega0", bc::angle, s32Min, s32Max},
    {"omega", bc::angle, s32Min, s32Max},
    {"m0", bc::angle, s32Min, s32Max},
    {"deltaN", bc::rate, s16Min, s16Max},
    {"iDot", bc::rate, s14Min, s14Max},
    {"omegaDot", bc::rate, s24Min, s24Max},
    {"cuc", bc::gpsHarmonicAngle, s16Min, s16Max},
    {"cus", bc::gpsHarmonicAngle, s16Min, s16Max},
    {"crc", bc::gpsHarmonicRadius, s16Min, s16Max},
    {"crs", bc::gpsHarmonicRadius, s16Min, s16Max},
    {"cic", bc::gpsHarmonicAngle, s16Min, s16Max},
    {"cis", bc::gpsHarmonicAngle, s16Min, s16Max},
};

Field const beidouFields[] = {
    {"sqrtA", bc::sqrtA, 0, u32Max},
    {"eccentricity", bc::eccentricity, 0, u32Max},
    {"i0", bc::angle, s32Min, s32Max},
    {"omega0", bc::angle, s32Min, s32Max},
    {"omega", bc::angle, s32Min, s32Max},
    {"m0", bc::angle, s32Min, s32Max},
    {"deltaN", bc::rate, s16Min, s16Max},
    {"iDot", bc::rate, s14Min, s14Max},
    {"omegaDot", bc::rate, s24Min, s24Max},
    {"cuc", bc::beidouHarmonicAngle, s18Min, s18Max},
    {"cus", bc::beidouHarmonicAngle, s18Min, s18Max},
    {"crc", bc::beidouHarmonicRadius, s18Min, s18Max},
    {"crs", bc::beidouHarmonicRadius, s18Min, s18Max},
    {"cic", bc::beidouHarmonicAngle, s18Min, s18Max},
    {"cis", bc::beidouHarmonicAngle, s18Min, s18Max},
};

Field const glonassClockFields[] = {
    {"tau", bc::glonassTau, s22Min, s22Max},
    {"gamma", bc::glonassGamma, s11Min, s11Max},
    {"deltaTau", bc::glonassDeltaTau, s5Min, s5Max},
};

Field const glonassStateFields[] = {
    {"x", bc::glonassPosition, s27Min, s27Max},      {"y", bc::glonassPosition, s27Min, s27Max},
    {"z", bc::glonassPosition, s27Min, s27Max},      {"xVel", bc::glonassVelocity, s24Min, s24Max},
    {"yVel", bc::glonassVelocity, s24Min, s24Max},   {"zVel", bc::glonassVelocity, s24Min, s24Max},
    {"xAcc", bc::glonassAcceleration, s5Min, s5Max}, {"yAcc", bc::glonassAcceleration, s5Min, s5Max},
    {"zAcc", bc::glonassAcceleration, s5Min, s5Max},
};

// The transmitted integer: value / lsb rounded half away from zero. Values
// beyond the 64-bit range (and NaN) saturate, so they always fail a range.
std::int64_t scaled(double value, double lsb) {
  double const x = value / lsb;
  double const r = x >= 0.0 ? std::floor(x + 0.5) : std::ceil(x - 0.5);
  constexpr double limit = 9.2e18;
  if (std::isnan(r)) return std::numeric_limits<std::int64_t>::min();
  if (r >= limit) return std::numeric_limits<std::int64_t>::max();
  if (r <= -limit) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(r);
}

// Tests one field; a failure logs "<prefix>: <name>=<value>, scaled=<integer>".
bool inRange(Field const& f, double value, char const* prefix) {
  std::int64_t const s = scaled(value, f.lsb);
  if (s >= f.min && s <= f.max) return true;
  log::printFormatted(log::ERROR, tag, "%s: %s=%.15e, scaled=%" PRId64, prefix, f.name, value, s);
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

CoordinateMessages const gpsMessages{
    "validGpsSatCoordinates: invalid satellite position: rSat=%s",
    "validGpsSatCoordinates: invalid satellite velocity: vSat=%s",
    "validGpsSatCoordinates: invalid satellite position: rSat=%s ==> r=%g",
    "validGpsSatCoordinates: invalid satellite velocity: vSat=%s ==> v=%g, ecef=%d"};
CoordinateMessages const glonassMessages{
    "validGlonassSatCoordinates: invalid satellite position: rSat=%s",
    "validGlonassSatCoordinates: invalid satellite velocity: vSat=%s",
    "validGlonassSatCoordinates: invalid satellite position: rSat=%s ==> r=%g",
    "validGlonassSatCoordinates: invalid satellite velocity: vSat=%s ==> v=%g, ecef=%d"};
// The BeiDou texts carry the orbit type; their formats differ and are used directly.
CoordinateMessages const beidouMessages{"validBeidouSatCoordinates: invalid satellite position: rSat=%s",
                                        "validBeidouSatCoordinates: invalid satellite velocity: vSat=%s",
                                        nullptr, nullptr};

bool coordinatesAreNumbers(Vec const& rSat, Vec const& vSat, CoordinateMessages const& m) {
  if (rSat.size() != 3 || isnan(rSat)) {
    log::printFormatted(log::ERROR, tag, m.position, format(rSat, 15).c_str());
    return false;
  }
  if (vSat.size() != 3 || isnan(vSat)) {
    log::printFormatted(log::ERROR, tag, m.velocity, format(vSat, 15).c_str());
    return false;
  }
  return true;
}

double inertialSpeed(Vec const& rSat, Vec const& vSat, bool ecef) {
  Vec v = vSat;
  if (ecef) {
    v(0) -= earthRate * rSat(1);
    v(1) += earthRate * rSat(0);
  }
  return norm_2(v);
}

struct Bounds {
  double rMin, rMax;
  bool open;  // radius bounds exclusive
  double vMin, vMax;
};

constexpr Bounds gpsBounds{21000000.0, 31000000.0, false, 3700.0, 4000.0};             // m, m/s
constexpr Bounds glonassBounds{21000000.0, 31000000.0, false, 3800.0, 4100.0};         // m, m/s
constexpr Bounds beidouMeoBounds{23000000.0, 33000000.0, true, 3700.0, 3800.0};        // m, m/s
constexpr Bounds beidouHighOrbitBounds{38000000.0, 47000000.0, true, 3000.0, 3100.0};  // m, m/s

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
    log::printFormatted(log::ERROR, tag, m.radius, format(rSat, 15).c_str(), r);
    return false;
  }
  double const v = inertialSpeed(rSat, vSat, ecef);
  if (!speedInBounds(v, b)) {
    log::printFormatted(log::ERROR, tag, m.speed, format(vSat, 15).c_str(), v, ecef ? 1 : 0);
    return false;
  }
  return true;
}

}  // namespace

bool validGpsEphemeris(Vec const& kepler) {
  if (kepler.size() != keplerSize) {
    log::printFormatted(log::ERROR, tag, "validGpsEphemeris: invalid number of keplerian elements: %s",
                        format(kepler, 6).c_str());
    return false;
  }
  bool ok = true;
  for (unsigned k = 0; k < 15; ++k) {
    ok = inRange(gpsFields[k], kepler(k), "validGpsEphemeris: keplerian element out of range") && ok;
  }
  int const toe = truncatedInt(kepler(toeIndex));
  if (toe % gpsToeStep != 0) {
    log::printFormatted(log::ERROR, tag, "validGpsEphemeris: invalid toe %d (not multiple of 16)", toe);
    ok = false;
  }
  std::int64_t const step = toe / gpsToeStep;
  if (step < 0 || step >= gpsToeSteps) {
    log::printFormatted(log::ERROR, tag, "validGpsEphemeris: invalid keplerian element toe=%d", toe);
    return false;
  }
  return ok;
}

bool validBeidouEphemeris(Vec const& kepler) {
  if (kepler.size() != keplerSize) {
    log::printFormatted(log::ERROR, tag, "validBeidouEphemeris: invalid number of keplerian elements: %s",
                        format(kepler, 6).c_str());
    return false;
  }
  bool ok = true;
  for (unsigned k = 0; k < 15; ++k) {
    ok = inRange(beidouFields[k], kepler(k), "validBeidouEphemeris: keplerian element out of range") && ok;
  }
  // The reference time arrives on the GPS scale; the field is BeiDou seconds of week.
  std::uint32_t const week = truncatedUint(kepler(weekIndex));
  core::Toc const gpsToe{week / weeksPerGpsCycle, week % weeksPerGpsCycle, truncatedUint(kepler(toeIndex))};
  core::Toc const beidouToe = secsToBeidou(gpsSecsToBeidouSecs(gpsToGpsSecs(gpsToe)));
  int const toe = static_cast<int>(beidouToe.third);
  if (toe % beidouToeStep != 0) {
    log::printFormatted(log::ERROR, tag, "validBeidouEphemeris: invalid toe %d (not multiple of 8)", toe);
    ok = false;
  }
  std::int64_t const step = toe / beidouToeStep;
  if (step < 0 || step >= beidouToeSteps) {
    log::printFormatted(log::ERROR, tag, "validBeidouEphemeris: invalid keplerian element toe=%d", toe);
    return false;
  }
  return ok;
}

bool validGlonassEphemeris(double tau, double gamma, double deltaTau) {
  char const prefix[] = "validGlonassEphemeris: ephemeris element out of range";
  bool ok = inRange(glonassClockFields[0], tau, prefix);
  ok = inRange(glonassClockFields[1], gamma, prefix) && ok;
  ok = inRange(glonassClockFields[2], deltaTau, prefix) && ok;
  return ok;
}

bool validGlonassEphemeris(Vec const& rSat, Vec const& vSat, Vec const& aSat) {
  if (rSat.size() != 3 || vSat.size() != 3 || aSat.size() != 3) {
    log::printFormatted(
        log::ERROR, tag,
        "validGlonassEphemeris: invalid number of elements: rSat size %d, vSat size %d, aSat size %d",
        static_cast<int>(rSat.size()), static_cast<int>(vSat.size()), static_cast<int>(aSat.size()));
    return false;
  }
  Vec const* const vectors[] = {&rSat, &vSat, &aSat};
  bool ok = true;
  for (unsigned k = 0; k < 9; ++k) {
    ok = inRange(glonassStateFields[k], (*vectors[k / 3])(k % 3),
                 "validGlonassEphemeris: ephemeris element out of range") &&
         ok;
  }
  return ok;
}

bool validGpsSatCoordinates(Vec const& rSat, Vec const& vSat, bool ecef) {
  return validCoordinates(rSat, vSat, ecef, gpsBounds, gpsMessages);
}

bool validGlonassSatCoordinates(Vec const& rSat, Vec const& vSat, bool ecef) {
  return validCoordinates(rSat, vSat, ecef, glonassBounds, glonassMessages);
}

bool validBeidouSatCoordinates(Vec const& rSat, Vec const& vSat, BeidouSvType svType, bool ecef) {
  if (!coordinatesAreNumbers(rSat, vSat, beidouMessages)) return false;
  bool const known =
      svType == BeidouSvType::GEO || svType == BeidouSvType::IGSO || svType == BeidouSvType::MEO;
  Bounds const& b = svType == BeidouSvType::MEO ? beidouMeoBounds : beidouHighOrbitBounds;
  double const r = norm_2(rSat);
  if (!known || !radiusInBounds(r, b)) {
    log::printFormatted(
        log::ERROR, tag,
        "validBeidouSatCoordinates: invalid satellite position: rSat=%s ==> r=%g, beidouSvType %d",
        format(rSat, 15).c_str(), r, static_cast<int>(svType));
    return false;
  }
  double const v = inertialSpeed(rSat, vSat, ecef);
  if (!speedInBounds(v, b)) {
    log::printFormatted(
        log::ERROR, tag,
        "validBeidouSatCoordinates: invalid satellite velocity: vSat=%s ==> v=%g, beidouSvType=%d, ecef=%d",
        format(vSat, 15).c_str(), v, static_cast<int>(svType), ecef ? 1 : 0);
    return false;
  }
  return true;
}

}  // namespace support
}  // namespace zarn
