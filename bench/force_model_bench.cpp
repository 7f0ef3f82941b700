#include <benchmark/benchmark.h>

#include <cmath>

#include "zarn/support/force_model.hpp"
#include "zarn/support/numerical_integration.hpp"

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
// Sun, radiation pressure; partials when range(1) is 1; the accurate Sun and
// Moon (as the pipelines use them) when range(2) is 1.
void BM_ForceModel(benchmark::State& state) {
  ForceModel model;
  model.setNumberOfGeopotentialCoefficients(static_cast<int>(state.range(0)));
  model.setAccDerivatives(state.range(1) != 0);
  model.setAccurateSunMoon(state.range(2) != 0);
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
    ->ArgNames({"degree", "partials", "accurate"})
    ->Args({8, 0, 0})
    ->Args({8, 1, 0})
    ->Args({16, 0, 0})
    ->Args({16, 1, 0})
    ->Args({8, 0, 1})
    ->Args({8, 1, 1});

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

// The low-precision series (accurate:0) and the longer one (accurate:1).
void BM_SunMoonCoord(benchmark::State& state) {
  auto const series = state.range(0) != 0 ? &ForceModel::sunMoonCoordAccurate : &ForceModel::sunMoonCoord;
  Vec moon(3), sun(3);
  double t = 1.2e9;
  for (auto _ : state) {
    series(t, moon, sun);
    benchmark::DoNotOptimize(moon.data().begin());
    t += 1.0;
  }
}
BENCHMARK(BM_SunMoonCoord)->ArgName("accurate")->Arg(0)->Arg(1);

// A circular GPS-like orbit, a = 26560 km, i = 55 deg.
void gpsState(Vec& r, Vec& v) {
  double const a = 26560000.0, inc = 0.9599310885968813, speed = std::sqrt(3.986004418e14 / a);
  r = Vec(3);
  v = Vec(3);
  r(0) = a;
  r(1) = 0.0;
  r(2) = 0.0;
  v(0) = 0.0;
  v(1) = speed * std::cos(inc);
  v(2) = speed * std::sin(inc);
}

// One right-hand side of the 72-element variational equations (degree 8).
void BM_OdeFunRkf78(benchmark::State& state) {
  ForceModel model;
  zarn::support::OdeFunRkf78 f(model);
  Vec r, v;
  gpsState(r, v);
  Vec x(72, 0.0), dx(72);
  for (int i = 0; i < 3; ++i) {
    x(i) = r(i);
    x(3 + i) = v(i);
  }
  for (int i = 0; i < 8; ++i) x(8 + 9 * i) = 1.0;
  double t = 1.2e9;
  for (auto _ : state) {
    f(x, dx, t);
    benchmark::DoNotOptimize(dx.data().begin());
    t += 1.0;
  }
}
BENCHMARK(BM_OdeFunRkf78);

// Seven days of Gauss-Jackson at 300 s on the full model (degree 8), start-up
// included.
void BM_Gj8SevenDays(benchmark::State& state) {
  ForceModel model;
  zarn::support::OdeFunGj8 f(model);
  Vec r, v;
  gpsState(r, v);
  unsigned const steps = 7 * 288;
  Mat R(3, steps), V(3, steps);
  for (auto _ : state) {
    model.getGj8Integrator().gj8Init(f, r, v, 1.2e9, 300.0);
    model.getGj8Integrator().gj8Propagate(f, R, V, steps);
    benchmark::DoNotOptimize(R.data().begin());
  }
}
BENCHMARK(BM_Gj8SevenDays)->Unit(benchmark::kMillisecond);

}  // namespace
