// Broadcast ephemerides copied from RINEX files of the shared data, every
// orbit field divided by its ICD scale factor, and their Earth-fixed states.
#ifndef ZARN_TESTS_BROADCAST_RECORDS_HPP
#define ZARN_TESTS_BROADCAST_RECORDS_HPP

#include <cstdint>
#include <type_traits>

#include "zarn/core/records.hpp"
#include "zarn/support/ephemeris_conversion.hpp"

namespace zarn {
namespace test {

// Orbit words in kepler order: sqrtA, e, i0, Omega0, omega, M0, deltaN, iDot,
// OmegaDot, cuc, cus, crc, crs, cic, cis.
struct Words {
  std::int64_t w[15];
};

template <typename Record>
Words words(Record const& e) {
  return Words{{e.sqrtA, e.e, e.i0, e.omega0, e.omega, e.m0, e.deltaN, e.iDot, e.omegaDot, e.cuc, e.cus,
                e.crc, e.crs, e.cic, e.cis}};
}

template <typename Record>
Record withWords(core::Toc const& toe, Words const& w) {
  Record e;
  e.toe = toe;
  int k = 0;
  auto const set = [&](auto& field) { field = static_cast<std::decay_t<decltype(field)>>(w.w[k++]); };
  set(e.sqrtA), set(e.e), set(e.i0), set(e.omega0), set(e.omega), set(e.m0), set(e.deltaN), set(e.iDot);
  set(e.omegaDot), set(e.cuc), set(e.cus), set(e.crc), set(e.crs), set(e.cic), set(e.cis);
  return e;
}

// G02 of 2016-251_252_smartloc/brdc2510.16n, toe 2016-09-07 00:00 GPST.
inline core::GpsEphemeris gpsG02() {
  return withWords<core::GpsEphemeris>(
      core::Toc{1, 1913 - 1024, 259200},
      Words{{2701983690, 136738682, 645220091, 1501809608, -1427454651, -136637477, 14963, 688, -24532, -16,
             2998, 8618, -60, -34, 129}});
}

// 2016-158_smartloc/BRDC00WRD_U_20161580000_01D_MN.rnx, toe 2016-06-06 21:00
// BDT (BeiDou week 544, 162000 s).
inline core::BeidouEphemeris beidouC14() {  // MEO
  return withWords<core::BeidouEphemeris>(
      core::Toc{0, 544, 162000}, Words{{2769602277, 17478148, 653856522, -809780309, -1600043244, -2068620050,
                                        12173, -358, -19671, 5, 9268, 17357, 24, 26, -18}});
}
inline core::BeidouEphemeris beidouC08() {  // IGSO, Omega0 close to -pi
  return withWords<core::BeidouEphemeris>(
      core::Toc{0, 544, 162000}, Words{{3404513334, 20027247, 684952190, -2111115345, -1953438921, 701082316,
                                        1779, -264, -4468, -54894, 36288, -16749, -50308, 208, -118}});
}
inline core::BeidouEphemeris beidouC02() {  // GEO
  return withWords<core::BeidouEphemeris>(
      core::Toc{0, 544, 162000}, Words{{3404434446, 2242588, 67480784, 1710235433, 201772430, -1471520126,
                                        -11748, 1172, 14510, -48570, -21702, 19457, -43872, -76, 120}});
}

// Earth-fixed position (and the model's velocity) at t, GPS seconds.
inline void position(core::GpsEphemeris const& e, double t, support::Vec& p, support::Vec& v) {
  support::gpsEphemerisToEcef(e, t, p, v);
}
inline void position(core::BeidouEphemeris const& e, double t, support::Vec& p, support::Vec& v) {
  support::beidouEphemerisToEcef(e, t, p, v);
}

}  // namespace test
}  // namespace zarn

#endif
