// SP3 precise orbit files (versions a, c and d): positions, optional
// velocities and clocks of GPS, GLONASS, Galileo, BeiDou and QZSS satellites.
//
// Units on output: metres, m/s, seconds, s/s; epochs in GPS seconds. The file's
// time system ("%c" line) is honoured: GPS, GAL, QZS and IRN are taken as GPS
// time, BDT = GPS - 14 s, TAI = GPS + 19 s, UTC and GLO through the leap-second
// table (GLO = UTC + 3 h). SP3-a files have no time-system field and are GPS.
//
// Bad input: an unreadable or empty file, or a broken first two lines, throws
// FormatError naming file and line. A position or velocity line that cannot be
// parsed is skipped and counted with a warning; absent positions (0, 0, 0) are
// left out and counted; absent clocks (999999.999999) are NaN.
#ifndef ZARN_HOST_SP3_HPP
#define ZARN_HOST_SP3_HPP

#include <map>
#include <string>
#include <vector>

#include "zarn/host/gnss_time.hpp"
#include "zarn/host/text_file.hpp"

namespace zarn {
namespace host {

struct Sp3Entry {
  char system = 'G';  // 'G', 'R', 'E', 'C', 'J', ...
  int prn = 0;
  double position[3] = {0, 0, 0};  // m, in the file's terrestrial frame
  double clock = 0;                // s; NaN when absent
  bool hasVelocity = false;
  double velocity[3] = {0, 0, 0};  // m/s
  double clockRate = 0;            // s/s; NaN when absent
  int line = 0;                    // line of the position record in the file
};

struct Sp3Epoch {
  CalendarTime calendar;  // as written, in the file's time system
  double time = 0;        // GPS seconds
  int line = 0;           // line of the epoch record in the file
  std::vector<Sp3Entry> entries;
};

struct Sp3Header {
  char version = ' ';  // 'a', 'c', 'd' (also 'b')
  char posVel = 'P';   // 'P' positions, 'V' positions and velocities
  CalendarTime start;
  int declaredEpochs = 0;
  std::string dataUsed, coordinateSystem, orbitType, agency;
  int gpsWeek = 0;
  double secondsOfWeek = 0;
  double interval = 0;                  // s
  std::vector<std::string> satellites;  // "G01", ... as listed in the header
  char fileType = ' ';                  // "%c" file type: 'G', 'R', 'M', ...
  std::string timeSystem = "GPS";
};

struct Sp3Stats {
  int entries = 0;          // satellite positions kept
  int absentPositions = 0;  // 0, 0, 0 positions left out
  int absentClocks = 0;
  int skippedMalformed = 0;        // lines that could not be parsed
  int skippedUnknown = 0;          // lines of unknown kind (EP/EV correlation lines are not counted)
  bool sawEof = false;             // the file ends with "EOF"
  std::map<char, int> satellites;  // distinct satellites with a position, by system
  int warningCount = 0;
  std::vector<std::string> warnings;  // first 100, "file:line: reason"
};

struct Sp3Data {
  std::string file;
  Sp3Header header;
  std::vector<Sp3Epoch> epochs;
  Sp3Stats stats;
};

Sp3Data readSp3(std::string const& path);
Sp3Data parseSp3(std::string const& text, std::string const& name);

// One satellite's positions in time order, for orbit fitting and comparisons.
struct Sp3Sample {
  double time = 0;  // GPS seconds
  double position[3] = {0, 0, 0};
  double clock = 0;
  bool hasVelocity = false;
  double velocity[3] = {0, 0, 0};
};
std::vector<Sp3Sample> satelliteTrack(Sp3Data const& data, char system, int prn);

}  // namespace host
}  // namespace zarn

#endif
