#include "zarn/support/serialization.hpp"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <tuple>
#include <type_traits>

#include "record_fields.hpp"

namespace zarn {
namespace support {

namespace {

constexpr unsigned kBitsPerByte = 8;
constexpr unsigned kDoubleMantissaBytes = 8;
constexpr unsigned kDoubleExponentBytes = 4;
constexpr std::uint64_t kDoubleBytes = kDoubleMantissaBytes + kDoubleExponentBytes;
constexpr double kTwoPow64 = 18446744073709551616.0;  // 2^64
constexpr double kTwoPowMinus64 = 1.0 / kTwoPow64;    // 2^-64
// Exponent that no finite double produces (frexp gives -1073..1024); it marks
// infinities and NaN.
constexpr std::int32_t kNonFiniteExponent = std::numeric_limits<std::int32_t>::max();

void putBigEndian(BinaryData& out, std::uint64_t value, unsigned width) {
  for (unsigned shift = width * kBitsPerByte; shift != 0;) {
    shift -= kBitsPerByte;
    out.push_back(static_cast<unsigned char>(value >> shift));
  }
}

std::uint64_t takeBigEndian(BinaryData const& in, int& index, unsigned width) {
  std::uint64_t value = 0;
  for (unsigned i = 0; i < width; ++i) value = (value << kBitsPerByte) | in[index++];
  return value;
}

void overwriteBigEndian(BinaryData& out, std::uint64_t value, unsigned width, int& index) {
  for (unsigned shift = width * kBitsPerByte; shift != 0;) {
    shift -= kBitsPerByte;
    out[index++] = static_cast<unsigned char>(value >> shift);
  }
}

// Checks every byte before reading it, so a short buffer stops at its end.
bool readBigEndian(BinaryData const& in, unsigned int& index, unsigned width, std::uint64_t& value) {
  std::uint64_t v = 0;
  for (unsigned i = 0; i < width; ++i) {
    if (index >= in.size()) return false;
    v = (v << kBitsPerByte) | in[index++];
  }
  value = v;
  return true;
}

template <class T>
bool serializeInteger(T value, BinaryData& out, unsigned int& count) {
  using Unsigned = std::make_unsigned_t<T>;
  putBigEndian(out, static_cast<Unsigned>(value), sizeof(T));
  count += sizeof(T);
  return true;
}

template <class T>
bool deserializeInteger(BinaryData const& in, unsigned int& index, T& value) {
  using Unsigned = std::make_unsigned_t<T>;
  std::uint64_t raw = 0;
  if (!readBigEndian(in, index, sizeof(T), raw)) return false;
  value = static_cast<T>(static_cast<Unsigned>(raw));
  return true;
}

template <class E>
bool serializeEnum(E value, BinaryData& out, unsigned int& count) {
  return serializeInteger(static_cast<std::uint32_t>(value), out, count);
}

template <class E>
bool deserializeEnum(BinaryData const& in, unsigned int& index, E& value) {
  std::uint32_t raw = 0;
  if (!deserializeInteger(in, index, raw)) return false;
  value = static_cast<E>(raw);
  return true;
}

struct DoubleWords {
  std::int64_t mantissa;
  std::int32_t exponent;
};

DoubleWords encodeDouble(double x) {
  if (std::isnan(x)) return {0, kNonFiniteExponent};
  if (std::isinf(x)) return {x > 0.0 ? 1 : -1, kNonFiniteExponent};
  int exponent = 0;
  double const fraction = std::frexp(x, &exponent);
  double const excess = std::fabs(fraction) - 0.5;
  std::int64_t mantissa = 0;
  if (excess >= 0.0) {
    // excess * 2^64 is an integer below 2^63 (53 significant bits), so the
    // rounding is exact; the +1 keeps every non-zero mantissa non-zero.
    double const scaled = excess * kTwoPow64;
    mantissa = static_cast<std::int64_t>(std::floor(scaled + 0.5)) + 1;
  }
  if (x < 0.0) mantissa = -mantissa;
  return {mantissa, static_cast<std::int32_t>(exponent)};
}

double decodeDouble(std::uint64_t mantissaBits, std::uint32_t exponentBits) {
  auto const exponent = static_cast<std::int32_t>(exponentBits);
  if (mantissaBits == 0)
    return exponent == kNonFiniteExponent ? std::numeric_limits<double>::quiet_NaN() : 0.0;
  bool const negative = (mantissaBits >> 63) != 0;
  // Magnitude in unsigned arithmetic: the most negative mantissa has no
  // positive counterpart in 64-bit two's complement.
  std::uint64_t const magnitude = negative ? 0 - mantissaBits : mantissaBits;
  double const fraction = 0.5 + static_cast<double>(magnitude - 1) * kTwoPowMinus64;
  double const value = std::ldexp(fraction, exponent);
  return negative ? -value : value;
}

void putDouble(BinaryData& out, double value) {
  DoubleWords const words = encodeDouble(value);
  putBigEndian(out, static_cast<std::uint64_t>(words.mantissa), kDoubleMantissaBytes);
  putBigEndian(out, static_cast<std::uint32_t>(words.exponent), kDoubleExponentBytes);
}

template <class... Fields>
bool serializeFields(BinaryData& out, unsigned int& count, Fields const&... fields) {
  return (serialize(fields, out, count) && ...);
}

template <class... Fields>
bool deserializeFields(BinaryData const& in, unsigned int& index, Fields&... fields) {
  return (deserialize(in, index, fields) && ...);
}

template <class Record>
bool serializeRecord(Record const& record, BinaryData& out, unsigned int& count) {
  return std::apply([&](auto const&... f) { return serializeFields(out, count, f...); },
                    detail::fields(record));
}

template <class Record>
bool deserializeRecord(BinaryData const& in, unsigned int& index, Record& record) {
  return std::apply([&](auto&... f) { return deserializeFields(in, index, f...); }, detail::fields(record));
}

template <class Array>
bool serializeArray(Array const& values, BinaryData& out, unsigned int& count) {
  for (double v : values)
    if (!serialize(v, out, count)) return false;
  return true;
}

template <class Array>
bool deserializeArray(BinaryData const& in, unsigned int& index, Array& values) {
  for (double& v : values)
    if (!deserialize(in, index, v)) return false;
  return true;
}

}  // namespace

// ---- raw primitives ---------------------------------------------------------

void appendUint8(BinaryData& out, unsigned char value) {
  putBigEndian(out, value, sizeof value);
}
void appendUint16(BinaryData& out, unsigned short value) {
  putBigEndian(out, value, sizeof value);
}
void appendUint32(BinaryData& out, unsigned int value) {
  putBigEndian(out, value, sizeof value);
}
void appendUint64(BinaryData& out, unsigned long long value) {
  putBigEndian(out, value, sizeof value);
}
void appendDouble(BinaryData& out, double value) {
  putDouble(out, value);
}

unsigned char getUint8(BinaryData const& in, int& index) {
  return static_cast<unsigned char>(takeBigEndian(in, index, sizeof(unsigned char)));
}
unsigned short getUint16(BinaryData const& in, int& index) {
  return static_cast<unsigned short>(takeBigEndian(in, index, sizeof(unsigned short)));
}
unsigned int getUint32(BinaryData const& in, int& index) {
  return static_cast<unsigned int>(takeBigEndian(in, index, sizeof(unsigned int)));
}
unsigned long long getUint64(BinaryData const& in, int& index) {
  return takeBigEndian(in, index, sizeof(unsigned long long));
}
double getDouble(BinaryData const& in, int& index) {
  std::uint64_t const mantissa = takeBigEndian(in, index, kDoubleMantissaBytes);
  auto const exponent = static_cast<std::uint32_t>(takeBigEndian(in, index, kDoubleExponentBytes));
  return decodeDouble(mantissa, exponent);
}

void replaceUint8(BinaryData& out, unsigned char value, int& index) {
  overwriteBigEndian(out, value, sizeof value, index);
}
void replaceUint16(BinaryData& out, unsigned short value, int& index) {
  overwriteBigEndian(out, value, sizeof value, index);
}
void replaceUint32(BinaryData& out, unsigned int value, int& index) {
  overwriteBigEndian(out, value, sizeof value, index);
}

// ---- scalars ------------------------------------------------------------------

#define ZARN_INTEGER_CODEC(T)                                             \
  bool serialize(T const& value, BinaryData& out, unsigned int& count) {  \
    return serializeInteger(value, out, count);                           \
  }                                                                       \
  bool deserialize(BinaryData const& in, unsigned int& index, T& value) { \
    return deserializeInteger(in, index, value);                          \
  }

ZARN_INTEGER_CODEC(unsigned char)
ZARN_INTEGER_CODEC(signed char)
ZARN_INTEGER_CODEC(unsigned short)
ZARN_INTEGER_CODEC(short)
ZARN_INTEGER_CODEC(unsigned int)
ZARN_INTEGER_CODEC(int)
ZARN_INTEGER_CODEC(unsigned long long)

#undef ZARN_INTEGER_CODEC

bool serialize(double const& value, BinaryData& out, unsigned int& count) {
  putDouble(out, value);
  count += kDoubleMantissaBytes + kDoubleExponentBytes;
  return true;
}

bool deserialize(BinaryData const& in, unsigned int& index, double& value) {
  std::uint64_t mantissa = 0;
  std::uint64_t exponent = 0;
  if (!readBigEndian(in, index, kDoubleMantissaBytes, mantissa)) return false;
  if (!readBigEndian(in, index, kDoubleExponentBytes, exponent)) return false;
  value = decodeDouble(mantissa, static_cast<std::uint32_t>(exponent));
  return true;
}

bool serialize(bool const& value, BinaryData& out, unsigned int& count) {
  return serializeInteger<unsigned char>(value ? 1 : 0, out, count);
}

bool deserialize(BinaryData const& in, unsigned int& index, bool& value) {
  unsigned char raw = 0;
  if (!deserializeInteger(in, index, raw)) return false;
  value = raw != 0;
  return true;
}

bool serialize(std::string const& value, BinaryData& out, unsigned int& count) {
  serializeInteger(static_cast<std::uint32_t>(value.size()), out, count);
  out.insert(out.end(), value.begin(), value.end());
  count += static_cast<unsigned int>(value.size());
  return true;
}

bool deserialize(BinaryData const& in, unsigned int& index, std::string& value) {
  std::uint32_t length = 0;
  if (!deserializeInteger(in, index, length)) return false;
  // A length beyond the bytes left fails at the end of input, as reading
  // byte by byte would, without allocating for the corrupt length.
  if (length > in.size() - index) {
    index = static_cast<unsigned int>(in.size());
    return false;
  }
  value.assign(in.begin() + index, in.begin() + index + length);
  index += length;
  return true;
}

bool serialize(Mat const& value, BinaryData& out, unsigned int& count) {
  serializeInteger(static_cast<std::uint32_t>(value.size1()), out, count);
  serializeInteger(static_cast<std::uint32_t>(value.size2()), out, count);
  // Row-major storage is the wire order. Walking the elements rather than the
  // rows keeps a shape like 2^32-1 x 0 from costing time without bytes.
  for (double const x : value.data()) serialize(x, out, count);
  return true;
}

bool deserialize(BinaryData const& in, unsigned int& index, Mat& value) {
  std::uint32_t rows = 0;
  std::uint32_t cols = 0;
  if (!deserializeInteger(in, index, rows) || !deserializeInteger(in, index, cols)) return false;
  // rows * cols fits in 64 bits; the check keeps a corrupt shape from allocating.
  std::uint64_t const elements = std::uint64_t{rows} * cols;
  if (elements > (in.size() - index) / kDoubleBytes) {
    index = static_cast<unsigned int>(in.size());
    return false;
  }
  value.resize(rows, cols, false);
  for (double& x : value.data())
    if (!deserialize(in, index, x)) return false;
  return true;
}

bool serialize(Vec const& value, BinaryData& out, unsigned int& count) {
  serializeInteger(static_cast<std::uint32_t>(value.size()), out, count);
  for (std::size_t i = 0; i < value.size(); ++i) serialize(value(i), out, count);
  return true;
}

bool deserialize(BinaryData const& in, unsigned int& index, Vec& value) {
  std::uint32_t size = 0;
  if (!deserializeInteger(in, index, size)) return false;
  // A corrupt count must not allocate.
  if (size > (in.size() - index) / kDoubleBytes) {
    index = static_cast<unsigned int>(in.size());
    return false;
  }
  value.resize(size, false);
  for (std::size_t i = 0; i < size; ++i)
    if (!deserialize(in, index, value(i))) return false;
  return true;
}

bool serialize(core::GnssType const& value, BinaryData& out, unsigned int& count) {
  return serializeEnum(value, out, count);
}
bool deserialize(BinaryData const& in, unsigned int& index, core::GnssType& value) {
  return deserializeEnum(in, index, value);
}
bool serialize(core::Status const& value, BinaryData& out, unsigned int& count) {
  return serializeEnum(value, out, count);
}
bool deserialize(BinaryData const& in, unsigned int& index, core::Status& value) {
  return deserializeEnum(in, index, value);
}

// ---- records ------------------------------------------------------------------

bool serialize(core::Toc const& value, BinaryData& out, unsigned int& count) {
  return serializeFields(out, count, value.first, value.second, value.third);
}
bool deserialize(BinaryData const& in, unsigned int& index, core::Toc& value) {
  return deserializeFields(in, index, value.first, value.second, value.third);
}

bool serialize(LeapInfo const& value, BinaryData& out, unsigned int& count) {
  return serializeFields(out, count, value.time, value.leapSeconds);
}
bool deserialize(BinaryData const& in, unsigned int& index, LeapInfo& value) {
  return deserializeFields(in, index, value.time, value.leapSeconds);
}

#define ZARN_BROADCAST_CODEC(T)                                                 \
  bool serialize(core::T const& value, BinaryData& out, unsigned int& count) {  \
    return serializeRecord(value, out, count);                                  \
  }                                                                             \
  bool deserialize(BinaryData const& in, unsigned int& index, core::T& value) { \
    return deserializeRecord(in, index, value);                                 \
  }

ZARN_BROADCAST_CODEC(GpsEphemeris)
ZARN_BROADCAST_CODEC(BeidouEphemeris)
ZARN_BROADCAST_CODEC(GlonassEphemeris)
ZARN_BROADCAST_CODEC(GpsAlmanac)
ZARN_BROADCAST_CODEC(GlonassAlmanac)
ZARN_BROADCAST_CODEC(BeidouAlmanac)

#undef ZARN_BROADCAST_CODEC

#define ZARN_ARRAY_CODEC(T)                                               \
  bool serialize(T const& value, BinaryData& out, unsigned int& count) {  \
    return serializeArray(value, out, count);                             \
  }                                                                       \
  bool deserialize(BinaryData const& in, unsigned int& index, T& value) { \
    return deserializeArray(in, index, value);                            \
  }

ZARN_ARRAY_CODEC(Srp)
ZARN_ARRAY_CODEC(AntennaPhase)
ZARN_ARRAY_CODEC(PredictionErrorParams)
ZARN_ARRAY_CODEC(ClockModelParams)

#undef ZARN_ARRAY_CODEC

bool serialize(Eop const& value, BinaryData& out, unsigned int& count) {
  return serializeFields(out, count, value.xp, value.yp);
}
bool deserialize(BinaryData const& in, unsigned int& index, Eop& value) {
  return deserializeFields(in, index, value.xp, value.yp);
}

bool serialize(InertialFrameInfo const& value, BinaryData& out, unsigned int& count) {
  return serializeFields(out, count, value.tRef, value.ut1MinusUtc, value.matrix);
}
bool deserialize(BinaryData const& in, unsigned int& index, InertialFrameInfo& value) {
  return deserializeFields(in, index, value.tRef, value.ut1MinusUtc, value.matrix);
}

bool serialize(EopInfo const& value, BinaryData& out, unsigned int& count) {
  return serializeFields(out, count, value.eop, value.matrix);
}
bool deserialize(BinaryData const& in, unsigned int& index, EopInfo& value) {
  return deserializeFields(in, index, value.eop, value.matrix);
}

bool serialize(PredictorEvent const& value, BinaryData& out, unsigned int& count) {
  return serializeFields(out, count, value.time, value.type, value.status);
}
bool deserialize(BinaryData const& in, unsigned int& index, PredictorEvent& value) {
  return deserializeFields(in, index, value.time, value.type, value.status);
}

bool serialize(TocPeriod const& value, BinaryData& out, unsigned int& count) {
  return serializeFields(out, count, value.start, value.stop, value.label);
}
bool deserialize(BinaryData const& in, unsigned int& index, TocPeriod& value) {
  return deserializeFields(in, index, value.start, value.stop, value.label);
}

bool serialize(AssistanceData const& value, BinaryData& out, unsigned int& count) {
  return serializeFields(out, count, value.gnssType, value.svId, value.svFlags, value.maxPredictionLength,
                         value.srp, value.antPhase, value.errorParams, value.clockModelParams, value.outages);
}
bool deserialize(BinaryData const& in, unsigned int& index, AssistanceData& value) {
  return deserializeFields(in, index, value.gnssType, value.svId, value.svFlags, value.maxPredictionLength,
                           value.srp, value.antPhase, value.errorParams, value.clockModelParams,
                           value.outages);
}

}  // namespace support
}  // namespace zarn
