#include "zarn/support/constellation_analyzer.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <sstream>
#include <utility>
#include <vector>

#include "zarn/support/serialization.hpp"
#include "zarn/support/time_conversion.hpp"
#include "zarn/support/utility.hpp"

namespace zarn {
namespace support {

namespace {

template <class Record>
using ConstellationMap = std::map<core::GnssType, std::map<unsigned short, Record>>;

// Smallest healthy ratio of a GOOD constellation, and of an INTERMEDIATE one.
constexpr double kGoodRatio = 0.6875;
constexpr double kIntermediateRatio = 0.5;

constexpr double kTwoWeeks = 1209600.0;  // s
constexpr double kThreeDays = 259200.0;  // s
constexpr double kOneDay = 86400.0;      // s
constexpr double kSecondsPerHour = 3600.0;
// After a short GLONASS initialisation the next is due this long after it, s.
constexpr double kShortInitLifetime = 21600.0;

constexpr std::int32_t kShortInit = 1;
constexpr std::int32_t kFullInit = 2;

std::size_t minimumHealthy(core::GnssType gnss) {
  switch (gnss) {
    case core::GPS:
      return 16;
    case core::GLONASS:
      return 12;
    case core::BEIDOU:
      return 7;
    default:
      return 0;
  }
}

// Default initialisation period, s, given the type of the last initialisation.
double defaultPeriod(core::GnssType gnss, std::int32_t initType) {
  switch (gnss) {
    case core::GPS:
      return kTwoWeeks;
    case core::GLONASS:
      return initType == kFullInit ? kTwoWeeks : initType == kShortInit ? kOneDay : 0.0;
    case core::BEIDOU:
      return kThreeDays;
    default:
      return 0.0;
  }
}

bool isZero(core::Toc const& t) {
  return t.first == 0 && t.second == 0 && t.third == 0;
}

// A Toc of the constellation's time system -> GPS seconds (0 for other systems).
double tocToGpsSecs(core::GnssType gnss, core::Toc const& toc) {
  switch (gnss) {
    case core::GPS:
      return gpsToGpsSecs(toc);
    case core::GLONASS:
      return gpsToGpsSecs(glonassToGps(toc, {}));
    case core::BEIDOU:
      return beidouSecsToGpsSecs(beidouToSecs(toc));
    default:
      return 0.0;
  }
}

// GPS seconds -> a Toc of the constellation's time system.
core::Toc gpsSecsToToc(core::GnssType gnss, double t) {
  switch (gnss) {
    case core::GLONASS:
      return gpsToGlonass(gpsSecsToGps(t), {});
    case core::BEIDOU:
      return secsToBeidou(gpsSecsToBeidouSecs(t));
    default:
      return gpsSecsToGps(t);
  }
}

template <class Record>
Record const* find(ConstellationMap<Record> const& map, core::GnssType gnss, unsigned short svId) {
  auto const outer = map.find(gnss);
  if (outer == map.end()) return nullptr;
  auto const inner = outer->second.find(svId);
  return inner == outer->second.end() ? nullptr : &inner->second;
}

template <class Record>
bool serializeMap(ConstellationMap<Record> const& map, BinaryData& out, unsigned int& count) {
  if (!serialize(static_cast<unsigned int>(map.size()), out, count)) return false;
  for (auto const& outer : map) {
    if (!serialize(outer.first, out, count) ||
        !serialize(static_cast<unsigned int>(outer.second.size()), out, count))
      return false;
    for (auto const& inner : outer.second)
      if (!serialize(inner.first, out, count) || !serialize(inner.second, out, count)) return false;
  }
  return true;
}

template <class Record>
bool deserializeMap(BinaryData const& in, unsigned int& index, ConstellationMap<Record>& map) {
  unsigned int outerCount = 0;
  if (!deserialize(in, index, outerCount)) return false;
  for (unsigned int i = 0; i < outerCount; ++i) {
    core::GnssType gnss{};
    unsigned int innerCount = 0;
    // A key listed twice would silently drop a record and break the
    // round trip, so such a form is refused as damaged.
    if (!deserialize(in, index, gnss) || !deserialize(in, index, innerCount) || map.count(gnss) != 0)
      return false;
    std::map<unsigned short, Record>& inner = map[gnss];
    for (unsigned int j = 0; j < innerCount; ++j) {
      unsigned short svId = 0;
      Record record{};
      if (!deserialize(in, index, svId) || !deserialize(in, index, record) ||
          !inner.emplace(svId, record).second)
        return false;
    }
  }
  return true;
}

}  // namespace

struct ConstellationAnalyzer::Details {
  ConstellationMap<AssistanceData> assistance;
  ConstellationMap<PredictorEvent> initEvents;
  ConstellationMap<PredictorEvent> predictorEvents;

  // Satellites with a latest event, and how many of them are healthy.
  void counts(core::GnssType gnss, std::size_t& healthy, std::size_t& total) const {
    healthy = total = 0;
    auto const it = predictorEvents.find(gnss);
    if (it == predictorEvents.end()) return;
    total = it->second.size();
    for (auto const& sv : it->second)
      if (sv.second.status == core::OK || sv.second.status == core::PREDICTION_DISABLED) ++healthy;
  }

  std::map<unsigned short, PredictorEvent> const* events(core::GnssType gnss) const {
    auto const it = predictorEvents.find(gnss);
    return it == predictorEvents.end() || it->second.empty() ? nullptr : &it->second;
  }
};

ConstellationAnalyzer::ConstellationAnalyzer() : details_(new Details) {}

ConstellationAnalyzer::ConstellationAnalyzer(ConstellationAnalyzer const& other)
    : details_(new Details(*other.details_)) {}

ConstellationAnalyzer& ConstellationAnalyzer::operator=(ConstellationAnalyzer const& other) {
  if (this != &other) {
    Details* copy = new Details(*other.details_);
    delete details_;
    details_ = copy;
  }
  return *this;
}

ConstellationAnalyzer::~ConstellationAnalyzer() {
  delete details_;
}

void ConstellationAnalyzer::recordEvent(core::GnssType gnss, unsigned short svId, PredictorEvent event) {
  if (event.type == kShortInit || event.type == kFullInit) details_->initEvents[gnss][svId] = event;
  details_->predictorEvents[gnss][svId] = event;
}

void ConstellationAnalyzer::updateAssistanceData(core::GnssType gnss,
                                                 std::map<unsigned short, AssistanceData> const& data) {
  details_->assistance[gnss] = data;
}

core::Status ConstellationAnalyzer::gnssState(core::GnssState& state, core::GnssType gnss,
                                              unsigned short svId) const {
  Details const& d = *details_;
  state = static_cast<core::GnssState>(0);
  if (d.events(gnss) == nullptr) return core::OK;
  if (svId == 0) {
    std::size_t healthy = 0;
    std::size_t total = 0;
    d.counts(gnss, healthy, total);
    double const ratio = static_cast<double>(healthy) / static_cast<double>(total);
    state = ratio >= kGoodRatio ? core::GOOD : ratio >= kIntermediateRatio ? core::INTERMEDIATE : core::BAD;
    return core::OK;
  }
  PredictorEvent const* event = find(d.predictorEvents, gnss, svId);
  // A satellite with prediction disabled is BAD on its own though it counts
  // as healthy for its constellation.
  if (event != nullptr) state = event->status == core::OK ? core::GOOD : core::BAD;
  return core::OK;
}

core::Status ConstellationAnalyzer::suggestedInitTime(core::Toc& time, core::GnssType gnss,
                                                      unsigned short svId) const {
  Details const& d = *details_;
  if (svId == 0) {
    std::size_t healthy = 0;
    std::size_t total = 0;
    d.counts(gnss, healthy, total);
    time = core::Toc{};
    if (total < minimumHealthy(gnss) || total == 0) return core::OK;
    std::vector<double> seconds;
    seconds.reserve(total);
    for (auto const& sv : d.predictorEvents.at(gnss)) {
      core::Toc one;
      core::Status const status = suggestedInitTime(one, gnss, sv.first);
      if (status != core::OK) return status;
      if (!isZero(one)) seconds.push_back(tocToGpsSecs(gnss, one));
    }
    if (seconds.empty()) return core::OK;
    std::sort(seconds.begin(), seconds.end());
    time = gpsSecsToToc(gnss, seconds[seconds.size() / 2]);
    return core::OK;
  }

  PredictorEvent const* init = find(d.initEvents, gnss, svId);
  PredictorEvent const* latest = find(d.predictorEvents, gnss, svId);
  double const initTime = init != nullptr ? init->time : 0.0;
  std::int32_t const initType = init != nullptr ? init->type : 0;
  core::Status const initStatus = init != nullptr ? init->status : static_cast<core::Status>(0);
  core::Status const latestStatus = latest != nullptr ? latest->status : static_cast<core::Status>(0);
  if (initStatus != core::OK || latestStatus != core::OK) {
    time = gpsSecsToToc(gnss, 0.0);
    return core::OK;
  }

  AssistanceData const* data = find(d.assistance, gnss, svId);
  double period = defaultPeriod(gnss, initType);
  if (data != nullptr && data->maxPredictionLength != 0) period = data->maxPredictionLength * kSecondsPerHour;
  if (gnss == core::GLONASS && initType == kShortInit) period = kOneDay;

  core::Toc suggested = gpsSecsToGps(initTime + std::floor(period / 2.0));
  if (data != nullptr)
    for (TocPeriod const& outage : data->outages)
      if (outage.start <= suggested && suggested <= outage.stop) suggested = outage.stop;
  time = gpsSecsToToc(gnss, getAdjustedTime(gnss, gpsToGpsSecs(suggested)));
  return core::OK;
}

bool ConstellationAnalyzer::suggestedInitTimeExceeded(core::GnssType gnss, unsigned short svId,
                                                      core::Toc now) const {
  if (isZero(now)) return false;
  core::Toc suggested;
  return suggestedInitTime(suggested, gnss, svId) == core::OK && suggested <= now;
}

bool ConstellationAnalyzer::shouldInit(core::GnssType gnss, unsigned short svId, core::Toc now) const {
  Details const& d = *details_;
  bool const noTime = isZero(now);
  double const nowSecs = noTime ? 0.0 : tocToGpsSecs(gnss, now);
  auto const* events = d.events(gnss);
  if (events == nullptr) return true;

  if (svId == 0) {
    std::size_t healthy = 0;
    std::size_t total = 0;
    d.counts(gnss, healthy, total);
    double const ratio = static_cast<double>(healthy) / static_cast<double>(total);
    if (ratio < kGoodRatio || healthy < minimumHealthy(gnss)) return true;
    if (noTime) return false;
    bool any = false;
    for (auto const& sv : *events) any = suggestedInitTimeExceeded(gnss, sv.first, now) || any;
    return any;
  }

  auto const sv = events->find(svId);
  if (sv == events->end()) return true;
  if (sv->second.status != core::OK && sv->second.status != core::PREDICTION_DISABLED) return true;
  if (!noTime && suggestedInitTimeExceeded(gnss, svId, now)) return true;
  if (gnss != core::GLONASS) return false;
  PredictorEvent const* init = find(d.initEvents, gnss, svId);
  if (init == nullptr || init->type != kShortInit) return false;
  return noTime || init->time + kShortInitLifetime <= nowSecs;
}

std::string ConstellationAnalyzer::infoString(core::GnssType gnss, unsigned short svId) const {
  Details const& d = *details_;
  std::ostringstream s;
  if (svId == 0)
    s << toString(gnss) << " constellation ";
  else
    s << toString(gnss) << " svId " << svId;

  core::GnssState state{};
  core::Status status = gnssState(state, gnss, svId);
  if (status == core::OK) {
    s << " state " << toString(state);
    core::Toc time;
    status = suggestedInitTime(time, gnss, svId);
    if (status == core::OK) {
      std::ostringstream toc;
      toc << "[TOC](" << time.first << "," << time.second << "," << time.third << ")";
      s << ", suggested init time " << (toc ? toc.str() : std::string("[TOC](?,?,?)"));
    } else {
      s << ", suggested init time error " << toString(status);
    }
  } else {
    s << ", state error " << toString(status);
  }
  s << ", should init " << shouldInit(gnss, svId, core::Toc{});
  if (svId != 0) {
    if (PredictorEvent const* init = find(d.initEvents, gnss, svId))
      s << ", latest initialization status " << toString(init->status);
    if (PredictorEvent const* latest = find(d.predictorEvents, gnss, svId))
      s << ", latest predictor status " << toString(latest->status);
  }
  return s ? s.str() : std::string("ConstellationAnalyzer: bad info string?");
}

void ConstellationAnalyzer::reset() {
  details_->assistance.clear();
  details_->initEvents.clear();
  details_->predictorEvents.clear();
}

bool ConstellationAnalyzer::serialize(BinaryData& out) const {
  Details const& d = *details_;
  std::size_t const start = out.size();
  unsigned int count = 0;
  bool const ok = serializeMap(d.assistance, out, count) && serializeMap(d.initEvents, out, count) &&
                  serializeMap(d.predictorEvents, out, count);
  if (!ok) out.resize(start);
  return ok;
}

bool ConstellationAnalyzer::deserialize(BinaryData const& in, unsigned int& position) {
  Details d;
  unsigned int index = position;
  bool const ok = deserializeMap(in, index, d.assistance) && deserializeMap(in, index, d.initEvents) &&
                  deserializeMap(in, index, d.predictorEvents);
  if (!ok) return false;
  std::swap(*details_, d);
  position = index;
  return true;
}

bool ConstellationAnalyzer::operator==(ConstellationAnalyzer const& other) const {
  Details const& a = *details_;
  Details const& b = *other.details_;
  return a.assistance == b.assistance && a.initEvents == b.initEvents &&
         a.predictorEvents == b.predictorEvents;
}

}  // namespace support
}  // namespace zarn
