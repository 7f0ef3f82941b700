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

Mat randomWellConditioned(std::size_t n, std::mt19937_64& rng) {
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  Mat a(n, n);
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j < n; ++j) a(i, j) = u(rng);
  // Diagonal dominance, of either sign, keeps the condition number small.
  for (std::size_t i = 0; i < n; ++i) a(i, i) += (u(rng) < 0 ? -1.0 : 1.0) * (n + 1.0);
  return a;
}

// Largest absolute row sum of the difference: no smaller than its largest element.
auto const maxAbsDiff = [](Mat a, Mat const& b) { return ublas::norm_inf(a -= b); };

TEST(Math, InverseAndSolveReproduceIdentityUpToOrder8) {
  std::mt19937_64 rng(42);
  for (std::size_t n = 1; n <= 8; ++n) {
    for (int trial = 0; trial < 20; ++trial) {
      Mat const a = randomWellConditioned(n, rng);
      EXPECT_LT(maxAbsDiff(ublas::prod(zs::inverse(a), a), ublas::identity_matrix<double>(n)), 1e-13) << n;
      Mat b(n, 3), xr;
      for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j < 3; ++j) b(i, j) = std::sin(1.0 + i + 7.0 * j);
      EXPECT_LT(maxAbsDiff(ublas::prod(a, zs::solve(a, b)), b), 1e-13);
      Vec v = ublas::column(b, 1), x;
      ASSERT_TRUE(zs::mldivide(a, v, x) == 0 && zs::mrdivide(ublas::trans(b), a, xr) == 0);
      EXPECT_LT(ublas::norm_inf(ublas::prod(a, x) - v), 1e-13);
      EXPECT_LT(maxAbsDiff(ublas::prod(xr, a), ublas::trans(b)), 1e-13);
      // det(A) det(A^-1) = 1 is an independent check of the LU sign bookkeeping.
      EXPECT_NEAR(zs::determinant(a) * zs::determinant(zs::inverse(a)), 1.0, 1e-12);
    }
  }
}

TEST(Math, CholeskyFactorTimesTransposeGivesMatrixBack) {
  std::mt19937_64 rng(7);
  for (std::size_t n = 1; n <= 8; ++n) {
    Mat const g = randomWellConditioned(n, rng), a = ublas::prod(g, ublas::trans(g)), l = zs::cholesky(a);
    EXPECT_LT(maxAbsDiff(ublas::prod(l, ublas::trans(l)), a), 1e-12 * n * n);
    for (std::size_t i = 0; i < n; ++i)
      for (std::size_t j = i; j < n; ++j) EXPECT_TRUE(j == i ? l(i, i) > 0.0 : l(i, j) == 0.0) << i << j;
  }
}

// Row swaps flip the sign; a zero pivot gives a zero determinant; a tiny
// pivot is no threshold; the empty matrix has determinant 1.
TEST(Math, DeterminantEdges) {
  Mat swap = ublas::zero_matrix<double>(3, 3), s(3, 3, 1.0), near = ublas::identity_matrix<double>(3);
  swap(0, 1) = swap(1, 0) = swap(2, 2) = 1.0;
  EXPECT_EQ(zs::determinant(swap), -1.0);
  s(0, 1) = s(1, 1) = s(2, 1) = 2.0, s(2, 0) = 0.0;  // column 1 is twice column 2
  EXPECT_EQ(zs::determinant(s), 0.0);
  near(2, 2) = 1e-300;
  EXPECT_DOUBLE_EQ(zs::inverse(near)(2, 2), 1e300);
  EXPECT_EQ(zs::determinant(Mat(0, 0)), 1.0);
}

TEST(Math, ReshapingSumNanAndCross) {
  Mat m(2, 3);
  for (unsigned i = 0; i < 2; ++i)
    for (unsigned j = 0; j < 3; ++j) m(i, j) = 10 * i + j;
  Vec const byCol = zs::matrixToVector(m, true);
  EXPECT_EQ(byCol(1), 10.0);  // column 0 top to bottom first
  EXPECT_TRUE(zs::vectorToMatrix(byCol, 2, 3, true) == m &&
              zs::vectorToMatrix(zs::matrixToVector(m, false), 2, 3, false) == m);
  EXPECT_TRUE(zs::vectorToMatrix(byCol, 3, 2, false) == Mat(ublas::trans(m)));  // mixed flags: transpose
  EXPECT_TRUE(zs::sum(m)(2) == 14.0 && zs::sum(Mat(0, 4)).size() == 4u);

  Mat a(2, 2, 1.0), b(a);
  a(1, 1) = b(1, 1) = std::numeric_limits<double>::quiet_NaN();
  EXPECT_TRUE(!(a == b) && zs::isnan(b(1, 1) * Vec(3, 1.0)) && !zs::isnan(Vec(0)));  // NaN equals nothing
  // (0, 1, 2) x (10, 11, 12) = (-10, 20, -10); row 1 of m times c is 10 + 22 + 36.
  Vec const r0 = ublas::row(m, 0), r1 = ublas::row(m, 1);
  double const c[3] = {1.0, 2.0, 3.0};
  EXPECT_TRUE(zs::cross(r0, r1)(0) == -10.0 && zs::cross(r0, r1)(1) == 20.0 && zs::prod(m, c)(1) == 68.0);
}

TEST(MathDeathTest, FatalMessages) {
  Mat const rect(2, 3, 1.0);
  double const c[2] = {1.0, 2.0};
  std::pair<std::function<void()>, char const*> const cases[] = {
      {[&] { zs::cross(Vec(2), Vec(3)); }, "NOT_THREE_DIMENSIONAL"},
      {[&] { zs::determinant(rect); }, "RECTANGULAR_MATRIX"},
      {[&] { zs::inverse(Mat(2, 2, 1.0)); }, "SINGULAR_MATRIX"},
      {[&] { zs::solve(Mat(3, 3, 0.0), Mat(2, 1)); }, "DIMENSIONS_DO_NOT_AGREE"},
      {[&] { zs::cholesky(Mat(3, 3, 0.0)); }, "NOT_POSITIVE_DEFINITE"},
      {[&] { zs::vectorToMatrix(Vec(5), 2, 3, true); }, "MATRIX_AND_VECTOR_DIMENSIONS_MISMATCH"},
  };
  for (auto const& [call, text] : cases)
    EXPECT_DEATH(call(), zarn::test::fatalPattern(std::string("std::invalid_argument(") + text + ")",
                                                  "libs/support/src/math"))
        << text;
  EXPECT_DEATH(zs::prod(rect, c), zarn::test::fatalArgument("Matrix and array dimensions do not agree.",
                                                            "zarn/support/math.ipp"));
}
