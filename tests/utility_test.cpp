// GNSS utilities against the published texts, ranges and accuracy tables and
// hand-derived geometry.
#include "zarn/support/utility.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <tuple>
#include <utility>

#include "support/test_support.hpp"
#include "support/vectors.hpp"

namespace zs = zarn::support;
namespace zc = zarn::core;
using zc::Toc;
using zs::Vec;

using zarn::test::vec3;

TEST(Outages, InstantAndIntervalOnTocOrder) {
  EXPECT_FALSE(zs::isWithinOutage(Toc{0, 0, 0}, zs::makeZeroAssistanceData()));
  // Crosses a GPS cycle: {0, 1023, ...} precedes {1, 0, ...}. Bounds count; intervals are [t0, t1).
  zs::AssistanceData data = zs::makeZeroAssistanceData();
  data.outages = {{Toc{0, 1023, 500000}, Toc{1, 0, 1000}, "a"},
                  {Toc{1, 5, 100}, Toc{1, 5, 200}, "b"},
                  {Toc{1, 7, 0}, Toc{1, 7, 0}, "c"}};
  struct {
    Toc t;
    bool in;
  } const instants[] = {{{0, 1023, 500000}, true}, {{1, 0, 1000}, true},       {{0, 1023, 604799}, true},
                        {{1, 0, 1001}, false},     {{0, 1022, 600000}, false}, {{1, 5, 150}, true},
                        {{1, 4, 150}, false},      {{1, 7, 0}, true}};
  for (auto const& c : instants)
    EXPECT_EQ(zs::isWithinOutage(c.t, data), c.in) << c.t.second << " " << c.t.third;
  struct {
    Toc t0, t1;
    bool in;
  } const intervals[] = {{{1, 5, 0}, {1, 5, 101}, true},   {{1, 5, 0}, {1, 5, 100}, false},
                         {{1, 5, 200}, {1, 6, 0}, true},   {{1, 5, 201}, {1, 6, 0}, false},
                         {{1, 5, 150}, {1, 5, 200}, true}, {{1, 6, 0}, {1, 7, 0}, false},
                         {{0, 1000, 0}, {2, 0, 0}, true},  {{1, 1, 0}, {1, 5, 0}, false}};
  for (auto const& c : intervals)
    EXPECT_EQ(zs::isWithinOutage(c.t0, c.t1, data), c.in) << c.t0.second << " " << c.t0.third;
}

TEST(Ura, PublishedTablesAndTheirEdges) {
  // IS-GPS-200 20.3.3.3.1.3 and the GLONASS accuracy word FT.
  double const gps[] = {2.4, 3.4, 4.85, 6.85, 9.65, 13.65, 24, 48, 96, 192, 384, 768, 1536, 3072, 6144};
  double const glo[] = {1, 2, 2.5, 4, 5, 7, 10, 12, 14, 16, 32, 64, 128, 256, 512};
  double const inf = std::numeric_limits<double>::infinity();
  for (unsigned i = 0; i < 15; ++i) {
    unsigned char const index = static_cast<unsigned char>(i);
    EXPECT_EQ(
        std::make_tuple(zs::metersToUraIndex(gps[i], zc::GPS), zs::metersToUraIndex(-gps[i], zc::BEIDOU),
                        zs::metersToUraIndex(std::nextafter(gps[i], inf), zc::GPS),
                        zs::metersToUraIndex(glo[i], zc::GLONASS),
                        zs::metersToUraIndex(std::nextafter(glo[i], inf), zc::GLONASS),
                        zs::uraIndexToMeters(index, zc::GPS), zs::uraIndexToMeters(index, zc::GLONASS)),
        std::make_tuple(i, i, i + 1, i, i + 1, gps[i], glo[i]));
  }
  EXPECT_EQ(std::make_tuple(zs::metersToUraIndex(-2.5, zc::GPS), zs::metersToUraIndex(7000, zc::GPS),
                            zs::metersToUraIndex(0.0, zc::GALILEO), zs::uraIndexToMeters(15, zc::GLONASS),
                            zs::uraIndexToMeters(255, zc::GPS)),
            std::make_tuple(1, 15, 0, 512.0, 6144.0));
}

TEST(Errors, DistanceAndSisre) {
  Vec a(4, 9.0);
  subrange(a, 0, 3) = vec3(1.0, 2.0, 3.0);
  EXPECT_EQ(zs::distance(a, vec3(4.0, 6.0, 3.0)), 5.0);  // the fourth component is ignored

  EXPECT_DOUBLE_EQ(zs::sisreError(vec3(1.0, 7.0, 0.0), 0.0, zc::GPS, zs::UNDEFINED_SAT_TYPE), std::sqrt(2.0));
  EXPECT_EQ(zs::sisreError(vec3(2.0, 0.0, 0.0), 2.0, zc::GPS, zs::UNDEFINED_SAT_TYPE), 0.0);  // clock cancels
  EXPECT_DOUBLE_EQ(zs::sisreError(vec3(1.0, 0.0, 0.0), 0.0, zc::GLONASS, zs::GEO), 0.98);
  EXPECT_DOUBLE_EQ(zs::sisreError(vec3(0.0, 0.0, std::sqrt(45.0)), 0.0, zc::GLONASS, zs::MEO), 1.0);
  EXPECT_DOUBLE_EQ(zs::sisreError(vec3(0.0, 8.0, 8.0), 0.0, zc::BEIDOU, zs::GEO), 1.0);
  EXPECT_DOUBLE_EQ(zs::sisreError(vec3(1.0, 0.0, 0.0), 0.0, zc::BEIDOU, zs::IGSO), 0.99);
  EXPECT_DOUBLE_EQ(zs::sisreError(vec3(0.0, std::sqrt(54.0), 0.0), 0.0, zc::BEIDOU, zs::MEO), 1.0);
  EXPECT_DOUBLE_EQ(zs::sisreError(vec3(1.0, 0.0, 0.0), 0.0, zc::BEIDOU, zs::UNDEFINED_SAT_TYPE), 0.98);
  EXPECT_EQ(zs::sisreError(vec3(3.0, 4.0, 5.0), 1.0, zc::GALILEO, zs::MEO), 0.0);

  EXPECT_DOUBLE_EQ(zs::estimateSisreError(zs::PredictionErrorParams{{1e-10, 2e-5, 3.0}}, 1e4), 3.21);
}

TEST(Errors, PredictionRtnOfAnInclinedOrbit) {
  // r along x, v in the plane inclined by i about x: radial x,
  // transverse (0, cos i, sin i), normal (0, -sin i, cos i).
  double const i = 0.96, r = 26.56e6, v = 3.87e3;
  Vec const pos = vec3(r, 0.0, 0.0);
  Vec const vel = vec3(250.0, v * std::cos(i), v * std::sin(i));  // a radial rate does not tilt the axes
  Vec const rtn = zs::predictionRtn(pos, vel, pos - vec3(1.0, 2.0, 3.0));
  EXPECT_LT(
      norm_2(rtn - vec3(1.0, 2.0 * std::cos(i) + 3.0 * std::sin(i), -2.0 * std::sin(i) + 3.0 * std::cos(i))),
      1e-12);
}

TEST(UtilityDeathTest, WrongVectorSizesAreFatal) {
  Vec const three(3, 1.0), two(2, 1.0);
  std::pair<std::function<void()>, char const*> const cases[] = {
      {[&] { zs::distance(two, three); }, "distance: invalid size"},
      {[&] { zs::sisreError(two, 0.0, zc::GPS, zs::MEO); }, "sisreError: invalid size rtn"},
      {[&] { zs::predictionRtn(three, two, three); }, "predictionRtn: invalid size velocity"}};
  for (auto const& c : cases)
    EXPECT_DEATH(c.first(), zarn::test::fatalArgument(c.second, "libs/support/src/utility"));
}
