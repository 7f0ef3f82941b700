#include "zarn/support/math.hpp"

#include <algorithm>
#include <cmath>
#include <vector>

namespace zarn {
namespace support {
namespace {

// Doolittle LU with partial pivoting in place: a holds unit-lower L below the
// diagonal and U on and above it; perm[i] is the row exchanged with row i at
// step i. Returns false when a chosen pivot is exactly 0.0.
bool luFactor(Mat& a, std::vector<std::size_t>& perm) {
  std::size_t const n = a.size1();
  perm.resize(n);
  for (std::size_t i = 0; i < n; ++i) {
    std::size_t p = i;
    double best = std::fabs(a(i, i));
    for (std::size_t r = i + 1; r < n; ++r) {
      if (std::fabs(a(r, i)) > best) {
        best = std::fabs(a(r, i));
        p = r;
      }
    }
    perm[i] = p;
    if (a(p, i) == 0.0) return false;
    if (p != i) {
      for (std::size_t c = 0; c < n; ++c) std::swap(a(i, c), a(p, c));
    }
    double const pivot = a(i, i);
    for (std::size_t r = i + 1; r < n; ++r) {
      double const f = a(r, i) / pivot;
      a(r, i) = f;
      if (f == 0.0) continue;
      for (std::size_t c = i + 1; c < n; ++c) a(r, c) -= f * a(i, c);
    }
  }
  return true;
}

// Solves in place for every column of x with the factors of luFactor.
void luSubstitute(Mat const& lu, std::vector<std::size_t> const& perm, Mat& x) {
  std::size_t const n = lu.size1();
  std::size_t const m = x.size2();
  for (std::size_t i = 0; i < n; ++i) {
    if (perm[i] != i) {
      for (std::size_t c = 0; c < m; ++c) std::swap(x(i, c), x(perm[i], c));
    }
  }
  for (std::size_t c = 0; c < m; ++c) {
    for (std::size_t i = 1; i < n; ++i) {
      double s = x(i, c);
      for (std::size_t k = 0; k < i; ++k) s -= lu(i, k) * x(k, c);
      x(i, c) = s;
    }
    for (std::size_t i = n; i-- > 0;) {
      double s = x(i, c);
      for (std::size_t k = i + 1; k < n; ++k) s -= lu(i, k) * x(k, c);
      x(i, c) = s / lu(i, i);
    }
  }
}

}  // namespace

bool operator==(Mat const& a, Mat const& b) {
  if (a.size1() != b.size1() || a.size2() != b.size2()) return false;
  // Over the stored elements, so an empty matrix of many rows costs nothing.
  return std::equal(a.data().begin(), a.data().end(), b.data().begin());
}

bool operator==(Vec const& a, Vec const& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i)
    if (!(a(i) == b(i))) return false;
  return true;
}

bool isnan(Vec const& v) {
  for (std::size_t i = 0; i < v.size(); ++i)
    if (v(i) != v(i)) return true;
  return false;
}

Vec cross(Vec const& a, Vec const& b) {
  if (a.size() != 3 || b.size() != 3) ZARN_THROW(std::invalid_argument(NOT_THREE_DIMENSIONAL));
  Vec r(3);
  r(0) = a(1) * b(2) - a(2) * b(1);
  r(1) = a(2) * b(0) - a(0) * b(2);
  r(2) = a(0) * b(1) - a(1) * b(0);
  return r;
}

Vec cross(double const (&a)[3], Vec const& b) {
  if (b.size() != 3) ZARN_THROW(std::invalid_argument(NOT_THREE_DIMENSIONAL));
  Vec r(3);
  r(0) = a[1] * b(2) - a[2] * b(1);
  r(1) = a[2] * b(0) - a[0] * b(2);
  r(2) = a[0] * b(1) - a[1] * b(0);
  return r;
}

Vec matrixToVector(Mat const& m, bool byColumns) {
  std::size_t const rows = m.size1();
  std::size_t const cols = m.size2();
  Vec v(rows * cols);
  std::size_t k = 0;
  if (byColumns) {
    for (std::size_t j = 0; j < cols; ++j)
      for (std::size_t i = 0; i < rows; ++i) v(k++) = m(i, j);
  } else {
    for (std::size_t i = 0; i < rows; ++i)
      for (std::size_t j = 0; j < cols; ++j) v(k++) = m(i, j);
  }
  return v;
}

Mat vectorToMatrix(Vec const& v, unsigned rows, unsigned cols, bool byColumns) {
  if (v.size() != static_cast<std::size_t>(rows) * cols)
    ZARN_THROW(std::invalid_argument(MATRIX_AND_VECTOR_DIMENSIONS_MISMATCH));
  Mat m(rows, cols);
  std::size_t k = 0;
  if (byColumns) {
    for (unsigned j = 0; j < cols; ++j)
      for (unsigned i = 0; i < rows; ++i) m(i, j) = v(k++);
  } else {
    for (unsigned i = 0; i < rows; ++i)
      for (unsigned j = 0; j < cols; ++j) m(i, j) = v(k++);
  }
  return m;
}

Vec sum(Mat const& m) {
  Vec s(m.size2());
  for (std::size_t j = 0; j < m.size2(); ++j) {
    double acc = 0.0;
    for (std::size_t i = 0; i < m.size1(); ++i) acc += m(i, j);
    s(j) = acc;
  }
  return s;
}

double determinant(Mat const& a) {
  if (a.size1() != a.size2()) ZARN_THROW(std::invalid_argument(RECTANGULAR_MATRIX));
  std::size_t const n = a.size1();
  if (n == 0) return 1.0;
  if (n == 1) return a(0, 0);
  if (n == 2) return a(0, 0) * a(1, 1) - a(0, 1) * a(1, 0);
  Mat lu(a);
  std::vector<std::size_t> perm;
  if (!luFactor(lu, perm)) return 0.0;
  double d = 1.0;
  for (std::size_t i = 0; i < n; ++i) {
    if (perm[i] != i) d = -d;
    d *= lu(i, i);
  }
  return d;
}

Mat solve(Mat const& a, Mat const& b) {
  if (a.size1() != a.size2()) ZARN_THROW(std::invalid_argument(RECTANGULAR_MATRIX));
  if (a.size1() != b.size1()) ZARN_THROW(std::invalid_argument(DIMENSIONS_DO_NOT_AGREE));
  std::size_t const n = a.size1();
  if (n == 0) return Mat(0, 0);
  if (n == 1) {
    if (a(0, 0) == 0.0) ZARN_THROW(std::invalid_argument(SINGULAR_MATRIX));
    return b / a(0, 0);
  }
  Mat x(b);
  Mat lu(a);
  std::vector<std::size_t> perm;
  if (!luFactor(lu, perm)) ZARN_THROW(std::invalid_argument(SINGULAR_MATRIX));
  luSubstitute(lu, perm, x);
  return x;
}

int solve(Mat const& a, Mat const& b, Mat& x) {
  x = solve(a, b);
  return 0;
}

Vec mldivide(Mat const& a, Vec const& b) {
  Mat bm(b.size(), 1);
  for (std::size_t i = 0; i < b.size(); ++i) bm(i, 0) = b(i);
  Mat const x = solve(a, bm);
  return boost::numeric::ublas::column(x, 0);
}

int mldivide(Mat const& a, Vec const& b, Vec& x) {
  Mat bm(b.size(), 1);
  for (std::size_t i = 0; i < b.size(); ++i) bm(i, 0) = b(i);
  Mat xm;
  int const code = solve(a, bm, xm);
  if (code == 0) x = boost::numeric::ublas::column(xm, 0);
  return code;
}

int mrdivide(Mat const& a, Mat const& b, Mat& x) {
  Mat xt;
  int const code = solve(boost::numeric::ublas::trans(b), boost::numeric::ublas::trans(a), xt);
  if (code == 0) x = boost::numeric::ublas::trans(xt);
  return code;
}

Mat inverse(Mat const& a) {
  if (a.size1() != a.size2()) ZARN_THROW(std::invalid_argument(RECTANGULAR_MATRIX));
  std::size_t const n = a.size1();
  if (n == 0) return Mat(0, 0);
  if (n == 1) {
    if (a(0, 0) == 0.0) ZARN_THROW(std::invalid_argument(SINGULAR_MATRIX));
    Mat r(1, 1);
    r(0, 0) = 1.0 / a(0, 0);
    return r;
  }
  if (n == 2) {
    double const det = a(0, 0) * a(1, 1) - a(0, 1) * a(1, 0);
    if (det == 0.0) ZARN_THROW(std::invalid_argument(SINGULAR_MATRIX));
    Mat r(2, 2);
    r(0, 0) = a(1, 1) / det;
    r(0, 1) = -a(0, 1) / det;
    r(1, 0) = -a(1, 0) / det;
    r(1, 1) = a(0, 0) / det;
    return r;
  }
  Mat x = boost::numeric::ublas::identity_matrix<double>(n);
  Mat lu(a);
  std::vector<std::size_t> perm;
  if (!luFactor(lu, perm)) ZARN_THROW(std::invalid_argument(SINGULAR_MATRIX));
  luSubstitute(lu, perm, x);
  return x;
}

Mat cholesky(Mat const& a) {
  if (a.size1() != a.size2()) ZARN_THROW(std::invalid_argument(RECTANGULAR_MATRIX));
  std::size_t const n = a.size1();
  if (n == 0) return Mat(0, 0);
  if (n == 1) {
    if (a(0, 0) <= 0.0) ZARN_THROW(std::invalid_argument(NOT_POSITIVE_DEFINITE));
    Mat r(1, 1);
    r(0, 0) = std::sqrt(a(0, 0));
    return r;
  }
  Mat l = boost::numeric::ublas::zero_matrix<double>(n, n);
  for (std::size_t j = 0; j < n; ++j) {
    double d = a(j, j);
    for (std::size_t k = 0; k < j; ++k) d -= l(j, k) * l(j, k);
    if (d <= 0.0) ZARN_THROW(std::invalid_argument(NOT_POSITIVE_DEFINITE));
    l(j, j) = std::sqrt(d);
    for (std::size_t i = j + 1; i < n; ++i) {
      double s = a(i, j);
      for (std::size_t k = 0; k < j; ++k) s -= l(i, k) * l(j, k);
      l(i, j) = s / l(j, j);
    }
  }
  return l;
}

}  // namespace support
}  // namespace zarn
