// The pole filter against closed forms: the annual rotation of the pole about
// its mean over a quarter year, and repeated measurements at one epoch, which
// must equal the batch least-squares (information-form) solution.
#include "zarn/support/eop_filter.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "support/test_support.hpp"
#include "zarn/support/serialization.hpp"

using namespace zarn::support;
namespace test = zarn::test;

Mat diag2(double a, double b, double offDiagonal = 0.0) {
  Mat r(2, 2);
  r(0, 0) = a, r(1, 1) = b, r(0, 1) = r(1, 0) = offDiagonal;
  return r;
}

TEST(EopFilter, PoleTurnsAQuarterCircleInAQuarterYear) {
  // The annual term turns the offset from the mean pole by -2 pi t / year:
  // (d, 0) becomes (0, -d) after 365.25 / 4 days. A loose measurement leaves
  // the prediction in place.
  double const d = 0.2, quarter = 365.25 / 4 * 86400;
  EopFilter filter;
  filter.initialize(Eop{0.0741 + d, 0.334}, 5000.0);
  Eop const out = filter(Eop{0.0, 0.0}, diag2(1e12, 1e12), 5000.0 + quarter);
  EXPECT_TRUE(std::fabs(out.xp - 0.0741) < 1e-9 && std::fabs(out.yp - (0.334 - d)) < 1e-9);
  // Process noise over the step: the mean pole variance grows by 1e-9 per second.
  EXPECT_NEAR(filter.covariances()(4, 4), 1.0000000001e-06 + 1e-9 * quarter, 1e-9);
}

TEST(EopFilter, MeasurementsAtOneEpochGiveTheBatchSolution) {
  // No time passes, so the filter must reproduce
  // x = (P0^-1 + sum H^T R_i^-1 H)^-1 (P0^-1 x0 + sum H^T R_i^-1 z_i), with R_i
  // ten times the supplied covariance.
  std::pair<Eop, Mat> const inputs[] = {{{0.13, 0.39}, diag2(4e-6, 9e-6, 1e-6)},
                                        {{0.125, 0.40}, diag2(2e-5, 5e-6, -3e-6)}};
  Eop const start{0.10, 0.42};
  EopFilter filter;
  filter.initialize(start, 86400.0);
  Mat p0 = boost::numeric::ublas::scalar_matrix<double>(6, 6, 1e-16);
  for (int i : {0, 1, 4, 5}) p0(i, i) = 1.0000000001e-06;
  for (int i : {2, 3}) p0(i, i) = 1.0001e-12;
  Mat information = inverse(p0);
  Vec x0(6);
  x0(0) = start.xp, x0(1) = start.yp, x0(2) = 0, x0(3) = 0, x0(4) = 0.0741, x0(5) = 0.334;
  Vec rhs = prod(information, x0);
  for (auto const& [z, r] : inputs) {
    filter(z, r, 86400.0);
    Mat const w = inverse(Mat(10.0 * r));
    for (int i = 0; i < 2; ++i) {
      for (int j = 0; j < 2; ++j) information(i, j) += w(i, j);
      rhs(i) += w(i, 0) * z.xp + w(i, 1) * z.yp;
    }
  }
  Mat const p = inverse(information);
  Vec const x = prod(p, rhs);
  for (int i = 0; i < 6; ++i) {
    EXPECT_NEAR(filter.state()(i), x(i), 1e-10) << i;
    for (int j = 0; j < 6; ++j)
      EXPECT_NEAR(filter.covariances()(i, j), p(i, j), 1e-6 * std::sqrt(p(i, i) * p(j, j))) << i << j;
  }
  EXPECT_EQ(filter.output(), (Eop{filter.state()(0), filter.state()(1)}));
}

TEST(EopFilter, SingularInnovationsAreSkippedThenRestart) {
  // An uninitialised filter has P = 0, so a zero R makes the innovation
  // covariance singular; a regular R in between resets the count.
  std::string const skip = "ERROR/EopFilter: operator(): Skipping input due to matrix-division failure.";
  std::string const restart =
      "ERROR/EopFilter: operator(): Reinitializing due to too many consecutive matrix-division failures.";
  EopFilter filter;
  auto run = [&](Mat const& r, double t) {
    return test::capturedStderr([&] { filter(Eop{0.2, 0.3}, r, t); });
  };
  // Two skips, a success (counting starts again), three skips, then the restart.
  for (int i = 0; i < 6; ++i) {
    EXPECT_TRUE(i != 2 || run(diag2(1, 1), 0).empty());
    EXPECT_NE(run(diag2(0, 0), 0).find(i < 5 ? skip : restart), std::string::npos) << i;
    EXPECT_EQ(filter.initialized(), i == 5) << i;
  }
  EXPECT_TRUE(filter.output() == (Eop{0.2, 0.3}) && filter.state()(5) == 0.334);
}

// Round trip; forms no filter can have (a five-element state, a negative
// time), laid out field by field, are refused.
TEST(EopFilter, StoredFormRoundTripsAndBadFormsAreRefused) {
  EopFilter filter, back;
  filter.initialize(Eop{0.1, 0.4}, 100.0);
  filter(Eop{0.11, 0.39}, diag2(1e-6, 1e-6), 3700.0);
  BinaryData bytes = {7};  // a byte ahead of the form: reading starts after it
  unsigned int position = 1;
  ASSERT_TRUE(filter.serialize(bytes) && back.deserialize(bytes, position));
  EXPECT_TRUE(position == bytes.size() && back == filter);
  for (auto [size, time] : {std::make_pair(5, 0.0), std::make_pair(6, -1.0)}) {
    BinaryData bad;
    unsigned int count = 0, at = 0;
    serialize(Vec(size, 0.0), bad, count), serialize(Mat(6, 6, 0.0), bad, count), serialize(time, bad, count);
    serialize(Eop{}, bad, count), serialize(true, bad, count), serialize(0, bad, count);
    EXPECT_TRUE(!back.deserialize(bad, at) && at == 0u && back == filter) << size;
  }
}

TEST(EopFilterDeathTest, PreconditionsEndTheProcess) {
  std::string const path = "libs/support/src/eop_filter";
  EXPECT_DEATH(EopFilter()(Eop{}, Mat(3, 3, 0.0), 0.0),
               test::fatalArgument("Covariance matrix is not a 2-by-2 matrix.", path));
  EopFilter f;
  f.initialize(Eop{}, 10.0);
  EXPECT_DEATH(f(Eop{}, Mat(2, 2, 0.0), 9.0), test::fatalArgument("Time is in the past.", path));
}
