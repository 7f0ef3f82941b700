// RINEX navigation files: a reader for versions 2.x, 3.x and 4.00 that turns
// GPS LNAV, BeiDou D1/D2 and GLONASS FDMA records into the library's broadcast
// records, and a RINEX 3.04 writer for GPS, GLONASS and BeiDou ephemerides.
//
// Scaling: every broadcast field is the RINEX value divided by its LSB
// (IS-GPS-200 Tables 20-I/20-III, BDS-SIS-ICD-B1I 5.2.4, GLONASS ICD 4.4),
// rounded to the nearest integer with halves away from zero; angles go through
// semicircles with the interface documents' pi = 3.1415926535898.
//
// Bad input: a file that cannot be read, is empty, is not a navigation file or
// has a broken header throws FormatError naming the file and line. Inside the
// body a record that cannot be parsed or scaled is skipped, counted and
// described in `warnings` ("file:line: reason"); records of other systems and
// message types (Galileo, QZSS, SBAS, IRNSS, CNAV, ...) and RINEX 4 STO/EOP/ION
// records are skipped and counted.
#ifndef ZARN_HOST_RINEX_NAV_HPP
#define ZARN_HOST_RINEX_NAV_HPP

#include <map>
#include <string>
#include <vector>

#include "zarn/core/records.hpp"
#include "zarn/host/gnss_time.hpp"
#include "zarn/host/text_file.hpp"

namespace zarn {
namespace host {

// The doubles of a GPS LNAV record as the file gives them (seconds, metres,
// radians, rad/s). Times: toc on the GPS scale, toe in seconds of `week`.
struct GpsNavRaw {
  CalendarTime tocCalendar;  // GPS time
  double toc = 0;            // GPS seconds
  double af0 = 0, af1 = 0, af2 = 0;
  double iode = 0, crs = 0, deltaN = 0, m0 = 0;
  double cuc = 0, e = 0, cus = 0, sqrtA = 0;
  double toe = 0, cic = 0, omega0 = 0, cis = 0;
  double i0 = 0, crc = 0, omega = 0, omegaDot = 0;
  double iDot = 0, codesOnL2 = 0, week = 0, l2pFlag = 0;
  double accuracy = 0, health = 0, tgd = 0, iodc = 0;
  double transmissionTime = 0, fitInterval = 0;
};

// The doubles of a BeiDou D1/D2 record; toc and toe on the BDT scale.
struct BeidouNavRaw {
  CalendarTime tocCalendar;  // BDT
  double toc = 0;            // GPS seconds (BDT + 14 s epoch offset applied)
  double a0 = 0, a1 = 0, a2 = 0;
  double aode = 0, crs = 0, deltaN = 0, m0 = 0;
  double cuc = 0, e = 0, cus = 0, sqrtA = 0;
  double toe = 0, cic = 0, omega0 = 0, cis = 0;  // toe in seconds of the BDT week
  double i0 = 0, crc = 0, omega = 0, omegaDot = 0;
  double iDot = 0, week = 0;  // BDT week
  double accuracy = 0, satH1 = 0, tgd1 = 0, tgd2 = 0;
  double transmissionTime = 0, aodc = 0;
};

// The doubles of a GLONASS FDMA record (km, km/s, km/s^2; clock terms as in
// the file, which gives -tauN). Fields of the optional RINEX 3.05/4 line are
// 0 when absent.
struct GlonassNavRaw {
  CalendarTime tocCalendar;  // UTC
  double toc = 0;            // GPS seconds
  double minusTauN = 0, gammaN = 0, messageFrameTime = 0;
  double x = 0, vx = 0, ax = 0, health = 0;
  double y = 0, vy = 0, ay = 0, frequencyNumber = 0;
  double z = 0, vz = 0, az = 0, age = 0;
  double statusFlags = 0, groupDelayL1L2 = 0, urai = 0, healthFlags = 0;
};

struct GpsNavRecord {
  core::GpsEphemeris eph;
  GpsNavRaw raw;
  int line = 0;  // first line of the record in the file
};

struct BeidouNavRecord {
  core::BeidouEphemeris eph;
  BeidouNavRaw raw;
  std::string messageType;  // "D1", "D2" (RINEX 4), empty when the file does not say
  int line = 0;
};

struct GlonassNavRecord {
  core::GlonassEphemeris eph;
  GlonassNavRaw raw;
  int line = 0;
};

struct NavHeader {
  double version = 0;
  char system = ' ';     // 'G', 'R', 'C', 'E', 'M' ... (RINEX 2: 'G' for .n, 'R' for .g)
  int leapSeconds = -1;  // -1 when the header has none
  std::vector<std::string> comments;
  bool hasFitEnd = false;  // a "FIT END" comment as written by writeRinexNav
  double fitEnd = 0;       // GPS seconds
};

struct NavStats {
  // Ephemeris records found, by system letter ('G', 'R', 'C', 'E', 'J', 'S', 'I'),
  // whether converted or skipped, and the distinct satellites among them.
  std::map<char, int> records;
  std::map<char, int> satellites;
  int converted = 0;
  int skippedUnsupported = 0;                // systems and message types not converted
  int skippedMalformed = 0;                  // unparseable, truncated or out-of-range records
  int skippedOther = 0;                      // RINEX 4 STO, EOP and ION records
  std::map<std::string, int> skippedByKind;  // "E", "G CNAV", "STO", ... -> count
  int warningCount = 0;                      // may exceed warnings.size()
  std::vector<std::string> warnings;         // first kMaxWarnings, "file:line: reason"
};

constexpr std::size_t kMaxWarnings = 100;

struct NavData {
  std::string file;
  NavHeader header;
  std::vector<GpsNavRecord> gps;
  std::vector<BeidouNavRecord> beidou;
  std::vector<GlonassNavRecord> glonass;
  NavStats stats;
};

// Reads a RINEX navigation file (plain or gzip). Throws FormatError as above.
NavData readRinexNav(std::string const& path);
// The same for text already in memory; `name` stands for the file in messages.
NavData parseRinexNav(std::string const& text, std::string const& name);

// Broadcast scaling of one record. On failure returns false and says why
// (a value outside its record field, a time that has no Toc). URA indices come
// from the file's accuracy in metres (IS-GPS-200 20.3.3.3.1.3 upper bounds).
// BeiDou D1/D2 carry no IODC: `iodc` is set to the AODC, as is `aodc`.
bool encodeGps(GpsNavRaw const& raw, int prn, core::GpsEphemeris& eph, std::string& why);
bool encodeBeidou(BeidouNavRaw const& raw, int prn, core::BeidouEphemeris& eph, std::string& why);
bool encodeGlonass(GlonassNavRaw const& raw, int slot, core::GlonassEphemeris& eph, std::string& why);

// The inverse for the writer: the values a record stands for. Fields the record
// does not hold are set as the writer documents below.
GpsNavRaw decodeGps(core::GpsEphemeris const& eph);
BeidouNavRaw decodeBeidou(core::BeidouEphemeris const& eph);
// GLONASS: the epoch is the UTC calendar of `time`, the message frame time
// that instant in seconds of the UTC week; the L1/L2 delay (deltaTauN) is not
// written, as RINEX 3.04 has no field for it.
GlonassNavRaw decodeGlonass(core::GlonassEphemeris const& eph);

struct NavWriteOptions {
  std::string program = "zarn";
  std::string runBy;
  std::string date;                   // "YYYYMMDD HHMMSS UTC"; empty: the current time
  std::vector<std::string> comments;  // each cut to 60 characters
  bool hasFitEnd = false;
  double fitEnd = 0;     // GPS seconds, written as a "FIT END" comment
  int leapSeconds = -1;  // written when >= 0
  double gpsFitIntervalHours = 4.0;
};

// RINEX 3.04 navigation text for GPS, BeiDou and GLONASS records, in the given order.
// Fields a record does not hold: transmission time = toe (seconds of the toe
// week), GPS codes on L2 and L2 P flag 0, fit interval from the options;
// BeiDou AODC is written from `aodc` (the reader sets `iodc` = `aodc`).
// Throws std::invalid_argument for a URA index outside 0..15.
std::string formatRinexNav(NavWriteOptions const& options, std::vector<core::GpsEphemeris> const& gps,
                           std::vector<core::BeidouEphemeris> const& beidou,
                           std::vector<core::GlonassEphemeris> const& glonass = {});
// Writes formatRinexNav(...) to `path`; throws FormatError when it cannot.
void writeRinexNav(std::string const& path, NavWriteOptions const& options,
                   std::vector<core::GpsEphemeris> const& gps,
                   std::vector<core::BeidouEphemeris> const& beidou,
                   std::vector<core::GlonassEphemeris> const& glonass = {});

}  // namespace host
}  // namespace zarn

#endif
