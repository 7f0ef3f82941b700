// History of one GLONASS satellite's ephemerides: ordering, thinning,
// capacity, the nearest-age lookup and the serialised form.
#include "zarn/support/ephemeris_cache.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "zarn/support/serialization.hpp"

namespace zc = zarn::core;
namespace zs = zarn::support;

namespace {

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

}  // namespace

// Sequences of inserts and what stays, newest first.
TEST(EphemerisCache, InsertKeepsNewestFirstThinnedAndBounded) {
  struct Case {
    char const* what;
    unsigned capacity;
    double delta;
    std::vector<double> inserts;
    std::vector<bool> stored;
    std::vector<double> kept;
  } const cases[] = {
      {"a duplicate Toc is refused", 5, 60.0, {0, 1800, 1800}, {true, true, false}, {1800, 0}},
      {"an older Toc is refused", 5, 60.0, {1800, 0}, {true, false}, {1800}},
      {"middle of three within delta goes", 5, 3600.0, {0, 60, 120}, {true, true, true}, {120, 0}},
      {"the new one is always kept", 5, 3600.0, {0, 7200, 7260}, {true, true, true}, {7260, 7200, 0}},
      {"spacing exactly delta is kept", 5, 1800.0, {0, 1800, 3600}, {true, true, true}, {3600, 1800, 0}},
      {"capacity 1 holds the newest only", 1, 60.0, {0, 900, 1800}, {true, true, true}, {1800}},
      {"beyond capacity the oldest go",
       3,
       60.0,
       {0, 900, 1800, 2700, 3600},
       std::vector<bool>(5, true),
       {3600, 2700, 1800}},
      {"across midnight", 5, 900.0, {85500, 86400, 87300}, {true, true, true}, {87300, 86400, 85500}},
  };
  for (Case const& c : cases) {
    zs::EphemerisCache cache(c.capacity, c.delta);
    for (std::size_t i = 0; i < c.inserts.size(); ++i)
      EXPECT_EQ(cache.insert(at(c.inserts[i], static_cast<int>(i))), c.stored[i]) << c.what << " " << i;
    EXPECT_EQ(times(cache), c.kept) << c.what;
    EXPECT_EQ(secondsOf(cache.oldest()), c.kept.back()) << c.what;
  }
  // A refused duplicate leaves the stored record (marker 1), not the new one.
  zs::EphemerisCache cache(3, 60.0);
  cache.insert(at(900, 1));
  cache.insert(at(900, 2));
  EXPECT_EQ(cache.newest().x, 1);
}

// nearest against the brute-force argmin of |age - (t0 - ti)| over every
// entry, the newest winning ties, on random histories.
TEST(EphemerisCache, NearestIsTheBestMatchingAge) {
  std::mt19937 random(7);
  std::uniform_int_distribution<int> gap(1, 8);
  for (int trial = 0; trial < 200; ++trial) {
    zs::EphemerisCache cache(12, 1.0);
    double t = 0.0;
    for (int k = 0; k < 12; ++k) {
      t += 900.0 * gap(random);
      cache.insert(at(t));
    }
    std::vector<double> const kept = times(cache);
    for (double age : {1.0, 450.0, 900.0, 1350.0, 3600.0, 5000.0, 20000.0, 1e7}) {
      std::size_t best = 0;
      for (std::size_t i = 1; i < kept.size(); ++i)
        if (std::fabs(age - (kept[0] - kept[i])) < std::fabs(age - (kept[0] - kept[best]))) best = i;
      EXPECT_EQ(secondsOf(cache.nearest(age)), kept[best]) << trial << " " << age;
    }
    // Older than the whole history: the oldest entry.
    EXPECT_EQ(secondsOf(cache.nearest(1e9)), kept.back());
  }
  // A tie between two entries keeps the newer one.
  zs::EphemerisCache cache(4, 1.0);
  for (double s : {0.0, 1800.0, 3600.0}) cache.insert(at(s));
  EXPECT_EQ(secondsOf(cache.nearest(900.0)), 3600.0);
  EXPECT_EQ(secondsOf(cache.nearest(2700.0)), 1800.0);
}

// Round trip; truncated forms and forms no cache can have change nothing.
TEST(EphemerisCache, SerializedFormRoundTripsAndRejectsDamage) {
  zs::EphemerisCache cache(4, 600.0);
  for (double s : {0.0, 900.0, 1800.0, 2700.0}) cache.insert(at(s, static_cast<int>(s)));
  zs::BinaryData bytes{0xAB};
  ASSERT_TRUE(cache.serialize(bytes));
  zs::EphemerisCache copy(1, 1.0);
  unsigned position = 1;
  ASSERT_TRUE(copy.deserialize(bytes, position));
  EXPECT_EQ(position, bytes.size());
  EXPECT_TRUE(copy == cache);

  zs::EphemerisCache other(2, 5.0);
  other.insert(at(100));
  zs::BinaryData before;
  ASSERT_TRUE(other.serialize(before));
  auto refused = [&](zs::BinaryData const& b) {
    unsigned p = 1;
    zs::BinaryData now;
    return !other.deserialize(b, p) && p == 1 && other.serialize(now) && now == before;
  };
  for (std::size_t cut = 1; cut < bytes.size(); ++cut)
    EXPECT_TRUE(refused(zs::BinaryData(bytes.begin(), bytes.begin() + static_cast<long>(cut)))) << cut;
  // Layout: 0xAB, delta (12), capacity (4), count (4), 57 bytes per record.
  // Capacity 0, more entries than capacity, entries out of order, delta not positive.
  zs::BinaryData noCapacity(bytes), overfull(bytes), disordered(bytes), negative(bytes);
  int i = 13;
  zs::replaceUint32(noCapacity, 0, i);
  i = 13;
  zs::replaceUint32(overfull, 3, i);
  std::swap_ranges(disordered.begin() + 21, disordered.begin() + 78, disordered.begin() + 78);
  negative[1] |= 0x80;
  for (zs::BinaryData const* b : {&noCapacity, &overfull, &disordered, &negative}) EXPECT_TRUE(refused(*b));
}
