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
#include "zarn/support/numerical_integration.hpp"
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
  double ut1Rate = 0.0;  // d(UT1 - UTC)/dt (s/s) used: estimated or given
  // With the rate estimated: how the least-squares values of the state (8) and
  // the pole (xp, yp; zeros when held) move when the rate is held at another
  // value, per s/s of it (10 elements; empty otherwise).
  Vec ut1RateSensitivity;
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

// The same with the Earth's rotation drifting: UT1 - UTC at t is the frame's
// ut1MinusUtc + ut1Rate (t - tRef), tRef the epoch of the force model's
// InertialFrameInfo (the length-of-day excess is -86400 ut1Rate seconds). With
// estimateUt1Rate the rate is one more parameter, ut1Rate its first guess;
// otherwise it is held. The result's ut1Rate is the one to convert the
// prediction with (int0StatesToItrs and propagateSatellite with ut1Rate).
// With rough, the orbit is integrated by Gauss-Jackson at the sample step
// throughout (when the samples lie on one grid): a third cheaper, off by up
// to a metre through eclipses, enough for a rate that a median over many
// satellites takes.
ZARN_EXPORT BatchEstimate estimateInitialStateBatch(Vec const& times, Mat const& positions,
                                                    Mat const& velocities, Eop const& eop, bool estimatePole,
                                                    Srp const& srpSigma, bool estimateUt1Rate, double ut1Rate,
                                                    ForceModel& forceModel, bool backwards,
                                                    bool rough = false);

// The estimate `free` (converged with the UT1 rate estimated) moved, to first
// order through its ut1RateSensitivity, to the solution with the rate held at
// ut1Rate: the rate then changes the fit over a day by centimetres to metres,
// well inside the linear range. The force model, left by that estimate,
// takes the moved p1, p2 and pole and its integrator restarts from the moved
// state as the estimator starts it (times and backwards as given to it). Not
// converged, model untouched and one line logged when `free` carries no
// sensitivity.
ZARN_EXPORT BatchEstimate holdUt1Rate(BatchEstimate const& free, double ut1Rate, Vec const& times,
                                      ForceModel& forceModel, bool backwards);

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
// The same with UT1 - UTC drifting at ut1Rate (s/s) from the frame epoch, as
// the int0StatesToItrs overload with ut1Rate converts.
ZARN_EXPORT int propagateSatellite(core::GnssType gnss, double t0, double t1, double h, int n,
                                   Vec const& position, Vec const& velocity, ForceModel& forceModel,
                                   double ut1Rate, Vec& keplerOut, Vec& positionOut, Vec& velocityOut,
                                   double& epochOut);

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
// The same with the Earth's rotation drifting: B takes UT1 - UTC =
// ut1MinusUtc + ut1Rate (epochs(i) - tRef) of the frame (ut1Rate in s/s; 0
// gives the form above).
ZARN_EXPORT void int0StatesToItrs(ForceModel const& forceModel, Vec const& epochs, int leapSeconds,
                                  bool antenna, double ut1Rate, Mat& positions, Mat& velocities);

// ---- GLONASS (libs/support/src/glonass_prediction.cpp) ----------------------
//
// GLONASS ephemerides carry an Earth-fixed PZ-90 state of the antenna phase
// centre, scaled to the integers of the GLONASS ICD (edition 5.1, table 4.5):
// position 2^-11 km, velocity 2^-20 km/s, luni-solar acceleration 2^-30 km/s^2.
// The force model integrates the centre of mass in WGS 84 (ITRS) axes.

// Second-order right-hand side for short GLONASS integrations with rkn5: the
// force model's acceleration (m/s^2) at the Int0 position y (m, size 3) and
// GPS time t (s). The derivative flag of the model is left as it is.
class ZARN_EXPORT OdeFunGlonassInit : public OdeFunction2 {
 public:
  explicit OdeFunGlonassInit(ForceModel& model);
  ~OdeFunGlonassInit() override;
  void operator()(Vec const& y, Vec& ddy, double t) override;

 private:
  ForceModel& model_;
  Mat partials_;  // 3 x 8 work matrix
};

// Broadcast GLONASS state of the force model's Int0 state (position m,
// velocity m/s, size 3 each) at t (GPS seconds): ITRS through toEcef with the
// model's InertialFrameInfo and EopInfo, datum shifted to PZ-90.02, moved to
// the antenna phase centre of the model's AssistanceData; the luni-solar
// acceleration at that point from ForceModel::sunMoonAcceleration. Every value
// is rounded half away from zero to its ICD unit. out.time becomes the GLONASS
// Toc of t (the model's leap-second table), x..vz and ax..az the scaled
// integers; every other field of out is kept. Returns false with one level-4
// line under "Prediction", out untouched, when the state does not fit the
// field widths of validGlonassEphemeris.
ZARN_EXPORT bool initGlonassEphemeris(ForceModel& forceModel, double t, Vec const& position,
                                      Vec const& velocity, core::GlonassEphemeris& out);

// Sets the force model up from one broadcast GLONASS state and starts its
// Gauss-Jackson integrator there with a 900 s step.
//   t (GPS seconds), leapSeconds (GPS - UTC at t); position (m), velocity
//   (m/s): PZ-90.02, Earth-fixed, antenna phase centre, as the broadcast
//   gives them (glonassEphemerisToEcef).
//   The model receives Int0 of t (UT1 - UTC taken as 0), assistanceData, the
//   pole of eop and its derivative flag on. positionOut, velocityOut: the
//   centre-of-mass state in that Int0 (m, m/s).
// Returns false with a level-4 line under "Prediction" when the integrator
// cannot start. Aborts unless position and velocity have 3 elements; the
// outputs are sized here.
ZARN_EXPORT bool estimateInitialStateGlonass(AssistanceData const& assistanceData, double t, int leapSeconds,
                                             Vec const& position, Vec const& velocity, Eop const& eop,
                                             ForceModel& forceModel, Vec& positionOut, Vec& velocityOut);

// The same from two broadcast states of one satellite (t2 before or after t):
// a differential correction fits one force-model orbit through both. The
// unknown is the first state's correction in the radial, along-track and
// cross-track axes; the residuals of both states (position 2 m, velocity
// 1 mm/s per axis, as weights) map to it through the Clohessy-Wiltshire
// transition matrix. It iterates until an update moves the orbit by less than
// 0.5 m at both epochs (at most 10 updates). The integrator is left at t,
// 900 s step, on the corrected state (positionOut, velocityOut, Int0 of t).
// The states should lie at least 900 s apart; the Gauss-Jackson steps reach
// the second epoch to within 900 s and rkn5 (propagateSatelliteGlonass)
// bridges the rest. Returns false with a level-4 line under "Prediction"
// when the integrator makes no step or cannot start, when the correction does
// not converge, or when the fitted orbit misses either state by more than
// 200 m (the two states belong to different orbits, e.g. across a manoeuvre);
// after a refusal the integrator, positionOut and velocityOut hold the start
// from the first state alone, as the one-state form leaves them.
ZARN_EXPORT bool estimateInitialStateGlonass(AssistanceData const& assistanceData, double t, int leapSeconds,
                                             Vec const& position, Vec const& velocity, double t2,
                                             int leapSeconds2, Vec const& position2, Vec const& velocity2,
                                             Eop const& eop, ForceModel& forceModel, Vec& positionOut,
                                             Vec& velocityOut);

// Continues the force model's Gauss-Jackson integration by (t1 - t0) / h
// steps (truncated; h should be the integrator's own step) and turns the final
// state, labelled t1, into ephemerisOut with initGlonassEphemeris.
// positionOut, velocityOut: that final Int0 state (m, m/s). position and
// velocity are not used. Returns the steps made; 0 when the integrator made
// none (logged under "Prediction") or the ephemeris was refused.
ZARN_EXPORT int propagateSatellite(double t0, double t1, double h, Vec const& position, Vec const& velocity,
                                   ForceModel& forceModel, core::GlonassEphemeris& ephemerisOut,
                                   Vec& positionOut, Vec& velocityOut);

// Int0 state (position m, velocity m/s) carried from t0 to t1 in place with
// rkn5 and OdeFunGlonassInit at a fixed 100 s step (see rkn5 for the step
// count: forward spans should be a multiple of 100 s or shorter than it).
// Returns what rkn5 returns; the state is changed only when that is positive.
ZARN_EXPORT int propagateSatelliteGlonass(Vec& position, Vec& velocity, double t0, double t1,
                                          ForceModel& forceModel);

}  // namespace support
}  // namespace zarn

#endif
