#include "zarn/support/force_model.hpp"

#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/numerical_integration.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <boost/numeric/ublas/io.hpp>
#include <cmath>
#include <fstream>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "force_model/sun_moon_grid.hpp"
#include "support/erfa_bodies.hpp"
#include "support/test_support.hpp"
#include "support/vectors.hpp"

#include <erfa.h>

using namespace zarn::support;
namespace core = zarn::core;
namespace test = zarn::test;

constexpr char kSource[] = "libs/support/src/force_model";
constexpr double kGm = 3.986004418e14;
constexpr double kRadius = 6378136.3;

using boost::numeric::ublas::subrange;
using test::vec3;

Vec geodetic(double radius, double latDeg, double lonDeg) {
  double const lat = latDeg * M_PI / 180.0, lon = lonDeg * M_PI / 180.0;
  return vec3(radius * std::cos(lat) * std::cos(lon), radius * std::cos(lat) * std::sin(lon),
              radius * std::sin(lat));
}

// ---------------------------------------------------------------------------
// Geopotential

// Independent potential: U = GM/r sum (R/r)^n P_nm(sin phi)(C cos m lambda + S sin m lambda),
// in long double, with P_nm from the explicit polynomial of P_n differentiated m
// times (no recursion shared with the library). Coefficients read from the
// published table in the shared reference directory.
struct LegendrePotential {
  long double C[17][17] = {}, S[17][17] = {};
  std::vector<long double> poly[17][17];  // P_nm(u) / (1 - u^2)^(m/2), coefficients of u^i
  int count = 0;

  explicit LegendrePotential(std::string const& path) {
    std::ifstream in(path);
    std::string line;
    int n, m;
    long double c, sn;
    while (std::getline(in, line))
      if (!line.empty() && line[0] != '#' && std::istringstream(line) >> n >> m >> c >> sn)
        C[n][m] = c, S[n][m] = sn, ++count;
    auto binomial = [](int n, int k) {
      return std::tgamma(n + 1.0L) / std::tgamma(k + 1.0L) / std::tgamma(n - k + 1.0L);
    };
    for (int n = 0; n <= 16; ++n) {
      // P_n(x) = 2^-n sum_k (-1)^k C(n,k) C(2n-2k,n) x^(n-2k), then differentiated m times.
      std::vector<long double> p(n + 1, 0.0L);
      for (int k = 0; 2 * k <= n; ++k)
        p[n - 2 * k] =
            (k % 2 ? -1.0L : 1.0L) * binomial(n, k) * binomial(2 * n - 2 * k, n) / std::pow(2.0L, n);
      for (int m = 0; m <= n; ++m) {
        poly[n][m] = p;
        for (std::size_t i = 1; i < p.size(); ++i) p[i - 1] = p[i] * static_cast<long double>(i);
        p.back() = 0.0L;
      }
    }
  }

  long double operator()(long double x, long double y, long double z, int degree, int firstDegree) const {
    long double const r = std::sqrt(x * x + y * y + z * z), u = z / r, lon = std::atan2(y, x);
    long double const w = std::sqrt((1.0L - u) * (1.0L + u));
    long double sum = 0.0L;
    for (int n = firstDegree; n <= degree; ++n)
      for (int m = 0; m <= n; ++m) {
        long double pv = 0.0L;
        for (std::size_t i = poly[n][m].size(); i-- > 0;) pv = pv * u + poly[n][m][i];
        sum += std::pow(static_cast<long double>(kRadius) / r, static_cast<long double>(n)) * pv *
               std::pow(w, static_cast<long double>(m)) *
               (C[n][m] * std::cos(m * lon) + S[n][m] * std::sin(m * lon));
      }
    return static_cast<long double>(kGm) / r * sum;
  }

  // Fourth-order central differences of the potential.
  std::array<long double, 3> gradient(Vec const& r, int degree, int firstDegree) const {
    std::array<long double, 3> g{};
    long double const h = 20.0L;
    for (int i = 0; i < 3; ++i) {
      auto at = [&](long double step) {
        long double p[3] = {r(0), r(1), r(2)};
        p[i] += step;
        return (*this)(p[0], p[1], p[2], degree, firstDegree);
      };
      g[i] = (8.0L * (at(h) - at(-h)) - (at(2 * h) - at(-2 * h))) / (12.0L * h);
    }
    return g;
  }
};

std::vector<Vec> testPositions() {
  return {geodetic(26560000.0, 37.0, -122.0),  // GPS
          geodetic(25500000.0, -64.8, 12.5),   // GLONASS
          geodetic(6878136.0, 51.6, 77.0),     // low orbit, where high degrees matter
          geodetic(6678136.0, -12.0, 179.9),  geodetic(7000000.0, 89.99, 33.0),  // near the poles
          geodetic(7000000.0, -89.9, -150.0), vec3(0.0, 0.0, 7100000.0),         // on the axis
          geodetic(42164000.0, 0.0, 105.0)};                                     // on the equator
}

TEST(Geopotential, AccelerationIsGradientOfIndependentPotential) {
  ZARN_SHARED_FILE_OR_SKIP(path, "reference/jgm3_unnormalized_16x16.txt");
  LegendrePotential potential(path);
  ASSERT_EQ(potential.count, 153);
  ForceModel model;
  model.setAccDerivatives(false);
  Mat unused;
  for (Vec const& r : testPositions()) {
    Vec central, acc;
    double const rn = norm_2(r);
    model.geopotential(r, 0, 0, central, unused);
    model.geopotential(r, 1, 1, acc, unused);
    for (int i = 0; i < 3; ++i) {
      EXPECT_NEAR(central(i), -kGm * r(i) / (rn * rn * rn), 1e-15 * kGm / (rn * rn));
      EXPECT_EQ(acc(i), central(i));  // degree-1 terms vanish in a geocentric field
    }
    for (int n : {2, 4, 8, 16}) {
      model.geopotential(r, n, n, acc, unused);
      // Compare the non-central part, so that high degrees are not lost in the monopole.
      std::array<long double, 3> const g = potential.gradient(r, n, 2);
      double const scale = std::sqrt(static_cast<double>(g[0] * g[0] + g[1] * g[1] + g[2] * g[2]));
      for (int i = 0; i < 3; ++i)
        EXPECT_NEAR(acc(i) - central(i), static_cast<double>(g[i]), 1e-9 * scale)
            << "n=" << n << " r=" << r << " axis " << i;
    }
    // Truncation matters: the degree 9..16 terms at low altitude are well above the tolerance.
  }
}

// Central differences in r; trace-free and symmetric; degree 0 is the point
// mass GM (3 r r^T - r^2 I) / r^5.
TEST(Geopotential, GradientMatrixMatchesCentralDifferencesAndIsTraceFree) {
  ForceModel model;
  for (Vec const& r : testPositions()) {
    for (int n : {0, 2, 8, 16}) {
      Vec acc;
      Mat G, unused;
      model.geopotential(r, n, n, acc, G);
      double const scale = test::maxAbs(G, 3), rn = norm_2(r);
      Mat const fd = test::centralDifferences(
          [&](Vec const& p) { return model.geopotential(p, n, n, acc, unused), acc; }, r, {2.0, 2.0, 2.0});
      EXPECT_NEAR(G(0, 0) + G(1, 1) + G(2, 2), 0.0, 1e-15 * scale);
      for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
          EXPECT_NEAR(G(i, j), fd(i, j), 1e-7 * scale) << "r=" << r << " (" << i << j << ")";
          double const pointMass = kGm / std::pow(rn, 5) * (3 * r(i) * r(j) - (i == j ? rn * rn : 0.0));
          EXPECT_TRUE(G(i, j) == G(j, i) &&
                      (n > 0 || std::fabs(G(i, j) - pointMass) < 1e-14 * kGm / std::pow(rn, 3)));
        }
    }
  }
}

// ---------------------------------------------------------------------------
// Sun and Moon

using test::erfaSunMoon;
using test::kAu;
using test::kGpsToTt;
using test::kJdGpsOrigin;

// Point-mass attraction of the Moon and the Sun at r, less that on the Earth's centre.
Vec thirdBodies(Vec const& r, Vec const& moon, Vec const& sun) {
  Vec a = boost::numeric::ublas::zero_vector<double>(3);
  for (auto const& [body, gm] : {std::make_pair(moon, 4.902801e12), std::make_pair(sun, 1.32712440018e20)}) {
    Vec const d = body - r;
    a += gm * (d / std::pow(norm_2(d), 3) - body / std::pow(norm_2(body), 3));
  }
  return a;
}

// The accurate series against ERFA's Sun (eraEpv00) and Moon (eraMoon98) every 5.3
// days over 2000-2035: direction and distance. A Moon off by 0.01 deg moves
// its pull on a GPS orbit by 1e-9 m/s^2.
TEST(SunMoon, PositionsAgreeWithErfaOver2000To2035) {
  double const t2000 = (2451544.5 - kJdGpsOrigin) * 86400.0;
  double worst[4] = {0.0, 0.0, 0.0, 0.0};  // Moon deg, Moon m, Sun deg, Sun relative distance
  for (double t = t2000; t < t2000 + 35 * 365.25 * 86400.0; t += 5.3 * 86400.0) {
    double sun[3], moon[3];
    erfaSunMoon(t, sun, moon);
    Vec m, s;
    ForceModel::sunMoonCoordAccurate(t, m, s);
    Vec const em = vec3(moon[0], moon[1], moon[2]), es = vec3(sun[0], sun[1], sun[2]);
    auto const angle = [](Vec const& a, Vec const& b) {
      return std::atan2(norm_2(cross(a, b)), inner_prod(a, b)) * 180.0 / M_PI;
    };
    double const e[4] = {angle(m, em), std::fabs(norm_2(m) - norm_2(em)), angle(s, es),
                         std::fabs(norm_2(s) / norm_2(es) - 1.0)};
    for (int i = 0; i < 4; ++i) worst[i] = std::max(worst[i], e[i]);
  }
  EXPECT_LT(worst[0], 0.005);
  EXPECT_LT(worst[1], 1000.0);
  EXPECT_LT(worst[2], 0.012);
  EXPECT_LT(worst[3], 1e-4);
}

// The third-body acceleration in the Earth-rotating frame of date, against
// ERFA's Sun and Moon turned by ERFA's IAU 1976/1980 precession-nutation and
// 1994 apparent sidereal time.
TEST(SunMoon, AccelerationInTheEarthRotatingFrameAgreesWithErfa) {
  int const leap = 18;
  Vec const r = vec3(-11280000.0, 21703000.0, 9405000.0);
  for (double t : {1.2e9, 1.25e9, 1.3e9}) {
    double sun[3], moon[3], s[3], m[3], np[3][3], rot[3][3];
    erfaSunMoon(t, sun, moon);
    eraPnm80(kJdGpsOrigin, (t + kGpsToTt) / 86400.0, np);
    eraCr(np, rot);
    eraRz(eraGst94(kJdGpsOrigin, (t - leap) / 86400.0), rot);
    eraRxp(rot, sun, s);
    eraRxp(rot, moon, m);
    Vec const expected = thirdBodies(r, vec3(m[0], m[1], m[2]), vec3(s[0], s[1], s[2]));
    Vec acc;
    ForceModel::sunMoonAcceleration(t, leap, r, acc);
    EXPECT_LT(norm_2(acc - expected), 5e-3 * norm_2(expected)) << t;
  }
}

// ---------------------------------------------------------------------------
// Shadow and radiation pressure

constexpr double kShadowRadius = 6402000.0;
constexpr double kSunRadius = 695500000.0;

// Visible fraction of the solar disc by casting rays from r through a grid
// over the disc and testing them against the Earth sphere.
double rayCastVisibleFraction(Vec const& r, Vec const& sun) {
  double const dn = norm_2(sun - r);
  Vec const d = (sun - r) / dn;
  Vec const e1 = vec3(-d(1), d(0), 0.0) / std::hypot(d(0), d(1));
  Vec const e2 = vec3(d(1) * e1(2) - d(2) * e1(1), d(2) * e1(0) - d(0) * e1(2), d(0) * e1(1) - d(1) * e1(0));
  double const ta = std::tan(std::asin(kSunRadius / dn));
  int const n = 300;
  int total = 0, visible = 0;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      double const u = (2.0 * i + 1.0) / n - 1.0, v = (2.0 * j + 1.0) / n - 1.0;
      if (u * u + v * v > 1.0) continue;
      Vec ray = d + ta * (u * e1 + v * e2);
      ray /= norm_2(ray);
      double const b = inner_prod(r, ray), c = inner_prod(r, r) - kShadowRadius * kShadowRadius;
      ++total, visible += !(b < 0.0 && b * b - c > 0.0);
    }
  return static_cast<double>(visible) / total;
}

// Monotone from umbra to sunlight, and the penumbra against a ray-cast disc.
TEST(Shadow, SunlightUmbraAndAContinuousPenumbra) {
  ForceModel model;
  Vec const sun = vec3(1.4e11, 3.0e10, 1.1e10);
  Vec const toSun = sun / norm_2(sun);
  double const a = 26560000.0;
  // Walk out of the umbra sideways, behind the Earth, into full sunlight.
  Vec const side = vec3(-toSun(1), toSun(0), 0.0) / std::hypot(toSun(0), toSun(1));
  double const along = std::sqrt(a * a - 6.6e6 * 6.6e6);
  double previous = 0.0, worst = 0.0;
  EXPECT_EQ(model.shadowFunction(-along * toSun + 6.1e6 * side, sun), 0.0);
  int partial = 0;
  for (double offset = 6.1e6; offset <= 6.7e6; offset += 1000.0) {
    Vec const r = -along * toSun + offset * side;
    double const nu = model.shadowFunction(r, sun);
    EXPECT_GE(nu, previous - 1e-12) << offset;
    previous = nu;
    if (nu > 0.0 && nu < 1.0) {
      ++partial;
      if (partial % 10 == 1) worst = std::max(worst, std::fabs(nu - rayCastVisibleFraction(r, sun)));
    }
  }
  // About 250 km of penumbra at GPS altitude.
  EXPECT_TRUE(previous == 1.0 && partial > 150 && worst < 5e-3) << partial << " " << worst;
}

// Direct pressure away from the Sun; a Y-bias of srp[1] nm/s^2 that the
// shadow does not switch off.
TEST(SolarRadiationPressure, DirectionAndShadow) {
  ForceModel model;
  Vec const sun = vec3(1.49e11, 1.0e10, -2.0e9);
  Vec const lit = vec3(5.0e6, 25.0e6, 6.0e6), dark = -26.0e6 * sun / norm_2(sun);
  Vec acc;
  Mat P;
  AssistanceData data;
  data.srp = {{1.5, 0.0}};
  model.setAssistanceData(data);
  model.solarRadiationPressure(lit, sun, acc, P);
  EXPECT_NEAR(inner_prod(acc, sun - lit) / (norm_2(acc) * norm_2(sun - lit)), -1.0, 1e-12);

  data.srp[1] = 0.5;
  model.setAssistanceData(data);
  model.solarRadiationPressure(dark, sun, acc, P);
  EXPECT_NEAR(norm_2(acc), 0.5e-9, 1e-22);
}

// ---------------------------------------------------------------------------
// ForceModel

constexpr double kT = 1.2e9;  // 2018-01-15, GPS seconds

// A model set up as prediction uses it: frame epoch three hours back, a
// rotated quasi-inertial frame, a pole, radiation-pressure parameters.
void configure(ForceModel& model, bool srp) {
  InertialFrameInfo frame;
  frame.tRef = kT - 3 * 3600.0;
  frame.matrix = prod(rotationMatrix(1, 0.3), Mat(prod(rotationMatrix(2, -0.2), rotationMatrix(1, 0.1))));
  model.setInertialFrameInfo(frame);
  model.setEopInfo(makeEopInfo(Eop{1.1e-6, 1.7e-6}));
  AssistanceData data;
  data.srp = {{1.55667, 0.0384716}};
  model.setAssistanceData(data);
  model.setSrpComputation(srp);
}

Vec thirdBodies(double t, Vec const& r) {
  Vec moon, sun;
  ForceModel::sunMoonCoord(t, moon, sun);
  return thirdBodies(r, moon, sun);
}

// theta = 0, E = M_I = identity, no radiation pressure: degree-8 gravity plus
// the third bodies, all in Earth-fixed axes, taken from sunMoonCoordAccurate
// while the accurate Sun and Moon are on and from the series otherwise.
TEST(ForceModel, ReducesToGravityAndThirdBodiesTurningWithTheEarth) {
  ForceModel model;
  Vec const r = vec3(15.0e6, -8.0e6, 19.0e6);
  Vec acc, g, moon, sun;
  Mat P(3, 8, 0.0), G;
  InertialFrameInfo frame;
  frame.tRef = kT;
  model.setInertialFrameInfo(frame);
  model.geopotential(r, 8, 8, g, G);
  ForceModel::sunMoonCoordAccurate(kT, moon, sun);
  Vec const accurate = g + thirdBodies(r, moon, sun), plain = g + thirdBodies(kT, r);
  ASSERT_GT(norm_inf(Vec(accurate - plain)), 1e-9);  // the two series differ at GPS height
  for (bool on : {false, true, false}) {
    model.setAccurateSunMoon(on);
    model.forceModel(kT, r, acc, P);
    EXPECT_LT(norm_inf(Vec(acc - (on ? accurate : plain))), 1e-15) << on;
  }

  // A quarter of a sidereal turn later the field has turned with the Earth.
  double const quarter = M_PI / 2 / 7.2921158553e-5;
  Vec const rInertial = vec3(-r(1), r(0), r(2));  // Rz(pi/2)^T r
  model.setAccDerivatives(false);
  P = Mat(3, 8, 0.0);
  model.forceModel(kT + quarter, rInertial, acc, P);
  EXPECT_LT(norm_inf(Vec(acc - thirdBodies(kT + quarter, rInertial) - vec3(-g(1), g(0), g(2)))), 1e-13);
  EXPECT_EQ(P(0, 0), 0.0);  // untouched without the derivative flag
}

// Eclipses against ERFA's Sun in a rotated quasi-inertial frame, with either
// Sun series, through the seasons: at GPS height the umbra reaches 6100 km
// from the shadow axis and the penumbra 6700 km (see Shadow above); the series
// Sun is within 0.02 deg of ERFA's, 10 km at that distance.
TEST(ForceModel, EclipsedOnlyInTheShadowOfTheErfaSun) {
  ForceModel model;
  configure(model, false);
  Mat const toFrame = model.getInertialFrameInfo().matrix;
  double const a = 26560000.0;
  for (double t = kT; t < kT + 365.25 * 86400.0; t += 47.3 * 86400.0) {
    double sun[3], moon[3];
    erfaSunMoon(t, sun, moon);
    Vec const s = vec3(sun[0], sun[1], sun[2]) / norm_2(vec3(sun[0], sun[1], sun[2]));
    Vec const side = vec3(-s(1), s(0), 0.0) / std::hypot(s(0), s(1));
    for (bool accurate : {false, true}) {
      model.setAccurateSunMoon(accurate);
      // (offset from the shadow axis, behind the Earth or towards the Sun, eclipsed)
      std::tuple<double, double, bool> const cases[] = {
          {0.0, -1.0, true}, {6.0e6, -1.0, true}, {6.8e6, -1.0, false}, {0.0, 1.0, false}};
      for (auto const& [offset, sign, eclipsed] : cases) {
        Vec const r = sign * std::sqrt(a * a - offset * offset) * s + offset * side;
        EXPECT_EQ(model.isEclipsed(prod(toFrame, r), t), eclipsed) << t << " " << offset << " " << sign;
      }
    }
  }
}

// Runs `f` with model parameter j moved by `delta` (6, 7: the SRP scale and
// Y-bias with SRP computation on, else the pole angles xp and yp), then restores it.
template <class F>
Vec withParameterShift(ForceModel& model, bool srpOn, int j, double delta, F f) {
  AssistanceData const data = model.getAssistanceData();
  EopInfo const e = model.getEopInfo();
  AssistanceData shifted = data;
  if (srpOn) shifted.srp[j - 6] += delta;
  model.setAssistanceData(shifted);
  if (!srpOn)
    model.setEopInfo(makeEopInfo(Eop{e.eop.xp + (j == 6 ? delta : 0.0), e.eop.yp + (j == 7 ? delta : 0.0)}));
  Vec const result = f();
  model.setAssistanceData(data);
  model.setEopInfo(e);
  return result;
}

// A GPS-like orbit: a = 26560 km, i = 55 deg, circular.
void gpsState(Vec& r, Vec& v) {
  double const a = 26560000.0, inc = 55.0 * M_PI / 180.0, node = 0.3, speed = std::sqrt(kGm / a);
  r = vec3(a * std::cos(node), a * std::sin(node), 0.0);
  v = vec3(-speed * std::sin(node) * std::cos(inc), speed * std::cos(node) * std::cos(inc),
           speed * std::sin(inc));
}

// The transition matrix integrated by rkf78 through the variational
// equations against central differences of propagated states, over one hour:
// position and velocity columns, and the two parameter columns (pole angles
// with SRP computation off, SRP scale and Y-bias with it on). The differenced
// states are propagated with fixed rk4 steps: adaptive steps at GPS-second
// epochs near 1e9 s round each step's end time to 2.4e-7 s, a millimetre of
// along-track noise that would swamp the differences.
TEST(ForceModelAdapters, TransitionMatrixMatchesFiniteDifferencesOverOneHour) {
  for (bool srpOn : {false, true}) {
    ForceModel model;
    configure(model, srpOn);
    OdeFunRkf78 f(model);
    Vec r, v;
    gpsState(r, v);
    // Orbit, SRP scale and Y-bias, then the 8x8 transition matrix starting at the identity.
    Vec x0 = boost::numeric::ublas::zero_vector<double>(72);
    subrange(x0, 0, 3) = r, subrange(x0, 3, 6) = v;
    x0(6) = model.getAssistanceData().srp[0], x0(7) = model.getAssistanceData().srp[1];
    for (int i = 0; i < 8; ++i) x0(8 + 9 * i) = 1.0;
    Vec x = x0;
    ASSERT_GT(rkf78(f, x, kT, kT + 3600.0, 60.0, 1e-12), 0);

    auto propagate = [&](Vec start) { return rk4(f, start, kT, 360, 10.0), start; };
    for (int j = 0; j < 8; ++j) {
      double const step = j < 3 ? 10.0 : j < 6 ? 0.01 : !srpOn ? 1e-3 : j == 6 ? 10.0 : 1000.0;
      auto shifted = [&](double d) {
        if (j >= 6) return withParameterShift(model, srpOn, j, d, [&] { return propagate(x0); });
        Vec moved = x0;
        return moved(j) += d, propagate(moved);
      };
      Vec const plus = shifted(step), minus = shifted(-step);
      // Position and velocity rows, each block to its own scale.
      for (int i = 0; i < 6; ++i) {
        double const scale = norm_inf(subrange(x, 8 + 8 * j + i / 3 * 3, 11 + 8 * j + i / 3 * 3));
        double const fd = (plus(i) - minus(i)) / (2 * step);
        ASSERT_GT(scale, 0.0) << "column " << j;
        EXPECT_LT(std::fabs(x(8 + 8 * j + i) - fd) / scale, 1e-5) << "Phi(" << i << "," << j << ") vs " << fd;
      }
      // The parameter rows stay those of the identity.
      EXPECT_TRUE(x(8 + 8 * j + 6) == (j == 6 ? 1.0 : 0.0) && x(8 + 8 * j + 7) == (j == 7 ? 1.0 : 0.0)) << j;
    }
  }
}

// Fatal preconditions: the message and the source path.
TEST(ForceModelDeathTest, FatalMessages) {
  ForceModel model;
  Vec const r = vec3(7e6, 0.0, 0.0);
  Vec dx;
  Mat good(5, 5), narrow(5, 4);
  std::pair<std::function<void()>, char const*> const cases[] = {
      {[&] { ForceModel::satCoefficients(r, 4, 4, narrow, good); }, "satCoefficients: invalid size V"},
      {[&] { ForceModel::satCoefficients(r, 4, 4, good, narrow); }, "satCoefficients: invalid size W"},
      {[&] { OdeFunRkf78{model}(Vec(71, 0.0), dx, 0.0); }, "OdeFunRkf78: invalid size x"},
      {[&] { OdeFunGj8{model}(Vec(4, 0.0), dx, 0.0); }, "OdeFunGj8: invalid size y"},
  };
  for (auto const& [call, text] : cases) EXPECT_DEATH(call(), test::fatalArgument(text, kSource)) << text;
}

// The Sun and Moon the force model interpolates between series values on a
// grid, against the series itself: times walked forwards, backwards and
// jumping around, as the integrators ask for them, over two lunar months. The
// series' own time argument passes through a Julian date near 2.46e6 days,
// rounded to 4e-5 s: that jitter (1.2 m of the Sun's motion, 4 cm of the
// Moon's) and the cubic's 14 cm on the Moon are all the difference may show.
TEST(SunMoonGrid, FollowsTheSeriesToItsOwnRounding) {
  struct Walk {
    char const* name;
    double start, step;  // s
    int count;
  };
  Walk const walks[] = {
      {"rkf78-like forwards", kT, 137.3, 20000},
      {"backwards across nodes", kT + 3.0e5, -311.7, 9000},
      {"jumps of days", kT - 2.0e6, 86400.0 * 1.37 + 0.61, 60},
      {"on the nodes", 3600.0 * 333000.0, 3600.0, 50},
  };
  for (Walk const& w : walks) {
    forces::SunMoonGrid grid;
    double worstMoon = 0.0, worstSun = 0.0;
    for (int k = 0; k < w.count; ++k) {
      double const t = w.start + k * w.step;
      double moon[3], sun[3], moonSeries[3], sunSeries[3];
      grid.at(t, moon, sun);
      forces::sunMoonJ2000(t, moonSeries, sunSeries);
      worstMoon = std::max(
          worstMoon, std::hypot(moon[0] - moonSeries[0], moon[1] - moonSeries[1], moon[2] - moonSeries[2]));
      worstSun =
          std::max(worstSun, std::hypot(sun[0] - sunSeries[0], sun[1] - sunSeries[1], sun[2] - sunSeries[2]));
    }
    EXPECT_LT(worstMoon, 0.25) << w.name;  // m
    EXPECT_LT(worstSun, 2.0) << w.name;    // m
  }
  // Another series given at the same times: none of the first one's nodes is reused.
  forces::SunMoonGrid grid;
  auto shifted = [](double t, double moon[3], double sun[3]) {
    forces::sunMoonJ2000(t, moon, sun);
    moon[0] += 1000.0;
    sun[2] -= 1000.0;
  };
  for (forces::SunMoonGrid::Series series : {&forces::sunMoonJ2000, +shifted, &forces::sunMoonJ2000}) {
    double moon[3], sun[3], moonSeries[3], sunSeries[3];
    grid.at(kT, moon, sun, series);
    series(kT, moonSeries, sunSeries);
    EXPECT_NEAR(moon[0], moonSeries[0], 0.25);
    EXPECT_NEAR(sun[2], sunSeries[2], 2.0);
  }
}
