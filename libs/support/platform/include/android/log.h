/* The two Android log entry points used by libzarn_support, for builds off
 * Android; android_log_shim.cpp writes them to stderr. On Android the NDK's
 * own <android/log.h> and liblog are used instead. */
#ifndef ZARN_PLATFORM_ANDROID_LOG_H
#define ZARN_PLATFORM_ANDROID_LOG_H

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum android_LogPriority {
  ANDROID_LOG_UNKNOWN = 0,
  ANDROID_LOG_DEFAULT,
  ANDROID_LOG_VERBOSE,
  ANDROID_LOG_DEBUG,
  ANDROID_LOG_INFO,
  ANDROID_LOG_WARN,
  ANDROID_LOG_ERROR,
  ANDROID_LOG_FATAL,
  ANDROID_LOG_SILENT
} android_LogPriority;

// NOLINTNEXTLINE(bugprone-reserved-identifier): the platform's name
int __android_log_write(int prio, const char* tag, const char* text);
// NOLINTNEXTLINE(bugprone-reserved-identifier): the platform's name
int __android_log_vprint(int prio, const char* tag, const char* fmt, va_list ap);

#ifdef __cplusplus
}
#endif

#endif
