// Accuracy of predicted broadcast ephemerides against a reference orbit: the
// error of every predicted ephemeris sampled over its validity interval, and
// the statistics per constellation and per day of prediction age.
//
// Errors are predicted minus truth at the antenna phase centre, Earth-fixed
// (GLONASS states shifted from PZ-90.02 to the SP3 frame), in metres. Radial, along-track and cross-track
// components are taken in the orbital frame of the predicted state (velocity made inertial by adding the
// Earth rotation). SISRE is the orbit-only signal-in-space range error of
// sisreError with a zero clock error.
//
// Clocks. Where the truth has a clock, the clock error is the predicted
// broadcast clock minus the truth clock in metres, less the mean of that
// difference over the constellation's samples of the same truth and epoch
// (broadcast and precise clocks refer to different datums); the user range
// error (URE) is sisreError with that clock error.
#ifndef ZARN_HOST_EVALUATION_HPP
#define ZARN_HOST_EVALUATION_HPP

#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "zarn/host/ephemeris.hpp"
#include "zarn/host/rinex_nav.hpp"
#include "zarn/host/sp3.hpp"
#include "zarn/host/sp3_orbit.hpp"

namespace zarn {
namespace host {

// Reference orbit: antenna-phase-centre positions of satellites over a span of time.
class TruthOrbit {
 public:
  virtual ~TruthOrbit() = default;
  // "SP3" or "broadcast".
  virtual std::string kind() const = 0;
  // Earth-fixed antenna-phase-centre position (m) of the satellite at t (GPS
  // seconds); false when the truth does not cover that instant.
  virtual bool position(SatelliteId const& sat, double t, support::Vec& pos) const = 0;
  // Satellite clock offset (s) at t; false when the truth has none there.
  virtual bool clock(SatelliteId const& /*sat*/, double /*t*/, double& /*seconds*/) const { return false; }
  // First and last instant covered by any satellite (GPS seconds).
  virtual double start() const = 0;
  virtual double end() const = 0;
};

// Precise orbits. SP3 positions refer to the centre of mass: they are
// interpolated (Sp3Orbit) and moved to the antenna phase centre with the
// satellite's default antenna offset.
class Sp3Truth : public TruthOrbit {
 public:
  explicit Sp3Truth(std::vector<Sp3Data> const& files);
  std::string kind() const override { return "SP3"; }
  bool position(SatelliteId const& sat, double t, support::Vec& pos) const override;
  // Linear between the tabulated clocks (Sp3Orbit::interpolatedClock).
  bool clock(SatelliteId const& sat, double t, double& seconds) const override;
  double start() const override { return orbit_.start(); }
  double end() const override { return orbit_.end(); }
  Sp3Orbit const& orbit() const { return orbit_; }

 private:
  Sp3Orbit orbit_;
  std::map<SatelliteId, support::AntennaPhase> antennas_;
};

// Broadcast orbits: at every instant the screened record of the satellite
// whose toe is nearest, if it lies within the record's trusted span (about two
// hours for GPS, one hour for BeiDou: ScreeningOptions::trusted).
class BroadcastTruth : public TruthOrbit {
 public:
  explicit BroadcastTruth(std::vector<NavData> const& files);
  std::string kind() const override { return "broadcast"; }
  bool position(SatelliteId const& sat, double t, support::Vec& pos) const override;
  // The clock polynomial of the record that position() uses.
  bool clock(SatelliteId const& sat, double t, double& seconds) const override;
  double start() const override { return start_; }
  double end() const override { return end_; }
  std::vector<std::string> const& notes() const { return notes_; }

 private:
  std::map<SatelliteId, std::vector<Ephemeris>> records_;
  std::vector<std::string> notes_;
  double start_ = 0, end_ = 0;
};

// A predicted ephemeris and the interval (GPS seconds) over which it is meant to be used.
struct PredictedEphemeris {
  Ephemeris ephemeris;
  double validFrom = 0;
  double validTo = 0;
};

// The predicted ephemerides of a file written by `zarn predict`. GPS records
// are valid over their fit interval around toe; BeiDou records over
// `beidouFitIntervalHours` (from the file's "FIT INTERVAL C" comment when the
// caller found one); GLONASS states 15 minutes either side of their time.
std::vector<PredictedEphemeris> predictedEphemerides(NavData const& nav, double beidouFitIntervalHours);

struct ErrorSample {
  std::string truth;  // TruthOrbit::kind()
  SatelliteId sat;
  support::BeidouSvType svType = support::UNDEFINED_SAT_TYPE;
  double toe = 0;                           // GPS seconds
  double t = 0;                             // GPS seconds
  double age = 0;                           // t - fit end, s
  double error = 0;                         // 3D, m
  double radial = 0, along = 0, cross = 0;  // m
  double sisre = 0;                         // m
  // Clocks, when the truth has one at t (see the top of this file).
  bool hasClock = false;
  double clockDifference = 0;  // m: predicted - truth, datum not removed
  double clock = 0;            // m: clockDifference less the constellation's mean at t
  double ure = 0;              // m: sisreError with `clock`
};

// Sets clock and ure of the samples that have a clock difference, removing
// per truth, constellation and epoch the mean difference over those samples;
// an epoch with fewer than two such samples of a constellation has no datum
// and its samples lose their clock. evaluatePredictions calls it.
void removeClockDatum(std::vector<ErrorSample>& samples);

struct EvaluationResult {
  std::vector<ErrorSample> samples;
  std::size_t ephemerides = 0;       // predicted ephemerides with at least one sample
  std::size_t withoutTruth = 0;      // predicted ephemerides the truth does not cover at all
  std::vector<std::string> missing;  // satellites predicted but absent from the truth
};

// Samples every predicted ephemeris every `step` seconds over its validity
// interval (instants on the step grid of GPS time) wherever the truth covers it.
EvaluationResult evaluatePredictions(std::vector<PredictedEphemeris> const& predicted, double fitEnd,
                                     TruthOrbit const& truth, double step);

// Statistics of one group of samples.
struct SummaryRow {
  std::string truth;
  std::string group;  // "GPS", "GLO", "BDS", "BDS-MEO", "BDS-IGSO", "BDS-GEO"
  int day = 0;        // prediction-age day, 1 = the first 24 h after the fit end
  std::size_t samples = 0;
  std::size_t satellites = 0;
  double median = 0, p95 = 0, max = 0;               // 3D error, m
  double rmsRadial = 0, rmsAlong = 0, rmsCross = 0;  // m
  double rmsSisre = 0;                               // m
  std::size_t clockSamples = 0;                      // samples with a clock
  double rmsClock = 0;                               // m
  double medianUre = 0, p95Ure = 0, rmsUre = 0;      // m
};

// Rows per truth, group and day, in that order. Samples before the fit end
// count to day 1. BeiDou rows per orbit type follow the BeiDou row.
std::vector<SummaryRow> summarize(std::vector<ErrorSample> const& samples);

// The q-quantile (0..1) of unsorted values, linear between order statistics
// (Hyndman and Fan definition 7); 0 for no values.
double quantile(std::vector<double> values, double q);

// Fixed-width text table of the rows.
std::string formatSummary(std::vector<SummaryRow> const& rows);
// {"fitEnd": ..., "rows": [{...}, ...]} with the fields of SummaryRow.
std::string summaryJson(std::vector<SummaryRow> const& rows, double fitEnd);
// One line per sample with a header line.
void writeErrorsCsv(std::ostream& out, std::vector<ErrorSample> const& samples);

}  // namespace host
}  // namespace zarn

#endif
