#include "zarn/support/encryption.hpp"

#include "encryption_internal.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

#include "zarn/support/log.hpp"

namespace zarn {
namespace support {

namespace {

// ---- CRC-32 (IEEE 802.3) -------------------------------------------------------

// 0x04C11DB7 with its bits reversed, for the least-significant-bit-first register.
constexpr std::uint32_t kCrc32ReflectedPolynomial = 0xEDB88320u;
constexpr std::uint32_t kCrc32Preset = 0xFFFFFFFFu;

constexpr std::array<std::uint32_t, 256> makeCrc32Table() {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t n = 0; n < table.size(); ++n) {
    std::uint32_t c = n;
    for (int bit = 0; bit < 8; ++bit) c = (c & 1u) ? kCrc32ReflectedPolynomial ^ (c >> 1) : c >> 1;
    table[n] = c;
  }
  return table;
}

// Computed by the compiler: read-only data, nothing to build or guard at run time.
constexpr std::array<std::uint32_t, 256> kCrc32Table = makeCrc32Table();

// ---- DES (FIPS 46-3) -------------------------------------------------------------
// Tables use the FIPS numbering: bit 1 is the most significant bit of the word.

constexpr unsigned kBlockBytes = 8;
constexpr unsigned kKeyBytes = 8;
constexpr unsigned kRounds = 16;
constexpr unsigned kSBoxes = 8;
constexpr unsigned kHalfKeyBits = 28;

// Initial permutation IP and its inverse.
constexpr std::array<std::uint8_t, 64> kInitialPermutation = {
    58, 50, 42, 34, 26, 18, 10, 2,  60, 52, 44, 36, 28, 20, 12, 4,  62, 54, 46, 38, 30, 22,
    14, 6,  64, 56, 48, 40, 32, 24, 16, 8,  57, 49, 41, 33, 25, 17, 9,  1,  59, 51, 43, 35,
    27, 19, 11, 3,  61, 53, 45, 37, 29, 21, 13, 5,  63, 55, 47, 39, 31, 23, 15, 7};
constexpr std::array<std::uint8_t, 64> kFinalPermutation = {
    40, 8,  48, 16, 56, 24, 64, 32, 39, 7,  47, 15, 55, 23, 63, 31, 38, 6,  46, 14, 54, 22,
    62, 30, 37, 5,  45, 13, 53, 21, 61, 29, 36, 4,  44, 12, 52, 20, 60, 28, 35, 3,  43, 11,
    51, 19, 59, 27, 34, 2,  42, 10, 50, 18, 58, 26, 33, 1,  41, 9,  49, 17, 57, 25};

// Permutation P of the round function.
constexpr std::array<std::uint8_t, 32> kRoundPermutation = {16, 7, 20, 21, 29, 12, 28, 17, 1,  15, 23,
                                                            26, 5, 18, 31, 10, 2,  8,  24, 14, 32, 27,
                                                            3,  9, 19, 13, 30, 6,  22, 11, 4,  25};

// Permuted choices 1 (64 -> 56 key bits) and 2 (56 -> 48 round-key bits).
constexpr std::array<std::uint8_t, 56> kPermutedChoice1 = {
    57, 49, 41, 33, 25, 17, 9,  1,  58, 50, 42, 34, 26, 18, 10, 2,  59, 51, 43,
    35, 27, 19, 11, 3,  60, 52, 44, 36, 63, 55, 47, 39, 31, 23, 15, 7,  62, 54,
    46, 38, 30, 22, 14, 6,  61, 53, 45, 37, 29, 21, 13, 5,  28, 20, 12, 4};
constexpr std::array<std::uint8_t, 48> kPermutedChoice2 = {
    14, 17, 11, 24, 1,  5,  3,  28, 15, 6,  21, 10, 23, 19, 12, 4,  26, 8,  16, 7,  27, 20, 13, 2,
    41, 52, 31, 37, 47, 55, 30, 40, 51, 45, 33, 48, 44, 49, 39, 56, 34, 53, 46, 42, 50, 36, 29, 32};

// Left rotations of the two key halves before each round.
constexpr std::array<std::uint8_t, kRounds> kKeyShifts = {1, 1, 2, 2, 2, 2, 2, 2, 1, 2, 2, 2, 2, 2, 2, 1};

// Substitution boxes S1..S8, each four rows of sixteen.
constexpr std::uint8_t kSBox[kSBoxes][64] = {
    {14, 4,  13, 1, 2,  15, 11, 8, 3, 10, 6, 12, 5,  9,  0,  7,  0,  15, 7,  4,  14, 2,
     13, 1,  10, 6, 12, 11, 9,  5, 3, 8,  4, 1,  14, 8,  13, 6,  2,  11, 15, 12, 9,  7,
     3,  10, 5,  0, 15, 12, 8,  2, 4, 9,  1, 7,  5,  11, 3,  14, 10, 0,  6,  13},
    {15, 1,  8,  14, 6,  11, 3,  4, 9,  7,  2, 13, 12, 0,  5,  10, 3,  13, 4,  7, 15, 2,
     8,  14, 12, 0,  1,  10, 6,  9, 11, 5,  0, 14, 7,  11, 10, 4,  13, 1,  5,  8, 12, 6,
     9,  3,  2,  15, 13, 8,  10, 1, 3,  15, 4, 2,  11, 6,  7,  12, 0,  5,  14, 9},
    {10, 0,  9,  14, 6, 3,  15, 5,  1,  13, 12, 7, 11, 4,  2,  8,  13, 7, 0,  9, 3, 4,
     6,  10, 2,  8,  5, 14, 12, 11, 15, 1,  13, 6, 4,  9,  8,  15, 3,  0, 11, 1, 2, 12,
     5,  10, 14, 7,  1, 10, 13, 0,  6,  9,  8,  7, 4,  15, 14, 3,  11, 5, 2,  12},
    {7, 13, 14, 3, 0, 6,  9, 10, 1,  2, 8,  5, 11, 12, 4,  15, 13, 8,  11, 5, 6, 15,
     0, 3,  4,  7, 2, 12, 1, 10, 14, 9, 10, 6, 9,  0,  12, 11, 7,  13, 15, 1, 3, 14,
     5, 2,  8,  4, 3, 15, 0, 6,  10, 1, 13, 8, 9,  4,  5,  11, 12, 7,  2,  14},
    {2,  12, 4, 1,  7,  10, 11, 6, 8, 5,  3, 15, 13, 0,  14, 9,  14, 11, 2,  12, 4,  7,
     13, 1,  5, 0,  15, 10, 3,  9, 8, 6,  4, 2,  1,  11, 10, 13, 7,  8,  15, 9,  12, 5,
     6,  3,  0, 14, 11, 8,  12, 7, 1, 14, 2, 13, 6,  15, 0,  9,  10, 4,  5,  3},
    {12, 1,  10, 15, 9,  2,  6, 8,  0, 13, 3,  4,  14, 7,  5, 11, 10, 15, 4, 2, 7, 12,
     9,  5,  6,  1,  13, 14, 0, 11, 3, 8,  9,  14, 15, 5,  2, 8,  12, 3,  7, 0, 4, 10,
     1,  13, 11, 6,  4,  3,  2, 12, 9, 5,  15, 10, 11, 14, 1, 7,  6,  0,  8, 13},
    {4, 11, 2,  14, 15, 0,  8,  13, 3, 12, 9,  7, 5,  10, 6,  1,  13, 0,  11, 7,  4, 9,
     1, 10, 14, 3,  5,  12, 2,  15, 8, 6,  1,  4, 11, 13, 12, 3,  7,  14, 10, 15, 6, 8,
     0, 5,  9,  2,  6,  11, 13, 8,  1, 4,  10, 7, 9,  5,  0,  15, 14, 2,  3,  12},
    {13, 2, 8,  4, 6, 15, 11, 1,  10, 9,  3, 14, 5,  0,  12, 7,  1,  15, 13, 8, 10, 3,
     7,  4, 12, 5, 6, 11, 0,  14, 9,  2,  7, 11, 4,  1,  9,  12, 14, 2,  0,  6, 10, 13,
     15, 3, 5,  8, 2, 1,  14, 7,  4,  10, 8, 13, 15, 12, 9,  0,  3,  5,  6,  11}};

// Output bit i (from the most significant) takes input bit table[i] of an
// inputBits-wide word.
template <std::size_t N>
constexpr std::uint64_t permute(std::uint64_t in, unsigned inputBits,
                                std::array<std::uint8_t, N> const& table) {
  std::uint64_t out = 0;
  for (std::uint8_t source : table) out = (out << 1) | ((in >> (inputBits - source)) & 1u);
  return out;
}

// A 64-bit permutation as eight byte-indexed lookups: the result is the OR of
// the images of the eight input bytes taken alone.
using ByteLookup = std::array<std::array<std::uint64_t, 256>, kBlockBytes>;

constexpr ByteLookup makeByteLookup(std::array<std::uint8_t, 64> const& table) {
  ByteLookup lookup{};
  for (unsigned byte = 0; byte < kBlockBytes; ++byte)
    for (unsigned value = 0; value < 256; ++value)
      lookup[byte][value] = permute(std::uint64_t{value} << (8 * (kBlockBytes - 1 - byte)), 64, table);
  return lookup;
}

// S-box i and P folded together: the round function's contribution of box i
// for each 6-bit input.
using SpLookup = std::array<std::array<std::uint32_t, 64>, kSBoxes>;

constexpr SpLookup makeSpLookup() {
  SpLookup lookup{};
  for (unsigned box = 0; box < kSBoxes; ++box)
    for (unsigned x = 0; x < 64; ++x) {
      // Outer bits select the row, inner four the column.
      unsigned const row = ((x >> 4) & 2u) | (x & 1u);
      unsigned const col = (x >> 1) & 0xFu;
      std::uint32_t const s = kSBox[box][16 * row + col];
      lookup[box][x] = static_cast<std::uint32_t>(permute(s << (28 - 4 * box), 32, kRoundPermutation));
    }
  return lookup;
}

constexpr ByteLookup kInitialLookup = makeByteLookup(kInitialPermutation);
constexpr ByteLookup kFinalLookup = makeByteLookup(kFinalPermutation);
constexpr SpLookup kSpLookup = makeSpLookup();

std::uint64_t applyLookup(ByteLookup const& lookup, std::uint64_t in) {
  std::uint64_t out = 0;
  for (unsigned byte = 0; byte < kBlockBytes; ++byte)
    out |= lookup[byte][(in >> (8 * (kBlockBytes - 1 - byte))) & 0xFFu];
  return out;
}

// Round keys as eight 6-bit groups, one per S-box.
using Schedule = std::array<std::array<std::uint8_t, kSBoxes>, kRounds>;

Schedule makeSchedule(char const* key) {
  std::uint64_t k = 0;
  for (unsigned i = 0; i < kKeyBytes; ++i) k = (k << 8) | static_cast<unsigned char>(key[i]);
  std::uint64_t const cd = permute(k, 64, kPermutedChoice1);
  constexpr std::uint32_t kHalfMask = (1u << kHalfKeyBits) - 1;
  auto c = static_cast<std::uint32_t>(cd >> kHalfKeyBits);
  auto d = static_cast<std::uint32_t>(cd & kHalfMask);
  Schedule schedule{};
  for (unsigned round = 0; round < kRounds; ++round) {
    unsigned const s = kKeyShifts[round];
    c = ((c << s) | (c >> (kHalfKeyBits - s))) & kHalfMask;
    d = ((d << s) | (d >> (kHalfKeyBits - s))) & kHalfMask;
    std::uint64_t const roundKey = permute((std::uint64_t{c} << kHalfKeyBits) | d, 56, kPermutedChoice2);
    for (unsigned box = 0; box < kSBoxes; ++box)
      schedule[round][box] = static_cast<std::uint8_t>((roundKey >> (42 - 6 * box)) & 0x3Fu);
  }
  return schedule;
}

std::uint32_t rotateLeft(std::uint32_t x, unsigned n) {
  return (x << n) | (x >> (32 - n));
}

// f(R, K): the expansion E gives box i the six bits 4i..4i+5 of R (FIPS
// numbering, cyclic), which a left rotation by 4i+5 brings to the bottom.
std::uint32_t roundFunction(std::uint32_t r, std::array<std::uint8_t, kSBoxes> const& key) {
  std::uint32_t out = 0;
  for (unsigned box = 0; box < kSBoxes; ++box) {
    unsigned const chunk = (rotateLeft(r, (4 * box + 5) % 32) & 0x3Fu) ^ key[box];
    out |= kSpLookup[box][chunk];
  }
  return out;
}

struct Stage {
  Schedule const* schedule;
  bool decrypt;
};

// Successive DES operations on one block. Between two operations the final
// permutation and the next initial permutation cancel, so both are applied
// once for the whole chain.
template <std::size_t N>
std::uint64_t cryptBlock(std::uint64_t block, std::array<Stage, N> const& stages) {
  std::uint64_t const permuted = applyLookup(kInitialLookup, block);
  auto left = static_cast<std::uint32_t>(permuted >> 32);
  auto right = static_cast<std::uint32_t>(permuted);
  for (Stage const& stage : stages) {
    for (unsigned round = 0; round < kRounds; ++round) {
      unsigned const k = stage.decrypt ? kRounds - 1 - round : round;
      std::uint32_t const next = left ^ roundFunction(right, (*stage.schedule)[k]);
      left = right;
      right = next;
    }
    std::swap(left, right);  // the pre-output is R16 L16
  }
  return applyLookup(kFinalLookup, (std::uint64_t{left} << 32) | right);
}

constexpr char const* kLengthTag = "dep::decrypt()";
constexpr char const* kLengthMessage = "Size of container is not divisible by 8.";

template <std::size_t N>
bool cryptBuffer(BinaryData const& in, std::array<Stage, N> const& stages, BinaryData& out) {
  if (in.size() % kBlockBytes != 0) {
    log::printFormatted(log::ERROR, kLengthTag, "%s", kLengthMessage);
    return false;
  }
  BinaryData result(in.size());
  for (std::size_t offset = 0; offset < in.size(); offset += kBlockBytes) {
    std::uint64_t block = 0;
    for (unsigned i = 0; i < kBlockBytes; ++i) block = (block << 8) | in[offset + i];
    block = cryptBlock(block, stages);
    for (unsigned i = 0; i < kBlockBytes; ++i)
      result[offset + i] = static_cast<unsigned char>(block >> (8 * (kBlockBytes - 1 - i)));
  }
  out.swap(result);
  return true;
}

bool singleDes(BinaryData const& in, char const* key, bool decrypt, BinaryData& out) {
  if (key == nullptr) ZARN_THROW(std::invalid_argument("des: null key"));
  Schedule const schedule = makeSchedule(key);
  return cryptBuffer(in, std::array<Stage, 1>{{{&schedule, decrypt}}}, out);
}

bool tripleDes(BinaryData const& in, char const* key, bool decrypt, BinaryData& out) {
  if (key == nullptr) ZARN_THROW(std::invalid_argument("tripleDes: null key"));
  Schedule const k1 = makeSchedule(key);
  Schedule const k2 = makeSchedule(key + kKeyBytes);
  Schedule const k3 = makeSchedule(key + 2 * kKeyBytes);
  std::array<Stage, 3> const stages = decrypt
                                          ? std::array<Stage, 3>{{{&k3, true}, {&k2, false}, {&k1, true}}}
                                          : std::array<Stage, 3>{{{&k1, false}, {&k2, true}, {&k3, false}}};
  return cryptBuffer(in, stages, out);
}

// ---- container key -------------------------------------------------------------

constexpr std::size_t kTripleKeyBytes = 3 * kKeyBytes;

std::string containerKey() {
  static char const* const pieces[] = {
#include "zarn_key_pieces.inc"
  };
  constexpr std::size_t kPieceCount = sizeof pieces / sizeof pieces[0];
  static_assert(kPieceCount == 8, "the container key takes eight pieces");
  std::string key = combineKeyPieces(pieces, kPieceCount);
  if (key.size() < kTripleKeyBytes) ZARN_THROW(std::length_error("containerKey: key pieces too short"));
  return key;
}

}  // namespace

std::uint32_t computeCrc32(unsigned char const* begin, unsigned char const* end) {
  std::uint32_t crc = kCrc32Preset;
  for (unsigned char const* p = begin; p != end; ++p) crc = kCrc32Table[(crc ^ *p) & 0xFFu] ^ (crc >> 8);
  return crc ^ kCrc32Preset;
}

bool desEncrypt(BinaryData const& in, char const* key, BinaryData& out) {
  return singleDes(in, key, false, out);
}
bool desDecrypt(BinaryData const& in, char const* key, BinaryData& out) {
  return singleDes(in, key, true, out);
}

bool tripleDesEncrypt(BinaryData const& in, char const* key, BinaryData& out) {
  return tripleDes(in, key, false, out);
}
bool tripleDesDecrypt(BinaryData const& in, char const* key, BinaryData& out) {
  return tripleDes(in, key, true, out);
}

bool encrypt(BinaryData const& in, BinaryData& out) {
  return tripleDesEncrypt(in, containerKey().data(), out);
}
bool decrypt(BinaryData const& in, BinaryData& out) {
  return tripleDesDecrypt(in, containerKey().data(), out);
}

std::string combineKeyPieces(char const* const* pieces, std::size_t count) {
  std::string key;
  for (std::size_t pair = 0; pair + 1 < count; pair += 2) {
    std::string a = pieces[pair];
    std::string b = pieces[pair + 1];
    for (std::string* piece : {&a, &b})
      if (!piece->empty()) {
        std::size_t const shift = static_cast<unsigned char>((*piece)[0]) % piece->size();
        std::rotate(piece->begin(), piece->begin() + static_cast<std::ptrdiff_t>(shift), piece->end());
      }
    std::size_t const n = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < n; ++i) key.push_back(static_cast<char>(a[i] ^ b[i]));
  }
  return key;
}

}  // namespace support
}  // namespace zarn
