#include "seed_data.hpp"

#include <cstdio>

#include "zarn/host/rinex_nav.hpp"

namespace zarn {
namespace fuzz {
namespace {

constexpr std::size_t kRecordsPerSystem = 3;

host::NavData const& sample() {
  // One hour of every constellation.
  static host::NavData const data = host::readRinexNav(
      std::string(ZARN_SHARED_DIR) + "/data/2023-008_instinct/BRDM00DLR_S_20230081000_01D_MN.rnx");
  return data;
}

template <class Record, class Eph>
std::vector<Eph> firstOf(std::vector<Record> const& records) {
  std::vector<Eph> out;
  for (std::size_t i = 0; i < records.size() && out.size() < kRecordsPerSystem; ++i)
    out.push_back(records[i].eph);
  return out;
}

}  // namespace

std::vector<core::GpsEphemeris> realGps() {
  return firstOf<host::GpsNavRecord, core::GpsEphemeris>(sample().gps);
}
std::vector<core::BeidouEphemeris> realBeidou() {
  return firstOf<host::BeidouNavRecord, core::BeidouEphemeris>(sample().beidou);
}
std::vector<core::GlonassEphemeris> realGlonass() {
  return firstOf<host::GlonassNavRecord, core::GlonassEphemeris>(sample().glonass);
}

}  // namespace fuzz
}  // namespace zarn
