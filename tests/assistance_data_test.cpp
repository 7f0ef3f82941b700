#include "zarn/support/assistance_data.hpp"

#include <gtest/gtest.h>

#include <array>
#include <boost/numeric/ublas/io.hpp>
#include <cmath>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "support/erfa_bodies.hpp"
#include "support/test_support.hpp"
#include "support/vectors.hpp"
#include "zarn/support/utility.hpp"

namespace zarn {
namespace support {
namespace {

using core::BEIDOU;
using core::GALILEO;
using core::GLONASS;
using core::GnssType;
using core::GPS;

using test::vec3;

// ---------------------------------------------------------------------------
// Default tables

TEST(DefaultAssistance, InvalidNumbersAndOtherSystemsGiveTheZeroRecord) {
  AssistanceData const zero = makeZeroAssistanceData();
  std::pair<GnssType, unsigned short> const outside[] = {
      {GPS, 0}, {GPS, 33}, {GLONASS, 25}, {BEIDOU, 15}, {static_cast<GnssType>(5), 1}};
  for (auto const& [type, sv] : outside)
    EXPECT_EQ(AssistanceDataFile::defaultAssistance(type, sv), zero) << sv;
  AssistanceData galileo = zero;
  galileo.gnssType = GALILEO, galileo.svId = 1;
  EXPECT_EQ(AssistanceDataFile::defaultAssistance(GALILEO, 1), galileo);
}

// Every row stays inside the ranges of the stored file and describes a real
// satellite: a direct radiation-pressure acceleration of 0.6-2e-7 m/s^2
// (published a-priori values for GNSS satellites), the antenna on the
// Earth-facing side, a prediction error that grows with time.
TEST(DefaultAssistance, EveryRowIsPhysical) {
  double const k = 4.56e-6 * 1.21 * 13.4 / 1075.0;  // force-model acceleration per unit scale, m/s^2
  for (GnssType type : {GPS, GLONASS, BEIDOU}) {
    auto const range = getSvIdRange(type);
    for (unsigned short sv = range.first; sv <= range.second; ++sv) {
      AssistanceData const d = AssistanceDataFile::defaultAssistance(type, sv);
      SCOPED_TRACE(toString(type) + " " + std::to_string(sv));
      EXPECT_TRUE(d.gnssType == type && d.svId == sv && d.svFlags == 0u && d.outages.empty());
      // (value, low, high) of every stored field.
      double const bounds[][3] = {{double(d.maxPredictionLength), 24, 24 * 28},
                                  {d.srp[0] * k, 0.6e-7, 2.0e-7},
                                  {std::fabs(d.srp[1]), 0, 3.0},
                                  {std::fabs(d.antPhase[0]), 0, 1.0},
                                  {std::fabs(d.antPhase[1]), 0, 0.5},
                                  {d.antPhase[2], 0.5, 5.0},
                                  {d.errorParams[0], 0, 1e-9},
                                  {d.errorParams[1], 1e-12, 1e-3},
                                  {d.errorParams[2], 1e-9, 10.0}};
      for (auto const& b : bounds)
        EXPECT_TRUE(b[0] >= b[1] && b[0] <= b[2]) << b[0] << " " << b[1] << " " << b[2];
      EXPECT_LT(estimateSisreError(d.errorParams, 86400.0), estimateSisreError(d.errorParams, 7 * 86400.0));
      EXPECT_EQ(d.clockModelParams, ClockModelParams{});
    }
  }
}

// Phase-centre offsets against the published IGS values: every satellite that
// flies its number with an IGS antenna entry of its own carries that entry's
// ionosphere-free offset (svId 1 keeps its tuned row).
TEST(DefaultAssistance, PhaseCentresAreThePublishedIgsValues) {
  ZARN_SHARED_FILE_OR_SKIP(pcoPath, "reference/satellite_pco.txt");
  ZARN_SHARED_FILE_OR_SKIP(blocksPath, "reference/satellite_blocks_summary.txt");
  std::map<std::string, std::array<double, 3>> pcoBySvn;
  std::string line;
  for (std::istringstream in(test::readFile(pcoPath)); std::getline(in, line);) {
    std::istringstream s(line);
    std::string sys, prn, svn, cospar, block, from, until;
    std::array<double, 3> x{};
    if (line.empty() || line[0] == '#') continue;
    s >> sys >> prn >> svn >> cospar >> block >> from >> until >> x[0] >> x[1] >> x[2];
    pcoBySvn[svn] = x;
  }
  int checked = 0;
  for (std::istringstream in(test::readFile(blocksPath)); std::getline(in, line);) {
    std::istringstream s(line);
    std::string date, sys, prn, svn, block, massP, massM, antex;
    bool const read = static_cast<bool>(s >> date >> sys >> prn >> svn >> block >> massP >> massM >> antex);
    if (!read || date != "2025-07-04" || antex != "A" || sys == "C") continue;
    int const sv = std::stoi(prn.substr(1));
    GnssType const type = sys == "G" ? GPS : GLONASS;
    if (sv == 1 || !validSvId(type, static_cast<unsigned short>(sv))) continue;
    AssistanceData const d = AssistanceDataFile::defaultAssistance(type, static_cast<unsigned short>(sv));
    ASSERT_EQ(pcoBySvn.count(svn), 1u) << svn;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(d.antPhase[i], pcoBySvn[svn][i]) << prn << " " << svn;
    ++checked;
  }
  EXPECT_GE(checked, 25);
}

// ---------------------------------------------------------------------------
// Antenna offsets

// The yaw-steering axes built from ERFA's Sun, turned into the Earth-rotating
// frame of date with ERFA's IAU 1976/1980 precession-nutation and sidereal time.
TEST(ApcOffset, MovesAlongTheYawSteeringAxes) {
  double const t = 1.25e9;
  int const leap = 18;
  double np[3][3], rot[3][3], sunGcrs[3], moon[3], sun[3];
  test::erfaSunMoon(t, sunGcrs, moon);
  eraPnm80(test::kJdGpsOrigin, (t + test::kGpsToTt) / 86400.0, np);
  eraCr(np, rot);
  eraRz(eraGst94(test::kJdGpsOrigin, (t - leap) / 86400.0), rot);
  eraRxp(rot, sunGcrs, sun);

  for (Vec const& pos : {vec3(15.0e6, -8.0e6, 19.0e6), vec3(-20.0e6, 12.0e6, -9.0e6)}) {
    Vec const s = vec3(sun[0], sun[1], sun[2]);
    Vec eS = s - pos;
    eS /= norm_2(eS);
    Vec const eZ = -pos / norm_2(pos);
    Vec eX = eS - inner_prod(eS, eZ) * eZ;  // towards the Sun, across the line of sight to the Earth
    eX /= norm_2(eX);
    Vec const eY = cross(eZ, eX);

    AntennaPhase const offset{{0.3, -0.2, 1.5}};
    Vec const moved = addApcOffset(pos, offset, t, leap);
    Vec const expected = pos + 0.3 * eX - 0.2 * eY + 1.5 * eZ;
    // The series Sun is within 0.1 deg of ERFA's here.
    EXPECT_LT(norm_2(moved - expected), 2e-3 * 1.6) << pos;
    EXPECT_NEAR(norm_2(moved), norm_2(pos) - 1.5, 1e-6);  // z points at the Earth's centre

    EXPECT_LT(norm_2(removeApcOffset(moved, offset, t, leap) - pos), 1e-6);
  }
}

TEST(ApcOffsetDeathTest, PositionsMustBeThreeDimensional) {
  AntennaPhase offset{};
  Vec const bad(4, 1.0e7);
  std::string const path = "libs/support/src/assistance_data";
  EXPECT_DEATH(addApcOffset(bad, offset, 0.0, 18),
               test::fatalArgument("addApcOffset: invalid size pos", path));
  EXPECT_DEATH(removeApcOffset(bad, offset, 0.0, 18),
               test::fatalArgument("removeApcOffset: Position vector is not 3 dimensional.", path));
}

}  // namespace
}  // namespace support
}  // namespace zarn
