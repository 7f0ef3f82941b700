// Built-in per-satellite model parameters used when a satellite has no stored
// assistance data (generated source: tables/assistance_default_table.cpp).
#ifndef ZARN_SUPPORT_TABLES_ASSISTANCE_DEFAULT_TABLE_HPP
#define ZARN_SUPPORT_TABLES_ASSISTANCE_DEFAULT_TABLE_HPP

#include <cstdint>

namespace zarn {
namespace support {
namespace tables {

struct DefaultAssistanceRow {
  std::uint16_t maxPredictionLength;  // hours
  double srp[2];                      // direct-pressure scale, Y-bias in 1e-9 m/s^2
  double antPhase[3];                 // phase-centre offset x, y, z in the body frame, m
  double errorParams[3];              // SISRE model p0 t^2 + p1 t + p2, t in s, m
};

constexpr int kGpsSatellites = 32;
constexpr int kGlonassSatellites = 24;
constexpr int kBeidouSatellites = 14;

// Rows by svId - 1.
extern DefaultAssistanceRow const kGpsDefaultAssistance[kGpsSatellites];
extern DefaultAssistanceRow const kGlonassDefaultAssistance[kGlonassSatellites];
extern DefaultAssistanceRow const kBeidouDefaultAssistance[kBeidouSatellites];
// Clock-model rows: c0..c3 (GPS, BeiDou); c0, c4, c5 (GLONASS).
extern double const kGpsDefaultClock[kGpsSatellites][4];
extern double const kGlonassDefaultClock[kGlonassSatellites][3];
extern double const kBeidouDefaultClock[kBeidouSatellites][4];

}  // namespace tables
}  // namespace support
}  // namespace zarn

#endif
