// The harness framework: every harness is a named function over the fuzzer's
// bytes, registered once and chosen at run time by the name the binary is
// called under (fuzz_<name>, a link to zarn_fuzz) or ZARN_FUZZ_HARNESS.
//
// A property violation prints what failed and aborts, which libFuzzer reports
// as a crash and saves the input.
#ifndef ZARN_FUZZ_HARNESS_HPP
#define ZARN_FUZZ_HARNESS_HPP

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "zarn/support/serialization.hpp"

namespace zarn {
namespace fuzz {

using support::BinaryData;
using support::operator==;  // of Mat, which argument lookup does not find
using Harness = void (*)(std::uint8_t const* data, std::size_t size);
// Writes a harness's seed inputs (one byte string each) from real data.
using SeedMaker = std::vector<std::string> (*)();

struct Registration {
  Registration(char const* name, Harness run, SeedMaker seeds);
};

[[noreturn]] void propertyFailed(char const* what, char const* file, int line);

#define ZARN_FUZZ_CHECK(condition) \
  ((condition) ? (void)0 : ::zarn::fuzz::propertyFailed(#condition, __FILE__, __LINE__))

#define ZARN_FUZZ_CONCAT2(a, b) a##b
#define ZARN_FUZZ_CONCAT(a, b) ZARN_FUZZ_CONCAT2(a, b)
// Registers `run` (and its seed maker, or nullptr) under `name`.
#define ZARN_FUZZ_HARNESS(name, run, seeds) \
  static ::zarn::fuzz::Registration const ZARN_FUZZ_CONCAT(registration_, __LINE__)(name, run, seeds)

inline BinaryData bytesOf(std::uint8_t const* data, std::size_t size) {
  return BinaryData(data, data + size);
}

inline std::string asString(BinaryData const& bytes) {
  return std::string(bytes.begin(), bytes.end());
}

// ---- free codecs: deserialize, serialize, deserialize again ----------------

template <class T>
BinaryData encode(T const& value) {
  BinaryData out;
  unsigned int count = 0;
  ZARN_FUZZ_CHECK(support::serialize(value, out, count));
  ZARN_FUZZ_CHECK(count == out.size());
  return out;
}

// Reading fails only at the end of the input (values are not validated); what
// reads re-encodes to the same length (every field has a fixed width or a
// length prefix), that encoding reads back to an equal value and is canonical
// (encoding it again gives the same bytes). NaN never compares equal, so the
// object comparison is made only for values equal to themselves.
template <class T>
void codecRoundTrip(std::uint8_t const* data, std::size_t size) {
  BinaryData const in = bytesOf(data, size);
  unsigned int index = 0;
  T value{};
  if (!support::deserialize(in, index, value)) {
    ZARN_FUZZ_CHECK(index == in.size());
    return;
  }
  ZARN_FUZZ_CHECK(index <= in.size());
  BinaryData const once = encode(value);
  ZARN_FUZZ_CHECK(once.size() == index);
  unsigned int again = 0;
  T copy{};
  ZARN_FUZZ_CHECK(support::deserialize(once, again, copy));
  ZARN_FUZZ_CHECK(again == once.size());
  ZARN_FUZZ_CHECK(encode(copy) == once);
  if (value == value) ZARN_FUZZ_CHECK(copy == value);
  // The bytes read alone, without what followed them, read the same.
  BinaryData const prefix(in.begin(), in.begin() + index);
  unsigned int prefixIndex = 0;
  T fromPrefix{};
  ZARN_FUZZ_CHECK(support::deserialize(prefix, prefixIndex, fromPrefix));
  ZARN_FUZZ_CHECK(encode(fromPrefix) == once);
}

template <class T>
std::vector<std::string> codecSeeds(std::vector<T> const& values) {
  std::vector<std::string> seeds;
  for (T const& v : values) seeds.push_back(asString(encode(v)));
  return seeds;
}

// ---- stateful classes: serialize()/deserialize() members -------------------

template <class T>
BinaryData encodeState(T const& object) {
  BinaryData out;
  ZARN_FUZZ_CHECK(object.serialize(out));
  return out;
}

template <class T>
T makeDefault() {
  return T();
}

// Reads `in` into an object that holds the state `primed` (a valid encoding
// of a non-trivial state). A refused input leaves object and position as they
// were; an accepted one re-encodes to the bytes read, and those bytes read
// into a fresh object give an equal object with the same encoding. `make`
// builds the fresh objects (for classes without a default constructor).
// Object comparisons are made only where an object equals itself (NaN, and
// classes whose equality also demands an unmoved filter).
template <class T, T (*make)() = makeDefault<T>>
void stateRoundTrip(BinaryData const& primed, std::uint8_t const* data, std::size_t size) {
  BinaryData const in = bytesOf(data, size);
  T object = make();
  T reference = make();
  unsigned int p = 0;
  ZARN_FUZZ_CHECK(object.deserialize(primed, p) && p == primed.size());
  p = 0;
  ZARN_FUZZ_CHECK(reference.deserialize(primed, p));
  unsigned int position = 0;
  if (!object.deserialize(in, position)) {
    ZARN_FUZZ_CHECK(position == 0);
    if (reference == reference) ZARN_FUZZ_CHECK(object == reference);
    ZARN_FUZZ_CHECK(encodeState(object) == primed);
    return;
  }
  ZARN_FUZZ_CHECK(position <= in.size());
  BinaryData const once = encodeState(object);
  ZARN_FUZZ_CHECK(once.size() == position);
  T copy = make();
  unsigned int again = 0;
  ZARN_FUZZ_CHECK(copy.deserialize(once, again));
  ZARN_FUZZ_CHECK(again == once.size());
  ZARN_FUZZ_CHECK(encodeState(copy) == once);
  if (object == object) ZARN_FUZZ_CHECK(copy == object);
}

}  // namespace fuzz
}  // namespace zarn

#endif
