// Antenna offsets for callers that already hold the rotation of the epoch.
#ifndef ZARN_SUPPORT_SRC_APC_OFFSET_HPP
#define ZARN_SUPPORT_SRC_APC_OFFSET_HPP

#include "zarn/support/assistance_data.hpp"
#include "zarn/support/math.hpp"

namespace zarn {
namespace support {

// addApcOffset(position, antPhase, t, leapSeconds) with icrsToDate =
// icrsToInt0(t, 0, leapSeconds) given: the rotation is most of the cost, and a
// conversion of states to the Earth-fixed frame has just computed it.
Vec addApcOffsetInFrame(Vec const& position, AntennaPhase const& antPhase, double t, Mat const& icrsToDate);
// The same with the Sun of date (m, the Earth-rotating frame of date) given,
// without allocation.
void addApcOffsetWithSun(double const (&position)[3], AntennaPhase const& antPhase,
                         double const (&sunOfDate)[3], double (&out)[3]);

}  // namespace support
}  // namespace zarn

#endif
