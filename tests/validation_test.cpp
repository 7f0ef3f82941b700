// Broadcast-field range checks and coordinate plausibility checks.
#include "zarn/support/validation.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <tuple>

#include "support/test_support.hpp"
#include "support/vectors.hpp"
#include "zarn/support/time_conversion.hpp"

namespace zs = zarn::support;
using zs::Vec;

namespace {

double const pi = 3.1415926535898;  // IS-GPS-200 / BDS-SIS-ICD-B1I semicircle conversion
double const p2m19 = std::ldexp(1.0, -19), p2m29 = std::ldexp(1.0, -29), p2m31 = std::ldexp(1.0, -31);
double const p2m33 = std::ldexp(1.0, -33), p2m43 = std::ldexp(1.0, -43);

// A realistic GPS element set (PRN 1, 2016-09-07 from brdc2510.16n) with toe
// 259200 s of week 1913, with element i set to x unless i is 17.
Vec gpsVector(unsigned i = 17, double x = 0.0) {
  double const v[17] = {5153.69, 0.00636, 0.9616, -2.7519, 0.6929, -1.9536, 4.47e-9,  2.2e-10, -8.05e-9,
                        -1.2e-6, 7.9e-6,  242.4,  -22.5,   1.1e-7, -5.2e-8, 259200.0, 1913.0};
  Vec k(17);
  for (unsigned j = 0; j < 17; ++j) k(j) = j == i ? x : v[j];
  return k;
}

using zarn::test::vec3;

struct Log {
  Log() { testing::internal::CaptureStderr(); }
  std::string text() { return testing::internal::GetCapturedStderr(); }
};

}  // namespace

TEST(ValidKeplerian, GpsFieldWidthsAtTheirLimits) {
  EXPECT_TRUE(zs::validGpsEphemeris(gpsVector()));
  std::tuple<unsigned, double, double> const cases[] = {
      {0, p2m19, 4294967295.0}, {1, p2m33, 4294967295.0}, {2, pi * p2m31, 2147483647.0},
      {6, pi * p2m43, 32767.0}, {7, pi * p2m43, 8191.0},  {8, pi * p2m43, 8388607.0},
      {11, 1.0 / 32, 32767.0},  {14, p2m29, 32767.0}};
  for (auto const& [index, lsb, lastGood] : cases) {
    EXPECT_TRUE(zs::validGpsEphemeris(gpsVector(index, lastGood * lsb))) << index;
    Log log;
    EXPECT_FALSE(zs::validGpsEphemeris(gpsVector(index, (lastGood + 1.0) * lsb))) << index;
    EXPECT_NE(log.text().find("scaled=" + std::to_string(static_cast<long long>(lastGood) + 1)),
              std::string::npos);
  }
  // Rounding is half away from zero (crc has an exact power-of-two LSB).
  EXPECT_TRUE(zs::validGpsEphemeris(gpsVector(11, -32768.49 / 32)));
  Log log;
  EXPECT_FALSE(zs::validGpsEphemeris(gpsVector(11, 32767.5 / 32)) ||
               zs::validGpsEphemeris(gpsVector(11, -32768.5 / 32)));
  EXPECT_EQ(
      log.text(),
      "ERROR/Validation: validGpsEphemeris: keplerian element out of range: crc=1.023984375000000e+03, "
      "scaled=32768\n"
      "ERROR/Validation: validGpsEphemeris: keplerian element out of range: crc=-1.024015625000000e+03, "
      "scaled=-32769\n");
}

TEST(ValidKeplerian, BeidouHarmonicsAre18Bit) {
  Vec k = gpsVector();
  k(15) = 259214.0;  // 259200 s of BeiDou time
  k(12) = 131071.0 / 64;
  k(9) = -131072.0 * p2m31;
  EXPECT_TRUE(zs::validBeidouEphemeris(k));
  k(15) = 259200.0;
  EXPECT_FALSE(zs::validGpsEphemeris(k));
  k(15) = 259214.0;
  k(12) = 131072.0 / 64;
  EXPECT_FALSE(zs::validBeidouEphemeris(k));
}

// BeiDou: the GPS-scale toe is moved 14 s back to BDT, which must be a multiple of 8 s.
TEST(ValidKeplerian, ReferenceTimeChecks) {
  // Expected log; empty: valid.
  std::tuple<bool, double, char const*> const cases[] = {
      {false, 604784.0, ""},
      {false, 604800.0, "ERROR/Validation: validGpsEphemeris: invalid keplerian element toe=604800\n"},
      {false, 8.0, "ERROR/Validation: validGpsEphemeris: invalid toe 8 (not multiple of 16)\n"},
      {true, 259214.0, ""},
      {true, 259200.0, "ERROR/Validation: validBeidouEphemeris: invalid toe 259186 (not multiple of 8)\n"},
      {true, 8.0, nullptr}};  // 604794 s of the previous BeiDou week: inside the week, not a multiple of 8
  for (auto const& [beidou, toe, expected] : cases) {
    Vec const k = gpsVector(15, toe);
    Log log;
    EXPECT_EQ(beidou ? zs::validBeidouEphemeris(k) : zs::validGpsEphemeris(k),
              expected != nullptr && !*expected);
    std::string const text = log.text();
    EXPECT_TRUE(expected == nullptr || text == expected) << toe << ": " << text;
  }
}

TEST(ValidKeplerian, EveryFailureLoggedInIndexOrderAndSizeChecked) {
  Vec k = gpsVector();
  k(1) = -1e-9;  // negative eccentricity
  k(13) = 1e-3;  // cic
  k(15) = 7.0;
  Log log;
  EXPECT_FALSE(zs::validGpsEphemeris(k));
  std::string const text = log.text();
  std::size_t const e = text.find("eccentricity="), cic = text.find("cic="), toe = text.find("invalid toe 7");
  EXPECT_TRUE(e < cic && cic < toe && toe != std::string::npos) << text;

  Vec sixteen(16, 1.0);
  Log sizeLog;
  EXPECT_FALSE(zs::validGpsEphemeris(sixteen) || zs::validBeidouEphemeris(sixteen));
  EXPECT_EQ(sizeLog.text(),
            "ERROR/Validation: validGpsEphemeris: invalid number of keplerian elements: "
            "[16](1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1)\n"
            "ERROR/Validation: validBeidouEphemeris: invalid number of keplerian elements: "
            "[16](1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1)\n");
}

TEST(ValidGlonass, FieldWidthsInIcdUnits) {
  double const p2m30 = std::ldexp(1.0, -30), p2m40 = std::ldexp(1.0, -40);
  EXPECT_TRUE(zs::validGlonassEphemeris(2097151 * p2m30, -1024 * p2m40, 15 * p2m30));
  {
    Log log;
    EXPECT_FALSE(zs::validGlonassEphemeris(2097152 * p2m30, 1024 * p2m40, -17 * p2m30));
    std::string const text = log.text();
    EXPECT_LT(text.find("out of range: tau="), text.find("out of range: gamma="));
    EXPECT_NE(text.find("deltaTau=-1.583248376846313e-08, scaled=-17"), std::string::npos);
  }
  // Position km (2^-11), velocity km/s (2^-20), acceleration km/s^2 (2^-30).
  Vec const r = vec3(-67108864.0 / 2048, 67108863.0 / 2048, 12000.0);
  Vec const v = vec3(8388607.0 / 1048576, -3.1, 0.5);
  Vec const a = vec3(-16 * p2m30, 15 * p2m30, 0.0);
  EXPECT_TRUE(zs::validGlonassEphemeris(r, v, a));
  Log log;
  EXPECT_FALSE(
      zs::validGlonassEphemeris(vec3(r(0), 67108864.0 / 2048, r(2)), v, vec3(a(0), a(1), 16 * p2m30)) ||
      zs::validGlonassEphemeris(r, v, Vec(2)));
  std::string const text = log.text();
  EXPECT_LT(text.find("out of range: y=3.276800000000000e+04, scaled=67108864"),
            text.find("out of range: zAcc="));
  EXPECT_NE(
      text.find("validGlonassEphemeris: invalid number of elements: rSat size 3, vSat size 3, aSat size 2"),
      std::string::npos);
}

TEST(ValidCoordinates, RadiusBoundsInclusiveOrOpen) {
  Vec const v = vec3(0.0, 3874.0, 0.0);
  EXPECT_TRUE(zs::validGpsSatCoordinates(vec3(21000000.0, 0, 0), v, false) &&
              zs::validGpsSatCoordinates(vec3(0, 0, 31000000.0), v, false) &&
              !zs::validGpsSatCoordinates(vec3(20999999.99, 0, 0), v, false));
  Vec const vMeo = vec3(0.0, 3750.0, 0.0);
  EXPECT_TRUE(zs::validBeidouSatCoordinates(vec3(32999999.9, 0, 0), vMeo, zs::MEO, false));
  Log log;
  EXPECT_FALSE(zs::validBeidouSatCoordinates(vec3(33000000.0, 0, 0), vMeo, zs::MEO, false) ||
               zs::validBeidouSatCoordinates(vec3(23000000.0, 0, 0), vMeo, zs::MEO, false));
  EXPECT_FALSE(zs::validBeidouSatCoordinates(vec3(42164000.0, 0, 0), vec3(0, 3075, 0),
                                             static_cast<zs::BeidouSvType>(0), false));
  EXPECT_EQ(log.text(),
            "ERROR/Validation: validBeidouSatCoordinates: invalid satellite position: rSat=[3](33000000,0,0) "
            "==> r=3.3e+07, beidouSvType 3\n"
            "ERROR/Validation: validBeidouSatCoordinates: invalid satellite position: rSat=[3](23000000,0,0) "
            "==> r=2.3e+07, beidouSvType 3\n"
            "ERROR/Validation: validBeidouSatCoordinates: invalid satellite position: rSat=[3](42164000,0,0) "
            "==> r=4.2164e+07, beidouSvType 0\n");
}

TEST(ValidCoordinates, SpeedBoundsAndEarthRotation) {
  Vec const r = vec3(25500000.0, 0, 0);
  EXPECT_TRUE(zs::validGlonassSatCoordinates(r, vec3(0, 3800.0, 0), false) &&
              zs::validGlonassSatCoordinates(r, vec3(0, 0, 4100.0), false) &&
              !zs::validGlonassSatCoordinates(r, vec3(0, 0, 4100.001), false) &&
              zs::validGpsSatCoordinates(r, vec3(0, 3700.0, 0), false));
  // A GEO velocity that is Earth-fixed (near zero) is only plausible once w x r is added.
  Vec const rGeo = vec3(42164000.0, 0, 0), vGeo = vec3(0.5, -0.2, 0.1);
  Log log;
  EXPECT_TRUE(!zs::validBeidouSatCoordinates(rGeo, vGeo, zs::GEO, false) &&
              zs::validBeidouSatCoordinates(rGeo, vGeo, zs::GEO, true) &&
              zs::validBeidouSatCoordinates(rGeo, vGeo, zs::IGSO, true) &&
              !zs::validGpsSatCoordinates(r, vec3(0, 3700.0, 0), true));
  EXPECT_EQ(log.text(),
            "ERROR/Validation: validBeidouSatCoordinates: invalid satellite velocity: vSat=[3](0.5,-0.2,0.1) "
            "==> v=0.547723, beidouSvType=1, ecef=0\n"
            "ERROR/Validation: validGpsSatCoordinates: invalid satellite velocity: vSat=[3](0,3700,0) "
            "==> v=5559.49, ecef=1\n");
  // Not a number is rejected before any bound.
  Vec const nan = vec3(std::nan(""), 0, 0);
  Log nanLog;
  EXPECT_FALSE(zs::validGpsSatCoordinates(nan, nan, true) || zs::validGlonassSatCoordinates(r, nan, true));
  EXPECT_EQ(nanLog.text(),
            "ERROR/Validation: validGpsSatCoordinates: invalid satellite position: rSat=[3](nan,0,0)\n"
            "ERROR/Validation: validGlonassSatCoordinates: invalid satellite velocity: vSat=[3](nan,0,0)\n");
}
