#include "first_chunk/ssr_client_info.h"

#include <gtest/gtest.h>

#include "first_chunk/first_chunk_manager.h"
#include "tern/singleton.h"

using velora::SSRClientInfo;

TEST(SSRClientInfo, HeaderTextBeforeAndAfterTheScriptSetsValues) {
  EXPECT_EQ(SSRClientInfo::getClientInfo()->toString(), "w=0&h=0&ls=0&sh=0&dpr=0.000000&dl=0");
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

TEST(FirstChunkManager, OneSwitchForTheProcessOffByDefault) {
  auto& manager = tern::Singleton<velora::FirstChunkManager>::getInstance();
  EXPECT_FALSE(manager.isEnable());
  manager.setEnable(true);
  EXPECT_TRUE(tern::Singleton<velora::FirstChunkManager>::getInstance().isEnable());
}
