// Throughput of the container protections and cost of the double codec.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "zarn/support/encryption.hpp"
#include "zarn/support/serialization.hpp"

namespace zs = zarn::support;

namespace {

zs::BinaryData randomBytes(std::size_t n) {
  std::mt19937 rng(1);
  zs::BinaryData out(n);
  for (auto& b : out) b = rng() & 0xFF;
  return out;
}

std::vector<double> sampleDoubles() {
  std::mt19937_64 rng(2);
  std::uniform_real_distribution<double> u(-3e7, 3e7);  // positions in metres
  std::vector<double> out(1024);
  for (double& x : out) x = u(rng);
  return out;
}

void BM_Crc32(benchmark::State& state) {
  zs::BinaryData const data = randomBytes(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(zs::computeCrc32(data.data(), data.data() + data.size()));
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Crc32)->Arg(64 << 10);

void BM_TripleDesEncrypt(benchmark::State& state) {
  zs::BinaryData const data = randomBytes(static_cast<std::size_t>(state.range(0)));
  std::string const key = "0123456789ABCDEF23456789";
  zs::BinaryData out;
  for (auto _ : state) {
    zs::tripleDesEncrypt(data, key.data(), out);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_TripleDesEncrypt)->Arg(64 << 10);

void BM_ContainerDecrypt(benchmark::State& state) {
  zs::BinaryData sealed;
  zs::encrypt(randomBytes(static_cast<std::size_t>(state.range(0))), sealed);
  zs::BinaryData out;
  for (auto _ : state) {
    zs::decrypt(sealed, out);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ContainerDecrypt)->Arg(64 << 10);

// Per-double cost: the counter "per_double" reports seconds per value.
void BM_DoubleEncode(benchmark::State& state) {
  std::vector<double> const values = sampleDoubles();
  zs::BinaryData out;
  out.reserve(values.size() * 12);
  for (auto _ : state) {
    out.clear();
    unsigned count = 0;
    for (double x : values) zs::serialize(x, out, count);
    benchmark::DoNotOptimize(out.data());
  }
  state.counters["per_double"] =
      benchmark::Counter(static_cast<double>(state.iterations() * values.size()),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_DoubleEncode);

void BM_DoubleDecode(benchmark::State& state) {
  std::vector<double> const values = sampleDoubles();
  zs::BinaryData encoded;
  unsigned count = 0;
  for (double x : values) zs::serialize(x, encoded, count);
  for (auto _ : state) {
    unsigned index = 0;
    double x = 0.0;
    while (zs::deserialize(encoded, index, x)) benchmark::DoNotOptimize(x);
  }
  state.counters["per_double"] =
      benchmark::Counter(static_cast<double>(state.iterations() * values.size()),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_DoubleDecode);

}  // namespace
