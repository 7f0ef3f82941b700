// Conical Earth shadow and solar radiation pressure.
#ifndef ZARN_SUPPORT_FORCE_MODEL_RADIATION_PRESSURE_HPP
#define ZARN_SUPPORT_FORCE_MODEL_RADIATION_PRESSURE_HPP

namespace zarn {
namespace support {
namespace forces {

// Visible fraction of the solar disc, 0 (umbra) to 1, at r for the Sun at
// `sun` (m, geocentric, same axes).
double shadowFraction(double const r[3], double const sun[3]);

// Radiation-pressure acceleration acc (m/s^2) at r for the Sun at `sun` (m):
// direct pressure away from the Sun scaled by the shadow and p1, plus a
// Y-bias of p2 in units of 1e-9 m/s^2 along r x (sun - r). With `partials`
// set, P receives the 3x8 partials: columns 0-2 for r with the shadow held
// fixed and, with `parameterColumns` set, columns 6-7 for p1 and p2.
void radiationPressure(double const r[3], double const sun[3], double p1, double p2, double acc[3],
                       double (*P)[8], bool partials, bool parameterColumns);

}  // namespace forces
}  // namespace support
}  // namespace zarn

#endif
