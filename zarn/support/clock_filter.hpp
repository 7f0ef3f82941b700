// Kalman filter of one satellite's broadcast clock correction, so that the
// clock can be predicted beyond the validity of the last broadcast.
//
// The state is a plain polynomial in time: GLONASS (offset s, drift s/s)
// with x(t + dt) = (a0 - a1 dt, a1), the sign of the GLONASS frequency-offset
// convention; GPS and BeiDou (offset, drift, quadratic s/s^2) with
// a0 + a1 dt + a2 dt^2 (not dt^2 / 2). Only the offset is measured; the drift
// of each new broadcast value serves the jump test. A value inconsistent with
// the prediction is taken for a clock jump: the first is skipped, a second one
// in a row restarts the filter.
#ifndef ZARN_SUPPORT_CLOCK_FILTER_HPP
#define ZARN_SUPPORT_CLOCK_FILTER_HPP

#include "zarn/core/records.hpp"
#include "zarn/support/export.hpp"
#include "zarn/support/math.hpp"

namespace zarn {
namespace support {

class ZARN_EXPORT ClockFilter {
 public:
  // Not initialised; every field zero or empty.
  ClockFilter();
  // As initialize().
  ClockFilter(core::GnssType gnss, double t, Vec const& clock, bool converged);
  ClockFilter(ClockFilter const& other);
  ClockFilter& operator=(ClockFilter const& other);
  ~ClockFilter();

  // (Re)starts at GPS time t (s) from the broadcast clock vector `clock`
  // (GLONASS 2 elements, GPS and BeiDou 3), with the initial covariance of a
  // converged (tight drift and quadratic terms) or a fresh filter. Aborts for
  // another constellation or a clock vector of another size.
  void initialize(core::GnssType gnss, double t, Vec const& clock, bool converged);
  // One predict-check-update cycle with the broadcast clock vector valid at
  // t (s; any sign of t - updateTime). Aborts before initialize().
  void update(double t, Vec const& clock);
  // The state propagated to t without process noise; the filter is not
  // changed. Aborts before initialize().
  Vec predict(double t) const;

  Vec getState() const;
  Mat getCovariance() const;
  double getUpdateTime() const;
  double getInitTime() const;
  int updateCount() const;
  core::GnssType gnss() const;
  bool initialized() const;
  bool converged() const;
  bool jumpDetected() const;

  // Appends gnss (4 bytes), initTime, updateTime, state, covariance, the last
  // measurement, the jump, converged and initialised flags (a byte each) and
  // the update count (4 bytes). On failure removes what it appended.
  bool serialize(BinaryData& out) const;
  // Reads that form at `position`. The filter changes, and `position`
  // advances, only when every field was read and the sizes agree with the
  // constellation; otherwise returns false.
  bool deserialize(BinaryData const& in, unsigned int& position);

  // Equal constellation, state, covariance, measurement, flags and update
  // count, and this filter's updateTime equal to both the other's initTime and
  // updateTime (so a filter that has been updated is not equal to its copy).
  bool operator==(ClockFilter const& other) const;
  bool operator!=(ClockFilter const& other) const { return !(*this == other); }

 private:
  struct Details;
  Details* details_;
};

}  // namespace support
}  // namespace zarn

#endif
