// The IAU 1980 nutation series (generated table in nutation_table.cpp).
#ifndef ZARN_SUPPORT_TABLES_NUTATION_TABLE_HPP
#define ZARN_SUPPORT_TABLES_NUTATION_TABLE_HPP

namespace zarn {
namespace support {
namespace tables {

constexpr int nutationTermCount = 106;
// No multiplier exceeds this in magnitude (checked by the generator).
constexpr int nutationMaxMultiplier = 4;

// One term: integer multipliers of the Delaunay arguments (l, l', F, D, Omega);
// longitude coefficient a + aT*T and obliquity coefficient b + bT*T, in 0.0001
// arcsec with T in Julian centuries.
struct NutationTerm {
  int multiplier[5];
  double a;
  double aT;
  double b;
  double bT;
};

extern NutationTerm const nutationTerms[nutationTermCount];

}  // namespace tables
}  // namespace support
}  // namespace zarn

#endif
