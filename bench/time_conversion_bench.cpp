// Time-scale conversions on the per-sample path of ephemeris evaluation.
#include <benchmark/benchmark.h>

#include <vector>

#include "zarn/support/time_conversion.hpp"

namespace zs = zarn::support;

namespace {

constexpr double START = 1.2e9;  // GPS seconds, 2018
constexpr double STEP = 937.0;   // s

void BM_GpsSecsToGps(benchmark::State& state) {
  double t = START;
  for (auto _ : state) {
    benchmark::DoNotOptimize(zs::gpsSecsToGps(t));
    t += STEP;
  }
}
BENCHMARK(BM_GpsSecsToGps);

void BM_SecsToGlonass(benchmark::State& state) {
  double t = START - 5.0e8;
  for (auto _ : state) {
    benchmark::DoNotOptimize(zs::secsToGlonass(t));
    t += STEP;
  }
}
BENCHMARK(BM_SecsToGlonass);

// Past 2015 the caller's table is walked in time order on every call.
void BM_GpsToGlonassWithTable(benchmark::State& state) {
  std::vector<zs::LeapInfo> const table{{1167263999, 18}};
  double t = START;
  for (auto _ : state) {
    benchmark::DoNotOptimize(zs::gpsSecsToGlonassSecs(t, table));
    t += STEP;
  }
}
BENCHMARK(BM_GpsToGlonassWithTable);

}  // namespace
