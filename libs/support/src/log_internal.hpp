// Level-to-priority mapping of the log, shared by log.cpp and its tests; not
// part of the exported interface.
#ifndef ZARN_SUPPORT_LOG_INTERNAL_HPP
#define ZARN_SUPPORT_LOG_INTERNAL_HPP

#include "zarn/support/log.hpp"

namespace zarn {
namespace support {
namespace log {

// Android priority for a level; 0 (ANDROID_LOG_UNKNOWN) outside 1..5.
int priority(Level level);

}  // namespace log
}  // namespace support
}  // namespace zarn

#endif
