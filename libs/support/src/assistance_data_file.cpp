// The assistance-data container: quantised per-satellite records behind a
// checksum and the container cipher.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <sstream>
#include <utility>

#include "zarn/support/assistance_data.hpp"
#include "zarn/support/encryption.hpp"
#include "zarn/support/log.hpp"
#include "zarn/support/serialization.hpp"
#include "zarn/support/time_conversion.hpp"
#include "zarn/support/utility.hpp"

namespace zarn {
namespace support {

namespace {

constexpr char kTag[] = "AssistanceDataFile";
constexpr char kScaleTag[] = "zarn::support::scaleDoubleToUint()";

constexpr std::uint32_t kFileIdBase = 0x61640000;  // "ad" in the high half
constexpr std::uint32_t kFileIdMask = 0xFFFF0000;
constexpr std::uint32_t kGnssMask = 0x0000FFFF;
constexpr std::uint32_t kLastWritableGnss = core::BEIDOU;
constexpr std::uint32_t kFirstUnknownGnss = core::GALILEO + 1;
constexpr std::uint32_t kMaxCount = 255;  // counts are single bytes
constexpr std::size_t kChecksumBytes = 4;
constexpr std::size_t kBlockBytes = 8;  // cipher block

// A quantised field: `bits` wide, value * scale over [lo, hi].
struct Quantum {
  double scale;
  double lo;
  double hi;
  unsigned bits;
};

constexpr Quantum kSrp0{1.0, 0.0, 3.0, 16};
constexpr Quantum kSrp1{1.0, -3.0, 3.0, 16};
constexpr Quantum kAntPhase{1.0, -5.0, 5.0, 16};  // m
constexpr Quantum kError0{1e9, 0.0, 1.0, 16};     // p0 up to 1e-9
constexpr Quantum kError1{1000.0, 0.0, 1.0, 16};  // p1 up to 1e-3
constexpr Quantum kError2{1.0, -10.0, 10.0, 8};   // p2
constexpr Quantum kClockDrift{1000.0, -1.0, 1.0, 32};
constexpr Quantum kGpsClock2{1e9, -4.0, 4.0, 32};
constexpr Quantum kGpsClock3{1e17, -1.0, 1.0, 16};
constexpr Quantum kGlonassClock4{1000.0, -2.0, 2.0, 32};
constexpr Quantum kGlonassClock5{1e10, -1.0, 1.0, 16};
constexpr Quantum kBeidouClock2{1e9, -2.0, 2.0, 32};
constexpr Quantum kBeidouClock3{1e17, -2.0, 2.0, 16};

std::uint32_t maxFormat(core::GnssType gnss) {
  return gnss == core::BEIDOU ? 1 : 4;
}

bool formatAccepted(core::GnssType gnss, std::uint32_t format) {
  return (gnss == core::GPS || gnss == core::GLONASS || gnss == core::BEIDOU) && format <= maxFormat(gnss);
}

// Old GPS and GLONASS files checksum a range that stops four bytes early.
bool legacyChecksum(core::GnssType gnss, std::uint32_t format) {
  return (gnss == core::GPS && format < 2) || (gnss == core::GLONASS && format < 3);
}

std::uint32_t crcAfterHeader(BinaryData const& b) {
  return b.size() > kChecksumBytes ? computeCrc32(b.data() + kChecksumBytes, b.data() + b.size()) : 0;
}

std::uint32_t legacyCrc(BinaryData const& b) {
  return b.size() > 2 * kChecksumBytes
             ? computeCrc32(b.data() + kChecksumBytes, b.data() + b.size() - kChecksumBytes)
             : 0;
}

void putQuantum(BinaryData& out, double value, Quantum const& q, unsigned int& count) {
  std::uint32_t stored = 0;
  scaleDoubleToUint(value, q.scale, q.lo, q.hi, q.bits, stored);  // the clamped value is stored regardless
  if (q.bits == 8)
    serialize(static_cast<unsigned char>(stored), out, count);
  else if (q.bits == 16)
    serialize(static_cast<unsigned short>(stored), out, count);
  else
    serialize(static_cast<unsigned int>(stored), out, count);
}

bool getQuantum(BinaryData const& in, unsigned int& index, Quantum const& q, double& value) {
  std::uint32_t stored = 0;
  bool ok = false;
  if (q.bits == 8) {
    unsigned char v = 0;
    ok = deserialize(in, index, v);
    stored = v;
  } else if (q.bits == 16) {
    unsigned short v = 0;
    ok = deserialize(in, index, v);
    stored = v;
  } else {
    ok = deserialize(in, index, stored);
  }
  if (ok) value = scaleUintToDouble(stored, q.scale, q.lo, q.hi, q.bits);
  return ok;
}

// A clock epoch kept as whole seconds in 32 bits; out-of-range values saturate.
std::uint32_t truncate32(double value) {
  if (!(value > 0.0)) return 0;
  if (value >= 4294967295.0) return 0xFFFFFFFFu;
  return static_cast<std::uint32_t>(value);
}

void putClock(BinaryData& out, core::GnssType gnss, std::uint32_t format, ClockModelParams const& c,
              unsigned int& count) {
  if (gnss == core::GPS) {
    if (format == 4) {
      serialize(static_cast<unsigned int>(truncate32(c[0])), out, count);
      putQuantum(out, c[1], kClockDrift, count);
    }
    if (format >= 3) {
      putQuantum(out, c[2], kGpsClock2, count);
      putQuantum(out, c[3], kGpsClock3, count);
    }
  } else if (gnss == core::GLONASS) {
    if (format == 4) {
      serialize(static_cast<unsigned int>(truncate32(c[0])), out, count);
      putQuantum(out, c[4], kGlonassClock4, count);
    }
    if (format >= 2) putQuantum(out, c[5], kGlonassClock5, count);
  } else {
    serialize(static_cast<unsigned int>(truncate32(c[0])), out, count);
    putQuantum(out, c[1], kClockDrift, count);
    putQuantum(out, c[2], kBeidouClock2, count);
    putQuantum(out, c[3], kBeidouClock3, count);
  }
}

bool getEpoch(BinaryData const& in, unsigned int& index, double& value) {
  unsigned int raw = 0;
  if (!deserialize(in, index, raw)) return false;
  value = raw;
  return true;
}

bool getClock(BinaryData const& in, unsigned int& index, core::GnssType gnss, std::uint32_t format,
              ClockModelParams& c) {
  c.fill(0.0);
  if (gnss == core::GPS) {
    if (format == 4 && !(getEpoch(in, index, c[0]) && getQuantum(in, index, kClockDrift, c[1]))) return false;
    if (format >= 3 && !(getQuantum(in, index, kGpsClock2, c[2]) && getQuantum(in, index, kGpsClock3, c[3])))
      return false;
    return true;
  }
  if (gnss == core::GLONASS) {
    if (format == 4 && !(getEpoch(in, index, c[0]) && getQuantum(in, index, kGlonassClock4, c[4])))
      return false;
    if (format >= 2 && !getQuantum(in, index, kGlonassClock5, c[5])) return false;
    return true;
  }
  return getEpoch(in, index, c[0]) && getQuantum(in, index, kClockDrift, c[1]) &&
         getQuantum(in, index, kBeidouClock2, c[2]) && getQuantum(in, index, kBeidouClock3, c[3]);
}

void putItem(BinaryData& out, core::GnssType gnss, std::uint32_t format, AssistanceData const& a,
             unsigned int& count) {
  serialize(static_cast<unsigned short>(a.svId), out, count);
  serialize(static_cast<unsigned int>(a.svFlags), out, count);
  serialize(static_cast<unsigned short>(a.maxPredictionLength), out, count);
  putQuantum(out, a.srp[0], kSrp0, count);
  putQuantum(out, a.srp[1], kSrp1, count);
  for (double x : a.antPhase) putQuantum(out, x, kAntPhase, count);
  putQuantum(out, a.errorParams[0], kError0, count);
  putQuantum(out, a.errorParams[1], kError1, count);
  putQuantum(out, a.errorParams[2], kError2, count);
  putClock(out, gnss, format, a.clockModelParams, count);
  std::size_t const outages = std::min<std::size_t>(a.outages.size(), kMaxCount);
  serialize(static_cast<unsigned char>(outages), out, count);
  for (std::size_t i = 0; i < outages; ++i) {
    // GPS day/second packing for every constellation, as older readers expect.
    serialize(static_cast<unsigned int>(gpsToSlp(a.outages[i].start)), out, count);
    serialize(static_cast<unsigned int>(gpsToSlp(a.outages[i].stop)), out, count);
  }
}

bool getItem(BinaryData const& in, unsigned int& index, core::GnssType gnss, std::uint32_t format,
             AssistanceData& a) {
  a = makeZeroAssistanceData();
  a.gnssType = gnss;
  unsigned int flags = 0;
  unsigned char outages = 0;
  if (!(deserialize(in, index, a.svId) && deserialize(in, index, flags) &&
        deserialize(in, index, a.maxPredictionLength) && getQuantum(in, index, kSrp0, a.srp[0]) &&
        getQuantum(in, index, kSrp1, a.srp[1])))
    return false;
  a.svFlags = flags;
  for (double& x : a.antPhase)
    if (!getQuantum(in, index, kAntPhase, x)) return false;
  if (!(getQuantum(in, index, kError0, a.errorParams[0]) &&
        getQuantum(in, index, kError1, a.errorParams[1]) &&
        getQuantum(in, index, kError2, a.errorParams[2]) &&
        getClock(in, index, gnss, format, a.clockModelParams) && deserialize(in, index, outages)))
    return false;
  a.outages.resize(outages);
  for (TocPeriod& p : a.outages) {
    unsigned int start = 0;
    unsigned int stop = 0;
    if (!(deserialize(in, index, start) && deserialize(in, index, stop))) return false;
    p.start = slpToGps(start);
    p.stop = slpToGps(stop);
  }
  return true;
}

std::string tocText(core::Toc const& t) {
  std::ostringstream s;
  s << "[TOC](" << t.first << "," << t.second << "," << t.third << ")";
  return s.str();
}

}  // namespace

bool scaleDoubleToUint(double value, double scale, double lo, double hi, unsigned bits,
                       std::uint32_t& stored) {
  double v = value * scale;
  bool inRange = true;
  if (v > hi) {
    log::printFormatted(log::ERROR, kScaleTag, "value %.15g too large, max is %.15g", value, hi / scale);
    v = hi;
    inRange = false;
  } else if (!(v >= lo)) {
    log::printFormatted(log::ERROR, kScaleTag, "value %.15g too small, min is %.15g", value, lo / scale);
    v = lo;
    inRange = false;
  }
  double const top = std::ldexp(1.0, static_cast<int>(bits)) - 1.0;
  stored = static_cast<std::uint32_t>(std::floor((v - lo) / (hi - lo) * top + 0.5));
  return inRange;
}

double scaleUintToDouble(std::uint32_t stored, double scale, double lo, double hi, unsigned bits) {
  double const top = std::ldexp(1.0, static_cast<int>(bits)) - 1.0;
  return (lo + stored * (hi - lo) / top) / scale;
}

struct AssistanceDataFile::Details {
  std::uint32_t crc = 0;
  std::uint32_t identifier = 0;
  std::uint32_t format = 0;
  std::uint32_t creationTime = 0;
  std::vector<LeapInfo> leapSeconds;
  std::vector<AssistanceData> items;

  core::GnssType gnss() const { return static_cast<core::GnssType>(identifier & kGnssMask); }
};

AssistanceDataFile::AssistanceDataFile(core::GnssType gnss) : details_(new Details) {
  details_->identifier = createFileId(gnss);
  details_->format = currentFormat(gnss);
}

AssistanceDataFile::AssistanceDataFile(AssistanceDataFile const& other)
    : details_(new Details(*other.details_)) {}

AssistanceDataFile& AssistanceDataFile::operator=(AssistanceDataFile const& other) {
  if (this != &other) {
    Details* copy = new Details(*other.details_);
    delete details_;
    details_ = copy;
  }
  return *this;
}

AssistanceDataFile::~AssistanceDataFile() {
  delete details_;
}

void AssistanceDataFile::swap(AssistanceDataFile& other) {
  std::swap(details_, other.details_);
}

void AssistanceDataFile::clear() {
  AssistanceDataFile empty(gnss());
  swap(empty);
}

std::uint32_t AssistanceDataFile::identifier() const {
  return details_->identifier;
}
core::GnssType AssistanceDataFile::gnss() const {
  return details_->gnss();
}
std::uint32_t AssistanceDataFile::format() const {
  return details_->format;
}
std::uint32_t AssistanceDataFile::creationTime() const {
  return details_->creationTime;
}
void AssistanceDataFile::setCreationTime(unsigned creationTime) {
  details_->creationTime = creationTime;
}
std::vector<LeapInfo> const& AssistanceDataFile::leapSeconds() const {
  return details_->leapSeconds;
}
void AssistanceDataFile::setLeapSeconds(std::vector<LeapInfo> const& leapSeconds) {
  details_->leapSeconds = leapSeconds;
}
std::uint32_t AssistanceDataFile::crc() const {
  return details_->crc;
}

std::uint32_t AssistanceDataFile::createFileId(core::GnssType gnss) {
  return kFileIdBase | (static_cast<std::uint32_t>(gnss) & kGnssMask);
}

std::uint32_t AssistanceDataFile::currentFormat(core::GnssType gnss) {
  switch (gnss) {
    case core::GPS:
      return 4;
    case core::GLONASS:
      return 2;
    default:
      return 1;
  }
}

std::uint32_t AssistanceDataFile::currentVersion(core::GnssType gnss) {
  return currentFormat(gnss);
}

bool AssistanceDataFile::contains(unsigned short svId) const {
  auto const& items = details_->items;
  return std::any_of(items.begin(), items.end(), [svId](AssistanceData const& a) { return a.svId == svId; });
}

std::size_t AssistanceDataFile::count() const {
  return details_->items.size();
}

void AssistanceDataFile::storeAssistance(unsigned short svId, AssistanceData const& data) {
  auto& items = details_->items;
  auto const at = std::lower_bound(items.begin(), items.end(), svId,
                                   [](AssistanceData const& a, unsigned short id) { return a.svId < id; });
  AssistanceData record = data;
  record.svId = svId;
  if (at != items.end() && at->svId == svId)
    *at = std::move(record);
  else
    items.insert(at, std::move(record));
}

AssistanceData AssistanceDataFile::assistance(unsigned short svId) const {
  for (AssistanceData const& a : details_->items)
    if (a.svId == svId) return a;
  return defaultAssistance(gnss(), svId);
}

AssistanceData AssistanceDataFile::getAssistanceData(core::GnssType type, unsigned short svId) const {
  return type == gnss() ? assistance(svId) : defaultAssistance(type, svId);
}

std::vector<AssistanceData> const& AssistanceDataFile::items() const {
  return details_->items;
}

bool AssistanceDataFile::serialize(BinaryData& out, std::uint32_t format) {
  Details& d = *details_;
  core::GnssType const gnss = d.gnss();
  if (format == 0) format = d.format;
  if (static_cast<std::uint32_t>(gnss) > kLastWritableGnss || !formatAccepted(gnss, format)) {
    log::printFormatted(log::ERROR, kTag, "%s: Unsupported format %d for GNSS %d/%s.", __PRETTY_FUNCTION__,
                        static_cast<int>(format), static_cast<int>(gnss), toString(gnss).c_str());
    return false;
  }
  d.format = format;
  unsigned int count = 0;
  support::serialize(static_cast<unsigned int>(d.identifier), out, count);
  support::serialize(static_cast<unsigned int>(format), out, count);
  support::serialize(static_cast<unsigned int>(d.creationTime), out, count);
  std::size_t const leaps = std::min<std::size_t>(d.leapSeconds.size(), kMaxCount);
  support::serialize(static_cast<unsigned char>(leaps), out, count);
  for (std::size_t i = 0; i < leaps; ++i) {
    support::serialize(static_cast<unsigned int>(d.leapSeconds[i].time & 0xFFFFFFFFu), out, count);
    support::serialize(static_cast<signed char>(d.leapSeconds[i].leapSeconds), out, count);
  }
  std::size_t const items = std::min<std::size_t>(d.items.size(), kMaxCount);
  support::serialize(static_cast<unsigned char>(items), out, count);
  for (std::size_t i = 0; i < items; ++i) putItem(out, gnss, format, d.items[i], count);
  return true;
}

core::Status AssistanceDataFile::deserialize(BinaryData const& in, std::size_t& index) {
  if (index > in.size()) {
    log::printFormatted(log::ERROR, kTag, "%s: Failed to deserialize header.", __PRETTY_FUNCTION__);
    return core::CORRUPTED_DATA;
  }
  Details fresh;
  unsigned int at = static_cast<unsigned int>(index);
  if (!(support::deserialize(in, at, fresh.identifier) && support::deserialize(in, at, fresh.format) &&
        support::deserialize(in, at, fresh.creationTime))) {
    log::printFormatted(log::ERROR, kTag, "%s: Failed to deserialize header.", __PRETTY_FUNCTION__);
    return core::CORRUPTED_DATA;
  }
  core::GnssType const gnss = fresh.gnss();
  if ((fresh.identifier & kFileIdMask) != kFileIdBase ||
      static_cast<std::uint32_t>(gnss) >= kFirstUnknownGnss) {
    log::printFormatted(log::ERROR, kTag, "%s: Invalid file ID 0x%x.", __PRETTY_FUNCTION__, fresh.identifier);
    return core::CORRUPTED_DATA;
  }
  if (gnss == core::GALILEO) {
    log::printFormatted(log::ERROR, kTag, "%s: Unsupported GNSS %d.", __PRETTY_FUNCTION__,
                        static_cast<int>(gnss));
    return core::INVALID_GNSS_TYPE;
  }
  if (!formatAccepted(gnss, fresh.format)) {
    log::printFormatted(log::ERROR, kTag, "%s: Unsupported format.", __PRETTY_FUNCTION__);
    return core::UNSUPPORTED_VERSION;
  }
  bool ok = true;
  unsigned char leaps = 0;
  ok = support::deserialize(in, at, leaps);
  fresh.leapSeconds.resize(ok ? leaps : 0);
  for (LeapInfo& leap : fresh.leapSeconds) {
    unsigned int time = 0;
    ok = ok && support::deserialize(in, at, time) && support::deserialize(in, at, leap.leapSeconds);
    leap.time = time;
  }
  unsigned char items = 0;
  ok = ok && support::deserialize(in, at, items);
  fresh.items.resize(ok ? items : 0);
  for (AssistanceData& item : fresh.items) ok = ok && getItem(in, at, gnss, fresh.format, item);
  if (!ok) {
    log::printFormatted(log::ERROR, kTag, "%s: Failed to deserialize majority of data.", __PRETTY_FUNCTION__);
    return core::CORRUPTED_DATA;
  }
  fresh.crc = details_->crc;
  std::swap(*details_, fresh);
  index = at;
  return core::OK;
}

bool AssistanceDataFile::serializeData(BinaryData& out) {
  return serialize(out, 0);
}

core::Status AssistanceDataFile::deserializeData(BinaryData const& in, std::size_t& index) {
  return deserialize(in, index);
}

bool AssistanceDataFile::save(BinaryData& out, std::uint32_t format) {
  BinaryData plain;
  int at = 0;
  appendUint32(plain, 0);  // checksum placeholder
  if (plain.size() != kChecksumBytes) {
    log::printFormatted(log::ERROR, kTag, "%s: Failed to start serialization.", __PRETTY_FUNCTION__);
    return false;
  }
  if (!serialize(plain, format)) {
    log::printFormatted(log::ERROR, kTag, "%s: Serialization failed.", __PRETTY_FUNCTION__);
    return false;
  }
  plain.resize((plain.size() + kBlockBytes - 1) / kBlockBytes * kBlockBytes, 0);
  std::uint32_t const checksum =
      legacyChecksum(gnss(), details_->format) ? legacyCrc(plain) : crcAfterHeader(plain);
  replaceUint32(plain, checksum, at);
  if (!encrypt(plain, out)) {
    log::printFormatted(log::ERROR, kTag, "%s: Encryption failed.", __PRETTY_FUNCTION__);
    return false;
  }
  details_->crc = checksum;
  return true;
}

core::Status AssistanceDataFile::load(BinaryData const& in) {
  if (in.empty()) {
    log::printFormatted(log::ERROR, kTag, "%s: Cannot load data from an empty container.",
                        __PRETTY_FUNCTION__);
    return core::CORRUPTED_DATA;
  }
  BinaryData plain;
  if (!decrypt(in, plain)) {
    log::printFormatted(log::ERROR, kTag, "%s: Failed to decrypt data.", __PRETTY_FUNCTION__);
    return core::CORRUPTED_DATA;
  }
  unsigned int at = 0;
  std::uint32_t stored = 0;
  if (!support::deserialize(plain, at, stored)) {
    log::printFormatted(log::ERROR, kTag, "%s: Failed to deserialize CRC.", __PRETTY_FUNCTION__);
    return core::CORRUPTED_DATA;
  }
  if (crcAfterHeader(plain) != stored) {
    std::uint32_t const legacy = legacyCrc(plain);
    if (legacy != stored) {
      log::printFormatted(log::ERROR, kTag, "%s: Also legacy CRC failed (0x%x != 0x%x).", __PRETTY_FUNCTION__,
                          stored, legacy);
      return core::CORRUPTED_DATA;
    }
  }
  std::size_t index = kChecksumBytes;
  core::Status const status = deserialize(plain, index);
  if (status != core::OK) {
    log::printFormatted(log::ERROR, kTag, "%s: Deserialization failed.", __PRETTY_FUNCTION__);
    return status;
  }
  details_->crc = stored;
  return core::OK;
}

bool AssistanceDataFile::validData() const {
  Details const& d = *details_;
  bool valid = true;
  core::GnssType const gnss = d.gnss();
  if ((d.identifier & kFileIdMask) != kFileIdBase || !formatAccepted(gnss, maxFormat(gnss))) {
    log::printFormatted(log::ERROR, kTag, "validData: invalid header fileId %#x", d.identifier);
    valid = false;
  }
  for (std::size_t i = 0; i < d.items.size(); ++i) {
    AssistanceData const& a = d.items[i];
    int const item = static_cast<int>(i);
    int const type = static_cast<int>(a.gnssType);
    if (a.gnssType != gnss) {
      log::printFormatted(log::ERROR, kTag, "validData: item %d, invalid gnssType %d", item, type);
      valid = false;
    }
    if (!validSvId(a.gnssType, a.svId)) {
      log::printFormatted(log::ERROR, kTag, "validData: item %d, gnss %d: invalid svId %d", item, type,
                          a.svId);
      valid = false;
    }
    // Flags are a non-negative 32-bit value; the sign bit marks a damaged record.
    if (static_cast<std::int32_t>(a.svFlags) < 0) {
      log::printFormatted(log::ERROR, kTag, "validData: item %d, gnss %d, svId %d: invalid svFlags %d", item,
                          type, a.svId, static_cast<int>(a.svFlags));
      valid = false;
    }
    for (std::size_t k = 0; k < a.outages.size(); ++k) {
      TocPeriod const& p = a.outages[k];
      if (!(p.start < p.stop)) {
        log::printFormatted(
            log::ERROR, kTag,
            "validData: item %d, gnss %d, svId %d, outage %d: start time %s not smaller than stop "
            "time %s",
            item, type, a.svId, static_cast<int>(k), tocText(p.start).c_str(), tocText(p.stop).c_str());
        valid = false;
      }
    }
  }
  return valid;
}

std::string AssistanceDataFile::differenceString(AssistanceDataFile const& other, bool all) const {
  Details const& a = *details_;
  Details const& b = *other.details_;
  std::ostringstream s;
  bool found = false;
  auto note = [&](std::string const& what) {
    if (found && !all) return;
    s << what << "\n";
    found = true;
  };
  auto field = [&](char const* name, std::uint64_t x, std::uint64_t y) {
    if (x != y) note(std::string(name) + ": " + std::to_string(x) + " != " + std::to_string(y));
  };
  field("crc", a.crc, b.crc);
  field("identifier", a.identifier, b.identifier);
  field("format", a.format, b.format);
  field("creationTime", a.creationTime, b.creationTime);
  if (a.leapSeconds != b.leapSeconds) note("leapSeconds differ");
  field("item count", a.items.size(), b.items.size());
  for (std::size_t i = 0; i < std::min(a.items.size(), b.items.size()); ++i)
    if (a.items[i] != b.items[i])
      note("item " + std::to_string(i) + " (svId " + std::to_string(a.items[i].svId) + ") differs");
  return s.str();
}

bool AssistanceDataFile::operator==(AssistanceDataFile const& other) const {
  Details const& a = *details_;
  Details const& b = *other.details_;
  return a.crc == b.crc && a.identifier == b.identifier && a.format == b.format &&
         a.creationTime == b.creationTime && a.leapSeconds == b.leapSeconds && a.items == b.items;
}

}  // namespace support
}  // namespace zarn
