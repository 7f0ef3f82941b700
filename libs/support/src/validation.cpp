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
constexpr std::int64_t gpsToeStep = 16;    // s, LSB of the LNAV toe field
constexpr std::int64_t beidouToeStep = 8;  // s, LSB of the D1/D2 toe field
constexpr std::int64_t secondsPerWeek = 604800;
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

// A two's-complement or an unsigned field of `bits` bits.
constexpr Field signedField(char const* name, double lsb, int bits) {
  return {name, lsb, -(std::int64_t{1} << (bits - 1)), (std::int64_t{1} << (bits - 1)) - 1};
}
constexpr Field unsignedField(char const* name, double lsb, int bits) {
  return {name, lsb, 0, (std::int64_t{1} << bits) - 1};
}

namespace bc = broadcast;

// Kepler elements 0-8, alike in GPS LNAV and BeiDou D1/D2.
constexpr Field keplerFields[] = {
    unsignedField("sqrtA", bc::sqrtA, 32), unsignedField("eccentricity", bc::eccentricity, 32),
    signedField("i0", bc::angle, 32),      signedField("omega0", bc::angle, 32),
    signedField("omega", bc::angle, 32),   signedField("m0", bc::angle, 32),
    signedField("deltaN", bc::rate, 16),   signedField("iDot", bc::rate, 14),
    signedField("omegaDot", bc::rate, 24),
};

// Elements 9-14, the harmonic corrections: 16-bit in LNAV, 18-bit in D1/D2.
struct Harmonics {
  double angleLsb, radiusLsb;
  int bits;
};
constexpr Harmonics gpsHarmonics{bc::gpsHarmonicAngle, bc::gpsHarmonicRadius, 16};
constexpr Harmonics beidouHarmonics{bc::beidouHarmonicAngle, bc::beidouHarmonicRadius, 18};

Field keplerField(unsigned k, Harmonics const& h) {
  if (k < 9) return keplerFields[k];
  char const* const names[] = {"cuc", "cus", "crc", "crs", "cic", "cis"};
  bool const radius = k == 11 || k == 12;
  return signedField(names[k - 9], radius ? h.radiusLsb : h.angleLsb, h.bits);
}

constexpr Field glonassClockFields[] = {
    signedField("tau", bc::glonassTau, 22),
    signedField("gamma", bc::glonassGamma, 11),
    signedField("deltaTau", bc::glonassDeltaTau, 5),
};

constexpr Field glonassStateFields[] = {
    signedField("x", bc::glonassPosition, 27),       signedField("y", bc::glonassPosition, 27),
    signedField("z", bc::glonassPosition, 27),       signedField("xVel", bc::glonassVelocity, 24),
    signedField("yVel", bc::glonassVelocity, 24),    signedField("zVel", bc::glonassVelocity, 24),
    signedField("xAcc", bc::glonassAcceleration, 5), signedField("yAcc", bc::glonassAcceleration, 5),
    signedField("zAcc", bc::glonassAcceleration, 5),
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

namespace {

// Size, field ranges and reference time of a 17-element Kepler vector, logged
// under `function`. `toeOf` gives the record's seconds of week, a multiple of `toeStep`.
bool validKepler(Vec const& kepler, char const* function, Harmonics const& harmonics,
                 int (*toeOf)(Vec const&), std::int64_t toeStep) {
  if (kepler.size() != keplerSize) {
    log::printFormatted(log::ERROR, tag, "%s: invalid number of keplerian elements: %s", function,
                        format(kepler, 6).c_str());
    return false;
  }
  std::string const prefix = std::string(function) + ": keplerian element out of range";
  bool ok = true;
  for (unsigned k = 0; k < 15; ++k) ok = inRange(keplerField(k, harmonics), kepler(k), prefix.c_str()) && ok;
  int const toe = toeOf(kepler);
  if (toe % toeStep != 0) {
    log::printFormatted(log::ERROR, tag, "%s: invalid toe %d (not multiple of %d)", function, toe,
                        static_cast<int>(toeStep));
    ok = false;
  }
  std::int64_t const step = toe / toeStep;
  if (step < 0 || step >= secondsPerWeek / toeStep) {
    log::printFormatted(log::ERROR, tag, "%s: invalid keplerian element toe=%d", function, toe);
    return false;
  }
  return ok;
}

int gpsToe(Vec const& kepler) {
  return truncatedInt(kepler(toeIndex));
}

// The reference time arrives on the GPS scale; the field is BeiDou seconds of week.
int beidouToe(Vec const& kepler) {
  std::uint32_t const week = truncatedUint(kepler(weekIndex));
  core::Toc const gpsToe{week / weeksPerGpsCycle, week % weeksPerGpsCycle, truncatedUint(kepler(toeIndex))};
  return static_cast<int>(secsToBeidou(gpsSecsToBeidouSecs(gpsToGpsSecs(gpsToe))).third);
}

}  // namespace

bool validGpsEphemeris(Vec const& kepler) {
  return validKepler(kepler, "validGpsEphemeris", gpsHarmonics, gpsToe, gpsToeStep);
}

bool validBeidouEphemeris(Vec const& kepler) {
  return validKepler(kepler, "validBeidouEphemeris", beidouHarmonics, beidouToe, beidouToeStep);
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
