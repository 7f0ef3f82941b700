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

namespace zarn {
namespace support {
namespace {

Mat diag2(double a, double b, double offDiagonal = 0.0) {
  Mat r(2, 2);
  r(0, 0) = a;
  r(1, 1) = b;
  r(0, 1) = r(1, 0) = offDiagonal;
  return r;
}

Mat initialCovariance() {
  Mat p = boost::numeric::ublas::scalar_matrix<double>(6, 6, 1e-16);
  for (int i : {0, 1, 4, 5}) p(i, i) = 1.0000000001e-06;
  for (int i : {2, 3}) p(i, i) = 1.0001e-12;
  return p;
}

TEST(EopFilter, PoleTurnsAQuarterCircleInAQuarterYear) {
  // The annual term turns the offset from the mean pole by -2 pi t / year:
  // (d, 0) becomes (0, -d) after 365.25 / 4 days. A loose measurement leaves
  // the prediction in place.
  double const d = 0.2;
  double const quarter = 365.25 / 4 * 86400;
  EopFilter filter;
  filter.initialize(Eop{0.0741 + d, 0.334}, 5000.0);
  Eop const out = filter(Eop{0.0, 0.0}, diag2(1e12, 1e12), 5000.0 + quarter);
  EXPECT_NEAR(out.xp, 0.0741, 1e-9);
  EXPECT_NEAR(out.yp, 0.334 - d, 1e-9);
  // Process noise over the step: the mean pole variance grows by 1e-9 per second.
  EXPECT_NEAR(filter.covariances()(4, 4), 1.0000000001e-06 + 1e-9 * quarter, 1e-9);
}

TEST(EopFilter, MeasurementsAtOneEpochGiveTheBatchSolution) {
  // No time passes, so the filter must reproduce
  // x = (P0^-1 + sum H^T R_i^-1 H)^-1 (P0^-1 x0 + sum H^T R_i^-1 z_i), with R_i
  // ten times the supplied covariance.
  namespace ublas = boost::numeric::ublas;
  struct Input {
    Eop z;
    Mat r;
  };
  std::vector<Input> const inputs = {{{0.13, 0.39}, diag2(4e-6, 9e-6, 1e-6)},
                                     {{0.11, 0.43}, diag2(1e-6, 1e-6)},
                                     {{0.125, 0.40}, diag2(2e-5, 5e-6, -3e-6)}};
  Eop const start{0.10, 0.42};
  double const t = 86400.0;
  EopFilter filter;
  filter.initialize(start, t);
  for (Input const& in : inputs) filter(in.z, in.r, t);

  Mat information = inverse(initialCovariance());
  Vec x0(6);
  x0(0) = start.xp, x0(1) = start.yp, x0(2) = 0, x0(3) = 0, x0(4) = 0.0741, x0(5) = 0.334;
  Vec rhs = ublas::prod(information, x0);
  for (Input const& in : inputs) {
    Mat const w = inverse(Mat(10.0 * in.r));
    for (int i = 0; i < 2; ++i) {
      for (int j = 0; j < 2; ++j) information(i, j) += w(i, j);
      rhs(i) += w(i, 0) * in.z.xp + w(i, 1) * in.z.yp;
    }
  }
  Mat const p = inverse(information);
  Vec const x = ublas::prod(p, rhs);
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
  Mat const zero = diag2(0, 0);
  auto run = [&](Mat const& r, double t) {
    return test::capturedStderr([&] { filter(Eop{0.2, 0.3}, r, t); });
  };
  EXPECT_NE(run(zero, 0).find(skip), std::string::npos);
  EXPECT_NE(run(zero, 0).find(skip), std::string::npos);
  EXPECT_EQ(run(diag2(1, 1), 0), "");  // succeeds: counting starts again
  for (int i = 0; i < 3; ++i) EXPECT_NE(run(zero, 0).find(skip), std::string::npos) << i;
  EXPECT_FALSE(filter.initialized());
  EXPECT_NE(run(zero, 0).find(restart), std::string::npos);
  EXPECT_TRUE(filter.initialized());
  EXPECT_EQ(filter.output(), (Eop{0.2, 0.3}));
  EXPECT_EQ(filter.state()(5), 0.334);
}

TEST(EopFilter, StoredFormRoundTripsAndBadFormsAreRefused) {
  EopFilter filter;
  filter.initialize(Eop{0.1, 0.4}, 100.0);
  filter(Eop{0.11, 0.39}, diag2(1e-6, 1e-6), 3700.0);
  BinaryData bytes = {7};
  ASSERT_TRUE(filter.serialize(bytes));
  EopFilter back;
  unsigned int position = 1;
  ASSERT_TRUE(back.deserialize(bytes, position));
  EXPECT_EQ(position, bytes.size());
  EXPECT_TRUE(back == filter);

  EopFilter const untouched;
  for (std::size_t cut = 1; cut < bytes.size(); ++cut) {
    EopFilter target;
    unsigned int at = 1;
    bool const read = target.deserialize(BinaryData(bytes.begin(), bytes.begin() + cut), at);
    EXPECT_TRUE(!read && at == 1u && target == untouched) << cut;
  }

  // A five-element state, and a negative time.
  for (auto [size, time] : {std::make_pair(5, 0.0), std::make_pair(6, -1.0)}) {
    BinaryData bad;
    unsigned int count = 0, at = 0;
    serialize(Vec(size, 0.0), bad, count);
    serialize(Mat(6, 6, 0.0), bad, count);
    serialize(time, bad, count);
    serialize(Eop{}, bad, count);
    serialize(true, bad, count);
    serialize(0, bad, count);
    EXPECT_TRUE(!back.deserialize(bad, at) && at == 0u && back == filter) << size;
  }
}

TEST(EopFilterDeathTest, PreconditionsEndTheProcess) {
  std::string const path = "libs/support/src/eop_filter";
  struct Case {
    void (*run)();
    std::string pattern;
  };
  Case const cases[] = {
      {[] { EopFilter()(Eop{}, Mat(3, 3, 0.0), 0.0); },
       test::fatalArgument("Covariance matrix is not a 2-by-2 matrix.", path)},
      {[] {
         EopFilter f;
         f.initialize(Eop{}, 10.0);
         f(Eop{}, Mat(2, 2, 0.0), 9.0);
       },
       test::fatalArgument("Time is in the past.", path)},
  };
  for (Case const& c : cases) EXPECT_DEATH(c.run(), c.pattern);
}

}  // namespace
}  // namespace support
}  // namespace zarn
