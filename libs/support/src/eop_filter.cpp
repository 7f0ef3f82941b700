#include "zarn/support/eop_filter.hpp"

#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <utility>

#include "zarn/support/log.hpp"
#include "zarn/support/serialization.hpp"

namespace zarn {
namespace support {

namespace {

constexpr std::size_t kStates = 6;
// Rotation of the annual pole circle, rad/s: -2 pi / (365.25 * 86400 s).
constexpr double kAnnualRate = -1.991021277657232e-07;
// Below this step (s) no time update is made.
constexpr double kMinimumStep = 1e-09;
// Process noise added to the diagonal per second of elapsed time.
constexpr double kProcessNoise[kStates] = {1e-09, 1e-09, 1e-12, 1e-12, 1e-09, 1e-09};
// Inflation of the supplied measurement covariance.
constexpr double kMeasurementNoiseFactor = 10.0;
// Skipped inputs before the filter restarts.
constexpr std::int32_t kFailureLimit = 3;
// Mean pole at start, arcseconds.
constexpr double kMeanPoleX = 0.0741;
constexpr double kMeanPoleY = 0.334;
// Initial covariance: a small common correlation, looser pole and mean pole.
constexpr double kInitialCorrelation = 1e-16;
constexpr double kInitialPoleVariance = 1.0000000001e-06;
constexpr double kInitialRateVariance = 1.0001e-12;

constexpr char kTag[] = "EopFilter";

}  // namespace

struct EopFilter::Details {
  Vec state = boost::numeric::ublas::zero_vector<double>(kStates);
  Mat covariance = boost::numeric::ublas::zero_matrix<double>(kStates, kStates);
  double time = 0.0;
  Eop output;
  bool initialized = false;
  std::int32_t failures = 0;
};

EopFilter::EopFilter() : details_(new Details) {}

EopFilter::EopFilter(EopFilter const& other) : details_(new Details(*other.details_)) {}

EopFilter& EopFilter::operator=(EopFilter const& other) {
  if (this != &other) {
    Details* copy = new Details(*other.details_);
    delete details_;
    details_ = copy;
  }
  return *this;
}

EopFilter::~EopFilter() {
  delete details_;
}

void EopFilter::initialize(Eop const& eop, double t) {
  Details& d = *details_;
  d.state(0) = eop.xp;
  d.state(1) = eop.yp;
  d.state(2) = 0.0;
  d.state(3) = 0.0;
  d.state(4) = kMeanPoleX;
  d.state(5) = kMeanPoleY;
  d.covariance = boost::numeric::ublas::scalar_matrix<double>(kStates, kStates, kInitialCorrelation);
  for (std::size_t i : {0, 1, 4, 5}) d.covariance(i, i) = kInitialPoleVariance;
  for (std::size_t i : {2, 3}) d.covariance(i, i) = kInitialRateVariance;
  d.time = t;
  d.output = eop;
  d.initialized = true;
  d.failures = 0;
}

Eop const& EopFilter::operator()(Eop const& eop, Mat R, double t) {
  namespace ublas = boost::numeric::ublas;
  Details& d = *details_;
  if (R.size1() != 2 || R.size2() != 2)
    ZARN_THROW(std::invalid_argument("Covariance matrix is not a 2-by-2 matrix."));
  if (t < d.time) ZARN_THROW(std::invalid_argument("Time is in the past."));
  R *= kMeasurementNoiseFactor;

  double const dt = t - d.time;
  d.time = t;
  if (dt >= kMinimumStep) {
    double const a = dt * kAnnualRate;
    double const c = std::cos(a);
    double const s = std::sin(a);
    Mat f = ublas::zero_matrix<double>(kStates, kStates);
    double const rot[2][2] = {{c, -s}, {s, c}};
    for (std::size_t i = 0; i < 2; ++i)
      for (std::size_t j = 0; j < 2; ++j) {
        f(i, j) = rot[i][j];
        // The angle, not the step, scales the rate terms.
        f(i, j + 2) = a * rot[i][j];
        f(i, j + 4) = -rot[i][j];
        f(i + 2, j + 2) = rot[i][j];
      }
    f(0, 4) += 1.0;
    f(1, 5) += 1.0;
    f(4, 4) = f(5, 5) = 1.0;
    Vec const x = ublas::prod(f, d.state);
    d.state = x;
    Mat const fp = ublas::prod(f, d.covariance);
    d.covariance = ublas::prod(fp, ublas::trans(f));
    for (std::size_t i = 0; i < kStates; ++i) d.covariance(i, i) += dt * kProcessNoise[i];
  }

  // H picks (xp, yp): H P H^T is the top-left block, P H^T the first two columns.
  Mat const pht = ublas::subrange(d.covariance, 0, kStates, 0, 2);
  Mat sMat = ublas::subrange(d.covariance, 0, 2, 0, 2);
  sMat += R;
  double const y[2] = {eop.xp - d.state(0), eop.yp - d.state(1)};
  // mrdivide aborts on a singular divisor; a singular or non-finite innovation
  // covariance is bad input here, skipped like a failed division.
  double const det = determinant(sMat);
  Mat k;
  if (std::isfinite(det) && det != 0.0 && mrdivide(pht, sMat, k) == 0) {
    if (d.failures > 0) d.failures = 0;
    for (std::size_t i = 0; i < kStates; ++i) d.state(i) += k(i, 0) * y[0] + k(i, 1) * y[1];
    Mat const hp = ublas::subrange(d.covariance, 0, 2, 0, kStates);
    Mat const khp = ublas::prod(k, hp);
    d.covariance -= khp;
    d.output.xp = d.state(0);
    d.output.yp = d.state(1);
  } else if (d.failures < kFailureLimit) {
    log::print(log::ERROR, kTag, "operator(): Skipping input due to matrix-division failure.");
    d.failures += 1;
  } else {
    log::print(log::ERROR, kTag,
               "operator(): Reinitializing due to too many consecutive matrix-division failures.");
    initialize(eop, t);
  }
  return d.output;
}

Eop const& EopFilter::output() const {
  return details_->output;
}
double EopFilter::time() const {
  return details_->time;
}
Mat const& EopFilter::covariances() const {
  return details_->covariance;
}
Vec const& EopFilter::state() const {
  return details_->state;
}
bool EopFilter::initialized() const {
  return details_->initialized;
}

bool EopFilter::serialize(BinaryData& out) const {
  Details const& d = *details_;
  std::size_t const start = out.size();
  unsigned int count = 0;
  bool const ok = support::serialize(d.state, out, count) && support::serialize(d.covariance, out, count) &&
                  support::serialize(d.time, out, count) && support::serialize(d.output, out, count) &&
                  support::serialize(d.initialized, out, count) && support::serialize(d.failures, out, count);
  if (!ok) out.resize(start);
  return ok;
}

bool EopFilter::deserialize(BinaryData const& in, unsigned int& position) {
  Details d;
  unsigned int index = position;
  bool const ok = support::deserialize(in, index, d.state) && support::deserialize(in, index, d.covariance) &&
                  support::deserialize(in, index, d.time) && support::deserialize(in, index, d.output) &&
                  support::deserialize(in, index, d.initialized) &&
                  support::deserialize(in, index, d.failures) && d.state.size() == kStates &&
                  d.covariance.size1() == kStates && d.covariance.size2() == kStates && d.time >= 0.0;
  if (!ok) return false;
  std::swap(*details_, d);
  position = index;
  return true;
}

bool EopFilter::operator==(EopFilter const& other) const {
  Details const& a = *details_;
  Details const& b = *other.details_;
  return a.state == b.state && a.covariance == b.covariance && a.time == b.time && a.output == b.output &&
         a.initialized == b.initialized && a.failures == b.failures;
}

}  // namespace support
}  // namespace zarn
