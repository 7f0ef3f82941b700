#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "fixed_fields.hpp"
#include "zarn/host/rinex_nav.hpp"
#include "zarn/support/broadcast_interface.hpp"
#include "zarn/support/time_conversion.hpp"
#include "zarn/support/utility.hpp"

namespace zarn {
namespace host {

namespace {

namespace bc = support::broadcast;

using detail::blank;
using detail::column;
using detail::parseDouble;
using detail::parseInt;
using detail::trim;

constexpr std::size_t kLabelColumn = 60;
constexpr std::size_t kFieldWidth = 19;
// Column of the first value on the epoch line and on continuation lines.
constexpr std::size_t kEpochValuesV2 = 22;
constexpr std::size_t kEpochValuesV3 = 23;
constexpr std::size_t kContinuationValuesV2 = 3;
constexpr std::size_t kContinuationValuesV3 = 4;
constexpr int kValuesPerEpochLine = 3;
constexpr int kValuesPerLine = 4;
// Two-digit RINEX 2 years below this are 20xx, the others 19xx.
constexpr int kTwoDigitYearPivot = 80;
// RINEX marks unknown values of optional fields with 0.999999999999E+09.
constexpr double kUnknownValue = 0.9e9;

// Record layouts: the number of lines and which values are optional.
struct Layout {
  int minLines;
  int maxLines;
  std::vector<int> optional;  // value slots that may be blank
};

// GPS LNAV and BeiDou D1/D2: 8 lines, 31 slots. Optional: codes on L2 / spare
// (20), L2 P flag / spare (22), fit interval (GPS 28), spares (29, 30).
Layout const kGpsLayout{8, 8, {20, 22, 28, 29, 30}};
Layout const kBeidouLayout{8, 8, {20, 22, 29, 30}};
// GLONASS FDMA: 4 lines, a fifth in RINEX 3.05 and 4 (slots 15..18) may be blank.
Layout const kGlonassLayout{4, 5, {15, 16, 17, 18}};

struct Line {
  int number;  // 1-based line number in the file
  std::string const* text;
};

struct Fields {
  char system = ' ';
  int prn = 0;
  CalendarTime epoch;
  std::vector<double> values;
};

class RecordError {
 public:
  RecordError(int line, std::string reason) : line_(line), reason_(std::move(reason)) {}
  int line() const { return line_; }
  std::string const& reason() const { return reason_; }

 private:
  int line_;
  std::string reason_;
};

bool headerLabelIs(std::string const& line, char const* label) {
  return trim(column(line, kLabelColumn, std::string::npos)).rfind(label, 0) == 0;
}

int parseYear(long value, bool twoDigit) {
  if (!twoDigit) return static_cast<int>(value);
  return static_cast<int>(value < kTwoDigitYearPivot ? value + 2000 : value + 1900);
}

// Satellite number of a "Snn" field (system letter then two digits, blanks allowed).
bool parsePrn(std::string const& text, int& prn) {
  long value = 0;
  if (!parseInt(text, value) || value < 1 || value > 99) return false;
  prn = static_cast<int>(value);
  return true;
}

// One value field; blank fields are allowed only in optional slots. A line that
// ends inside a non-blank field has been cut and is an error.
double readValue(Line const& line, std::size_t begin, int slot, std::vector<int> const& optional) {
  std::string const& text = *line.text;
  std::string const field = column(text, begin, kFieldWidth);
  bool const isOptional = std::find(optional.begin(), optional.end(), slot) != optional.end();
  if (blank(field)) {
    if (isOptional) return 0.0;
    throw RecordError(line.number, "missing value in column " + std::to_string(begin + 1));
  }
  if (text.size() < begin + kFieldWidth) {
    throw RecordError(line.number, "line ends inside the value at column " + std::to_string(begin + 1));
  }
  double value = 0.0;
  if (!parseDouble(field, value)) {
    throw RecordError(line.number, "bad number '" + trim(field) + "' in column " + std::to_string(begin + 1));
  }
  return value;
}

// The epoch line and values of a record laid out as RINEX 2 or 3 prescribe.
Fields readFields(std::vector<Line> const& lines, bool version2, char system, Layout const& layout) {
  if (static_cast<int>(lines.size()) < layout.minLines) {
    throw RecordError(lines.back().number, "record ends after " + std::to_string(lines.size()) + " of " +
                                               std::to_string(layout.minLines) + " lines");
  }
  if (static_cast<int>(lines.size()) > layout.maxLines) {
    throw RecordError(lines[layout.maxLines].number, "record has " + std::to_string(lines.size()) +
                                                         " lines, at most " +
                                                         std::to_string(layout.maxLines) + " expected");
  }
  Fields f;
  f.system = system;
  std::string const& first = *lines[0].text;
  // Epoch: RINEX 2 "I2,1X,I2.2,4(1X,I2),F5.1"; RINEX 3 "A1,I2.2,1X,I4,5(1X,I2.2)".
  struct Column {
    std::size_t begin, width;
  };
  Column const prnColumn = version2 ? Column{0, 2} : Column{1, 2};
  Column const dateColumns[5] = {
      version2 ? Column{3, 2} : Column{4, 4}, version2 ? Column{6, 2} : Column{9, 2},
      version2 ? Column{9, 2} : Column{12, 2}, version2 ? Column{12, 2} : Column{15, 2},
      version2 ? Column{15, 2} : Column{18, 2}};
  Column const secondColumn = version2 ? Column{17, 5} : Column{21, 2};
  if (!parsePrn(column(first, prnColumn.begin, prnColumn.width), f.prn)) {
    throw RecordError(lines[0].number, "bad satellite number '" + column(first, 0, 3) + "'");
  }
  long date[5] = {0, 0, 0, 0, 0};
  for (int i = 0; i < 5; ++i) {
    if (!parseInt(column(first, dateColumns[i].begin, dateColumns[i].width), date[i])) {
      throw RecordError(lines[0].number, "bad epoch '" + column(first, 0, version2 ? 22 : 23) + "'");
    }
  }
  f.epoch.year = parseYear(date[0], version2);
  f.epoch.month = static_cast<int>(date[1]);
  f.epoch.day = static_cast<int>(date[2]);
  f.epoch.hour = static_cast<int>(date[3]);
  f.epoch.minute = static_cast<int>(date[4]);
  if (!parseDouble(column(first, secondColumn.begin, secondColumn.width), f.epoch.second) ||
      !validCalendar(f.epoch)) {
    throw RecordError(lines[0].number, "bad epoch '" + column(first, 0, version2 ? 22 : 23) + "'");
  }
  std::size_t const epochValues = version2 ? kEpochValuesV2 : kEpochValuesV3;
  std::size_t const continuationValues = version2 ? kContinuationValuesV2 : kContinuationValuesV3;
  int slot = 0;
  for (int i = 0; i < kValuesPerEpochLine; ++i, ++slot) {
    f.values.push_back(readValue(lines[0], epochValues + i * kFieldWidth, slot, layout.optional));
  }
  for (int l = 1; l < layout.maxLines; ++l) {
    for (int i = 0; i < kValuesPerLine; ++i, ++slot) {
      if (l < static_cast<int>(lines.size())) {
        f.values.push_back(readValue(lines[l], continuationValues + i * kFieldWidth, slot, layout.optional));
      } else {
        f.values.push_back(0.0);
      }
    }
  }
  return f;
}

// The transmitted integer of a value, refused when the record member cannot hold it.
template <class T>
bool scaled(double value, double lsb, T& out, char const* name, std::string& why) {
  std::int64_t const q = bc::encode(value, lsb);
  if (!(q >= std::numeric_limits<T>::lowest() && q <= std::numeric_limits<T>::max())) {
    why = std::string(name) + " out of range";
    return false;
  }
  out = static_cast<T>(q);
  return true;
}
template <class T>
bool scaled(double value, bc::Field const& field, T& out, char const* name, std::string& why) {
  return scaled(value, field.lsb, out, name, why);
}

template <class T>
bool whole(double value, T& out, char const* name, std::string& why) {
  return scaled(value, 1.0, out, name, why);
}

bool svIdOf(int prn, std::uint16_t& svId, std::string& why) {
  if (prn < 1 || prn > std::numeric_limits<std::uint16_t>::max()) {
    why = "bad satellite number";
    return false;
  }
  svId = static_cast<std::uint16_t>(prn);
  return true;
}

bool toeInWeek(double toe, std::string& why) {
  if (toe >= 0.0 && toe <= kSecondsPerWeek) return true;
  why = "toe outside the week";
  return false;
}

// The orbit words of a GPS LNAV or BeiDou D1/D2 record, sqrtA to Cis.
template <class Raw, class Record>
bool scaledOrbit(Raw const& raw, Record& e, std::string& why) {
  bc::OrbitFields const& f = bc::orbitFields(e);
  return scaled(raw.sqrtA, f[0], e.sqrtA, "sqrtA", why) && scaled(raw.e, f[1], e.e, "e", why) &&
         scaled(raw.i0, f[2], e.i0, "i0", why) && scaled(raw.omega0, f[3], e.omega0, "OMEGA0", why) &&
         scaled(raw.omega, f[4], e.omega, "omega", why) && scaled(raw.m0, f[5], e.m0, "M0", why) &&
         scaled(raw.deltaN, f[6], e.deltaN, "deltaN", why) &&
         scaled(raw.omegaDot, f[8], e.omegaDot, "OMEGA DOT", why) &&
         scaled(raw.iDot, f[7], e.iDot, "IDOT", why) && scaled(raw.cuc, f[9], e.cuc, "Cuc", why) &&
         scaled(raw.cus, f[10], e.cus, "Cus", why) && scaled(raw.crc, f[11], e.crc, "Crc", why) &&
         scaled(raw.crs, f[12], e.crs, "Crs", why) && scaled(raw.cic, f[13], e.cic, "Cic", why) &&
         scaled(raw.cis, f[14], e.cis, "Cis", why);
}

// The values of a record in file order.
template <std::size_t N>
void assign(double* const (&targets)[N], std::vector<double> const& values) {
  for (std::size_t i = 0; i < N; ++i) *targets[i] = values[i];
}

bool weekOf(double value, double& week, std::string& why) {
  if (!(value >= 0.0 && value < 1e5 && value == std::floor(value))) {
    why = "bad week number";
    return false;
  }
  week = value;
  return true;
}

class Reader {
 public:
  Reader(std::string const& text, std::string const& name) : lines_(splitLines(text)) { data_.file = name; }

  NavData run() {
    bool anyText = std::any_of(lines_.begin(), lines_.end(), [](std::string const& l) { return !blank(l); });
    if (!anyText) throw FormatError(data_.file, 0, "empty file");
    std::size_t const body = readHeader();
    readBody(body);
    for (auto const& entry : satellites_)
      data_.stats.satellites[entry.first] = static_cast<int>(entry.second.size());
    return std::move(data_);
  }

 private:
  std::size_t readHeader() {
    std::string const& first = lines_[0];
    if (!headerLabelIs(first, "RINEX VERSION / TYPE")) {
      throw FormatError(data_.file, 1, "not a RINEX file: the first line is not RINEX VERSION / TYPE");
    }
    NavHeader& h = data_.header;
    if (!parseDouble(column(first, 0, 9), h.version)) {
      throw FormatError(data_.file, 1, "bad RINEX version '" + trim(column(first, 0, 9)) + "'");
    }
    if (h.version < 2.0 || h.version >= 5.0) {
      throw FormatError(data_.file, 1, "unsupported RINEX version " + trim(column(first, 0, 9)));
    }
    char const type = first.size() > 20 ? first[20] : ' ';
    if (h.version < 3.0) {
      // RINEX 2 has one file type per system.
      switch (type) {
        case 'N':
          h.system = 'G';
          break;
        case 'G':
          h.system = 'R';
          break;
        case 'H':
          h.system = 'S';
          break;
        case 'E':
          h.system = 'E';
          break;
        default:
          throw FormatError(data_.file, 1,
                            std::string("not a navigation file (RINEX 2 type '") + type + "')");
      }
    } else {
      if (type != 'N') {
        throw FormatError(data_.file, 1, std::string("not a navigation file (type '") + type + "')");
      }
      char const system = first.size() > 40 ? first[40] : ' ';
      h.system = system == ' ' ? 'M' : system;
    }
    for (std::size_t i = 1; i < lines_.size(); ++i) {
      std::string const& line = lines_[i];
      if (headerLabelIs(line, "END OF HEADER")) return i + 1;
      if (headerLabelIs(line, "LEAP SECONDS")) {
        long leap = 0;
        if (!parseInt(column(line, 0, 6), leap) || leap < 0 || leap > 100) {
          warn(static_cast<int>(i + 1), "bad LEAP SECONDS line ignored");
        } else {
          h.leapSeconds = static_cast<int>(leap);
        }
      } else if (headerLabelIs(line, "COMMENT")) {
        std::string comment = column(line, 0, kLabelColumn);
        while (!comment.empty() && comment.back() == ' ') comment.pop_back();
        readFitEnd(comment);
        h.comments.push_back(comment);
      }
    }
    throw FormatError(data_.file, static_cast<int>(lines_.size()), "header has no END OF HEADER line");
  }

  // "FIT END GPST YYYY MM DD HH MM SS.SSS", as the writer puts it.
  void readFitEnd(std::string const& comment) {
    static std::string const kTag = "FIT END GPST ";
    if (comment.rfind(kTag, 0) != 0) return;
    std::string const rest = comment.substr(kTag.size());
    long parts[5] = {0, 0, 0, 0, 0};
    std::size_t const starts[5] = {0, 5, 8, 11, 14};
    std::size_t const widths[5] = {4, 2, 2, 2, 2};
    for (int i = 0; i < 5; ++i) {
      if (!parseInt(column(rest, starts[i], widths[i]), parts[i])) return;
    }
    CalendarTime c;
    c.year = static_cast<int>(parts[0]);
    c.month = static_cast<int>(parts[1]);
    c.day = static_cast<int>(parts[2]);
    c.hour = static_cast<int>(parts[3]);
    c.minute = static_cast<int>(parts[4]);
    if (!parseDouble(column(rest, 17, std::string::npos), c.second) || !validCalendar(c)) return;
    data_.header.hasFitEnd = true;
    data_.header.fitEnd = gpsSecondsFromCalendar(c);
  }

  void readBody(std::size_t begin) {
    double const version = data_.header.version;
    bool const version2 = version < 3.0;
    bool const version4 = version >= 4.0;
    std::vector<Line> block;
    for (std::size_t i = begin; i < lines_.size(); ++i) {
      std::string const& text = lines_[i];
      if (blank(text)) continue;
      bool starts = false;
      if (version4) {
        starts = text[0] == '>';
      } else if (version2) {
        starts = !(detail::isBlank(text[0]) && (text.size() < 2 || detail::isBlank(text[1])));
      } else {
        starts = !detail::isBlank(text[0]);
      }
      if (starts) {
        if (!block.empty()) readBlock(block, version2, version4);
        block.clear();
      } else if (block.empty()) {
        skipMalformed(static_cast<int>(i + 1), "continuation line without a record");
        continue;
      }
      block.push_back(Line{static_cast<int>(i + 1), &text});
    }
    if (!block.empty()) readBlock(block, version2, version4);
  }

  void readBlock(std::vector<Line> const& block, bool version2, bool version4) {
    if (version4) {
      readVersion4Block(block);
      return;
    }
    char const system = version2 ? data_.header.system : (*block[0].text)[0];
    readRecord(block, version2, system, "");
  }

  // "> EPH G01 LNAV": record type in columns 3-5, satellite 7-9, message 11-14.
  void readVersion4Block(std::vector<Line> const& block) {
    std::string const& head = *block[0].text;
    std::string const type = trim(column(head, 2, 3));
    if (type != "EPH") {
      if (type == "STO" || type == "EOP" || type == "ION") {
        ++data_.stats.skippedOther;
        ++data_.stats.skippedByKind[type];
      } else {
        skipMalformed(block[0].number, "unknown record type '" + type + "'");
      }
      return;
    }
    std::string const satellite = column(head, 6, 3);
    std::string const message = trim(column(head, 10, 4));
    std::vector<Line> const body(block.begin() + 1, block.end());
    if (body.empty()) {
      skipMalformed(block[0].number, "EPH record without data lines");
      return;
    }
    if (column(*body[0].text, 0, 3) != satellite) {
      skipMalformed(body[0].number, "satellite '" + column(*body[0].text, 0, 3) +
                                        "' differs from the record head '" + satellite + "'");
      return;
    }
    readRecord(body, false, satellite.empty() ? ' ' : satellite[0], message);
  }

  void readRecord(std::vector<Line> const& block, bool version2, char system, std::string const& message) {
    std::string const& first = *block[0].text;
    static std::string const kSystems = "GRCEJSI";
    if (kSystems.find(system) == std::string::npos) {
      skipMalformed(block[0].number, std::string("unknown satellite system '") + system + "'");
      return;
    }
    ++data_.stats.records[system];
    int prn = 0;
    std::string const prnText = version2 ? column(first, 0, 2) : column(first, 1, 2);
    if (parsePrn(prnText, prn)) satellites_[system].insert(prn);

    bool const gps = system == 'G' && (message.empty() || message == "LNAV");
    bool const beidou = system == 'C' && (message.empty() || message == "D1" || message == "D2");
    bool const glonass = system == 'R' && (message.empty() || message == "FDMA");
    if (!gps && !beidou && !glonass) {
      ++data_.stats.skippedUnsupported;
      ++data_.stats
            .skippedByKind[message.empty() ? std::string(1, system) : std::string(1, system) + " " + message];
      return;
    }
    try {
      if (gps) {
        convert(block, version2, system, kGpsLayout, gpsRaw, encodeGps, data_.gps);
      } else if (beidou) {
        convert(block, version2, system, kBeidouLayout, beidouRaw, encodeBeidou, data_.beidou).messageType =
            message;
      } else {
        convert(block, version2, system, kGlonassLayout, glonassRaw, encodeGlonass, data_.glonass);
      }
      ++data_.stats.converted;
    } catch (RecordError const& e) {
      skipMalformed(e.line(), e.reason());
    }
  }

  // Reads, scales and keeps one record; a failure throws RecordError.
  template <class Record, class Raw, class Eph>
  static Record& convert(std::vector<Line> const& block, bool version2, char system, Layout const& layout,
                         Raw (*raw)(Fields const&), bool (*encode)(Raw const&, int, Eph&, std::string&),
                         std::vector<Record>& out) {
    Fields const f = readFields(block, version2, system, layout);
    Record r;
    r.line = block[0].number;
    r.raw = raw(f);
    std::string why;
    if (!encode(r.raw, f.prn, r.eph, why)) throw RecordError(block[0].number, why);
    out.push_back(r);
    return out.back();
  }

  static GpsNavRaw gpsRaw(Fields const& f) {
    GpsNavRaw r;
    std::vector<double> const& v = f.values;
    r.tocCalendar = f.epoch;
    r.toc = gpsSecondsFromCalendar(f.epoch);
    double* const targets[] = {
        &r.af0,        &r.af1,     &r.af2,      &r.iode,   &r.crs,      &r.deltaN, &r.m0,
        &r.cuc,        &r.e,       &r.cus,      &r.sqrtA,  &r.toe,      &r.cic,    &r.omega0,
        &r.cis,        &r.i0,      &r.crc,      &r.omega,  &r.omegaDot, &r.iDot,   &r.codesOnL2,
        &r.week,       &r.l2pFlag, &r.accuracy, &r.health, &r.tgd,      &r.iodc,   &r.transmissionTime,
        &r.fitInterval};
    assign(targets, v);
    return r;
  }

  static BeidouNavRaw beidouRaw(Fields const& f) {
    BeidouNavRaw r;
    std::vector<double> const& v = f.values;
    r.tocCalendar = f.epoch;
    r.toc = bdtSecondsFromCalendar(f.epoch) + kBdtEpochInGpsSeconds;
    double spare = 0;
    double* const targets[] = {
        &r.a0,   &r.a1,  &r.a2,       &r.aode,  &r.crs,      &r.deltaN, &r.m0,
        &r.cuc,  &r.e,   &r.cus,      &r.sqrtA, &r.toe,      &r.cic,    &r.omega0,
        &r.cis,  &r.i0,  &r.crc,      &r.omega, &r.omegaDot, &r.iDot,   &spare,
        &r.week, &spare, &r.accuracy, &r.satH1, &r.tgd1,     &r.tgd2,   &r.transmissionTime,
        &r.aodc};
    assign(targets, v);
    return r;
  }

  static GlonassNavRaw glonassRaw(Fields const& f) {
    GlonassNavRaw r;
    std::vector<double> const& v = f.values;
    r.tocCalendar = f.epoch;
    r.toc = gpsSecondsFromUtc(f.epoch);
    double* const targets[] = {&r.minusTauN,
                               &r.gammaN,
                               &r.messageFrameTime,
                               &r.x,
                               &r.vx,
                               &r.ax,
                               &r.health,
                               &r.y,
                               &r.vy,
                               &r.ay,
                               &r.frequencyNumber,
                               &r.z,
                               &r.vz,
                               &r.az,
                               &r.age,
                               &r.statusFlags,
                               &r.groupDelayL1L2,
                               &r.urai,
                               &r.healthFlags};
    assign(targets, v);
    return r;
  }

  void skipMalformed(int line, std::string const& reason) {
    ++data_.stats.skippedMalformed;
    warn(line, reason);
  }

  void warn(int line, std::string const& reason) {
    ++data_.stats.warningCount;
    if (data_.stats.warnings.size() < kMaxWarnings)
      data_.stats.warnings.push_back(locate(data_.file, line, reason));
  }

  std::vector<std::string> lines_;
  NavData data_;
  std::map<char, std::set<int>> satellites_;
};

}  // namespace

bool encodeGps(GpsNavRaw const& raw, int prn, core::GpsEphemeris& eph, std::string& why) {
  core::GpsEphemeris e;
  if (!svIdOf(prn, e.svId, why)) return false;
  if (!(raw.toc >= 0.0)) {
    why = "epoch before the GPS epoch";
    return false;
  }
  double week = 0;
  if (!weekOf(raw.week, week, why)) return false;
  // Some RINEX 2 writers give the 10-bit week; take the full week nearest the epoch.
  double const tocWeek = std::floor(raw.toc / kSecondsPerWeek);
  if (week < kWeeksPerGpsCycle && tocWeek >= kWeeksPerGpsCycle) {
    week += kWeeksPerGpsCycle * std::round((tocWeek - week) / kWeeksPerGpsCycle);
  }
  if (!toeInWeek(raw.toe, why)) return false;
  e.toe = support::gpsSecsToGps(week * kSecondsPerWeek + raw.toe);
  e.toc = support::gpsSecsToGps(raw.toc);
  e.uraIndex = static_cast<std::int8_t>(support::metersToUraIndex(raw.accuracy, core::GPS));
  bool const ok =
      whole(raw.iodc, e.iodc, "IODC", why) && whole(raw.health, e.health, "health", why) &&
      whole(raw.iode, e.iode, "IODE", why) && scaledOrbit(raw, e, why) &&
      scaled(raw.af0, bc::kGpsAf0, e.af0, "af0", why) && scaled(raw.af1, bc::kGpsAf1, e.af1, "af1", why) &&
      scaled(raw.af2, bc::kGpsAf2, e.af2, "af2", why) && scaled(raw.tgd, bc::kGpsTgd, e.tgd, "TGD", why);
  if (!ok) return false;
  eph = e;
  return true;
}

bool encodeBeidou(BeidouNavRaw const& raw, int prn, core::BeidouEphemeris& eph, std::string& why) {
  core::BeidouEphemeris e;
  if (!svIdOf(prn, e.svId, why)) return false;
  double const tocBdt = raw.toc - kBdtEpochInGpsSeconds;
  if (!(tocBdt >= 0.0)) {
    why = "epoch before the BeiDou epoch";
    return false;
  }
  double week = 0;
  if (!weekOf(raw.week, week, why)) return false;
  if (!toeInWeek(raw.toe, why)) return false;
  e.toe = support::secsToBeidou(week * kSecondsPerWeek + raw.toe);
  e.toc = support::secsToBeidou(tocBdt);
  e.uraIndex = static_cast<std::int8_t>(support::metersToUraIndex(raw.accuracy, core::BEIDOU));
  bool const ok = whole(raw.aodc, e.aodc, "AODC", why) && whole(raw.aodc, e.iodc, "AODC", why) &&
                  whole(raw.satH1, e.health, "SatH1", why) && whole(raw.aode, e.aode, "AODE", why) &&
                  scaledOrbit(raw, e, why) && scaled(raw.a0, bc::kBeidouA0, e.a0, "a0", why) &&
                  scaled(raw.a1, bc::kBeidouA1, e.a1, "a1", why) &&
                  scaled(raw.a2, bc::kBeidouA2, e.a2, "a2", why) &&
                  scaled(raw.tgd1, bc::kBeidouTgd, e.tgd1, "TGD1", why) &&
                  scaled(raw.tgd2, bc::kBeidouTgd, e.tgd2, "TGD2", why);
  if (!ok) return false;
  eph = e;
  return true;
}

bool encodeGlonass(GlonassNavRaw const& raw, int slot, core::GlonassEphemeris& eph, std::string& why) {
  core::GlonassEphemeris e;
  if (!svIdOf(slot, e.svId, why)) return false;
  if (!validCalendar(raw.tocCalendar) || !glonassTocFromUtc(raw.tocCalendar, e.time)) {
    why = "epoch before the GLONASS epoch";
    return false;
  }
  e.tb = static_cast<std::int16_t>(e.time.third / static_cast<std::uint32_t>(bc::kGlonassTb.lsb));
  // The file gives -tauN (RINEX 3.05 Table A10).
  double const delay = std::fabs(raw.groupDelayL1L2) >= kUnknownValue ? 0.0 : raw.groupDelayL1L2;
  bool const ok = whole(raw.frequencyNumber, e.frequencyNumber, "frequency number", why) &&
                  whole(raw.health, e.health, "health", why) && whole(raw.age, e.age, "age", why) &&
                  scaled(raw.x, bc::kGlonassPosition, e.x, "X", why) &&
                  scaled(raw.y, bc::kGlonassPosition, e.y, "Y", why) &&
                  scaled(raw.z, bc::kGlonassPosition, e.z, "Z", why) &&
                  scaled(raw.vx, bc::kGlonassVelocity, e.vx, "VX", why) &&
                  scaled(raw.vy, bc::kGlonassVelocity, e.vy, "VY", why) &&
                  scaled(raw.vz, bc::kGlonassVelocity, e.vz, "VZ", why) &&
                  scaled(raw.ax, bc::kGlonassAcceleration, e.ax, "AX", why) &&
                  scaled(raw.ay, bc::kGlonassAcceleration, e.ay, "AY", why) &&
                  scaled(raw.az, bc::kGlonassAcceleration, e.az, "AZ", why) &&
                  scaled(-raw.minusTauN, bc::kGlonassTau, e.tauN, "tauN", why) &&
                  scaled(raw.gammaN, bc::kGlonassGamma, e.gammaN, "gammaN", why) &&
                  scaled(delay, bc::kGlonassDeltaTau, e.deltaTauN, "delta tauN", why);
  if (!ok) return false;
  eph = e;
  return true;
}

NavData parseRinexNav(std::string const& text, std::string const& name) {
  return Reader(text, name).run();
}

NavData readRinexNav(std::string const& path) {
  return parseRinexNav(readTextFile(path), path);
}

}  // namespace host
}  // namespace zarn
