// Host HiLog: formats lines like the device (privacy flags included) and
// writes them to $VELORA_HILOG (default stderr) at $VELORA_HILOG_LEVEL and up.
#include "hilog/log.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "common/host_env.h"

namespace {

constexpr size_t kMaxTagBytes = 31;
constexpr size_t kMaxLineBytes = 4096;

LogLevel levelFromEnv() {
  std::string name = host::envOr("VELORA_HILOG_LEVEL", "info");
  if (name == "debug")
    return LOG_DEBUG;
  if (name == "warn")
    return LOG_WARN;
  if (name == "error")
    return LOG_ERROR;
  if (name == "fatal")
    return LOG_FATAL;
  return LOG_INFO;
}

std::atomic<int>& minLevel() {
  static std::atomic<int> level{levelFromEnv()};
  return level;
}

std::atomic<LogCallback> g_callback{nullptr};

host::LineSink& sink() {
  // Never destroyed: destructors of other statics log while the process exits.
  static host::LineSink* sink = new host::LineSink(host::envOr("VELORA_HILOG", "-"));
  return *sink;
}

char levelLetter(LogLevel level) {
  switch (level) {
    case LOG_DEBUG:
      return 'D';
    case LOG_INFO:
      return 'I';
    case LOG_WARN:
      return 'W';
    case LOG_ERROR:
      return 'E';
    case LOG_FATAL:
      return 'F';
  }
  return '?';
}

// Formats one conversion (conversion = "%...X" without privacy flag) taking its
// argument(s) from ap.
void formatOne(std::string& out,
               const std::string& conversion,
               char conv,
               const std::string& length,
               bool hidden,
               va_list& ap) {
  char buf[512];
  int n = 0;
  // Star width/precision arguments come first.
  int stars = 0;
  for (char c : conversion)
    stars += (c == '*');
  int starValues[2] = {0, 0};
  for (int i = 0; i < stars && i < 2; ++i)
    starValues[i] = va_arg(ap, int);
  auto fmt = [&](auto value) {
    if (stars == 0)
      return std::snprintf(buf, sizeof buf, conversion.c_str(), value);
    if (stars == 1)
      return std::snprintf(buf, sizeof buf, conversion.c_str(), starValues[0], value);
    return std::snprintf(buf, sizeof buf, conversion.c_str(), starValues[0], starValues[1], value);
  };
  switch (conv) {
    case 'd':
    case 'i':
      if (length == "ll" || length == "j")
        n = fmt(va_arg(ap, long long));
      else if (length == "l" || length == "z" || length == "t")
        n = fmt(va_arg(ap, long));
      else
        n = fmt(va_arg(ap, int));
      break;
    case 'u':
    case 'o':
    case 'x':
    case 'X':
      if (length == "ll" || length == "j")
        n = fmt(va_arg(ap, unsigned long long));
      else if (length == "l" || length == "z" || length == "t")
        n = fmt(va_arg(ap, unsigned long));
      else
        n = fmt(va_arg(ap, unsigned));
      break;
    case 'c':
      n = fmt(va_arg(ap, int));
      break;
    case 'p':
      n = fmt(va_arg(ap, void*));
      break;
    case 's': {
      const char* s = va_arg(ap, const char*);
      if (hidden)
        break;
      // Strings may be longer than buf: format directly.
      if (stars == 0 && conversion == "%s") {
        out += s ? s : "(null)";
        return;
      }
      n = fmt(s ? s : "(null)");
      break;
    }
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
      if (length == "L")
        n = fmt(va_arg(ap, long double));
      else
        n = fmt(va_arg(ap, double));
      break;
    case 'n':
      // Writes through a pointer on the device; here it is only skipped.
      va_arg(ap, void*);
      return;
    default:
      return;
  }
  if (hidden) {
    out += "<private>";
  } else if (n > 0) {
    out.append(buf, std::min(static_cast<size_t>(n), sizeof buf - 1));
  }
}

std::string formatMessage(const char* fmt, va_list& ap) {
  std::string out;
  for (const char* p = fmt; *p;) {
    if (*p != '%') {
      out += *p++;
      continue;
    }
    ++p;
    if (*p == '%') {
      out += '%';
      ++p;
      continue;
    }
    bool hidden = true;  // unflagged arguments are private, as in release logs
    if (*p == '{') {
      const char* close = std::strchr(p, '}');
      if (!close)
        break;
      std::string flag(p + 1, close);
      hidden = (flag != "public");
      p = close + 1;
    }
    std::string conversion = "%";
    while (*p && std::strchr("-+ #0", *p))
      conversion += *p++;
    while (*p && (std::isdigit(static_cast<unsigned char>(*p)) || *p == '*'))
      conversion += *p++;
    if (*p == '.') {
      conversion += *p++;
      while (*p && (std::isdigit(static_cast<unsigned char>(*p)) || *p == '*'))
        conversion += *p++;
    }
    std::string length;
    while (*p && std::strchr("hljztL", *p))
      length += *p++;
    if (!*p)
      break;
    char conv = *p++;
    conversion += length;
    conversion += conv;
    formatOne(out, conversion, conv, length, hidden, ap);
  }
  return out;
}

std::string timestamp() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  struct tm tm;
  localtime_r(&tv.tv_sec, &tm);
  char buf[32];
  std::snprintf(buf, sizeof buf, "%02d-%02d %02d:%02d:%02d.%03d", tm.tm_mon + 1, tm.tm_mday,
                tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(tv.tv_usec / 1000));
  return buf;
}

}  // namespace

extern "C" {

bool OH_LOG_IsLoggable(unsigned int /*domain*/, const char* /*tag*/, LogLevel level) {
  return level >= minLevel().load(std::memory_order_relaxed);
}

void OH_LOG_SetCallback(LogCallback callback) {
  g_callback.store(callback);
}

void OH_LOG_SetMinLogLevel(LogLevel level) {
  minLevel().store(level);
}

int OH_LOG_VPrint(LogType type,
                  LogLevel level,
                  unsigned int domain,
                  const char* tag,
                  const char* fmt,
                  va_list ap) {
  if (!fmt || !OH_LOG_IsLoggable(domain, tag, level)) {
    return -1;
  }
  va_list copy;
  va_copy(copy, ap);
  std::string message = formatMessage(fmt, copy);
  va_end(copy);
  std::string shortTag(tag ? tag : "");
  if (shortTag.size() > kMaxTagBytes)
    shortTag.resize(kMaxTagBytes);

  if (LogCallback callback = g_callback.load()) {
    callback(type, level, domain, shortTag.c_str(), message.c_str());
  }
  char head[96];
  std::snprintf(head, sizeof head, "%s %6d %6ld %c A%05X/", timestamp().c_str(),
                static_cast<int>(getpid()), static_cast<long>(syscall(SYS_gettid)),
                levelLetter(level), domain & 0xFFFFF);
  std::string line = head + shortTag + ": " + message;
  if (line.size() > kMaxLineBytes)
    line.resize(kMaxLineBytes);
  sink().writeLine(line);
  return static_cast<int>(line.size());
}

int OH_LOG_Print(LogType type,
                 LogLevel level,
                 unsigned int domain,
                 const char* tag,
                 const char* fmt,
                 ...) {
  va_list ap;
  va_start(ap, fmt);
  int written = OH_LOG_VPrint(type, level, domain, tag, fmt, ap);
  va_end(ap);
  return written;
}

}  // extern "C"
