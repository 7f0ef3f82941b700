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
#include <tuple>

#include "support/broadcast_records.hpp"
#include "support/test_support.hpp"

namespace zb = zarn::support::broadcast;
namespace zc = zarn::core;

namespace {

double const icdPi = 3.1415926535898;  // IS-GPS-200 and BDS-SIS-ICD-B1I

// Bits, signed (S or SM rather than U), LSB in the header's unit.
using Published = std::tuple<int, bool, double>;

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
    // Comments, and bit fields without a scale, are skipped.
    if (line.empty() || line[0] == '#' || !(fields >> block >> name >> bits >> sign >> lsb >> unit) ||
        lsb == "-")
      continue;
    double value = lsb.compare(0, 2, "2^") == 0 ? std::ldexp(1.0, std::stoi(lsb.substr(2))) : std::stod(lsb);
    if (unit.compare(0, 10, "semicircle") == 0 && block.compare(0, 3, "GLO") != 0) value *= icdPi;
    value *= unit == "ns" ? 1e-9 : unit == "min" ? 60.0 : 1.0;
    rows[block + " " + name] = Published{bits, sign != "U", value};
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
  // clang-format off
  std::pair<char const*, zb::Field> const rows[] = {
      {"GPS_EPH toe", zb::kGpsToe}, {"GPS_EPH sqrtA", zb::kGpsSqrtA}, {"GPS_EPH e", zb::kGpsEccentricity},
      {"GPS_EPH i0", zb::kGpsAngle}, {"GPS_EPH deltaN", zb::kGpsDeltaN}, {"GPS_EPH IDOT", zb::kGpsIDot},
      {"GPS_EPH OmegaDot", zb::kGpsOmegaDot}, {"GPS_EPH Cuc", zb::kGpsHarmonicAngle},
      {"GPS_EPH Crs", zb::kGpsHarmonicRadius}, {"GPS_CLK toc", zb::kGpsToc}, {"GPS_CLK af0", zb::kGpsAf0},
      {"GPS_CLK af1", zb::kGpsAf1}, {"GPS_CLK af2", zb::kGpsAf2}, {"GPS_CLK TGD", zb::kGpsTgd},
      {"GPS_ALM toa", zb::kGpsAlmanacToa}, {"GPS_ALM sqrtA", zb::kGpsAlmanacSqrtA},
      {"GPS_ALM e", zb::kGpsAlmanacEccentricity}, {"GPS_ALM Omega0", zb::kGpsAlmanacAngle},
      {"GPS_ALM deltaI", zb::kGpsAlmanacDeltaI}, {"GPS_ALM OmegaDot", zb::kGpsAlmanacOmegaDot},
      {"GPS_ALM af0", zb::kGpsAlmanacAf0}, {"GPS_ALM af1", zb::kGpsAlmanacAf1},
      {"BDS_EPH toe", zb::kBeidouToe}, {"BDS_EPH sqrtA", zb::kBeidouSqrtA},
      {"BDS_EPH e", zb::kBeidouEccentricity}, {"BDS_EPH i0", zb::kBeidouAngle},
      {"BDS_EPH deltaN", zb::kBeidouDeltaN}, {"BDS_EPH IDOT", zb::kBeidouIDot},
      {"BDS_EPH OmegaDot", zb::kBeidouOmegaDot}, {"BDS_EPH Cus", zb::kBeidouHarmonicAngle},
      {"BDS_EPH Crc", zb::kBeidouHarmonicRadius}, {"BDS_EPH toc", zb::kBeidouToc},
      {"BDS_EPH a0", zb::kBeidouA0}, {"BDS_EPH a1", zb::kBeidouA1}, {"BDS_EPH a2", zb::kBeidouA2},
      {"BDS_EPH TGD1", zb::kBeidouTgd}, {"BDS_ALM toa", zb::kBeidouAlmanacToa},
      {"BDS_ALM sqrtA", zb::kBeidouAlmanacSqrtA}, {"BDS_ALM e", zb::kBeidouAlmanacEccentricity},
      {"BDS_ALM omega", zb::kBeidouAlmanacAngle}, {"BDS_ALM deltaI", zb::kBeidouAlmanacDeltaI},
      {"BDS_ALM OmegaDot", zb::kBeidouAlmanacOmegaDot}, {"BDS_ALM a0", zb::kBeidouAlmanacA0},
      {"BDS_ALM a1", zb::kBeidouAlmanacA1}, {"GLO_EPH x,y,z", zb::kGlonassPosition},
      {"GLO_EPH vx,vy,vz", zb::kGlonassVelocity}, {"GLO_EPH ax,ay,az", zb::kGlonassAcceleration},
      {"GLO_EPH tau_n", zb::kGlonassTau}, {"GLO_EPH gamma_n", zb::kGlonassGamma},
      {"GLO_EPH delta_tau_n", zb::kGlonassDeltaTau}, {"GLO_EPH t_b", zb::kGlonassTb},
      {"GLO_EPH E_n", zb::kGlonassAge}, {"GLO_EPH F_T", zb::kGlonassAccuracyIndex},
      {"GLO_ALM tau_c", zb::kGlonassTauC}, {"GLO_ALM tau_GPS", zb::kGlonassTauGps},
      {"GLO_ALM lambda_A", zb::kGlonassAlmanacLambda}, {"GLO_ALM t_lambda_A", zb::kGlonassAlmanacTLambda},
      {"GLO_ALM delta_i_A", zb::kGlonassAlmanacDeltaI}, {"GLO_ALM delta_T_A", zb::kGlonassAlmanacDeltaT},
      {"GLO_ALM delta_T_dot_A", zb::kGlonassAlmanacDeltaTDot},
      {"GLO_ALM epsilon_A", zb::kGlonassAlmanacEccentricity}, {"GLO_ALM omega_A", zb::kGlonassAlmanacOmega},
      {"GLO_ALM tau_A", zb::kGlonassAlmanacTau}};
  // clang-format on
  for (auto const& [key, field] : rows) {
    auto const p = published.find(key);
    ASSERT_NE(p, published.end()) << key;
    EXPECT_EQ(std::make_tuple(field.bits, field.isSigned),
              std::make_tuple(std::get<0>(p->second), std::get<1>(p->second)))
        << key;
    EXPECT_DOUBLE_EQ(field.lsb, std::get<2>(p->second)) << key;
  }
}

TEST(BroadcastFields, EncodeRoundsHalvesAwayAndSaturates) {
  using L = std::numeric_limits<std::int64_t>;
  std::tuple<double, double, std::int64_t> const cases[] = {
      {2.5, 1.0, 3},          {-2.5, 1.0, -3},         {2.4999, 1.0, 2},
      {-0.5, 1.0, -1},        {3.0 / 64, 1.0 / 32, 2}, {std::nan(""), 1.0, L::min()},
      {1e300, 1.0, L::max()}, {-1e300, 1.0, L::min()}};
  for (auto const& [value, lsb, count] : cases) EXPECT_EQ(zb::encode(value, lsb), count) << value;

  // Inclusive two's-complement and unsigned ranges.
  std::tuple<zb::Field, std::int64_t, std::int64_t> const ranges[] = {
      {zb::kGpsIDot, -8192, 8191}, {zb::kGpsSqrtA, 0, 4294967295}, {zb::kGlonassAcceleration, -16, 15}};
  for (auto const& [field, low, high] : ranges)
    EXPECT_TRUE(zb::fits(low, field) && zb::fits(high, field) && !zb::fits(low - 1, field) &&
                !zb::fits(high + 1, field))
        << field.bits;
}

// Real records decode to the published values and encode back to the same words.
TEST(BroadcastRecords, OrbitWordsSurviveDecodeAndEncode) {
  zc::GpsEphemeris const g = zarn::test::gpsG02();
  zb::KeplerElements const k = zb::decodeOrbit(g);
  // sqrtA in m^1/2, iDot in rad/s, crs in m.
  EXPECT_EQ(std::make_tuple(k[0], k[7], k[12]),
            std::make_tuple(2701983690.0 / 524288.0, 688 * icdPi / 8796093022208.0, -60 / 32.0));
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
  zb::ClockTerms const back = zb::decodeClock(g);
  EXPECT_EQ(std::make_tuple(g.af0, g.af1, g.af2, back.a0, back.a1, back.a2),
            std::make_tuple(2097151, -32768, 127, top.a0, top.a1, top.a2));
  // One count beyond a0's 22 bits: refused, the record keeps its words.
  zb::ClockTerms over{2097152 * std::ldexp(1.0, -31), top.a1, top.a2};
  EXPECT_TRUE(!zb::encodeClock(over, g) && g.af0 == 2097151);

  zc::BeidouEphemeris b;
  zb::ClockTerms const bds{-8388608 * std::ldexp(1.0, -33), 2097151 * std::ldexp(1.0, -50),
                           -1024 * std::ldexp(1.0, -66)};
  ASSERT_TRUE(zb::encodeClock(bds, b));
  EXPECT_EQ(std::make_tuple(b.a0, b.a1, b.a2), std::make_tuple(-8388608, 2097151, -1024));
  over = {bds.a0, bds.a1, 1024 * std::ldexp(1.0, -66)};  // a2 has 11 bits
  EXPECT_FALSE(zb::encodeClock(over, b));
}
