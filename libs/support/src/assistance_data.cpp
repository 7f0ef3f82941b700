#include "zarn/support/assistance_data.hpp"

namespace zarn {
namespace support {

AssistanceData makeZeroAssistanceData() {
  AssistanceData data;
  data.gnssType = static_cast<core::GnssType>(0);
  data.svId = 0;
  data.svFlags = 0;
  data.maxPredictionLength = 0;
  data.srp.fill(0.0);
  data.antPhase.fill(0.0);
  data.errorParams.fill(0.0);
  data.clockModelParams.fill(0.0);
  data.outages.clear();
  return data;
}

}  // namespace support
}  // namespace zarn
