#include <benchmark/benchmark.h>

#include "zarn/support/force_model.hpp"

namespace {

using zarn::support::ForceModel;
using zarn::support::Mat;
using zarn::support::Vec;

Vec gpsPosition() {
  Vec r(3);
  r(0) = -11280000.0;
  r(1) = 21703000.0;
  r(2) = 9405000.0;
  return r;
}

// One right-hand side of the orbit: gravity (degree = order = range(0)), Moon,
// Sun, radiation pressure; partials when range(1) is 1.
void BM_ForceModel(benchmark::State& state) {
  ForceModel model;
  model.setNumberOfGeopotentialCoefficients(static_cast<int>(state.range(0)));
  model.setAccDerivatives(state.range(1) != 0);
  Vec r = gpsPosition(), acc(3);
  Mat partials(3, 8);
  double t = 1.2e9;
  for (auto _ : state) {
    model.forceModel(t, r, acc, partials);
    benchmark::DoNotOptimize(acc.data().begin());
    t += 1.0;
  }
}
BENCHMARK(BM_ForceModel)
    ->ArgNames({"degree", "partials"})
    ->Args({8, 0})
    ->Args({8, 1})
    ->Args({16, 0})
    ->Args({16, 1});

void BM_Geopotential(benchmark::State& state) {
  ForceModel model;
  model.setAccDerivatives(state.range(1) != 0);
  Vec r = gpsPosition(), acc(3);
  Mat partials(3, 3);
  int const n = static_cast<int>(state.range(0));
  for (auto _ : state) {
    model.geopotential(r, n, n, acc, partials);
    benchmark::DoNotOptimize(acc.data().begin());
    r(0) += 1.0;
  }
}
BENCHMARK(BM_Geopotential)->ArgNames({"degree", "gradient"})->Args({8, 0})->Args({16, 0})->Args({16, 1});

void BM_SunMoonCoord(benchmark::State& state) {
  Vec moon(3), sun(3);
  double t = 1.2e9;
  for (auto _ : state) {
    ForceModel::sunMoonCoord(t, moon, sun);
    benchmark::DoNotOptimize(moon.data().begin());
    t += 1.0;
  }
}
BENCHMARK(BM_SunMoonCoord);

}  // namespace
