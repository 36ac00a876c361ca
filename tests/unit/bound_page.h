// A host web component bound to Velora the way webviewNativeInit and
// webviewNativeAttach bind it, destroyed with the object.
#ifndef VELORA_TESTS_UNIT_BOUND_PAGE_H
#define VELORA_TESTS_UNIT_BOUND_PAGE_H

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "arkweb_host/web_component.h"
#include "scheme/page_binding.h"

namespace velora_test {

class BoundPage {
 public:
  explicit BoundPage(const std::string& tag,
                     const std::string& prefetchId = "",
                     const std::string& prefetchUrl = "")
      : web_(arkweb_host::WebComponent::create(tag)) {
    auto info = std::make_shared<velora::WebInfo>();
    info->webTag = tag;
    info->prefetchId = prefetchId;
    info->prefetchUrl = prefetchUrl;
    velora::PageBinding::init(info);
    velora::PageBinding::attach(tag);
  }
  ~BoundPage() { destroy(); }

  arkweb_host::LoadResult load(arkweb_host::LoadOptions options) {
    return web_->loadAndWait(std::move(options));
  }
  arkweb_host::WebComponent& web() { return *web_; }
  void destroy() {
    if (!destroyed_)
      web_->destroy();
    destroyed_ = true;
  }

 private:
  std::shared_ptr<arkweb_host::WebComponent> web_;
  bool destroyed_ = false;
};

// A load started on `web` that a test watches: the first body bytes, then
// the end.
class PendingLoad {
 public:
  PendingLoad(arkweb_host::WebComponent& web, arkweb_host::LoadOptions options) {
    options.onData = [this](const char*, size_t, double) {
      std::lock_guard<std::mutex> lock(mutex_);
      gotBytes_ = true;
      changed_.notify_all();
    };
    web.load(std::move(options), [this](arkweb_host::LoadResult result) {
      std::lock_guard<std::mutex> lock(mutex_);
      result_ = std::move(result);
      done_ = true;
      changed_.notify_all();
    });
  }
  // The load must end before this goes: its callbacks refer to it.
  ~PendingLoad() { waitForEnd(std::chrono::seconds(30)); }

  bool waitForBytes(std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [this] { return gotBytes_; });
  }
  bool waitForEnd(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [this] { return done_; });
  }
  // After waitForEnd.
  const arkweb_host::LoadResult& result() const { return result_; }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool gotBytes_ = false;
  bool done_ = false;
  arkweb_host::LoadResult result_;
};

}  // namespace velora_test

#endif  // VELORA_TESTS_UNIT_BOUND_PAGE_H
