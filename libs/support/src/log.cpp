#include "zarn/support/log.hpp"

#include "log_internal.hpp"

#include <android/log.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>

#include "zarn/support/utility/mutex.hpp"

namespace zarn {
namespace support {
namespace log {
namespace {

// The one piece of global state of the library: it keeps lines of different
// threads from interleaving.
utility::mutex& logMutex() {
  static utility::mutex m;
  return m;
}

std::string const separators = " \t\v\f\r\n";

class Guard {
 public:
  Guard() { logMutex().lock(); }
  ~Guard() { logMutex().unlock(); }
  Guard(Guard const&) = delete;
  Guard& operator=(Guard const&) = delete;
};

void writeFormatted(int prio, char const* tag, char const* format, ...) {
  va_list args;
  va_start(args, format);
  __android_log_vprint(prio, tag, format, args);
  va_end(args);
}

}  // namespace

int priority(Level level) {
  switch (level) {
    case DEBUG:
      return ANDROID_LOG_DEBUG;
    case INFO:
      return ANDROID_LOG_INFO;
    case WARNING:
      return ANDROID_LOG_WARN;
    case ERROR:
      return ANDROID_LOG_ERROR;
    case FATAL:
      return ANDROID_LOG_FATAL;
  }
  return ANDROID_LOG_UNKNOWN;
}

void printFormatted(Level level, char const* tag, char const* format, ...) {
  if (format == nullptr || format[0] == '\0') return;
  va_list args;
  va_start(args, format);
  {
    Guard guard;
    __android_log_vprint(priority(level), tag, format, args);
  }
  va_end(args);
}

void print(Level level, char const* tag, char const* text) {
  if (text == nullptr || text[0] == '\0') return;
  std::string line;
  std::string const in(text);
  std::string::size_type pos = in.find_first_not_of(separators);
  while (pos != std::string::npos) {
    std::string::size_type const end = in.find_first_of(separators, pos);
    if (!line.empty()) line += ' ';
    line.append(in, pos, end == std::string::npos ? std::string::npos : end - pos);
    pos = end == std::string::npos ? end : in.find_first_not_of(separators, end);
  }
  Guard guard;
  __android_log_write(priority(level), tag, line.c_str());
}

void fatal(char const* expression, char const* file, int line) {
  std::string path(file ? file : "");
  static char const cppEnding[] = ".cpp";
  if (path.size() > 4 && path.compare(path.size() - 4, 4, cppEnding) == 0) path.resize(path.size() - 4);
  // try_lock: the failure may come from the log mutex itself, held by this thread.
  bool const locked = logMutex().try_lock();
  writeFormatted(priority(FATAL), "ZARNLIB", "ZARN_THROW(%s) at %s:%d. Calling std::abort().", expression,
                 path.c_str(), line);
  if (locked) logMutex().unlock();
  std::abort();
}

}  // namespace log
}  // namespace support
}  // namespace zarn
