#include "zarn/host/pipeline.hpp"

#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>

#include "zarn/host/screening.hpp"
#include "zarn/support/assistance_data.hpp"
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

constexpr double kGpsSpacing = 7200.0;     // s: GPS reference times on even hours of GPS time
constexpr double kBeidouSpacing = 3600.0;  // s: BeiDou reference times on whole BDT hours
// GPS seconds of BDT 0: BDT = GPS - 14 s, so whole BDT hours fall 14 s after whole GPS hours.
constexpr double kBeidouGridOffset = 14.0;
constexpr double kSecondsPerDay = 86400.0;
constexpr double kMaxDays = 14.0;
constexpr int kMinimumRecords = 3;          // fewer usable ephemerides cannot carry a fit span
constexpr double kToeTolerance = 1.0;       // s: the fitted toe must be the requested grid time
constexpr int kRetryExtraSamples = 4;       // samples added to a refused window for its second fit
constexpr double kSampleRmsWarning = 10.0;  // m: a worse fit to the samples is reported

// LNAV clock fields (IS-GPS-200 Table 20-III): LSB and width in bits.
constexpr double kGpsAf0Lsb = 1.0 / 2147483648.0;   // 2^-31 s
constexpr double kGpsAf1Lsb = kGpsAf0Lsb / 4096.0;  // 2^-43 s/s
constexpr double kGpsAf2Lsb = kGpsAf1Lsb / 4096.0;  // 2^-55 s/s^2
constexpr int kGpsAf0Bits = 22, kGpsAf1Bits = 16, kGpsAf2Bits = 8;
// BeiDou D1/D2 clock fields (BDS-SIS-ICD-B1I 5.2.4.9).
constexpr double kBeidouA0Lsb = kGpsAf0Lsb / 4.0;         // 2^-33 s
constexpr double kBeidouA1Lsb = kBeidouA0Lsb / 131072.0;  // 2^-50 s/s
constexpr double kBeidouA2Lsb = kBeidouA1Lsb / 65536.0;   // 2^-66 s/s^2
constexpr int kBeidouA0Bits = 24, kBeidouA1Bits = 22, kBeidouA2Bits = 11;

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

// Scaled integer of a clock field, false when it does not fit `bits` signed bits.
bool scaleClock(double value, double lsb, int bits, long long& scaled) {
  double const x = value / lsb;
  double const limit = std::ldexp(1.0, bits - 1);
  scaled = static_cast<long long>(x >= 0 ? std::floor(x + 0.5) : std::ceil(x - 0.5));
  return scaled >= -limit && scaled < limit;
}

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
// instant, trimmed to an odd count. Empty `reason` on success.
void keepLastRun(std::vector<double>& t, std::vector<Vec>& pos, std::vector<bool> const& have,
                 PipelineOptions const& o, std::string& reason) {
  std::size_t const n = t.size();
  if (n == 0 || !have[n - 1]) {
    reason = "no orbit data at the fit end " + formatGpsTime(t.empty() ? o.fitEnd : t.back());
    return;
  }
  std::size_t first = n - 1;
  while (first > 0 && have[first - 1]) --first;
  if ((n - first) % 2 == 0) ++first;
  double const span = t.back() - t[first];
  double const minimum = o.minFitSpan > 0 ? o.minFitSpan : 0.5 * o.fitSpan;
  if (span + 1e-9 < minimum) {
    reason = "orbit data cover only " + hoursText(span) + " before the fit end" +
             (first > 0 ? " (gap at " + formatGpsTime(t[first - 1]) + ")" : "") + ", need " +
             hoursText(minimum);
    return;
  }
  t.erase(t.begin(), t.begin() + static_cast<long>(first));
  pos.erase(pos.begin(), pos.begin() + static_cast<long>(first));
}

std::unique_ptr<support::ForceModel> copyModel(support::BinaryData const& bytes) {
  std::unique_ptr<support::ForceModel> model(new support::ForceModel());
  unsigned int position = 0;
  model->deserialize(bytes, position);
  return model;
}

// Earth-fixed antenna-phase-centre position of an inertial state of `model` at t.
Vec earthFixed(support::ForceModel& model, Vec const& r, Vec const& v, double t, int leap, bool antenna) {
  support::InertialFrameInfo const frame = model.getInertialFrameInfo();
  Vec rItrs(3), vItrs(3);
  support::toEcef(r, v, t, frame.tRef, model.getEopInfo().eop, frame.ut1MinusUtc, leap, rItrs, vItrs);
  if (!antenna) return rItrs;
  return support::addApcOffset(rItrs, model.getAssistanceData().antPhase, t, leap);
}

// One estimation of the initial state from the samples with the given model
// parameters. The model is left as estimateInitialState leaves it; `rms` is the
// RMS distance (m) between the samples and the estimated orbit integrated back
// over the span (infinite when that integration fails).
struct Estimation {
  support::InitialStateEstimate estimate;
  support::BinaryData model;  // the serialized force model, ready to propagate
  double rms = 0;
};

Estimation estimateFrom(Samples const& s, Vec const& times, Mat const& positions, Mat const& velocities,
                        support::AssistanceData const& assistance, support::BeidouSvType type,
                        PipelineOptions const& o, int leap) {
  std::size_t const n = s.t.size();
  double const h = o.sampleStep;
  support::ForceModel model;
  model.setLeapInfo(leapSecondTable());
  model.setAssistanceData(assistance);
  model.setNumberOfGeopotentialCoefficients(o.geopotentialDegree);
  model.setInertialFrameInfo(support::makeInertialFrameInfo(s.t[0], 0.0, leap));
  model.setEopInfo(support::makeEopInfo(o.pole));
  Estimation e;
  e.estimate = support::estimateInitialState(times, positions, velocities, o.pole, model, true, type);
  model.serialize(e.model);

  std::unique_ptr<support::ForceModel> back = copyModel(e.model);
  support::OdeFunGj8 ode(*back);
  Vec r0(3), v0(3);
  for (std::size_t c = 0; c < 3; ++c) {
    r0(c) = e.estimate.state(c);
    v0(c) = e.estimate.state(c + 3);
  }
  Mat R(3, n - 1), V(3, n - 1);
  e.rms = std::numeric_limits<double>::infinity();
  if (back->getGj8Integrator().gj8Init(ode, r0, v0, s.t[n - 1], -h) == 0 &&
      back->getGj8Integrator().gj8Propagate(ode, R, V, static_cast<unsigned>(n - 1)) == n - 1) {
    double sum = 0.0;
    for (std::size_t j = 0; j + 1 < n; ++j) {
      std::size_t const k = n - 2 - j;  // the newest column is the earliest sample
      Vec const p = earthFixed(*back, boost::numeric::ublas::column(R, j),
                               boost::numeric::ublas::column(V, j), s.t[k], leap, false);
      double const d = support::distance(p, s.position[k]);
      sum += d * d;
    }
    e.rms = std::sqrt(sum / static_cast<double>(n - 1));
  }
  return e;
}

// The whole prediction from centre-of-mass samples.
void predictFromSamples(Samples const& s, support::BeidouSvType type, ClockModel const& clock,
                        Ephemeris const& templateRecord, PipelineOptions const& o,
                        SatellitePrediction& result) {
  char const system = result.sat.system;
  core::GnssType const gnss = gnssType(system);
  std::size_t const n = s.t.size();
  double const h = o.sampleStep;
  int const leap = leapSecondsAt(s.t[n / 2]);
  support::AssistanceData assistance = satelliteAssistance(result.sat, type, o.fitEnd);
  if (!o.antennaOffset) assistance.antPhase.fill(0.0);

  Vec times(n);
  Mat positions(n, 3), velocities(n, 3);
  for (std::size_t k = 0; k < n; ++k) {
    times(k) = s.t[k];
    for (std::size_t c = 0; c < 3; ++c) {
      positions(k, c) = s.position[k](c);
      velocities(k, c) = k == 0 ? s.velocity0(c) : 0.0;
    }
  }
  result.fitStart = s.t.front();
  result.fitEnd = s.t.back();
  result.samples = static_cast<int>(n);
  result.svType = type;

  double const cpu0 = threadCpuSeconds();
  Estimation const best = estimateFrom(s, times, positions, velocities, assistance, type, o, leap);
  support::InitialStateEstimate const& estimate = best.estimate;
  support::BinaryData const& bytes = best.model;
  double const cpu1 = threadCpuSeconds();
  result.estimateSeconds = cpu1 - cpu0;
  result.pole = support::Eop{estimate.state(6), estimate.state(7)};
  result.sampleRms = best.rms;
  if (result.sampleRms > kSampleRmsWarning) {
    char text[160];
    std::snprintf(text, sizeof text, "%s: the estimated orbit misses its samples by %.1f m RMS",
                  toString(result.sat).c_str(), result.sampleRms);
    result.notes.push_back(text);
  }
  double const tStart = s.t[n / 2];  // the integrator starts at the middle sample

  // Reference times and the integrators that serve them in turn.
  int const nw = windowSamples(o, system);
  double const S = spacing(system);
  double const off = gridOffset(system);
  std::size_t const interleave = static_cast<std::size_t>(std::ceil(nw * h / S - 1e-9));
  std::vector<double> toes;
  for (double toe = std::ceil((o.fitEnd - off) / S - 1e-9) * S + off;
       toe <= o.fitEnd + o.days * kSecondsPerDay + 1e-6; toe += S) {
    // The first window must begin after the integrator's start.
    if (toe + h - (nw / 2) * h < tStart + h) continue;
    toes.push_back(toe);
  }
  std::vector<std::unique_ptr<support::ForceModel>> models;
  for (std::size_t m = 0; m < interleave; ++m) models.push_back(copyModel(bytes));
  std::vector<double> current(interleave, tStart);

  core::GpsEphemeris const gpsTemplate = templateRecord.gps;
  core::BeidouEphemeris const beidouTemplate = templateRecord.beidou;
  Vec dummy(3), kepler(17), positionOut(3), velocityOut(3);
  // The fitted elements in `kepler` as the record of reference time toe; false when
  // they leave the broadcast ranges.
  auto encode = [&](double toe, Ephemeris& e) {
    bool valid = false;
    long long c0 = 0, c1 = 0, c2 = 0;
    double const dt = toe - clock.toc;
    double const a0 = clock.a0 + clock.a1 * dt + clock.a2 * dt * dt;
    double const a1 = clock.a1 + 2.0 * clock.a2 * dt;
    unsigned const issue = static_cast<unsigned>(std::llround((toe - off) / S)) & 0xFFu;
    double const ura = support::estimateSisreError(assistance.errorParams, toe - o.fitEnd);
    if (system == 'C') {
      core::BeidouEphemeris eph = beidouTemplate;
      valid = support::keplerianToBeidouEphemeris(kepler, eph);
      valid = valid && scaleClock(a0, kBeidouA0Lsb, kBeidouA0Bits, c0) &&
              scaleClock(a1, kBeidouA1Lsb, kBeidouA1Bits, c1) &&
              scaleClock(clock.a2, kBeidouA2Lsb, kBeidouA2Bits, c2);
      eph.svId = static_cast<std::uint16_t>(result.sat.prn);
      eph.toc = eph.toe;
      eph.a0 = static_cast<std::int32_t>(c0);
      eph.a1 = static_cast<std::int32_t>(c1);
      eph.a2 = static_cast<std::int16_t>(c2);
      eph.health = 0;
      eph.aode = static_cast<std::uint8_t>(issue);
      eph.aodc = static_cast<std::int16_t>(issue);
      eph.iodc = static_cast<std::uint8_t>(issue);  // RINEX carries one age of data clock: the two agree
      eph.uraIndex = static_cast<std::int8_t>(support::metersToUraIndex(ura, gnss));
      e = fromBeidou(eph);
    } else {
      core::GpsEphemeris eph = gpsTemplate;
      valid = support::keplerianToGpsEphemeris(kepler, eph);
      valid = valid && scaleClock(a0, kGpsAf0Lsb, kGpsAf0Bits, c0) &&
              scaleClock(a1, kGpsAf1Lsb, kGpsAf1Bits, c1) &&
              scaleClock(clock.a2, kGpsAf2Lsb, kGpsAf2Bits, c2);
      eph.svId = static_cast<std::uint16_t>(result.sat.prn);
      eph.toc = eph.toe;
      eph.af0 = static_cast<std::int32_t>(c0);
      eph.af1 = static_cast<std::int16_t>(c1);
      eph.af2 = static_cast<std::int8_t>(c2);
      eph.health = 0;
      eph.iode = static_cast<std::uint8_t>(issue);
      eph.iodc = static_cast<std::int16_t>(issue);
      eph.uraIndex = static_cast<std::int8_t>(support::metersToUraIndex(ura, gnss));
      e = fromGps(eph);
    }
    return valid && std::fabs(e.toe - toe) <= kToeTolerance;
  };
  int fitFailures = 0, refusals = 0;
  double firstFailure = 0, firstRefusal = 0;
  for (std::size_t i = 0; i < toes.size(); ++i) {
    double const toe = toes[i];
    support::ForceModel& m = *models[i % interleave];
    double& tc = current[i % interleave];
    double const t1 = toe + h;  // an even window's middle sample is one step before its target
    bool const fresh = m.getGj8Integrator().getTotalSteps() == 0;
    double const t0 = fresh ? tc : tc - (nw / 2) * h;
    double epochOut = 0.0;
    int const made = support::propagateSatellite(gnss, t0, t1, h, nw, dummy, dummy, m, kepler, positionOut,
                                                 velocityOut, epochOut);
    tc = t1 + (nw / 2 - 1) * h;
    if (made == 0) {
      // The integrator did not move: later windows would be mislabelled.
      result.notes.push_back(toString(result.sat) + ": propagation failed at the window of toe " +
                             formatGpsTime(toe) + "; the prediction ends there");
      break;
    }
    Ephemeris e;
    bool fitted = made > 0, kept = fitted && encode(toe, e);
    if (!kept) {
      // Over a short arc of a near-circular, near-equatorial orbit the mean motion
      // is shared poorly between sqrtA (whose radius the harmonics absorb), deltaN
      // and OmegaDot (whose along-track rates differ by cos i), so deltaN may leave
      // its 16-bit field. A longer window around the same toe separates them
      // better; it comes from a fresh integrator so the interleaved ones keep their place.
      std::unique_ptr<support::ForceModel> retry = copyModel(bytes);
      int const n = nw + kRetryExtraSamples;
      fitted = support::propagateSatellite(gnss, tStart, t1, h, n, dummy, dummy, *retry, kepler, positionOut,
                                           velocityOut, epochOut) > 0;
      kept = fitted && encode(toe, e);
    }
    if (!fitted) {
      if (fitFailures++ == 0) firstFailure = toe;
      continue;
    }
    if (!kept) {
      if (refusals++ == 0) firstRefusal = toe;
      continue;
    }
    result.predicted.push_back(e);
  }
  result.rejected = fitFailures + refusals;
  if (result.rejected > 0) {
    std::string text = toString(result.sat) + ": " + std::to_string(result.rejected) + " of " +
                       std::to_string(toes.size()) + " windows refused:";
    if (fitFailures > 0) {
      text += " " + std::to_string(fitFailures) + " Keplerian fits failed (first at toe " +
              formatGpsTime(firstFailure) + ")";
    }
    if (refusals > 0) {
      text += std::string(fitFailures > 0 ? ";" : "") + " " + std::to_string(refusals) +
              " element sets out of the broadcast ranges (first at toe " + formatGpsTime(firstRefusal) + ")";
    }
    result.notes.push_back(text);
  }
  double const cpu2 = threadCpuSeconds();
  result.propagateSeconds = cpu2 - cpu1;

  // Every written ephemeris against the states of its window, from an
  // independent continuous propagation of the same estimate.
  if (o.checkFit && !result.predicted.empty()) {
    std::unique_ptr<support::ForceModel> check = copyModel(bytes);
    support::OdeFunGj8 ode(*check);
    double const lastEpoch = toes.back() + h + (nw / 2 - 1) * h;
    unsigned const steps = static_cast<unsigned>(std::llround((lastEpoch - tStart) / h));
    Mat R(3, steps), V(3, steps);
    // A fresh integrator's first steps are its start-up points; propagateSatellite
    // drives it the same way.
    if (check->getGj8Integrator().gj8Propagate(ode, R, V, steps) == steps) {
      Vec pos(3), vel(3);
      for (Ephemeris const& e : result.predicted) {
        for (int i = 0; i < nw; ++i) {
          double const t = e.toe + h - (nw / 2) * h + i * h;
          long long const col = std::llround((t - tStart) / h) - 1;
          if (col < 0 || col >= static_cast<long long>(steps)) continue;
          Vec const ref = earthFixed(*check, boost::numeric::ublas::column(R, static_cast<std::size_t>(col)),
                                     boost::numeric::ublas::column(V, static_cast<std::size_t>(col)), t, leap,
                                     o.antennaOffset);
          ephemerisState(e, t, pos, vel);
          result.maxFitResidual = std::max(result.maxFitResidual, support::distance(pos, ref));
        }
      }
    }
  }
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

support::Eop medianPole(std::vector<SatellitePrediction> const& predictions) {
  std::vector<double> xp, yp;
  for (SatellitePrediction const& p : predictions) {
    if (!p.skipReason.empty() || p.samples == 0 || holdsPole(p.svType)) continue;
    xp.push_back(p.pole.xp);
    yp.push_back(p.pole.yp);
  }
  support::Eop pole;
  if (xp.empty()) return pole;
  auto median = [](std::vector<double>& v) {
    std::sort(v.begin(), v.end());
    std::size_t const h = v.size() / 2;
    return v.size() % 2 == 1 ? v[h] : 0.5 * (v[h - 1] + v[h]);
  };
  pole.xp = median(xp);
  pole.yp = median(yp);
  return pole;
}

std::string validate(PipelineOptions const& o) {
  if (!(o.sampleStep > 0) || std::fmod(kBeidouSpacing, o.sampleStep) != 0.0) {
    return "the step must divide one hour into whole steps";
  }
  if (!(o.fitSpan >= 4 * o.sampleStep)) return "the fit span must hold at least five samples";
  if (!(o.days > 0) || o.days > kMaxDays) return "the prediction length must be above 0 and at most 14 days";
  for (char system : {'G', 'C'}) {
    int const n = windowSamples(o, system);
    if (n < 2 || n % 2 != 0) return "a window must hold an even number of samples, at least 2";
  }
  if (o.geopotentialDegree < 2 || o.geopotentialDegree > 16) return "the gravity field degree must be 2..16";
  return "";
}

double windowHours(PipelineOptions const& o, char system) {
  return (windowSamples(o, system) - 1) * o.sampleStep / 3600.0;
}

SatellitePrediction predictFromBroadcast(std::vector<Ephemeris> const& records, PipelineOptions const& o) {
  SatellitePrediction result;
  if (records.empty()) {
    result.skipReason = "no ephemerides";
    return result;
  }
  result.sat = records.front().sat;
  char const system = result.sat.system;
  std::vector<Ephemeris> usable;
  for (Ephemeris const& e : records) {
    if (e.toe <= o.fitEnd) usable.push_back(e);
  }
  std::stable_sort(usable.begin(), usable.end(),
                   [](Ephemeris const& a, Ephemeris const& b) { return a.toe < b.toe; });
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
  std::string reason;
  keepLastRun(t, pos, have, o, reason);
  if (!reason.empty()) {
    result.skipReason = reason;
    return result;
  }
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
    support::AntennaPhase const apc = satelliteAssistance(result.sat, type, o.fitEnd).antPhase;
    for (std::size_t k = 0; k < s.t.size(); ++k) {
      s.position[k] = support::removeApcOffset(s.position[k], apc, s.t[k], leapSecondsAt(s.t[k]));
    }
  }

  ClockModel clock;
  clock.toc = last.toc;
  if (system == 'C') {
    clock.a0 = last.beidou.a0 * kBeidouA0Lsb;
    clock.a1 = last.beidou.a1 * kBeidouA1Lsb;
    clock.a2 = last.beidou.a2 * kBeidouA2Lsb;
  } else {
    clock.a0 = last.gps.af0 * kGpsAf0Lsb;
    clock.a1 = last.gps.af1 * kGpsAf1Lsb;
    clock.a2 = last.gps.af2 * kGpsAf2Lsb;
  }
  predictFromSamples(s, type, clock, last, o, result);
  return result;
}

SatellitePrediction predictFromSp3(Sp3Orbit const& orbit, SatelliteId const& sat, PipelineOptions const& o) {
  SatellitePrediction result;
  result.sat = sat;
  std::vector<double> t = sampleGrid(o, sat.system);
  std::vector<Vec> pos(t.size(), Vec(3));
  std::vector<bool> have(t.size(), false);
  for (std::size_t k = 0; k < t.size(); ++k) have[k] = orbit.state(sat, t[k], pos[k]);
  std::string reason;
  keepLastRun(t, pos, have, o, reason);
  if (!reason.empty()) {
    result.skipReason = reason;
    return result;
  }
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
  predictFromSamples(s, orbit.svType(sat), clock, templateRecord, o, result);
  return result;
}

}  // namespace host
}  // namespace zarn
