// Remote configuration values as the configuration service delivers them:
// five texts, any bytes. Applied or refused, never a crash.
#include <cstdint>
#include <string>
#include <vector>

#include "intercept/intercept_manager.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The input is the five values separated by NUL bytes.
  std::vector<std::string> values(5);
  size_t field = 0;
  for (size_t i = 0; i < size && field < values.size(); ++i) {
    if (data[i] == 0)
      ++field;
    else
      values[field] += static_cast<char>(data[i]);
  }
  static const char* kKeys[] = {"enable", "onlyMainHtml", "interceptMimeType", "whiteList",
                                "methodList"};
  velora::InterceptManager& manager = velora::InterceptManager::getInstance();
  manager.updateTesseraConfig("remote", [&values](const std::string& key) {
    for (size_t i = 0; i < values.size(); ++i) {
      if (key == kKeys[i])
        return values[i];
    }
    return std::string();
  });
  auto policy = manager.policy();
  (void)policy->isInWhiteList(values[0]);
  (void)policy->isInWhiteMethod(values[1]);
  return 0;
}
