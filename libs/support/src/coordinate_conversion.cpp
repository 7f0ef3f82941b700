#include "zarn/support/coordinate_conversion.hpp"

#include <cmath>
#include <limits>
#include <stdexcept>

#include "tables/nutation_table.hpp"
#include "zarn/support/time_conversion.hpp"

namespace zarn {
namespace support {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kTwoPi = 2.0 * kPi;
constexpr double kDegToRad = kPi / 180.0;

// PZ-90.02 -> WGS 84 origin shift, m (GLONASS ICD ed. 5.1, 2008).
constexpr double kPz902ToWgs84Shift[3] = {-0.36, 0.08, 0.18};

// Below these the orbit counts as circular / equatorial.
constexpr double kCircularEccentricity = 1e-6;
constexpr double kEquatorialInclination = 1e-6;  // rad

constexpr double kArcsecToRad = 4.84813681109536e-6;
constexpr double kNutationUnitToRad = 4.84813681109536e-10;  // 0.0001 arcsec

// Time.
constexpr double kSecondsPerDay = 86400.0;
constexpr double kDaysPerCentury = 36525.0;
constexpr double kJ2000DaysAfterGpsEpoch = 7300.5;  // JD 2451545.0 - JD 2444244.5
constexpr double kMjdOfJ2000 = 51544.5;

// IAU 1976 precession angles, arcsec (Lieske et al. 1977, epoch J2000).
constexpr double kZeta1 = 2306.2181, kZeta2 = 0.30188, kZeta3 = 0.017998;
constexpr double kZ1 = 2306.2181, kZ2 = 1.09468, kZ3 = 0.018203;
constexpr double kTheta1 = 2004.3109, kTheta2 = -0.42665, kTheta3 = -0.041833;

// Mean obliquity of the ecliptic, arcsec (IAU 1980).
constexpr double kEps0 = 84381.448, kEps1 = -46.815, kEps2 = -0.00059, kEps3 = 0.001813;

// Delaunay arguments of the IAU 1980 nutation, degrees and degrees per Julian
// century powers: l, l', F, D, Omega.
constexpr double kDelaunay[5][4] = {
    {134.96298138888886, 477198.8673980555, 0.008697222222222223, 1.7777777777777777e-5},
    {357.5277233333333, 35999.05034555556, -0.00016027777777777777, -3.3333333333333333e-6},
    {93.27191027777778, 483202.01753805554, -0.0036825, 3.055555555555555e-6},
    {297.8503630555556, 445267.11147999996, -0.0019141666666666667, 5.277777777777778e-6},
    {125.04452222222223, -1934.1362608333334, 0.0020708333333333334, 2.222222222222222e-6},
};

// GMST of 1982 in seconds of time (Aoki et al. 1982, A&A 105, 359).
constexpr double kGmst0 = 24110.54841, kGmst1 = 8640184.812866, kGmst2 = 0.093104, kGmst3 = -6.2e-6;
constexpr double kSiderealPerSolar = 1.002737909350795;
// Complementary terms of the equation of the equinoxes, rad (0.002649", 0.000013").
constexpr double kEqeqSinOmega = 1.2842714412591608e-8;
constexpr double kEqeqCosOmega = 6.302577854423968e-11;

// Fixed-size 3x3 work matrix; the public interface converts to Mat at the end.
struct M3 {
  double a[3][3];
};

M3 rot(int axis, double angle) {
  double const c = std::cos(angle), s = std::sin(angle);
  switch (axis) {
    case 1:
      return M3{{{1, 0, 0}, {0, c, s}, {0, -s, c}}};
    case 2:
      return M3{{{c, 0, -s}, {0, 1, 0}, {s, 0, c}}};
    default:
      return M3{{{c, s, 0}, {-s, c, 0}, {0, 0, 1}}};
  }
}

M3 mul(M3 const& x, M3 const& y) {
  M3 r;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      r.a[i][j] = x.a[i][0] * y.a[0][j] + x.a[i][1] * y.a[1][j] + x.a[i][2] * y.a[2][j];
  return r;
}

// x * y^T
M3 mulT(M3 const& x, M3 const& y) {
  M3 r;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      r.a[i][j] = x.a[i][0] * y.a[j][0] + x.a[i][1] * y.a[j][1] + x.a[i][2] * y.a[j][2];
  return r;
}

M3 transpose(M3 const& x) {
  M3 r;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) r.a[i][j] = x.a[j][i];
  return r;
}

struct V3 {
  double x[3];
};

V3 apply(M3 const& m, V3 const& v) {
  V3 r;
  for (int i = 0; i < 3; ++i) r.x[i] = m.a[i][0] * v.x[0] + m.a[i][1] * v.x[1] + m.a[i][2] * v.x[2];
  return r;
}

// w x v with w = (0, 0, earthRotationRate).
V3 earthRateCross(V3 const& v) {
  return V3{{-earthRotationRate * v.x[1], earthRotationRate * v.x[0], 0.0}};
}

V3 add(V3 const& a, V3 const& b) {
  return V3{{a.x[0] + b.x[0], a.x[1] + b.x[1], a.x[2] + b.x[2]}};
}
V3 sub(V3 const& a, V3 const& b) {
  return V3{{a.x[0] - b.x[0], a.x[1] - b.x[1], a.x[2] - b.x[2]}};
}

V3 fromVec(Vec const& v) {
  return V3{{v(0), v(1), v(2)}};
}
void toVec(V3 const& v, Vec& out) {
  for (int i = 0; i < 3; ++i) out(i) = v.x[i];
}
V3 column(Mat const& m, std::size_t k) {
  return V3{{m(0, k), m(1, k), m(2, k)}};
}
void setColumn(V3 const& v, Mat& m, std::size_t k) {
  for (int i = 0; i < 3; ++i) m(i, k) = v.x[i];
}

Mat toMat(M3 const& m) {
  Mat r(3, 3);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) r(i, j) = m.a[i][j];
  return r;
}

double polynomial(double const (&c)[4], double t) {
  return c[0] + t * (c[1] + t * (c[2] + t * c[3]));
}

M3 icrsToEarthRotating(double t, double ut1MinusUtc, int leapSeconds) {
  // Julian centuries since J2000 on the GPS scale.
  double const T = (t / kSecondsPerDay - kJ2000DaysAfterGpsEpoch) / kDaysPerCentury;

  double const zeta = T * (kZeta1 + T * (kZeta2 + T * kZeta3)) * kArcsecToRad;
  double const z = T * (kZ1 + T * (kZ2 + T * kZ3)) * kArcsecToRad;
  double const theta = T * (kTheta1 + T * (kTheta2 + T * kTheta3)) * kArcsecToRad;
  M3 const P = mul(mul(rot(3, -z), rot(2, theta)), rot(3, -zeta));

  // The degree reduction is exact and keeps the arguments of the sines small.
  double F[5];
  for (int k = 0; k < 5; ++k) F[k] = std::fmod(polynomial(kDelaunay[k], T), 360.0) * kDegToRad;

  // cos and sin of every multiple m F[k], |m| <= nutationMaxMultiplier, by
  // angle addition; each term's argument is then a product of five of them,
  // which costs a fraction of 106 sine-cosine pairs.
  constexpr int kMaxMultiplier = tables::nutationMaxMultiplier;
  double cm[5][2 * kMaxMultiplier + 1], sm[5][2 * kMaxMultiplier + 1];
  for (int k = 0; k < 5; ++k) {
    double const c1 = std::cos(F[k]), s1 = std::sin(F[k]);
    cm[k][kMaxMultiplier] = 1.0;
    sm[k][kMaxMultiplier] = 0.0;
    for (int m = 1; m <= kMaxMultiplier; ++m) {
      cm[k][kMaxMultiplier + m] = cm[k][kMaxMultiplier + m - 1] * c1 - sm[k][kMaxMultiplier + m - 1] * s1;
      sm[k][kMaxMultiplier + m] = sm[k][kMaxMultiplier + m - 1] * c1 + cm[k][kMaxMultiplier + m - 1] * s1;
      cm[k][kMaxMultiplier - m] = cm[k][kMaxMultiplier + m];
      sm[k][kMaxMultiplier - m] = -sm[k][kMaxMultiplier + m];
    }
  }
  double dpsi = 0.0, deps = 0.0;
  for (tables::NutationTerm const& term : tables::nutationTerms) {
    double c = cm[0][kMaxMultiplier + term.multiplier[0]], s = sm[0][kMaxMultiplier + term.multiplier[0]];
    for (int k = 1; k < 5; ++k) {
      double const ck = cm[k][kMaxMultiplier + term.multiplier[k]],
                   sk = sm[k][kMaxMultiplier + term.multiplier[k]];
      double const cNew = c * ck - s * sk;
      s = s * ck + c * sk;
      c = cNew;
    }
    dpsi += (term.a + term.aT * T) * s;
    deps += (term.b + term.bT * T) * c;
  }
  dpsi *= kNutationUnitToRad;
  deps *= kNutationUnitToRad;

  double const epsA = (kEps0 + T * (kEps1 + T * (kEps2 + T * kEps3))) * kArcsecToRad;
  M3 const N = mul(mul(rot(1, -epsA - deps), rot(3, -dpsi)), rot(1, epsA));

  // GMST from UT1: whole day and fraction kept apart for precision.
  double const ut1 = t + ut1MinusUtc - leapSeconds;
  Mjd const mjd = gpsSecsToMJD(ut1);
  double const dayFraction = mjd.fraction;
  double const Tu = (static_cast<double>(mjd.day) - kMjdOfJ2000) / kDaysPerCentury;
  double const Tp = (ut1 / kSecondsPerDay - kJ2000DaysAfterGpsEpoch) / kDaysPerCentury;
  double const gmstSeconds = kGmst0 + kGmst1 * Tu + kSiderealPerSolar * kSecondsPerDay * dayFraction +
                             (kGmst2 + kGmst3 * Tp) * Tp * Tp;
  double gmst = std::fmod(gmstSeconds / kSecondsPerDay, 1.0);
  if (gmst < 0.0) gmst += 1.0;

  double const omega = F[4];
  double gast = kTwoPi * gmst + dpsi * std::cos(epsA) + kEqeqSinOmega * std::sin(omega) +
                kEqeqCosOmega * std::cos(omega);
  gast = std::fmod(gast, kTwoPi);
  if (gast < 0.0) gast += kTwoPi;

  return mul(rot(3, gast), mul(N, P));
}

M3 polarMotion(Eop const& eop) {
  return mul(rot(2, -eop.xp), rot(1, -eop.yp));
}

void polarMotionDerivatives(Eop const& eop, M3& dWdxp, M3& dWdyp) {
  double const cx = std::cos(eop.xp), sx = std::sin(eop.xp);
  double const cy = std::cos(eop.yp), sy = std::sin(eop.yp);
  // d/dxp R2(-xp) and d/dyp R1(-yp).
  M3 const dR2 = {{{-sx, 0, cx}, {0, 0, 0}, {-cx, 0, -sx}}};
  M3 const dR1 = {{{0, 0, 0}, {0, -sy, -cy}, {0, cy, -sy}}};
  dWdxp = mul(dR2, rot(1, -eop.yp));
  dWdyp = mul(rot(2, -eop.xp), dR1);
}

double dot(V3 const& a, V3 const& b) {
  return a.x[0] * b.x[0] + a.x[1] * b.x[1] + a.x[2] * b.x[2];
}
double norm(V3 const& a) {
  return std::sqrt(dot(a, a));
}
V3 cross3(V3 const& a, V3 const& b) {
  return V3{{a.x[1] * b.x[2] - a.x[2] * b.x[1], a.x[2] * b.x[0] - a.x[0] * b.x[2],
             a.x[0] * b.x[1] - a.x[1] * b.x[0]}};
}

// Angle in [0, 2 pi) from its cosine, on the far half-turn when `far`. The
// cosine is clamped since rounding can push it just past +-1.
double angleFromCosine(double cosine, bool far) {
  double const a = std::acos(std::fmax(-1.0, std::fmin(1.0, cosine)));
  if (!far || a == 0.0) return a;
  return kTwoPi - a;
}

}  // namespace

Mat rotationMatrix(int axis, double angle) {
  if (axis < 1 || axis > 3) ZARN_THROW(std::invalid_argument("rotationMatrix: invalid axis"));
  return toMat(rot(axis, angle));
}

Vec pz902ToWgs84(Vec const& position) {
  if (position.size() != 3)
    ZARN_THROW(std::invalid_argument("pz902ToWgs: Coordinate vector is not three dimensional."));
  Vec result(position);
  for (int i = 0; i < 3; ++i) result(i) += kPz902ToWgs84Shift[i];
  return result;
}

Vec wgs84ToPz902(Vec const& position) {
  if (position.size() != 3)
    ZARN_THROW(std::invalid_argument("wgsToPz902: Coordinate vector is not three dimensional."));
  Vec result(position);
  for (int i = 0; i < 3; ++i) result(i) -= kPz902ToWgs84Shift[i];
  return result;
}

Vec eciToOrb(Vec const& rv, Vec const& vv) {
  if (rv.size() != 3)
    ZARN_THROW(std::invalid_argument("eciToOrb: Coordinate vector is not three dimensional."));
  if (vv.size() != 3)
    ZARN_THROW(std::invalid_argument("eciToOrb: Velocity vector is not three dimensional."));
  V3 const r = fromVec(rv), v = fromVec(vv);
  V3 const h = cross3(r, v);
  V3 const n = {{-h.x[1], h.x[0], 0.0}};  // z x h, towards the ascending node
  double const rNorm = norm(r), v2 = dot(v, v), rDotV = dot(r, v), nNorm = norm(n);
  double const energy = v2 / 2.0 - kEarthGm / rNorm;
  V3 eVec;
  for (int k = 0; k < 3; ++k) eVec.x[k] = ((v2 - kEarthGm / rNorm) * r.x[k] - rDotV * v.x[k]) / kEarthGm;
  double e = norm(eVec);
  if (std::fabs(e) < kCircularEccentricity) e = 0.0;
  double i = std::acos(std::fmax(-1.0, std::fmin(1.0, h.x[2] / norm(h))));
  if (std::fabs(i) < kEquatorialInclination) i = 0.0;

  double Omega = nNorm == 0.0 ? 0.0 : angleFromCosine(n.x[0] / nNorm, n.x[1] < 0.0);
  double a, omega, nu;
  if (e == 0.0) {
    a = -kEarthGm / (2.0 * energy);
    omega = 0.0;
    if (i == 0.0) {
      nu = angleFromCosine(r.x[0] / rNorm, r.x[1] < 0.0);  // true longitude
      Omega = 0.0;
    } else {
      nu = angleFromCosine(dot(n, r) / (nNorm * rNorm), r.x[2] < 0.0);  // argument of latitude
    }
  } else {
    a = e == 1.0 ? std::numeric_limits<double>::infinity() : -kEarthGm / (2.0 * energy);
    nu = angleFromCosine(dot(eVec, r) / (e * rNorm), rDotV < 0.0);
    if (i == 0.0) {
      omega = angleFromCosine(eVec.x[0] / e, eVec.x[1] < 0.0);  // longitude of perigee
      Omega = 0.0;
    } else {
      omega = angleFromCosine(dot(n, eVec) / (nNorm * e), eVec.x[2] < 0.0);
    }
  }
  Vec result(6);
  result(0) = a;
  result(1) = e;
  result(2) = i;
  result(3) = omega;
  result(4) = Omega;
  result(5) = nu;
  return result;
}

void eciToRtn(Vec const& rv, Vec const& vv, Vec& y, Mat& A) {
  if (rv.size() != 3) ZARN_THROW(std::invalid_argument("eciToRtn: invalid size r"));
  if (vv.size() != 3) ZARN_THROW(std::invalid_argument("eciToRtn: invalid size v"));
  if (y.size() != 3) ZARN_THROW(std::invalid_argument("eciToRtn: invalid size y"));
  if (A.size1() != 3 || A.size2() != 3) ZARN_THROW(std::invalid_argument("eciToRtn: invalid size A"));
  V3 const r = fromVec(rv), v = fromVec(vv);
  double const rNorm = norm(r);
  V3 const radial = {{r.x[0] / rNorm, r.x[1] / rNorm, r.x[2] / rNorm}};
  V3 const h = cross3(r, v);
  double const hNorm = norm(h);
  V3 const normal = {{h.x[0] / hNorm, h.x[1] / hNorm, h.x[2] / hNorm}};
  V3 const transverse = cross3(normal, radial);
  M3 m;
  for (int k = 0; k < 3; ++k) {
    m.a[0][k] = radial.x[k];
    m.a[1][k] = transverse.x[k];
    m.a[2][k] = normal.x[k];
  }
  toVec(apply(m, fromVec(y)), y);
  for (int row = 0; row < 3; ++row)
    for (int col = 0; col < 3; ++col) A(row, col) = m.a[row][col];
}

Vec eciToRsw(Vec const& rRef, Vec const& vRef, Vec const& r, Vec const& v) {
  if (rRef.size() != 3)
    ZARN_THROW(std::invalid_argument("eciToRsw: Reference coordinate vector is not three dimensional."));
  if (vRef.size() != 3)
    ZARN_THROW(std::invalid_argument("eciToRsw: Reference velocity vector is not three dimensional."));
  if (r.size() != 3)
    ZARN_THROW(std::invalid_argument("eciToRsw: Coordinate vector is not three dimensional."));
  if (v.size() != 3) ZARN_THROW(std::invalid_argument("eciToRsw: Velocity vector is not three dimensional."));
  Vec const el = eciToOrb(rRef, vRef);
  M3 const m = mul(mul(mul(rot(3, el(5)), rot(3, el(3))), rot(1, el(2))), rot(3, el(4)));
  Vec result(3);
  toVec(apply(m, sub(fromVec(r), fromVec(rRef))), result);
  return result;
}

Vec rswToEci(Vec const& rRef, Vec const& vRef, Vec const& rRsw, Vec const& vRsw) {
  if (rRef.size() != 3)
    ZARN_THROW(std::invalid_argument("rswToEci: Reference coordinate vector is not three dimensional."));
  if (vRef.size() != 3)
    ZARN_THROW(std::invalid_argument("rswToEci: Reference velocity vector is not three dimensional."));
  if (rRsw.size() != 3)
    ZARN_THROW(std::invalid_argument("rswToEci: RSW coordinate vector is not three dimensional."));
  if (vRsw.size() != 3)
    ZARN_THROW(std::invalid_argument("rswToEci: RSW velocity vector is not three dimensional."));
  Vec const el = eciToOrb(rRef, vRef);
  double const a = el(0), e = el(1), i = el(2), omega = el(3), Omega = el(4), nu = el(5);
  double const cO = std::cos(Omega), sO = std::sin(Omega);
  double const cw = std::cos(omega), sw = std::sin(omega);
  double const ci = std::cos(i), si = std::sin(i);
  double const cn = std::cos(nu), sn = std::sin(nu);
  // Perifocal to inertial: R3(-Omega) R1(-i) R3(-omega).
  M3 const P = {{{cO * cw - sO * sw * ci, -cO * sw - sO * cw * ci, sO * si},
                 {sO * cw + cO * sw * ci, cO * cw * ci - sO * sw, -cO * si},
                 {sw * si, cw * si, ci}}};
  M3 const N = {{{cn, -sn, 0}, {sn, cn, 0}, {0, 0, 1}}};
  V3 const r = fromVec(rRef);
  double const nuDot = std::sqrt(kEarthGm * a * (1.0 - e * e)) / dot(r, r);  // h / |r|^2
  M3 const Ndot = {{{-nuDot * sn, -nuDot * cn, 0}, {nuDot * cn, -nuDot * sn, 0}, {0, 0, 0}}};
  Vec result(3);
  toVec(add(apply(P, apply(N, fromVec(vRsw))), apply(P, apply(Ndot, fromVec(rRsw)))), result);
  return result;
}

Mat icrsToInt0(double t, double ut1MinusUtc, int leapSeconds) {
  return toMat(icrsToEarthRotating(t, ut1MinusUtc, leapSeconds));
}

Mat polarMotionMatrix(Eop const& eop) {
  return toMat(polarMotion(eop));
}

void polarMotionPartials(Eop const& eop, Mat& dWdxp, Mat& dWdyp) {
  M3 dx, dy;
  polarMotionDerivatives(eop, dx, dy);
  dWdxp = toMat(dx);
  dWdyp = toMat(dy);
}

EopInfo makeEopInfo(Eop const& eop) {
  return EopInfo{eop, polarMotionMatrix(eop)};
}

InertialFrameInfo makeInertialFrameInfo(double tRef, double ut1MinusUtc, int leapSeconds) {
  return InertialFrameInfo{tRef, ut1MinusUtc, icrsToInt0(tRef, ut1MinusUtc, leapSeconds)};
}

void toEcef(Vec const& rInt0, Vec const& vInt0, double t, double t0, Eop const& eop, double ut1MinusUtc,
            int leapSeconds, Vec& rItrs, Vec& vItrs) {
  if (rInt0.size() != 3) ZARN_THROW(std::invalid_argument("toEcef: invalid size rInt0"));
  if (vInt0.size() != 3) ZARN_THROW(std::invalid_argument("toEcef: invalid size vInt0"));
  if (rItrs.size() != 3) ZARN_THROW(std::invalid_argument("toEcef: invalid size rItrs"));
  if (vItrs.size() != 3) ZARN_THROW(std::invalid_argument("toEcef: invalid size vItrs"));
  M3 const B = mulT(icrsToEarthRotating(t, ut1MinusUtc, leapSeconds),
                    icrsToEarthRotating(t0, ut1MinusUtc, leapSeconds));
  M3 const W = polarMotion(eop);
  V3 const r = apply(B, fromVec(rInt0));
  V3 const v = sub(apply(B, fromVec(vInt0)), earthRateCross(r));
  toVec(apply(W, r), rItrs);
  toVec(apply(W, v), vItrs);
}

void toInt0(Vec const& rItrs, Vec const& vItrs, Eop const& eop, Vec& rInt0, Vec& vInt0, Mat& H) {
  if (rItrs.size() != 3) ZARN_THROW(std::invalid_argument("toInt0: invalid size rItrs"));
  if (vItrs.size() != 3) ZARN_THROW(std::invalid_argument("toInt0: invalid size vItrs"));
  if (rInt0.size() != 3) ZARN_THROW(std::invalid_argument("toInt0: invalid size rInt0"));
  if (vInt0.size() != 3) ZARN_THROW(std::invalid_argument("toInt0: invalid size vInt0"));
  if (H.size1() != 8 || H.size2() != 8) ZARN_THROW(std::invalid_argument("toInt0: invalid size H"));
  M3 const Wt = transpose(polarMotion(eop));
  M3 dWdxp, dWdyp;
  polarMotionDerivatives(eop, dWdxp, dWdyp);
  M3 const dWt[2] = {transpose(dWdxp), transpose(dWdyp)};

  V3 const re = fromVec(rItrs), ve = fromVec(vItrs);
  V3 const r = apply(Wt, re);
  V3 const v = add(apply(Wt, ve), earthRateCross(r));

  H.clear();
  for (int col = 0; col < 3; ++col) {
    V3 const WtCol = {{Wt.a[0][col], Wt.a[1][col], Wt.a[2][col]}};
    V3 const rateCol = earthRateCross(WtCol);
    for (int row = 0; row < 3; ++row) {
      H(row, col) = WtCol.x[row];          // d rInt0 / d rItrs
      H(row + 3, col + 3) = WtCol.x[row];  // d vInt0 / d vItrs
      H(row + 3, col) = rateCol.x[row];    // d vInt0 / d rItrs
    }
  }
  for (int p = 0; p < 2; ++p) {
    V3 const dr = apply(dWt[p], re);
    V3 const dv = add(apply(dWt[p], ve), earthRateCross(dr));
    for (int row = 0; row < 3; ++row) {
      H(row, 6 + p) = dr.x[row];
      H(row + 3, 6 + p) = dv.x[row];
    }
    H(6 + p, 6 + p) = 1.0;
  }
  toVec(r, rInt0);
  toVec(v, vInt0);
}

void itrsToInt0(Mat const& rItrs, Mat const& vItrs, Vec const& t, double t0, Eop const& eop,
                double ut1MinusUtc, int leapSeconds, Mat& rInt0, Mat& vInt0) {
  std::size_t const n = rItrs.size2();
  if (rItrs.size1() != 3) ZARN_THROW(std::invalid_argument("itrsToInt0: invalid size rItrs"));
  if (vItrs.size1() != 3) ZARN_THROW(std::invalid_argument("itrsToInt0: invalid size vItrs"));
  if (vItrs.size2() != n) ZARN_THROW(std::invalid_argument("itrsToInt0: rItrs and vItrs size mismatch"));
  if (t.size() != n) ZARN_THROW(std::invalid_argument("itrsToInt0: invalid size t"));
  if (rInt0.size1() != 3 || rInt0.size2() != n)
    ZARN_THROW(std::invalid_argument("itrsToInt0: invalid size rInt0"));
  if (vInt0.size1() != 3) ZARN_THROW(std::invalid_argument("itrsToInt0: invalid size vInt0"));
  if (vInt0.size2() != rInt0.size2())
    ZARN_THROW(std::invalid_argument("itrsToInt0: rInt0 and vInt0 size mismatch"));
  M3 const Wt = transpose(polarMotion(eop));
  M3 const M0 = icrsToEarthRotating(t0, ut1MinusUtc, leapSeconds);
  for (std::size_t k = 0; k < n; ++k) {
    // B^T = M(t0) M(t)^T
    M3 const Bt = mulT(M0, icrsToEarthRotating(t(k), ut1MinusUtc, leapSeconds));
    V3 const r = apply(Wt, column(rItrs, k));
    V3 const v = add(apply(Wt, column(vItrs, k)), earthRateCross(r));
    setColumn(apply(Bt, r), rInt0, k);
    setColumn(apply(Bt, v), vInt0, k);
  }
}

}  // namespace support
}  // namespace zarn
