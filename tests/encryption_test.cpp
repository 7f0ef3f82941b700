// CRC-32 and DES against published check values and test vectors.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "libs/support/src/encryption_internal.hpp"
#include "support/test_support.hpp"
#include "zarn/support/encryption.hpp"

namespace zs = zarn::support;
using Bytes = zs::BinaryData;

auto const hex = [](std::string const& text) {
  Bytes out;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2)
    out.push_back(std::stoi(text.substr(i, 2), nullptr, 16));
  return out;
};
auto const crc = [](Bytes const& b) { return zs::computeCrc32(b.data(), b.data() + b.size()); };

TEST(Crc32, PublishedCheckValuesAndResidue) {
  EXPECT_EQ(crc(hex("313233343536373839")), 0xCBF43926u);  // "123456789"
  EXPECT_TRUE(crc({}) == 0u && zs::computeCrc32(nullptr, nullptr) == 0u);
  // Appending the CRC (least significant byte first) gives the fixed residue
  // 0x2144DF1C of this CRC, whatever the message; 1000 random bytes reach
  // every table entry.
  std::mt19937 rng(802);
  Bytes b(1000);
  for (auto& x : b) x = rng() & 0xFF;
  for (std::uint32_t i = 0, c = crc(b); i < 4; ++i) b.push_back((c >> (8 * i)) & 0xFF);
  EXPECT_EQ(crc(b), 0x2144DF1Cu);
}

// Single DES for 8-byte keys, triple DES for 24-byte ones.
TEST(Des, KnownAnswers) {
  struct {
    char const *key, *plain, *cipher;
  } const vectors[] = {
      {"133457799BBCDFF1", "0123456789ABCDEF", "85E813540F0AB405"},
      // NIST SP 800-17, variable plaintext and variable key tests.
      {"0101010101010101", "8000000000000000", "95F8A5E5DD31D900"},
      {"8001010101010101", "0000000000000000", "95A8D72813DAA94D"},
      // FIPS 81 electronic-codebook example: three blocks, no chaining.
      {"0123456789ABCDEF", "4E6F77206973207468652074696D6520666F7220616C6C20",
       "3FA40E8A984D48156A271787AB8883F9893D51EC4B563B53"},
      // NIST SP 800-67 example: keys K1, K2, K3, plaintext "The qufck brown fox jump".
      {"0123456789ABCDEF23456789ABCDEF01456789ABCDEF0123", "54686520717566636B2062726F776E20666F78206A756D70",
       "A826FD8CE53B855FCCE21C8112256FE668D5C05DD9B6B900"},
  };
  for (auto const& v : vectors) {
    Bytes const k = hex(v.key);
    auto const k0 = reinterpret_cast<char const*>(k.data());
    Bytes x = hex(v.plain);  // in place: input and output the same buffer
    ASSERT_TRUE(k.size() == 24 ? zs::tripleDesEncrypt(x, k0, x) : zs::desEncrypt(x, k0, x));
    EXPECT_EQ(x, hex(v.cipher)) << v.key;
    ASSERT_TRUE(k.size() == 24 ? zs::tripleDesDecrypt(x, k0, x) : zs::desDecrypt(x, k0, x));
    EXPECT_EQ(x, hex(v.plain)) << v.key;
  }
}

TEST(Des, RivestIteratedTest) {
  // R. Rivest, "Testing implementations of DES" (1985): sixteen alternating
  // encryptions and decryptions, each keyed with its own input, reach the
  // published value; it exercises every S-box broadly.
  Bytes x = hex("9474B8E8C73BCA7D");
  for (int i = 0; i < 16; ++i) {
    std::string const k(x.begin(), x.end());
    ASSERT_TRUE(i % 2 == 0 ? zs::desEncrypt(x, k.data(), x) : zs::desDecrypt(x, k.data(), x));
  }
  EXPECT_EQ(x, hex("1B1A2DDB4C642438"));
}

// Round trips with raw key bytes (zero bytes are ordinary key material) and
// through the container cipher.
TEST(TripleDes, RoundTripsWithZeroKeyBytesAndInTheContainerCipher) {
  std::mt19937 rng(67);
  std::string k(24, '\0');
  for (std::size_t i = 8; i < k.size(); ++i) k[i] = static_cast<char>(rng());
  Bytes plain(808), sealed, opened;
  for (auto& b : plain) b = rng() & 0xFF;
  ASSERT_TRUE(zs::tripleDesEncrypt(plain, k.data(), sealed) &&
              zs::tripleDesDecrypt(sealed, k.data(), opened));
  EXPECT_TRUE(sealed != plain && opened == plain);
  ASSERT_TRUE(zs::encrypt(plain, sealed) && zs::decrypt(sealed, opened));
  EXPECT_TRUE(sealed != plain && opened == plain && zs::decrypt({}, opened) && opened.empty());
}

// Every cipher entry point refuses a length not a multiple of eight, logs it
// and leaves the output alone.
TEST(ContainerCipher, LengthNotMultipleOfEightIsRefusedAndLogged) {
  Bytes out{9, 9};
  char const* const k = "0123456789abcdefghijklmn";
  testing::internal::CaptureStderr();
  bool const any = zs::decrypt(Bytes(12), out) | zs::encrypt(Bytes(12), out) |
                   zs::tripleDesDecrypt(Bytes(12), k, out) | zs::tripleDesEncrypt(Bytes(1), k, out) |
                   zs::desDecrypt(Bytes(15), k, out) | zs::desEncrypt(Bytes(12), k, out);
  std::string const line = "ERROR/dep::decrypt(): Size of container is not divisible by 8.\n";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), line + line + line + line + line + line);
  EXPECT_TRUE(!any && out == (Bytes{9, 9}));
}

TEST(ContainerKey, PiecesAreRotatedThenPairedByExclusiveOr) {
  // 'q' = 113 rotates "qx" by one to "xq"; 'b' = 98 leaves "bd" as it is.
  char const* const example[] = {"qx", "bd"};
  EXPECT_EQ(zs::combineKeyPieces(example, 2), (std::string{'x' ^ 'b', 'q' ^ 'd'}));
  // 'a' = 97 = 1 (mod 3): "abc" -> "bca"; 'A' = 65 = 1 (mod 2): "A1" -> "1A".
  // Pairs stop at the shorter piece, an empty piece contributes nothing and
  // an unpaired last piece is ignored.
  char const* const uneven[] = {"abc", "A1", "", "zz", "odd"};
  EXPECT_EQ(zs::combineKeyPieces(uneven, 5), (std::string{'b' ^ '1', 'c' ^ 'A'}));
}

TEST(CipherDeathTest, NullKeyIsAPrecondition) {
  Bytes out;
  EXPECT_DEATH(
      zs::desEncrypt(Bytes(8), nullptr, out),
      zarn::test::fatalPattern("std::invalid_argument(\"des: null key\")", "libs/support/src/encryption"));
}
