// GLONASS ephemeris generation: force-model states to broadcast GLONASS
// records, and the start of the force-model integration from broadcast
// GLONASS states.
#include <cmath>
#include <cstdint>
#include <stdexcept>

#include "apc_offset.hpp"
#include "force_model/third_body.hpp"
#include "zarn/support/assistance_data.hpp"
#include "zarn/support/broadcast_interface.hpp"
#include "zarn/support/log.hpp"
#include "zarn/support/prediction.hpp"
#include "zarn/support/time_conversion.hpp"
#include "zarn/support/validation.hpp"

namespace zarn {
namespace support {
namespace {

namespace bc = broadcast;

constexpr double metresPerKilometre = 1000.0;  // m/km; the GLONASS LSBs are in km

namespace ublas = boost::numeric::ublas;

char const tag[] = "Prediction";

constexpr double glonassStep = 900.0;   // s, Gauss-Jackson step of GLONASS orbits
constexpr double bridgeStep = 100.0;    // s, rkn5 step of the short GLONASS propagations
constexpr double stopShift = 0.5;       // m: an update below this ends the correction
constexpr int maxCorrections = 10;      // updates of the two-state correction
constexpr double positionSigma = 2.0;   // m per axis, broadcast state position
constexpr double velocitySigma = 1e-3;  // m/s per axis, broadcast state velocity
constexpr double maxMiss = 200.0;       // m, fitted orbit to a broadcast state

// ICD integer of a value in metres (or m/s, m/s^2): round half away from zero.
double scaledToLsb(double metres, double lsbKm) {
  double const x = metres / metresPerKilometre / lsbKm;
  return x < 0.0 ? std::ceil(x - 0.5) : std::floor(x + 0.5);
}

Vec column3(Mat const& m, std::size_t j) {
  return ublas::column(m, j);
}

// Broadcast state (PZ-90.02, antenna phase centre) to the centre of mass in
// WGS 84 and on into Int0 of t; sets up the force model for that frame.
void startFrame(AssistanceData const& assistanceData, double t, int leapSeconds, Vec const& position,
                Vec const& velocity, Eop const& eop, ForceModel& forceModel, Vec& positionOut,
                Vec& velocityOut) {
  if (position.size() != 3 || velocity.size() != 3) {
    ZARN_THROW(std::invalid_argument("estimateInitialStateGlonass: invalid size of a state vector"));
  }
  positionOut.resize(3, false);
  velocityOut.resize(3, false);
  Vec const com = pz902ToWgs84(removeApcOffset(position, assistanceData.antPhase, t, leapSeconds));
  forceModel.setInertialFrameInfo(makeInertialFrameInfo(t, 0.0, leapSeconds));
  forceModel.setAssistanceData(assistanceData);
  forceModel.setAccDerivatives(true);
  forceModel.setEopInfo(makeEopInfo(eop));
  // At the frame's own epoch Int0 differs from ITRS by the pole only.
  Mat jacobian(8, 8);
  toInt0(com, velocity, eop, positionOut, velocityOut, jacobian);
}

// The second broadcast state as the centre of mass in Int0 of t0.
void toFrameOf(double t0, AssistanceData const& assistanceData, double t, int leapSeconds,
               Vec const& position, Vec const& velocity, Eop const& eop, Vec& r, Vec& v) {
  if (position.size() != 3 || velocity.size() != 3) {
    ZARN_THROW(std::invalid_argument("estimateInitialStateGlonass: invalid size of a state vector"));
  }
  Vec const com = pz902ToWgs84(removeApcOffset(position, assistanceData.antPhase, t, leapSeconds));
  Mat rItrs(3, 1), vItrs(3, 1), rInt0(3, 1), vInt0(3, 1);
  ublas::column(rItrs, 0) = com;
  ublas::column(vItrs, 0) = velocity;
  itrsToInt0(rItrs, vItrs, Vec(1, t), t0, eop, 0.0, leapSeconds, rInt0, vInt0);
  r = column3(rInt0, 0);
  v = column3(vInt0, 0);
}

// Clohessy-Wiltshire transition (6 x 6) of a relative state (radial,
// along-track, cross-track position and velocity in the rotating axes) over dt
// for mean motion n (Vallado, Fundamentals of Astrodynamics, 4th ed., 6.8).
Mat hillTransition(double n, double dt) {
  double const s = std::sin(n * dt), c = std::cos(n * dt), nt = n * dt;
  Mat f(6, 6, 0.0);
  double const rows[6][6] = {
      {4.0 - 3.0 * c, 0.0, 0.0, s / n, 2.0 * (1.0 - c) / n, 0.0},
      {6.0 * (s - nt), 1.0, 0.0, -2.0 * (1.0 - c) / n, (4.0 * s - 3.0 * nt) / n, 0.0},
      {0.0, 0.0, c, 0.0, 0.0, s / n},
      {3.0 * n * s, 0.0, 0.0, c, 2.0 * s, 0.0},
      {-6.0 * n * (1.0 - c), 0.0, 0.0, -2.0 * s, 4.0 * c - 3.0, 0.0},
      {0.0, 0.0, -n * s, 0.0, 0.0, c},
  };
  for (unsigned i = 0; i < 6; ++i)
    for (unsigned j = 0; j < 6; ++j) f(i, j) = rows[i][j];
  return f;
}

// (r, v) - (rRef, vRef) in the rotating radial, along-track, cross-track axes
// of the reference: the inverse of rswToEci.
Vec relativeState(Vec const& rRef, Vec const& vRef, Vec const& r, Vec const& v) {
  Vec const dr = eciToRsw(rRef, vRef, r, v);
  Vec dv = v - vRef;
  Mat a(3, 3);
  eciToRtn(rRef, vRef, dv, a);
  double const rate = norm_2(cross(rRef, vRef)) / inner_prod(rRef, rRef);  // rad/s, about the normal
  dv(0) += rate * dr(1);
  dv(1) -= rate * dr(0);
  Vec d(6);
  ublas::subrange(d, 0, 3) = dr;
  ublas::subrange(d, 3, 6) = dv;
  return d;
}

// Gauss-Jackson from the model's freshly initialised integrator at t0 to t1,
// the last few hundred seconds by rkn5; false (logged) when it makes no step.
bool propagateTo(ForceModel& forceModel, double t0, double t1, Vec& r, Vec& v) {
  double const span = std::fabs(t1 - t0);
  unsigned const steps = t1 >= t0 ? static_cast<unsigned>(span / glonassStep)
                                  : static_cast<unsigned>(std::ceil(span / glonassStep));
  Mat pm(3, 1, 0.0), vm(3, 1, 0.0);
  OdeFunGj8 ode(forceModel);
  if (steps == 0 || forceModel.getGj8Integrator().gj8Propagate(ode, pm, vm, steps) == 0) {
    log::printFormatted(log::ERROR, tag,
                        "estimateInitialStateGlonass: integrator made 0 steps, initialization has failed");
    return false;
  }
  r = column3(pm, 0);
  v = column3(vm, 0);
  // rkn5 steps forward only: the grid point reached lies at or before t1.
  double t = t1 >= t0 ? t0 + steps * glonassStep : t0 - steps * glonassStep;
  double const whole = std::floor((t1 - t) / bridgeStep) * bridgeStep;
  if (whole > 0.0) {
    propagateSatelliteGlonass(r, v, t, t + whole, forceModel);
    t += whole;
  }
  if (t1 - t > 0.0) propagateSatelliteGlonass(r, v, t, t1, forceModel);
  return true;
}

// toEcef with the rotations at t and at the frame's epoch given: the same
// operations in the same order.
void toEcef(Mat const& ofDate, Mat const& ofFrame, Mat const& polar, Vec const& position, Vec const& velocity,
            Vec& r, Vec& v) {
  double b[3][3], rb[3], vb[3];
  for (unsigned i = 0; i < 3; ++i) {
    for (unsigned j = 0; j < 3; ++j) {
      b[i][j] = ofDate(i, 0) * ofFrame(j, 0) + ofDate(i, 1) * ofFrame(j, 1) + ofDate(i, 2) * ofFrame(j, 2);
    }
  }
  for (unsigned i = 0; i < 3; ++i) {
    rb[i] = b[i][0] * position(0) + b[i][1] * position(1) + b[i][2] * position(2);
    vb[i] = b[i][0] * velocity(0) + b[i][1] * velocity(1) + b[i][2] * velocity(2);
  }
  vb[0] = vb[0] - -earthRotationRate * rb[1];
  vb[1] = vb[1] - earthRotationRate * rb[0];
  for (unsigned i = 0; i < 3; ++i) {
    r(i) = polar(i, 0) * rb[0] + polar(i, 1) * rb[1] + polar(i, 2) * rb[2];
    v(i) = polar(i, 0) * vb[0] + polar(i, 1) * vb[1] + polar(i, 2) * vb[2];
  }
}

// ForceModel::sunMoonAcceleration with the rotation of date given.
Vec lunisolarAcceleration(double t, Mat const& ofDate, Vec const& r) {
  double moonJ2000[3], sunJ2000[3], moon[3], sun[3];
  forces::sunMoonJ2000(t, moonJ2000, sunJ2000);
  for (unsigned i = 0; i < 3; ++i) {
    moon[i] = ofDate(i, 0) * moonJ2000[0] + ofDate(i, 1) * moonJ2000[1] + ofDate(i, 2) * moonJ2000[2];
    sun[i] = ofDate(i, 0) * sunJ2000[0] + ofDate(i, 1) * sunJ2000[1] + ofDate(i, 2) * sunJ2000[2];
  }
  double const p[3] = {r(0), r(1), r(2)};
  forces::ThirdBody moonTerm, sunTerm;
  forces::sunMoonAttraction(moon, sun, p, moonTerm, sunTerm);
  Vec a(3);
  for (unsigned i = 0; i < 3; ++i) a(i) = moonTerm.acc[i] + sunTerm.acc[i];
  return a;
}

}  // namespace

OdeFunGlonassInit::OdeFunGlonassInit(ForceModel& model) : model_(model), partials_(3, 8, 0.0) {}

OdeFunGlonassInit::~OdeFunGlonassInit() = default;

void OdeFunGlonassInit::operator()(Vec const& y, Vec& ddy, double t) {
  if (y.size() != 3) ZARN_THROW(std::invalid_argument("OdeFunGlonassInit: invalid size y"));
  if (ddy.size() != 3) ddy.resize(3, false);
  model_.forceModel(t, y, ddy, partials_);
}

bool initGlonassEphemeris(ForceModel& forceModel, double t, Vec const& position, Vec const& velocity,
                          core::GlonassEphemeris& out) {
  if (position.size() != 3 || velocity.size() != 3) {
    ZARN_THROW(std::invalid_argument("initGlonassEphemeris: invalid size of a state vector"));
  }
  std::vector<LeapInfo> const leapInfo = forceModel.getLeapInfo();
  int const ls = leapSeconds(t, true, leapInfo);
  InertialFrameInfo const frame = forceModel.getInertialFrameInfo();
  // The rotations are most of the cost: the one of date turns Sun and Moon for
  // the antenna offset and the lunisolar term, and the state too when the
  // frame holds UT1 - UTC at zero.
  Mat const ofDate = icrsToInt0(t, 0.0, ls);
  Vec r(3), v(3);
  toEcef(frame.ut1MinusUtc == 0.0 ? ofDate : icrsToInt0(t, frame.ut1MinusUtc, ls),
         icrsToInt0(frame.tRef, frame.ut1MinusUtc, ls), polarMotionMatrix(forceModel.getEopInfo().eop),
         position, velocity, r, v);
  r = addApcOffsetInFrame(wgs84ToPz902(r), forceModel.getAssistanceData().antPhase, t, ofDate);
  Vec const a = lunisolarAcceleration(t, ofDate, r);

  if (!validGlonassEphemeris(r / metresPerKilometre, v / metresPerKilometre, a / metresPerKilometre)) {
    log::printFormatted(log::ERROR, tag, "initGlonassEphemeris: ephemeris parameters validation failed");
    return false;
  }
  out.time = gpsToGlonass(gpsSecsToGps(t), leapInfo);
  std::int32_t* const positions[3] = {&out.x, &out.y, &out.z};
  std::int32_t* const velocities[3] = {&out.vx, &out.vy, &out.vz};
  std::int8_t* const accelerations[3] = {&out.ax, &out.ay, &out.az};
  for (unsigned k = 0; k < 3; ++k) {
    *positions[k] = static_cast<std::int32_t>(scaledToLsb(r(k), bc::kGlonassPosition.lsb));
    *velocities[k] = static_cast<std::int32_t>(scaledToLsb(v(k), bc::kGlonassVelocity.lsb));
    // Only the low 8 bits of the acceleration word are kept.
    auto const word = static_cast<std::uint32_t>(
        static_cast<std::int32_t>(scaledToLsb(a(k), bc::kGlonassAcceleration.lsb)));
    *accelerations[k] = static_cast<std::int8_t>(static_cast<std::uint8_t>(word & 0xFFu));
  }
  return true;
}

bool estimateInitialStateGlonass(AssistanceData const& assistanceData, double t, int leapSeconds,
                                 Vec const& position, Vec const& velocity, Eop const& eop,
                                 ForceModel& forceModel, Vec& positionOut, Vec& velocityOut) {
  startFrame(assistanceData, t, leapSeconds, position, velocity, eop, forceModel, positionOut, velocityOut);
  OdeFunGj8 ode(forceModel);
  int const result = forceModel.getGj8Integrator().gj8Init(ode, positionOut, velocityOut, t, glonassStep);
  if (result != 0) {
    log::printFormatted(log::ERROR, tag, "estimateInitialStateGlonass: integrator init failed, result=%d",
                        result);
    return false;
  }
  return true;
}

bool estimateInitialStateGlonass(AssistanceData const& assistanceData, double t, int leapSeconds,
                                 Vec const& position, Vec const& velocity, double t2, int leapSeconds2,
                                 Vec const& position2, Vec const& velocity2, Eop const& eop,
                                 ForceModel& forceModel, Vec& positionOut, Vec& velocityOut) {
  if (!estimateInitialStateGlonass(assistanceData, t, leapSeconds, position, velocity, eop, forceModel,
                                   positionOut, velocityOut)) {
    return false;
  }
  // Both broadcast states as observed centre-of-mass states in Int0 of t.
  Vec const r1 = positionOut, v1 = velocityOut;
  Vec r2(3), v2(3);
  toFrameOf(t, assistanceData, t2, leapSeconds2, position2, velocity2, eop, r2, v2);

  // Weighted least squares for the RSW correction of the first state: the
  // first state observes it directly, the second through the transition.
  double const dt = t2 - t;
  double const step = dt >= 0.0 ? glonassStep : -glonassStep;
  Vec weights(6);
  for (unsigned k = 0; k < 3; ++k) {
    weights(k) = 1.0 / (positionSigma * positionSigma);
    weights(k + 3) = 1.0 / (velocitySigma * velocitySigma);
  }
  OdeFunGj8 ode(forceModel);
  Gj8Integrator& integrator = forceModel.getGj8Integrator();
  Vec x = r1, xv = v1, rp(3), vp(3), miss1(3), miss2(3);
  bool converged = false;
  for (int update = 0; update < maxCorrections && !converged; ++update) {
    if (integrator.gj8Init(ode, x, xv, t, step) != 0) {
      log::printFormatted(log::ERROR, tag,
                          "estimateInitialStateGlonass: integrator initialization has failed");
      return false;
    }
    if (!propagateTo(forceModel, t, t2, rp, vp)) {
      integrator.gj8Init(ode, r1, v1, t, glonassStep);
      return false;
    }
    Mat const phi = hillTransition(norm_2(cross(x, xv)) / inner_prod(x, x), dt);
    Vec const z1 = relativeState(x, xv, r1, v1);
    Vec const z2 = relativeState(rp, vp, r2, v2);
    Mat normal(6, 6, 0.0);
    Vec rhs(6, 0.0);
    for (unsigned i = 0; i < 6; ++i) {
      normal(i, i) += weights(i);
      rhs(i) += weights(i) * z1(i);
      for (unsigned j = 0; j < 6; ++j) {
        double s = 0.0;
        for (unsigned k = 0; k < 6; ++k) s += phi(k, i) * weights(k) * phi(k, j);
        normal(i, j) += s;
        rhs(i) += phi(j, i) * weights(j) * z2(j);
      }
    }
    Vec const d = mldivide(normal, rhs);
    Vec const phiD = prod(phi, d);
    Vec const dr = ublas::subrange(d, 0, 3), dv = ublas::subrange(d, 3, 6);
    Vec const shift2 = ublas::subrange(phiD, 0, 3);
    // What the corrected orbit still misses, to first order.
    miss1 = ublas::subrange(z1, 0, 3) - dr;
    miss2 = ublas::subrange(z2, 0, 3) - shift2;
    Mat a(3, 3);
    Vec scratch(3, 0.0);
    eciToRtn(x, xv, scratch, a);
    xv += rswToEci(x, xv, dr, dv);
    x += prod(trans(a), dr);
    converged = norm_2(dr) < stopShift && norm_2(shift2) < stopShift;
  }
  if (!converged) {
    log::printFormatted(log::ERROR, tag,
                        "estimateInitialStateGlonass: differential correction did not converge in %d updates",
                        maxCorrections);
    integrator.gj8Init(ode, r1, v1, t, glonassStep);
    return false;
  }
  if (integrator.gj8Init(ode, x, xv, t, glonassStep) != 0) {
    log::printFormatted(log::ERROR, tag, "estimateInitialStateGlonass: integrator initialization has failed");
    return false;
  }
  // One orbit through both states: a manoeuvre between them leaves it far
  // from at least one.
  if (norm_2(miss1) > maxMiss || norm_2(miss2) > maxMiss) {
    log::printFormatted(
        log::ERROR, tag,
        "estimateInitialStateGlonass: broadcast states disagree, the fitted orbit misses them by "
        "%.1f m and %.1f m",
        norm_2(miss1), norm_2(miss2));
    integrator.gj8Init(ode, r1, v1, t, glonassStep);
    return false;
  }
  positionOut = x;
  velocityOut = xv;
  return true;
}

int propagateSatellite(double t0, double t1, double h, Vec const& /*position*/, Vec const& /*velocity*/,
                       ForceModel& forceModel, core::GlonassEphemeris& ephemerisOut, Vec& positionOut,
                       Vec& velocityOut) {
  double const count = (t1 - t0) / h;
  // Negative, NaN and oversized counts make no step.
  unsigned const steps = count >= 1.0 && count < 4294967295.0 ? static_cast<unsigned>(count) : 0u;
  Mat pm(3, 5, 0.0), vm(3, 5, 0.0);
  OdeFunGj8 ode(forceModel);
  unsigned const made = steps == 0 ? 0u : forceModel.getGj8Integrator().gj8Propagate(ode, pm, vm, steps);
  if (made == 0) {
    log::printFormatted(log::ERROR, tag,
                        "propagateSatellite: integrator made 0 steps, prediction has failed");
    return 0;
  }
  positionOut = column3(pm, 4);
  velocityOut = column3(vm, 4);
  if (!initGlonassEphemeris(forceModel, t1, positionOut, velocityOut, ephemerisOut)) return 0;
  return static_cast<int>(made);
}

int propagateSatelliteGlonass(Vec& position, Vec& velocity, double t0, double t1, ForceModel& forceModel) {
  Vec r(position), v(velocity);
  OdeFunGlonassInit ode(forceModel);
  int const result = rkn5(ode, r, v, t0, t1, bridgeStep);
  if (result > 0) {
    position = r;
    velocity = v;
  }
  return result;
}

}  // namespace support
}  // namespace zarn
