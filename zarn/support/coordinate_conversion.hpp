// Reference frames: axis rotations, local orbital frames, the PZ-90.02 shift
// and the terrestrial-to-inertial transformation.
#ifndef ZARN_SUPPORT_COORDINATE_CONVERSION_HPP
#define ZARN_SUPPORT_COORDINATE_CONVERSION_HPP

#include "zarn/support/export.hpp"
#include "zarn/support/math.hpp"

namespace zarn {
namespace support {

// Earth orientation: polar-motion angles xp, yp in radians (IERS sense).
struct Eop {
  double xp = 0.0;
  double yp = 0.0;
};

inline bool operator==(Eop const& a, Eop const& b) { return a.xp == b.xp && a.yp == b.yp; }

// Earth orientation as the force model holds it: the pole and the 3x3
// polar-motion matrix built from it.
struct EopInfo {
  Eop eop;
  Mat matrix;
};

// The quasi-inertial integration frame: its reference epoch (GPS seconds),
// a second time value, and the 3x3 matrix that turns Sun and Moon positions
// into it.
struct InertialFrameInfo {
  double tRef = 0.0;
  double t1 = 0.0;
  Mat matrix;
};

inline bool operator==(EopInfo const& a, EopInfo const& b) { return a.eop == b.eop && a.matrix == b.matrix; }
inline bool operator==(InertialFrameInfo const& a, InertialFrameInfo const& b) {
  return a.tRef == b.tRef && a.t1 == b.t1 && a.matrix == b.matrix;
}

}  // namespace support
}  // namespace zarn

#endif
