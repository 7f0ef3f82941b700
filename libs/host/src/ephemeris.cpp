#include "zarn/host/ephemeris.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "tables/satellite_history_table.hpp"
#include "zarn/host/gnss_time.hpp"
#include "zarn/support/broadcast_interface.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/ephemeris_conversion.hpp"
#include "zarn/support/time_conversion.hpp"
#include "zarn/support/validation.hpp"

namespace zarn {
namespace host {

namespace {

// A BDS-2 satellite of each orbit type whose default parameters stand in for
// later satellites of that type (BDS-2: C01-C05 GEO, C06-C10 IGSO, C11-C14 MEO).
constexpr int kBeidouGeoStandIn = 1;
constexpr int kBeidouIgsoStandIn = 6;
constexpr int kBeidouMeoStandIn = 11;
constexpr int kBeidouTableLast = 14;

}  // namespace

std::string toString(SatelliteId const& sat) {
  char text[16];
  std::snprintf(text, sizeof text, "%c%02d", sat.system, sat.prn);
  return text;
}

core::GnssType gnssType(char system) {
  return system == 'C' ? core::BEIDOU : system == 'R' ? core::GLONASS : core::GPS;
}

Ephemeris fromGps(core::GpsEphemeris const& eph, std::string origin) {
  Ephemeris e;
  e.sat = {'G', eph.svId};
  e.gps = eph;
  e.toe = support::gpsToGpsSecs(eph.toe);
  e.toc = support::gpsToGpsSecs(eph.toc);
  e.health = eph.health;
  e.origin = std::move(origin);
  return e;
}

Ephemeris fromBeidou(core::BeidouEphemeris const& eph, std::string origin) {
  Ephemeris e;
  e.sat = {'C', eph.svId};
  e.beidou = eph;
  e.toe = support::beidouSecsToGpsSecs(support::beidouToSecs(eph.toe));
  e.toc = support::beidouSecsToGpsSecs(support::beidouToSecs(eph.toc));
  e.health = eph.health;
  e.origin = std::move(origin);
  return e;
}

support::Vec clockPolynomial(Ephemeris const& e) {
  namespace bc = support::broadcast;
  support::Vec c(3, 0.0);
  if (e.sat.system == 'R') {
    // GLONASS: t_sv correction = -tauN + gammaN (t - tb) (GLONASS ICD 4.4).
    c(0) = -bc::decode(e.glonass.tauN, bc::kGlonassTau);
    c(1) = bc::decode(e.glonass.gammaN, bc::kGlonassGamma);
  } else if (e.sat.system == 'C') {
    c(0) = bc::decode(e.beidou.a0, bc::kBeidouA0);
    c(1) = bc::decode(e.beidou.a1, bc::kBeidouA1);
    c(2) = bc::decode(e.beidou.a2, bc::kBeidouA2);
  } else {
    c(0) = bc::decode(e.gps.af0, bc::kGpsAf0);
    c(1) = bc::decode(e.gps.af1, bc::kGpsAf1);
    c(2) = bc::decode(e.gps.af2, bc::kGpsAf2);
  }
  return c;
}

double clockOffset(Ephemeris const& eph, double t) {
  support::Vec const c = clockPolynomial(eph);
  double const dt = t - eph.toc;
  return c(0) + c(1) * dt + c(2) * dt * dt;
}

double glonassGpsSeconds(core::Toc const& glonassTime) {
  static std::vector<support::LeapInfo> const table = leapSecondTable();
  return support::glonassSecsToGpsSecs(support::glonassToSecs(glonassTime), table);
}

Ephemeris fromGlonass(core::GlonassEphemeris const& eph, std::string origin) {
  Ephemeris e;
  e.sat = {'R', eph.svId};
  e.glonass = eph;
  e.toe = glonassGpsSeconds(eph.time);
  e.toc = e.toe;
  e.health = eph.health;
  e.origin = std::move(origin);
  return e;
}

void ephemerisState(Ephemeris const& eph, double t, support::Vec& pos, support::Vec& vel) {
  if (pos.size() != 3) pos.resize(3);
  if (vel.size() != 3) vel.resize(3);
  if (eph.sat.system == 'R') {
    static std::vector<support::LeapInfo> const table = leapSecondTable();
    support::glonassEphemerisToEcef(eph.glonass, t, pos, vel, table);
  } else if (eph.sat.system == 'C') {
    support::beidouEphemerisToEcef(eph.beidou, t, pos, vel);
  } else {
    support::gpsEphemerisToEcef(eph.gps, t, pos, vel);
  }
}

double sqrtSemiMajorAxis(Ephemeris const& eph) {
  namespace bc = support::broadcast;
  if (eph.sat.system == 'R') {
    core::GlonassEphemeris const& g = eph.glonass;
    double const x = bc::decode(g.x, bc::kGlonassPosition), y = bc::decode(g.y, bc::kGlonassPosition),
                 z = bc::decode(g.z, bc::kGlonassPosition);
    return std::sqrt(1000.0 * std::sqrt(x * x + y * y + z * z));  // km to m
  }
  return eph.sat.system == 'C' ? bc::decode(eph.beidou.sqrtA, bc::kBeidouSqrtA)
                               : bc::decode(eph.gps.sqrtA, bc::kGpsSqrtA);
}

support::Vec validationVector(Ephemeris const& eph) {
  namespace bc = support::broadcast;
  bc::KeplerElements const k = eph.sat.system == 'C' ? bc::decodeOrbit(eph.beidou) : bc::decodeOrbit(eph.gps);
  double const week = std::floor(eph.toe / kSecondsPerWeek);
  support::Vec out(bc::kKeplerSize + 2);
  for (std::size_t i = 0; i < bc::kKeplerSize; ++i) out(i) = k[i];
  out(bc::kKeplerSize) = eph.toe - week * kSecondsPerWeek;
  out(bc::kKeplerSize + 1) = week;
  return out;
}

bool passesValidation(Ephemeris const& eph) {
  if (eph.sat.system == 'R') {
    namespace lsb = support::broadcast;
    core::GlonassEphemeris const& g = eph.glonass;
    support::Vec r(3), v(3), a(3);
    std::int32_t const pr[3] = {g.x, g.y, g.z}, vr[3] = {g.vx, g.vy, g.vz};
    std::int8_t const ar[3] = {g.ax, g.ay, g.az};
    for (std::size_t k = 0; k < 3; ++k) {
      r(k) = pr[k] * lsb::kGlonassPosition.lsb;
      v(k) = vr[k] * lsb::kGlonassVelocity.lsb;
      a(k) = ar[k] * lsb::kGlonassAcceleration.lsb;
    }
    return support::validGlonassEphemeris(r, v, a) &&
           support::validGlonassEphemeris(g.tauN * lsb::kGlonassTau.lsb, g.gammaN * lsb::kGlonassGamma.lsb,
                                          g.deltaTauN * lsb::kGlonassDeltaTau.lsb);
  }
  support::Vec const v = validationVector(eph);
  return eph.sat.system == 'C' ? support::validBeidouEphemeris(v) : support::validGpsEphemeris(v);
}

support::BeidouSvType svType(Ephemeris const& eph) {
  return eph.sat.system == 'C' ? support::getBeidouSvType(eph.beidou) : support::UNDEFINED_SAT_TYPE;
}

std::map<SatelliteId, std::vector<Ephemeris>> collectEphemerides(std::vector<NavData> const& files) {
  std::map<SatelliteId, std::vector<Ephemeris>> bySat;
  for (NavData const& nav : files) {
    std::string const name = nav.file.substr(nav.file.find_last_of('/') + 1);
    for (GpsNavRecord const& r : nav.gps) {
      bySat[{'G', r.eph.svId}].push_back(fromGps(r.eph, name + ":" + std::to_string(r.line)));
    }
    for (BeidouNavRecord const& r : nav.beidou) {
      bySat[{'C', r.eph.svId}].push_back(fromBeidou(r.eph, name + ":" + std::to_string(r.line)));
    }
    for (GlonassNavRecord const& r : nav.glonass) {
      bySat[{'R', r.eph.svId}].push_back(fromGlonass(r.eph, name + ":" + std::to_string(r.line)));
    }
  }
  for (auto& entry : bySat) {
    std::stable_sort(entry.second.begin(), entry.second.end(),
                     [](Ephemeris const& a, Ephemeris const& b) { return a.toe < b.toe; });
  }
  return bySat;
}

std::vector<Ephemeris> recordsUpTo(std::vector<Ephemeris> const& records, double t) {
  std::vector<Ephemeris> usable;
  for (Ephemeris const& e : records) {
    if (e.toe <= t) usable.push_back(e);
  }
  std::stable_sort(usable.begin(), usable.end(),
                   [](Ephemeris const& a, Ephemeris const& b) { return a.toe < b.toe; });
  return usable;
}

support::AssistanceData satelliteAssistance(SatelliteId const& sat, support::BeidouSvType type,
                                            double gpsSeconds) {
  core::GnssType const gnss = gnssType(sat.system);
  int row = sat.prn;
  if (gnss == core::BEIDOU && sat.prn > kBeidouTableLast) {
    row = type == support::GEO    ? kBeidouGeoStandIn
          : type == support::IGSO ? kBeidouIgsoStandIn
                                  : kBeidouMeoStandIn;
  }
  support::AssistanceData data =
      support::AssistanceDataFile::defaultAssistance(gnss, static_cast<unsigned short>(row));
  data.gnssType = gnss;
  data.svId = static_cast<std::uint16_t>(sat.prn);

  // The satellite that flew this PRN on the latest listed date not after t
  // (the earliest listed date for older data).
  CalendarTime const c = calendarFromGpsSeconds(gpsSeconds);
  int const date = c.year * 10000 + c.month * 100 + c.day;
  int latest = 0, earliest = 0;
  for (std::size_t i = 0; i < tables::kSatelliteHistorySize; ++i) {
    if (tables::kSatelliteHistory[i].system != sat.system) continue;
    int const d = tables::kSatelliteHistory[i].date;
    if (d <= date && d > latest) latest = d;
    if (earliest == 0 || d < earliest) earliest = d;
  }
  int const chosen = latest != 0 ? latest : earliest;
  for (std::size_t i = 0; i < tables::kSatelliteHistorySize; ++i) {
    tables::SatelliteHistoryRow const& r = tables::kSatelliteHistory[i];
    if (r.date != chosen || r.system != sat.system || r.prn != sat.prn) continue;
    data.srp[0] = r.srpScale;
    data.srp[1] = r.yBias;
    for (std::size_t k = 0; k < 3; ++k) data.antPhase[k] = r.pco[k];
  }
  return data;
}

int leapSecondsAt(double gpsSeconds) {
  static std::vector<support::LeapInfo> const table = leapSecondTable();
  return support::leapSeconds(gpsSeconds, true, table);
}

std::string formatGpsTime(double gpsSeconds) {
  double const whole = std::floor(gpsSeconds + 0.0005);
  CalendarTime const c = calendarFromGpsSeconds(whole);
  int const millis = static_cast<int>(std::lround((gpsSeconds - whole) * 1000.0));
  char text[48];
  if (millis > 0) {
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d", c.year, c.month, c.day, c.hour,
                  c.minute, static_cast<int>(std::lround(c.second)), millis);
  } else {
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", c.year, c.month, c.day, c.hour,
                  c.minute, static_cast<int>(std::lround(c.second)));
  }
  return text;
}

bool parseGpsTime(std::string const& text, double& gpsSeconds) {
  CalendarTime c;
  c.hour = c.minute = 0;
  c.second = 0.0;
  char sep = 0;
  char tail = 0;
  int consumed = 0;
  int const fields = std::sscanf(text.c_str(), "%4d-%2d-%2d%n", &c.year, &c.month, &c.day, &consumed);
  if (fields != 3) return false;
  std::string rest = text.substr(static_cast<std::size_t>(consumed));
  if (!rest.empty()) {
    double second = 0.0;
    int n = std::sscanf(rest.c_str(), "%c%2d:%2d:%lf%c", &sep, &c.hour, &c.minute, &second, &tail);
    if (n == 4 ||
        (n == 3 && std::sscanf(rest.c_str(), "%c%2d:%2d%c", &sep, &c.hour, &c.minute, &tail) == 3)) {
      c.second = second;
    } else {
      return false;
    }
    if (sep != 'T' && sep != ' ') return false;
  }
  if (!validCalendar(c) || c.second >= 60.0) return false;
  gpsSeconds = gpsSecondsFromCalendar(c);
  return true;
}

}  // namespace host
}  // namespace zarn
