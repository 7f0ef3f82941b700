#include "zarn/support/numerical_integration.hpp"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "numerical_integration/one_step.hpp"
#include "zarn/support/coordinate_conversion.hpp"

namespace zarn {
namespace support {

using integration::kFehlbergStages;
using integration::logFault;

namespace {

// Runge-Kutta-Fehlberg 7(8): E. Fehlberg, "Classical Fifth-, Sixth-, Seventh-,
// and Eighth-Order Runge-Kutta Formulas with Stepsize Control", NASA TR R-287,
// 1968: the coefficients of the RK7(8) pair, 13 stages.
constexpr int kStages = kFehlbergStages;

// Nodes alpha_k.
constexpr double kC[kStages] = {0.0,       2.0 / 27.0, 1.0 / 9.0, 1.0 / 6.0, 5.0 / 12.0, 1.0 / 2.0, 5.0 / 6.0,
                                1.0 / 6.0, 2.0 / 3.0,  1.0 / 3.0, 1.0,       0.0,        1.0};

// Coupling coefficients beta_k,lambda (row k = stage, lambda < k).
constexpr double kBeta[kStages][kStages - 1] = {
    {},
    {2.0 / 27.0},
    {1.0 / 36.0, 1.0 / 12.0},
    {1.0 / 24.0, 0.0, 1.0 / 8.0},
    {5.0 / 12.0, 0.0, -25.0 / 16.0, 25.0 / 16.0},
    {1.0 / 20.0, 0.0, 0.0, 1.0 / 4.0, 1.0 / 5.0},
    {-25.0 / 108.0, 0.0, 0.0, 125.0 / 108.0, -65.0 / 27.0, 125.0 / 54.0},
    {31.0 / 300.0, 0.0, 0.0, 0.0, 61.0 / 225.0, -2.0 / 9.0, 13.0 / 900.0},
    {2.0, 0.0, 0.0, -53.0 / 6.0, 704.0 / 45.0, -107.0 / 9.0, 67.0 / 90.0, 3.0},
    {-91.0 / 108.0, 0.0, 0.0, 23.0 / 108.0, -976.0 / 135.0, 311.0 / 54.0, -19.0 / 60.0, 17.0 / 6.0,
     -1.0 / 12.0},
    {2383.0 / 4100.0, 0.0, 0.0, -341.0 / 164.0, 4496.0 / 1025.0, -301.0 / 82.0, 2133.0 / 4100.0, 45.0 / 82.0,
     45.0 / 164.0, 18.0 / 41.0},
    {3.0 / 205.0, 0.0, 0.0, 0.0, 0.0, -6.0 / 41.0, -3.0 / 205.0, -3.0 / 41.0, 3.0 / 41.0, 6.0 / 41.0, 0.0},
    {-1777.0 / 4100.0, 0.0, 0.0, -341.0 / 164.0, 4496.0 / 1025.0, -289.0 / 82.0, 2193.0 / 4100.0, 51.0 / 82.0,
     33.0 / 164.0, 12.0 / 41.0, 0.0, 1.0},
};

// Eighth-order weights c-hat_k; the solution is advanced with these.
constexpr double kWeights8[kStages] = {0.0,          0.0,          0.0,         0.0,         0.0,
                                       34.0 / 105.0, 9.0 / 35.0,   9.0 / 35.0,  9.0 / 280.0, 9.0 / 280.0,
                                       0.0,          41.0 / 840.0, 41.0 / 840.0};

// The seventh- and eighth-order solutions differ by
// (41/840) (k_1 + k_11 - k_12 - k_13) h: the error estimate.
constexpr double kErrorWeight = 41.0 / 840.0;

// rkf78 ends once within this of t1 (s); absolute on purpose, callers use seconds.
constexpr double kTimeTolerance = 1e-8;
// Step-size control h_new = h * safety * (1 / error)^(1 / order) (Hairer,
// Norsett & Wanner, Solving Ordinary Differential Equations I, 2nd ed., II.4);
// the safety factor is our tuning.
constexpr double kSafety = 0.8;
constexpr double kOrder = 8.0;
constexpr double kMaxRkn5Steps = 1e15;  // larger step counts (h == 0 among them) take no step

// The Gauss-Jackson start-up's two-body force: WGS 84 GM (NIMA TR8350.2, 3rd
// ed., Table 3.1); inside the Earth's radius the force is switched off.
constexpr double kEarthRadius = 6378136.3;  // m

// The 13 stage derivatives of one Fehlberg step of `step` from (x0, t) into the
// columns of K; `arg` receives the stage arguments.
void fehlbergStages(OdeFunction& f, Vec const& x0, double t, double step, Mat& K, Vec& arg, Vec& dx) {
  std::size_t const n = x0.size();
  f(x0, dx, t);
  for (std::size_t j = 0; j < n; ++j) K(j, 0) = dx(j);
  for (int s = 1; s < kStages; ++s) {
    for (std::size_t j = 0; j < n; ++j) {
      double sum = 0.0;
      for (int m = 0; m < s; ++m) sum += kBeta[s][m] * K(j, m);
      arg(j) = x0(j) + step * sum;
    }
    f(arg, dx, t + kC[s] * step);
    for (std::size_t j = 0; j < n; ++j) K(j, s) = dx(j);
  }
}

}  // namespace

OdeFunction::~OdeFunction() = default;
OdeFunction2::~OdeFunction2() = default;

int rkf78(OdeFunction& f, Vec& x, double t0, double t1, double h, double tol) {
  std::size_t const n = x.size();
  if (n == 0) {
    logFault("rkf78", "Vector of dependent variables is zero dimensional.");
    return 0;
  }
  if (!(h > 0.0)) {
    logFault("rkf78", "Initial step size is less than or equal to zero.");
    return 0;
  }
  if (!(tol > 0.0)) {
    logFault("rkf78", "Truncation error tolerance is less than or equal to zero.");
    return 0;
  }

  Mat K(n, kStages);
  Vec x0(n);
  Vec dx(n);
  double const direction = t1 > t0 ? 1.0 : (t1 < t0 ? -1.0 : 0.0);
  double trial = std::fabs(h) * direction;
  int accepted = 0;
  // Time is kept as the elapsed interval from t0: at GPS seconds near 1e9 one
  // ulp is 2.4e-7 s, and summing steps onto t would let the clock drift from
  // the state by a rounding error every step.
  Vec const xStart = x;
  double const span = t1 - t0;
  double elapsed = 0.0;
  while (std::fabs(span - elapsed) >= kTimeTolerance) {
    x0 = x;
    double const t = t0 + elapsed;
    double const step = std::fabs(trial) > std::fabs(span - elapsed) ? span - elapsed : trial;
    fehlbergStages(f, x0, t, step, K, x, dx);
    Vec const increment = prod(K, kWeights8);
    double error = tol;
    for (std::size_t j = 0; j < n; ++j) {
      x(j) = x0(j) + step * increment(j);
      double const estimate = std::fabs((K(j, 0) + K(j, 10) - K(j, 11) - K(j, 12)) * kErrorWeight * step);
      error = std::max(error, estimate / (tol + std::fabs(x(j)) * tol));
    }
    if (isnan(x)) {
      // A non-finite right-hand side: stop instead of integrating garbage.
      logFault("rkf78", "Dependent variables are not a number.");
      x = xStart;
      return 0;
    }
    trial = step * kSafety * std::pow(1.0 / error, 1.0 / kOrder);
    if (error <= 1.0) {
      elapsed += kC[kStages - 1] * step;
      ++accepted;
    } else {
      x = x0;
    }
  }
  return accepted;
}

int rk4(OdeFunction& f, Vec& x, double t0, unsigned int n, double h) {
  if (x.size() == 0) {
    logFault("rk4", "Vector of dependent variables is zero dimensional.");
    return 0;
  }
  if (h == 0.0) {
    logFault("rk4", "Step size is equal to zero.");
    return 0;
  }
  double const half = h / 2.0, sixth = h / 6.0, third = h / 3.0;
  Vec k1, k2, k3, k4;
  double t = t0;
  for (unsigned int i = 0; i < n; ++i) {
    f(x, k1, t);
    f(Vec(x + half * k1), k2, t + half);
    f(Vec(x + half * k2), k3, t + half);
    f(Vec(x + h * k3), k4, t + h);
    k1 *= sixth;
    k2 *= third;
    k3 *= third;
    k4 *= sixth;
    for (std::size_t j = 0; j < x.size(); ++j) x(j) += (k1(j) + k2(j) + k3(j)) + k4(j);
    t += h;
  }
  return static_cast<int>(n);
}

int rkn5(OdeFunction2& f, Vec& y, Vec& v, double t0, double t1, double h) {
  double const delta = t1 - t0;
  if (!(std::fabs(delta / h) < kMaxRkn5Steps)) return 0;
  long long count = static_cast<long long>(delta / h);
  if (count == 0) count = 1;
  if (t1 < t0) {
    h = -h;
    count = -count;
  }
  long long const steps = count < 0 ? -count : count;

  Vec yy = y;
  Vec vv = v;
  Vec a1, a2, a3, a4;
  Vec arg(yy.size());
  double k = std::fabs(delta) < std::fabs(h) ? delta : h;
  double t = t0;
  for (long long i = 0; i < steps; ++i) {
    double const k2 = k * k;
    f(yy, a1, t);
    noalias(arg) = yy + (k / 5.0) * vv + (k2 / 50.0) * a1;
    f(arg, a2, t + k / 5.0);
    noalias(arg) = yy + (2.0 * k / 3.0) * vv + k2 * (-1.0 / 27.0 * a1 + 7.0 / 27.0 * a2);
    f(arg, a3, t + 2.0 * k / 3.0);
    noalias(arg) = yy + k * vv + k2 * (3.0 / 10.0 * a1 - 2.0 / 35.0 * a2 + 9.0 / 35.0 * a3);
    f(arg, a4, t + k);
    yy += k * vv + (k2 / 336.0) * (14.0 * a1 + 100.0 * a2 + 54.0 * a3);
    vv += (k / 336.0) * (14.0 * a1 + 125.0 * a2 + 162.0 * a3 + 35.0 * a4);
    t += h;
    // Compares the magnitudes of the times, not the remaining interval.
    k = std::fabs(t1) <= std::fabs(t) ? t1 - t : h;
  }
  y = yy;
  v = vv;
  return static_cast<int>(steps);
}

namespace integration {

void fehlbergStep(OdeFunction& f, Vec& state, double t, double step, Mat& K, Vec& arg, Vec& dx) {
  fehlbergStages(f, state, t, step, K, arg, dx);
  Vec const increment = prod(K, kWeights8);
  for (std::size_t j = 0; j < state.size(); ++j) state(j) += step * increment(j);
}

void TwoBody::operator()(Vec const& x, Vec& dx, double /*t*/) {
  if (x.size() != 6) ZARN_THROW(std::invalid_argument("Vector dimension is not equal to 6."));
  dx.resize(6, false);
  double const r = std::sqrt(x(0) * x(0) + x(1) * x(1) + x(2) * x(2));
  double const scale = r < kEarthRadius ? 0.0 : -kEarthGm / (r * r * r);
  for (int i = 0; i < 3; ++i) {
    dx(i) = x(i + 3);
    dx(i + 3) = scale * x(i);
  }
}

}  // namespace integration
}  // namespace support
}  // namespace zarn
