// Matrix helpers against algebraic identities and hand-computed values.
#include "zarn/support/math.hpp"

#include <gtest/gtest.h>

#include <cmath>
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

TEST(Math, ZeroPivotGivesZeroDeterminantButNoThresholdOtherwise) {
  double const rows[3][3] = {{1, 2, 3}, {2, 4, 6}, {0, 1, 1}};  // row 2 = 2 * row 1
  Mat s(3, 3);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) s(i, j) = rows[i][j];
  EXPECT_EQ(zs::determinant(s), 0.0);
  Mat near = ublas::identity_matrix<double>(3);
  near(2, 2) = 1e-300;
  EXPECT_EQ(zs::determinant(near), 1e-300);
  EXPECT_DOUBLE_EQ(zs::inverse(near)(2, 2), 1e300);
}

TEST(Math, EmptyMatricesAndReshaping) {
  Mat const empty(0, 0);
  EXPECT_EQ(zs::inverse(empty).size1(), 0u);
  EXPECT_EQ(zs::cholesky(empty).size1(), 0u);
  EXPECT_EQ(zs::solve(empty, empty).size1(), 0u);

  Mat m(2, 3);
  for (unsigned i = 0; i < 2; ++i)
    for (unsigned j = 0; j < 3; ++j) m(i, j) = 10 * i + j;
  Vec const byCol = zs::matrixToVector(m, true);
  EXPECT_EQ(byCol(1), 10.0);  // column 0 top to bottom first
  EXPECT_TRUE(zs::vectorToMatrix(byCol, 2, 3, true) == m);
  EXPECT_TRUE(zs::vectorToMatrix(zs::matrixToVector(m, false), 2, 3, false) == m);
  // Mixing the flags fills the transpose.
  EXPECT_TRUE(zs::vectorToMatrix(byCol, 3, 2, false) == Mat(ublas::trans(m)));

  Vec const s = zs::sum(m);
  EXPECT_EQ(s(0), 10.0);
  EXPECT_EQ(s(2), 14.0);
  Vec const z = zs::sum(Mat(0, 4));
  ASSERT_EQ(z.size(), 4u);
  EXPECT_EQ(z(3), 0.0);
}

TEST(Math, EqualityNanAndCross) {
  Mat a(2, 2, 1.0);
  Mat b(a);
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a == Mat(2, 3, 1.0));
  a(1, 1) = b(1, 1) = std::numeric_limits<double>::quiet_NaN();
  EXPECT_FALSE(a == b);

  Vec v(3, 0.0);
  EXPECT_FALSE(zs::isnan(v));
  EXPECT_FALSE(zs::isnan(Vec(0)));
  v(2) = std::nan("");
  EXPECT_TRUE(zs::isnan(v));

  Vec x(3, 0.0), y(3, 0.0);
  x(0) = 1.0;
  y(1) = 1.0;
  Vec const z = zs::cross(x, y);
  EXPECT_EQ(z(2), 1.0);
  double const xa[3] = {0.0, 1.0, 0.0};
  EXPECT_EQ(zs::cross(xa, x)(2), -1.0);

  double const c[3] = {1.0, 2.0, 3.0};
  Mat p(2, 3, 1.0);
  p(1, 2) = 0.0;
  Vec const r = zs::prod(p, c);
  EXPECT_EQ(r(0), 6.0);
  EXPECT_EQ(r(1), 3.0);
}

TEST(MathDeathTest, FatalCasesAbortWithTheirTexts) {
  std::string const path = "libs/support/src/math";
  auto text = [](char const* what) { return std::string("std::invalid_argument(") + what + ")"; };
  Mat const rect(2, 3, 1.0);
  Mat const sing = ublas::zero_matrix<double>(3, 3);
  EXPECT_DEATH(zs::cross(Vec(2), Vec(3)), zarn::test::fatalPattern(text("NOT_THREE_DIMENSIONAL"), path));
  EXPECT_DEATH(zs::determinant(rect), zarn::test::fatalPattern(text("RECTANGULAR_MATRIX"), path));
  EXPECT_DEATH(zs::inverse(rect), zarn::test::fatalPattern(text("RECTANGULAR_MATRIX"), path));
  EXPECT_DEATH(zs::inverse(Mat(1, 1, 0.0)), zarn::test::fatalPattern(text("SINGULAR_MATRIX"), path));
  EXPECT_DEATH(zs::inverse(Mat(2, 2, 1.0)), zarn::test::fatalPattern(text("SINGULAR_MATRIX"), path));
  EXPECT_DEATH(zs::inverse(sing), zarn::test::fatalPattern(text("SINGULAR_MATRIX"), path));
  EXPECT_DEATH(zs::solve(sing, Mat(2, 1)), zarn::test::fatalPattern(text("DIMENSIONS_DO_NOT_AGREE"), path));
  EXPECT_DEATH(zs::solve(sing, Mat(3, 1)), zarn::test::fatalPattern(text("SINGULAR_MATRIX"), path));
  EXPECT_DEATH(zs::cholesky(Mat(1, 1, 0.0)), zarn::test::fatalPattern(text("NOT_POSITIVE_DEFINITE"), path));
  Mat d = ublas::identity_matrix<double>(3);
  d(1, 1) = 0.0;
  EXPECT_DEATH(zs::cholesky(d), zarn::test::fatalPattern(text("NOT_POSITIVE_DEFINITE"), path));
  EXPECT_DEATH(zs::vectorToMatrix(Vec(5), 2, 3, true),
               zarn::test::fatalPattern(text("MATRIX_AND_VECTOR_DIMENSIONS_MISMATCH"), path));
  double const c[2] = {1.0, 2.0};
  EXPECT_DEATH(zs::prod(rect, c), zarn::test::fatalPattern(
                                      "std::invalid_argument(\"Matrix and array dimensions do not agree.\")",
                                      "zarn/support/math.ipp"));
}
