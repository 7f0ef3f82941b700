// A small tour of the library for host integrators: today's date on the three
// broadcast time scales, and one satellite's assistance data through the
// protected container form (serialize, CRC-32, encipher, decipher, check).
#include <cstdio>
#include <ctime>

#include "zarn/support/assistance_data.hpp"
#include "zarn/support/encryption.hpp"
#include "zarn/support/serialization.hpp"
#include "zarn/support/time_conversion.hpp"
#include "zarn/support/utility.hpp"

namespace zs = zarn::support;
namespace zc = zarn::core;

namespace {

constexpr double kUnixToGpsEpochSeconds = 315964800.0;  // 1970-01-01 to 1980-01-06

void showTime(double gpsSeconds, std::vector<zs::LeapInfo> const& leaps) {
  zc::Toc const gps = zs::gpsSecsToGps(gpsSeconds);
  zc::Toc const bds = zs::secsToBeidou(zs::gpsSecsToBeidouSecs(gpsSeconds));
  zc::Toc const glo = zs::gpsToGlonass(gps, leaps);
  zs::Mjd const mjd = zs::gpsSecsToMJD(gpsSeconds);
  std::printf("GPS seconds       %.0f (GPS-UTC %d s)\n", gpsSeconds,
              zs::leapSeconds(gpsSeconds, true, leaps));
  std::printf("GPS Toc           cycle %u, week %u, %u s of week (full week %u)\n", gps.first, gps.second,
              gps.third, gps.first * 1024 + gps.second);
  std::printf("BeiDou Toc        week %u, %u s of week\n", bds.second, bds.third);
  std::printf("GLONASS Toc       period %u, day %u, %u s of day (Moscow)\n", glo.first, glo.second,
              glo.third);
  std::printf("MJD               %u + %.6f\n", mjd.day, mjd.fraction);
}

}  // namespace

int main() {
  // The leap second of 2016-12-31 is later than the built-in table: hosts pass it in.
  std::vector<zs::LeapInfo> leaps;
  constexpr double kEndOf2016 = 1167263999.0;  // 2016-12-31 23:59:59, GPS seconds without leap seconds
  if (!zs::updateLeapSeconds(zs::gpsSecsToGps(kEndOf2016), 18, leaps)) return 1;

  double const utcNow = static_cast<double>(std::time(nullptr)) - kUnixToGpsEpochSeconds;
  double const gpsNow = utcNow + zs::leapSeconds(utcNow, false, leaps);
  std::printf("== Today on the broadcast time scales\n");
  showTime(gpsNow, leaps);

  std::printf("\n== Assistance data through the protected container\n");
  zs::AssistanceData data = zs::makeZeroAssistanceData();
  data.gnssType = zc::GPS;
  data.svId = 1;
  data.maxPredictionLength = 14 * 24;
  data.srp = {{1.55667, 0.0384716}};
  data.antPhase = {{0.301460335686, -0.006090886982, 1.092374686083}};
  data.outages.push_back({zs::gpsSecsToGps(gpsNow), zs::gpsSecsToGps(gpsNow + 3600.0), "maintenance"});

  zs::BinaryData plain;
  unsigned int count = 0;
  zs::serialize(data, plain, count);
  std::uint32_t const crc = zs::computeCrc32(plain.data(), plain.data() + plain.size());
  zs::appendUint32(plain, crc);
  while (plain.size() % 8 != 0) plain.push_back(0);  // the cipher works on whole blocks

  zs::BinaryData sealed, opened;
  if (!zs::encrypt(plain, sealed) || !zs::decrypt(sealed, opened)) return 1;
  zs::AssistanceData back;
  unsigned int index = 0;
  bool const decoded = zs::deserialize(opened, index, back);
  int position = static_cast<int>(index);
  std::uint32_t const crcBack = zs::getUint32(opened, position);
  bool const intact =
      decoded && crcBack == zs::computeCrc32(opened.data(), opened.data() + index) && back == data;
  std::printf("record            %s svId %u, %zu outage(s)\n", zs::toString(data.gnssType).c_str(), data.svId,
              data.outages.size());
  std::printf("container         %u bytes of record, CRC-32 %08X, %zu bytes enciphered\n", count, crc,
              sealed.size());
  std::printf("round trip        %s\n", intact ? "identical" : "DIFFERENT");
  return intact ? 0 : 1;
}
