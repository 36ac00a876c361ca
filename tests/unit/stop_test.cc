// Stopping means stopping: a page's stop, a removed prefetch and the end of
// the process each end the transfers nobody wants any more, and nothing that
// somebody still reads.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <thread>

#include "bound_page.h"
#include "origin_server.h"
#include "prefetch/prefetch_network.h"
#include "strata/host_config.h"
#include "strata/strata_core.h"
#include "test_support.h"
#include "transport_param.h"

using arkweb_host::LoadOptions;
using arkweb_host::LoadResult;
using velora::PrefetchNetwork;
using velora_test::BoundPage;
using velora_test::OriginServer;

namespace {

// 200 MiB at about 30 MB/s: seconds of downloading, if nothing stops it.
const std::string kLongBody = "/bytes/209715200?chunk=65536&delay=2";

// True when the origin stopped writing to `path` short of the whole body:
// two samples 300 ms apart agree, within 15 s.
bool stoppedSending(const OriginServer& origin, const std::string& path) {
  int64_t before = -1;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
  while (std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    int64_t now = origin.sentBytes(path);
    if (now == before)
      return now < (int64_t{200} << 20);
    before = now;
  }
  return false;
}

std::string startPrefetch(const std::string& url) {
  auto request = std::make_shared<velora::PrefetchRequest>(url);
  request->setMethod("GET");
  return PrefetchNetwork::startPrefetch(request, nullptr);
}

class StopOver : public velora_test::OverEachTransport {};

}  // namespace

TEST_P(StopOver, AStoppedPageStopsItsTransfer) {
  BoundPage page("page");
  LoadOptions options(origin.url(kLongBody));
  options.cancelAfterMs = 200;
  options.keepBody = false;
  LoadResult result = page.load(options);
  EXPECT_EQ(result.error, ARKWEB_ERR_ABORTED);
  EXPECT_TRUE(stoppedSending(origin, "/bytes/209715200"));

  // Many stopped loads of a server that never finishes leave no sockets behind.
  std::atomic<int> done{0};
  for (int i = 0; i < 100; ++i) {
    LoadOptions stalled(origin.url("/stall?after=10"));
    stalled.cancelAfterMs = 50;
    page.web().load(stalled, [&](LoadResult) { ++done; });
  }
  ASSERT_TRUE(velora_test::waitFor([&] { return done == 100; }, std::chrono::seconds(20)));
  EXPECT_TRUE(velora_test::waitFor([&] { return origin.connections() <= 2; }));
}

TEST_P(StopOver, ARemovedPrefetchStopsUnlessAPageClaimedIt) {
  std::string unclaimed = startPrefetch(origin.url(kLongBody));
  ASSERT_TRUE(velora_test::waitFor([&] { return origin.sentBytes("/bytes/209715200") > 0; }));
  PrefetchNetwork::removePrefetch(unclaimed);
  EXPECT_TRUE(stoppedSending(origin, "/bytes/209715200"));

  // Claimed and still streaming: removing the id (or the component going
  // away) leaves the page its response.
  const std::string url = origin.url("/bytes/1048576?chunk=65536&delay=20");
  std::string id = startPrefetch(url);
  BoundPage page("claim", id, url);
  velora_test::PendingLoad load(page.web(), url);
  ASSERT_TRUE(load.waitForBytes());
  EXPECT_TRUE(PrefetchNetwork::removePrefetch(id));
  ASSERT_TRUE(load.waitForEnd());
  const LoadResult& result = load.result();
  EXPECT_EQ(result.error, 0);
  EXPECT_TRUE(result.body == velora_test::patternBytes(0, 1048576));
}

// Exits while prefetches stream, pages load and offline lookups wait.
VELORA_CHILD(ExitWithWorkInFlight) {
  static OriginServer* origin = new OriginServer();
  for (int i = 0; i < 10; ++i)
    startPrefetch(origin->url("/bytes/10485760?chunk=65536&delay=5&i=" + std::to_string(i)));
  static auto* page = new BoundPage("exiting");
  for (int i = 0; i < 10; ++i) {
    LoadOptions options(origin->url("/bytes/10485760?chunk=65536&delay=5&p=" + std::to_string(i)));
    options.keepBody = false;
    page->web().load(options, [](LoadResult) {});
  }
  StrataCore::pauseLookups();
  for (int i = 0; i < 10; ++i) {
    StrataCore::Access::getResource(StrataCore::ResourceRequest("https://a.test/x", {}),
                                    [](std::unique_ptr<StrataCore::ResourceResponse>) {});
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  return 0;
}

TEST(Stop, TheProcessExitsCleanlyWithWorkInFlight) {
  for (int run = 0; run < 10; ++run)
    ASSERT_EQ(velora_test::runChild("ExitWithWorkInFlight"), 0) << "run " << run;
}

VELORA_OVER_EACH_TRANSPORT(StopOver);
