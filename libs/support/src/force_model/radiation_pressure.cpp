#include "force_model/radiation_pressure.hpp"

#include <cmath>

#include "force_model/vector3.hpp"

namespace zarn {
namespace support {
namespace forces {
namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kSunRadius = 695500000.0;            // m (Cox 2000, Allen's Astrophysical Quantities)
constexpr double kAstronomicalUnit = 149597870691.0;  // m (JPL DE405, Standish 1998)
// Earth radius of the shadow cone: the equatorial radius plus about 24 km of
// atmosphere that already dims grazing sunlight (our margin).
constexpr double kShadowEarthRadius = 6402000.0;  // m
// Radiation pressure of the Sun at 1 AU on an absorbing surface
// (Montenbruck & Gill, Satellite Orbits, 2000, 3.4.1).
constexpr double kSolarPressure = 4.56e-6;  // N/m^2
// One nominal satellite for every constellation: the per-satellite scale p1
// absorbs the difference to the real bus. The mass is near that of GPS Block
// IIR (1080 kg, IGS satellite metadata SINEX); reflectivity and area are
// nominal values of that class, not taken from a published table.
constexpr double kReflectivity = 1.21;
constexpr double kSatelliteArea = 13.4;    // m^2
constexpr double kSatelliteMass = 1075.0;  // kg
constexpr double kSrpPerUnitScale =
    kSolarPressure * kReflectivity * kSatelliteArea / kSatelliteMass;  // m/s^2 at 1 AU per unit of p1
// Unit of the Y-bias p2: the GPS Y-bias is of this order (Fliegel, Gallini &
// Swift 1992, J. Geophys. Res. 97(B1), 559-568).
constexpr double kYBiasUnit = 1e-9;  // m/s^2

}  // namespace

// Conical shadow of a spherical Earth (Montenbruck & Gill 3.4.2).
double shadowFraction(double const r[3], double const sun[3]) {
  double const d[3] = {sun[0] - r[0], sun[1] - r[1], sun[2] - r[2]};
  double const dn = norm3(d), rn = norm3(r);
  double const a = std::asin(kSunRadius / dn);
  double const b = std::asin(kShadowEarthRadius / rn);
  double const c = std::acos(-dot3(r, d) / (rn * dn));
  if (std::fabs(a - b) < c && c < a + b) {
    double const x = (c * c + a * a - b * b) / (2.0 * c);
    double const y = std::sqrt(a * a - x * x);
    double const area = a * a * std::acos(x / a) + b * b * std::acos((c - x) / b) - c * y;
    return 1.0 - area / (kPi * a * a);
  }
  if (c < a + b) {
    if (c < b - a) return 0.0;
    return 0.0;  // annulus: the Sun's disc inside the Earth's cannot be seen from a satellite orbit
  }
  return 1.0;
}

void radiationPressure(double const r[3], double const sun[3], double p1, double p2, double acc[3],
                       double (*P)[8], bool partials, bool parameterColumns) {
  double const nu = shadowFraction(r, sun);
  double const d[3] = {sun[0] - r[0], sun[1] - r[1], sun[2] - r[2]};
  double const dn2 = dot3(d, d), dn = std::sqrt(dn2);
  double const e[3] = {d[0] / dn, d[1] / dn, d[2] / dn};
  double const direct = nu * kSrpPerUnitScale * (kAstronomicalUnit * kAstronomicalUnit / dn2);
  double const aD = -p1 * direct;
  double const y[3] = {r[1] * d[2] - r[2] * d[1], r[2] * d[0] - r[0] * d[2], r[0] * d[1] - r[1] * d[0]};
  double const yn = norm3(y);
  double const eY[3] = {y[0] / yn, y[1] / yn, y[2] / yn};
  double const aY = p2 * kYBiasUnit;
  for (int i = 0; i < 3; ++i) acc[i] = aD * e[i] + aY * eY[i];
  if (!partials) return;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 8; ++j) P[i][j] = 0.0;
  // d(a_D)/dr = p1 nu K AU^2 (I - 3 e e^T) / |d|^3 ;
  // d(a_Y)/dr = p2 1e-9 (I - eY eY^T) / |y| * (-[sun x]), since y = r x sun.
  double const fD = p1 * direct / dn;
  double const fY = aY / yn;
  double const sx[3][3] = {{0.0, -sun[2], sun[1]}, {sun[2], 0.0, -sun[0]}, {-sun[1], sun[0], 0.0}};
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      double py = 0.0;
      for (int k = 0; k < 3; ++k) py -= ((i == k ? 1.0 : 0.0) - eY[i] * eY[k]) * sx[k][j];
      P[i][j] = fD * ((i == j ? 1.0 : 0.0) - 3.0 * e[i] * e[j]) + fY * py;
    }
  if (parameterColumns) {
    for (int i = 0; i < 3; ++i) {
      P[i][6] = -direct * e[i];
      P[i][7] = kYBiasUnit * eY[i];
    }
  }
}

}  // namespace forces
}  // namespace support
}  // namespace zarn
