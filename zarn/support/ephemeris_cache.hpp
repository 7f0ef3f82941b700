// A short history of one GLONASS satellite's broadcast ephemerides.
#ifndef ZARN_SUPPORT_EPHEMERIS_CACHE_HPP
#define ZARN_SUPPORT_EPHEMERIS_CACHE_HPP

#include "zarn/core/records.hpp"
#include "zarn/support/export.hpp"

namespace zarn {
namespace support {

// Newest first, thinned so that the entries behind the newest lie at least
// `delta` apart, and at most `capacity` long. The time of an entry is its Toc
// in GLONASS seconds (glonassToSecs); newness compares the three Toc fields
// as unsigned numbers, first field most significant.
class ZARN_EXPORT EphemerisCache {
 public:
  // delta (s) must be positive and capacity non-zero; otherwise fatal.
  EphemerisCache(unsigned int capacity, double delta);
  ~EphemerisCache();
  EphemerisCache(EphemerisCache const&) = delete;
  EphemerisCache& operator=(EphemerisCache const&) = delete;

  // Puts e in front when its Toc is strictly newer than the newest entry's
  // (false, nothing changed, otherwise). Then the entry right behind it goes
  // when it lies less than delta from the one behind it, and the oldest
  // entries go beyond capacity.
  bool insert(core::GlonassEphemeris const& e);
  // Front and back entries; fatal on an empty cache.
  core::GlonassEphemeris const& newest() const;
  core::GlonassEphemeris const& oldest() const;
  // Entry i counted from the newest (0); the caller keeps i below size().
  core::GlonassEphemeris const& operator[](unsigned int i) const;
  // The entry whose time distance from the newest is closest to age (s, > 0):
  // the walk from the newest stops at the first entry that is not strictly
  // closer, so ties keep the newer entry. Fatal on an empty cache or age <= 0.
  core::GlonassEphemeris const& nearest(double age) const;
  unsigned int size() const;
  unsigned int capacity() const;
  double delta() const;
  bool empty() const;
  // Removes every entry; capacity and delta stay.
  void clear();

  // Appends delta (double), capacity (u32), the entry count (u32) and the
  // entries newest first (GlonassEphemeris codec). On failure removes what it
  // appended and returns false.
  bool serialize(BinaryData& out) const;
  // Reads that form at `position`; the cache changes, and position advances,
  // only when the whole form was read and describes a cache this class can
  // hold (delta > 0, capacity > 0, at most capacity entries, strictly newest
  // first).
  bool deserialize(BinaryData const& in, unsigned int& position);
  // delta, capacity and the entries in order equal.
  bool operator==(EphemerisCache const& other) const;
  bool operator!=(EphemerisCache const& other) const { return !(*this == other); }

 private:
  struct Details;
  Details* details_;
};

}  // namespace support
}  // namespace zarn

#endif
