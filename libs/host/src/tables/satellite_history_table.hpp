// Which satellite flew each GPS, GLONASS and BeiDou PRN on a set of dates, with its
// model parameters (generated source: tables/satellite_history_table.cpp).
#ifndef ZARN_HOST_TABLES_SATELLITE_HISTORY_TABLE_HPP
#define ZARN_HOST_TABLES_SATELLITE_HISTORY_TABLE_HPP

#include <cstddef>

namespace zarn {
namespace host {
namespace tables {

struct SatelliteHistoryRow {
  int date;     // YYYYMMDD (12:00 UTC)
  char system;  // 'G', 'C'
  int prn;
  double srpScale;  // direct radiation-pressure scale of the force model
  double yBias;     // Y-bias acceleration, 1e-9 m/s^2
  double pco[3];    // antenna phase-centre offset, body frame x, y, z, m
};

// Rows in date order, then system and PRN as the reference lists them.
extern SatelliteHistoryRow const kSatelliteHistory[];
extern std::size_t const kSatelliteHistorySize;

}  // namespace tables
}  // namespace host
}  // namespace zarn

#endif
