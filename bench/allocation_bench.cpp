// Heap allocations of the per-step evaluations, counted by a replacement of
// the global operator new in this binary only. A benchmark that finds one
// fails with an error, so a regression shows in every benchmark run.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <map>
#include <new>
#include <string>
#include <vector>

#include <malloc.h>

#include "zarn/host/ephemeris.hpp"
#include "zarn/host/gnss_time.hpp"
#include "zarn/host/pipeline.hpp"
#include "zarn/host/rinex_nav.hpp"
#include "zarn/support/force_model.hpp"
#include "zarn/support/numerical_integration.hpp"

namespace {

std::atomic<unsigned long long> allocations{0};
// Bytes held and the most held since the last reset (one thread at a time).
std::atomic<long long> held{0}, mostHeld{0};

// Out of line so that the compiler does not pair the frees below with the
// operators it sees them in.
__attribute__((noinline)) void* acquire(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size == 0 ? 1 : size)) {
    long long const now = held.fetch_add(static_cast<long long>(malloc_usable_size(p))) +
                          static_cast<long long>(malloc_usable_size(p));
    if (now > mostHeld.load(std::memory_order_relaxed)) mostHeld.store(now, std::memory_order_relaxed);
    return p;
  }
  throw std::bad_alloc();
}
__attribute__((noinline)) void release(void* p) noexcept {
  if (p != nullptr) held.fetch_sub(static_cast<long long>(malloc_usable_size(p)));
  std::free(p);
}

}  // namespace

void* operator new(std::size_t size) {
  return acquire(size);
}
void* operator new[](std::size_t size) {
  return acquire(size);
}
void operator delete(void* p) noexcept {
  release(p);
}
void operator delete[](void* p) noexcept {
  release(p);
}
void operator delete(void* p, std::size_t) noexcept {
  release(p);
}
void operator delete[](void* p, std::size_t) noexcept {
  release(p);
}

namespace {

namespace zs = zarn::support;

// Gravity of degree range(0), Sun, Moon and radiation pressure, with the
// partials when range(1) is 1; the first call may size the outputs.
void BM_ForceModelAllocations(benchmark::State& state) {
  zs::ForceModel model;
  model.setNumberOfGeopotentialCoefficients(static_cast<int>(state.range(0)));
  model.setAccDerivatives(state.range(1) != 0);
  model.setSrpComputation(true);
  zs::Vec r(3), acc(3);
  r(0) = -11280000.0;
  r(1) = 21703000.0;
  r(2) = 9405000.0;
  zs::Mat partials(3, 8);
  double t = 1.2e9;
  model.forceModel(t, r, acc, partials);
  unsigned long long const before = allocations.load();
  long long evaluations = 0;
  for (auto _ : state) {
    model.forceModel(t, r, acc, partials);
    benchmark::DoNotOptimize(acc.data().begin());
    t += 1.0;
    ++evaluations;
  }
  unsigned long long const made = allocations.load() - before;
  state.counters["allocations_per_evaluation"] =
      evaluations > 0 ? static_cast<double>(made) / static_cast<double>(evaluations) : 0.0;
  if (made != 0) state.SkipWithError("the force model allocates on the heap");
}
BENCHMARK(BM_ForceModelAllocations)->ArgNames({"degree", "partials"})->Args({8, 0})->Args({16, 1});

// One Gauss-Jackson step after start-up: the force model and the corrector.
void BM_Gj8StepAllocations(benchmark::State& state) {
  zs::ForceModel model;
  zs::Vec r(3), v(3);
  r(0) = -11280000.0;
  r(1) = 21703000.0;
  r(2) = 9405000.0;
  v(0) = -2800.0;
  v(1) = -1200.0;
  v(2) = 1500.0;
  zs::OdeFunGj8 ode(model);
  zs::Gj8Integrator& integrator = model.getGj8Integrator();
  integrator.gj8Init(ode, r, v, 1.2e9, 900.0);
  zs::Mat pm(3, 1), vm(3, 1);
  integrator.gj8Propagate(ode, pm, vm, 1);
  unsigned long long const before = allocations.load();
  long long steps = 0;
  for (auto _ : state) {
    integrator.gj8Propagate(ode, pm, vm, 1);
    ++steps;
  }
  unsigned long long const made = allocations.load() - before;
  state.counters["allocations_per_step"] =
      steps > 0 ? static_cast<double>(made) / static_cast<double>(steps) : 0.0;
}
BENCHMARK(BM_Gj8StepAllocations);

// The most heap one satellite's seven-day prediction holds beyond what was
// held before it (the records it is given): at most 1 MB per satellite in
// flight.
void BM_PipelineOneSatellitePeakHeap(benchmark::State& state) {
  namespace zh = zarn::host;
  constexpr long long kLimit = 1 << 20;  // bytes
  std::map<zh::SatelliteId, std::vector<zh::Ephemeris>> records;
  zh::PipelineOptions options;
  try {
    records = zh::collectEphemerides(
        {zh::readRinexNav(std::string(ZARN_SHARED_DIR) + "/data/2016-251_252_smartloc/brdc2510.16n")});
    zh::parseGpsTime("2016-09-08T00:00:00", options.fitEnd);
  } catch (std::exception const&) {
    return state.SkipWithError("shared data not found");
  }
  options.days = 7.0;
  std::vector<zh::Ephemeris> const& satellite = records.at({'G', 12});
  long long peak = 0;
  for (auto _ : state) {
    long long const before = held.load();
    mostHeld.store(before);
    zh::SatellitePrediction const p = zh::predictFromBroadcast(satellite, options);
    benchmark::DoNotOptimize(p.predicted.data());
    peak = std::max(peak, mostHeld.load() - before);
  }
  state.counters["peak_bytes"] = static_cast<double>(peak);
  if (peak > kLimit) state.SkipWithError("one satellite holds more than 1 MB of heap");
}
BENCHMARK(BM_PipelineOneSatellitePeakHeap)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
