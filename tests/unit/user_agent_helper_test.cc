#include "user_agent/user_agent_helper.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "napi/sdk_init_info.h"
#include "tern/executor_service.h"
#include "test_support.h"

using velora::SdkInitInfo;
using velora::UserAgentHelper;

namespace {
constexpr char kDefaultStart[] = "Mozilla/5.0 (Phone; OpenHarmony 4.1) AppleWebKit/537.36";
}

VELORA_CHILD(UserAgentSet) {
  UserAgentHelper::getInstance().setUserAgent("X");
  return UserAgentHelper::getInstance().getUserAgent() == "X" ? 0 : 1;
}

VELORA_CHILD(UserAgentExpectX) {
  SdkInitInfo::getInstance().setAppTag("a");
  return UserAgentHelper::getInstance().getUserAgent() == "X" ? 0 : 1;
}

// The default is composed once per process, on first use.
VELORA_CHILD(UserAgentDefault) {
  SdkInitInfo::getInstance().setAppTag("a");
  SdkInitInfo::getInstance().setAppVersion("1");
  std::string ua = UserAgentHelper::getInstance().getUserAgent();
  bool ok = ua.rfind(kDefaultStart, 0) == 0 && ua.size() > 19 &&
            ua.substr(ua.size() - 19) == "Mobile ZenoApp(a/1)";
  if (!ok)
    std::fprintf(stderr, "default user agent: %s\n", ua.c_str());
  return ok ? 0 : 1;
}

TEST(UserAgentHelper, DefaultIsComposedFromTheAppTagAndVersion) {
  EXPECT_EQ(velora_test::runChild("UserAgentDefault"), 0);
}

TEST(UserAgentHelper, SetTextIsUsedAtOnceAndByTheNextProcess) {
  ASSERT_EQ(velora_test::runChild("UserAgentSet"), 0);
  EXPECT_EQ(velora_test::runChild("UserAgentExpectX"), 0);
  // A script text is used exactly, without the app suffix.
  UserAgentHelper::getInstance().setUserAgent("Custom/2");
  EXPECT_EQ(UserAgentHelper::getInstance().getUserAgent(), "Custom/2");
}
