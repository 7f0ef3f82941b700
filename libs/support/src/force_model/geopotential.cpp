#include "force_model/geopotential.hpp"

#include <cmath>

#include "tables/geopotential_table.hpp"
#include "zarn/support/coordinate_conversion.hpp"

namespace zarn {
namespace support {
namespace forces {
namespace {

// The field's GM is the WGS 84 value (NIMA TR8350.2, 3rd ed., Table 3.1), not
// the table's own; the reference radius is the table's (Lemoine et al. 1998).
constexpr double kFieldRadius = 6378136.3;  // m
constexpr int kMaxDegree = tables::kGeopotentialDegree;
// Cunningham functions are needed two degrees above the field for the gradient.
constexpr int kWork = kMaxDegree + 3;

// Coefficients of the zonal-direction recursion, j > k:
// V_jk = a_jk z0 V_j-1,k - b_jk (R/r)^2 V_j-2,k.
struct RecursionFactors {
  double a[kWork][kWork] = {};
  double b[kWork][kWork] = {};
  constexpr RecursionFactors() {
    for (int j = 0; j < kWork; ++j)
      for (int k = 0; k < j; ++k) {
        a[j][k] = static_cast<double>(2 * j - 1) / (j - k);
        b[j][k] = static_cast<double>(j + k - 1) / (j - k);
      }
  }
};
constexpr RecursionFactors kRecursion;

// Integer factors of the derivative relations, j >= k: d1 = j-k+1,
// f2 = (j-k+1)(j-k+2), f3 = (j-k+2)(j-k+3), f4 = (j-k+1)...(j-k+4), half2 = f2 / 2.
struct DerivativeFactors {
  double d1[kMaxDegree + 1][kMaxDegree + 1] = {};
  double f2[kMaxDegree + 1][kMaxDegree + 1] = {};
  double f3[kMaxDegree + 1][kMaxDegree + 1] = {};
  double f4[kMaxDegree + 1][kMaxDegree + 1] = {};
  double half2[kMaxDegree + 1][kMaxDegree + 1] = {};
  constexpr DerivativeFactors() {
    for (int j = 0; j <= kMaxDegree; ++j)
      for (int k = 0; k <= j; ++k) {
        int const d = j - k;
        d1[j][k] = d + 1;
        f2[j][k] = (d + 1) * (d + 2);
        f3[j][k] = (d + 2) * (d + 3);
        f4[j][k] = (d + 1) * (d + 2) * (d + 3) * (d + 4);
        half2[j][k] = 0.5 * f2[j][k];
      }
  }
};
constexpr DerivativeFactors kFactors;

// Fixed-size work area for the gravity kernel; lives on the stack.
struct Cunningham {
  double v[kWork][kWork];
  double w[kWork][kWork];
  double& V(int j, int k) { return v[j][k]; }
  double& W(int j, int k) { return w[j][k]; }
};

struct MatPair {
  Mat& v;
  Mat& w;
  double& V(int j, int k) { return v(j, k); }
  double& W(int j, int k) { return w(j, k); }
};

// Cunningham (1970) recursion for V_jk, W_jk, 0 <= k <= min(m, j), j <= n
// (Montenbruck & Gill, Satellite Orbits, eqs. 3.29-3.31). The sectorial
// diagonal first, then degree by degree: the orders of one degree do not
// depend on each other, so the inner loop has no serial dependency.
template <class Store>
void cunninghamRecursion(double x, double y, double z, int n, int m, Store& s) {
  double const r = std::sqrt(x * x + y * y + z * z);
  double const rho = kFieldRadius / (r * r);
  double const x0 = x * rho, y0 = y * rho, z0 = z * rho;
  double const rr = rho * kFieldRadius;  // (R/r)^2
  s.V(0, 0) = kFieldRadius / r;
  s.W(0, 0) = 0.0;
  int const kTop = m < n ? m : n;
  for (int k = 1; k <= kTop; ++k) {
    double const f = 2 * k - 1;
    double const vp = s.V(k - 1, k - 1), wp = s.W(k - 1, k - 1);
    s.V(k, k) = f * (x0 * vp - y0 * wp);
    s.W(k, k) = f * (x0 * wp + y0 * vp);
  }
  for (int j = 1; j <= n; ++j) {
    int const k1 = j - 1;
    if (k1 <= kTop) {
      double const f = (2 * k1 + 1) * z0;
      s.V(j, k1) = f * s.V(k1, k1);
      s.W(j, k1) = f * s.W(k1, k1);
    }
    int const kEnd = j - 2 < kTop ? j - 2 : kTop;
    for (int k = 0; k <= kEnd; ++k) {
      double const a = kRecursion.a[j][k] * z0, b = kRecursion.b[j][k] * rr;
      s.V(j, k) = a * s.V(j - 1, k) - b * s.V(j - 2, k);
      s.W(j, k) = a * s.W(j - 1, k) - b * s.W(j - 2, k);
    }
  }
}

int clampDegree(int n) {
  return n < 0 ? 0 : (n > kMaxDegree ? kMaxDegree : n);
}

}  // namespace

void cunninghamFunctions(double const p[3], int n, int m, Mat& V, Mat& W) {
  MatPair store{V, W};
  cunninghamRecursion(p[0], p[1], p[2], n, m, store);
}

// Acceleration from the Cunningham first-derivative relations (Montenbruck &
// Gill eq. 3.33); the gradient from applying the same relations twice,
// written with Z_nm = V_nm + i W_nm and the operators d/dx +- i d/dy:
//   (d/dx + i d/dy) Z_nm = -Z_n+1,m+1 / R,
//   (d/dx - i d/dy) Z_nm = (n-m+1)(n-m+2) Z_n+1,m-1 / R (m >= 1), -conj(Z_n+1,1) / R (m = 0),
//   d/dz Z_nm = -(n-m+1) Z_n+1,m / R,
// and U = GM/R sum Re((C_nm - i S_nm) Z_nm). The yy element comes from the trace.
// Sums are kept per order and added up at the end, so that the inner loops
// over the orders of one degree carry no dependency from one term to the next.
void gravity(double const p[3], int degree, double acc[3], Mat3* gradient) {
  int const n = clampDegree(degree);
  Cunningham cf;
  int const top = n + (gradient ? 2 : 1);
  cunninghamRecursion(p[0], p[1], p[2], top, top, cf);
  double const(&C)[kMaxDegree + 1][kMaxDegree + 1] = tables::kGeopotentialC;
  double const(&S)[kMaxDegree + 1][kMaxDegree + 1] = tables::kGeopotentialS;
  auto const& V = cf.v;
  auto const& W = cf.w;

  // Per order, with P = f Z_j+1,k-1 - Z_j+1,k+1 / 2, Q = f Z_j+1,k-1 + Z_j+1,k+1 / 2:
  // x = c Re P + s Im P, y = s Re Q - c Im Q, z = -(j-k+1)(c V_j+1,k + s W_j+1,k).
  double sx[kMaxDegree + 1] = {}, sy[kMaxDegree + 1] = {}, sz[kMaxDegree + 1] = {};
  for (int j = 0; j <= n; ++j) {
    double const* v = V[j + 1];
    double const* w = W[j + 1];
    double const* c = C[j];
    double const* s = S[j];
    double const* f = kFactors.half2[j];  // (j-k+1)(j-k+2)/2
    double const* d1 = kFactors.d1[j];
    sx[0] -= c[0] * v[1];
    sy[0] -= c[0] * w[1];
    sz[0] -= d1[0] * (c[0] * v[0] + s[0] * w[0]);
    for (int k = 1; k <= j; ++k) {
      double const lv = f[k] * v[k - 1], lw = f[k] * w[k - 1];
      double const hv = 0.5 * v[k + 1], hw = 0.5 * w[k + 1];
      sx[k] += c[k] * (lv - hv) + s[k] * (lw - hw);
      sy[k] += s[k] * (lv + hv) - c[k] * (lw + hw);
      sz[k] -= d1[k] * (c[k] * v[k] + s[k] * w[k]);
    }
  }
  double ax = 0.0, ay = 0.0, az = 0.0;
  for (int k = 0; k <= n; ++k) {
    ax += sx[k];
    ay += sy[k];
    az += sz[k];
  }
  double const fa = kEarthGm / (kFieldRadius * kFieldRadius);
  acc[0] = fa * ax;
  acc[1] = fa * ay;
  acc[2] = fa * az;
  if (!gradient) return;

  // Per order: xx, xy, xz, yz, zz.
  double gxx[kMaxDegree + 1] = {}, gxy[kMaxDegree + 1] = {}, gxz[kMaxDegree + 1] = {};
  double gyz[kMaxDegree + 1] = {}, gzz[kMaxDegree + 1] = {};
  for (int j = 0; j <= n; ++j) {
    double const* v = V[j + 2];
    double const* w = W[j + 2];
    double const* c = C[j];
    double const* s = S[j];
    // Re and Im of (C - iS) Z_j+2,k at order k, and of (C - iS) conj(Z_j+2,k).
    auto re = [&](int i, int k) { return c[i] * v[k] + s[i] * w[k]; };
    auto im = [&](int i, int k) { return c[i] * w[k] - s[i] * v[k]; };
    auto reConj = [&](int i, int k) { return c[i] * v[k] - s[i] * w[k]; };
    auto imConj = [&](int i, int k) { return -(c[i] * w[k] + s[i] * v[k]); };
    // Order 0: (d/dx - i d/dy)^2 Z = conj(Z_j+2,2) / R^2, (d/dx - i d/dy) d/dz Z ~ -conj(Z_j+2,1).
    {
      double const d1 = j + 1, f2 = d1 * (j + 2), z0 = re(0, 0);
      gxx[0] += 0.25 * (re(0, 2) - 2.0 * f2 * z0 + reConj(0, 2));
      gxy[0] += 0.25 * (im(0, 2) - imConj(0, 2));
      gxz[0] += -0.5 * d1 * (-reConj(0, 1) - re(0, 1));
      gyz[0] += 0.5 * d1 * (im(0, 1) - imConj(0, 1));
      gzz[0] += f2 * z0;
    }
    // Order 1: (d/dx - i d/dy)^2 Z = -j(j+1) conj(Z_j+2,1) / R^2.
    if (j >= 1) {
      double const d1 = j, f2 = d1 * (j + 1), z1 = re(1, 1);
      double const f = -static_cast<double>(j * (j + 1));
      double const g3 = (j + 2) * (j + 1);
      gxx[1] += 0.25 * (re(1, 3) - 2.0 * f2 * z1 + f * reConj(1, 1));
      gxy[1] += 0.25 * (im(1, 3) - f * imConj(1, 1));
      gxz[1] += -0.5 * d1 * (g3 * re(1, 0) - re(1, 2));
      gyz[1] += 0.5 * d1 * (im(1, 2) + g3 * im(1, 0));
      gzz[1] += f2 * z1;
    }
    for (int k = 2; k <= j; ++k) {
      double const d1 = kFactors.d1[j][k];
      double const f2 = kFactors.f2[j][k], f3 = kFactors.f3[j][k], f4 = kFactors.f4[j][k];
      double const zk = re(k, k);
      gxx[k] += 0.25 * (re(k, k + 2) - 2.0 * f2 * zk + f4 * re(k, k - 2));
      gxy[k] += 0.25 * (im(k, k + 2) - f4 * im(k, k - 2));
      gxz[k] += -0.5 * d1 * (f3 * re(k, k - 1) - re(k, k + 1));
      gyz[k] += 0.5 * d1 * (im(k, k + 1) + f3 * im(k, k - 1));
      gzz[k] += f2 * zk;
    }
  }
  double xx = 0.0, xy = 0.0, xz = 0.0, yz = 0.0, zz = 0.0;
  for (int k = 0; k <= n; ++k) {
    xx += gxx[k];
    xy += gxy[k];
    xz += gxz[k];
    yz += gyz[k];
    zz += gzz[k];
  }
  double const fg = kEarthGm / (kFieldRadius * kFieldRadius * kFieldRadius);
  Mat3& G = *gradient;
  G[0][0] = fg * xx;
  G[0][1] = G[1][0] = fg * xy;
  G[0][2] = G[2][0] = fg * xz;
  G[1][2] = G[2][1] = fg * yz;
  G[2][2] = fg * zz;
  G[1][1] = -G[0][0] - G[2][2];
}

}  // namespace forces
}  // namespace support
}  // namespace zarn
