// The Sun and the Moon from ERFA, the independent oracle of the force-model
// and eclipse tests.
#ifndef ZARN_TESTS_ERFA_BODIES_HPP
#define ZARN_TESTS_ERFA_BODIES_HPP

#include <erfa.h>

namespace zarn {
namespace test {

constexpr double kJdGpsOrigin = 2444244.5;  // Julian date of 1980-01-06 00:00
constexpr double kGpsToTt = 51.184;         // TT - GPS time, s
constexpr double kAu = 149597870700.0;      // IAU 2012, m

// Geometric geocentric Sun and Moon in the GCRS (within 23 mas of the mean
// equator and equinox of J2000), metres, at GPS time t.
inline void erfaSunMoon(double t, double sun[3], double moon[3]) {
  double const tt = (t + kGpsToTt) / 86400.0;
  double pvh[2][3], pvb[2][3], pvm[2][3];
  eraEpv00(kJdGpsOrigin, tt, pvh, pvb);  // TDB ~ TT here
  eraMoon98(kJdGpsOrigin, tt, pvm);
  for (int i = 0; i < 3; ++i) {
    sun[i] = -pvh[0][i] * kAu;
    moon[i] = pvm[0][i] * kAu;
  }
}

}  // namespace test
}  // namespace zarn

#endif
