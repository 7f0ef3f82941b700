// Continuous satellite orbits from SP3 files: the tabulated centre-of-mass
// positions of every GPS and BeiDou satellite, merged over files, interpolated
// to any instant inside the tabulation.
#ifndef ZARN_HOST_SP3_ORBIT_HPP
#define ZARN_HOST_SP3_ORBIT_HPP

#include <map>
#include <vector>

#include "zarn/host/ephemeris.hpp"
#include "zarn/host/sp3.hpp"
#include "zarn/support/math.hpp"

namespace zarn {
namespace host {

class Sp3Orbit {
 public:
  // GPS ('G'), GLONASS ('R') and BeiDou ('C') satellites of the files; epochs that several
  // files hold are taken once.
  explicit Sp3Orbit(std::vector<Sp3Data> const& files);

  // Earth-fixed centre-of-mass position (m) at t (GPS seconds) by Lagrange
  // interpolation over the ten tabulated epochs around t; with `vel`, also the
  // velocity (m/s) as the derivative of the same polynomial. False when t lies
  // outside the satellite's tabulation or the ten epochs span a gap.
  bool state(SatelliteId const& sat, double t, support::Vec& pos, support::Vec* vel = nullptr) const;
  // Clock offset (s) at the tabulated epoch nearest t, within half an interval; NaN when absent.
  double clock(SatelliteId const& sat, double t) const;
  // Clock offset (s) at t, linear between the two tabulated epochs around it
  // (a satellite clock drifts by up to metres over an SP3 interval); NaN when
  // either clock is absent or they are further apart than 1.5 intervals.
  double interpolatedClock(SatelliteId const& sat, double t) const;

  std::vector<SatelliteId> satellites() const;
  // First and last tabulated epoch of the satellite (GPS seconds); false when unknown.
  bool span(SatelliteId const& sat, double& first, double& last) const;
  // Over all satellites; 0 when empty.
  double start() const { return start_; }
  double end() const { return end_; }
  // BeiDou orbit type from the orbit radius and the largest distance from the
  // equator over the tabulation; UNDEFINED_SAT_TYPE for GPS.
  support::BeidouSvType svType(SatelliteId const& sat) const;

 private:
  struct Track {
    std::vector<double> t, x, y, z, clock;
    double interval = 0;  // s, the shortest spacing of the tabulation
  };
  std::map<SatelliteId, Track> tracks_;
  double start_ = 0, end_ = 0;
};

}  // namespace host
}  // namespace zarn

#endif
