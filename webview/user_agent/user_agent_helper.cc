#include "user_agent/user_agent_helper.h"

#include <memory>
#include <utility>

#include "napi/sdk_init_info.h"
#include "tern/cache_service.h"
#include "tern/executor_service.h"

namespace velora {
namespace {

constexpr char kStoreKey[] = "userAgent";
constexpr char kDefaultPrefix[] =
    "Mozilla/5.0 (Phone; OpenHarmony 4.1) AppleWebKit/537.36 (KHTML, like Gecko) "
    "Chrome/114.0.0.0 Safari/537.36 ArkWeb/4.1.6.1 Mobile";

// Opened at load time, lives for the process.
const std::shared_ptr<tern::ICacheService> STORAGE = tern::ICacheService::of("Velora");

}  // namespace

// Never destroyed: the engine's and the carriers' threads may still read it
// while the process exits.
UserAgentHelper& UserAgentHelper::getInstance() {
  static UserAgentHelper* instance = new UserAgentHelper();
  return *instance;
}

void UserAgentHelper::setUserAgent(std::string userAgent) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    userAgent_ = userAgent;
  }
  tern::ExecutorService::of("Velora", TERN_HERE).post(tern::Fiber([text = std::move(userAgent)] {
    STORAGE->put(kStoreKey, text);
  }));
}

std::string UserAgentHelper::getUserAgent() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (userAgent_.empty()) {
    std::optional<std::string> stored = STORAGE->get(kStoreKey);
    if (stored && !stored->empty())
      userAgent_ = *stored;
  }
  if (userAgent_.empty()) {
    // Not stored: the application version may change between runs.
    const SdkInitInfo& sdk = SdkInitInfo::getInstance();
    userAgent_ = std::string(kDefaultPrefix) + " ZenoApp(" + sdk.getAppTag() + "/" +
                 sdk.getAppVersion() + ")";
  }
  return userAgent_;
}

}  // namespace velora
