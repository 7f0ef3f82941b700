// Coefficient tables of the eighth-order Gauss-Jackson integrator, generated
// into gauss_jackson_table.cpp by scripts/gen_gauss_jackson_table.py.
//
// Row index j + 4 for the point j = -4..4 of the nine-point window (start-up
// and corrector) and j = 5 (predictor of the next point); column index k + 4
// for the acceleration a_k, k = -4 (oldest) .. 4 (newest).
#ifndef ZARN_SUPPORT_TABLES_GAUSS_JACKSON_TABLE_HPP
#define ZARN_SUPPORT_TABLES_GAUSS_JACKSON_TABLE_HPP

#include <cstdint>

namespace zarn {
namespace support {
namespace tables {

// Summed-Adams (velocity) coefficients b_jk = numerator / 7257600.
constexpr std::int32_t summedAdamsDenominator = 7257600;
extern std::int32_t const summedAdamsNumerators[10][9];
extern double const summedAdams[10][9];

// Gauss-Jackson (position) coefficients a_jk = numerator / 159667200.
constexpr std::int32_t gaussJacksonDenominator = 159667200;
extern std::int32_t const gaussJacksonNumerators[10][9];
extern double const gaussJackson[10][9];

}  // namespace tables
}  // namespace support
}  // namespace zarn

#endif
