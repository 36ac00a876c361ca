// Binding a host web component to Velora: what the module asks of the engine
// and what it does when the engine says no.
#include <gtest/gtest.h>

#include <cstddef>

#include "arkweb_host/web_component.h"
#include "scheme/page_binding.h"
#include "scheme/scheme_handler.h"
#include "test_support.h"
#include "tide_logger/log_capture.h"
#include "web/arkweb_interface.h"

using arkweb_host::WebComponent;

namespace {

void bind(const std::string& tag) {
  auto info = std::make_shared<velora::WebInfo>();
  info->webTag = tag;
  velora::PageBinding::init(info);
  velora::PageBinding::attach(tag);
}

}  // namespace

TEST(PageBinding, TheDestroyNoticeIsAskedForOnlyWhenTheRecordHoldsIt) {
  tide::LogCapture log;
  auto older = WebComponent::create("older");
  // An engine whose record ends before onDestroy.
  arkweb_host::setComponentApiSize(offsetof(ArkWeb_ComponentAPI, onDestroy));
  bind("older");
  arkweb_host::setComponentApiSize(0);
  older->destroy();
  auto missing = log.find("componentApiNotFound", "Velora/Page");
  ASSERT_EQ(missing.size(), 1u);
  EXPECT_EQ(missing[0]["fields"]["method"], "destroy");
  EXPECT_TRUE(log.find("nativeDestroy").empty()) << "no notice was registered";
  // Such an engine leaves the binding to the process; released here as the
  // notice would have, so that the leak checker sees only real leaks.
  velora::OnArkWebDestroyCallback("older", nullptr);
  log.clear();

  auto current = WebComponent::create("current");
  bind("current");
  current->destroy();
  EXPECT_TRUE(log.find("componentApiNotFound").empty());
  auto destroyed = log.find("nativeDestroy");
  ASSERT_EQ(destroyed.size(), 1u);
  EXPECT_EQ(destroyed[0]["id"], "current");
}

TEST(PageBinding, AnAttachTheEngineRefusesIsLoggedAndALaterOneStillBinds) {
  tide::LogCapture log;
  velora_test::HilogCapture hilog;
  bind("early");  // before the engine has a component of that tag
  auto refused = log.find("setSchemeHandlerFailed", "Velora/web");
  ASSERT_EQ(refused.size(), 2u);
  EXPECT_EQ(refused[0]["level"], 1);
  EXPECT_EQ(refused[0]["id"], "early");
  EXPECT_EQ(refused[0]["fields"]["scheme"], "https");
  EXPECT_EQ(refused[1]["fields"]["scheme"], "http");
  EXPECT_FALSE(refused[0]["error"].get<std::string>().empty());
  EXPECT_TRUE(hilog.contains("set https scheme handler for early"));

  auto web = WebComponent::create("early");
  velora::PageBinding::attach("early");
  arkweb_host::LoadOptions options("http://127.0.0.1:1/page");
  EXPECT_TRUE(web->loadAndWait(options).intercepted);
  EXPECT_EQ(log.find("setSchemeHandlerFailed").size(), 2u);
  web->destroy();
  auto destroyed = log.find("nativeDestroy");
  ASSERT_EQ(destroyed.size(), 1u);
  EXPECT_EQ(destroyed[0]["fields"]["removed"], true);
}
