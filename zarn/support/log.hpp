// Logging and the fatal-assertion path of libzarn_support.
//
// Lines go to the Android log (tag "ZARNLIB" for fatal assertions, a module
// tag otherwise). Levels 1..5 map to ANDROID_LOG_DEBUG..ANDROID_LOG_FATAL.
#ifndef ZARN_SUPPORT_LOG_HPP
#define ZARN_SUPPORT_LOG_HPP

#include "zarn/support/export.hpp"

namespace zarn {
namespace support {
namespace log {

enum Level : unsigned { DEBUG = 1, INFO = 2, WARNING = 3, ERROR = 4, FATAL = 5 };

// printf-style line, passed unchanged to the platform; nothing for an empty format.
ZARN_EXPORT void printFormatted(Level level, char const* tag, char const* format, ...)
    __attribute__((format(printf, 3, 4)));

// Writes `text` with leading and trailing separators removed and every inner
// run of separators (blank, \t, \v, \f, \r, \n) folded to one blank.
ZARN_EXPORT void print(Level level, char const* tag, char const* text);

// Logs the fatal line and aborts; used only through ZARN_THROW.
[[noreturn]] ZARN_EXPORT void fatal(char const* expression, char const* file, int line);

}  // namespace log
}  // namespace support
}  // namespace zarn

// Precondition failure: logs "ZARN_THROW(<expression>) at <file>:<line>.
// Calling std::abort()." at level 5 under "ZARNLIB" and aborts. The expression
// is never evaluated; nothing is thrown. The build maps __FILE__ to the path
// relative to the repository root; a ".cpp" ending is not printed.
#define ZARN_THROW(expression) ::zarn::support::log::fatal(#expression, __FILE__, __LINE__)

#endif
