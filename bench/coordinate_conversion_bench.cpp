// Terrestrial-inertial transformation: cost per call.
#include <benchmark/benchmark.h>

#include "zarn/support/coordinate_conversion.hpp"

namespace zs = zarn::support;

namespace {

void BM_IcrsToInt0(benchmark::State& state) {
  double t = 1.3e9;
  for (auto _ : state) {
    benchmark::DoNotOptimize(zs::icrsToInt0(t, 0.1, 18));
    t += 30.0;
  }
}
BENCHMARK(BM_IcrsToInt0);

void BM_ToEcef(benchmark::State& state) {
  zs::Vec r(3), v(3), re(3), ve(3);
  r(0) = 15600e3;
  r(1) = -7540e3;
  r(2) = 19800e3;
  v(0) = -1250.0;
  v(1) = 2830.0;
  v(2) = 1900.0;
  zs::Eop const eop{2.4e-7, 1.7e-6};
  double const t0 = 1.3e9;
  double t = t0;
  for (auto _ : state) {
    zs::toEcef(r, v, t, t0, eop, 0.1, 18, re, ve);
    benchmark::DoNotOptimize(re.data());
    benchmark::DoNotOptimize(ve.data());
    t += 30.0;
  }
}
BENCHMARK(BM_ToEcef);

}  // namespace
