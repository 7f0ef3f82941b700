// Fit of the broadcast Keplerian model to predicted Earth-fixed states and its
// encoding into GPS and BeiDou ephemeris records.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>

#include "zarn/support/broadcast_interface.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/ephemeris_conversion.hpp"
#include "zarn/support/log.hpp"
#include "zarn/support/time_conversion.hpp"
#include "zarn/support/validation.hpp"

namespace zarn {
namespace support {
namespace {

namespace bc = broadcast;

char const kTag[] = "EphemerisConversion";

constexpr unsigned kKeplerSize = bc::kKeplerSize;
constexpr unsigned kValidationSize = 17;
constexpr double kSecondsPerWeek = 604800.0;
constexpr double kPi = 3.14159265358979323846;
constexpr double kTwoPi = 2.0 * kPi;

// The solve runs on element / scale: typical spreads of the elements, so that
// a unit step moves every element by a comparable sub-metre amount.
constexpr double kScale[kKeplerSize] = {28.86,   0.009467, 0.01793,  0.01535,  0.01257,
                                        0.01253, 5.392e-6, 7.702e-6, 6.612e-6, 0.0212,
                                        0.01561, 562100.0, 414700.0, 0.03065,  0.02211};

// Seed of the iteration: GM and Earth rate of IS-GPS-200, typical GPS values
// for deltaN (rad/s), OmegaDot (rad/s), cus (rad) and crc (m).
constexpr bc::KeplerConstants kSeed = bc::kGpsKepler;
constexpr double kSeedDeltaN = 5e-8;
constexpr double kSeedOmegaDot = -8.2e-9;
constexpr double kSeedCus = 6e-6;
constexpr double kSeedCrc = 250.0;

// Gauss-Newton control.
constexpr int kMaxIterations = 40;
constexpr double kResidualTolerance = 0.01;  // m, largest residual that ends the iteration
constexpr double kCostTolerance = 0.001;     // m^2, change of the half squared norm that ends it
constexpr double kInitialPreviousCost = 100.0;
constexpr double kAcceptedResidual = 5.0;  // m, largest residual of a usable fit
// m: a step that moves the fitted positions by less than this RMS ends the
// iteration; near the solution the next one would be far smaller still.
constexpr double kStepTolerance = 1e-3;
// m: after a step this small (RMS) the partials change by well under 1e-6 of
// themselves, so the next steps keep them and evaluate only the residual.
constexpr double kChordStep = 10.0;
// Over a window of a fraction of a revolution of a near-circular orbit the
// mean motion splits poorly between sqrtA (its radius change taken up by crc
// and crs) and deltaN, which then leaves its 16-bit field (2^-43 semicircles/s,
// +-1.17e-8 rad/s). Then a pseudo-observation holds deltaN near zero: moving
// it by kDeltaNSigma costs as much as a residual of kDeltaNWeight, so only
// combinations that the positions do not see are steered. Fits whose deltaN
// fits the field stay the plain least-squares ones.
constexpr double kDeltaNSigma = 4e-9;  // rad/s
constexpr double kDeltaNWeight = 0.1;  // m
// Three position equations per sample against 15 unknowns.
constexpr unsigned kMinSamples = (kKeplerSize + 2) / 3;

// optfun result codes.
constexpr int kOkCode = 0;
constexpr int kKeplerSizeCode = 1;
constexpr int kStatesSizeCode = 2;
constexpr int kGnssCode = 3;
constexpr int kNotEllipseCode = 4;
constexpr int kNotFiniteCode = 5;

// Indices in the kepler vector.
enum Element : unsigned {
  sqrtAIndex = 0,
  eIndex = 1,
  i0Index = 2,
  omega0Index = 3,
  omegaIndex = 4,
  m0Index = 5,
  deltaNIndex = 6,
  iDotIndex = 7,
  omegaDotIndex = 8,
  cusIndex = 10,
  crcIndex = 11
};

// Into [-pi, pi): the broadcast angle words are signed.
double wrap(double angle) {
  return angle - kTwoPi * std::floor((angle + kPi) / kTwoPi);
}

std::string format(Vec const& v) {
  std::ostringstream out;
  out.precision(15);
  out << '[';
  for (std::size_t k = 0; k < v.size(); ++k) out << (k ? ", " : "") << v(k);
  out << ']';
  return out.str();
}

// The position of keplerianEphemerisToEcef (the same steps, Kepler's
// equation by its fixed passes) for elements k at time t, without the
// velocity; toe and t on the constellation's scale.
void modelPosition(bc::KeplerConstants const& c, double toe, double const* k, double t, double (&pos)[3]) {
  double const a = k[sqrtAIndex] * k[sqrtAIndex], e = k[eIndex];
  double const tk = t - toe;
  double const m = k[m0Index] + (std::sqrt(c.gm / (a * a * a)) + k[deltaNIndex]) * tk;
  double ea = m;
  for (int pass = 0; pass < bc::kKeplerPasses; ++pass) ea = m + e * std::sin(ea);
  double const sinE = std::sin(ea), cosE = std::cos(ea);
  double const phi = std::atan2(std::sqrt(1.0 - e * e) * sinE, cosE - e) + k[omegaIndex];
  double const s2 = std::sin(2.0 * phi), c2 = std::cos(2.0 * phi);
  double const u = phi + k[9] * c2 + k[cusIndex] * s2;
  double const r = a * (1.0 - e * cosE) + k[crcIndex] * c2 + k[12] * s2;
  double const i = k[i0Index] + k[13] * c2 + k[14] * s2 + k[7] * tk;
  double const xp = r * std::cos(u), yp = r * std::sin(u);
  bool const geo = std::fabs(i) <= bc::kGeoInclinationLimit;
  double const nodeAtToe = k[omega0Index] - c.earthRate * std::fmod(toe, kSecondsPerWeek);
  double const node = nodeAtToe + (geo ? k[omegaDotIndex] : k[omegaDotIndex] - c.earthRate) * tk;
  double const cosNode = std::cos(node), sinNode = std::sin(node), cosI = std::cos(i);
  double const x = xp * cosNode - yp * cosI * sinNode;
  double const y = xp * sinNode + yp * cosI * cosNode;
  double const z = yp * std::sin(i);
  if (!geo) {
    pos[0] = x;
    pos[1] = y;
    pos[2] = z;
    return;
  }
  // Rz(wE tk) Rx(-5 deg) as frame rotations.
  double const cTilt = std::cos(bc::kBeidouGeoTilt), sTilt = std::sin(bc::kBeidouGeoTilt);
  double const y1 = cTilt * y + sTilt * z, z1 = -sTilt * y + cTilt * z;
  double const ce = std::cos(c.earthRate * tk), se = std::sin(c.earthRate * tk);
  pos[0] = ce * x + se * y1;
  pos[1] = -se * x + ce * y1;
  pos[2] = z1;
}

// Model positions minus the given positions, without allocation once the
// buffers are sized. Times and toe on the constellation's own scale.
class Residual {
 public:
  Residual(core::GnssType gnss, Vec const& times, Mat const& states, double toe)
      : gnss_(gnss), times_(times), states_(states), toe_(toe) {}

  int sizeCode(Vec const& kepler) const {
    if (kepler.size() != kKeplerSize) return kKeplerSizeCode;
    if (states_.size1() != 3 || states_.size2() != times_.size()) return kStatesSizeCode;
    if (gnss_ != core::GPS && gnss_ != core::BEIDOU) return kGnssCode;
    return kOkCode;
  }

  // kepler must have 15 elements and f 3N.
  int operator()(Vec const& kepler, Vec& f) {
    double const sqrtA = kepler(sqrtAIndex), e = kepler(eIndex);
    bool finite = true;
    for (unsigned k = 0; k < kKeplerSize; ++k) finite = finite && std::isfinite(kepler(k));
    if (!finite || !(sqrtA > 0.0) || !(std::fabs(e) < 1.0)) {
      std::fill(f.begin(), f.end(), std::numeric_limits<double>::quiet_NaN());
      return kNotEllipseCode;
    }
    bool ok = true;
    bc::KeplerConstants const& c = gnss_ == core::BEIDOU ? bc::kBeidouKepler : bc::kGpsKepler;
    double k[kKeplerSize], pos[3];
    for (unsigned j = 0; j < kKeplerSize; ++j) k[j] = kepler(j);
    for (std::size_t s = 0; s < times_.size(); ++s) {
      modelPosition(c, toe_, k, times_(s), pos);
      for (unsigned j = 0; j < 3; ++j) {
        double const d = pos[j] - states_(j, s);
        f(3 * s + j) = d;
        ok = ok && std::isfinite(d);
      }
    }
    return ok ? kOkCode : kNotFiniteCode;
  }

  Mat const& states() const { return states_; }

  void logInputs(Vec const& kepler) const {
    Vec x(kepler.size());
    for (std::size_t k = 0; k < kepler.size() && k < kKeplerSize; ++k) x(k) = kepler(k) / kScale[k];
    log::printFormatted(log::ERROR, kTag, "optfun: gnss %d, toe=%d, kepler=%s, x=%s", static_cast<int>(gnss_),
                        static_cast<int>(toe_), format(kepler).c_str(), format(x).c_str());
  }

 private:
  core::GnssType gnss_;
  Vec const& times_;
  Mat const& states_;
  double toe_;
};

double largestAbs(Vec const& f) {
  double m = 0.0;
  for (double v : f) {
    if (!std::isfinite(v)) return std::numeric_limits<double>::infinity();
    m = std::fmax(m, std::fabs(v));
  }
  return m;
}

// ---- Jacobian ---------------------------------------------------------------
//
// Analytic partials of the broadcast model of keplerianEphemerisToEcef
// (IS-GPS-200 20.3.3.4.3, BDS-SIS-ICD-B1I 5.2.4.12) with respect to the
// normalised elements, taking Kepler's equation as solved exactly; the normal
// equations are accumulated directly.

class JacobianModel {
 public:
  JacobianModel(core::GnssType gnss, double toe)
      : c_(gnss == core::BEIDOU ? bc::kBeidouKepler : bc::kGpsKepler),
        toe_(toe),
        toeOfWeek_(std::fmod(toe, kSecondsPerWeek)),
        cTilt_(std::cos(bc::kBeidouGeoTilt)),
        sTilt_(std::sin(bc::kBeidouGeoTilt)) {}

  // rows[a][j]: d position_a / d (element j / scale j) at time t, and the
  // position (Kepler's equation solved to convergence).
  void partials(double const* k, double t, double (&rows)[3][kKeplerSize], double (&pos)[3]) const {
    double const tk = t - toe_;
    double const sqrtA = k[0], a = sqrtA * sqrtA, e = k[1];
    double const n0 = std::sqrt(c_.gm / (a * a * a));
    double const m = k[5] + (n0 + k[6]) * tk;
    // Two Newton steps from M + e sin M reach the model's anomaly to 1e-15 for e < 0.1.
    double ea = m + e * std::sin(m);
    for (int pass = 0; pass < 2; ++pass) ea -= (ea - e * std::sin(ea) - m) / (1.0 - e * std::cos(ea));
    double const sinE = std::sin(ea), cosE = std::cos(ea);
    double const q = 1.0 - e * cosE, root = std::sqrt(1.0 - e * e);
    double const nu = std::atan2(root * sinE, cosE - e);
    double const radius0 = a * q;
    // Kepler's equation E - e sin E = M: dE/dM = 1/q, dE/de = sin E / q.
    double const nuM = root / (q * q);                              // d nu / dM
    double const nuE = sinE * (1.0 / (root * q) + root / (q * q));  // d nu / de at fixed M
    double const r0M = a * e * sinE / q;                            // d radius0 / dM
    double const r0e = a * (-cosE + e * sinE * sinE / q);           // d radius0 / de at fixed M
    double const r0a = q;                                           // d radius0 / da

    double const phi = nu + k[4];
    double const s2 = std::sin(2.0 * phi), c2 = std::cos(2.0 * phi);
    double const u = phi + k[9] * c2 + k[10] * s2;
    double const r = radius0 + k[11] * c2 + k[12] * s2;
    double const inc = k[2] + k[13] * c2 + k[14] * s2 + k[7] * tk;
    double const uPhi = 1.0 + 2.0 * (k[10] * c2 - k[9] * s2);
    double const rPhi = 2.0 * (k[12] * c2 - k[11] * s2);
    double const iPhi = 2.0 * (k[14] * c2 - k[13] * s2);
    bool const geo = std::fabs(inc) <= bc::kGeoInclinationLimit;
    double const node = k[3] - c_.earthRate * toeOfWeek_ + (geo ? k[8] : k[8] - c_.earthRate) * tk;

    double const cu = std::cos(u), su = std::sin(u), ci = std::cos(inc), si = std::sin(inc);
    double const cn = std::cos(node), sn = std::sin(node);
    double const xp = r * cu, yp = r * su;
    double const x = xp * cn - yp * ci * sn, y = xp * sn + yp * ci * cn, z = yp * si;
    // Position partials by radius, argument of latitude, inclination and node.
    double const dr[3] = {cu * cn - su * ci * sn, cu * sn + su * ci * cn, su * si};
    double const du[3] = {r * (-su * cn - cu * ci * sn), r * (-su * sn + cu * ci * cn), r * cu * si};
    double const di[3] = {yp * si * sn, -yp * si * cn, yp * ci};
    double const dn[3] = {-y, x, 0.0};

    // Each element as a change of (radius, argument, inclination, node).
    auto through = [&](unsigned j, double gr, double gu, double gi, double gn) {
      double const s = kScale[j];
      for (unsigned c = 0; c < 3; ++c) rows[c][j] = s * (gr * dr[c] + gu * du[c] + gi * di[c] + gn * dn[c]);
    };
    // A change of the argument of perigee phi moves all three harmonic sets.
    auto viaPhi = [&](unsigned j, double dPhi, double dRadius) {
      through(j, dRadius + rPhi * dPhi, uPhi * dPhi, iPhi * dPhi, 0.0);
    };
    double const dMdSqrtA = -3.0 * n0 / sqrtA * tk;
    viaPhi(sqrtAIndex, nuM * dMdSqrtA, r0a * 2.0 * sqrtA + r0M * dMdSqrtA);
    viaPhi(eIndex, nuE, r0e);
    through(i0Index, 0.0, 0.0, 1.0, 0.0);
    through(omega0Index, 0.0, 0.0, 0.0, 1.0);
    viaPhi(omegaIndex, 1.0, 0.0);
    viaPhi(m0Index, nuM, r0M);
    viaPhi(deltaNIndex, nuM * tk, r0M * tk);
    through(7, 0.0, 0.0, tk, 0.0);
    through(omegaDotIndex, 0.0, 0.0, 0.0, tk);
    through(9, 0.0, c2, 0.0, 0.0);
    through(cusIndex, 0.0, s2, 0.0, 0.0);
    through(crcIndex, c2, 0.0, 0.0, 0.0);
    through(12, s2, 0.0, 0.0, 0.0);
    through(13, 0.0, 0.0, c2, 0.0);
    through(14, 0.0, 0.0, s2, 0.0);
    pos[0] = x;
    pos[1] = y;
    pos[2] = z;
    if (!geo) return;
    // Rz(wE tk) Rx(-5 deg) as frame rotations, the same for every column.
    double const ce = std::cos(c_.earthRate * tk), se = std::sin(c_.earthRate * tk);
    double const y1 = cTilt_ * y + sTilt_ * z;
    pos[0] = ce * x + se * y1;
    pos[1] = -se * x + ce * y1;
    pos[2] = -sTilt_ * y + cTilt_ * z;
    for (unsigned j = 0; j < kKeplerSize; ++j) {
      double const px = rows[0][j], py = rows[1][j], pz = rows[2][j];
      double const y1 = cTilt_ * py + sTilt_ * pz, z1 = -sTilt_ * py + cTilt_ * pz;
      rows[0][j] = ce * px + se * y1;
      rows[1][j] = -se * px + ce * y1;
      rows[2][j] = z1;
    }
  }

 private:
  bc::KeplerConstants c_;
  double toe_, toeOfWeek_, cTilt_, sTilt_;
};

// The Jacobian J (3N x 15) of the positions by the normalised elements and
// J^T J; with `states` (3 x N) also f, the model positions minus them. Returns
// 0, or the optfun code of elements that are no ellipse or give partials that
// are not finite.
int keplerfitJacobian(core::GnssType gnss, Vec const& kepler, Vec const& times, double toe, Mat& jacobian,
                      Mat& normal, Mat const* states = nullptr, Vec* f = nullptr) {
  double k[kKeplerSize];
  for (unsigned j = 0; j < kKeplerSize; ++j) k[j] = kepler(j);
  if (!(std::fabs(k[eIndex]) < 1.0) || !(k[sqrtAIndex] > 0.0)) return kNotEllipseCode;

  JacobianModel const model(gnss, toe);
  normal.clear();
  double rows[3][kKeplerSize], pos[3];
  bool finite = true;
  for (std::size_t s = 0; s < times.size(); ++s) {
    model.partials(k, times(s), rows, pos);
    for (unsigned a = 0; a < 3; ++a) {
      if (states != nullptr) {
        (*f)(3 * s + a) = pos[a] - (*states)(a, s);
        finite = finite && std::isfinite((*f)(3 * s + a));
      }
      for (unsigned i = 0; i < kKeplerSize; ++i) {
        double const ri = rows[a][i];
        finite = finite && std::isfinite(ri);
        jacobian(3 * s + a, i) = ri;
        for (unsigned j = 0; j <= i; ++j) normal(i, j) += ri * rows[a][j];
      }
    }
  }
  for (unsigned i = 0; i < kKeplerSize; ++i) {
    for (unsigned j = 0; j < i; ++j) normal(j, i) = normal(i, j);
  }
  return finite ? kOkCode : kNotFiniteCode;
}

struct Solve {
  int code;        // iterations; -40 at the limit; minus the iterations when a residual exceeds 5 m
  double largest;  // largest absolute residual at the end, m (infinite when not finite)
};

// Gauss-Newton on the normalised elements.
Solve gaussNewton(core::GnssType gnss, Residual& residual, Vec const& times, double toe, Vec& kepler,
                  bool holdDeltaN) {
  Vec f(3 * times.size()), dx(kKeplerSize), rhs(kKeplerSize);
  Mat normal(kKeplerSize, kKeplerSize), jacobian(3 * times.size(), kKeplerSize);

  auto evaluate = [&]() {
    int const code = residual(kepler, f);
    if (code != kOkCode) {
      residual.logInputs(kepler);
      log::printFormatted(log::ERROR, kTag, "satelliteStatesToKepleriansGnSolve: optfun returns error %d",
                          code);
    }
  };
  double const priorScale = kScale[deltaNIndex] / kDeltaNSigma;
  double const priorWeight = holdDeltaN ? kDeltaNWeight * kDeltaNWeight * priorScale * priorScale : 0.0;
  // The first residual comes with the first partials; the later ones, which
  // judge the fit, from the model itself.
  bool fresh =
      keplerfitJacobian(gnss, kepler, times, toe, jacobian, normal, &residual.states(), &f) == kOkCode;
  if (fresh) {
    normal(deltaNIndex, deltaNIndex) += priorWeight;
  } else {
    evaluate();
  }
  double cost = 0.5 * inner_prod(f, f);
  double previousCost = kInitialPreviousCost;
  int iterations = 0;
  bool converged = false, chord = false;
  // A NaN cost fails the last test and ends the loop.
  while (!converged && largestAbs(f) > kResidualTolerance && iterations < kMaxIterations &&
         std::fabs(previousCost - cost) > kCostTolerance) {
    if (!chord && !fresh) {
      int const code = keplerfitJacobian(gnss, kepler, times, toe, jacobian, normal);
      if (code != kOkCode) {
        residual.logInputs(kepler);
        log::printFormatted(log::ERROR, kTag, "keplerfitJacobian: optfun returns error %d", code);
      }
      normal(deltaNIndex, deltaNIndex) += priorWeight;
    }
    fresh = false;
    noalias(rhs) = -prod(trans(jacobian), f);
    rhs(deltaNIndex) -= priorWeight * kepler(deltaNIndex) / kScale[deltaNIndex];
    mldivide(normal, rhs, dx);
    double moved = 0.0;  // |J dx|^2 without the pseudo-observation
    for (unsigned i = 0; i < kKeplerSize; ++i) {
      double row = 0.0;
      for (unsigned j = 0; j < kKeplerSize; ++j) row += normal(i, j) * dx(j);
      moved += dx(i) * row;
    }
    moved -= priorWeight * dx(deltaNIndex) * dx(deltaNIndex);
    converged = !(moved > kStepTolerance * kStepTolerance * static_cast<double>(f.size()));
    chord = !(moved > kChordStep * kChordStep * static_cast<double>(f.size()));
    for (unsigned k = 0; k < kKeplerSize; ++k) kepler(k) += dx(k) * kScale[k];
    evaluate();
    previousCost = cost;
    cost = 0.5 * inner_prod(f, f);
    ++iterations;
  }
  double const largest = largestAbs(f);
  if (iterations >= kMaxIterations && !converged) return Solve{-kMaxIterations, largest};
  if (largest > kAcceptedResidual) return Solve{-iterations, largest};
  return Solve{iterations, largest};
}

// Osculating elements of the middle state as the broadcast elements at toe.
// r, v Earth-fixed at time tm; tm and toe on the constellation's scale. A
// BeiDou orbit of low inclination is seeded in the frame of the GEO model,
// p = Rx(-5 deg)^T Rz(wE (tm - toe))^T r, where its node does not turn with
// the Earth.
void seedElements(core::GnssType gnss, Vec const& r, Vec const& vEcef, double tm, double toe, Vec& kepler) {
  Vec v(vEcef);
  v(0) -= earthRotationRate * r(1);
  v(1) += earthRotationRate * r(0);
  Vec el = eciToOrb(r, v);  // a, e, i, omega, Omega, nu
  double nodeTime = tm;
  if (gnss == core::BEIDOU && el(2) <= bc::kGeoInclinationLimit) {
    Mat const toModel = trans(Mat(prod(rotationMatrix(3, bc::kBeidouKepler.earthRate * (tm - toe)),
                                       rotationMatrix(1, bc::kBeidouGeoTilt))));
    el = eciToOrb(prod(toModel, r), prod(toModel, v));
    nodeTime = toe;
  }
  double const a = el(0), e = el(1), nu = el(5);
  double const ea = std::atan2(std::sqrt(1.0 - e * e) * std::sin(nu), e + std::cos(nu));
  double const meanAnomaly = ea - e * std::sin(ea);
  double const n = std::sqrt(kSeed.gm / (a * a * a));
  kepler.resize(kKeplerSize, false);
  kepler.clear();
  kepler(sqrtAIndex) = std::sqrt(a);
  kepler(eIndex) = e;
  kepler(i0Index) = el(2);
  kepler(omega0Index) = wrap(el(4) + kSeed.earthRate * std::fmod(nodeTime, kSecondsPerWeek));
  kepler(omegaIndex) = wrap(el(3));
  kepler(m0Index) = wrap(meanAnomaly + (n + kSeedDeltaN) * (toe - tm));
  kepler(deltaNIndex) = kSeedDeltaN;
  kepler(omegaDotIndex) = kSeedOmegaDot;
  kepler(cusIndex) = kSeedCus;
  kepler(crcIndex) = kSeedCrc;
}

// The elements of `start` (17, toe in elements 15 and 16) moved to toe, on
// the constellation's scale: the same orbit, M0, i0 and Omega0 advanced by
// their rates. False for a start that is no usable ellipse or one of the GEO
// model, whose frame turns with toe.
bool carriedElements(core::GnssType gnss, Vec const& start, double toe, Vec& kepler) {
  if (start.size() != kValidationSize) return false;
  for (double v : start) {
    if (!std::isfinite(v)) return false;
  }
  if (!(start(sqrtAIndex) > 0.0) || !(start(eIndex) >= 0.0 && start(eIndex) < 1.0)) return false;
  if (gnss == core::BEIDOU && std::fabs(start(i0Index)) <= bc::kGeoInclinationLimit) return false;
  double const toeGps = gnss == core::BEIDOU ? beidouSecsToGpsSecs(toe) : toe;
  double const dt = toeGps - (start(16) * kSecondsPerWeek + start(15));
  if (!(std::fabs(dt) <= kSecondsPerWeek)) return false;
  double const earlierToe = toe - dt;  // on the constellation's scale
  double const a = start(sqrtAIndex) * start(sqrtAIndex);
  double const gm = gnss == core::BEIDOU ? bc::kBeidouKepler.gm : bc::kGpsKepler.gm;
  double const n = std::sqrt(gm / (a * a * a)) + start(deltaNIndex);
  kepler.resize(kKeplerSize, false);
  for (unsigned k = 0; k < kKeplerSize; ++k) kepler(k) = start(k);
  kepler(m0Index) = wrap(start(m0Index) + n * dt);
  kepler(i0Index) = start(i0Index) + start(7) * dt;
  // The node of date, Omega0 - wE toe-of-week + (OmegaDot - wE) tk, unchanged.
  kepler(omega0Index) =
      wrap(start(omega0Index) +
           kSeed.earthRate * (std::fmod(toe, kSecondsPerWeek) - std::fmod(earlierToe, kSecondsPerWeek)) +
           (start(omegaDotIndex) - kSeed.earthRate) * dt);
  return true;
}

std::uint32_t nonNegative(double value) {
  if (!(value >= 0.0)) return 0;
  if (value >= 4294967295.0) return 4294967295u;
  return static_cast<std::uint32_t>(value);
}

// GPS Toc of elements 15 (seconds of week) and 16 (full week).
core::Toc gpsToe(Vec const& kepler) {
  std::uint32_t const week = nonNegative(kepler(16));
  return core::Toc{week >> 10, week & 0x3ffu, nonNegative(kepler(15))};
}

// Elements 0-14 of the validation vector into the orbit fields of the record.
template <typename Record>
void encodeOrbit(Vec const& kepler, Record& eph) {
  bc::KeplerElements k;
  for (unsigned i = 0; i < kKeplerSize; ++i) k[i] = kepler(i);
  bc::encodeOrbit(k, eph);
}

}  // namespace

int optfun(core::GnssType gnss, Vec const& kepler, Vec const& times, Mat const& states, double toe,
           Vec& residual) {
  Residual model(gnss, times, states, toe);
  int code = model.sizeCode(kepler);
  if (code == kOkCode) {
    if (residual.size() != 3 * times.size()) residual.resize(3 * times.size(), false);
    code = model(kepler, residual);
  }
  if (code != kOkCode) model.logInputs(kepler);
  return code;
}

bool satelliteStatesToKeplerian(core::GnssType gnss, Mat const& rSat, Mat const& vSat, Vec const& tSat,
                                Vec& kepler) {
  return satelliteStatesToKeplerian(gnss, rSat, vSat, tSat, Vec(), kepler);
}

bool satelliteStatesToKeplerian(core::GnssType gnss, Mat const& rSat, Mat const& vSat, Vec const& tSat,
                                Vec const& start, Vec& kepler) {
  std::size_t const n = tSat.size();
  if (rSat.size1() != 3 || rSat.size2() != n) {
    ZARN_THROW(std::invalid_argument("satelliteStatesToGpsEphemeris: invalid size rSat"));
  }
  if (vSat.size1() != 3 || vSat.size2() != n) {
    ZARN_THROW(std::invalid_argument("satelliteStatesToGpsEphemeris: invalid size vSat"));
  }
  if (gnss != core::GPS && gnss != core::BEIDOU) {
    ZARN_THROW(std::invalid_argument("satelliteStatesToKeplerian: unsupported GNSS"));
  }
  if (n == 0) {
    log::printFormatted(log::ERROR, kTag, "satelliteStatesToKeplerian: no samples");
    return false;
  }

  // Sample ceil(N/2), counting from 1.
  std::size_t const mid = (n - 1) / 2;
  bool const beidou = gnss == core::BEIDOU;
  Vec times(tSat);
  if (beidou) {
    for (std::size_t k = 0; k < n; ++k) times(k) = gpsSecsToBeidouSecs(tSat(k));
  }
  double const step = beidou ? bc::kBeidouToe.lsb : bc::kGpsToe.lsb;
  double const toe = std::floor(times(mid) / step + 0.5) * step;

  Vec const rMid = column(rSat, mid), vMid = column(vSat, mid);
  bool carried = n >= kMinSamples && carriedElements(gnss, start, toe, kepler);
  if (!carried) seedElements(gnss, rMid, vMid, times(mid), toe, kepler);
  Solve solve{0, std::numeric_limits<double>::infinity()};
  if (n >= kMinSamples) {
    Residual residual(gnss, times, rSat, toe);
    // The plain least-squares fit, and only when the poorly split rates leave
    // their fields the fit again with deltaN held near zero.
    auto outOfField = [&]() {
      return std::fabs(kepler(deltaNIndex)) > bc::kBeidouDeltaN.highest() * bc::kBeidouDeltaN.lsb ||
             std::fabs(kepler(iDotIndex)) > bc::kBeidouIDot.highest() * bc::kBeidouIDot.lsb;
    };
    auto fitWindow = [&]() {
      Solve s = gaussNewton(gnss, residual, times, toe, kepler, false);
      if (outOfField()) s = gaussNewton(gnss, residual, times, toe, kepler, true);
      return s;
    };
    solve = fitWindow();
    if (carried && !(solve.largest <= kAcceptedResidual)) {
      log::printFormatted(log::ERROR, kTag,
                          "satelliteStatesToKeplerian: no fit from the given start (largest residual %g m); "
                          "starting from the middle state",
                          solve.largest);
      seedElements(gnss, rMid, vMid, times(mid), toe, kepler);
      solve = fitWindow();
    }
  } else {
    log::printFormatted(log::ERROR, kTag,
                        "satelliteStatesToKeplerian: %d samples cannot determine %u elements",
                        static_cast<int>(n), kKeplerSize);
  }

  // A negative eccentricity is the same orbit with perigee and anomaly turned by pi.
  if (kepler(eIndex) < 0.0) {
    kepler(eIndex) = -kepler(eIndex);
    kepler(omegaIndex) += kPi;
    kepler(m0Index) += kPi;
  }
  for (unsigned k : {i0Index, omega0Index, omegaIndex, m0Index}) kepler(k) = wrap(kepler(k));

  double const toeGps = beidou ? beidouSecsToGpsSecs(toe) : toe;
  kepler.resize(kValidationSize, true);
  kepler(15) = std::fmod(toeGps, kSecondsPerWeek);
  kepler(16) = std::floor(toeGps / kSecondsPerWeek);

  if (n < kMinSamples) return false;
  // The iteration limit alone is no failure: what the receiver gets is judged by the misfit.
  if (!(solve.largest <= kAcceptedResidual)) {
    log::printFormatted(log::ERROR, kTag,
                        "satelliteStatesToKeplerian: fit failed with code %d, largest residual %g m",
                        solve.code, solve.largest);
    return false;
  }
  return true;
}

bool keplerianToGpsEphemeris(Vec const& kepler, core::GpsEphemeris& eph) {
  if (kepler.size() != kValidationSize) {
    ZARN_THROW(std::invalid_argument("keplerianToGpsEphemeris: invalid size keplerian vector"));
  }
  eph.toe = gpsToe(kepler);
  encodeOrbit(kepler, eph);
  return validGpsEphemeris(kepler);
}

bool keplerianToBeidouEphemeris(Vec const& kepler, core::BeidouEphemeris& eph) {
  if (kepler.size() != kValidationSize) {
    ZARN_THROW(std::invalid_argument("keplerianToBeidouEphemeris: invalid size keplerian vector"));
  }
  eph.toe = secsToBeidou(gpsSecsToBeidouSecs(gpsToGpsSecs(gpsToe(kepler))));
  encodeOrbit(kepler, eph);
  return validBeidouEphemeris(kepler);
}

}  // namespace support
}  // namespace zarn
