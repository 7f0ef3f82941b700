#include "zarn/support/clock_filter.hpp"

#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <utility>

#include "zarn/support/broadcast_interface.hpp"
#include "zarn/support/log.hpp"
#include "zarn/support/serialization.hpp"

namespace zarn {
namespace support {

namespace {

// Measurement variances of the broadcast offset, s^2.
constexpr double kGpsMeasurementVariance = 1e-15;
constexpr double kGlonassMeasurementVariance = 1e-16;

// Process-noise spectral densities: offset (s^2/s), drift (1/s), quadratic term (1/s^3).
struct Noise {
  double q1, q2, q3;
};
constexpr Noise kGpsNoise{1e-24, 1e-33, 5e-47};
constexpr Noise kBeidouNoise{1e-24, 1e-31, 5e-45};
constexpr Noise kGlonassNoise{1e-20, 1e-32, 0.0};

// Round speed of light for the convergence test, m/s.
constexpr double kRoundSpeedOfLight = 300000000.0;

// Jump tests: multiples of the predicted standard deviation.
constexpr double kGpsJumpSigmas = 4.0;
constexpr double kOtherJumpSigmas = 3.0;

// Convergence limits.
constexpr double kGlonassDriftSigmaLimit = 3e-12;  // s/s
constexpr double kGlonassResidualLimit = 5.0;      // m
constexpr double kBeidouQuadSigmaLimit = 5e-18;    // s/s^2
constexpr double kBeidouDriftSigmaLimit = 5e-13;   // s/s
constexpr double kBeidouResidualLimit = 5.0;       // m
constexpr double kGpsQuadSigmaLimit = 5e-17;       // s/s^2
constexpr double kGpsDriftSigmaLimit = 1e-13;      // s/s
constexpr double kGpsResidualLimit = 10.0;         // m

// Covariance of a converged GPS clock, taken from a long filter run.
constexpr double kGpsConvergedCovariance[3][3] = {
    {3.657551049519759e-17, 9.414572818058304e-23, 1.316888712893501e-29},
    {9.414572818058304e-23, 4.649713054683582e-28, 6.87926406830183e-35},
    {1.316888712893501e-29, 6.87926406830183e-35, 8.927384536018752e-41}};

std::size_t stateSize(core::GnssType gnss) {
  return gnss == core::GLONASS ? 2 : 3;
}

bool supported(core::GnssType gnss) {
  return gnss == core::GPS || gnss == core::GLONASS || gnss == core::BEIDOU;
}

Mat transition(core::GnssType gnss, double dt) {
  if (gnss == core::GLONASS) {
    Mat f(2, 2);
    f(0, 0) = 1.0, f(0, 1) = -dt;
    f(1, 0) = 0.0, f(1, 1) = 1.0;
    return f;
  }
  Mat f(3, 3);
  f(0, 0) = 1.0, f(0, 1) = dt, f(0, 2) = dt * dt;
  f(1, 0) = 0.0, f(1, 1) = 1.0, f(1, 2) = 2.0 * dt;
  f(2, 0) = 0.0, f(2, 1) = 0.0, f(2, 2) = 1.0;
  return f;
}

Mat processNoise(core::GnssType gnss, double dt) {
  double const dt2 = dt * dt;
  double const dt3 = dt2 * dt;
  if (gnss == core::GLONASS) {
    Noise const& n = kGlonassNoise;
    Mat q(2, 2);
    q(0, 0) = n.q2 * dt3 / 3.0 + n.q1 * dt;
    q(0, 1) = q(1, 0) = n.q2 * dt2 * 0.5;
    q(1, 1) = n.q2 * dt;
    return q;
  }
  Noise const& n = gnss == core::BEIDOU ? kBeidouNoise : kGpsNoise;
  double const dt4 = dt3 * dt;
  double const dt5 = dt4 * dt;
  Mat q(3, 3);
  q(0, 0) = n.q2 * dt3 / 3.0 + n.q1 * dt + n.q3 * dt5 / 80.0;
  q(0, 1) = q(1, 0) = n.q3 * dt4 * 0.03125 + n.q2 * dt2 * 0.5;
  q(0, 2) = q(2, 0) = n.q3 * dt3 / 48.0;
  q(1, 1) = n.q3 * dt3 / 12.0 + n.q2 * dt;
  q(1, 2) = q(2, 1) = n.q3 * dt2 * 0.0625;
  q(2, 2) = n.q3 * dt * 0.0625;
  return q;
}

Mat initialCovariance(core::GnssType gnss, bool converged) {
  std::size_t const n = stateSize(gnss);
  Mat p = boost::numeric::ublas::zero_matrix<double>(n, n);
  if (gnss == core::GLONASS) {
    p(0, 0) = 1e-10;
    p(1, 1) = converged ? 1e-26 : 1e-20;
  } else if (gnss == core::GPS && converged) {
    for (std::size_t i = 0; i < 3; ++i)
      for (std::size_t j = 0; j < 3; ++j) p(i, j) = kGpsConvergedCovariance[i][j];
  } else {
    p(0, 0) = 1e-8;
    p(1, 1) = converged ? 1e-28 : 1e-24;
    p(2, 2) = converged ? 2.5e-41 : 2.5e-35;
  }
  return p;
}

}  // namespace

struct ClockFilter::Details {
  core::GnssType gnss = static_cast<core::GnssType>(0);
  double initTime = 0.0;
  double updateTime = 0.0;
  Vec state;
  Mat covariance;
  Vec measurement;
  bool jumpDetected = false;
  bool converged = false;
  bool initialized = false;
  std::int32_t updateCount = 0;

  // Sizes that update() and predict() rely on.
  bool consistent() const {
    if (!initialized) return true;
    if (!supported(gnss)) return false;
    std::size_t const n = stateSize(gnss);
    return state.size() == n && measurement.size() == n && covariance.size1() == n && covariance.size2() == n;
  }
};

ClockFilter::ClockFilter() : details_(new Details) {}

ClockFilter::ClockFilter(core::GnssType gnss, double t, Vec const& clock, bool converged)
    : details_(new Details) {
  initialize(gnss, t, clock, converged);
}

ClockFilter::ClockFilter(ClockFilter const& other) : details_(new Details(*other.details_)) {}

ClockFilter& ClockFilter::operator=(ClockFilter const& other) {
  if (this != &other) {
    Details* copy = new Details(*other.details_);
    delete details_;
    details_ = copy;
  }
  return *this;
}

ClockFilter::~ClockFilter() {
  delete details_;
}

void ClockFilter::initialize(core::GnssType gnss, double t, Vec const& clock, bool converged) {
  if (!supported(gnss)) ZARN_THROW(std::invalid_argument("Unsupported GNSS."));
  if (clock.size() != stateSize(gnss)) ZARN_THROW(std::invalid_argument("Clock vector has the wrong size."));
  Details& d = *details_;
  d.gnss = gnss;
  d.covariance = initialCovariance(gnss, converged);
  d.initTime = d.updateTime = t;
  d.state = clock;
  d.measurement = clock;
  d.jumpDetected = false;
  d.converged = converged;
  d.initialized = true;
  d.updateCount = 0;
}

void ClockFilter::update(double t, Vec const& clock) {
  Details& d = *details_;
  if (!d.initialized) ZARN_THROW(std::runtime_error("Clock filter is uninitialized."));
  if (clock.size() != stateSize(d.gnss))
    ZARN_THROW(std::invalid_argument("Clock vector has the wrong size."));
  namespace ublas = boost::numeric::ublas;
  double const dt = t - d.updateTime;
  double const z = clock(0);

  Mat const f = transition(d.gnss, dt);
  Vec x = ublas::prod(f, d.state);
  Mat const fp = ublas::prod(f, d.covariance);
  Mat p = ublas::prod(fp, ublas::trans(f));
  p += processNoise(d.gnss, dt);
  d.state = x;
  d.covariance = p;
  d.updateTime = t;
  d.measurement = clock;
  d.updateCount += 1;

  if (d.converged || d.jumpDetected) {
    double const offsetError = std::fabs(x(0) - clock(0));
    bool consistent = true;
    if (d.gnss == core::GLONASS) {
      consistent = offsetError <= kOtherJumpSigmas * std::sqrt(p(0, 0));
    } else {
      double const driftError = std::fabs(x(1) - clock(1));
      double const sigmas = d.gnss == core::GPS ? kGpsJumpSigmas : kOtherJumpSigmas;
      consistent = offsetError <= sigmas * std::sqrt(p(0, 0)) && driftError <= sigmas * std::sqrt(p(1, 1));
      if (d.gnss == core::GPS)
        consistent = consistent && driftError <= broadcast::kGpsAf1.lsb;  // one count of af1
    }
    if (!consistent) {
      if (!d.jumpDetected) {
        d.jumpDetected = true;
        d.converged = false;
      } else {
        initialize(d.gnss, t, clock, false);
      }
      return;
    }
  }

  // Scalar measurement of the offset: h = (1, 0[, 0]).
  d.jumpDetected = false;
  std::size_t const n = x.size();
  double const r = d.gnss == core::GLONASS ? kGlonassMeasurementVariance : kGpsMeasurementVariance;
  double const innovation = z - x(0);
  double const s = p(0, 0) + r;
  Vec k(n);
  for (std::size_t i = 0; i < n; ++i) k(i) = p(i, 0) / s;
  for (std::size_t i = 0; i < n; ++i) x(i) += k(i) * innovation;
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j < n; ++j) p(i, j) -= k(i) * s * k(j);
  d.state = x;
  d.covariance = p;

  double const residual = std::fabs(x(0) - clock(0)) * kRoundSpeedOfLight;
  if (d.gnss == core::GLONASS) {
    d.converged = std::sqrt(p(1, 1)) <= kGlonassDriftSigmaLimit && residual <= kGlonassResidualLimit;
  } else if (d.gnss == core::BEIDOU) {
    d.converged = std::sqrt(p(2, 2)) <= kBeidouQuadSigmaLimit &&
                  std::sqrt(p(1, 1)) <= kBeidouDriftSigmaLimit && residual <= kBeidouResidualLimit;
  } else {
    d.converged = std::sqrt(p(2, 2)) <= kGpsQuadSigmaLimit && std::sqrt(p(1, 1)) <= kGpsDriftSigmaLimit &&
                  residual <= kGpsResidualLimit;
  }
}

Vec ClockFilter::predict(double t) const {
  Details const& d = *details_;
  if (!d.initialized) ZARN_THROW(std::runtime_error("Clock filter is uninitialized."));
  return boost::numeric::ublas::prod(transition(d.gnss, t - d.updateTime), d.state);
}

Vec ClockFilter::getState() const {
  return details_->state;
}
Mat ClockFilter::getCovariance() const {
  return details_->covariance;
}
double ClockFilter::getUpdateTime() const {
  return details_->updateTime;
}
double ClockFilter::getInitTime() const {
  return details_->initTime;
}
int ClockFilter::updateCount() const {
  return details_->updateCount;
}
core::GnssType ClockFilter::gnss() const {
  return details_->gnss;
}
bool ClockFilter::initialized() const {
  return details_->initialized;
}
bool ClockFilter::converged() const {
  return details_->converged;
}
bool ClockFilter::jumpDetected() const {
  return details_->jumpDetected;
}

bool ClockFilter::serialize(BinaryData& out) const {
  Details const& d = *details_;
  std::size_t const start = out.size();
  unsigned int count = 0;
  bool const ok =
      support::serialize(d.gnss, out, count) && support::serialize(d.initTime, out, count) &&
      support::serialize(d.updateTime, out, count) && support::serialize(d.state, out, count) &&
      support::serialize(d.covariance, out, count) && support::serialize(d.measurement, out, count) &&
      support::serialize(d.jumpDetected, out, count) && support::serialize(d.converged, out, count) &&
      support::serialize(d.initialized, out, count) && support::serialize(d.updateCount, out, count);
  if (!ok) out.resize(start);
  return ok;
}

bool ClockFilter::deserialize(BinaryData const& in, unsigned int& position) {
  Details d;
  unsigned int index = position;
  bool const ok =
      support::deserialize(in, index, d.gnss) && support::deserialize(in, index, d.initTime) &&
      support::deserialize(in, index, d.updateTime) && support::deserialize(in, index, d.state) &&
      support::deserialize(in, index, d.covariance) && support::deserialize(in, index, d.measurement) &&
      support::deserialize(in, index, d.jumpDetected) && support::deserialize(in, index, d.converged) &&
      support::deserialize(in, index, d.initialized) && support::deserialize(in, index, d.updateCount) &&
      d.consistent();
  if (!ok) return false;
  std::swap(*details_, d);
  position = index;
  return true;
}

bool ClockFilter::operator==(ClockFilter const& other) const {
  Details const& a = *details_;
  Details const& b = *other.details_;
  return a.gnss == b.gnss && a.updateTime == b.initTime && a.updateTime == b.updateTime &&
         a.state == b.state && a.covariance == b.covariance && a.measurement == b.measurement &&
         a.jumpDetected == b.jumpDetected && a.converged == b.converged && a.initialized == b.initialized &&
         a.updateCount == b.updateCount;
}

}  // namespace support
}  // namespace zarn
