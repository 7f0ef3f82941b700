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

// Motion of the Sun's perihelion against the fixed J2000 equinox: the
// general precession (5029.1"/cy) taken from the perihelion's advance of date
// (1.7192 deg/cy, Simon et al. 1994), 1160"/cy.
constexpr double kPerihelionRate = 1160.0 / kArcsecPerRevolution;  // revolutions per century
// (cos, sin) of the longitude of the Sun's perihelion at J2000, 282.9365 deg:
// Montenbruck & Gill 3.3.2, less the 0.0035 deg by which the mean anomaly at
// J2000 used here (Meeus's) exceeds theirs.
constexpr Phase kSunPerihelion{0.22387090150, -0.97461880726};

constexpr double kDegree = kTwoPi / 360.0;  // rad

// Periodic terms of the Moon's longitude and distance (Meeus, Astronomical
// Algorithms, 2nd ed. 1998, table 47.A, from the ELP-2000/82 theory):
// multiples of D, M, M', F; sine coefficient of the longitude in 1e-6 deg,
// cosine coefficient of the distance in m.
struct LunarTerm {
  signed char d, m, mp, f;
  int longitude, distance;
};
constexpr LunarTerm kLongitudeDistance[] = {
    {0, 0, 1, 0, 6288774, -20905355}, {2, 0, -1, 0, 1274027, -3699111}, {2, 0, 0, 0, 658314, -2955968},
    {0, 0, 2, 0, 213618, -569925},    {0, 1, 0, 0, -185116, 48888},     {0, 0, 0, 2, -114332, -3149},
    {2, 0, -2, 0, 58793, 246158},     {2, -1, -1, 0, 57066, -152138},   {2, 0, 1, 0, 53322, -170733},
    {2, -1, 0, 0, 45758, -204586},    {0, 1, -1, 0, -40923, -129620},   {1, 0, 0, 0, -34720, 108743},
    {0, 1, 1, 0, -30383, 104755},     {2, 0, 0, -2, 15327, 10321},      {0, 0, 1, 2, -12528, 0},
    {0, 0, 1, -2, 10980, 79661},      {4, 0, -1, 0, 10675, -34782},     {0, 0, 3, 0, 10034, -23210},
    {4, 0, -2, 0, 8548, -21636},      {2, 1, -1, 0, -7888, 24208},      {2, 1, 0, 0, -6766, 30824},
    {1, 0, -1, 0, -5163, -8379},      {1, 1, 0, 0, 4987, -16675},       {2, -1, 1, 0, 4036, -12831},
    {2, 0, 2, 0, 3994, -10445},       {4, 0, 0, 0, 3861, -11650},       {2, 0, -3, 0, 3665, 14403},
    {0, 1, -2, 0, -2689, -7003},      {2, 0, -1, 2, -2602, 0},          {2, -1, -2, 0, 2390, 10056},
    {1, 0, 1, 0, -2348, 6322},        {2, -2, 0, 0, 2236, -9884},       {0, 1, 2, 0, -2120, 5751},
    {0, 2, 0, 0, -2069, 0},           {2, -2, -1, 0, 2048, -4950},      {2, 0, 1, -2, -1773, 4130},
    {2, 0, 0, 2, -1595, 0},           {4, -1, -1, 0, 1215, -3958},      {0, 0, 2, 2, -1110, 0},
    {3, 0, -1, 0, -892, 3258},        {2, 1, 1, 0, -810, 2616},         {4, -1, -2, 0, 759, -1897},
    {0, 2, -1, 0, -713, -2117},       {2, 2, -1, 0, -700, 2354},        {2, 1, -2, 0, 691, 0},
    {2, -1, 0, -2, 596, 0},           {4, 0, 1, 0, 549, -1423},         {0, 0, 4, 0, 537, -1117},
    {4, -1, 0, 0, 520, -1571},        {1, 0, -2, 0, -487, -1739},       {0, 0, 2, -2, -381, -4421},
    {0, 2, 1, 0, -323, 1165},         {2, 0, -1, -2, 0, 8752}};

// Periodic terms of the Moon's latitude (Meeus table 47.B), sine
// coefficients in 1e-6 deg.
struct LatitudeTerm {
  signed char d, m, mp, f;
  int latitude;
};
constexpr LatitudeTerm kLatitude[] = {
    {0, 0, 0, 1, 5128122}, {0, 0, 1, 1, 280602},  {0, 0, 1, -1, 277693}, {2, 0, 0, -1, 173237},
    {2, 0, -1, 1, 55413},  {2, 0, -1, -1, 46271}, {2, 0, 0, 1, 32573},   {0, 0, 2, 1, 17198},
    {2, 0, 1, -1, 9266},   {0, 0, 2, -1, 8822},   {2, -1, 0, -1, 8216},  {2, 0, -2, -1, 4324},
    {2, 0, 1, 1, 4200},    {2, 1, 0, -1, -3359},  {2, -1, -1, 1, 2463},  {2, -1, 0, 1, 2211},
    {2, -1, -1, -1, 2065}, {0, 1, -1, -1, -1870}, {4, 0, -1, -1, 1828},  {0, 1, 0, 1, -1794},
    {0, 0, 0, 3, -1749},   {0, 1, -1, 1, -1565},  {1, 0, 0, 1, -1491},   {0, 1, 1, 1, -1475},
    {0, 1, 1, -1, -1410},  {0, 1, 0, -1, -1344},  {1, 0, 0, -1, -1335},  {0, 0, 3, 1, 1107},
    {4, 0, 0, -1, 1021},   {4, 0, -1, 1, 833},    {0, 0, 1, -3, 777},    {4, 0, -2, 1, 671},
    {2, 0, 0, -3, 607},    {2, 0, 2, -1, 596},    {2, -1, 1, -1, 491},   {2, 0, -2, 1, -451},
    {0, 0, 3, -1, 439},    {2, 0, 2, 1, 422},     {2, 0, -3, -1, 421}};

// Integer multiples -4..4 of one angle.
struct Multiples {
  Phase k[9];
  Multiples() = default;
  explicit Multiples(double x) {
    k[4] = {1.0, 0.0};
    k[5] = phase(x);
    for (int i = 6; i < 9; ++i) k[i] = k[i - 1] * k[5];
    for (int i = 0; i < 4; ++i) k[i] = {k[8 - i].c, -k[8 - i].s};
  }
  Phase operator[](int i) const { return k[i + 4]; }
};

// A polynomial in T (coefficients from the constant up).
double polynomial(double T, double c0, double c1, double c2, double c3, double c4) {
  return c0 + T * (c1 + T * (c2 + T * (c3 + T * c4)));
}

// An angle given in degrees, reduced to one revolution, in radians.
double revolution(double degrees) {
  return kTwoPi * fraction(degrees / 360.0);
}

// (cos x, sin x) of a small angle from its Taylor series: good to 1e-10 for
// |x| < 0.15.
Phase smallPhase(double x) {
  double const x2 = x * x;
  return {1.0 - x2 / 2.0 * (1.0 - x2 / 12.0 * (1.0 - x2 / 30.0)), x * (1.0 - x2 / 6.0 * (1.0 - x2 / 20.0))};
}

// Node of the moving ecliptic on that of J2000 at J2000, 174.876384 deg
// (Lieske et al. 1977).
constexpr Phase kEclipticNode{-0.99600434062, 0.08930483448};

// Geocentric Moon (m), mean equator and equinox of J2000, T Julian centuries
// of TT from J2000: Meeus ch. 47 in the ecliptic and equinox of date, then the
// ecliptic precession back to J2000 (Lieske et al. 1977, Meeus eq. 21.5).
// Leaves the multiples of M, the Sun's mean anomaly, in `m`.
void lunarPosition(double T, double moon[3], Multiples& m) {
  double const Lp =
      polynomial(T, 218.3164477, 481267.88123421, -0.0015786, 1.0 / 538841.0, -1.0 / 65194000.0) / 360.0;
  Multiples const d(
      revolution(polynomial(T, 297.8501921, 445267.1114034, -0.0018819, 1.0 / 545868.0, -1.0 / 113065000.0)));
  m = Multiples(revolution(polynomial(T, 357.5291092, 35999.0502909, -0.0001536, 1.0 / 24490000.0, 0.0)));
  Multiples const mp(
      revolution(polynomial(T, 134.9633964, 477198.8675055, 0.0087414, 1.0 / 69699.0, -1.0 / 14712000.0)));
  Multiples const f(
      revolution(polynomial(T, 93.2720950, 483202.0175233, -0.0036539, -1.0 / 3526000.0, 1.0 / 863310000.0)));
  // Multiples of D and M, those of M weighted by the eccentricity factor of
  // the Earth's orbit: every term needs one of these.
  double const E = 1.0 - T * (0.002516 + 0.0000074 * T);
  double const eFactor[5] = {E * E, E, 1.0, E, E * E};
  Phase dm[5][5];
  for (int i = 0; i < 5; ++i)
    for (int j = 0; j < 5; ++j) {
      Phase const x = d[i] * m[j - 2];
      dm[i][j] = {eFactor[j] * x.c, eFactor[j] * x.s};
    }
  double sl = 0.0, sr = 0.0, sb = 0.0;
  for (LunarTerm const& x : kLongitudeDistance) {
    Phase const a = dm[x.d][x.m + 2] * mp[x.mp] * f[x.f];
    sl += x.longitude * a.s;
    sr += x.distance * a.c;
  }
  for (LatitudeTerm const& x : kLatitude) sb += x.latitude * (dm[x.d][x.m + 2] * mp[x.mp] * f[x.f]).s;
  // Venus (A1) and the Earth's flattening; the terms below 0.0004 deg left out.
  Phase const L = phase(kTwoPi * fraction(Lp)), a1 = phase(revolution(119.75 + 131.849 * T));
  sl += 3958.0 * a1.s + 1962.0 * (L / f[1]).s;
  sb +=
      -2235.0 * L.s + 175.0 * ((a1 / f[1]).s + (a1 * f[1]).s) + 127.0 * (L / mp[1]).s - 115.0 * (L * mp[1]).s;
  double const beta = sb * 1e-6 * kDegree;
  double const r = 385000560.0 + sr;

  // Ecliptic of date to that of J2000: the node Pi of the moving ecliptic on
  // the fixed one, its inclination eta and the precession p in longitude.
  double const eta = (47.0029 - 0.03302 * T) * T / kArcsecPerRadian;
  double const dPi = (-869.8089 + 0.03536 * T) * T / kArcsecPerRadian;
  double const p = (5029.0966 + 1.11113 * T) * T / kArcsecPerRevolution;
  Phase const u = L * smallPhase(sl * 1e-6 * kDegree - kTwoPi * p - dPi) / kEclipticNode;
  Phase const b = smallPhase(beta), node = kEclipticNode * smallPhase(dPi);
  double const w[3] = {r * b.c * u.c, r * b.c * u.s, r * b.s};
  double const ce = 1.0 - 0.5 * eta * eta;
  double const v[3] = {w[0], ce * w[1] - eta * w[2], eta * w[1] + ce * w[2]};
  double const ex = node.c * v[0] - node.s * v[1], ey = node.s * v[0] + node.c * v[1], ez = v[2];
  // Ecliptic to equator: the frame rotation R1(-eps).
  moon[0] = ex;
  moon[1] = kCosObliquity * ey - kSinObliquity * ez;
  moon[2] = kSinObliquity * ey + kCosObliquity * ez;
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

void sunMoonJ2000Accurate(double t, double moon[3], double sun[3]) {
  double const T =
      ((t + kGpsToTt) / kSecondsPerDay + kJdGpsOrigin - kMjdOffset - kMjdJ2000) / kDaysPerCentury;

  Multiples m;
  lunarPosition(T, moon, m);

  // Sun: ecliptic longitude (J2000 equinox) and distance from the mean
  // anomaly; the perihelion advances against the fixed equinox.
  Phase const m1 = m[1], m2 = m[2];
  Phase const sl =
      kSunPerihelion *
      smallPhase(kTwoPi * (kPerihelionRate * T + (6892.0 * m1.s + 72.0 * m2.s) / kArcsecPerRevolution)) * m1;
  double const rSun = 149619000000.0 - 2499000000.0 * m1.c - 21000000.0 * m2.c;
  sun[0] = rSun * sl.c;
  sun[1] = rSun * sl.s * kCosObliquity;
  sun[2] = rSun * sl.s * kSinObliquity;
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
