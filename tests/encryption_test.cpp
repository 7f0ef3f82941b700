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

namespace {

Bytes hex(std::string const& text) {
  Bytes out;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2)
    out.push_back(std::stoi(text.substr(i, 2), nullptr, 16));
  return out;
}

std::string key(std::string const& hexText) {
  Bytes const b = hex(hexText);
  return std::string(b.begin(), b.end());
}

Bytes text(std::string const& s) {
  return Bytes(s.begin(), s.end());
}

std::uint32_t crc(Bytes const& b) {
  return zs::computeCrc32(b.data(), b.data() + b.size());
}

Bytes randomBytes(std::size_t n, std::mt19937& rng) {
  Bytes out(n);
  for (auto& b : out) b = rng() & 0xFF;
  return out;
}

}  // namespace

TEST(Crc32, PublishedCheckValuesAndResidue) {
  EXPECT_EQ(crc(text("123456789")), 0xCBF43926u);
  EXPECT_EQ(crc(text("The quick brown fox jumps over the lazy dog")), 0x414FA339u);
  EXPECT_EQ(crc({}), 0u);
  EXPECT_EQ(zs::computeCrc32(nullptr, nullptr), 0u);
  // Appending the CRC (least significant byte first) gives the fixed residue
  // 0x2144DF1C of this CRC, whatever the message.
  std::mt19937 rng(802);
  for (std::size_t n : {1u, 7u, 64u, 1000u}) {
    Bytes b = randomBytes(n, rng);
    std::uint32_t const c = crc(b);
    for (int i = 0; i < 4; ++i) b.push_back((c >> (8 * i)) & 0xFF);
    EXPECT_EQ(crc(b), 0x2144DF1Cu) << n;
  }
}

struct DesVector {
  char const* key;
  char const* plain;
  char const* cipher;
};

TEST(Des, KnownAnswers) {
  DesVector const vectors[] = {
      {"133457799BBCDFF1", "0123456789ABCDEF", "85E813540F0AB405"},
      {"0E329232EA6D0D73", "8787878787878787", "0000000000000000"},
      // NIST SP 800-17, variable plaintext and variable key tests.
      {"0101010101010101", "8000000000000000", "95F8A5E5DD31D900"},
      {"0101010101010101", "0000000000000001", "166B40B44ABA4BD6"},
      {"8001010101010101", "0000000000000000", "95A8D72813DAA94D"},
      // FIPS 81 electronic-codebook example: three blocks, no chaining.
      {"0123456789ABCDEF", "4E6F77206973207468652074696D6520666F7220616C6C20",
       "3FA40E8A984D48156A271787AB8883F9893D51EC4B563B53"},
  };
  for (DesVector const& v : vectors) {
    Bytes out;
    ASSERT_TRUE(zs::desEncrypt(hex(v.plain), key(v.key).data(), out));
    EXPECT_EQ(out, hex(v.cipher)) << v.key;
    ASSERT_TRUE(zs::desDecrypt(hex(v.cipher), key(v.key).data(), out));
    EXPECT_EQ(out, hex(v.plain)) << v.key;
  }
}

TEST(Des, RivestIteratedTest) {
  // R. Rivest, "Testing implementations of DES" (1985): sixteen alternating
  // encryptions and decryptions, each keyed with its own input, reach the
  // published value; it exercises every S-box broadly.
  Bytes x = hex("9474B8E8C73BCA7D");
  for (int i = 0; i < 16; ++i) {
    std::string const k(x.begin(), x.end());
    Bytes const in = x;
    ASSERT_TRUE(i % 2 == 0 ? zs::desEncrypt(in, k.data(), x) : zs::desDecrypt(in, k.data(), x));
  }
  EXPECT_EQ(x, hex("1B1A2DDB4C642438"));
}

TEST(TripleDes, KnownAnswerAndDegenerateKey) {
  // NIST SP 800-67 example: keys K1, K2, K3 and plaintext "The qufck brown fox jump".
  std::string const k = key("0123456789ABCDEF23456789ABCDEF01456789ABCDEF0123");
  Bytes const cipher = hex("A826FD8CE53B855FCCE21C8112256FE668D5C05DD9B6B900");
  Bytes out;
  ASSERT_TRUE(zs::tripleDesEncrypt(text("The qufck brown fox jump"), k.data(), out));
  EXPECT_EQ(out, cipher);
  ASSERT_TRUE(zs::tripleDesDecrypt(cipher, k.data(), out));
  EXPECT_EQ(out, text("The qufck brown fox jump"));
  // With K1 = K2 = K3 the middle decryption cancels: single DES.
  std::string const same = key("133457799BBCDFF1133457799BBCDFF1133457799BBCDFF1");
  ASSERT_TRUE(zs::tripleDesEncrypt(hex("0123456789ABCDEF"), same.data(), out));
  EXPECT_EQ(out, hex("85E813540F0AB405"));
}

// Round trips in place, with raw key bytes (zero bytes are ordinary key
// material) and through the container cipher.
TEST(TripleDes, RoundTripsInPlaceAndInTheContainerCipher) {
  std::mt19937 rng(67);
  std::string k(24, '\0');
  for (std::size_t i = 8; i < k.size(); ++i) k[i] = static_cast<char>(rng());
  for (std::size_t n : {8u, 808u, 4096u}) {
    Bytes const plain = randomBytes(n, rng);
    Bytes buffer = plain, sealed, opened;
    ASSERT_TRUE(zs::tripleDesEncrypt(buffer, k.data(), buffer));
    EXPECT_NE(buffer, plain);
    ASSERT_TRUE(zs::tripleDesDecrypt(buffer, k.data(), buffer));
    EXPECT_EQ(buffer, plain);
    ASSERT_TRUE(zs::encrypt(plain, sealed) && zs::decrypt(sealed, opened));
    EXPECT_TRUE(sealed != plain && opened == plain) << n;
  }
  Bytes out{1, 2, 3};
  EXPECT_TRUE(zs::decrypt({}, out) && out.empty());
}

TEST(ContainerCipher, LengthNotMultipleOfEightIsRefusedAndLogged) {
  Bytes const twelve(12, 0x11);
  std::string const k(24, 'k');
  std::string const line = "ERROR/dep::decrypt(): Size of container is not divisible by 8.\n";
  Bytes out{9, 9};
  testing::internal::CaptureStderr();
  EXPECT_FALSE(zs::decrypt(twelve, out));
  EXPECT_FALSE(zs::encrypt(twelve, out));
  EXPECT_FALSE(zs::tripleDesDecrypt(twelve, k.data(), out));
  EXPECT_FALSE(zs::tripleDesEncrypt(Bytes(1), k.data(), out));
  EXPECT_FALSE(zs::desDecrypt(Bytes(15), k.data(), out));
  EXPECT_FALSE(zs::desEncrypt(twelve, k.data(), out));
  std::string expected;
  for (int i = 0; i < 6; ++i) expected += line;
  EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
  EXPECT_EQ(out, (Bytes{9, 9}));
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
