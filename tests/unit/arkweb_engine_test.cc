// The host web engine as a scheme handler sees it: callbacks, threads,
// ownership, and the misuse a device tolerates.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <fstream>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

#include "arkweb/body_blocks.h"
#include "arkweb/task_runner.h"
#include "arkweb_host/rules.h"
#include "arkweb_host/web_component.h"
#include "origin_server.h"
#include "test_support.h"
#include "web/arkweb_interface.h"
#include "web/arkweb_scheme_handler.h"

using arkweb_host::LoadOptions;
using arkweb_host::LoadResult;
using arkweb_host::WebComponent;

namespace {

// A scheme handler whose start callback runs `onStart`; records its stops.
struct TestHandler {
  std::function<bool(ArkWeb_ResourceRequest*, const ArkWeb_ResourceHandler*)> onStart;
  std::atomic<int> stops{0};
  std::atomic<bool> stopOnIoThread{true};
  std::thread::id startThread;
  ArkWeb_SchemeHandler* handler = nullptr;

  explicit TestHandler(const std::string& tag) {
    OH_ArkWeb_CreateSchemeHandler(&handler);
    OH_ArkWebSchemeHandler_SetUserData(handler, this);
    OH_ArkWebSchemeHandler_SetOnRequestStart(handler, &TestHandler::start);
    OH_ArkWebSchemeHandler_SetOnRequestStop(handler, &TestHandler::stop);
    EXPECT_TRUE(OH_ArkWeb_SetSchemeHandler("http", tag.c_str(), handler));
  }
  ~TestHandler() { OH_ArkWeb_DestroySchemeHandler(handler); }

  static void start(const ArkWeb_SchemeHandler* handler,
                    ArkWeb_ResourceRequest* request,
                    const ArkWeb_ResourceHandler* resourceHandler,
                    bool* intercept) {
    auto* self = static_cast<TestHandler*>(OH_ArkWebSchemeHandler_GetUserData(handler));
    self->startThread = std::this_thread::get_id();
    *intercept = self->onStart(request, resourceHandler);
    if (*intercept) {
      OH_ArkWebResourceRequest_SetUserData(request,
                                           const_cast<ArkWeb_ResourceHandler*>(resourceHandler));
    }
  }

  static void stop(const ArkWeb_SchemeHandler* handler, const ArkWeb_ResourceRequest* request) {
    auto* self = static_cast<TestHandler*>(OH_ArkWebSchemeHandler_GetUserData(handler));
    if (std::this_thread::get_id() != self->startThread)
      self->stopOnIoThread = false;
    auto* resourceHandler =
        static_cast<ArkWeb_ResourceHandler*>(OH_ArkWebResourceRequest_GetUserData(request));
    OH_ArkWebResourceHandler_Destroy(resourceHandler);
    OH_ArkWebResourceRequest_Destroy(request);
    ++self->stops;
  }
};

void respond(const ArkWeb_ResourceHandler* handler,
             int status,
             const std::string& body,
             ArkWeb_NetError error = ARKWEB_NET_OK) {
  ArkWeb_Response* response = nullptr;
  OH_ArkWeb_CreateResponse(&response);
  OH_ArkWebResponse_SetStatus(response, status);
  OH_ArkWebResponse_SetHeaderByName(response, "Set-Cookie", "a=1", false);
  OH_ArkWebResponse_SetHeaderByName(response, "Set-Cookie", "b=2", false);
  OH_ArkWebResponse_SetMimeType(response, "text/plain");
  if (error != ARKWEB_NET_OK)
    OH_ArkWebResponse_SetError(response, error);
  OH_ArkWebResourceHandler_DidReceiveResponse(handler, response);
  OH_ArkWeb_DestroyResponse(response);  // the engine keeps its own copy
  if (error == ARKWEB_NET_OK) {
    OH_ArkWebResourceHandler_DidReceiveData(handler, reinterpret_cast<const uint8_t*>(body.data()),
                                            static_cast<int64_t>(body.size()));
  }
  OH_ArkWebResourceHandler_DidFinish(handler);
}

}  // namespace

TEST(ArkWebEngine, AnswersFromInsideTheStartCallbackOrFromAnotherThread) {
  auto web = WebComponent::create("engine1");
  TestHandler handler("engine1");
  handler.onStart = [](ArkWeb_ResourceRequest*, const ArkWeb_ResourceHandler* resource) {
    respond(resource, 201, "inline");
    return true;
  };
  LoadResult inlineAnswer = web->loadAndWait({"http://example.invalid/a"});
  EXPECT_TRUE(inlineAnswer.intercepted);
  EXPECT_EQ(inlineAnswer.status, 201);
  EXPECT_EQ(inlineAnswer.body, "inline");
  EXPECT_EQ(inlineAnswer.mimeType, "text/plain");
  EXPECT_EQ(inlineAnswer.headers,
            (arkweb_host::HeaderList{{"Set-Cookie", "a=1"}, {"Set-Cookie", "b=2"}}));

  std::vector<std::thread> answerers;
  handler.onStart = [&](ArkWeb_ResourceRequest*, const ArkWeb_ResourceHandler* resource) {
    answerers.emplace_back([resource] { respond(resource, 200, "later"); });
    return true;
  };
  LoadResult later = web->loadAndWait({"http://example.invalid/b"});
  for (auto& thread : answerers)
    thread.join();
  EXPECT_EQ(later.body, "later");
  EXPECT_EQ(handler.stops.load(), 2);
  EXPECT_TRUE(handler.stopOnIoThread.load());
  web->destroy();
}

TEST(ArkWebEngine, MisuseIsIgnoredWithALogLine) {
  velora_test::HilogCapture hilog;
  auto web = WebComponent::create("engine2");
  TestHandler handler("engine2");
  handler.onStart = [](ArkWeb_ResourceRequest*, const ArkWeb_ResourceHandler* resource) {
    const uint8_t early[] = {'x'};
    OH_ArkWebResourceHandler_DidReceiveData(resource, early, 1);  // before any response
    respond(resource, 200, "body");
    respond(resource, 500, "again");  // second response, data and finish after the end
    return true;
  };
  LoadResult result = web->loadAndWait({"http://example.invalid/"});
  EXPECT_EQ(result.status, 200);
  EXPECT_EQ(result.body, "body");
  EXPECT_TRUE(hilog.contains("DidReceiveData ignored: no response was sent"));
  EXPECT_TRUE(hilog.contains("DidReceiveResponse ignored: the request has ended"));
  EXPECT_TRUE(hilog.contains("DidFinish ignored"));
  EXPECT_EQ(handler.stops.load(), 1);
  web->destroy();
}

TEST(ArkWebEngine, ErrorsReachThePageAndEveryEndStopsTheRequestOnce) {
  auto web = WebComponent::create("engine3");
  TestHandler handler("engine3");
  handler.onStart = [](ArkWeb_ResourceRequest*, const ArkWeb_ResourceHandler* resource) {
    respond(resource, 200, "", ARKWEB_ERR_FAILED);
    return true;
  };
  EXPECT_EQ(web->loadAndWait({"http://example.invalid/e"}).error, ARKWEB_ERR_FAILED);

  handler.onStart = [](ArkWeb_ResourceRequest*, const ArkWeb_ResourceHandler* resource) {
    ArkWeb_Response* response = nullptr;
    OH_ArkWeb_CreateResponse(&response);
    OH_ArkWebResourceHandler_DidReceiveResponse(resource, response);
    OH_ArkWeb_DestroyResponse(response);
    OH_ArkWebResourceHandler_DidFailWithError(resource, ARKWEB_ERR_CONNECTION_RESET);
    return true;
  };
  EXPECT_EQ(web->loadAndWait({"http://example.invalid/f"}).error, ARKWEB_ERR_CONNECTION_RESET);

  // Never answered: the page navigates away.
  handler.onStart = [](ArkWeb_ResourceRequest*, const ArkWeb_ResourceHandler*) { return true; };
  LoadOptions cancelled{"http://example.invalid/c"};
  cancelled.cancelAfterMs = 50;
  EXPECT_EQ(web->loadAndWait(cancelled).error, ARKWEB_ERR_ABORTED);
  EXPECT_EQ(handler.stops.load(), 3);
  web->destroy();
}

// A handler that forgets to release a string it asked for.
VELORA_CHILD(EngineStringNeverReleased) {
  velora_test::OriginServer origin;
  auto web = WebComponent::create("forgetful");
  TestHandler handler("forgetful");
  handler.onStart = [](ArkWeb_ResourceRequest* request, const ArkWeb_ResourceHandler*) {
    char* url = nullptr;
    OH_ArkWebResourceRequest_GetUrl(request, &url);
    return false;
  };
  web->loadAndWait({origin.url("/bytes/10")});
  OH_ArkWeb_ClearSchemeHandlers("forgetful");
  return 0;
}

TEST(ArkWebEngine, StringsNeverReleasedAreReportedAtExit) {
  velora_test::TempDir dir;
  ASSERT_EQ(
      velora_test::runChild("EngineStringNeverReleased", {{"VELORA_HILOG", dir.file("hilog.txt")},
                                                          {"ASAN_OPTIONS", "detect_leaks=0"}}),
      0);
  std::ifstream in(dir.file("hilog.txt"));
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_NE(text.find("1 engine strings were never released"), std::string::npos) << text;
}

TEST(ArkWebEngine, DeclinedRequestsAndComponentsWithoutHandlerLoadOverTheNetwork) {
  velora_test::OriginServer origin;
  auto web = WebComponent::create("engine4");
  {
    TestHandler handler("engine4");
    handler.onStart = [](ArkWeb_ResourceRequest* request, const ArkWeb_ResourceHandler*) {
      char* url = nullptr;
      OH_ArkWebResourceRequest_GetUrl(request, &url);  // the handler's to release, declined or not
      OH_ArkWeb_ReleaseString(url);
      return false;
    };
    LoadResult declined = web->loadAndWait({origin.url("/bytes/3000")});
    EXPECT_FALSE(declined.intercepted);
    EXPECT_EQ(declined.body, velora_test::patternBytes(0, 3000));
    EXPECT_EQ(handler.stops.load(), 0);
    OH_ArkWeb_ClearSchemeHandlers("engine4");
  }
  LoadOptions post{origin.url("/echo?raw=1")};
  post.method = "POST";
  post.body = std::string(5000, 'p');
  LoadResult direct = web->loadAndWait(post);
  EXPECT_FALSE(direct.intercepted);
  EXPECT_EQ(direct.body, std::string(5000, 'p'));
  web->destroy();
  EXPECT_EQ(web->loadAndWait({origin.url("/bytes/1")}).error, ARKWEB_ERR_ABORTED);
}

// The engine's own loads (no handler) speak TLS as the bound ones do: HTTP/2
// with its redirects, and refused servers end the load once, without status.
TEST(ArkWebEngine, ItsOwnLoadsOverTlsFollowRedirectsAndRefuseBadServers) {
  velora_test::OriginServer origin(velora_test::Transport::kHttpsH2);
  velora_test::HilogCapture hilog;
  auto web = WebComponent::create("engine-tls");
  const std::string other = origin.otherOriginUrl("/bytes/4000");
  LoadResult redirected = web->loadAndWait({origin.url("/redirect?to=" + other)});
  EXPECT_FALSE(redirected.intercepted);
  EXPECT_EQ(redirected.error, 0);
  EXPECT_EQ(redirected.url, other);
  EXPECT_EQ(redirected.body, velora_test::patternBytes(0, 4000));
  EXPECT_EQ(origin.tls().h2Streams, 2);

  for (const char* fault : {"untrusted", "expired", "tls10"}) {
    int responses = 0;
    LoadOptions bad{origin.faultUrl(fault)};
    bad.onResponse = [&](int, const std::string&, const arkweb_host::HeaderList&) { ++responses; };
    LoadResult result = web->loadAndWait(bad);
    EXPECT_EQ(result.error, ARKWEB_ERR_FAILED) << fault;
    EXPECT_EQ(result.status, 0) << fault;
    EXPECT_EQ(responses, 0) << fault;
  }
  EXPECT_TRUE(hilog.contains("certificate has expired"));
  EXPECT_EQ(origin.tls().refusedReached, 0);
  web->destroy();
}

TEST(ArkWebEngine, RedirectsAreFollowedThroughTheHandlerAsNewRequests) {
  auto web = WebComponent::create("engine5");
  TestHandler handler("engine5");
  std::vector<std::pair<std::string, bool>> seen;
  handler.onStart = [&](ArkWeb_ResourceRequest* request, const ArkWeb_ResourceHandler* resource) {
    char* url = nullptr;
    OH_ArkWebResourceRequest_GetUrl(request, &url);
    seen.emplace_back(url, OH_ArkWebResourceRequest_IsRedirect(request));
    bool first = seen.size() == 1;
    OH_ArkWeb_ReleaseString(url);
    ArkWeb_Response* response = nullptr;
    OH_ArkWeb_CreateResponse(&response);
    OH_ArkWebResponse_SetStatus(response, first ? 302 : 200);
    if (first)
      OH_ArkWebResponse_SetHeaderByName(response, "Location", "/next?x=1", true);
    OH_ArkWebResourceHandler_DidReceiveResponse(resource, response);
    OH_ArkWeb_DestroyResponse(response);
    OH_ArkWebResourceHandler_DidFinish(resource);
    return true;
  };
  LoadResult result = web->loadAndWait({"http://example.invalid/dir/start"});
  EXPECT_EQ(result.status, 200);
  EXPECT_EQ(result.redirects, 1);
  EXPECT_EQ(result.url, "http://example.invalid/next?x=1");
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_FALSE(seen[0].second);
  EXPECT_TRUE(seen[1].second);
  web->destroy();
}

TEST(ArkWebEngine, ComponentApiRecordAndDestroyNotice) {
  auto* api =
      reinterpret_cast<ArkWeb_ComponentAPI*>(OH_ArkWeb_GetNativeAPI(ARKWEB_NATIVE_COMPONENT));
  ASSERT_NE(api, nullptr);
  EXPECT_EQ(api->size, sizeof(ArkWeb_ComponentAPI));
  EXPECT_FALSE(ARKWEB_MEMBER_MISSING(api, onDestroy));
  EXPECT_EQ(OH_ArkWeb_GetNativeAPI(ARKWEB_NATIVE_COOKIE_MANAGER), nullptr);

  auto web = WebComponent::create("engine6");
  static std::vector<std::string> destroyed;
  auto notice = [](const char* tag, void*) { destroyed.push_back(tag); };
  // A record that ends before onDestroy: the member is not there to call.
  arkweb_host::setComponentApiSize(offsetof(ArkWeb_ComponentAPI, onDestroy));
  EXPECT_EQ(OH_ArkWeb_GetNativeAPI(ARKWEB_NATIVE_COMPONENT), reinterpret_cast<void*>(api));
  EXPECT_TRUE(ARKWEB_MEMBER_MISSING(api, onDestroy));
  EXPECT_FALSE(ARKWEB_MEMBER_MISSING(api, onPageEnd));
  api->onDestroy("engine6", notice, nullptr);
  arkweb_host::RuleViolations broken = arkweb_host::takeRuleViolations();
  EXPECT_EQ(broken.count, 1u);
  EXPECT_NE(broken.first.find("onDestroy"), std::string::npos) << broken.first;
  arkweb_host::setComponentApiSize(0);
  api->onDestroy("engine6", notice, nullptr);
  web->destroy();
  EXPECT_EQ(destroyed, std::vector<std::string>{"engine6"}) << "only the call the record held";
  EXPECT_FALSE(OH_ArkWeb_SetSchemeHandler("http", "engine6", nullptr));
}

namespace {

// A handler-side upload reader: what its stream callbacks saw, and where.
struct UploadReader {
  ArkWeb_HttpBodyStream* stream = nullptr;
  std::thread::id ioThread;
  std::mutex mutex;
  std::vector<int> inits, reads;  // each callback's result, in order
  std::string bytes;
  bool offIoThread = false;
  uint8_t buffer[8] = {};
  std::promise<void> ended;

  static UploadReader* of(const ArkWeb_HttpBodyStream* stream) {
    return static_cast<UploadReader*>(OH_ArkWebHttpBodyStream_GetUserData(stream));
  }
  void seen(std::vector<int>* results, int result) {
    std::lock_guard<std::mutex> lock(mutex);
    results->push_back(result);
    offIoThread |= std::this_thread::get_id() != ioThread;
  }
  // Reads the whole body 3 bytes at a time, as a handler keeping the rules does.
  static void readOn(const ArkWeb_HttpBodyStream* stream, ArkWeb_NetError result) {
    UploadReader* self = of(stream);
    self->seen(&self->inits, result);
    OH_ArkWebHttpBodyStream_Read(stream, self->buffer, 3);
  }
  static void collect(const ArkWeb_HttpBodyStream* stream, uint8_t* buffer, int bytesRead) {
    UploadReader* self = of(stream);
    self->seen(&self->reads, bytesRead);
    self->bytes.append(reinterpret_cast<char*>(buffer), static_cast<size_t>(bytesRead));
    if (OH_ArkWebHttpBodyStream_IsEof(stream))
      self->ended.set_value();
    else
      OH_ArkWebHttpBodyStream_Read(stream, self->buffer, 3);
  }
  // Breaks the rules after a failed init: an empty read, then a read before
  // any successful init.
  static void misread(const ArkWeb_HttpBodyStream* stream, ArkWeb_NetError result) {
    UploadReader* self = of(stream);
    self->seen(&self->inits, result);
    OH_ArkWebHttpBodyStream_Read(stream, self->buffer, 0);
    OH_ArkWebHttpBodyStream_Read(stream, self->buffer, 4);
  }
  static void record(const ArkWeb_HttpBodyStream* stream, uint8_t*, int bytesRead) {
    UploadReader* self = of(stream);
    self->seen(&self->reads, bytesRead);
    if (self->reads.size() == 2)
      self->ended.set_value();
  }

  // Starts reading the request's body from the start callback; `offThreadInit`
  // first tries Init from another thread.
  void start(ArkWeb_ResourceRequest* request,
             ArkWeb_HttpBodyStreamInitCallback onInit,
             ArkWeb_HttpBodyStreamReadCallback onRead,
             bool offThreadInit = false) {
    ioThread = std::this_thread::get_id();
    OH_ArkWebResourceRequest_GetHttpBodyStream(request, &stream);
    OH_ArkWebHttpBodyStream_SetUserData(stream, this);
    OH_ArkWebHttpBodyStream_SetReadCallback(stream, onRead);
    if (offThreadInit) {
      std::thread([&] {
        EXPECT_EQ(OH_ArkWebHttpBodyStream_Init(stream, onInit), ARKWEB_INVALID_PARAM);
      }).join();
    }
    EXPECT_EQ(OH_ArkWebHttpBodyStream_Init(stream, onInit), ARKWEB_SUCCESS);
  }
  ~UploadReader() { OH_ArkWebResourceRequest_DestroyHttpBodyStream(stream); }
};

}  // namespace

TEST(ArkWebEngine, BodyStreamsCompleteOnTheIoThreadAndRefuseCallsThatBreakTheirRules) {
  auto web = WebComponent::create("engine7");
  TestHandler handler("engine7");
  LoadOptions upload{"http://example.invalid/up"};
  upload.method = "POST";
  upload.body = "hello world";

  UploadReader keeps;
  handler.onStart = [&](ArkWeb_ResourceRequest* request, const ArkWeb_ResourceHandler* resource) {
    keeps.start(request, UploadReader::readOn, UploadReader::collect);
    respond(resource, 200, "");
    return true;
  };
  web->loadAndWait(upload);
  ASSERT_EQ(keeps.ended.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(keeps.bytes, "hello world");
  EXPECT_EQ(keeps.inits, std::vector<int>{ARKWEB_NET_OK});
  EXPECT_EQ(keeps.reads, (std::vector<int>{3, 3, 3, 2}));
  EXPECT_FALSE(keeps.offIoThread) << "init and read callbacks come back on the IO thread";
  EXPECT_EQ(arkweb_host::takeRuleViolations().count, 0u);

  UploadReader breaks;
  upload.bodyInitError = ARKWEB_ERR_FILE_NOT_FOUND;
  handler.onStart = [&](ArkWeb_ResourceRequest* request, const ArkWeb_ResourceHandler* resource) {
    breaks.start(request, UploadReader::misread, UploadReader::record, /*offThreadInit=*/true);
    respond(resource, 200, "");
    return true;
  };
  web->loadAndWait(upload);
  ASSERT_EQ(breaks.ended.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(breaks.inits, std::vector<int>{ARKWEB_ERR_FILE_NOT_FOUND});
  // Refused reads are still answered: nothing for the empty one, an error
  // for the one before a successful init.
  EXPECT_EQ(breaks.reads, (std::vector<int>{0, ARKWEB_ERR_INVALID_ARGUMENT}));
  arkweb_host::RuleViolations broken = arkweb_host::takeRuleViolations();
  EXPECT_EQ(broken.count, 3u);
  EXPECT_NE(broken.first.find("Init called off the engine's IO thread"), std::string::npos)
      << broken.first;
  web->destroy();
}

// The engine's IO thread: posting order holds across batches and from inside
// a task, a delayed task runs when due (and before what is posted after
// that), and stopping drops what is not due.
TEST(ArkWebTaskRunner, RunsTasksInPostingOrderAndDelayedOnesWhenDue) {
  std::mutex mutex;
  std::vector<std::string> ran;
  auto record = [&](std::string what) {
    std::lock_guard<std::mutex> lock(mutex);
    ran.push_back(std::move(what));
  };
  auto recorded = [&] {
    std::lock_guard<std::mutex> lock(mutex);
    return ran;
  };
  {
    arkweb_host::TaskRunner runner("test-runner");
    runner.postDelayed([&] { record("never"); }, 60'000);
    // Held until all 200 are posted: the nested post then goes behind them.
    std::promise<void> posted200;
    runner.post([ready = posted200.get_future().share()] { ready.wait(); });
    for (int i = 0; i < 200; ++i) {
      runner.post([&, i] {
        record(std::to_string(i));
        if (i == 0)
          runner.post([&] { record("nested"); });  // behind everything posted so far
      });
    }
    posted200.set_value();
    runner.waitIdle();  // delayed tasks do not count
    std::vector<std::string> order = recorded();
    ASSERT_EQ(order.size(), 201u);
    for (int i = 0; i < 200; ++i)
      EXPECT_EQ(order[i], std::to_string(i));
    EXPECT_EQ(order[200], "nested");

    {
      std::lock_guard<std::mutex> lock(mutex);
      ran.clear();
    }
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    const auto posted = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point delayedAt;
    runner.post([&, released] {
      released.wait();
      record("busy");
    });
    runner.postDelayed(
        [&] {
          delayedAt = std::chrono::steady_clock::now();
          record("delayed");
        },
        20);
    std::this_thread::sleep_for(std::chrono::milliseconds(60));  // due while the runner is busy
    runner.post([&] { record("later"); });
    release.set_value();
    runner.waitIdle();
    EXPECT_EQ(recorded(), (std::vector<std::string>{"busy", "delayed", "later"}));
    EXPECT_GE(delayedAt - posted, std::chrono::milliseconds(20));
  }  // stopping: the task a minute away is dropped, not awaited
  EXPECT_EQ(std::count(ran.begin(), ran.end(), "never"), 0);
}

// The driver's body memory: a block is reused only after every buffer cut
// from it is let go of, slices sit end to end, and a slice handed on is never
// grown again.
TEST(ArkWebBodyBlocks, ABlockIsReusedOnlyOnceNothingHoldsIt) {
  using arkweb_host::BodyBlock;
  using arkweb_host::BodySlice;
  const std::string piece(16 * 1024, 'a');
  // Holds whatever the pool had, so the blocks below are the only ones.
  std::vector<std::shared_ptr<BodyBlock>> held;
  while (BodyBlock::pooled() > 0)
    held.push_back(BodyBlock::take(1));

  auto writer = std::make_unique<arkweb_host::BodyWriter>();
  BodySlice first = writer->write(piece.data(), piece.size());
  EXPECT_TRUE(writer->extend(first, piece.data(), piece.size()));
  BodySlice second = writer->write("bc", 2);
  EXPECT_EQ(first.block, second.block);
  EXPECT_EQ(second.offset, 2 * piece.size());
  EXPECT_FALSE(writer->extend(first, "x", 1)) << "the first slice is no longer the last";
  EXPECT_EQ(std::string(second.data(), second.size), "bc");

  // Filling the block moves the writer to a new one.
  std::string rest(BodyBlock::kBlockBytes - first.block->used(), 'z');
  EXPECT_TRUE(writer->extend(second, rest.data(), rest.size()));
  EXPECT_FALSE(writer->extend(second, "y", 1));
  BodySlice third = writer->write("y", 1);
  EXPECT_NE(third.block, first.block);

  // A piece larger than a block gets a block of its own, never pooled.
  std::string large(BodyBlock::kBlockBytes + 1, 'L');
  BodySlice big = writer->write(large.data(), large.size());
  EXPECT_EQ(std::string(big.data(), big.size), large);

  writer.reset();
  first = BodySlice();
  EXPECT_EQ(BodyBlock::pooled(), 0u) << "a slice still holds the first block";
  second = BodySlice();
  EXPECT_EQ(BodyBlock::pooled(), 1u);
  third = BodySlice();
  big = BodySlice();
  EXPECT_EQ(BodyBlock::pooled(), 2u);

  // A reused block starts empty.
  auto again = BodyBlock::take(1);
  EXPECT_EQ(again->used(), 0u);
  EXPECT_EQ(again->capacity(), BodyBlock::kBlockBytes);
}
