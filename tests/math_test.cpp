// Matrix helpers against algebraic identities and hand-computed values.
#include "zarn/support/math.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <random>

#include "support/test_support.hpp"

namespace zs = zarn::support;
using zs::Mat;
using zs::Vec;
using zs::operator==;  // Mat is a uBLAS type: no argument-dependent lookup
namespace ublas = boost::numeric::ublas;

namespace {

Mat randomWellConditioned(std::size_t n, std::mt19937_64& rng) {
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  Mat a(n, n);
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j < n; ++j) a(i, j) = u(rng);
  // Diagonal dominance keeps the condition number small.
  for (std::size_t i = 0; i < n; ++i) a(i, i) += (u(rng) < 0 ? -1.0 : 1.0) * (n + 1.0);
  return a;
}

double maxAbsDiff(Mat const& a, Mat const& b) {
  double m = 0.0;
  for (std::size_t i = 0; i < a.size1(); ++i)
    for (std::size_t j = 0; j < a.size2(); ++j) m = std::max(m, std::fabs(a(i, j) - b(i, j)));
  return m;
}

Mat permutation(std::vector<std::size_t> const& p) {
  Mat m = ublas::zero_matrix<double>(p.size(), p.size());
  for (std::size_t i = 0; i < p.size(); ++i) m(i, p[i]) = 1.0;
  return m;
}

}  // namespace

TEST(Math, InverseAndSolveReproduceIdentityUpToOrder8) {
  std::mt19937_64 rng(42);
  for (std::size_t n = 1; n <= 8; ++n) {
    for (int trial = 0; trial < 20; ++trial) {
      Mat const a = randomWellConditioned(n, rng);
      Mat const id = ublas::identity_matrix<double>(n);
      EXPECT_LT(maxAbsDiff(ublas::prod(zs::inverse(a), a), id), 1e-13) << "n=" << n;
      Mat b(n, 3);
      for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j < 3; ++j) b(i, j) = std::sin(1.0 + i + 7.0 * j);
      EXPECT_LT(maxAbsDiff(ublas::prod(a, zs::solve(a, b)), b), 1e-13);
      Vec v = ublas::column(b, 1);
      Vec x;
      ASSERT_EQ(zs::mldivide(a, v, x), 0);
      EXPECT_LT(ublas::norm_inf(ublas::prod(a, x) - v), 1e-13);
      Mat xr;
      ASSERT_EQ(zs::mrdivide(ublas::trans(b), a, xr), 0);
      EXPECT_LT(maxAbsDiff(ublas::prod(xr, a), ublas::trans(b)), 1e-13);
      // det(A) det(A^-1) = 1 is an independent check of the LU sign bookkeeping.
      EXPECT_NEAR(zs::determinant(a) * zs::determinant(zs::inverse(a)), 1.0, 1e-12);
    }
  }
}

TEST(Math, CholeskyFactorTimesTransposeGivesMatrixBack) {
  std::mt19937_64 rng(7);
  for (std::size_t n = 1; n <= 8; ++n) {
    Mat const g = randomWellConditioned(n, rng);
    Mat const a = ublas::prod(g, ublas::trans(g));
    Mat const l = zs::cholesky(a);
    EXPECT_LT(maxAbsDiff(ublas::prod(l, ublas::trans(l)), a), 1e-12 * n * n);
    for (std::size_t i = 0; i < n; ++i) {
      EXPECT_GT(l(i, i), 0.0);
      for (std::size_t j = i + 1; j < n; ++j) EXPECT_EQ(l(i, j), 0.0);
    }
  }
}

TEST(Math, DeterminantOfPermutationAndTriangularMatrices) {
  EXPECT_EQ(zs::determinant(permutation({1, 0, 2})), -1.0);
  EXPECT_EQ(zs::determinant(permutation({1, 2, 0})), 1.0);
  EXPECT_EQ(zs::determinant(permutation({3, 2, 1, 0, 4})), 1.0);
  EXPECT_EQ(zs::determinant(permutation({1, 0, 3, 2, 5, 4, 6})), -1.0);
  Mat t = ublas::zero_matrix<double>(5, 5);
  double expected = 1.0;
  for (std::size_t i = 0; i < 5; ++i) {
    t(i, i) = 0.5 * (i + 1.0);
    expected *= t(i, i);
    for (std::size_t j = i + 1; j < 5; ++j) t(i, j) = 3.0 + i - j;
  }
  EXPECT_DOUBLE_EQ(zs::determinant(t), expected);
  EXPECT_DOUBLE_EQ(zs::determinant(Mat(ublas::trans(t))), expected);
  EXPECT_EQ(zs::determinant(Mat(0, 0)), 1.0);
}

// A zero pivot gives a zero determinant; a tiny one is no threshold.
TEST(Math, ZeroPivotReshapingAndCross) {
  Mat s(3, 3, 1.0);
  s(0, 1) = 2.0, s(1, 1) = 2.0, s(2, 1) = 2.0;  // two equal columns
  s(2, 0) = 0.0;
  EXPECT_EQ(zs::determinant(s), 0.0);
  Mat near = ublas::identity_matrix<double>(3);
  near(2, 2) = 1e-300;
  EXPECT_DOUBLE_EQ(zs::inverse(near)(2, 2), 1e300);

  Mat m(2, 3);
  for (unsigned i = 0; i < 2; ++i)
    for (unsigned j = 0; j < 3; ++j) m(i, j) = 10 * i + j;
  Vec const byCol = zs::matrixToVector(m, true);
  EXPECT_EQ(byCol(1), 10.0);  // column 0 top to bottom first
  EXPECT_TRUE(zs::vectorToMatrix(byCol, 2, 3, true) == m);
  EXPECT_TRUE(zs::vectorToMatrix(zs::matrixToVector(m, false), 2, 3, false) == m);
  EXPECT_TRUE(zs::vectorToMatrix(byCol, 3, 2, false) == Mat(ublas::trans(m)));  // mixed flags: transpose
  EXPECT_EQ(zs::sum(m)(2), 14.0);
  EXPECT_EQ(zs::sum(Mat(0, 4)).size(), 4u);

  Mat a(2, 2, 1.0), b(a);
  a(1, 1) = b(1, 1) = std::numeric_limits<double>::quiet_NaN();
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(zs::isnan(b(1, 1) * Vec(3, 1.0)) && !zs::isnan(Vec(0)));
  Vec x(3, 0.0), y(3, 0.0);
  x(0) = 1.0, y(1) = 1.0;
  EXPECT_EQ(zs::cross(x, y)(2), 1.0);
  double const c[3] = {1.0, 2.0, 3.0};
  Mat p(2, 3, 1.0);
  p(1, 2) = 0.0;
  EXPECT_EQ(zs::prod(p, c)(1), 3.0);
}

TEST(MathDeathTest, FatalMessages) {
  Mat const rect(2, 3, 1.0), sing = ublas::zero_matrix<double>(3, 3);
  Mat d = ublas::identity_matrix<double>(3);
  d(1, 1) = 0.0;
  double const c[2] = {1.0, 2.0};
  struct Case {
    std::function<void()> call;
    char const* text;
  } const cases[] = {
      {[&] { zs::cross(Vec(2), Vec(3)); }, "NOT_THREE_DIMENSIONAL"},
      {[&] { zs::determinant(rect); }, "RECTANGULAR_MATRIX"},
      {[&] { zs::inverse(rect); }, "RECTANGULAR_MATRIX"},
      {[&] { zs::inverse(Mat(2, 2, 1.0)); }, "SINGULAR_MATRIX"},
      {[&] { zs::inverse(sing); }, "SINGULAR_MATRIX"},
      {[&] { zs::solve(sing, Mat(2, 1)); }, "DIMENSIONS_DO_NOT_AGREE"},
      {[&] { zs::solve(sing, Mat(3, 1)); }, "SINGULAR_MATRIX"},
      {[&] { zs::cholesky(d); }, "NOT_POSITIVE_DEFINITE"},
      {[&] { zs::vectorToMatrix(Vec(5), 2, 3, true); }, "MATRIX_AND_VECTOR_DIMENSIONS_MISMATCH"},
  };
  for (Case const& k : cases)
    EXPECT_DEATH(k.call(), zarn::test::fatalPattern(std::string("std::invalid_argument(") + k.text + ")",
                                                    "libs/support/src/math"))
        << k.text;
  EXPECT_DEATH(zs::prod(rect, c), zarn::test::fatalArgument("Matrix and array dimensions do not agree.",
                                                            "zarn/support/math.ipp"));
}
