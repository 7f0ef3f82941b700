// Sun and Moon from a few series evaluations a day: the cubic through the
// series values at the four grid nodes around t. An integrator evaluates the
// forces many times per node interval (rkf78: 13 stages a step, Gauss-Jackson
// its corrector passes), each evaluation of the series costing some twenty
// sines and cosines.
#ifndef ZARN_SUPPORT_FORCE_MODEL_SUN_MOON_GRID_HPP
#define ZARN_SUPPORT_FORCE_MODEL_SUN_MOON_GRID_HPP

#include <cmath>
#include <limits>

#include "third_body.hpp"

namespace zarn {
namespace support {
namespace forces {

// Node spacing. The error of the cubic in its middle interval is at most
// 0.5625 h^4 |x''''| / 24: with the Moon's 27.3-day orbit (|x''''| = r w^4,
// r = 3.8e8 m, w = 2.7e-6 rad/s) 8 cm at 3600 s, 14 cm with the orbit's
// eccentricity and the Sun's perturbations; the Sun's below 1 mm. The
// Gauss-Jackson propagation at 900 s then evaluates the series once every
// four steps.
constexpr double kSunMoonNodeStep = 3600.0;  // s

class SunMoonGrid {
 public:
  // A series of the Moon and Sun (m, J2000 axes) at GPS time t (s).
  using Series = void (*)(double t, double moon[3], double sun[3]);

  // Moon and Sun at t as `series` gives them, to the interpolation error; a
  // function of t and the series alone, whatever was asked before.
  void at(double t, double moon[3], double sun[3], Series series = sunMoonJ2000) {
    if (series != series_) {
      for (Node& n : nodes_) n.index = std::numeric_limits<double>::quiet_NaN();
      series_ = series;
    }
    double const u = t / kSunMoonNodeStep;
    double const k = std::floor(u);
    double const s = u - k;
    // Lagrange weights of the nodes k-1, k, k+1, k+2 at k + s.
    double const w[4] = {-s * (s - 1.0) * (s - 2.0) / 6.0, (s + 1.0) * (s - 1.0) * (s - 2.0) / 2.0,
                         -(s + 1.0) * s * (s - 2.0) / 2.0, (s + 1.0) * s * (s - 1.0) / 6.0};
    for (int i = 0; i < 3; ++i) moon[i] = sun[i] = 0.0;
    for (int j = 0; j < 4; ++j) {
      Node const& n = node(k - 1.0 + j);
      for (int i = 0; i < 3; ++i) {
        moon[i] += w[j] * n.moon[i];
        sun[i] += w[j] * n.sun[i];
      }
    }
  }

 private:
  // Enough slots that the four nodes of an interval never evict each other
  // and a step back across a node finds its neighbours still there.
  static constexpr int kSlots = 8;
  struct Node {
    double index = std::numeric_limits<double>::quiet_NaN();
    double moon[3] = {0.0, 0.0, 0.0};
    double sun[3] = {0.0, 0.0, 0.0};
  };

  Node const& node(double index) {
    double const slot = index - kSlots * std::floor(index / kSlots);
    Node& n = nodes_[static_cast<int>(slot) % kSlots];
    if (!(n.index == index)) {
      series_(index * kSunMoonNodeStep, n.moon, n.sun);
      n.index = index;
    }
    return n;
  }

  Series series_ = sunMoonJ2000;
  Node nodes_[kSlots];
};

}  // namespace forces
}  // namespace support
}  // namespace zarn

#endif
