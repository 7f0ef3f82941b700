// Per-satellite bookkeeping of initialisation and prediction outcomes.
#ifndef ZARN_SUPPORT_CONSTELLATION_ANALYZER_HPP
#define ZARN_SUPPORT_CONSTELLATION_ANALYZER_HPP

#include <cstdint>
#include <map>
#include <string>

#include "zarn/core/records.hpp"
#include "zarn/support/assistance_data.hpp"
#include "zarn/support/export.hpp"

namespace zarn {
namespace support {

// Outcome of one initialisation (type 1 or 2) or prediction (other types).
// Type 1 is a short GLONASS initialisation, good for one day; OK and
// PREDICTION_DISABLED count as healthy for a constellation.
struct PredictorEvent {
  double time = 0.0;  // GPS seconds
  std::int32_t type = 0;
  core::Status status = static_cast<core::Status>(0);
};

inline bool operator==(PredictorEvent const& a, PredictorEvent const& b) {
  return a.time == b.time && a.type == b.type && a.status == b.status;
}

// Latest initialisation and prediction outcome and assistance data of every
// satellite, and what follows from them: the state of a satellite or of a
// whole constellation (svId 0), when to initialise next and whether now.
//
// Times are Tocs of the constellation's own time system; a zero Toc means
// "no time". The next initialisation is suggested half a prediction period
// after the last successful one: the satellite's maximum prediction length
// (hours) when its assistance data give one, else 14 days for GPS, 3 days
// for BeiDou and for GLONASS 14 days after a full (type 2) and 1 day after a
// short (type 1) initialisation; a time inside an outage moves to its end,
// and the result to the nearest nominal ephemeris epoch. A constellation
// needs initialising when fewer than 11 of 16 of its satellites (0.6875) or
// fewer than its minimum count (GPS 16, GLONASS 12, BeiDou 7) are healthy.
class ZARN_EXPORT ConstellationAnalyzer {
 public:
  ConstellationAnalyzer();
  ConstellationAnalyzer(ConstellationAnalyzer const& other);
  ConstellationAnalyzer& operator=(ConstellationAnalyzer const& other);
  ~ConstellationAnalyzer();

  // Keeps `event` as the satellite's latest event, and as its latest
  // initialisation when of type 1 or 2.
  void recordEvent(core::GnssType gnss, unsigned short svId, PredictorEvent event);
  // Replaces the constellation's assistance data by `data` (keyed by svId).
  void updateAssistanceData(core::GnssType gnss, std::map<unsigned short, AssistanceData> const& data);

  // GOOD, INTERMEDIATE or BAD; 0 without events. A constellation is GOOD from
  // a healthy ratio of 0.6875, INTERMEDIATE from 0.5; a single satellite is
  // GOOD only with the latest status OK. Always returns OK.
  core::Status gnssState(core::GnssState& state, core::GnssType gnss, unsigned short svId) const;
  // Suggested time of the next initialisation. A satellite whose latest
  // initialisation or prediction failed gets the earliest time (zero Toc); a
  // constellation the upper median of its satellites' times, or a zero Toc
  // when it has fewer satellites than its minimum count or none gave a time.
  core::Status suggestedInitTime(core::Toc& time, core::GnssType gnss, unsigned short svId) const;
  // Whether the suggested time has been reached at `now` (false for a zero now).
  bool suggestedInitTimeExceeded(core::GnssType gnss, unsigned short svId, core::Toc now) const;
  // Whether an initialisation should run at `now` (a zero now: regardless of time).
  bool shouldInit(core::GnssType gnss, unsigned short svId, core::Toc now) const;
  // One line: state, suggested time, whether to initialise, latest statuses.
  std::string infoString(core::GnssType gnss, unsigned short svId) const;

  // Forgets everything.
  void reset();

  // Appends the assistance, initialisation and latest-event maps: each a u32
  // entry count, then per constellation its 32-bit type and the inner map (a
  // u32 count, then svId as u16 and the record). On failure removes what it
  // appended.
  bool serialize(BinaryData& out) const;
  // Reads that form at `position`; the analyzer and `position` change only
  // when all three maps were read and no map lists a constellation, or a
  // constellation a satellite, twice.
  bool deserialize(BinaryData const& in, unsigned int& position);

  bool operator==(ConstellationAnalyzer const& other) const;
  bool operator!=(ConstellationAnalyzer const& other) const { return !(*this == other); }

 private:
  struct Details;
  Details* details_;
};

}  // namespace support
}  // namespace zarn

#endif
