// Integrators of ordinary differential equations: adaptive Runge-Kutta-Fehlberg
// 7(8), classical Runge-Kutta 4, a fifth-order Runge-Kutta-Nystrom method and
// an eighth-order Gauss-Jackson multistep integrator whose state can be saved
// and continued.
//
// Times, step sizes and tolerances are in the caller's unit (seconds in every
// caller of the library); states are in whatever units the right-hand side
// uses (metres and m/s for orbits). Input faults are logged at level 4 under
// the routine's name ("rkf78", "rk4", "gj8") and reported by the result.
#ifndef ZARN_SUPPORT_NUMERICAL_INTEGRATION_HPP
#define ZARN_SUPPORT_NUMERICAL_INTEGRATION_HPP

#include "zarn/core/records.hpp"
#include "zarn/support/export.hpp"
#include "zarn/support/math.hpp"

namespace zarn {
namespace support {

// First-order right-hand side x' = f(x, t).
class ZARN_EXPORT OdeFunction {
 public:
  virtual ~OdeFunction();
  // Writes the derivative of the state x at time t into dx; the callee sizes dx.
  virtual void operator()(Vec const& x, Vec& dx, double t) = 0;
};

// Second-order right-hand side y'' = f(y, t) with an acceleration that does not
// depend on the velocity.
class ZARN_EXPORT OdeFunction2 {
 public:
  virtual ~OdeFunction2();
  // Writes the second derivative of y at time t into ddy; the callee sizes ddy.
  virtual void operator()(Vec const& y, Vec& ddy, double t) = 0;
};

// Integrates x from t0 to t1 in place with the Fehlberg 7(8) pair, advancing
// with the eighth-order solution. h: initial step magnitude (> 0); the sign is
// taken from t1 - t0. tol: relative-plus-absolute tolerance per component,
// (0, 1). Returns the number of accepted steps; 0 with x unchanged after an
// input fault or when |t1 - t0| < 1e-8. A right-hand side returning NaN makes
// it retry without end: callers check their inputs.
ZARN_EXPORT int rkf78(OdeFunction& f, Vec& x, double t0, double t1, double h, double tol);

// Takes exactly n classical fourth-order Runge-Kutta steps of size h (h < 0
// integrates backwards) from t0 in place. Returns n; 0 with x unchanged after
// an input fault (empty x, h == 0).
ZARN_EXPORT int rk4(OdeFunction& f, Vec& x, double t0, unsigned int n, double h);

// Fifth-order Runge-Kutta-Nystrom integration of y'' = f(y, t) with velocity v,
// from t0 towards t1 in steps of h in place. The number of steps N is
// (t1 - t0) / h truncated towards zero (at least 1), so the end state is at
// t0 + N h: callers choose h to divide t1 - t0. A single step is shortened to
// t1 - t0 when |t1 - t0| < |h|; later steps are cut to t1 - t once |t1| <= |t|,
// a test on the times themselves, so backward integration needs t1 < t0 <= 0
// or a single step. Returns N; 0 without a step for h == 0. Logs nothing.
ZARN_EXPORT int rkn5(OdeFunction2& f, Vec& y, Vec& v, double t0, double t1, double h);

// Eighth-order Gauss-Jackson (second-sum) integrator with summed-Adams
// velocities (Berry and Healy, J. Astronaut. Sci. 52(3), 2004), one continuous
// propagation at a fixed step across calls.
//
// The start-up runs Runge-Kutta-Fehlberg 7(8) steps on the two-body problem
// (GM = 3.986004418e14 m^3/s^2), so the dimension of y must be 3: position in
// metres of a geocentric orbit, any other size aborts. The corrector iteration
// then makes the nine start-up points consistent with f.
class ZARN_EXPORT Gj8Integrator {
 public:
  Gj8Integrator();
  Gj8Integrator(Gj8Integrator const& other);
  Gj8Integrator& operator=(Gj8Integrator const& other);
  ~Gj8Integrator();

  // Start-up around the epoch t0 (s) with position r0 and velocity v0 and step
  // h (s, either sign). Returns 0, or -1 after an input fault (empty r0, sizes
  // of r0 and v0 differ, h == 0) with the object unchanged.
  int gj8Init(OdeFunction2& f, Vec const& r0, Vec const& v0, double t0, double h);

  // Advances by `steps` steps (epochs t0 + (k + 1) h, k the running step
  // count). R and V (dimension rows each, any number of columns) receive the
  // new epochs' positions and velocities filling their columns from the right,
  // the newest last; columns to the left of the new epochs are left as they
  // are, and when there are fewer columns than steps only the newest epochs are
  // kept. The first four epochs come from the start-up without evaluating f.
  // Returns steps; 0 after an input fault (steps == 0, R or V without rows,
  // R and V of different sizes, rows not the integrator's dimension, integrator
  // not initialised) with the object unchanged.
  unsigned int gj8Propagate(OdeFunction2& f, Mat& R, Mat& V, unsigned int steps);

  // Steps taken beyond the start-up.
  unsigned int getTotalSteps() const;

  // Exact equality of every field.
  bool operator==(Gj8Integrator const& other) const;
  bool operator!=(Gj8Integrator const& other) const { return !(*this == other); }

  // Appends the state; on failure removes what it appended and returns false.
  bool serialize(BinaryData& out) const;
  // Reads the state at `position`; the object changes only when every field
  // was read, and then position points after it.
  bool deserialize(BinaryData const& in, unsigned int& position);

 private:
  struct Details;
  Details* details_;
};

// Start-up from column 0 of R and V at t0 with step h (> 0, s), then n steps;
// the epochs fill the columns of R and V from the right as in
// Gj8Integrator::gj8Propagate, so with n + 1 columns column k holds epoch
// t0 + k h. Returns n; -1 after an input fault.
ZARN_EXPORT int gj8(OdeFunction2& f, Mat& R, Mat& V, double t0, unsigned int n, double h);
// The same on vectors: r and v hold the state at t0 on entry and at t0 + n h on
// return.
ZARN_EXPORT int gj8(OdeFunction2& f, Vec& r, Vec& v, double t0, unsigned int n, double h);

}  // namespace support
}  // namespace zarn

#endif
