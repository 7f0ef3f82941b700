// The Earth's gravity field: Cunningham functions and the acceleration and
// gradient of the unnormalised expansion to degree and order 16.
#ifndef ZARN_SUPPORT_FORCE_MODEL_GEOPOTENTIAL_HPP
#define ZARN_SUPPORT_FORCE_MODEL_GEOPOTENTIAL_HPP

#include "force_model/vector3.hpp"
#include "zarn/support/math.hpp"

namespace zarn {
namespace support {
namespace forces {

// Cunningham functions V_jk, W_jk for 0 <= k <= min(m, j), j <= n at the
// Earth-fixed position p (m). V and W must hold (n+1)x(m+1) and be zero.
void cunninghamFunctions(double const p[3], int n, int m, Mat& V, Mat& W);

// Gravity acceleration acc (m/s^2, Earth-fixed axes) at the Earth-fixed
// position p (m) of the field truncated at degree and order n (taken within
// 0..16); when `gradient` is not null, also the gravity gradient (1/s^2).
void gravity(double const p[3], int n, double acc[3], Mat3* gradient);

}  // namespace forces
}  // namespace support
}  // namespace zarn

#endif
