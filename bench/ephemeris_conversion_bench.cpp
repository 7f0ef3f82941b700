// Broadcast ephemeris evaluation: one Keplerian state, and one GLONASS state
// integrated 15 minutes (900 RK4 steps) from its reference time.
#include <benchmark/benchmark.h>

#include "zarn/support/ephemeris_conversion.hpp"
#include "zarn/support/time_conversion.hpp"

namespace zc = zarn::core;
namespace zs = zarn::support;
using zs::Vec;

namespace {

// GPS PRN 1, 2016-09-07 00:00 (brdc2510.16n), ICD-scaled.
Vec gpsEphemeris() {
  double const v[16] = {1913 * 604800.0 + 259200.0,
                        5153.70059395,
                        5.85920154117e-3,
                        0.965120108601,
                        2.24475851075,
                        0.543958671228,
                        -0.642947295164,
                        4.73376848831e-9,
                        2.27152324728e-10,
                        -8.25320078945e-9,
                        -1.86264514923e-7,
                        5.54136931896e-6,
                        274.71875,
                        -6.53125,
                        7.82310962677e-8,
                        3.16649675369e-8};
  Vec e(16);
  for (unsigned i = 0; i < 16; ++i) e(i) = v[i];
  return e;
}

void BM_keplerianEphemerisToEcef(benchmark::State& state) {
  Vec const eph = gpsEphemeris();
  Vec pos(3), vel(3);
  double t = eph(0) - 7200.0;
  for (auto _ : state) {
    zs::keplerianEphemerisToEcef(zc::GPS, eph, t, pos, vel);
    benchmark::DoNotOptimize(pos.data().begin());
    t += 1.0;
    if (t > eph(0) + 7200.0) t = eph(0) - 7200.0;
  }
}
BENCHMARK(BM_keplerianEphemerisToEcef);

void BM_glonassEphemerisToEcef15min(benchmark::State& state) {
  // GLONASS R01, tb 00:15 UTC on 2016-09-07 (brdc2510.16g).
  zc::GlonassEphemeris e;
  e.time = zc::Toc{5, 250, 11700};
  e.x = 30108669;
  e.y = 29161854;
  e.z = -31189192;
  e.vx = -1969394;
  e.vy = -955730;
  e.vz = -2792230;
  e.ax = 2;
  e.ay = 1;
  e.az = 2;
  std::vector<zs::LeapInfo> const leaps;
  double const t = zs::glonassSecsToGpsSecs(zs::glonassToSecs(e.time), leaps) + 900.0;
  Vec pos(3), vel(3);
  for (auto _ : state) {
    zs::glonassEphemerisToEcef(e, t, pos, vel, leaps);
    benchmark::DoNotOptimize(pos.data().begin());
  }
}
BENCHMARK(BM_glonassEphemerisToEcef15min);

}  // namespace
