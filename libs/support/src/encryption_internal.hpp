// Container-key assembly, shared by encryption.cpp and its tests; not part of
// the exported interface.
#ifndef ZARN_SUPPORT_ENCRYPTION_INTERNAL_HPP
#define ZARN_SUPPORT_ENCRYPTION_INTERNAL_HPP

#include <cstddef>
#include <string>

namespace zarn {
namespace support {

// Key assembly from `count` text pieces taken in consecutive pairs: each piece
// is rotated left by (code of its first character) mod (its length), and the
// two rotated pieces of a pair are combined by exclusive-or over the length of
// the shorter; the pair results are concatenated. An odd last piece is ignored.
std::string combineKeyPieces(char const* const* pieces, std::size_t count);

}  // namespace support
}  // namespace zarn

#endif
