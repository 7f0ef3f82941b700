// Byte codecs: big-endian integers, portable doubles (64-bit mantissa and
// 32-bit binary exponent), length-prefixed strings, matrices and vectors, and
// every record of the library. Files written on one platform read the same
// on every other.
#ifndef ZARN_SUPPORT_SERIALIZATION_HPP
#define ZARN_SUPPORT_SERIALIZATION_HPP

#include <string>
#include <vector>

#include "zarn/core/records.hpp"
#include "zarn/support/assistance_data.hpp"
#include "zarn/support/constellation_analyzer.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/export.hpp"
#include "zarn/support/math.hpp"

namespace zarn {
namespace support {

// Raw primitives: no bounds checks, the caller guarantees room.
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

// Checked codecs. serialize appends and adds the byte count to `count`;
// deserialize reads at `index`, returns false as soon as input runs out.
#define ZARN_DECLARE_CODEC(T)                                                   \
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
  // A corrupt count must not allocate gigabytes: every element takes a byte at least.
  if (n > in.size() - index) return false;
  values.resize(n);
  for (T& v : values)
    if (!deserialize(in, index, v)) return false;
  return true;
}

}  // namespace support
}  // namespace zarn

#endif
