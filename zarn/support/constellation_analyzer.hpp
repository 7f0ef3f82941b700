// Per-satellite bookkeeping of initialisation and prediction outcomes.
#ifndef ZARN_SUPPORT_CONSTELLATION_ANALYZER_HPP
#define ZARN_SUPPORT_CONSTELLATION_ANALYZER_HPP

#include <cstdint>

#include "zarn/core/records.hpp"
#include "zarn/support/export.hpp"

namespace zarn {
namespace support {

// Outcome of one initialisation (type 1 or 2) or prediction (other types).
struct PredictorEvent {
  double time = 0.0;  // GPS seconds
  std::int32_t type = 0;
  core::Status status = static_cast<core::Status>(0);
};

inline bool operator==(PredictorEvent const& a, PredictorEvent const& b) {
  return a.time == b.time && a.type == b.type && a.status == b.status;
}

}  // namespace support
}  // namespace zarn

#endif
