// Vector helpers for the tests of the Vec-based modules (header only: the
// test-support library does not link the library).
#ifndef ZARN_TESTS_VECTORS_HPP
#define ZARN_TESTS_VECTORS_HPP

#include <functional>
#include <vector>

#include "zarn/support/math.hpp"

namespace zarn {
namespace test {

inline support::Vec vec3(double x, double y, double z) {
  support::Vec v(3);
  v(0) = x, v(1) = y, v(2) = z;
  return v;
}

// Column j is the central difference (f(x + h_j e_j) - f(x - h_j e_j)) / (2 h_j).
inline support::Mat centralDifferences(std::function<support::Vec(support::Vec const&)> const& f,
                                       support::Vec const& x, std::vector<double> const& h) {
  support::Mat d;
  for (std::size_t j = 0; j < x.size(); ++j) {
    support::Vec plus = x, minus = x;
    plus(j) += h[j], minus(j) -= h[j];
    support::Vec const column = (f(plus) - f(minus)) / (2 * h[j]);
    if (j == 0) d.resize(column.size(), x.size());
    for (std::size_t i = 0; i < column.size(); ++i) d(i, j) = column(i);
  }
  return d;
}

// Largest |m(i, j)| over rows and columns [0, n).
inline double maxAbs(support::Mat const& m, std::size_t n) {
  double worst = 0.0;
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j < n; ++j) worst = std::max(worst, std::fabs(m(i, j)));
  return worst;
}

}  // namespace test
}  // namespace zarn

#endif
