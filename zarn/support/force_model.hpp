// The satellite's equation of motion: geopotential to degree and order 16,
// analytic Sun and Moon, solar radiation pressure behind a conical Earth
// shadow, and the partial derivatives that the variational equations need.
#ifndef ZARN_SUPPORT_FORCE_MODEL_HPP
#define ZARN_SUPPORT_FORCE_MODEL_HPP

#include <vector>

#include "zarn/core/records.hpp"
#include "zarn/support/assistance_data.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/export.hpp"
#include "zarn/support/math.hpp"
#include "zarn/support/numerical_integration.hpp"

namespace zarn {
namespace support {

// Holds the per-satellite model parameters (AssistanceData: srp[0] scales the
// direct radiation pressure, srp[1] is a Y-bias in 1e-9 m/s^2), the
// quasi-inertial frame (InertialFrameInfo: reference epoch t_ref and the 3x3
// matrix M_I taking Sun and Moon from the mean equator and equinox of J2000
// into it), the Earth orientation (EopInfo: pole angles xp, yp and the 3x3
// polar-motion matrix E = R2(-xp) R1(-yp)) and the leap-second table.
// An EopInfo or InertialFrameInfo whose matrix is not 3x3 acts as identity.
// Not thread-safe; copying is not supported.
class ZARN_EXPORT ForceModel {
 public:
  // Defaults: derivatives on, SRP parameters off (columns 6-7 of the partials
  // are then the pole partials), degree and order 8, everything else zero.
  ForceModel();
  ~ForceModel();
  ForceModel(ForceModel const&) = delete;
  ForceModel& operator=(ForceModel const&) = delete;

  void setAccDerivatives(bool on);
  // On: the two model parameters are the SRP scale and Y-bias; off: the two
  // polar-motion angles.
  void setSrpComputation(bool on);
  // Degree and order of the gravity field, 0..16 (values outside are evaluated
  // as the nearest of the two).
  void setNumberOfGeopotentialCoefficients(int n);
  int getNumberOfGeopotentialCoefficients() const;
  void setLeapInfo(std::vector<LeapInfo> const& leapInfo);
  std::vector<LeapInfo> getLeapInfo() const;
  void setEopInfo(EopInfo const& eopInfo);
  EopInfo getEopInfo() const;
  void setInertialFrameInfo(InertialFrameInfo const& info);
  InertialFrameInfo getInertialFrameInfo() const;
  void setAssistanceData(AssistanceData const& data);
  AssistanceData getAssistanceData() const;
  // The Gauss-Jackson state kept with the model.
  Gj8Integrator& getGj8Integrator();
  // On: forceModel and isEclipsed take the Sun and Moon from
  // sunMoonCoordAccurate; off (default): from sunMoonCoord. A runtime setting,
  // not serialized (reads back off).
  void setAccurateSunMoon(bool on);

  // Acceleration (m/s^2, size 3) at GPS time t (s) and quasi-inertial position r
  // (m, size 3): gravity field, Moon, Sun, radiation pressure. With derivatives
  // on, also the 3x8 partials: columns 0-2 with respect to r (1/s^2), columns
  // 6-7 with respect to the two model parameters; without, `partials` is left
  // untouched. Earth-fixed position = E Rz(omega (t - t_ref)) r.
  void forceModel(double t, Vec const& r, Vec& acc, Mat& partials);

  // Cunningham functions V_nm + i W_nm = (R/r)^(n+1) P_nm(sin phi) e^(i m lambda)
  // (unnormalised) for the Earth-fixed position r (m, size 3), 0 <= m' <= n'
  // <= n, m' <= m. V and W must be (n+1)x(m+1); they are zeroed first.
  static void satCoefficients(Vec const& r, unsigned int n, unsigned int m, Mat& V, Mat& W);
  // Gravity acceleration acc (m/s^2, size 3, Earth-fixed axes) at the
  // Earth-fixed position r (m) of the field truncated at degree n, all orders
  // up to the degree (m is not used to truncate further); n is taken
  // within 0..16. With
  // derivatives on, also the gravity-gradient matrix (3x3, 1/s^2).
  void geopotential(Vec const& r, int n, int m, Vec& acc, Mat& partials) const;

  // Geocentric Moon and Sun (m, size 3) at GPS time t (s), from low-precision
  // analytic series (Montenbruck & Gill, Satellite Orbits, 3.3.2), referred to
  // the mean equator and equinox of J2000 (treated as ICRS). Accuracy over
  // 2000-2035: Moon 0.08 deg and 500 km; Sun 0.02 deg near 2000, growing by
  // 12 arcsec a year (fixed perihelion), distance 1e-4.
  static void sunMoonCoord(double t, Vec& moon, Vec& sun);
  // The same from longer series (Moon: Meeus, Astronomical Algorithms,
  // ch. 47; Sun with a moving perihelion): over 2000-2035 the Moon within
  // 0.004 deg and 1 km, the Sun within 0.01 deg. The Moon's tidal pull on a
  // GPS orbit moves by 1e-9 m/s^2 per 0.01 deg of its direction.
  static void sunMoonCoordAccurate(double t, Vec& moon, Vec& sun);
  // Point-mass acceleration (m/s^2) of Moon plus Sun at r (m), both expressed
  // in the Earth-rotating true-of-date frame of t (icrsToInt0(t, 0, leapSeconds)).
  static void sunMoonAcceleration(double t, int leapSeconds, Vec const& r, Vec& acc);
  // Visible fraction of the solar disc, 0 (umbra) to 1 (full sunlight), at r
  // for the Sun at `sun` (both m, geocentric, same axes); conical shadow of a
  // sphere of radius 6402 km.
  double shadowFunction(Vec const& r, Vec const& sun) const;
  // True when any part of the solar disc is hidden at quasi-inertial r (m) at
  // GPS time t (s).
  bool isEclipsed(Vec const& r, double t) const;
  // Radiation-pressure acceleration (m/s^2) at r for the Sun at `sun` (m, same
  // axes): direct pressure scaled by the shadow plus a Y-bias that acts in
  // shadow too. With derivatives on, the 3x8 partials (columns 0-2 for r with
  // the shadow held fixed; with SRP computation on, 6-7 for the parameters).
  void solarRadiationPressure(Vec const& r, Vec const& sun, Vec& acc, Mat& partials) const;

  // Field-wise exact equality: flags, assistance data, frame and Earth
  // orientation records, leap seconds, degree and the integrator state.
  bool operator==(ForceModel const& other) const;
  bool operator!=(ForceModel const& other) const { return !(*this == other); }

  // Appends the derivative flag (1 byte), the assistance data, the frame and
  // Earth-orientation records, the leap-second table (u32 count, entries), the
  // degree (4 bytes) and the Gauss-Jackson state. The SRP-computation flag is
  // not stored and reads back false. On failure removes what it appended and
  // returns false.
  bool serialize(BinaryData& out) const;
  // Reads that form at `position`. On success replaces the whole state,
  // advances `position` and returns true; a truncated or malformed buffer
  // leaves the model and `position` unchanged and returns false.
  bool deserialize(BinaryData const& in, unsigned int& position);

 private:
  struct Details;
  Details* details_;
};

// First-order adapter for rkf78: the 72-element variational state x = position
// (m, 0-2), velocity (m/s, 3-5), the two model parameters (6-7) and the 8x8
// state-transition matrix Phi by columns (element 8 + 8 j + i is Phi(i, j)).
// dx = (velocity, acceleration, 0, 0, A Phi) with A the 8x8 Jacobian of the
// dynamics. Switches the model's derivative flag on. Aborts unless x has 72
// elements.
class ZARN_EXPORT OdeFunRkf78 : public OdeFunction {
 public:
  explicit OdeFunRkf78(ForceModel& model);
  ~OdeFunRkf78() override;
  void operator()(Vec const& x, Vec& dx, double t) override;

 private:
  ForceModel& model_;
  Vec r_, a_;
  Mat partials_;
};

// Second-order adapter for the Gauss-Jackson integrator: the acceleration
// (m/s^2) at position y (m, size 3) and GPS time t (s). Switches the model's
// derivative flag off. Aborts unless y has 3 elements.
class ZARN_EXPORT OdeFunGj8 : public OdeFunction2 {
 public:
  explicit OdeFunGj8(ForceModel& model);
  ~OdeFunGj8() override;
  void operator()(Vec const& y, Vec& ddy, double t) override;

 private:
  ForceModel& model_;
  Mat partials_;
};

}  // namespace support
}  // namespace zarn

#endif
