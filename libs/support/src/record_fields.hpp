// Wire order of the broadcast records, written down once: the codecs walk
// these tuples to encode and decode, and equality compares them. The order is
// the byte order of the serialized form and must not change.
#ifndef ZARN_SUPPORT_SRC_RECORD_FIELDS_HPP
#define ZARN_SUPPORT_SRC_RECORD_FIELDS_HPP

#include <tuple>

#include "zarn/core/records.hpp"

namespace zarn {
namespace support {
namespace detail {

// One overload for const and one for mutable records, so that serialize,
// deserialize and operator== share a single field list.
#define ZARN_RECORD_FIELDS(Type, ...)       \
  inline auto fields(core::Type const& r) { \
    return std::tie(__VA_ARGS__);           \
  }                                         \
  inline auto fields(core::Type& r) {       \
    return std::tie(__VA_ARGS__);           \
  }

ZARN_RECORD_FIELDS(GpsEphemeris, r.flags, r.svId, r.iodc, r.toe, r.uraIndex, r.health, r.iode, r.sqrtA, r.e,
                   r.i0, r.omega0, r.omega, r.m0, r.deltaN, r.omegaDot, r.iDot, r.cuc, r.cus, r.crc, r.crs,
                   r.cic, r.cis, r.toc, r.af0, r.af1, r.af2, r.tgd)

ZARN_RECORD_FIELDS(BeidouEphemeris, r.flags, r.svId, r.aodc, r.toe, r.uraIndex, r.health, r.aode, r.sqrtA,
                   r.e, r.i0, r.omega0, r.omega, r.m0, r.deltaN, r.omegaDot, r.iDot, r.cuc, r.cus, r.crc,
                   r.crs, r.cic, r.cis, r.iodc, r.toc, r.a0, r.a1, r.a2, r.tgd1, r.tgd2)

ZARN_RECORD_FIELDS(GlonassEphemeris, r.flags, r.svId, r.tb, r.time, r.frequencyNumber, r.health, r.age, r.x,
                   r.y, r.z, r.vx, r.vy, r.vz, r.ax, r.ay, r.az, r.tauN, r.gammaN, r.deltaTauN)

ZARN_RECORD_FIELDS(GpsAlmanac, r.flags, r.svId, r.toa, r.wna, r.health, r.e, r.deltaI, r.omegaDot, r.sqrtA,
                   r.omega0, r.omega, r.m0, r.af0, r.af1)

ZARN_RECORD_FIELDS(GlonassAlmanac, r.flags, r.svId, r.time, r.na, r.health, r.frequencyNumber, r.lambda,
                   r.tLambda, r.deltaI, r.deltaT, r.deltaTDot, r.epsilon, r.omega, r.tau)

ZARN_RECORD_FIELDS(BeidouAlmanac, r.flags, r.svId, r.toa, r.wna, r.health, r.sqrtA, r.deltaI, r.omegaDot, r.e,
                   r.omega0, r.omega, r.m0, r.a0, r.a1)

#undef ZARN_RECORD_FIELDS

}  // namespace detail
}  // namespace support
}  // namespace zarn

#endif
