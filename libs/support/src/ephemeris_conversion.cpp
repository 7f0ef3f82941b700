#include "zarn/support/ephemeris_conversion.hpp"

#include <cmath>
#include <cstdint>
#include <stdexcept>

#include "zarn/support/broadcast_interface.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/log.hpp"
#include "zarn/support/numerical_integration.hpp"
#include "zarn/support/time_conversion.hpp"

namespace zarn {
namespace support {
namespace {

namespace bc = broadcast;

constexpr double kSecondsPerWeek = 604800.0;
constexpr unsigned kEphemerisSize = 16;
constexpr unsigned kAlmanacSize = 8;
// Reference inclination of GPS, BeiDou MEO/IGSO and Galileo almanacs: 0.3
// semicircle (IS-GPS-200 Table 20-VI and the BeiDou almanac alike).
constexpr double kAlmanacReferenceInclination = 0.9424777960769379;  // rad
// BeiDou MEO orbits are below, IGSO and GEO above this semi-major axis (m).
constexpr double kBeidouMeoAxisLimit = 3.5e7;
// Almanac week numbers are broadcast modulo 256 (8-bit WNa).
constexpr long kAlmanacWeekModulus = 256;
constexpr double kKmToM = 1000.0;

// Kepler's equation M = E - e sin E by fixed-point passes from E = M.
double eccentricAnomaly(double m, double e) {
  double ea = m;
  for (int k = 0; k < bc::kKeplerPasses; ++k) ea = m + e * std::sin(ea);
  return ea;
}

// Elements in the 16-element layout: toe, sqrtA, e, i0, Omega0, omega, M0,
// deltaN, iDot, OmegaDot, cuc, cus, crc, crs, cic, cis.
void ephemerisToEcef(bc::KeplerConstants const& c, double const* el, double t, Vec& pos, Vec& vel) {
  double const toe = el[0], sqrtA = el[1], e = el[2], i0 = el[3], omega0 = el[4], argPerigee = el[5];
  double const m0 = el[6], deltaN = el[7], iDot = el[8], omegaDot = el[9];
  double const cuc = el[10], cus = el[11], crc = el[12], crs = el[13], cic = el[14], cis = el[15];

  double const a = sqrtA * sqrtA;
  double const n0 = std::sqrt(c.gm / (a * a * a));
  double const tk = t - toe;
  double const n = n0 + deltaN;
  double const ea = eccentricAnomaly(m0 + n * tk, e);
  double const sinE = std::sin(ea), cosE = std::cos(ea);
  double const rootOneMinusE2 = std::sqrt(1.0 - e * e);
  double const phi = std::atan2(rootOneMinusE2 * sinE, cosE - e) + argPerigee;
  double const s2 = std::sin(2.0 * phi), c2 = std::cos(2.0 * phi);
  double const u = phi + cuc * c2 + cus * s2;
  double const r = a * (1.0 - e * cosE) + crc * c2 + crs * s2;
  double const i = i0 + cic * c2 + cis * s2 + iDot * tk;
  double const cosU = std::cos(u), sinU = std::sin(u);
  double const xp = r * cosU, yp = r * sinU;

  bool const geo = std::fabs(i) <= bc::kGeoInclinationLimit;
  double const nodeAtToe = omega0 - c.earthRate * std::fmod(toe, kSecondsPerWeek);
  // The GEO model works in an inertial-like frame and takes Earth rotation
  // over tk into the final rotation instead of into the node.
  double const node = geo ? nodeAtToe + omegaDot * tk : nodeAtToe + (omegaDot - c.earthRate) * tk;
  double const cosNode = std::cos(node), sinNode = std::sin(node);
  double const cosI = std::cos(i), sinI = std::sin(i);
  double const x = xp * cosNode - yp * cosI * sinNode;
  double const y = xp * sinNode + yp * cosI * cosNode;
  double const z = yp * sinI;

  if (geo) {
    Vec p(3);
    p(0) = x;
    p(1) = y;
    p(2) = z;
    Mat const rot = prod(rotationMatrix(3, c.earthRate * tk), rotationMatrix(1, bc::kBeidouGeoTilt));
    noalias(pos) = prod(rot, p);
  } else {
    pos(0) = x;
    pos(1) = y;
    pos(2) = z;
  }

  // Rates. For GEO these stay in the frame of x, y, z above, on purpose.
  double const eDot = n / (1.0 - e * cosE);
  double const phiDot = rootOneMinusE2 * eDot * eDot / n;
  double const uDot = phiDot + 2.0 * phiDot * (cus * c2 - cuc * s2);
  double const rDot = a * e * eDot * sinE + 2.0 * phiDot * (crs * c2 - crc * s2);
  double const iDotTotal = iDot + 2.0 * phiDot * (cis * c2 - cic * s2);
  double const xpDot = rDot * cosU - r * uDot * sinU;
  double const ypDot = rDot * sinU + r * uDot * cosU;
  double const nodeDot = omegaDot - c.earthRate;
  vel(0) = xpDot * cosNode - ypDot * cosI * sinNode + z * iDotTotal * sinNode - nodeDot * y;
  vel(1) = xpDot * sinNode + ypDot * cosI * cosNode - z * iDotTotal * cosNode + nodeDot * x;
  vel(2) = ypDot * sinI + yp * iDotTotal * cosI;
}

void checkedEphemerisToEcef(core::GnssType gnss, double const* el, double t, Vec& pos, Vec& vel) {
  if (pos.size() != 3) {
    ZARN_THROW(std::invalid_argument("keplerianEphemerisToEcef: pos does not contain 3 elements."));
  }
  if (vel.size() != 3) {
    ZARN_THROW(std::invalid_argument("keplerianEphemerisToEcef: vel does not contain 3 elements."));
  }
  bc::KeplerConstants const* c = bc::keplerConstants(gnss);
  if (c == nullptr) ZARN_THROW(std::invalid_argument("keplerianEphemerisToEcef: unsupported GNSS."));
  ephemerisToEcef(*c, el, t, pos, vel);
}

// Almanac elements: toa, sqrtA, e, Omega0, omega, M0, deltaI, OmegaDot.
void almanacToEcef(bc::KeplerConstants const& c, double referenceInclination, double const* el, double t,
                   Vec& pos, Vec& vel) {
  double const toa = el[0], sqrtA = el[1], e = el[2], omega0 = el[3], argPerigee = el[4], m0 = el[5];
  double const deltaI = el[6], omegaDot = el[7];

  double const a = sqrtA * sqrtA;
  double const n = std::sqrt(c.gm / (a * a * a));
  double const tk = t - toa;
  double const ea = eccentricAnomaly(m0 + n * tk, e);
  double const sinE = std::sin(ea), cosE = std::cos(ea);
  double const rootOneMinusE2 = std::sqrt(1.0 - e * e);
  double const u = std::atan2(rootOneMinusE2 * sinE, cosE - e) + argPerigee;
  double const r = a * (1.0 - e * cosE);
  double const i = referenceInclination + deltaI;
  double const node = omega0 - c.earthRate * std::fmod(toa, kSecondsPerWeek) + (omegaDot - c.earthRate) * tk;
  double const cosU = std::cos(u), sinU = std::sin(u);
  double const cosNode = std::cos(node), sinNode = std::sin(node);
  double const cosI = std::cos(i), sinI = std::sin(i);
  double const xp = r * cosU, yp = r * sinU;
  double const x = xp * cosNode - yp * cosI * sinNode;
  double const y = xp * sinNode + yp * cosI * cosNode;
  pos(0) = x;
  pos(1) = y;
  pos(2) = yp * sinI;

  // Unperturbed Kepler motion with the node turning at OmegaDot - wE.
  double const eDot = n / (1.0 - e * cosE);
  double const uDot = rootOneMinusE2 * eDot * eDot / n;
  double const rDot = a * e * eDot * sinE;
  double const xpDot = rDot * cosU - r * uDot * sinU;
  double const ypDot = rDot * sinU + r * uDot * cosU;
  double const nodeDot = omegaDot - c.earthRate;
  vel(0) = xpDot * cosNode - ypDot * cosI * sinNode - nodeDot * y;
  vel(1) = xpDot * sinNode + ypDot * cosI * cosNode + nodeDot * x;
  vel(2) = ypDot * sinI;
}

void checkedAlmanacToEcef(core::GnssType gnss, double const* el, double t, Vec& pos, Vec& vel,
                          BeidouSvType svType) {
  if (pos.size() != 3) {
    ZARN_THROW(std::invalid_argument("keplerianAlmanacToEcef: pos does not contain 3 elements."));
  }
  if (vel.size() != 3) {
    ZARN_THROW(std::invalid_argument("keplerianAlmanacToEcef: vel does not contain 3 elements."));
  }
  bc::KeplerConstants const* c = bc::keplerConstants(gnss);
  if (c == nullptr) ZARN_THROW(std::invalid_argument("keplerianAlmanacToEcef: unsupported GNSS."));
  double const referenceInclination =
      gnss == core::BEIDOU && svType == BeidouSvType::GEO ? 0.0 : kAlmanacReferenceInclination;
  almanacToEcef(*c, referenceInclination, el, t, pos, vel);
}

// Record fields to elements 1-15 of the ephemeris layout.
template <typename Record>
void scaleEphemeris(Record const& eph, double* el) {
  bc::KeplerElements const k = bc::decodeOrbit(eph);
  for (unsigned i = 0; i < bc::kKeplerSize; ++i) el[i + 1] = k[i];
}

// Almanac fields to elements 1-7 of the almanac layout; one field for the
// three angles.
template <typename Record>
void scaleAlmanac(Record const& alm, bc::Field const& sqrtA, bc::Field const& e, bc::Field const& angle,
                  bc::Field const& deltaI, bc::Field const& omegaDot, double* el) {
  el[1] = bc::decode(alm.sqrtA, sqrtA);
  el[2] = bc::decode(alm.e, e);
  el[3] = bc::decode(alm.omega0, angle);
  el[4] = bc::decode(alm.omega, angle);
  el[5] = bc::decode(alm.m0, angle);
  el[6] = bc::decode(alm.deltaI, deltaI);
  el[7] = bc::decode(alm.omegaDot, omegaDot);
}

// Continuous seconds of an almanac reference time on the scale of t: the Toc
// when it carries a week, else the broadcast 8-bit week taken to the week
// nearest t with the seconds of week from the Toc.
double almanacReferenceTime(core::Toc const& toa, std::uint16_t wna, double t,
                            double (*toSecs)(core::Toc const&)) {
  if (toa.first != 0 || toa.second != 0) return toSecs(toa);
  long const weekOfT = static_cast<long>(std::floor(t / kSecondsPerWeek));
  long d = (static_cast<long>(wna) - weekOfT) % kAlmanacWeekModulus;
  if (d < 0) d += kAlmanacWeekModulus;
  if (d >= kAlmanacWeekModulus / 2) d -= kAlmanacWeekModulus;
  return static_cast<double>(weekOfT + d) * kSecondsPerWeek + toa.third;
}

// ---- GLONASS -------------------------------------------------------------

// GLONASS ICD A.3.1.2 equations of motion in the rotating PZ-90 frame, with
// constant luni-solar acceleration.
class GlonassMotion : public OdeFunction {
 public:
  GlonassMotion(double ax, double ay, double az) : ax_(ax), ay_(ay), az_(az) {}

  void operator()(Vec const& x, Vec& dx, double /*t*/) override {
    constexpr double kOblateness =  // 3/2 J2 mu ae^2, m^5/s^2
        1.5 * bc::kGlonassJ2 * bc::kGlonassGm * (bc::kGlonassEarthRadius * bc::kGlonassEarthRadius);
    constexpr double kOmega2 = bc::kGlonassEarthRate * bc::kGlonassEarthRate;  // rad^2/s^2
    constexpr double kTwoOmega = 2.0 * bc::kGlonassEarthRate;                  // rad/s
    if (dx.size() != 6) dx.resize(6, false);
    double const r2 = x(0) * x(0) + x(1) * x(1) + x(2) * x(2);
    double const r = std::sqrt(r2);
    double const r3 = r2 * r;
    double const r5 = r3 * r2;
    double const gm = bc::kGlonassGm / r3;
    double const j2 = kOblateness / r5;
    double const z2 = 5.0 * x(2) * x(2) / r2;
    dx(0) = x(3);
    dx(1) = x(4);
    dx(2) = x(5);
    dx(3) = -gm * x(0) - j2 * x(0) * (1.0 - z2) + kOmega2 * x(0) + kTwoOmega * x(4) + ax_;
    dx(4) = -gm * x(1) - j2 * x(1) * (1.0 - z2) + kOmega2 * x(1) - kTwoOmega * x(3) + ay_;
    dx(5) = -gm * x(2) - j2 * x(2) * (3.0 - z2) + az_;
  }

 private:
  double ax_, ay_, az_;
};

// GLONASS ICD A.3.1.3 almanac algorithm: PZ-90.02 constants of the
// interface header; angles from semicircles with the ICD's pi.
namespace glo {
constexpr double kMeanInclination = 0.35 * bc::kGlonassPi;  // 63 deg
constexpr double kMeanDraconicPeriod = 43200.0;             // s
constexpr double kAxisTolerance = 0.01;                     // m, semi-major axis iteration
constexpr double kAnomalyTolerance = 1e-9;                  // rad, Kepler iteration
constexpr int kMaxIterations = 50;
}  // namespace glo

// Periodic J2 corrections of the almanac algorithm at mean longitude L.
struct Periodic {
  double a;  // relative: delta a / a
  double h, l, lambda, i, meanLongitude;
};

Periodic periodic(double b, double sinI, double cosI, double h, double l, double ml) {
  double const sin2I = sinI * sinI, cos2I = cosI * cosI;
  double const s1 = std::sin(ml), c1 = std::cos(ml);
  double const s2 = std::sin(2.0 * ml), c2 = std::cos(2.0 * ml);
  double const s3 = std::sin(3.0 * ml), c3 = std::cos(3.0 * ml);
  double const s4 = std::sin(4.0 * ml), c4 = std::cos(4.0 * ml);
  double const k = 1.0 - 1.5 * sin2I;
  double const nodal = 3.5 * l * s1 - 2.5 * h * c1 - 0.5 * s2 - 7.0 / 6.0 * l * s3 + 7.0 / 6.0 * h * c3;
  Periodic p;
  p.a = 2.0 * b * k * (l * c1 + h * s1) +
        b * sin2I * (0.5 * h * s1 - 0.5 * l * c1 + c2 + 3.5 * l * c3 + 3.5 * h * s3);
  p.h = b * k * (s1 + 1.5 * l * s2 - 1.5 * h * c2) -
        0.25 * b * sin2I * (s1 - 7.0 / 3.0 * s3 + 5.0 * l * s2 - 8.5 * l * s4 + 8.5 * h * c4 + h * c2) -
        0.5 * b * cos2I * l * s2;
  p.l = b * k * (c1 + 1.5 * l * c2 + 1.5 * h * s2) -
        0.25 * b * sin2I * (-c1 - 7.0 / 3.0 * c3 - 5.0 * h * s2 - 8.5 * l * c4 - 8.5 * h * s4 + l * c2) +
        0.5 * b * cos2I * h * s2;
  p.lambda = -b * cosI * nodal;
  p.i = 0.5 * b * sinI * cosI * (-l * c1 + h * s1 + c2 + 7.0 / 3.0 * l * c3 + 7.0 / 3.0 * h * s3);
  p.meanLongitude = 2.0 * b * k * (1.75 * l * s1 - 1.75 * h * c1) +
                    3.0 * b * sin2I *
                        (-7.0 / 24.0 * h * c1 - 7.0 / 24.0 * l * s1 - 49.0 / 72.0 * h * c3 +
                         49.0 / 72.0 * l * s3 + 0.25 * s2) +
                    b * cos2I * nodal;
  return p;
}

void glonassAlmanacState(core::GlonassAlmanac const& alm, double dtpr, Vec& pos, Vec& vel) {
  double const lambdaA = bc::decode(alm.lambda, bc::kGlonassAlmanacLambda) * bc::kGlonassPi;
  double const deltaI = bc::decode(alm.deltaI, bc::kGlonassAlmanacDeltaI) * bc::kGlonassPi;
  double const deltaT = bc::decode(alm.deltaT, bc::kGlonassAlmanacDeltaT);
  double const deltaTDot = bc::decode(alm.deltaTDot, bc::kGlonassAlmanacDeltaTDot);
  double const eps = bc::decode(alm.epsilon, bc::kGlonassAlmanacEccentricity);
  double const omegaA = bc::decode(alm.omega, bc::kGlonassAlmanacOmega) * bc::kGlonassPi;

  // Whole orbits since the node passage, inclination, period and mean motion of the current orbit.
  double const meanPeriod = glo::kMeanDraconicPeriod + deltaT;
  double const w = std::floor(dtpr / meanPeriod);
  double const i = glo::kMeanInclination + deltaI;
  double const sinI = std::sin(i), cosI = std::cos(i);
  double const period = meanPeriod + (2.0 * w + 1.0) * deltaTDot;
  double const n = 2.0 * bc::kGlonassPi / period;

  // Semi-major axis from the draconic period by successive approximation.
  double const oneMinusE2 = 1.0 - eps * eps;
  double const onePlusECosW = 1.0 + eps * std::cos(omegaA);
  double oscPeriod = period;
  double a = 0.0;
  for (int k = 0; k < glo::kMaxIterations; ++k) {
    double const next = std::cbrt(bc::kGlonassAlmanacGm * std::pow(oscPeriod / (2.0 * bc::kGlonassPi), 2));
    bool const done = std::fabs(next - a) < glo::kAxisTolerance;
    a = next;
    if (done) break;
    double const p = a * oneMinusE2;
    double const aeOverP2 = (bc::kGlonassEarthRadius / p) * (bc::kGlonassEarthRadius / p);
    oscPeriod =
        period /
        (1.0 - 1.5 * bc::kGlonassAlmanacJ2 * aeOverP2 *
                   ((2.0 - 2.5 * sinI * sinI) * std::pow(oneMinusE2, 1.5) / (onePlusECosW * onePlusECosW) +
                    onePlusECosW * onePlusECosW * onePlusECosW / oneMinusE2));
  }

  // Secular drift of node and perigee.
  double const p = a * oneMinusE2;
  double const aeOverP2 = (bc::kGlonassEarthRadius / p) * (bc::kGlonassEarthRadius / p);
  double const lambda =
      lambdaA - (bc::kGlonassEarthRate + 1.5 * bc::kGlonassAlmanacJ2 * n * aeOverP2 * cosI) * dtpr;
  double const omega =
      omegaA - 0.75 * bc::kGlonassAlmanacJ2 * n * aeOverP2 * (1.0 - 5.0 * cosI * cosI) * dtpr;

  // Mean longitude at the node passage and now.
  double const e0 = 2.0 * std::atan2(std::sqrt(1.0 - eps) * std::sin(-0.5 * omega),
                                     std::sqrt(1.0 + eps) * std::cos(-0.5 * omega));
  double const l1 = omega + e0 - eps * std::sin(e0);
  double const l2 = l1 + n * (dtpr - (meanPeriod * w + deltaTDot * w * w));

  // Periodic corrections: differences between the two longitudes.
  double const h = eps * std::sin(omega), l = eps * std::cos(omega);
  double const b =
      1.5 * bc::kGlonassAlmanacJ2 * (bc::kGlonassEarthRadius / a) * (bc::kGlonassEarthRadius / a);
  Periodic const d1 = periodic(b, sinI, cosI, h, l, l1);
  Periodic const d2 = periodic(b, sinI, cosI, h, l, l2);
  double const aCorr = a + (d2.a - d1.a) * a;
  double const hCorr = h + d2.h - d1.h;
  double const lCorr = l + d2.l - d1.l;
  double const eCorr = std::sqrt(hCorr * hCorr + lCorr * lCorr);
  double const omegaCorr = eCorr > 0.0 ? std::atan2(hCorr, lCorr) : 0.0;
  double const iCorr = i + d2.i - d1.i;
  double const lambdaCorr = lambda + d2.lambda - d1.lambda;
  double const meanLongitude = l2 + d2.meanLongitude - d1.meanLongitude;

  double const m = meanLongitude - omegaCorr;
  double ea = m;
  for (int k = 0; k < glo::kMaxIterations; ++k) {
    double const next = m + eCorr * std::sin(ea);
    bool const done = std::fabs(next - ea) < glo::kAnomalyTolerance;
    ea = next;
    if (done) break;
  }
  double const nu = 2.0 * std::atan2(std::sqrt(1.0 + eCorr) * std::sin(0.5 * ea),
                                     std::sqrt(1.0 - eCorr) * std::cos(0.5 * ea));
  double const u = nu + omegaCorr;
  double const pCorr = aCorr * (1.0 - eCorr * eCorr);
  double const r = pCorr / (1.0 + eCorr * std::cos(nu));

  double const cosL = std::cos(lambdaCorr), sinL = std::sin(lambdaCorr);
  double const cosU = std::cos(u), sinU = std::sin(u);
  double const cosIc = std::cos(iCorr), sinIc = std::sin(iCorr);
  double const px = cosL * cosU - sinL * sinU * cosIc;
  double const py = sinL * cosU + cosL * sinU * cosIc;
  double const pz = sinU * sinIc;
  double const qx = -cosL * sinU - sinL * cosU * cosIc;
  double const qy = -sinL * sinU + cosL * cosU * cosIc;
  double const qz = cosU * sinIc;
  pos(0) = r * px;
  pos(1) = r * py;
  pos(2) = r * pz;
  double const root = std::sqrt(bc::kGlonassAlmanacGm / pCorr);
  double const vr = root * eCorr * std::sin(nu);
  double const vu = root * (1.0 + eCorr * std::cos(nu));
  vel(0) = vr * px + vu * qx + bc::kGlonassEarthRate * pos(1);
  vel(1) = vr * py + vu * qy - bc::kGlonassEarthRate * pos(0);
  vel(2) = vr * pz + vu * qz;
}

}  // namespace

void keplerianEphemerisToEcef(core::GnssType gnss, Vec const& ephemeris, double t, Vec& pos, Vec& vel) {
  if (ephemeris.size() != kEphemerisSize) {
    ZARN_THROW(std::invalid_argument("keplerianEphemerisToEcef: ephemeris does not contain 16 elements."));
  }
  checkedEphemerisToEcef(gnss, &ephemeris(0), t, pos, vel);
}

void gpsEphemerisToEcef(core::GpsEphemeris const& eph, double t, Vec& pos, Vec& vel) {
  double el[kEphemerisSize];
  el[0] = gpsToGpsSecs(eph.toe);
  scaleEphemeris(eph, el);
  checkedEphemerisToEcef(core::GPS, el, t, pos, vel);
}

void gpsEphemerisToEcef(Vec const& kepler, core::Toc const& toe, double t, Vec& pos, Vec& vel) {
  if (kepler.size() != bc::kKeplerSize) {
    ZARN_THROW(std::invalid_argument("gpsEphemerisToEcef: kepler does not contain 15 elements."));
  }
  double el[kEphemerisSize];
  el[0] = gpsToGpsSecs(toe);
  for (unsigned k = 0; k < bc::kKeplerSize; ++k) el[k + 1] = kepler(k);
  checkedEphemerisToEcef(core::GPS, el, t, pos, vel);
}

// The reference time is on the BeiDou scale, the evaluation time on the GPS scale.
void beidouEphemerisToEcef(core::BeidouEphemeris const& eph, double t, Vec& pos, Vec& vel) {
  double el[kEphemerisSize];
  el[0] = beidouToSecs(eph.toe);
  scaleEphemeris(eph, el);
  checkedEphemerisToEcef(core::BEIDOU, el, gpsSecsToBeidouSecs(t), pos, vel);
}

void beidouEphemerisToEcef(Vec const& kepler, core::Toc const& toe, double t, Vec& pos, Vec& vel) {
  if (kepler.size() != bc::kKeplerSize) {
    ZARN_THROW(std::invalid_argument("beidouEphemerisToEcef: kepler does not contain 15 elements."));
  }
  double el[kEphemerisSize];
  el[0] = beidouToSecs(toe);
  for (unsigned k = 0; k < bc::kKeplerSize; ++k) el[k + 1] = kepler(k);
  checkedEphemerisToEcef(core::BEIDOU, el, gpsSecsToBeidouSecs(t), pos, vel);
}

void keplerianAlmanacToEcef(core::GnssType gnss, Vec const& almanac, double t, Vec& pos, Vec& vel,
                            BeidouSvType svType) {
  if (almanac.size() != kAlmanacSize) {
    ZARN_THROW(std::invalid_argument("keplerianAlmanacToEcef: almanac does not contain 8 elements."));
  }
  checkedAlmanacToEcef(gnss, &almanac(0), t, pos, vel, svType);
}

void gpsAlmanacToEcef(core::GpsAlmanac const& alm, double t, Vec& pos, Vec& vel) {
  double el[kAlmanacSize];
  el[0] = almanacReferenceTime(alm.toa, alm.wna, t, &gpsToGpsSecs);
  scaleAlmanac(alm, bc::kGpsAlmanacSqrtA, bc::kGpsAlmanacEccentricity, bc::kGpsAlmanacAngle,
               bc::kGpsAlmanacDeltaI, bc::kGpsAlmanacOmegaDot, el);
  checkedAlmanacToEcef(core::GPS, el, t, pos, vel, static_cast<BeidouSvType>(0));
}

void almanacToEcef(core::GpsAlmanac const& alm, double t, Vec& pos) {
  Vec vel(3);
  gpsAlmanacToEcef(alm, t, pos, vel);
}

void beidouAlmanacToEcef(core::BeidouAlmanac const& alm, double t, Vec& pos, Vec& vel, BeidouSvType svType) {
  double const tBeidou = gpsSecsToBeidouSecs(t);
  double el[kAlmanacSize];
  el[0] = almanacReferenceTime(alm.toa, alm.wna, tBeidou, &beidouToSecs);
  scaleAlmanac(alm, bc::kBeidouAlmanacSqrtA, bc::kBeidouAlmanacEccentricity, bc::kBeidouAlmanacAngle,
               bc::kBeidouAlmanacDeltaI, bc::kBeidouAlmanacOmegaDot, el);
  checkedAlmanacToEcef(core::BEIDOU, el, tBeidou, pos, vel, svType);
}

BeidouSvType getBeidouSvType(core::BeidouEphemeris const& eph) {
  if (std::fabs(bc::decode(eph.i0, bc::kBeidouAngle)) < bc::kGeoInclinationLimit) return BeidouSvType::GEO;
  double const sqrtA = bc::decode(eph.sqrtA, bc::kBeidouSqrtA);
  return sqrtA * sqrtA < kBeidouMeoAxisLimit ? BeidouSvType::MEO : BeidouSvType::IGSO;
}

std::string toString(BeidouSvType svType) {
  switch (static_cast<int>(svType)) {
    case 0:
      return "UNDEFINED SAT TYPE";
    case 1:
      return "GEO";
    case 2:
      return "IGSO";
    case 3:
      return "MEO";
    default:
      return "UNKNOWN SAT TYPE";
  }
}

void logBeidouEphemeris(core::BeidouEphemeris const& e) {
  log::printFormatted(
      log::INFO, "EphemerisConversion",
      "BeidouEphemeris: flags=%u, svId=%u, type=%s, aodc=%d, toe=(%u, %u, %u), uraIndex=%d, health=%d, "
      "aode=%u, "
      "sqrtA=%u, e=%u, i0=%d, omega0=%d, omega=%d, m0=%d, deltaN=%d, omegaDot=%d, iDot=%d, cuc=%d, cus=%d, "
      "crc=%d, crs=%d, cic=%d, cis=%d, iodc=%u, toc=(%u, %u, %u), a0=%d, a1=%d, a2=%d, tgd1=%d, tgd2=%d",
      static_cast<unsigned>(e.flags), static_cast<unsigned>(e.svId), toString(getBeidouSvType(e)).c_str(),
      static_cast<int>(e.aodc), static_cast<unsigned>(e.toe.first), static_cast<unsigned>(e.toe.second),
      static_cast<unsigned>(e.toe.third), static_cast<int>(e.uraIndex), static_cast<int>(e.health),
      static_cast<unsigned>(e.aode), static_cast<unsigned>(e.sqrtA), static_cast<unsigned>(e.e),
      static_cast<int>(e.i0), static_cast<int>(e.omega0), static_cast<int>(e.omega), static_cast<int>(e.m0),
      static_cast<int>(e.deltaN), static_cast<int>(e.omegaDot), static_cast<int>(e.iDot),
      static_cast<int>(e.cuc), static_cast<int>(e.cus), static_cast<int>(e.crc), static_cast<int>(e.crs),
      static_cast<int>(e.cic), static_cast<int>(e.cis), static_cast<unsigned>(e.iodc),
      static_cast<unsigned>(e.toc.first), static_cast<unsigned>(e.toc.second),
      static_cast<unsigned>(e.toc.third), static_cast<int>(e.a0), static_cast<int>(e.a1),
      static_cast<int>(e.a2), static_cast<int>(e.tgd1), static_cast<int>(e.tgd2));
}

void glonassEphemerisToEcef(core::GlonassEphemeris const& eph, double t, Vec& pos, Vec& vel,
                            std::vector<LeapInfo> const& leaps) {
  if (pos.size() != 3 || vel.size() != 3) {
    // clang-format off
    ZARN_THROW(std::invalid_argument("glonassEphemerisToEcef: Either coordinate or velocity vector is not three dimensional."));
    // clang-format on
  }
  double const t0 = gpsToGpsSecs(glonassToGps(eph.time, leaps));
  double const span = t - t0;
  double const steps = std::floor(std::fabs(span) + 0.5);  // one step per second, halves away from zero

  Vec x(6);
  double const toPosition = bc::kGlonassPosition.lsb * kKmToM, toVelocity = bc::kGlonassVelocity.lsb * kKmToM;
  double const toAcceleration = bc::kGlonassAcceleration.lsb * kKmToM;
  x(0) = eph.x * toPosition;
  x(1) = eph.y * toPosition;
  x(2) = eph.z * toPosition;
  x(3) = eph.vx * toVelocity;
  x(4) = eph.vy * toVelocity;
  x(5) = eph.vz * toVelocity;
  if (steps > 0.0) {
    GlonassMotion f(eph.ax * toAcceleration, eph.ay * toAcceleration, eph.az * toAcceleration);
    rk4(f, x, t0, static_cast<unsigned>(steps), span / steps);
  }
  for (unsigned k = 0; k < 3; ++k) {
    pos(k) = x(k);
    vel(k) = x(k + 3);
  }
}

void glonassAlmanacToEcef(core::GlonassAlmanac const& alm, double t, Vec& pos, Vec& vel,
                          std::vector<LeapInfo> const& leaps) {
  if (pos.size() != 3 || vel.size() != 3) {
    // clang-format off
    ZARN_THROW(std::invalid_argument("glonassAlmanacToEcef: Either coordinate or velocity vector is not three dimensional."));
    // clang-format on
  }
  std::uint32_t const day = alm.na > 0 ? alm.na - 1u : alm.time.second;
  double const nodeEpoch =
      glonassToSecs(core::Toc{alm.time.first, day, 0}) + bc::decode(alm.tLambda, bc::kGlonassAlmanacTLambda);
  glonassAlmanacState(alm, gpsSecsToGlonassSecs(t, leaps) - nodeEpoch, pos, vel);
}

}  // namespace support
}  // namespace zarn
