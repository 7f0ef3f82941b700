// Analytic Sun and Moon and their point-mass attraction on a satellite.
#ifndef ZARN_SUPPORT_FORCE_MODEL_THIRD_BODY_HPP
#define ZARN_SUPPORT_FORCE_MODEL_THIRD_BODY_HPP

namespace zarn {
namespace support {
namespace forces {

// Geocentric Moon and Sun (m) at GPS time t (s), mean equator and equinox of
// J2000, from the low-precision series of Montenbruck & Gill, Satellite
// Orbits (2000), 3.3.2.
void sunMoonJ2000(double t, double moon[3], double sun[3]);
// The Sun alone, as sunMoonJ2000 gives it.
void sunJ2000(double t, double sun[3]);

// The same from more terms: the Moon from the main terms of Meeus,
// Astronomical Algorithms (1998), ch. 47, with the ecliptic precession; the
// Sun from the series above with a moving perihelion. Over 2000-2035 the Moon
// is good to 0.004 deg and 1 km (against 0.08 deg and 500 km), the Sun to
// 0.01 deg.
void sunMoonJ2000Accurate(double t, double moon[3], double sun[3]);

// The same bodies turned into the Earth-rotating true-of-date frame of t by
// icrsToInt0(t, 0, leapSeconds).
void sunMoonOfDate(double t, int leapSeconds, double moon[3], double sun[3]);

// Attraction of one body at `body` (m) on a satellite at r (m), relative to
// the Earth's centre, with what its gradient needs.
struct ThirdBody {
  double acc[3];     // GM (d / |d|^3 - body / |body|^3), m/s^2
  double d[3];       // body - r, m
  double d2;         // |d|^2, m^2
  double gradScale;  // -GM / |d|^3, 1/s^2

  // Element (i, j) of d acc / d r = -GM / |d|^3 (I - 3 d d^T / |d|^2), 1/s^2.
  double gradient(int i, int j) const { return gradScale * ((i == j ? 1.0 : 0.0) - 3.0 * d[i] * d[j] / d2); }
};

// Moon and Sun attraction at r (all m, one frame); Moon first.
void sunMoonAttraction(double const moon[3], double const sun[3], double const r[3], ThirdBody& moonTerm,
                       ThirdBody& sunTerm);

}  // namespace forces
}  // namespace support
}  // namespace zarn

#endif
