// The assistance-data container against bytes laid out by hand: header,
// quantised fields, clock blocks per constellation and format, checksums and
// the cipher; damaged containers are refused without touching the file.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <tuple>
#include <vector>

#include "support/test_support.hpp"
#include "zarn/support/assistance_data.hpp"
#include "zarn/support/encryption.hpp"

using namespace zarn::support;
namespace core = zarn::core;
namespace test = zarn::test;
using core::BEIDOU;
using core::GLONASS;
using core::GnssType;
using core::GPS;
using Bytes = BinaryData;

// Big-endian writers.
auto const u8 = [](Bytes& b, unsigned v) { b.push_back(static_cast<unsigned char>(v)); };
auto const u16 = [](Bytes& b, unsigned v) { u8(b, v >> 8), u8(b, v); };
auto const u32 = [](Bytes& b, std::uint32_t v) { u16(b, v >> 16), u16(b, v & 0xFFFF); };
auto const crc = [](Bytes const& b, std::size_t from, std::size_t to) {
  return computeCrc32(b.data() + from, b.data() + to);
};

// Plain container from a body: checksum placeholder, padding, checksum.
Bytes withChecksum(Bytes body, bool legacy) {
  Bytes b((body.size() + 4 + 7) / 8 * 8, 0);
  std::copy(body.begin(), body.end(), b.begin() + 4);
  std::uint32_t const c = legacy ? crc(b, 4, b.size() - 4) : crc(b, 4, b.size());
  for (int i = 0; i < 4; ++i) b[i] = static_cast<unsigned char>(c >> (24 - 8 * i));
  return b;
}

// The container enciphered (forward) or deciphered.
Bytes crypt(bool forward, Bytes const& in) {
  Bytes out;
  EXPECT_TRUE(forward ? encrypt(in, out) : decrypt(in, out));
  return out;
}

// Outage day/second words: days since 1980-01-06 in bits 31..17, seconds of day below.
constexpr std::uint32_t slp(std::uint32_t days, std::uint32_t secondOfDay) {
  return days << 17 | secondOfDay;
}

// The sample satellite, with values chosen off the rounding midpoints.
AssistanceData sample(GnssType gnss) {
  AssistanceData a = makeZeroAssistanceData();
  a.gnssType = gnss;
  a.svId = 5;
  a.svFlags = 0x0A0B0C0D;
  a.maxPredictionLength = 336;
  a.srp = {{1.5, -1.5}};
  a.antPhase = {{0.0, 5.0, -5.0}};
  a.errorParams = {{0.6e-9, 0.2e-3, 2.5}};
  a.clockModelParams = {{123456.7, 0.0, 1e-9, 0.0, 0.5e-3, 0.5e-10}};
  // GPS week 1924 (cycle 1, week 900): days 13468 + 2 and + 3.
  a.outages.push_back({core::Toc{1, 900, 2 * 86400 + 3600}, core::Toc{1, 900, 3 * 86400}, "dropped label"});
  return a;
}

// Hand quantisation: srp 1.5 on [0,3] -> 32767.5 -> 32768; -1.5 on [-3,3] ->
// 16383.75 -> 16384; antenna 0, 5, -5 on [-5,5] -> 32768, 65535, 0; p0 0.6 on
// [0,1] -> 39321; p1 0.2 -> 13107; p2 12.5/20 * 255 = 159.375 -> 159.
void itemHead(Bytes& b) {
  u16(b, 5), u32(b, 0x0A0B0C0D);
  for (unsigned v : {336, 32768, 16384, 32768, 65535, 0, 39321, 13107}) u16(b, v);
  u8(b, 159);
}

struct ClockCase {
  GnssType gnss;
  std::uint32_t format;
  Bytes clockBytes;
  std::array<double, 6> readBack;  // clock parameters as the file returns them
  bool legacy;
};

double q(std::uint32_t stored, double lo, double hi, unsigned bits, double scale) {
  return (lo + stored * (hi - lo) / (std::ldexp(1.0, bits) - 1.0)) / scale;
}

std::vector<ClockCase> clockCases() {
  // t32(123456.7) = 0x0001E240. c1 = 0 on [-1,1]/32 bits -> 2147483647.5 -> 0x80000000.
  // GPS c2 = 1 on [-4,4] -> 5/8 * (2^32-1) = 2684354559.375 -> 0x9FFFFFFF; c3 = 0 -> 0x8000.
  // GLONASS c4 = 0.5 on [-2,2]/32 -> 0.625 * (2^32-1) -> 0x9FFFFFFF; c5 = 0.5 on [-1,1]/16 -> 49151.25 ->
  // 0xBFFF. BeiDou c2 = 1 on [-2,2] -> 0.75 * (2^32-1) = 3221225471.25 -> 0xBFFFFFFF; c3 = 0 on [-2,2] ->
  // 0x8000.
  double const c1 = q(0x80000000u, -1, 1, 32, 1000);
  double const gps2 = q(0x9FFFFFFFu, -4, 4, 32, 1e9);
  double const gps3 = q(0x8000, -1, 1, 16, 1e17);
  double const glo4 = q(0x9FFFFFFFu, -2, 2, 32, 1000);
  double const glo5 = q(0xBFFF, -1, 1, 16, 1e10);
  double const bds2 = q(0xBFFFFFFFu, -2, 2, 32, 1e9);
  double const bds3 = q(0x8000, -2, 2, 16, 1e17);
  Bytes const t32 = {0x00, 0x01, 0xE2, 0x40}, c1Zero = {0x80, 0, 0, 0},
              gps23 = {0x9F, 0xFF, 0xFF, 0xFF, 0x80, 0x00};
  Bytes const glo45 = {0x9F, 0xFF, 0xFF, 0xFF, 0xBF, 0xFF}, bds23 = {0xBF, 0xFF, 0xFF, 0xFF, 0x80, 0x00};
  auto cat = [](std::initializer_list<Bytes> parts) {
    Bytes b;
    for (Bytes const& p : parts) b.insert(b.end(), p.begin(), p.end());
    return b;
  };
  return {
      {GPS, 4, cat({t32, c1Zero, gps23}), {123456.0, c1, gps2, gps3, 0, 0}, false},
      {GPS, 3, gps23, {0, 0, gps2, gps3, 0, 0}, false},
      {GPS, 2, {}, {0, 0, 0, 0, 0, 0}, false},
      {GPS, 1, {}, {0, 0, 0, 0, 0, 0}, true},
      {GLONASS, 4, cat({t32, glo45}), {123456.0, 0, 0, 0, glo4, glo5}, false},
      {GLONASS, 3, {0xBF, 0xFF}, {0, 0, 0, 0, 0, glo5}, false},
      {GLONASS, 2, {0xBF, 0xFF}, {0, 0, 0, 0, 0, glo5}, true},
      {BEIDOU, 1, cat({t32, c1Zero, bds23}), {123456.0, c1, bds2, bds3, 0, 0}, false},
      {BEIDOU, 0, cat({t32, c1Zero, bds23}), {123456.0, c1, bds2, bds3, 0, 0}, false},
  };
}

Bytes handBody(GnssType gnss, std::uint32_t format, Bytes const& clockBytes) {
  Bytes b;
  u32(b, 0x61640000u | gnss);
  u32(b, format);
  u32(b, 0x01020304);
  u8(b, 1);            // one leap entry
  u32(b, 0x23456789);  // low 32 bits of 0x1_2345_6789
  u8(b, 18);
  u8(b, 1);  // one item
  itemHead(b);
  b.insert(b.end(), clockBytes.begin(), clockBytes.end());
  u8(b, 1), u32(b, slp(13470, 3600)), u32(b, slp(13471, 0));  // one outage
  return b;
}

AssistanceDataFile sampleFile(GnssType gnss) {
  AssistanceDataFile file(gnss);
  file.setCreationTime(0x01020304);
  file.setLeapSeconds({LeapInfo{0x123456789ULL, 18}});
  file.storeAssistance(5, sample(gnss));
  return file;
}

// Saving lays the container out byte for byte; loading the hand-laid bytes
// reads the stored quantisation steps back (outage labels are not stored).
TEST(AssistanceDataFile, SaveAndLoadHandLaidContainers) {
  for (ClockCase const& c : clockCases()) {
    SCOPED_TRACE(std::to_string(c.gnss) + "/" + std::to_string(c.format));
    AssistanceDataFile file = sampleFile(c.gnss), loaded(GPS);
    Bytes saved;
    ASSERT_TRUE(file.save(saved, c.format));
    if (c.format == 0) {  // 0 asks for the format in use
      EXPECT_EQ(crypt(false, saved)[11], AssistanceDataFile::currentFormat(c.gnss));
      continue;
    }
    Bytes const plain = withChecksum(handBody(c.gnss, c.format, c.clockBytes), c.legacy);
    std::uint32_t const crc = std::uint32_t{plain[0]} << 24 | plain[1] << 16 | plain[2] << 8 | plain[3];
    EXPECT_TRUE(saved.size() % 8 == 0 && crypt(false, saved) == plain && file.format() == c.format &&
                file.crc() == crc);
    // The header read back writes the hand-laid bytes again.
    Bytes again;
    ASSERT_EQ(loaded.load(crypt(true, plain)), core::OK);
    EXPECT_TRUE(loaded.gnss() == c.gnss && loaded.save(again, c.format) && again == saved);
    AssistanceData expected = sample(c.gnss);
    expected.srp = {{32768 * 3.0 / 65535, -3.0 + 16384 * 6.0 / 65535}};
    expected.antPhase[0] = -5.0 + 32768 * 10.0 / 65535;
    expected.errorParams = {{39321 / 65535.0 / 1e9, 13107 / 65535.0 / 1000, -10.0 + 159 * 20.0 / 255}};
    expected.outages[0].label = "";
    for (int i = 0; i < 6; ++i) expected.clockModelParams[i] = c.readBack[i];
    EXPECT_EQ(loaded.assistance(5), expected);
  }
}

TEST(AssistanceDataFile, CountsSaturateAt255) {
  AssistanceDataFile file(GPS);
  file.setLeapSeconds(std::vector<LeapInfo>(300, LeapInfo{1000, 1}));
  AssistanceData a = AssistanceDataFile::defaultAssistance(GPS, 1);
  a.outages.assign(300, TocPeriod{core::Toc{1, 900, 0}, core::Toc{1, 900, 60}, ""});
  for (unsigned short sv = 1; sv <= 300; ++sv) file.storeAssistance(sv, a);
  Bytes saved;
  ASSERT_TRUE(file.save(saved, 2));  // 2: no clock block
  Bytes const plain = crypt(false, saved);
  EXPECT_TRUE(plain[16] == 255 && plain[17 + 255 * 5] == 255);
  // 18 + 255 * 5 + 255 items of (24 + 255 * 8) bytes, padded.
  std::size_t const body = 18 + 255 * 5 + 255 * (24 + 255 * 8);
  EXPECT_EQ(plain.size(), (body + 7) / 8 * 8);
  AssistanceDataFile back(GPS);
  ASSERT_EQ(back.load(saved), core::OK);
  EXPECT_TRUE(back.leapSeconds().size() == 255u && back.count() == 255u &&
              back.assistance(255).outages.size() == 255u);
}

TEST(ScaleDoubleToUint, RoundsHalfAwayFromZeroAndReportsClamping) {
  // Rows: value, scale, lo, hi, bits, stored, the report of a value out of range.
  std::tuple<double, double, double, double, unsigned, std::uint32_t, char const*> const cases[] = {
      {1.5, 1, 0, 3, 16, 32768, ""},  // 32767.5 rounds up
      {0.0, 1, -1, 1, 8, 128, ""},    // 127.5 rounds up
      {3.0, 1, 0, 3, 16, 65535, ""},  // the top exactly
      {-3.0, 1, -3, 3, 16, 0, ""},    // the bottom exactly
      {1.0, 1000, -1, 1, 32, 0xFFFFFFFFu, "scaleDoubleToUint(): value 1 too large, max is 0.001\n"},
      {-2e-9, 1e9, 0, 1, 16, 0, "value -2e-09 too small, min is 0\n"},
      {NAN, 1, 0, 1, 8, 0, "value nan too small, min is 0\n"},
  };
  for (auto const& [value, scale, lo, hi, bits, expected, report] : cases) {
    std::uint32_t stored = 7;
    bool inRange = false;
    std::string const log =
        test::capturedStderr([&] { inRange = scaleDoubleToUint(value, scale, lo, hi, bits, stored); });
    EXPECT_TRUE(stored == expected && inRange == (*report == 0)) << value;
    EXPECT_TRUE(*report == 0 ? log.empty() : log.find(report) != std::string::npos) << value << log;
  }
}

// A container that fails to load names why and leaves the file as it was.
TEST(AssistanceDataFile, DamagedContainersAreRefusedWithoutChange) {
  Bytes const good = withChecksum(handBody(GPS, 4, clockCases()[0].clockBytes), false);
  auto cipher = [](Bytes const& plain) { return crypt(true, plain); };
  auto headerOnly = [](std::uint32_t id, std::uint32_t format) {
    Bytes b;
    u32(b, id), u32(b, format), u32(b, 0), u8(b, 0), u8(b, 0);  // no leap entries, no items
    return withChecksum(b, false);
  };
  Bytes flipped = cipher(good);
  flipped[9] ^= 0x01;
  Bytes oddLength = cipher(good);
  oddLength.pop_back();
  Bytes truncatedBody = good;  // the checksum agrees but the item ends early
  truncatedBody.resize(40);
  truncatedBody = withChecksum(Bytes(truncatedBody.begin() + 4, truncatedBody.end()), false);

  std::tuple<char const*, Bytes, core::Status, char const*> const cases[] = {
      {"empty", {}, core::CORRUPTED_DATA, "Cannot load data from an empty container."},
      {"length not a multiple of 8", oddLength, core::CORRUPTED_DATA, "Failed to decrypt data."},
      {"flipped bit", flipped, core::CORRUPTED_DATA, "Also legacy CRC failed"},
      {"body cut short", cipher(truncatedBody), core::CORRUPTED_DATA,
       "Failed to deserialize majority of data."},
      {"foreign file ID", cipher(headerOnly(0x12340001, 4)), core::CORRUPTED_DATA,
       "Invalid file ID 0x12340001."},
      {"Galileo", cipher(headerOnly(0x61640004, 1)), core::INVALID_GNSS_TYPE, "Unsupported GNSS 4."},
      {"GPS format 5", cipher(headerOnly(0x61640001, 5)), core::UNSUPPORTED_VERSION, "Unsupported format."},
      {"header cut short", cipher(withChecksum({0x61, 0x64}, false)), core::CORRUPTED_DATA,
       "Failed to deserialize header."},
  };
  AssistanceDataFile const before = sampleFile(GLONASS);
  for (auto const& [name, in, expected, message] : cases) {
    SCOPED_TRACE(name);
    AssistanceDataFile file = before;
    core::Status status = core::OK;
    std::string const log = test::capturedStderr([&] { status = file.load(in); });
    EXPECT_EQ(status, expected);
    EXPECT_TRUE(log.find("ERROR/AssistanceDataFile: ") != std::string::npos &&
                log.find(message) != std::string::npos)
        << log;
    EXPECT_TRUE(file == before) << file.differenceString(before, true);
  }
}

TEST(AssistanceDataFile, UnsupportedFormatsAreNotWritten) {
  std::tuple<GnssType, std::uint32_t, char const*> const cases[] = {
      {GPS, 5, "Unsupported format 5 for GNSS 1/GPS."},
      {BEIDOU, 2, "Unsupported format 2 for GNSS 3/BEIDOU."},
      {core::GALILEO, 1, "Unsupported format 1 for GNSS 4/GALILEO."},
  };
  for (auto const& [gnss, format, message] : cases) {
    AssistanceDataFile file(gnss);
    Bytes out = {1, 2, 3};
    std::string const log = test::capturedStderr([&] { EXPECT_FALSE(file.save(out, format)); });
    EXPECT_NE(log.find(message), std::string::npos) << log;
    EXPECT_NE(log.find("Serialization failed."), std::string::npos) << log;
    EXPECT_EQ(out, (Bytes{1, 2, 3}));
  }
}

TEST(AssistanceDataFile, ItemsAreKeptBySvIdAndFallBackToDefaults) {
  AssistanceDataFile file(GPS);
  file.storeAssistance(7, sample(GPS));
  file.storeAssistance(3, sample(GPS));
  AssistanceData replaced = sample(GPS);
  replaced.maxPredictionLength = 12;
  file.storeAssistance(7, replaced);
  ASSERT_EQ(file.count(), 2u);
  EXPECT_TRUE(file.items()[0].svId == 3 && file.items()[1].maxPredictionLength == 12 && !file.contains(4));
  EXPECT_EQ(file.assistance(4), AssistanceDataFile::defaultAssistance(GPS, 4));
  EXPECT_EQ(file.getAssistanceData(GLONASS, 7), AssistanceDataFile::defaultAssistance(GLONASS, 7));
}

TEST(AssistanceDataFile, ValidDataNamesEachFault) {
  AssistanceDataFile file(GPS);
  AssistanceData a = sample(GPS);
  a.outages[0].stop = a.outages[0].start;
  file.storeAssistance(5, a);
  AssistanceData b = sample(GLONASS);
  b.svFlags = 0x80000000u;
  file.storeAssistance(40, b);
  bool valid = true;
  std::string const log = test::capturedStderr([&] { valid = file.validData(); });
  EXPECT_FALSE(valid);
  for (char const* text :
       {"validData: item 0, gnss 1, svId 5, outage 0: start time [TOC](1,900,176400) not smaller than stop "
        "time "
        "[TOC](1,900,176400)",
        "validData: item 1, invalid gnssType 2", "validData: item 1, gnss 2: invalid svId 40",
        "validData: item 1, gnss 2, svId 40: invalid svFlags -2147483648"})
    EXPECT_NE(log.find(text), std::string::npos) << text << "\n" << log;
  EXPECT_TRUE(sampleFile(GPS).validData());
}
