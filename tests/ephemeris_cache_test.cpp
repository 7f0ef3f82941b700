// History of one GLONASS satellite's ephemerides: ordering, thinning,
// capacity, the nearest-age lookup and the serialised form.
#include "zarn/support/ephemeris_cache.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <tuple>
#include <vector>

#include "zarn/support/serialization.hpp"

namespace zc = zarn::core;
namespace zs = zarn::support;

// A record at `seconds` after the start of day 1000 of four-year period 5,
// spilling into the following days.
zc::GlonassEphemeris at(double seconds, int marker = 0) {
  zc::GlonassEphemeris e;
  auto const s = static_cast<unsigned>(seconds);
  e.time = zc::Toc{5, 1000 + s / 86400, s % 86400};
  e.x = marker;
  return e;
}

// Seconds of an entry counted the same way, from the Toc fields alone.
double secondsOf(zc::GlonassEphemeris const& e) {
  return (e.time.second - 1000.0) * 86400.0 + e.time.third;
}

std::vector<double> times(zs::EphemerisCache const& c) {
  std::vector<double> t;
  for (unsigned i = 0; i < c.size(); ++i) t.push_back(secondsOf(c[i]));
  return t;
}

// Sequences of inserts and what stays, newest first. An insert is stored
// exactly when its Toc is later than every earlier one.
TEST(EphemerisCache, InsertKeepsNewestFirstThinnedAndBounded) {
  using Case = std::tuple<char const*, unsigned, double, std::vector<double>, std::vector<double>>;
  Case const cases[] = {
      {"a duplicate Toc is refused", 5, 60.0, {0, 1800, 1800}, {1800, 0}},
      {"an older Toc is refused", 5, 60.0, {1800, 0}, {1800}},
      {"middle of three within delta goes", 5, 3600.0, {0, 60, 120}, {120, 0}},
      {"the new one is always kept", 5, 3600.0, {0, 7200, 7260}, {7260, 7200, 0}},
      {"spacing exactly delta is kept", 5, 1800.0, {0, 1800, 3600}, {3600, 1800, 0}},
      {"capacity 1 holds the newest only", 1, 60.0, {0, 900, 1800}, {1800}},
      {"beyond capacity the oldest go", 3, 60.0, {0, 900, 1800, 2700}, {2700, 1800, 900}},
      {"across midnight", 5, 900.0, {85500, 86400, 87300}, {87300, 86400, 85500}},
  };
  for (auto const& [what, capacity, delta, inserts, kept] : cases) {
    zs::EphemerisCache cache(capacity, delta);
    double latest = -1.0;
    for (std::size_t i = 0; i < inserts.size(); ++i) {
      EXPECT_EQ(cache.insert(at(inserts[i], static_cast<int>(i))), inserts[i] > latest) << what << i;
      latest = std::max(latest, inserts[i]);
    }
    EXPECT_EQ(times(cache), kept) << what;
    // A refused duplicate leaves the first record of that Toc, not the new one.
    EXPECT_EQ(cache.newest().x, std::find(inserts.begin(), inserts.end(), kept[0]) - inserts.begin()) << what;
  }
}

// nearest against the brute-force argmin of |age - (t0 - ti)| over every
// entry, the newest winning ties (gaps of whole 900 s steps make half-step
// ages ties), on random histories; 1e7 s is older than any history.
TEST(EphemerisCache, NearestIsTheBestMatchingAge) {
  std::mt19937 random(7);
  for (int trial = 0; trial < 200; ++trial) {
    zs::EphemerisCache cache(12, 1.0);
    double t = 0.0;
    for (int k = 0; k < 12; ++k) cache.insert(at(t += 900.0 * (1 + random() % 8)));
    std::vector<double> const kept = times(cache);
    for (double age : {1.0, 450.0, 900.0, 1350.0, 3600.0, 5000.0, 20000.0, 1e7}) {
      std::size_t best = 0;
      for (std::size_t i = 1; i < kept.size(); ++i)
        if (std::fabs(age - (kept[0] - kept[i])) < std::fabs(age - (kept[0] - kept[best]))) best = i;
      EXPECT_EQ(secondsOf(cache.nearest(age)), kept[best]) << trial << " " << age;
    }
  }
}

// Round trip; forms no cache can have change nothing. Layout: tag byte,
// delta (12), capacity (4), count (4), 57 bytes per record.
TEST(EphemerisCache, SerializedFormRoundTripsAndRejectsImpossibleCaches) {
  zs::EphemerisCache cache(4, 600.0), copy(1, 1.0);
  for (double s : {0.0, 900.0, 1800.0, 2700.0}) cache.insert(at(s, static_cast<int>(s)));
  zs::BinaryData bytes{0xAB};
  unsigned position = 1;
  ASSERT_TRUE(cache.serialize(bytes) && copy.deserialize(bytes, position));
  EXPECT_TRUE(position == bytes.size() && copy == cache);
  // Capacity 0, capacity 3 below the 4 entries, entries out of order, delta not positive.
  zs::BinaryData bad[4] = {bytes, bytes, bytes, bytes};
  bad[0][16] = 0;  // big-endian capacity: its last byte
  bad[1][16] = 3;
  std::swap_ranges(bad[2].begin() + 21, bad[2].begin() + 78, bad[2].begin() + 78);
  bad[3][1] |= 0x80;
  for (unsigned k = 0, p = 1; k < 4; ++k, p = 1)
    EXPECT_TRUE(!copy.deserialize(bad[k], p) && p == 1 && copy == cache);
}
