// Integrators: coefficient tables against their defining properties, orders of
// convergence, the two-body problem against the analytic Kepler solution, the
// Gauss-Jackson state across serialization, and the input faults.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "libs/support/src/tables/gauss_jackson_table.hpp"
#include "support/test_support.hpp"
#include "zarn/support/numerical_integration.hpp"

namespace zs = zarn::support;
using boost::numeric::ublas::range;
using zs::Mat;
using zs::Vec;
using zs::operator==;  // Mat is a uBLAS type: no argument-dependent lookup

// Columns [first, last) of m.
Mat columns(Mat const& m, std::size_t first, std::size_t last) {
  return project(m, range(0, m.size1()), range(first, last));
}

constexpr double kGm = 3.986004418e14;  // m^3/s^2
constexpr double kDay = 86400.0;        // s

// Right-hand sides from lambdas, counting their calls.
template <class Base>
struct Counted : Base {
  std::function<void(Vec const&, Vec&, double)> rhs;
  int calls = 0;
  explicit Counted(std::function<void(Vec const&, Vec&, double)> f) : rhs(std::move(f)) {}
  void operator()(Vec const& x, Vec& dx, double t) override { ++calls, rhs(x, dx, t); }
};
using First = Counted<zs::OdeFunction>;
using Second = Counted<zs::OdeFunction2>;

void kepler2(Vec const& r, Vec& a, double) {
  a.resize(3);
  double const d = std::sqrt(r(0) * r(0) + r(1) * r(1) + r(2) * r(2));
  for (int i = 0; i < 3; ++i) a(i) = -kGm * r(i) / (d * d * d);
}

void kepler1(Vec const& x, Vec& dx, double t) {
  Vec a;
  kepler2(subrange(x, 0, 3), a, t);
  dx.resize(6);
  subrange(dx, 0, 3) = subrange(x, 3, 6), subrange(dx, 3, 6) = a;
}

// Analytic Kepler motion of a GPS-like orbit (a = 26 560 km, e = 0.01,
// i = 55 deg), computed in long double from the elements.
struct GpsOrbit {
  static constexpr long double a = 26560.0e3L, e = 0.01L, inc = 0.9599310885968813L;       // 55 deg
  static constexpr long double node = 0.5235987755982988L, perigee = 0.6981317007977318L;  // 30, 40 deg
  static constexpr long double meanAnomaly0 = 0.3L;

  // Inertial position (m) and velocity (m/s) at t seconds after the epoch.
  static void state(long double t, Vec& r, Vec& v) {
    long double const n = std::sqrt(kGm / (a * a * a)), M = meanAnomaly0 + n * t;
    long double E = M;
    for (int i = 0; i < 50; ++i) E -= (E - e * std::sin(E) - M) / (1.0L - e * std::cos(E));
    long double const b = a * std::sqrt(1.0L - e * e), edot = n / (1.0L - e * std::cos(E));
    long double const xp = a * (std::cos(E) - e), yp = b * std::sin(E);
    long double const vxp = -a * std::sin(E) * edot, vyp = b * std::cos(E) * edot;
    long double const cO = std::cos(node), sO = std::sin(node), cw = std::cos(perigee),
                      sw = std::sin(perigee), ci = std::cos(inc), si = std::sin(inc);
    long double const P[3] = {cO * cw - sO * sw * ci, sO * cw + cO * sw * ci, sw * si};
    long double const Q[3] = {-cO * sw - sO * cw * ci, -sO * sw + cO * cw * ci, cw * si};
    r.resize(3), v.resize(3);
    for (int i = 0; i < 3; ++i) r(i) = xp * P[i] + yp * Q[i], v(i) = vxp * P[i] + vyp * Q[i];
  }
};

// Position and velocity of the orbit at t as one first-order state.
Vec stacked(long double t) {
  Vec x(6), r, v;
  GpsOrbit::state(t, r, v);
  return subrange(x, 0, 3) = r, subrange(x, 3, 6) = v, x;
}

// ---- rkf78 --------------------------------------------------------------------

// One step of x' = g(t): the eighth-order weights integrate polynomials of
// degree 7 exactly. On an orbit the local error of one step shrinks as h^9.
TEST(Rkf78, QuadratureExactnessAndLocalOrder) {
  First poly([](Vec const&, Vec& dx, double t) {
    dx.resize(1);
    dx(0) = 8.0 * std::pow(t, 7) - 3.0 * t * t + 1.0;
  });
  Vec x(1, 2.0);
  EXPECT_EQ(zs::rkf78(poly, x, 0.0, 1.5, 1.5, 0.5), 1);
  EXPECT_NEAR(x(0), 2.0 + std::pow(1.5, 8) - std::pow(1.5, 3) + 1.5, 1e-12);

  // Local error of one step on the GPS-like two-body orbit.
  First f(kepler1);
  auto error = [&](double h) {
    Vec x = stacked(0);
    EXPECT_EQ(zs::rkf78(f, x, 0.0, h, h, 0.9), 1);
    return norm_2(subrange(x - stacked(h), 0, 3));
  };
  double const ratio = error(2400.0) / error(1200.0);
  EXPECT_TRUE(ratio > 0.6 * 512 && ratio < 1.6 * 512) << ratio;
}

TEST(Rkf78, TwoBodyAgainstKeplerAfterOneAndSevenDays) {
  First f(kepler1);
  Vec x = stacked(0);
  double t = 0.0;
  for (double days : {1.0, 7.0}) {
    EXPECT_GT(zs::rkf78(f, x, t, days * kDay, 300.0, 1e-13), 0);
    t = days * kDay;
    EXPECT_LT(norm_2(subrange(x - stacked(t), 0, 3)), days < 2 ? 1e-4 : 2e-3) << days;
  }
  // Backwards to the epoch.
  EXPECT_GT(zs::rkf78(f, x, t, 0.0, 300.0, 1e-13), 0);
  EXPECT_LT(norm_2(subrange(x - stacked(0), 0, 3)), 1e-2);
  // At GPS seconds near 1.2e9 a step end rounds by up to 1.2e-7 s; the state
  // must still follow the orbit.
  Vec late = stacked(0);
  ASSERT_GT(zs::rkf78(f, late, 1.2e9, 1.2e9 + 3600.0, 60.0, 1e-13), 0);
  EXPECT_LT(norm_inf(subrange(late - stacked(3600), 0, 3)), 1e-6);
}

// ---- rk4 and rkn5 -------------------------------------------------------------

// Harmonic oscillator y'' = -y, y(0) = 1, y'(0) = 0.
TEST(Rk4, FourthOrderConvergenceForwardAndBackward) {
  First f([](Vec const& x, Vec& dx, double) {
    dx.resize(2);
    dx(0) = x(1);
    dx(1) = -x(0);
  });
  auto error = [&](unsigned n, double sign) {
    Vec x(2);
    x(0) = 1.0, x(1) = 0.0;
    EXPECT_EQ(zs::rk4(f, x, 0.0, n, sign * 2.0 / n), static_cast<int>(n));
    return std::hypot(x(0) - std::cos(2.0), x(1) + sign * std::sin(2.0));
  };
  for (double sign : {1.0, -1.0}) EXPECT_NEAR(error(20, sign) / error(40, sign), 16.0, 1.5);
}

TEST(Rkn5, FifthOrderConvergenceAndStepCount) {
  Second f([](Vec const& y, Vec& a, double) {
    a.resize(1);
    a(0) = -y(0);
  });
  auto run = [&](double t0, double t1, double h, int expectedSteps, double tEnd) {
    Vec y(1, std::cos(t0)), v(1, -std::sin(t0));
    EXPECT_EQ(zs::rkn5(f, y, v, t0, t1, h), expectedSteps);
    return std::hypot(y(0) - std::cos(tEnd), v(0) + std::sin(tEnd));
  };
  EXPECT_NEAR(run(0.0, 3.0, 0.1, 30, 3.0) / run(0.0, 3.0, 0.05, 60, 3.0), 32.0, 4.0);
  // A whole number of steps only: 2.5 h is two steps, ending at t0 + 2 h.
  EXPECT_LT(run(1.0, 1.25, 0.1, 2, 1.2), 1e-9);
  // Shorter than one step: one step of t1 - t0, in either direction.
  EXPECT_LT(run(1.0, 1.04, 0.1, 1, 1.04), 1e-11);
  EXPECT_LT(run(1.0, 0.96, 0.1, 1, 0.96), 1e-11);
  // A zero step takes no step at all.
  int const calls = f.calls;
  EXPECT_LT(run(0.5, 1.0, 0.0, 0, 0.5), 1e-300);
  EXPECT_EQ(f.calls, calls);
}

// ---- Gauss-Jackson --------------------------------------------------------------

TEST(Gj8, TwoBodyAgainstKeplerAfterOneAndSevenDays) {
  Second f(kepler2);
  Vec const x0 = stacked(0), r0 = subrange(x0, 0, 3), v0 = subrange(x0, 3, 6);
  constexpr double h = 300.0;  // s
  zs::Gj8Integrator gj;
  ASSERT_EQ(gj.gj8Init(f, r0, v0, 0.0, h), 0);
  Mat R(3, 1), V(3, 1);
  unsigned done = 0;
  for (double days : {1.0, 7.0}) {
    unsigned const target = static_cast<unsigned>(days * kDay / h);
    EXPECT_EQ(gj.gj8Propagate(f, R, V, target - done), target - done);
    done = target;
    EXPECT_EQ(gj.getTotalSteps(), target);
    Vec r, v;
    GpsOrbit::state(done * h, r, v);
    EXPECT_LT(norm_2(column(R, 0) - r), days < 2 ? 1e-5 : 1e-4) << days;
    EXPECT_LT(norm_2(column(V, 0) - v), 1e-8) << days;
  }
  // A negative step integrates backwards.
  zs::Gj8Integrator back;
  ASSERT_EQ(back.gj8Init(f, r0, v0, 0.0, -h), 0);
  back.gj8Propagate(f, R, V, 288);
  Vec r, v;
  GpsOrbit::state(-kDay, r, v);
  EXPECT_LT(norm_2(column(R, 0) - r), 1e-5);
  // The free functions: every step after the initial column, or the last state only.
  Mat Rf(3, 289), Vf(3, 289);
  column(Rf, 0) = r0, column(Vf, 0) = v0, r = r0, v = v0;
  EXPECT_TRUE(zs::gj8(f, Rf, Vf, 0.0, 288, h) == 288 && zs::gj8(f, r, v, 0.0, 288, h) == 288);
  for (unsigned k : {0u, 1u, 9u, 288u}) {
    Vec rk, vk;
    GpsOrbit::state(k * h, rk, vk);
    EXPECT_TRUE(norm_2(column(Rf, k) - rk) < 1e-5 && norm_2(column(Vf, k) - vk) < 1e-8) << k;
    EXPECT_TRUE(k < 288 || (norm_2(r - rk) < 1e-5 && norm_2(v - vk) < 1e-8));
  }
}

// Accelerations that depend on time only: a polynomial of degree 8 is
// integrated exactly through start-up, predictor and corrector; degree 9 is not.
TEST(Gj8, ExactOnPolynomialAccelerationsOfDegreeEight) {
  auto run = [](int degree) {
    auto p = [degree](double t) { return 1e-2 * std::pow(t / 100.0, degree); };
    // Exact integrals with r, v at t = 0 as below.
    auto v = [degree](double t) { return 1e-2 * 100.0 * std::pow(t / 100.0, degree + 1) / (degree + 1); };
    auto r = [degree](double t) {
      return 1e-2 * 1e4 * std::pow(t / 100.0, degree + 2) / ((degree + 1) * (degree + 2));
    };
    Second f([&](Vec const&, Vec& a, double t) {
      a.resize(3);
      a(0) = p(t), a(1) = -p(t), a(2) = 0.5 * p(t);
    });
    // Inside the Earth, where the two-body start-up force is off: the corrector
    // alone makes the straight-line start-up points consistent with f.
    Vec r0(3, 0.0), v0(3, 0.0);
    r0(0) = 1.0e3, v0(1) = 10.0;
    double const h = 10.0;
    zs::Gj8Integrator gj;
    EXPECT_EQ(gj.gj8Init(f, r0, v0, 0.0, h), 0);
    Mat R(3, 40), V(3, 40);
    gj.gj8Propagate(f, R, V, 40);
    double worst = 0.0;
    for (int k = 0; k < 40; ++k) {
      double const t = (k + 1) * h;
      worst = std::max({worst, std::fabs(R(0, k) - (r0(0) + r(t))), std::fabs(R(1, k) - (v0(1) * t - r(t))),
                        std::fabs(V(2, k) - 0.5 * v(t)) * h});
    }
    return worst;
  };
  for (int degree : {0, 3, 8}) EXPECT_LT(run(degree), 1e-8) << "degree " << degree;
  EXPECT_GT(run(9), 1e-7);
}

TEST(Gj8, StartUpEpochsNeedNoEvaluationAndCallsChainIntoOnePropagation) {
  Second f(kepler2);
  Vec const x0 = stacked(0), r0 = subrange(x0, 0, 3), v0 = subrange(x0, 3, 6);
  zs::Gj8Integrator whole, pieces;
  ASSERT_TRUE(whole.gj8Init(f, r0, v0, 100.0, 120.0) == 0 && pieces.gj8Init(f, r0, v0, 100.0, 120.0) == 0);
  Mat R(3, 12), V(3, 12), R1(3, 2), V1(3, 2), R2(3, 2), V2(3, 2);
  whole.gj8Propagate(f, R, V, 12);
  int const before = f.calls;
  EXPECT_TRUE(pieces.gj8Propagate(f, R1, V1, 2) == 2u && pieces.gj8Propagate(f, R2, V2, 2) == 2u);
  EXPECT_EQ(f.calls, before);
  // Five more in a matrix of three columns keep the newest three.
  Mat R3(3, 3), V3(3, 3);
  EXPECT_EQ(pieces.gj8Propagate(f, R3, V3, 5), 5u);
  // Three in a matrix of five columns leave its first two columns alone.
  Mat R4(3, 5, -1.0), V4(3, 5, -1.0);
  EXPECT_EQ(pieces.gj8Propagate(f, R4, V4, 3), 3u);
  EXPECT_TRUE(R1 == columns(R, 0, 2) && V2 == columns(V, 2, 4) && R3 == columns(R, 6, 9) &&
              V3 == columns(V, 6, 9));
  EXPECT_TRUE(columns(R4, 0, 2) == Mat(3, 2, -1.0) && columns(R4, 2, 5) == columns(R, 9, 12));
  EXPECT_TRUE(columns(V4, 2, 5) == columns(V, 9, 12) && pieces == whole);
}

// ---- Gauss-Jackson state across serialization ----------------------------------

// Restored mid-run, the integrator continues bit for bit; values no run can
// produce, placed by hand, are refused.
TEST(Gj8Serialization, RoundTripContinuesBitForBitAndDamageIsRefused) {
  Second f(kepler2);
  Vec const x0 = stacked(0), r0 = subrange(x0, 0, 3), v0 = subrange(x0, 3, 6);
  zs::Gj8Integrator uninterrupted, restored;
  ASSERT_EQ(uninterrupted.gj8Init(f, r0, v0, 1.0e9, 300.0), 0);
  Mat R1(3, 100), V1(3, 100), R2(3, 100), V2(3, 100);
  uninterrupted.gj8Propagate(f, R1, V1, 37);
  zarn::core::BinaryData bytes;
  unsigned int position = 0;
  ASSERT_TRUE(uninterrupted.serialize(bytes) && restored.deserialize(bytes, position));
  uninterrupted.gj8Propagate(f, R1, V1, 100);
  restored.gj8Propagate(f, R2, V2, 100);
  EXPECT_TRUE(R1 == R2 && V1 == V2);
  // A row of eight accelerations, a zero step, a first-sum count far beyond
  // the buffer, "not initialised" with data, a non-finite time.
  std::pair<std::size_t, std::vector<unsigned char>> const patches[] = {
      {33, {0, 0, 0, 8}},
      {13, {0, 0, 0, 0, 0, 0, 0, 0}},
      {29 + 8 + 12 * 27, {0x7F, 0xFF, 0xFF, 0xFF}},
      {0, {0}},
      {9, {0x7F, 0xFF, 0xFF, 0xFF}}};
  for (auto const& [offset, patch] : patches) {
    zarn::core::BinaryData b = bytes;
    std::copy(patch.begin(), patch.end(), b.begin() + offset);
    unsigned int at = 0;
    EXPECT_FALSE(zs::Gj8Integrator().deserialize(b, at)) << offset;
  }
}

// Soft input faults: each logs exactly "ERROR/<line>", returns its failure
// value and leaves state and integrator alone.
TEST(Integrators, InputFaultsAreLoggedAndChangeNothing) {
  First f1(kepler1);
  First nanRhs([](Vec const& x, Vec& dx, double t) {
    dx = x;
    if (t > 0.5) dx(0) = std::nan("");
  });
  Second f(kepler2);
  Vec const x0 = stacked(0), r0 = subrange(x0, 0, 3), v0 = subrange(x0, 3, 6);
  zs::Gj8Integrator gj, ready;
  ASSERT_EQ(ready.gj8Init(f, r0, v0, 0, 60), 0);
  zs::Gj8Integrator const fresh, initialised = ready;
  Vec empty, x(2, 1.0), four(4, 1.0);
  Mat R(3, 2), V(3, 2), none(0, 2), wide(3, 3), tall(4, 2), tallV(4, 2), R1(3, 1), V1(3, 1);
  auto steps = [](unsigned n) { return static_cast<int>(n); };
  std::tuple<std::function<int()>, char const*, int> const cases[] = {
      {[&] { return zs::rkf78(f1, empty, 0, 1, 0.1, 1e-9); },
       "rkf78: Vector of dependent variables is zero dimensional.", 0},
      {[&] { return zs::rkf78(f1, x, 0, 1, 0.0, -1.0); },
       "rkf78: Initial step size is less than or equal to zero.", 0},
      {[&] { return zs::rkf78(f1, x, 0, 1, 0.1, 0.0); },
       "rkf78: Truncation error tolerance is less than or equal to zero.", 0},
      {[&] { return zs::rkf78(nanRhs, x, 0.0, 1.0, 0.1, 1e-9); },
       "rkf78: Dependent variables are not a number.", 0},
      {[&] { return zs::rk4(f1, empty, 0, 3, 1.0); },
       "rk4: Vector of dependent variables is zero dimensional.", 0},
      {[&] { return zs::rk4(f1, x, 0, 3, 0.0); }, "rk4: Step size is equal to zero.", 0},
      {[&] { return gj.gj8Init(f, empty, empty, 0, 60); }, "gj8: Vector of dependent variables is too small.",
       -1},
      {[&] { return gj.gj8Init(f, r0, four, 0, 60); },
       "gj8: Dimensions of vector of dependent variables and its derivative do not agree.", -1},
      {[&] { return gj.gj8Init(f, r0, v0, 0, 0.0); }, "gj8: Initial step size is equal to zero.", -1},
      {[&] { return steps(gj.gj8Propagate(f, R, V, 1)); }, "gj8: Integrator is not initialized.", 0},
      {[&] { return steps(ready.gj8Propagate(f, R, V, 0)); },
       "gj8: Number of integration steps has to be a positive number.", 0},
      {[&] { return steps(ready.gj8Propagate(f, none, V, 1)); },
       "gj8: Matrix of dependent variables or matrix of derivatives is too small.", 0},
      {[&] { return steps(ready.gj8Propagate(f, R, wide, 1)); },
       "gj8: Dimensions of matrix of dependent variables and matrix of derivatives do not agree.", 0},
      {[&] { return steps(ready.gj8Propagate(f, tall, tallV, 1)); },
       "gj8: Number of rows of the matrix of dependent variables differs from the state dimension.", 0},
      {[&] { return zs::gj8(f, R1, V1, 0, 5, -60.0); },
       "gj8: Initial step size is less than or equal to zero.", -1},
      {[&] { return zs::gj8(f, none, none, 0, 5, 60.0); },
       "gj8: Matrix of dependent variables or its derivative is too small.", -1},
      {[&] { return zs::gj8(f, R1, wide, 0, 5, 60.0); },
       "gj8: Dimensions of matrix of dependent variables and its derivative do not agree.", -1},
  };
  int const readyCalls = f.calls;
  for (auto const& [run, line, failure] : cases) {
    int result = failure + 1;
    EXPECT_EQ(zarn::test::capturedStderr([&] { result = run(); }), std::string("ERROR/") + line + "\n");
    EXPECT_EQ(result, failure) << line;
  }
  EXPECT_TRUE(x(0) == 1.0 && x(1) == 1.0 && gj == fresh && ready == initialised && f.calls == readyCalls);
  // Empty spans are no faults.
  EXPECT_TRUE(zs::rkf78(f1, x, 5.0, 5.0 + 5e-9, 0.1, 1e-9) == 0 && zs::rk4(f1, x, 0, 0, 1.0) == 0 &&
              f1.calls == 0);
}

// The start-up runs on the two-body problem, which needs a 3-dimensional y.
TEST(Gj8DeathTest, FatalMessages) {
  Second f([](Vec const& y, Vec& a, double) { a = -y; });
  Vec r(2, 7.0e6), v(2, 1.0);
  zs::Gj8Integrator gj;
  EXPECT_DEATH(gj.gj8Init(f, r, v, 0.0, 10.0),
               zarn::test::fatalArgument("Vector dimension is not equal to 6.",
                                         "libs/support/src/numerical_integration"));
}
