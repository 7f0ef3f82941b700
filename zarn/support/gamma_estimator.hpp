// Relative frequency offset (gamma) of a GLONASS satellite clock from the
// broadcast clock offsets tau seen over weeks.
#ifndef ZARN_SUPPORT_GAMMA_ESTIMATOR_HPP
#define ZARN_SUPPORT_GAMMA_ESTIMATOR_HPP

#include "zarn/core/records.hpp"
#include "zarn/support/export.hpp"

namespace zarn {
namespace support {

// Keeps two anchors (time, tau) and takes gamma as the slope from the older
// anchor to the newest value once they lie at least 14 days apart; before
// that, and after a gap of more than 90 days, the broadcast gamma. Times are
// seconds on one continuous scale (GPS seconds as a rule), tau in seconds;
// gamma is dimensionless with the sign of tau(t) = tauRef - (t - tRef) gamma.
class ZARN_EXPORT GammaEstimator {
 public:
  // Anchors at (0, 0), gamma 0, not initialised.
  GammaEstimator();
  // As initialize.
  GammaEstimator(double tau, double gamma, double t);
  ~GammaEstimator();
  GammaEstimator(GammaEstimator const&) = delete;
  GammaEstimator& operator=(GammaEstimator const&) = delete;

  // Both anchors at (t, tau), gamma as given.
  void initialize(double tau, double gamma, double t);
  // Takes in the broadcast tau and gamma valid at t and returns the gamma now
  // held. A value not later than the newest anchor only takes over the
  // broadcast gamma. An anchor older than 90 days is replaced by (t, tau); the
  // older anchor is replaced when t lies 14 days or more after the newer one.
  // Works on a default-constructed estimator too (anchors at time 0).
  double update(double tau, double gamma, double t);
  // tauRef - (t - tRef) gamma (s).
  double predictTau(double t, double tauRef, double tRef) const;
  bool initialized() const;

  // Appends anchor A (time, tau), anchor B (time, tau) and gamma as doubles,
  // then the initialised flag as one byte. On failure removes what it
  // appended and returns false.
  bool serialize(BinaryData& out) const;
  // Reads that form at `position`; the estimator changes, and position
  // advances, only when all of it was read.
  bool deserialize(BinaryData const& in, unsigned int& position);
  // All five doubles and the flag equal.
  bool operator==(GammaEstimator const& other) const;
  bool operator!=(GammaEstimator const& other) const { return !(*this == other); }

 private:
  struct Details;
  Details* details_;
};

}  // namespace support
}  // namespace zarn

#endif
