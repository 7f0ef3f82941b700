#include "force_model/third_body.hpp"

#include <cmath>

#include "force_model/vector3.hpp"
#include "zarn/support/coordinate_conversion.hpp"

namespace zarn {
namespace support {
namespace forces {
namespace {

// JPL DE405 (Standish 1998), rounded.
constexpr double kMoonGm = 4.902801e12;      // m^3/s^2
constexpr double kSunGm = 1.32712440018e20;  // m^3/s^2

// Time arguments of the series.
constexpr double kGpsToTt = 51.184;         // TT - GPS = 32.184 s + 19 s, s
constexpr double kJdGpsOrigin = 2444244.5;  // Julian date of GPS second 0, days
constexpr double kMjdOffset = 2400000.5;    // JD - MJD, days
constexpr double kMjdJ2000 = 51544.5;       // MJD of J2000.0, days
constexpr double kDaysPerCentury = 36525.0;
constexpr double kSecondsPerDay = 86400.0;
constexpr double kTwoPi = 6.283185307179586;
constexpr double kArcsecPerRevolution = 1296000.0;
constexpr double kArcsecPerRadian = 206264.80624709636;
// J2000 mean obliquity 23.43929111 deg (IAU 1976).
constexpr double kCosObliquity = 0.9174820620768958;
constexpr double kSinObliquity = 0.3977771559141214;

double fraction(double x) {
  double whole;
  return std::modf(x, &whole);
}

// A point on the unit circle, (cos x, sin x); products add the angles, so the
// many combined arguments of the series cost no further sines.
struct Phase {
  double c, s;
};
Phase phase(double x) {
  return {std::cos(x), std::sin(x)};
}
Phase operator*(Phase a, Phase b) {
  return {a.c * b.c - a.s * b.s, a.s * b.c + a.c * b.s};
}
Phase operator/(Phase a, Phase b) {
  return {a.c * b.c + a.s * b.s, a.s * b.c - a.c * b.s};
}

// Point-mass attraction relative to the Earth's centre (Montenbruck & Gill eq. 3.37).
void attraction(double gm, double const body[3], double const r[3], ThirdBody& term) {
  for (int i = 0; i < 3; ++i) term.d[i] = body[i] - r[i];
  double const dn = norm3(term.d), bn = norm3(body);
  double const dInv3 = 1.0 / (dn * dn * dn);
  double const bInv3 = 1.0 / (bn * bn * bn);
  for (int i = 0; i < 3; ++i) term.acc[i] = gm * (term.d[i] * dInv3 - body[i] * bInv3);
  term.d2 = dot3(term.d, term.d);
  term.gradScale = -gm * dInv3;
}

double centuries(double t) {
  return ((t + kGpsToTt) / kSecondsPerDay + kJdGpsOrigin - kMjdOffset - kMjdJ2000) / kDaysPerCentury;
}

void sunAt(double T, double sun[3]) {
  // Sun: mean anomaly, ecliptic longitude (J2000 equinox), distance. The
  // perihelion is held fixed, so the longitude drifts from J2000 by the
  // perihelion's own motion, about 12 arcsec a year (0.12 deg by 2035).
  double const M = kTwoPi * fraction(0.9931267 + 99.9973583 * T);
  Phase const m1 = phase(M), m2 = m1 * m1;
  double const L =
      kTwoPi * fraction(0.7859444 + M / kTwoPi + (6892.0 * m1.s + 72.0 * m2.s) / kArcsecPerRevolution);
  double const rSun = 149619000000.0 - 2499000000.0 * m1.c - 21000000.0 * m2.c;
  Phase const sl = phase(L);
  sun[0] = rSun * sl.c;
  sun[1] = rSun * sl.s * kCosObliquity;
  sun[2] = rSun * sl.s * kSinObliquity;
}

}  // namespace

void sunJ2000(double t, double sun[3]) {
  sunAt(centuries(t), sun);
}

void sunMoonJ2000(double t, double moon[3], double sun[3]) {
  double const T = centuries(t);
  sunAt(T, sun);

  // Moon: mean longitude (precession removed), anomalies of Moon and Sun,
  // elongation, argument of latitude.
  double const L0 = fraction(0.606433 + 1336.851344 * T);
  double const F = kTwoPi * fraction(0.259086 + 1342.227825 * T);
  Phase const l = phase(kTwoPi * fraction(0.374897 + 1325.552410 * T));
  Phase const lp = phase(kTwoPi * fraction(0.993133 + 99.997361 * T));
  Phase const D = phase(kTwoPi * fraction(0.827361 + 1236.853086 * T));
  Phase const f = phase(F);
  Phase const l2 = l * l, D2 = D * D, F2 = f * f;
  Phase const lMinus2D = l / D2, lpMinus2D = lp / D2, l2Minus2D = l2 / D2, llpMinus2D = lMinus2D * lp;
  double const dL = 22640.0 * l.s - 4586.0 * lMinus2D.s + 2370.0 * D2.s + 769.0 * l2.s - 668.0 * lp.s -
                    412.0 * F2.s - 212.0 * l2Minus2D.s - 206.0 * llpMinus2D.s + 192.0 * (l * D2).s -
                    165.0 * lpMinus2D.s - 125.0 * D.s - 110.0 * (l * lp).s + 148.0 * (l / lp).s -
                    55.0 * (F2 / D2).s;
  double const lambda = kTwoPi * fraction(L0 + dL / kArcsecPerRevolution);
  double const S = F + (dL + 412.0 * F2.s + 541.0 * lp.s) / kArcsecPerRadian;
  Phase const h = f / D2;
  double const N = -526.0 * h.s + 44.0 * (l * h).s - 31.0 * (h / l).s - 23.0 * (lp * h).s +
                   11.0 * (h / lp).s - 25.0 * (f / l2).s + 21.0 * (f / l).s;
  Phase const beta = phase((18520.0 * std::sin(S) + N) / kArcsecPerRadian);
  double const rMoon = 385000000.0 - 20905000.0 * l.c - 3699000.0 * lMinus2D.c - 2956000.0 * D2.c -
                       570000.0 * l2.c + 246000.0 * l2Minus2D.c - 205000.0 * lpMinus2D.c -
                       171000.0 * (l * D2).c - 152000.0 * llpMinus2D.c;
  Phase const lam = phase(lambda);
  double const ex = rMoon * lam.c * beta.c, ey = rMoon * lam.s * beta.c, ez = rMoon * beta.s;
  // Ecliptic to equator: the frame rotation R1(-eps).
  moon[0] = ex;
  moon[1] = kCosObliquity * ey - kSinObliquity * ez;
  moon[2] = kSinObliquity * ey + kCosObliquity * ez;
}

void sunMoonOfDate(double t, int leapSeconds, double moon[3], double sun[3]) {
  double moonJ2000[3], sunJ2000[3];
  sunMoonJ2000(t, moonJ2000, sunJ2000);
  Mat const m = icrsToInt0(t, 0.0, leapSeconds);
  for (int i = 0; i < 3; ++i) {
    moon[i] = m(i, 0) * moonJ2000[0] + m(i, 1) * moonJ2000[1] + m(i, 2) * moonJ2000[2];
    sun[i] = m(i, 0) * sunJ2000[0] + m(i, 1) * sunJ2000[1] + m(i, 2) * sunJ2000[2];
  }
}

void sunMoonAttraction(double const moon[3], double const sun[3], double const r[3], ThirdBody& moonTerm,
                       ThirdBody& sunTerm) {
  attraction(kMoonGm, moon, r, moonTerm);
  attraction(kSunGm, sun, r, sunTerm);
}

}  // namespace forces
}  // namespace support
}  // namespace zarn
