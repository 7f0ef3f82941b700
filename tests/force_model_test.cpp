#include "zarn/support/force_model.hpp"

#include <gtest/gtest.h>

#include <array>
#include <boost/numeric/ublas/io.hpp>
#include <cmath>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_support.hpp"

namespace zarn {
namespace support {
namespace {

constexpr double kGm = 3.986004418e14;
constexpr double kRadius = 6378136.3;

Vec vec3(double x, double y, double z) {
  Vec v(3);
  v(0) = x;
  v(1) = y;
  v(2) = z;
  return v;
}

Vec geodetic(double radius, double latDeg, double lonDeg) {
  double const lat = latDeg * M_PI / 180.0, lon = lonDeg * M_PI / 180.0;
  return vec3(radius * std::cos(lat) * std::cos(lon), radius * std::cos(lat) * std::sin(lon),
              radius * std::sin(lat));
}

// ---------------------------------------------------------------------------
// Geopotential

// Independent potential: U = GM/r sum (R/r)^n P_nm(sin phi)(C cos m lambda + S sin m lambda),
// in long double, with P_nm from the explicit polynomial of P_n differentiated m
// times (no recursion shared with the library). Coefficients read from the
// published table in the shared reference directory.
class LegendrePotential {
 public:
  explicit LegendrePotential(std::string const& path) {
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
      if (line.empty() || line[0] == '#') continue;
      std::istringstream s(line);
      int n, m;
      long double c, sn;
      if (s >> n >> m >> c >> sn) {
        C[n][m] = c;
        S[n][m] = sn;
        ++count;
      }
    }
    for (int n = 0; n <= 16; ++n) {
      // P_n(x) = 2^-n sum_k (-1)^k C(n,k) C(2n-2k,n) x^(n-2k)
      std::vector<long double> p(n + 1, 0.0L);
      for (int k = 0; 2 * k <= n; ++k)
        p[n - 2 * k] =
            (k % 2 ? -1.0L : 1.0L) * binomial(n, k) * binomial(2 * n - 2 * k, n) / std::pow(2.0L, n);
      for (int m = 0; m <= n; ++m) {
        poly[n][m] = p;
        // differentiate for the next order
        std::vector<long double> d(p.size() > 1 ? p.size() - 1 : 1, 0.0L);
        for (std::size_t i = 1; i < p.size(); ++i) d[i - 1] = p[i] * static_cast<long double>(i);
        p = d;
      }
    }
  }

  bool loaded() const { return count == 153; }

  long double operator()(long double x, long double y, long double z, int degree, int firstDegree = 0) const {
    long double const r = std::sqrt(x * x + y * y + z * z);
    long double const u = z / r, lon = std::atan2(y, x);
    long double const w = std::sqrt((1.0L - u) * (1.0L + u));
    long double sum = 0.0L;
    for (int n = firstDegree; n <= degree; ++n) {
      long double term = 0.0L;
      for (int m = 0; m <= n; ++m) {
        long double pv = 0.0L;
        for (std::size_t i = poly[n][m].size(); i-- > 0;) pv = pv * u + poly[n][m][i];
        pv *= std::pow(w, static_cast<long double>(m));
        term += pv * (C[n][m] * std::cos(m * lon) + S[n][m] * std::sin(m * lon));
      }
      sum += std::pow(static_cast<long double>(kRadius) / r, static_cast<long double>(n)) * term;
    }
    return static_cast<long double>(kGm) / r * sum;
  }

  // Fourth-order central differences of the potential.
  std::array<long double, 3> gradient(Vec const& r, int degree, int firstDegree) const {
    std::array<long double, 3> g{};
    long double const h = 20.0L;
    for (int i = 0; i < 3; ++i) {
      auto at = [&](long double step) {
        long double p[3] = {r(0), r(1), r(2)};
        p[i] += step;
        return (*this)(p[0], p[1], p[2], degree, firstDegree);
      };
      g[i] = (8.0L * (at(h) - at(-h)) - (at(2 * h) - at(-2 * h))) / (12.0L * h);
    }
    return g;
  }

 private:
  static long double binomial(int n, int k) {
    long double b = 1.0L;
    for (int i = 1; i <= k; ++i) b = b * (n - k + i) / i;
    return b;
  }
  long double C[17][17] = {};
  long double S[17][17] = {};
  std::vector<long double> poly[17][17];
  int count = 0;
};

std::vector<Vec> testPositions() {
  return {geodetic(26560000.0, 37.0, -122.0),  // GPS
          geodetic(25500000.0, -64.8, 12.5),   // GLONASS
          geodetic(6878136.0, 51.6, 77.0),     // low orbit, where high degrees matter
          geodetic(6678136.0, -12.0, 179.9),  geodetic(7000000.0, 89.99, 33.0),  // near the poles
          geodetic(7000000.0, -89.9, -150.0), vec3(0.0, 0.0, 7100000.0),         // on the axis
          geodetic(42164000.0, 0.0, 105.0)};                                     // on the equator
}

TEST(Geopotential, AccelerationIsGradientOfIndependentPotential) {
  ZARN_SHARED_FILE_OR_SKIP(path, "reference/jgm3_unnormalized_16x16.txt");
  LegendrePotential potential(path);
  ASSERT_TRUE(potential.loaded());
  ForceModel model;
  model.setAccDerivatives(false);
  Mat unused;
  for (Vec const& r : testPositions()) {
    Vec central, acc;
    model.geopotential(r, 0, 0, central, unused);
    for (int n : {2, 4, 8, 16}) {
      model.geopotential(r, n, n, acc, unused);
      // Compare the non-central part, so that high degrees are not lost in the monopole.
      std::array<long double, 3> const g = potential.gradient(r, n, 2);
      double const scale = std::sqrt(static_cast<double>(g[0] * g[0] + g[1] * g[1] + g[2] * g[2]));
      for (int i = 0; i < 3; ++i)
        EXPECT_NEAR(acc(i) - central(i), static_cast<double>(g[i]), 1e-9 * scale)
            << "n=" << n << " r=" << r << " axis " << i;
    }
    // Truncation matters: the degree 9..16 terms at low altitude are well above the tolerance.
  }
}

TEST(Geopotential, GradientMatrixMatchesCentralDifferencesAndIsTraceFree) {
  ForceModel model;
  for (Vec const& r : testPositions()) {
    for (int n : {0, 2, 8, 16}) {
      Vec acc;
      Mat G;
      model.geopotential(r, n, n, acc, G);
      ASSERT_EQ(G.size1(), 3u);
      ASSERT_EQ(G.size2(), 3u);
      double scale = 0.0;
      for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) scale = std::max(scale, std::fabs(G(i, j)));
      EXPECT_NEAR(G(0, 0) + G(1, 1) + G(2, 2), 0.0, 1e-15 * scale);
      double const h = 2.0;
      for (int j = 0; j < 3; ++j) {
        Vec rp = r, rm = r, ap, am;
        Mat unused;
        rp(j) += h;
        rm(j) -= h;
        model.geopotential(rp, n, n, ap, unused);
        model.geopotential(rm, n, n, am, unused);
        for (int i = 0; i < 3; ++i)
          EXPECT_NEAR(G(i, j), (ap(i) - am(i)) / (2 * h), 1e-7 * scale) << "n=" << n << " r=" << r;
      }
      for (int i = 0; i < 3; ++i)
        for (int j = 0; j < i; ++j) EXPECT_EQ(G(i, j), G(j, i));
    }
  }
}

TEST(Geopotential, CentralTermAndJ2) {
  ForceModel model;
  Vec const r = vec3(-11280000.0, 21703000.0, 9405000.0);
  double const rn = norm_2(r);
  Vec a0, a1;
  Mat G0, G1;
  model.geopotential(r, 0, 0, a0, G0);
  model.geopotential(r, 1, 1, a1, G1);
  for (int i = 0; i < 3; ++i) {
    EXPECT_NEAR(a0(i), -kGm * r(i) / (rn * rn * rn), 1e-15 * kGm / (rn * rn));
    EXPECT_EQ(a0(i), a1(i));  // degree-1 terms vanish in a geocentric field
    for (int j = 0; j < 3; ++j) {
      double const expected = kGm / std::pow(rn, 5) * (3 * r(i) * r(j) - (i == j ? rn * rn : 0.0));
      EXPECT_NEAR(G0(i, j), expected, 1e-14 * kGm / std::pow(rn, 3));
      EXPECT_EQ(G0(i, j), G1(i, j));
    }
  }

  // On the equator the oblateness pulls harder than the point mass and (but for
  // the tiny C21/S21 tilt of the figure axis) not out of the plane.
  Vec const eq = vec3(6878136.0, 1200000.0, 0.0);
  double const en = norm_2(eq);
  Vec a2;
  model.geopotential(eq, 2, 2, a2, G1);
  double const radial = inner_prod(a2, eq) / en;
  EXPECT_LT(radial, -kGm / (en * en));
  EXPECT_NEAR(-radial - kGm / (en * en), 1.5 * 1.0826e-3 * kGm / (en * en) * std::pow(kRadius / en, 2),
              1e-3 * kGm / (en * en) * std::pow(kRadius / en, 2));
  EXPECT_LT(std::fabs(a2(2)), 1e-7);
}

TEST(Geopotential, CunninghamFunctionsAreSolidHarmonics) {
  // V_nm + i W_nm = (R/r)^(n+1) P_nm(sin phi) e^(i m lambda); spot checks with closed forms.
  Vec const r = geodetic(7000000.0, 35.0, -70.0);
  double const rn = norm_2(r), u = r(2) / rn, lon = std::atan2(r(1), r(0));
  Mat V(5, 4), W(5, 4);
  V(0, 0) = 42.0;  // zeroed first
  ForceModel::satCoefficients(r, 4, 3, V, W);
  double const q = kRadius / rn;
  EXPECT_DOUBLE_EQ(V(0, 0), q);
  EXPECT_DOUBLE_EQ(V(2, 0), std::pow(q, 3) * 0.5 * (3 * u * u - 1));
  double const p31 = 1.5 * (5 * u * u - 1) * std::sqrt(1 - u * u);
  EXPECT_DOUBLE_EQ(V(3, 1), std::pow(q, 4) * p31 * std::cos(lon));
  EXPECT_DOUBLE_EQ(W(3, 1), std::pow(q, 4) * p31 * std::sin(lon));
  double const p33 = 15 * std::pow(1 - u * u, 1.5);
  EXPECT_NEAR(W(3, 3), std::pow(q, 4) * p33 * std::sin(3 * lon), 1e-14 * std::pow(q, 4) * p33);
  EXPECT_EQ(W(4, 0), 0.0);
}

TEST(GeopotentialDeathTest, WrongWorkMatrixSizesAbort) {
  Vec const r = vec3(7e6, 0.0, 0.0);
  Mat good(5, 5), narrow(5, 4);
  EXPECT_DEATH(ForceModel::satCoefficients(r, 4, 4, narrow, good),
               zarn::test::fatalPattern("std::invalid_argument(\"satCoefficients: invalid size V\")",
                                        "libs/support/src/force_model"));
  EXPECT_DEATH(ForceModel::satCoefficients(r, 4, 4, good, narrow),
               zarn::test::fatalPattern("std::invalid_argument(\"satCoefficients: invalid size W\")",
                                        "libs/support/src/force_model"));
  // V is checked first.
  EXPECT_DEATH(ForceModel::satCoefficients(r, 4, 4, narrow, narrow), "invalid size V");
}

}  // namespace
}  // namespace support
}  // namespace zarn
