#include "network/ssr_send_pool.h"

#include <chrono>
#include <cstdlib>
#include <exception>
#include <thread>

#include "hilog/log.h"
#include "log_tags.h"

namespace velora {
namespace {

// How long an exiting process waits for sends that are still running.
constexpr std::chrono::seconds kExitWait{3};

}  // namespace

SsrSendPool& SsrSendPool::getInstance() {
  static SsrSendPool* pool = [] {
    auto* created = new SsrSendPool();
    // Registered after the statics the sends use were built, so it runs
    // before they are destroyed.
    std::atexit([] { SsrSendPool::getInstance().stopAtExit(); });
    return created;
  }();
  return *pool;
}

void SsrSendPool::post(std::function<void()> task) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopping_)
    return;
  queue_.push_back(std::move(task));
  if (idle_ == 0 && workers_ < kMaxWorkers) {
    ++workers_;
    std::thread([this] { work(); }).detach();
  } else {
    wake_.notify_one();
  }
}

void SsrSendPool::work() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    ++idle_;
    wake_.wait(lock, [this] { return !queue_.empty() || stopping_; });
    --idle_;
    if (stopping_)
      break;
    std::function<void()> task = std::move(queue_.front());
    queue_.pop_front();
    ++busy_;
    lock.unlock();
    try {
      task();
    } catch (const std::exception& e) {
      OH_LOG_Print(LOG_APP, LOG_ERROR, 0, log_tags::kSsrRequest, "SSR send failed: %{public}s",
                   e.what());
    } catch (...) {
      OH_LOG_Print(LOG_APP, LOG_ERROR, 0, log_tags::kSsrRequest, "SSR send failed");
    }
    // Whatever the task held goes before the lock is taken again.
    task = nullptr;
    lock.lock();
    --busy_;
    finished_.notify_all();
  }
  --workers_;
}

void SsrSendPool::stopAtExit() {
  std::deque<std::function<void()>> dropped;
  std::unique_lock<std::mutex> lock(mutex_);
  stopping_ = true;
  dropped.swap(queue_);
  wake_.notify_all();
  finished_.wait_for(lock, kExitWait, [this] { return busy_ == 0; });
  lock.unlock();
  // The dropped sends' requests go here, on the exiting thread.
}

}  // namespace velora
