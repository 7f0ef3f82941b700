// The prediction a receiver host runs for one GPS or BeiDou satellite: screen
// its broadcast ephemerides up to the fit end (or take precise orbits), sample
// Earth-fixed centre-of-mass positions over the fit span, estimate the initial
// state, propagate window by window, encode the fitted elements as broadcast
// ephemerides and keep those that pass validation; and the same for a whole
// constellation on worker threads (predictConstellation).
//
// Time grid. Samples, integration steps and windows share one grid of
// `sampleStep` seconds on the constellation's own time scale (GPS time; BDT =
// GPS - 14 s for BeiDou), so that every window is centred where a broadcast
// reference time falls: even hours of GPS time for GPS, whole hours of BDT for
// BeiDou. Predicted reference times run from the first grid hour at or after
// the fit end to `days` days after it.
//
// Windows. The estimated state is propagated once over the whole prediction
// and turned into Earth-fixed antenna positions; each window (they overlap)
// takes its states from that one trajectory.
#ifndef ZARN_HOST_PIPELINE_HPP
#define ZARN_HOST_PIPELINE_HPP

#include <array>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "zarn/host/ephemeris.hpp"
#include "zarn/host/sp3_orbit.hpp"
#include "zarn/support/assistance_data.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/prediction.hpp"

namespace zarn {
namespace host {

// Longest prediction, days: two weeks, by which a satellite is due for a fresh
// initialisation from new broadcast ephemerides.
constexpr double kMaxPredictionDays = 14.0;

// How a GLONASS orbit starts: a fit to Earth-fixed samples of the
// broadcast states over the fit span (as GPS and BeiDou), or the newest
// broadcast state alone or with a second one about glonassPairAge older.
enum class GlonassStart { filter, oneState, twoStates };

// s: the fit span when the input holds no more (a day of broadcast records).
constexpr double kDefaultFitSpan = 24 * 3600.0;

struct PipelineOptions {
  double fitEnd = 0;                 // GPS seconds: the last sample is at or before it, on the grid
  double fitSpan = kDefaultFitSpan;  // s: samples cover [fitEnd - fitSpan, fitEnd]
  // s: shorter spans (after gaps) skip the satellite; 0: half of fitSpan, at
  // most half a day, so that a longer span takes what a day's span would
  double minFitSpan = 0;
  // s: a satellite whose data stop at most this long before the fit end is
  // fitted up to its last sample and predicted from there (receivers miss
  // records). On the 2009 station file (13 satellites predicted instead of 4)
  // the day-1 medians of those with data ending 2 to 12 h early were 4-12 m,
  // like the 2-15 m of those without a gap; 8 h leaves an arc of 16 h.
  double maxEndGap = 8 * 3600.0;
  double sampleStep = 900.0;     // s: sample spacing and integration step
  double days = 7.0;             // prediction length, days (at most kMaxPredictionDays)
  int gpsWindowSamples = 16;     // states per fitted GPS window (even): (n - 1) * step is the fit interval
  int beidouWindowSamples = 12;  // the same for BeiDou
  int geopotentialDegree = 8;    // degree and order of the gravity field
  bool antennaOffset = true;     // broadcast positions refer to the antenna phase centre
  bool checkFit = false;         // measure each written ephemeris against the states it was fitted to
  // Estimate the radiation-pressure parameters p1, p2 with the orbit by a batch
  // least-squares fit over the whole arc (estimateInitialStateBatch); without,
  // or when that fails, the Kalman filter with the block defaults.
  bool estimateSrp = true;
  // A-priori standard deviations of p1 and p2 about the block defaults in that
  // fit (0: free). One day of samples does not separate p1 and p2 from
  // unmodelled forces well: free, they absorb them and the prediction suffers
  // beyond day 2; held this close they improved every data set measured
  // (2009, 2016, 2020, 2023 broadcast, 2019 precise) against both looser
  // (0.1, 1) and free values.
  support::Srp srpSigma{{0.03, 0.3}};
  // The same for precise orbits (predictFromSp3): samples good to centimetres
  // carry p1 and p2 well, and held to the broadcast values they leave the
  // force-model error in the prediction. On the 2019 precise set (fits on
  // days 97, 100 and 102) the GPS medians on days 1/3 were 0.70/6.7,
  // 0.80/8.8 and 0.77/6.4 m with the broadcast values, 0.52/3.0, 0.53/4.6
  // and 0.52/4.5 m with these; (0.03, 0.6) did worse, (0.03, 2) and
  // (0.03, 5) no better.
  support::Srp preciseSrpSigma{{0.1, 1.0}};
  // The same for BeiDou GEO and IGSO. Their samples see the pole, the UT1 rate
  // and the Y-bias alike (held pole, orbit-normal attitude for weeks), so a
  // free Y-bias absorbs them and grows the error with the prediction: with 0.3
  // the 2019 precise set gave IGSO day-7 medians of 307 m, with 0.1 54 m (GEO
  // 191 and 146 m); 0.05 and 0.03 did worse again (64 and 109 m).
  support::Srp geoSrpSigma{{0.03, 0.1}};
  // A-priori pole (IERS sense, rad). The filter estimates the pole for GPS and
  // BeiDou MEO satellites but holds it fixed for BeiDou GEO and IGSO, whose
  // samples cannot separate it from the orbit: give those the pole estimated
  // for the others (at 42000 km a pole of 0.4" is 80 m).
  support::Eop pole;

  // Hooks of a host that keeps state between runs (both optional). Workers
  // call them at once from several threads.
  //
  // The clock polynomial (offset s, drift s/s, drift rate s/s^2 at the
  // reference time: a0 + a1 dt + a2 dt^2) to encode at a predicted reference
  // time; false leaves the extrapolated last broadcast polynomial.
  std::function<bool(SatelliteId const&, double, std::array<double, 3>&)> predictedClock;
  // The model parameters of a satellite at the fit end, in place of satelliteAssistance().
  std::function<support::AssistanceData(SatelliteId const&, support::BeidouSvType, double)> assistance;
  GlonassStart glonassStart = GlonassStart::filter;
  double glonassPairAge = 6 * 3600.0;  // s: age of the second state of GlonassStart::twoStates

  // The Earth's rotation drifts from the uniform one by the length-of-day
  // excess, about 1 ms a day: 13 m at GPS height after a week. With
  // estimateUt1Rate (and estimateSrp) the satellites that estimate the pole also
  // estimate d(UT1 - UTC)/dt; otherwise, and for the others, ut1Rate (s/s) is
  // held.
  bool estimateUt1Rate = true;
  double ut1Rate = 0.0;
  // Stop after the initial-state estimate: no ephemerides (the UT1-rate pass).
  bool estimateOnly = false;
};

// Empty when the options can be used; otherwise what is wrong with them.
std::string validate(PipelineOptions const& options);
// s: the shortest arc a satellite is fitted over (minFitSpan resolved).
double minimumFitSpan(PipelineOptions const& options);
// s: shorter arcs leave p1 and p2 to the block defaults: over half a
// revolution the direct pressure cannot be told from the initial velocity.
constexpr double kMinSrpArc = 12 * 3600.0;
// Why the radiation-pressure parameters of a batch estimate cannot be used (no
// convergence, values outside the ranges the assistance data store); empty
// when they can.
std::string srpRefusal(support::BatchEstimate const& b);
// Fit interval of a predicted ephemeris of the system ('G', 'C'), hours.
double windowHours(PipelineOptions const& options, char system);

struct SatellitePrediction {
  SatelliteId sat;
  std::string skipReason;            // non-empty when nothing was predicted: one line saying why
  std::vector<std::string> notes;    // records left out and other remarks, one line each
  std::vector<Ephemeris> predicted;  // encoded and validated, in toe order (GLONASS: fromGlonass)
  int rejected = 0;                  // windows whose fit failed or whose elements failed validation
  double fitStart = 0, fitEnd = 0;   // GPS seconds of the first and last sample
  int samples = 0;
  double dataEndGap = 0;      // s: the samples stop this long before the last grid instant (maxEndGap)
  double sampleRms = 0;       // m: RMS distance between the samples and the estimated orbit
                              // (GLONASS: over the second half of the span)
  double maxFitResidual = 0;  // m: with checkFit, the largest distance between a written
                              // ephemeris and the propagated states of its window
                              // (infinite when that propagation fails)
  support::BeidouSvType svType = support::UNDEFINED_SAT_TYPE;
  support::Eop pole;              // the estimated (or held) pole (rad)
  support::Srp srp{};             // radiation-pressure parameters propagated with (AssistanceData.srp)
  bool srpEstimated = false;      // srp estimated from the samples rather than the block defaults
  double ut1Rate = 0.0;           // d(UT1 - UTC)/dt (s/s) the prediction was converted with
  bool ut1RateEstimated = false;  // ut1Rate estimated from this satellite's samples
  double cpuSeconds = 0;          // thread CPU time of the whole prediction
  double estimateSeconds = 0, propagateSeconds = 0;  // of which: estimation, propagation and fit
};

// True for the orbit types whose filter holds the pole at its a-priori value.
bool holdsPole(support::BeidouSvType type);
// Orbit type of a satellite from its latest broadcast record.
support::BeidouSvType orbitType(std::vector<Ephemeris> const& records);
// The pole for satellites that hold it: per coordinate, the median of the
// poles estimated for the other satellites; zero when there are none.
support::Eop medianPole(std::vector<SatellitePrediction> const& predictions);

// From one satellite's broadcast ephemerides (any order, as read). Records
// after the fit end are not used; the rest are screened (screenEphemerides).
// GLONASS satellites go to predictGlonassFromBroadcast (glonass_pipeline.hpp),
// as they do to predictGlonassFromSp3 below.
SatellitePrediction predictFromBroadcast(std::vector<Ephemeris> const& records,
                                         PipelineOptions const& options);
// From precise orbits (centre of mass). Clock terms are a straight line fitted
// to the SP3 clocks of the fit span.
SatellitePrediction predictFromSp3(Sp3Orbit const& orbit, SatelliteId const& sat,
                                   PipelineOptions const& options);

// ---- A constellation -----------------------------------------------------------

struct ConstellationOptions {
  // fitEnd is used only when fitEndGiven; pole is replaced for the satellites that hold it.
  PipelineOptions pipeline;
  bool fitEndGiven = false;
  // Without fitSpanGiven a GPS or BeiDou satellite whose data reach back
  // longFitSpan before the fit end is fitted over that arc, the others over
  // kDefaultFitSpan, and GLONASS satellites always over kDefaultFitSpan
  // (fitSpanFor); with it every satellite over pipeline.fitSpan.
  bool fitSpanGiven = false;
  // s: two days of data halved the GPS day-3 to day-7 medians of the 2019
  // precise set against one day (04-09: 10.3 / 44.3 m to 4.7 / 19.2 m; 04-12
  // day 3: 9.0 to 4.5 m), took the 2009 precise day-1 p95 from 4.3 to 2.2 m
  // and the 2020 broadcast day-2 p95 from 12.7 to 7.1 m; three days did worse
  // than two for GPS and BeiDou IGSO.
  double longFitSpan = 48 * 3600.0;
  std::vector<char> systems = {'G', 'R', 'C'};
  std::vector<SatelliteId> satellites;  // only these; empty: every satellite of `systems`
  unsigned threads = 1;                 // worker threads (at least one)
  // If set: called with (0, selected satellites) before the first one starts,
  // then by the workers, possibly at once, with (satellites done, selected)
  // after each one.
  std::function<void(std::size_t, std::size_t)> progress;
};

struct ConstellationPrediction {
  // GPS seconds on the grid of pipeline.sampleStep: a given fit end moved back
  // to it, otherwise the grid instant nearest the latest reference time of the
  // records (a broadcast record is good for a while after its toe) or the last
  // grid instant of the precise orbit.
  double fitEnd = 0;
  std::vector<SatellitePrediction> satellites;  // the selected satellites, in input order
  std::size_t poleHolders = 0;                  // satellites that held the pole (BeiDou GEO, IGSO)
  support::Eop heldPole;                        // the pole they held: medianPole of the GPS and MEO ones
  // d(UT1 - UTC)/dt (s/s) of every prediction: the median of the GPS and
  // BeiDou MEO satellites' own estimates (each estimate then moved to it
  // held), or the one given when fewer than five satellites could estimate it.
  double ut1Rate = 0.0;
  std::size_t ut1RateEstimates = 0;  // satellites behind that median; 0 when it was held
  // Satellites given longFitSpan (or the given span) and kDefaultFitSpan.
  std::size_t longArcs = 0, dayArcs = 0;
  double longFitSpan = 0;  // s
};

// s: the fit span of a satellite of `system` ('G', 'R', 'C') whose data
// (ephemeris reference times or tabulated epochs) begin at dataStart, GPS
// seconds, for a prediction from fitEnd.
double fitSpanFor(char system, double dataStart, double fitEnd, ConstellationOptions const& options);

// The median d(UT1 - UTC)/dt of the satellites that estimated it (0 when none did).
double medianUt1Rate(std::vector<SatellitePrediction> const& predictions);

// Every selected satellite of the input, `threads` at a time. The Earth's
// orientation comes from every GPS and BeiDou MEO satellite of the input,
// selected or not, so that no satellite's prediction depends on which others
// are selected: their median UT1 rate is held by all, their median pole by the
// satellites that hold the pole (BeiDou GEO and IGSO), which run last.
ConstellationPrediction predictConstellation(std::map<SatelliteId, std::vector<Ephemeris>> const& records,
                                             ConstellationOptions const& options);
// The fit end that predictConstellation uses for these records.
double constellationFitEnd(std::map<SatelliteId, std::vector<Ephemeris>> const& records,
                           ConstellationOptions const& options);
ConstellationPrediction predictConstellation(Sp3Orbit const& orbit, ConstellationOptions const& options);

}  // namespace host
}  // namespace zarn

#endif
