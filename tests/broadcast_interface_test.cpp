// The broadcast-interface header against the published field table of the
// shared reference data, and its integer conversions against hand-worked
// values and real broadcast records.
#include "zarn/support/broadcast_interface.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <sstream>
#include <string>

#include "support/broadcast_records.hpp"
#include "support/test_support.hpp"

namespace zb = zarn::support::broadcast;
namespace zc = zarn::core;

namespace {

double const icdPi = 3.1415926535898;  // IS-GPS-200 and BDS-SIS-ICD-B1I

struct Published {
  int bits;
  std::string sign;  // U, S or SM
  double lsb;        // in the header's unit
};

// "BLOCK FIELD" -> row of broadcast_scale_factors.txt. Semicircles become
// radians for GPS and BeiDou (the GLONASS almanac keeps them), ns and min
// become seconds.
std::map<std::string, Published> readPublished(std::string const& text) {
  std::map<std::string, Published> rows;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string block, name, sign, lsb, unit;
    int bits = 0;
    if (line.empty() || line[0] == '#' || !(fields >> block >> name >> bits >> sign >> lsb >> unit)) continue;
    if (lsb == "-") continue;  // bit fields without a scale
    double value = lsb.compare(0, 2, "2^") == 0 ? std::ldexp(1.0, std::stoi(lsb.substr(2))) : std::stod(lsb);
    if (unit.compare(0, 10, "semicircle") == 0 && block.compare(0, 3, "GLO") != 0) value *= icdPi;
    if (unit == "ns") value *= 1e-9;
    if (unit == "min") value *= 60.0;
    rows[block + " " + name] = Published{bits, sign, value};
  }
  return rows;
}

template <typename Record>
void expectSameWords(Record const& a, Record const& b) {
  for (unsigned i = 0; i < zb::kKeplerSize; ++i)
    EXPECT_EQ(zarn::test::words(a).w[i], zarn::test::words(b).w[i]) << "word " << i;
}

}  // namespace

TEST(BroadcastFields, AgreeWithThePublishedTable) {
  ZARN_SHARED_FILE_OR_SKIP(path, "reference/broadcast_scale_factors.txt");
  std::map<std::string, Published> const published = readPublished(zarn::test::readFile(path));
  struct Row {
    char const* key;
    zb::Field field;
  };
  Row const rows[] = {
      {"GPS_EPH toe", zb::kGpsToe},
      {"GPS_EPH sqrtA", zb::kGpsSqrtA},
      {"GPS_EPH e", zb::kGpsEccentricity},
      {"GPS_EPH i0", zb::kGpsAngle},
      {"GPS_EPH Omega0", zb::kGpsAngle},
      {"GPS_EPH omega", zb::kGpsAngle},
      {"GPS_EPH M0", zb::kGpsAngle},
      {"GPS_EPH deltaN", zb::kGpsDeltaN},
      {"GPS_EPH IDOT", zb::kGpsIDot},
      {"GPS_EPH OmegaDot", zb::kGpsOmegaDot},
      {"GPS_EPH Cuc", zb::kGpsHarmonicAngle},
      {"GPS_EPH Cis", zb::kGpsHarmonicAngle},
      {"GPS_EPH Crs", zb::kGpsHarmonicRadius},
      {"GPS_CLK toc", zb::kGpsToc},
      {"GPS_CLK af0", zb::kGpsAf0},
      {"GPS_CLK af1", zb::kGpsAf1},
      {"GPS_CLK af2", zb::kGpsAf2},
      {"GPS_CLK TGD", zb::kGpsTgd},
      {"GPS_ALM toa", zb::kGpsAlmanacToa},
      {"GPS_ALM sqrtA", zb::kGpsAlmanacSqrtA},
      {"GPS_ALM e", zb::kGpsAlmanacEccentricity},
      {"GPS_ALM Omega0", zb::kGpsAlmanacAngle},
      {"GPS_ALM M0", zb::kGpsAlmanacAngle},
      {"GPS_ALM deltaI", zb::kGpsAlmanacDeltaI},
      {"GPS_ALM OmegaDot", zb::kGpsAlmanacOmegaDot},
      {"GPS_ALM af0", zb::kGpsAlmanacAf0},
      {"GPS_ALM af1", zb::kGpsAlmanacAf1},
      {"BDS_EPH toe", zb::kBeidouToe},
      {"BDS_EPH sqrtA", zb::kBeidouSqrtA},
      {"BDS_EPH e", zb::kBeidouEccentricity},
      {"BDS_EPH i0", zb::kBeidouAngle},
      {"BDS_EPH omega", zb::kBeidouAngle},
      {"BDS_EPH deltaN", zb::kBeidouDeltaN},
      {"BDS_EPH IDOT", zb::kBeidouIDot},
      {"BDS_EPH OmegaDot", zb::kBeidouOmegaDot},
      {"BDS_EPH Cus", zb::kBeidouHarmonicAngle},
      {"BDS_EPH Crc", zb::kBeidouHarmonicRadius},
      {"BDS_EPH toc", zb::kBeidouToc},
      {"BDS_EPH a0", zb::kBeidouA0},
      {"BDS_EPH a1", zb::kBeidouA1},
      {"BDS_EPH a2", zb::kBeidouA2},
      {"BDS_EPH TGD1", zb::kBeidouTgd},
      {"BDS_ALM toa", zb::kBeidouAlmanacToa},
      {"BDS_ALM sqrtA", zb::kBeidouAlmanacSqrtA},
      {"BDS_ALM e", zb::kBeidouAlmanacEccentricity},
      {"BDS_ALM omega", zb::kBeidouAlmanacAngle},
      {"BDS_ALM deltaI", zb::kBeidouAlmanacDeltaI},
      {"BDS_ALM OmegaDot", zb::kBeidouAlmanacOmegaDot},
      {"BDS_ALM a0", zb::kBeidouAlmanacA0},
      {"BDS_ALM a1", zb::kBeidouAlmanacA1},
      {"GLO_EPH x,y,z", zb::kGlonassPosition},
      {"GLO_EPH vx,vy,vz", zb::kGlonassVelocity},
      {"GLO_EPH ax,ay,az", zb::kGlonassAcceleration},
      {"GLO_EPH tau_n", zb::kGlonassTau},
      {"GLO_EPH gamma_n", zb::kGlonassGamma},
      {"GLO_EPH delta_tau_n", zb::kGlonassDeltaTau},
      {"GLO_EPH t_b", zb::kGlonassTb},
      {"GLO_EPH E_n", zb::kGlonassAge},
      {"GLO_EPH F_T", zb::kGlonassAccuracyIndex},
      {"GLO_ALM tau_c", zb::kGlonassTauC},
      {"GLO_ALM tau_GPS", zb::kGlonassTauGps},
      {"GLO_ALM lambda_A", zb::kGlonassAlmanacLambda},
      {"GLO_ALM t_lambda_A", zb::kGlonassAlmanacTLambda},
      {"GLO_ALM delta_i_A", zb::kGlonassAlmanacDeltaI},
      {"GLO_ALM delta_T_A", zb::kGlonassAlmanacDeltaT},
      {"GLO_ALM delta_T_dot_A", zb::kGlonassAlmanacDeltaTDot},
      {"GLO_ALM epsilon_A", zb::kGlonassAlmanacEccentricity},
      {"GLO_ALM omega_A", zb::kGlonassAlmanacOmega},
      {"GLO_ALM tau_A", zb::kGlonassAlmanacTau},
  };
  for (Row const& row : rows) {
    auto const p = published.find(row.key);
    ASSERT_NE(p, published.end()) << row.key;
    EXPECT_EQ(row.field.bits, p->second.bits) << row.key;
    EXPECT_EQ(row.field.isSigned, p->second.sign != "U") << row.key;
    EXPECT_DOUBLE_EQ(row.field.lsb, p->second.lsb) << row.key;
  }
}

TEST(BroadcastFields, EncodeRoundsHalvesAwayAndSaturates) {
  double const nan = std::numeric_limits<double>::quiet_NaN();
  std::int64_t const lowest = std::numeric_limits<std::int64_t>::min();
  std::int64_t const highest = std::numeric_limits<std::int64_t>::max();
  struct Case {
    double value, lsb;
    std::int64_t count;
  } const cases[] = {{2.5, 1.0, 3},         {-2.5, 1.0, -3},         {2.4999, 1.0, 2},
                     {-0.5, 1.0, -1},       {3.0 / 64, 1.0 / 32, 2}, {nan, 1.0, lowest},
                     {1e300, 1.0, highest}, {-1e300, 1.0, lowest}};
  for (Case const& c : cases) EXPECT_EQ(zb::encode(c.value, c.lsb), c.count) << c.value;

  // Inclusive two's-complement and unsigned ranges.
  struct Range {
    zb::Field field;
    std::int64_t lowest, highest;
  } const ranges[] = {{zb::kGpsIDot, -8192, 8191},
                      {zb::kBeidouHarmonicAngle, -131072, 131071},
                      {zb::kGpsSqrtA, 0, 4294967295},
                      {zb::kGlonassAcceleration, -16, 15}};
  for (Range const& r : ranges) {
    EXPECT_TRUE(zb::fits(r.lowest, r.field) && zb::fits(r.highest, r.field)) << r.field.bits;
    EXPECT_FALSE(zb::fits(r.lowest - 1, r.field) || zb::fits(r.highest + 1, r.field)) << r.field.bits;
  }
}

// Real records decode to the published values and encode back to the same words.
TEST(BroadcastRecords, OrbitWordsSurviveDecodeAndEncode) {
  zc::GpsEphemeris const g = zarn::test::gpsG02();
  zb::KeplerElements const k = zb::decodeOrbit(g);
  EXPECT_EQ(k[0], 2701983690.0 / 524288.0);        // sqrtA, m^1/2
  EXPECT_EQ(k[7], 688 * icdPi / 8796093022208.0);  // iDot, rad/s
  EXPECT_EQ(k[12], -60 / 32.0);                    // crs, m
  zc::GpsEphemeris gBack;
  zb::encodeOrbit(k, gBack);
  expectSameWords(gBack, g);
  for (zc::BeidouEphemeris const& b :
       {zarn::test::beidouC14(), zarn::test::beidouC08(), zarn::test::beidouC02()}) {
    zb::KeplerElements const kb = zb::decodeOrbit(b);
    EXPECT_EQ(kb[9], b.cuc / 2147483648.0);  // 2^-31 rad
    zc::BeidouEphemeris back;
    zb::encodeOrbit(kb, back);
    expectSameWords(back, b);
  }
}

TEST(BroadcastRecords, ClockTermsAtTheFieldLimits) {
  zc::GpsEphemeris g;
  zb::ClockTerms const top{2097151 * std::ldexp(1.0, -31), -32768 * std::ldexp(1.0, -43),
                           127 * std::ldexp(1.0, -55)};
  ASSERT_TRUE(zb::encodeClock(top, g));
  EXPECT_EQ(g.af0, 2097151);
  EXPECT_EQ(g.af1, -32768);
  EXPECT_EQ(g.af2, 127);
  zb::ClockTerms const back = zb::decodeClock(g);
  EXPECT_EQ(back.a0, top.a0);
  EXPECT_EQ(back.a1, top.a1);
  EXPECT_EQ(back.a2, top.a2);
  // One count beyond a0's 22 bits: refused, the record keeps its words.
  zb::ClockTerms over = top;
  over.a0 = 2097152 * std::ldexp(1.0, -31);
  EXPECT_FALSE(zb::encodeClock(over, g));
  EXPECT_EQ(g.af0, 2097151);

  zc::BeidouEphemeris b;
  zb::ClockTerms const bds{-8388608 * std::ldexp(1.0, -33), 2097151 * std::ldexp(1.0, -50),
                           -1024 * std::ldexp(1.0, -66)};
  ASSERT_TRUE(zb::encodeClock(bds, b));
  EXPECT_EQ(b.a0, -8388608);
  EXPECT_EQ(b.a1, 2097151);
  EXPECT_EQ(b.a2, -1024);
  over = bds;
  over.a2 = 1024 * std::ldexp(1.0, -66);  // a2 has 11 bits
  EXPECT_FALSE(zb::encodeClock(over, b));
}
