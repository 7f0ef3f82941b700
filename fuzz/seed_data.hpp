// Real broadcast records for the seed corpora, read from the shared sample
// data (only when seeds are written, never while fuzzing).
#ifndef ZARN_FUZZ_SEED_DATA_HPP
#define ZARN_FUZZ_SEED_DATA_HPP

#include <vector>

#include "zarn/core/records.hpp"

namespace zarn {
namespace fuzz {

std::vector<core::GpsEphemeris> realGps();
std::vector<core::BeidouEphemeris> realBeidou();
std::vector<core::GlonassEphemeris> realGlonass();

}  // namespace fuzz
}  // namespace zarn

#endif
