// Every test process gets its own data folder (children share their
// parent's), so stores never leak between tests or into the user's home.
#include <gtest/gtest.h>

#include <cstdlib>

#include "arkweb_host/rules.h"
#include "first_chunk/first_chunk_manager.h"
#include "first_chunk/ssr_client_info.h"
#include "gantry_ssr/host_config.h"
#include "intercept/intercept_manager.h"
#include "napi/sdk_init_info.h"
#include "origin_server.h"
#include "tern/singleton.h"
#include "test_support.h"

namespace {

// Every test starts from the module's defaults, whichever tests ran before it
// in this process (ctest runs each alone; a plain run runs them all in one).
class ResetBetweenTests : public ::testing::EmptyTestEventListener {
  void OnTestStart(const ::testing::TestInfo&) override {
    velora::InterceptManager& policy = velora::InterceptManager::getInstance();
    policy.setInterceptEnable(true);
    policy.setOnlyMainHtml(false);
    policy.setInterceptMimeType(false);
    policy.setWhiteUrlList({});
    policy.setWhiteMethods({});
    policy.setApiInfoAllowList({});
    tern::Singleton<velora::FirstChunkManager>::getInstance().setEnable(false);
    gantry_ssr::setRules({});
    velora::SdkInitInfo::getInstance().setDebug(false);
    velora::SSRClientInfo::setWidth(0);
    velora::SSRClientInfo::setHeight(0);
    velora::SSRClientInfo::setLandscape(false);
    velora::SSRClientInfo::setSafeAreaHeight(0);
    velora::SSRClientInfo::setDeviceRatio(0);
  }
};

// The host engine refuses the calls that break the ArkWeb SDK's rules, which
// a device would let through, and counts them: a test during which any
// happened fails, whichever code made them.
class NoRuleViolations : public ::testing::EmptyTestEventListener {
  void OnTestEnd(const ::testing::TestInfo&) override {
    arkweb_host::RuleViolations broken = arkweb_host::takeRuleViolations();
    EXPECT_EQ(broken.count, 0u) << "calls broke the ArkWeb SDK's rules; the first: "
                                << broken.first;
  }
};

}  // namespace

int main(int argc, char** argv) {
  int status = 0;
  if (velora_test::runChildFromEnvironment(&status)) {
    return status;  // a normal return: exit handlers and static destructors run
  }
  velora_test::TempDir dataDir;
  setenv("VELORA_DATA_DIR", dataDir.path().c_str(), 1);
  velora_test::ensureTestCertificates(dataDir.path());
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::UnitTest::GetInstance()->listeners().Append(new ResetBetweenTests);
  ::testing::UnitTest::GetInstance()->listeners().Append(new NoRuleViolations);
  return RUN_ALL_TESTS();
}
