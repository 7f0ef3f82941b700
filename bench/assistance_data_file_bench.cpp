// Saving and loading the assistance-data container of a full GPS constellation.
#include <benchmark/benchmark.h>

#include "zarn/support/assistance_data.hpp"

namespace zs = zarn::support;

namespace {

zs::AssistanceDataFile gpsFile() {
  zs::AssistanceDataFile file(zarn::core::GPS);
  for (unsigned short sv = 1; sv <= 32; ++sv) {
    zs::AssistanceData a = zs::AssistanceDataFile::defaultAssistance(zarn::core::GPS, sv);
    a.clockModelParams = {{1234567.0, 1e-4, 1e-9, 1e-18, 0.0, 0.0}};
    file.storeAssistance(sv, a);
  }
  return file;
}

void BM_AssistanceDataFileSaveGps32(benchmark::State& state) {
  zs::AssistanceDataFile file = gpsFile();
  zs::BinaryData out;
  for (auto _ : state) {
    bool const ok = file.save(out, 0);
    benchmark::DoNotOptimize(ok);
  }
  state.counters["bytes"] = static_cast<double>(out.size());
}
BENCHMARK(BM_AssistanceDataFileSaveGps32);

void BM_AssistanceDataFileLoadGps32(benchmark::State& state) {
  zs::AssistanceDataFile file = gpsFile();
  zs::BinaryData bytes;
  file.save(bytes, 0);
  zs::AssistanceDataFile target(zarn::core::GPS);
  for (auto _ : state) {
    zarn::core::Status const status = target.load(bytes);
    benchmark::DoNotOptimize(status);
  }
  state.counters["bytes"] = static_cast<double>(bytes.size());
}
BENCHMARK(BM_AssistanceDataFileLoadGps32);

}  // namespace
