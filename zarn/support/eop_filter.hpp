// Kalman filter of successive pole-coordinate estimates.
//
// Six states x = (xp, yp, r1, r2, mx, my): the pole moves on an annual circle
// (period 365.25 days) around a slowly drifting mean pole (mx, my); r1, r2
// are rate-like terms that the rotation carries along. The filter works in
// whatever unit the caller's values use; the default mean pole of
// initialize() is in arcseconds.
#ifndef ZARN_SUPPORT_EOP_FILTER_HPP
#define ZARN_SUPPORT_EOP_FILTER_HPP

#include "zarn/core/records.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/export.hpp"
#include "zarn/support/math.hpp"

namespace zarn {
namespace support {

class ZARN_EXPORT EopFilter {
 public:
  // Not initialised: zero state and covariance, time 0.
  EopFilter();
  EopFilter(EopFilter const& other);
  EopFilter& operator=(EopFilter const& other);
  ~EopFilter();

  // Starts at GPS time t (s) from the pole `eop`, mean pole (0.0741, 0.334).
  void initialize(Eop const& eop, double t);
  // One time update to t and one measurement update with the pole estimate
  // `eop` and its 2x2 covariance R (inflated tenfold here; the caller's matrix
  // is not changed). t must not be earlier than time(); R must be 2x2, else
  // the process aborts. A singular innovation covariance skips the input
  // (logged under "EopFilter"); the fourth in a row restarts the filter from
  // it. Returns the filtered pole.
  Eop const& operator()(Eop const& eop, Mat R, double t);

  Eop const& output() const;
  double time() const;
  Mat const& covariances() const;
  Vec const& state() const;
  bool initialized() const;

  // Appends state, covariance, time, output, the initialised flag (1 byte)
  // and the failure count (4 bytes). On failure removes what it appended.
  bool serialize(BinaryData& out) const;
  // Reads that form at `position`; accepted only with a 6-element state, a
  // 6x6 covariance and a non-negative time, otherwise the filter and
  // `position` are unchanged and the result is false.
  bool deserialize(BinaryData const& in, unsigned int& position);

  // Exact equality of every field.
  bool operator==(EopFilter const& other) const;
  bool operator!=(EopFilter const& other) const { return !(*this == other); }

 private:
  struct Details;
  Details* details_;
};

}  // namespace support
}  // namespace zarn

#endif
