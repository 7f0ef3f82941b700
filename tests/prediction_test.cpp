// Initial state estimation and orbit propagation for GPS and BeiDou.
#include "zarn/support/prediction.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "support/broadcast_records.hpp"
#include "support/test_support.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/ephemeris_conversion.hpp"
#include "zarn/support/numerical_integration.hpp"
#include "zarn/support/time_conversion.hpp"

namespace zc = zarn::core;
namespace zs = zarn::support;
using zs::Mat;
using zs::Vec;

namespace {

namespace ublas = boost::numeric::ublas;

// First-order form of the force model for an independent reference
// integration with tight error control.
class Motion : public zs::OdeFunction {
 public:
  explicit Motion(zs::ForceModel& model) : model_(model), r_(3), a_(3), partials_(3, 8) {}
  void operator()(Vec const& x, Vec& dx, double t) override {
    dx.resize(6, false);
    for (unsigned k = 0; k < 3; ++k) r_(k) = x(k);
    model_.setAccDerivatives(false);
    model_.forceModel(t, r_, a_, partials_);
    for (unsigned k = 0; k < 3; ++k) {
      dx(k) = x(k + 3);
      dx(k + 3) = a_(k);
    }
  }

 private:
  zs::ForceModel& model_;
  Vec r_, a_;
  Mat partials_;
};

double const gpsStart = 1913 * 604800.0 + 259200.0 - 7200.0;
double const step = 300.0;  // s

// A satellite whose true orbit is the force model's: reference states by
// rkf78 with tight error control in Int0 of tStart, Earth-fixed samples
// through toEcef with the true pole.
struct Scenario {
  zs::ForceModel model;
  zs::Eop pole{1.2e-6, 2.1e-6};  // rad, about 0.25" and 0.43"
  double tStart;
  int leap;
  Vec x0;  // Int0 state at tStart
  double tCursor;
  Vec xCursor;

  // Starts from the broadcast orbit of G02 (beidou false) or C02 at t.
  Scenario(double t, bool beidou) : tStart(t), leap(zs::leapSeconds(t, true, {})), x0(6), tCursor(t) {
    model.setNumberOfGeopotentialCoefficients(8);
    model.setInertialFrameInfo(zs::makeInertialFrameInfo(tStart, 0.0, leap));
    model.setEopInfo(zs::makeEopInfo(pole));
    zs::AssistanceData data = zs::makeZeroAssistanceData();
    data.srp[0] = 1.0;
    data.antPhase[0] = 0.3;
    data.antPhase[2] = 1.1;
    model.setAssistanceData(data);
    Vec r(3), v(3), ri(3), vi(3), rp(3), rm(3);
    if (beidou) {
      // The GEO model's velocity is not Earth-fixed: difference the positions.
      zarn::test::position(zarn::test::beidouC02(), tStart, r, v);
      zarn::test::position(zarn::test::beidouC02(), tStart + 1.0, rp, v);
      zarn::test::position(zarn::test::beidouC02(), tStart - 1.0, rm, v);
      v = (rp - rm) / 2.0;
    } else {
      zarn::test::position(zarn::test::gpsG02(), tStart, r, v);
    }
    Mat j(8, 8);
    zs::toInt0(r, v, pole, ri, vi, j);
    ublas::subrange(x0, 0, 3) = ri;
    ublas::subrange(x0, 3, 6) = vi;
    xCursor = x0;
  }

  // Int0 state (6) at t; calls go forward in time or restart from tStart.
  Vec truth(double t) {
    if (t < tCursor) {
      tCursor = tStart;
      xCursor = x0;
    }
    zs::EopInfo const saved = model.getEopInfo();
    model.setEopInfo(zs::makeEopInfo(pole));
    Motion f(model);
    zs::rkf78(f, xCursor, tCursor, t, 60.0, 1e-13);
    model.setEopInfo(saved);
    tCursor = t;
    return xCursor;
  }

  // Earth-fixed position (and velocity) at t.
  Vec truthItrs(double t, Vec* velocity = nullptr) {
    Vec const x = truth(t);
    Vec r(3), v(3);
    zs::toEcef(ublas::subrange(x, 0, 3), ublas::subrange(x, 3, 6), t, tStart, pole, 0.0, leap, r, v);
    if (velocity != nullptr) *velocity = v;
    return r;
  }

  // n Earth-fixed samples from tStart at the step, one per row.
  void samples(unsigned n, Vec& times, Mat& positions, Mat& velocities) {
    times.resize(n);
    positions.resize(n, 3);
    velocities.resize(n, 3);
    Vec v(3);
    for (unsigned k = 0; k < n; ++k) {
      times(k) = tStart + k * step;
      ublas::row(positions, k) = truthItrs(times(k), &v);
      ublas::row(velocities, k) = v;
    }
  }

  zs::InitialStateEstimate estimate(unsigned n, zs::Eop const& apriori, bool backwards,
                                    zs::BeidouSvType type = zs::UNDEFINED_SAT_TYPE) {
    Vec times;
    Mat positions, velocities;
    samples(n, times, positions, velocities);
    return zs::estimateInitialState(times, positions, velocities, apriori, model, backwards, type);
  }

  // Distance (m) of an Int0 position from the truth at t.
  double error(Vec const& r, double t) { return norm_2(r - ublas::subrange(truth(t), 0, 3)); }
};

double positionError(zs::InitialStateEstimate const& est, Scenario& s) {
  return s.error(ublas::subrange(est.state, 0, 3), est.epoch);
}

struct Window {
  int made;
  Vec kepler, r, v;
  double epoch;
};

Window propagate(Scenario& s, double t0, double t1, int n, zc::GnssType gnss = zc::GPS) {
  Window w{0, Vec(2, 7.0), Vec(3, 0.0), Vec(3, 0.0), -1.0};
  w.made = zs::propagateSatellite(gnss, t0, t1, step, n, w.r, w.v, s.model, w.kepler, w.r, w.v, w.epoch);
  return w;
}

}  // namespace

// Noise-free samples of a force-model orbit: the filter ends on that orbit and
// finds the pole the samples were made with, in the sense toEcef uses.
TEST(EstimateInitialState, ReproducesPropagatedOrbitAndPole) {
  unsigned const n = 73;  // six hours
  Scenario s(gpsStart, false);
  zs::InitialStateEstimate const est = s.estimate(n, zs::Eop{0.0, 0.0}, false);
  EXPECT_EQ(est.epoch, s.tStart + (n - 1) * step);
  ASSERT_EQ(est.covariance.size1(), 8u);
  EXPECT_LT(positionError(est, s), 0.5);
  EXPECT_NEAR(est.state(6), s.pole.xp, 0.05e-6);
  EXPECT_NEAR(est.state(7), s.pole.yp, 0.05e-6);
  EXPECT_EQ(s.model.getEopInfo().eop.xp, est.state(6)) << "the force model keeps the estimated pole";
  for (unsigned k = 0; k < 8; ++k) {
    EXPECT_GT(est.covariance(k, k), 0.0) << k;
    double const c = est.covariance(k, (k + 3) % 8);
    EXPECT_NEAR(c, est.covariance((k + 3) % 8, k), 1e-12 * std::fabs(c)) << k;
  }
}

// Backwards with odd n leaves the integrator at the middle sample: a fresh
// propagation from there lands on the orbit.
TEST(EstimateInitialState, BackwardsStartsTheIntegratorAtTheMiddle) {
  unsigned const n = 25;
  Scenario s(gpsStart, false);
  zs::InitialStateEstimate const est = s.estimate(n, s.pole, true);
  EXPECT_EQ(est.epoch, s.tStart + (n - 1) * step);  // the state stays that of the last sample
  EXPECT_EQ(s.model.getGj8Integrator().getTotalSteps(), 0u);
  double const middle = s.tStart + (n / 2) * step;
  Window const w = propagate(s, middle, middle + 7200.0, 24);
  ASSERT_GT(w.made, 0);
  EXPECT_EQ(w.epoch, middle + 7200.0 - step);
  EXPECT_LT(s.error(w.r, w.epoch), 0.01);
}

// GEO and IGSO keep the a-priori pole: its variance is 1e-40 and no noise is
// added. Then four-hour windows every two hours (windows overlap by half at
// most, or t1 is pushed): every fit converges and its unquantised elements
// follow the antenna positions. Some GEO windows trade deltaN beyond its
// 16-bit word, which the encoding's verdict reports.
TEST(BeidouGeostationary, FrozenPoleAndWindows) {
  Scenario s(zs::beidouSecsToGpsSecs(zs::beidouToSecs(zc::Toc{0, 544, 162000})) - 7200.0, true);
  zs::InitialStateEstimate const est = s.estimate(49, zs::Eop{0.0, 0.0}, false, zs::GEO);
  for (unsigned k : {6u, 7u}) EXPECT_LT(std::fabs(est.state(k)), 1e-12) << k;
  EXPECT_LT(est.covariance(6, 6), 1e-30);
  // The pole error of 2.4e-6 rad stays in the orbit: up to 100 m at 42000 km.
  EXPECT_LT(positionError(est, s), 150.0);
  zs::InitialStateEstimate const exact = s.estimate(49, s.pole, false, zs::IGSO);
  EXPECT_LT(positionError(exact, s), 0.05);

  double t0 = exact.epoch, t1 = exact.epoch + 4 * 3600.0;
  int const n = 48;
  for (int k = 0; k < 12; ++k, t1 += 7200.0) {
    Window const w = propagate(s, t0, t1, n, zc::BEIDOU);
    ASSERT_EQ(w.kepler.size(), 17u) << k;
    EXPECT_EQ(w.epoch, t1 - step) << k;
    Vec const elements = ublas::subrange(w.kepler, 0, 15);
    zc::Toc const toe = zs::secsToBeidou(zs::gpsSecsToBeidouSecs(w.kepler(16) * 604800.0 + w.kepler(15)));
    for (int i = 0; i < n; i += 4) {
      double const t = w.epoch - (n / 2 - 1) * step + i * step;
      Vec r(3), v(3);
      zs::beidouEphemerisToEcef(elements, toe, t, r, v);
      EXPECT_LT(norm_2(r - s.truthItrs(t)), 1.5) << k << " " << i;
    }
    t0 = w.epoch;
  }
}

// Windows of even and odd length every two hours, overlapping by half: every
// middle state lies on the orbit and every fit follows the Earth-fixed orbit
// to within the misfit of the broadcast model over four hours. The antenna
// offset (0.3 m along x of the body frame, 1.1 m towards the geocentre)
// moves the fitted orbit by that much.
TEST(PropagateSatellite, ReproducesOrbitWindowByWindow) {
  for (int n : {48, 47}) {
    Scenario com(gpsStart, false), apc(gpsStart, false);
    zs::AssistanceData data = com.model.getAssistanceData();
    data.antPhase = zs::AntennaPhase{{0.0, 0.0, 0.0}};
    com.model.setAssistanceData(data);
    data.antPhase = zs::AntennaPhase{{0.3, 0.0, 1.1}};
    apc.model.setAssistanceData(data);
    double const epoch = com.estimate(49, com.pole, false).epoch;
    apc.estimate(49, apc.pole, false);
    double t0 = n % 2 == 0 ? epoch : epoch - step;
    double t1 = epoch + 4 * 3600.0;
    for (int k = 0; k < 6; ++k, t1 += 7200.0) {
      Window const a = propagate(com, t0, t1, n), b = propagate(apc, t0, t1, n);
      ASSERT_TRUE(a.made > 0 && a.made == b.made) << n << " " << k;
      EXPECT_EQ(a.epoch, n % 2 == 0 ? t1 - step : t1) << n << " " << k;
      EXPECT_LT(com.error(a.r, a.epoch), 0.01) << n << " " << k;
      zc::GpsEphemeris ea, eb;
      EXPECT_TRUE(zs::keplerianToGpsEphemeris(a.kepler, ea));
      EXPECT_TRUE(zs::keplerianToGpsEphemeris(b.kepler, eb));
      for (int i = 0; i < n; i += 3) {
        double const t = t1 - (n / 2) * step + i * step;
        Vec ra(3), rb(3), v(3);
        zs::gpsEphemerisToEcef(ea, t, ra, v);
        zs::gpsEphemerisToEcef(eb, t, rb, v);
        EXPECT_LT(norm_2(ra - com.truthItrs(t)), 1.5) << n << " " << k << " " << i;
        EXPECT_NEAR(norm_2(rb - ra), 1.14, 0.05) << n << " " << k << " " << i;
        EXPECT_NEAR(norm_2(rb) - norm_2(ra), -1.1, 0.05) << n << " " << k << " " << i;
      }
      t0 = t1 - step;
    }
  }
}

// Step counts, span push and the middle column, read from the results.
TEST(PropagateSatellite, StepCountsAndMiddleEpoch) {
  Scenario s(gpsStart, false);
  double const tInit = s.estimate(25, s.pole, false).epoch;

  // Fresh: 12 nominal steps and floor(6/2) - 1 more; even n ends one step before t1.
  Window w = propagate(s, tInit, tInit + 3600.0, 6);
  EXPECT_EQ(w.made, 14);
  EXPECT_EQ(w.epoch, tInit + 3600.0 - step);
  EXPECT_EQ(w.kepler.size(), 17u);

  // Stepped: one step less than nominal. t1 - t0 - h = 300 s is short of half
  // the span (750 s), so t1 moves 450 s later: 3 nominal steps; odd n ends on t1.
  double const t0 = w.epoch;
  w = propagate(s, t0, t0 + 600.0, 5);
  EXPECT_EQ(w.made, 2);
  EXPECT_EQ(w.epoch, t0 + 1050.0);

  // n = 1: no fit; keplerOut stays as it was.
  Window const one = propagate(s, w.epoch, w.epoch + 3600.0, 1);
  EXPECT_EQ(one.made, 11);
  EXPECT_EQ(one.epoch, w.epoch + 3600.0);
  EXPECT_EQ(one.kepler.size(), 2u);
  EXPECT_GT(norm_2(one.r), 2.0e7);

  // A single column one step ahead needs no step: nothing is touched.
  Window const none = propagate(s, one.epoch, one.epoch + step, 1);
  EXPECT_EQ(none.made, 0);
  EXPECT_EQ(none.epoch, -1.0);
  EXPECT_EQ(norm_2(none.r), 0.0);
}

// The conversion of propagated states for the fit and the host's checks,
// against toEcef (itself checked against ERFA) column by column, for a frame
// with UT1 - UTC.
TEST(Int0StatesToItrs, AgreesWithToEcef) {
  double const ut1MinusUtc = 0.35;  // s
  Scenario s(gpsStart, false);
  s.model.setInertialFrameInfo(zs::makeInertialFrameInfo(s.tStart, ut1MinusUtc, s.leap));
  std::size_t const n = 4;
  Vec epochs(n);
  Mat r(3, n), v(3, n);
  for (std::size_t k = 0; k < n; ++k) {
    epochs(k) = gpsStart + 5400.0 * static_cast<double>(k);
    Vec const x = s.truth(epochs(k));
    ublas::column(r, k) = ublas::subrange(x, 0, 3);
    ublas::column(v, k) = ublas::subrange(x, 3, 6);
  }
  Mat rItrs = r, vItrs = v;
  zs::int0StatesToItrs(s.model, epochs, s.leap, false, rItrs, vItrs);
  for (std::size_t k = 0; k < n; ++k) {
    Vec re(3), ve(3);
    zs::toEcef(ublas::column(r, k), ublas::column(v, k), epochs(k), s.tStart, s.pole, ut1MinusUtc, s.leap, re,
               ve);
    EXPECT_LT(norm_2(ublas::column(rItrs, k) - re), 1e-6) << k;
    EXPECT_LT(norm_2(ublas::column(vItrs, k) - ve), 1e-9) << k;
  }
}

// Seven days of 15-minute epochs converted in one call, where the frame comes
// from a coarse grid, against the same states converted one epoch at a time
// with the rotation computed exactly: GPS and GEO radii, antenna offset, UT1 -
// UTC drifting. The grid must stay within a millimetre (with a drift the
// exact rotation itself scatters by 0.2 mm: UT1 in GPS seconds near 1.2e9
// resolves 2.4e-7 s).
TEST(Int0StatesToItrs, SevenDaysAtOnceAgreeWithEachEpochAlone) {
  Scenario s(gpsStart, false);
  s.model.setInertialFrameInfo(zs::makeInertialFrameInfo(s.tStart, -0.2, s.leap));
  std::size_t const n = 7 * 96 + 1;
  for (double const radius : {26.56e6, 42.16e6}) {
    for (double const rate : {0.0, 2e-3 / 86400.0}) {
      Vec epochs(n);
      Mat r(3, n), v(3, n);
      for (std::size_t k = 0; k < n; ++k) {
        epochs(k) = s.tStart + 900.0 * static_cast<double>(k);
        double const angle = 1e-4 * 900.0 * static_cast<double>(k);
        r(0, k) = radius * std::cos(angle);
        r(1, k) = radius * std::sin(angle) * 0.5;
        r(2, k) = radius * std::sin(angle) * 0.8;
        v(0, k) = -3000.0 * std::sin(angle);
        v(1, k) = 1500.0 * std::cos(angle);
        v(2, k) = 2400.0 * std::cos(angle);
      }
      Mat rAll = r, vAll = v;
      zs::int0StatesToItrs(s.model, epochs, s.leap, true, rate, rAll, vAll);
      double worst = 0.0, worstVelocity = 0.0;
      for (std::size_t k = 0; k < n; ++k) {
        Vec one(1, epochs(k));
        Mat r1 = ublas::subrange(r, 0, 3, k, k + 1), v1 = ublas::subrange(v, 0, 3, k, k + 1);
        zs::int0StatesToItrs(s.model, one, s.leap, true, rate, r1, v1);
        worst = std::max(worst, norm_2(ublas::column(rAll, k) - ublas::column(r1, 0)));
        worstVelocity = std::max(worstVelocity, norm_2(ublas::column(vAll, k) - ublas::column(v1, 0)));
      }
      EXPECT_LT(worst, 1e-3) << radius << " " << rate;
      EXPECT_LT(worstVelocity, 1e-6) << radius << " " << rate;
    }
  }
}

// ITRS of an Int0 position with the Earth's rotation drifting: composed here
// from the frame's matrix and icrsToInt0 (checked against ERFA) with UT1 - UTC
// = rate (t - tStart), the frame built with 0.
Vec drifted(Scenario const& s, Vec const& rInt0, double t, double rate) {
  Mat const b =
      prod(zs::icrsToInt0(t, rate * (t - s.tStart), s.leap), trans(s.model.getInertialFrameInfo().matrix));
  Vec const u = prod(b, rInt0);
  return prod(zs::polarMotionMatrix(s.pole), u);
}

// Noise-free samples of an orbit made with known radiation-pressure
// parameters, on an Earth whose day is 1.5 ms long (UT1 - UTC falling 1.5 ms a
// day, as in late 2016): int0StatesToItrs with the rate turns the Earth as the
// composition above, and from the block a priori, a zero pole and a zero or
// the true rate the batch fit recovers p1, p2, the rate, the pole and the
// orbit, and leaves the model ready to propagate it. Held at zero the drift is
// missing from the model: the fit misses the samples.
TEST(EstimateInitialStateBatch, RecoversRadiationPressureUt1RatePoleAndOrbit) {
  double const rate = -1.5e-3 / 86400.0;  // s/s
  unsigned const n = 145;                 // twelve hours
  Scenario s(gpsStart, false);
  zs::AssistanceData data = s.model.getAssistanceData();
  data.srp[0] = 1.37;
  data.srp[1] = 0.8;
  s.model.setAssistanceData(data);
  Vec times(n);
  Mat positions(n, 3), velocities(n, 3), rInt0(3, n), vInt0(3, n);
  for (unsigned k = 0; k < n; ++k) {
    times(k) = s.tStart + k * step;
    Vec const x = s.truth(times(k));
    ublas::column(rInt0, k) = ublas::subrange(x, 0, 3);
    ublas::column(vInt0, k) = ublas::subrange(x, 3, 6);
    ublas::row(positions, k) = drifted(s, ublas::subrange(x, 0, 3), times(k), rate);
  }
  Vec v0(3);
  s.truthItrs(times(0), &v0);
  ublas::row(velocities, 0) = v0;
  Mat rItrs = rInt0, vItrs = vInt0;
  zs::int0StatesToItrs(s.model, times, s.leap, false, rate, rItrs, vItrs);
  // Within the millimetre of the conversion's frame grid.
  for (unsigned k = 0; k < n; k += 12) {
    EXPECT_LT(norm_2(ublas::column(rItrs, k) - ublas::row(positions, k)), 1e-3) << k;
  }

  for (double const start : {0.0, rate, -1.0}) {
    bool const free = start == 0.0, held = start == -1.0;
    Scenario fit(gpsStart, false);
    zs::BatchEstimate const est = zs::estimateInitialStateBatch(
        times, positions, velocities, zs::Eop{}, true, zs::Srp{}, free, held ? 0.0 : start, fit.model, true);
    if (held) {
      EXPECT_GT(est.rms, 0.05);
      continue;
    }
    ASSERT_TRUE(est.converged) << free;
    EXPECT_LE(est.iterations, 5);
    EXPECT_EQ(est.epoch, times(n - 1));
    EXPECT_NEAR(est.state(6), 1.37, 1e-4) << free;
    EXPECT_NEAR(est.state(7), 0.8, 1e-3) << free;
    EXPECT_NEAR(est.ut1Rate * 86400.0, rate * 86400.0, 2e-6) << free;  // s/day
    EXPECT_NEAR(est.pole.xp, s.pole.xp, 1e-9) << free;
    EXPECT_NEAR(est.pole.yp, s.pole.yp, 1e-9) << free;
    EXPECT_LT(est.rms, 0.01) << free;
    EXPECT_LT(s.error(ublas::subrange(est.state, 0, 3), est.epoch), 0.01) << free;
    for (unsigned k = 0; k < 8; ++k) EXPECT_GT(est.covariance(k, k), 0.0) << k;
    EXPECT_EQ(fit.model.getAssistanceData().srp[0], est.state(6));
    EXPECT_EQ(fit.model.getEopInfo().eop.xp, est.pole.xp);
    // A day on from the middle sample the propagation still follows the orbit.
    Window const w = propagate(fit, times(n / 2), times(n / 2) + 86400.0, 24);
    ASSERT_GT(w.made, 0);
    EXPECT_LT(s.error(w.r, w.epoch), 0.05);
  }
  // The rough estimate of the UT1-rate pass finds the same rate.
  Scenario fit(gpsStart, false);
  zs::BatchEstimate const rough = zs::estimateInitialStateBatch(times, positions, velocities, zs::Eop{}, true,
                                                                zs::Srp{}, true, 0.0, fit.model, true, true);
  ASSERT_TRUE(rough.converged);
  EXPECT_NEAR(rough.ut1Rate * 86400.0, rate * 86400.0, 1e-5);  // s/day
  EXPECT_NEAR(rough.state(6), 1.37, 1e-2);

  // The free estimate moved to a rate held 0.5 ms/day off (a constellation
  // median) against a fit with that rate held: same orbit, radiation
  // pressure and pole, and a model that propagates the same way. An estimate
  // with the rate held carries no sensitivity and leaves the model alone.
  double const other = rate + 0.5e-3 / 86400.0;
  Scenario freeFit(gpsStart, false), heldFit(gpsStart, false);
  zs::BatchEstimate const freeEst = zs::estimateInitialStateBatch(
      times, positions, velocities, zs::Eop{}, true, zs::Srp{}, true, 0.0, freeFit.model, true);
  zs::BatchEstimate const heldEst = zs::estimateInitialStateBatch(
      times, positions, velocities, zs::Eop{}, true, zs::Srp{}, false, other, heldFit.model, true);
  ASSERT_TRUE(freeEst.converged && heldEst.converged);
  // Unmoved, the free estimate is off by decimetres.
  EXPECT_GT(norm_2(ublas::subrange(Vec(freeEst.state - heldEst.state), 0, 3)), 0.1);
  zs::BatchEstimate const moved = zs::holdUt1Rate(freeEst, other, times, freeFit.model, true);
  ASSERT_TRUE(moved.converged);
  EXPECT_EQ(moved.ut1Rate, other);
  EXPECT_LT(norm_2(ublas::subrange(Vec(moved.state - heldEst.state), 0, 3)), 0.01);  // m
  EXPECT_LT(norm_2(ublas::subrange(Vec(moved.state - heldEst.state), 3, 6)), 1e-5);  // m/s
  EXPECT_NEAR(moved.state(6), heldEst.state(6), 1e-3);
  EXPECT_NEAR(moved.state(7), heldEst.state(7), 1e-2);
  EXPECT_NEAR(moved.pole.xp, heldEst.pole.xp, 1e-9);  // rad: 6 mm on the ground
  EXPECT_NEAR(moved.pole.yp, heldEst.pole.yp, 1e-9);
  EXPECT_EQ(freeFit.model.getAssistanceData().srp[0], moved.state(6));
  Window const a = propagate(freeFit, times(n / 2), times(n / 2) + 86400.0, 24);
  Window const b = propagate(heldFit, times(n / 2), times(n / 2) + 86400.0, 24);
  ASSERT_GT(a.made, 0);
  EXPECT_LT(norm_2(a.r - b.r), 0.05);
  zs::BinaryData before, after;
  heldFit.model.serialize(before);
  EXPECT_FALSE(zs::holdUt1Rate(heldEst, rate, times, heldFit.model, true).converged);
  heldFit.model.serialize(after);
  EXPECT_EQ(before, after);
}

// Samples off one grid (a gap, a sample a few seconds late) are integrated
// accurately from the first iteration on and still give orbit, radiation
// pressure and pole.
TEST(EstimateInitialStateBatch, RecoversFromIrregularSamples) {
  Scenario s(gpsStart, false);
  zs::AssistanceData data = s.model.getAssistanceData();
  data.srp[0] = 1.37;
  data.srp[1] = 0.8;
  s.model.setAssistanceData(data);
  std::vector<double> t;
  for (unsigned k = 0; k < 145; ++k) {
    if (k < 40 || k >= 60) t.push_back(s.tStart + k * step + (k == 100 ? 7.0 : 0.0));
  }
  Vec times(t.size());
  Mat positions(t.size(), 3), velocities(t.size(), 3, 0.0);
  for (std::size_t k = 0; k < t.size(); ++k) {
    times(k) = t[k];
    ublas::row(positions, k) = drifted(s, ublas::subrange(s.truth(t[k]), 0, 3), t[k], 0.0);
  }
  Vec v0(3);
  s.truthItrs(times(0), &v0);
  ublas::row(velocities, 0) = v0;
  Scenario fit(gpsStart, false);
  zs::BatchEstimate const est = zs::estimateInitialStateBatch(times, positions, velocities, zs::Eop{}, true,
                                                              zs::Srp{}, fit.model, true);
  ASSERT_TRUE(est.converged);
  EXPECT_NEAR(est.state(6), 1.37, 1e-4);
  EXPECT_NEAR(est.state(7), 0.8, 1e-3);
  EXPECT_NEAR(est.pole.xp, s.pole.xp, 1e-9);
  EXPECT_LT(est.rms, 0.01);
  EXPECT_LT(s.error(ublas::subrange(est.state, 0, 3), est.epoch), 0.01);
}

// Too few samples, or samples no orbit passes through, leave the model as it
// as it was: a priori parameters and pole.
TEST(EstimateInitialStateBatch, RefusesAndRestoresTheModel) {
  Scenario s(gpsStart, false);
  Vec times;
  Mat positions, velocities;
  s.samples(49, times, positions, velocities);
  zs::AssistanceData const apriori = s.model.getAssistanceData();
  zs::EopInfo const eop = s.model.getEopInfo();

  Vec const few = ublas::subrange(times, 0, 3);
  Mat const fewRows = ublas::subrange(positions, 0, 3, 0, 3);
  zs::BatchEstimate est =
      zs::estimateInitialStateBatch(few, fewRows, velocities, zs::Eop{}, true, zs::Srp{}, s.model, false);
  EXPECT_FALSE(est.converged);
  EXPECT_EQ(est.iterations, 0);

  Mat broken = positions;
  broken(30, 1) = std::nan("");
  est = zs::estimateInitialStateBatch(times, broken, velocities, zs::Eop{}, true, zs::Srp{}, s.model, false);
  EXPECT_FALSE(est.converged);
  EXPECT_TRUE(est.state.empty());
  EXPECT_EQ(s.model.getAssistanceData(), apriori);
  EXPECT_EQ(s.model.getEopInfo(), eop);
}

TEST(PredictionDeathTest, Preconditions) {
  char const source[] = "libs/support/src/prediction";
  zs::ForceModel model;
  Vec const one(1, 0.0), two(2, 0.0);
  Mat const rows2(2, 3), rows1(1, 3), cols2(2, 2);
  zs::Eop const eop;
  EXPECT_DEATH(zs::estimateInitialState(one, rows1, rows1, eop, model, false, zs::MEO),
               zarn::test::fatalArgument("estimateInitialState: invalid size times", source));
  EXPECT_DEATH(zs::estimateInitialState(two, rows1, rows1, eop, model, false, zs::MEO),
               zarn::test::fatalArgument("estimateInitialState: invalid size positions", source));
  EXPECT_DEATH(zs::estimateInitialState(two, rows2, cols2, eop, model, false, zs::MEO),
               zarn::test::fatalArgument("estimateInitialState: invalid size velocities", source));
  EXPECT_DEATH(zs::estimateInitialStateBatch(one, rows1, rows1, eop, true, zs::Srp{}, model, false),
               zarn::test::fatalArgument("estimateInitialStateBatch: invalid size times", source));
  EXPECT_DEATH(zs::estimateInitialStateBatch(two, rows1, rows1, eop, true, zs::Srp{}, model, false),
               zarn::test::fatalArgument("estimateInitialStateBatch: invalid size positions", source));
  EXPECT_DEATH(zs::estimateInitialStateBatch(two, rows2, cols2, eop, true, zs::Srp{}, model, false),
               zarn::test::fatalArgument("estimateInitialStateBatch: invalid size velocities", source));
  Vec r(3), v(3), kepler;
  double epoch = 0.0;
  EXPECT_DEATH(zs::propagateSatellite(zc::GPS, 0.0, 3600.0, step, 0, r, v, model, kepler, r, v, epoch),
               zarn::test::fatalArgument("propagateSatellite: invalid number of epochs", source));
  EXPECT_DEATH(zs::propagateSatellite(zc::GPS, 0.0, 3600.0, 0.0, 5, r, v, model, kepler, r, v, epoch),
               zarn::test::fatalArgument("propagateSatellite: invalid step", source));
  Mat three(3, 3), two3(3, 2);
  Vec const epochs(3, 0.0);
  EXPECT_DEATH(zs::int0StatesToItrs(model, epochs, 0, false, two3, three),
               zarn::test::fatalArgument("int0StatesToItrs: invalid size positions", source));
  EXPECT_DEATH(zs::int0StatesToItrs(model, epochs, 0, false, three, two3),
               zarn::test::fatalArgument("int0StatesToItrs: invalid size velocities", source));
}
