// Fit of the broadcast Keplerian model to predicted Earth-fixed states and its
// encoding into GPS and BeiDou ephemeris records.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>

#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/ephemeris_conversion.hpp"
#include "zarn/support/log.hpp"
#include "zarn/support/time_conversion.hpp"
#include "zarn/support/validation.hpp"

namespace zarn {
namespace support {
namespace {

namespace bc = broadcast;

char const tag[] = "EphemerisConversion";

constexpr unsigned keplerSize = 15;
constexpr unsigned validationSize = 17;
constexpr unsigned ephemerisSize = 16;  // toe, then the kepler vector
constexpr double secondsPerWeek = 604800.0;
constexpr double pi = 3.14159265358979323846;
constexpr double twoPi = 2.0 * pi;

// Reference-time grid of the toe fields: 16 s (IS-GPS-200), 8 s (BDS-SIS-ICD-B1I).
constexpr double gpsToeStep = 16.0;
constexpr double beidouToeStep = 8.0;

// The solve runs on element / scale: typical spreads of the elements, so that
// a unit step moves every element by a comparable sub-metre amount.
constexpr double scale[keplerSize] = {28.86,   0.009467, 0.01793,  0.01535,  0.01257,
                                      0.01253, 5.392e-6, 7.702e-6, 6.612e-6, 0.0212,
                                      0.01561, 562100.0, 414700.0, 0.03065,  0.02211};

// Seed of the iteration: GM and Earth rate of IS-GPS-200, typical GPS values
// for deltaN (rad/s), OmegaDot (rad/s), cus (rad) and crc (m).
constexpr double seedGm = 3.986005e14;
constexpr double seedEarthRate = 7.2921151467e-5;
constexpr double seedDeltaN = 5e-8;
constexpr double seedOmegaDot = -8.2e-9;
constexpr double seedCus = 6e-6;
constexpr double seedCrc = 250.0;

// Gauss-Newton control.
constexpr double differenceStep = 1e-6;  // in normalised units
constexpr int maxIterations = 40;
constexpr double residualTolerance = 0.01;  // m, largest residual that ends the iteration
constexpr double costTolerance = 0.001;     // m^2, change of the half squared norm that ends it
constexpr double initialPreviousCost = 100.0;
constexpr double acceptedResidual = 5.0;  // m, largest residual of a usable fit
// Three position equations per sample against 15 unknowns.
constexpr unsigned minSamples = (keplerSize + 2) / 3;

// optfun result codes.
constexpr int okCode = 0;
constexpr int keplerSizeCode = 1;
constexpr int statesSizeCode = 2;
constexpr int gnssCode = 3;
constexpr int notEllipseCode = 4;
constexpr int notFiniteCode = 5;

enum Angle : unsigned {
  sqrtAIndex = 0,
  eIndex = 1,
  i0Index = 2,
  omega0Index = 3,
  omegaIndex = 4,
  m0Index = 5
};
enum Seed : unsigned { deltaNIndex = 6, omegaDotIndex = 8, cusIndex = 10, crcIndex = 11 };

// Into [-pi, pi): the broadcast angle words are signed.
double wrap(double angle) {
  return angle - twoPi * std::floor((angle + pi) / twoPi);
}

std::string format(Vec const& v) {
  std::ostringstream out;
  out.precision(15);
  out << '[';
  for (std::size_t k = 0; k < v.size(); ++k) out << (k ? ", " : "") << v(k);
  out << ']';
  return out.str();
}

// Model positions minus the given positions, without allocation once the
// buffers are sized. Times and toe on the constellation's own scale.
class Residual {
 public:
  Residual(core::GnssType gnss, Vec const& times, Mat const& states, double toe)
      : gnss_(gnss), times_(times), states_(states), eph_(ephemerisSize), pos_(3), vel_(3) {
    eph_(0) = toe;
  }

  int sizeCode(Vec const& kepler) const {
    if (kepler.size() != keplerSize) return keplerSizeCode;
    if (states_.size1() != 3 || states_.size2() != times_.size()) return statesSizeCode;
    if (gnss_ != core::GPS && gnss_ != core::BEIDOU) return gnssCode;
    return okCode;
  }

  // kepler must have 15 elements and f 3N.
  int operator()(Vec const& kepler, Vec& f) {
    for (unsigned k = 0; k < keplerSize; ++k) eph_(k + 1) = kepler(k);
    double const sqrtA = kepler(sqrtAIndex), e = kepler(eIndex);
    bool finite = true;
    for (unsigned k = 0; k < keplerSize; ++k) finite = finite && std::isfinite(kepler(k));
    if (!finite || !(sqrtA > 0.0) || !(std::fabs(e) < 1.0)) {
      std::fill(f.begin(), f.end(), std::numeric_limits<double>::quiet_NaN());
      return notEllipseCode;
    }
    bool ok = true;
    for (std::size_t s = 0; s < times_.size(); ++s) {
      keplerianEphemerisToEcef(gnss_, eph_, times_(s), pos_, vel_);
      for (unsigned j = 0; j < 3; ++j) {
        double const d = pos_(j) - states_(j, s);
        f(3 * s + j) = d;
        ok = ok && std::isfinite(d);
      }
    }
    return ok ? okCode : notFiniteCode;
  }

  void logInputs(Vec const& kepler) const {
    Vec x(kepler.size());
    for (std::size_t k = 0; k < kepler.size() && k < keplerSize; ++k) x(k) = kepler(k) / scale[k];
    log::printFormatted(log::ERROR, tag, "optfun: gnss %d, toe=%d, kepler=%s, x=%s", static_cast<int>(gnss_),
                        static_cast<int>(eph_(0)), format(kepler).c_str(), format(x).c_str());
  }

 private:
  core::GnssType gnss_;
  Vec const& times_;
  Mat const& states_;
  Vec eph_, pos_, vel_;
};

double largestAbs(Vec const& f) {
  double m = 0.0;
  for (double v : f) {
    if (!std::isfinite(v)) return std::numeric_limits<double>::infinity();
    m = std::fmax(m, std::fabs(v));
  }
  return m;
}

// Forward-difference Jacobian of the residual with respect to the normalised
// elements; kepler is restored on return.
void keplerfitJacobian(Residual& residual, Vec& kepler, Vec const& f, Vec& fPlus, Mat& jacobian) {
  for (unsigned k = 0; k < keplerSize; ++k) {
    double const saved = kepler(k);
    kepler(k) = saved + differenceStep * scale[k];
    int const code = residual(kepler, fPlus);
    if (code != okCode) {
      residual.logInputs(kepler);
      log::printFormatted(log::ERROR, tag, "keplerfitJacobian: optfun returns error %d", code);
    }
    kepler(k) = saved;
    for (std::size_t i = 0; i < f.size(); ++i) jacobian(i, k) = (fPlus(i) - f(i)) / differenceStep;
  }
}

struct Solve {
  int code;        // iterations; -40 at the limit; minus the iterations when a residual exceeds 5 m
  double largest;  // largest absolute residual at the end, m (infinite when not finite)
};

// Gauss-Newton on the normalised elements.
Solve gaussNewton(Residual& residual, Vec& kepler, std::size_t samples) {
  std::size_t const m = 3 * samples;
  Vec f(m), fPlus(m), dx(keplerSize), rhs(keplerSize);
  Mat jacobian(m, keplerSize), normal(keplerSize, keplerSize);

  auto evaluate = [&]() {
    int const code = residual(kepler, f);
    if (code != okCode) {
      residual.logInputs(kepler);
      log::printFormatted(log::ERROR, tag, "satelliteStatesToKepleriansGnSolve: optfun returns error %d",
                          code);
    }
  };
  evaluate();
  double cost = 0.5 * inner_prod(f, f);
  double previousCost = initialPreviousCost;
  int iterations = 0;
  // A NaN cost fails the last test and ends the loop.
  while (largestAbs(f) > residualTolerance && iterations < maxIterations &&
         std::fabs(previousCost - cost) > costTolerance) {
    keplerfitJacobian(residual, kepler, f, fPlus, jacobian);
    noalias(normal) = prod(trans(jacobian), jacobian);
    noalias(rhs) = -prod(trans(jacobian), f);
    mldivide(normal, rhs, dx);
    for (unsigned k = 0; k < keplerSize; ++k) kepler(k) += dx(k) * scale[k];
    evaluate();
    previousCost = cost;
    cost = 0.5 * inner_prod(f, f);
    ++iterations;
  }
  double const largest = largestAbs(f);
  if (iterations >= maxIterations) return Solve{-maxIterations, largest};
  if (largest > acceptedResidual) return Solve{-iterations, largest};
  return Solve{iterations, largest};
}

// Osculating elements of the middle state as the broadcast elements at toe.
// r, v Earth-fixed at time tm; tm and toe on the constellation's scale.
void seedElements(Vec const& r, Vec const& vEcef, double tm, double toe, Vec& kepler) {
  Vec v(vEcef);
  v(0) -= earthRotationRate * r(1);
  v(1) += earthRotationRate * r(0);
  Vec const el = eciToOrb(r, v);  // a, e, i, omega, Omega, nu
  double const a = el(0), e = el(1), nu = el(5);
  double const ea = std::atan2(std::sqrt(1.0 - e * e) * std::sin(nu), e + std::cos(nu));
  double const meanAnomaly = ea - e * std::sin(ea);
  double const n = std::sqrt(seedGm / (a * a * a));
  kepler.resize(keplerSize, false);
  kepler.clear();
  kepler(sqrtAIndex) = std::sqrt(a);
  kepler(eIndex) = e;
  kepler(i0Index) = el(2);
  kepler(omega0Index) = wrap(el(4) + seedEarthRate * std::fmod(tm, secondsPerWeek));
  kepler(omegaIndex) = wrap(el(3));
  kepler(m0Index) = wrap(meanAnomaly + (n + seedDeltaN) * (toe - tm));
  kepler(deltaNIndex) = seedDeltaN;
  kepler(omegaDotIndex) = seedOmegaDot;
  kepler(cusIndex) = seedCus;
  kepler(crcIndex) = seedCrc;
}

// value / lsb rounded half away from zero, saturating beyond 64 bits (NaN to
// the minimum), then narrowed to the field: out-of-range values wrap, and
// the validation verdict reports them.
template <typename Int>
Int encode(double value, double lsb) {
  double const x = value / lsb;
  double const r = x >= 0.0 ? std::floor(x + 0.5) : std::ceil(x - 0.5);
  constexpr double limit = 9.2e18;
  std::int64_t s;
  if (std::isnan(r) || r <= -limit) {
    s = std::numeric_limits<std::int64_t>::min();
  } else if (r >= limit) {
    s = std::numeric_limits<std::int64_t>::max();
  } else {
    s = static_cast<std::int64_t>(r);
  }
  return static_cast<Int>(s);
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

template <typename Record>
void encodeOrbit(Vec const& k, double harmonicAngle, double harmonicRadius, Record& eph) {
  eph.sqrtA = encode<decltype(eph.sqrtA)>(k(0), bc::sqrtA);
  eph.e = encode<decltype(eph.e)>(k(1), bc::eccentricity);
  eph.i0 = encode<decltype(eph.i0)>(k(2), bc::angle);
  eph.omega0 = encode<decltype(eph.omega0)>(k(3), bc::angle);
  eph.omega = encode<decltype(eph.omega)>(k(4), bc::angle);
  eph.m0 = encode<decltype(eph.m0)>(k(5), bc::angle);
  eph.deltaN = encode<decltype(eph.deltaN)>(k(6), bc::rate);
  eph.iDot = encode<decltype(eph.iDot)>(k(7), bc::rate);
  eph.omegaDot = encode<decltype(eph.omegaDot)>(k(8), bc::rate);
  eph.cuc = encode<decltype(eph.cuc)>(k(9), harmonicAngle);
  eph.cus = encode<decltype(eph.cus)>(k(10), harmonicAngle);
  eph.crc = encode<decltype(eph.crc)>(k(11), harmonicRadius);
  eph.crs = encode<decltype(eph.crs)>(k(12), harmonicRadius);
  eph.cic = encode<decltype(eph.cic)>(k(13), harmonicAngle);
  eph.cis = encode<decltype(eph.cis)>(k(14), harmonicAngle);
}

}  // namespace

int optfun(core::GnssType gnss, Vec const& kepler, Vec const& times, Mat const& states, double toe,
           Vec& residual) {
  Residual model(gnss, times, states, toe);
  int code = model.sizeCode(kepler);
  if (code == okCode) {
    if (residual.size() != 3 * times.size()) residual.resize(3 * times.size(), false);
    code = model(kepler, residual);
  }
  if (code != okCode) model.logInputs(kepler);
  return code;
}

bool satelliteStatesToKeplerian(core::GnssType gnss, Mat const& rSat, Mat const& vSat, Vec const& tSat,
                                Vec& kepler) {
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
    log::printFormatted(log::ERROR, tag, "satelliteStatesToKeplerian: no samples");
    return false;
  }

  // Sample ceil(N/2), counting from 1.
  std::size_t const mid = (n - 1) / 2;
  bool const beidou = gnss == core::BEIDOU;
  Vec times(tSat);
  if (beidou) {
    for (std::size_t k = 0; k < n; ++k) times(k) = gpsSecsToBeidouSecs(tSat(k));
  }
  double const step = beidou ? beidouToeStep : gpsToeStep;
  double const toe = std::floor(times(mid) / step + 0.5) * step;

  Vec const rMid = column(rSat, mid), vMid = column(vSat, mid);
  seedElements(rMid, vMid, times(mid), toe, kepler);
  Solve solve{0, std::numeric_limits<double>::infinity()};
  if (n >= minSamples) {
    Residual residual(gnss, times, rSat, toe);
    solve = gaussNewton(residual, kepler, n);
  } else {
    log::printFormatted(log::ERROR, tag,
                        "satelliteStatesToKeplerian: %d samples cannot determine %u elements",
                        static_cast<int>(n), keplerSize);
  }

  // A negative eccentricity is the same orbit with perigee and anomaly turned by pi.
  if (kepler(eIndex) < 0.0) {
    kepler(eIndex) = -kepler(eIndex);
    kepler(omegaIndex) += pi;
    kepler(m0Index) += pi;
  }
  for (unsigned k : {i0Index, omega0Index, omegaIndex, m0Index}) kepler(k) = wrap(kepler(k));

  double const toeGps = beidou ? beidouSecsToGpsSecs(toe) : toe;
  kepler.resize(validationSize, true);
  kepler(15) = std::fmod(toeGps, secondsPerWeek);
  kepler(16) = std::floor(toeGps / secondsPerWeek);

  if (n < minSamples) return false;
  if (solve.code < 0 || solve.largest > acceptedResidual) {
    log::printFormatted(log::ERROR, tag,
                        "satelliteStatesToKeplerian: fit failed with code %d, largest residual %g m",
                        solve.code, solve.largest);
    return false;
  }
  return true;
}

bool keplerianToGpsEphemeris(Vec const& kepler, core::GpsEphemeris& eph) {
  if (kepler.size() != validationSize) {
    ZARN_THROW(std::invalid_argument("keplerianToGpsEphemeris: invalid size keplerian vector"));
  }
  eph.toe = gpsToe(kepler);
  encodeOrbit(kepler, bc::gpsHarmonicAngle, bc::gpsHarmonicRadius, eph);
  return validGpsEphemeris(kepler);
}

bool keplerianToBeidouEphemeris(Vec const& kepler, core::BeidouEphemeris& eph) {
  if (kepler.size() != validationSize) {
    ZARN_THROW(std::invalid_argument("keplerianToBeidouEphemeris: invalid size keplerian vector"));
  }
  eph.toe = secsToBeidou(gpsSecsToBeidouSecs(gpsToGpsSecs(gpsToe(kepler))));
  encodeOrbit(kepler, bc::beidouHarmonicAngle, bc::beidouHarmonicRadius, eph);
  return validBeidouEphemeris(kepler);
}

}  // namespace support
}  // namespace zarn
