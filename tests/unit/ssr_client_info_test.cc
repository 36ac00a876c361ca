#include "first_chunk/ssr_client_info.h"

#include <gtest/gtest.h>

#include "first_chunk/first_chunk_manager.h"
#include "tern/singleton.h"
#include "test_support.h"

using velora::SSRClientInfo;

namespace {

// Puts the process-wide values back however the test ends.
struct RestoreClientState {
  ~RestoreClientState() {
    SSRClientInfo::setWidth(0);
    SSRClientInfo::setHeight(0);
    SSRClientInfo::setSafeAreaHeight(0);
    SSRClientInfo::setDeviceRatio(0);
    SSRClientInfo::setLandscape(false);
    tern::Singleton<velora::FirstChunkManager>::getInstance().setEnable(false);
  }
};

}  // namespace

// The defaults as a fresh process has them: in this one, earlier tests (and
// the reset between tests) have written them.
VELORA_CHILD(ClientStateDefaults) {
  bool clientInfo =
      SSRClientInfo::getClientInfo()->toString() == "w=0&h=0&ls=0&sh=0&dpr=0.000000&dl=0";
  bool fccOff = !tern::Singleton<velora::FirstChunkManager>::getInstance().isEnable();
  return clientInfo && fccOff ? 0 : 1;
}

TEST(SSRClientInfo, AFreshProcessDescribesNoScreenAndKeepsTheCacheOff) {
  EXPECT_EQ(velora_test::runChild("ClientStateDefaults"), 0);
}

TEST(SSRClientInfo, HeaderTextFollowsTheScriptsValuesAndRecordsAreSnapshots) {
  RestoreClientState restore;
  auto before = SSRClientInfo::getClientInfo();
  SSRClientInfo::setWidth(1260);
  SSRClientInfo::setHeight(2720);
  SSRClientInfo::setSafeAreaHeight(120);
  SSRClientInfo::setDeviceRatio(3.25f);
  SSRClientInfo::setLandscape(true);
  EXPECT_EQ(SSRClientInfo::getClientInfo()->toString(),
            "w=1260&h=2720&ls=1&sh=120&dpr=3.250000&dl=0");
  // A record is a snapshot: later changes do not reach it.
  EXPECT_EQ(before->width(), 0);
}

TEST(FirstChunkManager, OneSwitchForTheProcess) {
  RestoreClientState restore;
  tern::Singleton<velora::FirstChunkManager>::getInstance().setEnable(true);
  EXPECT_TRUE(tern::Singleton<velora::FirstChunkManager>::getInstance().isEnable());
  tern::Singleton<velora::FirstChunkManager>::getInstance().setEnable(false);
  EXPECT_FALSE(tern::Singleton<velora::FirstChunkManager>::getInstance().isEnable());
}
