// Dense vector and matrix helpers on Boost uBLAS containers.
//
// Dimension faults and singular systems are preconditions: they end the
// process through ZARN_THROW with the upper-case reason as the logged text.
#ifndef ZARN_SUPPORT_MATH_HPP
#define ZARN_SUPPORT_MATH_HPP

#include <boost/numeric/ublas/matrix.hpp>
#include <boost/numeric/ublas/matrix_proxy.hpp>
#include <boost/numeric/ublas/vector.hpp>
#include <boost/numeric/ublas/vector_proxy.hpp>
#include <cstddef>

#include "zarn/support/export.hpp"
#include "zarn/support/log.hpp"

namespace zarn {
namespace support {

using Vec = boost::numeric::ublas::vector<double>;
using Mat = boost::numeric::ublas::matrix<double, boost::numeric::ublas::row_major>;

// Exact element-wise equality with equal sizes; a NaN makes them unequal.
ZARN_EXPORT bool operator==(Mat const& a, Mat const& b);
ZARN_EXPORT bool operator==(Vec const& a, Vec const& b);
// True when some element is NaN.
ZARN_EXPORT bool isnan(Vec const& v);
// a x b; both of size 3.
ZARN_EXPORT Vec cross(Vec const& a, Vec const& b);
ZARN_EXPORT Vec cross(double const (&a)[3], Vec const& b);
// Flattens column by column (byColumns) or row by row.
ZARN_EXPORT Vec matrixToVector(Mat const& m, bool byColumns);
// Inverse of matrixToVector; v.size() must equal rows * cols.
ZARN_EXPORT Mat vectorToMatrix(Vec const& v, unsigned rows, unsigned cols, bool byColumns);
// Column sums.
ZARN_EXPORT Vec sum(Mat const& m);
// Determinant by LU with partial pivoting; 0.0 for an exactly zero pivot.
ZARN_EXPORT double determinant(Mat const& a);
// x with a x = b (LU with partial pivoting, no pivot tolerance).
ZARN_EXPORT Mat solve(Mat const& a, Mat const& b);
ZARN_EXPORT int solve(Mat const& a, Mat const& b, Mat& x);
// x with a x = b for a vector b.
ZARN_EXPORT Vec mldivide(Mat const& a, Vec const& b);
ZARN_EXPORT int mldivide(Mat const& a, Vec const& b, Vec& x);
// x = a b^-1.
ZARN_EXPORT int mrdivide(Mat const& a, Mat const& b, Mat& x);
ZARN_EXPORT Mat inverse(Mat const& a);
// Lower-triangular L with a = L L^T (Cholesky-Crout, no pivoting).
ZARN_EXPORT Mat cholesky(Mat const& a);

// m * c for a fixed-size array c whose length equals the column count of m.
template <std::size_t N>
Vec prod(Mat const& m, double const (&c)[N]);

}  // namespace support
}  // namespace zarn

#include "zarn/support/math.ipp"

#endif
