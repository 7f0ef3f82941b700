// Small stateless GNSS helpers: texts of the core enumerations, satellite
// number ranges, outage tests, user range accuracy (URA) indices, signal-in-
// space range error (SISRE) and prediction errors in the orbital frame.
#ifndef ZARN_SUPPORT_UTILITY_HPP
#define ZARN_SUPPORT_UTILITY_HPP

#include <cstdint>
#include <string>
#include <utility>

#include "zarn/core/records.hpp"
#include "zarn/support/assistance_data.hpp"
#include "zarn/support/export.hpp"
#include "zarn/support/math.hpp"

namespace zarn {
namespace support {

// BeiDou orbit type (BDS-SIS-ICD-B1I): geostationary, inclined geosynchronous,
// medium Earth orbit.
enum BeidouSvType : std::uint32_t { UNDEFINED_SAT_TYPE = 0, GEO = 1, IGSO = 2, MEO = 3 };

// Texts of the core enumerations; values outside the tables give
// "UNKNOWN STATUS", "UNKNOWN STATE" and "UNKNOWN GNSS".
ZARN_EXPORT std::string toString(core::Status status);
ZARN_EXPORT std::string toString(core::GnssState state);
ZARN_EXPORT std::string toString(core::GnssType type);

// First and last satellite number of the constellation; {0, 0} for an
// unknown type.
ZARN_EXPORT std::pair<std::uint16_t, std::uint16_t> getSvIdRange(core::GnssType type);
// True for GPS, GLONASS, BeiDou and Galileo satellite numbers inside the range.
ZARN_EXPORT bool validSvId(core::GnssType type, unsigned short svId);

// True when some outage of `data` has start <= t <= stop. Toc values are
// compared field by field, never converted to seconds.
ZARN_EXPORT bool isWithinOutage(core::Toc const& t, AssistanceData const& data);
// True when some outage starts or stops in [t0, t1) or covers all of it.
ZARN_EXPORT bool isWithinOutage(core::Toc const& t0, core::Toc const& t1, AssistanceData const& data);

// Smallest URA index (0..14) whose accuracy bound (m) is at least |metres|;
// 15 when none is. GLONASS uses the table of its accuracy word FT (GLONASS
// ICD), every other type the GPS URA table (IS-GPS-200 20.3.3.3.1.3).
ZARN_EXPORT unsigned char metersToUraIndex(double metres, core::GnssType type);
// Accuracy bound (m) of a URA index; indices above 14 give that of 14.
ZARN_EXPORT double uraIndexToMeters(unsigned char index, core::GnssType type);

// Euclidean distance (m) between the first three components of a and b
// (both of size 3 or more).
ZARN_EXPORT double distance(Vec const& a, Vec const& b);

// Orbit-plus-clock SISRE (m) from an RTN orbit error (m, size 3 or more) and
// a clock error (m): sqrt((wr R - clock)^2 + W (T^2 + N^2)), weighted for
// the constellation's orbit altitude as in Montenbruck et al., "Broadcast
// versus precise ephemerides: a multi-GNSS perspective", GPS Solutions 19
// (2015); BeiDou GEO and IGSO satellites have their own weights. 0 for other
// constellations.
ZARN_EXPORT double sisreError(Vec const& rtn, double clockError, core::GnssType type, BeidouSvType svType);

// Expected SISRE (m) after a prediction of age t: p0 t^2 + p1 t + p2, t in the
// unit that the parameters were fitted for.
ZARN_EXPORT double estimateSisreError(PredictionErrorParams const& p, double t);

// position - reference (m, inertial, size 3) in the radial, transverse and
// normal axes of the orbit given by position and velocity (m/s, inertial).
ZARN_EXPORT Vec predictionRtn(Vec const& position, Vec const& velocity, Vec const& reference);

}  // namespace support
}  // namespace zarn

#endif
