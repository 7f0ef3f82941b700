// Gravity-field coefficient tables of the force model (generated source:
// tables/geopotential_table.cpp).
#ifndef ZARN_SUPPORT_TABLES_GEOPOTENTIAL_TABLE_HPP
#define ZARN_SUPPORT_TABLES_GEOPOTENTIAL_TABLE_HPP

namespace zarn {
namespace support {
namespace tables {

// Largest degree and order held.
constexpr int kGeopotentialDegree = 16;

// Unnormalised C_nm and S_nm, row n, column m, 0.0 above the diagonal.
extern double const kGeopotentialC[kGeopotentialDegree + 1][kGeopotentialDegree + 1];
extern double const kGeopotentialS[kGeopotentialDegree + 1][kGeopotentialDegree + 1];

}  // namespace tables
}  // namespace support
}  // namespace zarn

#endif
