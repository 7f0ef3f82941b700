// Orbit prediction for one GPS or BeiDou satellite: an extended Kalman filter
// turns Earth-fixed samples into an inertial state and pole, and the force
// model's Gauss-Jackson integrator carries it forward to spans of states that
// are fitted into broadcast Keplerian elements.
//
// Frames and times: continuous GPS seconds; ITRS for Earth-fixed states; the
// inertial frame is Int0 of the force model's InertialFrameInfo. The pole
// (xp, yp) is that of Eop (IERS sense, radians) and enters every conversion
// through the one polar-motion matrix W = R2(-xp) R1(-yp) of
// coordinate_conversion.hpp, so an estimated pole can be handed to toEcef as
// it is. Soft failures are logged at level 4 under "Prediction".
#ifndef ZARN_SUPPORT_PREDICTION_HPP
#define ZARN_SUPPORT_PREDICTION_HPP

#include "zarn/core/records.hpp"
#include "zarn/support/assistance_data.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/export.hpp"
#include "zarn/support/force_model.hpp"
#include "zarn/support/math.hpp"
#include "zarn/support/utility.hpp"

namespace zarn {
namespace support {

// Filter result: state (8) = Int0 position (m), velocity (m/s), xp, yp (rad);
// covariance (8 x 8) in the same order (m^2, (m/s)^2, rad^2); epoch = the last
// sample time (GPS seconds), the epoch of state.
struct InitialStateEstimate {
  Vec state;
  Mat covariance;
  double epoch = 0.0;
};

// Sequential extended Kalman filter over n >= 2 evenly spaced Earth-fixed
// samples, one forward pass, no outlier test.
//   times: n increasing GPS seconds; the step h = times[1] - times[0] is used
//     for every integration.
//   positions: n x 3, ITRS (m), row k at times[k]; velocities: n x 3, ITRS
//     (m/s), only row 0 is used.
//   eop: a-priori pole; it seeds state elements 6 and 7.
//   forceModel: supplies the leap seconds, its InertialFrameInfo (the Int0 of
//     the result; built for times[0] as a rule, any epoch works) and is
//     changed: its EopInfo is left at the estimated pole and its Gauss-Jackson
//     integrator is initialised with step +h, at times[n-1] (backwards false)
//     or after floor(n/2) steps back from times[n-1], labelled
//     times[floor(n/2)] (backwards true; for even n the state reached is one
//     step earlier than that label, so use odd n there).
//   svType: GEO and IGSO get along-track shaped covariances and no process
//     noise; any other value the default ones.
// Aborts when n < 2, positions is not n x 3 or velocities has no 3-column row.
ZARN_EXPORT InitialStateEstimate estimateInitialState(Vec const& times, Mat const& positions,
                                                      Mat const& velocities, Eop const& eop,
                                                      ForceModel& forceModel, bool backwards,
                                                      BeidouSvType svType);

// Batch result: state (8) = Int0 position (m), velocity (m/s) at epoch and the
// radiation-pressure parameters p1 (direct scale) and p2 (Y-bias, 1e-9 m/s^2);
// covariance (8 x 8, same order) the formal one scaled by the residual
// variance; pole the one used (estimated or given); rms (m) the RMS 3D
// distance between the samples and the orbit of the last iteration before
// its correction; iterations made; converged false when the correction did
// not settle within the iteration limit, a solution was singular or not
// finite, or there were too few samples (state and covariance then empty).
struct BatchEstimate {
  Vec state;
  Mat covariance;
  double epoch = 0.0;
  Eop pole;
  double rms = 0.0;
  int iterations = 0;
  bool converged = false;
};

// Batch least-squares differential correction over the whole arc: position
// and velocity at times[0], p1, p2 and, with estimatePole, the pole, fitted to
// all n samples at once (unit weights), iterated to convergence with the
// partials of the force model's variational equations. Same arguments as
// estimateInitialState; the a-priori p1, p2 are the srp of the force model's
// AssistanceData, held to it with the standard deviations srpSigma (in the
// units of p1, p2, against measurements of unit weight, 1 m per axis; 0 or
// less leaves that parameter free). On convergence the force model is left with the estimated
// srp, the pole in its EopInfo and its Gauss-Jackson integrator initialised as
// estimateInitialState does (at times[n-1], or floor(n/2) steps back); its
// srpComputation flag ends false. Otherwise AssistanceData and EopInfo are
// restored, the integrator untouched, and one line is logged. Aborts on the
// argument sizes estimateInitialState aborts on.
ZARN_EXPORT BatchEstimate estimateInitialStateBatch(Vec const& times, Mat const& positions,
                                                    Mat const& velocities, Eop const& eop, bool estimatePole,
                                                    Srp const& srpSigma, ForceModel& forceModel,
                                                    bool backwards);

// Continues the force model's Gauss-Jackson integration to n states at step h
// centred on t1 (epochs t1 - floor(n/2) h + i h) and, for n > 1, fits them
// into broadcast elements.
//   t0 (s): with the integrator initialised at tInit and not yet stepped,
//     tInit for even n and tInit - h for odd n; afterwards the epochOut of the
//     previous call for even n and epochOut - h for odd n (in both cases the
//     previous t1 - h). With these the columns hold the states of their
//     epochs when t1 - t0 is a multiple of h: the integrator is driven
//     (t1 - t0) / h (truncated) + floor(n/2) - 1 steps while fresh and that
//     count - 1 afterwards. t1 is moved later when t1 - t0 - h < n h / 2, so
//     the span never reaches back before t0. Windows may overlap: columns
//     that an earlier call stepped through are integrated again backwards.
//   position, velocity: not used; the integrator's own state is propagated.
//   keplerOut (out, n > 1): the 17-element vector of satelliteStatesToKeplerian
//     fitted to the antenna phase centre positions (ITRS, the force model's
//     EopInfo and InertialFrameInfo, AntennaPhase of its AssistanceData).
//   positionOut, velocityOut (out): the inertial state (Int0, m, m/s) of the
//     middle column floor((n + 1)/2) - 1, at epochOut (out, GPS seconds).
// Returns the steps made; 0 when the integrator made none (outputs untouched,
// nothing logged); -1 when the fit failed (positionOut, velocityOut and
// epochOut already set). Aborts when n < 1 or h <= 0.
ZARN_EXPORT int propagateSatellite(core::GnssType gnss, double t0, double t1, double h, int n,
                                   Vec const& position, Vec const& velocity, ForceModel& forceModel,
                                   Vec& keplerOut, Vec& positionOut, Vec& velocityOut, double& epochOut);

// Int0 states of forceModel to ITRS, in place: column i of positions and
// velocities (3 x epochs.size(); m, m/s) is the state at epochs(i) (GPS
// seconds) and becomes rItrs = W B r, vItrs = W (B v - w x B r) with
// B = icrsToInt0(epochs(i)) N^T, N and W the matrices of the force model's
// InertialFrameInfo and EopInfo (the identity when unset) and one leapSeconds
// count for every epoch: toEcef with the frame's own matrix, as the filter's
// measurement model uses it. With antenna the positions are then moved to the
// antenna phase centre of the force model's AssistanceData (addApcOffset), the
// point broadcast ephemerides describe. propagateSatellite converts with this.
// Aborts when either matrix is not 3 x epochs.size().
ZARN_EXPORT void int0StatesToItrs(ForceModel const& forceModel, Vec const& epochs, int leapSeconds,
                                  bool antenna, Mat& positions, Mat& velocities);

}  // namespace support
}  // namespace zarn

#endif
