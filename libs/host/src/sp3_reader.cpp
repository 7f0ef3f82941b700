#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <set>
#include <string>
#include <utility>

#include "fixed_fields.hpp"
#include "zarn/host/sp3.hpp"

namespace zarn {
namespace host {

namespace {

using detail::blank;
using detail::column;
using detail::parseDouble;
using detail::parseInt;
using detail::trim;

constexpr double kMetresPerKm = 1000.0;
constexpr double kSecondsPerMicrosecond = 1e-6;
constexpr double kMetresPerSecondPerDmPerSecond = 0.1;
constexpr double kClockRateUnit = 1e-10;  // 10^-4 microseconds per second
// Clock values at or above this mark an absent clock (999999.999999).
constexpr double kAbsentClock = 999999.0;
constexpr double kTaiMinusGps = 19.0;  // s
constexpr double kGpsMinusBdt = 14.0;  // s
constexpr std::size_t kSatellitesPerLine = 17;
constexpr std::size_t kSatelliteColumn = 9;
constexpr std::size_t kSatelliteWidth = 3;
// Columns of the x, y, z and clock values of P and V lines (F14.6 each).
constexpr std::size_t kValueColumns[4] = {4, 18, 32, 46};
constexpr std::size_t kValueWidth = 14;

// "G01", "G 1", " 1" (SP3-a: GPS without a letter).
bool parseSatellite(std::string const& text, char& system, int& prn) {
  if (text.size() != kSatelliteWidth) return false;
  char const first = text[0];
  std::string number = text.substr(1);
  if (first == ' ' || (first >= '0' && first <= '9')) {
    system = 'G';
    number = text;
  } else if (first >= 'A' && first <= 'Z') {
    system = first;
  } else {
    return false;
  }
  long value = 0;
  if (!parseInt(number, value) || value < 1 || value > 999) return false;
  prn = static_cast<int>(value);
  return true;
}

bool parseCalendar(std::string const& line, CalendarTime& c) {
  long parts[5] = {0, 0, 0, 0, 0};
  std::size_t const starts[5] = {3, 8, 11, 14, 17};
  std::size_t const widths[5] = {4, 2, 2, 2, 2};
  for (int i = 0; i < 5; ++i) {
    if (!parseInt(column(line, starts[i], widths[i]), parts[i])) return false;
  }
  c.year = static_cast<int>(parts[0]);
  c.month = static_cast<int>(parts[1]);
  c.day = static_cast<int>(parts[2]);
  c.hour = static_cast<int>(parts[3]);
  c.minute = static_cast<int>(parts[4]);
  return parseDouble(column(line, 20, 11), c.second) && validCalendar(c);
}

class Reader {
 public:
  Reader(std::string const& text, std::string const& name) : lines_(splitLines(text)) { data_.file = name; }

  Sp3Data run() {
    if (std::all_of(lines_.begin(), lines_.end(), [](std::string const& l) { return blank(l); })) {
      throw FormatError(data_.file, 0, "empty file");
    }
    readFirstLines();
    for (std::size_t i = 2; i < lines_.size(); ++i) readLine(static_cast<int>(i + 1), lines_[i]);
    finish();
    return std::move(data_);
  }

 private:
  void readFirstLines() {
    std::string const& first = lines_[0];
    Sp3Header& h = data_.header;
    if (first.size() < 3 || first[0] != '#' || first[1] < 'a' || first[1] > 'd') {
      throw FormatError(data_.file, 1, "not an SP3 file: the first line does not start with #a..#d");
    }
    h.version = first[1];
    h.posVel = first[2];
    if (h.posVel != 'P' && h.posVel != 'V') {
      throw FormatError(data_.file, 1, std::string("bad position/velocity flag '") + h.posVel + "'");
    }
    long epochs = 0;
    if (!parseCalendar(first, h.start) || !parseInt(column(first, 32, 7), epochs) || epochs < 0) {
      throw FormatError(data_.file, 1, "bad first header line");
    }
    h.declaredEpochs = static_cast<int>(epochs);
    h.dataUsed = trim(column(first, 40, 5));
    h.coordinateSystem = trim(column(first, 46, 5));
    h.orbitType = trim(column(first, 52, 3));
    h.agency = trim(column(first, 56, 4));
    if (lines_.size() < 2 || lines_[1].rfind("##", 0) != 0) {
      throw FormatError(data_.file, 2, "missing the second header line (##)");
    }
    std::string const& second = lines_[1];
    long week = 0;
    if (!parseInt(column(second, 3, 4), week) || !parseDouble(column(second, 8, 15), h.secondsOfWeek) ||
        !parseDouble(column(second, 24, 14), h.interval)) {
      throw FormatError(data_.file, 2, "bad second header line");
    }
    h.gpsWeek = static_cast<int>(week);
  }

  void readLine(int number, std::string const& line) {
    if (blank(line)) return;
    if (line.rfind("EOF", 0) == 0) {
      data_.stats.sawEof = true;
      return;
    }
    if (data_.stats.sawEof) {
      skipUnknown(number, "text after EOF");
      return;
    }
    char const kind = line[0];
    if (kind == '*') {
      readEpoch(number, line);
    } else if (kind == 'P') {
      readPosition(number, line);
    } else if (kind == 'V') {
      readVelocity(number, line);
    } else if (kind == 'E' && line.size() > 1 && (line[1] == 'P' || line[1] == 'V')) {
      // Correlation records: not used.
    } else if (!inBody_ && (kind == '+' || kind == '%' || kind == '/')) {
      readHeaderLine(number, line);
    } else if (inBody_ && line.rfind("/*", 0) == 0) {
      // Comments between records are allowed in SP3-d.
    } else {
      skipUnknown(number, "unknown line '" + line.substr(0, 3) + "'");
    }
  }

  void readHeaderLine(int number, std::string const& line) {
    Sp3Header& h = data_.header;
    if (line.rfind("++", 0) == 0 || line.rfind("%f", 0) == 0 || line.rfind("%i", 0) == 0 ||
        line.rfind("/*", 0) == 0) {
      return;
    }
    if (line.rfind("+ ", 0) == 0) {
      for (std::size_t k = 0; k < kSatellitesPerLine; ++k) {
        std::string const id = column(line, kSatelliteColumn + k * kSatelliteWidth, kSatelliteWidth);
        char system = ' ';
        int prn = 0;
        if (id.size() == kSatelliteWidth && parseSatellite(id, system, prn)) {
          char buffer[8];
          std::snprintf(buffer, sizeof(buffer), "%c%02d", system, prn);
          h.satellites.emplace_back(buffer);
        }
      }
      return;
    }
    if (line.rfind("%c", 0) == 0) {
      if (sawTimeSystem_) return;  // only the first %c line carries them
      sawTimeSystem_ = true;
      std::string const type = column(line, 3, 2);
      h.fileType = type.empty() ? ' ' : type[0];
      std::string const system = trim(column(line, 9, 3));
      if (!system.empty() && system != "ccc") h.timeSystem = system;
      static std::set<std::string> const kKnown = {"GPS", "GAL", "QZS", "IRN", "BDT", "TAI", "UTC", "GLO"};
      if (!kKnown.count(h.timeSystem)) {
        throw FormatError(data_.file, number, "unsupported time system '" + h.timeSystem + "'");
      }
      return;
    }
    skipUnknown(number, "unknown header line '" + line.substr(0, 2) + "'");
  }

  double toGpsSeconds(CalendarTime const& c) const {
    std::string const& ts = data_.header.timeSystem;
    if (ts == "BDT") return gpsSecondsFromCalendar(c) + kGpsMinusBdt;
    if (ts == "TAI") return gpsSecondsFromCalendar(c) - kTaiMinusGps;
    if (ts == "UTC") return gpsSecondsFromUtc(c);
    if (ts == "GLO") {
      // GLONASS time = UTC + 3 h; the UTC date decides the leap-second count.
      CalendarTime const utc = calendarFromGpsSeconds(gpsSecondsFromCalendar(c) - kMoscowMinusUtc);
      return gpsSecondsFromUtc(utc);
    }
    return gpsSecondsFromCalendar(c);  // GPS and the systems steered to it
  }

  void readEpoch(int number, std::string const& line) {
    inBody_ = true;
    lastPosition_ = nullptr;
    CalendarTime c;
    if (!parseCalendar(line, c)) {
      // Without its time the whole epoch is lost; its records are skipped.
      skipMalformed(number, "bad epoch line");
      inEpoch_ = false;
      return;
    }
    Sp3Epoch epoch;
    epoch.calendar = c;
    epoch.time = toGpsSeconds(c);
    epoch.line = number;
    data_.epochs.push_back(std::move(epoch));
    inEpoch_ = true;
  }

  bool readValues(int number, std::string const& line, char& system, int& prn, double values[4]) {
    if (!inEpoch_) {
      skipMalformed(
          number, inBody_ ? "record of an epoch whose time is unreadable" : "record before the first epoch");
      return false;
    }
    if (!parseSatellite(column(line, 1, kSatelliteWidth), system, prn)) {
      skipMalformed(number, "bad satellite '" + column(line, 1, kSatelliteWidth) + "'");
      return false;
    }
    for (int k = 0; k < 4; ++k) {
      std::string const field = column(line, kValueColumns[k], kValueWidth);
      // SP3 marks absent values with numbers, never with blanks, so a short line was cut.
      bool const cut = line.size() < kValueColumns[k] + kValueWidth;
      if (cut || !parseDouble(field, values[k])) {
        skipMalformed(number, "bad value in column " + std::to_string(kValueColumns[k] + 1));
        return false;
      }
    }
    return true;
  }

  void readPosition(int number, std::string const& line) {
    lastPosition_ = nullptr;
    char system = ' ';
    int prn = 0;
    double v[4];
    if (!readValues(number, line, system, prn, v)) return;
    if (v[0] == 0.0 && v[1] == 0.0 && v[2] == 0.0) {
      ++data_.stats.absentPositions;
      return;
    }
    Sp3Entry e;
    e.system = system;
    e.prn = prn;
    e.line = number;
    for (int k = 0; k < 3; ++k) e.position[k] = v[k] * kMetresPerKm;
    if (v[3] >= kAbsentClock) {
      e.clock = std::numeric_limits<double>::quiet_NaN();
      ++data_.stats.absentClocks;
    } else {
      e.clock = v[3] * kSecondsPerMicrosecond;
    }
    e.clockRate = std::numeric_limits<double>::quiet_NaN();
    std::vector<Sp3Entry>& entries = data_.epochs.back().entries;
    entries.push_back(e);
    lastPosition_ = &entries.back();
    ++data_.stats.entries;
    satellites_[system].insert(prn);
  }

  void readVelocity(int number, std::string const& line) {
    char system = ' ';
    int prn = 0;
    double v[4];
    Sp3Entry* const target = lastPosition_;
    lastPosition_ = nullptr;
    if (!readValues(number, line, system, prn, v)) return;
    if (target == nullptr) return;  // its position was absent or unreadable
    if (target->system != system || target->prn != prn) {
      skipMalformed(number, "velocity of a satellite without a position just before it");
      return;
    }
    target->hasVelocity = true;
    for (int k = 0; k < 3; ++k) target->velocity[k] = v[k] * kMetresPerSecondPerDmPerSecond;
    target->clockRate =
        v[3] >= kAbsentClock ? std::numeric_limits<double>::quiet_NaN() : v[3] * kClockRateUnit;
  }

  void finish() {
    for (auto const& entry : satellites_)
      data_.stats.satellites[entry.first] = static_cast<int>(entry.second.size());
    int const lastLine = static_cast<int>(lines_.size());
    if (data_.epochs.empty()) warn(lastLine, "no epochs");
    if (!data_.stats.sawEof) warn(lastLine, "no EOF line: the file may be truncated");
  }

  void skipMalformed(int line, std::string const& reason) {
    ++data_.stats.skippedMalformed;
    warn(line, reason);
  }

  void skipUnknown(int line, std::string const& reason) {
    ++data_.stats.skippedUnknown;
    warn(line, reason);
  }

  void warn(int line, std::string const& reason) {
    ++data_.stats.warningCount;
    if (data_.stats.warnings.size() < 100) data_.stats.warnings.push_back(locate(data_.file, line, reason));
  }

  std::vector<std::string> lines_;
  Sp3Data data_;
  std::map<char, std::set<int>> satellites_;
  bool inBody_ = false;
  bool inEpoch_ = false;
  bool sawTimeSystem_ = false;
  Sp3Entry* lastPosition_ = nullptr;
};

}  // namespace

Sp3Data parseSp3(std::string const& text, std::string const& name) {
  return Reader(text, name).run();
}

Sp3Data readSp3(std::string const& path) {
  return parseSp3(readTextFile(path), path);
}

std::vector<Sp3Sample> satelliteTrack(Sp3Data const& data, char system, int prn) {
  std::vector<Sp3Sample> track;
  for (Sp3Epoch const& epoch : data.epochs) {
    for (Sp3Entry const& e : epoch.entries) {
      if (e.system != system || e.prn != prn) continue;
      Sp3Sample s;
      s.time = epoch.time;
      std::copy(e.position, e.position + 3, s.position);
      s.clock = e.clock;
      s.hasVelocity = e.hasVelocity;
      std::copy(e.velocity, e.velocity + 3, s.velocity);
      track.push_back(s);
    }
  }
  std::stable_sort(track.begin(), track.end(),
                   [](Sp3Sample const& a, Sp3Sample const& b) { return a.time < b.time; });
  return track;
}

}  // namespace host
}  // namespace zarn
