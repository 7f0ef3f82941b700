// Independent re-derivations of broadcast quantities for the conversion tests:
// ICD-scaled kepler elements of a record, an almanac quantised from them, and
// velocities by finite differences of positions.
#ifndef ZARN_TESTS_BROADCAST_HELPERS_HPP
#define ZARN_TESTS_BROADCAST_HELPERS_HPP

#include <cmath>
#include <cstdint>
#include <functional>

#include "support/broadcast_records.hpp"
#include "zarn/core/records.hpp"
#include "zarn/support/math.hpp"

namespace zarn {
namespace test {

constexpr double kIcdPi = 3.1415926535898;  // the value of pi the GPS ICD fixes
constexpr double kWeek = 604800.0;          // s

// A record's 15 kepler elements as ICD-scaled doubles: sqrtA, e, i0, Omega0,
// omega, M0, deltaN, iDot, OmegaDot, cuc, cus, crc, crs, cic, cis.
template <typename Record>
support::Vec keplerOf(Record const& e, double harmonicAngle, double harmonicRadius) {
  double const sc = kIcdPi * std::ldexp(1.0, -31), rate = kIcdPi * std::ldexp(1.0, -43);
  double const a = harmonicAngle, r = harmonicRadius;
  double const scale[15] = {
      std::ldexp(1.0, -19), std::ldexp(1.0, -33), sc, sc, sc, sc, rate, rate, rate, a, a, r, r, a, a};
  Words const w = words(e);
  support::Vec k(15);
  for (unsigned i = 0; i < 15; ++i) k(i) = static_cast<double>(w.w[i]) * scale[i];
  return k;
}

// Almanac of an ephemeris (kepler elements k, reference time toe, both scales
// alike): deltaN folded into the axis, node and anomaly carried to toa, the
// multiple of 2^12 s of week nearest toe, and all quantised to the almanac LSBs. The
// caller sets the toa Toc.
inline core::GpsAlmanac almanacOf(support::Vec const& k, double toe, double gm, double& toa) {
  double const weekStart = std::floor(toe / kWeek) * kWeek;
  toa = weekStart + std::floor((toe - weekStart) / 4096.0 + 0.5) * 4096.0;
  double const dt = toa - toe;
  double const n = std::sqrt(gm / std::pow(k(0), 6)) + k(6);
  double const sc = kIcdPi * std::ldexp(1.0, -23);
  core::GpsAlmanac alm;
  alm.sqrtA = static_cast<std::uint32_t>(std::lround(std::sqrt(std::cbrt(gm / (n * n))) * 2048.0));
  alm.e = static_cast<std::uint16_t>(std::lround(k(1) * std::ldexp(1.0, 21)));
  alm.deltaI =
      static_cast<std::int16_t>(std::lround((k(2) - 0.3 * kIcdPi) / (kIcdPi * std::ldexp(1.0, -19))));
  alm.omega0 = static_cast<std::int32_t>(std::lround(std::remainder(k(3) + k(8) * dt, 2 * kIcdPi) / sc));
  alm.omega = static_cast<std::int32_t>(std::lround(std::remainder(k(4), 2 * kIcdPi) / sc));
  alm.m0 = static_cast<std::int32_t>(std::lround(std::remainder(k(5) + n * dt, 2 * kIcdPi) / sc));
  alm.omegaDot = static_cast<std::int16_t>(std::lround(k(8) / (kIcdPi * std::ldexp(1.0, -38))));
  return alm;
}

// Five-point central difference of a position function (m/s).
inline support::Vec velocityByDifferences(std::function<support::Vec(double)> const& pos, double t,
                                          double h) {
  return (pos(t - 2 * h) - 8.0 * pos(t - h) + 8.0 * pos(t + h) - pos(t + 2 * h)) / (12.0 * h);
}

// The position part of a state function state(t, pos, vel).
template <class State>
std::function<support::Vec(double)> positionOf(State state) {
  return [state](double t) {
    support::Vec p(3), v(3);
    state(t, p, v);
    return p;
  };
}

}  // namespace test
}  // namespace zarn

#endif
