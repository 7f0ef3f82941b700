// Screening of one satellite's broadcast ephemerides before they are used:
// unhealthy records, duplicates, and records whose orbit disagrees with their
// neighbours (a record carrying another satellite's orbit, a wrong reference
// time, or the orbit before a manoeuvre) are left out, each with a reason.
#ifndef ZARN_HOST_SCREENING_HPP
#define ZARN_HOST_SCREENING_HPP

#include <string>
#include <vector>

#include "zarn/host/ephemeris.hpp"

namespace zarn {
namespace host {

struct ScreeningOptions {
  // Two records agree when their positions half-way between their reference
  // times differ by less than this (m). Consecutive healthy GPS and BeiDou
  // records agree to a few metres.
  double agreement = 50.0;
  // Records whose reference times are further apart (s) are not compared.
  double maxSeparation = 4.0 * 3600.0;
  // Distance from toe (s) over which a record's orbit is used: half the fit
  // interval, plus a minute for uploads that cut over a few seconds early
  // (reference times such as 21:59:44).
  double trusted = 2.0 * 3600.0 + 60.0;
  // Compare a record with later ones only until one agrees (enough to bridge
  // a bad record; the agreeing one carries the chain on). For GLONASS, whose
  // broadcast orbit is integrated second by second, this halves the cost.
  bool untilAgreement = false;
};

// Screening options that suit the constellation (BeiDou records are hourly
// and trusted one hour either side; GLONASS states come every 30 minutes and
// are trusted a quarter of an hour either side).
ScreeningOptions screeningOptionsFor(char system);

struct ScreeningResult {
  std::vector<Ephemeris> kept;     // healthy, one per toe, mutually consistent, in toe order
  std::vector<std::string> notes;  // one line per record or group left out, for the user
  int unhealthy = 0;               // records left out for their health word
  int duplicates = 0;              // records left out as copies or superseded uploads of the same toe
  int disagreeing = 0;             // records left out for disagreeing with the kept ones
  int offGrid = 0;                 // GLONASS records whose reference time is off the 30-minute grid
};

// `records` are one satellite's ephemerides in toe order (as collectEphemerides
// gives them). Healthy records are linked when they agree; the linked group
// holding the latest records is kept (a group of one is kept only when no
// other group has two records). Among records of the same toe the last one
// given is kept. GLONASS records are first held to the broadcast grid of
// reference times (UTC hh:15 and hh:45): a record stamped off it (some
// files carry states stamped 17 s late, or extra uploads at other times) is
// left out with one note each. Notes begin with the satellite name.
ScreeningResult screenEphemerides(std::vector<Ephemeris> const& records, ScreeningOptions const& options);

}  // namespace host
}  // namespace zarn

#endif
