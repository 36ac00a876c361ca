// Log lines with hostile content: tags, levels and arguments from pages (URLs,
// headers, messages) through the formats the module uses, privacy flags
// included.
#include <cstdint>
#include <string>

#include "hilog/log.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2)
    return 0;
  // Each takes a prefix of the arguments below, with their types.
  static const char* kFormats[] = {
      "%{public}s",
      "%{public}s:send request, url:%{public}s",
      "%{private}s %{public}s %{public}d",
      "%{public}s refused: %{public}s (%d) %{public}s %{public}zu bytes, %{public}llu %p",
      "%{public}-40s|%5.3s|%{public}x",
      "100%% of %{public}s",
      "%{public}",
  };
  const char* format = kFormats[data[0] % (sizeof(kFormats) / sizeof(kFormats[0]))];
  LogLevel level = static_cast<LogLevel>(LOG_DEBUG + data[1] % 5);
  std::string text(reinterpret_cast<const char*>(data + 2), size - 2);
  std::string tag = text.substr(0, text.size() / 3);
  std::string argument = text.substr(text.size() / 3);
  OH_LOG_Print(LOG_APP, level, 0, tag.c_str(), format, argument.c_str(), tag.c_str(),
               static_cast<int>(size), argument.c_str(), size, static_cast<unsigned long long>(size),
               static_cast<void*>(nullptr));
  return 0;
}
