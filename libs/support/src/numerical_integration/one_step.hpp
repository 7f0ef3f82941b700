// What the Gauss-Jackson integrator takes from the one-step integrators: a
// fixed Runge-Kutta-Fehlberg 7(8) step and the two-body start-up force.
#ifndef ZARN_SUPPORT_NUMERICAL_INTEGRATION_ONE_STEP_HPP
#define ZARN_SUPPORT_NUMERICAL_INTEGRATION_ONE_STEP_HPP

#include "zarn/support/log.hpp"
#include "zarn/support/math.hpp"
#include "zarn/support/numerical_integration.hpp"

namespace zarn {
namespace support {
namespace integration {

constexpr int kFehlbergStages = 13;

// Advances `state` from t by `step` with the eighth-order solution of one
// Fehlberg 7(8) step, without error control. K (n x 13), arg and dx (n) are
// work areas.
void fehlbergStep(OdeFunction& f, Vec& state, double t, double step, Mat& K, Vec& arg, Vec& dx);

// Two-body motion about the Earth, x = (r, v) of 6 elements (m, m/s):
// dx = (v, -GM r / |r|^3), zero acceleration inside the Earth. Aborts on any
// other size.
class TwoBody : public OdeFunction {
 public:
  void operator()(Vec const& x, Vec& dx, double t) override;
};

// Input faults of the integrators: a log line under the routine's name.
inline void logFault(char const* routine, char const* text) {
  log::print(log::ERROR, routine, text);
}

}  // namespace integration
}  // namespace support
}  // namespace zarn

#endif
