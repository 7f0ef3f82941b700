#include "zarn/host/pipeline.hpp"

#include <time.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <exception>
#include <limits>
#include <memory>
#include <thread>

#include "zarn/host/glonass_pipeline.hpp"
#include "zarn/host/gnss_time.hpp"
#include "zarn/host/screening.hpp"
#include "zarn/support/assistance_data.hpp"
#include "zarn/support/broadcast_interface.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/ephemeris_conversion.hpp"
#include "zarn/support/force_model.hpp"
#include "zarn/support/prediction.hpp"
#include "zarn/support/time_conversion.hpp"
#include "zarn/support/utility.hpp"

namespace zarn {
namespace host {

namespace {

using support::Mat;
using support::Vec;

// Gravity field degrees: below 2 the field is a point mass; the library's
// coefficients end at 16 (force_model.hpp).
constexpr int kMinGeopotentialDegree = 2, kMaxGeopotentialDegree = 16;
constexpr double kGpsSpacing = 7200.0;     // s: GPS reference times on even hours of GPS time
constexpr double kBeidouSpacing = 3600.0;  // s: BeiDou reference times on whole BDT hours
// GPS seconds of BDT 0: BDT = GPS - 14 s, so whole BDT hours fall 14 s after whole GPS hours.
constexpr double kBeidouGridOffset = 14.0;
constexpr int kMinimumRecords = 3;          // fewer usable ephemerides cannot carry a fit span
constexpr double kToeTolerance = 1.0;       // s: the fitted toe must be the requested grid time
constexpr int kRetryExtraSamples = 4;       // samples added to a refused window for its second fit
constexpr double kSampleRmsWarning = 10.0;  // m: a worse fit to the samples is reported
// m: a fit to the samples this bad has a manoeuvre or bad records in its arc.
// Good arcs fit to 0.2-0.5 m (precise orbits), 0.4-2 m (GPS broadcast) and up
// to 4.5 m (BeiDou broadcast) on the shared sets.
constexpr double kManoeuvreRms = 10.0;
// The UT1 rate: estimated over arcs of at least this share of the fit span
// (of a day at most), used when at least this many satellites estimated it.
// From a few satellites the median scatters by a millisecond a day and more
// (the 2009 station file: 1.7 ms from 4, 3.5 ms from 9 with shorter arcs).
constexpr double kRateArcShare = 0.9;
constexpr std::size_t kMinUt1RateEstimates = 5;
// Radiation-pressure estimates are kept inside the ranges the assistance-data
// file quantises them to (p1 dimensionless, p2 in 1e-9 m/s^2).
constexpr double kSrpScaleMin = 0.0, kSrpScaleMax = 3.0;
constexpr double kYBiasMin = -3.0, kYBiasMax = 3.0;
// s: data that begin this long after the start of the long arc still cover it
// (a broadcast record is trusted two hours either side of its reference time).
constexpr double kLongArcStartTolerance = 2 * 3600.0;

support::AssistanceData assistanceOf(SatelliteId const& sat, support::BeidouSvType type,
                                     PipelineOptions const& o) {
  return o.assistance ? o.assistance(sat, type, o.fitEnd) : satelliteAssistance(sat, type, o.fitEnd);
}

double threadCpuSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

double gridOffset(char system) {
  return system == 'C' ? kBeidouGridOffset : 0.0;
}
double spacing(char system) {
  return system == 'C' ? kBeidouSpacing : kGpsSpacing;
}
int windowSamples(PipelineOptions const& o, char system) {
  return system == 'C' ? o.beidouWindowSamples : o.gpsWindowSamples;
}

// Clock polynomial of the satellite: offset (s), drift (s/s), drift rate (s/s^2) at toc (GPS seconds).
struct ClockModel {
  double toc = 0, a0 = 0, a1 = 0, a2 = 0;
};

// Samples of one satellite: Earth-fixed centre-of-mass positions on the grid.
struct Samples {
  std::vector<double> t;
  std::vector<Vec> position;
  Vec velocity0;  // Earth-fixed velocity at t[0]
};

std::string hoursText(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f h", seconds / 3600.0);
  return text;
}

// Sample times: the grid instants of [fitEnd - fitSpan, fitEnd], an odd count
// so that the backward start of the integrator lands on the middle one.
std::vector<double> sampleGrid(PipelineOptions const& o, char system) {
  double const h = o.sampleStep;
  double const off = gridOffset(system);
  double const last = std::floor((o.fitEnd - off) / h + 1e-9) * h + off;
  long long count = static_cast<long long>(std::floor(o.fitSpan / h + 1e-9)) + 1;
  if (count % 2 == 0) --count;
  std::vector<double> t(static_cast<std::size_t>(count));
  for (long long k = 0; k < count; ++k)
    t[static_cast<std::size_t>(k)] = last - static_cast<double>(count - 1 - k) * h;
  return t;
}

// Keeps the contiguous run of available samples that ends at the last grid
// instant, or at the latest available one within maxEndGap of it, trimmed to
// an odd count. Empty `reason` on success.
void keepLastRun(std::vector<double>& t, std::vector<Vec>& pos, std::vector<bool> const& have,
                 PipelineOptions const& o, std::string& reason) {
  std::size_t n = t.size();
  while (n > 0 && !have[n - 1] && t.back() - t[n - 1] + 1e-9 < o.maxEndGap) --n;
  if (n == 0 || !have[n - 1]) {
    reason = "no orbit data at the fit end " + formatGpsTime(t.empty() ? o.fitEnd : t.back());
    if (o.maxEndGap > 0) reason += " or within " + hoursText(o.maxEndGap) + " before it";
    return;
  }
  t.resize(n);
  pos.resize(n);
  std::size_t first = n - 1;
  while (first > 0 && have[first - 1]) --first;
  if ((n - first) % 2 == 0) ++first;
  double const span = t.back() - t[first];
  double const minimum = minimumFitSpan(o);
  if (span + 1e-9 < minimum) {
    reason = "orbit data cover only " + hoursText(span) + " before the fit end" +
             (first > 0 ? " (gap at " + formatGpsTime(t[first - 1]) + ")" : "") + ", need " +
             hoursText(minimum);
    return;
  }
  t.erase(t.begin(), t.begin() + static_cast<long>(first));
  pos.erase(pos.begin(), pos.begin() + static_cast<long>(first));
}

// keepLastRun for a satellite's samples: false with the skip reason set when
// no usable run is left; otherwise the gap between the run and the grid end.
bool keepLastRun(std::vector<double>& t, std::vector<Vec>& pos, std::vector<bool> const& have,
                 PipelineOptions const& o, SatellitePrediction& result) {
  double const gridEnd = t.back();
  keepLastRun(t, pos, have, o, result.skipReason);
  if (!result.skipReason.empty()) return false;
  result.dataEndGap = gridEnd - t.back();
  return true;
}

// A force model read back from its serialized form; null when the bytes do not
// read back whole.
std::unique_ptr<support::ForceModel> copyModel(support::BinaryData const& bytes) {
  std::unique_ptr<support::ForceModel> model(new support::ForceModel());
  unsigned int position = 0;
  if (!model->deserialize(bytes, position) || position != bytes.size()) return nullptr;
  model->setAccurateSunMoon(true);
  return model;
}

// Steps the model's integrator on from where it stands, one step per epoch, and
// gives the Earth-fixed states at `epochs` (the epochs of those steps, in
// order); with antenna, the positions of the antenna phase centre. False when
// it stops short.
bool stepEarthFixed(support::ForceModel& model, Vec const& epochs, int leap, bool antenna, double ut1Rate,
                    Mat& positions, Mat& velocities) {
  unsigned const steps = static_cast<unsigned>(epochs.size());
  positions.resize(3, steps, false);
  velocities.resize(3, steps, false);
  support::OdeFunGj8 ode(model);
  if (model.getGj8Integrator().gj8Propagate(ode, positions, velocities, steps) != steps) return false;
  support::int0StatesToItrs(model, epochs, leap, antenna, ut1Rate, positions, velocities);
  return true;
}

// The initial state estimated from the samples with the given model
// parameters, and the force model as the estimator leaves it; `rms` is the RMS
// distance (m) between the samples and the estimated orbit integrated back
// over the span (infinite when that integration fails).
struct Estimation {
  support::Vec state;  // Int0 position and velocity at the last sample (first 6 elements)
  support::Eop pole;
  support::Srp srp;  // the radiation-pressure parameters propagated with
  bool srpEstimated = false;
  double ut1Rate = 0;  // s/s, the drift the state was fitted with
  bool ut1RateEstimated = false;
  std::string srpNote;        // why the block defaults were kept, when they were
  support::BinaryData model;  // the serialized force model, ready to propagate
  double rms = 0;
  support::BatchEstimate batch;  // when srpEstimated
};

// What the UT1-rate pass keeps of a satellite for its prediction with the
// median rate: the prediction's inputs as they reached the estimate, the
// samples it fitted, its estimate and the notes on them.
struct RatePass {
  bool kept = false;
  SatellitePrediction start;
  Samples given;
  support::BeidouSvType type = support::UNDEFINED_SAT_TYPE;
  ClockModel clock;
  Ephemeris templateRecord;
  Samples samples;
  Estimation estimate;
  std::vector<std::string> notes;
};

}  // namespace

std::string srpRefusal(support::BatchEstimate const& b) {
  char text[160];
  if (!b.converged) {
    std::snprintf(text, sizeof text, "no convergence in %d iterations (residual %.2f m)", b.iterations,
                  b.rms);
    return text;
  }
  double const p1 = b.state(6), p2 = b.state(7);
  if (!(p1 >= kSrpScaleMin && p1 <= kSrpScaleMax && p2 >= kYBiasMin && p2 <= kYBiasMax)) {
    std::snprintf(text, sizeof text, "estimate p1 %.3f, p2 %.3f outside [%g, %g] x [%g, %g]", p1, p2,
                  kSrpScaleMin, kSrpScaleMax, kYBiasMin, kYBiasMax);
    return text;
  }
  return "";
}

namespace {

double sampleRms(Estimation const& e, Samples const& s, PipelineOptions const& o, int leap);

Estimation estimateFrom(Samples const& s, support::AssistanceData const& assistance,
                        support::BeidouSvType type, PipelineOptions const& o, int leap) {
  std::size_t const n = s.t.size();
  Vec times(n);
  Mat positions(n, 3), velocities(n, 3);
  for (std::size_t k = 0; k < n; ++k) {
    times(k) = s.t[k];
    for (std::size_t c = 0; c < 3; ++c) {
      positions(k, c) = s.position[k](c);
      velocities(k, c) = k == 0 ? s.velocity0(c) : 0.0;
    }
  }
  auto freshModel = [&]() {
    std::unique_ptr<support::ForceModel> model(new support::ForceModel());
    model->setLeapInfo(leapSecondTable());
    model->setAssistanceData(assistance);
    model->setNumberOfGeopotentialCoefficients(o.geopotentialDegree);
    model->setAccurateSunMoon(true);
    model->setInertialFrameInfo(support::makeInertialFrameInfo(s.t[0], 0.0, leap));
    model->setEopInfo(support::makeEopInfo(o.pole));
    return model;
  };
  Estimation e;
  e.srp = assistance.srp;
  std::unique_ptr<support::ForceModel> model = freshModel();
  if (o.estimateSrp) {
    std::string refusal;
    if (s.t.back() - s.t.front() + 1e-9 < kMinSrpArc) {
      refusal = "arc of " + hoursText(s.t.back() - s.t.front()) + ", need " + hoursText(kMinSrpArc);
    } else {
      // A rate needs a whole day: over shorter arcs (after gaps) it scatters.
      bool const rateFree =
          o.estimateUt1Rate && !holdsPole(type) &&
          s.t.back() - s.t.front() + 1e-9 >= kRateArcShare * std::min(o.fitSpan, kDefaultFitSpan);
      support::BatchEstimate const b = support::estimateInitialStateBatch(
          times, positions, velocities, o.pole, !holdsPole(type),
          holdsPole(type) ? o.geoSrpSigma : o.srpSigma, rateFree, o.ut1Rate, *model, true);
      refusal = srpRefusal(b);
      if (refusal.empty()) {
        e.state = b.state;
        e.pole = b.pole;
        e.ut1Rate = b.ut1Rate;
        e.ut1RateEstimated = rateFree;
        e.srp[0] = b.state(6);
        e.srp[1] = b.state(7);
        e.srpEstimated = true;
        e.batch = b;
      }
    }
    if (!refusal.empty()) {
      char text[96];
      std::snprintf(text, sizeof text, "; block defaults p1 %.3f, p2 %.3f kept", assistance.srp[0],
                    assistance.srp[1]);
      e.srpNote = "radiation pressure not estimated: " + refusal + text;
      model = freshModel();
    }
  }
  if (!e.srpEstimated) {
    support::InitialStateEstimate const f =
        support::estimateInitialState(times, positions, velocities, o.pole, *model, true, type);
    e.state = f.state;
    e.pole = support::Eop{f.state(6), f.state(7)};
  }
  model->serialize(e.model);
  // The UT1-rate pass takes the fit's own residual: its estimate is moved and
  // measured again before anything is predicted from it.
  e.rms = e.srpEstimated && o.estimateOnly && o.estimateUt1Rate ? e.batch.rms : sampleRms(e, s, o, leap);
  return e;
}

// The RMS distance (m) between the samples and the estimated orbit integrated
// back over them; infinite when that integration fails.
double sampleRms(Estimation const& e, Samples const& s, PipelineOptions const& o, int leap) {
  std::size_t const n = s.t.size();
  double const failed = std::numeric_limits<double>::infinity();
  std::unique_ptr<support::ForceModel> back = copyModel(e.model);
  if (!back) return failed;
  support::OdeFunGj8 ode(*back);
  Vec r0(3), v0(3);
  for (std::size_t c = 0; c < 3; ++c) {
    r0(c) = e.state(c);
    v0(c) = e.state(c + 3);
  }
  Vec epochs(n - 1);  // backwards from the last sample: the newest column is the earliest sample
  for (std::size_t j = 0; j + 1 < n; ++j) epochs(j) = s.t[n - 2 - j];
  Mat earthFixed, earthFixedVelocities;
  if (back->getGj8Integrator().gj8Init(ode, r0, v0, s.t[n - 1], -o.sampleStep) != 0 ||
      !stepEarthFixed(*back, epochs, leap, false, e.ut1Rate, earthFixed, earthFixedVelocities)) {
    return failed;
  }
  double sum = 0.0;
  for (std::size_t j = 0; j + 1 < n; ++j) {
    double const d = support::distance(boost::numeric::ublas::column(earthFixed, j), s.position[n - 2 - j]);
    sum += d * d;
  }
  return std::sqrt(sum / static_cast<double>(n - 1));
}

// The estimate of the UT1-rate pass moved to the rate held at o.ut1Rate, as
// a fit with that rate would give it; false when it cannot be moved.
bool holdRate(RatePass const& pass, PipelineOptions const& o, Estimation& e) {
  Samples const& s = pass.samples;
  std::unique_ptr<support::ForceModel> model = copyModel(pass.estimate.model);
  if (!pass.kept || !model) return false;
  Vec times(s.t.size());
  for (std::size_t k = 0; k < s.t.size(); ++k) times(k) = s.t[k];
  support::BatchEstimate const b = support::holdUt1Rate(pass.estimate.batch, o.ut1Rate, times, *model, true);
  if (!b.converged) return false;
  e = pass.estimate;
  e.state = b.state;
  e.pole = b.pole;
  e.srp[0] = b.state(6);
  e.srp[1] = b.state(7);
  e.ut1Rate = b.ut1Rate;
  e.ut1RateEstimated = false;
  e.batch = b;
  e.model.clear();
  model->serialize(e.model);
  e.rms = sampleRms(e, s, o, leapSecondsAt(s.t[s.t.size() / 2]));
  return true;
}

// The samples from index `first` (at least 2) on; the Earth-fixed velocity at
// the new first sample from the five positions around it (fourth-order
// central difference: 4 cm/s at GPS height with a 900 s step, a first guess).
Samples latestSamples(Samples const& s, std::size_t first) {
  Samples later;
  later.t.assign(s.t.begin() + static_cast<std::ptrdiff_t>(first), s.t.end());
  later.position.assign(s.position.begin() + static_cast<std::ptrdiff_t>(first), s.position.end());
  double const h = s.t[first + 1] - s.t[first];
  later.velocity0 = (8.0 * (s.position[first + 1] - s.position[first - 1]) -
                     (s.position[first + 2] - s.position[first - 2])) /
                    (12.0 * h);
  return later;
}

// The reference times of one satellite's predicted ephemerides and the states
// each is fitted to. The window of toe holds `samples` states one step apart,
// its middle state (samples / 2 - 1) on toe.
struct WindowPlan {
  double start = 0;  // GPS seconds: where the integrator of the estimated state starts
  double step = 0;   // s
  int samples = 0;
  std::vector<double> toes;

  double first(double toe, int n) const { return toe - (n / 2 - 1) * step; }
  double first(double toe) const { return first(toe, samples); }
  double last(double toe, int n) const { return toe + (n / 2) * step; }
  double last(double toe) const { return last(toe, samples); }
  // Column of epoch t in a propagation from start (column 0: the first step).
  long long column(double t) const { return std::llround((t - start) / step) - 1; }
};

WindowPlan planWindows(PipelineOptions const& o, char system, double start) {
  WindowPlan plan;
  plan.start = start;
  plan.step = o.sampleStep;
  plan.samples = windowSamples(o, system);
  double const S = spacing(system);
  double const off = gridOffset(system);
  for (double toe = std::ceil((o.fitEnd - off) / S - 1e-9) * S + off;
       toe <= o.fitEnd + o.days * kSecondsPerDay + 1e-6; toe += S) {
    // The first window must begin after the integrator's start.
    if (plan.first(toe) < start + plan.step) continue;
    plan.toes.push_back(toe);
  }
  return plan;
}

// What an encoded record carries besides the fitted orbit.
struct RecordFields {
  SatelliteId sat;
  ClockModel clock;
  Ephemeris templateRecord;              // the fields that neither the fit nor the encoding sets
  support::PredictionErrorParams error;  // accuracy growth with prediction age
  double fitEnd = 0;
  PipelineOptions const* options = nullptr;  // for its predictedClock hook
};

bool fromKepler(Vec const& kepler, core::GpsEphemeris& eph) {
  return support::keplerianToGpsEphemeris(kepler, eph);
}
bool fromKepler(Vec const& kepler, core::BeidouEphemeris& eph) {
  return support::keplerianToBeidouEphemeris(kepler, eph);
}
void setIssue(unsigned issue, core::GpsEphemeris& eph) {
  eph.iode = static_cast<std::uint8_t>(issue);
  eph.iodc = static_cast<std::int16_t>(issue);
}
void setIssue(unsigned issue, core::BeidouEphemeris& eph) {
  eph.aode = static_cast<std::uint8_t>(issue);
  eph.aodc = static_cast<std::int16_t>(issue);
  eph.iodc = static_cast<std::uint8_t>(issue);  // RINEX carries one age of data clock: the two agree
}
Ephemeris toEphemeris(core::GpsEphemeris const& eph) {
  return fromGps(eph);
}
Ephemeris toEphemeris(core::BeidouEphemeris const& eph) {
  return fromBeidou(eph);
}

// The fitted elements as the GPS or BeiDou record of reference time toe; false
// when they or the clock leave the broadcast ranges or the toe is not toe.
template <typename Record>
bool encodeAs(Record eph, Vec const& kepler, double toe, RecordFields const& f, Ephemeris& out) {
  char const system = f.sat.system;
  double const dt = toe - f.clock.toc;
  std::array<double, 3> predicted{};
  bool const hooked =
      f.options != nullptr && f.options->predictedClock && f.options->predictedClock(f.sat, toe, predicted);
  support::broadcast::ClockTerms const clock{
      hooked ? predicted[0] : f.clock.a0 + f.clock.a1 * dt + f.clock.a2 * dt * dt,
      hooked ? predicted[1] : f.clock.a1 + 2.0 * f.clock.a2 * dt, hooked ? predicted[2] : f.clock.a2};
  unsigned const issue =
      static_cast<unsigned>(std::llround((toe - gridOffset(system)) / spacing(system))) & 0xFFu;
  double const ura = support::estimateSisreError(f.error, toe - f.fitEnd);
  bool const valid = fromKepler(kepler, eph) && support::broadcast::encodeClock(clock, eph);
  eph.svId = static_cast<std::uint16_t>(f.sat.prn);
  eph.toc = eph.toe;
  eph.health = 0;
  setIssue(issue, eph);
  eph.uraIndex = static_cast<std::int8_t>(support::metersToUraIndex(ura, gnssType(system)));
  out = toEphemeris(eph);
  return valid && std::fabs(out.toe - toe) <= kToeTolerance;
}

bool encode(Vec const& kepler, double toe, RecordFields const& f, Ephemeris& out) {
  return f.sat.system == 'C' ? encodeAs(f.templateRecord.beidou, kepler, toe, f, out)
                             : encodeAs(f.templateRecord.gps, kepler, toe, f, out);
}

enum class WindowOutcome { kept, fitFailed, refused };

// The Earth-fixed antenna-phase-centre states of the whole prediction, one
// column per integration step from the plan's start (WindowPlan::column).
struct Trajectory {
  Vec epochs;
  Mat positions, velocities;
};

// Broadcast elements fitted to the n states of the trajectory centred on toe,
// the iteration started from the elements of a neighbouring window when given;
// false when they leave the trajectory or the fit fails.
bool fitStates(Trajectory const& path, WindowPlan const& plan, double toe, int n, core::GnssType gnss,
               Vec const& start, Vec& kepler) {
  namespace ublas = boost::numeric::ublas;
  long long const first = plan.column(plan.first(toe, n));
  if (first < 0 || first + n > static_cast<long long>(path.epochs.size())) return false;
  ublas::range const rows(0, 3), cols(static_cast<std::size_t>(first), static_cast<std::size_t>(first + n));
  Mat const r = ublas::project(path.positions, rows, cols), v = ublas::project(path.velocities, rows, cols);
  Vec const t = ublas::project(path.epochs, cols);
  return support::satelliteStatesToKeplerian(gnss, r, v, t, start, kepler);
}

// Fits and encodes the window of toe, starting from the elements of the
// previous window (`previous`, empty for none), which become this window's. A
// refused window is fitted once more over a longer arc around the same toe,
// in case its elements left the broadcast ranges over the short one.
WindowOutcome fitWindow(Trajectory const& path, double toe, WindowPlan const& plan,
                        RecordFields const& fields, Vec& previous, Ephemeris& out) {
  core::GnssType const gnss = gnssType(fields.sat.system);
  Vec kepler(17);
  bool const fitted = fitStates(path, plan, toe, plan.samples, gnss, previous, kepler);
  previous = fitted ? kepler : Vec();
  if (fitted && encode(kepler, toe, fields, out)) return WindowOutcome::kept;
  if (!fitStates(path, plan, toe, plan.samples + kRetryExtraSamples, gnss, Vec(), kepler))
    return WindowOutcome::fitFailed;
  return encode(kepler, toe, fields, out) ? WindowOutcome::kept : WindowOutcome::refused;
}

// The largest distance (m) between a written ephemeris and the states of its
// window.
double maxFitResidual(std::vector<Ephemeris> const& predicted, WindowPlan const& plan,
                      Trajectory const& path) {
  long long const steps = static_cast<long long>(path.epochs.size());
  double worst = 0.0;
  Vec pos(3), vel(3);
  for (Ephemeris const& e : predicted) {
    for (int i = 0; i < plan.samples; ++i) {
      double const t = plan.first(e.toe) + i * plan.step;
      long long const col = plan.column(t);
      if (col < 0 || col >= steps) continue;
      ephemerisState(e, t, pos, vel);
      worst = std::max(worst, support::distance(pos, boost::numeric::ublas::column(
                                                         path.positions, static_cast<std::size_t>(col))));
    }
  }
  return worst;
}

// One line on the windows that were not written.
std::string refusalNote(SatelliteId const& sat, std::size_t windows, int fitFailures, double firstFailure,
                        int refusals, double firstRefusal) {
  std::string text = toString(sat) + ": " + std::to_string(fitFailures + refusals) + " of " +
                     std::to_string(windows) + " windows refused:";
  if (fitFailures > 0) {
    text += " " + std::to_string(fitFailures) + " Keplerian fits failed (first at toe " +
            formatGpsTime(firstFailure) + ")";
  }
  if (refusals > 0) {
    text += std::string(fitFailures > 0 ? ";" : "") + " " + std::to_string(refusals) +
            " element sets out of the broadcast ranges (first at toe " + formatGpsTime(firstRefusal) + ")";
  }
  return text;
}

// The whole prediction from centre-of-mass samples: estimate, plan the
// windows, propagate once over all of them, fit each, optionally check the fit.
// With `pass`, the UT1-rate pass (o.estimateOnly, o.estimateUt1Rate) keeps its
// estimate there and the runs after it, the rate held, move that estimate to
// the held rate.
void predictFromSamples(Samples const& given, support::BeidouSvType type, ClockModel const& clock,
                        Ephemeris const& templateRecord, PipelineOptions const& o,
                        SatellitePrediction& result, RatePass* pass) {
  support::AssistanceData assistance = assistanceOf(result.sat, type, o);
  if (!o.antennaOffset) assistance.antPhase.fill(0.0);
  double const cpu0 = threadCpuSeconds();
  Samples s = given;
  Estimation best;
  bool const held = pass != nullptr && !o.estimateUt1Rate && holdRate(*pass, o, best);
  std::size_t const givenNotes = result.notes.size();
  if (held) {
    s = pass->samples;
    result.notes.insert(result.notes.end(), pass->notes.begin(), pass->notes.end());
  } else {
    best = estimateFrom(s, assistance, type, o, leapSecondsAt(s.t[s.t.size() / 2]));
  }
  // No orbit passes through a manoeuvre or a span of bad records: fit only the
  // latest part of the arc, when that fits better: the last day of a longer
  // arc, else as long as a span after a gap may be.
  double const minimum =
      s.t.back() - s.t.front() > kDefaultFitSpan + 1e-9 ? kDefaultFitSpan : minimumFitSpan(o);
  std::size_t first = s.t.size() - 1;
  while (first > 0 && s.t.back() - s.t[first] + 1e-9 < minimum) --first;
  if (!held && !(best.rms <= kManoeuvreRms) && first >= 2 && first + 3 <= s.t.size()) {
    Samples later = latestSamples(s, first);
    Estimation e = estimateFrom(later, assistance, type, o, leapSecondsAt(later.t[later.t.size() / 2]));
    if (e.rms < best.rms) {
      char text[240];
      std::snprintf(text, sizeof text,
                    "%s: the orbit misses the %s arc by %.1f m RMS (a manoeuvre or bad records); fitted "
                    "from %s only",
                    toString(result.sat).c_str(), hoursText(s.t.back() - s.t.front()).c_str(), best.rms,
                    formatGpsTime(later.t.front()).c_str());
      result.notes.push_back(text);
      s = std::move(later);
      best = std::move(e);
    }
  }
  if (pass != nullptr && o.estimateOnly && o.estimateUt1Rate) {
    pass->kept = best.ut1RateEstimated && best.batch.ut1RateSensitivity.size() > 0;
    pass->start = result;
    pass->start.notes.resize(givenNotes);
    pass->given = given;
    pass->type = type;
    pass->clock = clock;
    pass->templateRecord = templateRecord;
    pass->samples = s;
    pass->estimate = best;
    pass->notes.assign(result.notes.begin() + static_cast<std::ptrdiff_t>(givenNotes), result.notes.end());
  }
  std::size_t const n = s.t.size();
  int const leap = leapSecondsAt(s.t[n / 2]);
  result.fitStart = s.t.front();
  result.fitEnd = s.t.back();
  result.samples = static_cast<int>(n);
  result.svType = type;
  double const cpu1 = threadCpuSeconds();
  result.estimateSeconds = cpu1 - cpu0;
  result.pole = best.pole;
  result.srp = best.srp;
  result.srpEstimated = best.srpEstimated;
  result.ut1Rate = best.ut1Rate;
  result.ut1RateEstimated = best.ut1RateEstimated;
  if (!best.srpNote.empty()) result.notes.push_back(toString(result.sat) + ": " + best.srpNote);
  result.sampleRms = best.rms;
  if (result.sampleRms > kSampleRmsWarning) {
    char text[160];
    std::snprintf(text, sizeof text, "%s: the estimated orbit misses its samples by %.1f m RMS",
                  toString(result.sat).c_str(), result.sampleRms);
    result.notes.push_back(text);
  }

  if (o.estimateOnly) return;

  // The integrator starts at the middle sample; one propagation serves every
  // window, the retries' longer arcs included.
  WindowPlan const plan = planWindows(o, result.sat.system, s.t[n / 2]);
  std::unique_ptr<support::ForceModel> model = copyModel(best.model);
  if (!model) {
    result.skipReason = "the estimated force model does not read back from its serialized form";
    return;
  }
  Trajectory path;
  if (!plan.toes.empty()) {
    long long const steps =
        std::max(0LL, plan.column(plan.last(plan.toes.back(), plan.samples + kRetryExtraSamples)) + 1);
    path.epochs.resize(static_cast<std::size_t>(steps));
    for (std::size_t j = 0; j < path.epochs.size(); ++j)
      path.epochs(j) = plan.start + static_cast<double>(j + 1) * plan.step;
    if (!stepEarthFixed(*model, path.epochs, leap, o.antennaOffset, best.ut1Rate, path.positions,
                        path.velocities)) {
      result.notes.push_back(toString(result.sat) + ": propagation failed at the window of toe " +
                             formatGpsTime(plan.toes.front()) + "; the prediction ends there");
      path = Trajectory();
    }
  }
  RecordFields const fields{result.sat, clock, templateRecord, assistance.errorParams, o.fitEnd, &o};
  int fitFailures = 0, refusals = 0;
  double firstFailure = 0, firstRefusal = 0;
  Vec previous;
  for (std::size_t i = 0; i < plan.toes.size() && path.epochs.size() > 0; ++i) {
    double const toe = plan.toes[i];
    Ephemeris e;
    WindowOutcome const outcome = fitWindow(path, toe, plan, fields, previous, e);
    if (outcome == WindowOutcome::fitFailed && fitFailures++ == 0) firstFailure = toe;
    if (outcome == WindowOutcome::refused && refusals++ == 0) firstRefusal = toe;
    if (outcome == WindowOutcome::kept) result.predicted.push_back(e);
  }
  result.rejected = fitFailures + refusals;
  if (result.rejected > 0) {
    result.notes.push_back(
        refusalNote(result.sat, plan.toes.size(), fitFailures, firstFailure, refusals, firstRefusal));
  }
  double const cpu2 = threadCpuSeconds();
  result.propagateSeconds = cpu2 - cpu1;

  if (o.checkFit && !result.predicted.empty())
    result.maxFitResidual = maxFitResidual(result.predicted, plan, path);
  result.cpuSeconds = threadCpuSeconds() - cpu0;
}

}  // namespace

bool holdsPole(support::BeidouSvType type) {
  return type == support::GEO || type == support::IGSO;
}

support::BeidouSvType orbitType(std::vector<Ephemeris> const& records) {
  if (records.empty()) return support::UNDEFINED_SAT_TYPE;
  auto latest = std::max_element(records.begin(), records.end(),
                                 [](Ephemeris const& a, Ephemeris const& b) { return a.toe < b.toe; });
  return svType(*latest);
}

namespace {
double median(std::vector<double>& v) {
  std::sort(v.begin(), v.end());
  std::size_t const h = v.size() / 2;
  return v.size() % 2 == 1 ? v[h] : 0.5 * (v[h - 1] + v[h]);
}
}  // namespace

support::Eop medianPole(std::vector<SatellitePrediction> const& predictions) {
  std::vector<double> xp, yp;
  for (SatellitePrediction const& p : predictions) {
    if (!p.skipReason.empty() || p.samples == 0 || holdsPole(p.svType)) continue;
    xp.push_back(p.pole.xp);
    yp.push_back(p.pole.yp);
  }
  support::Eop pole;
  if (xp.empty()) return pole;
  pole.xp = median(xp);
  pole.yp = median(yp);
  return pole;
}

double medianUt1Rate(std::vector<SatellitePrediction> const& predictions) {
  std::vector<double> rates;
  for (SatellitePrediction const& p : predictions) {
    if (p.skipReason.empty() && p.ut1RateEstimated) rates.push_back(p.ut1Rate);
  }
  return rates.empty() ? 0.0 : median(rates);
}

double minimumFitSpan(PipelineOptions const& o) {
  return o.minFitSpan > 0 ? o.minFitSpan : 0.5 * std::min(o.fitSpan, kDefaultFitSpan);
}

std::string validate(PipelineOptions const& o) {
  if (!(o.sampleStep > 0) || std::fmod(kBeidouSpacing, o.sampleStep) != 0.0) {
    return "the step must divide one hour into whole steps";
  }
  if (!(o.fitSpan >= 4 * o.sampleStep)) return "the fit span must hold at least five samples";
  if (!(o.days > 0) || o.days > kMaxPredictionDays) {
    return "the prediction length must be above 0 and at most " +
           std::to_string(std::lround(kMaxPredictionDays)) + " days";
  }
  for (char system : {'G', 'C'}) {
    int const n = windowSamples(o, system);
    if (n < 2 || n % 2 != 0) return "a window must hold an even number of samples, at least 2";
  }
  if (o.geopotentialDegree < kMinGeopotentialDegree || o.geopotentialDegree > kMaxGeopotentialDegree) {
    return "the gravity field degree must be " + std::to_string(kMinGeopotentialDegree) + ".." +
           std::to_string(kMaxGeopotentialDegree);
  }
  return "";
}

double windowHours(PipelineOptions const& o, char system) {
  return (windowSamples(o, system) - 1) * o.sampleStep / 3600.0;
}

namespace {

SatellitePrediction predictBroadcast(std::vector<Ephemeris> const& records, PipelineOptions const& o,
                                     RatePass* pass) {
  SatellitePrediction result;
  if (records.empty()) {
    result.skipReason = "no ephemerides";
    return result;
  }
  if (records.front().sat.system == 'R') return predictGlonassFromBroadcast(records, o);
  result.sat = records.front().sat;
  char const system = result.sat.system;
  std::vector<Ephemeris> const usable = recordsUpTo(records, o.fitEnd);
  if (usable.empty()) {
    result.skipReason = "no ephemeris up to the fit end " + formatGpsTime(o.fitEnd);
    return result;
  }
  if (usable.back().health != 0) {
    char text[120];
    std::snprintf(text, sizeof text, "unhealthy at the fit end (health %d in the record of toe %s)",
                  usable.back().health, formatGpsTime(usable.back().toe).c_str());
    result.skipReason = text;
    return result;
  }
  ScreeningOptions const screening = screeningOptionsFor(system);
  ScreeningResult screened = screenEphemerides(usable, screening);
  result.notes = screened.notes;
  if (static_cast<int>(screened.kept.size()) < kMinimumRecords) {
    result.skipReason = "only " + std::to_string(screened.kept.size()) +
                        " usable ephemerides up to the fit end (need " + std::to_string(kMinimumRecords) +
                        ")";
    return result;
  }

  // Antenna-phase-centre positions from the record nearest in toe, moved to the centre of mass.
  std::vector<double> t = sampleGrid(o, system);
  std::vector<Vec> pos(t.size(), Vec(3));
  std::vector<bool> have(t.size(), false);
  std::vector<Ephemeris> const& kept = screened.kept;
  double const trusted = screening.trusted;
  Vec vel(3), velocity0(3);
  std::size_t j = 0;
  for (std::size_t k = 0; k < t.size(); ++k) {
    while (j + 1 < kept.size() && std::fabs(kept[j + 1].toe - t[k]) <= std::fabs(kept[j].toe - t[k])) ++j;
    if (std::fabs(kept[j].toe - t[k]) > trusted) continue;
    ephemerisState(kept[j], t[k], pos[k], vel);
    have[k] = true;
  }
  if (!keepLastRun(t, pos, have, o, result)) return result;
  Ephemeris const& last = kept.back();
  support::BeidouSvType const type = svType(last);
  // The first sample's velocity, from the record nearest in toe.
  std::size_t nearest = 0;
  for (std::size_t k = 1; k < kept.size(); ++k) {
    if (std::fabs(kept[k].toe - t[0]) < std::fabs(kept[nearest].toe - t[0])) nearest = k;
  }
  Vec p0(3);
  ephemerisState(kept[nearest], t[0], p0, velocity0);
  Samples s;
  s.t = t;
  s.position = pos;
  s.velocity0 = velocity0;
  if (o.antennaOffset) {
    support::AntennaPhase const apc = assistanceOf(result.sat, type, o).antPhase;
    for (std::size_t k = 0; k < s.t.size(); ++k) {
      s.position[k] = support::removeApcOffset(s.position[k], apc, s.t[k], leapSecondsAt(s.t[k]));
    }
  }

  ClockModel clock;
  clock.toc = last.toc;
  support::broadcast::ClockTerms const terms = system == 'C' ? support::broadcast::decodeClock(last.beidou)
                                                             : support::broadcast::decodeClock(last.gps);
  clock.a0 = terms.a0;
  clock.a1 = terms.a1;
  clock.a2 = terms.a2;
  predictFromSamples(s, type, clock, last, o, result, pass);
  return result;
}

SatellitePrediction predictSp3(Sp3Orbit const& orbit, SatelliteId const& sat, PipelineOptions const& options,
                               RatePass* pass) {
  if (sat.system == 'R') return predictGlonassFromSp3(orbit, sat, options);
  PipelineOptions o = options;
  o.srpSigma = options.preciseSrpSigma;
  SatellitePrediction result;
  result.sat = sat;
  std::vector<double> t = sampleGrid(o, sat.system);
  std::vector<Vec> pos(t.size(), Vec(3));
  std::vector<bool> have(t.size(), false);
  for (std::size_t k = 0; k < t.size(); ++k) have[k] = orbit.state(sat, t[k], pos[k]);
  if (!keepLastRun(t, pos, have, o, result)) return result;
  Samples s;
  s.t = t;
  s.position = pos;
  Vec p(3), v(3);
  orbit.state(sat, t[0], p, &v);
  s.velocity0 = v;

  // Clock: least-squares line through the tabulated clocks of the span.
  ClockModel clock;
  clock.toc = t.back();
  double sw = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
  for (double tk : t) {
    double const c = orbit.clock(sat, tk);
    if (!std::isfinite(c)) continue;
    double const x = tk - clock.toc;
    sw += 1;
    sx += x;
    sy += c;
    sxx += x * x;
    sxy += x * c;
  }
  double const det = sw * sxx - sx * sx;
  if (sw >= 2 && det > 0) {
    clock.a1 = (sw * sxy - sx * sy) / det;
    clock.a0 = (sy - clock.a1 * sx) / sw;
  } else {
    result.notes.push_back(toString(sat) + ": no SP3 clocks in the fit span; clock terms set to zero");
  }
  Ephemeris templateRecord;
  templateRecord.sat = sat;
  predictFromSamples(s, orbit.svType(sat), clock, templateRecord, o, result, pass);
  return result;
}

}  // namespace

SatellitePrediction predictFromBroadcast(std::vector<Ephemeris> const& records, PipelineOptions const& o) {
  return predictBroadcast(records, o, nullptr);
}

SatellitePrediction predictFromSp3(Sp3Orbit const& orbit, SatelliteId const& sat, PipelineOptions const& o) {
  return predictSp3(orbit, sat, o, nullptr);
}

namespace {

bool selected(SatelliteId const& sat, ConstellationOptions const& o) {
  if (std::find(o.systems.begin(), o.systems.end(), sat.system) == o.systems.end()) return false;
  return o.satellites.empty() ||
         std::find(o.satellites.begin(), o.satellites.end(), sat) != o.satellites.end();
}

// GPS and BeiDou MEO satellites give the Earth's orientation (UT1 rate, pole)
// to every satellite; GLONASS does not (its filter holds the radiation pressure).
bool givesEarthOrientation(SatelliteId const& sat, support::BeidouSvType type) {
  return sat.system != 'R' && !holdsPole(type);
}

// Runs predict(i, options, pass) for the selected satellites sats[0, selected)
// of orbit types types[i], those that estimate the pole first, each worker
// taking the next satellite as it comes free; pass is what the UT1-rate pass
// kept of it. The satellites after them only estimate: they complete the set
// that gives the Earth's orientation, so that a satellite's prediction does not
// depend on which others are selected. A satellite whose prediction throws is
// skipped with the reason.
ConstellationPrediction predictAll(
    std::vector<SatelliteId> const& sats, std::vector<support::BeidouSvType> const& types,
    std::size_t selected, double fitEnd, ConstellationOptions const& o,
    std::function<SatellitePrediction(std::size_t, PipelineOptions const&, RatePass*)> const& predict) {
  ConstellationPrediction result;
  result.fitEnd = fitEnd;
  result.satellites.resize(types.size());
  std::vector<std::size_t> estimating, holding, reference, extra;
  for (std::size_t i = 0; i < types.size(); ++i) {
    if (givesEarthOrientation(sats[i], types[i])) reference.push_back(i);
    if (i >= selected)
      extra.push_back(i);
    else
      (holdsPole(types[i]) ? holding : estimating).push_back(i);
  }
  std::vector<RatePass> passes(types.size());
  std::atomic<std::size_t> done{0};
  if (o.progress && selected > 0) o.progress(0, selected);
  auto run = [&](std::vector<std::size_t> const& which, PipelineOptions const& options, bool report) {
    std::atomic<std::size_t> next{0};
    auto worker = [&]() {
      for (std::size_t k = next++; k < which.size(); k = next++) {
        SatellitePrediction& p = result.satellites[which[k]];
        RatePass& pass = passes[which[k]];
        try {
          if (pass.kept && !options.estimateUt1Rate) {
            // The records were screened and sampled for the UT1-rate pass.
            p = pass.start;
            predictFromSamples(pass.given, pass.type, pass.clock, pass.templateRecord, options, p, &pass);
          } else {
            p = predict(which[k], options, &pass);
          }
        } catch (std::exception const& e) {
          p = SatellitePrediction();
          p.sat = sats[which[k]];
          p.skipReason = std::string("prediction failed: ") + e.what();
        }
        if (o.progress && report) o.progress(++done, selected);
      }
    };
    std::vector<std::thread> threads;
    unsigned const count = std::min<unsigned>(std::max(1u, o.threads), static_cast<unsigned>(which.size()));
    for (unsigned i = 0; i < count; ++i) threads.emplace_back(worker);
    for (std::thread& t : threads) t.join();
  };
  PipelineOptions options = o.pipeline;
  options.fitEnd = fitEnd;
  bool const rateFirst = options.estimateUt1Rate && options.estimateSrp;
  result.ut1Rate = options.ut1Rate;
  if (rateFirst) {
    // One Earth: the GPS and BeiDou satellites that estimate the pole estimate
    // the rate first, then every satellite takes their median.
    options.estimateOnly = true;
    run(reference, options, false);
    options.estimateOnly = o.pipeline.estimateOnly;
    std::size_t const estimates = static_cast<std::size_t>(std::count_if(
        result.satellites.begin(), result.satellites.end(),
        [](SatellitePrediction const& p) { return p.skipReason.empty() && p.ut1RateEstimated; }));
    if (estimates >= kMinUt1RateEstimates) {
      result.ut1RateEstimates = estimates;
      result.ut1Rate = medianUt1Rate(result.satellites);
    }
    options.estimateUt1Rate = false;
    options.ut1Rate = result.ut1Rate;
  }
  run(estimating, options, true);
  if (!holding.empty()) {
    PipelineOptions estimateOnly = options;
    estimateOnly.estimateOnly = true;
    run(extra, estimateOnly, false);
    std::vector<SatellitePrediction> givers;
    for (std::size_t i : reference) givers.push_back(result.satellites[i]);
    options.pole = medianPole(givers);
  }
  run(holding, options, true);
  result.satellites.resize(selected);
  result.poleHolders = holding.size();
  result.heldPole = options.pole;
  return result;
}

}  // namespace

double fitSpanFor(char system, double dataStart, double fitEnd, ConstellationOptions const& o) {
  if (o.fitSpanGiven) return o.pipeline.fitSpan;
  // The GLONASS filter estimates no radiation pressure: over two days of the
  // 2019 precise set its day-1 median grew from 3.0 to 6.5 m.
  if (system == 'R' || !(o.longFitSpan > kDefaultFitSpan)) return kDefaultFitSpan;
  return dataStart <= fitEnd - o.longFitSpan + kLongArcStartTolerance ? o.longFitSpan : kDefaultFitSpan;
}

namespace {

// Counts the satellites of each arc length for the report.
void countArcs(std::vector<double> const& spans, ConstellationOptions const& o, ConstellationPrediction& p) {
  p.longFitSpan = o.fitSpanGiven ? o.pipeline.fitSpan : o.longFitSpan;
  for (double span : spans) (span == kDefaultFitSpan && !o.fitSpanGiven ? p.dayArcs : p.longArcs) += 1;
}

}  // namespace

double constellationFitEnd(std::map<SatelliteId, std::vector<Ephemeris>> const& records,
                           ConstellationOptions const& o) {
  double const h = o.pipeline.sampleStep;
  if (o.fitEndGiven) return std::floor(o.pipeline.fitEnd / h + 1e-9) * h;
  double latest = -1.0;
  for (auto const& entry : records) {
    if (std::find(o.systems.begin(), o.systems.end(), entry.first.system) == o.systems.end()) continue;
    for (Ephemeris const& e : entry.second) latest = std::max(latest, e.toe);
  }
  return std::round(latest / h) * h;
}

ConstellationPrediction predictConstellation(std::map<SatelliteId, std::vector<Ephemeris>> const& records,
                                             ConstellationOptions const& o) {
  double const fitEnd = constellationFitEnd(records, o);
  std::vector<SatelliteId> sats;
  std::vector<std::vector<Ephemeris> const*> inputs;
  std::vector<support::BeidouSvType> types;
  std::vector<double> spans;
  std::size_t count = 0;
  for (bool const chosen : {true, false}) {
    for (auto const& entry : records) {
      support::BeidouSvType const type = orbitType(entry.second);
      if (selected(entry.first, o) != chosen || (!chosen && !givesEarthOrientation(entry.first, type)))
        continue;
      sats.push_back(entry.first);
      inputs.push_back(&entry.second);
      types.push_back(type);
      double first = fitEnd;
      for (Ephemeris const& e : entry.second) first = std::min(first, e.toe);
      spans.push_back(fitSpanFor(entry.first.system, first, fitEnd, o));
    }
    if (chosen) count = sats.size();
  }
  ConstellationPrediction result = predictAll(
      sats, types, count, fitEnd, o, [&](std::size_t i, PipelineOptions const& options, RatePass* pass) {
        PipelineOptions own = options;
        own.fitSpan = spans[i];
        return predictBroadcast(*inputs[i], own, pass);
      });
  spans.resize(count);
  countArcs(spans, o, result);
  return result;
}

ConstellationPrediction predictConstellation(Sp3Orbit const& orbit, ConstellationOptions const& o) {
  double const h = o.pipeline.sampleStep;
  double const fitEnd = std::floor((o.fitEndGiven ? o.pipeline.fitEnd : orbit.end()) / h + 1e-9) * h;
  std::vector<SatelliteId> sats;
  std::vector<support::BeidouSvType> types;
  std::vector<double> spans;
  std::size_t count = 0;
  for (bool const chosen : {true, false}) {
    for (SatelliteId const& sat : orbit.satellites()) {
      support::BeidouSvType const type = orbit.svType(sat);
      if (selected(sat, o) != chosen || (!chosen && !givesEarthOrientation(sat, type))) continue;
      sats.push_back(sat);
      types.push_back(type);
      double first = fitEnd, last = fitEnd;
      orbit.span(sat, first, last);
      spans.push_back(fitSpanFor(sat.system, first, fitEnd, o));
    }
    if (chosen) count = sats.size();
  }
  // Precise positions carry no broadcast error: their radiation pressure is
  // held more loosely, in both passes.
  ConstellationOptions precise = o;
  precise.pipeline.srpSigma = o.pipeline.preciseSrpSigma;
  ConstellationPrediction result =
      predictAll(sats, types, count, fitEnd, precise,
                 [&](std::size_t i, PipelineOptions const& options, RatePass* pass) {
                   PipelineOptions own = options;
                   own.fitSpan = spans[i];
                   return predictSp3(orbit, sats[i], own, pass);
                 });
  spans.resize(count);
  countArcs(spans, o, result);
  return result;
}

}  // namespace host
}  // namespace zarn
