// Byte codecs: wire layout of every record, exact doubles, truncated input.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <limits>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "zarn/support/serialization.hpp"

namespace zc = zarn::core;
namespace zs = zarn::support;
using Bytes = zs::BinaryData;

namespace {

using zs::operator==;  // Mat lives in boost's namespace, out of reach of ADL

// Expected bytes written from the layout: (value, width in bytes), big-endian.
Bytes wire(std::initializer_list<std::pair<std::uint64_t, int>> fields) {
  Bytes out;
  for (auto const& f : fields)
    for (int shift = 8 * (f.second - 1); shift >= 0; shift -= 8) out.push_back((f.first >> shift) & 0xFF);
  return out;
}

Bytes operator+(Bytes a, Bytes const& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Mantissa and exponent words of a double, as the format defines them.
Bytes wireDouble(std::int64_t mantissa, std::int32_t exponent) {
  return wire({{static_cast<std::uint64_t>(mantissa), 8}, {static_cast<std::uint32_t>(exponent), 4}});
}

constexpr std::int64_t kThreeQuartersMantissa = (std::int64_t{1} << 62) + 1;  // f = 0.75

template <class T>
Bytes encode(T const& value) {
  Bytes out{0xAA};  // codecs append; they must not touch what is already there
  unsigned count = 0;
  EXPECT_TRUE(zs::serialize(value, out, count));
  EXPECT_EQ(count + 1, out.size());
  EXPECT_EQ(out[0], 0xAA);
  return Bytes(out.begin() + 1, out.end());
}

template <class T>
T decode(Bytes const& in) {
  T value{};
  unsigned index = 0;
  EXPECT_TRUE(zs::deserialize(in, index, value));
  EXPECT_EQ(index, in.size());
  return value;
}

template <class T>
void expectWire(T const& value, Bytes const& expected) {
  EXPECT_EQ(encode(value), expected);
  EXPECT_TRUE(decode<T>(expected) == value);
}

double bitsToDouble(std::uint64_t bits) {
  double d;
  std::memcpy(&d, &bits, sizeof d);
  return d;
}

std::uint64_t doubleToBits(double d) {
  std::uint64_t bits;
  std::memcpy(&bits, &d, sizeof bits);
  return bits;
}

zc::GpsEphemeris gpsEphemeris() {
  zc::GpsEphemeris g;
  g.flags = 0x01020304, g.svId = 0x0506, g.iodc = -2, g.toe = {2, 52, 0x00093A80};
  g.uraIndex = -3, g.health = 0x3F, g.iode = 0xC8, g.sqrtA = 0xA10D2B3C, g.e = 0x00C0FFEE;
  g.i0 = -0x12345678, g.omega0 = 0x7FFFFFFF, g.omega = -1, g.m0 = std::numeric_limits<std::int32_t>::min();
  g.deltaN = 0x1122, g.omegaDot = -0x00AAAA, g.iDot = -0x0102, g.cuc = 0x0304, g.cus = -0x0506;
  g.crc = 0x0708, g.crs = -0x090A, g.cic = 0x0B0C, g.cis = -0x0D0E, g.toc = {3, 4, 5};
  g.af0 = -0x55, g.af1 = 0x6677, g.af2 = -0x7F, g.tgd = 0x11;
  return g;
}

zc::BeidouEphemeris beidouEphemeris() {
  zc::BeidouEphemeris b;
  b.flags = 0xFEDCBA98, b.svId = 0x0021, b.aodc = 0x0102, b.toe = {0, 900, 345600}, b.uraIndex = 2;
  b.health = -1, b.aode = 0x80, b.sqrtA = 0x01020304, b.e = 0x05060708, b.i0 = 9, b.omega0 = -10;
  b.omega = 11, b.m0 = -12, b.deltaN = -13, b.omegaDot = 14, b.iDot = -15, b.cuc = 16, b.cus = -17;
  b.crc = 18, b.crs = -19, b.cic = 20, b.cis = -21, b.iodc = 0xFE, b.toc = {1, 2, 3}, b.a0 = -22;
  b.a1 = 23, b.a2 = -24, b.tgd1 = 25, b.tgd2 = -26;
  return b;
}

zc::GlonassEphemeris glonassEphemeris() {
  zc::GlonassEphemeris r;
  r.flags = 7, r.svId = 24, r.tb = 95, r.time = {7, 1400, 85500}, r.frequencyNumber = -7, r.health = 1;
  r.age = 31, r.x = -0x01000000, r.y = 0x00ABCDEF, r.z = 3, r.vx = -4, r.vy = 5, r.vz = -6, r.ax = -1;
  r.ay = 2, r.az = -3, r.tauN = -0x1234, r.gammaN = -5, r.deltaTauN = 9;
  return r;
}

zc::GpsAlmanac gpsAlmanac() {
  zc::GpsAlmanac a;
  a.flags = 1, a.svId = 32, a.toa = {2, 100, 61440}, a.wna = 0xFFFF, a.health = 0x3F, a.e = 0x8000;
  a.deltaI = -2, a.omegaDot = 3, a.sqrtA = 0x00A10D2B, a.omega0 = -4, a.omega = 5, a.m0 = -6, a.af0 = 7;
  a.af1 = -8;
  return a;
}

zc::GlonassAlmanac glonassAlmanac() {
  zc::GlonassAlmanac a;
  a.flags = 2, a.svId = 1, a.time = {7, 1, 2}, a.na = 1461, a.health = 1, a.frequencyNumber = -7;
  a.lambda = -3, a.tLambda = 0x80000000, a.deltaI = 4, a.deltaT = -5, a.deltaTDot = -6, a.epsilon = 7;
  a.omega = -8, a.tau = 9;
  return a;
}

zc::BeidouAlmanac beidouAlmanac() {
  zc::BeidouAlmanac a;
  a.flags = 3, a.svId = 63, a.toa = {0, 800, 4096}, a.wna = 0x00FF, a.health = 0x1FF, a.sqrtA = 0x00C0FFEE;
  a.deltaI = -1, a.omegaDot = -2, a.e = 3, a.omega0 = -4, a.omega = 5, a.m0 = -6, a.a0 = 7, a.a1 = -8;
  return a;
}

zs::Mat matrix(unsigned rows, unsigned cols, double first) {
  zs::Mat m(rows, cols);
  for (unsigned i = 0; i < rows; ++i)
    for (unsigned j = 0; j < cols; ++j) m(i, j) = first + i * cols + j;
  return m;
}

zs::AssistanceData assistanceData() {
  zs::AssistanceData a;
  a.gnssType = zc::BEIDOU, a.svId = 0x0102, a.svFlags = 0x03040506, a.maxPredictionLength = 0x0708;
  a.srp = {{1.0, -1.0}}, a.antPhase = {{0.75, 0.0, 1.0}}, a.errorParams = {{-1.0, 0.75, 0.0}};
  a.clockModelParams = {{1.0, 0.0, 0.0, 0.0, 0.0, -1.0}};
  a.outages = {{{2, 3, 4}, {5, 6, 7}, "manoeuvre"}, {{8, 9, 10}, {11, 12, 13}, ""}};
  return a;
}

}  // namespace

TEST(RawPrimitives, BigEndianAppendReadAndPatch) {
  Bytes b;
  zs::appendUint32(b, 0x01020304);
  EXPECT_EQ(b, (Bytes{0x01, 0x02, 0x03, 0x04}));
  zs::appendUint8(b, 0xFE);
  zs::appendUint16(b, 0xA1B2);
  zs::appendUint64(b, 0x0102030405060708ull);
  zs::appendDouble(b, 0.75);
  EXPECT_EQ(b, wire({{0x01020304, 4}, {0xFE, 1}, {0xA1B2, 2}, {0x0102030405060708ull, 8}}) +
                   wireDouble(kThreeQuartersMantissa, 0));
  int index = 0;
  EXPECT_EQ(zs::getUint32(b, index), 0x01020304u);
  EXPECT_EQ(zs::getUint8(b, index), 0xFE);
  EXPECT_EQ(zs::getUint16(b, index), 0xA1B2);
  EXPECT_EQ(zs::getUint64(b, index), 0x0102030405060708ull);
  EXPECT_EQ(zs::getDouble(b, index), 0.75);
  EXPECT_EQ(index, 27);
  index = 1;
  zs::replaceUint16(b, 0xCAFE, index);
  zs::replaceUint8(b, 0x77, index);
  zs::replaceUint32(b, 0xDEADBEEF, index);
  EXPECT_EQ(index, 8);
  EXPECT_EQ(Bytes(b.begin(), b.begin() + 9), (Bytes{0x01, 0xCA, 0xFE, 0x77, 0xDE, 0xAD, 0xBE, 0xEF, 0x02}));
}

TEST(ScalarCodecs, TwosComplementWidthsAndOneByteBool) {
  expectWire<signed char>(-128, {0x80});
  expectWire<short>(-2, {0xFF, 0xFE});
  expectWire<int>(std::numeric_limits<int>::min(), {0x80, 0, 0, 0});
  expectWire<unsigned long long>(0x8000000000000001ull, {0x80, 0, 0, 0, 0, 0, 0, 0x01});
  expectWire<std::uint64_t>(0xFF, {0, 0, 0, 0, 0, 0, 0, 0xFF});
  expectWire(zc::GALILEO, {0, 0, 0, 4});
  expectWire(zc::MISSING_INITIALIZATION_PARAMETERS, {0, 0, 0, 18});
  expectWire(true, {0x01});
  EXPECT_TRUE(decode<bool>({0x02}));
  expectWire(std::string("GPS"), {0, 0, 0, 3, 'G', 'P', 'S'});
  expectWire(std::string(), {0, 0, 0, 0});
}

TEST(DoubleCodec, MantissaExponentWordsAndReservedForms) {
  constexpr std::int32_t kReserved = std::numeric_limits<std::int32_t>::max();
  double const inf = std::numeric_limits<double>::infinity();
  std::pair<double, Bytes> const cases[] = {{1.0, wireDouble(1, 1)},
                                            {-1.0, wireDouble(-1, 1)},
                                            {0.75, wireDouble(kThreeQuartersMantissa, 0)},
                                            {-0.375, wireDouble(-kThreeQuartersMantissa, -1)},
                                            {0.0, wireDouble(0, 0)},
                                            {inf, wireDouble(1, kReserved)},
                                            {-inf, wireDouble(-1, kReserved)}};
  for (auto const& c : cases) expectWire(c.first, c.second);
  EXPECT_EQ(encode(-0.0), wireDouble(0, 0));
  EXPECT_FALSE(std::signbit(decode<double>(wireDouble(0, 0))));
  EXPECT_EQ(encode(std::numeric_limits<double>::quiet_NaN()), wireDouble(0, kReserved));
  EXPECT_TRUE(std::isnan(decode<double>(wireDouble(0, kReserved))));
  // The most negative mantissa has no positive counterpart; it must still decode.
  EXPECT_TRUE(std::isfinite(decode<double>(wireDouble(std::numeric_limits<std::int64_t>::min(), 1))));
}

TEST(DoubleCodec, EveryFiniteDoubleRoundTripsBitForBit) {
  using L = std::numeric_limits<double>;
  std::vector<double> values = {L::max(),
                                L::lowest(),
                                L::min(),
                                -L::min(),
                                L::denorm_min(),
                                bitsToDouble(0x000FFFFFFFFFFFFFull),
                                std::nextafter(1.0, 2.0),
                                std::nextafter(1.0, 0.0)};
  std::mt19937_64 rng(20160907);
  // Uniform bit patterns cover every exponent and sign; one more per biased
  // exponent makes sure none is missed.
  for (int i = 0; i < 200000; ++i) values.push_back(bitsToDouble(rng()));
  for (std::uint64_t exponent = 0; exponent < 0x7FF; ++exponent)
    values.push_back(bitsToDouble((exponent << 52) | (rng() & 0x800FFFFFFFFFFFFFull)));
  for (double x : values) {
    if (!std::isfinite(x) || x == 0.0) continue;
    Bytes raw;
    zs::appendDouble(raw, x);
    int rawIndex = 0;
    double const viaRaw = zs::getDouble(raw, rawIndex);
    double const viaChecked = decode<double>(encode(x));
    ASSERT_EQ(doubleToBits(viaRaw), doubleToBits(x)) << x;
    ASSERT_EQ(doubleToBits(viaChecked), doubleToBits(x)) << x;
    ASSERT_EQ(encode(x), raw);
  }
}

TEST(RecordCodecs, BroadcastRecordsByteForByte) {
  // clang-format off
  expectWire(gpsEphemeris(), wire({
      {0x01020304, 4}, {0x0506, 2}, {0xFFFE, 2}, {2, 4}, {52, 4}, {0x00093A80, 4}, {0xFD, 1}, {0x3F, 1},
      {0xC8, 1}, {0xA10D2B3C, 4}, {0x00C0FFEE, 4}, {0xEDCBA988, 4}, {0x7FFFFFFF, 4}, {0xFFFFFFFF, 4},
      {0x80000000, 4}, {0x1122, 2}, {0xFFFF5556, 4}, {0xFEFE, 2}, {0x0304, 2}, {0xFAFA, 2}, {0x0708, 2},
      {0xF6F6, 2}, {0x0B0C, 2}, {0xF2F2, 2}, {3, 4}, {4, 4}, {5, 4}, {0xFFFFFFAB, 4}, {0x6677, 2},
      {0x81, 1}, {0x11, 1}}));
  expectWire(beidouEphemeris(), wire({
      {0xFEDCBA98, 4}, {0x21, 2}, {0x0102, 2}, {0, 4}, {900, 4}, {345600, 4}, {2, 1}, {0xFF, 1}, {0x80, 1},
      {0x01020304, 4}, {0x05060708, 4}, {9, 4}, {0xFFFFFFF6, 4}, {11, 4}, {0xFFFFFFF4, 4}, {0xFFF3, 2},
      {14, 4}, {0xFFF1, 2}, {16, 4}, {0xFFFFFFEF, 4}, {18, 4}, {0xFFFFFFED, 4}, {20, 4}, {0xFFFFFFEB, 4},
      {0xFE, 1}, {1, 4}, {2, 4}, {3, 4}, {0xFFFFFFEA, 4}, {23, 4}, {0xFFE8, 2}, {25, 2}, {0xFFE6, 2}}));
  expectWire(glonassEphemeris(), wire({
      {7, 4}, {24, 2}, {95, 2}, {7, 4}, {1400, 4}, {85500, 4}, {0xF9, 1}, {1, 1}, {31, 1}, {0xFF000000, 4},
      {0x00ABCDEF, 4}, {3, 4}, {0xFFFFFFFC, 4}, {5, 4}, {0xFFFFFFFA, 4}, {0xFF, 1}, {2, 1}, {0xFD, 1},
      {0xFFFFEDCC, 4}, {0xFFFB, 2}, {9, 1}}));
  expectWire(gpsAlmanac(), wire({
      {1, 4}, {32, 2}, {2, 4}, {100, 4}, {61440, 4}, {0xFFFF, 2}, {0x3F, 2}, {0x8000, 2}, {0xFFFE, 2},
      {3, 2}, {0x00A10D2B, 4}, {0xFFFFFFFC, 4}, {5, 4}, {0xFFFFFFFA, 4}, {7, 2}, {0xFFF8, 2}}));
  expectWire(glonassAlmanac(), wire({
      {2, 4}, {1, 2}, {7, 4}, {1, 4}, {2, 4}, {1461, 2}, {1, 2}, {0xF9, 1}, {0xFFFFFFFD, 4},
      {0x80000000, 4}, {4, 4}, {0xFFFFFFFB, 4}, {0xFA, 1}, {7, 4}, {0xFFFFFFF8, 4}, {9, 2}}));
  expectWire(beidouAlmanac(), wire({
      {3, 4}, {63, 2}, {0, 4}, {800, 4}, {4096, 4}, {0xFF, 2}, {0x1FF, 2}, {0x00C0FFEE, 4}, {0xFFFF, 2},
      {0xFFFFFFFE, 4}, {3, 4}, {0xFFFFFFFC, 4}, {5, 4}, {0xFFFFFFFA, 4}, {7, 2}, {0xFFF8, 2}}));
  // clang-format on
}

TEST(RecordCodecs, ModelRecordsByteForByte) {
  Bytes const one = wireDouble(1, 1), minusOne = wireDouble(-1, 1), zero = wireDouble(0, 0);
  Bytes const threeQuarters = wireDouble(kThreeQuartersMantissa, 0);
  expectWire(zs::LeapInfo{1167264017ull, 18}, wire({{1167264017ull, 8}, {18, 1}}));
  expectWire(zs::Eop{1.0, -1.0}, one + minusOne);
  expectWire(zs::PredictorEvent{0.75, -2, zc::SV_IN_OUTAGE},
             threeQuarters + wire({{0xFFFFFFFE, 4}, {13, 4}}));
  expectWire(matrix(2, 1, 0.0), wire({{2, 4}, {1, 4}}) + zero + one);
  expectWire(zs::InertialFrameInfo{1.0, 0.75, matrix(1, 2, -1.0)},
             one + threeQuarters + wire({{1, 4}, {2, 4}}) + minusOne + zero);
  expectWire(zs::EopInfo{{0.0, 0.75}, matrix(0, 3, 0.0)}, zero + threeQuarters + wire({{0, 4}, {3, 4}}));
  expectWire(std::vector<zs::LeapInfo>{{86399, 1}, {172799, -1}},
             wire({{2, 4}, {86399, 8}, {1, 1}, {172799, 8}, {0xFF, 1}}));
  expectWire(assistanceData(), wire({{3, 4}, {0x0102, 2}, {0x03040506, 4}, {0x0708, 2}}) + one + minusOne +
                                   threeQuarters + zero + one + minusOne + threeQuarters + zero + one + zero +
                                   zero + zero + zero + minusOne +
                                   wire({{2, 4}, {2, 4}, {3, 4}, {4, 4}, {5, 4}, {6, 4}, {7, 4}, {9, 4}}) +
                                   Bytes{'m', 'a', 'n', 'o', 'e', 'u', 'v', 'r', 'e'} +
                                   wire({{8, 4}, {9, 4}, {10, 4}, {11, 4}, {12, 4}, {13, 4}, {0, 4}}));
}

// Every proper prefix fails with the index at its end; the prefix is an
// exact-size heap copy, so a read past it is an ASan error. In the broadcast
// records each byte belongs to one field, so corrupting any byte must change
// the decoded record and equality must notice.
template <bool everyByteMatters, class T>
void expectRobust(T const& value) {
  Bytes const full = encode(value);
  for (std::size_t n = 0; n < full.size(); ++n) {
    T target{};
    unsigned index = 0;
    EXPECT_FALSE(zs::deserialize(Bytes(full.begin(), full.begin() + n), index, target)) << n;
    EXPECT_EQ(index, n);
    if constexpr (everyByteMatters) {
      Bytes bad = full;
      bad[n] ^= 0x5A;
      T const decoded = decode<T>(bad);
      EXPECT_TRUE(!(decoded == value) && decoded != value) << "byte " << n;
    }
  }
}

TEST(Deserialize, TruncationsFailAndEveryByteCounts) {
  auto const records = [](auto const&... values) { (expectRobust<true>(values), ...); };
  auto const others = [](auto const&... values) { (expectRobust<false>(values), ...); };
  records(gpsEphemeris(), beidouEphemeris(), glonassEphemeris(), gpsAlmanac(), glonassAlmanac(),
          beidouAlmanac());
  others(assistanceData(), zs::InertialFrameInfo{1.0, 2.0, matrix(3, 3, 0.5)},
         zs::EopInfo{{1e-6, -2e-6}, matrix(3, 3, 1.0)}, zs::PredictorEvent{1e9, 3, zc::OK},
         zs::TocPeriod{{1, 2, 3}, {4, 5, 6}, "x"}, zs::LeapInfo{86399, 1},
         std::vector<zs::LeapInfo>{{86399, 1}, {172799, 2}}, zs::ClockModelParams{{1, 2, 3, 4, 5, 6}},
         zs::Srp{{1, 2}}, zs::Eop{1, 2}, zs::AntennaPhase{{1, 2, 3}}, zs::PredictionErrorParams{{1, 2, 3}},
         std::string("label"), zc::Toc{1, 2, 3}, zc::GLONASS, zc::OK, true, 0.1, 0xFFFFFFFFFFull);
}

TEST(Deserialize, CorruptCountsFailWithoutAllocating) {
  Bytes const hugeCount = wire({{0xFFFFFFFF, 4}, {0, 3}});
  Bytes const hugeShape = wire({{0xFFFFFFFF, 4}, {0xFFFFFFFF, 4}, {0, 8}, {0, 4}});
  std::vector<zs::LeapInfo> leaps;
  std::string text;
  zs::Mat m;
  std::pair<Bytes const*, std::function<bool(unsigned&)>> const cases[] = {
      {&hugeCount, [&](unsigned& i) { return zs::deserialize(hugeCount, i, leaps); }},
      {&hugeCount, [&](unsigned& i) { return zs::deserialize(hugeCount, i, text); }},
      {&hugeShape, [&](unsigned& i) { return zs::deserialize(hugeShape, i, m); }}};
  for (auto const& c : cases) {
    unsigned index = 0;
    EXPECT_FALSE(c.second(index));
    EXPECT_EQ(index, c.first->size());
  }
  EXPECT_LE(leaps.size(), 1u);
}

// Found by fuzzing: a shape with no elements but 2^28 or more rows made every
// read, write and comparison walk the rows. It reads, writes and compares in
// time proportional to the elements, keeping its shape.
TEST(Deserialize, EmptyMatricesOfHugeExtentCostNothing) {
  struct Shape {
    std::uint32_t rows, cols;
  };
  for (Shape const s : {Shape{0x10005300, 0}, Shape{0xFFFFFFFF, 0}, Shape{0, 0xFFFFFFFF}}) {
    Bytes const in = wire({{s.rows, 4}, {s.cols, 4}});
    zs::Mat m;
    unsigned index = 0;
    ASSERT_TRUE(zs::deserialize(in, index, m));
    EXPECT_EQ(index, in.size());
    EXPECT_EQ(m.size1(), s.rows);
    EXPECT_EQ(m.size2(), s.cols);
    Bytes out;
    unsigned count = 0;
    ASSERT_TRUE(zs::serialize(m, out, count));
    EXPECT_EQ(out, in);
    EXPECT_TRUE(m == m);
  }
}
