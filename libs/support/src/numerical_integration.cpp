#include "zarn/support/numerical_integration.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

#include "tables/gauss_jackson_table.hpp"
#include "zarn/support/log.hpp"
#include "zarn/support/serialization.hpp"

namespace zarn {
namespace support {

namespace {

// Runge-Kutta-Fehlberg 7(8): E. Fehlberg, "Classical Fifth-, Sixth-, Seventh-,
// and Eighth-Order Runge-Kutta Formulas with Stepsize Control", NASA TR R-287,
// 1968: the coefficients of the RK7(8) pair, 13 stages.
constexpr int kStages = 13;

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
constexpr double kSafety = 0.8;
constexpr double kOrder = 8.0;
constexpr double kMaxRkn5Steps = 1e15;  // larger step counts (h == 0 among them) take no step

// Gauss-Jackson start-up and corrector.
constexpr int kWindow = 9;        // accelerations a_-4 .. a_4
constexpr int kStoredEpochs = 8;  // positions and velocities kept
constexpr int kCentre = 4;        // column of the start-up epoch t0
constexpr int kPredictorRow = 9;  // row j = 5 of the tables
constexpr int kCorrectorRow = 8;  // row j = 4
constexpr int kMaxIterations = 20;
constexpr double kStartupTolerance = 1e-12;   // m/s^2, row-sum norm of the acceleration change
constexpr double kCorrectorTolerance = 1e-5;  // m, largest change of a corrected position
constexpr unsigned int kStartupSteps = 4;     // epochs after t0 known from the start-up

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

void logFault(char const* routine, char const* text) {
  log::print(log::ERROR, routine, text);
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

// ---- Gauss-Jackson ---------------------------------------------------------

struct Gj8Integrator::Details {
  bool initialized = false;
  double t0 = 0.0;
  double h = 0.0;
  unsigned int totalSteps = 0;
  Mat accelerations;  // n x 9, oldest first
  Vec firstSum;       // s at the newest epoch of the window
  Vec secondSum;      // S at the newest epoch of the window
  Mat positions;      // n x 8, the newest epochs, oldest first
  Mat velocities;

  // A state, typically deserialized, that the integrator can continue from.
  bool consistent() const;
};

namespace {

bool allFinite(Mat const& m) {
  for (std::size_t i = 0; i < m.size1(); ++i)
    for (std::size_t j = 0; j < m.size2(); ++j)
      if (!std::isfinite(m(i, j))) return false;
  return true;
}

bool allFinite(Vec const& v) {
  for (std::size_t i = 0; i < v.size(); ++i)
    if (!std::isfinite(v(i))) return false;
  return true;
}

// Weighted sum of the window's columns: out = base + sum_k w[k] A(:, k).
void addWeighted(Mat const& A, double const (&w)[kWindow], Vec const& base, Vec& out) {
  for (std::size_t i = 0; i < A.size1(); ++i) {
    double sum = 0.0;
    for (int k = 0; k < kWindow; ++k) sum += w[k] * A(i, k);
    out(i) = base(i) + sum;
  }
}

// First and second sums s_j, S_j (columns j + 4) of the start-up window from the
// centre state (Berry and Healy 2004, eqs. 73-80).
void startupSums(Mat const& A, Vec const& r0, Vec const& v0, double h, Mat& s, Mat& S) {
  std::size_t const n = A.size1();
  for (std::size_t i = 0; i < n; ++i) {
    double bsum = 0.0;
    double asum = 0.0;
    for (int k = 0; k < kWindow; ++k) {
      bsum += tables::summedAdams[kCentre][k] * A(i, k);
      asum += tables::gaussJackson[kCentre][k] * A(i, k);
    }
    s(i, kCentre) = v0(i) / h - bsum;
    S(i, kCentre) = r0(i) / (h * h) - asum;
    for (int c = kCentre + 1; c < kWindow; ++c) {
      s(i, c) = s(i, c - 1) + (A(i, c - 1) + A(i, c)) / 2.0;
      S(i, c) = S(i, c - 1) + s(i, c - 1) + A(i, c - 1) / 2.0;
    }
    for (int c = kCentre - 1; c >= 0; --c) {
      s(i, c) = s(i, c + 1) - (A(i, c + 1) + A(i, c)) / 2.0;
      S(i, c) = S(i, c + 1) - s(i, c + 1) + A(i, c + 1) / 2.0;
    }
  }
}

// Positions and velocities of the start-up points other than the centre.
void startupPoints(Mat const& A, Mat const& s, Mat const& S, double h, Mat& P, Mat& V) {
  for (std::size_t i = 0; i < A.size1(); ++i) {
    for (int c = 0; c < kWindow; ++c) {
      if (c == kCentre) continue;
      double bsum = 0.0;
      double asum = 0.0;
      for (int k = 0; k < kWindow; ++k) {
        bsum += tables::summedAdams[c][k] * A(i, k);
        asum += tables::gaussJackson[c][k] * A(i, k);
      }
      V(i, c) = h * (s(i, c) + bsum);
      P(i, c) = h * h * (S(i, c) + asum);
    }
  }
}

// Copies one column of `from` into a column of `to` (same row count).
void copyColumn(Mat const& from, std::size_t fromColumn, Mat& to, std::size_t toColumn) {
  for (std::size_t i = 0; i < from.size1(); ++i) to(i, toColumn) = from(i, fromColumn);
}

}  // namespace

// A deserialized state that the integrator can continue from.
bool Gj8Integrator::Details::consistent() const {
  if (!std::isfinite(t0) || !std::isfinite(h)) return false;
  if (!initialized)
    return accelerations.size1() == 0 && firstSum.size() == 0 && secondSum.size() == 0 &&
           positions.size1() == 0 && velocities.size1() == 0;
  std::size_t const n = accelerations.size1();
  return n > 0 && h != 0.0 && accelerations.size2() == kWindow && firstSum.size() == n &&
         secondSum.size() == n && positions.size1() == n && positions.size2() == kStoredEpochs &&
         velocities.size1() == n && velocities.size2() == kStoredEpochs && allFinite(accelerations) &&
         allFinite(firstSum) && allFinite(secondSum) && allFinite(positions) && allFinite(velocities);
}

Gj8Integrator::Gj8Integrator() : details_(new Details) {}

Gj8Integrator::Gj8Integrator(Gj8Integrator const& other) : details_(new Details(*other.details_)) {}

Gj8Integrator& Gj8Integrator::operator=(Gj8Integrator const& other) {
  if (this != &other) {
    Details* copy = new Details(*other.details_);
    delete details_;
    details_ = copy;
  }
  return *this;
}

Gj8Integrator::~Gj8Integrator() {
  delete details_;
}

unsigned int Gj8Integrator::getTotalSteps() const {
  return details_->totalSteps;
}

namespace {

// Two-body motion about the Earth for the start-up: y' = (v, -GM r / |r|^3).
class TwoBody : public OdeFunction {
 public:
  void operator()(Vec const& x, Vec& dx, double t) override;
};

constexpr double kGm = 3.986004418e14;      // m^3/s^2, WGS 84
constexpr double kEarthRadius = 6378136.3;  // m; inside it the start-up force is switched off

void TwoBody::operator()(Vec const& x, Vec& dx, double /*t*/) {
  if (x.size() != 6) ZARN_THROW(std::invalid_argument("Vector dimension is not equal to 6."));
  dx.resize(6, false);
  double const r = std::sqrt(x(0) * x(0) + x(1) * x(1) + x(2) * x(2));
  double const scale = r < kEarthRadius ? 0.0 : -kGm / (r * r * r);
  for (int i = 0; i < 3; ++i) {
    dx(i) = x(i + 3);
    dx(i + 3) = scale * x(i);
  }
}

}  // namespace

int Gj8Integrator::gj8Init(OdeFunction2& f, Vec const& r0, Vec const& v0, double t0, double h) {
  if (r0.size() == 0) {
    logFault("gj8", "Vector of dependent variables is too small.");
    return -1;
  }
  if (r0.size() != v0.size()) {
    logFault("gj8", "Dimensions of vector of dependent variables and its derivative do not agree.");
    return -1;
  }
  if (h == 0.0) {
    logFault("gj8", "Initial step size is equal to zero.");
    return -1;
  }
  std::size_t const n = r0.size();

  // Nine start-up points at t0 + (c - 4) h from fixed Fehlberg steps on the
  // two-body problem, four forwards and four backwards; the corrector below
  // makes them consistent with f.
  Mat P(n, kWindow);
  Mat V(n, kWindow);
  Mat K(2 * n, kStages);
  Vec state(2 * n), start(2 * n), arg(2 * n), dx(2 * n);
  TwoBody twoBody;
  for (std::size_t i = 0; i < n; ++i) {
    start(i) = r0(i);
    start(n + i) = v0(i);
  }
  for (int direction : {1, -1}) {
    double const step = direction * h;
    state = start;
    for (int k = 1; k <= kCentre; ++k) {
      fehlbergStages(twoBody, state, t0 + (k - 1) * step, step, K, arg, dx);
      Vec const increment = prod(K, kWeights8);
      for (std::size_t j = 0; j < 2 * n; ++j) state(j) += step * increment(j);
      for (std::size_t i = 0; i < n; ++i) {
        P(i, kCentre + direction * k) = state(i);
        V(i, kCentre + direction * k) = state(n + i);
      }
    }
  }
  for (std::size_t i = 0; i < n; ++i) {
    P(i, kCentre) = r0(i);
    V(i, kCentre) = v0(i);
  }

  Mat A(n, kWindow);
  Vec a(n);
  auto evaluate = [&](int c) {
    Vec const y = column(P, c);
    f(y, a, t0 + (c - kCentre) * h);
    for (std::size_t i = 0; i < n; ++i) A(i, c) = a(i);
  };
  for (int c = 0; c < kWindow; ++c) evaluate(c);

  Mat s(n, kWindow);
  Mat S(n, kWindow);
  Mat previous(n, kWindow);
  for (int iteration = 0; iteration < kMaxIterations; ++iteration) {
    startupSums(A, r0, v0, h, s, S);
    startupPoints(A, s, S, h, P, V);
    previous = A;
    for (int c = 0; c < kWindow; ++c)
      if (c != kCentre) evaluate(c);
    double change = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
      double row = 0.0;
      for (int c = 0; c < kWindow; ++c) row += std::fabs(A(i, c) - previous(i, c));
      change = std::max(change, row);
    }
    if (!(change > kStartupTolerance)) break;
  }
  // Sums and points consistent with the accelerations that are kept.
  startupSums(A, r0, v0, h, s, S);
  startupPoints(A, s, S, h, P, V);

  Details d;
  d.initialized = true;
  d.t0 = t0;
  d.h = h;
  d.totalSteps = 0;
  d.accelerations = A;
  d.firstSum = column(s, kWindow - 1);
  d.secondSum = column(S, kWindow - 1);
  d.positions = subrange(P, 0, n, 1, kWindow);
  d.velocities = subrange(V, 0, n, 1, kWindow);
  std::swap(*details_, d);
  return 0;
}

unsigned int Gj8Integrator::gj8Propagate(OdeFunction2& f, Mat& R, Mat& V, unsigned int steps) {
  if (steps == 0) {
    logFault("gj8", "Number of integration steps has to be a positive number.");
    return 0;
  }
  if (R.size1() == 0 || V.size1() == 0) {
    logFault("gj8", "Matrix of dependent variables or matrix of derivatives is too small.");
    return 0;
  }
  if (R.size1() != V.size1() || R.size2() != V.size2()) {
    logFault("gj8", "Dimensions of matrix of dependent variables and matrix of derivatives do not agree.");
    return 0;
  }
  Details& d = *details_;
  if (!d.initialized) {
    logFault("gj8", "Integrator is not initialized.");
    return 0;
  }
  std::size_t const n = d.accelerations.size1();
  if (R.size1() != n) {
    logFault("gj8", "Number of rows of the matrix of dependent variables differs from the state dimension.");
    return 0;
  }

  // Epoch i of this call (0-based) goes to column i + offset when that is >= 0.
  long long const offset = static_cast<long long>(R.size2()) - static_cast<long long>(steps);
  auto output = [&](unsigned int i, std::size_t storedColumn) {
    long long const column = offset + i;
    if (column < 0) return;
    copyColumn(d.positions, storedColumn, R, static_cast<std::size_t>(column));
    copyColumn(d.velocities, storedColumn, V, static_cast<std::size_t>(column));
  };

  Mat& A = d.accelerations;
  Vec& s = d.firstSum;
  Vec& S = d.secondSum;
  double const h = d.h;
  double const h2 = h * h;
  Vec nextS(n), base(n), r(n), v(n), rPrevious(n), a(n);
  for (unsigned int i = 0; i < steps; ++i) {
    unsigned int const epoch = d.totalSteps + 1;  // steps from t0 of the epoch produced
    if (epoch <= kStartupSteps) {
      // Still inside the start-up window, whose newest stored epoch is t0 + 4 h.
      output(i, kStoredEpochs - 1 - (kStartupSteps - epoch));
      d.totalSteps = epoch;
      continue;
    }
    double const t = d.t0 + static_cast<double>(epoch) * h;

    // Predictor (row j = 5) from the window ending at the previous epoch.
    for (std::size_t j = 0; j < n; ++j) {
      double const newest = A(j, kWindow - 1);
      nextS(j) = S(j) + s(j) + newest / 2.0;
      base(j) = s(j) + newest / 2.0;
    }
    addWeighted(A, tables::gaussJackson[kPredictorRow], nextS, r);
    addWeighted(A, tables::summedAdams[kPredictorRow], base, v);
    r *= h2;
    v *= h;
    f(r, a, t);

    // Slide the window and correct (row j = 4) until the position settles.
    for (std::size_t j = 0; j < n; ++j) {
      for (int c = 0; c + 1 < kWindow; ++c) A(j, c) = A(j, c + 1);
      A(j, kWindow - 1) = a(j);
    }
    for (int pass = 0; pass < kMaxIterations; ++pass) {
      rPrevious = r;
      for (std::size_t j = 0; j < n; ++j) base(j) = s(j) + (A(j, kWindow - 2) + A(j, kWindow - 1)) / 2.0;
      addWeighted(A, tables::gaussJackson[kCorrectorRow], nextS, r);
      addWeighted(A, tables::summedAdams[kCorrectorRow], base, v);
      r *= h2;
      v *= h;
      f(r, a, t);
      double change = 0.0;
      for (std::size_t j = 0; j < n; ++j) {
        change = std::max(change, std::fabs(r(j) - rPrevious(j)));
        A(j, kWindow - 1) = a(j);
      }
      if (change < kCorrectorTolerance) break;
    }
    for (std::size_t j = 0; j < n; ++j) {
      s(j) += (A(j, kWindow - 2) + A(j, kWindow - 1)) / 2.0;
      S(j) = nextS(j);
      for (int c = 0; c + 1 < kStoredEpochs; ++c) {
        d.positions(j, c) = d.positions(j, c + 1);
        d.velocities(j, c) = d.velocities(j, c + 1);
      }
      d.positions(j, kStoredEpochs - 1) = r(j);
      d.velocities(j, kStoredEpochs - 1) = v(j);
    }
    output(i, kStoredEpochs - 1);
    d.totalSteps = epoch;
  }
  return steps;
}

bool Gj8Integrator::operator==(Gj8Integrator const& other) const {
  Details const& a = *details_;
  Details const& b = *other.details_;
  return a.initialized == b.initialized && a.t0 == b.t0 && a.h == b.h && a.totalSteps == b.totalSteps &&
         a.accelerations == b.accelerations && a.firstSum == b.firstSum && a.secondSum == b.secondSum &&
         a.positions == b.positions && a.velocities == b.velocities;
}

bool Gj8Integrator::serialize(BinaryData& out) const {
  Details const& d = *details_;
  std::size_t const start = out.size();
  unsigned int count = 0;
  bool const ok = support::serialize(d.initialized, out, count) && support::serialize(d.t0, out, count) &&
                  support::serialize(d.h, out, count) && support::serialize(d.totalSteps, out, count) &&
                  support::serialize(d.accelerations, out, count) &&
                  support::serialize(d.firstSum, out, count) && support::serialize(d.secondSum, out, count) &&
                  support::serialize(d.positions, out, count) && support::serialize(d.velocities, out, count);
  if (!ok) out.resize(start);
  return ok;
}

bool Gj8Integrator::deserialize(BinaryData const& in, unsigned int& position) {
  Details d;
  unsigned int index = position;
  bool const ok =
      support::deserialize(in, index, d.initialized) && support::deserialize(in, index, d.t0) &&
      support::deserialize(in, index, d.h) && support::deserialize(in, index, d.totalSteps) &&
      support::deserialize(in, index, d.accelerations) && support::deserialize(in, index, d.firstSum) &&
      support::deserialize(in, index, d.secondSum) && support::deserialize(in, index, d.positions) &&
      support::deserialize(in, index, d.velocities) && d.consistent();
  if (!ok) return false;
  std::swap(*details_, d);
  position = index;
  return true;
}

int gj8(OdeFunction2& f, Mat& R, Mat& V, double t0, unsigned int n, double h) {
  if (!(h > 0.0)) {
    logFault("gj8", "Initial step size is less than or equal to zero.");
    return -1;
  }
  if (n == 0) {
    logFault("gj8", "Number of integration steps has to be a positive number.");
    return -1;
  }
  if (R.size1() == 0 || R.size2() == 0 || V.size1() == 0 || V.size2() == 0) {
    logFault("gj8", "Matrix of dependent variables or its derivative is too small.");
    return -1;
  }
  if (R.size1() != V.size1() || R.size2() != V.size2()) {
    logFault("gj8", "Dimensions of matrix of dependent variables and its derivative do not agree.");
    return -1;
  }
  Gj8Integrator integrator;
  if (integrator.gj8Init(f, column(R, 0), column(V, 0), t0, h) != 0) return -1;
  integrator.gj8Propagate(f, R, V, n);
  return static_cast<int>(n);
}

int gj8(OdeFunction2& f, Vec& r, Vec& v, double t0, unsigned int n, double h) {
  Mat R(r.size(), 1);
  Mat V(v.size(), 1);
  column(R, 0) = r;
  column(V, 0) = v;
  int const result = gj8(f, R, V, t0, n, h);
  if (result > 0) {
    r = column(R, 0);
    v = column(V, 0);
  }
  return result;
}

}  // namespace support
}  // namespace zarn
