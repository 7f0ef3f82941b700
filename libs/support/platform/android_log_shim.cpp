// stderr stand-in for liblog off Android: one "PRIORITY/TAG: message" line per call.
#include <android/log.h>

#include <cstdio>

namespace {

char const* priorityName(int prio) {
  switch (prio) {
    case ANDROID_LOG_VERBOSE:
      return "VERBOSE";
    case ANDROID_LOG_DEBUG:
      return "DEBUG";
    case ANDROID_LOG_INFO:
      return "INFO";
    case ANDROID_LOG_WARN:
      return "WARN";
    case ANDROID_LOG_ERROR:
      return "ERROR";
    case ANDROID_LOG_FATAL:
      return "FATAL";
    default:
      return "UNKNOWN";
  }
}

}  // namespace

// NOLINTNEXTLINE(bugprone-reserved-identifier): the platform's name
extern "C" int __android_log_write(int prio, const char* tag, const char* text) {
  return std::fprintf(stderr, "%s/%s: %s\n", priorityName(prio), tag ? tag : "", text ? text : "");
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): the platform's name
extern "C" int __android_log_vprint(int prio, const char* tag, const char* fmt, va_list ap) {
  // One fprintf per piece is fine: the caller holds the log mutex.
  int n = std::fprintf(stderr, "%s/%s: ", priorityName(prio), tag ? tag : "");
  n += std::vfprintf(stderr, fmt, ap);
  n += std::fprintf(stderr, "\n");
  return n;
}
