// GLONASS clock frequency offset from broadcast tau values.
#include "zarn/support/gamma_estimator.hpp"

#include <gtest/gtest.h>

namespace zs = zarn::support;

constexpr double day = 86400.0;  // s

// Update sequences against the slope each step should take, worked out by
// hand from the anchor rules: the broadcast gamma until a value lies 14 days
// after an anchor, the slope from the anchor at least 14 days older, the
// older anchor moving up when the newest value is 14 days past the newer
// one, and a reset after 90 days of silence.
TEST(GammaEstimator, SlopeBetweenAnchorsAtLeastTwoWeeksApart) {
  double const t0 = 1.2e9, tau0 = 1.0e-4;
  struct Step {
    double days, tau, gamma, expected;
  } const steps[] = {
      {0.0, 2.0e-4, 3e-12, 3e-12},                             // not later than the anchors: broadcast gamma
      {7.0, 0.9e-4, 5e-12, 5e-12},                             // one week: too short
      {14.0, 0.8e-4, 6e-12, -(0.8e-4 - tau0) / (14.0 * day)},  // two weeks: slope from t0
      {28.0, 0.6e-4, 8e-12, -(0.6e-4 - 0.8e-4) / (14.0 * day)},  // t0 replaced: slope from day 14
      {28.0 + 91.0, 0.5e-4, 9e-12, 9e-12},                       // both anchors expired
      {28.0 + 91.0 + 14.0, 0.4e-4, 1e-12, -(0.4e-4 - 0.5e-4) / (14.0 * day)},
  };
  zs::GammaEstimator g(tau0, 2e-12, t0);
  for (Step const& s : steps) {
    EXPECT_DOUBLE_EQ(g.update(s.tau, s.gamma, t0 + s.days * day), s.expected) << s.days;
  }
}

// A clock drifting linearly is recovered and extrapolated once two weeks of
// tau values are in; before that the broadcast gamma predicts.
TEST(GammaEstimator, RecoversALinearClockAndPredictsIt) {
  double const t0 = 1.1e9, tau0 = -3.0e-5, gammaTrue = 2.5e-13, gammaBroadcast = 1e-12;
  auto tau = [&](double t) { return tau0 - gammaTrue * (t - t0); };
  zs::GammaEstimator g(tau0, gammaBroadcast, t0);
  for (double t = t0 + 3600.0; t < t0 + 20.0 * day; t += 3600.0) {
    double const gamma = g.update(tau(t), gammaBroadcast, t);
    EXPECT_NEAR(gamma, t - t0 < 14.0 * day ? gammaBroadcast : gammaTrue, 1e-22) << t - t0;
  }
  double const tRef = t0 + 19.0 * day;
  EXPECT_NEAR(g.predictTau(tRef + 7.0 * day, tau(tRef), tRef), tau(tRef + 7.0 * day), 1e-15);
  // A default estimator works from anchors at time 0 without being initialised.
  EXPECT_DOUBLE_EQ(zs::GammaEstimator().update(1e-5, 7e-12, 20.0 * day), -1e-5 / (20.0 * day));
}

// The serialised form carries the anchors: a copy continues identically.
TEST(GammaEstimator, SerializedFormRoundTrips) {
  zs::GammaEstimator g(1e-4, 2e-12, 1e9), copy;
  g.update(0.9e-4, 3e-12, 1e9 + 15.0 * day);
  zs::BinaryData bytes;
  unsigned position = 0;
  ASSERT_TRUE(g.serialize(bytes) && copy.deserialize(bytes, position));
  EXPECT_TRUE(position == bytes.size() && copy == g);
}
