// GPS, GLONASS and BeiDou broadcast ephemerides as the host pipeline handles
// them: one record type for the three constellations, satellite names, the per-satellite
// model parameters, the leap-second table and GPS time texts.
#ifndef ZARN_HOST_EPHEMERIS_HPP
#define ZARN_HOST_EPHEMERIS_HPP

#include <map>
#include <string>
#include <vector>

#include "zarn/core/records.hpp"
#include "zarn/host/rinex_nav.hpp"
#include "zarn/support/assistance_data.hpp"
#include "zarn/support/math.hpp"
#include "zarn/support/utility.hpp"

namespace zarn {
namespace host {

// A satellite: system letter of RINEX ('G' GPS, 'R' GLONASS, 'C' BeiDou) and
// PRN (the GLONASS slot).
struct SatelliteId {
  char system = 'G';
  int prn = 0;
};
inline bool operator<(SatelliteId const& a, SatelliteId const& b) {
  return a.system != b.system ? a.system < b.system : a.prn < b.prn;
}
inline bool operator==(SatelliteId const& a, SatelliteId const& b) {
  return a.system == b.system && a.prn == b.prn;
}
// "G05", "C14".
std::string toString(SatelliteId const& sat);
core::GnssType gnssType(char system);

// One broadcast ephemeris of a satellite. Exactly one of `gps`, `glonass` and
// `beidou` is meaningful, chosen by sat.system.
struct Ephemeris {
  SatelliteId sat;
  core::GpsEphemeris gps;
  core::BeidouEphemeris beidou;
  core::GlonassEphemeris glonass;
  double toe = 0;      // reference time of the orbit (GLONASS: of the state), GPS seconds
  double toc = 0;      // reference time of the clock, GPS seconds
  int health = 0;      // broadcast health word, 0 = healthy
  std::string origin;  // "file:line" of the record, empty for computed ones
};

Ephemeris fromGps(core::GpsEphemeris const& eph, std::string origin = "");
Ephemeris fromBeidou(core::BeidouEphemeris const& eph, std::string origin = "");
Ephemeris fromGlonass(core::GlonassEphemeris const& eph, std::string origin = "");
// GPS seconds of a GLONASS reference time (leapSecondTable()).
double glonassGpsSeconds(core::Toc const& glonassTime);

// Earth-fixed antenna-phase-centre position (m) and velocity (m/s) of the
// ephemeris at t (GPS seconds); PZ-90.02 for GLONASS. pos and vel need not be
// sized.
void ephemerisState(Ephemeris const& eph, double t, support::Vec& pos, support::Vec& vel);
// The broadcast clock polynomial of the record: offset (s), drift (s/s) and
// drift rate (s/s^2) at toc, as a0 + a1 dt + a2 dt^2; and its value (s) at t
// (GPS seconds), without the relativistic term.
support::Vec clockPolynomial(Ephemeris const& eph);
double clockOffset(Ephemeris const& eph, double t);
// Square root of the semi-major axis, m^1/2 (GLONASS: of the radius at the
// reference time).
double sqrtSemiMajorAxis(Ephemeris const& eph);
// The 17-element validation vector of the record (kepler elements from its
// integers, then toe as seconds and week of GPS time), and whether it passes
// validGpsEphemeris or validBeidouEphemeris.
// GLONASS records pass when their state and clock terms pass validGlonassEphemeris.
support::Vec validationVector(Ephemeris const& eph);
bool passesValidation(Ephemeris const& eph);
// BeiDou orbit type of the record; UNDEFINED_SAT_TYPE for GPS.
support::BeidouSvType svType(Ephemeris const& eph);

// GPS, GLONASS and BeiDou records of the files, per satellite in toe order (records of
// every file merged; nothing is screened or removed here).
std::map<SatelliteId, std::vector<Ephemeris>> collectEphemerides(std::vector<NavData> const& files);

// The records with toe at or before t (GPS seconds), in toe order (stable).
std::vector<Ephemeris> recordsUpTo(std::vector<Ephemeris> const& records, double t);

// Model parameters (radiation pressure, antenna offset, error model) of the
// satellite flying a PRN at GPS time t: the library's defaults, with the
// radiation-pressure scale and antenna offset of the satellite that the
// satellite history lists for that PRN on the latest listed date not after t
// (PRNs pass from satellite to satellite over the years). BeiDou PRNs beyond
// the library's BDS-2 rows start from a BDS-2 satellite of the same orbit type.
support::AssistanceData satelliteAssistance(SatelliteId const& sat, support::BeidouSvType type,
                                            double gpsSeconds);

// GPS - UTC (s) at GPS time t, with leapSecondTable() (gnss_time.hpp).
int leapSecondsAt(double gpsSeconds);

// "2016-09-08 00:00:00" (GPS time; milliseconds added when not whole).
std::string formatGpsTime(double gpsSeconds);
// Reads "YYYY-MM-DD", "YYYY-MM-DD HH:MM[:SS]" or "YYYY-MM-DDTHH:MM[:SS]" as
// GPS time. False on anything else.
bool parseGpsTime(std::string const& text, double& gpsSeconds);

}  // namespace host
}  // namespace zarn

#endif
