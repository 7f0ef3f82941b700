// Template part of zarn/support/math.hpp.
#ifndef ZARN_SUPPORT_MATH_IPP
#define ZARN_SUPPORT_MATH_IPP

namespace zarn {
namespace support {

template <std::size_t N>
Vec prod(Mat const& m, double const (&c)[N]) {
  if (m.size2() != N) ZARN_THROW(std::invalid_argument("Matrix and array dimensions do not agree."));
  Vec result(m.size1());
  for (std::size_t i = 0; i < m.size1(); ++i) {
    double s = 0.0;
    for (std::size_t k = 0; k < N; ++k) s += m(i, k) * c[k];
    result(i) = s;
  }
  return result;
}

}  // namespace support
}  // namespace zarn

#endif
