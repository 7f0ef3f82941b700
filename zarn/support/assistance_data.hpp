// Per-satellite model parameters that prediction needs beyond the broadcast
// ephemeris: radiation-pressure coefficients, antenna phase-centre offset,
// prediction-error and clock models, and outage periods.
#ifndef ZARN_SUPPORT_ASSISTANCE_DATA_HPP
#define ZARN_SUPPORT_ASSISTANCE_DATA_HPP

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "zarn/core/records.hpp"
#include "zarn/support/export.hpp"
#include "zarn/support/math.hpp"

namespace zarn {
namespace support {

// Solar-radiation-pressure coefficients (scale, y-bias).
struct Srp : std::array<double, 2> {};
// Antenna phase-centre offset x, y, z in the yaw-steering body frame, metres.
struct AntennaPhase : std::array<double, 3> {};
// Prediction-error model p0 t^2 + p1 t + p2.
struct PredictionErrorParams : std::array<double, 3> {};
// Clock model c0..c5.
struct ClockModelParams : std::array<double, 6> {};

struct TocPeriod {
  core::Toc start;
  core::Toc stop;
  std::string label;
};

inline bool operator==(TocPeriod const& a, TocPeriod const& b) {
  return a.start == b.start && a.stop == b.stop && a.label == b.label;
}

struct AssistanceData {
  core::GnssType gnssType = static_cast<core::GnssType>(0);
  std::uint16_t svId = 0;
  std::uint32_t svFlags = 0;
  std::uint16_t maxPredictionLength = 0;
  Srp srp{};
  AntennaPhase antPhase{};
  PredictionErrorParams errorParams{};
  ClockModelParams clockModelParams{};
  std::vector<TocPeriod> outages;
};

inline bool operator==(AssistanceData const& a, AssistanceData const& b) {
  return a.gnssType == b.gnssType && a.svId == b.svId && a.svFlags == b.svFlags &&
         a.maxPredictionLength == b.maxPredictionLength && a.srp == b.srp && a.antPhase == b.antPhase &&
         a.errorParams == b.errorParams && a.clockModelParams == b.clockModelParams && a.outages == b.outages;
}
inline bool operator!=(AssistanceData const& a, AssistanceData const& b) {
  return !(a == b);
}

// Every number zero, no outages.
ZARN_EXPORT AssistanceData makeZeroAssistanceData();

// Quantisation of a stored parameter: value * scale, clamped to [lo, hi]
// (logged under "zarn::support::scaleDoubleToUint()" when clamped), mapped
// linearly onto 0 .. 2^bits - 1 and rounded half away from zero. Returns
// whether no clamping happened; `stored` holds the clamped value either way.
// A NaN counts as too small.
ZARN_EXPORT bool scaleDoubleToUint(double value, double scale, double lo, double hi, unsigned bits,
                                   std::uint32_t& stored);
// The inverse: (lo + stored * (hi - lo) / (2^bits - 1)) / scale.
ZARN_EXPORT double scaleUintToDouble(std::uint32_t stored, double scale, double lo, double hi, unsigned bits);

// The per-constellation store of assistance records and a leap-second table,
// saved as a compact container: quantised parameters, a CRC-32 (or, for old
// GPS and GLONASS formats, the legacy checksum), zero padding to whole 8-byte
// blocks, and triple-DES encipherment with the key of this build.
//
// Container (big-endian): checksum u32, file ID u32 (0x61640000 | GnssType),
// format u32, creation time u32, leap count u8 and per entry the low 32 bits
// of its time and the signed value (5 bytes), item count u8 and the items,
// then zero padding. Per item: svId u16, svFlags u32, maxPredictionLength u16,
// srp[0] and srp[1] (16-bit over 0..3 and -3..3), the antenna offset x, y, z
// (16-bit over -5..5 m), errorParams p0 (16-bit over 0..1e-9), p1 (16-bit
// over 0..1e-3), p2 (8-bit over -10..10), the clock block of the constellation
// and format, the outage count u8 and per outage its start and stop as packed
// GPS day/second words. Counts saturate at 255. Formats: GPS 0-4 (current 4),
// GLONASS 0-4 (current 2), BeiDou 0-1 (current 1).
class ZARN_EXPORT AssistanceDataFile {
 public:
  // Empty file of the constellation in its current format.
  explicit AssistanceDataFile(core::GnssType gnss);
  AssistanceDataFile(AssistanceDataFile const& other);
  AssistanceDataFile& operator=(AssistanceDataFile const& other);
  ~AssistanceDataFile();
  void swap(AssistanceDataFile& other);
  // Back to an empty file of the same constellation in its current format.
  void clear();

  std::uint32_t identifier() const;
  core::GnssType gnss() const;
  std::uint32_t format() const;
  std::uint32_t creationTime() const;
  void setCreationTime(unsigned creationTime);
  std::vector<LeapInfo> const& leapSeconds() const;
  void setLeapSeconds(std::vector<LeapInfo> const& leapSeconds);
  // Checksum of the container last saved or loaded (0 before).
  std::uint32_t crc() const;

  static std::uint32_t createFileId(core::GnssType gnss);
  static std::uint32_t currentFormat(core::GnssType gnss);
  static std::uint32_t currentVersion(core::GnssType gnss);

  // Built-in parameters of a satellite without stored data: GPS 1-32, GLONASS
  // 1-24, BeiDou 1-14 (phase-centre offsets, radiation-pressure scale, error
  // model and prediction limit of the satellite flying that number; no clock
  // model, no outages). An invalid number gives the zero record; a valid
  // Galileo number the zero record with gnssType and svId set.
  static AssistanceData defaultAssistance(core::GnssType type, unsigned short svId);

  bool contains(unsigned short svId) const;
  std::size_t count() const;
  // Stores (or replaces) the record of svId; records are kept in svId order.
  void storeAssistance(unsigned short svId, AssistanceData const& data);
  // The stored record of svId, else the built-in one.
  AssistanceData assistance(unsigned short svId) const;
  // assistance(svId) for this file's constellation, the built-in record for another.
  AssistanceData getAssistanceData(core::GnssType type, unsigned short svId) const;
  std::vector<AssistanceData> const& items() const;

  // The enciphered container in `format` (0: the format in use). Returns
  // false, with `out` untouched, when the format is not supported or a step
  // fails (logged under "AssistanceDataFile").
  bool save(BinaryData& out, std::uint32_t format);
  // Reads a container. OK on success; CORRUPTED_DATA for empty, damaged,
  // truncated or wrongly keyed input, INVALID_GNSS_TYPE for Galileo,
  // UNSUPPORTED_VERSION for a format the constellation does not have. The file
  // changes only on success.
  core::Status load(BinaryData const& in);

  // The plain body (file ID to the last item) without checksum and padding.
  // Records the format written.
  bool serialize(BinaryData& out, std::uint32_t format);
  core::Status deserialize(BinaryData const& in, std::size_t& index);
  bool serializeData(BinaryData& out);
  core::Status deserializeData(BinaryData const& in, std::size_t& index);

  // Checks the header, every item's constellation, svId and flags and that
  // each outage starts before it stops; logs every fault found.
  bool validData() const;
  // The fields that differ from `other`, one per line; empty when none. With
  // `all` false only the first difference.
  std::string differenceString(AssistanceDataFile const& other, bool all) const;
  bool operator==(AssistanceDataFile const& other) const;
  bool operator!=(AssistanceDataFile const& other) const { return !(*this == other); }

 private:
  struct Details;
  Details* details_;
};

// Moves a satellite position (m, size 3, Earth-rotating frame of date at GPS
// time t) from the centre of mass to the antenna phase centre. The offset is
// given in the body frame of nominal yaw steering: z towards the Earth's
// centre, y along z x (Sun - satellite), x completing the triad (towards the
// sunlit side). leapSeconds = GPS - UTC, for the Earth rotation. Undefined
// when Sun, satellite and Earth are aligned.
ZARN_EXPORT Vec addApcOffset(Vec const& position, AntennaPhase const& antPhase, double t, int leapSeconds);
// The inverse move: antenna phase centre to centre of mass.
ZARN_EXPORT Vec removeApcOffset(Vec const& position, AntennaPhase const& antPhase, double t, int leapSeconds);

}  // namespace support
}  // namespace zarn

#endif
