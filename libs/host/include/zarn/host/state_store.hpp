// What the predictor learns between runs, kept in one directory:
//
//   assistance-gps.dat, assistance-glonass.dat, assistance-beidou.dat
//       the enciphered assistance-data container of each constellation
//       (per-satellite radiation pressure, antenna offset, maximum prediction
//       length, outages, clock model and error parameters);
//   clock-filters.dat        one ClockFilter per satellite;
//   pole-filter.dat          the EopFilter of the estimated poles (arcseconds);
//   constellation-analyzer.dat  the ConstellationAnalyzer.
//
// The last three are framed: "ZARNSTAT", the part tag (u32), the version
// (u32), the payload length (u32) and its CRC-32 (u32), big-endian, then the
// payload, so that a file of another program, a truncated or a damaged one is
// told apart from a good one. Every file is written to NAME.tmp and renamed
// into place. A file that fails to load is moved aside to NAME.bad (bytes
// unchanged; NAME.bad.1, ... when that name is taken), reported in one line,
// and its part starts from defaults.
//
// New parts (per-satellite estimators, caches) join as another framed file:
// one entry in the part table of state_store.cpp.
#ifndef ZARN_HOST_STATE_STORE_HPP
#define ZARN_HOST_STATE_STORE_HPP

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "zarn/host/ephemeris.hpp"
#include "zarn/host/pipeline.hpp"
#include "zarn/support/assistance_data.hpp"
#include "zarn/support/clock_filter.hpp"
#include "zarn/support/constellation_analyzer.hpp"
#include "zarn/support/eop_filter.hpp"

namespace zarn {
namespace host {

// Initialisation and prediction event types recorded in the analyzer.
constexpr std::int32_t kFullInitialisationEvent = 2;
constexpr std::int32_t kPredictionEvent = 3;

// Writes `bytes` to path + ".tmp", flushes it to disk and renames it onto
// `path`, so that `path` holds either its old or its new bytes, never a
// mixture. False with `error` set (and no temporary left) on failure.
bool writeFileAtomically(std::string const& path, support::BinaryData const& bytes, std::string& error);

class StateStore {
 public:
  explicit StateStore(std::string directory);
  ~StateStore();
  StateStore(StateStore const&) = delete;
  StateStore& operator=(StateStore const&) = delete;

  std::string const& directory() const { return directory_; }

  // Creates the directory when missing and reads every state file in it. A
  // file that fails to read is moved to NAME.bad and noted in problems(); its
  // part starts from defaults. False (with `error`) only when the directory
  // cannot be created or is not a directory. With `inspect` the directory is
  // neither created nor changed (a missing one is an error; bad files stay).
  bool load(std::string& error, bool inspect = false);
  // One line per file that failed: "NAME: why; kept as NAME.bad".
  std::vector<std::string> const& problems() const { return problems_; }
  // Writes every part. False, with the failed files in `error`, when one
  // could not be written; the files written before stay in place.
  bool save(std::string& error);

  // ---- model parameters ----
  support::AssistanceDataFile& assistanceFile(core::GnssType gnss);
  support::AssistanceDataFile const& assistanceFile(core::GnssType gnss) const;
  // The stored record of the satellite, else satelliteAssistance().
  support::AssistanceData assistance(SatelliteId const& sat, support::BeidouSvType type, double t) const;
  // Stores a whole record / only the radiation-pressure coefficients (the rest
  // from assistance()). False for a satellite number the container cannot hold.
  bool setAssistance(SatelliteId const& sat, support::AssistanceData const& data);
  bool setSrp(SatelliteId const& sat, support::BeidouSvType type, double t, support::Srp const& srp);

  // ---- clocks ----
  std::map<SatelliteId, support::ClockFilter> const& clockFilters() const { return clocks_; }
  // Feeds every healthy broadcast clock polynomial with toc up to `until`
  // and after the filter's last update into the satellite's filter, in toc
  // order (one per toc); a filter not updated for longer than
  // kMaxPredictionDays restarts. Returns how many were fed.
  std::size_t feedClocks(std::map<SatelliteId, std::vector<Ephemeris>> const& records, double until);
  // The converged filter's clock (a0 s, a1 s/s, a2 s/s^2) at t; false when
  // the satellite has no converged filter.
  bool predictedClock(SatelliteId const& sat, double t, std::array<double, 3>& clock) const;

  // ---- pole ----
  support::EopFilter const& poleFilter() const { return pole_; }
  // The filtered pole (rad) as the next a-priori pole; zero before the first estimate.
  support::Eop aprioriPole() const;
  // Feeds the median of the poles estimated in a prediction (the satellites
  // that estimate it), with the spread of those estimates as its uncertainty.
  // False when no satellite estimated one.
  bool feedPole(ConstellationPrediction const& prediction);

  // ---- outcomes ----
  support::ConstellationAnalyzer const& analyzer() const { return analyzer_; }
  // Records an initialisation and a prediction event per predicted satellite
  // at the fit end, stores the parameters the prediction used for satellites
  // without a stored record, and refreshes the analyzer's assistance data.
  void recordPrediction(ConstellationPrediction const& prediction);

  // Hooks for predictConstellation: stored parameters and filtered clocks.
  void attach(PipelineOptions& options) const;

 private:
  struct Part;
  std::vector<Part> parts();
  bool loadPart(Part const& part);
  void moveAside(std::string const& name, std::string const& why);
  bool inspect_ = false;

  std::string directory_;
  std::vector<std::string> problems_;
  std::map<core::GnssType, std::unique_ptr<support::AssistanceDataFile>> assistance_;
  std::map<SatelliteId, support::ClockFilter> clocks_;
  support::EopFilter pole_;
  support::ConstellationAnalyzer analyzer_;
};

// What `zarn status` shows: per constellation and satellite the analyzer's
// state, suggested initialisation time and whether to initialise at `at` (GPS
// seconds), the clock filter and the stored model parameters.
std::string statusTable(StateStore const& store, double at);
std::string statusJson(StateStore const& store, double at);

// The satellite of a constellation and svId ('G' for GPS, 'R' GLONASS, 'C' BeiDou).
SatelliteId satelliteOf(core::GnssType gnss, int svId);

}  // namespace host
}  // namespace zarn

#endif
