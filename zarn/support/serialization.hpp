// Byte codecs: big-endian integers, portable doubles (64-bit mantissa and
// 32-bit binary exponent), length-prefixed strings, matrices and vectors, and
// every record of the library. Files written on one platform read the same
// on every other.
//
// Double encoding: x = f * 2^e with |f| in [0.5, 1) (frexp); the 12 bytes are
// the signed 64-bit mantissa m = sign(x) * (round((|f| - 0.5) * 2^64) + 1),
// then the signed 32-bit exponent e. Zero (either sign) is m = 0, e = 0 and
// reads back as +0.0. Every finite double, subnormals included, reads back
// bit for bit. Non-finite values never occur in stored data but still get a
// defined form that no finite value uses: +-infinity is m = +-1 with
// e = 0x7FFFFFFF (which the ordinary decoding rule overflows to +-infinity),
// NaN is m = 0 with e = 0x7FFFFFFF and reads back as a quiet NaN (payload and
// sign are not kept).
#ifndef ZARN_SUPPORT_SERIALIZATION_HPP
#define ZARN_SUPPORT_SERIALIZATION_HPP

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "zarn/core/records.hpp"
#include "zarn/support/assistance_data.hpp"
#include "zarn/support/constellation_analyzer.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/export.hpp"
#include "zarn/support/math.hpp"

namespace zarn {
namespace support {

// Raw primitives: no bounds checks, the caller guarantees room. append*
// pushes the big-endian bytes of `value` at the end of `out` (appendUint64:
// high 32 bits first; appendDouble: the 12-byte form above). get* reads the
// value at `index` and advances `index` by its size. replace* overwrites the
// bytes at `index` in place and advances `index`; it patches a length or a
// checksum written earlier.
ZARN_EXPORT void appendUint8(BinaryData& out, unsigned char value);
ZARN_EXPORT void appendUint16(BinaryData& out, unsigned short value);
ZARN_EXPORT void appendUint32(BinaryData& out, unsigned int value);
ZARN_EXPORT void appendUint64(BinaryData& out, unsigned long long value);
ZARN_EXPORT void appendDouble(BinaryData& out, double value);
ZARN_EXPORT unsigned char getUint8(BinaryData const& in, int& index);
ZARN_EXPORT unsigned short getUint16(BinaryData const& in, int& index);
ZARN_EXPORT unsigned int getUint32(BinaryData const& in, int& index);
ZARN_EXPORT unsigned long long getUint64(BinaryData const& in, int& index);
ZARN_EXPORT double getDouble(BinaryData const& in, int& index);
ZARN_EXPORT void replaceUint8(BinaryData& out, unsigned char value, int& index);
ZARN_EXPORT void replaceUint16(BinaryData& out, unsigned short value, int& index);
ZARN_EXPORT void replaceUint32(BinaryData& out, unsigned int value, int& index);

// Checked codecs. serialize appends the encoding of `value` to `out`, adds the
// number of bytes appended to `count` and returns true (it cannot fail).
// deserialize reads from `in` at `index`, advancing `index` byte by byte, and
// returns false as soon as the next byte would lie at or past in.size(); then
// `value` may be partly written and `index` stays after the last byte read,
// and the caller discards both. Values are not validated. bool is one byte
// (non-zero reads as true); enumerations are 32-bit; a string is a u32 byte
// count then the bytes; a Mat is u32 rows, u32 columns, then the elements as
// doubles in row-major order. Records are their fields in wire order.
#define ZARN_DECLARE_CODEC(T)                                                       \
  ZARN_EXPORT bool serialize(T const& value, BinaryData& out, unsigned int& count); \
  ZARN_EXPORT bool deserialize(BinaryData const& in, unsigned int& index, T& value)

ZARN_DECLARE_CODEC(unsigned char);
ZARN_DECLARE_CODEC(signed char);
ZARN_DECLARE_CODEC(unsigned short);
ZARN_DECLARE_CODEC(short);
ZARN_DECLARE_CODEC(unsigned int);
ZARN_DECLARE_CODEC(int);
ZARN_DECLARE_CODEC(unsigned long long);
ZARN_DECLARE_CODEC(double);
ZARN_DECLARE_CODEC(bool);
ZARN_DECLARE_CODEC(std::string);
ZARN_DECLARE_CODEC(Mat);
ZARN_DECLARE_CODEC(core::GnssType);
ZARN_DECLARE_CODEC(core::Status);
ZARN_DECLARE_CODEC(core::Toc);
ZARN_DECLARE_CODEC(LeapInfo);
ZARN_DECLARE_CODEC(core::GpsEphemeris);
ZARN_DECLARE_CODEC(core::BeidouEphemeris);
ZARN_DECLARE_CODEC(core::GlonassEphemeris);
ZARN_DECLARE_CODEC(core::GpsAlmanac);
ZARN_DECLARE_CODEC(core::GlonassAlmanac);
ZARN_DECLARE_CODEC(core::BeidouAlmanac);
ZARN_DECLARE_CODEC(Srp);
ZARN_DECLARE_CODEC(Eop);
ZARN_DECLARE_CODEC(AntennaPhase);
ZARN_DECLARE_CODEC(PredictionErrorParams);
ZARN_DECLARE_CODEC(ClockModelParams);
ZARN_DECLARE_CODEC(InertialFrameInfo);
ZARN_DECLARE_CODEC(EopInfo);
ZARN_DECLARE_CODEC(PredictorEvent);
ZARN_DECLARE_CODEC(TocPeriod);
ZARN_DECLARE_CODEC(AssistanceData);

#undef ZARN_DECLARE_CODEC

// std::uint64_t is `unsigned long` on LP64 targets, a type distinct from
// `unsigned long long`; give it the same 8-byte codec there.
template <class T,
          std::enable_if_t<
              std::is_same<T, std::uint64_t>::value && !std::is_same<T, unsigned long long>::value, int> = 0>
bool serialize(T const& value, BinaryData& out, unsigned int& count) {
  return serialize(static_cast<unsigned long long>(value), out, count);
}

template <class T,
          std::enable_if_t<
              std::is_same<T, std::uint64_t>::value && !std::is_same<T, unsigned long long>::value, int> = 0>
bool deserialize(BinaryData const& in, unsigned int& index, T& value) {
  unsigned long long wide = 0;
  if (!deserialize(in, index, wide)) return false;
  value = static_cast<T>(wide);
  return true;
}

// Vectors of records: u32 element count, then each element.
template <class T>
bool serialize(std::vector<T> const& values, BinaryData& out, unsigned int& count) {
  if (!serialize(static_cast<unsigned int>(values.size()), out, count)) return false;
  for (T const& v : values)
    if (!serialize(v, out, count)) return false;
  return true;
}

template <class T>
bool deserialize(BinaryData const& in, unsigned int& index, std::vector<T>& values) {
  unsigned int n = 0;
  if (!deserialize(in, index, n)) return false;
  // Every element takes a byte at least, so a count beyond the bytes left is
  // corrupt; fail as reading would have, at the end of input, without
  // allocating for it.
  if (n > in.size() - index) {
    index = static_cast<unsigned int>(in.size());
    return false;
  }
  values.resize(n);
  for (T& v : values)
    if (!deserialize(in, index, v)) return false;
  return true;
}

}  // namespace support
}  // namespace zarn

#endif
