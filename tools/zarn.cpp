// zarn: predicts GPS, GLONASS and BeiDou broadcast ephemerides days ahead from broadcast
// navigation files or precise orbits, and measures predicted ephemerides
// against a reference orbit.
//
//   zarn predict --nav FILE... | --sp3 FILE...  --out PREDICTED.rnx [options]
//   zarn evaluate --predicted PREDICTED.rnx --truth FILE... [--csv F] [--json F]
//   zarn status --state DIR [--at TIME] [--json]
//
// Exit status: 0 success, 1 failure (unreadable input, nothing to predict or
// evaluate), 2 wrong usage.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "zarn/host/ephemeris.hpp"
#include "zarn/host/evaluation.hpp"
#include "zarn/host/pipeline.hpp"
#include "zarn/host/rinex_nav.hpp"
#include "zarn/host/sp3.hpp"
#include "zarn/host/sp3_orbit.hpp"
#include "zarn/host/state_store.hpp"
#include "zarn/host/text_file.hpp"

namespace {

using namespace zarn::host;

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr double kEvaluationStep = 300.0;  // s: every predicted ephemeris is sampled every 5 minutes
constexpr char const* kBeidouIntervalComment = "BDS FIT INTERVAL";

char const* const kMainHelp =
    "usage: zarn <command> [options]\n"
    "\n"
    "Predicts GPS, GLONASS and BeiDou broadcast ephemerides days ahead and measures their accuracy.\n"
    "\n"
    "commands:\n"
    "  predict    fit broadcast or precise orbits up to a fit end, write predicted ephemerides (RINEX 3)\n"
    "  evaluate   compare predicted ephemerides with SP3 or broadcast truth\n"
    "  status     show the state kept between runs (--state DIR of predict)\n"
    "\n"
    "Run 'zarn <command> --help' for the options of a command.\n";

char const* const kPredictHelp =
    "usage: zarn predict (--nav FILE... | --sp3 FILE...) --out PREDICTED.rnx [options]\n"
    "\n"
    "Fits each satellite's orbit to positions sampled from its broadcast ephemerides (--nav, RINEX 2/3/4\n"
    "navigation files, gzip allowed) or from precise orbits (--sp3) up to the fit end, propagates it and\n"
    "writes predicted ephemerides: every two hours for GPS, every hour for BeiDou, every 30 minutes for\n"
    "GLONASS.\n"
    "\n"
    "options:\n"
    "  --nav FILE...       broadcast navigation files (records of all files are merged)\n"
    "  --sp3 FILE...       SP3 precise orbit files (centre of mass)\n"
    "  --out FILE          output RINEX 3 navigation file; its header records the fit end\n"
    "  --fit-end TIME      end of the fit, GPS time 'YYYY-MM-DD[THH:MM[:SS]]'; default: the latest\n"
    "                      ephemeris reference time (--nav) or the last SP3 epoch (--sp3)\n"
    "  --days N            prediction length in days, at most 14 (default 7)\n"
    "  --systems G,R,C     constellations to predict (default G,R,C: GPS, GLONASS and BeiDou)\n"
    "  --glonass-start S   how a GLONASS orbit starts: filter (fit to the broadcast states of the fit\n"
    "                      span, default), one (the newest broadcast state) or two (the newest and one\n"
    "                      about six hours older)\n"
    "  --satellites LIST   only these satellites, e.g. G01,G14,C11\n"
    "  --fit-span HOURS    length of the fitted span of every satellite; default: 48 for a GPS or\n"
    "                      BeiDou satellite whose data (several --nav or --sp3 files) reach back two days\n"
    "                      before the fit end, 24 for the others and for GLONASS\n"
    "  --step SECONDS      sample and integration step (default 900)\n"
    "  --window N          states per fitted GPS ephemeris, even; the fit interval is (N - 1) steps\n"
    "                      (default 16: 3.75 h)\n"
    "  --beidou-window N   the same for BeiDou (default 12: 2.75 h)\n"
    "  --no-antenna-offset treat broadcast positions as centre of mass (for studies)\n"
    "  --no-srp-estimation keep the block defaults of the radiation-pressure parameters and fit\n"
    "                      the orbit with the Kalman filter instead of the batch fit\n"
    "  --srp-sigma P1,P2   a-priori standard deviations of p1 and p2 about the block defaults\n"
    "                      in the batch fit (0: free; default 0.03,0.3 for --nav, 0.1,1 for --sp3)\n"
    "  --lod MS            hold the length-of-day excess at MS milliseconds instead of estimating it\n"
    "  --end-gap HOURS     fit a satellite whose data stop at most this long before the fit end\n"
    "                      up to its last sample and predict from there (default 8)\n"
    "  --check             re-propagate and report how closely every written ephemeris\n"
    "                      matches the states it was fitted to\n"
    "  --jobs N            worker threads (default: the number of processors)\n"
    "  --state DIR         keep state between runs in DIR (created on the first run): model parameters,\n"
    "                      clock filters fed with every broadcast clock (a converged filter predicts the\n"
    "                      clocks), the pole filter (its pole is the next a-priori pole) and the record of\n"
    "                      initialisations and predictions\n"
    "  --help              this text\n";

char const* const kStatusHelp =
    "usage: zarn status --state DIR [--at TIME] [--json]\n"
    "\n"
    "Shows the state that 'zarn predict --state DIR' keeps: per constellation and satellite the state,\n"
    "the suggested time of the next initialisation and whether to initialise at TIME, the clock filter\n"
    "(converged or not, and its number of updates) and the model parameters (stored or built-in).\n"
    "Files that do not load are reported and left as they are.\n"
    "\n"
    "options:\n"
    "  --state DIR         the state directory\n"
    "  --at TIME           GPS time 'YYYY-MM-DD[THH:MM[:SS]]' (default: now)\n"
    "  --json              JSON instead of the table\n"
    "  --help              this text\n";

char const* const kEvaluateHelp =
    "usage: zarn evaluate --predicted PREDICTED.rnx --truth FILE... [--csv ERRORS.csv] [--json "
    "SUMMARY.json]\n"
    "\n"
    "Evaluates every predicted ephemeris every 5 minutes over its validity interval against the truth and\n"
    "prints, per truth, constellation (BeiDou also per orbit type) and day of prediction age, the median,\n"
    "95th percentile and maximum 3D orbit error, the RMS radial, along-track and cross-track errors and\n"
    "the RMS orbit-only SISRE, with satellite and sample counts. Errors are in metres at the antenna\n"
    "phase centre; SP3 truth (centre of mass) is moved there with the default antenna offsets.\n"
    "\n"
    "options:\n"
    "  --predicted FILE    predicted ephemerides written by 'zarn predict'\n"
    "  --truth FILE...     SP3 files and/or broadcast navigation files (each kind is a separate truth)\n"
    "  --csv FILE          every error sample, one line each\n"
    "  --json FILE         the summary table in JSON\n"
    "  --help              this text\n";

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Options of one command: "--name value..." groups; a group ends at the next "--" word.
class Arguments {
 public:
  Arguments(int argc, char** argv, int first) {
    std::string current;
    for (int i = first; i < argc; ++i) {
      std::string const word = argv[i];
      if (word.size() > 2 && word.compare(0, 2, "--") == 0) {
        current = word.substr(2);
        if (values_.count(current) != 0) throw UsageError("option --" + current + " given twice");
        values_[current];
        order_.push_back(current);
      } else if (current.empty()) {
        throw UsageError("unexpected argument '" + word + "'");
      } else {
        values_[current].push_back(word);
      }
    }
  }
  bool has(std::string const& name) const { return values_.count(name) != 0; }
  std::vector<std::string> list(std::string const& name) const {
    auto it = values_.find(name);
    return it == values_.end() ? std::vector<std::string>{} : it->second;
  }
  // The single value of an option; `fallback` when absent.
  std::string single(std::string const& name, std::string const& fallback = "") const {
    auto it = values_.find(name);
    if (it == values_.end()) return fallback;
    if (it->second.size() != 1) throw UsageError("option --" + name + " takes one value");
    return it->second.front();
  }
  void flag(std::string const& name) const {
    auto it = values_.find(name);
    if (it != values_.end() && !it->second.empty()) throw UsageError("option --" + name + " takes no value");
  }
  void allow(std::vector<std::string> const& known) const {
    for (std::string const& name : order_) {
      if (std::find(known.begin(), known.end(), name) == known.end()) {
        throw UsageError("unknown option --" + name);
      }
    }
  }

 private:
  std::map<std::string, std::vector<std::string>> values_;
  std::vector<std::string> order_;
};

double number(std::string const& text, std::string const& option) {
  char* end = nullptr;
  double const value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !std::isfinite(value)) {
    throw UsageError("option --" + option + ": '" + text + "' is not a number");
  }
  return value;
}

std::vector<std::string> splitList(std::string const& text) {
  std::vector<std::string> items;
  std::stringstream in(text);
  std::string item;
  while (std::getline(in, item, ',')) {
    if (!item.empty()) items.push_back(item);
  }
  return items;
}

std::string baseName(std::string const& path) {
  return path.substr(path.find_last_of('/') + 1);
}

bool isSp3Text(std::string const& text) {
  return text.size() > 2 && text[0] == '#' && std::string("abcd").find(text[1]) != std::string::npos;
}

// Progress on stderr, drawn only when stderr is a terminal.
class Progress {
 public:
  Progress(std::size_t total, char const* label) : total_(total), label_(label), enabled_(isatty(2) != 0) {
    draw();
  }
  void advance() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++done_;
    draw();
  }
  void finish() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (enabled_) std::fprintf(stderr, "\r\033[K");
  }

 private:
  void draw() {
    if (!enabled_ || total_ == 0) return;
    constexpr int kWidth = 40;
    int const filled = static_cast<int>(kWidth * done_ / total_);
    std::fprintf(stderr, "\r%s [%s%s] %zu/%zu", label_,
                 std::string(static_cast<std::size_t>(filled), '#').c_str(),
                 std::string(static_cast<std::size_t>(kWidth - filled), '.').c_str(), done_, total_);
    std::fflush(stderr);
  }
  std::mutex mutex_;
  std::size_t done_ = 0;
  std::size_t total_;
  char const* label_;
  bool enabled_;
};

// ---- predict ---------------------------------------------------------------

ConstellationOptions predictOptions(Arguments const& args) {
  ConstellationOptions options;
  PipelineOptions& pipeline = options.pipeline;
  if (args.has("days")) pipeline.days = number(args.single("days"), "days");
  options.fitSpanGiven = args.has("fit-span");
  if (options.fitSpanGiven) pipeline.fitSpan = number(args.single("fit-span"), "fit-span") * 3600.0;
  if (args.has("step")) pipeline.sampleStep = number(args.single("step"), "step");
  if (args.has("window"))
    pipeline.gpsWindowSamples = static_cast<int>(number(args.single("window"), "window"));
  if (args.has("beidou-window")) {
    pipeline.beidouWindowSamples = static_cast<int>(number(args.single("beidou-window"), "beidou-window"));
  }
  args.flag("no-antenna-offset");
  args.flag("check");
  args.flag("no-srp-estimation");
  pipeline.estimateSrp = !args.has("no-srp-estimation");
  if (args.has("srp-sigma")) {
    std::string const text = args.single("srp-sigma");
    std::size_t const comma = text.find(',');
    if (comma == std::string::npos) throw UsageError("--srp-sigma takes two numbers, P1,P2");
    pipeline.srpSigma[0] = number(text.substr(0, comma), "srp-sigma");
    pipeline.srpSigma[1] = number(text.substr(comma + 1), "srp-sigma");
    pipeline.preciseSrpSigma = pipeline.srpSigma;
  }
  if (args.has("end-gap")) pipeline.maxEndGap = number(args.single("end-gap"), "end-gap") * 3600.0;
  if (args.has("lod")) {
    pipeline.estimateUt1Rate = false;
    pipeline.ut1Rate = -number(args.single("lod"), "lod") * 1e-3 / 86400.0;
  }
  pipeline.antennaOffset = !args.has("no-antenna-offset");
  pipeline.checkFit = args.has("check");
  std::string const problem = validate(pipeline);
  if (!problem.empty()) throw UsageError(problem);

  options.systems.clear();
  for (std::string const& s : splitList(args.single("systems", "G,R,C"))) {
    if (s != "G" && s != "R" && s != "C") throw UsageError("--systems takes G, R and/or C, not '" + s + "'");
    options.systems.push_back(s[0]);
  }
  for (std::string const& name : splitList(args.single("satellites", ""))) {
    // A name not written as toString writes it ("G01") matches no satellite.
    SatelliteId sat{name.empty() ? '?' : name[0], std::atoi(name.c_str() + (name.empty() ? 0 : 1))};
    if (toString(sat) != name) sat.prn = -1;
    options.satellites.push_back(sat);
  }
  std::string const start = args.single("glonass-start", "filter");
  if (start == "one") {
    options.pipeline.glonassStart = GlonassStart::oneState;
  } else if (start == "two") {
    options.pipeline.glonassStart = GlonassStart::twoStates;
  } else if (start != "filter") {
    throw UsageError("--glonass-start takes filter, one or two, not '" + start + "'");
  }
  options.fitEndGiven = args.has("fit-end");
  if (options.fitEndGiven && !parseGpsTime(args.single("fit-end"), pipeline.fitEnd)) {
    throw UsageError("--fit-end: '" + args.single("fit-end") + "' is not a time like 2016-09-08T00:00:00");
  }
  options.threads = std::max(1u, std::thread::hardware_concurrency());
  if (args.has("jobs")) {
    double const j = number(args.single("jobs"), "jobs");
    if (!(j >= 1.0)) throw UsageError("--jobs must be at least 1");
    options.threads = static_cast<unsigned>(j);
  }
  return options;
}

std::map<SatelliteId, std::vector<Ephemeris>> readBroadcast(std::vector<std::string> const& files) {
  std::vector<NavData> navs;
  for (std::string const& f : files) {
    navs.push_back(readRinexNav(f));
    for (std::string const& w : navs.back().stats.warnings)
      std::fprintf(stderr, "zarn predict: %s\n", w.c_str());
  }
  return collectEphemerides(navs);
}

// Writes the predicted records and checks that the file gives back exactly
// what was written, every record within the broadcast ranges. Empty on
// success, otherwise what went wrong.
std::string writeChecked(std::string const& out, NavWriteOptions const& writeOptions,
                         std::vector<zarn::core::GpsEphemeris> const& gps,
                         std::vector<zarn::core::BeidouEphemeris> const& beidou,
                         std::vector<zarn::core::GlonassEphemeris> const& glonass) {
  writeRinexNav(out, writeOptions, gps, beidou, glonass);
  NavData const back = readRinexNav(out);
  std::string mismatch;
  if (back.gps.size() != gps.size() || back.beidou.size() != beidou.size() ||
      back.glonass.size() != glonass.size()) {
    mismatch = std::to_string(back.gps.size() + back.beidou.size() + back.glonass.size()) +
               " records read, " + std::to_string(gps.size() + beidou.size() + glonass.size()) + " written";
  }
  std::size_t invalid = 0;
  auto differs = [&](Ephemeris const& e) {
    if (mismatch.empty())
      mismatch = "the record of " + toString(e.sat) + " with toe " + formatGpsTime(e.toe) + " differs";
  };
  for (std::size_t i = 0; i < gps.size() && i < back.gps.size(); ++i) {
    if (!(back.gps[i].eph == gps[i])) differs(fromGps(gps[i]));
    invalid += passesValidation(fromGps(back.gps[i].eph)) ? 0 : 1;
  }
  for (std::size_t i = 0; i < beidou.size() && i < back.beidou.size(); ++i) {
    if (!(back.beidou[i].eph == beidou[i])) differs(fromBeidou(beidou[i]));
    invalid += passesValidation(fromBeidou(back.beidou[i].eph)) ? 0 : 1;
  }
  for (std::size_t i = 0; i < glonass.size() && i < back.glonass.size(); ++i) {
    if (!(back.glonass[i].eph == glonass[i])) differs(fromGlonass(glonass[i]));
    invalid += passesValidation(fromGlonass(back.glonass[i].eph)) ? 0 : 1;
  }
  if (mismatch.empty() && invalid == 0) return "";
  return out + " does not read back as written: " + (mismatch.empty() ? "all records equal" : mismatch) +
         "; " + std::to_string(invalid) + " records fail validation";
}

// The fit arcs given to the satellites.
void reportArcs(ConstellationPrediction const& prediction) {
  if (prediction.dayArcs == 0) {
    std::printf("fit arcs: %.0f h for every satellite\n", prediction.longFitSpan / 3600.0);
    return;
  }
  std::printf(
      "fit arcs: %.0f h for %zu GPS and BeiDou satellites whose data reach back that far, %.0f h for "
      "%zu others\n",
      prediction.longFitSpan / 3600.0, prediction.longArcs, kDefaultFitSpan / 3600.0, prediction.dayArcs);
}

// The pole given to the satellites that hold it, or why it is zero; the
// length-of-day excess every prediction was converted with.
void reportPole(ConstellationPrediction const& prediction) {
  double const lod = prediction.ut1Rate == 0.0 ? 0.0 : -prediction.ut1Rate * 86400.0 * 1e3;  // ms
  if (prediction.ut1RateEstimates > 0) {
    std::printf("length of day excess estimated from %zu satellites: %.3f ms\n", prediction.ut1RateEstimates,
                lod);
  } else {
    std::printf("length of day excess held at %.3f ms\n", lod);
  }
  if (prediction.poleHolders == 0) return;
  constexpr double kArcsecond = 4.84813681109536e-6;  // rad
  if (prediction.heldPole.xp == 0.0 && prediction.heldPole.yp == 0.0) {
    std::fprintf(stderr,
                 "zarn predict: no GPS or BeiDou MEO satellite to estimate the pole from; GEO and IGSO "
                 "satellites assume a zero pole\n");
  } else {
    std::printf(
        "pole estimated from GPS and BeiDou MEO orbits, held for GEO and IGSO: xp %.3f\", yp %.3f\"\n",
        prediction.heldPole.xp / kArcsecond, prediction.heldPole.yp / kArcsecond);
  }
}

struct PredictReport {
  std::vector<zarn::core::GpsEphemeris> gps;  // the records to write
  std::vector<zarn::core::BeidouEphemeris> beidou;
  std::vector<zarn::core::GlonassEphemeris> glonass;
  std::size_t predicted = 0, skipped = 0;  // satellites
  double worstFit = 0.0;                   // m
  double cpu = 0.0;                        // s
};

// One line per satellite (notes and skips on stderr), and the records to write.
PredictReport reportSatellites(ConstellationPrediction const& prediction, bool checkFit) {
  PredictReport report;
  for (SatellitePrediction const& r : prediction.satellites) {
    for (std::string const& note : r.notes) std::fprintf(stderr, "zarn predict: %s\n", note.c_str());
    report.cpu += r.cpuSeconds;
    if (!r.skipReason.empty()) {
      std::fprintf(stderr, "zarn predict: %s: skipped: %s\n", toString(r.sat).c_str(), r.skipReason.c_str());
      ++report.skipped;
      continue;
    }
    ++report.predicted;
    for (Ephemeris const& e : r.predicted) {
      if (e.sat.system == 'C') {
        report.beidou.push_back(e.beidou);
      } else if (e.sat.system == 'R') {
        report.glonass.push_back(e.glonass);
      } else {
        report.gps.push_back(e.gps);
      }
    }
    std::string line =
        toString(r.sat) + "  fit " + formatGpsTime(r.fitStart) + " .. " + formatGpsTime(r.fitEnd);
    char text[160];
    std::snprintf(text, sizeof text, " (%d samples, rms %.2f m)  srp p1 %.3f p2 %.3f (%s)  %zu ephemerides",
                  r.samples, r.sampleRms, r.srp[0], r.srp[1], r.srpEstimated ? "estimated" : "defaults",
                  r.predicted.size());
    line += text;
    if (r.rejected > 0) {
      line +=
          ", " + std::to_string(r.rejected) + (r.sat.system == 'R' ? " records" : " windows") + " refused";
    }
    if (r.dataEndGap > 0) {
      std::snprintf(text, sizeof text, ", data end %.2f h early: fitted up to the last sample",
                    r.dataEndGap / 3600.0);
      line += text;
    }
    if (checkFit && r.sat.system != 'R') {  // GLONASS records are states, not fits
      std::snprintf(text, sizeof text, ", fit residual %.3f m", r.maxFitResidual);
      line += text;
    }
    std::printf("%s\n", line.c_str());
    report.worstFit = std::max(report.worstFit, r.maxFitResidual);
  }
  return report;
}

// Feeds the broadcast clocks up to the fit end into the state's filters.
void feedClocks(StateStore& state, std::map<SatelliteId, std::vector<Ephemeris>> const& records,
                ConstellationOptions const& options) {
  std::size_t const fed = state.feedClocks(records, constellationFitEnd(records, options));
  std::size_t converged = 0;
  for (auto const& entry : state.clockFilters()) converged += entry.second.converged() ? 1 : 0;
  std::printf("state: %zu broadcast clocks fed; %zu of %zu clock filters converged (their clocks are used)\n",
              fed, converged, state.clockFilters().size());
}

// Feeds the pole, records the outcome and writes the state back.
int saveState(StateStore& state, ConstellationPrediction const& prediction) {
  constexpr double kArcsecond = 4.84813681109536e-6;  // rad
  if (state.feedPole(prediction)) {
    zarn::support::Eop const pole = state.aprioriPole();
    std::printf("state: filtered pole xp %.4f\", yp %.4f\" (the next a-priori pole)\n", pole.xp / kArcsecond,
                pole.yp / kArcsecond);
  }
  state.recordPrediction(prediction);
  std::string error;
  if (!state.save(error)) {
    std::fprintf(stderr, "zarn predict: state not saved: %s\n", error.c_str());
    return kExitFailure;
  }
  std::printf("state: saved to %s\n", state.directory().c_str());
  return 0;
}

int runPredict(Arguments const& args) {
  args.allow({"nav",           "sp3",
              "out",           "fit-end",
              "days",          "systems",
              "satellites",    "fit-span",
              "step",          "window",
              "beidou-window", "no-antenna-offset",
              "check",         "no-srp-estimation",
              "srp-sigma",     "lod",
              "end-gap",       "jobs",
              "state",         "glonass-start",
              "help"});
  if (args.has("help")) {
    std::fputs(kPredictHelp, stdout);
    return 0;
  }
  std::vector<std::string> const navFiles = args.list("nav");
  std::vector<std::string> const sp3Files = args.list("sp3");
  if (navFiles.empty() == sp3Files.empty()) throw UsageError("give either --nav FILE... or --sp3 FILE...");
  std::string const out = args.single("out");
  if (out.empty()) throw UsageError("--out FILE is required");
  ConstellationOptions options = predictOptions(args);
  bool const fromSp3 = navFiles.empty();
  std::unique_ptr<StateStore> state;
  if (args.has("state")) {
    state.reset(new StateStore(args.single("state")));
    std::string error;
    if (!state->load(error)) {
      std::fprintf(stderr, "zarn predict: %s\n", error.c_str());
      return kExitFailure;
    }
    for (std::string const& p : state->problems())
      std::fprintf(stderr, "zarn predict: state: %s\n", p.c_str());
    state->attach(options.pipeline);
    // Precise orbits carry their own clocks.
    if (fromSp3) options.pipeline.predictedClock = nullptr;
  }

  std::unique_ptr<Progress> progress;
  options.progress = [&](std::size_t done, std::size_t total) {
    if (!progress) progress.reset(new Progress(total, "predicting"));
    if (done > 0) progress->advance();
  };
  ConstellationPrediction prediction;
  if (fromSp3) {
    std::vector<Sp3Data> files;
    for (std::string const& f : sp3Files) files.push_back(readSp3(f));
    prediction = predictConstellation(Sp3Orbit(files), options);
  } else {
    std::map<SatelliteId, std::vector<Ephemeris>> const records = readBroadcast(navFiles);
    if (state) feedClocks(*state, records, options);
    prediction = predictConstellation(records, options);
  }
  if (prediction.satellites.empty()) {
    std::fprintf(stderr, "zarn predict: no %s satellite in the input\n",
                 args.single("systems", "G,R,C").c_str());
    return kExitFailure;
  }
  progress->finish();
  reportArcs(prediction);
  reportPole(prediction);
  PredictReport const report = reportSatellites(prediction, options.pipeline.checkFit);
  std::vector<zarn::core::GpsEphemeris> const& gps = report.gps;
  std::vector<zarn::core::BeidouEphemeris> const& beidou = report.beidou;
  std::vector<zarn::core::GlonassEphemeris> const& glonass = report.glonass;
  if (gps.empty() && beidou.empty() && glonass.empty()) {
    std::fprintf(stderr, "zarn predict: no satellite could be predicted; nothing written\n");
    return kExitFailure;
  }

  // Write.
  NavWriteOptions writeOptions;
  writeOptions.hasFitEnd = true;
  writeOptions.fitEnd = prediction.fitEnd;
  writeOptions.leapSeconds = leapSecondsAt(prediction.fitEnd);
  writeOptions.gpsFitIntervalHours = windowHours(options.pipeline, 'G');
  char comment[64];
  std::snprintf(comment, sizeof comment, "%s %.4f H", kBeidouIntervalComment,
                windowHours(options.pipeline, 'C'));
  writeOptions.comments.push_back(comment);
  writeOptions.comments.push_back(std::string("PREDICTED FROM ") +
                                  (fromSp3 ? "SP3 ORBITS" : "BROADCAST EPHEMERIDES"));
  std::string const problem = writeChecked(out, writeOptions, gps, beidou, glonass);
  if (!problem.empty()) {
    std::fprintf(stderr, "zarn predict: %s\n", problem.c_str());
    return kExitFailure;
  }
  std::printf(
      "wrote %zu GPS, %zu GLONASS and %zu BeiDou ephemerides of %zu satellites to %s (fit end %s GPST, %zu "
      "skipped)\n",
      gps.size(), glonass.size(), beidou.size(), report.predicted, out.c_str(),
      formatGpsTime(prediction.fitEnd).c_str(), report.skipped);
  std::printf("read back: %zu records identical to those written, all within the broadcast ranges\n",
              gps.size() + beidou.size() + glonass.size());
  std::printf("CPU time in the pipeline: %.3f s\n", report.cpu);
  if (options.pipeline.checkFit) {
    std::printf("largest fit residual of a written ephemeris: %.3f m\n", report.worstFit);
  }
  if (state) return saveState(*state, prediction);
  return 0;
}

// ---- status ----------------------------------------------------------------

int runStatus(Arguments const& args) {
  args.allow({"state", "at", "json", "help"});
  if (args.has("help")) {
    std::fputs(kStatusHelp, stdout);
    return 0;
  }
  args.flag("json");
  std::string const directory = args.single("state");
  if (directory.empty()) throw UsageError("--state DIR is required");
  double at = 0;
  if (args.has("at")) {
    if (!parseGpsTime(args.single("at"), at))
      throw UsageError("--at: '" + args.single("at") + "' is not a time like 2016-09-08T00:00:00");
  } else {
    constexpr double kGpsEpochUnix = 315964800.0;  // s: 1980-01-06 in Unix time
    double const utc = static_cast<double>(std::time(nullptr)) - kGpsEpochUnix;
    at = utc + leapSecondsAt(utc);
  }
  StateStore store(directory);
  std::string error;
  if (!store.load(error, true)) {
    std::fprintf(stderr, "zarn status: %s\n", error.c_str());
    return kExitFailure;
  }
  for (std::string const& p : store.problems()) std::fprintf(stderr, "zarn status: %s\n", p.c_str());
  std::fputs((args.has("json") ? statusJson(store, at) : statusTable(store, at)).c_str(), stdout);
  return 0;
}

// ---- evaluate --------------------------------------------------------------

int runEvaluate(Arguments const& args) {
  args.allow({"predicted", "truth", "csv", "json", "help"});
  if (args.has("help")) {
    std::fputs(kEvaluateHelp, stdout);
    return 0;
  }
  std::string const predictedFile = args.single("predicted");
  std::vector<std::string> const truthFiles = args.list("truth");
  if (predictedFile.empty()) throw UsageError("--predicted FILE is required");
  if (truthFiles.empty()) throw UsageError("--truth FILE... is required");

  NavData const nav = readRinexNav(predictedFile);
  double beidouHours = windowHours(PipelineOptions(), 'C');
  for (std::string const& c : nav.header.comments) {
    if (c.compare(0, std::string(kBeidouIntervalComment).size(), kBeidouIntervalComment) == 0) {
      beidouHours = std::atof(c.c_str() + std::string(kBeidouIntervalComment).size());
    }
  }
  std::vector<PredictedEphemeris> const predicted = predictedEphemerides(nav, beidouHours);
  if (predicted.empty()) {
    std::fprintf(stderr, "zarn evaluate: %s holds no GPS, GLONASS or BeiDou ephemeris\n",
                 predictedFile.c_str());
    return kExitFailure;
  }
  double from = predicted.front().validFrom, to = predicted.front().validTo;
  for (PredictedEphemeris const& p : predicted) {
    from = std::min(from, p.validFrom);
    to = std::max(to, p.validTo);
  }
  double fitEnd = nav.header.fitEnd;
  if (!nav.header.hasFitEnd) {
    fitEnd = from;
    std::fprintf(stderr, "zarn evaluate: %s does not record its fit end; ages count from %s\n",
                 predictedFile.c_str(), formatGpsTime(fitEnd).c_str());
  }

  std::vector<Sp3Data> sp3Files;
  std::vector<NavData> navFiles;
  for (std::string const& f : truthFiles) {
    std::string const text = readTextFile(f);
    if (isSp3Text(text)) {
      sp3Files.push_back(parseSp3(text, f));
    } else {
      navFiles.push_back(parseRinexNav(text, f));
    }
  }
  std::vector<std::unique_ptr<TruthOrbit>> truths;
  if (!sp3Files.empty()) truths.emplace_back(new Sp3Truth(sp3Files));
  if (!navFiles.empty()) {
    BroadcastTruth* b = new BroadcastTruth(navFiles);
    truths.emplace_back(b);
    for (std::string const& note : b->notes())
      std::fprintf(stderr, "zarn evaluate: truth: %s\n", note.c_str());
  }

  std::vector<ErrorSample> samples;
  for (auto const& truth : truths) {
    if (truth->end() < from || truth->start() > to) {
      std::fprintf(stderr,
                   "zarn evaluate: the predicted ephemerides (%s .. %s) and the %s truth (%s .. %s) do not "
                   "overlap in time\n",
                   formatGpsTime(from).c_str(), formatGpsTime(to).c_str(), truth->kind().c_str(),
                   formatGpsTime(truth->start()).c_str(), formatGpsTime(truth->end()).c_str());
      continue;
    }
    EvaluationResult r = evaluatePredictions(predicted, fitEnd, *truth, kEvaluationStep);
    if (!r.missing.empty()) {
      std::string list;
      for (std::string const& s : r.missing) list += (list.empty() ? "" : " ") + s;
      std::fprintf(stderr, "zarn evaluate: %s truth has no data for %s\n", truth->kind().c_str(),
                   list.c_str());
    }
    if (r.samples.empty()) {
      std::fprintf(stderr, "zarn evaluate: the %s truth covers no predicted satellite in time\n",
                   truth->kind().c_str());
    }
    samples.insert(samples.end(), r.samples.begin(), r.samples.end());
  }
  if (samples.empty()) {
    std::fprintf(stderr, "zarn evaluate: nothing to evaluate\n");
    return kExitFailure;
  }
  std::vector<SummaryRow> const rows = summarize(samples);
  std::printf("predicted: %s, fit end %s GPST, %zu ephemerides\n", baseName(predictedFile).c_str(),
              formatGpsTime(fitEnd).c_str(), predicted.size());
  std::fputs(formatSummary(rows).c_str(), stdout);
  if (args.has("csv")) {
    std::ofstream csv(args.single("csv"));
    writeErrorsCsv(csv, samples);
    if (!csv) throw std::runtime_error("cannot write " + args.single("csv"));
  }
  if (args.has("json")) {
    std::ofstream json(args.single("json"));
    json << summaryJson(rows, fitEnd);
    if (!json) throw std::runtime_error("cannot write " + args.single("json"));
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string const command = argc > 1 ? argv[1] : "";
  try {
    if (command.empty() || command == "--help" || command == "-h" || command == "help") {
      std::fputs(kMainHelp, command.empty() ? stderr : stdout);
      return command.empty() ? kExitUsage : 0;
    }
    Arguments const args(argc, argv, 2);
    if (command == "predict") return runPredict(args);
    if (command == "evaluate") return runEvaluate(args);
    if (command == "status") return runStatus(args);
    throw UsageError("unknown command '" + command + "'");
  } catch (UsageError const& e) {
    std::fprintf(
        stderr, "zarn%s%s: %s\n(run 'zarn %s--help' for usage)\n", command.empty() ? "" : " ",
        command.c_str(), e.what(),
        command == "predict" || command == "evaluate" || command == "status" ? (command + " ").c_str() : "");
    return kExitUsage;
  } catch (std::exception const& e) {
    std::fprintf(stderr, "zarn %s: error: %s\n", command.c_str(), e.what());
    return kExitFailure;
  }
}
