// Fixed-size 3-vector and 3x3 helpers shared by the force-model terms: the
// per-evaluation path works on plain arrays so that it never allocates.
#ifndef ZARN_SUPPORT_FORCE_MODEL_VECTOR3_HPP
#define ZARN_SUPPORT_FORCE_MODEL_VECTOR3_HPP

#include <cmath>

namespace zarn {
namespace support {
namespace forces {

using Mat3 = double[3][3];

inline double dot3(double const a[3], double const b[3]) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

inline double norm3(double const a[3]) {
  return std::sqrt(dot3(a, a));
}

}  // namespace forces
}  // namespace support
}  // namespace zarn

#endif
