// HiLog: plain log lines. Same declarations as the device's <hilog/log.h>.
#ifndef HIVIEWDFX_HILOG_H
#define HIVIEWDFX_HILOG_H

#include <stdarg.h>
#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef LOG_DOMAIN
#define LOG_DOMAIN 0
#endif

#ifndef LOG_TAG
#define LOG_TAG NULL
#endif

typedef enum {
  LOG_APP = 0,
} LogType;

typedef enum {
  LOG_DEBUG = 3,
  LOG_INFO = 4,
  LOG_WARN = 5,
  LOG_ERROR = 6,
  LOG_FATAL = 7,
} LogLevel;

// GCC does not know the os_log format family and would warn on every
// "%{public}s"; only clang gets the attribute.
#if defined(__clang__)
#define HILOG_FORMAT_ATTR __attribute__((__format__(os_log, 5, 6)))
#else
#define HILOG_FORMAT_ATTR
#endif

// Writes one line. Each conversion may carry {public} or {private} between '%'
// and the specifier; an argument without {public} is printed as "<private>".
// Tags longer than 31 bytes are cut, lines longer than 4096 bytes are cut.
// Returns the number of bytes written, or -1 when the line was dropped.
int OH_LOG_Print(LogType type,
                 LogLevel level,
                 unsigned int domain,
                 const char* tag,
                 const char* fmt,
                 ...) HILOG_FORMAT_ATTR;

int OH_LOG_VPrint(LogType type,
                  LogLevel level,
                  unsigned int domain,
                  const char* tag,
                  const char* fmt,
                  va_list ap);

bool OH_LOG_IsLoggable(unsigned int domain, const char* tag, LogLevel level);

// Called with every line that passes the level filter, after formatting, on
// the logging thread. Pass NULL to remove it.
typedef void (*LogCallback)(const LogType type,
                            const LogLevel level,
                            const unsigned int domain,
                            const char* tag,
                            const char* msg);
void OH_LOG_SetCallback(LogCallback callback);

// Lines below this level are dropped.
void OH_LOG_SetMinLogLevel(LogLevel level);

#define OH_LOG_DEBUG(type, ...) \
  ((void)OH_LOG_Print((type), LOG_DEBUG, LOG_DOMAIN, LOG_TAG, __VA_ARGS__))
#define OH_LOG_INFO(type, ...) \
  ((void)OH_LOG_Print((type), LOG_INFO, LOG_DOMAIN, LOG_TAG, __VA_ARGS__))
#define OH_LOG_WARN(type, ...) \
  ((void)OH_LOG_Print((type), LOG_WARN, LOG_DOMAIN, LOG_TAG, __VA_ARGS__))
#define OH_LOG_ERROR(type, ...) \
  ((void)OH_LOG_Print((type), LOG_ERROR, LOG_DOMAIN, LOG_TAG, __VA_ARGS__))
#define OH_LOG_FATAL(type, ...) \
  ((void)OH_LOG_Print((type), LOG_FATAL, LOG_DOMAIN, LOG_TAG, __VA_ARGS__))

#ifdef __cplusplus
}
#endif

#endif  // HIVIEWDFX_HILOG_H
