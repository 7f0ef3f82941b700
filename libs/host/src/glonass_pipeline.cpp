#include "zarn/host/glonass_pipeline.hpp"

#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "zarn/host/gnss_time.hpp"
#include "zarn/host/screening.hpp"
#include "zarn/support/assistance_data.hpp"
#include "zarn/support/broadcast_interface.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/ephemeris_cache.hpp"
#include "zarn/support/ephemeris_conversion.hpp"
#include "zarn/support/force_model.hpp"
#include "zarn/support/gamma_estimator.hpp"
#include "zarn/support/prediction.hpp"
#include "zarn/support/time_conversion.hpp"

namespace zarn {
namespace host {

namespace {

using support::Mat;
using support::Vec;

constexpr double kSlotSpacing = 1800.0;  // s: GLONASS reference times every 30 minutes of UTC
constexpr double kSlotPhase = 900.0;     // s: ... at a quarter past and a quarter to the hour
constexpr double kTbSeconds = 900.0;     // s: tb counts quarter hours of the Moscow day (GLONASS ICD 4.4)
constexpr int kMinimumRecords = 3;       // fewer usable states cannot carry a fit span
// The broadcast start's integrator step (estimateInitialStateGlonass), s.
constexpr double kBroadcastStartStep = 900.0;
// History kept for the broadcast start: a day of states thinned to one per slot.
constexpr unsigned kCacheCapacity = 49;

// Right-hand side of the broadcast equations of motion (GLONASS ICD A.3.1.2)
// in the rotating PZ-90 frame: state (r, v) in m and m/s, constant luni-solar
// acceleration `lunisolar`. One square root and one division: those set the
// cost.
void broadcastMotion(double const* x, double const* lunisolar, double* dx) {
  namespace bc = support::broadcast;
  constexpr double kOblateness =  // 3/2 J2 mu ae^2, m^5/s^2
      1.5 * bc::kGlonassJ2 * bc::kGlonassGm * (bc::kGlonassEarthRadius * bc::kGlonassEarthRadius);
  constexpr double kRate2 = bc::kGlonassEarthRate * bc::kGlonassEarthRate;  // rad^2/s^2
  constexpr double kCoriolis = 2.0 * bc::kGlonassEarthRate;                 // rad/s
  double const r2 = x[0] * x[0] + x[1] * x[1] + x[2] * x[2];
  double const inverse2 = 1.0 / r2, inverse3 = inverse2 / std::sqrt(r2);
  double const central = bc::kGlonassGm * inverse3, oblate = kOblateness * inverse3 * inverse2;
  double const z2 = 5.0 * x[2] * x[2] * inverse2;
  std::copy(x + 3, x + 6, dx);
  double const equatorial[2] = {kCoriolis * x[4], -kCoriolis * x[3]};
  for (int k = 0; k < 2; ++k) {
    dx[3 + k] = -central * x[k] - oblate * x[k] * (1.0 - z2) + kRate2 * x[k] + equatorial[k] + lunisolar[k];
  }
  dx[5] = -central * x[2] - oblate * x[2] * (3.0 - z2) + lunisolar[2];
}

// x turned by the frame rotation R3(angle) about the z axis (rad).
Vec turned(Vec const& x, double angle) {
  double const c = std::cos(angle), s = std::sin(angle);
  Vec y(3);
  y(0) = c * x(0) + s * x(1);
  y(1) = -s * x(0) + c * x(1);
  y(2) = x(2);
  return y;
}

// The Earth's extra rotation (rad) by t when UT1 - UTC drifts at ut1Rate (s/s)
// from zero at tRef: the sidereal angle moves by earthRotationRate per second
// of UT1. Earth-fixed states seen by a uniformly rotating frame are this angle
// behind the true ones (R3(-angle) carries a true one to the uniform frame);
// the Earth's axis moves by microradians over a week, so turning about z
// rather than the exact pole errs by under a tenth of a millimetre.
double extraRotation(double ut1Rate, double t, double tRef) {
  return support::earthRotationRate * ut1Rate * (t - tRef);
}

double threadCpuSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

// Broadcast clock of a record: tau (s; the satellite clock's offset that the
// receiver adds) and gamma, at the record's time.
struct Clock {
  double tRef = 0, tau = 0, gamma = 0;
};

// Earth-fixed centre-of-mass samples in WGS 84 on the UTC quarter-hour grid.
struct Samples {
  std::vector<double> t;
  std::vector<Vec> position;
  Vec velocity0;
  // The positions follow the Earth as it turns, UT1 drift included (precise
  // orbits). GLONASS broadcast states follow a uniformly turning Earth over a
  // day: turned by the drift they fit worse (2016-09-07: mean residual 2.16 m
  // without, 2.49 m with 1.1 ms days), so they are fitted as given and the
  // prediction drifts from the start of their span.
  bool drifting = false;
};

// The sample grid: instants of [fitEnd - fitSpan, fitEnd] on the step grid
// through the slots (the step divides their spacing), an odd count (the filter starts the integrator
// on the middle one).
std::vector<double> sampleGrid(PipelineOptions const& o, int leap) {
  double const h = o.sampleStep;
  double const phase = leap + kSlotPhase;  // a slot lies on the grid
  double const last = std::floor((o.fitEnd - phase) / h + 1e-9) * h + phase;
  long long count = static_cast<long long>(std::floor(o.fitSpan / h + 1e-9)) + 1;
  if (count % 2 == 0) --count;
  std::vector<double> t;
  for (long long k = count - 1; k >= 0; --k) t.push_back(last - static_cast<double>(k) * h);
  return t;
}

// What the orbit was estimated with.
struct Fit {
  support::Eop pole;
  support::Srp srp{};
  bool srpEstimated = false;
};

// Sets up the force model as the GPS path does and fits the samples: with
// o.estimateSrp over a long enough arc by the batch estimator, p1 and p2
// estimated and the UT1 rate held, as for GPS; otherwise, or when that
// estimate is refused, by the filter, whose frame turns uniformly from s.t[0]
// on: its samples are turned to it. The model's integrator is left at the
// middle sample.
Fit estimate(Samples const& s, support::AssistanceData const& assistance, PipelineOptions const& o, int leap,
             support::ForceModel& model, SatellitePrediction& result) {
  std::size_t const n = s.t.size();
  double const rate = s.drifting ? o.ut1Rate : 0.0;
  Vec times(n);
  Mat positions(n, 3), velocities(n, 3, 0.0);
  for (std::size_t k = 0; k < n; ++k) {
    times(k) = s.t[k];
    for (std::size_t c = 0; c < 3; ++c) positions(k, c) = s.position[k](c);
  }
  for (std::size_t c = 0; c < 3; ++c) velocities(0, c) = s.velocity0(c);
  model.setLeapInfo(leapSecondTable());
  model.setNumberOfGeopotentialCoefficients(o.geopotentialDegree);
  model.setInertialFrameInfo(support::makeInertialFrameInfo(s.t[0], 0.0, leap));
  model.setAssistanceData(assistance);
  model.setEopInfo(support::makeEopInfo(o.pole));
  Fit fit;
  fit.srp = assistance.srp;
  if (o.estimateSrp && s.t.back() - s.t.front() + 1e-9 >= kMinSrpArc) {
    support::BatchEstimate const b = support::estimateInitialStateBatch(
        times, positions, velocities, o.pole, true, o.srpSigma, false, rate, model, true);
    std::string const refusal = srpRefusal(b);
    if (refusal.empty()) {
      fit.pole = b.pole;
      fit.srp = support::Srp{{b.state(6), b.state(7)}};
      fit.srpEstimated = true;
      return fit;
    }
    result.notes.push_back(toString(result.sat) + ": radiation pressure not estimated: " + refusal);
    model.setAssistanceData(assistance);
    model.setEopInfo(support::makeEopInfo(o.pole));
  }
  for (std::size_t k = 1; k < n; ++k) {
    Vec const p = turned(s.position[k], -extraRotation(rate, s.t[k], s.t[0]));
    for (std::size_t c = 0; c < 3; ++c) positions(k, c) = p(c);
  }
  support::InitialStateEstimate const f = support::estimateInitialState(
      times, positions, velocities, o.pole, model, true, support::UNDEFINED_SAT_TYPE);
  fit.pole = support::Eop{f.state(6), f.state(7)};
  return fit;
}

long long scaledClock(double value, double lsb) {
  double const x = value / lsb;
  return static_cast<long long>(x >= 0 ? std::floor(x + 0.5) : std::ceil(x - 0.5));
}

// Steps the model's integrator from `reached` through every slot and keeps the
// records that initGlonassEphemeris and validation accept. initGlonassEphemeris
// turns the frame uniformly; each state is first turned by the Earth's extra
// rotation since the frame epoch, which the frame's rotation about z carries
// into the Earth-fixed state unchanged.
void propagateSlots(support::ForceModel& model, double reached, double h, Clock const& clock,
                    core::GlonassEphemeris const& templateRecord, PipelineOptions const& o, int leap,
                    SatellitePrediction& result) {
  namespace lsb = support::broadcast;
  std::vector<double> const slots = glonassSlots(o.fitEnd, o.days, leap);
  double const tRef = model.getInertialFrameInfo().tRef;
  support::OdeFunGj8 ode(model);
  Mat positions(3, 1), velocities(3, 1);
  int refused = 0;
  double firstRefused = 0;
  for (double slot : slots) {
    if (slot <= reached) continue;
    core::GlonassEphemeris eph = templateRecord;
    double const tau = clock.tau - (slot - clock.tRef) * clock.gamma;
    eph.tauN = static_cast<std::int32_t>(scaledClock(tau, lsb::kGlonassTau.lsb));
    eph.gammaN = static_cast<std::int16_t>(scaledClock(clock.gamma, lsb::kGlonassGamma.lsb));
    double const count = std::floor((slot - reached) / h + 1e-9);
    if (count < 1.0 || model.getGj8Integrator().gj8Propagate(ode, positions, velocities,
                                                             static_cast<unsigned>(count)) == 0) {
      // The integrator did not move: later slots would be mislabelled.
      result.notes.push_back(toString(result.sat) + ": propagation failed at " + formatGpsTime(slot) +
                             "; the prediction ends there");
      break;
    }
    reached = slot;
    double const angle = extraRotation(o.ut1Rate, slot, tRef);
    bool const encoded =
        support::initGlonassEphemeris(model, slot, turned(boost::numeric::ublas::column(positions, 0), angle),
                                      turned(boost::numeric::ublas::column(velocities, 0), angle), eph);
    eph.tb = static_cast<std::int16_t>(eph.time.third / static_cast<std::uint32_t>(kTbSeconds));
    Ephemeris e = fromGlonass(eph);
    if (!encoded || !passesValidation(e) || std::fabs(e.toe - slot) > 0.5) {
      if (refused++ == 0) firstRefused = slot;
      continue;
    }
    result.predicted.push_back(e);
  }
  result.rejected = refused;
  if (refused > 0) {
    result.notes.push_back(toString(result.sat) + ": " + std::to_string(refused) + " of " +
                           std::to_string(slots.size()) + " records refused (first at " +
                           formatGpsTime(firstRefused) + ")");
  }
}

// The clock of the records: tau and gamma of the newest, gamma from the
// GammaEstimator fed with the tau values of all of them.
Clock broadcastClock(std::vector<Ephemeris> const& kept) {
  namespace lsb = support::broadcast;
  support::GammaEstimator estimator;
  Clock clock;
  for (Ephemeris const& e : kept) {
    double const tau = e.glonass.tauN * lsb::kGlonassTau.lsb;
    double const gamma = e.glonass.gammaN * lsb::kGlonassGamma.lsb;
    if (!estimator.initialized()) {
      estimator.initialize(tau, gamma, e.toe);
      clock.gamma = gamma;
    } else {
      clock.gamma = estimator.update(tau, gamma, e.toe);
    }
    clock.tRef = e.toe;
    clock.tau = tau;
  }
  return clock;
}

// Runs the filter on the samples and propagates; fills the timing and fit fields.
void predictFromSamples(Samples const& s, Clock const& clock, core::GlonassEphemeris const& templateRecord,
                        PipelineOptions const& o, int leap, SatellitePrediction& result) {
  std::size_t const n = s.t.size();
  support::AssistanceData assistance = satelliteAssistance(result.sat, support::UNDEFINED_SAT_TYPE, o.fitEnd);
  if (!o.antennaOffset) assistance.antPhase.fill(0.0);
  result.fitStart = s.t.front();
  result.fitEnd = s.t.back();
  result.samples = static_cast<int>(n);
  double const cpu0 = threadCpuSeconds();
  support::ForceModel model;
  model.setAccurateSunMoon(true);
  Fit const fit = estimate(s, assistance, o, leap, model, result);
  result.pole = fit.pole;
  result.srp = fit.srp;
  result.srpEstimated = fit.srpEstimated;
  double const cpu1 = threadCpuSeconds();
  result.estimateSeconds = cpu1 - cpu0;
  // The integrator stands at the middle sample: step it through the later
  // samples to measure the fit, then on to the slots.
  double reached = s.t[n / 2];
  std::size_t const later = n - 1 - n / 2;
  if (later > 0) {
    Mat positions(3, later), velocities(3, later);
    Vec epochs(later);
    for (std::size_t j = 0; j < later; ++j) epochs(j) = s.t[n / 2 + 1 + j];
    support::OdeFunGj8 ode(model);
    if (model.getGj8Integrator().gj8Propagate(ode, positions, velocities, static_cast<unsigned>(later)) !=
        later) {
      result.skipReason = "the estimated orbit does not propagate over the fit span";
      return;
    }
    support::int0StatesToItrs(model, epochs, leap, false, s.drifting ? o.ut1Rate : 0.0, positions,
                              velocities);
    double sum = 0.0;
    for (std::size_t j = 0; j < later; ++j) {
      double const d =
          support::distance(boost::numeric::ublas::column(positions, j), s.position[n / 2 + 1 + j]);
      sum += d * d;
    }
    result.sampleRms = std::sqrt(sum / static_cast<double>(later));
    reached = s.t.back();
  }
  propagateSlots(model, reached, o.sampleStep, clock, templateRecord, o, leap, result);
  double const cpu2 = threadCpuSeconds();
  result.propagateSeconds = cpu2 - cpu1;
  result.cpuSeconds = cpu2 - cpu0;
}

// The orbit started from the newest broadcast state, alone or with a second
// one about glonassPairAge older (EphemerisCache::nearest).
void predictFromStates(std::vector<Ephemeris> const& kept, Clock const& clock,
                       core::GlonassEphemeris const& templateRecord, PipelineOptions const& o, int leap,
                       SatellitePrediction& result) {
  support::EphemerisCache cache(kCacheCapacity, kSlotSpacing);
  for (Ephemeris const& e : kept) cache.insert(e.glonass);
  support::AssistanceData assistance = satelliteAssistance(result.sat, support::UNDEFINED_SAT_TYPE, o.fitEnd);
  if (!o.antennaOffset) assistance.antPhase.fill(0.0);
  static std::vector<support::LeapInfo> const leaps = leapSecondTable();
  core::GlonassEphemeris const& newest = cache.newest();
  double const t = glonassGpsSeconds(newest.time);
  Vec p(3), v(3), p2(3), v2(3), r0, v0;
  support::glonassEphemerisToEcef(newest, t, p, v, leaps);
  result.fitEnd = t;
  result.fitStart = t;
  result.samples = 1;
  double const cpu0 = threadCpuSeconds();
  support::ForceModel model;
  model.setAccurateSunMoon(true);
  model.setLeapInfo(leaps);
  model.setNumberOfGeopotentialCoefficients(o.geopotentialDegree);
  bool started = false;
  if (o.glonassStart == GlonassStart::twoStates && cache.size() > 1) {
    core::GlonassEphemeris const& older = cache.nearest(o.glonassPairAge);
    double const t2 = glonassGpsSeconds(older.time);
    support::glonassEphemerisToEcef(older, t2, p2, v2, leaps);
    started = support::estimateInitialStateGlonass(assistance, t, leapSecondsAt(t), p, v, t2,
                                                   leapSecondsAt(t2), p2, v2, o.pole, model, r0, v0);
    result.fitStart = std::min(t, t2);
    result.samples = 2;
    if (!started) result.notes.push_back(toString(result.sat) + ": the two-state start was refused");
  }
  if (!started &&
      !support::estimateInitialStateGlonass(assistance, t, leapSecondsAt(t), p, v, o.pole, model, r0, v0)) {
    result.skipReason = "the orbit cannot start from the broadcast state of " + formatGpsTime(t);
    return;
  }
  double const cpu1 = threadCpuSeconds();
  result.estimateSeconds = cpu1 - cpu0;
  propagateSlots(model, t, kBroadcastStartStep, clock, templateRecord, o, leap, result);
  double const cpu2 = threadCpuSeconds();
  result.propagateSeconds = cpu2 - cpu1;
  result.cpuSeconds = cpu2 - cpu0;
}

// Fields of a predicted record that neither the orbit nor the clock sets.
core::GlonassEphemeris templateFor(SatelliteId const& sat, core::GlonassEphemeris const* last) {
  core::GlonassEphemeris eph;
  if (last != nullptr) eph.frequencyNumber = last->frequencyNumber;
  eph.svId = static_cast<std::uint16_t>(sat.prn);
  eph.health = 0;
  eph.age = 0;
  eph.deltaTauN = 0;  // an L1-only receiver has no use for it, and RINEX 3.04 does not carry it
  return eph;
}

std::string checkOptions(PipelineOptions const& o) {
  if (!(o.sampleStep > 0) || std::fmod(kSlotSpacing, o.sampleStep) != 0.0) {
    return "the step must divide 30 minutes into whole steps for GLONASS";
  }
  return "";
}

}  // namespace

void glonassBroadcastState(core::GlonassEphemeris const& eph, double t, Vec& position, Vec& velocity,
                           double maxStep) {
  namespace bc = support::broadcast;
  constexpr double kMetresPerKilometre = 1000.0;  // the GLONASS LSBs are in km
  static std::vector<support::LeapInfo> const leaps = leapSecondTable();
  double const span = t - support::gpsToGpsSecs(support::glonassToGps(eph.time, leaps));
  double const steps = std::ceil(std::fabs(span) / maxStep - 1e-9);
  double const toPosition = bc::kGlonassPosition.lsb * kMetresPerKilometre;
  double const toVelocity = bc::kGlonassVelocity.lsb * kMetresPerKilometre;
  double const toAcceleration = bc::kGlonassAcceleration.lsb * kMetresPerKilometre;
  double const lunisolar[3] = {eph.ax * toAcceleration, eph.ay * toAcceleration, eph.az * toAcceleration};
  double x[6] = {eph.x * toPosition,  eph.y * toPosition,  eph.z * toPosition,
                 eph.vx * toVelocity, eph.vy * toVelocity, eph.vz * toVelocity};
  if (steps > 0.0) {
    double const h = span / steps, half = h / 2.0, sixth = h / 6.0, third = h / 3.0;
    double k1[6], k2[6], k3[6], k4[6], y[6];
    for (long n = static_cast<long>(steps); n > 0; --n) {
      broadcastMotion(x, lunisolar, k1);
      for (int j = 0; j < 6; ++j) y[j] = x[j] + half * k1[j];
      broadcastMotion(y, lunisolar, k2);
      for (int j = 0; j < 6; ++j) y[j] = x[j] + half * k2[j];
      broadcastMotion(y, lunisolar, k3);
      for (int j = 0; j < 6; ++j) y[j] = x[j] + h * k3[j];
      broadcastMotion(y, lunisolar, k4);
      for (int j = 0; j < 6; ++j) x[j] += ((k1[j] * sixth + k2[j] * third) + k3[j] * third) + k4[j] * sixth;
    }
  }
  if (position.size() != 3) position.resize(3);
  if (velocity.size() != 3) velocity.resize(3);
  for (std::size_t k = 0; k < 3; ++k) {
    position(k) = x[k];
    velocity(k) = x[k + 3];
  }
}

std::vector<double> glonassSlots(double fitEnd, double days, int leapSeconds) {
  std::vector<double> slots;
  double const first = std::ceil((fitEnd - leapSeconds - kSlotPhase) / kSlotSpacing - 1e-9) * kSlotSpacing +
                       kSlotPhase + leapSeconds;
  for (double t = first; t <= fitEnd + days * kSecondsPerDay + 1e-6; t += kSlotSpacing) slots.push_back(t);
  return slots;
}

SatellitePrediction predictGlonassFromBroadcast(std::vector<Ephemeris> const& records,
                                                PipelineOptions const& o) {
  SatellitePrediction result;
  if (records.empty()) {
    result.skipReason = "no ephemerides";
    return result;
  }
  result.sat = records.front().sat;
  result.skipReason = checkOptions(o);
  if (!result.skipReason.empty()) return result;
  std::vector<Ephemeris> const usable = recordsUpTo(records, o.fitEnd);
  if (usable.empty()) {
    result.skipReason = "no ephemeris up to the fit end " + formatGpsTime(o.fitEnd);
    return result;
  }
  ScreeningOptions const screening = screeningOptionsFor('R');
  ScreeningResult const screened = screenEphemerides(usable, screening);
  result.notes = screened.notes;
  std::vector<Ephemeris> const& kept = screened.kept;
  if (usable.back().health != 0) {
    result.skipReason = "unhealthy at the fit end (health " + std::to_string(usable.back().health) +
                        " in the record of " + formatGpsTime(usable.back().toe) + ")";
    return result;
  }
  if (static_cast<int>(kept.size()) < kMinimumRecords) {
    result.skipReason = "only " + std::to_string(kept.size()) +
                        " usable ephemerides up to the fit end (need " + std::to_string(kMinimumRecords) +
                        ")";
    return result;
  }
  int const leap = leapSecondsAt(o.fitEnd);
  Clock const clock = broadcastClock(kept);
  core::GlonassEphemeris const templateRecord = templateFor(result.sat, &kept.back().glonass);
  if (o.glonassStart != GlonassStart::filter) {
    predictFromStates(kept, clock, templateRecord, o, leap, result);
    return result;
  }

  // Samples from the record nearest in time, while within its trusted span;
  // the contiguous run that ends at the fit end is used.
  std::vector<double> t = sampleGrid(o, leap);
  std::vector<Vec> pos(t.size(), Vec(3));
  std::vector<bool> have(t.size(), false);
  Vec vel(3), velocity0(3);
  std::size_t j = 0;
  for (std::size_t k = 0; k < t.size(); ++k) {
    while (j + 1 < kept.size() && std::fabs(kept[j + 1].toe - t[k]) <= std::fabs(kept[j].toe - t[k])) ++j;
    if (std::fabs(kept[j].toe - t[k]) > screening.trusted) continue;
    glonassBroadcastState(kept[j].glonass, t[k], pos[k], vel);
    if (k == 0) velocity0 = vel;
    have[k] = true;
  }
  std::size_t first = t.size();
  while (first > 0 && have[first - 1]) --first;
  if ((t.size() - first) % 2 == 0) ++first;
  double const minimum = minimumFitSpan(o);
  if (first >= t.size() || t.back() - t[first] + 1e-9 < minimum) {
    result.skipReason =
        "broadcast states cover only " +
        std::to_string(first >= t.size() ? 0.0 : (t.back() - t[first]) / 3600.0).substr(0, 4) +
        " h before the fit end, need " + std::to_string(minimum / 3600.0).substr(0, 4) + " h";
    return result;
  }
  if (first > 0) {
    Vec p(3);
    std::size_t nearest = 0;
    for (std::size_t k = 1; k < kept.size(); ++k) {
      if (std::fabs(kept[k].toe - t[first]) < std::fabs(kept[nearest].toe - t[first])) nearest = k;
    }
    glonassBroadcastState(kept[nearest].glonass, t[first], p, velocity0);
  }
  Samples s;
  s.t.assign(t.begin() + static_cast<long>(first), t.end());
  s.velocity0 = velocity0;
  support::AntennaPhase const apc =
      satelliteAssistance(result.sat, support::UNDEFINED_SAT_TYPE, o.fitEnd).antPhase;
  for (std::size_t k = first; k < t.size(); ++k) {
    Vec const wgs = support::pz902ToWgs84(pos[k]);
    s.position.push_back(o.antennaOffset ? support::removeApcOffset(wgs, apc, t[k], leapSecondsAt(t[k]))
                                         : wgs);
  }
  predictFromSamples(s, clock, templateRecord, o, leap, result);
  return result;
}

SatellitePrediction predictGlonassFromSp3(Sp3Orbit const& orbit, SatelliteId const& sat,
                                          PipelineOptions const& o) {
  SatellitePrediction result;
  result.sat = sat;
  result.skipReason = checkOptions(o);
  if (!result.skipReason.empty()) return result;
  int const leap = leapSecondsAt(o.fitEnd);
  std::vector<double> t = sampleGrid(o, leap);
  Samples s;
  for (double tk : t) {
    Vec p(3);
    if (orbit.state(sat, tk, p)) {
      s.t.push_back(tk);
      s.position.push_back(p);
    } else {
      s.t.clear();
      s.position.clear();
    }
  }
  double const minimum = minimumFitSpan(o);
  if (s.t.size() % 2 == 0 && !s.t.empty()) {
    s.t.erase(s.t.begin());
    s.position.erase(s.position.begin());
  }
  if (s.t.empty() || s.t.back() != t.back() || s.t.back() - s.t.front() + 1e-9 < minimum) {
    result.skipReason = "the precise orbit does not cover the fit span up to " + formatGpsTime(t.back());
    return result;
  }
  Vec p(3), v(3);
  orbit.state(sat, s.t.front(), p, &v);
  s.velocity0 = v;
  s.drifting = true;

  // tau = -clock: a least-squares line through the tabulated clocks of the span.
  Clock clock;
  clock.tRef = s.t.back();
  double sw = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
  for (double tk : s.t) {
    double const c = orbit.clock(sat, tk);
    if (!std::isfinite(c)) continue;
    double const x = tk - clock.tRef;
    sw += 1;
    sx += x;
    sy -= c;
    sxx += x * x;
    sxy -= x * c;
  }
  double const det = sw * sxx - sx * sx;
  if (sw >= 2 && det > 0) {
    double const slope = (sw * sxy - sx * sy) / det;
    clock.tau = (sy - slope * sx) / sw;
    clock.gamma = -slope;
  } else {
    result.notes.push_back(toString(sat) + ": no SP3 clocks in the fit span; clock terms set to zero");
  }
  predictFromSamples(s, clock, templateFor(sat, nullptr), o, leap, result);
  return result;
}

}  // namespace host
}  // namespace zarn
