// Byte-level protection of the assistance-data container: a CRC-32 over the
// plaintext and a triple-DES encipherment of the padded container.
//
// The block cipher is DES (FIPS 46-3) in electronic-codebook mode: no chaining,
// no IV, no padding. Bytes map to bits most significant bit first, as in the
// FIPS test vectors. Keys are raw bytes (embedded zero bytes allowed); the
// parity bit of each key byte is ignored, as DES does.
#ifndef ZARN_SUPPORT_ENCRYPTION_HPP
#define ZARN_SUPPORT_ENCRYPTION_HPP

#include <cstdint>

#include "zarn/core/records.hpp"
#include "zarn/support/export.hpp"

namespace zarn {
namespace support {

// CRC-32 of IEEE 802.3 (reflected, polynomial 0x04C11DB7, register preset to
// 0xFFFFFFFF, result complemented) over the bytes [begin, end). 0 for an
// empty range.
ZARN_EXPORT std::uint32_t computeCrc32(unsigned char const* begin, unsigned char const* end);

// Single DES over `in` with the 8 key bytes at `key`, block by block into
// `out`. `in` must hold a multiple of 8 bytes: otherwise the call logs
// "Size of container is not divisible by 8." under "dep::decrypt()", leaves
// `out` untouched and returns false. On success `out` is replaced by the
// result (it may be the same object as `in`) and the call returns true.
ZARN_EXPORT bool desEncrypt(BinaryData const& in, char const* key, BinaryData& out);
ZARN_EXPORT bool desDecrypt(BinaryData const& in, char const* key, BinaryData& out);

// Triple DES with the 24 key bytes at `key` as keys K1, K2, K3 (8 bytes each):
// encryption is E(K3) after D(K2) after E(K1); decryption is its inverse,
// D(K1) after E(K2) after D(K3). Length rule and results as for desEncrypt.
ZARN_EXPORT bool tripleDesEncrypt(BinaryData const& in, char const* key, BinaryData& out);
ZARN_EXPORT bool tripleDesDecrypt(BinaryData const& in, char const* key, BinaryData& out);

// Triple DES with the container key of this build (assembled from the
// build-time key pieces at each call, never kept). Containers written by a
// build are readable only by builds with the same pieces.
ZARN_EXPORT bool encrypt(BinaryData const& in, BinaryData& out);
ZARN_EXPORT bool decrypt(BinaryData const& in, BinaryData& out);

}  // namespace support
}  // namespace zarn

#endif
