// Integrator steps on the two-body problem of a GPS-like orbit.
#include <benchmark/benchmark.h>

#include <cmath>

#include "zarn/support/numerical_integration.hpp"

namespace zs = zarn::support;
using zs::Mat;
using zs::Vec;

namespace {

constexpr double kGm = 3.986004418e14;  // m^3/s^2

struct TwoBody : zs::OdeFunction {
  void operator()(Vec const& x, Vec& dx, double) override {
    dx.resize(6, false);
    double const r = std::sqrt(x(0) * x(0) + x(1) * x(1) + x(2) * x(2));
    double const k = -kGm / (r * r * r);
    for (int i = 0; i < 3; ++i) {
      dx(i) = x(i + 3);
      dx(i + 3) = k * x(i);
    }
  }
};

struct TwoBody2 : zs::OdeFunction2 {
  void operator()(Vec const& y, Vec& a, double) override {
    a.resize(3, false);
    double const r = std::sqrt(y(0) * y(0) + y(1) * y(1) + y(2) * y(2));
    double const k = -kGm / (r * r * r);
    for (int i = 0; i < 3; ++i) a(i) = k * y(i);
  }
};

// Circular orbit of radius 26 560 km inclined by 55 degrees.
void gpsState(Vec& r, Vec& v) {
  double const radius = 26560.0e3, speed = std::sqrt(kGm / radius), inc = 55.0 * std::acos(-1.0) / 180.0;
  r = Vec(3);
  v = Vec(3);
  r(0) = radius, r(1) = 0.0, r(2) = 0.0;
  v(0) = 0.0, v(1) = speed * std::cos(inc), v(2) = speed * std::sin(inc);
}

// One accepted 300 s step per call (13 evaluations, working storage allocated per call).
void BM_Rkf78Step(benchmark::State& state) {
  TwoBody f;
  Vec r, v;
  gpsState(r, v);
  Vec x(6);
  for (int i = 0; i < 3; ++i) x(i) = r(i), x(i + 3) = v(i);
  double t = 0.0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(zs::rkf78(f, x, t, t + 300.0, 300.0, 1e-3));
    t += 300.0;
  }
}
BENCHMARK(BM_Rkf78Step);

// One 300 s Gauss-Jackson step per call, continuing one propagation.
void BM_Gj8Step(benchmark::State& state) {
  TwoBody2 f;
  Vec r, v;
  gpsState(r, v);
  zs::Gj8Integrator gj;
  gj.gj8Init(f, r, v, 0.0, 300.0);
  Mat R(3, 1), V(3, 1);
  gj.gj8Propagate(f, R, V, 4);  // past the start-up window
  for (auto _ : state) benchmark::DoNotOptimize(gj.gj8Propagate(f, R, V, 1));
}
BENCHMARK(BM_Gj8Step);

}  // namespace
