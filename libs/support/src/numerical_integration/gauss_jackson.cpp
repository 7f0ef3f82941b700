#include "zarn/support/numerical_integration.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

#include "numerical_integration/one_step.hpp"
#include "tables/gauss_jackson_table.hpp"
#include "zarn/support/serialization.hpp"

namespace zarn {
namespace support {

using integration::logFault;

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

// Eighth-order Gauss-Jackson in the ordinate form of Berry and Healy (2004),
// J. Astronaut. Sci. 52(3), 331-357; the tolerances and the iteration cap
// are our tuning for orbits stepped in minutes.
constexpr int kWindow = 9;        // accelerations a_-4 .. a_4
constexpr int kStoredEpochs = 8;  // positions and velocities kept
constexpr int kCentre = 4;        // column of the start-up epoch t0
constexpr int kPredictorRow = 9;  // row j = 5 of the tables
constexpr int kCorrectorRow = 8;  // row j = 4
constexpr int kMaxIterations = 20;
constexpr double kStartupTolerance = 1e-12;   // m/s^2, row-sum norm of the acceleration change
constexpr double kCorrectorTolerance = 1e-5;  // m, largest change of a corrected position
constexpr unsigned int kStartupSteps = 4;     // epochs after t0 known from the start-up

bool equal(Vec const& a, Vec const& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i)
    if (!(a(i) == b(i))) return false;
  return true;
}

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
  Mat K(2 * n, integration::kFehlbergStages);
  Vec state(2 * n), start(2 * n), arg(2 * n), dx(2 * n);
  integration::TwoBody twoBody;
  for (std::size_t i = 0; i < n; ++i) {
    start(i) = r0(i);
    start(n + i) = v0(i);
  }
  for (int direction : {1, -1}) {
    double const step = direction * h;
    state = start;
    for (int k = 1; k <= kCentre; ++k) {
      integration::fehlbergStep(twoBody, state, t0 + (k - 1) * step, step, K, arg, dx);
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
         a.accelerations == b.accelerations && equal(a.firstSum, b.firstSum) &&
         equal(a.secondSum, b.secondSum) && a.positions == b.positions && a.velocities == b.velocities;
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
