#include "zarn/host/state_store.hpp"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <set>
#include <utility>

#include "zarn/host/gnss_time.hpp"
#include "zarn/support/encryption.hpp"
#include "zarn/support/serialization.hpp"
#include "zarn/support/time_conversion.hpp"
#include "zarn/support/utility.hpp"

namespace zarn {
namespace host {

namespace {

constexpr char kMagic[8] = {'Z', 'A', 'R', 'N', 'S', 'T', 'A', 'T'};
constexpr std::size_t kFrameHeader = 8 + 4 * 4;  // magic, tag, version, length, CRC
constexpr std::uint32_t kFrameVersion = 1;
constexpr std::uint32_t kTagClocks = 0x434c4b46;    // "CLKF"
constexpr std::uint32_t kTagPole = 0x454f5046;      // "EOPF"
constexpr std::uint32_t kTagAnalyzer = 0x414e4c5a;  // "ANLZ"
constexpr std::size_t kCipherBlock = 8;             // bytes: the container is whole cipher blocks

constexpr double kArcsecond = 4.84813681109536e-6;  // rad
// Floor of the pole uncertainty fed to the filter, arcseconds: the spread of a
// handful of satellites understates it.
constexpr double kMinPoleSigma = 0.005;
// Scale from the median absolute deviation to a standard deviation (normal distribution).
constexpr double kMadToSigma = 1.4826;

core::GnssType const kConstellations[] = {core::GPS, core::GLONASS, core::BEIDOU};

char const* gnssName(core::GnssType gnss) {
  return gnss == core::GLONASS ? "glonass" : gnss == core::BEIDOU ? "beidou" : "gps";
}

void putU32(support::BinaryData& out, std::uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<unsigned char>(v >> shift));
}
std::uint32_t getU32(support::BinaryData const& in, std::size_t at) {
  std::uint32_t v = 0;
  for (std::size_t i = 0; i < 4; ++i) v = (v << 8) | in[at + i];
  return v;
}

support::BinaryData frame(std::uint32_t tag, support::BinaryData const& payload) {
  support::BinaryData out(kMagic, kMagic + sizeof kMagic);
  putU32(out, tag);
  putU32(out, kFrameVersion);
  putU32(out, static_cast<std::uint32_t>(payload.size()));
  putU32(out, support::computeCrc32(payload.data(), payload.data() + payload.size()));
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

// The payload of a framed file; empty `why` on success.
support::BinaryData unframe(support::BinaryData const& in, std::uint32_t tag, std::string& why) {
  if (in.size() < sizeof kMagic || !std::equal(kMagic, kMagic + sizeof kMagic, in.begin())) {
    why = "not a zarn state file";
    return {};
  }
  if (in.size() < kFrameHeader) {
    why = "truncated (" + std::to_string(in.size()) + " bytes, header alone is " +
          std::to_string(kFrameHeader) + ")";
    return {};
  }
  if (getU32(in, 8) != tag) {
    why = "holds another part of the state";
    return {};
  }
  if (getU32(in, 12) != kFrameVersion) {
    why = "unsupported version " + std::to_string(getU32(in, 12));
    return {};
  }
  std::size_t const length = getU32(in, 16);
  if (in.size() - kFrameHeader < length) {
    why = "truncated (" + std::to_string(in.size()) + " of " + std::to_string(kFrameHeader + length) +
          " bytes)";
    return {};
  }
  if (in.size() - kFrameHeader > length) {
    why = std::to_string(in.size() - kFrameHeader - length) + " bytes beyond its end";
    return {};
  }
  support::BinaryData payload(in.begin() + kFrameHeader, in.end());
  if (support::computeCrc32(payload.data(), payload.data() + payload.size()) != getU32(in, 20)) {
    why = "damaged (checksum mismatch)";
    return {};
  }
  return payload;
}

bool readBytes(std::string const& path, support::BinaryData& bytes) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

bool exists(std::string const& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

}  // namespace

// A framed file: its name, tag, how to write and read its payload and how to
// start it afresh. The assistance containers are handled beside these.
struct StateStore::Part {
  std::string name;
  std::uint32_t tag;
  std::function<bool(support::BinaryData&)> write;
  std::function<bool(support::BinaryData const&)> read;  // the whole payload, or false
  std::function<void()> reset;
};

SatelliteId satelliteOf(core::GnssType gnss, int svId) {
  return SatelliteId{gnss == core::GLONASS ? 'R' : gnss == core::BEIDOU ? 'C' : 'G', svId};
}

bool writeFileAtomically(std::string const& path, support::BinaryData const& bytes, std::string& error) {
  std::string const temporary = path + ".tmp";
  int const fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) {
    error = "cannot create " + temporary + ": " + std::strerror(errno);
    return false;
  }
  std::size_t written = 0;
  while (written < bytes.size()) {
    ssize_t const n = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    written += static_cast<std::size_t>(n);
  }
  int const writeErrno = errno;
  bool const synced = written == bytes.size() && ::fsync(fd) == 0;
  int const syncErrno = errno;
  bool const closed = ::close(fd) == 0;
  if (written != bytes.size() || !synced || !closed) {
    error = "cannot write " + temporary + ": " +
            std::strerror(written != bytes.size() ? writeErrno
                          : !synced               ? syncErrno
                                                  : errno);
    ::unlink(temporary.c_str());
    return false;
  }
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    error = "cannot rename " + temporary + " to " + path + ": " + std::strerror(errno);
    ::unlink(temporary.c_str());
    return false;
  }
  return true;
}

StateStore::StateStore(std::string directory) : directory_(std::move(directory)) {
  for (core::GnssType gnss : kConstellations) assistance_[gnss].reset(new support::AssistanceDataFile(gnss));
}

StateStore::~StateStore() = default;

namespace {

// Reads a payload that is exactly one serialised T into `target`, which
// changes only when the whole payload was read.
template <class T>
std::function<bool(support::BinaryData const&)> readWhole(T& target) {
  return [&target](support::BinaryData const& in) {
    T read;
    unsigned int at = 0;
    if (!read.deserialize(in, at) || at != in.size()) return false;
    target = read;
    return true;
  };
}

}  // namespace

std::vector<StateStore::Part> StateStore::parts() {
  std::vector<Part> list;
  list.push_back(
      Part{"clock-filters.dat", kTagClocks,
           [this](support::BinaryData& out) {
             unsigned int count = 0;
             bool ok = support::serialize(static_cast<unsigned int>(clocks_.size()), out, count);
             for (auto const& entry : clocks_) {
               ok = ok && support::serialize(static_cast<unsigned char>(entry.first.system), out, count) &&
                    support::serialize(static_cast<unsigned short>(entry.first.prn), out, count) &&
                    entry.second.serialize(out);
             }
             return ok;
           },
           [this](support::BinaryData const& in) {
             unsigned int at = 0, n = 0;
             std::map<SatelliteId, support::ClockFilter> read;
             if (!support::deserialize(in, at, n)) return false;
             for (unsigned int i = 0; i < n; ++i) {
               unsigned char system = 0;
               unsigned short prn = 0;
               support::ClockFilter filter;
               if (!support::deserialize(in, at, system) || !support::deserialize(in, at, prn) ||
                   !filter.deserialize(in, at))
                 return false;
               read[SatelliteId{static_cast<char>(system), prn}] = filter;
             }
             if (at != in.size()) return false;
             clocks_.swap(read);
             return true;
           },
           [this]() { clocks_.clear(); }});
  list.push_back(Part{"pole-filter.dat", kTagPole,
                      [this](support::BinaryData& out) { return pole_.serialize(out); }, readWhole(pole_),
                      [this]() { pole_ = support::EopFilter(); }});
  list.push_back(Part{"constellation-analyzer.dat", kTagAnalyzer,
                      [this](support::BinaryData& out) { return analyzer_.serialize(out); },
                      readWhole(analyzer_), [this]() { analyzer_.reset(); }});
  return list;
}

void StateStore::moveAside(std::string const& name, std::string const& why) {
  std::string const path = directory_ + "/" + name;
  std::string bad = path + ".bad";
  for (int k = 1; exists(bad); ++k) bad = path + ".bad." + std::to_string(k);
  if (inspect_) {
    problems_.push_back(name + ": " + why + "; its part shows defaults");
    return;
  }
  std::string kept = "kept as " + bad.substr(directory_.size() + 1);
  if (::rename(path.c_str(), bad.c_str()) != 0)
    kept = "left in place (cannot rename: " + std::string(std::strerror(errno)) + ")";
  problems_.push_back(name + ": " + why + "; " + kept + ", starting from defaults");
}

bool StateStore::loadPart(Part const& part) {
  std::string const path = directory_ + "/" + part.name;
  if (!exists(path)) return true;
  support::BinaryData bytes;
  std::string why;
  if (!readBytes(path, bytes)) {
    why = "cannot be read";
  } else {
    support::BinaryData const payload = unframe(bytes, part.tag, why);
    if (why.empty() && !part.read(payload)) why = "damaged (its contents do not parse)";
  }
  if (why.empty()) return true;
  part.reset();
  moveAside(part.name, why);
  return false;
}

bool StateStore::load(std::string& error, bool inspect) {
  problems_.clear();
  inspect_ = inspect;
  struct stat st;
  if (::stat(directory_.c_str(), &st) != 0) {
    if (inspect) {
      error = "no state directory " + directory_;
      return false;
    }
    if (::mkdir(directory_.c_str(), 0755) != 0) {
      error = "cannot create the state directory " + directory_ + ": " + std::strerror(errno);
      return false;
    }
  } else if (!S_ISDIR(st.st_mode)) {
    error = "the state path " + directory_ + " is not a directory";
    return false;
  }
  for (core::GnssType gnss : kConstellations) {
    std::string const name = std::string("assistance-") + gnssName(gnss) + ".dat";
    std::string const path = directory_ + "/" + name;
    if (!exists(path)) continue;
    support::BinaryData bytes;
    support::AssistanceDataFile file(gnss);
    std::string why;
    if (!readBytes(path, bytes)) {
      why = "cannot be read";
    } else if (bytes.empty() || bytes.size() % kCipherBlock != 0) {
      why = "truncated or from another program (" + std::to_string(bytes.size()) +
            " bytes, not whole 8-byte blocks)";
    } else {
      core::Status const status = file.load(bytes);
      if (status == core::UNSUPPORTED_VERSION) {
        why = "unsupported container format";
      } else if (status != core::OK) {
        why = "does not decipher to a valid container (wrong key, damaged or from another program)";
      } else if (file.gnss() != gnss) {
        why = std::string("holds the data of another constellation (") + support::toString(file.gnss()) + ")";
      }
    }
    if (why.empty()) {
      assistance_[gnss]->swap(file);
    } else {
      assistance_[gnss].reset(new support::AssistanceDataFile(gnss));
      moveAside(name, why);
    }
  }
  for (Part const& part : parts()) loadPart(part);
  for (core::GnssType gnss : kConstellations) {
    std::map<unsigned short, support::AssistanceData> data;
    for (support::AssistanceData const& a : assistance_[gnss]->items()) data[a.svId] = a;
    analyzer_.updateAssistanceData(gnss, data);
  }
  return true;
}

bool StateStore::save(std::string& error) {
  error.clear();
  auto put = [&](std::string const& name, bool made, support::BinaryData const& bytes) {
    std::string problem;
    if (!made) {
      problem = "cannot encode " + name;
    } else if (!writeFileAtomically(directory_ + "/" + name, bytes, problem)) {
    } else {
      return;
    }
    error += (error.empty() ? "" : "; ") + problem;
  };
  for (core::GnssType gnss : kConstellations) {
    support::BinaryData bytes;
    support::AssistanceDataFile& file = *assistance_[gnss];
    file.setCreationTime(static_cast<unsigned>(std::time(nullptr)));
    file.setLeapSeconds(leapSecondTable());
    put(std::string("assistance-") + gnssName(gnss) + ".dat", file.save(bytes, 0), bytes);
  }
  for (Part const& part : parts()) {
    support::BinaryData payload;
    bool const made = part.write(payload);
    put(part.name, made, frame(part.tag, payload));
  }
  return error.empty();
}

support::AssistanceDataFile& StateStore::assistanceFile(core::GnssType gnss) {
  return *assistance_.at(gnss);
}
support::AssistanceDataFile const& StateStore::assistanceFile(core::GnssType gnss) const {
  return *assistance_.at(gnss);
}

support::AssistanceData StateStore::assistance(SatelliteId const& sat, support::BeidouSvType type,
                                               double t) const {
  core::GnssType const gnss = gnssType(sat.system);
  auto it = assistance_.find(gnss);
  if (it != assistance_.end() && it->second->contains(static_cast<unsigned short>(sat.prn)))
    return it->second->assistance(static_cast<unsigned short>(sat.prn));
  return satelliteAssistance(sat, type, t);
}

bool StateStore::setAssistance(SatelliteId const& sat, support::AssistanceData const& data) {
  core::GnssType const gnss = gnssType(sat.system);
  unsigned short const svId = static_cast<unsigned short>(sat.prn);
  auto it = assistance_.find(gnss);
  if (it == assistance_.end() || !support::validSvId(gnss, svId)) return false;
  support::AssistanceData record = data;
  record.gnssType = gnss;
  record.svId = svId;
  it->second->storeAssistance(svId, record);
  return true;
}

bool StateStore::setSrp(SatelliteId const& sat, support::BeidouSvType type, double t,
                        support::Srp const& srp) {
  support::AssistanceData record = assistance(sat, type, t);
  record.srp = srp;
  return setAssistance(sat, record);
}

std::size_t StateStore::feedClocks(std::map<SatelliteId, std::vector<Ephemeris>> const& records,
                                   double until) {
  std::size_t fed = 0;
  for (auto const& entry : records) {
    core::GnssType const gnss = gnssType(entry.first.system);
    if (gnss != core::GPS && gnss != core::BEIDOU) continue;
    std::vector<Ephemeris const*> sorted;
    for (Ephemeris const& e : entry.second)
      if (e.health == 0 && e.toc <= until) sorted.push_back(&e);
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](Ephemeris const* a, Ephemeris const* b) { return a->toc < b->toc; });
    support::ClockFilter& filter = clocks_[entry.first];
    for (Ephemeris const* e : sorted) {
      // Repeats of a toc (several receivers, several files) and what an
      // earlier run already saw carry nothing new.
      if (filter.initialized() && e->toc <= filter.getUpdateTime()) continue;
      // A clock last seen longer ago than a prediction lasts is started afresh.
      if (!filter.initialized() || e->toc - filter.getUpdateTime() > kMaxPredictionDays * kSecondsPerDay) {
        filter.initialize(gnss, e->toc, clockPolynomial(*e), false);
      } else {
        filter.update(e->toc, clockPolynomial(*e));
      }
      ++fed;
    }
    if (!filter.initialized()) clocks_.erase(entry.first);
  }
  return fed;
}

bool StateStore::predictedClock(SatelliteId const& sat, double t, std::array<double, 3>& clock) const {
  auto it = clocks_.find(sat);
  if (it == clocks_.end() || !it->second.initialized() || !it->second.converged()) return false;
  support::Vec const x = it->second.predict(t);
  for (std::size_t i = 0; i < 3; ++i) clock[i] = i < x.size() ? x(i) : 0.0;
  return true;
}

support::Eop StateStore::aprioriPole() const {
  support::Eop pole;
  if (!pole_.initialized()) return pole;
  pole.xp = pole_.output().xp * kArcsecond;
  pole.yp = pole_.output().yp * kArcsecond;
  return pole;
}

bool StateStore::feedPole(ConstellationPrediction const& prediction) {
  std::vector<double> xp, yp;
  for (SatellitePrediction const& p : prediction.satellites) {
    if (!p.skipReason.empty() || p.samples == 0 || holdsPole(p.svType)) continue;
    xp.push_back(p.pole.xp / kArcsecond);
    yp.push_back(p.pole.yp / kArcsecond);
  }
  if (xp.empty()) return false;
  support::Eop const median = medianPole(prediction.satellites);
  support::Eop estimate{median.xp / kArcsecond, median.yp / kArcsecond};
  // Standard error of the median from the median absolute deviation.
  auto sigma = [](std::vector<double> v, double centre) {
    for (double& x : v) x = std::fabs(x - centre);
    std::sort(v.begin(), v.end());
    double const mad = v[v.size() / 2];
    return std::max(kMinPoleSigma, kMadToSigma * mad / std::sqrt(static_cast<double>(v.size())));
  };
  double const sx = sigma(xp, estimate.xp), sy = sigma(yp, estimate.yp);
  support::Mat R(2, 2);
  R(0, 0) = sx * sx, R(0, 1) = 0.0;
  R(1, 0) = 0.0, R(1, 1) = sy * sy;
  if (!pole_.initialized() || prediction.fitEnd < pole_.time()) {
    pole_.initialize(estimate, prediction.fitEnd);
  } else {
    pole_(estimate, R, prediction.fitEnd);
  }
  return true;
}

void StateStore::recordPrediction(ConstellationPrediction const& prediction) {
  for (SatellitePrediction const& p : prediction.satellites) {
    core::GnssType const gnss = gnssType(p.sat.system);
    unsigned short const svId = static_cast<unsigned short>(p.sat.prn);
    if (!support::validSvId(gnss, svId)) continue;
    bool const initialised = p.skipReason.empty();
    core::Status const initStatus = initialised ? core::OK
                                    : p.skipReason.find("unhealthy") != std::string::npos
                                        ? core::UNHEALTHY_SV
                                        : core::GENERAL_ERROR;
    analyzer_.recordEvent(gnss, svId,
                          support::PredictorEvent{prediction.fitEnd, kFullInitialisationEvent, initStatus});
    core::Status const predicted = !initialised          ? initStatus
                                   : p.predicted.empty() ? core::GENERAL_ERROR
                                                         : core::OK;
    analyzer_.recordEvent(gnss, svId,
                          support::PredictorEvent{prediction.fitEnd, kPredictionEvent, predicted});
    if (initialised && !assistance_[gnss]->contains(svId))
      setAssistance(p.sat, satelliteAssistance(p.sat, p.svType, prediction.fitEnd));
    // The next run starts from what this one estimated.
    if (initialised && p.srpEstimated) setSrp(p.sat, p.svType, prediction.fitEnd, p.srp);
  }
  for (core::GnssType gnss : kConstellations) {
    std::map<unsigned short, support::AssistanceData> data;
    for (support::AssistanceData const& a : assistance_[gnss]->items()) data[a.svId] = a;
    analyzer_.updateAssistanceData(gnss, data);
  }
}

void StateStore::attach(PipelineOptions& options) const {
  options.predictedClock = [this](SatelliteId const& sat, double t, std::array<double, 3>& clock) {
    return predictedClock(sat, t, clock);
  };
  options.assistance = [this](SatelliteId const& sat, support::BeidouSvType type, double t) {
    return assistance(sat, type, t);
  };
  options.pole = aprioriPole();
}

namespace {

double tocToGpsSeconds(core::GnssType gnss, core::Toc const& toc) {
  switch (gnss) {
    case core::GLONASS:
      return support::gpsToGpsSecs(support::glonassToGps(toc, leapSecondTable()));
    case core::BEIDOU:
      return support::beidouSecsToGpsSecs(support::beidouToSecs(toc));
    default:
      return support::gpsToGpsSecs(toc);
  }
}

core::Toc gpsSecondsToToc(core::GnssType gnss, double t) {
  switch (gnss) {
    case core::GLONASS:
      return support::gpsToGlonass(support::gpsSecsToGps(t), leapSecondTable());
    case core::BEIDOU:
      return support::secsToBeidou(support::gpsSecsToBeidouSecs(t));
    default:
      return support::gpsSecsToGps(t);
  }
}

bool isZeroToc(core::Toc const& t) {
  return t.first == 0 && t.second == 0 && t.third == 0;
}

// One row of the status: a constellation (svId 0) or a satellite.
struct StatusRow {
  core::GnssType gnss = core::GPS;
  unsigned short svId = 0;
  std::string state;      // "GOOD", ..., "-" without events
  std::string suggested;  // GPS time, "now" (earliest), "-" (none)
  bool initNow = false;
  std::string clock;  // "converged", "converging", "jump", "-"
  int clockUpdates = 0;
  bool stored = false;  // model parameters from the state rather than the built-in ones
  support::AssistanceData data;
};

std::vector<StatusRow> statusRows(StateStore const& store, double at) {
  std::vector<StatusRow> rows;
  support::ConstellationAnalyzer const& analyzer = store.analyzer();
  for (core::GnssType gnss : kConstellations) {
    core::Toc const now = gpsSecondsToToc(gnss, at);
    std::set<unsigned short> svIds;
    std::pair<std::uint16_t, std::uint16_t> const range = support::getSvIdRange(gnss);
    for (unsigned sv = range.first; sv <= range.second; ++sv) {
      core::GnssState state{};
      analyzer.gnssState(state, gnss, static_cast<unsigned short>(sv));
      if (state != 0) svIds.insert(static_cast<unsigned short>(sv));
    }
    for (support::AssistanceData const& a : store.assistanceFile(gnss).items()) svIds.insert(a.svId);
    for (auto const& entry : store.clockFilters())
      if (gnssType(entry.first.system) == gnss) svIds.insert(static_cast<unsigned short>(entry.first.prn));
    if (svIds.empty()) continue;
    svIds.insert(0);
    for (unsigned short sv : svIds) {
      StatusRow row;
      row.gnss = gnss;
      row.svId = sv;
      core::GnssState state{};
      analyzer.gnssState(state, gnss, sv);
      row.state = state == 0 ? "-" : support::toString(state);
      core::Toc suggested;
      analyzer.suggestedInitTime(suggested, gnss, sv);
      double const seconds = tocToGpsSeconds(gnss, suggested);
      row.suggested = state == 0 || isZeroToc(suggested) ? "-"
                      : seconds <= 0.0                   ? "now"
                                                         : formatGpsTime(seconds);
      row.initNow = analyzer.shouldInit(gnss, sv, now);
      if (sv != 0) {
        auto it = store.clockFilters().find(satelliteOf(gnss, sv));
        if (it == store.clockFilters().end()) {
          row.clock = "-";
        } else {
          row.clock = it->second.converged()      ? "converged"
                      : it->second.jumpDetected() ? "jump"
                                                  : "converging";
          row.clockUpdates = it->second.updateCount();
        }
        row.stored = store.assistanceFile(gnss).contains(sv);
        row.data = store.assistance(satelliteOf(gnss, sv), support::UNDEFINED_SAT_TYPE, at);
      }
      rows.push_back(row);
    }
  }
  return rows;
}

std::string rowName(StatusRow const& r) {
  return r.svId == 0 ? support::toString(r.gnss) : toString(satelliteOf(r.gnss, r.svId));
}

}  // namespace

std::string statusTable(StateStore const& store, double at) {
  std::string out = "state " + store.directory() + " at " + formatGpsTime(at) + " GPST\n";
  if (store.poleFilter().initialized()) {
    char line[160];
    std::snprintf(line, sizeof line, "pole filter: xp %.4f\", yp %.4f\" at %s\n",
                  store.poleFilter().output().xp, store.poleFilter().output().yp,
                  formatGpsTime(store.poleFilter().time()).c_str());
    out += line;
  } else {
    out += "pole filter: no estimate yet\n";
  }
  std::vector<StatusRow> const rows = statusRows(store, at);
  if (rows.empty()) return out + "no satellite recorded yet\n";
  char line[512];
  std::snprintf(line, sizeof line, "%-8s %-12s %-19s %-4s %-14s %7s %7s %7s %7s %7s %5s %9s %4s %s\n", "sat",
                "state", "suggested init", "init", "clock filter", "srp0", "srp1", "ant x", "ant y", "ant z",
                "max h", "err p2 m", "outg", "params");
  out += line;
  for (StatusRow const& r : rows) {
    if (r.svId == 0) {
      std::snprintf(line, sizeof line, "%-8s %-12s %-19s %-4s\n", rowName(r).c_str(), r.state.c_str(),
                    r.suggested.c_str(), r.initNow ? "yes" : "no");
      out += line;
      continue;
    }
    std::string const clock = r.clock == "-" ? "-" : r.clock + " " + std::to_string(r.clockUpdates);
    std::snprintf(line, sizeof line,
                  "%-8s %-12s %-19s %-4s %-14s %7.4f %7.4f %7.3f %7.3f %7.3f %5u %9.3f %4zu %s\n",
                  rowName(r).c_str(), r.state.c_str(), r.suggested.c_str(), r.initNow ? "yes" : "no",
                  clock.c_str(), r.data.srp[0], r.data.srp[1], r.data.antPhase[0], r.data.antPhase[1],
                  r.data.antPhase[2], static_cast<unsigned>(r.data.maxPredictionLength),
                  r.data.errorParams[2], r.data.outages.size(), r.stored ? "stored" : "built-in");
    out += line;
  }
  return out;
}

std::string statusJson(StateStore const& store, double at) {
  auto num = [](double x) {
    char text[40];
    std::snprintf(text, sizeof text, "%.9g", x);
    return std::string(text);
  };
  auto str = [](std::string const& x) { return "\"" + x + "\""; };
  std::string out =
      "{\n  \"directory\": " + str(store.directory()) + ",\n  \"at\": " + str(formatGpsTime(at)) + ",\n";
  out += "  \"pole\": ";
  if (store.poleFilter().initialized()) {
    out += "{\"xpArcsec\": " + num(store.poleFilter().output().xp) +
           ", \"ypArcsec\": " + num(store.poleFilter().output().yp) +
           ", \"time\": " + str(formatGpsTime(store.poleFilter().time())) + "}";
  } else {
    out += "null";
  }
  out += ",\n  \"rows\": [";
  std::vector<StatusRow> const rows = statusRows(store, at);
  for (std::size_t i = 0; i < rows.size(); ++i) {
    StatusRow const& r = rows[i];
    out += std::string(i == 0 ? "" : ",") + "\n    {\"name\": " + str(rowName(r)) +
           ", \"constellation\": " + str(support::toString(r.gnss)) +
           ", \"svId\": " + std::to_string(r.svId) + ", \"state\": " + str(r.state) +
           ", \"suggestedInit\": " + str(r.suggested) + ", \"initNow\": " + (r.initNow ? "true" : "false");
    if (r.svId != 0) {
      out += ", \"clockFilter\": " + str(r.clock) + ", \"clockUpdates\": " + std::to_string(r.clockUpdates) +
             ", \"stored\": " + (r.stored ? "true" : "false") + ", \"srp\": [" + num(r.data.srp[0]) + ", " +
             num(r.data.srp[1]) + "], \"antenna\": [" + num(r.data.antPhase[0]) + ", " +
             num(r.data.antPhase[1]) + ", " + num(r.data.antPhase[2]) +
             "], \"maxPredictionHours\": " + std::to_string(r.data.maxPredictionLength) +
             ", \"errorParams\": [" + num(r.data.errorParams[0]) + ", " + num(r.data.errorParams[1]) + ", " +
             num(r.data.errorParams[2]) + "], \"clockModel\": [";
      for (std::size_t k = 0; k < r.data.clockModelParams.size(); ++k)
        out += (k == 0 ? "" : ", ") + num(r.data.clockModelParams[k]);
      out += "], \"outages\": " + std::to_string(r.data.outages.size());
    }
    out += "}";
  }
  out += rows.empty() ? "]\n}\n" : "\n  ]\n}\n";
  return out;
}

}  // namespace host
}  // namespace zarn
