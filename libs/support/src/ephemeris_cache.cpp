#include "zarn/support/ephemeris_cache.hpp"

#include <cmath>
#include <iterator>
#include <list>
#include <stdexcept>
#include <utility>

#include "zarn/support/log.hpp"
#include "zarn/support/serialization.hpp"
#include "zarn/support/time_conversion.hpp"

namespace zarn {
namespace support {

struct EphemerisCache::Details {
  double delta = 0.0;                         // s
  unsigned int capacity = 0;                  // entries
  std::list<core::GlonassEphemeris> entries;  // newest first
};

namespace {
bool newer(core::Toc const& a, core::Toc const& b) {
  if (a.first != b.first) return a.first > b.first;
  if (a.second != b.second) return a.second > b.second;
  return a.third > b.third;
}
}  // namespace

EphemerisCache::EphemerisCache(unsigned int capacity, double delta) {
  if (!(delta > 0.0)) ZARN_THROW(std::invalid_argument("Non-positive delta."));
  if (capacity == 0) ZARN_THROW(std::invalid_argument("Non-positive capacity."));
  details_ = new Details;
  details_->delta = delta;
  details_->capacity = capacity;
}

EphemerisCache::~EphemerisCache() {
  delete details_;
}

bool EphemerisCache::insert(core::GlonassEphemeris const& e) {
  std::list<core::GlonassEphemeris>& entries = details_->entries;
  if (!entries.empty() && !newer(e.time, entries.front().time)) return false;
  entries.push_front(e);
  if (entries.size() > 2) {
    auto second = std::next(entries.begin());
    auto third = std::next(second);
    if (std::fabs(glonassToSecs(second->time) - glonassToSecs(third->time)) < details_->delta) {
      entries.erase(second);
    }
  }
  while (entries.size() > details_->capacity) entries.pop_back();
  return true;
}

unsigned int EphemerisCache::size() const {
  return static_cast<unsigned int>(details_->entries.size());
}

unsigned int EphemerisCache::capacity() const {
  return details_->capacity;
}

double EphemerisCache::delta() const {
  return details_->delta;
}

bool EphemerisCache::empty() const {
  return details_->entries.empty();
}

void EphemerisCache::clear() {
  details_->entries.clear();
}

core::GlonassEphemeris const& EphemerisCache::operator[](unsigned int i) const {
  return *std::next(details_->entries.begin(), i);
}

// An empty cache has no entry to refer to: the accessors end the process
// rather than hand out a dangling reference.
core::GlonassEphemeris const& EphemerisCache::newest() const {
  if (details_->entries.empty()) ZARN_THROW(std::out_of_range("Cache is empty."));
  return details_->entries.front();
}

// The back entry, the oldest kept.
core::GlonassEphemeris const& EphemerisCache::oldest() const {
  if (details_->entries.empty()) ZARN_THROW(std::out_of_range("Cache is empty."));
  return details_->entries.back();
}

// Ages count back from the newest entry.
core::GlonassEphemeris const& EphemerisCache::nearest(double age) const {
  if (details_->entries.empty()) ZARN_THROW(std::out_of_range("Cache is empty."));
  if (!(age > 0.0)) ZARN_THROW(std::invalid_argument("Delta is not positive."));
  std::list<core::GlonassEphemeris> const& entries = details_->entries;
  double const t0 = glonassToSecs(entries.front().time);
  double best = age;
  auto candidate = entries.begin();
  // Ordered entries: once the distance stops shrinking it only grows.
  for (auto it = std::next(entries.begin()); it != entries.end(); ++it) {
    double const d = std::fabs(age - std::fabs(t0 - glonassToSecs(it->time)));
    if (!(d < best)) break;
    best = d;
    candidate = it;
  }
  return *candidate;
}

bool EphemerisCache::serialize(BinaryData& out) const {
  std::size_t const start = out.size();
  unsigned int count = 0;
  bool ok = support::serialize(details_->delta, out, count) &&
            support::serialize(details_->capacity, out, count) && support::serialize(size(), out, count);
  for (auto it = details_->entries.begin(); ok && it != details_->entries.end(); ++it) {
    ok = support::serialize(*it, out, count);
  }
  if (!ok) out.resize(start);
  return ok;
}

bool EphemerisCache::deserialize(BinaryData const& in, unsigned int& position) {
  Details* fresh = new Details;
  unsigned int index = position;
  unsigned int n = 0;
  bool ok = support::deserialize(in, index, fresh->delta) &&
            support::deserialize(in, index, fresh->capacity) && support::deserialize(in, index, n) &&
            fresh->delta > 0.0 && fresh->capacity > 0 && n <= fresh->capacity;
  for (unsigned int i = 0; ok && i < n; ++i) {
    core::GlonassEphemeris e;
    ok = support::deserialize(in, index, e) &&
         (fresh->entries.empty() || newer(fresh->entries.back().time, e.time));
    if (ok) fresh->entries.push_back(e);
  }
  if (ok) {
    std::swap(details_, fresh);
    position = index;
  }
  delete fresh;
  return ok;
}

bool EphemerisCache::operator==(EphemerisCache const& other) const {
  return details_->delta == other.details_->delta && details_->capacity == other.details_->capacity &&
         details_->entries == other.details_->entries;
}

}  // namespace support
}  // namespace zarn
