#include "zarn/support/prediction.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <stdexcept>
#include <vector>

#include "apc_offset.hpp"
#include "force_model/third_body.hpp"
#include "zarn/support/assistance_data.hpp"
#include "zarn/support/ephemeris_conversion.hpp"
#include "zarn/support/log.hpp"
#include "zarn/support/numerical_integration.hpp"
#include "zarn/support/time_conversion.hpp"

namespace zarn {
namespace support {
namespace {

namespace ublas = boost::numeric::ublas;

char const kTag[] = "Prediction";

constexpr unsigned kStateSize = 8;  // position, velocity, xp, yp
constexpr unsigned kVariationalSize = kStateSize + kStateSize * kStateSize;

// Filter tuning: variances in m^2, (m/s)^2 and rad^2.
// Position a priori (2 m)^2 per axis, each measured position (1 m)^2 per
// axis: GPS broadcast orbits are good to 1-2 m (Montenbruck, Steigenberger,
// Hauschild 2015, "Broadcast versus precise ephemerides: a multi-GNSS
// perspective", GPS Solutions 19:321). Velocity (1 mm/s)^2, a few times what
// such an error varying over a 12-hour revolution amounts to (2 m x 2 pi /
// 12 h = 0.3 mm/s).
constexpr double kPositionVariance = 4.0;
constexpr double kVelocityVariance = 1e-6;
constexpr double kMeasurementVariance = 1.0;
// The pole a priori (1e-5 rad = 2")^2, wide of its distance of at most about
// 0.6" from the IERS reference pole (IERS EOP C04 series), and free to move
// (1e-7 rad = 0.02")^2 per sample, well above its own motion of a few mas per
// day (IERS Bulletin A).
constexpr double kPoleVariance = 1e-10;
constexpr double kPoleProcessNoise = 1e-14;
// BeiDou GEO and IGSO are tracked from one region, so their broadcast orbits
// are weakest along and across track: 2 m radial, 50 m along- and cross-track
// and (1 cm/s)^2 before the first epoch, 1 m and 5 m per measurement. Their
// samples cannot separate the pole from the orbit, so it is held.
constexpr double kGeoVelocityVariance = 1e-4;
constexpr double kGeoPoleVariance = 1e-40;
constexpr double kGeoPositionRtn[3] = {4.0, 2500.0, 2500.0};
constexpr double kGeoMeasurementRtn[3] = {1.0, 25.0, 25.0};
// Step tolerance of rkf78 between samples (relative plus absolute, per
// component).
constexpr double kRkf78Tolerance = 1e-7;
// Longest rkf78 step of the batch trajectory (s): the pipeline's sample step,
// where the trajectory matches the variational state's to millimetres.
constexpr double kTrajectoryStep = 900.0;

// Batch differential correction: at least this many more scalar
// measurements than parameters. The first iteration integrates the arc by
// Gauss-Jackson (cheap, off by up to a metre through eclipses), the later ones
// accurately by rkf78. The problem is linear to far below the tolerances once
// a correction is small: converged when a correction from an accurate
// iteration (any, for a rough estimate), times kBatchLinearFactor (a bound on
// the relative error of partials and linearisation, measured 2e-4), moves the
// initial position by less than 1 mm, p1, p2 by less than 1e-4 of their units
// (0.1 pm/s^2 of Y-bias, about 1 cm over a day) and the UT1 rate by less than
// 1e-4 ms/day; that correction is applied to first order. A first guess from
// the samples needs 2 iterations.
constexpr unsigned kBatchRedundancy = 6;
constexpr int kBatchMaxIterations = 8;
constexpr double kBatchPositionTolerance = 1e-3;  // m
constexpr double kBatchSrpTolerance = 1e-4;
// The UT1 rate is solved for in ms/day of UT1 - UTC, where one unit moves a
// GPS orbit by about 2 m over a day: the normal equations stay balanced.
constexpr double kUt1RateUnit = 1e-3 / 86400.0;  // s/s per ms/day
constexpr double kBatchUt1RateTolerance = 1e-4;  // ms/day
constexpr double kBatchLinearFactor = 1e-3;
// The partials need a relative accuracy of about 1e-5 only: they come from the
// variational equations on a gravity field of this degree (the terms above
// change a GPS orbit's partials by less than 1e-5) at this tolerance, from
// sample to sample at most so far apart, once; again only when a correction
// fails to shrink by the given factor.
constexpr int kPartialsDegree = 4;
constexpr double kPartialsTolerance = 1e-5;
constexpr double kPartialsNodeSpan = 2700.0;  // s
constexpr double kPartialsContraction = 0.5;

bool shapedAlongTrack(BeidouSvType svType) {
  return svType == BeidouSvType::GEO || svType == BeidouSvType::IGSO;
}

Vec head3(Vec const& x, unsigned first) {
  Vec v(3);
  for (unsigned k = 0; k < 3; ++k) v(k) = x(first + k);
  return v;
}

// A^T diag(d) A for the inertial-to-RTN rotation of (r, v).
Mat rtnCovariance(Vec const& r, Vec const& v, double const (&d)[3]) {
  Vec y(3, 0.0);
  Mat a(3, 3);
  eciToRtn(r, v, y, a);
  Mat da(a);
  for (unsigned i = 0; i < 3; ++i) ublas::row(da, i) *= d[i];
  return prod(trans(a), da);
}

// The force model's rule for its frame records: a matrix that is not 3 x 3
// (a record never set) acts as the identity.
Mat rotationOrIdentity(Mat const& m) {
  if (m.size1() == 3 && m.size2() == 3) return m;
  return ublas::identity_matrix<double>(3);
}

// B A B^T into out.
void congruence(Mat const& b, Mat const& a, Mat& out) {
  Mat const ab = prod(b, a);
  noalias(out) = prod(ab, trans(b));
}

// The integrator keeps only its newest epochs, so when windows overlap the
// first `missing` columns were stepped through by an earlier call: they are
// integrated again, backwards from the first new column.
void fillEarlierColumns(OdeFunGj8& ode, Vec const& epochs, double h, unsigned missing, Mat& pm, Mat& vm) {
  Gj8Integrator back;
  Vec const r = ublas::column(pm, missing), v = ublas::column(vm, missing);
  back.gj8Init(ode, r, v, epochs(missing), -h);
  Mat pb(3, missing, 0.0), vb(3, missing, 0.0);
  back.gj8Propagate(ode, pb, vb, missing);
  // Column j of the backward run is epoch missing - 1 - j.
  for (unsigned j = 0; j < missing; ++j) {
    ublas::column(pm, missing - 1 - j) = ublas::column(pb, j);
    ublas::column(vm, missing - 1 - j) = ublas::column(vb, j);
  }
}

// The first sample (row 0 of positions and velocities, ITRS) as an Int0 state
// of the frame N: x[0..5] and the 8 x 8 Jacobian j of that mapping (pole
// columns included).
void firstSampleInInt0(double t0, Mat const& positions, Mat const& velocities, Eop const& eop,
                       InertialFrameInfo const& frame, Mat const& nMatrix, int ls, Vec& x, Mat& j) {
  Vec const r0Itrs = ublas::row(positions, 0), v0Itrs = ublas::row(velocities, 0);
  Vec r0(3), v0(3);
  toInt0(r0Itrs, v0Itrs, eop, r0, v0, j);
  Mat const c = prod(nMatrix, trans(icrsToInt0(t0, frame.ut1MinusUtc, ls)));
  Mat cBlock = ublas::identity_matrix<double>(kStateSize);
  ublas::subrange(cBlock, 0, 3, 0, 3) = c;
  ublas::subrange(cBlock, 3, 6, 3, 6) = c;
  j = Mat(prod(cBlock, j));
  ublas::subrange(x, 0, 3) = prod(c, r0);
  ublas::subrange(x, 3, 6) = prod(c, v0);
}

// Starts the model's Gauss-Jackson integrator from the state (r, v) of the
// last sample time: there, or floor(n/2) steps back (labelled times[n/2]).
void initialiseIntegrator(ForceModel& forceModel, Vec const& r, Vec const& v, Vec const& times,
                          bool backwards, char const* caller) {
  std::size_t const n = times.size(), m = n / 2;
  double const h = times(1) - times(0);
  Gj8Integrator& integrator = forceModel.getGj8Integrator();
  OdeFunGj8 ode(forceModel);
  if (!backwards) {
    integrator.gj8Init(ode, r, v, times(n - 1), h);
    return;
  }
  integrator.gj8Init(ode, r, v, times(n - 1), -h);
  Mat rBack(3, 1, 0.0), vBack(3, 1, 0.0);
  if (integrator.gj8Propagate(ode, rBack, vBack, static_cast<unsigned>(m)) == 0) {
    log::printFormatted(log::ERROR, kTag,
                        "%s: integrator made 0 backwards steps, initialization has failed, "
                        "target backwards time %f",
                        caller, times(m));
    integrator.gj8Init(ode, r, v, times(n - 1), h);
  } else {
    Vec const rm = ublas::column(rBack, 0), vm = ublas::column(vBack, 0);
    integrator.gj8Init(ode, rm, vm, times(m), h);
  }
}

// Partials of the batch arc with respect to the parameters at times[0]: the
// position rows of the transition matrix at every sample and its position and
// velocity rows at the last one.
struct ArcPartials {
  explicit ArcPartials(std::size_t n) : position(n * 3 * kStateSize), end(6, kStateSize) {}
  double& at(std::size_t k, unsigned row, unsigned col) { return position[(k * 3 + row) * kStateSize + col]; }
  double operator()(std::size_t k, unsigned row, unsigned col) const {
    return position[(k * 3 + row) * kStateSize + col];
  }
  std::vector<double> position;
  Mat end;
};

// The variational equations from x at times[0], integrated from node to node,
// the samples furthest apart within kPartialsNodeSpan; between nodes the
// position rows are cubic Hermite interpolants of the position and velocity
// rows (relative error about (w dt)^4 / 384, w the mean motion: 6e-5 for a GPS
// orbit over 45 minutes). False when the integration breaks down.
bool integratePartials(OdeFunRkf78& ode, Vec const& x, Vec const& times, ArcPartials& partials) {
  std::size_t const n = times.size();
  Vec y(kVariationalSize, 0.0);
  for (unsigned i = 0; i < kStateSize; ++i) {
    y(i) = x(i);
    y(kStateSize + i + kStateSize * i) = 1.0;
  }
  auto phi = [&](unsigned row, unsigned col) { return y(kStateSize + row + kStateSize * col); };
  for (unsigned i = 0; i < 3; ++i) {
    for (unsigned col = 0; col < kStateSize; ++col) partials.at(0, i, col) = phi(i, col);
  }
  double previousPosition[3][kStateSize], previousVelocity[3][kStateSize];
  std::size_t node = 0;
  while (node + 1 < n) {
    std::size_t next = node + 1;
    while (next + 1 < n && std::fabs(times(next + 1) - times(node)) <= kPartialsNodeSpan) ++next;
    for (unsigned i = 0; i < 3; ++i) {
      for (unsigned col = 0; col < kStateSize; ++col) {
        previousPosition[i][col] = phi(i, col);
        previousVelocity[i][col] = phi(3 + i, col);
      }
    }
    double const span = times(next) - times(node);
    if (rkf78(ode, y, times(node), times(next), std::fabs(span), kPartialsTolerance) == 0 ||
        !std::isfinite(norm_2(y))) {
      return false;
    }
    for (std::size_t k = node + 1; k <= next; ++k) {
      double const s = (times(k) - times(node)) / span, s2 = s * s, s3 = s2 * s;
      double const h00 = 2 * s3 - 3 * s2 + 1, h10 = (s3 - 2 * s2 + s) * span, h01 = -2 * s3 + 3 * s2,
                   h11 = (s3 - s2) * span;
      for (unsigned i = 0; i < 3; ++i) {
        for (unsigned col = 0; col < kStateSize; ++col) {
          partials.at(k, i, col) = h00 * previousPosition[i][col] + h10 * previousVelocity[i][col] +
                                   h01 * phi(i, col) + h11 * phi(3 + i, col);
        }
      }
    }
    node = next;
  }
  for (unsigned i = 0; i < 6; ++i) {
    for (unsigned col = 0; col < kStateSize; ++col) partials.end(i, col) = phi(i, col);
  }
  return true;
}

// Position and velocity under the force model, for rkf78.
class OrbitOde : public OdeFunction {
 public:
  explicit OrbitOde(ForceModel& model) : model_(model), r_(3), a_(3), unused_(3, kStateSize) {}
  void operator()(Vec const& x, Vec& dx, double t) override {
    model_.setAccDerivatives(false);
    for (unsigned i = 0; i < 3; ++i) r_(i) = x(i);
    model_.forceModel(t, r_, a_, unused_);
    if (dx.size() != 6) dx.resize(6, false);
    for (unsigned i = 0; i < 3; ++i) {
      dx(i) = x(3 + i);
      dx(3 + i) = a_(i);
    }
  }

 private:
  ForceModel& model_;
  Vec r_, a_;
  Mat unused_;
};

// The trajectory from x at times[0] over the sample times: positions (3 x n)
// and the state at the last time (size 6). Accurate: rkf78 from sample to
// sample. Otherwise Gauss-Jackson at the sample step, a hundred times cheaper
// but off by up to a metre over a day through eclipses; it falls back to rkf78
// when the samples are not on one grid. False when the integration fails.
bool integrateTrajectory(ForceModel& model, Vec const& x, Vec const& times, double h, bool accurate,
                         Mat& trajectory, Vec& end) {
  std::size_t const n = times.size();
  std::vector<unsigned> steps(n, 0);
  bool grid = !accurate;
  for (std::size_t k = 1; k < n && grid; ++k) {
    double const m = std::round((times(k) - times(0)) / h);
    grid = m >= 1.0 && std::fabs(times(k) - times(0) - m * h) <= 1e-6 * std::fabs(h);
    steps[k] = grid ? static_cast<unsigned>(m) : 0;
  }
  for (unsigned i = 0; i < 3; ++i) trajectory(i, 0) = x(i);
  if (grid) {
    Gj8Integrator integrator;
    OdeFunGj8 ode(model);
    Vec const r0 = head3(x, 0), v0 = head3(x, 3);
    if (integrator.gj8Init(ode, r0, v0, times(0), h) != 0) return false;
    unsigned const total = steps[n - 1];
    Mat r(3, total), v(3, total);
    if (integrator.gj8Propagate(ode, r, v, total) != total) return false;
    for (std::size_t k = 1; k < n; ++k) {
      for (unsigned i = 0; i < 3; ++i) trajectory(i, k) = r(i, steps[k] - 1);
    }
    for (unsigned i = 0; i < 3; ++i) {
      end(i) = r(i, total - 1);
      end(3 + i) = v(i, total - 1);
    }
  } else {
    OrbitOde ode(model);
    Vec y = ublas::subrange(x, 0, 6);
    for (std::size_t k = 1; k < n; ++k) {
      // Six components alone would let rkf78 take steps far longer than the
      // variational state allowed: long intervals are cut.
      double const span = times(k) - times(k - 1);
      int const pieces = static_cast<int>(std::ceil(std::fabs(span) / kTrajectoryStep - 1e-9));
      for (int j = 0; j < pieces; ++j) {
        double const from = times(k - 1) + span * j / pieces,
                     to = j + 1 == pieces ? times(k) : from + span / pieces;
        if (rkf78(ode, y, from, to, std::fabs(h), kRkf78Tolerance) == 0) return false;
      }
      for (unsigned i = 0; i < 3; ++i) trajectory(i, k) = y(i);
    }
    end = y;
  }
  return std::isfinite(norm_2(end));
}

}  // namespace

InitialStateEstimate estimateInitialState(Vec const& times, Mat const& positions, Mat const& velocities,
                                          Eop const& eop, ForceModel& forceModel, bool backwards,
                                          BeidouSvType svType) {
  std::size_t const n = times.size();
  if (n < 2) ZARN_THROW(std::invalid_argument("estimateInitialState: invalid size times"));
  if (positions.size1() != n || positions.size2() != 3) {
    ZARN_THROW(std::invalid_argument("estimateInitialState: invalid size positions"));
  }
  if (velocities.size1() < 1 || velocities.size2() != 3) {
    ZARN_THROW(std::invalid_argument("estimateInitialState: invalid size velocities"));
  }
  double const h = times(1) - times(0);
  std::size_t const m = n / 2;
  int const ls = leapSeconds(times(m), true, forceModel.getLeapInfo());
  InertialFrameInfo const frame = forceModel.getInertialFrameInfo();
  Mat const nMatrix = rotationOrIdentity(frame.matrix);
  bool const shaped = shapedAlongTrack(svType);

  Vec x(kStateSize);
  Mat j(kStateSize, kStateSize);
  firstSampleInInt0(times(0), positions, velocities, eop, frame, nMatrix, ls, x, j);
  x(6) = eop.xp;
  x(7) = eop.yp;

  Mat p = ublas::zero_matrix<double>(kStateSize, kStateSize);
  Mat q = ublas::zero_matrix<double>(kStateSize, kStateSize);
  for (unsigned k = 0; k < 3; ++k) {
    p(k, k) = shaped ? 0.0 : kPositionVariance;
    p(k + 3, k + 3) = shaped ? kGeoVelocityVariance : kVelocityVariance;
  }
  p(6, 6) = p(7, 7) = shaped ? kGeoPoleVariance : kPoleVariance;
  if (!shaped) q(6, 6) = q(7, 7) = kPoleProcessNoise;
  {
    Mat mapped(kStateSize, kStateSize);
    congruence(j, p, mapped);
    p = mapped;
  }
  if (shaped) {
    ublas::subrange(p, 0, 3, 0, 3) = rtnCovariance(head3(x, 0), head3(x, 3), kGeoPositionRtn);
  }
  Mat r = kMeasurementVariance * ublas::identity_matrix<double>(3);

  Vec y(kVariationalSize);
  Vec xMinus(kStateSize), innovation(3), u(3), z(3);
  Mat phi(kStateSize, kStateSize), pMinus(kStateSize, kStateSize), hm(3, kStateSize), k(kStateSize, 3);
  Mat dWdxp(3, 3), dWdyp(3, 3), lm(kStateSize, kStateSize);
  Mat const identity8 = ublas::identity_matrix<double>(kStateSize);
  OdeFunRkf78 variational(forceModel);

  for (std::size_t e = 1; e < n; ++e) {
    Eop const pole{x(6), x(7)};
    EopInfo const eopInfo = makeEopInfo(pole);
    forceModel.setEopInfo(eopInfo);

    // State and identity transition matrix, the latter column by column.
    y.clear();
    for (unsigned i = 0; i < kStateSize; ++i) {
      y(i) = x(i);
      y(kStateSize + i + kStateSize * i) = 1.0;
    }
    rkf78(variational, y, times(e - 1), times(e), h, kRkf78Tolerance);
    for (unsigned i = 0; i < kStateSize; ++i) {
      xMinus(i) = y(i);
      for (unsigned col = 0; col < kStateSize; ++col) phi(i, col) = y(kStateSize + i + kStateSize * col);
    }

    for (unsigned i = 0; i < kStateSize; ++i) {
      for (unsigned col = i + 1; col < kStateSize; ++col)
        p(i, col) = p(col, i) = (p(i, col) + p(col, i)) / 2.0;
    }
    congruence(phi, p, pMinus);
    pMinus += q;

    // Measurement: ITRS position = W B r, B = M_k N^T.
    Mat const b = prod(icrsToInt0(times(e), frame.ut1MinusUtc, ls), trans(nMatrix));
    Mat const t = prod(eopInfo.matrix, b);
    Vec const rMinus = head3(xMinus, 0);
    noalias(u) = prod(b, rMinus);
    polarMotionPartials(pole, dWdxp, dWdyp);
    hm.clear();
    ublas::subrange(hm, 0, 3, 0, 3) = t;
    ublas::column(hm, 6) = prod(dWdxp, u);
    ublas::column(hm, 7) = prod(dWdyp, u);
    if (shaped) r = rtnCovariance(rMinus, head3(xMinus, 3), kGeoMeasurementRtn);

    Mat const pht = prod(pMinus, trans(hm));
    Mat s = prod(hm, pht);
    s += r;
    noalias(k) = prod(pht, inverse(s));
    noalias(z) = ublas::row(positions, e);
    noalias(innovation) = z - prod(t, rMinus);
    noalias(x) = xMinus + prod(k, innovation);

    // Joseph form keeps P symmetric and positive.
    noalias(lm) = identity8 - prod(k, hm);
    congruence(lm, pMinus, p);
    Mat const kr = prod(k, r);
    p += prod(kr, trans(k));
  }

  InitialStateEstimate result{x, p, times(n - 1)};
  // The propagation and the conversions after it use the final pole.
  forceModel.setEopInfo(makeEopInfo(Eop{x(6), x(7)}));

  initialiseIntegrator(forceModel, head3(x, 0), head3(x, 3), times, backwards, "estimateInitialState");
  return result;
}

BatchEstimate estimateInitialStateBatch(Vec const& times, Mat const& positions, Mat const& velocities,
                                        Eop const& eop, bool estimatePole, Srp const& srpSigma,
                                        ForceModel& forceModel, bool backwards) {
  return estimateInitialStateBatch(times, positions, velocities, eop, estimatePole, srpSigma, false, 0.0,
                                   forceModel, backwards);
}

BatchEstimate estimateInitialStateBatch(Vec const& times, Mat const& positions, Mat const& velocities,
                                        Eop const& eop, bool estimatePole, Srp const& srpSigma,
                                        bool estimateUt1Rate, double ut1Rate, ForceModel& forceModel,
                                        bool backwards, bool rough) {
  std::size_t const n = times.size();
  if (n < 2) ZARN_THROW(std::invalid_argument("estimateInitialStateBatch: invalid size times"));
  if (positions.size1() != n || positions.size2() != 3) {
    ZARN_THROW(std::invalid_argument("estimateInitialStateBatch: invalid size positions"));
  }
  if (velocities.size1() < 1 || velocities.size2() != 3) {
    ZARN_THROW(std::invalid_argument("estimateInitialStateBatch: invalid size velocities"));
  }
  unsigned const poleAt = kStateSize, rateAt = kStateSize + (estimatePole ? 2 : 0);
  unsigned const np = rateAt + (estimateUt1Rate ? 1 : 0);
  BatchEstimate result;
  result.pole = eop;
  result.ut1Rate = ut1Rate;
  result.epoch = times(n - 1);
  if (3 * n < np + kBatchRedundancy) {
    log::printFormatted(log::ERROR, kTag,
                        "estimateInitialStateBatch: %u samples cannot determine %u parameters",
                        static_cast<unsigned>(n), np);
    return result;
  }
  double const h = times(1) - times(0);
  int const ls = leapSeconds(times(n / 2), true, forceModel.getLeapInfo());
  InertialFrameInfo const frame = forceModel.getInertialFrameInfo();
  Mat const nMatrix = rotationOrIdentity(frame.matrix);
  AssistanceData const given = forceModel.getAssistanceData();
  EopInfo const givenEop = forceModel.getEopInfo();

  // Parameters: Int0 position and velocity at times[0], p1, p2 and the pole.
  Vec x(kStateSize);
  Mat jacobian(kStateSize, kStateSize);
  firstSampleInInt0(times(0), positions, velocities, eop, frame, nMatrix, ls, x, jacobian);
  x(6) = given.srp[0];
  x(7) = given.srp[1];
  Eop pole = eop;
  double rate = ut1Rate;

  // The rotations B_k = icrsToInt0(t_k) N^T, with UT1 - UTC drifting at `rate`
  // from the frame epoch; they change only with the rate.
  std::vector<Mat> b(n);
  auto rotations = [&]() {
    for (std::size_t k = 0; k < n; ++k) {
      double const ut1 = frame.ut1MinusUtc + rate * (times(k) - frame.tRef);
      b[k] = prod(icrsToInt0(times(k), ut1, ls), trans(nMatrix));
    }
  };
  rotations();

  forceModel.setSrpComputation(true);
  OdeFunRkf78 variational(forceModel);
  int const degree = forceModel.getNumberOfGeopotentialCoefficients();
  ArcPartials arcPartials(n);
  ArcPartials const& partials = arcPartials;
  Mat trajectory(3, n);
  Vec u(3), res(3), g(np), dx(np), end(6), endState(6);
  Mat normal(np, np), hm(3, np), t(3, 3), dWdxp(3, 3), dWdyp(3, 3);
  bool converged = false, refresh = true, accurate = false;
  double lastStep = std::numeric_limits<double>::infinity();
  for (int iteration = 1; iteration <= kBatchMaxIterations; ++iteration) {
    AssistanceData model = given;
    model.srp[0] = x(6);
    model.srp[1] = x(7);
    forceModel.setAssistanceData(model);
    EopInfo const eopInfo = makeEopInfo(pole);
    forceModel.setEopInfo(eopInfo);
    polarMotionPartials(pole, dWdxp, dWdyp);

    result.iterations = iteration;
    result.rms = std::numeric_limits<double>::quiet_NaN();
    bool const fresh = refresh;
    if (fresh) {
      forceModel.setNumberOfGeopotentialCoefficients(std::min(degree, kPartialsDegree));
      bool const ok = integratePartials(variational, x, times, arcPartials);
      forceModel.setNumberOfGeopotentialCoefficients(degree);
      if (!ok) break;
      refresh = false;
    }
    bool const exact = accurate;
    if (!integrateTrajectory(forceModel, x, times, h, exact, trajectory, end)) break;
    normal.clear();
    g.clear();
    double sum = 0.0;
    for (std::size_t k = 0; k < n; ++k) {
      noalias(t) = prod(eopInfo.matrix, b[k]);
      Vec const r = ublas::column(trajectory, k);
      noalias(u) = prod(b[k], r);
      noalias(res) = ublas::row(positions, k) - prod(t, r);
      if (!std::isfinite(norm_2(res))) {
        sum = std::numeric_limits<double>::quiet_NaN();
        break;
      }
      sum += inner_prod(res, res);
      // d(position)/d(parameters at times[0]) = rows 0..2 of the transition matrix.
      for (unsigned i = 0; i < 3; ++i) {
        for (unsigned col = 0; col < kStateSize; ++col) {
          double v = 0.0;
          for (unsigned l = 0; l < 3; ++l) v += t(i, l) * partials(k, l, col);
          hm(i, col) = v;
        }
      }
      if (estimatePole) {
        ublas::column(hm, poleAt) = prod(dWdxp, u);
        ublas::column(hm, poleAt + 1) = prod(dWdyp, u);
      }
      if (estimateUt1Rate) {
        // A later UT1 turns the Earth further: d(R3(a) u)/da = (u_y, -u_x, 0).
        double const da = earthRotationRate * kUt1RateUnit * (times(k) - frame.tRef);
        Vec turn(3);
        turn(0) = u(1) * da;
        turn(1) = -u(0) * da;
        turn(2) = 0.0;
        ublas::column(hm, rateAt) = prod(eopInfo.matrix, turn);
      }
      noalias(normal) += prod(trans(hm), hm);
      noalias(g) += prod(trans(hm), res);
    }
    Vec const gSamples = g;
    Mat const normalSamples = normal;
    // A-priori constraint of p1, p2 towards the model's values.
    for (unsigned i = 0; i < 2; ++i) {
      if (!(srpSigma[i] > 0.0)) continue;
      double const w = 1.0 / (srpSigma[i] * srpSigma[i]);
      normal(6 + i, 6 + i) += w;
      g(6 + i) += w * (given.srp[i] - x(6 + i));
    }
    result.rms = std::sqrt(sum / static_cast<double>(n));
    if (!std::isfinite(result.rms) || mldivide(normal, g, dx) != 0 || !std::isfinite(norm_2(dx))) break;
    for (unsigned i = 0; i < kStateSize; ++i) x(i) += dx(i);
    if (estimatePole) {
      pole.xp += dx(poleAt);
      pole.yp += dx(poleAt + 1);
    }
    double const rateStep = estimateUt1Rate ? dx(rateAt) : 0.0;
    if (estimateUt1Rate) {
      rate += rateStep * kUt1RateUnit;
      rotations();
    }
    // The state at the last sample: the propagated one, corrected to first order.
    noalias(endState) = end + prod(partials.end, ublas::subrange(dx, 0, kStateSize));
    double const step = norm_2(ublas::subrange(dx, 0, 3));
    accurate = !rough;
    double const f = kBatchLinearFactor;
    if ((exact || rough) && f * step < kBatchPositionTolerance && f * std::fabs(dx(6)) < kBatchSrpTolerance &&
        f * std::fabs(dx(7)) < kBatchSrpTolerance && f * std::fabs(rateStep) < kBatchUt1RateTolerance) {
      converged = true;
      // The residuals of the corrected orbit, to first order.
      sum += inner_prod(dx, prod(normalSamples, dx)) - 2.0 * inner_prod(dx, gSamples);
      result.rms = std::sqrt(std::max(sum, 0.0) / static_cast<double>(n));
      Mat const cov = inverse(normal);
      double const dof = 3.0 * static_cast<double>(n) - np;
      double const variance = dof > 0 ? sum / dof : 1.0;
      // Covariance of (end state, p1, p2): the transition matrix carries the first block.
      Mat phi8 = ublas::identity_matrix<double>(kStateSize);
      ublas::subrange(phi8, 0, 6, 0, kStateSize) = partials.end;
      Mat const c8 = ublas::subrange(cov, 0, kStateSize, 0, kStateSize);
      result.covariance.resize(kStateSize, kStateSize, false);
      congruence(phi8, c8, result.covariance);
      result.covariance *= variance;
      if (estimateUt1Rate) {
        // Holding the rate at r + d moves the others by -N_xx^-1 N_xr d.
        Mat const nxx = ublas::subrange(normal, 0, rateAt, 0, rateAt);
        Vec const nxr = ublas::subrange(ublas::column(normal, rateAt), 0, rateAt);
        Vec s(rateAt);
        if (mldivide(nxx, nxr, s) == 0 && std::isfinite(norm_2(s))) {
          s /= -kUt1RateUnit;
          result.ut1RateSensitivity = ublas::zero_vector<double>(kStateSize + 2);
          Vec const endShift = prod(partials.end, ublas::subrange(s, 0, kStateSize));
          for (unsigned i = 0; i < 6; ++i) result.ut1RateSensitivity(i) = endShift(i);
          result.ut1RateSensitivity(6) = s(6);
          result.ut1RateSensitivity(7) = s(7);
          if (estimatePole) {
            result.ut1RateSensitivity(kStateSize) = s(poleAt);
            result.ut1RateSensitivity(kStateSize + 1) = s(poleAt + 1);
          }
        }
      }
      break;
    }
    // Kept partials must make each correction clearly smaller than the last.
    if (!fresh && !(step < kPartialsContraction * lastStep)) refresh = true;
    lastStep = step;
  }
  forceModel.setSrpComputation(false);
  if (!converged) {
    forceModel.setAssistanceData(given);
    forceModel.setEopInfo(givenEop);
    log::printFormatted(log::ERROR, kTag,
                        "estimateInitialStateBatch: no convergence after %d iterations (residual %.3f m)",
                        result.iterations, result.rms);
    return result;
  }
  AssistanceData model = given;
  model.srp[0] = x(6);
  model.srp[1] = x(7);
  forceModel.setAssistanceData(model);
  forceModel.setEopInfo(makeEopInfo(pole));
  result.converged = true;
  result.pole = pole;
  result.ut1Rate = rate;
  result.state = Vec(kStateSize);
  for (unsigned i = 0; i < 6; ++i) result.state(i) = endState(i);
  result.state(6) = x(6);
  result.state(7) = x(7);
  initialiseIntegrator(forceModel, head3(endState, 0), head3(endState, 3), times, backwards,
                       "estimateInitialStateBatch");
  return result;
}

BatchEstimate holdUt1Rate(BatchEstimate const& free, double ut1Rate, Vec const& times, ForceModel& forceModel,
                          bool backwards) {
  BatchEstimate held = free;
  Vec const& d = free.ut1RateSensitivity;
  if (!free.converged || d.size() != kStateSize + 2 || free.state.size() != kStateSize || times.size() < 2) {
    log::printFormatted(log::ERROR, kTag, "holdUt1Rate: the estimate carries no UT1-rate sensitivity");
    held.converged = false;
    return held;
  }
  double const change = ut1Rate - free.ut1Rate;
  held.state = free.state + change * ublas::subrange(d, 0, kStateSize);
  held.pole.xp += change * d(kStateSize);
  held.pole.yp += change * d(kStateSize + 1);
  held.ut1Rate = ut1Rate;
  held.ut1RateSensitivity = Vec();
  AssistanceData model = forceModel.getAssistanceData();
  model.srp[0] = held.state(6);
  model.srp[1] = held.state(7);
  forceModel.setAssistanceData(model);
  forceModel.setEopInfo(makeEopInfo(held.pole));
  initialiseIntegrator(forceModel, head3(held.state, 0), head3(held.state, 3), times, backwards,
                       "holdUt1Rate");
  return held;
}

int propagateSatellite(core::GnssType gnss, double t0, double t1, double h, int n, Vec const& position,
                       Vec const& velocity, ForceModel& forceModel, Vec& keplerOut, Vec& positionOut,
                       Vec& velocityOut, double& epochOut) {
  return propagateSatellite(gnss, t0, t1, h, n, position, velocity, forceModel, 0.0, keplerOut, positionOut,
                            velocityOut, epochOut);
}

int propagateSatellite(core::GnssType gnss, double t0, double t1, double h, int n, Vec const& /*position*/,
                       Vec const& /*velocity*/, ForceModel& forceModel, double ut1Rate, Vec& keplerOut,
                       Vec& positionOut, Vec& velocityOut, double& epochOut) {
  if (n < 1) ZARN_THROW(std::invalid_argument("propagateSatellite: invalid number of epochs"));
  if (!(h > 0.0)) ZARN_THROW(std::invalid_argument("propagateSatellite: invalid step"));

  // Keep the whole span after t0.
  double const half = h * n * 0.5;
  double const d = (t1 - t0) - h;
  if (d < half) t1 += half - d;
  if (!std::isfinite(t1 - t0)) return 0;
  long const steps = static_cast<long>(static_cast<unsigned>((t1 - t0) / h));

  Mat pm(3, n, 0.0), vm(3, n, 0.0);
  Vec epochs(n);
  epochs(0) = t1 - (n / 2) * h;
  for (int i = 1; i < n; ++i) epochs(i) = epochs(i - 1) + h;

  Gj8Integrator& integrator = forceModel.getGj8Integrator();
  long const extra = integrator.getTotalSteps() == 0 ? n / 2 - 1 : -1;
  long const count = steps + extra;
  if (count <= 0) return 0;
  OdeFunGj8 ode(forceModel);
  unsigned const made = integrator.gj8Propagate(ode, pm, vm, static_cast<unsigned>(count));
  if (made == 0) return 0;
  if (made < static_cast<unsigned>(n)) fillEarlierColumns(ode, epochs, h, n - made, pm, vm);

  int const mid = (n + 1) / 2 - 1;
  positionOut = ublas::column(pm, mid);
  velocityOut = ublas::column(vm, mid);
  epochOut = epochs(mid);
  if (n == 1) return static_cast<int>(made);

  int const ls = leapSeconds(epochs(mid), true, forceModel.getLeapInfo());
  int0StatesToItrs(forceModel, epochs, ls, true, ut1Rate, pm, vm);
  if (!satelliteStatesToKeplerian(gnss, pm, vm, epochs, keplerOut)) return -1;
  return static_cast<int>(made);
}

void int0StatesToItrs(ForceModel const& forceModel, Vec const& epochs, int leapSeconds, bool antenna,
                      Mat& positions, Mat& velocities) {
  int0StatesToItrs(forceModel, epochs, leapSeconds, antenna, 0.0, positions, velocities);
}

namespace {

// icrsToInt0 over a span of epochs from a coarse grid: M(t) = R3(theta) Q(t)
// with theta = wE (1 + ut1Rate) (t - tA) the Earth's turn and Q the slowly
// varying rest (precession, nutation, the small departure of GAST from
// theta), interpolated by quintic Lagrange polynomials on nodes 6 h apart. The
// shortest nutation terms (5.6 to 13.7 days) then leave errors near 1e-14 rad,
// well below a micrometre at GEO height. The Sun (J2000) is interpolated
// the same way for the antenna offset.
class FrameGrid {
 public:
  static constexpr double kSpacing = 21600.0;  // s
  static constexpr long kPoints = 6;           // quintic

  FrameGrid(double tLow, double tHigh, InertialFrameInfo const& frame, double ut1Rate, int leapSeconds)
      : tA_(tLow - (kPoints / 2 - 1) * kSpacing), rate_(earthRotationRate * (1.0 + ut1Rate)) {
    std::size_t const count = static_cast<std::size_t>(std::ceil((tHigh - tLow) / kSpacing)) + kPoints;
    nodes_.resize(count);
    for (std::size_t k = 0; k < count; ++k) {
      double const t = tA_ + static_cast<double>(k) * kSpacing;
      Mat const m = icrsToInt0(t, frame.ut1MinusUtc + ut1Rate * (t - frame.tRef), leapSeconds);
      double const c = std::cos(rate_ * (t - tA_)), s = std::sin(rate_ * (t - tA_));
      Node& node = nodes_[k];
      for (int j = 0; j < 3; ++j) {  // R3(-theta) M
        node.q[0 * 3 + j] = c * m(0, j) - s * m(1, j);
        node.q[1 * 3 + j] = s * m(0, j) + c * m(1, j);
        node.q[2 * 3 + j] = m(2, j);
      }
      forces::sunJ2000(t, node.sun);
    }
  }

  // m = icrsToInt0(t, ut1(t)), sunJ2000 at t.
  void at(double t, Mat& m, double (&sun)[3]) const {
    double const x = (t - tA_) / kSpacing;
    long const last = static_cast<long>(nodes_.size()) - kPoints;
    long const first = std::min(last, std::max(0L, static_cast<long>(std::floor(x)) - (kPoints / 2 - 1)));
    double w[kPoints];
    for (long i = 0; i < kPoints; ++i) {
      w[i] = 1.0;
      for (long j = 0; j < kPoints; ++j) {
        if (j != i) w[i] *= (x - static_cast<double>(first + j)) / static_cast<double>(i - j);
      }
    }
    double q[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};
    sun[0] = sun[1] = sun[2] = 0.0;
    for (long i = 0; i < kPoints; ++i) {
      Node const& node = nodes_[static_cast<std::size_t>(first + i)];
      for (int j = 0; j < 9; ++j) q[j] += w[i] * node.q[j];
      for (int j = 0; j < 3; ++j) sun[j] += w[i] * node.sun[j];
    }
    double const c = std::cos(rate_ * (t - tA_)), s = std::sin(rate_ * (t - tA_));
    for (int j = 0; j < 3; ++j) {  // R3(theta) Q
      m(0, j) = c * q[j] + s * q[3 + j];
      m(1, j) = -s * q[j] + c * q[3 + j];
      m(2, j) = q[6 + j];
    }
  }

 private:
  struct Node {
    double q[9];
    double sun[3];
  };
  double tA_, rate_;
  std::vector<Node> nodes_;
};

// Below this many epochs each rotation is computed exactly.
constexpr std::size_t kFrameGridMinEpochs = 8;

}  // namespace

void int0StatesToItrs(ForceModel const& forceModel, Vec const& epochs, int leapSeconds, bool antenna,
                      double ut1Rate, Mat& positions, Mat& velocities) {
  std::size_t const n = epochs.size();
  if (positions.size1() != 3 || positions.size2() != n) {
    ZARN_THROW(std::invalid_argument("int0StatesToItrs: invalid size positions"));
  }
  if (velocities.size1() != 3 || velocities.size2() != n) {
    ZARN_THROW(std::invalid_argument("int0StatesToItrs: invalid size velocities"));
  }
  InertialFrameInfo const frame = forceModel.getInertialFrameInfo();
  Mat const w = rotationOrIdentity(forceModel.getEopInfo().matrix);
  AntennaPhase const phase = forceModel.getAssistanceData().antPhase;
  Mat const nt = trans(rotationOrIdentity(frame.matrix));
  double tLow = 0.0, tHigh = 0.0;
  bool finite = n > 0;
  for (std::size_t i = 0; i < n; ++i) {
    finite = finite && std::isfinite(epochs(i));
    tLow = i == 0 ? epochs(i) : std::min(tLow, epochs(i));
    tHigh = i == 0 ? epochs(i) : std::max(tHigh, epochs(i));
  }
  std::unique_ptr<FrameGrid> grid;
  if (finite && n >= kFrameGridMinEpochs) grid.reset(new FrameGrid(tLow, tHigh, frame, ut1Rate, leapSeconds));
  Mat m(3, 3), b(3, 3);
  Vec r(3), v(3), rb(3), vb(3);
  double sunJ2000[3] = {0, 0, 0}, sun[3];
  for (std::size_t i = 0; i < n; ++i) {
    double const ut1 = frame.ut1MinusUtc + ut1Rate * (epochs(i) - frame.tRef);
    if (grid) {
      grid->at(epochs(i), m, sunJ2000);
    } else {
      m = icrsToInt0(epochs(i), ut1, leapSeconds);
    }
    noalias(b) = prod(m, nt);
    noalias(r) = ublas::column(positions, i);
    noalias(v) = ublas::column(velocities, i);
    noalias(rb) = prod(b, r);
    noalias(vb) = prod(b, v);
    vb(0) += earthRotationRate * rb(1);
    vb(1) -= earthRotationRate * rb(0);
    noalias(r) = prod(w, rb);
    if (antenna && grid) {
      // The body axes take the Sun in the frame of date without UT1 - UTC:
      // R3(-wE ut1) M.
      double const c = std::cos(earthRotationRate * ut1), s = std::sin(earthRotationRate * ut1);
      double const m0[2][3] = {
          {c * m(0, 0) - s * m(1, 0), c * m(0, 1) - s * m(1, 1), c * m(0, 2) - s * m(1, 2)},
          {s * m(0, 0) + c * m(1, 0), s * m(0, 1) + c * m(1, 1), s * m(0, 2) + c * m(1, 2)}};
      for (int k = 0; k < 2; ++k)
        sun[k] = m0[k][0] * sunJ2000[0] + m0[k][1] * sunJ2000[1] + m0[k][2] * sunJ2000[2];
      sun[2] = m(2, 0) * sunJ2000[0] + m(2, 1) * sunJ2000[1] + m(2, 2) * sunJ2000[2];
      double const centre[3] = {r(0), r(1), r(2)};
      double apc[3];
      addApcOffsetWithSun(centre, phase, sun, apc);
      for (int k = 0; k < 3; ++k) positions(static_cast<std::size_t>(k), i) = apc[k];
    } else if (antenna) {
      if (ut1 != 0.0) m = icrsToInt0(epochs(i), 0.0, leapSeconds);
      ublas::column(positions, i) = addApcOffsetInFrame(r, phase, epochs(i), m);
    } else {
      noalias(ublas::column(positions, i)) = r;
    }
    noalias(ublas::column(velocities, i)) = prod(w, vb);
  }
}

}  // namespace support
}  // namespace zarn
