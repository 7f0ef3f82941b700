#include "zarn/support/gamma_estimator.hpp"

#include <utility>

#include "zarn/support/serialization.hpp"

namespace zarn {
namespace support {

namespace {

constexpr double anchorExpiry = 7776000.0;   // s, 90 days
constexpr double anchorSpacing = 1209600.0;  // s, 14 days

struct Anchor {
  double time = 0.0;  // s
  double tau = 0.0;   // s
};

}  // namespace

struct GammaEstimator::Details {
  Anchor anchorA;
  Anchor anchorB;
  double gamma = 0.0;
  bool initialized = false;
};

GammaEstimator::GammaEstimator() : details_(new Details) {}

GammaEstimator::GammaEstimator(double tau, double gamma, double t) : details_(new Details) {
  initialize(tau, gamma, t);
}

GammaEstimator::~GammaEstimator() {
  delete details_;
}

void GammaEstimator::initialize(double tau, double gamma, double t) {
  details_->anchorA = Anchor{t, tau};
  details_->anchorB = Anchor{t, tau};
  details_->gamma = gamma;
  details_->initialized = true;
}

double GammaEstimator::update(double tau, double gamma, double t) {
  Details& d = *details_;
  // The roles follow the anchor times as they stand; on equal times A is
  // the later one.
  auto later = [&d]() -> Anchor& { return d.anchorA.time >= d.anchorB.time ? d.anchorA : d.anchorB; };
  auto older = [&d]() -> Anchor& { return d.anchorA.time >= d.anchorB.time ? d.anchorB : d.anchorA; };
  if (t - later().time <= 0.0) {
    d.gamma = gamma;
    return d.gamma;
  }
  if (t - d.anchorA.time > anchorExpiry) d.anchorA = Anchor{t, tau};
  if (t - d.anchorB.time > anchorExpiry) d.anchorB = Anchor{t, tau};
  if (t - later().time >= anchorSpacing) older() = Anchor{t, tau};
  // The sign matches predictTau: tau falls by gamma per second.
  Anchor const& o = older();
  d.gamma = t - o.time >= anchorSpacing ? -(tau - o.tau) / (t - o.time) : gamma;
  return d.gamma;
}

double GammaEstimator::predictTau(double t, double tauRef, double tRef) const {
  return tauRef - (t - tRef) * details_->gamma;
}

bool GammaEstimator::initialized() const {
  return details_->initialized;
}

bool GammaEstimator::serialize(BinaryData& out) const {
  Details const& d = *details_;
  std::size_t const start = out.size();
  unsigned int count = 0;
  bool const ok =
      support::serialize(d.anchorA.time, out, count) && support::serialize(d.anchorA.tau, out, count) &&
      support::serialize(d.anchorB.time, out, count) && support::serialize(d.anchorB.tau, out, count) &&
      support::serialize(d.gamma, out, count) && support::serialize(d.initialized, out, count);
  if (!ok) out.resize(start);
  return ok;
}

bool GammaEstimator::deserialize(BinaryData const& in, unsigned int& position) {
  Details* fresh = new Details;
  unsigned int index = position;
  bool const ok = support::deserialize(in, index, fresh->anchorA.time) &&
                  support::deserialize(in, index, fresh->anchorA.tau) &&
                  support::deserialize(in, index, fresh->anchorB.time) &&
                  support::deserialize(in, index, fresh->anchorB.tau) &&
                  support::deserialize(in, index, fresh->gamma) &&
                  support::deserialize(in, index, fresh->initialized);
  if (ok) {
    std::swap(details_, fresh);
    position = index;
  }
  delete fresh;
  return ok;
}

bool GammaEstimator::operator==(GammaEstimator const& other) const {
  Details const& a = *details_;
  Details const& b = *other.details_;
  return a.anchorA.time == b.anchorA.time && a.anchorA.tau == b.anchorA.tau &&
         a.anchorB.time == b.anchorB.time && a.anchorB.tau == b.anchorB.tau && a.gamma == b.gamma &&
         a.initialized == b.initialized;
}

}  // namespace support
}  // namespace zarn
