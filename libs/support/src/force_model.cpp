#include "zarn/support/force_model.hpp"

#include <cmath>
#include <stdexcept>

#include "tables/geopotential_table.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/serialization.hpp"

namespace zarn {
namespace support {
namespace {

constexpr double kGm = 3.986004418e14;                  // Earth GM, m^3/s^2
constexpr double kRadius = 6378136.3;                   // reference radius of the field, m
constexpr double kGmMoon = 4.902801e12;                 // m^3/s^2
constexpr double kGmSun = 1.32712440018e20;             // m^3/s^2
constexpr double kEarthRotationRate = 7.2921158553e-5;  // rad/s
constexpr int kMaxDegree = tables::kGeopotentialDegree;
// Cunningham functions are needed two degrees above the field for the gradient.
constexpr int kWork = kMaxDegree + 3;

// Sun and Moon series.
constexpr double kGpsToTt = 51.184;         // TT - GPS, s
constexpr double kJdGpsOrigin = 2444244.5;  // Julian date of GPS second 0
constexpr double kMjdOffset = 2400000.5;    // JD - MJD, days
constexpr double kMjdJ2000 = 51544.5;       // MJD of J2000.0
constexpr double kDaysPerCentury = 36525.0;
constexpr double kSecondsPerDay = 86400.0;
constexpr double kTwoPi = 6.283185307179586;
constexpr double kPi = 3.141592653589793;
constexpr double kArcsecPerRevolution = 1296000.0;
constexpr double kArcsecPerRadian = 206264.80624709636;
constexpr double kCosObliquity = 0.9174820620768958;  // J2000 mean obliquity 23.43929111 deg
constexpr double kSinObliquity = 0.3977771559141214;

// Shadow and radiation pressure.
constexpr double kSunRadius = 695500000.0;            // m
constexpr double kShadowEarthRadius = 6402000.0;      // m, includes a margin for the atmosphere
constexpr double kAstronomicalUnit = 149597870691.0;  // m
constexpr double kSolarPressure = 4.56e-6;            // N/m^2 at 1 AU
constexpr double kReflectivity = 1.21;
constexpr double kSatelliteArea = 13.4;    // m^2
constexpr double kSatelliteMass = 1075.0;  // kg
constexpr double kSrpPerUnitScale =
    kSolarPressure * kReflectivity * kSatelliteArea / kSatelliteMass;  // m/s^2
constexpr double kYBiasUnit = 1e-9;                                    // m/s^2 per unit of srp[1]

// Variational state of the rkf78 adapter: position, velocity, two model
// parameters, then the 8x8 transition matrix.
constexpr unsigned kParameters = 8;
constexpr unsigned kVariationalSize = kParameters + kParameters * kParameters;  // 72

using Mat3 = double[3][3];

// Coefficients of the zonal-direction recursion, j > k:
// V_jk = a_jk z0 V_j-1,k - b_jk (R/r)^2 V_j-2,k.
struct RecursionFactors {
  double a[kWork][kWork] = {};
  double b[kWork][kWork] = {};
  constexpr RecursionFactors() {
    for (int j = 0; j < kWork; ++j)
      for (int k = 0; k < j; ++k) {
        a[j][k] = static_cast<double>(2 * j - 1) / (j - k);
        b[j][k] = static_cast<double>(j + k - 1) / (j - k);
      }
  }
};
constexpr RecursionFactors kRecursion;

// Integer factors of the derivative relations, j >= k:
// f2 = (j-k+1)(j-k+2), f3 = (j-k+2)(j-k+3), f4 = (j-k+1)...(j-k+4), half2 = f2 / 2.
struct DerivativeFactors {
  double f2[kMaxDegree + 1][kMaxDegree + 1] = {};
  double f3[kMaxDegree + 1][kMaxDegree + 1] = {};
  double f4[kMaxDegree + 1][kMaxDegree + 1] = {};
  double half2[kMaxDegree + 1][kMaxDegree + 1] = {};
  constexpr DerivativeFactors() {
    for (int j = 0; j <= kMaxDegree; ++j)
      for (int k = 0; k <= j; ++k) {
        int const d = j - k;
        f2[j][k] = (d + 1) * (d + 2);
        f3[j][k] = (d + 2) * (d + 3);
        f4[j][k] = (d + 1) * (d + 2) * (d + 3) * (d + 4);
        half2[j][k] = 0.5 * f2[j][k];
      }
  }
};
constexpr DerivativeFactors kFactors;

// Fixed-size work area for the gravity kernel; lives on the stack.
struct Cunningham {
  double v[kWork][kWork];
  double w[kWork][kWork];
  double& V(int j, int k) { return v[j][k]; }
  double& W(int j, int k) { return w[j][k]; }
};

struct MatPair {
  Mat& v;
  Mat& w;
  double& V(int j, int k) { return v(j, k); }
  double& W(int j, int k) { return w(j, k); }
};

// Cunningham (1970) recursion for V_jk, W_jk, 0 <= k <= min(m, j), j <= n
// (Montenbruck & Gill, Satellite Orbits, eqs. 3.29-3.31). The sectorial
// diagonal first, then degree by degree: the orders of one degree do not
// depend on each other, so the inner loop has no serial dependency.
template <class Store>
void cunninghamRecursion(double x, double y, double z, int n, int m, Store& s) {
  double const r = std::sqrt(x * x + y * y + z * z);
  double const rho = kRadius / (r * r);
  double const x0 = x * rho, y0 = y * rho, z0 = z * rho;
  double const rr = rho * kRadius;  // (R/r)^2
  s.V(0, 0) = kRadius / r;
  s.W(0, 0) = 0.0;
  int const kTop = m < n ? m : n;
  for (int k = 1; k <= kTop; ++k) {
    double const f = 2 * k - 1;
    double const vp = s.V(k - 1, k - 1), wp = s.W(k - 1, k - 1);
    s.V(k, k) = f * (x0 * vp - y0 * wp);
    s.W(k, k) = f * (x0 * wp + y0 * vp);
  }
  for (int j = 1; j <= n; ++j) {
    int const k1 = j - 1;
    if (k1 <= kTop) {
      double const f = (2 * k1 + 1) * z0;
      s.V(j, k1) = f * s.V(k1, k1);
      s.W(j, k1) = f * s.W(k1, k1);
    }
    int const kEnd = j - 2 < kTop ? j - 2 : kTop;
    for (int k = 0; k <= kEnd; ++k) {
      double const a = kRecursion.a[j][k] * z0, b = kRecursion.b[j][k] * rr;
      s.V(j, k) = a * s.V(j - 1, k) - b * s.V(j - 2, k);
      s.W(j, k) = a * s.W(j - 1, k) - b * s.W(j - 2, k);
    }
  }
}

// Gravity acceleration (and, when g is not null, gradient) at the Earth-fixed
// position p for the field truncated at degree n. Acceleration from the
// Cunningham first-derivative relations (Montenbruck & Gill eq. 3.33); the
// gradient from applying the same relations twice, written with
// Z_nm = V_nm + i W_nm and the operators d/dx +- i d/dy:
//   (d/dx + i d/dy) Z_nm = -Z_n+1,m+1 / R,
//   (d/dx - i d/dy) Z_nm = (n-m+1)(n-m+2) Z_n+1,m-1 / R (m >= 1), -conj(Z_n+1,1) / R (m = 0),
//   d/dz Z_nm = -(n-m+1) Z_n+1,m / R,
// and U = GM/R sum Re((C_nm - i S_nm) Z_nm). The yy element comes from the trace.
// Sums are kept per order and added up at the end, so that the inner loops
// over the orders of one degree carry no dependency from one term to the next.
void gravity(double const p[3], int n, double acc[3], Mat3* g) {
  Cunningham cf;
  int const top = n + (g ? 2 : 1);
  cunninghamRecursion(p[0], p[1], p[2], top, top, cf);
  double const(&C)[kMaxDegree + 1][kMaxDegree + 1] = tables::kGeopotentialC;
  double const(&S)[kMaxDegree + 1][kMaxDegree + 1] = tables::kGeopotentialS;
  auto const& V = cf.v;
  auto const& W = cf.w;

  double sx[kMaxDegree + 1] = {}, sy[kMaxDegree + 1] = {}, sz[kMaxDegree + 1] = {};
  for (int j = 0; j <= n; ++j) {
    double const* v = V[j + 1];
    double const* w = W[j + 1];
    double const* c = C[j];
    double const* s = S[j];
    sx[0] += -c[0] * v[1];
    sy[0] += -c[0] * w[1];
    sz[0] += (j + 1) * (-c[0] * v[0] - s[0] * w[0]);
    for (int k = 1; k <= j; ++k) {
      double const f = kFactors.half2[j][k];  // (j-k+1)(j-k+2)/2
      double const d1 = j - k + 1;
      sx[k] += 0.5 * (-c[k] * v[k + 1] - s[k] * w[k + 1]) + f * (c[k] * v[k - 1] + s[k] * w[k - 1]);
      sy[k] += 0.5 * (-c[k] * w[k + 1] + s[k] * v[k + 1]) + f * (-c[k] * w[k - 1] + s[k] * v[k - 1]);
      sz[k] += d1 * (-c[k] * v[k] - s[k] * w[k]);
    }
  }
  double ax = 0.0, ay = 0.0, az = 0.0;
  for (int k = 0; k <= n; ++k) {
    ax += sx[k];
    ay += sy[k];
    az += sz[k];
  }
  double const fa = kGm / (kRadius * kRadius);
  acc[0] = fa * ax;
  acc[1] = fa * ay;
  acc[2] = fa * az;
  if (!g) return;

  // Per order: xx, xy, xz, yz, zz.
  double gxx[kMaxDegree + 1] = {}, gxy[kMaxDegree + 1] = {}, gxz[kMaxDegree + 1] = {};
  double gyz[kMaxDegree + 1] = {}, gzz[kMaxDegree + 1] = {};
  for (int j = 0; j <= n; ++j) {
    double const* v = V[j + 2];
    double const* w = W[j + 2];
    double const* c = C[j];
    double const* s = S[j];
    // Re and Im of (C - iS) Z_j+2,k at order k, and of (C - iS) conj(Z_j+2,k).
    auto re = [&](int i, int k) { return c[i] * v[k] + s[i] * w[k]; };
    auto im = [&](int i, int k) { return c[i] * w[k] - s[i] * v[k]; };
    auto reConj = [&](int i, int k) { return c[i] * v[k] - s[i] * w[k]; };
    auto imConj = [&](int i, int k) { return -(c[i] * w[k] + s[i] * v[k]); };
    // Order 0: (d/dx - i d/dy)^2 Z = conj(Z_j+2,2) / R^2, (d/dx - i d/dy) d/dz Z ~ -conj(Z_j+2,1).
    {
      double const d1 = j + 1, f2 = d1 * (j + 2), z0 = re(0, 0);
      gxx[0] += 0.25 * (re(0, 2) - 2.0 * f2 * z0 + reConj(0, 2));
      gxy[0] += 0.25 * (im(0, 2) - imConj(0, 2));
      gxz[0] += -0.5 * d1 * (-reConj(0, 1) - re(0, 1));
      gyz[0] += 0.5 * d1 * (im(0, 1) - imConj(0, 1));
      gzz[0] += f2 * z0;
    }
    // Order 1: (d/dx - i d/dy)^2 Z = -j(j+1) conj(Z_j+2,1) / R^2.
    if (j >= 1) {
      double const d1 = j, f2 = d1 * (j + 1), z1 = re(1, 1);
      double const f = -static_cast<double>(j * (j + 1));
      double const g3 = (j + 2) * (j + 1);
      gxx[1] += 0.25 * (re(1, 3) - 2.0 * f2 * z1 + f * reConj(1, 1));
      gxy[1] += 0.25 * (im(1, 3) - f * imConj(1, 1));
      gxz[1] += -0.5 * d1 * (g3 * re(1, 0) - re(1, 2));
      gyz[1] += 0.5 * d1 * (im(1, 2) + g3 * im(1, 0));
      gzz[1] += f2 * z1;
    }
    for (int k = 2; k <= j; ++k) {
      double const d1 = j - k + 1;
      double const f2 = kFactors.f2[j][k], f3 = kFactors.f3[j][k], f4 = kFactors.f4[j][k];
      double const zk = re(k, k);
      gxx[k] += 0.25 * (re(k, k + 2) - 2.0 * f2 * zk + f4 * re(k, k - 2));
      gxy[k] += 0.25 * (im(k, k + 2) - f4 * im(k, k - 2));
      gxz[k] += -0.5 * d1 * (f3 * re(k, k - 1) - re(k, k + 1));
      gyz[k] += 0.5 * d1 * (im(k, k + 1) + f3 * im(k, k - 1));
      gzz[k] += f2 * zk;
    }
  }
  double xx = 0.0, xy = 0.0, xz = 0.0, yz = 0.0, zz = 0.0;
  for (int k = 0; k <= n; ++k) {
    xx += gxx[k];
    xy += gxy[k];
    xz += gxz[k];
    yz += gyz[k];
    zz += gzz[k];
  }
  double const fg = kGm / (kRadius * kRadius * kRadius);
  Mat3& G = *g;
  G[0][0] = fg * xx;
  G[0][1] = G[1][0] = fg * xy;
  G[0][2] = G[2][0] = fg * xz;
  G[1][2] = G[2][1] = fg * yz;
  G[2][2] = fg * zz;
  G[1][1] = -G[0][0] - G[2][2];
}

int clampDegree(int n) {
  return n < 0 ? 0 : (n > kMaxDegree ? kMaxDegree : n);
}

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

void sunMoon(double t, double moon[3], double sun[3]) {
  double const T =
      ((t + kGpsToTt) / kSecondsPerDay + kJdGpsOrigin - kMjdOffset - kMjdJ2000) / kDaysPerCentury;

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

double dot3(double const a[3], double const b[3]) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}
double norm3(double const a[3]) {
  return std::sqrt(dot3(a, a));
}

// Conical shadow of a spherical Earth (Montenbruck & Gill 3.4.2).
double shadow(double const r[3], double const sun[3]) {
  double const d[3] = {sun[0] - r[0], sun[1] - r[1], sun[2] - r[2]};
  double const dn = norm3(d), rn = norm3(r);
  double const a = std::asin(kSunRadius / dn);
  double const b = std::asin(kShadowEarthRadius / rn);
  double const c = std::acos(-dot3(r, d) / (rn * dn));
  if (std::fabs(a - b) < c && c < a + b) {
    double const x = (c * c + a * a - b * b) / (2.0 * c);
    double const y = std::sqrt(a * a - x * x);
    double const area = a * a * std::acos(x / a) + b * b * std::acos((c - x) / b) - c * y;
    return 1.0 - area / (kPi * a * a);
  }
  if (c < a + b) {
    if (c < b - a) return 0.0;
    return 0.0;  // annulus: the Sun's disc inside the Earth's cannot be seen from a satellite orbit
  }
  return 1.0;
}

// Direct pressure along Sun -> satellite scaled by p1, and a Y-bias p2 along
// r x (sun - r). Partials for r with nu fixed into columns 0-2 of P when
// `partials` is set, parameter columns 6-7 when `parameterColumns` is set.
void srp(double const r[3], double const sun[3], double p1, double p2, double acc[3], double (*P)[8],
         bool partials, bool parameterColumns) {
  double const nu = shadow(r, sun);
  double const d[3] = {sun[0] - r[0], sun[1] - r[1], sun[2] - r[2]};
  double const dn2 = dot3(d, d), dn = std::sqrt(dn2);
  double const e[3] = {d[0] / dn, d[1] / dn, d[2] / dn};
  double const direct = nu * kSrpPerUnitScale * (kAstronomicalUnit * kAstronomicalUnit / dn2);
  double const aD = -p1 * direct;
  double const y[3] = {r[1] * d[2] - r[2] * d[1], r[2] * d[0] - r[0] * d[2], r[0] * d[1] - r[1] * d[0]};
  double const yn = norm3(y);
  double const eY[3] = {y[0] / yn, y[1] / yn, y[2] / yn};
  double const aY = p2 * kYBiasUnit;
  for (int i = 0; i < 3; ++i) acc[i] = aD * e[i] + aY * eY[i];
  if (!partials) return;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 8; ++j) P[i][j] = 0.0;
  // d(a_D)/dr = p1 nu K AU^2 (I - 3 e e^T) / |d|^3 ;
  // d(a_Y)/dr = p2 1e-9 (I - eY eY^T) / |y| * (-[sun x]), since y = r x sun.
  double const fD = p1 * direct / dn;
  double const fY = aY / yn;
  double const sx[3][3] = {{0.0, -sun[2], sun[1]}, {sun[2], 0.0, -sun[0]}, {-sun[1], sun[0], 0.0}};
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      double py = 0.0;
      for (int k = 0; k < 3; ++k) py -= ((i == k ? 1.0 : 0.0) - eY[i] * eY[k]) * sx[k][j];
      P[i][j] = fD * ((i == j ? 1.0 : 0.0) - 3.0 * e[i] * e[j]) + fY * py;
    }
  if (parameterColumns) {
    for (int i = 0; i < 3; ++i) {
      P[i][6] = -direct * e[i];
      P[i][7] = kYBiasUnit * eY[i];
    }
  }
}

void toArray(Vec const& v, double out[3]) {
  out[0] = v(0);
  out[1] = v(1);
  out[2] = v(2);
}

void setVec(Vec& v, double const a[3]) {
  if (v.size() != 3) v.resize(3, false);
  v(0) = a[0];
  v(1) = a[1];
  v(2) = a[2];
}

void toMat3(Mat const& m, Mat3& out) {
  bool const ok = m.size1() == 3 && m.size2() == 3;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) out[i][j] = ok ? m(i, j) : (i == j ? 1.0 : 0.0);
}

}  // namespace

struct ForceModel::Details {
  bool accDerivatives = true;
  bool srpComputation = false;
  AssistanceData assistanceData;
  InertialFrameInfo inertialFrameInfo;
  EopInfo eopInfo;
  std::vector<LeapInfo> leapInfo;
  int numberOfGeopotentialCoefficients = 8;
  Gj8Integrator gj8Integrator;

  // Sun and Moon (J2000 axes) of the last forceModel time: the Gauss-Jackson
  // corrector evaluates each epoch several times.
  double sunMoonTime = std::nan("");
  double moonJ2000[3] = {0.0, 0.0, 0.0};
  double sunJ2000[3] = {0.0, 0.0, 0.0};

  // Derived from the fields above by refresh(); never serialized.
  Mat3 inertial;  // M_I
  Mat3 eop;       // E
  Mat3 eopDx;     // dE/dxp
  Mat3 eopDy;     // dE/dyp

  Details() { refresh(); }

  void refresh() {
    toMat3(inertialFrameInfo.matrix, inertial);
    toMat3(eopInfo.matrix, eop);
    // The pole parameters act through W = R2(-xp) R1(-yp).
    Mat dx, dy;
    polarMotionPartials(eopInfo.eop, dx, dy);
    toMat3(dx, eopDx);
    toMat3(dy, eopDy);
  }
};

ForceModel::ForceModel() : details_(new Details) {}
ForceModel::~ForceModel() {
  delete details_;
}

void ForceModel::setAccDerivatives(bool on) {
  details_->accDerivatives = on;
}
void ForceModel::setSrpComputation(bool on) {
  details_->srpComputation = on;
}
void ForceModel::setNumberOfGeopotentialCoefficients(int n) {
  details_->numberOfGeopotentialCoefficients = n;
}
void ForceModel::setLeapInfo(std::vector<LeapInfo> const& leapInfo) {
  details_->leapInfo = leapInfo;
}
std::vector<LeapInfo> ForceModel::getLeapInfo() const {
  return details_->leapInfo;
}
void ForceModel::setEopInfo(EopInfo const& eopInfo) {
  details_->eopInfo = eopInfo;
  details_->refresh();
}
EopInfo ForceModel::getEopInfo() const {
  return details_->eopInfo;
}
void ForceModel::setInertialFrameInfo(InertialFrameInfo const& info) {
  details_->inertialFrameInfo = info;
  details_->refresh();
}
InertialFrameInfo ForceModel::getInertialFrameInfo() const {
  return details_->inertialFrameInfo;
}
void ForceModel::setAssistanceData(AssistanceData const& data) {
  details_->assistanceData = data;
}
AssistanceData ForceModel::getAssistanceData() const {
  return details_->assistanceData;
}
Gj8Integrator& ForceModel::getGj8Integrator() {
  return details_->gj8Integrator;
}

bool ForceModel::operator==(ForceModel const& other) const {
  Details const& a = *details_;
  Details const& b = *other.details_;
  return a.accDerivatives == b.accDerivatives && a.srpComputation == b.srpComputation &&
         a.assistanceData == b.assistanceData && a.inertialFrameInfo == b.inertialFrameInfo &&
         a.eopInfo == b.eopInfo && a.leapInfo == b.leapInfo &&
         a.numberOfGeopotentialCoefficients == b.numberOfGeopotentialCoefficients &&
         a.gj8Integrator == b.gj8Integrator;
}

bool ForceModel::serialize(BinaryData& out) const {
  Details const& d = *details_;
  std::size_t const start = out.size();
  unsigned int count = 0;
  bool const ok =
      support::serialize(d.accDerivatives, out, count) && support::serialize(d.assistanceData, out, count) &&
      support::serialize(d.inertialFrameInfo, out, count) && support::serialize(d.eopInfo, out, count) &&
      support::serialize(d.leapInfo, out, count) &&
      support::serialize(d.numberOfGeopotentialCoefficients, out, count) && d.gj8Integrator.serialize(out);
  if (!ok) out.resize(start);
  return ok;
}

namespace {
// Frame matrices are either absent or 3x3.
bool frameMatrix(Mat const& m) {
  return (m.size1() == 0 && m.size2() == 0) || (m.size1() == 3 && m.size2() == 3);
}
}  // namespace

bool ForceModel::deserialize(BinaryData const& in, unsigned int& position) {
  Details* fresh = new Details;
  unsigned int index = position;
  bool const ok = support::deserialize(in, index, fresh->accDerivatives) &&
                  support::deserialize(in, index, fresh->assistanceData) &&
                  support::deserialize(in, index, fresh->inertialFrameInfo) &&
                  support::deserialize(in, index, fresh->eopInfo) &&
                  support::deserialize(in, index, fresh->leapInfo) &&
                  support::deserialize(in, index, fresh->numberOfGeopotentialCoefficients) &&
                  fresh->gj8Integrator.deserialize(in, index) &&
                  frameMatrix(fresh->inertialFrameInfo.matrix) && frameMatrix(fresh->eopInfo.matrix);
  if (!ok) {
    delete fresh;
    return false;
  }
  fresh->refresh();
  std::swap(details_, fresh);
  delete fresh;
  position = index;
  return true;
}

void ForceModel::satCoefficients(Vec const& r, unsigned int n, unsigned int m, Mat& V, Mat& W) {
  if (V.size1() != n + 1 || V.size2() != m + 1)
    ZARN_THROW(std::invalid_argument("satCoefficients: invalid size V"));
  if (W.size1() != n + 1 || W.size2() != m + 1)
    ZARN_THROW(std::invalid_argument("satCoefficients: invalid size W"));
  V.clear();
  W.clear();
  MatPair store{V, W};
  cunninghamRecursion(r(0), r(1), r(2), static_cast<int>(n), static_cast<int>(m), store);
}

void ForceModel::geopotential(Vec const& r, int n, int /*m*/, Vec& acc, Mat& partials) const {
  double p[3], a[3];
  Mat3 g;
  toArray(r, p);
  bool const withGradient = details_->accDerivatives;
  gravity(p, clampDegree(n), a, withGradient ? &g : nullptr);
  setVec(acc, a);
  if (!withGradient) return;
  if (partials.size1() != 3 || partials.size2() != 3) partials.resize(3, 3, false);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) partials(i, j) = g[i][j];
}

void ForceModel::sunMoonCoord(double t, Vec& moon, Vec& sun) {
  double m[3], s[3];
  sunMoon(t, m, s);
  setVec(moon, m);
  setVec(sun, s);
}

void ForceModel::sunMoonAcceleration(double t, int leapSeconds, Vec const& r, Vec& acc) {
  double moonJ2000[3], sunJ2000[3];
  sunMoon(t, moonJ2000, sunJ2000);
  Mat const m = icrsToInt0(t, 0.0, leapSeconds);
  double const p[3] = {r(0), r(1), r(2)};
  double a[3] = {0.0, 0.0, 0.0};
  double const* bodies[2] = {moonJ2000, sunJ2000};
  double const gms[2] = {kGmMoon, kGmSun};
  for (int b = 0; b < 2; ++b) {
    double body[3], d[3];
    for (int i = 0; i < 3; ++i) {
      body[i] = m(i, 0) * bodies[b][0] + m(i, 1) * bodies[b][1] + m(i, 2) * bodies[b][2];
      d[i] = body[i] - p[i];
    }
    double const dn = norm3(d), bn = norm3(body);
    for (int i = 0; i < 3; ++i) a[i] += gms[b] * (d[i] / (dn * dn * dn) - body[i] / (bn * bn * bn));
  }
  setVec(acc, a);
}

double ForceModel::shadowFunction(Vec const& r, Vec const& sun) const {
  double p[3], s[3];
  toArray(r, p);
  toArray(sun, s);
  return shadow(p, s);
}

bool ForceModel::isEclipsed(Vec const& r, double t) const {
  double moon[3], sun[3], p[3], s[3];
  sunMoon(t, moon, sun);
  Mat3 const& mi = details_->inertial;
  for (int i = 0; i < 3; ++i) s[i] = mi[i][0] * sun[0] + mi[i][1] * sun[1] + mi[i][2] * sun[2];
  toArray(r, p);
  return shadow(p, s) < 1.0;
}

void ForceModel::solarRadiationPressure(Vec const& r, Vec const& sun, Vec& acc, Mat& partials) const {
  double p[3], s[3], a[3], P[3][8];
  toArray(r, p);
  toArray(sun, s);
  Details const& d = *details_;
  srp(p, s, d.assistanceData.srp[0], d.assistanceData.srp[1], a, P, d.accDerivatives, d.srpComputation);
  setVec(acc, a);
  if (!d.accDerivatives) return;
  if (partials.size1() != 3 || partials.size2() != 8) partials.resize(3, 8, false);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 8; ++j) partials(i, j) = P[i][j];
}

void ForceModel::forceModel(double t, Vec const& r, Vec& acc, Mat& partials) {
  Details& d = *details_;
  double const theta = (t - d.inertialFrameInfo.tRef) * kEarthRotationRate;
  double const ct = std::cos(theta), st = std::sin(theta);
  double const ri[3] = {r(0), r(1), r(2)};
  // Q = E Rz(theta), Rz the frame rotation about z; Earth-fixed position Q r.
  Mat3 const& E = d.eop;
  Mat3 Q;
  for (int i = 0; i < 3; ++i) {
    Q[i][0] = E[i][0] * ct - E[i][1] * st;
    Q[i][1] = E[i][0] * st + E[i][1] * ct;
    Q[i][2] = E[i][2];
  }
  double const rz[3] = {ct * ri[0] + st * ri[1], -st * ri[0] + ct * ri[1], ri[2]};
  double re[3];
  for (int i = 0; i < 3; ++i) re[i] = dot3(E[i], rz);

  if (t != d.sunMoonTime) {
    sunMoon(t, d.moonJ2000, d.sunJ2000);
    d.sunMoonTime = t;
  }
  double moon[3], sun[3];
  Mat3 const& mi = d.inertial;
  for (int i = 0; i < 3; ++i) {
    moon[i] = dot3(mi[i], d.moonJ2000);
    sun[i] = dot3(mi[i], d.sunJ2000);
  }

  bool const deriv = d.accDerivatives;
  double third[2][3], dBody[2][3], dInv3[2];
  double const* bodies[2] = {moon, sun};
  double const gms[2] = {kGmMoon, kGmSun};
  for (int b = 0; b < 2; ++b) {
    double const* body = bodies[b];
    double* dv = dBody[b];
    for (int i = 0; i < 3; ++i) dv[i] = body[i] - ri[i];
    double const dn = norm3(dv), bn = norm3(body);
    dInv3[b] = 1.0 / (dn * dn * dn);
    double const bInv3 = 1.0 / (bn * bn * bn);
    for (int i = 0; i < 3; ++i) third[b][i] = gms[b] * (dv[i] * dInv3[b] - body[i] * bInv3);
  }

  double aSrp[3], pSrp[3][8];
  srp(ri, sun, d.assistanceData.srp[0], d.assistanceData.srp[1], aSrp, pSrp, deriv, d.srpComputation);

  double g[3];
  Mat3 G;
  gravity(re, clampDegree(d.numberOfGeopotentialCoefficients), g, deriv ? &G : nullptr);
  double ag[3];  // Q^T g
  for (int i = 0; i < 3; ++i) ag[i] = Q[0][i] * g[0] + Q[1][i] * g[1] + Q[2][i] * g[2];

  double a[3];
  for (int i = 0; i < 3; ++i) a[i] = ag[i] + third[0][i] + third[1][i] + aSrp[i];
  setVec(acc, a);
  if (!deriv) return;

  if (partials.size1() != 3 || partials.size2() != 8) partials.resize(3, 8, false);
  // Gravity: Q^T G Q.
  Mat3 GQ;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) GQ[i][j] = G[i][0] * Q[0][j] + G[i][1] * Q[1][j] + G[i][2] * Q[2][j];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      double v = Q[0][i] * GQ[0][j] + Q[1][i] * GQ[1][j] + Q[2][i] * GQ[2][j];
      // Third bodies: -GM/|d|^3 (I - 3 d d^T / |d|^2).
      for (int b = 0; b < 2; ++b) {
        double const* dv = dBody[b];
        double const d2 = dot3(dv, dv);
        v += -gms[b] * dInv3[b] * ((i == j ? 1.0 : 0.0) - 3.0 * dv[i] * dv[j] / d2);
      }
      partials(i, j) = v + pSrp[i][j];
    }
  for (int i = 0; i < 3; ++i) partials(i, 3) = partials(i, 4) = partials(i, 5) = 0.0;
  for (int c = 6; c < 8; ++c) {
    double v[3] = {pSrp[0][c], pSrp[1][c], pSrp[2][c]};
    if (!d.srpComputation) {
      // a_g = Rz^T E^T g(E Rz r): d/dp = Rz^T (dE^T g + E^T G dE rz).
      Mat3 const& dE = c == 6 ? d.eopDx : d.eopDy;
      double dre[3], u[3];
      for (int i = 0; i < 3; ++i) dre[i] = dot3(dE[i], rz);
      for (int i = 0; i < 3; ++i) {
        u[i] = 0.0;
        for (int k = 0; k < 3; ++k) u[i] += dE[k][i] * g[k] + E[k][i] * dot3(G[k], dre);
      }
      // Rz^T u
      double const w[3] = {ct * u[0] - st * u[1], st * u[0] + ct * u[1], u[2]};
      for (int i = 0; i < 3; ++i) v[i] += w[i];
    }
    for (int i = 0; i < 3; ++i) partials(i, c) = v[i];
  }
}

OdeFunRkf78::OdeFunRkf78(ForceModel& model) : model_(model), r_(3), a_(3), partials_(3, kParameters) {}
OdeFunRkf78::~OdeFunRkf78() = default;

void OdeFunRkf78::operator()(Vec const& x, Vec& dx, double t) {
  if (x.size() != kVariationalSize) ZARN_THROW(std::invalid_argument("OdeFunRkf78: invalid size x"));
  model_.setAccDerivatives(true);
  for (unsigned i = 0; i < 3; ++i) r_(i) = x(i);
  model_.forceModel(t, r_, a_, partials_);
  if (dx.size() != kVariationalSize) dx.resize(kVariationalSize, false);
  for (unsigned i = 0; i < 3; ++i) {
    dx(i) = x(3 + i);
    dx(3 + i) = a_(i);
  }
  dx(6) = dx(7) = 0.0;
  // A Phi with A = [0 I 0; P; 0]: rows 0-2 are Phi's velocity rows, rows 3-5 P Phi.
  double const* P = &partials_.data()[0];
  for (unsigned j = 0; j < kParameters; ++j) {
    double const* phi = &x.data()[kParameters + kParameters * j];
    double* out = &dx.data()[kParameters + kParameters * j];
    for (unsigned i = 0; i < 3; ++i) {
      out[i] = phi[3 + i];
      double s = 0.0;
      for (unsigned k = 0; k < kParameters; ++k) s += P[i * kParameters + k] * phi[k];
      out[3 + i] = s;
    }
    out[6] = out[7] = 0.0;
  }
}

OdeFunGj8::OdeFunGj8(ForceModel& model) : model_(model), partials_(3, kParameters) {}
OdeFunGj8::~OdeFunGj8() = default;

void OdeFunGj8::operator()(Vec const& y, Vec& ddy, double t) {
  if (y.size() != 3) ZARN_THROW(std::invalid_argument("OdeFunGj8: invalid size y"));
  model_.setAccDerivatives(false);
  model_.forceModel(t, y, ddy, partials_);
}

}  // namespace support
}  // namespace zarn
