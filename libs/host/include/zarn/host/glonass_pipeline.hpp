// The prediction of one GLONASS satellite. Its broadcast gives Earth-fixed
// PZ-90.02 states of the antenna phase centre every 30 minutes; predicted
// records are such states too, one per slot of that grid (UTC hh:15 and
// hh:45) from the fit end on, each from initGlonassEphemeris on the
// propagated orbit and kept only when it passes validGlonassEphemeris.
//
// Frames: broadcast states are shifted from PZ-90.02 to WGS 84 and moved to
// the centre of mass before the fit; initGlonassEphemeris moves the predicted
// states back. Samples and integration steps lie on a grid of the UTC
// quarter hours (GPS time minus the leap seconds at the fit end), so that
// every slot is a whole number of steps from the start.
//
// Fit: as for GPS, the batch fit with the radiation pressure (estimateSrp),
// else or when refused the filter. UT1 - UTC drifts at options.ut1Rate from
// the fit start: precise orbits are fitted with that drift, broadcast states
// (which follow a uniformly turning Earth over their day) as given, and every
// predicted record is turned by the drift since the fit start (the newest
// state's epoch for the broadcast-state starts).
//
// Clock: tauN of each record is the GammaEstimator's predictTau from the
// newest broadcast tau, with the gamma it holds after the broadcast tau
// values of the history (the broadcast gamma until they span 14 days).
#ifndef ZARN_HOST_GLONASS_PIPELINE_HPP
#define ZARN_HOST_GLONASS_PIPELINE_HPP

#include <vector>

#include "zarn/host/ephemeris.hpp"
#include "zarn/host/pipeline.hpp"
#include "zarn/host/sp3_orbit.hpp"

namespace zarn {
namespace host {

// From one GLONASS satellite's broadcast records (any order, as read);
// records after the fit end are not used, the rest are screened.
SatellitePrediction predictGlonassFromBroadcast(std::vector<Ephemeris> const& records,
                                                PipelineOptions const& options);
// From precise orbits (centre of mass); tauN from a line fitted to the SP3
// clocks of the fit span (tauN = -clock), gammaN its slope.
SatellitePrediction predictGlonassFromSp3(Sp3Orbit const& orbit, SatelliteId const& sat,
                                          PipelineOptions const& options);

// The Earth-fixed PZ-90.02 state (m, m/s) of a broadcast record at t (GPS
// seconds): the record's equations of motion (GLONASS ICD A.3.1.2) by
// classical Runge-Kutta in equal steps of at most maxStep. Over a record's
// trusted quarter hour the 30 s default stays within 0.1 mm of the receivers'
// one-second integration (glonassEphemerisToEcef) at a thirtieth of its
// cost; maxStep 1 reproduces that integration to rounding.
void glonassBroadcastState(core::GlonassEphemeris const& eph, double t, support::Vec& position,
                           support::Vec& velocity, double maxStep = 30.0);

// The GPS seconds of the predicted slots: UTC hh:15 and hh:45 (leapSeconds =
// GPS - UTC) from the first at or after fitEnd to fitEnd + days.
std::vector<double> glonassSlots(double fitEnd, double days, int leapSeconds);

}  // namespace host
}  // namespace zarn

#endif
