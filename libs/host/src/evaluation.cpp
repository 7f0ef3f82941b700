#include "zarn/host/evaluation.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <set>
#include <tuple>

#include "zarn/host/screening.hpp"
#include "zarn/support/assistance_data.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/utility.hpp"

namespace zarn {
namespace host {

namespace {

constexpr double kDefaultGpsFitIntervalHours = 4.0;  // IS-GPS-200 20.3.4.4: fit interval flag 0
constexpr double kMinimumFitIntervalHours = 1.0;     // below this the field is a flag, not hours
constexpr double kSecondsPerHour = 3600.0;
constexpr double kGridTolerance = 1e-6;        // s
constexpr double kSpeedOfLight = 299792458.0;  // m/s (IS-GPS-200 20.3.4.3)
constexpr double kGlonassValidity = 900.0;  // s: a GLONASS state is used 15 minutes either side of its time

// Earth-fixed antenna-phase-centre state of a record in the SP3 frame (GLONASS states are PZ-90.02).
void stateInItrs(Ephemeris const& e, double t, support::Vec& pos, support::Vec& vel) {
  ephemerisState(e, t, pos, vel);
  if (e.sat.system == 'R') pos = support::pz902ToWgs84(pos);
}

std::string groupOf(ErrorSample const& s) {
  if (s.sat.system == 'R') return "GLO";
  if (s.sat.system != 'C') return "GPS";
  switch (s.svType) {
    case support::GEO:
      return "BDS-GEO";
    case support::IGSO:
      return "BDS-IGSO";
    case support::MEO:
      return "BDS-MEO";
    default:
      return "BDS";
  }
}

double rms(std::vector<double> const& v) {
  if (v.empty()) return 0.0;
  double sum = 0.0;
  for (double x : v) sum += x * x;
  return std::sqrt(sum / static_cast<double>(v.size()));
}

std::string jsonString(std::string const& s) {
  std::string out = "\"";
  for (char c : s) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

}  // namespace

Sp3Truth::Sp3Truth(std::vector<Sp3Data> const& files) : orbit_(files) {
  for (SatelliteId const& sat : orbit_.satellites()) {
    antennas_[sat] = satelliteAssistance(sat, orbit_.svType(sat), orbit_.start()).antPhase;
  }
}

bool Sp3Truth::position(SatelliteId const& sat, double t, support::Vec& pos) const {
  support::Vec com(3);
  if (!orbit_.state(sat, t, com)) return false;
  pos = support::addApcOffset(com, antennas_.at(sat), t, leapSecondsAt(t));
  return true;
}

bool Sp3Truth::clock(SatelliteId const& sat, double t, double& seconds) const {
  seconds = orbit_.interpolatedClock(sat, t);
  return std::isfinite(seconds);
}

BroadcastTruth::BroadcastTruth(std::vector<NavData> const& files) {
  bool first = true;
  for (auto& entry : collectEphemerides(files)) {
    ScreeningResult screened = screenEphemerides(entry.second, screeningOptionsFor(entry.first.system));
    for (std::string& note : screened.notes) notes_.push_back(std::move(note));
    if (screened.kept.empty()) continue;
    double const half = screeningOptionsFor(entry.first.system).trusted;
    double const from = screened.kept.front().toe - half;
    double const to = screened.kept.back().toe + half;
    start_ = first ? from : std::min(start_, from);
    end_ = first ? to : std::max(end_, to);
    first = false;
    records_[entry.first] = std::move(screened.kept);
  }
}

namespace {

// The record of `records` (toe order) nearest t, null when none is trusted at t.
Ephemeris const* nearestRecord(std::vector<Ephemeris> const& r, SatelliteId const& sat, double t) {
  if (r.empty()) return nullptr;
  auto above =
      std::lower_bound(r.begin(), r.end(), t, [](Ephemeris const& e, double x) { return e.toe < x; });
  std::size_t best = static_cast<std::size_t>(above - r.begin());
  if (best == r.size() || (best > 0 && t - r[best - 1].toe <= r[best].toe - t)) --best;
  if (std::fabs(t - r[best].toe) > screeningOptionsFor(sat.system).trusted) return nullptr;
  return &r[best];
}

}  // namespace

bool BroadcastTruth::clock(SatelliteId const& sat, double t, double& seconds) const {
  auto it = records_.find(sat);
  Ephemeris const* e = it == records_.end() ? nullptr : nearestRecord(it->second, sat, t);
  if (e == nullptr) return false;
  seconds = clockOffset(*e, t);
  return true;
}

bool BroadcastTruth::position(SatelliteId const& sat, double t, support::Vec& pos) const {
  auto it = records_.find(sat);
  Ephemeris const* e = it == records_.end() ? nullptr : nearestRecord(it->second, sat, t);
  if (e == nullptr) return false;
  support::Vec vel(3);
  stateInItrs(*e, t, pos, vel);
  return true;
}

std::vector<PredictedEphemeris> predictedEphemerides(NavData const& nav, double beidouFitIntervalHours) {
  std::vector<PredictedEphemeris> list;
  for (GpsNavRecord const& r : nav.gps) {
    PredictedEphemeris p;
    p.ephemeris = fromGps(r.eph);
    double hours = r.raw.fitInterval;
    if (!(hours >= kMinimumFitIntervalHours)) hours = kDefaultGpsFitIntervalHours;
    p.validFrom = p.ephemeris.toe - 0.5 * hours * kSecondsPerHour;
    p.validTo = p.ephemeris.toe + 0.5 * hours * kSecondsPerHour;
    list.push_back(p);
  }
  for (BeidouNavRecord const& r : nav.beidou) {
    PredictedEphemeris p;
    p.ephemeris = fromBeidou(r.eph);
    p.validFrom = p.ephemeris.toe - 0.5 * beidouFitIntervalHours * kSecondsPerHour;
    p.validTo = p.ephemeris.toe + 0.5 * beidouFitIntervalHours * kSecondsPerHour;
    list.push_back(p);
  }
  for (GlonassNavRecord const& r : nav.glonass) {
    PredictedEphemeris p;
    p.ephemeris = fromGlonass(r.eph);
    p.validFrom = p.ephemeris.toe - kGlonassValidity;
    p.validTo = p.ephemeris.toe + kGlonassValidity;
    list.push_back(p);
  }
  return list;
}

EvaluationResult evaluatePredictions(std::vector<PredictedEphemeris> const& predicted, double fitEnd,
                                     TruthOrbit const& truth, double step) {
  EvaluationResult result;
  std::set<SatelliteId> seen, covered;
  support::Vec pos(3), vel(3), ref(3), inertialVel(3);
  for (PredictedEphemeris const& p : predicted) {
    Ephemeris const& e = p.ephemeris;
    seen.insert(e.sat);
    support::BeidouSvType const type = svType(e);
    std::size_t before = result.samples.size();
    for (double t = std::ceil(p.validFrom / step - kGridTolerance) * step; t <= p.validTo + kGridTolerance;
         t += step) {
      if (!truth.position(e.sat, t, ref)) continue;
      stateInItrs(e, t, pos, vel);
      // Earth-fixed velocity made inertial in the instantaneous Earth-fixed axes.
      inertialVel(0) = vel(0) - support::earthRotationRate * pos(1);
      inertialVel(1) = vel(1) + support::earthRotationRate * pos(0);
      inertialVel(2) = vel(2);
      support::Vec const rtn = support::predictionRtn(pos, inertialVel, ref);
      ErrorSample s;
      s.truth = truth.kind();
      s.sat = e.sat;
      s.svType = type;
      s.toe = e.toe;
      s.t = t;
      s.age = t - fitEnd;
      s.error = support::distance(pos, ref);
      s.radial = rtn(0);
      s.along = rtn(1);
      s.cross = rtn(2);
      s.sisre = support::sisreError(rtn, 0.0, gnssType(e.sat.system), type);
      double truthClock = 0.0;
      if (truth.clock(e.sat, t, truthClock)) {
        s.hasClock = true;
        s.clockDifference = (clockOffset(e, t) - truthClock) * kSpeedOfLight;
      }
      result.samples.push_back(s);
    }
    if (result.samples.size() > before) {
      ++result.ephemerides;
      covered.insert(e.sat);
    } else {
      ++result.withoutTruth;
    }
  }
  for (SatelliteId const& sat : seen) {
    if (covered.count(sat) == 0) result.missing.push_back(toString(sat));
  }
  removeClockDatum(result.samples);
  return result;
}

void removeClockDatum(std::vector<ErrorSample>& samples) {
  // Epochs are on the evaluation grid: rounded to the millisecond they group exactly.
  constexpr double kEpochResolution = 1e-3;  // s
  struct Sum {
    double total = 0;
    std::size_t count = 0;
  };
  std::map<std::tuple<std::string, char, long long>, Sum> sums;
  auto key = [&](ErrorSample const& s) {
    return std::make_tuple(s.truth, s.sat.system, std::llround(s.t / kEpochResolution));
  };
  for (ErrorSample const& s : samples) {
    if (!s.hasClock) continue;
    Sum& sum = sums[key(s)];
    sum.total += s.clockDifference;
    ++sum.count;
  }
  support::Vec rtn(3);
  for (ErrorSample& s : samples) {
    if (!s.hasClock) continue;
    Sum const& sum = sums[key(s)];
    if (sum.count < 2) {
      s.hasClock = false;
      continue;
    }
    s.clock = s.clockDifference - sum.total / static_cast<double>(sum.count);
    rtn(0) = s.radial;
    rtn(1) = s.along;
    rtn(2) = s.cross;
    s.ure = support::sisreError(rtn, s.clock, gnssType(s.sat.system), s.svType);
  }
}

double quantile(std::vector<double> values, double q) {
  if (values.empty()) return 0.0;
  std::sort(values.begin(), values.end());
  double const h = (static_cast<double>(values.size()) - 1.0) * q;
  std::size_t const lo = static_cast<std::size_t>(std::floor(h));
  std::size_t const hi = std::min(lo + 1, values.size() - 1);
  return values[lo] + (h - static_cast<double>(lo)) * (values[hi] - values[lo]);
}

std::vector<SummaryRow> summarize(std::vector<ErrorSample> const& samples) {
  static std::vector<std::string> const kGroupOrder = {"GPS", "GLO", "BDS", "BDS-MEO", "BDS-IGSO", "BDS-GEO"};
  std::vector<std::string> truths;
  for (ErrorSample const& s : samples) {
    if (std::find(truths.begin(), truths.end(), s.truth) == truths.end()) truths.push_back(s.truth);
  }
  struct Bucket {
    std::vector<double> error, radial, along, cross, sisre, clock, ure;
    std::set<SatelliteId> sats;
  };
  std::map<std::tuple<std::size_t, std::size_t, int>, Bucket> buckets;
  for (ErrorSample const& s : samples) {
    std::size_t const truth =
        static_cast<std::size_t>(std::find(truths.begin(), truths.end(), s.truth) - truths.begin());
    int const day = static_cast<int>(std::floor(std::max(s.age, 0.0) / 86400.0)) + 1;
    std::vector<std::string> groups = {groupOf(s)};
    if (s.sat.system == 'C' && groups[0] != "BDS") groups.push_back("BDS");
    for (std::string const& g : groups) {
      std::size_t const gi = static_cast<std::size_t>(std::find(kGroupOrder.begin(), kGroupOrder.end(), g) -
                                                      kGroupOrder.begin());
      Bucket& b = buckets[std::make_tuple(truth, gi, day)];
      b.error.push_back(s.error);
      b.radial.push_back(s.radial);
      b.along.push_back(s.along);
      b.cross.push_back(s.cross);
      b.sisre.push_back(s.sisre);
      if (s.hasClock) {
        b.clock.push_back(s.clock);
        b.ure.push_back(s.ure);
      }
      b.sats.insert(s.sat);
    }
  }
  std::vector<SummaryRow> rows;
  for (auto const& entry : buckets) {
    Bucket const& b = entry.second;
    SummaryRow row;
    row.truth = truths[std::get<0>(entry.first)];
    row.group = kGroupOrder[std::get<1>(entry.first)];
    row.day = std::get<2>(entry.first);
    row.samples = b.error.size();
    row.satellites = b.sats.size();
    row.median = quantile(b.error, 0.5);
    row.p95 = quantile(b.error, 0.95);
    row.max = *std::max_element(b.error.begin(), b.error.end());
    row.rmsRadial = rms(b.radial);
    row.rmsAlong = rms(b.along);
    row.rmsCross = rms(b.cross);
    row.rmsSisre = rms(b.sisre);
    row.clockSamples = b.clock.size();
    row.rmsClock = rms(b.clock);
    row.medianUre = quantile(b.ure, 0.5);
    row.p95Ure = quantile(b.ure, 0.95);
    row.rmsUre = rms(b.ure);
    rows.push_back(row);
  }
  return rows;
}

std::string formatSummary(std::vector<SummaryRow> const& rows) {
  std::string out;
  char line[256];
  std::string truth;
  for (SummaryRow const& r : rows) {
    if (r.truth != truth) {
      truth = r.truth;
      std::snprintf(line, sizeof line, "%struth: %s (errors in m, 3D error percentiles, RMS per component)\n",
                    out.empty() ? "" : "\n", truth.c_str());
      out += line;
      std::snprintf(line, sizeof line, "%-9s %4s %5s %8s %8s %8s %9s %7s %7s %7s %7s %7s %7s %7s\n", "system",
                    "day", "sats", "samples", "median", "p95", "max", "radial", "along", "cross", "SISRE",
                    "clock", "URE med", "URE p95");
      out += line;
    }
    std::snprintf(line, sizeof line, "%-9s %4d %5zu %8zu %8.2f %8.2f %9.2f %7.2f %7.2f %7.2f %7.2f",
                  r.group.c_str(), r.day, r.satellites, r.samples, r.median, r.p95, r.max, r.rmsRadial,
                  r.rmsAlong, r.rmsCross, r.rmsSisre);
    out += line;
    if (r.clockSamples > 0) {
      std::snprintf(line, sizeof line, " %7.2f %7.2f %7.2f\n", r.rmsClock, r.medianUre, r.p95Ure);
    } else {
      std::snprintf(line, sizeof line, " %7s %7s %7s\n", "-", "-", "-");
    }
    out += line;
  }
  return out;
}

std::string summaryJson(std::vector<SummaryRow> const& rows, double fitEnd) {
  std::string out = "{\n  \"fitEnd\": " + jsonString(formatGpsTime(fitEnd)) + ",\n";
  char number[64];
  std::snprintf(number, sizeof number, "%.3f", fitEnd);
  out += "  \"fitEndGpsSeconds\": " + std::string(number) + ",\n  \"rows\": [";
  for (std::size_t i = 0; i < rows.size(); ++i) {
    SummaryRow const& r = rows[i];
    char text[768];
    std::snprintf(
        text, sizeof text,
        "%s\n    {\"truth\": %s, \"system\": %s, \"day\": %d, \"satellites\": %zu, \"samples\": %zu, "
        "\"median3d\": %.4f, \"p95_3d\": %.4f, \"max3d\": %.4f, \"rmsRadial\": %.4f, \"rmsAlong\": %.4f, "
        "\"rmsCross\": %.4f, \"rmsSisre\": %.4f, \"clockSamples\": %zu, \"rmsClock\": %.4f, "
        "\"medianUre\": %.4f, \"p95Ure\": %.4f, \"rmsUre\": %.4f}",
        i == 0 ? "" : ",", jsonString(r.truth).c_str(), jsonString(r.group).c_str(), r.day, r.satellites,
        r.samples, r.median, r.p95, r.max, r.rmsRadial, r.rmsAlong, r.rmsCross, r.rmsSisre, r.clockSamples,
        r.rmsClock, r.medianUre, r.p95Ure, r.rmsUre);
    out += text;
  }
  out += rows.empty() ? "]\n}\n" : "\n  ]\n}\n";
  return out;
}

void writeErrorsCsv(std::ostream& out, std::vector<ErrorSample> const& samples) {
  out << "truth,satellite,group,toe,time,age_h,error_3d_m,radial_m,along_m,cross_m,sisre_m,clock_m,ure_m\n";
  char line[320];
  for (ErrorSample const& s : samples) {
    std::snprintf(line, sizeof line, "%s,%s,%s,%s,%s,%.4f,%.4f,%.4f,%.4f,%.4f,%.4f", s.truth.c_str(),
                  toString(s.sat).c_str(), groupOf(s).c_str(), formatGpsTime(s.toe).c_str(),
                  formatGpsTime(s.t).c_str(), s.age / kSecondsPerHour, s.error, s.radial, s.along, s.cross,
                  s.sisre);
    out << line;
    if (s.hasClock) {
      std::snprintf(line, sizeof line, ",%.4f,%.4f\n", s.clock, s.ure);
    } else {
      std::snprintf(line, sizeof line, ",,\n");
    }
    out << line;
  }
}

}  // namespace host
}  // namespace zarn
