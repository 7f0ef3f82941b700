// Byte codecs: wire layout of every record, exact doubles, truncated input.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <limits>
#include <string>
#include <tuple>
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

template <class To, class From>
To bitCast(From from) {
  To to;
  std::memcpy(&to, &from, sizeof to);
  return to;
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
  zs::appendUint8(b, 0xFE);
  zs::appendUint16(b, 0xA1B2);
  zs::appendUint64(b, 0x0102030405060708ull);
  zs::appendDouble(b, 0.75);
  EXPECT_EQ(b, wire({{0x01020304, 4}, {0xFE, 1}, {0xA1B2, 2}, {0x0102030405060708ull, 8}}) +
                   wireDouble(kThreeQuartersMantissa, 0));
  int index = 0;
  // Braces read left to right.
  std::tuple<std::uint32_t, std::uint8_t, std::uint16_t, std::uint64_t, double, int> const read{
      zs::getUint32(b, index), zs::getUint8(b, index),  zs::getUint16(b, index),
      zs::getUint64(b, index), zs::getDouble(b, index), index};
  EXPECT_EQ(read, std::make_tuple(0x01020304u, 0xFE, 0xA1B2, 0x0102030405060708ull, 0.75, 27));
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
  // Finite doubles round-trip bit for bit: the ends of the normal and
  // subnormal ranges and the neighbours of 1 (the rest is the fuzzer's).
  using L = std::numeric_limits<double>;
  std::vector<double> values = {L::max(), L::lowest(), L::min(), -L::min(), L::denorm_min()};
  values.insert(values.end(),
                {bitCast<double>(0x000FFFFFFFFFFFFFull), std::nextafter(1.0, 2.0), 1 - L::epsilon() / 2});
  for (double x : values) {
    Bytes raw;
    zs::appendDouble(raw, x);  // the checked codec writes the same words
    ASSERT_EQ(encode(x), raw);
    ASSERT_EQ(bitCast<std::uint64_t>(decode<double>(raw)), bitCast<std::uint64_t>(x)) << x;
  }
}

TEST(RecordCodecs, BroadcastRecordsByteForByte) {
  // clang-format off
  // Field values in declaration order, which is the wire order.
  expectWire(zc::GpsEphemeris{0x01020304, 0x0506, -2, {2, 52, 0x00093A80}, -3, 0x3F, 0xC8, 0xA10D2B3C, 0x00C0FFEE,
                              -0x12345678, 0x7FFFFFFF, -1, std::numeric_limits<std::int32_t>::min(), 0x1122,
                              -0x00AAAA, -0x0102, 0x0304, -0x0506, 0x0708, -0x090A, 0x0B0C, -0x0D0E, {3, 4, 5},
                              -0x55, 0x6677, -0x7F, 0x11}, wire({
      {0x01020304, 4}, {0x0506, 2}, {0xFFFE, 2}, {2, 4}, {52, 4}, {0x00093A80, 4}, {0xFD, 1}, {0x3F, 1},
      {0xC8, 1}, {0xA10D2B3C, 4}, {0x00C0FFEE, 4}, {0xEDCBA988, 4}, {0x7FFFFFFF, 4}, {0xFFFFFFFF, 4},
      {0x80000000, 4}, {0x1122, 2}, {0xFFFF5556, 4}, {0xFEFE, 2}, {0x0304, 2}, {0xFAFA, 2}, {0x0708, 2},
      {0xF6F6, 2}, {0x0B0C, 2}, {0xF2F2, 2}, {3, 4}, {4, 4}, {5, 4}, {0xFFFFFFAB, 4}, {0x6677, 2},
      {0x81, 1}, {0x11, 1}}));
  expectWire(zc::BeidouEphemeris{0xFEDCBA98, 0x0021, 0x0102, {0, 900, 345600}, 2, -1, 0x80, 0x01020304, 0x05060708,
                                 9, -10, 11, -12, -13, 14, -15, 16, -17, 18, -19, 20, -21, 0xFE, {1, 2, 3}, -22,
                                 23, -24, 25, -26}, wire({
      {0xFEDCBA98, 4}, {0x21, 2}, {0x0102, 2}, {0, 4}, {900, 4}, {345600, 4}, {2, 1}, {0xFF, 1}, {0x80, 1},
      {0x01020304, 4}, {0x05060708, 4}, {9, 4}, {0xFFFFFFF6, 4}, {11, 4}, {0xFFFFFFF4, 4}, {0xFFF3, 2},
      {14, 4}, {0xFFF1, 2}, {16, 4}, {0xFFFFFFEF, 4}, {18, 4}, {0xFFFFFFED, 4}, {20, 4}, {0xFFFFFFEB, 4},
      {0xFE, 1}, {1, 4}, {2, 4}, {3, 4}, {0xFFFFFFEA, 4}, {23, 4}, {0xFFE8, 2}, {25, 2}, {0xFFE6, 2}}));
  expectWire(zc::GlonassEphemeris{7, 24, 95, {7, 1400, 85500}, -7, 1, 31, -0x01000000, 0x00ABCDEF, 3, -4, 5, -6,
                                  -1, 2, -3, -0x1234, -5, 9}, wire({
      {7, 4}, {24, 2}, {95, 2}, {7, 4}, {1400, 4}, {85500, 4}, {0xF9, 1}, {1, 1}, {31, 1}, {0xFF000000, 4},
      {0x00ABCDEF, 4}, {3, 4}, {0xFFFFFFFC, 4}, {5, 4}, {0xFFFFFFFA, 4}, {0xFF, 1}, {2, 1}, {0xFD, 1},
      {0xFFFFEDCC, 4}, {0xFFFB, 2}, {9, 1}}));
  expectWire(zc::GpsAlmanac{1, 32, {2, 100, 61440}, 0xFFFF, 0x3F, 0x8000, -2, 3, 0x00A10D2B, -4, 5, -6, 7, -8},
             wire({
      {1, 4}, {32, 2}, {2, 4}, {100, 4}, {61440, 4}, {0xFFFF, 2}, {0x3F, 2}, {0x8000, 2}, {0xFFFE, 2},
      {3, 2}, {0x00A10D2B, 4}, {0xFFFFFFFC, 4}, {5, 4}, {0xFFFFFFFA, 4}, {7, 2}, {0xFFF8, 2}}));
  expectWire(zc::GlonassAlmanac{2, 1, {7, 1, 2}, 1461, 1, -7, -3, 0x80000000, 4, -5, -6, 7, -8, 9}, wire({
      {2, 4}, {1, 2}, {7, 4}, {1, 4}, {2, 4}, {1461, 2}, {1, 2}, {0xF9, 1}, {0xFFFFFFFD, 4},
      {0x80000000, 4}, {4, 4}, {0xFFFFFFFB, 4}, {0xFA, 1}, {7, 4}, {0xFFFFFFF8, 4}, {9, 2}}));
  expectWire(zc::BeidouAlmanac{3, 63, {0, 800, 4096}, 0x00FF, 0x1FF, 0x00C0FFEE, -1, -2, 3, -4, 5, -6, 7, -8},
             wire({
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
    EXPECT_TRUE(index == in.size() && m.size1() == s.rows && m.size2() == s.cols && m == m);
    EXPECT_EQ(encode(m), in);
  }
}
