#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "zarn/host/rinex_nav.hpp"
#include "zarn/support/broadcast_interface.hpp"
#include "zarn/support/ephemeris_conversion.hpp"
#include "zarn/support/time_conversion.hpp"
#include "zarn/support/utility.hpp"

namespace zarn {
namespace host {

namespace {

namespace bc = support::broadcast;

constexpr int kLabelColumn = 60;
// Written for URA index 15 (no accuracy prediction): above the last bound, so
// that it reads back as 15.
constexpr double kUraNoPredictionMetres = 8192.0;
constexpr char const* kVersionLine =
    "     3.04           N: GNSS NAV DATA    %c: %-17s";  // F9.2,11X,A1,19X,A1,19X

std::string headerLine(std::string text, char const* label) {
  text.resize(kLabelColumn, ' ');
  return text + label + "\n";
}

std::string format(char const* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(char const* fmt, ...) {
  char buffer[256];
  va_list args;
  va_start(args, fmt);
  int const n = std::vsnprintf(buffer, sizeof(buffer), fmt, args);
  va_end(args);
  return std::string(buffer,
                     n < 0 ? 0 : std::min<std::size_t>(static_cast<std::size_t>(n), sizeof(buffer) - 1));
}

double uraMetres(int index, core::GnssType gnss) {
  if (index < 0 || index > bc::kUraNoPrediction) {
    throw std::invalid_argument("URA index " + std::to_string(index) + " outside 0..15");
  }
  return index == bc::kUraNoPrediction ? kUraNoPredictionMetres
                                       : support::uraIndexToMeters(static_cast<unsigned char>(index), gnss);
}

// "A1,I2.2,1X,I4,5(1X,I2.2)" then three D19.12 values.
std::string epochLine(char system, int prn, CalendarTime const& c, double a, double b, double d) {
  return format("%c%02d %04d %02d %02d %02d %02d %02d%19.12e%19.12e%19.12e\n", system, prn, c.year, c.month,
                c.day, c.hour, c.minute, static_cast<int>(std::lround(c.second)), a, b, d);
}

// "4X,4D19.12", trailing values left out when `count` is below four.
std::string valuesLine(std::vector<double> const& values) {
  std::string line = "    ";
  for (double v : values) line += format("%19.12e", v);
  return line + "\n";
}

std::string currentDate() {
  std::time_t const now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char buffer[32];
  std::strftime(buffer, sizeof(buffer), "%Y%m%d %H%M%S UTC", &utc);
  return buffer;
}

std::string fitEndComment(double gpsSeconds) {
  // Rounded to the millisecond first so that 59.9996 s does not print as 60.000.
  double const rounded = std::round(gpsSeconds * 1000.0) / 1000.0;
  CalendarTime const c = calendarFromGpsSeconds(rounded);
  return format("FIT END GPST %04d %02d %02d %02d %02d %06.3f", c.year, c.month, c.day, c.hour, c.minute,
                std::round(c.second * 1000.0) / 1000.0);
}

// The orbit values of a GPS LNAV or BeiDou D1/D2 record, sqrtA to Cis and toe.
template <class Record, class Raw>
void decodeOrbit(Record const& e, core::GnssType gnss, Raw& r) {
  bc::KeplerElements const k = bc::decodeOrbit(e);
  double* const targets[bc::kKeplerSize] = {&r.sqrtA, &r.e,      &r.i0,   &r.omega0,   &r.omega,
                                            &r.m0,    &r.deltaN, &r.iDot, &r.omegaDot, &r.cuc,
                                            &r.cus,   &r.crc,    &r.crs,  &r.cic,      &r.cis};
  for (unsigned i = 0; i < bc::kKeplerSize; ++i) *targets[i] = k[i];
  r.toe = e.toe.third;
  r.accuracy = uraMetres(e.uraIndex, gnss);
  r.transmissionTime = e.toe.third;
}

// Broadcast orbits 1-5, alike in both records but for the issue of data (IODE or AODE) in front.
template <class Raw>
std::string orbitLines(Raw const& r, double issue) {
  return valuesLine({issue, r.crs, r.deltaN, r.m0}) + valuesLine({r.cuc, r.e, r.cus, r.sqrtA}) +
         valuesLine({r.toe, r.cic, r.omega0, r.cis}) + valuesLine({r.i0, r.crc, r.omega, r.omegaDot}) +
         valuesLine({r.iDot, 0.0, r.week, 0.0});
}

}  // namespace

GpsNavRaw decodeGps(core::GpsEphemeris const& e) {
  GpsNavRaw r;
  r.toc = support::gpsToGpsSecs(e.toc);
  r.tocCalendar = calendarFromGpsSeconds(r.toc);
  bc::ClockTerms const clock = bc::decodeClock(e);
  r.af0 = clock.a0;
  r.af1 = clock.a1;
  r.af2 = clock.a2;
  r.iode = e.iode;
  decodeOrbit(e, core::GPS, r);
  r.week = static_cast<double>(e.toe.first) * kWeeksPerGpsCycle + e.toe.second;
  r.health = e.health;
  r.tgd = bc::decode(e.tgd, bc::kGpsTgd);
  r.iodc = e.iodc;
  return r;
}

BeidouNavRaw decodeBeidou(core::BeidouEphemeris const& e) {
  BeidouNavRaw r;
  double const tocBdt = support::beidouToSecs(e.toc);
  r.tocCalendar = calendarFromBdtSeconds(tocBdt);
  r.toc = tocBdt + kBdtEpochInGpsSeconds;
  bc::ClockTerms const clock = bc::decodeClock(e);
  r.a0 = clock.a0;
  r.a1 = clock.a1;
  r.a2 = clock.a2;
  r.aode = e.aode;
  decodeOrbit(e, core::BEIDOU, r);
  r.week = static_cast<double>(e.toe.first) * (support::BEIDOU_CYCLE_SECONDS / support::SECONDS_PER_WEEK) +
           e.toe.second;
  r.satH1 = e.health;
  r.tgd1 = bc::decode(e.tgd1, bc::kBeidouTgd);
  r.tgd2 = bc::decode(e.tgd2, bc::kBeidouTgd);
  r.aodc = e.aodc;
  return r;
}

GlonassNavRaw decodeGlonass(core::GlonassEphemeris const& e) {
  namespace lsb = support::broadcast;
  GlonassNavRaw r;
  double const utc = support::glonassToSecs(e.time) + support::GLONASS_EPOCH_GPS_SECONDS;
  r.tocCalendar = calendarFromGpsSeconds(utc);
  r.toc = gpsSecondsFromUtc(r.tocCalendar);
  r.minusTauN = -e.tauN * lsb::kGlonassTau.lsb;
  r.gammaN = e.gammaN * lsb::kGlonassGamma.lsb;
  r.messageFrameTime = std::fmod(utc, static_cast<double>(support::SECONDS_PER_WEEK));
  r.x = e.x * lsb::kGlonassPosition.lsb;
  r.y = e.y * lsb::kGlonassPosition.lsb;
  r.z = e.z * lsb::kGlonassPosition.lsb;
  r.vx = e.vx * lsb::kGlonassVelocity.lsb;
  r.vy = e.vy * lsb::kGlonassVelocity.lsb;
  r.vz = e.vz * lsb::kGlonassVelocity.lsb;
  r.ax = e.ax * lsb::kGlonassAcceleration.lsb;
  r.ay = e.ay * lsb::kGlonassAcceleration.lsb;
  r.az = e.az * lsb::kGlonassAcceleration.lsb;
  r.health = e.health;
  r.frequencyNumber = e.frequencyNumber;
  r.age = e.age;
  r.groupDelayL1L2 = e.deltaTauN * lsb::kGlonassDeltaTau.lsb;
  return r;
}

std::string formatRinexNav(NavWriteOptions const& options, std::vector<core::GpsEphemeris> const& gps,
                           std::vector<core::BeidouEphemeris> const& beidou,
                           std::vector<core::GlonassEphemeris> const& glonass) {
  int const systems = (gps.empty() ? 0 : 1) + (beidou.empty() ? 0 : 1) + (glonass.empty() ? 0 : 1);
  char const system = systems != 1 ? 'M' : !gps.empty() ? 'G' : !beidou.empty() ? 'C' : 'R';
  char const* const systemName = system == 'M'   ? "MIXED"
                                 : system == 'G' ? "GPS"
                                 : system == 'C' ? "BEIDOU"
                                                 : "GLONASS";
  std::string out = headerLine(format(kVersionLine, system, systemName), "RINEX VERSION / TYPE");
  std::string pgm = options.program.substr(0, 20);
  pgm.resize(20, ' ');
  std::string runBy = options.runBy.substr(0, 20);
  runBy.resize(20, ' ');
  out += headerLine(pgm + runBy + (options.date.empty() ? currentDate() : options.date.substr(0, 20)),
                    "PGM / RUN BY / DATE");
  for (std::string const& comment : options.comments) out += headerLine(comment.substr(0, 60), "COMMENT");
  if (options.hasFitEnd) out += headerLine(fitEndComment(options.fitEnd), "COMMENT");
  if (options.leapSeconds >= 0) out += headerLine(format("%6d", options.leapSeconds), "LEAP SECONDS");
  out += headerLine("", "END OF HEADER");

  for (core::GpsEphemeris const& e : gps) {
    GpsNavRaw const r = decodeGps(e);
    out += epochLine('G', e.svId, r.tocCalendar, r.af0, r.af1, r.af2) + orbitLines(r, r.iode);
    out += valuesLine({r.accuracy, r.health, r.tgd, r.iodc});
    out += valuesLine({r.transmissionTime, options.gpsFitIntervalHours});
  }
  for (core::BeidouEphemeris const& e : beidou) {
    BeidouNavRaw const r = decodeBeidou(e);
    out += epochLine('C', e.svId, r.tocCalendar, r.a0, r.a1, r.a2) + orbitLines(r, r.aode);
    out += valuesLine({r.accuracy, r.satH1, r.tgd1, r.tgd2});
    out += valuesLine({r.transmissionTime, r.aodc});
  }
  for (core::GlonassEphemeris const& e : glonass) {
    GlonassNavRaw const r = decodeGlonass(e);
    out += epochLine('R', e.svId, r.tocCalendar, r.minusTauN, r.gammaN, r.messageFrameTime);
    out += valuesLine({r.x, r.vx, r.ax, r.health}) + valuesLine({r.y, r.vy, r.ay, r.frequencyNumber}) +
           valuesLine({r.z, r.vz, r.az, r.age});
  }
  return out;
}

void writeRinexNav(std::string const& path, NavWriteOptions const& options,
                   std::vector<core::GpsEphemeris> const& gps,
                   std::vector<core::BeidouEphemeris> const& beidou,
                   std::vector<core::GlonassEphemeris> const& glonass) {
  std::string const text = formatRinexNav(options, gps, beidou, glonass);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) throw FormatError(path, 0, "cannot create file");
  out << text;
  out.flush();
  if (!out) throw FormatError(path, 0, "write error");
}

}  // namespace host
}  // namespace zarn
