// Fit-and-encode round trip of broadcast records, shared by the fit tests on
// built-in records and on whole navigation files.
#ifndef ZARN_TESTS_KEPLERIAN_FIT_CHECK_HPP
#define ZARN_TESTS_KEPLERIAN_FIT_CHECK_HPP

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "support/broadcast_records.hpp"
#include "zarn/support/ephemeris_conversion.hpp"
#include "zarn/support/time_conversion.hpp"

namespace zarn {
namespace test {

constexpr double kPi = 3.14159265358979323846;

struct Samples {
  support::Mat r, v;
  support::Vec t;
};

// n states of a record at t0 + k step (GPS seconds), one per column.
template <typename Record>
Samples sample(Record const& e, double t0, double step, unsigned n) {
  Samples s{support::Mat(3, n), support::Mat(3, n), support::Vec(n)};
  support::Vec p(3), v(3);
  for (unsigned k = 0; k < n; ++k) {
    s.t(k) = t0 + k * step;
    position(e, s.t(k), p, v);
    column(s.r, k) = p, column(s.v, k) = v;
  }
  return s;
}

inline bool fit(core::GnssType gnss, Samples const& s, support::Vec& kepler) {
  return support::satelliteStatesToKeplerian(gnss, s.r, s.v, s.t, kepler);
}

// Largest distance (m) between the positions of two records at the times.
template <typename Record>
double largestDistance(Record const& a, Record const& b, support::Vec const& t) {
  support::Vec pa(3), pb(3), v(3);
  double d = 0.0;
  for (double tk : t) {
    position(a, tk, pa, v), position(b, tk, pb, v);
    d = std::fmax(d, norm_2(pa - pb));
  }
  return d;
}

// Largest difference of the orbit words, in units of their last bit. Only the
// sum of omega and M0 counts: for small e the positions fix the argument of
// latitude but split it between perigee and anomaly only to 1 cm / (a e).
template <typename Record>
std::int64_t largestWordDifference(Record const& a, Record const& b) {
  Words const wa = words(a), wb = words(b);
  std::int64_t d = std::llabs(wa.w[4] + wa.w[5] - wb.w[4] - wb.w[5]);
  for (int k = 0; k < 15; ++k)
    if (k != 4 && k != 5) d = std::max<std::int64_t>(d, std::llabs(wa.w[k] - wb.w[k]));
  return d;
}

inline double toeGps(core::GpsEphemeris const& e) {
  return support::gpsToGpsSecs(e.toe);
}
inline double toeGps(core::BeidouEphemeris const& e) {
  return support::beidouSecsToGpsSecs(support::beidouToSecs(e.toe));
}

inline bool encode(support::Vec const& kepler, core::GpsEphemeris& e) {
  return support::keplerianToGpsEphemeris(kepler, e);
}
inline bool encode(support::Vec const& kepler, core::BeidouEphemeris& e) {
  return support::keplerianToBeidouEphemeris(kepler, e);
}

// Fits four hours of positions centred on the record's toe and encodes them.
template <typename Record>
void expectRecovered(core::GnssType gnss, Record const& truth, std::int64_t wordTolerance, double metres,
                     char const* name) {
  Samples const s = sample(truth, toeGps(truth) - 7200.0, 300.0, 49);
  support::Vec kepler;
  ASSERT_TRUE(fit(gnss, s, kepler) && kepler.size() == 17u) << name;
  for (int k : {2, 3, 4, 5})  // signed angle words
    EXPECT_TRUE(kepler(k) >= -kPi && kepler(k) < kPi) << name << " " << k << " " << kepler(k);
  Record fitted;
  EXPECT_TRUE(encode(kepler, fitted) && fitted.toe == truth.toe) << name;
  std::int64_t const off = largestWordDifference(fitted, truth);
  EXPECT_TRUE(wordTolerance < 0 || off <= wordTolerance) << name << ": " << off << " LSBs";
  EXPECT_LT(largestDistance(fitted, truth, s.t), metres) << name;
}

}  // namespace test
}  // namespace zarn

#endif
